// Files in memory, and their lines.

#ifndef TARNFW_OPS_MEMORYFILE_H
#define TARNFW_OPS_MEMORYFILE_H

#include <string>
#include <vector>

#include "descriptor.h"

namespace ops {

using tarn::Descriptor;

// A file that has no name and lives in memory, close-on-exec. Not valid when the system has no room
// for it.
Descriptor memoryFile(const char* label);

// What was written to a file so far, from its start; cut after 64 MiB.
std::string contents(const Descriptor& file);

// The lines of a text, without their line feeds.
std::vector<std::string> linesOf(const std::string& text);

}  // namespace ops

#endif
