/*
 * The port ignore list as the IPv4 database sees it: bindings that match an
 * entry are never learnt.
 */
#include <cstring>

#include "vigil_vmi.h"
#include "vigil_whitelist.h"

/* Conditions within an entry are joined by AND, entries by OR.  An IPv4
 * address compares exactly; an IPv6 entry never matches an IPv4 binding. */
bool VigilMatchV4IgnoreList(VigilFilter *filter, u16 vlanId, const u8 *mac,
                            u32 ip) {
   Vigil_AssertFilterIsLocked(filter, false);
   for (u32 i = 0; i < filter->portIgnoreListSize; i++) {
      const VigilWhiteListEntry *entry = &filter->portIgnoreList[i];
      if ((entry->flags & VIGIL_WL_VLAN) && entry->vlan != vlanId) {
         continue;
      }
      if ((entry->flags & VIGIL_WL_MAC) && memcmp(entry->mac, mac, 6) != 0) {
         continue;
      }
      if (entry->flags & VIGIL_WL_IPV4) {
         if (memcmp(entry->ip, &ip, 4) == 0) {
            return true;
         }
         continue;
      }
      if (entry->flags & VIGIL_WL_IPV6) {
         continue;
      }
      return true;
   }
   return false;
}

/* Deletes every binding the present ignore list matches, whatever its
 * method: the one operation that removes a static binding. */
void VigilIgnoreListDelPortDb(VigilFilter *filter) {
   Vigil_AssertFilterIsLocked(filter, true);
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->expiredVmiList) {
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRED(pos);
      if (VigilMatchV4IgnoreList(filter, vmi->vlanId, vmi->mac, vmi->ip)) {
         VigilDelVmi(filter, vmi);
      }
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->vmiList) {
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      if (VigilMatchV4IgnoreList(filter, vmi->vlanId, vmi->mac, vmi->ip)) {
         VigilDelVmi(filter, vmi);
      }
   }
}
