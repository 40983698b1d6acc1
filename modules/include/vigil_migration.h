/*
 * The saved state of a port: the byte layout in which its learnt bindings
 * travel when its VM moves to another host or the module is replaced by a
 * live upgrade, and the save, restore and carrier operations.
 *
 * Every record is packed: after the first variable-length entry, fields
 * stand at any byte offset.  Numbers the module keeps are in host order
 * (little-endian), bytes copied from frames in network order.  Times are
 * seconds remaining at the save, 64 bits written, the low 32 read.
 */
#ifndef VIGIL_MIGRATION_H
#define VIGIL_MIGRATION_H

#include "rtm.h"
#include "vigil_filter.h"

#define VIGIL_SAVED_STATE_MAGIC 0x5011D1F1EDull
#define VIGIL_SAVE_VERSION_V1 1u
#define VIGIL_SAVE_VERSION_TLV 100u
#define VIGIL_SAVED_VMI_ENTRY_SIZE 48u
#define VIGIL_SAVED_V6_ENTRY_SIZE 32u
#define VIGIL_SAVED_DHCP6_ENTRY_SIZE 70u /* stride without the client id */

/* TLV types; the bit of a type in supportedTlvs is 1 << type. */
#define VIGIL_TLV_STATS_V1 1u
#define VIGIL_TLV_IPV4_V1 2u
#define VIGIL_TLV_ND_V1 3u
#define VIGIL_TLV_DHCP6_V1 4u
#define VIGIL_TLV_EXPIRED_IPV4_V1 5u
#define VIGIL_TLV_EXPIRED_ND_V1 6u
#define VIGIL_TLV_BIT(type) (1u << (type))
#define VIGIL_SUPPORTED_TLVS 0x7Cu /* types 2 to 6 */
#define VIGIL_STATS_TLV_SIZE 152u  /* counted only while a writer exists */

struct __attribute__((packed)) VigilSavedStateHdr {
   u64 magic;
   u32 version;
};
static_assert(sizeof(VigilSavedStateHdr) == 12, "12-byte header");
static_assert(offsetof(VigilSavedStateHdr, version) == 8, "version at 8");

/* The V1 layout: the header, 116 bytes never written, counts, entries. */
struct __attribute__((packed)) VigilSavedStateV1 {
   VigilSavedStateHdr hdr;
   u8 unused[116];
   u32 numVmiEntries;
   u32 totClientIdLen;
};
static_assert(sizeof(VigilSavedStateV1) == 136, "entries at 136");
static_assert(offsetof(VigilSavedStateV1, numVmiEntries) == 128, "count at 128");
static_assert(offsetof(VigilSavedStateV1, totClientIdLen) == 132, "total at 132");

struct __attribute__((packed)) VigilTlvHdr {
   u16 type;
   u16 length; /* bytes after this field */
};
static_assert(sizeof(VigilTlvHdr) == 4, "4-byte TLV header");
static_assert(offsetof(VigilTlvHdr, length) == 2, "length at 2");

/* Types 2 and 5. */
struct __attribute__((packed)) VigilIpv4Tlv {
   VigilTlvHdr hdr;
   u32 numVmiEntries;
   u32 totClientIdLen;
};
static_assert(sizeof(VigilIpv4Tlv) == 12, "IPv4 entries at 12");
static_assert(offsetof(VigilIpv4Tlv, numVmiEntries) == 4, "count at 4");
static_assert(offsetof(VigilIpv4Tlv, totClientIdLen) == 8, "total at 8");

/* An IPv4 entry of V1 and of types 2 and 5; a DHCP entry's client id
 * follows.  Offsets 24 to 47 are the record's DHCP part as it stands. */
struct __attribute__((packed)) VigilSavedVmi {
   u16 vlanId;
   u8 mac[6];
   u32 ip;
   u8 discMethod;
   u8 unused1[3];
   i64 remaining;
   u8 clientMac[6];
   u8 clientIdLen;
   u8 unused2;
   u64 clientIdPtr; /* the sender's pointer; never used */
   u32 serverIp;
   u32 leaseTime;
};
static_assert(sizeof(VigilSavedVmi) == VIGIL_SAVED_VMI_ENTRY_SIZE, "48-byte entry");
static_assert(offsetof(VigilSavedVmi, mac) == 2, "mac at 2");
static_assert(offsetof(VigilSavedVmi, ip) == 8, "ip at 8");
static_assert(offsetof(VigilSavedVmi, discMethod) == 12, "discMethod at 12");
static_assert(offsetof(VigilSavedVmi, remaining) == 16, "remaining at 16");
static_assert(offsetof(VigilSavedVmi, clientMac) == 24, "clientMac at 24");
static_assert(offsetof(VigilSavedVmi, clientIdLen) == 30, "clientIdLen at 30");
static_assert(offsetof(VigilSavedVmi, clientIdPtr) == 32, "pointer at 32");
static_assert(offsetof(VigilSavedVmi, serverIp) == 40, "serverIp at 40");
static_assert(offsetof(VigilSavedVmi, leaseTime) == 44, "leaseTime at 44");

