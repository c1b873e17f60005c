// Differences between two lists of lines.

#ifndef TARNFW_OPS_TEXTDIFF_H
#define TARNFW_OPS_TEXTDIFF_H

#include <string>
#include <vector>

namespace ops {

// The lines that only one of the two has, in order: "-" + line for those of `before`, "+" + line
// for those of `after`. Empty when the two are the same.
std::vector<std::string> differences(const std::vector<std::string>& before,
                                     const std::vector<std::string>& after);

}  // namespace ops

#endif
