// MD and MA commands: create, configure, list and delete through the
// management interface.
#include <cstdio>
#include <cstring>

#include "cli/args.h"
#include "cli/commands.h"
#include "cli/names.h"
#include "core/os.h"
#include "core/status.h"
#include "db/mgmt_if.h"

namespace {

// Option codes and values shared with the front ends.
constexpr int32_t kOptMdLevel = 0;
constexpr int32_t kOptMdFormat = 1;
constexpr int32_t kOptMdMhf = 2;
constexpr int32_t kOptMdName = 4;
constexpr int32_t kOptMaFormat = 1;
constexpr int32_t kOptMaName = 2;
constexpr int32_t kOptMaInterval = 3;

constexpr size_t kMdNameCopy = CFM_MD_NAME_SIZE - 1;  // 43 bytes
constexpr size_t kMaNameCopy = CFM_MA_NAME_SIZE - 1;  // 45 bytes

// Name-format values 11..14 give formats 1..4; 0 for any other value.
uint8_t name_format(int32_t value) { return value >= 11 && value <= 14 ? static_cast<uint8_t>(value - 10) : 0; }

// CCM interval values 29..34 give intervals 2..7; 0 for any other value.
uint8_t ccm_interval(int32_t value) { return value >= 29 && value <= 34 ? static_cast<uint8_t>(value - 27) : 0; }

// Copies exactly `size` bytes of name, stopping early at the text's end
// and clearing the rest of those bytes.
void copy_name(char *field, size_t size, const char *text) { strncpy(field, text, size); }

// Walks the option pairs from `arg`. For each code, `apply(code, value_arg,
// &known)` sets `known` when the code takes the next word as its value (an
// unknown code is passed over alone) and returns kMissing or kInvalid when
// that value is absent or of the wrong kind. Returns false after reporting
// such a failure; the caller then writes nothing.
template <typename Apply>
bool walk_options(FILE *out, CliArg *arg, Apply apply) {
  while (arg != nullptr) {
    int32_t code = 0;
    CliArgStatus status = cli_arg_number(arg, &code);
    if (status != CliArgStatus::kOk) {
      cli_report_arg_status(out, status);
      return false;
    }
    bool known = false;
    status = apply(code, arg->next, &known);
    if (status != CliArgStatus::kOk) {
      cli_report_arg_status(out, status);
      return false;
    }
    arg = known ? arg->next->next : arg->next;
  }
  return true;
}

// The MD options; `name_set` tells whether a name option was applied. The
// level option belongs to configmd only: createmd passes code 0 over alone.
bool apply_md_options(FILE *out, CliArg *first, MdEntry *md, bool level_option, bool *name_set) {
  return walk_options(out, first, [&](int32_t code, CliArg *value_arg, bool *known) {
    int32_t value = 0;
    const char *text = nullptr;
    if (code == kOptMdLevel && !level_option) return CliArgStatus::kOk;
    switch (code) {
      case kOptMdLevel:
      case kOptMdFormat:
      case kOptMdMhf: {
        *known = true;
        CliArgStatus status = cli_arg_number(value_arg, &value);
        if (status != CliArgStatus::kOk) return status;
        if (code == kOptMdLevel) md->MdLevel = static_cast<uint8_t>(value);
        if (code == kOptMdFormat && name_format(value) != 0) md->MdFormat = name_format(value);
        if (code == kOptMdMhf && value == 21) md->MhfCreation = CFM_MHF_CREATION_NONE;
        if (code == kOptMdMhf && value == 22) md->MhfCreation = CFM_MHF_CREATION_DEFAULT;
        return CliArgStatus::kOk;
      }
      case kOptMdName: {
        *known = true;
        CliArgStatus status = cli_arg_text(value_arg, &text);
        if (status != CliArgStatus::kOk) return status;
        copy_name(md->MdName, kMdNameCopy, text);
        *name_set = true;
        return CliArgStatus::kOk;
      }
      default:
        return CliArgStatus::kOk;
    }
  });
}

bool apply_ma_options(FILE *out, CliArg *first, MaNetEntry *ma, bool *name_set) {
  return walk_options(out, first, [&](int32_t code, CliArg *value_arg, bool *known) {
    int32_t value = 0;
    const char *text = nullptr;
    switch (code) {
      case kOptMaFormat:
      case kOptMaInterval: {
        *known = true;
        CliArgStatus status = cli_arg_number(value_arg, &value);
        if (status != CliArgStatus::kOk) return status;
        if (code == kOptMaFormat && name_format(value) != 0) ma->MaFormat = name_format(value);
        if (code == kOptMaInterval && ccm_interval(value) != 0) ma->CcmInterval = ccm_interval(value);
        return CliArgStatus::kOk;
      }
      case kOptMaName: {
        *known = true;
        CliArgStatus status = cli_arg_text(value_arg, &text);
        if (status != CliArgStatus::kOk) return status;
        copy_name(ma->MaName, kMaNameCopy, text);
        *name_set = true;
        return CliArgStatus::kOk;
      }
      default:
        return CliArgStatus::kOk;
    }
  });
}

// Rows change (and are re-sorted in place) under MEP_SYC, so the tick and the
// engines, which read them under it, never see a half-moved row. The command
// server is the only writer, so its own reads need no lock.
uint32_t set_md(MdEntry *md) {
  MepSycLock lock;
  return CFM_IF_Set_MD_Entry(md);
}

uint32_t set_ma(MaNetEntry *ma) {
  MepSycLock lock;
  return CFM_IF_Set_MA_Net_Entry(ma);
}

bool md_exists(uint32_t md_index) {
  MdEntry md = {};
  md.MdIndex = md_index;
  return CFM_IF_Get_MD_Entry(&md) == 1;
}

}  // namespace

