// The records that rules, profiles and queries are made of. Plain values: copyable, assignable, no
// invariants of their own; whoever reads documents or compiles rules does the checking. Needs no
// JSON header.

#ifndef TARNFIREWALL_RECORDS_H
#define TARNFIREWALL_RECORDS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace FW {

// What a rule or an adapter does with a matching packet. Documents store the numbers. A block query
// additionally answers 3 (partly blocked), which has no name and is never stored.
enum FW_POLICY : std::int32_t {
  FW_POLICY_ALLOW = 0,  // "-j RETURN": leaves the firewall chain, the packet passes
  FW_POLICY_DENY = 1,   // "-j DROP"
  FW_POLICY_NONE = 2,   // a rule: gives no line; an adapter: no catch-all line
};

// Protocol of an explicit port list. The service database uses the same numbers.
enum FW_PORT_PROTOCOL : std::int32_t {
  FW_PROTO_TCP = 1,
  FW_PROTO_UDP = 2,
  FW_PROTO_TCP_UDP = 3,  // compiled as a tcp line followed by a udp line
  FW_PROTO_ICMP = 4,     // icmp for IPv4, icmpv6 for IPv6; ports are ignored
  FW_PROTO_IGMP = 32,    // ports are ignored
};

// One rule. The field order is the order in which documents are written.
struct FWRULE {
  std::int32_t ruleID = 0;         // read from documents, never written back
  bool enable = true;              // a disabled rule gives no line and is skipped by queries
  std::int32_t adapterDirect = 1;  // not 0: incoming interface (-i), 0: outgoing interface (-o)
  FW_POLICY policy = FW_POLICY_ALLOW;
  bool blLog = false;                  // a LOG line precedes the verdict line
  std::vector<std::string> labelList;  // free labels, carried through
  std::string name;
  std::string table = "filter";  // netfilter table, used verbatim after "-t "
  std::set<std::string> chainList = {"FORWARD_FIREWALL", "INPUT_FIREWALL"};
  std::int32_t ipType = 0;    // 0: IPv4, 1: IPv6, 2: both
  std::int32_t ipDirect = 1;  // not 0: source address (-s), 0: destination address (-d)
  std::int32_t ipGroup = 0;   // 0: address ipList[0]; 1: subnet ipList[0]/ipList[1] (length or
                              // mask); 2: no line at all; 3: country codes; 4: range
                              // ipList[0]-ipList[1]; 5: any address
  std::vector<std::string> ipList;
  std::int32_t portDirect = 0;  // 0: destination ports, not 0: source ports
  std::int32_t portGroup = 0;   // 0 and 2: portList holds service names; 1: ports ("22") and ranges
                                // ("6881-6889") of `protocol`; 3: all ports
  FW_PORT_PROTOCOL protocol = FW_PROTO_TCP;
  std::vector<std::string> portList;
};

// Adapter name (an interface name, "global", "pppoe" or "vpn") -> rules in evaluation order.
using RuleList = std::map<std::string, std::vector<FWRULE>>;

// Adapter name -> default policy; in the answer of a block query, the verdict.
using AdapterPolicyMap = std::map<std::string, FW_POLICY>;

// One profile: a snapshot in memory; changes reach the disk through profileSet only.
struct FWPROFILE {
  std::string name;
  RuleList rules;
  AdapterPolicyMap adapterPolicyMap;
};

// The ports of a set of services: protocol -> port strings ("22", "6881-6889") in table order.
struct ServPort {
  std::map<FW_PORT_PROTOCOL, std::vector<std::string>> srcPorts;
  std::map<FW_PORT_PROTOCOL, std::vector<std::string>> dstPorts;
};

// A block query: which port, or range of ports, of which protocol.
struct PortCompareST {
  std::int32_t portDirect = 0;  // 1: source ports, 0: destination ports
  FW_PORT_PROTOCOL protocol = FW_PROTO_TCP;
  std::string port;  // "80" or "80-90", decimal
};

}  // namespace FW

#endif
