/*
 * DHCPv6 messages: recognising one and parsing it.
 *
 * Two readers fill the same record: one maps a frame's options one at a
 * time, so that an option lying whole in one buffer is read in place, and
 * one reads the flat copy of a request kept until its reply comes.  A third
 * reads the inside of an IA option, its status and addresses.  Every bound
 * test on what is read stands here: a pointer kept in a record points at an
 * option that lies whole inside the message, and a Status Code pointer at
 * one that holds at least its 16-bit code.
 *
 * The message is a frame's (or was one), so every line goes through the
 * throttled log, the informational ones at level 1.
 */
#include "vigil_log.h"
#include "vigil_packet.h"

#define VIGIL_UDP_HDR_LEN 8u
#define VIGIL_UDP_LEN 4u /* the length field in the UDP header */
/* The smallest UDP length: its header and the message header. */
#define VIGIL_DHCPV6_MIN_UDP_LEN (VIGIL_UDP_HDR_LEN + VIGIL_DHCPV6_MSG_HDR_LEN)
/* The smallest Status Code option: its header and the code. */
#define VIGIL_DHCPV6_STATUS_MIN_SIZE (VIGIL_DHCPV6_STATUS_CODE + 2u)

const char *const dhcpV6MsgTypeStr[VIGIL_DHCPV6_NUM_MSG_TYPES] = {
   "None",    "Solicit", "Advertise", "Request",     "Confirm",
   "Renew",   "Rebind",  "Reply",     "Release",     "Decline",
   "Reconfigure", "Information-request", "Relay-forward", "Relay-reply",
};

/* What the frame reader does with a message type. */
enum VigilDhcpV6TypeAction {
   VIGIL_DHCPV6_TYPE_UNKNOWN,
   VIGIL_DHCPV6_TYPE_HDR_ONLY,
   VIGIL_DHCPV6_TYPE_PARSE,
};

static VigilDhcpV6TypeAction VigilDhcpV6ActionOfType(u8 type) {
   switch (type) {
   case VIGIL_DHCPV6_SOLICIT:
   case VIGIL_DHCPV6_REQUEST:
   case VIGIL_DHCPV6_CONFIRM:
   case VIGIL_DHCPV6_RENEW:
   case VIGIL_DHCPV6_REBIND:
   case VIGIL_DHCPV6_REPLY:
   case VIGIL_DHCPV6_RELEASE:
   case VIGIL_DHCPV6_DECLINE:
      return VIGIL_DHCPV6_TYPE_PARSE;
   case VIGIL_DHCPV6_ADVERTISE:
   case VIGIL_DHCPV6_RECONFIGURE:
   case VIGIL_DHCPV6_INFO_REQUEST:
   case VIGIL_DHCPV6_RELAY_FORW:
   case VIGIL_DHCPV6_RELAY_REPL:
      return VIGIL_DHCPV6_TYPE_HDR_ONLY;
   default:
      return VIGIL_DHCPV6_TYPE_UNKNOWN;
   }
}

static void VigilDhcpV6ClearHdrs(VigilDhcpV6Hdrs *hdrs, u8 *msg) {
   hdrs->msg = msg;
   hdrs->clientIdOpt = nullptr;
   hdrs->serverIdOpt = nullptr;
   hdrs->rapidCommitOpt = nullptr;
   hdrs->statusOpt = nullptr;
   VigilListInit(&hdrs->iaList);
   hdrs->numIas = 0;
}

/* Keeps the Status Code option `opt` of whole size `size` in `slot`; one too
 * short to hold its code is left out. */
static void VigilDhcpV6TakeStatus(VigilFilter *filter, u8 *opt, u32 size, u8 **slot) {
   if (size < VIGIL_DHCPV6_STATUS_MIN_SIZE) {
      VIGIL_LOG_THROTTLED("Filter %#x Error! Status Code option too short: %u",
                          filter->portID, size);
      return;
   }
   *slot = opt;
}

/* Adds a node for the IA option `opt` at the tail of the record's list.
 * Beyond VIGIL_DHCPV6_MAX_IAS the IA is passed over, told once per
 * message; false only when the node can't be allocated. */
