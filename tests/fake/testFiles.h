// Files and directories of a test.

#ifndef TARNFW_TESTS_FAKE_TEST_FILES_H
#define TARNFW_TESTS_FAKE_TEST_FILES_H

#include <sys/resource.h>

#include <string>
#include <vector>

namespace files {

inline constexpr char kProfileDirectory[] = "/usr/tarn/etc/firewall.d/";
inline constexpr char kLockDirectory[] = "/var/lock/firewall/";
inline constexpr char kSettingsFile[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";

// Replaces the file by `text`. The test fails when that is not possible.
void write(const std::string& path, const std::string& text);

// The whole file, or "(absent)", "(directory)", "(fifo)", "(unreadable)".
std::string read(const std::string& path);

// The names in a directory, sorted; empty when there is no such directory.
std::vector<std::string> list(const std::string& path);

// The same as one text, joined by blanks.
std::string listing(const std::string& path);

// Every file of the profile directory with its text: "NAME: TEXT", one after the other.
std::string profileDirectory();

// The text of a profile document; rules and policies are JSON texts.
std::string profileDocument(const std::string& name, const std::string& rules = "null",
                            const std::string& policies = "null");

// Writes the profile `name` to STEM.json of the profile directory.
void writeProfile(const std::string& stem, const std::string& name,
                  const std::string& rules = "null", const std::string& policies = "null");

// Writes the settings document.
void writeSettings(const std::string& text);

// Removes all that is in the profile and the lock directory, and the files in /tmp; makes the
// profile directory when it is missing.
void clear();

// Numbers and targets of the process's open descriptors: "0 /dev/null, 1 pipe:[77], ...".
std::string descriptors();

// While it lives, files can be written up to `bytes`; a write beyond gives EFBIG.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes);
  ~FileSizeLimit();
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit before_ = {};
  void (*handler_)(int);
};

}  // namespace files

#endif
