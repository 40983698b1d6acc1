/*
 * DHCPv6 request tracking: client messages on transmit, server replies on
 * receive.
 *
 * On transmit, a message that can lead to a lease is kept as a pending
 * request (a retransmission only winds its clock on); Release and Decline
 * take their addresses away at once.  On receive, a Reply that matches a
 * pending request adds, renews or withdraws the addresses of the IAs the
 * request asked for; a failure status takes a Renew's or Rebind's
 * addresses away, and a Confirm that failed keeps its request until it
 * ages out, which then takes the Confirm's addresses.  None of this
 * changes a frame's fate.
 */
#include <cstring>

#include "vigil_dhcpv6_track.h"
#include "vigil_vmi.h"
#include "vigil_workers.h"

#define VIGIL_IPV6_SRC 8u    /* the source address in the IPv6 header */
#define VIGIL_DHCPV6_IAID 4u /* the IAID of an IA_NA or IA_TA */

/* The code of a Status Code option, with its text, which isn't
 * terminated: it runs to the option's end. */
static u16 VigilStatusCode(const u8 *opt, int *textLen, const char **text) {
   u32 size = VigilDhcpV6OptSize(opt);
   *textLen = size > VIGIL_DHCPV6_STATUS_TEXT ? (int)(size - VIGIL_DHCPV6_STATUS_TEXT) : 0;
   *text = (const char *)opt + VIGIL_DHCPV6_STATUS_TEXT;
   /* The parser records no Status Code too short for its code. */
   return size >= VIGIL_DHCPV6_STATUS_TEXT ? VigilGetBe16(opt + VIGIL_DHCPV6_STATUS_CODE) : 0;
}

static bool VigilIsLostBinding(u16 code) {
   return code == VIGIL_DHCPV6_STATUS_NO_BINDING || code == VIGIL_DHCPV6_STATUS_NOT_ON_LINK;
}

/* Whether a client message of `type` goes on to tracking; logs why not. */
static bool VigilDhcpV6IsTracked(VigilFilter *filter, const VigilDhcpV6Hdrs *hdrs, u8 type) {
   bool noIa = VigilListIsEmpty(&hdrs->iaList);
   switch (type) {
   case VIGIL_DHCPV6_SOLICIT:
      if (hdrs->rapidCommitOpt == nullptr) {
         VIGIL_LOG_THROTTLED_INFO("Filter %#x Solicit msg, rapid commit option not present",
                                  filter->portID);
         return false;
      }
      if (noIa) {
         VIGIL_LOG_THROTTLED_INFO("Filter %#x Solicit msg, iaOpt empty", filter->portID);
         return false;
      }
      return true;
   case VIGIL_DHCPV6_REQUEST:
   case VIGIL_DHCPV6_RENEW:
   case VIGIL_DHCPV6_REBIND: /* held to the Request's rule: no Server ID, untracked */
   case VIGIL_DHCPV6_RELEASE:
   case VIGIL_DHCPV6_DECLINE:
      if (hdrs->serverIdOpt == nullptr) {
         VIGIL_LOG_THROTTLED_INFO("Filter %#x DHCPv6 msgType: %s (%#x) - serverIdOpt not present",
                                  filter->portID, VigilDhcpV6TypeName(type), type);
         return false;
      }
      if (noIa) {
         VIGIL_LOG_THROTTLED_INFO("Filter %#x DHCPv6 msgType: %s (%#x) - IaOpt not present",
                                  filter->portID, VigilDhcpV6TypeName(type), type);
         return false;
      }
      return true;
   case VIGIL_DHCPV6_CONFIRM:
      if (noIa) {
         VIGIL_LOG_THROTTLED_INFO("Filter %#x Confirm msg, iaOpt not present", filter->portID);
         return false;
      }
      return true;
   case VIGIL_DHCPV6_ADVERTISE:
   case VIGIL_DHCPV6_REPLY:
   case VIGIL_DHCPV6_RECONFIGURE:
   case VIGIL_DHCPV6_INFO_REQUEST:
   case VIGIL_DHCPV6_RELAY_FORW:
   case VIGIL_DHCPV6_RELAY_REPL:
      VIGIL_LOG_THROTTLED_INFO("Filter %#x Skipping DHCPv6 message type: %s (%#x)",
                               filter->portID, VigilDhcpV6TypeName(type), type);
      return false;
   default:
      VIGIL_LOG_THROTTLED_INFO("Filter %#x Unknown DHCPv6 message type: %#x", filter->portID,
                               type);
      return false;
   }
}

