// A hook is a directory of executables: /usr/tarn/libexec/plugins/net/firewall_enable/. They run in
// name order, each with the argument "pre" or "post", the fixed environment and the arguments of
// the hook as variables. They run as root, so nobody else may be able to write them.

#include "plugins.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "cancellation.h"
#include "directoryNames.h"
#include "error.h"
#include "errorCodes.h"
#include "log.h"
#include "runProgram.h"

using tarnplatform::errorText;
using tarnplatform::here;
using tarnplatform::kErrorArgument;
using tarnplatform::kErrorMemory;
using tarnplatform::readDirectoryNames;

struct TLIBPLUGIN {
  std::string directory;
  std::map<std::string, std::string> arguments;
};

namespace {

constexpr char kPluginRoot[] = "/usr/tarn/libexec/plugins/";
constexpr int kPluginSeconds = 30;
constexpr int kActionPre = 4;
constexpr int kActionPost = 5;
constexpr size_t kWordsBytes = 512;

int fail(int code, int error, int line) {
  TLIBCErrSetEx(code, __FILE__, line);
  errno = error;
  return -1;
}

bool hasPrefix(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// "net/firewall_enable" of the category "net".
bool isHookName(const std::string& category, const std::string& name) {
  return !category.empty() && hasPrefix(name, category + "/") &&
         name.size() > category.size() + 1 &&
         name.find_first_not_of(
             "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-/") ==
             std::string::npos;
}

// A variable's name that is none of the fixed environment's and none the dynamic loader reads.
bool isArgumentName(const std::string& key) {
  return !key.empty() && key[0] >= 'A' && key[0] <= 'Z' &&
         key.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") == std::string::npos &&
         key != "PATH" && !hasPrefix(key, "LC_") && !hasPrefix(key, "LD_");
}

// Root's and written by nobody else. `status` is filled for what a link leads to.
bool isTrusted(const std::string& path, struct stat* status) {
  if (stat(path.c_str(), status) != 0) {
    here().error("%s cannot be used: %s", path.c_str(), errorText(errno));
    return false;
  }
  if (status->st_uid != 0 || (status->st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    here().error("%s is refused: it must be owned and writable by root alone", path.c_str());
    return false;
  }
  return true;
}

bool isExecutableFile(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) != 0 ||  // said when it is about to be run
         (S_ISREG(status.st_mode) && (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0);
}

std::vector<const char*> environmentOf(const std::vector<std::string>& variables) {
  std::vector<const char*> environment;
  for (const char* const* fixed = tarnrun::kFixedEnvironment; *fixed != nullptr; ++fixed) {
    environment.push_back(*fixed);
  }
  for (const std::string& variable : variables) {
    environment.push_back(variable.c_str());
  }
  environment.push_back(nullptr);
  return environment;
}

void sayWhatFailed(const std::string& path, const tarnrun::Outcome& outcome, const char* words) {
  const int firstLine = static_cast<int>(strcspn(words, "\n"));
  const char* const separator = firstLine == 0 ? "" : ": ";
  if (outcome.timedOut) {
    here().error("%s was killed after %d seconds%s%.*s", path.c_str(), kPluginSeconds, separator,
                 firstLine, words);
  } else if (outcome.signal != 0) {
    here().error("%s was killed by signal %d%s%.*s", path.c_str(), outcome.signal, separator,
                 firstLine, words);
  } else if (outcome.status < 0) {
    here().error("%s could not be run: %s", path.c_str(), errorText(outcome.error));
  } else {
    here().error("%s ended with status %d%s%.*s", path.c_str(), outcome.status, separator,
                 firstLine, words);
  }
}

bool runPlugin(const std::string& path, std::string action, const char* const* environment) {
  std::string program = path;
  char* const argv[] = {program.data(), action.data(), nullptr};
  char words[kWordsBytes];
  tarnrun::Program run;
  run.path = path.c_str();
  run.argv = argv;
  run.environment = environment;
  run.words = words;
  run.wordsSize = sizeof words;
  run.seconds = kPluginSeconds;
  run.ownGroup = true;
  const tarnrun::Outcome outcome = tarnrun::runProgram(run);
  if (outcome.status != 0) {
    sayWhatFailed(path, outcome, words);
  }
  return outcome.status == 0;
}

// Runs every plug-in, also after one has failed.
bool runPlugins(const TLIBPLUGIN& plugin, const char* action) {
  struct stat status = {};
  if (lstat(plugin.directory.c_str(), &status) != 0 && errno == ENOENT) {
    return true;  // nobody has put a plug-in there
  }
  std::vector<std::string> names;
  if (!isTrusted(plugin.directory, &status)) {
    return false;
  }
  if (!readDirectoryNames(plugin.directory.c_str(), &names)) {
    here().error("%s cannot be read: %s", plugin.directory.c_str(), errorText(errno));
    return false;
  }
  std::vector<std::string> variables;
  for (const auto& argument : plugin.arguments) {
    variables.push_back(argument.first + "=" + argument.second);
  }
  const std::vector<const char*> environment = environmentOf(variables);
  bool succeeded = true;
  for (const std::string& name : names) {
    const std::string path = plugin.directory + "/" + name;
    if (name.back() == '~' || !isExecutableFile(path)) {
      continue;
    }
    if (!isTrusted(path, &status) || !runPlugin(path, action, environment.data())) {
      succeeded = false;
    }
  }
  return succeeded;
}

}  // namespace

int TLIBPluginSDKInit(const char* category, const char* name, TLIBPLUGIN** plugin) {
  if (plugin == nullptr) {
    return fail(kErrorArgument, EINVAL, __LINE__);
  }
  *plugin = nullptr;
  try {
    if (category == nullptr || name == nullptr || !isHookName(category, name)) {
      return fail(kErrorArgument, EINVAL, __LINE__);
    }
    *plugin = new TLIBPLUGIN{kPluginRoot + std::string(name), {}};
    return 0;
  } catch (const std::exception&) {
    return fail(kErrorMemory, ENOMEM, __LINE__);
  }
}

int TLIBPluginSetArg(TLIBPLUGIN* plugin, const char* key, const char* value) {
  try {
    if (plugin == nullptr || key == nullptr || value == nullptr || !isArgumentName(key)) {
      return fail(kErrorArgument, EINVAL, __LINE__);
    }
    plugin->arguments[key] = value;
    return 0;
  } catch (const std::exception&) {
    return fail(kErrorMemory, ENOMEM, __LINE__);
  }
}

int TLIBPluginAction(int action, TLIBPLUGIN* plugin) {
  if (plugin == nullptr || (action != kActionPre && action != kActionPost)) {
    return fail(kErrorArgument, EINVAL, __LINE__);
  }
  const tarn::CancellationHold noCancellation;
  try {
    return runPlugins(*plugin, action == kActionPre ? "pre" : "post") ? 0 : -1;
  } catch (const std::exception&) {
    return fail(kErrorMemory, ENOMEM, __LINE__);
  }
}

void TLIBPluginExit(TLIBPLUGIN* plugin) { delete plugin; }
