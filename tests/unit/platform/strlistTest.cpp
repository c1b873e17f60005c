// String lists.

#include "strlist.h"

#include <string>

#include "error.h"
#include "platformTest.h"

namespace {

constexpr int kArgumentError = 0x0D00;

class StringList : public PlatformTest {};

// The strings joined by "|".
std::string joined(const TLIBCSZLIST* list) {
  std::string all;
  for (int i = 0; TLIBCSzListGet(list, i) != nullptr; ++i) {
    all += (i == 0 ? "" : "|") + std::string(TLIBCSzListGet(list, i));
  }
  return all;
}

struct CapacityRow {
  int capacity;
  int strings;
};

TEST_F(StringList, GrowsBeyondItsCapacity) {
  for (const CapacityRow& row : {CapacityRow{0, 3}, {1, 1}, {1, 2}, {1024, 1024}, {1024, 5000}}) {
    SCOPED_TRACE(row.strings);
    TLIBCSZLIST* list = TLIBCSzListAlloc(row.capacity);
    ASSERT_NE(nullptr, list);
    EXPECT_EQ(0, list->count);
    EXPECT_EQ(row.capacity, list->capacity);
    std::string expected;
    for (int i = 0; i < row.strings; ++i) {
      ASSERT_EQ(0, TLIBCSzListPush(&list, std::to_string(i).c_str()));
      expected += (i == 0 ? "" : "|") + std::to_string(i);
    }
    EXPECT_EQ(row.strings, list->count);
    EXPECT_EQ(expected, joined(list));
    TLIBCSzListFree(list);
  }
}

TEST_F(StringList, KeepsCopies) {
  TLIBCSZLIST* list = TLIBCSzListAlloc(4);
  std::string text = "xt_mac.ko";
  EXPECT_EQ(0, TLIBCSzListPush(&list, text.c_str()));
  text[0] = 'y';
  EXPECT_EQ(0, TLIBCSzListPush(&list, ""));
  EXPECT_EQ(0, TLIBCSzListPush(&list, text.c_str()));
  EXPECT_EQ("xt_mac.ko||yt_mac.ko", joined(list));
  TLIBCSzListFree(list);
}

TEST_F(StringList, NothingIsOutsideTheList) {
  TLIBCSZLIST* list = TLIBCSzListAlloc(4);
  EXPECT_EQ(0, TLIBCSzListPush(&list, "a"));
  EXPECT_EQ(nullptr, TLIBCSzListGet(list, -1));
  EXPECT_EQ(nullptr, TLIBCSzListGet(list, 1));
  EXPECT_EQ(nullptr, TLIBCSzListGet(nullptr, 0));
  TLIBCSzListFree(list);
  TLIBCSzListFree(nullptr);
}

TEST_F(StringList, UnusableArgumentsSetTheError) {
  TLIBCErrSetEx(0, "", 0);
  EXPECT_EQ(nullptr, TLIBCSzListAlloc(-1));
  EXPECT_EQ(kArgumentError, TLIBCErrGet());
  TLIBCErrSetEx(0, "", 0);
  EXPECT_EQ(nullptr, TLIBCSzListAlloc(2147483647));
  EXPECT_EQ(kArgumentError, TLIBCErrGet());
  TLIBCSZLIST* list = TLIBCSzListAlloc(1);
  TLIBCSZLIST* none = nullptr;
  EXPECT_EQ(-1, TLIBCSzListPush(&list, nullptr));
  EXPECT_EQ(-1, TLIBCSzListPush(&none, "a"));
  EXPECT_EQ(-1, TLIBCSzListPush(nullptr, "a"));
  EXPECT_EQ("", joined(list));
  TLIBCSzListFree(list);
}

}  // namespace
