/*
 * DHCP snooping.
 *
 * The transmit side sees a client's DHCPREQUEST and keeps a pending request;
 * the receive side pairs the server's DHCPACK with it (VLAN, transaction id,
 * client hardware address) and turns it into a binding that lives as long as
 * the lease.  A reply nobody asked for teaches nothing.  Snooping never
 * decides a frame's fate: it only asks for the write lock.
 */
#include <cstring>

#include "vigil_dhcp.h"
#include "vigil_log.h"

#define VIGIL_DHCP_MIN_UDP_LEN 248u
#define VIGIL_UDP_HDR_LEN 8u
#define VIGIL_DHO_PAD 0
#define VIGIL_DHO_LEASE_TIME 51
#define VIGIL_DHO_MESSAGE_TYPE 53
#define VIGIL_DHO_CLIENT_ID 61
#define VIGIL_DHO_END 255
#define VIGIL_DHCP_PARSE_FAILED 0xffffffffu


const char *const dhcpMsgTypeStr[9] = {
   "",          "DHCPDISCOVER", "DHCPOFFER",  "DHCPREQUEST", "DHCPDECLINE",
   "DHCPACK",   "DHCPNAK",      "DHCPRELEASE", "DHCPINFORM",
};


/* A heap copy of a client identifier, or null. */
static u8 *VigilCopyClientId(const u8 *clientId, u32 len) {
   u8 *copy = (u8 *)Vigil_HeapAlloc(len);
   if (copy != nullptr) {
      memcpy(copy, clientId, len);
   }
   return copy;
}

static u32 VigilReadU32(const u8 *p) {
   u32 value;
   memcpy(&value, p, 4);
   return value;
}

zek_Status VigilDhcpParse(VigilFilter *filter, zek_Pkt *pkt,
                          VigilPacketContext *ctx) {
   u32 l4Offset = ctx->l4Entry->offset;
   u32 udpLen = VigilGetBe16(ctx->l4Hdr + 4);
   if (udpLen < VIGIL_DHCP_MIN_UDP_LEN || ctx->frameLen < udpLen + l4Offset) {
      VIGIL_LOG_THROTTLED("Filter %#x Invalid frame len", filter->portID);
      return VIGIL_DHCP_PARSE_FAILED;
   }

   u32 offset = l4Offset + VIGIL_UDP_HDR_LEN;
   ctx->dhcpHdr = VigilGetMappedPtr(pkt, &offset, VIGIL_DHCP_FIXED_LEN, ctx);
   if (ctx->dhcpHdr == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x Can't access DHCP hdr", filter->portID);
      return VIGIL_DHCP_PARSE_FAILED;
   }
   const u8 *hdr = ctx->dhcpHdr;
   if (hdr[VIGIL_DHCP_HTYPE] != 1 || hdr[VIGIL_DHCP_HLEN] != 6) {
      VIGIL_LOG_THROTTLED("Filter %#x Invalid htype/hlen: [%u %u]", filter->portID,
                          hdr[VIGIL_DHCP_HTYPE], hdr[VIGIL_DHCP_HLEN]);
      ctx->dhcpHdr = nullptr;
      return VIGIL_DHCP_PARSE_FAILED;
   }
   const u8 *cookie = hdr + VIGIL_DHCP_COOKIE;
   if (cookie[0] != 99 || cookie[1] != 130 || cookie[2] != 83 || cookie[3] != 99) {
      VIGIL_LOG_THROTTLED("Filter %#x Invalid cookie: 0x%08x", filter->portID,
                          VigilReadU32(cookie));
      ctx->dhcpHdr = nullptr;
      return VIGIL_DHCP_PARSE_FAILED;
   }

   /* The options run to the end option, bounded by the frame rather than by
    * the UDP length. */
   offset = l4Offset + VIGIL_DHCP_MIN_UDP_LEN;
   for (;;) {
      if (offset >= ctx->frameLen) {
         VIGIL_LOG_THROTTLED("Filter %#x Invalid options: %d %p", filter->portID, 0,
                             (void *)ctx->dhcpMsgType);
         break;
      }
      u32 codeOffset = offset;
      const u8 *code = VigilGetMappedPtr(pkt, &offset, 1, ctx);
      if (code == nullptr) {
         VIGIL_LOG_THROTTLED("Filter %#x Can't access DHCP option code: %u",
                             filter->portID, codeOffset);
         break;
      }
      if (*code == VIGIL_DHO_PAD) {
         continue;
      }
      if (*code == VIGIL_DHO_END) {
         if (ctx->dhcpMsgType == nullptr) {
            VIGIL_LOG_THROTTLED("Filter %#x Invalid options: %d %p", filter->portID,
                                1, (void *)nullptr);
            break;
         }
         if (*ctx->dhcpMsgType == VIGIL_DHCPACK && ctx->dhcpLeaseTime == nullptr) {
            VIGIL_LOG_THROTTLED("Filter %#x No lease time option in DHCPACK",
                                filter->portID);
            break;
         }
         return ZEK_OK;
      }
      u8 optCode = *code;
      u32 lenOffset = offset;
      const u8 *len = VigilGetMappedPtr(pkt, &offset, 1, ctx);
      if (len == nullptr) {
         VIGIL_LOG_THROTTLED("Filter %#x Can't access DHCP option len: %u",
                             filter->portID, lenOffset);
         break;
      }
      u8 optLen = *len;
      u8 *value = nullptr;
      if (optLen != 0) {
         u32 valueOffset = offset;
         value = VigilGetMappedPtr(pkt, &offset, optLen, ctx);
         if (value == nullptr) {
            VIGIL_LOG_THROTTLED("Filter %#x Can't access DHCP option: %u",
                                filter->portID, valueOffset);
            break;
         }
      }
      if (optCode == VIGIL_DHO_MESSAGE_TYPE) {
         ctx->dhcpMsgType = value;
      } else if (optCode == VIGIL_DHO_CLIENT_ID) {
         ctx->dhcpClientIdLen = optLen;
         ctx->dhcpClientId = value;
      } else if (optCode == VIGIL_DHO_LEASE_TIME) {
         if (optLen != 4) {
            /* dhcpHdr stays set: the transmit snoop does not parse again. */
            VIGIL_LOG_THROTTLED("Filter %#x Wrong length of %u for option "
                                "DHO_DHCP_LEASE_TIME",
                                filter->portID, optLen);
            return VIGIL_DHCP_PARSE_FAILED;
         }
         ctx->dhcpLeaseTime = value;
      }
   }
   ctx->dhcpHdr = nullptr;
   return VIGIL_DHCP_PARSE_FAILED;
}

