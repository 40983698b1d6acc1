/*
 * Header parser of the simulated host: the table each frame carries and the
 * finds made on it.
 */
#include <gtest/gtest.h>

#include <ostream>

#include "raw_frame_bytes.h"
#include "sim_core.h"
#include "sim_frames.h"

using namespace fb;

namespace {

struct Row {
   uint32_t layer;
   uint16_t type;
   uint16_t offset;
   uint16_t nextProto;
   uint16_t nextOffset;
   bool operator==(const Row &) const = default;
};

void PrintTo(const Row &r, std::ostream *os) {
   *os << "{layer " << r.layer << std::hex << ", type 0x" << r.type << std::dec
       << ", offset " << r.offset << ", nextProto " << r.nextProto
       << ", nextOffset " << r.nextOffset << "}";
}

std::vector<Row> Table(zek_Pkt *pkt) {
   std::vector<Row> rows;
   for (const sim::HeaderInfo &h : sim::FrameHeaders(pkt)) {
      rows.push_back({h.layer, h.entry.type, h.entry.offset, h.entry.nextProto,
                      h.entry.nextOffset});
   }
   return rows;
}

std::vector<Row> TableOf(const Bytes &bytes,
                         const sim::FrameOptions &opts = sim::FrameOptions()) {
   zek_Pkt *pkt = sim::MakeFrame(bytes, opts);
   std::vector<Row> rows = Table(pkt);
   zek_PktRelease(pkt);
   return rows;
}

/* A find; *entry is left at a marker when nothing is found. */
zek_PktHeaderEntry gMarker;
zek_Status Find(zek_Pkt *pkt, uint32_t layer, uint32_t type, uint32_t occurrence,
                zek_PktHeaderEntry **entry) {
   *entry = &gMarker;
   return zek_PktHeaderFind(pkt, layer, type, occurrence, entry, 0);
}

constexpr zek_Status kNotFound = 0xbad0003;

const Row kEthIpv4{0, ZEK_PKT_TYPE_ETH, 0, 0x0800, 14};
const Row kEthIpv6{0, ZEK_PKT_TYPE_ETH, 0, 0x86dd, 14};

} // namespace