static bool VigilDhcpV6AddIa(VigilFilter *filter, VigilDhcpV6Hdrs *hdrs, u8 *opt,
                             bool isIaNa) {
   hdrs->numIas++;
   if (hdrs->numIas > VIGIL_DHCPV6_MAX_IAS) {
      if (hdrs->numIas == VIGIL_DHCPV6_MAX_IAS + 1) {
         VIGIL_LOG_THROTTLED("Filter %#x DHCPv6 message has more than %u IAs, the rest are "
                             "not tracked",
                             filter->portID, VIGIL_DHCPV6_MAX_IAS);
      }
      return true;
   }
   VigilIaOpt *ia = (VigilIaOpt *)Vigil_HeapAlloc(sizeof *ia);
   if (ia == nullptr) {
      return false;
   }
   ia->iaOpt = opt;
   ia->isIaNa = isIaNa ? 1 : 0;
   ia->statusOpt = nullptr;
   ia->numAddrs = 0;
   VigilListInit(&ia->addrList);
   VigilListInsertBefore(&hdrs->iaList, &ia->links);
   return true;
}

bool VigilIsPktDhcpV6Msg(const VigilPacketContext *ctx) {
   const u32 need = VIGIL_PKT_ETH | VIGIL_PKT_IPV6 | VIGIL_PKT_UDP;
   if ((ctx->flags & need) != need || ctx->l4Hdr == nullptr) {
      return false;
   }
   u16 srcPort = VigilGetBe16(ctx->l4Hdr);
   return srcPort == VIGIL_UDP_PORT_DHCPV6_CLIENT || srcPort == VIGIL_UDP_PORT_DHCPV6_SERVER;
}

/* A frame's option, whole and contiguous at `opt`: notes it in the record.
 * False when the message is to be refused. */
static bool VigilDhcpV6FrameOption(VigilFilter *filter, VigilDhcpV6Hdrs *hdrs, u8 *opt) {
   u16 code = VigilGetBe16(opt);
   u32 size = VigilDhcpV6OptSize(opt);
   switch (code) {
   case VIGIL_DHCPV6_OPT_CLIENTID:
      hdrs->clientIdOpt = opt;
      return true;
   case VIGIL_DHCPV6_OPT_SERVERID:
      hdrs->serverIdOpt = opt;
      return true;
   case VIGIL_DHCPV6_OPT_IA_NA:
      if (size < VIGIL_DHCPV6_IA_NA_FIXED) {
         VIGIL_LOG_THROTTLED("Filter %#x Error! Invalid IANA Options len", filter->portID);
         return false;
      }
      if (!VigilDhcpV6AddIa(filter, hdrs, opt, true)) {
         VIGIL_LOG_THROTTLED("Filter %#x Error! IANA alloc failed, quit parsing",
                             filter->portID);
         return false;
      }
      return true;
   case VIGIL_DHCPV6_OPT_IA_TA:
      if (size < VIGIL_DHCPV6_IA_TA_FIXED) {
         VIGIL_LOG_THROTTLED("Filter %#x Error! Invalid IATA Options len", filter->portID);
         return false;
      }
      if (!VigilDhcpV6AddIa(filter, hdrs, opt, false)) {
         VIGIL_LOG_THROTTLED("Filter %#x Error! IATA alloc failed, quit parsing",
                             filter->portID);
         return false;
      }
      return true;
   case VIGIL_DHCPV6_OPT_STATUS_CODE:
      VigilDhcpV6TakeStatus(filter, opt, size, &hdrs->statusOpt);
      return true;
   case VIGIL_DHCPV6_OPT_RAPID_COMMIT:
      hdrs->rapidCommitOpt = opt;
      return true;
   case 5: /* IA Address: read inside its IA */
   case 6: /* Option Request */
   case 7: /* Preference */
   case 8: /* Elapsed Time */
   case 9: /* Relay Message */
   case 11: /* Authentication */
   case 12: /* Server Unicast */
   case 15: /* User Class */
   case 16: /* Vendor Class */
   case 17: /* Vendor-specific Information */
   case 18: /* Interface-Id */
   case 19: /* Reconfigure Message */
   case 20: /* Reconfigure Accept */
      return true;
   default:
      VIGIL_LOG_THROTTLED("Filter %#x Unknown Option: %#x", filter->portID, code);
      return true;
   }
}

