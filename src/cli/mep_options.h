// The options of configmep (pairs "code value" from argument 13 on): one
// table gives, for each code, the kind of value it takes, the values it
// accepts with what they store, how it changes the MEP, and its help text.
// The command's parser and the front end's help both read it.
#pragma once
#include <cstddef>
#include <cstdint>

#include "db/mep_mip.h"

enum class MepOptionKind { kNumber, kChoice, kText };

// One accepted value of a choice option and the value it stores.
struct MepOptionChoice {
  int32_t value;
  uint32_t stored;
};

struct MepOption {
  int32_t code;
  MepOptionKind kind;
  MepOptionChoice choices[6];  // kChoice: the accepted values, in order
  size_t choice_count;
  // Stores the value (the number, the choice's stored value or the text).
  void (*store)(MepEntry *mep, uint32_t number, const char *text);
  const char *help;  // e.g. "2 CCM (21 on, 22 off)"
};

extern const MepOption cfm_mep_options[];
extern const size_t cfm_mep_option_count;

// The option of a code, or null for a code configmep refuses.
const MepOption *cfm_mep_option(int32_t code);
// For a choice option, the stored value of an accepted value; false when the
// value is refused. Other kinds accept every number.
bool cfm_mep_option_accepts(const MepOption &option, int32_t value, uint32_t *stored);
