#include "services.h"

#include <optional>
#include <string>

namespace fuzz {

const std::vector<fake::Service>& services() {
  static const std::vector<fake::Service> kServices = {
      {"ssh", true, {}, {1, {{"22"}}}},
      {"dns", true, {}, {3, {{"53"}}}},
      {"dhcp", true, {2, {{"68"}}}, {2, {{"67"}}}},
      {"torrent", true, {}, {3, {{"6881-6889", "16881", "5000-5000"}}}},
      {"many", true, {1, {{"1", "2", "3", "4", "5", "6", "7", "8"}}}, {1, {{"9"}}}},
      {"ping", true, {}, {4, {{"0"}}}},
      {"igmp", true, {}, {32, {{"0"}}}},
      {"gone", false, {}, {1, {{"23"}}}},
      {"bare", true, {1, std::nullopt}, {0, {std::vector<std::string>()}}},
      {"odd", true, {}, {7, {{"99"}}}},
      {"vpn_server_pptp", true, {}, {1, {{"1723"}}}},
      {"vpn_server_ipsec", true, {}, {2, {{"500", "4500"}}}},
  };
  return kServices;
}

}  // namespace fuzz
