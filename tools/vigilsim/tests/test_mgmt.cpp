/*
 * vigilsim's `mgmt` command against the loaded vigil.so: the nine callbacks
 * of the management interface called by name on a port with DHCP, ARP, ND
 * and DHCPv6 bindings, white lists, an ignore list, a BPDU filter and
 * counters; ports named by fabric names the host doesn't know, a port
 * without a filter, the delete operations, statistics of several ports,
 * the delete-on-expiry switch, the whole record in hex, the text view, and
 * the arguments the tool refuses.  A session runs in this process and each
 * line answers the JSON object vigilsim prints for it.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "session.h"
#include "session_test.h"
#include "text.h"

namespace {

using vigilsim::Json;
using Lines = std::vector<std::string>;

constexpr uint32_t kNotFound = 0xbad0003;
constexpr uint32_t kBadParam = 0xbad0007;
constexpr uint32_t kNotEnabled = 0xbad0030;

/* Sizes of the output records, as the header's static_asserts give them. */
constexpr size_t kListLen = 335924, kConfigLen = 3407, kStatusLen = 4, kStatsLen = 2372,
                 kWhiteListLen = 614412, kIgnoreListLen = 4808, kBpduLen = 965;

class MgmtTest : public SessionTest {
 protected:

   /* A call that must succeed: its record. */
   Json Record(const std::string &line) {
      Json r = Answer(line);
      EXPECT_TRUE(r["ok"].get<bool>()) << line << ": " << r.dump();
      EXPECT_EQ(r["returned"], 0) << line;
      EXPECT_EQ(r["status"], r["record"]["status"]) << line;
      return r["record"];
   }

   /* Port 0x10 ("vs0", "16") with every kind of snooping, 10 s after it
    * learnt a DHCP lease of 192.0.2.60 (300 s, client id 01aabb, server
    * 192.0.2.1), 192.0.2.51 by ARP on VLAN 5, fe80::ff:fe00:10 by ND and
    * 2001:db8::50 by DHCPv6; both wardens with two entries in each white
    * list, the BPDU filter of every address but 01:80:c2:00:00:00, an
    * ignore list of three entries; two spoofed IPv4 frames and a BPDU
    * dropped.  Port 0x20 has no filter; port 0x30 ("dvs-01", "port-c") has
    * a filter without bindings. */
   void Populate() {
      Do({"load", "portset add vs0", "port add vs0 0x10", "port add vs0 0x20",
          "port add vs0 0x30 fabswitch=dvs-01 fabport=port-c",
          "prop write 0x10 enabled text:true", "prop write 0x30 enabled text:true",
          "discovery 0x10 arp=1 dhcp=1", "discovery6 0x10 nd=1 dhcpv6=1",
          "tx 0x10 dhcp:type=request,xid=0x1060,client-id=01aabb",
          "rx 0x10 dhcp:type=ack,xid=0x1060,yiaddr=192.0.2.60,siaddr=192.0.2.1,lease=300",
          "tx 0x10 vlan=5 arp:spa=192.0.2.51,tpa=192.0.2.51", "tx 0x10 ns:",
          "tx 0x10 dhcpv6:type=solicit,xid=0x1001,opt=14=",
          "rx 0x10 dhcpv6:type=reply,xid=0x1001,opt=14=",
          "security 0x10 features=0x45 switch=mac=02:00:00:00:00:10;vlan=5,ip=10.0.0.0/8 "
          "port=mac=02:00:00:00:00:10,ip=192.0.2.0/24;ip=2001:db8::/32 "
          "bpduExclude=01:80:c2:00:00:00",
          "ignorelist 0x10 vlan=7;mac=02:00:00:00:00:99,ip=192.0.2.99;ip=2001:db8::99",
          "tx 0x10 icmp4:sip=198.51.100.7 icmp4:sip=198.51.100.8 bpdu:dst=01:80:c2:00:00:01",
          "advance 10", "messages"});
   }
};

std::vector<uint8_t> FromHex(const std::string &hex) {
   auto digit = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
   std::vector<uint8_t> bytes(hex.size() / 2);
   for (size_t i = 0; i < bytes.size(); i++) {
      bytes[i] = static_cast<uint8_t>(digit(hex[2 * i]) << 4 | digit(hex[2 * i + 1]));
   }
   return bytes;
}

uint32_t U32At(const std::vector<uint8_t> &b, size_t at) {
   uint32_t v;
   std::memcpy(&v, &b[at], 4);
   return v;
}

/* A text column at `at` of `width` bytes: up to its NUL. */
std::string TextAt(const std::vector<uint8_t> &b, size_t at, size_t width) {
   std::string s(reinterpret_cast<const char *>(&b[at]), width);
   return s.substr(0, s.find('\0'));
}

/* Every byte zero but those of [from, to). */
bool ZeroOutside(const std::vector<uint8_t> &b, size_t from, size_t to) {
   for (size_t i = 0; i < b.size(); i++) {
      if ((i < from || i >= to) && b[i] != 0) return false;
   }
   return true;
}

const char *const kDhcpRow =
   R"j({"index":0,"vlanId":0,"mac":"02:00:00:00:00:10","ip":"192.0.2.60","method":"DHCP Snooping",)j"
   R"j("remaining":"290","clientMac":"02:00:00:00:00:10","clientIdLen":"3","server":"192.0.2.1",)j"
   R"j("lease":"300"})j";
const char *const kArpRow =
   R"j({"index":1,"vlanId":5,"mac":"02:00:00:00:00:10","ip":"192.0.2.51","method":"ARP Snooping",)j"
   R"j("remaining":"590","clientMac":"N/A","clientIdLen":"N/A","server":"N/A","lease":"N/A"})j";
