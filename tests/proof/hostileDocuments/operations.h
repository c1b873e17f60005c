// Every public operation, and which of the places it reads.

#ifndef TARNFW_TESTS_PROOF_HOSTILE_OPERATIONS_H
#define TARNFW_TESTS_PROOF_HOSTILE_OPERATIONS_H

#include <string>
#include <vector>

namespace hostile {

// What an operation is given: the path of the hostile file.
struct Given {
  std::string path;
};

struct Operation {
  const char* name;
  unsigned reads;  // Places
  bool mayThrow;   // the JSON library's exceptions; the C entry points may not
  bool (*run)(const Given& given);
};

const std::vector<Operation>& operations();

}  // namespace hostile

#endif