void VigilConfirmSnoopingTx(VigilFilter *filter, zek_Pkt *pkt, VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, true);
   VigilDhcpV6Hdrs *hdrs = &ctx->dhcpV6Hdrs;
   u8 type = hdrs->msg[0];
   if (!VigilDhcpV6IsTracked(filter, hdrs, type)) {
      VigilDhcpV6ReleaseHdrs(filter, hdrs);
      return;
   }
   if (hdrs->clientIdOpt == nullptr) {
      VIGIL_LOG_THROTTLED_INFO("Filter %#x DHCP msg does not have clientId option",
                               filter->portID);
      VigilDhcpV6ReleaseHdrs(filter, hdrs);
      return;
   }
   VigilDhcpV6Req *req = VigilFindDhcpV6Req(filter, ctx, true);
   if (req != nullptr) {
      if (VigilDhcpV6ReqType(req) == type) {
         /* A retransmission: a longer clock, the stored message kept. */
         VigilDhcpV6ReqTimeoutStep(req);
         req->expiryTs = Vigil_UptimeSecs() + req->retransTimeout;
         VigilListRemove(&req->reqLinks);
         VigilInsertIntoDhcpV6ReqList(filter, req);
         VigilUpdateFilterAging(filter);
      }
      /* Another message type under the same identity changes nothing. */
   } else {
      req = VigilCreateDhcpV6Req(filter, pkt, ctx);
      if (req != nullptr) {
         if (type == VIGIL_DHCPV6_RELEASE || type == VIGIL_DHCPV6_DECLINE) {
            /* The addresses go when the client gives them up. */
            VigilDhcpV6DelReqAddr(filter, req);
            Vigil_HeapFree(req);
         } else if (!VigilAddDhcpV6Req(filter, req)) {
            Vigil_HeapFree(req);
         }
      }
   }
   VigilDhcpV6ReleaseHdrs(filter, hdrs);
}