const char *const kNdRow =
   R"j({"index":0,"vlanId":0,"mac":"02:00:00:00:00:10","ip":"fe80:0:0:0:0:ff:fe00:10",)j"
   R"j("method":"ND Snooping","remaining":"590","iaId":"N/A","server":"N/A","validLifetime":"N/A",)j"
   R"j("preferredLifetime":"N/A","clientIdLen":0,"clientId":"N/A"})j";
const char *const kDhcpV6Row =
   R"j({"index":1,"vlanId":0,"mac":"02:00:00:00:00:10","ip":"2001:db8:0:0:0:0:0:50",)j"
   R"j("method":"DHCPv6 Snooping","remaining":"7190","iaId":"1","server":"fe80:0:0:0:0:ff:fe00:1",)j"
   R"j("validLifetime":"7200","preferredLifetime":"3600","clientIdLen":10,)j"
   R"j("clientId":"00030001020000000010"})j";

std::string List(const std::string &v4, const std::string &v6, uint32_t count,
                 uint32_t status = 0) {
   return R"j({"vmis":[)j" + v4 + R"j(],"v6Vmis":[)j" + v6 + R"j(],"numEntries":)j" +
          std::to_string(count) + R"j(,"status":)j" + std::to_string(status) + "}";
}

/* ------------------------------------------------- the nine, populated */

TEST_F(MgmtTest, ListVmiShowsTheIpv4BindingsSoonestEndFirst) {
   Populate();
   Json r = Answer("mgmt listVmi switch=vs0 port=16 raw=0");
   EXPECT_EQ(r.dump(),
             R"j({"cmd":"mgmt","ok":true,"callback":"listVmi","interface":"PortVigil.7000",)j"
             R"j("callbackId":16,"returned":0,"status":0,"record":)j" +
                 List(std::string(kDhcpRow) + "," + kArpRow, "", 2) +
                 R"j(,"recordLen":335924})j");
}

TEST_F(MgmtTest, ListV6VmiShowsTheNdAndDhcpV6Bindings) {
   Populate();
   EXPECT_EQ(Record("mgmt listV6Vmi switch=vs0 port=16 raw=0").dump(),
             List("", std::string(kNdRow) + "," + kDhcpV6Row, 2));
}

TEST_F(MgmtTest, GetConfigShowsTheFeaturesLimitsAndCountsAsTexts) {
   Populate();
   EXPECT_EQ(Record("mgmt getConfig switch=vs0 port=16").dump(),
             R"j({"unused":"000000","features":"DHCP snooping,ARP snooping,ND snooping,)j"
             R"j(DHCPv6 snooping,Switch Warden,Port Warden,BPDU Filter (Bitmap=0x7ffffffe),",)j"
             R"j("rateLimits":"None","delOnExpiry":"1","v4Capacity":"384","numVmis":"2",)j"
             R"j("arpLimit":"256","numArpVmis":"1","numExpiredVmis":"0","dhcpLimit":"128",)j"
             R"j("numDhcpVmis":"1","dhcpReqLimit":"128","numDhcpReqs":"0","numStaticVmis":"0",)j"
             R"j("totalClientIdLen":"3","arpExpiry":"600","v6Capacity":"30","ndLimit":"15",)j"
             R"j("numNdEntries":"1","numExpiredNdEntries":"0","dhcpV6Limit":"15",)j"
             R"j("numDhcpV6Entries":"1","dhcpV6ReqLimit":"15","numDhcpV6Reqs":"0",)j"
             R"j("dhcpV6ReqBytes":"0","dhcpV6ClientIdBytes":"10","ndExpiry":"600","status":0})j");
}

TEST_F(MgmtTest, GetConfigShowsTheRateLimitsThatAreOn) {
   Populate();
   Do({"security 0x10 features=0x318 rxBcast=10 txBcast=20 rxMcast=30 txMcast=40"});
   Json rec = Record("mgmt getConfig switch=vs0 port=16");
   EXPECT_EQ(rec["features"], "DHCP snooping,ARP snooping,ND snooping,DHCPv6 snooping,");
   EXPECT_EQ(rec["rateLimits"], "RX Bcast rate limit = 10,RX Mcast rate limit = 30,"
                                "TX Bcast rate limit = 20,TX Mcast rate limit = 40");
}

TEST_F(MgmtTest, GetWhiteListShowsBothListsRowByRow) {
   Populate();
   EXPECT_EQ(Record("mgmt getWhiteList switch=vs0 port=16 raw=0").dump(),
             R"j({"switchEntries":[{"vlan":"0","mac":"02:00:00:00:00:10","ip":"Any"},)j"
             R"j({"vlan":"5","mac":"Any","ip":"10.0.0.0/8"}],"numSwitchEntries":2,)j"
             R"j("portEntries":[{"vlan":"0","mac":"02:00:00:00:00:10","ip":"192.0.2.0/24"},)j"
             R"j({"vlan":"0","mac":"Any","ip":"2001:db8:0:0:0:0:0:0/32"}],"numPortEntries":2,)j"
             R"j("status":0})j");
}

TEST_F(MgmtTest, GetIgnoreListShowsEachAddressWithAHostPrefix) {
   Populate();
   EXPECT_EQ(Record("mgmt getIgnoreList switch=vs0 port=16").dump(),
             R"j({"entries":[{"vlan":"7","mac":"Any","ip":"Any"},)j"
             R"j({"vlan":"0","mac":"02:00:00:00:00:99","ip":"192.0.2.99/32"},)j"
             R"j({"vlan":"0","mac":"Any","ip":"2001:db8:0:0:0:0:0:99/128"}],"numEntries":3,)j"
             R"j("status":0})j");
}

