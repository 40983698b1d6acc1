/*
 * vigilsim as a whole on small scripts: frame specs in tx and frame, the
 * narrow views of a filter (state with fields, bindings), module values by
 * name, and commands that fail naming a symbol the module lacks.
 */
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Outcome {
   std::vector<std::string> lines; /* standard output */
   std::string err;                /* standard error */
   int status = -1;
};

/* Runs vigilsim on `script` (given as the file script.vsim of a fresh
 * directory) with `options` before it. */
Outcome Vigilsim(const std::string &script, const std::string &options = "") {
   char dir[] = "/tmp/vigilsim-views-XXXXXX";
   if (mkdtemp(dir) == nullptr) {
      ADD_FAILURE() << "mkdtemp";
      return {};
   }
   const std::string d = dir;
   std::ofstream(d + "/script.vsim") << script;
   std::string cmd = "cd " + d + " && " VIGILSIM " " + options +
                     " script.vsim >out 2>err";
   int rc = std::system(cmd.c_str());
   Outcome run;
   run.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
   std::ifstream out(d + "/out");
   for (std::string line; std::getline(out, line);) run.lines.push_back(line);
   std::stringstream err;
   err << std::ifstream(d + "/err").rdbuf();
   run.err = err.str();
   std::system(("rm -rf " + d).c_str());
   return run;
}

/* A filter on port 0x10 of portset vs0 with ARP and DHCP snooping, an ARP
 * binding 192.0.2.51 (gratuitous), a DHCP binding 192.0.2.60 with a
 * client identifier, and a pending request; port 0x20 without a filter.
 * Nine lines of output. */
const char *const kSetup = R"(load
portset add vs0
port add vs0 0x10
port add vs0 0x20
prop write 0x10 enabled text:true
discovery 0x10 arp=1 dhcp=1
tx 0x10 arp:spa=192.0.2.51,tpa=192.0.2.51 dhcp:type=request,xid=0x1060,client-id=01aabb
rx 0x10 dhcp:type=ack,xid=0x1060,yiaddr=192.0.2.60,lease=300
tx 0x10 dhcp:type=request,xid=0x1061
)";
constexpr size_t kSetupLines = 9;

std::vector<std::string> After(const Outcome &run, size_t skip) {
   if (run.lines.size() < skip) return run.lines;
   return std::vector<std::string>(run.lines.begin() + static_cast<long>(skip), run.lines.end());
}

using Lines = std::vector<std::string>;

TEST(VigilsimViews, StateWithFieldsShowsOnlyThoseInTheOrderNamed) {
   Outcome run = Vigilsim(std::string(kSetup) + "state 0x10 numDhcpReqs numVmis dhcpReqList\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(After(run, kSetupLines),
             Lines({R"j({"cmd":"state","ok":true,"portID":16,"filter":{"numDhcpReqs":1,"numVmis":2,)j"
                    R"j("dhcpReqList":[{"vlanId":0,"xid":4193,"chaddr":"02:00:00:00:00:10",)j"
                    R"j("clientIdLen":0,"clientId":"","expiryTs":1060}]}})j"}));
}

TEST(VigilsimViews, StateWithAFieldOfABlockShowsOnlyThatField) {
   Outcome run = Vigilsim(std::string(kSetup) +
                      "state 0x10 stats.statBpduDrops txBcastLimiter.limit stats.statNonIpDrops "
                      "chains\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(After(run, kSetupLines),
             Lines({R"j({"cmd":"state","ok":true,"portID":16,"filter":{"stats":{"statBpduDrops":0,)j"
                    R"j("statNonIpDrops":0},"txBcastLimiter":{"limit":0},)j"
                    R"j("chains":{"input":true,"output":true}}})j"}));
}

TEST(VigilsimViews, StateWithFieldsOfAPortWithoutAFilterIsNull) {
   Outcome run = Vigilsim(std::string(kSetup) + "state 0x20 numVmis vmiList\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(After(run, kSetupLines),
             Lines({R"j({"cmd":"state","ok":true,"portID":32,"filter":null})j"}));
}

