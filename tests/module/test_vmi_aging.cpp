/*
 * Keeping the IPv4 database true over time: the aging pass, changes of the
 * ARP life time, flushes when a discovery method is switched off, and the
 * removal of bindings that a new ignore list matches.  Bindings are learnt
 * through the packet loop.
 */
#include "ipv4_db_test.h"
#include "vigil_config.h"

using namespace v4db;

namespace {

const char *const kPeerIp = "192.0.2.1";
const char *const kMacA = "02:00:00:00:00:0a";
const char *const kMacB = "02:00:00:00:00:0b";
const char *const kMacC = "02:00:00:00:00:0c";

Bytes ArpFrom(const std::string &mac, const std::string &ip) {
   return frames::Arp(mac, mac, ip, kPeerIp);
}

} // namespace

class AgingTest : public Ipv4DbTest {
protected:
   /* An ARP binding learnt from a request of `mac` for `ip`. */
   VigilVmi *Learn(const std::string &mac, const std::string &ip, u16 vlan = 0) {
      sim::FrameOptions opts;
      opts.vlan = vlan;
      EXPECT_EQ(Tx1(ArpFrom(mac, ip), opts), "forward");
      VigilVmi *vmi = Find(vlan, mac, ip);
      EXPECT_NE(vmi, nullptr) << mac << " " << ip;
      return vmi;
   }

   void ConfigArpExpiry(u32 minutes) {
      WithWriteLock([&] { EXPECT_EQ(VigilConfigArpExpiry(filter, minutes), ZEK_OK); });
   }

   void SetIgnoreList(const std::vector<VigilWhiteListEntry> &entries) {
      VigilWhiteListEntry *list = (VigilWhiteListEntry *)Vigil_HeapAlloc(
         (u32)(entries.size() * sizeof(VigilWhiteListEntry)));
      memcpy(list, entries.data(), entries.size() * sizeof(VigilWhiteListEntry));
      WithWriteLock([&] {
         Vigil_HeapFree(filter->portIgnoreList);
         filter->portIgnoreList = list;
         filter->portIgnoreListSize = (u32)entries.size();
         VigilIgnoreListDelPortDb(filter);
      });
   }
};

/* ------------------------------------------------------------------------
 * The aging pass.
 */

TEST_F(AgingTest, ArpBindingEndsOneSecondAfterItsExpiryWithDeleteOnExpiryOn) {
   const i64 t0 = Uptime();
   Learn(kMacA, "192.0.2.11");
   sim::Advance(10);
   Learn(kMacB, "192.0.2.12");
   TakeMessages();
   EXPECT_EQ(filter->agingKey, t0 + 600);

   sim::Advance(590); /* now = t0 + 600 */
   Age();
   EXPECT_EQ(filter->numArpVmis, 2u) << "a binding lives while now equals its expiry";
   sim::Advance(1);
   Age();
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(Find(0, kMacA, "192.0.2.11"), nullptr);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{ArpRemoved(0, kMacA, "192.0.2.11")});
   EXPECT_EQ(filter->agingKey, t0 + 610);
   EXPECT_EQ(QueuedKey(), t0 + 610);
   ExpectNoLeak();
}

TEST_F(AgingTest, WithDeleteOnExpiryOffAnArpBindingMovesToTheExpiredList) {
   SetDeleteExpiry(0);
   const i64 t0 = Uptime();
   VigilVmi *a = Learn(kMacA, "192.0.2.11");
   sim::Advance(10);
   VigilVmi *b = Learn(kMacB, "192.0.2.12");
   TakeMessages();
   sim::Advance(591);
   Age();
   EXPECT_EQ(ExpiredList(), std::vector<VigilVmi *>{a});
   EXPECT_EQ(VmiList(), std::vector<VigilVmi *>{b});
   EXPECT_EQ(filter->numExpiredVmis, 1u);
   EXPECT_EQ(filter->numArpVmis, 2u);
   EXPECT_EQ(filter->numVmis, 2u);
   EXPECT_EQ(filter->agingKey, t0 + 610);
   EXPECT_EQ(TakeMessages().size(), 0u) << "an expired binding is kept, not removed";

   sim::Advance(10);
   Age();
   EXPECT_EQ(ExpiredList(), (std::vector<VigilVmi *>{a, b})) << "linked last";
   EXPECT_EQ(filter->numExpiredVmis, 2u);
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
   EXPECT_EQ(QueuedKey(), -1);
}

