/*
 * The packet loop: locking per batch, parsing, the write-lock rerun, drops,
 * the Pathprobe step, mapped views of frame bytes and header copies.
 */
#include <cstring>

#include "scripted_callees.h"
#include "test_addresses.h"
#include "test_frames.h"
#include "vigil_test.h"

namespace {

using frames::Bytes;

constexpr u32 kPort = 0x10;
const char *const kPeerMac = "02:00:00:00:00:20";

using addrtext::IpBytes;
using addrtext::MacBytes;

/* Ethernet II bytes without the padding to 60 that the frame builders add. */
Bytes RawEther(const std::string &dstMac, u16 etherType, size_t payloadLen) {
   Bytes bytes = MacBytes(dstMac);
   std::vector<u8> src = MacBytes(frames::kVmMac);
   bytes.insert(bytes.end(), src.begin(), src.end());
   bytes.push_back(static_cast<u8>(etherType >> 8));
   bytes.push_back(static_cast<u8>(etherType));
   bytes.resize(bytes.size() + payloadLen, 0);
   return bytes;
}

u8 *MappedStart(zek_Pkt *pkt) {
   return static_cast<u8 *>(zek_PktFrameMappedPointerGet(pkt));
}

sim::FrameOptions Mapped(int32_t mapped) {
   sim::FrameOptions opts;
   opts.mapped = mapped;
   return opts;
}

sim::FrameOptions Traced(int32_t mapped = -1) {
   sim::FrameOptions opts;
   opts.mapped = mapped;
   opts.traceAttr = true;
   return opts;
}

/* "dhcpTx r1 w0": which snoop ran, under the read lock or not, and whether
 * the filter's write flag was up. */
std::vector<std::string> SnoopTrace() {
   std::vector<std::string> out;
   for (const scripted::SnoopCall &call : scripted::snoopCalls) {
      out.push_back(call.what + " r" + std::to_string(call.holdsReadLock) + " w" +
                    std::to_string(call.configWriteHeld));
   }
   return out;
}

std::vector<u32> WardenKinds() {
   std::vector<u32> kinds;
   for (const scripted::WardenCall &call : scripted::wardenCalls) {
      kinds.push_back(call.kind);
   }
   return kinds;
}

/* A BPDU is dropped by the BPDU filter with bit 0 set; a unicast UDP frame
 * passes.  Both meet the warden first when a warden bit is on. */
Bytes DroppedBpdu() { return frames::Bpdu(frames::kVmMac, "01:80:c2:00:00:00"); }
Bytes PassingUdp() {
   return frames::UdpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1", 5000,
                        5001);
}

/* A list the test keeps after the loop ran, to look at what is left in it.
 * Destroying it releases the frames left. */
class Batch {
public:
   explicit Batch(const std::vector<zek_Pkt *> &pkts) : list_(sim::MakeList()) {
      for (zek_Pkt *pkt : pkts) {
         sim::ListAppend(list_, pkt);
      }
   }
   ~Batch() { sim::DestroyList(list_); }
   Batch(const Batch &) = delete;
   Batch &operator=(const Batch &) = delete;

   zek_Status Tx(u32 portID) { return Vigil_ProcessPacketsToSwitch(portID, nullptr, list_); }
   zek_Status Rx(u32 portID) { return Vigil_ProcessPacketsFromSwitch(portID, nullptr, list_); }
   std::vector<zek_Pkt *> Frames() const { return sim::ListFrames(list_); }

private:
   zek_PktList *list_;
};

} // namespace

class PacketLoopTest : public ScriptedPipelineTest {
protected:
   void SetUp() override {
      ScriptedPipelineTest::SetUp();
      filter = AddFilter(kPort);
   }

   sim::LockCounts ConfigLockCounts() { return sim::GetLockCounts(filter->configLock); }

   VigilFilter *filter = nullptr;
};

/* ------------------------------------------------------ batch and locks */

TEST_F(PacketLoopTest, EmptyListTakesAndReleasesTheReadLockAndReturnsOk) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_NON_IP_BLOCK;
   zek_PktList *list = sim::MakeList();
   EXPECT_EQ(Vigil_ProcessPacketsToSwitch(kPort, nullptr, list), ZEK_OK);
   EXPECT_EQ(Vigil_ProcessPacketsFromSwitch(kPort, nullptr, list), ZEK_OK);
   sim::DestroyList(list);
   sim::LockCounts counts = ConfigLockCounts();
   EXPECT_EQ(counts.reads, 2u);
   EXPECT_EQ(counts.writes, 0u);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::None);
}

TEST_F(PacketLoopTest, EmptyListOnAPortWithoutFeaturesTakesTheReadLockOnce) {
   zek_PktList *list = sim::MakeList();
   EXPECT_EQ(VigilProcessPackets(kPort, list, true), ZEK_OK);
   sim::DestroyList(list);
   EXPECT_EQ(ConfigLockCounts().reads, 1u);
   EXPECT_EQ(ConfigLockCounts().writes, 0u);
}

