/*
 * The packet loop: the one place where frames enter the module.
 *
 * Each I/O chain call hands over a list of frames of one port.  The batch
 * holds the filter's configuration lock for read, parses each frame once and
 * lets the pipeline of its direction decide.  A pipeline that must change
 * state under the read lock answers RELOCK; the batch then takes the write
 * lock, keeps it to its end and runs that frame again from the start.
 */
#include <cstddef>
#include <cstring>

#include "oxa.h"
#include "pathprobe.h"
#include "vigil_atomic.h"
#include "vigil_log.h"
#include "vigil_packet.h"

static_assert(ZEK_PKT_LIST_ITER_MAX_SIZE >= 16, "iterator room");

/* Smallest header each parse bit promises to the pipelines. */
#define VIGIL_MIN_ETH_HDR 14u
#define VIGIL_MIN_IPV4_HDR 20u
#define VIGIL_MIN_IPV6_HDR 40u
#define VIGIL_MIN_UDP_HDR 8u
#define VIGIL_MIN_ICMPV6_HDR 4u

/* Whether the chain's filter has left its port: a chain that could not be
 * removed still calls in, and its frames pass untouched.  The filter stays
 * allocated while any of its chains is installed. */
static bool VigilChainIsRetired(void *priv) {
   return priv != nullptr && VigilAtomicLoad(&((VigilFilter *)priv)->retired) != 0;
}

extern "C" zek_Status Vigil_ProcessPacketsToSwitch(zek_PortID portID, void *priv,
                                                   zek_PktList *list) {
   if (VigilChainIsRetired(priv)) {
      return ZEK_OK;
   }
   return VigilProcessPackets(portID, list, true);
}

extern "C" zek_Status Vigil_ProcessPacketsFromSwitch(zek_PortID portID,
                                                     void *priv,
                                                     zek_PktList *list) {
   if (VigilChainIsRetired(priv)) {
      return ZEK_OK;
   }
   return VigilProcessPackets(portID, list, false);
}

/* Points at a header whose entry is in hand, in the mapped frame when it
 * lies there and in the context's copy otherwise.  The length is the
 * distance to the next header capped at the copy's size; a header shorter
 * than `minLen` is treated as missing, so that pipelines never read past
 * what was found. */
static inline bool VigilMapLayer(zek_Pkt *pkt, VigilPacketContext *ctx,
                                 const zek_PktHeaderEntry *entry, u8 *copy, u32 cap,
                                 u32 minLen, u8 **hdr) {
   u32 len = (u32)((i32)entry->nextOffset - (i32)entry->offset);
   if (len > cap) {
      len = cap;
   }
   if (len < minLen) {
      return false;
   }
   u32 offset = entry->offset;
   if (__builtin_expect(ctx->mappedLen < offset + len, 0)) {
      if (zek_PktCopyBytesOut(copy, len, offset, pkt) != ZEK_OK) {
         return false;
      }
      *hdr = copy;
   } else {
      *hdr = ctx->frameMapped + offset;
   }
   return true;
}

/* Finds one header and points at it (VigilMapLayer). */
static inline bool VigilParseLayer(zek_Pkt *pkt, VigilPacketContext *ctx, u32 layer,
                                   u32 headerClass, zek_PktHeaderEntry **entry,
                                   u8 *copy, u32 cap, u32 minLen, u8 **hdr) {
   if (zek_PktHeaderFind(pkt, layer, headerClass, 1, entry, 0) != ZEK_OK) {
      return false;
   }
   return VigilMapLayer(pkt, ctx, *entry, copy, cap, minLen, hdr);
}

/* The IPv4 header and, for UDP, the UDP header of a frame whose Ethernet
 * entry says IPv4, worked out from that entry and the mapped bytes instead
 * of two more finds.  The host describes an IPv4 header that starts where
 * the Ethernet entry says the next header does, has version 4 and a header
 * length of at least 20 bytes that lies in the frame, and ends where that
 * length says; and behind it, unless the frame is a later fragment, the UDP
 * header of 8 bytes if they lie in the frame.  Only a frame whose headers
 * are wholly mapped is taken this way, and only when the header is surely
 * there: false sends the frame to the finds, which then answer exactly as
 * for any other frame. */
