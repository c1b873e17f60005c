#include <pthread.h>

#include <cstdlib>
#include <new>
#include <ostream>
#include <string>

#include "fakePlatform.h"
#include "tarnfirewall_c.h"
#include "testFiles.h"
#include "trace.h"

namespace {

// Requests for more memory than this fail; 0: none does.
std::size_t memoryLimit = 0;  // bytes

}  // namespace

void* operator new(std::size_t size) {
  void* const memory =
      memoryLimit != 0 && size > memoryLimit ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace {

using EntryPoint = int (*)(const char* servName);

constexpr char kListFile[] = "/usr/tarn/etc.defaults/iptables_modules_list";

struct ModuleRow {
  const char* name;
  EntryPoint entryPoint;
  const char* service;
  int insertAnswer;
  int removeAnswer;
  int result;
  const char* trace;
};

void PrintTo(const ModuleRow& row, std::ostream* out) {
  *out << (row.service == nullptr ? "(null)" : row.service);
}

// The list file of the rows: core A, common C, IPv6 D, NAT N.
//
// clang-format off
const ModuleRow kModuleRows[] = {
    {"CoreLoad", TARNIptablesCodeModeLoad, "vpn", 0, 0, 0,
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "list alloc 1024\nmodinsert vpn A C D\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=yes\nlist free\nunlock 100"},
    {"CoreUnload", TARNIptablesCoreModUnload, "vpn", 0, 0, 0,
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "list alloc 1024\nmodremove vpn D C A\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=no\nlist free\nunlock 100"},
    {"NatLoad", TARNIptablesNATModLoad, "vpn", 0, 0, 0,
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "list alloc 1024\nmodinsert vpn A C D\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=yes\nlist free\nunlock 100\n"
     "list alloc 1024\nmodinsert vpn N\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=yes\nlist free\nunlock 101"},
    {"NatUnload", TARNIptablesNATModUnload, "vpn", 0, 0, 0,
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "list alloc 1024\nmodremove vpn N\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=no\nlist free\nunlock 100\n"
     "list alloc 1024\nmodremove vpn D C A\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list vpn=no\nlist free\nunlock 101"},
    {"EmptyNameIsAName", TARNIptablesCodeModeLoad, "", 0, 0, 0,
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "list alloc 1024\nmodinsert  A C D\nlock /var/lock/firewall/iptables_serv_mod_list.lock 1 30\nset /tmp/iptables_serv_mod_list =yes\nlist free\nunlock 100"},

    {"CoreLoadFails", TARNIptablesCodeModeLoad, "vpn", -1, 0, -1,
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "list alloc 1024\nmodinsert vpn A C D\nerr tarnIptablesModule Failed to TLIBIptablesModInsert()\nlist free\nerr tarnIptablesModule Failed to moduleInsert(vpn, A C D)"},
    {"CoreUnloadFails", TARNIptablesCoreModUnload, "vpn", 0, -1, -1,
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
     "list alloc 1024\nmodremove vpn D C A\nerr tarnIptablesModule Failed to TLIBIptablesModRemove()\nlist free\nerr tarnIptablesModule Failed to moduleRemove(vpn, D C A)"},
    {"NatLoadFails", TARNIptablesNATModLoad, "vpn", -1, 0, -1,
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "list alloc 1024\nmodinsert vpn A C D\nerr tarnIptablesModule Failed to TLIBIptablesModInsert()\nlist free\nerr tarnIptablesModule Failed to moduleInsert(vpn, A C D)"},
    {"NatUnloadFails", TARNIptablesNATModUnload, "vpn", 0, -1, -1,
     "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\nget /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\nget /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_NAT\n"
     "list alloc 1024\nmodremove vpn N\nerr tarnIptablesModule Failed to TLIBIptablesModRemove()\nlist free\nerr tarnIptablesModule Failed to moduleRemove(vpn, N)"},

    {"CoreLoadOfNull", TARNIptablesCodeModeLoad, nullptr, 0, 0, -1, "err tarnIptablesModule servName is NULL"},
    {"CoreUnloadOfNull", TARNIptablesCoreModUnload, nullptr, 0, 0, -1, "err tarnIptablesModule servName is NULL"},
    {"NatLoadOfNull", TARNIptablesNATModLoad, nullptr, 0, 0, -1, "err tarnIptablesModule servName is NULL"},
    {"NatUnloadOfNull", TARNIptablesNATModUnload, nullptr, 0, 0, -1, "err tarnIptablesModule servName is NULL"},
};
// clang-format on

class ModuleEntryPoints : public fake::MachineTest,
                          public testing::WithParamInterface<ModuleRow> {};

TEST_P(ModuleEntryPoints, AnswerInIntegers) {
  fake::machine().files[kListFile] = {{"KERNEL_MODULES_CORE", "A"},
                                      {"KERNEL_MODULES_COMMON", "C"},
                                      {"IPV6_MODULES", "D"},
                                      {"KERNEL_MODULES_NAT", "N"}};
  for (const char* modules : {"A C D", "N"}) {
    fake::machine().answers.insert(
        {std::string("modinsert vpn ") + modules, GetParam().insertAnswer});
  }
  for (const char* modules : {"D C A", "N"}) {
    fake::machine().answers.insert(
        {std::string("modremove vpn ") + modules, GetParam().removeAnswer});
  }
  EXPECT_EQ(GetParam().result, GetParam().entryPoint(GetParam().service));
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, ModuleEntryPoints, testing::ValuesIn(kModuleRows),
                         [](const auto& row) { return std::string(row.param.name); });

// --- exceptions end at the entry point ---

struct ExceptionRow {
  const char* name;
  EntryPoint entryPoint;
  const char* trace;
};

void PrintTo(const ExceptionRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const ExceptionRow kExceptionRows[] = {
    {"CoreLoad", TARNIptablesCodeModeLoad, "err tarnIptablesModule Failed to TARNIptablesCodeModeLoad: std::bad_alloc"},
    {"CoreUnload", TARNIptablesCoreModUnload, "err tarnIptablesModule Failed to TARNIptablesCoreModUnload: std::bad_alloc"},
    {"NatLoad", TARNIptablesNATModLoad, "err tarnIptablesModule Failed to TARNIptablesNATModLoad: std::bad_alloc"},
    {"NatUnload", TARNIptablesNATModUnload, "err tarnIptablesModule Failed to TARNIptablesNATModUnload: std::bad_alloc"},
};
// clang-format on

class EntryPointsWithoutMemory : public fake::MachineTest,
                                 public testing::WithParamInterface<ExceptionRow> {};

TEST_P(EntryPointsWithoutMemory, LogAndFail) {
  const std::string service(100000, 's');
  memoryLimit = 50000;
  const int result = GetParam().entryPoint(service.c_str());
  memoryLimit = 0;
  EXPECT_EQ(-1, result);
  EXPECT_EQ(GetParam().trace, trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, EntryPointsWithoutMemory, testing::ValuesIn(kExceptionRows),
                         [](const auto& row) { return std::string(row.param.name); });

// The cancellation of a thread unwinds its stack like an exception. Whoever catches it and does not
// pass it on ends the process.
class CancelledThread : public fake::MachineTest {};

void* loadModulesCancelled(void* /*argument*/) {
  (void)pthread_cancel(pthread_self());
  (void)TARNIptablesCodeModeLoad("vpn");  // opens the lock file, where cancellation strikes
  trace::add("not cancelled");
  return nullptr;
}

TEST_F(CancelledThread, UnwindsAndReleases) {
  fake::machine().files[kListFile] = {
      {"KERNEL_MODULES_CORE", "A"}, {"KERNEL_MODULES_COMMON", "C"}, {"IPV6_MODULES", "D"}};
  pthread_t thread = {};
  ASSERT_EQ(0, pthread_create(&thread, nullptr, loadModulesCancelled, nullptr));
  void* result = nullptr;
  ASSERT_EQ(0, pthread_join(thread, &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);
  EXPECT_EQ(
      "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_CORE\n"
      "get /usr/tarn/etc.defaults/iptables_modules_list KERNEL_MODULES_COMMON\n"
      "get /usr/tarn/etc.defaults/iptables_modules_list IPV6_MODULES\n"
      "list alloc 1024\n"
      "modinsert vpn A C D\n"
      "list free",
      trace::take());
}

}  // namespace