TEST_F(AgingTest, PendingRequestsAgeAfterSixtySeconds) {
   Client a = ClientOf(kMacA, 1);
   Client b = ClientOf(kMacB, 2);
   const i64 t0 = Uptime();
   EXPECT_EQ(Tx1(Request(a)), "forward");
   sim::Advance(30);
   EXPECT_EQ(Tx1(Request(b)), "forward");
   EXPECT_EQ(filter->agingKey, t0 + 60);
   sim::Advance(31); /* t0 + 61 */
   Age();
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(memcmp(FirstReq()->chaddr, MacOf(kMacB).data(), 6), 0);
   EXPECT_EQ(filter->agingKey, t0 + 90);
   sim::Advance(30);
   Age();
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
   ExpectNoLeak();
}

TEST_F(AgingTest, StaticBindingAtTheHeadStopsTheWalkButRequestsStillAge) {
   AddStatic(0, kMacC, "192.0.2.99");
   Learn(kMacA, "192.0.2.11");
   EXPECT_EQ(Tx1(Request(ClientOf(kMacB, 3))), "forward");
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(filter->agingKey, VIGIL_DHCP_REQ_FROM_LINKS(filter->dhcpReqList.next)->expiryTs)
      << "the bindings behind a static one give no key; the request does";
   TakeMessages();
   sim::Advance(700);
   Age();
   EXPECT_EQ(filter->numArpVmis, 1u) << "not aged behind a static binding";
   EXPECT_EQ(filter->numStaticVmis, 1u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE) << "nothing left that can end";
   EXPECT_EQ(filter->agingPortID, 0u);
}

/* The same database with the aging world running. */
class AgingWorldRunningTest : public AgingTest {
protected:
   bool RunAgingWorld() override { return true; }

   /* An ARP binding as a restore hands it in, ending at `expiryTs`. */
   VigilVmi *AddArp(const std::string &mac, const std::string &ip, i64 expiryTs) {
      VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
      MacAddr m = MacOf(mac);
      memcpy(vmi->mac, m.data(), 6);
      vmi->ip = Ip(ip);
      vmi->discMethod = VIGIL_DISC_ARP;
      vmi->expiryTs = expiryTs;
      WithWriteLock([&] { EXPECT_EQ(VigilAddVmi(filter, vmi), ZEK_OK); });
      return vmi;
   }
};