TEST_F(MgmtTest, GetFilteredBpduMacsShowsTheAddressOfEveryBitOfTheBitmap) {
   Populate();
   Json rec = Record("mgmt getFilteredBpduMacs switch=vs0 port=16");
   EXPECT_EQ(rec["numEntries"], 30);
   ASSERT_EQ(rec["macs"].size(), 30u);
   EXPECT_EQ(rec["macs"][0], "01:80:c2:00:00:01");
   EXPECT_EQ(rec["macs"][14], "01:80:c2:00:00:0f");
   EXPECT_EQ(rec["macs"][15], "00:e0:2b:00:00:00");
   EXPECT_EQ(rec["macs"][29], "01:00:0c:cc:cc:c7");
   /* The filter off: the module says so, and lists nothing. */
   Do({"security 0x10 features=0x41 switch=mac=02:00:00:00:00:10 port=mac=02:00:00:00:00:10"});
   EXPECT_EQ(Record("mgmt getFilteredBpduMacs switch=vs0 port=16").dump(),
             R"j({"macs":[],"numEntries":0,"status":)j" + std::to_string(kNotEnabled) + "}");
}

/* Each port's block word for word (two words a counter, low word first),
 * as `state` reads the counters; an unknown port and a port without a
 * filter have their own status and keep the tool's zeros. */
TEST_F(MgmtTest, GetStatsBatchOfTwoPortsAndAnUnknownOne) {
   Populate();
   Json r = Answer("mgmt getStatsBatch ports=vs0/16,vs0/32,vs0/99");
   ASSERT_TRUE(r["ok"].get<bool>()) << r.dump();
   EXPECT_EQ(r["ports"].dump(), R"j(["vs0/16","vs0/32","vs0/99"])j");
   EXPECT_EQ(r["status"], 0);
   const Json &ports = r["record"]["ports"];
   ASSERT_EQ(ports.size(), 3u);
   Json stats = Answer("state 0x10 stats")["filter"]["stats"];
   EXPECT_EQ(stats["statWardenV4Drops"], 2);
   EXPECT_EQ(stats["statBpduDrops"], 1);
   size_t word = 0;
   for (const auto &[name, value] : stats.items()) {
      if (name == "statStatusSlot") continue;
      uint64_t v = value.get<uint64_t>();
      EXPECT_EQ(ports[0]["counters"][word], v & 0xffffffffu) << name;
      EXPECT_EQ(ports[0]["counters"][word + 1], v >> 32) << name;
      word += 2;
   }
   EXPECT_EQ(word, 36u);
   EXPECT_EQ(ports[0]["status"], 0);
   const std::string zeros = Json(std::vector<int>(36, 0)).dump();
   for (size_t i : {1u, 2u}) {
      EXPECT_EQ(ports[i]["counters"].dump(), zeros) << i;
      EXPECT_EQ(ports[i]["status"], kNotFound) << i;
   }
   /* Only the rows asked for. */
   std::vector<uint8_t> raw = FromHex(r["raw"].get<std::string>());
   ASSERT_EQ(raw.size(), kStatsLen);
   EXPECT_EQ(U32At(raw, 0), 2u);
   EXPECT_EQ(U32At(raw, 16 * 8), 1u);
   EXPECT_EQ(U32At(raw, 148 + 144), kNotFound);
   EXPECT_EQ(U32At(raw, 296 + 144), kNotFound);
   EXPECT_TRUE(ZeroOutside(raw, 0, 444));
}

TEST_F(MgmtTest, GetStatsBatchOfSixteenPortsAndOfACountTheModuleRefuses) {
   Populate();
   std::string ports;
   for (int i = 0; i < 16; i++) ports += std::string(ports.empty() ? "" : ",") + "vs0/16";
   Json rec = Record("mgmt getStatsBatch raw=0 ports=" + ports);
   ASSERT_EQ(rec["ports"].size(), 16u);
   EXPECT_EQ(rec["ports"][15]["counters"][0], 2);
   /* 17 ports by count: the module refuses the whole request and writes no
    * row. */
   Json r = Answer("mgmt getStatsBatch ports=vs0/16 numPorts=17");
   EXPECT_EQ(r["status"], kBadParam);
   ASSERT_EQ(r["record"]["ports"].size(), 16u);
   EXPECT_EQ(r["record"]["ports"][0]["counters"][0], 0);
   EXPECT_TRUE(ZeroOutside(FromHex(r["raw"].get<std::string>()), 2368, 2372));
   /* No port at all: only the status. */
   EXPECT_EQ(Record("mgmt getStatsBatch ports=").dump(), R"j({"ports":[],"status":0})j");
   EXPECT_EQ(Record("mgmt getStatsBatch ports=vs0/16 numPorts=0").dump(),
             R"j({"ports":[],"status":0})j");
}

