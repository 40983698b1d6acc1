/*
 * Address enforcement: may this (VLAN, MAC, address) leave the port?
 *
 * A frame the VM sends is judged against the switch white list and the port
 * white list, each by its first matching entry: found by the list's index
 * (vigil_whitelist_index.h) or by a scan.  When both features are on a frame
 * must satisfy both.  Traced frames report what the port list decided to
 * Pathprobe.
 */
#include <cstring>

#include "pathprobe.h"
#include "vigil_log.h"
#include "vigil_warden.h"
#include "vigil_whitelist_index.h"

/* The top `bits` bits of a word, with the count of low zero bits taken
 * modulo 32 as the shift does it. */
static inline u32 VigilPrefixWordMask(u32 bits) {
   if (bits == 0) {
      return 0;
   }
   return 0xffffffffu << ((32u - bits) & 31u);
}

static bool VigilIpv4Test(const VigilWhiteListEntry *entry, const u8 *addr) {
   if (entry->flags & VIGIL_WL_IPV4) {
      u32 mask = VigilPrefixWordMask(entry->prefixLen);
      return (VigilGetBe32(addr) & mask) == (VigilGetBe32(entry->ip) & mask);
   }
   return (entry->flags & VIGIL_WL_IPV6) == 0;
}

static bool VigilIpv6Test(const VigilWhiteListEntry *entry, const u8 *addr) {
   if (entry->flags & VIGIL_WL_IPV6) {
      u32 prefixLen = entry->prefixLen > 128 ? 128 : entry->prefixLen;
      for (u32 word = 0; word < 4; word++) {
         u32 mask;
         if (prefixLen >= (word + 1) * 32) {
            mask = 0xffffffffu;
         } else if (prefixLen > word * 32) {
            mask = VigilPrefixWordMask(prefixLen - word * 32);
         } else {
            mask = 0;
         }
         if ((VigilGetBe32(addr + 4 * word) & mask) !=
             (VigilGetBe32(entry->ip + 4 * word) & mask)) {
            return false;
         }
      }
      return true;
   }
   return (entry->flags & VIGIL_WL_IPV4) == 0;
}

static bool VigilVlanTest(const VigilWhiteListEntry *entry, u16 vlan) {
   return (entry->flags & VIGIL_WL_VLAN) == 0 || entry->vlan == vlan;
}

static bool VigilMacTest(const VigilWhiteListEntry *entry, const u8 *mac) {
   return (entry->flags & VIGIL_WL_MAC) == 0 ||
          (mac != nullptr && memcmp(entry->mac, mac, VIGIL_ETH_ALEN) == 0);
}

/* On an entry with a MAC, the source MAC and the ARP sender MAC must agree
 * and equal the entry's. */
static bool VigilArpMacTest(const VigilWhiteListEntry *entry, const u8 *mac,
                            bool macsEqual) {
   return (entry->flags & VIGIL_WL_MAC) == 0 ||
          (macsEqual && memcmp(entry->mac, mac, VIGIL_ETH_ALEN) == 0);
}

static bool VigilEntryMatches(const VigilWhiteListEntry *entry, u16 vlan,
                              const u8 *mac, const u8 *addr, u32 kind,
                              bool macsEqual) {
   switch (kind) {
   case VIGIL_WDN_IPV4:
      return VigilIpv4Test(entry, addr) && VigilVlanTest(entry, vlan) &&
             VigilMacTest(entry, mac);
   case VIGIL_WDN_IPV6:
      return VigilIpv6Test(entry, addr) && VigilVlanTest(entry, vlan) &&
             VigilMacTest(entry, mac);
   case VIGIL_WDN_ARP:
      return VigilArpMacTest(entry, mac, macsEqual) &&
             VigilIpv4Test(entry, addr) && VigilVlanTest(entry, vlan);
   case VIGIL_WDN_L2:
      return VigilVlanTest(entry, vlan) && VigilMacTest(entry, mac);
   case VIGIL_WDN_ND:
      /* A neighbor advertisement without target link-layer option passes
       * the MAC test. */
      return VigilIpv6Test(entry, addr) && VigilVlanTest(entry, vlan) &&
             (mac == nullptr || VigilMacTest(entry, mac));
   default:
      return false;
   }
}

