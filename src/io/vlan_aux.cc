#include "io/vlan_aux.h"

#include <cstring>

#include "io/frame.h"

size_t cfm_vlan_reinsert(const uint8_t *frame, size_t length, bool tagged, uint16_t tpid, uint16_t tci, uint8_t *out,
                         size_t cap) {
  if (frame == nullptr || out == nullptr) return 0;
  size_t written = 0;
  // memmove, front to back: in place, each piece is read before it is
  // overwritten (the tag lands on address bytes already moved).
  auto put = [&](const uint8_t *src, size_t n) {
    size_t take = n < cap - written ? n : cap - written;
    if (take != 0) memmove(out + written, src, take);
    written += take;
  };
  if (!tagged || length < cfm::wire::kTpid) {
    put(frame, length);
    return written;
  }
  uint8_t tag[cfm::kTagLen];
  cfm::put_be16(tag, tpid);
  cfm::put_be16(tag + 2, tci);
  put(frame, cfm::wire::kTpid);
  put(tag, sizeof tag);
  put(frame + cfm::wire::kTpid, length - cfm::wire::kTpid);
  return written;
}
