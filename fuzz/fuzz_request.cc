// One request line, as a front end writes it on the command socket, through
// the server's per-connection function.
#include <cstddef>
#include <cstdint>

#include "fuzz_world.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_world::init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_world::reset();
  fuzz_world::serve(data, size);
  return 0;
}
