// An unprivileged user who puts things where root's fixed names are, and what he would like root to
// spoil for him.

#ifndef TARNFW_TESTS_PROOF_SQUATTING_ATTACKER_H
#define TARNFW_TESTS_PROOF_SQUATTING_ATTACKER_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace squatting {

inline constexpr uid_t kAttacker = 65534;

// Files, a FIFO and directories of root's and of others: /etc/victims, and the attacker's own
// directory /tmp/attacker, both made anew.
void makeVictims();

// What there is to see of them: every name with type, mode, owner, size, time of change, and text.
std::string victims();

// The same of one path, a directory with all that is in it. Links are not followed.
std::string description(const std::string& path);

// What stands at a path now, wherever it is moved and whether it keeps a name.
class Kept {
 public:
  explicit Kept(const char* path);
  ~Kept();
  Kept(const Kept&) = delete;
  Kept& operator=(const Kept&) = delete;

  std::string description() const;

 private:
  int fd_;
};

// What can stand in root's way.
struct Squat {
  const char* name;
  int (*make)(const char* path);  // 0, or -1 with errno
  bool foreignFile;  // a hard link to a file that its maker may not write: the kernel may refuse it
};

const std::vector<Squat>& squats();
const Squat& squatOf(const char* name);

// `work` in a process of the attacker's: 0, or errno when it answers -1.
int asAttacker(const std::function<int()>& work);

// A process of the attacker's that does `work` for ever, from the time on that `ready` holds, or at
// once.
class Attack {
 public:
  // `work` returns when it has prepared what it wants to hold; 0, or -1 with errno.
  static Attack holding(const std::function<int()>& work);
  // `work` is done again and again.
  static Attack repeating(const std::function<void()>& work);

  ~Attack();
  Attack(Attack&& other) noexcept : process_(other.process_), error_(other.error_) {
    other.process_ = -1;
  }
  Attack(const Attack&) = delete;
  Attack& operator=(const Attack&) = delete;
  Attack& operator=(Attack&&) = delete;

  int error() const { return error_; }  // of the preparation

 private:
  Attack(const std::function<int()>& prepare, const std::function<void()>& work);

  pid_t process_ = -1;
  int error_ = 0;
};

}  // namespace squatting

#endif
