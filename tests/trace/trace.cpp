#include "trace.h"

#include <mutex>
#include <utility>

namespace trace {
namespace {

std::mutex mutex;
std::string lines;

}  // namespace

void add(const std::string& line) {
  const std::lock_guard<std::mutex> guard(mutex);
  if (!lines.empty()) lines += '\n';
  lines += line;
}

std::string take() {
  const std::lock_guard<std::mutex> guard(mutex);
  return std::exchange(lines, std::string());
}

}  // namespace trace
