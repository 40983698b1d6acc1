/*
 * ARP snooping: bindings from the ARP frames a VM sends.
 *
 * Until ARP snooping is built, it forwards every frame without learning.
 */
#include "vigil_packet.h"

__attribute__((weak)) zek_Status VigilArpSnoop(VigilFilter *filter,
                                               VigilPacketContext *ctx,
                                               const u8 *arpHdr, u32 *action) {
   (void)filter, (void)ctx, (void)arpHdr;
   *action = VIGIL_ACTION_FORWARD;
   return ZEK_OK;
}
