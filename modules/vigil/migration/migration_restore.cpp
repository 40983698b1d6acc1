/*
 * The restore path of a port's saved state: reads a buffer that the save
 * path of this or another host wrote (V1 or TLV layout) and adds its
 * bindings to the port's live databases through the ordinary add
 * operations; the database is not cleared first.  An equal key meets the
 * add rules, and an IPv4 add that fails (a duplicate, a limit, the ignore
 * list) clears the port's IPv4 bindings but the static ones, those it had
 * before included.  What the port is configured to learn decides which
 * parts of the buffer are honoured.
 *
 * The buffer comes from outside and has no length or checksum of its own,
 * so every read is checked before it is made:
 *
 *  - nothing at or past buf + bufLen is ever read;
 *  - a TLV's entries must also lie inside the TLV, that is below
 *    TLV start + 4 + length: the bound of every entry is the nearer of the
 *    buffer's end and the TLV's end;
 *  - a TLV header that does not fit ends the walk; the first entry (or
 *    client id) that does not fit ends its TLV, earlier entries are kept;
 *  - a count is read once; it is never trusted further than the bytes can
 *    hold, so a huge count ends at the first entry that does not fit;
 *  - a V1 buffer that ends inside its header or its entries is refused as
 *    a whole (0xbad0001): it is one block, and half of it is no state.
 *
 * Each such stop is logged once at level 2 with the port, the TLV type and
 * the offset in the buffer.  An entry whose method its TLV cannot carry is
 * skipped with a line of its own, and no pointer read from a buffer is ever
 * kept: a record's client id is null until this host allocates it.
 *
 * A saved remaining time is 64 bits wide; only its low 32 bits count, read
 * as a signed number, and restart at the moment of the restore.
 */
#include <cstring>

#include "vigil_log.h"
#include "vigil_migration.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"

#define VIGIL_V1_ENTRIES_OFFSET ((u32)sizeof(VigilSavedStateV1))
#define VIGIL_SAVED_DHCP6_FIXED_SIZE ((u32)sizeof(VigilSavedDhcp6Vmi))

/* discoveryFlags bits that let each part of a buffer in. */
#define VIGIL_RESTORE_V1_MASK                                                  \
   (VIGIL_DISC_DHCP | VIGIL_DISC_ARP | VIGIL_DISC_ND | VIGIL_DISC_DHCPV6)
#define VIGIL_RESTORE_IPV4_MASK (VIGIL_DISC_DHCP | VIGIL_DISC_ARP | VIGIL_DISC_STATIC)

/* Methods an IPv4 entry may carry: active lists hold DHCP, ARP and static
 * bindings, the expired list only ARP ones. */
#define VIGIL_RESTORE_ACTIVE_METHODS VIGIL_RESTORE_IPV4_MASK
#define VIGIL_RESTORE_EXPIRED_METHODS VIGIL_DISC_ARP

/* Whether `size` bytes from `offset` lie below `limit`. */
static inline bool VigilRestoreFits(u64 offset, u64 size, u64 limit) {
   return offset <= limit && size <= limit - offset;
}

static inline u16 VigilRestoreU16(const u8 *p) {
   u16 value;
   memcpy(&value, p, sizeof value);
   return value;
}

static inline u32 VigilRestoreU32(const u8 *p) {
   u32 value;
   memcpy(&value, p, sizeof value);
   return value;
}

/* A saved remaining time: its low 32 bits, sign-extended. */
static inline i64 VigilRestoreRemaining(const u8 *p) {
   u64 value;
   memcpy(&value, p, sizeof value);
   return (i64)(i32)(u32)value;
}

/* Whether `method` is exactly one of the bits of `allowed`. */
static inline bool VigilRestoreMethodAllowed(u8 method, u32 allowed) {
   return method != 0 && (method & (method - 1)) == 0 && (method & allowed) != 0;
}

/* What the IPv4 list builder reads: the entries of a V1 buffer or of one
 * TLV of type 2 or 5.  Offsets are from the start of the buffer. */
