/*
 * The IPv4 port database: one VigilVmi per (VLAN, MAC, IPv4) binding, found
 * through the filter's hash and aged through two expiry-ordered lists.
 */
#ifndef VIGIL_VMI_H
#define VIGIL_VMI_H

#include "oxa_hash_common.h"
#include "vigil_exports.h"
#include "vigil_filter.h"

#define VIGIL_VMI_HASH_BUCKETS (1u << 9)
#define VIGIL_VMI_KEY_LEN 12
#define VIGIL_PORTDB_DHCP_ENTRIES 128u
#define VIGIL_PORTDB_V4_SIZE 384u

/* Message kinds of VigilPostPortDbMsg. */
#define VIGIL_PORTDB_MSG_ADDED 0u
#define VIGIL_PORTDB_MSG_REMOVED 1u

struct VigilVmi {
   VigilListLinks hashLinks;
   VigilListLinks expiryLinks;  /* in vmiList; null while expired */
   VigilListLinks expiredLinks; /* in expiredVmiList; null otherwise */
   u16 vlanId;                  /* key: VLAN, host order */
   u8 mac[6];                   /* key: source MAC */
   u32 ip;                      /* key: IPv4 address, network order */
   u8 discMethod;
   i64 expiryTs; /* uptime seconds at which the binding ends; 0 if static */
   u8 clientMac[6];
   u8 clientIdLen;
   u8 *clientIdStr; /* heap copy owned by the record */
   u32 serverIp;    /* network order */
   u32 leaseTime;   /* seconds, host order */
   u8 gratuitous;
};
static_assert(offsetof(VigilVmi, mac) == offsetof(VigilVmi, vlanId) + 2, "key");
static_assert(offsetof(VigilVmi, ip) == offsetof(VigilVmi, vlanId) + 8, "key");

struct VigilVmiHash {
   OxaHashCommon common; /* followed by its 512 buckets */
};

bool GetDeleteExpiry(void);
void SetDeleteExpiry(i8 value);

VIGIL_MUST_CHECK zek_Status VigilVmiHashAlloc(VigilVmiHash **hash);
VigilVmi *VigilFindVmi(VigilFilter *filter, u16 vlanId, const u8 *mac, u32 ip);
VIGIL_MUST_CHECK zek_Status VigilAddVmi(VigilFilter *filter, VigilVmi *vmi);
void VigilDelVmi(VigilFilter *filter, VigilVmi *vmi);
void VigilInsertIntoVmiList(VigilFilter *filter, VigilVmi *vmi);
void VigilRefreshVmiExpiryTs(VigilFilter *filter, VigilVmi *vmi, i64 expiryTs);
void VigilReduceArpEntries(VigilFilter *filter, u32 target);
bool VigilMatchV4IgnoreList(VigilFilter *filter, u16 vlanId, const u8 *mac,
                            u32 ip);

/* Aging, life time changes and flushes. */
void VigilPortDbDoAging(VigilFilter *filter, i64 now);
void VigilPortDbTimeoutChange(VigilFilter *filter, i32 delta);
VIGIL_MUST_CHECK zek_Status VigilConfigArpExpiry(VigilFilter *filter, u32 minutes);
void VigilDelVmiByDiscMethod(VigilFilter *filter, u32 mask);
VIGIL_MUST_CHECK zek_Status VigilConfigL3(VigilFilter *filter, const u32 *newBits, bool flush);
void VigilIgnoreListDelPortDb(VigilFilter *filter);

/* The key of an IPv4 binding, in the layout of the record's key fields. */
struct VigilVmiKey {
   u16 vlanId; /* host order */
   u8 mac[6];
   u32 ip; /* network order */
};
static_assert(sizeof(VigilVmiKey) == VIGIL_VMI_KEY_LEN, "12-byte key");

/* Record formats of a query. */
#define VIGIL_QUERY_FORMAT_RECORD 0u /* the whole record, for this module only */
#define VIGIL_QUERY_FORMAT_ENTRY 1u  /* VigilPortDbEntry */
#define VIGIL_QUERY_FORMAT_KEY 2u    /* VigilVmiKey, IPv4 only */

/* Queries and deletions of the port database; the caller holds the lock. */
void VigilQueryPortDb(VigilFilter *filter, void *buffer, u32 capacity, u32 *count,
                      u32 format, u8 mask);
void VigilClearVmi(VigilFilter *filter, bool all, u32 count, const VigilVmiKey *keys);
VIGIL_MUST_CHECK zek_Status Vigil_RestoreVMIEntryList(VigilFilter *filter,
                                                      VigilListLinks *list);
/* The fields of an API entry, as the query writes them. */
void VigilFillPortDbEntry(VigilPortDbEntry *entry, const VigilVmi *vmi);

/* Of the background workers. */
void VigilUpdateFilterAging(VigilFilter *filter);
void VigilPostPortDbMsg(VigilFilter *filter, u32 op, VigilVmi *vmi);

/* Checks the table, lists and counters of a filter's IPv4 database; calls
 * `report` with a text for every broken invariant and returns their count. */
u32 VigilCheckVmiTable(VigilFilter *filter, VigilViolationFn report, void *ctx);
/* The same of its IPv6 database: the bindings, their hash and lists, and
 * the pending DHCPv6 requests. */
u32 VigilCheckV6PortDb(VigilFilter *filter, VigilViolationFn report, void *ctx);
/* VigilCheckFilterTables, of all tables of a filter, is in vigil_exports.h. */

#define VIGIL_VMI_FROM_EXPIRY(links) VIGIL_LIST_ENTRY(links, VigilVmi, expiryLinks)
#define VIGIL_VMI_FROM_EXPIRED(links) VIGIL_LIST_ENTRY(links, VigilVmi, expiredLinks)
#define VIGIL_VMI_FROM_HASH(links) VIGIL_LIST_ENTRY(links, VigilVmi, hashLinks)

#endif /* VIGIL_VMI_H */
