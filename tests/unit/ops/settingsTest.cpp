#include "ops/settings.h"

#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "machine.h"

namespace {

struct Row {
  const char* name;
  const char* document;
  const char* settings;  // "on office", "off office", or the reason
};

constexpr Row kRows[] = {
    {"On", R"({"status": true, "profile": "office"})", "on office"},
    {"Off", R"({"status": false, "profile": "office"})", "off office"},
    {"WithoutStatus", R"({"profile": "office"})", "off office"},
    {"WithoutProfile", R"({"status": true})", " cannot be read"},
    {"NotJson", "{", " cannot be read"},
    {"NotAnObject", "[]", " cannot be read"},
    {"StatusOfAnotherType", R"({"status": "on", "profile": "office"})",
     " cannot be read: Value is not convertible to bool."},
    {"ProfileOfAnotherType", R"({"status": true, "profile": []})",
     " cannot be read: Type is not convertible to string"},
};

constexpr char kFile[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";

std::string described() {
  ops::Settings settings;
  std::string reason;
  if (!ops::readSettings(settings, reason)) return reason;
  return (settings.enabled ? "on " : "off ") + settings.profile;
}

TEST(Settings, Rows) {
  for (const Row& row : kRows) {
    machine::reset();
    machine::write(kFile, row.document);
    const std::string expected =
        row.settings[0] == ' ' ? std::string(kFile) + row.settings : std::string(row.settings);
    EXPECT_EQ(described(), expected) << row.name;
    EXPECT_EQ(machine::read(kFile), row.document) << row.name;
  }
}

// What is known of settings that cannot be read as a whole.
struct PartRow {
  const char* name;
  const char* document;
  const char* known;
};

constexpr PartRow kPartRows[] = {
    {"Whole", R"({"status": true, "profile": "office"})", "on office"},
    {"NoProfile", R"({"status": true})", "on ?"},
    {"StatusOfAnotherType", R"({"status": "on", "profile": "office"})", "? office"},
    {"ProfileOfAnotherType", R"({"status": true, "profile": []})", "on ?"},
    {"NotJson", "{", "? ?"},
};

TEST(Settings, PartsThatAreKnown) {
  for (const PartRow& row : kPartRows) {
    machine::reset();
    machine::write(kFile, row.document);
    ops::Settings settings;
    std::string reason;
    (void)ops::readSettings(settings, reason);
    std::string known = settings.knowsEnabled ? (settings.enabled ? "on" : "off") : "?";
    known += settings.knowsProfile ? " " + settings.profile : " ?";
    EXPECT_EQ(known, row.known) << row.name;
  }
}

TEST(Settings, WhatCannotBeLookedUpIsNotAbsent) {
  machine::reset();
  std::filesystem::create_directories(std::filesystem::path(kFile).parent_path());
  ASSERT_EQ(0, symlink(kFile, kFile));  // leads to itself
  EXPECT_EQ(described(), std::string(kFile) + " cannot be read");
}

TEST(Settings, DefaultsAreNotWritten) {
  machine::reset();
  EXPECT_EQ(described(), "off default");
  EXPECT_NE(access(kFile, F_OK), 0);
}

}  // namespace
