/*
 * The save path: a port's learnt bindings written into a carrier's buffer,
 * in the TLV layout or, when saveVersion says 1, in the V1 layout (the
 * records are in vigil_migration.h).
 *
 * A carrier first asks for the size, then hands in a buffer of that size.
 * Both run under the read side of the filter's lock, allocate nothing and
 * call the platform only for the uptime and the log.  Whatever goes wrong
 * ends with a saved length of 0 and ZEK_OK: the destination then starts
 * with an empty database.
 *
 * The writers never trust the size alone: they check the room left before
 * every TLV header and every entry, so lists that hold more than their
 * counters say end the save with a length of 0 instead of writing past the
 * buffer.  A TLV whose length would not fit its 16 bits is never produced.
 */
#include "vigil_log.h"
#include "vigil_migration.h"
#include "vigil_module.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"

/* The DHCP part of an IPv4 record, clientMac through leaseTime, goes to
 * offset 24 of a saved entry as it stands, the client id pointer and the
 * byte after clientIdLen included: its layout must be the entry's. */
#define VIGIL_VMI_DHCP_PART_LEN                                                \
   (offsetof(VigilVmi, leaseTime) + sizeof(u32) - offsetof(VigilVmi, clientMac))
static_assert(VIGIL_VMI_DHCP_PART_LEN ==
                 VIGIL_SAVED_VMI_ENTRY_SIZE - offsetof(VigilSavedVmi, clientMac),
              "the record's DHCP part fills offsets 24 to 47");
static_assert(offsetof(VigilVmi, clientIdLen) - offsetof(VigilVmi, clientMac) ==
                 offsetof(VigilSavedVmi, clientIdLen) - offsetof(VigilSavedVmi, clientMac),
              "clientIdLen at 30");
static_assert(offsetof(VigilVmi, clientIdStr) - offsetof(VigilVmi, clientMac) ==
                 offsetof(VigilSavedVmi, clientIdPtr) - offsetof(VigilSavedVmi, clientMac),
              "client id pointer at 32");
static_assert(offsetof(VigilVmi, serverIp) - offsetof(VigilVmi, clientMac) ==
                 offsetof(VigilSavedVmi, serverIp) - offsetof(VigilSavedVmi, clientMac),
              "serverIp at 40");

/* The most a TLV's 16-bit length can say. */
#define VIGIL_TLV_MAX_LENGTH 0xffffu

/* ------------------------------------------------ unaligned stores */

static inline void VigilPut16(u8 *at, u16 value) {
   memcpy(at, &value, sizeof value);
}

static inline void VigilPut32(u8 *at, u32 value) {
   memcpy(at, &value, sizeof value);
}

static inline void VigilPut64(u8 *at, u64 value) {
   memcpy(at, &value, sizeof value);
}

static inline u32 VigilGet32(const u8 *at) {
   u32 value;
   memcpy(&value, at, sizeof value);
   return value;
}

/* Seconds from `now` to `expiryTs`.  The difference is taken in unsigned
 * 64 bits and converted, so no pair of values can overflow; a binding of
 * the expired lists thus saves a negative number.  The running lists clamp
 * a time already past to 0. */
static i64 VigilRemainingSecs(i64 expiryTs, i64 now, bool clampAtZero) {
   if (clampAtZero && !(expiryTs > now)) {
      return 0;
   }
   return (i64)((u64)expiryTs - (u64)now);
}

/* Takes `len` bytes at *at when they fit in *room; the caller writes them.
 * Nothing is taken when they don't. */
static bool VigilTake(u8 **at, u32 *room, u32 len) {
   if (len > *room) {
      return false;
   }
   *at += len;
   *room -= len;
   return true;
}

/* Whether a TLV of `size` bytes, its 4-byte header included, can say its
 * length in 16 bits.  Logs the refusal: the port then saves nothing rather
 * than a TLV that the reader would step through wrongly. */
static bool VigilTlvLengthFits(VigilFilter *filter, u32 type, u32 size) {
   u32 length = size - (u32)sizeof(VigilTlvHdr);
   if (length <= VIGIL_TLV_MAX_LENGTH) {
      return true;
   }
   VIGIL_LOG_ERROR("Length %u of TLV type %u for port %#x does not fit 16 bits, "
                   "saving nothing",
                   length, type, filter->portID);
   return false;
}

/* ------------------------------------------------ sizes */

u32 VigilGetStateV1Size(VigilFilter *filter) {
   return (u32)sizeof(VigilSavedStateV1) + VIGIL_SAVED_VMI_ENTRY_SIZE * filter->numVmis +
          filter->totalClientIdLen;
}

