/*
 * The IPv6 transmit and receive paths through the packet loop: the DHCPv6
 * client and server blocks and the router advertisement guard, which work
 * under the read lock and come before learning; what the guard sees behind
 * extension headers and in fragments (more in test_ra_guard_evasion); the
 * relock of ND learning, and address enforcement, which every frame not
 * dropped before ends in; receive, which blocks and judges nothing.
 */
#include "config_blobs.h"
#include "ipv6_db_test.h"

using namespace v6db;
using blobs::Entry;
using blobs::V6;

namespace {

const char *const kOutsideIp = "2001:db9::1";

/* The port list entry of the VM's addresses: the global prefix with its
 * MAC, and its link-local address. */
std::vector<VigilWhiteListEntry> VmEntries() {
   return {Entry(VIGIL_WL_IPV6 | VIGIL_WL_MAC, V6("2001:db8::"), 64, 0,
                 blobs::Mac(kVmMac)),
           Entry(VIGIL_WL_IPV6 | VIGIL_WL_MAC, V6("fe80::"), 64, 0, blobs::Mac(kVmMac))};
}

std::vector<std::string> Verdicts(std::initializer_list<const char *> texts) {
   return std::vector<std::string>(texts.begin(), texts.end());
}

} // namespace

class Ipv6PathTest : public Ipv6DbTest {
protected:
   void ExpectNoBlockOrGuardDrop() {
      EXPECT_EQ(filter->stats.statDhcpV6ClientBlockDrops, 0u);
      EXPECT_EQ(filter->stats.statDhcpV6ServerBlockDrops, 0u);
      EXPECT_EQ(filter->stats.statRaGuardDrops, 0u);
   }
};

/* ------------------------------------------------------ DHCPv6 blocks */

TEST_F(Ipv6PathTest, ClientBlockDropsFramesToPort547UnderTheReadLockAndTracksNothing) {
   filter->featuresEnabled = VIGIL_FEAT_DHCPV6_CLIENT_BLOCK;
   filter->discoveryFlags = VIGIL_DISC_ND | VIGIL_DISC_DHCPV6;
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(Udp6(546, 547)), "drop");
   /* Only the destination port counts. */
   EXPECT_EQ(Tx1(Udp6(40000, 547)), "drop");
   EXPECT_EQ(Tx1(Udp6(546, 40000)), "forward");
   EXPECT_EQ(Tx1(Udp6(547, 546)), "forward");
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.reads - before.reads, 4u);
   /* The dropped frames are decided under the read lock; the two that go
    * on come from DHCPv6 ports and are read for tracking, which relocks,
    * and their empty payload is refused. */
   EXPECT_EQ(after.writes - before.writes, 2u);
   EXPECT_EQ(filter->stats.statDhcpV6ClientBlockDrops, 2u);
   EXPECT_EQ(filter->stats.statDhcpV6ServerBlockDrops, 0u);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   const std::vector<std::string> refused = {
      "Filter 0x10 Unknown DHCPv6 msg type: 0",
      "Filter 0x10 Error parsing DHCPv6 Tx message on port 0x10: Bad parameter",
      "Filter 0x10 Error performing Tx DHCPv6 Discovery on port 0x10: Bad parameter"};
   std::vector<std::string> expected = refused;
   expected.insert(expected.end(), refused.begin(), refused.end());
   EXPECT_EQ(LogTexts(), expected);
   ExpectNoLeak();
}

TEST_F(Ipv6PathTest, ServerBlockDropsFramesToPort546UnderTheReadLock) {
   filter->featuresEnabled = VIGIL_FEAT_DHCPV6_SERVER_BLOCK;
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(Udp6(547, 546)), "drop");
   EXPECT_EQ(Tx1(Udp6(53, 546)), "drop");
   EXPECT_EQ(Tx1(Udp6(547, 53)), "forward");
   EXPECT_EQ(Tx1(Udp6(546, 547)), "forward");
   EXPECT_EQ(Locks().writes, before.writes);
   EXPECT_EQ(filter->stats.statDhcpV6ServerBlockDrops, 2u);
   EXPECT_EQ(filter->stats.statDhcpV6ClientBlockDrops, 0u);
}

TEST_F(Ipv6PathTest, EachBlockCountsTheFramesOfItsOwnPort) {
   filter->featuresEnabled = VIGIL_FEAT_DHCPV6_CLIENT_BLOCK | VIGIL_FEAT_DHCPV6_SERVER_BLOCK;
   EXPECT_EQ(Tx1(Udp6(547, 547)), "drop");
   EXPECT_EQ(Tx1(Udp6(546, 546)), "drop");
   EXPECT_EQ(filter->stats.statDhcpV6ClientBlockDrops, 1u);
   EXPECT_EQ(filter->stats.statDhcpV6ServerBlockDrops, 1u);
}

