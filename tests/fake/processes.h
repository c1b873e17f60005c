// Other processes of a test, and waiting for what threads and processes do.

#ifndef TARNFW_TESTS_FAKE_PROCESSES_H
#define TARNFW_TESTS_FAKE_PROCESSES_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

namespace processes {

// Runs `work` in a process of its own, started at once. Its trace and its assertions stay there:
// what the test is to see, `work` answers.
class Child {
 public:
  explicit Child(const std::function<std::string()>& work);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Waits for the end and gives what `work` answered, "(signal N)" when it was killed.
  std::string answer();

  // The same with a limit: the child that has not ended by then is killed, "(took too long)".
  std::string answerWithin(std::chrono::seconds patience);

 private:
  std::string ended(const std::string& text);

  pid_t process_ = -1;
  int output_ = -1;
};

// Waits until a child of this process has ended, at most so long; after that it is killed and the
// answer is false. Its end is still to be collected.
bool endsInTime(pid_t process, std::chrono::seconds patience);

// Another process that holds the record lock of a lock file, from the constructor on.
class LockHolder {
 public:
  explicit LockHolder(const std::string& lockFile);
  ~LockHolder() { release(); }
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

  void release();

 private:
  pid_t process_ = -1;
};

// Asks until `holds` answers true; false when it has not within a minute.
bool eventually(const std::function<bool()>& holds);

// The record locks that this process holds, as lines of /proc/locks.
std::string locks();

}  // namespace processes

#endif
