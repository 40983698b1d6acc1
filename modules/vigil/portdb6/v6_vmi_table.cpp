/*
 * The IPv6 binding table: a hash of 32 buckets over the bindings, the list
 * of running bindings by expiry, and the list of expired ND bindings kept
 * while delete-on-expiry is off.  ND and DHCPv6 bindings replace each other
 * by fixed rules: DHCPv6 takes an address over from ND, never the reverse.
 * A binding is due when its expiry is at or below now.
 */
#include "vigil_atomic.h"
#include "vigil_config.h"
#include "vigil_log.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_workers.h"

#define VIGIL_V6_ADDR_ARGS(a)                                                  \
   VigilGetBe16((a) + 0), VigilGetBe16((a) + 2), VigilGetBe16((a) + 4),       \
      VigilGetBe16((a) + 6), VigilGetBe16((a) + 8), VigilGetBe16((a) + 10),    \
      VigilGetBe16((a) + 12), VigilGetBe16((a) + 14)

static u16 VigilGetBe16(const u8 *p) {
   return (u16)((p[0] << 8) | p[1]);
}

static OxaHashCommon *VigilV6HashOf(VigilFilter *filter) {
   return &filter->v6VmiHash->common;
}

zek_Status VigilV6VmiHashAlloc(VigilV6VmiHash **hash) {
   u32 size = (u32)(sizeof(VigilV6VmiHash) +
                    VIGIL_V6_HASH_BUCKETS * sizeof(OxaHashBucket));
   VigilV6VmiHash *table = (VigilV6VmiHash *)Vigil_HeapAlloc(size);
   if (table == nullptr) {
      VIGIL_LOG_ERROR("Could not allocate VMI hash(%s).",
                      zek_StatusToString(VIGIL_STATUS_NO_MEMORY));
      return VIGIL_STATUS_NO_MEMORY;
   }
   zek_Status status = OxaHashInit(&table->common, heapID, VIGIL_V6_HASH_BUCKETS,
                                   VIGIL_V6_KEY_LEN, offsetof(VigilV6Vmi, vlanId),
                                   offsetof(VigilV6Vmi, hashLinks), OXA_HASH_KEY_BYTES);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Could not allocate VMI hash(%s).", zek_StatusToString(status));
      Vigil_HeapFree(table);
      return status;
   }
   *hash = table;
   return ZEK_OK;
}

VigilV6Vmi *VigilFindV6Vmi(VigilFilter *filter, const u8 key[VIGIL_V6_KEY_LEN]) {
   Vigil_AssertFilterIsLocked(filter, false);
   /* An empty table costs no lookup.  The hash's count, not the ND and
    * DHCPv6 counts, so that a static record's key is found too. */
   if (VigilAtomicLoad(&VigilV6HashOf(filter)->count) == 0) {
      return nullptr;
   }
   return (VigilV6Vmi *)OxaHashFind(VigilV6HashOf(filter), key);
}

i64 VigilV6FirstExpiry(VigilFilter *filter) {
   if (VigilListIsEmpty(&filter->v6VmiList)) {
      return VIGIL_AGING_KEY_NONE;
   }
   return VIGIL_V6VMI_FROM_EXPIRY(filter->v6VmiList.next)->expiryTs;
}

i64 VigilDhcpV6FirstReqExpiry(VigilFilter *filter) {
   if (VigilListIsEmpty(&filter->dhcpV6ReqList)) {
      return VIGIL_AGING_KEY_NONE;
   }
   return VIGIL_DHCPV6_REQ_FROM_LINKS(filter->dhcpV6ReqList.next)->expiryTs;
}

/* Links `links` before the first record of `head` whose expiry is strictly
 * later, so that among equal times the newest stands last. */
