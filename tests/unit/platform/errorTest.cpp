// The last platform error of a thread.

#include "error.h"

#include <string>
#include <thread>

#include "platformTest.h"

namespace {

class LastError : public PlatformTest {};

std::string lastError() {
  return std::to_string(TLIBCErrGet()) + " " + TLIBCErrorGetFile() + ":" +
         std::to_string(TLIBCErrorGetLine());
}

TEST_F(LastError, BelongsToItsThread) {
  TLIBCErrSetEx(0x0D00, "a.cpp", 12);
  std::string other;
  std::thread thread([&other] {
    other = lastError();
    TLIBCErrSetEx(1, "b.cpp", 2);
    other += ", " + lastError();
  });
  thread.join();
  EXPECT_EQ("0 :0, 1 b.cpp:2", other);
  EXPECT_EQ("3328 a.cpp:12", lastError());
}

TEST_F(LastError, FileIsNeverNull) {
  TLIBCErrSetEx(7, nullptr, 3);
  EXPECT_EQ("7 :3", lastError());
}

}  // namespace
