// Scans of the profile directory that fail from a given one on. Including this file replaces the
// C library's glob() in a test program; one file of a program includes it.

#ifndef TARNFW_TESTS_UNIT_FAILINGSCANS_H
#define TARNFW_TESTS_UNIT_FAILINGSCANS_H

#include <dlfcn.h>
#include <glob.h>

#include <limits>

namespace scans {

inline constexpr int kAll = std::numeric_limits<int>::max();

// How many more scans find what is there.
inline int left = kAll;

// Lets `count` scans through and has the later ones fail, until the guard goes out of scope.
class FailAfter {
 public:
  explicit FailAfter(int count) { left = count; }
  ~FailAfter() { left = kAll; }
  FailAfter(const FailAfter&) = delete;
  FailAfter& operator=(const FailAfter&) = delete;
};

}  // namespace scans

extern "C" int glob(const char* pattern, int flags, int (*onError)(const char* path, int error),
                    glob_t* matches) noexcept(noexcept(::glob(pattern, flags, onError, matches))) {
  using Glob = int (*)(const char*, int, int (*)(const char*, int), glob_t*);
  static const auto kGlob = reinterpret_cast<Glob>(dlsym(RTLD_NEXT, "glob"));
  if (scans::left <= 0) return GLOB_ABORTED;
  --scans::left;
  return kGlob(pattern, flags, onError, matches);
}

#endif
