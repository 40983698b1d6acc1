/*
 * The consistency check of the IPv6 database: bindings made through the
 * table's own add, pending DHCPv6 requests linked in as the request
 * tracking links them, then each invariant broken by hand, reported with
 * its text, and put back.
 */
#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "test_addresses.h"
#include "vigil_config.h"
#include "vigil_module.h"
#include "vigil_test.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"

namespace {

constexpr u32 kPort = 0x10;
constexpr i64 kNow = 1000; /* the virtual clock's start, in uptime seconds */

using addrtext::MacOf;
using Ip6 = std::array<u8, 16>;

Ip6 Ip6Of(const std::string &text) {
   Ip6 ip{};
   if (inet_pton(AF_INET6, text.c_str(), ip.data()) != 1) {
      ADD_FAILURE() << "not an IPv6 address: \"" << text << "\"";
   }
   return ip;
}

void CollectViolation(void *ctx, const char *text) {
   static_cast<std::vector<std::string> *>(ctx)->push_back(text);
}

using Texts = std::vector<std::string>;

} // namespace

class V6CheckTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      filter = AddFilter(kPort);
      ASSERT_EQ(VigilV6VmiHashAlloc(&filter->v6VmiHash), ZEK_OK);
      SetDeleteExpiry(0);
      ASSERT_EQ(AddNd("2001:db8::10", kNow + 100, &nd), ZEK_OK);
      ASSERT_EQ(AddDhcpV6("2001:db8::11", kNow + 200, "abc", &dhcp), ZEK_OK);
      ASSERT_EQ(AddNd("2001:db8::13", kNow - 10, &expired), ZEK_OK);
      request = LinkRequest(3, 0x123456, "\x01\x02", kNow + 5);
      ASSERT_EQ(V6VmiList(), (std::vector<VigilV6Vmi *>{nd, dhcp}));
      ASSERT_EQ(ExpiredList(), std::vector<VigilV6Vmi *>{expired});
      ASSERT_EQ(filter->numNdEntries, 2u);
      ASSERT_EQ(filter->numExpiredNdEntries, 1u);
      ASSERT_EQ(filter->numDhcpV6Entries, 1u);
      ASSERT_EQ(filter->dhcpV6ClientIdBytes, 3u);
      ASSERT_EQ(Violations(), Texts{});
   }

   void TearDown() override {
      EXPECT_EQ(Violations(), Texts{}) << "the table was not put back";
      SetDeleteExpiry(1);
      while (!VigilListIsEmpty(&filter->dhcpV6ReqList)) {
         UnlinkRequest(VIGIL_DHCPV6_REQ_FROM_LINKS(filter->dhcpV6ReqList.next));
      }
      WithWriteHold(kPort, [&] {
         while (!VigilListIsEmpty(&filter->v6ExpiredNdList)) {
            VigilDelV6Vmi(filter, VIGIL_V6VMI_FROM_EXPIRED(filter->v6ExpiredNdList.next));
         }
         while (!VigilListIsEmpty(&filter->v6VmiList)) {
            VigilDelV6Vmi(filter, VIGIL_V6VMI_FROM_EXPIRY(filter->v6VmiList.next));
         }
      });
      if (filter->vmiHash != nullptr) {
         Vigil_HeapFree(filter->vmiHash);
         filter->vmiHash = nullptr;
      }
      Vigil_HeapFree(filter->v6VmiHash);
      filter->v6VmiHash = nullptr;
      /* The added and removed messages are heap tasks until delivered. */
      EXPECT_TRUE(sim::WaitIdle(5.0));
      sim::TakePortsetMessages();
      VigilTest::TearDown();
   }

   zek_Status Add(const VigilV6Vmi &tmpl, const Ip6 &ip, VigilV6Vmi **added) {
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] {
         status = VigilAddV6Vmi(filter, &tmpl);
         u8 key[VIGIL_V6_KEY_LEN];
         memcpy(key, &tmpl.vlanId, 2);
         memcpy(key + 2, tmpl.mac, 6);
         memcpy(key + 8, ip.data(), 16);
         *added = VigilFindV6Vmi(filter, key);
      });
      return status;
   }

   static VigilV6Vmi Template(const Ip6 &ip, u8 method, i64 expiryTs) {
      VigilV6Vmi tmpl;
      memset(&tmpl, 0, sizeof tmpl);
      tmpl.vlanId = 5;
      addrtext::Mac mac = MacOf("02:00:00:00:00:10");
      memcpy(tmpl.mac, mac.data(), 6);
      memcpy(tmpl.ip, ip.data(), 16);
      tmpl.discMethod = method;
      tmpl.expiryTs = expiryTs;
      return tmpl;
   }

   zek_Status AddNd(const std::string &ip, i64 expiryTs, VigilV6Vmi **added) {
      Ip6 addr = Ip6Of(ip);
      return Add(Template(addr, VIGIL_DISC_ND, expiryTs), addr, added);
   }

   zek_Status AddStatic(const std::string &ip, VigilV6Vmi **added) {
      Ip6 addr = Ip6Of(ip);
      return Add(Template(addr, VIGIL_DISC_STATIC, 0), addr, added);
   }

   zek_Status AddDhcpV6(const std::string &ip, i64 expiryTs, const std::string &clientId,
                        VigilV6Vmi **added) {
      Ip6 addr = Ip6Of(ip);
      VigilV6Vmi tmpl = Template(addr, VIGIL_DISC_DHCPV6, expiryTs);
      tmpl.iaId = 1;
      Ip6 server = Ip6Of("fe80::ff:fe00:1");
      memcpy(tmpl.serverIp, server.data(), 16);
      tmpl.validLifetime = 200;
      tmpl.preferredLifetime = 100;
      std::vector<u8> id(clientId.begin(), clientId.end());
      tmpl.clientIdLen = (u16)id.size();
      tmpl.clientId = id.data();
      return Add(tmpl, addr, added);
   }

   /* A pending request as the request tracking keeps one: one block with
    * the copy of the message (type, transaction id, nothing more here) and
    * of the client id behind the record, linked at the tail. */
   VigilDhcpV6Req *LinkRequest(u8 msgType, u32 xid, const std::string &clientId,
                               i64 expiryTs) {
      const u16 msgLen = 4;
      u32 size = (u32)(sizeof(VigilDhcpV6Req) + msgLen + clientId.size());
      VigilDhcpV6Req *req = (VigilDhcpV6Req *)Vigil_HeapAlloc(size);
      req->vlanId = 5;
      addrtext::Mac mac = MacOf("02:00:00:00:00:10");
      memcpy(req->mac, mac.data(), 6);
      req->msg = (u8 *)(req + 1);
      req->msg[0] = msgType;
      req->msg[1] = (u8)(xid >> 16);
      req->msg[2] = (u8)(xid >> 8);
      req->msg[3] = (u8)xid;
      req->msgLen = msgLen;
      req->clientIdLen = (u16)clientId.size();
      req->clientId = req->msg + msgLen;
      memcpy(req->clientId, clientId.data(), clientId.size());
      req->expiryTs = expiryTs;
      req->reqStatus = 1;
      VigilListInsertBefore(&filter->dhcpV6ReqList, &req->reqLinks);
      filter->numDhcpV6Reqs++;
      filter->dhcpV6ReqBytes += req->msgLen + req->clientIdLen;
      return req;
   }

   void UnlinkRequest(VigilDhcpV6Req *req) {
      VigilListRemove(&req->reqLinks);
      filter->numDhcpV6Reqs--;
      filter->dhcpV6ReqBytes -= req->msgLen + req->clientIdLen;
      Vigil_HeapFree(req);
   }

   std::vector<VigilV6Vmi *> V6VmiList() const {
      std::vector<VigilV6Vmi *> records;
      VIGIL_LIST_FOR_EACH(pos, &filter->v6VmiList) {
         records.push_back(VIGIL_V6VMI_FROM_EXPIRY(pos));
      }
      return records;
   }

   std::vector<VigilV6Vmi *> ExpiredList() const {
      std::vector<VigilV6Vmi *> records;
      VIGIL_LIST_FOR_EACH(pos, &filter->v6ExpiredNdList) {
         records.push_back(VIGIL_V6VMI_FROM_EXPIRED(pos));
      }
      return records;
   }

   Texts Violations() {
      Texts texts;
      u32 count = VigilCheckV6PortDb(filter, CollectViolation, &texts);
      EXPECT_EQ(count, texts.size());
      return texts;
   }

   std::string Bucket(VigilV6Vmi *vmi) const {
      OxaHashCommon *hash = &filter->v6VmiHash->common;
      return std::to_string(OxaHashBucketOf(hash, OxaHashRecordKey(hash, vmi)) -
                            hash->buckets);
   }

   VigilFilter *filter = nullptr;
   VigilV6Vmi *nd = nullptr;
   VigilV6Vmi *dhcp = nullptr;
   VigilV6Vmi *expired = nullptr;
   VigilDhcpV6Req *request = nullptr;
};