TEST_F(AgingWorldRunningTest, PastExpiryArpBindingAddedWithDeleteOnExpiryOffIsKeptExpiredWithoutWakingTheWorld) {
   SetDeleteExpiry(0);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   const zek_WorldID world = VigilAtomicLoad(&agingWorldID);
   ASSERT_NE(world, 0u);
   const u64 wakes = sim::WorldWakes(world);
   const u64 queueLocks = sim::GetLockCounts(filterAgingQLock).exclusives;
   const i64 now = Uptime();

   VigilVmi *past = AddArp(kMacA, "192.0.2.11", now - 30);
   /* Ending at this very second is not later than now: expired too. */
   VigilVmi *due = AddArp(kMacB, "192.0.2.12", now);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(sim::WorldWakes(world), wakes) << "the aging world was woken";
   EXPECT_EQ(sim::GetLockCounts(filterAgingQLock).exclusives, queueLocks)
      << "the aging queue was looked at";
   EXPECT_EQ(ExpiredList(), (std::vector<VigilVmi *>{past, due}));
   EXPECT_TRUE(VmiList().empty());
   EXPECT_EQ(filter->numExpiredVmis, 2u);
   EXPECT_EQ(filter->numArpVmis, 2u);
   EXPECT_EQ(filter->numVmis, 2u);
   EXPECT_EQ(filter->agingPortID, 0u);
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
   EXPECT_EQ(QueuedKey(), -1);
   EXPECT_EQ(MessageBytes(), (std::vector<Bytes>{ArpAdded(0, kMacA, "192.0.2.11"),
                                                 ArpAdded(0, kMacB, "192.0.2.12")}))
      << "announced all the same";
   EXPECT_EQ(Violations(), std::vector<std::string>());

   /* One with time left is queued, and the world is told. */
   AddArp(kMacC, "192.0.2.13", now + 60);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(sim::WorldWakes(world), wakes + 1);
   EXPECT_EQ(filter->agingKey, now + 60);
   EXPECT_EQ(QueuedKey(), now + 60);
   EXPECT_EQ(filter->numExpiredVmis, 2u);
}

/* ------------------------------------------------------------------------
 * The ARP life time.
 */

TEST_F(AgingTest, LoweringTheLifeTimeEndsOldBindingsAndShortensRecentOnes) {
   const i64 t0 = Uptime();
   Learn(kMacA, "192.0.2.11"); /* seen at t0 */
   sim::Advance(90);
   VigilVmi *recent = Learn(kMacB, "192.0.2.12"); /* seen at t0 + 90 */
   TakeMessages();
   sim::Advance(30); /* t0 + 120 */

   ConfigArpExpiry(1);
   EXPECT_EQ(filter->arpExpiry, 60);
   EXPECT_EQ(Find(0, kMacA, "192.0.2.11"), nullptr) << "seen 120 s ago: ends at once";
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{ArpRemoved(0, kMacA, "192.0.2.11")});
   EXPECT_EQ(VmiList(), std::vector<VigilVmi *>{recent});
   EXPECT_EQ(recent->expiryTs, Uptime() + 30) << "seen 30 s ago: 30 s more";
   EXPECT_EQ(filter->agingKey, t0 + 150);
   EXPECT_EQ(QueuedKey(), t0 + 150);
   EXPECT_EQ(filter->numArpVmis, 1u);
   /* A new binding lives the new life time. */
   VigilVmi *fresh = Learn(kMacC, "192.0.2.13");
   EXPECT_EQ(fresh->expiryTs, Uptime() + 60);
}

TEST_F(AgingTest, LoweringTheLifeTimeWithDeleteOnExpiryOffKeepsEndedBindingsExpired) {
   SetDeleteExpiry(0);
   VigilVmi *old = Learn(kMacA, "192.0.2.11");
   sim::Advance(90);
   VigilVmi *recent = Learn(kMacB, "192.0.2.12");
   TakeMessages();
   sim::Advance(30);
   ConfigArpExpiry(1);
   EXPECT_EQ(ExpiredList(), std::vector<VigilVmi *>{old});
   EXPECT_EQ(VmiList(), std::vector<VigilVmi *>{recent});
   EXPECT_EQ(filter->numExpiredVmis, 1u);
   EXPECT_EQ(filter->numArpVmis, 2u);
   EXPECT_EQ(TakeMessages().size(), 0u);
}

