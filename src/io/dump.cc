#include "io/dump.h"

#include <cstdio>

// Each line of 16 bytes is formatted first and written at once: standard
// output is unbuffered, and a write per byte would cost a system call each.
void cfm_dump_bytes(const uint8_t *bytes, size_t length, const char *format) {
  char line[16 * 8 + 2];
  size_t used = 0;
  for (size_t i = 0; bytes != nullptr && i < length; ++i) {
    if (i != 0 && i % 16 == 0) {
      line[used++] = '\n';
      line[used] = '\0';
      fputs(line, stdout);
      used = 0;
    }
    int n = snprintf(line + used, sizeof line - used, format, bytes[i]);
    if (n > 0) used += static_cast<size_t>(n) < sizeof line - used ? static_cast<size_t>(n) : sizeof line - used - 1;
  }
  if (used != 0) fputs(line, stdout);
}
