// Linktrace initiator and receive side driven in-process.
#include <cstddef>

#include "core/status.h"
#include "harness.h"
#include "engines/lt_receiver.h"

using namespace harness;

namespace {

const uint8_t kLtmGroup2[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x3A};
const uint8_t kStranger[6] = {0x02, 0x99, 0x99, 0x99, 0x99, 0x99};

class Linktrace : public EngineTest {
 protected:
  // MD 1 at level 2 with Down MEP 1 on port 1, VID 100.
  MepEntry down_mep() {
    add_md(1, 2);
    return add_mep(1, 1, 1, 1, 100, 1);
  }
  // Request of MEP 1 for the peer (kPeer): level 2, VID 100, priority 7,
  // transaction 5, TTL 64.
  LtmRequest request(uint8_t direction = 1) {
    return {1, 1, 1, 1, 100, direction, 7, 2, 0, 5, 64, {0x02, 0x11, 0x22, 0x33, 0x44, 0x55}};
  }
  std::vector<LtrEntry> replies() {
    std::vector<LtrEntry> all;
    for (LtrEntry e = {}; CFM_DB_GetNext_LtrEntry(&e) == CFM_DB_FOUND;) all.push_back(e);
    return all;
  }
  // LTM from the peer: id 9, TTL 16, original MAC the peer, the given
  // target, egress identifier VID 100 + peer MAC, then `tail`.
  Bytes ltm(const uint8_t *dst, const uint8_t *target, uint8_t level = 2, uint8_t ttl = 16, Bytes tail = {0}) {
    return cfm_frame(dst, kPeer, level, 5, 0x80, 17,
                     cat({{0, 0, 0, 9, ttl}, mac(kPeer), mac(target), {7, 0, 8, 0, 100}, mac(kPeer), tail}));
  }
  uint32_t ltm_in(Bytes f, uint32_t vid = 100) {
    CfmPacket p = packet(f, 3, vid);
    return CFM_LTM_Process(&p, 1);
  }
  // LTR from the peer answering id `id`: reply TTL 63, `relay`, flags, TLVs.
  uint32_t ltr_in(uint32_t id, uint8_t relay, uint8_t flags, const Bytes &tlvs) {
    Bytes f = cfm_frame(kSelf, kPeer, 2, 4, flags, 6, cat({be32(id), {63, relay}, tlvs}));
    CfmPacket p = packet(f, 7, 100);
    return CFM_LTR_Process(&p);
  }
};

TEST_F(Linktrace, DownMepSendsTheLtmAndStoresThePlaceholderInAFullTable) {
  for (uint32_t i = 0; i < CFM_MAX_LTR; ++i) {
    LtrEntry e = {};
    e.md_id = 2, e.sequence = i;
    ASSERT_EQ(CFM_DB_Update_LtrEntry(&e), CFM_DB_FOUND);
  }
  down_mep();
  LtmRequest r = request();
  r.flags = 1, r.vid = 0x1064;  // bit 12 of the VID leaks into the DEI bit
  ASSERT_EQ(CFM_LTM_Transmit(&r), 1);
  ASSERT_EQ(sent.size(), 1u);
  // No End TLV: the padding stands in for it.
  EXPECT_EQ(sent[0].frame, pad64(cat({mac(kLtmGroup2), mac(kSelf), {0x81, 0x00, 0xF0, 0x64, 0x89, 0x02, 0x40, 5, 0x80},
                                      {0x11, 0, 0, 0, 5, 64}, mac(kSelf), mac(kPeer), {7, 0, 8, 0x10, 0x64},
                                      mac(kSelf)})));
  std::vector<LtrEntry> all = replies();
  ASSERT_EQ(all.size(), static_cast<size_t>(CFM_MAX_LTR));
  // The placeholder, then the old rows without the smallest key.
  EXPECT_EQ(Bytes({uint8_t(all[0].md_id), uint8_t(all[1].md_id), uint8_t(all[1].sequence)}), Bytes({1, 2, 1}));
  tx_ok = false;
  EXPECT_EQ(CFM_LTM_Transmit(&r), 0);
}

TEST_F(Linktrace, UpMepIsRefusedAndAMipAnswersForItself) {
  add_md(1, 2);
  add_mep(1, 1, 1, 1, 100, 2);
  LtmRequest up = request(2);
  EXPECT_EQ(CFM_LTM_Transmit(&up), 0);
  EXPECT_EQ(sent.size() + replies().size(), 0u);

  clear_tables();
  MipEntry mip = {3, 1, 4, 1, 0};  // a later MD still counts
  CFM_Update_MIP_Entry(&mip);
  ASSERT_EQ(CFM_LTM_Transmit(&up), 1);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].frame[26], 63);  // TTL lowered by the MIP's hop
  std::vector<LtrEntry> all = replies();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(Bytes({uint8_t(all[1].ReplyNumber), uint8_t(all[1].ttl), uint8_t(all[1].forward)}), Bytes({1, 63, 1}));
}

TEST_F(Linktrace, LtmAimedAtTheRouterGetsOneLtr) {
  down_mep();
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(ltm_in(ltm(kLtmGroup2, kSelf)), CFM_OK); }), "");
  ASSERT_EQ(sent.size(), 1u);
  // Flags: useFDBonly kept, TerminalMEP set; reply TTL 15; relay Hit;
  // egress identifiers: the LTM's, then VID 100 and this router; Reply
  // Ingress with action 1 and this router's MAC; End TLV.
  EXPECT_EQ(sent[0].frame, pad64(cat({mac(kPeer), mac(kSelf),
                                      {0x81, 0x00, 0x60, 100, 0x89, 0x02, 0x40, 4, 0xA0, 6, 0, 0, 0, 9, 15, 1},
                                      {8, 0, 16, 0, 100}, mac(kPeer), {0, 100}, mac(kSelf), {5, 0, 7, 1}, mac(kSelf),
                                      {0}})));
}