struct VigilVmiListSource {
   u32 portID;
   const u8 *buf;
   u32 bufLen;
   u32 tlvType;   /* 0 for V1 */
   u32 tlvOffset; /* where the TLV starts; 0 for V1 */
   u32 entries;   /* the first entry */
   u32 limit;     /* end of what may be read */
   u32 count;     /* entries announced */
   u32 methods;   /* methods an entry may carry */
};

void VigilFreeVMIList(VigilListLinks *list) {
   while (!VigilListIsEmpty(list)) {
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(list->next);
      VigilListRemove(&vmi->expiryLinks);
      /* Only a DHCP record with a client id has a block, and it is always
       * one of this host's. */
      Vigil_HeapFree(vmi->clientIdStr);
      vmi->clientIdStr = nullptr;
      Vigil_HeapFree(vmi);
   }
}

static void VigilLogIpv4EntryCut(const VigilVmiListSource *src, u32 index, u64 at) {
   if (src->tlvType == 0) {
      VIGIL_LOG_ERROR("Vigil migration restore (V1) for Port: %#x: entry %u at offset %u "
                      "runs past the end of the buffer (%u bytes)",
                      src->portID, index, (u32)at, src->bufLen);
   } else {
      VIGIL_LOG_ERROR("Vigil migration restore for Port: %#x: Tlv of type %#x at offset %u "
                      "ends inside entry %u at offset %u, the rest of the Tlv is skipped",
                      src->portID, src->tlvType, src->tlvOffset, index, (u32)at);
   }
}

static void VigilLogClientIdCut(const VigilVmiListSource *src, u32 index, u64 at,
                                u32 clientIdLen) {
   if (src->tlvType == 0) {
      VIGIL_LOG_ERROR("Vigil migration restore (V1) for Port: %#x: client id (%u bytes) of "
                      "entry %u at offset %u runs past the end of the buffer (%u bytes)",
                      src->portID, clientIdLen, index, (u32)at, src->bufLen);
   } else {
      VIGIL_LOG_ERROR("Vigil migration restore for Port: %#x: Tlv of type %#x at offset %u "
                      "ends inside the client id (%u bytes) of entry %u at offset %u, the "
                      "rest of the Tlv is skipped",
                      src->portID, src->tlvType, src->tlvOffset, clientIdLen, index,
                      (u32)at);
   }
}

static void VigilLogMethodSkipped(const VigilVmiListSource *src, u32 index, u64 at,
                                  u8 method) {
   if (src->tlvType == 0) {
      VIGIL_LOG_ERROR("Vigil migration restore (V1) for Port: %#x: entry %u at offset %u "
                      "has discMethod %u, skipped",
                      src->portID, index, (u32)at, method);
   } else {
      VIGIL_LOG_ERROR("Vigil migration restore for Port: %#x: Tlv of type %#x at offset %u: "
                      "entry %u at offset %u has discMethod %u, skipped",
                      src->portID, src->tlvType, src->tlvOffset, index, (u32)at, method);
   }
}

/* Builds the temporary list of IPv4 records, in the order of the buffer.
 *
 * Returns ZEK_OK with the list built, up to the first entry that does not
 * fit (*cut set then; the stop is logged).  A failed record allocation
 * frees the list and returns 0xbad0014.  A failed client id allocation
 * frees the list and returns ZEK_OK with the list empty: the restore goes
 * on with nothing from this part. */
