/*
 * The per-frame parse record and the entry points of the data path.
 */
#ifndef VIGIL_PACKET_H
#define VIGIL_PACKET_H

#include "vigil_dhcpv6.h"
#include "vigil_filter.h"

/* Parse bits of VigilPacketContext.flags. */
#define VIGIL_PKT_ETH 0x01u
#define VIGIL_PKT_IPV4 0x02u
#define VIGIL_PKT_IPV6 0x04u
#define VIGIL_PKT_UDP 0x10u
#define VIGIL_PKT_ICMPV6 0x20u

/* ICMPv6 types the IPv6 paths look at. */
#define VIGIL_ICMPV6_MLD_REPORT 131
#define VIGIL_ICMPV6_MLD_DONE 132
#define VIGIL_ICMPV6_ROUTER_SOLICIT 133
#define VIGIL_ICMPV6_ROUTER_ADVERT 134
#define VIGIL_ICMPV6_NEIGHBOR_SOLICIT 135
#define VIGIL_ICMPV6_NEIGHBOR_ADVERT 136

/* UDP ports of DHCPv6: clients listen on 546, servers and relays on 547. */
#define VIGIL_UDP_PORT_DHCPV6_CLIENT 546
#define VIGIL_UDP_PORT_DHCPV6_SERVER 547

#define VIGIL_ETH_HDR_COPY 14
#define VIGIL_IP_HDR_COPY 40
#define VIGIL_L4_HDR_COPY 20

/* Built once per batch on the stack; only the fields the loop names are
 * reset per frame, the parsers reset their own. */
struct VigilPacketContext {
   u32 flags;
   u8 *frameMapped;
   u32 frameLen;
   u32 mappedLen; /* the smaller of frame length and mapped length */
   u8 *flatCopy;  /* heap copy of the whole frame, made on demand */
   zek_PktHeaderEntry *ethEntry;
   u8 *ethHdr;
   u16 vlanId;
   zek_PktHeaderEntry *ipEntry;
   u8 *ipHdr;
   zek_PktHeaderEntry *l4Entry;
   u8 *l4Hdr;
   u8 *dhcpHdr;
   u8 *dhcpMsgType;
   u32 dhcpClientIdLen;
   u8 *dhcpClientId;
   u8 *dhcpLeaseTime;
   u8 *ndHdr;
   u8 *ndLinkAddrOpt;
   VigilDhcpV6Hdrs dhcpV6Hdrs; /* set by VigilParseDhcpv6Pkt */
   u8 holdsReadLock;
   u8 *ppMetadata; /* the frame's 16 Pathprobe bytes; null when not traced */
   /* The last IPv4 source the warden let through in this batch, as VLAN,
    * MAC and address (wardenV4Known 0: none yet).  The lists can't change
    * while the batch holds the lock, so the same source is let through
    * again without a look; the loop forgets it when it relocks. */
   u8 wardenV4Known;
   u16 wardenV4Vlan;
   u8 wardenV4Mac[VIGIL_ETH_ALEN];
   u8 wardenV4Addr[4];
   /* From here on, room that is only read through a pointer set after it
    * was written: the loop doesn't zero it when a batch starts. */
   u8 ethCopy[VIGIL_ETH_HDR_COPY];
   u8 ipCopy[VIGIL_IP_HDR_COPY];
   u8 l4Copy[VIGIL_L4_HDR_COPY];
   /* The IPv4 and UDP header entries when the loop worked them out from the
    * Ethernet entry and the mapped bytes; ipEntry and l4Entry then point
    * here. */
   zek_PktHeaderEntry ownIpEntry;
   zek_PktHeaderEntry ownL4Entry;
};

/* Packet loop. */
extern "C" VIGIL_MUST_CHECK zek_Status Vigil_ProcessPacketsToSwitch(zek_PortID portID, void *priv,
                                                   zek_PktList *list);
extern "C" VIGIL_MUST_CHECK zek_Status Vigil_ProcessPacketsFromSwitch(zek_PortID portID,
                                                     void *priv,
                                                     zek_PktList *list);
VIGIL_MUST_CHECK zek_Status VigilProcessPackets(u32 portID, zek_PktList *list, bool toSwitch);
/* Parses a frame's headers into the context (flags, header pointers and
 * entries, vlanId), as the loop does before a pipeline runs; the second
 * takes every header by the host's finds, the reference for the first. */
void VigilParseHeaders(zek_Pkt *pkt, VigilPacketContext *ctx);
void VigilParseHeadersByFind(zek_Pkt *pkt, VigilPacketContext *ctx);
u8 *VigilGetMappedPtr(zek_Pkt *pkt, u32 *offset, u32 length,
                      VigilPacketContext *ctx);