TEST_F(Linktrace, LtmsThatGetNoAnswerAndAnUpperLevelOneCrossesToTheLan) {
  down_mep();
  // Target elsewhere, TTL 0, another station's address, the group address of
  // another level, egress identifier past the end, fixed fields cut, no
  // egress identifier.
  const Bytes good = ltm(kLtmGroup2, kSelf);
  std::vector<Bytes> cases = {ltm(kLtmGroup2, kStranger), ltm(kLtmGroup2, kSelf, 2, 0), ltm(kStranger, kSelf),
                              ltm(kLtmGroup2, kSelf, 1), slice(good, 0, 45), slice(good, 0, 34),
                              cfm_frame(kLtmGroup2, kPeer, 2, 5, 0, 17,
                                        cat({{0, 0, 0, 9, 16}, mac(kPeer), mac(kSelf), {1, 0, 0, 0}}))};
  // Egress identifier too short, group original MAC, first TLV offset 16,
  // version 1.
  for (auto [at, value] : {std::pair<size_t, uint8_t>{37, 7}, {23, 0x03}, {17, 16}, {14, 0x41}}) {
    cases.push_back(good);
    cases.back()[at] = value;
  }
  for (size_t i = 0; i < cases.size(); ++i) {
    ltm_in(cases[i]);
    EXPECT_TRUE(sent.empty()) << "case " << i;
  }
  ltm_in(good, 200);  // no MEP at level 2 on that VID
  EXPECT_TRUE(sent.empty());
  // Level 5 has no MEP: the LTM goes to the LAN, tagged.
  const uint8_t group5[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x3D};
  Bytes f = ltm(group5, kStranger, 5);
  ASSERT_EQ(ltm_in(f), CFM_OK);
  ASSERT_EQ(lan_.size(), 1u);
  EXPECT_EQ(lan_[0], pad64(cat({slice(f, 0, 12), {0x81, 0x00, 0x60, 100}, slice(f, 12, f.size())})));
}

TEST_F(Linktrace, LtrsAreRecordedAndNumberedOrRefused) {
  MepEntry mep = down_mep();
  LtmRequest r = request();  // transaction 5: the placeholder is stored
  ASSERT_EQ(CFM_LTM_Transmit(&r), 1);
  // Refused: another transaction (counted), malformed TLVs (egress identifier
  // too short, reply ingress too short, reply egress past the end, header
  // cut).
  EXPECT_EQ(ltr_in(6, 1, 0, {0}), CFM_ERR_FAILURE);
  const Bytes malformed[] = {
      {8, 0, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {5, 0, 6, 1, 0, 0, 0, 0, 0, 0}, {6, 0, 7, 1, 0, 0}, {9, 0}};
  for (const Bytes &tlvs : malformed) EXPECT_EQ(ltr_in(5, 1, 0, tlvs), CFM_ERR_FAILURE);

  Bytes last = cat({{0, 100}, mac(kSelf)}), next = cat({{0, 100}, mac(kPeer)});
  Bytes tlvs = cat({{8, 0, 16}, last, next, {5, 0, 15, 1, 0x02, 0, 0, 0, 0, 0x11},
                    {6, 7, 'e', 't', 'h', '0', '/', '1'}, {6, 0, 7, 2}, mac(kPeer), {0}});  // ingress port ID cut to 3
  ASSERT_EQ(ltr_in(5, 1, 0x20, tlvs), CFM_OK);
  ASSERT_EQ(ltr_in(5, 2, 0x40, {0}), CFM_OK);
  ASSERT_EQ(ltr_in(5, 3, 0x40, {}), CFM_OK);  // the fixed fields alone, no TLV
  std::vector<LtrEntry> all = replies();
  ASSERT_EQ(all.size(), 3u);
  // The Hit reply replaced the placeholder: every field, the port IDs cut.
  const LtrEntry hit = {1, 1, 1, 0, 5, 0, 63, 0, 1, {0, 100, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE},
                        {0, 100, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55}, 1, 1, {0x02, 0, 0, 0, 0, 0x11}, 2,
                        {0x02, 0x11, 0x22, 0x33, 0x44, 0x55}, {0x02, 0x11, 0x22, 0x33, 0x44, 0x55}, "eth", ""};
  EXPECT_EQ(memcmp(&all[0], &hit, offsetof(LtrEntry, ReplyEgressPort) + sizeof hit.ReplyEgressPort), 0);
  EXPECT_EQ(Bytes({uint8_t(all[1].ReplyNumber), all[1].relay, uint8_t(all[1].forward), uint8_t(all[2].ReplyNumber)}),
            Bytes({1, 2, 1, 2}));
  // With its Hit row gone (a full table drops it first) the transaction is
  // still expected through its other replies, and only it (the next row of
  // an earlier one is not its own).
  ASSERT_EQ(CFM_DB_Del_LtrEntry(&all[0]), CFM_DB_FOUND);
  EXPECT_EQ(ltr_in(5, 2, 0x40, {0}), CFM_OK);
  EXPECT_EQ(ltr_in(4, 2, 0x40, {0}), CFM_ERR_FAILURE);
  EXPECT_EQ(read_mep(mep).UnexpectedLtrIn, 2u);
}

}  // namespace
