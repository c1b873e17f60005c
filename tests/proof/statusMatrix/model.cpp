#include "model.h"

#include <array>
#include <sstream>
#include <utility>

namespace matrix {
namespace {

constexpr std::array<const char*, 2> kTools = {"iptables", "ip6tables"};
constexpr std::array<const char*, 3> kChains = {"FIREWALL_RELOADING", "INPUT_FIREWALL",
                                                "FORWARD_FIREWALL"};

// clang-format off
const std::vector<std::string> kDropSet = {
  "/sbin/iptables --policy INPUT DROP",
  "/sbin/iptables --policy FORWARD DROP",
  "/sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
  "/sbin/ip6tables --policy INPUT DROP",
  "/sbin/ip6tables --policy FORWARD DROP",
  "/sbin/ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"};

const std::vector<std::string> kAcceptSet = {
  "/sbin/iptables --policy INPUT ACCEPT",
  "/sbin/iptables --policy FORWARD ACCEPT",
  "/sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
  "/sbin/ip6tables --policy INPUT ACCEPT",
  "/sbin/ip6tables --policy FORWARD ACCEPT",
  "/sbin/ip6tables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"};

const std::vector<std::string> kFlush = {
  "/sbin/iptables -F INPUT_FIREWALL",
  "/sbin/ip6tables -F INPUT_FIREWALL",
  "/sbin/iptables -F FORWARD_FIREWALL",
  "/sbin/ip6tables -F FORWARD_FIREWALL"};

const std::vector<std::string> kAdaptersV4 = {
  "/sbin/iptables -t filter -A FORWARD_FIREWALL -i eth0 -j DROP",
  "/sbin/iptables -t filter -A INPUT_FIREWALL -i eth0 -j DROP",
  "/sbin/iptables -t filter -A FORWARD_FIREWALL -i eth1 -j DROP",
  "/sbin/iptables -t filter -A INPUT_FIREWALL -i eth1 -j DROP"};

const std::vector<std::string> kAdaptersV6 = {
  "/sbin/ip6tables -t filter -A FORWARD_FIREWALL -i eth0 -j DROP",
  "/sbin/ip6tables -t filter -A INPUT_FIREWALL -i eth0 -j DROP",
  "/sbin/ip6tables -t filter -A FORWARD_FIREWALL -i eth1 -j DROP",
  "/sbin/ip6tables -t filter -A INPUT_FIREWALL -i eth1 -j DROP"};

const std::vector<std::string> kNeighbours = {
  " -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",
  " -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",
  " -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",
  " -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",
  " -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT"};
// clang-format on

std::string stateAccept(const std::string& exempt) {
  return (exempt.empty() ? "" : " ! -s " + exempt) +
         " -m state --state ESTABLISHED,RELATED -j ACCEPT";
}

std::string toolOf(const std::string& commandLine) {
  return commandLine.substr(0, commandLine.find(' '));
}

}  // namespace

const char* name(Outcome outcome) {
  switch (outcome) {
    case Outcome::kDone:
      return "done";
    case Outcome::kStatus1:
      return "status 1";
    case Outcome::kStatus2:
      return "status 2";
    case Outcome::kStatus4:
      return "status 4";
    case Outcome::kNotStarted:
      return "not started";
    case Outcome::kKilled:
      return "killed";
    case Outcome::kKilledLate:
      return "killed late";
    case Outcome::kHangs:
      return "hangs";
  }
  return "";
}

int answer(Outcome outcome) {
  switch (outcome) {
    case Outcome::kDone:
      return 0;
    case Outcome::kStatus1:
      return 1;
    case Outcome::kStatus2:
      return 2;
    case Outcome::kStatus4:
      return 4;
    default:
      return -1;
  }
}

bool takesEffect(Outcome outcome) {
  return outcome == Outcome::kDone || outcome == Outcome::kKilledLate;
}

// --- the packet filter ---

Filter::Filter() {
  for (const std::string tool : kTools) {
    for (const char* chain : {"INPUT", "FORWARD"}) policies_[tool + " " + chain] = "ACCEPT";
    for (const char* chain : kChains) rules_[tool + " " + chain] = 0;
  }
}

void Filter::apply(const std::string& commandLine) {
  std::istringstream words(commandLine.substr(commandLine.rfind('/', commandLine.find(' ')) + 1));
  std::string tool;
  std::string verb;
  std::string chain;
  words >> tool >> verb;
  if (verb == "-t") words >> verb >> verb;
  words >> chain;
  const std::string place = tool + " " + chain;
  if (verb == "--policy") words >> policies_.at(place);
  if (verb == "-A") ++rules_.at(place);
  if (verb == "-F") rules_.at(place) = 0;
  if (verb == "-D" && rules_.at(place) > 0) --rules_.at(place);
}

bool Filter::open() const {
  for (const auto& [place, policy] : policies_) {
    if (policy != "ACCEPT") return false;
  }
  return true;
}

std::string Filter::policies() const {
  std::string text;
  for (const std::string tool : kTools) {
    text += (text.empty() ? "" : " ") + tool;
    for (const char* chain : {"INPUT", "FORWARD"}) {
      text += std::string(" ") + chain + " " + policies_.at(tool + " " + chain);
    }
  }
  return text;
}

std::string Filter::rules() const {
  std::string text;
  for (const std::string tool : kTools) {
    text += (text.empty() ? "" : " ") + tool;
    for (const char* chain : kChains) {
      text += std::string(" ") + chain + " " + std::to_string(rules_.at(tool + " " + chain));
    }
  }
  return text;
}

// --- the compiled profile ---

std::vector<std::string> profileLines(bool state, const std::string& exempt) {
  const bool isV6 = exempt.find(':') != std::string::npos;
  std::vector<std::string> lines;
  for (const std::string chain : {"INPUT_FIREWALL", "FORWARD_FIREWALL"}) {
    const std::string beginning = "/sbin/iptables -A " + chain;
    lines.push_back(beginning + " -i lo -j ACCEPT");
    if (state) lines.push_back(beginning + stateAccept(isV6 ? "" : exempt));
  }
  lines.insert(lines.end(), kAdaptersV4.begin(), kAdaptersV4.end());
  for (const std::string chain : {"INPUT_FIREWALL", "FORWARD_FIREWALL"}) {
    const std::string beginning = "/sbin/ip6tables -A " + chain;
    lines.push_back(beginning + " -i lo -j ACCEPT");
    for (const std::string& neighbours : kNeighbours) lines.push_back(beginning + neighbours);
    if (state) lines.push_back(beginning + stateAccept(isV6 ? exempt : ""));
  }
  lines.insert(lines.end(), kAdaptersV6.begin(), kAdaptersV6.end());
  return lines;
}

// --- the operations ---

Model::Model(const Scenario& scenario, Plan plan)
    : scenario_(scenario),
      plan_(std::move(plan)),
      enabled_(scenario.enabled),
      modulesLoaded_(scenario.modulesLoaded) {}

bool Model::run() {
  if (scenario_.operation == "enable") return enable();
  if (scenario_.operation == "disable") return disable();
  if (scenario_.operation == "reload") return reload();
  return trial();
}

// Recorded as switched on before the reload, which leaves a firewall that is off alone.
bool Model::enable() {
  loadModules();
  hook("net/firewall_enable", true, 4);
  enabled_ = true;
  const bool result = reload();
  if (!result) error("Failed to apply firewall rules");
  hook("net/firewall_enable", result, 5);
  return result;
}

// What becomes of the flush does not matter; policies are left alone.
bool Model::disable() {
  hook("net/firewall_disable", true, 4);
  (void)flush();
  unloadModules();
  enabled_ = false;
  hook("net/firewall_disable", true, 5);
  return true;
}

bool Model::reload() {
  add("lock");
  bool result = true;
  if (enabled_) {
    loadModules();
    result = throughDropPeriod(/*flushMustSucceed=*/false);
  }
  add("unlock");
  return result;
}

// No lock, and "status" is neither asked nor set; the flush has to succeed.
bool Model::trial() {
  loadModules();
  return throughDropPeriod(/*flushMustSucceed=*/true);
}

// After a failed drop set nothing else is done: policies stay as it left them.
bool Model::throughDropPeriod(bool flushMustSucceed) {
  if (!dropSet()) return false;
  bool result = apply(flushMustSucceed);
  if (!acceptSet()) {
    (void)disable();
    result = false;
  }
  return result;
}

bool Model::apply(bool flushMustSucceed) {
  const bool flushed = flush();
  if (flushMustSucceed && !flushed) {
    error("Failed to fwClear()");
    return false;
  }
  if (!scenario_.compileErrors.empty()) {
    for (const std::string& line : scenario_.compileErrors) add(line);
    error("Failed to fwIptablesRulesEnum()");
    return false;
  }
  if (!runLines(scenario_.lines)) {
    (void)disable();
    error("Failed to fwExec() so disable firewall");
    return false;
  }
  return true;
}

bool Model::dropSet() {
  if (runLines(kDropSet)) return true;
  error("Failed to fwExec() to set default drop.");
  return false;
}

bool Model::acceptSet() {
  if (runLines(kAcceptSet)) return true;
  error("Failed to fwExec() to set default accept.");
  return false;
}

// All four, whatever becomes of one.
bool Model::flush() {
  bool flushed = true;
  for (const std::string& line : kFlush) flushed = runLine(line) && flushed;
  return flushed;
}

// The first that is not run to its end is the last.
bool Model::runLines(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    if (!runLine(line)) return false;
  }
  return true;
}

