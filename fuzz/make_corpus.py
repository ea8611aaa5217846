#!/usr/bin/env python3
"""Writes the seed corpora in corpus/<target>/: valid frames of every opcode
for the world of fuzz_world.cc (router 02:aa:bb:cc:dd:ee, peer
02:11:22:33:44:55, MD n+1 "md" at level n with MA n+1 "ma" and MEP n+1 on VID
100), requests of every command, and a few mixed sequences. Run it from
fuzz/ after changing a seed; the files are kept in the tree."""
import os

SELF = bytes.fromhex("02aabbccddee")
PEER = bytes.fromhex("021122334455")
PEER_TEXT = "02:11:22:33:44:55"
LLC_SNAP = bytes.fromhex("aaaa03000000")


def be(value, size):
    return value.to_bytes(size, "big")


def frame(dst, level, opcode, flags, first_tlv, body, eth=True, inner_vid=None, vid=100):
    tags = bytes.fromhex("8100") + be(0xA000 | vid, 2)  # priority 5
    if inner_vid is not None:
        tags += bytes.fromhex("8100") + be(inner_vid, 2)
    header = bytes([level << 5, opcode, flags, first_tlv])
    if eth:
        return dst + PEER + tags + bytes.fromhex("8902") + header + body
    rest = LLC_SNAP + bytes.fromhex("8902") + header + body
    return dst + PEER + tags + be(len(rest), 2) + rest


def ccm(level, mep_id=9, seq=7, eth=True):
    maid = bytes([4, 2]) + b"md" + bytes([2, 2]) + b"ma"
    body = be(seq, 4) + be(mep_id, 2) + maid.ljust(48, b"\0") + bytes(16)
    body += bytes([2, 0, 1, 2, 4, 0, 1, 1, 0])  # port up, interface up, end
    return frame(group(0x30, level), level, 1, 4, 70, body, eth)


def group(base, level):  # the CCM (base 0x30) or LTM (0x38) group address of a level
    return bytes.fromhex("0180c20000") + bytes([base + level])


def lb(opcode, dst, level=2, trans=0, eth=True, inner_vid=None, data=b"data"):
    body = be(trans, 4) + bytes([1, 0, 4, 0, 0, 0, 0])  # sender ID, no chassis
    body += bytes([3]) + be(len(data), 2) + data + bytes([31, 0, 3, 0x0A, 0, 0, 0])
    return frame(dst, level, opcode, 0, 4, body, eth, inner_vid)


def ltm(level=2, eth=True, vid=100):
    body = be(1, 4) + bytes([64]) + PEER + SELF
    body += bytes([7, 0, 8, 0, 100]) + PEER + bytes([0])
    return frame(group(0x38, level), level, 5, 0x80, 17, body, eth, vid=vid)


def ltr(level=4, trans=1, eth=True):  # the LTM of the world had 1
    body = be(trans, 4) + bytes([63, 1])  # TTL, relay action Hit
    body += bytes([8, 0, 16]) + bytes(2) + SELF + bytes(2) + PEER
    body += bytes([5, 0, 12, 1]) + PEER + bytes([3, 5]) + b"abc"  # port ID: length, subtype, ID
    body += bytes([6, 0, 7, 1]) + PEER + bytes([0])
    return frame(SELF, level, 4, 0x20, 6, body, eth)


def dm(opcode, tx_f, rx_f=bytes(8), tx_b=bytes(8), dst=SELF):  # DMM/DMR of the level 4 MEP's delay session
    return frame(dst, 4, opcode, 0, 32, tx_f + rx_f + tx_b + bytes(8) + bytes([0]))


def sl(opcode, src_mep, rsp_mep, test, fcf, fcb):  # SLM/SLR; the session of the level 4 MEP has test 9
    return frame(SELF, 4, opcode, 0, 16, be(src_mep, 2) + be(rsp_mep, 2) + be(test, 4) + be(fcf, 4) + be(fcb, 4)
                 + bytes([0]))


# A station's DMR with RxTimeStampf all ones and TxTimeStampb 0: discarded as invalid.
DMR_FORGED = dm(46, be(1000001, 4) + bytes(4), b"\xff" * 8, bytes(8))


def write(target, name, data):
    os.makedirs(os.path.join("corpus", target), exist_ok=True)
    with open(os.path.join("corpus", target, name), "wb") as out:
        out.write(data)


ETH, IEEE8023, DEBUG = 0, 1, 2
frames = {
    "ccm": ccm(2),
    "lbm": lb(3, SELF),
    "lbm_double_tag": lb(3, SELF, inner_vid=7),
    "lbr": lb(2, SELF),
    "lbm_largest": lb(3, SELF, data=bytes(range(256)) * 5 + bytes(191)),  # 1514 bytes
    "ltm": ltm(),
    "ltm_relayed": ltm(level=5, vid=200),  # no MEP on VID 200
    "ltr": ltr(),
    "ccm_level7": ccm(7, mep_id=44),
    "dmm": dm(47, be(7, 4) + be(8, 4)),
    "dmr": dm(46, be(1000001, 4) + bytes(4), be(50, 4) + bytes(4), be(50, 4) + be(200, 4)),
    "dmr_forged": DMR_FORGED,
    "one_dm": frame(SELF, 4, 45, 0, 16, be(1000001, 4) + bytes(12) + bytes([0])),
    "slm": sl(55, 3, 0, 42, 1, 0),
    "slr": sl(54, 5, 3, 9, 1, 1),
}
for name, data in frames.items():
    write("frame", name, bytes([ETH]) + data)
