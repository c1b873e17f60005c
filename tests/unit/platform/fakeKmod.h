// libkmod as the tests of the module loader have it: modules with scripted answers, and a record of
// what was asked, in the trace.

#ifndef TARNFW_TESTS_PLATFORM_FAKE_KMOD_H
#define TARNFW_TESTS_PLATFORM_FAKE_KMOD_H

#include <cerrno>
#include <map>
#include <string>
#include <vector>

namespace fakeKmod {

constexpr int kNotThere = -ENOENT;  // state of a module that is not in the kernel

struct FakeModule {
  int state = kNotThere;        // as kmod_module_get_initstate answers
  int insertion = 0;            // as kmod_module_probe_insert_module answers
  int removal = 0;              // as kmod_module_remove_module answers
  bool installCommand = false;  // modprobe's configuration has one for it
};

struct Kernel {
  bool works = true;                                        // false: no context can be made
  std::map<std::string, FakeModule> modules;                // what look-ups by name find
  std::map<std::string, std::vector<std::string>> aliases;  // look-ups that find several
};

// The kernel of the running test.
Kernel& kernel();

}  // namespace fakeKmod

#endif