static void VigilInsertSorted(VigilListLinks *head, VigilListLinks *links,
                              i64 expiryTs, bool expiredList) {
   VigilListLinks *before = head;
   VIGIL_LIST_FOR_EACH(pos, head) {
      const VigilV6Vmi *other = expiredList ? VIGIL_V6VMI_FROM_EXPIRED(pos)
                                            : VIGIL_V6VMI_FROM_EXPIRY(pos);
      if (other->expiryTs > expiryTs) {
         before = pos;
         break;
      }
   }
   VigilListInsertBefore(before, links);
}

void VigilInsertIntoV6VmiList(VigilFilter *filter, VigilV6Vmi *vmi) {
   Vigil_AssertFilterIsLocked(filter, true);
   VigilInsertSorted(&filter->v6VmiList, &vmi->expiryLinks, vmi->expiryTs, false);
}

/* Takes the record off whichever list it is on; true if that was the
 * running list. */
static bool VigilUnlinkV6(VigilFilter *filter, VigilV6Vmi *vmi) {
   if (VigilListIsLinked(&vmi->expiredLinks)) {
      VigilListRemove(&vmi->expiredLinks);
      filter->numExpiredNdEntries--;
      return false;
   }
   VigilListRemove(&vmi->expiryLinks);
   return true;
}

/* Moves a running ND binding to the tail of the expired list. */
static void VigilMoveV6ToExpired(VigilFilter *filter, VigilV6Vmi *vmi) {
   VigilListRemove(&vmi->expiryLinks);
   VigilListInsertBefore(&filter->v6ExpiredNdList, &vmi->expiredLinks);
   filter->numExpiredNdEntries++;
}

void VigilRefreshV6VmiExpiryTs(VigilFilter *filter, VigilV6Vmi *vmi, i64 expiryTs) {
   Vigil_AssertFilterIsLocked(filter, true);
   vmi->expiryTs = expiryTs;
   (void)VigilUnlinkV6(filter, vmi); /* a kept expired binding comes back */
   VigilInsertIntoV6VmiList(filter, vmi);
   VigilUpdateFilterAging(filter);
}

static void VigilLogV6Vmi(VigilFilter *filter, const char *what, const VigilV6Vmi *vmi) {
   VIGIL_LOG_INFO("Filter %#x %s VLAN: %u, IP: %hx:%hx:%hx:%hx:%hx:%hx:%hx:%hx MAC: " VIGIL_MAC_FMT
                  " discMethod: %#x, expiryTs: %lu",
                  filter->portID, what, vmi->vlanId, VIGIL_V6_ADDR_ARGS(vmi->ip),
                  VIGIL_MAC_ARGS(vmi->mac), vmi->discMethod, (unsigned long)vmi->expiryTs);
}

/* The limit rule: room for a new binding of the template's method, an
 * expired ND binding given up for a new ND one if need be. */
static zek_Status VigilMakeRoomForV6(VigilFilter *filter, const VigilV6Vmi *tmpl) {
   if (tmpl->discMethod == VIGIL_DISC_ND) {
      if (filter->numNdEntries < filter->portDbNdEntriesSize) {
         return ZEK_OK;
      }
      if (!VigilListIsEmpty(&filter->v6ExpiredNdList)) {
         VigilDelV6Vmi(filter, VIGIL_V6VMI_FROM_EXPIRED(filter->v6ExpiredNdList.next));
         return ZEK_OK;
      }
      VIGIL_LOG_THROTTLED("Filter %#x Max ND Snooped IP limit of %u reached for port %#x",
                          filter->portID, filter->portDbNdEntriesSize, filter->portID);
      return VIGIL_STATUS_LIMIT;
   }
   if (tmpl->discMethod == VIGIL_DISC_DHCPV6 &&
       filter->numDhcpV6Entries >= filter->portDbDhcpV6EntriesSize) {
      VIGIL_LOG_THROTTLED("Filter %#x Max DHCPv6 Snooped IP limit of %u reached for port %#x",
                          filter->portID, filter->portDbDhcpV6EntriesSize, filter->portID);
      return VIGIL_STATUS_LIMIT;
   }
   return ZEK_OK;
}

