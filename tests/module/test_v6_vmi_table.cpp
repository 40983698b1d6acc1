/*
 * The IPv6 binding table: adds and their replacement rules, limits,
 * refresh, deletion, clearing, aging, the ND life time change, the added
 * and removed messages, and heap exhaustion.
 */
#include <cstring>
#include <string>
#include <vector>

#include "test_addresses.h"
#include "vigil_config.h"
#include "vigil_test.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_workers.h"

namespace {

constexpr u32 kPort = 0x10;
constexpr i64 kNow = 1000; /* the virtual clock's start */
constexpr u32 kIgnored = 0xbad0002;
constexpr u32 kExists = 0xbad0005;
constexpr u32 kLimit = 0xbad0006;
constexpr u32 kNoMemory = 0xbad0014;

/* 2001:db8::n */
std::array<u8, 16> V6(u32 n) {
   std::array<u8, 16> ip{0x20, 0x01, 0x0d, 0xb8};
   ip[12] = (u8)(n >> 24);
   ip[13] = (u8)(n >> 16);
   ip[14] = (u8)(n >> 8);
   ip[15] = (u8)n;
   return ip;
}

class V6VmiTableTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      filter = AddFilter(kPort);
      ASSERT_EQ(VigilVmiHashAlloc(&filter->vmiHash), ZEK_OK);
      ASSERT_EQ(VigilV6VmiHashAlloc(&filter->v6VmiHash), ZEK_OK);
      TakeModuleLogs();
   }
   void TearDown() override {
      SetDeleteExpiry(1);
      sim::FaultClear();
      WithWriteHold(kPort, [&] {
         VigilClearV6Vmi(filter, true, 0, nullptr);
         VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6VmiList) {
            VigilDelV6Vmi(filter, VIGIL_V6VMI_FROM_EXPIRY(pos));
         }
      });
      EXPECT_EQ(Violations(), std::vector<std::string>{});
      Vigil_HeapFree(filter->v6VmiHash);
      filter->v6VmiHash = nullptr;
      Vigil_HeapFree(filter->vmiHash);
      filter->vmiHash = nullptr;
      sim::WaitIdle(5.0);
      sim::TakePortsetMessages();
      VigilTest::TearDown();
   }

   /* A template as the snoopers fill it: an ND binding ends a life time
    * from now, a DHCPv6 one at the end of its valid lifetime. */
   VigilV6Vmi Template(u32 n, u8 method, i64 expiryTs = -1) {
      VigilV6Vmi t;
      memset(&t, 0, sizeof t);
      t.vlanId = 5;
      std::vector<u8> mac = addrtext::MacBytes("02:00:00:00:00:10");
      memcpy(t.mac, mac.data(), 6);
      std::array<u8, 16> ip = V6(n);
      memcpy(t.ip, ip.data(), 16);
      t.discMethod = method;
      t.expiryTs = expiryTs != -1 ? expiryTs : Vigil_UptimeSecs() + 600;
      if (method == VIGIL_DISC_DHCPV6) {
         t.iaId = 0x1234;
         t.validLifetime = 300;
         if (expiryTs == -1) {
            t.expiryTs = Vigil_UptimeSecs() + 300;
         }
         t.preferredLifetime = 200;
         t.clientIdLen = (u16)sizeof clientId_;
         t.clientId = clientId_;
         std::array<u8, 16> server = V6(0xfe);
         memcpy(t.serverIp, server.data(), 16);
      }
      return t;
   }

   zek_Status Add(const VigilV6Vmi &t) {
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] { status = VigilAddV6Vmi(filter, &t); });
      return status;
   }
   zek_Status AddNd(u32 n) { return Add(Template(n, VIGIL_DISC_ND)); }

   VigilV6Vmi *Find(u32 n) {
      VigilV6Vmi t = Template(n, VIGIL_DISC_ND);
      return WithReadHold(kPort, [&] { return VigilFindV6Vmi(filter, (const u8 *)&t.vlanId); });
   }

   void Age() {
      WithWriteHold(kPort, [&] { VigilPortDbV6DoAging(filter, Vigil_UptimeSecs()); });
   }

   /* The address's last byte of every record of a list, in order. */
   std::vector<u32> Running() {
      std::vector<u32> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->v6VmiList) {
         out.push_back(VIGIL_V6VMI_FROM_EXPIRY(pos)->ip[15]);
      }
      return out;
   }
   std::vector<u32> Expired() {
      std::vector<u32> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->v6ExpiredNdList) {
         out.push_back(VIGIL_V6VMI_FROM_EXPIRED(pos)->ip[15]);
      }
      return out;
   }

   /* "added n" / "removed n" for each message delivered since the last call. */
   std::vector<std::string> Messages() {
      sim::WaitIdle(5.0);
      std::vector<std::string> out;
      for (const sim::PortsetMessage &m : sim::TakePortsetMessages()) {
         const VigilPortsetMsg *msg = (const VigilPortsetMsg *)m.bytes.data();
         out.push_back(std::string(msg->op == 0 ? "added " : "removed ") +
                       std::to_string(msg->entry.ip[15]));
      }
      return out;
   }

   std::vector<std::string> Violations() {
      std::vector<std::string> found;
      VigilCheckFilterTables(
         filter, [](void *ctx, const char *text) {
            ((std::vector<std::string> *)ctx)->push_back(text);
         },
         &found);
      return found;
   }

   VigilFilter *filter = nullptr;
   u8 clientId_[4] = {0, 1, 0, 1};
};

