// The reply of one request: while the command server runs a request, what
// the handler prints goes to standard output as always and is also kept, so
// that it can be written back on the request's connection when the command
// has finished. Only the serving thread's stream is mirrored; reports that
// the receive and timer tasks print meanwhile go to standard output alone.
#pragma once
#include <cstddef>
#include <cstdio>
#include <string>

// Most bytes of one reply sent on a connection; standard output is never cut.
constexpr size_t CFM_CLI_REPLY_MAX = 64 * 1024;
// A command whose reply goes to its connection only (a machine-readable
// snapshot): nothing reaches standard output, the reply may be this long,
// and sending it waits while the client reads, up to
// CFM_CLI_PRIVATE_SEND_WAIT_MS each time it finds no room.
constexpr size_t CFM_CLI_PRIVATE_REPLY_MAX = 1024 * 1024;
constexpr int CFM_CLI_PRIVATE_SEND_WAIT_MS = 250;
// The line that ends a reply cut at CFM_CLI_REPLY_MAX bytes.
extern const char CFM_CLI_REPLY_CUT_LINE[];

class CliReply {
 public:
  CliReply();
  ~CliReply();
  CliReply(const CliReply &) = delete;
  CliReply &operator=(const CliReply &) = delete;

  // The stream handlers print to: every byte written to it is written to
  // standard output at once and kept (up to CFM_CLI_REPLY_MAX bytes). Falls
  // back to standard output alone when the stream cannot be made.
  FILE *stream() const { return stream_ != nullptr ? stream_ : stdout; }
  // What was kept, with the cut line when more was printed.
  std::string text() const;
  // Sends text() on a connection without blocking and without SIGPIPE; a
  // client that has gone or does not read gets what fits, the rest is
  // dropped. Returns the bytes sent.
  size_t send_to(int fd) const;

  void keep(const char *bytes, size_t size);
  // From now on the reply is private (see CFM_CLI_PRIVATE_REPLY_MAX).
  void make_private() { private_ = true; }
  bool is_private() const { return private_; }

 private:
  std::string kept_;
  bool cut_ = false;
  bool private_ = false;
  FILE *stream_ = nullptr;
};

// The stream of the request the calling thread is serving, or standard
// output when it serves none.
FILE *cfm_cli_out();
// Makes the calling thread's reply private; without one (a request run
// in-process) what the command prints goes to standard output as usual.
void cfm_cli_reply_private();
// Makes `reply` the calling thread's reply stream until the scope ends.
class CliReplyScope {
 public:
  explicit CliReplyScope(CliReply *reply);
  ~CliReplyScope();
  CliReplyScope(const CliReplyScope &) = delete;
  CliReplyScope &operator=(const CliReplyScope &) = delete;

 private:
  FILE *previous_;
  CliReply *previous_reply_;
};
