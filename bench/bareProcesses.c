#include "bareProcesses.h"

#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

int bareRun(char* const* const* commands, size_t count) {
  for (size_t index = 0; index < count; ++index) {
    char* const* argv = commands[index];
    pid_t process;
    int status;
    if (posix_spawn(&process, argv[0], NULL, NULL, argv, environ) != 0) return -1;
    if (waitpid(process, &status, 0) != process || status != 0) return -1;
  }
  return 0;
}

int forkRun(char* const* const* commands, size_t count) {
  for (size_t index = 0; index < count; ++index) {
    char* const* argv = commands[index];
    int status;
    const pid_t process = fork();
    if (process == 0) {
      execv(argv[0], argv);
      _exit(127);
    }
    if (waitpid(process, &status, 0) != process || status != 0) return -1;
  }
  return 0;
}
