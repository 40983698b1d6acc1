/*
 * The transmit and receive pipelines: per-frame decisions.
 *
 * Transmit judges what the VM sends: rate limits, DHCP blocks and client
 * validation, address enforcement, ARP, BPDU and non-IP checks.  Receive only
 * rate limits and hands server replies to snooping.  What a pipeline can't
 * read, it lets pass.
 */
#include <cstring>

#include "vigil_log.h"
#include "vigil_packet.h"
#include "vigil_pipeline.h"

#define VIGIL_UDP_PORT_DHCP_SERVER 67
#define VIGIL_UDP_PORT_DHCP_CLIENT 68
#define VIGIL_ARP_HDR_LEN 28

const u32 numSupportedBpdus = VIGIL_NUM_SUPPORTED_BPDUS;

/* The index of an address is its bit in bpduBitmap. */
const u8 supportedBpduFilterMacs[VIGIL_NUM_SUPPORTED_BPDUS][6] = {
   {0x01, 0x80, 0xc2, 0x00, 0x00, 0x00}, {0x01, 0x80, 0xc2, 0x00, 0x00, 0x01},
   {0x01, 0x80, 0xc2, 0x00, 0x00, 0x02}, {0x01, 0x80, 0xc2, 0x00, 0x00, 0x03},
   {0x01, 0x80, 0xc2, 0x00, 0x00, 0x04}, {0x01, 0x80, 0xc2, 0x00, 0x00, 0x05},
   {0x01, 0x80, 0xc2, 0x00, 0x00, 0x06}, {0x01, 0x80, 0xc2, 0x00, 0x00, 0x07},
   {0x01, 0x80, 0xc2, 0x00, 0x00, 0x08}, {0x01, 0x80, 0xc2, 0x00, 0x00, 0x09},
   {0x01, 0x80, 0xc2, 0x00, 0x00, 0x0a}, {0x01, 0x80, 0xc2, 0x00, 0x00, 0x0b},
   {0x01, 0x80, 0xc2, 0x00, 0x00, 0x0c}, {0x01, 0x80, 0xc2, 0x00, 0x00, 0x0d},
   {0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e}, {0x01, 0x80, 0xc2, 0x00, 0x00, 0x0f},
   {0x00, 0xe0, 0x2b, 0x00, 0x00, 0x00}, {0x00, 0xe0, 0x2b, 0x00, 0x00, 0x04},
   {0x00, 0xe0, 0x2b, 0x00, 0x00, 0x06}, {0x01, 0x00, 0x0c, 0x00, 0x00, 0x00},
   {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xcc}, {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xcd},
   {0x01, 0x00, 0x0c, 0xcd, 0xcd, 0xcd}, {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xc0},
   {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xc1}, {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xc2},
   {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xc3}, {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xc4},
   {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xc5}, {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xc6},
   {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xc7},
};

/* Both tables are constant-initialised: filled in by the loader, no code
 * runs for them at load. */
constexpr VigilPipelineCallees vigilPipelineModuleCallees = {
   .warden = VigilWarden,
   .dhcpParse = VigilDhcpParse,
   .dhcpSnoopTx = VigilDhcpSnoopTx,
   .dhcpSnoopRx = VigilDhcpSnoopRx,
   .arpSnoop = VigilArpSnoop,
   .processTxIpv6 = VigilProcessTxIpv6,
   .processRxIpv6 = VigilProcessRxIpv6,
};
constinit VigilPipelineCallees vigilPipelineCallees = vigilPipelineModuleCallees;

/* All six bytes 0xff, read as one word and one half word. */
static inline bool VigilIsBroadcast(const u8 *addr) {
   u32 head;
   u16 tail;
   memcpy(&head, addr, 4);
   memcpy(&tail, addr + 4, 2);
   return head == 0xffffffffu && tail == 0xffffu;
}