/* Whether a record's client identity (identifier, else hardware address)
 * is the given one. */
static bool VigilSameClient(u32 recordIdLen, const u8 *recordId,
                            const u8 *recordMac, u32 clientIdLen,
                            const u8 *clientId, const u8 *chaddr) {
   if (recordIdLen != clientIdLen) {
      return false;
   }
   if (clientIdLen > 0) {
      return memcmp(recordId, clientId, clientIdLen) == 0;
   }
   return memcmp(recordMac, chaddr, 6) == 0;
}

VigilVmi *VigilFindDhcpClientVmi(VigilFilter *filter, u16 vlanId,
                                 const u8 *chaddr, u32 clientIdLen,
                                 const u8 *clientId) {
   Vigil_AssertFilterIsLocked(filter, false);
   VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      if (vmi->vlanId == vlanId && vmi->discMethod == VIGIL_DISC_DHCP &&
          VigilSameClient(vmi->clientIdLen, vmi->clientIdStr, vmi->clientMac,
                          clientIdLen, clientId, chaddr)) {
         return vmi;
      }
   }
   return nullptr;
}

VigilDhcpReq *VigilFindDhcpClientReq(VigilFilter *filter, VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, false);
   const u8 *chaddr = ctx->dhcpHdr + VIGIL_DHCP_CHADDR;
   VIGIL_LIST_FOR_EACH(pos, &filter->dhcpReqList) {
      VigilDhcpReq *req = VIGIL_DHCP_REQ_FROM_LINKS(pos);
      if (req->vlanId == ctx->vlanId &&
          VigilSameClient(req->clientIdLen, req->clientIdStr, req->chaddr,
                          ctx->dhcpClientIdLen, ctx->dhcpClientId, chaddr)) {
         return req;
      }
   }
   return nullptr;
}