TEST_F(V6VmiTableTest, SixteenthNdAddressFailsWhenNoneHasExpired) {
   for (u32 n = 1; n <= 15; n++) {
      ASSERT_EQ(AddNd(n), ZEK_OK);
   }
   Messages();
   TakeModuleLogs();
   EXPECT_EQ(AddNd(16), kLimit);
   EXPECT_EQ(filter->numNdEntries, 15u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].log, "vigil.throttle");
   EXPECT_EQ(lines[0].text, "Filter 0x10 Max ND Snooped IP limit of 15 reached for port 0x10");
   EXPECT_EQ(Messages(), std::vector<std::string>{}) << "no running binding goes";
   EXPECT_EQ(Find(16), nullptr);
}

TEST_F(V6VmiTableTest, SixteenthNdAddressTakesThePlaceOfAnExpiredOne) {
   SetDeleteExpiry(0);
   ASSERT_EQ(Add(Template(1, VIGIL_DISC_ND)), ZEK_OK);
   sim::Advance(601);
   Age();
   EXPECT_EQ(Expired(), std::vector<u32>{1});
   for (u32 n = 2; n <= 15; n++) {
      ASSERT_EQ(AddNd(n), ZEK_OK);
   }
   Messages();
   EXPECT_EQ(AddNd(16), ZEK_OK);
   EXPECT_EQ(Messages(), (std::vector<std::string>{"removed 1", "added 16"}));
   EXPECT_EQ(filter->numNdEntries, 15u);
   EXPECT_EQ(filter->numExpiredNdEntries, 0u);
}

TEST_F(V6VmiTableTest, DhcpV6TakesAnAddressOverFromNdButNotTheReverse) {
   ASSERT_EQ(AddNd(1), ZEK_OK);
   EXPECT_EQ(Add(Template(1, VIGIL_DISC_DHCPV6)), ZEK_OK);
   EXPECT_EQ(Messages(), (std::vector<std::string>{"added 1", "removed 1", "added 1"}));
   ASSERT_NE(Find(1), nullptr);
   EXPECT_EQ(Find(1)->discMethod, VIGIL_DISC_DHCPV6);
   EXPECT_EQ(Find(1)->expiryTs, kNow + 300);
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
   EXPECT_EQ(filter->dhcpV6ClientIdBytes, 4u);

   EXPECT_EQ(AddNd(1), ZEK_OK);
   EXPECT_EQ(Messages(), std::vector<std::string>{}) << "ND changes nothing";
   EXPECT_EQ(Find(1)->discMethod, VIGIL_DISC_DHCPV6);
   EXPECT_EQ(Find(1)->expiryTs, kNow + 300) << "nor extends the lease";
}

TEST_F(V6VmiTableTest, ValidLifetimeWithTheTopBitSetEndsAtTheNextPass) {
   for (u32 life : {0x80000000u, 0xffffffffu}) {
      VigilV6Vmi t = Template(life == 0xffffffffu ? 2 : 1, VIGIL_DISC_DHCPV6);
      t.validLifetime = (i32)life;
      ASSERT_EQ(Add(t), ZEK_OK);
      ASSERT_EQ(Add(t), ZEK_OK) << "a renewal computes the signed sum";
      EXPECT_EQ(Find(t.ip[15])->expiryTs, kNow + (i64)(i32)life);
   }
   Messages();
   Age();
   EXPECT_EQ(filter->numDhcpV6Entries, 0u);
   EXPECT_EQ(Messages(), (std::vector<std::string>{"removed 1", "removed 2"}));
}

