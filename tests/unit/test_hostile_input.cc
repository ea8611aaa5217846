// Hostile input through the real entry points: mutated and truncated frames
// of every dispatched opcode through classification and the engines, and
// random request lines through the command runner, with populated tables so
// the deep paths are reached. Every frame lives in a buffer of exactly its
// length, so under the sanitizer build any read past what was received
// aborts the test.
#include <memory>
#include <random>
#include <string>

#include "harness.h"
#include "io/frame.h"

namespace {

using namespace harness;

// A single-tagged frame (VID 100) at level 2 with the common header; the body follows.
Bytes seed(const Bytes &dst, uint8_t opcode, uint8_t first_tlv, const Bytes &body) {
  return cat({dst, mac(kPeer), {0x81, 0x00, 0xA0, 100, 0x89, 0x02, 0x40, opcode, 0, first_tlv}, body});
}

std::vector<Bytes> seeds() {
  Bytes ccm = seed({0x01, 0x80, 0xC2, 0x00, 0x00, 0x32}, cfm::kOpCcm, 70,
                   {0, 0, 0, 7, 0, 9, 4, 3, 'm', 'd', '1', 2, 3, 'm', 'a', '1'});
  ccm.resize(18 + 70, 0);
  ccm = cat({ccm, {2, 0, 1, 2, 4, 0, 1, 1, 0}});
  const Bytes lb = {0, 0, 0, 1, 1, 0, 4, 0, 0, 0, 0, 3, 0, 4, 'd', 'a', 't', 'a', 31, 0, 3, 0x0A, 0, 0, 0};
  std::vector<Bytes> all = {
      ccm, seed(mac(kSelf), cfm::kOpLbm, 4, lb), seed(mac(kSelf), cfm::kOpLbr, 4, lb),
      seed({0x01, 0x80, 0xC2, 0x00, 0x00, 0x3A}, cfm::kOpLtm, 17,
           cat({{0, 0, 0, 1, 64}, mac(kPeer), mac(kSelf), {7, 0, 8, 0, 100}, mac(kPeer), {0}})),
      seed(mac(kSelf), cfm::kOpLtr, 6,
           cat({{0, 0, 0, 1, 63, 1, 8, 0, 16}, Bytes(16, 0x22), {5, 0, 10, 1}, mac(kPeer),
                {3, 5, 'a', 'b', 'c', 6, 0, 7, 1}, mac(kPeer), {0}}))};
  for (size_t i = 0, single = all.size(); i < single; ++i) {  // the same behind a second tag
    all.push_back(cat({Bytes(all[i].begin(), all[i].begin() + 16), {0x81, 0x00, 0x20, 7},
                       Bytes(all[i].begin() + 16, all[i].end())}));
  }
  return all;
}

class HostileInput : public harness::EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    for (uint8_t level = 1; level <= 3; ++level) add_md(level, level);
    add_ma(2, 1, "ma1");
    for (uint32_t md = 1; md <= 3; ++md) {
      MepEntry mep = add_mep(md, 1, static_cast<uint16_t>(md), 1, 100, md == 3 ? 2 : 1);
      mep.CciEnabled = 1, mep.LbmRunning = 1, mep.LbmRemaining = 3, mep.LbmWaitTicks = 5;
      ASSERT_EQ(CFM_Update_MEP_Entry(&mep), 1);
      LtrEntry placeholder = {};
      placeholder.md_id = md, placeholder.ma_id = 1, placeholder.mep_id = static_cast<uint16_t>(md);
      placeholder.sequence = 1;
      ASSERT_EQ(CFM_DB_Update_LtrEntry(&placeholder), CFM_DB_FOUND);
    }
    seeds_ = seeds();
  }

  Bytes mutate(std::mt19937 &rng) {
    Bytes frame = seeds_[rng() % seeds_.size()];
    unsigned flips = rng() % 9;
    for (unsigned i = 0; i < flips; ++i) {
      size_t at = rng() % frame.size();
      // Length and offset fields are where parsers go wrong: favour extremes.
      frame[at] = (rng() % 3 == 0) ? static_cast<uint8_t>(rng() % 2 ? 0xFF : 0x00) : static_cast<uint8_t>(rng());
    }
    if (rng() % 2 == 0) frame.resize(rng() % (frame.size() + 1));
    return frame;
  }

  // Feeds one frame the way the receive task does, from a buffer that ends
  // exactly where the frame ends.
  static void receive(const Bytes &frame) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[frame.size()]);
    if (!frame.empty()) memcpy(exact.get(), frame.data(), frame.size());
    CfmPacket packet = {};
    if (cfm_classify_wan_frame(exact.get(), frame.size(), &packet) == CFM_OK) cfm_dispatch_packet(&packet);
  }

  static void expect_mep_table_ordered() {
    uint32_t walked = 0;
    for (MepEntry mep{}, previous{}; CFM_GetNext_MEP_Entry(&mep) == 1; previous = mep, ++walked) {
      EXPECT_TRUE(walked == 0 || cfm_mep_key_compare(&mep, &previous, nullptr) > 0);
    }
    EXPECT_EQ(walked, CFM_Get_TotalMepEntries());
    EXPECT_LE(walked, static_cast<uint32_t>(CFM_MAX_MEP));
  }

  std::vector<Bytes> seeds_;
};