/* A heap copy of the template: the DHCPv6 extension only for a DHCPv6
 * binding, with a client id of its own.  Null when memory runs out. */
static VigilV6Vmi *VigilCopyV6Template(VigilFilter *filter, const VigilV6Vmi *tmpl) {
   VigilV6Vmi *vmi = (VigilV6Vmi *)Vigil_HeapAlloc(sizeof(VigilV6Vmi));
   if (vmi == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x v6vmi alloc failed", filter->portID);
      return nullptr;
   }
   vmi->vlanId = tmpl->vlanId;
   memcpy(vmi->mac, tmpl->mac, sizeof vmi->mac);
   memcpy(vmi->ip, tmpl->ip, sizeof vmi->ip);
   vmi->discMethod = tmpl->discMethod;
   vmi->expiryTs = tmpl->expiryTs;
   if (tmpl->discMethod != VIGIL_DISC_DHCPV6) {
      return vmi;
   }
   vmi->iaId = tmpl->iaId;
   memcpy(vmi->serverIp, tmpl->serverIp, sizeof vmi->serverIp);
   vmi->validLifetime = tmpl->validLifetime;
   vmi->preferredLifetime = tmpl->preferredLifetime;
   if (tmpl->clientIdLen != 0 && tmpl->clientId != nullptr) {
      vmi->clientId = (u8 *)Vigil_HeapAlloc(tmpl->clientIdLen);
      if (vmi->clientId == nullptr) {
         VIGIL_LOG_THROTTLED("Filter %#x v6vmi alloc failed", filter->portID);
         Vigil_HeapFree(vmi);
         return nullptr;
      }
      memcpy(vmi->clientId, tmpl->clientId, tmpl->clientIdLen);
      vmi->clientIdLen = tmpl->clientIdLen;
   }
   return vmi;
}

zek_Status VigilAddV6Vmi(VigilFilter *filter, const VigilV6Vmi *tmpl) {
   Vigil_AssertFilterIsLocked(filter, true);
   if (VigilMatchV6IgnoreList(filter->portIgnoreList, filter->portIgnoreListSize,
                              tmpl->vlanId, tmpl->mac, tmpl->ip)) {
      filter->stats.statV6VmiAddRefused++;
      return VIGIL_STATUS_IGNORED;
   }
   VigilV6Vmi *old = VigilFindV6Vmi(filter, (const u8 *)&tmpl->vlanId);
   if (old != nullptr && old->discMethod == tmpl->discMethod) {
      if (tmpl->discMethod == VIGIL_DISC_ND) {
         VigilRefreshV6VmiExpiryTs(filter, old, Vigil_UptimeSecs() + filter->ndExpiry);
         return ZEK_OK;
      }
      if (tmpl->discMethod == VIGIL_DISC_DHCPV6) {
         memcpy(old->serverIp, tmpl->serverIp, sizeof old->serverIp);
         old->validLifetime = tmpl->validLifetime;
         old->preferredLifetime = tmpl->preferredLifetime;
         VigilRefreshV6VmiExpiryTs(filter, old,
                                   Vigil_UptimeSecs() + (i64)tmpl->validLifetime);
         return ZEK_OK;
      }
      /* The same key under another method (static): refused, as in IPv4. */
      return VIGIL_STATUS_EXISTS;
   }
   if (old != nullptr) {
      if (old->discMethod == VIGIL_DISC_ND && tmpl->discMethod == VIGIL_DISC_DHCPV6) {
         VigilDelV6Vmi(filter, old); /* DHCPv6 takes the address over */
      } else if (old->discMethod == VIGIL_DISC_DHCPV6 && tmpl->discMethod == VIGIL_DISC_ND) {
         return ZEK_OK; /* ND neither displaces nor extends a lease */
      } else {
         return VIGIL_STATUS_EXISTS;
      }
   }
   zek_Status status = VigilMakeRoomForV6(filter, tmpl);
   if (status != ZEK_OK) {
      return status;
   }
   VigilV6Vmi *vmi = VigilCopyV6Template(filter, tmpl);
   if (vmi == nullptr) {
      return VIGIL_STATUS_NO_MEMORY;
   }
   bool pastExpiry = false;
   if (vmi->discMethod == VIGIL_DISC_ND) {
      filter->numNdEntries++;
      pastExpiry = vmi->expiryTs <= Vigil_UptimeSecs();
   } else if (vmi->discMethod == VIGIL_DISC_DHCPV6) {
      filter->numDhcpV6Entries++;
      filter->dhcpV6ClientIdBytes += vmi->clientIdLen;
   }
   OxaHashInsert(VigilV6HashOf(filter), vmi);
   if (pastExpiry && !GetDeleteExpiry()) {
      /* Only a restored binding whose saved life has run out. */
      VigilInsertSorted(&filter->v6ExpiredNdList, &vmi->expiredLinks, vmi->expiryTs,
                        true);
      filter->numExpiredNdEntries++;
   } else {
      VigilInsertIntoV6VmiList(filter, vmi);
      VigilUpdateFilterAging(filter);
   }
   VigilPostPortDbV6Msg(filter, VIGIL_PORTDB_MSG_ADDED, vmi);
   VigilLogV6Vmi(filter, "Added IP to PortDB", vmi);
   return ZEK_OK;
}