/* ------------------------------------------------ the counters */

TEST_F(V6CheckTest, WrongNdCount) {
   filter->numNdEntries = 3;
   EXPECT_EQ(Violations(), Texts{"Filter 0x10 numNdEntries 3, lists hold 2"});
   filter->numNdEntries = 2;
}

TEST_F(V6CheckTest, WrongExpiredNdCount) {
   filter->numExpiredNdEntries = 0;
   EXPECT_EQ(Violations(), Texts{"Filter 0x10 numExpiredNdEntries 0, list holds 1"});
   filter->numExpiredNdEntries = 3;
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 numExpiredNdEntries 3, list holds 1",
                                  "Filter 0x10 numExpiredNdEntries 3 exceeds numNdEntries 2"}));
   filter->numExpiredNdEntries = 1;
}

TEST_F(V6CheckTest, WrongDhcpV6CountAndClientIdBytes) {
   filter->numDhcpV6Entries = 0;
   filter->dhcpV6ClientIdBytes = 7;
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 numDhcpV6Entries 0, lists hold 1",
                                  "Filter 0x10 dhcpV6ClientIdBytes 7, records hold 3"}));
   filter->numDhcpV6Entries = 1;
   filter->dhcpV6ClientIdBytes = 3;
}

TEST_F(V6CheckTest, CountsBeyondTheirLimits) {
   filter->portDbNdEntriesSize = 1;
   filter->portDbDhcpV6EntriesSize = 0;
   EXPECT_EQ(Violations(),
             (Texts{"Filter 0x10 numNdEntries 2 exceeds portDbNdEntriesSize 1",
                    "Filter 0x10 numDhcpV6Entries 1 exceeds portDbDhcpV6EntriesSize 0"}));
   filter->portDbNdEntriesSize = VIGIL_DEFAULT_ND_ENTRIES;
   filter->portDbDhcpV6EntriesSize = VIGIL_DEFAULT_DHCPV6_ENTRIES;
}

