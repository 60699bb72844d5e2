#include "util/Json.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

constexpr JsonFormat kCompactOrdered{.compact = true, .keep_order = true};

Json sample() {
  Json root = Json::object();
  root.set("name", Json::string("backup"));
  root.set("count", Json::integer(3));
  root.set("ratio", Json::real(0.5));
  root.set("done", Json::boolean(true));
  root.set("link", Json::null());
  Json list = Json::array();
  list.append(Json::integer(1));
  list.append(Json::string("two"));
  root.set("list", std::move(list));
  return root;
}

TEST(JsonTest, BuildsAndDumpsMembersInTheOrderSet) {
  EXPECT_EQ(sample().dump(kCompactOrdered),
            R"({"name":"backup","count":3,"ratio":0.5,"done":true,"link":null,"list":[1,"two"]})");
}

TEST(JsonTest, DefaultDumpHasBlanksAfterSeparators) {
  Json root = Json::object();
  root.set("a", Json::integer(1));
  root.set("b", Json::integer(2));
  EXPECT_EQ(root.dump(), R"({"a": 1, "b": 2})");
}

TEST(JsonTest, RealPrecisionLimitsTheDigitsOfAReal) {
  Json root = Json::array();
  root.append(Json::real(0.1 + 0.2));
  EXPECT_EQ(root.dump({.compact = true}), "[0.30000000000000004]");
  EXPECT_EQ(root.dump({.compact = true, .real_precision = 15}), "[0.3]");
}

TEST(JsonTest, MovingTransfersOwnershipAndEmptiesTheSource) {
  Json first = sample();
  Json second = std::move(first);
  EXPECT_FALSE(first.valid());  // NOLINT(bugprone-use-after-move): the moved-from state is what is tested
  EXPECT_EQ(first.dump(), "");
  ASSERT_TRUE(second.valid());
  Json third;
  third = std::move(second);
  EXPECT_FALSE(second.valid());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(third.member("count").as_integer(), 3);
}

TEST(JsonTest, AMemberOutlivesTheValueItCameFrom) {
  Json list;
  {
    Json root = sample();
    list = root.member("list");
  }
  EXPECT_EQ(list.dump({.compact = true}), R"([1,"two"])");
}

TEST(JsonTest, ReadingAMemberOfAnotherTypeYieldsNone) {
  const Json root = sample();
  EXPECT_EQ(root.member("name").as_text(), "backup");
  EXPECT_EQ(root.member("name").as_integer(), std::nullopt);
  EXPECT_EQ(root.member("name").as_number(), std::nullopt);
  EXPECT_EQ(root.member("count").as_text(), std::nullopt);
  EXPECT_EQ(root.member("count").as_number(), 3.0);
  EXPECT_EQ(root.member("ratio").as_integer(), std::nullopt);
  EXPECT_EQ(root.member("ratio").as_number(), 0.5);
  EXPECT_EQ(root.member("link").as_text(), std::nullopt);
  EXPECT_EQ(root.member("done").as_integer(), std::nullopt);
}

TEST(JsonTest, MissingMembersAndMembersOfNonObjectsAreEmpty) {
  const Json root = sample();
  EXPECT_FALSE(root.member("absent").valid());
  EXPECT_FALSE(root.member("list").member("name").valid());
  EXPECT_FALSE(Json().member("name").valid());
  EXPECT_EQ(Json().as_text(), std::nullopt);
}

TEST(JsonTest, SettingOnANonObjectOrAnEmptyValueChangesNothing) {
  Json list = Json::array();
  list.set("name", Json::integer(1));
  list.append(Json());
  EXPECT_EQ(list.dump({.compact = true}), "[]");
  Json root = Json::object();
  root.set("gone", Json());
  root.append(Json::integer(1));
  EXPECT_EQ(root.dump({.compact = true}), "{}");
}

TEST(JsonTest, ParsesAnObjectAndReadsItsMembers) {
  std::string error = "untouched";
  const Json root = Json::parse(R"({"a":{"b":"c","n":-7}})", &error);
  ASSERT_TRUE(root.valid());
  EXPECT_EQ(root.member("a").member("b").as_text(), "c");
  EXPECT_EQ(root.member("a").member("n").as_integer(), -7);
  EXPECT_EQ(error, "untouched");
}

TEST(JsonTest, AParseErrorYieldsAnEmptyValueAndSaysWhere) {
  std::string error;
  EXPECT_FALSE(Json::parse("{\"a\": }", &error).valid());
  EXPECT_NE(error.find("line 1, column 7"), std::string::npos) << error;
  EXPECT_FALSE(Json::parse("").valid());
  EXPECT_FALSE(Json::parse("42").valid());  // only an object or an array is a document
  EXPECT_FALSE(Json::parse("{} trailing").valid());
}