TEST_F(MgmtTest, DelExpiryZeroKeepsExpiredBindingsAndGetConfigShowsIt) {
   Populate();
   Json r = Answer("mgmt delExpiry value=0");
   EXPECT_EQ(r.dump(),
             R"j({"cmd":"mgmt","ok":true,"callback":"delExpiry","interface":"PortVigil.7000",)j"
             R"j("callbackId":24,"returned":0,"status":0,"record":{"status":0},"recordLen":4,)j"
             R"j("raw":"00000000"})j");
   EXPECT_EQ(Record("mgmt getConfig switch=vs0 port=16")["delOnExpiry"], "0");
   EXPECT_EQ(Record("mgmt getConfig switch=dvs-01 port=port-c")["delOnExpiry"], "0");
   EXPECT_EQ(Answer("module delOnExpiry")["delOnExpiry"], 0);
   /* The ARP binding outlives its end, listed last with nothing left. */
   Do({"advance 600"});
   Json rec = Record("mgmt listVmi switch=vs0 port=16 raw=0");
   ASSERT_EQ(rec["numEntries"], 1);
   EXPECT_EQ(rec["vmis"][0]["ip"], "192.0.2.51");
   EXPECT_EQ(rec["vmis"][0]["remaining"], "0");
   EXPECT_EQ(Record("mgmt getConfig switch=vs0 port=16")["numExpiredVmis"], "1");
   /* Any value but 0 switches it on. */
   EXPECT_EQ(Answer("mgmt delExpiry value=0xff")["status"], 0);
   EXPECT_EQ(Record("mgmt getConfig switch=vs0 port=16")["delOnExpiry"], "1");
   EXPECT_EQ(Answer("module delOnExpiry")["delOnExpiry"], -1);
   Do({"mgmt delExpiry value=1"});
}

/* ------------------------------------------------------------- deletes */

TEST_F(MgmtTest, DelVmiOfOneBindingOfEachFamily) {
   Populate();
   Json r = Answer("mgmt delVmi switch=vs0 port=16 op=2 vlan=5 mac=02:00:00:00:00:10 "
                   "ip=192.0.2.51");
   EXPECT_EQ(r.dump(),
             R"j({"cmd":"mgmt","ok":true,"callback":"delVmi","interface":"PortVigil.7000",)j"
             R"j("callbackId":18,"returned":0,"status":0,"record":{"status":0},"recordLen":4,)j"
             R"j("raw":"00000000"})j");
   EXPECT_EQ(Answer("mgmt delVmi switch=vs0 port=16 op=2 mac=02:00:00:00:00:10 "
                    "ip=2001:db8::50")["status"],
             0);
   EXPECT_EQ(Record("mgmt listVmi switch=vs0 port=16 raw=0").dump(), List(kDhcpRow, "", 1));
   EXPECT_EQ(Record("mgmt listV6Vmi switch=vs0 port=16 raw=0").dump(), List("", kNdRow, 1));
   Json messages = Answer("messages")["messages"];
   ASSERT_EQ(messages.size(), 2u);
   EXPECT_EQ(messages[0]["name"], "portdb.entry.removed");
   EXPECT_EQ(messages[0]["ip"], "192.0.2.51");
   EXPECT_EQ(messages[1]["ip"], "2001:db8::50");
   /* A key that names no binding (the VLAN is part of it) deletes nothing
    * and is no failure. */
   EXPECT_EQ(Answer("mgmt delVmi switch=vs0 port=16 op=2 vlan=5 mac=02:00:00:00:00:10 "
                    "ip=192.0.2.60")["status"],
             0);
   EXPECT_EQ(Record("mgmt listVmi switch=vs0 port=16 raw=0")["numEntries"], 1);
}

/* The request's own bits: 1 DHCP, 2 ARP, 4 ND, 8 DHCPv6. */
TEST_F(MgmtTest, DelVmiByMethodFollowsTheRequestsBits) {
   Populate();
   EXPECT_EQ(Answer("mgmt delVmi switch=vs0 port=16 op=3 methods=6")["status"], 0);
   EXPECT_EQ(Record("mgmt listVmi switch=vs0 port=16 raw=0").dump(), List(kDhcpRow, "", 1));
   std::string dhcpV6 = kDhcpV6Row;
   dhcpV6.replace(dhcpV6.find("\"index\":1"), 9, "\"index\":0");
   EXPECT_EQ(Record("mgmt listV6Vmi switch=vs0 port=16 raw=0").dump(), List("", dhcpV6, 1));
   EXPECT_EQ(Answer("mgmt delVmi switch=vs0 port=16 op=3 methods=9")["status"], 0);
   EXPECT_EQ(Record("mgmt listVmi switch=vs0 port=16 raw=0").dump(), List("", "", 0));
   EXPECT_EQ(Record("mgmt listV6Vmi switch=vs0 port=16 raw=0").dump(), List("", "", 0));
}

TEST_F(MgmtTest, DelVmiOfAllAndOfAnOperationTheModuleDoesNotKnow) {
   Populate();
   /* Op 9 deletes nothing, whatever its arguments. */
   EXPECT_EQ(Answer("mgmt delVmi switch=vs0 port=16 op=9 methods=15")["status"], 0);
   EXPECT_EQ(Answer("mgmt delVmi switch=vs0 port=16 op=0")["status"], 0);
   EXPECT_EQ(Record("mgmt listVmi switch=vs0 port=16 raw=0")["numEntries"], 2);
   EXPECT_EQ(Record("mgmt listV6Vmi switch=vs0 port=16 raw=0")["numEntries"], 2);
   EXPECT_EQ(Answer("mgmt delVmi switch=vs0 port=16 op=1")["status"], 0);
   EXPECT_EQ(Record("mgmt listVmi switch=vs0 port=16 raw=0").dump(), List("", "", 0));
   EXPECT_EQ(Record("mgmt listV6Vmi switch=vs0 port=16 raw=0").dump(), List("", "", 0));
   Json config = Record("mgmt getConfig switch=vs0 port=16");
   EXPECT_EQ(config["numVmis"], "0");
   EXPECT_EQ(config["numNdEntries"], "0");
   EXPECT_EQ(config["numDhcpV6Entries"], "0");
   EXPECT_EQ(Answer("messages")["messages"].size(), 4u);
}

