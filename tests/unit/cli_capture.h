// Captures what the daemon writes to standard output while requests run.
#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>

template <typename F>
std::string CaptureStdout(F &&run) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  run();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

inline std::string Cli(const std::string &line) {
  return CaptureStdout([&] { cfm_cli_run_line(line.c_str()); });
}

// Runs the requests in order, each expected to print exactly its text.
inline void ExpectCli(std::initializer_list<std::pair<std::string, std::string>> steps) {
  for (const auto &[line, text] : steps) EXPECT_EQ(Cli(line), text) << line;
}
