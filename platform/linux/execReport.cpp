#include "execReport.h"

#include <stdio.h>
#include <string.h>

#include <mutex>

#include "execReportAdd.h"

namespace {

constexpr int kKeptRuns = 65536;
constexpr size_t kKeptBytes = size_t{8} * 1024 * 1024;

// A run that is kept: its command line begins at `text`, and behind its NUL the words.
struct FailedRun {
  int status;
  size_t text;
};

// In static storage, because a run is reported without allocating. Untouched pages cost nothing.
std::mutex guard;
FailedRun runs[kKeptRuns];
char texts[kKeptBytes];
size_t used = 0;
int kept = 0;
int count = 0;

// Texts are added in room that is there for both.
void addText(const char* text, size_t length) {
  memcpy(texts + used, text, length);
  used += length;
  texts[used++] = '\0';
}

void copyText(const char* text, char* buffer, int size) {
  if (buffer != nullptr && size > 0) {
    (void)snprintf(buffer, static_cast<size_t>(size), "%s", text);
  }
}

}  // namespace

namespace tarnplatform {

void addToExecReport(int status, const char* command, const char* words) {
  const std::lock_guard<std::mutex> lock(guard);
  const size_t commandLength = strnlen(command, kCommandTextBytes - 1);
  const size_t wordsLength = strnlen(words, kWordsTextBytes - 1);
  // What is kept are the first runs: after one that has found no room, none is.
  if (kept == count && kept < kKeptRuns && commandLength + wordsLength + 2 <= kKeptBytes - used) {
    runs[kept] = {status, used};
    addText(command, commandLength);
    addText(words, wordsLength);
    ++kept;
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
  if (index < 0 || index >= kept) {
    return -1;
  }
  const FailedRun& run = runs[index];
  if (status != nullptr) {
    *status = run.status;
  }
  const char* const text = texts + run.text;
  copyText(text, command, commandSize);
  copyText(text + strlen(text) + 1, words, wordsSize);
  return 0;
}

void TARNExecReportClear(void) {
  const std::lock_guard<std::mutex> lock(guard);
  used = 0;
  kept = 0;
  count = 0;
}
