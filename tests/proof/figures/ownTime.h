// How long this process itself takes, on a machine that does other things too.

#ifndef TARNFW_TESTS_PROOF_OWN_TIME_H
#define TARNFW_TESTS_PROOF_OWN_TIME_H

namespace figures {

// Milliseconds of the clock less those in which this process has stood ready without a processor:
// other programs do not make an operation slow.
long ownMilliseconds();

}  // namespace figures

#endif