TEST_F(AgingTest, RaisingTheLifeTimeMergesArpBindingsBackAmongDhcpBindings) {
   const i64 t0 = Uptime();
   VigilVmi *a = Learn(kMacA, "192.0.2.11"); /* expires t0 + 600 */
   sim::Advance(100);
   VigilVmi *b = Learn(kMacB, "192.0.2.12"); /* expires t0 + 700 */
   Client c1 = ClientOf("02:00:00:00:00:d1", 0xd1);
   Client c2 = ClientOf("02:00:00:00:00:d2", 0xd2);
   Bind(c1, "192.0.2.21", 1100); /* expires t0 + 1200 */
   Bind(c2, "192.0.2.22", 1150); /* expires t0 + 1250 */
   VigilVmi *d1 = Find(0, c1.mac, "192.0.2.21");
   VigilVmi *d2 = Find(0, c2.mac, "192.0.2.22");
   ASSERT_EQ(VmiList(), (std::vector<VigilVmi *>{a, b, d1, d2}));
   EXPECT_EQ(filter->agingKey, t0 + 600);
   TakeMessages();

   ConfigArpExpiry(20); /* +600 s: a to t0 + 1200, b to t0 + 1300 */
   EXPECT_EQ(filter->arpExpiry, 1200);
   EXPECT_EQ(a->expiryTs, t0 + 1200);
   EXPECT_EQ(b->expiryTs, t0 + 1300);
   EXPECT_EQ(d1->expiryTs, t0 + 1200);
   EXPECT_EQ(d2->expiryTs, t0 + 1250);
   /* Among equal expiries the binding that stayed comes first. */
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{d1, a, d2, b}));
   EXPECT_EQ(filter->agingKey, t0 + 1200);
   EXPECT_EQ(QueuedKey(), t0 + 1200);
   EXPECT_EQ(TakeMessages().size(), 0u);
}

TEST_F(AgingTest, WritingTheSameLifeTimeTwiceDoesNothingTheSecondTime) {
   const i64 t0 = Uptime();
   VigilVmi *a = Learn(kMacA, "192.0.2.11");
   Client c = ClientOf("02:00:00:00:00:d1", 0xd1);
   Bind(c, "192.0.2.21", 1000);
   VigilVmi *d = Find(0, c.mac, "192.0.2.21");
   TakeMessages();
   ConfigArpExpiry(20);
   ASSERT_EQ(a->expiryTs, t0 + 1200);
   ASSERT_EQ(VmiList(), (std::vector<VigilVmi *>{d, a}));
   sim::Advance(50);
   ConfigArpExpiry(20);
   EXPECT_EQ(filter->arpExpiry, 1200);
   EXPECT_EQ(a->expiryTs, t0 + 1200);
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{d, a}));
   EXPECT_EQ(filter->agingKey, t0 + 1000);
   EXPECT_EQ(TakeMessages().size(), 0u);
   /* The default, 10 minutes, also counts as a change only once. */
   ConfigArpExpiry(10);
   EXPECT_EQ(a->expiryTs, t0 + 600);
   ConfigArpExpiry(10);
   EXPECT_EQ(a->expiryTs, t0 + 600);
}

TEST_F(AgingTest, LifeTimeChangeWithNoRunningArpBindingOnlyAppliesToNewOnes) {
   SetDeleteExpiry(0);
   VigilVmi *old = Learn(kMacA, "192.0.2.11");
   sim::Advance(601);
   Age();
   ASSERT_EQ(filter->numExpiredVmis, 1u);
   const i64 expiry = old->expiryTs;
   ConfigArpExpiry(30);
   EXPECT_EQ(old->expiryTs, expiry) << "expired bindings are not touched";
   EXPECT_EQ(filter->arpExpiry, 1800);
   VigilVmi *fresh = Learn(kMacB, "192.0.2.12");
   EXPECT_EQ(fresh->expiryTs, Uptime() + 1800);
}

/* ------------------------------------------------------------------------
 * Discovery methods switched off, and flushes.
 */

