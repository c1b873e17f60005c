// tarnfw, the command of the host firewall.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <string>
#include <vector>

#include "commandLine.h"
#include "logCapture.h"
#include "output.h"
#include "verbs.h"

namespace tarnfw {
namespace {

// Whatever the caller did: descriptors 0 to 2 are open, or a file opened later would take their
// place, and the end of a child is reported.
void settleIn() {
  int fd = 0;
  do {
    fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) (void)close(fd);
  (void)std::signal(SIGCHLD, SIG_DFL);
}

bool needsRoot(const Verb& verb, const Request& request) {
  switch (verb.root) {
    case Root::kNever:
      return false;
    case Root::kToChange:
      return !request.dryRun;
    case Root::kAlways:
      return true;
  }
  return true;
}

// What the JSON and lock libraries throw ends here: a document of the wrong shape, a lock file that
// cannot be opened. A verb that reads has no answer then, and 1 would be one of a query's.
Answer runVerb(const Verb& verb, const Request& request) {
  if (needsRoot(verb, request) && geteuid() != 0) return failed("needs root", kNeedsRoot);
  LogCapture capture;
  Answer answer;
  try {
    answer = verb.run(request);
  } catch (const std::exception& exception) {
    answer = failed(exception.what(), verb.effect == Effect::kReads ? kUnknown : kFailed);
  }
  Answer log;
  log.complain(capture.lines());
  answer.notes.insert(answer.notes.begin(), log.notes.begin(), log.notes.end());
  return answer;
}

int printText(const CommandLine& line) {
  Answer answer;
  answer.text = line.text;
  answer.document["text"] = line.text;
  return print(answer, "", /*changes=*/false, line.json, line.quiet);
}

int run(int argc, const char* const argv[]) {
  settleIn();
  CommandLine line = readCommandLine(argc, argv);
  if (!line.text.empty()) return printText(line);
  if (line.verb == nullptr) {
    return print(failed(line.error, kUsage), "", /*changes=*/false, line.json, line.quiet);
  }
  openLog(line.verbose);
  line.request.colour = colourWanted();
  const Answer answer = runVerb(*line.verb, line.request);
  return print(answer, line.verb->name, line.verb->effect == Effect::kChanges, line.json,
               line.quiet);
}

}  // namespace
}  // namespace tarnfw

int main(int argc, char* argv[]) { return tarnfw::run(argc, argv); }
