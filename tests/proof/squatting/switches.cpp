#include "switches.h"

#include <algorithm>
#include <cstring>
#include <fstream>

namespace squatting {
namespace {

int valueOf(const char* path) {
  std::ifstream file(path);
  int value = -1;
  return file >> value ? value : -1;
}

bool setValue(const char* path, int value) {
  if (valueOf(path) == value) return true;
  std::ofstream file(path);
  file << value << std::endl;  // one write, and its error
  return file.good();
}

constexpr Setting kDebians = {1, 1, 1, 2};

}  // namespace

std::string text(const Setting& setting) {
  std::string all;
  for (std::size_t index = 0; index < kSwitches.size(); ++index) {
    const char* const name = std::strchr(kSwitches[index], '_') + 1;
    all += (all.empty() ? "" : ", ") + std::string(name) + " " + std::to_string(setting[index]);
  }
  return all;
}

std::vector<Setting> settings(bool every, const Setting& machines) {
  std::vector<Setting> all;
  for (int symlinks = 0; symlinks < 2; ++symlinks) {
    for (int hardlinks = 0; hardlinks < 2; ++hardlinks) {
      for (int fifos = 0; fifos < 3; ++fifos) {
        for (int regular = 0; regular < 3; ++regular) {
          if (every || fifos == regular) all.push_back({symlinks, hardlinks, fifos, regular});
        }
      }
    }
  }
  for (const Setting& met : {kDebians, machines}) {
    const bool known = std::find(all.begin(), all.end(), met) != all.end();
    const bool absent = std::find(met.begin(), met.end(), -1) != met.end();
    if (!known && !absent) all.push_back(met);
  }
  return all;
}

Switches::Switches() {
  for (std::size_t index = 0; index < kSwitches.size(); ++index) {
    machines_[index] = valueOf(kSwitches[index]);
  }
}

Switches::~Switches() { (void)set(machines_); }

bool Switches::set(const Setting& setting) {
  bool all = true;
  for (std::size_t index = 0; index < kSwitches.size(); ++index) {
    all = setValue(kSwitches[index], setting[index]) && all;
  }
  return all;
}

}  // namespace squatting
