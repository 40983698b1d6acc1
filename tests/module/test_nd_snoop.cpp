/*
 * ND snooping through the packet loop: a neighbor solicitation teaches its
 * source, an advertisement its target, with the MAC of the link-layer
 * address option or else the Ethernet source; duplicate address detection
 * teaches nothing; the parser reads the first option only, refuses bad
 * option lengths, skips fragments and maps what is scattered; failures are
 * logged and the frame always goes on.  Each allocation of the paths fails
 * in turn without a leak.
 */
#include "ipv6_db_test.h"

using namespace v6db;

namespace {

const char *const kOptionMac = "02:00:00:00:00:77";

/* A nonce option (type 14) of one unit: not a link-layer address option. */
const Bytes kNonceOption = {14, 1, 1, 2, 3, 4, 5, 6};

/* The three lines of a parse failure of `what` with the status text. */
std::vector<std::string> ParseFailure(const std::string &what, const std::string &status) {
   return {"Filter 0x10 " + what,
           "Filter 0x10 Error parsing ND message on port 0x10: " + status,
           "Filter 0x10 Error performing IPv6 ND Discovery on port 0x10: " + status};
}

} // namespace

class NdSnoopTest : public Ipv6DbTest {
protected:
   /* Lets the throttled log open a fresh window: five lines per three
    * seconds would hide the lines of a second failure. */
   void NewLogWindow() { sim::Advance(3); }
};

/* ------------------------------------------------ neighbor solicitations */

TEST_F(NdSnoopTest, SolicitationTeachesItsSourceWithTheOptionMacAfterOneRelock) {
   const i64 at = Uptime();
   sim::LockCounts before = Locks();
   sim::FrameOptions opts;
   opts.vlan = 5;
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::string(kOptionMac)), opts), "forward");
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes - before.writes, 1u);

   /* The option's MAC wins over the Ethernet source and isn't compared. */
   EXPECT_EQ(Find(5, kVmMac, kVmIp), nullptr);
   VigilV6Vmi *vmi = Find(5, kOptionMac, kVmIp);
   ASSERT_NE(vmi, nullptr);
   EXPECT_EQ(vmi->discMethod, VIGIL_DISC_ND);
   EXPECT_EQ(vmi->expiryTs, at + 600);
   EXPECT_EQ(vmi->clientId, nullptr);
   EXPECT_EQ(vmi->clientIdLen, 0u);
   EXPECT_EQ(filter->numNdEntries, 1u);
   EXPECT_EQ(filter->numDhcpV6Entries, 0u);
   EXPECT_EQ(filter->agingKey, at + 600);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{NdAdded(5, kOptionMac, kVmIp)});
   EXPECT_EQ(LogTexts(), std::vector<std::string>{NdAddedLine(5, kOptionMac, kVmIp, at + 600)});
   ExpectNoLeak();
}

TEST_F(NdSnoopTest, SolicitationWithoutOptionIsLearntWithTheEthernetSource) {
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward");
   ASSERT_NE(Find(0, kVmMac, kVmIp), nullptr);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{NdAdded(0, kVmMac, kVmIp)});
}

TEST_F(NdSnoopTest, SolicitationOfTheNdLifeTimeTakesTheFiltersExpiry) {
   filter->ndExpiry = 120;
   const i64 at = Uptime();
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward");
   VigilV6Vmi *vmi = Find(0, kVmMac, kVmIp);
   ASSERT_NE(vmi, nullptr);
   EXPECT_EQ(vmi->expiryTs, at + 120);
}

TEST_F(NdSnoopTest, SolicitationFromTheUnspecifiedAddressTeachesNothingAndIsNoFailure) {
   sim::LockCounts before = Locks();
   /* With a source link-layer option, which DAD may not carry but a VM may
    * send all the same, and without one. */
   EXPECT_EQ(Tx1(Ns(kUnspecified, kVmIp, std::string(kVmMac))), "forward");
   EXPECT_EQ(Tx1(Ns(kUnspecified, kVmIp, std::nullopt)), "forward");
   /* The relock comes before anything is parsed. */
   EXPECT_EQ(Locks().writes - before.writes, 2u);
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectNoLeak();
}

TEST_F(NdSnoopTest, SolicitationWhoseFirstOptionIsAnotherIsLearntWithTheEthernetSource) {
   /* A source link-layer option behind the nonce is never looked at. */
   Bytes frame = Append(Ns(kVmIp, kRouterIp, std::nullopt), kNonceOption);
   frame = Append(frame, Bytes{1, 1, 0x02, 0, 0, 0, 0, 0x77});
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_NE(Find(0, kVmMac, kVmIp), nullptr);
   EXPECT_EQ(Find(0, kOptionMac, kVmIp), nullptr);
   EXPECT_EQ(LogTexts().size(), 1u) << "the added line alone";
}

