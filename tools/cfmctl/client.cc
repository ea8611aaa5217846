#include "client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace cfmctl {

namespace {

// The beginnings of the lines by which the daemon refuses a request or
// reports a failure, from its command table: "Error!! ..." (index exists or
// is missing, table full, config failed, missing or invalid argument),
// "unknown command !", the delete refusals and the running loopback.
const char *const kRefusals[] = {
    "Error!! ",
    "unknown command !",
    " This MD is not exist!",
    " This MA is not exist!",
    " This MEP is not exist!",
    " This MD has MEP entry, need to delete all this MD's MEP!",
    " This MD has MA entry, need to delete all this MD's MA!",
    " This MA has MEP entry, need to delete all this MA's MEP!",
    " LBM is still transmiting !",
};

int no_daemon(const Client &client, const char *what) {
  if (!client.quiet) {
    fprintf(stderr, "cfmctl: %s: %s (is cfmd running? socket %s)\n", client.socket_path.c_str(), what,
            client.socket_path.c_str());
  }
  return kNoDaemon;
}

bool send_all(int fd, const std::string &bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Connects and sends the request; kOk with *fd open, or kNoDaemon.
int send_request(const Client &client, const std::string &request, int *fd) {
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (client.socket_path.size() >= sizeof addr.sun_path) return no_daemon(client, "path too long");
  memcpy(addr.sun_path, client.socket_path.c_str(), client.socket_path.size() + 1);
  *fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (*fd < 0) return no_daemon(client, strerror(errno));
  if (connect(*fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
    int err = errno;
    close(*fd);
    return no_daemon(client, strerror(err));
  }
  if (!send_all(*fd, request)) {
    close(*fd);
    return no_daemon(client, "the request could not be sent");
  }
  return kOk;
}

}  // namespace

int run_watch(const Client &client, bool json) {
  int fd = -1;
  // The line feed ends the request; the connection stays open both ways, so
  // that the daemon sees the watcher go when it closes.
  if (int status = send_request(client, json ? "watch json\n" : "watch\n", &fd); status != kOk) return status;
  static const char kRefusal[] = "cfmd: watch refused";
  std::string head;
  char buf[4096];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (head.size() < sizeof kRefusal) head.append(buf, static_cast<size_t>(n));
    fwrite(buf, 1, static_cast<size_t>(n), stdout);
    fflush(stdout);
  }
  close(fd);
  return head.compare(0, sizeof kRefusal - 1, kRefusal) == 0 ? kRefused : kOk;
}

int run_request(const Client &client, const std::string &request, std::string *reply) {
  reply->clear();
  int fd = -1;
  // The request is the words and no newline; end of stream ends it.
  if (int status = send_request(client, request, &fd); status != kOk) return status;
  shutdown(fd, SHUT_WR);
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::seconds(client.timeout_s);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    struct pollfd pfd = {fd, POLLIN, 0};
    int ready = left > 0 ? poll(&pfd, 1, static_cast<int>(left)) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      close(fd);
      fprintf(stderr, "cfmctl: %s: sent; no answer within %d s - it may still run\n", client.socket_path.c_str(),
              client.timeout_s);
      return kNoAnswer;
    }
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the daemon has finished the command
    reply->append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return kOk;
}

int reply_status(const std::string &reply) {
  size_t start = 0;
  while (start < reply.size()) {
    size_t end = reply.find('\n', start);
    if (end == std::string::npos) end = reply.size();
    std::string line = reply.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    for (const char *refusal : kRefusals) {
      if (line.compare(0, strlen(refusal), refusal) == 0) return kRefused;
    }
    start = end + 1;
  }
  return kOk;
}

void print_reply(const std::string &reply) {
  fwrite(reply.data(), 1, reply.size(), stdout);
  if (!reply.empty() && reply.back() != '\n') fputc('\n', stdout);
}

int run_and_print(const Client &client, const std::string &request) {
  std::string reply;
  int status = run_request(client, request, &reply);
  if (status != kOk) return status;
  print_reply(reply);
  return reply_status(reply);
}

}  // namespace cfmctl
