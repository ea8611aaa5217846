// Configuration files of cfmd: `cfmctl apply` sends their lines to the
// daemon (or, with --replace, the changes that make the daemon's
// configuration equal to them), `cfmctl show running-config` prints the
// daemon's configuration as such lines and `cfmctl config save` writes them
// to a file. A line is a named command or a raw request; '#' at its start
// makes it a comment, a '\' at its end joins the next line to it.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "client.h"
#include "config.h"
#include "named.h"

namespace cfmctl {

constexpr const char *kConfigFile = "/etc/cfmd/cfmd.conf";
constexpr const char *kConfigDir = "/etc/cfmd/cfmd.d";
// Longest wait for the daemon that apply --wait takes, in seconds.
constexpr long kMaxWait = 3600;

// Sends one request and gives its reply: kOk, kNoDaemon or kNoAnswer (as
// run_request), so that the same code runs against a daemon in-process.
using Sender = std::function<int(const std::string &request, std::string *reply)>;

// A line of a file with its words, and where it starts.
struct FileLine {
  std::string file;
  int number = 0;
  std::vector<std::string> words;
};

// The lines of a file's text; `file` names it in the lines.
std::vector<FileLine> split_config(const std::string &file, const std::string &text);
// The requests a line's words stand for: a named command's, checked as on
// the command line, or the words as a raw request. Returns the usage error,
// or "".
std::string line_requests(const std::vector<std::string> &words, std::vector<std::string> *requests);

struct ApplyOptions {
  bool check = false;    // only check the lines, send nothing
  bool replace = false;  // make the daemon's configuration equal to the files
  std::vector<std::string> files;
};
// Applies the files: problems go to stderr as "FILE:LINE: why", what was done
// to stdout. Returns 0, 1 when any line failed, or 3 when no daemon answered.
int apply_files(const ApplyOptions &options, const Sender &send);
// The same for lines already read (options.files is not read).
int apply_lines(const std::vector<FileLine> &lines, const ApplyOptions &options, const Sender &send);
// Writes the daemon's configuration to `path` atomically, with a header line
// saying when and by what; kOk or cfmctl's exit status.
int save_config(const Sender &send, const std::string &path);

// The daemon's configuration from its snapshot; kOk or cfmctl's exit status.
int fetch_config(const Sender &send, Config *config);

// cfmctl apply, show running-config and config save (named commands' local
// actions).
int run_apply(const Client &client, Args &args);
int run_running_config(const Client &client, Args &args);
int run_config_save(const Client &client, Args &args);

}  // namespace cfmctl