/* Known to the layout but never written: no writer exists, so the save
 * length does not count it whatever supportedTlvs says. */
u32 VigilGetStatsV1TlvSize(VigilFilter *filter) {
   (void)filter;
   return VIGIL_STATS_TLV_SIZE;
}

u32 VigilGetIpv4V1TlvSize(VigilFilter *filter) {
   return (u32)sizeof(VigilIpv4Tlv) +
          VIGIL_SAVED_VMI_ENTRY_SIZE * (filter->numVmis - filter->numExpiredVmis) +
          filter->totalClientIdLen;
}

u32 VigilGetExpiredIpv4V1TlvSize(VigilFilter *filter) {
   return (u32)sizeof(VigilIpv4Tlv) + VIGIL_SAVED_VMI_ENTRY_SIZE * filter->numExpiredVmis;
}

u32 VigilGetNdV1TlvSize(VigilFilter *filter) {
   return (u32)sizeof(VigilNdTlv) +
          VIGIL_SAVED_V6_ENTRY_SIZE * (filter->numNdEntries - filter->numExpiredNdEntries);
}

u32 VigilGetExpiredNdV1TlvSize(VigilFilter *filter) {
   return (u32)sizeof(VigilNdTlv) + VIGIL_SAVED_V6_ENTRY_SIZE * filter->numExpiredNdEntries;
}

u32 VigilGetDhcpv6V1TlvSize(VigilFilter *filter) {
   return (u32)sizeof(VigilDhcp6Tlv) + VIGIL_SAVED_DHCP6_ENTRY_SIZE * filter->numDhcpV6Entries +
          filter->dhcpV6ClientIdBytes;
}

/* Adds a TLV's size to *total when its length fits; false (logged) when
 * it doesn't. */
static bool VigilAddTlvSize(VigilFilter *filter, u32 type, u32 size, u32 *total) {
   if (!VigilTlvLengthFits(filter, type, size)) {
      return false;
   }
   *total += size;
   return true;
}

/* The size in the TLV layout of what the writers below produce, from the
 * filter's counters; 0 when a TLV would be too long. */
static u32 VigilGetTlvSaveLen(VigilFilter *filter) {
   u32 total = (u32)sizeof(VigilSavedStateHdr);
   VIGIL_LOG_VERBOSE(5, "TLV Header is %u bytes", total);
   u32 size;
   if (supportedTlvs & VIGIL_TLV_BIT(VIGIL_TLV_IPV4_V1)) {
      size = VigilGetIpv4V1TlvSize(filter);
      if (!VigilAddTlvSize(filter, VIGIL_TLV_IPV4_V1, size, &total)) {
         return 0;
      }
      VIGIL_LOG_VERBOSE(5, "Size of IPv4 V1 Tlv (TlvHdr + Data) is %u", size);
   }
   if (supportedTlvs & VIGIL_TLV_BIT(VIGIL_TLV_EXPIRED_IPV4_V1)) {
      size = VigilGetExpiredIpv4V1TlvSize(filter);
      if (!VigilAddTlvSize(filter, VIGIL_TLV_EXPIRED_IPV4_V1, size, &total)) {
         return 0;
      }
      VIGIL_LOG_VERBOSE(5, "Size of expired IPv4 V1 Tlv (TlvHdr + Data) is %u", size);
   }
   if (supportedTlvs & VIGIL_TLV_BIT(VIGIL_TLV_ND_V1)) {
      size = VigilGetNdV1TlvSize(filter);
      if (!VigilAddTlvSize(filter, VIGIL_TLV_ND_V1, size, &total)) {
         return 0;
      }
      VIGIL_LOG_VERBOSE(5, "Size of ND V1 Tlv (TlvHdr + Data) is %u", size);
   }
   if (supportedTlvs & VIGIL_TLV_BIT(VIGIL_TLV_EXPIRED_ND_V1)) {
      size = VigilGetExpiredNdV1TlvSize(filter);
      if (!VigilAddTlvSize(filter, VIGIL_TLV_EXPIRED_ND_V1, size, &total)) {
         return 0;
      }
      VIGIL_LOG_VERBOSE(5, "Size of expired ND V1 Tlv (TlvHdr + Data) is %u", size);
   }
   if (supportedTlvs & VIGIL_TLV_BIT(VIGIL_TLV_DHCP6_V1)) {
      size = VigilGetDhcpv6V1TlvSize(filter);
      if (!VigilAddTlvSize(filter, VIGIL_TLV_DHCP6_V1, size, &total)) {
         return 0;
      }
      VIGIL_LOG_VERBOSE(5, "Size of DHCPv6 V1 Tlv (TlvHdr + Data) is %u", size);
   }
   VIGIL_LOG_VERBOSE(1, "Save length for Port: %#x, version: TLV is %u", filter->portID, total);
   return total;
}