zek_Status VigilParseDhcpv6Pkt(VigilFilter *filter, zek_Pkt *pkt, VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, false);
   if (ctx->l4Entry == nullptr || ctx->l4Hdr == nullptr) {
      return VIGIL_STATUS_NOT_SUPPORTED;
   }
   /* Only "no such header" says the frame is whole. */
   zek_PktHeaderEntry *fragment;
   if (zek_PktHeaderFind(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_TYPE_IPV6_FRAGMENT, 1, &fragment, 0) !=
       VIGIL_STATUS_NOT_FOUND) {
      VIGIL_LOG_THROTTLED("Filter %#x DHCPv6 parsing skips fragmented frame", filter->portID);
      return VIGIL_STATUS_NOT_SUPPORTED;
   }
   VigilDhcpV6Hdrs *hdrs = &ctx->dhcpV6Hdrs;
   VigilDhcpV6ClearHdrs(hdrs, nullptr);

   u32 udpLen = VigilGetBe16(ctx->l4Hdr + VIGIL_UDP_LEN);
   if (udpLen < VIGIL_DHCPV6_MIN_UDP_LEN ||
       (u64)ctx->l4Entry->offset + udpLen > ctx->frameLen) {
      VIGIL_LOG_THROTTLED("Filter %#x Pkt sanity error udplen: %u, frameLen: %u",
                          filter->portID, udpLen, ctx->frameLen);
      VigilDhcpV6ReleaseHdrs(filter, hdrs);
      return VIGIL_STATUS_BAD_PARAM;
   }

   u32 offset = (u32)ctx->l4Entry->offset + VIGIL_UDP_HDR_LEN;
   hdrs->msg = VigilGetMappedPtr(pkt, &offset, VIGIL_DHCPV6_MSG_HDR_LEN, ctx);
   if (hdrs->msg == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x Error! Can't access DHCP hdr", filter->portID);
      VigilDhcpV6ReleaseHdrs(filter, hdrs);
      return VIGIL_STATUS_BAD_PARAM;
   }
   switch (VigilDhcpV6ActionOfType(hdrs->msg[0])) {
   case VIGIL_DHCPV6_TYPE_UNKNOWN:
      VIGIL_LOG_THROTTLED("Filter %#x Unknown DHCPv6 msg type: %#x", filter->portID,
                          hdrs->msg[0]);
      VigilDhcpV6ReleaseHdrs(filter, hdrs);
      return VIGIL_STATUS_BAD_PARAM;
   case VIGIL_DHCPV6_TYPE_HDR_ONLY:
      return ZEK_OK;
   case VIGIL_DHCPV6_TYPE_PARSE:
      break;
   }

   /* Bytes behind the UDP payload up to the frame's end are read as
    * options too. */
   while (offset < ctx->frameLen) {
      u8 *opt = VigilGetMappedPtr(pkt, &offset, VIGIL_DHCPV6_OPT_HDR_LEN, ctx);
      if (opt == nullptr) {
         VIGIL_LOG_THROTTLED("Filter %#x Error! Can't access DHCPV6 option hdr: %u",
                             filter->portID, offset);
         VigilDhcpV6ReleaseHdrs(filter, hdrs);
         return VIGIL_STATUS_BAD_PARAM;
      }
      u32 size = VigilDhcpV6OptSize(opt);
      offset -= VIGIL_DHCPV6_OPT_HDR_LEN;
      opt = VigilGetMappedPtr(pkt, &offset, size, ctx);
      if (opt == nullptr) {
         VIGIL_LOG_THROTTLED("Filter %#x Error! Can't access DHCP option data: %u",
                             filter->portID, offset);
         VigilDhcpV6ReleaseHdrs(filter, hdrs);
         return VIGIL_STATUS_BAD_PARAM;
      }
      if (!VigilDhcpV6FrameOption(filter, hdrs, opt)) {
         VigilDhcpV6ReleaseHdrs(filter, hdrs);
         return VIGIL_STATUS_BAD_PARAM;
      }
   }
   return ZEK_OK;
}

/* The two failures of the stored reader; both leave nothing held. */
static zek_Status VigilDhcpV6ReqLenFailure(VigilFilter *filter, VigilDhcpV6Hdrs *hdrs) {
   VIGIL_LOG_THROTTLED("Filter %#x Error! Invalid DhcpV6 Option Len", filter->portID);
   VigilDhcpV6ReleaseHdrs(filter, hdrs);
   return VIGIL_STATUS_BAD_PARAM;
}

static zek_Status VigilDhcpV6ReqParseFailure(VigilFilter *filter, VigilDhcpV6Hdrs *hdrs) {
   VIGIL_LOG_THROTTLED("Filter %#x Error! Parsing Request failed", filter->portID);
   VigilDhcpV6ReleaseHdrs(filter, hdrs);
   return VIGIL_STATUS_BAD_PARAM;
}

