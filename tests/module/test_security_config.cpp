/*
 * Security configuration: the security blob turned into feature bits, white
 * lists, the BPDU bitmap and armed rate limiters, all or nothing; the flow
 * cache mirror of the port list and the accelerated datapath command; IPv4
 * discovery bits; the port ignore list.
 */
#include <cstring>
#include <string>
#include <vector>

#include "config_blobs.h"
#include "sim_switch.h"
#include "test_frames.h"
#include "vigil_config.h"
#include "vigil_lifecycle.h"
#include "vigil_test.h"
#include "vigil_vmi.h"

namespace {

using blobs::Bytes;
using blobs::Entry;
using blobs::Mac;
using blobs::V4;
using blobs::V6;

constexpr u32 kPort = 0x10;
constexpr u32 kOtherPort = 0x11;
constexpr u32 kBadParam = 0xbad0007;
constexpr u32 kNoMemory = 0xbad0014;

const VigilWhiteListEntry kVmV4 =
   Entry(VIGIL_WL_IPV4 | VIGIL_WL_MAC, V4("192.0.2.10"), 32, 0, Mac("02:00:00:00:00:10"));
const VigilWhiteListEntry kNetV4 = Entry(VIGIL_WL_IPV4, V4("198.51.100.0"), 24);
const VigilWhiteListEntry kNetV6 = Entry(VIGIL_WL_IPV6, V6("2001:db8::"), 64);
const VigilWhiteListEntry kVlan7 = Entry(VIGIL_WL_VLAN, {}, 0, 7);

class SecurityConfig : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      ASSERT_TRUE(sim::AddPort("vs0", kPort));
      ASSERT_EQ(Vigil_CreateFilter(sim::FindPortset("vs0"), kPort, &filter), ZEK_OK);
      ASSERT_NE(filter, nullptr);
      LogTexts();
   }

   void TearDown() override {
      sim::FaultClear();
      sim::SetLogLevel("vigil", 0);
      if (Vigil_GetPortFilter(kPort) != nullptr) {
         EXPECT_EQ(Vigil_CleanupFilter(sim::FindPortset("vs0"), kPort, nullptr), ZEK_OK);
      }
      if (sim::PortExists(kOtherPort) && Vigil_GetPortFilter(kOtherPort) != nullptr) {
         EXPECT_EQ(Vigil_CleanupFilter(sim::FindPortset("vs0"), kOtherPort, nullptr),
                   ZEK_OK);
      }
      VigilTest::TearDown();
   }

   zek_Status Configure(const Bytes &blob, VigilFilter *f = nullptr) {
      return ConfigureSecurity(f != nullptr ? f : filter, blob);
   }

   zek_Status Discovery(bool dhcp, bool arp, bool flush) {
      Vigil_LockPortAndFilter(kPort, true);
      zek_Status status = VigilConfigIpv4Discovery(filter, dhcp, arp, flush);
      Vigil_UnlockPortAndFilter(filter, true);
      return status;
   }

   zek_Status Ignore(const Bytes *blob) {
      Vigil_LockPortAndFilter(kPort, true);
      zek_Status status = VigilConfigDiscoveryIL(
         filter, blob != nullptr ? (const VigilIgnoreListConfig *)blob->data() : nullptr);
      Vigil_UnlockPortAndFilter(filter, true);
      return status;
   }

   /* The filter record's bytes, read under its lock. */
   std::vector<u8> Snapshot() {
      Vigil_LockPortAndFilter(kPort, true);
      std::vector<u8> bytes((const u8 *)filter, (const u8 *)filter + sizeof *filter);
      Vigil_UnlockPortAndFilter(filter, true);
      return bytes;
   }

   std::vector<VigilWhiteListEntry> PortList() {
      return std::vector<VigilWhiteListEntry>(
         filter->portWhiteList, filter->portWhiteList + filter->portWhiteListSize);
   }

   std::vector<Bytes> HashEntries(u32 portID) {
      std::vector<Bytes> out;
      for (const sim::WardenHashEntry &e : sim::FlowCacheEntries("vs0")) {
         if (e.portID == portID) {
            out.push_back(e.entry);
         }
      }
      return out;
   }

   /* A configuration with something in every part, to be replaced. */
   blobs::Security Full() {
      blobs::Security s;
      s.features = VIGIL_FEAT_SWITCH_WARDEN | VIGIL_FEAT_PORT_WARDEN |
                   VIGIL_FEAT_BPDU_FILTER | VIGIL_FEAT_TX_BCAST_LIMIT |
                   VIGIL_FEAT_RX_BCAST_LIMIT | VIGIL_FEAT_TX_MCAST_LIMIT |
                   VIGIL_FEAT_RX_MCAST_LIMIT | VIGIL_FEAT_DHCP_SERVER_BLOCK;
      s.rxBcast = 11;
      s.txBcast = 12;
      s.rxMcast = 13;
      s.txMcast = 14;
      s.switchList = {kNetV4, kVlan7};
      s.portList = {kVmV4, kNetV4, kNetV6};
      s.bpdu = {blobs::BpduMac(0)};
      return s;
   }

   /* Frames that grow the statistics: a BPDU and a spoofed IPv4 source. */
   void GrowStatistics() {
      using namespace frames;
      std::vector<std::string> verdicts =
         Tx(kPort, {Make(Bpdu(kVmMac, "01:80:c2:00:00:02")),
                    Make(TcpV4(kVmMac, "02:00:00:00:00:99", "203.0.113.9", "192.0.2.1"))});
      EXPECT_EQ(verdicts, (std::vector<std::string>{"drop", "drop"}));
      EXPECT_EQ(filter->stats.statBpduDrops, 1u);
      EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);
   }

   /* Turns on ARP snooping and has the VM announce `ip`. */
   void LearnArp(const char *ip) {
      using namespace frames;
      std::vector<std::string> verdicts =
         Tx(kPort, {Make(Arp(kVmMac, kVmMac, ip, "192.0.2.1"))});
      EXPECT_EQ(verdicts, (std::vector<std::string>{"forward"}));
   }

   VigilFilter *filter = nullptr;
};

