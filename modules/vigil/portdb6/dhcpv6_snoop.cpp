/*
 * DHCPv6 request tracking: client messages on transmit, server replies on
 * receive.
 *
 * Until DHCPv6 tracking is built, nothing is tracked and a reply changes
 * nothing.
 */
#include "vigil_packet.h"

__attribute__((weak)) void VigilConfirmSnoopingTx(VigilFilter *filter, zek_Pkt *pkt,
                                                  VigilPacketContext *ctx) {
   (void)filter, (void)pkt, (void)ctx;
}

__attribute__((weak)) zek_Status VigilProcessRxDhcpv6Discovery(VigilFilter *filter,
                                                               zek_Pkt *pkt,
                                                               VigilPacketContext *ctx) {
   (void)filter, (void)pkt, (void)ctx;
   return ZEK_OK;
}
