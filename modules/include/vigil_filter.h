/*
 * The per-port filter record, its bits and its lock helpers.
 *
 * Every port on which the filter is enabled owns one VigilFilter, found only
 * through the port's data slot VIGIL_FILTER_SLOT.  configLock guards the whole
 * record except the rate limiters, which rateLimitLock guards.
 */
#ifndef VIGIL_FILTER_H
#define VIGIL_FILTER_H

#include "vigil_list.h"
#include "vigil_types.h"

#define VIGIL_FILTER_SLOT 6
/* The longest portset name the switch gives, and the size of every field
 * that keeps one: a byte more, so that a kept name always ends in a NUL and
 * can be handed on as a string. */
#define VIGIL_PORTSET_NAME_MAX 128
#define VIGIL_PORTSET_NAME_LEN (VIGIL_PORTSET_NAME_MAX + 1)

/* Keeps a portset name in a field of VIGIL_PORTSET_NAME_LEN bytes: its first
 * VIGIL_PORTSET_NAME_MAX bytes, NUL-padded, and a NUL in the last byte. */
static inline void VigilCopyPortsetName(char (&field)[VIGIL_PORTSET_NAME_LEN],
                                        const char *name) {
   zek_Strncpy(field, name, VIGIL_PORTSET_NAME_MAX);
   field[VIGIL_PORTSET_NAME_MAX] = '\0';
}

/* Feature bits of featuresEnabled. */
#define VIGIL_FEAT_SWITCH_WARDEN 0x0001u
#define VIGIL_FEAT_BPDU_FILTER 0x0004u
#define VIGIL_FEAT_RX_BCAST_LIMIT 0x0008u
#define VIGIL_FEAT_RX_MCAST_LIMIT 0x0010u
#define VIGIL_FEAT_DHCP_SERVER_BLOCK 0x0020u
#define VIGIL_FEAT_PORT_WARDEN 0x0040u
#define VIGIL_FEAT_DHCP_CLIENT_BLOCK 0x0080u
#define VIGIL_FEAT_TX_BCAST_LIMIT 0x0100u
#define VIGIL_FEAT_TX_MCAST_LIMIT 0x0200u
#define VIGIL_FEAT_NON_IP_BLOCK 0x0400u
#define VIGIL_FEAT_DHCPV6_SERVER_BLOCK 0x0800u
#define VIGIL_FEAT_DHCPV6_CLIENT_BLOCK 0x1000u
#define VIGIL_FEAT_RA_GUARD 0x2000u
/* The two warden bits are always tested together, as are BPDU and non-IP. */
#define VIGIL_FEAT_ANY_WARDEN 0x0041u
#define VIGIL_FEAT_BPDU_OR_NON_IP 0x0404u

/* Discovery bits of discoveryFlags; bindings use the same values as their
 * discovery method. */
#define VIGIL_DISC_DHCP 0x01u
#define VIGIL_DISC_ARP 0x02u
#define VIGIL_DISC_STATIC 0x04u
#define VIGIL_DISC_ND 0x08u
#define VIGIL_DISC_DHCPV6 0x10u

#define VIGIL_DEFAULT_ARP_EXPIRY 600
#define VIGIL_DEFAULT_ARP_ENTRIES 256
#define VIGIL_DEFAULT_ND_EXPIRY 600
#define VIGIL_DEFAULT_ND_ENTRIES 15
#define VIGIL_DEFAULT_DHCPV6_ENTRIES 15
#define VIGIL_DEFAULT_DHCPV6_REQS 15
#define VIGIL_AGING_KEY_NONE INT64_MAX

struct VigilVmiHash;
struct VigilV6VmiHash;
struct VigilWhiteListEntry;
struct VigilWhiteListIndex;

/* Counts frames in fixed windows of periodSecs seconds. */
struct VigilRateLimiter {
   u32 periodSecs;
   u32 limit;     /* frames allowed per window */
   u64 windowEnd; /* end of the current window, timer cycles */
   u32 count;     /* frames seen in the current window */
};

/* The statistics block: eighteen 64-bit counters and a 32-bit status slot,
 * one unit of 37 words that management output copies word for word. */
struct __attribute__((packed, aligned(4))) VigilStats {
   u64 statWardenV4Drops;
   u64 statWardenV6Drops;
   u64 statWardenArpDrops;
   u64 statWardenNdDrops;
   u64 statNonIpDrops;
   u64 statV4VmiAddRefused;
   u64 statV6VmiAddRefused;
   u64 statTxBcastRateDrops;
   u64 statRxBcastRateDrops;
   u64 statTxMcastRateDrops;
   u64 statRxMcastRateDrops;
   u64 statDhcpServerBlockDrops;
   u64 statDhcpV6ServerBlockDrops;
   u64 statDhcpClientBlockDrops;
   u64 statDhcpV6ClientBlockDrops;
   u64 statRaGuardDrops;
   u64 statBpduDrops;
   u64 statDhcpChaddrDrops;
   u32 statStatusSlot;
};
static_assert(sizeof(VigilStats) == 37 * 4, "statistics block is 37 words");
#define VIGIL_NUM_STAT_COUNTERS 18

