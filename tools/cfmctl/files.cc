#include "files.h"

#include <dirent.h>

#include <cstdio>
#include <cstring>

namespace cfmctl {

std::string read_first_line(const std::string &path) {
  FILE *in = fopen(path.c_str(), "re");
  if (in == nullptr) return "";
  std::string line;
  for (int c = getc(in); c != EOF && c != '\n'; c = getc(in)) line += static_cast<char>(c);
  fclose(in);
  return line;
}

std::vector<std::string> list_dir(const std::string &path) {
  std::vector<std::string> names;
  DIR *dir = opendir(path.c_str());
  if (dir == nullptr) return names;
  while (const struct dirent *entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names.emplace_back(entry->d_name);
  }
  closedir(dir);
  return names;
}

long small_number(const std::string &digits) {
  if (digits.empty() || digits.size() > 9) return -1;
  long value = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

}  // namespace cfmctl
