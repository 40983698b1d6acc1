/*
 * ARP snooping: bindings learnt from the ARP frames a VM sends.
 *
 * A request or reply makes an ARP binding of (VLAN, sender MAC, sender IP)
 * that lives arpExpiry seconds from the last frame that showed it.  A DHCP
 * or static binding of the same key is left alone.
 */
#include <cstring>

#include "vigil_log.h"
#include "vigil_packet.h"
#include "vigil_vmi.h"

#define VIGIL_ARP_OP_REQUEST 1
#define VIGIL_ARP_OP_REPLY 2
#define VIGIL_ARP_SENDER_MAC 8
#define VIGIL_ARP_SENDER_IP 14
#define VIGIL_ARP_TARGET_IP 24


zek_Status VigilArpSnoop(VigilFilter *filter, VigilPacketContext *ctx,
                         const u8 *arpHdr, u32 *action) {
   Vigil_AssertFilterIsLocked(filter, false);
   u16 op = VigilGetBe16(arpHdr + 6);
   if (op != VIGIL_ARP_OP_REQUEST && op != VIGIL_ARP_OP_REPLY) {
      return ZEK_OK;
   }
   if (ctx->holdsReadLock) {
      *action = VIGIL_ACTION_RELOCK;
      return ZEK_OK;
   }
   const u8 *senderMac = arpHdr + VIGIL_ARP_SENDER_MAC;
   u32 senderIp;
   memcpy(&senderIp, arpHdr + VIGIL_ARP_SENDER_IP, 4);

   VigilVmi *vmi = VigilFindVmi(filter, ctx->vlanId, senderMac, senderIp);
   if (vmi != nullptr) {
      if (vmi->discMethod == VIGIL_DISC_ARP) {
         VigilRefreshVmiExpiryTs(filter, vmi, Vigil_UptimeSecs() + filter->arpExpiry);
         VigilUpdateFilterAging(filter);
      }
      return ZEK_OK;
   }

   vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
   if (vmi == nullptr) {
      VIGIL_LOG_THROTTLED("Filter %#x Vmi alloc failed", filter->portID);
      return VIGIL_STATUS_NO_MEMORY;
   }
   vmi->vlanId = ctx->vlanId;
   memcpy(vmi->mac, senderMac, 6);
   vmi->ip = senderIp;
   vmi->discMethod = VIGIL_DISC_ARP;
   vmi->gratuitous =
      memcmp(arpHdr + VIGIL_ARP_SENDER_IP, arpHdr + VIGIL_ARP_TARGET_IP, 4) == 0;
   vmi->expiryTs = Vigil_UptimeSecs() + filter->arpExpiry;
   if (VigilAddVmi(filter, vmi) != ZEK_OK) {
      /* The ignore list and the limit show in their own counters. */
      Vigil_HeapFree(vmi);
   }
   return ZEK_OK;
}

void VigilExtendAge(VigilFilter *filter, VigilPacketContext *ctx) {
   Vigil_AssertFilterIsLocked(filter, true);
   u32 ipSrc;
   memcpy(&ipSrc, ctx->ipHdr + 12, 4);
   VigilVmi *vmi = VigilFindVmi(filter, ctx->vlanId, ctx->ethHdr + 6, ipSrc);
   if (vmi != nullptr && vmi->discMethod == VIGIL_DISC_ARP) {
      VigilRefreshVmiExpiryTs(filter, vmi, Vigil_UptimeSecs() + filter->arpExpiry);
      VigilUpdateFilterAging(filter);
   }
}
