/*
 * DHCPv6 messages as snooping reads them: the parsed record, its IA and IA
 * Address nodes, and the readers of a frame, of a stored request and of the
 * inside of an IA option.
 *
 * A message is a type byte, a 3-byte transaction id and options, each a
 * big-endian 16-bit code and 16-bit data length followed by the data.  A
 * "whole size" is an option's length field plus its 4-byte header.
 */
#ifndef VIGIL_DHCPV6_H
#define VIGIL_DHCPV6_H

#include "vigil_filter.h"

struct VigilPacketContext;

/* Message types. */
#define VIGIL_DHCPV6_NONE 0u
#define VIGIL_DHCPV6_SOLICIT 1u
#define VIGIL_DHCPV6_ADVERTISE 2u
#define VIGIL_DHCPV6_REQUEST 3u
#define VIGIL_DHCPV6_CONFIRM 4u
#define VIGIL_DHCPV6_RENEW 5u
#define VIGIL_DHCPV6_REBIND 6u
#define VIGIL_DHCPV6_REPLY 7u
#define VIGIL_DHCPV6_RELEASE 8u
#define VIGIL_DHCPV6_DECLINE 9u
#define VIGIL_DHCPV6_RECONFIGURE 10u
#define VIGIL_DHCPV6_INFO_REQUEST 11u
#define VIGIL_DHCPV6_RELAY_FORW 12u
#define VIGIL_DHCPV6_RELAY_REPL 13u
#define VIGIL_DHCPV6_NUM_MSG_TYPES 14u

/* Option codes the readers act on. */
#define VIGIL_DHCPV6_OPT_CLIENTID 1u
#define VIGIL_DHCPV6_OPT_SERVERID 2u
#define VIGIL_DHCPV6_OPT_IA_NA 3u
#define VIGIL_DHCPV6_OPT_IA_TA 4u
#define VIGIL_DHCPV6_OPT_IAADDR 5u
#define VIGIL_DHCPV6_OPT_STATUS_CODE 13u
#define VIGIL_DHCPV6_OPT_RAPID_COMMIT 14u

/* Sizes, in bytes from an option's code. */
#define VIGIL_DHCPV6_MSG_HDR_LEN 4u  /* type and transaction id */
#define VIGIL_DHCPV6_OPT_HDR_LEN 4u  /* code and length */
#define VIGIL_DHCPV6_IA_NA_FIXED 16u /* header, IAID, T1, T2 */
#define VIGIL_DHCPV6_IA_TA_FIXED 8u  /* header, IAID */
#define VIGIL_DHCPV6_IAADDR_FIXED 28u /* header, address, both lifetimes */
/* What one message can make the readers track: IA options per message and
 * IA Address options per IA.  The protocol sets no limit, and every one
 * tracked is a node on the module heap and work for each reply; clients ask
 * for one or two IAs of one address each.  Those beyond are passed over. */
#define VIGIL_DHCPV6_MAX_IAS 8u
#define VIGIL_DHCPV6_MAX_IA_ADDRS 8u
/* The longest client message kept as a pending request (its copy stays
 * until the reply); a longer one is not tracked.  Client messages are a
 * few hundred bytes; the UDP length would allow 64 KiB per request. */
#define VIGIL_DHCPV6_MAX_MSG_COPY 2048u
#define VIGIL_DHCPV6_IAADDR_ADDR 4u   /* the address inside an IA Address */
#define VIGIL_DHCPV6_IAADDR_PREFERRED 20u
#define VIGIL_DHCPV6_IAADDR_VALID 24u
#define VIGIL_DHCPV6_STATUS_CODE 4u /* the 16-bit code of a Status Code */
#define VIGIL_DHCPV6_STATUS_TEXT 6u /* its text, up to the option's end */

/* Whole size of the option whose code is at `opt`. */
static inline u32 VigilDhcpV6OptSize(const u8 *opt) {
   return (u32)VigilGetBe16(opt + 2) + VIGIL_DHCPV6_OPT_HDR_LEN;
}

