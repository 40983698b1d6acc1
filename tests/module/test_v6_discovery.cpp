/*
 * IPv6 discovery configuration on a filter's tables: switching ND and
 * DHCPv6 snooping with and without a flush, what goes with DHCPv6 (its
 * pending requests), the ND life time, and which bindings an ignore list
 * entry covers.
 */
#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "config_blobs.h"
#include "portdb_text.h"
#include "test_addresses.h"
#include "vigil_config.h"
#include "vigil_dhcpv6_track.h"
#include "vigil_test.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_whitelist.h"

namespace {

constexpr u32 kPort = 0x10;
constexpr i64 kNow = 1000; /* the virtual clock's start */
constexpr u32 kAllOn = VIGIL_DISC_DHCP | VIGIL_DISC_ARP | VIGIL_DISC_ND | VIGIL_DISC_DHCPV6;

const char *const kVmMac = "02:00:00:00:00:10";
const char *const kOtherMac = "02:00:00:00:00:11";

using portdbtext::Msg;
using portdbtext::V6TableLine;
/* A line as (log, level, text). */
using Line = std::tuple<std::string, int, std::string>;
using Lines = std::vector<Line>;
using Texts = std::vector<std::string>;

std::array<u8, 16> Ip6(const std::string &text) {
   std::array<u8, 16> addr{};
   EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), addr.data()), 1) << text;
   return addr;
}

Line Plain(const std::string &text) {
   return Line{"vigil", 1, text};
}
Line Throttled(const std::string &text) {
   return Line{"vigil.throttle", 1, text};
}

class V6DiscoveryTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      filter = AddFilter(kPort);
      ASSERT_EQ(VigilVmiHashAlloc(&filter->vmiHash), ZEK_OK);
      ASSERT_EQ(VigilV6VmiHashAlloc(&filter->v6VmiHash), ZEK_OK);
      filter->discoveryFlags = kAllOn;
      TakeModuleLogs();
   }

   void TearDown() override {
      SetDeleteExpiry(1);
      sim::SetLogLevel("vigil", 0);
      EXPECT_EQ(Violations(), Texts{});
      WithWriteHold(kPort, [&] {
         while (!VigilListIsEmpty(&filter->dhcpV6ReqList)) {
            VigilDelDhcpV6Req(filter, VIGIL_DHCPV6_REQ_FROM_LINKS(filter->dhcpV6ReqList.next));
         }
         VigilClearV6Vmi(filter, true, 0, nullptr);
         VigilClearVmi(filter, true, 0, nullptr);
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

   /* Adds an IPv6 binding that the table must take; gives its record. */
   VigilV6Vmi *Add(u16 vlan, const std::string &mac, const std::string &ip, u8 method,
                   i64 expiryTs) {
      VigilV6Vmi t;
      memset(&t, 0, sizeof t);
      t.vlanId = vlan;
      addrtext::Mac m = addrtext::MacOf(mac);
      memcpy(t.mac, m.data(), 6);
      std::array<u8, 16> a = Ip6(ip);
      memcpy(t.ip, a.data(), 16);
      t.discMethod = method;
      t.expiryTs = expiryTs;
      u8 clientId[4] = {0, 1, 0, 1};
      if (method == VIGIL_DISC_DHCPV6) {
         t.iaId = 0x1234;
         t.validLifetime = (i32)(expiryTs - Vigil_UptimeSecs());
         t.clientIdLen = sizeof clientId;
         t.clientId = clientId;
      }
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] { status = VigilAddV6Vmi(filter, &t); });
      EXPECT_EQ(status, ZEK_OK) << ip;
      return WithReadHold(kPort, [&] { return VigilFindV6Vmi(filter, (const u8 *)&t.vlanId); });
   }

   /* A pending Request of the VM, as tracking keeps one: the message's
    * first four bytes (type and transaction id), no client id. */
   void AddRequest(u32 xid) {
      auto *req = (VigilDhcpV6Req *)Vigil_HeapAlloc(sizeof(VigilDhcpV6Req) + 4);
      req->msg = (u8 *)(req + 1);
      req->msg[0] = 3;
      req->msg[1] = (u8)(xid >> 16);
      req->msg[2] = (u8)(xid >> 8);
      req->msg[3] = (u8)xid;
      req->msgLen = 4;
      req->clientId = req->msg + 4;
      addrtext::Mac m = addrtext::MacOf(kVmMac);
      memcpy(req->mac, m.data(), 6);
      req->reqStatus = VIGIL_DHCPV6_REQ_PENDING;
      bool added = false;
      WithWriteHold(kPort, [&] { added = VigilAddDhcpV6Req(filter, req); });
      ASSERT_TRUE(added);
   }

   zek_Status Config(bool dhcpv6, bool nd, bool flush) {
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] { status = VigilConfigIpv6Discovery(filter, dhcpv6, nd, flush); });
      return status;
   }

   zek_Status NdExpiry(u32 minutes) {
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] { status = VigilConfigNdExpiry(filter, minutes); });
      return status;
   }

   /* A running ND binding, a kept expired one and a DHCPv6 lease, with
    * one pending request; the lines and messages of all that taken. */
   void Populate() {
      SetDeleteExpiry(0);
      Add(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND, kNow + 600);
      Add(7, kOtherMac, "2001:db8::3", VIGIL_DISC_ND, kNow - 5);
      Add(5, kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6, kNow + 300);
      AddRequest(0xa1b2c3);
      ASSERT_EQ(filter->numNdEntries, 2u);
      ASSERT_EQ(filter->numExpiredNdEntries, 1u);
      ASSERT_EQ(filter->numDhcpV6Entries, 1u);
      ASSERT_EQ(filter->numDhcpV6Reqs, 1u);
      Messages();
      TakeModuleLogs();
   }

   Texts Messages() {
      EXPECT_TRUE(sim::WaitIdle(5.0));
      Texts out;
      for (const sim::PortsetMessage &msg : sim::TakePortsetMessages()) {
         out.push_back(portdbtext::MessageText(msg.bytes));
      }
      return out;
   }

   Lines TakeLines() {
      Lines out;
      for (const sim::LogLine &line : TakeModuleLogs()) {
         out.push_back(Line{line.log, line.level, line.text});
      }
      return out;
   }

   Texts Violations() {
      Texts found;
      VigilCheckFilterTables(
         filter, [](void *ctx, const char *text) { ((Texts *)ctx)->push_back(text); }, &found);
      return found;
   }

   /* The last byte of the address of each record of a list, in order. */
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

   VigilFilter *filter = nullptr;
};

