// Verbs that change every stored profile at once: services are reserved or go, adapters get new
// names.

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "documentChanges.h"
#include "lifecycleVerbs.h"
#include "ops/serviceTable.h"
#include "ops/settings.h"
#include "tarnfirewall.h"
#include "verbs.h"

namespace tarnfw {
namespace {

// Carries out an edit that reloads when it is told to. The reload runs where nothing can stop it
// half-way.
Answer editProfiles(const Request& request, const std::function<bool(bool reload)>& edit,
                    const std::string& failure) {
  const bool reloads = request.has("--reload");
  ops::Settings settings;
  std::string reason;
  if (reloads && !ops::readSettings(settings, reason)) return failed(reason);
  if (reloads && settings.enabled && !request.dryRun) {
    return supervisedAnswer(ops::supervise({}, [&edit] { return edit(/*reload=*/true); }));
  }
  Answer answer = changeDocuments(
      request, [&edit] { return edit(/*reload=*/false); }, failure);
  if (!reloads || !answer.error.empty()) return answer;
  answer.notes.emplace_back(settings.enabled ? "the active profile would be loaded"
                                             : "the firewall is off, nothing is loaded");
  return answer;
}

// A service that the table does not have gives a rule without ports, and so no line.
void warnOfUnknownService(const std::string& name, Answer& answer) {
  std::vector<ops::Service> services;
  std::string reason;
  if (!ops::listServices(services, reason)) return;  // the rule waits for a table that can be read
  const bool known = std::any_of(services.begin(), services.end(), [&name](const auto& service) {
    return service.name == name && service.available;
  });
  if (!known) answer.notes.push_back("warning: there is no service " + quoted(name));
}

// Rules that the new name has are lost.
void warnOfLostRules(const std::string& from, const std::string& to, Answer& answer) {
  std::map<std::string, FW::FWPROFILE> profiles;
  if (!FW::TARNFW_PROFILE().profileEnum(profiles)) return;  // the edit says so
  for (const auto& [name, profile] : profiles) {
    const auto lost = profile.rules.find(to);
    if (profile.rules.count(from) == 0 || lost == profile.rules.end()) continue;
    answer.notes.push_back("warning: profile " + quoted(name) + ": " +
                           std::to_string(lost->second.size()) + " rule(s) of " + quoted(to) +
                           " are replaced");
  }
}

// Puts what was found before the edit in front of what the edit has to say.
Answer withWarnings(const Answer& warnings, Answer answer) {
  answer.notes.insert(answer.notes.begin(), warnings.notes.begin(), warnings.notes.end());
  return answer;
}

Answer emptyName(const char* what) { return failed(std::string(what) + " is empty", kUsage); }

}  // namespace

Answer serviceReserve(const Request& request) {
  const std::string& service = request.value("NAME");
  const std::string& adapter = request.value("--adapter");
  if (service.empty()) return emptyName("the service's name");
  if (adapter.empty()) return emptyName("the adapter's name");
  const FW::FW_POLICY policy = request.has("--allow") ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
  Answer warnings;
  warnOfUnknownService(service, warnings);
  return withWarnings(warnings, editProfiles(
                                    request,
                                    [&](bool reload) {
                                      return FW::TARNFW_PROFILE().profileAddServToReserve(
                                          adapter, service, policy, reload);
                                    },
                                    "not every profile was changed"));
}

Answer serviceRemove(const Request& request) {
  const std::string& service = request.value("NAME");
  if (service.empty()) return emptyName("the service's name");
  return changeDocuments(
      request, [&service] { return FW::TARNFW_PROFILE().profileRemoveServ(service); },
      "not every profile was changed");
}

Answer adapterRename(const Request& request) {
  const std::string& from = request.value("OLD");
  const std::string& to = request.value("NEW");
  if (from.empty() || to.empty()) return emptyName("an adapter's name");
  if (from == to) {
    return failed("both names are " + quoted(from) + "; its rules would be deleted", kUsage);
  }
  Answer warnings;
  warnOfLostRules(from, to, warnings);
  return withWarnings(
      warnings,
      editProfiles(
          request,
          [&](bool reload) { return FW::TARNFW_PROFILE().profileChangeAdapter(from, to, reload); },
          "not every profile was changed"));
}

}  // namespace tarnfw
