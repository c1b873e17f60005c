// Runs argument lines with the packet filter's tools, one process a line, in this order:
//
//   /sbin/iptables  + each line of v4/global, then of the other v4 lists in name order
//   /sbin/ip6tables + each line of v6/global, then of the other v6 lists in name order

#include <array>
#include <cstdio>
#include <cstring>
#include <utility>

#include <json/value.h>

#include "../constants.h"
#include "../member.h"
#include "module.h"
#include "process.h"

namespace FW {
namespace {

constexpr std::size_t kTextBytes = 1024;     // all words of a command, a NUL after each
constexpr std::size_t kLastStart = 1022;     // a word may not begin beyond this byte
constexpr std::size_t kArgumentSlots = 256;  // the closing null pointer included

constexpr char kTextLimit[] = "#Arguments exceeds limit";

// What opens and what closes a drop period, in both families.
enum class Period { kDrop, kAccept };

struct PolicySet {
  std::array<const char*, 3> lines;
  const char* failure;
};

const PolicySet& policySet(Period period) {
  static constexpr PolicySet kDropSet = {
      {"--policy INPUT DROP", "--policy FORWARD DROP",
       "-A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"},
      "Failed to fwExec() to set default drop."};
  static constexpr PolicySet kAcceptSet = {
      {"--policy INPUT ACCEPT", "--policy FORWARD ACCEPT",
       "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"},
      "Failed to fwExec() to set default accept."};
  return period == Period::kDrop ? kDropSet : kAcceptSet;
}

bool runPolicySet(TARNFW& firewall, Period period) {
  const PolicySet& set = policySet(period);
  Json::Value commands(Json::objectValue);
  for (const char* family : {"v4", "v6"}) {
    for (const char* line : set.lines) commands[family][kGlobalAdapter].append(line);
  }
  if (!firewall.fwExec(std::move(commands))) return here().fail("%s", set.failure);
  return true;
}

// Runs every line of one list; logs the line that fails from the place of the call.
bool runList(TARNFW& firewall, const char* tool, const Json::Value& lines, const LogSite& site) {
  for (const Json::Value& line : lines) {
    const std::string command = std::string(tool) + " " + line.asString();
    if (!firewall.cmdExec(command)) {
      return site.fail("Failed to execute \"%s\"", command.c_str());
    }
  }
  return true;
}

bool runFamily(TARNFW& firewall, const char* tool, const Json::Value& set) {
  if (hasMember(set, kGlobalAdapter) && !runList(firewall, tool, set[kGlobalAdapter], here())) {
    return false;
  }
  for (const std::string& name : set.getMemberNames()) {
    if (name != kGlobalAdapter && !runList(firewall, tool, set[name], here())) return false;
  }
  return true;
}

// The tools take their arguments as mutable text that they do not change.
template <std::size_t Count>
void runFixed(const std::array<const char*, Count>& words) noexcept {
  std::array<char*, Count + 1> arguments = {};
  for (std::size_t index = 0; index < Count; ++index) {
    arguments[index] = const_cast<char*>(
        words[index]);  // NOLINT(cppcoreguidelines-pro-type-const-cast): exec's signature
  }
  (void)TLIBCExecv(words[0], arguments.data(), /*wait=*/1);
}

}  // namespace

bool TARNFW::cmdExec(const std::string& line) {
  char text[kTextBytes] = {};
  char* arguments[kArgumentSlots] = {};
  std::size_t count = 0;
  std::size_t used = 0;

  // Only blanks separate; the piece after a closing blank does not count as one.
  for (std::size_t start = 0; start < line.size();) {
    const std::size_t end = std::min(line.find(' ', start), line.size());
    if (used > kLastStart) return here().fail(kTextLimit);
    if (end > start) {
      if (count == kArgumentSlots - 1) return here().fail(kTextLimit);
      arguments[count++] = text + used;
      const int length = std::snprintf(text + used, kTextBytes - used, "%.*s",
                                       static_cast<int>(end - start), line.c_str() + start);
      used += static_cast<std::size_t>(length) + 1;
    }
    start = end + 1;
  }
  arguments[count] = nullptr;
  // Nothing stored wraps round to the largest number.
  if (used - 1 > kTextBytes - 1) {
    return here().fail("cmd is empty or arguments exceeding limit");
  }
  if (TLIBCExecv(arguments[0], arguments, /*wait=*/1) == -1) {
    return here().fail("Failed to execute %s", arguments[0]);
  }
  return true;
}

bool TARNFW::fwExec(Json::Value cmds) {
  constexpr std::pair<const char*, const char*> kTools[] = {{kIptables, "v4"}, {kIp6tables, "v6"}};
  for (const auto& [tool, family] : kTools) {
    if (hasMember(cmds, family) && !runFamily(*this, tool, cmds[family])) return false;
  }
  return true;
}

bool TARNFW::fwDefaultDrop() { return runPolicySet(*this, Period::kDrop); }

bool TARNFW::fwDefaultAccept() { return runPolicySet(*this, Period::kAccept); }

void openPolicies() noexcept {
  for (const char* tool : {kIptables, kIp6tables}) {
    runFixed<4>({tool, "--policy", "INPUT", "ACCEPT"});
    runFixed<4>({tool, "--policy", "FORWARD", "ACCEPT"});
    runFixed<9>({tool, "-D", "FIREWALL_RELOADING", "-m", "state", "--state", "ESTABLISHED,RELATED",
                 "-j", "ACCEPT"});
  }
}

}  // namespace FW
