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

  udp6   [--src MAC] [--dst MAC] [--sip IP6] [--dip IP6] [--hlim N]
         [--sport N] [--dport N] [--payload HEX]
      UDP over IPv6 (2001:db8::50 to 2001:db8::1), with its checksum.
  ns     [--src MAC] [--dst MAC] [--sip IP6] [--dip IP6] [--hlim N]
         [--target IP6] [--sll MAC|none]
      A neighbor solicitation from fe80::ff:fe00:10 for 2001:db8::1, to the
      target's solicited-node group, with a source link-layer option
      (none by default from ::).
  na     [--src MAC] [--dst MAC] [--sip IP6] [--dip IP6] [--hlim N]
         [--target IP6] [--router 0|1] [--solicited 0|1] [--override 0|1]
         [--tll MAC|none]
      A neighbor advertisement of 2001:db8::50 to ff02::1 (override set).
  ra     [--src MAC] [--dst MAC] [--sip IP6] [--dip IP6] [--hlim N]
         [--curhlim N] [--managed 0|1] [--other 0|1] [--lifetime N]
         [--reachable N] [--retrans N] [--sll MAC|none] [--prefix P/LEN|none]
         [--prefix-flags N] [--valid N] [--preferred N]
      A router advertisement sent by the VM, with 2001:db8::/64.
      udp6, ns, na, ra and dhcpv6 also take [--ext HDR+HDR...]: IPv6
      extension headers between the IPv6 header and the payload, in that
      order: hop (hop-by-hop options), dst (destination options), frag (an
      atomic fragment), frag-first (offset 0, more fragments), frag-later
      (offset 8); each eight bytes, a fragment's identification 0x1234.
  dhcpv6 TYPE [--src MAC] [--dst MAC] [--sip IP6] [--dip IP6] [--hlim N]
         [--sport N] [--dport N] [--xid N] [--client-id HEX|none]
         [--server-id HEX|none] [--ia 0|1] [--iaid N] [--t1 N] [--t2 N]
         [--addr IP6|none] [--preferred N] [--valid N] [--opt CODE=HEX ...]
      TYPE: solicit advertise request confirm renew rebind reply release
      decline reconfigure information-request, or a number.  Options:
      client id (DUID-LL of the VM), server id (DUID-LL of the server, for
      advertise, reply and reconfigure), IA_NA (with an address for the
      server types), then --opt.

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


VM_LL = "fe80::ff:fe00:10"
SERVER_LL = "fe80::ff:fe00:1"


def ip6(text):
    return ipaddress.IPv6Address(text).packed


EXT_HEADERS = {
    "hop": (0, bytes.fromhex("00010400000000")),  # PadN fills the eight bytes
    "dst": (60, bytes.fromhex("00010400000000")),
    "frag": (44, struct.pack("!BHI", 0, 0 << 3 | 0, 0x1234)),
    "frag-first": (44, struct.pack("!BHI", 0, 0 << 3 | 1, 0x1234)),
    "frag-later": (44, struct.pack("!BHI", 0, 1 << 3 | 0, 0x1234)),
}


def ext_chain(ext, nh):
    """The extension headers of --ext (words joined by '+') in front of a
    payload of protocol `nh`: the bytes and the first next header."""
    if not ext or ext == "none":
        return b"", nh
    chain = b""
    for word in reversed(ext.split("+")):
        if word not in EXT_HEADERS:
            raise SystemExit("--ext: %r is not hop, dst, frag, frag-first or frag-later" % word)
        proto, rest = EXT_HEADERS[word]
        chain = bytes([nh]) + rest + chain
        nh = proto
    return chain, nh


def ipv6_frame(dst, src, sip, dip, hlim, nh, l4, ext=None):
    """Ethernet and IPv6 around `l4`, whose checksum at `l4[csum_at]` is
    filled in by the caller through upper_checksum; `ext` puts extension
    headers in between."""
    chain, first = ext_chain(ext, nh)
    hdr = struct.pack("!IHBB16s16s", 0x60000000, len(chain) + len(l4), first, hlim, sip, dip)
    return eth(dst, src, 0x86DD) + [hdr.hex()] + ([chain.hex()] if chain else []) + [l4.hex()]


def upper_checksum(sip, dip, nh, l4):
    pseudo = sip + dip + struct.pack("!IxxxB", len(l4), nh)
    return checksum(pseudo + l4)