void VigilDelV6Vmi(VigilFilter *filter, VigilV6Vmi *vmi) {
   VigilLogV6Vmi(filter, "Deleting V6 VMI", vmi);
   Vigil_AssertFilterIsLocked(filter, true);
   bool wasRunning = VigilUnlinkV6(filter, vmi);
   OxaHashRemove(VigilV6HashOf(filter), vmi);
   if (vmi->discMethod == VIGIL_DISC_ND) {
      filter->numNdEntries--;
   } else if (vmi->discMethod == VIGIL_DISC_DHCPV6) {
      filter->dhcpV6ClientIdBytes -= vmi->clientIdLen;
      Vigil_HeapFree(vmi->clientId);
      vmi->clientId = nullptr;
      filter->numDhcpV6Entries--;
   }
   VigilPostPortDbV6Msg(filter, VIGIL_PORTDB_MSG_REMOVED, vmi);
   Vigil_HeapFree(vmi);
   if (wasRunning) {
      VigilUpdateFilterAging(filter);
   }
}

void VigilClearV6Vmi(VigilFilter *filter, bool all, u32 count, const u8 *keys) {
   Vigil_AssertFilterIsLocked(filter, true);
   if (all) {
      VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6ExpiredNdList) {
         VigilDelV6Vmi(filter, VIGIL_V6VMI_FROM_EXPIRED(pos));
      }
      VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6VmiList) {
         VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRY(pos);
         if (vmi->discMethod != VIGIL_DISC_STATIC) {
            VigilDelV6Vmi(filter, vmi);
         }
      }
      return;
   }
   for (u32 i = 0; i < count; i++) {
      VigilV6Vmi *vmi = VigilFindV6Vmi(filter, keys + (u64)i * VIGIL_V6_KEY_LEN);
      if (vmi == nullptr) {
         continue;
      }
      if (vmi->discMethod != VIGIL_DISC_STATIC) {
         VigilDelV6Vmi(filter, vmi);
         continue;
      }
      VIGIL_LOG_ERROR("Trying to delete a static entry: %u " VIGIL_MAC_FMT
                      " %hx:%hx:%hx:%hx:%hx:%hx:%hx:%hx",
                      vmi->vlanId, VIGIL_MAC_ARGS(vmi->mac), VIGIL_V6_ADDR_ARGS(vmi->ip));
   }
}

void VigilReduceNdEntries(VigilFilter *filter, u32 limit) {
   Vigil_AssertFilterIsLocked(filter, true);
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6ExpiredNdList) {
      if (filter->numNdEntries <= limit) {
         return;
      }
      VigilDelV6Vmi(filter, VIGIL_V6VMI_FROM_EXPIRED(pos));
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6VmiList) {
      if (filter->numNdEntries <= limit) {
         return;
      }
      VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRY(pos);
      if (vmi->discMethod == VIGIL_DISC_ND) {
         VigilDelV6Vmi(filter, vmi);
      }
   }
}

