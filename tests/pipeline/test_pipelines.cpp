/*
 * The transmit and receive pipelines: DHCP blocks and client validation,
 * address enforcement, ARP, BPDU and non-IP checks, IPv6 hand-off, and what
 * receive leaves alone.
 */
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>

#include "scripted_callees.h"
#include "test_addresses.h"
#include "test_frames.h"
#include "vigil_test.h"

namespace {

using frames::Bytes;

constexpr u32 kPort = 0x10;
const char *const kPeerMac = "02:00:00:00:00:20";
const char *const kStpMac = "01:80:c2:00:00:00";
const char *const kV4McastMac = "01:00:5e:00:00:fb";
const char *const kV6McastMac = "33:33:00:01:00:02";

using addrtext::IpBytes;
using addrtext::MacBytes;

void SetDstMac(Bytes &bytes, const std::string &mac) {
   std::vector<u8> dst = MacBytes(mac);
   std::copy(dst.begin(), dst.end(), bytes.begin());
}

using Counters = std::array<u64, VIGIL_NUM_STAT_COUNTERS>;

Counters CountersOf(const VigilFilter *filter) {
   Counters out;
   std::memcpy(out.data(), &filter->stats, sizeof out);
   return out;
}

#define COUNTER(name) (offsetof(VigilStats, name) / sizeof(u64))

const char *const kCounterNames[VIGIL_NUM_STAT_COUNTERS] = {
   "statWardenV4Drops",         "statWardenV6Drops",        "statWardenArpDrops",
   "statWardenNdDrops",         "statNonIpDrops",           "statV4VmiAddRefused",
   "statV6VmiAddRefused",       "statTxBcastRateDrops",     "statRxBcastRateDrops",
   "statTxMcastRateDrops",      "statRxMcastRateDrops",     "statDhcpServerBlockDrops",
   "statDhcpV6ServerBlockDrops", "statDhcpClientBlockDrops", "statDhcpV6ClientBlockDrops",
   "statRaGuardDrops",          "statBpduDrops",            "statDhcpChaddrDrops",
};

/* Turns a rate limit on with `limit` frames per one-second window that
 * starts now. */
void SetRateLimit(VigilFilter *filter, u32 feature, u32 limit) {
   VigilRateLimiter *limiter = nullptr;
   switch (feature) {
   case VIGIL_FEAT_TX_BCAST_LIMIT:
      limiter = &filter->txBcastLimiter;
      filter->txBcastRateLimit = limit;
      break;
   case VIGIL_FEAT_TX_MCAST_LIMIT:
      limiter = &filter->txMcastLimiter;
      filter->txMcastRateLimit = limit;
      break;
   case VIGIL_FEAT_RX_BCAST_LIMIT:
      limiter = &filter->rxBcastLimiter;
      filter->rxBcastRateLimit = limit;
      break;
   case VIGIL_FEAT_RX_MCAST_LIMIT:
      limiter = &filter->rxMcastLimiter;
      filter->rxMcastRateLimit = limit;
      break;
   default:
      FAIL() << "not a rate limit bit: " << feature;
   }
   filter->featuresEnabled |= feature;
   limiter->periodSecs = 1;
   limiter->limit = limit;
   limiter->windowEnd = zek_GetTimerCycles();
   limiter->count = 0;
}

std::vector<std::string> SnoopNames() {
   std::vector<std::string> out;
   for (const scripted::SnoopCall &call : scripted::snoopCalls) {
      out.push_back(call.what);
   }
   return out;
}

/* Frames a VM sends. */
Bytes Tcp(const std::string &srcIp = "192.0.2.10") {
   return frames::TcpV4(frames::kVmMac, kPeerMac, srcIp, "192.0.2.1");
}
Bytes Client(const std::string &srcIp = "0.0.0.0", const std::string &chaddr = frames::kVmMac,
             const std::string &giaddr = "0.0.0.0") {
   return frames::DhcpClient(frames::kVmMac, chaddr, srcIp, 3, giaddr);
}
Bytes ServerReplyFromVm() { return frames::DhcpServer(frames::kVmMac, kPeerMac, 2); }
Bytes ArpFrom(const std::string &senderIp, const std::string &targetIp = "192.0.2.1",
              const std::string &senderMac = frames::kVmMac) {
   return frames::Arp(frames::kVmMac, senderMac, senderIp, targetIp);
}
Bytes NonIp(const std::string &dst = kPeerMac) {
   return frames::Ether(frames::kVmMac, dst, 0x88b5);
}
Bytes BpduTo(const std::string &dst = kStpMac) { return frames::Bpdu(frames::kVmMac, dst); }

} // namespace

class PipelineTest : public ScriptedPipelineTest {
protected:
   void SetUp() override {
      ScriptedPipelineTest::SetUp();
      filter = AddFilter(kPort);
   }

   std::string TxOne(const Bytes &bytes, const sim::FrameOptions &opts = {}) {
      return Tx(kPort, {frames::Make(bytes, opts)}).at(0);
   }
   std::string RxOne(const Bytes &bytes, const sim::FrameOptions &opts = {}) {
      return Rx(kPort, {frames::Make(bytes, opts)}).at(0);
   }

   /* The counters other than `except` are all zero. */
   void ExpectOtherCountersZero(std::initializer_list<size_t> except) {
      Counters counters = CountersOf(filter);
      for (size_t i = 0; i < counters.size(); i++) {
         if (std::find(except.begin(), except.end(), i) == except.end()) {
            EXPECT_EQ(counters[i], 0u) << kCounterNames[i];
         }
      }
   }

   VigilFilter *filter = nullptr;
};

