/*
 * vigilsim's commands of a port's saved state and of the live upgrade, on
 * small scripts: migrate over Transit and over RTM, save and restore
 * through a file and through bytes, cut and foreign buffers, a buffer
 * smaller than the size, the V1 layout, the live-upgrade service's event,
 * a whole live upgrade, and what the commands refuse.
 */
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::ordered_json;
using Lines = std::vector<std::string>;

struct Outcome {
   std::vector<std::string> lines; /* standard output */
   std::string err;                /* standard error */
   int status = -1;
   std::map<std::string, std::string> files; /* hex of the files asked for */
};

std::string Hex(const std::string &bytes) {
   static const char digits[] = "0123456789abcdef";
   std::string out;
   for (unsigned char c : bytes) {
      out += digits[c >> 4];
      out += digits[c & 15];
   }
   return out;
}

/* Runs vigilsim on `script` (the file script.vsim of a fresh directory,
 * which is also its working directory) with `options` before it; the
 * files named in `keep` are read back before the directory goes. */
Outcome Vigilsim(const std::string &script, const std::string &options = "",
                 const std::vector<std::string> &keep = {}) {
   char dir[] = "/tmp/vigilsim-migration-XXXXXX";
   if (mkdtemp(dir) == nullptr) {
      ADD_FAILURE() << "mkdtemp";
      return {};
   }
   const std::string d = dir;
   std::ofstream(d + "/script.vsim") << script;
   std::string cmd = "cd " + d + " && " VIGILSIM " " + options + " script.vsim >out 2>err";
   int rc = std::system(cmd.c_str());
   Outcome run;
   run.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
   std::ifstream out(d + "/out");
   for (std::string line; std::getline(out, line);) run.lines.push_back(line);
   std::stringstream err;
   err << std::ifstream(d + "/err").rdbuf();
   run.err = err.str();
   for (const std::string &name : keep) {
      std::ifstream in(d + "/" + name, std::ios::binary);
      if (!in) {
         run.files[name] = "(missing)";
         continue;
      }
      run.files[name] = Hex(std::string(std::istreambuf_iterator<char>(in),
                                        std::istreambuf_iterator<char>()));
   }
   std::system(("rm -rf " + d).c_str());
   return run;
}

std::vector<std::string> After(const Outcome &run, size_t skip) {
   if (run.lines.size() < skip) return run.lines;
   return std::vector<std::string>(run.lines.begin() + static_cast<long>(skip), run.lines.end());
}

Json Parse(const std::string &line) {
   Json j = Json::parse(line, nullptr, false);
   EXPECT_FALSE(j.is_discarded()) << line;
   return j;
}

/* Port 0x10 on vs0, ports 0x20 and 0x30 on vs1, each enabled with ARP, DHCP,
 * ND and DHCPv6 snooping.  Port 0x10 learns a DHCP binding 192.0.2.60
 * (lease 300 s, no client id), an ARP binding 192.0.2.51, an ND binding
 * fe80::ff:fe00:10 and a DHCPv6 binding 2001:db8::50 (valid 7200 s,
 * preferred 3600 s, IAID 1, the VM's DUID-LL as client id).  21 lines. */
const char *const kSetup = R"(load
portset add vs0
portset add vs1
port add vs0 0x10
port add vs1 0x20
port add vs1 0x30
prop write 0x10 enabled text:true
prop write 0x20 enabled text:true
prop write 0x30 enabled text:true
discovery 0x10 arp=1 dhcp=1
discovery6 0x10 nd=1 dhcpv6=1
discovery 0x20 arp=1 dhcp=1
discovery6 0x20 nd=1 dhcpv6=1
discovery 0x30 arp=1 dhcp=1
discovery6 0x30 nd=1 dhcpv6=1
tx 0x10 dhcp:type=request,xid=0x1060
rx 0x10 dhcp:type=ack,xid=0x1060,yiaddr=192.0.2.60,lease=300
tx 0x10 arp:spa=192.0.2.51,tpa=192.0.2.51
tx 0x10 ns:
tx 0x10 dhcpv6:type=solicit,xid=0x1001,opt=14=
rx 0x10 dhcpv6:type=reply,xid=0x1001,opt=14=
)";
constexpr size_t kSetupLines = 21;

