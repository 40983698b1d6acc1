/*
 * The management agent against a scripted host: the command lines it
 * writes, the log lines it gives, its counters, conflicts and sharing, the
 * pacing of its writes, a reload, and its state across a restart.
 */
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "agent.h"

namespace vigild {
namespace {

namespace fs = std::filesystem;

/* The host: records every line, answers writes with ok and status 0, keeps
 * each port's bindings for `bindings`, and saves and restores them as text
 * files ("saved" then one binding a line). */
struct FakeHost {
   std::vector<PortInfo> ports = {{0x10, "vs0", ""}, {0x20, "vs0", ""}, {0x30, "vs1", "tap3"}};
   std::vector<std::string> lines;
   std::vector<std::string> logs;
   std::map<uint32_t, AgentJson> bindings;
   uint64_t restoreStatus = 0;

   AgentHost Host() {
      AgentHost h;
      h.run = [this](const std::string &line) { return Run(line); };
      h.ports = [this]() { return ports; };
      h.log = [this](const std::string &text) { logs.push_back(text); };
      return h;
   }

   static uint32_t PortOf(const std::string &word) {
      return static_cast<uint32_t>(std::stoul(word, nullptr, 0));
   }

   AgentJson Run(const std::string &line) {
      lines.push_back(line);
      std::istringstream in(line);
      std::string cmd, port, file;
      in >> cmd >> port >> file;
      AgentJson out = {{"ok", true}};
      if (file.size() > 1 && file.front() == '"') file = file.substr(1, file.size() - 2);
      if (cmd == "bindings") {
         out["bindings"] = bindings.count(PortOf(port)) ? bindings[PortOf(port)] : AgentJson::array();
      } else if (cmd == "save") {
         std::ofstream f(file);
         f << "saved\n" << (bindings.count(PortOf(port)) ? bindings[PortOf(port)].dump() : "[]");
         out["saveStatus"] = 0;
         out["dataLen"] = 10;
      } else if (cmd == "restore") {
         std::ifstream f(file);
         std::string magic, rest;
         std::getline(f, magic);
         std::getline(f, rest);
         if (magic != "saved") {
            out["status"] = 0xbad0001;
         } else {
            out["status"] = restoreStatus;
            if (restoreStatus == 0) bindings[PortOf(port)] = AgentJson::parse(rest);
         }
      } else {
         out["status"] = 0;
      }
      return out;
   }

   /* The lines that wrote a port's security property. */
   std::vector<std::string> Security() const {
      std::vector<std::string> out;
      for (const std::string &l : lines) {
         if (l.rfind("security ", 0) == 0) out.push_back(l);
      }
      return out;
   }
};

AgentJson Message(bool added, uint32_t port, const std::string &mac, const std::string &ip,
                  uint32_t method, uint16_t vlan = 0) {
   return {{"portsetName", "vs0"}, {"portID", port},
           {"name", added ? "portdb.entry.added" : "portdb.entry.removed"},
           {"vlanId", vlan}, {"mac", mac}, {"isIpv4", ip.find(':') == std::string::npos},
           {"ip", ip}, {"discMethod", method}};
}

Policy MustParse(const std::string &text) {
   Policy p;
   std::string error;
   EXPECT_TRUE(ParsePolicy(text, "p.toml", &p, &error)) << error;
   return p;
}

const char kPolicy[] = R"(
[defaults]
enabled = true
discovery = ["dhcp", "arp", "dhcpv6"]
features = ["port-warden"]
rate-limits = {}
allow = ["ip=198.51.100.7"]
[port.0x20]
learn = "any"
[port.0x30]
enabled = false
)";

const std::string kMac1 = "02:00:00:00:00:10";
const std::string kMac2 = "02:00:00:00:00:20";
const std::string kSec10 = "security 0x10 features=0x40 port=\"ip=198.51.100.7";
const std::string kSec20 = "security 0x20 features=0x40 port=\"ip=198.51.100.7";

struct AgentTest : ::testing::Test {
   FakeHost host;
   Agent agent{host.Host()};
   double now = 100;

