// Loads and releases netfilter modules on behalf of services. Who uses what is kept, because two
// services share most modules and other programs have loaded some of them before:
//
//   # module<TAB>inserted|found<TAB>service<TAB>service...
//   xt_geoip<TAB>inserted<TAB>firewall
//
// "inserted": it was this layer that brought the module in, so this layer may take it out again.
// The file lies under /run and is gone when the kernel's modules are.

#include "kernelModules.h"

#include <errno.h>
#include <libkmod.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cancellation.h"
#include "error.h"
#include "errorCodes.h"
#include "files.h"
#include "keyValue.h"
#include "lock.h"
#include "log.h"
#include "textFile.h"

using tarnplatform::errorText;
using tarnplatform::here;
using tarnplatform::kErrorArgument;
using tarnplatform::kErrorMemory;
using tarnplatform::kErrorSystem;
using tarnplatform::readTextFile;
using tarnplatform::replaceTextFile;

namespace {

constexpr char kStateDirectory[] = "/run/tarn";
constexpr char kStateFile[] = "/run/tarn/iptables_modules";
constexpr char kStateLock[] = "/run/tarn/iptables_modules.lock";
constexpr int kLockSeconds = 30;
constexpr size_t kStateLimit = size_t{1024} * 1024;  // bytes
constexpr unsigned int kDirectoryMode = 0755;
constexpr mode_t kStateMode = 0644;
constexpr char kSuffix[] = ".ko";
constexpr char kInsertedWord[] = "inserted";
constexpr char kFoundWord[] = "found";

struct Usage {
  bool inserted = false;
  std::vector<std::string> services;
};

using State = std::map<std::string, Usage>;

struct ReleaseContext {
  void operator()(kmod_ctx* context) const { (void)kmod_unref(context); }
};
struct ReleaseList {
  void operator()(kmod_list* list) const { (void)kmod_module_unref_list(list); }
};
struct ReleaseModule {
  void operator()(kmod_module* module) const { (void)kmod_module_unref(module); }
};
using Context = std::unique_ptr<kmod_ctx, ReleaseContext>;
using ModuleList = std::unique_ptr<kmod_list, ReleaseList>;
using Module = std::unique_ptr<kmod_module, ReleaseModule>;

// The file of the claims under its lock. Without the lock nothing is read or written.
class StateFile {
 public:
  StateFile() {
    if (TARNFSMkdirP(kStateDirectory, 0, /*createParents=*/1, 0, 0, kDirectoryMode) < 0) {
      here().error("%s cannot be made: %s", kStateDirectory, errorText(errno));
      return;
    }
    if (TLIBCFileLockTimeByFile(kStateLock, /*mode=*/1, kLockSeconds, &lock_) != 1) {
      here().error("%s cannot be locked: %s", kStateLock, errorText(errno));
      lock_ = -1;
    }
  }
  StateFile(const StateFile&) = delete;
  StateFile& operator=(const StateFile&) = delete;
  ~StateFile() {
    if (lock_ >= 0) {
      (void)TLIBCFileUnlockByFile(lock_);
    }
  }

  bool locked() const { return lock_ >= 0; }

  State read() {
    std::string text;
    if (!locked()) {
      return {};
    }
    if (!readTextFile(kStateFile, kStateLimit, &text) && errno != ENOENT) {
      here().error("%s cannot be read: %s", kStateFile, errorText(errno));
      known_ = false;
    }
    return parse(text);
  }

  // A claim that cannot be written means only that a module stays in the kernel. Claims that could
  // not be read are not written over.
  void write(const State& state) const {
    std::string text = "# module, how it came in, the services that use it\n";
    for (const auto& entry : state) {
      text += entry.first + "\t" + (entry.second.inserted ? kInsertedWord : kFoundWord);
      for (const std::string& service : entry.second.services) {
        text += "\t" + service;
      }
      text += "\n";
    }
    if (locked() && known_ && !replaceTextFile(kStateFile, text, kStateMode)) {
      here().error("%s cannot be written: %s", kStateFile, errorText(errno));
    }
  }

 private:
  static std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    size_t begin = 0;
    for (size_t end = 0; end != std::string::npos; begin = end + 1) {
      end = text.find(separator, begin);
      pieces.push_back(text.substr(begin, end - begin));
    }
    return pieces;
  }

  static State parse(const std::string& text) {
    State state;
    for (const std::string& line : split(text, '\n')) {
      const std::vector<std::string> fields = split(line, '\t');
      if (line.empty() || line[0] == '#' || fields.size() < 2) {
        continue;
      }
      state[fields[0]] = {fields[1] == kInsertedWord, {fields.begin() + 2, fields.end()}};
    }
    return state;
  }

