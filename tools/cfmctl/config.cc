#include "config.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "cli/mep_options.h"
#include "named.h"

namespace cfmctl {

namespace {

std::string num(long long n) { return std::to_string(n); }

template <typename Record, typename Key>
Record *find(std::vector<Record> &records, Key key, Key Record::*field) {
  for (Record &r : records) {
    if (r.*field == key) return &r;
  }
  return nullptr;
}

template <typename Record, typename Key>
const Record *find(const std::vector<Record> &records, Key key, Key Record::*field) {
  return find(const_cast<std::vector<Record> &>(records), key, field);
}

// Keeps a table in the order of its key, as the daemon lists it.
template <typename Record, typename Key>
void insert(std::vector<Record> &records, const Record &record, Key Record::*field) {
  auto at = std::find_if(records.begin(), records.end(), [&](const Record &r) { return record.*field < r.*field; });
  records.insert(at, record);
}

// ---- the snapshot ----

int boolean(const Json &value) { return value.boolean ? 1 : 0; }

}  // namespace

Config config_from_snapshot(const Json &snapshot) {
  Config config;
  const Json &global = snapshot["global"];
  config.global = {boolean(global["enabled"]), boolean(global["debug"]),
                   static_cast<int>(global["default_md_level"].integer()),
                   static_cast<int>(global["mhf_creation"].integer())};
  for (const Json &md : snapshot["mds"].items) {
    insert(config.mds,
           MdConfig{static_cast<uint32_t>(md["md"].integer()), md["md_name"].text,
                    static_cast<int>(md["name_format"].integer()), static_cast<int>(md["level"].integer()),
                    static_cast<int>(md["mhf_creation"].integer())},
           &MdConfig::md);
  }
  for (const Json &ma : snapshot["mas"].items) {
    insert(config.mas,
           MaConfig{static_cast<uint32_t>(ma["ma"].integer()), static_cast<uint32_t>(ma["md"].integer()),
                    ma["ma_name"].text, static_cast<int>(ma["name_format"].integer()),
                    static_cast<int>(ma["ccm_interval"].integer())},
           &MaConfig::ma);
  }
  for (const Json &mep : snapshot["meps"].items) {
    MepKey key{static_cast<uint32_t>(mep["md"].integer()), static_cast<uint32_t>(mep["ma"].integer()),
               static_cast<int>(mep["mep"].integer()), static_cast<int>(mep["port"].integer()),
               static_cast<int>(mep["vid"].integer()), mep["direction"].text == "up" ? 2 : 1};
    insert(config.meps,
           MepConfig{key, mep["active"].boolean, mep["ccm_enabled"].boolean,
                     static_cast<int>(mep["ccm_ltm_priority"].integer()),
                     static_cast<int>(mep["lowest_alarm_priority"].integer())},
           &MepConfig::key);
  }
  config.mips = snapshot["mips"].items.size();
  return config;
}

namespace {

// ---- following requests as the daemon runs them ----

const char kMissing[] = "Error!! Missing argument";
const char kInvalid[] = "Error!! Invalid argument";
const char kSilent[] = "refused without a word by the daemon";

// A request's words; positions count from 1 after the command word, as the
// daemon's handlers count them.
class Request {
 public:
  explicit Request(const std::string &text) {
    size_t at = 0;
    while (at < text.size()) {
      size_t end = text.find(' ', at);
      if (end == std::string::npos) end = text.size();
      if (end > at) words_.push_back(text.substr(at, end - at));
      at = end + 1;
    }
  }
  const std::string &command() const { return words_.empty() ? kNone : words_[0]; }
  bool has(size_t pos) const { return pos < words_.size(); }
  bool is_number(size_t pos) const {
    return has(pos) && words_[pos].find_first_not_of("0123456789") == std::string::npos;
  }
  // The daemon's reading of a number word: strtol, the low 32 bits kept.
  int32_t value(size_t pos) const { return static_cast<int32_t>(strtol(words_[pos].c_str(), nullptr, 10)); }
  const std::string &word(size_t pos) const { return has(pos) ? words_[pos] : kNone; }
  // The numbers at `positions` into values; the daemon's refusal when one is
  // missing or not a number.
  const char *numbers(std::initializer_list<size_t> positions, int32_t *values) const {
    for (size_t pos : positions) {
      if (!has(pos)) return kMissing;
      if (!is_number(pos)) return kInvalid;
      *values++ = value(pos);
    }
    return nullptr;
  }

