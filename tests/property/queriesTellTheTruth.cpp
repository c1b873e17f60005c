// The queries tell the truth: random profiles are loaded with the real tools, real packets are
// sent, and every answer about a port is held against what became of them.
//
// "allowed" has to mean that all packets of the query pass, "blocked" that none does, "partly
// blocked" that it depends on the source, "undecided" that nothing stops them. Profile number I of
// a run is made from the seed S + I, so that "--profiles 1 --seed (S + I)" makes it again.
//
// Three things are compared, so that no mistake hides behind another one:
//
//   the library's answer      and   the answer worked out here from the same profile
//   what became of a packet   and   what should have, worked out here from the same profile
//   the library's answer      and   what became of the packets it is about
//
// The first two are always the same. So are the last two, unless one of the reasons of reasons.h
// applies. A difference without a reason is a failure: it is simplified and printed.

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "difference.h"
#include "evaluation.h"
#include "figures.h"
#include "loadedProfile.h"
#include "packetFilter.h"
#include "profiles.h"
#include "reasons.h"
#include "truth.h"
#include "wire.h"

namespace property {
namespace {

constexpr std::size_t kQueriesPerProfile = 24;
constexpr std::size_t kExplanationsPerTrial = 16;
constexpr std::size_t kVerdictsForForce = 1000;
constexpr std::size_t kLeastPercentAgreed = 30;
constexpr char kSandboxMark[] = "/run/tarn-sandbox";

struct Options {
  std::size_t profiles = 100;
  std::uint64_t seed = 1;
  bool withPackets = true;
  std::string document;  // that tells of the reasons; empty: none is read
};

struct Counts {
  std::size_t queries = 0;
  std::size_t packets = 0;
  std::map<std::string, std::size_t> agreed;           // by verdict: no reason to differ
  std::size_t agreedAnyway = 0;                        // in spite of a reason
  std::size_t explained = 0;                           // they differ, for the reasons
  std::map<Reason, std::size_t> explainedBy;           // this one, maybe with others
  std::map<Reason, std::size_t> explainedByThisAlone;  // and no other
};

std::size_t agreedOf(const Counts& counts) {
  std::size_t agreed = 0;
  for (const auto& [verdict, count] : counts.agreed) agreed += count;
  return agreed;
}

std::size_t verdictsOf(const Counts& counts) {
  return agreedOf(counts) + counts.agreedAnyway + counts.explained;
}

// What is wrong, with the smallest profile that shows it.
struct Untruth : std::runtime_error {
  using std::runtime_error::runtime_error;
};

const char* nameOfVerdict(int verdict) {
  switch (verdict) {
    case kAllowed:
      return "allowed";
    case kBlocked:
      return "blocked";
    case kUndecided:
      return "undecided";
    case kPartly:
      return "partly blocked";
    default:
      return "something else";
  }
}

std::string asText(const FW::AdapterPolicyMap& answer) {
  std::string text;
  for (const auto& [adapter, verdict] : answer) {
    text += (text.empty() ? "" : ", ") + adapter + " " + nameOfVerdict(verdict);
  }
  return text.empty() ? "nothing" : text;
}

// --- one profile ---

// The interfaces that the profile says something about, a bit each; eth0 in any case.
unsigned interfacesOf(const FW::FWPROFILE& profile) {
  unsigned interfaces = 1;
  const auto add = [&interfaces](const std::string& adapter) {
    if (const auto interface = interfaceOf(adapter)) interfaces |= 1U << *interface;
  };
  for (const auto& [adapter, rules] : profile.rules) add(adapter);
  for (const auto& [adapter, policy] : profile.adapterPolicyMap) add(adapter);
  return interfaces;
}

// What becomes of all packets, worked out; of those on other interfaces, nothing.
std::vector<bool> workedOutPackets(const FW::FWPROFILE& profile, unsigned interfaces) {
  const PacketFilter filter(profile);
  std::vector<bool> passed;
  for (const Packet& packet : allPackets()) {
    passed.push_back((interfaces >> packet.interface & 1U) != 0 && filter.passes(packet));
  }
  return passed;
}

// The first packet that fared differently from what the rules say; none when all did as they say.
const Packet* strayPacket(const FW::FWPROFILE& profile, unsigned interfaces,
                          const std::vector<bool>& passed) {
  const PacketFilter filter(profile);
  const std::vector<Packet>& packets = allPackets();
  for (std::size_t position = 0; position < packets.size(); ++position) {
    const Packet& packet = packets[position];
    if ((interfaces >> packet.interface & 1U) != 0 && filter.passes(packet) != passed[position]) {
      return &packet;
    }
  }
  return nullptr;
}

// Sends all packets through the loaded profile.
std::vector<bool> sendPackets(Wire& wire, const FW::FWPROFILE& profile, Counts& counts) {
  const unsigned interfaces = interfacesOf(profile);
  const auto tryOut = [&wire, interfaces](const FW::FWPROFILE& tried) {
    store(tried);
    load(tried);
    return wire.passed(interfaces);
  };
  std::vector<bool> passed = tryOut(profile);
  for (const Packet& packet : allPackets()) counts.packets += interfaces >> packet.interface & 1U;
  if (strayPacket(profile, interfaces, passed) == nullptr) return passed;

  const FW::FWPROFILE few = smallest(profile, [&](const FW::FWPROFILE& tried) {
    return strayPacket(tried, interfaces, tryOut(tried)) != nullptr;
  });
  const Packet* const stray = strayPacket(few, interfaces, tryOut(few));
  throw Untruth("The packet filter does not do what the rules say.\n" + describe(few) +
                (stray == nullptr ? "a packet" : describe(*stray)) + "\n");
}

// The library's answer, which is the one worked out.
FW::AdapterPolicyMap answerOf(const FW::FWPROFILE& profile, const Query& query) {
  FW::AdapterPolicyMap answer = libraryAnswer(query);
  if (answer == workedOutAnswer(profile, query)) return answer;
  const std::string adapter = query.adapter.empty() ? kInterfaces.front() : query.adapter;
  const Case few = smallest({profile, query, adapter}, [](const Case& tried) {
    store(tried.profile);
    return libraryAnswer(tried.query) != workedOutAnswer(tried.profile, tried.query);
  });
  store(few.profile);
  throw Untruth("The library's answer is another than the one worked out.\n" +
                describe(few.profile) + describe(few.query) + ": answered " +
                asText(libraryAnswer(few.query)) + "; worked out " +
                asText(workedOutAnswer(few.profile, few.query)) + "\n");
}

// A verdict that is not true, and no reason applies to the smallest case that shows it.
[[noreturn]] void failUnexplained(const Case& few, const Case& found) {
  throw Untruth("An answer that is not true, for no known reason.\n" + describe(few) +
                "It was found in:\n" + describe(found));
}

void compare(const Case& one, int verdict, Truth truth, Counts& counts) {
  const auto isUntrue = [verdict](const Case& tried) {
    return verdictOf(tried) == verdict && !agrees(verdict, truthOf(tried));
  };
  const Reasons reasons = reasonsOf(one);
  if (agrees(verdict, truth)) {
    ++(reasons.empty() ? counts.agreed[nameOfVerdict(verdict)] : counts.agreedAnyway);
    return;
  }
  if (reasons.empty()) {
    failUnexplained(
        smallest(one,
                 [&](const Case& tried) { return isUntrue(tried) && reasonsOf(tried).empty(); }),
        one);
  }
  ++counts.explained;
  for (const Reason reason : reasons) ++counts.explainedBy[reason];
  if (reasons.size() == 1) ++counts.explainedByThisAlone[*reasons.begin()];
  // An explanation is put to the test: when everything is gone that the difference does not take,
  // a reason is left.
  if (counts.explained % kExplanationsPerTrial != 0) return;
  const Case few = smallest(one, isUntrue);
  if (reasonsOf(few).empty()) failUnexplained(few, one);
}

// Packets arrive on adapters that the profile says something about; the verdict of "global" is
// about its rules alone.
bool isTried(const std::string& adapter, unsigned interfaces) {
  const auto interface = interfaceOf(adapter);
  return interface && (interfaces >> *interface & 1U) != 0;
}

// Every other query is one with a verdict that has to be true, if such a one is found soon.
const Query& randomQuery(const FW::FWPROFILE& profile, unsigned interfaces, Random& random) {
  constexpr std::size_t kTries = 8;
  const bool hasToBeTrue = random.oneIn(2);
  const Query* query = &random.oneOf(allQueries());
  for (std::size_t tries = 0; hasToBeTrue && tries < kTries; ++tries) {
    for (const auto& [adapter, verdict] : workedOutAnswer(profile, *query)) {
      if (isTried(adapter, interfaces) && reasonsOf({profile, *query, adapter}).empty()) {
        return *query;
      }
    }
    query = &random.oneOf(allQueries());
  }
  return *query;
}

void checkProfile(const FW::FWPROFILE& profile, Random& random, Wire* wire, Counts& counts) {
  const unsigned interfaces = interfacesOf(profile);
  const std::vector<bool> passed =
      wire != nullptr ? sendPackets(*wire, profile, counts) : workedOutPackets(profile, interfaces);
  const auto passes = [&passed](std::size_t position) { return passed[position]; };
  for (std::size_t count = 0; count < kQueriesPerProfile; ++count) {
    const Query& query = randomQuery(profile, interfaces, random);
    ++counts.queries;
    const FW::AdapterPolicyMap answer =
        wire != nullptr ? answerOf(profile, query) : workedOutAnswer(profile, query);
    for (const auto& [adapter, verdict] : answer) {
      if (!isTried(adapter, interfaces)) continue;
      compare({profile, query, adapter}, verdict, truthOf(query, adapter, passes), counts);
    }
  }
}

// Reasons that applied to nearly everything would explain everything: many verdicts of each kind
// have none. A few profiles by hand say nothing about that.
void checkForce(const Counts& counts) {
  const std::size_t all = verdictsOf(counts);
  if (all < kVerdictsForForce) return;
  for (const int verdict : {kAllowed, kBlocked, kUndecided, kPartly}) {
    if (counts.agreed.count(nameOfVerdict(verdict)) != 0) continue;
    throw Untruth(std::string("No verdict without a reason to differ is: ") +
                  nameOfVerdict(verdict) + "\n");
  }
  if (agreedOf(counts) * 100 < all * kLeastPercentAgreed) {
    throw Untruth("Only " + std::to_string(agreedOf(counts)) + " of " + std::to_string(all) +
                  " verdicts have no reason to differ.\n");
  }
}

// --- the examples ---

// Each reason makes a difference, as it is written down.
void checkExample(const Example& example, Wire* wire, Counts& counts) {
  const Case& one = example.shows;
  const auto expect = [&example, &one](bool holds, const std::string& what) {
    if (holds) return;
    throw Untruth("Example of \"" + std::string(nameOf(example.reason)) + "\": " + what + "\n" +
                  describe(one));
  };
  expect(verdictOf(one) == example.verdict, "another verdict");
  expect(truthOf(one) == example.truth, "the packets fare differently");
  expect(!agrees(example.verdict, example.truth), "no difference");
  expect(reasonsOf(one) == Reasons{example.reason}, "for " + describe(reasonsOf(one)));
  if (wire == nullptr) return;
  const std::vector<bool> passed = sendPackets(*wire, one.profile, counts);
  expect(answerOf(one.profile, one.query).at(one.adapter) == example.verdict, "another answer");
  const Truth truth =
      truthOf(one.query, one.adapter, [&passed](std::size_t position) { return passed[position]; });
  expect(truth == example.truth, "real packets fare differently");
}

void checkExamples(Wire* wire, Counts& counts) {
  Reasons shown;
  for (const Example& example : examples()) {
    checkExample(example, wire, counts);
    shown.insert(example.reason);
  }
  for (const Reason reason : allReasons()) {
    if (shown.count(reason) == 0) throw Untruth(std::string("no example of: ") + nameOf(reason));
  }
}

// What users are told of: every reason, by name.
void checkDocument(const std::string& path) {
  std::ifstream file(path);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  for (const Reason reason : allReasons()) {
    const std::string title = std::string("**").append(nameOf(reason)).append("**");
    if (text.find(title) == std::string::npos)
      throw Untruth(std::string(path).append(" lacks ").append(title).append("\n"));
  }
}

// --- the run ---

// The closing line is called after the test that it belongs to.
std::string nameOfRun(const Options& options) {
  if (!options.withPackets) return "property/withoutPackets";
  const std::string program = std::filesystem::canonical("/sbin/iptables").filename();
  return program.find("nft") != std::string::npos ? "property/nft" : "property/legacy";
}

void print(const Options& options, const Counts& counts, std::chrono::seconds time) {
  std::string verdicts;
  for (const auto& [verdict, count] : counts.agreed) {
    verdicts += (verdicts.empty() ? "" : ", ") + std::to_string(count) + " " + verdict;
  }
  std::cout << verdictsOf(counts) << " verdicts\n"
            << "  " << agreedOf(counts)
            << " with no reason to differ, and all are true: " << verdicts << "\n"
            << "  " << counts.agreedAnyway << " are true in spite of a reason\n"
            << "  " << counts.explained
            << " are not true, and a reason says why; of these, by reason"
            << " (and by that reason alone):\n";
  for (const auto& [reason, count] : counts.explainedBy) {
    const auto alone = counts.explainedByThisAlone.find(reason);
    std::cout << "    " << nameOf(reason) << ": " << count << " ("
              << (alone == counts.explainedByThisAlone.end() ? 0 : alone->second) << ")\n";
  }
  std::cout << "figures: " << nameOfRun(options) << ": " << options.profiles << " profiles, "
            << counts.queries << " queries, " << counts.packets << " packets, 0 unexplained; "
            << time.count() << " s\n";
}

int run(const Options& options) {
  std::cout << "seed " << options.seed << "\n" << std::flush;
  std::unique_ptr<Wire> wire;
  if (options.withPackets) {
    prepareMachine();
    wire = std::make_unique<Wire>();
  }
  const auto start = std::chrono::steady_clock::now();
  Counts counts;
  std::string where = "the examples";
  try {
    if (!options.document.empty()) checkDocument(options.document);
    checkExamples(wire.get(), counts);
    for (std::size_t index = 0; index < options.profiles; ++index) {
      const std::uint64_t seed = options.seed + index;
      where = "--profiles 1 --seed " + std::to_string(seed);
      Random random(seed);
      const FW::FWPROFILE profile = randomProfile(random);
      checkProfile(profile, random, wire.get(), counts);
    }
    where = "all profiles";
    checkForce(counts);
  } catch (const Untruth& untruth) {
    std::cout << where << ":\n" << untruth.what() << std::flush;
    return 1;
  }
  print(options, counts,
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start));
  return 0;
}

constexpr char kHelp[] =
    "usage: queriesTellTheTruth [--profiles N] [--seed S] [--without-packets] [--document FILE]\n"
    "\n"
    "Compares what fwPortIsBlocked answers with what becomes of real packets.\n"
    "\n"
    "  --profiles N       so many random profiles (100), TARN_LONG times\n"
    "  --seed S           the first is made from S, the next from S + 1, ... (1)\n"
    "  --without-packets  works out what the packets and the library would do: much faster\n"
    "  --document FILE    also fails when a reason to differ is not told of in FILE\n"
    "\n"
    "It loads profiles, so it runs in a network of its own:\n"
    "\n"
    "  tarn-sandbox --backend nft --network -- queriesTellTheTruth --profiles 1000 --seed 1\n"
    "\n"
    "The backend is nft or legacy. A difference that has no known reason is simplified and printed\n"
    "with the seed that makes the profile again.\n"
    "\n"
    "Exit status: 0 the queries tell the truth, 1 they do not, 2 misuse.\n";

int misuse() {
  std::cerr << "queriesTellTheTruth: see --help\n";
  return 2;
}

}  // namespace
}  // namespace property

