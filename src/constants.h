// Values that several modules share: files, chains, adapters, module lists.

#ifndef TARNFW_SRC_CONSTANTS_H
#define TARNFW_SRC_CONSTANTS_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace FW {

inline constexpr char kProfileDirectory[] = "/usr/tarn/etc/firewall.d/";
inline constexpr char kSettingsFile[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";
inline constexpr char kExecutionLock[] = "/tmp/firewall_iptables_exec.lock";
inline constexpr char kModelFile[] = "/etc.defaults/tarninfo.conf";

inline constexpr int kLockTimeoutSeconds = 30;
inline constexpr int kExclusive = 1;  // mode of the platform's lock files

inline constexpr char kIptables[] = "/sbin/iptables";
inline constexpr char kIp6tables[] = "/sbin/ip6tables";

// The chains that compiled rules go into, in the order in which they are flushed and given their
// preamble.
inline constexpr std::array<const char*, 2> kFirewallChains = {"INPUT_FIREWALL",
                                                               "FORWARD_FIREWALL"};

inline constexpr char kGlobalAdapter[] = "global";
inline constexpr char kPppoeAdapter[] = "pppoe";
inline constexpr char kVpnAdapter[] = "vpn";

// Adapter names that stand for groups of interfaces, in the order in which they are looked up.
inline constexpr std::array<const char*, 3> kPredefinedAdapters = {kGlobalAdapter, kPppoeAdapter,
                                                                   kVpnAdapter};

inline constexpr char kWirelessAdapter[] = "wlan0";
inline constexpr int kInterfaceLimit = 32;     // records asked of the platform
inline constexpr int kFirewallInterfaces = 8;  // the platform's selector for them

// FWRULE::ipGroup
inline constexpr std::int32_t kOneAddress = 0;
inline constexpr std::int32_t kSubnet = 1;
inline constexpr std::int32_t kNoAddress = 2;
inline constexpr std::int32_t kCountries = 3;
inline constexpr std::int32_t kAddressRange = 4;
inline constexpr std::int32_t kAnyAddress = 5;

// FWRULE::portGroup
inline constexpr std::int32_t kPortsOfServices = 0;
inline constexpr std::int32_t kExplicitPorts = 1;
inline constexpr std::int32_t kPortsOfReservedServices = 2;
inline constexpr std::int32_t kAllPorts = 3;

// FWRULE::portDirect
inline constexpr std::int32_t kDestinationPorts = 0;
inline constexpr std::int32_t kSourcePorts = 1;

// FWRULE::ipType
inline constexpr std::int32_t kBothFamilies = 2;

inline constexpr char kTestProfilePrefix[] = ".test_";

// The service name under which the firewall's own modules are loaded, and those modules in load
// order.
inline constexpr char kFirewallModuleGroup[] = "firewall";
inline const std::vector<std::string> kFirewallModules = {"compat_xtables.ko", "xt_geoip.ko",
                                                          "xt_mac.ko"};

}  // namespace FW

#endif