class TxPipelineTest : public PipelineTest {};
class RxPipelineTest : public PipelineTest {};

/* --------------------------------------------------------------- DHCP */

TEST_F(TxPipelineTest, DhcpFirstFragmentToPort67IsValidatedButNotSnooped) {
   filter->featuresEnabled = VIGIL_FEAT_DHCP_SERVER_BLOCK;
   filter->discoveryFlags = VIGIL_DISC_DHCP;
   scripted::dhcpParses = true;

   Bytes fragment = Client();
   frames::SetIpv4Fragment(fragment, true, 0);
   EXPECT_EQ(TxOne(fragment), "forward");
   EXPECT_EQ(scripted::dhcpParseCalls, 1u);
   EXPECT_TRUE(scripted::snoopCalls.empty());

   /* Validation does run on it: a wrong chaddr is still caught. */
   Bytes wrongChaddr = Client("0.0.0.0", "02:00:00:00:00:99");
   frames::SetIpv4Fragment(wrongChaddr, true, 0);
   EXPECT_EQ(TxOne(wrongChaddr), "drop");
   EXPECT_EQ(filter->stats.statDhcpChaddrDrops, 1u);
   EXPECT_TRUE(scripted::snoopCalls.empty());

   /* The same frame unfragmented is snooped. */
   EXPECT_EQ(TxOne(Client()), "forward");
   EXPECT_EQ(SnoopNames(), std::vector<std::string>{"dhcpTx"});
}

TEST_F(TxPipelineTest, NonFirstFragmentOfADhcpFrameIsNeitherValidatedNorSnooped) {
   filter->featuresEnabled = VIGIL_FEAT_DHCP_SERVER_BLOCK | VIGIL_FEAT_DHCP_CLIENT_BLOCK;
   filter->discoveryFlags = VIGIL_DISC_DHCP;
   scripted::dhcpParses = true;
   Bytes fragment = Client();
   frames::SetIpv4Fragment(fragment, false, 4);
   EXPECT_EQ(TxOne(fragment), "forward");
   EXPECT_EQ(scripted::dhcpParseCalls, 0u);
   EXPECT_TRUE(scripted::snoopCalls.empty());
   EXPECT_EQ(filter->stats.statDhcpClientBlockDrops, 0u);
}

TEST_F(TxPipelineTest, WithoutServerBlockTheSourceOfAFrameToPort67IsNotJudged) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_SWITCH_WARDEN;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   scripted::dhcpParses = true;
   EXPECT_EQ(TxOne(Client("192.0.2.10", "02:00:00:00:00:99")), "forward");
   EXPECT_TRUE(scripted::wardenCalls.empty());
   EXPECT_EQ(scripted::dhcpParseCalls, 0u);
   ExpectOtherCountersZero({});
}

TEST_F(TxPipelineTest, FrameToPort68FromTheVmPassesWithoutServerBlock) {
   Bytes otherSource = frames::UdpV4(frames::kVmMac, kPeerMac, "203.0.113.9", "192.0.2.1",
                                     67, 68);
   for (u32 features : {VIGIL_FEAT_NON_IP_BLOCK, VIGIL_FEAT_PORT_WARDEN,
                        VIGIL_FEAT_SWITCH_WARDEN | VIGIL_FEAT_DHCP_CLIENT_BLOCK}) {
      SCOPED_TRACE(features);
      filter->featuresEnabled = features;
      scripted::wardenResult = VIGIL_ACTION_DROP;
      EXPECT_EQ(TxOne(ServerReplyFromVm()), "forward");
      EXPECT_EQ(TxOne(otherSource), "forward");
      EXPECT_TRUE(scripted::wardenCalls.empty());
   }
   ExpectOtherCountersZero({});
}

TEST_F(TxPipelineTest, FrameToPort68FromTheVmIsDroppedWithServerBlock) {
   filter->featuresEnabled = VIGIL_FEAT_DHCP_SERVER_BLOCK;
   EXPECT_EQ(TxOne(ServerReplyFromVm()), "drop");
   EXPECT_EQ(filter->stats.statDhcpServerBlockDrops, 1u);
   EXPECT_EQ(TxOne(frames::UdpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1", 5000,
                                 68)),
             "drop");
   EXPECT_EQ(filter->stats.statDhcpServerBlockDrops, 2u);
   EXPECT_EQ(scripted::dhcpParseCalls, 0u);
   ExpectOtherCountersZero({COUNTER(statDhcpServerBlockDrops)});
}

TEST_F(TxPipelineTest, ClientBlockDropsFramesToPort67BeforeAnyOtherCheck) {
   filter->featuresEnabled = VIGIL_FEAT_DHCP_CLIENT_BLOCK | VIGIL_FEAT_DHCP_SERVER_BLOCK |
                             VIGIL_FEAT_PORT_WARDEN;
   filter->discoveryFlags = VIGIL_DISC_DHCP;
   scripted::dhcpParses = true;
   EXPECT_EQ(TxOne(Client("192.0.2.10")), "drop");
   EXPECT_EQ(TxOne(frames::UdpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1", 5000,
                                 67)),
             "drop");
   EXPECT_EQ(filter->stats.statDhcpClientBlockDrops, 2u);
   EXPECT_EQ(scripted::dhcpParseCalls, 0u);
   EXPECT_TRUE(scripted::wardenCalls.empty());
   EXPECT_TRUE(scripted::snoopCalls.empty());
   ExpectOtherCountersZero({COUNTER(statDhcpClientBlockDrops)});
}

class DhcpClientValidationTest : public TxPipelineTest {
protected:
   void SetUp() override {
      TxPipelineTest::SetUp();
      filter->featuresEnabled = VIGIL_FEAT_DHCP_SERVER_BLOCK;
      scripted::dhcpParses = true;
   }
};

