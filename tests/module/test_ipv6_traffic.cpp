/*
 * Mixed IPv4 and IPv6 traffic through the I/O chains of two ports that the
 * port properties configured: ARP and ND learning, the port warden judging
 * both families and ND targets, the RA guard and the DHCPv6 blocks, frames
 * towards the VMs passing; then the filters taken down as at module stop,
 * with a removed message for every binding and nothing left behind.
 */
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "config_blobs.h"
#include "ipv6_db_test.h"
#include "sim_switch.h"
#include "vigil_config.h"
#include "vigil_lifecycle.h"
#include "vigil_switch.h"

namespace {

using blobs::Entry;
using blobs::Mac;
using blobs::V4;
using blobs::V6;
using v6db::Bytes;

const std::string kEnabled = "com.norvex.vswitch.port.vigil.enabled";
const std::string kDiscovery = "com.norvex.vswitch.port.vigil.discovery";
const std::string kDiscovery6 = "com.norvex.vswitch.port.vigil.discovery.ipv6";
const std::string kSecurity = "com.norvex.vswitch.port.vigil.security";

constexpr u32 kPortA = 0x10;
constexpr u32 kPortB = 0x11;
const char *const kMacA = "02:00:00:00:00:10";
const char *const kMacB = "02:00:00:00:00:20";
const char *const kGatewayMac = "02:00:00:00:00:01";
const char *const kOtherMac = "02:00:00:00:00:77";

std::vector<std::string> Verdicts(std::initializer_list<const char *> texts) {
   return std::vector<std::string>(texts.begin(), texts.end());
}

Bytes Udp4(const char *srcMac, const char *srcIp) {
   return frames::UdpV4(srcMac, kGatewayMac, srcIp, "198.51.100.1", 40000, 53);
}

Bytes Udp6(const char *srcMac, const char *srcIp, u16 sport = 40000, u16 dport = 53) {
   return frames::Udp6Frame(srcMac, kGatewayMac, {srcIp, "2001:db8:ffff::1", 64}, sport, dport,
                            Bytes(8, 0));
}

Bytes ArpFrom(const char *mac, const char *ip) {
   return frames::Arp(mac, mac, ip, "192.0.2.1");
}

/* Messages of one port by name, each an IPv4 (1) or IPv6 (0) binding. */
struct MessageCount {
   u32 added4 = 0, added6 = 0, removed4 = 0, removed6 = 0;
   bool operator==(const MessageCount &o) const {
      return added4 == o.added4 && added6 == o.added6 && removed4 == o.removed4 &&
             removed6 == o.removed6;
   }
};

std::ostream &operator<<(std::ostream &os, const MessageCount &c) {
   return os << "{added4 " << c.added4 << ", added6 " << c.added6 << ", removed4 "
             << c.removed4 << ", removed6 " << c.removed6 << "}";
}

class Ipv6TrafficTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      ASSERT_TRUE(sim::AddPort("vs0", kPortA));
      ASSERT_TRUE(sim::AddPort("vs0", kPortB));
      baseAllocs_ = sim::GetHeapStats(heapID).allocations;
      client_ = (VigilFabClientHandles *)Vigil_HeapAlloc(sizeof(VigilFabClientHandles));
      strncpy(client_->portsetName, "vs0", sizeof client_->portsetName - 1);
      ASSERT_EQ(Vigil_FabPropRegister("vs0", client_), ZEK_OK);
   }

   void TearDown() override {
      if (client_ != nullptr) {
         EXPECT_EQ(Vigil_CleanupFilters(), ZEK_OK);
         EXPECT_EQ(Vigil_FabPropUnregister(client_), ZEK_OK);
         Vigil_HeapFree(client_);
      }
      VigilTest::TearDown();
   }

   zek_Status Write(u32 port, const std::string &prop, const Bytes &data) {
      bool handled = false;
      zek_Status status = sim::WriteProperty(port, prop, data, &handled);
      EXPECT_TRUE(handled) << prop;
      return status;
   }

   /* A VM's port: enabled, ARP and ND snooping with a 10-minute life, the
    * port warden with the VM's own addresses, and `features` beside. */
   void Configure(u32 port, const char *mac, const char *ip4, const char *ip6, u32 features) {
      ASSERT_EQ(Write(port, kEnabled, Bytes{'t', 'r', 'u', 'e'}), ZEK_OK);
      ASSERT_EQ(Write(port, kDiscovery, blobs::Discovery(1, 0)), ZEK_OK);
      ASSERT_EQ(Write(port, kDiscovery6, blobs::Discovery6(1, 0, 10)), ZEK_OK);
      blobs::Security s;
      s.features = VIGIL_FEAT_PORT_WARDEN | features;
      s.portList = {Entry(VIGIL_WL_IPV4 | VIGIL_WL_MAC, V4(ip4), 32, 0, Mac(mac)),
                    Entry(VIGIL_WL_IPV6 | VIGIL_WL_MAC, V6(ip6), 128, 0, Mac(mac)),
                    Entry(VIGIL_WL_IPV6 | VIGIL_WL_MAC, V6("fe80::"), 64, 0, Mac(mac))};
      ASSERT_EQ(Write(port, kSecurity, s.Build()), ZEK_OK);
   }

   std::vector<std::string> Run(u32 port, bool fromVM, const std::vector<Bytes> &frames) {
      zek_PktList *list = sim::MakeList();
      std::vector<zek_Pkt *> pkts;
      for (const Bytes &bytes : frames) {
         pkts.push_back(frames::Make(bytes));
         sim::ListAppend(list, pkts.back());
      }
      EXPECT_EQ(fromVM ? sim::SendFromVM(port, list) : sim::DeliverToVM(port, list), ZEK_OK);
      std::vector<zek_Pkt *> left = sim::ListFrames(list);
      std::vector<std::string> verdicts;
      size_t next = 0;
      for (zek_Pkt *pkt : pkts) {
         bool kept = next < left.size() && left[next] == pkt;
         verdicts.push_back(kept ? "forward" : "drop");
         next += kept;
      }
      sim::DestroyList(list);
      return verdicts;
   }

   std::map<u32, MessageCount> CountMessages() {
      sim::WaitIdle(5.0);
      std::map<u32, MessageCount> counts;
      for (const sim::PortsetMessage &msg : sim::TakePortsetMessages()) {
         EXPECT_EQ(msg.portset, "vs0");
         bool ipv4 = msg.bytes.size() == 80 && msg.bytes[56] == 1;
         MessageCount &c = counts[msg.portID];
         if (msg.name == "portdb.entry.added") {
            (ipv4 ? c.added4 : c.added6)++;
         } else {
            (ipv4 ? c.removed4 : c.removed6)++;
         }
      }
      return counts;
   }

   /* The IPv6 bindings of a port as (VLAN, MAC, address) texts. */
   std::vector<std::string> V6Bindings(VigilFilter *filter) {
      std::vector<std::string> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->v6VmiList) {
         VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_EXPIRY(pos);
         char mac[18], ip[64];
         snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", vmi->mac[0], vmi->mac[1],
                  vmi->mac[2], vmi->mac[3], vmi->mac[4], vmi->mac[5]);
         inet_ntop(AF_INET6, vmi->ip, ip, sizeof ip);
         out.push_back(std::to_string(vmi->vlanId) + " " + mac + " " + ip);
      }
      return out;
   }

   u64 baseAllocs_ = 0;
   VigilFabClientHandles *client_ = nullptr;
};

} // namespace