TEST(VigilsimViews, StateWithAnUnknownFieldFailsNamingIt) {
   Outcome run = Vigilsim(std::string(kSetup) +
                      "state 0x10 numVmis numVmi\n"
                      "state 0x10 stats.numVmis\n"
                      "state 0x10 numVmis.count\n"
                      "state 0x20 bogus\n");
   EXPECT_EQ(run.status, 1);
   EXPECT_EQ(After(run, kSetupLines),
             Lines({R"j({"cmd":"state","ok":false,"error":"script.vsim:10: unknown filter field 'numVmi' (state PORTID shows every field)"})j",
                    R"j({"cmd":"state","ok":false,"error":"script.vsim:11: unknown filter field 'stats.numVmis' (stats has no field numVmis)"})j",
                    R"j({"cmd":"state","ok":false,"error":"script.vsim:12: unknown filter field 'numVmis.count' (numVmis has no fields of its own)"})j",
                    R"j({"cmd":"state","ok":false,"error":"script.vsim:13: unknown filter field 'bogus' (state PORTID shows every field)"})j"}));
}

TEST(VigilsimViews, BindingsShowEachBindingWithTheFieldsOfItsMethod) {
   Outcome run = Vigilsim(std::string(kSetup) + "bindings 0x10\nbindings 0x20\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(After(run, kSetupLines),
             Lines({R"j({"cmd":"bindings","ok":true,"portID":16,"bindings":[)j"
                    R"j({"vlanId":0,"mac":"02:00:00:00:00:10","ip":"192.0.2.60","discMethod":1,)j"
                    R"j("expiryTs":1300,"expired":false,"clientMac":"02:00:00:00:00:10",)j"
                    R"j("clientIdLen":3,"clientId":"01aabb","serverIp":"0.0.0.0","leaseTime":300},)j"
                    R"j({"vlanId":0,"mac":"02:00:00:00:00:10","ip":"192.0.2.51","discMethod":2,)j"
                    R"j("expiryTs":1600,"expired":false,"gratuitous":0}]})j",
                    R"j({"cmd":"bindings","ok":true,"portID":32,"bindings":null})j"}));
}

TEST(VigilsimViews, BindingsAsTextAreOneLinePerBinding) {
   Outcome run = Vigilsim(std::string(kSetup) + "bindings 0x10\nadvance 700\nbindings 0x10\n",
                      "--text");
   EXPECT_EQ(run.status, 0);
   std::string out;
   for (const std::string &line : run.lines) out += line + "\n";
   EXPECT_NE(out.find("> bindings 0x10\n"
                      "    vlan  mac                ip          method  expires          state   details\n"
                      "    0     02:00:00:00:00:10  192.0.2.60  DHCP    1300 (in 300 s)  active  "
                      "clientMac=02:00:00:00:00:10 clientIdLen=3 clientId=01aabb serverIp=0.0.0.0 "
                      "leaseTime=300\n"
                      "    0     02:00:00:00:00:10  192.0.2.51  ARP     1600 (in 600 s)  active  "
                      "gratuitous=0\n"
                      "> advance 700\n"
                      "    uptime 1700 s\n"
                      "> bindings 0x10\n"
                      "    no bindings\n"),
             std::string::npos)
      << out;
}

TEST(VigilsimViews, ModuleWithNamesShowsOnlyThoseValues) {
   Outcome run = Vigilsim(std::string(kSetup) + "module agingQueue numFilters\nmodule bogus\n");
   EXPECT_EQ(run.status, 1);
   EXPECT_EQ(After(run, kSetupLines),
             Lines({R"j({"cmd":"module","ok":true,"agingQueue":[{"portID":16,"key":1060}],"numFilters":1})j",
                    R"j({"cmd":"module","ok":false,"error":"script.vsim:11: unknown module value 'bogus' (values: numFilters, delOnExpiry, saveVersion, supportedTlvs, isLiveUpgrade, isLiveUpgradeFromMod, agingQueue, taskQueueCount)"})j"}));
}

/* The loader tests' module has isLiveUpgrade and none of the other
 * globals, nor the check function. */
TEST(VigilsimViews, CommandsFailNamingASymbolTheModuleLacks) {
   Outcome run = Vigilsim("load\nmodule isLiveUpgrade\nmodule numFilters\nmodule\n"
                      "portset add vs0\nport add vs0 0x10\ncheck\nunload\n",
                      "--module " FAKE_MODULE);
   EXPECT_EQ(run.status, 1);
   ASSERT_EQ(run.lines.size(), 8u);
   EXPECT_EQ(run.lines[1], R"j({"cmd":"module","ok":true,"isLiveUpgrade":0})j");
   EXPECT_EQ(run.lines[2], R"j({"cmd":"module","ok":false,"error":"script.vsim:3: the module has no symbol numFilters ()j" FAKE_MODULE R"j()"})j");
   EXPECT_EQ(run.lines[3], R"j({"cmd":"module","ok":false,"error":"script.vsim:4: the module has no symbol numFilters ()j" FAKE_MODULE R"j()"})j");
   EXPECT_EQ(run.lines[6], R"j({"cmd":"check","ok":false,"error":"script.vsim:7: the module has no symbol VigilCheckFilterTables ()j" FAKE_MODULE R"j()"})j");
}

