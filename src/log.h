// Log lines of the library: "MODULE:LINE text" in the system log.

#ifndef TARNFW_SRC_LOG_H
#define TARNFW_SRC_LOG_H

namespace FW {

// Where a log line comes from: the module's name and a line number. Each source file binds its
// module once, in a function here() whose default argument is the line of the call.
struct LogSite {
  const char* module;
  int line;

  // Logs at error priority. fail() answers false, so that an operation can end with it.
  [[gnu::format(printf, 2, 3)]] bool fail(const char* text, ...) const;
  [[gnu::format(printf, 2, 3)]] void error(const char* text, ...) const;
  // Logs at debug priority.
  [[gnu::format(printf, 2, 3)]] void debug(const char* text, ...) const;
};

}  // namespace FW

#endif