def with_checksum(sip, dip, nh, l4, at):
    c = upper_checksum(sip, dip, nh, l4)
    if nh == 17 and c == 0:
        c = 0xffff
    return l4[:at] + struct.pack("!H", c) + l4[at + 2:]


def cmd_udp6(a):
    sip, dip = ip6(a.sip), ip6(a.dip)
    payload = bytes.fromhex(a.payload)
    udp = struct.pack("!HHHH", a.sport, a.dport, 8 + len(payload), 0) + payload
    udp = with_checksum(sip, dip, 17, udp, 6)
    emit(ipv6_frame(mac(a.dst or SERVER_MAC), mac(a.src or VM_MAC), sip, dip, a.hlim, 17, udp,
                    a.ext), pad_to=60)


def nd_option(kind, value):
    return bytes([kind, (len(value) + 2) // 8]) + value


def icmp6_frame(a, dst_default, dip_default, body):
    sip, dip = ip6(a.sip), ip6(a.dip or dip_default)
    msg = with_checksum(sip, dip, 58, body, 2)
    emit(ipv6_frame(mac(a.dst or dst_default), mac(a.src or VM_MAC), sip, dip, a.hlim, 58, msg,
                    a.ext), pad_to=60)


def cmd_ns(a):
    target = ip6(a.target)
    group = ip6("ff02::1:ff00:0")[:13] + target[13:]
    sll = a.sll or ("none" if ip6(a.sip) == bytes(16) else (a.src or VM_MAC))
    body = struct.pack("!BBHI", 135, 0, 0, 0) + target
    if sll != "none":
        body += nd_option(1, mac(sll))
    icmp6_frame(a, "33:33:ff:" + ":".join("%02x" % b for b in target[13:]),
                str(ipaddress.IPv6Address(group)), body)


def cmd_na(a):
    flags = (a.router << 31) | (a.solicited << 30) | (a.override << 29)
    body = struct.pack("!BBHI", 136, 0, 0, flags) + ip6(a.target)
    tll = a.tll or (a.src or VM_MAC)
    if tll != "none":
        body += nd_option(2, mac(tll))
    icmp6_frame(a, "33:33:00:00:00:01", "ff02::1", body)


def cmd_ra(a):
    flags = (a.managed << 7) | (a.other << 6)
    body = struct.pack("!BBHBBHII", 134, 0, 0, a.curhlim, flags, a.lifetime, a.reachable,
                       a.retrans)
    sll = a.sll or (a.src or VM_MAC)
    if sll != "none":
        body += nd_option(1, mac(sll))
    if a.prefix != "none":
        net, _, plen = a.prefix.partition("/")
        body += nd_option(3, struct.pack("!BBIII", int(plen, 0), a.prefix_flags, a.valid,
                                         a.preferred, 0) + ip6(net))
    icmp6_frame(a, "33:33:00:00:00:01", "ff02::1", body)


DHCPV6_TYPES = {"solicit": 1, "advertise": 2, "request": 3, "confirm": 4, "renew": 5,
                "rebind": 6, "reply": 7, "release": 8, "decline": 9, "reconfigure": 10,
                "information-request": 11}


def cmd_dhcpv6(a):
    mtype = DHCPV6_TYPES.get(a.type)
    if mtype is None:
        mtype = num(a.type)
    server = mtype in (2, 7, 10)
    src = mac(a.src or (SERVER_MAC if server else VM_MAC))
    dst = mac(a.dst or (VM_MAC if server else "33:33:00:01:00:02"))
    sip = ip6(a.sip or (SERVER_LL if server else VM_LL))
    dip = ip6(a.dip or (VM_LL if server else "ff02::1:2"))
    sport = a.sport if a.sport is not None else (547 if server else 546)
    dport = a.dport if a.dport is not None else (546 if server else 547)

    def opt(code, value):
        return struct.pack("!HH", code, len(value)) + value

    body = struct.pack("!I", (mtype << 24) | (a.xid & 0xffffff))
    client_id = a.client_id or ("00030001" + VM_MAC.replace(":", ""))
    if client_id != "none":
        body += opt(1, bytes.fromhex(client_id))
    server_id = a.server_id or (("00030001" + SERVER_MAC.replace(":", "")) if server else "none")
    if server_id != "none":
        body += opt(2, bytes.fromhex(server_id))
    if a.ia:
        ia = struct.pack("!III", a.iaid, a.t1, a.t2)
        addr = a.addr or ("2001:db8::50" if server else "none")
        if addr != "none":
            ia += opt(5, ip6(addr) + struct.pack("!II", a.preferred, a.valid))
        body += opt(3, ia)
    for o in a.opt or []:
        code, _, val = o.partition("=")
        body += opt(num(code), bytes.fromhex(val))
    udp = struct.pack("!HHHH", sport, dport, 8 + len(body), 0) + body
    udp = with_checksum(sip, dip, 17, udp, 6)
    emit(ipv6_frame(dst, src, sip, dip, a.hlim, 17, udp, a.ext), pad_to=60)


PROTOS = {"udp4": 17, "tcp4": 6, "icmp4": 1}
POSITIONAL = {"dhcp": "type", "arp": "op", "dhcpv6": "type"}
FLAGS = {"no-type", "no-end", "no-pad"}


def spec_to_argv(spec):
    """The command line of a frame spec KIND:key=value,..."""
    kind, colon, rest = spec.partition(":")
    if not colon:
        raise SystemExit("bad frame spec %r: KIND:key=value,..." % spec)
    argv = [kind]
    positional = POSITIONAL.get(kind)
    if positional is not None:
        argv.append({"dhcp": "discover", "arp": "request", "dhcpv6": "solicit"}[kind])
    for item in rest.split(","):
        if not item:
            continue
        key, eq, value = item.partition("=")
        if not eq and key not in FLAGS:
            value = "1"
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

    u6 = sub.add_parser("udp6")
    u6.add_argument("--src")
    u6.add_argument("--dst")
    u6.add_argument("--sip", default="2001:db8::50")
    u6.add_argument("--dip", default="2001:db8::1")
    u6.add_argument("--hlim", type=num, default=64)
    u6.add_argument("--sport", type=num, default=40000)
    u6.add_argument("--dport", type=num, default=80)
    u6.add_argument("--payload", default="")
    u6.add_argument("--ext")
    u6.set_defaults(fn=cmd_udp6)

    for name, fn in (("ns", cmd_ns), ("na", cmd_na), ("ra", cmd_ra)):
        n = sub.add_parser(name)
        n.add_argument("--src")
        n.add_argument("--dst")
        n.add_argument("--sip", default=VM_LL)
        n.add_argument("--dip")
        n.add_argument("--hlim", type=num, default=255)
        if name == "ns":
            n.add_argument("--target", default="2001:db8::1")
            n.add_argument("--sll")
        elif name == "na":
            n.add_argument("--target", default="2001:db8::50")
            n.add_argument("--router", type=num, default=0)
            n.add_argument("--solicited", type=num, default=0)
            n.add_argument("--override", type=num, default=1)
            n.add_argument("--tll")
        else:
            n.add_argument("--curhlim", type=num, default=64)
            n.add_argument("--managed", type=num, default=0)
            n.add_argument("--other", type=num, default=0)
            n.add_argument("--lifetime", type=num, default=1800)
            n.add_argument("--reachable", type=num, default=0)
            n.add_argument("--retrans", type=num, default=0)
            n.add_argument("--sll")
            n.add_argument("--prefix", default="2001:db8::/64")
            n.add_argument("--prefix-flags", type=num, default=0xc0)
            n.add_argument("--valid", type=num, default=86400)
            n.add_argument("--preferred", type=num, default=14400)
        n.add_argument("--ext")
        n.set_defaults(fn=fn)

    d6 = sub.add_parser("dhcpv6")
    d6.add_argument("type")
    for opt in ("--src", "--dst", "--sip", "--dip", "--client-id", "--server-id", "--addr"):
        d6.add_argument(opt)
    d6.add_argument("--hlim", type=num, default=64)
    d6.add_argument("--sport", type=num)
    d6.add_argument("--dport", type=num)
    d6.add_argument("--xid", type=num, default=0x1001)
    d6.add_argument("--ia", type=num, default=1)
    d6.add_argument("--iaid", type=num, default=1)
    d6.add_argument("--t1", type=num, default=0)
    d6.add_argument("--t2", type=num, default=0)
    d6.add_argument("--preferred", type=num, default=3600)
    d6.add_argument("--valid", type=num, default=7200)
    d6.add_argument("--opt", action="append")
    d6.add_argument("--ext")
    d6.set_defaults(fn=cmd_dhcpv6)

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
