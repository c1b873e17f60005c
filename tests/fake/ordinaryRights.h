// Root without root's rights over files.

#ifndef TARNFW_TESTS_FAKE_ORDINARY_RIGHTS_H
#define TARNFW_TESTS_FAKE_ORDINARY_RIGHTS_H

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace fake {

// While it lives, root has none of its rights over other users' files.
class OrdinaryRights {
 public:
  OrdinaryRights() {
    EXPECT_EQ(0, syscall(SYS_capget, &header_, before_));
    __user_cap_data_struct fewer[2] = {before_[0], before_[1]};
    fewer[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
    EXPECT_EQ(0, syscall(SYS_capset, &header_, fewer));
  }
  ~OrdinaryRights() { EXPECT_EQ(0, syscall(SYS_capset, &header_, before_)); }
  OrdinaryRights(const OrdinaryRights&) = delete;
  OrdinaryRights& operator=(const OrdinaryRights&) = delete;

 private:
  __user_cap_header_struct header_ = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct before_[2] = {};
};

}  // namespace fake

#endif
