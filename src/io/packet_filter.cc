#include "io/packet_filter.h"

#include <sys/socket.h>

#include <cstdint>

#include "io/frame.h"

namespace cfm {

namespace {

constexpr uint32_t kKeep = 0xFFFFFFFFu;  // the whole frame
constexpr uint32_t kDrop = 0;

// Where the EtherType can be 0x8902 on the wire: behind one or two tags, in
// an Ethernet II or an 802.3 LLC/SNAP frame.
constexpr size_t kEtherTypeAt[] = {wire::kSingleTagEtherType, wire::kDoubleTagEtherType,
                                   wire::kSingleTagEtherType8023, wire::kDoubleTagEtherType8023};
constexpr size_t kPositions = sizeof kEtherTypeAt / sizeof kEtherTypeAt[0];

struct Program {
  struct sock_filter *code;
  size_t len = 0;
  void stmt(uint16_t op, uint32_t k) { code[len++] = BPF_STMT(op, k); }
  void jump(uint16_t op, uint32_t k, uint8_t jt, uint8_t jf) { code[len++] = BPF_JUMP(op, k, jt, jf); }
};

// The tests of the EtherType positions, for a frame whose outer tag is
// `shift` bytes further on the wire than in the data (4 when the kernel took
// it off, 0 when it is still there). Ends in keep or drop.
void emit_ether_type_tests(Program &p, size_t shift) {
  for (size_t i = 0; i < kPositions; ++i) {
    p.stmt(BPF_LD | BPF_H | BPF_ABS, static_cast<uint32_t>(kEtherTypeAt[i] - shift));
    // Equal: to the keep after the last test; else the next load.
    auto to_keep = static_cast<uint8_t>(2 * (kPositions - 1 - i) + 1);
    p.jump(BPF_JMP | BPF_JEQ | BPF_K, kCfmEtherType, to_keep, 0);
  }
  p.stmt(BPF_RET | BPF_K, kDrop);
  p.stmt(BPF_RET | BPF_K, kKeep);
}

}  // namespace

size_t packet_filter(bool all_tagged, struct sock_filter *out) {
  Program p{out};
  // A load past the end of the data ends the program with drop.
  p.stmt(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_VLAN_TAG_PRESENT));
  size_t branch = p.len;
  p.jump(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 0);  // no tag in the auxiliary data: the inline branch
  // The kernel took the outer tag off: it must be an 802.1Q one.
  p.stmt(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_VLAN_TPID));
  p.jump(BPF_JMP | BPF_JEQ | BPF_K, kTpid8021Q, 1, 0);
  p.stmt(BPF_RET | BPF_K, kDrop);
  if (all_tagged) {
    p.stmt(BPF_RET | BPF_K, kKeep);
  } else {
    emit_ether_type_tests(p, kTagLen);
  }
  out[branch].jf = 0;
  out[branch].jt = static_cast<uint8_t>(p.len - branch - 1);
  // The outer tag still in the data.
  p.stmt(BPF_LD | BPF_H | BPF_ABS, static_cast<uint32_t>(wire::kTpid));
  p.jump(BPF_JMP | BPF_JEQ | BPF_K, kTpid8021Q, 1, 0);
  p.stmt(BPF_RET | BPF_K, kDrop);
  if (all_tagged) {
    p.stmt(BPF_RET | BPF_K, kKeep);
  } else {
    emit_ether_type_tests(p, 0);
  }
  return p.len;
}

bool packet_filter_attach(int fd, bool all_tagged) {
  struct sock_filter code[kPacketFilterMaxLen];
  struct sock_fprog prog;
  prog.len = static_cast<unsigned short>(packet_filter(all_tagged, code));
  prog.filter = code;
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) == 0;
}

}  // namespace cfm
