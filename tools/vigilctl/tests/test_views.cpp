/*
 * vigilctl's tables from answers recorded from vigild (answers/*.json, made
 * by record-answers.sh), the words its commands parse, and its manual
 * pages.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "help.h"
#include "views.h"

namespace vigilctl {
namespace {

Json Answer(const std::string &name) {
   std::ifstream in(std::string(ANSWERS_DIR) + "/" + name + ".json");
   EXPECT_TRUE(in.good()) << name;
   std::stringstream text;
   text << in.rdbuf();
   return Json::parse(text.str());
}

const char kLabel[] = "port 0x10 (vs0/16)";

TEST(VigilctlTable, ColumnsArePaddedToTheWidestCellWithoutTrailingBlanks) {
   EXPECT_EQ(Table({{"A", "BB", "C"}, {"long", "x", ""}}),
             "A     BB  C\n"
             "long  x\n");
   EXPECT_EQ(Table({{"a", "b"}}, "  "), "  a  b\n");
   EXPECT_EQ(Table({}), "");
}

TEST(VigilctlViews, Ipv4Bindings) {
   EXPECT_EQ(BindingsView(kLabel, Answer("listVmi"), false),
             "port 0x10 (vs0/16): 2 IPv4 bindings\n"
             "#  VLAN  MAC                IP          METHOD         REMAINING (s)  CLIENT MAC"
             "         CLIENT ID LEN  SERVER   LEASE (s)\n"
             "0  0     02:00:00:00:00:10  192.0.2.60  DHCP Snooping  300            "
             "02:00:00:00:00:10  0              0.0.0.0  300\n"
             "1  0     02:00:00:00:00:10  192.0.2.51  ARP Snooping   600            N/A"
             "                N/A            N/A      N/A\n");
}

TEST(VigilctlViews, Ipv6BindingsWithCompressedAddresses) {
   EXPECT_EQ(BindingsView(kLabel, Answer("listV6Vmi"), true),
             "port 0x10 (vs0/16): 1 IPv6 binding\n"
             "#  VLAN  MAC                IP            METHOD           REMAINING (s)  IAID  "
             "SERVER           VALID (s)  PREFERRED (s)  CLIENT ID LEN  CLIENT ID\n"
             "0  0     02:00:00:00:00:10  2001:db8::50  DHCPv6 Snooping  120            10    "
             "fe80::ff:fe00:1  120        120            14             "
             "0001000132960095020000000010\n");
}

TEST(VigilctlViews, NoBindings) {
   EXPECT_EQ(BindingsView("port 0x20 (vs0/32)", Answer("listVmi-empty"), false),
             "port 0x20 (vs0/32): no IPv4 bindings\n");
   /* The IPv4 answer has no IPv6 rows. */
   EXPECT_EQ(BindingsView(kLabel, Answer("listVmi"), true),
             "port 0x10 (vs0/16): no IPv6 bindings\n");
}

TEST(VigilctlViews, ConfigurationOneFeatureALineAndTheDatabases) {
   EXPECT_EQ(ConfigView(kLabel, Answer("getConfig")),
             "port 0x10 (vs0/16): configuration\n"
             "features          DHCP snooping\n"
             "                  ARP snooping\n"
             "                  ND snooping\n"
             "                  DHCPv6 snooping\n"
             "                  Switch Warden\n"
             "                  Port Warden\n"
             "                  BPDU Filter (Bitmap=0x7ffffffe)\n"
             "                  DHCP server block\n"
             "                  DHCPv6 server block\n"
             "                  RA Guard\n"
             "rate limits       RX Mcast rate limit = 50\n"
             "                  TX Bcast rate limit = 100\n"
             "delete on expiry  on\n"
             "ARP expiry        600 s\n"
             "ND expiry         600 s\n"
             "\n"
             "DATABASE                IN USE  LIMIT\n"
             "IPv4 bindings           2       384\n"
             "  DHCP                  1       128\n"
             "  ARP                   1       256\n"
             "  expired ARP           0\n"
             "  static                0\n"
             "DHCP requests           0       128\n"
             "DHCP client id bytes    0\n"
             "IPv6 bindings                   30\n"
             "  ND                    0       15\n"
             "  expired ND            0\n"
             "  DHCPv6                1       15\n"
             "DHCPv6 requests         0       15\n"
             "DHCPv6 request bytes    0\n"
             "DHCPv6 client id bytes  14\n");
}

