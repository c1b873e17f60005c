#include "logCapture.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>

namespace tarnfw {
namespace {

constexpr char kProgram[] = "tarnfw";

}  // namespace

void openLog(bool verbose) {
  openlog(kProgram, LOG_PERROR, LOG_USER);
  (void)setlogmask(LOG_UPTO(verbose ? LOG_DEBUG : LOG_INFO));
}

std::vector<std::string> withoutProgramName(std::vector<std::string> lines) {
  const std::string prefix = std::string(kProgram) + ": ";
  for (std::string& line : lines) {
    if (line.compare(0, prefix.size(), prefix) == 0) line.erase(0, prefix.size());
  }
  return lines;
}

LogCapture::LogCapture()
    : collected_(ops::memoryFile("log")), standardError_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
  if (collected_.valid()) (void)dup2(collected_.get(), STDERR_FILENO);
}

std::vector<std::string> LogCapture::lines() {
  if (!collected_.valid()) return {};
  (void)std::fflush(stderr);
  (void)dup2(standardError_.get(), STDERR_FILENO);
  std::vector<std::string> lines = ops::linesOf(ops::contents(collected_));
  collected_.reset();
  return withoutProgramName(std::move(lines));
}

}  // namespace tarnfw
