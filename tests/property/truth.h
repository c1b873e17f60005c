// What becomes of the packets that a query asks about.

#ifndef TARNFW_TESTS_PROPERTY_TRUTH_H
#define TARNFW_TESTS_PROPERTY_TRUTH_H

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "evaluation.h"
#include "network.h"

namespace property {

// kBySource: two packets that differ in nothing but their source fare differently. kByOther: some
// pass and some do not, but never for their source.
enum class Truth { kAllPass, kNonePasses, kBySource, kByOther };

const char* nameOf(Truth truth);

// The interface, by its index, that the adapter's packets arrive on; nothing when none are tried
// there.
std::optional<std::size_t> interfaceOf(const std::string& adapter);

// What becomes of the packets that the query asks about: those that arrive on the adapter's
// interface and are of the query's protocols and ports, whatever their sender, their family, the
// port of the other side, and whether they are for the machine or for a host behind it.
//   passes  by the packet's position in allPackets()
Truth truthOf(const Query& query, const std::string& adapter,
              const std::function<bool(std::size_t)>& passes);

// Is that what the verdict says? An undecided one says that nothing stops the packets.
bool agrees(int verdict, Truth truth);

}  // namespace property

#endif