// Any exit status is a success.
bool Model::runLine(const std::string& line) {
  add("exec " + line);
  const Outcome outcome = plan_(position_++);
  if (takesEffect(outcome)) filter_.apply(line);
  if (answer(outcome) != -1) return true;
  error("Failed to execute " + toolOf(line));
  error("Failed to execute \"" + line + "\"");
  return false;
}

void Model::hook(const char* name, bool result, int action) {
  add(std::string("plugin init net ") + name);
  add(std::string("plugin set RESULT=") + (result ? "0" : "-1"));
  add("plugin action " + std::to_string(action));
  add("plugin exit");
}

void Model::loadModules() {
  if (modulesLoaded_) return;
  add("modinsert firewall core1.ko core2.ko common.ko ipv6.ko");
  add("modinsert firewall compat_xtables.ko xt_geoip.ko xt_mac.ko");
  modulesLoaded_ = true;
}

void Model::unloadModules() {
  if (!modulesLoaded_) return;
  add("modremove firewall xt_mac.ko xt_geoip.ko compat_xtables.ko");
  add("modremove firewall ipv6.ko common.ko core2.ko core1.ko");
  modulesLoaded_ = false;
}

void Model::add(const std::string& line) {
  if (!trace_.empty()) trace_ += '\n';
  trace_ += line;
}

}  // namespace matrix
