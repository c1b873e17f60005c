// The firewall library: profiles of rules on disk, compiled into iptables and ip6tables lines, run,
// and switched on and off.
//
// Every object is stateless (the compiler's per-object caches aside): construct one on the stack,
// call it, drop it. Operations that return bool answer true for success, write the reason of a
// failure to the system log ("MODULE:LINE text", priority LOG_ERR) and leave it there. Exceptions
// of the JSON and lock libraries (a document of the wrong shape, a lock file that cannot be opened)
// pass through; they never leave the packet filter shut. Callers run as root. The files named here
// are fixed.
//
// Command document, produced by the compiler and consumed by TARNFW::fwExec:
//   {"v4": {"global": [line, ...], "eth0": [line, ...]}, "v6": {...}}
// A line is what follows "/sbin/iptables " ("v4") or "/sbin/ip6tables " ("v6") on a command line.

#ifndef TARNFIREWALL_H
#define TARNFIREWALL_H

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <json/value.h>

#include "tarnfirewall_records.h"

struct TARNFW_SERVICE_LIST;

// The lock file that belongs to the data file `path`: /var/lock/firewall/NAME.lock, NAME being the
// last component of `path`; /tmp/NAME.lock when that directory cannot be had. Creates directory and
// lock file. Never fails.
std::string getLockFile(const std::string& path);

// Fills `value` from the JSON document at `path` under the document's lock (30 s at most). Fails
// when the document is absent, is not a regular file, does not parse, or its lock is not had in
// time. After a failed parse `value` holds what was read so far.
bool jsonFileLoad(Json::Value& value, const std::string& path);

// Replaces the document at `path` by the styled rendering of `value`, under the document's lock (30
// s at most): PATH.tmp is written and flushed to disk, then renamed. After a failure the old
// document is as it was; PATH.tmp may stay behind. A new document gets mode 0640. An empty path
// fails before anything is done: PATH.tmp would be in the working directory.
bool jsonFileDump(const Json::Value& value, const std::string& path);

namespace FW {

// Switches the firewall on and off and keeps its settings in
// /usr/tarn/etc/firewall.d/firewall_settings.json: {"status": bool, "profile": "name"}.
class TARNFW {
 public:
  // --- settings ---

  // Sets out["status"] = false and out["profile"] = "default"; other members stay.
  bool initJconfig(Json::Value& out);
  // Reads the settings document; when there is none, writes and answers the defaults.
  bool configGet(Json::Value& out);
  // Merges the members of `in` into the settings document. Not atomic against another configSet.
  bool configSet(const Json::Value& in);
  // Is the firewall enabled? `enabled` is untouched after a failure.
  bool fwStatus(bool& enabled);
  // Name of the active profile. `name` is untouched after a failure.
  bool fwProfileConfigGet(std::string& name);
  // Makes the stored profile `name` the active one and, with `reload`, loads it.
  bool fwProfileConfigSet(const std::string& name, bool reload);

  // --- running command lines ---

  // Runs one whole command line, split at blanks, and waits for it. Fails when the line is empty,
  // has more than 255 words or more than 1024 bytes of words (NULs included), or cannot be run. The
  // program's exit status is not looked at.
  bool cmdExec(const std::string& line);
  // Runs a command document: "v4" then "v6", in each "global" first, then the other lists in name
  // order. Stops at the first line that fails.
  bool fwExec(Json::Value cmds);
  // INPUT and FORWARD policies DROP and a connection-state accept in FIREWALL_RELOADING, both
  // families.
  bool fwDefaultDrop();
  // Takes back what fwDefaultDrop did.
  bool fwDefaultAccept();

  // --- lifecycle ---

  // Loads the kernel modules, records "status" true and reloads, between the enable hooks.
  bool fwEnable();
  // Flushes the firewall chains, unloads the modules, records "status" false, between the disable
  // hooks.
  bool fwDisable();
  // The same as fwDisable.
  bool fwReset();
  // Rebuilds the live rules from the active profile; a disabled firewall is left alone with
  // success. Holds the execution lock /tmp/firewall_iptables_exec.lock (had within 30 s or
  // failure). New connections are dropped meanwhile, established ones go on. Lines that cannot be
  // run disable the firewall; the built-in policies end as ACCEPT whatever fails after the drop
  // set.
  //   withState  compile the connection-state accept lines; callers pass true
  bool fwReload(bool withState);
  // Flushes INPUT_FIREWALL and FORWARD_FIREWALL in both families.
  bool fwClear();
  // Takes services that no longer exist out of every stored profile and rewrites every profile.
  // Does not reload.
  bool fwUpdate();

  // --- trial ---