TEST(VigilctlViews, ConfigurationWithoutRateLimitsAndDeleteOnExpiryOff) {
   Json answer = Answer("getConfig-plain");
   answer["record"]["delOnExpiry"] = "0";
   std::string text = ConfigView("port 0x20 (vs0/32)", answer);
   EXPECT_NE(text.find("features          DHCP snooping\n"
                       "                  ARP snooping\n"
                       "rate limits       None\n"
                       "delete on expiry  off\n"),
             std::string::npos)
       << text;
}

TEST(VigilctlViews, StatisticsOneColumnPerPortWithAFailedPort) {
   std::string text = StatsView({"0x10", "0x20", "0x30"}, Answer("getStatsBatch"), false);
   std::istringstream lines(text);
   std::string line;
   std::vector<std::string> all;
   while (std::getline(lines, line)) all.push_back(line);
   ASSERT_EQ(all.size(), 2u + StatNames().size());
   EXPECT_EQ(all[0], "COUNTER                     0x10  0x20  0x30");
   EXPECT_EQ(all[1], "status                      ok    ok    Not found (0xbad0003)");
   EXPECT_EQ(all[2], "statWardenV4Drops           2     0     -");
   EXPECT_EQ(all[3], "statWardenV6Drops           2     0     -");
   EXPECT_EQ(all.back(), "statDhcpChaddrDrops         0     0     -");
}

TEST(VigilctlViews, StatisticsWithoutAFailureHaveNoStatusRow) {
   Json answer = Answer("getStatsBatch");
   answer["record"]["ports"].erase(2);
   std::string text = StatsView({"0x10", "0x20"}, answer, false);
   EXPECT_EQ(text.find("status"), std::string::npos) << text;
   EXPECT_EQ(text.substr(0, text.find('\n')), "COUNTER                     0x10  0x20");
}

TEST(VigilctlViews, StatisticsOneRowPerPortAndCounter) {
   std::string text = StatsView({"0x10", "0x20", "0x30"}, Answer("getStatsBatch"), true);
   EXPECT_EQ(text.substr(0, text.find('\n')), "PORT  COUNTER                     VALUE");
   EXPECT_NE(text.find("\n0x10  statWardenV4Drops           2\n"), std::string::npos) << text;
   EXPECT_NE(text.find("\n0x20  statDhcpChaddrDrops         0\n"), std::string::npos) << text;
   /* The failed port: its status alone, last. */
   EXPECT_EQ(text.substr(text.rfind('\n', text.size() - 2) + 1),
             "0x30  status                      Not found (0xbad0003)\n");
   EXPECT_EQ(std::count(text.begin(), text.end(), '\n'),
             static_cast<long>(1 + 2 * StatNames().size() + 1));
}

TEST(VigilctlViews, StatisticsCountersAreTwoWordsLowFirst) {
   Json answer = Answer("getStatsBatch");
   answer["record"]["ports"][0]["counters"][4] = 5;  /* statWardenArpDrops, low */
   answer["record"]["ports"][0]["counters"][5] = 1;  /* and high */
   std::string text = StatsView({"0x10"}, answer, true);
   EXPECT_NE(text.find("0x10  statWardenArpDrops          4294967301\n"), std::string::npos)
       << text;
}

