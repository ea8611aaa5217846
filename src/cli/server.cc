// Command server: polls every open connection on /var/cfm_socket, reads one
// request line from each, splits a complete one into words and runs the
// matching handler. What the handler prints goes to standard output and,
// copied, back on the connection, which is then closed.
#include "cli/server.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/commands.h"
#include "cli/reply.h"
#include "cli/watch.h"
#include "core/os.h"

const CliCommand cfm_cli_cmd_table[] = {
    {"enable", cli_usr_cfm_enable},
    {"disable", cli_usr_cfm_disable},
    {"default", cli_usr_cfm_default},
    {"showdefault", cli_usr_cfm_showdefault},
    {"createmd", cli_usr_cfm_createmd},
    {"configmd", cli_usr_cfm_configmd},
    {"showmd", cli_usr_cfm_showmd},
    {"deletemd", cli_usr_cfm_deletemd},
    {"createma", cli_usr_cfm_createma},
    {"configma", cli_usr_cfm_configma},
    {"showma", cli_usr_cfm_showma},
    {"deletema", cli_usr_cfm_deletema},
    {"createmep", cli_usr_cfm_createmep},
    {"configmep", cli_usr_cfm_configmep},
    {"showmep", cli_usr_cfm_showmep},
    {"deletemep", cli_usr_cfm_deletemep},
    {"showremotemep", cli_usr_cfm_showremotemep},
    {"clearremotemep", cli_usr_cfm_clearremotemep},
    {"showltr", cli_usr_cfm_showltr},
    {"clearltr", cli_usr_cfm_clearltr},
    {"clearlbr", cli_usr_cfm_clearlbr},
    {"clearcnt", cli_usr_cfm_clearcnt},
    {"runtime", cli_usr_cfm_runtime},
    {"update", cli_usr_cfm_update},
    {"debugon", cli_usr_cfm_debug_on},
    {"debugoff", cli_usr_cfm_debug_off},
    {"pmstart", cli_usr_cfm_pmstart},
    {"pmstop", cli_usr_cfm_pmstop},
    {"pmshow", cli_usr_cfm_pmshow},
    {"lbstart", cli_usr_cfm_lbstart},
    {"lbstop", cli_usr_cfm_lbstop},
    {"dumpjson", cli_usr_cfm_dumpjson, true},
    {nullptr, nullptr},
};

int cfm_cli_is_number(const char *word) {
  if (word == nullptr || word[0] == '\0') return 0;
  for (const char *p = word; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return 0;
  }
  return 1;
}

int cfm_cli_output_aborted(FILE * /*out*/) { return 0; }

namespace {

char *copy_word(const char *word) {
  size_t len = strlen(word);
  char *copy = static_cast<char *>(CFM_OS_Allocate_Memory(len + 1));
  if (copy != nullptr) memcpy(copy, word, len + 1);
  return copy;
}

void free_args(CliArg *args) {
  while (args != nullptr) {
    CliArg *next = args->next;
    CFM_OS_Deallocate_Memory(args->text);
    CFM_OS_Deallocate_Memory(args->word);
    CFM_OS_Deallocate_Memory(args);
    args = next;
  }
}

// Builds the argument list from the words after the command word; null with
// *ok false when memory ran out.
CliArg *build_args(const CliWord *words, bool *ok) {
  CliArg *head = nullptr;
  CliArg **tail = &head;
  *ok = true;
  for (const CliWord *w = words; w != nullptr; w = w->next) {
    auto *arg = static_cast<CliArg *>(CFM_OS_Allocate_Memory(sizeof(CliArg)));
    if (arg == nullptr) {
      *ok = false;
      break;
    }
    memset(arg, 0, sizeof *arg);
    *tail = arg;
    tail = &arg->next;
    arg->word = copy_word(w->word);
    if (arg->word == nullptr) {
      *ok = false;
      break;
    }
    if (cfm_cli_is_number(w->word)) {
      // atoi semantics: strtol clamps, the conversion keeps the low bits.
      arg->value = static_cast<int32_t>(strtol(w->word, nullptr, 10));
      arg->data = &arg->value;
    } else {
      arg->text = copy_word(w->word);
      if (arg->text == nullptr) {
        *ok = false;
        break;
      }
      arg->data = arg->text;
    }
  }
  if (!*ok) {
    free_args(head);
    return nullptr;
  }
  return head;
}

void free_words(CliWord *words) {
  while (words != nullptr) {
    CliWord *next = words->next;
    free(words->word);
    CFM_OS_Deallocate_Memory(words);
    words = next;
  }
}

// Splits a line on single spaces as strtok_r does (runs of spaces are one
// separator) and copies every word into a new list.
CliWord *split_line(char *line) {
  CliWord *head = nullptr;
  CliWord **tail = &head;
  char *save = nullptr;
  for (char *tok = strtok_r(line, " ", &save); tok != nullptr; tok = strtok_r(nullptr, " ", &save)) {
    auto *node = static_cast<CliWord *>(CFM_OS_Allocate_Memory(sizeof(CliWord)));
    if (node == nullptr) break;
    node->word = strdup(tok);
    node->next = nullptr;
    if (node->word == nullptr) {
      CFM_OS_Deallocate_Memory(node);
      break;
    }
    *tail = node;
    tail = &node->next;
  }
  return head;
}

int run_buffer(char *line) {
  if (line[0] == '\0') return 0;
  CliWord *words = split_line(line);
  int result = 0;
  if (words != nullptr) result = cfm_cli_run_command(words);
  free_words(words);
  return result;
}

}  // namespace

