/*
 * The IPv4 binding table: find, add, delete and refresh of VigilVmi records.
 *
 * Every binding is in the hash and in exactly one of two lists ordered by
 * expiry: vmiList for bindings still running (and all DHCP and static ones),
 * expiredVmiList for ARP bindings kept past their end while delete-on-expiry
 * is off.  Additions and removals are published, and every change of the
 * earliest expiry is reported to the aging world.
 */
#include <cstring>

#include "vigil_log.h"
#include "vigil_vmi.h"


static OxaHashCommon *VigilVmiHashOf(VigilFilter *filter) {
   return &filter->vmiHash->common;
}

zek_Status VigilVmiHashAlloc(VigilVmiHash **hash) {
   u32 size = (u32)(sizeof(VigilVmiHash) +
                    VIGIL_VMI_HASH_BUCKETS * sizeof(OxaHashBucket));
   VigilVmiHash *table = (VigilVmiHash *)Vigil_HeapAlloc(size);
   if (table == nullptr) {
      VIGIL_LOG_ERROR("Could not allocate VMI hash(%s).",
                      zek_StatusToString(VIGIL_STATUS_NO_MEMORY));
      return VIGIL_STATUS_NO_MEMORY;
   }
   zek_Status status = OxaHashInit(&table->common, heapID, VIGIL_VMI_HASH_BUCKETS,
                                   VIGIL_VMI_KEY_LEN, offsetof(VigilVmi, vlanId),
                                   offsetof(VigilVmi, hashLinks),
                                   OXA_HASH_KEY_BYTES);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Could not allocate VMI hash(%s).", zek_StatusToString(status));
      Vigil_HeapFree(table);
      return status;
   }
   *hash = table;
   return ZEK_OK;
}

VigilVmi *VigilFindVmi(VigilFilter *filter, u16 vlanId, const u8 *mac, u32 ip) {
   Vigil_AssertFilterIsLocked(filter, false);
   if (filter->numVmis == 0) {
      return nullptr;
   }
   u8 key[VIGIL_VMI_KEY_LEN];
   memcpy(key, &vlanId, 2);
   memcpy(key + 2, mac, 6);
   memcpy(key + 8, &ip, 4);
   return (VigilVmi *)OxaHashFind(VigilVmiHashOf(filter), key);
}

/* Links a record into an expiry-ordered list whose links lie at
 * `linksOffset` in the record: before the first record with a strictly
 * greater expiry, so equal expiries keep their insertion order. */
static void VigilInsertByExpiry(VigilListLinks *head, VigilVmi *vmi,
                                size_t linksOffset) {
   VIGIL_LIST_FOR_EACH(pos, head) {
      VigilVmi *other = (VigilVmi *)((u8 *)pos - linksOffset);
      if (other->expiryTs > vmi->expiryTs) {
         VigilListInsertBefore(pos, (VigilListLinks *)((u8 *)vmi + linksOffset));
         return;
      }
   }
   VigilListInsertBefore(head, (VigilListLinks *)((u8 *)vmi + linksOffset));
}

void VigilInsertIntoVmiList(VigilFilter *filter, VigilVmi *vmi) {
   Vigil_AssertFilterIsLocked(filter, true);
   VigilInsertByExpiry(&filter->vmiList, vmi, offsetof(VigilVmi, expiryLinks));
}

static void VigilInsertIntoExpiredList(VigilFilter *filter, VigilVmi *vmi) {
   VigilInsertByExpiry(&filter->expiredVmiList, vmi,
                       offsetof(VigilVmi, expiredLinks));
   filter->numExpiredVmis++;
}

/* Takes a record off whichever expiry list holds it.  Returns true when it
 * was on vmiList. */
static bool VigilUnlinkFromExpiryLists(VigilFilter *filter, VigilVmi *vmi) {
   if (vmi->expiredLinks.prev != nullptr || vmi->expiredLinks.next != nullptr) {
      VigilListRemove(&vmi->expiredLinks);
      filter->numExpiredVmis--;
      return false;
   }
   VigilListRemove(&vmi->expiryLinks);
   return true;
}

