/*
 * Pending DHCPv6 requests: making one from a client's frame, the list in
 * expiry order with its limit, the retransmission clock, matching a frame
 * against the list, and taking away the addresses a request names.
 *
 * A request is one heap block: the record, then the copy of the message,
 * then the copy of the client identifier.  One free releases it all.
 */
#include <cstring>

#include "vigil_dhcpv6_track.h"
#include "vigil_vmi.h"
#include "vigil_workers.h"

#define VIGIL_UDP_HDR_LEN 8u
#define VIGIL_ETH_DST 0u
#define VIGIL_ETH_SRC 6u
#define VIGIL_DHCPV6_IAID 4u /* the IAID of an IA_NA or IA_TA */

const char *VigilDhcpV6TypeName(u32 type) {
   return type < VIGIL_DHCPV6_NUM_MSG_TYPES ? dhcpV6MsgTypeStr[type] : "";
}

/* The data of a Client Identifier option and its length. */
static const u8 *VigilClientIdData(const u8 *opt, u16 *len) {
   *len = opt != nullptr ? VigilGetBe16(opt + 2) : 0;
   return opt != nullptr ? opt + VIGIL_DHCPV6_OPT_HDR_LEN : nullptr;
}

static bool VigilSameClientId(u16 lenA, const u8 *idA, u16 lenB, const u8 *idB) {
   return lenA == lenB && (lenA == 0 || memcmp(idA, idB, lenA) == 0);
}

/*
 * The retransmission clock.  The test is made on the old value, so a value
 * past the limit jumps above the cap once and then falls back to it:
 * Solicit 2, 6, 18, 54, 162, 150; Request 2, 6, 18, 54, 37; Confirm 2, 6,
 * 5; Renew and Rebind 20, 60, 180, 540, 1620, 750.
 */
void VigilDhcpV6ReqTimeoutStep(VigilDhcpV6Req *req) {
   i32 first, limit, cap;
   switch (VigilDhcpV6ReqType(req)) {
   case VIGIL_DHCPV6_SOLICIT:
      first = 2, limit = 120, cap = 150;
      break;
   case VIGIL_DHCPV6_REQUEST:
      first = 2, limit = 30, cap = 37;
      break;
   case VIGIL_DHCPV6_CONFIRM:
      first = 2, limit = 4, cap = 5;
      break;
   case VIGIL_DHCPV6_RENEW:
   case VIGIL_DHCPV6_REBIND:
      first = 20, limit = 600, cap = 750;
      break;
   default:
      return;
   }
   if (req->retransTimeout == 0) {
      req->retransTimeout = first;
   } else if (req->retransTimeout <= limit) {
      req->retransTimeout *= 3;
   } else {
      req->retransTimeout = cap;
   }
}

VigilDhcpV6Req *VigilFindDhcpV6Req(VigilFilter *filter, VigilPacketContext *ctx, bool isTx) {
   Vigil_AssertFilterIsLocked(filter, true);
   const VigilDhcpV6Hdrs *hdrs = &ctx->dhcpV6Hdrs;
   u16 clientIdLen;
   const u8 *clientId = VigilClientIdData(hdrs->clientIdOpt, &clientIdLen);
   VIGIL_LIST_FOR_EACH(pos, &filter->dhcpV6ReqList) {
      VigilDhcpV6Req *req = VIGIL_DHCPV6_REQ_FROM_LINKS(pos);
      if (req->vlanId != ctx->vlanId || memcmp(req->msg + 1, hdrs->msg + 1, 3) != 0 ||
          !VigilSameClientId(req->clientIdLen, req->clientId, clientIdLen, clientId)) {
         continue;
      }
      /* A Reply is addressed to the client. */
      const u8 *mac = ctx->ethHdr + (isTx ? VIGIL_ETH_SRC : VIGIL_ETH_DST);
      if (memcmp(req->mac, mac, sizeof req->mac) == 0) {
         VIGIL_LOG_THROTTLED_INFO("Filter %#x Match found", filter->portID);
         return req;
      }
      VIGIL_LOG_THROTTLED("Filter %#x Error! Different source mac addressesfor same Client "
                          "ID unsupported",
                          filter->portID);
      return nullptr;
   }
   VIGIL_LOG_THROTTLED_INFO("Filter %#x No DHCPv6 pending request match found",
                            filter->portID);
   return nullptr;
}

