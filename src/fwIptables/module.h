// What the files of the module fwIptables share. The compiler's messages carry numbers of their
// own, which log readers key on; at(574) stands where others write here().

#ifndef TARNFW_SRC_FWIPTABLES_MODULE_H
#define TARNFW_SRC_FWIPTABLES_MODULE_H

#include <cstdint>
#include <string>
#include <vector>

#include <json/value.h>

#include "../constants.h"
#include "log.h"
#include "tarnfirewall.h"

namespace FW {

constexpr LogSite at(int number) { return {"fwIptables", number}; }

// Keys of the argument document.
inline constexpr char kArgAdapter[] = "adapter";
inline constexpr char kArgPort[] = "port";
inline constexpr char kArgChain[] = "chain";
inline constexpr char kArgTable[] = "table";
inline constexpr char kArgPolicy[] = "policy";
inline constexpr char kArgIp[] = "ip";

// Keys of the families, in argument documents and command documents.
inline constexpr char kV4[] = "v4";
inline constexpr char kV6[] = "v6";

// Protocol fragments that belong to one family each.
inline constexpr char kIcmpFragment[] = "-p icmp ";
inline constexpr char kIcmpv6Fragment[] = "-p icmpv6 ";

// Which families a rule is compiled for.
inline bool forV4(const FWRULE& rule) { return rule.ipType == 0 || rule.ipType == kBothFamilies; }
inline bool forV6(const FWRULE& rule) { return rule.ipType == 1 || rule.ipType == kBothFamilies; }

// Appends the port fragments of a list of ports ("22", "6881-6889") to args["port"]: seven ports to
// a fragment. direction 0: destination ports, otherwise source ports. An empty list gives no
// fragment, except for the protocols without ports.
void protoPortsToIptablesArg(FW_PORT_PROTOCOL protocol, std::int32_t direction,
                             const std::vector<std::string>& ports, Json::Value& args);

}  // namespace FW

#endif