TEST_F(DhcpClientValidationTest, RelayedFramePassesWithoutTheChaddrCheck) {
   filter->featuresEnabled |= VIGIL_FEAT_PORT_WARDEN;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(Client("192.0.2.10", "02:00:00:00:00:99", "192.0.2.254")), "forward");
   EXPECT_EQ(scripted::dhcpParseCalls, 1u);
   EXPECT_TRUE(scripted::wardenCalls.empty());
   ExpectOtherCountersZero({});
}

TEST_F(DhcpClientValidationTest, ChaddrOtherThanTheSourceMacIsDropped) {
   EXPECT_EQ(TxOne(Client("0.0.0.0", "02:00:00:00:00:99")), "drop");
   EXPECT_EQ(filter->stats.statDhcpChaddrDrops, 1u);
   /* One differing byte is enough. */
   EXPECT_EQ(TxOne(Client("0.0.0.0", "02:00:00:00:00:11")), "drop");
   EXPECT_EQ(filter->stats.statDhcpChaddrDrops, 2u);
   EXPECT_EQ(TxOne(Client("0.0.0.0", frames::kVmMac)), "forward");
   ExpectOtherCountersZero({COUNTER(statDhcpChaddrDrops)});
}

TEST_F(DhcpClientValidationTest, ZeroSourceAddressPassesWithoutTheWarden) {
   filter->featuresEnabled |= VIGIL_FEAT_PORT_WARDEN;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(Client("0.0.0.0")), "forward");
   EXPECT_TRUE(scripted::wardenCalls.empty());
   ExpectOtherCountersZero({});
}

TEST_F(DhcpClientValidationTest, SourceWithoutAWardenBitPasses) {
   scripted::wardenResult = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(Client("192.0.2.10")), "forward");
   EXPECT_TRUE(scripted::wardenCalls.empty());
}

TEST_F(DhcpClientValidationTest, SourceTheWardenRefusesIsDroppedAndLoggedThrottled) {
   filter->featuresEnabled |= VIGIL_FEAT_SWITCH_WARDEN;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   sim::FrameOptions opts;
   opts.vlan = 5;
   EXPECT_EQ(TxOne(Client("192.0.2.10"), opts), "drop");
   EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);
   ExpectOtherCountersZero({COUNTER(statWardenV4Drops)});

   ASSERT_EQ(scripted::wardenCalls.size(), 1u);
   const scripted::WardenCall &call = scripted::wardenCalls[0];
   EXPECT_EQ(call.kind, VIGIL_WDN_IPV4);
   EXPECT_EQ(call.vlan, 5);
   EXPECT_EQ(call.mac, MacBytes(frames::kVmMac));
   EXPECT_EQ(call.addr, IpBytes("192.0.2.10"));
   EXPECT_TRUE(call.arpSenderMac.empty());
   EXPECT_EQ(call.obsvFlags, 3u);

   std::vector<sim::LogLine> lines = sim::TakeLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].log, "vigil.throttle");
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].text,
             "Filter 0x10 DHCP Warden failed, vlanId: 5, ethSA: 02:00:00:00:00:10, "
             "ipV4Sa :192.0.2.10, DHCP Message Type: 3");
}

TEST_F(DhcpClientValidationTest, SourceTheWardenAcceptsPasses) {
   filter->featuresEnabled |= VIGIL_FEAT_PORT_WARDEN;
   EXPECT_EQ(TxOne(Client("192.0.2.10")), "forward");
   EXPECT_EQ(scripted::wardenCalls.size(), 1u);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(DhcpClientValidationTest, UnparsableFramePasses) {
   filter->featuresEnabled |= VIGIL_FEAT_PORT_WARDEN;
   scripted::dhcpParses = false;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(Client("192.0.2.10", "02:00:00:00:00:99")), "forward");
   EXPECT_EQ(scripted::dhcpParseCalls, 1u);
   EXPECT_TRUE(scripted::wardenCalls.empty());
   ExpectOtherCountersZero({});
}

TEST_F(DhcpClientValidationTest, ValidatedFrameIsSnoopedWhenDhcpDiscoveryIsOn) {
   filter->discoveryFlags = VIGIL_DISC_DHCP;
   EXPECT_EQ(TxOne(Client()), "forward");
   EXPECT_EQ(SnoopNames(), std::vector<std::string>{"dhcpTx"});
   EXPECT_EQ(TxOne(Client("0.0.0.0", "02:00:00:00:00:99")), "drop");
   EXPECT_EQ(SnoopNames(), std::vector<std::string>{"dhcpTx"});
}

/* ---------------------------------------------------------------- ARP */

TEST_F(TxPipelineTest, ArpProbeAndLinkLocalSenderPassOnEveryPort) {
   const std::vector<std::pair<u32, u32>> ports = {
      {VIGIL_FEAT_PORT_WARDEN, 0},
      {VIGIL_FEAT_SWITCH_WARDEN, VIGIL_DISC_ARP},
      {VIGIL_FEAT_NON_IP_BLOCK | VIGIL_FEAT_BPDU_FILTER, 0},
      {VIGIL_FEAT_DHCP_SERVER_BLOCK, VIGIL_DISC_ARP | VIGIL_DISC_DHCP},
   };
   scripted::wardenResult = VIGIL_ACTION_DROP;
   scripted::snoopAction = VIGIL_ACTION_DROP;
   filter->bpduBitmap = ~0ull;
   for (const auto &[features, discovery] : ports) {
      filter->featuresEnabled = features;
      filter->discoveryFlags = discovery;
      for (const char *sender : {"0.0.0.0", "169.254.0.1", "169.254.255.254"}) {
         SCOPED_TRACE(std::to_string(features) + "/" + std::to_string(discovery) + " " +
                      sender);
         EXPECT_EQ(TxOne(ArpFrom(sender)), "forward");
      }
   }
   EXPECT_TRUE(scripted::wardenCalls.empty());
   EXPECT_TRUE(scripted::snoopCalls.empty());
   ExpectOtherCountersZero({});

   /* Just outside the link-local block is enforced. */
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   filter->discoveryFlags = 0;
   EXPECT_EQ(TxOne(ArpFrom("169.255.0.1")), "drop");
   EXPECT_EQ(TxOne(ArpFrom("168.254.0.1")), "drop");
   EXPECT_EQ(filter->stats.statWardenArpDrops, 2u);
}