TEST_F(V6CheckTest, TablesFilledToTheirLimitsHold) {
   for (u32 i = 0; filter->numNdEntries < filter->portDbNdEntriesSize; i++) {
      VigilV6Vmi *added = nullptr;
      ASSERT_EQ(AddNd("2001:db8::1:" + std::to_string(i), kNow + 300, &added), ZEK_OK);
   }
   for (u32 i = 0; filter->numDhcpV6Entries < filter->portDbDhcpV6EntriesSize; i++) {
      VigilV6Vmi *added = nullptr;
      ASSERT_EQ(AddDhcpV6("2001:db8::2:" + std::to_string(i), kNow + 50, "xy", &added), ZEK_OK);
   }
   EXPECT_EQ(filter->dhcpV6ClientIdBytes, 3u + 14u * 2u);
   EXPECT_EQ(Violations(), Texts{});
}

/* ------------------------------------------------ the records */

TEST_F(V6CheckTest, NdRecordWithDhcpV6Fields) {
   nd->iaId = 4;
   EXPECT_EQ(Violations(), Texts{"Filter 0x10 v6VmiList: record 1 is learnt by ND but has "
                                 "DHCPv6 fields set"});
   nd->iaId = 0;
   nd->serverIp[15] = 1;
   expired->preferredLifetime = 30;
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 v6VmiList: record 1 is learnt by ND but has "
                                  "DHCPv6 fields set",
                                  "Filter 0x10 v6ExpiredNdList: record 1 is learnt by ND but "
                                  "has DHCPv6 fields set"}));
   nd->serverIp[15] = 0;
   expired->preferredLifetime = 0;
}

TEST_F(V6CheckTest, DhcpV6ClientIdLengthWithoutItsCopy) {
   u8 *saved = dhcp->clientId;
   dhcp->clientId = nullptr;
   EXPECT_EQ(Violations(), Texts{"Filter 0x10 v6VmiList: record 2 has a client id of 3 bytes "
                                 "but no copy of it"});
   dhcp->clientId = saved;
}