zek_Status VigilAddVmi(VigilFilter *filter, VigilVmi *vmi) {
   Vigil_AssertFilterIsLocked(filter, true);

   if (VigilMatchV4IgnoreList(filter, vmi->vlanId, vmi->mac, vmi->ip)) {
      filter->stats.statV4VmiAddRefused++;
      return VIGIL_STATUS_IGNORED;
   }

   /* A stronger method replaces a weaker one: static over DHCP over ARP. */
   VigilVmi *existing = VigilFindVmi(filter, vmi->vlanId, vmi->mac, vmi->ip);
   if (existing != nullptr) {
      switch (existing->discMethod) {
      case VIGIL_DISC_ARP:
         if (vmi->discMethod != VIGIL_DISC_DHCP &&
             vmi->discMethod != VIGIL_DISC_STATIC) {
            return VIGIL_STATUS_EXISTS;
         }
         VigilDelVmi(filter, existing);
         break;
      case VIGIL_DISC_STATIC:
         return VIGIL_STATUS_EXISTS;
      case VIGIL_DISC_DHCP:
         if (vmi->discMethod != VIGIL_DISC_STATIC) {
            return VIGIL_STATUS_EXISTS;
         }
         VigilDelVmi(filter, existing);
         break;
      default:
         break;
      }
   }

   if (vmi->discMethod == VIGIL_DISC_DHCP) {
      if (filter->numDhcpVmis >= VIGIL_PORTDB_DHCP_ENTRIES) {
         VIGIL_LOG_THROTTLED("Filter %#x Exceeding the max DHCP portDbSize %u",
                             filter->portID, VIGIL_PORTDB_DHCP_ENTRIES);
         return VIGIL_STATUS_LIMIT;
      }
   } else if (vmi->discMethod == VIGIL_DISC_ARP) {
      if (filter->numArpVmis >= filter->portDbArpEntriesSize) {
         if (VigilListIsEmpty(&filter->expiredVmiList)) {
            VIGIL_LOG_THROTTLED("Filter %#x Exceeding the max ARP portDbSize %u",
                                filter->portID, filter->portDbArpEntriesSize);
            return VIGIL_STATUS_LIMIT;
         }
         VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRED(filter->expiredVmiList.next));
      }
   }

   bool expired = false;
   if (vmi->discMethod == VIGIL_DISC_ARP) {
      expired = !(vmi->expiryTs > Vigil_UptimeSecs());
   }

   OxaHashInsert(VigilVmiHashOf(filter), vmi);
   bool inVmiList = !expired || GetDeleteExpiry();
   if (inVmiList) {
      VigilInsertIntoVmiList(filter, vmi);
   } else {
      VigilInsertIntoExpiredList(filter, vmi);
   }

   filter->numVmis++;
   if (vmi->discMethod == VIGIL_DISC_DHCP) {
      filter->numDhcpVmis++;
      filter->totalClientIdLen += vmi->clientIdLen;
   } else if (vmi->discMethod == VIGIL_DISC_ARP) {
      filter->numArpVmis++;
   } else if (vmi->discMethod == VIGIL_DISC_STATIC) {
      filter->numStaticVmis++;
   }

   if (inVmiList) {
      VigilUpdateFilterAging(filter);
   }
   VigilPostPortDbMsg(filter, VIGIL_PORTDB_MSG_ADDED, vmi);
   vmi->gratuitous = 0;

   VIGIL_LOG_VERBOSE(1,
                     "Filter %#x New vmi: vlanId = %u mac = " VIGIL_MAC_FMT
                     " ip = %u.%u.%u.%u",
                     filter->portID, vmi->vlanId, VIGIL_MAC_ARGS(vmi->mac),
                     VIGIL_IP_ARGS(vmi->ip));
   VIGIL_LOG_VERBOSE(2, "Filter %#x New vmi: discMethod = %d [%u %u %u %u %u]",
                     filter->portID, vmi->discMethod, filter->numVmis,
                     filter->numDhcpVmis, filter->numArpVmis,
                     filter->numExpiredVmis, filter->numStaticVmis);
   return ZEK_OK;
}

void VigilDelVmi(VigilFilter *filter, VigilVmi *vmi) {
   Vigil_AssertFilterIsLocked(filter, true);

   bool wasInVmiList = VigilUnlinkFromExpiryLists(filter, vmi);
   OxaHashRemove(VigilVmiHashOf(filter), vmi);
   filter->numVmis--;
   if (vmi->clientIdStr != nullptr) {
      Vigil_HeapFree(vmi->clientIdStr);
      vmi->clientIdStr = nullptr;
   }
   if (vmi->discMethod == VIGIL_DISC_DHCP) {
      filter->numDhcpVmis--;
      filter->totalClientIdLen -= vmi->clientIdLen;
   } else if (vmi->discMethod == VIGIL_DISC_ARP) {
      filter->numArpVmis--;
   } else if (vmi->discMethod == VIGIL_DISC_STATIC) {
      filter->numStaticVmis--;
   }
   if (wasInVmiList) {
      VigilUpdateFilterAging(filter);
   }
   VigilPostPortDbMsg(filter, VIGIL_PORTDB_MSG_REMOVED, vmi);

   u8 discMethod = vmi->discMethod;
   u16 vlanId = vmi->vlanId;
   u8 mac[6];
   memcpy(mac, vmi->mac, 6);
   u32 ip = vmi->ip;
   Vigil_HeapFree(vmi);
   VIGIL_LOG_VERBOSE(2,
                     "Filter %#x Deleted vmi: %u vlanId = %u mac = " VIGIL_MAC_FMT
                     " ip = %u.%u.%u.%u: [%u %u %u %u]",
                     filter->portID, discMethod, vlanId, VIGIL_MAC_ARGS(mac),
                     VIGIL_IP_ARGS(ip), filter->numVmis, filter->numDhcpVmis,
                     filter->numArpVmis, filter->numStaticVmis);
}

void VigilRefreshVmiExpiryTs(VigilFilter *filter, VigilVmi *vmi, i64 expiryTs) {
   Vigil_AssertFilterIsLocked(filter, true);
   vmi->expiryTs = expiryTs;
   VigilUnlinkFromExpiryLists(filter, vmi);
   VigilInsertIntoVmiList(filter, vmi);
}

void VigilReduceArpEntries(VigilFilter *filter, u32 target) {
   Vigil_AssertFilterIsLocked(filter, true);
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->expiredVmiList) {
      if (filter->numArpVmis <= target) {
         return;
      }
      VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRED(pos));
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->vmiList) {
      if (filter->numArpVmis <= target) {
         return;
      }
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      if (vmi->discMethod == VIGIL_DISC_ARP) {
         VigilDelVmi(filter, vmi);
      }
   }
}
