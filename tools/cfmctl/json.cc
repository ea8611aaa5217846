#include "json.h"

#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace cfmctl {

namespace {

class Reader {
 public:
  explicit Reader(const std::string &text) : s_(text) {}
  bool document(Json *out) {
    space();
    if (!value(out, 0)) return false;
    space();
    return pos_ == s_.size();
  }

 private:
  bool more() const { return pos_ < s_.size(); }
  char peek() const { return more() ? s_[pos_] : '\0'; }
  void space() {
    while (take(' ') || take('\t') || take('\r') || take('\n')) {
    }
  }
  bool take(char c) {
    if (!more() || s_[pos_] != c) return false;
    ++pos_;
    return true;
  }
  bool word(const char *w) {
    size_t n = strlen(w);
    if (s_.compare(pos_, n, w) != 0) return false;
    pos_ += n;
    return true;
  }
  size_t digits() {
    size_t start = pos_;
    while (more() && s_[pos_] >= '0' && s_[pos_] <= '9') ++pos_;
    return pos_ - start;
  }

  bool value(Json *out, int depth) {
    if (depth >= kJsonMaxDepth) return false;
    char c = peek();
    if (c == '{') return object(out, depth);
    if (c == '[') return array(out, depth);
    if (c == '"') {
      out->type = Json::kString;
      return string(&out->text);
    }
    bool truth = word("true");
    if (truth || word("false")) {
      out->type = Json::kBool;
      out->boolean = truth;
      return true;
    }
    if (word("null")) return true;
    return number(out);
  }

  bool object(Json *out, int depth) {
    out->type = Json::kObject;
    ++pos_;
    space();
    if (take('}')) return true;
    do {
      space();
      std::string key;
      if (!string(&key)) return false;
      space();
      if (!take(':')) return false;
      space();
      out->keys.push_back(std::move(key));
      out->items.emplace_back();
      if (!value(&out->items.back(), depth + 1)) return false;
      space();
    } while (take(','));
    return take('}');
  }

  bool array(Json *out, int depth) {
    out->type = Json::kArray;
    ++pos_;
    space();
    if (take(']')) return true;
    do {
      space();
      out->items.emplace_back();
      if (!value(&out->items.back(), depth + 1)) return false;
      space();
    } while (take(','));
    return take(']');
  }

  // -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
  bool number(Json *out) {
    size_t start = pos_;
    take('-');
    if (peek() == '0') {
      ++pos_;
    } else if (digits() == 0) {
      return false;
    }
    if (take('.') && digits() == 0) return false;
    if (take('e') || take('E')) {
      if (!take('+')) take('-');
      if (digits() == 0) return false;
    }
    out->type = Json::kNumber;
    out->number = strtod(s_.c_str() + start, nullptr);  // stops where the grammar did
    return true;
  }

  bool hex4(unsigned *code) {
    if (s_.size() - pos_ < 4) return false;
    *code = 0;
    for (int i = 0; i < 4; ++i) {
      char c = s_[pos_++];
      int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
      if (d < 0) return false;
      *code = *code * 16 + static_cast<unsigned>(d);
    }
    return true;
  }

  static void put_utf8(std::string *out, unsigned code) {
    if (code < 0x80) {
      *out += static_cast<char>(code);
    } else if (code < 0x800) {
      *out += static_cast<char>(0xC0 | (code >> 6));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      *out += static_cast<char>(0xE0 | (code >> 12));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      *out += static_cast<char>(0xF0 | (code >> 18));
      *out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }

  // \uXXXX, a surrogate pair as one code point.
  bool unicode(std::string *out) {
    unsigned code = 0, low = 0;
    if (!hex4(&code)) return false;
    if (code >= 0xDC00 && code <= 0xDFFF) return false;
    if (code >= 0xD800 && code <= 0xDBFF) {
      if (!word("\\u") || !hex4(&low) || low < 0xDC00 || low > 0xDFFF) return false;
      code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    }
    put_utf8(out, code);
    return true;
  }

  // The character an escape stands for ('\0' for none; \u apart).
  static char unescape(char e) {
    switch (e) {
      case '"': case '\\': case '/': return e;
      case 'b': return '\b';
      case 'f': return '\f';
      case 'n': return '\n';
      case 'r': return '\r';
      case 't': return '\t';
      default: return '\0';
    }
  }

  bool string(std::string *out) {
    if (!take('"')) return false;
    while (more()) {
      char c = s_[pos_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c != '\\') {
        *out += c;
      } else if (take('u')) {
        if (!unicode(out)) return false;
      } else {
        char plain = more() ? unescape(s_[pos_++]) : '\0';
        if (plain == '\0') return false;
        *out += plain;
      }
    }
    return false;
  }

  const std::string &s_;
  size_t pos_ = 0;
};

}  // namespace

const Json &Json::operator[](const char *key) const {
  static const Json kNullValue;
  if (type != kObject) return kNullValue;
  for (size_t i = 0; i < keys.size() && i < items.size(); ++i) {
    if (keys[i] == key) return items[i];
  }
  return kNullValue;
}

bool parse_json(const std::string &text, Json *out) {
  *out = Json();
  return Reader(text).document(out);
}

long long parse_time_ms(const std::string &text) {
  struct tm utc = {};
  unsigned ms = 0;
  int end = 0;
  if (text.size() != 24 || sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3uZ%n", &utc.tm_year, &utc.tm_mon,
                                  &utc.tm_mday, &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &ms, &end) != 7 ||
      end != 24) {
    return -1;
  }
  utc.tm_year -= 1900;
  utc.tm_mon -= 1;
  return static_cast<long long>(timegm(&utc)) * 1000 + ms;
}

}  // namespace cfmctl