TEST_F(HostileInput, MutatedFramesOfEveryOpcodeNeverReadPastTheirEnd) {
  std::mt19937 rng(20261122);
  stdout_of([&] {  // the engines' traces are dropped
    for (unsigned i = 0; i < 30000; ++i) {
      setFrameType(i % 7 == 0 ? CFM_FRAME_TYPE_8023 : CFM_FRAME_TYPE_ETH);
      cfm_debug_msg = (i % 97 == 0) ? 1 : 0;
      receive(mutate(rng));
      if (i % 500 == 0) {
        CFM_CCM_TIME_CHECK();
        CFM_LBI_XMIT_Check();
      }
    }
  });
  cfm_debug_msg = 0;
  setFrameType(CFM_FRAME_TYPE_ETH);
  EXPECT_LE(CFM_MEP_DB_RemEntry_Count(), static_cast<uint32_t>(CFM_MAX_REMOTE_MEP));
  EXPECT_LE(CFM_DB_Get_TotalLtrEntries(), static_cast<uint32_t>(CFM_MAX_LTR));
  expect_mep_table_ordered();
}

// Words a front end might send, and some it should not. Commands that sleep
// (update, clearltr, clearcnt) are left out to keep the run short; their
// argument handling is the same as the others'.
const char *const kWords[] = {
    "enable", "disable", "default", "showdefault", "createmd", "configmd", "showmd", "deletemd",
    "createma", "configma", "showma", "deletema", "createmep", "configmep", "showmep", "deletemep",
    "showremotemep", "clearremotemep", "showltr", "clearlbr", "runtime", "debugoff",
    "0", "1", "2", "3", "4", "5", "7", "8", "11", "12", "14", "21", "22", "29", "34", "41", "46", "51",
    "52", "91", "92", "100", "121", "122", "200", "8191", "65536", "4294967296", "0042", "-4", "12abc",
    "02:11:22:33:44:55", "zz:11", "ff:ff:ff:ff:ff:ff", "", "\n", "\xff\xfe", "name"};

std::string random_line(std::mt19937 &rng) {
  std::string line;
  unsigned words = 1 + rng() % 40;
  for (unsigned i = 0; i < words; ++i) {
    if (i > 0) line += std::string(1 + rng() % 2, ' ');
    if (rng() % 50 == 0) {
      line += std::string(rng() % 1500, static_cast<char>('a' + rng() % 26));
    } else {
      // The first word is a command most of the time, so the handlers run.
      size_t pick = (i == 0 && rng() % 8 != 0) ? rng() % 22 : rng() % (sizeof kWords / sizeof kWords[0]);
      line += kWords[pick];
    }
  }
  return line;
}

TEST_F(HostileInput, RandomRequestLinesLeaveTheTablesConsistent) {
  std::mt19937 rng(20261122);
  stdout_of([&] {
    for (unsigned i = 0; i < 5000; ++i) {
      cfm_cli_run_line(random_line(rng).c_str());
      if (i % 200 == 0) CFM_LBI_XMIT_Check();
    }
  });
  cfm_debug_msg = 0;
  expect_mep_table_ordered();
  for (MdEntry md{}, previous{}; CFM_GetNext_MD_Entry(&md) == 1; previous = md) {
    EXPECT_GT(md.MdIndex, previous.MdIndex);
    EXPECT_LT(md.MdLevel, 8);
  }
}

}  // namespace