u32 VigilGetFilterSaveLen(VigilFilter *filter) {
   Vigil_AssertFilterIsLocked(filter, false);
   if (filter->enableCleanedUp) {
      VIGIL_LOG_ERROR("Property has already been cleared for port %#x", filter->portID);
      return 0;
   }
   if (saveVersion == VIGIL_SAVE_VERSION_V1) {
      u32 size = VigilGetStateV1Size(filter);
      VIGIL_LOG_VERBOSE(1, "Size of V1 data for port %#x is %u", filter->portID, size);
      return size;
   }
   if (saveVersion == VIGIL_SAVE_VERSION_TLV) {
      return VigilGetTlvSaveLen(filter);
   }
   VIGIL_LOG_VERBOSE(0, "Invalid saveVersion: %#x", saveVersion);
   return 0;
}

/* ------------------------------------------------ IPv4 entries */

/* Bytes of an IPv4 binding's entry: 48, and a DHCP binding's client id. */
static u32 VigilSavedVmiLen(const VigilVmi *vmi) {
   u32 len = VIGIL_SAVED_VMI_ENTRY_SIZE;
   if (vmi->discMethod == VIGIL_DISC_DHCP) {
      len += vmi->clientIdLen;
   }
   return len;
}

/* Writes a running IPv4 binding's entry, of V1 or of type 2: the key and
 * the method, a DHCP binding's DHCP part and client id, and the remaining
 * time of all but a static binding.  The bytes it leaves unnamed keep what
 * the buffer held.  Returns the client id bytes written. */
static u32 VigilSaveVmiEntry(u8 *entry, const VigilVmi *vmi) {
   VigilPut16(entry + offsetof(VigilSavedVmi, vlanId), vmi->vlanId);
   memcpy(entry + offsetof(VigilSavedVmi, mac), vmi->mac, sizeof vmi->mac);
   memcpy(entry + offsetof(VigilSavedVmi, ip), &vmi->ip, sizeof vmi->ip);
   entry[offsetof(VigilSavedVmi, discMethod)] = vmi->discMethod;
   u32 clientIdLen = 0;
   if (vmi->discMethod == VIGIL_DISC_DHCP) {
      memcpy(entry + offsetof(VigilSavedVmi, clientMac), vmi->clientMac,
             VIGIL_VMI_DHCP_PART_LEN);
      if (vmi->clientIdLen != 0 && vmi->clientIdStr != nullptr) {
         memcpy(entry + VIGIL_SAVED_VMI_ENTRY_SIZE, vmi->clientIdStr, vmi->clientIdLen);
      }
      clientIdLen = vmi->clientIdLen;
   }
   if (vmi->discMethod != VIGIL_DISC_STATIC) {
      i64 remaining = VigilRemainingSecs(vmi->expiryTs, Vigil_UptimeSecs(), true);
      VigilPut64(entry + offsetof(VigilSavedVmi, remaining), (u64)remaining);
   }
   VIGIL_LOG_VERBOSE(5,
                     "Saving IP: %u.%u.%u.%u, MAC: " VIGIL_MAC_FMT ", VLAN: %u, Type: %s",
                     VIGIL_IP_ARGS(vmi->ip), VIGIL_MAC_ARGS(vmi->mac), vmi->vlanId,
                     vmi->discMethod == VIGIL_DISC_DHCP ? "DHCP" : "ARP");
   return clientIdLen;
}

/* Sets an IPv4 TLV's count, client id total and length, once its entries
 * are written; refuses a length that 16 bits can't say. */
static zek_Status VigilCloseIpv4Tlv(VigilFilter *filter, u8 *tlv, u32 type, u32 numEntries,
                                    u32 totClientIdLen, u32 *length) {
   u32 size = (u32)sizeof(VigilIpv4Tlv) + VIGIL_SAVED_VMI_ENTRY_SIZE * numEntries +
              totClientIdLen;
   if (!VigilTlvLengthFits(filter, type, size)) {
      return VIGIL_STATUS_BAD_DATA;
   }
   *length = size - (u32)sizeof(VigilTlvHdr);
   VigilPut32(tlv + offsetof(VigilIpv4Tlv, numVmiEntries), numEntries);
   VigilPut32(tlv + offsetof(VigilIpv4Tlv, totClientIdLen), totClientIdLen);
   VigilPut16(tlv + offsetof(VigilTlvHdr, length), (u16)*length);
   return ZEK_OK;
}

