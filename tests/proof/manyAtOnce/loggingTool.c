/* Stands in for /sbin/iptables and /sbin/ip6tables where only the order of the commands counts:
 * adds each command to /tmp/commands, one a line, in one write ("iptables -F INPUT_FIREWALL"), and
 * succeeds. Plain C, linked statically: the suites run it ten thousand times. */

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

enum { kBroken = 99 }; /* a status that no test expects */

int main(int argc, char** argv) {
  char line[4096];
  size_t used = 0;
  const char* const slash = strrchr(argv[0], '/');
  if (slash != NULL) argv[0] += slash - argv[0] + 1;
  for (int index = 0; index < argc; ++index) {
    const size_t length = strlen(argv[index]);
    if (length + 1 > sizeof line - used) return kBroken;
    memcpy(line + used, argv[index], length);
    used += length;
    line[used++] = index + 1 < argc ? ' ' : '\n';
  }
  const int fd = open("/tmp/commands", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0 || write(fd, line, used) != (ssize_t)used) return kBroken;
  return 0;
}
