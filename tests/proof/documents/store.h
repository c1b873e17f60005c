// The documents on disk, as every operation of the proofs finds them, and what is there afterwards.

#ifndef TARNFW_TESTS_PROOF_STORE_H
#define TARNFW_TESTS_PROOF_STORE_H

#include <map>
#include <optional>
#include <string>

namespace store {

inline constexpr char kProfiles[] = "/usr/tarn/etc/firewall.d/";
inline constexpr char kSettings[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";
inline constexpr char kModuleState[] = "/tmp/iptables_serv_mod_list";
inline constexpr char kModuleClaims[] = "/run/tarn/iptables_modules";

// Path -> text. Profiles whose file was not there at the beginning stand under kNewProfile, as
// their names are drawn; of several, the later ones under kNewProfile + "'" and so on.
using Documents = std::map<std::string, std::string>;
inline constexpr char kNewProfile[] = "(new profile)";

// At the beginning: the settings (profile "office", on), the profiles "default" (1.json) and
// "office" (2.json), the two files of the module loader.
const Documents& beginning();

// Makes `documents` all that is on disk: no lock file, no temporary file.
void reset(const Documents& documents);

// What is on disk now.
struct Found {
  Documents documents;
  std::string strays;   // files that have no business there, each with a blank before it
  int temporaries = 0;  // files that a write that did not end has left
};
Found look();

// Once, at the start of a test program: goes to a working directory of its own, and installs a
// service table in which "ssh" and "mail" are tcp, "web" is udp, and there is no "gone".
void prepare();

}  // namespace store

#endif
