// Random profiles and every query that can be asked about them.

#ifndef TARNFW_TESTS_PROPERTY_PROFILES_H
#define TARNFW_TESTS_PROPERTY_PROFILES_H

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "evaluation.h"
#include "tarnfirewall_records.h"

namespace property {

// The same numbers everywhere: the standard's distributions differ between its libraries.
class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  std::size_t below(std::size_t limit) { return static_cast<std::size_t>(engine_() % limit); }
  bool oneIn(std::size_t count) { return below(count) == 0; }
  template <class Texts>
  const typename Texts::value_type& oneOf(const Texts& texts) {
    return texts[below(texts.size())];
  }

 private:
  std::mt19937_64 engine_;
};

// A profile named "property", of a few rules on a few adapters.
FW::FWPROFILE randomProfile(Random& random);

// Every query: both sides, tcp, udp and both, ports and ranges, each adapter that packets arrive on
// and every adapter at once.
const std::vector<Query>& allQueries();

// A profile in short: one line a rule with what it does not have by default.
std::string describe(const FW::FWPROFILE& profile);

}  // namespace property

#endif
