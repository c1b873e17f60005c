// What the device model can do.

#include "model.h"

#include <filesystem>
#include <string>

#include "platformTest.h"

namespace {

constexpr char kModel[] = "/etc.defaults/tarninfo.conf";

class Model : public PlatformTest {};

struct ModelRow {
  const char* text;
  bool wireless;
};

TEST_F(Model, HasWhatItsFileSaysYesTo) {
  const ModelRow rows[] = {
      {"support_wireless=\"yes\"\n", true},
      {"support_wireless=yes\n", true},
      {"support_wireless=\"no\"\n", false},
      {"support_wireless=\"YES\"\n", false},
      {"support_wired=\"yes\"\n", false},
      {"#support_wireless=\"yes\"\n", false},
      {"", false},
  };
  for (const ModelRow& row : rows) {
    SCOPED_TRACE(row.text);
    files::write(kModel, row.text);
    EXPECT_EQ(row.wireless, TLIBCSupportGet("support_wireless") != 0);
  }
}

TEST_F(Model, WithoutFileHasNothing) {
  std::filesystem::remove(kModel);
  EXPECT_EQ(0, TLIBCSupportGet("support_wireless"));
  EXPECT_EQ(0, TLIBCSupportGet(nullptr));
}

TEST_F(Model, ShippedFileHasNoWireless) {
  files::write(kModel, files::read(PLATFORM_DATA "/tarninfo.conf"));
  EXPECT_EQ(0, TLIBCSupportGet("support_wireless"));
}

}  // namespace