TEST_F(PacketLoopTest, PortWithoutFeatureOrDiscoveryCostsOneReadLockAndTouchesNoFrame) {
   /* Everything that would drop is configured, only no bit is on. */
   filter->bpduBitmap = ~0ull;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   scripted::relockOn = "dhcpTx";
   sim::SetTracing(true);
   std::vector<zek_Pkt *> batch = {
      frames::Make(DroppedBpdu(), Traced()),
      frames::Make(frames::TcpV4(frames::kVmMac, kPeerMac, "192.0.2.99", "192.0.2.1")),
      frames::Make(frames::DhcpClient(frames::kVmMac, "02:00:00:00:00:99", "192.0.2.99", 3)),
      frames::Make(frames::Ether(frames::kVmMac, kPeerMac, 0x88b5)),
   };
   /* Any look at a frame would consume one of these faults. */
   sim::FaultCall("PktHeaderFind", VIGIL_STATUS_BAD_DATA);
   sim::FaultCall("PktFrameMappedPointerGet", VIGIL_STATUS_BAD_DATA);
   sim::FaultCall("PktAttrGet", VIGIL_STATUS_BAD_DATA);

   EXPECT_EQ(Tx(kPort, batch),
             (std::vector<std::string>{"forward", "forward", "forward", "forward"}));

   zek_Pkt *probe = frames::Make(PassingUdp(), Traced());
   zek_PktHeaderEntry *entry = nullptr;
   u64 attr = 0;
   EXPECT_EQ(zek_PktHeaderFind(probe, 0, 0x1000, 1, &entry, 0), VIGIL_STATUS_BAD_DATA);
   EXPECT_EQ(zek_PktFrameMappedPointerGet(probe), nullptr);
   EXPECT_EQ(oxa_PktAttrGet(probe, ppPktAttrHandle, &attr), VIGIL_STATUS_BAD_DATA);
   zek_PktRelease(probe);

   EXPECT_EQ(ConfigLockCounts().reads, 1u);
   EXPECT_EQ(ConfigLockCounts().writes, 0u);
   EXPECT_TRUE(scripted::wardenCalls.empty());
   EXPECT_TRUE(scripted::snoopCalls.empty());
   EXPECT_EQ(scripted::dhcpParseCalls, 0u);
   EXPECT_EQ(filter->stats.statBpduDrops, 0u);
   EXPECT_TRUE(LogTexts().empty());
}

/* -------------------------------------------- IPv4 without a layer 3 header */

namespace {

/* IPv4 EtherType frames whose IPv4 header the host can't find. */
std::vector<std::pair<std::string, Bytes>> UnreadableIpv4Frames() {
   Bytes badVersion = PassingUdp();
   badVersion[14] = 0x65;
   Bytes shortIhl = PassingUdp();
   shortIhl[14] = 0x44;
   Bytes truncated = RawEther(kPeerMac, 0x0800, 10);
   truncated[14] = 0x45;
   return {{"bad version", badVersion}, {"header length 16", shortIhl},
           {"10 bytes of IPv4", truncated}};
}

} // namespace

TEST_F(PacketLoopTest, Ipv4FrameWithoutAReadableIpv4HeaderIsNonIpForTheNonIpBlock) {
   filter->featuresEnabled = VIGIL_FEAT_NON_IP_BLOCK;
   u64 expectedDrops = 0;
   for (const auto &[what, bytes] : UnreadableIpv4Frames()) {
      SCOPED_TRACE(what);
      EXPECT_EQ(Tx(kPort, {frames::Make(bytes)}), std::vector<std::string>{"drop"});
      EXPECT_EQ(filter->stats.statNonIpDrops, ++expectedDrops);
   }
   /* The same frame with its IPv4 header intact is IP and passes. */
   EXPECT_EQ(Tx(kPort, {frames::Make(PassingUdp())}), std::vector<std::string>{"forward"});
   EXPECT_EQ(filter->stats.statNonIpDrops, expectedDrops);
}

TEST_F(PacketLoopTest, Ipv4FrameWithoutAReadableIpv4HeaderGoesToTheWardenAsLayer2) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN;
   for (const auto &[what, bytes] : UnreadableIpv4Frames()) {
      SCOPED_TRACE(what);
      scripted::wardenCalls.clear();
      EXPECT_EQ(Tx(kPort, {frames::Make(bytes)}), std::vector<std::string>{"forward"});
      ASSERT_EQ(scripted::wardenCalls.size(), 1u);
      EXPECT_EQ(scripted::wardenCalls[0].kind, VIGIL_WDN_L2);
      EXPECT_TRUE(scripted::wardenCalls[0].addr.empty());
      EXPECT_EQ(scripted::wardenCalls[0].mac, MacBytes(frames::kVmMac));
   }
   scripted::wardenCalls.clear();
   Tx(kPort, {frames::Make(PassingUdp())});
   EXPECT_EQ(WardenKinds(), std::vector<u32>{VIGIL_WDN_IPV4});
}

/* ------------------------------------------------------ write-lock rerun */

TEST_F(PacketLoopTest, FirstFrameAskingForTheWriteLockRunsAgainAndTheBatchKeepsIt) {
   filter->discoveryFlags |= VIGIL_DISC_DHCP;
   scripted::relockOn = "dhcpTx";
   std::vector<zek_Pkt *> batch;
   for (int i = 0; i < 3; i++) {
      batch.push_back(frames::Make(frames::DhcpClient(frames::kVmMac, frames::kVmMac,
                                                      "0.0.0.0", 1)));
   }
   EXPECT_EQ(Tx(kPort, batch),
             (std::vector<std::string>{"forward", "forward", "forward"}));
   EXPECT_EQ(SnoopTrace(), (std::vector<std::string>{"dhcpTx r1 w0", "dhcpTx r0 w1",
                                                     "dhcpTx r0 w1", "dhcpTx r0 w1"}));
   EXPECT_EQ(ConfigLockCounts().reads, 1u);
   EXPECT_EQ(ConfigLockCounts().writes, 1u);
   EXPECT_EQ(filter->configWriteHeld, 0);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::None);
}

TEST_F(PacketLoopTest, LaterFrameAskingForTheWriteLockRunsAgainAndEarlierFramesKeepTheirVerdict) {
   filter->discoveryFlags |= VIGIL_DISC_DHCP;
   filter->featuresEnabled = VIGIL_FEAT_BPDU_FILTER;
   filter->bpduBitmap = 1;
   scripted::relockOn = "dhcpTx";
   std::vector<zek_Pkt *> batch = {
      frames::Make(DroppedBpdu()),
      frames::Make(PassingUdp()),
      frames::Make(frames::DhcpClient(frames::kVmMac, frames::kVmMac, "0.0.0.0", 1)),
      frames::Make(DroppedBpdu()),
      frames::Make(frames::DhcpClient(frames::kVmMac, frames::kVmMac, "0.0.0.0", 3)),
   };
   EXPECT_EQ(Tx(kPort, batch), (std::vector<std::string>{"drop", "forward", "forward",
                                                         "drop", "forward"}));
   EXPECT_EQ(SnoopTrace(), (std::vector<std::string>{"dhcpTx r1 w0", "dhcpTx r0 w1",
                                                     "dhcpTx r0 w1"}));
   EXPECT_EQ(filter->stats.statBpduDrops, 2u);
   EXPECT_EQ(ConfigLockCounts().reads, 1u);
   EXPECT_EQ(ConfigLockCounts().writes, 1u);
}