/* ------------------------------------------------ switching the methods */

TEST_F(V6DiscoveryTest, UnchangedConfigurationWithFlushDeletesNothingAndSaysOnlyTheRequest) {
   Populate();
   sim::SetLogLevel("vigil", 1);
   EXPECT_EQ(Config(true, true, true), ZEK_OK);
   EXPECT_EQ(TakeLines(), (Lines{Plain("Filter 0x10 Config IPv6 Discovery - dhcpv6: true, "
                                        "nd: true")}));
   EXPECT_EQ(Messages(), Texts{});
   EXPECT_EQ(filter->discoveryFlags, kAllOn);
   EXPECT_EQ(Running(), (std::vector<u32>{2, 1}));
   EXPECT_EQ(Expired(), std::vector<u32>{3});
   EXPECT_EQ(filter->numDhcpV6Reqs, 1u);

   /* Below verbosity 1 not even that. */
   sim::SetLogLevel("vigil", 0);
   EXPECT_EQ(Config(true, true, true), ZEK_OK);
   EXPECT_EQ(TakeLines(), Lines{});
}

TEST_F(V6DiscoveryTest, BothOffAgainIsUnchangedToo) {
   filter->discoveryFlags = VIGIL_DISC_ARP;
   sim::SetLogLevel("vigil", 1);
   EXPECT_EQ(Config(false, false, true), ZEK_OK);
   EXPECT_EQ(TakeLines(), (Lines{Plain("Filter 0x10 Config IPv6 Discovery - dhcpv6: false, "
                                        "nd: false")}));
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_ARP);
}