/* --------------------------------------------------- ports and names */

/* The module looks the names up and answers not found; the call succeeds,
 * and the record holds the tool's zeros but for the status. */
TEST_F(MgmtTest, UnknownSwitchOrPortNamesAreTheModulesAnswer) {
   Populate();
   for (const std::string key : {"switch=vs1 port=16", "switch=vs0 port=99",
                                 "switch=vs0 port=0x10", "switch= port=",
                                 "switch=dvs-01 port=16", "switch=\"vs0 \" port=16"}) {
      SCOPED_TRACE(key);
      struct {
         const char *name;
         size_t len, statusAt;
      } calls[] = {{"listVmi", kListLen, 335920},    {"listV6Vmi", kListLen, 335920},
                   {"getConfig", kConfigLen, 3403},  {"getWhiteList", kWhiteListLen, 614408},
                   {"getIgnoreList", kIgnoreListLen, 4804}, {"getFilteredBpduMacs", kBpduLen, 961},
                   {"delVmi", kStatusLen, 0}};
      for (const auto &call : calls) {
         std::string line = std::string("mgmt ") + call.name + " " + key;
         if (std::string(call.name) == "delVmi") line += " op=1";
         Json r = Answer(line);
         ASSERT_TRUE(r["ok"].get<bool>()) << line << ": " << r.dump();
         EXPECT_EQ(r["status"], kNotFound) << line;
         EXPECT_EQ(r["record"]["status"], kNotFound) << line;
         std::vector<uint8_t> raw = FromHex(r["raw"].get<std::string>());
         ASSERT_EQ(raw.size(), call.len) << line;
         EXPECT_EQ(U32At(raw, call.statusAt), kNotFound) << line;
         EXPECT_TRUE(ZeroOutside(raw, call.statusAt, call.statusAt + 4)) << line;
      }
   }
   EXPECT_EQ(Record("mgmt listVmi switch=vs0 port=99 raw=0").dump(),
             List("", "", 0, kNotFound));
   /* Nothing was deleted. */
   EXPECT_EQ(Record("mgmt listVmi switch=vs0 port=16 raw=0")["numEntries"], 2);
}

TEST_F(MgmtTest, PortWithoutAFilterAnswersNotFound) {
   Populate();
   EXPECT_EQ(Record("mgmt listVmi switch=vs0 port=32 raw=0").dump(), List("", "", 0, kNotFound));
   EXPECT_EQ(Record("mgmt listV6Vmi switch=vs0 port=32 raw=0").dump(),
             List("", "", 0, kNotFound));
   EXPECT_EQ(Answer("mgmt getConfig switch=vs0 port=32")["status"], kNotFound);
   EXPECT_EQ(Record("mgmt getWhiteList switch=vs0 port=32 raw=0").dump(),
             R"j({"switchEntries":[],"numSwitchEntries":0,"portEntries":[],"numPortEntries":0,)j"
             R"j("status":195887107})j");
   EXPECT_EQ(Record("mgmt getIgnoreList switch=vs0 port=32").dump(),
             R"j({"entries":[],"numEntries":0,"status":195887107})j");
   EXPECT_EQ(Record("mgmt getFilteredBpduMacs switch=vs0 port=32").dump(),
             R"j({"macs":[],"numEntries":0,"status":195887107})j");
   EXPECT_EQ(Answer("mgmt delVmi switch=vs0 port=32 op=1")["status"], kNotFound);
}

/* Port 0x30 is known by the names given to port add, not by its portset's
 * name and id; it has a filter and nothing in it. */
TEST_F(MgmtTest, FabricNamesOfPortAddNameThePort) {
   Populate();
   EXPECT_EQ(Record("mgmt listVmi switch=dvs-01 port=port-c raw=0").dump(), List("", "", 0));
   EXPECT_EQ(Answer("mgmt listVmi switch=vs0 port=48 raw=0")["status"], kNotFound);
   Json config = Record("mgmt getConfig switch=dvs-01 port=port-c");
   EXPECT_EQ(config["features"], "None");
   EXPECT_EQ(config["rateLimits"], "None");
   EXPECT_EQ(Record("mgmt getWhiteList switch=dvs-01 port=port-c raw=0").dump(),
             R"j({"switchEntries":[],"numSwitchEntries":0,"portEntries":[],"numPortEntries":0,)j"
             R"j("status":0})j");
   EXPECT_EQ(Record("mgmt getFilteredBpduMacs switch=dvs-01 port=port-c")["status"],
             kNotEnabled);
}

/* Names that fill their fields go whole, without a NUL; a name one byte
 * longer can't be passed as given. */
TEST_F(MgmtTest, NamesThatFillTheirFieldsArePassedWhole) {
   const std::string sw(48, 's'), port(64, 'p');
   Do({"load", "portset add vs0",
       "port add vs0 0x40 fabswitch=" + sw + " fabport=" + port,
       "prop write 0x40 enabled text:true"});
   Json r = Answer("mgmt getConfig switch=" + sw + " port=" + port);
   EXPECT_EQ(r["status"], 0) << r.dump();
   EXPECT_EQ(Answer("mgmt getConfig switch=" + sw + " port=" + port.substr(1))["status"],
             kNotFound);
   EXPECT_EQ(Run("mgmt getConfig switch=" + sw + "s port=" + port),
             R"j({"cmd":"mgmt","ok":false,"error":"bad switch=: at most 48 bytes, ')j" + sw +
                 R"j(s' has 49"})j");
   EXPECT_EQ(Run("mgmt getConfig switch=" + sw + " port=" + port + "p"),
             R"j({"cmd":"mgmt","ok":false,"error":"bad port=: at most 64 bytes, ')j" + port +
                 R"j(p' has 65"})j");
}