VigilDhcpReq *VigilFindMatchingDhcpReq(VigilFilter *filter, u16 vlanId,
                                       const u8 *dhcpHdr) {
   Vigil_AssertFilterIsLocked(filter, false);
   u32 xid = VigilReadU32(dhcpHdr + VIGIL_DHCP_XID);
   VIGIL_LIST_FOR_EACH(pos, &filter->dhcpReqList) {
      VigilDhcpReq *req = VIGIL_DHCP_REQ_FROM_LINKS(pos);
      if (req->vlanId == vlanId && req->xid == xid &&
          memcmp(req->chaddr, dhcpHdr + VIGIL_DHCP_CHADDR, 6) == 0) {
         return req;
      }
   }
   return nullptr;
}

void VigilDelDhcpReq(VigilFilter *filter, VigilDhcpReq *req) {
   Vigil_AssertFilterIsLocked(filter, true);
   VigilListRemove(&req->links);
   if (req->clientIdLen != 0) {
      Vigil_HeapFree(req->clientIdStr);
   }
   Vigil_HeapFree(req);
   filter->numDhcpReqs--;
   VigilUpdateFilterAging(filter);
}

zek_Status VigilAddDhcpReq(VigilFilter *filter, VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, true);
   const u8 *hdr = ctx->dhcpHdr;
   if (filter->numDhcpReqs >= VIGIL_MAX_DHCP_REQS) {
      VIGIL_LOG_THROTTLED("Filter %#x Max V4 Requests: %u reached", filter->portID,
                          VIGIL_MAX_DHCP_REQS);
      return VIGIL_STATUS_LIMIT;
   }
   if (VigilReadU32(hdr + VIGIL_DHCP_GIADDR) != 0) {
      return VIGIL_STATUS_NOT_SUPPORTED; /* relayed requests are not tracked */
   }
   VigilDhcpReq *req = (VigilDhcpReq *)Vigil_HeapAlloc(sizeof(VigilDhcpReq));
   if (req == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x Alloc of dhcpReq failed", filter->portID);
      return VIGIL_STATUS_NO_MEMORY;
   }
   if (ctx->dhcpClientIdLen != 0) {
      req->clientIdStr = VigilCopyClientId(ctx->dhcpClientId, ctx->dhcpClientIdLen);
      if (req->clientIdStr == nullptr) {
         VIGIL_LOG_THROTTLED("Filter %#x Alloc of dhcpReq clientIdStr failed",
                             filter->portID);
         Vigil_HeapFree(req);
         return VIGIL_STATUS_NO_MEMORY;
      }
   }
   req->vlanId = ctx->vlanId;
   req->xid = VigilReadU32(hdr + VIGIL_DHCP_XID);
   req->clientIdLen = (u8)ctx->dhcpClientIdLen;
   memcpy(req->chaddr, hdr + VIGIL_DHCP_CHADDR, 6);
   req->expiryTs = Vigil_UptimeSecs() + VIGIL_DHCP_REQ_LIFETIME;

   VigilListLinks *before = &filter->dhcpReqList;
   VIGIL_LIST_FOR_EACH(pos, &filter->dhcpReqList) {
      if (VIGIL_DHCP_REQ_FROM_LINKS(pos)->expiryTs > req->expiryTs) {
         before = pos;
         break;
      }
   }
   VigilListInsertBefore(before, &req->links);
   filter->numDhcpReqs++;
   VigilUpdateFilterAging(filter);
   return ZEK_OK;
}

