// The packet filter's two tools as far as a reload matters: the policies of the built-in chains and
// the accept that it adds to FIREWALL_RELOADING.

#ifndef TARNFW_TESTS_FUZZ_PACKET_FILTER_H
#define TARNFW_TESTS_FUZZ_PACKET_FILTER_H

#include <map>
#include <string>

namespace fuzz {

class PacketFilter {
 public:
  // What the recording platform is to do with a command line; always answers 0, success.
  int run(const std::string& commandLine) {
    const std::string tool = commandLine.substr(0, commandLine.find(' '));
    for (const char* chain : {"INPUT", "FORWARD"}) {
      const std::string policy = tool + " --policy " + chain + " ";
      if (commandLine == policy + "DROP") {
        dropping_[tool + chain] = true;
        ++drops_;
      }
      if (commandLine == policy + "ACCEPT") dropping_.erase(tool + chain);
    }
    const std::string rest = " FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT";
    if (commandLine == tool + " -A" + rest) ++stale_[tool];
    if (commandLine == tool + " -D" + rest && --stale_[tool] == 0) stale_.erase(tool);
    return 0;
  }

  bool open() const { return dropping_.empty() && stale_.empty(); }
  // How many policies were set to DROP: four a reload.
  int drops() const { return drops_; }

 private:
  std::map<std::string, bool> dropping_;
  std::map<std::string, int> stale_;
  int drops_ = 0;
};

}  // namespace fuzz

#endif
