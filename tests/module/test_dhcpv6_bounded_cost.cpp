/*
 * What one DHCPv6 frame can make the module allocate.  Every IA option of
 * a message, and every IA Address option of an IA, gets a node while the
 * message is read; a VM (or a server behind it) fills a jumbo frame with
 * them.  The readers track at most VIGIL_DHCPV6_MAX_IAS IAs per message
 * and VIGIL_DHCPV6_MAX_IA_ADDRS addresses per IA, so that the module heap
 * use and the work of one frame are bounded whatever the frame holds; what
 * lies beyond is passed over with one throttled line.  A client message
 * longer than VIGIL_DHCPV6_MAX_MSG_COPY is not kept as a pending request.
 * Messages within the caps are tracked as before.
 */
#include <algorithm>

#include "ipv6_db_test.h"
#include "vigil_dhcpv6.h"
#include "vigil_dhcpv6_track.h"

using namespace v6db;

namespace {

using Options = std::vector<std::pair<uint16_t, Bytes>>;

const char *const kServerMac = "02:00:00:00:00:01";
const char *const kServerLl = "fe80::1";
const char *const kAllAgents = "ff02::1:2";
const char *const kAllAgentsMac = "33:33:00:01:00:02";
constexpr u32 kXid = 0xa1b2c3;
/* A jumbo frame: 9000 bytes of IPv6 packet, so 8952 of DHCPv6 message. */
constexpr size_t kJumboMsg = 9000 - 40 - 8;

void Put16(Bytes &b, u32 v) {
   b.push_back((u8)(v >> 8));
   b.push_back((u8)v);
}
void Put32(Bytes &b, u32 v) {
   Put16(b, v >> 16);
   Put16(b, v & 0xffff);
}

Bytes Tlv(u16 code, const Bytes &value) {
   Bytes b;
   Put16(b, code);
   Put16(b, (u32)value.size());
   b.insert(b.end(), value.begin(), value.end());
   return b;
}

Bytes Duid(const std::string &mac) {
   Bytes b = {0, 3, 0, 1};
   MacAddr m = MacOf(mac);
   b.insert(b.end(), m.begin(), m.end());
   return b;
}

/* 2001:db8::1:N */
std::string AddrN(u32 n) {
   char text[64];
   snprintf(text, sizeof text, "2001:db8::1:%x", n);
   return text;
}

Bytes IaAddrSub(u32 n, u32 preferred = 3600, u32 valid = 7200) {
   Addr6 a = Ip6(AddrN(n));
   Bytes v(a.begin(), a.end());
   Put32(v, preferred);
   Put32(v, valid);
   return Tlv(5, v);
}

/* An IA_NA with `addrs` addresses numbered from `first`. */
Bytes IaNa(u32 iaid, u32 addrs, u32 first = 0) {
   Bytes v;
   Put32(v, iaid);
   Put32(v, 3600);
   Put32(v, 5760);
   for (u32 i = 0; i < addrs; i++) {
      Bytes a = IaAddrSub(first + i);
      v.insert(v.end(), a.begin(), a.end());
   }
   return v;
}

Bytes IaTa(u32 iaid) {
   Bytes v;
   Put32(v, iaid);
   return v;
}

const Bytes kClientDuid = Duid(kVmMac);
const Bytes kServerDuid = Duid(kServerMac);

/* Message bytes the identifiers take: two options of 14 bytes, and the
 * 4-byte message header. */
constexpr size_t kFixed = 4 + 2 * (4 + 10);

Bytes Client(u8 type, const Options &ias) {
   Options opts = {{1, kClientDuid}, {2, kServerDuid}};
   opts.insert(opts.end(), ias.begin(), ias.end());
   return frames::Dhcpv6Frame(kVmMac, kAllAgentsMac, {kVmLinkLocal, kAllAgents, 1}, 546, 547,
                              type, kXid, opts);
}

Bytes Reply(const Options &ias) {
   Options opts = ias;
   opts.push_back({1, kClientDuid});
   opts.push_back({2, kServerDuid});
   return frames::Dhcpv6Frame(kServerMac, kVmMac, {kServerLl, kVmLinkLocal, 255}, 547, 546, 7,
                              kXid, opts);
}

/* As many IA_TA options as a jumbo frame holds: 8 bytes each. */
Options ManyIaTas(u32 count) {
   Options ias;
   for (u32 i = 0; i < count; i++) {
      ias.push_back({4, IaTa(0x100 + i)});
   }
   return ias;
}

constexpr u32 kJumboIaTas = (kJumboMsg - kFixed) / 8;          /* 1114 */
constexpr u32 kJumboIaAddrs = (kJumboMsg - kFixed - 16) / 28; /* 317 */

} // namespace

