// Reading the command line after the table of verbs.

#ifndef TARNFW_TOOLS_COMMANDLINE_H
#define TARNFW_TOOLS_COMMANDLINE_H

#include <string>

#include "verbs.h"

namespace tarnfw {

// What the command line says.
//   verb     what to do, or null: then `text` is what was asked for (help, version), or `error`
//            says what was wrong
//   json     --json is there, wherever that is and however wrong the rest
//   quiet    no notes
//   verbose  debug messages too
struct CommandLine {
  const Verb* verb = nullptr;
  Request request;
  bool json = false;
  bool quiet = false;
  bool verbose = false;
  std::string text;
  std::string error;
};

CommandLine readCommandLine(int argc, const char* const argv[]);

}  // namespace tarnfw

#endif
