#include "listing.h"

#include <map>
#include <sstream>

#include "machine.h"

namespace proof {
namespace {

constexpr int kPermanentRules = 2;  // of the base chain FIREWALL_RELOADING

}  // namespace

Listing listing() {
  Listing text;
  for (const std::string tool : {"iptables", "ip6tables"}) {
    std::map<std::string, int> rules;
    std::map<std::string, std::string> policies;
    std::istringstream lines(road::output(tool + " -S"));
    std::string verb;
    std::string chain;
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      words >> verb >> chain;
      if (verb == "-P") words >> policies[chain];
      if (verb == "-A") ++rules[chain];
    }
    rules["FIREWALL_RELOADING"] -= kPermanentRules;
    text.policies += (text.policies.empty() ? "" : " ") + tool;
    text.rules += (text.rules.empty() ? "" : " ") + tool;
    for (const std::string name : {"INPUT", "FORWARD"}) {
      text.policies += " " + name + " " + policies[name];
    }
    for (const std::string name : {"FIREWALL_RELOADING", "INPUT_FIREWALL", "FORWARD_FIREWALL"}) {
      text.rules += " " + name + " " + std::to_string(rules[name]);
    }
  }
  return text;
}

}  // namespace proof
