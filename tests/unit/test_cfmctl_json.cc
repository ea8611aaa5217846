// cfmctl's snapshot reader: one table of documents it takes or refuses (and
// mutations of them, read or refused without reading past them), and what
// it reads back of every text and time the daemon writes.
#include <gtest/gtest.h>

#include <random>

#include "cfmctl/json.h"
#include "cli/json.h"

using cfmctl::Json;
using cfmctl::parse_json;

namespace {

// The text as the daemon writes it, read back.
std::string round_trip(const std::string &bytes) {
  char *text = nullptr;
  size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  cfm_json_string(out, bytes.data(), bytes.size());
  fclose(out);
  Json doc;
  EXPECT_TRUE(parse_json(std::string(text, size), &doc)) << text;
  free(text);
  return doc.text;
}

TEST(SnapshotReader, TakesJsonAndRefusesTheRest) {
  const std::pair<std::string, bool> cases[] = {
      {"\t {\"a\" :\t[1, -2.5e3,true,false,null,\"x\"],\r\n\"b\":{ }}  \n", true},
      {"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u007f\\u07FF\\u0800\\u9aA9\\uffff\\ud83d\\ude00\\udbff\\udfff\"", true},
      {"[]", true}, {"-0.0E+1", true}, {std::string(32, '[') + std::string(32, ']'), true},
      {std::string(33, '[') + std::string(33, ']'), false}, {"", false}, {"{", false}, {"[1,]", false},
      {"[1,", false}, {"{\"a\":", false}, {"[1 2]", false}, {"{\"a\" 1}", false}, {"{\"a\":1,}", false},
      {"{1:2}", false}, {"{:2}", false}, {"01", false}, {"1.", false}, {".5", false}, {"-", false}, {"1e", false},
      {"+1", false}, {"tru", false}, {"nul", false}, {"\"\\x\"", false}, {"\"\\u12\"", false}, {"\"\\u12g4\"", false},
      {"\"\\ud800\"", false}, {"\"\\udc00\"", false}, {"\"\\ud800\\u0041\"", false}, {"\"a\x01", false},
      {"\"abc", false}, {"\"\\", false}, {"{} {}", false}, {std::string("[0]\0", 4), false}};
  Json doc;
  for (const auto &[text, good] : cases) EXPECT_EQ(parse_json(text, &doc), good) << text;
  ASSERT_TRUE(parse_json(cases[0].first, &doc));
  const Json &a = doc["a"];
  EXPECT_EQ(std::make_tuple(a.items.size(), a.items[1].integer(), a.items[2].boolean, a.items[3].type,
                            a.items[4].is_null(), a.items[5].text, doc["b"].type, doc["none"].is_null()),
            std::make_tuple(6u, -2500LL, true, Json::kBool, true, std::string("x"), Json::kObject, true));
  ASSERT_TRUE(parse_json(cases[1].first, &doc));
  EXPECT_EQ(doc.text, "\"\\/\b\f\n\r\t\x7f\xdf\xbf\xe0\xa0\x80\xe9\xaa\xa9\xef\xbf\xbf\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf");
  ASSERT_TRUE(parse_json("[1e999,-1e19,9e18]", &doc));
  EXPECT_EQ(std::make_tuple(doc.items[0].integer(), doc.items[1].integer(), doc.items[2].integer()),
            std::make_tuple(0LL, 0LL, 9000000000000000000LL));
  // Mutated documents are read or refused (the sanitizer build checks every
  // access).
  std::mt19937 random(27);
  for (int i = 0; i < 20000; ++i) {
    std::string text = "[" + cases[0].first + "," + cases[1].first + "]";
    for (int edits = 1 + random() % 3; edits > 0 && !text.empty(); --edits) {
      size_t pos = random() % text.size();
      random() % 2 ? text.erase(pos, 1 + random() % 8) : text.replace(pos, 1, 1, char(random()));
    }
    parse_json(text, &doc);
  }
}

// Every byte the daemon writes in a text comes back: valid UTF-8 as it is,
// any other byte as the character of its value. Times come back to the ms.
TEST(SnapshotReader, ReadsBackWhatTheDaemonWrites) {
  auto as_chars = [](const std::string &bytes) {
    std::string chars;
    for (unsigned char b : bytes) {
      chars += b < 0x80 ? std::string(1, char(b)) : std::string{char(0xC0 | (b >> 6)), char(0x80 | (b & 0x3F))};
    }
    return chars;
  };
  for (int b = 1; b < 256; ++b) EXPECT_EQ(round_trip(std::string(1, char(b))), as_chars(std::string(1, char(b)))) << b;
  for (const char *valid : {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xf0\x90\x80\x80",
                            "\xf4\x8f\xbf\xbf"})
    EXPECT_EQ(round_trip(valid), valid);
  for (const char *invalid : {"\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80",
                              "\xf5\x80\x80\x80", "\xc2", "\xe2\x82", "\xc2\x41", "\xe2\x82\x41"})
    EXPECT_EQ(round_trip(invalid), as_chars(invalid));
  char text[CFM_JSON_TIME_SIZE];
  EXPECT_EQ(cfmctl::parse_time_ms(cfm_json_time(text, 951782400999ull)), 951782400999LL) << text;  // 2000-02-29
  for (const char *bad : {"2027-01-15T08:00:00.000", "2027-01-15 08:00:00.000Z", "2027-01-15T08:00:00.000Zx", ""})
    EXPECT_EQ(cfmctl::parse_time_ms(bad), -1) << bad;
}

}  // namespace
