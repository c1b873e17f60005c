// The public operations on profiles and settings, each with what it does to a store in memory.

#ifndef TARNFW_TESTS_FUZZ_STORE_OPERATIONS_H
#define TARNFW_TESTS_FUZZ_STORE_OPERATIONS_H

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "input.h"
#include "storeModel.h"

namespace fuzz {

// The profile that a store begins with.
inline constexpr char kSeed[] = "seed";

// The whole store.
struct Store {
  fuzz::Profiles profiles;
  std::optional<std::pair<bool, std::string>>
      settings;  // status and profile; absent until asked for

  void ask() {
    if (!settings) settings = {false, "default"};
  }
};

// What an operation does to the store, and to the disk.
struct Operation {
  Operation(std::string nameIs, std::function<bool(Store&)> modelIs,
            std::function<bool()> libraryIs)
      : name(std::move(nameIs)), model(std::move(modelIs)), library(std::move(libraryIs)) {}

  std::string name;
  std::function<bool(Store&)> model;
  std::function<bool()> library;
  bool writesSettings = false;  // true means that they are written
  std::string remade;           // a profile that is removed and made anew, empty at first
};

// One operation with its arguments. Names are numbers: seed, a, b, the test profiles of seed and a.
Operation operationOf(Input& input);

// An empty profile of that name, as it is stored.
FW::FWPROFILE emptyProfile(const std::string& name);

}  // namespace fuzz

#endif
