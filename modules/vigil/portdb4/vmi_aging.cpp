/*
 * Keeping the IPv4 database true over time: the aging pass, a change of the
 * ARP life time, and the flush of a discovery method that is switched off.
 */
#include "vigil_dhcp.h"
#include "vigil_log.h"


/* Moves an ARP binding whose time is over to the tail of expiredVmiList. */
static void VigilMoveToExpired(VigilFilter *filter, VigilVmi *vmi) {
   VigilListRemove(&vmi->expiryLinks);
   VigilListInsertBefore(&filter->expiredVmiList, &vmi->expiredLinks);
   filter->numExpiredVmis++;
}

void VigilPortDbDoAging(VigilFilter *filter, i64 now) {
   Vigil_AssertFilterIsLocked(filter, true);

   /* The walk ends at the first live record: a static binding (expiry 0)
    * at the head stops it altogether. */
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->vmiList) {
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      if (vmi->discMethod == VIGIL_DISC_STATIC || !(vmi->expiryTs < now)) {
         break;
      }
      if (vmi->discMethod == VIGIL_DISC_ARP && !GetDeleteExpiry()) {
         VigilMoveToExpired(filter, vmi);
         VigilUpdateFilterAging(filter);
      } else {
         VigilDelVmi(filter, vmi);
      }
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->dhcpReqList) {
      VigilDhcpReq *req = VIGIL_DHCP_REQ_FROM_LINKS(pos);
      if (!(req->expiryTs < now)) {
         break;
      }
      VigilDelDhcpReq(filter, req);
   }
}

/* Moves every running ARP binding by `delta` seconds, so that a new life
 * time counts from when each binding was last seen, then merges them back
 * into vmiList in one pass. */
void VigilPortDbTimeoutChange(VigilFilter *filter, i32 delta) {
   Vigil_AssertFilterIsLocked(filter, true);
   if (filter->numArpVmis == filter->numExpiredVmis) {
      return;
   }
   i64 now = Vigil_UptimeSecs();
   VigilListLinks moved;
   VigilListInit(&moved);

   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->vmiList) {
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      if (vmi->discMethod != VIGIL_DISC_ARP) {
         continue;
      }
      vmi->expiryTs += (i64)delta;
      if (vmi->expiryTs > now) {
         VigilListRemove(&vmi->expiryLinks);
         VigilListInsertBefore(&moved, &vmi->expiryLinks);
      } else if (GetDeleteExpiry()) {
         VigilDelVmi(filter, vmi);
      } else {
         VigilMoveToExpired(filter, vmi);
      }
   }
   /* Among equal expiries the record that stayed comes first. */
   VigilListLinks *cur = filter->vmiList.next;
   while (cur != &filter->vmiList && !VigilListIsEmpty(&moved)) {
      VigilVmi *first = VIGIL_VMI_FROM_EXPIRY(moved.next);
      if (VIGIL_VMI_FROM_EXPIRY(cur)->expiryTs > first->expiryTs) {
         VigilListRemove(&first->expiryLinks);
         VigilListInsertBefore(cur, &first->expiryLinks);
      } else {
         cur = cur->next;
      }
   }
   while (!VigilListIsEmpty(&moved)) {
      VigilListLinks *links = moved.next;
      VigilListRemove(links);
      VigilListInsertBefore(&filter->vmiList, links);
   }
   /* Whatever moved or ended, the key follows the earliest expiry that can
    * still happen. */
   if (filter->agingPortID != 0) {
      VigilUpdateFilterAging(filter);
   }
}

zek_Status VigilConfigArpExpiry(VigilFilter *filter, u32 minutes) {
   Vigil_AssertFilterIsLocked(filter, true);
   i32 seconds = (i32)(minutes * 60);
   if (seconds != filter->arpExpiry) {
      VigilPortDbTimeoutChange(filter, (i32)((u32)seconds - (u32)filter->arpExpiry));
      filter->arpExpiry = seconds;
   }
   return ZEK_OK;
}

void VigilDelVmiByDiscMethod(VigilFilter *filter, u32 mask) {
   Vigil_AssertFilterIsLocked(filter, true);
   u32 walkMask;
   if (mask & VIGIL_DISC_ARP) {
      VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->expiredVmiList) {
         VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRED(pos));
      }
      walkMask = VIGIL_DISC_ARP | (mask & VIGIL_DISC_DHCP);
   } else if (mask & VIGIL_DISC_DHCP) {
      walkMask = VIGIL_DISC_DHCP;
   } else {
      VIGIL_LOG_ERROR("Filter %#x Invalid delete mask %d", filter->portID, (int)mask);
      return;
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->vmiList) {
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      if (vmi->discMethod & walkMask) {
         VigilDelVmi(filter, vmi);
      }
   }
}

zek_Status VigilConfigL3(VigilFilter *filter, const u32 *newBits, bool flush) {
   Vigil_AssertFilterIsLocked(filter, true);
   VIGIL_LOG_VERBOSE(1,
                     "Config: portDbV4Size = %u, portDbDhcpEntriesSize = %u, "
                     "portDbArpEntriesSize = %u",
                     VIGIL_PORTDB_V4_SIZE, VIGIL_PORTDB_DHCP_ENTRIES,
                     filter->portDbArpEntriesSize);
   u32 switchedOff = (filter->discoveryFlags & 0x7u) & ~(*newBits & 0x7u);
   if (switchedOff != 0 && flush) {
      VigilDelVmiByDiscMethod(filter, switchedOff);
   }
   if (switchedOff & VIGIL_DISC_DHCP) {
      VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->dhcpReqList) {
         VigilDelDhcpReq(filter, VIGIL_DHCP_REQ_FROM_LINKS(pos));
      }
   }
   return ZEK_OK;
}
