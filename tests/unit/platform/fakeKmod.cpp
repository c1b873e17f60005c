#include "fakeKmod.h"

#include <libkmod.h>

#include <cstring>

#include "trace.h"

// The library's opaque types, as the fake has them. Only module names travel through them.
struct kmod_ctx {
  int objects = 0;  // modules and lists that are not released
};

struct kmod_module {
  kmod_ctx* context;
  std::string name;
};

struct kmod_list {
  kmod_ctx* context;
  std::vector<std::string> names;
  std::vector<kmod_list> rest;  // the entries after this one, in the first entry
  kmod_list* first;
  size_t index;
};

namespace {

fakeKmod::FakeModule& moduleOf(const kmod_module* module) {
  return fakeKmod::kernel().modules[module->name];
}

}  // namespace

namespace fakeKmod {

Kernel& kernel() {
  static Kernel kernel;
  return kernel;
}

}  // namespace fakeKmod

extern "C" {

kmod_ctx* kmod_new(const char* /*directory*/, const char* const* /*configuration*/) {
  return fakeKmod::kernel().works ? new kmod_ctx : nullptr;
}

kmod_ctx* kmod_unref(kmod_ctx* context) {
  if (context->objects != 0) trace::add("kmod objects left: " + std::to_string(context->objects));
  delete context;
  return nullptr;
}

int kmod_load_resources(kmod_ctx* /*context*/) { return 0; }

void kmod_set_log_fn(kmod_ctx* /*context*/,
                     void (*function)(void*, int, const char*, int, const char*, const char*,
                                      va_list),
                     const void* /*data*/) {
  if (function == nullptr) trace::add("kmod writes to standard error");
}

int kmod_module_new_from_name(kmod_ctx* context, const char* name, kmod_module** module) {
  if (fakeKmod::kernel().modules.count(name) == 0) {
    // As libkmod: a name it has no file of is a module object nevertheless.
    fakeKmod::kernel().modules[name].state = fakeKmod::kNotThere;
    fakeKmod::kernel().modules[name].removal = -ENOENT;
  }
  ++context->objects;
  *module = new kmod_module{context, name};
  return 0;
}

int kmod_module_new_from_lookup(kmod_ctx* context, const char* alias, kmod_list** list) {
  std::vector<std::string> names;
  const auto& kernel = fakeKmod::kernel();
  if (kernel.aliases.count(alias) != 0) names = kernel.aliases.at(alias);
  if (names.empty() && kernel.modules.count(alias) != 0) names = {alias};
  trace::add(std::string("look up ") + alias);
  if (names.empty()) return 0;
  ++context->objects;
  *list = new kmod_list{context, names, {}, nullptr, 0};
  (*list)->first = *list;
  for (size_t i = 1; i < names.size(); ++i) {
    (*list)->rest.push_back(kmod_list{context, {}, {}, *list, i});
  }
  return 0;
}

kmod_list* kmod_list_next(const kmod_list* /*list*/, const kmod_list* current) {
  kmod_list* first = current->first;
  return current->index < first->rest.size() ? &first->rest[current->index] : nullptr;
}

int kmod_module_unref_list(kmod_list* list) {
  --list->context->objects;
  delete list;
  return 0;
}

kmod_module* kmod_module_get_module(const kmod_list* entry) {
  ++entry->context->objects;
  return new kmod_module{entry->context, entry->first->names[entry->index]};
}

kmod_module* kmod_module_unref(kmod_module* module) {
  --module->context->objects;
  delete module;
  return nullptr;
}

const char* kmod_module_get_name(const kmod_module* module) { return module->name.c_str(); }

int kmod_module_get_initstate(const kmod_module* module) { return moduleOf(module).state; }

int kmod_module_probe_insert_module(
    kmod_module* module, unsigned int /*flags*/, const char* /*options*/,
    int (*runInstall)(kmod_module* module, const char* command, void* data), const void* data,
    void (* /*print*/)(kmod_module* module, bool install, const char* options)) {
  fakeKmod::FakeModule& fake = moduleOf(module);
  trace::add("insert " + module->name);
  if (fake.installCommand) {
    if (runInstall == nullptr) trace::add("shell runs the install command");
    return runInstall == nullptr ? 0 : runInstall(module, "true", const_cast<void*>(data));
  }
  if (fake.insertion == 0) fake.state = KMOD_MODULE_LIVE;
  return fake.insertion;
}

int kmod_module_remove_module(kmod_module* module, unsigned int /*flags*/) {
  fakeKmod::FakeModule& fake = moduleOf(module);
  trace::add("remove " + module->name);
  if (fake.removal == 0) fake.state = fakeKmod::kNotThere;
  return fake.removal;
}

}  // extern "C"
