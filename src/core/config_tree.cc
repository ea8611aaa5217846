// Configuration tree adapter. Inert until attachDirectory() backs it with a
// directory: every key is a file path below that directory holding the value
// and a newline. One mutex serialises the store, which the command server,
// the receive task and the timer task all reach.
#include "core/config_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>

namespace fs = std::filesystem;

namespace {

constexpr size_t kKeyMax = 512;

std::mutex g_mutex;
std::string g_root;  // empty while detached; guarded by g_mutex
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

// Caller holds g_mutex and the tree is attached.
std::string path_of(const char *key) { return g_root + key; }

// Writes "value\n" to the key's file through a temporary file and rename,
// so a reader sees the old or the new value, never a part. Caller holds
// g_mutex.
void store(const char *key, const char *value) {
  std::string path = path_of(key);
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  if (ec) return;
  std::string temp = fs::path(path).parent_path().string() + "/.tmp." + std::to_string(getpid()) + "." +
                     std::to_string(++g_temp_counter);
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  std::string text = std::string(value) + "\n";
  const char *p = text.data();
  size_t left = text.size();
  bool ok = true;
  while (left > 0) {
    ssize_t n = write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      break;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  if (close(fd) != 0) ok = false;
  if (!ok || rename(temp.c_str(), path.c_str()) != 0) unlink(temp.c_str());
}

// Reads the key's text without its final newline into `out` (`size` bytes,
// NUL-terminated). False when the key is absent. Caller holds g_mutex.
bool load(const char *key, char *out, size_t size) {
  std::string path = path_of(key);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
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

// Stores a value under a printf-style key (both setters end here).
void store_formatted(const char *value, const char *key_format, va_list ap) {
  char key[kKeyMax];
  if (!format_key(key, key_format, ap)) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_root.empty()) store(key, value);
}

}  // namespace

int ConfigTree::getInt(char *buffer, const char *key) {
  if (!g_attached.load() || !valid_key(key)) return 0;
  char text[CFM_CONFIG_VALUE_SIZE];
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_root.empty() || !load(key, text, sizeof text)) return 0;
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
  if (g_root.empty()) return;
  std::error_code ec;
  fs::remove_all(path_of(key), ec);
}

void ConfigTree::getRow(const char *key, uint16_t *count) {
  if (count == nullptr) return;
  *count = 0;
  if (!g_attached.load() || !valid_key(key)) return;
  const char *slash = strrchr(key, '/');
  std::string prefix = std::string(slash + 1) + ":";
  std::string parent(key, static_cast<size_t>(slash - key));
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_root.empty()) return;
  std::error_code ec;
  fs::directory_iterator it(g_root + parent, ec);
  if (ec) return;
  unsigned rows = 0;
  for (const auto &entry : it) {
    std::string name = entry.path().filename().string();
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) continue;
    bool digits = true;
    for (size_t i = prefix.size(); i < name.size(); ++i) {
      if (name[i] < '0' || name[i] > '9') digits = false;
    }
    if (digits && rows < UINT16_MAX) ++rows;
  }
  *count = static_cast<uint16_t>(rows);
}

void ConfigTree::ConfigGet(const char *key, char *out) {
  if (out == nullptr || !g_attached.load() || !valid_key(key)) return;
  char text[CFM_CONFIG_VALUE_SIZE];
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_root.empty() || !load(key, text, sizeof text)) return;
  }
  memcpy(out, text, strlen(text) + 1);
}

bool ConfigTree::attachDirectory(const std::string &dir) {
  if (dir.empty()) return false;
  std::error_code ec;
  fs::create_directories(dir, ec);
  fs::path root = fs::absolute(dir, ec);
  if (ec || !fs::is_directory(root, ec) || access(root.c_str(), W_OK | X_OK) != 0) return false;
  std::string text = root.lexically_normal().string();
  while (!text.empty() && text.back() == '/') text.pop_back();
  // The file system root is refused: an empty prefix means detached.
  std::lock_guard<std::mutex> lock(g_mutex);
  g_root = text;
  g_attached.store(!g_root.empty());
  return !g_root.empty();
}

void ConfigTree::detach() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_root.clear();
  g_attached.store(false);
}

bool ConfigTree::attached() { return g_attached.load(); }