bool Eth_IsBroadcastAddr(const u8 *addr) {
   return VigilIsBroadcast(addr);
}

/* Counts a frame in the limiter's fixed window: a window passes exactly
 * `limit` frames, with no carry-over and no burst allowance. */
u32 VigilProcessRateLimiting(zek_SpinlockHandle *lock,
                             VigilRateLimiter *limiter, u64 *dropCounter) {
   u32 action;
   zek_SpinlockLock(*lock);
   u64 now = zek_GetTimerCycles();
   if (limiter->windowEnd < now) {
      limiter->count = 0;
      limiter->windowEnd =
         now + zek_TimerCyclesPerSecond() * (u64)limiter->periodSecs;
   }
   limiter->count++;
   if (limiter->count > limiter->limit) {
      (*dropCounter)++;
      action = VIGIL_ACTION_DROP;
   } else {
      action = VIGIL_ACTION_FORWARD;
   }
   zek_SpinlockUnlock(*lock);
   return action;
}

/* Runs the broadcast or multicast limiter of a group-addressed frame.
 * Returns true when a limiter ran, with its verdict in *action. */
static bool VigilLimitGroupFrame(VigilFilter *filter, const u8 *dst,
                                 u32 bcastFeature, VigilRateLimiter *bcast,
                                 u64 *bcastDrops, u32 mcastFeature,
                                 VigilRateLimiter *mcast, u64 *mcastDrops,
                                 u32 *action) {
   if ((dst[0] & 1) == 0) {
      return false;
   }
   if ((filter->featuresEnabled & bcastFeature) && VigilIsBroadcast(dst)) {
      *action = VigilProcessRateLimiting(&filter->rateLimitLock, bcast,
                                         bcastDrops);
      return true;
   }
   if (filter->featuresEnabled & mcastFeature) {
      *action = VigilProcessRateLimiting(&filter->rateLimitLock, mcast,
                                         mcastDrops);
      return true;
   }
   return false;
}

static bool VigilIsIpv4Fragment(const u8 *ipHdr) {
   return (ipHdr[6] & 0x20) != 0 || (((ipHdr[6] & 0x1f) << 8) | ipHdr[7]) != 0;
}

bool VigilDhcpIpv4ClientValidate(VigilFilter *filter, zek_Pkt *pkt,
                                 VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, false);
   if ((filter->featuresEnabled & VIGIL_FEAT_DHCP_SERVER_BLOCK) == 0) {
      return true;
   }
   if (vigilPipelineCallees.dhcpParse(filter, pkt, ctx) != ZEK_OK) {
      return true;
   }
   if (VigilGetBe32(ctx->dhcpHdr + 24) != 0) { /* giaddr: relayed */
      return true;
   }
   const u8 *srcMac = ctx->ethHdr + 6;
   if (memcmp(ctx->dhcpHdr + 28, srcMac, VIGIL_ETH_ALEN) != 0) {
      filter->stats.statDhcpChaddrDrops++;
      return false;
   }
   const u8 *ipSrc = ctx->ipHdr + 12;
   if (VigilGetBe32(ipSrc) == 0) {
      return true;
   }
   if ((filter->featuresEnabled & VIGIL_FEAT_ANY_WARDEN) == 0) {
      return true;
   }
   if (vigilPipelineCallees.warden(filter, ctx->vlanId, srcMac, ipSrc, nullptr,
                                   VIGIL_WDN_IPV4, ctx->ppMetadata,
                                   3) == VIGIL_ACTION_FORWARD) {
      return true;
   }
   VIGIL_LOG_THROTTLED(
      "Filter %#x DHCP Warden failed, vlanId: %u, ethSA: " VIGIL_MAC_FMT
      ", ipV4Sa :%u.%u.%u.%u, DHCP Message Type: %d",
      filter->portID, ctx->vlanId, VIGIL_MAC_ARGS(srcMac), ipSrc[0], ipSrc[1],
      ipSrc[2], ipSrc[3],
      ctx->dhcpMsgType != nullptr ? *ctx->dhcpMsgType : 0);
   filter->stats.statWardenV4Drops++;
   return false;
}

