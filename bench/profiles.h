// The profiles that are measured, and their documents.

#ifndef TARN_BENCH_PROFILES_H
#define TARN_BENCH_PROFILES_H

#include <string>

#include <json/value.h>

#include "tarnfirewall.h"

namespace bench {

constexpr char kProfileName[] = "measured";
constexpr char kProfilePath[] = "/usr/tarn/etc/firewall.d/1690000042.json";
constexpr char kSettingsPath[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";
constexpr char kServicesPath[] = "/usr/tarn/etc.defaults/firewall_services.json";

enum class Ports {
  kNumbers,       // every rule gives its ports as numbers
  kServiceNames,  // a fifth of the rules name a service instead
};

// `rules` rules as people write them, in equal parts: one port or service from a subnet, several
// ports from an address, a port range for both protocols from anywhere, a blocked address range,
// one port over IPv6. They are spread over eth0, eth1 and "global" and give a little over three
// lines each.
FW::FWPROFILE mixedProfile(int rules, Ports ports = Ports::kNumbers);

// A profile of which every rule gives two lines; with connection state it compiles to `lines`
// lines, an even number of 20 or more.
FW::FWPROFILE profileOfLines(int lines);

// Makes `profile` the only stored profile and the active one of an enabled firewall.
void install(const FW::FWPROFILE& profile);

// jsoncpp's own reading of a file and rendering of a document, in the form in which documents are
// stored.
void bareParse(const std::string& path, Json::Value& document);
std::string bareWrite(const Json::Value& document);

}  // namespace bench

#endif
