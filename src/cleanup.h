// Runs a function when its scope is left.

#ifndef TARNFW_SRC_CLEANUP_H
#define TARNFW_SRC_CLEANUP_H

#include <utility>

namespace FW {

template <class Function>
class Cleanup {
 public:
  explicit Cleanup(Function function) : function_(std::move(function)) {}
  ~Cleanup() { function_(); }
  Cleanup(const Cleanup&) = delete;
  Cleanup& operator=(const Cleanup&) = delete;

 private:
  Function function_;
};

}  // namespace FW

#endif
