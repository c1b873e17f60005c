#include "platformTest.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "linux/execReport.h"

namespace fs = std::filesystem;

void PlatformTest::SetUp() {
  fs::remove_all("/run/tarn");
  fs::remove_all(kScratch);
  fs::create_directory(kScratch);
  (void)trace::take();
  TARNExecReportClear();
  descriptors_ = files::descriptors();
}

void PlatformTest::TearDown() {
  EXPECT_EQ("", trace::take());
  EXPECT_EQ(descriptors_, files::descriptors());
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG | __WALL));
  EXPECT_EQ(ECHILD, errno) << "a child process is left";
}

Arguments::Arguments(std::vector<std::string> words) : words_(std::move(words)) {
  for (std::string& word : words_) pointers_.push_back(word.data());
  pointers_.push_back(nullptr);
}

Arguments shell(const std::string& script) { return Arguments({"/bin/sh", "-c", script}); }

void writeScript(const std::string& path, const std::string& text, mode_t mode) {
  files::write(path, text);
  EXPECT_EQ(0, chmod(path.c_str(), mode)) << path;
}

std::string statusOf(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) return "(absent)";
  char text[64];
  (void)std::snprintf(text, sizeof text, "%06o %ld links, owner %ld",
                      static_cast<unsigned>(status.st_mode), static_cast<long>(status.st_nlink),
                      static_cast<long>(status.st_uid));
  return text;
}

void run(const std::string& command) {
  EXPECT_EQ(0, std::system(command.c_str()))
      << command;  // NOLINT(cert-env33-c): a test's own words
}