  int lock_ = -1;
  bool known_ = true;
};

bool hasService(const Usage& usage, const std::string& service) {
  return std::find(usage.services.begin(), usage.services.end(), service) != usage.services.end();
}

// libkmod writes to standard error unless it is given somebody to tell.
void ignoreMessage(void* /*data*/, int /*priority*/, const char* /*file*/, int /*line*/,
                   const char* /*function*/, const char* /*format*/, va_list /*arguments*/) {}

// An install command of modprobe's configuration is the administrator's: it is left to modprobe,
// which the kernel calls when a rule needs the module.
int refuseInstallCommand(kmod_module* /*module*/, const char* /*command*/, void* /*data*/) {
  return -ECANCELED;
}

Context openModules() {
  Context context(kmod_new(nullptr, nullptr));
  if (context) {
    kmod_set_log_fn(context.get(), ignoreMessage, nullptr);
    // Without an index look-ups read the files themselves.
    (void)kmod_load_resources(context.get());
  }
  return context;
}

bool kernelLoadsModules() { return access("/proc/modules", F_OK) == 0; }

// In the kernel, built in or loaded. A built-in module with parameters looks like one on its way in
// where the kernel's module directory is missing; both will be there for the rules.
bool isPresent(kmod_module* module) {
  const int state = kmod_module_get_initstate(module);
  return state == KMOD_MODULE_BUILTIN || state == KMOD_MODULE_LIVE || state == KMOD_MODULE_COMING;
}

bool isPresent(kmod_ctx* context, const std::string& name) {
  kmod_module* found = nullptr;
  if (kmod_module_new_from_name(context, name.c_str(), &found) < 0) {
    return false;
  }
  const Module module(found);
  return isPresent(module.get());
}

ModuleList lookUp(kmod_ctx* context, const std::string& name) {
  kmod_list* found = nullptr;
  (void)kmod_module_new_from_lookup(context, name.c_str(), &found);
  return ModuleList(found);
}

enum class Loading { kPresent, kInserted, kAbsent, kFailed };

Loading loadOne(kmod_module* module) {
  if (isPresent(module)) {
    return Loading::kPresent;
  }
  const int result =
      kmod_module_probe_insert_module(module, KMOD_PROBE_APPLY_BLACKLIST_ALIAS_ONLY, nullptr,
                                      refuseInstallCommand, nullptr, nullptr);
  switch (result) {
    case 0:
      return Loading::kInserted;
    case -EEXIST:
      return Loading::kPresent;
    case -ENOSYS:     // a kernel without modules
    case -ENOENT:     // listed, but its file is gone
    case -ECANCELED:  // has an install command
      return Loading::kAbsent;
    default:
      break;
  }
  if (result > 0) {  // kept out by the administrator
    return Loading::kAbsent;
  }
  here().error("Module %s cannot be loaded: %s", kmod_module_get_name(module), errorText(-result));
  return Loading::kFailed;
}

// A name can stand for several modules; the worst outcome counts, and one that came in is ours.
Loading load(kmod_ctx* context, const std::string& name) {
  const ModuleList list = lookUp(context, name);
  Loading outcome = Loading::kPresent;
  if (!list) {
    return isPresent(context, name) ? Loading::kPresent : Loading::kAbsent;
  }
  kmod_list* entry = nullptr;
  kmod_list_foreach(entry, list.get()) {
    const Module module(kmod_module_get_module(entry));
    outcome = std::max(outcome, loadOne(module.get()));
  }
  return outcome;
}

// "xt_mac" for "xt_mac.ko". False when it is no file name of a module.
bool moduleName(const std::string& file, std::string* name) {
  constexpr size_t kSuffixLength = sizeof kSuffix - 1;
  if (file.size() <= kSuffixLength ||
      file.compare(file.size() - kSuffixLength, kSuffixLength, kSuffix) != 0) {
    return false;
  }
  *name = file.substr(0, file.size() - kSuffixLength);
  return name->find_first_not_of(
             "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-") ==
         std::string::npos;
}

// The names of the list, empty ones left out. False when one of them is no module's; the others are
// in `names` all the same.
bool moduleNames(const TLIBCSZLIST* modules, std::vector<std::string>* names) {
  bool valid = true;
  for (int i = 0; i < modules->count; ++i) {
    const std::string file = TLIBCSzListGet(modules, i);
    std::string name;
    if (file.empty()) {
      continue;
    }
    if (!moduleName(file, &name)) {
      here().error("\"%s\" is not the file name of a kernel module", file.c_str());
      valid = false;
      continue;
    }
    names->push_back(name);
  }
  return valid;
}

