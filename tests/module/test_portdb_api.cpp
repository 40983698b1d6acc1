/*
 * The port database seen from outside its tables: the query of both
 * families into a caller's buffer in its three formats, the deletion by
 * keys, the three functions sibling modules call (here called as the
 * module's own code calls them; tests/load/test_portdb_api_load.cpp calls
 * them by name in the loaded module), and the re-insertion of bindings a
 * restore has rebuilt.
 */
#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "portdb_text.h"
#include "test_addresses.h"
#include "vigil_config.h"
#include "vigil_test.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_whitelist.h"
#include "vigil_workers.h"

namespace {

constexpr u32 kPort = 0x10;
constexpr u32 kOtherPort = 0x11; /* a port without a filter */
constexpr i64 kNow = 1000;       /* the virtual clock's start */
constexpr u32 kIgnored = 0xbad0002;
constexpr u32 kNotFound = 0xbad0003;
constexpr u32 kExists = 0xbad0005;
constexpr u32 kLimit = 0xbad0006;
constexpr u32 kBadParam = 0xbad0007;
constexpr u8 kGuard = 0xaa; /* what a caller's buffer holds before a query */
constexpr u32 kFormats[] = {VIGIL_QUERY_FORMAT_RECORD, VIGIL_QUERY_FORMAT_ENTRY,
                            VIGIL_QUERY_FORMAT_KEY};

const char *const kVmMac = "02:00:00:00:00:10";
const char *const kOtherMac = "02:00:00:00:00:11";

using Bytes = std::vector<u8>;
using Said = std::vector<std::pair<int, std::string>>;
using addrtext::Ip;
using addrtext::MacOf;
using portdbtext::MessageText;
using portdbtext::Msg;

std::array<u8, 16> Ip6(const std::string &text) {
   std::array<u8, 16> addr{};
   EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), addr.data()), 1) << text;
   return addr;
}

Bytes V4Entry(u16 vlan, const std::string &mac, const std::string &ip, u8 bound, u8 method) {
   return portdbtext::V4Entry(vlan, mac, ip, bound, method, kGuard);
}

Bytes V6Entry(u16 vlan, const std::string &mac, const std::string &ip, u8 method) {
   return portdbtext::V6Entry(vlan, mac, ip, method, kGuard);
}

/* A 12-byte key: VLAN in host order, MAC, address in network order. */
Bytes KeyBytes(u16 vlan, const std::string &mac, const std::string &ip) {
   Bytes key(12, 0);
   memcpy(&key[0], &vlan, 2);
   addrtext::Mac m = MacOf(mac);
   memcpy(&key[2], m.data(), 6);
   u32 addr = Ip(ip);
   memcpy(&key[8], &addr, 4);
   return key;
}

Bytes Slice(const Bytes &buffer, size_t at, size_t len) {
   if (at + len > buffer.size()) {
      ADD_FAILURE() << "slice " << at << "+" << len << " beyond " << buffer.size();
      return {};
   }
   return Bytes(buffer.begin() + (long)at, buffer.begin() + (long)(at + len));
}

/* Whether every byte from `at` on is still the guard. */
bool GuardFrom(const Bytes &buffer, size_t at) {
   for (size_t i = at; i < buffer.size(); i++) {
      if (buffer[i] != kGuard) {
         ADD_FAILURE() << "byte " << i << " written: " << (int)buffer[i];
         return false;
      }
   }
   return true;
}

class PortDbApiTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      filter = AddFilter(kPort);
      ASSERT_EQ(VigilVmiHashAlloc(&filter->vmiHash), ZEK_OK);
      ASSERT_EQ(VigilV6VmiHashAlloc(&filter->v6VmiHash), ZEK_OK);
      ASSERT_TRUE(sim::AddPort("vs0", kOtherPort));
      TakeModuleLogs();
   }

   void TearDown() override {
      SetDeleteExpiry(1);
      sim::FaultClear();
      sim::SetLogLevel("vigil", 0);
      EXPECT_EQ(Violations(), std::vector<std::string>{});
      WithWriteHold(kPort, [&] {
         while (!VigilListIsEmpty(&filter->expiredVmiList)) {
            VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRED(filter->expiredVmiList.next));
         }
         while (!VigilListIsEmpty(&filter->vmiList)) {
            VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRY(filter->vmiList.next));
         }
         VigilClearV6Vmi(filter, true, 0, nullptr);
         while (!VigilListIsEmpty(&filter->v6VmiList)) {
            VigilDelV6Vmi(filter, VIGIL_V6VMI_FROM_EXPIRY(filter->v6VmiList.next));
         }
      });
      Vigil_HeapFree(filter->portIgnoreList);
      filter->portIgnoreList = nullptr;
      filter->portIgnoreListSize = 0;
      Vigil_HeapFree(filter->v6VmiHash);
      filter->v6VmiHash = nullptr;
      Vigil_HeapFree(filter->vmiHash);
      filter->vmiHash = nullptr;
      sim::WaitIdle(5.0);
      sim::TakePortsetMessages();
      VigilTest::TearDown();
   }

   /* A zeroed heap record, as a restore or a snooper fills one. */
   static VigilVmi *MakeV4(u16 vlan, const std::string &mac, const std::string &ip, u8 method,
                           i64 expiryTs, const std::string &clientId = "") {
      VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
      vmi->vlanId = vlan;
      addrtext::Mac m = MacOf(mac);
      memcpy(vmi->mac, m.data(), 6);
      vmi->ip = Ip(ip);
      vmi->discMethod = method;
      vmi->expiryTs = expiryTs;
      if (!clientId.empty()) {
         vmi->clientIdLen = (u8)clientId.size();
         vmi->clientIdStr = (u8 *)Vigil_HeapAlloc((u32)clientId.size());
         memcpy(vmi->clientIdStr, clientId.data(), clientId.size());
      }
      return vmi;
   }

   static void FreeV4(VigilVmi *vmi) {
      Vigil_HeapFree(vmi->clientIdStr);
      Vigil_HeapFree(vmi);
   }

   /* Adds an IPv4 binding that the table must take. */
   VigilVmi *AddV4(u16 vlan, const std::string &mac, const std::string &ip, u8 method,
                   i64 expiryTs) {
      VigilVmi *vmi = MakeV4(vlan, mac, ip, method, expiryTs,
                             method == VIGIL_DISC_DHCP ? "cid" : "");
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] { status = VigilAddVmi(filter, vmi); });
      EXPECT_EQ(status, ZEK_OK) << ip;
      if (status != ZEK_OK) {
         FreeV4(vmi);
         return nullptr;
      }
      return vmi;
   }

   /* Adds an IPv6 binding that the table must take; gives its record. */
   VigilV6Vmi *AddV6(u16 vlan, const std::string &mac, const std::string &ip, u8 method,
                     i64 expiryTs) {
      VigilV6Vmi t;
      memset(&t, 0, sizeof t);
      t.vlanId = vlan;
      addrtext::Mac m = MacOf(mac);
      memcpy(t.mac, m.data(), 6);
      std::array<u8, 16> a = Ip6(ip);
      memcpy(t.ip, a.data(), 16);
      t.discMethod = method;
      t.expiryTs = expiryTs;
      u8 clientId[4] = {0, 1, 0, 1};
      if (method == VIGIL_DISC_DHCPV6) {
         t.iaId = 0x1234;
         t.validLifetime = (i32)(expiryTs - kNow);
         t.preferredLifetime = 100;
         t.clientIdLen = sizeof clientId;
         t.clientId = clientId;
      }
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] { status = VigilAddV6Vmi(filter, &t); });
      EXPECT_EQ(status, ZEK_OK) << ip;
      return WithReadHold(kPort, [&] { return VigilFindV6Vmi(filter, (const u8 *)&t.vlanId); });
   }

   VigilVmi *FindV4(u16 vlan, const std::string &mac, const std::string &ip) {
      addrtext::Mac m = MacOf(mac);
      return WithReadHold(kPort, [&] { return VigilFindVmi(filter, vlan, m.data(), Ip(ip)); });
   }

   /* A query as a holder of the read lock makes it, into a buffer of
    * `bufferBytes` that held kGuard; the count starts at `countBefore`. */
   struct Answer {
      u32 count;
      Bytes buffer;
   };
   Answer Query(u32 capacity, u32 format, u8 mask, size_t bufferBytes, bool withCount = true,
                u32 countBefore = 0xdeadbeef) {
      Answer answer{countBefore, Bytes(bufferBytes, kGuard)};
      VigilFilter *held = Vigil_LockFilter(kPort, false);
      VigilQueryPortDb(held, answer.buffer.data(), capacity, withCount ? &answer.count : nullptr,
                       format, mask);
      Vigil_UnlockFilter(held, false);
      return answer;
   }

   Answer QueryV6(u32 capacity, u32 format, u8 mask, size_t bufferBytes, u32 countBefore) {
      Answer answer{countBefore, Bytes(bufferBytes, kGuard)};
      VigilFilter *held = Vigil_LockFilter(kPort, false);
      VigilQueryPortDbV6(held, answer.buffer.data(), capacity, &answer.count, format, mask);
      Vigil_UnlockFilter(held, false);
      return answer;
   }

   void Clear(bool all, const std::vector<VigilVmiKey> &keys) {
      WithWriteHold(kPort, [&] {
         VigilClearVmi(filter, all, (u32)keys.size(), keys.empty() ? nullptr : keys.data());
      });
   }

   static VigilVmiKey Key(u16 vlan, const std::string &mac, const std::string &ip) {
      VigilVmiKey key;
      memset(&key, 0, sizeof key);
      key.vlanId = vlan;
      addrtext::Mac m = MacOf(mac);
      memcpy(key.mac, m.data(), 6);
      key.ip = Ip(ip);
      return key;
   }

   /* The messages delivered since the last look, as text. */
   std::vector<std::string> Messages() {
      EXPECT_TRUE(sim::WaitIdle(5.0));
      std::vector<std::string> out;
      for (const sim::PortsetMessage &msg : sim::TakePortsetMessages()) {
         EXPECT_EQ(msg.portset, "vs0");
         EXPECT_EQ(msg.portID, kPort);
         out.push_back(MessageText(msg.bytes));
      }
      return out;
   }

   /* The plain and throttled lines since the last look, with their levels. */
   Said Lines() {
      Said out;
      for (const sim::LogLine &line : TakeModuleLogs()) {
         out.push_back({line.level, line.text});
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

   std::vector<VigilVmi *> VmiList() {
      std::vector<VigilVmi *> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
         out.push_back(VIGIL_VMI_FROM_EXPIRY(pos));
      }
      return out;
   }

   std::vector<VigilVmi *> ExpiredList() {
      std::vector<VigilVmi *> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->expiredVmiList) {
         out.push_back(VIGIL_VMI_FROM_EXPIRED(pos));
      }
      return out;
   }

   /* A table of every kind: running IPv4 bindings (a static one heading
    * the list), an expired ARP binding kept, running and expired ND
    * bindings and a DHCPv6 binding. */
   void Populate() {
      SetDeleteExpiry(0);
      AddV4(5, kVmMac, "192.0.2.9", VIGIL_DISC_ARP, kNow - 10);      /* expired */
      AddV4(5, kVmMac, "192.0.2.10", VIGIL_DISC_DHCP, kNow + 300);
      AddV4(5, kVmMac, "192.0.2.11", VIGIL_DISC_ARP, kNow + 100);
      AddV4(6, kOtherMac, "192.0.2.12", VIGIL_DISC_STATIC, 0);
      AddV6(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND, kNow + 600);
      AddV6(5, kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6, kNow + 200);
      AddV6(7, kOtherMac, "2001:db8::3", VIGIL_DISC_ND, kNow - 5);   /* expired */
      ASSERT_EQ(filter->numVmis, 4u);
      ASSERT_EQ(filter->numExpiredVmis, 1u);
      ASSERT_EQ(filter->numNdEntries, 2u);
      ASSERT_EQ(filter->numExpiredNdEntries, 1u);
      ASSERT_EQ(filter->numDhcpV6Entries, 1u);
      Messages();
      TakeModuleLogs();
   }

   VigilFilter *filter = nullptr;
};

/* --------------------------------------------------------------- query */

TEST_F(PortDbApiTest, WholeRecordsOfEveryMethodAreRefusedWithCountZeroAndNothingWritten) {
   Populate();
   Answer a = Query(8, VIGIL_QUERY_FORMAT_RECORD, 0x1f, 8 * sizeof(VigilVmi));
   EXPECT_EQ(a.count, 0u);
   EXPECT_TRUE(GuardFrom(a.buffer, 0));
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbApiTest, WholeRecordsOfBothFamiliesInOneMaskAreRefusedToo) {
   Populate();
   /* ARP and ND: IPv6 records would stand sizeof(VigilV6Vmi) apart in a
    * buffer sized for IPv4 ones. */
   Answer a = Query(8, VIGIL_QUERY_FORMAT_RECORD, VIGIL_DISC_ARP | VIGIL_DISC_ND,
                    8 * sizeof(VigilVmi));
   EXPECT_EQ(a.count, 0u);
   EXPECT_TRUE(GuardFrom(a.buffer, 0));
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbApiTest, WholeRecordFormatCopiesEachIpv4RecordSizeofApart) {
   Populate();
   Answer a = Query(8, VIGIL_QUERY_FORMAT_RECORD, 0x07, 8 * sizeof(VigilVmi));
   ASSERT_EQ(a.count, 4u);
   std::vector<VigilVmi *> order = VmiList();
   order.push_back(ExpiredList().at(0));
   for (size_t i = 0; i < order.size(); i++) {
      EXPECT_EQ(memcmp(&a.buffer[i * sizeof(VigilVmi)], order[i], sizeof(VigilVmi)), 0) << i;
   }
   EXPECT_TRUE(GuardFrom(a.buffer, 4 * sizeof(VigilVmi)));
}