TEST(VigilctlViews, WhiteLists) {
   EXPECT_EQ(WhiteListView(kLabel, Answer("getWhiteList")),
             "port 0x10 (vs0/16): 1 switch white list entry, 2 port white list entries\n"
             "LIST    VLAN  MAC                IP\n"
             "switch  0     Any                198.51.100.0/24\n"
             "port    0     02:00:00:00:00:10  192.0.2.50/32\n"
             "port    5     Any                2001:db8::/64\n");
   EXPECT_EQ(WhiteListView("port 0x20 (vs0/32)", Answer("getWhiteList-empty")),
             "port 0x20 (vs0/32): 0 switch white list entries, 0 port white list entries\n");
}

TEST(VigilctlViews, IgnoreList) {
   EXPECT_EQ(IgnoreListView(kLabel, Answer("getIgnoreList")),
             "port 0x10 (vs0/16): 2 ignore list entries\n"
             "VLAN  MAC                IP\n"
             "0     Any                192.0.2.99/32\n"
             "0     02:00:00:00:00:99  2001:db8::99/128\n");
   Json empty = Answer("getIgnoreList");
   empty["record"]["entries"] = Json::array();
   EXPECT_EQ(IgnoreListView(kLabel, empty), "port 0x10 (vs0/16): the ignore list is empty\n");
}

TEST(VigilctlViews, BpduDestinations) {
   std::string text = BpduView(kLabel, Answer("getFilteredBpduMacs"));
   EXPECT_EQ(text.substr(0, text.find('\n')),
             "port 0x10 (vs0/16): 30 BPDU destinations filtered");
   EXPECT_NE(text.find("\n#   MAC\n0   01:80:c2:00:00:01\n1   01:80:c2:00:00:02\n"),
             std::string::npos)
       << text;
   EXPECT_NE(text.find("\n29  01:00:0c:cc:cc:c7\n"), std::string::npos) << text;
   /* The excluded spanning tree address is not among them. */
   EXPECT_EQ(text.find("01:80:c2:00:00:00"), std::string::npos);
}

TEST(VigilctlViews, FailuresNameThePortTheStatusAndItsMeaning) {
   Json off = Answer("getFilteredBpduMacs-off");
   EXPECT_EQ(FailureText("port 0x20 (vs0/32)", off["callback"], off["status"]),
             "port 0x20 (vs0/32): Not enabled (0xbad0030): the BPDU filter is not on for this "
             "port");
   Json none = Answer("listVmi-nofilter");
   EXPECT_EQ(FailureText("port vs0/48", none["callback"], none["status"]),
             "port vs0/48: Not found (0xbad0003): no such port on that switch, or the port has "
             "no filter");
   EXPECT_EQ(StatusText(0), "ok");
   EXPECT_EQ(StatusText(0xbad0007), "Bad parameter (0xbad0007)");
}

TEST(VigilctlEvents, OneLinePerBindingEvent) {
   Json answer = Answer("events");
   const Json &events = answer["events"];
   ASSERT_EQ(events.size(), 4u);
   EXPECT_EQ(EventLine(events[0], "12:00:00.000"),
             "12:00:00.000  added    port 0x10 vs0   vlan 0     02:00:00:00:00:10  192.0.2.60"
             "       DHCP bound");
   EXPECT_EQ(EventLine(events[1], "12:00:00.000"),
             "12:00:00.000  added    port 0x10 vs0   vlan 0     02:00:00:00:00:10  192.0.2.51"
             "       ARP gratuitous");
   EXPECT_EQ(EventLine(events[2], "12:00:00.000"),
             "12:00:00.000  added    port 0x10 vs0   vlan 0     02:00:00:00:00:10  2001:db8::50"
             "     DHCPv6 bound");
   EXPECT_EQ(EventLine(events[3], "12:00:00.000"),
             "12:00:00.000  removed  port 0x10 vs0   vlan 0     02:00:00:00:00:10  192.0.2.51"
             "       ARP");
   /* Sequence numbers follow each other from 1. */
   for (size_t i = 0; i < events.size(); i++) EXPECT_EQ(events[i]["seq"], i + 1);
   EXPECT_EQ(answer["last"], 4);
   EXPECT_EQ(answer["next"], 4);
}

