#include "fakePlatform.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "error.h"
#include "files.h"
#include "kernelModules.h"
#include "lock.h"
#include "model.h"
#include "network.h"
#include "plugins.h"
#include "process.h"
#include "processes.h"
#include "services.h"
#include "strlist.h"
#include "testFiles.h"
#include "trace.h"

struct TLIBPLUGIN {};

struct TARNFW_SERVICE_LIST {
  std::vector<TARNFW_SERVICE> records;
  std::vector<fake::Service> texts;  // what the records point to
};

namespace fake {
namespace {

constexpr int kFirstLock = 100;

struct State {
  Machine machine;
  PlatformError error;
  std::set<const TLIBCSZLIST*> lists;
  std::set<const TLIBPLUGIN*> plugins;
  std::set<const TARNFW_SERVICE_LIST*> services;
  std::map<int, std::string> locks;  // number -> path
  int nextLock = kFirstLock;
};

State& state() {
  static State theState;
  return theState;
}

// Fails the running test: the library asked for something that the platform does not promise.
void contractBroken(const std::string& request) {
  ADD_FAILURE() << "platform contract broken: " << request;
}

// The answer to a request that is not recorded: `usual`, or what the test has set.
int answer(const std::string& request, int usual) {
  const auto found = machine().answers.find(request);
  if (found == machine().answers.end()) return usual;
  if (found->second.result < 0) state().error = machine().failure;
  errno = found->second.error;
  return found->second.result;
}

int recorded(const std::string& request, int usual) {
  trace::add(request);
  if (machine().meanwhile) machine().meanwhile(request);
  return answer(request, usual);
}

std::string join(const std::string& first, const TLIBCSZLIST* list) {
  std::string text = first;
  for (int index = 0; index < list->count; ++index) text += std::string(" ") + list->items[index];
  return text;
}

TLIBCSZLIST* newList(int capacity, const std::vector<std::string>& texts) {
  auto list = std::make_unique<TLIBCSZLIST>();
  const std::size_t room = std::max(static_cast<std::size_t>(capacity), texts.size());
  list->capacity = static_cast<int>(room);
  list->items = new char*[room + 1]();
  for (const std::string& text : texts) list->items[list->count++] = strdup(text.c_str());
  return list.release();
}

void deleteList(TLIBCSZLIST* list) {
  if (list == nullptr) return;
  for (int index = 0; index < list->count; ++index) std::free(list->items[index]);
  delete[] list->items;
  delete list;
}

std::vector<std::string> texts(const TLIBCSZLIST* list) {
  return {list->items, list->items + list->count};
}

TLIBCSZLIST* portList(const Ports& side) { return side.ports ? newList(0, *side.ports) : nullptr; }

void count(std::string& text, std::size_t number, const char* thing) {
  if (number == 0) return;
  text +=
      (text.empty() ? "" : ", ") + std::to_string(number) + " " + thing + (number == 1 ? "" : "s");
}

}  // namespace

Machine& machine() { return state().machine; }

void reset() { state() = State(); }

std::string alive() {
  std::string text;
  count(text, state().locks.size(), "lock");
  count(text, state().lists.size(), "list");
  count(text, state().plugins.size(), "plug-in handle");
  count(text, state().services.size(), "service table");
  return text;
}

void MachineTest::SetUp() {
  reset();
  files::clear();
  (void)trace::take();
  descriptors_ = files::descriptors();
}

void MachineTest::TearDown() {
  EXPECT_EQ("", alive()) << "not released";
  EXPECT_EQ(descriptors_, files::descriptors()) << "not closed";
  EXPECT_EQ("", processes::locks()) << "not unlocked";
  EXPECT_EQ("", trace::take()) << "not looked at";
}

}  // namespace fake

using fake::answer;
using fake::contractBroken;
using fake::machine;
using fake::recorded;
using fake::state;

// --- error.h ---

void TLIBCErrSetEx(int code, const char* file, int line) {
  char request[32];
  (void)std::snprintf(request, sizeof request, "error 0x%04X", static_cast<unsigned>(code));
  trace::add(request);
  state().error = {code, file, line};
}

int TLIBCErrGet() { return state().error.code; }
const char* TLIBCErrorGetFile() { return state().error.file.c_str(); }
int TLIBCErrorGetLine() { return state().error.line; }

// --- files.h ---

int TLIBCFileGetKeyValue(const char* file, const char* key, char* buffer, int size, int flags) {
  const std::string request = std::string("get ") + file + " " + key;
  if (flags != 0 || size <= 0) contractBroken(request);
  std::string value;
  const auto known = machine().files.find(file);
  if (known != machine().files.end() && known->second.count(key) != 0)
    value = known->second.at(key);
  const int result = recorded(request, static_cast<int>(value.size()));
  if (result > 0) (void)std::snprintf(buffer, static_cast<std::size_t>(size), "%s", value.c_str());
  return result;
}