TEST_F(V6VmiTableTest, ExpiredNdBindingLearntAgainRunsWithoutAMessage) {
   SetDeleteExpiry(0);
   ASSERT_EQ(AddNd(1), ZEK_OK);
   sim::Advance(600);
   Age();
   EXPECT_EQ(Expired(), std::vector<u32>{1}) << "due at its expiry";
   EXPECT_EQ(filter->numExpiredNdEntries, 1u);
   EXPECT_EQ(filter->agingPortID, 0u) << "nothing left that can end";
   Messages();
   ASSERT_EQ(AddNd(1), ZEK_OK);
   EXPECT_EQ(Running(), std::vector<u32>{1});
   EXPECT_EQ(filter->numExpiredNdEntries, 0u);
   EXPECT_EQ(Find(1)->expiryTs, kNow + 600 + 600);
   EXPECT_EQ(filter->agingKey, kNow + 1200);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
}

TEST_F(V6VmiTableTest, BindingsOfEqualExpiryKeepTheirOrderOfArrival) {
   ASSERT_EQ(AddNd(1), ZEK_OK);
   ASSERT_EQ(AddNd(2), ZEK_OK);
   ASSERT_EQ(AddNd(3), ZEK_OK);
   EXPECT_EQ(Running(), (std::vector<u32>{1, 2, 3}));
   sim::Advance(1);
   ASSERT_EQ(AddNd(1), ZEK_OK); /* refreshed: now the latest */
   EXPECT_EQ(Running(), (std::vector<u32>{2, 3, 1}));
}

TEST_F(V6VmiTableTest, ShorterNdLifeTimeEndsWhatItPutsInThePastAndKeepsTheOrder) {
   ASSERT_EQ(AddNd(1), ZEK_OK); /* ends 1600 */
   sim::Advance(100);
   ASSERT_EQ(Add(Template(9, VIGIL_DISC_DHCPV6)), ZEK_OK); /* ends 1400 */
   ASSERT_EQ(AddNd(2), ZEK_OK); /* ends 1700 */
   sim::Advance(200);
   ASSERT_EQ(AddNd(3), ZEK_OK); /* ends 1900 */
   EXPECT_EQ(Running(), (std::vector<u32>{9, 1, 2, 3}));
   Messages();
   /* Ten minutes become five: 1 (seen 300 s ago) is past, 2 (200 s ago)
    * and 3 stay, each keeping its age; 2 now ends with the lease of 9, and
    * stands behind it. */
   WithWriteHold(kPort, [&] { EXPECT_EQ(VigilConfigNdExpiry(filter, 5), ZEK_OK); });
   EXPECT_EQ(filter->ndExpiry, 300);
   EXPECT_EQ(Running(), (std::vector<u32>{9, 2, 3}));
   EXPECT_EQ(Find(2)->expiryTs, kNow + 400);
   EXPECT_EQ(Find(3)->expiryTs, kNow + 600);
   EXPECT_EQ(Messages(), std::vector<std::string>{"removed 1"});
   EXPECT_EQ(filter->agingKey, kNow + 400) << "the key follows at once";

   /* One minute: 2 (seen 200 s ago) is past and kept expired; 3 (seen just
    * now) ends before the lease of 9. */
   SetDeleteExpiry(0);
   WithWriteHold(kPort, [&] { EXPECT_EQ(VigilConfigNdExpiry(filter, 1), ZEK_OK); });
   EXPECT_EQ(Running(), (std::vector<u32>{3, 9}));
   EXPECT_EQ(Expired(), (std::vector<u32>{2}));
   EXPECT_EQ(filter->numExpiredNdEntries, 1u);
   EXPECT_EQ(filter->agingKey, kNow + 360);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
}

