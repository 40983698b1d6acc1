/*
 * The router advertisement guard against frames built to slip an RA past
 * it: RAs behind extension headers, in atomic fragments, and header chains
 * split across fragments so that the first fragment never shows the
 * ICMPv6 header.  The first tests replay the frames that thc-ipv6's
 * fake_router26 (-E H, F, D, O) and fake_router6 (-H, -F, -D, -HFD) sent
 * on a veth pair, byte for byte (runs of zero padding written as counts);
 * the rest are crafted edge cases of the chain walk.
 */
#include "ipv6_db_test.h"

using namespace v6db;
using frames::DestinationOptions;
using frames::FragmentHeader;
using frames::HopByHopOptions;
using frames::Ipv6Extension;

namespace {

const char *const kIncomplete =
   "Filter 0x10 RA guard dropped a frame whose IPv6 header chain is incomplete on port 0x10";

Bytes Hex(const std::string &text) {
   Bytes out;
   for (size_t i = 0; i + 1 < text.size(); i += 2) {
      out.push_back((u8)std::stoul(text.substr(i, 2), nullptr, 16));
   }
   return out;
}

/* Captured bytes with `zeros` zero bytes between the two parts. */
Bytes Hex(const std::string &head, size_t zeros, const std::string &tail = "") {
   Bytes out = Hex(head);
   out.insert(out.end(), zeros, 0);
   Bytes end = Hex(tail);
   out.insert(out.end(), end.begin(), end.end());
   return out;
}

/* fake_router26 -E H: an RA behind eight bytes of hop-by-hop options. */
const Bytes kR26HopByHop = Hex(
   "33330000000102000000001086dd6e000000004800ff20010db80000000000000000000000"
   "5020010db80000000000000000000000013a0000000000000086004d5cff08080000000000"
   "0000000005010000000005dc0101020000000010030440c00001869f0000c34f0000000020"
   "010db8000100000000000000000000");

/* fake_router6 -H: the same with its own options. */
const Bytes kR6HopByHop = Hex(
   "33330000000102000000001086dd6e00000000a800ff20010db80000000000000000000000"
   "50ff0200000000000000000000000000013a000000000000008600ad11ff08080000000000"
   "0000040005010000000005dc030440c011111111040404040000000020010db80001000000"
   "0000000000000001010200000000101803000800001111000000000000000000000000000000"
   "001803030800001111200000000000000000000000000000001803070800001111fc00000000"
   "0000000000000000000000190300000101010120010db8000000000000000000000053");

/* fake_router26 -E F: a first fragment of destination options and routing
 * headers that ends where the ICMPv6 header would start; the RA follows in
 * two later fragments (offsets 32 and 64). */
const Bytes kR26FullFirst = Hex(
   "33330000000102000000001086dd6000000000282cff20010db80000000000000000000000"
   "5020010db80000000000000000000000013c0000016b037c882b000100010200003c00000000"
   "0000002b000100010200003a00000000000000");
const Bytes kR26FullLater1 = Hex(
   "33330000000102000000001086dd6000000000282cff20010db80000000000000000000000"
   "5020010db80000000000000000000000013c0000216b037c8886004d5cff0808000000000000"
   "00000005010000000005dc0101020000000010");
const Bytes kR26FullLater2 = Hex(
   "33330000000102000000001086dd6000000000282cff20010db80000000000000000000000"
   "5020010db80000000000000000000000013c0000406b037c8886004d5cff0808000000000000"
   "00000005010000000005dc0101020000000010");

/* fake_router26 -E D: a 1240-byte destination options header that the
 * first fragment (1294 bytes) cuts; the RA is in the second. */
const Bytes kR26LargeDstFirst = Hex(
   "02000000000102000000001086dd6000000004d82cff20010db80000000000000000000000"
   "5020010db80000000000000000000000013c0000016b037c853a9a",
   1230);
const Bytes kR26LargeDstLater = Hex(
   "02000000000102000000001086dd6000000000502cff20010db80000000000000000000000"
   "5020010db80000000000000000000000013c0004d06b037c85000000000000000086004d5c"
   "ff080800000000000000000005010000000005dc0101020000000010030440c00001869f0000"
   "c34f0000000020010db8000100000000000000000000");

/* fake_router6 -D: the same evasion with a 1512-byte header. */
const Bytes kR6LargeDstFirst = Hex(
   "33330000000102000000001086dd6000000004e02cff20010db80000000000000000000000"
   "50ff0200000000000000000000000000013c0000016b037ca53abc",
   1238);
const Bytes kR6LargeDstLater = Hex(
   "33330000000102000000001086dd6000000001b82cff20010db80000000000000000000000"
   "50ff0200000000000000000000000000013c0004d86b037ca5",
   272,
   "8600ad11ff080800000000000000040005010000000005dc030440c0111111110404040400"
   "00000020010db800010000000000000000000001010200000000101803000800001111000000"
   "000000000000000000000000001803030800001111200000000000000000000000000000001803"
   "070800001111fc000000000000000000000000000000190300000101010120010db800000000"
   "0000000000000053");

/* fake_router6 -HFD: a first fragment with three atomic fragment headers
 * nested in it and the large destination options header cut. */
const Bytes kR6AllFirst = Hex(
   "33330000000102000000001086dd6000000004e02cff20010db80000000000000000000000"
   "50ff0200000000000000000000000000012c0000016b037caa2c000000000000002c000000"
   "7b5eb00b3c000000010000003abc",
   1214);
const Bytes kR6AllLater = Hex(
   "33330000000102000000001086dd60000000013a2cff20010db80000000000000000000000"
   "50ff0200000000000000000000000000012c0004d86b037caa",
   296, "860045a5ff0808000000");

/* fake_router6 -F: two nested atomic fragment headers and a cut RA. */
const Bytes kR6Fragment = Hex(
   "33330000000102000000001086dd6e000000001a2cff20010db80000000000000000000000"
   "50ff0200000000000000000000000000012c0000007a5db00b3a00000001000000860045a5"
   "ff0808000000");

/* fake_router26 -E O and -E o: a first fragment whose whole chain ends in
 * an echo request, and a later fragment at offset 1216 that overlaps its
 * last header and carries the RA; only the order of the two differs. */
const Bytes kR26OverlapFirst = Hex(
   "02000000000102000000001086dd6000000004d82cff20010db80000000000000000000000"
   "5020010db80000000000000000000000013c0000016b037c8a3c97",
   1214, "3a000000000000008000bd5b00000001");
const Bytes kR26OverlapLater = Hex(
   "02000000000102000000001086dd6000000000502cff20010db80000000000000000000000"
   "5020010db80000000000000000000000013c0004c06b037c8a3a0000000000000086004d5c"
   "ff080800000000000000000005010000000005dc0101020000000010030440c00001869f0000"
   "c34f0000000020010db8000100000000000000000000");

/* An authentication header of 16 bytes (length field 2). */
Ipv6Extension AuthHeader() {
   return {51, Bytes{0, 2, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0}};
}

/* A frame whose IPv6 next header is `proto`, followed by `payload`. */
Bytes Ipv6With(u8 proto, const Bytes &payload) {
   Bytes frame = Ra();
   frame.resize(kIcmpAt);
   frame[kIpv6At + 6] = proto;
   frame[kIpv6At + 4] = (u8)(payload.size() >> 8);
   frame[kIpv6At + 5] = (u8)payload.size();
   frame.insert(frame.end(), payload.begin(), payload.end());
   return frame;
}

} // namespace

