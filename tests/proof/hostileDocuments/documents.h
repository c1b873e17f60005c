// The hostile documents by name, and the places where the library reads files that somebody else
// has written.

#ifndef TARNFW_TESTS_PROOF_HOSTILE_DOCUMENTS_H
#define TARNFW_TESTS_PROOF_HOSTILE_DOCUMENTS_H

#include <ostream>
#include <string>
#include <vector>

namespace hostile {

struct Document {
  const char* name;
  const char* what;
  // Puts it at `path`. Null: it is the file `name` of the folder documents/.
  void (*make)(const std::string& path);

  friend void PrintTo(const Document& document, std::ostream* out) { *out << document.name; }
};

// The table.
const std::vector<Document>& documents();

void put(const Document& document, const std::string& path);

// What reads a place stands in the operations' table.
enum Place : unsigned {
  kProfile = 1U << 0U,
  kSettings = 1U << 1U,
  kModuleUsers = 1U << 2U,
  kModuleList = 1U << 3U,
  kServices = 1U << 4U,
  kServiceDropIn = 1U << 5U,
  kModel = 1U << 6U,
  kCountryV4 = 1U << 7U,
  kCountryV6 = 1U << 8U,
};

struct Location {
  Place place;
  const char* name;
  const char* path;
};

inline constexpr Location kLocations[] = {
    {kProfile, "profile", "/usr/tarn/etc/firewall.d/2.json"},
    {kSettings, "settings", "/usr/tarn/etc/firewall.d/firewall_settings.json"},
    {kModuleUsers, "module users", "/tmp/iptables_serv_mod_list"},
    {kModuleList, "module list", "/usr/tarn/etc.defaults/iptables_modules_list"},
    {kServices, "service table", "/usr/tarn/etc.defaults/firewall_services.json"},
    {kServiceDropIn, "service drop-in", "/usr/tarn/etc/firewall_services.d/hostile.json"},
    {kModel, "model", "/etc.defaults/tarninfo.conf"},
    {kCountryV4, "country, IPv4", "/usr/share/xt_geoip/XX.iv4"},
    {kCountryV6, "country, IPv6", "/usr/share/xt_geoip/XX.iv6"},
};

}  // namespace hostile

#endif
