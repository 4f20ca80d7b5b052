#!/usr/bin/env python3
"""Writes the binary seed corpora of the fuzz targets into fuzz/corpus/.

Each seed is a small realistic input in the layout its target's header
comment describes (little-endian, as on the board). Run it from anywhere;
it rewrites the seeds it owns and leaves every other file (regression seeds
kept from findings, hand-written scenarios) alone.

    python3 fuzz/make_seeds.py
"""
import pathlib
import struct

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"


def u8(v):
    return struct.pack("<B", v)


def u16(v):
    return struct.pack("<H", v)


def u32(v):
    return struct.pack("<I", v)


def evtq():
    def put(kind, size, payload=b"\0"):
        return u8(0) + u32(kind) + u32(size) + payload

    get = u8(1)
    return {
        "power_on_off.bin": put(1, 1) + put(2, 1) + get + get,
        "unknown_type_huge_size.bin": put(0x12345678, 0xFFFFFFFF, b"\x07") + get + put(8, 0) + put(6, 1, b"\x01"),
        # An endpoint table takes the rest of the input (up to 64 bytes) as its payload.
        "lpc_reset_then_endpoint_table.bin": put(3, 1) + get + put(4, 0, bytes([2, 0x10, 0x11])),
    }


def delayed_purge():
    def park(eid, obj, event, key):
        return u8(0) + u8(eid) + u16(obj) + u16(event) + u32(key)

    def purge(eid, opcode=0x01030000):
        return u8(1) + u8(eid) + u32(opcode)

    def poke_delayed(index, count):
        return u8(2) + u8(index) + u32(count)

    def poke_ring(index, count):
        return u8(3) + u8(index) + u32(count)

    def fetch(index):
        return u8(4) + u8(index)

    return {
        "park_and_purge.bin": park(0x10, 1, 5, 0) + park(0x10, 3, 3, 4) + park(0x10, 2, 7, 1) + purge(0x10) + fetch(0),
        "counts_past_the_depth.bin": poke_delayed(0, 1000) + park(0x10, 1, 5, 0) + purge(0x10)
        + poke_ring(0, 0xFFFFFFFF) + poke_delayed(0, 385) + purge(0x10) + fetch(0),
        "pciessd_and_unregistered.bin": park(0xFF, 1, 1, 0) + park(0x30, 3, 3, 600) + park(0x22, 1, 1, 0)
        + purge(0x30) + purge(0xFE) + fetch(1),
    }


def pciessd():
    def header(glob, slot_index, eid, bay_index, status):
        return u32(glob) + u32(slot_index) + u8(eid) + u32(bay_index) + u16(status)

    def region20(slots):
        bp = bytearray(325)
        bp[2] = len(slots)
        bp[6] = 1  # presence sequence
        for n, (bay, slot) in enumerate(slots):
            bp[14 + 4 * n: 18 + 4 * n] = bytes([bay, slot, 1, 1])
            bp[142 + 4 * n: 146 + 4 * n] = bytes([bay, slot]) + u16(0x0001)
        return bytes(bp)

    def view(bay, count, eid):
        v = bytearray(1444)
        v[0] = bay + 1
        v[4 + 8 * bay: 12 + 8 * bay] = bytes([bay, 0, count, count, 0, 0, 1, 0x10])
        for s in range(count):
            at = 36 + 448 * bay + 14 * s
            v[at: at + 10] = bytes([bay, s, 0, s, 1, 0, 1, 1, 0, eid + s])
        return bytes(v)

    def region15(entries):
        d = bytearray(0x120)
        d[2:4] = u16(len(entries))
        for n, (pcie_slot, bay) in enumerate(entries):
            record = 0x100 + 4 * n
            d[4 + 8 * n: 12 + 8 * n] = bytes([pcie_slot, 3, 0, 0]) + u16(record) + b"\0\0"
            d[record: record + 4] = bytes([0, bay, 0, 0])
        return bytes(d)

    four = [(1, s) for s in range(4)]
    return {
        "one_bay_four_drives.bin": header(2, 2, 0x30, 1, 0x0003) + region20(four) + view(1, 4, 0x30) + region15([(5, 1)]),
        "two_extenders_no_match.bin": header(0, 0, 0x31, 2, 0) + region20(four) + view(1, 4, 0x30)
        + region15([(4, 0), (6, 2)]),
        "slot_past_the_tables.bin": header(0x1FF, 40, 0x30, 3, 0xFFFF) + region20([(2, s) for s in range(32)])
        + view(2, 32, 0x40) + region15([(7, 2)]),
    }


def pciessd_files():
    def files(flags, status, fru):
        return u8(flags) + u8(len(status)) + status + fru

    fru = bytes([1, 0, 1, 2]) + bytes(range(1, 29)) + b"NVMe SSD 3.2TB\0"
    return {
        "both_files.bin": files(3, b"3\n", fru),
        "status_only_long_line.bin": files(1, b"1234567890123\n", b""),
        "fru_too_long.bin": files(2, b"", bytes(300)),
        "status_symlink.bin": files(7, b"9\n", fru),
    }


def main():
    for target, seeds in (("evtq_fuzz", evtq()), ("delayed_purge_fuzz", delayed_purge()),
                          ("pciessd_fuzz", pciessd()), ("pciessd_files_fuzz", pciessd_files())):
        directory = CORPUS / target
        directory.mkdir(parents=True, exist_ok=True)
        for name, data in seeds.items():
            (directory / name).write_bytes(data)


if __name__ == "__main__":
    main()