TEST_F(V6DiscoveryTest, NdOffWithoutFlushKeepsEveryNdBinding) {
   Populate();
   EXPECT_EQ(Config(true, false, false), ZEK_OK);
   EXPECT_EQ(TakeLines(),
             (Lines{Plain("oldConfig: 0x18, newConfig: 0x10, toFlush: 0x8"),
                    Plain("Filter 0x10 IPv6 Discover config updated, new features: 0x13")}));
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_DHCP | VIGIL_DISC_ARP | VIGIL_DISC_DHCPV6);
   EXPECT_EQ(Messages(), Texts{});
   EXPECT_EQ(Running(), (std::vector<u32>{2, 1}));
   EXPECT_EQ(Expired(), std::vector<u32>{3});
   EXPECT_EQ(filter->numNdEntries, 2u);
   EXPECT_EQ(filter->numDhcpV6Reqs, 1u) << "requests go only with DHCPv6";
}

TEST_F(V6DiscoveryTest, DhcpV6OffWithoutFlushKeepsItsBindingsButDropsThePendingRequests) {
   Populate();
   AddRequest(0x0d0e0f);
   TakeModuleLogs();
   EXPECT_EQ(Config(false, true, false), ZEK_OK);
   EXPECT_EQ(TakeLines(),
             (Lines{Plain("oldConfig: 0x18, newConfig: 0x8, toFlush: 0x10"),
                    Throttled("Filter 0x10 Deleting DHCPv6 pending req:vlan = 0 xId = 0xa1b2c300 "
                              "numReq = 2"),
                    Throttled("Filter 0x10 Deleting DHCPv6 pending req:vlan = 0 xId = 0xd0e0f00 "
                              "numReq = 1"),
                    Plain("Filter 0x10 IPv6 Discover config updated, new features: 0xb")}));
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_DHCP | VIGIL_DISC_ARP | VIGIL_DISC_ND);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(filter->dhcpV6ReqBytes, 0u);
   EXPECT_TRUE(VigilListIsEmpty(&filter->dhcpV6ReqList));
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
   EXPECT_EQ(Running(), (std::vector<u32>{2, 1}));
   EXPECT_EQ(Messages(), Texts{});
}

TEST_F(V6DiscoveryTest, FromBothToNdOnlyWithFlushDeletesTheLeasesAndRequestsAndNoNdBinding) {
   Populate();
   EXPECT_EQ(Config(false, true, true), ZEK_OK);
   EXPECT_EQ(TakeLines(),
             (Lines{Plain("oldConfig: 0x18, newConfig: 0x8, toFlush: 0x10"),
                    Plain(V6TableLine("Deleting V6 VMI", 5, kVmMac, "2001:db8::2",
                                      VIGIL_DISC_DHCPV6, kNow + 300)),
                    Throttled("Filter 0x10 Deleting DHCPv6 pending req:vlan = 0 xId = 0xa1b2c300 "
                              "numReq = 1"),
                    Plain("Filter 0x10 IPv6 Discover config updated, new features: 0xb")}));
   EXPECT_EQ(Messages(),
             (Texts{Msg("removed", 5, kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6)}));
   EXPECT_EQ(filter->numDhcpV6Entries, 0u);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(Running(), std::vector<u32>{1});
   EXPECT_EQ(Expired(), std::vector<u32>{3});
   EXPECT_EQ(filter->numNdEntries, 2u);
}

TEST_F(V6DiscoveryTest, FromBothToDhcpV6OnlyWithFlushDeletesRunningAndExpiredNdBindings) {
   Populate();
   EXPECT_EQ(Config(true, false, true), ZEK_OK);
   EXPECT_EQ(TakeLines(),
             (Lines{Plain("oldConfig: 0x18, newConfig: 0x10, toFlush: 0x8"),
                    Plain(V6TableLine("Deleting V6 VMI", 7, kOtherMac, "2001:db8::3",
                                      VIGIL_DISC_ND, kNow - 5)),
                    Plain(V6TableLine("Deleting V6 VMI", 5, kVmMac, "2001:db8::1",
                                      VIGIL_DISC_ND, kNow + 600)),
                    Plain("Filter 0x10 IPv6 Discover config updated, new features: 0x13")}));
   EXPECT_EQ(Messages(), (Texts{Msg("removed", 7, kOtherMac, "2001:db8::3", VIGIL_DISC_ND),
                                Msg("removed", 5, kVmMac, "2001:db8::1", VIGIL_DISC_ND)}));
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(filter->numExpiredNdEntries, 0u);
   EXPECT_EQ(Running(), std::vector<u32>{2});
   EXPECT_EQ(filter->numDhcpV6Reqs, 1u);
}

