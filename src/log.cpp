#include "log.h"

#include <syslog.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <new>

namespace FW {
namespace {

constexpr std::size_t kUsualLength = 1024;  // bytes; longer texts (module lists) go to the heap

[[gnu::format(printf, 3, 0)]] void write(int priority, const LogSite& site, const char* text,
                                         std::va_list arguments) {
  char usual[kUsualLength];
  std::va_list again;
  va_copy(again, arguments);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started the list
  const int length = std::vsnprintf(usual, sizeof usual, text, arguments);
  std::unique_ptr<char[]> longer;
  const char* message = usual;
  if (length >= static_cast<int>(sizeof usual)) {
    const auto size = static_cast<std::size_t>(length) + 1;
    longer.reset(new (std::nothrow) char[size]);
    if (longer) {
      (void)std::vsnprintf(longer.get(), size, text, again);
      message = longer.get();
    }
  }
  va_end(again);
  syslog(priority, "%s:%d %s", site.module, site.line, message);
}

}  // namespace

bool LogSite::fail(const char* text, ...) const {
  std::va_list arguments;
  va_start(arguments, text);
  write(LOG_ERR, *this, text, arguments);
  va_end(arguments);
  return false;
}

void LogSite::error(const char* text, ...) const {
  std::va_list arguments;
  va_start(arguments, text);
  write(LOG_ERR, *this, text, arguments);
  va_end(arguments);
}

void LogSite::debug(const char* text, ...) const {
  std::va_list arguments;
  va_start(arguments, text);
  write(LOG_DEBUG, *this, text, arguments);
  va_end(arguments);
}

}  // namespace FW
