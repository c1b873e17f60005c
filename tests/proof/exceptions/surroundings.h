// What stands between the library and its surroundings in this proof: memory, and the running of
// the packet filter's tools. Both are put in place of the real ones by their names, so the library
// is the one that ships.
//
// Everything here is in memory that parent and child share: a caller that the runtime ends leaves
// behind what happened.

#ifndef TARNFW_TESTS_PROOF_EXCEPTIONS_SURROUNDINGS_H
#define TARNFW_TESTS_PROOF_EXCEPTIONS_SURROUNDINGS_H

#include <string>

namespace surroundings {

// What happens to a caller.
enum class Harm {
  kNone,
  kDocuments,    // when the chains are flushed, the documents become those of kPreparedDirectory
  kAllocation,   // the n-th allocation from the first command of the drop period on fails
  kAllocations,  // it and all after it fail
  kCancel,       // at the n-th allocation from there on the thread is cancelled
};

inline constexpr char kPreparedDirectory[] = "/usr/tarn/etc/prepared/";

// What is to happen to the next caller. `real`: the commands are run, not only recorded.
void arrange(Harm harm, long number, bool real);

// No more harm from here on.
void disarm();

// Did it happen? Inside the drop period, which ends when all policies are open again?
bool happened();
bool happenedInside();

// What the recorded commands leave: "iptables INPUT ACCEPT FORWARD ACCEPT FIREWALL_RELOADING 0
// ip6tables ...".
std::string recordedFilter();
extern const char kOpenFilter[];

// Was a drop period begun?
bool shut();

// A place for what a caller has to tell, of which only the beginning is kept.
void tell(const char* text);
std::string told();

}  // namespace surroundings

#endif
