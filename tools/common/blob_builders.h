/*
 * The binary port properties that the management plane writes (security,
 * IPv4 discovery, IPv6 discovery, ignore list) and their white list
 * entries, as bytes.  vigilsim's blob commands and the module tests build
 * them here.  Numbers go into the blobs in host order, as the wire format
 * says.
 */
#ifndef VIGIL_BLOB_BUILDERS_H
#define VIGIL_BLOB_BUILDERS_H

#include <array>
#include <cstddef>
#include <vector>

#include "vigil_whitelist.h"

namespace blobs {

using Bytes = std::vector<u8>;
using MacAddr = std::array<u8, 6>;
using Addr = std::array<u8, 16>; /* an IPv4 address in the first four bytes */

VigilWhiteListEntry Entry(u32 flags, const Addr &ip = Addr{}, u32 prefixLen = 0, u16 vlan = 0,
                          const MacAddr &mac = MacAddr{});
Bytes EntryBytes(const VigilWhiteListEntry &entry);

/* Writes `value` at `at`, which must lie inside `raw`. */
void PutU32(Bytes &raw, size_t at, u32 value);

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

   Bytes Build() const;
};

/* The ignore list blob: a count, then the entries. */
Bytes IgnoreList(const std::vector<VigilWhiteListEntry> &entries);

/* The IPv4 discovery blob: ARP snooping, DHCP snooping. */
Bytes Discovery(u8 arp, u8 dhcp);

/* The IPv6 discovery blob: ND, DHCPv6, the expiry in minutes, eight bytes
 * that are only counted. */
Bytes Discovery6(u8 nd, u8 dhcpv6, u32 expiryMinutes);

} // namespace blobs

#endif /* VIGIL_BLOB_BUILDERS_H */
