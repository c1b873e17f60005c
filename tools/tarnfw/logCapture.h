// The library's log lines of one call. The log goes to standard error as well as to the system log;
// there it is collected, because names in it come from files and are not for a terminal as they
// are.

#ifndef TARNFW_TOOLS_LOGCAPTURE_H
#define TARNFW_TOOLS_LOGCAPTURE_H

#include <string>
#include <vector>

#include "ops/memoryFile.h"

namespace tarnfw {

// From now on, log lines go to the system log and to standard error, debug messages only when
// `verbose`.
void openLog(bool verbose);

// The lines without the program's name that the log puts before them.
std::vector<std::string> withoutProgramName(std::vector<std::string> lines);

// Collects what is written to standard error from construction to lines().
class LogCapture {
 public:
  LogCapture();
  ~LogCapture() { (void)lines(); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Gives standard error back.
  std::vector<std::string> lines();

 private:
  ops::Descriptor collected_;
  ops::Descriptor standardError_;
};

}  // namespace tarnfw

#endif