class RaGuardEvasionTest : public Ipv6DbTest {
protected:
   void SetUp() override {
      Ipv6DbTest::SetUp();
      filter->featuresEnabled = VIGIL_FEAT_RA_GUARD;
      filter->discoveryFlags = 0;
   }

   /* Sends each frame alone and checks its verdict and the drop count. */
   void ExpectVerdicts(const std::vector<std::pair<Bytes, const char *>> &frames) {
      u64 drops = filter->stats.statRaGuardDrops;
      for (size_t i = 0; i < frames.size(); i++) {
         SCOPED_TRACE("frame " + std::to_string(i));
         EXPECT_EQ(Tx1(frames[i].first), frames[i].second);
         drops += std::string(frames[i].second) == "drop";
         EXPECT_EQ(filter->stats.statRaGuardDrops, drops);
      }
   }
};

/* ------------------------------------------------- captured evasions */

TEST_F(RaGuardEvasionTest, HopByHopRasOfBothToolsAreDroppedWithoutALogLine) {
   u64 before = TotalAllocs();
   ExpectVerdicts({{kR26HopByHop, "drop"}, {kR6HopByHop, "drop"}});
   EXPECT_EQ(TotalAllocs(), before);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectNoLeak();
}

TEST_F(RaGuardEvasionTest, FullEvasionFirstFragmentEndingBeforeTheIcmpv6HeaderIsDropped) {
   ExpectVerdicts({{kR26FullFirst, "drop"}, {kR26FullLater1, "forward"},
                   {kR26FullLater2, "forward"}});
   EXPECT_EQ(filter->stats.statRaGuardDrops, 1u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{kIncomplete});
   ExpectNoLeak();
}

