// cfmctl's named commands: words such as "md create 4 --level 3 --name core"
// checked here and turned into the daemon's positional requests. A new top
// level word is one row of named_commands() and a handler function.
#pragma once
#include <string>
#include <vector>

#include "client.h"

namespace cfmctl {

// The words after the top-level word, split into positional words and
// --options, with the first problem found and the requests built.
class Args {
 public:
  Args(const std::string &command, const std::vector<std::string> &words);

  size_t count() const { return positional_.size(); }
  const std::string &word(size_t i) const;  // "" past the end
  // A positional word as a number from lo to hi; `what` names it in errors.
  long number(size_t i, const char *what, long lo, long hi);
  bool has(const char *option);                        // given, with or without value
  std::string text(const char *option, bool needed);   // "" when absent
  long number(const char *option, long lo, long hi, long absent);
  // A value by name: `names` and `codes` run in parallel; -1 when absent.
  long choice(const char *option, const std::vector<const char *> &names, const std::vector<long> &codes);
  bool mac(const char *option, std::string *out);  // aa:bb:cc:dd:ee:ff

  // Records a problem (the first one is kept) and returns false.
  bool fail(const std::string &message);
  // After a handler: options it did not read are errors too.
  bool finish(size_t positional_max);
  const std::string &error() const { return error_; }
  const std::string &command() const { return command_; }

 private:
  std::string command_;
  std::vector<std::string> positional_;
  std::vector<std::pair<std::string, std::string>> options_;
  std::vector<std::string> read_;
  std::string error_;
};

// What a named command does once its words are checked: the requests to
// send in order (all run; the exit status is the worst), or a local action
// that replaces sending them and gives the exit status.
struct NamedRun {
  std::vector<std::string> requests;
  int (*local)(const Client &client, Args &args) = nullptr;
};

struct NamedCommand {
  const char *word;
  const char *usage;  // the lines `cfmctl help WORD` prints
  // Builds the run from the words after `word`; problems go to args.fail.
  void (*build)(Args &args, NamedRun *run);
  // Replaces sending the requests (status): returns the exit status.
  int (*local)(const Client &client, Args &args);
};

// The values by name, in the order of the daemon's codes: MD name formats
// 1..4, MA name formats 1..4, MHF creation 1..2, CCM intervals 2..7 and
// lowest alarm priorities 1..6.
extern const std::vector<const char *> kMdFormats, kMaFormats, kMhf, kIntervals, kAlarms;
// Largest MD or MA index the named commands take.
constexpr long kMaxIndex = 2147483647;

// True for an option that takes no value (--json, --check, ...).
bool is_flag(const std::string &word);

// True for one of the daemon's own command words (defined with cfmctl's
// help of them, outside this library).
bool is_daemon_word(const std::string &word);

const std::vector<NamedCommand> &named_commands();
const NamedCommand *find_named(const std::string &word);
// Checks the words, sends the requests, prints the replies; exit status.
int run_named(const Client &client, const NamedCommand &command, const std::vector<std::string> &words);

}  // namespace cfmctl
