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
 *
 * The router advertisement guard is the one exception to "what can't be
 * read passes": a frame whose header chain it cannot follow to the
 * upper-layer header within its first fragment could be an RA a host
 * reassembles, so it is dropped.
 */
#include <cstring>

#include "vigil_log.h"
#include "vigil_packet.h"
#include "vigil_warden.h"

/* IPv6 next-header values the guard walks through.  Each but the fragment
 * and authentication headers has its length in 8-byte units after the
 * first 8 bytes; ESP and anything unknown end the chain as upper layer. */
#define VIGIL_IPV6_HOP_BY_HOP 0
#define VIGIL_IPV6_ROUTING 43
#define VIGIL_IPV6_FRAGMENT 44
#define VIGIL_IPV6_AUTH 51
#define VIGIL_IPV6_ICMPV6 58
#define VIGIL_IPV6_DEST_OPTS 60
#define VIGIL_IPV6_MOBILITY 135
#define VIGIL_IPV6_HIP 139
#define VIGIL_IPV6_SHIM6 140
#define VIGIL_IPV6_EXPERIMENT1 253
#define VIGIL_IPV6_EXPERIMENT2 254

/* What walking a frame's header chain ends in. */
#define VIGIL_CHAIN_UPPER_LAYER 0    /* reached, and its header is whole */
#define VIGIL_CHAIN_LATER_FRAGMENT 1 /* a fragment header with an offset */
#define VIGIL_CHAIN_INCOMPLETE 2     /* runs past what the frame holds */

/* Copies `len` bytes at `offset` from the mapped part when they lie there,
 * else out of the frame.  Never reads past the frame's end; a length of 0
 * only checks that the offset is inside it or at its end. */
static bool VigilReadFrameBytes(zek_Pkt *pkt, const VigilPacketContext *ctx,
                                u32 offset, u32 len, u8 *out) {
   u64 end = (u64)offset + len;
   if (end > ctx->frameLen) {
      return false;
   }
   if (len == 0) {
      return true;
   }
   if (end <= ctx->mappedLen) {
      memcpy(out, ctx->frameMapped + offset, len);
      return true;
   }
   return zek_PktCopyBytesOut(out, len, offset, pkt) == ZEK_OK;
}

/* Follows the header chain from the IPv6 header to the upper-layer header,
 * however many extension headers stand before it.  Each step moves at
 * least 8 bytes on and stops at the frame's end, so a frame of N bytes
 * costs at most N / 8 steps.  On VIGIL_CHAIN_UPPER_LAYER, *upperProto is
 * the upper-layer protocol and *icmpType the ICMPv6 type (0 for others). */
static u32 VigilWalkIpv6Chain(zek_Pkt *pkt, const VigilPacketContext *ctx,
                              u8 *upperProto, u8 *icmpType) {
   u32 offset = (u32)ctx->ipEntry->offset + 40;
   u8 next = ctx->ipHdr[6];
   u8 hdr[8];
   *upperProto = 0;
   *icmpType = 0;
   for (;;) {
      switch (next) {
      case VIGIL_IPV6_HOP_BY_HOP:
      case VIGIL_IPV6_ROUTING:
      case VIGIL_IPV6_DEST_OPTS:
      case VIGIL_IPV6_MOBILITY:
      case VIGIL_IPV6_HIP:
      case VIGIL_IPV6_SHIM6:
      case VIGIL_IPV6_EXPERIMENT1:
      case VIGIL_IPV6_EXPERIMENT2:
         if (!VigilReadFrameBytes(pkt, ctx, offset, 2, hdr)) {
            return VIGIL_CHAIN_INCOMPLETE;
         }
         next = hdr[0];
         offset += ((u32)hdr[1] + 1) * 8;
         break;
      case VIGIL_IPV6_AUTH:
         if (!VigilReadFrameBytes(pkt, ctx, offset, 2, hdr)) {
            return VIGIL_CHAIN_INCOMPLETE;
         }
         next = hdr[0];
         offset += ((u32)hdr[1] + 2) * 4;
         break;
      case VIGIL_IPV6_FRAGMENT:
         if (!VigilReadFrameBytes(pkt, ctx, offset, 8, hdr)) {
            return VIGIL_CHAIN_INCOMPLETE;
         }
         if ((VigilGetBe16(hdr + 2) & 0xfff8u) != 0) {
            return VIGIL_CHAIN_LATER_FRAGMENT;
         }
         next = hdr[0];
         offset += 8;
         break;
      default: {
         /* The upper-layer header must be whole: the fixed part of ICMPv6,
          * UDP and TCP; of anything else nothing is known. */
         u32 need = next == VIGIL_IPV6_ICMPV6 ? 4 : next == 17 ? 8 : next == 6 ? 20 : 0;
         u8 upper[20];
         if (!VigilReadFrameBytes(pkt, ctx, offset, need, upper)) {
            return VIGIL_CHAIN_INCOMPLETE;
         }
         *upperProto = next;
         *icmpType = next == VIGIL_IPV6_ICMPV6 ? upper[0] : 0;
         return VIGIL_CHAIN_UPPER_LAYER;
      }
      }
   }
}

/* Whether the RA guard drops the frame.  When the host's header parse
 * found the frame's ICMPv6 or UDP header, the chain is whole and the
 * ICMPv6 type decides.  Any other frame has its chain walked here: an RA
 * behind headers the parse doesn't follow is dropped, and so is a frame
 * whose chain ends before its upper-layer header (a first fragment that
 * leaves part of the chain to the next, or a cut frame).  A later fragment
 * passes: without its first fragment no host can reassemble it. */
static bool VigilRaGuardDrops(VigilFilter *filter, zek_Pkt *pkt,
                              VigilPacketContext *ctx) {
   if (ctx->flags & VIGIL_PKT_ICMPV6) {
      return ctx->l4Hdr[0] == VIGIL_ICMPV6_ROUTER_ADVERT;
   }
   if (ctx->flags & VIGIL_PKT_UDP) {
      return false;
   }
   u8 upperProto;
   u8 icmpType;
   u32 end = VigilWalkIpv6Chain(pkt, ctx, &upperProto, &icmpType);
   if (end == VIGIL_CHAIN_INCOMPLETE) {
      VIGIL_LOG_THROTTLED("Filter %#x RA guard dropped a frame whose IPv6 header chain is "
                          "incomplete on port %#x",
                          filter->portID, filter->portID);
      return true;
   }
   return end == VIGIL_CHAIN_UPPER_LAYER && upperProto == VIGIL_IPV6_ICMPV6 &&
          icmpType == VIGIL_ICMPV6_ROUTER_ADVERT;
}

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
   if ((filter->featuresEnabled & VIGIL_FEAT_RA_GUARD) &&
       VigilRaGuardDrops(filter, pkt, ctx)) {
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
