// The directory of what lasts until the next boot.

#ifndef TARNFW_OPS_RUNTIMEFILES_H
#define TARNFW_OPS_RUNTIMEFILES_H

namespace ops {

inline constexpr char kRuntimeDirectory[] = "/run/tarn";

// Makes kRuntimeDirectory where it is missing; false with errno set when it cannot be had.
bool makeRuntimeDirectory();

}  // namespace ops

#endif
