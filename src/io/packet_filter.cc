#include "io/packet_filter.h"

#include <sys/socket.h>

#include <cstdint>

#include "io/frame.h"

namespace cfm {

namespace {

constexpr uint32_t kKeep = 0xFFFFFFFFu;  // the whole frame
constexpr uint32_t kDrop = 0;

// The classifier's two frame types: where the EtherType stands behind one
// tag and behind two. A frame type acts on a frame with 0x8902 behind one tag
// and a whole common header after it; failing that, on one with 0x8902
// behind two tags and a whole header after it.
struct EtherTypeAt {
  size_t single_tag;
  size_t double_tag;
};
constexpr EtherTypeAt kFrameTypes[] = {{wire::kSingleTagEtherType, wire::kDoubleTagEtherType},
                                       {wire::kSingleTagEtherType8023, wire::kDoubleTagEtherType8023}};
constexpr size_t kGroupLen = 8;  // instructions per frame type: two positions
constexpr size_t kTestsLen = 2 * kGroupLen + 2;

struct Program {
  struct sock_filter *code;
  size_t len = 0;
  void stmt(uint16_t op, uint32_t k) { code[len++] = BPF_STMT(op, k); }
  void jump(uint16_t op, uint32_t k, size_t jt, size_t jf) {
    code[len++] = BPF_JUMP(op, k, static_cast<uint8_t>(jt), static_cast<uint8_t>(jf));
  }
};

// One position, four instructions: 0x8902 there (else two instructions on,
// to the next position), then a whole common header after it (jump to
// `keep`; else on to the next position, which asks for a longer frame).
void emit_position(Program &p, size_t data_offset, size_t keep) {
  p.stmt(BPF_LD | BPF_H | BPF_ABS, static_cast<uint32_t>(data_offset));
  p.jump(BPF_JMP | BPF_JEQ | BPF_K, kCfmEtherType, 0, 2);
  p.stmt(BPF_LD | BPF_W | BPF_LEN, 0);
  p.jump(BPF_JMP | BPF_JGE | BPF_K, static_cast<uint32_t>(data_offset + kCfmLengthFromEtherType), keep - p.len - 1, 0);
}

// The tests of both frame types for a frame whose outer tag is `shift`
// bytes further on the wire than in the data (4 when the kernel took it off,
// 0 when it is still there). Ends in drop, then keep.
void emit_cfm_tests(Program &p, size_t shift) {
  size_t keep = p.len + kTestsLen - 1;
  for (const EtherTypeAt &type : kFrameTypes) {
    emit_position(p, type.single_tag - shift, keep);
    emit_position(p, type.double_tag - shift, keep);
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
    emit_cfm_tests(p, kTagLen);
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
    emit_cfm_tests(p, 0);
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
