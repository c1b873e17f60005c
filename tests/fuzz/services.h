// The service table of the targets.

#ifndef TARNFW_TESTS_FUZZ_SERVICES_H
#define TARNFW_TESTS_FUZZ_SERVICES_H

#include <vector>

#include "fakePlatform.h"

namespace fuzz {

// Services of every protocol, with source and destination ports, available or not.
const std::vector<fake::Service>& services();

}  // namespace fuzz

#endif
