// One raw WAN frame through classification and the engines. The first byte
// is the settings byte (framing, debug output; see fuzz_world.h), the rest
// is the frame as read from the WAN, tags in place.
#include <cstddef>
#include <cstdint>

#include "fuzz_world.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_world::init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  fuzz_world::reset();
  fuzz_world::apply_settings(data[0]);
  // The frame ends where the input ends, so any read past it is caught.
  fuzz_world::receive(data + 1, size - 1);
  return 0;
}
