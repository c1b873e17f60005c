#include "process.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "cancellation.h"
#include "execReportAdd.h"
#include "log.h"
#include "packetFilterTool.h"
#include "runProgram.h"

using tarnplatform::here;
using tarnplatform::kCommandTextBytes;
using tarnplatform::kWordsTextBytes;

namespace {

// The arguments joined by blanks.
void writeCommand(char* const argv[], char (&text)[kCommandTextBytes]) {
  size_t used = 0;
  text[0] = '\0';
  for (int i = 0; argv[i] != nullptr && used < sizeof text; ++i) {
    const int length = snprintf(text + used, sizeof text - used, i == 0 ? "%s" : " %s", argv[i]);
    used += length > 0 ? static_cast<size_t>(length) : 0;
  }
}

// Makes one line of what a program printed: lines joined by " / ", blanks for other control
// characters.
void flattenWords(const char* printed, char (&text)[kWordsTextBytes]) {
  size_t used = 0;
  const char* const separator = " / ";
  for (const char* from = printed; *from != '\0' && used + 4 < sizeof text; ++from) {
    const auto byte = static_cast<unsigned char>(*from);
    if (byte == '\n') {
      const bool last = from[strspn(from, "\n")] == '\0';
      if (!last) {
        memcpy(text + used, separator, strlen(separator));
        used += strlen(separator);
      }
    } else {
      text[used++] = byte < ' ' || byte == 0x7f ? ' ' : *from;
    }
  }
  text[used] = '\0';
}

// What happened, in words: "exit status 2", "killed by signal 9".
void writeReason(const tarnrun::Outcome& outcome, char* text, size_t size) {
  if (outcome.status >= 0) {
    (void)snprintf(text, size, "exit status %d", outcome.status);
  } else if (outcome.timedOut) {
    (void)snprintf(text, size, "killed after %d seconds", tarnrun::kProgramSeconds);
  } else if (outcome.signal != 0) {
    (void)snprintf(text, size, "killed by signal %d", outcome.signal);
  } else {
    (void)snprintf(text, size, "not run: %s", tarnplatform::errorText(outcome.error));
  }
}

void report(const tarnrun::Outcome& outcome, char* const argv[], const char* printed) {
  char command[kCommandTextBytes];
  char words[kWordsTextBytes];
  char reason[64];
  writeCommand(argv, command);
  flattenWords(printed, words);
  writeReason(outcome, reason, sizeof reason);
  here().error("%s: %s%s%s", command, reason, words[0] == '\0' ? "" : ": ", words);
  tarnplatform::addToExecReport(outcome.status, command, words[0] == '\0' ? reason : words);
}

int errnoOf(const tarnrun::Outcome& outcome) {
  if (outcome.error != 0) {
    return outcome.error;
  }
  return outcome.timedOut ? ETIMEDOUT : ECANCELED;
}

}  // namespace

int TLIBCExecv(const char* path, char* const argv[], int wait) {
  if (path == nullptr || path[0] != '/' || argv == nullptr || argv[0] == nullptr) {
    const char* const command = path == nullptr ? "(no program)" : path;
    here().error("%s: not run: no absolute path or no arguments", command);
    tarnplatform::addToExecReport(-1, command, "no absolute path or no arguments");
    errno = EINVAL;
    return -1;
  }
  const tarn::CancellationHold noCancellation;
  char printed[kWordsTextBytes];
  tarnrun::Program program;
  program.path = path;
  program.argv = argv;
  program.words = printed;
  program.wordsSize = sizeof printed;
  program.wait = wait != 0;
  const tarnrun::Outcome outcome = tarnrun::isPacketFilterTool(path) && program.wait
                                       ? tarnrun::runPacketFilterTool(program)
                                       : tarnrun::runProgram(program);
  if (outcome.status != 0) {
    report(outcome, argv, printed);
  }
  if (outcome.status < 0) {
    errno = errnoOf(outcome);
  }
  return outcome.status;
}
