// Placeholder: replaced by the global and debug commands.
#include <cstdio>

#include "cli/commands.h"
#include "core/global.h"

int cli_usr_cfm_debug_on(FILE *, CliArg *, int) {
  cfm_debug_msg = 1;
  puts("Open CFM debug message");
  return 0;
}

int cli_usr_cfm_debug_off(FILE *, CliArg *, int) {
  cfm_debug_msg = 0;
  puts("Close CFM debug message");
  return 0;
}