/* One IA_NA or IA_TA option of a message. */
struct VigilIaOpt {
   VigilListLinks links; /* in VigilDhcpV6Hdrs.iaList */
   u8 *iaOpt;            /* the option, from its code */
   u8 isIaNa;            /* 1 for IA_NA, 0 for IA_TA */
   u8 *statusOpt;        /* last Status Code inside the IA; null if none */
   VigilListLinks addrList; /* VigilIaAddrOpt; filled by VigilDhcpV6ParseIaOpt */
   u32 numAddrs;         /* IA Address options seen, tracked or not */
};

/* One IA Address option inside an IA. */
struct VigilIaAddrOpt {
   VigilListLinks links; /* in VigilIaOpt.addrList */
   u8 *iaAddrOpt;        /* the option, from its code */
   u8 *statusOpt;        /* last Status Code inside the address; null if none */
};

#define VIGIL_IA_OPT_FROM_LINKS(l) VIGIL_LIST_ENTRY(l, VigilIaOpt, links)
#define VIGIL_IA_ADDR_OPT_FROM_LINKS(l) VIGIL_LIST_ENTRY(l, VigilIaAddrOpt, links)

/* A parsed message.  The pointers point into the frame's mapping or into
 * the stored copy, at an option's code; the record owns only the nodes on
 * iaList (and theirs).  A frame's record lives in VigilPacketContext. */
struct VigilDhcpV6Hdrs {
   u8 *msg;            /* the message, from its type byte */
   u8 *clientIdOpt;    /* last Client Identifier */
   u8 *serverIdOpt;    /* last Server Identifier */
   u8 *rapidCommitOpt; /* last Rapid Commit */
   u8 *statusOpt;      /* last Status Code at message level */
   VigilListLinks iaList; /* VigilIaOpt, in the order of the message */
   u32 numIas;            /* IA options seen, tracked or not */
};

/* Names of the message types for log lines, by type. */
extern const char *const dhcpV6MsgTypeStr[VIGIL_DHCPV6_NUM_MSG_TYPES];

/* Whether the frame is a DHCPv6 client or server message, by its UDP source
 * port. */
bool VigilIsPktDhcpV6Msg(const VigilPacketContext *ctx);

/* Parses the frame's message into ctx->dhcpV6Hdrs, IA options down to their
 * node.  ZEK_OK: the caller releases the record once.  0xbad0020: a
 * fragment, the record untouched.  0xbad0007: malformed, all released. */
VIGIL_MUST_CHECK zek_Status VigilParseDhcpv6Pkt(VigilFilter *filter, zek_Pkt *pkt,
                                                VigilPacketContext *ctx);

/* Parses a stored flat message of *msgLen bytes into `hdrs`, every IA down
 * to its addresses.  ZEK_OK: the caller releases `hdrs` once.  0xbad0007:
 * nothing held. */
VIGIL_MUST_CHECK zek_Status VigilDhcpV6ParseReq(VigilFilter *filter, u8 **msg, u16 *msgLen,
                                                VigilDhcpV6Hdrs *hdrs);

/* Reads the inside of an IA option: its Status Code and its addresses.
 * 0xbad0026 when a sub-option overruns the IA; nodes already added stay. */
VIGIL_MUST_CHECK zek_Status VigilDhcpV6ParseIaOpt(VigilFilter *filter, VigilIaOpt *ia);

/* Adds a node for the IA Address option `addrOpt`, which lies whole inside
 * the IA, to ia->addrList; a malformed or unallocatable one is skipped. */
void VigilDhcpV6ParseIaAddr(VigilFilter *filter, VigilIaOpt *ia, u8 *addrOpt);

/* Frees every node the record holds and leaves iaList empty; releasing a
 * released record again does nothing. */
void VigilDhcpV6ReleaseHdrs(VigilFilter *filter, VigilDhcpV6Hdrs *hdrs);

#endif /* VIGIL_DHCPV6_H */