TEST_F(NdSnoopTest, SourceOptionOfTwoUnitsFailsWithSixteenIsNotLearntAndMeetsTheWarden) {
   Bytes frame = Append(Ns(kVmIp, kRouterIp, std::nullopt),
                        Bytes{1, 2, 0x02, 0, 0, 0, 0, 0x77, 0, 0, 0, 0, 0, 0, 0, 0});
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(LogTexts(),
             ParseFailure("Invalid target addr option length: 16", "Invalid data"));

   /* It goes on to address enforcement: an empty port list drops it. */
   NewLogWindow();
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   EXPECT_EQ(Tx1(frame), "drop");
   EXPECT_EQ(filter->stats.statWardenV6Drops, 1u);
   EXPECT_EQ(filter->numNdEntries, 0u);
   std::vector<std::string> expected =
      ParseFailure("Invalid target addr option length: 16", "Invalid data");
   expected.push_back("Filter 0x10 [P]DROP wdnType 2 vlan 0 mac 02:00:00:00:00:10");
   expected.push_back("Filter 0x10 [P]DROP v6: 2001:db8:0:0:0:0:0:50");
   EXPECT_EQ(LogTexts(), expected);
   ExpectNoLeak();
}

TEST_F(NdSnoopTest, SourceOptionOfLengthZeroFailsWithZero) {
   Bytes frame = Append(Ns(kVmIp, kRouterIp, std::nullopt), Bytes{1, 0, 0x02, 0, 0, 0, 0, 0x77});
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(LogTexts(), ParseFailure("Invalid target addr option length: 0", "Invalid data"));
}

TEST_F(NdSnoopTest, OptionOfLengthZeroOfAnotherTypeIsPassedOver) {
   /* Only the wanted type has its length judged. */
   Bytes frame = Append(Ns(kVmIp, kRouterIp, std::nullopt), Bytes{14, 0, 0, 0, 0, 0, 0, 0});
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_NE(Find(0, kVmMac, kVmIp), nullptr);
}

TEST_F(NdSnoopTest, MessageEndingAtTheFrameEndOrUpToTwoBytesBeforeHasNoOption) {
   const Bytes bare = Ns(kVmIp, kRouterIp, std::nullopt);
   ASSERT_EQ(bare.size(), kIcmpAt + 24);
   const std::vector<Bytes> tails = {{}, {1}, {1, 1}};
   for (const Bytes &tail : tails) {
      SCOPED_TRACE(std::to_string(tail.size()) + " bytes behind the message");
      Restart();
      EXPECT_EQ(Tx1(Append(bare, tail)), "forward");
      EXPECT_NE(Find(0, kVmMac, kVmIp), nullptr);
      EXPECT_EQ(LogTexts().size(), 1u) << "the added line alone";
   }
   /* Three bytes make an option header whose option runs past the end. */
   Restart();
   NewLogWindow();
   EXPECT_EQ(Tx1(Append(bare, Bytes{1, 1, 2})), "forward");
   EXPECT_EQ(filter->numNdEntries, 0u);
   std::vector<std::string> expected = {"Header offset (78 + 8) exceeds framelen: 81"};
   for (const std::string &line : ParseFailure("Failed to map ND option of length: 8",
                                               "Invalid data")) {
      expected.push_back(line);
   }
   EXPECT_EQ(LogTexts(), expected);
}

TEST_F(NdSnoopTest, SolicitationCutInsideItsMessageIsNotLearnt) {
   Bytes frame = Ns(kVmIp, kRouterIp, std::nullopt);
   frame.resize(kIcmpAt + 4 + 12);
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_EQ(filter->numNdEntries, 0u);
   std::vector<std::string> expected = {"Header offset (58 + 20) exceeds framelen: 70"};
   for (const std::string &line : ParseFailure("Failed to map NS header", "Invalid data")) {
      expected.push_back(line);
   }
   EXPECT_EQ(LogTexts(), expected);
}

TEST_F(NdSnoopTest, FragmentedSolicitationIsNotLearntAndNamedNotSupported) {
   /* An atomic fragment: offset 0 and no more fragments. */
   Bytes frame = frames::WithIpv6Extensions(Ns(kVmIp, kRouterIp, std::string(kVmMac)),
                                            {frames::FragmentHeader(0, false)});
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(LogTexts(), ParseFailure("ND parsing skips fragmented frame", "Not supported"));
}

