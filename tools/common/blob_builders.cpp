#include "blob_builders.h"

#include <cstring>
#include <stdexcept>

#include "vigil_config.h"

namespace blobs {

namespace {

void Append(Bytes &raw, const Bytes &more) { raw.insert(raw.end(), more.begin(), more.end()); }

} // namespace

VigilWhiteListEntry Entry(u32 flags, const Addr &ip, u32 prefixLen, u16 vlan,
                          const MacAddr &mac) {
   VigilWhiteListEntry entry;
   memset(&entry, 0, sizeof entry);
   entry.flags = flags;
   entry.vlan = vlan;
   memcpy(entry.mac, mac.data(), 6);
   memcpy(entry.ip, ip.data(), 16);
   entry.prefixLen = prefixLen;
   return entry;
}

Bytes EntryBytes(const VigilWhiteListEntry &entry) {
   const u8 *p = reinterpret_cast<const u8 *>(&entry);
   return Bytes(p, p + sizeof entry);
}

void PutU32(Bytes &raw, size_t at, u32 value) {
   if (at > raw.size() || raw.size() - at < 4) throw std::out_of_range("PutU32 past the blob's end");
   memcpy(&raw[at], &value, 4);
}

Bytes Security::Build() const {
   Bytes raw(VIGIL_SECURITY_HDR_LEN, 0);
   PutU32(raw, 0, features);
   PutU32(raw, 4, rxBcast);
   PutU32(raw, 8, txBcast);
   PutU32(raw, 12, rxMcast);
   PutU32(raw, 16, txMcast);
   PutU32(raw, 20, static_cast<u32>(switchList.size()));
   PutU32(raw, 24, static_cast<u32>(portList.size()));
   PutU32(raw, 28, static_cast<u32>(bpdu.size()));
   for (const VigilWhiteListEntry &e : switchList) Append(raw, EntryBytes(e));
   for (const VigilWhiteListEntry &e : portList) Append(raw, EntryBytes(e));
   for (const MacAddr &m : bpdu) raw.insert(raw.end(), m.begin(), m.end());
   return raw;
}

Bytes IgnoreList(const std::vector<VigilWhiteListEntry> &entries) {
   Bytes raw(4, 0);
   PutU32(raw, 0, static_cast<u32>(entries.size()));
   for (const VigilWhiteListEntry &e : entries) Append(raw, EntryBytes(e));
   return raw;
}

Bytes Discovery(u8 arp, u8 dhcp) { return Bytes{arp, dhcp}; }

Bytes Discovery6(u8 nd, u8 dhcpv6, u32 expiryMinutes) {
   Bytes raw(14, 0);
   raw[0] = nd;
   raw[1] = dhcpv6;
   PutU32(raw, 2, expiryMinutes);
   return raw;
}

} // namespace blobs