void VigilPortDbV6DoAging(VigilFilter *filter, i64 now) {
   Vigil_AssertFilterIsLocked(filter, true);
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6VmiList) {
      VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRY(pos);
      if (vmi->expiryTs > now) {
         break;
      }
      if (vmi->discMethod == VIGIL_DISC_ND && !GetDeleteExpiry()) {
         VigilMoveV6ToExpired(filter, vmi);
         VigilUpdateFilterAging(filter);
      } else {
         VigilDelV6Vmi(filter, vmi);
      }
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->dhcpV6ReqList) {
      VigilDhcpV6Req *req = VIGIL_DHCPV6_REQ_FROM_LINKS(pos);
      if (req->expiryTs > now) {
         break;
      }
      u8 msgType = req->msg != nullptr && req->msgLen >= 4 ? req->msg[0] : 0;
      u32 xid = req->msg != nullptr && req->msgLen >= 4
                   ? ((u32)req->msg[1] << 24) | ((u32)req->msg[2] << 16) |
                        ((u32)req->msg[3] << 8)
                   : 0;
      VIGIL_LOG_INFO("Filter %#x Age out pending DHCPv6 req - vlan: %u, xId: %#x, mac: "
                     VIGIL_MAC_FMT,
                     filter->portID, req->vlanId, xid, VIGIL_MAC_ARGS(req->mac));
      if (msgType == VIGIL_DHCPV6_CONFIRM && (req->reqStatus == 3 || req->reqStatus == 4)) {
         VigilDhcpV6DelReqAddr(filter, req);
      }
      VigilDelDhcpV6Req(filter, req);
   }
}

/* Moves the records of `moved`, sorted, back into v6VmiList in one pass. */
static void VigilMergeIntoV6VmiList(VigilFilter *filter, VigilListLinks *moved) {
   VigilListLinks *pos = filter->v6VmiList.next;
   while (!VigilListIsEmpty(moved)) {
      VigilListLinks *first = moved->next;
      if (pos == &filter->v6VmiList) {
         /* The rest goes to the tail in one step. */
         VigilListLinks *last = moved->prev;
         first->prev = filter->v6VmiList.prev;
         filter->v6VmiList.prev->next = first;
         last->next = &filter->v6VmiList;
         filter->v6VmiList.prev = last;
         VigilListInit(moved);
         return;
      }
      if (VIGIL_V6VMI_FROM_EXPIRY(first)->expiryTs < VIGIL_V6VMI_FROM_EXPIRY(pos)->expiryTs) {
         VigilListRemove(first);
         VigilListInsertBefore(pos, first);
      } else {
         pos = pos->next;
      }
   }
}

void VigilPortDbV6TimeoutChange(VigilFilter *filter, i32 delta) {
   Vigil_AssertFilterIsLocked(filter, true);
   if (filter->numNdEntries != filter->numExpiredNdEntries) {
      i64 now = Vigil_UptimeSecs();
      VigilListLinks moved;
      VigilListInit(&moved);
      VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6VmiList) {
         VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRY(pos);
         if (vmi->discMethod != VIGIL_DISC_ND) {
            continue;
         }
         vmi->expiryTs += (i64)delta;
         if (vmi->expiryTs > now) {
            VigilListRemove(pos);
            VigilListInsertBefore(&moved, pos);
         } else if (GetDeleteExpiry()) {
            VigilDelV6Vmi(filter, vmi);
         } else {
            VigilMoveV6ToExpired(filter, vmi);
         }
      }
      VigilMergeIntoV6VmiList(filter, &moved);
   }
   /* Whatever moved, the key follows the earliest expiry that can still
    * happen. */
   if (filter->agingPortID != 0) {
      VigilUpdateFilterAging(filter);
   }
}