/* What port 0x10 saves at uptime 1000 in the TLV layout, 268 bytes:
 *   0  header: magic 0x5011d1f1ed, version 100
 *  12  type 2, length 104: 2 entries, 0 client id bytes
 *  24    DHCP 192.0.2.60, 300 s left, client MAC, lease 300
 *  72    ARP 192.0.2.51, 600 s left
 * 120  type 5, length 8: no expired IPv4 binding
 * 132  type 3, length 36: 1 entry, ND fe80::ff:fe00:10, 600 s left
 * 172  type 6, length 4: no expired ND binding
 * 180  type 4, length 84: 1 entry, DHCPv6 2001:db8::50, 7200 s left,
 *        IAID 1, server fe80::ff:fe00:1, valid 7200, preferred 3600,
 *        10 bytes of client id and the 8 bytes behind it */
const std::string kHeader = "edf1d1115000000064000000";
const std::string kIpv4Tlv =
   "020068000200000000000000"
   "0000020000000010c000023c010000002c01000000000000"
   "020000000010" "0000" "0000000000000000" "00000000" "2c010000"
   "0000020000000010c0000233020000005802000000000000"
   "000000000000000000000000000000000000000000000000";
const std::string kExpiredIpv4Tlv = "050008000000000000000000";
const std::string kNdTlv = "0300240001000000"
                           "0000020000000010fe80000000000000000000fffe0000105802000000000000";
const std::string kExpiredNdTlv = "0600040000000000";
const std::string kDhcp6Tlv =
   "0400540001000000"
   "000002000000001020010db8000000000000000000000050201c000000000000"
   "01000000fe80000000000000000000fffe000001201c0000100e00000a00"
   "000300010200000000100000000000000000";
const std::string kBuffer = kHeader + kIpv4Tlv + kExpiredIpv4Tlv + kNdTlv + kExpiredNdTlv + kDhcp6Tlv;

TEST(VigilsimMigration, TheSavedBytesAreThoseOfTheLayout) {
   EXPECT_EQ(kBuffer.size(), 2u * 268);
}

TEST(VigilsimMigration, MigrateOverTransitCarriesEveryKindOfBinding) {
   Outcome run = Vigilsim(std::string(kSetup) + "migrate 0x10 0x20\nbindings 0x10\nbindings 0x20\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(run.err, "");
   ASSERT_EQ(run.lines.size(), kSetupLines + 3);
   EXPECT_EQ(run.lines[kSetupLines],
             R"j({"cmd":"migrate","ok":true,"carrier":"transit","src":16,"dst":32,"size":268,)j"
             R"j("bufLen":268,"saveStatus":0,"dataLen":268,"restoreStatus":0,"elapsedMS":0,)j"
             R"j("buffer":")j" + kBuffer + R"j("})j");
   Json src = Parse(run.lines[kSetupLines + 1]);
   Json dst = Parse(run.lines[kSetupLines + 2]);
   ASSERT_EQ(src["bindings"].size(), 4u);
   EXPECT_EQ(src["bindings"], dst["bindings"]);
}

TEST(VigilsimMigration, MigrateOverRtmNeedsTheModulesClientThenCarriesTheSame) {
   Outcome run = Vigilsim(std::string(kSetup) +
                          "migrate 0x10 0x20 carrier=rtm\n"
                          "rtm announce\n"
                          "migrate 0x10 0x20 carrier=rtm\n"
                          "bindings 0x10\nbindings 0x20\n");
   EXPECT_EQ(run.status, 1);
   ASSERT_EQ(run.lines.size(), kSetupLines + 5);
   EXPECT_EQ(run.lines[kSetupLines],
             R"j({"cmd":"migrate","ok":false,"error":"script.vsim:22: the module has no RTM )j"
             R"j(client: the live-upgrade service has not been announced to it (rtm announce), )j"
             R"j(or it did not register"})j");
   EXPECT_EQ(run.lines[kSetupLines + 2],
             R"j({"cmd":"migrate","ok":true,"carrier":"rtm","src":16,"dst":32,"size":268,)j"
             R"j("sizeStatus":0,"bufLen":268,"saveStatus":0,"dataLen":268,"restoreStatus":0,)j"
             R"j("elapsedMS":0,"buffer":")j" + kBuffer + R"j("})j");
   Json src = Parse(run.lines[kSetupLines + 3]);
   Json dst = Parse(run.lines[kSetupLines + 4]);
   ASSERT_EQ(src["bindings"].size(), 4u);
   EXPECT_EQ(src["bindings"], dst["bindings"]);
}

