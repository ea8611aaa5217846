// Linktrace initiator and receive side driven in-process.
#include <string>

#include "core/status.h"
#include "engine_harness.h"
#include "engines/lt_receiver.h"

using namespace harness;

namespace {

const auto *kEnv = ::testing::AddGlobalTestEnvironment(new SemaphoreCleanup);

const uint8_t kLtmGroup2[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x3A};
const uint8_t kStranger[6] = {0x02, 0x99, 0x99, 0x99, 0x99, 0x99};

class Linktrace : public EngineTest {
 protected:
  LtmRequest request(uint8_t direction = 1, uint32_t trans_id = 5) {
    LtmRequest r = {};
    r.md_id = 1;
    r.ma_id = 1;
    r.mep_id = 1;
    r.port = 1;
    r.vid = 100;
    r.direction = direction;
    r.priority = 7;
    r.md_level = 2;
    r.trans_id = trans_id;
    r.ttl = 64;
    memcpy(r.target_mac, kPeer, 6);
    return r;
  }
  std::vector<LtrEntry> replies() {
    std::vector<LtrEntry> all;
    LtrEntry e = {};
    while (CFM_DB_GetNext_LtrEntry(&e) == CFM_DB_FOUND) all.push_back(e);
    return all;
  }
  // LTM from the peer: id 9, TTL 16, original MAC the peer, the given
  // target, egress identifier VID 100 + peer MAC, then `tail`.
  Bytes ltm(const uint8_t *dst, const uint8_t *target, uint8_t level = 2, uint8_t ttl = 16,
            Bytes tail = {0}) {
    Bytes body = cat(cat({0, 0, 0, 9, ttl}, mac(kPeer)), mac(target));
    body = cat(cat(body, cat({7, 0, 8, 0, 100}, mac(kPeer))), tail);
    return cfm_frame(dst, kPeer, level, 5, 0x80, 17, body);
  }
  uint32_t ltm_in(Bytes f, uint32_t vid = 100) {
    CfmPacket p = packet(f, 3, vid);
    return CFM_LTM_Process(&p, 1);
  }
  // LTR from the peer answering id `id`: reply TTL 63, `relay`, flags, TLVs.
  uint32_t ltr_in(uint32_t id, uint8_t relay, uint8_t flags, const Bytes &tlvs, const uint8_t *dst = kSelf) {
    Bytes body = cat({static_cast<uint8_t>(id >> 24), static_cast<uint8_t>(id >> 16), static_cast<uint8_t>(id >> 8),
                      static_cast<uint8_t>(id), 63, relay},
                     tlvs);
    Bytes f = cfm_frame(dst, kPeer, 2, 4, flags, 6, body);
    CfmPacket p = packet(f, 7, 100);
    return CFM_LTR_Process(&p);
  }
};

TEST_F(Linktrace, DownMepSendsTheLtmAndStoresThePlaceholder) {
  add_md(1, 2);
  add_mep(1, 1, 1, 1, 100, 1);
  add_mep(1, 1, 2, 1, 100, 2);  // an Up MEP on the same port does not stop a Down MEP
  LtmRequest r = request();
  r.flags = 1;
  r.vid = 0x1064;  // bit 12 of the VID leaks into the DEI bit
  ASSERT_EQ(CFM_LTM_Transmit(&r), 1);
  ASSERT_EQ(sent.size(), 1u);
  Bytes expect = cat(cat({0x01, 0x80, 0xC2, 0x00, 0x00, 0x3A}, mac(kSelf)),
                     {0x81, 0x00, 0xF0, 0x64, 0x89, 0x02, 0x40, 0x05, 0x80, 0x11, 0, 0, 0, 5, 64});
  expect = cat(cat(cat(expect, mac(kSelf)), mac(kPeer)), cat({7, 0, 8, 0x10, 0x64}, mac(kSelf)));
  ASSERT_EQ(expect.size(), 50u);
  expect.resize(64, 0);  // no End TLV: the padding stands in for it
  EXPECT_EQ(sent[0].frame, expect);
  std::vector<LtrEntry> all = replies();
  ASSERT_EQ(all.size(), 1u);
  LtrEntry zero = {};
  zero.md_id = zero.ma_id = zero.mep_id = 1;
  zero.sequence = 5;
  EXPECT_EQ(memcmp(&all[0], &zero, sizeof zero), 0);
}

TEST_F(Linktrace, UpMepIsRefusedAndAMipAnswersForItself) {
  add_md(1, 2);
  add_mep(1, 1, 1, 1, 100, 2);
  LtmRequest up = request(2);
  EXPECT_EQ(CFM_LTM_Transmit(&up), 0);
  EXPECT_TRUE(sent.empty());
  EXPECT_TRUE(replies().empty());

  clear_tables();
  MipEntry mip = {};
  mip.md_id = 3;  // a later MD still counts
  mip.ma_id = 1;
  mip.MipId = 4;
  mip.port = 1;
  CFM_Update_MIP_Entry(&mip);
  ASSERT_EQ(CFM_LTM_Transmit(&up), 1);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].frame[26], 63);  // TTL lowered by the MIP's hop
  std::vector<LtrEntry> all = replies();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[1].ReplyNumber, 1u);
  EXPECT_EQ(all[1].ttl, 63u);
  EXPECT_EQ(all[1].forward, 1u);
  Bytes egress = cat({0, 100}, mac(kSelf));
  EXPECT_EQ(Bytes(all[1].LastEgressId, all[1].LastEgressId + 8), egress);
  EXPECT_EQ(Bytes(all[1].NextEgressId, all[1].NextEgressId + 8), egress);
}