static inline bool VigilDeriveIpv4(VigilPacketContext *ctx) {
   u32 offset = ctx->ethEntry->nextOffset;
   u32 mappedLen = ctx->mappedLen; /* never above the frame's length */
   if (offset + VIGIL_MIN_IPV4_HDR > mappedLen) {
      return false;
   }
   const u8 *ip = ctx->frameMapped + offset;
   /* Version 4 and a header of 5 to 15 words, wholly mapped (and so in the
    * frame); a longer one than the mapped part goes to the finds. */
   if ((u8)(ip[0] - 0x45) > 0x0a) {
      return false;
   }
   u32 l4Offset = offset + (u32)(ip[0] & 0x0f) * 4;
   if (l4Offset > mappedLen) {
      return false;
   }
   u8 proto = ip[9];
   bool udp = false;
   /* A later fragment carries no transport header; a UDP header in the
    * frame but not in the mapped part goes to the finds and their copy. */
   if (proto == 17 && (VigilGetBe16(ip + 6) & 0x1fff) == 0) {
      if (l4Offset + VIGIL_MIN_UDP_HDR <= mappedLen) {
         udp = true;
      } else if (l4Offset + VIGIL_MIN_UDP_HDR <= ctx->frameLen) {
         return false;
      }
   }
   ctx->ownIpEntry.type = ZEK_PKT_TYPE_IPV4;
   ctx->ownIpEntry.offset = (u16)offset;
   ctx->ownIpEntry.nextProto = proto;
   ctx->ownIpEntry.nextOffset = (u16)l4Offset;
   ctx->ipEntry = &ctx->ownIpEntry;
   ctx->ipHdr = (u8 *)ip;
   ctx->flags |= VIGIL_PKT_IPV4;
   if (udp) {
      ctx->ownL4Entry.type = ZEK_PKT_TYPE_UDP;
      ctx->ownL4Entry.offset = (u16)l4Offset;
      ctx->ownL4Entry.nextProto = 0;
      ctx->ownL4Entry.nextOffset = (u16)(l4Offset + VIGIL_MIN_UDP_HDR);
      ctx->l4Entry = &ctx->ownL4Entry;
      ctx->l4Hdr = ctx->frameMapped + l4Offset;
      ctx->flags |= VIGIL_PKT_UDP;
   }
   return true;
}

/* Everything behind the Ethernet header, by the host's finds alone. */
static void VigilParseNetworkByFind(zek_Pkt *pkt, VigilPacketContext *ctx, bool isIpv4) {
   if (!VigilParseLayer(pkt, ctx, 1, 0x2000, &ctx->ipEntry, ctx->ipCopy,
                        VIGIL_IP_HDR_COPY,
                        isIpv4 ? VIGIL_MIN_IPV4_HDR : VIGIL_MIN_IPV6_HDR,
                        &ctx->ipHdr)) {
      return;
   }
   if (isIpv4) {
      ctx->flags |= VIGIL_PKT_IPV4;
      if (ctx->ipEntry->nextProto != 17) {
         return;
      }
      if (VigilParseLayer(pkt, ctx, 2, 0x4000, &ctx->l4Entry, ctx->l4Copy,
                          VIGIL_L4_HDR_COPY, VIGIL_MIN_UDP_HDR, &ctx->l4Hdr)) {
         ctx->flags |= VIGIL_PKT_UDP;
      }
      return;
   }

   ctx->flags |= VIGIL_PKT_IPV6;
   zek_PktHeaderEntry *l4Entry;
   if (zek_PktHeaderFind(pkt, 2, 0x4000, 1, &l4Entry, 0) != ZEK_OK ||
       (l4Entry->type & ~0x0800u) != 0x4002) {
      return;
   }
   bool isIcmpv6 = l4Entry->type == 0x4802;
   if (VigilParseLayer(pkt, ctx, 2, 0x4000, &ctx->l4Entry, ctx->l4Copy,
                       VIGIL_L4_HDR_COPY,
                       isIcmpv6 ? VIGIL_MIN_ICMPV6_HDR : VIGIL_MIN_UDP_HDR,
                       &ctx->l4Hdr)) {
      ctx->flags |= isIcmpv6 ? VIGIL_PKT_ICMPV6 : VIGIL_PKT_UDP;
   }
}