TEST_F(TxPipelineTest, GratuitousArpWithArpSnoopingGoesToSnoopingNeverToTheWarden) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_SWITCH_WARDEN;
   filter->discoveryFlags = VIGIL_DISC_ARP;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(ArpFrom("192.0.2.10", "192.0.2.10")), "forward");
   EXPECT_EQ(SnoopNames(), std::vector<std::string>{"arp"});
   EXPECT_TRUE(scripted::wardenCalls.empty());

   /* What snooping answers is the verdict. */
   scripted::snoopAction = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(ArpFrom("192.0.2.10", "192.0.2.10")), "drop");
   EXPECT_TRUE(scripted::wardenCalls.empty());
   ExpectOtherCountersZero({});
}

TEST_F(TxPipelineTest, ArpWithoutSnoopingGoesToTheWardenWithSenderIpAndSenderMac) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN;
   sim::FrameOptions opts;
   opts.vlan = 12;
   EXPECT_EQ(TxOne(ArpFrom("192.0.2.10", "192.0.2.1", "02:00:00:00:00:33"), opts), "forward");
   ASSERT_EQ(scripted::wardenCalls.size(), 1u);
   const scripted::WardenCall &call = scripted::wardenCalls[0];
   EXPECT_EQ(call.kind, VIGIL_WDN_ARP);
   EXPECT_EQ(call.vlan, 12);
   EXPECT_EQ(call.mac, MacBytes(frames::kVmMac));
   EXPECT_EQ(call.addr, IpBytes("192.0.2.10"));
   EXPECT_EQ(call.arpSenderMac, MacBytes("02:00:00:00:00:33"));
   EXPECT_TRUE(scripted::snoopCalls.empty());

   scripted::wardenResult = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(ArpFrom("192.0.2.10")), "drop");
   EXPECT_EQ(filter->stats.statWardenArpDrops, 1u);
   ExpectOtherCountersZero({COUNTER(statWardenArpDrops)});
}

TEST_F(TxPipelineTest, ArpWithoutSnoopingOrWardenPasses) {
   filter->featuresEnabled = VIGIL_FEAT_NON_IP_BLOCK;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(ArpFrom("192.0.2.10")), "forward");
   EXPECT_TRUE(scripted::wardenCalls.empty());
   ExpectOtherCountersZero({});
}

TEST_F(TxPipelineTest, ArpMappedTooShortPasses) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   sim::FrameOptions opts;
   opts.mapped = 41; /* one byte short of the ARP body */
   EXPECT_EQ(TxOne(ArpFrom("192.0.2.10"), opts), "forward");
   EXPECT_TRUE(scripted::wardenCalls.empty());

   opts.mapped = 42;
   EXPECT_EQ(TxOne(ArpFrom("192.0.2.10"), opts), "drop");
   EXPECT_EQ(scripted::wardenCalls.size(), 1u);
}

TEST_F(TxPipelineTest, ArpFrameTooShortForItsBodyPasses) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_NON_IP_BLOCK;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   Bytes bytes = ArpFrom("192.0.2.10");
   bytes.resize(41);
   EXPECT_EQ(TxOne(bytes), "forward");
   EXPECT_TRUE(scripted::wardenCalls.empty());
   ExpectOtherCountersZero({});
}

TEST_F(TxPipelineTest, MalformedArpPasses) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   filter->discoveryFlags = VIGIL_DISC_ARP;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   scripted::snoopAction = VIGIL_ACTION_DROP;
   const std::vector<std::pair<std::string, std::function<void(Bytes &)>>> breaks = {
      {"hardware type 6", [](Bytes &b) { b[15] = 6; }},
      {"hardware type 0x0101", [](Bytes &b) { b[14] = 1; }},
      {"protocol type IPv6", [](Bytes &b) { b[16] = 0x86; b[17] = 0xdd; }},
      {"hardware length 8", [](Bytes &b) { b[18] = 8; }},
      {"protocol length 16", [](Bytes &b) { b[19] = 16; }},
   };
   for (const auto &[what, breakIt] : breaks) {
      SCOPED_TRACE(what);
      Bytes bytes = ArpFrom("192.0.2.10");
      breakIt(bytes);
      EXPECT_EQ(TxOne(bytes), "forward");
   }
   EXPECT_TRUE(scripted::wardenCalls.empty());
   EXPECT_TRUE(scripted::snoopCalls.empty());

   /* The unbroken frame reaches snooping. */
   EXPECT_EQ(TxOne(ArpFrom("192.0.2.10")), "drop");
   EXPECT_EQ(SnoopNames(), std::vector<std::string>{"arp"});
}

/* -------------------------------------------------------- BPDU and non-IP */