class Dhcpv6BoundedCostTest : public Ipv6DbTest {
protected:
   void SetUp() override {
      Ipv6DbTest::SetUp();
      filter->discoveryFlags = VIGIL_DISC_DHCPV6;
   }

   void TearDown() override {
      if (filter != nullptr) {
         WithWriteLock([this] {
            while (!VigilListIsEmpty(&filter->dhcpV6ReqList)) {
               VigilDelDhcpV6Req(filter,
                                 VIGIL_DHCPV6_REQ_FROM_LINKS(filter->dhcpV6ReqList.next));
            }
         });
      }
      Ipv6DbTest::TearDown();
   }

   struct Cost {
      u64 allocs;    /* module allocations the frame made */
      u64 peakBytes; /* the most module heap bytes it held at once */
   };

   /* Sends one frame and measures its module heap use.  The heap's peak
    * is its highest use ever, so the frame's own peak shows only while the
    * heap has never held more than it holds now; otherwise peakBytes is
    * left 0. */
   Cost Measure(bool tx, const Bytes &frame) {
      sim::HeapStats before = sim::GetHeapStats(heapID);
      EXPECT_EQ(tx ? Tx1(frame) : Rx1(frame), "forward");
      sim::HeapStats after = sim::GetHeapStats(heapID);
      u64 peak = before.peak == before.inUse ? after.peak - before.inUse : 0;
      return {after.totalAllocs - before.totalAllocs, peak};
   }

   /* How many times `text` was logged since the last look. */
   size_t Lines(const std::string &text) {
      std::vector<std::string> texts = LogTexts();
      return (size_t)std::count(texts.begin(), texts.end(), text);
   }

   /* The DHCPv6 bindings, as their addresses in list order. */
   std::vector<std::string> BoundAddrs() {
      std::vector<std::string> out;
      for (VigilV6Vmi *vmi : Bindings()) {
         char text[64];
         inet_ntop(AF_INET6, vmi->ip, text, sizeof text);
         out.push_back(text);
      }
      std::sort(out.begin(), out.end());
      return out;
   }

   static std::vector<std::string> Addrs(u32 first, u32 count) {
      std::vector<std::string> out;
      for (u32 i = 0; i < count; i++) out.push_back(AddrN(first + i));
      std::sort(out.begin(), out.end());
      return out;
   }
};

namespace {

const std::string kIasCapped =
   "Filter 0x10 DHCPv6 message has more than 8 IAs, the rest are not tracked";
std::string AddrsCapped(u32 iaid) {
   char text[128];
   snprintf(text, sizeof text,
            "Filter 0x10 DHCPv6 IA %#x has more than 8 addresses, the rest are not tracked", iaid);
   return text;
}

} // namespace

/* ------------------------------------------------ worst-case frames */

/* A Request filling a jumbo frame with IA_TA options (1115 of them):
 * eight IA nodes while it is read, and no copy: the message is longer than
 * a pending request may keep. */
TEST_F(Dhcpv6BoundedCostTest, JumboRequestWithAThousandIasAllocatesEightNodesAndIsNotKept) {
   static_assert(VIGIL_DHCPV6_MAX_IAS == 8 && VIGIL_DHCPV6_MAX_IA_ADDRS == 8 &&
                    VIGIL_DHCPV6_MAX_MSG_COPY == 2048,
                 "the caps");
   Bytes frame = Client(3, ManyIaTas(kJumboIaTas));
   ASSERT_EQ(frame.size(), 9014u);
   Cost cost = Measure(true, frame);
   EXPECT_EQ(cost.allocs, 8u);
   EXPECT_EQ(cost.peakBytes, 8 * sizeof(VigilIaOpt));
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   std::vector<std::string> texts = LogTexts();
   EXPECT_EQ(std::count(texts.begin(), texts.end(), kIasCapped), 1);
   EXPECT_EQ(std::count(texts.begin(), texts.end(),
                        "Filter 0x10 DHCPv6 message of 8952 bytes is longer than 2048, not "
                        "tracked"),
             1);
   ExpectNoLeak();
}