/* Whether the warden let this untraced frame's IPv4 source through before
 * in this batch: with the lists unchanged it would answer the same, and on
 * its forward path an untraced frame has nothing to send or log. */
static inline bool VigilSourceLetThrough(const VigilPacketContext *ctx) {
   return ctx->wardenV4Known && ctx->ppMetadata == nullptr &&
          ctx->wardenV4Vlan == ctx->vlanId &&
          memcmp(ctx->wardenV4Addr, ctx->ipHdr + 12, 4) == 0 &&
          memcmp(ctx->wardenV4Mac, ctx->ethHdr + 6, VIGIL_ETH_ALEN) == 0;
}

VIGIL_MUST_CHECK static zek_Status VigilTxIpv4(VigilFilter *filter, zek_Pkt *pkt,
                              VigilPacketContext *ctx, u32 *action) {
   *action = VIGIL_ACTION_FORWARD;
   if (ctx->flags & VIGIL_PKT_UDP) {
      u16 dstPort = VigilGetBe16(ctx->l4Hdr + 2);
      if (dstPort == VIGIL_UDP_PORT_DHCP_SERVER) {
         if (filter->featuresEnabled & VIGIL_FEAT_DHCP_CLIENT_BLOCK) {
            *action = VIGIL_ACTION_DROP;
            filter->stats.statDhcpClientBlockDrops++;
            return ZEK_OK;
         }
         if (!VigilDhcpIpv4ClientValidate(filter, pkt, ctx)) {
            *action = VIGIL_ACTION_DROP;
            return ZEK_OK;
         }
         if ((filter->discoveryFlags & VIGIL_DISC_DHCP) == 0 ||
             VigilIsIpv4Fragment(ctx->ipHdr)) {
            return ZEK_OK;
         }
         return vigilPipelineCallees.dhcpSnoopTx(filter, pkt, ctx, action);
      }
      if (dstPort == VIGIL_UDP_PORT_DHCP_CLIENT) {
         if (filter->featuresEnabled & VIGIL_FEAT_DHCP_SERVER_BLOCK) {
            *action = VIGIL_ACTION_DROP;
            filter->stats.statDhcpServerBlockDrops++;
         }
         return ZEK_OK;
      }
   }
   if ((filter->featuresEnabled & VIGIL_FEAT_ANY_WARDEN) == 0) {
      return ZEK_OK;
   }
   /* The module's own warden is called by its IPv4 entry, which does the
    * same check with fewer arguments to pass and test. */
   if (vigilPipelineCallees.warden == VigilWarden) {
      const u8 *srcMac = ctx->ethHdr + 6;
      const u8 *ipSrc = ctx->ipHdr + 12;
      if (VigilSourceLetThrough(ctx)) {
         return ZEK_OK;
      }
      *action = VigilWardenIpv4(filter, ctx->vlanId, srcMac, ipSrc, ctx->ppMetadata);
      if (*action == VIGIL_ACTION_FORWARD) {
         ctx->wardenV4Known = 1;
         ctx->wardenV4Vlan = ctx->vlanId;
         memcpy(ctx->wardenV4Mac, srcMac, VIGIL_ETH_ALEN);
         memcpy(ctx->wardenV4Addr, ipSrc, 4);
      }
   } else {
      *action = vigilPipelineCallees.warden(filter, ctx->vlanId, ctx->ethHdr + 6,
                                            ctx->ipHdr + 12, nullptr, VIGIL_WDN_IPV4,
                                            ctx->ppMetadata, 3);
   }
   if (*action == VIGIL_ACTION_DROP) {
      filter->stats.statWardenV4Drops++;
   }
   return ZEK_OK;
}

