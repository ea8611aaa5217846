// JSON as the daemon's snapshot and cfmctl write it: one compact line, keys
// in the order written. Texts are the daemon's bytes: valid UTF-8 passes
// unchanged; '"', '\\', control bytes, DEL and any byte that is not part of
// valid UTF-8 are written as \u00XX with the byte's value, so no text can
// break the document.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>

// "2026-11-24T22:01:02.123Z" and its NUL.
constexpr size_t CFM_JSON_TIME_SIZE = 25;
// A time in milliseconds since the epoch as ISO 8601 UTC with milliseconds.
char *cfm_json_time(char *text, uint64_t ms);

void cfm_json_string(FILE *out, const char *bytes, size_t size);

// Writes members and array items with their separators.
class JsonOut {
 public:
  explicit JsonOut(FILE *out) : out_(out) {}
  // An object ('{') or array ('[') as the member `key`, or as an item when
  // `key` is null; end() closes the innermost one.
  void begin(const char *key, char bracket);
  void end(char bracket);
  void number(const char *key, long long value);
  void boolean(const char *key, bool value);
  void null(const char *key);
  // A value written as it is: a number or null the caller formatted.
  void literal(const char *key, const char *value);
  void text(const char *key, const char *bytes, size_t size);
  void text(const char *key, const char *nul_terminated);
  void mac(const char *key, const uint8_t *mac);
  // A time (ms since the epoch), null for 0: never.
  void time(const char *key, uint64_t ms);

 private:
  void key(const char *name);
  FILE *out_;
  bool first_ = true;
};