TEST(VigilctlWords, PortIds) {
   uint32_t id = 0;
   EXPECT_TRUE(ParsePortId("16", &id));
   EXPECT_EQ(id, 16u);
   EXPECT_TRUE(ParsePortId("0x10", &id));
   EXPECT_EQ(id, 16u);
   EXPECT_TRUE(ParsePortId("0XfF", &id));
   EXPECT_EQ(id, 255u);
   EXPECT_TRUE(ParsePortId("4294967295", &id));
   EXPECT_EQ(id, 4294967295u);
   for (const char *bad : {"", "0x", "-1", "1a", "4294967296", "0x100000000", "vm1", "0x1g"}) {
      EXPECT_FALSE(ParsePortId(bad, &id)) << bad;
   }
}

TEST(VigilctlWords, PortsByIdOrByFabricNames) {
   PortRef ref;
   std::string error;
   ASSERT_TRUE(ParsePortRef("0x20", &ref, &error));
   EXPECT_TRUE(ref.byId);
   EXPECT_EQ(ref.id, 0x20u);
   ref.fabSwitch = "vs0";
   ref.fabPort = "32";
   EXPECT_EQ(ref.Label(), "port 0x20 (vs0/32)");
   EXPECT_EQ(ref.Short(), "0x20");
   PortRef named;
   ASSERT_TRUE(ParsePortRef("dvs-1/vm1/eth0", &named, &error));
   EXPECT_FALSE(named.byId);
   EXPECT_EQ(named.fabSwitch, "dvs-1");
   EXPECT_EQ(named.fabPort, "vm1/eth0");
   EXPECT_EQ(named.Label(), "port dvs-1/vm1/eth0");
   EXPECT_FALSE(ParsePortRef("/16", &named, &error));
   EXPECT_FALSE(ParsePortRef("vs0/", &named, &error));
   EXPECT_FALSE(ParsePortRef("vm1", &named, &error));
   EXPECT_NE(error.find("vm1"), std::string::npos);
}

TEST(VigilctlWords, DeleteMethodsAreTheRequestsBits) {
   uint32_t bits = 0;
   std::string error;
   ASSERT_TRUE(ParseMethods("dhcp", &bits, &error));
   EXPECT_EQ(bits, 0x1u);
   ASSERT_TRUE(ParseMethods("arp", &bits, &error));
   EXPECT_EQ(bits, 0x2u);
   ASSERT_TRUE(ParseMethods("nd", &bits, &error));
   EXPECT_EQ(bits, 0x4u);
   ASSERT_TRUE(ParseMethods("dhcpv6", &bits, &error));
   EXPECT_EQ(bits, 0x8u);
   ASSERT_TRUE(ParseMethods("DHCPv6,arp,Dhcp,nd", &bits, &error));
   EXPECT_EQ(bits, 0xfu);
   EXPECT_EQ(MethodNames(0xf), "DHCP, ARP, ND and DHCPv6");
   EXPECT_EQ(MethodNames(0x3), "DHCP and ARP");
   EXPECT_EQ(MethodNames(0x8), "DHCPv6");
   EXPECT_FALSE(ParseMethods("dhcp,static", &bits, &error));
   EXPECT_NE(error.find("static"), std::string::npos);
   EXPECT_FALSE(ParseMethods("", &bits, &error));
   EXPECT_FALSE(ParseMethods("arp,", &bits, &error));
}