 private:
  static inline const std::string kNone;
  std::vector<std::string> words_;
};

// Walks "code value" pairs from `pos` as the MD and MA commands do: `take`
// says whether a code reads the next word (number or text) and applies it;
// a code it does not know is passed over alone.
template <typename Take>
const char *walk_pairs(const Request &r, size_t pos, Take take) {
  for (; r.has(pos); ++pos) {
    if (!r.is_number(pos)) return kInvalid;
    int32_t code = r.value(pos);
    bool text = false;
    if (!take(code, &text, 0, nullptr)) continue;
    if (!r.has(pos + 1)) return kMissing;
    if (!text && !r.is_number(pos + 1)) return kInvalid;
    take(code, &text, r.is_number(pos + 1) ? r.value(pos + 1) : 0, &r.word(pos + 1));
    ++pos;
  }
  return nullptr;
}

// The MD options (code 0, the level, for configmd only).
const char *md_options(const Request &r, size_t pos, MdConfig *md, bool level_option, bool *name_set) {
  return walk_pairs(r, pos, [&](int32_t code, bool *text, int32_t value, const std::string *word) {
    if ((code == 0 && !level_option) || (code != 0 && code != 1 && code != 2 && code != 4)) return false;
    *text = code == 4;
    if (word == nullptr) return true;
    if (code == 0) md->level = static_cast<uint8_t>(value);
    if (code == 1 && value >= 11 && value <= 14) md->format = value - 10;
    if (code == 2 && (value == 21 || value == 22)) md->mhf = value - 20;
    if (code == 4) md->name = word->substr(0, 43), *name_set = true;
    return true;
  });
}

const char *ma_options(const Request &r, size_t pos, MaConfig *ma, bool *name_set) {
  return walk_pairs(r, pos, [&](int32_t code, bool *text, int32_t value, const std::string *word) {
    if (code < 1 || code > 3) return false;
    *text = code == 2;
    if (word == nullptr) return true;
    if (code == 1 && value >= 11 && value <= 14) ma->format = value - 10;
    if (code == 2) ma->name = word->substr(0, 45), *name_set = true;
    if (code == 3 && value >= 29 && value <= 34) ma->interval = value - 27;
    return true;
  });
}

bool smallest_ma_in(const Config &c, uint32_t md) { return !c.mas.empty() && c.mas.front().md == md; }

bool has_mep(const Config &c, uint32_t md, const uint32_t *ma) {
  return std::any_of(c.meps.begin(), c.meps.end(),
                     [&](const MepConfig &m) { return m.key.md == md && (ma == nullptr || m.key.ma == *ma); });
}

std::string follow_md(Config *c, const Request &r) {
  int32_t v[2];
  bool create = r.command() == "createmd", config = r.command() == "configmd";
  if (const char *error = create ? r.numbers({1, 3}, v) : r.numbers({1}, v)) return error;
  if (create && !r.has(5)) return kMissing;
  uint32_t index = static_cast<uint32_t>(v[0]);
  MdConfig *old = find(c->mds, index, &MdConfig::md);
  if (!create && !config) {  // deletemd
    if (old == nullptr) return "This MD is not exist!";
    if (has_mep(*c, index, nullptr)) return "This MD has MEP entry, need to delete all this MD's MEP!";
    if (smallest_ma_in(*c, index)) return "This MD has MA entry, need to delete all this MD's MA!";
    c->mds.erase(c->mds.begin() + (old - c->mds.data()));
    return "";
  }
  if (create == (old != nullptr)) return create ? "Error!! MD Index exist" : "Error!! MD Index doenn't exist";
  MdConfig md = create ? MdConfig{index, r.word(5), 4, static_cast<uint8_t>(v[1]), 2} : *old;
  bool name_set = false;
  if (const char *error = md_options(r, create ? 6 : 2, &md, config, &name_set)) return error;
  if (md.level >= 8 || (create && md.name.size() > 43 && !name_set)) {
    return create ? "Error!! MD Table is full" : "Error!! MD config fail";
  }
  create ? insert(c->mds, md, &MdConfig::md) : void(*old = md);
  return "";
}

std::string follow_ma(Config *c, const Request &r) {
  int32_t v[2];
  bool create = r.command() == "createma", config = r.command() == "configma";
  if (const char *error = r.numbers({1, 3}, v)) return error;
  uint32_t md = static_cast<uint32_t>(v[0]), index = static_cast<uint32_t>(v[1]);
  MaConfig *old = find(c->mas, index, &MaConfig::ma);
  if (!create && !config) {  // deletema
    if (old == nullptr) return "This MA is not exist!";
    if (has_mep(*c, md, &index)) return "This MA has MEP entry, need to delete all this MA's MEP!";
    // An MA of another MD, or of an MD deleted under it, stays.
    if (old->md != md || find(c->mds, md, &MdConfig::md) == nullptr) return kSilent;
    c->mas.erase(c->mas.begin() + (old - c->mas.data()));
    return "";
  }
  if (create && !r.has(5)) return kMissing;
  if (find(c->mds, md, &MdConfig::md) == nullptr) return "Error!! MD Index doesn't exist";
  if (create == (old != nullptr)) return create ? "Error!! MA Index exist" : "Error!! MA Index doesn't exist";
  MaConfig ma = create ? MaConfig{index, md, r.word(5), 2, 4} : *old;
  bool name_set = false;
  if (const char *error = ma_options(r, create ? 6 : 4, &ma, &name_set)) return error;
  if (create && ma.name.size() > 45 && !name_set) return "Error!! MA Table is full";
  // An MA whose MD was deleted under it cannot be written again.
  if (config && find(c->mds, ma.md, &MdConfig::md) == nullptr) return "Error!! MA config fail";
  create ? insert(c->mas, ma, &MaConfig::ma) : void(*old = ma);
  return "";
}

// configmep's options: the settings are kept, the runs' options only
// checked as the daemon checks them.
const char *mep_options(const Request &r, MepConfig *mep, bool *configuration) {
  for (size_t pos = 13; r.has(pos); pos += 2) {
    if (!r.is_number(pos)) return kInvalid;
    const MepOption *option = cfm_mep_option(r.value(pos));
    if (option == nullptr) return kSilent;
    if (!r.has(pos + 1)) return kMissing;
    if (option->kind != MepOptionKind::kText && !r.is_number(pos + 1)) return kInvalid;
    uint32_t stored = 0;
    if (!cfm_mep_option_accepts(*option, r.is_number(pos + 1) ? r.value(pos + 1) : 0, &stored)) return kSilent;
    if (option->code >= 1 && option->code <= 4) *configuration = true;
    if (option->code == 1) mep->active = stored == 1;
    if (option->code == 2) mep->ccm = stored == 1;
    if (option->code == 3) mep->priority = static_cast<uint8_t>(stored);
    if (option->code == 4) mep->alarm = static_cast<int>(stored);
  }
  if (mep->priority == 0) mep->priority = 7;  // the daemon's default for 0
  return mep->priority >= 8 ? kSilent : nullptr;
}

std::string follow_mep(Config *c, const Request &r, bool *configuration) {
  int32_t v[6];
  if (const char *error = r.numbers({1, 3, 5, 7, 9, 11}, v)) return error;
  const std::string &command = r.command();
  int down = command == "configmep" ? 100 : 1, up = command == "configmep" ? 200 : 2;
  int direction = v[5] == down ? 1 : v[5] == up ? 2 : 0;
  MepKey key{static_cast<uint32_t>(v[0]), static_cast<uint32_t>(v[1]), static_cast<uint16_t>(v[2]),
             static_cast<uint8_t>(v[3]), static_cast<uint16_t>(v[4]), direction == 0 ? 1 : direction};
  auto old = std::find_if(c->meps.begin(), c->meps.end(), [&](const MepConfig &m) { return m.key == key; });
  bool found = old != c->meps.end();
  if (command == "createmep") {
    if (find(c->mds, key.md, &MdConfig::md) == nullptr) return "Error!! MD Index doesn't exist";
    if (find(c->mas, key.ma, &MaConfig::ma) == nullptr) return "Error!! MA Index doesn't exist";
    if (found) return "Error!! MEP Index exist";
    if (key.mep < 1 || key.mep > 8191 || key.port > 8) return "Error!! MEP Table is full";
    insert(c->meps, MepConfig{key}, &MepConfig::key);
    return "";
  }
  if (direction == 0) return kSilent;
  if (!found) return "This MEP is not exist!";
  if (command == "deletemep") {
    c->meps.erase(old);
    return "";
  }
  MepConfig mep = *old;
  *configuration = false;
  if (const char *error = mep_options(r, &mep, configuration)) return error;
  *old = mep;
  return "";
}

std::string follow_global(Config *c, const Request &r) {
  const std::string &command = r.command();
  if (command == "enable" || command == "disable") c->global.enabled = command == "enable";
  if (command == "debugon" || command == "debugoff") c->global.debug = command == "debugon";
  if (command != "default") return "";
  int32_t v[2];
  if (const char *error = r.numbers({1, 3}, v)) return error;
  if (static_cast<uint8_t>(v[0]) >= 8) return kSilent;
  c->global.level = static_cast<uint8_t>(v[0]);
  if (v[1] == 1 || v[1] == 2) c->global.mhf = v[1];
  return "";
}

}  // namespace

std::string follow_request(Config *config, const std::string &text, bool *configuration) {
  static const char *const kMd[] = {"createmd", "configmd", "deletemd"};
  static const char *const kMa[] = {"createma", "configma", "deletema"};
  static const char *const kMep[] = {"createmep", "configmep", "deletemep"};
  static const char *const kGlobal[] = {"enable", "disable", "debugon", "debugoff", "default"};
  Request r(text);
  auto one_of = [&](const auto &words) {
    return std::any_of(std::begin(words), std::end(words), [&](const char *w) { return r.command() == w; });
  };
  *configuration = true;
  if (one_of(kMd)) return follow_md(config, r);
  if (one_of(kMa)) return follow_ma(config, r);
  if (one_of(kMep)) return follow_mep(config, r, configuration);
  if (one_of(kGlobal)) return follow_global(config, r);
  *configuration = false;
  return "";
}

namespace {

// ---- lines ----

// A value's name, "" for a code no name stands for (it cannot be set
// through the socket).
std::string name_of(const std::vector<const char *> &names, long index) {
  return index >= 0 && static_cast<size_t>(index) < names.size() ? names[static_cast<size_t>(index)] : "";
}

void add_option(std::string *line, const char *option, const std::string &value) {
  if (!value.empty()) *line += std::string(" ") + option + " " + value;
}

// A line of a named command, or nothing without a setting after `line`.
std::string md_line(const MdConfig &md, const MdConfig *old) {
  MdConfig base = old != nullptr ? *old : MdConfig{};
  std::string line = (old != nullptr ? "md config " : "md create ") + num(md.md);
  if (old == nullptr || md.name != base.name) add_option(&line, "--name", md.name);
  if (old == nullptr || md.level != base.level) add_option(&line, "--level", num(md.level));
  if (md.format != base.format) add_option(&line, "--format", name_of(kMdFormats, md.format - 1));
  if (md.mhf != base.mhf) add_option(&line, "--mhf", name_of(kMhf, md.mhf - 1));
  return line;
}

std::string ma_line(const MaConfig &ma, const MaConfig *old) {
  MaConfig base = old != nullptr ? *old : MaConfig{};
  std::string line = (old != nullptr ? "ma config " : "ma create ") + num(ma.md) + " " + num(ma.ma);
  if (old == nullptr || ma.name != base.name) add_option(&line, "--name", ma.name);
  if (ma.format != base.format) add_option(&line, "--format", name_of(kMaFormats, ma.format - 1));
  if (old == nullptr || ma.interval != base.interval) add_option(&line, "--interval", name_of(kIntervals, ma.interval - 2));
  return line;
}

std::string mep_key_words(const MepKey &key) {
  std::string words = num(key.md) + " " + num(key.ma) + " " + num(key.mep);
  if (key.port != 1) add_option(&words, "--port", num(key.port));
  if (key.vid != 0) add_option(&words, "--vid", num(key.vid));
  if (key.direction == 2) add_option(&words, "--direction", "up");
  return words;
}

// "mep config" with the settings that differ from `base`; "" when none does.
std::string mep_config_line(const MepConfig &mep, const MepConfig &base) {
  std::string options;
  if (mep.active != base.active) add_option(&options, "--active", mep.active ? "yes" : "no");
  if (mep.ccm != base.ccm) add_option(&options, "--ccm", mep.ccm ? "on" : "off");
  if (mep.priority != base.priority) add_option(&options, "--priority", num(mep.priority));
  if (mep.alarm != base.alarm) add_option(&options, "--alarm-priority", name_of(kAlarms, mep.alarm - 1));
  return options.empty() ? "" : "mep config " + mep_key_words(mep.key) + options;
}

std::string defaults_line(const GlobalConfig &g) {
  return "defaults --level " + num(g.level) + (g.mhf == 2 ? " --mhf default" : " --mhf none");
}

// A name one word of a line carries as it is: no blank or control byte, and
// not a word cfmctl reads as an option of its own. (A line never ends in a
// name: a '\' at its end would join the next line.)
bool writable_name(const std::string &name) {
  for (unsigned char c : name) {
    if (c <= ' ' || c == 0x7f) return false;
  }
  return !name.empty() && !is_flag(name);
}

bool writable_md(const Config &c, uint32_t index) {
  const MdConfig *md = find(c.mds, index, &MdConfig::md);
  return md != nullptr && md->md <= kMaxIndex && writable_name(md->name);
}

bool writable_ma(const Config &c, uint32_t index) {
  const MaConfig *ma = find(c.mas, index, &MaConfig::ma);
  return ma != nullptr && ma->ma <= kMaxIndex && writable_md(c, ma->md) && writable_name(ma->name);
}

}  // namespace

std::string running_config_text(const Config &c) {
  std::string text;
  auto line = [&](const std::string &l) { text += l + "\n"; };
  auto left_out = [&](const std::string &what) { line("# " + what + " left out: a line cannot carry its name or index"); };
  if (c.global.debug >= 0) line(c.global.debug ? "debug on" : "debug off");
  if (c.global.level != GlobalConfig{}.level || c.global.mhf != GlobalConfig{}.mhf) line(defaults_line(c.global));
  for (const MdConfig &md : c.mds) writable_md(c, md.md) ? line(md_line(md, nullptr)) : left_out("MD " + num(md.md));
  for (const MaConfig &ma : c.mas) writable_ma(c, ma.ma) ? line(ma_line(ma, nullptr)) : left_out("MA " + num(ma.ma));
  for (const MepConfig &mep : c.meps) {
    if (!writable_md(c, mep.key.md) || !writable_ma(c, mep.key.ma) || mep.key.vid > 4095) {
      left_out("MEP " + num(mep.key.mep) + " of MA " + num(mep.key.ma));
      continue;
    }
    line("mep create " + mep_key_words(mep.key));
    std::string config = mep_config_line(mep, MepConfig{mep.key});
    if (!config.empty()) line(config);
  }
  if (c.mips > 0) line("# " + num(static_cast<long long>(c.mips)) + " MIPs left out: the command socket cannot make MIPs");
  if (c.global.enabled >= 0) line(c.global.enabled ? "enable" : "disable");
  return text;
}

std::vector<ConfigChange> config_changes(const Config &running, const Config &wanted) {
  std::vector<ConfigChange> changes;
  // An MA the wanted configuration has in another MD is deleted and made
  // again, and with it the MEPs of it in its old MD (they forbid deleting it).
  auto remade_ma = [&](const MaConfig &ma) {
    const MaConfig *w = find(wanted.mas, ma.ma, &MaConfig::ma);
    return w != nullptr && w->md != ma.md;
  };
  auto remade_with_ma = [&](const MepKey &key) {
    const MaConfig *ma = find(running.mas, key.ma, &MaConfig::ma);
    return ma != nullptr && ma->md == key.md && remade_ma(*ma);
  };
  auto kept = [&](const MepConfig &mep) {
    return find(wanted.meps, mep.key, &MepConfig::key) != nullptr && !remade_with_ma(mep.key);
  };
  for (const MepConfig &mep : running.meps) {
    if (kept(mep)) continue;
    bool again = std::any_of(wanted.meps.begin(), wanted.meps.end(), [&](const MepConfig &w) {
      return w.key.md == mep.key.md && w.key.ma == mep.key.ma && w.key.mep == mep.key.mep;
    });
    changes.push_back({"mep delete " + mep_key_words(mep.key),
                       remade_with_ma(mep.key) ? "made again with its MA"
                       : again                 ? "made again: its port, VID or direction cannot change in place"
                                               : ""});
  }
  for (const MaConfig &ma : running.mas) {
    if (find(wanted.mas, ma.ma, &MaConfig::ma) == nullptr || remade_ma(ma)) {
      changes.push_back({"ma delete " + num(ma.md) + " " + num(ma.ma), remade_ma(ma) ? "made again: its MD cannot change in place" : ""});
    }
  }
  for (const MdConfig &md : running.mds) {
    if (find(wanted.mds, md.md, &MdConfig::md) == nullptr) changes.push_back({"md delete " + num(md.md), ""});
  }
  const GlobalConfig &now = running.global, &want = wanted.global;
  if (want.level != now.level || want.mhf != now.mhf) changes.push_back({defaults_line(want), ""});
  for (const MdConfig &md : wanted.mds) {
    const MdConfig *old = find(running.mds, md.md, &MdConfig::md);
    std::string line = md_line(md, old);
    if (old == nullptr || line.find(" --") != std::string::npos) changes.push_back({line, ""});
  }
  for (const MaConfig &ma : wanted.mas) {
    const MaConfig *old = find(running.mas, ma.ma, &MaConfig::ma);
    if (old != nullptr && old->md != ma.md) old = nullptr;
    std::string line = ma_line(ma, old);
    if (old == nullptr || line.find(" --") != std::string::npos) changes.push_back({line, ""});
  }
  for (const MepConfig &mep : wanted.meps) {
    const MepConfig *old = find(running.meps, mep.key, &MepConfig::key);
    if (old != nullptr && !kept(*old)) old = nullptr;
    if (old == nullptr) changes.push_back({"mep create " + mep_key_words(mep.key), ""});
    std::string line = mep_config_line(mep, old != nullptr ? *old : MepConfig{mep.key});
    if (!line.empty()) changes.push_back({line, ""});
  }
  if (want.debug >= 0 && want.debug != now.debug) changes.push_back({want.debug ? "debug on" : "debug off", ""});
  if (want.enabled >= 0 && want.enabled != now.enabled) changes.push_back({want.enabled ? "enable" : "disable", ""});
  return changes;
}

}  // namespace cfmctl
