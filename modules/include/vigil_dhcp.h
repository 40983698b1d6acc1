/*
 * DHCP snooping: pending client requests and the operations on them.
 */
#ifndef VIGIL_DHCP_H
#define VIGIL_DHCP_H

#include "vigil_packet.h"
#include "vigil_vmi.h"

#define VIGIL_MAX_DHCP_REQS 128u
#define VIGIL_DHCP_REQ_LIFETIME 60

/* DHCP message types. */
#define VIGIL_DHCPDISCOVER 1
#define VIGIL_DHCPOFFER 2
#define VIGIL_DHCPREQUEST 3
#define VIGIL_DHCPDECLINE 4
#define VIGIL_DHCPACK 5
#define VIGIL_DHCPNAK 6
#define VIGIL_DHCPRELEASE 7
#define VIGIL_DHCPINFORM 8

/* Offsets in the fixed DHCP header. */
#define VIGIL_DHCP_HTYPE 1
#define VIGIL_DHCP_HLEN 2
#define VIGIL_DHCP_XID 4
#define VIGIL_DHCP_CIADDR 12
#define VIGIL_DHCP_YIADDR 16
#define VIGIL_DHCP_SIADDR 20
#define VIGIL_DHCP_GIADDR 24
#define VIGIL_DHCP_CHADDR 28
#define VIGIL_DHCP_COOKIE 236
#define VIGIL_DHCP_FIXED_LEN 240

/* One client that has an unanswered DHCPREQUEST. */
struct VigilDhcpReq {
   VigilListLinks links; /* in dhcpReqList, by expiry */
   u16 vlanId;
   u32 xid; /* as in the frame */
   u8 chaddr[6];
   u8 clientIdLen;
   u8 *clientIdStr; /* heap copy owned by the record */
   i64 expiryTs;
};

#define VIGIL_DHCP_REQ_FROM_LINKS(l) VIGIL_LIST_ENTRY(l, VigilDhcpReq, links)

extern const char *const dhcpMsgTypeStr[9];

VIGIL_MUST_CHECK zek_Status VigilAddDhcpReq(VigilFilter *filter, VigilPacketContext *ctx);
void VigilDelDhcpReq(VigilFilter *filter, VigilDhcpReq *req);
VigilDhcpReq *VigilFindDhcpClientReq(VigilFilter *filter, VigilPacketContext *ctx);
VigilDhcpReq *VigilFindMatchingDhcpReq(VigilFilter *filter, u16 vlanId,
                                       const u8 *dhcpHdr);
VigilVmi *VigilFindDhcpClientVmi(VigilFilter *filter, u16 vlanId,
                                 const u8 *chaddr, u32 clientIdLen,
                                 const u8 *clientId);
VIGIL_MUST_CHECK zek_Status VigilProcessDhcpAck(VigilFilter *filter, VigilPacketContext *ctx);
VIGIL_MUST_CHECK zek_Status VigilUpdateVmiIp(VigilFilter *filter, VigilVmi *vmi, u32 newIp);

#endif /* VIGIL_DHCP_H */
