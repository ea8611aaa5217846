#include "cli/reply.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

const char CFM_CLI_REPLY_CUT_LINE[] = "\ncfmd: reply cut at 65536 bytes; the whole text is in the daemon's log\n";

namespace {

thread_local FILE *t_out = nullptr;
thread_local CliReply *t_reply = nullptr;

// Writes of the handler's stream: standard output first, in the order the
// handler printed, then the kept copy.
ssize_t tee_write(void *cookie, const char *bytes, size_t size) {
  auto *reply = static_cast<CliReply *>(cookie);
  if (!reply->is_private()) fwrite(bytes, 1, size, stdout);
  reply->keep(bytes, size);
  return static_cast<ssize_t>(size);
}

}  // namespace

CliReply::CliReply() {
  cookie_io_functions_t io = {nullptr, tee_write, nullptr, nullptr};
  stream_ = fopencookie(this, "w", io);
  // Unbuffered like the daemon's standard output: each print reaches it
  // whole and in order with what the same thread prints to stdout directly.
  if (stream_ != nullptr) setvbuf(stream_, nullptr, _IONBF, 0);
}

CliReply::~CliReply() {
  if (stream_ != nullptr) fclose(stream_);
}

void CliReply::keep(const char *bytes, size_t size) {
  size_t room = (private_ ? CFM_CLI_PRIVATE_REPLY_MAX : CFM_CLI_REPLY_MAX) - kept_.size();
  if (size > room) {
    cut_ = true;
    size = room;
  }
  kept_.append(bytes, size);
}

std::string CliReply::text() const { return cut_ && !private_ ? kept_ + CFM_CLI_REPLY_CUT_LINE : kept_; }

size_t CliReply::send_to(int fd) const {
  const std::string all = text();
  size_t sent = 0;
  while (sent < all.size()) {
    ssize_t n = send(fd, all.data() + sent, all.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN && private_) {
      struct pollfd room = {fd, POLLOUT, 0};
      if (poll(&room, 1, CFM_CLI_PRIVATE_SEND_WAIT_MS) > 0) continue;
    }
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  return sent;
}

FILE *cfm_cli_out() { return t_out != nullptr ? t_out : stdout; }

void cfm_cli_reply_private() {
  if (t_reply != nullptr) t_reply->make_private();
}

CliReplyScope::CliReplyScope(CliReply *reply) : previous_(t_out), previous_reply_(t_reply) {
  t_out = reply->stream();
  t_reply = reply;
}

CliReplyScope::~CliReplyScope() {
  t_out = previous_;
  t_reply = previous_reply_;
}
