/* Drives every entry point of the C interface with the real platform and the real packet-filter
 * tools: what each answers and logs, and what stands in the files and in the packet filter
 * afterwards. The rows build on each other, as the calls of one program do. */

#define _POSIX_C_SOURCE 200809L

#include "tarnfirewall_c.h"

#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

enum { kTextBytes = 65536, kLooks = 5000 };

#define PROFILE "/usr/tarn/etc/firewall.d/1.json"
#define SETTINGS "/usr/tarn/etc/firewall.d/firewall_settings.json"

/* --- the machine --- */

static void stop(const char* what) {
  (void)fprintf(stderr, "%s: failed\n", what);
  exit(1);
}

static void write_file(const char* path, const char* text) {
  FILE* const file = fopen(path, "w");
  if (file == NULL || fputs(text, file) < 0 || fclose(file) != 0) stop(path);
}

/* What a shell command prints. */
static void output_of(const char* command, char text[kTextBytes]) {
  FILE* const pipe = popen(command, "r");
  if (pipe == NULL) stop(command);
  text[fread(text, 1, kTextBytes - 1, pipe)] = '\0';
  if (pclose(pipe) != 0) stop(command);
}

static void run(const char* command) {
  if (system(command) != 0) stop(command);
}

static void make_machine(void) {
  write_file("/tmp/base",
             "*filter\n"
             ":INPUT ACCEPT\n"
             ":FORWARD ACCEPT\n"
             ":OUTPUT ACCEPT\n"
             ":FIREWALL_RELOADING -\n"
             ":INPUT_FIREWALL -\n"
             ":FORWARD_FIREWALL -\n"
             "-A INPUT -j FIREWALL_RELOADING\n"
             "-A INPUT -j INPUT_FIREWALL\n"
             "-A FORWARD -j FIREWALL_RELOADING\n"
             "-A FORWARD -j FORWARD_FIREWALL\n"
             "COMMIT\n");
  run("iptables-restore </tmp/base && ip6tables-restore </tmp/base");
  run("cd '" TARN_SEED_DIRECTORY
      "' && cp tarninfo.conf /etc.defaults/ && "
      "cp firewall_services.json iptables_modules_list /usr/tarn/etc.defaults/");
}

/* --- the system log --- */

/* The part of a log line that a test compares: "tarnFW Failed to ..." of
 * "<11>Nov 21 11:05:00 program: tarnFW:63 Failed to ..."; null when it is no error of the
 * library's. */
static const char* library_error(char* line) {
  static const char* const kModules[] = {"utils",   "tarnFW",        "fwHook",
                                         "fwDB",    "fwIptables",    "tarnIptablesModule",
                                         "fwGeoip", "tarnfirewall_c"};
  if (strncmp(line, "<11>", 4) != 0) return NULL;
  for (size_t index = 0; index < sizeof kModules / sizeof *kModules; ++index) {
    char place[64];
    (void)snprintf(place, sizeof place, ": %s:", kModules[index]);
    char* const found = strstr(line, place);
    if (found == NULL) continue;
    char* const module = found + 2;
    char* const number = module + strlen(kModules[index]);
    const char* const text = strchr(number, ' ');
    if (text == NULL) return NULL;
    (void)memmove(number, text, strlen(text) + 1);
    return module;
  }
  return NULL;
}

/* The library's errors since the last call, one a line. A message of our own tells when all that
 * was logged before has arrived. */
