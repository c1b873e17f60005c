// The pieces of a reload as the recording platform traces them, for tests that state whole
// sequences:
//
//   lines({kLocked, kModulesAsked, kDropSet, kFlush, kInterfacesRead, ..., kAcceptSet, "unlock
//   100"})

#ifndef TARNFW_TESTS_FAKE_RELOAD_SEQUENCE_H
#define TARNFW_TESTS_FAKE_RELOAD_SEQUENCE_H

#include <optional>
#include <string>
#include <vector>

namespace sequence {

// clang-format off
inline const std::string kLocked = "lock /tmp/firewall_iptables_exec.lock 1 30";
inline const std::string kModulesAsked = "get /tmp/iptables_serv_mod_list firewall";

inline const std::string kCoreSetRead =
  "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\n"
  "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\n"
  "get /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES";

inline const std::string kDropSet =
  "exec /sbin/iptables --policy INPUT DROP\n"
  "exec /sbin/iptables --policy FORWARD DROP\n"
  "exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
  "exec /sbin/ip6tables --policy INPUT DROP\n"
  "exec /sbin/ip6tables --policy FORWARD DROP\n"
  "exec /sbin/ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT";

inline const std::string kFlush =
  "exec /sbin/iptables -F INPUT_FIREWALL\n"
  "exec /sbin/ip6tables -F INPUT_FIREWALL\n"
  "exec /sbin/iptables -F FORWARD_FIREWALL\n"
  "exec /sbin/ip6tables -F FORWARD_FIREWALL";

inline const std::string kInterfacesRead =
  "interfaces 32 8\n"
  "support support_wireless";

inline const std::string kAcceptSet =
  "exec /sbin/iptables --policy INPUT ACCEPT\n"
  "exec /sbin/iptables --policy FORWARD ACCEPT\n"
  "exec /sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
  "exec /sbin/ip6tables --policy INPUT ACCEPT\n"
  "exec /sbin/ip6tables --policy FORWARD ACCEPT\n"
  "exec /sbin/ip6tables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT";

// What every profile begins with in a family, each line ended.
//   source  of the lines for open connections: "", or " ! -s ADDRESS"; without a value there are no such lines
using Source = std::optional<std::string>;

inline std::string v4Chain(const std::string& chain, const Source& source) {
  return
    "exec /sbin/iptables -A " + chain + " -i lo -j ACCEPT\n" +
    (source ? "exec /sbin/iptables -A " + chain + *source + " -m state --state ESTABLISHED,RELATED -j ACCEPT\n" : "");
}
inline std::string v4Preamble(const Source& source) {
  return v4Chain("INPUT_FIREWALL", source) + v4Chain("FORWARD_FIREWALL", source);
}

inline std::string v6Chain(const std::string& chain, const Source& source) {
  return
    "exec /sbin/ip6tables -A " + chain + " -i lo -j ACCEPT\n"
    "exec /sbin/ip6tables -A " + chain + " -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT\n"
    "exec /sbin/ip6tables -A " + chain + " -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT\n"
    "exec /sbin/ip6tables -A " + chain + " -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT\n"
    "exec /sbin/ip6tables -A " + chain + " -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT\n"
    "exec /sbin/ip6tables -A " + chain + " -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT\n" +
    (source ? "exec /sbin/ip6tables -A " + chain + *source + " -m state --state ESTABLISHED,RELATED -j ACCEPT\n" : "");
}
inline std::string v6Preamble(const Source& source) {
  return v6Chain("INPUT_FIREWALL", source) + v6Chain("FORWARD_FIREWALL", source);
}

// What an adapter without rules adds whose policy is to deny.
//   tool  "iptables" or "ip6tables"
inline std::string denied(const std::string& tool, const std::string& adapter) {
  return
    "exec /sbin/" + tool + " -t filter -A FORWARD_FIREWALL -i " + adapter + " -j DROP\n"
    "exec /sbin/" + tool + " -t filter -A INPUT_FIREWALL -i " + adapter + " -j DROP\n";
}
// clang-format on

// A profile that denies one adapter, or none.
inline std::string profile(const Source& v4, const Source& v6, const std::string& adapter = "") {
  std::string text = v4Preamble(v4);
  if (!adapter.empty()) text += denied("iptables", adapter);
  text += v6Preamble(v6);
  if (!adapter.empty()) text += denied("ip6tables", adapter);
  text.pop_back();  // the last line end
  return text;
}

// The pieces one below the other.
inline std::string lines(const std::vector<std::string>& pieces) {
  std::string text;
  for (const std::string& piece : pieces) text += (text.empty() ? "" : "\n") + piece;
  return text;
}

}  // namespace sequence

#endif
