#!/usr/bin/env python3
"""Prints Ethernet frames as vigilsim BYTES (hex:...), for the scenario scripts.

The scripts under tests/scenarios carry the frames as hex; the comment above
each frame names the command of this helper that made it, so a frame can be
made again or changed without counting bytes by hand.  Layers are separated
by '.' in the output (vigilsim ignores the dots).

Commands (all addresses in their usual text form; numbers decimal or 0x):

  dhcp   TYPE [--src MAC] [--dst MAC] [--sip IP] [--dip IP] [--sport N]
         [--dport N] [--xid N] [--ciaddr IP] [--yiaddr IP] [--siaddr IP]
         [--giaddr IP] [--chaddr MAC] [--htype N] [--hlen N] [--cookie HEX]
         [--client-id HEX] [--lease N] [--lease-hex HEX] [--opt CODE=HEX ...]
         [--server-id IP|none] [--no-type] [--no-end] [--raw-opts HEX]
         [--no-pad] [--frag FLAGSOFF] [--ulen N]
      TYPE is a DHCP message type: discover offer request decline ack nak
      release inform, or a number.  Client types default to ports 68->67,
      source 0.0.0.0 and destination 255.255.255.255; server types (offer,
      ack, nak) to 67->68 from 192.0.2.1.  --lease is added to ack and offer
      by default (120) unless --lease -1.  Server types carry the server
      identifier (option 54) of their source address unless --server-id
      says another or none.  --raw-opts gives the option bytes
      behind the cookie as they are (no type, lease, server id or end is
      added); --no-pad leaves the message unpadded (it is padded with zeros
      to 300 bytes otherwise); --ulen writes that UDP length.
  arp    OP [--src MAC] [--dst MAC] [--sha MAC] [--spa IP] [--tha MAC]
         [--tpa IP] [--htype N] [--ptype N] [--hlen N] [--plen N] [--cut N]
  ipv4   [--src MAC] [--dst MAC] [--sip IP] [--dip IP] [--proto N]
         [--sport N] [--dport N] [--frag FLAGSOFF] [--payload HEX]
      An IPv4 frame; proto 17 adds a UDP header with the ports, 6 a TCP
      header, 1 an ICMP echo request.
  udp4, tcp4, icmp4   the same options but --proto
      ipv4 with proto 17, 6 or 1.
  l2     [--src MAC] [--dst MAC] [--type N] [--payload HEX]
      Any other frame: EtherType (or 802.3 length) and payload, padded to 60.
      Also called eth.
  bpdu   [--src MAC] [--dst MAC]
      A spanning tree configuration BPDU in an 802.3/LLC frame.

  spec KIND:key=value,...
      The frame of a vigilsim frame spec: KIND is a command above, each
      key=value its option --key VALUE (a flag alone or =1 for the flag,
      =0 to leave it out), type= and op= the TYPE of dhcp and OP of arp.
      vigilsim builds the same bytes from the same spec.
  tospec COMMAND ARGS...
      The frame spec of a command line, for example
      tospec dhcp ack --xid 0x1060 --lease 300  ->  dhcp:type=ack,xid=0x1060,lease=300

  pcap OUT N COMMAND ARGS...
      Writes N frames to the pcap file OUT, frame i (from 0) made by the
      command with each {EXPR} or {EXPR:SPEC} in ARGS replaced by the
      Python expression EXPR of i, formatted by SPEC: for example
      pcap out.pcap 3 arp request --spa 10.1.0.{i+1}

  refresh FILE ...
      Makes the frames of scenario scripts again: in each line that follows
      a comment "# frames.py ARGS", the first hex: token is replaced by the
      frame of ARGS, and the frame it replaced by the new one wherever else
      it stands in the file (repeats of the same frame).  Writing a comment
      and a placeholder "hex:?" under it is how a new frame is added.  A line
      that has a comment of its own only ever follows that comment.
"""
import argparse
import ipaddress
import re
import shlex
import struct
import sys

VM_MAC = "02:00:00:00:00:10"
SERVER_MAC = "02:00:00:00:00:01"
SERVER_IP = "192.0.2.1"

DHCP_TYPES = {"discover": 1, "offer": 2, "request": 3, "decline": 4, "ack": 5,
              "nak": 6, "release": 7, "inform": 8}


def num(text):
    return int(text, 0)


def mac(text):
    b = bytes(int(p, 16) for p in text.split(":"))
    if len(b) != 6:
        raise SystemExit("bad MAC " + text)
    return b


def ip4(text):
    return ipaddress.IPv4Address(text).packed


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xffff) + (s >> 16)
    return (~s) & 0xffff