/* The longest message kept: 2048 bytes, 252 IA_TAs.  Its copy and eight
 * IA nodes; one byte more and it is not kept. */
TEST_F(Dhcpv6BoundedCostTest, RequestOfTheLongestKeptLengthIsKeptWithEightIaNodes) {
   Bytes frame = Client(3, ManyIaTas((2048 - kFixed) / 8));
   ASSERT_EQ(frame.size(), 14u + 40u + 8u + 2048u);
   Cost cost = Measure(true, frame);
   EXPECT_EQ(cost.allocs, 9u);
   EXPECT_EQ(cost.peakBytes,
             sizeof(VigilDhcpV6Req) + 2048 + kClientDuid.size() + 8 * sizeof(VigilIaOpt));
   EXPECT_EQ(filter->numDhcpV6Reqs, 1u);
   EXPECT_EQ(Lines(kIasCapped), 1u);

   Options longer = ManyIaTas((2048 - kFixed) / 8);
   longer.push_back({21, {}}); /* four bytes more */
   EXPECT_EQ(Tx1(frames::Dhcpv6Frame(kVmMac, kAllAgentsMac, {kVmLinkLocal, kAllAgents, 1}, 546,
                                     547, 3, kXid + 1, [&] {
                                        Options o = {{1, kClientDuid}, {2, kServerDuid}};
                                        o.insert(o.end(), longer.begin(), longer.end());
                                        return o;
                                     }())),
             "forward");
   EXPECT_EQ(filter->numDhcpV6Reqs, 1u);
   std::vector<std::string> texts = LogTexts();
   EXPECT_EQ(std::count(texts.begin(), texts.end(),
                        "Filter 0x10 DHCPv6 message of 2052 bytes is longer than 2048, not "
                        "tracked"),
             1);
   ExpectNoLeak();
}

/* A Release whose one IA_NA carries as many addresses as a kept message
 * holds (71): the frame's IA node, the message copy, and the copy's IA
 * with eight address nodes. */
TEST_F(Dhcpv6BoundedCostTest, ReleaseWithSeventyAddressesReadsEightOfThem) {
   constexpr u32 kAddrs = (2048 - kFixed - 16) / 28;
   Bytes frame = Client(8, {{3, IaNa(1, kAddrs)}});
   const size_t msgLen = frame.size() - 14 - 40 - 8;
   ASSERT_LE(msgLen, 2048u);
   Cost cost = Measure(true, frame);
   EXPECT_EQ(cost.allocs, 1u + 1u + 1u + 8u);
   EXPECT_EQ(cost.peakBytes, sizeof(VigilDhcpV6Req) + msgLen + kClientDuid.size() +
                                2 * sizeof(VigilIaOpt) + 8 * sizeof(VigilIaAddrOpt));
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(Lines(AddrsCapped(1)), 1u);
   ExpectNoLeak();
}

/* A Reply granting 317 addresses in the IA a Request asked for: the two IA
 * nodes, eight address nodes, and for each of the eight addresses its
 * client id copy, the binding with its own copy and its portset message. */
TEST_F(Dhcpv6BoundedCostTest, ReplyWithThreeHundredAddressesBindsEight) {
   EXPECT_EQ(Tx1(Client(3, {{3, IaNa(1, 0)}})), "forward");
   sim::TakeLogs();
   Cost cost = Measure(false, Reply({{3, IaNa(1, kJumboIaAddrs)}}));
   EXPECT_EQ(cost.allocs, 2u + 8u + 8u * 4u);
   EXPECT_EQ(BoundAddrs(), Addrs(0, 8));
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(Lines(AddrsCapped(1)), 1u);
   EXPECT_EQ(MessageBytes().size(), 8u);
   ExpectNoLeak();
}

/* A Request of 252 IA_TAs answered by a jumbo Reply of 248 IA_TAs with an
 * address each: eight IAs of each message are read and matched (at most
 * eight times eight comparisons), and the first eight bind. */
