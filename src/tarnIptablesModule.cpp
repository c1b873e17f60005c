// Netfilter modules on behalf of services. Two files:
//
//   /usr/tarn/etc.defaults/iptables_modules_list   KERNEL_MODULES_CORE="ip_tables.ko x_tables.ko"
//   /tmp/iptables_serv_mod_list                    firewall="yes"
//
// A service inserts its lists one after another, so its key is "yes" after the first of them.
// Nothing that was loaded before a failure is unloaded.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/split.hpp>

#include "cEntry.h"
#include "constants.h"
#include "error.h"
#include "files.h"
#include "kernelModules.h"
#include "lock.h"
#include "log.h"
#include "strlist.h"
#include "tarnfirewall.h"
#include "tarnfirewall_c.h"

namespace FW {
namespace {

constexpr LogSite here(int line = __builtin_LINE()) { return {"tarnIptablesModule", line}; }

constexpr char kListFile[] = "/usr/tarn/etc.defaults/iptables_modules_list";
constexpr char kStateFile[] = "/tmp/iptables_serv_mod_list";
constexpr char kCoreKey[] = "KERNEL_MODULES_CORE";
constexpr char kCommonKey[] = "KERNEL_MODULES_COMMON";
constexpr char kIpv6Key[] = "IPV6_MODULES";
constexpr char kNatKey[] = "KERNEL_MODULES_NAT";
constexpr char kLoaded[] = "yes";
constexpr char kRemoved[] = "no";

constexpr std::size_t kListBuffer = 4096;   // bytes, NUL included
constexpr std::size_t kStateBuffer = 1024;  // bytes, NUL included
constexpr int kListCapacity = 1024;         // names

using Modules = std::vector<std::string>;

// Owns a list of the platform's.
class StringList {
 public:
  StringList() : list_(TLIBCSzListAlloc(kListCapacity)) {}
  ~StringList() {
    if (list_ != nullptr) TLIBCSzListFree(list_);
  }
  StringList(const StringList&) = delete;
  StringList& operator=(const StringList&) = delete;

  const TLIBCSZLIST* get() const { return list_; }
  bool push(const std::string& text) { return TLIBCSzListPush(&list_, text.c_str()) >= 0; }

 private:
  TLIBCSZLIST* list_;
};

// The lock on the state file. A write without it is better than a module whose user is not
// recorded.
class StateLock {
 public:
  StateLock() = default;
  ~StateLock() {
    if (fd_ != -1 && TLIBCFileUnlockByFile(fd_) == 0) {
      // Kept: the words of another program's message.
      here().error("Failed to unlock mail config lock. ");
    }
  }
  StateLock(const StateLock&) = delete;
  StateLock& operator=(const StateLock&) = delete;

  void take() {
    const std::string path = getLockFile(kStateFile);
    if (TLIBCFileLockTimeByFile(path.c_str(), kExclusive, kLockTimeoutSeconds, &fd_) == 1) return;
    const int reason = errno;
    here().error("Failed to get lock [%s] error[%s]", path.c_str(), std::strerror(reason));
    fd_ = -1;
    here().error("Failed to get lock %s but still continue", path.c_str());
  }

