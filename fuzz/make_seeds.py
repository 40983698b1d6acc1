#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz harnesses (fuzz/corpus/<harness>/).

Frames come from the captures in examples/captures/ and from the frames of
the scenario scripts (tests/scenarios/*.vsim: tx, rx and the captures they
replay; frame specs are built by tests/scenarios/tools/frames.py), the
property blobs from what the scenarios' expected outputs show of the blobs
they wrote, and the saved states from the buffers their migrations carried.
Each seed is laid out as its harness reads it (see the comment at the top of
each fuzz/*_fuzz.cpp).  Run from the repository's top: python3
fuzz/make_seeds.py.
"""
import glob
import hashlib
import json
import os
import re
import shlex
import struct
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "scenarios", "tools"))
import frames  # noqa: E402

CORPUS = os.path.join(ROOT, "fuzz", "corpus")
MAX_SEED = 4096


def read_pcap(path):
    """The frames of a classic pcap file."""
    with open(path, "rb") as f:
        data = f.read()
    if len(data) < 24:
        return []
    magic = data[:4]
    if magic in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1"):
        endian = "<"
    elif magic in (b"\xa1\xb2\xc3\xd4", b"\xa1\xb2\x3c\x4d"):
        endian = ">"
    else:
        return []
    out, at = [], 24
    while at + 16 <= len(data):
        incl = struct.unpack(endian + "I", data[at + 8:at + 12])[0]
        out.append(data[at + 16:at + 16 + incl])
        at += 16 + incl
    return out


def hex_bytes(token):
    return bytes.fromhex(re.sub(r"[.:_\-]", "", token[4:]))


def spec_bytes(token):
    try:
        return hex_bytes(frames.build(frames.spec_to_argv(token)))
    except (SystemExit, Exception):
        return None


def script_frames(path):
    """(toVm, frame) of each frame a scenario script sends or replays."""
    out = []
    with open(path) as f:
        for line in f:
            try:
                words = shlex.split(line, comments=True)
            except ValueError:
                continue
            if len(words) < 3:
                continue
            if words[0] == "replay" and len(words) >= 4:
                pcap = os.path.join(ROOT, words[3])
                out += [(words[2] == "rx", b) for b in read_pcap(pcap)]
            elif words[0] in ("tx", "rx"):
                for token in words[2:]:
                    if token.startswith("hex:"):
                        b = hex_bytes(token)
                    elif re.match(r"^[a-z0-9]+:", token) and "=" not in token.split(":")[0]:
                        b = spec_bytes(token)
                    else:
                        continue
                    if b:
                        out.append((words[0] == "rx", b))
    return out


def write(harness, seed):
    seed = seed[:MAX_SEED]
    d = os.path.join(CORPUS, harness)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, hashlib.sha1(seed).hexdigest()), "wb") as f:
        f.write(seed)


def record(op, payload):
    return struct.pack("<BH", op, len(payload)) + payload


def untag(frame):
    """The frame without its 802.1Q tag, and whether it had one."""
    if len(frame) >= 18 and frame[12:14] == b"\x81\x00":
        return frame[:12] + frame[16:], True
    return frame, False


def udp_payload(frame):
    """(ip version, source port, destination port, payload) of a UDP frame."""
    frame, _ = untag(frame)
    etype = frame[12:14]
    if etype == b"\x08\x00" and len(frame) >= 34 and frame[23] == 17:
        ihl = (frame[14] & 15) * 4
        udp = frame[14 + ihl:]
        ver = 4
    elif etype == b"\x86\xdd" and len(frame) >= 62 and frame[20] == 17:
        udp = frame[54:]
        ver = 6
    else:
        return None
    if len(udp) < 8:
        return None
    sport, dport, ulen = struct.unpack(">HHH", udp[:6])
    end = ulen if 8 <= ulen <= len(udp) else len(udp)
    return ver, sport, dport, udp[8:end]


def packet_seeds(name, fs):
    configs = [
        struct.pack("<I4BBB", 0, 0, 0, 0, 0, 0x0f, 0),
        # Both wardens, BPDU filter, server blocks, RA guard, limits of 100,
        # a port list of 192.0.2.0/24.
        struct.pack("<I4BBB", 0x2965, 100, 100, 100, 100, 0x0f, 0x04)
        + struct.pack("<IH6s16sI", 1, 0, b"\0" * 6, bytes([192, 0, 2, 0]) + b"\0" * 12, 24),
    ]
    for config in configs:
        seed = config
        for to_vm, b in fs[:48]:
            seed += record(1 if to_vm else 0, b)
        write("packet_loop", seed)


def dhcp_seeds(fs):
    seed = b"\x04"
    for to_vm, b in fs:
        u = udp_payload(b)
        if u and u[0] == 4 and {u[1], u[2]} <= {67, 68}:
            seed += record(1 if u[1] == 67 else 0, u[3])
    if len(seed) > 1:
        write("dhcp", seed)


def dhcpv6_seeds(fs):
    seed = b"\x04"
    for to_vm, b in fs:
        u = udp_payload(b)
        if u and u[0] == 6 and {u[1], u[2]} <= {546, 547}:
            seed += record(1 if u[1] == 547 else 0, u[3])
    if len(seed) > 1:
        write("dhcpv6", seed)


def nd_source(ip):
    if ip == b"\0" * 16:
        return 0
    if ip[:2] == b"\xfe\x80":
        return 3 if ip[15] == 1 else 1
    return 2


def nd_seeds(fs):
    for selector in (0x02, 0x01):
        seed = bytes([selector])
        for to_vm, b in fs:
            b, tagged = untag(b)
            if b[12:14] != b"\x86\xdd" or len(b) < 54:
                continue
            nh, hlim, src = b[20], b[21], b[22:38]
            payload = b[54:]
            op = (1 if to_vm else 0) | (2 if tagged else 0) | (0 if hlim == 255 else 4)
            op |= nd_source(src) << 4
            if nh == 58 and payload[:1] and 133 <= payload[0] <= 137:
                seed += record(op, payload)
            elif nh not in (58, 17):
                seed += record(op | 8, bytes([nh]) + payload)
        if len(seed) > 1:
            write("nd", seed)


PROPS = {"enabled": 0, "discovery": 1, "discovery6": 2, "ignorelist": 3, "security": 4}


def property_seeds(expected):
    seed = b""
    with open(expected) as f:
        for line in f:
            try:
                j = json.loads(line)
            except ValueError:
                continue
            cmd = j.get("cmd", "")
            if cmd in PROPS and "blob" in j:
                seed += record(PROPS[cmd], bytes.fromhex(j["blob"]))
    if seed:
        write("property", seed + record(10, b""))


def restore_seeds(expected):
    with open(expected) as f:
        for line in f:
            try:
                j = json.loads(line)
            except ValueError:
                continue
            if j.get("cmd") == "migrate" and j.get("buffer"):
                buf = bytes.fromhex(j["buffer"])
                write("restore", struct.pack("<BI", 0, 0) + buf)
                write("restore", struct.pack("<BI", 1 | 4, 5000) + buf)


def restore_script_seeds(script):
    with open(script) as f:
        for line in f:
            words = line.split()
            if len(words) >= 3 and words[0] == "restore" and words[2].startswith("hex:"):
                write("restore", struct.pack("<BI", 0, 0) + hex_bytes(words[2]))


def key(switch=b"vs0", port=b"16"):
    return switch.ljust(48, b"\0") + port.ljust(64, b"\0")


def mgmt_seeds():
    # Callbacks in the interface's order: listVmi, getConfig, delVmi,
    # getStatsBatch, getWhiteList, getIgnoreList, getFilteredBpduMacs,
    # listV6Vmi, delExpiry.
    for index in (0, 1, 4, 5, 6, 7):
        write("mgmt", record(index, key()))
    binding = struct.pack("<H6sB16s", 0, bytes([2, 0, 0, 0, 0, 0x10]), 0,
                          bytes([192, 0, 2, 10]) + b"\0" * 12)
    write("mgmt", record(2, key() + struct.pack("<I", 2) + binding + b"\0" * 7)
          + record(0, key()))
    write("mgmt", record(2, key() + struct.pack("<I", 3) + struct.pack("<I", 0xf).ljust(25, b"\0")
                         + b"\0" * 7) + record(7, key()))
    write("mgmt", record(2, key() + struct.pack("<I", 1) + b"\0" * 32))
    stats = key() + key(port=b"32") + key(port=b"99") + b"\0" * (112 * 13) + b"\x03"
    write("mgmt", record(3, stats))
    write("mgmt", record(8, b"\x00") + record(0, key()) + record(8, b"\x01"))


def main():
    scripts = sorted(glob.glob(os.path.join(ROOT, "tests", "scenarios", "*.vsim")))
    captures = sorted(glob.glob(os.path.join(ROOT, "examples", "captures", "*.pcap")))
    sources = []
    for path in captures:
        name = os.path.basename(path)
        to_vm = "-rx" in name
        sources.append((name, [(to_vm, b) for b in read_pcap(path)]))
    for path in scripts:
        sources.append((os.path.basename(path), script_frames(path)))
    for name, fs in sources:
        if not fs:
            continue
        packet_seeds(name, fs)
        dhcp_seeds(fs)
        dhcpv6_seeds(fs)
        nd_seeds(fs)
    for path in sorted(glob.glob(os.path.join(ROOT, "tests", "scenarios", "*.expected"))):
        property_seeds(path)
        restore_seeds(path)
    for path in scripts:
        restore_script_seeds(path)
    mgmt_seeds()
    for h in sorted(os.listdir(CORPUS)):
        print("%-12s %d seeds" % (h, len(os.listdir(os.path.join(CORPUS, h)))))


if __name__ == "__main__":
    main()
