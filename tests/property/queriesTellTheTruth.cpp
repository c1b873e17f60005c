// The queries tell the truth: random profiles are loaded with the real tools, real packets are
// sent, and every answer about a port is held against what became of them.
//
//   queriesTellTheTruth [--profiles N] [--seed S] [--without-packets]
//
// "allowed" has to mean that all packets of the query pass, "blocked" that none does, "partly
// blocked" that it depends on the source. Profile number I of a run is made from the seed S + I, so
// that "--profiles 1 --seed (S + I)" makes it again.
//
// Three things are compared, so that no mistake hides behind another one:
//
//   the library's answer      and   the specified answer, worked out here from the same profile
//   what became of a packet   and   what should have, worked out here from the same profile
//   the library's answer      and   what became of the packets it is about
//
// The specified answers are known to differ from the packet filter in some kinds of profiles
// (known_differences.md). A difference is simplified to the smallest case that shows it and counted
// under its kind; one of no kind is a failure. --without-packets works everything out and needs no
// network: good for very many profiles.
//
// Exit status: 0 the queries tell the truth, 1 they do not, 2 misuse.

#include <unistd.h>

#include <cstdint>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "difference.h"
#include "loadedProfile.h"
#include "packetFilter.h"
#include "profiles.h"
#include "truth.h"
#include "wire.h"

