/*
 * vigilsim's `api` command against the loaded vigil.so: the three port
 * database calls that sibling modules resolve by name, on bindings learnt
 * from frames (DHCP, ARP, ND, DHCPv6) and a static one; the classes, the
 * buffer's capacity, deletion by address and MAC, ports without a filter,
 * and the arguments the tool refuses.  A session runs in this process, so
 * that a test can reach the filter record, and each line answers the JSON
 * object vigilsim prints for it.
 */
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "session.h"
#include "session_test.h"
#include "sim_core.h"
#include "text.h"
#include "vigil_filter.h"
#include "vigil_vmi.h"

namespace {

using vigilsim::Json;
using Lines = std::vector<std::string>;

/* 0xbad0003, "not found". */
constexpr uint32_t kNotFound = 195887107;

class ApiTest : public SessionTest {
 protected:


   /* Port 0x10 with every kind of snooping; port 0x20 without a filter. */
   void Ports() {
      Do({"load", "portset add vs0", "port add vs0 0x10", "port add vs0 0x20",
          "prop write 0x10 enabled text:true", "discovery 0x10 arp=1 dhcp=1",
          "discovery6 0x10 nd=1 dhcpv6=1"});
   }

   /* Nothing the module does at run time makes a static binding: only a
    * restore brings one in.  So an ARP binding learnt first, the only
    * IPv4 binding and so the head of vmiList, becomes one in place with the
    * counters that go with it; expiry 0 is where the module keeps a static
    * binding, at the head. */
   void MakeStatic(uint32_t port) {
      auto *filter = static_cast<VigilFilter *>(sim::PortData(port, VIGIL_FILTER_SLOT));
      ASSERT_NE(filter, nullptr);
      ASSERT_EQ(filter->numVmis, 1u);
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(filter->vmiList.next);
      ASSERT_EQ(vmi->discMethod, VIGIL_DISC_ARP);
      vmi->discMethod = VIGIL_DISC_STATIC;
      vmi->expiryTs = 0;
      filter->numArpVmis--;
      filter->numStaticVmis++;
   }

