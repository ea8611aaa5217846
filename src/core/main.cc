#include <cstdio>

#include "core/startup.h"

int main(int argc, char **argv) {
  // Reports may go to a pipe or a file: line buffering, and explicit flushes
  // after every command and report, let front ends see them at once.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  return cfm_main(argc, argv);
}
