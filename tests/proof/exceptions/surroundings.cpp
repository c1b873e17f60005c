#include "surroundings.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "allocations.h"
#include "process.h"

namespace surroundings {
namespace {

constexpr std::size_t kTold = 512;

struct Shared {
  Harm harm;
  long number;
  bool real;
  bool shut;      // the first command of a drop period has been run
  bool happened;  // the harm is done
  bool inside;    // and a policy was DROP then
  long allocations;
  // Per tool: INPUT and FORWARD are DROP, and the rules added to FIREWALL_RELOADING.
  std::array<std::array<bool, 2>, 2> dropped;
  std::array<int, 2> reloading;
  char told[kTold];
};

Shared* makeShared() {
  void* const memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("mmap");
  return static_cast<Shared*>(memory);
}

Shared* shared = nullptr;

bool anyDropped() {
  for (const auto& tool : shared->dropped) {
    if (tool[0] || tool[1]) return true;
  }
  return false;
}

void harmed() {
  if (!shared->happened) shared->inside = anyDropped();
  shared->happened = true;
}

// The documents change under the library, without an allocation.
void changeDocuments() {
  for (const char* name : {"1.json", "2.json", "3.json", "firewall_settings.json"}) {
    char from[128];
    char to[128];
    (void)std::snprintf(from, sizeof from, "%s%s", kPreparedDirectory, name);
    (void)std::snprintf(to, sizeof to, "/usr/tarn/etc/firewall.d/%s", name);
    (void)std::rename(from, to);
  }
  harmed();
}

void record(int tool, char* const argv[]) {
  if (std::strcmp(argv[1], "--policy") == 0) {
    const std::size_t chain = std::strcmp(argv[2], "INPUT") == 0 ? 0 : 1;
    shared->dropped[static_cast<std::size_t>(tool)][chain] = std::strcmp(argv[3], "DROP") == 0;
    return;
  }
  if (std::strcmp(argv[2], "FIREWALL_RELOADING") != 0) return;
  int& rules = shared->reloading[static_cast<std::size_t>(tool)];
  if (std::strcmp(argv[1], "-A") == 0) ++rules;
  if (std::strcmp(argv[1], "-D") == 0 && rules > 0) --rules;  // one that is not there is refused
}

using Execute = int (*)(const char*, char* const*, int);
Execute executeReally = nullptr;

}  // namespace

const char kOpenFilter[] =
    "iptables INPUT ACCEPT FORWARD ACCEPT FIREWALL_RELOADING 0 "
    "ip6tables INPUT ACCEPT FORWARD ACCEPT FIREWALL_RELOADING 0";

void arrange(Harm harm, long number, bool real) {
  if (shared == nullptr) {
    executeReally = reinterpret_cast<Execute>(dlsym(RTLD_NEXT, "TLIBCExecv"));
    if (executeReally == nullptr) throw std::runtime_error("no TLIBCExecv");
    shared = makeShared();
  }
  *shared = Shared();
  shared->harm = harm;
  shared->number = number;
  shared->real = real;
}

void disarm() { shared->harm = Harm::kNone; }
bool happened() { return shared->happened; }
bool happenedInside() { return shared->inside; }
bool shut() { return shared->shut; }

std::string recordedFilter() {
  std::string text;
  for (const std::size_t tool : {0U, 1U}) {
    text += tool == 0 ? "iptables" : " ip6tables";
    text += shared->dropped[tool][0] ? " INPUT DROP" : " INPUT ACCEPT";
    text += shared->dropped[tool][1] ? " FORWARD DROP" : " FORWARD ACCEPT";
    text += " FIREWALL_RELOADING " + std::to_string(shared->reloading[tool]);
  }
  return text;
}

void tell(const char* text) { (void)std::snprintf(shared->told, kTold, "%s", text); }
std::string told() { return shared->told; }

}  // namespace surroundings

using surroundings::shared;

// The library's calls arrive here first.
int TLIBCExecv(const char* path, char* const argv[], int wait) {
  if (shared == nullptr) return -1;
  const int tool = std::strcmp(path, "/sbin/iptables") == 0 ? 0 : 1;
  if (tool == 0 && std::strcmp(argv[1], "--policy") == 0 && std::strcmp(argv[3], "DROP") == 0) {
    shared->shut = true;
  }
  const bool lastFlush =
      tool == 1 && std::strcmp(argv[1], "-F") == 0 && std::strcmp(argv[2], "FORWARD_FIREWALL") == 0;
  if (lastFlush && shared->harm == surroundings::Harm::kDocuments) {
    surroundings::changeDocuments();
  }
  surroundings::record(tool, argv);
  return shared->real ? surroundings::executeReally(path, argv, wait) : 0;
}

// One allocation more.
bool allocations::fails() {
  if (shared == nullptr || !shared->shut) return false;
  const long number = shared->allocations++;
  switch (shared->harm) {
    case surroundings::Harm::kAllocation:
      if (number != shared->number) return false;
      break;
    case surroundings::Harm::kAllocations:
      if (number < shared->number) return false;
      break;
    case surroundings::Harm::kCancel:
      if (number == shared->number) {
        surroundings::harmed();
        (void)pthread_cancel(pthread_self());
      }
      return false;
    default:
      return false;
  }
  surroundings::harmed();
  return true;
}