TEST_F(Dhcpv6BoundedCostTest, ReplyToHundredsOfIasMatchesEightOfEach) {
   EXPECT_EQ(Tx1(Client(3, ManyIaTas((2048 - kFixed) / 8))), "forward");
   sim::TakeLogs();
   constexpr u32 kReplyIas = (kJumboMsg - kFixed) / 36;
   Options ias;
   for (u32 i = 0; i < kReplyIas; i++) {
      Bytes v = IaTa(0x100 + i);
      Bytes a = IaAddrSub(i);
      v.insert(v.end(), a.begin(), a.end());
      ias.push_back({4, v});
   }
   Cost cost = Measure(false, Reply(ias));
   EXPECT_EQ(cost.allocs, 8u + 8u + 8u + 8u * 4u);
   EXPECT_EQ(BoundAddrs(), Addrs(0, 8));
   /* Told for the Reply and for the stored Request. */
   EXPECT_EQ(Lines(kIasCapped), 2u);
   EXPECT_EQ(MessageBytes().size(), 8u);
   ExpectNoLeak();
}

/* --------------------------------------- well-formed messages unchanged */

TEST_F(Dhcpv6BoundedCostTest, EightIasOfOneAddressEachAllBind) {
   EXPECT_EQ(Tx1(Client(3, ManyIaTas(8))), "forward");
   Options ias;
   for (u32 i = 0; i < 8; i++) {
      Bytes v = IaTa(0x100 + i);
      Bytes a = IaAddrSub(i);
      v.insert(v.end(), a.begin(), a.end());
      ias.push_back({4, v});
   }
   EXPECT_EQ(Rx1(Reply(ias)), "forward");
   EXPECT_EQ(BoundAddrs(), Addrs(0, 8));
   EXPECT_EQ(Lines(kIasCapped), 0u);
   EXPECT_EQ(MessageBytes().size(), 8u);
   ExpectNoLeak();
}

TEST_F(Dhcpv6BoundedCostTest, TwoIasWithEightAndOneAddressesAllBind) {
   EXPECT_EQ(Tx1(Client(3, {{3, IaNa(1, 0)}, {3, IaNa(2, 0)}})), "forward");
   EXPECT_EQ(Rx1(Reply({{3, IaNa(1, 8, 0)}, {3, IaNa(2, 1, 8)}})), "forward");
   EXPECT_EQ(BoundAddrs(), Addrs(0, 9));
   std::vector<std::string> texts = LogTexts();
   EXPECT_EQ(std::count(texts.begin(), texts.end(), AddrsCapped(1)), 0);
   EXPECT_EQ(std::count(texts.begin(), texts.end(), AddrsCapped(2)), 0);
   EXPECT_EQ(MessageBytes().size(), 9u);
   ExpectNoLeak();
}

/* One past each cap: the ninth IA and the ninth address of an IA are
 * passed over, the rest of the message is tracked as before. */
TEST_F(Dhcpv6BoundedCostTest, NinthIaAndNinthAddressAreNotTracked) {
   EXPECT_EQ(Tx1(Client(3, ManyIaTas(9))), "forward");
   EXPECT_EQ(Lines(kIasCapped), 1u);
   Options ias;
   for (u32 i = 0; i < 9; i++) {
      Bytes v = IaTa(0x100 + i);
      Bytes a = IaAddrSub(i);
      v.insert(v.end(), a.begin(), a.end());
      ias.push_back({4, v});
   }
   EXPECT_EQ(Rx1(Reply(ias)), "forward");
   EXPECT_EQ(BoundAddrs(), Addrs(0, 8));
   EXPECT_EQ(Lines(kIasCapped), 2u);
   MessageBytes();
   WithWriteLock([this] { VigilClearV6Vmi(filter, true, 0, nullptr); });
   MessageBytes();

   EXPECT_EQ(Tx1(Client(3, {{3, IaNa(7, 0)}})), "forward");
   EXPECT_EQ(Rx1(Reply({{3, IaNa(7, 9, 0x20)}})), "forward");
   EXPECT_EQ(BoundAddrs(), Addrs(0x20, 8));
   EXPECT_EQ(Lines(AddrsCapped(7)), 1u);
   EXPECT_EQ(MessageBytes().size(), 8u);
   ExpectNoLeak();
}
