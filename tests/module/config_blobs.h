/*
 * Builders of the configuration blobs that the management plane writes to a
 * port (security, IPv4 discovery, IPv6 discovery, ignore list) and of their
 * white list entries, for the configuration and property tests.
 */
#ifndef CONFIG_BLOBS_H
#define CONFIG_BLOBS_H

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vigil_config.h"
#include "vigil_packet.h"
#include "vigil_whitelist.h"

namespace blobs {

using Bytes = std::vector<u8>;
using MacAddr = std::array<u8, 6>;
using Addr = std::array<u8, 16>;

inline MacAddr Mac(const char *text) {
   MacAddr mac{};
   unsigned v[6];
   EXPECT_EQ(sscanf(text, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4],
                    &v[5]),
             6)
      << text;
   for (int i = 0; i < 6; i++) {
      mac[i] = (u8)v[i];
   }
   return mac;
}

/* An IPv4 address in the first four bytes, the rest zero. */
inline Addr V4(const char *text) {
   Addr addr{};
   EXPECT_EQ(inet_pton(AF_INET, text, addr.data()), 1) << text;
   return addr;
}

inline Addr V6(const char *text) {
   Addr addr{};
   EXPECT_EQ(inet_pton(AF_INET6, text, addr.data()), 1) << text;
   return addr;
}

inline VigilWhiteListEntry Entry(u32 flags, const Addr &ip = Addr{}, u32 prefixLen = 0,
                                 u16 vlan = 0, const MacAddr &mac = MacAddr{}) {
   VigilWhiteListEntry entry;
   memset(&entry, 0, sizeof entry);
   entry.flags = flags;
   entry.vlan = vlan;
   memcpy(entry.mac, mac.data(), 6);
   memcpy(entry.ip, ip.data(), 16);
   entry.prefixLen = prefixLen;
   return entry;
}

inline Bytes EntryBytes(const VigilWhiteListEntry &entry) {
   const u8 *p = (const u8 *)&entry;
   return Bytes(p, p + sizeof entry);
}

inline void PutU32(Bytes &raw, size_t at, u32 value) {
   memcpy(&raw[at], &value, 4); /* host order, as the blobs are */
}

/* The address of supportedBpduFilterMacs[n]. */
inline MacAddr BpduMac(u32 n) {
   MacAddr mac;
   memcpy(mac.data(), supportedBpduFilterMacs[n], 6);
   return mac;
}

/* The security blob: the 32-byte header, then the switch list, the port list
 * and the BPDU exclusions.  The sizes in the header are those of the
 * vectors. */
struct Security {
   u32 features = 0;
   u32 rxBcast = 0;
   u32 txBcast = 0;
   u32 rxMcast = 0;
   u32 txMcast = 0;
   std::vector<VigilWhiteListEntry> switchList;
   std::vector<VigilWhiteListEntry> portList;
   std::vector<MacAddr> bpdu;

   Bytes Build() const {
      Bytes raw(VIGIL_SECURITY_HDR_LEN, 0);
      PutU32(raw, 0, features);
      PutU32(raw, 4, rxBcast);
      PutU32(raw, 8, txBcast);
      PutU32(raw, 12, rxMcast);
      PutU32(raw, 16, txMcast);
      PutU32(raw, 20, (u32)switchList.size());
      PutU32(raw, 24, (u32)portList.size());
      PutU32(raw, 28, (u32)bpdu.size());
      for (const VigilWhiteListEntry &e : switchList) {
         Bytes b = EntryBytes(e);
         raw.insert(raw.end(), b.begin(), b.end());
      }
      for (const VigilWhiteListEntry &e : portList) {
         Bytes b = EntryBytes(e);
         raw.insert(raw.end(), b.begin(), b.end());
      }
      for (const MacAddr &m : bpdu) {
         raw.insert(raw.end(), m.begin(), m.end());
      }
      return raw;
   }
};

/* The ignore list blob: a count, then the entries. */
inline Bytes IgnoreList(const std::vector<VigilWhiteListEntry> &entries) {
   Bytes raw(4, 0);
   PutU32(raw, 0, (u32)entries.size());
   for (const VigilWhiteListEntry &e : entries) {
      Bytes b = EntryBytes(e);
      raw.insert(raw.end(), b.begin(), b.end());
   }
   return raw;
}

/* The IPv6 discovery blob: ND, DHCPv6, the expiry in minutes, eight bytes
 * that are only counted. */
inline Bytes Discovery6(u8 nd, u8 dhcpv6, u32 expiryMinutes) {
   Bytes raw(14, 0);
   raw[0] = nd;
   raw[1] = dhcpv6;
   PutU32(raw, 2, expiryMinutes);
   return raw;
}

} // namespace blobs

#endif /* CONFIG_BLOBS_H */
