// Configuration tree adapter. Inert until attachDirectory() backs it with a
// directory: every key is a file path below that directory holding the value
// and a newline. One mutex serialises the store, which the command server,
// the receive task and the timer task all reach.
#include "core/config_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
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
int g_root_fd = -1;  // the tree's directory, -1 while detached; guarded by g_mutex
std::atomic<bool> g_attached{false};

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

// True, after one line on standard error naming the first `end` bytes of
// `key`, when the entry `name` of `dir_fd` is a symbolic link. Links are
// never followed below the root, so nothing planted in the tree can send a
// write or a read outside it.
bool refused_link(int dir_fd, const char *name, const char *key, size_t end) {
  struct stat st;
  if (fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(st.st_mode)) return false;
  fprintf(stderr, "CFM: configuration tree: %.*s is a symbolic link, not followed\n", static_cast<int>(end), key);
  return true;
}

// Opens the directory of the key's first `len` bytes ("" is the root)
// component by component below the root, never through a link; with
// `create`, missing directories are made. Returns a descriptor the caller
// closes, or -1. Caller holds g_mutex and the tree is attached.
int open_directory(const char *key, size_t len, bool create) {
  int fd = fcntl(g_root_fd, F_DUPFD_CLOEXEC, 0);
  char name[kKeyMax];
  for (size_t at = 1; fd >= 0 && at < len;) {
    size_t end = at;
    while (end < len && key[end] != '/') ++end;
    memcpy(name, key + at, end - at);
    name[end - at] = '\0';
    if (create) mkdirat(fd, name, 0755);
    int next = openat(fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) refused_link(fd, name, key, end);
    close(fd);
    fd = next;
    at = end + 1;
  }
  return fd;
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

// Random bits for a temporary name, so nobody can plant a link where the
// next one will be: getrandom where the C library or the kernel headers
// have it, else /dev/urandom; the clock and a counter when both fail
// (O_EXCL still refuses anything found at the name).
uint64_t random_bits() {
  uint64_t bits = 0;
#ifdef SYS_getrandom
  if (syscall(SYS_getrandom, &bits, sizeof bits, 0) == static_cast<long>(sizeof bits)) return bits;
#endif
  int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    ssize_t n = read(fd, &bits, sizeof bits);
    close(fd);
    if (n == static_cast<ssize_t>(sizeof bits)) return bits;
  }
  static uint64_t counter = 0;
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (static_cast<uint64_t>(now.tv_nsec) << 20) ^ static_cast<uint64_t>(now.tv_sec) ^ ++counter;
}