/* Writes the header of an IPv4 TLV with its counts at 0. */
static void VigilOpenIpv4Tlv(u8 *tlv, u32 type) {
   VigilPut16(tlv + offsetof(VigilTlvHdr, type), (u16)type);
   VigilPut16(tlv + offsetof(VigilTlvHdr, length), 0);
   VigilPut32(tlv + offsetof(VigilIpv4Tlv, numVmiEntries), 0);
   VigilPut32(tlv + offsetof(VigilIpv4Tlv, totClientIdLen), 0);
}

zek_Status VigilPopulateIpv4V1Tlv(VigilFilter *filter, u8 *tlv, u32 room) {
   Vigil_AssertFilterIsLocked(filter, false);
   VIGIL_LOG_VERBOSE(5, "Saving IPv4 data in TLV for port: %#x", filter->portID);
   u8 *at = tlv;
   if (!VigilTake(&at, &room, sizeof(VigilIpv4Tlv))) {
      return VIGIL_STATUS_OVERFLOW;
   }
   VigilOpenIpv4Tlv(tlv, VIGIL_TLV_IPV4_V1);
   u32 numEntries = 0;
   u32 totClientIdLen = 0;
   /* In ascending order of expiry, as the list holds them. */
   VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
      const VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      u8 *entry = at;
      if (!VigilTake(&at, &room, VigilSavedVmiLen(vmi))) {
         return VIGIL_STATUS_OVERFLOW;
      }
      totClientIdLen += VigilSaveVmiEntry(entry, vmi);
      numEntries++;
   }
   u32 length = 0;
   zek_Status status = VigilCloseIpv4Tlv(filter, tlv, VIGIL_TLV_IPV4_V1, numEntries,
                                         totClientIdLen, &length);
   if (status != ZEK_OK) {
      return status;
   }
   VIGIL_LOG_VERBOSE(5,
                     "Finished saving IPv4 V1 TLV for port: %#x, numVmiEntries: %u, "
                     "TlvLen: %u",
                     filter->portID, numEntries, length);
   return ZEK_OK;
}

/* Kept expired ARP bindings: key, method and the time since they ended,
 * all from one reading of the uptime.  No client id and nothing of offsets
 * 13 to 15 and 24 to 47 is written. */
zek_Status VigilPopulateExpiredIpv4V1Tlv(VigilFilter *filter, u8 *tlv, u32 room) {
   if (filter == nullptr || tlv == nullptr) {
      VIGIL_LOG_VERBOSE(0, "Parameter null - port: %s, tlv: %s",
                        filter != nullptr ? "nonNull" : "Null",
                        tlv != nullptr ? "nonNull" : "Null");
      return VIGIL_STATUS_BAD_PARAM;
   }
   Vigil_AssertFilterIsLocked(filter, false);
   /* The same line as the running bindings' TLV. */
   VIGIL_LOG_VERBOSE(5, "Saving IPv4 data in TLV for port: %#x", filter->portID);
   u8 *at = tlv;
   if (!VigilTake(&at, &room, sizeof(VigilIpv4Tlv))) {
      return VIGIL_STATUS_OVERFLOW;
   }
   VigilOpenIpv4Tlv(tlv, VIGIL_TLV_EXPIRED_IPV4_V1);
   i64 now = Vigil_UptimeSecs();
   u32 numEntries = 0;
   VIGIL_LIST_FOR_EACH(pos, &filter->expiredVmiList) {
      const VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRED(pos);
      u8 *entry = at;
      if (!VigilTake(&at, &room, VIGIL_SAVED_VMI_ENTRY_SIZE)) {
         return VIGIL_STATUS_OVERFLOW;
      }
      VigilPut16(entry + offsetof(VigilSavedVmi, vlanId), vmi->vlanId);
      memcpy(entry + offsetof(VigilSavedVmi, mac), vmi->mac, sizeof vmi->mac);
      memcpy(entry + offsetof(VigilSavedVmi, ip), &vmi->ip, sizeof vmi->ip);
      entry[offsetof(VigilSavedVmi, discMethod)] = vmi->discMethod;
      VigilPut64(entry + offsetof(VigilSavedVmi, remaining),
                 (u64)VigilRemainingSecs(vmi->expiryTs, now, false));
      VIGIL_LOG_VERBOSE(5,
                        "Saving expired IP: %u.%u.%u.%u, MAC: " VIGIL_MAC_FMT
                        ", VLAN: %u, Type: %s",
                        VIGIL_IP_ARGS(vmi->ip), VIGIL_MAC_ARGS(vmi->mac), vmi->vlanId,
                        vmi->discMethod == VIGIL_DISC_DHCP ? "DHCP" : "ARP");
      numEntries++;
   }
   u32 length = 0;
   zek_Status status = VigilCloseIpv4Tlv(filter, tlv, VIGIL_TLV_EXPIRED_IPV4_V1,
                                         numEntries, 0, &length);
   if (status != ZEK_OK) {
      return status;
   }
   VIGIL_LOG_VERBOSE(5,
                     "Finished saving expired IPv4 V1 TLV for port: %#x, numVmiEntries: %u, "
                     "TlvLen: %u",
                     filter->portID, numEntries, length);
   return ZEK_OK;
}

