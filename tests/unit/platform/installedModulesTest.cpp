// The module loader with the real libkmod. A test does not change the kernel it runs on, so the
// shipped list is only loaded where the kernel takes no modules.

#include <unistd.h>

#include <sstream>
#include <string>

#include "kernelModules.h"
#include "platformTest.h"

namespace {

class InstalledModules : public PlatformTest {};

// The modules of all keys of the shipped list.
TLIBCSZLIST* shippedModules() {
  TLIBCSZLIST* list = TLIBCSzListAlloc(64);
  std::istringstream lines(files::read(PLATFORM_DATA "/iptables_modules_list"));
  for (std::string line; std::getline(lines, line);) {
    const size_t quote = line.find('"');
    if (line[0] == '#' || quote == std::string::npos) continue;
    std::istringstream words(line.substr(quote + 1, line.size() - quote - 2));
    for (std::string word; std::getline(words, word, ' ');) {
      EXPECT_EQ(0, TLIBCSzListPush(&list, word.c_str()));
    }
  }
  return list;
}

TEST_F(InstalledModules, ShippedListIsNoErrorOnAKernelWithoutModules) {
  if (access("/proc/modules", F_OK) == 0) GTEST_SKIP() << "would load modules into this kernel";
  TLIBCSZLIST* list = shippedModules();
  EXPECT_GE(list->count, 20);
  EXPECT_EQ(0, TLIBIptablesModInsert("test", list));
  const std::string log = trace::take();
  EXPECT_EQ(std::string::npos, log.find("err ")) << log;
  EXPECT_EQ(std::string::npos, log.find('\n')) << "one line at most: " << log;
  TLIBCSzListFree(list);
}

TEST_F(InstalledModules, UnknownModuleIsNoError) {
  TLIBCSZLIST* list = TLIBCSzListAlloc(1);
  EXPECT_EQ(0, TLIBCSzListPush(&list, "xt_no_such_module.ko"));
  EXPECT_EQ(0, TLIBIptablesModInsert("test", list));
  EXPECT_NE(std::string::npos, trace::take().find(": xt_no_such_module"));
  EXPECT_EQ(0, TLIBIptablesModRemove("test", list));
  TLIBCSzListFree(list);
}

}  // namespace