/* Parses Ethernet, IP and the layer 4 header the pipelines look at.  Stops
 * at the first header that can't be found or copied, keeping the bits set
 * so far.  `byFind` takes every header by the host's finds (the reference
 * that the shorter way for IPv4 is tested against). */
static inline void VigilParseHeadersWith(zek_Pkt *pkt, VigilPacketContext *ctx,
                                         bool byFind) {
   if (!VigilParseLayer(pkt, ctx, 0, 0x1000, &ctx->ethEntry, ctx->ethCopy,
                        VIGIL_ETH_HDR_COPY, VIGIL_MIN_ETH_HDR, &ctx->ethHdr)) {
      return;
   }
   ctx->flags |= VIGIL_PKT_ETH;
   ctx->vlanId = zek_PktVlanIDGet(pkt);

   u16 etherType = ctx->ethEntry->nextProto;
   if (etherType == VIGIL_ETHERTYPE_IPV4) {
      if (byFind || !VigilDeriveIpv4(ctx)) {
         VigilParseNetworkByFind(pkt, ctx, true);
      }
   } else if (etherType == VIGIL_ETHERTYPE_IPV6) {
      VigilParseNetworkByFind(pkt, ctx, false);
   }
}

void VigilParseHeaders(zek_Pkt *pkt, VigilPacketContext *ctx) {
   VigilParseHeadersWith(pkt, ctx, false);
}

void VigilParseHeadersByFind(zek_Pkt *pkt, VigilPacketContext *ctx) {
   VigilParseHeadersWith(pkt, ctx, true);
}

/* Locates the Pathprobe metadata, the last 16 bytes of the packet, of a
 * traced frame.  A frame that is not wholly mapped is replaced in the list by
 * a mapped copy first.  A failure is logged and the frame goes on untraced. */
__attribute__((noinline, cold)) static void
VigilPathprobeStep(zek_PktListIter *iter, zek_Pkt **pkt, VigilPacketContext *ctx) {
   u64 nowMs = zek_TimerMonotonicCounter() * 1000 /
               zek_GetMonotonicCounterFrequency();
   if (pathprobe_global_time <= nowMs) {
      return;
   }
   u64 attrValue;
   if (oxa_PktAttrGet(*pkt, ppPktAttrHandle, &attrValue) != ZEK_OK) {
      return;
   }

   zek_Status status = ZEK_OK;
   zek_Pkt *copy = nullptr;
   zek_Pkt *current = *pkt;
   zek_PktHeaderEntry *entry;
   u32 mappedLen = 0;
   u8 *start;
   u8 *metadata = nullptr;

   if (zek_PktHeaderFind(current, 0, 0x1000, 1, &entry, 0) != ZEK_OK) {
      status = VIGIL_STATUS_BAD_DATA;
      goto done;
   }
   if (entry->nextProto != VIGIL_ETHERTYPE_IPV4 &&
       entry->nextProto != VIGIL_ETHERTYPE_IPV6 &&
       entry->nextProto != VIGIL_ETHERTYPE_ARP) {
      status = VIGIL_STATUS_NOT_SUPPORTED;
      goto done;
   }
   mappedLen = zek_PktFrameMappedLenGet(current);
   if (mappedLen != zek_PktFrameLenGet(current)) {
      if (zek_PktCopy(current, &copy) != ZEK_OK) {
         copy = nullptr;
         status = VIGIL_STATUS_BAD_DATA;
         goto done;
      }
      current = copy;
      mappedLen = zek_PktFrameMappedLenGet(current);
   }
   if (mappedLen <= 29) {
      status = VIGIL_STATUS_BAD_DATA;
      goto done;
   }

   start = (u8 *)zek_PktFrameMappedPointerGet(current);
   if (start == nullptr) {
      status = VIGIL_STATUS_BAD_DATA;
      goto done;
   }
   {
      /* The Ethernet header counts as 14 bytes whatever a tag may do. */
      u64 metaOffset;
      if (entry->nextProto == VIGIL_ETHERTYPE_IPV4) {
         metaOffset = 14 + (u64)VigilGetBe16(start + 16) - 16;
      } else if (entry->nextProto == VIGIL_ETHERTYPE_IPV6) {
         metaOffset = 14 + (u64)VigilGetBe16(start + 18) + 24;
      } else {
         metaOffset = mappedLen - 16;
      }
      /* A length field that points outside the frame makes it truncated. */
      if (metaOffset > (u64)mappedLen - 16) {
         status = VIGIL_STATUS_BAD_DATA;
         goto done;
      }
      metadata = start + metaOffset;
   }
   if (copy != nullptr) {
      status = zek_PktListIterReplace(iter, copy);
      if (status != ZEK_OK) {
         goto done;
      }
      *pkt = copy;
      copy = nullptr;
   }
   ctx->ppMetadata = metadata;

done:
   if (copy != nullptr) {
      zek_PktRelease(copy);
   }
   if (status != ZEK_OK) {
      VIGIL_LOG_THROTTLED("Unable to extract Pathprobe metadata from packet: %s",
                          zek_StatusToString(status));
      ctx->ppMetadata = nullptr;
   }
}