TEST_F(PortDbApiTest, WholeRecordFormatOfIpv6BindingsCopiesTheirRecords) {
   Populate();
   Answer a = Query(4, VIGIL_QUERY_FORMAT_RECORD, VIGIL_DISC_ND, 4 * sizeof(VigilV6Vmi));
   ASSERT_EQ(a.count, 2u);
   std::vector<VigilV6Vmi *> order = {VIGIL_V6VMI_FROM_EXPIRY(filter->v6VmiList.next->next),
                                     VIGIL_V6VMI_FROM_EXPIRED(filter->v6ExpiredNdList.next)};
   ASSERT_EQ(order[0]->discMethod, VIGIL_DISC_ND);
   for (size_t i = 0; i < order.size(); i++) {
      EXPECT_EQ(memcmp(&a.buffer[i * sizeof(VigilV6Vmi)], order[i], sizeof(VigilV6Vmi)), 0) << i;
   }
   EXPECT_TRUE(GuardFrom(a.buffer, 2 * sizeof(VigilV6Vmi)));
}

TEST_F(PortDbApiTest, CountIsSetToZeroBeforeAnything) {
   Answer a = Query(4, VIGIL_QUERY_FORMAT_ENTRY, 0x1f, 4 * 32, true, 77);
   EXPECT_EQ(a.count, 0u);
   EXPECT_TRUE(GuardFrom(a.buffer, 0));
}

TEST_F(PortDbApiTest, MaskWithoutAnIpv4MethodSkipsIpv4) {
   Populate();
   Answer a = Query(8, VIGIL_QUERY_FORMAT_ENTRY, VIGIL_DISC_DHCPV6, 8 * 32);
   ASSERT_EQ(a.count, 1u);
   EXPECT_EQ(Slice(a.buffer, 0, 32), V6Entry(5, kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6));
   EXPECT_TRUE(GuardFrom(a.buffer, 32));
}

TEST_F(PortDbApiTest, CapacityZeroWithACountWritesNothingAndCountsZero) {
   Populate();
   for (u32 format : kFormats) {
      for (u8 mask : {(u8)0x07, (u8)0x0a, (u8)0x1f}) {
         if (format == VIGIL_QUERY_FORMAT_RECORD && mask == 0x1f) {
            continue;
         }
         Answer a = Query(0, format, mask, 4 * sizeof(VigilV6Vmi));
         EXPECT_EQ(a.count, 0u) << format << " " << (int)mask;
         EXPECT_TRUE(GuardFrom(a.buffer, 0)) << format << " " << (int)mask;
      }
   }
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbApiTest, CapacityZeroWithoutACountWritesNothing) {
   Populate();
   for (u32 format : kFormats) {
      for (u8 mask : {(u8)0x07, (u8)0x0a, (u8)0x1f}) {
         if (format == VIGIL_QUERY_FORMAT_RECORD && mask == 0x1f) {
            continue;
         }
         Answer a = Query(0, format, mask, 4 * sizeof(VigilV6Vmi), false);
         EXPECT_TRUE(GuardFrom(a.buffer, 0)) << format << " " << (int)mask;
      }
   }
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbApiTest, Ipv4BindingsComeBySoonestExpiryThenTheExpiredArpBindings) {
   Populate();
   Answer a = Query(8, VIGIL_QUERY_FORMAT_KEY, 0x07, 8 * 12);
   ASSERT_EQ(a.count, 4u);
   EXPECT_EQ(Slice(a.buffer, 0, 12), KeyBytes(6, kOtherMac, "192.0.2.12")); /* static, 0 */
   EXPECT_EQ(Slice(a.buffer, 12, 12), KeyBytes(5, kVmMac, "192.0.2.11"));   /* 1100 */
   EXPECT_EQ(Slice(a.buffer, 24, 12), KeyBytes(5, kVmMac, "192.0.2.10"));   /* 1300 */
   EXPECT_EQ(Slice(a.buffer, 36, 12), KeyBytes(5, kVmMac, "192.0.2.9"));    /* expired */
   EXPECT_TRUE(GuardFrom(a.buffer, 48));
}

TEST_F(PortDbApiTest, OnlyRecordsOfTheMaskedMethodsAreWritten) {
   Populate();
   Answer a = Query(8, VIGIL_QUERY_FORMAT_KEY, VIGIL_DISC_ARP, 8 * 12);
   ASSERT_EQ(a.count, 2u);
   EXPECT_EQ(Slice(a.buffer, 0, 12), KeyBytes(5, kVmMac, "192.0.2.11"));
   EXPECT_EQ(Slice(a.buffer, 12, 12), KeyBytes(5, kVmMac, "192.0.2.9"));
   EXPECT_TRUE(GuardFrom(a.buffer, 24));

   a = Query(8, VIGIL_QUERY_FORMAT_KEY, VIGIL_DISC_DHCP | VIGIL_DISC_STATIC, 8 * 12);
   ASSERT_EQ(a.count, 2u);
   EXPECT_EQ(Slice(a.buffer, 0, 12), KeyBytes(6, kOtherMac, "192.0.2.12"));
   EXPECT_EQ(Slice(a.buffer, 12, 12), KeyBytes(5, kVmMac, "192.0.2.10"));
   EXPECT_TRUE(GuardFrom(a.buffer, 24));
}

TEST_F(PortDbApiTest, EntryFormatWritesOnlyTheNamedFieldsOfEachIpv4Entry) {
   Populate();
   Answer a = Query(8, VIGIL_QUERY_FORMAT_ENTRY, 0x07, 8 * 32);
   ASSERT_EQ(a.count, 4u);
   /* bound: 1 for static and DHCP, 0 for ARP, expired or not. */
   EXPECT_EQ(Slice(a.buffer, 0, 32), V4Entry(6, kOtherMac, "192.0.2.12", 1, VIGIL_DISC_STATIC));
   EXPECT_EQ(Slice(a.buffer, 32, 32), V4Entry(5, kVmMac, "192.0.2.11", 0, VIGIL_DISC_ARP));
   EXPECT_EQ(Slice(a.buffer, 64, 32), V4Entry(5, kVmMac, "192.0.2.10", 1, VIGIL_DISC_DHCP));
   EXPECT_EQ(Slice(a.buffer, 96, 32), V4Entry(5, kVmMac, "192.0.2.9", 0, VIGIL_DISC_ARP));
   EXPECT_TRUE(GuardFrom(a.buffer, 128));
}