TEST_F(V6CheckTest, StaticRecordCountsInNeitherMethod) {
   VigilV6Vmi *stat = nullptr;
   ASSERT_EQ(AddStatic("2001:db8::12", &stat), ZEK_OK);
   ASSERT_EQ(V6VmiList(), (std::vector<VigilV6Vmi *>{stat, nd, dhcp}));
   EXPECT_EQ(filter->numNdEntries, 2u);
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
   EXPECT_EQ(Violations(), Texts{});
}

TEST_F(V6CheckTest, RecordOfAnUnknownMethod) {
   nd->discMethod = 9;
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 numNdEntries 2, lists hold 1",
                                  "Filter 0x10 1 IPv6 records of an unknown method"}));
   nd->discMethod = VIGIL_DISC_ND;
}

/* ------------------------------------------------ the lists */

TEST_F(V6CheckTest, RecordUnlinkedFromItsList) {
   VigilListRemove(&nd->expiryLinks);
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 v6 bucket " + Bucket(nd) +
                                     ": a record is on neither v6VmiList nor v6ExpiredNdList",
                                  "Filter 0x10 v6 hash holds 3, lists hold 2",
                                  "Filter 0x10 numNdEntries 2, lists hold 1"}));
   WithWriteHold(kPort, [&] { VigilInsertIntoV6VmiList(filter, nd); });
}

TEST_F(V6CheckTest, RecordOnBothLists) {
   VigilListInsertBefore(&filter->v6ExpiredNdList, &nd->expiredLinks);
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 v6 bucket " + Bucket(nd) +
                                     ": a record is on both v6VmiList and v6ExpiredNdList",
                                  "Filter 0x10 v6VmiList: record 1 is on both lists",
                                  "Filter 0x10 v6ExpiredNdList: record 2 is on both lists",
                                  "Filter 0x10 v6 hash holds 3, lists hold 4",
                                  "Filter 0x10 numNdEntries 2, lists hold 3",
                                  "Filter 0x10 numExpiredNdEntries 1, list holds 2"}));
   VigilListRemove(&nd->expiredLinks);
}

TEST_F(V6CheckTest, MisorderedRunningList) {
   nd->expiryTs = 5000;
   EXPECT_EQ(Violations(),
             Texts{"Filter 0x10 v6VmiList: record 2 expires at 1200 before 5000"});
   nd->expiryTs = kNow + 100;
}

/* Aging appends to the expired list in the order it meets records, and a
 * change of the ND lifetime appends records whose new expiry may be earlier
 * than those already there. */
TEST_F(V6CheckTest, ExpiredListNeedNotBeOrdered) {
   VigilV6Vmi *older = nullptr;
   ASSERT_EQ(AddNd("2001:db8::14", kNow - 20, &older), ZEK_OK);
   ASSERT_EQ(ExpiredList(), (std::vector<VigilV6Vmi *>{older, expired}));
   older->expiryTs = kNow - 5;
   EXPECT_EQ(Violations(), Texts{});
   older->expiryTs = kNow - 20;
}

TEST_F(V6CheckTest, DhcpV6RecordOnTheExpiredList) {
   VigilListRemove(&dhcp->expiryLinks);
   VigilListInsertBefore(&filter->v6ExpiredNdList, &dhcp->expiredLinks);
   EXPECT_EQ(Violations(),
             (Texts{"Filter 0x10 v6ExpiredNdList holds 1 records not learnt by ND",
                    "Filter 0x10 numExpiredNdEntries 1, list holds 2"}));
   VigilListRemove(&dhcp->expiredLinks);
   WithWriteHold(kPort, [&] { VigilInsertIntoV6VmiList(filter, dhcp); });
}

TEST_F(V6CheckTest, BrokenBackLink) {
   VigilListLinks *saved = dhcp->expiryLinks.prev;
   dhcp->expiryLinks.prev = &filter->v6VmiList;
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 v6VmiList: broken links after 0 records",
                                  "Filter 0x10 v6 hash holds 3, lists hold 1",
                                  "Filter 0x10 numNdEntries 2, lists hold 1",
                                  "Filter 0x10 numDhcpV6Entries 1, lists hold 0",
                                  "Filter 0x10 dhcpV6ClientIdBytes 3, records hold 0"}));
   dhcp->expiryLinks.prev = saved;
}