bool AllZero(const void *p, size_t len) {
   const u8 *b = (const u8 *)p;
   for (size_t i = 0; i < len; i++) {
      if (b[i] != 0) {
         return false;
      }
   }
   return true;
}

/* ------------------------------------------------------------ security */

TEST_F(SecurityConfig, AllZeroHeaderClearsFeaturesListsHashStatisticsAndBitmap) {
   sim::SetGlxEnabled("vs0", true);
   ASSERT_EQ(Configure(Full().Build()), ZEK_OK);
   GrowStatistics();
   ASSERT_EQ(HashEntries(kPort).size(), 3u);
   ASSERT_EQ(filter->bpduBitmap, 0x7ffffffeull);
   sim::TakeGlxCommands();
   sim::TakeInvalidations();
   LogTexts(); /* the drop lines */
   u64 liveBefore = sim::GetHeapStats(heapID).allocations;

   Bytes none(32, 0);
   ASSERT_EQ(Configure(none), ZEK_OK);

   EXPECT_EQ(filter->featuresEnabled, 0u);
   EXPECT_EQ(filter->switchWhiteList, nullptr);
   EXPECT_EQ(filter->portWhiteList, nullptr);
   EXPECT_EQ(filter->switchWhiteListSize, 0u);
   EXPECT_EQ(filter->portWhiteListSize, 0u);
   EXPECT_EQ(filter->bpduExclusionListSize, 0u);
   EXPECT_EQ(filter->rxBcastRateLimit, 0u);
   EXPECT_EQ(filter->txMcastRateLimit, 0u);
   EXPECT_EQ(filter->bpduBitmap, 0x7fffffffull);
   EXPECT_TRUE(AllZero(&filter->stats, sizeof filter->stats));
   EXPECT_TRUE(HashEntries(kPort).empty());
   /* Both copies went back to the heap. */
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, liveBefore - 2);

   std::vector<sim::GlxCommand> glx = sim::TakeGlxCommands();
   ASSERT_EQ(glx.size(), 1u);
   EXPECT_EQ(glx[0].portID, kPort);
   EXPECT_EQ(glx[0].name, "oxa.glx.warden.port.conf");
   EXPECT_EQ(glx[0].isPortWardenEnabled, 0u);
   EXPECT_EQ(glx[0].cmdClass, 0xfffu);
   EXPECT_EQ(glx[0].len, 137u);
   std::vector<sim::Invalidation> inv = sim::TakeInvalidations();
   ASSERT_EQ(inv.size(), 1u);
   EXPECT_EQ(inv[0].reason, 26u);
   EXPECT_EQ(inv[0].portID, kPort);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(SecurityConfig, ExcludingAllBpduAddressesIsRefusedAndThirtyAreAccepted) {
   blobs::Security all;
   all.features = VIGIL_FEAT_BPDU_FILTER;
   for (u32 n = 0; n < 31; n++) {
      all.bpdu.push_back(blobs::BpduMac(n));
   }
   std::vector<u8> before = Snapshot();
   EXPECT_EQ(Configure(all.Build()), kBadParam);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 BPDU exclusion list cannot remove all entries "
                            "from BPDU filter list"}));
   EXPECT_EQ(Snapshot(), before);
   EXPECT_EQ(filter->bpduBitmap, 0u); /* never configured */

   blobs::Security thirty = all;
   thirty.bpdu.pop_back(); /* index 30 stays filtered */
   EXPECT_EQ(Configure(thirty.Build()), ZEK_OK);
   EXPECT_EQ(filter->bpduBitmap, 0x40000000ull);
   EXPECT_EQ(filter->bpduExclusionListSize, 30u);
   EXPECT_EQ(filter->featuresEnabled, VIGIL_FEAT_BPDU_FILTER);
}

