// Reading the configuration tree the daemon writes (-t DIR) with plain
// POSIX calls: cfmctl is linked into the router's small build, where the
// C++ library's file streams and std::filesystem would weigh more than the
// rest of the client together.
#pragma once
#include <string>
#include <vector>

namespace cfmctl {

// The first line of a file without its newline; "" when it cannot be read.
std::string read_first_line(const std::string &path);
// The names in a directory, "." and ".." left out, in no particular order;
// empty when it cannot be read.
std::vector<std::string> list_dir(const std::string &path);
// A run of 1 to 9 decimal digits as a number; -1 for anything else.
long small_number(const std::string &digits);

}  // namespace cfmctl