static zek_Status VigilBuildVmiList(const VigilVmiListSource *src, VigilListLinks *list,
                                    bool *cut) {
   *cut = false;
   u64 at = src->entries;
   for (u32 i = 0; i < src->count; i++) {
      if (!VigilRestoreFits(at, VIGIL_SAVED_VMI_ENTRY_SIZE, src->limit)) {
         VigilLogIpv4EntryCut(src, i, at);
         *cut = true;
         return ZEK_OK;
      }
      VigilSavedVmi saved;
      memcpy(&saved, src->buf + at, sizeof saved);
      if (!VigilRestoreMethodAllowed(saved.discMethod, src->methods)) {
         VigilLogMethodSkipped(src, i, at, saved.discMethod);
         at += VIGIL_SAVED_VMI_ENTRY_SIZE;
         continue;
      }
      u32 clientIdLen = saved.discMethod == VIGIL_DISC_DHCP ? saved.clientIdLen : 0;
      if (!VigilRestoreFits(at + VIGIL_SAVED_VMI_ENTRY_SIZE, clientIdLen, src->limit)) {
         VigilLogClientIdCut(src, i, at, clientIdLen);
         *cut = true;
         return ZEK_OK;
      }

      VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
      if (vmi == nullptr) {
         VIGIL_LOG_ERROR("Vigil migration VMI alloc failed");
         VigilFreeVMIList(list);
         return VIGIL_STATUS_NO_MEMORY;
      }
      vmi->vlanId = saved.vlanId;
      memcpy(vmi->mac, saved.mac, sizeof vmi->mac);
      vmi->ip = saved.ip;
      vmi->discMethod = saved.discMethod;
      if (saved.discMethod == VIGIL_DISC_DHCP) {
         /* The DHCP part without the sender's pointer, which means nothing
          * here: the record's client id is this host's copy or nothing. */
         memcpy(vmi->clientMac, saved.clientMac, sizeof vmi->clientMac);
         vmi->clientIdLen = saved.clientIdLen;
         vmi->clientIdStr = nullptr;
         vmi->serverIp = saved.serverIp;
         vmi->leaseTime = saved.leaseTime;
         if (clientIdLen != 0) {
            vmi->clientIdStr = (u8 *)Vigil_HeapAlloc(clientIdLen);
            if (vmi->clientIdStr == nullptr) {
               VIGIL_LOG_ERROR("Vmi clientIdStr alloc failed");
               Vigil_HeapFree(vmi);
               VigilFreeVMIList(list);
               return ZEK_OK;
            }
            memcpy(vmi->clientIdStr, src->buf + at + VIGIL_SAVED_VMI_ENTRY_SIZE,
                   clientIdLen);
         }
      }
      if (saved.discMethod != VIGIL_DISC_STATIC) {
         /* A static binding never ends: its saved time is not even
          * written. */
         vmi->expiryTs = Vigil_UptimeSecs() +
                         VigilRestoreRemaining(src->buf + at + offsetof(VigilSavedVmi, remaining));
      }
      VigilListInsertBefore(list, &vmi->expiryLinks);
      at += VIGIL_SAVED_VMI_ENTRY_SIZE + clientIdLen;
   }
   return ZEK_OK;
}

zek_Status VigilCreateVMIList(u32 portID, const u8 *buf, u32 bufLen, VigilListLinks *list) {
   if (bufLen < VIGIL_V1_ENTRIES_OFFSET) {
      VIGIL_LOG_ERROR("Vigil migration restore (V1) for Port: %#x: buffer of %u bytes ends "
                      "inside the %u-byte header",
                      portID, bufLen, VIGIL_V1_ENTRIES_OFFSET);
      return VIGIL_STATUS_BAD_DATA;
   }
   VigilVmiListSource src;
   src.portID = portID;
   src.buf = buf;
   src.bufLen = bufLen;
   src.tlvType = 0;
   src.tlvOffset = 0;
   src.entries = VIGIL_V1_ENTRIES_OFFSET;
   src.limit = bufLen;
   src.count = VigilRestoreU32(buf + offsetof(VigilSavedStateV1, numVmiEntries));
   src.methods = VIGIL_RESTORE_ACTIVE_METHODS;
   bool cut = false;
   zek_Status status = VigilBuildVmiList(&src, list, &cut);
   if (status == ZEK_OK && cut) {
      /* A V1 buffer is one block: a part of it restores nothing. */
      VigilFreeVMIList(list);
      return VIGIL_STATUS_BAD_DATA;
   }
   return status;
}

