// Handlers of the command table.
#pragma once
#include <cstdio>

#include "cli/server.h"

int cli_usr_cfm_enable(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_disable(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_default(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_showdefault(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_debug_on(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_debug_off(FILE *out, CliArg *args, int unused);

int cli_usr_cfm_createmd(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_configmd(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_showmd(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_deletemd(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_createma(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_configma(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_showma(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_deletema(FILE *out, CliArg *args, int unused);

int cli_usr_cfm_createmep(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_configmep(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_deletemep(FILE *out, CliArg *args, int unused);
// Loopback runs: configmep refused while a run goes on; the end of a run.
int cli_usr_cfm_lbstart(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_lbstop(FILE *out, CliArg *args, int unused);

int cli_usr_cfm_showmep(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_showremotemep(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_clearremotemep(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_showltr(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_clearltr(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_clearlbr(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_clearcnt(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_runtime(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_update(FILE *out, CliArg *args, int unused);
// The state as one JSON document, on the requesting connection only.
int cli_usr_cfm_dumpjson(FILE *out, CliArg *args, int unused);
// Performance monitoring (option -y).
int cli_usr_cfm_pmstart(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_pmstop(FILE *out, CliArg *args, int unused);
int cli_usr_cfm_pmshow(FILE *out, CliArg *args, int unused);
