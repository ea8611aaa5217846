#include "cli/args.h"

CliArg *cli_arg_at(CliArg *args, int pos) {
  CliArg *arg = args;
  for (int i = 1; i < pos && arg != nullptr; ++i) arg = arg->next;
  return pos >= 1 ? arg : nullptr;
}

CliArgStatus cli_arg_number(const CliArg *arg, int32_t *value) {
  if (arg == nullptr) return CliArgStatus::kMissing;
  if (arg->text != nullptr || arg->data != &arg->value) return CliArgStatus::kInvalid;
  *value = arg->value;
  return CliArgStatus::kOk;
}

CliArgStatus cli_arg_text(const CliArg *arg, const char **text) {
  if (arg == nullptr) return CliArgStatus::kMissing;
  if (arg->text != nullptr) {
    *text = arg->text;
  } else if (arg->word != nullptr) {
    *text = arg->word;
  } else {
    return CliArgStatus::kInvalid;
  }
  return CliArgStatus::kOk;
}

void cli_report_arg_status(FILE *out, CliArgStatus status) {
  if (status == CliArgStatus::kMissing) fputs("\r\nError!! Missing argument", out);
  if (status == CliArgStatus::kInvalid) fputs("\r\nError!! Invalid argument", out);
}

bool cli_read_numbers(FILE *out, CliArg *args, const int *positions, int count, int32_t *values) {
  for (int i = 0; i < count; ++i) {
    CliArgStatus status = cli_arg_number(cli_arg_at(args, positions[i]), &values[i]);
    if (status != CliArgStatus::kOk) {
      cli_report_arg_status(out, status);
      return false;
    }
  }
  return true;
}