TEST_F(PacketLoopTest, ReceivedFrameAskingForTheWriteLockRunsAgainUnderIt) {
   filter->discoveryFlags |= VIGIL_DISC_DHCP;
   scripted::relockOn = "dhcpRx";
   std::vector<zek_Pkt *> batch = {
      frames::Make(frames::DhcpServer(frames::kServerMac, frames::kVmMac, 2)),
      frames::Make(frames::DhcpServer(frames::kServerMac, frames::kVmMac, 5)),
   };
   EXPECT_EQ(Rx(kPort, batch), (std::vector<std::string>{"forward", "forward"}));
   EXPECT_EQ(SnoopTrace(), (std::vector<std::string>{"dhcpRx r1 w0", "dhcpRx r0 w1",
                                                     "dhcpRx r0 w1"}));
   EXPECT_EQ(ConfigLockCounts().reads, 1u);
   EXPECT_EQ(ConfigLockCounts().writes, 1u);
}

TEST_F(PacketLoopTest, RelockAnswerUnderTheWriteLockIsForwardedAndNothingLoops) {
   filter->discoveryFlags |= VIGIL_DISC_DHCP;
   /* Every snoop answers RELOCK, under the read lock and the write lock. */
   scripted::snoopAction = VIGIL_ACTION_RELOCK;
   std::vector<zek_Pkt *> batch = {
      frames::Make(frames::DhcpClient(frames::kVmMac, frames::kVmMac, "0.0.0.0", 1)),
      frames::Make(frames::DhcpClient(frames::kVmMac, frames::kVmMac, "0.0.0.0", 3)),
   };
   EXPECT_EQ(Tx(kPort, batch), (std::vector<std::string>{"forward", "forward"}));
   EXPECT_EQ(SnoopTrace(), (std::vector<std::string>{"dhcpTx r1 w0", "dhcpTx r0 w1",
                                                     "dhcpTx r0 w1"}));
   EXPECT_EQ(ConfigLockCounts().reads, 1u);
   EXPECT_EQ(ConfigLockCounts().writes, 1u);
}

