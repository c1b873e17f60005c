#include "execReport.h"

#include <stdio.h>

#include <mutex>

#include "execReportAdd.h"

namespace {

constexpr int kKeptRuns = 256;

struct FailedRun {
  int status;
  char command[tarnplatform::kCommandTextBytes];
  char words[tarnplatform::kWordsTextBytes];
};

// In static storage, because a run is reported without allocating. Untouched pages cost nothing.
std::mutex guard;
FailedRun runs[kKeptRuns];
int count = 0;

void copyText(const char* text, char* buffer, int size) {
  if (buffer != nullptr && size > 0) {
    (void)snprintf(buffer, static_cast<size_t>(size), "%s", text);
  }
}

}  // namespace

namespace tarnplatform {

void addToExecReport(int status, const char* command, const char* words) {
  const std::lock_guard<std::mutex> lock(guard);
  if (count < kKeptRuns) {
    FailedRun& run = runs[count];
    run.status = status;
    copyText(command, run.command, sizeof run.command);
    copyText(words, run.words, sizeof run.words);
  }
  ++count;
}

}  // namespace tarnplatform

int TARNExecReportCount(void) {
  const std::lock_guard<std::mutex> lock(guard);
  return count;
}

int TARNExecReportGet(int index, int* status, char* command, int commandSize, char* words,
                      int wordsSize) {
  const std::lock_guard<std::mutex> lock(guard);
  if (index < 0 || index >= count || index >= kKeptRuns) {
    return -1;
  }
  const FailedRun& run = runs[index];
  if (status != nullptr) {
    *status = run.status;
  }
  copyText(run.command, command, commandSize);
  copyText(run.words, words, wordsSize);
  return 0;
}

void TARNExecReportClear(void) {
  const std::lock_guard<std::mutex> lock(guard);
  count = 0;
}