  // Loads the test profile of `name` (TARNFW_PROFILE::CreateTestProfile) into the live packet
  // filter, whether the firewall is enabled or not; "status" stays. Takes no execution lock. The
  // caller adopts the profile, or restores the previous rules with fwReload (fwClear when the
  // firewall is disabled).
  //   address  of the client that is trying: the connection-state accept leaves it out, so that
  //            its open connection lives only if the profile itself lets it in. Empty: no
  //            connection-state accept lines at all
  // The built-in policies end as ACCEPT whatever fails after the drop set.
  bool TestApplyingProfile(std::string name, const std::string& address);
  bool TestApplyingProfile(std::string name);

  // --- block queries ---

  // Does the active profile block the port? Adds verdicts to `result`, which is not cleared:
  // adapter -> FW_POLICY_ALLOW, FW_POLICY_DENY, FW_POLICY_NONE (only "global": undecided) or 3
  // (depends on the source address).
  //   adapter  the one asked about, or empty for every adapter of the profile
  // A disabled firewall answers "allowed" for a named adapter and nothing for the empty one.
  bool fwPortIsBlocked(const PortCompareST& port, const std::string& adapter,
                       AdapterPolicyMap& result);
  // The same for all ports of a service; of several verdicts blocked weighs more than partly,
  // partly more than allowed. A service without ports leaves `result` as it is.
  bool fwServIsBlocked(const std::string& serv, const std::string& adapter,
                       AdapterPolicyMap& result);

  // --- enumeration ---

  // Compiles the stored profile `name`; lines are appended to `commands`, pass a null value.
  bool fwIptablesRulesEnum(std::string name, Json::Value& commands, bool withState);
  // The same with connection-state lines that leave out the address `exempt`.
  bool fwIptablesRulesEnum(std::string name, Json::Value& commands, const std::string& exempt);
  // A pointer to characters is an address, not a bool; 0 and NULL still are false.
  template <
      typename Text,
      std::enable_if_t<std::is_same_v<Text, const char*> || std::is_same_v<Text, char*>, int> = 0>
  bool fwIptablesRulesEnum(std::string name, Json::Value& commands, Text exempt) {
    return fwIptablesRulesEnum(std::move(name), commands, std::string(exempt));
  }
  // Adds the names that rules may be filed under: at most 32 interfaces, "wlan0" on wireless
  // models, "global", "pppoe" and "vpn". `adapters` is not cleared.
  bool fwAdapterEnum(std::set<std::string>& adapters);
};

// The profiles on disk: one JSON document each in /usr/tarn/etc/firewall.d/, found by the "name"
// inside, never by the file name. Every operation scans the directory anew.
//
// Profile document:
//   {"name": string,
//    "rules": null or {adapter: [rule, ...]},                rules in evaluation order
//    "adapterPolicyMap": null or {adapter: 0 | 1 | 2}}
// A rule object has the members of FWRULE under their field names, "ruleIndex" (written, not read)
// and "ruleID" (read, not written). A member that is absent reads as 0, false, "" or [].
class TARNFW_JSON_DB {
 public:
  // {profile name: {"fileName": stem of its file}}. Fails when no *.json file is found.
  bool profileMetaCreate(Json::Value& meta);
  // Full path of the profile's document, or empty.
  std::string profilePathGet(const std::string& name);
  // A stem that no member of `meta` uses: a decimal number near the time in seconds. Does not
  // return for an empty `meta`: the directory must hold one profile before a new one is written.
  std::string profilePathNameGen(const Json::Value& meta);
  bool profileDbLoad(const std::string& name, Json::Value& doc);
  // Writes `doc` to the profile's file, or to a new file when there is none of that name; a new
  // file never replaces one that another process makes in the same second.
  bool profileDbDump(const std::string& name, const Json::Value& doc);
  // Removes document and lock file. Always true, for an unknown name too.
  bool profileDbRemove(const std::string& name);

  bool profileExist(const std::string& name);
  bool profileDelete(const std::string& name);
  // Appends the profile names in byte order.
  bool profileEnum(std::vector<std::string>& names);
  // Inserts or replaces an entry for every profile.
  bool profileEnum(std::map<std::string, FWPROFILE>& profiles);
  // Reads into `profile`, which the caller passes empty.
  bool profileGet(const std::string& name, FWPROFILE& profile);
  // Stores `profile` under `name` (keep profile.name equal). An adapter with rules and no policy
  // gets FW_POLICY_ALLOW; "global" always gets FW_POLICY_NONE.
  bool profileSet(const std::string& name, const FWPROFILE& profile);
  // Stores an empty profile under a new name.
  bool profileCreate(const std::string& name);
  // The file keeps its stem; the settings follow when the active profile is renamed.
  bool profileRename(const std::string& oldName, const std::string& newName);

