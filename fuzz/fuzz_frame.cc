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
  fuzz_world::reset();
  fuzz_world::frame_input(data, size);
  return 0;
}