// createmd MD <skip> LEVEL <skip> NAME [code value]...
int cli_usr_cfm_createmd(FILE *out, CliArg *args, int) {
  static const int kPositions[] = {1, 3};
  int32_t head[2];
  const char *name = nullptr;
  if (!cli_read_numbers(out, args, kPositions, 2, head)) return 0;
  CliArgStatus status = cli_arg_text(cli_arg_at(args, 5), &name);
  if (status != CliArgStatus::kOk) {
    cli_report_arg_status(out, status);
    return 0;
  }
  MdEntry md = {};
  md.MdIndex = static_cast<uint32_t>(head[0]);
  md.MdFormat = 4;
  md.MhfCreation = CFM_MHF_CREATION_DEFAULT;
  md.SenderIdPermission = 1;
  MdEntry probe = md;
  if (CFM_IF_Get_MD_Entry(&probe) != 0) {
    fputs("\r\nError!! MD Index exist", out);
    return 0;
  }
  md.MdLevel = static_cast<uint8_t>(head[1]);
  // A name that does not fit the field is refused like any other name the
  // table does not take, unless an option replaces it.
  // The copy is bounded by the field whatever the check says, so the field
  // is never written past.
  bool name_fits = strlen(name) < sizeof md.MdName;
  if (name_fits) snprintf(md.MdName, sizeof md.MdName, "%s", name);
  bool name_set = false;
  if (!apply_md_options(out, cli_arg_at(args, 6), &md, false, &name_set)) return 0;
  md.RowStatus = CFM_ROW_CREATE;
  if ((!name_fits && !name_set) || set_md(&md) != CFM_OK) {
    fputs("\r\nError!! MD Table is full", out);
    return 0;
  }
  return 2;
}