TEST_F(Ipv6PathTest, WithBlocksAndDhcpV6SnoopingOffAFrameTo547GoesStraightToTheWarden) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({});
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(Udp6(546, 547)), "drop");
   EXPECT_EQ(Locks().writes, before.writes);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 1u);
   ExpectNoBlockOrGuardDrop();
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 2 vlan 0 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v6: fe80:0:0:0:0:ff:fe00:10"}));
   SetPortList(VmEntries());
   EXPECT_EQ(Tx1(Udp6(546, 547)), "forward");
   EXPECT_EQ(filter->stats.statWardenV6Drops, 1u);
}

TEST_F(Ipv6PathTest, FrameThatIsNoDhcpV6MessageTakesNoWriteLockEitherWay) {
   filter->discoveryFlags = VIGIL_DISC_DHCPV6;
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(Udp6(40000, 53)), "forward");
   EXPECT_EQ(Rx1(Udp6(53, 40000)), "forward");
   EXPECT_EQ(Locks().writes, before.writes);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}

TEST_F(Ipv6PathTest, DhcpV6StepUnderTheReadLockAsksForTheWriteLock) {
   filter->discoveryFlags = VIGIL_DISC_DHCPV6;
   zek_Pkt *pkt = frames::Make(Udp6(546, 547));
   VigilPacketContext ctx;
   memset(&ctx, 0, sizeof ctx);
   ctx.holdsReadLock = 1;
   u32 action = 0;
   EXPECT_EQ(WithReadHold(kPort, [&] {
                return VigilProcessTxDhcpv6Discovery(filter, pkt, &ctx, &action);
             }),
             ZEK_OK);
   EXPECT_EQ(action, VIGIL_ACTION_RELOCK);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   zek_PktRelease(pkt);
}

/* ------------------------------------------------------------ RA guard */

TEST_F(Ipv6PathTest, RaGuardDropsBeforeTheFilterIsEverUpgraded) {
   filter->featuresEnabled = VIGIL_FEAT_RA_GUARD | VIGIL_FEAT_PORT_WARDEN;
   filter->discoveryFlags = VIGIL_DISC_ND | VIGIL_DISC_DHCPV6;
   SetPortList({});
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(Ra()), "drop");
   EXPECT_EQ(Tx1(Ra(kUnspecified)), "drop");
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.reads - before.reads, 2u);
   EXPECT_EQ(after.writes, before.writes);
   EXPECT_EQ(filter->stats.statRaGuardDrops, 2u);
   /* Neither judged by the warden nor learnt from. */
   EXPECT_EQ(filter->stats.statWardenV6Drops, 0u);
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}

TEST_F(Ipv6PathTest, RaGuardLeavesOtherIcmpv6MessagesAlone) {
   filter->featuresEnabled = VIGIL_FEAT_RA_GUARD;
   for (u8 type : {128, 133, 137}) {
      EXPECT_EQ(Tx1(Icmp6(type)), "forward") << (int)type;
   }
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward");
   EXPECT_EQ(Tx1(Na(kVmIp, std::nullopt)), "forward");
   EXPECT_EQ(filter->stats.statRaGuardDrops, 0u);
}