zek_Status VigilDhcpSnoopTx(VigilFilter *filter, zek_Pkt *pkt,
                            VigilPacketContext *ctx, u32 *action) {
   Vigil_AssertFilterIsLocked(filter, false);
   if (ctx->holdsReadLock) {
      *action = VIGIL_ACTION_RELOCK;
      return ZEK_OK;
   }
   if (ctx->dhcpHdr == nullptr && VigilDhcpParse(filter, pkt, ctx) != ZEK_OK) {
      return ZEK_OK;
   }
   if (ctx->dhcpMsgType == nullptr) {
      return VIGIL_STATUS_BAD_DATA;
   }
   const u8 *chaddr = ctx->dhcpHdr + VIGIL_DHCP_CHADDR;
   switch (*ctx->dhcpMsgType) {
   case VIGIL_DHCPDISCOVER:
   case VIGIL_DHCPDECLINE:
   case VIGIL_DHCPRELEASE: {
      /* The client gives up what it had. */
      VigilDhcpReq *req = VigilFindDhcpClientReq(filter, ctx);
      if (req != nullptr) {
         VigilDelDhcpReq(filter, req);
      }
      VigilVmi *vmi = VigilFindDhcpClientVmi(filter, ctx->vlanId, chaddr,
                                             ctx->dhcpClientIdLen, ctx->dhcpClientId);
      if (vmi != nullptr) {
         VigilDelVmi(filter, vmi);
      }
      return ZEK_OK;
   }
   case VIGIL_DHCPREQUEST:
      break;
   default:
      return ZEK_OK;
   }

   /* A broadcast request with no ciaddr starts from nothing; a renewal
    * keeps the binding. */
   if (VigilReadU32(ctx->ipHdr + 16) == 0xffffffffu &&
       VigilReadU32(ctx->dhcpHdr + VIGIL_DHCP_CIADDR) == 0) {
      VigilVmi *vmi = VigilFindDhcpClientVmi(filter, ctx->vlanId, chaddr,
                                             ctx->dhcpClientIdLen, ctx->dhcpClientId);
      if (vmi != nullptr) {
         VigilDelVmi(filter, vmi);
      }
   }
   Vigil_AssertFilterIsLocked(filter, true);
   VigilDhcpReq *req = VigilFindDhcpClientReq(filter, ctx);
   if (req != nullptr) {
      req->xid = VigilReadU32(ctx->dhcpHdr + VIGIL_DHCP_XID);
      return ZEK_OK;
   }
   return VigilAddDhcpReq(filter, ctx);
}

zek_Status VigilUpdateVmiIp(VigilFilter *filter, VigilVmi *vmi, u32 newIp) {
   Vigil_AssertFilterIsLocked(filter, true);
   VigilVmi *old = VigilFindVmi(filter, vmi->vlanId, vmi->mac, vmi->ip);
   if (old == nullptr) {
      old = vmi;
   }
   VigilVmi *clone = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
   bool cloned = clone != nullptr;
   if (cloned) {
      memcpy(clone, old, sizeof(VigilVmi));
      /* The copy is on no list yet, whatever the original's links say. */
      memset(&clone->hashLinks, 0, sizeof clone->hashLinks);
      memset(&clone->expiryLinks, 0, sizeof clone->expiryLinks);
      memset(&clone->expiredLinks, 0, sizeof clone->expiredLinks);
      clone->clientIdStr = nullptr;
      if (old->discMethod == VIGIL_DISC_DHCP && old->clientIdLen > 0) {
         clone->clientIdStr = VigilCopyClientId(old->clientIdStr, old->clientIdLen);
         cloned = clone->clientIdStr != nullptr;
      }
   }
   if (!cloned) {
      Vigil_HeapFree(clone);
      VigilDelVmi(filter, old);
      VIGIL_LOG_ERROR("Filter %#x Clone Vmi Failed", filter->portID);
      return VIGIL_STATUS_NO_MEMORY;
   }
   VigilDelVmi(filter, old);
   clone->ip = newIp;
   zek_Status status = VigilAddVmi(filter, clone);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Filter %#x Add Vmi failed with error: %s", filter->portID,
                      zek_StatusToString(status));
      if (clone->discMethod == VIGIL_DISC_DHCP && clone->clientIdLen > 0) {
         Vigil_HeapFree(clone->clientIdStr);
      }
      Vigil_HeapFree(clone);
   }
   return status;
}