/* ------------------------------------------------------ the raw record */

TEST_F(MgmtTest, RawIsTheWholeRecordWithEachFieldAtItsOffset) {
   Populate();
   Json r = Answer("mgmt listVmi switch=vs0 port=16");
   EXPECT_EQ(r["recordLen"], kListLen);
   std::vector<uint8_t> raw = FromHex(r["raw"].get<std::string>());
   ASSERT_EQ(raw.size(), kListLen);
   EXPECT_EQ(U32At(raw, 335916), 2u);
   EXPECT_EQ(U32At(raw, 335920), 0u);
   EXPECT_EQ(TextAt(raw, 4, 100), "02:00:00:00:00:10");
   EXPECT_EQ(TextAt(raw, 104, 100), "192.0.2.60");
   EXPECT_EQ(TextAt(raw, 804 + 104, 100), "192.0.2.51");
   EXPECT_EQ(raw[804 + 2], 5); /* the second row's VLAN */
   EXPECT_EQ(raw[804], 1);     /* and its index */
   /* Behind the two rows, nothing but the count (and the status, 0). */
   EXPECT_TRUE(ZeroOutside(std::vector<uint8_t>(raw.begin() + 2 * 804, raw.end()), 335916 - 2 * 804,
                           335920 - 2 * 804));

   Json v6 = Answer("mgmt listV6Vmi switch=vs0 port=16");
   std::vector<uint8_t> raw6 = FromHex(v6["raw"].get<std::string>());
   ASSERT_EQ(raw6.size(), kListLen);
   EXPECT_EQ(TextAt(raw6, 308736 + 906 + 104, 100), "2001:db8:0:0:0:0:0:50");
   EXPECT_EQ(raw6[308736 + 906 + 804], 10); /* clientIdLen */
   EXPECT_EQ(TextAt(raw6, 308736 + 906 + 806, 100), "00030001020000000010");
   EXPECT_TRUE(ZeroOutside(raw6, 308736, 335924));

   Json config = Answer("mgmt getConfig switch=vs0 port=16");
   std::vector<uint8_t> rawc = FromHex(config["raw"].get<std::string>());
   ASSERT_EQ(rawc.size(), kConfigLen);
   EXPECT_EQ(TextAt(rawc, 503, 500), "None");
   EXPECT_EQ(TextAt(rawc, 1203, 100), "2");
   EXPECT_EQ(TextAt(rawc, 3303, 100), "600");

   /* raw=0 leaves the hex out, and nothing else. */
   Json without = Answer("mgmt listVmi switch=vs0 port=16 raw=0");
   EXPECT_FALSE(without.contains("raw"));
   r.erase("raw");
   EXPECT_EQ(without.dump(), r.dump());
}

/* A DHCPv6 client id of more than 50 bytes: its first 50 in hex fill the
 * column, which then has no NUL; the length tells the rest. */
TEST_F(MgmtTest, ClientIdThatFillsItsColumnIsReadWithinIt) {
   Populate();
   std::string duid = "0002";
   for (int i = 0; i < 58; i++) duid += "ab";
   Do({"tx 0x10 dhcpv6:type=solicit,xid=0x1002,iaid=2,opt=14=,client-id=" + duid,
       "rx 0x10 dhcpv6:type=reply,xid=0x1002,iaid=2,addr=2001:db8::51,opt=14=,client-id=" +
           duid});
   Json r = Answer("mgmt listV6Vmi switch=vs0 port=16");
   const Json &rows = r["record"]["v6Vmis"];
   ASSERT_EQ(rows.size(), 3u) << r.dump();
   EXPECT_EQ(rows[2]["ip"], "2001:db8:0:0:0:0:0:51");
   EXPECT_EQ(rows[2]["iaId"], "2");
   EXPECT_EQ(rows[2]["clientIdLen"], 60);
   EXPECT_EQ(rows[2]["clientId"], duid.substr(0, 100));
   std::vector<uint8_t> raw = FromHex(r["raw"].get<std::string>());
   EXPECT_NE(raw[308736 + 2 * 906 + 806 + 99], 0);
}

/* -------------------------------------------------------- the text view */

