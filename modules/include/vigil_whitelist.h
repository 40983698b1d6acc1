/*
 * The 32-byte record of white lists and ignore lists.  It is a wire format:
 * configuration blobs carry it and the filter keeps it unchanged.
 */
#ifndef VIGIL_WHITELIST_H
#define VIGIL_WHITELIST_H

#include "vigil_types.h"

#define VIGIL_WL_IPV4 0x1u
#define VIGIL_WL_IPV6 0x2u
#define VIGIL_WL_VLAN 0x4u
#define VIGIL_WL_MAC 0x8u

struct VigilWhiteListEntry {
   u32 flags; /* which fields take part: VIGIL_WL_* */
   u16 vlan;
   u8 mac[6];
   u8 ip[16]; /* an IPv4 address takes the first 4 bytes */
   u32 prefixLen;
};
static_assert(sizeof(VigilWhiteListEntry) == 32, "white list entry is 32 bytes");
static_assert(offsetof(VigilWhiteListEntry, vlan) == 4, "vlan at 4");
static_assert(offsetof(VigilWhiteListEntry, mac) == 6, "mac at 6");
static_assert(offsetof(VigilWhiteListEntry, ip) == 12, "ip at 12");
static_assert(offsetof(VigilWhiteListEntry, prefixLen) == 28, "prefixLen at 28");

#endif /* VIGIL_WHITELIST_H */