VIGIL_MUST_CHECK static zek_Status VigilTxArp(VigilFilter *filter, VigilPacketContext *ctx,
                             u32 *action) {
   u32 arpOffset = ctx->ethEntry->nextOffset;
   if (ctx->mappedLen < arpOffset + VIGIL_ARP_HDR_LEN) {
      return ZEK_OK;
   }
   const u8 *arp = ctx->frameMapped + arpOffset;
   if (VigilGetBe16(arp) != 1 || VigilGetBe16(arp + 2) != VIGIL_ETHERTYPE_IPV4 ||
       arp[4] != 6 || arp[5] != 4) {
      return ZEK_OK;
   }
   /* ARP probes and link-local senders are never snooped or enforced. */
   const u8 *senderIp = arp + 14;
   if (VigilGetBe32(senderIp) == 0 || (senderIp[0] == 169 && senderIp[1] == 254)) {
      return ZEK_OK;
   }
   if (filter->discoveryFlags & VIGIL_DISC_ARP) {
      return vigilPipelineCallees.arpSnoop(filter, ctx, arp, action);
   }
   if ((filter->featuresEnabled & VIGIL_FEAT_ANY_WARDEN) == 0) {
      return ZEK_OK;
   }
   *action = vigilPipelineCallees.warden(filter, ctx->vlanId, ctx->ethHdr + 6,
                                         senderIp, arp + 8, VIGIL_WDN_ARP,
                                         ctx->ppMetadata, 3);
   if (*action == VIGIL_ACTION_DROP) {
      filter->stats.statWardenArpDrops++;
   }
   return ZEK_OK;
}

VIGIL_MUST_CHECK static zek_Status VigilTxNonIp(VigilFilter *filter, VigilPacketContext *ctx,
                               u32 *action) {
   if (filter->featuresEnabled & VIGIL_FEAT_ANY_WARDEN) {
      *action = vigilPipelineCallees.warden(filter, ctx->vlanId, ctx->ethHdr + 6,
                                            nullptr, nullptr, VIGIL_WDN_L2,
                                            ctx->ppMetadata, 3);
      if (*action == VIGIL_ACTION_DROP) {
         filter->stats.statNonIpDrops++;
         return ZEK_OK;
      }
      if (*action != VIGIL_ACTION_FORWARD) {
         return ZEK_OK;
      }
   }
   if ((filter->featuresEnabled & VIGIL_FEAT_BPDU_OR_NON_IP) == 0) {
      return ZEK_OK;
   }
   const u8 *dst = ctx->ethHdr;
   for (u32 n = 0; n < numSupportedBpdus; n++) {
      if (memcmp(dst, supportedBpduFilterMacs[n], VIGIL_ETH_ALEN) == 0) {
         /* A listed address is never caught by the non-IP block. */
         if ((filter->featuresEnabled & VIGIL_FEAT_BPDU_FILTER) &&
             (filter->bpduBitmap & (1ull << n))) {
            *action = VIGIL_ACTION_DROP;
            filter->stats.statBpduDrops++;
         } else {
            *action = VIGIL_ACTION_FORWARD;
         }
         return ZEK_OK;
      }
   }
   *action = VIGIL_ACTION_FORWARD;
   if (filter->featuresEnabled & VIGIL_FEAT_NON_IP_BLOCK) {
      *action = VIGIL_ACTION_DROP;
      filter->stats.statNonIpDrops++;
   }
   return ZEK_OK;
}