TEST_F(V6VmiTableTest, ClearAllLeavesStaticRecordsAndAnEmptyTableUntouched) {
   WithWriteHold(kPort, [&] { VigilClearV6Vmi(filter, false, 0, nullptr); });
   EXPECT_EQ(filter->numNdEntries, 0u);
   ASSERT_EQ(AddNd(1), ZEK_OK);
   ASSERT_EQ(Add(Template(2, VIGIL_DISC_STATIC, kNow + 50)), ZEK_OK);
   ASSERT_EQ(Add(Template(3, VIGIL_DISC_DHCPV6)), ZEK_OK);
   TakeModuleLogs();
   Messages();
   VigilV6Vmi key = Template(2, VIGIL_DISC_STATIC);
   WithWriteHold(kPort, [&] { VigilClearV6Vmi(filter, false, 1, (const u8 *)&key.vlanId); });
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Trying to delete a static entry: 5 02:00:00:00:00:10 "
                            "2001:db8:0:0:0:0:0:2"}));
   WithWriteHold(kPort, [&] { VigilClearV6Vmi(filter, true, 0, nullptr); });
   EXPECT_EQ(Running(), std::vector<u32>{2});
   EXPECT_EQ(Messages(), (std::vector<std::string>{"removed 3", "removed 1"}))
      << "in expiry order";
   /* The static record is the test's to remove. */
   VigilV6Vmi *found = Find(2);
   WithWriteHold(kPort, [&] { VigilDelV6Vmi(filter, found); });
}

TEST_F(V6VmiTableTest, KeyOfAStaticRecordIsRefusedToEveryOtherMethod) {
   ASSERT_EQ(Add(Template(2, VIGIL_DISC_STATIC, kNow + 50)), ZEK_OK);
   EXPECT_EQ(AddNd(2), kExists);
   EXPECT_EQ(Add(Template(2, VIGIL_DISC_DHCPV6)), kExists);
   EXPECT_EQ(Add(Template(2, VIGIL_DISC_STATIC, kNow + 70)), kExists);
   EXPECT_EQ(Find(2)->expiryTs, kNow + 50);
   VigilV6Vmi *found = Find(2);
   WithWriteHold(kPort, [&] { VigilDelV6Vmi(filter, found); });
}

TEST_F(V6VmiTableTest, AddressOnTheIgnoreListIsRefusedAndCounted) {
   VigilWhiteListEntry entry = {};
   entry.flags = VIGIL_WL_IPV6;
   std::array<u8, 16> ip = V6(7);
   memcpy(entry.ip, ip.data(), 16);
   filter->portIgnoreList = &entry;
   filter->portIgnoreListSize = 1;
   EXPECT_EQ(AddNd(7), kIgnored);
   EXPECT_EQ(AddNd(8), ZEK_OK);
   EXPECT_EQ(filter->stats.statV6VmiAddRefused, 1u);
   EXPECT_EQ(Messages(), std::vector<std::string>{"added 8"});
   filter->portIgnoreList = nullptr;
   filter->portIgnoreListSize = 0;
}

TEST_F(V6VmiTableTest, RestoredNdBindingPastItsTimeIsKeptExpiredWithItsAddedMessage) {
   SetDeleteExpiry(0);
   ASSERT_EQ(Add(Template(1, VIGIL_DISC_ND, kNow)), ZEK_OK);
   ASSERT_EQ(Add(Template(2, VIGIL_DISC_ND, kNow - 30)), ZEK_OK);
   EXPECT_EQ(Expired(), (std::vector<u32>{2, 1})) << "sorted by expiry";
   EXPECT_EQ(filter->agingPortID, 0u);
   EXPECT_EQ(Messages(), (std::vector<std::string>{"added 1", "added 2"}));
}

TEST_F(V6VmiTableTest, MessagesAreEightyBytesWithTheWholeAddress) {
   ASSERT_EQ(Add(Template(0x0102, VIGIL_DISC_DHCPV6)), ZEK_OK);
   VigilV6Vmi *found = Find(0x0102);
   WithWriteHold(kPort, [&] { VigilDelV6Vmi(filter, found); });
   sim::WaitIdle(5.0);
   std::vector<sim::PortsetMessage> messages = sim::TakePortsetMessages();
   ASSERT_EQ(messages.size(), 2u);
   std::vector<u8> added(80, 0);
   memcpy(added.data(), "portdb.entry.added", 18);
   added[32] = 40;           /* payload length */
   added[44] = 1;            /* one entry */
   added[48] = 5;            /* VLAN */
   const u8 mac[6] = {2, 0, 0, 0, 0, 0x10};
   memcpy(&added[50], mac, 6);
   std::array<u8, 16> ip = V6(0x0102);
   memcpy(&added[60], ip.data(), 16);
   added[76] = 1;  /* bound: a DHCPv6 lease */
   added[78] = 16; /* discMethod */
   EXPECT_EQ(messages[0].name, "portdb.entry.added");
   EXPECT_EQ(messages[0].bytes, added);
   std::vector<u8> removed = added;
   memset(removed.data(), 0, 32);
   memcpy(removed.data(), "portdb.entry.removed", 20);
   removed[40] = 1;
   EXPECT_EQ(messages[1].bytes, removed);
}

