// cfmctl's configuration model: the global settings, MDs, MAs and MEPs of a
// daemon, read from its snapshot (dumpjson) or made by following a file's
// requests as the daemon would; printed as the named commands that make it
// again on a fresh daemon, and compared with another model to give the
// commands that turn one into the other. Runs, learned state and counters
// are not configuration and have no place here.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "json.h"

namespace cfmctl {

// Codes as the daemon keeps them (the snapshot's numbers).
struct MdConfig {
  uint32_t md = 0;
  std::string name;
  int format = 4;  // 1 none .. 4 charstring
  int level = 0;
  int mhf = 2;  // 1 none, 2 default
};

// MA indexes are unique across MDs: `md` is the MD the MA belongs to.
struct MaConfig {
  uint32_t ma = 0;
  uint32_t md = 0;
  std::string name;
  int format = 2;    // 1 primaryvid .. 4 rfc2865vpnid
  int interval = 4;  // 2 10 ms .. 7 10 min
};

// The key of a MEP: every field of it names the record.
struct MepKey {
  uint32_t md = 0, ma = 0;
  int mep = 0, port = 1, vid = 0;
  int direction = 1;  // 1 down, 2 up
  bool operator==(const MepKey &) const = default;
  auto operator<=>(const MepKey &) const = default;
};

// What `mep create` leaves: CCM on, inactive, priority 7, alarm priority 2.
struct MepConfig {
  MepKey key;
  bool active = false;
  bool ccm = true;
  int priority = 7;
  int alarm = 2;  // 1 alldef .. 6 noxcon
  bool operator==(const MepConfig &) const = default;
};

// A fresh daemon's defaults; enabled and debug are -1 where a file leaves
// them as the daemon's options made them.
struct GlobalConfig {
  int enabled = -1;
  int debug = -1;
  int level = 2;
  int mhf = 1;
};

struct Config {
  GlobalConfig global;
  std::vector<MdConfig> mds;    // by index
  std::vector<MaConfig> mas;    // by index
  std::vector<MepConfig> meps;  // by key
  size_t mips = 0;
};

Config config_from_snapshot(const Json &snapshot);

// Follows one request on `config` as the daemon would run it on its tables.
// Returns "" when the daemon would take it, else why it would not (a
// refusal leaves `config` as it was). *configuration is false for a request
// that changes no configuration (a listing, a run, a clear).
std::string follow_request(Config *config, const std::string &request, bool *configuration);

// The lines that make `config` on a fresh daemon, each ending in '\n':
// debug, defaults, MDs, MAs, MEPs, then enable or disable. What a line
// cannot carry is left out with a comment saying so.
std::string running_config_text(const Config &config);

// One step from one model to the other: the named command, and what the
// operator is told about it ("" for nothing).
struct ConfigChange {
  std::string line;
  std::string note;
};
// The commands that make the daemon holding `running` hold `wanted`: deletes
// (MEPs, MAs, MDs), then the defaults, creates and changed settings, then
// debug and enable. An unchanged MEP gets no command at all.
std::vector<ConfigChange> config_changes(const Config &running, const Config &wanted);

}  // namespace cfmctl