/* Types 3 and 6. */
struct __attribute__((packed)) VigilNdTlv {
   VigilTlvHdr hdr;
   u32 numVmi;
};
static_assert(sizeof(VigilNdTlv) == 8, "ND entries at 8");
static_assert(offsetof(VigilNdTlv, numVmi) == 4, "count at 4");

struct __attribute__((packed)) VigilSavedNdVmi {
   u16 vlanId;
   u8 mac[6];
   u8 ip[16];
   i64 remaining;
};
static_assert(sizeof(VigilSavedNdVmi) == VIGIL_SAVED_V6_ENTRY_SIZE, "32-byte entry");
static_assert(offsetof(VigilSavedNdVmi, mac) == 2, "mac at 2");
static_assert(offsetof(VigilSavedNdVmi, ip) == 8, "ip at 8");
static_assert(offsetof(VigilSavedNdVmi, remaining) == 24, "remaining at 24");

/* Type 4. */
struct __attribute__((packed)) VigilDhcp6Tlv {
   VigilTlvHdr hdr;
   u32 numVmiEntries;
};
static_assert(sizeof(VigilDhcp6Tlv) == 8, "DHCPv6 entries at 8");
static_assert(offsetof(VigilDhcp6Tlv, numVmiEntries) == 4, "count at 4");

/* The client id follows, then 8 bytes never written: the stride is
 * 70 + clientIdLen. */
struct __attribute__((packed)) VigilSavedDhcp6Vmi {
   u16 vlanId;
   u8 mac[6];
   u8 ip[16];
   i64 remaining;
   u32 iaId;
   u8 serverIp[16];
   u32 validLifetime;
   u32 preferredLifetime;
   u16 clientIdLen;
};
static_assert(sizeof(VigilSavedDhcp6Vmi) == 62, "client id at 62");
static_assert(offsetof(VigilSavedDhcp6Vmi, mac) == 2, "mac at 2");
static_assert(offsetof(VigilSavedDhcp6Vmi, ip) == 8, "ip at 8");
static_assert(offsetof(VigilSavedDhcp6Vmi, remaining) == 24, "remaining at 24");
static_assert(offsetof(VigilSavedDhcp6Vmi, iaId) == 32, "iaId at 32");
static_assert(offsetof(VigilSavedDhcp6Vmi, serverIp) == 36, "serverIp at 36");
static_assert(offsetof(VigilSavedDhcp6Vmi, validLifetime) == 52, "valid at 52");
static_assert(offsetof(VigilSavedDhcp6Vmi, preferredLifetime) == 56, "preferred at 56");
static_assert(offsetof(VigilSavedDhcp6Vmi, clientIdLen) == 60, "clientIdLen at 60");

extern u32 saveVersion;
extern u32 supportedTlvs;

/* The save path (caller of the size holds the filter lock, read is
 * enough).  Save returns ZEK_OK always; *dataLen 0 means nothing saved. */
u32 VigilGetFilterSaveLen(VigilFilter *filter);
VIGIL_MUST_CHECK zek_Status VigilMigrationSave(u32 portID, void *buf, u32 bufLen,
                                               u32 *dataLen, u64 reserved);
/* The writer of each layout: sets *dataLen to 0, takes the filter for read
 * and sets *dataLen to the computed size only once everything is written;
 * whatever stops it is logged. */
void VigilMigrationSaveV1(u32 portID, void *buf, u32 bufLen, u32 *dataLen);
void VigilMigrationSaveTlv(u32 portID, void *buf, u32 bufLen, u32 *dataLen);
/* The pieces of the size, from the filter's counters: a V1 buffer, and each
 * TLV with its 4-byte header.  The stats TLV has a size but no writer, and
 * VigilGetFilterSaveLen never counts it. */
u32 VigilGetStateV1Size(VigilFilter *filter);
u32 VigilGetStatsV1TlvSize(VigilFilter *filter);
u32 VigilGetIpv4V1TlvSize(VigilFilter *filter);
u32 VigilGetExpiredIpv4V1TlvSize(VigilFilter *filter);
u32 VigilGetNdV1TlvSize(VigilFilter *filter);
u32 VigilGetExpiredNdV1TlvSize(VigilFilter *filter);
u32 VigilGetDhcpv6V1TlvSize(VigilFilter *filter);
/* One writer per TLV, under the filter's lock (read is enough): writes the
 * TLV at `tlv`, `room` bytes being left in the buffer from there, and
 * leaves its length in it so that the caller can step on.  0xbad0026 when
 * the bindings need more than `room` (nothing is written past it), 0xbad0001
 * (logged) when the length would not fit its 16 bits, and 0xbad0007
 * (logged) for a null filter or TLV in the two writers that look. */
VIGIL_MUST_CHECK zek_Status VigilPopulateIpv4V1Tlv(VigilFilter *filter, u8 *tlv, u32 room);
VIGIL_MUST_CHECK zek_Status VigilPopulateExpiredIpv4V1Tlv(VigilFilter *filter, u8 *tlv,
                                                          u32 room);
VIGIL_MUST_CHECK zek_Status VigilPopulateNdV1Tlv(VigilFilter *filter, u8 *tlv, u32 room);
VIGIL_MUST_CHECK zek_Status VigilPopulateExpiredNdV1Tlv(VigilFilter *filter, u8 *tlv,
                                                        u32 room);
