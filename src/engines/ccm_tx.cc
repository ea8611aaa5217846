#include "engines/ccm_tx.h"

#include <cstdio>
#include <cstring>

#include "core/global.h"
#include "core/os.h"
#include "core/status.h"
#include "db/rmep_db.h"
#include "engines/ccm_rx.h"
#include "io/tx.h"

using namespace cfm;

namespace {

struct IntervalRow {
  uint32_t period;
  uint32_t loss_time;
  uint32_t third;
};

// Indexed by interval code; codes 0 and above 7 use the one-second row.
constexpr IntervalRow kIntervals[] = {
    {1000, 3500, 3250},        // 0
    {0, 0, 0},                 // 1
    {10, 35, 33},              // 2
    {100, 350, 330},           // 3
    {1000, 3500, 3250},        // 4
    {10000, 35000, 32500},     // 5
    {60000, 210000, 195000},   // 6
    {600000, 2100000, 1950000} // 7
};
constexpr size_t kIntervalRows = sizeof kIntervals / sizeof kIntervals[0];

bool lookup_md(uint32_t md_id, MdEntry *md) {
  memset(md, 0, sizeof *md);
  md->MdIndex = md_id;
  return CFM_Get_MD_Entry(md) == 1;
}

bool lookup_ma(uint32_t ma_id, MaNetEntry *ma) {
  memset(ma, 0, sizeof *ma);
  ma->MaIndex = ma_id;
  return CFM_Get_MA_Net_Entry(ma) == 1;
}

}  // namespace

void cfm_ccm_interval_lookup(uint8_t code, uint32_t *period, uint32_t *loss_time, uint32_t *third) {
  const IntervalRow &row = code < kIntervalRows ? kIntervals[code] : kIntervals[0];
  if (period != nullptr) *period = row.period;
  if (loss_time != nullptr) *loss_time = row.loss_time;
  if (third != nullptr) *third = row.third;
}

size_t cfm_ccm_build(MepEntry *mep, uint8_t *frame) {
  memset(frame, 0, CFM_CCM_FRAME_LEN);
  uint8_t *pdu = frame + ccm::kTxPdu;
  memcpy(frame + wire::kDst, kCcmGroupBase, kMacLen);

  MdEntry md;
  MaNetEntry ma;
  if (lookup_md(mep->md_id, &md) && lookup_ma(mep->ma_id, &ma)) {
    frame[wire::kDst + kMacLen - 1] = static_cast<uint8_t>(frame[wire::kDst + kMacLen - 1] + md.MdLevel);
    pdu[0] = cfm_level_version(md.MdLevel);
    pdu[ccm::kFlags] = ma.CcmInterval & ccm::kIntervalMask;
    cfm_ccm_write_maid(pdu + ccm::kMaid, md, ma);
  }

  uint8_t mac[kMacLen];
  if (CFM_Get_System_Mac(mac) == CFM_OK) memcpy(frame + wire::kSrc, mac, kMacLen);

  put_be16(frame + wire::kTpid, kTpid8021Q);
  frame[wire::kTci] = tci_high(mep->CcmLtmPriority, mep->vid);
  frame[wire::kTci + 1] = tci_low(mep->vid);
  put_be16(frame + wire::kSingleTagEtherType, kCfmEtherType);

  pdu[1] = kOpCcm;
  if (mep->CcmDefect != kDefectNone) {
    pdu[ccm::kFlags] |= ccm::kRdiBit;
  } else {
    pdu[ccm::kFlags] &= static_cast<uint8_t>(~ccm::kRdiBit);
  }
  pdu[ccm::kFirstTlvOffsetField] = ccm::kFirstTlvOffset;
  mep->CcmSequenceNum += 1;
  put_be32(pdu + ccm::kSequence, mep->CcmSequenceNum);
  put_be16(pdu + ccm::kMepId, mep->mep_id);

  uint8_t *tlv = frame + ccm::kTxHeaderArea;
  memcpy(tlv, ccm::kSenderIdTlv, sizeof ccm::kSenderIdTlv);
  tlv += sizeof ccm::kSenderIdTlv;
  memcpy(tlv, ccm::kPortStatusTlv, sizeof ccm::kPortStatusTlv);
  tlv[sizeof ccm::kPortStatusTlv - 1] = CFM_Get_Port_Status(mep->port);
  tlv += sizeof ccm::kPortStatusTlv;
  memcpy(tlv, ccm::kInterfaceStatusTlv, sizeof ccm::kInterfaceStatusTlv);
  tlv[sizeof ccm::kInterfaceStatusTlv - 1] = CFM_Get_Interface_Status(mep->port);
  tlv += sizeof ccm::kInterfaceStatusTlv;
  *tlv = kTlvEnd;
  return CFM_CCM_FRAME_LEN;
}

void cfm_ccm_send(MepEntry *mep) {
  if (isCfmDebugOn()) puts("CFM: Prepare to send CCM");
  auto *frame = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(kTxBufferSize));
  if (frame == nullptr) return;  // skip this CCM; the next tick tries again
  memset(frame, 0, kTxBufferSize);
  size_t length = cfm_ccm_build(mep, frame);

  // Both directions send on both sides; an Up MEP only while its MA exists.
  bool send = false;
  if (mep->direction == CFM_DIRECTION_DOWN) {
    send = true;
  } else if (mep->direction == CFM_DIRECTION_UP) {
    MaNetEntry ma;
    send = lookup_ma(mep->ma_id, &ma);
  }
  if (send) {
    CFM_Send_Packet_To_WAN(frame, static_cast<uint32_t>(length), mep->CcmLtmPriority);
    CFM_Send_Packet_To_LAN(frame, static_cast<uint32_t>(length), mep->CcmLtmPriority);
  }
  CFM_OS_Deallocate_Memory(frame);
}

void cfm_ccm_transmit_check() {
  MepEntry mep;
  memset(&mep, 0, sizeof mep);
  while (CFM_GetNext_MEP_Entry(&mep) == 1) {
    if (mep.CciEnabled != 1) continue;  // countdown left as it is
    mep.CcmTxTimer = cfm_ccm_count_down(mep.CcmTxTimer);
    if (mep.CcmTxTimer <= 0) {
      MaNetEntry ma;
      if (lookup_ma(mep.ma_id, &ma)) {
        uint32_t period = 0;
        cfm_ccm_interval_lookup(ma.CcmInterval, &period, nullptr, nullptr);
        mep.CcmTxTimer = static_cast<int32_t>(period);
      }
      cfm_ccm_send(&mep);
    }
    CFM_Update_MEP_Entry(&mep);
  }
}

uint32_t CFM_CCM_TIME_CHECK() {
  cfm_ccm_transmit_check();
  cfm_ccm_xcon_check();
  cfm_ccm_error_check();
  cfm_ccm_loc_check();
  cfm_ccm_fault_alarm_check();
  return CFM_MEP_DB_Check_RemEntries_Age();
}