static void take_log(char text[kTextBytes]) {
  static long position = 0;
  static int markers = 0;
  const struct timespec between = {0, 1000000};
  char marker[32];
  (void)snprintf(marker, sizeof marker, "marker %d.", ++markers);
  syslog(LOG_DEBUG, "%s", marker);
  for (int look = 0; look < kLooks; ++look) {
    char line[8192];
    FILE* const file = fopen("/run/syslog", "r");
    if (file == NULL || fseek(file, position, SEEK_SET) != 0) stop("/run/syslog");
    size_t used = 0;
    text[0] = '\0';
    while (fgets(line, sizeof line, file) != NULL && strchr(line, '\n') != NULL) {
      if (strstr(line, marker) != NULL) {
        position = ftell(file);
        (void)fclose(file);
        return;
      }
      const char* const error = library_error(line);
      if (error != NULL) used += (size_t)snprintf(text + used, kTextBytes - used, "%s", error);
    }
    (void)fclose(file);
    (void)nanosleep(&between, NULL);
  }
  stop("waiting for the system log");
}

/* --- the rows --- */

struct row {
  const char* name;
  void (*arrange)(void); /* null: as the row before left it */
  int (*call)(void);
  int result;
  const char* log;
  const char* view; /* a shell command, null: nothing to see */
  const char* seen; /* what it prints */
};

static void two_profiles(void) {
  write_file(
      PROFILE,
      "{\"name\": \"office\", \"adapterPolicyMap\": {\"eth0\": 1}, \"rules\": {\"eth0\": ["
      "{\"enable\": true, \"adapterDirect\": 1, \"table\": \"filter\", \"ipDirect\": 1, \"ipType\": 0, "
      "\"ipGroup\": 1, \"ipList\": [\"10.77.0.0\", \"24\"], \"portGroup\": 0, \"portList\": [\"ssh\"]},"
      "{\"enable\": true, \"adapterDirect\": 1, \"table\": \"filter\", \"ipDirect\": 1, \"ipType\": 0, "
      "\"ipGroup\": 5, \"portGroup\": 0, \"portList\": [\"no_such_service\", \"https\"]}]}}\n");
  write_file("/usr/tarn/etc/firewall.d/2.json", "{\"name\": \"home\"}\n");
}
static void switched_off(void) {
  write_file(SETTINGS, "{\"profile\": \"office\", \"status\": false}\n");
}
static void switched_on(void) {
  write_file(SETTINGS, "{\"profile\": \"office\", \"status\": true}\n");
}
static void settings_that_do_not_parse(void) { write_file(SETTINGS, "{"); }
static void status_that_is_no_boolean(void) {
  write_file(SETTINGS, "{\"profile\": \"office\", \"status\": \"on\"}\n");
}
static void no_service_table(void) { run("rm /usr/tarn/etc.defaults/firewall_services.json"); }
static void no_profiles(void) { run("rm /usr/tarn/etc/firewall.d/*"); }

static int load_core(void) { return TARNIptablesCodeModeLoad("vpn"); }
static int unload_core(void) { return TARNIptablesCoreModUnload("vpn"); }
static int load_nat(void) { return TARNIptablesNATModLoad("vpn"); }
static int unload_nat(void) { return TARNIptablesNATModUnload("vpn"); }
static int load_core_of_nobody(void) { return TARNIptablesCodeModeLoad(NULL); }
static int unload_core_of_nobody(void) { return TARNIptablesCoreModUnload(NULL); }
static int load_nat_of_nobody(void) { return TARNIptablesNATModLoad(NULL); }
static int unload_nat_of_nobody(void) { return TARNIptablesNATModUnload(NULL); }

static int check_ssh(void) { return TARNFwPortsCheckAllowByAdapter("eth0", "ssh"); }
static int check_ssh_elsewhere(void) { return TARNFwPortsCheckAllowByAdapter("eth1", "ssh"); }
static int check_ssh_everywhere(void) { return TARNFwPortsCheckAllowByAdapter(NULL, "ssh"); }
static int check_https(void) { return TARNFwPortsCheckAllowByAdapter("eth0", "https"); }
static int check_dns(void) { return TARNFwPortsCheckAllowByAdapter("eth0", "dns"); }
static int check_nothing(void) { return TARNFwPortsCheckAllowByAdapter("eth0", NULL); }