zek_Status VigilCreateVMIListTlv(u32 portID, const u8 *buf, u32 tlvOffset, u32 tlvEnd,
                                 VigilListLinks *list) {
   VigilVmiListSource src;
   src.portID = portID;
   src.buf = buf;
   src.bufLen = tlvEnd; /* told only by V1 lines */
   src.tlvType = VigilRestoreU16(buf + tlvOffset);
   src.tlvOffset = tlvOffset;
   src.entries = tlvOffset + (u32)sizeof(VigilIpv4Tlv);
   src.limit = tlvEnd;
   src.count = VigilRestoreU32(buf + tlvOffset + offsetof(VigilIpv4Tlv, numVmiEntries));
   src.methods = src.tlvType == VIGIL_TLV_EXPIRED_IPV4_V1 ? VIGIL_RESTORE_EXPIRED_METHODS
                                                         : VIGIL_RESTORE_ACTIVE_METHODS;
   bool cut = false;
   /* What fits is kept: a cut TLV still restores its earlier entries. */
   return VigilBuildVmiList(&src, list, &cut);
}

/* A TLV too short for the counts behind its header: nothing of it is read. */
static bool VigilTlvHoldsCounts(u32 portID, u32 type, u32 tlvOffset, u32 tlvEnd,
                                u32 headerSize) {
   if (VigilRestoreFits(tlvOffset, headerSize, tlvEnd)) {
      return true;
   }
   VIGIL_LOG_ERROR("Vigil migration restore for Port: %#x: Tlv of type %#x at offset %u "
                   "ends before its counts (%u of %u bytes), skipped",
                   portID, type, tlvOffset, tlvEnd - tlvOffset, headerSize);
   return false;
}

void VigilProcessIpv4V1Tlv(VigilFilter *filter, const u8 *buf, u32 tlvOffset, u32 tlvEnd) {
   Vigil_AssertFilterIsLocked(filter, true);
   u32 portID = filter->portID;
   u16 type = VigilRestoreU16(buf + tlvOffset);
   u16 length = VigilRestoreU16(buf + tlvOffset + offsetof(VigilTlvHdr, length));
   VIGIL_LOG_VERBOSE(5, "Processing IPV4 V1 TLV for port: %#x, tlv_length: %u", portID,
                     length);
   if (!VigilTlvHoldsCounts(portID, type, tlvOffset, tlvEnd, (u32)sizeof(VigilIpv4Tlv))) {
      return;
   }
   VIGIL_LOG_VERBOSE(5, "numVmientries: %u, totClientIdLen: %u",
                     VigilRestoreU32(buf + tlvOffset + offsetof(VigilIpv4Tlv, numVmiEntries)),
                     VigilRestoreU32(buf + tlvOffset + offsetof(VigilIpv4Tlv, totClientIdLen)));

   /* Built whether or not discovery is on: a refused part is read all the
    * same, and its records freed. */
   VigilListLinks list;
   VigilListInit(&list);
   zek_Status status = VigilCreateVMIListTlv(portID, buf, tlvOffset, tlvEnd, &list);
   if (status != ZEK_OK) {
      VIGIL_LOG_VERBOSE(0, "Error creating VMIlist for portID: %#x, %s", portID,
                        zek_StatusToString(status));
      return;
   }
   /* Any IPv4 bit lets every IPv4 entry in, whatever its method. */
   if ((filter->discoveryFlags & VIGIL_RESTORE_IPV4_MASK) != 0) {
      /* A failure is logged there ("Add Vmi failed") and has cleared the
       * IPv4 database; the TLV path reports nothing more. */
      (void)Vigil_RestoreVMIEntryList(filter, &list);
   } else {
      VIGIL_LOG_VERBOSE(0, "IP Discovery disabled for portID: %#x", portID);
   }
   VigilFreeVMIList(&list);
   VIGIL_LOG_VERBOSE(5, "Finished restoring IPv4 runtime data associated with the port Id %#x ",
                     portID);
}

