// Many processes on the same documents, and many new profiles at once: nothing torn, nothing lost,
// nothing taken back.

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "crowd.h"
#include "figures.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "testFiles.h"

namespace {

constexpr std::uint64_t kLongestCall = 35000;  // milliseconds; a lock is waited for 30 seconds
constexpr unsigned kPatience = 110;            // seconds, for a process of a round

// --- one clock for every process of this program ---

// The library draws the file name of a new profile from the clock's second and the 99 that follow.
// The test says which second it is, so that all processes draw from the same hundred names for as
// long as it likes. 0: the machine's clock.
crowd::Shared<std::atomic<std::time_t>>& stoppedClock() {
  static crowd::Shared<std::atomic<std::time_t>> clock;
  return clock;
}

}  // namespace

// In place of the C library's, for the library under test too.
extern "C" std::time_t time(std::time_t* result) noexcept {
  std::time_t now = *stoppedClock();
  if (now == 0) {
    timespec exact = {};
    (void)clock_gettime(CLOCK_REALTIME, &exact);
    now = exact.tv_sec;
  }
  if (result != nullptr) *result = now;
  return now;
}

namespace {

class ManyAtOnce : public testing::Test {
 protected:
  static void SetUpTestSuite() { figures::open("many-at-once/documents"); }
  void SetUp() override {
    files::clear();
    *stoppedClock() = 0;
  }
};

// --- the same documents ---

constexpr int kDocumentUsers = 32;
constexpr int kDocuments = 4;

std::string documentPath(int number) {
  return std::string(files::kProfileDirectory) + "shared" + std::to_string(number) + ".json";
}

// A document that says who wrote it, and when; every part of it follows from that.
Json::Value documentOf(int writer, int round) {
  Json::Value document;
  document["writer"] = writer;
  document["round"] = round;
  const auto length = static_cast<std::size_t>((writer * 131 + round * 17) % 6000);
  document["text"] = std::string(length, static_cast<char>('a' + round % 26));
  document["list"] = Json::Value(Json::arrayValue);
  for (int index = 0; index < round % 40; ++index) document["list"].append(writer + index);
  return document;
}

struct DocumentCounts {
  crowd::Calls dumps;
  crowd::Calls loads;
  std::atomic<std::uint64_t> torn = 0;
  std::atomic<std::uint64_t> takenBack = 0;
};

// Reads the document. What it has seen of a writer before must not come back later.
void look(DocumentCounts& counts, const std::string& path, std::map<int, int>& seen) {
  Json::Value document;
  if (!crowd::call(counts.loads, [&] { return jsonFileLoad(document, path); })) return;
  const int writer = document["writer"].asInt();
  const int round = document["round"].asInt();
  if (document != documentOf(writer, round)) ++counts.torn;
  const auto [last, isNew] = seen.emplace(writer, round);
  if (!isNew && round < last->second) ++counts.takenBack;
  last->second = round;
}

TEST_F(ManyAtOnce, DocumentsAreNeitherTornNorTakenBack) {
  const int rounds = 500 * figures::longer();
  const crowd::Shared<DocumentCounts> counts;
  const auto work = [&](int number) {
    const std::string path = documentPath(number % kDocuments);
    std::map<int, int> seen;
    for (int round = 1; round <= rounds; ++round) {
      (void)crowd::call(counts->dumps,
                        [&] { return jsonFileDump(documentOf(number, round), path); });
      seen[number] = round;
      look(*counts, path, seen);
    }
    return std::string("done");
  };
  const unsigned patience = kPatience * static_cast<unsigned>(figures::longer());
  EXPECT_EQ("", crowd::others(crowd::run(kDocumentUsers, patience, work), "done"));

  std::uint64_t lost = 0;
  for (int number = 0; number < kDocuments; ++number) {
    Json::Value last;
    ASSERT_TRUE(jsonFileLoad(last, documentPath(number)));
    // Whoever wrote last had no more to write.
    lost += last == documentOf(last["writer"].asInt(), rounds) ? 0U : 1U;
  }
  const auto each = static_cast<std::uint64_t>(kDocumentUsers) * static_cast<std::uint64_t>(rounds);
  EXPECT_EQ(each, counts->dumps.succeeded);
  EXPECT_EQ(each, counts->loads.succeeded);
  EXPECT_EQ(0U, counts->torn);
  EXPECT_EQ(0U, counts->takenBack);
  EXPECT_EQ(0U, lost);
  EXPECT_LT(std::max(counts->dumps.longest, counts->loads.longest), kLongestCall);
  EXPECT_EQ(static_cast<std::size_t>(kDocuments), files::list(files::kProfileDirectory).size());
  figures::add(counts->dumps.all() + counts->loads.all(), "loads and dumps of 32 processes");
  figures::add(counts->torn, "torn");
  figures::add(counts->takenBack + lost, "lost or taken back");
}

// --- new profiles ---

constexpr int kCreators = 20;
constexpr int kCreations = 50;
constexpr int kNamesOfASecond = 100;
constexpr int kInASecond = kNamesOfASecond / kCreators;  // creations of each process
constexpr int kSecondsWithChanges = 2;
constexpr std::time_t kFirstSecond = 1700000000;

std::string newName(int creator, int creation) {
  return "p" + std::to_string(creator) + "." + std::to_string(creation);
}

// The files that hold a profile, by its name, as the directory has them.
std::map<std::string, int> storedProfiles() {
  std::map<std::string, int> names;
  for (const std::string& file : files::list(files::kProfileDirectory)) {
    if (file.size() < 5 || file.compare(file.size() - 5, 5, ".json") != 0) continue;
    const Json::Value document = toJson(files::read(files::kProfileDirectory + file));
    const std::string name = document["name"].asString();
    Json::Value expected;
    expected["name"] = name;
    expected["rules"] = Json::Value();
    expected["adapterPolicyMap"]["global"] = 2;
    names[document == expected ? name : "(not as it was created)"] += 1;
  }
  return names;
}

struct CreationCounts {
  crowd::Calls creations;
  crowd::Calls changes;
};

constexpr int kSeconds = kCreations / kInASecond;

// All creators use up the names of the second that the clock is stopped at.
void createInOneSecond(int second, CreationCounts& counts) {
  *stoppedClock() = kFirstSecond + std::time_t{second} * kNamesOfASecond;
  const auto work = [&](int creator) {
    for (int index = 0; index < kInASecond; ++index) {
      const std::string name = newName(creator, second * kInASecond + index);
      FW::TARNFW_PROFILE profiles;
      (void)crowd::call(counts.creations, [&] { return profiles.profileCreate(name); });
      if (second >= kSecondsWithChanges) continue;
      FW::FWPROFILE profile;
      profile.name = name;
      (void)crowd::call(counts.changes, [&] { return profiles.profileSet(name, profile); });
    }
    return std::string("done");
  };
  EXPECT_EQ("", crowd::others(crowd::run(kCreators, kPatience, work), "done"));
}

// A second has a hundred file names, which is less than 1,000: 20 processes create 50 profiles each
// in ten such seconds, and use up every name of each. They all draw the same numbers in the same
// order, since they are copies of one process. The profiles of the first two seconds are also
// stored again at once, while the others still draw their names; later that would take long,
// because every operation reads every profile. For the same reason each round begins without them.
TEST_F(ManyAtOnce, ProfilesOfOneSecondAreAllThere) {
  std::map<std::string, int> expected = {{"first", 1}};
  for (int creator = 0; creator < kCreators; ++creator) {
    for (int index = 0; index < kCreations; ++index) expected[newName(creator, index)] = 1;
  }
  const crowd::Shared<CreationCounts> counts;
  const int rounds = figures::longer();
  std::uint64_t missing = 0;
  for (int round = 0; round < rounds; ++round) {
    files::clear();
    files::writeProfile("1", "first", "null", R"({"global": 2})");
    for (int second = 0; second < kSeconds; ++second) createInOneSecond(second, *counts);
    const std::map<std::string, int> stored = storedProfiles();
    EXPECT_EQ(expected, stored);
    missing += expected.size() - std::min(stored.size(), expected.size());
  }
  const auto inEachSecond = static_cast<std::uint64_t>(rounds) * kNamesOfASecond;
  EXPECT_EQ(inEachSecond * kSeconds, counts->creations.succeeded);
  EXPECT_EQ(inEachSecond * kSecondsWithChanges, counts->changes.succeeded);
  EXPECT_LT(std::max(counts->creations.longest, counts->changes.longest), kLongestCall);
  figures::add(counts->creations.all(), "profiles created in the same seconds");
  figures::add(missing, "missing");
}

}  // namespace
