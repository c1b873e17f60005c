// The platform's lines in the system log: "tarnPlatform:LINE TEXT".

#ifndef TARN_PLATFORM_LINUX_LOG_H
#define TARN_PLATFORM_LINUX_LOG_H

namespace tarnplatform {

// A place in the sources that logs. Texts are cut at 2047 bytes; nothing is allocated for them
// here.
class LogSite {
 public:
  constexpr explicit LogSite(int line) : line_(line) {}

  void error(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  void warning(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  void debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));

 private:
  int line_;
};

constexpr LogSite here(int line = __builtin_LINE()) { return LogSite(line); }

// The text of an errno value; unlike strerror it is safe with threads and allocates nothing.
const char* errorText(int error);

}  // namespace tarnplatform

#endif
