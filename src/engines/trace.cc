#include "engines/trace.h"

#include <cstdio>

#include "io/dump.h"

void cfm_trace_frame(const uint8_t *frame, size_t length) {
  cfm_dump_bytes(frame, length, "%02X ");
  putchar('\n');
}