struct VigilFilter {
   u32 portID;
   zek_SpinlockHandle configLock;
   u8 configWriteHeld;
   u32 configReadHolds; /* read holds of configLock, counted in debug builds */
   char portsetName[VIGIL_PORTSET_NAME_LEN];
   zek_IOChainHandle ioChainInput;
   zek_IOChainHandle ioChainOutput;
   u32 vnicType;
   u8 enableCleanedUp;
   u32 discoveryFlags;
   /* 1 once the filter has left its port but an I/O chain that points at
    * it could not be removed: it waits on the retired list, and frames that
    * reach its chains pass untouched.  Read without a lock. */
   u8 retired;
   VigilListLinks retiredLinks;

   /* IPv4 port database */
   VigilVmiHash *vmiHash;
   VigilListLinks vmiList;        /* bindings by expiry, ascending */
   VigilListLinks expiredVmiList; /* expired ARP bindings kept */
   u32 numVmis;
   u32 numDhcpVmis;
   u32 numArpVmis;
   u32 numExpiredVmis;
   u32 numStaticVmis;
   u32 totalClientIdLen;
   VigilListLinks dhcpReqList; /* pending DHCP requests by expiry */
   u32 numDhcpReqs;
   i32 arpExpiry;
   u32 portDbArpEntriesSize;

   /* IPv6 port database */
   VigilListLinks v6VmiList;
   VigilListLinks v6ExpiredNdList;
   VigilV6VmiHash *v6VmiHash;
   u32 numNdEntries;
   u32 numExpiredNdEntries;
   u32 numDhcpV6Entries;
   u32 dhcpV6ClientIdBytes;
   VigilListLinks dhcpV6ReqList;
   u32 numDhcpV6Reqs;
   u32 dhcpV6ReqBytes;
   i32 ndExpiry;
   u32 portDbNdEntriesSize;
   u32 portDbDhcpV6EntriesSize;
   u32 maxDhcpV6Reqs;

   /* aging queue membership */
   u32 agingPortID;
   i64 agingKey;

   /* configuration */
   VigilWhiteListEntry *portIgnoreList;
   u32 portIgnoreListSize;
   u32 featuresEnabled;
   u32 rxBcastRateLimit;
   u32 txBcastRateLimit;
   u32 rxMcastRateLimit;
   u32 txMcastRateLimit;
   u32 switchWhiteListSize;
   u32 portWhiteListSize;
   u32 bpduExclusionListSize;
   VigilWhiteListEntry *switchWhiteList;
   VigilWhiteListEntry *portWhiteList;
   /* Hashes of the two lists, made with them; null for a short list or
    * when the heap had no room, and the list is scanned. */
   VigilWhiteListIndex *switchWhiteListIndex;
   VigilWhiteListIndex *portWhiteListIndex;
   u64 bpduBitmap;
   VigilRateLimiter txBcastLimiter;
   VigilRateLimiter rxBcastLimiter;
   VigilRateLimiter txMcastLimiter;
   VigilRateLimiter rxMcastLimiter;
   zek_SpinlockHandle rateLimitLock;

   VigilStats stats;
};

/* Lock helpers.  forWrite: false read, true write (only its low byte counts). */
VigilFilter *Vigil_GetPortFilter(u32 portID);
VigilFilter *Vigil_LockFilter(u32 portID, bool forWrite);
void Vigil_UnlockFilter(VigilFilter *filter, bool forWrite);
VigilFilter *Vigil_LockPortAndFilter(u32 portID, bool forWrite);
void Vigil_UnlockPortAndFilter(VigilFilter *filter, bool forWrite);
VigilFilter *Vigil_RelockFilterForWrite(VigilFilter *filter);
/* Panics in a debug build when the filter's lock is not held for write
 * (forWrite) or not held at all; nothing, not even a call, in a release
 * build, where it sits in the hottest loops. */
#if VIGIL_DEBUG_CHECKS
void VigilCheckFilterIsLocked(VigilFilter *filter, bool forWrite);
#endif
static inline void Vigil_AssertFilterIsLocked(VigilFilter *filter, bool forWrite) {
#if VIGIL_DEBUG_CHECKS
   VigilCheckFilterIsLocked(filter, forWrite);
#else
   (void)filter;
   (void)forWrite;
#endif
}
VigilFilter *Vigil_LockPsPortAndFilter(u32 portID, bool forWrite,
                                       zek_PortsetHandle *portset);
VIGIL_MUST_CHECK zek_Status Vigil_UnlockPsPortFilter(VigilFilter *filter, bool forWrite,
                                    zek_PortsetHandle portset);

#endif /* VIGIL_FILTER_H */
