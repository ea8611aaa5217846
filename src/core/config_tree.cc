// Configuration tree adapter. Inert until attachDirectory() backs it with a
// directory: every key is a file path below that directory holding the value
// and a newline. One mutex serialises the store, which the command server,
// the receive task and the timer task all reach.
#include "core/config_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

constexpr size_t kKeyMax = 512;
// Recursive removal stops this deep; keys are far shallower.
constexpr int kRemoveDepth = 32;

std::mutex g_mutex;
char g_root[PATH_MAX];  // empty while detached; guarded by g_mutex
std::atomic<bool> g_attached{false};
unsigned long g_temp_counter = 0;

// A key is "/" followed by non-empty components other than "." and "..";
// false for anything else, so no key can leave the directory.
bool valid_key(const char *key) {
  if (key == nullptr || key[0] != '/') return false;
  const char *p = key + 1;
  for (;;) {
    const char *end = strchr(p, '/');
    size_t len = end != nullptr ? static_cast<size_t>(end - p) : strlen(p);
    if (len == 0) return false;
    if (len == 1 && p[0] == '.') return false;
    if (len == 2 && p[0] == '.' && p[1] == '.') return false;
    if (end == nullptr) return true;
    p = end + 1;
  }
}

// Formats a key; false when it does not fit or is not a valid key.
bool format_key(char *key, const char *format, va_list ap) {
  if (format == nullptr) return false;
  int n = vsnprintf(key, kKeyMax, format, ap);
  if (n < 0 || static_cast<size_t>(n) >= kKeyMax) return false;
  return valid_key(key);
}

// Root directory followed by `key` (its first `key_len` bytes) into `path`
// (PATH_MAX bytes); false when it does not fit. Caller holds g_mutex and the
// tree is attached.
bool path_of(char *path, const char *key, size_t key_len) {
  int n = snprintf(path, PATH_MAX, "%s%.*s", g_root, static_cast<int>(key_len), key);
  return n > 0 && n < PATH_MAX;
}

// mkdir -p: creates every missing directory of `path` after its first `from`
// bytes (the root, which exists); true when `path` is a directory afterwards.
bool make_directories(char *path, size_t from) {
  char *end = path + strlen(path);
  struct stat st;
  for (char *p = path + from + 1; p <= end; ++p) {
    if (*p != '/' && *p != '\0') continue;
    char saved = *p;
    *p = '\0';
    bool made = mkdir(path, 0755) == 0 || errno == EEXIST || (stat(path, &st) == 0 && S_ISDIR(st.st_mode));
    *p = saved;
    if (!made) return false;
  }
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool write_all(int fd, const char *p, size_t left) {
  while (left > 0) {
    ssize_t n = write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

// Writes "value\n" to the key's file through a temporary file and rename,
// so a reader sees the old or the new value, never a part. Caller holds
// g_mutex.
void store(const char *key, const char *value) {
  const char *slash = strrchr(key, '/');
  char dir[PATH_MAX];
  char path[PATH_MAX];
  char temp[PATH_MAX];
  if (!path_of(dir, key, static_cast<size_t>(slash - key)) || !path_of(path, key, strlen(key))) return;
  if (!make_directories(dir, strlen(g_root))) return;
  int n = snprintf(temp, sizeof temp, "%s/.tmp.%ld.%lu", dir, static_cast<long>(getpid()), ++g_temp_counter);
  if (n < 0 || n >= PATH_MAX) return;
  int fd = open(temp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  bool ok = write_all(fd, value, strlen(value)) && write_all(fd, "\n", 1);
  if (close(fd) != 0) ok = false;
  if (!ok || rename(temp, path) != 0) unlink(temp);
}

// Reads the key's text without its final newline into `out` (`size` bytes,
// NUL-terminated). False when the key is absent. Caller holds g_mutex.
bool load(const char *key, char *out, size_t size) {
  char path[PATH_MAX];
  if (!path_of(path, key, strlen(key))) return false;
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return false;
  }
  size_t got = 0;
  while (got + 1 < size) {
    ssize_t n = read(fd, out + got, size - 1 - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  close(fd);
  out[got] = '\0';
  char *newline = strchr(out, '\n');
  if (newline != nullptr) *newline = '\0';
  return true;
}

// Removes `path` (PATH_MAX bytes, its contents restored on return) and, for
// a directory, everything under it. Symbolic links are removed, not followed.
void remove_tree(char *path, int depth) {
  struct stat st;
  if (lstat(path, &st) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    unlink(path);
    return;
  }
  if (depth < kRemoveDepth) {
    DIR *dir = opendir(path);
    if (dir != nullptr) {
      size_t len = strlen(path);
      while (const dirent *entry = readdir(dir)) {
        const char *name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        int n = snprintf(path + len, PATH_MAX - len, "/%s", name);
        if (n > 0 && static_cast<size_t>(n) < PATH_MAX - len) remove_tree(path, depth + 1);
        path[len] = '\0';
      }
      closedir(dir);
    }
  }
  rmdir(path);
}

// Stores a value under a printf-style key (both setters end here).
void store_formatted(const char *value, const char *key_format, va_list ap) {
  char key[kKeyMax];
  if (!format_key(key, key_format, ap)) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_root[0] != '\0') store(key, value);
}

// Absolute, lexically normal form of `dir` into `out` (PATH_MAX bytes):
// no ".", "..", repeated or trailing "/"; the file system root becomes "".
bool normal_absolute(const char *dir, char *out) {
  char joined[PATH_MAX];
  if (dir[0] == '/') {
    if (snprintf(joined, sizeof joined, "%s", dir) >= PATH_MAX) return false;
  } else {
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) return false;
    if (snprintf(joined, sizeof joined, "%s/%s", cwd, dir) >= PATH_MAX) return false;
  }
  size_t len = 0;
  char *save = nullptr;
  for (char *part = strtok_r(joined, "/", &save); part != nullptr; part = strtok_r(nullptr, "/", &save)) {
    if (strcmp(part, ".") == 0) continue;
    if (strcmp(part, "..") == 0) {
      while (len > 0 && out[len - 1] != '/') --len;
      if (len > 0) --len;
      continue;
    }
    out[len++] = '/';
    size_t part_len = strlen(part);
    memcpy(out + len, part, part_len);
    len += part_len;
  }
  out[len] = '\0';
  return true;
}

}  // namespace

int ConfigTree::getInt(char *buffer, const char *key) {
  if (!g_attached.load() || !valid_key(key)) return 0;
  char text[CFM_CONFIG_VALUE_SIZE];
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_root[0] == '\0' || !load(key, text, sizeof text)) return 0;
  }
  if (buffer != nullptr) memcpy(buffer, text, strlen(text) + 1);
  return atoi(text);
}

