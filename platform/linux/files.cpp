// Key/value files:
//
//   # a comment
//   key="value"
//   key=value
//
// Blanks around a line and a carriage return at its end do not count; the value ends at the second
// quote, or at the end of the line when it has no quotes. Where a key stands more than once, the
// last one counts. Values are written in quotes.

#include "files.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <string>

#include "cancellation.h"
#include "error.h"
#include "errorCodes.h"
#include "keyValue.h"
#include "log.h"
#include "textFile.h"

using tarnplatform::errorText;
using tarnplatform::here;
using tarnplatform::isKey;
using tarnplatform::kErrorArgument;
using tarnplatform::kErrorFile;
using tarnplatform::kErrorMemory;
using tarnplatform::readTextFile;
using tarnplatform::replaceTextFile;

namespace {

constexpr size_t kFileLimit = size_t{1024} * 1024;  // bytes
constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kParentMode = 0755;
constexpr char kBlanks[] = " \t\r";

// A line's place in the text: [begin, end), line feed not included.
struct Line {
  size_t begin = std::string::npos;
  size_t end = 0;
};

std::string withoutLeadingBlanks(const std::string& text) {
  const size_t first = text.find_first_not_of(kBlanks);
  return first == std::string::npos ? "" : text.substr(first);
}

std::string trimmed(const std::string& text) {
  const std::string begun = withoutLeadingBlanks(text);
  return begun.substr(0, begun.find_last_not_of(kBlanks) + 1);
}

// The value of a line that sets `key`. Without quotes it reaches to the end of the line, blanks
// included: "yes " is not "yes".
bool readLine(const std::string& line, const std::string& key, std::string* value) {
  const size_t end = !line.empty() && line.back() == '\r' ? line.size() - 1 : line.size();
  const std::string text = withoutLeadingBlanks(line.substr(0, end));
  const size_t equals = text.find('=');
  if (text.empty() || text[0] == '#' || equals == std::string::npos ||
      trimmed(text.substr(0, equals)) != key) {
    return false;
  }
  *value = withoutLeadingBlanks(text.substr(equals + 1));
  if (!value->empty() && value->front() == '"') {
    *value = value->substr(1, value->find('"', 1) - 1);
  }
  return true;
}

// The last line that sets `key`, and its value.
bool findKey(const std::string& text, const std::string& key, Line* found, std::string* value) {
  bool any = false;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    if (readLine(text.substr(begin, end - begin), key, value)) {
      *found = {begin, end};
      any = true;
    }
    begin = end + 1;
  }
  return any;
}

bool isValue(const std::string& value) {
  return value.find_first_of("\"\n\r") == std::string::npos;
}

int fail(int code, int error, int line) {
  TLIBCErrSetEx(code, __FILE__, line);
  errno = error;
  return -1;
}

// Empty when the key is absent.
int readValue(const char* file, const char* key, std::string* value) {
  if (file == nullptr || key == nullptr) {
    return fail(kErrorArgument, EINVAL, __LINE__);
  }
  std::string text;
  if (!readTextFile(file, kFileLimit, &text)) {
    const int error = errno;
    if (error != ENOENT) {
      here().error("%s cannot be read: %s", file, errorText(error));
    }
    return fail(kErrorFile, error, __LINE__);
  }
  Line line;
  if (!findKey(text, key, &line, value)) {
    value->clear();
  }
  return 0;
}

int getValue(const char* file, const char* key, char* buffer, int size) {
  std::string value;
  if (buffer == nullptr || size <= 0) {
    return fail(kErrorArgument, EINVAL, __LINE__);
  }
  if (readValue(file, key, &value) < 0) {
    return -1;
  }
  const size_t room = static_cast<size_t>(size) - 1;
  if (value.size() > room) {
    here().error("%s: the value of %s is cut at %zu bytes", file, key, room);
    value.resize(room);
  }
  if (!value.empty()) {
    memcpy(buffer, value.c_str(), value.size() + 1);
  }
  return static_cast<int>(value.size());
}