zek_Status VigilDhcpV6ParseReq(VigilFilter *filter, u8 **msgPtr, u16 *msgLenPtr,
                               VigilDhcpV6Hdrs *hdrs) {
   VIGIL_LOG_THROTTLED_INFO("Filter %#x Parsing DHCPV6 Req", filter->portID);
   u8 *msg = *msgPtr;
   u32 msgLen = *msgLenPtr;
   VigilDhcpV6ClearHdrs(hdrs, msg);
   if (msgLen <= VIGIL_DHCPV6_MSG_HDR_LEN) {
      return ZEK_OK;
   }
   if (msgLen < VIGIL_DHCPV6_MSG_HDR_LEN + VIGIL_DHCPV6_OPT_HDR_LEN) {
      return VigilDhcpV6ReqLenFailure(filter, hdrs);
   }
   u32 offset = VIGIL_DHCPV6_MSG_HDR_LEN;
   for (;;) {
      /* Here offset + 4 <= msgLen: the option's header is inside. */
      u8 *opt = msg + offset;
      u32 size = VigilDhcpV6OptSize(opt);
      if (offset + size > msgLen) {
         return VigilDhcpV6ReqLenFailure(filter, hdrs);
      }
      switch (VigilGetBe16(opt)) {
      case VIGIL_DHCPV6_OPT_CLIENTID:
         hdrs->clientIdOpt = opt;
         break;
      case VIGIL_DHCPV6_OPT_SERVERID:
         hdrs->serverIdOpt = opt;
         break;
      case VIGIL_DHCPV6_OPT_STATUS_CODE:
         VigilDhcpV6TakeStatus(filter, opt, size, &hdrs->statusOpt);
         break;
      case VIGIL_DHCPV6_OPT_RAPID_COMMIT:
         hdrs->rapidCommitOpt = opt;
         break;
      case VIGIL_DHCPV6_OPT_IA_NA:
         if (size < VIGIL_DHCPV6_IA_NA_FIXED) {
            return VigilDhcpV6ReqParseFailure(filter, hdrs);
         }
         if (!VigilDhcpV6AddIa(filter, hdrs, opt, true)) {
            VIGIL_LOG_THROTTLED("Filter %#x Error! IANA alloc failed", filter->portID);
            return VigilDhcpV6ReqParseFailure(filter, hdrs);
         }
         break;
      case VIGIL_DHCPV6_OPT_IA_TA:
         if (size < VIGIL_DHCPV6_IA_TA_FIXED) {
            return VigilDhcpV6ReqParseFailure(filter, hdrs);
         }
         if (!VigilDhcpV6AddIa(filter, hdrs, opt, false)) {
            VIGIL_LOG_THROTTLED("Filter %#x Error! IATA alloc failed", filter->portID);
            return VigilDhcpV6ReqParseFailure(filter, hdrs);
         }
         break;
      default:
         /* This reader has no complaint about codes it doesn't know. */
         break;
      }
      offset += size;
      if (offset >= msgLen) {
         break;
      }
      if (offset + VIGIL_DHCPV6_OPT_HDR_LEN > msgLen) {
         return VigilDhcpV6ReqLenFailure(filter, hdrs);
      }
   }
   VIGIL_LIST_FOR_EACH(pos, &hdrs->iaList) {
      if (VigilDhcpV6ParseIaOpt(filter, VIGIL_IA_OPT_FROM_LINKS(pos)) != ZEK_OK) {
         return VigilDhcpV6ReqParseFailure(filter, hdrs);
      }
   }
   return ZEK_OK;
}

