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
