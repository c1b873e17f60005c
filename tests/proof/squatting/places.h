// Root's fixed names, and the operation that uses each of them.

#ifndef TARNFW_TESTS_PROOF_SQUATTING_PLACES_H
#define TARNFW_TESTS_PROOF_SQUATTING_PLACES_H

#include <string>
#include <vector>

namespace squatting {

enum class After {
  kLockFile,   // an empty file of root's, with one link, mode 0600
  kStateFile,  // a file of root's, with one link, mode 0644, that says proof="yes"
  kGone,       // nothing, or a directory of the attacker's
  kUntouched,  // what he put there: root works elsewhere
};

struct Place {
  const char* name;
  const char* path;
  bool fallback;  // the lock directory is the attacker's, so root uses /tmp
  bool (*operation)();
  After after;
};

// Those in directories where every user may make files.
const std::vector<Place>& openPlaces();

const Place& placeOf(const char* name);

// Those in directories of root's, where nobody else can put anything.
const std::vector<std::string>& closedPlaces();

// Makes settings (firewall off) and the profile "road" in 1.json, and takes away what is left of
// earlier rounds.
void reset();

// What `operation` answers in a process of its own: "true" or "false", "(signal 14)" when it took
// ten seconds, and "late" behind it when it took one of those in which it had a processor.
std::string answer(bool (*operation)());

// Whether what is at the place is as it must be, or what is wrong with it; `squat` describes what
// the attacker had put there.
std::string fault(const Place& place, const std::string& squat);

}  // namespace squatting

#endif
