// What the tests of the platform share.

#ifndef TARNFW_TESTS_PLATFORM_PLATFORM_TEST_H
#define TARNFW_TESTS_PLATFORM_PLATFORM_TEST_H

#include <sys/types.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "processes.h"
#include "testFiles.h"
#include "trace.h"

// A directory of the tests' own, in a place where every user may make files.
constexpr char kScratch[] = "/tmp/platform";

// Every test begins with an empty kScratch and without /run/tarn. At its end all log lines have
// been looked at, no descriptor has been left open and no child process is left.
class PlatformTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  std::string descriptors_;
};

// The argument vector of a program.
class Arguments {
 public:
  explicit Arguments(std::vector<std::string> words);
  Arguments(const Arguments& other) : Arguments(other.words_) {}
  Arguments& operator=(const Arguments&) = delete;
  char* const* get() const { return pointers_.data(); }
  const char* path() const { return pointers_.front(); }

 private:
  std::vector<std::string> words_;
  std::vector<char*> pointers_;
};

// The vector that runs `script` in the shell.
Arguments shell(const std::string& script);

// Makes an executable file.
void writeScript(const std::string& path, const std::string& text, mode_t mode = 0755);

// Mode, links and owner of what stands at `path` ("100600 1 links, owner 0"), or "(absent)".
std::string statusOf(const std::string& path);

// Runs a command of the machine and expects it to succeed.
void run(const std::string& command);

#endif
