// The verbs of the command: what each is called, what it takes and what carries it out. A new verb
// is one row in the table and one function.

#ifndef TARNFW_TOOLS_VERBS_H
#define TARNFW_TOOLS_VERBS_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <json/value.h>

namespace tarnfw {

// Exit codes of the command, the same for every verb.
enum Exit {
  kDone = 0,
  kFailed = 1,
  kBlocked = 1,  // query
  kUsage = 2,
  kOff = 3,      // status: the firewall is off
  kUnknown = 4,  // what was asked for could not be read
  kDiffers = 5,  // status: the live rules are not those of the profile
  kBusy = 8,     // the execution lock was not had in time
  kPartly = 10,  // query: partly blocked
  kNeedsRoot = 77,
};

// What the user asked a verb for.
//   values  argument or option, as the verb's row spells it ("PROFILE", "--exempt") -> its value;
//           a flag that was given has an empty one
struct Request {
  std::map<std::string, std::string> values;
  bool json = false;
  bool dryRun = false;
  bool colour = false;

  bool has(const std::string& name) const { return values.count(name) != 0; }
  const std::string& value(const std::string& name) const { return values.at(name); }
};

// A line for standard error.
//   complaint  it tells of something that failed, and so --quiet does not keep it back
struct Note {
  std::string text;
  bool complaint = false;
};

// What a verb answers.
//   exit      an Exit
//   error     what went wrong, in one sentence; empty after success
//   notes     lines for standard error, in order
//   text      for standard output; ends with a line feed unless it is empty
//   document  the same for --json; null for a verb that only does something
struct Answer {
  int exit = kDone;
  std::string error;
  std::vector<Note> notes;
  std::string text;
  Json::Value document;

  // Notes what was done besides, or what the user may want to look at.
  void remark(std::string line);
  // Notes what failed: a refused command, a line of the library's log.
  void complain(std::string line);
  void complain(const std::vector<std::string>& lines);
};

Answer failed(std::string error, int exit = kFailed);

// Runs an operation that reads. False when it fails or throws, as the JSON library does on a
// document of another shape; an exception's words are in `why` then, after ": ".
bool succeeds(const std::function<bool()>& operation, std::string& why);

enum class Root {
  kNever,
  kToChange,  // not for --dry-run
  kAlways,
};

enum class Effect { kReads, kChanges };  // what changes something has --dry-run

// A row of the table.
//   name       one or two words
//   arguments  "NAME", "core|nat" (one of these words), "[--flag]", "[--option VALUE]" and, of an
//              option that must be given, "--option VALUE"; "--flag|--other" is one of two flags
struct Verb {
  const char* name;
  const char* arguments;
  const char* help;
  Root root;
  Effect effect;
  Answer (*run)(const Request& request);
};

const std::vector<Verb>& verbs();

// The functions of the table.
Answer setUp(const Request& request);
Answer enable(const Request& request);
Answer disable(const Request& request);
Answer reload(const Request& request);
Answer clear(const Request& request);
Answer recover(const Request& request);
Answer status(const Request& request);
Answer compile(const Request& request);
Answer queryPort(const Request& request);
Answer queryService(const Request& request);
Answer profileList(const Request& request);
Answer profileShow(const Request& request);
Answer profileCreate(const Request& request);
Answer profileDelete(const Request& request);
Answer profileRename(const Request& request);
Answer profileUse(const Request& request);
Answer update(const Request& request);
Answer adapterList(const Request& request);
Answer adapterRename(const Request& request);
Answer serviceList(const Request& request);
Answer serviceReserve(const Request& request);
Answer serviceRemove(const Request& request);
Answer countryList(const Request& request);
Answer countryRanges(const Request& request);
Answer modulesLoad(const Request& request);
Answer modulesUnload(const Request& request);

}  // namespace tarnfw

#endif