TEST_F(TxPipelineTest, BpduPassesWithNonIpBlockAndNoBpduFilter) {
   filter->featuresEnabled = VIGIL_FEAT_NON_IP_BLOCK;
   filter->bpduBitmap = ~0ull;
   EXPECT_EQ(TxOne(BpduTo()), "forward");
   ExpectOtherCountersZero({});
}

TEST_F(TxPipelineTest, BpduIsDroppedWhenTheFilterIsOnAndItsBitIsSet) {
   filter->featuresEnabled = VIGIL_FEAT_BPDU_FILTER;
   filter->bpduBitmap = 1;
   EXPECT_EQ(TxOne(BpduTo()), "drop");
   EXPECT_EQ(filter->stats.statBpduDrops, 1u);
   ExpectOtherCountersZero({COUNTER(statBpduDrops)});
}

TEST_F(TxPipelineTest, BpduPassesWhenItsBitIsClear) {
   filter->featuresEnabled = VIGIL_FEAT_BPDU_FILTER;
   filter->bpduBitmap = ~1ull;
   EXPECT_EQ(TxOne(BpduTo()), "forward");
   ExpectOtherCountersZero({});
}

TEST_F(TxPipelineTest, ExcludedListedAddressIsNotCaughtByTheNonIpBlock) {
   filter->featuresEnabled = VIGIL_FEAT_BPDU_FILTER | VIGIL_FEAT_NON_IP_BLOCK;
   filter->bpduBitmap = ~1ull;
   EXPECT_EQ(TxOne(BpduTo()), "forward");
   EXPECT_EQ(TxOne(NonIp(kStpMac)), "forward");
   ExpectOtherCountersZero({});
}

TEST_F(TxPipelineTest, UnlistedNonIpFrameIsDroppedByTheNonIpBlock) {
   filter->featuresEnabled = VIGIL_FEAT_NON_IP_BLOCK | VIGIL_FEAT_BPDU_FILTER;
   filter->bpduBitmap = ~0ull;
   EXPECT_EQ(TxOne(NonIp()), "drop");
   /* One past the listed 01:80:c2:00:00:0f is not listed. */
   EXPECT_EQ(TxOne(BpduTo("01:80:c2:00:00:10")), "drop");
   EXPECT_EQ(filter->stats.statNonIpDrops, 2u);
   ExpectOtherCountersZero({COUNTER(statNonIpDrops)});
}

TEST_F(TxPipelineTest, UnlistedNonIpFramePassesWithoutTheNonIpBlock) {
   filter->featuresEnabled = VIGIL_FEAT_BPDU_FILTER;
   filter->bpduBitmap = ~0ull;
   EXPECT_EQ(TxOne(NonIp()), "forward");
   ExpectOtherCountersZero({});
}

TEST_F(TxPipelineTest, EveryListedAddressMapsToItsBitIndex) {
   /* The addresses of link-layer control protocols, in bit order. */
   const std::vector<std::string> listed = {
      "01:80:c2:00:00:00", "01:80:c2:00:00:01", "01:80:c2:00:00:02", "01:80:c2:00:00:03",
      "01:80:c2:00:00:04", "01:80:c2:00:00:05", "01:80:c2:00:00:06", "01:80:c2:00:00:07",
      "01:80:c2:00:00:08", "01:80:c2:00:00:09", "01:80:c2:00:00:0a", "01:80:c2:00:00:0b",
      "01:80:c2:00:00:0c", "01:80:c2:00:00:0d", "01:80:c2:00:00:0e", "01:80:c2:00:00:0f",
      "00:e0:2b:00:00:00", "00:e0:2b:00:00:04", "00:e0:2b:00:00:06", "01:00:0c:00:00:00",
      "01:00:0c:cc:cc:cc", "01:00:0c:cc:cc:cd", "01:00:0c:cd:cd:cd", "01:00:0c:cc:cc:c0",
      "01:00:0c:cc:cc:c1", "01:00:0c:cc:cc:c2", "01:00:0c:cc:cc:c3", "01:00:0c:cc:cc:c4",
      "01:00:0c:cc:cc:c5", "01:00:0c:cc:cc:c6", "01:00:0c:cc:cc:c7",
   };
   ASSERT_EQ(listed.size(), 31u);
   ASSERT_EQ(numSupportedBpdus, 31u);
   filter->featuresEnabled = VIGIL_FEAT_BPDU_FILTER | VIGIL_FEAT_NON_IP_BLOCK;
   for (u32 bit = 0; bit < listed.size(); bit++) {
      SCOPED_TRACE(listed[bit] + " bit " + std::to_string(bit));
      EXPECT_EQ(std::memcmp(supportedBpduFilterMacs[bit], MacBytes(listed[bit]).data(), 6), 0);
      filter->bpduBitmap = 1ull << bit;
      EXPECT_EQ(TxOne(BpduTo(listed[bit])), "drop");
      filter->bpduBitmap = ~(1ull << bit);
      EXPECT_EQ(TxOne(BpduTo(listed[bit])), "forward");
   }
   EXPECT_EQ(filter->stats.statBpduDrops, 31u);
   EXPECT_EQ(filter->stats.statNonIpDrops, 0u);
   /* Bits above the table catch nothing. */
   filter->bpduBitmap = ~0ull << 31;
   EXPECT_EQ(TxOne(BpduTo()), "forward");
}

TEST_F(TxPipelineTest, NonIpFrameTheWardenDropsCountsAsNonIpAndSkipsTheBpduFilter) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_BPDU_FILTER;
   filter->bpduBitmap = ~0ull;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(BpduTo()), "drop");
   EXPECT_EQ(filter->stats.statNonIpDrops, 1u);
   EXPECT_EQ(filter->stats.statBpduDrops, 0u);
   ASSERT_EQ(scripted::wardenCalls.size(), 1u);
   EXPECT_EQ(scripted::wardenCalls[0].kind, VIGIL_WDN_L2);
   EXPECT_TRUE(scripted::wardenCalls[0].addr.empty());
   EXPECT_TRUE(scripted::wardenCalls[0].arpSenderMac.empty());
   ExpectOtherCountersZero({COUNTER(statNonIpDrops)});
}

