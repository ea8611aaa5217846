// lt-done events: a linktrace's result and the replies that arrived for its
// transaction, reported once the replies have had time to come.
#pragma once
#include <cstdint>

// How long after its LTM a linktrace is reported.
constexpr int64_t CFM_LT_DONE_AFTER_MS = 5000;

// A linktrace of the MEP went out (ok) or could not be sent, with its
// transaction identifier, at now_ms.
void cfm_lt_done_started(uint32_t md, uint32_t ma, uint16_t mep, uint16_t vid, uint32_t trans_id, bool ok,
                         int64_t now_ms);
// Reports the linktraces whose time has come. Called by the timer tick.
void cfm_lt_done_check(int64_t now_ms);
