// A sequence of frames, requests, timer ticks and settings changes. The
// input is a list of records: a kind byte, a two-byte big-endian length and
// that many payload bytes (cut at the end of the input). Kind modulo 4:
//   0  a WAN frame
//   1  a request line, run as the server runs it
//   2  ticks: 1 + (first payload byte modulo 8), one second apart
//   3  settings byte (framing, debug output; see fuzz_world.h)
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "cli/server.h"
#include "fuzz_world.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_world::init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_world::reset();
  size_t at = 0;
  while (size - at >= 3) {
    uint8_t kind = data[at] % 4;
    size_t length = std::min<size_t>(static_cast<size_t>(data[at + 1]) << 8 | data[at + 2], size - at - 3);
    const uint8_t *payload = data + at + 3;
    at += 3 + length;
    switch (kind) {
      case 0:
        fuzz_world::receive(payload, length);
        break;
      case 1:
        cfm_cli_run_line(std::string(reinterpret_cast<const char *>(payload), length).c_str());
        break;
      case 2:
        for (int n = length > 0 ? 1 + payload[0] % 8 : 1; n > 0; --n) fuzz_world::tick();
        break;
      default:
        if (length > 0) fuzz_world::apply_settings(payload[0]);
        break;
    }
  }
  return 0;
}