TEST_F(AgingTest, SwitchingDhcpOffWithoutFlushKeepsBindingsButDropsPendingRequests) {
   Client vm = ClientOf(frames::kVmMac, 0x55);
   Bind(vm);
   VigilVmi *bound = Find(0, vm.mac, kLeaseIp);
   const i64 expiry = bound->expiryTs;
   EXPECT_EQ(Tx1(Renew(vm)), "forward");
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   TakeMessages();

   WithWriteLock([&] { EXPECT_EQ(VigilConfigIpv4Discovery(filter, false, true, false), ZEK_OK); });
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_ARP);
   EXPECT_EQ(Find(0, vm.mac, kLeaseIp), bound);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->agingKey, expiry);

   /* Back on, the server's late answer finds no request. */
   WithWriteLock([&] { EXPECT_EQ(VigilConfigIpv4Discovery(filter, true, true, false), ZEK_OK); });
   sim::Advance(100);
   EXPECT_EQ(Rx1(Ack(vm)), "forward");
   EXPECT_EQ(bound->expiryTs, expiry) << "the lease is not extended";
   EXPECT_EQ(TakeMessages().size(), 0u);
   ExpectNoLeak();
}

TEST_F(AgingTest, SwitchingArpOffWithFlushRemovesArpBindingsOnly) {
   Client vm = ClientOf(frames::kVmMac, 0x56);
   Bind(vm);
   Learn(kMacA, "192.0.2.11");
   EXPECT_EQ(Tx1(Request(ClientOf(kMacB, 9))), "forward");
   TakeMessages();
   WithWriteLock([&] { EXPECT_EQ(VigilConfigIpv4Discovery(filter, true, false, true), ZEK_OK); });
   EXPECT_EQ(filter->numArpVmis, 0u);
   EXPECT_EQ(filter->numDhcpVmis, 1u);
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{ArpRemoved(0, kMacA, "192.0.2.11")});
}

TEST_F(AgingTest, DiscoveryMaskThreeAtFilterDestructionRemovesExpiredArpBindingsToo) {
   SetDeleteExpiry(0);
   Learn(kMacA, "192.0.2.11");
   Client vm = ClientOf(frames::kVmMac, 0x57);
   Bind(vm);
   sim::Advance(601);
   Age();
   ASSERT_EQ(filter->numExpiredVmis, 1u);
   Learn(kMacB, "192.0.2.12"); /* running, ends before the lease */
   AddStatic(0, kMacC, "192.0.2.99");
   TakeMessages();

   /* What filter destruction does with the IPv4 database. */
   WithWriteLock([&] { VigilDelVmiByDiscMethod(filter, VIGIL_DISC_DHCP | VIGIL_DISC_ARP); });
   EXPECT_EQ(filter->numExpiredVmis, 0u);
   EXPECT_EQ(filter->numArpVmis, 0u);
   EXPECT_EQ(filter->numDhcpVmis, 0u);
   EXPECT_EQ(filter->numVmis, 1u) << "a static binding is not flushed by method";
   EXPECT_EQ(filter->numStaticVmis, 1u);
   EXPECT_EQ(MessageBytes(), (std::vector<Bytes>{ArpRemoved(0, kMacA, "192.0.2.11"),
                                                 ArpRemoved(0, kMacB, "192.0.2.12"),
                                                 DhcpRemoved(0, vm.mac, kLeaseIp)}));
}

TEST_F(AgingTest, FlushOfDhcpAloneLeavesExpiredArpBindings) {
   SetDeleteExpiry(0);
   Learn(kMacA, "192.0.2.11");
   sim::Advance(601);
   Age();
   Bind(ClientOf(frames::kVmMac, 0x58));
   TakeMessages();
   WithWriteLock([&] { VigilDelVmiByDiscMethod(filter, VIGIL_DISC_DHCP); });
   EXPECT_EQ(filter->numDhcpVmis, 0u);
   EXPECT_EQ(filter->numExpiredVmis, 1u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, frames::kVmMac, kLeaseIp)});
}