int cfm_cli_run_command(CliWord *words) {
  if (words == nullptr || words->word == nullptr) return 0;
  bool ok = true;
  CliArg *args = build_args(words->next, &ok);
  int result = 0;
  if (ok && words->word[0] != '\0') {
    const CliCommand *match = nullptr;
    for (const CliCommand *row = cfm_cli_cmd_table; row->name != nullptr; ++row) {
      if (strcmp(row->name, words->word) == 0) {
        match = row;
        break;
      }
    }
    if (match != nullptr) {
      if (match->private_reply) cfm_cli_reply_private();
      result = match->handler(cfm_cli_out(), args, 0);
    } else {
      static const char kUnknown[] = "unknown command !\n";
      fwrite(kUnknown, 1, sizeof kUnknown - 1, cfm_cli_out());
    }
  }
  free_args(args);
  return result;
}

int cfm_cli_run_line(const char *line) {
  if (line == nullptr) return 0;
  char buffer[CFM_CLI_LINE_MAX + 1] = {0};
  size_t len = strnlen(line, CFM_CLI_LINE_MAX);
  memcpy(buffer, line, len);
  return run_buffer(buffer);
}

namespace {

long now_ms() {
  using namespace std::chrono;
  return static_cast<long>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

gid_t g_socket_gid = static_cast<gid_t>(-1);

// The bytes of a request as one line of text: printable ASCII as it is,
// anything else (and '"', '\') as \xNN.
std::string shown_bytes(const char *bytes, size_t size) {
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
      text += static_cast<char>(c);
    } else {
      char hex[5];
      snprintf(hex, sizeof hex, "\\x%02x", c);
      text += hex;
    }
  }
  return text;
}

}  // namespace

CliServer::CliServer(int listener, int limit_ms, size_t max_open)
    : listener_(listener), limit_ms_(limit_ms), max_open_(max_open) {
  if (listener_ >= 0) fcntl(listener_, F_SETFL, fcntl(listener_, F_GETFL) | O_NONBLOCK);
}

CliServer::~CliServer() {
  for (const CliConnection &conn : conns_) close(conn.fd);
}

void CliServer::add(int fd) {
  if (conns_.size() >= max_open_) {
    for (size_t i = 0; i < conns_.size(); ++i) {
      if (!conns_[i].complete) {
        char why[48];
        snprintf(why, sizeof why, ", %zu connections open", conns_.size());
        drop(i, why);
        break;
      }
    }
  }
  if (conns_.size() >= max_open_) {  // none was incomplete: the new one is
    close(fd);
    return;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);  // reads never wait
  CliConnection conn;
  conn.fd = fd;
  conn.opened_ms = now_ms();
  conn.got = 0;
  conn.complete = false;
  memset(conn.line, 0, sizeof conn.line);
  conns_.push_back(conn);
}

void CliServer::drop(size_t index, const char *why) {
  const CliConnection &conn = conns_[index];
  fprintf(stderr, "cfmd: incomplete request dropped%s: %zu bytes \"%s\"\n", why, conn.got,
          shown_bytes(conn.line, conn.got).c_str());
  close(conn.fd);
  conns_.erase(conns_.begin() + static_cast<long>(index));
}

// Accepts every waiting client. A failure (descriptors or memory running
// out) is reported once until an accept succeeds again, and pauses the
// server a tenth of a second so that it does not spin on the listener.
void CliServer::accept_all() {
  for (;;) {
    int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
      accept_failing_ = false;
      add(fd);
      continue;
    }
    if (errno == EINTR || errno == ECONNABORTED) continue;
    if (errno == EAGAIN) return;  // none waits (EWOULDBLOCK is EAGAIN on Linux)
    if (!accept_failing_) perror("server accept fail, reason");
    accept_failing_ = true;
    usleep(100 * 1000);
    return;
  }
}

