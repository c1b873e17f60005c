// The system log of a test program: messages become lines of the trace instead of leaving the
// process.
//
//   "err fwDB Failed to profileGet(Home)"             a message "fwDB:218 Failed ..." of priority 3
//   "err fwIptables:574 Unknown policy 7"             of a line number that log readers know it by
//   "debug utils Failed to create path: File exists"  priority 7
//   "6 anything"                                      another priority, or a message of another
//   form
//
// The line number of a call says nothing that a test wants to know, and changes with every edit
// above it. <syslog.h> is not included: a fortified build defines syslog in it.

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "trace.h"

namespace {

// The numbers that messages of the module fwIptables have of their own.
constexpr std::array<const char*, 20> kKnownNumbers = {
    "202", "231", "245", "278", "315", "321", "331", "417", "427", "480",
    "526", "545", "574", "661", "713", "717", "721", "725", "729", "733"};

std::string priorityName(int priority) {
  if (priority == 3) return "err";
  if (priority == 7) return "debug";
  return std::to_string(priority);
}

// "MODULE:LINE TEXT" without ":LINE", unless the number is one that readers know. Other messages
// stay.
std::string withoutLine(const std::string& message) {
  const std::size_t colon = message.find(':');
  const std::size_t blank = message.find(' ');
  if (colon == std::string::npos || blank == std::string::npos || colon == 0 || blank < colon + 2)
    return message;
  const std::string module = message.substr(0, colon);
  const std::string number = message.substr(colon + 1, blank - colon - 1);
  const auto isDigit = [](unsigned char c) { return std::isdigit(c) != 0; };
  if (!std::all_of(number.begin(), number.end(), isDigit)) return message;
  const bool isKnown =
      module == "fwIptables" &&
      std::find(kKnownNumbers.begin(), kKnownNumbers.end(), number) != kKnownNumbers.end();
  return isKnown ? message : module + message.substr(blank);
}

[[gnu::format(printf, 2, 0)]] void record(int priority, const char* format, va_list arguments) {
  char* message = nullptr;
  if (vasprintf(&message, format, arguments) < 0) std::abort();
  trace::add(priorityName(priority) + " " + withoutLine(message));
  std::free(message);
}

}  // namespace

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp): the C
// library's own names, with which fortified callers call it
[[gnu::format(printf, 2, 3)]] void syslog(int priority, const char* format, ...);
[[gnu::format(printf, 2, 0)]] void vsyslog(int priority, const char* format, va_list arguments);
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int flag, const char* format, ...);
[[gnu::format(printf, 3, 0)]] void __vsyslog_chk(int priority, int flag, const char* format,
                                                 va_list arguments);

void vsyslog(int priority, const char* format, va_list arguments) {
  record(priority, format, arguments);
}

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}

void __vsyslog_chk(int priority, int /*flag*/, const char* format, va_list arguments) {
  record(priority, format, arguments);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp)

}  // extern "C"