void VigilProcessNdV1Tlv(VigilFilter *filter, const u8 *buf, u32 tlvOffset, u32 tlvEnd) {
   Vigil_AssertFilterIsLocked(filter, true);
   u32 portID = filter->portID;
   u16 type = VigilRestoreU16(buf + tlvOffset);
   u16 length = VigilRestoreU16(buf + tlvOffset + offsetof(VigilTlvHdr, length));
   VIGIL_LOG_VERBOSE(5, "Processing ND V1 TLV for port: %#x, tlv_length: %u", portID, length);
   if ((filter->discoveryFlags & VIGIL_DISC_ND) == 0) {
      VIGIL_LOG_VERBOSE(0, "ND Snooping disabled, skipping restoring bindings for port %#x",
                        portID);
      return;
   }
   if (!VigilTlvHoldsCounts(portID, type, tlvOffset, tlvEnd, (u32)sizeof(VigilNdTlv))) {
      return;
   }
   u32 count = VigilRestoreU32(buf + tlvOffset + offsetof(VigilNdTlv, numVmi));
   VIGIL_LOG_VERBOSE(5, "Trying to restore %u ND VMIs", count);

   u64 at = tlvOffset + (u32)sizeof(VigilNdTlv);
   for (u32 i = 0; i < count; i++, at += VIGIL_SAVED_V6_ENTRY_SIZE) {
      if (!VigilRestoreFits(at, VIGIL_SAVED_V6_ENTRY_SIZE, tlvEnd)) {
         VIGIL_LOG_ERROR("Vigil migration restore for Port: %#x: Tlv of type %#x at offset "
                         "%u ends inside entry %u at offset %u, the rest of the Tlv is "
                         "skipped",
                         portID, type, tlvOffset, i, (u32)at);
         break;
      }
      VigilSavedNdVmi saved;
      memcpy(&saved, buf + at, sizeof saved);
      VigilV6Vmi tmpl;
      memset(&tmpl, 0, sizeof tmpl);
      tmpl.discMethod = VIGIL_DISC_ND;
      tmpl.vlanId = saved.vlanId;
      memcpy(tmpl.mac, saved.mac, sizeof tmpl.mac);
      memcpy(tmpl.ip, saved.ip, sizeof tmpl.ip);
      tmpl.expiryTs = Vigil_UptimeSecs() +
                      VigilRestoreRemaining(buf + at + offsetof(VigilSavedNdVmi, remaining));
      zek_Status status = VigilAddV6Vmi(filter, &tmpl);
      if (status != ZEK_OK) {
         VIGIL_LOG_THROTTLED("Filter %#x Unable to add VMI: %s", portID,
                             zek_StatusToString(status));
      }
   }
   VIGIL_LOG_VERBOSE(5, "Finished restoring ND bindings for port %#x", portID);
}