TEST_F(TxPipelineTest, NonIpFrameTheWardenForwardsStillMeetsTheBpduFilter) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN | VIGIL_FEAT_BPDU_FILTER;
   filter->bpduBitmap = 1;
   EXPECT_EQ(TxOne(BpduTo()), "drop");
   EXPECT_EQ(filter->stats.statBpduDrops, 1u);
   EXPECT_EQ(scripted::wardenCalls.size(), 1u);
   ExpectOtherCountersZero({COUNTER(statBpduDrops)});
}

TEST_F(TxPipelineTest, IpAndArpFramesToAListedAddressAreNotFiltered) {
   filter->featuresEnabled = VIGIL_FEAT_BPDU_FILTER | VIGIL_FEAT_NON_IP_BLOCK;
   filter->bpduBitmap = ~0ull;
   Bytes udp = frames::UdpV4(frames::kVmMac, kStpMac, "192.0.2.10", "192.0.2.1", 5000, 5001);
   Bytes tcp = Tcp();
   SetDstMac(tcp, kStpMac);
   Bytes arp = ArpFrom("192.0.2.10");
   SetDstMac(arp, kStpMac);
   Bytes v6 = frames::UdpV6(frames::kVmMac, kStpMac, "2001:db8::10", "2001:db8::1", 5000, 5001);
   EXPECT_EQ(Tx(kPort, {frames::Make(udp), frames::Make(tcp), frames::Make(arp),
                        frames::Make(v6)}),
             (std::vector<std::string>{"forward", "forward", "forward", "forward"}));
   ExpectOtherCountersZero({});
}

/* ------------------------------------------------------- IPv4 and IPv6 */

TEST_F(TxPipelineTest, TcpOverIpv4GoesStraightToTheWarden) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_DHCP_SERVER_BLOCK;
   filter->discoveryFlags = VIGIL_DISC_DHCP;
   scripted::dhcpParses = true;
   EXPECT_EQ(TxOne(Tcp("198.51.100.7")), "forward");
   ASSERT_EQ(scripted::wardenCalls.size(), 1u);
   EXPECT_EQ(scripted::wardenCalls[0].kind, VIGIL_WDN_IPV4);
   EXPECT_EQ(scripted::wardenCalls[0].addr, IpBytes("198.51.100.7"));
   EXPECT_EQ(scripted::wardenCalls[0].mac, MacBytes(frames::kVmMac));
   EXPECT_EQ(scripted::wardenCalls[0].obsvFlags, 3u);
   EXPECT_EQ(scripted::dhcpParseCalls, 0u);
   EXPECT_TRUE(scripted::snoopCalls.empty());

   scripted::wardenResult = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(Tcp("198.51.100.7")), "drop");
   EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);
   ExpectOtherCountersZero({COUNTER(statWardenV4Drops)});
}

TEST_F(TxPipelineTest, UdpToAnotherPortGoesToTheWarden) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(frames::UdpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1", 67, 53)),
             "drop");
   EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);
}

TEST_F(TxPipelineTest, Ipv6FramesGoToTheIpv6HandlerAfterRateLimiting) {
   SetRateLimit(filter, VIGIL_FEAT_TX_MCAST_LIMIT, 1);
   filter->featuresEnabled |= VIGIL_FEAT_NON_IP_BLOCK | VIGIL_FEAT_PORT_WARDEN;
   scripted::wardenResult = VIGIL_ACTION_DROP;
   Bytes mcast = frames::UdpV6(frames::kVmMac, kV6McastMac, "2001:db8::10", "ff02::1:2", 546, 547);
   Bytes ucast = frames::UdpV6(frames::kVmMac, kPeerMac, "2001:db8::10", "2001:db8::1", 5000, 5001);
   EXPECT_EQ(Tx(kPort, {frames::Make(mcast), frames::Make(mcast), frames::Make(ucast)}),
             (std::vector<std::string>{"forward", "drop", "forward"}));
   EXPECT_EQ(SnoopNames(), (std::vector<std::string>{"ipv6Tx", "ipv6Tx"}));
   EXPECT_TRUE(scripted::wardenCalls.empty());
   EXPECT_EQ(filter->stats.statTxMcastRateDrops, 1u);
   ExpectOtherCountersZero({COUNTER(statTxMcastRateDrops)});

   scripted::snoopAction = VIGIL_ACTION_DROP;
   EXPECT_EQ(TxOne(ucast), "drop");
}

TEST_F(RxPipelineTest, Ipv6FramesGoToTheIpv6HandlerAfterRateLimiting) {
   SetRateLimit(filter, VIGIL_FEAT_RX_MCAST_LIMIT, 1);
   Bytes mcast = frames::UdpV6(kPeerMac, kV6McastMac, "2001:db8::1", "ff02::1:2", 547, 546);
   Bytes ucast = frames::UdpV6(kPeerMac, frames::kVmMac, "2001:db8::1", "2001:db8::10", 5000, 5001);
   EXPECT_EQ(Rx(kPort, {frames::Make(mcast), frames::Make(mcast), frames::Make(ucast)}),
             (std::vector<std::string>{"forward", "drop", "forward"}));
   EXPECT_EQ(SnoopNames(), (std::vector<std::string>{"ipv6Rx", "ipv6Rx"}));
   EXPECT_EQ(filter->stats.statRxMcastRateDrops, 1u);
   ExpectOtherCountersZero({COUNTER(statRxMcastRateDrops)});

   scripted::snoopAction = VIGIL_ACTION_DROP;
   EXPECT_EQ(RxOne(ucast), "drop");
}