TEST_F(NdSnoopTest, SolicitationBehindHopByHopAndDestinationOptionsIsLearnt) {
   Bytes frame = frames::WithIpv6Extensions(
      Ns(kVmIp, kRouterIp, std::string(kOptionMac)),
      {frames::HopByHopOptions(), frames::DestinationOptions()});
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_NE(Find(0, kOptionMac, kVmIp), nullptr);
}

TEST_F(NdSnoopTest, SolicitationScatteredOverTwoElementsIsReadFromACopy) {
   sim::FrameOptions opts;
   opts.mapped = 60;
   opts.sg = {64};
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::string(kOptionMac)), opts), "forward");
   EXPECT_NE(Find(0, kOptionMac, kVmIp), nullptr);
   ExpectNoLeak();
}

TEST_F(NdSnoopTest, SolicitationAgainRefreshesTheBindingWithoutAMessage) {
   const i64 at = Uptime();
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward");
   TakeMessages();
   LogTexts();
   sim::Advance(100);
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward");
   VigilV6Vmi *vmi = Find(0, kVmMac, kVmIp);
   ASSERT_NE(vmi, nullptr);
   EXPECT_EQ(vmi->expiryTs, at + 100 + 600);
   EXPECT_EQ(filter->numNdEntries, 1u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}

TEST_F(NdSnoopTest, SolicitationOfAnIgnoredAddressLogsTheThreeFailureLines) {
   auto *ignore = (VigilWhiteListEntry *)Vigil_HeapAlloc(sizeof(VigilWhiteListEntry));
   ignore->flags = VIGIL_WL_IPV6;
   Addr6 ip = Ip6(kVmIp);
   memcpy(ignore->ip, ip.data(), 16);
   ignore->prefixLen = 128;
   filter->portIgnoreList = ignore;
   filter->portIgnoreListSize = 1;
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward");
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(filter->stats.statV6VmiAddRefused, 1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Unable to add VMI: Ignored",
                            "Filter 0x10 ND Snooping failed on port 0x10: Ignored",
                            "Filter 0x10 Error performing IPv6 ND Discovery on port 0x10: Ignored"}));
   ExpectNoLeak();
}

/* ----------------------------------------------- neighbor advertisements */

TEST_F(NdSnoopTest, AdvertisementTeachesItsTargetWithTheOptionMac) {
   const i64 at = Uptime();
   EXPECT_EQ(Tx1(Na(kVmIp, std::string(kOptionMac))), "forward");
   /* The link-local source teaches nothing. */
   EXPECT_EQ(filter->numNdEntries, 1u);
   VigilV6Vmi *vmi = Find(0, kOptionMac, kVmIp);
   ASSERT_NE(vmi, nullptr);
   EXPECT_EQ(vmi->discMethod, VIGIL_DISC_ND);
   EXPECT_EQ(vmi->expiryTs, at + 600);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{NdAdded(0, kOptionMac, kVmIp)});
   EXPECT_EQ(LogTexts(), std::vector<std::string>{NdAddedLine(0, kOptionMac, kVmIp, at + 600)});
}

TEST_F(NdSnoopTest, AdvertisementWithoutTargetOptionIsLearntWithTheEthernetSource) {
   EXPECT_EQ(Tx1(Na(kVmIp, std::nullopt)), "forward");
   EXPECT_NE(Find(0, kVmMac, kVmIp), nullptr);
   EXPECT_EQ(filter->numNdEntries, 1u);
}

TEST_F(NdSnoopTest, AdvertisementWithASourceOptionFirstIsLearntWithTheEthernetSource) {
   Bytes frame = Append(Na(kVmIp, std::nullopt), Bytes{1, 1, 0x02, 0, 0, 0, 0, 0x77});
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_NE(Find(0, kVmMac, kVmIp), nullptr);
}

TEST_F(NdSnoopTest, AdvertisementWhoseAddFailsLogsOnlyUnableToAddVmi) {
   for (u32 i = 1; i <= 15; i++) {
      std::string target = "2001:db8::" + std::to_string(i);
      EXPECT_EQ(Tx1(Na(target, std::nullopt)), "forward");
   }
   ASSERT_EQ(filter->numNdEntries, 15u);
   TakeMessages();
   LogTexts();
   EXPECT_EQ(Tx1(Na(kVmIp, std::nullopt)), "forward");
   EXPECT_EQ(filter->numNdEntries, 15u);
   EXPECT_EQ(Find(0, kVmMac, kVmIp), nullptr);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Max ND Snooped IP limit of 15 reached for port 0x10",
                            "Filter 0x10 Unable to add VMI: Limit exceeded"}));
   ExpectNoLeak();
}