TEST_F(SecurityConfig, ExcludingOneAddressTwiceClearsOneBit) {
   blobs::Security s;
   s.features = VIGIL_FEAT_BPDU_FILTER;
   s.bpdu = {blobs::BpduMac(3), blobs::BpduMac(3)};
   EXPECT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(filter->bpduBitmap, 0x7ffffff7ull);
   EXPECT_EQ(filter->bpduExclusionListSize, 2u);
}

TEST_F(SecurityConfig, BpduBitmapStaysFullWithTheFilterOff) {
   blobs::Security s;
   s.features = VIGIL_FEAT_NON_IP_BLOCK;
   /* Exclusions, even one that is no BPDU address, are not looked at. */
   s.bpdu = {blobs::BpduMac(0), Mac("02:00:00:00:00:01")};
   EXPECT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(filter->bpduBitmap, 0x7fffffffull);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(SecurityConfig, UnknownBpduExclusionIsRefused) {
   blobs::Security s;
   s.features = VIGIL_FEAT_BPDU_FILTER;
   s.bpdu = {blobs::BpduMac(1), Mac("01:80:c2:00:00:20")};
   EXPECT_EQ(Configure(s.Build()), kBadParam);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Invalid BPDU exclusion mac: 01:80:c2:00:00:20"}));
   EXPECT_EQ(filter->featuresEnabled, 0u);
}

TEST_F(SecurityConfig, GroupMacInWhiteListIsRefusedOnlyWhileItsFeatureIsOn) {
   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN;
   s.portList = {Entry(VIGIL_WL_MAC, {}, 0, 0, Mac("03:00:00:00:00:01"))};
   EXPECT_EQ(Configure(s.Build()), kBadParam);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Not a unicast mac address: 03:00:00:00:00:01"}));
   EXPECT_EQ(filter->portWhiteList, nullptr);

   s.features = 0;
   EXPECT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(filter->portWhiteList, nullptr);
   EXPECT_EQ(filter->portWhiteListSize, 0u);
   EXPECT_TRUE(LogTexts().empty());

   /* The same on the switch list. */
   blobs::Security sw;
   sw.features = VIGIL_FEAT_SWITCH_WARDEN;
   sw.switchList = {Entry(VIGIL_WL_MAC | VIGIL_WL_VLAN, {}, 0, 3, Mac("01:00:5e:00:00:01"))};
   EXPECT_EQ(Configure(sw.Build()), kBadParam);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Not a unicast mac address: 01:00:5e:00:00:01"}));
   sw.features = VIGIL_FEAT_PORT_WARDEN;
   sw.portList = {kVmV4};
   EXPECT_EQ(Configure(sw.Build()), ZEK_OK);
}

TEST_F(SecurityConfig, PrefixLengthsAtTheirLimitsAreAcceptedAndOneMoreIsRefused) {
   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN;
   s.portList = {Entry(VIGIL_WL_IPV4, V4("192.0.2.1"), 32),
                 Entry(VIGIL_WL_IPV6, V6("2001:db8::1"), 128)};
   EXPECT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(filter->portWhiteListSize, 2u);
   LogTexts();

   s.portList = {Entry(VIGIL_WL_IPV4, V4("192.0.2.1"), 33)};
   EXPECT_EQ(Configure(s.Build()), kBadParam);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Invalid IPv4 prefix len: 192.0.2.1/ 33"}));

   s.portList = {Entry(VIGIL_WL_IPV6, V6("2001:db8::1"), 129)};
   EXPECT_EQ(Configure(s.Build()), kBadParam);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Invalid IPv6 prefix len: 2001:db8:0:0:0:0:0:1/ 129"}));
   /* The accepted list is still in place. */
   EXPECT_EQ(filter->portWhiteListSize, 2u);
   EXPECT_EQ(HashEntries(kPort).size(), 2u);
}

TEST_F(SecurityConfig, EntryNamingNothingIsRefusedAndBothFamiliesWithAVlanSkipThePrefix) {
   blobs::Security s;
   s.features = VIGIL_FEAT_SWITCH_WARDEN;
   s.switchList = {kNetV4, Entry(0, {}, 0, 0)};
   EXPECT_EQ(Configure(s.Build()), kBadParam);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Invalid Whitelist entry specify atleast one of "
                            "Vlan/Mac/IP"}));
   s.switchList = {Entry(VIGIL_WL_IPV4 | VIGIL_WL_IPV6, V4("192.0.2.1"), 200)};
   EXPECT_EQ(Configure(s.Build()), kBadParam);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Invalid Whitelist entry specify atleast one of "
                            "Vlan/Mac/IP"}));
   /* Both address bits and a VLAN: no prefix check at all. */
   s.switchList = {Entry(VIGIL_WL_IPV4 | VIGIL_WL_IPV6 | VIGIL_WL_VLAN, V4("192.0.2.1"),
                         200, 9)};
   EXPECT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(filter->switchWhiteListSize, 1u);
   EXPECT_EQ(filter->switchWhiteList[0].prefixLen, 200u);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(SecurityConfig, VlanLimitIs4094) {
   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN;
   s.portList = {Entry(VIGIL_WL_VLAN, {}, 0, 4094)};
   EXPECT_EQ(Configure(s.Build()), ZEK_OK);
   s.portList = {Entry(VIGIL_WL_VLAN, {}, 0, 4095)};
   EXPECT_EQ(Configure(s.Build()), kBadParam);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{"Filter 0x10 Vlan ID cannot exceed 4094"}));
   EXPECT_EQ(filter->portWhiteList[0].vlan, 4094u);
}