TEST_F(Ipv6PathTest, RouterAdvertisementFromTheUnspecifiedAddressIsJudgedWithTheGuardOff) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({});
   EXPECT_EQ(Tx1(Ra(kUnspecified)), "drop");
   EXPECT_EQ(filter->stats.statWardenV6Drops, 1u);
   EXPECT_EQ(filter->stats.statRaGuardDrops, 0u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 2 vlan 0 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v6: 0:0:0:0:0:0:0:0"}));
   /* A router solicitation from there is address configuration: unchecked. */
   EXPECT_EQ(Tx1(Icmp6(133, kUnspecified)), "forward");
   /* An advertisement from a listed address passes. */
   SetPortList(VmEntries());
   EXPECT_EQ(Tx1(Ra()), "forward");
   EXPECT_EQ(filter->stats.statWardenV6Drops, 1u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}

/* The guard sees an RA behind hop-by-hop, routing, destination options and
 * fragment headers, however many there are: the host's header parse finds
 * the ICMPv6 header behind up to sixteen of them, and the guard walks the
 * rest itself.  A later fragment's bytes are no header and pass.  A first
 * fragment that ends before its ICMPv6 header is dropped: only reassembly
 * would show what it carries. */
TEST_F(Ipv6PathTest, RaGuardJudgesWhatTheHostsHeaderParseFindsBehindExtensionHeaders) {
   filter->featuresEnabled = VIGIL_FEAT_RA_GUARD;
   using frames::DestinationOptions;
   using frames::FragmentHeader;
   using frames::HopByHopOptions;
   using frames::Ipv6Extension;
   struct Case {
      const char *what;
      std::vector<Ipv6Extension> exts;
      const char *verdict;
   };
   std::vector<Ipv6Extension> fifteen(15, DestinationOptions());
   std::vector<Ipv6Extension> sixteen(16, DestinationOptions());
   const std::vector<Case> cases = {
      {"behind hop-by-hop options", {HopByHopOptions()}, "drop"},
      {"behind destination options", {DestinationOptions()}, "drop"},
      {"behind both", {HopByHopOptions(), DestinationOptions()}, "drop"},
      {"in an atomic fragment", {FragmentHeader(0, false)}, "drop"},
      {"in a first fragment", {FragmentHeader(0, true)}, "drop"},
      {"in a first fragment behind hop-by-hop options",
       {HopByHopOptions(), FragmentHeader(0, true)},
       "drop"},
      {"behind fifteen headers", fifteen, "drop"},
      /* The parse gives up after sixteen; the guard's own walk goes on. */
      {"behind sixteen headers", sixteen, "drop"},
      /* The bytes of a later fragment are no header: its RA bytes are just
       * data at offset 8. */
      {"in a later fragment", {FragmentHeader(1, false)}, "forward"},
   };
   u64 drops = 0;
   for (const Case &c : cases) {
      SCOPED_TRACE(c.what);
      EXPECT_EQ(Tx1(frames::WithIpv6Extensions(Ra(), c.exts)), c.verdict);
      drops += std::string(c.verdict) == "drop";
      EXPECT_EQ(filter->stats.statRaGuardDrops, drops);
   }
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   /* A first fragment that ends behind its fragment header carries the
    * ICMPv6 header in the next fragment: dropped, and told once. */
   Bytes cut = frames::WithIpv6Extensions(Ra(), {FragmentHeader(0, true)});
   cut.resize(kIcmpAt + 8);
   cut[kIpv6At + 4] = 0;
   cut[kIpv6At + 5] = 8;
   EXPECT_EQ(Tx1(cut), "drop");
   EXPECT_EQ(filter->stats.statRaGuardDrops, drops + 1);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 RA guard dropped a frame whose IPv6 header chain is "
                            "incomplete on port 0x10"});
}

/* ------------------------------------------- learning and the warden */

TEST_F(Ipv6PathTest, LearningRelocksAndTheSecondPassEndsInTheWarden) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList(VmEntries());
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward");
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes - before.writes, 1u);
   EXPECT_NE(Find(0, kVmMac, kVmIp), nullptr);

   /* Learning comes first and doesn't decide the frame: an address that
    * the warden refuses is learnt all the same, and the frame is dropped. */
   LogTexts();
   EXPECT_EQ(Tx1(Ns(kOutsideIp, kRouterIp, std::nullopt)), "drop");
   EXPECT_NE(Find(0, kVmMac, kOutsideIp), nullptr);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 1u);
   std::vector<std::string> lines = LogTexts();
   ASSERT_EQ(lines.size(), 3u);
   EXPECT_EQ(lines[1], "Filter 0x10 [P]DROP wdnType 2 vlan 0 mac 02:00:00:00:00:10");
   EXPECT_EQ(lines[2], "Filter 0x10 [P]DROP v6: 2001:db9:0:0:0:0:0:1");
}

TEST_F(Ipv6PathTest, AdvertisementIsLearntThenJudgedBySourceAndTarget) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList(VmEntries());
   EXPECT_EQ(Tx1(Na(kVmIp, std::string(kVmMac))), "forward");
   EXPECT_NE(Find(0, kVmMac, kVmIp), nullptr);
   /* Without a target option the target's MAC test passes. */
   EXPECT_EQ(Tx1(Na("2001:db8::51", std::nullopt)), "forward");
   /* Another MAC in the option fails it, after the binding is learnt. */
   LogTexts();
   EXPECT_EQ(Tx1(Na("2001:db8::52", std::string(kOtherMac))), "drop");
   EXPECT_NE(Find(0, kOtherMac, "2001:db8::52"), nullptr);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 1u);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 0u);
   std::vector<std::string> lines = LogTexts();
   ASSERT_EQ(lines.size(), 3u);
   EXPECT_EQ(lines[1], "Filter 0x10 [P]DROP wdnType 5 vlan 0 mac 02:00:00:00:00:77");
   EXPECT_EQ(lines[2], "Filter 0x10 [P]DROP ND: 2001:db8:0:0:0:0:0:52");
}