void VigilProcessDhcp6V1Tlv(VigilFilter *filter, const u8 *buf, u32 tlvOffset, u32 tlvEnd) {
   Vigil_AssertFilterIsLocked(filter, true);
   u32 portID = filter->portID;
   u16 type = VigilRestoreU16(buf + tlvOffset);
   u16 length = VigilRestoreU16(buf + tlvOffset + offsetof(VigilTlvHdr, length));
   VIGIL_LOG_VERBOSE(5, "Processing DHCP6 V1 TLV for port: %#x, tlv_length: %u", portID,
                     length);
   if ((filter->discoveryFlags & VIGIL_DISC_DHCPV6) == 0) {
      VIGIL_LOG_VERBOSE(0,
                        "DHCPv6 Snooping disabled, skipping restoring bindings for port %#x",
                        portID);
      return;
   }
   if (!VigilTlvHoldsCounts(portID, type, tlvOffset, tlvEnd, (u32)sizeof(VigilDhcp6Tlv))) {
      return;
   }
   /* The count is only told: the entries run to the end of the TLV. */
   VIGIL_LOG_VERBOSE(5, "Trying to restore %u DHCPv6 VMIs",
                     VigilRestoreU32(buf + tlvOffset + offsetof(VigilDhcp6Tlv, numVmiEntries)));

   u64 at = tlvOffset + (u32)sizeof(VigilDhcp6Tlv);
   for (u32 i = 0; at < tlvEnd; i++) {
      if (!VigilRestoreFits(at, VIGIL_SAVED_DHCP6_FIXED_SIZE, tlvEnd)) {
         VIGIL_LOG_ERROR("Vigil migration restore for Port: %#x: Tlv of type %#x at offset "
                         "%u ends inside entry %u at offset %u, the rest of the Tlv is "
                         "skipped",
                         portID, type, tlvOffset, i, (u32)at);
         break;
      }
      VigilSavedDhcp6Vmi saved;
      memcpy(&saved, buf + at, sizeof saved);
      u32 clientIdLen = saved.clientIdLen;
      /* The 8 bytes behind the client id are never read, so they need not
       * be there. */
      if (!VigilRestoreFits(at + VIGIL_SAVED_DHCP6_FIXED_SIZE, clientIdLen, tlvEnd)) {
         VIGIL_LOG_ERROR("Vigil migration restore for Port: %#x: Tlv of type %#x at offset "
                         "%u ends inside the client id (%u bytes) of entry %u at offset %u, "
                         "the rest of the Tlv is skipped",
                         portID, type, tlvOffset, clientIdLen, i, (u32)at);
         break;
      }
      u64 next = at + VIGIL_SAVED_DHCP6_ENTRY_SIZE + clientIdLen;

      VigilV6Vmi tmpl;
      memset(&tmpl, 0, sizeof tmpl);
      tmpl.discMethod = VIGIL_DISC_DHCPV6;
      tmpl.vlanId = saved.vlanId;
      memcpy(tmpl.mac, saved.mac, sizeof tmpl.mac);
      memcpy(tmpl.ip, saved.ip, sizeof tmpl.ip);
      tmpl.expiryTs = Vigil_UptimeSecs() +
                      VigilRestoreRemaining(buf + at + offsetof(VigilSavedDhcp6Vmi, remaining));
      tmpl.iaId = saved.iaId;
      memcpy(tmpl.serverIp, saved.serverIp, sizeof tmpl.serverIp);
      tmpl.validLifetime = (i32)saved.validLifetime;
      tmpl.preferredLifetime = saved.preferredLifetime;
      tmpl.clientIdLen = saved.clientIdLen;
      tmpl.clientId = nullptr;
      if (clientIdLen != 0) {
         tmpl.clientId = (u8 *)Vigil_HeapAlloc(clientIdLen);
         if (tmpl.clientId == nullptr) {
            /* Without its client id the binding would be added wrong:
             * this one entry is left out. */
            VIGIL_LOG_ERROR("Vigil migration restore for Port: %#x: Tlv of type %#x at "
                            "offset %u: no memory for the client id (%u bytes) of entry %u "
                            "at offset %u, skipped",
                            portID, type, tlvOffset, clientIdLen, i, (u32)at);
            at = next;
            continue;
         }
         memcpy(tmpl.clientId, buf + at + VIGIL_SAVED_DHCP6_FIXED_SIZE, clientIdLen);
      }
      /* The table makes its own copies; the template's block stays here. */
      zek_Status status = VigilAddV6Vmi(filter, &tmpl);
      if (status != ZEK_OK) {
         VIGIL_LOG_THROTTLED("Filter %#x Unable to add VMI: %s", portID,
                             zek_StatusToString(status));
      }
      Vigil_HeapFree(tmpl.clientId);
      at = next;
   }
   VIGIL_LOG_VERBOSE(5, "Finished restoring DHCPv6 bindings for port %#x", portID);
}

