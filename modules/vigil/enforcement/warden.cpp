/*
 * Address enforcement against the switch and port white lists.
 *
 * Until the white lists are enforced, the warden lets every frame pass.
 */
#include "vigil_packet.h"

__attribute__((weak)) u32 VigilWarden(VigilFilter *filter, u16 vlan,
                                      const u8 *mac, const u8 *addr,
                                      const u8 *arpSenderMac, u32 kind,
                                      const u8 *ppMetadata, u32 obsvFlags) {
   (void)filter, (void)vlan, (void)mac, (void)addr, (void)arpSenderMac;
   (void)kind, (void)ppMetadata, (void)obsvFlags;
   return VIGIL_ACTION_FORWARD;
}