TEST_F(AgingTest, StaticAloneIsAnInvalidDeleteMask) {
   AddStatic(0, kMacC, "192.0.2.99");
   Learn(kMacA, "192.0.2.11");
   sim::TakeLogs();
   WithWriteLock([&] { VigilDelVmiByDiscMethod(filter, VIGIL_DISC_STATIC); });
   EXPECT_EQ(filter->numVmis, 2u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Invalid delete mask 4"});
}

/* ------------------------------------------------------------------------
 * The ignore list.
 */

TEST_F(AgingTest, VlanOnlyIgnoreEntryRemovesEveryBindingOnThatVlanAndIpv6EntryNone) {
   SetDeleteExpiry(0);
   Learn(kMacA, "192.0.2.11", 5);
   sim::Advance(601);
   Age(); /* kMacA on VLAN 5 is now expired */
   ASSERT_EQ(filter->numExpiredVmis, 1u);
   Learn(kMacB, "192.0.2.12", 5);
   Client vm = ClientOf(frames::kVmMac, 0x59);
   Bind(vm, kLeaseIp, kLease, 5);
   AddStatic(5, kMacC, "192.0.2.99");
   Learn(kMacA, "192.0.2.11", 6);
   TakeMessages();

   VigilWhiteListEntry vlanOnly = {};
   vlanOnly.flags = VIGIL_WL_VLAN;
   vlanOnly.vlan = 5;
   VigilWhiteListEntry v6Only = {};
   v6Only.flags = VIGIL_WL_IPV6;
   ASSERT_EQ(inet_pton(AF_INET6, "fe80::1", v6Only.ip), 1);
   v6Only.prefixLen = 128;
   SetIgnoreList({v6Only, vlanOnly});

   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_NE(Find(6, kMacA, "192.0.2.11"), nullptr);
   EXPECT_EQ(filter->numExpiredVmis, 0u);
   EXPECT_EQ(filter->numStaticVmis, 0u) << "the one way a static binding goes";
   EXPECT_EQ(MessageBytes(),
             (std::vector<Bytes>{ArpRemoved(5, kMacA, "192.0.2.11"),
                                 PortDbMsg(false, 5, kMacC, "192.0.2.99", 1, 0,
                                           VIGIL_DISC_STATIC),
                                 ArpRemoved(5, kMacB, "192.0.2.12"),
                                 DhcpRemoved(5, vm.mac, kLeaseIp)}));

   /* Learning on VLAN 5 is refused from now on; VLAN 6 goes on. */
   sim::FrameOptions vlan5;
   vlan5.vlan = 5;
   EXPECT_EQ(Tx1(ArpFrom(kMacB, "192.0.2.12"), vlan5), "forward");
   EXPECT_EQ(Find(5, kMacB, "192.0.2.12"), nullptr);
   EXPECT_EQ(filter->stats.statV4VmiAddRefused, 1u);
   Learn(kMacB, "192.0.2.12", 6);
   EXPECT_EQ(filter->stats.statV4VmiAddRefused, 1u);
   ExpectNoLeak();
}

TEST_F(AgingTest, IgnoredDhcpLeaseIsNotLearntAndTheRequestIsAnswered) {
   VigilWhiteListEntry entry = {};
   entry.flags = VIGIL_WL_IPV4 | VIGIL_WL_MAC;
   MacAddr mac = MacOf(frames::kVmMac);
   memcpy(entry.mac, mac.data(), 6);
   u32 ip = Ip(kLeaseIp);
   memcpy(entry.ip, &ip, 4);
   SetIgnoreList({entry});
   Client vm = ClientOf(frames::kVmMac, 0x60);
   EXPECT_EQ(Tx1(Request(vm)), "forward");
   EXPECT_EQ(Rx1(Ack(vm)), "forward");
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->stats.statV4VmiAddRefused, 1u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   /* Another address of the same client is learnt. */
   EXPECT_EQ(Tx1(Request(vm, "192.0.2.51")), "forward");
   EXPECT_EQ(Rx1(Ack(vm, "192.0.2.51")), "forward");
   EXPECT_EQ(filter->numDhcpVmis, 1u);
   ExpectNoLeak();
}
