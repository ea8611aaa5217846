#include "cli/json.h"

#include <cstring>
#include <ctime>

#include "core/hwaddr.h"

namespace {

// Length of the valid UTF-8 sequence at `p` (2 to 4 bytes, shortest form,
// no surrogates, at most U+10FFFF), 0 when there is none.
size_t utf8_length(const unsigned char *p, size_t left) {
  size_t n = p[0] >= 0xF0 ? 4 : p[0] >= 0xE0 ? 3 : p[0] >= 0xC2 ? 2 : 0;
  if (n == 0 || p[0] > 0xF4 || n > left) return 0;
  for (size_t i = 1; i < n; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
  }
  if (n == 3 && ((p[0] == 0xE0 && p[1] < 0xA0) || (p[0] == 0xED && p[1] >= 0xA0))) return 0;
  if (n == 4 && ((p[0] == 0xF0 && p[1] < 0x90) || (p[0] == 0xF4 && p[1] >= 0x90))) return 0;
  return n;
}

}  // namespace

char *cfm_json_time(char *text, uint64_t ms) {
  time_t seconds = static_cast<time_t>(ms / 1000);
  struct tm utc = {};
  gmtime_r(&seconds, &utc);
  char full[64];  // room for any field value the compiler can imagine
  snprintf(full, sizeof full, "%04d-%02d-%02dT%02d:%02d:%02d.%03uZ", utc.tm_year + 1900, utc.tm_mon + 1,
           utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<unsigned>(ms % 1000));
  memcpy(text, full, CFM_JSON_TIME_SIZE - 1);
  text[CFM_JSON_TIME_SIZE - 1] = '\0';
  return text;
}

void cfm_json_string(FILE *out, const char *bytes, size_t size) {
  const auto *p = reinterpret_cast<const unsigned char *>(bytes);
  fputc('"', out);
  for (size_t i = 0; i < size;) {
    bool plain = p[i] >= 0x20 && p[i] < 0x7F && p[i] != '"' && p[i] != '\\';
    size_t n = p[i] >= 0x80 ? utf8_length(p + i, size - i) : plain ? 1 : 0;
    if (n == 0) {
      fprintf(out, "\\u%04x", p[i]);
      n = 1;
    } else {
      fwrite(p + i, 1, n, out);
    }
    i += n;
  }
  fputc('"', out);
}

void JsonOut::key(const char *name) {
  if (!first_) fputc(',', out_);
  first_ = false;
  if (name != nullptr) fprintf(out_, "\"%s\":", name);
}

void JsonOut::begin(const char *key_name, char bracket) {
  key(key_name);
  fputc(bracket, out_);
  first_ = true;
}

void JsonOut::end(char bracket) {
  fputc(bracket, out_);
  first_ = false;
}

void JsonOut::number(const char *key_name, long long value) {
  key(key_name);
  fprintf(out_, "%lld", value);
}

void JsonOut::boolean(const char *key_name, bool value) {
  key(key_name);
  fputs(value ? "true" : "false", out_);
}

void JsonOut::null(const char *key_name) {
  key(key_name);
  fputs("null", out_);
}

void JsonOut::literal(const char *key_name, const char *value) {
  key(key_name);
  fputs(value, out_);
}

void JsonOut::text(const char *key_name, const char *bytes, size_t size) {
  key(key_name);
  cfm_json_string(out_, bytes, size);
}

void JsonOut::text(const char *key_name, const char *nul_terminated) {
  text(key_name, nul_terminated, strlen(nul_terminated));
}

void JsonOut::mac(const char *key_name, const uint8_t *mac) {
  char buffer[CFM_MAC_TEXT_SIZE];
  text(key_name, hwaddr_to_string(buffer, mac));
}

void JsonOut::time(const char *key_name, uint64_t ms) {
  if (ms == 0) return null(key_name);
  char buffer[CFM_JSON_TIME_SIZE];
  text(key_name, cfm_json_time(buffer, ms));
}