TEST_F(Ipv6TrafficTest, MixedTrafficOfTwoPortsUnderThePortWardenThenNothingLeftAtStop) {
   Configure(kPortA, kMacA, "192.0.2.10", "2001:db8::10",
             VIGIL_FEAT_RA_GUARD | VIGIL_FEAT_DHCPV6_CLIENT_BLOCK);
   Configure(kPortB, kMacB, "192.0.2.20", "2001:db8::20", VIGIL_FEAT_DHCPV6_SERVER_BLOCK);
   VigilFilter *a = Vigil_GetPortFilter(kPortA);
   VigilFilter *b = Vigil_GetPortFilter(kPortB);
   ASSERT_NE(a, nullptr);
   ASSERT_NE(b, nullptr);
   EXPECT_EQ(a->discoveryFlags, VIGIL_DISC_ARP | VIGIL_DISC_ND);
   EXPECT_EQ(a->ndExpiry, 600);
   EXPECT_EQ(sim::LiveChains(), 4u);
   TakeModuleLogs();

   const i64 at = v6db::Uptime();
   EXPECT_EQ(Run(kPortA, true,
                 {
                    ArpFrom(kMacA, "192.0.2.10"),                               /* learnt */
                    Udp4(kMacA, "192.0.2.10"),                                  /* listed */
                    v6db::Ns("fe80::10", "2001:db8::1", std::string(kMacA), kMacA), /* learnt */
                    v6db::Na("2001:db8::10", std::string(kMacA), kMacA, "fe80::10"), /* learnt */
                    Udp6(kMacA, "2001:db8::10"),                                /* listed */
                    Udp6(kMacA, "2001:db9::10"),                                /* warden */
                    v6db::Ra("fe80::10", kMacA),                                /* RA guard */
                    Udp6(kMacA, "fe80::10", 546, 547),                          /* DHCPv6 block */
                    Udp4(kMacA, "192.0.2.99"),                                  /* warden */
                    v6db::Ns("::", "2001:db8::11", std::nullopt, kMacA),        /* DAD */
                    v6db::Na("2001:db8::66", std::string(kOtherMac), kMacA, "fe80::10"),
                 }),
             Verdicts({"forward", "forward", "forward", "forward", "forward", "drop", "drop",
                       "drop", "drop", "forward", "drop"}));
   EXPECT_EQ(Run(kPortB, true,
                 {
                    v6db::Ns("2001:db8::20", "2001:db8::1", std::string(kMacB), kMacB),
                    Udp6(kMacB, "2001:db8::20"),
                    Udp6(kMacB, "2001:db8::10"),                                /* A's address */
                    Udp6(kMacB, "fe80::20", 547, 546),                          /* DHCPv6 block */
                    v6db::Ra("fe80::20", kMacB),                                /* no guard here */
                    ArpFrom(kMacB, "192.0.2.20"),
                    Udp4(kMacB, "192.0.2.20"),
                    Udp4(kMacB, "192.0.2.10"),                                  /* A's address */
                 }),
             Verdicts({"forward", "forward", "drop", "drop", "forward", "forward", "forward",
                       "drop"}));
   /* Towards the VMs nothing is blocked or judged. */
   for (u32 port : {kPortA, kPortB}) {
      EXPECT_EQ(Run(port, false,
                    {v6db::Ra("fe80::1", kGatewayMac), Udp6(kGatewayMac, "2001:db9::1", 547, 546),
                     Udp4(kGatewayMac, "198.51.100.1"),
                     v6db::Na("2001:db8::1", std::string(kGatewayMac), kGatewayMac, "fe80::1")}),
                Verdicts({"forward", "forward", "forward", "forward"}));
   }

   /* What each port learnt: the ND target of a dropped advertisement too,
    * never the DAD probe's address. */
   EXPECT_EQ(V6Bindings(a), (std::vector<std::string>{"0 02:00:00:00:00:10 fe80::10",
                                                      "0 02:00:00:00:00:10 2001:db8::10",
                                                      "0 02:00:00:00:00:77 2001:db8::66"}));
   EXPECT_EQ(V6Bindings(b), (std::vector<std::string>{"0 02:00:00:00:00:20 2001:db8::20"}));
   EXPECT_EQ(VIGIL_V6VMI_FROM_EXPIRY(a->v6VmiList.next)->expiryTs, at + 600);
   EXPECT_EQ(a->numArpVmis, 1u);
   EXPECT_EQ(b->numArpVmis, 1u);
   EXPECT_EQ(a->numNdEntries, 3u);
   EXPECT_EQ(b->numNdEntries, 1u);

   EXPECT_EQ(a->stats.statWardenV4Drops, 1u);
   EXPECT_EQ(a->stats.statWardenV6Drops, 1u);
   EXPECT_EQ(a->stats.statWardenNdDrops, 1u);
   EXPECT_EQ(a->stats.statRaGuardDrops, 1u);
   EXPECT_EQ(a->stats.statDhcpV6ClientBlockDrops, 1u);
   EXPECT_EQ(a->stats.statDhcpV6ServerBlockDrops, 0u);
   EXPECT_EQ(b->stats.statWardenV4Drops, 1u);
   EXPECT_EQ(b->stats.statWardenV6Drops, 1u);
   EXPECT_EQ(b->stats.statWardenNdDrops, 0u);
   EXPECT_EQ(b->stats.statRaGuardDrops, 0u);
   EXPECT_EQ(b->stats.statDhcpV6ServerBlockDrops, 1u);
   EXPECT_EQ(b->stats.statDhcpV6ClientBlockDrops, 0u);

   std::map<u32, MessageCount> learnt = CountMessages();
   MessageCount expectA, expectB;
   expectA.added4 = 1;
   expectA.added6 = 3;
   expectB.added4 = 1;
   expectB.added6 = 1;
   EXPECT_EQ(learnt[kPortA], expectA);
   EXPECT_EQ(learnt[kPortB], expectB);
   std::vector<std::string> violations;
   EXPECT_EQ(VigilCheckV6PortDb(a, v6db::CollectViolation, &violations), 0u);
   EXPECT_EQ(VigilCheckV6PortDb(b, v6db::CollectViolation, &violations), 0u);
   EXPECT_EQ(violations, std::vector<std::string>());

   /* Stop: every filter goes with its chains, every binding with a removed
    * message, and the heap holds nothing of them. */
   EXPECT_EQ(Vigil_CleanupFilters(), ZEK_OK);
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(Vigil_GetPortFilter(kPortA), nullptr);
   EXPECT_EQ(Vigil_GetPortFilter(kPortB), nullptr);
   std::map<u32, MessageCount> removed = CountMessages();
   MessageCount goneA, goneB;
   goneA.removed4 = 1;
   goneA.removed6 = 3;
   goneB.removed4 = 1;
   goneB.removed6 = 1;
   EXPECT_EQ(removed[kPortA], goneA);
   EXPECT_EQ(removed[kPortB], goneB);
   EXPECT_EQ(Vigil_FabPropUnregister(client_), ZEK_OK);
   Vigil_HeapFree(client_);
   client_ = nullptr;
   sim::WaitIdle(5.0);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, baseAllocs_);
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
}