/* A DHCP binding's client id travels behind its entry (and the sender's
 * pointer to it within, which the restore never uses). */
TEST(VigilsimMigration, ADhcpClientIdTravelsWithItsBinding) {
   Outcome run = Vigilsim("load\nportset add vs0\nport add vs0 0x10\nport add vs0 0x20\n"
                          "prop write 0x10 enabled text:true\nprop write 0x20 enabled text:true\n"
                          "discovery 0x10 dhcp=1\ndiscovery 0x20 dhcp=1\n"
                          "tx 0x10 dhcp:type=request,xid=0x1060,client-id=01aabb\n"
                          "rx 0x10 dhcp:type=ack,xid=0x1060,yiaddr=192.0.2.60,lease=300\n"
                          "migrate 0x10 0x20\nbindings 0x10\nbindings 0x20\nunload\n");
   EXPECT_EQ(run.status, 0);
   ASSERT_EQ(run.lines.size(), 14u);
   Json move = Parse(run.lines[10]);
   /* 12 + (12 + 48 + 3) + 12 + 8 + 8 + 8 */
   EXPECT_EQ(move["dataLen"], 111);
   EXPECT_EQ(move["restoreStatus"], 0);
   const std::string buffer = move["buffer"];
   EXPECT_EQ(buffer.substr(2 * 24, 2 * 31),
             "0000020000000010c000023c010000002c01000000000000020000000010" "03");
   EXPECT_EQ(buffer.substr(2 * 72, 2 * 3), "01aabb");
   Json src = Parse(run.lines[11]);
   ASSERT_EQ(src["bindings"].size(), 1u);
   EXPECT_EQ(src["bindings"][0]["clientId"], "01aabb");
   EXPECT_EQ(src["bindings"], Parse(run.lines[12])["bindings"]);
   EXPECT_EQ(run.lines[13],
             R"j({"cmd":"unload","ok":true,"leaks":0,"leakBytes":0,"framesLive":0,"heapsLive":0,"callbacksLeft":0})j");
}

/* The file holds exactly the bytes saved.  A restore of a file that save
 * wrote counts the time since that save; the restore starts each saved
 * remaining time at its own moment, so every expiry on port 0x20 lies 30 s
 * after the one on port 0x10. */
TEST(VigilsimMigration, SaveWritesTheBytesToAFileAndRestoreReadsThemBack) {
   Outcome run = Vigilsim(std::string(kSetup) +
                              "save 0x10 state.bin\n"
                              "advance 30\n"
                              "restore 0x20 state.bin\n"
                              "bindings 0x10\nbindings 0x20\n",
                          "", {"state.bin"});
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(run.files["state.bin"], kBuffer);
   ASSERT_EQ(run.lines.size(), kSetupLines + 5);
   EXPECT_EQ(run.lines[kSetupLines],
             R"j({"cmd":"save","ok":true,"portID":16,"carrier":"transit","file":"state.bin",)j"
             R"j("size":268,"bufLen":268,"saveStatus":0,"dataLen":268})j");
   EXPECT_EQ(run.lines[kSetupLines + 2],
             R"j({"cmd":"restore","ok":true,"portID":32,"carrier":"transit","bufLen":268,)j"
             R"j("elapsedMS":30000,"status":0})j");
   Json src = Parse(run.lines[kSetupLines + 3])["bindings"];
   Json dst = Parse(run.lines[kSetupLines + 4])["bindings"];
   ASSERT_EQ(src.size(), 4u);
   ASSERT_EQ(dst.size(), 4u);
   for (size_t i = 0; i < 4; i++) {
      Json moved = src[i];
      moved["expiryTs"] = src[i]["expiryTs"].get<int64_t>() + 30;
      EXPECT_EQ(dst[i], moved) << i;
   }
}

TEST(VigilsimMigration, RestoreTakesBytesAndTheElapsedTimeGiven) {
   Outcome run = Vigilsim(std::string(kSetup) +
                          "restore 0x20 hex:" + kBuffer + " elapsed=5000\n"
                          "restore 0x30 file:state.bin\n"
                          "bindings 0x10\nbindings 0x20\n");
   EXPECT_EQ(run.status, 1);
   ASSERT_EQ(run.lines.size(), kSetupLines + 4);
   EXPECT_EQ(After(run, kSetupLines)[0],
             R"j({"cmd":"restore","ok":true,"portID":32,"carrier":"transit","bufLen":268,)j"
             R"j("elapsedMS":5000,"status":0})j");
   EXPECT_EQ(After(run, kSetupLines)[1],
             R"j({"cmd":"restore","ok":false,"error":"script.vsim:23: cannot read file state.bin"})j");
   EXPECT_EQ(Parse(run.lines[kSetupLines + 2])["bindings"],
             Parse(run.lines[kSetupLines + 3])["bindings"]);
}