namespace property {
namespace {

constexpr std::size_t kQueriesPerProfile = 24;

struct Options {
  std::size_t profiles = 100;
  std::uint64_t seed = 1;
  bool withPackets = true;
};

struct Counts {
  std::size_t packets = 0;
  std::map<std::string, std::size_t> answers;      // by verdict
  std::map<std::string, std::size_t> differences;  // by kind
};

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

FW::AdapterPolicyMap answerOf(const FW::FWPROFILE& profile, const Query& query) {
  const FW::AdapterPolicyMap answer = libraryAnswer(query);
  if (answer == specifiedAnswer(profile, query)) return answer;
  const FW::FWPROFILE few = smallest(profile, [&query](const FW::FWPROFILE& tried) {
    store(tried);
    return libraryAnswer(query) != specifiedAnswer(tried, query);
  });
  store(few);
  throw Untruth("The answer is not as specified.\n" + describe(few) + describe(query) +
                ": answered " + asText(libraryAnswer(query)) + "; specified " +
                asText(specifiedAnswer(few, query)) + "\n");
}

// A verdict that is not what became of the packets: counted when it is of a known kind.
void countDifference(const Case& difference, Counts& counts) {
  const Case few = smallest(difference);
  const KnownDifference* const kind = knownDifference(few);
  if (kind == nullptr) {
    throw Untruth("An answer that is not true, and not known to differ.\n" + describe(few) +
                  "It was found in:\n" + describe(difference));
  }
  ++counts.differences[kind->name];
}

void checkProfile(const FW::FWPROFILE& profile, Random& random, Wire* wire, Counts& counts) {
  const std::vector<bool> passed =
      wire != nullptr ? sendPackets(*wire, profile, counts) : std::vector<bool>();
  const PacketFilter filter(profile);
  const auto passes = [&](std::size_t position) {
    return wire != nullptr ? passed[position] : filter.passes(allPackets()[position]);
  };
  const unsigned interfaces = interfacesOf(profile);
  for (std::size_t count = 0; count < kQueriesPerProfile; ++count) {
    const Query& query = random.oneOf(allQueries());
    const FW::AdapterPolicyMap answer =
        wire != nullptr ? answerOf(profile, query) : specifiedAnswer(profile, query);
    for (const auto& [adapter, verdict] : answer) {
      // The verdict of "global" is about its rules alone; packets arrive on adapters.
      const auto interface = interfaceOf(adapter);
      if (!interface || (interfaces >> *interface & 1U) == 0) continue;
      ++counts.answers[nameOfVerdict(verdict)];
      if (agrees(verdict, truthOf(query, adapter, passes))) continue;
      countDifference({profile, query, adapter}, counts);
    }
  }
}

// --- the examples ---

// Each kind of difference is there, as it is written down.
void checkExample(const Example& example, Wire* wire, Counts& counts) {
  const Case& one = example.shows;
  const auto expect = [&example, &one](bool holds, const std::string& what) {
    if (!holds) throw Untruth(std::string(example.difference) + ": " + what + "\n" + describe(one));
  };
  expect(verdictOf(one) == example.verdict, "another verdict");
  expect(truthOf(one) == example.truth, "the packets fare differently");
  const KnownDifference* const kind = knownDifference(smallest(one));
  expect(kind != nullptr && kind->name == std::string(example.difference), "of another kind");
  if (wire == nullptr) return;
  const std::vector<bool> passed = sendPackets(*wire, one.profile, counts);
  expect(answerOf(one.profile, one.query).at(one.adapter) == example.verdict, "another answer");
  const Truth truth =
      truthOf(one.query, one.adapter, [&passed](std::size_t position) { return passed[position]; });
  expect(truth == example.truth, "real packets fare differently");
}

void checkExamples(Wire* wire, Counts& counts) {
  for (const Example& example : examples()) checkExample(example, wire, counts);
  for (const KnownDifference& kind : knownDifferences()) {
    bool has = false;
    for (const Example& example : examples())
      has = has || example.difference == std::string(kind.name);
    if (!has) throw Untruth(std::string("no example of: ") + kind.name);
  }
}

// --- the run ---

void print(const Options& options, const Counts& counts) {
  std::size_t answers = 0;
  std::size_t differences = 0;
  std::string verdicts;
  for (const auto& [verdict, count] : counts.answers) {
    answers += count;
    verdicts += (verdicts.empty() ? "" : ", ") + std::to_string(count) + " " + verdict;
  }
  for (const auto& [kind, count] : counts.differences) differences += count;
  std::cout << options.profiles << " profiles, " << counts.packets << " packets, " << answers
            << " answers (" << verdicts << "): " << answers - differences << " are what became of "
            << "the packets, " << differences << " differ in a way that is known:\n";
  for (const auto& [kind, count] : counts.differences) {
    std::cout << "  " << kind << ": " << count << "\n";
  }
}

int run(const Options& options) {
  std::cout << "seed " << options.seed << "\n";
  std::unique_ptr<Wire> wire;
  if (options.withPackets) {
    prepareMachine();
    wire = std::make_unique<Wire>();
  }
  Counts counts;
  std::uint64_t seed = options.seed;
  try {
    checkExamples(wire.get(), counts);
    for (std::size_t index = 0; index < options.profiles; ++index) {
      seed = options.seed + index;
      Random random(seed);
      const FW::FWPROFILE profile = randomProfile(random);
      checkProfile(profile, random, wire.get(), counts);
    }
  } catch (const Untruth& untruth) {
    std::cout << "--profiles 1 --seed " << seed << ":\n" << untruth.what();
    return 1;
  }
  print(options, counts);
  return 0;
}

int misuse() {
  std::cerr << "usage: queriesTellTheTruth [--profiles N] [--seed S] [--without-packets]\n";
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
    if (words[index] == "--without-packets") {
      options.withPackets = false;
    } else if (words[index] == "--profiles" && hasNumber) {
      options.profiles = std::stoull(words[++index]);
    } else if (words[index] == "--seed" && hasNumber) {
      options.seed = std::stoull(words[++index]);
    } else {
      return property::misuse();
    }
  }
  if (options.withPackets && access("/run/tarn-sandbox", F_OK) != 0) {
    std::cerr << "queriesTellTheTruth loads profiles: run it as tarn-sandbox --network ...\n";
    return 2;
  }
  try {
    return property::run(options);
  } catch (const std::exception& exception) {
    std::cerr << "queriesTellTheTruth: " << exception.what() << "\n";
    return 1;
  }
}
