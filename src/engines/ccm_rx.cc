#include "engines/ccm_rx.h"

#include <cstring>

#include "core/global.h"
#include "core/os.h"
#include "core/status.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "db/rmep_db.h"
#include "engines/ccm_tx.h"
#include "engines/fng.h"
#include "io/frame.h"
#include "io/rx.h"

using namespace cfm;

namespace {

// What the demultiplexer and its helpers read from one received CCM. Every
// offset was checked against the received length before this is built.
struct ReceivedCcm {
  const uint8_t *frame;
  size_t length;
  uint8_t level;
  uint8_t flags;
  uint32_t sequence;
  uint16_t mep_id;         // the sender's MEPID
  const uint8_t *ma_name;  // short MA name bytes
  uint8_t ma_name_len;     // their number
  uint8_t port;            // receiving port
  uint16_t vid;            // receiving VID
};

// Set by the demultiplexer for one dispatch; only touched under MEP_SYC.
int g_same_level_pending = 0;
int g_lower_level_pending = 0;

bool g_ccm_init_done = false;
int g_ccm_sem = -1;

bool rdi_of(const ReceivedCcm &ccm) { return (ccm.flags & ccm::kRdiBit) != 0; }
uint8_t interval_of(const ReceivedCcm &ccm) { return ccm.flags & ccm::kIntervalMask; }

// True when the MA's name begins with the received short MA name.
bool ma_name_begins_with(const MaNetEntry &ma, const ReceivedCcm &ccm) {
  if (ccm.ma_name_len > sizeof ma.MaName) return false;
  return strncmp(ma.MaName, reinterpret_cast<const char *>(ccm.ma_name), ccm.ma_name_len) == 0;
}

bool ma_name_equals(const MaNetEntry &ma, const ReceivedCcm &ccm) {
  return strnlen(ma.MaName, sizeof ma.MaName) == ccm.ma_name_len && ma_name_begins_with(ma, ccm);
}

bool get_ma(uint32_t ma_id, MaNetEntry *ma) {
  memset(ma, 0, sizeof *ma);
  ma->MaIndex = ma_id;
  return CFM_Get_MA_Net_Entry(ma) == 1;
}

uint32_t loss_time_of(uint8_t interval) {
  uint32_t loss = 0;
  cfm_ccm_interval_lookup(interval, nullptr, &loss, nullptr);
  return loss;
}

// Reload of the defect timers: 3.5 periods of the MA's interval.
int32_t reload_of(const MaNetEntry &ma) {
  uint32_t period = 0;
  cfm_ccm_interval_lookup(ma.CcmInterval, &period, nullptr, nullptr);
  return static_cast<int32_t>(static_cast<double>(period) * 3.5);
}

// The fields of a remote record that come from the frame itself.
void fill_from_frame(RemoteMepEntry *remote, const ReceivedCcm &ccm) {
  remote->rmep_id = ccm.mep_id;
  remote->rmep_pad = 0;
  remote->ReceiveTime = CFM_OS_Get_SystemTime(CFM_TIME_SEC);
  remote->ReceiveTimeMs = CFM_OS_Get_Wall_Ms();
  remote->RdiReceived = rdi_of(ccm) ? 1 : 0;
  memcpy(remote->src_mac, ccm.frame + wire::kSrc, kMacLen);
  remote->SequenceNum = ccm.sequence;
  remote->AgeTime = static_cast<int32_t>(loss_time_of(interval_of(ccm)));
}

// The checks of a CCM at a MEP's own level. Returns false when it stored
// nothing (the MEP's MA is gone).
bool same_level_check(const ReceivedCcm &ccm, RemoteMepEntry *remote, MepEntry *mep) {
  RemoteMepEntry known;
  memset(&known, 0, sizeof known);
  known.md_id = mep->md_id;
  known.ma_id = mep->ma_id;
  known.rmep_id = ccm.mep_id;
  bool found = CFM_MEP_DB_Get_RemEntry(&known) == CFM_DB_FOUND;
  uint32_t last_sequence = found ? known.SequenceNum : 0;

  MaNetEntry ma;
  if (!get_ma(mep->ma_id, &ma)) return false;
  if (!ma_name_equals(ma, ccm)) {
    cfm_fault_xcon_ccm(*mep, interval_of(ccm));
    mep->XconCcmFlag = 1;
    CFM_Update_MEP_Entry(mep);
    return true;
  }
  // The MEP was read under MEP_SYC, which every deletion of a MEP takes as
  // well, so it still exists: only a CCM carrying its own MEPID is an error.
  if ((found && ccm.mep_id == mep->mep_id) || interval_of(ccm) != ma.CcmInterval) {
    cfm_fault_error_ccm(*mep, interval_of(ccm));
    mep->ErrorCcmFlag = 1;
    CFM_Update_MEP_Entry(mep);
    return true;
  }
  remote->md_id = mep->md_id;
  remote->ma_id = mep->ma_id;
  remote->mep_id = mep->mep_id;
  fill_from_frame(remote, ccm);
  // A repeated number is an error; a gap is not.
  if (found && ccm.sequence != 0 && last_sequence != 0 && ccm.sequence == last_sequence) {
    mep->CcmSequenceErrors += 1;
  }
  mep->CcmReceivedFlag = 1;
  CFM_Update_MEP_Entry(mep);
  mep_process_normal_frame(remote);
  cfm_fault_ccm_heard(*mep, *remote, interval_of(ccm));
  return true;
}

// Runs the same-level check or the lower-level action, as the demultiplexer
// asked. Returns false when it stored nothing.
bool per_mep_dispatch(const ReceivedCcm &ccm, RemoteMepEntry *remote, MepEntry *mep) {
  bool stored = false;
  if (g_same_level_pending == 1) {
    stored = same_level_check(ccm, remote, mep);
    g_same_level_pending = 0;
  } else if (g_lower_level_pending == 1) {
    cfm_fault_xcon_ccm(*mep, interval_of(ccm));
    mep->XconCcmFlag = 1;
    mep->CcmDefect = kDefectCrossConnect;
    CFM_Update_MEP_Entry(mep);
    g_lower_level_pending = 0;
    stored = true;
  }
  return stored;
}

void record_without_checks(const ReceivedCcm &ccm, RemoteMepEntry *remote, const MepEntry &mep) {
  remote->md_id = mep.md_id;
  remote->ma_id = mep.ma_id;
  fill_from_frame(remote, ccm);
  mep_process_normal_frame(remote);
}

struct Hits {
  int level = 0;
  int ma = 0;
  int direct = 0;
  int up = 0;
};

enum class Pending { SameLevel, LowerLevel };

// Whether one MEP takes the CCM for the MD and MA indexes (md_id, ma_id): a
// MEP of that MD and MA on the receiving VID, with a MEPID other than the
// sender's, takes it when it sits on the receiving port (a direct hit) or is
// an Up MEP on another port (an Up hit).
void offer_ccm(const ReceivedCcm &ccm, RemoteMepEntry *remote, MepEntry *mep, uint32_t md_id, uint32_t ma_id,
                 Pending pending, Hits *hits) {
  if (mep->md_id != md_id || mep->ma_id != ma_id || mep->vid != ccm.vid || mep->mep_id == ccm.mep_id) return;
  bool direct = mep->port == ccm.port;
  bool up = !direct && mep->direction == CFM_DIRECTION_UP;
  if (!direct && !up) return;
  if (pending == Pending::SameLevel) {
    g_same_level_pending = 1;
  } else {
    g_lower_level_pending = 1;
  }
  mep->CcmDefect = rdi_of(ccm) ? kDefectRdi : kDefectNone;
  // The defect is stored with whatever the dispatch stores; only when that
  // stores nothing is it stored on its own.
  if (!per_mep_dispatch(ccm, remote, mep)) CFM_Update_MEP_Entry(mep);
  if (direct) {
    hits->direct++;
  } else {
    hits->up++;
  }
}

// Walks the MEP table to its end from (md_id, ma_id, receiving port and VID),
// offering the CCM to each MEP. The buffer is left as the walk left it.
void walk_meps(const ReceivedCcm &ccm, RemoteMepEntry *remote, MepEntry *mep, uint32_t md_id, uint32_t ma_id,
               uint32_t owner_md, uint32_t owner_ma, Pending pending, Hits *hits, bool same_md_only) {
  memset(mep, 0, sizeof *mep);
  mep->md_id = md_id;
  mep->ma_id = ma_id;
  mep->port = ccm.port;
  mep->vid = ccm.vid;
  MepEntry next = *mep;
  while (CFM_GetNext_MEP_Entry(&next) == 1) {
    if (same_md_only && next.md_id != md_id) break;
    *mep = next;
    offer_ccm(ccm, remote, mep, owner_md, owner_ma, pending, hits);
    next = *mep;
  }
}

// Calls fn for the MD's first MA and every MA after it in the table.
template <typename Fn>
void walk_mas_from_first_of(uint32_t md_id, Fn fn) {
  MaNetEntry ma;
  memset(&ma, 0, sizeof ma);
  bool started = false;
  while (CFM_GetNext_MA_Net_Entry(&ma) == 1) {
    if (!started && ma.MdIndex != md_id) continue;
    started = true;
    if (!fn(ma)) return;
  }
}

void demultiplex(const ReceivedCcm &ccm, const CcmTlvRecord &tlvs) {
  RemoteMepEntry remote;
  memset(&remote, 0, sizeof remote);
  remote.PortStatus = tlvs.PortStatus;
  remote.InterfaceStatus = tlvs.InterfaceStatus;
  remote.port = ccm.port;
  remote.vlan_id = ccm.vid;
  Hits hits;
  MepEntry mep;

  // MDs of the received level.
  MdEntry md;
  memset(&md, 0, sizeof md);
  while (CFM_GetNext_MD_Entry(&md) == 1) {
    if (md.MdLevel != ccm.level || md.MhfCreation == CFM_MHF_CREATION_NONE) continue;
    hits.level++;
    walk_mas_from_first_of(md.MdIndex, [&](const MaNetEntry &ma) {
      if (!ma_name_begins_with(ma, ccm)) return true;
      hits.ma++;
      walk_meps(ccm, &remote, &mep, md.MdIndex, ma.MaIndex, md.MdIndex, ma.MaIndex, Pending::SameLevel, &hits,
                false);
      if (hits.direct == 0 && hits.up == 0) record_without_checks(ccm, &remote, mep);
      return true;
    });
  }

  if (hits.level == 0) {
    // A CCM from below the level of a local MD is a cross-connect for the
    // MEPs it reaches. The MA key of this path is all zero, so only MEPs
    // whose MD and MA indexes are both 0 take the action.
    memset(&md, 0, sizeof md);
    while (CFM_GetNext_MD_Entry(&md) == 1) {
      if (md.MdLevel <= ccm.level) continue;
      walk_meps(ccm, &remote, &mep, md.MdIndex, 0, 0, 0, Pending::LowerLevel, &hits, true);
    }
    return;
  }

  if (hits.ma == 0) {
    // The level is ours but no MA name matched: the MEPs of the other MAs
    // see a cross-connect.
    memset(&md, 0, sizeof md);
    while (CFM_GetNext_MD_Entry(&md) == 1 && md.MdLevel == ccm.level) {
      walk_mas_from_first_of(md.MdIndex, [&](const MaNetEntry &ma) {
        if (ma_name_begins_with(ma, ccm)) return false;
        walk_meps(ccm, &remote, &mep, md.MdIndex, ma.MaIndex, md.MdIndex, ma.MaIndex, Pending::SameLevel, &hits,
                  false);
        return true;
      });
    }
  }
}

// Checks the fixed fields and reads what the demultiplexer needs. False when
// the frame is not a CCM this receiver accepts.
bool parse_ccm(const CfmPacket &packet, ReceivedCcm *ccm) {
  const uint8_t *frame = packet.buffer;
  size_t length = packet.length;
  if (frame == nullptr || length < ccm::kRxFirstTlv) return false;
  uint8_t level_version = frame[ccm::kRxLevelVersion];
  uint8_t level = cfm_level(level_version);
  if (cfm_version(level_version) != 0) return false;
  if (static_cast<uint8_t>(frame[wire::kDst + kMacLen - 1] - kCcmGroupBase[kMacLen - 1]) != level) return false;
  if (frame[ccm::kRxFirstTlvOffset] != ccm::kFirstTlvOffset) return false;

  const uint8_t *maid = frame + ccm::kRxMaid;
  size_t n = maid[ccm::kMdNameLen];
  size_t ma_at = ccm::kRxMaid + ccm::kMdName + n;  // short MA name format
  if (ma_at + 2 > length) return false;
  size_t m = frame[ma_at + 1];
  if (ma_at + 2 + m > length) return false;

  ccm->frame = frame;
  ccm->length = length;
  ccm->level = level;
  ccm->flags = frame[ccm::kRxFlags];
  ccm->sequence = get_be32(frame + ccm::kRxSequence);
  ccm->mep_id = get_be16(frame + ccm::kRxMepId);
  ccm->ma_name = frame + ma_at + 2;
  ccm->ma_name_len = static_cast<uint8_t>(m);
  ccm->port = static_cast<uint8_t>(packet.rx_port);
  ccm->vid = static_cast<uint16_t>(packet.vid);
  return true;
}

// One time check over every MEP: the flag and timer fields it uses, the
// defect it raises, and what it does with flag 0 and an expired timer.
struct TimeCheck {
  uint32_t MepEntry::*flag;
  int32_t MepEntry::*timer;
  CfmCcmDefect defect;
};

void run_defect_check(const TimeCheck &check) {
  MepEntry mep;
  memset(&mep, 0, sizeof mep);
  while (CFM_GetNext_MEP_Entry(&mep) == 1) {
    uint32_t &flag = mep.*check.flag;
    int32_t &timer = mep.*check.timer;
    if (flag == 0 && timer <= 0) {
      timer = 0;
      mep.CcmDefect = kDefectNone;
    } else if (flag == 1 && timer <= 0) {
      flag = 0;
      MaNetEntry ma;
      if (get_ma(mep.ma_id, &ma)) timer = reload_of(ma);
      mep.CcmDefect = check.defect;
    } else if (flag == 1) {
      flag = 0;
      timer = cfm_ccm_count_down(timer);
      mep.CcmDefect = check.defect;
    } else {
      continue;
    }
    CFM_Update_MEP_Entry(&mep);
  }
}

// Hook for raising a fault alarm; this system has nothing to notify.
void fault_alarm_notify(const MepEntry &) {}

}  // namespace

