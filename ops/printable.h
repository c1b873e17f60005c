// Text that is safe to show on a terminal.

#ifndef TARNFW_OPS_PRINTABLE_H
#define TARNFW_OPS_PRINTABLE_H

#include <string>

namespace ops {

// The text with control characters written as \xNN: names come from files and must not move the
// cursor. Those are the bytes below a blank, DEL, and in UTF-8 the characters U+0080 to U+009F,
// which a terminal may take for the beginning of a sequence.
std::string printable(const std::string& text);

}  // namespace ops

#endif