   void Start(const std::string &policy = kPolicy) {
      std::vector<uint32_t> changed;
      agent.Apply(MustParse(policy), now, &changed);
      agent.Tick(now);
      host.lines.clear();
      host.logs.clear();
   }
   void Later(double seconds) {
      now += seconds;
      agent.Tick(now);
   }
   uint64_t Count(const char *name) { return agent.Counters()[name].get<uint64_t>(); }
};

TEST_F(AgentTest, APolicyWritesEachManagedPortsPropertiesInOrder) {
   std::vector<uint32_t> changed;
   agent.Apply(MustParse(kPolicy), now, &changed);
   EXPECT_EQ(changed, (std::vector<uint32_t>{0x10, 0x20, 0x30}));
   agent.Tick(now);
   EXPECT_EQ(host.lines, (std::vector<std::string>{
                             "prop write 0x10 enabled text:true",
                             "discovery 0x10 arp=1 dhcp=1",
                             "discovery6 0x10 nd=0 dhcpv6=1 expiry=10",
                             "prop write 0x10 discovery.ignorelist hex:00000000",
                             "prop write 0x20 enabled text:true",
                             "discovery 0x20 arp=1 dhcp=1",
                             "discovery6 0x20 nd=0 dhcpv6=1 expiry=10",
                             "prop write 0x20 discovery.ignorelist hex:00000000",
                             "prop write 0x30 enabled text:false",
                             "bindings 0x10",
                             "bindings 0x20",
                             kSec10 + "\"",
                             kSec20 + "\"",
                         }));
   EXPECT_EQ(host.logs, (std::vector<std::string>{
                            "agent: port 0x10: policy changed (enabled, discovery, features, "
                            "allow): reload",
                            "agent: port 0x20: policy changed (enabled, discovery, features, "
                            "allow, learn): reload",
                            "agent: port 0x30: policy changed (enabled, discovery, features, "
                            "allow): reload",
                        }));
   EXPECT_EQ(agent.Counters().dump(),
             R"({"writes":2,"pendingWrites":0,"admitted":0,"conflicts":0,"restored":0,"withdrawn":0,"writeErrors":0,"reloads":1,"bindings":0,"policy":"p.toml"})");
}

TEST_F(AgentTest, ALearntDhcpBindingJoinsTheWhiteListAfterTheAllowEntries) {
   Start();
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   agent.OnMessage(Message(true, 0x10, kMac1, "2001:db8::50", 16, 5));
   Later(0.25);
   EXPECT_EQ(host.Security(),
             std::vector<std::string>{kSec10 + ";vlan=0,mac=" + kMac1 +
                                      ",ip=192.0.2.50;vlan=5,mac=" + kMac1 + ",ip=2001:db8::50\""});
   EXPECT_EQ(host.logs, (std::vector<std::string>{
                            "agent: port 0x10: admitted vlan 0 mac 02:00:00:00:00:10 ip "
                            "192.0.2.50 (dhcp): binding added",
                            "agent: port 0x10: admitted vlan 5 mac 02:00:00:00:00:10 ip "
                            "2001:db8::50 (dhcpv6): binding added",
                        }));
   EXPECT_EQ(Count("admitted"), 2u);
   EXPECT_EQ(Count("bindings"), 2u);
   EXPECT_EQ(Count("writes"), 3u); /* two when the policy came */

   agent.OnMessage(Message(false, 0x10, kMac1, "192.0.2.50", 1));
   Later(0.25);
   EXPECT_EQ(host.Security().back(), kSec10 + ";vlan=5,mac=" + kMac1 + ",ip=2001:db8::50\"");
   EXPECT_EQ(host.logs.back(), "agent: port 0x10: withdrew vlan 0 mac 02:00:00:00:00:10 ip "
                               "192.0.2.50 (dhcp): binding removed");
   EXPECT_EQ(Count("withdrawn"), 1u);
   EXPECT_EQ(Count("bindings"), 1u);
}

TEST_F(AgentTest, LearnDhcpLeavesArpAndNdOutAndAnyTakesThem) {
   Start();
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.60", 2));
   agent.OnMessage(Message(true, 0x10, kMac1, "2001:db8::60", 8));
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.61", 4)); /* static */
   agent.OnMessage(Message(true, 0x20, kMac2, "192.0.2.70", 2));
   agent.OnMessage(Message(true, 0x20, kMac2, "2001:db8::70", 8));
   agent.OnMessage(Message(true, 0x20, kMac2, "192.0.2.71", 4));
   Later(0.25);
   EXPECT_EQ(host.Security(), std::vector<std::string>{kSec20 + ";vlan=0,mac=" + kMac2 +
                                                       ",ip=192.0.2.70;vlan=0,mac=" + kMac2 +
                                                       ",ip=2001:db8::70\""});
}

TEST_F(AgentTest, LearnOffWritesTheAllowEntriesAlone) {
   Start("[defaults]\nenabled = true\nlearn = \"off\"\nfeatures = []\nrate-limits = {}\n"
         "allow = [\"vlan=3,ip=198.51.100.0/24\"]\n");
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   Later(0.25);
   EXPECT_TRUE(host.Security().empty());
   EXPECT_EQ(Count("admitted"), 0u);
}

TEST_F(AgentTest, WritesAPortAtMostOnceEvery100msAndEndsWithTheLatestState) {
   Start();
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   /* The policy's own write was just now: this one waits its turn. */
   Later(0.05);
   EXPECT_TRUE(host.Security().empty());
   Later(0.05);
   ASSERT_EQ(host.Security().size(), 1u);
   /* Three changes within the next 100 ms: none written before it ends. */
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.51", 1));
   Later(0.03);
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.52", 1));
   Later(0.03);
   agent.OnMessage(Message(false, 0x10, kMac1, "192.0.2.50", 1));
   Later(0.03);
   EXPECT_EQ(host.Security().size(), 1u);
   EXPECT_EQ(Count("pendingWrites"), 1u);
   Later(0.01); /* 100 ms after the first write */
   ASSERT_EQ(host.Security().size(), 2u);
   EXPECT_EQ(host.Security()[1], kSec10 + ";vlan=0,mac=" + kMac1 + ",ip=192.0.2.51;vlan=0,mac=" +
                                     kMac1 + ",ip=192.0.2.52\"");
   EXPECT_EQ(Count("pendingWrites"), 0u);
   EXPECT_EQ(Count("writes"), 4u);
   /* Nothing changed: nothing written. */
   Later(1);
   EXPECT_EQ(host.Security().size(), 2u);
}

TEST_F(AgentTest, AFailedWriteIsTriedAgainAfterTheInterval) {
   Start();
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   AgentHost failing = host.Host();
   int failures = 1;
   FakeHost &h = host;
   Agent flaky({[&](const std::string &line) {
                   if (line.rfind("security", 0) == 0 && failures-- > 0) {
                      h.lines.push_back(line);
                      return AgentJson{{"ok", true}, {"status", 0xbad0001}};
                   }
                   return h.Run(line);
                },
                failing.ports, failing.log});
   flaky.Apply(MustParse(kPolicy), now, nullptr);
   flaky.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   host.lines.clear();
   host.logs.clear();
   flaky.Tick(now);
   EXPECT_EQ(host.logs.back(),
             "agent: port 0x10: writing the security property failed (status 0xbad0001); trying again");
   EXPECT_EQ(flaky.Counters()["pendingWrites"], 1u);
   flaky.Tick(now + 0.05);
   EXPECT_EQ(host.Security().size(), 2u); /* 0x10 failed, 0x20 written */
   flaky.Tick(now + 0.1);
   EXPECT_EQ(host.Security().size(), 3u);
   EXPECT_EQ(flaky.Counters()["writeErrors"], 1u);
   EXPECT_EQ(flaky.Counters()["pendingWrites"], 0u);
}

TEST_F(AgentTest, AnAddressHeldOnAnotherPortOfTheVlanIsAConflictUntilTheHolderLetsGo) {
   Start();
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   agent.OnMessage(Message(true, 0x20, kMac2, "192.0.2.50", 2));
   Later(0.25);
   EXPECT_EQ(host.logs.back(), "agent: port 0x20: refused vlan 0 mac 02:00:00:00:00:20 ip "
                               "192.0.2.50 (arp), held by port 0x10 mac 02:00:00:00:00:10: conflict");
   EXPECT_EQ(Count("conflicts"), 1u);
   EXPECT_EQ(agent.Conflicts().dump(),
             R"([{"vlanId":0,"ip":"192.0.2.50","mac":"02:00:00:00:00:20","portID":32,"heldBy":{"portID":16,"mac":"02:00:00:00:00:10"}}])");
   EXPECT_EQ(host.Security(), (std::vector<std::string>{
                                  kSec10 + ";vlan=0,mac=" + kMac1 + ",ip=192.0.2.50\""}));
   /* The same claim again is the same conflict: counted once. */
   agent.OnMessage(Message(true, 0x20, kMac2, "192.0.2.50", 2));
   EXPECT_EQ(Count("conflicts"), 1u);
   /* The same address on another VLAN is another address. */
   agent.OnMessage(Message(true, 0x20, kMac2, "192.0.2.50", 2, 7));
   EXPECT_EQ(Count("conflicts"), 1u);

   agent.OnMessage(Message(false, 0x10, kMac1, "192.0.2.50", 1));
   Later(0.25);
   EXPECT_EQ(agent.Conflicts().dump(), "[]");
   EXPECT_EQ(host.logs[host.logs.size() - 2],
             "agent: port 0x10: withdrew vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.50 (dhcp): "
             "binding removed");
   EXPECT_EQ(host.logs.back(), "agent: port 0x20: admitted vlan 0 mac 02:00:00:00:00:20 ip "
                               "192.0.2.50 (arp): binding removed");
   EXPECT_EQ(host.Security().back(), kSec20 + ";vlan=7,mac=" + kMac2 + ",ip=192.0.2.50;vlan=0,mac=" +
                                         kMac2 + ",ip=192.0.2.50\"");
}

TEST_F(AgentTest, SharingAdmitsAnAddressOnSeveralPortsOnlyWhenBothShare) {
   Start(std::string(kPolicy) + "[port.0x10]\nshare = true\n");
   FakeHost both;
   Agent agent(both.Host());
   std::string shared = kPolicy;
   shared.replace(shared.find("learn = \"any\""), 13, "learn = \"any\"\nshare = true");
   agent.Apply(MustParse(shared + "[port.0x10]\nshare = true\n"), now, nullptr);
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.99", 1));
   agent.OnMessage(Message(true, 0x20, kMac2, "192.0.2.99", 2));
   EXPECT_EQ(agent.Counters()["conflicts"], 0u);
   EXPECT_EQ(agent.Counters()["bindings"], 2u);

   FakeHost other;
   Agent oneSided(other.Host());
   oneSided.Apply(MustParse(shared), now, nullptr);
   oneSided.OnMessage(Message(true, 0x10, kMac1, "192.0.2.99", 1));
   oneSided.OnMessage(Message(true, 0x20, kMac2, "192.0.2.99", 2));
   EXPECT_EQ(oneSided.Counters()["conflicts"], 1u);
   EXPECT_EQ(oneSided.Counters()["bindings"], 1u);
}

TEST_F(AgentTest, AReloadChangesOnlyWhatChangedAndKeepsEveryBinding) {
   Start();
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   agent.OnMessage(Message(true, 0x20, kMac2, "192.0.2.60", 1));
   Later(0.25);
   host.lines.clear();
   host.logs.clear();
   std::vector<uint32_t> changed;
   agent.Apply(MustParse(kPolicy), now, &changed);
   Later(0.25);
   EXPECT_TRUE(changed.empty());
   EXPECT_TRUE(host.lines.empty());
   EXPECT_TRUE(host.logs.empty());

   std::string edited = kPolicy;
   edited.replace(edited.find("learn = \"any\""), 13, "learn = \"any\"\nallow = [\"ip=198.51.100.8\"]");
   agent.Apply(MustParse(edited), now, &changed);
   Later(0.25);
   EXPECT_EQ(changed, std::vector<uint32_t>{0x20});
   EXPECT_EQ(host.lines, std::vector<std::string>{
                             "security 0x20 features=0x40 port=\"ip=198.51.100.8;vlan=0,mac=" +
                             kMac2 + ",ip=192.0.2.60\""});
   EXPECT_EQ(host.logs, std::vector<std::string>{"agent: port 0x20: policy changed (allow): reload"});
   EXPECT_EQ(Count("bindings"), 2u);
   EXPECT_EQ(Count("reloads"), 3u);
}

TEST_F(AgentTest, AReloadThatTurnsLearningOffWithdrawsAndOneThatTurnsItOnAdmitsAgain) {
   Start();
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   std::string off = std::string(kPolicy) + "[port.0x10]\nlearn = \"off\"\n";
   agent.Apply(MustParse(off), now, nullptr);
   EXPECT_EQ(host.logs.back(), "agent: port 0x10: withdrew vlan 0 mac 02:00:00:00:00:10 ip "
                               "192.0.2.50 (dhcp): reload");
   agent.Apply(MustParse(kPolicy), now, nullptr);
   EXPECT_EQ(host.logs.back(), "agent: port 0x10: admitted vlan 0 mac 02:00:00:00:00:10 ip "
                               "192.0.2.50 (dhcp): reload");
   EXPECT_EQ(Count("bindings"), 1u);
}

TEST_F(AgentTest, InterfaceTablesApplyToTheAttachedPortAndSwitchEntriesToItsPortset) {
   Start("[defaults]\nenabled = true\nfeatures = [\"switch-warden\"]\nrate-limits = "
         "{ rx-mcast = 5 }\nbpdu-exclude = [\"02:00:00:00:00:99\"]\n"
         "[interface.tap3]\nlearn = \"off\"\nignore = [\"ip=192.0.2.7\"]\n"
         "[switch.\"vs1\"]\nallow = [\"ip=0.0.0.0/0\", \"ip=::/0\"]\n");
   Later(0.25);
   EXPECT_TRUE(host.lines.empty()); /* all written by Start */
   FakeHost fresh;
   Agent a(fresh.Host());
   a.Apply(MustParse("[interface.tap3]\nenabled = true\nlearn = \"off\"\nrate-limits = "
                     "{ rx-mcast = 5 }\nfeatures = [\"switch-warden\"]\nignore = "
                     "[\"ip=192.0.2.7\"]\nbpdu-exclude = [\"02:00:00:00:00:99\"]\n"
                     "[switch.\"vs1\"]\nallow = [\"ip=0.0.0.0/0\", \"ip=::/0\"]\n"),
           now, nullptr);
   a.Tick(now);
   EXPECT_EQ(fresh.lines, (std::vector<std::string>{
                              "prop write 0x30 enabled text:true",
                              "discovery 0x30 arp=1 dhcp=1",
                              "discovery6 0x30 nd=0 dhcpv6=0 expiry=10",
                              "ignorelist 0x30 \"ip=192.0.2.7\"",
                              "bindings 0x30",
                              "security 0x30 features=0x11 rxMcast=5 switch=\"ip=0.0.0.0/0;ip=::/0\" "
                              "bpduExclude=02:00:00:00:00:99",
                          }));
   EXPECT_EQ(a.PolicyOf(0x30)["learn"], "off");
   EXPECT_EQ(a.PolicyOf(0x10)["enabled"], nullptr);
}

TEST_F(AgentTest, BindingsAPortHeldBeforeItWasEnabledAreAdmitted) {
   host.bindings[0x10] = AgentJson::array(
       {{{"vlanId", 0}, {"mac", kMac1}, {"ip", "192.0.2.50"}, {"discMethod", 1}, {"expired", false}},
        {{"vlanId", 0}, {"mac", kMac1}, {"ip", "192.0.2.51"}, {"discMethod", 1}, {"expired", true}}});
   Start();
   EXPECT_EQ(Count("bindings"), 1u);
}

struct Fleet : FleetSeam {
   std::vector<std::string> calls;
   ClaimAnswer Claim(const Binding &b, HeldBy *heldBy) override {
      calls.push_back("claim " + BindingText(b));
      if (b.ip != "192.0.2.77") return ClaimAnswer::Admit;
      *heldBy = HeldBy{0x40, "02:00:00:00:00:40", "hv2"};
      return ClaimAnswer::Refuse;
   }
   void Release(const Binding &b) override { calls.push_back("release " + BindingText(b)); }
};

TEST(AgentFleet, TheFleetIsAskedBeforeAdmittingAndToldWhenABindingEnds) {
   FakeHost host;
   Fleet fleet;
   Agent agent(host.Host(), &fleet);
   agent.Apply(MustParse(kPolicy), 0, nullptr);
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.77", 1));
   agent.OnMessage(Message(false, 0x10, kMac1, "192.0.2.50", 1));
   /* An admitted binding is asked again whenever the agent reconciles. */
   EXPECT_EQ(fleet.calls, (std::vector<std::string>{
                              "claim vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.50 (dhcp)",
                              "claim vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.50 (dhcp)",
                              "claim vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.77 (dhcp)",
                              "release vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.50 (dhcp)",
                              "claim vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.77 (dhcp)",
                          }));
   EXPECT_EQ(host.logs[host.logs.size() - 2],
             "agent: port 0x10: refused vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.77 (dhcp), held "
             "by host hv2 port 0x40 mac 02:00:00:00:00:40: conflict");
   EXPECT_EQ(agent.Conflicts().dump(),
             R"([{"vlanId":0,"ip":"192.0.2.77","mac":"02:00:00:00:00:10","portID":16,"heldBy":{"portID":64,"mac":"02:00:00:00:00:40","host":"hv2"}}])");
}

/* A fleet whose answers the test sets per address. */
struct ScriptedFleet : FleetSeam {
   std::map<std::string, ClaimAnswer> answers;
   HeldBy holder{0x40, "02:00:00:00:00:40", "hv2"};
   ClaimAnswer Claim(const Binding &b, HeldBy *heldBy) override {
      auto it = answers.find(b.ip);
      ClaimAnswer a = it == answers.end() ? ClaimAnswer::Wait : it->second;
      if (a == ClaimAnswer::Refuse) *heldBy = holder;
      return a;
   }
   void Release(const Binding &) override {}
};

TEST(AgentFleet, ABindingTheFleetIsStillClaimingWaitsWithoutAConflictAndIsAdmittedOnReconsider) {
   FakeHost host;
   ScriptedFleet fleet;
   Agent agent(host.Host(), &fleet);
   agent.Apply(MustParse(kPolicy), 0, nullptr);
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   EXPECT_EQ(agent.Counters()["admitted"], 0);
   EXPECT_EQ(agent.Counters()["conflicts"], 0);
   EXPECT_EQ(agent.Conflicts().dump(), "[]");
   fleet.answers["192.0.2.50"] = ClaimAnswer::Admit;
   agent.Reconsider();
   EXPECT_EQ(agent.Counters()["admitted"], 1);
   EXPECT_EQ(host.logs.back(),
             "agent: port 0x10: admitted vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.50 (dhcp): fleet");
}

TEST(AgentFleet, AnAdmittedBindingTheFleetLaterRefusesIsWithdrawnAsAConflict) {
   FakeHost host;
   ScriptedFleet fleet;
   fleet.answers["192.0.2.50"] = ClaimAnswer::Admit;
   Agent agent(host.Host(), &fleet);
   agent.Apply(MustParse(kPolicy), 0, nullptr);
   agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
   EXPECT_EQ(agent.Counters()["admitted"], 1);
   fleet.answers["192.0.2.50"] = ClaimAnswer::Refuse;
   agent.Reconsider();
   EXPECT_EQ(host.logs.back(),
             "agent: port 0x10: withdrew vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.50 (dhcp), held by "
             "host hv2 port 0x40 mac 02:00:00:00:00:40: conflict");
   EXPECT_EQ(agent.Counters()["conflicts"], 1);
   EXPECT_EQ(agent.Conflicts().dump(),
             R"([{"vlanId":0,"ip":"192.0.2.50","mac":"02:00:00:00:00:10","portID":16,"heldBy":{"portID":64,"mac":"02:00:00:00:00:40","host":"hv2"}}])");
   /* Once the holder lets go, it comes back. */
   fleet.answers["192.0.2.50"] = ClaimAnswer::Admit;
   agent.Reconsider();
   EXPECT_EQ(agent.Counters()["admitted"], 2);
   EXPECT_EQ(agent.Conflicts().dump(), "[]");
}

struct StateTest : ::testing::Test {
   std::string dir = ::testing::TempDir() + "vigild_agent_state_" +
                     ::testing::UnitTest::GetInstance()->current_test_info()->name();
   void SetUp() override { fs::remove_all(dir); }
   void TearDown() override { fs::remove_all(dir); }
   static AgentJson Row(const std::string &mac, const std::string &ip, int method) {
      return {{"vlanId", 0}, {"mac", mac}, {"ip", ip}, {"discMethod", method}, {"expired", false}};
   }
};

TEST_F(StateTest, SavedBindingsComeBackAdmittedWithTheFirstHolderFirstAgain) {
   FakeHost before;
   {
      Agent agent(before.Host());
      agent.Apply(MustParse(kPolicy), 0, nullptr);
      /* 0x20 holds the address; 0x10's claim to it came later. */
      agent.OnMessage(Message(true, 0x20, kMac2, "192.0.2.50", 2));
      agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.50", 1));
      agent.OnMessage(Message(true, 0x10, kMac1, "192.0.2.51", 1));
      before.bindings[0x10] = AgentJson::array({Row(kMac1, "192.0.2.50", 1), Row(kMac1, "192.0.2.51", 1)});
      before.bindings[0x20] = AgentJson::array({Row(kMac2, "192.0.2.50", 2)});
      agent.SaveState(dir);
   }
   EXPECT_TRUE(fs::exists(dir + "/port-0x10.state"));
   EXPECT_TRUE(fs::exists(dir + "/port-0x20.state"));
   EXPECT_FALSE(fs::exists(dir + "/port-0x30.state")); /* not enabled */
   EXPECT_FALSE(fs::exists(dir + "/port-0x10.state.new"));
   EXPECT_EQ(before.logs.back(), "agent: saved the bindings of 2 ports in " + dir + " (2 admitted)");

   FakeHost after;
   Agent agent(after.Host());
   agent.Apply(MustParse(kPolicy), 0, nullptr);
   agent.Tick(0);
   after.lines.clear();
   after.logs.clear();
   agent.RestoreState(dir);
   EXPECT_EQ(after.lines, (std::vector<std::string>{
                              "restore 0x10 \"" + dir + "/port-0x10.state\"",
                              "bindings 0x10",
                              "restore 0x20 \"" + dir + "/port-0x20.state\"",
                              "bindings 0x20",
                          }));
   EXPECT_EQ(after.logs, (std::vector<std::string>{
                             "agent: port 0x10: restored 2 bindings from " + dir + "/port-0x10.state",
                             "agent: port 0x20: restored 1 bindings from " + dir + "/port-0x20.state",
                             "agent: port 0x20: admitted vlan 0 mac 02:00:00:00:00:20 ip 192.0.2.50 (arp): restored",
                             "agent: port 0x10: admitted vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.51 (dhcp): restored",
                             "agent: port 0x10: refused vlan 0 mac 02:00:00:00:00:10 ip 192.0.2.50 (dhcp), held by port 0x20 mac 02:00:00:00:00:20: conflict",
                         }));
   EXPECT_EQ(agent.Counters()["restored"], 3u);
   EXPECT_EQ(agent.Counters()["bindings"], 2u);
   EXPECT_FALSE(fs::exists(dir + "/port-0x10.state")); /* consumed */
   agent.Tick(1);
   EXPECT_EQ(after.Security(), (std::vector<std::string>{
                                   kSec10 + ";vlan=0,mac=" + kMac1 + ",ip=192.0.2.51\"",
                                   kSec20 + ";vlan=0,mac=" + kMac2 + ",ip=192.0.2.50\""}));
}

TEST_F(StateTest, ADamagedFileIsLoggedAndMovedAsideAndThePortStartsEmpty) {
   fs::create_directories(dir);
   std::ofstream(dir + "/port-0x10.state") << "garbage";
   std::ofstream(dir + "/agent-order.json") << "{\"version\": 1, \"bindings\": [{\"portID\": ";
   FakeHost host;
   Agent agent(host.Host());
   agent.Apply(MustParse(kPolicy), 0, nullptr);
   host.logs.clear();
   agent.RestoreState(dir);
   EXPECT_EQ(host.logs, (std::vector<std::string>{
                            "agent: " + dir + "/agent-order.json is damaged; moved aside to " + dir +
                                "/agent-order.json.damaged",
                            "agent: port 0x10: " + dir + "/port-0x10.state does not restore (status "
                                "0xbad0001); the port starts empty; moved aside to " + dir +
                                "/port-0x10.state.damaged",
                        }));
   EXPECT_TRUE(fs::exists(dir + "/port-0x10.state.damaged"));
   EXPECT_TRUE(fs::exists(dir + "/agent-order.json.damaged"));
   EXPECT_FALSE(fs::exists(dir + "/port-0x10.state"));
   EXPECT_EQ(agent.Counters()["restored"], 0u);
   EXPECT_EQ(agent.Counters()["bindings"], 0u);
}

TEST_F(StateTest, NoStateDirectoryIsAnEmptyStart) {
   FakeHost host;
   Agent agent(host.Host());
   agent.Apply(MustParse(kPolicy), 0, nullptr);
   host.lines.clear();
   host.logs.clear();
   agent.RestoreState(dir);
   EXPECT_TRUE(host.lines.empty());
   EXPECT_TRUE(host.logs.empty());
}

TEST_F(StateTest, WithoutAManagedPortTheDirectoryIsLeftAlone) {
   fs::create_directories(dir);
   std::ofstream(dir + "/agent-order.json") << "{}";
   std::ofstream(dir + "/port-0x10.state") << "saved\n[]";
   FakeHost host;
   Agent agent(host.Host());
   agent.RestoreState(dir);
   EXPECT_TRUE(host.lines.empty());
   EXPECT_TRUE(host.logs.empty());
   EXPECT_TRUE(fs::exists(dir + "/agent-order.json"));
   EXPECT_TRUE(fs::exists(dir + "/port-0x10.state"));
}

TEST_F(StateTest, NothingIsSavedWithoutAManagedPort) {
   FakeHost host;
   Agent agent(host.Host());
   agent.SaveState(dir);
   EXPECT_FALSE(fs::exists(dir));
   EXPECT_TRUE(host.lines.empty());
}

/* Messages from one thread while another ticks, reloads and reads: the
 * agent's lock keeps its state whole, and the end is the same as in one
 * thread. */
TEST(AgentThreads, MessagesTicksReloadsAndReadsFromSeveralThreads) {
   std::mutex mu;
   FakeHost host;
   std::vector<std::string> security;
   std::vector<std::string> logs;
   AgentHost h;
   h.run = [&](const std::string &line) {
      std::lock_guard<std::mutex> lock(mu);
      if (line.rfind("security 0x10 ", 0) == 0) security.push_back(line);
      return AgentJson{{"ok", true}, {"status", 0}, {"bindings", AgentJson::array()}};
   };
   h.ports = [&]() { return host.ports; };
   h.log = [&](const std::string &text) {
      std::lock_guard<std::mutex> lock(mu);
      logs.push_back(text);
   };
   Agent agent(h);
   Policy policy = MustParse(kPolicy);
   agent.Apply(policy, 0, nullptr);
   constexpr int kBindings = 100;
   std::thread messages([&] {
      for (int i = 1; i <= kBindings; i++) {
         std::string ip = "198.51.100." + std::to_string(i);
         agent.OnMessage(Message(true, 0x10, kMac1, ip, 1));
         /* The same address on the other port: a conflict. */
         agent.OnMessage(Message(true, 0x20, kMac2, ip, 2));
         if (i % 2 == 0) agent.OnMessage(Message(false, 0x10, kMac1, ip, 1));
      }
   });
   std::thread ticks([&] {
      for (int i = 1; i <= 300; i++) {
         agent.Tick(i * 0.01);
         if (i % 50 == 0) agent.Apply(policy, i * 0.01, nullptr);
         (void)agent.Counters();
         if (i % 10 == 0) (void)agent.Conflicts();
         (void)agent.PolicyOf(0x10);
      }
   });
   messages.join();
   ticks.join();
   agent.Tick(10);
   /* Port 0x10 keeps the odd addresses; port 0x20 took the even ones once
    * 0x10 let them go, and waits for the odd ones. */
   AgentJson counters = agent.Counters();
   EXPECT_EQ(counters["bindings"], kBindings);
   EXPECT_EQ(counters["pendingWrites"], 0u);
   EXPECT_EQ(agent.Conflicts().size(), static_cast<size_t>(kBindings / 2));
   std::string expected = kSec10;
   for (int i = 1; i <= kBindings; i += 2) {
      expected += ";vlan=0,mac=" + kMac1 + ",ip=198.51.100." + std::to_string(i);
   }
   std::lock_guard<std::mutex> lock(mu);
   ASSERT_FALSE(security.empty());
   EXPECT_EQ(security.back(), expected + "\"");
   /* Paced: never two writes of the port within 100 ms of ticks. */
   EXPECT_LE(security.size(), 31u + 1u);
}

} // namespace
} // namespace vigild