TEST_F(PortDbApiTest, EntryOfAVlanAboveTwoFiftyFiveKeepsItsHostOrder) {
   AddV4(0x0123, kVmMac, "192.0.2.10", VIGIL_DISC_ARP, kNow + 60);
   Answer a = Query(1, VIGIL_QUERY_FORMAT_ENTRY, 0x07, 32);
   ASSERT_EQ(a.count, 1u);
   u16 vlan = 0;
   memcpy(&vlan, a.buffer.data(), 2);
   EXPECT_EQ(vlan, 0x0123);
   EXPECT_EQ(Slice(a.buffer, 0, 32), V4Entry(0x0123, kVmMac, "192.0.2.10", 0, VIGIL_DISC_ARP));
}

TEST_F(PortDbApiTest, UnknownFormatIsLoggedForEachMatchingRecordAndWritesNothing) {
   Populate();
   Answer a = Query(8, 3, VIGIL_DISC_ARP | VIGIL_DISC_DHCP | VIGIL_DISC_ND, 8 * 32);
   /* Two running IPv4, one expired ARP, two ND: the index still moves. */
   EXPECT_EQ(a.count, 5u);
   EXPECT_TRUE(GuardFrom(a.buffer, 0));
   const std::pair<int, std::string> line{1, "Filter 0x10 Unsupported query format: 0x3"};
   EXPECT_EQ(Lines(), Said(5, line));
}

TEST_F(PortDbApiTest, KeyFormatHasNoIpv6FormAndItsEntryIsSkippedAndLogged) {
   AddV4(5, kVmMac, "192.0.2.10", VIGIL_DISC_ARP, kNow + 60);
   AddV6(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND, kNow + 600);
   TakeModuleLogs();
   Answer a = Query(4, VIGIL_QUERY_FORMAT_KEY, VIGIL_DISC_ARP | VIGIL_DISC_ND, 4 * 12);
   EXPECT_EQ(a.count, 2u);
   EXPECT_EQ(Slice(a.buffer, 0, 12), KeyBytes(5, kVmMac, "192.0.2.10"));
   EXPECT_TRUE(GuardFrom(a.buffer, 12));
   EXPECT_EQ(Lines(), (Said{{1, "Filter 0x10 Unsupported query format: 0x2"}}));
}

TEST_F(PortDbApiTest, Ipv6EntriesFollowTheIpv4OnesRunningFirstThenExpiredNd) {
   Populate();
   Answer a = Query(16, VIGIL_QUERY_FORMAT_ENTRY, 0x1f, 16 * 32);
   ASSERT_EQ(a.count, 7u);
   EXPECT_EQ(Slice(a.buffer, 0, 32), V4Entry(6, kOtherMac, "192.0.2.12", 1, VIGIL_DISC_STATIC));
   EXPECT_EQ(Slice(a.buffer, 32, 32), V4Entry(5, kVmMac, "192.0.2.11", 0, VIGIL_DISC_ARP));
   EXPECT_EQ(Slice(a.buffer, 64, 32), V4Entry(5, kVmMac, "192.0.2.10", 1, VIGIL_DISC_DHCP));
   EXPECT_EQ(Slice(a.buffer, 96, 32), V4Entry(5, kVmMac, "192.0.2.9", 0, VIGIL_DISC_ARP));
   /* bound 0 even for the DHCPv6 lease. */
   EXPECT_EQ(Slice(a.buffer, 128, 32), V6Entry(5, kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6));
   EXPECT_EQ(Slice(a.buffer, 160, 32), V6Entry(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND));
   EXPECT_EQ(Slice(a.buffer, 192, 32), V6Entry(7, kOtherMac, "2001:db8::3", VIGIL_DISC_ND));
   EXPECT_TRUE(GuardFrom(a.buffer, 224));
}

TEST_F(PortDbApiTest, NdMaskListsNdBindingsOnlyTheExpiredToo) {
   Populate();
   Answer a = Query(8, VIGIL_QUERY_FORMAT_ENTRY, VIGIL_DISC_ND, 8 * 32);
   ASSERT_EQ(a.count, 2u);
   EXPECT_EQ(Slice(a.buffer, 0, 32), V6Entry(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND));
   EXPECT_EQ(Slice(a.buffer, 32, 32), V6Entry(7, kOtherMac, "2001:db8::3", VIGIL_DISC_ND));
   EXPECT_TRUE(GuardFrom(a.buffer, 64));
}

TEST_F(PortDbApiTest, Ipv4MaskListsNothingOfIpv6) {
   AddV6(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND, kNow + 600);
   AddV6(5, kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6, kNow + 200);
   Answer a = Query(8, VIGIL_QUERY_FORMAT_ENTRY, 0x07, 8 * 32);
   EXPECT_EQ(a.count, 0u);
   EXPECT_TRUE(GuardFrom(a.buffer, 0));
}

TEST_F(PortDbApiTest, Ipv6QueryStopsAtTheCapacity) {
   Populate();
   Answer a = Query(2, VIGIL_QUERY_FORMAT_ENTRY, VIGIL_DISC_ND | VIGIL_DISC_DHCPV6, 4 * 32);
   ASSERT_EQ(a.count, 2u);
   EXPECT_EQ(Slice(a.buffer, 0, 32), V6Entry(5, kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6));
   EXPECT_EQ(Slice(a.buffer, 32, 32), V6Entry(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND));
   EXPECT_TRUE(GuardFrom(a.buffer, 64));
}

TEST_F(PortDbApiTest, Ipv6QueryStartedAtOrAboveTheCapacityLeavesTheCount) {
   Populate();
   for (u32 start : {3u, 5u}) {
      Answer a = QueryV6(3, VIGIL_QUERY_FORMAT_ENTRY, 0x1f, 8 * 32, start);
      EXPECT_EQ(a.count, start);
      EXPECT_TRUE(GuardFrom(a.buffer, 0));
   }
   /* Below it, the query goes on from the count. */
   Answer a = QueryV6(3, VIGIL_QUERY_FORMAT_ENTRY, 0x1f, 4 * 32, 2);
   EXPECT_EQ(a.count, 3u);
   EXPECT_TRUE(GuardFrom(Slice(a.buffer, 0, 64), 0));
   EXPECT_EQ(Slice(a.buffer, 64, 32), V6Entry(5, kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6));
   EXPECT_TRUE(GuardFrom(a.buffer, 96));
}

