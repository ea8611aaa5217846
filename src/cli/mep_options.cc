#include "cli/mep_options.h"

#include <cstring>

#include "core/hwaddr.h"

namespace {

using K = MepOptionKind;

void store_data_tlv(MepEntry *mep, uint32_t, const char *text) {
  // The field is cleared and the text copied without a terminating NUL, cut
  // to the field's 1201 bytes.
  memset(mep->LbmDataTlv, 0, sizeof mep->LbmDataTlv);
  memcpy(mep->LbmDataTlv, text, strnlen(text, CFM_LBM_DATA_TLV_SIZE));
}

}  // namespace

const MepOption cfm_mep_options[] = {
    {1, K::kChoice, {{110, 1}, {120, 0}}, 2, [](MepEntry *m, uint32_t v, const char *) { m->Active = v; },
     "1 active (110 on, 120 off)"},
    {2, K::kChoice, {{21, 1}, {22, 0}}, 2, [](MepEntry *m, uint32_t v, const char *) { m->CciEnabled = v; },
     "2 CCM (21 on, 22 off)"},
    {3, K::kNumber, {}, 0, [](MepEntry *m, uint32_t v, const char *) { m->CcmLtmPriority = static_cast<uint8_t>(v); },
     "3 CCM/LTM priority"},
    {4, K::kChoice, {{41, 1}, {42, 2}, {43, 3}, {44, 4}, {45, 5}, {46, 6}}, 6,
     [](MepEntry *m, uint32_t v, const char *) { m->LowestAlarmPriority = static_cast<uint8_t>(v); },
     "4 lowest alarm priority (41 alldef .. 46 noxcon)"},
    {5, K::kChoice, {{51, 1}, {52, 0}}, 2,
     [](MepEntry *m, uint32_t v, const char *) {
       m->LbmTransmitStatus = v;
       if (v == 1) m->LbmStopped = 0;  // a new run is no longer the stopped one
     },
     "5 LBM (51 start, 52 stop)"},
    {6, K::kText, {}, 0, [](MepEntry *m, uint32_t, const char *t) { hwaddr_aton(t, m->LbmTargetMac); },
     "6 LBM target MAC"},
    {7, K::kNumber, {}, 0, [](MepEntry *m, uint32_t v, const char *) { m->LbmMessages = v; }, "7 LBM count"},
    {8, K::kNumber, {}, 0, [](MepEntry *m, uint32_t v, const char *) { m->LbmPriority = static_cast<uint8_t>(v); },
     "8 LBM priority"},
    {9, K::kChoice, {{91, 0}, {92, 0x80}}, 2,
     [](MepEntry *m, uint32_t v, const char *) { m->LtmFlags = static_cast<uint8_t>(v); },
     "9 LTM flags (91 none, 92 useFDBonly)"},
    {10, K::kText, {}, 0, [](MepEntry *m, uint32_t, const char *t) { hwaddr_aton(t, m->LtmTargetMac); },
     "10 LTM target MAC"},
    {11, K::kNumber, {}, 0, [](MepEntry *m, uint32_t v, const char *) { m->LtmTtl = static_cast<uint8_t>(v); },
     "11 LTM TTL"},
    {12, K::kChoice, {{121, 1}, {122, 0}}, 2, [](MepEntry *m, uint32_t v, const char *) { m->LtmTransmitStatus = v; },
     "12 LTM (121 send, 122 no)"},
    {13, K::kNumber, {}, 0, [](MepEntry *m, uint32_t v, const char *) { m->LbmTargetMepId = static_cast<uint16_t>(v); },
     "13 LBM target MEPID"},
    {14, K::kNumber, {}, 0, [](MepEntry *m, uint32_t v, const char *) { m->LbmTargetIsMepId = static_cast<uint8_t>(v); },
     "14 LBM target is MEPID (0/1)"},
    {15, K::kText, {}, 0, store_data_tlv, "15 LBM data text"},
    {16, K::kNumber, {}, 0, [](MepEntry *m, uint32_t v, const char *) { m->LtmTargetMepId = static_cast<uint16_t>(v); },
     "16 LTM target MEPID"},
    {17, K::kNumber, {}, 0, [](MepEntry *m, uint32_t v, const char *) { m->LtmTargetIsMepId = static_cast<uint8_t>(v); },
     "17 LTM target is MEPID (0/1)"},
};
const size_t cfm_mep_option_count = sizeof cfm_mep_options / sizeof cfm_mep_options[0];

const MepOption *cfm_mep_option(int32_t code) {
  for (const MepOption &option : cfm_mep_options) {
    if (option.code == code) return &option;
  }
  return nullptr;
}

bool cfm_mep_option_accepts(const MepOption &option, int32_t value, uint32_t *stored) {
  if (option.kind != MepOptionKind::kChoice) {
    *stored = static_cast<uint32_t>(value);
    return true;
  }
  for (size_t i = 0; i < option.choice_count; ++i) {
    if (option.choices[i].value == value) {
      *stored = option.choices[i].stored;
      return true;
    }
  }
  return false;
}
