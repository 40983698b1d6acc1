/*
 * IPv6 frames in both directions.
 *
 * Transmit: the DHCPv6 client and server blocks and the router
 * advertisement guard first, so that a blocked frame is never learnt from;
 * then learning from neighbor solicitations and advertisements and
 * tracking of DHCPv6 client messages; last, every frame not dropped yet is
 * judged by IPv6 address enforcement.  Receive: only DHCPv6 messages go on,
 * to the tracking of replies; nothing is blocked or judged towards the VM.
 *
 * Learning never decides a frame's fate: a frame that can't be parsed or
 * learnt from goes on.  The blocks are plain flag and port tests that work
 * under the read lock; only learning asks for the write lock.
 */
#include "vigil_log.h"
#include "vigil_packet.h"
#include "vigil_warden.h"

zek_Status VigilProcessTxDhcpv6Discovery(VigilFilter *filter, zek_Pkt *pkt,
                                         VigilPacketContext *ctx, u32 *action) {
   Vigil_AssertFilterIsLocked(filter, false);
   *action = VIGIL_ACTION_FORWARD;
   if (ctx->holdsReadLock) {
      *action = VIGIL_ACTION_RELOCK;
      return ZEK_OK;
   }
   zek_Status status = VigilParseDhcpv6Pkt(filter, pkt, ctx);
   if (status != ZEK_OK) {
      /* The parse has given back whatever it held. */
      VIGIL_LOG_THROTTLED("Filter %#x Error parsing DHCPv6 Tx message on port %#x: %s",
                          filter->portID, filter->portID, zek_StatusToString(status));
      VIGIL_LOG_THROTTLED("Filter %#x Error performing Tx DHCPv6 Discovery on port %#x: %s",
                          filter->portID, filter->portID, zek_StatusToString(status));
      return status;
   }
   /* Tracks the request or lets it go; either way it releases the parse. */
   VigilConfirmSnoopingTx(filter, pkt, ctx);
   return ZEK_OK;
}

zek_Status VigilProcessTxIpv6(VigilFilter *filter, zek_Pkt *pkt,
                              VigilPacketContext *ctx, u32 *action) {
   Vigil_AssertFilterIsLocked(filter, false);
   *action = VIGIL_ACTION_FORWARD;

   /* The blocks look at the destination port alone. */
   if (ctx->flags & VIGIL_PKT_UDP) {
      u16 dstPort = VigilGetBe16(ctx->l4Hdr + 2);
      if ((filter->featuresEnabled & VIGIL_FEAT_DHCPV6_CLIENT_BLOCK) &&
          dstPort == VIGIL_UDP_PORT_DHCPV6_SERVER) {
         *action = VIGIL_ACTION_DROP;
         filter->stats.statDhcpV6ClientBlockDrops++;
         return ZEK_OK;
      }
      if ((filter->featuresEnabled & VIGIL_FEAT_DHCPV6_SERVER_BLOCK) &&
          dstPort == VIGIL_UDP_PORT_DHCPV6_CLIENT) {
         *action = VIGIL_ACTION_DROP;
         filter->stats.statDhcpV6ServerBlockDrops++;
         return ZEK_OK;
      }
   }
   bool isIcmpv6 = (ctx->flags & VIGIL_PKT_ICMPV6) != 0;
   u8 icmpType = isIcmpv6 ? ctx->l4Hdr[0] : 0;
   if ((filter->featuresEnabled & VIGIL_FEAT_RA_GUARD) && isIcmpv6 &&
       icmpType == VIGIL_ICMPV6_ROUTER_ADVERT) {
      *action = VIGIL_ACTION_DROP;
      filter->stats.statRaGuardDrops++;
      return ZEK_OK;
   }

   if ((filter->discoveryFlags & VIGIL_DISC_ND) && isIcmpv6 &&
       (icmpType == VIGIL_ICMPV6_NEIGHBOR_SOLICIT ||
        icmpType == VIGIL_ICMPV6_NEIGHBOR_ADVERT)) {
      u32 ndAction = VIGIL_ACTION_FORWARD;
      /* Its failures are logged where they happen, and a frame that
       * teaches nothing still goes on. */
      (void)VigilProcessTxIpv6NdDiscovery(filter, pkt, ctx, &ndAction);
      if (ndAction == VIGIL_ACTION_RELOCK) {
         *action = VIGIL_ACTION_RELOCK;
         return ZEK_OK;
      }
   }
   if ((filter->discoveryFlags & VIGIL_DISC_DHCPV6) && VigilIsPktDhcpV6Msg(ctx)) {
      u32 dhcpAction = VIGIL_ACTION_FORWARD;
      /* Logged where it fails; an untracked message still goes on. */
      (void)VigilProcessTxDhcpv6Discovery(filter, pkt, ctx, &dhcpAction);
      if (dhcpAction == VIGIL_ACTION_RELOCK) {
         *action = VIGIL_ACTION_RELOCK;
         return ZEK_OK;
      }
   }
   return VigilProcessTxIpv6Warden(filter, pkt, ctx, action);
}

zek_Status VigilProcessRxIpv6(VigilFilter *filter, zek_Pkt *pkt,
                              VigilPacketContext *ctx, u32 *action) {
   Vigil_AssertFilterIsLocked(filter, false);
   *action = VIGIL_ACTION_FORWARD;
   if ((filter->discoveryFlags & VIGIL_DISC_DHCPV6) == 0 || !VigilIsPktDhcpV6Msg(ctx)) {
      return ZEK_OK;
   }
   if (ctx->holdsReadLock) {
      *action = VIGIL_ACTION_RELOCK;
      return ZEK_OK;
   }
   zek_Status status = VigilProcessRxDhcpv6Discovery(filter, pkt, ctx);
   if (status != ZEK_OK) {
      VIGIL_LOG_THROTTLED("Filter %#x Error performing Rx DHCPv6 Discovery on port %#x: %s",
                          filter->portID, filter->portID, zek_StatusToString(status));
   }
   return ZEK_OK;
}