bool insertModules(const std::string& service, const std::vector<std::string>& names) {
  const Context context = openModules();
  if (!context) {
    here().error("libkmod cannot be used");
    return false;
  }
  StateFile file;
  State state = file.read();
  std::string absent;
  bool succeeded = true;
  for (const std::string& name : names) {
    const Loading outcome = load(context.get(), name);
    if (outcome == Loading::kAbsent) {
      absent += " " + name;
      continue;
    }
    if (outcome == Loading::kFailed) {
      succeeded = false;
      continue;
    }
    Usage& usage = state[name];
    usage.inserted = usage.inserted || outcome == Loading::kInserted;
    if (!hasService(usage, service)) {
      usage.services.push_back(service);
    }
  }
  file.write(state);
  if (!absent.empty() && kernelLoadsModules()) {
    here().warning("Not on this kernel, rules that need them will be refused:%s", absent.c_str());
  } else if (!absent.empty()) {
    here().debug("This kernel loads no modules, left as they are:%s", absent.c_str());
  }
  return succeeded;
}

// Taking these out does more than undo their loading: a table goes with every rule in it, the base
// chains included, and connection tracking forgets the open connections.
bool holdsForeignState(const std::string& name) {
  static constexpr const char* kPrefixes[] = {
      "x_tables",  "ip_tables", "ip6_tables",   "iptable_",   "ip6table_",
      "nf_tables", "nft_",      "nf_conntrack", "nf_defrag_", "nf_nat"};
  std::string spelled = name;
  std::replace(spelled.begin(), spelled.end(), '-', '_');
  return std::any_of(std::begin(kPrefixes), std::end(kPrefixes), [&spelled](const char* prefix) {
    return spelled.compare(0, strlen(prefix), prefix) == 0;
  });
}

// True when the module is out, or stays because somebody else uses it.
bool unload(kmod_ctx* context, const std::string& name, bool* out) {
  kmod_module* found = nullptr;
  *out = false;
  int result = kmod_module_new_from_name(context, name.c_str(), &found);
  if (result == 0) {
    const Module module(found);
    result = kmod_module_remove_module(module.get(), KMOD_REMOVE_NOLOG);
  }
  if (result == 0 || result == -ENOENT) {
    *out = true;
    return true;
  }
  if (result == -EAGAIN || result == -EBUSY) {
    here().debug("Module %s stays, it is in use", name.c_str());
    return true;
  }
  here().error("Module %s cannot be removed: %s", name.c_str(), errorText(-result));
  return false;
}

bool removeModules(const std::string& service, const std::vector<std::string>& names) {
  StateFile file;
  State state = file.read();
  Context context;
  bool succeeded = true;
  for (const std::string& name : names) {
    const auto entry = state.find(name);
    if (entry == state.end()) {
      continue;  // not one of ours
    }
    std::vector<std::string>& services = entry->second.services;
    services.erase(std::remove(services.begin(), services.end(), service), services.end());
    if (!services.empty()) {
      continue;
    }
    bool out = true;
    if (entry->second.inserted) {
      if (!context) {
        context = openModules();
      }
      out = false;
      if (!context || (!holdsForeignState(name) && !unload(context.get(), name, &out))) {
        succeeded = false;
      }
    }
    if (out) {
      state.erase(entry);
    }
  }
  file.write(state);
  return succeeded;
}

// The library keeps service names as keys of a key/value file: what cannot be one is refused before
// a module is touched.
bool isServiceName(const std::string& service) {
  return tarnplatform::isKey(service) && service.find('\t') == std::string::npos;
}

// The common frame of insertion and removal.
int handle(const char* servName, const TLIBCSZLIST* modules,
           bool (*action)(const std::string&, const std::vector<std::string>&)) {
  if (servName == nullptr || modules == nullptr || !isServiceName(servName)) {
    TLIBCErrSetEx(kErrorArgument, __FILE__, __LINE__);
    errno = EINVAL;
    return -1;
  }
  const tarn::CancellationHold noCancellation;
  try {
    std::vector<std::string> names;
    const bool valid = moduleNames(modules, &names);
    if (action(servName, names) && valid) {
      return 0;
    }
    TLIBCErrSetEx(kErrorSystem, __FILE__, __LINE__);
    return -1;
  } catch (const std::exception&) {
    TLIBCErrSetEx(kErrorMemory, __FILE__, __LINE__);
    errno = ENOMEM;
    return -1;
  }
}

}  // namespace

int TLIBIptablesModInsert(const char* servName, const TLIBCSZLIST* modules) {
  return handle(servName, modules, insertModules);
}

int TLIBIptablesModRemove(const char* servName, const TLIBCSZLIST* modules) {
  return handle(servName, modules, removeModules);
}
