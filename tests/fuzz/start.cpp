// What every target does before its first input. The fuzzer and the replay call it.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  if (access("/run/tarn-sandbox", F_OK) != 0) {
    (void)std::fprintf(stderr, "%s writes to /usr/tarn, /tmp and /run: run it in tarn-sandbox\n",
                       (*argv)[0]);
    std::exit(1);
  }
  // The recording platform reports a broken contract as a failed expectation: that is a finding.
  testing::GTEST_FLAG(break_on_failure) = true;
  return 0;
}