static void VigilFreeFlatCopy(VigilPacketContext *ctx) {
   if (ctx->flatCopy != nullptr) {
      Vigil_HeapFree(ctx->flatCopy);
      ctx->flatCopy = nullptr;
   }
}

zek_Status VigilProcessPackets(u32 portID, zek_PktList *list, bool toSwitch) {
   VigilPacketContext ctx;
   alignas(16) u8 iterMem[ZEK_PKT_LIST_ITER_MAX_SIZE];
   zek_PktListIter *iter = (zek_PktListIter *)iterMem;

   /* Zero as far as the header copies: what lies behind them is written
    * before anything reads it. */
   memset(&ctx, 0, offsetof(VigilPacketContext, ethCopy));
   /* A chain that outlived its port's filter finds no filter: pass. */
   VigilFilter *filter = Vigil_LockFilter(portID, false);
   if (filter == nullptr) {
      return ZEK_OK;
   }
   ctx.holdsReadLock = 1;
   if (filter->featuresEnabled == 0 && filter->discoveryFlags == 0) {
      Vigil_UnlockFilter(filter, false);
      return ZEK_OK;
   }
   zek_Status (*pipeline)(VigilFilter *, zek_Pkt *, VigilPacketContext *, u32 *) =
      toSwitch ? VigilProcessPktTx : VigilProcessPktRx;

   zek_PktListIterStart(iter, list);
   while (!zek_PktListIterIsAtEnd(iter)) {
      zek_Pkt *pkt = zek_PktListIterGetPkt(iter);
      u32 action = VIGIL_ACTION_FORWARD;
      ctx.ppMetadata = nullptr;
      /* No trace window open: no clock read nor division per frame. */
      if (__builtin_expect(pathprobe_global_time != 0, 0)) {
         VigilPathprobeStep(iter, &pkt, &ctx);
      }

      ctx.flags = 0;
      u8 *mapped = (u8 *)zek_PktFrameMappedPointerGet(pkt);
      u32 frameLen = zek_PktFrameLenGet(pkt);
      u32 mappedLen = zek_PktFrameMappedLenGet(pkt);
      if (mappedLen > frameLen) {
         mappedLen = frameLen;
      }
      /* Without a mapped part every header is read through a copy. */
      if (mapped == nullptr) {
         mappedLen = 0;
      }
      ctx.frameMapped = mapped;
      ctx.frameLen = frameLen;
      ctx.mappedLen = mappedLen;
      ctx.flatCopy = nullptr;
      ctx.dhcpHdr = nullptr;
      ctx.dhcpMsgType = nullptr;
      ctx.dhcpClientIdLen = 0;
      ctx.dhcpClientId = nullptr;
      ctx.dhcpLeaseTime = nullptr;
      VigilParseHeadersWith(pkt, &ctx, false);

      zek_Status status = ZEK_OK;
      if (ctx.flags & VIGIL_PKT_ETH) {
         status = pipeline(filter, pkt, &ctx, &action);
      }
      if (__builtin_expect(ctx.flatCopy != nullptr, 0)) {
         VigilFreeFlatCopy(&ctx);
      }
      if (__builtin_expect(action == VIGIL_ACTION_RELOCK, 0) && status == ZEK_OK &&
          ctx.holdsReadLock == 1) {
         /* Run the same frame again under the write lock.  Without it (the
          * filter left its port meanwhile) the batch holds no lock any more:
          * it stops judging, and the rest of the list passes untouched. */
         filter = Vigil_RelockFilterForWrite(filter);
         if (filter == nullptr) {
            return ZEK_OK;
         }
         ctx.holdsReadLock = 0;
         /* The configuration may have changed while no lock was held. */
         ctx.wardenV4Known = 0;
         ctx.flags = 0;
         continue;
      }
      ctx.flags = 0;

      if (action == VIGIL_ACTION_DROP) {
         zek_Pkt *removed = nullptr;
         if (zek_PktListIterRemovePkt(iter, &removed) == ZEK_OK) {
            zek_PktRelease(removed);
         } else {
            zek_PktListIterMove(iter);
         }
      } else {
         zek_PktListIterMove(iter);
      }
   }

   Vigil_UnlockFilter(filter, ctx.holdsReadLock == 0);
   return ZEK_OK;
}

