// Loopback initiator: runs the LBM transmissions started by configmep, one
// LBM per tick, and counts the LBRs that answer them.
#pragma once
#include <cstddef>
#include <cstdint>

struct CfmPacket;
struct MepEntry;

uint32_t CFM_LB_Init();
void CFM_LBI_XMIT_Check();
// Builds and sends one LBM; advances *trans_id on success.
uint32_t cfm_send_lbm(const uint8_t *destination, uint32_t port, uint8_t priority, uint16_t vid,
                      uint32_t *trans_id, uint8_t md_level, const char *data, size_t data_length);
uint32_t CFM_LBR_Process(CfmPacket *packet);

// Rows "/runtime/cfm/lbr:N" kept for the LBRs that passed the checks and
// answer a running loopback. The count lives in memory (only this daemon
// writes the tree; it is read once at start), so no LBR lists a directory.
// A run adds at most as many rows as it sends LBMs, and the table holds at
// most CFM_MAX_LBR_ROWS rows, the largest message count (a row is two files,
// about 8 KiB on a tmpfs: 8 MiB in all); later LBRs are counted as unwritten
// until clearlbr.
constexpr uint32_t CFM_MAX_LBR_ROWS = 1024;
uint32_t cfm_lbr_rows();
uint32_t cfm_lbr_rows_unwritten();
// Deletes every row (clearlbr) and starts counting from 0 again.
void cfm_lbr_rows_clear();

// Source MAC of LBMs (the system MAC copied at init).
const uint8_t *cfm_lb_source_mac();

// Posts the lb-done event of the MEP's run (its result and counters).
void cfm_lb_post_done(const MepEntry &mep, bool stopped);

struct MepEntry;
// The MEP of MD md_id that receives a frame on VLAN vid: the first MEP of the
// MD, in table order from (md_id, vid), with that VID whose port is `port` or
// which is an Up MEP. Used by every reply-processing engine.
bool cfm_find_mep_in_md(uint32_t md_id, uint32_t vid, uint32_t port, MepEntry *out);