int TLIBCFileSetKeyValue(const char* file, const char* key, const char* value, int flags) {
  const std::string request = std::string("set ") + file + " " + key + "=" + value;
  if (flags != 0) contractBroken(request);
  const int result = recorded(request, 0);
  if (result >= 0) machine().files[file][key] = value;
  return result;
}

int TLIBCFileCheckKeyValue(const char* file, const char* key, const char* value, int flags) {
  const std::string request = std::string("check ") + file + " " + key + "=" + value;
  if (flags != 0) contractBroken(request);
  const auto known = machine().files.find(file);
  const bool same = known != machine().files.end() && known->second.count(key) != 0 &&
                    known->second.at(key) == value;
  return recorded(request, same ? 1 : 0);
}

int TLIBCFileExist(const char* path) {
  return answer(std::string("exist ") + path, access(path, F_OK) == 0 ? 1 : 0);
}

int TARNFSMkdirP(const char* path, int reserved1, int createParents, int reserved2, int reserved3,
                 unsigned int mode) {
  const std::string request = std::string("mkdir ") + path;
  if (reserved1 != 0 || createParents != 1 || reserved2 != 0 || reserved3 != 0 || mode != 0770) {
    contractBroken(request);
  }
  if (answer(request, 0) < 0) return -1;
  std::string directory = path;
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(directory).parent_path(), error);
  if (mkdir(directory.c_str(), mode) == 0) return chmod(directory.c_str(), mode);
  if (errno != EEXIST) return -1;
  struct stat status = {};
  if (lstat(directory.c_str(), &status) != 0) return -1;
  errno = S_ISDIR(status.st_mode) ? EPERM : ENOTDIR;
  return S_ISDIR(status.st_mode) && status.st_uid == geteuid() ? 0 : -1;
}

// --- lock.h ---

int TLIBCFileLockTimeByFile(const char* path, int mode, int seconds, int* fd) {
  const std::string request =
      std::string("lock ") + path + " " + std::to_string(mode) + " " + std::to_string(seconds);
  if (mode != 1) contractBroken(request);
  const bool held = std::any_of(state().locks.begin(), state().locks.end(),
                                [path](const auto& lock) { return lock.second == path; });
  if (held) errno = ETIMEDOUT;
  const int result = recorded(request, held ? 0 : 1);
  if (result != 1) return result;
  *fd = state().nextLock++;
  state().locks[*fd] = path;
  return result;
}

int TLIBCFileUnlockByFile(int fd) {
  const std::string request = "unlock " + std::to_string(fd);
  if (state().locks.erase(fd) == 0) contractBroken(request + ", which is not held");
  return recorded(request, 1);
}

// --- process.h ---

int TLIBCExecv(const char* path, char* const argv[], int wait) {
  std::string commandLine = argv[0];
  for (char* const* argument = argv + 1; *argument != nullptr; ++argument) {
    commandLine += std::string(" ") + *argument;
  }
  if (std::strcmp(path, argv[0]) != 0 || wait != 1) contractBroken("exec " + commandLine);
  const int result = recorded("exec " + commandLine, 0);
  return result == 0 && machine().exec ? machine().exec(commandLine) : result;
}

// --- strlist.h ---

TLIBCSZLIST* TLIBCSzListAlloc(int capacity) {
  if (recorded("list alloc " + std::to_string(capacity), 0) < 0) return nullptr;
  TLIBCSZLIST* const list = fake::newList(capacity, {});
  state().lists.insert(list);
  return list;
}

// The list moves at every push, so that an address kept over one is found out.
int TLIBCSzListPush(TLIBCSZLIST** list, const char* text) {
  const std::string request = std::string("list push ") + text;
  if (state().lists.count(*list) == 0) {
    contractBroken(request);
    return -1;
  }
  if (answer(request, 0) < 0) return -1;
  std::vector<std::string> texts = fake::texts(*list);
  texts.emplace_back(text);
  TLIBCSZLIST* const moved = fake::newList((*list)->capacity, texts);
  state().lists.erase(*list);
  fake::deleteList(*list);
  state().lists.insert(moved);
  *list = moved;
  return 0;
}

const char* TLIBCSzListGet(const TLIBCSZLIST* list, int index) {
  return index >= 0 && index < list->count ? list->items[index] : nullptr;
}

void TLIBCSzListFree(TLIBCSZLIST* list) {
  if (list == nullptr) return;
  trace::add("list free");
  if (state().lists.erase(list) == 0) {
    contractBroken("list free, of a list that is not alive");
    return;
  }
  fake::deleteList(list);
}

// --- model.h ---