TEST_F(V6DiscoveryTest, FlushAtVerbosityOneSaysWhatItFlushes) {
   Populate();
   sim::SetLogLevel("vigil", 1);
   EXPECT_EQ(Config(true, false, true), ZEK_OK);
   Lines lines = TakeLines();
   ASSERT_EQ(lines.size(), 6u);
   EXPECT_EQ(lines[0], Plain("Filter 0x10 Config IPv6 Discovery - dhcpv6: true, nd: false"));
   EXPECT_EQ(lines[1], Plain("oldConfig: 0x18, newConfig: 0x10, toFlush: 0x8"));
   EXPECT_EQ(lines[2], Plain("Filter 0x10 Flush, delMask: 0x8, 0x8"));
   EXPECT_EQ(lines[5], Plain("Filter 0x10 IPv6 Discover config updated, new features: 0x13"));
}

/* ------------------------------------------------------ the ND life time */

TEST_F(V6DiscoveryTest, NdLifeTimeSetToItsPresentValueWalksNoBinding) {
   Add(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND, kNow + 600);
   /* Past its end, not aged yet: a walk of the list would end it. */
   sim::Advance(700);
   Messages();
   TakeModuleLogs();
   i64 key = filter->agingKey;
   EXPECT_EQ(NdExpiry(10), ZEK_OK);
   EXPECT_EQ(filter->ndExpiry, 600);
   EXPECT_EQ(Running(), std::vector<u32>{1});
   EXPECT_EQ(filter->v6VmiList.next != &filter->v6VmiList
                ? VIGIL_V6VMI_FROM_EXPIRY(filter->v6VmiList.next)->expiryTs
                : -1,
             kNow + 600);
   EXPECT_EQ(filter->agingKey, key);
   EXPECT_EQ(Messages(), Texts{});
   EXPECT_EQ(TakeLines(), Lines{});
}

TEST_F(V6DiscoveryTest, LongerNdLifeTimeMovesEachRunningNdBindingByTheDifference) {
   SetDeleteExpiry(0);
   VigilV6Vmi *a = Add(5, kVmMac, "2001:db8::1", VIGIL_DISC_ND, kNow + 600);
   sim::Advance(100);
   VigilV6Vmi *b = Add(5, kVmMac, "2001:db8::2", VIGIL_DISC_ND, kNow + 700);
   VigilV6Vmi *c = Add(5, kVmMac, "2001:db8::3", VIGIL_DISC_DHCPV6, kNow + 1250);
   VigilV6Vmi *d = Add(5, kVmMac, "2001:db8::4", VIGIL_DISC_ND, kNow + 90);
   ASSERT_EQ(Running(), (std::vector<u32>{1, 2, 3}));
   ASSERT_EQ(Expired(), std::vector<u32>{4});
   ASSERT_EQ(filter->agingKey, kNow + 600);
   Messages();
   TakeModuleLogs();

   /* Twenty minutes: each ND binding ends 1200 s after it was last seen. */
   EXPECT_EQ(NdExpiry(20), ZEK_OK);
   EXPECT_EQ(filter->ndExpiry, 1200);
   EXPECT_EQ(a->expiryTs, kNow + 1200);
   EXPECT_EQ(b->expiryTs, kNow + 1300);
   EXPECT_EQ(c->expiryTs, kNow + 1250) << "a lease keeps its own end";
   EXPECT_EQ(d->expiryTs, kNow + 90) << "an expired binding stays as it was";
   EXPECT_EQ(Running(), (std::vector<u32>{1, 3, 2}));
   EXPECT_EQ(Expired(), std::vector<u32>{4});
   EXPECT_EQ(filter->agingKey, kNow + 1200);
   EXPECT_EQ(Messages(), Texts{});
   EXPECT_EQ(TakeLines(), Lines{});
}

/* ------------------------------------------------------- the ignore list */