/* ------------------------------------------------ IPv6 entries */

/* Writes an ND TLV of `type` from the ND bindings of the running list or,
 * `expired`, of the expired list; sets *numVmi and *length.  The running
 * list reads the uptime per binding and clamps at 0; the expired list
 * reads it once and saves the time since the end, negative. */
static zek_Status VigilWriteNdTlv(VigilFilter *filter, u8 *tlv, u32 room, u32 type,
                                  bool expired, u32 *numVmi, u32 *length) {
   u8 *at = tlv;
   if (!VigilTake(&at, &room, sizeof(VigilNdTlv))) {
      return VIGIL_STATUS_OVERFLOW;
   }
   VigilPut16(tlv + offsetof(VigilTlvHdr, type), (u16)type);
   VigilPut16(tlv + offsetof(VigilTlvHdr, length), 0);
   VigilPut32(tlv + offsetof(VigilNdTlv, numVmi), 0);
   VigilListLinks *list = expired ? &filter->v6ExpiredNdList : &filter->v6VmiList;
   i64 now = expired ? Vigil_UptimeSecs() : 0;
   u32 count = 0;
   VIGIL_LIST_FOR_EACH(pos, list) {
      const VigilV6Vmi *vmi =
         expired ? VIGIL_V6VMI_FROM_EXPIRED(pos) : VIGIL_V6VMI_FROM_EXPIRY(pos);
      if (vmi->discMethod != VIGIL_DISC_ND) {
         continue;
      }
      u8 *entry = at;
      if (!VigilTake(&at, &room, VIGIL_SAVED_V6_ENTRY_SIZE)) {
         return VIGIL_STATUS_OVERFLOW;
      }
      VigilPut16(entry + offsetof(VigilSavedNdVmi, vlanId), vmi->vlanId);
      memcpy(entry + offsetof(VigilSavedNdVmi, mac), vmi->mac, sizeof vmi->mac);
      memcpy(entry + offsetof(VigilSavedNdVmi, ip), vmi->ip, sizeof vmi->ip);
      i64 remaining = expired ? VigilRemainingSecs(vmi->expiryTs, now, false)
                              : VigilRemainingSecs(vmi->expiryTs, Vigil_UptimeSecs(), true);
      VigilPut64(entry + offsetof(VigilSavedNdVmi, remaining), (u64)remaining);
      count++;
   }
   u32 size = (u32)sizeof(VigilNdTlv) + VIGIL_SAVED_V6_ENTRY_SIZE * count;
   if (!VigilTlvLengthFits(filter, type, size)) {
      return VIGIL_STATUS_BAD_DATA;
   }
   *numVmi = count;
   *length = size - (u32)sizeof(VigilTlvHdr);
   VigilPut32(tlv + offsetof(VigilNdTlv, numVmi), count);
   VigilPut16(tlv + offsetof(VigilTlvHdr, length), (u16)*length);
   return ZEK_OK;
}

zek_Status VigilPopulateNdV1Tlv(VigilFilter *filter, u8 *tlv, u32 room) {
   Vigil_AssertFilterIsLocked(filter, false);
   VIGIL_LOG_VERBOSE(5, "Saving ND data in TLV for port: %#x", filter->portID);
   u32 numVmi = 0;
   u32 length = 0;
   zek_Status status =
      VigilWriteNdTlv(filter, tlv, room, VIGIL_TLV_ND_V1, false, &numVmi, &length);
   if (status != ZEK_OK) {
      return status;
   }
   VIGIL_LOG_VERBOSE(5, "Finished saving ND V1 TLV for port: %#x, numVmi: %u, TlvLen: %u",
                     filter->portID, numVmi, length);
   return ZEK_OK;
}