/* The module's answers to buffers that are cut or not its own: a buffer
 * shorter than the header 0xbad0001; a wrong magic or version 0xbad0007; a
 * TLV buffer cut inside its second entry 0 with the first binding restored;
 * a V1 buffer cut inside its entries 0xbad0001 with nothing restored;
 * nothing at all 0; a port without a filter 0xbad0003. */
TEST(VigilsimMigration, RestoreOfCutAndForeignBuffersAnswersAsTheModuleDoes) {
   const std::string v1Cut = "edf1d1115000000001000000" + std::string(2 * 116, '0') +
                             "0100000000000000" + "0000020000000010c0000233020000";
   Outcome run = Vigilsim(std::string(kSetup) +
                          "port add vs1 0x40\n"
                          "restore 0x20 hex:edf1d11150000000\n"
                          "restore 0x20 hex:00f1d1115000000064000000\n"
                          "restore 0x20 hex:edf1d1115000000005000000\n"
                          "restore 0x30 hex:" + v1Cut + "\n"
                          "restore 0x20 hex:" + kBuffer.substr(0, 2 * 100) + "\n"
                          "restore 0x20 empty\n"
                          "restore 0x40 hex:" + kBuffer + "\n"
                          "bindings 0x20\nstate 0x30 numVmis\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(After(run, kSetupLines + 1),
             Lines({R"j({"cmd":"restore","ok":true,"portID":32,"carrier":"transit","bufLen":8,"elapsedMS":0,"status":195887105})j",
                    R"j({"cmd":"restore","ok":true,"portID":32,"carrier":"transit","bufLen":12,"elapsedMS":0,"status":195887111})j",
                    R"j({"cmd":"restore","ok":true,"portID":32,"carrier":"transit","bufLen":12,"elapsedMS":0,"status":195887111})j",
                    R"j({"cmd":"restore","ok":true,"portID":48,"carrier":"transit","bufLen":151,"elapsedMS":0,"status":195887105})j",
                    R"j({"cmd":"restore","ok":true,"portID":32,"carrier":"transit","bufLen":100,"elapsedMS":0,"status":0})j",
                    R"j({"cmd":"restore","ok":true,"portID":32,"carrier":"transit","bufLen":0,"elapsedMS":0,"status":0})j",
                    R"j({"cmd":"restore","ok":true,"portID":64,"carrier":"transit","bufLen":268,"elapsedMS":0,"status":195887107})j",
                    R"j({"cmd":"bindings","ok":true,"portID":32,"bindings":[{"vlanId":0,"mac":"02:00:00:00:00:10","ip":"192.0.2.60","discMethod":1,"expiryTs":1300,"expired":false,"clientMac":"02:00:00:00:00:10","clientIdLen":0,"clientId":"","serverIp":"0.0.0.0","leaseTime":300}]})j",
                    R"j({"cmd":"state","ok":true,"portID":48,"filter":{"numVmis":0}})j"}));
}

/* A buffer smaller than the size saves nothing (dataLen 0), and the
 * destination is handed nothing; a buffer of 0 bytes is not handed over at
 * all.  save writes an empty file then. */
TEST(VigilsimMigration, ABufferSmallerThanTheSizeSavesNothing) {
   Outcome run = Vigilsim(std::string(kSetup) +
                              "migrate 0x10 0x20 bufLen=267\n"
                              "migrate 0x10 0x20 bufLen=0 carrier=transit\n"
                              "save 0x10 small.bin bufLen=20\n"
                              "state 0x20 numVmis numNdEntries numDhcpV6Entries\n",
                          "", {"small.bin"});
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(run.files["small.bin"], "");
   EXPECT_EQ(After(run, kSetupLines),
             Lines({R"j({"cmd":"migrate","ok":true,"carrier":"transit","src":16,"dst":32,"size":268,"bufLen":267,"saveStatus":0,"dataLen":0,"restoreStatus":0,"elapsedMS":0,"buffer":""})j",
                    R"j({"cmd":"migrate","ok":true,"carrier":"transit","src":16,"dst":32,"size":268,"bufLen":0,"saveStatus":0,"dataLen":0,"restoreStatus":0,"elapsedMS":0,"buffer":""})j",
                    R"j({"cmd":"save","ok":true,"portID":16,"carrier":"transit","file":"small.bin","size":268,"bufLen":20,"saveStatus":0,"dataLen":0})j",
                    R"j({"cmd":"state","ok":true,"portID":32,"filter":{"numVmis":0,"numNdEntries":0,"numDhcpV6Entries":0}})j"}));
}