zek_Status VigilDhcpV6ProcessIaOpt(VigilFilter *filter, VigilPacketContext *ctx,
                                   VigilDhcpV6Req *req, VigilDhcpV6Hdrs *reqHdrs,
                                   VigilIaOpt *ia) {
   u32 iaId = VigilGetBe32(ia->iaOpt + VIGIL_DHCPV6_IAID);
   u8 reqType = VigilDhcpV6ReqType(req);
   VigilIaOpt *reqIa = nullptr;
   VIGIL_LIST_FOR_EACH(pos, &reqHdrs->iaList) {
      VigilIaOpt *candidate = VIGIL_IA_OPT_FROM_LINKS(pos);
      if (candidate->isIaNa == ia->isIaNa &&
          VigilGetBe32(candidate->iaOpt + VIGIL_DHCPV6_IAID) == iaId) {
         reqIa = candidate;
         break;
      }
   }
   VIGIL_LOG_THROTTLED_INFO("Filter %#x IaId: %#x, type: %s", filter->portID, iaId,
                            ia->isIaNa ? "IA-NA" : "IA-TA");
   if (reqIa == nullptr) {
      /* A server can't grant what the client didn't ask for. */
      VIGIL_LOG_THROTTLED("Filter %#x Error! Unrecoginzed IAID 0x%x in reply", filter->portID,
                          iaId);
      return VIGIL_STATUS_NOT_FOUND;
   }

   if (ia->statusOpt != nullptr) {
      int textLen;
      const char *text;
      u16 code = VigilStatusCode(ia->statusOpt, &textLen, &text);
      if (code != VIGIL_DHCPV6_STATUS_SUCCESS) {
         if (VigilIsLostBinding(code) &&
             (reqType == VIGIL_DHCPV6_RENEW || reqType == VIGIL_DHCPV6_REBIND)) {
            VIGIL_LOG_THROTTLED_INFO("Filter %#x DeletingReqIa for Renew/Rebind based on status",
                                     filter->portID);
            VigilDhcpV6DelReqIa(filter, req, reqIa);
         } else if (VigilIsLostBinding(code) && reqType == VIGIL_DHCPV6_CONFIRM) {
            VIGIL_LOG_THROTTLED("Filter %#x Error! per IA error statusnot supported for confirm",
                                filter->portID);
         }
         VIGIL_LOG_THROTTLED_INFO("Filter %#x Handled error - IAID: %x, error: %.*s(%d), "
                                  "reqType: %d",
                                  filter->portID, iaId, textLen, text, (int)code, (int)reqType);
         return ZEK_OK;
      }
   }

   zek_Status status = ZEK_OK;
   VIGIL_LIST_FOR_EACH(pos, &ia->addrList) {
      const VigilIaAddrOpt *addr = VIGIL_IA_ADDR_OPT_FROM_LINKS(pos);
      const u8 *opt = addr->iaAddrOpt;
      if (addr->statusOpt != nullptr) {
         int textLen;
         const char *text;
         if (VigilStatusCode(addr->statusOpt, &textLen, &text) != VIGIL_DHCPV6_STATUS_SUCCESS) {
            VIGIL_LOG_THROTTLED_INFO("Filter %#x IAADDR has non success status", filter->portID);
            continue;
         }
      }
      const u8 *ip = opt + VIGIL_DHCPV6_IAADDR_ADDR;
      u32 preferred = VigilGetBe32(opt + VIGIL_DHCPV6_IAADDR_PREFERRED);
      u32 valid = VigilGetBe32(opt + VIGIL_DHCPV6_IAADDR_VALID);
      if (valid < preferred) {
         VIGIL_LOG_THROTTLED_INFO("Filter %#x Invalid lifetime for IP "
                                  "%hx:%hx:%hx:%hx:%hx:%hx:%hx:%hx",
                                  filter->portID, VigilGetBe16(ip), VigilGetBe16(ip + 2),
                                  VigilGetBe16(ip + 4), VigilGetBe16(ip + 6),
                                  VigilGetBe16(ip + 8), VigilGetBe16(ip + 10),
                                  VigilGetBe16(ip + 12), VigilGetBe16(ip + 14));
         continue;
      }
      VigilV6Vmi tmpl;
      memset(&tmpl, 0, sizeof tmpl);
      tmpl.vlanId = req->vlanId;
      memcpy(tmpl.mac, req->mac, sizeof tmpl.mac);
      tmpl.clientIdLen = req->clientIdLen;
      if (req->clientIdLen != 0) {
         tmpl.clientId = (u8 *)Vigil_HeapAlloc(req->clientIdLen);
         if (tmpl.clientId == nullptr) {
            VIGIL_LOG_THROTTLED("Filter %#x Error! Alloc for clientId copy failed, IAADDR "
                                "skipped",
                                filter->portID);
            continue;
         }
         memcpy(tmpl.clientId, req->clientId, req->clientIdLen);
      }
      memcpy(tmpl.ip, ip, sizeof tmpl.ip);
      tmpl.discMethod = VIGIL_DISC_DHCPV6;
      tmpl.iaId = iaId;
      memcpy(tmpl.serverIp, ctx->ipHdr + VIGIL_IPV6_SRC, sizeof tmpl.serverIp);
      tmpl.validLifetime = (i32)valid;
      tmpl.preferredLifetime = preferred;
      tmpl.expiryTs = Vigil_UptimeSecs() + (i32)valid;
      if (valid != 0) {
         status = VigilAddV6Vmi(filter, &tmpl);
         if (status != ZEK_OK) {
            VIGIL_LOG_THROTTLED_INFO("Filter %#x v6AddVmi failed", filter->portID);
         }
      } else {
         /* Both lifetimes 0: the server withdraws the address. */
         VigilV6Vmi *vmi = VigilFindDhcpV6ClientVmi(filter, (const u8 *)&tmpl.vlanId,
                                                    tmpl.clientIdLen, tmpl.clientId, iaId);
         if (vmi != nullptr) {
            VigilDelV6Vmi(filter, vmi);
            status = ZEK_OK;
         } else {
            VIGIL_LOG_THROTTLED_INFO("Filter %#x v6Vmi to delete not found", filter->portID);
         }
      }
      Vigil_HeapFree(tmpl.clientId);
   }
   return status;
}

/* Matches a Reply with its request and lets its IAs make, renew or end
 * bindings; gives the result of the last IA processed. */
