// The daemon's state for the fuzz targets, driven in process: the tables,
// the engines and the command handlers, with transmission captured and the
// clock under the fuzzer's control. No task is started; each target calls
// the functions the receive task, the timer task and the command server call.
#pragma once
#include <cstddef>
#include <cstdint>

namespace fuzz_world {

// Once per process: standard output to /dev/null (kept with the environment
// variable CFMD_FUZZ_STDOUT=1), semaphores, tables, system MAC, a transmit
// hook that drops every frame, the configuration tree in a scratch directory
// (removed at exit) and the LAN socket.
void init();

// Back to the same starting state before every input: the tree's
// /runtime removed, CFM enabled, debug
// off, Ethernet II framing, the clock at a fixed second, and, through
// commands, MD n+1 at each level n = 0..7 with MA n+1 and MEP n+1 on VID
// 100 (Down at even levels, Up at odd ones, CCMs on), a loopback running on
// the level 2 MEP and a linktrace running on the level 4 MEP, with delay and
// loss measurement on (option -y) and both sessions running on the level 4 MEP.
void reset();

// Settings byte used by the targets: bit 0 selects IEEE 802.3 framing,
// bit 1 turns debug output on, bit 2 turns delay and loss measurement off;
// for frame_input, bit 3 sends the frame in from the LAN instead of the WAN.
constexpr uint8_t kSettingLan = 8;
void apply_settings(uint8_t bits);

// One WAN frame through classification and the engine of its opcode.
void receive(const uint8_t *frame, size_t length);
// One LAN frame read from the LAN socket (a datagram socket pair stands in
// for the raw socket) and relayed by its level.
void receive_from_lan(const uint8_t *frame, size_t length);
// One request as a front end sends it, through the per-connection function.
void serve(const uint8_t *request, size_t length);
// One timer tick, the clock one second later.
void tick();

// The inputs of the three fuzz targets, read as each target reads them
// (no reset first): a settings byte followed by a WAN (or LAN) frame; a
// request (serve above); a sequence of records, see fuzz_mixed.cc.
void frame_input(const uint8_t *data, size_t size);
void mixed_input(const uint8_t *data, size_t size);

}  // namespace fuzz_world
