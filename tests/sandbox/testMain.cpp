// The main of the test programs. They work at the real paths of the library, so they refuse to run
// where those are the machine's own.

#include <unistd.h>

#include <cstdio>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests) && access("/run/tarn-sandbox", F_OK) != 0) {
    (void)std::fprintf(stderr, "%s writes to /usr/tarn, /tmp and /run: run it as tarn-sandbox %s\n",
                       argv[0], argv[0]);
    return 1;
  }
  return RUN_ALL_TESTS();
}