static zek_Status VigilProcessDhcpV6Reply(VigilFilter *filter, VigilPacketContext *ctx) {
   VigilDhcpV6Hdrs *hdrs = &ctx->dhcpV6Hdrs;
   if (hdrs->serverIdOpt == nullptr) {
      return ZEK_OK;
   }
   if (hdrs->clientIdOpt == nullptr) {
      VIGIL_LOG_THROTTLED_INFO("Filter %#x DHCP msg does not have clientId option",
                               filter->portID);
      return ZEK_OK;
   }
   VigilDhcpV6Req *req = VigilFindDhcpV6Req(filter, ctx, false);
   if (req == nullptr) {
      VIGIL_LOG_THROTTLED_INFO("Filter %#x No Request for reply found - vlanID: %d, Xid: %#x",
                               filter->portID, ctx->vlanId, VigilDhcpV6Xid(hdrs->msg));
      return ZEK_OK;
   }
   u8 reqType = VigilDhcpV6ReqType(req);
   u32 xid = VigilDhcpV6Xid(req->msg);
   VIGIL_LOG_THROTTLED_INFO("Filter %#x Processing reply for msgType: %s (%#x), Xid: %#x",
                            filter->portID, VigilDhcpV6TypeName(reqType), reqType, xid);

   zek_Status result = ZEK_OK;
   bool failed = false;
   if (hdrs->statusOpt != nullptr) {
      int textLen;
      const char *text;
      u16 code = VigilStatusCode(hdrs->statusOpt, &textLen, &text);
      VIGIL_LOG_THROTTLED_INFO("Processing golbal status code in reply: %#x", code);
      if (code != VIGIL_DHCPV6_STATUS_SUCCESS) {
         if (VigilIsLostBinding(code) && reqType == VIGIL_DHCPV6_CONFIRM) {
            /* Its addresses go when the request ages out, unless a
             * success comes first. */
            if (req->reqStatus != VIGIL_DHCPV6_STATUS_SUCCESS) {
               req->reqStatus = code;
            }
         } else if (VigilIsLostBinding(code) &&
                    (reqType == VIGIL_DHCPV6_RENEW || reqType == VIGIL_DHCPV6_REBIND)) {
            VigilDhcpV6DelReqAddr(filter, req); /* the client has lost them */
         }
         VIGIL_LOG_THROTTLED_INFO("Filter %#x DHCPv6 gstatus error, xId: %#x, error: %.*s (%d), "
                                  "reqType: %d",
                                  filter->portID, xid, textLen, text, (int)code, (int)reqType);
         failed = true;
      } else {
         req->reqStatus = VIGIL_DHCPV6_STATUS_SUCCESS;
      }
   }

   if (!failed) {
      VigilDhcpV6Hdrs reqHdrs = {};
      VigilListInit(&reqHdrs.iaList);
      if (VigilDhcpV6ParseReq(filter, &req->msg, &req->msgLen, &reqHdrs) == ZEK_OK) {
         VIGIL_LOG_THROTTLED_INFO("Filter %#x Req parsing success", filter->portID);
         VIGIL_LIST_FOR_EACH(pos, &hdrs->iaList) {
            VigilIaOpt *ia = VIGIL_IA_OPT_FROM_LINKS(pos);
            if (VigilDhcpV6ParseIaOpt(filter, ia) != ZEK_OK) {
               continue; /* logged by the parse; the other IAs still count */
            }
            result = VigilDhcpV6ProcessIaOpt(filter, ctx, req, &reqHdrs, ia);
            if (result != ZEK_OK) {
               VIGIL_LOG_THROTTLED_INFO("Filter %#x Processing IaOpt failed: %s (%d)",
                                        filter->portID, zek_StatusToString(result),
                                        (int)result);
            }
         }
      }
      /* Also after a failed parse: releasing twice does nothing. */
      VigilDhcpV6ReleaseHdrs(filter, &reqHdrs);
   }

   /* A Confirm without a success stays until it ages out. */
   if (reqType != VIGIL_DHCPV6_CONFIRM || req->reqStatus == VIGIL_DHCPV6_STATUS_SUCCESS) {
      VigilDelDhcpV6Req(filter, req);
   }
   return result;
}

zek_Status VigilProcessRxDhcpv6Discovery(VigilFilter *filter, zek_Pkt *pkt,
                                         VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, true);
   zek_Status status = VigilParseDhcpv6Pkt(filter, pkt, ctx);
   if (status != ZEK_OK) {
      VIGIL_LOG_THROTTLED("Filter %#x Error parsing DHCPv6 Rx message on port %#x: %s",
                          filter->portID, filter->portID, zek_StatusToString(status));
      return status;
   }
   zek_Status result = ZEK_OK;
   u8 type = ctx->dhcpV6Hdrs.msg[0];
   if (type == VIGIL_DHCPV6_REPLY) {
      result = VigilProcessDhcpV6Reply(filter, ctx);
   } else if (type >= VIGIL_DHCPV6_SOLICIT && type <= VIGIL_DHCPV6_RELAY_REPL) {
      VIGIL_LOG_THROTTLED_INFO("Filter %#x Skipping DHCPv6 message type: %s (%#x)",
                               filter->portID, VigilDhcpV6TypeName(type), type);
   } else {
      VIGIL_LOG_THROTTLED_INFO("Filter %#x Unknown DHCPv6 message type: %#x", filter->portID,
                               type);
   }
   VigilDhcpV6ReleaseHdrs(filter, &ctx->dhcpV6Hdrs);
   return result;
}