def ipv4_header(sip, dip, proto, payload_len, flags_frag=0, ident=1, ttl=64):
    hdr = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + payload_len, ident,
                      flags_frag, ttl, proto, 0, sip, dip)
    return hdr[:10] + struct.pack("!H", checksum(hdr)) + hdr[12:]


def eth(dst, src, etype):
    return [dst.hex(), src.hex(), "%04x" % etype]


OUT = []


def emit(parts, pad_to=0):
    total = sum(len(p) // 2 for p in parts)
    if total < pad_to:
        parts = parts + ["00" * (pad_to - total)]
    OUT.append("hex:" + ".".join(p for p in parts if p))


def cmd_dhcp(a):
    mtype = DHCP_TYPES.get(a.type, None)
    if mtype is None:
        mtype = num(a.type)
    server = mtype in (2, 5, 6)
    src = mac(a.src or (SERVER_MAC if server else VM_MAC))
    dst = mac(a.dst or (VM_MAC if server else "ff:ff:ff:ff:ff:ff"))
    sip = ip4(a.sip or (SERVER_IP if server else "0.0.0.0"))
    dip = ip4(a.dip or ("192.0.2.50" if server else "255.255.255.255"))
    sport = a.sport if a.sport is not None else (67 if server else 68)
    dport = a.dport if a.dport is not None else (68 if server else 67)
    chaddr = mac(a.chaddr or VM_MAC)
    fixed = struct.pack("!BBBBIHH4s4s4s4s", 2 if server else 1, a.htype, a.hlen, 0,
                        a.xid, 0, 0, ip4(a.ciaddr), ip4(a.yiaddr), ip4(a.siaddr),
                        ip4(a.giaddr))
    fixed += chaddr + b"\0" * 10 + b"\0" * 64 + b"\0" * 128
    cookie = bytes.fromhex(a.cookie)
    opts = b""
    if not a.no_type:
        opts += bytes([53, 1, mtype])
    if a.client_id:
        cid = bytes.fromhex(a.client_id)
        opts += bytes([61, len(cid)]) + cid
    lease = a.lease
    if lease is None:
        lease = 120 if mtype in (2, 5) else -1
    if a.lease_hex is not None:
        lv = bytes.fromhex(a.lease_hex)
        opts += bytes([51, len(lv)]) + lv
    elif lease >= 0:
        opts += bytes([51, 4]) + struct.pack("!I", lease)
    server_id = a.server_id if a.server_id is not None else (a.sip or SERVER_IP) if server else "none"
    if server_id != "none":
        opts += bytes([54, 4]) + ip4(server_id)
    for o in a.opt or []:
        code, _, val = o.partition("=")
        v = bytes.fromhex(val)
        opts += bytes([num(code), len(v)]) + v
    if not a.no_end:
        opts += b"\xff"
    if a.raw_opts is not None:
        opts = bytes.fromhex(a.raw_opts)
    # Pad the options so that the UDP payload is at least 300 bytes, as
    # clients and servers do; a message must be 248 bytes past UDP at least.
    body = fixed + cookie + opts
    if len(body) < 300 and not a.no_pad:
        body += b"\0" * (300 - len(body))
    udp_len = a.ulen if a.ulen is not None else 8 + len(body)
    udp = struct.pack("!HHHH", sport, dport, udp_len, 0)
    ip = ipv4_header(sip, dip, 17, 8 + len(body), a.frag, ident=0)
    emit(eth(dst, src, 0x0800) + [ip.hex(), udp.hex(), fixed[:28].hex(),
         fixed[28:44].hex(), fixed[44:].hex(), cookie.hex(), opts.hex(),
         body[len(fixed) + len(cookie) + len(opts):].hex()])


def cmd_arp(a):
    ops = {"request": 1, "reply": 2}
    op = ops.get(a.op, None)
    if op is None:
        op = num(a.op)
    src = mac(a.src or VM_MAC)
    sha = mac(a.sha) if a.sha else src
    dst = mac(a.dst or ("ff:ff:ff:ff:ff:ff" if op == 1 else SERVER_MAC))
    tha = mac(a.tha or ("00:00:00:00:00:00" if op == 1 else SERVER_MAC))
    body = struct.pack("!HHBBH", a.htype, a.ptype, a.hlen, a.plen, op)
    body += sha + ip4(a.spa) + tha + ip4(a.tpa)
    if a.cut is not None:
        body = body[:a.cut]
        emit(eth(dst, src, 0x0806) + [body.hex()])
        return
    emit(eth(dst, src, 0x0806) + [body.hex()], pad_to=60)


def cmd_ipv4(a):
    if a.cmd in PROTOS:
        a.proto = PROTOS[a.cmd]
    src = mac(a.src or VM_MAC)
    dst = mac(a.dst or SERVER_MAC)
    payload = bytes.fromhex(a.payload)
    if a.proto == 17:
        l4 = struct.pack("!HHHH", a.sport, a.dport, 8 + len(payload), 0)
    elif a.proto == 6:
        l4 = struct.pack("!HHIIBBHHH", a.sport, a.dport, 1, 0, 0x50, 0x02, 1024, 0, 0)
    elif a.proto == 1:
        l4 = struct.pack("!BBHHH", 8, 0, 0, 0x1234, 1)
        l4 = l4[:2] + struct.pack("!H", checksum(l4 + payload)) + l4[4:]
    else:
        l4 = b""
    ip = ipv4_header(ip4(a.sip), ip4(a.dip), a.proto, len(l4) + len(payload), a.frag)
    emit(eth(dst, src, 0x0800) + [ip.hex(), l4.hex(), payload.hex()], pad_to=60)


def cmd_l2(a):
    src = mac(a.src or VM_MAC)
    dst = mac(a.dst or SERVER_MAC)
    emit(eth(dst, src, a.type) + [a.payload], pad_to=60)


def cmd_bpdu(a):
    src = mac(a.src or VM_MAC)
    dst = mac(a.dst or "01:80:c2:00:00:00")
    bpdu = bytes.fromhex("0000000000800002000000001000000000800002000000001080010000140002000f00")
    llc = bytes.fromhex("424203")
    emit(eth(dst, src, len(llc) + len(bpdu)) + [llc.hex(), bpdu.hex()], pad_to=60)


PROTOS = {"udp4": 17, "tcp4": 6, "icmp4": 1}
POSITIONAL = {"dhcp": "type", "arp": "op"}
FLAGS = {"no-type", "no-end", "no-pad"}


def spec_to_argv(spec):
    """The command line of a frame spec KIND:key=value,..."""
    kind, colon, rest = spec.partition(":")
    if not colon:
        raise SystemExit("bad frame spec %r: KIND:key=value,..." % spec)
    argv = [kind]
    positional = POSITIONAL.get(kind)
    if positional is not None:
        argv.append({"dhcp": "discover", "arp": "request"}[kind])
    for item in rest.split(","):
        if not item:
            continue
        key, eq, value = item.partition("=")
        if key == positional:
            argv[1] = value
        elif key in FLAGS:
            if not eq or value == "1":
                argv.append("--" + key)
            elif value != "0":
                raise SystemExit("bad frame spec %r: %s=0 or 1" % (spec, key))
        else:
            argv += ["--" + key, value]
    return argv


def argv_to_spec(argv):
    """The frame spec of a command line (the inverse of spec_to_argv)."""
    kind = "eth" if argv[0] == "l2" else argv[0]
    items = []
    rest = argv[1:]
    if kind in POSITIONAL:
        items.append("%s=%s" % (POSITIONAL[kind], rest[0]))
        rest = rest[1:]
    i = 0
    while i < len(rest):
        key = rest[i][2:]
        if key in FLAGS:
            items.append(key)
            i += 1
        else:
            items.append("%s=%s" % (key, rest[i + 1]))
            i += 2
    return kind + ":" + ",".join(items)


def build(argv):
    """The frame of one command line, as a hex: token."""
    del OUT[:]
    a = parser().parse_args(argv)
    a.fn(a)
    return OUT[0]


HEX_TOKEN = re.compile(r"hex:[^\s]*")
MARK = "# frames.py "


def refresh(path):
    with open(path) as f:
        lines = f.read().split("\n")
    renamed = {}
    governed = set()
    for i, line in enumerate(lines[:-1]):
        text = line.strip()
        if not text.startswith(MARK):
            continue
        new = build(shlex.split(text[len(MARK):]))
        m = HEX_TOKEN.search(lines[i + 1])
        if m is None:
            raise SystemExit("%s:%d: no hex: token under the frames.py comment" % (path, i + 2))
        old = m.group(0)
        if old != new and old != "hex:?":
            renamed[old] = new
        lines[i + 1] = lines[i + 1][:m.start()] + new + lines[i + 1][m.end():]
        governed.add(i + 1)
    # Repeats of a frame without a comment of their own follow it.
    for i, line in enumerate(lines):
        if i in governed or line.lstrip().startswith("#"):
            continue
        for old, new in renamed.items():
            line = re.sub(re.escape(old) + r"(?=\s|$)", new, line)
        lines[i] = line
    with open(path, "w") as f:
        f.write("\n".join(lines))


PLACEHOLDER = re.compile(r"\{([^{}:]+)(?::([^{}]+))?\}")


def write_pcap(out, count, argv):
    frames = []
    for i in range(count):
        args = [PLACEHOLDER.sub(lambda m: format(eval(m.group(1), {"i": i}), m.group(2) or ""), x)
                for x in argv]
        frames.append(bytes.fromhex(build(args)[4:].replace(".", "")))
    with open(out, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, 1))
        for n, frame in enumerate(frames):
            f.write(struct.pack("<IIII", n, 0, len(frame), len(frame)))
            f.write(frame)


