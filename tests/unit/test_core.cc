// MAC text parsing, the frame-type words and the global settings record.
// Printing MACs is checked through the command texts.
#include <gtest/gtest.h>

#include <vector>

#include "core/frame_type.h"
#include "core/global.h"
#include "core/hwaddr.h"

namespace {

TEST(Hwaddr, ParsesSixHexPairsOnly) {
  uint8_t mac[6];
  ASSERT_EQ(hwaddr_aton("00:1A:2b:3C:4d:5Exyz", mac), 0);  // text after the sixth pair is not examined
  EXPECT_EQ(std::vector<uint8_t>(mac, mac + 6), (std::vector<uint8_t>{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}));
  ASSERT_EQ(hwaddr_aton("09:af:AF:f9:F0:90", mac), 0);  // the last digit of each range
  EXPECT_EQ(std::vector<uint8_t>(mac, mac + 6), (std::vector<uint8_t>{0x09, 0xaf, 0xaf, 0xf9, 0xf0, 0x90}));
  for (const char *bad : {"00-1a-2b-3c-4d-5e", "0:1:2:3:4:5", "00:11:22:33:44", "00:11:22:33:44:5", "",
                          "g0:11:22:33:44:55", "00:11:22:33:44:5g", "00::11:22:33:44:55", (const char *)nullptr}) {
    EXPECT_EQ(hwaddr_aton(bad, mac), -1) << (bad ? bad : "null");
  }
}

// The command line test covers "8023", "ethernet" and "802"; these are the other edges.
TEST(FrameType, Words) {
  EXPECT_EQ(pareFrameTypeStr("80231"), 1);
  for (const char *other : {"", "et", "ETH", " eth", (const char *)nullptr}) {
    EXPECT_EQ(pareFrameTypeStr(other), -1) << (other ? other : "null");
  }
  setFrameType(1);
  setFrameType(2);  // ignored
  EXPECT_TRUE(is8023Frame());
  setDefaultFrameType();
  EXPECT_FALSE(is8023Frame());
}

std::vector<int64_t> Stored() {
  GlobalEntry e = {};
  CFM_IF_Get_Global_Entry(&e);
  return {e.status, e.default_md_level, e.mhf_creation, e.sender_id_permission};
}

TEST(GlobalEntry, RangeChecksLeaveTheRecordUnchanged) {
  CFM_Global_Reset();
  for (const GlobalEntry &e : {GlobalEntry{2, 2, 1, 1}, GlobalEntry{1, 8, 1, 1}, GlobalEntry{1, 2, 0, 1},
                               GlobalEntry{1, 2, 4, 1}, GlobalEntry{1, 2, 1, 0}, GlobalEntry{1, 2, 1, 5}}) {
    EXPECT_EQ(CFM_IF_Set_Global_Entry(&e), 0);
  }
  EXPECT_EQ(Stored(), (std::vector<int64_t>{0, 2, 1, 1}));
  for (const GlobalEntry &e : {GlobalEntry{1, 7, 3, 4}, GlobalEntry{0, 0, 1, 1}}) {
    ASSERT_EQ(CFM_IF_Set_Global_Entry(&e), 1);
    EXPECT_EQ(Stored(), (std::vector<int64_t>{e.status, e.default_md_level, e.mhf_creation, e.sender_id_permission}));
  }
  CFM_Global_Reset();
}

}  // namespace