TEST_F(SecurityConfig, EmptyListWithItsWardenOnIsAWarningOnly) {
   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN;
   EXPECT_EQ(Configure(s.Build()), ZEK_OK);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].text, "Filter 0x10 Whitelist empty, IP/ARP traffic may get black holed");
   EXPECT_EQ(lines[1].level, 2);
   EXPECT_EQ(lines[1].text,
             "Filter 0x10 Switch whitelist OFF, size 0; port whitelist - ON, size 0");
   EXPECT_EQ(filter->featuresEnabled, VIGIL_FEAT_PORT_WARDEN);

   s.features = VIGIL_FEAT_SWITCH_WARDEN | VIGIL_FEAT_PORT_WARDEN;
   s.portList = {kVmV4};
   EXPECT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{
                "Filter 0x10 Whitelist empty, IP/ARP traffic may get black holed",
                "Filter 0x10 Switch whitelist ON, size 0; port whitelist - ON, size 1"}));
}

TEST_F(SecurityConfig, VerboseLinesTellTheBlob) {
   sim::SetLogLevel("vigil", 1);
   blobs::Security s = Full();
   EXPECT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{
                "Filter 0x10 featuresEnabled=0x37d, whitelist size for switch=2, port=3, bpdu=1",
                "Filter 0x10 Rate limit for RxBcast=11, TxBcast=12, RxMcast=13, TxMcast=14",
                "Filter 0x10 featuresEnabled = 0x37d: security configured successfully"}));
}

TEST_F(SecurityConfig, IgnoreEntryPrefixIsNotChecked) {
   Bytes blob = blobs::IgnoreList({Entry(VIGIL_WL_IPV4, V4("192.0.2.1"), 200)});
   EXPECT_EQ(Ignore(&blob), ZEK_OK);
   ASSERT_EQ(filter->portIgnoreListSize, 1u);
   EXPECT_EQ(filter->portIgnoreList[0].prefixLen, 200u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Ignore list discovery is configured successfully "
                            "with size of 1"}));
}

TEST_F(SecurityConfig, SameBlobTwiceResetsStatisticsAndRateLimitWindows) {
   blobs::Security s = Full();
   s.txBcast = 2;
   Bytes blob = s.Build();
   u64 firstTime = zek_GetTimerCycles();
   ASSERT_EQ(Configure(blob), ZEK_OK);
   EXPECT_EQ(filter->txBcastLimiter.windowEnd, firstTime);

   GrowStatistics();
   /* Time moves on: the first broadcast opens a new window. */
   sim::Advance(0.001);
   u64 opened = zek_GetTimerCycles();
   using namespace frames;
   std::vector<std::string> verdicts = Tx(kPort, {Make(Ether(kVmMac, kBroadcast, 0x88b5)),
                                                  Make(Ether(kVmMac, kBroadcast, 0x88b5)),
                                                  Make(Ether(kVmMac, kBroadcast, 0x88b5))});
   EXPECT_EQ(verdicts, (std::vector<std::string>{"forward", "forward", "drop"}));
   EXPECT_EQ(filter->txBcastLimiter.count, 3u);
   EXPECT_EQ(filter->txBcastLimiter.windowEnd, opened + 1000000000ull);
   EXPECT_EQ(filter->stats.statTxBcastRateDrops, 1u);

   for (int round = 0; round < 2; round++) {
      sim::Advance(0.25);
      u64 now = zek_GetTimerCycles();
      ASSERT_EQ(Configure(blob), ZEK_OK);
      EXPECT_TRUE(AllZero(&filter->stats, sizeof filter->stats)) << round;
      for (const VigilRateLimiter *l : {&filter->txBcastLimiter, &filter->rxBcastLimiter,
                                        &filter->txMcastLimiter, &filter->rxMcastLimiter}) {
         EXPECT_EQ(l->periodSecs, 1u);
         EXPECT_EQ(l->windowEnd, now);
         EXPECT_EQ(l->count, 0u);
      }
      GrowStatistics();
   }
}