VigilWhiteListEntry IgnoreEntry(u32 flags, u16 vlan, const std::string &mac, const std::string &ip,
                                bool v4 = false) {
   VigilWhiteListEntry entry;
   memset(&entry, 0, sizeof entry);
   entry.flags = flags;
   entry.vlan = vlan;
   if (!mac.empty()) {
      addrtext::Mac m = addrtext::MacOf(mac);
      memcpy(entry.mac, m.data(), 6);
   }
   if (!ip.empty()) {
      if (v4) {
         u32 addr = addrtext::Ip(ip);
         memcpy(entry.ip, &addr, 4);
         entry.prefixLen = 32;
      } else {
         std::array<u8, 16> a = Ip6(ip);
         memcpy(entry.ip, a.data(), 16);
         entry.prefixLen = 128;
      }
   }
   return entry;
}

/* The matching alone, on the fixture's filter and heap all the same. */
class V6IgnoreMatch : public V6DiscoveryTest {};

bool Covered(const std::vector<VigilWhiteListEntry> &list, u16 vlan, const std::string &mac,
             const std::string &ip) {
   addrtext::Mac m = addrtext::MacOf(mac);
   std::array<u8, 16> a = Ip6(ip);
   return VigilMatchV6IgnoreList(list.data(), (u32)list.size(), vlan, m.data(), a.data());
}

TEST_F(V6IgnoreMatch, VlanOnlyEntryCoversEveryAddressAndMacOfItsVlan) {
   std::vector<VigilWhiteListEntry> list = {IgnoreEntry(VIGIL_WL_VLAN, 5, "", "")};
   EXPECT_TRUE(Covered(list, 5, kVmMac, "2001:db8::1"));
   EXPECT_TRUE(Covered(list, 5, kOtherMac, "fe80::1"));
   EXPECT_TRUE(Covered(list, 5, kVmMac, "::"));
   EXPECT_FALSE(Covered(list, 6, kVmMac, "2001:db8::1"));
   EXPECT_FALSE(Covered(list, 0, kVmMac, "2001:db8::1"));
}

TEST_F(V6IgnoreMatch, Ipv4EntryNeverCoversAnIpv6Binding) {
   /* 32.1.13.184 is 2001:db8::'s first four bytes. */
   std::vector<VigilWhiteListEntry> lists[] = {
      {IgnoreEntry(VIGIL_WL_IPV4, 0, "", "32.1.13.184", true)},
      {IgnoreEntry(VIGIL_WL_IPV4, 0, "", "0.0.0.0", true)},
      {IgnoreEntry(VIGIL_WL_IPV4 | VIGIL_WL_VLAN, 5, "", "32.1.13.184", true)},
      {IgnoreEntry(VIGIL_WL_IPV4 | VIGIL_WL_VLAN | VIGIL_WL_MAC, 5, kVmMac, "32.1.13.184",
                   true)},
   };
   for (const auto &list : lists) {
      EXPECT_FALSE(Covered(list, 5, kVmMac, "2001:db8::"));
      EXPECT_FALSE(Covered(list, 5, kVmMac, "2001:db8::1"));
      EXPECT_FALSE(Covered(list, 5, kVmMac, "::"));
   }
}

TEST_F(V6IgnoreMatch, Ipv6OnlyEntryCoversItsAddressOnAnyVlanAndMac) {
   std::vector<VigilWhiteListEntry> list = {IgnoreEntry(VIGIL_WL_IPV6, 0, "", "2001:db8::5")};
   EXPECT_TRUE(Covered(list, 0, kVmMac, "2001:db8::5"));
   EXPECT_TRUE(Covered(list, 4094, kOtherMac, "2001:db8::5"));
   /* Every byte counts, the first and the last. */
   EXPECT_FALSE(Covered(list, 0, kVmMac, "2001:db8::4"));
   EXPECT_FALSE(Covered(list, 0, kVmMac, "3001:db8::5"));
   EXPECT_FALSE(Covered(list, 0, kVmMac, "2001:db8:0:1::5"));
}

