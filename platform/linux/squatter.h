// What is said about things that users have put at the platform's names.

#ifndef TARN_PLATFORM_LINUX_SQUATTER_H
#define TARN_PLATFORM_LINUX_SQUATTER_H

#include <errno.h>
#include <sys/types.h>

#include "log.h"

namespace tarnplatform {

// A tarn::Report.
inline void saySquatter(const char* path, uid_t owner, const char* became) {
  here().error("%s: something of user %u stood in the way: %s", path, owner,
               became != nullptr ? became : errorText(errno));
}

}  // namespace tarnplatform

#endif
