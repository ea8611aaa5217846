#include "io/dump.h"

#include <cstdio>

void cfm_dump_bytes(const uint8_t *bytes, size_t length, const char *format) {
  for (size_t i = 0; bytes != nullptr && i < length; ++i) {
    if (i != 0 && i % 16 == 0) putchar('\n');
    printf(format, bytes[i]);
  }
}