TEST_F(PortDbApiTest, CapacityBelowTheIpv4BindingsTakesTheSoonestAndLeavesIpv6Out) {
   Populate();
   Answer a = Query(2, VIGIL_QUERY_FORMAT_ENTRY, 0x1f, 6 * 32);
   ASSERT_EQ(a.count, 2u);
   EXPECT_EQ(Slice(a.buffer, 0, 32), V4Entry(6, kOtherMac, "192.0.2.12", 1, VIGIL_DISC_STATIC));
   EXPECT_EQ(Slice(a.buffer, 32, 32), V4Entry(5, kVmMac, "192.0.2.11", 0, VIGIL_DISC_ARP));
   EXPECT_TRUE(GuardFrom(a.buffer, 64));
}

TEST_F(PortDbApiTest, CapacityEqualToTheRunningIpv4BindingsLeavesTheExpiredOut) {
   Populate();
   Answer a = Query(3, VIGIL_QUERY_FORMAT_KEY, 0x1f, 6 * 12);
   ASSERT_EQ(a.count, 3u);
   EXPECT_EQ(Slice(a.buffer, 24, 12), KeyBytes(5, kVmMac, "192.0.2.10"));
   EXPECT_TRUE(GuardFrom(a.buffer, 36));
   EXPECT_EQ(Lines(), Said{}) << "nothing of IPv6 was looked at";
}

/* ------------------------------------------------------ clear by keys */

TEST_F(PortDbApiTest, ClearAllDeletesTheExpiredThenEveryNonStaticBinding) {
   Populate();
   AddV4(5, kVmMac, "192.0.2.13", VIGIL_DISC_STATIC, 0);
   Messages();
   Clear(true, {});
   EXPECT_EQ(Messages(),
             (std::vector<std::string>{Msg("removed", 5, kVmMac, "192.0.2.9", VIGIL_DISC_ARP),
                                       Msg("removed", 5, kVmMac, "192.0.2.11", VIGIL_DISC_ARP),
                                       Msg("removed", 5, kVmMac, "192.0.2.10", VIGIL_DISC_DHCP)}));
   EXPECT_EQ(filter->numVmis, 2u);
   EXPECT_EQ(filter->numStaticVmis, 2u);
   EXPECT_EQ(filter->numArpVmis, 0u);
   EXPECT_EQ(filter->numDhcpVmis, 0u);
   EXPECT_EQ(filter->numExpiredVmis, 0u);
   EXPECT_NE(FindV4(6, kOtherMac, "192.0.2.12"), nullptr);
   EXPECT_NE(FindV4(5, kVmMac, "192.0.2.13"), nullptr);
   EXPECT_EQ(filter->numNdEntries, 2u) << "IPv6 is not this table";
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbApiTest, ClearByKeysSkipsAKeyThatIsNotFoundSilently) {
   Populate();
   Clear(false, {Key(6, kVmMac, "192.0.2.10"), Key(5, kOtherMac, "192.0.2.10"),
                 Key(5, kVmMac, "192.0.2.99")});
   EXPECT_EQ(filter->numVmis, 4u);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbApiTest, ClearByKeysKeepsAStaticBindingAndSaysSo) {
   Populate();
   Clear(false, {Key(6, kOtherMac, "192.0.2.12")});
   EXPECT_EQ(Lines(), (Said{{2, "Trying to delete a static entry: 6 02:00:00:00:00:11 "
                               "192.0.2.12"}}));
   EXPECT_NE(FindV4(6, kOtherMac, "192.0.2.12"), nullptr);
   EXPECT_EQ(filter->numStaticVmis, 1u);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
}

TEST_F(PortDbApiTest, ClearByKeysDeletesEachNamedBindingExpiredOnesToo) {
   Populate();
   Clear(false, {Key(5, kVmMac, "192.0.2.10"), Key(6, kOtherMac, "192.0.2.12"),
                 Key(5, kVmMac, "192.0.2.9"), Key(7, kVmMac, "192.0.2.10")});
   EXPECT_EQ(Messages(),
             (std::vector<std::string>{Msg("removed", 5, kVmMac, "192.0.2.10", VIGIL_DISC_DHCP),
                                       Msg("removed", 5, kVmMac, "192.0.2.9", VIGIL_DISC_ARP)}));
   EXPECT_EQ(Lines(), (Said{{2, "Trying to delete a static entry: 6 02:00:00:00:00:11 "
                               "192.0.2.12"}}));
   EXPECT_EQ(FindV4(5, kVmMac, "192.0.2.10"), nullptr);
   EXPECT_EQ(FindV4(5, kVmMac, "192.0.2.9"), nullptr);
   EXPECT_NE(FindV4(5, kVmMac, "192.0.2.11"), nullptr);
   EXPECT_EQ(filter->numVmis, 2u);
   EXPECT_EQ(filter->numExpiredVmis, 0u);
}

/* -------------------------------------- the functions of sibling modules */

TEST_F(PortDbApiTest, NumEntriesCountsEachClass) {
   Populate();
   sim::LockCounts before = sim::GetLockCounts(filter->configLock);
   u32 count = 99;
   EXPECT_EQ(Vigil_PortDBGetNumEntries(kPort, VIGIL_PORTDB_CLASS_ASSIGNED, &count), ZEK_OK);
   EXPECT_EQ(count, 3u) << "static, DHCP and DHCPv6";
   EXPECT_EQ(Vigil_PortDBGetNumEntries(kPort, VIGIL_PORTDB_CLASS_SNOOPED, &count), ZEK_OK);
   EXPECT_EQ(count, 4u) << "ARP and ND, expired ones too";
   EXPECT_EQ(Vigil_PortDBGetNumEntries(kPort, VIGIL_PORTDB_CLASS_ALL, &count), ZEK_OK);
   EXPECT_EQ(count, 7u);
   for (u32 cls : {3u, 4u, 0xffffffffu}) {
      count = 99;
      EXPECT_EQ(Vigil_PortDBGetNumEntries(kPort, cls, &count), ZEK_OK) << cls;
      EXPECT_EQ(count, 0u) << cls;
   }
   sim::LockCounts after = sim::GetLockCounts(filter->configLock);
   EXPECT_EQ(after.writes, before.writes) << "read holds only";
   EXPECT_EQ(after.reads, before.reads + 6);
}

TEST_F(PortDbApiTest, NumEntriesOfEachClassAgreesWithTheEntriesOfThatClass) {
   Populate();
   for (u32 cls : {0u, 1u, 2u}) {
      u32 num = 0;
      ASSERT_EQ(Vigil_PortDBGetNumEntries(kPort, cls, &num), ZEK_OK);
      std::vector<VigilPortDbEntry> entries(16);
      u32 count = 0;
      ASSERT_EQ(Vigil_PortDBGetEntries(kPort, cls, entries.data(), 16, &count), ZEK_OK);
      EXPECT_EQ(count, num) << cls;
   }
}

