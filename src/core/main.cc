#include <cstdio>

#include "core/startup.h"

int main(int argc, char **argv) {
  // Reports may go to a pipe or a file that a front end reads while the
  // daemon runs, and the daemon ends only by a signal: standard output is
  // unbuffered, so every report is written as it is printed, is there when a
  // task goes back to waiting, and is never lost to a SIGTERM.
  setvbuf(stdout, nullptr, _IONBF, 0);
  return cfm_main(argc, argv);
}