uint32_t cfm_ccm_read_tlvs(const uint8_t *frame, size_t length, CcmTlvRecord *record, size_t start) {
  size_t pos = start;
  for (;;) {
    CfmTlv tlv;
    size_t next = 0;
    if (!cfm_tlv_read(frame, length, pos, &tlv, &next)) return CFM_ERR_TLV;
    if (tlv.type == kTlvEnd) return CFM_OK;
    if (tlv.type == kTlvPortStatus || tlv.type == kTlvInterfaceStatus) {
      if (tlv.length != 1) return CFM_ERR_TLV;
      // Every value is kept, known or not.
      if (tlv.type == kTlvPortStatus) {
        record->PortStatus = tlv.value[0];
      } else {
        record->InterfaceStatus = tlv.value[0];
      }
    }
    pos = next;
  }
}

uint32_t cfm_ccm_Init() {
  if (!g_ccm_init_done) {
    g_ccm_sem = CFM_OS_Create_Semaphore("cfm_ccm", 1, 1);
    cfm_mep_db_Init();
    g_ccm_init_done = true;
  }
  return CFM_OK;
}

void CFM_CCM_Process(CfmPacket *packet) {
  if (packet == nullptr) return;
  ReceivedCcm ccm;
  if (!parse_ccm(*packet, &ccm)) return;
  CcmTlvRecord tlvs;
  memset(&tlvs, 0, sizeof tlvs);
  if (cfm_ccm_read_tlvs(ccm.frame, ccm.length, &tlvs, ccm::kRxFirstTlv) != CFM_OK) return;
  MdEntry md;
  memset(&md, 0, sizeof md);
  if (CFM_GetNext_MD_Entry(&md) != 1) return;  // no MD: nothing can claim it
  demultiplex(ccm, tlvs);
  g_same_level_pending = 0;
  g_lower_level_pending = 0;
}