TEST_F(PacketLoopTest, FrameRunAgainTakesTheActionOfItsSecondRunOnly) {
   filter->discoveryFlags |= VIGIL_DISC_DHCP;
   scripted::relockOn = "dhcpTx";
   scripted::snoopAction = VIGIL_ACTION_DROP;
   std::vector<zek_Pkt *> batch = {
      frames::Make(frames::DhcpClient(frames::kVmMac, frames::kVmMac, "0.0.0.0", 1)),
      frames::Make(PassingUdp()),
   };
   EXPECT_EQ(Tx(kPort, batch), (std::vector<std::string>{"drop", "forward"}));
   EXPECT_EQ(SnoopTrace(), (std::vector<std::string>{"dhcpTx r1 w0", "dhcpTx r0 w1"}));
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST_F(PacketLoopTest, FrameRunAgainIsForwardedWhenItsSecondRunForwards) {
   filter->discoveryFlags |= VIGIL_DISC_DHCP;
   scripted::relockOn = "dhcpTx";
   scripted::snoopAction = VIGIL_ACTION_FORWARD;
   EXPECT_EQ(Tx(kPort, {frames::Make(frames::DhcpClient(frames::kVmMac, frames::kVmMac,
                                                        "0.0.0.0", 1))}),
             std::vector<std::string>{"forward"});
   EXPECT_EQ(scripted::snoopCalls.size(), 2u);
}

TEST_F(PacketLoopTest, RelockAnswerWithAFailureStatusCountsAsForwardAndTakesNoWriteLock) {
   filter->discoveryFlags |= VIGIL_DISC_DHCP;
   scripted::snoopAction = VIGIL_ACTION_RELOCK;
   scripted::snoopStatus = VIGIL_STATUS_FAILURE;
   std::vector<zek_Pkt *> batch = {
      frames::Make(frames::DhcpClient(frames::kVmMac, frames::kVmMac, "0.0.0.0", 1)),
      frames::Make(frames::DhcpClient(frames::kVmMac, frames::kVmMac, "0.0.0.0", 3)),
   };
   EXPECT_EQ(Tx(kPort, batch), (std::vector<std::string>{"forward", "forward"}));
   EXPECT_EQ(SnoopTrace(), (std::vector<std::string>{"dhcpTx r1 w0", "dhcpTx r1 w0"}));
   EXPECT_EQ(ConfigLockCounts().reads, 1u);
   EXPECT_EQ(ConfigLockCounts().writes, 0u);
}

/* ------------------------------------------------------------------ drops */

class PacketLoopDropTest : public PacketLoopTest {
protected:
   void SetUp() override {
      PacketLoopTest::SetUp();
      /* The warden sees every frame (and forwards it), so its calls tell
       * which frames the loop visited. */
      filter->featuresEnabled = VIGIL_FEAT_BPDU_FILTER | VIGIL_FEAT_PORT_WARDEN;
      filter->bpduBitmap = 1;
   }

   /* 'D' a dropped BPDU, 'F' a passing UDP frame. */
   std::vector<std::string> Run(const std::string &pattern) {
      std::vector<zek_Pkt *> batch;
      for (char c : pattern) {
         batch.push_back(frames::Make(c == 'D' ? DroppedBpdu() : PassingUdp()));
      }
      return Tx(kPort, batch);
   }

   static std::vector<u32> KindsOf(const std::string &pattern) {
      std::vector<u32> kinds;
      for (char c : pattern) {
         kinds.push_back(c == 'D' ? VIGIL_WDN_L2 : VIGIL_WDN_IPV4);
      }
      return kinds;
   }
};

TEST_F(PacketLoopDropTest, DroppedFirstFrameIsReleasedAndTheNextIsNotSkipped) {
   EXPECT_EQ(Run("DFF"), (std::vector<std::string>{"drop", "forward", "forward"}));
   EXPECT_EQ(WardenKinds(), KindsOf("DFF"));
   EXPECT_EQ(filter->stats.statBpduDrops, 1u);
   EXPECT_EQ(lastSurvivors.size(), 2u);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST_F(PacketLoopDropTest, DroppedMiddleFrameIsReleasedAndTheNextIsNotSkipped) {
   EXPECT_EQ(Run("FDF"), (std::vector<std::string>{"forward", "drop", "forward"}));
   EXPECT_EQ(WardenKinds(), KindsOf("FDF"));
   EXPECT_EQ(filter->stats.statBpduDrops, 1u);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST_F(PacketLoopDropTest, DropOfTheLastFrameEndsTheBatch) {
   EXPECT_EQ(Run("FFD"), (std::vector<std::string>{"forward", "forward", "drop"}));
   EXPECT_EQ(WardenKinds(), KindsOf("FFD"));
   EXPECT_EQ(filter->stats.statBpduDrops, 1u);
   EXPECT_EQ(ConfigLockCounts().reads, 1u);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST_F(PacketLoopDropTest, ConsecutiveDropsAreAllVisited) {
   EXPECT_EQ(Run("DDFDD"),
             (std::vector<std::string>{"drop", "drop", "forward", "drop", "drop"}));
   EXPECT_EQ(WardenKinds(), KindsOf("DDFDD"));
   EXPECT_EQ(filter->stats.statBpduDrops, 4u);
   EXPECT_EQ(lastSurvivors.size(), 1u);
}

TEST_F(PacketLoopDropTest, BatchWhoseEveryFrameIsDroppedEndsEmpty) {
   EXPECT_EQ(Run("DDD"), (std::vector<std::string>{"drop", "drop", "drop"}));
   EXPECT_TRUE(lastSurvivors.empty());
   EXPECT_EQ(filter->stats.statBpduDrops, 3u);
   EXPECT_EQ(Run("D"), std::vector<std::string>{"drop"});
   EXPECT_EQ(filter->stats.statBpduDrops, 4u);
}

TEST_F(PacketLoopDropTest, DropTheListRefusesToTakeOutLeavesTheFrameAndGoesOn) {
   sim::FaultCall("PktListIterRemovePkt", VIGIL_STATUS_FAILURE);
   EXPECT_EQ(Run("DDF"), (std::vector<std::string>{"forward", "drop", "forward"}));
   EXPECT_EQ(WardenKinds(), KindsOf("DDF"));
   EXPECT_EQ(filter->stats.statBpduDrops, 2u);
}

/* ----------------------------------------------------------------- tracing */

class PathprobeTest : public PacketLoopTest {
protected:
   void SetUp() override {
      PacketLoopTest::SetUp();
      /* The warden's ppMetadata argument shows what the step found. */
      filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   }

   const u8 *OnlyWardenMetadata() {
      EXPECT_EQ(scripted::wardenCalls.size(), 1u);
      return scripted::wardenCalls.empty() ? nullptr : scripted::wardenCalls[0].ppMetadata;
   }

   static std::string NoMetadataLog(const char *why) {
      return std::string("Unable to extract Pathprobe metadata from packet: ") + why;
   }
};

TEST_F(PathprobeTest, WhileTracingIsOffNoAttributeIsLookedUp) {
   sim::FaultCall("PktAttrGet", VIGIL_STATUS_BAD_DATA, 1, 0);
   EXPECT_EQ(Tx(kPort, {frames::Make(PassingUdp(), Traced())}),
             std::vector<std::string>{"forward"});
   EXPECT_EQ(OnlyWardenMetadata(), nullptr);

   /* The fault is still waiting for its first call. */
   zek_Pkt *probe = frames::Make(PassingUdp(), Traced());
   u64 value = 0;
   EXPECT_EQ(oxa_PktAttrGet(probe, ppPktAttrHandle, &value), VIGIL_STATUS_BAD_DATA);
   EXPECT_EQ(oxa_PktAttrGet(probe, ppPktAttrHandle, &value), ZEK_OK);
   zek_PktRelease(probe);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(PathprobeTest, WhileTracingIsOnTheAttributeIsLookedUpAndAFailedLookUpMeansUntraced) {
   sim::SetTracing(true);
   sim::FaultCall("PktAttrGet", VIGIL_STATUS_BAD_DATA, 1, 0);
   EXPECT_EQ(Tx(kPort, {frames::Make(PassingUdp(), Traced())}),
             std::vector<std::string>{"forward"});
   EXPECT_EQ(OnlyWardenMetadata(), nullptr);

   zek_Pkt *probe = frames::Make(PassingUdp(), Traced());
   u64 value = 0;
   EXPECT_EQ(oxa_PktAttrGet(probe, ppPktAttrHandle, &value), ZEK_OK);
   zek_PktRelease(probe);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(PathprobeTest, TracingEndsWhenItsEndTimeIsReached) {
   sim::SetTracing(true); /* for one hour */
   sim::Advance(3599.999);
   Tx(kPort, {frames::Make(PassingUdp(), Traced())});
   EXPECT_NE(OnlyWardenMetadata(), nullptr);

   scripted::wardenCalls.clear();
   sim::Advance(0.001);
   Tx(kPort, {frames::Make(PassingUdp(), Traced())});
   EXPECT_EQ(OnlyWardenMetadata(), nullptr);
}

TEST_F(PathprobeTest, TracedIpv4FrameGetsTheSixteenBytesBeforeTheEndOfItsIpPacket) {
   sim::SetTracing(true);
   Bytes bytes = frames::UdpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1",
                               5000, 5001, 32);
   const u32 totalLength = VigilGetBe16(&bytes[16]);
   ASSERT_EQ(totalLength, 60u);
   bytes.insert(bytes.end(), 10, 0xee); /* trailer behind the IPv4 packet */
   zek_Pkt *pkt = frames::Make(bytes, Traced());
   Batch batch({pkt});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);

   ASSERT_EQ(batch.Frames(), std::vector<zek_Pkt *>{pkt});
   const u8 *meta = OnlyWardenMetadata();
   EXPECT_EQ(meta, MappedStart(pkt) + 14 + totalLength - 16);
   EXPECT_NE(meta, MappedStart(pkt) + bytes.size() - 16);
   ASSERT_NE(meta, nullptr);
   EXPECT_EQ(0, std::memcmp(meta, &bytes[14 + totalLength - 16], 16));
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(PathprobeTest, TracedIpv6FrameGetsTheSixteenBytesBeforeTheEndOfItsIpv6Packet) {
   sim::SetTracing(true);
   Bytes bytes = frames::UdpV6(frames::kVmMac, kPeerMac, "2001:db8::10", "2001:db8::1",
                               5000, 5001);
   const u32 payloadLength = VigilGetBe16(&bytes[18]);
   ASSERT_EQ(payloadLength, 24u);
   bytes.insert(bytes.end(), 8, 0xee);
   /* An IPv6 header the host can't read makes the frame go to the warden as
    * non-IP, where its metadata pointer can be seen. */
   bytes[14] = 0x40;
   zek_Pkt *pkt = frames::Make(bytes, Traced());
   Batch batch({pkt});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);

   ASSERT_EQ(WardenKinds(), std::vector<u32>{VIGIL_WDN_L2});
   const u8 *meta = OnlyWardenMetadata();
   EXPECT_EQ(meta, MappedStart(pkt) + 14 + payloadLength + 24);
   EXPECT_NE(meta, MappedStart(pkt) + bytes.size() - 16);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(PathprobeTest, TracedArpFrameGetsTheLastSixteenMappedBytes) {
   sim::SetTracing(true);
   Bytes bytes = frames::Arp(frames::kVmMac, frames::kVmMac, "192.0.2.10", "192.0.2.1");
   bytes.resize(60, 0xee);
   zek_Pkt *pkt = frames::Make(bytes, Traced());
   Batch batch({pkt});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);

   ASSERT_EQ(WardenKinds(), std::vector<u32>{VIGIL_WDN_ARP});
   EXPECT_EQ(OnlyWardenMetadata(), MappedStart(pkt) + 60 - 16);
}

TEST_F(PathprobeTest, TracedFrameNotWhollyMappedIsReplacedByAMappedCopy) {
   sim::SetTracing(true);
   Bytes bytes = frames::TcpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1");
   const u32 totalLength = VigilGetBe16(&bytes[16]);
   zek_Pkt *original = frames::Make(bytes, Traced(20));
   Batch batch({original, frames::Make(PassingUdp())});
   ASSERT_EQ(sim::FramesLive(), 2u);
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);

   std::vector<zek_Pkt *> left = batch.Frames();
   ASSERT_EQ(left.size(), 2u);
   zek_Pkt *copy = left[0];
   EXPECT_NE(copy, original);
   EXPECT_EQ(sim::FramesLive(), 2u);
   EXPECT_EQ(sim::FrameBytes(copy), bytes);
   EXPECT_EQ(zek_PktFrameMappedLenGet(copy), bytes.size());
   ASSERT_EQ(scripted::wardenCalls.size(), 2u);
   EXPECT_EQ(scripted::wardenCalls[0].ppMetadata, MappedStart(copy) + 14 + totalLength - 16);
   EXPECT_EQ(scripted::wardenCalls[0].addr, IpBytes("192.0.2.10"));
   EXPECT_EQ(scripted::wardenCalls[1].ppMetadata, nullptr);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(PathprobeTest, TracedCopyStaysInTheListWhenDroppedAndIsWhatIsReleased) {
   sim::SetTracing(true);
   scripted::wardenResult = VIGIL_ACTION_DROP;
   zek_Pkt *original = frames::Make(
      frames::TcpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1"), Traced(20));
   Batch batch({original});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);
   /* The original went when it was replaced and the copy when it was
    * dropped; a release of the wrong one fails the test as a double release. */
   EXPECT_TRUE(batch.Frames().empty());
   EXPECT_EQ(sim::FramesLive(), 0u);
   EXPECT_NE(OnlyWardenMetadata(), nullptr);
   EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);
}

namespace {

/* An IPv4 EtherType frame of `len` bytes: too short for an IPv4 header, so
 * it reaches the warden as non-IP.  Its "total length" field says `ipLen`. */
Bytes ShortIpv4Frame(size_t len, u16 ipLen) {
   Bytes bytes = RawEther(kPeerMac, 0x0800, len - 14);
   bytes[14] = 0x45;
   bytes[16] = static_cast<u8>(ipLen >> 8);
   bytes[17] = static_cast<u8>(ipLen);
   return bytes;
}

} // namespace

TEST_F(PathprobeTest, TracedFrameOfTwentyNineBytesGoesOnWithoutMetadataAndItsCopyIsReleased) {
   sim::SetTracing(true);
   zek_Pkt *original = frames::Make(ShortIpv4Frame(29, 15), Traced(20));
   Batch batch({original});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);

   EXPECT_EQ(batch.Frames(), std::vector<zek_Pkt *>{original});
   EXPECT_EQ(sim::FramesLive(), 1u);
   EXPECT_EQ(OnlyWardenMetadata(), nullptr);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{NoMetadataLog("Invalid data")});
}

TEST_F(PathprobeTest, TracedWhollyMappedFrameOfTwentyNineBytesGoesOnWithoutMetadata) {
   sim::SetTracing(true);
   zek_Pkt *pkt = frames::Make(ShortIpv4Frame(29, 15), Traced());
   Batch batch({pkt});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);
   EXPECT_EQ(batch.Frames(), std::vector<zek_Pkt *>{pkt});
   EXPECT_EQ(OnlyWardenMetadata(), nullptr);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{NoMetadataLog("Invalid data")});
}

