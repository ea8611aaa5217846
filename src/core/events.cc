#include "core/events.h"

#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

#include "cli/json.h"
#include "core/hwaddr.h"
#include "core/os.h"

namespace {

constexpr size_t kMaxSinks = 4;
constexpr int kIdleMs = 100;

std::mutex g_mutex;
CfmWake g_wake;
std::deque<CfmEvent> g_queue;
uint64_t g_dropped = 0;
CfmEventSink g_sinks[kMaxSinks] = {};
std::atomic<size_t> g_sink_count{0};
bool (*g_idle)() = nullptr;
bool g_started = false;

const char *const kKindNames[] = {"fault-alarm", "fault-cleared", "rmep-up", "rmep-down",
                                  "lb-done",     "lt-done",       "config",  "pm-done"};
const char *const kDefectNames[] = {"none", "RDI", "MAC status", "remote CCM", "error CCM", "cross-connect"};
const char *const kObjectNames[] = {"md", "ma", "mep"};
const char *const kActionNames[] = {"created", "changed", "deleted"};

void *delivery_task(void *) {
  bool again = false;
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(g_mutex);
      // Woken for events, or every 100 ms while the idle work wants it.
      if (again && g_queue.empty()) g_wake.wait_ms(g_mutex, kIdleMs);
      while (!again && g_queue.empty()) g_wake.wait(g_mutex);
    }
    cfm_events_deliver();
    again = g_idle != nullptr && g_idle();
  }
  return nullptr;
}

const char *lb_result(const CfmEvent &e) {
  if (e.stopped) return "stopped";
  return e.ok ? "ok" : "fail";
}

void add_field(std::string *line, const char *key, const char *value) {
  *line += ' ';
  *line += key;
  *line += '=';
  *line += value;
}

void add_number(std::string *line, const char *key, unsigned long value) {
  char text[24];
  snprintf(text, sizeof text, "%lu", value);
  add_field(line, key, text);
}

// A figure of a PM session: "%lld" or "%.4f", or "null" when not measured.
std::string figure(bool has, double value, bool ratio) {
  char text[32] = "null";
  if (has) snprintf(text, sizeof text, ratio ? "%.4f" : "%.0f", value);
  return text;
}

// The figures of a pm-done event as key and text, in order.
struct PmFigure {
  const char *key;
  std::string text;
};
std::vector<PmFigure> pm_figures(const CfmEvent &e) {
  std::vector<PmFigure> f = {{"sent", figure(true, e.sent, false)}};
  if (strcmp(e.pm, "1dm") != 0) {
    f.push_back({"replies", figure(true, e.replies, false)});
    f.push_back({"lost", figure(true, e.lost, false)});
  }
  f.push_back({"invalid", figure(true, e.invalid, false)});
  if (strcmp(e.pm, "dm") == 0) {
    f.push_back({"delay_min_ns", figure(e.has_delay, static_cast<double>(e.delay_min_ns), false)});
    f.push_back({"delay_avg_ns", figure(e.has_delay, static_cast<double>(e.delay_avg_ns), false)});
    f.push_back({"delay_max_ns", figure(e.has_delay, static_cast<double>(e.delay_max_ns), false)});
  } else if (strcmp(e.pm, "slm") == 0) {
    f.push_back({"near_loss", figure(e.has_near, e.near_loss, true)});
    f.push_back({"far_loss", figure(e.has_far, e.far_loss, true)});
  }
  return f;
}

}  // namespace

const char *cfm_event_kind_name(CfmEventKind kind) { return kKindNames[static_cast<size_t>(kind)]; }

const char *cfm_event_defect_name(uint8_t code) { return code <= 5 ? kDefectNames[code] : "unknown"; }

CfmEvent cfm_event_make(CfmEventKind kind, uint32_t md, uint32_t ma, uint16_t mep, uint16_t vid) {
  CfmEvent event;
  memset(&event, 0, sizeof event);
  event.kind = kind;
  event.time_ms = CFM_OS_Get_Wall_Ms();
  event.md = md;
  event.has_ma = event.has_mep = true;
  event.ma = ma;
  event.mep = mep;
  event.vid = vid;
  MdEntry md_entry;
  memset(&md_entry, 0, sizeof md_entry);
  md_entry.MdIndex = md;
  if (CFM_Get_MD_Entry(&md_entry) == 1) {
    memcpy(event.md_name, md_entry.MdName, sizeof event.md_name - 1);
    event.level = md_entry.MdLevel;
  }
  MaNetEntry ma_entry;
  memset(&ma_entry, 0, sizeof ma_entry);
  ma_entry.MaIndex = ma;
  if (CFM_Get_MA_Net_Entry(&ma_entry) == 1) memcpy(event.ma_name, ma_entry.MaName, sizeof event.ma_name - 1);
  return event;
}