// configmd MD [code value]...
int cli_usr_cfm_configmd(FILE *out, CliArg *args, int) {
  static const int kPositions[] = {1};
  int32_t index = 0;
  if (!cli_read_numbers(out, args, kPositions, 1, &index)) return 0;
  MdEntry md = {};
  md.MdIndex = static_cast<uint32_t>(index);
  if (CFM_IF_Get_MD_Entry(&md) != 1) {
    fputs("\r\nError!! MD Index doenn't exist", out);
    return 0;
  }
  bool name_set = false;
  if (!apply_md_options(out, cli_arg_at(args, 2), &md, true, &name_set)) return 0;
  if (set_md(&md) != CFM_OK) {
    fputs("\r\nError!! MD config fail", out);
    return 0;
  }
  fputs("\r\nMD config Success!!", out);
  return 2;
}

int cli_usr_cfm_showmd(FILE *out, CliArg *, int) {
  MdEntry md = {};
  while (CFM_IF_GetNext_MD_Entry(&md) == 1) {
    fprintf(out, "\r\nMdIndex : %d", static_cast<int>(md.MdIndex));
    fprintf(out, "\r\nMdFormat : %s", cfm_cli_name(kNamesMdFormat, static_cast<long>(md.MdFormat) - 1));
    fprintf(out, "\r\nMdLevel : %d", md.MdLevel);
    fprintf(out, "\r\nMhfCreation : %s", cfm_cli_name(kNamesMhfCreation, static_cast<long>(md.MhfCreation) - 1));
    fprintf(out, "\r\nMdName : %.*s\r\n", static_cast<int>(sizeof md.MdName), md.MdName);
    if (cfm_cli_output_aborted(out) != 0) break;
  }
  return 1;
}

// deletemd MD
int cli_usr_cfm_deletemd(FILE *out, CliArg *args, int) {
  static const int kPositions[] = {1};
  int32_t index = 0;
  if (!cli_read_numbers(out, args, kPositions, 1, &index)) return 0;
  uint32_t md_index = static_cast<uint32_t>(index);
  if (!md_exists(md_index)) {
    fputs("\r\n This MD is not exist!\r\n", out);
    return 0;
  }
  MepEntry mep = {};
  mep.md_id = md_index;
  if (CFM_IF_GetNext_MEP_Entry(&mep) == 1 && mep.md_id == md_index) {
    fputs("\r\n This MD has MEP entry, need to delete all this MD's MEP!\r\n", out);
    return 0;
  }
  // Only the MA of smallest index in the whole table is looked at.
  MaNetEntry ma = {};
  if (CFM_IF_GetNext_MA_Net_Entry(&ma) == 1 && ma.MdIndex == md_index) {
    fputs("\r\n This MD has MA entry, need to delete all this MD's MA!\r\n", out);
    return 0;
  }
  MdEntry md = {};
  md.MdIndex = md_index;
  md.RowStatus = CFM_ROW_DELETE;
  return set_md(&md) == CFM_OK ? 2 : 0;
}

// createma MD <skip> MA <skip> NAME [code value]...
int cli_usr_cfm_createma(FILE *out, CliArg *args, int) {
  static const int kPositions[] = {1, 3};
  int32_t head[2];
  const char *name = nullptr;
  if (!cli_read_numbers(out, args, kPositions, 2, head)) return 0;
  CliArgStatus status = cli_arg_text(cli_arg_at(args, 5), &name);
  if (status != CliArgStatus::kOk) {
    cli_report_arg_status(out, status);
    return 0;
  }
  MaNetEntry ma = {};
  ma.MaFormat = 2;
  ma.CcmInterval = 4;
  if (!md_exists(static_cast<uint32_t>(head[0]))) {
    fputs("\r\nError!! MD Index doesn't exist", out);
    return 0;
  }
  ma.MdIndex = static_cast<uint32_t>(head[0]);
  ma.MaIndex = static_cast<uint32_t>(head[1]);
  bool name_fits = strlen(name) < sizeof ma.MaName;
  if (name_fits) snprintf(ma.MaName, sizeof ma.MaName, "%s", name);
  MaNetEntry probe = ma;
  if (CFM_IF_Get_MA_Net_Entry(&probe) != 0) {
    fputs("\r\nError!! MA Index exist", out);
    return 0;
  }
  bool name_set = false;
  if (!apply_ma_options(out, cli_arg_at(args, 6), &ma, &name_set)) return 0;
  ma.RowStatus = CFM_ROW_CREATE;
  if ((!name_fits && !name_set) || set_ma(&ma) != CFM_OK) {
    fputs("\r\nError!! MA Table is full", out);
    return 0;
  }
  return 2;
}