TEST_F(PathprobeTest, TracedFrameOfThirtyBytesGetsMetadata) {
   sim::SetTracing(true);
   zek_Pkt *original = frames::Make(ShortIpv4Frame(30, 16), Traced(20));
   Batch batch({original});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);

   std::vector<zek_Pkt *> left = batch.Frames();
   ASSERT_EQ(left.size(), 1u);
   EXPECT_NE(left[0], original);
   EXPECT_EQ(sim::FramesLive(), 1u);
   EXPECT_EQ(OnlyWardenMetadata(), MappedStart(left[0]) + 14);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(PathprobeTest, TracedFrameWhoseLengthFieldPointsPastItsEndGoesOnWithoutMetadata) {
   sim::SetTracing(true);
   Bytes bytes = frames::TcpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1");
   const u16 tooLong = static_cast<u16>(bytes.size() - 14 + 1);
   bytes[16] = static_cast<u8>(tooLong >> 8);
   bytes[17] = static_cast<u8>(tooLong);
   zek_Pkt *original = frames::Make(bytes, Traced(20));
   Batch batch({original});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);

   EXPECT_EQ(batch.Frames(), std::vector<zek_Pkt *>{original});
   EXPECT_EQ(sim::FramesLive(), 1u);
   EXPECT_EQ(OnlyWardenMetadata(), nullptr);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{NoMetadataLog("Invalid data")});
}

