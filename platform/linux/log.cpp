#include "log.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>

namespace tarnplatform {

namespace {

constexpr char kModule[] = "tarnPlatform";

__attribute__((format(printf, 3, 0))) void log(int priority, int line, const char* format,
                                               va_list arguments) {
  char text[2048];
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): every caller has started the list
  (void)vsnprintf(text, sizeof text, format, arguments);
  syslog(priority, "%s:%d %s", kModule, line, text);
}

}  // namespace

void LogSite::error(const char* format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  log(LOG_ERR, line_, format, arguments);
  va_end(arguments);
}

void LogSite::warning(const char* format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  log(LOG_WARNING, line_, format, arguments);
  va_end(arguments);
}

void LogSite::debug(const char* format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  log(LOG_DEBUG, line_, format, arguments);
  va_end(arguments);
}

const char* errorText(int error) {
  const char* const text = strerrordesc_np(error);
  return text == nullptr ? "Unknown error" : text;
}

}  // namespace tarnplatform
