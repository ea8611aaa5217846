// A sequence of frames, requests, timer ticks and settings changes. The
// input is a list of records: a kind byte, a two-byte big-endian length and
// that many payload bytes (cut at the end of the input). Kind modulo 4:
//   0  a WAN frame
//   1  a request line, run as the server runs it
//   2  ticks: 1 + (first payload byte modulo 8), one second apart
//   3  settings byte (framing, debug output; see fuzz_world.h)
#include <cstddef>
#include <cstdint>

#include "fuzz_world.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_world::init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_world::reset();
  fuzz_world::mixed_input(data, size);
  return 0;
}
