#include "engines/trace.h"

#include <cstdio>

void cfm_trace_frame(const uint8_t *frame, size_t length) {
  for (size_t i = 0; frame != nullptr && i < length; ++i) {
    if (i != 0 && i % 16 == 0) putchar('\n');
    printf("%02X ", frame[i]);
  }
  putchar('\n');
  fflush(stdout);
}
