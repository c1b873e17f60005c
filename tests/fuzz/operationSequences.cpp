// Sequences of the public operations on profiles and settings against a model in memory, while one
// file call fails.
//
// Without the failure every result and the disk after every operation are the model's. The
// operation that meets the failure may fail, but each document is then as it was before or as it
// was to become; and what came back true has been done. Nothing that follows is affected.
//
// Input: the call that fails (its kind, how many of its kind go well before, the error), the number
// of operations, each with its kind and arguments.

#include <array>
#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <optional>
#include <string>
#include <utility>

#include <json/reader.h>

#include "check.h"
#include "fakePlatform.h"
#include "injection.h"
#include "input.h"
#include "recordText.h"
#include "services.h"
#include "storeModel.h"
#include "storeOperations.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

constexpr std::array<int, 7> kErrors = {ENOSPC, EIO, EDQUOT, EROFS, EMFILE, EACCES, EINTR};
constexpr std::size_t kCallsBefore = 60;
constexpr std::size_t kMostOperations = 7;

using fuzz::Operation;
using fuzz::Store;

// --- the disk ---

std::optional<std::pair<bool, std::string>> settingsOnDisk() {
  const std::string text = files::read(files::kSettingsFile);
  if (text == "(absent)") return std::nullopt;
  Json::Value settings;
  fuzz::require(Json::Reader().parse(text, settings) && settings["status"].isBool() &&
                    settings["profile"].isString(),
                "the settings on the disk are whole", text);
  return std::pair(settings["status"].asBool(), settings["profile"].asString());
}

std::string textOf(const std::optional<std::pair<bool, std::string>>& settings) {
  if (!settings) return "no settings";
  return std::string(settings->first ? "enabled" : "disabled") + " with " + settings->second;
}

std::string textOf(const Store& store) {
  return fuzz::textOf(store.profiles) + textOf(store.settings);
}

// One document of the store, "(absent)" without it.
std::string documentOf(const Store& store, const std::string& name) {
  const auto profile = store.profiles.find(name);
  return profile == store.profiles.end() ? "(absent)" : describe(profile->second);
}

void checkAfterFailure(const Operation& operation, bool done, fuzz::Call call, const Store& before,
                       const Store& after, const Store& disk) {
  // Removing a document is not looked at: it succeeds and the document stays.
  const bool mustBeDone = done && call != fuzz::kUnlink;
  for (const Store* store : {&before, &after, &disk}) {
    for (const auto& [name, profile] : store->profiles) {
      const std::string found = documentOf(disk, name);
      const std::string wanted = documentOf(after, name);
      if (found == wanted) continue;
      fuzz::require(!mustBeDone, "what came back true is done",
                    operation.name + ", " + name + "\n" + found);
      const bool remade = name == operation.remade &&
                          (found == "(absent)" || found == describe(fuzz::emptyProfile(name)));
      fuzz::require(remade || found == documentOf(before, name),
                    "a document is as before or as it was to become",
                    operation.name + ", " + name + "\n" + found);
    }
  }
  fuzz::require(disk.profiles.size() + (operation.remade.empty() ? 0 : 1) >=
                    std::min(before.profiles.size(), after.profiles.size()),
                "no profile is lost", operation.name);
  Store defaults = before;
  defaults.ask();
  const std::string found = textOf(disk.settings);
  if (found == textOf(after.settings)) return;
  // Defaults that cannot be stored are no failure of what only asked for them.
  const bool written =
      operation.writesSettings || textOf(after.settings) != textOf(defaults.settings);
  fuzz::require(!mustBeDone || (!written && !disk.settings), "settings that were stored are there",
                operation.name + "\n" + found);
  fuzz::require(found == textOf(before.settings) || found == textOf(defaults.settings),
                "the settings are as before or as they were to become",
                operation.name + "\n" + found);
}

bool run(const Operation& operation) {
  try {
    return operation.library();
  } catch (const boost::interprocess::interprocess_exception&) {
    fuzz::require(fuzz::hasFailed(), "a lock can be opened", operation.name);
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto call = static_cast<fuzz::Call>(input.below(fuzz::kCalls));
  const std::size_t callsBefore = input.below(kCallsBefore);
  const int error = kErrors.at(input.below(kErrors.size()));
  files::clear();
  files::writeProfile("1", fuzz::kSeed);
  fake::reset();
  fake::machine().services = fuzz::services();
  Store store;
  store.profiles = fuzz::profilesOnDisk();

  fuzz::failLater(call, callsBefore, error);
  for (std::size_t left = input.below(kMostOperations) + 1; left > 0; --left) {
    const Operation operation = fuzz::operationOf(input);
    const Store before = store;
    const bool expected = operation.model(store);
    // Without any profile a new one cannot be made: it does not return then.
    if (store.profiles.empty() ||
        (before.profiles.size() == 1 && before.profiles.count(operation.remade) != 0)) {
      store = before;
      continue;
    }
    const bool done = run(operation);
    Store disk = {fuzz::profilesOnDisk(), settingsOnDisk()};
    if (fuzz::hasFailed()) {
      checkAfterFailure(operation, done, call, before, store, disk);
      store = disk;
      fuzz::failNothing();
    } else {
      fuzz::require(done == expected, "the result of an operation", operation.name);
      fuzz::requireEqual(textOf(store), textOf(disk), operation.name.c_str());
    }
    fuzz::requireEqual("", fake::alive(), "no operation leaves anything alive");
    (void)trace::take();
  }
  fuzz::failNothing();
  return 0;
}
