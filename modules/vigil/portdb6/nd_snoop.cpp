/*
 * Neighbor Discovery parsing and snooping.
 *
 * A neighbor solicitation the VM sends teaches its source address, a
 * neighbor advertisement its target address; the MAC is the one of the
 * link-layer address option when the message has one, else the frame's
 * Ethernet source.  The two are not compared here: whether they agree is
 * address enforcement's business.  A solicitation from the unspecified
 * address is duplicate address detection and teaches nothing.
 *
 * The parser reads the 20 bytes of message behind the ICMPv6 header and
 * the first option only.  It skips fragmented frames, and treats what it
 * can't map as malformed.
 */
#include <cstring>

#include "vigil_log.h"
#include "vigil_v6.h"
#include "vigil_warden.h"

#define VIGIL_ICMPV6_HDR_LEN 4u
#define VIGIL_ND_MSG_LEN 20u       /* reserved or flags, then the target */
#define VIGIL_ND_TARGET 4u         /* the target address in the message */
#define VIGIL_ND_OPT_HDR_LEN 2u    /* type, length in units of 8 bytes */
#define VIGIL_ND_OPT_UNIT 8u
#define VIGIL_ND_OPT_SOURCE_LL 1u
#define VIGIL_ND_OPT_TARGET_LL 2u
#define VIGIL_ND_LL_OPT_LEN 8u     /* type, length, a MAC */
#define VIGIL_ND_LL_OPT_MAC 2u     /* the MAC in a link-layer address option */
#define VIGIL_IPV6_SRC 8u          /* the source address in the IPv6 header */

/* Maps the message and its first option, which counts when it is the
 * link-layer address option of the message's type: source for a
 * solicitation (isNs), target for an advertisement. */
VIGIL_MUST_CHECK static zek_Status VigilNDParseMsg(VigilFilter *filter, zek_Pkt *pkt,
                                                   VigilPacketContext *ctx, bool isNs) {
   u32 offset = ctx->l4Entry->offset + VIGIL_ICMPV6_HDR_LEN;
   u8 *ndHdr = VigilGetMappedPtr(pkt, &offset, VIGIL_ND_MSG_LEN, ctx);
   if (ndHdr == nullptr) {
      if (isNs) {
         VIGIL_LOG_THROTTLED("Filter %#x Failed to map NS header", filter->portID);
      } else {
         VIGIL_LOG_THROTTLED("Filter %#x Failed to map NA header", filter->portID);
      }
      return VIGIL_STATUS_BAD_DATA;
   }
   ctx->ndHdr = ndHdr;
   /* Two bytes or fewer behind the message: no option. */
   if ((u64)offset + VIGIL_ND_OPT_HDR_LEN >= ctx->frameLen) {
      return ZEK_OK;
   }
   const u8 *optHdr = VigilGetMappedPtr(pkt, &offset, VIGIL_ND_OPT_HDR_LEN, ctx);
   if (optHdr == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x Failed to map ND option header", filter->portID);
      return VIGIL_STATUS_BAD_DATA;
   }
   u8 optType = optHdr[0];
   u32 optLen = optHdr[1] * VIGIL_ND_OPT_UNIT;
   offset -= VIGIL_ND_OPT_HDR_LEN;
   u8 *opt = VigilGetMappedPtr(pkt, &offset, optLen, ctx);
   if (opt == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x Failed to map ND option of length: %u",
                          filter->portID, optLen);
      return VIGIL_STATUS_BAD_DATA;
   }
   /* Only the first option is looked at: a link-layer address option
    * behind another one is not found. */
   if (optType != (isNs ? VIGIL_ND_OPT_SOURCE_LL : VIGIL_ND_OPT_TARGET_LL)) {
      return ZEK_OK;
   }
   if (optLen != VIGIL_ND_LL_OPT_LEN) {
      VIGIL_LOG_THROTTLED("Filter %#x Invalid target addr option length: %u",
                          filter->portID, optLen);
      return VIGIL_STATUS_BAD_DATA;
   }
   ctx->ndLinkAddrOpt = opt;
   return ZEK_OK;
}

VIGIL_MUST_CHECK static zek_Status VigilNDParseNSPkt(VigilFilter *filter, zek_Pkt *pkt,
                                                     VigilPacketContext *ctx) {
   return VigilNDParseMsg(filter, pkt, ctx, true);
}

VIGIL_MUST_CHECK static zek_Status VigilNDParseNAPkt(VigilFilter *filter, zek_Pkt *pkt,
                                                     VigilPacketContext *ctx) {
   return VigilNDParseMsg(filter, pkt, ctx, false);
}

