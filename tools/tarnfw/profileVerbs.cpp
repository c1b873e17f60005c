// Verbs on stored profiles.

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "documentChanges.h"
#include "network.h"
#include "ops/jsonText.h"
#include "ops/profileStore.h"
#include "output.h"
#include "tarnfirewall.h"
#include "verbs.h"

namespace tarnfw {
namespace {

Answer noSuchProfile(const std::string& name) {
  return failed("there is no profile " + quoted(name));
}

// Does the name come back from a document as it went in, and can it be shown? Documents are UTF-8.
bool usableName(const std::string& name) {
  Json::Value document(Json::arrayValue);
  document.append(name);
  Json::Value read;
  return !name.empty() && printable(name) == name &&
         ops::parseJson(ops::styledJson(document), read) && read == document;
}

Answer badName(const std::string& name) {
  return failed(quoted(name) +
                    " cannot be a profile's name: it is empty, has control characters or is not "
                    "UTF-8",
                kUsage);
}

std::string policyWord(FW::FW_POLICY policy) {
  switch (policy) {
    case FW::FW_POLICY_ALLOW:
      return "allow";
    case FW::FW_POLICY_DENY:
      return "deny";
    case FW::FW_POLICY_NONE:
      return "none";
  }
  return std::to_string(policy);
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ",") + word;
  return text;
}

std::string protocolWord(FW::FW_PORT_PROTOCOL protocol) {
  switch (protocol) {
    case FW::FW_PROTO_TCP:
      return "tcp";
    case FW::FW_PROTO_UDP:
      return "udp";
    case FW::FW_PROTO_TCP_UDP:
      return "tcp+udp";
    case FW::FW_PROTO_ICMP:
      return "icmp";
    case FW::FW_PROTO_IGMP:
      return "igmp";
  }
  return std::to_string(protocol);
}

std::string portWords(const FW::FWRULE& rule) {
  const std::string side = rule.portDirect != 0 ? "source " : "";
  switch (rule.portGroup) {
    case 0:
    case 2:
      return side + "service " + joined(rule.portList);
    case 1:
      return side + protocolWord(rule.protocol) + " " + joined(rule.portList);
    case 3:
      return "all ports";
    default:
      return "port group " + std::to_string(rule.portGroup);
  }
}

std::string addressWords(const FW::FWRULE& rule) {
  const std::string side = rule.ipDirect != 0 ? "from " : "to ";
  switch (rule.ipGroup) {
    case 0:
      return side + joined(rule.ipList);
    case 1:
      return side + "subnet " + joined(rule.ipList);
    case 2:
      return "no address";
    case 3:
      return side + "country " + joined(rule.ipList);
    case 4:
      return side + "range " + joined(rule.ipList);
    case 5:
      return side + "any";
    default:
      return side + "address group " + std::to_string(rule.ipGroup);
  }
}

std::string familyWords(int ipType) {
  if (ipType == 0) return "IPv4";
  return ipType == 1 ? "IPv6" : "IPv4+IPv6";
}

std::vector<std::string> ruleRow(std::size_t number, const FW::FWRULE& rule) {
  return {"  " + std::to_string(number),
          rule.enable ? "on" : "off",
          policyWord(rule.policy) + (rule.blLog ? "+log" : ""),
          rule.adapterDirect != 0 ? "in" : "out",
          familyWords(rule.ipType),
          printable(addressWords(rule)),
          printable(portWords(rule)),
          printable(rule.name)};
}

std::string profileText(const FW::FWPROFILE& profile) {
  std::string text = "Profile " + printable(profile.name) + "\n";
  std::map<std::string, std::vector<FW::FWRULE>> rules = profile.rules;
  for (const auto& [adapter, policy] : profile.adapterPolicyMap) rules[adapter];
  for (const auto& [adapter, list] : rules) {
    const auto policy = profile.adapterPolicyMap.find(adapter);
    text += "\n" + printable(adapter) + ", otherwise " +
            (policy == profile.adapterPolicyMap.end() ? "none" : policyWord(policy->second)) + "\n";
    std::vector<std::vector<std::string>> rows;
    for (const FW::FWRULE& rule : list) rows.push_back(ruleRow(rows.size() + 1, rule));
    text += table(rows);
  }
  return text;
}

}  // namespace