def parser():
    p = argparse.ArgumentParser(description=__doc__,
                                formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = p.add_subparsers(dest="cmd", required=True)

    d = sub.add_parser("dhcp")
    d.add_argument("type")
    for opt in ("--src", "--dst", "--sip", "--dip", "--chaddr", "--client-id",
                "--lease-hex"):
        d.add_argument(opt)
    d.add_argument("--sport", type=num)
    d.add_argument("--dport", type=num)
    d.add_argument("--xid", type=num, default=0x1001)
    d.add_argument("--ciaddr", default="0.0.0.0")
    d.add_argument("--yiaddr", default="0.0.0.0")
    d.add_argument("--siaddr", default="0.0.0.0")
    d.add_argument("--giaddr", default="0.0.0.0")
    d.add_argument("--htype", type=num, default=1)
    d.add_argument("--hlen", type=num, default=6)
    d.add_argument("--cookie", default="63825363")
    d.add_argument("--lease", type=num)
    d.add_argument("--opt", action="append")
    d.add_argument("--no-type", action="store_true")
    d.add_argument("--no-end", action="store_true")
    d.add_argument("--raw-opts")
    d.add_argument("--no-pad", action="store_true")
    d.add_argument("--frag", type=num, default=0)
    d.add_argument("--ulen", type=num)
    d.add_argument("--server-id")
    d.set_defaults(fn=cmd_dhcp)

    r = sub.add_parser("arp")
    r.add_argument("op")
    for opt in ("--src", "--dst", "--sha", "--tha"):
        r.add_argument(opt)
    r.add_argument("--spa", default="192.0.2.50")
    r.add_argument("--tpa", default="192.0.2.1")
    r.add_argument("--htype", type=num, default=1)
    r.add_argument("--ptype", type=num, default=0x0800)
    r.add_argument("--hlen", type=num, default=6)
    r.add_argument("--plen", type=num, default=4)
    r.add_argument("--cut", type=num)
    r.set_defaults(fn=cmd_arp)

    for name in ("ipv4", "udp4", "tcp4", "icmp4"):
        i = sub.add_parser(name)
        i.add_argument("--src")
        i.add_argument("--dst")
        i.add_argument("--sip", default="192.0.2.50")
        i.add_argument("--dip", default="192.0.2.1")
        if name == "ipv4":
            i.add_argument("--proto", type=num, default=1)
        i.add_argument("--sport", type=num, default=40000)
        i.add_argument("--dport", type=num, default=80)
        i.add_argument("--frag", type=num, default=0)
        i.add_argument("--payload", default="")
        i.set_defaults(fn=cmd_ipv4)

    for name in ("l2", "eth"):
        l2 = sub.add_parser(name)
        l2.add_argument("--src")
        l2.add_argument("--dst")
        l2.add_argument("--type", type=num, default=0x88b5)
        l2.add_argument("--payload", default="")
        l2.set_defaults(fn=cmd_l2)

    b = sub.add_parser("bpdu")
    b.add_argument("--src")
    b.add_argument("--dst")
    b.set_defaults(fn=cmd_bpdu)
    return p


def main():
    if len(sys.argv) > 3 and sys.argv[1] == "pcap":
        write_pcap(sys.argv[2], int(sys.argv[3], 0), sys.argv[4:])
        return
    if len(sys.argv) == 3 and sys.argv[1] == "spec":
        print(build(spec_to_argv(sys.argv[2])))
        return
    if len(sys.argv) > 2 and sys.argv[1] == "tospec":
        argv = sys.argv[2:]
        build(argv)  # the command must be valid
        print(argv_to_spec(argv))
        return
    if len(sys.argv) > 1 and sys.argv[1] == "refresh":
        for path in sys.argv[2:]:
            refresh(path)
        return
    print(build(sys.argv[1:]))


if __name__ == "__main__":
    main()
