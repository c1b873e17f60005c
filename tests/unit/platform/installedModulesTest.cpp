// The module loader with the real libkmod. A test does not change the kernel it runs on, so where
// the kernel takes modules, only those of the shipped list are asked for that it has loaded
// already.

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "kernelModules.h"
#include "platformTest.h"

namespace {

constexpr char kLoadedModules[] = "/proc/modules";

class InstalledModules : public PlatformTest {};

// The file names of the modules of all keys of the shipped list.
std::vector<std::string> shippedModules() {
  std::vector<std::string> modules;
  std::istringstream lines(files::read(PLATFORM_DATA "/iptables_modules_list"));
  for (std::string line; std::getline(lines, line);) {
    const size_t quote = line.find('"');
    if (line[0] == '#' || quote == std::string::npos) continue;
    std::istringstream words(line.substr(quote + 1, line.size() - quote - 2));
    for (std::string word; std::getline(words, word, ' ');) modules.push_back(word);
  }
  return modules;
}

// Those of them whose loading leaves the kernel as it is.
std::vector<std::string> harmless(std::vector<std::string> modules) {
  if (access(kLoadedModules, F_OK) != 0) return modules;
  std::set<std::string> live;
  std::ifstream lines(kLoadedModules);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(" Live ") != std::string::npos)
      live.insert(line.substr(0, line.find(' ')) + ".ko");
  }
  const auto absent = [&live](const std::string& module) { return live.count(module) == 0; };
  modules.erase(std::remove_if(modules.begin(), modules.end(), absent), modules.end());
  return modules;
}

int with(int (*action)(const char*, const TLIBCSZLIST*), const std::vector<std::string>& modules) {
  TLIBCSZLIST* list = TLIBCSzListAlloc(1);
  for (const std::string& module : modules) EXPECT_EQ(0, TLIBCSzListPush(&list, module.c_str()));
  const int result = action("test", list);
  TLIBCSzListFree(list);
  return result;
}

TEST_F(InstalledModules, ShippedListIsNoErrorAndChangesNoKernel) {
  const std::vector<std::string> shipped = shippedModules();
  EXPECT_GE(shipped.size(), 20U);
  EXPECT_EQ(0, with(TLIBIptablesModInsert, harmless(shipped)));
  const std::string log = trace::take();
  EXPECT_EQ(std::string::npos, log.find("err ")) << log;
  EXPECT_EQ(std::string::npos, log.find('\n')) << "one line at most: " << log;
  const std::string claims = files::read("/run/tarn/iptables_modules");
  EXPECT_EQ(0U, claims.find("# module")) << claims;
  EXPECT_EQ(std::string::npos, claims.find("inserted\t")) << claims;
}

TEST_F(InstalledModules, UnknownModuleIsNoError) {
  EXPECT_EQ(0, with(TLIBIptablesModInsert, {"xt_no_such_module.ko"}));
  EXPECT_NE(std::string::npos, trace::take().find(": xt_no_such_module"));
  EXPECT_EQ(0, with(TLIBIptablesModRemove, {"xt_no_such_module.ko"}));
}

}  // namespace