/* ------------------------------------------------ the hash */

TEST_F(V6CheckTest, RecordWhoseKeyChangedSitsInTheWrongBucket) {
   u8 savedLast = nd->ip[15];
   std::string oldBucket = Bucket(nd);
   for (u32 n = 0x20; n < 0x100 && Bucket(nd) == oldBucket; n++) {
      nd->ip[15] = (u8)n;
   }
   ASSERT_NE(Bucket(nd), oldBucket);
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 v6 bucket " + oldBucket +
                                     ": holds a record of another bucket",
                                  "Filter 0x10 v6VmiList: record 1 is not in the hash"}));
   nd->ip[15] = savedLast;
}

TEST_F(V6CheckTest, WrongHashAndBucketCounts) {
   OxaHashCommon *hash = &filter->v6VmiHash->common;
   hash->count = 5;
   EXPECT_EQ(Violations(), Texts{"Filter 0x10 v6 hash count 5, holds 3"});
   hash->count = 3;
   OxaHashBucket *bucket = OxaHashBucketOf(hash, OxaHashRecordKey(hash, dhcp));
   u32 held = bucket->count;
   bucket->count = held + 1;
   EXPECT_EQ(Violations(), Texts{"Filter 0x10 v6 bucket " + Bucket(dhcp) + ": count " +
                                 std::to_string(held + 1) + ", holds " + std::to_string(held)});
   bucket->count = held;
}

TEST_F(V6CheckTest, RecordInTheHashOnly) {
   OxaHashCommon *hash = &filter->v6VmiHash->common;
   VigilListRemove(&expired->expiredLinks);
   filter->numExpiredNdEntries = 0;
   filter->numNdEntries = 1;
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 v6 bucket " + Bucket(expired) +
                                     ": a record is on neither v6VmiList nor v6ExpiredNdList",
                                  "Filter 0x10 v6 hash holds 3, lists hold 2"}));
   OxaHashRemove(hash, expired);
   EXPECT_EQ(Violations(), Texts{});
   OxaHashInsert(hash, expired);
   VigilListInsertBefore(&filter->v6ExpiredNdList, &expired->expiredLinks);
   filter->numExpiredNdEntries = 1;
   filter->numNdEntries = 2;
}

TEST_F(V6CheckTest, MissingHash) {
   VigilV6VmiHash *saved = filter->v6VmiHash;
   filter->v6VmiHash = nullptr;
   EXPECT_EQ(Violations(), Texts{"Filter 0x10 has no IPv6 hash but 3 IPv6 bindings"});
   filter->v6VmiHash = saved;
}

/* ------------------------------------------------ pending DHCPv6 requests */

TEST_F(V6CheckTest, WrongRequestCountAndBytes) {
   filter->numDhcpV6Reqs = 2;
   filter->dhcpV6ReqBytes = 4;
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 numDhcpV6Reqs 2, list holds 1",
                                  "Filter 0x10 dhcpV6ReqBytes 4, requests hold 6"}));
   filter->numDhcpV6Reqs = 1;
   filter->dhcpV6ReqBytes = 6;
}

TEST_F(V6CheckTest, RequestsBeyondTheirLimit) {
   filter->maxDhcpV6Reqs = 0;
   EXPECT_EQ(Violations(), Texts{"Filter 0x10 numDhcpV6Reqs 1 exceeds maxDhcpV6Reqs 0"});
   filter->maxDhcpV6Reqs = VIGIL_DEFAULT_DHCPV6_REQS;
}

TEST_F(V6CheckTest, MisorderedRequestList) {
   VigilDhcpV6Req *later = LinkRequest(1, 0x10, "", kNow + 60);
   EXPECT_EQ(Violations(), Texts{});
   later->expiryTs = kNow + 1;
   EXPECT_EQ(Violations(),
             Texts{"Filter 0x10 dhcpV6ReqList: record 2 expires at 1001 before 1005"});
   later->expiryTs = kNow + 60;
}

TEST_F(V6CheckTest, RequestWithoutItsCopies) {
   u8 *msg = request->msg;
   u8 *clientId = request->clientId;
   request->msg = nullptr;
   request->clientId = nullptr;
   EXPECT_EQ(Violations(),
             (Texts{"Filter 0x10 dhcpV6ReqList: record 1 has no copy of its message",
                    "Filter 0x10 dhcpV6ReqList: record 1 has a client id of 2 bytes but no "
                    "copy of it"}));
   request->msg = msg;
   request->clientId = clientId;
}

