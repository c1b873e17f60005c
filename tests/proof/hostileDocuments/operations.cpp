#include "operations.h"

#include <map>
#include <set>

#include "documents.h"
#include "tarnfirewall.h"
#include "tarnfirewall_c.h"

namespace hostile {
namespace {

using FW::FWPROFILE;
using FW::FWRULE;

constexpr char kName[] = "office";  // of the hostile profile, where it has one

FWPROFILE profileOf(const std::string& name) {
  FWRULE rule;
  rule.ipGroup = FW::FWRULE().ipGroup;
  rule.ipList = {"10.0.0.1"};
  rule.portList = {"ssh"};
  FWPROFILE profile;
  profile.name = name;
  profile.rules["global"] = {rule};
  return profile;
}

// The document, as far as the JSON library gets with it.
Json::Value valueOf(const Given& given) {
  Json::Value value;
  (void)jsonFileLoad(value, given.path);
  return value;
}

// The rules of the hostile document, as far as it has any.
FWPROFILE rulesOf(const Given& given) {
  FWPROFILE profile;
  FW::TARNFW_JSON_DB().jsonToProfile(valueOf(given), profile);
  return profile;
}

// Runs a step of the compiler for every rule of the hostile document.
template <class Step>
bool forEachRule(const Given& given, Step step) {
  bool all = true;
  for (const auto& [adapter, rules] : rulesOf(given).rules) {
    for (const FWRULE& rule : rules) {
      FW::TARNFW_IPTABLES_RULES compiler;
      Json::Value arguments;
      compiler.iptablesRulesInit(arguments);
      all = step(compiler, adapter, rule, arguments) && all;
    }
  }
  return all;
}

bool compileRules(const Given& given, const char* exempt) {
  const FWPROFILE profile = rulesOf(given);
  Json::Value commands;
  FW::TARNFW_IPTABLES_RULES compiler;
  return exempt == nullptr ? compiler.fwRulesToIptablesRules(true, profile.rules,
                                                             profile.adapterPolicyMap, commands)
                           : compiler.fwRulesToIptablesRules(
                                 true, profile.rules, profile.adapterPolicyMap, commands, exempt);
}

FW::PortCompareST ssh() {
  FW::PortCompareST port;
  port.port = "20-30";
  return port;
}

constexpr unsigned kDocuments = kProfile | kSettings;
constexpr unsigned kCompiled =
    kDocuments | kServices | kServiceDropIn | kModel | kCountryV4 | kCountryV6;
constexpr unsigned kModules = kModuleUsers | kModuleList;
constexpr unsigned kCountries = kCountryV4 | kCountryV6;

}  // namespace

// clang-format off
const std::vector<Operation>& operations() {
  using namespace FW;
  static const std::vector<Operation> kTable = {
    // --- file store ---
    {"getLockFile", kProfile, true, [](const Given& g) { return !getLockFile(g.path).empty(); }},
    {"jsonFileLoad", kProfile, true, [](const Given& g) { Json::Value v; return jsonFileLoad(v, g.path); }},
    {"jsonFileDump", kProfile, true, [](const Given& g) { return jsonFileDump(Json::Value(1), g.path); }},
    {"jsonFileDump of it", kProfile, true, [](const Given& g) { return jsonFileDump(valueOf(g), "/usr/tarn/etc/firewall.d/3.json"); }},
    // --- settings ---
    {"initJconfig", kProfile, true, [](const Given& g) { Json::Value v = valueOf(g); return TARNFW().initJconfig(v); }},
    {"configGet", kDocuments, true, [](const Given&) { Json::Value v; return TARNFW().configGet(v); }},
    {"configSet", kDocuments, true, [](const Given&) { Json::Value v; v["status"] = true; return TARNFW().configSet(v); }},
    {"configSet of it", kDocuments, true, [](const Given& g) { return TARNFW().configSet(valueOf(g)); }},
    {"fwStatus", kDocuments, true, [](const Given&) { bool on = false; return TARNFW().fwStatus(on); }},
    {"fwProfileConfigGet", kDocuments, true, [](const Given&) { std::string name; return TARNFW().fwProfileConfigGet(name); }},
    {"fwProfileConfigSet", kDocuments, true, [](const Given&) { return TARNFW().fwProfileConfigSet(kName, false); }},
    {"fwProfileConfigSet, reload", kDocuments, true, [](const Given&) { return TARNFW().fwProfileConfigSet(kName, true); }},
    // --- commands ---
    {"cmdExec", kProfile, true, [](const Given&) { return TARNFW().cmdExec("/sbin/iptables -S"); }},
    {"fwExec of it", kProfile, true, [](const Given& g) { Json::Value v; v["v4"] = valueOf(g); return TARNFW().fwExec(v); }},
    {"fwDefaultDrop, fwDefaultAccept", kProfile, true, [](const Given&) { const bool drop = TARNFW().fwDefaultDrop(); return TARNFW().fwDefaultAccept() && drop; }},
    // --- lifecycle ---
    {"fwEnable", kDocuments | kModules, true, [](const Given&) { return TARNFW().fwEnable(); }},
    {"fwDisable", kDocuments | kModules, true, [](const Given&) { return TARNFW().fwDisable(); }},
    {"fwReset", kDocuments | kModules, true, [](const Given&) { return TARNFW().fwReset(); }},
    {"fwReload", kCompiled | kModules, true, [](const Given&) { return TARNFW().fwReload(true); }},
    {"fwReload without state", kProfile, true, [](const Given&) { return TARNFW().fwReload(false); }},
    {"fwClear", kDocuments, true, [](const Given&) { return TARNFW().fwClear(); }},
    {"fwUpdate", kDocuments | kServices | kServiceDropIn, true, [](const Given&) { return TARNFW().fwUpdate(); }},
    {"TestApplyingProfile", kDocuments | kModuleUsers, true, [](const Given&) { return TARNFW().TestApplyingProfile("home"); }},
    {"TestApplyingProfile, address", kDocuments, true, [](const Given& g) { FWPROFILE p; TARNFW_JSON_DB().jsonToProfile(valueOf(g), p); return TARNFW_PROFILE().CreateTestProfile("home", p) && TARNFW().TestApplyingProfile("home", "10.0.0.9"); }},
    // --- queries, enumeration ---
    {"fwPortIsBlocked", kCompiled, true, [](const Given&) { AdapterPolicyMap m; return TARNFW().fwPortIsBlocked(ssh(), "", m); }},
    {"fwPortIsBlocked, adapter", kDocuments, true, [](const Given&) { AdapterPolicyMap m; return TARNFW().fwPortIsBlocked(ssh(), "global", m); }},
    {"fwServIsBlocked", kCompiled, true, [](const Given&) { AdapterPolicyMap m; return TARNFW().fwServIsBlocked("ssh", "", m); }},
    {"fwIptablesRulesEnum", kCompiled, true, [](const Given&) { Json::Value v; return TARNFW().fwIptablesRulesEnum(kName, v, true); }},
    {"fwIptablesRulesEnum, address", kDocuments, true, [](const Given&) { Json::Value v; return TARNFW().fwIptablesRulesEnum(kName, v, "10.0.0.9"); }},
    {"fwAdapterEnum", kDocuments | kModel, true, [](const Given&) { std::set<std::string> a; return TARNFW().fwAdapterEnum(a); }},
    // --- profile database ---
    {"profileMetaCreate", kDocuments, true, [](const Given&) { Json::Value v; return TARNFW_JSON_DB().profileMetaCreate(v); }},
    {"profilePathGet", kDocuments, true, [](const Given&) { return !TARNFW_JSON_DB().profilePathGet(kName).empty(); }},
    {"profilePathNameGen", kDocuments, true, [](const Given&) { Json::Value v; return TARNFW_JSON_DB().profileMetaCreate(v) && !TARNFW_JSON_DB().profilePathNameGen(v).empty(); }},
    {"profileDbLoad", kDocuments, true, [](const Given&) { Json::Value v; return TARNFW_JSON_DB().profileDbLoad(kName, v); }},
    {"profileDbDump", kDocuments, true, [](const Given& g) { return TARNFW_JSON_DB().profileDbDump(kName, valueOf(g)); }},
    {"profileDbRemove", kDocuments, true, [](const Given&) { return TARNFW_JSON_DB().profileDbRemove(kName); }},
    {"TARNFW_JSON_DB::profileDelete", kDocuments, true, [](const Given&) { return TARNFW_JSON_DB().profileDelete(kName); }},
    {"profileToJson", kProfile, true, [](const Given& g) { Json::Value v; TARNFW_JSON_DB().profileToJson(rulesOf(g), v); return true; }},
    {"profileToJson into it", kProfile, true, [](const Given& g) { Json::Value v = valueOf(g); TARNFW_JSON_DB().profileToJson(profileOf(kName), v); return true; }},
    {"ruleListToJson into it", kProfile, true, [](const Given& g) { Json::Value v = valueOf(g); TARNFW_JSON_DB().ruleListToJson(profileOf(kName).rules, v); return true; }},
    {"jsonToProfile", kProfile, true, [](const Given& g) { return !rulesOf(g).name.empty(); }},
    {"jsonToRuleList", kProfile, true, [](const Given& g) { RuleList r; TARNFW_JSON_DB().jsonToRuleList(valueOf(g), r); return true; }},
    // --- profiles ---
    {"profileExist", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().profileExist(kName); }},
    {"profileEnum, names", kDocuments, true, [](const Given&) { std::vector<std::string> n; return TARNFW_PROFILE().profileEnum(n); }},
    {"profileEnum, profiles", kDocuments, true, [](const Given&) { std::map<std::string, FWPROFILE> p; return TARNFW_PROFILE().profileEnum(p); }},
    {"profileGet", kDocuments, true, [](const Given&) { FWPROFILE p; return TARNFW_PROFILE().profileGet(kName, p); }},
    {"profileSet", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().profileSet(kName, profileOf(kName)); }},
    {"profileSet of it", kDocuments, true, [](const Given& g) { return TARNFW_PROFILE().profileSet("home", rulesOf(g)); }},
    {"profileCreate", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().profileCreate("new"); }},
    {"profileRename", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().profileRename(kName, "new"); }},
    {"profileRename of the other", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().profileRename("home", "new"); }},
    {"profileDelete", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().profileDelete("home"); }},
    {"CreateTestProfile", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().CreateTestProfile(kName, profileOf(kName)); }},
    {"CreateTestProfile of it", kDocuments, true, [](const Given& g) { return TARNFW_PROFILE().CreateTestProfile(kName, rulesOf(g)); }},
    {"AdoptTestProfile", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().AdoptTestProfile("home"); }},
    {"RemoveTestProfile", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().RemoveTestProfile("home"); }},
    {"profileAddServToReserve", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().profileAddServToReserve("global", "ssh", FW_POLICY_DENY, false); }},
    {"profileAddServToReserve, reload", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().profileAddServToReserve("global", "ssh", FW_POLICY_DENY, true); }},
    {"profileRemoveServ", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().profileRemoveServ("ssh"); }},
    {"profileChangeAdapter", kDocuments, true, [](const Given&) { return TARNFW_PROFILE().profileChangeAdapter("eth0", "eth1", true); }},
    // --- compiler ---
    {"fwRulesToIptablesRules", kCompiled, true, [](const Given& g) { return compileRules(g, nullptr); }},
    {"fwRulesToIptablesRules, address", kProfile, true, [](const Given& g) { return compileRules(g, "fd00::1"); }},
    {"jIptablesCmdInit of it", kProfile, true, [](const Given& g) { Json::Value v = valueOf(g); return TARNFW_IPTABLES_RULES().jIptablesCmdInit(v); }},
    {"iptablesRulesInit of it", kProfile, true, [](const Given& g) { Json::Value v = valueOf(g); TARNFW_IPTABLES_RULES().iptablesRulesInit(v); return true; }},
    {"policyToIptablesArg", kProfile, true, [](const Given& g) { return forEachRule(g, [](auto& c, auto&, auto& r, auto& a) { return c.policyToIptablesArg(r, a); }); }},
    {"tableToIptablesArg", kProfile, true, [](const Given& g) { return forEachRule(g, [](auto& c, auto&, auto& r, auto& a) { return c.tableToIptablesArg(r, a); }); }},
    {"chainToIptablesArg", kProfile, true, [](const Given& g) { return forEachRule(g, [](auto& c, auto&, auto& r, auto& a) { return c.chainToIptablesArg(r, a); }); }},
    {"ipToIptablesArg", kProfile | kCountries, true, [](const Given& g) { return forEachRule(g, [](auto& c, auto&, auto& r, auto& a) { return c.ipToIptablesArg(r, a); }); }},
    {"portToIptablesArg", kProfile | kServices, true, [](const Given& g) { return forEachRule(g, [](auto& c, auto&, auto& r, auto& a) { return c.portToIptablesArg(r, a); }); }},
    {"adapterToIptablesArg", kProfile, true, [](const Given& g) { return forEachRule(g, [](auto& c, auto& n, auto& r, auto& a) { return c.adapterToIptablesArg(n, r, a); }); }},
    {"iptablesArgToCmd of it", kProfile, true, [](const Given& g) { Json::Value v; TARNFW_IPTABLES_RULES().iptablesArgToCmd("global", FWRULE(), valueOf(g), v); return true; }},
    {"adapterIsEnabled", kProfile | kModel, true, [](const Given&) { return TARNFW_IPTABLES_RULES().adapterIsEnabled("eth0"); }},
    {"enabledAdapterEnum", kModel, true, [](const Given&) { return TARNFW_IPTABLES_RULES().enabledAdapterEnum(); }},
    {"vpnAdatperEnum", kModel, true, [](const Given&) { return TARNFW_IPTABLES_RULES().vpnAdatperEnum(); }},
    {"pppoeAdaterGet", kModel, true, [](const Given&) { TARNFW_IPTABLES_RULES().pppoeAdaterGet(); return true; }},
    {"servToPorts", kServices | kServiceDropIn, true, [](const Given&) { ServPort p; return TARNFW_IPTABLES_RULES().servToPorts({"ssh"}, p); }},
    {"servPortToCmd", kServices | kServiceDropIn, true, [](const Given&) { Json::Value v; return TARNFW_IPTABLES_RULES().servPortToCmd({"ssh", "http"}, v); }},
    // --- kernel modules ---
    {"isModuleLoad", kModuleUsers, true, [](const Given&) { return TARN_IPTABLES_MODULES::isModuleLoad("firewall"); }},
    {"moduleInsert", kModules, true, [](const Given&) { return TARN_IPTABLES_MODULES::moduleInsert("other", {"absent_one.ko"}); }},
    {"moduleRemove", kModules, true, [](const Given&) { return TARN_IPTABLES_MODULES::moduleRemove("other", {"absent_one.ko"}); }},
    {"iptablesModListGet", kModuleList, true, [](const Given&) { std::vector<std::string> m; return TARN_IPTABLES_MODULES::iptablesModListGet("KERNEL_MODULES_NAT", m); }},
    {"natModuleLoad", kModuleList, true, [](const Given&) { std::vector<std::string> m; return TARN_IPTABLES_MODULES::natModuleLoad(m); }},
    {"coreCommonModuleLoad", kModuleList, true, [](const Given&) { std::vector<std::string> m; return TARN_IPTABLES_MODULES::coreCommonModuleLoad(m); }},
    {"iptablesCoreModLoad", kModules, true, [](const Given&) { return TARN_IPTABLES_MODULES::iptablesCoreModLoad("other"); }},
    {"iptablesCoreModUnload", kModules, true, [](const Given&) { return TARN_IPTABLES_MODULES::iptablesCoreModUnload("other"); }},
    {"iptablesNATModLoad", kModules, true, [](const Given&) { return TARN_IPTABLES_MODULES::iptablesNATModLoad("other"); }},
    {"iptablesNATModUnload", kModules, true, [](const Given&) { return TARN_IPTABLES_MODULES::iptablesNATModUnload("other"); }},
    // --- hooks ---
    {"RunFwEnablePreHook", kProfile, true, [](const Given&) { return TarnFwHook().RunFwEnablePreHook(); }},
    {"RunFwEnablePostHook", kProfile, true, [](const Given&) { return TarnFwHook().RunFwEnablePostHook(true); }},
    {"RunFwDisablePreHook", kProfile, true, [](const Given&) { return TarnFwHook().RunFwDisablePreHook(); }},
    {"RunFwDisablePostHook", kProfile, true, [](const Given&) { return TarnFwHook().RunFwDisablePostHook(false); }},
    {"RunFwHook", kProfile, true, [](const Given&) { return TarnFwHook().RunFwHook("net/../../etc", TarnFwHook::PRE_HOOK, true); }},
    // --- countries ---
    {"geoipFileRead, IPv4", kCountries, true, [](const Given&) { Json::Value e; Json::Value l; return FW_GEOIP().geoipFileRead("XX", e, l, false) == 0; }},
    {"geoipFileRead, IPv6", kCountries, true, [](const Given&) { Json::Value e; Json::Value l; return FW_GEOIP().geoipFileRead("XX", e, l, true) == 0; }},
    {"countryIPGet, IPv4", kCountries, true, [](const Given&) { Json::Value l; return FW_GEOIP().countryIPGet("XX", false, l); }},
    {"countryIPGet, IPv6", kCountries, true, [](const Given&) { Json::Value l; return FW_GEOIP().countryIPGet("XX", true, l); }},
    {"countryIPGet, path", kCountries, true, [](const Given&) { Json::Value l; return FW_GEOIP().countryIPGet("../xt_geoip/XX", false, l); }},
    {"countryEnum", kCountries, true, [](const Given&) { std::vector<std::string> c; return FW_GEOIP().countryEnum(c); }},
    {"geoipSanctify, IPv4", kCountries, true, [](const Given&) { std::vector<std::string> c; return FW_GEOIP().geoipSanctify({"XX", "../XX", ""}, false, c); }},
    {"geoipSanctify, IPv6", kCountries, true, [](const Given&) { std::vector<std::string> c; return FW_GEOIP().geoipSanctify({"XX", "../XX", ""}, true, c); }},
    // --- C ---
    {"TARNFwRuleHup", kDocuments | kServices | kModules, false, [](const Given&) { return TARNFwRuleHup() == 0; }},
    {"TARNFwReset", kDocuments | kModules, false, [](const Given&) { TARNFwReset(); return true; }},
    {"TLIBFwServRemoveRec", kDocuments, false, [](const Given&) { return TLIBFwServRemoveRec("ssh") == 0; }},
    {"TLIBFwChangeAdatper", kDocuments, false, [](const Given&) { return TLIBFwChangeAdatper("eth0", "eth1", 1) == 0; }},
    {"TARNFwPortsCheckAllowByAdapter", kCompiled, false, [](const Given&) { return TARNFwPortsCheckAllowByAdapter(nullptr, "ssh") == 1; }},
    {"TLIBFwRuleReserveServInsert", kDocuments, false, [](const Given&) { return TLIBFwRuleReserveServInsert("ssh,,http", 1, 1) == 0; }},
    {"TARNIptablesCodeModeLoad", kModules, false, [](const Given&) { return TARNIptablesCodeModeLoad("other") == 0; }},
    {"TARNIptablesCoreModUnload", kModules, false, [](const Given&) { return TARNIptablesCoreModUnload("other") == 0; }},
    {"TARNIptablesNATModLoad", kModules, false, [](const Given&) { return TARNIptablesNATModLoad("other") == 0; }},
    {"TARNIptablesNATModUnload", kModules, false, [](const Given&) { return TARNIptablesNATModUnload("other") == 0; }},
  };
  return kTable;
}
// clang-format on

}  // namespace hostile
