#include "documentReads.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>

#include "report.h"

namespace bench {

int documentReads(const std::string& path, const std::function<void()>& work) {
  const int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  // Closing is watched too: the kernel makes one event of several equal ones in a row.
  require(fd >= 0 && inotify_add_watch(fd, path.c_str(), IN_OPEN | IN_CLOSE) >= 0,
          "cannot watch " + path);
  work();
  std::array<char, 4096> events;
  const ssize_t length = read(fd, events.data(), events.size());
  (void)close(fd);

  int opened = 0;
  inotify_event event = {};
  for (ssize_t at = 0; at < length; at += static_cast<ssize_t>(sizeof event + event.len)) {
    std::memcpy(&event, &events[static_cast<std::size_t>(at)], sizeof event);
    if ((event.mask & IN_OPEN) != 0) ++opened;
  }
  require(opened > 0, path + " is not read");
  return opened;
}

}  // namespace bench