TEST(VigilsimViews, ModuleSetWritesTheValuesGivenAndShowsThemAll) {
   Outcome run = Vigilsim("load\n"
                          "module set saveVersion=1 supportedTlvs=0x7 delOnExpiry=0\n"
                          "module set delOnExpiry=1\n"
                          "module saveVersion supportedTlvs delOnExpiry\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(After(run, 1),
             Lines({R"j({"cmd":"module set","ok":true,"numFilters":0,"delOnExpiry":0,"saveVersion":1,"supportedTlvs":7,"isLiveUpgrade":0,"isLiveUpgradeFromMod":0,"agingQueue":[],"taskQueueCount":0})j",
                    R"j({"cmd":"module set","ok":true,"numFilters":0,"delOnExpiry":1,"saveVersion":1,"supportedTlvs":7,"isLiveUpgrade":0,"isLiveUpgradeFromMod":0,"agingQueue":[],"taskQueueCount":0})j",
                    R"j({"cmd":"module","ok":true,"saveVersion":1,"supportedTlvs":7,"delOnExpiry":1})j"}));
}

/* A bad option writes nothing, not even the good options beside it. */
TEST(VigilsimViews, ModuleSetWithABadOptionFailsAndWritesNothing) {
   Outcome run = Vigilsim("module set delOnExpiry=0\n"
                          "load\n"
                          "module set saveVersion=5 delOnExpiry=2\n"
                          "module set supportedTlvs=0x100000000\n"
                          "module set saveVersion=5 bogus=1\n"
                          "module set now\n"
                          "module saveVersion supportedTlvs delOnExpiry\n"
                          "module set\n"
                          "module saveVersion supportedTlvs delOnExpiry\n");
   EXPECT_EQ(run.status, 1);
   ASSERT_EQ(run.lines.size(), 9u);
   EXPECT_EQ(run.lines[0], R"j({"cmd":"module set","ok":false,"error":"script.vsim:1: no module is loaded"})j");
   EXPECT_EQ(After(run, 2),
             Lines({R"j({"cmd":"module set","ok":false,"error":"script.vsim:3: bad delOnExpiry= '2': 0 or 1"})j",
                    R"j({"cmd":"module set","ok":false,"error":"script.vsim:4: bad supportedTlvs= '0x100000000': at most 4294967295"})j",
                    R"j({"cmd":"module set","ok":false,"error":"script.vsim:5: unknown option bogus= for module set (known: delOnExpiry=, saveVersion=, supportedTlvs=)"})j",
                    R"j({"cmd":"module set","ok":false,"error":"script.vsim:6: usage: module set [saveVersion=N] [supportedTlvs=N] [delOnExpiry=0|1]"})j",
                    R"j({"cmd":"module","ok":true,"saveVersion":100,"supportedTlvs":124,"delOnExpiry":1})j",
                    R"j({"cmd":"module set","ok":true,"numFilters":0,"delOnExpiry":1,"saveVersion":100,"supportedTlvs":124,"isLiveUpgrade":0,"isLiveUpgradeFromMod":0,"agingQueue":[],"taskQueueCount":0})j",
                    R"j({"cmd":"module","ok":true,"saveVersion":100,"supportedTlvs":124,"delOnExpiry":1})j"}));
}

/* delOnExpiry written off keeps an ARP binding past its expiry, on the
 * expired list, as a management call would. */
TEST(VigilsimViews, ModuleSetDelOnExpiryKeepsBindingsExpired) {
   Outcome run = Vigilsim(std::string(kSetup) +
                          "module set delOnExpiry=0\n"
                          "advance 601\n"
                          "state 0x10 numArpVmis numExpiredVmis\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(After(run, kSetupLines + 2),
             Lines({R"j({"cmd":"state","ok":true,"portID":16,"filter":{"numArpVmis":1,"numExpiredVmis":1}})j"}));
}

