// cfmctl's side of the command socket: one request per connection, the
// reply read until the daemon closes it, and what the reply means.
#pragma once
#include <string>

namespace cfmctl {

// Exit statuses of cfmctl.
// kNoDaemon: nothing was sent; kNoAnswer: the request was sent but its reply
// did not come in time, so the daemon may still run it.
enum Exit { kOk = 0, kRefused = 1, kUsage = 2, kNoDaemon = 3, kNoAnswer = 4 };

struct Client {
  std::string socket_path = "/var/cfm_socket";
  // Seconds to wait for the reply: longer than the slowest command (the
  // linktrace export and clearltr sleep 3 s) plus a queue of other clients.
  int timeout_s = 10;
  // No message when no daemon answers (a caller waiting for one).
  bool quiet = false;
};

// Sends the request and collects the reply in *reply. Returns kOk; kNoDaemon
// after printing why (with a hint) when it could not connect or send; or
// kNoAnswer after saying so when the reply did not come within the timeout.
int run_request(const Client &client, const std::string &request, std::string *reply);
// kRefused when the reply holds one of the daemon's refusal or failure
// texts, else kOk.
int reply_status(const std::string &reply);
// Prints a reply as it came, ending it with a newline when it has none.
void print_reply(const std::string &reply);
// Asks for events and prints them as they come until the daemon closes the
// connection: kOk, kRefused when the daemon has no room for a watcher, or
// kNoDaemon.
int run_watch(const Client &client, bool json);
// run_request, print_reply and reply_status in one: cfmctl's exit status.
int run_and_print(const Client &client, const std::string &request);

}  // namespace cfmctl
