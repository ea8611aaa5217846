// Placeholder: handlers that wait for the management interface; each is
// replaced by its own file.
#include "cli/commands.h"
int cli_usr_cfm_createmd(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_configmd(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_showmd(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_deletemd(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_createma(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_configma(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_showma(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_deletema(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_createmep(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_configmep(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_deletemep(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_showmep(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_showremotemep(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_clearremotemep(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_showltr(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_clearltr(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_clearlbr(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_clearcnt(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_runtime(FILE *, CliArg *, int) { return 0; }
int cli_usr_cfm_update(FILE *, CliArg *, int) { return 0; }
