// Command server on /var/cfm_socket: one request line per connection; the
// handler's report goes to standard output and, as a copy, back on the
// connection before it is closed.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#define CFM_CLI_SOCKET_PATH "/var/cfm_socket"

// One argument of a request. Handlers read it through `data`: a pointer to
// `value` for a numeric word, else the word's text.
struct CliArg {
  char *text;
  int32_t value;
  void *data;
  CliArg *next;
  // Private copy of the word as it was sent, numeric or not: a numeric word
  // where a handler reads text is used as the text it was sent as.
  char *word;
};

// Word list built from the request line.
struct CliWord {
  char *word;
  CliWord *next;
};

using CliHandler = int (*)(FILE *out, CliArg *args, int unused);

struct CliCommand {
  const char *name;
  CliHandler handler;
  // The reply goes to the requesting connection only (cfm_cli_reply_private).
  bool private_reply = false;
};

extern const CliCommand cfm_cli_cmd_table[];

int cfm_cli_server_init();
int cfm_cli_run_command(CliWord *words);
int cfm_cli_is_number(const char *word);
int cfm_cli_output_aborted(FILE *out);

// Splits a request line as the server does and runs it (tests, fuzzing).
int cfm_cli_run_line(const char *line);

// Longest request line the server reads (the buffer holds one byte more).
constexpr int CFM_CLI_LINE_MAX = 1023;
// A connection that has not completed its request this long after it was
// accepted is closed without running anything.
constexpr int CFM_CLI_REQUEST_LIMIT_MS = 60000;
// Most connections open at once; a new one beyond closes the oldest one whose
// request is not complete.
constexpr size_t CFM_CLI_MAX_CONNECTIONS = 256;
// Listen queue: room for a burst of front ends while a slow command runs.
constexpr int CFM_CLI_BACKLOG = 64;

// One client connection. A request is complete at its line feed (kept), at
// CFM_CLI_LINE_MAX bytes or at the end of the client's stream; time never
// completes it.
struct CliConnection {
  int fd;
  long opened_ms;  // when it was accepted (steady clock)
  size_t got;      // request bytes read so far
  bool complete;
  char line[CFM_CLI_LINE_MAX + 1];  // the request, NUL-terminated
};

// The command server's connections. Every open connection is polled at once,
// so a complete request never waits behind an incomplete one; requests run on
// the calling thread, one at a time, in the order they completed. Each run
// mirrors its output on the connection, flushes standard output, sends the
// reply and closes the connection.
class CliServer {
 public:
  // `listener` (or -1) is a listening socket, made non-blocking here.
  explicit CliServer(int listener, int limit_ms = CFM_CLI_REQUEST_LIMIT_MS,
                     size_t max_open = CFM_CLI_MAX_CONNECTIONS);
  ~CliServer();
  CliServer(const CliServer &) = delete;
  CliServer &operator=(const CliServer &) = delete;

  // Takes a connection; when max_open are open, the oldest incomplete one is
  // closed first (a new connection is the newest incomplete one).
  void add(int fd);
  // Waits at most wait_ms (-1: without limit) for a connection or request
  // bytes, accepts and reads what came, runs the requests that completed and
  // closes the connections past the time limit.
  void step(int wait_ms);
  size_t open() const { return conns_.size(); }

 private:
  void accept_all();
  void read_some(CliConnection *conn);
  void drop(size_t index, const char *why);
  void run_complete();
  void close_expired();

  int listener_;
  int limit_ms_;
  size_t max_open_;
  bool accept_failing_ = false;
  std::vector<CliConnection> conns_;  // in the order they were accepted
  std::vector<int> completed_;        // fds whose requests completed, in order
};

// Owner group of the command socket (a name or a number): with one, the
// socket is created with mode 0660 and that group, without, mode 0600.
// Returns false for a group that does not exist.
bool cfm_cli_set_socket_group(const char *group);
