// Command server on /var/cfm_socket: one request line per connection; the
// handler's report goes to standard output and, as a copy, back on the
// connection before it is closed.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>

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
// How long one connection may take to deliver its request: while another
// client waits in the listen queue, at most CFM_CLI_BUSY_LIMIT_MS from its
// accept; while none waits, CFM_CLI_IDLE_LIMIT_MS. On the limit, what it has
// sent is run.
constexpr int CFM_CLI_BUSY_LIMIT_MS = 2000;
constexpr int CFM_CLI_IDLE_LIMIT_MS = 60000;
// Listen queue: room for a burst of front ends while a slow command runs.
constexpr int CFM_CLI_BACKLOG = 64;

// Serves one accepted connection: reads the request, runs it with its
// output mirrored on the connection, flushes standard output, sends the
// reply, closes the connection. `listener` (or -1) is the listening socket,
// watched for waiting clients.
void cfm_cli_serve_connection(int fd, int listener = -1);
// Reads one request line (up to and including '\n', at most
// CFM_CLI_LINE_MAX bytes, or what came before end of stream or the time
// limit above; busy_ms/idle_ms replace them) into `line` (CFM_CLI_LINE_MAX
// + 1 bytes, cleared first). Returns the number of bytes read.
size_t cfm_cli_read_request(int fd, char *line, int listener, int busy_ms = CFM_CLI_BUSY_LIMIT_MS,
                            int idle_ms = CFM_CLI_IDLE_LIMIT_MS);

// Owner group of the command socket (a name or a number): with one, the
// socket is created with mode 0660 and that group, without, mode 0600.
// Returns false for a group that does not exist.
bool cfm_cli_set_socket_group(const char *group);