zek_Status VigilPopulateExpiredNdV1Tlv(VigilFilter *filter, u8 *tlv, u32 room) {
   Vigil_AssertFilterIsLocked(filter, false);
   VIGIL_LOG_VERBOSE(5, "Saving expired ND data in TLV for port: %#x", filter->portID);
   u32 numVmi = 0;
   u32 length = 0;
   zek_Status status =
      VigilWriteNdTlv(filter, tlv, room, VIGIL_TLV_EXPIRED_ND_V1, true, &numVmi, &length);
   if (status != ZEK_OK) {
      return status;
   }
   VIGIL_LOG_VERBOSE(5,
                     "Finished saving expired ND V1 TLV for port: %#x, numVmi: %u, TlvLen: %u",
                     filter->portID, numVmi, length);
   return ZEK_OK;
}

/* DHCPv6 bindings of the running list: 62 bytes, the client id, then 8
 * bytes that are never written but counted, so an entry's stride is 70 and
 * its client id. */
zek_Status VigilPopulateDhcp6V1Tlv(VigilFilter *filter, u8 *tlv, u32 room) {
   if (filter == nullptr || tlv == nullptr) {
      VIGIL_LOG_VERBOSE(0, "Parameter null - port: %s, tlv: %s",
                        filter != nullptr ? "nonNull" : "Null",
                        tlv != nullptr ? "nonNull" : "Null");
      return VIGIL_STATUS_BAD_PARAM;
   }
   Vigil_AssertFilterIsLocked(filter, false);
   VIGIL_LOG_VERBOSE(5, "Saving DHCP6 data in TLV for port: %#x", filter->portID);
   u8 *at = tlv;
   if (!VigilTake(&at, &room, sizeof(VigilDhcp6Tlv))) {
      return VIGIL_STATUS_OVERFLOW;
   }
   VigilPut16(tlv + offsetof(VigilTlvHdr, type), (u16)VIGIL_TLV_DHCP6_V1);
   VigilPut16(tlv + offsetof(VigilTlvHdr, length), 0);
   VigilPut32(tlv + offsetof(VigilDhcp6Tlv, numVmiEntries), 0);
   u32 numEntries = 0;
   u32 clientIdBytes = 0;
   VIGIL_LIST_FOR_EACH(pos, &filter->v6VmiList) {
      const VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRY(pos);
      if (vmi->discMethod != VIGIL_DISC_DHCPV6) {
         continue;
      }
      u8 *entry = at;
      if (!VigilTake(&at, &room, VIGIL_SAVED_DHCP6_ENTRY_SIZE + vmi->clientIdLen)) {
         return VIGIL_STATUS_OVERFLOW;
      }
      VigilPut16(entry + offsetof(VigilSavedDhcp6Vmi, vlanId), vmi->vlanId);
      memcpy(entry + offsetof(VigilSavedDhcp6Vmi, mac), vmi->mac, sizeof vmi->mac);
      memcpy(entry + offsetof(VigilSavedDhcp6Vmi, ip), vmi->ip, sizeof vmi->ip);
      i64 remaining = VigilRemainingSecs(vmi->expiryTs, Vigil_UptimeSecs(), true);
      VigilPut64(entry + offsetof(VigilSavedDhcp6Vmi, remaining), (u64)remaining);
      VigilPut32(entry + offsetof(VigilSavedDhcp6Vmi, iaId), vmi->iaId);
      memcpy(entry + offsetof(VigilSavedDhcp6Vmi, serverIp), vmi->serverIp,
             sizeof vmi->serverIp);
      VigilPut32(entry + offsetof(VigilSavedDhcp6Vmi, validLifetime), (u32)vmi->validLifetime);
      VigilPut32(entry + offsetof(VigilSavedDhcp6Vmi, preferredLifetime),
                 vmi->preferredLifetime);
      VigilPut16(entry + offsetof(VigilSavedDhcp6Vmi, clientIdLen), vmi->clientIdLen);
      if (vmi->clientIdLen != 0 && vmi->clientId != nullptr) {
         memcpy(entry + sizeof(VigilSavedDhcp6Vmi), vmi->clientId, vmi->clientIdLen);
      }
      numEntries++;
      clientIdBytes += vmi->clientIdLen;
   }
   u32 size = (u32)sizeof(VigilDhcp6Tlv) + VIGIL_SAVED_DHCP6_ENTRY_SIZE * numEntries +
              clientIdBytes;
   if (!VigilTlvLengthFits(filter, VIGIL_TLV_DHCP6_V1, size)) {
      return VIGIL_STATUS_BAD_DATA;
   }
   u32 length = size - (u32)sizeof(VigilTlvHdr);
   VigilPut32(tlv + offsetof(VigilDhcp6Tlv, numVmiEntries), numEntries);
   VigilPut16(tlv + offsetof(VigilTlvHdr, length), (u16)length);
   VIGIL_LOG_VERBOSE(5,
                     "Finished saving DHCP6 V1 TLV for port: %#x, numVmiEntries: %u, "
                     "TlvLen: %u",
                     filter->portID, numEntries, length);
   return ZEK_OK;
}