TEST_F(MgmtTest, TextViewShowsEachRecordReadably) {
   Populate();
   auto text = [&](const std::string &line) { return vigilsim::RenderText(line, Answer(line)); };
   EXPECT_EQ(text("mgmt listVmi switch=vs0 port=16"),
             "> mgmt listVmi switch=vs0 port=16\n"
             "    listVmi of PortVigil.7000: status 0x0 (Success), 335924-byte record\n"
             "    index  vlan  mac                ip          method         remaining  "
             "clientMac          clientIdLen  server     lease\n"
             "    0      0     02:00:00:00:00:10  192.0.2.60  DHCP Snooping  290        "
             "02:00:00:00:00:10  3            192.0.2.1  300\n"
             "    1      5     02:00:00:00:00:10  192.0.2.51  ARP Snooping   590        "
             "N/A                N/A          N/A        N/A\n");
   EXPECT_EQ(text("mgmt listV6Vmi switch=vs0 port=16"),
             "> mgmt listV6Vmi switch=vs0 port=16\n"
             "    listV6Vmi of PortVigil.7000: status 0x0 (Success), 335924-byte record\n"
             "    index  vlan  mac                ip                       method           "
             "remaining  iaId  server                  valid  preferred  clientIdLen  "
             "clientId\n"
             "    0      0     02:00:00:00:00:10  fe80:0:0:0:0:ff:fe00:10  ND Snooping      "
             "590        N/A   N/A                     N/A    N/A        0            N/A\n"
             "    1      0     02:00:00:00:00:10  2001:db8:0:0:0:0:0:50    DHCPv6 Snooping  "
             "7190       1     fe80:0:0:0:0:ff:fe00:1  7200   3600       10           "
             "00030001020000000010\n");
   EXPECT_EQ(text("mgmt getIgnoreList switch=vs0 port=16"),
             "> mgmt getIgnoreList switch=vs0 port=16\n"
             "    getIgnoreList of PortVigil.7000: status 0x0 (Success), 4808-byte record\n"
             "    ignore list:\n"
             "    vlan  mac                ip\n"
             "    7     Any                Any\n"
             "    0     02:00:00:00:00:99  192.0.2.99/32\n"
             "    0     Any                2001:db8:0:0:0:0:0:99/128\n");
   EXPECT_EQ(text("mgmt getWhiteList switch=dvs-01 port=port-c"),
             "> mgmt getWhiteList switch=dvs-01 port=port-c\n"
             "    getWhiteList of PortVigil.7000: status 0x0 (Success), 614412-byte record\n"
             "    switch white list: none\n"
             "    port white list: none\n");
   EXPECT_EQ(text("mgmt delVmi switch=vs0 port=99 op=1"),
             "> mgmt delVmi switch=vs0 port=99 op=1\n"
             "    delVmi of PortVigil.7000: status 0xbad0003 (Not found), 4-byte record\n");
   std::string stats = text("mgmt getStatsBatch ports=vs0/16,vs0/32");
   EXPECT_EQ(stats.substr(0, stats.find("statWardenV6Drops")),
             "> mgmt getStatsBatch ports=vs0/16,vs0/32\n"
             "    getStatsBatch of PortVigil.7000: status 0x0 (Success), 2372-byte record\n"
             "    counter                     vs0/16         vs0/32\n"
             "    status                      0x0 (Success)  0xbad0003 (Not found)\n"
             "    statWardenV4Drops           2              0\n"
             "    ");
   EXPECT_NE(stats.find("    statBpduDrops               1              0\n"), std::string::npos)
       << stats;
   std::string config = text("mgmt getConfig switch=vs0 port=16");
   EXPECT_NE(config.find("    rateLimits           None\n"), std::string::npos) << config;
   EXPECT_EQ(config.find("unused"), std::string::npos) << config;
   std::string bpdu = text("mgmt getFilteredBpduMacs switch=vs0 port=16");
   EXPECT_NE(bpdu.find("    filtered BPDU addresses: 01:80:c2:00:00:01, 01:80:c2:00:00:02, "),
             std::string::npos)
       << bpdu;
}

/* ----------------------------------------------------------- refusals */

