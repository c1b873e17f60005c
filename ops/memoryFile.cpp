#include "memoryFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <sstream>

namespace ops {
namespace {

constexpr std::size_t kReadLimit = std::size_t{64} * 1024 * 1024;  // bytes

}  // namespace

Descriptor memoryFile(const char* label) { return Descriptor(memfd_create(label, MFD_CLOEXEC)); }

std::string contents(const Descriptor& file) {
  std::string text;
  char buffer[16384];
  while (text.size() < kReadLimit) {
    const ssize_t length =
        pread(file.get(), buffer, sizeof buffer, static_cast<off_t>(text.size()));
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;
    text.append(buffer, static_cast<std::size_t>(length));
  }
  return text;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(std::move(line));
  return lines;
}

}  // namespace ops
