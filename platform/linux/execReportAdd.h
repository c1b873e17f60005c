// The writing side of the report on failed runs.

#ifndef TARN_PLATFORM_LINUX_EXECREPORTADD_H
#define TARN_PLATFORM_LINUX_EXECREPORTADD_H

namespace tarnplatform {

constexpr int kCommandTextBytes = 1280;  // a command of the library (1024 bytes) and its quotes
constexpr int kWordsTextBytes = 512;

// Allocates nothing. Longer texts are cut.
void addToExecReport(int status, const char* command, const char* words);

}  // namespace tarnplatform

#endif