TEST_F(V6VmiTableTest, FailedAllocationsLeaveTheTableAsItWas) {
   ASSERT_EQ(AddNd(1), ZEK_OK);
   Messages();
   TakeModuleLogs();
   for (u32 n = 1; n <= 2; n++) {
      sim::FaultAlloc(n);
      EXPECT_EQ(Add(Template(2, VIGIL_DISC_DHCPV6)), kNoMemory) << "allocation " << n;
      EXPECT_EQ(filter->numDhcpV6Entries, 0u);
      EXPECT_EQ(filter->dhcpV6ClientIdBytes, 0u);
      EXPECT_EQ(Find(2), nullptr);
      EXPECT_EQ(Violations(), std::vector<std::string>{});
      std::vector<sim::LogLine> lines = TakeModuleLogs();
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0].text, "Filter 0x10 v6vmi alloc failed");
   }
   sim::FaultAlloc(1);
   EXPECT_EQ(AddNd(3), kNoMemory);
   EXPECT_EQ(filter->numNdEntries, 1u);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
}

TEST_F(V6VmiTableTest, FlushByMethodTakesTheExpiredWithNd) {
   SetDeleteExpiry(0);
   ASSERT_EQ(AddNd(1), ZEK_OK);
   sim::Advance(600);
   Age();
   ASSERT_EQ(AddNd(2), ZEK_OK);
   ASSERT_EQ(Add(Template(3, VIGIL_DISC_DHCPV6)), ZEK_OK);
   Messages();
   WithWriteHold(kPort, [&] { VigilFlushV6VmiByDiscoveryMethod(filter, VIGIL_DISC_DHCPV6); });
   EXPECT_EQ(Messages(), std::vector<std::string>{"removed 3"});
   WithWriteHold(kPort, [&] { VigilFlushV6VmiByDiscoveryMethod(filter, VIGIL_DISC_ND); });
   EXPECT_EQ(Messages(), (std::vector<std::string>{"removed 1", "removed 2"}));
   EXPECT_EQ(filter->numNdEntries, 0u);
}

TEST_F(V6VmiTableTest, ReduceSpendsTheExpiredFirstAndPassesDhcpV6By) {
   SetDeleteExpiry(0);
   ASSERT_EQ(AddNd(1), ZEK_OK);
   sim::Advance(600);
   Age();
   ASSERT_EQ(Add(Template(2, VIGIL_DISC_DHCPV6)), ZEK_OK);
   ASSERT_EQ(AddNd(3), ZEK_OK);
   ASSERT_EQ(AddNd(4), ZEK_OK);
   Messages();
   WithWriteHold(kPort, [&] { VigilReduceNdEntries(filter, 1); });
   EXPECT_EQ(Messages(), (std::vector<std::string>{"removed 1", "removed 3"}));
   EXPECT_EQ(filter->numNdEntries, 1u);
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
}

} // namespace

namespace {

/* The same table with the aging world running. */
class V6AgingWorldTest : public V6VmiTableTest {
protected:
   bool RunAgingWorld() override { return true; }
};

TEST_F(V6AgingWorldTest, WorldEndsIpv6BindingsAtTheirExpiryAndThenRests) {
   ASSERT_EQ(AddNd(1), ZEK_OK);                            /* ends 1600 */
   ASSERT_EQ(Add(Template(2, VIGIL_DISC_DHCPV6)), ZEK_OK); /* ends 1300 */
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(filter->agingKey, kNow + 300);
   Messages();
   /* The world wakes a second after a key, when an IPv4 record of that
    * key has ended too; an IPv6 record is due from its key on. */
   sim::SetTime((double)kNow + 300.0);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(Messages(), std::vector<std::string>{});
   sim::SetTime((double)kNow + 301.0);
   ASSERT_TRUE(sim::WaitIdle(5.0)) << "the world sleeps after the pass";
   EXPECT_EQ(Messages(), std::vector<std::string>{"removed 2"});
   EXPECT_EQ(filter->agingKey, kNow + 600);

   SetDeleteExpiry(0);
   sim::SetTime((double)kNow + 601.0);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(Messages(), std::vector<std::string>{}) << "kept expired, no message";
   EXPECT_EQ(Expired(), std::vector<u32>{1});
   EXPECT_EQ(filter->agingPortID, 0u);
   EXPECT_TRUE(sim::PriQContents(filterAgingQ).empty());
}

} // namespace
