// cfmctl's snapshot reader: one table of documents it takes or refuses, what
// it reads back of every text and time the daemon writes, and mutated
// documents that it reads or refuses without reading past them.
#include <gtest/gtest.h>

#include <random>

#include "cfmctl/json.h"
#include "cli/json.h"

using cfmctl::Json;
using cfmctl::parse_json;

namespace {

std::string written(void (*write)(FILE *, const std::string &), const std::string &value) {
  char *text = nullptr;
  size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  write(out, value);
  fclose(out);
  std::string result(text, size);
  free(text);
  return result;
}

void write_string(FILE *out, const std::string &value) { cfm_json_string(out, value.data(), value.size()); }

TEST(SnapshotReader, TakesJsonAndRefusesTheRest) {
  const std::pair<std::string, bool> cases[] = {
      {" {\"a\":[1,-2.5e3,true,false,null,\"x\"],\"b\":{}}\n", true},
      {"[]", true}, {"-0.0E+1", true}, {"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u00e9\\ud83d\\ude00\"", true},
      {std::string(32, '[') + std::string(32, ']'), true}, {std::string(33, '[') + std::string(33, ']'), false},
      {"", false}, {"{", false}, {"[1,]", false}, {"[1 2]", false}, {"{\"a\" 1}", false}, {"{\"a\":1,}", false},
      {"{1:2}", false}, {"01", false}, {"1.", false}, {".5", false}, {"-", false}, {"1e", false}, {"+1", false},
      {"tru", false}, {"nul", false}, {"\"\\x\"", false}, {"\"\\u12\"", false}, {"\"\\u12g4\"", false},
      {"\"\\ud800\"", false}, {"\"\\udc00\"", false}, {"\"\\ud800\\u0041\"", false}, {"\"a\x01\"", false},
      {"\"abc", false}, {"\"\\", false}, {"{} {}", false}, {std::string("[0]\0", 4), false}};
  for (const auto &[text, good] : cases) {
    Json doc;
    EXPECT_EQ(parse_json(text, &doc), good) << text;
  }
  Json doc;
  size_t at = 0;
  ASSERT_TRUE(parse_json(cases[0].first, &doc));
  const Json &a = doc["a"];
  EXPECT_EQ(std::make_tuple(a.items.size(), a.items[1].integer(), a.items[2].boolean, a.items[3].type,
                            a.items[4].is_null(), a.items[5].text, doc["b"].type, doc["none"].is_null()),
            std::make_tuple(6u, -2500LL, true, Json::kBool, true, std::string("x"), Json::kObject, true));
  ASSERT_TRUE(parse_json(cases[3].first, &doc));
  EXPECT_EQ(doc.text, "\"\\/\b\f\n\r\t\xc3\xa9\xf0\x9f\x98\x80");
  EXPECT_FALSE(parse_json("[1, x]", &doc, &at));
  EXPECT_EQ(at, 4u);
}

// Every byte the daemon writes in a text comes back: ASCII as itself, a
// byte outside UTF-8 as the character of its value, valid UTF-8 unchanged.
// Times come back to the millisecond.
TEST(SnapshotReader, ReadsBackWhatTheDaemonWrites) {
  for (int b = 1; b < 256; ++b) {
    std::string expect = b < 0x80 ? std::string(1, char(b)) : std::string{char(0xC0 | (b >> 6)), char(0x80 | (b & 0x3F))};
    Json doc;
    ASSERT_TRUE(parse_json(written(write_string, std::string(1, char(b))), &doc)) << b;
    EXPECT_EQ(doc.text, expect) << b;
  }
  for (const char *utf8 : {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xf0\x90\x80\x80",
                           "\xf4\x8f\xbf\xbf"}) {
    Json doc;
    ASSERT_TRUE(parse_json(written(write_string, utf8), &doc));
    EXPECT_EQ(doc.text, utf8);
  }
  for (const char *invalid : {"\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80",
                              "\xf5\x80\x80\x80", "\xc2", "\xe2\x82", "\xc2\x41"}) {
    EXPECT_EQ(written(write_string, invalid).find_first_of("\x80\x82\x8f\x90\x9f\xa0\xbf\xc1\xc2\xe0\xe2\xed\xf0\xf4\xf5"),
              std::string::npos) << invalid;
  }
  for (uint64_t ms : {1ull, 951782400999ull, 1800000000123ull, 4102444800000ull}) {
    char text[CFM_JSON_TIME_SIZE];
    EXPECT_EQ(cfmctl::parse_time_ms(cfm_json_time(text, ms)), static_cast<long long>(ms)) << text;
  }
  for (const char *bad : {"2027-01-15T08:00:00.000", "2027-01-15 08:00:00.000Z", "2027-01-15T08:00:00.000Zx", ""}) {
    EXPECT_EQ(cfmctl::parse_time_ms(bad), -1) << bad;
  }
}

// Mutated documents: each is read or refused, never read past (the
// sanitizer build checks every access).
TEST(SnapshotReader, MutatedDocumentsAreReadOrRefused) {
  const std::string good = "{\"time\":\"2027-01-15T08:00:00.000Z\",\"meps\":[{\"md\":1,\"loopback\":{\"result\":null,"
                           "\"data\":\"\\u0001\\ud83d\\ude00\"},\"x\":[-1.5e-3,true,false]}]}";
  std::mt19937 random(27);
  int read = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string text = good;
    for (int edits = 1 + random() % 3; edits > 0 && !text.empty(); --edits) {
      size_t at = random() % text.size();
      switch (random() % 3) {
        case 0: text[at] = static_cast<char>(random()); break;
        case 1: text.erase(at, 1 + random() % 8); break;
        default: text.resize(at); break;
      }
    }
    Json doc;
    read += parse_json(text, &doc);
  }
  EXPECT_GT(read, 0);
}

}  // namespace
