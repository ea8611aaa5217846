// Captures what the daemon writes to standard output while a callable runs.
#pragma once
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

template <typename F>
std::string CaptureStdout(F &&run) {
  fflush(stdout);
  char path[] = "/tmp/cli_out_XXXXXX";
  int fd = mkstemp(path);
  int saved = dup(1);
  dup2(fd, 1);
  run();
  fflush(stdout);
  dup2(saved, 1);
  close(saved);
  std::string text;
  lseek(fd, 0, SEEK_SET);
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
  close(fd);
  unlink(path);
  return text;
}

inline std::string Cli(const char *line) {
  return CaptureStdout([&] { cfm_cli_run_line(line); });
}
