// What every C entry point needs: nothing that C++ throws may leave it.

#ifndef TARNFW_SRC_CENTRY_H
#define TARNFW_SRC_CENTRY_H

#include <cxxabi.h>

#include <exception>

#include "log.h"

namespace FW {

// Calls `operation` and answers its result; a C caller cannot receive an exception, so it is logged
// from `site` and becomes `failed`. The cancellation of a thread unwinds as an exception too, and
// must go on; it has no object, which the check of references would take for a mistake.
template <class Operation>
__attribute__((no_sanitize("null"))) int guarded(const LogSite& site, const char* entryPoint,
                                                 int failed, Operation operation) {
  try {
    return operation();
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& reason) {
    site.error("Failed to %s: %s", entryPoint, reason.what());
  } catch (...) {
    site.error("Failed to %s: %s", entryPoint, "unknown exception");
  }
  return failed;
}

}  // namespace FW

#endif
