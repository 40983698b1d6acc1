/*
 * The port database seen from outside the table: the query that copies
 * bindings of both families into a caller's buffer, the deletion by keys,
 * the three functions sibling modules call by name, and the re-insertion
 * of bindings a restore has rebuilt.
 */
#include "vigil_log.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"

#define VIGIL_DISC_V4_MASK (VIGIL_DISC_DHCP | VIGIL_DISC_ARP | VIGIL_DISC_STATIC)
#define VIGIL_DISC_ALL_MASK (VIGIL_DISC_V4_MASK | VIGIL_DISC_ND | VIGIL_DISC_DHCPV6)

void VigilFillPortDbEntry(VigilPortDbEntry *entry, const VigilVmi *vmi) {
   entry->vlanId = vmi->vlanId;
   memcpy(entry->mac, vmi->mac, 6);
   entry->isIpv4 = 1;
   memset(entry->ip, 0, sizeof entry->ip);
   memcpy(entry->ip, &vmi->ip, 4);
   entry->bound = vmi->discMethod == VIGIL_DISC_DHCP || vmi->discMethod == VIGIL_DISC_STATIC;
   entry->discMethod = vmi->discMethod;
}

/* Writes entry number `n` of the buffer in `format`; an unknown format
 * writes nothing and is logged. */
static void VigilWriteEntry(VigilFilter *filter, void *buffer, u32 n, u32 format,
                            const VigilVmi *vmi) {
   switch (format) {
   case VIGIL_QUERY_FORMAT_RECORD:
      memcpy((VigilVmi *)buffer + n, vmi, sizeof *vmi);
      break;
   case VIGIL_QUERY_FORMAT_ENTRY:
      VigilFillPortDbEntry((VigilPortDbEntry *)buffer + n, vmi);
      break;
   case VIGIL_QUERY_FORMAT_KEY: {
      VigilVmiKey *key = (VigilVmiKey *)buffer + n;
      key->vlanId = vmi->vlanId;
      memcpy(key->mac, vmi->mac, 6);
      key->ip = vmi->ip;
      break;
   }
   default:
      VIGIL_LOG_INFO("Filter %#x Unsupported query format: %#x", filter->portID, format);
      break;
   }
}

/* Copies the records of `list` (linked through the links at `linksOffset`)
 * whose method is in `mask`, while there is room.  Returns false once the
 * buffer is full. */
static bool VigilQueryList(VigilFilter *filter, VigilListLinks *list, size_t linksOffset,
                           void *buffer, u32 capacity, u32 *n, u32 format, u8 mask) {
   VIGIL_LIST_FOR_EACH(pos, list) {
      /* Compared before each write: nothing lands past the capacity. */
      if (*n >= capacity) {
         return false;
      }
      const VigilVmi *vmi = (const VigilVmi *)((u8 *)pos - linksOffset);
      if (vmi->discMethod & mask) {
         VigilWriteEntry(filter, buffer, *n, format, vmi);
         (*n)++;
      }
   }
   return *n < capacity;
}

void VigilQueryPortDb(VigilFilter *filter, void *buffer, u32 capacity, u32 *count,
                      u32 format, u8 mask) {
   Vigil_AssertFilterIsLocked(filter, false);
   if (count != nullptr) {
      *count = 0;
   }
   if (format == VIGIL_QUERY_FORMAT_RECORD && (mask & VIGIL_DISC_V4_MASK) != 0 &&
       (mask & (VIGIL_DISC_ND | VIGIL_DISC_DHCPV6)) != 0) {
      /* Whole records of the two families differ in size and can't share
       * one buffer: the IPv6 ones would land past a buffer sized for IPv4
       * records. */
      return;
   }
   u32 n = 0;
   if ((mask & VIGIL_DISC_V4_MASK) != 0 && !(count != nullptr && capacity == 0)) {
      if (VigilQueryList(filter, &filter->vmiList, offsetof(VigilVmi, expiryLinks), buffer,
                         capacity, &n, format, mask)) {
         /* Expired ARP bindings are listed like any other, behind. */
         (void)VigilQueryList(filter, &filter->expiredVmiList,
                              offsetof(VigilVmi, expiredLinks), buffer, capacity, &n,
                              format, mask);
      }
   }
   if (count != nullptr) {
      *count = n;
   }
   if (mask & (VIGIL_DISC_ND | VIGIL_DISC_DHCPV6)) {
      VigilQueryPortDbV6(filter, buffer, capacity, count, format, mask);
   }
}

void VigilClearVmi(VigilFilter *filter, bool all, u32 count, const VigilVmiKey *keys) {
   Vigil_AssertFilterIsLocked(filter, true);
   if (all) {
      VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->expiredVmiList) {
         VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRED(pos));
      }
      VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->vmiList) {
         VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
         if (vmi->discMethod != VIGIL_DISC_STATIC) {
            VigilDelVmi(filter, vmi);
         }
      }
      return;
   }
   for (u32 i = 0; i < count; i++) {
      const VigilVmiKey *key = &keys[i];
      VigilVmi *vmi = VigilFindVmi(filter, key->vlanId, key->mac, key->ip);
      if (vmi == nullptr) {
         continue;
      }
      if (vmi->discMethod == VIGIL_DISC_STATIC) {
         /* A management delete doesn't reach a static binding. */
         VIGIL_LOG_ERROR("Trying to delete a static entry: %u " VIGIL_MAC_FMT
                         " %u.%u.%u.%u",
                         key->vlanId, VIGIL_MAC_ARGS(key->mac), VIGIL_IP_ARGS(key->ip));
         continue;
      }
      VigilDelVmi(filter, vmi);
   }
}