 private:
  int fd_ = -1;
};

// What inserting and removing do differently.
struct Change {
  int (*run)(const char* servName, const TLIBCSZLIST* modules);
  const char* failure;
  const char* state;
};

bool moduleChange(const std::string& servName, const Modules& modules, const Change& change) {
  StateLock lock;  // taken below; declared first because the list is freed before it is released
  StringList list;
  if (list.get() == nullptr) {
    return here().fail("Failed to allocate list[0x%04X %s:%d]",
                       static_cast<unsigned>(TLIBCErrGet()), TLIBCErrorGetFile(),
                       TLIBCErrorGetLine());
  }
  for (const std::string& module : modules) {
    if (!list.push(module)) return here().fail("Failed to TLIBCSzListPush()");
  }
  if (change.run(servName.c_str(), list.get()) < 0) return here().fail("%s", change.failure);
  lock.take();
  if (TLIBCFileSetKeyValue(kStateFile, servName.c_str(), change.state, 0) < 0) {
    // Kept: the file stands where the words say key.
    return here().fail("failed to set key %s to file %s[0x%04X %s:%d]", kStateFile,
                       servName.c_str(), static_cast<unsigned>(TLIBCErrGet()), TLIBCErrorGetFile(),
                       TLIBCErrorGetLine());
  }
  return true;
}

// Reads one key of the list file.
bool listValueGet(const char* key, std::string& value) {
  std::array<char, kListBuffer> buffer = {};
  if (TLIBCFileGetKeyValue(kListFile, key, buffer.data(), static_cast<int>(buffer.size()), 0) <=
      0) {
    return here().fail("Failed to get key %s from %s", key, kListFile);
  }
  value = buffer.data();
  return true;
}

// Kept: adjacent blanks give empty names, which are passed on.
void splitAtBlanks(const std::string& value, Modules& modules) {
  boost::algorithm::split(modules, value, boost::algorithm::is_any_of(" "),
                          boost::algorithm::token_compress_off);
}

Modules reversed(const Modules& modules) { return {modules.rbegin(), modules.rend()}; }

bool insertLogged(const std::string& servName, const Modules& modules) {
  if (TARN_IPTABLES_MODULES::moduleInsert(servName, modules)) return true;
  return here().fail("Failed to moduleInsert(%s, %s)", servName.c_str(),
                     boost::algorithm::join(modules, " ").c_str());
}

bool removeLogged(const std::string& servName, const Modules& modules) {
  if (TARN_IPTABLES_MODULES::moduleRemove(servName, modules)) return true;
  return here().fail("Failed to moduleRemove(%s, %s)", servName.c_str(),
                     boost::algorithm::join(modules, " ").c_str());
}

bool coreSetGet(Modules& core) {
  if (TARN_IPTABLES_MODULES::coreCommonModuleLoad(core)) return true;
  return here().fail("Failed to coreCommonModuleLoad()");
}

bool natSetGet(Modules& nat) {
  if (TARN_IPTABLES_MODULES::natModuleLoad(nat)) return true;
  return here().fail("Failed to natModuleLoad()");
}

// A C entry point: 0, or -1 for a failure and for a name that is not there.
int changeFor(const char* entryPoint, const char* servName,
              bool (*operation)(const std::string& servName)) {
  if (servName == nullptr) {
    here().error("servName is NULL");
    return -1;
  }
  return guarded(here(), entryPoint, -1, [&] { return operation(servName) ? 0 : -1; });
}

}  // namespace

bool TARN_IPTABLES_MODULES::isModuleLoad(const std::string& servName) {
  if (TLIBCFileExist(kStateFile) != 1) return false;
  std::array<char, kStateBuffer> buffer = {};
  if (TLIBCFileGetKeyValue(kStateFile, servName.c_str(), buffer.data(),
                           static_cast<int>(buffer.size()), 0) < 0) {
    // Kept: the file stands where the words say key.
    return here().fail("failed to get key %s from file %s[0x%04X %s:%d]", kStateFile,
                       servName.c_str(), static_cast<unsigned>(TLIBCErrGet()), TLIBCErrorGetFile(),
                       TLIBCErrorGetLine());
  }
  return std::strcmp(buffer.data(), kLoaded) == 0;
}

bool TARN_IPTABLES_MODULES::moduleInsert(const std::string& servName, const Modules& modules) {
  return moduleChange(servName, modules,
                      {TLIBIptablesModInsert, "Failed to TLIBIptablesModInsert()", kLoaded});
}

bool TARN_IPTABLES_MODULES::moduleRemove(const std::string& servName, const Modules& modules) {
  return moduleChange(servName, modules,
                      {TLIBIptablesModRemove, "Failed to TLIBIptablesModRemove()", kRemoved});
}

bool TARN_IPTABLES_MODULES::iptablesModListGet(const std::string& key, Modules& modules) {
  std::string value;
  if (!listValueGet(key.c_str(), value)) return false;
  splitAtBlanks(value, modules);
  return true;
}

bool TARN_IPTABLES_MODULES::natModuleLoad(Modules& modules) {
  return iptablesModListGet(kNatKey, modules);
}

bool TARN_IPTABLES_MODULES::coreCommonModuleLoad(Modules& modules) {
  std::string core;
  std::string common;
  std::string ipv6;
  if (!listValueGet(kCoreKey, core) || !listValueGet(kCommonKey, common) ||
      !listValueGet(kIpv6Key, ipv6)) {
    return false;
  }
  splitAtBlanks(core + " " + common + " " + ipv6, modules);
  return true;
}

bool TARN_IPTABLES_MODULES::iptablesCoreModLoad(const std::string& servName) {
  Modules core;
  return coreSetGet(core) && insertLogged(servName, core);
}

bool TARN_IPTABLES_MODULES::iptablesCoreModUnload(const std::string& servName) {
  Modules core;
  return coreSetGet(core) && removeLogged(servName, reversed(core));
}

bool TARN_IPTABLES_MODULES::iptablesNATModLoad(const std::string& servName) {
  Modules core;
  Modules nat;
  return coreSetGet(core) && natSetGet(nat) && insertLogged(servName, core) &&
         insertLogged(servName, nat);
}

bool TARN_IPTABLES_MODULES::iptablesNATModUnload(const std::string& servName) {
  Modules core;
  Modules nat;
  return coreSetGet(core) && natSetGet(nat) && removeLogged(servName, reversed(nat)) &&
         removeLogged(servName, reversed(core));
}

}  // namespace FW

int TARNIptablesCodeModeLoad(const char* servName) {
  return FW::changeFor(__func__, servName, FW::TARN_IPTABLES_MODULES::iptablesCoreModLoad);
}

int TARNIptablesCoreModUnload(const char* servName) {
  return FW::changeFor(__func__, servName, FW::TARN_IPTABLES_MODULES::iptablesCoreModUnload);
}

int TARNIptablesNATModLoad(const char* servName) {
  return FW::changeFor(__func__, servName, FW::TARN_IPTABLES_MODULES::iptablesNATModLoad);
}

int TARNIptablesNATModUnload(const char* servName) {
  return FW::changeFor(__func__, servName, FW::TARN_IPTABLES_MODULES::iptablesNATModUnload);
}