VigilDhcpV6Req *VigilCreateDhcpV6Req(VigilFilter *filter, zek_Pkt *pkt, VigilPacketContext *ctx) {
   u16 clientIdLen;
   const u8 *clientId = VigilClientIdData(ctx->dhcpV6Hdrs.clientIdOpt, &clientIdLen);
   u16 udpLen = VigilGetBe16(ctx->l4Hdr + 4);
   /* The parse has checked the UDP length against the frame already. */
   u16 msgLen = udpLen >= VIGIL_UDP_HDR_LEN ? (u16)(udpLen - VIGIL_UDP_HDR_LEN) : 0;
   if (msgLen > VIGIL_DHCPV6_MAX_MSG_COPY) {
      VIGIL_LOG_THROTTLED("Filter %#x DHCPv6 message of %u bytes is longer than %u, not tracked",
                          filter->portID, (u32)msgLen, VIGIL_DHCPV6_MAX_MSG_COPY);
      return nullptr;
   }
   VigilDhcpV6Req *req =
      (VigilDhcpV6Req *)Vigil_HeapAlloc((u32)sizeof(VigilDhcpV6Req) + msgLen + clientIdLen);
   if (req == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x Error! Alloc for DhcpV6Req failed", filter->portID);
      return nullptr;
   }
   u32 offset = ctx->l4Entry->offset + VIGIL_UDP_HDR_LEN;
   const u8 *msg = msgLen >= VIGIL_DHCPV6_MSG_HDR_LEN
                      ? VigilGetMappedPtr(pkt, &offset, msgLen, ctx)
                      : nullptr;
   if (msg == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x Error! Mapping packet for request creation failed",
                          filter->portID);
      Vigil_HeapFree(req);
      return nullptr;
   }
   req->msg = (u8 *)(req + 1);
   memcpy(req->msg, msg, msgLen);
   req->msgLen = msgLen;
   req->clientId = req->msg + msgLen;
   if (clientIdLen != 0) {
      memcpy(req->clientId, clientId, clientIdLen);
   }
   req->clientIdLen = clientIdLen;
   req->vlanId = ctx->vlanId;
   memcpy(req->mac, ctx->ethHdr + VIGIL_ETH_SRC, sizeof req->mac);
   req->reqStatus = VIGIL_DHCPV6_REQ_PENDING;
   VIGIL_LOG_THROTTLED_INFO("Filter %#x New DHCPv6 pendingrequest created", filter->portID);
   return req;
}

void VigilInsertIntoDhcpV6ReqList(VigilFilter *filter, VigilDhcpV6Req *req) {
   Vigil_AssertFilterIsLocked(filter, true);
   VigilListLinks *before = &filter->dhcpV6ReqList;
   VIGIL_LIST_FOR_EACH(pos, &filter->dhcpV6ReqList) {
      if (VIGIL_DHCPV6_REQ_FROM_LINKS(pos)->expiryTs > req->expiryTs) {
         before = pos;
         break;
      }
   }
   VigilListInsertBefore(before, &req->reqLinks);
}

bool VigilAddDhcpV6Req(VigilFilter *filter, VigilDhcpV6Req *req) {
   Vigil_AssertFilterIsLocked(filter, true);
   u8 type = VigilDhcpV6ReqType(req);
   if (filter->numDhcpV6Reqs >= filter->maxDhcpV6Reqs) {
      /* The oldest request isn't pushed out: this one goes untracked. */
      VIGIL_LOG_THROTTLED("Filter %#x Error! Exceeding the max DhcpV6Reqs %u, Skipping Req Msg "
                          "Type: %s (%u), vlanId: %d, xId: %#x",
                          filter->portID, filter->maxDhcpV6Reqs, VigilDhcpV6TypeName(type),
                          type, req->vlanId, VigilDhcpV6Xid(req->msg));
      return false;
   }
   VigilDhcpV6ReqTimeoutStep(req);
   req->expiryTs = Vigil_UptimeSecs() + req->retransTimeout;
   VigilInsertIntoDhcpV6ReqList(filter, req);
   filter->numDhcpV6Reqs++;
   filter->dhcpV6ReqBytes += (u32)req->clientIdLen + req->msgLen;
   VigilUpdateFilterAging(filter);
   VIGIL_LOG_THROTTLED_INFO("Filter %#x DHCPv6 pending request added - type: %s (%u), vlanId: "
                            "%d, xId: %#x, expiryTs: %ld ",
                            filter->portID, VigilDhcpV6TypeName(type), type, req->vlanId,
                            VigilDhcpV6Xid(req->msg), (long)req->expiryTs);
   return true;
}