TEST_F(Linktrace, FullTableMakesRoomAndFailedSendKeepsThePlaceholder) {
  for (uint32_t i = 0; i < CFM_MAX_LTR; ++i) {
    LtrEntry e = {};
    e.md_id = 2;
    e.sequence = i;
    ASSERT_EQ(CFM_DB_Update_LtrEntry(&e), CFM_DB_FOUND);
  }
  tx_ok = false;
  testing::internal::CaptureStdout();
  LtmRequest r = request();
  EXPECT_EQ(CFM_LTM_Transmit(&r), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("\r\n Send CFM LTM packet failed!!"), std::string::npos);
  std::vector<LtrEntry> all = replies();
  ASSERT_EQ(all.size(), static_cast<size_t>(CFM_MAX_LTR));
  EXPECT_EQ(all[0].md_id, 1u);        // the placeholder
  EXPECT_EQ(all[1].sequence, 1u);     // the smallest old key was removed
  EXPECT_EQ(all[1].md_id, 2u);
  EXPECT_EQ(all[0].ReplyNumber, 0u);
}

TEST_F(Linktrace, ReplyCountersShareOneSlotPerIdModuloTen) {
  cfm_lt_reset_reply_counter(3);
  EXPECT_EQ(cfm_lt_next_reply_number(3), 1);
  EXPECT_EQ(cfm_lt_next_reply_number(13), 2);
  cfm_lt_reset_reply_counter(23);
  EXPECT_EQ(cfm_lt_next_reply_number(3), 1);
}

