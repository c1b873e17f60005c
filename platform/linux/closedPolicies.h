// The built-in policies that programs of this system have closed and not opened again. Each is an
// empty file:
//
//   /run/tarn/closed_policy.iptables.INPUT.4026531840
//
// named after the tool, the chain and the inode number of the network namespace, which has policies
// of its own; 0 where /proc does not tell. It is made before the tool sets the policy to DROP, and
// removed when the tool has set it to ACCEPT, or has refused to close it and nobody had before. A
// program that is killed in between, whatever program it is, leaves it behind; DROP policies
// without it are somebody else's. The notes of other namespaces are neither read nor removed.

#ifndef TARN_PLATFORM_LINUX_CLOSEDPOLICIES_H
#define TARN_PLATFORM_LINUX_CLOSEDPOLICIES_H

namespace tarnrun {

// What a run of a tool of the packet filter does to the policy of INPUT or FORWARD, told from its
// arguments. Other runs do nothing to it, and nothing is noted.
//
//   PolicyNote note(argv);
//   note.before();
//   ... run ...
//   note.after(status);
//
// Where the xtables lock is held from before() to after(), nobody else closes the policy meanwhile.
//   status  the exit status, negative when it did not end by itself
class PolicyNote {
 public:
  explicit PolicyNote(char* const argv[]) noexcept;

  void before() noexcept;
  void after(int status) const noexcept;

 private:
  enum class Effect { kNone, kCloses, kOpens };
  Effect effect_ = Effect::kNone;
  const char* tool_;
  const char* chain_;
  bool created_ = false;  // by before(): no note was there
};

// Is the policy of `chain` (INPUT, FORWARD) noted as closed by us?
//   tool  "/sbin/iptables" or "/sbin/ip6tables"
bool isNotedAsClosed(const char* tool, const char* chain) noexcept;

// Drops a note that has nothing to tell any more, as somebody has opened the policy by hand. One
// that is younger than a minute stays: its tool may be on the way.
void forgetOldNote(const char* tool, const char* chain) noexcept;

}  // namespace tarnrun

#endif