static int reserve(void) { return TLIBFwRuleReserveServInsert("dns,https", 1, 1); }
static int deny(void) { return TLIBFwRuleReserveServInsert("dns", 0, 2); }
static int reserve_nothing(void) { return TLIBFwRuleReserveServInsert("", 1, 1); }
static int reserve_null(void) { return TLIBFwRuleReserveServInsert(NULL, 1, 1); }
static int remove_https(void) { return TLIBFwServRemoveRec("https"); }
static int rename_adapter(void) { return TLIBFwChangeAdatper("eth0", "eth1", 1); }
static int reset(void) {
  TARNFwReset();
  return 0;
}

/* The compiled lines for packets to the machine, of IPv4 and then of IPv6, without the preamble. */
#define LINES "iptables -S INPUT_FIREWALL | tail -n +4; ip6tables -S INPUT_FIREWALL | tail -n +9"
#define STATUS "tr -d ' \\n' <" SETTINGS
#define SERVICES "tr -d ' \\n' <" PROFILE " | grep -o '\"portList\":\\[[^]]*\\]\\|\"global\":\\['"
#define MODULES "cat /tmp/iptables_serv_mod_list"

static const struct row kRows[] = {
    {"core modules are loaded for a service", NULL, load_core, 0, "", MODULES, "vpn=\"yes\"\n"},
    {"and unloaded", NULL, unload_core, 0, "", MODULES, "vpn=\"no\"\n"},
    {"NAT modules are loaded", NULL, load_nat, 0, "", MODULES, "vpn=\"yes\"\n"},
    {"and unloaded again", NULL, unload_nat, 0, "", MODULES, "vpn=\"no\"\n"},
    {"core modules of nobody", NULL, load_core_of_nobody, -1,
     "tarnIptablesModule servName is NULL\n", NULL, NULL},
    {"unloading core modules of nobody", NULL, unload_core_of_nobody, -1,
     "tarnIptablesModule servName is NULL\n", NULL, NULL},
    {"NAT modules of nobody", NULL, load_nat_of_nobody, -1, "tarnIptablesModule servName is NULL\n",
     NULL, NULL},
    {"unloading NAT modules of nobody", NULL, unload_nat_of_nobody, -1,
     "tarnIptablesModule servName is NULL\n", NULL, NULL},

    {"no profile yet", NULL, TARNFwRuleHup, -1,
     "fwDB Fail to read file from /usr/tarn/etc/firewall.d/\n"
     "fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/\n"
     "tarnFW Failed to enum profiles to profile list\n",
     NULL, NULL},
    {"without settings the firewall is off and everything open", two_profiles, check_ssh, 1, "",
     STATUS, "{\"profile\":\"default\",\"status\":false}"},
    {"switched off, on every adapter", switched_off, check_ssh_everywhere, 1, "", LINES, ""},
    {"switched off, an update prunes and loads nothing", NULL, TARNFwRuleHup, 0, "", LINES, ""},
    {"what the update pruned", NULL, check_ssh, 1, "", SERVICES,
     "\"portList\":[\"ssh\"]\n\"portList\":[\"https\"]\n"},

    {"switched on, an update loads the active profile", switched_on, TARNFwRuleHup, 0, "", LINES,
     "-A INPUT_FIREWALL -s 10.77.0.0/24 -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
     "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 443 -j RETURN\n"
     "-A INPUT_FIREWALL -i eth0 -j DROP\n"
     "-A INPUT_FIREWALL -i eth0 -j DROP\n"},
    {"open for some addresses only is not open", NULL, check_ssh, 0, "", NULL, NULL},
    {"an adapter of its own default", NULL, check_ssh_elsewhere, 1, "", NULL, NULL},
    {"one adapter is enough", NULL, check_ssh_everywhere, 0, "", NULL, NULL},
    {"open for every address", NULL, check_https, 1, "", NULL, NULL},
    {"blocked by default", NULL, check_dns, 0, "", NULL, NULL},

    {"services are reserved and loaded", NULL, reserve, 0, "", LINES,
     "-A INPUT_FIREWALL -p tcp -m tcp --dport 443 -j RETURN\n"
     "-A INPUT_FIREWALL -p tcp -m tcp --dport 53 -j RETURN\n"
     "-A INPUT_FIREWALL -p udp -m udp --dport 53 -j RETURN\n"
     "-A INPUT_FIREWALL -s 10.77.0.0/24 -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
     "-A INPUT_FIREWALL -i eth0 -p tcp -m tcp --dport 443 -j RETURN\n"
     "-A INPUT_FIREWALL -i eth0 -j DROP\n"
     "-A INPUT_FIREWALL -p tcp -m tcp --dport 443 -j RETURN\n"
     "-A INPUT_FIREWALL -p tcp -m tcp --dport 53 -j RETURN\n"
     "-A INPUT_FIREWALL -p udp -m udp --dport 53 -j RETURN\n"
     "-A INPUT_FIREWALL -i eth0 -j DROP\n"},
    {"and open now", NULL, check_dns, 1, "", SERVICES,
     "\"portList\":[\"ssh\"]\n\"portList\":[\"https\"]\n\"global\":[\n\"portList\":[\"dns\",\"https\"]\n"},
    {"denied without a reload", NULL, deny, 0, "", SERVICES,
     "\"portList\":[\"ssh\"]\n\"portList\":[\"https\"]\n\"global\":[\n\"portList\":[\"dns\"]\n\"portList\":[\"https\"]\n"},
    {"the stored profile is what is asked", NULL, check_dns, 0, "",
     "iptables -S INPUT_FIREWALL | grep -c 'dport 53 -j RETURN'", "2\n"},
    {"no service", NULL, reserve_nothing, -1, "", NULL, NULL},
    {"null for services", NULL, reserve_null, -1, "", NULL, NULL},
    {"null for a service", NULL, check_nothing, -1, "tarnfirewall_c Bad parameters[0x0D00 *", NULL,
     NULL},
    {"a service is removed everywhere", NULL, remove_https, 0, "", SERVICES,
     "\"portList\":[\"ssh\"]\n\"global\":[\n\"portList\":[\"dns\"]\n"},
    {"an adapter is renamed and the profile loaded", NULL, rename_adapter, 0, "", LINES,
     "-A INPUT_FIREWALL -p tcp -m tcp --dport 53 -j DROP\n"
     "-A INPUT_FIREWALL -p udp -m udp --dport 53 -j DROP\n"
     "-A INPUT_FIREWALL -s 10.77.0.0/24 -i eth1 -p tcp -m tcp --dport 22 -j RETURN\n"
     "-A INPUT_FIREWALL -i eth1 -j DROP\n"
     "-A INPUT_FIREWALL -p tcp -m tcp --dport 53 -j DROP\n"
     "-A INPUT_FIREWALL -p udp -m udp --dport 53 -j DROP\n"
     "-A INPUT_FIREWALL -i eth1 -j DROP\n"},
    {"its old name is open", NULL, check_ssh, 1, "", NULL, NULL},
    {"its new name is not", NULL, check_ssh_elsewhere, 0, "", NULL, NULL},

    {"a document of the wrong shape is a failure, not an exception", status_that_is_no_boolean,
     check_ssh, -1,
     "tarnfirewall_c Failed to TARNFwPortsCheckAllowByAdapter: Value is not convertible to bool.\n",
     NULL, NULL},
    {"an exception in the middle of a reload", NULL, TARNFwRuleHup, -1,
     "tarnfirewall_c Failed to TARNFwRuleHup: Value is not convertible to bool.\n", NULL, NULL},
    {"releases the lock and leaves the policies open", switched_on, TARNFwRuleHup, 0, "",
     "iptables -S | grep -e '-P [IF]'; ip6tables -S | grep -e '-P [IF]'",
     "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n-P INPUT ACCEPT\n-P FORWARD ACCEPT\n"},
    {"settings that do not parse", settings_that_do_not_parse, check_ssh, -1,
     "utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json\n"
     "tarnFW Falied to configGet()\n"
     "tarnFW Failed to check firewall status\n"
     "tarnFW Failed to fwPortIsBlocked()\n"
     "tarnfirewall_c Failed to check ssh is block or not\n",
     NULL, NULL},
    {"switching off without settings to record it in", NULL, reset, 0,
     "utils Failed to parse Json value of /usr/tarn/etc/firewall.d/firewall_settings.json\n"
     "tarnFW Falied to config.configGet()\n"
     "tarnFW Falied to configSet()\n",
     LINES, ""},
    {"switching off", switched_on, reset, 0, "", STATUS,
     "{\"profile\":\"office\",\"status\":false}"},
    {"no service table", no_service_table, TARNFwRuleHup, -1, "tarnFW Failed to enum FW services\n",
     NULL, NULL},
    {"no service to ask for", NULL, check_ssh, -1,
     "fwIptables Failed to enum services\n"
     "tarnFW Failed to servToPorts()\n"
     "tarnfirewall_c Failed to check ssh is block or not\n",
     NULL, NULL},
    {"no profile to reserve in", no_profiles, reserve, -1,
     "fwDB Fail to read file from /usr/tarn/etc/firewall.d/\n"
     "fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/\n"
     "tarnFW Failed to profileEnum()\n"
     "tarnfirewall_c Failed to assign serv [dns]\n",
     NULL, NULL},
    {"no profile to remove from", NULL, remove_https, -1,
     "fwDB Fail to read file from /usr/tarn/etc/firewall.d/\n"
     "fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/\n"
     "tarnFW Failed to profileEnum()\n",
     NULL, NULL},
    {"no profile to rename in", NULL, rename_adapter, -1,
     "fwDB Fail to read file from /usr/tarn/etc/firewall.d/\n"
     "fwDB Failed to create meta json from /usr/tarn/etc/firewall.d/\n"
     "tarnFW Failed to profileEnum()\n",
     NULL, NULL},
};

