// The one trace of a test: what was done, in order, one line each. Log messages, and everything
// that the recording platform is asked, end here, so that a test compares a whole sequence as text.

#ifndef TARNFW_TESTS_TRACE_H
#define TARNFW_TESTS_TRACE_H

#include <string>

namespace trace {

// Appends a line.
void add(const std::string& line);

// The lines since the last call, joined by newlines; the trace is empty afterwards.
std::string take();

}  // namespace trace

#endif