/* ------------------------------------------------------------- receive */

TEST_F(RxPipelineTest, ServerReplyToPort68IsSnoopedWhenDhcpDiscoveryIsOn) {
   filter->discoveryFlags = VIGIL_DISC_DHCP;
   EXPECT_EQ(RxOne(frames::DhcpServer(frames::kServerMac, frames::kVmMac, 5)), "forward");
   EXPECT_EQ(SnoopNames(), std::vector<std::string>{"dhcpRx"});
   EXPECT_EQ(scripted::snoopCalls[0].holdsReadLock, 1);

   scripted::snoopAction = VIGIL_ACTION_DROP;
   EXPECT_EQ(RxOne(frames::DhcpServer(frames::kServerMac, frames::kVmMac, 5)), "drop");
}

TEST_F(RxPipelineTest, FragmentedServerReplyIsNotSnooped) {
   filter->discoveryFlags = VIGIL_DISC_DHCP;
   Bytes first = frames::DhcpServer(frames::kServerMac, frames::kVmMac, 5);
   frames::SetIpv4Fragment(first, true, 0);
   Bytes later = frames::DhcpServer(frames::kServerMac, frames::kVmMac, 5);
   frames::SetIpv4Fragment(later, false, 8);
   EXPECT_EQ(Rx(kPort, {frames::Make(first), frames::Make(later)}),
             (std::vector<std::string>{"forward", "forward"}));
   EXPECT_TRUE(scripted::snoopCalls.empty());
}

TEST_F(RxPipelineTest, ServerReplyIsNotSnoopedWithoutDhcpDiscovery) {
   filter->featuresEnabled = VIGIL_FEAT_DHCP_SERVER_BLOCK;
   filter->discoveryFlags = VIGIL_DISC_ARP;
   EXPECT_EQ(RxOne(frames::DhcpServer(frames::kServerMac, frames::kVmMac, 5)), "forward");
   EXPECT_TRUE(scripted::snoopCalls.empty());
}

TEST_F(RxPipelineTest, OnlyUdpToPort68IsSnooped) {
   filter->discoveryFlags = VIGIL_DISC_DHCP;
   Bytes toServerPort = frames::UdpV4(kPeerMac, frames::kVmMac, "192.0.2.1", "192.0.2.10", 68, 67);
   Bytes tcp = frames::TcpV4(kPeerMac, frames::kVmMac, "192.0.2.1", "192.0.2.10");
   Bytes arp = frames::Arp(kPeerMac, kPeerMac, "192.0.2.1", "192.0.2.10");
   EXPECT_EQ(Rx(kPort, {frames::Make(toServerPort), frames::Make(tcp), frames::Make(arp)}),
             (std::vector<std::string>{"forward", "forward", "forward"}));
   EXPECT_TRUE(scripted::snoopCalls.empty());
   EXPECT_EQ(RxOne(frames::UdpV4(kPeerMac, frames::kVmMac, "192.0.2.1", "192.0.2.10", 5000, 68)),
             "forward");
   EXPECT_EQ(SnoopNames(), std::vector<std::string>{"dhcpRx"});
}

TEST_F(RxPipelineTest, ReceiveRunsNoCheckOfTheTransmitSide) {
   filter->featuresEnabled = 0x3fff;
   filter->discoveryFlags = VIGIL_DISC_DHCP | VIGIL_DISC_ARP | VIGIL_DISC_ND;
   filter->bpduBitmap = ~0ull;
   for (u32 feature : {VIGIL_FEAT_RX_BCAST_LIMIT, VIGIL_FEAT_RX_MCAST_LIMIT,
                       VIGIL_FEAT_TX_BCAST_LIMIT, VIGIL_FEAT_TX_MCAST_LIMIT}) {
      SetRateLimit(filter, feature, 100);
   }
   scripted::wardenResult = VIGIL_ACTION_DROP;
   scripted::dhcpParses = true;
   std::vector<zek_Pkt *> batch = {
      frames::Make(frames::Bpdu(kPeerMac, kStpMac)),
      frames::Make(frames::Ether(kPeerMac, frames::kVmMac, 0x88b5)),
      frames::Make(frames::DhcpClient(kPeerMac, "02:00:00:00:00:99", "192.0.2.77", 3)),
      frames::Make(frames::DhcpServer(frames::kServerMac, frames::kVmMac, 5)),
      frames::Make(frames::TcpV4(kPeerMac, frames::kVmMac, "203.0.113.1", "192.0.2.10")),
      frames::Make(frames::Arp(kPeerMac, kPeerMac, "203.0.113.1", "192.0.2.10")),
   };
   EXPECT_EQ(Rx(kPort, batch), (std::vector<std::string>{"forward", "forward", "forward",
                                                         "forward", "forward", "forward"}));
   EXPECT_TRUE(scripted::wardenCalls.empty());
   EXPECT_EQ(scripted::dhcpParseCalls, 0u);
   EXPECT_EQ(SnoopNames(), std::vector<std::string>{"dhcpRx"});
   ExpectOtherCountersZero({});
   /* The group frames met their receive limiters, the transmit ones stay
    * untouched. */
   EXPECT_EQ(filter->rxMcastLimiter.count, 1u);
   EXPECT_EQ(filter->rxBcastLimiter.count, 2u);
   EXPECT_EQ(filter->txBcastLimiter.count, 0u);
   EXPECT_EQ(filter->txMcastLimiter.count, 0u);
}