void VigilDelDhcpV6Req(VigilFilter *filter, VigilDhcpV6Req *req) {
   Vigil_AssertFilterIsLocked(filter, true);
   VIGIL_LOG_THROTTLED_INFO("Filter %#x Deleting DHCPv6 pending req:vlan = %u xId = %#x "
                            "numReq = %d",
                            filter->portID, req->vlanId, VigilDhcpV6Xid(req->msg),
                            (int)filter->numDhcpV6Reqs);
   VigilListRemove(&req->reqLinks);
   filter->dhcpV6ReqBytes -= (u32)req->clientIdLen + req->msgLen;
   Vigil_HeapFree(req);
   filter->numDhcpV6Reqs--;
   VigilUpdateFilterAging(filter);
}

VigilV6Vmi *VigilFindDhcpV6ClientVmi(VigilFilter *filter, const u8 *key, u16 clientIdLen,
                                     const u8 *clientId, u32 iaId) {
   if (filter->numNdEntries + filter->numDhcpV6Entries == 0) {
      return nullptr;
   }
   VigilV6Vmi *vmi = VigilFindV6Vmi(filter, key);
   if (vmi == nullptr) {
      VIGIL_LOG_THROTTLED_INFO("Filter %#x Cannot find vmi", filter->portID);
      return nullptr;
   }
   /* Only this client's lease: never a binding learnt by ND, nor another
    * client's. */
   if (vmi->discMethod != VIGIL_DISC_DHCPV6 || vmi->iaId != iaId ||
       !VigilSameClientId(vmi->clientIdLen, vmi->clientId, clientIdLen, clientId) ||
       memcmp(&vmi->vlanId, key, VIGIL_V6_KEY_LEN) != 0) {
      VIGIL_LOG_THROTTLED_INFO("Filter %#x vmi found but did not match", filter->portID);
      return nullptr;
   }
   return vmi;
}

void VigilDhcpV6DelReqIa(VigilFilter *filter, VigilDhcpV6Req *req, VigilIaOpt *ia) {
   u32 iaId = VigilGetBe32(ia->iaOpt + VIGIL_DHCPV6_IAID);
   VIGIL_LIST_FOR_EACH(pos, &ia->addrList) {
      const u8 *addrOpt = VIGIL_IA_ADDR_OPT_FROM_LINKS(pos)->iaAddrOpt;
      u8 key[VIGIL_V6_KEY_LEN];
      memcpy(key, &req->vlanId, 2);
      memcpy(key + 2, req->mac, 6);
      memcpy(key + 8, addrOpt + VIGIL_DHCPV6_IAADDR_ADDR, 16);
      VigilV6Vmi *vmi = VigilFindDhcpV6ClientVmi(filter, key, req->clientIdLen, req->clientId,
                                                 iaId);
      if (vmi == nullptr) {
         VIGIL_LOG_THROTTLED_INFO("Unable to find Vmi");
         continue;
      }
      VigilDelV6Vmi(filter, vmi);
   }
}

void VigilDhcpV6DelReqAddr(VigilFilter *filter, VigilDhcpV6Req *req) {
   VigilDhcpV6Hdrs hdrs = {};
   VigilListInit(&hdrs.iaList);
   zek_Status status = VigilDhcpV6ParseReq(filter, &req->msg, &req->msgLen, &hdrs);
   if (status == ZEK_OK) {
      VIGIL_LIST_FOR_EACH(pos, &hdrs.iaList) {
         VigilDhcpV6DelReqIa(filter, req, VIGIL_IA_OPT_FROM_LINKS(pos));
      }
   }
   /* Also after a failed parse: releasing twice does nothing. */
   VigilDhcpV6ReleaseHdrs(filter, &hdrs);
}