TEST(VigilsimViews, ModuleSetFailsNamingASymbolTheModuleLacksAndWritesNothing) {
   Outcome run = Vigilsim("load\nmodule set delOnExpiry=0\n", "--module " FAKE_MODULE);
   EXPECT_EQ(run.status, 1);
   ASSERT_EQ(run.lines.size(), 2u);
   EXPECT_EQ(run.lines[1], R"j({"cmd":"module set","ok":false,"error":"script.vsim:2: the module has no symbol numFilters ()j" FAKE_MODULE R"j()"})j");
}

/* mgmt on the command line: an unknown name of a port is the module's
 * answer (exit 0), a bad word is the tool's failure (exit 1). */
TEST(VigilsimViews, MgmtAnswersTheModulesStatusAsData) {
   Outcome run = Vigilsim(std::string(kSetup) + "mgmt delVmi switch=vs0 port=99 op=1\n"
                                                "mgmt delExpiry value=1\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(After(run, kSetupLines),
             Lines({R"j({"cmd":"mgmt","ok":true,"callback":"delVmi","interface":"PortVigil.7000","callbackId":18,"returned":0,"status":195887107,"record":{"status":195887107},"recordLen":4,"raw":"0300ad0b"})j",
                    R"j({"cmd":"mgmt","ok":true,"callback":"delExpiry","interface":"PortVigil.7000","callbackId":24,"returned":0,"status":0,"record":{"status":0},"recordLen":4,"raw":"00000000"})j"}));
   run = Vigilsim(std::string(kSetup) + "mgmt bogus\n");
   EXPECT_EQ(run.status, 1);
   EXPECT_EQ(After(run, kSetupLines),
             Lines({R"j({"cmd":"mgmt","ok":false,"error":"script.vsim:10: unknown management callback 'bogus' (callbacks: listVmi, listV6Vmi, getConfig, delVmi, getStatsBatch, getWhiteList, getIgnoreList, getFilteredBpduMacs, delExpiry)"})j"}));
}

TEST(VigilsimViews, TxAndRxTakeFrameSpecsBesideBytes) {
   Outcome run = Vigilsim(std::string(kSetup) + "state 0x10 numArpVmis numDhcpVmis\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(run.lines[6], R"j({"cmd":"tx","ok":true,"portID":16,"status":0,"verdicts":["forward","forward"]})j");
   EXPECT_EQ(After(run, kSetupLines),
             Lines({R"j({"cmd":"state","ok":true,"portID":16,"filter":{"numArpVmis":1,"numDhcpVmis":1}})j"}));
}

TEST(VigilsimViews, FrameShowsTheBytesOfFramesWithoutSendingThem) {
   Outcome run = Vigilsim("frame arp: eth:type=0x0806,payload=01 hex:0102\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(run.lines,
             Lines({R"j({"cmd":"frame","ok":true,"frames":[)j"
                    R"j("ffffffffffff02000000001008060001080006040001020000000010c0000232000000000000c0000201000000000000000000000000000000000000",)j"
                    R"j("020000000001020000000010080601000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000",)j"
                    R"j("0102"]})j"}));
}

TEST(VigilsimViews, VerboseShowsTheBytesOfEachFrameSpecOnStandardError) {
   Outcome run = Vigilsim("frame icmp4: hex:0102\n", "--verbose");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(run.err,
             "vigilsim: icmp4: -> 60 bytes: 0200000000010200000000100800"
             "4500001c000100004001f6acc0000232c0000201"
             "0800e5ca12340001"
             "000000000000000000000000000000000000\n");
}

TEST(VigilsimViews, BadFrameSpecsFailTheCommandNamingTheProblem) {
   Outcome run = Vigilsim("portset add vs0\nport add vs0 0x10\n"
                      "tx 0x10 udp:dport=53\nrx 0x10 arp:spa=1.2.3\nframe dhcp:lease=x\n");
   EXPECT_EQ(run.status, 1);
   EXPECT_EQ(After(run, 2),
             Lines({R"j({"cmd":"tx","ok":false,"error":"script.vsim:3: unknown frame kind 'udp' (kinds: eth, arp, ipv4, udp4, tcp4, icmp4, dhcp, bpdu, udp6, ns, na, ra, dhcpv6)"})j",
                    R"j({"cmd":"rx","ok":false,"error":"script.vsim:4: arp key spa: '1.2.3' is not an IPv4 address"})j",
                    R"j({"cmd":"frame","ok":false,"error":"script.vsim:5: dhcp key lease: 'x' is not a number"})j"}));
}

} // namespace
