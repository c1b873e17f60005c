// Verbs that ask whether a port or a service is blocked under the active profile.

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "documentChanges.h"
#include "ops/serviceTable.h"
#include "ops/settings.h"
#include "output.h"
#include "tarnfirewall.h"
#include "verbs.h"

namespace tarnfw {
namespace {

constexpr int kPartlyBlocked = 3;  // a verdict of the library's without a name
constexpr unsigned long kLastPort = 65535;

const char* wordFor(int verdict) {
  switch (verdict) {
    case FW::FW_POLICY_ALLOW:
      return "allowed";
    case FW::FW_POLICY_DENY:
      return "blocked";
    case FW::FW_POLICY_NONE:
      return "undecided";
    default:
      return "partly blocked";
  }
}

// The exit status for all adapters: the worst there is.
int exitFor(const FW::AdapterPolicyMap& verdicts) {
  int exit = kDone;
  for (const auto& [adapter, verdict] : verdicts) {
    if (verdict == FW::FW_POLICY_DENY) return kBlocked;
    if (verdict == kPartlyBlocked) exit = kPartly;
  }
  return exit;
}

Answer verdictsAnswer(const FW::AdapterPolicyMap& verdicts) {
  Answer answer;
  answer.exit = exitFor(verdicts);
  answer.document = Json::Value(Json::objectValue);
  std::vector<std::vector<std::string>> rows;
  for (const auto& [adapter, verdict] : verdicts) {
    answer.document[adapter] = static_cast<int>(verdict);
    rows.push_back({printable(adapter), wordFor(verdict)});
  }
  answer.text = table(rows);
  ops::Settings settings;
  std::string reason;
  if (ops::readSettings(settings, reason) && !settings.enabled) {
    answer.remark("the firewall is off, nothing is blocked");
  }
  return answer;
}

// "80" or "80-90", as the library compares them.
bool isPortOrRange(const std::string& text) {
  static const std::regex kForm("([0-9]{1,5})(?:-([0-9]{1,5}))?");
  std::smatch parts;
  if (!std::regex_match(text, parts, kForm)) return false;
  const unsigned long first = std::stoul(parts[1]);
  const unsigned long last = parts[2].matched ? std::stoul(parts[2]) : first;
  return first <= last && last <= kLastPort;
}

FW::FW_PORT_PROTOCOL protocolOf(const std::string& word) {
  if (word == "tcp") return FW::FW_PROTO_TCP;
  return word == "udp" ? FW::FW_PROTO_UDP : FW::FW_PROTO_TCP_UDP;
}

std::string adapterOf(const Request& request) {
  return request.has("--adapter") ? request.value("--adapter") : "";
}

// Without a name the library answers for every adapter, which is not what was asked for.
bool adapterIsEmpty(const Request& request) {
  return request.has("--adapter") && request.value("--adapter").empty();
}

Answer emptyAdapter() { return failed("the adapter's name is empty", kUsage); }

// The answer that `query` fills in.
Answer ask(const std::function<bool(FW::AdapterPolicyMap& verdicts)>& query) {
  FW::AdapterPolicyMap verdicts;
  std::string why;
  if (succeeds([&] { return query(verdicts); }, why)) return verdictsAnswer(verdicts);
  return failed("the active profile cannot be read" + why, kUnknown);
}

}  // namespace

Answer queryPort(const Request& request) {
  FW::PortCompareST query;
  query.port = request.value("PORT");
  if (!isPortOrRange(query.port)) {
    return failed(quoted(query.port) + " is neither a port nor a range of ports", kUsage);
  }
  if (adapterIsEmpty(request)) return emptyAdapter();
  query.protocol = protocolOf(request.value("--protocol"));
  query.portDirect = request.has("--direction") && request.value("--direction") == "src" ? 1 : 0;
  return ask([&](FW::AdapterPolicyMap& verdicts) {
    return FW::TARNFW().fwPortIsBlocked(query, adapterOf(request), verdicts);
  });
}

Answer queryService(const Request& request) {
  const std::string& name = request.value("NAME");
  if (adapterIsEmpty(request)) return emptyAdapter();
  std::vector<ops::Service> services;
  std::string reason;
  if (!ops::listServices(services, reason)) return failed(reason, kUnknown);
  // The library has no verdict for others, and that would read as allowed.
  if (!ops::offers(services, name)) return failed("there is no service " + quoted(name), kUnknown);
  return ask([&](FW::AdapterPolicyMap& verdicts) {
    return FW::TARNFW().fwServIsBlocked(name, adapterOf(request), verdicts);
  });
}

}  // namespace tarnfw