TEST_F(SecurityConfig, RateLimitersAreArmedForTheirFeaturesOnly) {
   blobs::Security s;
   s.features = VIGIL_FEAT_TX_BCAST_LIMIT | VIGIL_FEAT_RX_MCAST_LIMIT;
   s.rxBcast = 100;
   s.txBcast = 200;
   s.rxMcast = 300;
   s.txMcast = 400;
   u64 t0 = zek_GetTimerCycles();
   ASSERT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(filter->txBcastLimiter.periodSecs, 1u);
   EXPECT_EQ(filter->txBcastLimiter.limit, 200u);
   EXPECT_EQ(filter->txBcastLimiter.windowEnd, t0);
   EXPECT_EQ(filter->rxMcastLimiter.periodSecs, 1u);
   EXPECT_EQ(filter->rxMcastLimiter.limit, 300u);
   EXPECT_EQ(filter->rxMcastLimiter.windowEnd, t0);
   /* Limiters whose feature is off were never armed. */
   EXPECT_TRUE(AllZero(&filter->rxBcastLimiter, sizeof filter->rxBcastLimiter));
   EXPECT_TRUE(AllZero(&filter->txMcastLimiter, sizeof filter->txMcastLimiter));
   /* The blob's four limits are all kept, armed or not. */
   EXPECT_EQ(filter->rxBcastRateLimit, 100u);
   EXPECT_EQ(filter->txMcastRateLimit, 400u);

   /* A later blob without the TX broadcast bit leaves that limiter as it was. */
   filter->txBcastLimiter.count = 5;
   sim::Advance(1.0);
   blobs::Security other;
   other.features = VIGIL_FEAT_RX_BCAST_LIMIT;
   other.rxBcast = 7;
   u64 t1 = zek_GetTimerCycles();
   ASSERT_EQ(Configure(other.Build()), ZEK_OK);
   EXPECT_EQ(filter->txBcastLimiter.limit, 200u);
   EXPECT_EQ(filter->txBcastLimiter.windowEnd, t0);
   EXPECT_EQ(filter->txBcastLimiter.count, 5u);
   EXPECT_EQ(filter->rxBcastLimiter.limit, 7u);
   EXPECT_EQ(filter->rxBcastLimiter.windowEnd, t1);
   EXPECT_EQ(filter->rxMcastLimiter.windowEnd, t0);
}

TEST_F(SecurityConfig, HeapFaultAtSwitchListCopyKeepsOldConfiguration) {
   ASSERT_EQ(Configure(Full().Build()), ZEK_OK);
   GrowStatistics();
   LogTexts();
   sim::TakeInvalidations();
   std::vector<u8> before = Snapshot();
   std::vector<VigilWhiteListEntry> listBefore = PortList();
   u64 live = sim::GetHeapStats(heapID).allocations;

   blobs::Security next;
   next.features = VIGIL_FEAT_SWITCH_WARDEN | VIGIL_FEAT_PORT_WARDEN;
   next.switchList = {kVlan7};
   next.portList = {kNetV6, kNetV4, kVmV4};
   sim::FaultAlloc(1);
   EXPECT_EQ(Configure(next.Build()), kNoMemory);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Alloc for switch whitelist of size 32 failed"}));
   EXPECT_EQ(Snapshot(), before);
   ASSERT_EQ(PortList().size(), listBefore.size());
   EXPECT_EQ(memcmp(PortList().data(), listBefore.data(), 3 * 32), 0);
   EXPECT_EQ(HashEntries(kPort).size(), 3u);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
   EXPECT_TRUE(sim::TakeInvalidations().empty());
   EXPECT_EQ(filter->stats.statBpduDrops, 1u);
}

TEST_F(SecurityConfig, HeapFaultAtPortListCopyFreesSwitchCopyAndKeepsOldConfiguration) {
   ASSERT_EQ(Configure(Full().Build()), ZEK_OK);
   GrowStatistics();
   LogTexts();
   sim::TakeInvalidations();
   std::vector<u8> before = Snapshot();
   u64 live = sim::GetHeapStats(heapID).allocations;
   u64 total = sim::GetHeapStats(heapID).totalAllocs;

   blobs::Security next;
   next.features = VIGIL_FEAT_SWITCH_WARDEN | VIGIL_FEAT_PORT_WARDEN;
   next.switchList = {kVlan7};
   next.portList = {kNetV6, kNetV4, kVmV4};
   sim::FaultAlloc(2);
   EXPECT_EQ(Configure(next.Build()), kNoMemory);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Alloc for port whitelist of size 96 failed"}));
   EXPECT_EQ(Snapshot(), before);
   EXPECT_EQ(HashEntries(kPort).size(), 3u);
   /* The switch copy was made and given back. */
   EXPECT_EQ(sim::GetHeapStats(heapID).totalAllocs, total + 1);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
   EXPECT_TRUE(sim::TakeInvalidations().empty());
   EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);

   /* Without the fault the same blob goes through. */
   EXPECT_EQ(Configure(next.Build()), ZEK_OK);
   EXPECT_EQ(filter->switchWhiteListSize, 1u);
   EXPECT_EQ(filter->portWhiteListSize, 3u);
   EXPECT_EQ(filter->stats.statWardenV4Drops, 0u);
}

