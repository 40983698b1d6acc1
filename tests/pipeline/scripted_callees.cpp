#include "scripted_callees.h"

#include "vigil_pipeline.h"

namespace scripted {

u32 wardenResult;
bool dhcpParses;
u8 dhcpMessageType;
std::string relockOn;
u32 snoopAction;
zek_Status snoopStatus;
std::vector<WardenCall> wardenCalls;
std::vector<SnoopCall> snoopCalls;
u32 dhcpParseCalls;

void Reset() {
   wardenResult = VIGIL_ACTION_FORWARD;
   dhcpParses = false;
   dhcpMessageType = 3;
   relockOn.clear();
   snoopAction = VIGIL_ACTION_FORWARD;
   snoopStatus = ZEK_OK;
   wardenCalls.clear();
   snoopCalls.clear();
   dhcpParseCalls = 0;
}

namespace {

zek_Status Snoop(const char *what, VigilFilter *filter, VigilPacketContext *ctx,
                 u32 *action) {
   snoopCalls.push_back({what, ctx->holdsReadLock, filter->configWriteHeld});
   if (relockOn == what && ctx->holdsReadLock) {
      *action = VIGIL_ACTION_RELOCK;
      return ZEK_OK;
   }
   *action = snoopAction;
   return snoopStatus;
}

u32 Warden(VigilFilter *, u16 vlan, const u8 *mac, const u8 *addr,
           const u8 *arpSenderMac, u32 kind, const u8 *ppMetadata, u32 obsvFlags) {
   WardenCall call{vlan, {}, {}, {}, kind, ppMetadata, obsvFlags};
   if (mac) call.mac.assign(mac, mac + 6);
   if (addr) call.addr.assign(addr, addr + (kind == VIGIL_WDN_IPV6 ? 16 : 4));
   if (arpSenderMac) call.arpSenderMac.assign(arpSenderMac, arpSenderMac + 6);
   wardenCalls.push_back(call);
   return wardenResult;
}

/* Points dhcpHdr at the 240-byte fixed header behind the UDP header, read
 * through the module's own reader so that split frames work too. */
zek_Status DhcpParse(VigilFilter *, zek_Pkt *pkt, VigilPacketContext *ctx) {
   static u8 msgType;
   dhcpParseCalls++;
   ctx->dhcpHdr = nullptr;
   if (!dhcpParses || !(ctx->flags & VIGIL_PKT_UDP)) {
      return 0xffffffffu;
   }
   u32 offset = ctx->l4Entry->offset + 8;
   ctx->dhcpHdr = VigilGetMappedPtr(pkt, &offset, 240, ctx);
   if (ctx->dhcpHdr == nullptr) {
      return 0xffffffffu;
   }
   msgType = dhcpMessageType;
   ctx->dhcpMsgType = &msgType;
   return ZEK_OK;
}

zek_Status DhcpSnoopTx(VigilFilter *filter, zek_Pkt *, VigilPacketContext *ctx,
                       u32 *action) {
   return Snoop("dhcpTx", filter, ctx, action);
}

zek_Status DhcpSnoopRx(VigilFilter *filter, zek_Pkt *, VigilPacketContext *ctx,
                       u32 *action) {
   return Snoop("dhcpRx", filter, ctx, action);
}

zek_Status ArpSnoop(VigilFilter *filter, VigilPacketContext *ctx, const u8 *,
                    u32 *action) {
   return Snoop("arp", filter, ctx, action);
}

zek_Status ProcessTxIpv6(VigilFilter *filter, zek_Pkt *, VigilPacketContext *ctx,
                         u32 *action) {
   return Snoop("ipv6Tx", filter, ctx, action);
}

zek_Status ProcessRxIpv6(VigilFilter *filter, zek_Pkt *, VigilPacketContext *ctx,
                         u32 *action) {
   return Snoop("ipv6Rx", filter, ctx, action);
}

constexpr VigilPipelineCallees kScripted = {
   .warden = Warden,
   .dhcpParse = DhcpParse,
   .dhcpSnoopTx = DhcpSnoopTx,
   .dhcpSnoopRx = DhcpSnoopRx,
   .arpSnoop = ArpSnoop,
   .processTxIpv6 = ProcessTxIpv6,
   .processRxIpv6 = ProcessRxIpv6,
};

} // namespace

void Install() {
   Reset();
   vigilPipelineCallees = kScripted;
}

void Restore() { vigilPipelineCallees = vigilPipelineModuleCallees; }

} // namespace scripted

void ScriptedPipelineTest::SetUp() {
   VigilTest::SetUp();
   scripted::Install();
}

void ScriptedPipelineTest::TearDown() {
   scripted::Restore();
   VigilTest::TearDown();
}
