/*
 * DHCPv6 request tracking: the pending requests a port's client messages
 * leave, and the steps by which a server's Reply turns into bindings.
 *
 * A Reply is believed only when it matches a pending request by VLAN,
 * transaction id, client identifier and MAC; the request then also names
 * the IAs a Reply may grant and which addresses a failure takes away.
 * Release and Decline take their addresses away at once and are never
 * kept.  Everything here runs with the filter held for writing.
 */
#ifndef VIGIL_DHCPV6_TRACK_H
#define VIGIL_DHCPV6_TRACK_H

#include "vigil_dhcpv6.h"
#include "vigil_log.h"
#include "vigil_packet.h"
#include "vigil_v6.h"

/* A new request's reqStatus; a Reply's message-level status replaces it. */
#define VIGIL_DHCPV6_REQ_PENDING 1u

/* DHCPv6 status codes tracking acts on. */
#define VIGIL_DHCPV6_STATUS_SUCCESS 0u
#define VIGIL_DHCPV6_STATUS_NO_BINDING 3u
#define VIGIL_DHCPV6_STATUS_NOT_ON_LINK 4u

/* The request's message type, and its transaction id as log lines print it:
 * the three bytes read big-endian with a zero byte behind them. */
static inline u8 VigilDhcpV6ReqType(const VigilDhcpV6Req *req) {
   return req->msg[0];
}
static inline u32 VigilDhcpV6Xid(const u8 *msg) {
   return ((u32)msg[1] << 24) | ((u32)msg[2] << 16) | ((u32)msg[3] << 8);
}

/* The name of a message type for log lines; "" outside the table. */
const char *VigilDhcpV6TypeName(u32 type);

/* The first request on the list with the frame's VLAN, transaction id and
 * client identifier, if its MAC is the frame's (the source on transmit,
 * the destination on receive); null otherwise. */
VigilDhcpV6Req *VigilFindDhcpV6Req(VigilFilter *filter, VigilPacketContext *ctx, bool isTx);
/* A new request holding copies of the frame's message and client
 * identifier, on no list; null if it can't be made. */
VigilDhcpV6Req *VigilCreateDhcpV6Req(VigilFilter *filter, zek_Pkt *pkt, VigilPacketContext *ctx);
/* Arms the first timeout and puts the request on the list; false, with the
 * request left to the caller, when the limit is reached. */
bool VigilAddDhcpV6Req(VigilFilter *filter, VigilDhcpV6Req *req);
/* Links the request before the first one that expires strictly later. */
void VigilInsertIntoDhcpV6ReqList(VigilFilter *filter, VigilDhcpV6Req *req);
/* The next retransmission timeout of the request's message type. */
void VigilDhcpV6ReqTimeoutStep(VigilDhcpV6Req *req);
/* Deletes the client's bindings of the addresses of one IA of the request. */
void VigilDhcpV6DelReqIa(VigilFilter *filter, VigilDhcpV6Req *req, VigilIaOpt *ia);
/* The binding of the 24-byte key if it is this client's DHCPv6 lease under
 * that IAID (host order); null otherwise. */
VigilV6Vmi *VigilFindDhcpV6ClientVmi(VigilFilter *filter, const u8 *key, u16 clientIdLen,
                                     const u8 *clientId, u32 iaId);
/* Binds, renews or withdraws the addresses of one IA of a Reply, as the
 * request's IA of the same kind and IAID allows; the result of the last
 * address, or 0xbad0003 when the request has no such IA. */
VIGIL_MUST_CHECK zek_Status VigilDhcpV6ProcessIaOpt(VigilFilter *filter, VigilPacketContext *ctx,
                                                    VigilDhcpV6Req *req,
                                                    VigilDhcpV6Hdrs *reqHdrs, VigilIaOpt *ia);

#endif /* VIGIL_DHCPV6_TRACK_H */