void CliServer::read_some(CliConnection *conn) {
  for (;;) {
    ssize_t n = read(conn->fd, conn->line + conn->got, static_cast<size_t>(CFM_CLI_LINE_MAX) - conn->got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return;
    if (n > 0) {
      // Bytes after a line feed are not part of the request.
      const char *end = static_cast<const char *>(memchr(conn->line + conn->got, '\n', static_cast<size_t>(n)));
      size_t got = end != nullptr ? static_cast<size_t>(end - conn->line) + 1 : conn->got + static_cast<size_t>(n);
      memset(conn->line + got, 0, sizeof conn->line - got);
      conn->got = got;
      if (end == nullptr && got < static_cast<size_t>(CFM_CLI_LINE_MAX)) continue;
    }
    // A line feed, a full line, the end of the stream, or a broken connection
    // (which ends the request like the end of the stream).
    conn->complete = true;
    completed_.push_back(conn->fd);
    return;
  }
}

void CliServer::run_complete() {
  for (int fd : completed_) {
    // Always found: a complete connection is closed only here.
    auto conn = std::find_if(conns_.begin(), conns_.end(), [fd](const CliConnection &c) { return c.fd == fd; });
    if (cfm_watch_take(conn->line, fd)) {  // stays open, for events
      conns_.erase(conn);
      continue;
    }
    CliReply reply;
    {
      CliReplyScope scope(&reply);
      run_buffer(conn->line);
    }
    fflush(stdout);
    reply.send_to(fd);
    close(fd);
    conns_.erase(conn);
  }
  completed_.clear();
}

void CliServer::close_expired() {
  long now = now_ms();
  for (size_t i = conns_.size(); i-- > 0;) {
    if (conns_[i].complete || now - conns_[i].opened_ms < limit_ms_) continue;
    char why[48];
    snprintf(why, sizeof why, " after %d s", limit_ms_ / 1000);
    drop(i, why);
  }
}

void CliServer::step(int wait_ms) {
  std::vector<struct pollfd> fds;
  fds.push_back({listener_, POLLIN, 0});  // a negative fd is skipped by poll
  long now = now_ms();
  long wait = wait_ms;
  for (const CliConnection &conn : conns_) {  // all incomplete: complete ones ran in the last step
    fds.push_back({conn.fd, POLLIN, 0});
    long left = std::max(0L, conn.opened_ms + limit_ms_ - now);  // until its time limit
    if (wait < 0 || left < wait) wait = left;
  }
  int ready = poll(fds.data(), fds.size(), static_cast<int>(wait));
  if (ready < 0 && errno != EINTR) usleep(100 * 1000);  // out of memory: try again later
  // revents stay 0 unless poll reported something; conns_ still matches
  // fds[1..], as nothing is added or removed before this.
  for (size_t i = 1; i < fds.size(); ++i) {
    if (fds[i].revents != 0) read_some(&conns_[i - 1]);
  }
  if ((fds[0].revents & POLLIN) != 0) accept_all();
  run_complete();
  close_expired();
}

bool cfm_cli_set_socket_group(const char *group) {
  if (group == nullptr || group[0] == '\0') return false;
  if (cfm_cli_is_number(group)) {
    g_socket_gid = static_cast<gid_t>(strtoul(group, nullptr, 10));
    return true;
  }
  const struct group *entry = getgrnam(group);
  if (entry == nullptr) return false;
  g_socket_gid = entry->gr_gid;
  return true;
}

namespace {

// The socket file gets its mode at bind: 0600, or 0660 for the group. The
// mode is set on the socket before bind, so the file never exists with a
// wider one whatever the umask, and again after it, as the umask may have
// narrowed it.
bool bind_socket(int listener, const struct sockaddr_un &addr) {
  mode_t mode = g_socket_gid == static_cast<gid_t>(-1) ? 0600 : 0660;
  fchmod(listener, 0600);
  socklen_t len = static_cast<socklen_t>(strlen(addr.sun_path) + sizeof(addr.sun_family));
  if (bind(listener, reinterpret_cast<const struct sockaddr *>(&addr), len) < 0) return false;
  if (g_socket_gid != static_cast<gid_t>(-1) && chown(addr.sun_path, static_cast<uid_t>(-1), g_socket_gid) < 0) {
    fprintf(stderr, "CFM: the command socket cannot get group %u (%s), it stays mode 0600\n",
            static_cast<unsigned>(g_socket_gid), strerror(errno));
    mode = 0600;
  }
  chmod(addr.sun_path, mode);
  return true;
}

}  // namespace

int cfm_cli_server_init() {
  int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  if (listener < 0) {
    perror("server socket open fail, reason");
    return -1;
  }
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", CFM_CLI_SOCKET_PATH);
  unlink(CFM_CLI_SOCKET_PATH);
  if (!bind_socket(listener, addr)) {
    perror("server bind fail, reason");
    return -1;
  }
  if (listen(listener, CFM_CLI_BACKLOG) < 0) {
    perror("server listen fail, reaseon:");
    return -1;
  }
  CliServer server(listener);
  for (;;) server.step(-1);
}