  void profileToJson(const FWPROFILE& profile, Json::Value& out);
  void ruleListToJson(const RuleList& rules, Json::Value& out);
  void jsonToProfile(const Json::Value& doc, FWPROFILE& profile);
  void jsonToRuleList(const Json::Value& value, RuleList& rules);
};

// The profile interface of the rest of the system: the database, plus protection of the active
// profile and test profiles (".test_" + name), copies through which an edited profile is tried
// before it is adopted.
class TARNFW_PROFILE : private TARNFW_JSON_DB {
 public:
  using TARNFW_JSON_DB::profileCreate;
  using TARNFW_JSON_DB::profileEnum;
  using TARNFW_JSON_DB::profileExist;
  using TARNFW_JSON_DB::profileGet;
  using TARNFW_JSON_DB::profileRename;
  using TARNFW_JSON_DB::profileSet;

  // Refuses the active profile; deleting an unknown one succeeds.
  bool profileDelete(const std::string& name);
  // Stores a copy of `profile` as the test profile of `name`, replacing an earlier one.
  bool CreateTestProfile(std::string name, const FWPROFILE& profile);
  // Stores the test profile of `name` as `name`. The test profile stays.
  bool AdoptTestProfile(std::string name);
  bool RemoveTestProfile(std::string name);

  // Edits of every stored profile, written one after another: a failure leaves those before it
  // written.

  // Puts `service` first among the adapter's rules with `policy`, for every address, both families.
  bool profileAddServToReserve(const std::string& adapter, const std::string& service,
                               FW_POLICY policy, bool reload);
  // Takes `service` out of every rule that names services; a rule with none left goes. Does not
  // reload.
  bool profileRemoveServ(const std::string& service);
  // Files the rules and the policy of one adapter under another name; what that name had is lost.
  // The names must differ: an adapter renamed to itself loses its rules. Reloads only when the
  // active profile had a policy for the adapter.
  bool profileChangeAdapter(const std::string& oldAdapter, const std::string& newAdapter,
                            bool reload);
};

// Compiles rules. One object per compilation: it caches what it learns of the machine (interfaces,
// VPN interfaces, PPPoE link, service database) at first use, so that one compilation sees one
// machine.
//
// Argument document, the fragments of one rule:
//   {"adapter": [fragment], "port": [fragment], "chain": [fragment], "table": [fragment],
//    "policy": [fragment], "ip": {"v4": [fragment], "v6": [fragment]}}
// An empty fragment restricts nothing; an empty array yields no line.
class TARNFW_IPTABLES_RULES {
 public:
  TARNFW_IPTABLES_RULES() = default;
  ~TARNFW_IPTABLES_RULES();
  TARNFW_IPTABLES_RULES(const TARNFW_IPTABLES_RULES&) = delete;
  TARNFW_IPTABLES_RULES& operator=(const TARNFW_IPTABLES_RULES&) = delete;

  // Compiles a profile into argument lines, appended to `cmds`.
  //   withState           add the connection-state accept lines
  //   rules               adapter -> rules in evaluation order
  //   policies            adapter -> default policy, compiled as the adapter's last rule
  //   cmds                command document; never cleared; after a failure holds the lines made
  //                       so far
  //   stateExemptAddress  IPv4 or IPv6 address left out of the connection-state accept, or empty
  // Rules of adapters that the machine does not have give no line. Fails on an address that is
  // neither, an unknown rule policy, a service database that cannot be read.
  bool fwRulesToIptablesRules(const bool& withState, const RuleList& rules,
                              const AdapterPolicyMap& policies, Json::Value& cmds,
                              const std::string& stateExemptAddress);
  bool fwRulesToIptablesRules(const bool& withState, const RuleList& rules,
                              const AdapterPolicyMap& policies, Json::Value& cmds);

  // Sets "v4" and "v6" of a command document to null.
  bool jIptablesCmdInit(Json::Value& cmds);
  // Makes `args` an empty argument document.
  void iptablesRulesInit(Json::Value& args);

  // Each appends the fragments of one field of `rule` to `args`.
  bool policyToIptablesArg(const FWRULE& rule, Json::Value& args);
  bool tableToIptablesArg(const FWRULE& rule, Json::Value& args);
  bool chainToIptablesArg(const FWRULE& rule, Json::Value& args);
  bool ipToIptablesArg(const FWRULE& rule, Json::Value& args);
  bool portToIptablesArg(const FWRULE& rule, Json::Value& args);
  bool adapterToIptablesArg(const std::string& adapter, const FWRULE& rule, Json::Value& args);