TEST(JsonTest, ParsingRejectsTextThatIsNotUtf8) {
  std::string error;
  EXPECT_FALSE(Json::parse("{\"a\":\"caf\xE9\"}", &error).valid());
  EXPECT_FALSE(error.empty());
}

TEST(JsonTest, StringsAreRepairedToUtf8) {
  Json list = Json::array();
  list.append(Json::string("caf\xE9"));
  list.append(Json::string("caf\xC3\xA9"));
  EXPECT_EQ(list.dump({.compact = true}), "[\"caf\xEF\xBF\xBD\",\"caf\xC3\xA9\"]");
}

TEST(JsonTest, ControlCharactersAreEscapedInTheDump) {
  Json list = Json::array();
  list.append(Json::string("a\"b\\c\n\x01"));
  EXPECT_EQ(list.dump({.compact = true}), R"(["a\"b\\c\n\u0001"])");
}

TEST(JsonTest, LineAndParagraphSeparatorsAreEscapedWhenAsked) {
  Json list = Json::array();
  list.append(Json::string("a\xE2\x80\xA8" "b\xE2\x80\xA9\xE2\x80\xA8"));
  EXPECT_EQ(list.dump({.compact = true, .escape_separators = true}), R"(["a\u2028b\u2029\u2028"])");
  EXPECT_EQ(list.dump({.compact = true}), "[\"a\xE2\x80\xA8" "b\xE2\x80\xA9\xE2\x80\xA8\"]");
  EXPECT_EQ(Json::parse(list.dump({.compact = true, .escape_separators = true})).dump({.compact = true}),
            list.dump({.compact = true}));
}

TEST(JsonTest, AnEscapedNulIsRefusedSoNoTextCarriesOne) {
  std::string error;
  EXPECT_FALSE(Json::parse(R"({"a":"x\u0000y"})", &error).valid());
  EXPECT_FALSE(error.empty());
  Json list = Json::array();
  list.append(Json::string(std::string("x\0y", 3)));
  EXPECT_EQ(list.dump({.compact = true}), R"(["x"])");
}

TEST(JsonTest, AStoredDocumentIsEmbeddedAsItselfOrAsText) {
  Json root = Json::object();
  root.set("parsed", Json::parsed_or_string(R"({"k":"caf)" "\xE9" R"("})"));
  root.set("text", Json::parsed_or_string("not json \xE9"));
  EXPECT_EQ(root.dump(kCompactOrdered),
            "{\"parsed\":{\"k\":\"caf\xEF\xBF\xBD\"},\"text\":\"not json \xEF\xBF\xBD\"}");
}

TEST(JsonTest, ParseFirstReadsOneDocumentOfAStreamAndSaysHowFarItRead) {
  const std::string stream = "{\"a\": 1}\n[2, 3]\n{\"b\":";
  std::size_t consumed = 0;
  const Json first = Json::parse_first(stream, &consumed);
  ASSERT_TRUE(first.valid());
  EXPECT_EQ(first.member("a").as_number(), 1.0);
  ASSERT_EQ(consumed, 8u);
  std::size_t second_length = 0;
  const Json second = Json::parse_first(std::string_view(stream).substr(consumed), &second_length);
  ASSERT_EQ(second.array_size(), 2u);
  EXPECT_EQ(second.element(1).as_number(), 3.0);
  std::string error;
  std::size_t third_length = 99;
  EXPECT_FALSE(Json::parse_first(std::string_view(stream).substr(consumed + second_length), &third_length, &error).valid());
  EXPECT_EQ(third_length, 0u);
  EXPECT_FALSE(error.empty());
}

TEST(JsonTest, ParseFirstReadsAnIntegerTooBigForSixtyFourBitsAsAReal) {
  std::size_t consumed = 0;
  const Json root = Json::parse_first(R"({"n": 123456789012345678901234567890})", &consumed);
  ASSERT_TRUE(root.valid());
  EXPECT_GT(root.member("n").as_number().value_or(0), 1e29);
  EXPECT_FALSE(Json::parse(R"({"n": 123456789012345678901234567890})").valid());
}

}  // namespace

TEST(JsonTest, ElementsOfAnArrayAreReadByIndex) {
  const Json array = Json::parse(R"([{"a": 1}, "two"])");
  ASSERT_EQ(array.array_size(), 2u);
  EXPECT_EQ(array.element(0).member("a").as_integer(), 1);
  EXPECT_EQ(array.element(1).as_text(), "two");
  EXPECT_FALSE(array.element(2).valid());
  const Json object = Json::parse(R"({"a": 1})");
  EXPECT_EQ(object.array_size(), 0u);
  EXPECT_FALSE(object.element(0).valid());
}
