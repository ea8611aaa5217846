// The notify program (-n PROG): run once per event, one at a time in event
// order, by a thread of its own, with the event in CFM_* environment
// variables and as one JSON line on its standard input; its standard output
// goes to the daemon's standard error. A run past the time limit is killed
// with its process group and logged. Events wait in a bounded queue; those
// that find it full are counted and logged.
#pragma once
#include <cstddef>
#include <string>
#include <vector>

#include "core/events.h"

constexpr size_t CFM_NOTIFY_QUEUE_MAX = 64;
constexpr int CFM_NOTIFY_LIMIT_MS = 30000;

// The program's path, set by the option; empty: none.
void cfm_notify_set_program(const char *path);
const char *cfm_notify_program();

// "NAME=value" for each variable the event sets.
std::vector<std::string> cfm_notify_environment(const CfmEvent &event);
// Runs `program` for the event and waits for it, at most limit_ms. Returns
// its exit status, or -1 when it could not start or was killed.
int cfm_notify_run(const char *program, const CfmEvent &event, int limit_ms);

// Kills the running program's process group (async-signal-safe: the daemon
// does it on its way out, so no program outlives it).
void cfm_notify_kill_running();

// The sink: queues the event for the runner thread (started on first use).
void cfm_notify_event(const CfmEvent &event);