TEST_F(SecurityConfig, RefusedBlobsKeepOldConfigurationAndStatistics) {
   ASSERT_EQ(Configure(Full().Build()), ZEK_OK);
   GrowStatistics();
   LogTexts();
   sim::TakeInvalidations();
   std::vector<u8> before = Snapshot();
   u64 live = sim::GetHeapStats(heapID).allocations;

   /* The switch list, then the port list, then the BPDU exclusions (after
    * both copies were made) refuse the blob. */
   blobs::Security badSwitch = Full();
   badSwitch.switchList.push_back(Entry(VIGIL_WL_VLAN, {}, 0, 5000));
   blobs::Security badPort = Full();
   badPort.portList.push_back(Entry(VIGIL_WL_IPV4, V4("10.0.0.1"), 40));
   blobs::Security badBpdu = Full();
   badBpdu.bpdu = {Mac("02:00:00:00:00:01")};
   for (const blobs::Security *s : {&badSwitch, &badPort, &badBpdu}) {
      EXPECT_EQ(Configure(s->Build()), kBadParam);
      EXPECT_EQ(LogTexts().size(), 1u);
      EXPECT_EQ(Snapshot(), before);
      EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
      EXPECT_EQ(HashEntries(kPort).size(), 3u);
   }
   EXPECT_TRUE(sim::TakeInvalidations().empty());
}

TEST_F(SecurityConfig, PortListIsMirroredInTheFlowCacheHash) {
   ASSERT_TRUE(sim::AddPort("vs0", kOtherPort));
   VigilFilter *other = nullptr;
   ASSERT_EQ(Vigil_CreateFilter(sim::FindPortset("vs0"), kOtherPort, &other), ZEK_OK);
   blobs::Security o;
   o.features = VIGIL_FEAT_PORT_WARDEN;
   o.portList = {kNetV4};
   ASSERT_EQ(Configure(o.Build(), other), ZEK_OK);

   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_SWITCH_WARDEN;
   s.switchList = {kVlan7};
   s.portList = {kVmV4, kNetV6};
   ASSERT_EQ(Configure(s.Build()), ZEK_OK);
   std::vector<sim::WardenHashEntry> all = sim::FlowCacheEntries("vs0");
   ASSERT_EQ(all.size(), 3u);
   EXPECT_EQ(all[0].portID, kOtherPort);
   EXPECT_EQ(all[1].portID, kPort);
   EXPECT_EQ(all[1].entry, blobs::EntryBytes(kVmV4));
   EXPECT_EQ(all[1].isIpv6, 0u);
   EXPECT_EQ(all[2].portID, kPort);
   EXPECT_EQ(all[2].entry, blobs::EntryBytes(kNetV6));
   EXPECT_EQ(all[2].isIpv6, VIGIL_WL_IPV6);

   /* A new list takes the place of the old one in the hash. */
   s.portList = {kNetV4};
   ASSERT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(HashEntries(kPort), (std::vector<Bytes>{blobs::EntryBytes(kNetV4)}));
   EXPECT_EQ(HashEntries(kOtherPort), (std::vector<Bytes>{blobs::EntryBytes(kNetV4)}));

   /* With the port warden off the blob's port entries go nowhere. */
   s.features = VIGIL_FEAT_SWITCH_WARDEN;
   s.portList = {kVmV4, kNetV6};
   ASSERT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_TRUE(HashEntries(kPort).empty());
   EXPECT_EQ(filter->portWhiteList, nullptr);
   EXPECT_EQ(filter->portWhiteListSize, 0u);
   EXPECT_EQ(filter->switchWhiteListSize, 1u);
   EXPECT_EQ(HashEntries(kOtherPort).size(), 1u);
}

TEST_F(SecurityConfig, SizesOfIgnoredListsDoNotSurvive) {
   blobs::Security s;
   s.features = VIGIL_FEAT_BPDU_FILTER;
   s.switchList = {kNetV4, kVlan7};
   s.portList = {kVmV4};
   s.bpdu = {blobs::BpduMac(2)};
   ASSERT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(filter->switchWhiteListSize, 0u);
   EXPECT_EQ(filter->portWhiteListSize, 0u);
   EXPECT_EQ(filter->switchWhiteList, nullptr);
   EXPECT_EQ(filter->portWhiteList, nullptr);
   EXPECT_EQ(filter->bpduExclusionListSize, 1u);
   EXPECT_EQ(filter->bpduBitmap, 0x7ffffffbull);
   EXPECT_TRUE(HashEntries(kPort).empty());
}

