/*
 * IPv6 frame handling in both directions.
 *
 * Until IPv6 handling is built, every IPv6 frame is forwarded.
 */
#include "vigil_packet.h"

__attribute__((weak)) zek_Status VigilProcessTxIpv6(VigilFilter *filter,
                                                    zek_Pkt *pkt,
                                                    VigilPacketContext *ctx,
                                                    u32 *action) {
   (void)filter, (void)pkt, (void)ctx;
   *action = VIGIL_ACTION_FORWARD;
   return ZEK_OK;
}

__attribute__((weak)) zek_Status VigilProcessRxIpv6(VigilFilter *filter,
                                                    zek_Pkt *pkt,
                                                    VigilPacketContext *ctx,
                                                    u32 *action) {
   (void)filter, (void)pkt, (void)ctx;
   *action = VIGIL_ACTION_FORWARD;
   return ZEK_OK;
}