zek_Status VigilMigrationValidateData(u32 portID, const void *buf, u32 bufLen,
                                      u64 elapsedMS) {
   /* No buffer reads as one too short for its header. */
   if (buf == nullptr || bufLen < sizeof(VigilSavedStateHdr)) {
      VIGIL_LOG_ERROR_CODE(VIGIL_STATUS_BAD_DATA,
                           "Unable to read saved state header: invalid length for port: 0x%x",
                           portID);
      return VIGIL_STATUS_BAD_DATA;
   }
   VIGIL_LOG_VERBOSE(4, "Vigil migrating for port: 0x%x elapsed %lu millisecond", portID,
                     (unsigned long)elapsedMS);
   VigilSavedStateHdr hdr;
   memcpy(&hdr, buf, sizeof hdr);
   if (hdr.magic != VIGIL_SAVED_STATE_MAGIC) {
      VIGIL_LOG_ERROR_CODE(VIGIL_STATUS_BAD_PARAM,
                           "Unable to read saved state header: invalid magic for port: 0x%x",
                           portID);
      return VIGIL_STATUS_BAD_PARAM;
   }
   if (hdr.version != VIGIL_SAVE_VERSION_TLV && hdr.version != VIGIL_SAVE_VERSION_V1) {
      VIGIL_LOG_ERROR_CODE(VIGIL_STATUS_BAD_PARAM, "Version %d not supported on port: 0x%x",
                           (int)hdr.version, portID);
      return VIGIL_STATUS_BAD_PARAM;
   }
   return ZEK_OK;
}

zek_Status VigilMigrationRestoreV1(u32 portID, const void *buf, u32 bufLen, u64 elapsedMS) {
   VIGIL_LOG_VERBOSE(0,
                     "Vigil migration restore for Port: 0x%x, bufLen: %u, elapsedMS: %lu, "
                     "version: V1",
                     portID, bufLen, (unsigned long)elapsedMS);
   /* The list is built before the lock is taken: only the adds need it. */
   VigilListLinks list;
   VigilListInit(&list);
   zek_Status status = VigilCreateVMIList(portID, (const u8 *)buf, bufLen, &list);
   if (status == VIGIL_STATUS_NO_MEMORY) {
      VIGIL_LOG_VERBOSE(0, "Error creating VMIlist for portID: %#x, %s", portID,
                        zek_StatusToString(status));
      return status;
   }
   if (status != ZEK_OK) {
      return status; /* a buffer that ends early: logged where it was found */
   }
   VigilFilter *filter = Vigil_LockFilter(portID, true);
   if (filter == nullptr) {
      VIGIL_LOG_ERROR("Vigil Migration restore on unconfigured port %d", (int)portID);
      status = VIGIL_STATUS_NOT_FOUND;
   } else {
      /* Any snooping bit lets the IPv4 entries in, IPv6 ones included. */
      if ((filter->discoveryFlags & VIGIL_RESTORE_V1_MASK) == 0) {
         VIGIL_LOG_VERBOSE(0, "IP Discovery disabled for portID: %#x", portID);
      } else {
         status = Vigil_RestoreVMIEntryList(filter, &list);
      }
      Vigil_UnlockFilter(filter, true);
   }
   VigilFreeVMIList(&list);
   VIGIL_LOG_VERBOSE(5, "Finished restoring the runtime data associated with the port Id 0x%x ",
                     portID);
   return status;
}