/* Walks the scatter-gather elements for the one that holds byte `start`;
 * gives its address only if bytes start to end lie in that element. */
u8 *OXA_PktFindSGEntry(zek_Pkt *pkt, u32 start, u32 end) {
   const zek_SgArray *sgArray = zek_PktSgArrayGet(pkt);
   if (sgArray == nullptr) {
      return nullptr;
   }
   u64 elemStart = 0;
   for (u32 i = 0; i < sgArray->numElems; i++) {
      const zek_SgElem *elem = zek_PktSgElemGet(pkt, i);
      if (elem == nullptr) {
         return nullptr;
      }
      u64 elemEnd = elemStart + elem->length;
      if (elemEnd <= start) {
         elemStart = elemEnd;
         continue;
      }
      if (elemEnd < end) {
         return nullptr;
      }
      void *va;
      if (zek_MA2VA(elem->addr, elem->length, &va) != ZEK_OK) {
         return nullptr;
      }
      return (u8 *)va + (start - elemStart);
   }
   return nullptr;
}

/* A contiguous view of `length` bytes at *offset, advancing the offset past
 * them: in the flat copy if one exists, in the mapped part, in one
 * scatter-gather element, or else in a new flat copy of the whole frame. */
u8 *VigilGetMappedPtr(zek_Pkt *pkt, u32 *offset, u32 length,
                      VigilPacketContext *ctx) {
   u32 start = *offset;
   u64 end = (u64)start + length;
   if (end > ctx->frameLen) {
      VIGIL_LOG_THROTTLED("Header offset (%u + %u) exceeds framelen: %u", start,
                          length, ctx->frameLen);
      return nullptr;
   }
   if (ctx->flatCopy != nullptr) {
      *offset = (u32)end;
      return ctx->flatCopy + start;
   }
   if (end <= ctx->mappedLen) {
      *offset = (u32)end;
      return ctx->frameMapped + start;
   }
   u8 *inElem = OXA_PktFindSGEntry(pkt, start, (u32)end);
   if (inElem != nullptr) {
      *offset = (u32)end;
      return inElem;
   }
   ctx->flatCopy = (u8 *)Vigil_HeapAlloc(ctx->frameLen);
   if (ctx->flatCopy == nullptr) {
      VIGIL_LOG_THROTTLED("Failed to alloc pktCopy: %u", ctx->frameLen);
      return nullptr;
   }
   zek_Status status =
      zek_PktCopyBytesOut(ctx->flatCopy, ctx->frameLen, 0, pkt);
   if (status != ZEK_OK) {
      VIGIL_LOG_THROTTLED("Failed to copy pkt: %s(%u)", zek_StatusToString(status),
                          ctx->frameLen);
      VigilFreeFlatCopy(ctx);
      return nullptr;
   }
   *offset = (u32)end;
   return ctx->flatCopy + start;
}