void cfm_ccm_xcon_check() { run_defect_check({&MepEntry::XconCcmFlag, &MepEntry::XconCcmTimer, kDefectCrossConnect}); }

void cfm_ccm_error_check() { run_defect_check({&MepEntry::ErrorCcmFlag, &MepEntry::ErrorCcmTimer, kDefectErrorCcm}); }

void cfm_ccm_loc_check() {
  MepEntry mep;
  memset(&mep, 0, sizeof mep);
  while (CFM_GetNext_MEP_Entry(&mep) == 1) {
    if (mep.CcmReceivedFlag == 0 && mep.RemoteCcmTimer <= 0) {
      mep.CcmDefect = kDefectRemoteCcm;
    } else if (mep.CcmReceivedFlag == 1) {
      mep.CcmReceivedFlag = 0;
      mep.CcmDefect = kDefectNone;
      if (mep.RemoteCcmTimer <= 0) {
        MaNetEntry ma;
        if (get_ma(mep.ma_id, &ma)) mep.RemoteCcmTimer = reload_of(ma);
      } else {
        mep.RemoteCcmTimer = cfm_ccm_count_down(mep.RemoteCcmTimer);
      }
    } else {
      continue;
    }
    CFM_Update_MEP_Entry(&mep);
  }
}

void cfm_ccm_fault_alarm_check() {
  cfm_fault_tick_begin();
  MepEntry mep;
  memset(&mep, 0, sizeof mep);
  while (CFM_GetNext_MEP_Entry(&mep) == 1) {
    cfm_fault_evaluate(mep);  // reads the MEP only; its own state is apart
    if (mep.CcmDefect == kDefectNone) {
      if (mep.FngTimer > 0) continue;
      mep.FngTimer = mep.FngAlarmTime * 10;
      mep.FngState = 1;
    } else if (mep.FngTimer != 0) {
      mep.CcmDefect = kDefectNone;
      mep.FngTimer = cfm_ccm_count_down(mep.FngTimer);
    } else {
      if (mep.CcmDefect >= mep.LowestAlarmPriority) fault_alarm_notify(mep);
      mep.CcmDefect = kDefectNone;
      mep.FngTimer = mep.FngResetTime * 10;
    }
    CFM_Update_MEP_Entry(&mep);
  }
  cfm_fault_tick_end();
}
