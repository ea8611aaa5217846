// A sequence of frames, requests, timer ticks, settings changes and the
// daemon's own files. The input is a list of records: a kind byte, a
// two-byte big-endian length and that many payload bytes (cut at the end of
// the input). Kind modulo 8:
//   0  a WAN frame
//   1  a request line, run as the server runs it
//   2  ticks: 1 + (first payload byte modulo 8), one second apart
//   3  settings byte (framing, debug output; see fuzz_world.h)
//   4  a LAN frame, read from the LAN socket and relayed
//   5  a configuration-tree operation: byte 0 modulo 5 picks set, delete,
//      row count, get or increment; the rest is "key=value" under /runtime/
//   6  a frame as a packet socket delivers it: byte 0 bit 0 "tag taken off",
//      bit 1 "short buffer", bytes 1-4 the tag (TPID, TCI), then the frame;
//      the tag is put back (apart and in place, which must agree) and the
//      frame received from the WAN
//   7  a stale-set record, parsed
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
