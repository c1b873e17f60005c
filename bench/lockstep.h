// The library and a bare loop running the same commands in lockstep.

#ifndef TARN_BENCH_LOCKSTEP_H
#define TARN_BENCH_LOCKSTEP_H

#include <functional>
#include <vector>

#include "commandList.h"
#include "pairs.h"

namespace bench {

// Two networks with the library's base chains in both, so that each side has a packet filter of its
// own that fills up like the other's. Construct it before the process has a second thread.
class TwinNetworks {
 public:
  TwinNetworks();
  ~TwinNetworks();
  TwinNetworks(const TwinNetworks&) = delete;
  TwinNetworks& operator=(const TwinNetworks&) = delete;

  // Moves this process: the library runs in the one, the bare loop in the other.
  void enterOurs() const;
  void enterBare() const;
  // Empties INPUT_FIREWALL of both.
  void flushInput() const;

 private:
  int ours_ = -1;
  int bare_ = -1;
};

// What counts as the library's time.
enum class Span {
  kCall,      // the whole call
  kCommands,  // from the start of the first command to the end of the last
};

// Calls `work`, in which the library has to run exactly `commands`. It is stopped at each end of a
// block of ten for the bare loop to run the same ten in the other network, in the order ours bare,
// bare ours, ours bare, ... One pair for each block; what the library does between two blocks
// counts to the later.
Pairs lockstep(const TwinNetworks& networks, const CommandList& commands, Span span,
               const std::function<void()>& work);

}  // namespace bench

#endif
