// "cfmctl pm": the delay and loss measurement commands by name.
#pragma once
#include <functional>
#include <string>
#include <vector>

// args are the words after "pm":
//   dm|slm|1dm start MD MA MEP TARGET [--count N] [--period MS] [--priority P] [--test-id N]
//   dm|slm|1dm stop MD MA MEP
//   show [--json]
// Builds the request and hands it to send (which returns cfmctl's exit
// status). For show, the results are then read from the configuration tree
// directory `tree` when one is given. Returns the exit status.
int cfmctl_pm(const std::vector<std::string> &args, const std::string &tree, bool json,
              const std::function<int(const std::string &request)> &send);