TEST_F(PathprobeTest, TracedFrameOfAnotherEtherTypeLogsNotSupported) {
   sim::SetTracing(true);
   zek_Pkt *pkt = frames::Make(frames::Ether(frames::kVmMac, kPeerMac, 0x88b5), Traced(20));
   Batch batch({pkt});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);

   EXPECT_EQ(batch.Frames(), std::vector<zek_Pkt *>{pkt});
   EXPECT_EQ(OnlyWardenMetadata(), nullptr);
   std::vector<sim::LogLine> lines = sim::TakeLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].text, NoMetadataLog("Not supported"));
   /* A frame causes it: the throttled log takes it. */
   EXPECT_EQ(lines[0].log, "vigil.throttle");
   EXPECT_EQ(lines[0].level, 2);
}

TEST_F(PathprobeTest, FailedFrameCopyLogsInvalidDataAndTheFrameGoesOn) {
   sim::SetTracing(true);
   sim::FaultCall("PktCopy", VIGIL_STATUS_BAD_DATA);
   zek_Pkt *original = frames::Make(
      frames::TcpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1"), Traced(20));
   Batch batch({original});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);

   EXPECT_EQ(batch.Frames(), std::vector<zek_Pkt *>{original});
   EXPECT_EQ(sim::FramesLive(), 1u);
   EXPECT_EQ(OnlyWardenMetadata(), nullptr);
   EXPECT_EQ(scripted::wardenCalls[0].addr, IpBytes("192.0.2.10"));
   EXPECT_EQ(LogTexts(), std::vector<std::string>{NoMetadataLog("Invalid data")});
}

TEST_F(PathprobeTest, FailedReplaceReleasesTheCopyAndTheOriginalGoesOn) {
   sim::SetTracing(true);
   sim::FaultCall("PktListIterReplace", VIGIL_STATUS_BAD_DATA);
   zek_Pkt *original = frames::Make(
      frames::TcpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1"), Traced(20));
   Batch batch({original});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);

   EXPECT_EQ(batch.Frames(), std::vector<zek_Pkt *>{original});
   EXPECT_EQ(sim::FramesLive(), 1u);
   EXPECT_EQ(OnlyWardenMetadata(), nullptr);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{NoMetadataLog("Invalid data")});
}

TEST_F(PathprobeTest, UntracedFrameWhileTracingLogsNothing) {
   sim::SetTracing(true);
   zek_Pkt *pkt = frames::Make(PassingUdp(), Mapped(20));
   Batch batch({pkt});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);
   EXPECT_EQ(batch.Frames(), std::vector<zek_Pkt *>{pkt});
   EXPECT_EQ(OnlyWardenMetadata(), nullptr);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(PathprobeTest, MetadataOfOneFrameIsNotHandedToTheNext) {
   sim::SetTracing(true);
   Batch batch({frames::Make(PassingUdp(), Traced()), frames::Make(PassingUdp())});
   ASSERT_EQ(batch.Tx(kPort), ZEK_OK);
   ASSERT_EQ(scripted::wardenCalls.size(), 2u);
   EXPECT_NE(scripted::wardenCalls[0].ppMetadata, nullptr);
   EXPECT_EQ(scripted::wardenCalls[1].ppMetadata, nullptr);
}

/* ------------------------------------------------------ VigilGetMappedPtr */

class MappedPtrTest : public PacketLoopTest {
protected:
   /* 100 bytes: 20 mapped, elements [0,40) [40,70) [70,100). */
   void SetUp() override {
      PacketLoopTest::SetUp();
      bytes = frames::Ether(frames::kVmMac, kPeerMac, 0x88b5, 86);
      ASSERT_EQ(bytes.size(), 100u);
      sim::FrameOptions opts;
      opts.mapped = 20;
      opts.sg = {40, 30};
      pkt = frames::Make(bytes, opts);
      std::memset(&ctx, 0, sizeof ctx);
      ctx.frameMapped = MappedStart(pkt);
      ctx.frameLen = zek_PktFrameLenGet(pkt);
      ctx.mappedLen = zek_PktFrameMappedLenGet(pkt);
      heapBefore = sim::GetHeapStats(heapID);
   }

   void TearDown() override {
      if (ctx.flatCopy != nullptr) {
         Vigil_HeapFree(ctx.flatCopy);
         ctx.flatCopy = nullptr;
      }
      zek_PktRelease(pkt);
      PacketLoopTest::TearDown();
   }

   /* Where element `index` lives, straight from the host. */
   u8 *ElementStart(u32 index) {
      const zek_SgElem *elem = zek_PktSgElemGet(pkt, index);
      void *va = nullptr;
      EXPECT_EQ(zek_MA2VA(elem->addr, elem->length, &va), ZEK_OK);
      return static_cast<u8 *>(va);
   }

   bool SameBytes(const u8 *got, u32 offset, u32 length) {
      return got != nullptr && std::memcmp(got, &bytes[offset], length) == 0;
   }

   Bytes bytes;
   zek_Pkt *pkt = nullptr;
   VigilPacketContext ctx;
   sim::HeapStats heapBefore;
};

