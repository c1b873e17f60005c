/* A library that leaves a mark in every program that loads it. */

#include <fcntl.h>
#include <unistd.h>

__attribute__((constructor)) static void mark(void) {
  const int fd = open("/tmp/poison/mark", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd >= 0) (void)close(fd);
}