/* ------------------------------------------------ the writers */

/* Writes the buffer's 12-byte header. */
static void VigilPutStateHdr(u8 *buf, u32 version) {
   VigilPut64(buf + offsetof(VigilSavedStateHdr, magic), VIGIL_SAVED_STATE_MAGIC);
   VigilPut32(buf + offsetof(VigilSavedStateHdr, version), version);
}

typedef zek_Status (*VigilPopulateTlvFn)(VigilFilter *filter, u8 *tlv, u32 room);

/* The TLVs in the order they stand in the buffer. */
static const struct {
   u32 type;
   VigilPopulateTlvFn populate;
} vigilTlvWriters[] = {
   {VIGIL_TLV_IPV4_V1, VigilPopulateIpv4V1Tlv},
   {VIGIL_TLV_EXPIRED_IPV4_V1, VigilPopulateExpiredIpv4V1Tlv},
   {VIGIL_TLV_ND_V1, VigilPopulateNdV1Tlv},
   {VIGIL_TLV_EXPIRED_ND_V1, VigilPopulateExpiredNdV1Tlv},
   {VIGIL_TLV_DHCP6_V1, VigilPopulateDhcp6V1Tlv},
};

/* Writes the header and every TLV whose bit is set, within `bufLen`. */
static zek_Status VigilWriteTlvBuffer(VigilFilter *filter, u8 *buf, u32 bufLen) {
   u8 *at = buf;
   u32 room = bufLen;
   if (!VigilTake(&at, &room, sizeof(VigilSavedStateHdr))) {
      return VIGIL_STATUS_OVERFLOW;
   }
   /* The layout's own number, whatever saveVersion says. */
   VigilPutStateHdr(buf, VIGIL_SAVE_VERSION_TLV);
   for (const auto &writer : vigilTlvWriters) {
      if ((supportedTlvs & VIGIL_TLV_BIT(writer.type)) == 0) {
         continue;
      }
      u8 *tlv = at;
      zek_Status status = writer.populate(filter, tlv, room);
      if (status != ZEK_OK) {
         return status;
      }
      u16 length;
      memcpy(&length, tlv + offsetof(VigilTlvHdr, length), sizeof length);
      /* The writer took no more than the room it was given. */
      (void)VigilTake(&at, &room, (u32)sizeof(VigilTlvHdr) + length);
   }
   return ZEK_OK;
}

void VigilMigrationSaveTlv(u32 portID, void *buf, u32 bufLen, u32 *dataLen) {
   VIGIL_LOG_VERBOSE(5, "Migration save TLV initiated for port %#x", portID);
   *dataLen = 0;
   VigilFilter *filter = Vigil_LockFilter(portID, false);
   if (filter == nullptr) {
      VIGIL_LOG_VERBOSE(0, "Filter not found for portId: %#x", portID);
      return;
   }
   u32 filterSaveLen = VigilGetFilterSaveLen(filter);
   /* Before the test of 0, which therefore never reads as too small. */
   if (bufLen < filterSaveLen) {
      Vigil_UnlockFilter(filter, false);
      VIGIL_LOG_VERBOSE(0,
                        "Insufficient buffer size for port Id: %#x, got (bufLen): %u, "
                        "needed (filterSaveLen): %u",
                        portID, bufLen, filterSaveLen);
      return;
   }
   if (filterSaveLen == 0) {
      Vigil_UnlockFilter(filter, false);
      VIGIL_LOG_VERBOSE(0,
                        "Stop saving TLV for port Id: 0x%x for Vigil property is cleared, "
                        "filterSaveLen: %u",
                        portID, filterSaveLen);
      return;
   }
   zek_Status status = VigilWriteTlvBuffer(filter, (u8 *)buf, bufLen);
   if (status != ZEK_OK) {
      Vigil_UnlockFilter(filter, false);
      if (status == VIGIL_STATUS_OVERFLOW) {
         VIGIL_LOG_ERROR("Buffer too small while saving port %#x: %u bytes, more needed",
                         portID, bufLen);
      }
      return;
   }
   /* The computed length, which the reader's buffer will have. */
   *dataLen = filterSaveLen;
   Vigil_UnlockFilter(filter, false);
   VIGIL_LOG_VERBOSE(1, "Finished saving the runtime data for port Id: 0x%x, saveLen: %u",
                     portID, filterSaveLen);
}

/* The V1 layout: the header, the count at 128, and from 136 the entries of
 * the running IPv4 list.  The size counts every IPv4 binding, expired ones
 * too, so the bytes after the last entry may stay unwritten; the reader
 * goes by the count.  The client id total at 132 is added to, not set. */