TEST_F(MappedPtrTest, RangeBeyondTheFrameGivesNullLogsThrottledAndLeavesTheOffset) {
   u32 offset = 90;
   EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 11, &ctx), nullptr);
   EXPECT_EQ(offset, 90u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].text, "Header offset (90 + 11) exceeds framelen: 100");
   /* The frame's own bytes cause it: the throttled log takes it. */
   EXPECT_EQ(lines[0].log, "vigil.throttle");
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(ctx.flatCopy, nullptr);

   offset = 90;
   EXPECT_NE(VigilGetMappedPtr(pkt, &offset, 10, &ctx), nullptr);
   EXPECT_EQ(offset, 100u);
}

TEST_F(MappedPtrTest, OffsetNearTheTopOfItsRangeDoesNotWrapPastTheCheck) {
   u32 offset = 0xfffffff0u;
   EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 0x20, &ctx), nullptr);
   EXPECT_EQ(offset, 0xfffffff0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Header offset (4294967280 + 32) exceeds framelen: 100"});
}

TEST_F(MappedPtrTest, RangeInTheMappedPartPointsIntoItAndAdvances) {
   u32 offset = 6;
   EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 14, &ctx), ctx.frameMapped + 6);
   EXPECT_EQ(offset, 20u);
   EXPECT_EQ(ctx.flatCopy, nullptr);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(MappedPtrTest, RangeBeyondTheMappedPartInOneElementPointsIntoThatElement) {
   u32 offset = 45;
   u8 *got = VigilGetMappedPtr(pkt, &offset, 20, &ctx);
   EXPECT_EQ(got, ElementStart(1) + 5);
   EXPECT_TRUE(SameBytes(got, 45, 20));
   EXPECT_EQ(offset, 65u);

   offset = 20;
   got = VigilGetMappedPtr(pkt, &offset, 20, &ctx);
   EXPECT_EQ(got, ElementStart(0) + 20);
   EXPECT_TRUE(SameBytes(got, 20, 20));
   EXPECT_EQ(offset, 40u);
   EXPECT_EQ(ctx.flatCopy, nullptr);
   EXPECT_EQ(sim::GetHeapStats(heapID).totalAllocs, heapBefore.totalAllocs);
}

TEST_F(MappedPtrTest, RangeAcrossElementsMakesAFlatCopyThatLaterCallsUse) {
   u32 offset = 30;
   u8 *got = VigilGetMappedPtr(pkt, &offset, 20, &ctx);
   ASSERT_NE(ctx.flatCopy, nullptr);
   EXPECT_EQ(got, ctx.flatCopy + 30);
   EXPECT_TRUE(SameBytes(got, 30, 20));
   EXPECT_EQ(offset, 50u);
   EXPECT_EQ(0, std::memcmp(ctx.flatCopy, bytes.data(), bytes.size()));
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, heapBefore.allocations + 1);

   /* Later views come from the copy, even of mapped bytes. */
   offset = 0;
   EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 4, &ctx), ctx.flatCopy);
   EXPECT_EQ(offset, 4u);
   offset = 45;
   EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 10, &ctx), ctx.flatCopy + 45);
   EXPECT_EQ(sim::GetHeapStats(heapID).totalAllocs, heapBefore.totalAllocs + 1);
}

TEST_F(MappedPtrTest, FailedFlatCopyAllocationLogsAndGivesNull) {
   sim::FaultAlloc(1);
   u32 offset = 30;
   EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 20, &ctx), nullptr);
   EXPECT_EQ(ctx.flatCopy, nullptr);
   EXPECT_EQ(offset, 30u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].log, "vigil.throttle") << "a frame causes it";
   EXPECT_EQ(lines[0].text, "Failed to alloc pktCopy: 100");
}

TEST_F(MappedPtrTest, FailedCopyOfTheFrameLogsFreesTheCopyAndGivesNull) {
   sim::FaultCall("PktCopyBytesOut", VIGIL_STATUS_BAD_DATA);
   u32 offset = 30;
   EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 20, &ctx), nullptr);
   EXPECT_EQ(ctx.flatCopy, nullptr);
   EXPECT_EQ(offset, 30u);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, heapBefore.allocations);
   EXPECT_EQ(sim::GetHeapStats(heapID).totalAllocs, heapBefore.totalAllocs + 1);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].log, "vigil.throttle") << "a frame causes it";
   EXPECT_EQ(lines[0].text, "Failed to copy pkt: Invalid data(100)");
}

/* ------------------------------------------------------ OXA_PktFindSGEntry */

TEST_F(MappedPtrTest, FindSGEntryPointsIntoTheFirstElement) {
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 5, 15), ElementStart(0) + 5);
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 0, 40), ElementStart(0));
}

TEST_F(MappedPtrTest, FindSGEntryPointsIntoAMiddleElement) {
   u8 *got = OXA_PktFindSGEntry(pkt, 42, 70);
   EXPECT_EQ(got, ElementStart(1) + 2);
   EXPECT_TRUE(SameBytes(got, 42, 28));
   /* Byte 40 is the first of the second element, not past the first. */
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 40, 41), ElementStart(1));
}

TEST_F(MappedPtrTest, FindSGEntryPointsIntoTheLastElement) {
   u8 *got = OXA_PktFindSGEntry(pkt, 80, 100);
   EXPECT_EQ(got, ElementStart(2) + 10);
   EXPECT_TRUE(SameBytes(got, 80, 20));
}

TEST_F(MappedPtrTest, FindSGEntryOfARangeAcrossElementsGivesNull) {
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 35, 45), nullptr);
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 39, 71), nullptr);
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 69, 71), nullptr);
}

TEST_F(MappedPtrTest, FindSGEntryPastTheEndGivesNull) {
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 100, 101), nullptr);
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 150, 160), nullptr);
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 90, 101), nullptr);
}

TEST_F(MappedPtrTest, FindSGEntryGivesNullWhenTheElementCannotBeMapped) {
   sim::FaultCall("MA2VA", VIGIL_STATUS_BAD_DATA);
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 42, 50), nullptr);
   EXPECT_NE(OXA_PktFindSGEntry(pkt, 42, 50), nullptr);
}

