// The platform looks services up by name and does not list names. They are the member names of the
// documents that its database is made of: the shipped table and the drop-ins, those that begin with
// a dot left out.

#include "serviceTable.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>

#include <json/reader.h>
#include <json/value.h>

#include "services.h"
#include "tarnfirewall_records.h"

namespace ops {
namespace {

constexpr char kTable[] = "/usr/tarn/etc.defaults/firewall_services.json";
constexpr char kDropIns[] = "/usr/tarn/etc/firewall_services.d";

std::vector<std::string> documents() {
  std::vector<std::string> paths = {kTable};
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(kDropIns, error)) {
    const std::string name = entry.path().filename();
    if (name.front() != '.' && entry.path().extension() == ".json") paths.push_back(entry.path());
  }
  std::sort(paths.begin() + 1, paths.end());
  return paths;
}

// Name -> title; a later document's entry replaces an earlier one's.
bool readTitles(std::map<std::string, std::string>& titles, std::string& reason) {
  for (const std::string& path : documents()) {
    std::ifstream stream(path, std::ios::binary);
    Json::Value document;
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &document, &errors) ||
        !document.isObject()) {
      reason = path + " is not a service table";
      return false;
    }
    for (const std::string& name : document.getMemberNames()) {
      const Json::Value& entry = document[name];
      const bool titled = entry.isObject() && entry["title"].isString();
      titles[name] = titled ? entry["title"].asString() : "";
    }
  }
  return true;
}

std::string protocolName(int protocol) {
  static const std::map<int, std::string> kNames = {{FW::FW_PROTO_TCP, "tcp"},
                                                    {FW::FW_PROTO_UDP, "udp"},
                                                    {FW::FW_PROTO_TCP_UDP, "both"},
                                                    {FW::FW_PROTO_ICMP, "icmp"},
                                                    {FW::FW_PROTO_IGMP, "igmp"}};
  const auto found = kNames.find(protocol);
  return found == kNames.end() ? "" : found->second;
}

ServiceEnd endOf(int protocol, const TLIBCSZLIST* ports) {
  ServiceEnd end;
  end.protocol = protocolName(protocol);
  // The others have no ports; the platform fills the list with a stand-in for the compiler.
  if (protocol != FW::FW_PROTO_TCP && protocol != FW::FW_PROTO_UDP &&
      protocol != FW::FW_PROTO_TCP_UDP) {
    return end;
  }
  for (int index = 0; ports != nullptr && index < ports->count; ++index) {
    end.ports.emplace_back(TLIBCSzListGet(ports, index));
  }
  return end;
}

}  // namespace

bool listServices(std::vector<Service>& services, std::string& reason) {
  TARNFW_SERVICE_LIST* list = nullptr;
  if (TARNFwServiceEnum(&list) <= 0) {
    reason = "the service database cannot be read";
    return false;
  }
  std::map<std::string, std::string> titles;
  const bool read = readTitles(titles, reason);
  for (const auto& [name, title] : titles) {
    const TARNFW_SERVICE* record = TARNFWServiceFind(list, name.c_str());
    if (record == nullptr) continue;
    services.push_back({name, title, record->available != 0,
                        endOf(record->srcProtocol, record->srcPorts),
                        endOf(record->dstProtocol, record->dstPorts)});
  }
  TARNFwServiceFree(list);
  return read;
}

bool offers(const std::vector<Service>& services, const std::string& name) {
  return std::any_of(services.begin(), services.end(), [&name](const Service& service) {
    return service.name == name && service.available;
  });
}

}  // namespace ops