TEST_F(V6IgnoreMatch, MacAndIpv6EntryNeedsBoth) {
   std::vector<VigilWhiteListEntry> list = {
      IgnoreEntry(VIGIL_WL_MAC | VIGIL_WL_IPV6, 0, kVmMac, "2001:db8::5")};
   EXPECT_TRUE(Covered(list, 5, kVmMac, "2001:db8::5"));
   EXPECT_TRUE(Covered(list, 9, kVmMac, "2001:db8::5")) << "no VLAN named";
   EXPECT_FALSE(Covered(list, 5, kOtherMac, "2001:db8::5"));
   EXPECT_FALSE(Covered(list, 5, kVmMac, "2001:db8::6"));
}

TEST_F(V6IgnoreMatch, VlanAndMacEntryCoversEveryAddressOfThatPair) {
   std::vector<VigilWhiteListEntry> list = {
      IgnoreEntry(VIGIL_WL_VLAN | VIGIL_WL_MAC, 5, kVmMac, "")};
   EXPECT_TRUE(Covered(list, 5, kVmMac, "2001:db8::5"));
   EXPECT_TRUE(Covered(list, 5, kVmMac, "fe80::5"));
   EXPECT_FALSE(Covered(list, 6, kVmMac, "2001:db8::5"));
   EXPECT_FALSE(Covered(list, 5, kOtherMac, "2001:db8::5"));
}

TEST_F(V6IgnoreMatch, EntriesAreAlternativesAndAnEmptyListCoversNothing) {
   std::vector<VigilWhiteListEntry> list = {
      IgnoreEntry(VIGIL_WL_IPV4, 0, "", "192.0.2.1", true),
      IgnoreEntry(VIGIL_WL_IPV6, 0, "", "2001:db8::5"),
      IgnoreEntry(VIGIL_WL_VLAN, 9, "", ""),
   };
   EXPECT_TRUE(Covered(list, 5, kVmMac, "2001:db8::5"));
   EXPECT_TRUE(Covered(list, 9, kVmMac, "2001:db8::6"));
   EXPECT_FALSE(Covered(list, 5, kVmMac, "2001:db8::6"));
   EXPECT_FALSE(VigilMatchV6IgnoreList(nullptr, 0, 5, addrtext::MacOf(kVmMac).data(),
                                       Ip6("2001:db8::5").data()));
}

TEST_F(V6DiscoveryTest, IgnoreListPurgeTakesCoveredRunningAndExpiredBindingsOnly) {
   Populate();
   Add(6, kVmMac, "2001:db8::4", VIGIL_DISC_ND, kNow + 400);
   Messages();
   TakeModuleLogs();
   blobs::Bytes blob = blobs::IgnoreList(
      {IgnoreEntry(VIGIL_WL_VLAN, 7, "", ""), IgnoreEntry(VIGIL_WL_IPV6, 0, "", "2001:db8::2"),
       IgnoreEntry(VIGIL_WL_IPV4, 0, "", "32.1.13.184", true)});
   zek_Status status = ZEK_OK;
   WithWriteHold(kPort, [&] {
      status = VigilConfigDiscoveryIL(filter, (const VigilIgnoreListConfig *)blob.data());
   });
   EXPECT_EQ(status, ZEK_OK);
   /* The expired list goes first, then the running one in its order. */
   EXPECT_EQ(TakeLines(),
             (Lines{Plain(V6TableLine("Deleting V6 VMI", 7, kOtherMac, "2001:db8::3",
                                      VIGIL_DISC_ND, kNow - 5)),
                    Plain(V6TableLine("Deleting V6 VMI", 5, kVmMac, "2001:db8::2",
                                      VIGIL_DISC_DHCPV6, kNow + 300)),
                    Plain("Filter 0x10 Ignore list discovery is configured successfully with "
                          "size of 3")}));
   EXPECT_EQ(Messages(), (Texts{Msg("removed", 7, kOtherMac, "2001:db8::3", VIGIL_DISC_ND),
                                Msg("removed", 5, kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6)}));
   EXPECT_EQ(Running(), (std::vector<u32>{4, 1}));
   EXPECT_EQ(Expired(), std::vector<u32>{});
   EXPECT_EQ(filter->numNdEntries, 2u);
   EXPECT_EQ(filter->numDhcpV6Entries, 0u);
   EXPECT_EQ(filter->stats.statV6VmiAddRefused, 0u) << "a purge is no refusal";
}

} // namespace
