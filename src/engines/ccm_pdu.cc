#include "engines/ccm_pdu.h"

#include <cstring>

using namespace cfm;

void cfm_ccm_write_maid(uint8_t *maid, const MdEntry &md, const MaNetEntry &ma) {
  memset(maid, 0, ccm::kMaidLen);
  // The MD name length is held in one byte; a long name is replaced by
  // 44 minus its length (wrapping in the byte), which keeps it within 22.
  uint8_t n = static_cast<uint8_t>(strnlen(md.MdName, sizeof md.MdName));
  if (2 * n >= 45) n = static_cast<uint8_t>(44 - n);
  size_t md_len = n <= ccm::kMaidNameSpace ? n : ccm::kMaidNameSpace;
  maid[ccm::kMdFormat] = md.MdFormat;
  maid[ccm::kMdNameLen] = n;
  memcpy(maid + ccm::kMdName, md.MdName, md_len <= sizeof md.MdName ? md_len : sizeof md.MdName);
  // The short MA name is cut so that the MAID never exceeds its 48 bytes.
  size_t m = strnlen(ma.MaName, sizeof ma.MaName);
  if (m > ccm::kMaidNameSpace - md_len) m = ccm::kMaidNameSpace - md_len;
  uint8_t *ma_part = maid + ccm::kMdName + md_len;
  ma_part[0] = static_cast<uint8_t>(ma.MaFormat & 0xFF);
  ma_part[1] = static_cast<uint8_t>(m);
  memcpy(ma_part + 2, ma.MaName, m);
}
