#include "testFiles.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include <gtest/gtest.h>

namespace files {
namespace {

namespace fs = std::filesystem;

void removeEntries(const std::string& path, bool filesOnly) {
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(path, error)) {
    if (filesOnly && entry.is_directory(error) && !entry.is_symlink(error)) continue;
    fs::remove_all(entry.path());
  }
}

}  // namespace

void write(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  ASSERT_TRUE(file.good()) << "cannot write " << path;
}

std::string read(const std::string& path) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(path, error);
  if (!fs::exists(status)) return "(absent)";
  if (fs::is_directory(status)) return "(directory)";
  if (fs::is_fifo(status)) return "(fifo)";
  std::ifstream file(path, std::ios::binary);
  if (!file) return "(unreadable)";
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<std::string> list(const std::string& path) {
  std::vector<std::string> names;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(path, error)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string listing(const std::string& path) {
  std::string text;
  for (const std::string& name : list(path)) text += (text.empty() ? "" : " ") + name;
  return text;
}

std::string profileDirectory() {
  std::string text;
  for (const std::string& name : list(kProfileDirectory)) {
    text += name + ": " + read(kProfileDirectory + name) + "\n";
  }
  return text;
}

std::string profileDocument(const std::string& name, const std::string& rules,
                            const std::string& policies) {
  return R"({"name": ")" + name + R"(", "rules": )" + rules + R"(, "adapterPolicyMap": )" +
         policies + "}\n";
}

void writeProfile(const std::string& stem, const std::string& name, const std::string& rules,
                  const std::string& policies) {
  write(kProfileDirectory + stem + ".json", profileDocument(name, rules, policies));
}

void writeSettings(const std::string& text) { write(kSettingsFile, text); }

void clear() {
  fs::create_directories(kProfileDirectory);
  removeEntries(kProfileDirectory, /*filesOnly=*/false);
  removeEntries("/var/lock", /*filesOnly=*/false);
  removeEntries("/tmp", /*filesOnly=*/true);
}

std::string descriptors() {
  std::string text;
  for (const std::string& number : list("/proc/self/fd")) {
    std::error_code error;
    const fs::path target = fs::read_symlink("/proc/self/fd/" + number, error);
    if (error) continue;  // the descriptor that listed the directory
    text += (text.empty() ? "" : ", ") + number + " " + target.string();
  }
  return text;
}

FileSizeLimit::FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
  EXPECT_EQ(0, getrlimit(RLIMIT_FSIZE, &before_));
  const rlimit limit = {bytes, before_.rlim_max};
  EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
}

FileSizeLimit::~FileSizeLimit() {
  EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &before_));
  (void)std::signal(SIGXFSZ, handler_);
}

}  // namespace files
