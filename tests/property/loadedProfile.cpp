#include "loadedProfile.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include <json/value.h>
#include <json/writer.h>

#include "network.h"
#include "tarnfirewall.h"
#include "wire.h"

namespace property {
namespace {

constexpr char kProfileDirectory[] = "/usr/tarn/etc/firewall.d/";

// No rule asks for the state of connections, so that none is tracked: the kernel has room for a
// limited number, and answers of a connection would be another matter.
constexpr char kBaseTable[] =
    "*filter\n"
    ":INPUT ACCEPT\n"
    ":FORWARD ACCEPT\n"
    ":OUTPUT ACCEPT\n"
    ":FIREWALL_RELOADING -\n"
    ":INPUT_FIREWALL -\n"
    ":FORWARD_FIREWALL -\n"
    "-A INPUT -p udp --dport 9 -j ACCEPT\n"
    "-A INPUT -j FIREWALL_RELOADING\n"
    "-A INPUT -j INPUT_FIREWALL\n"
    "-A FORWARD -p udp --dport 9 -j ACCEPT\n"
    "-A FORWARD -j FIREWALL_RELOADING\n"
    "-A FORWARD -j FORWARD_FIREWALL\n"
    "COMMIT\n";
static_assert(kClosingPort == 9);

void write(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text << std::flush;
  if (!file.good()) throw std::runtime_error("cannot write " + path);
}

std::string textOf(const Json::Value& document) {
  return Json::writeString(Json::StreamWriterBuilder(), document);
}

Json::Value sideOf(int protocol, const std::vector<std::string>& ports) {
  static const char* const kNames[] = {"", "tcp", "udp", "both"};
  Json::Value side;
  side["protocol"] = kNames[protocol];
  for (const std::string& port : ports) side["ports"].append(port);
  return side;
}

Json::Value serviceTable() {
  Json::Value table;
  for (const Service& service : services()) {
    Json::Value& entry = table[service.name];
    entry["available"] = service.available;
    if (service.sourceProtocol != 0) {
      entry["source"] = sideOf(service.sourceProtocol, service.sourcePorts);
    }
    if (service.destinationProtocol != 0) {
      entry["destination"] = sideOf(service.destinationProtocol, service.destinationPorts);
    }
  }
  return table;
}

}  // namespace

void prepareMachine() {
  write("/tmp/base", kBaseTable);
  if (std::system("iptables-restore </tmp/base && ip6tables-restore </tmp/base") != 0) {
    throw std::runtime_error("cannot make the base chains");
  }
  write("/usr/tarn/etc.defaults/firewall_services.json", textOf(serviceTable()));
}

void store(const FW::FWPROFILE& profile) {
  Json::Value document;
  FW::TARNFW_JSON_DB().profileToJson(profile, document);
  write(std::string(kProfileDirectory) + "1.json", textOf(document));
  Json::Value settings;
  settings["status"] = true;
  settings["profile"] = profile.name;
  write(std::string(kProfileDirectory) + "firewall_settings.json", textOf(settings));
}

void load(const FW::FWPROFILE& profile) {
  FW::TARNFW firewall;
  Json::Value commands;
  if (!firewall.fwClear() ||
      !firewall.fwIptablesRulesEnum(profile.name, commands, /*withState=*/false) ||
      !firewall.fwExec(commands)) {
    throw std::runtime_error("the profile does not load");
  }
}

FW::AdapterPolicyMap libraryAnswer(const Query& query) {
  FW::AdapterPolicyMap answer;
  if (!FW::TARNFW().fwPortIsBlocked(query.port, query.adapter, answer)) {
    throw std::runtime_error("the library has no answer");
  }
  return answer;
}

}  // namespace property