int main(int argc, char** argv) {
  property::Options options;
  const std::vector<std::string> words(argv + 1, argv + argc);
  for (std::size_t index = 0; index < words.size(); ++index) {
    const bool hasNumber = index + 1 < words.size() && !words[index + 1].empty() &&
                           words[index + 1].find_first_not_of("0123456789") == std::string::npos;
    if (words[index] == "--help") {
      std::cout << property::kHelp;
      return 0;
    }
    if (words[index] == "--without-packets") {
      options.withPackets = false;
    } else if (words[index] == "--profiles" && hasNumber) {
      options.profiles = std::stoull(words[++index]);
    } else if (words[index] == "--seed" && hasNumber) {
      options.seed = std::stoull(words[++index]);
    } else if (words[index] == "--document" && index + 1 < words.size()) {
      options.document = words[++index];
    } else {
      return property::misuse();
    }
  }
  if (options.withPackets && access(property::kSandboxMark, F_OK) != 0) {
    std::cerr << "queriesTellTheTruth loads profiles: run it as tarn-sandbox --network ...\n";
    return 2;
  }
  options.profiles *= static_cast<std::size_t>(figures::longer());
  try {
    return property::run(options);
  } catch (const std::exception& exception) {
    std::cerr << "queriesTellTheTruth: " << exception.what() << "\n";
    return 1;
  }
}