TEST_F(Linktrace, LtmAimedAtTheRouterGetsOneLtr) {
  add_md(1, 2);
  add_mep(1, 1, 1, 1, 100, 1);
  for (const uint8_t *dst : {kLtmGroup2, kSelf}) {
    sent.clear();
    ASSERT_EQ(ltm_in(ltm(dst, kSelf)), CFM_OK);
    ASSERT_EQ(sent.size(), 1u);
    // Flags: useFDBonly kept, TerminalMEP set; reply TTL 15; relay Hit;
    // egress identifiers: the LTM's, then VID 100 and this router; Reply
    // Ingress with action 1 and this router's MAC; End TLV.
    Bytes expect = cat(cat(mac(kPeer), mac(kSelf)), {0x81, 0x00, 0x60, 100, 0x89, 0x02, 0x40, 4, 0xA0, 6, 0, 0, 0, 9,
                                                     15, 1, 8, 0, 16, 0, 100});
    expect = cat(cat(cat(expect, mac(kPeer)), cat({0, 100}, mac(kSelf))), cat({5, 0, 7, 1}, mac(kSelf)));
    expect.push_back(0);
    expect.resize(64, 0);
    EXPECT_EQ(sent[0].frame, expect);
  }
  // "8023" frames: the 802.3 length and LLC/SNAP header are copied, the rest
  // moves 8 bytes on.
  setFrameType(CFM_FRAME_TYPE_8023);
  Bytes eth = ltm(kSelf, kSelf);
  Bytes f = cat(Bytes(eth.begin(), eth.begin() + 12), {0x00, 0x40, 0xAA, 0xAA, 0x03, 0x00, 0x00, 0x00});
  f = cat(f, Bytes(eth.begin() + 12, eth.end()));
  sent.clear();
  ASSERT_EQ(ltm_in(f), CFM_OK);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(Bytes(sent[0].frame.begin() + 16, sent[0].frame.begin() + 30),
            cat(Bytes(f.begin() + 12, f.begin() + 22), {0x40, 4, 0xA0, 6}));
  EXPECT_EQ(sent[0].frame[35], 1);  // relay action
}

TEST_F(Linktrace, LtmsThatGetNoAnswer) {
  add_md(1, 2);
  add_mep(1, 1, 1, 1, 100, 1);
  Bytes no_egress = cfm_frame(kLtmGroup2, kPeer, 2, 5, 0, 17,
                              cat(cat({0, 0, 0, 9, 16}, mac(kPeer)), cat(mac(kSelf), {1, 0, 0, 0})));
  Bytes egress_past_end = ltm(kLtmGroup2, kSelf, 2, 16, {});
  egress_past_end.pop_back();
  Bytes short_egress = ltm(kLtmGroup2, kSelf);
  short_egress[37] = 7;
  Bytes fixed_cut = ltm(kLtmGroup2, kSelf);
  fixed_cut.resize(34);
  Bytes group_orig = ltm(kLtmGroup2, kSelf);
  group_orig[23] |= 1;
  Bytes low_offset = ltm(kLtmGroup2, kSelf);
  low_offset[17] = 16;
  struct Case {
    const char *name;
    Bytes frame;
    uint32_t vid;
  } cases[] = {
      {"target elsewhere", ltm(kLtmGroup2, kStranger), 100},
      {"TTL 0", ltm(kLtmGroup2, kSelf, 2, 0), 100},
      {"another station's address", ltm(kStranger, kSelf), 100},
      {"group address of another level", ltm(kLtmGroup2, kSelf, 1), 100},
      {"no MEP at level 2", ltm(kLtmGroup2, kSelf), 200},
      {"no egress identifier", no_egress, 100},
      {"egress identifier past the end", egress_past_end, 100},
      {"egress identifier too short", short_egress, 100},
      {"fixed fields cut", fixed_cut, 100},
      {"group original MAC", group_orig, 100},
      {"first TLV offset below 17", low_offset, 100},
  };
  for (Case &c : cases) {
    ltm_in(c.frame, c.vid);
    EXPECT_TRUE(sent.empty()) << c.name;
    sent.clear();
  }
}

TEST_F(Linktrace, LtmOfAnUpperLevelWithoutMepCrossesToTheLan) {
  const uint8_t group5[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x3D};
  Bytes f = ltm(group5, kStranger, 5);
  ASSERT_EQ(ltm_in(f), CFM_OK);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].side, CfmTxSide::Lan);
  Bytes expect = cat(Bytes(f.begin(), f.begin() + 12), {0x81, 0x00, 0x60, 100});
  expect = cat(expect, Bytes(f.begin() + 12, f.end()));
  expect.resize(64, 0);
  EXPECT_EQ(sent[0].frame, expect);
}

