/*
 * DHCPv6 messages: recognising one and parsing it.
 *
 * Until DHCPv6 parsing is built, no frame is a DHCPv6 message, and a parse
 * holds nothing and answers "not supported".
 */
#include "vigil_packet.h"

__attribute__((weak)) bool VigilIsPktDhcpV6Msg(const VigilPacketContext *ctx) {
   (void)ctx;
   return false;
}

__attribute__((weak)) zek_Status VigilParseDhcpv6Pkt(VigilFilter *filter, zek_Pkt *pkt,
                                                     VigilPacketContext *ctx) {
   (void)filter, (void)pkt, (void)ctx;
   return VIGIL_STATUS_NOT_SUPPORTED;
}
