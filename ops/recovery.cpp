#include "recovery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <system_error>

#include <json/value.h>

#include "descriptor.h"
#include "jsonText.h"
#include "linux/closedPolicies.h"
#include "processes.h"
#include "runtimeFiles.h"

namespace ops {
namespace {

constexpr mode_t kRecordMode = 0600;

// The record of a worker that counts.
//   done  nobody is left who could close a policy on the worker's behalf
struct Record {
  std::string file;
  std::vector<std::string> policies;
  bool done = false;
};

std::string recordOf(const ProcessId& worker) {
  return std::string(kRuntimeDirectory) + "/open_policies." + std::to_string(worker.number) + "." +
         std::to_string(worker.start) + ".json";
}

// The worker in whose name a record is; none when the file is no record.
std::optional<ProcessId> workerOf(const std::filesystem::path& file) {
  static const std::regex kForm(R"(open_policies\.([0-9]{1,9})\.([0-9]{1,18})\.json)");
  std::smatch parts;
  const std::string name = file.filename();
  if (!std::regex_match(name, parts, kForm)) return std::nullopt;
  return ProcessId{static_cast<pid_t>(std::stol(parts[1])), std::stoull(parts[2])};
}

// A damaged record names nothing.
std::vector<std::string> policiesIn(const std::string& file) {
  std::vector<std::string> policies;
  std::ifstream stream(file, std::ios::binary);
  std::string text;
  std::getline(stream, text, '\0');  // an error of the reading ends it, without an exception
  Json::Value record;
  try {
    if (!parseJson(text, record) || !record.isArray()) return policies;
  } catch (const std::exception&) {  // nested too deeply
    return policies;
  }
  for (const Json::Value& policy : record) {
    if (policy.isString()) policies.push_back(policy.asString());
  }
  return policies;
}

// The records that count. A worker leads the session of its tools.
//   unread  why not all could be read, or empty
std::vector<Record> readRecords(std::string& unread) {
  std::vector<Record> records;
  const ProcessId own = ownProcess();
  std::error_code error;
  std::filesystem::directory_iterator entry(kRuntimeDirectory, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::optional<ProcessId> worker = workerOf(entry->path());
    if (!worker) continue;
    const bool ours = worker->number == own.number && worker->start == own.start;
    if (!ours && lives(*worker)) continue;
    const bool done = ours || !anyoneIn(worker->number);
    records.push_back({entry->path(), policiesIn(entry->path()), done});
  }
  const bool absent = error == std::errc::no_such_file_or_directory;
  if (error && !absent) unread = std::string(kRuntimeDirectory) + ": " + error.message();
  return records;
}

std::string policyName(Family family, const char* chain) {
  return std::string(keyOf(family)) + " " + chain;
}

// Whose policies are ours to open: what the records name, and what the platform has noted.
std::vector<std::string> policiesOf(const std::vector<Record>& records) {
  std::set<std::string> all;
  for (const Record& record : records) all.insert(record.policies.begin(), record.policies.end());
  for (const Family family : kFamilies) {
    for (const GuardedChain& chain : kGuardedChains) {
      if (tarnrun::isNotedAsClosed(toolOf(family), chain.builtIn)) {
        all.insert(policyName(family, chain.builtIn));
      }
    }
  }
  return {all.begin(), all.end()};
}

bool isOpen(const LiveRules& rules, const char* chain) {
  const auto found = rules.policies.find(chain);
  return found != rules.policies.end() && found->second == "ACCEPT";
}

// The arguments that delete a rule that "-S" prints as "-A CHAIN ...".
std::vector<std::string> deletionOf(const std::string& rule) {
  std::istringstream stream(rule);
  std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
  words.front() = "-D";
  return words;
}

//   unread  why a family could not be read, or empty
Recovery planFor(const LiveFilter& filter, const std::vector<std::string>& record,
                 const std::string& unread) {
  Recovery plan;
  if (!unread.empty()) plan.errors.push_back(unread);
  plan.marks = filter.marks();
  plan.commands = recoveryCommands(filter, record);
  return plan;
}

}  // namespace

std::vector<Command> recoveryCommands(const LiveFilter& filter,
                                      const std::vector<std::string>& record) {
  const bool marked = filter.marks() > 0;
  std::vector<Command> commands;
  for (const Family family : kFamilies) {
    for (const GuardedChain& chain : kGuardedChains) {
      const bool ours = (marked && filter.of(family).known()) ||
                        std::find(record.begin(), record.end(),
                                  policyName(family, chain.builtIn)) != record.end();
      if (ours && !isOpen(filter.of(family), chain.builtIn)) {
        commands.push_back({family, {"--policy", chain.builtIn, "ACCEPT"}});
      }
    }
  }
  for (const Family family : kFamilies) {
    for (const std::string& mark : filter.of(family).marks()) {
      commands.push_back({family, deletionOf(mark)});
    }
  }
  return commands;
}

std::vector<std::string> openPolicies(const LiveFilter& filter) {
  std::vector<std::string> open;
  for (const Family family : kFamilies) {
    for (const GuardedChain& chain : kGuardedChains) {
      if (isOpen(filter.of(family), chain.builtIn)) {
        open.push_back(policyName(family, chain.builtIn));
      }
    }
  }
  return open;
}

bool writeOpenPolicies(const std::vector<std::string>& policies) {
  Json::Value record(Json::arrayValue);
  for (const std::string& policy : policies) record.append(policy);
  if (!makeRuntimeDirectory()) return false;
  // Nobody else writes it, and one that is cut short by our end names nothing that we have closed.
  const tarn::Descriptor file(open(recordOf(ownProcess()).c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                                   kRecordMode));
  if (!file.valid() || fchmod(file.get(), kRecordMode) != 0) return false;
  const std::string text = compactJson(record);
  // A memory file system writes this little at once or not at all.
  return write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void forgetOpenPolicies() {
  (void)unlink(recordOf(ownProcess()).c_str());  // often there is none
}

std::vector<std::string> recordedOpenPolicies() {
  std::string unread;  // by those who look on; recover() says it
  return policiesOf(readRecords(unread));
}

Recovery recover(LiveFilter& filter) {
  // Who is left is asked before the tables are read: a tool that ends in between has closed its
  // policy after that, and its worker's record is still needed.
  std::string lost;
  const std::vector<Record> records = readRecords(lost);
  std::string unread;
  (void)readFilter(filter, unread);  // planned for what could be read
  Recovery recovery = planFor(filter, policiesOf(records), unread);
  if (!lost.empty()) recovery.errors.push_back(lost);
  for (const Command& command : recovery.commands) {
    const ToolRun result = run(command);
    if (result.status != 0) recovery.errors.push_back(command.text() + ": " + result.words());
  }
  std::string reason;
  if (!recovery.commands.empty() && !readFilter(filter, reason) && reason != unread) {
    recovery.errors.push_back(reason);
  }
  if (!recovery.errors.empty()) return recovery;
  for (const Record& record : records) {
    if (record.done) (void)unlink(record.file.c_str());
  }
  for (const Family family : kFamilies) {
    for (const GuardedChain& chain : kGuardedChains) {
      if (isOpen(filter.of(family), chain.builtIn)) {
        tarnrun::forgetOldNote(toolOf(family), chain.builtIn);
      }
    }
  }
  return recovery;
}

Recovery planRecovery() {
  std::string unread;
  LiveFilter filter;
  (void)readFilter(filter, unread);  // planned for what could be read
  return planFor(filter, recordedOpenPolicies(), unread);
}

}  // namespace ops