   /* On port 0x10: static 192.0.2.40, DHCP 192.0.2.60 (ends at 1300),
    * ARP 192.0.2.51 (1600), ND fe80::ff:fe00:10 (1600), DHCPv6
    * 2001:db8::50 (8200); all of the VM 02:00:00:00:00:10 on VLAN 0. */
   void FiveBindings() {
      Ports();
      Do({"tx 0x10 arp:spa=192.0.2.40,tpa=192.0.2.40"});
      MakeStatic(0x10);
      Do({"tx 0x10 dhcp:type=request,xid=0x1060",
          "rx 0x10 dhcp:type=ack,xid=0x1060,yiaddr=192.0.2.60,lease=300",
          "tx 0x10 arp:spa=192.0.2.51,tpa=192.0.2.51", "tx 0x10 ns:",
          "tx 0x10 dhcpv6:type=solicit,xid=0x1001,opt=14=",
          "rx 0x10 dhcpv6:type=reply,xid=0x1001,opt=14=", "messages"});
   }
};

const char *const kStatic =
   R"j({"vlanId":0,"mac":"02:00:00:00:00:10","isIpv4":1,"ip":"192.0.2.40","bound":1,"discMethod":4})j";
const char *const kDhcp =
   R"j({"vlanId":0,"mac":"02:00:00:00:00:10","isIpv4":1,"ip":"192.0.2.60","bound":1,"discMethod":1})j";
const char *const kArp =
   R"j({"vlanId":0,"mac":"02:00:00:00:00:10","isIpv4":1,"ip":"192.0.2.51","bound":0,"discMethod":2})j";
const char *const kNd =
   R"j({"vlanId":0,"mac":"02:00:00:00:00:10","isIpv4":0,"ip":"fe80::ff:fe00:10","bound":0,"discMethod":8})j";
const char *const kDhcpV6 =
   R"j({"vlanId":0,"mac":"02:00:00:00:00:10","isIpv4":0,"ip":"2001:db8::50","bound":0,"discMethod":16})j";

std::string Entries(uint32_t status, uint32_t count, const Lines &records) {
   std::string list;
   for (const std::string &r : records) list += (list.empty() ? "" : ",") + r;
   return R"j({"cmd":"api","ok":true,"portID":16,"status":)j" + std::to_string(status) +
          R"j(,"count":)j" + std::to_string(count) + R"j(,"entries":[)j" + list + "]}";
}

TEST_F(ApiTest, NumEntriesCountsTheBindingsOfEachClass) {
   FiveBindings();
   EXPECT_EQ(RunAll({"api numEntries 0x10 0", "api numEntries 0x10 1", "api numEntries 0x10 2",
                     "api numEntries 0x10 3"}),
             Lines({R"j({"cmd":"api","ok":true,"portID":16,"status":0,"count":3})j",
                    R"j({"cmd":"api","ok":true,"portID":16,"status":0,"count":2})j",
                    R"j({"cmd":"api","ok":true,"portID":16,"status":0,"count":5})j",
                    R"j({"cmd":"api","ok":true,"portID":16,"status":0,"count":0})j"}));
}

TEST_F(ApiTest, NumEntriesOfAPortWithoutBindingsIsZero) {
   Ports();
   EXPECT_EQ(Run("api numEntries 0x10 2"),
             R"j({"cmd":"api","ok":true,"portID":16,"status":0,"count":0})j");
}

/* IPv4 first, each family in the order of its expiry (the static binding,
 * which never ends, at the head); bound is 1 for DHCP and static bindings
 * only. */
TEST_F(ApiTest, EntriesOfAllClassesListIpv4FirstSoonestExpiryFirst) {
   FiveBindings();
   EXPECT_EQ(Run("api entries 0x10 2 8"), Entries(0, 5, {kStatic, kDhcp, kArp, kNd, kDhcpV6}));
}

TEST_F(ApiTest, EntriesOfAClassHoldOnlyItsMethods) {
   FiveBindings();
   EXPECT_EQ(RunAll({"api entries 0x10 0 8", "api entries 0x10 1 8", "api entries 0x10 3 8"}),
             Lines({Entries(0, 3, {kStatic, kDhcp, kDhcpV6}), Entries(0, 2, {kArp, kNd}),
                    Entries(0, 0, {})}));
}

TEST_F(ApiTest, EntriesWithCapacityZeroHoldNothing) {
   FiveBindings();
   EXPECT_EQ(RunAll({"api entries 0x10 2 0", "api entries 0x10 1 0"}),
             Lines({Entries(0, 0, {}), Entries(0, 0, {})}));
}

TEST_F(ApiTest, EntriesWithCapacityOneHoldTheFirstRecord) {
   FiveBindings();
   EXPECT_EQ(RunAll({"api entries 0x10 2 1", "api entries 0x10 1 1"}),
             Lines({Entries(0, 1, {kStatic}), Entries(0, 1, {kArp})}));
}

/* The count is what the module wrote: no more than the capacity. */
TEST_F(ApiTest, EntriesWithACapacityBelowTheCountStopAtTheCapacity) {
   FiveBindings();
   EXPECT_EQ(RunAll({"api entries 0x10 2 3", "api entries 0x10 2 4", "api entries 0x10 0 2"}),
             Lines({Entries(0, 3, {kStatic, kDhcp, kArp}),
                    Entries(0, 4, {kStatic, kDhcp, kArp, kNd}),
                    Entries(0, 2, {kStatic, kDhcp})}));
}

TEST_F(ApiTest, EntriesWithACapacityAboveTheCountShowOnlyTheCount) {
   FiveBindings();
   EXPECT_EQ(RunAll({"api entries 0x10 2 5", "api entries 0x10 2 1000"}),
             Lines({Entries(0, 5, {kStatic, kDhcp, kArp, kNd, kDhcpV6}),
                    Entries(0, 5, {kStatic, kDhcp, kArp, kNd, kDhcpV6})}));
}

/* With delOnExpiry off an ARP binding outlives its end on the expired
 * list: counted, and listed behind the running IPv4 bindings. */
TEST_F(ApiTest, EntriesListExpiredArpBindingsBehindTheRunningOnes) {
   Ports();
   Do({"module set delOnExpiry=0", "tx 0x10 arp:spa=192.0.2.51,tpa=192.0.2.51", "advance 601",
       "tx 0x10 dhcp:type=request,xid=0x1060",
       "rx 0x10 dhcp:type=ack,xid=0x1060,yiaddr=192.0.2.60,lease=300"});
   EXPECT_EQ(RunAll({"api numEntries 0x10 1", "api entries 0x10 2 8"}),
             Lines({R"j({"cmd":"api","ok":true,"portID":16,"status":0,"count":1})j",
                    Entries(0, 2, {kDhcp, kArp})}));
}

TEST_F(ApiTest, DelEntriesRemovesTheBindingOfTheAddressAndMac) {
   FiveBindings();
   EXPECT_EQ(RunAll({"api delEntries 0x10 192.0.2.51 02:00:00:00:00:10",
                     "api delEntries 0x10 192.0.2.60 02:00:00:00:00:10", "api entries 0x10 2 8",
                     "messages"}),
             Lines({R"j({"cmd":"api","ok":true,"portID":16,"status":0})j",
                    R"j({"cmd":"api","ok":true,"portID":16,"status":0})j",
                    Entries(0, 3, {kStatic, kNd, kDhcpV6}),
                    R"j({"cmd":"messages","ok":true,"messages":[)j"
                    R"j({"portsetName":"vs0","portID":16,"name":"portdb.entry.removed","op":1,)j"
                    R"j("vlanId":0,"mac":"02:00:00:00:00:10","isIpv4":1,"ip":"192.0.2.51",)j"
                    R"j("bound":0,"gratuitous":0,"discMethod":2,)j"
                    R"j("raw":"706f727464622e656e7472792e72656d6f76656400000000000000000000000028000000000000000100000001000000000002000000001001000000c000023300000000000000000000000000000200"},)j"
                    R"j({"portsetName":"vs0","portID":16,"name":"portdb.entry.removed","op":1,)j"
                    R"j("vlanId":0,"mac":"02:00:00:00:00:10","isIpv4":1,"ip":"192.0.2.60",)j"
                    R"j("bound":1,"gratuitous":0,"discMethod":1,)j"
                    R"j("raw":"706f727464622e656e7472792e72656d6f76656400000000000000000000000028000000000000000100000001000000000002000000001001000000c000023c00000000000000000000000001000100"}]})j"}));
}

/* Another MAC, an address the port doesn't have, a static binding:
 * nothing goes. */
TEST_F(ApiTest, DelEntriesThatFindNothingAnswerNotFound) {
   FiveBindings();
   EXPECT_EQ(RunAll({"api delEntries 0x10 192.0.2.51 02:00:00:00:00:11",
                     "api delEntries 0x10 192.0.2.99 02:00:00:00:00:10",
                     "api delEntries 0x10 192.0.2.40 02:00:00:00:00:10",
                     "api numEntries 0x10 2"}),
             Lines({R"j({"cmd":"api","ok":true,"portID":16,"status":195887107})j",
                    R"j({"cmd":"api","ok":true,"portID":16,"status":195887107})j",
                    R"j({"cmd":"api","ok":true,"portID":16,"status":195887107})j",
                    R"j({"cmd":"api","ok":true,"portID":16,"status":0,"count":5})j"}));
}

/* The VLAN is no key: of the two bindings the one that ends first goes. */
TEST_F(ApiTest, DelEntriesOfAnAddressOnTwoVlansRemovesTheOneNearerItsEnd) {
   Ports();
   Do({"tx 0x10 vlan=5 arp:spa=192.0.2.51,tpa=192.0.2.51", "advance 10",
       "tx 0x10 arp:spa=192.0.2.51,tpa=192.0.2.51", "advance 10",
       "tx 0x10 vlan=7 arp:spa=192.0.2.51,tpa=192.0.2.51"});
   EXPECT_EQ(RunAll({"api delEntries 0x10 192.0.2.51 02:00:00:00:00:10",
                     "api entries 0x10 2 8"}),
             Lines({R"j({"cmd":"api","ok":true,"portID":16,"status":0})j",
                    Entries(0, 2,
                            {R"j({"vlanId":0,"mac":"02:00:00:00:00:10","isIpv4":1,"ip":"192.0.2.51","bound":0,"discMethod":2})j",
                             R"j({"vlanId":7,"mac":"02:00:00:00:00:10","isIpv4":1,"ip":"192.0.2.51","bound":0,"discMethod":2})j"})}));
}

/* A port without a filter, and a port the host doesn't have, are the
 * module's to answer: not found, and the tool's command succeeds. */
TEST_F(ApiTest, CallsOnAPortWithoutAFilterAnswerNotFound) {
   Ports();
   std::string nf = std::to_string(kNotFound);
   EXPECT_EQ(RunAll({"api numEntries 0x20 2", "api entries 0x20 2 4",
                     "api delEntries 0x20 192.0.2.51 02:00:00:00:00:10", "api numEntries 0x99 2",
                     "api entries 0x99 0 0", "api delEntries 0x99 192.0.2.51 02:00:00:00:00:10"}),
             Lines({R"j({"cmd":"api","ok":true,"portID":32,"status":)j" + nf + R"j(,"count":0})j",
                    R"j({"cmd":"api","ok":true,"portID":32,"status":)j" + nf +
                        R"j(,"count":0,"entries":[]})j",
                    R"j({"cmd":"api","ok":true,"portID":32,"status":)j" + nf + "}",
                    R"j({"cmd":"api","ok":true,"portID":153,"status":)j" + nf + R"j(,"count":0})j",
                    R"j({"cmd":"api","ok":true,"portID":153,"status":)j" + nf +
                        R"j(,"count":0,"entries":[]})j",
                    R"j({"cmd":"api","ok":true,"portID":153,"status":)j" + nf + "}"}));
}

TEST_F(ApiTest, BadArgumentsFailTheCommandNamingTheProblem) {
   Ports();
   auto failed = [](const std::string &error) {
      return R"j({"cmd":"api","ok":false,"error":")j" + error + "\"}";
   };
   EXPECT_EQ(RunAll({"api", "api bogus 0x10", "api numEntries 0x10", "api numEntries 0x10 0 1",
                     "api numEntries port 0", "api numEntries 0x10 two",
                     "api numEntries 0x10 0x100000000", "api numEntries 0x10 0 class=1",
                     "api entries 0x10 2", "api entries 0x10 2 many", "api entries 0x10 2 0x100001",
                     "api delEntries 0x10 192.0.2.51", "api delEntries 0x10 192.0.2.256 02:00:00:00:00:10",
                     "api delEntries 0x10 2001:db8::50 02:00:00:00:00:10",
                     "api delEntries 0x10 192.0.2.51 02:00:00:00:10",
                     "api delEntries 0x10 192.0.2.51 02:00:00:00:00:1g"}),
             Lines({failed("usage: api numEntries PORTID CLASS | api entries PORTID CLASS "
                           "CAPACITY | api delEntries PORTID IP MAC"),
                    failed("unknown api call 'bogus' (calls: numEntries, entries, delEntries)"),
                    failed("usage: api numEntries PORTID CLASS"),
                    failed("usage: api numEntries PORTID CLASS"),
                    failed("bad port id 'port': not a number"),
                    failed("bad class 'two': not a number"),
                    failed("bad class '0x100000000': at most 4294967295"),
                    failed("unknown option class= for api numEntries (it takes no options)"),
                    failed("usage: api entries PORTID CLASS CAPACITY"),
                    failed("bad capacity 'many': not a number"),
                    failed("bad capacity '0x100001': at most 1048576"),
                    failed("usage: api delEntries PORTID IP MAC"),
                    failed("bad IP '192.0.2.256': a dotted IPv4 address"),
                    failed("bad IP '2001:db8::50': a dotted IPv4 address"),
                    failed("bad MAC address '02:00:00:00:10': aa:bb:cc:dd:ee:ff"),
                    failed("bad MAC address '02:00:00:00:00:1g': aa:bb:cc:dd:ee:ff")}));
}

