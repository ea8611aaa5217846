// MAC text helpers, the frame-type module, the global settings record and the
// system clock units.
#include <gtest/gtest.h>

#include <cstring>

#include "core/frame_type.h"
#include "core/global.h"
#include "core/hwaddr.h"
#include "core/os.h"

namespace {

TEST(Hwaddr, ParsesSixHexPairs) {
  uint8_t mac[6];
  ASSERT_EQ(hwaddr_aton("00:1A:2b:3C:4d:5E", mac), 0);
  const uint8_t expected[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
  EXPECT_EQ(memcmp(mac, expected, 6), 0);
  // Text after the sixth pair is not examined.
  ASSERT_EQ(hwaddr_aton("ff:ee:dd:cc:bb:aaxyz", mac), 0);
  EXPECT_EQ(mac[5], 0xaa);
}

TEST(Hwaddr, RejectsOtherForms) {
  for (const char *bad : {"00-1a-2b-3c-4d-5e", "0:1:2:3:4:5", "00:11:22:33:44", "00:11:22:33:44:5",
                          "00:11:22:33:44:", "", "g0:11:22:33:44:55", "00:11:22:33:44:5g", "00::11:22:33:44:55",
                          " 00:11:22:33:44:55"}) {
    uint8_t mac[6] = {0};
    EXPECT_EQ(hwaddr_aton(bad, mac), -1) << bad;
  }
  uint8_t mac[6];
  EXPECT_EQ(hwaddr_aton(nullptr, mac), -1);
  EXPECT_EQ(hwaddr_aton("00:11:22:33:44:55", nullptr), -1);
  // Bytes parsed before the fault stay written.
  uint8_t partial[6] = {9, 9, 9, 9, 9, 9};
  EXPECT_EQ(hwaddr_aton("12:34-56:78:9a:bc", partial), -1);
  EXPECT_EQ(partial[0], 0x12);
  EXPECT_EQ(partial[1], 0x34);
  EXPECT_EQ(partial[2], 9);
}

TEST(Hwaddr, TextForms) {
  char text[CFM_MAC_TEXT_SIZE + 4];
  memset(text, 'Z', sizeof text);
  const uint8_t mac[6] = {0x00, 0xAB, 0x0c, 0xFF, 0x10, 0x01};
  EXPECT_STREQ(hwaddr_to_string(text, mac), "00:ab:0c:ff:10:01");
  EXPECT_EQ(text[CFM_MAC_TEXT_SIZE], 'Z');
  const uint8_t egress[8] = {0x12, 0x34, 0xde, 0xad, 0xbe, 0xef, 0x00, 0x01};
  EXPECT_STREQ(hwaddr_to_string1(text, egress), "de:ad:be:ef:00:01");
  uint8_t back[6];
  ASSERT_EQ(hwaddr_aton(hwaddr_to_string(text, mac), back), 0);
  EXPECT_EQ(memcmp(back, mac, 6), 0);
}

TEST(FrameType, TextAndStoredValue) {
  EXPECT_EQ(getUnknownFrameType(), -1);
  EXPECT_TRUE(isUnknownFrameType(-1));
  EXPECT_FALSE(isUnknownFrameType(0));
  EXPECT_FALSE(isUnknownFrameType(2));
  EXPECT_EQ(pareFrameTypeStr("eth"), 0);
  EXPECT_EQ(pareFrameTypeStr("eth0\n"), 0);
  EXPECT_EQ(pareFrameTypeStr("8023"), 1);
  EXPECT_EQ(pareFrameTypeStr("80231"), 1);
  for (const char *other : {"", "et", "802", "ETH", " eth", "8022"}) EXPECT_EQ(pareFrameTypeStr(other), -1) << other;
  EXPECT_EQ(pareFrameTypeStr(nullptr), -1);

  setFrameType(1);
  setFrameType(2);  // ignored
  EXPECT_TRUE(is8023Frame());
  setDefaultFrameType();
  EXPECT_FALSE(is8023Frame());
  int type = 5;
  EXPECT_EQ(readFrameTypeFile(nullptr), 0);
  EXPECT_EQ(readFrameTypeFileAt("/nonexistent/frametype", &type), 0);
  EXPECT_EQ(type, 5);
}

TEST(GlobalEntry, RangeChecksLeaveTheRecordUnchanged) {
  CFM_Global_Reset();
  GlobalEntry start = {};
  ASSERT_EQ(CFM_IF_Get_Global_Entry(&start), 1);
  EXPECT_EQ(start.status, 0u);
  EXPECT_EQ(start.default_md_level, 2);
  EXPECT_EQ(start.mhf_creation, 1);
  EXPECT_EQ(start.sender_id_permission, 1);

  const GlobalEntry bad[] = {{2, 2, 1, 1}, {1, 8, 1, 1}, {1, 2, 0, 1}, {1, 2, 4, 1},
                             {1, 2, 1, 0}, {1, 2, 1, 5}, {0xFFFFFFFF, 0, 1, 1}};
  for (const GlobalEntry &e : bad) {
    EXPECT_EQ(CFM_IF_Set_Global_Entry(&e), 0);
    GlobalEntry now = {};
    CFM_IF_Get_Global_Entry(&now);
    EXPECT_EQ(memcmp(&now, &start, sizeof now), 0);
  }
  EXPECT_EQ(CFM_IF_Set_Global_Entry(nullptr), 0);

  const GlobalEntry edges[] = {{1, 7, 3, 4}, {0, 0, 1, 1}, {1, 3, 2, 3}};
  for (const GlobalEntry &e : edges) {
    ASSERT_EQ(CFM_IF_Set_Global_Entry(&e), 1);
    GlobalEntry now = {};
    CFM_IF_Get_Global_Entry(&now);
    EXPECT_EQ(now.status, e.status);
    EXPECT_EQ(now.default_md_level, e.default_md_level);
    EXPECT_EQ(now.mhf_creation, e.mhf_creation);
    EXPECT_EQ(now.sender_id_permission, e.sender_id_permission);
    EXPECT_EQ(isCfmEnable(), e.status);
  }
  CFM_Global_Reset();
  cfm_force_enable();
  EXPECT_EQ(isCfmEnable(), 1u);
  GlobalEntry now = {};
  CFM_IF_Get_Global_Entry(&now);
  EXPECT_EQ(now.default_md_level, 2);
  CFM_Global_Reset();
}

uint32_t g_fake_seconds = 0;
uint32_t fake_clock() { return g_fake_seconds; }

TEST(SystemTime, UnitsAndWrap) {
  CFM_OS_Set_Clock_Source(fake_clock);
  g_fake_seconds = 1234;
  EXPECT_EQ(CFM_OS_Get_SystemTime(CFM_TIME_MSEC), 1234000u);
  EXPECT_EQ(CFM_OS_Get_SystemTime(CFM_TIME_HUNDREDTHS), 123400u);
  EXPECT_EQ(CFM_OS_Get_SystemTime(CFM_TIME_TENTHS), 12340u);
  EXPECT_EQ(CFM_OS_Get_SystemTime(CFM_TIME_SEC), 1234u);
  EXPECT_EQ(CFM_OS_Get_SystemTime(4), 1234000u);
  EXPECT_EQ(CFM_OS_Get_SystemTime(-1), 1234000u);
  g_fake_seconds = 0x80000001u;  // products wrap modulo 2^32
  EXPECT_EQ(CFM_OS_Get_SystemTime(CFM_TIME_HUNDREDTHS), static_cast<uint32_t>(0x80000001ull * 100));
  EXPECT_EQ(CFM_OS_Get_SystemTime(CFM_TIME_MSEC), static_cast<uint32_t>(0x80000001ull * 1000));
  CFM_OS_Set_Clock_Source(nullptr);
  uint32_t now = static_cast<uint32_t>(time(nullptr));
  uint32_t seconds = CFM_OS_Get_SystemTime(CFM_TIME_SEC);
  EXPECT_LE(seconds - now, 1u);
}

}  // namespace
