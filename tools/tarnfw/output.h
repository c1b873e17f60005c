// Printing answers: data on standard output, everything else on standard error.

#ifndef TARNFW_TOOLS_OUTPUT_H
#define TARNFW_TOOLS_OUTPUT_H

#include <string>
#include <vector>

#include <json/value.h>

#include "verbs.h"

namespace tarnfw {

// The text with control characters written as \xNN: names come from files and must not move the
// cursor.
std::string printable(const std::string& text);

// A table: columns as wide as their longest entry, two blanks between them.
std::string table(const std::vector<std::vector<std::string>>& rows);

// The text between the escape sequences of a colour when `colour` is set.
std::string green(const std::string& text, bool colour);
std::string red(const std::string& text, bool colour);

// May standard output be coloured? It is a terminal, and NO_COLOR is not set.
bool colourWanted();

// Prints the answer of the verb `name` (empty before one is known).
//   changes  the verb does something: its document tells whether it did
// Answers the exit status, kFailed when standard output cannot be written.
int print(const Answer& answer, const std::string& name, bool changes, bool json, bool quiet);

}  // namespace tarnfw

#endif
