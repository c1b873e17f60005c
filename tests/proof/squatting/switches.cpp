#include "switches.h"

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

}  // namespace

std::string text(const Setting& setting) {
  std::string all;
  for (std::size_t index = 0; index < kSwitches.size(); ++index) {
    const char* const name = std::strchr(kSwitches[index], '_') + 1;
    all += (all.empty() ? "" : ", ") + std::string(name) + " " + std::to_string(setting[index]);
  }
  return all;
}

std::vector<Setting> settings() {
  std::vector<Setting> all;
  for (int symlinks = 0; symlinks < 2; ++symlinks) {
    for (int hardlinks = 0; hardlinks < 2; ++hardlinks) {
      for (int fifos = 0; fifos < 3; ++fifos) {
        for (int regular = 0; regular < 3; ++regular) {
          all.push_back({symlinks, hardlinks, fifos, regular});
        }
      }
    }
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