std::string cfm_event_text(const CfmEvent &e) {
  char time[CFM_JSON_TIME_SIZE];
  std::string line = cfm_json_time(time, e.time_ms);
  line += ' ';
  line += cfm_event_kind_name(e.kind);
  add_field(&line, "md", e.md_name);
  add_number(&line, "level", e.level);
  if (e.has_ma) add_field(&line, "ma", e.ma_name);
  if (e.has_mep) {
    add_number(&line, "mep", e.mep);
    add_number(&line, "vid", e.vid);
  }
  char mac[CFM_MAC_TEXT_SIZE];
  switch (e.kind) {
    case CfmEventKind::FaultAlarm:
    case CfmEventKind::FaultCleared:
      line += " defect=\"";
      line += cfm_event_defect_name(e.defect);
      line += '"';
      add_number(&line, "defect_code", e.defect);
      break;
    case CfmEventKind::RmepUp:
    case CfmEventKind::RmepDown:
      add_number(&line, "rmep", e.rmep);
      add_field(&line, "mac", hwaddr_to_string(mac, e.mac));
      break;
    case CfmEventKind::LbDone:
      add_field(&line, "result", lb_result(e));
      add_number(&line, "sent", e.sent);
      add_number(&line, "replies", e.replies);
      add_number(&line, "out_of_order", e.out_of_order);
      add_number(&line, "bad", e.bad);
      break;
    case CfmEventKind::LtDone:
      add_field(&line, "result", e.ok ? "ok" : "fail");
      add_number(&line, "replies", e.replies);
      break;
    case CfmEventKind::Config:
      add_field(&line, "object", kObjectNames[static_cast<size_t>(e.object)]);
      add_field(&line, "action", kActionNames[static_cast<size_t>(e.action)]);
      break;
    case CfmEventKind::PmDone:
      add_field(&line, "pm", e.pm);
      add_field(&line, "result", e.stopped ? "stopped" : "finished");
      for (const PmFigure &f : pm_figures(e)) add_field(&line, f.key, f.text.c_str());
      break;
  }
  return line;
}

std::string cfm_event_json(const CfmEvent &e) {
  char *buffer = nullptr;
  size_t size = 0;
  FILE *out = open_memstream(&buffer, &size);
  if (out == nullptr) return "{}";
  JsonOut json(out);
  json.begin(nullptr, '{');
  json.time("time", e.time_ms);
  json.text("event", cfm_event_kind_name(e.kind));
  json.number("md", e.md);
  json.text("md_name", e.md_name);
  json.number("level", e.level);
  if (e.has_ma) {
    json.number("ma", e.ma);
    json.text("ma_name", e.ma_name);
  }
  if (e.has_mep) {
    json.number("mep", e.mep);
    json.number("vid", e.vid);
  }
  switch (e.kind) {
    case CfmEventKind::FaultAlarm:
    case CfmEventKind::FaultCleared:
      json.text("defect", cfm_event_defect_name(e.defect));
      json.number("defect_code", e.defect);
      break;
    case CfmEventKind::RmepUp:
    case CfmEventKind::RmepDown:
      json.number("rmep", e.rmep);
      json.mac("mac", e.mac);
      break;
    case CfmEventKind::LbDone:
      json.text("result", lb_result(e));
      json.number("sent", e.sent);
      json.number("replies", e.replies);
      json.number("out_of_order", e.out_of_order);
      json.number("bad", e.bad);
      break;
    case CfmEventKind::LtDone:
      json.text("result", e.ok ? "ok" : "fail");
      json.number("replies", e.replies);
      break;
    case CfmEventKind::Config:
      json.text("object", kObjectNames[static_cast<size_t>(e.object)]);
      json.text("action", kActionNames[static_cast<size_t>(e.action)]);
      break;
    case CfmEventKind::PmDone:
      json.text("pm", e.pm);
      json.text("result", e.stopped ? "stopped" : "finished");
      for (const PmFigure &f : pm_figures(e)) json.literal(f.key, f.text.c_str());
      break;
  }
  json.end('}');
  fclose(out);
  std::string text(buffer, size);
  free(buffer);
  return text;
}

void cfm_event_post(const CfmEvent &event) {
  if (g_sink_count.load() == 0) return;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_queue.size() >= CFM_EVENT_QUEUE_MAX) {
      g_dropped += 1;
      return;
    }
    g_queue.push_back(event);
  }
  g_wake.notify();
}

void cfm_events_add_sink(CfmEventSink sink) {
  size_t n = g_sink_count.load();
  if (n >= kMaxSinks) return;
  g_sinks[n] = sink;
  g_sink_count.store(n + 1);
}

void cfm_events_set_idle(bool (*idle)()) { g_idle = idle; }

void cfm_events_start() {
  if (g_started) return;
  g_started = true;
  pthread_t thread;
  CFM_OS_Create_Task(&thread, "CFM-Evt", delivery_task, 0, 0);
}

size_t cfm_events_deliver() {
  std::deque<CfmEvent> batch;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    batch.swap(g_queue);
  }
  size_t sinks = g_sink_count.load();
  for (const CfmEvent &event : batch) {
    for (size_t i = 0; i < sinks; ++i) g_sinks[i](event);
  }
  return batch.size();
}

uint64_t cfm_events_dropped() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_dropped;
}