// configma MD <skip> MA [code value]...
int cli_usr_cfm_configma(FILE *out, CliArg *args, int) {
  static const int kPositions[] = {1, 3};
  int32_t head[2];
  if (!cli_read_numbers(out, args, kPositions, 2, head)) return 0;
  if (!md_exists(static_cast<uint32_t>(head[0]))) {
    fputs("\r\nError!! MD Index doesn't exist", out);
    return 0;
  }
  MaNetEntry ma = {};
  ma.MdIndex = static_cast<uint32_t>(head[0]);
  ma.MaIndex = static_cast<uint32_t>(head[1]);
  if (CFM_IF_Get_MA_Net_Entry(&ma) != 1) {
    fputs("\r\nError!! MA Index doesn't exist", out);
    return 0;
  }
  bool name_set = false;
  if (!apply_ma_options(out, cli_arg_at(args, 4), &ma, &name_set)) return 0;
  if (set_ma(&ma) != CFM_OK) {
    fputs("\r\nError!! MA config fail", out);
    return 0;
  }
  fputs("\r\nMA config Success!!", out);
  return 2;
}

int cli_usr_cfm_showma(FILE *out, CliArg *, int) {
  MaNetEntry ma = {};
  while (CFM_IF_GetNext_MA_Net_Entry(&ma) == 1) {
    fprintf(out, "\r\nMdIndex : %d", static_cast<int>(ma.MdIndex));
    fprintf(out, "\r\nMaIndex : %d", static_cast<int>(ma.MaIndex));
    fprintf(out, "\r\nFormat : %s", cfm_cli_name(kNamesMaFormat, static_cast<long>(ma.MaFormat) - 1));
    fprintf(out, "\r\nName : %.*s", static_cast<int>(sizeof ma.MaName), ma.MaName);
    // Intervals below 1 s land on the MA-format names in front of the list.
    fprintf(out, "\r\nCcmInterval : %s\r\n", cfm_cli_name(kNamesCcmInterval, static_cast<long>(ma.CcmInterval) - 4));
    if (cfm_cli_output_aborted(out) != 0) break;
  }
  return 2;
}

// deletema MD <skip> MA
int cli_usr_cfm_deletema(FILE *out, CliArg *args, int) {
  static const int kPositions[] = {1, 3};
  int32_t head[2];
  if (!cli_read_numbers(out, args, kPositions, 2, head)) return 0;
  MaNetEntry ma = {};
  ma.MdIndex = static_cast<uint32_t>(head[0]);
  ma.MaIndex = static_cast<uint32_t>(head[1]);
  if (CFM_IF_Get_MA_Net_Entry(&ma) == 0) {
    fputs("\r\n This MA is not exist!\r\n", out);
    return 0;
  }
  MepEntry mep = {};
  mep.md_id = static_cast<uint32_t>(head[0]);
  mep.ma_id = static_cast<uint32_t>(head[1]);
  if (CFM_IF_GetNext_MEP_Entry(&mep) == 1 && mep.md_id == static_cast<uint32_t>(head[0]) &&
      mep.ma_id == static_cast<uint32_t>(head[1])) {
    fputs("\r\n This MA has MEP entry, need to delete all this MA's MEP!\r\n", out);
    return 0;
  }
  MaNetEntry request = {};
  request.MdIndex = static_cast<uint32_t>(head[0]);
  request.MaIndex = static_cast<uint32_t>(head[1]);
  request.RowStatus = CFM_ROW_DELETE;
  return set_ma(&request) == CFM_OK ? 2 : 0;
}