TEST_F(SecurityConfig, FailedHashInsertIsLoggedAndTheConfigurationStands) {
   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN;
   s.portList = {kNetV4, kNetV4, kVmV4};
   ASSERT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Inserting whitelist entry into warden hash failed"}));
   EXPECT_EQ(filter->portWhiteListSize, 3u);
   EXPECT_EQ(HashEntries(kPort).size(), 2u);

   sim::FaultCall("WardenHashInsert", 0xbad0001, 1, 1);
   s.portList = {kVmV4, kNetV6, kNetV4};
   ASSERT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Inserting whitelist entry into warden hash failed"}));
   EXPECT_EQ(HashEntries(kPort),
             (std::vector<Bytes>{blobs::EntryBytes(kVmV4), blobs::EntryBytes(kNetV4)}));
   EXPECT_EQ(filter->portWhiteListSize, 3u);
}

TEST_F(SecurityConfig, AcceleratedDatapathIsToldWhetherThePortHasAList) {
   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN;
   s.portList = {kVmV4};
   /* Off: no command, but the flows are invalidated all the same. */
   ASSERT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_TRUE(sim::TakeGlxCommands().empty());
   std::vector<sim::Invalidation> inv = sim::TakeInvalidations();
   ASSERT_EQ(inv.size(), 1u);
   EXPECT_EQ(inv[0].reason, 26u);
   EXPECT_EQ(inv[0].portID, kPort);

   sim::SetGlxEnabled("vs0", true);
   ASSERT_EQ(Configure(s.Build()), ZEK_OK);
   std::vector<sim::GlxCommand> glx = sim::TakeGlxCommands();
   ASSERT_EQ(glx.size(), 1u);
   EXPECT_EQ(glx[0].portID, kPort);
   EXPECT_EQ(glx[0].name, "oxa.glx.warden.port.conf");
   EXPECT_EQ(glx[0].isPortWardenEnabled, 1u);
   EXPECT_EQ(glx[0].cmdClass, 0xfffu);
   EXPECT_EQ(glx[0].len, 137u);
   EXPECT_EQ(sim::TakeInvalidations().size(), 1u);

   /* A failed command is logged; the configuration stands. */
   sim::FaultCall("GlxPortCommand", 0xbad0001);
   s.portList = {kNetV4};
   ASSERT_EQ(Configure(s.Build()), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Setting isPortWardenEnabled flag on port failed"}));
   EXPECT_TRUE(sim::TakeGlxCommands().empty());
   EXPECT_EQ(sim::TakeInvalidations().size(), 1u);
   EXPECT_EQ(HashEntries(kPort), (std::vector<Bytes>{blobs::EntryBytes(kNetV4)}));
}

/* ------------------------------------------------------- IPv4 discovery */

TEST_F(SecurityConfig, Ipv4DiscoverySetsOnlyItsTwoBits) {
   filter->discoveryFlags = VIGIL_DISC_ND | VIGIL_DISC_DHCPV6;
   EXPECT_EQ(Discovery(true, false, true), ZEK_OK);
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_ND | VIGIL_DISC_DHCPV6 | VIGIL_DISC_DHCP);
   EXPECT_EQ(Discovery(false, true, true), ZEK_OK);
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_ND | VIGIL_DISC_DHCPV6 | VIGIL_DISC_ARP);
   EXPECT_EQ(Discovery(false, false, false), ZEK_OK);
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_ND | VIGIL_DISC_DHCPV6);
   EXPECT_TRUE(LogTexts().empty());

   sim::SetLogLevel("vigil", 2);
   EXPECT_EQ(Discovery(true, true, false), ZEK_OK);
   std::vector<std::string> texts = LogTexts();
   ASSERT_EQ(texts.size(), 3u);
   EXPECT_EQ(texts[0], "Filter 0x10 new featuresEnabled = 0x3");
   /* texts[1] is the database's own line. */
   EXPECT_EQ(texts[2], "Filter 0x10 IPv4 Discovery config updated, featuresEnabled = 0x1b");
}

TEST_F(SecurityConfig, SwitchingArpOffDeletesItsBindingsOnlyWithFlush) {
   ASSERT_EQ(Discovery(false, true, true), ZEK_OK);
   LearnArp("192.0.2.10");
   ASSERT_EQ(filter->numArpVmis, 1u);

   EXPECT_EQ(Discovery(false, false, false), ZEK_OK);
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(filter->discoveryFlags, 0u);

   ASSERT_EQ(Discovery(false, true, true), ZEK_OK);
   EXPECT_EQ(Discovery(true, false, true), ZEK_OK);
   EXPECT_EQ(filter->numArpVmis, 0u);
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_DHCP);
}

TEST_F(SecurityConfig, SwitchingDhcpOffDropsPendingRequestsEvenWithoutFlush) {
   ASSERT_EQ(Discovery(true, false, true), ZEK_OK);
   using namespace frames;
   EXPECT_EQ(Tx(kPort, {Make(DhcpClient(kVmMac, kVmMac, "0.0.0.0", 3))}),
             (std::vector<std::string>{"forward"}));
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(Discovery(false, false, false), ZEK_OK);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_TRUE(VigilListIsEmpty(&filter->dhcpReqList));
}