TEST_F(Ipv6PathTest, InvalidAdvertisementIsNotLearntAndDroppedAsInvalid) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList(VmEntries());
   Bytes frame = Append(Na(kVmIp, std::nullopt),
                        Bytes{2, 2, 0x02, 0, 0, 0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 0});
   EXPECT_EQ(Tx1(frame), "drop");
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 1u);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 0u);
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{
                "Filter 0x10 Invalid target addr option length: 16",
                "Filter 0x10 Error parsing ND message on port 0x10: Invalid data",
                "Filter 0x10 Error performing IPv6 ND Discovery on port 0x10: Invalid data",
                "Filter 0x10 Invalid target addr option length: 16",
                "Filter 0x10 Invalid IPV6 ND Pkt, setting action to drop the packet"}));
}

TEST_F(Ipv6PathTest, FragmentedAdvertisementIsNotLearntAndDroppedAsInvalid) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList(VmEntries());
   Bytes frame = frames::WithIpv6Extensions(Na(kVmIp, std::string(kVmMac)),
                                            {frames::FragmentHeader(0, false)});
   EXPECT_EQ(Tx1(frame), "drop");
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 1u);
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{
                "Filter 0x10 ND parsing skips fragmented frame",
                "Filter 0x10 Error parsing ND message on port 0x10: Not supported",
                "Filter 0x10 Error performing IPv6 ND Discovery on port 0x10: Not supported",
                "Filter 0x10 ND parsing skips fragmented frame",
                "Filter 0x10 Invalid IPV6 ND Pkt, setting action to drop the packet"}));
}

TEST_F(Ipv6PathTest, BatchRunsUnderTheWriteLockOnceAFrameAskedForIt) {
   filter->featuresEnabled = VIGIL_FEAT_RA_GUARD | VIGIL_FEAT_DHCPV6_CLIENT_BLOCK;
   std::vector<zek_Pkt *> batch = {
      frames::Make(Ra()),                                 /* guard, read lock */
      frames::Make(Udp6(40000, 80, kVmIp)),               /* passes */
      frames::Make(Ns(kVmIp, kRouterIp, std::nullopt)),   /* relock, learnt */
      frames::Make(Udp6(546, 547)),                       /* block, write lock */
      frames::Make(Na("2001:db8::51", std::nullopt)),     /* learnt at once */
      frames::Make(Ra()),                                 /* guard, write lock */
   };
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx(kPort, batch),
             Verdicts({"drop", "forward", "forward", "drop", "forward", "drop"}));
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes - before.writes, 1u);
   EXPECT_EQ(filter->stats.statRaGuardDrops, 2u);
   EXPECT_EQ(filter->stats.statDhcpV6ClientBlockDrops, 1u);
   EXPECT_EQ(filter->numNdEntries, 2u);
   EXPECT_EQ(MessageBytes(), (std::vector<Bytes>{NdAdded(0, kVmMac, kVmIp),
                                                 NdAdded(0, kVmMac, "2001:db8::51")}));
   ExpectNoLeak();
}

/* ------------------------------------------------------------- receive */

TEST_F(Ipv6PathTest, ReceiveBlocksJudgesAndLearnsNothing) {
   filter->featuresEnabled = VIGIL_FEAT_DHCPV6_CLIENT_BLOCK | VIGIL_FEAT_DHCPV6_SERVER_BLOCK |
                             VIGIL_FEAT_RA_GUARD | VIGIL_FEAT_PORT_WARDEN;
   /* DHCPv6 discovery is off: replies the VM receives would be read for
    * tracking, which is not what this test is about. */
   filter->discoveryFlags = VIGIL_DISC_ND;
   SetPortList({});
   sim::LockCounts before = Locks();
   std::vector<zek_Pkt *> batch = {
      frames::Make(Udp6(546, 547)),
      frames::Make(Udp6(547, 546)),
      frames::Make(Ra(kRouterIp, kRouterMac)),
      frames::Make(Ns(kOutsideIp, kVmIp, std::string(kRouterMac), kRouterMac)),
      frames::Make(Na(kOutsideIp, std::nullopt, kRouterMac)),
      frames::Make(Udp6(40000, 80, kOutsideIp, kRouterMac)),
   };
   EXPECT_EQ(Rx(kPort, batch), Verdicts({"forward", "forward", "forward", "forward", "forward",
                                         "forward"}));
   EXPECT_EQ(Locks().writes, before.writes);
   ExpectNoBlockOrGuardDrop();
   EXPECT_EQ(filter->stats.statWardenV6Drops, 0u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 0u);
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}
