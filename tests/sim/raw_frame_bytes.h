/*
 * Small builders of raw frame bytes for tests of the simulated host's frames
 * and parser.  Every builder returns the header followed by its payload.
 */
#ifndef TESTS_SIM_RAW_FRAME_BYTES_H
#define TESTS_SIM_RAW_FRAME_BYTES_H

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace fb {

using Bytes = std::vector<uint8_t>;

inline void Put16(Bytes &b, uint16_t v) {
   b.push_back(static_cast<uint8_t>(v >> 8));
   b.push_back(static_cast<uint8_t>(v));
}

inline Bytes Cat(std::initializer_list<Bytes> parts) {
   Bytes out;
   for (const Bytes &p : parts) {
      out.insert(out.end(), p.begin(), p.end());
   }
   return out;
}

/* Payload bytes 0, 1, 2, ... */
inline Bytes Counting(size_t n, uint8_t start = 0) {
   Bytes b(n);
   for (size_t i = 0; i < n; i++) {
      b[i] = static_cast<uint8_t>(start + i);
   }
   return b;
}

inline Bytes Eth(uint16_t etherType, const Bytes &payload) {
   Bytes b = {0x02, 0, 0, 0, 0, 0x01, 0x02, 0, 0, 0, 0, 0x02};
   Put16(b, etherType);
   return Cat({b, payload});
}

/* Ethernet with one 802.1Q tag (priority 5 so that only the low 12 bits are
 * the VLAN id). */
inline Bytes EthTagged(uint16_t vlan, uint16_t etherType, const Bytes &payload) {
   Bytes b = {0x02, 0, 0, 0, 0, 0x01, 0x02, 0, 0, 0, 0, 0x02};
   Put16(b, 0x8100);
   Put16(b, static_cast<uint16_t>(0xa000 | vlan));
   Put16(b, etherType);
   return Cat({b, payload});
}

/* IPv4 with `options` (a multiple of 4 bytes), fragment offset in 8-byte
 * units. */
inline Bytes Ipv4(uint8_t proto, const Bytes &payload, const Bytes &options = {},
                  uint16_t fragOffset = 0, bool moreFragments = false) {
   const size_t hdrLen = 20 + options.size();
   Bytes b;
   b.push_back(static_cast<uint8_t>(0x40 | (hdrLen / 4)));
   b.push_back(0);
   Put16(b, static_cast<uint16_t>(hdrLen + payload.size()));
   Put16(b, 0x1234);
   Put16(b, static_cast<uint16_t>((moreFragments ? 0x2000 : 0) | fragOffset));
   b.push_back(64);
   b.push_back(proto);
   Put16(b, 0);
   b.insert(b.end(), {10, 0, 0, 1, 10, 0, 0, 2});
   return Cat({b, options, payload});
}

inline Bytes Ipv6(uint8_t nextHeader, const Bytes &payload) {
   Bytes b = {0x60, 0, 0, 0};
   Put16(b, static_cast<uint16_t>(payload.size()));
   b.push_back(nextHeader);
   b.push_back(64);
   Bytes addrs(32, 0);
   addrs[0] = addrs[16] = 0xfe;
   addrs[1] = addrs[17] = 0x80;
   addrs[15] = 1;
   addrs[31] = 2;
   return Cat({b, addrs, payload});
}

/* Hop-by-hop, routing or destination options header of (units+1)*8 bytes. */
inline Bytes Ext(uint8_t nextHeader, uint8_t units, const Bytes &payload) {
   Bytes b((units + 1u) * 8, 0);
   b[0] = nextHeader;
   b[1] = units;
   return Cat({b, payload});
}

/* Fragment header; offset in 8-byte units. */
inline Bytes Frag(uint8_t nextHeader, uint16_t offset, bool more,
                  const Bytes &payload) {
   Bytes b = {nextHeader, 0};
   Put16(b, static_cast<uint16_t>(offset << 3 | (more ? 1 : 0)));
   b.insert(b.end(), {0, 0, 0, 42});
   return Cat({b, payload});
}

inline Bytes Udp(const Bytes &payload) {
   Bytes b;
   Put16(b, 1000);
   Put16(b, 53);
   Put16(b, static_cast<uint16_t>(8 + payload.size()));
   Put16(b, 0);
   return Cat({b, payload});
}

/* TCP with a data offset of `words` 32-bit words (options zero-filled). */
inline Bytes Tcp(uint8_t words, const Bytes &payload) {
   Bytes b(words * 4u, 0);
   b[0] = 0x04;
   b[1] = 0x00;
   b[2] = 0x00;
   b[3] = 0x50;
   b[12] = static_cast<uint8_t>(words << 4);
   b[13] = 0x02;
   return Cat({b, payload});
}

inline Bytes Icmp6(const Bytes &payload) {
   Bytes b = {128, 0, 0, 0};
   return Cat({b, payload});
}

inline Bytes Arp() {
   Bytes b;
   Put16(b, 1);
   Put16(b, 0x0800);
   b.push_back(6);
   b.push_back(4);
   Put16(b, 1);
   b.insert(b.end(), {0x02, 0, 0, 0, 0, 0x02, 10, 0, 0, 1});
   b.insert(b.end(), {0, 0, 0, 0, 0, 0, 10, 0, 0, 2});
   return b;
}

inline Bytes Cut(Bytes b, size_t len) {
   b.resize(len);
   return b;
}

} // namespace fb

#endif /* TESTS_SIM_RAW_FRAME_BYTES_H */
