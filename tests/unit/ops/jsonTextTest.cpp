#include "ops/jsonText.h"

#include <string>

#include <gtest/gtest.h>

namespace {

struct Row {
  const char* name;
  const char* text;
  bool parses;
  const char* compact;
};

constexpr Row kRows[] = {
    {"Object", R"({"b": [1, true], "a": null})", true, R"({"a":null,"b":[1,true]})"},
    {"Text", R"("a\tb")", true, R"("a\tb")"},
    {"Nothing", "", false, ""},
    {"CutOff", "{", false, ""},
    {"Words", "no document", false, ""},
};

TEST(JsonText, Rows) {
  for (const Row& row : kRows) {
    Json::Value document;
    EXPECT_EQ(ops::parseJson(row.text, document), row.parses) << row.name;
    if (!row.parses) continue;
    EXPECT_EQ(ops::compactJson(document), row.compact) << row.name;
  }
}

TEST(JsonText, StyledLikeStoredDocuments) {
  Json::Value document;
  document["name"] = "office";
  document["rules"] = Json::Value();
  EXPECT_EQ(ops::styledJson(document), "{\n   \"name\" : \"office\",\n   \"rules\" : null\n}\n");
}

TEST(JsonText, TooDeepIsThrown) {
  Json::Value document;
  EXPECT_THROW((void)ops::parseJson(std::string(2000, '['), document), Json::Exception);
}

}  // namespace
