// A profile compiles into the argument lines that a second compiler makes of it, every one of them.
//
// Input: the machine (which interfaces it has, whether it has a PPPoE link, wireless, a service
// database, whether its interfaces can be listed: a flag each), a flag for the connection-state
// lines, the exempt address, then the profile.

#include <arpa/inet.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "check.h"
#include "commandModel.h"
#include "fakePlatform.h"
#include "jsonText.h"
#include "profileInput.h"
#include "services.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

constexpr char kCountries[] = "/usr/share/xt_geoip/";
constexpr char kModelFile[] = "/etc.defaults/tarninfo.conf";

fuzz::Machine machineOf(fuzz::Input& input) {
  fuzz::Machine machine;
  for (const char* name : {"eth0", "eth1", "ppp0", "ppp1", "tun0", "tun1000"}) {
    if (input.flag()) machine.interfaces.emplace_back(name);
  }
  if (input.flag()) machine.pppoe = "ppp0";
  if (input.flag()) machine.wireless = true;
  if (input.flag()) machine.services = fuzz::services();
  machine.listed = !input.flag();
  machine.countries = {{"US", {true, true}}, {"DE", {true, false}}};
  return machine;
}

void makeRecordingPlatform(const fuzz::Machine& machine) {
  fake::reset();
  fake::machine().interfaces = machine.interfaces;
  fake::machine().pppoe = machine.pppoe;
  fake::machine().services = machine.services;
  if (machine.wireless) {
    fake::machine().capabilities = {"support_wireless"};
    fake::machine().files[kModelFile]["support_wireless"] = "yes";
  }
  if (!machine.listed) fake::machine().answers.insert({"interfaces 32 8", -1});
  static const bool kCountriesMade = [] {
    for (const char* file : {"US.iv4", "US.iv6", "DE.iv4"}) {
      files::write(std::string(kCountries) + file, "12345678");
    }
    files::write(std::string(kCountries) + "DE.iv6", "1234567");
    return true;
  }();
  (void)kCountriesMade;
}

fuzz::Commands commandsOf(const Json::Value& document) {
  fuzz::Commands commands;
  for (const std::string& family : document.getMemberNames()) {
    for (const std::string& adapter : document[family].getMemberNames()) {
      for (const Json::Value& line : document[family][adapter]) {
        commands[family][adapter].push_back(line.asString());
      }
    }
  }
  return commands;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const fuzz::Machine machine = machineOf(input);
  const bool withState = input.flag();
  const std::string exempt = input.text();
  const FW::FWPROFILE profile = fuzz::profileOf(input);
  makeRecordingPlatform(machine);

  fuzz::Commands expected;
  const bool compiles = fuzz::compile(machine, profile, withState, exempt, expected);
  Json::Value document;
  const bool compiled = FW::TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
      withState, profile.rules, profile.adapterPolicyMap, document, exempt);
  (void)trace::take();

  fuzz::requireEqual(fuzz::textOf(expected), fuzz::textOf(commandsOf(document)),
                     "the lines of a profile");
  fuzz::require(compiles == compiled, "which profiles compile");
  fuzz::requireEqual("", fake::alive(), "the service database is released");
  return 0;
}
