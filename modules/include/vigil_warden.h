/*
 * Address enforcement: the warden and the records it sends to Pathprobe.
 */
#ifndef VIGIL_WARDEN_H
#define VIGIL_WARDEN_H

#include "vigil_packet.h"
#include "vigil_whitelist.h"

#define VIGIL_WDN_NO_MATCH 0xffffffffu

/* Observation flags of VigilWarden. */
#define VIGIL_OBSV_INPUT 0x1u
#define VIGIL_OBSV_OUTPUT 0x2u

/* valid bits of VigilWdnIOObsv. */
#define VIGIL_OBSV_VALID_VLAN 0x1u
#define VIGIL_OBSV_VALID_MAC 0x2u
#define VIGIL_OBSV_VALID_IP 0x4u
#define VIGIL_OBSV_VALID_IPV4 0x8u

struct __attribute__((packed)) VigilWdnIOObsv {
   u32 direction; /* 1 input, 0 output */
   u32 portID;
   u8 valid;
   u32 vlan;
   u8 mac[6];
   u8 ip[16];
   u8 prefixLen;
};
static_assert(sizeof(VigilWdnIOObsv) == 36, "io observation is 36 bytes");
static_assert(offsetof(VigilWdnIOObsv, valid) == 8, "valid at 8");
static_assert(offsetof(VigilWdnIOObsv, vlan) == 9, "vlan at 9");
static_assert(offsetof(VigilWdnIOObsv, mac) == 13, "mac at 13");
static_assert(offsetof(VigilWdnIOObsv, ip) == 19, "ip at 19");
static_assert(offsetof(VigilWdnIOObsv, prefixLen) == 35, "prefixLen at 35");

#define VIGIL_DROP_OBSV_KIND 6u

struct __attribute__((packed)) VigilLogicalDropObsv {
   u32 obsvType; /* 6 */
   u32 dropType; /* 6 */
   u8 reserved[77];
   u32 portID;
   u8 tail[8];
};
static_assert(sizeof(VigilLogicalDropObsv) == 97, "drop observation is 97 bytes");
static_assert(offsetof(VigilLogicalDropObsv, portID) == 85, "portID at 85");

u32 WardenMatchWL(VigilFilter *filter, const VigilWhiteListEntry *list,
                  u32 size, u16 vlan, const u8 *mac, const u8 *addr,
                  const u8 *arpSenderMac, u32 kind, bool macsEqual,
                  const char *tag, u32 *matchIndex);
VIGIL_MUST_CHECK zek_Status VigilProcessTxIpv6Warden(VigilFilter *filter, zek_Pkt *pkt,
                                    VigilPacketContext *ctx, u32 *action);
VIGIL_MUST_CHECK zek_Status VigilNDParsePkt(VigilFilter *filter, zek_Pkt *pkt,
                           VigilPacketContext *ctx);

#endif /* VIGIL_WARDEN_H */
