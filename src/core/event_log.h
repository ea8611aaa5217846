// Events to syslog (facility daemon): fault alarms at LOG_ERR, clears at
// LOG_NOTICE, the rest at LOG_INFO, one datagram each, written straight to
// the log socket (/dev/log, or the path in CFMD_SYSLOG_PATH) without
// waiting: a log daemon that is missing or slow loses lines, never time.
#pragma once
#include <string>

#include "core/events.h"

// Priority value of an event's line (facility daemon and its severity).
int cfm_event_log_priority(CfmEventKind kind);
// The datagram for a line at a priority, at wall-clock time ms.
std::string cfm_event_log_datagram(int priority, const std::string &message, uint64_t ms);
// Sends a line (not an event's: e.g. a notify program killed) at a priority.
void cfm_event_log_line(int priority, const std::string &message);
// The sink: the event's text line without its time.
void cfm_event_log(const CfmEvent &event);
