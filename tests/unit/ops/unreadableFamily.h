// A tool of the packet filter that does not list its tables, as on a machine without IPv6, and does
// all the rest.

#ifndef TARNFW_TESTS_UNIT_OPS_UNREADABLEFAMILY_H
#define TARNFW_TESTS_UNIT_OPS_UNREADABLEFAMILY_H

#include <string>

#include <gtest/gtest.h>

#include "machine.h"

class UnreadableFamily {
 public:
  // tool  "iptables" or "ip6tables"
  explicit UnreadableFamily(const std::string& tool) : link_("/etc/alternatives/" + tool) {
    const std::string script =
        "#!/bin/sh\n[ \"$1\" = -S ] && { echo no such family; exit 3; }\nexec ";
    EXPECT_EQ(machine::run("mv " + link_ + " " + link_ + "-gone").status, 0);
    machine::write(link_,
                   script + machine::run("readlink -n " + link_ + "-gone").out + " \"$@\"\n");
    EXPECT_EQ(machine::run("chmod 755 " + link_).status, 0);
  }
  ~UnreadableFamily() { EXPECT_EQ(machine::run("mv " + link_ + "-gone " + link_).status, 0); }
  UnreadableFamily(const UnreadableFamily&) = delete;
  UnreadableFamily& operator=(const UnreadableFamily&) = delete;

 private:
  std::string link_;
};

#endif
