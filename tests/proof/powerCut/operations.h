// The operations whose documents a power cut must not take, each numbered: number n leaves
// something behind that tells n, and is long enough to be torn.

#ifndef TARNFW_TESTS_PROOF_POWER_CUT_OPERATIONS_H
#define TARNFW_TESTS_PROOF_POWER_CUT_OPERATIONS_H

#include <string>
#include <vector>

namespace operations {

// What of an operation a directory holds: the number of the one that is there in full; kNone
// without its document; kDamaged when the document is empty, torn or mixed.
inline constexpr int kNone = -1;
inline constexpr int kDamaged = -2;

//   run    does number n; true when it says that it is done
//   found  looks for it in `directory`, a profile directory
//   isNew  makes another document each time; otherwise one is replaced
struct Operation {
  const char* name;
  bool isNew;
  bool (*run)(int number);
  int (*found)(const std::string& directory, int number);
};

// The library's.
extern const std::vector<Operation> kAll;

// What a program does that does not know better: writes, closes and renames, and flushes nothing.
// One replaces a document, the other makes a new one.
extern const std::vector<Operation> kCareless;

// By name, of either; a null pointer without one.
const Operation* find(const std::string& name);

}  // namespace operations

#endif