TEST_F(MgmtTest, BadArgumentsFailTheCommandNamingTheProblem) {
   Populate();
   auto failed = [](const std::string &error) {
      return R"j({"cmd":"mgmt","ok":false,"error":")j" + error + "\"}";
   };
   const std::string names = "listVmi, listV6Vmi, getConfig, delVmi, getStatsBatch, "
                             "getWhiteList, getIgnoreList, getFilteredBpduMacs, delExpiry";
   const std::vector<std::pair<std::string, std::string>> cases = {
      {"mgmt", "usage: mgmt NAME [switch=TEXT] [port=TEXT] [fields...] (NAME: " + names + ")"},
      {"mgmt \"listVmi\" switch=vs0 port=16",
       "usage: mgmt NAME [switch=TEXT] [port=TEXT] [fields...] (NAME: " + names + ")"},
      {"mgmt listvmi switch=vs0 port=16",
       "unknown management callback 'listvmi' (callbacks: " + names + ")"},
      {"mgmt listVmi", "listVmi names a port: usage: mgmt listVmi switch=TEXT port=TEXT [raw=0|1]"},
      {"mgmt getConfig switch=vs0",
       "getConfig names a port: usage: mgmt getConfig switch=TEXT port=TEXT [raw=0|1]"},
      {"mgmt getIgnoreList port=16",
       "getIgnoreList names a port: usage: mgmt getIgnoreList switch=TEXT port=TEXT [raw=0|1]"},
      {"mgmt listVmi switch=vs0 port=16 0x10",
       "usage: mgmt listVmi switch=TEXT port=TEXT [raw=0|1]"},
      {"mgmt listVmi switch=vs0 port=16 op=1",
       "unknown option op= for mgmt listVmi (known: port=, raw=, switch=)"},
      {"mgmt listVmi switch=vs0 port=16 raw=2", "bad raw= '2': 0 or 1"},
      {"mgmt listVmi switch=vs0 switch=vs1 port=16", "option switch= given twice"},
      {"mgmt delVmi switch=vs0 port=16",
       "delVmi needs op=: usage: mgmt delVmi switch=TEXT port=TEXT op=N [methods=N | vlan=N "
       "mac=MAC ip=ADDR] [raw=0|1]"},
      {"mgmt delVmi op=1",
       "delVmi names a port: usage: mgmt delVmi switch=TEXT port=TEXT op=N [methods=N | "
       "vlan=N mac=MAC ip=ADDR] [raw=0|1]"},
      {"mgmt delVmi switch=vs0 port=16 op=one", "bad op= 'one': not a number"},
      {"mgmt delVmi switch=vs0 port=16 op=0x100000000", "bad op= '0x100000000': at most 4294967295"},
      {"mgmt delVmi switch=vs0 port=16 op=2 mac=02:00:00:00:00:10",
       "delVmi op=2 names a binding: mac= and ip= (vlan= defaults to 0)"},
      {"mgmt delVmi switch=vs0 port=16 op=2 ip=192.0.2.51",
       "delVmi op=2 names a binding: mac= and ip= (vlan= defaults to 0)"},
      {"mgmt delVmi switch=vs0 port=16 op=3",
       "delVmi op=3 needs methods= (1 DHCP, 2 ARP, 4 ND, 8 DHCPv6)"},
      {"mgmt delVmi switch=vs0 port=16 op=3 methods=2 vlan=5",
       "methods= and vlan=, mac=, ip= share the request's bytes: give one or the other"},
      {"mgmt delVmi switch=vs0 port=16 op=2 vlan=65536 mac=02:00:00:00:00:10 ip=192.0.2.51",
       "bad vlan= '65536': at most 65535"},
      {"mgmt delVmi switch=vs0 port=16 op=2 mac=02:00:00:00:10 ip=192.0.2.51",
       "bad MAC address '02:00:00:00:10': aa:bb:cc:dd:ee:ff"},
      {"mgmt delVmi switch=vs0 port=16 op=2 mac=02:00:00:00:00:10 ip=192.0.2.256",
       "bad ip= '192.0.2.256': an IPv4 or IPv6 address"},
      {"mgmt delVmi switch=vs0 port=16 op=3 methods=-1", "bad methods= '-1': not a number"},
      {"mgmt getStatsBatch", "getStatsBatch needs ports=: usage: mgmt getStatsBatch "
                             "ports=SWITCH/PORT,... [numPorts=N] [raw=0|1]"},
      {"mgmt getStatsBatch ports=vs0/16 switch=vs0",
       "unknown option switch= for mgmt getStatsBatch (known: numPorts=, ports=, raw=)"},
      {"mgmt getStatsBatch ports=vs0/16,vs0", "bad ports= entry 'vs0': SWITCH/PORT"},
      {"mgmt getStatsBatch ports=vs0/16,", "bad ports= entry '': SWITCH/PORT"},
      {"mgmt getStatsBatch ports=vs0/1,vs0/2,vs0/3,vs0/4,vs0/5,vs0/6,vs0/7,vs0/8,vs0/9,vs0/10,"
       "vs0/11,vs0/12,vs0/13,vs0/14,vs0/15,vs0/16,vs0/17",
       "bad ports=: at most 16 ports (numPorts=N writes a larger count)"},
      {"mgmt getStatsBatch ports=vs0/16 numPorts=256", "bad numPorts= '256': at most 255"},
      {"mgmt getStatsBatch ports=vs0/" + std::string(65, 'p'),
       "bad ports= port=: at most 64 bytes, '" + std::string(65, 'p') + "' has 65"},
      {"mgmt delExpiry", "delExpiry needs value=: usage: mgmt delExpiry value=N [raw=0|1]"},
      {"mgmt delExpiry value=256", "bad value= '256': at most 255"},
      {"mgmt delExpiry value=0 switch=vs0",
       "unknown option switch= for mgmt delExpiry (known: raw=, value=)"},
   };
   for (const auto &[line, error] : cases) EXPECT_EQ(Run(line), failed(error)) << line;
   /* None of them reached the module. */
   EXPECT_EQ(Record("mgmt listVmi switch=vs0 port=16 raw=0")["numEntries"], 2);
   EXPECT_EQ(Answer("module delOnExpiry")["delOnExpiry"], 1);
}

TEST_F(MgmtTest, CallsWithoutAModuleFail) {
   EXPECT_EQ(Run("mgmt listVmi switch=vs0 port=16"),
             R"j({"cmd":"mgmt","ok":false,"error":"no module is loaded"})j");
   EXPECT_EQ(Run("mgmt delExpiry value=0"),
             R"j({"cmd":"mgmt","ok":false,"error":"no module is loaded"})j");
}

/* The loader tests' module opens no management interface. */
TEST_F(MgmtTest, AModuleWithoutTheInterfaceIsAToolFailure) {
   Start(FAKE_MODULE);
   Do({"load"});
   EXPECT_EQ(Run("mgmt getConfig switch=vs0 port=16"),
             R"j({"cmd":"mgmt","ok":false,"error":"no management interface named PortVigil.<build> is open"})j");
   Do({"unload"});
}

/* The interface carries the build of the host the module started on. */
TEST_F(MgmtTest, TheInterfaceNameCarriesTheBuild) {
   Do({"host build=7123", "load", "portset add vs0", "port add vs0 0x10",
       "prop write 0x10 enabled text:true"});
   Json r = Answer("mgmt getConfig switch=vs0 port=16 raw=0");
   EXPECT_EQ(r["interface"], "PortVigil.7123");
   EXPECT_EQ(r["status"], 0);
}

/* After a live upgrade the new copy's interface answers, with the bindings
 * it was given. */
TEST_F(MgmtTest, AfterAnUpgradeTheNewCopyAnswers) {
   Populate();
   Do({"upgrade"});
   Json rec = Record("mgmt listVmi switch=vs0 port=16 raw=0");
   EXPECT_EQ(rec["numEntries"], 2);
   EXPECT_EQ(rec["vmis"][0]["ip"], "192.0.2.60");
   EXPECT_EQ(Record("mgmt listV6Vmi switch=vs0 port=16 raw=0")["numEntries"], 2);
}

} // namespace