TEST_F(NdSnoopTest, AdvertisementWithBadTargetOptionIsNotLearnt) {
   Bytes frame = Append(Na(kVmIp, std::nullopt),
                        Bytes{2, 2, 0x02, 0, 0, 0, 0, 0x77, 0, 0, 0, 0, 0, 0, 0, 0});
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(LogTexts(),
             ParseFailure("Invalid target addr option length: 16", "Invalid data"));

   NewLogWindow();
   frame = Na(kVmIp, std::nullopt);
   frame.resize(kIcmpAt + 4 + 19);
   EXPECT_EQ(Tx1(frame), "forward");
   std::vector<std::string> expected = {"Header offset (58 + 20) exceeds framelen: 77"};
   for (const std::string &line : ParseFailure("Failed to map NA header", "Invalid data")) {
      expected.push_back(line);
   }
   EXPECT_EQ(LogTexts(), expected);
   EXPECT_EQ(filter->numNdEntries, 0u);
}

/* ------------------------------------------------ what is not snooped */

TEST_F(NdSnoopTest, WithNdSnoopingOffNothingIsLearntAndNoWriteLockIsTaken) {
   filter->discoveryFlags = VIGIL_DISC_DHCPV6;
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward");
   EXPECT_EQ(Tx1(Na(kVmIp, std::nullopt)), "forward");
   EXPECT_EQ(Locks().writes, before.writes);
   EXPECT_EQ(filter->numNdEntries, 0u);
}

TEST_F(NdSnoopTest, OtherIcmpv6MessagesAndReceivedNdTakeNoWriteLock) {
   sim::LockCounts before = Locks();
   for (u8 type : {128, 133, 134, 137}) {
      EXPECT_EQ(Tx1(Icmp6(type)), "forward") << (int)type;
   }
   EXPECT_EQ(Rx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward");
   EXPECT_EQ(Rx1(Na(kVmIp, std::nullopt)), "forward");
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.writes, before.writes);
   EXPECT_EQ(after.reads - before.reads, 6u);
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}

TEST_F(NdSnoopTest, DiscoveryStepUnderTheReadLockAsksForTheWriteLockAndReadsNothing) {
   zek_Pkt *pkt = frames::Make(Ns(kVmIp, kRouterIp, std::nullopt));
   VigilPacketContext ctx;
   memset(&ctx, 0, sizeof ctx);
   ctx.holdsReadLock = 1;
   u8 marker = 0;
   ctx.ndHdr = &marker;
   u32 action = 0;
   EXPECT_EQ(WithReadHold(kPort, [&] {
                return VigilProcessTxIpv6NdDiscovery(filter, pkt, &ctx, &action);
             }),
             ZEK_OK);
   EXPECT_EQ(action, VIGIL_ACTION_RELOCK);
   EXPECT_EQ(ctx.ndHdr, &marker);
   EXPECT_EQ(filter->numNdEntries, 0u);
   zek_PktRelease(pkt);
}

TEST_F(NdSnoopTest, ParserAnswersNotSupportedForOtherMessagesWithoutALine) {
   zek_Pkt *pkt = frames::Make(Icmp6(128));
   zek_PktHeaderEntry *l4 = nullptr;
   ASSERT_EQ(zek_PktHeaderFind(pkt, 2, 0x4000, 1, &l4, 0), ZEK_OK);
   Bytes bytes = sim::FrameBytes(pkt);
   VigilPacketContext ctx;
   memset(&ctx, 0, sizeof ctx);
   ctx.flags = VIGIL_PKT_ETH | VIGIL_PKT_IPV6 | VIGIL_PKT_ICMPV6;
   ctx.frameMapped = bytes.data();
   ctx.frameLen = ctx.mappedLen = (u32)bytes.size();
   ctx.l4Entry = l4;
   ctx.l4Hdr = bytes.data() + l4->offset;
   u8 marker = 0;
   ctx.ndHdr = &marker;
   ctx.ndLinkAddrOpt = &marker;
   EXPECT_EQ(WithReadHold(kPort, [&] { return VigilNDParsePkt(filter, pkt, &ctx); }),
             VIGIL_STATUS_NOT_SUPPORTED);
   EXPECT_EQ(ctx.ndHdr, nullptr);
   EXPECT_EQ(ctx.ndLinkAddrOpt, nullptr);
   /* Nor is a frame that isn't ICMPv6 for it. */
   ctx.flags = VIGIL_PKT_ETH | VIGIL_PKT_IPV6 | VIGIL_PKT_UDP;
   EXPECT_EQ(WithReadHold(kPort, [&] { return VigilNDParsePkt(filter, pkt, &ctx); }),
             VIGIL_STATUS_NOT_SUPPORTED);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   zek_PktRelease(pkt);
}