zek_Status VigilMigrationRestoreTlv(u32 portID, const void *buf, u32 bufLen, u64 elapsedMS) {
   VIGIL_LOG_VERBOSE(0,
                     "Vigil migration restore for Port: 0x%x, bufLen: %u, elapsedMS: %lu, "
                     "version: TLV",
                     portID, bufLen, (unsigned long)elapsedMS);
   VigilFilter *filter = Vigil_LockFilter(portID, true);
   if (filter == nullptr) {
      VIGIL_LOG_ERROR("Vigil Migration restore on unconfigured port %d", (int)portID);
      return VIGIL_STATUS_NOT_FOUND;
   }
   const u8 *bytes = (const u8 *)buf;
   u64 at = sizeof(VigilSavedStateHdr);
   while (at < bufLen) {
      if (!VigilRestoreFits(at, sizeof(VigilTlvHdr), bufLen)) {
         VIGIL_LOG_ERROR("Vigil migration restore for Port: %#x: %u bytes at offset %u can't "
                         "hold a Tlv header, the walk ends",
                         portID, (u32)(bufLen - at), (u32)at);
         break;
      }
      u32 tlvOffset = (u32)at;
      u16 type = VigilRestoreU16(bytes + tlvOffset);
      u16 length = VigilRestoreU16(bytes + tlvOffset + offsetof(VigilTlvHdr, length));
      VIGIL_LOG_VERBOSE(5, "Processing Tlv of type: %#x, length: %u", type, length);
      /* The entries of a TLV lie inside it, and inside the buffer. */
      u64 end = at + sizeof(VigilTlvHdr) + length;
      u32 tlvEnd = end < bufLen ? (u32)end : bufLen;
      switch (type) {
      case VIGIL_TLV_IPV4_V1:
      case VIGIL_TLV_EXPIRED_IPV4_V1:
         VigilProcessIpv4V1Tlv(filter, bytes, tlvOffset, tlvEnd);
         break;
      case VIGIL_TLV_ND_V1:
      case VIGIL_TLV_EXPIRED_ND_V1:
         VigilProcessNdV1Tlv(filter, bytes, tlvOffset, tlvEnd);
         break;
      case VIGIL_TLV_DHCP6_V1:
         VigilProcessDhcp6V1Tlv(filter, bytes, tlvOffset, tlvEnd);
         break;
      default:
         /* A later writer's type: passed over by its length. */
         VIGIL_LOG_VERBOSE(0, "Unknown Tlv of type: %#x, length: %u", type, length);
         break;
      }
      at = end;
   }
   Vigil_UnlockFilter(filter, true);
   /* What went wrong inside a TLV is logged; the restore stands. */
   return ZEK_OK;
}

zek_Status VigilMigrationRestore(u32 portID, const void *buf, u32 bufLen, u64 elapsedMS) {
   if (bufLen == 0) {
      /* A source with nothing to save sends nothing. */
      VIGIL_LOG_VERBOSE(0,
                        "Stop Vigil migration restore for Port: 0x%x, elapsedMS: %lu, for "
                        "bufLen: %u",
                        portID, (unsigned long)elapsedMS, bufLen);
      return ZEK_OK;
   }
   VIGIL_LOG_VERBOSE(5, "Vigil migration restore for Port: 0x%x, bufLen: %u, elapsedMS: %lu",
                     portID, bufLen, (unsigned long)elapsedMS);
   zek_Status status = VigilMigrationValidateData(portID, buf, bufLen, elapsedMS);
   if (status != ZEK_OK) {
      VIGIL_LOG_VERBOSE(0, "Migration data validation failed for portID: 0x%x, %s", portID,
                        zek_StatusToString(status));
      return status;
   }
   u32 version = VigilRestoreU32((const u8 *)buf + offsetof(VigilSavedStateHdr, version));
   if (version == VIGIL_SAVE_VERSION_V1) {
      status = VigilMigrationRestoreV1(portID, buf, bufLen, elapsedMS);
      if (status != ZEK_OK) {
         VIGIL_LOG_ERROR_CODE(status, "Vigil migration restore (V1) failed for Port: %#x",
                              portID);
      }
      return status;
   }
   VIGIL_LOG_VERBOSE(5, "Recvd TLV type");
   status = VigilMigrationRestoreTlv(portID, buf, bufLen, elapsedMS);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "Vigil migration restore (TLV) failed for Port: %#x", portID);
   }
   return status;
}