  // Is the adapter present on the machine?
  bool adapterIsEnabled(const std::string& adapter);
  // Fill the caches below, once.
  bool enabledAdapterEnum();
  bool vpnAdatperEnum();
  void pppoeAdaterGet();

  // Adds the ports of the named services to `out`; unknown and unavailable services add nothing.
  bool servToPorts(const std::vector<std::string>& services, ServPort& out);
  // Appends the port fragments of the named services to args["port"].
  bool servPortToCmd(const std::vector<std::string>& services, Json::Value& args);

  // Multiplies the fragments of `args` out into lines appended to cmds["v4" | "v6"][adapter].
  // Always true.
  bool iptablesArgToCmd(const std::string& adapter, const FWRULE& rule, const Json::Value& args,
                        Json::Value& cmds);

 private:
  TARNFW_SERVICE_LIST* serviceList = nullptr;  // owned
  std::vector<std::string> enabledAdapters;
  std::vector<std::string> vpnAdapters;
  std::string pppoeAdapter;
};

// Loads and unloads netfilter modules on behalf of named services. Modules are named by file
// ("xt_mac.ko"). Which services have theirs loaded is kept in /tmp/iptables_serv_mod_list
// (SERVICE="yes" or "no").
class TARN_IPTABLES_MODULES {
 public:
  // Is "yes" recorded for the service?
  static bool isModuleLoad(const std::string& servName);
  // Loads `modules` in order and records "yes".
  static bool moduleInsert(const std::string& servName, const std::vector<std::string>& modules);
  // Removes `modules` in order and records "no".
  static bool moduleRemove(const std::string& servName, const std::vector<std::string>& modules);
  // Replaces `modules` by the list under `key` in /usr/tarn/etc.defaults/iptables_modules_list,
  // split at every single blank: adjacent blanks give empty names. Untouched after a failure.
  static bool iptablesModListGet(const std::string& key, std::vector<std::string>& modules);
  // Lists the NAT set; loads nothing.
  static bool natModuleLoad(std::vector<std::string>& modules);
  // Lists the core set (core, common, IPv6 keys, all required); loads nothing.
  static bool coreCommonModuleLoad(std::vector<std::string>& modules);
  static bool iptablesCoreModLoad(const std::string& servName);
  // In reverse order.
  static bool iptablesCoreModUnload(const std::string& servName);
  // Core set, then NAT set.
  static bool iptablesNATModLoad(const std::string& servName);
  // NAT set, then core set, each in reverse order.
  static bool iptablesNATModUnload(const std::string& servName);
};

// Runs the system's plug-in hooks of the category "net" around enabling and disabling. The plug-ins
// get RESULT: "0", or "-1" after a change that failed.
class TarnFwHook {
 public:
  enum HookAction { PRE_HOOK = 0, POST_HOOK = 1 };

  bool RunFwEnablePreHook();
  bool RunFwEnablePostHook(bool result);
  bool RunFwDisablePreHook();
  bool RunFwDisablePostHook(bool result);
  bool RunFwHook(const std::string& name, HookAction action, bool result);
};

// Address ranges by country: the files of the xt_geoip match in /usr/share/xt_geoip/, CC.iv4
// (8-byte records: first and last address, 32 bits each) and CC.iv6 (32-byte records, four 32-bit
// words an address, most significant first), all in host byte order.
class FW_GEOIP {
 public:
  // Both format into `buffer` and answer snprintf's result.
  int Ipv4ToString(std::uint32_t address, char* buffer, int size);
  // Eight groups of four hexadecimal digits; the address is in the file's form (host-order words).
  int Ipv6ToString(const in6_addr* address, char* buffer, int size);
  // Set element["ip_begin"] and element["ip_end"].
  void ParseV4(std::uint32_t first, std::uint32_t last, Json::Value& element);
  void ParseV6(const in6_addr* first, const in6_addr* last, Json::Value& element);
  // Appends the ranges of one file to `list`, using `element` as scratch. -1 when it cannot be
  // opened.
  int geoipFileRead(const std::string& country, Json::Value& element, Json::Value& list, bool ipv6);
  // Appends {"ip_begin": text, "ip_end": text} for every range of the country, in file order.
  bool countryIPGet(const std::string& country, const bool& ipv6, Json::Value& list);
  // Appends the two-letter codes that have an IPv4 file, in directory order.
  bool countryEnum(std::vector<std::string>& codes);
  // Appends those of `codes` that have a non-empty file of the family. True when `out` is not
  // empty.
  bool geoipSanctify(const std::vector<std::string>& codes, const bool& ipv6,
                     std::vector<std::string>& out);
};

}  // namespace FW

#endif
