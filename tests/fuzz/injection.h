// One failing file call of the library: the n-th of a kind from now on fails with an error of its
// own. The target is linked with --wrap for each kind.

#ifndef TARNFW_TESTS_FUZZ_INJECTION_H
#define TARNFW_TESTS_FUZZ_INJECTION_H

#include <cstddef>

namespace fuzz {

enum Call { kOpenToWrite, kWrite, kFsync, kRename, kUnlink, kCalls };

// Makes the call number `countdown` (0: the next) of that kind fail with `error`.
void failLater(Call kind, std::size_t countdown, int error);

// Has it failed?
bool hasFailed();

// Nothing fails any more.
void failNothing();

}  // namespace fuzz

#endif