int TLIBCSupportGet(const char* key) {
  const std::vector<std::string>& known = machine().capabilities;
  const bool has = std::find(known.begin(), known.end(), key) != known.end();
  return recorded(std::string("support ") + key, has ? 1 : 0);
}

// --- network.h ---

int TLIBNetGetInterfaceInfo(TLIBNETIF* table, int capacity, int kind) {
  const std::string request = "interfaces " + std::to_string(capacity) + " " + std::to_string(kind);
  const auto count = std::min(machine().interfaces.size(), static_cast<std::size_t>(capacity));
  const int result = recorded(request, static_cast<int>(count));
  for (std::size_t index = 0; index < count && result > 0; ++index) {
    table[index] = {};
    (void)std::snprintf(table[index].name, sizeof table[index].name, "%s",
                        machine().interfaces[index].c_str());
  }
  return result;
}

int TARNPPPoeIntfGet(char* buffer, int size) {
  const int result = recorded("pppoe", machine().pppoe.empty() ? -1 : 0);
  if (result >= 0)
    (void)std::snprintf(buffer, static_cast<std::size_t>(size), "%s", machine().pppoe.c_str());
  return result;
}

int BlTLIBIsIpAddr(const char* text) {
  in_addr address;
  return answer(std::string("ipv4 ") + text, inet_pton(AF_INET, text, &address));
}

int BlTLIBIsv6IpAddrValid(const char* text) {
  in6_addr address;
  return answer(std::string("ipv6 ") + text, inet_pton(AF_INET6, text, &address));
}

// --- services.h ---

int TARNFwServiceEnum(TARNFW_SERVICE_LIST** list) {
  const int result = recorded("services enum", static_cast<int>(machine().services.size()));
  if (result <= 0) return result;
  auto table = std::make_unique<TARNFW_SERVICE_LIST>();
  table->texts = machine().services;
  for (const fake::Service& service : table->texts) {
    const int protocol =
        service.destination.protocol != 0 ? service.destination.protocol : service.source.protocol;
    table->records.push_back({service.name.c_str(), service.available ? 1 : 0, protocol,
                              service.source.protocol, fake::portList(service.source),
                              service.destination.protocol, fake::portList(service.destination)});
  }
  *list = table.release();
  state().services.insert(*list);
  return result;
}

const TARNFW_SERVICE* TARNFWServiceFind(const TARNFW_SERVICE_LIST* list, const char* name) {
  if (state().services.count(list) == 0) {
    contractBroken(std::string("services find ") + name);
    return nullptr;
  }
  for (const TARNFW_SERVICE& record : list->records) {
    if (std::strcmp(record.name, name) == 0) return &record;
  }
  return nullptr;
}

void TARNFwServiceFree(TARNFW_SERVICE_LIST* list) {
  if (list == nullptr) return;
  trace::add("services free");
  if (state().services.erase(list) == 0) {
    contractBroken("services free, of a table that is not alive");
    return;
  }
  for (const TARNFW_SERVICE& record : list->records) {
    fake::deleteList(record.srcPorts);
    fake::deleteList(record.dstPorts);
  }
  delete list;
}

// --- kernelModules.h ---

int TLIBIptablesModInsert(const char* servName, const TLIBCSZLIST* modules) {
  return recorded(fake::join(std::string("modinsert ") + servName, modules), 0);
}

int TLIBIptablesModRemove(const char* servName, const TLIBCSZLIST* modules) {
  return recorded(fake::join(std::string("modremove ") + servName, modules), 0);
}

// --- plugins.h ---

int TLIBPluginSDKInit(const char* category, const char* name, TLIBPLUGIN** plugin) {
  const int result = recorded(std::string("plugin init ") + category + " " + name, 0);
  *plugin = nullptr;
  if (result < 0 && !machine().failedPluginInitLeavesHandle) return result;
  *plugin = new TLIBPLUGIN;
  state().plugins.insert(*plugin);
  return result;
}

int TLIBPluginSetArg(TLIBPLUGIN* plugin, const char* key, const char* value) {
  const std::string request = std::string("plugin set ") + key + "=" + value;
  if (state().plugins.count(plugin) == 0) contractBroken(request);
  return recorded(request, 0);
}

int TLIBPluginAction(int action, TLIBPLUGIN* plugin) {
  const std::string request = "plugin action " + std::to_string(action);
  if (state().plugins.count(plugin) == 0) contractBroken(request);
  return recorded(request, 0);
}

void TLIBPluginExit(TLIBPLUGIN* plugin) {
  if (plugin == nullptr) return;
  trace::add("plugin exit");
  if (state().plugins.erase(plugin) == 0) {
    contractBroken("plugin exit, of a handle that is not alive");
    return;
  }
  delete plugin;
}
