// MEP commands: create, configure (which also starts loopback and linktrace
// runs) and delete. Each read-modify-write of a MEP holds MEP_SYC so the
// timer tick, which writes every MEP back, cannot undo a command.
#include <cstring>

#include "cli/args.h"
#include "cli/commands.h"
#include "cli/mep_options.h"
#include "core/config_tree.h"
#include "core/os.h"
#include "core/status.h"
#include "db/mgmt_if.h"
#include "engines/lb_initiator.h"

namespace {

// The MEP key of arguments 1 to 11 (every value after a skipped word).
struct MepKeyArgs {
  int32_t md_id;
  int32_t ma_id;
  int32_t mep_id;
  int32_t port;
  int32_t vid;
  int32_t direction;
};

bool read_key(FILE *out, CliArg *args, MepKeyArgs *key) {
  static const int kPositions[] = {1, 3, 5, 7, 9, 11};
  int32_t values[6];
  if (!cli_read_numbers(out, args, kPositions, 6, values)) return false;
  *key = {values[0], values[1], values[2], values[3], values[4], values[5]};
  return true;
}

void set_key(MepEntry *mep, const MepKeyArgs &key, uint8_t direction) {
  mep->md_id = static_cast<uint32_t>(key.md_id);
  mep->ma_id = static_cast<uint32_t>(key.ma_id);
  mep->mep_id = static_cast<uint16_t>(key.mep_id);
  mep->port = static_cast<uint8_t>(key.port);
  mep->vid = static_cast<uint16_t>(key.vid);
  mep->direction = direction;
}

// Reads the MEP of a configmep key (direction 100 or 200) into *mep.
bool find_config_mep(const MepKeyArgs &key, MepEntry *mep) {
  if (key.direction != 100 && key.direction != 200) return false;
  set_key(mep, key, key.direction == 100 ? CFM_DIRECTION_DOWN : CFM_DIRECTION_UP);
  return CFM_IF_Get_MEP_Entry(mep) != 0;
}

// Outcome of applying configmep's options to the record.
enum class OptionResult { kApplied, kRefused, kMissing, kInvalid };

OptionResult from_status(CliArgStatus status) {
  return status == CliArgStatus::kMissing ? OptionResult::kMissing : OptionResult::kInvalid;
}

// Applies one option; `value_arg` may be null (a code with no value).
OptionResult apply_mep_option(MepEntry *mep, int32_t code, const CliArg *value_arg) {
  const MepOption *option = cfm_mep_option(code);
  if (option == nullptr) return OptionResult::kRefused;
  int32_t number = 0;
  const char *text = nullptr;
  CliArgStatus status = option->kind == MepOptionKind::kText ? cli_arg_text(value_arg, &text)
                                                              : cli_arg_number(value_arg, &number);
  if (status != CliArgStatus::kOk) return from_status(status);
  uint32_t stored = 0;
  if (!cfm_mep_option_accepts(*option, number, &stored)) return OptionResult::kRefused;
  option->store(mep, stored, text);
  return OptionResult::kApplied;
}

// Applies the option pairs from `arg` on until the arguments end or one is
// refused.
OptionResult apply_mep_options(MepEntry *mep, const CliArg *arg) {
  while (arg != nullptr) {
    int32_t code = 0;
    CliArgStatus status = cli_arg_number(arg, &code);
    if (status != CliArgStatus::kOk) return from_status(status);
    OptionResult result = apply_mep_option(mep, code, arg->next);
    if (result != OptionResult::kApplied) return result;
    arg = arg->next->next;
  }
  return OptionResult::kApplied;
}

}  // namespace

// createmep MD <s> MA <s> MEPID <s> PORT <s> VID <s> DIR(1|2)
int cli_usr_cfm_createmep(FILE *out, CliArg *args, int) {
  MepKeyArgs key;
  if (!read_key(out, args, &key)) return 0;
  MdEntry md = {};
  md.MdIndex = static_cast<uint32_t>(key.md_id);
  if (CFM_IF_Get_MD_Entry(&md) != 1) {
    fputs("\r\nError!! MD Index doesn't exist", out);
    return 0;
  }
  MaNetEntry ma = {};
  ma.MdIndex = static_cast<uint32_t>(key.md_id);
  ma.MaIndex = static_cast<uint32_t>(key.ma_id);
  if (CFM_IF_Get_MA_Net_Entry(&ma) != 1) {
    fputs("\r\nError!! MA Index doesn't exist", out);
    return 0;
  }
  // Any other direction code leaves the direction 0 and goes on.
  uint8_t direction = 0;
  if (key.direction == 1) direction = CFM_DIRECTION_DOWN;
  if (key.direction == 2) direction = CFM_DIRECTION_UP;
  MepEntry mep = {};
  set_key(&mep, key, direction);
  bool exists = false;
  uint32_t result = 0;
  {
    MepSycLock lock;
    // A record without a direction is stored as Down: look for that one.
    MepEntry probe = mep;
    if (probe.direction == 0) probe.direction = CFM_DIRECTION_DOWN;
    exists = CFM_IF_Get_MEP_Entry(&probe) != 0;
    if (!exists) {
      mep.RowStatus = CFM_ROW_CREATE;
      result = CFM_IF_Set_MEP_Entry(&mep);
    }
  }
  if (exists) {
    fputs("\r\nError!! MEP Index exist", out);
    return 0;
  }
  if (result != CFM_OK) {
    fprintf(out, "\r\nError!! MEP Table is full, status: %x ", result);
    return 0;
  }
  return 2;
}