/* Texts are the same; an expected one that ends in "*" is a beginning. */
static bool is_as_expected(const char* expected, const char* actual) {
  const size_t length = strlen(expected);
  if (length > 0 && expected[length - 1] == '*') return strncmp(expected, actual, length - 1) == 0;
  return strcmp(expected, actual) == 0;
}

static bool same_text(const struct row* row, const char* what, const char* expected,
                      const char* actual) {
  if (is_as_expected(expected, actual)) return true;
  (void)printf("%s: %s\n--- expected\n%s\n--- actual\n%s\n---\n", row->name, what, expected,
               actual);
  return false;
}

static bool holds(const struct row* row) {
  static char text[kTextBytes];
  if (row->arrange != NULL) row->arrange();
  take_log(text);
  const int result = row->call();
  bool as_expected = result == row->result;
  if (!as_expected) (void)printf("%s: answers %d, not %d\n", row->name, result, row->result);
  take_log(text);
  as_expected = same_text(row, "log", row->log, text) && as_expected;
  if (row->view == NULL) return as_expected;
  output_of(row->view, text);
  return same_text(row, row->view, row->seen, text) && as_expected;
}

int main(void) {
  if (access("/run/tarn-sandbox", F_OK) != 0) stop("run it as tarn-sandbox cInterfaceTest");
  make_machine();
  const size_t count = sizeof kRows / sizeof *kRows;
  size_t failed = 0;
  for (size_t index = 0; index < count; ++index) {
    if (!holds(&kRows[index])) ++failed;
  }
  (void)printf("%zu of %zu rows hold\n", count - failed, count);
  return failed == 0 ? 0 : 1;
}
