// The operations of the library that write documents, each with what the documents are afterwards.

#ifndef TARNFW_TESTS_PROOF_OPERATIONS_H
#define TARNFW_TESTS_PROOF_OPERATIONS_H

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "store.h"

namespace operations {

inline constexpr char kAbsent[] = "(absent)";

struct Operation {
  const char* name;
  std::function<bool()> run;    // true as the operation says; throws Untrue when it says so wrongly
  store::Documents before;      // documents beside those of the store's beginning
  store::Documents changes;     // the documents that are another text afterwards, or absent
  store::Documents between;     // texts that a document may have meanwhile, beside old and new
  const char* once = nullptr;   // a repetition is refused when this document is changed already
  bool everyProfile = false;    // reads and writes all profiles
  bool alwaysTrue = false;      // stated so: true, though the file may not be removed
  const char* spare = nullptr;  // true, though this document may not be written: a note of the
                                // platform's, without which a module only stays in the kernel
};

void PrintTo(const Operation& operation, std::ostream* out);

const std::vector<Operation>& all();

// What the documents are before and after the operation.
store::Documents before(const Operation& operation);
store::Documents after(const Operation& operation);

// What `documents` has in common with neither the beginning, nor the texts between, nor the end of
// the operation: "PATH: TEXT" for each such document. Empty when nothing is damaged.
std::string damage(const Operation& operation, const store::Documents& documents);

// The same, if a profile may also stand in a second file: one that was passed over when its first
// file could not be read, and written anew.
std::string damageBesideTwin(const Operation& operation, store::Documents documents);

// Is the document `path` that text, or such a second file? kAbsent: is there none?
bool standsIn(const store::Documents& documents, const std::string& path, const std::string& text);

// What differs from one state, in the same form.
std::string difference(const store::Documents& expected, const store::Documents& documents);

// Runs the operation: "true", "false", or how it left: "JSON exception", "lock exception",
// "bad_alloc". Anything else that it may not do is another answer.
std::string answer(const Operation& operation);
bool isException(const std::string& answer);  // one of the three

// Two operations more: a member "note" of the settings, and an edit that writes every profile anew.
// "true true" when both say so.
std::string further();

// What `documents` are after these two.
store::Documents afterFurther(store::Documents documents);

}  // namespace operations

#endif
