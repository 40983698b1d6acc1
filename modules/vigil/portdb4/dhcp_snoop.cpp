/*
 * DHCP snooping: pending client requests and bindings from server replies.
 *
 * Until DHCP snooping is built, no frame parses as DHCP and snooping
 * forwards every frame without learning.
 */
#include "vigil_packet.h"

__attribute__((weak)) zek_Status VigilDhcpParse(VigilFilter *filter,
                                                zek_Pkt *pkt,
                                                VigilPacketContext *ctx) {
   (void)filter, (void)pkt;
   ctx->dhcpHdr = nullptr;
   return 0xffffffffu;
}

__attribute__((weak)) zek_Status VigilDhcpSnoopTx(VigilFilter *filter,
                                                  zek_Pkt *pkt,
                                                  VigilPacketContext *ctx,
                                                  u32 *action) {
   (void)filter, (void)pkt, (void)ctx;
   *action = VIGIL_ACTION_FORWARD;
   return ZEK_OK;
}

__attribute__((weak)) zek_Status VigilDhcpSnoopRx(VigilFilter *filter,
                                                  zek_Pkt *pkt,
                                                  VigilPacketContext *ctx,
                                                  u32 *action) {
   (void)filter, (void)pkt, (void)ctx;
   *action = VIGIL_ACTION_FORWARD;
   return ZEK_OK;
}
