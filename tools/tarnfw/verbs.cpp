#include "verbs.h"

#include <exception>
#include <utility>

namespace tarnfw {

void Answer::remark(std::string line) { notes.push_back({std::move(line), /*complaint=*/false}); }

void Answer::complain(std::string line) { notes.push_back({std::move(line), /*complaint=*/true}); }

void Answer::complain(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) complain(line);
}

Answer failed(std::string error, int exit) {
  Answer answer;
  answer.exit = exit;
  answer.error = std::move(error);
  return answer;
}

bool succeeds(const std::function<bool()>& operation, std::string& why) {
  why.clear();
  try {
    return operation();
  } catch (const std::exception& exception) {
    why = std::string(": ") + exception.what();
    return false;
  }
}

const std::vector<Verb>& verbs() {
  // clang-format off
  static const std::vector<Verb> kVerbs = {
      {"setup", "", "Make the base chains and a first profile where they are missing; say what else is",
       Root::kAlways, Effect::kChanges, setUp},
      {"enable", "", "Switch the firewall on and load the active profile",
       Root::kAlways, Effect::kChanges, enable},
      {"disable", "", "Switch the firewall off",
       Root::kAlways, Effect::kChanges, disable},
      {"reload", "", "Load the active profile anew when the firewall is on",
       Root::kAlways, Effect::kChanges, reload},
      {"clear", "", "Empty the firewall chains; the firewall stays on or off",
       Root::kToChange, Effect::kChanges, clear},
      {"recover", "", "Undo what a reload that was killed left behind",
       Root::kAlways, Effect::kChanges, recover},
      {"status", "[--verify]", "Show whether the firewall is on; compare the live rules with the profile",
       Root::kAlways, Effect::kReads, status},
      {"compile", "PROFILE [--no-state] [--exempt ADDRESS]", "Print the commands that load a profile",
       Root::kAlways, Effect::kReads, compile},
      {"query port", "PORT --protocol tcp|udp|both [--direction dst|src] [--adapter NAME]",
       "Say whether the active profile blocks a port (80) or a range (80-90)",
       Root::kAlways, Effect::kReads, queryPort},
      {"query service", "NAME [--adapter NAME]", "Say whether the active profile blocks a service",
       Root::kAlways, Effect::kReads, queryService},
      {"profile list", "", "List the profiles",
       Root::kAlways, Effect::kReads, profileList},
      {"profile show", "NAME", "Show a profile's rules",
       Root::kAlways, Effect::kReads, profileShow},
      {"profile create", "NAME", "Store a new, empty profile",
       Root::kAlways, Effect::kChanges, profileCreate},
      {"profile delete", "NAME", "Delete a profile that is not the active one",
       Root::kAlways, Effect::kChanges, profileDelete},
      {"profile rename", "OLD NEW", "Give a profile another name",
       Root::kAlways, Effect::kChanges, profileRename},
      {"profile use", "NAME [--no-reload]", "Make a profile the active one and load it when the firewall is on",
       Root::kAlways, Effect::kChanges, profileUse},
      {"update", "", "Take services that no longer exist out of every profile; does not reload",
       Root::kAlways, Effect::kChanges, update},
      {"adapter list", "", "List the adapters that rules can be filed under",
       Root::kNever, Effect::kReads, adapterList},
      {"adapter rename", "OLD NEW [--reload]", "File an adapter's rules under another name in every profile",
       Root::kAlways, Effect::kChanges, adapterRename},
      {"service list", "", "List the services that rules can name",
       Root::kNever, Effect::kReads, serviceList},
      {"service reserve", "NAME --adapter ADAPTER --allow|--deny [--reload]",
       "Put a service first among an adapter's rules in every profile",
       Root::kAlways, Effect::kChanges, serviceReserve},
      {"service remove", "NAME", "Take a service out of every profile; does not reload",
       Root::kAlways, Effect::kChanges, serviceRemove},
      {"country list", "", "List the countries whose address ranges are installed",
       Root::kNever, Effect::kReads, countryList},
      {"country ranges", "CODE [--ipv6]", "Print a country's address ranges",
       Root::kNever, Effect::kReads, countryRanges},
      {"modules load", "core|nat SERVICE", "Load a set of kernel modules on behalf of a service",
       Root::kToChange, Effect::kChanges, modulesLoad},
      {"modules unload", "core|nat SERVICE", "Unload a set of kernel modules on behalf of a service",
       Root::kToChange, Effect::kChanges, modulesUnload},
  };
  // clang-format on
  return kVerbs;
}

}  // namespace tarnfw