// Creates a new temporary file in `dir_fd` under an unpredictable name
// (into `temp`, 32 bytes); -1 when none could be made.
int create_temporary(int dir_fd, char *temp) {
  for (int attempt = 0; attempt < 4; ++attempt) {
    snprintf(temp, 32, ".tmp.%016llx", static_cast<unsigned long long>(random_bits()));
    int fd = openat(dir_fd, temp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

// Writes "value\n" to the key's file through a temporary file and rename,
// so a reader sees the old or the new value, never a part. A link at the
// key's place is left alone. Caller holds g_mutex.
void store(const char *key, const char *value) {
  const char *name = strrchr(key, '/') + 1;
  int dir_fd = open_directory(key, static_cast<size_t>(name - 1 - key), true);
  if (dir_fd < 0) return;
  char temp[32];
  int fd = refused_link(dir_fd, name, key, strlen(key)) ? -1 : create_temporary(dir_fd, temp);
  if (fd >= 0) {
    bool ok = write_all(fd, value, strlen(value)) && write_all(fd, "\n", 1);
    if (close(fd) != 0) ok = false;
    if (!ok || renameat(dir_fd, temp, dir_fd, name) != 0) unlinkat(dir_fd, temp, 0);
  }
  close(dir_fd);
}

// Reads the key's text without its final newline into `out` (`size` bytes,
// NUL-terminated). False when the key is absent. Caller holds g_mutex.
bool load(const char *key, char *out, size_t size) {
  const char *name = strrchr(key, '/') + 1;
  int dir_fd = open_directory(key, static_cast<size_t>(name - 1 - key), false);
  if (dir_fd < 0) return false;
  // Non-blocking: a FIFO at the key must not hold the caller.
  int fd = openat(dir_fd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) refused_link(dir_fd, name, key, strlen(key));
  close(dir_fd);
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

// Removes the entry `name` of `dir_fd` and, for a directory, everything
// under it. Symbolic links are removed, not followed.
void remove_entry(int dir_fd, const char *name, int depth) {
  struct stat st;
  if (fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    unlinkat(dir_fd, name, 0);
    return;
  }
  int fd = depth < kRemoveDepth ? openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1;
  if (DIR *dir = fd >= 0 ? fdopendir(fd) : nullptr) {
    while (const dirent *entry = readdir(dir)) {
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
        remove_entry(dirfd(dir), entry->d_name, depth + 1);
    }
    closedir(dir);
  } else if (fd >= 0) {
    close(fd);
  }
  unlinkat(dir_fd, name, AT_REMOVEDIR);
}

// Stores a value under a printf-style key (both setters end here).
void store_formatted(const char *value, const char *key_format, va_list ap) {
  char key[kKeyMax];
  if (!format_key(key, key_format, ap)) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_root_fd >= 0) store(key, value);
}

// mkdir -p of the tree's own directory `path` (absolute, lexically normal);
// true when it is a directory afterwards.
bool make_directories(char *path) {
  struct stat st;
  for (char *p = path + 1;; ++p) {
    if (*p != '/' && *p != '\0') continue;
    char saved = *p;
    *p = '\0';
    mkdir(path, 0755);
    *p = saved;
    if (saved == '\0') break;
  }
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
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
    if (g_root_fd < 0 || !load(key, text, sizeof text)) return 0;
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
  if (g_root_fd < 0) return;
  const char *name = strrchr(key, '/') + 1;
  int dir_fd = open_directory(key, static_cast<size_t>(name - 1 - key), false);
  if (dir_fd < 0) return;
  remove_entry(dir_fd, name, 0);
  close(dir_fd);
}

void ConfigTree::getRow(const char *key, uint16_t *count) {
  if (count == nullptr) return;
  *count = 0;
  if (!g_attached.load() || !valid_key(key)) return;
  const char *slash = strrchr(key, '/');
  const char *table = slash + 1;
  size_t table_len = strlen(table);
  std::lock_guard<std::mutex> lock(g_mutex);
  int dir_fd = g_root_fd >= 0 ? open_directory(key, static_cast<size_t>(slash - key), false) : -1;
  DIR *dir = dir_fd >= 0 ? fdopendir(dir_fd) : nullptr;
  if (dir == nullptr) {
    if (dir_fd >= 0) close(dir_fd);
    return;
  }
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
    if (g_root_fd < 0 || !load(key, text, sizeof text)) return;
  }
  memcpy(out, text, strlen(text) + 1);
}

bool ConfigTree::attachDirectory(const std::string &dir) {
  if (dir.empty()) return false;
  char root[PATH_MAX];
  if (!normal_absolute(dir.c_str(), root)) return false;
  // The file system root is refused.
  if (root[0] == '\0' || !make_directories(root) || access(root, W_OK | X_OK) != 0) return false;
  // The operator's path may pass through links; below it nothing is followed.
  int fd = open(root, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_root_fd >= 0) close(g_root_fd);
  g_root_fd = fd;
  g_attached.store(true);
  return true;
}

void ConfigTree::detach() {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_root_fd >= 0) close(g_root_fd);
  g_root_fd = -1;
  g_attached.store(false);
}

bool ConfigTree::attached() { return g_attached.load(); }
