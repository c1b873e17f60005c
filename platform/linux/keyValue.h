// What may stand as a key in a key/value file. The names of services must be such keys.

#ifndef TARN_PLATFORM_LINUX_KEYVALUE_H
#define TARN_PLATFORM_LINUX_KEYVALUE_H

#include <string>

namespace tarnplatform {

// A line's text up to its "=", without blanks around it. May be empty.
bool isKey(const std::string& text);

}  // namespace tarnplatform

#endif