TEST_F(PortDbApiTest, NumEntriesRefusesANullCountAndAPortWithoutFilter) {
   EXPECT_EQ(Vigil_PortDBGetNumEntries(kPort, 0, nullptr), kBadParam);
   u32 count = 99;
   EXPECT_EQ(Vigil_PortDBGetNumEntries(kOtherPort, 0, &count), kNotFound);
   EXPECT_EQ(count, 99u);
   EXPECT_EQ(Vigil_PortDBGetNumEntries(0x999, 0, &count), kNotFound) << "no such port";
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbApiTest, EntriesOfTheAssignedClass) {
   Populate();
   Bytes buffer(8 * 32, kGuard);
   u32 count = 99;
   ASSERT_EQ(Vigil_PortDBGetEntries(kPort, VIGIL_PORTDB_CLASS_ASSIGNED,
                                    (VigilPortDbEntry *)buffer.data(), 8, &count),
             ZEK_OK);
   ASSERT_EQ(count, 3u);
   EXPECT_EQ(Slice(buffer, 0, 32), V4Entry(6, kOtherMac, "192.0.2.12", 1, VIGIL_DISC_STATIC));
   EXPECT_EQ(Slice(buffer, 32, 32), V4Entry(5, kVmMac, "192.0.2.10", 1, VIGIL_DISC_DHCP));
   EXPECT_EQ(Slice(buffer, 64, 32), V6Entry(5, kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6));
   EXPECT_TRUE(GuardFrom(buffer, 96));
}

TEST_F(PortDbApiTest, EntriesOfTheSnoopedClass) {
   Populate();
   Bytes buffer(8 * 32, kGuard);
   u32 count = 99;
   ASSERT_EQ(Vigil_PortDBGetEntries(kPort, VIGIL_PORTDB_CLASS_SNOOPED,
                                    (VigilPortDbEntry *)buffer.data(), 8, &count),
             ZEK_OK);
   ASSERT_EQ(count, 4u);
   EXPECT_EQ(Slice(buffer, 0, 32), V4Entry(5, kVmMac, "192.0.2.11", 0, VIGIL_DISC_ARP));
   EXPECT_EQ(Slice(buffer, 32, 32), V4Entry(5, kVmMac, "192.0.2.9", 0, VIGIL_DISC_ARP));
   EXPECT_EQ(Slice(buffer, 64, 32), V6Entry(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND));
   EXPECT_EQ(Slice(buffer, 96, 32), V6Entry(7, kOtherMac, "2001:db8::3", VIGIL_DISC_ND));
   EXPECT_TRUE(GuardFrom(buffer, 128));
}

TEST_F(PortDbApiTest, EntriesOfEveryClassGiveIpv4First) {
   AddV6(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND, kNow + 10);
   AddV4(5, kVmMac, "192.0.2.10", VIGIL_DISC_ARP, kNow + 500);
   Bytes buffer(4 * 32, kGuard);
   u32 count = 99;
   ASSERT_EQ(Vigil_PortDBGetEntries(kPort, VIGIL_PORTDB_CLASS_ALL,
                                    (VigilPortDbEntry *)buffer.data(), 4, &count),
             ZEK_OK);
   ASSERT_EQ(count, 2u);
   EXPECT_EQ(Slice(buffer, 0, 32), V4Entry(5, kVmMac, "192.0.2.10", 0, VIGIL_DISC_ARP))
      << "though the ND binding ends sooner";
   EXPECT_EQ(Slice(buffer, 32, 32), V6Entry(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND));
   EXPECT_TRUE(GuardFrom(buffer, 64));
}

TEST_F(PortDbApiTest, EntriesOfAnUnknownClassAreNone) {
   Populate();
   for (u32 cls : {3u, 0xffffffffu}) {
      Bytes buffer(4 * 32, kGuard);
      u32 count = 99;
      EXPECT_EQ(Vigil_PortDBGetEntries(kPort, cls, (VigilPortDbEntry *)buffer.data(), 4, &count),
                ZEK_OK);
      EXPECT_EQ(count, 0u);
      EXPECT_TRUE(GuardFrom(buffer, 0));
   }
}

TEST_F(PortDbApiTest, EntriesStopAtTheCapacity) {
   Populate();
   Bytes buffer(4 * 32, kGuard);
   u32 count = 99;
   ASSERT_EQ(Vigil_PortDBGetEntries(kPort, VIGIL_PORTDB_CLASS_ALL,
                                    (VigilPortDbEntry *)buffer.data(), 1, &count),
             ZEK_OK);
   ASSERT_EQ(count, 1u);
   EXPECT_EQ(Slice(buffer, 0, 32), V4Entry(6, kOtherMac, "192.0.2.12", 1, VIGIL_DISC_STATIC));
   EXPECT_TRUE(GuardFrom(buffer, 32));

   count = 99;
   ASSERT_EQ(Vigil_PortDBGetEntries(kPort, VIGIL_PORTDB_CLASS_ALL,
                                    (VigilPortDbEntry *)buffer.data(), 0, &count),
             ZEK_OK);
   EXPECT_EQ(count, 0u);
}

TEST_F(PortDbApiTest, EntriesRefuseNullPointersAndAPortWithoutFilter) {
   Populate();
   VigilPortDbEntry entries[2];
   u32 count = 99;
   EXPECT_EQ(Vigil_PortDBGetEntries(kPort, 2, nullptr, 2, &count), kBadParam);
   EXPECT_EQ(count, 99u);
   EXPECT_EQ(Vigil_PortDBGetEntries(kPort, 2, entries, 2, nullptr), kBadParam);
   EXPECT_EQ(Vigil_PortDBGetEntries(kOtherPort, 2, entries, 2, &count), kNotFound);
   EXPECT_EQ(count, 99u);
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbApiTest, DelEntriesWithoutFilterLogsThePortInDecimal) {
   addrtext::Mac m = MacOf(kVmMac);
   EXPECT_EQ(Vigil_PortDBDelEntries(kOtherPort, Ip("192.0.2.10"), m.data()), kNotFound);
   EXPECT_EQ(Lines(), (Said{{2, "Vigil filter not found for port 17"}}));
}

