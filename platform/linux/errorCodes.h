// Codes of the platform error state that this platform raises.

#ifndef TARN_PLATFORM_LINUX_ERRORCODES_H
#define TARN_PLATFORM_LINUX_ERRORCODES_H

namespace tarnplatform {

constexpr int kErrorMemory = 0x0200;    // no memory left
constexpr int kErrorFile = 0x0400;      // a file cannot be read, written or trusted
constexpr int kErrorSystem = 0x0500;    // the kernel refused something else
constexpr int kErrorArgument = 0x0D00;  // an argument is out of its range

}  // namespace tarnplatform

#endif