zek_Status VigilDhcpV6ParseIaOpt(VigilFilter *filter, VigilIaOpt *ia) {
   u8 *iaOpt = ia->iaOpt;
   u32 iaOptLen = VigilDhcpV6OptSize(iaOpt);
   u32 offset = ia->isIaNa ? VIGIL_DHCPV6_IA_NA_FIXED : VIGIL_DHCPV6_IA_TA_FIXED;
   zek_Status status = ZEK_OK;
   while (offset < iaOptLen) {
      u64 hdrEnd = (u64)offset + VIGIL_DHCPV6_OPT_HDR_LEN;
      if (hdrEnd > iaOptLen) {
         VIGIL_LOG_THROTTLED("Filter %#x Error! offset and option overflow %luoffset: %d, "
                             "iaOptLen: %d",
                             filter->portID, (unsigned long)hdrEnd, (int)offset,
                             (int)iaOptLen);
         status = VIGIL_STATUS_OVERFLOW;
         break;
      }
      u8 *subOpt = iaOpt + offset;
      u32 subOptLen = VigilGetBe16(subOpt + 2);
      u64 end = hdrEnd + subOptLen;
      if (end > iaOptLen) {
         VIGIL_LOG_THROTTLED("Filter %#x Error! option len > allowed sizeoffset: %d, "
                             "iaOptLen: %d, subOptLen: %d",
                             filter->portID, (int)end, (int)iaOptLen, (int)subOptLen);
         status = VIGIL_STATUS_OVERFLOW;
         break;
      }
      switch (VigilGetBe16(subOpt)) {
      case VIGIL_DHCPV6_OPT_IAADDR:
         VigilDhcpV6ParseIaAddr(filter, ia, subOpt);
         break;
      case VIGIL_DHCPV6_OPT_STATUS_CODE:
         VigilDhcpV6TakeStatus(filter, subOpt, subOptLen + VIGIL_DHCPV6_OPT_HDR_LEN,
                               &ia->statusOpt);
         break;
      default:
         break;
      }
      offset = (u32)end;
   }
   VIGIL_LOG_THROTTLED_INFO("Filter %#x Parsing IaOpt status: %s (%d)", filter->portID,
                            zek_StatusToString(status), (int)status);
   return status;
}

void VigilDhcpV6ParseIaAddr(VigilFilter *filter, VigilIaOpt *ia, u8 *addrOpt) {
   u32 addrOptLen = VigilDhcpV6OptSize(addrOpt);
   /* An address option too short for its address and lifetimes would make
    * its readers read past it. */
   if (addrOptLen < VIGIL_DHCPV6_IAADDR_FIXED) {
      VIGIL_LOG_THROTTLED("Filter %#x Error! IA Address option too short: %u",
                          filter->portID, addrOptLen);
      return;
   }
   ia->numAddrs++;
   if (ia->numAddrs > VIGIL_DHCPV6_MAX_IA_ADDRS) {
      if (ia->numAddrs == VIGIL_DHCPV6_MAX_IA_ADDRS + 1) {
         VIGIL_LOG_THROTTLED("Filter %#x DHCPv6 IA %#x has more than %u addresses, the rest "
                             "are not tracked",
                             filter->portID, VigilGetBe32(ia->iaOpt + 4),
                             VIGIL_DHCPV6_MAX_IA_ADDRS);
      }
      return;
   }
   VigilIaAddrOpt *addr = (VigilIaAddrOpt *)Vigil_HeapAlloc(sizeof *addr);
   if (addr == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x Error! VigilIaAddrOpt Alloc failed", filter->portID);
      return;
   }
   addr->links.prev = nullptr;
   addr->links.next = nullptr;
   addr->iaAddrOpt = addrOpt;
   addr->statusOpt = nullptr;
   u32 offset = VIGIL_DHCPV6_IAADDR_FIXED;
   while (offset < addrOptLen) {
      if (offset + VIGIL_DHCPV6_OPT_HDR_LEN > addrOptLen) {
         VIGIL_LOG_THROTTLED("Filter %#x Error! offset > allowed size", filter->portID);
         Vigil_HeapFree(addr);
         return;
      }
      u8 *subOpt = addrOpt + offset;
      u32 size = VigilDhcpV6OptSize(subOpt);
      if (offset + size > addrOptLen) {
         VIGIL_LOG_THROTTLED("Filter %#x Error! option len > allowed size", filter->portID);
         Vigil_HeapFree(addr);
         return;
      }
      if (VigilGetBe16(subOpt) == VIGIL_DHCPV6_OPT_STATUS_CODE) {
         VigilDhcpV6TakeStatus(filter, subOpt, size, &addr->statusOpt);
      }
      offset += size;
   }
   VigilListInsertBefore(&ia->addrList, &addr->links);
}

void VigilDhcpV6ReleaseHdrs(VigilFilter *filter, VigilDhcpV6Hdrs *hdrs) {
   (void)filter;
   /* A record never parsed holds nothing. */
   if (hdrs->iaList.next == nullptr) {
      VigilListInit(&hdrs->iaList);
      return;
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, tmp, &hdrs->iaList) {
      VigilIaOpt *ia = VIGIL_IA_OPT_FROM_LINKS(pos);
      if (ia->addrList.next != nullptr) {
         VIGIL_LIST_FOR_EACH_SAFE(apos, atmp, &ia->addrList) {
            VigilListRemove(apos);
            Vigil_HeapFree(VIGIL_IA_ADDR_OPT_FROM_LINKS(apos));
         }
      }
      VigilListRemove(pos);
      Vigil_HeapFree(ia);
   }
}