TEST(VigilctlWords, AddressesAndMacs) {
   EXPECT_TRUE(IsMac("02:00:00:00:02:0a"));
   EXPECT_TRUE(IsMac("02-00-00-00-02-0A"));
   EXPECT_FALSE(IsMac("02:00:00:00:02"));
   EXPECT_FALSE(IsMac("02:00:00:00:02:0g"));
   EXPECT_TRUE(IsIp("192.0.2.50"));
   EXPECT_TRUE(IsIp("2001:db8::50"));
   EXPECT_FALSE(IsIp("192.0.2.256"));
   EXPECT_FALSE(IsIp("192.0.2.50/32"));
   EXPECT_EQ(CanonicalIp("2001:db8:0:0:0:0:0:50"), "2001:db8::50");
   EXPECT_EQ(CanonicalIp("2001:db8:0:0:0:0:0:0/64"), "2001:db8::/64");
   EXPECT_EQ(CanonicalIp("fe80:0:0:0:0:ff:fe00:1"), "fe80::ff:fe00:1");
   EXPECT_EQ(CanonicalIp("192.0.2.50/32"), "192.0.2.50/32");
   EXPECT_EQ(CanonicalIp("N/A"), "N/A");
   EXPECT_EQ(CanonicalIp("Any"), "Any");
}

TEST(VigilctlHelp, EveryPageHasTheSectionsOfAManualPage) {
   std::vector<std::string> topics = HelpTopics();
   topics.push_back("");
   for (const std::string &topic : topics) {
      std::string page;
      ASSERT_TRUE(ManPage(topic, &page)) << topic;
      size_t at = 0;
      for (const char *section :
           {"NAME\n", "\nSYNOPSIS\n", "\nDESCRIPTION\n", "\nOPTIONS\n", "\nEXAMPLES\n",
            "\nEXIT STATUS\n"}) {
         size_t found = page.find(section, at);
         EXPECT_NE(found, std::string::npos) << topic << " lacks " << section;
         if (found != std::string::npos) at = found;
      }
      std::istringstream lines(page);
      std::string line;
      while (std::getline(lines, line)) {
         /* Filled text stays within 80 columns (synopses and examples may
          * not). */
         if (line.rfind("    vigilctl", 0) != 0) {
            EXPECT_LE(line.size(), 80u) << topic << ": " << line;
         }
      }
   }
   std::string page;
   EXPECT_FALSE(ManPage("state", &page));
   for (const char *topic : {"bindings", "config", "stats", "whitelist", "ignorelist", "bpdu",
                             "delete", "delete-on-expiry", "watch"}) {
      EXPECT_NE(std::find(topics.begin(), topics.end(), topic), topics.end()) << topic;
   }
}

TEST(VigilctlHelp, TheDeletePageNamesItsOptionsAndBits) {
   std::string page;
   ASSERT_TRUE(ManPage("delete", &page));
   EXPECT_EQ(page.rfind("NAME\n    vigilctl delete - ", 0), 0u);
   for (const char *word : {"--mac MAC", "--ip ADDR", "--vlan N", "--methods LIST", "--all",
                            "--fabswitch NAME", "--fabport NAME", "0x1, 0x2, 0x4, 0x8"}) {
      EXPECT_NE(page.find(word), std::string::npos) << word;
   }
}

TEST(VigilctlAgent, ApplyNamesTheFileAndThePortsItChanged) {
   std::string text;
   ASSERT_TRUE(AgentAnswerText(Json::parse(R"({"cmd":"apply","ok":true,"file":"/etc/p.toml","changed":[16,32]})"), &text));
   EXPECT_EQ(text, "applied /etc/p.toml: 2 ports changed: 0x10, 0x20\n");
   ASSERT_TRUE(AgentAnswerText(Json::parse(R"({"cmd":"apply","ok":true,"file":"/etc/p.toml","changed":[]})"), &text));
   EXPECT_EQ(text, "applied /etc/p.toml: no port changed\n");
   EXPECT_FALSE(AgentAnswerText(Json::parse(R"({"cmd":"state","ok":true})"), &text));
}