TEST_F(MappedPtrTest, FindSGEntryGivesNullWithoutElements) {
   sim::FaultCall("PktSgArrayGet", VIGIL_STATUS_BAD_DATA);
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 5, 10), nullptr);
   sim::FaultCall("PktSgElemGet", VIGIL_STATUS_BAD_DATA);
   EXPECT_EQ(OXA_PktFindSGEntry(pkt, 5, 10), nullptr);
}

/* ------------------------------------------------------------ header copies */

TEST_F(PacketLoopTest, FrameMappedTwentyBytesStillHasItsUdpPortChecked) {
   filter->featuresEnabled = VIGIL_FEAT_DHCP_CLIENT_BLOCK;
   EXPECT_EQ(Tx(kPort, {frames::Make(frames::DhcpClient(frames::kVmMac, frames::kVmMac,
                                                        "0.0.0.0", 1),
                                     Mapped(20))}),
             std::vector<std::string>{"drop"});
   EXPECT_EQ(filter->stats.statDhcpClientBlockDrops, 1u);

   filter->featuresEnabled = VIGIL_FEAT_DHCP_SERVER_BLOCK;
   EXPECT_EQ(Tx(kPort, {frames::Make(frames::DhcpServer(frames::kVmMac, kPeerMac, 2),
                                     Mapped(20))}),
             std::vector<std::string>{"drop"});
   EXPECT_EQ(filter->stats.statDhcpServerBlockDrops, 1u);

   /* Another port number over the same short mapping is not a DHCP frame. */
   EXPECT_EQ(Tx(kPort, {frames::Make(PassingUdp(), Mapped(20))}),
             std::vector<std::string>{"forward"});
}

TEST_F(PacketLoopTest, FrameMappedTenBytesGivesTheWardenItsCopiedAddresses) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN;
   sim::FrameOptions opts = Mapped(10);
   opts.vlan = 7;
   EXPECT_EQ(Tx(kPort, {frames::Make(frames::TcpV4(frames::kVmMac, kPeerMac,
                                                   "198.51.100.7", "192.0.2.1"),
                                     opts)}),
             std::vector<std::string>{"forward"});
   ASSERT_EQ(scripted::wardenCalls.size(), 1u);
   EXPECT_EQ(scripted::wardenCalls[0].kind, VIGIL_WDN_IPV4);
   EXPECT_EQ(scripted::wardenCalls[0].vlan, 7);
   EXPECT_EQ(scripted::wardenCalls[0].mac, MacBytes(frames::kVmMac));
   EXPECT_EQ(scripted::wardenCalls[0].addr, IpBytes("198.51.100.7"));
}

TEST_F(PacketLoopTest, FailedHeaderCopyLeavesTheFrameWithTheBitsFoundSoFar) {
   /* Mapped 20: the IPv4 header must be copied; when that fails the frame
    * is Ethernet only and meets the non-IP block. */
   filter->featuresEnabled = VIGIL_FEAT_NON_IP_BLOCK;
   sim::FaultCall("PktCopyBytesOut", VIGIL_STATUS_BAD_DATA);
   EXPECT_EQ(Tx(kPort, {frames::Make(PassingUdp(), Mapped(20))}),
             std::vector<std::string>{"drop"});
   EXPECT_EQ(filter->stats.statNonIpDrops, 1u);
}

/* --------------------------------------------------------------- flat copy */

namespace {

/* A DHCP client frame whose fixed DHCP header (bytes 42..282) crosses from
 * one element into the next and lies beyond the mapped part. */
zek_Pkt *SplitDhcpClient(const std::string &chaddr) {
   sim::FrameOptions opts;
   opts.mapped = 42;
   opts.sg = {100};
   return frames::Make(frames::DhcpClient(frames::kVmMac, chaddr, "0.0.0.0", 1), opts);
}

} // namespace

TEST_F(PacketLoopTest, FlatCopyMadeDuringAFramesPassIsFreedByTheLoop) {
   filter->featuresEnabled = VIGIL_FEAT_DHCP_SERVER_BLOCK;
   scripted::dhcpParses = true;
   sim::HeapStats before = sim::GetHeapStats(heapID);
   EXPECT_EQ(Tx(kPort, {SplitDhcpClient(frames::kVmMac), SplitDhcpClient(frames::kVmMac)}),
             (std::vector<std::string>{"forward", "forward"}));
   EXPECT_EQ(scripted::dhcpParseCalls, 2u);
   sim::HeapStats after = sim::GetHeapStats(heapID);
   EXPECT_EQ(after.totalAllocs, before.totalAllocs + 2);
   EXPECT_EQ(after.allocations, before.allocations);
}

TEST_F(PacketLoopTest, SplitDhcpFrameIsJudgedOnItsFlatCopy) {
   filter->featuresEnabled = VIGIL_FEAT_DHCP_SERVER_BLOCK;
   scripted::dhcpParses = true;
   sim::HeapStats before = sim::GetHeapStats(heapID);
   EXPECT_EQ(Tx(kPort, {SplitDhcpClient("02:00:00:00:00:99")}),
             std::vector<std::string>{"drop"});
   EXPECT_EQ(filter->stats.statDhcpChaddrDrops, 1u);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, before.allocations);
}

TEST_F(PacketLoopTest, FlatCopyIsFreedBeforeTheFrameRunsAgain) {
   filter->featuresEnabled = VIGIL_FEAT_DHCP_SERVER_BLOCK;
   filter->discoveryFlags |= VIGIL_DISC_DHCP;
   scripted::dhcpParses = true;
   scripted::relockOn = "dhcpTx";
   sim::HeapStats before = sim::GetHeapStats(heapID);
   EXPECT_EQ(Tx(kPort, {SplitDhcpClient(frames::kVmMac)}),
             std::vector<std::string>{"forward"});
   EXPECT_EQ(SnoopTrace(), (std::vector<std::string>{"dhcpTx r1 w0", "dhcpTx r0 w1"}));
   sim::HeapStats after = sim::GetHeapStats(heapID);
   EXPECT_EQ(after.totalAllocs, before.totalAllocs + 2);
   EXPECT_EQ(after.allocations, before.allocations);
}