TEST_F(V6CheckTest, BrokenRequestLinks) {
   LinkRequest(1, 0x10, "", kNow + 60);
   VigilListLinks *head = &filter->dhcpV6ReqList;
   VigilListLinks *saved = head->prev;
   head->prev = &request->reqLinks;
   EXPECT_EQ(Violations(), (Texts{"Filter 0x10 dhcpV6ReqList: broken links after 1 records",
                                  "Filter 0x10 numDhcpV6Reqs 2, list holds 1",
                                  "Filter 0x10 dhcpV6ReqBytes 10, requests hold 6"}));
   head->prev = saved;
}

/* ------------------------------------------------ with the table's own operations */

TEST_F(V6CheckTest, AgingRefreshAndDeleteKeepEveryInvariant) {
   /* At 1150 s the ND binding is due: kept expired, delOnExpiry being off. */
   WithWriteHold(kPort, [&] { VigilPortDbV6DoAging(filter, kNow + 150); });
   EXPECT_EQ(ExpiredList(), (std::vector<VigilV6Vmi *>{expired, nd}));
   EXPECT_EQ(Violations(), Texts{});
   /* Learnt again, it runs again. */
   VigilV6Vmi *again = nullptr;
   ASSERT_EQ(AddNd("2001:db8::10", 0, &again), ZEK_OK);
   EXPECT_EQ(again, nd);
   EXPECT_EQ(ExpiredList(), std::vector<VigilV6Vmi *>{expired});
   EXPECT_EQ(Violations(), Texts{});
   /* A shorter ND lifetime sends it back. */
   WithWriteHold(kPort, [&] { VigilPortDbV6TimeoutChange(filter, -600); });
   EXPECT_EQ(ExpiredList(), (std::vector<VigilV6Vmi *>{expired, nd}));
   EXPECT_EQ(Violations(), Texts{});
   /* DHCPv6 takes an address over from ND. */
   VigilV6Vmi *lease = nullptr;
   ASSERT_EQ(AddDhcpV6("2001:db8::13", kNow + 300, "defg", &lease), ZEK_OK);
   EXPECT_EQ(ExpiredList(), std::vector<VigilV6Vmi *>{nd});
   EXPECT_EQ(filter->dhcpV6ClientIdBytes, 7u);
   EXPECT_EQ(Violations(), Texts{});
   expired = nullptr;
}

/* ------------------------------------------------ the exported check */

TEST_F(V6CheckTest, FilterCheckReportsBothDatabases) {
   ASSERT_EQ(VigilVmiHashAlloc(&filter->vmiHash), ZEK_OK);
   Texts texts;
   EXPECT_EQ(VigilCheckFilterTables(filter, CollectViolation, &texts), 0u);
   filter->numStaticVmis = 1;
   filter->numNdEntries = 3;
   EXPECT_EQ(VigilCheckFilterTables(filter, CollectViolation, &texts), 3u);
   EXPECT_EQ(texts, (Texts{"Filter 0x10 numStaticVmis 1, lists hold 0",
                           "Filter 0x10 numVmis 0 is not the sum of its methods",
                           "Filter 0x10 numNdEntries 3, lists hold 2"}));
   filter->numStaticVmis = 0;
   filter->numNdEntries = 2;
}

/* A filter of a module built without the IPv6 table has no hash and
 * nothing in it. */
class V6CheckWithoutTableTest : public VigilTest {};

TEST_F(V6CheckWithoutTableTest, EmptyFilterWithoutAHashHolds) {
   VigilFilter *filter = AddFilter(kPort);
   ASSERT_EQ(filter->v6VmiHash, nullptr);
   Texts texts;
   EXPECT_EQ(VigilCheckV6PortDb(filter, CollectViolation, &texts), 0u);
   EXPECT_EQ(texts, Texts{});
   filter->numDhcpV6Entries = 1;
   EXPECT_EQ(VigilCheckV6PortDb(filter, CollectViolation, &texts), 1u);
   EXPECT_EQ(texts, Texts{"Filter 0x10 numDhcpV6Entries 1, lists hold 0"});
   filter->numDhcpV6Entries = 0;
}