/* saveVersion 1: the V1 layout, the header, 116 bytes left as they were
 * (zero), the count at 128, the client id total at 132 and the running
 * IPv4 bindings from 136; the IPv6 bindings stay behind. */
TEST(VigilsimMigration, ModuleSetSaveVersion1MigratesInTheV1Layout) {
   Outcome run = Vigilsim(std::string(kSetup) +
                          "module set saveVersion=1\n"
                          "migrate 0x10 0x30\n"
                          "bindings 0x10\nbindings 0x30\n");
   EXPECT_EQ(run.status, 0);
   ASSERT_EQ(run.lines.size(), kSetupLines + 4);
   const std::string v1 = "edf1d1115000000001000000" + std::string(2 * 116, '0') +
                          "0200000000000000" + kIpv4Tlv.substr(2 * 12);
   EXPECT_EQ(run.lines[kSetupLines + 1],
             R"j({"cmd":"migrate","ok":true,"carrier":"transit","src":16,"dst":48,"size":232,)j"
             R"j("bufLen":232,"saveStatus":0,"dataLen":232,"restoreStatus":0,"elapsedMS":0,)j"
             R"j("buffer":")j" + v1 + R"j("})j");
   Json src = Parse(run.lines[kSetupLines + 2])["bindings"];
   Json dst = Parse(run.lines[kSetupLines + 3])["bindings"];
   ASSERT_EQ(src.size(), 4u);
   EXPECT_EQ(dst, Json({src[0], src[1]}));
}

/* The module registers its client with its operations for the version it
 * speaks, without them for a newer one, not at all for another build or
 * without the service's register function; a withdrawal unregisters it,
 * unless the service's unregister function is missing. */
/* "status" is what the module's event callback answered: a version above
 * its own still registers (without a table), another build is skipped with
 * 0, and a record without the service's function is refused (0xbad0007). */
TEST(VigilsimMigration, RtmAnnounceAndWithdraw) {
   Outcome run = Vigilsim("host build=7100\nload\n"
                          "rtm announce version=2\n"
                          "rtm withdraw\n"
                          "rtm announce build=7000\n"
                          "rtm announce register=0\n"
                          "rtm announce\n"
                          "rtm withdraw unregister=0\n"
                          "rtm withdraw\n"
                          "unload\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(After(run, 2),
             Lines({R"j({"cmd":"rtm","ok":true,"status":0,"announced":true,"version":2,"build":7100,"client":{"name":"port-vigil","moduleID":29,"withOps":false},"serviceClients":1})j",
                    R"j({"cmd":"rtm","ok":true,"status":0,"announced":false,"version":2,"build":7100,"client":null,"serviceClients":0})j",
                    R"j({"cmd":"rtm","ok":true,"status":0,"announced":true,"version":1,"build":7000,"client":null,"serviceClients":0})j",
                    R"j({"cmd":"rtm","ok":true,"status":195887111,"announced":true,"version":1,"build":7100,"client":null,"serviceClients":0})j",
                    R"j({"cmd":"rtm","ok":true,"status":0,"announced":true,"version":1,"build":7100,"client":{"name":"port-vigil","moduleID":29,"withOps":true},"serviceClients":1})j",
                    R"j({"cmd":"rtm","ok":true,"status":195887111,"announced":false,"version":1,"build":7100,"client":{"name":"port-vigil","moduleID":29,"withOps":true},"serviceClients":1})j",
                    R"j({"cmd":"rtm","ok":true,"status":0,"announced":false,"version":1,"build":7100,"client":null,"serviceClients":0})j",
                    R"j({"cmd":"unload","ok":true,"leaks":0,"leakBytes":0,"framesLive":0,"heapsLive":0,"callbacksLeft":0})j"}));
}

