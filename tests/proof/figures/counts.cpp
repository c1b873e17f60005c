#include "counts.h"

#include "figures.h"

namespace figures {

// The line is printed after this has been destroyed: what is registered first runs last.
Counts::Counts(const std::string& suite, const std::vector<std::string>& names) {
  open(suite);
  for (const std::string& name : names) counts_.emplace_back(name, 0);
}

Counts::~Counts() {
  for (const auto& [name, number] : counts_) add(number, name);
}

void Counts::count(const std::string& name, std::uint64_t by) {
  for (auto& [known, number] : counts_) {
    if (known == name) number += by;
  }
}

std::uint64_t Counts::counted(const std::string& name) const {
  for (const auto& [known, number] : counts_) {
    if (known == name) return number;
  }
  return 0;
}

}  // namespace figures
