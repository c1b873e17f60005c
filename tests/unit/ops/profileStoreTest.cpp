#include "ops/profileStore.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "machine.h"
#include "ops/jsonText.h"
#include "tarnfirewall.h"

namespace {

const std::string kDirectory = "/usr/tarn/etc/firewall.d/";
constexpr char kSeed[] =
    "{\n   \"adapterPolicyMap\" : {\n      \"global\" : 2\n   },\n   \"name\" : \"default\",\n   "
    "\"rules\" : null\n}\n";
constexpr char kOffice[] =
    R"({"name": "office", "rules": null, "adapterPolicyMap": {"global": 2}})";

class ProfileStore : public testing::Test {
 protected:
  void SetUp() override { machine::reset(); }
};

TEST_F(ProfileStore, SeedsAnEmptyDirectory) {
  EXPECT_FALSE(ops::hasProfileDocument());
  const ops::Seed seed = ops::seedProfile();
  EXPECT_EQ(seed.error, "");
  EXPECT_EQ(seed.file, kDirectory + "default.json");
  EXPECT_EQ(machine::read(kDirectory + "default.json"), kSeed);
  EXPECT_TRUE(ops::hasProfileDocument());
  EXPECT_EQ(ops::seedProfile().file, "") << "once is enough";
}

TEST_F(ProfileStore, MakesTheDirectoryForIt) {
  machine::run("mv /usr/tarn/etc/firewall.d /usr/tarn/etc/away");
  EXPECT_EQ(ops::planSeed().file, kDirectory + "default.json");
  EXPECT_FALSE(std::filesystem::exists(kDirectory));
  EXPECT_EQ(ops::seedProfile().error, "");
  EXPECT_EQ(machine::read(kDirectory + "default.json"), kSeed);
}

TEST_F(ProfileStore, SeedsBesideTheSettings) {
  machine::write(kDirectory + "firewall_settings.json", R"({"status": true, "profile": "lost"})");
  EXPECT_EQ(ops::seedProfile().error, "");
  EXPECT_EQ(machine::read(kDirectory + "default.json"), kSeed);
  EXPECT_EQ(machine::read(kDirectory + "firewall_settings.json"),
            R"({"status": true, "profile": "lost"})");
}

TEST_F(ProfileStore, AnyProfileWillDo) {
  machine::write(kDirectory + "17.json", kOffice);
  EXPECT_EQ(ops::seedProfile().file, "");
  EXPECT_FALSE(std::filesystem::exists(kDirectory + "default.json"));
}

TEST_F(ProfileStore, ADamagedDocumentIsNotReplaced) {
  machine::write(kDirectory + "default.json", "{");
  EXPECT_EQ(ops::seedProfile().error, kDirectory + "default.json is there but holds no profile");
  EXPECT_EQ(machine::read(kDirectory + "default.json"), "{");
}

std::string changesOf(const ops::Rehearsal& rehearsal) {
  std::string text;
  for (const ops::DocumentChange& change : rehearsal.changes) {
    text += change.file + ": " + ops::compactJson(change.before) + " -> " +
            ops::compactJson(change.after) + "\n";
  }
  return text;
}

TEST_F(ProfileStore, RehearsalTellsAndChangesNothing) {
  machine::write(kDirectory + "17.json", kOffice);
  machine::write(kDirectory + "18.json", R"({"name": "home"})");
  const std::string before = machine::state();
  const ops::Rehearsal rehearsal = ops::rehearse([] {
    FW::TARNFW_JSON_DB database;
    return database.profileRename("office", "work") && database.profileDelete("home");
  });
  EXPECT_TRUE(rehearsal.rehearsed) << rehearsal.reason;
  EXPECT_TRUE(rehearsal.done);
  EXPECT_EQ(changesOf(rehearsal),
            kDirectory +
                R"(17.json: {"adapterPolicyMap":{"global":2},"name":"office","rules":null} -> )"
                R"({"adapterPolicyMap":{"global":2},"name":"work","rules":null})"
                "\n" +
                kDirectory + "18.json: {\"name\":\"home\"} -> null\n" + kDirectory +
                R"(firewall_settings.json: null -> {"profile":"default","status":false})"
                "\n");
  EXPECT_EQ(machine::state(), before);
  EXPECT_TRUE(std::filesystem::is_empty("/var/lock/firewall"));
}

TEST_F(ProfileStore, FailedRehearsalHasItsMessages) {
  machine::write(kDirectory + "17.json", kOffice);
  const ops::Rehearsal rehearsal = ops::rehearse([] {
    (void)std::fprintf(stderr, "taken\n");
    return FW::TARNFW_JSON_DB().profileCreate("office");
  });
  EXPECT_TRUE(rehearsal.rehearsed);
  EXPECT_FALSE(rehearsal.done);
  EXPECT_EQ(rehearsal.changes.size(), 0U);
  EXPECT_EQ(rehearsal.messages, std::vector<std::string>{"taken"});
}

TEST_F(ProfileStore, WhatARehearsalThrowsIsTheReason) {
  const ops::Rehearsal rehearsal =
      ops::rehearse([]() -> bool { throw std::runtime_error("wrong shape"); });
  EXPECT_FALSE(rehearsal.rehearsed);
  EXPECT_EQ(rehearsal.reason, "wrong shape");
}

TEST_F(ProfileStore, NoRehearsalWithoutADirectory) {
  std::filesystem::rename("/usr/tarn/etc/firewall.d", "/usr/tarn/etc/elsewhere");
  const ops::Rehearsal rehearsal = ops::rehearse([] { return true; });
  std::filesystem::rename("/usr/tarn/etc/elsewhere", "/usr/tarn/etc/firewall.d");
  EXPECT_FALSE(rehearsal.rehearsed);
  EXPECT_EQ(rehearsal.reason,
            "no private copy of the profile directory: No such file or directory");
}

}  // namespace