TEST_F(Linktrace, LtrsAreRecordedAndNumbered) {
  add_md(1, 2);
  MepEntry mep = add_mep(1, 1, 1, 1, 100, 1);
  LtmRequest r = request();
  ASSERT_EQ(CFM_LTM_Transmit(&r), 1);
  const uint8_t ingress_mac[6] = {0x02, 0, 0, 0, 0, 0x11};
  Bytes egress_id = cat(cat({0, 100}, mac(kSelf)), cat({0, 100}, mac(kPeer)));
  Bytes tlvs = cat(cat({8, 0, 16}, egress_id), cat({5, 0, 15, 1}, mac(ingress_mac)));
  tlvs = cat(tlvs, {6, 7, 'e', 't', 'h', '0', '/', '1'});  // port ID cut to 3
  tlvs = cat(cat(tlvs, {6, 0, 7, 2}), cat(mac(kPeer), {0}));
  ASSERT_EQ(ltr_in(5, 1, 0x20, tlvs), CFM_OK);
  ASSERT_EQ(ltr_in(5, 2, 0x40, {0}), CFM_OK);
  ASSERT_EQ(ltr_in(5, 3, 0x40, {0}), CFM_OK);
  std::vector<LtrEntry> all = replies();
  ASSERT_EQ(all.size(), 3u);
  const LtrEntry &hit = all[0];  // replaced the placeholder
  EXPECT_EQ(hit.ReplyNumber, 0u);
  EXPECT_EQ(hit.ttl, 63u);
  EXPECT_EQ(hit.forward, 0u);
  EXPECT_EQ(hit.terminal, 1u);
  EXPECT_EQ(hit.relay, 1);
  EXPECT_EQ(Bytes(hit.LastEgressId, hit.LastEgressId + 8), Bytes(egress_id.begin(), egress_id.begin() + 8));
  EXPECT_EQ(Bytes(hit.NextEgressId, hit.NextEgressId + 8), Bytes(egress_id.begin() + 8, egress_id.end()));
  EXPECT_EQ(hit.ReplyIngressAction, 1);
  EXPECT_EQ(mac(hit.ReplyIngressMac), mac(ingress_mac));
  EXPECT_STREQ(hit.ReplyIngressPort, "eth");
  EXPECT_EQ(hit.ReplyEgressAction, 2);
  EXPECT_EQ(mac(hit.ReplyEgressMac), mac(kPeer));
  EXPECT_STREQ(hit.ReplyEgressPort, "");
  EXPECT_EQ(mac(hit.mac), mac(kPeer));
  EXPECT_EQ(all[1].ReplyNumber, 1u);
  EXPECT_EQ(all[1].relay, 2);
  EXPECT_EQ(all[1].forward, 1u);
  EXPECT_EQ(all[2].ReplyNumber, 2u);
  EXPECT_EQ(read_mep(mep).UnexpectedLtrIn, 0u);
}

TEST_F(Linktrace, UnexpectedAndMalformedLtrs) {
  add_md(1, 2);
  MepEntry mep = add_mep(1, 1, 1, 1, 100, 1);
  LtmRequest r = request();
  ASSERT_EQ(CFM_LTM_Transmit(&r), 1);
  EXPECT_EQ(ltr_in(6, 1, 0, {0}), CFM_ERR_FAILURE);
  EXPECT_EQ(read_mep(mep).UnexpectedLtrIn, 1u);

  const Bytes malformed[] = {
      {8, 0, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // egress identifier too short
      {5, 0, 6, 1, 0, 0, 0, 0, 0, 0},               // reply ingress too short
      {6, 0, 7, 1, 0, 0},                           // reply egress past the end
      {9, 0},                                       // header cut
  };
  for (const Bytes &tlvs : malformed) EXPECT_EQ(ltr_in(5, 1, 0, tlvs), CFM_ERR_FAILURE);
  EXPECT_EQ(ltr_in(5, 1, 0, {0}, kStranger), CFM_ERR_FAILURE);
  EXPECT_EQ(read_mep(mep).UnexpectedLtrIn, 1u);
  std::vector<LtrEntry> all = replies();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].relay, 0);  // still the placeholder
}

}  // namespace
