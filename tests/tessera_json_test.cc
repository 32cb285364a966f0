// The borrow members' JSON reader: structure, the escapes and permissive endings the bank tools
// rely on, and the exact reader messages.
#include <gtest/gtest.h>

#include <string>

#include "le/tessera/le_bundle_tessera.h"
#include "tests/bundle_fixture.h"

namespace {

using le::tessera::json::JParser;
using le::tessera::json::JVal;
using le::testing::thrown;

JVal parse(const std::string& t) { return JParser(t).parse(); }

TEST(TesseraJson, TreeKindsOrderAndDuplicates) {
  const JVal v = parse(" \r\n\t{\"a\": [1, -2.5e1, true, false, null, \"x\"], \"o\": {}, \"a\": 7, \"e\": []}");
  ASSERT_EQ(v.kind, JVal::Object);
  ASSERT_EQ(v.obj.size(), 4u);
  EXPECT_EQ(v.obj[2].first, "a");  // duplicates are kept in document order
  const JVal* a = v.get("a");      // ... and the first wins a lookup
  ASSERT_TRUE(a && a->isArray());
  ASSERT_EQ(a->arr.size(), 6u);
  EXPECT_EQ(a->arr[0].num, 1.0);
  EXPECT_EQ(a->arr[1].num, -25.0);
  EXPECT_EQ(a->arr[2].kind, JVal::Bool);
  EXPECT_TRUE(a->arr[2].b);
  EXPECT_FALSE(a->arr[3].b);
  EXPECT_EQ(a->arr[4].kind, JVal::Null);
  EXPECT_EQ(a->arr[5].str, "x");
  EXPECT_TRUE(v.get("o")->isObject());
  EXPECT_TRUE(v.get("e")->arr.empty());
  EXPECT_EQ(v.get("missing"), nullptr);
  EXPECT_EQ(a->get("a"), nullptr);  // not an object
}

TEST(TesseraJson, EscapesAndPermissiveEndings) {
  EXPECT_EQ(parse(R"("a\b\f\n\r\t\/\"\\z")").str, "a\b\f\n\r\t/\"\\z");
  // \u: one '?' and the next four characters skipped unseen (not checked as hex digits)
  EXPECT_EQ(parse(R"("x\u00e9y")").str, "x?y");
  EXPECT_EQ(parse(R"("x\uZZZZy")").str, "x?y");
  EXPECT_EQ(parse("\"x\\u12").str, "x?12");  // fewer than five left: only the u goes
  EXPECT_EQ(parse("\"caf\xc3\xa9\"").str, "caf\xc3\xa9");
  EXPECT_EQ(parse("\"runs to the end").str, "runs to the end");
  EXPECT_EQ(parse("\"ends in a backslash\\").str, "ends in a backslash");
  EXPECT_TRUE(parse("trueish").b);   // by prefix
  EXPECT_EQ(parse("nullx").kind, JVal::Null);
  EXPECT_EQ(parse("12 garbage {").num, 12.0);  // nothing after the value is examined
  EXPECT_EQ(parse("[1]]]").arr.size(), 1u);
}

TEST(TesseraJson, ReaderMessages) {
  const auto err = [](const std::string& t) { return thrown([&] { JParser(t).parse(); }); };
  const std::pair<const char*, const char*> cases[] = {
      {"", "teeth: JSON truncated"},
      {"  \n", "teeth: JSON truncated"},
      {"[1, 2", "teeth: JSON truncated"},
      {"{\"a\": 1", "teeth: JSON truncated"},
      {"{\"a\"", "teeth: JSON truncated"},
      {"[1,", "teeth: JSON truncated"},
      {"-", "teeth: bad JSON number"},
      {"[tru]", "teeth: bad JSON number"},
      {"[1 2]", "teeth: malformed JSON array"},
      {"{\"a\" 1}", "teeth: malformed JSON object"},
      {"{a: 1}", "teeth: malformed JSON object"},
      {"{\"a\": 1 \"b\": 2}", "teeth: malformed JSON object"},
      {"{\"a\": 1,}", "teeth: malformed JSON object"},
  };
  for (const auto& [text, message] : cases) EXPECT_EQ(err(text), message) << text;
  EXPECT_EQ(err(std::string(100000, '[')), "teeth: JSON nested too deep");
  EXPECT_EQ(parse(std::string(JParser::kMaxDepth, '[') + "1" + std::string(JParser::kMaxDepth, ']')).kind,
            JVal::Array);
}

}  // namespace
