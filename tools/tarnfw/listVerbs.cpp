// Verbs that list what rules are made of, and those on kernel modules.

#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <vector>

#include "lifecycleVerbs.h"
#include "ops/serviceTable.h"
#include "output.h"
#include "tarnfirewall.h"
#include "verbs.h"

namespace tarnfw {
namespace {

template <class Names>
Answer namesAnswer(const Names& names) {
  Answer answer;
  answer.document = Json::Value(Json::arrayValue);
  for (const std::string& name : names) {
    answer.document.append(name);
    answer.text += printable(name) + "\n";
  }
  return answer;
}

std::string portText(const ops::ServiceEnd& end, const char* side) {
  if (end.protocol.empty()) return "";
  std::string text = side + end.protocol;
  for (const std::string& port : end.ports) text += " " + port;
  return text;
}

Json::Value toJson(const ops::ServiceEnd& end) {
  if (end.protocol.empty()) return {};
  Json::Value value(Json::objectValue);
  value["protocol"] = end.protocol;
  value["ports"] = Json::Value(Json::arrayValue);
  for (const std::string& port : end.ports) value["ports"].append(port);
  return value;
}

Json::Value toJson(const ops::Service& service) {
  Json::Value value(Json::objectValue);
  value["name"] = service.name;
  value["title"] = service.title;
  value["available"] = service.available;
  value["source"] = toJson(service.source);
  value["destination"] = toJson(service.destination);
  return value;
}

// What the two verbs on modules differ in.
struct ModuleOperations {
  bool (*core)(const std::string& service);
  bool (*nat)(const std::string& service);
  bool loads;
};

using Modules = FW::TARN_IPTABLES_MODULES;

// The lists of a set in the order in which the library takes them.
bool moduleLists(bool nat, bool loads, std::vector<std::vector<std::string>>& lists) {
  lists.emplace_back();
  if (!Modules::coreCommonModuleLoad(lists.back())) return false;
  if (nat) {
    lists.emplace_back();
    if (!Modules::natModuleLoad(lists.back())) return false;
  }
  if (loads) return true;
  std::reverse(lists.begin(), lists.end());
  for (std::vector<std::string>& list : lists) std::reverse(list.begin(), list.end());
  return true;
}

Answer changeModules(const Request& request, const ModuleOperations& operations) {
  const std::string& service = request.value("SERVICE");
  const bool nat = request.value("core|nat") == "nat";
  if (!request.dryRun) {
    const bool done = nat ? operations.nat(service) : operations.core(service);
    return done ? Answer() : failed("not every module was handled");
  }
  std::vector<std::vector<std::string>> lists;
  if (!moduleLists(nat, operations.loads, lists)) return failed("the module list cannot be read");
  ops::Plan plan;
  for (const std::vector<std::string>& list : lists) {
    if (operations.loads) {
      plan.load(service, list);
    } else {
      plan.unload(service, list);
    }
  }
  return planAnswer(plan);
}

bool isCountryCode(const std::string& code) {
  return code.size() == 2 && std::all_of(code.begin(), code.end(), [](unsigned char character) {
           return std::isalnum(character) != 0;
         });
}

}  // namespace

Answer adapterList(const Request&) {
  std::set<std::string> adapters;
  if (!FW::TARNFW().fwAdapterEnum(adapters)) {
    return failed("the adapters cannot be listed", kUnknown);
  }
  return namesAnswer(adapters);
}

Answer serviceList(const Request&) {
  std::vector<ops::Service> services;
  std::string reason;
  if (!ops::listServices(services, reason)) return failed(reason, kUnknown);
  Answer answer;
  answer.document = Json::Value(Json::arrayValue);
  std::vector<std::vector<std::string>> rows;
  for (const ops::Service& service : services) {
    answer.document.append(toJson(service));
    const std::string source = portText(service.source, "source ");
    std::string ports = portText(service.destination, "");
    if (!source.empty()) ports += (ports.empty() ? "" : ", ") + source;
    rows.push_back({printable(service.name), ports,
                    printable(service.title) + (service.available ? "" : " (not available)")});
  }
  answer.text = table(rows);
  return answer;
}

Answer countryList(const Request&) {
  std::vector<std::string> codes;
  if (!FW::FW_GEOIP().countryEnum(codes)) {
    return failed("no country ranges are installed", kUnknown);
  }
  return namesAnswer(std::set<std::string>(codes.begin(), codes.end()));
}

Answer countryRanges(const Request& request) {
  const std::string& code = request.value("CODE");
  if (!isCountryCode(code))
    return failed("'" + code + "' is not a two-letter country code", kUsage);
  Answer answer;
  answer.document = Json::Value(Json::arrayValue);
  if (!FW::FW_GEOIP().countryIPGet(code, request.has("--ipv6"), answer.document)) {
    return failed("the ranges of '" + code + "' cannot be read", kUnknown);
  }
  for (const Json::Value& range : answer.document) {
    answer.text += range["ip_begin"].asString() + "-" + range["ip_end"].asString() + "\n";
  }
  return answer;
}

Answer modulesLoad(const Request& request) {
  return changeModules(request,
                       {Modules::iptablesCoreModLoad, Modules::iptablesNATModLoad, /*loads=*/true});
}

Answer modulesUnload(const Request& request) {
  return changeModules(
      request, {Modules::iptablesCoreModUnload, Modules::iptablesNATModUnload, /*loads=*/false});
}

}  // namespace tarnfw