u8 *OXA_PktFindSGEntry(zek_Pkt *pkt, u32 start, u32 end);

/* Transmit and receive pipelines. */
VIGIL_MUST_CHECK zek_Status VigilProcessPktTx(VigilFilter *filter, zek_Pkt *pkt,
                             VigilPacketContext *ctx, u32 *action);
VIGIL_MUST_CHECK zek_Status VigilProcessPktRx(VigilFilter *filter, zek_Pkt *pkt,
                             VigilPacketContext *ctx, u32 *action);
bool VigilDhcpIpv4ClientValidate(VigilFilter *filter, zek_Pkt *pkt,
                                 VigilPacketContext *ctx);
u32 VigilProcessRateLimiting(zek_SpinlockHandle *lock,
                             VigilRateLimiter *limiter, u64 *dropCounter);
bool Eth_IsBroadcastAddr(const u8 *addr);

#define VIGIL_NUM_SUPPORTED_BPDUS 31
extern const u8 supportedBpduFilterMacs[VIGIL_NUM_SUPPORTED_BPDUS][6];
extern const u32 numSupportedBpdus;

/* Address enforcement kinds and the warden. */
#define VIGIL_WDN_IPV4 1u
#define VIGIL_WDN_IPV6 2u
#define VIGIL_WDN_ARP 3u
#define VIGIL_WDN_L2 4u
#define VIGIL_WDN_ND 5u
u32 VigilWarden(VigilFilter *filter, u16 vlan, const u8 *mac, const u8 *addr,
                const u8 *arpSenderMac, u32 kind, const u8 *ppMetadata,
                u32 obsvFlags);
/* VigilWarden of an IPv4 source: kind VIGIL_WDN_IPV4, no ARP sender MAC,
 * both observations. */
u32 VigilWardenIpv4(VigilFilter *filter, u16 vlan, const u8 *mac, const u8 *addr,
                    const u8 *ppMetadata);

/* Snooping and IPv6 handling reached from the pipelines. */
VIGIL_MUST_CHECK zek_Status VigilDhcpParse(VigilFilter *filter, zek_Pkt *pkt,
                          VigilPacketContext *ctx);
VIGIL_MUST_CHECK zek_Status VigilDhcpSnoopTx(VigilFilter *filter, zek_Pkt *pkt,
                            VigilPacketContext *ctx, u32 *action);
VIGIL_MUST_CHECK zek_Status VigilDhcpSnoopRx(VigilFilter *filter, zek_Pkt *pkt,
                            VigilPacketContext *ctx, u32 *action);
VIGIL_MUST_CHECK zek_Status VigilArpSnoop(VigilFilter *filter, VigilPacketContext *ctx,
                         const u8 *arpHdr, u32 *action);
void VigilExtendAge(VigilFilter *filter, VigilPacketContext *ctx);
VIGIL_MUST_CHECK zek_Status VigilProcessTxIpv6(VigilFilter *filter, zek_Pkt *pkt,
                              VigilPacketContext *ctx, u32 *action);
VIGIL_MUST_CHECK zek_Status VigilProcessRxIpv6(VigilFilter *filter, zek_Pkt *pkt,
                              VigilPacketContext *ctx, u32 *action);

/* Steps of the IPv6 transmit path: learning from neighbor solicitations and
 * advertisements, and tracking of the DHCPv6 messages a client sends.  Each
 * answers RELOCK under the read lock and changes nothing then. */
VIGIL_MUST_CHECK zek_Status VigilProcessTxIpv6NdDiscovery(VigilFilter *filter, zek_Pkt *pkt,
                                         VigilPacketContext *ctx, u32 *action);
VIGIL_MUST_CHECK zek_Status VigilDoNsSnooping(VigilFilter *filter, VigilPacketContext *ctx);
void VigilDoNaSnooping(VigilFilter *filter, VigilPacketContext *ctx);
VIGIL_MUST_CHECK zek_Status VigilProcessTxDhcpv6Discovery(VigilFilter *filter, zek_Pkt *pkt,
                                         VigilPacketContext *ctx, u32 *action);

/* DHCPv6: recognising and parsing a frame's message is in vigil_dhcpv6.h;
 * here request tracking on transmit (which gives back what the parse holds)
 * and the handling of a server's reply on receive. */
void VigilConfirmSnoopingTx(VigilFilter *filter, zek_Pkt *pkt, VigilPacketContext *ctx);
VIGIL_MUST_CHECK zek_Status VigilProcessRxDhcpv6Discovery(VigilFilter *filter, zek_Pkt *pkt,
                                         VigilPacketContext *ctx);

#endif /* VIGIL_PACKET_H */
