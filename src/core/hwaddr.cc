#include "core/hwaddr.h"

#include <cstdio>

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

int hwaddr_aton(const char *text, uint8_t *mac) {
  if (text == nullptr || mac == nullptr) {
    return -1;
  }
  const char *p = text;
  for (int i = 0; i < CFM_MAC_LEN; ++i) {
    int high = hex_digit(p[0]);
    if (high < 0) return -1;
    int low = hex_digit(p[1]);
    if (low < 0) return -1;
    mac[i] = static_cast<uint8_t>(high * 16 + low);
    p += 2;
    if (i < CFM_MAC_LEN - 1) {
      if (*p != ':') return -1;
      ++p;
    }
  }
  return 0;
}

char *hwaddr_to_string(char *text, const uint8_t *mac) {
  snprintf(text, CFM_MAC_TEXT_SIZE, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
           mac[5]);
  return text;
}

char *hwaddr_to_string1(char *text, const uint8_t *identifier) { return hwaddr_to_string(text, identifier + 2); }