Answer compile(const Request& request) {
  const std::string& name = request.value("PROFILE");
  Json::Value commands;
  std::function<bool()> run = [&] {
    return FW::TARNFW().fwIptablesRulesEnum(name, commands, !request.has("--no-state"));
  };
  if (request.has("--exempt")) {
    const std::string& address = request.value("--exempt");
    if (request.has("--no-state")) {
      return failed("--no-state and --exempt exclude each other", kUsage);
    }
    if (BlTLIBIsIpAddr(address.c_str()) == 0 && BlTLIBIsv6IpAddrValid(address.c_str()) == 0) {
      return failed("--exempt: " + quoted(address) + " is not an IP address", kUsage);
    }
    run = [&] { return FW::TARNFW().fwIptablesRulesEnum(name, commands, address); };
  }
  std::string why;
  if (!succeeds(run, why)) return failed("profile " + quoted(name) + " does not compile" + why);
  Answer answer;
  answer.text = ops::styledJson(commands);
  answer.document = commands;
  return answer;
}

Answer profileList(const Request&) {
  std::vector<std::string> names;
  if (!FW::TARNFW_PROFILE().profileEnum(names)) {
    return failed("the profiles cannot be listed", kUnknown);
  }
  Answer answer;
  answer.document = Json::Value(Json::arrayValue);
  for (const std::string& name : names) {
    answer.document.append(name);
    answer.text += printable(name) + "\n";
  }
  return answer;
}

Answer profileShow(const Request& request) {
  const std::string& name = request.value("NAME");
  FW::TARNFW_JSON_DB database;
  if (!database.profileExist(name)) return noSuchProfile(name);
  Answer answer;
  FW::FWPROFILE profile;
  std::string why;
  const auto read = [&] {
    if (!database.profileDbLoad(name, answer.document)) return false;
    if (!request.json) database.jsonToProfile(answer.document, profile);
    return true;
  };
  if (!succeeds(read, why)) {
    return failed("profile " + quoted(name) + " cannot be read" + why, kUnknown);
  }
  if (!request.json) answer.text = profileText(profile);
  return answer;
}

Answer profileCreate(const Request& request) {
  const std::string& name = request.value("NAME");
  if (!usableName(name)) return badName(name);
  if (!ops::hasProfileDocument()) {
    return failed("the profile directory holds no profile yet; run 'tarnfw setup' first");
  }
  return changeDocuments(
      request, [&name] { return FW::TARNFW_PROFILE().profileCreate(name); },
      "could not create " + quoted(name));
}

Answer profileDelete(const Request& request) {
  const std::string& name = request.value("NAME");
  FW::TARNFW_PROFILE manager;
  const bool known = manager.profileExist(name);
  Answer answer = changeDocuments(
      request, [&] { return manager.profileDelete(name); }, "could not delete " + quoted(name));
  if (answer.error.empty() && !known) {
    answer.remark("there is no profile " + quoted(name));
  } else if (answer.error.empty() && !request.dryRun && manager.profileExist(name)) {
    return failed("could not delete " + quoted(name));  // the library takes every removal for done
  }
  return answer;
}

Answer profileRename(const Request& request) {
  const std::string& from = request.value("OLD");
  const std::string& to = request.value("NEW");
  if (!usableName(to)) return badName(to);
  if (!FW::TARNFW_PROFILE().profileExist(from)) return noSuchProfile(from);
  return changeDocuments(
      request, [&] { return FW::TARNFW_PROFILE().profileRename(from, to); },
      "could not rename " + quoted(from) + " to " + quoted(to));
}

Answer update(const Request& request) {
  return changeDocuments(
      request, [] { return FW::TARNFW().fwUpdate(); }, "the profiles are not all up to date");
}

}  // namespace tarnfw