VIGIL_MUST_CHECK zek_Status VigilPopulateDhcp6V1Tlv(VigilFilter *filter, u8 *tlv, u32 room);

/* The restore path: fills a port's live databases from a saved buffer. */
VIGIL_MUST_CHECK zek_Status VigilMigrationRestore(u32 portID, const void *buf, u32 bufLen,
                                                  u64 elapsedMS);

/* The parts of the restore path.  Nothing at or past buf + bufLen is read;
 * offsets are from the start of the buffer, and a TLV's entries are read
 * only below tlvEnd (the nearer of the buffer's end and the TLV's own). */
/* The saved state header: length, magic and version. */
VIGIL_MUST_CHECK zek_Status VigilMigrationValidateData(u32 portID, const void *buf,
                                                       u32 bufLen, u64 elapsedMS);
/* The two readers, for a buffer whose header is valid.  V1 builds its list
 * without the lock and takes the filter's write lock for the adds; TLV holds
 * it for the whole walk and returns ZEK_OK once the filter is found. */
VIGIL_MUST_CHECK zek_Status VigilMigrationRestoreV1(u32 portID, const void *buf, u32 bufLen,
                                                    u64 elapsedMS);
VIGIL_MUST_CHECK zek_Status VigilMigrationRestoreTlv(u32 portID, const void *buf, u32 bufLen,
                                                     u64 elapsedMS);
/* Build the temporary list of IPv4 records (linked through expiryLinks, in
 * the order of the buffer) that Vigil_RestoreVMIEntryList takes over; the
 * list owns what is left on it until VigilFreeVMIList.  Both return
 * 0xbad0014 with the list freed when a record can't be allocated, and
 * ZEK_OK with the list empty when a client id can't.  V1: the entries of a
 * whole V1 buffer; one that ends inside its header or its entries gives
 * 0xbad0001 and no list.  TLV: the entries of the type 2 or 5 TLV at
 * tlvOffset, whose counts the caller has found inside tlvEnd; the entries
 * before the first one that does not fit are kept. */
VIGIL_MUST_CHECK zek_Status VigilCreateVMIList(u32 portID, const u8 *buf, u32 bufLen,
                                               VigilListLinks *list);
VIGIL_MUST_CHECK zek_Status VigilCreateVMIListTlv(u32 portID, const u8 *buf, u32 tlvOffset,
                                                  u32 tlvEnd, VigilListLinks *list);
/* One TLV each, under the filter's write lock; what fails is logged. */
void VigilProcessIpv4V1Tlv(VigilFilter *filter, const u8 *buf, u32 tlvOffset, u32 tlvEnd);
void VigilProcessNdV1Tlv(VigilFilter *filter, const u8 *buf, u32 tlvOffset, u32 tlvEnd);
void VigilProcessDhcp6V1Tlv(VigilFilter *filter, const u8 *buf, u32 tlvOffset, u32 tlvEnd);
/* Frees every record left on a temporary list, with its client id. */
void VigilFreeVMIList(VigilListLinks *list);

/* The carriers' hooks: the live-upgrade service's client (RTM) and the
 * Transit client of a portset.  Only the carriers call them, through the
 * two tables. */
extern const char *vigilRtmClientName;
extern oxa_RtmClientHandle vigilRtmClient;
extern zek_NetEventHandle vigilRtmEventHandle;
extern oxa_RtmEventData vigilRtmEventData;
VIGIL_MUST_CHECK zek_Status VigilRtmRegUnregEventCB(void *ctx, const char *eventName,
                                                    void *cbData, void *eventData);
VIGIL_MUST_CHECK zek_Status VigilRtmPrefetch(void *ctx, zek_PortID portID);
VIGIL_MUST_CHECK zek_Status VigilRtmGetSize(void *ctx, zek_PortID portID, u32 *size);
VIGIL_MUST_CHECK zek_Status VigilRtmSave(void *ctx, zek_PortID portID, void *buf, u32 bufLen,
                                         u32 *dataLen, u64 reserved);
VIGIL_MUST_CHECK zek_Status VigilRtmRestore(void *ctx, zek_PortID portID, const void *buf,
                                            u32 bufLen, u64 elapsedMS);
void VigilRtmCompleted(void *ctx, bool isCrossHost, zek_Status status);
VIGIL_MUST_CHECK zek_Status VigilRtmPreDualLoad(void);
u32 VigilTransitGetSize(zek_PortID portID);
VIGIL_MUST_CHECK zek_Status VigilTransitSave(zek_PortID portID, void *buf, u32 bufLen,
                                             u32 *dataLen, u64 reserved);
VIGIL_MUST_CHECK zek_Status VigilTransitRestore(zek_PortID portID, const void *buf, u32 bufLen,
                                                u64 elapsedMS);
void VigilTransitCompleted(bool isCrossHost, zek_Status status);

extern const oxa_RtmClientOps vigilRtmOps;
extern const zek_FABTransitOps transitStateOps;

#endif /* VIGIL_MIGRATION_H */
