// Reading request arguments with guards: a handler checks every argument it
// needs before it changes anything, so a short or mistyped request changes
// nothing and says why.
#pragma once
#include <cstdint>
#include <cstdio>

#include "cli/server.h"

enum class CliArgStatus { kOk, kMissing, kInvalid };

// The argument at 1-based position `pos`, or null when fewer were sent.
CliArg *cli_arg_at(CliArg *args, int pos);

// Number in `arg`: kMissing for a null argument, kInvalid for a text word.
CliArgStatus cli_arg_number(const CliArg *arg, int32_t *value);
// Text of `arg` as it was sent (numeric words included): kMissing for null.
CliArgStatus cli_arg_text(const CliArg *arg, const char **text);

// Prints "\r\nError!! Missing argument" or "\r\nError!! Invalid argument";
// nothing for kOk.
void cli_report_arg_status(FILE *out, CliArgStatus status);

// Reads the numbers at the given positions into `values` (same order). On
// the first missing or non-numeric one reports it and returns false.
bool cli_read_numbers(FILE *out, CliArg *args, const int *positions, int count, int32_t *values);
