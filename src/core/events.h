// Events: what changed in the daemon (a fault raised or cleared, a remote MEP
// learnt or aged out, a run finished, an object configured), recorded by the
// engines into a bounded queue and handed by one delivery thread to the
// watchers, syslog and the notify program. Posting never waits on I/O: it
// copies the record under a short lock; with no delivery thread it does
// nothing. Standard output never sees an event.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

#include "db/md_ma.h"

enum class CfmEventKind : uint8_t { FaultAlarm, FaultCleared, RmepUp, RmepDown, LbDone, LtDone, Config, PmDone };

// What a config event concerns and what happened to it.
enum class CfmConfigObject : uint8_t { Md, Ma, Mep };
enum class CfmConfigAction : uint8_t { Created, Changed, Deleted };

struct CfmEvent {
  CfmEventKind kind;
  uint64_t time_ms;  // wall clock, ms since the epoch
  uint32_t md;       // MD index
  char md_name[CFM_MD_NAME_SIZE];
  uint8_t level;
  bool has_ma;  // the MA fields below apply
  uint32_t ma;
  char ma_name[CFM_MA_NAME_SIZE];
  bool has_mep;  // the MEP fields below apply
  uint16_t mep;
  uint16_t vid;
  // fault-alarm, fault-cleared: the defect code 1..5 (cleared: the last one raised)
  uint8_t defect;
  // rmep-up, rmep-down
  uint16_t rmep;
  uint8_t mac[6];
  // lb-done, lt-done
  bool ok;
  bool stopped;  // lb-done: ended by lbstop
  uint32_t sent, replies, out_of_order, bad;
  // pm-done (with sent, replies, stopped): the session's kind ("dm", "slm",
  // "1dm") and figures; what was not measured has its flag false
  const char *pm;
  uint32_t lost, invalid;
  bool has_delay, has_near, has_far;
  int64_t delay_min_ns, delay_avg_ns, delay_max_ns;
  double near_loss, far_loss;  // 0..1
  // config
  CfmConfigObject object;
  CfmConfigAction action;
};

// Text name of a kind ("fault-alarm", ...) and of a defect code 1..5.
const char *cfm_event_kind_name(CfmEventKind kind);
const char *cfm_event_defect_name(uint8_t code);

// A record of the kind for the MD, MA and MEP given (names and level looked
// up; what is missing stays empty), stamped with the wall clock.
CfmEvent cfm_event_make(CfmEventKind kind, uint32_t md, uint32_t ma, uint16_t mep, uint16_t vid);

// One line without its newline: the time, the kind and key=value fields.
std::string cfm_event_text(const CfmEvent &event);
// One JSON object without its newline.
std::string cfm_event_json(const CfmEvent &event);

// Most events waiting for delivery; beyond, new ones are dropped and counted.
constexpr size_t CFM_EVENT_QUEUE_MAX = 512;

// Queues a copy for delivery (only while the delivery thread runs).
void cfm_event_post(const CfmEvent &event);

// Something that receives every event on the delivery thread, in order.
using CfmEventSink = void (*)(const CfmEvent &event);
// Registers a sink (before cfm_events_start); at most a few.
void cfm_events_add_sink(CfmEventSink sink);
// Called by the delivery thread after each batch, and again every 100 ms
// for as long as it returns true (watchers catching up).
void cfm_events_set_idle(bool (*idle)());
// Starts the delivery thread (once).
void cfm_events_start();
// Takes what is queued and hands it to the sinks on the calling thread
// (the delivery thread's work; also for tests). Returns how many.
size_t cfm_events_deliver();
// Queued events lost because the queue was full.
uint64_t cfm_events_dropped();