TEST_F(RaGuardEvasionTest, LargeDestinationOptionsCutByTheFirstFragmentAreDropped) {
   u64 before = TotalAllocs();
   ExpectVerdicts({{kR26LargeDstFirst, "drop"}, {kR26LargeDstLater, "forward"},
                   {kR6LargeDstFirst, "drop"}, {kR6LargeDstLater, "forward"}});
   EXPECT_EQ(filter->stats.statRaGuardDrops, 2u);
   /* The walk copies nothing to the heap. */
   EXPECT_EQ(TotalAllocs(), before);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{kIncomplete, kIncomplete}));
   ExpectNoLeak();
}

TEST_F(RaGuardEvasionTest, NestedAtomicFragmentsWithACutChainAreDropped) {
   ExpectVerdicts({{kR6AllFirst, "drop"}, {kR6AllLater, "forward"}});
   EXPECT_EQ(LogTexts(), std::vector<std::string>{kIncomplete});
   ExpectNoLeak();
}

TEST_F(RaGuardEvasionTest, RaInNestedAtomicFragmentsIsJudgedAsAnRa) {
   ExpectVerdicts({{kR6Fragment, "drop"}});
   EXPECT_EQ(filter->stats.statRaGuardDrops, 1u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectNoLeak();
}

/* The first fragment's chain is whole and ends in an echo request; only a
 * host that lets the later fragment overwrite it would see an RA.  Hosts
 * discard overlapping fragments, and a stateless guard sees no RA here:
 * both pass in either order. */
TEST_F(RaGuardEvasionTest, OverlappingFragmentsPassAsNeitherShowsAnRa) {
   ExpectVerdicts({{kR26OverlapLater, "forward"}, {kR26OverlapFirst, "forward"},
                   {kR26OverlapFirst, "forward"}, {kR26OverlapLater, "forward"}});
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectNoLeak();
}

TEST_F(RaGuardEvasionTest, WithTheGuardOffEveryEvasionFramePassesUncounted) {
   filter->featuresEnabled = 0;
   filter->discoveryFlags = VIGIL_DISC_ND;
   ExpectVerdicts({{kR26HopByHop, "forward"},   {kR6HopByHop, "forward"},
                   {kR26FullFirst, "forward"},  {kR26LargeDstFirst, "forward"},
                   {kR6LargeDstFirst, "forward"}, {kR6AllFirst, "forward"},
                   {kR6Fragment, "forward"},    {kR26OverlapFirst, "forward"}});
   EXPECT_EQ(filter->stats.statRaGuardDrops, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectNoLeak();
}

/* ------------------------------------------------- crafted chain walks */

/* fake_router26 -E H111: hop-by-hop options, then one-shot (atomic)
 * fragment headers, any number of them. */
TEST_F(RaGuardEvasionTest, RaBehindHopByHopAndSeveralAtomicFragmentsIsDropped) {
   ExpectVerdicts({
      {frames::WithIpv6Extensions(Ra(), {FragmentHeader(0, false)}), "drop"},
      {frames::WithIpv6Extensions(Ra(), {HopByHopOptions(), FragmentHeader(0, false),
                                         FragmentHeader(0, false), FragmentHeader(0, false)}),
       "drop"},
   });
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectNoLeak();
}

/* The host's header parse gives up after sixteen extension headers and
 * doesn't walk an authentication header; the guard walks on to the
 * ICMPv6 header whatever the count. */
TEST_F(RaGuardEvasionTest, RaBehindManyHeadersOrAnAuthenticationHeaderIsDropped) {
   std::vector<Ipv6Extension> sixteen(16, DestinationOptions());
   std::vector<Ipv6Extension> hundred(100, DestinationOptions());
   std::vector<Ipv6Extension> fragmentedHundred = hundred;
   fragmentedHundred.insert(fragmentedHundred.begin(), FragmentHeader(0, true));
   ExpectVerdicts({
      {frames::WithIpv6Extensions(Ra(), sixteen), "drop"},
      {frames::WithIpv6Extensions(Ra(), hundred), "drop"},
      {frames::WithIpv6Extensions(Ra(), fragmentedHundred), "drop"},
      {frames::WithIpv6Extensions(Ra(), {AuthHeader()}), "drop"},
      {frames::WithIpv6Extensions(Ra(), {HopByHopOptions(), AuthHeader(), DestinationOptions()}),
       "drop"},
      /* Other ICMPv6 messages behind the same headers pass. */
      {frames::WithIpv6Extensions(Icmp6(128, kVmLinkLocal), hundred), "forward"},
      {frames::WithIpv6Extensions(Icmp6(128, kVmLinkLocal), {AuthHeader()}), "forward"},
   });
   EXPECT_EQ(filter->stats.statRaGuardDrops, 5u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectNoLeak();
}

/* A first fragment must hold the whole upper-layer header: four bytes of
 * ICMPv6, eight of UDP, twenty of TCP.  With fewer, or a header cut by the
 * frame's end, the frame is dropped whatever it carries. */
TEST_F(RaGuardEvasionTest, ChainCutBeforeTheWholeUpperLayerHeaderIsDropped) {
   Bytes icmpCut = frames::WithIpv6Extensions(Ra(), {FragmentHeader(0, true)});
   icmpCut.resize(kIcmpAt + 8 + 3);
   Bytes udpCut = frames::WithIpv6Extensions(Udp6(40000, 53), {FragmentHeader(0, true)});
   udpCut.resize(kIcmpAt + 8 + 7);
   Bytes tcpCut = frames::WithIpv6Extensions(Ipv6With(6, Bytes(20, 0)), {FragmentHeader(0, true)});
   tcpCut.resize(kIcmpAt + 8 + 19);
   /* Unfragmented: destination options whose length runs past the end. */
   Bytes dstPastEnd = frames::WithIpv6Extensions(Ra(), {DestinationOptions()});
   dstPastEnd[kIcmpAt + 1] = 20;
   /* A fragment header itself cut. */
   Bytes fragCut = Ipv6With(44, Hex("3a000001000012"));
   ExpectVerdicts({{icmpCut, "drop"}, {udpCut, "drop"}, {tcpCut, "drop"},
                   {dstPastEnd, "drop"}, {fragCut, "drop"}});
   EXPECT_EQ(LogTexts(), std::vector<std::string>(5, kIncomplete));
   ExpectNoLeak();
}

TEST_F(RaGuardEvasionTest, WholeChainsOfOtherProtocolsAndLaterFragmentsPass) {
   Bytes tcp = Ipv6With(6, Bytes(20, 0));
   Bytes tcpFirst = frames::WithIpv6Extensions(tcp, {FragmentHeader(0, true)});
   Bytes udpFirst = frames::WithIpv6Extensions(Udp6(40000, 53), {FragmentHeader(0, true)});
   Bytes esp = frames::WithIpv6Extensions(Ipv6With(50, Bytes(16, 0)), {FragmentHeader(0, true)});
   Bytes noNext = frames::WithIpv6Extensions(Ipv6With(59, {}), {DestinationOptions()});
   /* A later fragment whose bytes look like a cut chain: they are data. */
   Bytes later = frames::WithIpv6Extensions(Ipv6With(60, Bytes{58, 200}), {FragmentHeader(3, true)});
   Bytes laterBehindHop = frames::WithIpv6Extensions(Ra(), {HopByHopOptions(), FragmentHeader(1, false)});
   ExpectVerdicts({{tcp, "forward"}, {tcpFirst, "forward"}, {udpFirst, "forward"},
                   {esp, "forward"}, {noNext, "forward"}, {later, "forward"},
                   {laterBehindHop, "forward"}});
   EXPECT_EQ(filter->stats.statRaGuardDrops, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectNoLeak();
}

/* The walk reads past the mapped part by copying a few bytes at a time;
 * when even that copy fails, the chain counts as unreadable and the frame
 * is dropped. */
TEST_F(RaGuardEvasionTest, ChainBeyondTheMappedPartIsReadAndAnUnreadableOneIsDropped) {
   std::vector<Ipv6Extension> twenty(20, DestinationOptions());
   sim::FrameOptions mapped64;
   mapped64.mapped = 64;
   u64 before = TotalAllocs();
   EXPECT_EQ(Tx1(frames::WithIpv6Extensions(Ra(), twenty), mapped64), "drop");
   EXPECT_EQ(Tx1(frames::WithIpv6Extensions(Icmp6(128, kVmLinkLocal), twenty), mapped64),
             "forward");
   EXPECT_EQ(filter->stats.statRaGuardDrops, 1u);
   EXPECT_EQ(TotalAllocs(), before);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());

   sim::FaultCall("PktCopyBytesOut", 0xbad0001, 1000);
   EXPECT_EQ(Tx1(frames::WithIpv6Extensions(Icmp6(128, kVmLinkLocal), twenty), mapped64),
             "drop");
   sim::FaultClear();
   EXPECT_EQ(filter->stats.statRaGuardDrops, 2u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{kIncomplete});
   ExpectNoLeak();
}