TEST_F(ApiTest, CallsWithoutAModuleFail) {
   EXPECT_EQ(RunAll({"api numEntries 0x10 2", "api entries 0x10 2 4",
                     "api delEntries 0x10 192.0.2.51 02:00:00:00:00:10"}),
             Lines(3, R"j({"cmd":"api","ok":false,"error":"no module is loaded"})j"));
}

/* The loader tests' module exports none of the three calls. */
TEST_F(ApiTest, CallsFailNamingTheFunctionTheModuleLacks) {
   Start(FAKE_MODULE);
   Do({"load"});
   const std::string in = " (" FAKE_MODULE ")\"}";
   EXPECT_EQ(RunAll({"api numEntries 0x10 2", "api entries 0x10 2 4",
                     "api delEntries 0x10 192.0.2.51 02:00:00:00:00:10"}),
             Lines({R"j({"cmd":"api","ok":false,"error":"the module has no symbol Vigil_PortDBGetNumEntries)j" + in,
                    R"j({"cmd":"api","ok":false,"error":"the module has no symbol Vigil_PortDBGetEntries)j" + in,
                    R"j({"cmd":"api","ok":false,"error":"the module has no symbol Vigil_PortDBDelEntries)j" + in}));
   Do({"unload"});
}

TEST_F(ApiTest, EntriesAsTextAreATable) {
   FiveBindings();
   EXPECT_EQ(vigilsim::RenderText("api entries 0x10 1 8", Answer("api entries 0x10 1 8")),
             "> api entries 0x10 1 8\n"
             "    status 0x0 (Success), count 2\n"
             "    vlan  mac                ip                bound  method\n"
             "    0     02:00:00:00:00:10  192.0.2.51        0      ARP\n"
             "    0     02:00:00:00:00:10  fe80::ff:fe00:10  0      ND\n");
   EXPECT_EQ(vigilsim::RenderText("api delEntries 0x20 192.0.2.51 02:00:00:00:00:10",
                                  Answer("api delEntries 0x20 192.0.2.51 02:00:00:00:00:10")),
             "> api delEntries 0x20 192.0.2.51 02:00:00:00:00:10\n"
             "    status 0xbad0003 (Not found)\n");
}

} // namespace
