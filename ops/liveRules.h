// The filter table as it is in the kernel, read from one "-S" a family:
//
//   -P INPUT ACCEPT
//   -N INPUT_FIREWALL
//   -A INPUT -j FIREWALL_RELOADING

#ifndef TARNFW_OPS_LIVERULES_H
#define TARNFW_OPS_LIVERULES_H

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "packetFilter.h"

namespace ops {

inline constexpr char kReloadingChain[] = "FIREWALL_RELOADING";

// The built-in chains whose policies a drop period closes, and the chain each jumps to for its
// rules.
struct GuardedChain {
  const char* builtIn;
  const char* firewallChain;
};
inline constexpr std::array<GuardedChain, 2> kGuardedChains = {
    GuardedChain{"INPUT", "INPUT_FIREWALL"}, GuardedChain{"FORWARD", "FORWARD_FIREWALL"}};

// The chains that the library needs, FIREWALL_RELOADING first.
inline constexpr std::array<const char*, 3> kBaseChains = {kReloadingChain, "INPUT_FIREWALL",
                                                           "FORWARD_FIREWALL"};

// One family's filter table.
//   policies  built-in chain -> "ACCEPT" or "DROP"
//   chains    chain, built-in ones too -> its rules in order, each as "-S" prints it
struct LiveRules {
  std::map<std::string, std::string> policies;
  std::map<std::string, std::vector<std::string>> chains;

  bool has(const std::string& chain) const { return chains.count(chain) != 0; }
  // The rules of `chain`; none when it is absent.
  const std::vector<std::string>& rules(const std::string& chain) const;
  // The rules of FIREWALL_RELOADING by which a drop period lets open connections through, as "-S"
  // prints them. Outside a drop period they are the mark of a reload that was killed.
  std::vector<std::string> marks() const;
  // Are the INPUT and FORWARD policies ACCEPT?
  bool open() const;
  // Was it read? A table that was has its built-in chains.
  bool known() const { return !policies.empty(); }
};

// The filter tables of both families.
struct LiveFilter {
  LiveRules v4;
  LiveRules v6;

  LiveRules& of(Family family) { return family == Family::kV4 ? v4 : v6; }
  const LiveRules& of(Family family) const { return family == Family::kV4 ? v4 : v6; }
  std::size_t marks() const { return v4.marks().size() + v6.marks().size(); }
  bool open() const { return v4.open() && v6.open(); }
};

// Reads what "-S" prints; lines of any other kind (the tools' warnings) are skipped.
LiveRules parseRules(const std::string& text);

// Reads one family, or both. False with the reason in `reason` when a tool does not answer; its
// family is left as it is, the other one is read all the same.
bool readRules(Family family, LiveRules& rules, std::string& reason);
bool readFilter(LiveFilter& filter, std::string& reason);

// What the base chains hold, one line each as "-S" prints them, absent chains left out. Made to be
// compared: the lines of each start with its tool.
std::vector<std::string> baseChainLines(const LiveFilter& filter);

// Names the base chains that `filter` lacks, as "INPUT_FIREWALL (IPv4)". A family that was not
// read lacks none.
std::vector<std::string> missingChains(const LiveFilter& filter);

// One sentence on missing chains.
std::string missingWords(const std::vector<std::string>& missing);

}  // namespace ops

#endif
