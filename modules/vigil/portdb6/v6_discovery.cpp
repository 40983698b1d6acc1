/*
 * IPv6 discovery configuration: switching ND and DHCPv6 snooping, the ND
 * life time, flushing the IPv6 table by method and applying the ignore
 * list to it.
 */
#include "vigil_config.h"
#include "vigil_log.h"
#include "vigil_v6.h"

#define VIGIL_DISC_V6_MASK (VIGIL_DISC_ND | VIGIL_DISC_DHCPV6)

zek_Status VigilConfigIpv6Discovery(VigilFilter *filter, bool dhcpv6, bool nd,
                                    bool flush) {
   VIGIL_LOG_VERBOSE(1, "Filter %#x Config IPv6 Discovery - dhcpv6: %s, nd: %s",
                     filter->portID, dhcpv6 ? "true" : "false", nd ? "true" : "false");
   Vigil_AssertFilterIsLocked(filter, true);
   u32 newConfig = (nd ? VIGIL_DISC_ND : 0u) | (dhcpv6 ? VIGIL_DISC_DHCPV6 : 0u);
   u32 oldConfig = filter->discoveryFlags & VIGIL_DISC_V6_MASK;
   if (newConfig == oldConfig) {
      return ZEK_OK;
   }
   u32 toFlush = oldConfig & ~newConfig;
   VIGIL_LOG_INFO("oldConfig: %#x, newConfig: %#x, toFlush: %#x", oldConfig, newConfig,
                  toFlush);
   if (toFlush != 0 && flush) {
      VigilFlushV6VmiByDiscoveryMethod(filter, toFlush);
   }
   if (toFlush & VIGIL_DISC_DHCPV6) {
      /* A reply can't be processed any more: nothing is left to wait for. */
      VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->dhcpV6ReqList) {
         VigilDelDhcpV6Req(filter, VIGIL_DHCPV6_REQ_FROM_LINKS(pos));
      }
   }
   filter->discoveryFlags = (filter->discoveryFlags & ~VIGIL_DISC_V6_MASK) | newConfig;
   VIGIL_LOG_INFO("Filter %#x IPv6 Discover config updated, new features: %#x",
                  filter->portID, filter->discoveryFlags);
   return ZEK_OK;
}

zek_Status VigilConfigNdExpiry(VigilFilter *filter, u32 minutes) {
   Vigil_AssertFilterIsLocked(filter, true);
   i32 expiry = (i32)(minutes * 60u);
   if (expiry != filter->ndExpiry) {
      VigilPortDbV6TimeoutChange(filter, expiry - filter->ndExpiry);
      filter->ndExpiry = expiry;
   }
   return ZEK_OK;
}

void VigilFlushV6VmiByDiscoveryMethod(VigilFilter *filter, u32 methods) {
   Vigil_AssertFilterIsLocked(filter, true);
   u32 mask = methods & VIGIL_DISC_V6_MASK;
   VIGIL_LOG_VERBOSE(1, "Filter %#x Flush, delMask: %#x, %#x", filter->portID, methods,
                     mask);
   if (mask & VIGIL_DISC_ND) {
      VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6ExpiredNdList) {
         VigilDelV6Vmi(filter, VIGIL_V6VMI_FROM_EXPIRED(pos));
      }
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6VmiList) {
      VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRY(pos);
      if (vmi->discMethod & mask) {
         VigilDelV6Vmi(filter, vmi);
      }
   }
}

/* Entries are alternatives; within one, VLAN and MAC must agree and an IPv6
 * address compares on all 16 bytes.  An IPv4 entry never matches here, and
 * an entry without an address covers every address of its VLAN and MAC. */
bool VigilMatchV6IgnoreList(const VigilWhiteListEntry *list, u32 count, u16 vlanId,
                            const u8 *mac, const u8 *ip) {
   for (u32 i = 0; i < count; i++) {
      const VigilWhiteListEntry *entry = &list[i];
      if ((entry->flags & VIGIL_WL_VLAN) && entry->vlan != vlanId) {
         continue;
      }
      if ((entry->flags & VIGIL_WL_MAC) && memcmp(entry->mac, mac, 6) != 0) {
         continue;
      }
      if (entry->flags & VIGIL_WL_IPV6) {
         if (memcmp(entry->ip, ip, 16) == 0) {
            return true;
         }
         continue;
      }
      if (entry->flags & VIGIL_WL_IPV4) {
         continue;
      }
      return true;
   }
   return false;
}

void VigilIgnoreListDelPortDbV6(VigilFilter *filter) {
   Vigil_AssertFilterIsLocked(filter, true);
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6ExpiredNdList) {
      VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRED(pos);
      if (VigilMatchV6IgnoreList(filter->portIgnoreList, filter->portIgnoreListSize,
                                 vmi->vlanId, vmi->mac, vmi->ip)) {
         VigilDelV6Vmi(filter, vmi);
      }
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6VmiList) {
      VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRY(pos);
      if (VigilMatchV6IgnoreList(filter->portIgnoreList, filter->portIgnoreListSize,
                                 vmi->vlanId, vmi->mac, vmi->ip)) {
         VigilDelV6Vmi(filter, vmi);
      }
   }
}
