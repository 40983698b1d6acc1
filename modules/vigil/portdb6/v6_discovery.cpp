/*
 * IPv6 discovery configuration: switching ND and DHCPv6 snooping, the ND
 * life time, flushing the IPv6 table by method and applying the ignore
 * list to it; and the query that copies the IPv6 bindings out.
 */
#include "vigil_config.h"
#include "vigil_log.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"

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
   /* Unsigned arithmetic, converted: no signed overflow whatever the
    * value (the property handler refuses what doesn't fit). */
   i32 expiry = (i32)(minutes * 60u);
   if (expiry != filter->ndExpiry) {
      VigilPortDbV6TimeoutChange(filter, (i32)((u32)expiry - (u32)filter->ndExpiry));
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

void VigilFillPortDbEntryV6(VigilPortDbEntry *entry, const VigilV6Vmi *vmi) {
   entry->vlanId = vmi->vlanId;
   memcpy(entry->mac, vmi->mac, 6);
   entry->isIpv4 = 0;
   memcpy(entry->ip, vmi->ip, 16);
   entry->bound = 0;
   entry->discMethod = vmi->discMethod;
}

/* Writes entry number `n` of the buffer in `format`; a format without an
 * IPv6 record writes nothing and is logged. */
static void VigilWriteV6Entry(VigilFilter *filter, void *buffer, u32 n, u32 format,
                              const VigilV6Vmi *vmi) {
   switch (format) {
   case VIGIL_QUERY_FORMAT_RECORD:
      memcpy((VigilV6Vmi *)buffer + n, vmi, sizeof *vmi);
      break;
   case VIGIL_QUERY_FORMAT_ENTRY:
      VigilFillPortDbEntryV6((VigilPortDbEntry *)buffer + n, vmi);
      break;
   default:
      VIGIL_LOG_INFO("Filter %#x Unsupported query format: %#x", filter->portID, format);
      break;
   }
}

void VigilQueryPortDbV6(VigilFilter *filter, void *buffer, u32 capacity, u32 *count,
                        u32 format, u8 mask) {
   Vigil_AssertFilterIsLocked(filter, false);
   if ((mask & VIGIL_DISC_V6_MASK) == 0) {
      return;
   }
   u32 n = count != nullptr ? *count : 0u;
   /* Compared before each write: nothing lands past the capacity. */
   VIGIL_LIST_FOR_EACH(pos, &filter->v6VmiList) {
      if (n >= capacity) {
         break;
      }
      const VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRY(pos);
      if (vmi->discMethod & mask) {
         VigilWriteV6Entry(filter, buffer, n, format, vmi);
         n++;
      }
   }
   VIGIL_LIST_FOR_EACH(pos, &filter->v6ExpiredNdList) {
      if (n >= capacity) {
         break;
      }
      const VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRED(pos);
      if (vmi->discMethod & mask) {
         VigilWriteV6Entry(filter, buffer, n, format, vmi);
         n++;
      }
   }
   if (count != nullptr) {
      *count = n;
   }
}