static zek_Status VigilWriteV1Buffer(VigilFilter *filter, u8 *buf, u32 bufLen,
                                     u32 *numEntries) {
   u8 *at = buf;
   u32 room = bufLen;
   if (!VigilTake(&at, &room, sizeof(VigilSavedStateV1))) {
      return VIGIL_STATUS_OVERFLOW;
   }
   VIGIL_LOG_VERBOSE(5, "Num VMIs to save: %u", filter->numVmis);
   VigilPut32(buf + offsetof(VigilSavedStateHdr, version), VIGIL_SAVE_VERSION_V1);
   VigilPut32(buf + offsetof(VigilSavedStateV1, numVmiEntries), 0);
   VigilPut64(buf + offsetof(VigilSavedStateHdr, magic), VIGIL_SAVED_STATE_MAGIC);
   u8 *totAt = buf + offsetof(VigilSavedStateV1, totClientIdLen);
   u32 count = 0;
   VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
      const VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      u8 *entry = at;
      if (!VigilTake(&at, &room, VigilSavedVmiLen(vmi))) {
         return VIGIL_STATUS_OVERFLOW;
      }
      u32 clientIdLen = VigilSaveVmiEntry(entry, vmi);
      count++;
      VigilPut32(buf + offsetof(VigilSavedStateV1, numVmiEntries), count);
      if (clientIdLen != 0) {
         VigilPut32(totAt, VigilGet32(totAt) + clientIdLen);
      }
   }
   *numEntries = count;
   return ZEK_OK;
}

void VigilMigrationSaveV1(u32 portID, void *buf, u32 bufLen, u32 *dataLen) {
   VIGIL_LOG_VERBOSE(1, "Vigil migration save version V1 initiated for Port: 0x%x", portID);
   *dataLen = 0;
   VigilFilter *filter = Vigil_LockFilter(portID, false);
   if (filter == nullptr) {
      VIGIL_LOG_VERBOSE(0, "Filter not found for port Id: 0x%x", portID);
      return;
   }
   u32 filterSaveLen = VigilGetFilterSaveLen(filter);
   if (bufLen < filterSaveLen) {
      Vigil_UnlockFilter(filter, false);
      VIGIL_LOG_VERBOSE(0,
                        "Insufficient buffer size for port Id: 0x%x, bufLen: %u, "
                        "filterSaveLen: %u",
                        portID, bufLen, filterSaveLen);
      return;
   }
   if (filterSaveLen == 0) {
      Vigil_UnlockFilter(filter, false);
      VIGIL_LOG_VERBOSE(0,
                        "Stop saving V1 for port Id: 0x%x for Vigil property is cleared, "
                        "filterSaveLen: %u",
                        portID, filterSaveLen);
      return;
   }
   u32 numEntries = 0;
   zek_Status status = VigilWriteV1Buffer(filter, (u8 *)buf, bufLen, &numEntries);
   if (status != ZEK_OK) {
      Vigil_UnlockFilter(filter, false);
      VIGIL_LOG_ERROR("Buffer too small while saving port %#x: %u bytes, more needed",
                      portID, bufLen);
      return;
   }
   *dataLen = filterSaveLen;
   Vigil_UnlockFilter(filter, false);
   VIGIL_LOG_VERBOSE(1,
                     "Finished saving the runtime data for port Id: 0x%x, saveLen: %u, "
                     "number of entries: %d",
                     portID, filterSaveLen, (int)numEntries);
}

zek_Status VigilMigrationSave(u32 portID, void *buf, u32 bufLen, u32 *dataLen,
                              u64 reserved) {
   (void)reserved; /* the carrier's own word; nothing here reads it */
   if (dataLen != nullptr) {
      *dataLen = 0;
   }
   if (buf == nullptr || dataLen == nullptr) {
      VIGIL_LOG_VERBOSE(0, "Params null - buf is %s, dataLen is %s, port Id: 0x%x",
                        buf != nullptr ? "Valid" : "Null",
                        dataLen != nullptr ? "Valid" : "Null", portID);
      return ZEK_OK;
   }
   if (saveVersion == VIGIL_SAVE_VERSION_V1) {
      VigilMigrationSaveV1(portID, buf, bufLen, dataLen);
   } else if (saveVersion == VIGIL_SAVE_VERSION_TLV) {
      VigilMigrationSaveTlv(portID, buf, bufLen, dataLen);
   } else {
      VIGIL_LOG_VERBOSE(0, "Unsupport Vigil migration Save version: %#x", saveVersion);
   }
   return ZEK_OK;
}