static void VigilLogWardenDrop(VigilFilter *filter, const char *tag, u16 vlan,
                               const u8 *mac, const u8 *addr,
                               const u8 *arpSenderMac, u32 kind) {
   if (mac != nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x [%s]DROP wdnType %d vlan %u mac " VIGIL_MAC_FMT,
                          filter->portID, tag, (int)kind, vlan, VIGIL_MAC_ARGS(mac));
   } else {
      VIGIL_LOG_THROTTLED("Filter %#x [%s]DROP wdnType %d vlan %u mac N/A",
                          filter->portID, tag, (int)kind, vlan);
   }
   switch (kind) {
   case VIGIL_WDN_IPV4:
      VIGIL_LOG_THROTTLED("Filter %#x [%s]DROP v4: %u.%u.%u.%u", filter->portID,
                          tag, addr[0], addr[1], addr[2], addr[3]);
      break;
   case VIGIL_WDN_IPV6:
   case VIGIL_WDN_ND: {
      u16 g[8];
      for (u32 i = 0; i < 8; i++) {
         g[i] = VigilGetBe16(addr + 2 * i);
      }
      if (kind == VIGIL_WDN_IPV6) {
         VIGIL_LOG_THROTTLED("Filter %#x [%s]DROP v6: %hx:%hx:%hx:%hx:%hx:%hx:%hx:%hx",
                             filter->portID, tag, g[0], g[1], g[2], g[3], g[4],
                             g[5], g[6], g[7]);
      } else {
         VIGIL_LOG_THROTTLED("Filter %#x [%s]DROP ND: %hx:%hx:%hx:%hx:%hx:%hx:%hx:%hx",
                             filter->portID, tag, g[0], g[1], g[2], g[3], g[4],
                             g[5], g[6], g[7]);
      }
      break;
   }
   case VIGIL_WDN_ARP:
      VIGIL_LOG_THROTTLED("Filter %#x [%s]DROP ARP: sha " VIGIL_MAC_FMT
                          " spa %u.%u.%u.%u",
                          filter->portID, tag, VIGIL_MAC_ARGS(arpSenderMac), addr[0],
                          addr[1], addr[2], addr[3]);
      break;
   default:
      break;
   }
}

u32 Vigil_ScanWhiteList(const VigilWhiteListEntry *list, u32 size, u16 vlan,
                        const u8 *mac, const u8 *addr, u32 kind, bool macsEqual) {
   for (u32 i = 0; i < size; i++) {
      if (VigilEntryMatches(&list[i], vlan, mac, addr, kind, macsEqual)) {
         return i;
      }
   }
   return VIGIL_WDN_NO_MATCH;
}

/* WardenMatchWL's body, inlined into the warden so that a frame pays for
 * one call less. */
static inline u32 VigilMatchList(VigilFilter *filter, const VigilWhiteListEntry *list,
                                 u32 size, u16 vlan, const u8 *mac, const u8 *addr,
                                 const u8 *arpSenderMac, u32 kind, bool macsEqual,
                                 const char *tag, u32 *matchIndex) {
   /* The index says itself whether it was made for this list. */
   const VigilWhiteListIndex *index = list == filter->portWhiteList
                                         ? filter->portWhiteListIndex
                                         : filter->switchWhiteListIndex;
   bool answered = kind == VIGIL_WDN_IPV4
                      ? Vigil_WhiteListIndexMatchIpv4(index, list, size, vlan, mac, addr,
                                                      matchIndex)
                      : Vigil_WhiteListIndexMatch(index, list, size, vlan, mac, addr, kind,
                                                  macsEqual, matchIndex);
   if (!answered) {
      *matchIndex = Vigil_ScanWhiteList(list, size, vlan, mac, addr, kind, macsEqual);
   }
   if (*matchIndex != VIGIL_WDN_NO_MATCH) {
      return VIGIL_ACTION_FORWARD;
   }
   VigilLogWardenDrop(filter, tag, vlan, mac, addr, arpSenderMac, kind);
   return VIGIL_ACTION_DROP;
}

/* The first matching entry, by the list's index where it has one and can
 * answer, by the scan otherwise: both give the same entry. */
u32 WardenMatchWL(VigilFilter *filter, const VigilWhiteListEntry *list,
                  u32 size, u16 vlan, const u8 *mac, const u8 *addr,
                  const u8 *arpSenderMac, u32 kind, bool macsEqual,
                  const char *tag, u32 *matchIndex) {
   Vigil_AssertFilterIsLocked(filter, false);
   return VigilMatchList(filter, list, size, vlan, mac, addr, arpSenderMac, kind,
                         macsEqual, tag, matchIndex);
}

