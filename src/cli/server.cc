// Command server: accepts one connection at a time on /var/cfm_socket, reads
// one request line, splits it into words and runs the matching handler.
// What the handler prints goes to standard output and, copied, back on the
// connection, which is then closed.
#include "cli/server.h"

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "cli/commands.h"
#include "cli/reply.h"
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

using Clock = std::chrono::steady_clock;

long ms_since(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

gid_t g_socket_gid = static_cast<gid_t>(-1);

}  // namespace

size_t cfm_cli_read_request(int fd, char *line, int listener, int busy_ms, int idle_ms) {
  memset(line, 0, CFM_CLI_LINE_MAX + 1);
  const auto start = Clock::now();
  bool others_wait = false;
  size_t got = 0;
  while (got < static_cast<size_t>(CFM_CLI_LINE_MAX)) {
    long left = (others_wait ? busy_ms : idle_ms) - ms_since(start);
    if (left <= 0) break;
    // The listener is watched until a client waits there; from then on the
    // shorter limit holds.
    struct pollfd pfd[2] = {{fd, POLLIN, 0}, {listener, POLLIN, 0}};
    nfds_t watched = (listener >= 0 && !others_wait) ? 2 : 1;
    int ready = poll(pfd, watched, static_cast<int>(left));
    if (ready < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (watched == 2 && (pfd[1].revents & POLLIN) != 0) others_wait = true;
    if (pfd[0].revents == 0) continue;
    // One byte at a time, as a line reader must not consume past the line
    // end; requests are short and this runs once per connection.
    ssize_t n = read(fd, line + got, 1);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      break;  // a broken connection ends the request like end of stream
    }
    if (n == 0) break;
    got += 1;
    if (line[got - 1] == '\n') break;
  }
  return got;
}

void cfm_cli_serve_connection(int fd, int listener) {
  char line[CFM_CLI_LINE_MAX + 1];
  cfm_cli_read_request(fd, line, listener);
  CliReply reply;
  {
    CliReplyScope scope(&reply);
    run_buffer(line);
  }
  fflush(stdout);
  reply.send_to(fd);
  close(fd);
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
    perror("server socket group not set, reason");
    mode = 0600;
  }
  chmod(addr.sun_path, mode);
  return true;
}

// accept() until it gives a connection. A failure (descriptors or memory
// running out, an aborted connection) is reported once and retried after
// a pause: the server keeps serving for as long as the daemon runs.
int accept_connection(int listener) {
  bool reported = false;
  for (;;) {
    int conn = accept(listener, nullptr, nullptr);
    if (conn >= 0) return conn;
    if (errno == EINTR) continue;
    if (!reported) perror("server accept fail, reason");
    reported = true;
    usleep(100 * 1000);
  }
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
  for (;;) cfm_cli_serve_connection(accept_connection(listener), listener);
}
