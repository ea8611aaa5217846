// Global and debug commands: CFM on/off, the defaults, the debug flag.
#include <cstdio>

#include "cli/args.h"
#include "cli/commands.h"
#include "cli/names.h"
#include "core/global.h"
#include "io/rx.h"

namespace {

int set_status(uint32_t status) {
  GlobalEntry entry = {};
  CFM_IF_Get_Global_Entry(&entry);
  entry.status = status;
  return CFM_IF_Set_Global_Entry(&entry) == 1 ? 2 : 0;
}

}  // namespace

int cli_usr_cfm_enable(FILE *, CliArg *, int) { return set_status(1); }

int cli_usr_cfm_disable(FILE *, CliArg *, int) { return set_status(0); }

// default LEVEL <skipped> MHF
int cli_usr_cfm_default(FILE *out, CliArg *args, int) {
  static const int kPositions[] = {1, 3};
  int32_t values[2];
  if (!cli_read_numbers(out, args, kPositions, 2, values)) return 0;
  GlobalEntry entry = {};
  if (CFM_IF_Get_Global_Entry(&entry) != 1) {
    entry = {};
    entry.sender_id_permission = 1;
  }
  entry.default_md_level = static_cast<uint8_t>(values[0]);
  if (values[1] == 1) entry.mhf_creation = CFM_MHF_CREATION_NONE;
  if (values[1] == 2) entry.mhf_creation = CFM_MHF_CREATION_DEFAULT;
  return CFM_IF_Set_Global_Entry(&entry) == 1 ? 2 : 0;
}

// showdefault 1|2
int cli_usr_cfm_showdefault(FILE *out, CliArg *args, int) {
  static const int kPositions[] = {1};
  int32_t what = 0;
  if (!cli_read_numbers(out, args, kPositions, 1, &what)) return 0;
  GlobalEntry entry = {};
  if (CFM_IF_Get_Global_Entry(&entry) != 1) return 0;
  if (what == 1) {
    fprintf(out, "\r\n Default MD Level  : %d", entry.default_md_level);
    fputs("\r\n default_MHF_creation  : ", out);
    if (entry.mhf_creation == CFM_MHF_CREATION_NONE) fputs("CFM MHF CREATION NONE", out);
    if (entry.mhf_creation == CFM_MHF_CREATION_DEFAULT) fputs("CFM MHF CREATION DEFAULT", out);
  } else if (what == 2) {
    fprintf(out, "\r\n CFM Status  : %s", cfm_cli_name(kNamesStatus, entry.status));
  }
  return 2;
}

// Also called directly at start-up, with no arguments.
int cli_usr_cfm_debug_on(FILE *out, CliArg *, int) {
  cfm_debug_msg = 1;
  cfm_rx_follow_debug();
  fputs("Open CFM debug message\n", out);
  return 0;
}

int cli_usr_cfm_debug_off(FILE *out, CliArg *, int) {
  cfm_debug_msg = 0;
  cfm_rx_follow_debug();
  fputs("Close CFM debug message\n", out);
  return 0;
}