zek_Status VigilNDParsePkt(VigilFilter *filter, zek_Pkt *pkt, VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, false);
   /* Nothing of an earlier frame of the batch may show through. */
   ctx->ndHdr = nullptr;
   ctx->ndLinkAddrOpt = nullptr;
   if ((ctx->flags & VIGIL_PKT_ICMPV6) == 0 || ctx->l4Entry == nullptr) {
      return VIGIL_STATUS_NOT_SUPPORTED;
   }
   /* Only "no such header" says the frame is whole. */
   zek_PktHeaderEntry *fragment;
   if (zek_PktHeaderFind(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_TYPE_IPV6_FRAGMENT, 1, &fragment, 0) !=
       VIGIL_STATUS_NOT_FOUND) {
      VIGIL_LOG_THROTTLED("Filter %#x ND parsing skips fragmented frame", filter->portID);
      return VIGIL_STATUS_NOT_SUPPORTED;
   }
   switch (ctx->l4Hdr[0]) {
   case VIGIL_ICMPV6_NEIGHBOR_SOLICIT:
      return VigilNDParseNSPkt(filter, pkt, ctx);
   case VIGIL_ICMPV6_NEIGHBOR_ADVERT:
      return VigilNDParseNAPkt(filter, pkt, ctx);
   default:
      return VIGIL_STATUS_NOT_SUPPORTED;
   }
}

/* The binding an ND message claims for `ip`; `tmpl` is zeroed by the caller. */
static void VigilFillNdTemplate(VigilFilter *filter, const VigilPacketContext *ctx,
                                const u8 *ip, VigilV6Vmi *tmpl) {
   const u8 *mac = ctx->ndLinkAddrOpt != nullptr ? ctx->ndLinkAddrOpt + VIGIL_ND_LL_OPT_MAC
                                                 : ctx->ethHdr + VIGIL_ETH_ALEN;
   tmpl->vlanId = ctx->vlanId;
   memcpy(tmpl->mac, mac, VIGIL_ETH_ALEN);
   memcpy(tmpl->ip, ip, sizeof tmpl->ip);
   tmpl->discMethod = VIGIL_DISC_ND;
   tmpl->expiryTs = Vigil_UptimeSecs() + filter->ndExpiry;
}

zek_Status VigilDoNsSnooping(VigilFilter *filter, VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, true);
   static const u8 unspecified[16] = {0};
   const u8 *src = ctx->ipHdr + VIGIL_IPV6_SRC;
   /* Duplicate address detection: the address isn't the VM's yet. */
   if (memcmp(src, unspecified, sizeof unspecified) == 0) {
      return ZEK_OK;
   }
   VigilV6Vmi tmpl;
   memset(&tmpl, 0, sizeof tmpl);
   VigilFillNdTemplate(filter, ctx, src, &tmpl);
   zek_Status status = VigilAddV6Vmi(filter, &tmpl);
   if (status != ZEK_OK) {
      VIGIL_LOG_THROTTLED("Filter %#x Unable to add VMI: %s", filter->portID,
                          zek_StatusToString(status));
      VIGIL_LOG_THROTTLED("Filter %#x ND Snooping failed on port %#x: %s", filter->portID,
                          filter->portID, zek_StatusToString(status));
   }
   return status;
}

void VigilDoNaSnooping(VigilFilter *filter, VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, true);
   VigilV6Vmi tmpl;
   memset(&tmpl, 0, sizeof tmpl);
   VigilFillNdTemplate(filter, ctx, ctx->ndHdr + VIGIL_ND_TARGET, &tmpl);
   zek_Status status = VigilAddV6Vmi(filter, &tmpl);
   if (status != ZEK_OK) {
      VIGIL_LOG_THROTTLED("Filter %#x Unable to add VMI: %s", filter->portID,
                          zek_StatusToString(status));
   }
}

zek_Status VigilProcessTxIpv6NdDiscovery(VigilFilter *filter, zek_Pkt *pkt,
                                         VigilPacketContext *ctx, u32 *action) {
   Vigil_AssertFilterIsLocked(filter, false);
   *action = VIGIL_ACTION_FORWARD;
   if (ctx->holdsReadLock) {
      /* Nothing parsed, nothing changed: the frame comes back from the
       * start with the filter held for write. */
      *action = VIGIL_ACTION_RELOCK;
      return ZEK_OK;
   }
   zek_Status status = VigilNDParsePkt(filter, pkt, ctx);
   if (status != ZEK_OK) {
      VIGIL_LOG_THROTTLED("Filter %#x Error parsing ND message on port %#x: %s",
                          filter->portID, filter->portID, zek_StatusToString(status));
   } else if (ctx->l4Hdr[0] == VIGIL_ICMPV6_NEIGHBOR_SOLICIT) {
      status = VigilDoNsSnooping(filter, ctx);
   } else {
      /* An advertisement's failure was logged by the add alone. */
      VigilDoNaSnooping(filter, ctx);
      return ZEK_OK;
   }
   if (status != ZEK_OK) {
      VIGIL_LOG_THROTTLED("Filter %#x Error performing IPv6 ND Discovery on port %#x: %s",
                          filter->portID, filter->portID, zek_StatusToString(status));
   }
   return status;
}
