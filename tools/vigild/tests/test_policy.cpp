/*
 * The policy file: every key read into its table, precedence key by key,
 * the built-in values, and every refusal with its file, line and key.
 */
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "policy.h"
#include "vigil_filter.h"

namespace vigild {
namespace {

Policy Parse(const std::string &text) {
   Policy p;
   std::string error;
   EXPECT_TRUE(ParsePolicy(text, "p.toml", &p, &error)) << error;
   return p;
}

std::string Refusal(const std::string &text) {
   Policy p;
   p.file = "untouched";
   std::string error;
   EXPECT_FALSE(ParsePolicy(text, "p.toml", &p, &error));
   EXPECT_EQ(p.file, "untouched");
   return error;
}

TEST(Policy, ReadsEveryKeyOfAPortTable) {
   Policy p = Parse(R"(
[defaults]
enabled = true
discovery = ["dhcp", "arp", "nd", "dhcpv6"]
expiry-minutes = 20
features = ["switch-warden", "port-warden", "bpdu-filter", "non-ip-block", "dhcp-server-block", "dhcp-client-block", "dhcpv6-server-block", "dhcpv6-client-block", "ra-guard"]
rate-limits = { tx-bcast = 100, rx-bcast = 200, tx-mcast = 300, rx-mcast = 0 }
bpdu-exclude = ["02:00:00:00:00:99"]
ignore = ["vlan=5,ip=192.0.2.9"]
allow = ["ip=198.51.100.0/24", "mac=02:00:00:00:00:10"]
learn = "any"
share = true
)");
   const PortSettings &d = p.defaults;
   EXPECT_EQ(d.enabled, true);
   EXPECT_EQ(*d.discovery, (std::vector<std::string>{"dhcp", "arp", "nd", "dhcpv6"}));
   EXPECT_EQ(d.expiryMinutes, 20u);
   EXPECT_EQ(d.features->size(), 9u);
   EXPECT_EQ(*d.rateLimits, (std::map<std::string, uint32_t>{
                                {"tx-bcast", 100}, {"rx-bcast", 200}, {"tx-mcast", 300}, {"rx-mcast", 0}}));
   EXPECT_EQ(*d.bpduExclude, std::vector<std::string>{"02:00:00:00:00:99"});
   EXPECT_EQ(*d.ignore, std::vector<std::string>{"vlan=5,ip=192.0.2.9"});
   EXPECT_EQ(*d.allow, (std::vector<std::string>{"ip=198.51.100.0/24", "mac=02:00:00:00:00:10"}));
   EXPECT_EQ(d.learn, LearnMode::Any);
   EXPECT_EQ(d.share, true);
   EffectivePolicy e = Resolve(p, 16, "");
   EXPECT_EQ(FeatureBits(e), 0x3fffu & ~0x0002u);
}

TEST(Policy, ReadsPortsByDecimalAndHexIdsInterfacesSwitchesAndFleet) {
   Policy p = Parse(R"(
[port.16]
learn = "off"
[port.0x20]
share = true
[interface.tap0]
enabled = false
[switch."vs0"]
allow = ["ip=0.0.0.0/0"]
[fleet]
endpoints = ["http://127.0.0.1:2379"]
host = "hv1"
prefix = "/lab"
lease-seconds = 30
)");
   EXPECT_EQ(p.ports.at(16).learn, LearnMode::Off);
   EXPECT_EQ(p.ports.at(32).share, true);
   EXPECT_EQ(p.interfaces.at("tap0").enabled, false);
   EXPECT_EQ(p.switchAllow.at("vs0"), std::vector<std::string>{"ip=0.0.0.0/0"});
   EXPECT_TRUE(p.fleet.present);
   EXPECT_EQ(p.fleet.endpoints, std::vector<std::string>{"http://127.0.0.1:2379"});
   EXPECT_EQ(p.fleet.host, "hv1");
   EXPECT_EQ(p.fleet.prefix, "/lab");
   EXPECT_EQ(p.fleet.leaseSeconds, 30u);
   EXPECT_EQ(p.file, "p.toml");
}

TEST(Policy, InterfaceOverPortOverDefaultsKeyByKey) {
   Policy p = Parse(R"(
[defaults]
enabled = true
learn = "dhcp"
allow = ["ip=198.51.100.1"]
[port.16]
learn = "any"
share = true
[interface.tap0]
share = false
)");
   EffectivePolicy e = Resolve(p, 16, "tap0");
   EXPECT_TRUE(e.managed);
   EXPECT_TRUE(e.enabled);
   EXPECT_EQ(e.learn, LearnMode::Any);                                   /* port */
   EXPECT_FALSE(e.share);                                                /* interface */
   EXPECT_EQ(e.allow, std::vector<std::string>{"ip=198.51.100.1"});      /* defaults */
   EffectivePolicy other = Resolve(p, 16, "tap1");
   EXPECT_TRUE(other.share);
   EffectivePolicy plain = Resolve(p, 17, "tap0");
   EXPECT_EQ(plain.learn, LearnMode::Dhcp);
   EXPECT_FALSE(plain.share);
}

TEST(Policy, KeysNoTableSetsTakeTheBuiltInValuesAndLeaveThePortUnmanaged) {
   Policy p = Parse("[port.16]\nlearn = \"any\"\n");
   EffectivePolicy e = Resolve(p, 16, "");
   EXPECT_FALSE(e.managed);
   EXPECT_EQ(e.discovery, (std::vector<std::string>{"dhcp", "arp"}));
   EXPECT_EQ(e.expiryMinutes, 10u);
   EXPECT_EQ(e.features, (std::vector<std::string>{"port-warden", "dhcp-server-block", "ra-guard"}));
   EXPECT_EQ(e.rateLimits, (std::map<std::string, uint32_t>{{"tx-bcast", 100}}));
   EXPECT_EQ(FeatureBits(e), static_cast<uint32_t>(VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_DHCP_SERVER_BLOCK |
                                                 VIGIL_FEAT_RA_GUARD | VIGIL_FEAT_TX_BCAST_LIMIT));
   EXPECT_EQ(EffectiveJson(e).dump(),
             R"({"enabled":null,"discovery":["dhcp","arp"],"expiry-minutes":10,"features":["port-warden","dhcp-server-block","ra-guard"],"rate-limits":{"tx-bcast":100},"bpdu-exclude":[],"ignore":[],"allow":[],"learn":"any","share":false})");
}

struct Refused {
   const char *text;
   const char *error;
};

class PolicyRefusal : public ::testing::TestWithParam<Refused> {};

TEST_P(PolicyRefusal, NamesFileLineAndKey) {
   EXPECT_EQ(Refusal(GetParam().text), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    EveryKey, PolicyRefusal,
    ::testing::Values(
        Refused{"[defaults]\nenabled = \n", "p.toml:2: Error while parsing key-value pair: expected value, saw '\\n'"},
        Refused{"[default]\n", "p.toml:1: default: unknown key"},
        Refused{"[defaults]\nlearn = \"dhcp\"\nspeed = 1\n", "p.toml:3: defaults.speed: unknown key"},
        Refused{"defaults = 1\n", "p.toml:1: defaults: is not a table"},
        Refused{"[defaults]\nenabled = \"yes\"\n", "p.toml:2: defaults.enabled: is not true or false"},
        Refused{"[defaults]\ndiscovery = [\"dhcp\",\n \"bootp\"]\n",
                "p.toml:3: defaults.discovery: \"bootp\" is not one of \"dhcp\", \"arp\", \"nd\", \"dhcpv6\""},
        Refused{"[defaults]\ndiscovery = [\"arp\", \"arp\"]\n",
                "p.toml:2: defaults.discovery: \"arp\" is given twice"},
        Refused{"[defaults]\ndiscovery = \"arp\"\n", "p.toml:2: defaults.discovery: is not an array"},
        Refused{"[defaults]\ndiscovery = [1]\n",
                "p.toml:2: defaults.discovery: holds something that is not a string"},
        Refused{"[defaults]\nexpiry-minutes = 0\n",
                "p.toml:2: defaults.expiry-minutes: 0 is not between 1 and 4294967295"},
        Refused{"[defaults]\nexpiry-minutes = 1.5\n",
                "p.toml:2: defaults.expiry-minutes: is not an integer"},
        Refused{"[defaults]\nfeatures = [\"warp\"]\n",
                "p.toml:2: defaults.features: \"warp\" is not one of \"bpdu-filter\", \"dhcp-client-block\", \"dhcp-server-block\", \"dhcpv6-client-block\", \"dhcpv6-server-block\", \"non-ip-block\", \"port-warden\", \"ra-guard\", \"switch-warden\""},
        Refused{"[defaults]\nrate-limits = { tx-bcast = 1, tx-ucast = 2 }\n",
                "p.toml:2: defaults.rate-limits.tx-ucast: unknown rate limit (one of \"rx-bcast\", \"rx-mcast\", \"tx-bcast\", \"tx-mcast\")"},
        Refused{"[defaults]\nrate-limits = { rx-bcast = -1 }\n",
                "p.toml:2: defaults.rate-limits.rx-bcast: -1 is not between 0 and 4294967295"},
        Refused{"[defaults]\nrate-limits = 5\n", "p.toml:2: defaults.rate-limits: is not a table"},
        Refused{"[defaults]\nbpdu-exclude = [\"02:00:00:00:00\"]\n",
                "p.toml:2: defaults.bpdu-exclude: \"02:00:00:00:00\" is not a MAC address"},
        Refused{"[defaults]\nignore = [\"vlan=5;ip=192.0.2.1\"]\n",
                "p.toml:2: defaults.ignore: \"vlan=5;ip=192.0.2.1\": one entry per string"},
        Refused{"[defaults]\nallow = [\"ip=192.0.2.300\"]\n",
                "p.toml:2: defaults.allow: \"ip=192.0.2.300\": bad address '192.0.2.300' in entry"},
        Refused{"[defaults]\nallow = [\"host=a\"]\n",
                "p.toml:2: defaults.allow: \"host=a\": unknown entry field 'host=': use vlan=, mac=, ip=, prefix= or flags="},
        Refused{"[port.16]\nlearn = \"all\"\n",
                "p.toml:2: port.16.learn: \"all\" is not one of \"off\", \"dhcp\", \"any\""},
        Refused{"[port.0x20]\nshare = 1\n", "p.toml:2: port.0x20.share: is not true or false"},
        Refused{"[port.sixteen]\nshare = true\n",
                "p.toml:1: port.sixteen: is not a port id (decimal or 0x hexadecimal, 32 bits)"},
        Refused{"[port.16]\nshare = true\n[port.0x10]\nshare = false\n",
                "p.toml:1: port.16: names a port that another table names"},
        Refused{"[interface.a-very-long-interface]\nshare = true\n",
                "p.toml:1: interface.a-very-long-interface: is not an interface name"},
        Refused{"[interface.tap0]\nlearn = 1\n", "p.toml:2: interface.tap0.learn: is not a string"},
        Refused{"[switch.\"vs0\"]\ndeny = []\n", "p.toml:2: switch.vs0.deny: unknown key"},
        Refused{"[switch.\"vs 0\"]\nallow = [\"vlan=x\"]\n",
                "p.toml:2: switch.\"vs 0\".allow: \"vlan=x\": bad vlan 'x': not a number"},
        Refused{"[fleet]\nendpoints = [\"http://127.0.0.1:2379\"]\n",
                "p.toml:1: fleet.host: is missing"},
        Refused{"[fleet]\nhost = \"hv1\"\n", "p.toml:1: fleet.endpoints: is missing"},
        Refused{"[fleet]\nhost = \"hv1\"\nendpoints = [\"127.0.0.1:2379\"]\n",
                "p.toml:3: fleet.endpoints: \"127.0.0.1:2379\" is not an http:// or https:// URL"},
        Refused{"[fleet]\nhost = \"hv1\"\nendpoints = []\n", "p.toml:3: fleet.endpoints: is empty"},
        Refused{"[fleet]\nhost = \"\"\n", "p.toml:2: fleet.host: is not a host name (not empty, no '/')"},
        Refused{"[fleet]\nprefix = \"vigil\"\n", "p.toml:2: fleet.prefix: does not begin with '/'"},
        Refused{"[fleet]\nlease-seconds = 0\n",
                "p.toml:2: fleet.lease-seconds: 0 is not between 1 and 3600"},
        Refused{"[fleet]\nttl = 5\n", "p.toml:2: fleet.ttl: unknown key"}));

TEST(Policy, AFileThatCannotBeReadIsRefused) {
   Policy p;
   std::string error;
   EXPECT_FALSE(LoadPolicy("/nonexistent/policy.toml", &p, &error));
   EXPECT_EQ(error, "/nonexistent/policy.toml: cannot be read");
}

TEST(Policy, LoadPolicyNamesTheFileInItsErrors) {
   std::string path = ::testing::TempDir() + "vigild_policy_test.toml";
   {
      std::ofstream out(path);
      out << "[defaults]\nenabled = true\n\nlearn = \"never\"\n";
   }
   Policy p;
   std::string error;
   EXPECT_FALSE(LoadPolicy(path, &p, &error));
   EXPECT_EQ(error, path + ":4: defaults.learn: \"never\" is not one of \"off\", \"dhcp\", \"any\"");
   {
      std::ofstream out(path);
      out << "[defaults]\nenabled = true\n";
   }
   EXPECT_TRUE(LoadPolicy(path, &p, &error));
   EXPECT_EQ(p.file, path);
   EXPECT_EQ(p.defaults.enabled, true);
   std::remove(path.c_str());
}

TEST(Policy, TheExamplePolicyEnablesTheLabsTwoVmPortsAndLeavesTheUplink) {
   Policy p;
   std::string error;
   ASSERT_TRUE(LoadPolicy(EXAMPLE_POLICY, &p, &error)) << error;
   EffectivePolicy vm1 = Resolve(p, 0x10, "vl-vm1");
   EffectivePolicy vm2 = Resolve(p, 0x20, "vl-vm2");
   EffectivePolicy uplink = Resolve(p, 0x30, "vl-dhcp");
   EXPECT_TRUE(vm1.managed && vm1.enabled);
   EXPECT_TRUE(vm2.managed && vm2.enabled);
   EXPECT_FALSE(uplink.managed);
   EXPECT_EQ(vm1.learn, LearnMode::Dhcp);
   EXPECT_EQ(FeatureBits(vm1), 0x2964u);
}

} // namespace
} // namespace vigild