/* The methods of an entry class, 0 for a class the API doesn't know. */
static u8 VigilClassMask(u32 entryClass) {
   switch (entryClass) {
   case VIGIL_PORTDB_CLASS_ASSIGNED:
      return VIGIL_DISC_DHCP | VIGIL_DISC_STATIC | VIGIL_DISC_DHCPV6;
   case VIGIL_PORTDB_CLASS_SNOOPED:
      return VIGIL_DISC_ARP | VIGIL_DISC_ND;
   case VIGIL_PORTDB_CLASS_ALL:
      return VIGIL_DISC_ALL_MASK;
   default:
      return 0;
   }
}

extern "C" zek_Status Vigil_PortDBGetNumEntries(zek_PortID portID, u32 entryClass,
                                                u32 *count) {
   if (count == nullptr) {
      return VIGIL_STATUS_BAD_PARAM;
   }
   VigilFilter *filter = Vigil_LockFilter(portID, false);
   if (filter == nullptr) {
      return VIGIL_STATUS_NOT_FOUND;
   }
   switch (entryClass) {
   case VIGIL_PORTDB_CLASS_ASSIGNED:
      *count = filter->numStaticVmis + filter->numDhcpVmis + filter->numDhcpV6Entries;
      break;
   case VIGIL_PORTDB_CLASS_SNOOPED:
      *count = filter->numNdEntries + filter->numArpVmis;
      break;
   case VIGIL_PORTDB_CLASS_ALL:
      *count = filter->numNdEntries + filter->numVmis + filter->numDhcpV6Entries;
      break;
   default:
      *count = 0;
      break;
   }
   Vigil_UnlockFilter(filter, false);
   return ZEK_OK;
}

extern "C" zek_Status Vigil_PortDBGetEntries(zek_PortID portID, u32 entryClass,
                                             VigilPortDbEntry *buffer, u32 capacity,
                                             u32 *count) {
   if (buffer == nullptr || count == nullptr) {
      return VIGIL_STATUS_BAD_PARAM;
   }
   VigilFilter *filter = Vigil_LockFilter(portID, false);
   if (filter == nullptr) {
      return VIGIL_STATUS_NOT_FOUND;
   }
   *count = 0;
   VigilQueryPortDb(filter, buffer, capacity, count, VIGIL_QUERY_FORMAT_ENTRY,
                    VigilClassMask(entryClass));
   Vigil_UnlockFilter(filter, false);
   return ZEK_OK;
}

extern "C" zek_Status Vigil_PortDBDelEntries(zek_PortID portID, u32 ip, const u8 *mac) {
   /* A caller's null MAC is refused like the other calls' null pointers. */
   if (mac == nullptr) {
      return VIGIL_STATUS_BAD_PARAM;
   }
   VigilFilter *filter = Vigil_LockFilter(portID, true);
   if (filter == nullptr) {
      VIGIL_LOG_ERROR("Vigil filter not found for port %u", portID);
      return VIGIL_STATUS_NOT_FOUND;
   }
   /* The VLAN is no criterion: of two VLANs with the address, the binding
    * nearer its end goes, and only it. */
   VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      if (vmi->ip == ip && memcmp(vmi->mac, mac, 6) == 0 &&
          vmi->discMethod != VIGIL_DISC_STATIC) {
         VigilDelVmi(filter, vmi);
         Vigil_UnlockFilter(filter, true);
         return ZEK_OK;
      }
   }
   Vigil_UnlockFilter(filter, true);
   return VIGIL_STATUS_NOT_FOUND;
}

zek_Status Vigil_RestoreVMIEntryList(VigilFilter *filter, VigilListLinks *list) {
   Vigil_AssertFilterIsLocked(filter, true);
   while (!VigilListIsEmpty(list)) {
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(list->next);
      VigilListRemove(&vmi->expiryLinks);
      /* The table links the record afresh: it must come in on no list. */
      memset(&vmi->hashLinks, 0, sizeof vmi->hashLinks);
      memset(&vmi->expiredLinks, 0, sizeof vmi->expiredLinks);
      zek_Status status = VigilAddVmi(filter, vmi);
      if (status != ZEK_OK) {
         VIGIL_LOG_ERROR_CODE(status, "Add Vmi failed");
         /* The record stays the caller's, and with it the rest of the
          * list; what this restore brought in goes with the rest. */
         VigilListInsertBefore(list, &vmi->expiryLinks);
         VigilClearVmi(filter, true, 0, nullptr);
         return status;
      }
   }
   return ZEK_OK;
}