static void VigilSendOutputObsv(VigilFilter *filter, const u8 *ppMetadata,
                                u32 kind, u32 matchIndex) {
   VigilWdnIOObsv obsv;
   memset(&obsv, 0, sizeof obsv);
   obsv.direction = 0;
   obsv.portID = filter->portID;
   if (matchIndex != VIGIL_WDN_NO_MATCH) {
      const VigilWhiteListEntry *entry = &filter->portWhiteList[matchIndex];
      obsv.vlan = entry->vlan;
      memcpy(obsv.mac, entry->mac, VIGIL_ETH_ALEN);
      obsv.valid = VIGIL_OBSV_VALID_VLAN | VIGIL_OBSV_VALID_MAC;
      if (kind == VIGIL_WDN_IPV6 || kind == VIGIL_WDN_ND) {
         memcpy(obsv.ip, entry->ip, 16);
         obsv.prefixLen = (u8)entry->prefixLen;
         obsv.valid = 0x07;
      } else if (kind == VIGIL_WDN_IPV4 || kind == VIGIL_WDN_ARP) {
         memcpy(obsv.ip, entry->ip, 4);
         obsv.prefixLen = (u8)entry->prefixLen;
         obsv.valid = 0x0f;
      }
   }
   PP_SendWdnIOObsv(ppMetadata, &obsv);
}

/* What a traced frame reports of the port list's verdict: the input
 * observation if asked for, then the drop, or the output observation if
 * asked for.  Out of line: an untraced frame carries none of it. */
__attribute__((noinline)) static void VigilWardenObserve(VigilFilter *filter,
                                                         const u8 *ppMetadata,
                                                         u32 obsvFlags, u32 result,
                                                         u32 kind, u32 matchIndex) {
   if (obsvFlags & VIGIL_OBSV_INPUT) {
      VigilWdnIOObsv obsv;
      memset(&obsv, 0, sizeof obsv);
      obsv.direction = 1;
      obsv.portID = filter->portID;
      PP_SendWdnIOObsv(ppMetadata, &obsv);
   }
   if (result == VIGIL_ACTION_DROP) {
      VigilLogicalDropObsv drop;
      memset(&drop, 0, sizeof drop);
      drop.obsvType = VIGIL_DROP_OBSV_KIND;
      drop.dropType = VIGIL_DROP_OBSV_KIND;
      drop.portID = filter->portID;
      PP_SendLogicalDropObsv(ppMetadata, &drop);
   } else if (obsvFlags & VIGIL_OBSV_OUTPUT) {
      VigilSendOutputObsv(filter, ppMetadata, kind, matchIndex);
   }
}

/* The warden's steps, made once for any kind and once more for the IPv4
 * source, the check most frames meet, with its kind and observations
 * fixed. */
static inline __attribute__((always_inline)) u32
VigilWardenCheck(VigilFilter *filter, u16 vlan, const u8 *mac, const u8 *addr,
                 const u8 *arpSenderMac, u32 kind, const u8 *ppMetadata, u32 obsvFlags) {
   Vigil_AssertFilterIsLocked(filter, false);
   bool macsEqual = false;
   u32 matchIndex;
   if (kind == VIGIL_WDN_ARP) {
      macsEqual = memcmp(mac, arpSenderMac, VIGIL_ETH_ALEN) == 0;
   }
   if (filter->featuresEnabled & VIGIL_FEAT_SWITCH_WARDEN) {
      u32 result = VigilMatchList(filter, filter->switchWhiteList,
                                  filter->switchWhiteListSize, vlan, mac, addr,
                                  arpSenderMac, kind, macsEqual, "S", &matchIndex);
      if (result != VIGIL_ACTION_FORWARD) {
         return result;
      }
   }
   if ((filter->featuresEnabled & VIGIL_FEAT_PORT_WARDEN) == 0) {
      return VIGIL_ACTION_FORWARD;
   }
   u32 result = VigilMatchList(filter, filter->portWhiteList,
                               filter->portWhiteListSize, vlan, mac, addr,
                               arpSenderMac, kind, macsEqual, "P", &matchIndex);
   if (__builtin_expect(ppMetadata != nullptr, 0)) {
      VigilWardenObserve(filter, ppMetadata, obsvFlags, result, kind, matchIndex);
   }
   return result;
}

