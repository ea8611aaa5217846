// Command server on /var/cfm_socket: one request line per connection, no
// reply on the connection; reports go to standard output.
#pragma once
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
// A connection that has not delivered its request within this time is closed
// without running anything.
constexpr int CFM_CLI_REQUEST_TIMEOUT_MS = 2000;

// Serves one accepted connection: reads the request, runs it, flushes
// standard output, closes the connection.
void cfm_cli_serve_connection(int fd);
// Reads one request line (up to and including '\n', at most
// CFM_CLI_LINE_MAX bytes, or what came before end of stream) into `line`
// (CFM_CLI_LINE_MAX + 1 bytes, cleared first). Returns false when the
// request did not arrive within `timeout_ms`.
bool cfm_cli_read_request(int fd, char *line, int timeout_ms);
