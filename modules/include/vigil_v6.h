/*
 * The IPv6 port database: the binding record, its table and the pending
 * DHCPv6 requests, as the rest of the module reaches them.
 */
#ifndef VIGIL_V6_H
#define VIGIL_V6_H

#include "oxa_hash_common.h"
#include "vigil_exports.h"
#include "vigil_filter.h"
#include "vigil_whitelist.h"

#define VIGIL_V6_HASH_BUCKETS 32u
#define VIGIL_V6_KEY_LEN 24u /* vlanId, mac, ip */
#define VIGIL_DHCPV6_CONFIRM 4u

/* One IPv6 binding.  Callers fill a zeroed record on their stack as a
 * template for VigilAddV6Vmi, which makes the heap copy. */
struct VigilV6Vmi {
   VigilListLinks expiryLinks;  /* in v6VmiList; null while expired */
   VigilListLinks expiredLinks; /* in v6ExpiredNdList; null otherwise */
   VigilListLinks hashLinks;
   u16 vlanId; /* key: VLAN, host order */
   u8 mac[6];  /* key: client MAC */
   u8 ip[16];  /* key: IPv6 address, network order */
   u8 discMethod;
   i64 expiryTs; /* uptime seconds */
   /* The DHCPv6 extension: all zero for an ND binding. */
   u32 iaId;              /* host order */
   u8 serverIp[16];       /* source of the reply that gave the lease */
   i32 validLifetime;     /* seconds, host order */
   u32 preferredLifetime; /* seconds, host order */
   u16 clientIdLen;
   u8 *clientId; /* heap copy owned by the record */
};
static_assert(offsetof(VigilV6Vmi, mac) == offsetof(VigilV6Vmi, vlanId) + 2, "key");
static_assert(offsetof(VigilV6Vmi, ip) == offsetof(VigilV6Vmi, vlanId) + 8, "key");

struct VigilV6VmiHash {
   OxaHashCommon common; /* followed by its 32 buckets */
};

/* One pending DHCPv6 request; the copies of its message and client id
 * follow the record in the same block. */
struct VigilDhcpV6Req {
   VigilListLinks reqLinks; /* in dhcpV6ReqList */
   u16 vlanId;
   u8 mac[6];
   u16 clientIdLen;
   u8 *clientId; /* inside this block */
   u8 *msg;      /* the message from its type byte on, inside this block */
   u16 msgLen;
   i64 expiryTs;
   u32 reqStatus;
   i32 retransTimeout;
};

#define VIGIL_V6VMI_FROM_EXPIRY(links) VIGIL_LIST_ENTRY(links, VigilV6Vmi, expiryLinks)
#define VIGIL_V6VMI_FROM_EXPIRED(links) VIGIL_LIST_ENTRY(links, VigilV6Vmi, expiredLinks)
#define VIGIL_V6VMI_FROM_HASH(links) VIGIL_LIST_ENTRY(links, VigilV6Vmi, hashLinks)
#define VIGIL_DHCPV6_REQ_FROM_LINKS(links)                                     \
   VIGIL_LIST_ENTRY(links, VigilDhcpV6Req, reqLinks)

/* The table.  Every operation but the allocation needs the write lock. */
VigilV6Vmi *VigilFindV6Vmi(VigilFilter *filter, const u8 key[VIGIL_V6_KEY_LEN]);
VIGIL_MUST_CHECK zek_Status VigilAddV6Vmi(VigilFilter *filter, const VigilV6Vmi *tmpl);
void VigilDelV6Vmi(VigilFilter *filter, VigilV6Vmi *vmi);
/* Deletes every non-static binding (all), or those of `count` 24-byte keys. */
void VigilClearV6Vmi(VigilFilter *filter, bool all, u32 count, const u8 *keys);
void VigilInsertIntoV6VmiList(VigilFilter *filter, VigilV6Vmi *vmi);
void VigilRefreshV6VmiExpiryTs(VigilFilter *filter, VigilV6Vmi *vmi, i64 expiryTs);
void VigilReduceNdEntries(VigilFilter *filter, u32 limit);
void VigilPortDbV6DoAging(VigilFilter *filter, i64 now);
void VigilPortDbV6TimeoutChange(VigilFilter *filter, i32 delta);

/* Expiry of the first running IPv6 binding and of the first pending DHCPv6
 * request; callers check the counts first. */
i64 VigilV6FirstExpiry(VigilFilter *filter);
i64 VigilDhcpV6FirstReqExpiry(VigilFilter *filter);

/* Of the ignore list: whether an entry of `list` covers the binding's key.
 * Discovery configuration (flush, ND life time) is in vigil_config.h. */
bool VigilMatchV6IgnoreList(const VigilWhiteListEntry *list, u32 count, u16 vlanId,
                            const u8 *mac, const u8 *ip);

/* Copies the IPv6 bindings of the methods in `mask` into `buffer`, going on
 * from *count when given; the caller holds the lock (see VigilQueryPortDb). */
void VigilQueryPortDbV6(VigilFilter *filter, void *buffer, u32 capacity, u32 *count,
                        u32 format, u8 mask);
/* The fields of an API entry, as the query writes them (bound 0). */
void VigilFillPortDbEntryV6(VigilPortDbEntry *entry, const VigilV6Vmi *vmi);

/* Of DHCPv6 request tracking. */
void VigilDelDhcpV6Req(VigilFilter *filter, VigilDhcpV6Req *req);
void VigilDhcpV6DelReqAddr(VigilFilter *filter, VigilDhcpV6Req *req);

/* Of the control-plane world: the added (0) or removed (1) message. */
void VigilPostPortDbV6Msg(VigilFilter *filter, u32 op, const VigilV6Vmi *vmi);

#endif /* VIGIL_V6_H */