/* ------------------------------------------------------------ ignore list */

TEST_F(SecurityConfig, IgnoreListIsStoredAndDeletesTheBindingsItCovers) {
   ASSERT_EQ(Discovery(false, true, true), ZEK_OK);
   LearnArp("192.0.2.10");
   LearnArp("192.0.2.11");
   ASSERT_EQ(filter->numArpVmis, 2u);
   LogTexts();

   std::vector<VigilWhiteListEntry> entries = {
      Entry(VIGIL_WL_IPV4, V4("192.0.2.11"), 32),
      Entry(VIGIL_WL_VLAN | VIGIL_WL_MAC, {}, 0, 4094, Mac("02:00:00:00:00:77"))};
   Bytes blob = blobs::IgnoreList(entries);
   EXPECT_EQ(Ignore(&blob), ZEK_OK);
   ASSERT_EQ(filter->portIgnoreListSize, 2u);
   EXPECT_EQ(memcmp(filter->portIgnoreList, entries.data(), 64), 0);
   EXPECT_EQ(filter->numArpVmis, 1u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 1);
   EXPECT_EQ(lines[0].text,
             "Filter 0x10 Ignore list discovery is configured successfully with size of 2");

   /* A new list takes the old one's place on the heap. */
   u64 live = sim::GetHeapStats(heapID).allocations;
   Bytes one = blobs::IgnoreList({Entry(VIGIL_WL_MAC, {}, 0, 0, Mac("02:00:00:00:00:78"))});
   EXPECT_EQ(Ignore(&one), ZEK_OK);
   EXPECT_EQ(filter->portIgnoreListSize, 1u);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
}

TEST_F(SecurityConfig, IgnoreListNullOrEmptyClearsIt) {
   Bytes blob = blobs::IgnoreList({Entry(VIGIL_WL_IPV4, V4("192.0.2.11"), 32)});
   ASSERT_EQ(Ignore(&blob), ZEK_OK);
   LogTexts();
   sim::SetLogLevel("vigil", 1);
   EXPECT_EQ(Ignore(nullptr), ZEK_OK);
   EXPECT_EQ(filter->portIgnoreList, nullptr);
   EXPECT_EQ(filter->portIgnoreListSize, 0u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Clean up port Ignorelist: filter->portIgnoreListSize = 0"}));

   ASSERT_EQ(Ignore(&blob), ZEK_OK);
   LogTexts();
   Bytes empty = blobs::IgnoreList({});
   EXPECT_EQ(Ignore(&empty), ZEK_OK);
   EXPECT_EQ(filter->portIgnoreList, nullptr);
   EXPECT_EQ(filter->portIgnoreListSize, 0u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Clean up port Ignorelist: filter->portIgnoreListSize = 0"}));
}

TEST_F(SecurityConfig, IgnoreListRefusalsKeepTheOldList) {
   Bytes good = blobs::IgnoreList({Entry(VIGIL_WL_IPV4, V4("192.0.2.11"), 32)});
   ASSERT_EQ(Ignore(&good), ZEK_OK);
   LogTexts();
   VigilWhiteListEntry *old = filter->portIgnoreList;

   struct Case {
      VigilWhiteListEntry bad;
      const char *text;
   } cases[] = {
      {Entry(0x10, V4("192.0.2.1"), 32),
       "Filter 0x10 Invalid Ignorelist entry specify at least one of Vlan/Mac/IP"},
      {Entry(VIGIL_WL_VLAN, {}, 0, 4095), "Filter 0x10 Vlan ID cannot exceed 4094"},
      {Entry(VIGIL_WL_MAC, {}, 0, 0, Mac("ff:ff:ff:ff:ff:ff")),
       "Filter 0x10 Not a unicast mac address: ff:ff:ff:ff:ff:ff"},
   };
   for (const Case &c : cases) {
      Bytes blob = blobs::IgnoreList({Entry(VIGIL_WL_IPV6, V6("2001:db8::5"), 128), c.bad});
      EXPECT_EQ(Ignore(&blob), kBadParam) << c.text;
      EXPECT_EQ(LogTexts(), (std::vector<std::string>{c.text}));
      EXPECT_EQ(filter->portIgnoreList, old);
      EXPECT_EQ(filter->portIgnoreListSize, 1u);
   }

   u64 live = sim::GetHeapStats(heapID).allocations;
   Bytes two = blobs::IgnoreList({Entry(VIGIL_WL_VLAN, {}, 0, 1), Entry(VIGIL_WL_VLAN, {}, 0, 2)});
   sim::FaultAlloc(1);
   EXPECT_EQ(Ignore(&two), kNoMemory);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Alloc for port ignorelist of size 64 failed"}));
   EXPECT_EQ(filter->portIgnoreList, old);
   EXPECT_EQ(filter->portIgnoreListSize, 1u);
   EXPECT_EQ(memcmp(old, good.data() + 4, 32), 0);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
}

} // namespace