TEST(VigilctlAgent, PolicyIsOneRowPerKey) {
   Json answer = Json::parse(R"({"cmd":"policy","ok":true,"portID":16,"file":"p.toml","policy":{"enabled":null,"discovery":["dhcp","arp"],"expiry-minutes":10,"rate-limits":{"tx-bcast":100},"allow":[],"learn":"dhcp","share":false}})");
   EXPECT_EQ(PolicyView(answer),
             "port 0x10: policy of p.toml\n"
             "  enabled         (not set: the port is left as it is)\n"
             "  discovery       dhcp, arp\n"
             "  expiry-minutes  10\n"
             "  rate-limits     tx-bcast 100\n"
             "  allow           -\n"
             "  learn           dhcp\n"
             "  share           false\n");
}

TEST(VigilctlAgent, ConflictsAreATableWithTheHolder) {
   Json answer = Json::parse(R"({"cmd":"conflicts","ok":true,"conflicts":[{"vlanId":0,"ip":"192.0.2.50","mac":"02:00:00:00:00:20","portID":32,"heldBy":{"portID":16,"mac":"02:00:00:00:00:10"}},{"vlanId":5,"ip":"2001:db8::5","mac":"02:00:00:00:00:20","portID":32,"heldBy":{"portID":7,"mac":"02:00:00:00:00:70","host":"hv2"}}]})");
   EXPECT_EQ(ConflictsView(answer),
             "2 conflicts\n"
             "PORT  VLAN  IP           MAC                HELD BY PORT  HELD BY MAC        HOST\n"
             "0x20  0     192.0.2.50   02:00:00:00:00:20  0x10          02:00:00:00:00:10  -\n"
             "0x20  5     2001:db8::5  02:00:00:00:00:20  0x7           02:00:00:00:00:70  hv2\n");
   EXPECT_EQ(ConflictsView(Json::parse(R"({"cmd":"conflicts","ok":true,"conflicts":[]})")),
             "0 conflicts\n");
}

TEST(VigilctlAgent, CountersAreOneRowEach) {
   Json answer = Json::parse(R"({"cmd":"agent","ok":true,"writes":3,"pendingWrites":1,"admitted":2,"conflicts":0,"restored":0,"policy":"p.toml"})");
   EXPECT_EQ(AgentView(answer),
             "agent: policy p.toml\n"
             "  writes         3\n"
             "  pendingWrites  1\n"
             "  admitted       2\n"
             "  conflicts      0\n"
             "  restored       0\n");
}

TEST(VigilctlAgent, FleetBindingsAreATableWithEachHost) {
   Json answer = Json::parse(R"({"cmd":"fleet","ok":true,"bindings":[{"vlanId":0,"ip":"192.0.2.50","mac":"02:00:00:00:00:10","host":"hv1","portID":32,"method":"dhcp","expiryTs":600},{"vlanId":10,"ip":"2001:db8::7","mac":"02:00:00:00:00:20","host":"hv2","portID":64,"method":"dhcpv6","expiryTs":1200}]})");
   EXPECT_EQ(FleetBindingsView(answer),
             "2 fleet bindings\n"
             "VLAN  IP           MAC                HOST  PORT  METHOD  EXPIRY\n"
             "0     192.0.2.50   02:00:00:00:00:10  hv1   0x20  dhcp    600\n"
             "10    2001:db8::7  02:00:00:00:00:20  hv2   0x40  dhcpv6  1200\n");
   EXPECT_EQ(FleetBindingsView(Json::parse(R"({"cmd":"fleet","ok":true,"bindings":[]})")),
             "0 fleet bindings\n");
}

TEST(VigilctlHelp, TheAgentCommandsHavePages) {
   for (const char *topic : {"apply", "policy", "conflicts", "agent", "fleet"}) {
      std::string page;
      ASSERT_TRUE(ManPage(topic, &page)) << topic;
      EXPECT_EQ(page.rfind(std::string("NAME\n    vigilctl ") + topic + " - ", 0), 0u) << topic;
   }
}

} // namespace
} // namespace vigilctl