u32 VigilWarden(VigilFilter *filter, u16 vlan, const u8 *mac, const u8 *addr,
                const u8 *arpSenderMac, u32 kind, const u8 *ppMetadata,
                u32 obsvFlags) {
   return VigilWardenCheck(filter, vlan, mac, addr, arpSenderMac, kind, ppMetadata,
                           obsvFlags);
}

u32 VigilWardenIpv4(VigilFilter *filter, u16 vlan, const u8 *mac, const u8 *addr,
                    const u8 *ppMetadata) {
   return VigilWardenCheck(filter, vlan, mac, addr, nullptr, VIGIL_WDN_IPV4, ppMetadata,
                           VIGIL_OBSV_INPUT | VIGIL_OBSV_OUTPUT);
}

/* Judges an IPv6 frame from the VM: its source, and for a neighbor
 * advertisement also its target. */
zek_Status VigilProcessTxIpv6Warden(VigilFilter *filter, zek_Pkt *pkt,
                                    VigilPacketContext *ctx, u32 *action) {
   Vigil_AssertFilterIsLocked(filter, false);
   static const u8 unspecified[16] = {0};
   const u8 *srcMac = ctx->ethHdr + 6;
   const u8 *ipSrc = ctx->ipHdr + 8;
   bool isIcmpv6 = (ctx->flags & VIGIL_PKT_ICMPV6) != 0;
   u8 icmpType = isIcmpv6 ? ctx->l4Hdr[0] : 0;

   *action = VIGIL_ACTION_FORWARD;
   /* Listener reports and dones, router and neighbor solicitations may come
    * from the unspecified address during address configuration. */
   if (memcmp(ipSrc, unspecified, 16) == 0 && isIcmpv6 &&
       (icmpType == VIGIL_ICMPV6_MLD_REPORT || icmpType == VIGIL_ICMPV6_MLD_DONE ||
        icmpType == VIGIL_ICMPV6_ROUTER_SOLICIT ||
        icmpType == VIGIL_ICMPV6_NEIGHBOR_SOLICIT)) {
      return ZEK_OK;
   }
   if ((filter->featuresEnabled & VIGIL_FEAT_ANY_WARDEN) == 0) {
      return ZEK_OK;
   }
   if (isIcmpv6 && icmpType == VIGIL_ICMPV6_NEIGHBOR_ADVERT) {
      zek_Status status = VigilNDParsePkt(filter, pkt, ctx);
      if (status == ZEK_OK) {
         *action = VigilWarden(filter, ctx->vlanId, srcMac, ipSrc, nullptr,
                               VIGIL_WDN_IPV6, ctx->ppMetadata, VIGIL_OBSV_INPUT);
         if (*action != VIGIL_ACTION_FORWARD) {
            if (*action == VIGIL_ACTION_DROP) {
               filter->stats.statWardenV6Drops++;
            }
            return ZEK_OK;
         }
         const u8 *targetMac =
            ctx->ndLinkAddrOpt != nullptr ? ctx->ndLinkAddrOpt + 2 : nullptr;
         *action = VigilWarden(filter, ctx->vlanId, targetMac, ctx->ndHdr + 4,
                               nullptr, VIGIL_WDN_ND, ctx->ppMetadata,
                               VIGIL_OBSV_OUTPUT);
         if (*action == VIGIL_ACTION_DROP) {
            filter->stats.statWardenNdDrops++;
         }
         return ZEK_OK;
      }
      *action = VigilWarden(filter, ctx->vlanId, srcMac, ipSrc, nullptr,
                            VIGIL_WDN_IPV6, ctx->ppMetadata, 3);
      if (*action != VIGIL_ACTION_FORWARD) {
         if (*action == VIGIL_ACTION_DROP) {
            filter->stats.statWardenV6Drops++;
         }
         return ZEK_OK;
      }
      if (status == VIGIL_STATUS_NOT_INITIALIZED) {
         *action = VIGIL_ACTION_FORWARD;
         return ZEK_OK;
      }
      *action = VIGIL_ACTION_DROP;
      VIGIL_LOG_THROTTLED(
         "Filter %#x Invalid IPV6 ND Pkt, setting action to drop the packet",
         filter->portID);
      filter->stats.statWardenNdDrops++;
      return ZEK_OK;
   }
   *action = VigilWarden(filter, ctx->vlanId, srcMac, ipSrc, nullptr,
                         VIGIL_WDN_IPV6, ctx->ppMetadata, 3);
   if (*action == VIGIL_ACTION_DROP) {
      filter->stats.statWardenV6Drops++;
   }
   return ZEK_OK;
}