write("frame", "ccm_debug", bytes([ETH | DEBUG]) + frames["ccm"])
write("frame", "ccm_8023", bytes([IEEE8023]) + ccm(2, eth=False))
write("frame", "lbm_8023_debug", bytes([IEEE8023 | DEBUG]) + lb(3, SELF, eth=False))
write("frame", "ltm_8023", bytes([IEEE8023]) + ltm(eth=False))
write("frame", "ltr_8023", bytes([IEEE8023]) + ltr(eth=False))

KEY = "1 md 1 mep 1 port 1 vid 100 dir"
requests = {
    "showmep": "showmep", "showmep_lb": "showmep 3", "showmep_lt": "showmep 2",
    "showmd": "showmd", "showma": "showma", "showremotemep": "showremotemep", "showltr": "showltr",
    "showdefault": "showdefault 1", "showstatus": "showdefault 2",
    "default": "default 3 x 2", "enable": "enable", "disable": "disable",
    "createmd": "createmd 9 x 3 x other 1 12 2 22 4 renamed",
    "configmd": "configmd 1 0 6 1 11 2 21 4 name",
    "deletemd": "deletemd 2",
    "createma": "createma 1 x 9 x ma9 1 13 3 30",
    "configma": "configma 1 x 1 3 31 2 other",
    "deletema": "deletema 8 x 8",
    "createmep": "createmep 1 md 1 mep 20 port 2 vid 200 dir 2",
    "configmep": f"configmep {KEY} 100 o 1 110 3 5 4 42 9 92 11 30 13 2 14 1 16 3 17 1 8 4",
    "configmep_lb": f"configmep {KEY} 100 o 5 51 7 3 6 {PEER_TEXT} 15 payload",
    "configmep_lt": f"configmep {KEY} 100 o 10 {PEER_TEXT} 11 8 12 121",
    "deletemep": f"deletemep {KEY} 1",
    "clearremotemep": "clearremotemep", "clearltr": "clearltr", "clearlbr": "clearlbr",
    "clearcnt": "clearcnt", "runtime": "runtime 7", "runtime_last": "runtime 22",
    "update_rmep": "update 1", "update_ltr": "update 2", "update_ccm": "update 3",
    "update_lbm": "update 4", "update_ltm": "update 5",
    "debugon": "debugon\n", "debugoff": "debugoff",
    "createmd_cut": "createmd 9 x 3 x " + "n" * 1100,  # longer than the server reads
}
for name, line in requests.items():
    write("request", name, line.encode())


def record(kind, payload):
    return bytes([kind]) + be(len(payload), 2) + payload


def req(line):
    return record(1, line.encode())


def ticks(count):
    return record(2, bytes([count - 1]))


write("mixed", "ccm_learn_age", record(0, ccm(2)) + ticks(2) + req("showremotemep") + ticks(8) + ticks(8))
write("mixed", "loopback", ticks(1) + record(0, lb(2, SELF, trans=1)) + ticks(3) + req("showmep 3") + req("update 4"))
write("mixed", "loopback_to_remote_mep", record(0, ccm(0)) + req("update 1")
      + req("configmep 1 md 1 mep 1 port 1 vid 100 dir 100 o 13 9 14 1 5 51 7 2") + ticks(2) + req("showmep 3"))
write("mixed", "linktrace", record(0, ltr()) + req("showltr") + req("update 2") + req("clearltr"))
write("mixed", "debug_8023", record(3, bytes([IEEE8023 | DEBUG])) + record(0, ccm(5, eth=False))
      + record(0, ltm(eth=False)) + ticks(4) + req("update 3"))
write("mixed", "reconfigure", req("deletemd 3") + record(0, lb(2, SELF, trans=1)) + req("createmep 1 md 1 mep 30 port 1 vid 100 dir 1")
      + record(0, lb(3, SELF, level=0)) + ticks(1) + req("showmep"))

# The LAN side, the configuration tree, the tag put back and the stale-set record.
LAN = 8
write("frame", "lan_ccm_forwarded", bytes([ETH | LAN]) + ccm(5))
write("frame", "lan_lbm_double_tag_dropped", bytes([ETH | LAN | DEBUG]) + lb(3, SELF, level=1, inner_vid=7))


def tree(op, text):  # op: 0 set, 1 delete, 2 row count, 3 get, 4 increment
    return record(5, bytes([op]) + text.encode())


def stripped(data, flags=1):  # as a packet socket delivers it: outer tag in the auxiliary data
    return record(6, bytes([flags]) + data[12:16] + data[:12] + data[16:])


write("mixed", "lan_relay", record(4, ccm(5)) + record(4, lb(3, SELF, level=1, inner_vid=7))
      + record(3, bytes([DEBUG])) + record(4, ltm(level=6)))
write("mixed", "tree_rows", tree(0, "cfm/lbr:1/transID=5") + tree(0, "cfm/lbr:2/src_mac=x") + tree(2, "cfm/lbr")
      + tree(3, "cfm/lbr:1/transID") + tree(4, "cfm/count") + tree(1, "cfm") + req("update 1") + req("update 4"))
write("mixed", "lbr_rows_cleared", ticks(1) + record(0, lb(2, SELF, trans=1)) + record(0, lb(2, SELF, trans=2))
      + req("update 4") + req("clearlbr") + req("clearcnt"))
write("mixed", "tag_put_back", stripped(ccm(2)) + stripped(lb(3, SELF), flags=3) + stripped(ltm(), flags=0))
write("mixed", "dmr_forged_twice", record(0, DMR_FORGED) + ticks(1) + record(0, DMR_FORGED) + req("pmshow")
      + req("pmshow json"))
write("mixed", "stale_record", record(7, b"1234 5:1700000000 6 7:-1\n") + record(7, b"0 5") + record(7, b"99999999999 1"))