/* The transmit steps for every frame. */
__attribute__((noinline)) static zek_Status
VigilProcessPktTxAll(VigilFilter *filter, zek_Pkt *pkt, VigilPacketContext *ctx,
                     u32 *action) {
   *action = VIGIL_ACTION_FORWARD;
   if (VigilLimitGroupFrame(filter, ctx->ethHdr, VIGIL_FEAT_TX_BCAST_LIMIT,
                            &filter->txBcastLimiter,
                            &filter->stats.statTxBcastRateDrops,
                            VIGIL_FEAT_TX_MCAST_LIMIT, &filter->txMcastLimiter,
                            &filter->stats.statTxMcastRateDrops, action) &&
       *action != VIGIL_ACTION_FORWARD) {
      return ZEK_OK;
   }
   if (ctx->flags & VIGIL_PKT_IPV4) {
      return VigilTxIpv4(filter, pkt, ctx, action);
   }
   if (ctx->flags & VIGIL_PKT_IPV6) {
      return vigilPipelineCallees.processTxIpv6(filter, pkt, ctx, action);
   }
   *action = VIGIL_ACTION_FORWARD;
   if (VigilGetBe16(ctx->ethHdr + 12) == VIGIL_ETHERTYPE_ARP) {
      return VigilTxArp(filter, ctx, action);
   }
   return VigilTxNonIp(filter, ctx, action);
}

/* The frame most ports see most, a unicast IPv4 frame that is no DHCP and
 * that the warden is off for or has let its source through in this batch,
 * is forwarded here with no call; any other goes through every step.  A
 * unicast frame meets no limiter, so the steps it skips decide nothing. */
zek_Status VigilProcessPktTx(VigilFilter *filter, zek_Pkt *pkt,
                             VigilPacketContext *ctx, u32 *action) {
   Vigil_AssertFilterIsLocked(filter, false);
   if ((ctx->ethHdr[0] & 1) == 0 && (ctx->flags & VIGIL_PKT_IPV4)) {
      bool dhcp = false;
      if (ctx->flags & VIGIL_PKT_UDP) {
         u16 dstPort = VigilGetBe16(ctx->l4Hdr + 2);
         dhcp = dstPort == VIGIL_UDP_PORT_DHCP_SERVER || dstPort == VIGIL_UDP_PORT_DHCP_CLIENT;
      }
      if (!dhcp && ((filter->featuresEnabled & VIGIL_FEAT_ANY_WARDEN) == 0 ||
                    (vigilPipelineCallees.warden == VigilWarden && VigilSourceLetThrough(ctx)))) {
         *action = VIGIL_ACTION_FORWARD;
         return ZEK_OK;
      }
   }
   return VigilProcessPktTxAll(filter, pkt, ctx, action);
}

zek_Status VigilProcessPktRx(VigilFilter *filter, zek_Pkt *pkt,
                             VigilPacketContext *ctx, u32 *action) {
   Vigil_AssertFilterIsLocked(filter, false);
   *action = VIGIL_ACTION_FORWARD;
   if (VigilLimitGroupFrame(filter, ctx->ethHdr, VIGIL_FEAT_RX_BCAST_LIMIT,
                            &filter->rxBcastLimiter,
                            &filter->stats.statRxBcastRateDrops,
                            VIGIL_FEAT_RX_MCAST_LIMIT, &filter->rxMcastLimiter,
                            &filter->stats.statRxMcastRateDrops, action) &&
       *action != VIGIL_ACTION_FORWARD) {
      return ZEK_OK;
   }
   if (ctx->flags & VIGIL_PKT_IPV4) {
      *action = VIGIL_ACTION_FORWARD;
      if ((filter->discoveryFlags & VIGIL_DISC_DHCP) &&
          (ctx->flags & VIGIL_PKT_UDP) &&
          VigilGetBe16(ctx->l4Hdr + 2) == VIGIL_UDP_PORT_DHCP_CLIENT &&
          !VigilIsIpv4Fragment(ctx->ipHdr)) {
         return vigilPipelineCallees.dhcpSnoopRx(filter, pkt, ctx, action);
      }
      return ZEK_OK;
   }
   if (ctx->flags & VIGIL_PKT_IPV6) {
      return vigilPipelineCallees.processRxIpv6(filter, pkt, ctx, action);
   }
   return ZEK_OK;
}
