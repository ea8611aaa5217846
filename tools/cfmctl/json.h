// A small JSON reader for the daemon's snapshot (dumpjson): the whole
// document in memory as a tree of values. Every read is bounded by the
// text; nesting deeper than kJsonMaxDepth is refused.
#pragma once
#include <string>
#include <vector>

namespace cfmctl {

// Most containers nested in one another.
constexpr int kJsonMaxDepth = 32;

struct Json {
  enum Type { kNull, kBool, kNumber, kString, kArray, kObject };
  Type type = kNull;
  bool boolean = false;
  double number = 0;
  std::string text;  // a string's bytes (escapes decoded, \uXXXX as UTF-8)
  std::vector<Json> items;       // an array's items, or an object's values
  std::vector<std::string> keys;  // an object's keys, in order, one per item

  // The member `key` (the first of that name), or a null value.
  const Json &operator[](const char *key) const;
  bool is_null() const { return type == kNull; }
  // A number as an integer (0 for anything else, or beyond 64 bits).
  long long integer() const {
    return type == kNumber && number > -9.2e18 && number < 9.2e18 ? static_cast<long long>(number) : 0;
  }
};

// Parses `text` as one JSON document (white space around it allowed).
// Returns false when it is not one.
bool parse_json(const std::string &text, Json *out);

// Milliseconds since the epoch of a time as the snapshot writes it
// ("2026-11-24T22:01:02.123Z"); -1 for anything else.
long long parse_time_ms(const std::string &text);

}  // namespace cfmctl