TEST(SimParser, Ipv4Udp) {
   sim::Reset();
   zek_Pkt *pkt = sim::MakeFrame(Eth(0x0800, Ipv4(17, Udp(Counting(10)))));
   EXPECT_EQ(Table(pkt), (std::vector<Row>{
                            kEthIpv4,
                            {1, ZEK_PKT_TYPE_IPV4, 14, 17, 34},
                            {2, ZEK_PKT_TYPE_UDP, 34, 0, 42},
                         }));
   zek_PktHeaderEntry *e;
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_CLASS_L4, 1, &e), ZEK_OK);
   EXPECT_EQ(e->type, ZEK_PKT_TYPE_UDP);
   EXPECT_EQ(e->offset, 34);
   EXPECT_EQ(e->nextOffset, 42);
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_3, ZEK_PKT_TYPE_IPV4, 1, &e), ZEK_OK);
   EXPECT_EQ(e->nextProto, 17);
   EXPECT_EQ(Find(pkt, ZEK_PKT_LAYER_3, ZEK_PKT_TYPE_IPV4, 2, &e), kNotFound);
   EXPECT_EQ(e, &gMarker);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, Ipv4TcpWithOptions) {
   sim::Reset();
   /* IHL 7 (8 option bytes), TCP data offset 8 (12 option bytes). */
   EXPECT_EQ(TableOf(Eth(0x0800, Ipv4(6, Tcp(8, Counting(5)), Counting(8)))),
             (std::vector<Row>{
                kEthIpv4,
                {1, ZEK_PKT_TYPE_IPV4, 14, 6, 42},
                {2, ZEK_PKT_TYPE_TCP, 42, 0, 74},
             }));
   EXPECT_EQ(TableOf(Eth(0x0800, Ipv4(6, Tcp(5, {})))),
             (std::vector<Row>{
                kEthIpv4,
                {1, ZEK_PKT_TYPE_IPV4, 14, 6, 34},
                {2, ZEK_PKT_TYPE_TCP, 34, 0, 54},
             }));
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, Ipv4OtherProtocol) {
   sim::Reset();
   EXPECT_EQ(TableOf(Eth(0x0800, Ipv4(1, Counting(8)))),
             (std::vector<Row>{
                kEthIpv4,
                {1, ZEK_PKT_TYPE_IPV4, 14, 1, 34},
                {2, ZEK_PKT_TYPE_OTHER_L4, 34, 0, 34},
             }));
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, Ipv4Fragments) {
   sim::Reset();
   /* First fragment: the transport header is there. */
   EXPECT_EQ(TableOf(Eth(0x0800, Ipv4(17, Udp(Counting(8)), {}, 0, true))),
             (std::vector<Row>{
                kEthIpv4,
                {1, ZEK_PKT_TYPE_IPV4, 14, 17, 34},
                {2, ZEK_PKT_TYPE_UDP, 34, 0, 42},
             }));
   /* Later fragment: no layer 4 entry. */
   zek_Pkt *pkt = sim::MakeFrame(Eth(0x0800, Ipv4(17, Counting(16), {}, 185)));
   EXPECT_EQ(Table(pkt), (std::vector<Row>{
                            kEthIpv4,
                            {1, ZEK_PKT_TYPE_IPV4, 14, 17, 34},
                         }));
   zek_PktHeaderEntry *e;
   EXPECT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_CLASS_L4, 1, &e), kNotFound);
   EXPECT_EQ(e, &gMarker);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, Ipv6Udp) {
   sim::Reset();
   EXPECT_EQ(TableOf(Eth(0x86dd, Ipv6(17, Udp(Counting(4))))),
             (std::vector<Row>{
                kEthIpv6,
                {1, ZEK_PKT_TYPE_IPV6, 14, 17, 54},
                {2, ZEK_PKT_TYPE_UDP, 54, 0, 62},
             }));
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, Ipv6Icmpv6) {
   sim::Reset();
   zek_Pkt *pkt = sim::MakeFrame(Eth(0x86dd, Ipv6(58, Icmp6(Counting(4)))));
   EXPECT_EQ(Table(pkt), (std::vector<Row>{
                            kEthIpv6,
                            {1, ZEK_PKT_TYPE_IPV6, 14, 58, 54},
                            {2, ZEK_PKT_TYPE_ICMPV6, 54, 0, 58},
                         }));
   zek_PktHeaderEntry *e;
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_TYPE_ICMPV6, 1, &e), ZEK_OK);
   EXPECT_EQ(e->offset, 54);
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_CLASS_L4, 1, &e), ZEK_OK);
   EXPECT_EQ(e->type, ZEK_PKT_TYPE_ICMPV6);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, Ipv6ExtensionChain) {
   sim::Reset();
   /* Hop-by-hop (8 bytes), routing (16), destination options (24), TCP. */
   zek_Pkt *pkt = sim::MakeFrame(
      Eth(0x86dd, Ipv6(0, Ext(43, 0, Ext(60, 1, Ext(6, 2, Tcp(5, Counting(3))))))));
   EXPECT_EQ(Table(pkt), (std::vector<Row>{
                            kEthIpv6,
                            {1, ZEK_PKT_TYPE_IPV6, 14, 0, 54},
                            {2, ZEK_PKT_TYPE_IPV6_HOPOPT, 54, 43, 62},
                            {2, ZEK_PKT_TYPE_IPV6_ROUTING, 62, 60, 78},
                            {2, ZEK_PKT_TYPE_IPV6_DSTOPT, 78, 6, 102},
                            {2, ZEK_PKT_TYPE_TCP, 102, 0, 122},
                         }));
   zek_PktHeaderEntry *e;
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_CLASS_L3, 3, &e), ZEK_OK);
   EXPECT_EQ(e->type, ZEK_PKT_TYPE_IPV6_DSTOPT);
   EXPECT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_CLASS_L3, 4, &e), kNotFound);
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_CLASS_L4, 1, &e), ZEK_OK);
   EXPECT_EQ(e->type, ZEK_PKT_TYPE_TCP);
   EXPECT_EQ(e->offset, 102);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, Ipv6FirstFragment) {
   sim::Reset();
   zek_Pkt *pkt =
      sim::MakeFrame(Eth(0x86dd, Ipv6(44, Frag(17, 0, true, Udp(Counting(8))))));
   EXPECT_EQ(Table(pkt), (std::vector<Row>{
                            kEthIpv6,
                            {1, ZEK_PKT_TYPE_IPV6, 14, 44, 54},
                            {2, ZEK_PKT_TYPE_IPV6_FRAGMENT, 54, 17, 62},
                            {2, ZEK_PKT_TYPE_UDP, 62, 0, 70},
                         }));
   zek_PktHeaderEntry *e;
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_TYPE_IPV6_FRAGMENT, 1, &e),
             ZEK_OK);
   EXPECT_EQ(e->offset, 54);
   EXPECT_EQ(e->nextProto, 17);
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_CLASS_L4, 1, &e), ZEK_OK);
   EXPECT_EQ(e->type, ZEK_PKT_TYPE_UDP);
   EXPECT_EQ(e->offset, 62);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, Ipv6NonFirstFragment) {
   sim::Reset();
   zek_Pkt *pkt =
      sim::MakeFrame(Eth(0x86dd, Ipv6(44, Frag(17, 100, false, Counting(16)))));
   EXPECT_EQ(Table(pkt), (std::vector<Row>{
                            kEthIpv6,
                            {1, ZEK_PKT_TYPE_IPV6, 14, 44, 54},
                            {2, ZEK_PKT_TYPE_IPV6_FRAGMENT, 54, 17, 62},
                         }));
   zek_PktHeaderEntry *e;
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_TYPE_IPV6_FRAGMENT, 1, &e),
             ZEK_OK);
   EXPECT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_CLASS_L4, 1, &e), kNotFound);
   EXPECT_EQ(e, &gMarker);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, Ipv6WithoutFragmentHeader) {
   sim::Reset();
   zek_Pkt *pkt = sim::MakeFrame(Eth(0x86dd, Ipv6(17, Udp({}))));
   zek_PktHeaderEntry *e;
   EXPECT_EQ(Find(pkt, ZEK_PKT_LAYER_4, ZEK_PKT_TYPE_IPV6_FRAGMENT, 1, &e),
             kNotFound);
   EXPECT_EQ(e, &gMarker);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, Arp) {
   sim::Reset();
   /* Padded to the Ethernet minimum; the padding is not a header. */
   EXPECT_EQ(TableOf(Eth(0x0806, Cat({Arp(), Bytes(18, 0)}))),
             (std::vector<Row>{
                {0, ZEK_PKT_TYPE_ETH, 0, 0x0806, 14},
                {1, ZEK_PKT_TYPE_ARP, 14, 0, 42},
             }));
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, TaggedFrameIsStrippedIntoMetadata) {
   sim::Reset();
   const Bytes inner = Ipv4(17, Udp(Counting(6)));
   sim::FrameOptions opts;
   opts.vlan = 7; /* the tag wins over the metadata asked for */
   zek_Pkt *pkt = sim::MakeFrame(EthTagged(100, 0x0800, inner), opts);
   EXPECT_EQ(zek_PktVlanIDGet(pkt), 100);
   EXPECT_EQ(sim::FrameBytes(pkt), Eth(0x0800, inner));
   EXPECT_EQ(zek_PktFrameLenGet(pkt), 14 + inner.size());
   EXPECT_EQ(zek_PktFrameMappedLenGet(pkt), 14 + inner.size());
   EXPECT_EQ(Table(pkt), (std::vector<Row>{
                            kEthIpv4,
                            {1, ZEK_PKT_TYPE_IPV4, 14, 17, 34},
                            {2, ZEK_PKT_TYPE_UDP, 34, 0, 42},
                         }));
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, SecondTagIsSkipped) {
   sim::Reset();
   /* Outer tag 100 goes to the metadata; the inner tag 200 stays. */
   Bytes innerTag;
   Put16(innerTag, 200);
   Put16(innerTag, 0x0800);
   zek_Pkt *pkt = sim::MakeFrame(
      EthTagged(100, 0x8100, Cat({innerTag, Ipv4(17, Udp(Counting(2)))})));
   EXPECT_EQ(zek_PktVlanIDGet(pkt), 100);
   EXPECT_EQ(zek_PktFrameLenGet(pkt), 18u + 20 + 8 + 2);
   EXPECT_EQ(Table(pkt), (std::vector<Row>{
                            {0, ZEK_PKT_TYPE_ETH, 0, 0x0800, 18},
                            {1, ZEK_PKT_TYPE_IPV4, 18, 17, 38},
                            {2, ZEK_PKT_TYPE_UDP, 38, 0, 46},
                         }));
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, TruncatedFrames) {
   sim::Reset();
   const Row ipv4Udp{1, ZEK_PKT_TYPE_IPV4, 14, 17, 34};
   const Row ipv6Udp{1, ZEK_PKT_TYPE_IPV6, 14, 17, 54};

   const Bytes v4udp = Eth(0x0800, Ipv4(17, Udp({})));
   EXPECT_EQ(TableOf(Cut(v4udp, 13)), std::vector<Row>{});
   EXPECT_EQ(TableOf(Cut(v4udp, 14)), std::vector<Row>{kEthIpv4});
   EXPECT_EQ(TableOf(Cut(v4udp, 33)), std::vector<Row>{kEthIpv4});
   EXPECT_EQ(TableOf(Cut(v4udp, 41)), (std::vector<Row>{kEthIpv4, ipv4Udp}));
   EXPECT_EQ(TableOf(v4udp).size(), 3u);

   /* IPv4 options cut: no IPv4 entry. */
   EXPECT_EQ(TableOf(Cut(Eth(0x0800, Ipv4(17, Udp({}), Counting(8))), 38)),
             std::vector<Row>{kEthIpv4});

   /* TCP options cut: the fixed header is there, its end is taken as 20. */
   EXPECT_EQ(TableOf(Cut(Eth(0x0800, Ipv4(6, Tcp(8, {}))), 34 + 24)),
             (std::vector<Row>{kEthIpv4,
                               {1, ZEK_PKT_TYPE_IPV4, 14, 6, 34},
                               {2, ZEK_PKT_TYPE_TCP, 34, 0, 54}}));
   EXPECT_EQ(TableOf(Cut(Eth(0x0800, Ipv4(6, Tcp(5, {}))), 34 + 19)),
             (std::vector<Row>{kEthIpv4, {1, ZEK_PKT_TYPE_IPV4, 14, 6, 34}}));

   const Bytes v6udp = Eth(0x86dd, Ipv6(17, Udp({})));
   EXPECT_EQ(TableOf(Cut(v6udp, 53)), std::vector<Row>{kEthIpv6});
   EXPECT_EQ(TableOf(Cut(v6udp, 61)), (std::vector<Row>{kEthIpv6, ipv6Udp}));

   /* A cut extension header ends the walk: no entry for it, no L4. */
   EXPECT_EQ(TableOf(Cut(Eth(0x86dd, Ipv6(0, Ext(17, 1, Udp({})))), 54 + 10)),
             (std::vector<Row>{kEthIpv6, {1, ZEK_PKT_TYPE_IPV6, 14, 0, 54}}));
   EXPECT_EQ(TableOf(Cut(Eth(0x86dd, Ipv6(44, Frag(17, 0, false, Udp({})))),
                         54 + 7)),
             (std::vector<Row>{kEthIpv6, {1, ZEK_PKT_TYPE_IPV6, 14, 44, 54}}));

   EXPECT_EQ(TableOf(Cut(Eth(0x86dd, Ipv6(58, Icmp6({}))), 57)),
             (std::vector<Row>{kEthIpv6, {1, ZEK_PKT_TYPE_IPV6, 14, 58, 54}}));

   EXPECT_EQ(TableOf(Cut(Eth(0x0806, Arp()), 14 + 27)),
             (std::vector<Row>{{0, ZEK_PKT_TYPE_ETH, 0, 0x0806, 14}}));

   /* Wrong IP version for the EtherType: no layer 1 entry. */
   EXPECT_EQ(TableOf(Eth(0x0800, Ipv6(17, Udp({})))),
             std::vector<Row>{kEthIpv4});
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, ReadsHeadersThroughScatterGather) {
   sim::Reset();
   const Bytes bytes =
      Eth(0x86dd, Ipv6(0, Ext(43, 0, Ext(60, 1, Ext(6, 2, Tcp(5, {}))))));
   sim::FrameOptions opts;
   opts.mapped = 14;
   opts.sg = {10, 30, 20};
   EXPECT_EQ(TableOf(bytes, opts), TableOf(bytes));
   EXPECT_EQ(TableOf(bytes, opts).size(), 6u);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimParser, FindByClassTypeAndLayer) {
   sim::Reset();
   zek_Pkt *pkt = sim::MakeFrame(Eth(0x0800, Ipv4(17, Udp({}))));
   zek_PktHeaderEntry *e;
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_2, ZEK_PKT_CLASS_L2, 1, &e), ZEK_OK);
   EXPECT_EQ(e->type, ZEK_PKT_TYPE_ETH);
   EXPECT_EQ(e->nextProto, 0x0800);
   ASSERT_EQ(Find(pkt, ZEK_PKT_LAYER_3, ZEK_PKT_CLASS_L3, 1, &e), ZEK_OK);
   EXPECT_EQ(e->type, ZEK_PKT_TYPE_IPV4);
   EXPECT_EQ(Find(pkt, ZEK_PKT_LAYER_3, ZEK_PKT_TYPE_IPV6, 1, &e), kNotFound);
   EXPECT_EQ(Find(pkt, ZEK_PKT_LAYER_3, ZEK_PKT_TYPE_ETH, 1, &e), kNotFound);
   EXPECT_EQ(Find(pkt, ZEK_PKT_LAYER_3, ZEK_PKT_CLASS_L4, 1, &e), kNotFound);
   EXPECT_EQ(Find(pkt, ZEK_PKT_LAYER_3, ZEK_PKT_TYPE_IPV4, 0, &e), kNotFound);
   EXPECT_EQ(e, &gMarker);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}