TEST_F(PortDbApiTest, DelEntriesRefusesANullMacBeforeLookingForTheFilter) {
   AddV4(5, kVmMac, "192.0.2.10", VIGIL_DISC_ARP, kNow + 100);
   Messages();
   sim::LockCounts before = sim::GetLockCounts(filter->configLock);
   EXPECT_EQ(Vigil_PortDBDelEntries(kPort, Ip("192.0.2.10"), nullptr), kBadParam);
   EXPECT_EQ(Vigil_PortDBDelEntries(kOtherPort, Ip("192.0.2.10"), nullptr), kBadParam);
   EXPECT_EQ(sim::GetLockCounts(filter->configLock).writes, before.writes);
   EXPECT_NE(FindV4(5, kVmMac, "192.0.2.10"), nullptr);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbApiTest, DelEntriesTakesTheBindingNearerItsEndWhateverItsVlan) {
   AddV4(5, kVmMac, "192.0.2.10", VIGIL_DISC_DHCP, kNow + 900);
   AddV4(6, kVmMac, "192.0.2.10", VIGIL_DISC_ARP, kNow + 100);
   AddV4(6, kOtherMac, "192.0.2.10", VIGIL_DISC_ARP, kNow + 50);
   AddV4(6, kVmMac, "192.0.2.11", VIGIL_DISC_ARP, kNow + 60);
   Messages();
   sim::LockCounts before = sim::GetLockCounts(filter->configLock);
   addrtext::Mac m = MacOf(kVmMac);
   EXPECT_EQ(Vigil_PortDBDelEntries(kPort, Ip("192.0.2.10"), m.data()), ZEK_OK);
   EXPECT_EQ(Messages(), (std::vector<std::string>{
                            Msg("removed", 6, kVmMac, "192.0.2.10", VIGIL_DISC_ARP)}));
   EXPECT_NE(FindV4(5, kVmMac, "192.0.2.10"), nullptr);
   EXPECT_NE(FindV4(6, kOtherMac, "192.0.2.10"), nullptr);
   EXPECT_NE(FindV4(6, kVmMac, "192.0.2.11"), nullptr);
   EXPECT_EQ(filter->numVmis, 3u);

   EXPECT_EQ(Vigil_PortDBDelEntries(kPort, Ip("192.0.2.10"), m.data()), ZEK_OK);
   EXPECT_EQ(Messages(), (std::vector<std::string>{
                            Msg("removed", 5, kVmMac, "192.0.2.10", VIGIL_DISC_DHCP)}));
   EXPECT_EQ(Vigil_PortDBDelEntries(kPort, Ip("192.0.2.10"), m.data()), kNotFound);
   EXPECT_EQ(filter->numVmis, 2u);
   EXPECT_EQ(Lines(), Said{});
   EXPECT_EQ(sim::GetLockCounts(filter->configLock).writes, before.writes + 3);
}

TEST_F(PortDbApiTest, DelEntriesPassesAStaticBindingByAndRefusesWhenOnlyItIsLeft) {
   AddV4(5, kVmMac, "192.0.2.10", VIGIL_DISC_STATIC, 0);
   AddV4(6, kVmMac, "192.0.2.10", VIGIL_DISC_ARP, kNow + 100);
   Messages();
   addrtext::Mac m = MacOf(kVmMac);
   EXPECT_EQ(Vigil_PortDBDelEntries(kPort, Ip("192.0.2.10"), m.data()), ZEK_OK);
   EXPECT_EQ(Messages(), (std::vector<std::string>{
                            Msg("removed", 6, kVmMac, "192.0.2.10", VIGIL_DISC_ARP)}));
   EXPECT_EQ(Vigil_PortDBDelEntries(kPort, Ip("192.0.2.10"), m.data()), kNotFound);
   EXPECT_NE(FindV4(5, kVmMac, "192.0.2.10"), nullptr);
   EXPECT_EQ(filter->numStaticVmis, 1u);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbApiTest, ExpiredArpBindingIsListedAsSnoopedButCannotBeDeleted) {
   SetDeleteExpiry(0);
   AddV4(5, kVmMac, "192.0.2.9", VIGIL_DISC_ARP, kNow - 1);
   ASSERT_EQ(ExpiredList().size(), 1u);
   Messages();
   u32 count = 0;
   ASSERT_EQ(Vigil_PortDBGetNumEntries(kPort, VIGIL_PORTDB_CLASS_SNOOPED, &count), ZEK_OK);
   EXPECT_EQ(count, 1u);
   Bytes buffer(2 * 32, kGuard);
   ASSERT_EQ(Vigil_PortDBGetEntries(kPort, VIGIL_PORTDB_CLASS_SNOOPED,
                                    (VigilPortDbEntry *)buffer.data(), 2, &count),
             ZEK_OK);
   ASSERT_EQ(count, 1u);
   EXPECT_EQ(Slice(buffer, 0, 32), V4Entry(5, kVmMac, "192.0.2.9", 0, VIGIL_DISC_ARP));
   addrtext::Mac m = MacOf(kVmMac);
   EXPECT_EQ(Vigil_PortDBDelEntries(kPort, Ip("192.0.2.9"), m.data()), kNotFound);
   EXPECT_EQ(ExpiredList().size(), 1u);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
}

/* ------------------------------------------------------------- restore */

class PortDbRestoreTest : public PortDbApiTest {
protected:
   void SetUp() override {
      PortDbApiTest::SetUp();
      VigilListInit(&list);
   }

   void TearDown() override {
      /* What the restore gave back is the caller's. */
      while (!VigilListIsEmpty(&list)) {
         VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(list.next);
         VigilListRemove(&vmi->expiryLinks);
         FreeV4(vmi);
      }
      PortDbApiTest::TearDown();
   }

   VigilVmi *Append(u16 vlan, const std::string &mac, const std::string &ip, u8 method,
                    i64 expiryTs, const std::string &clientId = "") {
      VigilVmi *vmi = MakeV4(vlan, mac, ip, method, expiryTs, clientId);
      VigilListInsertBefore(&list, &vmi->expiryLinks);
      return vmi;
   }

   zek_Status Restore() {
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] { status = Vigil_RestoreVMIEntryList(filter, &list); });
      return status;
   }

   std::vector<VigilVmi *> Left() {
      std::vector<VigilVmi *> out;
      VIGIL_LIST_FOR_EACH(pos, &list) {
         out.push_back(VIGIL_VMI_FROM_EXPIRY(pos));
      }
      return out;
   }

   /* The one line of a failed add: level 2 on the plain log, the status
    * in the tag's error code. */
   void ExpectAddFailedLine(const std::vector<sim::LogLine> &lines, const char *code) {
      std::vector<sim::LogLine> plain;
      for (const sim::LogLine &line : lines) {
         if (line.log == "vigil") {
            plain.push_back(line);
         }
      }
      ASSERT_EQ(plain.size(), 1u);
      EXPECT_EQ(plain[0].level, 2);
      EXPECT_EQ(plain[0].text, "Add Vmi failed");
      const std::string tag = std::string("[oxa@3719 comp=\"oxa-ulm\" subcomp=\"vigil-7000\" "
                                          "errorCode=\"") +
                              code + "\"] Add Vmi failed";
      ASSERT_GE(plain[0].raw.size(), tag.size()) << plain[0].raw;
      EXPECT_EQ(plain[0].raw.substr(plain[0].raw.size() - tag.size()), tag) << plain[0].raw;
   }

   VigilListLinks list;
};