/* A whole live upgrade: every enabled port's state is carried into the new
 * copy, the old copy leaves nothing in its heap, and every command after it
 * addresses the new copy. */
TEST(VigilsimMigration, UpgradeCarriesTheBindingsIntoTheNewCopy) {
   Outcome run = Vigilsim(std::string(kSetup) +
                          "bindings 0x10\n"
                          "upgrade\n"
                          "bindings 0x10\n"
                          "state 0x20 numVmis numNdEntries\n"
                          "module numFilters isLiveUpgrade isLiveUpgradeFromMod\n"
                          "tx 0x10 arp:spa=192.0.2.52,tpa=192.0.2.52\n"
                          "state 0x10 numArpVmis\n"
                          "check\n"
                          "unload\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(run.err, "");
   ASSERT_EQ(run.lines.size(), kSetupLines + 9);
   EXPECT_EQ(run.lines[kSetupLines + 1],
             R"j({"cmd":"upgrade","ok":true,"status":0,"ports":[16,32,48],"oldLeaks":0,)j"
             R"j("oldLeakBytes":0,"oldCallbacksLeft":0,"initResult":0,"oldClient":true,)j"
             R"j("newClient":true,"perPort":[)j"
             R"j({"portID":16,"sizeStatus":0,"size":268,"saveStatus":0,"dataLen":268,"restoreStatus":0,"elapsedMS":0},)j"
             R"j({"portID":32,"sizeStatus":0,"size":60,"saveStatus":0,"dataLen":60,"restoreStatus":0,"elapsedMS":0},)j"
             R"j({"portID":48,"sizeStatus":0,"size":60,"saveStatus":0,"dataLen":60,"restoreStatus":0,"elapsedMS":0}]})j");
   EXPECT_EQ(Parse(run.lines[kSetupLines])["bindings"],
             Parse(run.lines[kSetupLines + 2])["bindings"]);
   EXPECT_EQ(After(run, kSetupLines + 3),
             Lines({R"j({"cmd":"state","ok":true,"portID":32,"filter":{"numVmis":0,"numNdEntries":0}})j",
                    R"j({"cmd":"module","ok":true,"numFilters":3,"isLiveUpgrade":1,"isLiveUpgradeFromMod":0})j",
                    R"j({"cmd":"tx","ok":true,"portID":16,"status":0,"verdicts":["forward"]})j",
                    R"j({"cmd":"state","ok":true,"portID":16,"filter":{"numArpVmis":2}})j",
                    R"j({"cmd":"check","ok":true,"filters":3,"violations":[]})j",
                    R"j({"cmd":"unload","ok":true,"leaks":0,"leakBytes":0,"framesLive":0,"heapsLive":0,"callbacksLeft":0})j"}));
}

/* A port that isn't enabled is not asked for its state. */
TEST(VigilsimMigration, UpgradeLeavesAPortThatIsNotEnabled) {
   Outcome run = Vigilsim("load\nportset add vs0\nport add vs0 0x10 enabled=0\n"
                          "upgrade\nunload\n");
   EXPECT_EQ(run.status, 0);
   EXPECT_EQ(After(run, 3),
             Lines({R"j({"cmd":"upgrade","ok":true,"status":0,"ports":[],"oldLeaks":0,"oldLeakBytes":0,"oldCallbacksLeft":0,"initResult":0,"oldClient":true,"newClient":true,"perPort":[]})j",
                    R"j({"cmd":"unload","ok":true,"leaks":0,"leakBytes":0,"framesLive":0,"heapsLive":0,"callbacksLeft":0})j"}));
}

TEST(VigilsimMigration, CommandsRefuseWhatTheyCannotCarry) {
   Outcome run = Vigilsim("portset add vs0\nport add vs0 0x10\nport add vs0 0x20\n"
                          "migrate 0x10 0x20\n"
                          "save 0x10 x.bin\n"
                          "restore 0x10 hex:00\n"
                          "rtm announce\n"
                          "rtm withdraw\n"
                          "upgrade\n"
                          "load\n"
                          "migrate 0x10 0x30\n"
                          "migrate 0x10\n"
                          "migrate 0x10 0x20 carrier=wire\n"
                          "migrate 0x10 0x20 bufLen=0x4000001\n"
                          "migrate 0x10 0x20 elapsed=-1\n"
                          "migrate 0x10 0x20 bogus=1\n"
                          "save 0x10 /nonexistent/x.bin\n"
                          "restore 0x10 missing.bin\n"
                          "restore 0x10 hex:0\n"
                          "restore 0x10 hex:00 carrier=rtm\n"
                          "rtm\n"
                          "rtm announce version=0x80000000\n"
                          "rtm announce register=2\n"
                          "upgrade module=/nonexistent/vigil.so\n"
                          "upgrade now\n"
                          "fault call FABTransitClientRuntimeRegister 0xbad0001\n"
                          "portset add vs1\n"
                          "port add vs1 0x30\n"
                          "migrate 0x10 0x30\n"
                          "unload\n",
                          "--module " VIGIL_SO);
   EXPECT_EQ(run.status, 1);
   EXPECT_EQ(run.lines,
             Lines({R"j({"cmd":"portset","ok":true,"portset":"vs0"})j",
                    R"j({"cmd":"port","ok":true,"portID":16})j",
                    R"j({"cmd":"port","ok":true,"portID":32})j",
                    R"j({"cmd":"migrate","ok":false,"error":"script.vsim:4: no module is loaded"})j",
                    R"j({"cmd":"save","ok":false,"error":"script.vsim:5: no module is loaded"})j",
                    R"j({"cmd":"restore","ok":false,"error":"script.vsim:6: no module is loaded"})j",
                    R"j({"cmd":"rtm","ok":false,"error":"script.vsim:7: no module is loaded"})j",
                    R"j({"cmd":"rtm","ok":false,"error":"script.vsim:8: no module is loaded"})j",
                    R"j({"cmd":"upgrade","ok":false,"error":"script.vsim:9: no module is loaded"})j",
                    R"j({"cmd":"load","ok":true,"status":0,"module":")j" VIGIL_SO R"j("})j",
                    R"j({"cmd":"migrate","ok":false,"error":"script.vsim:11: unknown port 0x30"})j",
                    R"j({"cmd":"migrate","ok":false,"error":"script.vsim:12: usage: migrate SRC DST [carrier=transit|rtm] [elapsed=MS] [bufLen=N]"})j",
                    R"j({"cmd":"migrate","ok":false,"error":"script.vsim:13: bad carrier= 'wire': transit or rtm"})j",
                    R"j({"cmd":"migrate","ok":false,"error":"script.vsim:14: bad bufLen= '0x4000001': at most 67108864"})j",
                    R"j({"cmd":"migrate","ok":false,"error":"script.vsim:15: bad elapsed= '-1': not a number"})j",
                    R"j({"cmd":"migrate","ok":false,"error":"script.vsim:16: unknown option bogus= for migrate (known: bufLen=, carrier=, elapsed=)"})j",
                    R"j({"cmd":"save","ok":false,"error":"script.vsim:17: cannot write file /nonexistent/x.bin"})j",
                    R"j({"cmd":"restore","ok":false,"error":"script.vsim:18: cannot read file missing.bin"})j",
                    R"j({"cmd":"restore","ok":false,"error":"script.vsim:19: bad hex bytes: an odd number of hex digits"})j",
                    R"j({"cmd":"restore","ok":false,"error":"script.vsim:20: the module has no RTM client: the live-upgrade service has not been announced to it (rtm announce), or it did not register"})j",
                    R"j({"cmd":"rtm","ok":false,"error":"script.vsim:21: usage: rtm announce [version=N] [build=N] [register=0|1] | rtm withdraw [unregister=0|1]"})j",
                    R"j({"cmd":"rtm","ok":false,"error":"script.vsim:22: bad version=: out of range"})j",
                    R"j({"cmd":"rtm","ok":false,"error":"script.vsim:23: bad register= '2': 0 or 1"})j",
                    R"j({"cmd":"upgrade","ok":false,"error":"script.vsim:24: cannot read module /nonexistent/vigil.so"})j",
                    R"j({"cmd":"upgrade","ok":false,"error":"script.vsim:25: usage: upgrade [module=PATH]"})j",
                    R"j({"cmd":"fault","ok":true,"name":"FABTransitClientRuntimeRegister","returns":195887105,"count":1,"after":0})j",
                    R"j({"cmd":"portset","ok":true,"portset":"vs1"})j",
                    R"j({"cmd":"port","ok":true,"portID":48})j",
                    R"j({"cmd":"migrate","ok":false,"error":"script.vsim:29: portset vs1 of port 0x30 has no Transit client"})j",
                    R"j({"cmd":"unload","ok":true,"leaks":0,"leakBytes":0,"framesLive":0,"heapsLive":0,"callbacksLeft":0})j"}));
}

/* A file that is no module can't be loaded beside the old copy, which
 * stays and goes on answering. */
TEST(VigilsimMigration, UpgradeToAFileThatIsNoModuleKeepsTheOldCopy) {
   Outcome run = Vigilsim("load\nportset add vs0\nport add vs0 0x10\n"
                          "prop write 0x10 enabled text:true\n"
                          "upgrade module=script.vsim\n"
                          "module numFilters\nunload\n");
   EXPECT_EQ(run.status, 1);
   ASSERT_EQ(run.lines.size(), 7u);
   EXPECT_EQ(run.lines[4].rfind(R"j({"cmd":"upgrade","ok":false,"error":"script.vsim:5: cannot load the new copy: )j", 0), 0u)
      << run.lines[4];
   EXPECT_EQ(run.lines[5], R"j({"cmd":"module","ok":true,"numFilters":1})j");
   EXPECT_EQ(run.lines[6].rfind(R"j({"cmd":"unload","ok":true,"leaks":0,)j", 0), 0u) << run.lines[6];
}

TEST(VigilsimMigration, TextViews) {
   Outcome run = Vigilsim(std::string(kSetup) +
                              "migrate 0x10 0x20 bufLen=20\n"
                              "save 0x10 state.bin\n"
                              "restore 0x20 state.bin elapsed=1500\n"
                              "rtm announce\n"
                              "upgrade\n",
                          "--text");
   EXPECT_EQ(run.status, 0);
   std::string out;
   for (const std::string &line : run.lines) out += line + "\n";
   EXPECT_NE(out.find("> migrate 0x10 0x20 bufLen=20\n"
                      "    port 0x10 to port 0x20 over transit\n"
                      "    size 268, buffer of 20 bytes, 0 bytes saved, save status 0x0 (Success)\n"
                      "    0 bytes restored after 0 ms, status 0x0 (Success)\n"
                      "> save 0x10 state.bin\n"
                      "    port 0x10 over transit to state.bin\n"
                      "    size 268, buffer of 268 bytes, 268 bytes saved, save status 0x0 (Success)\n"
                      "> restore 0x20 state.bin elapsed=1500\n"
                      "    port 0x20 over transit: 268 bytes after 1500 ms, status 0x0 (Success)\n"
                      "> rtm announce\n"
                      "    service announced, version 1, build 7000\n"
                      "    the module's client port-vigil, with its operations\n"
                      "> upgrade\n"
                      "    status 0x0 (Success), the new copy runs\n"
                      "    state carried for ports 0x10, 0x20, 0x30\n"
                      "    the old copy's heap: 0 leaks (0 bytes)\n"
                      "    port  size  saved  restore        elapsed\n"
                      "    0x10  268   268    0x0 (Success)  0 ms\n"
                      "    0x20  268   268    0x0 (Success)  0 ms\n"
                      "    0x30  60    60     0x0 (Success)  0 ms\n"),
             std::string::npos)
      << out;
}

TEST(VigilsimMigration, MigrateAsTextShowsTheBytesInRows) {
   Outcome run = Vigilsim("load\nportset add vs0\nport add vs0 0x10\nport add vs0 0x20\n"
                          "prop write 0x10 enabled text:true\nprop write 0x20 enabled text:true\n"
                          "migrate 0x10 0x20\n",
                          "--text");
   EXPECT_EQ(run.status, 0);
   std::string out;
   for (const std::string &line : run.lines) out += line + "\n";
   EXPECT_NE(out.find("> migrate 0x10 0x20\n"
                      "    port 0x10 to port 0x20 over transit\n"
                      "    size 60, buffer of 60 bytes, 60 bytes saved, save status 0x0 (Success)\n"
                      "    60 bytes restored after 0 ms, status 0x0 (Success)\n"
                      "    0000  ed f1 d1 11 50 00 00 00 64 00 00 00 02 00 08 00\n"
                      "    0010  00 00 00 00 00 00 00 00 05 00 08 00 00 00 00 00\n"
                      "    0020  00 00 00 00 03 00 04 00 00 00 00 00 06 00 04 00\n"
                      "    0030  00 00 00 00 04 00 04 00 00 00 00 00\n"),
             std::string::npos)
      << out;
}

} // namespace