// configmep MD <s> MA <s> MEPID <s> PORT <s> VID <s> DIR(100|200) <s>
//           [code value]...
int cli_usr_cfm_configmep(FILE *out, CliArg *args, int) {
  MepKeyArgs key;
  if (!read_key(out, args, &key)) return 0;
  if (key.direction != 100 && key.direction != 200) return 0;
  MepEntry mep = {};
  set_key(&mep, key, key.direction == 100 ? CFM_DIRECTION_DOWN : CFM_DIRECTION_UP);
  bool found = false;
  OptionResult options = OptionResult::kApplied;
  uint32_t result = 0;
  {
    MepSycLock lock;
    found = CFM_IF_Get_MEP_Entry(&mep) != 0;
    if (found) options = apply_mep_options(&mep, cli_arg_at(args, 13));
    if (found && options == OptionResult::kApplied) {
      ConfigTree::setInt(1, "/runtime/cfm/lbm/sending");
      ConfigTree::setInt(1, "/runtime/cfm/ltm/sending");
      result = CFM_IF_Set_MEP_Entry(&mep);
    }
  }
  if (!found) {
    fputs("\r\n This MEP is not exist!\r\n", out);
    return 0;
  }
  if (options == OptionResult::kMissing) cli_report_arg_status(out, CliArgStatus::kMissing);
  if (options == OptionResult::kInvalid) cli_report_arg_status(out, CliArgStatus::kInvalid);
  if (options != OptionResult::kApplied) return 0;
  if (result == CFM_OK) return 2;
  if (result == CFM_ERR_LBM_RUNNING) fputs("\r\n LBM is still transmiting !\r\n", out);
  return 0;
}

// lbstart: configmep's words, refused while the MEP's loopback run goes on
// or a start waits for the next tick (which configmep would replace).
int cli_usr_cfm_lbstart(FILE *out, CliArg *args, int unused) {
  MepKeyArgs key;
  if (!read_key(out, args, &key)) return 0;
  MepEntry mep = {};
  bool busy = false;
  {
    MepSycLock lock;
    busy = find_config_mep(key, &mep) && (mep.LbmRunning == 1 || mep.LbmTransmitStatus == 1);
  }
  if (busy) {
    fputs("\r\n LBM is still transmiting !\r\n", out);
    return 0;
  }
  return cli_usr_cfm_configmep(out, args, unused);
}

// lbstop MD <s> MA <s> MEPID <s> PORT <s> VID <s> DIR(100|200): ends the
// MEP's loopback run at once, also one waiting for its first tick. Its
// counters stay and the run reads as stopped; without a run nothing changes.
int cli_usr_cfm_lbstop(FILE *out, CliArg *args, int) {
  MepKeyArgs key;
  if (!read_key(out, args, &key)) return 0;
  MepEntry mep = {};
  bool found = false;
  {
    MepSycLock lock;
    found = find_config_mep(key, &mep);
    if (found && (mep.LbmRunning == 1 || mep.LbmTransmitStatus == 1)) {
      mep.LbmTransmitStatus = 0;
      mep.LbmRunning = 0;
      mep.LbmRemaining = 0;
      mep.LbmWaitTicks = 0;
      mep.LbmStopped = 1;
      // Written like the timer writes a run's end: the management interface
      // refuses to touch a running MEP.
      CFM_Update_MEP_Entry(&mep);
      ConfigTree::setInt(0, "/runtime/cfm/lbm/sending");
      cfm_lb_post_done(mep, true);
    }
  }
  if (!found) {
    fputs("\r\n This MEP is not exist!\r\n", out);
    return 0;
  }
  return 2;
}

// deletemep MD <s> MA <s> MEPID <s> PORT <s> VID <s> DIR(1|2)
int cli_usr_cfm_deletemep(FILE *out, CliArg *args, int) {
  MepKeyArgs key;
  if (!read_key(out, args, &key)) return 0;
  if (key.direction != 1 && key.direction != 2) return 0;
  MepEntry mep = {};
  set_key(&mep, key, static_cast<uint8_t>(key.direction));
  bool found = false;
  uint32_t result = 0;
  {
    MepSycLock lock;
    found = CFM_IF_Get_MEP_Entry(&mep) != 0;
    if (found) {
      mep.RowStatus = CFM_ROW_DELETE;
      result = CFM_IF_Set_MEP_Entry(&mep);
    }
  }
  if (!found) {
    fputs("\r\n This MEP is not exist!\r\n", out);
    return 0;
  }
  return result == CFM_OK ? 2 : 0;
}
