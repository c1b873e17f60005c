// Printing answers: data on standard output, everything else on standard error.

#ifndef TARNFW_TOOLS_OUTPUT_H
#define TARNFW_TOOLS_OUTPUT_H

#include <string>
#include <vector>

#include <json/value.h>

#include "ops/printable.h"
#include "verbs.h"

namespace tarnfw {

using ops::printable;

// A table: columns as wide as their longest entry, two blanks between them.
std::string table(const std::vector<std::vector<std::string>>& rows);

// The text between the escape sequences of a colour when `colour` is set.
std::string green(const std::string& text, bool colour);
std::string red(const std::string& text, bool colour);

// May standard output be coloured? It is a terminal, and NO_COLOR is not set.
bool colourWanted();

// Prints the answer of the verb `name` (empty before one is known).
//   changes  the verb does something: its document tells whether it did
//   quiet    what failed goes to standard error, remarks do not
// Answers the exit status, kFailed when standard output cannot be written.
int print(const Answer& answer, const std::string& name, bool changes, bool json, bool quiet);

}  // namespace tarnfw

#endif
