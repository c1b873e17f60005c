#include "texts.h"

namespace texts {
namespace {

std::string list(const std::vector<std::string>& items) {
  if (items.empty()) return "[]";
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "[ \"" : ", \"") + item + "\"";
  return text + " ]";
}

std::string rule(std::size_t index, const ServiceRule& rule) {
  const auto member = [](const std::string& name, const std::string& value) {
    return "            \"" + name + "\" : " + value;
  };
  return "         {\n" + member("adapterDirect", "1,\n") + member("blLog", "false,\n") +
         member("chainList", "[ \"FORWARD_FIREWALL\", \"INPUT_FIREWALL\" ],\n") +
         member("enable", "true,\n") + member("ipDirect", "1,\n") + member("ipGroup", "5,\n") +
         member("ipList", "[],\n") + member("ipType", std::to_string(rule.family) + ",\n") +
         member("labelList", "[],\n") + member("name", "\"" + rule.name + "\",\n") +
         member("policy", std::to_string(rule.policy) + ",\n") + member("portDirect", "0,\n") +
         member("portGroup", std::to_string(rule.ports) + ",\n") +
         member("portList", list(rule.services) + ",\n") +
         member("protocol", std::to_string(rule.protocol) + ",\n") +
         member("ruleIndex", std::to_string(index) + ",\n") + member("table", "\"filter\"\n") +
         "         }";
}

}  // namespace

std::string profile(const std::string& name, const Policies& policies, const std::string& adapter,
                    const std::vector<ServiceRule>& rules) {
  std::string text;
  for (const auto& [key, policy] : policies) {
    text += (text.empty() ? "" : ",\n") + ("      \"" + key + "\" : " + std::to_string(policy));
  }
  text = "{\n   \"adapterPolicyMap\" : {\n" + text + "\n   },\n   \"name\" : \"" + name +
         "\",\n   \"rules\" : ";
  if (rules.empty()) return text + "null\n}\n";
  text += "{\n      \"" + adapter + "\" : [\n";
  for (std::size_t index = 0; index < rules.size(); ++index) {
    text += (index == 0 ? "" : ",\n") + rule(index, rules[index]);
  }
  return text + "\n      ]\n   }\n}\n";
}

std::string settings(const std::string& profile, bool status) {
  return "{\n   \"profile\" : \"" + profile +
         "\",\n   \"site\" : \"north\",\n   \"status\" : " + (status ? "true" : "false") + "\n}\n";
}

std::string withNote(const std::string& settings) {
  return "{\n   \"note\" : \"after\"" + (",\n" + settings.substr(2));
}

}  // namespace texts
