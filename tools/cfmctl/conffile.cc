#include "conffile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "files.h"

namespace cfmctl {

namespace {

std::vector<std::string> words_of(const std::string &text) {
  std::vector<std::string> words;
  size_t at = 0;
  while ((at = text.find_first_not_of(" \t", at)) != std::string::npos) {
    size_t end = std::min(text.find_first_of(" \t", at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

bool read_file(const std::string &path, std::string *text, std::string *error) {
  FILE *in = fopen(path.c_str(), "re");
  if (in == nullptr) return *error = strerror(errno), false;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, in)) > 0) text->append(buf, n);
  bool ok = ferror(in) == 0;
  if (!ok) *error = "read error";
  fclose(in);
  return ok;
}

void report(const FileLine &line, const std::string &why) {
  fprintf(stderr, "%s:%d: %s\n", line.file.c_str(), line.number, why.c_str());
}

// What the daemon said: its first line that is not blank, trimmed.
std::string first_line(const std::string &reply) {
  size_t at = reply.find_first_not_of(" \r\n");
  if (at == std::string::npos) return "";
  size_t end = reply.find_first_of("\r\n", at);
  return reply.substr(at, end == std::string::npos ? std::string::npos : end - at);
}

// Sends one request: "" when the daemon took it, else why it did not.
std::string send_one(const Sender &send, const std::string &request, int *status) {
  std::string reply;
  *status = send(request, &reply);
  if (*status == kNoDaemon) return "no daemon answered";
  if (*status == kNoAnswer) return "sent; no answer in time - it may still run";
  return reply_status(reply) == kRefused ? first_line(reply) : "";
}

// Makes the daemon's configuration equal to `wanted`, saying what it does;
// then reads it back. Sets *failed when a change was refused or the daemon
// still differs. Returns kOk or the exit status of a failed snapshot.
int replace_config(const Sender &send, const Config &wanted, bool *failed) {
  Config running;
  int status = fetch_config(send, &running);
  if (status != kOk) return status;
  for (const ConfigChange &change : config_changes(running, wanted)) {
    printf("cfmctl apply: %s%s\n", change.line.c_str(), change.note.empty() ? "" : ("   (" + change.note + ")").c_str());
    std::vector<std::string> requests;
    std::string why = line_requests(words_of(change.line), &requests);
    for (size_t i = 0; why.empty() && i < requests.size(); ++i) why = send_one(send, requests[i], &status);
    if (status == kNoDaemon) return status;
    if (!why.empty()) fprintf(stderr, "cfmctl apply: %s: %s\n", change.line.c_str(), why.c_str());
    *failed = *failed || !why.empty();
  }
  fflush(stdout);
  if ((status = fetch_config(send, &running)) != kOk) return status;
  std::vector<ConfigChange> left = config_changes(running, wanted);
  if (!left.empty()) {
    fprintf(stderr, "cfmctl apply: the daemon's configuration still differs from the files: %s\n", left[0].line.c_str());
    *failed = true;
  }
  return kOk;
}

Sender client_sender(const Client &client) {
  return [&client](const std::string &request, std::string *reply) { return run_request(client, request, reply); };
}

}  // namespace

std::vector<FileLine> split_config(const std::string &file, const std::string &text) {
  std::vector<FileLine> lines;
  std::string joined;
  bool continued = false;
  int number = 0, start = 0;
  for (size_t at = 0; at < text.size();) {
    size_t end = std::min(text.find('\n', at), text.size());
    std::string line = text.substr(at, end - at);
    at = end + 1;
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    size_t first = line.find_first_not_of(" \t");
    if (!continued && (first == std::string::npos || line[first] == '#')) continue;
    if (!continued) start = number;
    continued = !line.empty() && line.back() == '\\';
    joined += continued ? line.substr(0, line.size() - 1) : line;
    if (continued && at < text.size()) continue;
    std::vector<std::string> words = words_of(joined);
    if (!words.empty()) lines.push_back({file, start, words});
    joined.clear();
  }
  return lines;
}

std::string line_requests(const std::vector<std::string> &words, std::vector<std::string> *requests) {
  requests->clear();
  if (const NamedCommand *named = find_named(words[0])) {
    Args args(named->word, {words.begin() + 1, words.end()});
    NamedRun run;
    named->build(args, &run);
    if (!args.error().empty()) return words[0] + ": " + args.error();
    if (named->local != nullptr || run.local != nullptr) return "'" + words[0] + "' is no configuration line";
    *requests = run.requests;
    return "";
  }
  if (!is_daemon_word(words[0])) return "unknown command '" + words[0] + "' (see cfmctl help)";
  std::string request;
  for (const std::string &word : words) request += (request.empty() ? "" : " ") + word;
  requests->push_back(request);
  return "";
}

int fetch_config(const Sender &send, Config *config) {
  std::string reply;
  Json snapshot;
  int status = send("dumpjson", &reply);
  if (status != kOk) return status;
  if (!parse_json(reply, &snapshot) || snapshot.type != Json::kObject) {
    print_reply(reply);
    return kRefused;
  }
  *config = config_from_snapshot(snapshot);
  return kOk;
}

int apply_files(const ApplyOptions &options, const Sender &send) {
  std::vector<FileLine> lines;
  bool failed = false;
  for (const std::string &file : options.files) {
    std::string text, error;
    if (!read_file(file, &text, &error)) {
      fprintf(stderr, "%s: %s\n", file.c_str(), error.c_str());
      // --replace without the whole file would delete what it holds.
      if (options.check || options.replace) return kRefused;
      failed = true;
    }
    std::vector<FileLine> more = split_config(file, text);
    lines.insert(lines.end(), more.begin(), more.end());
  }
  int status = apply_lines(lines, options, send);
  return status == kOk && failed ? kRefused : status;
}

int apply_lines(const std::vector<FileLine> &lines, const ApplyOptions &options, const Sender &send) {
  Config wanted;
  bool failed = false;
  int status = kOk, bad = 0;
  for (const FileLine &line : lines) {
    std::vector<std::string> requests;
    std::string why = line_requests(line.words, &requests);
    for (size_t i = 0; why.empty() && !options.check && i < requests.size(); ++i) {
      bool configuration = true;
      why = options.replace ? follow_request(&wanted, requests[i], &configuration) : send_one(send, requests[i], &status);
      if (!configuration) report(line, "no configuration: left out by --replace");
    }
    if (status == kNoDaemon) return report(line, why), kNoDaemon;
    if (why.empty()) continue;
    report(line, why);
    if (options.check) return kRefused;
    ++bad;
  }
  if (options.replace && (status = replace_config(send, wanted, &failed)) != kOk) return status;
  printf("cfmctl apply%s: %zu lines, %d failed\n", options.check ? " --check" : "", lines.size(), bad);
  return failed || bad > 0 ? kRefused : kOk;
}

namespace {

// The configuration files when none is named: the file, then the
// directory's *.conf in name order; those that exist.
std::vector<std::string> default_files() {
  std::vector<std::string> files;
  if (access(kConfigFile, F_OK) == 0) files.push_back(kConfigFile);
  std::vector<std::string> names = list_dir(kConfigDir);
  std::sort(names.begin(), names.end());
  for (const std::string &name : names) {
    if (name.size() > 5 && name.compare(name.size() - 5, 5, ".conf") == 0) files.push_back(std::string(kConfigDir) + "/" + name);
  }
  return files;
}

// Waits up to `seconds` until the daemon answers an empty request (which
// it runs as nothing).
bool wait_for_daemon(const Client &client, long seconds) {
  Client quiet = client;
  quiet.quiet = true;
  std::string reply;
  for (long tries = seconds * 5; run_request(quiet, "", &reply) != kOk; --tries) {
    if (tries <= 0) return false;
    usleep(200 * 1000);
  }
  return true;
}

// Writes `text` to `path` so that the path always holds the old file or
// the whole new one: a new file beside it (a name no other program can
// guess, created only if it does not exist), the old file's mode and owner,
// synced, then renamed over it.
bool write_atomically(const std::string &path, const std::string &text, std::string *error) {
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  std::string name = dir + "/." + path.substr(slash + 1) + ".XXXXXX";
  int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) return *error = dir + ": " + strerror(errno), false;
  struct stat old;
  bool had = stat(path.c_str(), &old) == 0;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
            fchmod(fd, had ? old.st_mode & 07777 : 0644) == 0 && (!had || fchown(fd, old.st_uid, old.st_gid) == 0) &&
            fsync(fd) == 0;
  ok = close(fd) == 0 && ok && rename(name.c_str(), path.c_str()) == 0;
  if (!ok) {
    *error = path + ": " + strerror(errno);
    unlink(name.c_str());
    return false;
  }
  int d = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (d >= 0) fsync(d), close(d);
  return true;
}

}  // namespace

int run_apply(const Client &client, Args &args) {
  ApplyOptions options;
  options.check = args.has("--check");
  options.replace = args.has("--replace");
  long wait = args.number("--wait", 0, kMaxWait, 0);
  for (size_t i = 0; i < args.count(); ++i) options.files.push_back(args.word(i));
  if (options.files.empty()) options.files = default_files();
  if (options.files.empty()) {
    printf("cfmctl apply: no configuration file (%s, %s/*.conf)\n", kConfigFile, kConfigDir);
    return kOk;
  }
  if (!options.check && wait > 0 && !wait_for_daemon(client, wait)) {
    fprintf(stderr, "cfmctl apply: no daemon answered on %s within %ld s\n", client.socket_path.c_str(), wait);
    return kNoDaemon;
  }
  return apply_files(options, client_sender(client));
}

int run_running_config(const Client &client, Args &) {
  Config config;
  int status = fetch_config(client_sender(client), &config);
  if (status == kOk) fputs(running_config_text(config).c_str(), stdout);
  return status;
}

int save_config(const Sender &send, const std::string &path) {
  Config config;
  int status = fetch_config(send, &config);
  if (status != kOk) return status;
  char when[32];
  time_t now = time(nullptr);
  struct tm utc = {};
  strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &utc));
  std::string error;
  if (!write_atomically(path, std::string("# written by cfmctl config save at ") + when + "\n" + running_config_text(config),
                        &error)) {
    fprintf(stderr, "cfmctl config save: %s\n", error.c_str());
    return kRefused;
  }
  printf("cfmctl config save: %s written\n", path.c_str());
  return kOk;
}

int run_config_save(const Client &client, Args &args) {
  return save_config(client_sender(client), args.count() > 1 ? args.word(1) : kConfigFile);
}

}  // namespace cfmctl