TEST_F(PortDbRestoreTest, EveryRecordIsAddedAndTheTableOwnsThem) {
   VigilVmi *dhcp = Append(5, kVmMac, "192.0.2.10", VIGIL_DISC_DHCP, kNow + 3600, "client");
   VigilVmi *arp = Append(5, kVmMac, "192.0.2.11", VIGIL_DISC_ARP, kNow + 60);
   VigilVmi *stat = Append(6, kOtherMac, "192.0.2.12", VIGIL_DISC_STATIC, 0);
   EXPECT_EQ(Restore(), ZEK_OK);
   EXPECT_TRUE(VigilListIsEmpty(&list));
   EXPECT_EQ(FindV4(5, kVmMac, "192.0.2.10"), dhcp);
   EXPECT_EQ(FindV4(5, kVmMac, "192.0.2.11"), arp);
   EXPECT_EQ(FindV4(6, kOtherMac, "192.0.2.12"), stat);
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{stat, arp, dhcp}));
   EXPECT_EQ(filter->numVmis, 3u);
   EXPECT_EQ(filter->numDhcpVmis, 1u);
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(filter->numStaticVmis, 1u);
   EXPECT_EQ(filter->totalClientIdLen, 6u);
   EXPECT_EQ(Messages(),
             (std::vector<std::string>{Msg("added", 5, kVmMac, "192.0.2.10", VIGIL_DISC_DHCP),
                                       Msg("added", 5, kVmMac, "192.0.2.11", VIGIL_DISC_ARP),
                                       Msg("added", 6, kOtherMac, "192.0.2.12",
                                           VIGIL_DISC_STATIC)}));
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbRestoreTest, EmptyListIsRestoredWithoutAWord) {
   EXPECT_EQ(Restore(), ZEK_OK);
   EXPECT_TRUE(VigilListIsEmpty(&list));
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
   EXPECT_EQ(Lines(), Said{});
}

TEST_F(PortDbRestoreTest, DuplicateStopsTheRestoreAndTakesEveryNonStaticBindingAway) {
   AddV4(7, kVmMac, "192.0.2.20", VIGIL_DISC_STATIC, 0);
   AddV4(7, kVmMac, "192.0.2.21", VIGIL_DISC_DHCP, kNow + 900);
   Messages();
   Append(5, kVmMac, "192.0.2.10", VIGIL_DISC_ARP, kNow + 60);
   Append(6, kOtherMac, "192.0.2.12", VIGIL_DISC_STATIC, 0);
   VigilVmi *dup = Append(7, kVmMac, "192.0.2.21", VIGIL_DISC_DHCP, kNow + 100, "dup-client");
   VigilVmi *after1 = Append(5, kVmMac, "192.0.2.30", VIGIL_DISC_ARP, kNow + 60);
   VigilVmi *after2 = Append(5, kVmMac, "192.0.2.31", VIGIL_DISC_DHCP, kNow + 60, "c2");

   EXPECT_EQ(Restore(), kExists);
   ExpectAddFailedLine(TakeModuleLogs(), "ULM5");
   /* The failed record goes back behind those not tried. */
   EXPECT_EQ(Left(), (std::vector<VigilVmi *>{after1, after2, dup}));
   /* Only the static bindings stay, the restored one too. */
   EXPECT_EQ(filter->numVmis, 2u);
   EXPECT_EQ(filter->numStaticVmis, 2u);
   EXPECT_NE(FindV4(7, kVmMac, "192.0.2.20"), nullptr);
   EXPECT_NE(FindV4(6, kOtherMac, "192.0.2.12"), nullptr);
   EXPECT_EQ(FindV4(7, kVmMac, "192.0.2.21"), nullptr);
   EXPECT_EQ(FindV4(5, kVmMac, "192.0.2.10"), nullptr);
   EXPECT_EQ(Messages(),
             (std::vector<std::string>{
                Msg("added", 5, kVmMac, "192.0.2.10", VIGIL_DISC_ARP),
                Msg("added", 6, kOtherMac, "192.0.2.12", VIGIL_DISC_STATIC),
                Msg("removed", 5, kVmMac, "192.0.2.10", VIGIL_DISC_ARP),
                Msg("removed", 7, kVmMac, "192.0.2.21", VIGIL_DISC_DHCP)}));
   /* The record given back is whole: its key and its client id. */
   EXPECT_EQ(dup->vlanId, 7u);
   EXPECT_EQ(dup->clientIdLen, 10u);
   EXPECT_EQ(memcmp(dup->clientIdStr, "dup-client", 10), 0);
}

TEST_F(PortDbRestoreTest, ArpLimitStopsTheRestoreWithItsStatus) {
   filter->portDbArpEntriesSize = 1;
   AddV4(5, kVmMac, "192.0.2.10", VIGIL_DISC_ARP, kNow + 60);
   Messages();
   VigilVmi *over = Append(5, kVmMac, "192.0.2.11", VIGIL_DISC_ARP, kNow + 60);
   EXPECT_EQ(Restore(), kLimit);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ExpectAddFailedLine(lines, "ULM6");
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].log, "vigil.throttle");
   EXPECT_EQ(lines[0].text, "Filter 0x10 Exceeding the max ARP portDbSize 1");
   EXPECT_EQ(Left(), std::vector<VigilVmi *>{over});
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(Messages(), (std::vector<std::string>{
                            Msg("removed", 5, kVmMac, "192.0.2.10", VIGIL_DISC_ARP)}));
}

TEST_F(PortDbRestoreTest, IgnoredRecordStopsTheRestoreWithItsStatus) {
   filter->portIgnoreList = (VigilWhiteListEntry *)Vigil_HeapAlloc(sizeof(VigilWhiteListEntry));
   filter->portIgnoreList[0].flags = VIGIL_WL_VLAN;
   filter->portIgnoreList[0].vlan = 9;
   filter->portIgnoreListSize = 1;
   VigilVmi *first = Append(5, kVmMac, "192.0.2.10", VIGIL_DISC_DHCP, kNow + 60, "c");
   VigilVmi *ignored = Append(9, kVmMac, "192.0.2.11", VIGIL_DISC_ARP, kNow + 60);
   VigilVmi *last = Append(5, kVmMac, "192.0.2.12", VIGIL_DISC_ARP, kNow + 60);
   EXPECT_EQ(Restore(), kIgnored);
   ExpectAddFailedLine(TakeModuleLogs(), "ULM2");
   EXPECT_EQ(filter->stats.statV4VmiAddRefused, 1u);
   EXPECT_EQ(Left(), (std::vector<VigilVmi *>{last, ignored}));
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(filter->totalClientIdLen, 0u);
   EXPECT_EQ(Messages(),
             (std::vector<std::string>{Msg("added", 5, kVmMac, "192.0.2.10", VIGIL_DISC_DHCP),
                                       Msg("removed", 5, kVmMac, "192.0.2.10",
                                           VIGIL_DISC_DHCP)}));
   (void)first; /* freed by the table */
}

} // namespace
