// The callers of this proof, one process each, and what is looked at when they have ended.

#ifndef TARNFW_TESTS_PROOF_EXCEPTIONS_ATTEMPT_H
#define TARNFW_TESTS_PROOF_EXCEPTIONS_ATTEMPT_H

#include <exception>
#include <string>
#include <vector>

#include "machine.h"
#include "surroundings.h"

namespace exceptions {

using Operation = int (*)();

int reload();
int trial();  // with an address

// What a caller comes to when an exception is thrown.
enum class End {
  kSees,     // catches it
  kDies,     // the runtime ends the process
  kAnswers,  // the C interface's failure value
  kIsCancelled,
};

struct Caller {
  const char* name;
  void (*call)(Operation operation);
  End end;
};

struct Attempt {
  Caller caller;
  Operation operation;
  std::string name;
};

// Every caller with every operation that it can reach.
std::vector<Attempt> attempts();

// A thread that may be cancelled, with both operations and one of the C interface.
std::vector<Attempt> cancelledThreads();

// The exception that `operation` throws: "TYPE: TEXT".
std::string thrownBy(Operation operation);

// A profile "office" that is active and switched on, and its test profile.
class ExceptionTest : public road::RoadTest {
 protected:
  void SetUp() override;

  static void writeDocuments();

  // One caller under the harm that is arranged, with `how` in messages. `exception`: what is
  // thrown, "TYPE: TEXT". `mayReturn`: the harm may also be borne without an exception. Answers
  // whether it came to the harm at all.
  static bool attempt(const Attempt& what, const std::string& exception, bool mayReturn, bool real,
                      const std::string& how);
};

}  // namespace exceptions

#endif
