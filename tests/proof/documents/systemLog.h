// The system log of the work under supervision: kept in the process. It asks the kernel and the
// allocator for nothing, so that neither a call nor an allocation of its own is harmed.

#ifndef TARNFW_TESTS_PROOF_SYSTEM_LOG_H
#define TARNFW_TESTS_PROOF_SYSTEM_LOG_H

namespace systemLog {

// Has a message that contains `text` been logged by this process?
bool has(const char* text);

}  // namespace systemLog

#endif
