// Verbs that change every stored profile at once: services are reserved or go, adapters get new
// names.

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

constexpr char kFailure[] = "not every profile was changed";

// An edit of every profile.
//   run           carries it out, and loads the active profile when it is told to and has to
//   whyNotLoaded  why it does not have to, in one sentence; empty when it has
struct Edit {
  std::function<bool(bool reload)> run;
  std::function<std::string(const std::string& active)> whyNotLoaded;
};

// Carries out an edit that loads the active profile. The reload runs where nothing can stop it
// half-way.
Answer editAndLoad(const Edit& edit) {
  ops::Supervised outcome = ops::supervise({}, [&edit] { return edit.run(/*reload=*/true); });
  if (outcome.begun && outcome.verdict == ops::Supervised::Verdict::kBusy) {
    outcome.reason += "; the profiles are changed already";  // the lock is asked for after that
  }
  return supervisedAnswer(outcome);
}

// Carries out an edit that loads the active profile when that was asked for, the firewall is on and
// the edit has changed what is loaded.
Answer editProfiles(const Request& request, const Edit& edit) {
  const auto change = [&edit] { return edit.run(/*reload=*/false); };
  if (!request.has("--reload")) return changeDocuments(request, change, kFailure);
  ops::Settings settings;
  std::string reason;
  if (!ops::readSettings(settings, reason)) return failed(reason);
  const std::string whyNot = settings.enabled ? edit.whyNotLoaded(settings.profile)
                                              : "the firewall is off, nothing is loaded";
  if (whyNot.empty()) {
    return request.dryRun ? planChangeAndLoad(change, kFailure, settings.profile)
                          : editAndLoad(edit);
  }
  Answer answer = changeDocuments(request, change, kFailure);
  if (answer.error.empty()) answer.remark(whyNot);
  return answer;
}

// The library counts an entry among the policies alone as a change of the active profile.
std::string whyRenamingLoadsNothing(const std::string& active, const std::string& adapter) {
  FW::FWPROFILE profile;
  if (!FW::TARNFW_JSON_DB().profileGet(active, profile)) return {};  // the edit says so
  if (profile.adapterPolicyMap.count(adapter) != 0) return {};
  return "the active profile has no policy for " + quoted(adapter) + ", nothing is loaded";
}

// A service that the table does not have gives a rule without ports, and so no line.
void warnOfUnknownService(const std::string& name, Answer& answer) {
  std::vector<ops::Service> services;
  std::string reason;
  if (!ops::listServices(services, reason)) return;  // the rule waits for a table that can be read
  if (!ops::offers(services, name)) answer.remark("warning: there is no service " + quoted(name));
}

// Rules that the new name has are lost.
void warnOfLostRules(const std::string& from, const std::string& to, Answer& answer) {
  std::map<std::string, FW::FWPROFILE> profiles;
  if (!FW::TARNFW_PROFILE().profileEnum(profiles)) return;  // the edit says so
  for (const auto& [name, profile] : profiles) {
    const auto lost = profile.rules.find(to);
    if (profile.rules.count(from) == 0 || lost == profile.rules.end()) continue;
    answer.remark("warning: profile " + quoted(name) + ": " + std::to_string(lost->second.size()) +
                  " rule(s) of " + quoted(to) + " are replaced");
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
  const Edit edit = {[&](bool reload) {
                       return FW::TARNFW_PROFILE().profileAddServToReserve(adapter, service, policy,
                                                                           reload);
                     },
                     [](const std::string&) { return std::string(); }};
  return withWarnings(warnings, editProfiles(request, edit));
}

Answer serviceRemove(const Request& request) {
  const std::string& service = request.value("NAME");
  if (service.empty()) return emptyName("the service's name");
  return changeDocuments(
      request, [&service] { return FW::TARNFW_PROFILE().profileRemoveServ(service); }, kFailure);
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
  const Edit edit = {
      [&](bool reload) { return FW::TARNFW_PROFILE().profileChangeAdapter(from, to, reload); },
      [&from](const std::string& active) { return whyRenamingLoadsNothing(active, from); }};
  return withWarnings(warnings, editProfiles(request, edit));
}

}  // namespace tarnfw