/* Creates the binding a DHCPACK grants, or renews the client's binding. */
VIGIL_MUST_CHECK static zek_Status VigilBindDhcpClient(VigilFilter *filter, VigilPacketContext *ctx,
                                      VigilDhcpReq *req) {
   const u8 *hdr = ctx->dhcpHdr;
   u32 yiaddr = VigilReadU32(hdr + VIGIL_DHCP_YIADDR);
   u32 lease = VigilGetBe32(ctx->dhcpLeaseTime);
   /* The lease counts as signed: 0x80000000 and above, the infinite lease
    * included, lie in the past and end at the next aging pass. */
   i64 expiryTs = Vigil_UptimeSecs() + (i32)lease;

   VigilVmi *vmi = VigilFindDhcpClientVmi(filter, req->vlanId, req->chaddr,
                                          req->clientIdLen, req->clientIdStr);
   if (vmi != nullptr) {
      vmi->leaseTime = lease;
      VigilRefreshVmiExpiryTs(filter, vmi, expiryTs);
      if (vmi->ip == yiaddr) {
         VigilUpdateFilterAging(filter);
      } else {
         VIGIL_LOG_INFO("Filter %#x IP address change on renewal: %u " VIGIL_MAC_FMT
                        " %u.%u.%u.%u->%u.%u.%u.%u",
                        filter->portID, vmi->vlanId, VIGIL_MAC_ARGS(vmi->mac),
                        VIGIL_IP_ARGS(vmi->ip), VIGIL_IP_ARGS(yiaddr));
         /* A failed move is logged there and leaves no binding. */
         (void)VigilUpdateVmiIp(filter, vmi, yiaddr);
      }
      return ZEK_OK;
   }

   vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
   if (vmi == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x Vmi alloc failed", filter->portID);
      return VIGIL_STATUS_NO_MEMORY;
   }
   if (req->clientIdLen != 0) {
      vmi->clientIdStr = VigilCopyClientId(req->clientIdStr, req->clientIdLen);
      if (vmi->clientIdStr == nullptr) {
         VIGIL_LOG_THROTTLED("Filter %#x Vmi clientIdStr alloc failed",
                             filter->portID);
         Vigil_HeapFree(vmi);
         return VIGIL_STATUS_NO_MEMORY;
      }
   }
   vmi->vlanId = req->vlanId;
   memcpy(vmi->mac, req->chaddr, 6);
   vmi->ip = yiaddr;
   vmi->discMethod = VIGIL_DISC_DHCP;
   memcpy(vmi->clientMac, req->chaddr, 6);
   vmi->clientIdLen = req->clientIdLen;
   vmi->serverIp = VigilReadU32(hdr + VIGIL_DHCP_SIADDR);
   vmi->leaseTime = lease;
   vmi->expiryTs = expiryTs;
   if (VigilAddVmi(filter, vmi) != ZEK_OK) {
      Vigil_HeapFree(vmi->clientIdStr);
      Vigil_HeapFree(vmi);
   }
   return ZEK_OK;
}

zek_Status VigilProcessDhcpAck(VigilFilter *filter, VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, true);
   VigilDhcpReq *req = VigilFindMatchingDhcpReq(filter, ctx->vlanId, ctx->dhcpHdr);
   if (req == nullptr) {
      return ZEK_OK; /* an unsolicited DHCPACK teaches nothing */
   }
   zek_Status status = VIGIL_STATUS_BAD_DATA;
   if (ctx->dhcpLeaseTime != nullptr) {
      status = VigilBindDhcpClient(filter, ctx, req);
   }
   VigilDelDhcpReq(filter, req);
   return status;
}

zek_Status VigilDhcpSnoopRx(VigilFilter *filter, zek_Pkt *pkt,
                            VigilPacketContext *ctx, u32 *action) {
   Vigil_AssertFilterIsLocked(filter, false);
   if (ctx->holdsReadLock) {
      *action = VIGIL_ACTION_RELOCK;
      return ZEK_OK;
   }
   if (VigilDhcpParse(filter, pkt, ctx) != ZEK_OK) {
      return ZEK_OK;
   }
   if (ctx->dhcpMsgType == nullptr) {
      return VIGIL_STATUS_BAD_DATA;
   }
   if (*ctx->dhcpMsgType == VIGIL_DHCPACK) {
      return VigilProcessDhcpAck(filter, ctx);
   }
   if (*ctx->dhcpMsgType == VIGIL_DHCPNAK) {
      VigilDhcpReq *req =
         VigilFindMatchingDhcpReq(filter, ctx->vlanId, ctx->dhcpHdr);
      if (req == nullptr) {
         return ZEK_OK;
      }
      VigilVmi *vmi = VigilFindDhcpClientVmi(filter, req->vlanId, req->chaddr,
                                             req->clientIdLen, req->clientIdStr);
      if (vmi != nullptr) {
         VigilDelVmi(filter, vmi);
      }
      VigilDelDhcpReq(filter, req);
   }
   return ZEK_OK;
}
