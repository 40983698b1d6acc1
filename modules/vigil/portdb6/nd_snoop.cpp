/*
 * Neighbor Discovery parsing and snooping.
 *
 * Until ND parsing is built, the parser answers "not initialized", which
 * address enforcement takes as "judge the source only".
 */
#include "vigil_warden.h"

__attribute__((weak)) zek_Status VigilNDParsePkt(VigilFilter *filter,
                                                 zek_Pkt *pkt,
                                                 VigilPacketContext *ctx) {
   (void)filter, (void)pkt;
   ctx->ndHdr = nullptr;
   ctx->ndLinkAddrOpt = nullptr;
   return VIGIL_STATUS_NOT_INITIALIZED;
}