/* ------------------------------------------------------- drops at a glance */

namespace {

struct DropRow {
   const char *check;
   bool transmit;
   std::function<void(VigilFilter *)> configure;
   std::function<Bytes()> frame;
   size_t counter;
};

std::vector<DropRow> DropRows() {
   auto features = [](u32 bits) {
      return [bits](VigilFilter *f) { f->featuresEnabled |= bits; };
   };
   auto limit = [](u32 bit) {
      return [bit](VigilFilter *f) { SetRateLimit(f, bit, 0); };
   };
   auto bcastUdp = [] {
      return frames::UdpV4(frames::kVmMac, frames::kBroadcast, "192.0.2.10",
                           "255.255.255.255", 5000, 5001);
   };
   auto mcastUdp = [] {
      return frames::UdpV4(frames::kVmMac, kV4McastMac, "192.0.2.10", "224.0.0.251", 5353,
                           5353);
   };
   return {
      {"Tx broadcast limit", true, limit(VIGIL_FEAT_TX_BCAST_LIMIT), bcastUdp,
       COUNTER(statTxBcastRateDrops)},
      {"Tx multicast limit", true, limit(VIGIL_FEAT_TX_MCAST_LIMIT), mcastUdp,
       COUNTER(statTxMcastRateDrops)},
      {"Rx broadcast limit", false, limit(VIGIL_FEAT_RX_BCAST_LIMIT), bcastUdp,
       COUNTER(statRxBcastRateDrops)},
      {"Rx multicast limit", false, limit(VIGIL_FEAT_RX_MCAST_LIMIT), mcastUdp,
       COUNTER(statRxMcastRateDrops)},
      {"DHCP client block", true, features(VIGIL_FEAT_DHCP_CLIENT_BLOCK), [] { return Client(); },
       COUNTER(statDhcpClientBlockDrops)},
      {"DHCP chaddr mismatch", true, features(VIGIL_FEAT_DHCP_SERVER_BLOCK),
       [] { return Client("0.0.0.0", "02:00:00:00:00:99"); }, COUNTER(statDhcpChaddrDrops)},
      {"DHCP client address (warden)", true,
       features(VIGIL_FEAT_DHCP_SERVER_BLOCK | VIGIL_FEAT_PORT_WARDEN),
       [] { return Client("192.0.2.10"); }, COUNTER(statWardenV4Drops)},
      {"DHCP server block", true, features(VIGIL_FEAT_DHCP_SERVER_BLOCK), ServerReplyFromVm,
       COUNTER(statDhcpServerBlockDrops)},
      {"IPv4 source (warden)", true, features(VIGIL_FEAT_SWITCH_WARDEN), [] { return Tcp(); },
       COUNTER(statWardenV4Drops)},
      {"ARP sender (warden)", true, features(VIGIL_FEAT_PORT_WARDEN),
       [] { return ArpFrom("192.0.2.10"); }, COUNTER(statWardenArpDrops)},
      {"non-IP frame (warden)", true, features(VIGIL_FEAT_PORT_WARDEN),
       [] { return NonIp(); }, COUNTER(statNonIpDrops)},
      {"BPDU", true,
       [](VigilFilter *f) {
          f->featuresEnabled |= VIGIL_FEAT_BPDU_FILTER;
          f->bpduBitmap = 1;
       },
       [] { return BpduTo(); }, COUNTER(statBpduDrops)},
      {"non-IP block", true, features(VIGIL_FEAT_NON_IP_BLOCK), [] { return NonIp(); },
       COUNTER(statNonIpDrops)},
   };
}

} // namespace

class DropsAtAGlanceTest : public ScriptedPipelineTest {};

TEST_F(DropsAtAGlanceTest, EachCheckDropsItsFrameAndCountsOnlyInItsOwnCounter) {
   std::vector<DropRow> rows = DropRows();
   ASSERT_EQ(rows.size(), 13u);
   u32 portID = 0x100;
   for (const DropRow &row : rows) {
      SCOPED_TRACE(row.check);
      scripted::Reset();
      scripted::dhcpParses = true;
      scripted::wardenResult = VIGIL_ACTION_DROP;
      VigilFilter *filter = AddFilter(portID);
      row.configure(filter);
      zek_Pkt *pkt = frames::Make(row.frame());
      std::vector<std::string> verdict =
         row.transmit ? Tx(portID, {pkt}) : Rx(portID, {pkt});
      EXPECT_EQ(verdict, std::vector<std::string>{"drop"});
      Counters counters = CountersOf(filter);
      for (size_t i = 0; i < counters.size(); i++) {
         EXPECT_EQ(counters[i], i == row.counter ? 1u : 0u) << kCounterNames[i];
      }
      RemoveFilter(portID);
      portID++;
   }
   sim::TakeLogs();
}

/* ----------------------------------------------------------- addresses */

TEST(EthAddrTest, OnlyAllOnesIsBroadcast) {
   u8 addr[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
   EXPECT_TRUE(Eth_IsBroadcastAddr(addr));
   for (int i = 0; i < 6; i++) {
      for (u8 value : {0x00, 0x7f, 0xfe}) {
         addr[i] = value;
         EXPECT_FALSE(Eth_IsBroadcastAddr(addr)) << "byte " << i << " = " << int(value);
      }
      addr[i] = 0xff;
   }
   const u8 multicast[6] = {0x01, 0x00, 0x5e, 0x00, 0x00, 0x01};
   const u8 zero[6] = {};
   EXPECT_FALSE(Eth_IsBroadcastAddr(multicast));
   EXPECT_FALSE(Eth_IsBroadcastAddr(zero));
}