void ConfigTree::setInt(int value, const char *key_format, ...) {
  if (!g_attached.load()) return;
  char text[16];
  snprintf(text, sizeof text, "%d", value);
  va_list ap;
  va_start(ap, key_format);
  store_formatted(text, key_format, ap);
  va_end(ap);
}

void ConfigTree::setStr(const char *value, const char *key_format, ...) {
  if (!g_attached.load() || value == nullptr) return;
  va_list ap;
  va_start(ap, key_format);
  store_formatted(value, key_format, ap);
  va_end(ap);
}

void ConfigTree::delStr(const char *key_format, ...) {
  if (!g_attached.load()) return;
  char key[kKeyMax];
  va_list ap;
  va_start(ap, key_format);
  bool ok = format_key(key, key_format, ap);
  va_end(ap);
  if (!ok) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  char path[PATH_MAX];
  if (g_root[0] != '\0' && path_of(path, key, strlen(key))) remove_tree(path, 0);
}

void ConfigTree::getRow(const char *key, uint16_t *count) {
  if (count == nullptr) return;
  *count = 0;
  if (!g_attached.load() || !valid_key(key)) return;
  const char *slash = strrchr(key, '/');
  const char *table = slash + 1;
  size_t table_len = strlen(table);
  std::lock_guard<std::mutex> lock(g_mutex);
  char parent[PATH_MAX];
  if (g_root[0] == '\0' || !path_of(parent, key, static_cast<size_t>(slash - key))) return;
  DIR *dir = opendir(parent);
  if (dir == nullptr) return;
  unsigned rows = 0;
  while (const dirent *entry = readdir(dir)) {
    const char *name = entry->d_name;
    if (strncmp(name, table, table_len) != 0 || name[table_len] != ':' || name[table_len + 1] == '\0') continue;
    const char *digit = name + table_len + 1;
    while (*digit >= '0' && *digit <= '9') ++digit;
    if (*digit == '\0' && rows < UINT16_MAX) ++rows;
  }
  closedir(dir);
  *count = static_cast<uint16_t>(rows);
}

void ConfigTree::ConfigGet(const char *key, char *out) {
  if (out == nullptr || !g_attached.load() || !valid_key(key)) return;
  char text[CFM_CONFIG_VALUE_SIZE];
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_root[0] == '\0' || !load(key, text, sizeof text)) return;
  }
  memcpy(out, text, strlen(text) + 1);
}

bool ConfigTree::attachDirectory(const std::string &dir) {
  if (dir.empty()) return false;
  char root[PATH_MAX];
  if (!normal_absolute(dir.c_str(), root)) return false;
  struct stat st;
  // The file system root is refused: an empty prefix means detached.
  if (root[0] == '\0' || !make_directories(root, 0) || stat(root, &st) != 0 || !S_ISDIR(st.st_mode) ||
      access(root, W_OK | X_OK) != 0) {
    return false;
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  memcpy(g_root, root, sizeof g_root);
  g_attached.store(true);
  return true;
}

void ConfigTree::detach() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_root[0] = '\0';
  g_attached.store(false);
}

bool ConfigTree::attached() { return g_attached.load(); }
