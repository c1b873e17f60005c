// Runs iptables and ip6tables so that no rule is lost to another program that changes rules
// meanwhile.

#ifndef TARN_PLATFORM_LINUX_PACKETFILTERTOOL_H
#define TARN_PLATFORM_LINUX_PACKETFILTERTOOL_H

#include "runProgram.h"

namespace tarnrun {

// "/sbin/iptables" and "/sbin/ip6tables".
bool isPacketFilterTool(const char* path) noexcept;

// Runs a tool of the packet filter; `program` as for runProgram, its environment and process group
// are set here. A descriptor given as `output` is a file that can be read back and cut: the output
// of an attempt that is repeated does not stay in it.
//
// The releases of the tool differ in what they do while another program holds the lock on
// /run/xtables.lock: lose the rule, wait for ever or fail. So the lock is taken here, for at most
// 30 seconds, and the tool is given another lock file; without the lock it is left to its own
// locking. A run that ends with status 4 and the words of a held lock changed nothing and is
// repeated, at most 20 times.
Outcome runPacketFilterTool(const Program& program);

}  // namespace tarnrun

#endif