int setValue(const char* file, const char* key, const char* value) {
  if (file == nullptr || key == nullptr || value == nullptr) {
    return fail(kErrorArgument, EINVAL, __LINE__);
  }
  if (!isKey(key) || !isValue(value)) {
    here().error("%s: key \"%s\" or its value cannot stand in a key/value file", file, key);
    return fail(kErrorArgument, EINVAL, __LINE__);
  }
  std::string text;
  // A file that must not be trusted is replaced, not read: no user can keep the key from being set.
  if (!readTextFile(file, kFileLimit, &text) && errno != ENOENT && errno != EPERM) {
    const int error = errno;
    here().error("%s cannot be read: %s", file, errorText(error));
    return fail(kErrorFile, error, __LINE__);
  }
  const std::string entry = std::string(key) + "=\"" + value + "\"";
  Line line;
  std::string old;
  if (findKey(text, key, &line, &old)) {
    const bool carriageReturn = line.end > line.begin && text[line.end - 1] == '\r';
    text.replace(line.begin, line.end - line.begin, entry + (carriageReturn ? "\r" : ""));
  } else {
    if (!text.empty() && text.back() != '\n') {
      text += '\n';
    }
    text += entry + '\n';
  }
  if (!replaceTextFile(file, text, kNewFileMode)) {
    const int error = errno;
    here().error("%s cannot be written: %s", file, errorText(error));
    return fail(kErrorFile, error, __LINE__);
  }
  return 0;
}

// True when `path` is a directory of the caller's own, not a link to one.
bool isOwnDirectory(const char* path) {
  struct stat status = {};
  if (lstat(path, &status) != 0) {
    return false;
  }
  if (!S_ISDIR(status.st_mode)) {
    errno = ENOTDIR;
    return false;
  }
  if (status.st_uid != geteuid()) {
    errno = EPERM;
    return false;
  }
  return true;
}

bool makeParents(char* path) {
  for (char* slash = strchr(path + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
    *slash = '\0';
    const bool made = mkdir(path, kParentMode) == 0 || errno == EEXIST;
    *slash = '/';
    if (!made) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool tarnplatform::isKey(const std::string& text) {
  return text == trimmed(text) && text[0] != '#' &&
         text.find_first_of("=\n\r") == std::string::npos;
}

int TLIBCFileGetKeyValue(const char* file, const char* key, char* buffer, int size, int /*flags*/) {
  const tarn::CancellationHold noCancellation;
  try {
    return getValue(file, key, buffer, size);
  } catch (const std::exception&) {
    return fail(kErrorMemory, ENOMEM, __LINE__);
  }
}

int TLIBCFileSetKeyValue(const char* file, const char* key, const char* value, int /*flags*/) {
  const tarn::CancellationHold noCancellation;
  try {
    return setValue(file, key, value);
  } catch (const std::exception&) {
    return fail(kErrorMemory, ENOMEM, __LINE__);
  }
}

int TLIBCFileCheckKeyValue(const char* file, const char* key, const char* value, int /*flags*/) {
  const tarn::CancellationHold noCancellation;
  try {
    std::string found;
    return value != nullptr && readValue(file, key, &found) == 0 && found == value ? 1 : 0;
  } catch (const std::exception&) {
    (void)fail(kErrorMemory, ENOMEM, __LINE__);
    return 0;
  }
}

int TLIBCFileExist(const char* path) {
  struct stat status = {};
  return path != nullptr && lstat(path, &status) == 0 ? 1 : 0;
}

int TARNFSMkdirP(const char* path, int /*reserved1*/, int createParents, int /*reserved2*/,
                 int /*reserved3*/, unsigned int mode) {
  char directory[PATH_MAX];
  const size_t length = path == nullptr ? 0 : strlen(path);
  if (length == 0 || length >= sizeof directory) {
    errno = length == 0 ? EINVAL : ENAMETOOLONG;
    return -1;
  }
  memcpy(directory, path, length + 1);
  // With a slash behind it a link would pass for the directory it leads to.
  for (size_t last = length - 1; last > 0 && directory[last] == '/'; --last) {
    directory[last] = '\0';
  }
  if (createParents != 0 && !makeParents(directory)) {
    return -1;
  }
  if (mkdir(directory, mode) == 0) {
    return 0;
  }
  return errno == EEXIST && isOwnDirectory(directory) ? 0 : -1;
}
