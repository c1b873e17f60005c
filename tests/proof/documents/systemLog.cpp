#include "systemLog.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

std::array<char, 65536> messages;
std::size_t used = 0;

[[gnu::format(printf, 1, 0)]] void keep(const char* format, va_list arguments) {
  const std::size_t room = messages.size() - used;
  const int length = std::vsnprintf(&messages[used], room, format, arguments);
  if (length > 0) used += std::min(static_cast<std::size_t>(length), room - 1);
}

}  // namespace

namespace systemLog {

bool has(const char* text) { return std::strstr(messages.data(), text) != nullptr; }

}  // namespace systemLog

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp): the C
// library's own names, with which fortified callers call it
[[gnu::format(printf, 2, 3)]] void syslog(int priority, const char* format, ...);
[[gnu::format(printf, 2, 0)]] void vsyslog(int priority, const char* format, va_list arguments);
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int flag, const char* format, ...);
[[gnu::format(printf, 3, 0)]] void __vsyslog_chk(int priority, int flag, const char* format,
                                                 va_list arguments);

void vsyslog(int /*priority*/, const char* format, va_list arguments) { keep(format, arguments); }

void __vsyslog_chk(int /*priority*/, int /*flag*/, const char* format, va_list arguments) {
  keep(format, arguments);
}

void syslog(int /*priority*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  keep(format, arguments);
  va_end(arguments);
}

void __syslog_chk(int /*priority*/, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  keep(format, arguments);
  va_end(arguments);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp)

}  // extern "C"