TEST_F(NdSnoopTest, FailedLookupOfTheFragmentHeaderCountsAsFragmented) {
   /* Only "not found" tells the frame is whole.  The packet loop's own four
    * lookups of each of the two passes come first. */
   sim::FaultCall("PktHeaderFind", VIGIL_STATUS_FAILURE, 1, 8);
   EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward");
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(LogTexts(), ParseFailure("ND parsing skips fragmented frame", "Not supported"));
}

/* ---------------------------------------------------------- heap faults */

TEST_F(NdSnoopTest, EveryAllocationOfLearningFromASolicitationMayFail) {
   ForEachAllocFailure(
      2, [this] { NewLogWindow(); },
      [this] { EXPECT_EQ(Tx1(Ns(kVmIp, kRouterIp, std::nullopt)), "forward"); },
      [this](u32 n) {
         std::vector<std::string> lines = LogTexts();
         if (n == 1) {
            /* The binding's record. */
            EXPECT_EQ(filter->numNdEntries, 0u);
            EXPECT_EQ(TakeMessages().size(), 0u);
            EXPECT_EQ(lines, (std::vector<std::string>{
                                "Filter 0x10 v6vmi alloc failed",
                                "Filter 0x10 Unable to add VMI: Out of memory",
                                "Filter 0x10 ND Snooping failed on port 0x10: Out of memory",
                                "Filter 0x10 Error performing IPv6 ND Discovery on port "
                                "0x10: Out of memory"}));
         } else if (n == 2) {
            /* The message's task: the binding stays, its message is lost. */
            EXPECT_NE(Find(0, kVmMac, kVmIp), nullptr);
            EXPECT_EQ(TakeMessages().size(), 0u);
            ASSERT_EQ(lines.size(), 3u);
            EXPECT_EQ(lines[0], "Unable to allocate memory, port: 0x10");
            EXPECT_EQ(lines[1],
                      "Filter 0x10 Could not post message:portdb.entry.added:Out of memory");
         } else {
            EXPECT_NE(Find(0, kVmMac, kVmIp), nullptr);
            EXPECT_EQ(MessageBytes(), std::vector<Bytes>{NdAdded(0, kVmMac, kVmIp)});
         }
      });
}

TEST_F(NdSnoopTest, EveryAllocationOfLearningFromAScatteredAdvertisementMayFail) {
   sim::FrameOptions opts;
   opts.mapped = 60;
   opts.sg = {64};
   ForEachAllocFailure(
      3, [this] { NewLogWindow(); },
      [&] { EXPECT_EQ(Tx1(Na(kVmIp, std::string(kOptionMac)), opts), "forward"); },
      [this](u32 n) {
         std::vector<std::string> lines = LogTexts();
         if (n == 1) {
            /* The copy of the frame that the scattered message is read from. */
            EXPECT_EQ(filter->numNdEntries, 0u);
            EXPECT_EQ(lines, (std::vector<std::string>{
                                "Failed to alloc pktCopy: 86",
                                "Filter 0x10 Failed to map NA header",
                                "Filter 0x10 Error parsing ND message on port 0x10: Invalid data",
                                "Filter 0x10 Error performing IPv6 ND Discovery on port "
                                "0x10: Invalid data"}));
         } else if (n == 2) {
            EXPECT_EQ(filter->numNdEntries, 0u);
            EXPECT_EQ(lines, (std::vector<std::string>{
                                "Filter 0x10 v6vmi alloc failed",
                                "Filter 0x10 Unable to add VMI: Out of memory"}));
         } else if (n == 3) {
            EXPECT_NE(Find(0, kOptionMac, kVmIp), nullptr);
            EXPECT_EQ(TakeMessages().size(), 0u);
            ASSERT_EQ(lines.size(), 3u);
            EXPECT_EQ(lines[0], "Unable to allocate memory, port: 0x10");
         } else {
            EXPECT_NE(Find(0, kOptionMac, kVmIp), nullptr);
            EXPECT_EQ(MessageBytes(), std::vector<Bytes>{NdAdded(0, kOptionMac, kVmIp)});
         }
      });
}
