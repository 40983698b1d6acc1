/*
 * What the transmit and receive pipelines call beyond themselves.
 *
 * The pipelines reach address enforcement, DHCP parsing, snooping and IPv6
 * handling only through vigilPipelineCallees, whose entries are the
 * module's own functions (vigilPipelineModuleCallees).  A test of the
 * pipelines may put other entries in and must put these back; nothing in
 * the module writes the table, so the data path reads it without a lock.
 */
#ifndef VIGIL_PIPELINE_H
#define VIGIL_PIPELINE_H

#include "vigil_packet.h"

struct VigilPipelineCallees {
   u32 (*warden)(VigilFilter *filter, u16 vlan, const u8 *mac, const u8 *addr,
                 const u8 *arpSenderMac, u32 kind, const u8 *ppMetadata,
                 u32 obsvFlags);
   zek_Status (*dhcpParse)(VigilFilter *filter, zek_Pkt *pkt,
                           VigilPacketContext *ctx);
   zek_Status (*dhcpSnoopTx)(VigilFilter *filter, zek_Pkt *pkt,
                             VigilPacketContext *ctx, u32 *action);
   zek_Status (*dhcpSnoopRx)(VigilFilter *filter, zek_Pkt *pkt,
                             VigilPacketContext *ctx, u32 *action);
   zek_Status (*arpSnoop)(VigilFilter *filter, VigilPacketContext *ctx,
                          const u8 *arpHdr, u32 *action);
   zek_Status (*processTxIpv6)(VigilFilter *filter, zek_Pkt *pkt,
                               VigilPacketContext *ctx, u32 *action);
   zek_Status (*processRxIpv6)(VigilFilter *filter, zek_Pkt *pkt,
                               VigilPacketContext *ctx, u32 *action);
};

/* The table the pipelines call through. */
extern VigilPipelineCallees vigilPipelineCallees;
/* The module's own entries: what vigilPipelineCallees holds at load. */
extern const VigilPipelineCallees vigilPipelineModuleCallees;

#endif /* VIGIL_PIPELINE_H */
