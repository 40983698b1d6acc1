/*
 * The management interface as an operator's tool reaches it: through the
 * simulated host's management channel, by the interface's name and each
 * callback's id, with records of the declared sizes.  Every expected record
 * is built here from what the test put into the port (frames it sent,
 * bindings and lists it added), at the offsets of the wire format, over a
 * caller's record that held 0xaa in every byte.
 */
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ipv4_db_test.h"
#include "ipv6_db_test.h"
#include "sim_mgmt.h"
#include "vigil_config.h"
#include "vigil_dhcp.h"
#include "vigil_lifecycle.h"
#include "vigil_mgmt.h"
#include "vigil_test.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_whitelist.h"

namespace {

using Bytes = std::vector<u8>;
using Texts = std::vector<std::string>;
using addrtext::Ip;
using addrtext::MacOf;

constexpr u32 kPort = 0x10;      /* "dvs-01" "port-a", with a filter */
constexpr u32 kBarePort = 0x11;  /* "dvs-01" "port-b", without one */
constexpr u32 kOtherPort = 0x12; /* "dvs-01" "port-c", with a filter */
const char *const kSwitch = "dvs-01";
const char *const kIntf = "PortVigil.7000";
constexpr u8 kGuard = 0xaa;
constexpr u32 kGuardWord = 0xaaaaaaaau;

constexpr zek_Status kBadData = 0xbad0001;
constexpr zek_Status kNotFound = 0xbad0003;
constexpr zek_Status kBadParam = 0xbad0007;
constexpr zek_Status kNoMemory = 0xbad0014;
constexpr zek_Status kNotEnabled = 0xbad0030;

/* Callback ids and record sizes of the wire format. */
constexpr u32 kListVmi = 0x10, kGetConfig = 0x11, kDelVmi = 0x12, kStatsBatch = 0x13,
              kWhiteList = 0x14, kIgnoreList = 0x15, kBpduMacs = 0x16, kListV6Vmi = 0x17,
              kDelExpiry = 0x18;
constexpr size_t kKeyLen = 112, kListLen = 335924, kConfigLen = 3407, kDelLen = 148,
                 kStatsReqLen = 1793, kStatsLen = 2372, kWhiteListLen = 614412,
                 kIgnoreListLen = 4808, kBpduLen = 965, kStatusLen = 4;

/* Offsets in the binding list. */
constexpr size_t kV4Entry = 804, kV6Base = 308736, kV6Entry = 906, kListCount = 335916,
                 kListStatus = 335920;
/* In the configuration record: each column's offset, first to last. */
constexpr size_t kFeatures = 3, kRateLimits = 503, kConfigStatus = 3403;
/* In the white lists, the ignore list and the BPDU list. */
constexpr size_t kRow = 300, kSwitchCount = 307200, kPortRows = 307204, kPortCount = 614404,
                 kWlStatus = 614408, kIlCount = 4800, kIlStatus = 4804, kBpduCount = 960,
                 kBpduStatus = 961;

/* A record as the tool's buffer holds it, written at wire offsets. */
struct Rec {
   Bytes b;
   explicit Rec(size_t size, u8 fill = kGuard) : b(size, fill) {}
   /* A text column: its characters, then a NUL unless it fills the column. */
   void Text(size_t at, size_t width, const std::string &text) {
      size_t n = std::min(text.size(), width);
      memcpy(&b[at], text.data(), n);
      if (n < width) b[at + n] = 0;
   }
   void U8(size_t at, u8 v) { b[at] = v; }
   void U16(size_t at, u16 v) { memcpy(&b[at], &v, 2); }
   void U32(size_t at, u32 v) { memcpy(&b[at], &v, 4); }
   void U64(size_t at, u64 v) { memcpy(&b[at], &v, 8); }
};

u32 U32At(const Bytes &b, size_t at) {
   u32 v;
   memcpy(&v, &b[at], 4);
   return v;
}

/* The same bytes, or the first differing offsets. */
::testing::AssertionResult SameBytes(const Bytes &actual, const Bytes &expected) {
   if (actual.size() != expected.size()) {
      return ::testing::AssertionFailure()
             << "size " << actual.size() << ", expected " << expected.size();
   }
   std::string diffs;
   size_t count = 0;
   for (size_t i = 0; i < actual.size(); i++) {
      if (actual[i] != expected[i]) {
         if (count < 12) {
            char text[80];
            snprintf(text, sizeof text, "\n  byte %zu: %#04x '%c', expected %#04x '%c'", i,
                     actual[i], isprint(actual[i]) ? actual[i] : '.', expected[i],
                     isprint(expected[i]) ? expected[i] : '.');
            diffs += text;
         }
         count++;
      }
   }
   if (count == 0) return ::testing::AssertionSuccess();
   return ::testing::AssertionFailure() << count << " bytes differ:" << diffs;
}

Bytes Key(const std::string &fabSwitch, const std::string &fabPort) {
   Bytes key(kKeyLen, 0);
   memcpy(&key[0], fabSwitch.data(), std::min<size_t>(fabSwitch.size(), 48));
   memcpy(&key[48], fabPort.data(), std::min<size_t>(fabPort.size(), 64));
   return key;
}

Bytes PortA() { return Key(kSwitch, "port-a"); }

/* A delete request: the key, op, and the bytes behind op as given. */
Bytes DelRequest(const Bytes &key, u32 op, const Bytes &args = {}) {
   Bytes req(kDelLen, 0);
   memcpy(&req[0], key.data(), kKeyLen);
   memcpy(&req[112], &op, 4);
   if (!args.empty()) {
      memcpy(&req[116], args.data(), std::min<size_t>(args.size(), 32));
   }
   return req;
}

Bytes Methods(u32 methods) {
   Bytes b(4);
   memcpy(b.data(), &methods, 4);
   return b;
}

/* The arguments of op 2: VLAN, MAC, family byte, address. */
Bytes V4Binding(u16 vlan, const std::string &mac, const std::string &ip) {
   Bytes b(25, 0);
   memcpy(&b[0], &vlan, 2);
   addrtext::Mac m = MacOf(mac);
   memcpy(&b[2], m.data(), 6);
   b[8] = 0;
   u32 addr = Ip(ip);
   memcpy(&b[9], &addr, 4);
   return b;
}

Bytes V6Binding(u16 vlan, const std::string &mac, const std::string &ip) {
   Bytes b(25, 0);
   memcpy(&b[0], &vlan, 2);
   addrtext::Mac m = MacOf(mac);
   memcpy(&b[2], m.data(), 6);
   b[8] = 1;
   v6db::Addr6 a = v6db::Ip6(ip);
   memcpy(&b[9], a.data(), 16);
   return b;
}

/* ------------------------------------------------------- DHCPv6 frames */

void Put16(Bytes &b, u32 v) {
   b.push_back((u8)(v >> 8));
   b.push_back((u8)v);
}
void Put32(Bytes &b, u32 v) {
   Put16(b, v >> 16);
   Put16(b, v & 0xffff);
}

Bytes IaAddr(const std::string &ip, u32 preferred, u32 valid) {
   v6db::Addr6 a = v6db::Ip6(ip);
   Bytes v(a.begin(), a.end());
   Put32(v, preferred);
   Put32(v, valid);
   Bytes opt;
   Put16(opt, 5);
   Put16(opt, (u32)v.size());
   opt.insert(opt.end(), v.begin(), v.end());
   return opt;
}

Bytes IaNa(u32 iaid, const Bytes &subs = {}, u32 t1 = 0, u32 t2 = 0) {
   Bytes v;
   Put32(v, iaid);
   Put32(v, t1);
   Put32(v, t2);
   v.insert(v.end(), subs.begin(), subs.end());
   return v;
}

/* A DUID of `len` bytes: type 2 (vendor-assigned), enterprise 0x0b1f, then
 * a counting pattern. */
Bytes Duid(size_t len) {
   Bytes d = {0x00, 0x02, 0x00, 0x00, 0x0b, 0x1f};
   for (size_t i = d.size(); i < len; i++) d.push_back((u8)(0x40 + i));
   return d;
}

const Bytes kServerDuid = {0, 1, 0, 1, 0x2b, 0, 0, 1, 2, 0, 0, 0, 0, 1};
const char *const kServerLl = "fe80::1";

/* The hex of the first 50 bytes at most, as the identifier column shows. */
std::string HexOf(const Bytes &bytes) {
   std::string text;
   char pair[3];
   for (size_t i = 0; i < bytes.size() && i < 50; i++) {
      snprintf(pair, sizeof pair, "%02x", bytes[i]);
      text += pair;
   }
   return text;
}

/* ---------------------------------------------------------------- rows */

struct V4Row {
   u16 vlan;
   std::string mac, ip, method, remaining;
   std::string clientMac = "N/A", clientIdLen = "N/A", server = "N/A", lease = "N/A";
};

void PutV4Row(Rec &r, u32 i, const V4Row &row) {
   size_t at = i * kV4Entry;
   r.U16(at, (u16)i);
   r.U16(at + 2, row.vlan);
   r.Text(at + 4, 100, row.mac);
   r.Text(at + 104, 100, row.ip);
   r.Text(at + 204, 100, row.method);
   r.Text(at + 304, 100, row.remaining);
   r.Text(at + 404, 100, row.clientMac);
   r.Text(at + 504, 100, row.clientIdLen);
   r.Text(at + 604, 100, row.server);
   r.Text(at + 704, 100, row.lease);
}

struct V6Row {
   u16 vlan;
   std::string mac, ip, method, remaining;
   std::string iaId = "N/A", server = "N/A", valid = "N/A", preferred = "N/A";
   u16 clientIdLen = 0;
   std::string clientId = "N/A";
};

void PutV6Row(Rec &r, u32 i, const V6Row &row) {
   size_t at = kV6Base + i * kV6Entry;
   r.U16(at, (u16)i);
   r.U16(at + 2, row.vlan);
   r.Text(at + 4, 100, row.mac);
   r.Text(at + 104, 100, row.ip);
   r.Text(at + 204, 100, row.method);
   r.Text(at + 304, 100, row.remaining);
   /* The DHCPv6 columns hold "N/A" before a DHCPv6 binding's values go
    * over it: a value shorter than that leaves its NUL behind. */
   for (size_t column : {404, 504, 604, 704, 806}) {
      r.Text(at + column, 100, "N/A");
   }
   r.Text(at + 404, 100, row.iaId);
   r.Text(at + 504, 100, row.server);
   r.Text(at + 604, 100, row.valid);
   r.Text(at + 704, 100, row.preferred);
   r.U16(at + 804, row.clientIdLen);
   r.Text(at + 806, 100, row.clientId);
}

/* A row of a white list or the ignore list at `at`. */
void PutListRow(Rec &r, size_t at, const std::string &vlan, const std::string &mac,
                const std::string &ip) {
   r.Text(at, 100, vlan);
   r.Text(at + 100, 100, mac);
   r.Text(at + 200, 100, ip);
}

/* The configuration columns from offset 1003 on, in their order. */
void PutConfigColumns(Rec &r, const Texts &columns) {
   EXPECT_EQ(columns.size(), 24u);
   for (size_t i = 0; i < columns.size(); i++) {
      r.Text(1003 + 100 * i, 100, columns[i]);
   }
}

VigilWhiteListEntry WlEntry(u32 flags, u16 vlan, const std::string &mac, const std::string &ip,
                            u32 prefixLen) {
   VigilWhiteListEntry e;
   memset(&e, 0, sizeof e);
   e.flags = flags;
   e.vlan = vlan;
   if (!mac.empty()) {
      addrtext::Mac m = MacOf(mac);
      memcpy(e.mac, m.data(), 6);
   }
   if (ip.find(':') != std::string::npos) {
      v6db::Addr6 a = v6db::Ip6(ip);
      memcpy(e.ip, a.data(), 16);
   } else if (!ip.empty()) {
      u32 addr = Ip(ip);
      memcpy(e.ip, &addr, 4);
   }
   e.prefixLen = prefixLen;
   return e;
}

void CollectViolation(void *ctx, const char *text) {
   static_cast<Texts *>(ctx)->push_back(text);
}

i64 Uptime() {
   zek_Uptime now;
   zek_GetUptime(&now);
   return now.sec;
}

} // namespace

class MgmtIntfTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      AddNamedPort(kPort, "port-a");
      AddNamedPort(kBarePort, "port-b");
      AddNamedPort(kOtherPort, "port-c");
      filter = MakeFilter(kPort);
      other = MakeFilter(kOtherPort);
      ASSERT_EQ(VigilMgmtIntfInit(), ZEK_OK);
      TakeModuleLogs();
   }

   void TearDown() override {
      EXPECT_EQ(VigilMgmtIntfCleanup(), ZEK_OK);
      EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
      SetDeleteExpiry(1);
      sim::FaultClear();
      sim::FaultAlloc(0);
      for (VigilFilter *f : {filter, other}) {
         Empty(f);
      }
      VigilTest::TearDown();
   }

   void AddNamedPort(u32 portID, const std::string &fabPort) {
      sim::PortOptions opts;
      opts.fabSwitch = kSwitch;
      opts.fabPort = fabPort;
      ASSERT_TRUE(sim::AddPort("vs0", portID, opts));
   }

   /* A filter with both databases and every discovery method on. */
   VigilFilter *MakeFilter(u32 portID) {
      VigilFilter *f = AddFilter(portID);
      EXPECT_EQ(VigilVmiHashAlloc(&f->vmiHash), ZEK_OK);
      EXPECT_EQ(VigilV6VmiHashAlloc(&f->v6VmiHash), ZEK_OK);
      f->discoveryFlags = VIGIL_DISC_DHCP | VIGIL_DISC_ARP | VIGIL_DISC_ND | VIGIL_DISC_DHCPV6;
      return f;
   }

   Texts Violations(VigilFilter *f) {
      Texts texts;
      VigilCheckVmiTable(f, CollectViolation, &texts);
      VigilCheckV6PortDb(f, CollectViolation, &texts);
      return texts;
   }

   /* Everything the port holds goes, static bindings and lists too. */
   void Empty(VigilFilter *f) {
      EXPECT_EQ(Violations(f), Texts{});
      WithWriteHold(f->portID, [&] {
         while (!VigilListIsEmpty(&f->expiredVmiList)) {
            VigilDelVmi(f, VIGIL_VMI_FROM_EXPIRED(f->expiredVmiList.next));
         }
         while (!VigilListIsEmpty(&f->vmiList)) {
            VigilDelVmi(f, VIGIL_VMI_FROM_EXPIRY(f->vmiList.next));
         }
         VigilClearV6Vmi(f, true, 0, nullptr);
         while (!VigilListIsEmpty(&f->v6VmiList)) {
            VigilDelV6Vmi(f, VIGIL_V6VMI_FROM_EXPIRY(f->v6VmiList.next));
         }
         while (!VigilListIsEmpty(&f->dhcpReqList)) {
            VigilDelDhcpReq(f, VIGIL_DHCP_REQ_FROM_LINKS(f->dhcpReqList.next));
         }
         while (!VigilListIsEmpty(&f->dhcpV6ReqList)) {
            VigilDelDhcpV6Req(f, VIGIL_DHCPV6_REQ_FROM_LINKS(f->dhcpV6ReqList.next));
         }
      });
      for (VigilWhiteListEntry **list :
           {&f->portIgnoreList, &f->switchWhiteList, &f->portWhiteList}) {
         Vigil_HeapFree(*list);
         *list = nullptr;
      }
      f->portIgnoreListSize = 0;
      f->switchWhiteListSize = 0;
      f->portWhiteListSize = 0;
      Vigil_HeapFree(f->v6VmiHash);
      f->v6VmiHash = nullptr;
      Vigil_HeapFree(f->vmiHash);
      f->vmiHash = nullptr;
      sim::WaitIdle(5.0);
      sim::TakePortsetMessages();
   }

   /* A list the filter owns, in the module heap as configuration keeps it. */
   static VigilWhiteListEntry *OwnedList(const std::vector<VigilWhiteListEntry> &entries) {
      auto *list = (VigilWhiteListEntry *)Vigil_HeapAlloc(
         (u32)(entries.size() * sizeof(VigilWhiteListEntry)));
      memcpy(list, entries.data(), entries.size() * sizeof(VigilWhiteListEntry));
      return list;
   }

   void SetSwitchList(VigilFilter *f, const std::vector<VigilWhiteListEntry> &entries) {
      f->switchWhiteList = OwnedList(entries);
      f->switchWhiteListSize = (u32)entries.size();
   }
   void SetPortList(VigilFilter *f, const std::vector<VigilWhiteListEntry> &entries) {
      f->portWhiteList = OwnedList(entries);
      f->portWhiteListSize = (u32)entries.size();
   }
   void SetIgnoreList(VigilFilter *f, const std::vector<VigilWhiteListEntry> &entries) {
      f->portIgnoreList = OwnedList(entries);
      f->portIgnoreListSize = (u32)entries.size();
   }

   /* One callback through the channel with a record of `outLen` bytes that
    * held `fill`; the callback itself must answer ZEK_OK. */
   Bytes Call(u32 id, const Bytes &in, size_t outLen, u8 fill = kGuard) {
      Bytes out(outLen, fill);
      zek_Status result = 0x7777;
      EXPECT_EQ(sim::MgmtCall(kIntf, id, in, &out, &result), ZEK_OK) << "callback " << id;
      EXPECT_EQ(result, ZEK_OK) << "callback " << id;
      return out;
   }

   Bytes ListV4(const Bytes &key = PortA()) { return Call(kListVmi, key, kListLen); }
   Bytes ListV6(const Bytes &key = PortA()) { return Call(kListV6Vmi, key, kListLen); }
   Bytes Config(const Bytes &key = PortA()) { return Call(kGetConfig, key, kConfigLen); }
   Bytes WhiteLists(const Bytes &key = PortA()) { return Call(kWhiteList, key, kWhiteListLen); }
   Bytes IgnoreList(const Bytes &key = PortA()) { return Call(kIgnoreList, key, kIgnoreListLen); }
   Bytes BpduList(const Bytes &key = PortA()) { return Call(kBpduMacs, key, kBpduLen); }
   u32 Delete(const Bytes &req) { return U32At(Call(kDelVmi, req, kStatusLen), 0); }

   /* ------------------------------------------------------- bindings */

   void Send(u32 portID, const Bytes &frame, u16 vlan, bool toSwitch) {
      sim::FrameOptions opts;
      opts.vlan = vlan;
      std::vector<zek_Pkt *> batch = {frames::Make(frame, opts)};
      std::vector<std::string> verdicts = toSwitch ? Tx(portID, batch) : Rx(portID, batch);
      EXPECT_EQ(verdicts, std::vector<std::string>{"forward"});
   }

   /* REQUEST out and ACK in: a DHCP binding of the client's chaddr, with its
    * client identifier, leased by 192.0.2.1. */
   void BindDhcp(u32 portID, u16 vlan, const v4db::Client &c, const std::string &ip,
                 i64 lease) {
      Send(portID, v4db::Request(c, ip), vlan, true);
      Send(portID, v4db::Ack(c, ip, lease), vlan, false);
   }

   void BindArp(u32 portID, u16 vlan, const std::string &mac, const std::string &ip) {
      Send(portID, frames::Arp(mac, mac, ip, "192.0.2.1", false), vlan, true);
   }

   void BindNd(u32 portID, u16 vlan, const std::string &mac, const std::string &ip) {
      Send(portID, v6db::Ns(ip, v6db::kRouterIp, mac, mac), vlan, true);
   }

   /* Solicit with rapid commit and the server's Reply. */
   void BindDhcpV6(u32 portID, u16 vlan, const std::string &mac, const std::string &ip,
                   const Bytes &duid, u32 iaid, u32 preferred, u32 valid, u32 xid) {
      std::vector<std::pair<uint16_t, Bytes>> solicit = {
         {1, duid}, {8, {0, 0}}, {6, {0, 23, 0, 24}}, {14, {}}, {3, IaNa(iaid)}};
      Send(portID,
           frames::Dhcpv6Frame(mac, "33:33:00:01:00:02", {v6db::kVmLinkLocal, "ff02::1:2", 1},
                               546, 547, 1, xid, solicit),
           vlan, true);
      std::vector<std::pair<uint16_t, Bytes>> reply = {
         {3, IaNa(iaid, IaAddr(ip, preferred, valid), preferred, valid)},
         {1, duid},
         {2, kServerDuid},
         {14, {}}};
      Send(portID,
           frames::Dhcpv6Frame("02:00:00:00:00:01", mac, {kServerLl, v6db::kVmLinkLocal, 255},
                               547, 546, 7, xid, reply),
           vlan, false);
   }

   VigilVmi *AddV4(VigilFilter *f, u16 vlan, const std::string &mac, const std::string &ip,
                   u8 method, i64 expiryTs) {
      auto *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
      vmi->vlanId = vlan;
      addrtext::Mac m = MacOf(mac);
      memcpy(vmi->mac, m.data(), 6);
      vmi->ip = Ip(ip);
      vmi->discMethod = method;
      vmi->expiryTs = expiryTs;
      zek_Status status = ZEK_OK;
      WithWriteHold(f->portID, [&] { status = VigilAddVmi(f, vmi); });
      EXPECT_EQ(status, ZEK_OK) << ip;
      return vmi;
   }

   void AddStatic(VigilFilter *f, u16 vlan, const std::string &mac, const std::string &ip) {
      AddV4(f, vlan, mac, ip, VIGIL_DISC_STATIC, 0);
   }

   void AddV6(VigilFilter *f, u16 vlan, const std::string &mac, const std::string &ip,
              u8 method, i64 expiryTs, const Bytes &clientId = {}) {
      VigilV6Vmi t;
      memset(&t, 0, sizeof t);
      t.vlanId = vlan;
      addrtext::Mac m = MacOf(mac);
      memcpy(t.mac, m.data(), 6);
      v6db::Addr6 a = v6db::Ip6(ip);
      memcpy(t.ip, a.data(), 16);
      t.discMethod = method;
      t.expiryTs = expiryTs;
      t.iaId = 0xabc;
      v6db::Addr6 s = v6db::Ip6("2001:db8::1:2");
      memcpy(t.serverIp, s.data(), 16);
      t.validLifetime = 120;
      t.preferredLifetime = 60;
      Bytes id = clientId;
      t.clientIdLen = (u16)id.size();
      t.clientId = id.empty() ? nullptr : id.data();
      zek_Status status = ZEK_OK;
      WithWriteHold(f->portID, [&] { status = VigilAddV6Vmi(f, &t); });
      EXPECT_EQ(status, ZEK_OK) << ip;
   }

   void Age(VigilFilter *f) {
      WithWriteHold(f->portID, [&] {
         VigilPortDbDoAging(f, Uptime());
         VigilPortDbV6DoAging(f, Uptime());
      });
   }

   /* The port every test can look at whole: on port-a, at uptime 1000
    * - a static binding on VLAN 9,
    * - an ARP binding on VLAN 5 (life 600),
    * - a DHCP binding with a 7-byte client identifier (lease 3600),
    * - an ND binding on VLAN 7 (life 600),
    * - a DHCPv6 binding on VLAN 3 with a 60-byte DUID (valid 7200,
    *   preferred 3600, IAID 0x0e000010, from fe80::1);
    * then 100 seconds pass. */
   void Populate() {
      ASSERT_EQ(Uptime(), 1000);
      BindDhcp(kPort, 0, v4db::ClientOf("02:00:00:00:00:10", 0x77), "192.0.2.50", 3600);
      BindArp(kPort, 5, "02:00:00:00:00:20", "192.0.2.20");
      AddStatic(filter, 9, "02:00:00:00:00:30", "192.0.2.9");
      BindNd(kPort, 7, "02:00:00:00:00:40", "2001:db8::40");
      BindDhcpV6(kPort, 3, "02:00:00:00:00:10", "2001:db8::100", kDuid60, 0x0e000010, 3600,
                 7200, 0x1000);
      ASSERT_EQ(filter->numVmis, 3u);
      ASSERT_EQ(filter->numNdEntries, 1u);
      ASSERT_EQ(filter->numDhcpV6Entries, 1u);
      sim::Advance(100);
      TakeModuleLogs();
   }

   const Bytes kDuid60 = Duid(60);
   VigilFilter *filter = nullptr;
   VigilFilter *other = nullptr;
};

/* The rows Populate leaves, 100 seconds on. */
const V4Row kStaticRow{9, "02:00:00:00:00:30", "192.0.2.9", "Static Entry", "N/A"};
const V4Row kArpRow{5, "02:00:00:00:00:20", "192.0.2.20", "ARP Snooping", "500"};
const V4Row kDhcpRow{0,           "02:00:00:00:00:10", "192.0.2.50", "DHCP Snooping", "3500",
                     "02:00:00:00:00:10", "7",          "192.0.2.1",  "3600"};
const V6Row kNdRow{7, "02:00:00:00:00:40", "2001:db8:0:0:0:0:0:40", "ND Snooping", "500"};

/* ------------------------------------------------- the interface itself */

TEST_F(MgmtIntfTest, SignatureNamesPortVigilWithTheBuildAndDeclaresNineCallbacks) {
   std::vector<sim::MgmtInterfaceInfo> ifaces = sim::MgmtInterfaces();
   ASSERT_EQ(ifaces.size(), 1u);
   const sim::MgmtInterfaceInfo &iface = ifaces[0];
   EXPECT_EQ(iface.handle, vigilMgmtIntfHandle);
   EXPECT_EQ(iface.module, 0x51u);
   EXPECT_EQ(iface.name, "PortVigil.7000");
   EXPECT_EQ(iface.vendor, "Norvex Inc.");
   EXPECT_EQ(iface.version, 0x01000000u);
   struct Expected {
      u64 id;
      zek_MgmtCallbackFn fn;
      u32 inLen, outLen;
   };
   const Expected expected[] = {
      {0x10, VigilListVmiCB, 112, 335924},      {0x11, VigilGetConfigCB, 112, 3407},
      {0x12, VigilDelVmiCB, 148, 4},            {0x13, VigilGetStatsBatchCB, 1793, 2372},
      {0x14, VigilGetWhiteListCB, 112, 614412}, {0x15, VigilGetIgnoreListCB, 112, 4808},
      {0x16, VigilGetFilteredBpduMacsCB, 112, 965}, {0x17, VigilListV6VmiCB, 112, 335924},
      {0x18, VigilDelExpiryCB, 1, 4},
   };
   ASSERT_EQ(iface.callbacks.size(), 9u);
   for (size_t i = 0; i < 9; i++) {
      const zek_MgmtCallbackInfo &cb = iface.callbacks[i];
      SCOPED_TRACE("callback " + std::to_string(i));
      EXPECT_EQ(cb.location, 1u);
      EXPECT_EQ(cb.callback, expected[i].fn);
      EXPECT_EQ(cb.synchronous, 1);
      EXPECT_EQ(cb.numParams, 2);
      EXPECT_EQ(std::vector<u32>(cb.paramSizes, cb.paramSizes + 4),
                (std::vector<u32>{expected[i].inLen, expected[i].outLen, 0, 0}));
      EXPECT_EQ(std::vector<u32>(cb.paramTypes, cb.paramTypes + 4),
                (std::vector<u32>{0, 1, 0, 0}));
      EXPECT_EQ(cb.callbackId, expected[i].id);
   }
}

TEST_F(MgmtIntfTest, SignatureRecordIsLaidOutAsThePlatformReadsIt) {
   Bytes sig(sizeof vigilMgmtSig);
   memcpy(sig.data(), &vigilMgmtSig, sig.size());
   Rec expected(80, 0);
   expected.U32(0, 0x01000000);
   expected.Text(4, 32, "PortVigil.7000");
   expected.Text(36, 32, "Norvex Inc.");
   expected.U32(68, 9);
   expected.U64(72, (u64)(uintptr_t)vigilMgmtCallbacks);
   EXPECT_TRUE(SameBytes(sig, expected.b));
}

TEST_F(MgmtIntfTest, InterfaceNameCarriesTheBuildNumberOfItsStart) {
   ASSERT_EQ(VigilMgmtIntfCleanup(), ZEK_OK);
   EXPECT_EQ(vigilMgmtIntfHandle, nullptr);
   sim::SetBuildNumber(123456789);
   ASSERT_EQ(VigilMgmtIntfInit(), ZEK_OK);
   ASSERT_EQ(sim::MgmtInterfaces().size(), 1u);
   EXPECT_EQ(sim::MgmtInterfaces()[0].name, "PortVigil.123456789");
   Bytes key = PortA();
   Bytes out(kConfigLen, kGuard);
   EXPECT_EQ(sim::MgmtCall(kIntf, kGetConfig, key, &out), kNotFound);
   EXPECT_EQ(sim::MgmtCall("PortVigil.123456789", kGetConfig, key, &out), ZEK_OK);
   EXPECT_EQ(U32At(out, kConfigStatus), ZEK_OK);
   /* The name's field holds nothing of the longer name before. */
   ASSERT_EQ(VigilMgmtIntfCleanup(), ZEK_OK);
   sim::SetBuildNumber(7000);
   ASSERT_EQ(VigilMgmtIntfInit(), ZEK_OK);
   Rec name(32, 0);
   name.Text(0, 32, "PortVigil.7000");
   EXPECT_TRUE(SameBytes(Bytes(vigilMgmtSig.name, vigilMgmtSig.name + 32), name.b));
}

TEST_F(MgmtIntfTest, InitFailureIsLoggedWithItsErrorCodeAndGivesTheStatus) {
   ASSERT_EQ(VigilMgmtIntfCleanup(), ZEK_OK);
   sim::FaultCall("MgmtInit", kNoMemory);
   EXPECT_EQ(VigilMgmtIntfInit(), kNoMemory);
   EXPECT_EQ(vigilMgmtIntfHandle, nullptr);
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].log, "vigil");
   EXPECT_EQ(lines[0].func, "VigilMgmtIntfInit");
   EXPECT_EQ(lines[0].text, "Management interface init failed");
   EXPECT_NE(lines[0].raw.find("[oxa@3719 comp=\"oxa-ulm\" subcomp=\"vigil-7000\" "
                               "errorCode=\"ULM20\"] Management interface init failed"),
             std::string::npos)
      << lines[0].raw;
   ASSERT_EQ(VigilMgmtIntfInit(), ZEK_OK);
}

TEST_F(MgmtIntfTest, CleanupGivesTheChannelsStatus) {
   sim::FaultCall("MgmtDestroy", kBadData);
   EXPECT_EQ(VigilMgmtIntfCleanup(), kBadData);
   EXPECT_NE(vigilMgmtIntfHandle, nullptr);
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 1u);
   EXPECT_EQ(TakeModuleLogs().size(), 0u);
}

/* -------------------------------------------------- ports and their keys */

TEST_F(MgmtIntfTest, KeyNamingNoPortGivesTheLookupStatusAndKeepsTheCallersCounts) {
   Populate();
   for (const Bytes &key : {Key("dvs-02", "port-a"), Key(kSwitch, "port-z"), Key("", "")}) {
      for (u32 id : {kListVmi, kListV6Vmi}) {
         Rec expected(kListLen);
         expected.U32(kListStatus, kNotFound);
         EXPECT_TRUE(SameBytes(Call(id, key, kListLen), expected.b)) << id;
      }
      Rec config(kConfigLen);
      config.U32(kConfigStatus, kNotFound);
      EXPECT_TRUE(SameBytes(Config(key), config.b));
      Rec wl(kWhiteListLen);
      wl.U32(kWlStatus, kNotFound);
      EXPECT_TRUE(SameBytes(WhiteLists(key), wl.b));
      Rec il(kIgnoreListLen);
      il.U32(kIlStatus, kNotFound);
      EXPECT_TRUE(SameBytes(IgnoreList(key), il.b));
      Rec bpdu(kBpduLen);
      bpdu.U8(kBpduCount, 0);
      bpdu.U32(kBpduStatus, kNotFound);
      EXPECT_TRUE(SameBytes(BpduList(key), bpdu.b));
      EXPECT_EQ(Delete(DelRequest(key, 1)), kNotFound);
   }
   EXPECT_EQ(filter->numVmis, 3u);
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
   EXPECT_EQ(TakeModuleLogs().size(), 0u);
}

TEST_F(MgmtIntfTest, FailedLookupPassesOnThePlatformsOwnStatus) {
   sim::FaultCall("PortFindByFABPortID", kBadData, 3);
   Rec list(kListLen);
   list.U32(kListStatus, kBadData);
   EXPECT_TRUE(SameBytes(ListV4(), list.b));
   EXPECT_TRUE(SameBytes(ListV6(), list.b));
   Rec config(kConfigLen);
   config.U32(kConfigStatus, kBadData);
   EXPECT_TRUE(SameBytes(Config(), config.b));
}

TEST_F(MgmtIntfTest, PortWithoutFilterAnswersNotFoundWithNoEntries) {
   const Bytes key = Key(kSwitch, "port-b");
   for (u32 id : {kListVmi, kListV6Vmi}) {
      Rec expected(kListLen);
      expected.U32(kListCount, 0);
      expected.U32(kListStatus, kNotFound);
      EXPECT_TRUE(SameBytes(Call(id, key, kListLen), expected.b)) << id;
   }
   Rec config(kConfigLen);
   config.U32(kConfigStatus, kNotFound);
   EXPECT_TRUE(SameBytes(Config(key), config.b));
   Rec wl(kWhiteListLen);
   wl.U32(kSwitchCount, 0);
   wl.U32(kPortCount, 0);
   wl.U32(kWlStatus, kNotFound);
   EXPECT_TRUE(SameBytes(WhiteLists(key), wl.b));
   Rec il(kIgnoreListLen);
   il.U32(kIlCount, 0);
   il.U32(kIlStatus, kNotFound);
   EXPECT_TRUE(SameBytes(IgnoreList(key), il.b));
   Rec bpdu(kBpduLen);
   bpdu.U8(kBpduCount, 0);
   bpdu.U32(kBpduStatus, kNotFound);
   EXPECT_TRUE(SameBytes(BpduList(key), bpdu.b));
   EXPECT_EQ(Delete(DelRequest(key, 1)), kNotFound);
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
}

TEST_F(MgmtIntfTest, KeysThatFillTheirFieldsAreReadWithinThem) {
   /* 48 characters of switch and 64 of port: neither has a NUL in its
    * field, and the switch's text doesn't run on into the port's. */
   const std::string longSwitch(48, 's');
   const std::string longPort(64, 'p');
   sim::PortOptions opts;
   opts.fabSwitch = longSwitch;
   opts.fabPort = longPort;
   const u32 longPortID = 0x20;
   ASSERT_TRUE(sim::AddPort("vs0", longPortID, opts));
   VigilFilter *f = MakeFilter(longPortID);
   AddStatic(f, 1, "02:00:00:00:00:99", "192.0.2.99");
   const Bytes key = Key(longSwitch, longPort);
   ASSERT_EQ(key[47], 's');
   ASSERT_EQ(key[111], 'p');
   Bytes out = ListV4(key);
   EXPECT_EQ(U32At(out, kListStatus), ZEK_OK);
   EXPECT_EQ(U32At(out, kListCount), 1u);
   /* One character fewer of the port names another port. */
   Bytes shorter = key;
   shorter[111] = 0;
   EXPECT_EQ(U32At(ListV4(shorter), kListStatus), kNotFound);
   Empty(f);
   RemoveFilter(longPortID);
}

TEST_F(MgmtIntfTest, CallbacksNeverWriteTheirInputAndAlwaysReturnOk) {
   Populate();
   struct Case {
      zek_MgmtCallbackFn fn;
      Bytes in;
      size_t outLen;
   };
   Bytes stats(kStatsReqLen, 0);
   for (int i = 0; i < 16; i++) {
      Bytes key = PortA();
      memcpy(&stats[i * kKeyLen], key.data(), kKeyLen);
   }
   stats[1792] = 16;
   const Case cases[] = {
      {VigilListVmiCB, PortA(), kListLen},
      {VigilGetConfigCB, PortA(), kConfigLen},
      {VigilDelVmiCB, DelRequest(PortA(), 3, Methods(0)), kStatusLen},
      {VigilGetStatsBatchCB, stats, kStatsLen},
      {VigilGetWhiteListCB, PortA(), kWhiteListLen},
      {VigilGetIgnoreListCB, PortA(), kIgnoreListLen},
      {VigilGetFilteredBpduMacsCB, PortA(), kBpduLen},
      {VigilListV6VmiCB, PortA(), kListLen},
      {VigilDelExpiryCB, {1}, kStatusLen},
   };
   for (const Case &c : cases) {
      Bytes in = c.in;
      Bytes out(c.outLen, kGuard);
      EXPECT_EQ(c.fn(0x1234, 0x5678, in.data(), out.data()), ZEK_OK);
      EXPECT_EQ(in, c.in);
   }
}

/* ------------------------------------------------------ the IPv4 list */

TEST_F(MgmtIntfTest, Ipv4ListShowsStaticArpAndDhcpBindingsByteForByte) {
   Populate();
   Rec expected(kListLen);
   /* By expiry: the static binding first, then ARP (1600), then DHCP
    * (4600). */
   PutV4Row(expected, 0, kStaticRow);
   PutV4Row(expected, 1, kArpRow);
   PutV4Row(expected, 2, kDhcpRow);
   expected.U32(kListCount, 3);
   expected.U32(kListStatus, ZEK_OK);
   sim::LockCounts before = sim::GetLockCounts(filter->configLock);
   EXPECT_TRUE(SameBytes(ListV4(), expected.b));
   sim::LockCounts after = sim::GetLockCounts(filter->configLock);
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes, before.writes);
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
   EXPECT_EQ(TakeModuleLogs().size(), 0u);
}

TEST_F(MgmtIntfTest, Ipv4ListOfAPortWithoutBindingsIsEmpty) {
   Rec expected(kListLen);
   expected.U32(kListCount, 0);
   expected.U32(kListStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(ListV4(), expected.b));
   EXPECT_TRUE(SameBytes(ListV6(), expected.b));
}

TEST_F(MgmtIntfTest, ExpiredArpBindingIsListedAfterTheRunningOnesWithRemainingZero) {
   SetDeleteExpiry(0);
   BindArp(kPort, 0, "02:00:00:00:00:21", "192.0.2.21");
   sim::Advance(601);
   Age(filter);
   ASSERT_EQ(filter->numExpiredVmis, 1u);
   BindArp(kPort, 4, "02:00:00:00:00:22", "192.0.2.22");
   sim::Advance(10);
   Rec expected(kListLen);
   PutV4Row(expected, 0, {4, "02:00:00:00:00:22", "192.0.2.22", "ARP Snooping", "590"});
   PutV4Row(expected, 1, {0, "02:00:00:00:00:21", "192.0.2.21", "ARP Snooping", "0"});
   expected.U32(kListCount, 2);
   expected.U32(kListStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(ListV4(), expected.b));
}

TEST_F(MgmtIntfTest, Ipv4ListStopsAtItsRowsWhateverTheStaticBindings) {
   for (u32 i = 0; i < 400; i++) {
      char mac[32];
      snprintf(mac, sizeof mac, "02:00:00:00:%02x:%02x", i >> 8, i & 0xff);
      char ip[32];
      snprintf(ip, sizeof ip, "10.0.%u.%u", i >> 8, i & 0xff);
      AddStatic(filter, 1, mac, ip);
   }
   ASSERT_EQ(filter->numVmis, 400u);
   Bytes out = ListV4();
   EXPECT_EQ(U32At(out, kListCount), 384u);
   EXPECT_EQ(U32At(out, kListStatus), ZEK_OK);
   /* The rows in list order, the last at index 383; not a byte of the
    * IPv6 rows is written. */
   std::vector<std::string> ips;
   VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
      const VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      const u8 *b = (const u8 *)&vmi->ip;
      ips.push_back(std::to_string(b[0]) + "." + std::to_string(b[1]) + "." +
                    std::to_string(b[2]) + "." + std::to_string(b[3]));
   }
   Rec expected(kListLen);
   for (u32 i = 0; i < 384; i++) {
      const VigilVmi *vmi = nullptr;
      u32 n = 0;
      VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
         if (n++ == i) vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      }
      char mac[32];
      snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", vmi->mac[0], vmi->mac[1],
               vmi->mac[2], vmi->mac[3], vmi->mac[4], vmi->mac[5]);
      PutV4Row(expected, i, {1, mac, ips[i], "Static Entry", "N/A"});
   }
   expected.U32(kListCount, 384);
   expected.U32(kListStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(out, expected.b));
}

TEST_F(MgmtIntfTest, ListsThatCannotTakeTheirSnapshotAnswerNoMemory) {
   Populate();
   Rec expected(kListLen);
   expected.U32(kListCount, 0);
   expected.U32(kListStatus, kNoMemory);
   sim::FaultAlloc(1);
   EXPECT_TRUE(SameBytes(ListV4(), expected.b));
   sim::FaultAlloc(1);
   EXPECT_TRUE(SameBytes(ListV6(), expected.b));
   sim::FaultAlloc(0);
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
   EXPECT_EQ(TakeModuleLogs().size(), 0u);
}

TEST_F(MgmtIntfTest, RemainingTimesAreCutTo32Bits) {
   const i64 far = Uptime() + (1ll << 32) + 5;
   AddV4(filter, 2, "02:00:00:00:00:50", "192.0.2.5", VIGIL_DISC_ARP, far);
   AddV6(filter, 2, "02:00:00:00:00:50", "2001:db8::5", VIGIL_DISC_ND, far);
   Bytes v4 = ListV4();
   Bytes v6 = ListV6();
   Rec remaining(100, kGuard);
   remaining.Text(0, 100, "5");
   EXPECT_TRUE(SameBytes(Bytes(v4.begin() + 304, v4.begin() + 404), remaining.b));
   EXPECT_TRUE(
      SameBytes(Bytes(v6.begin() + kV6Base + 304, v6.begin() + kV6Base + 404), remaining.b));
}

/* ------------------------------------------------------ the IPv6 list */

TEST_F(MgmtIntfTest, Ipv6ListShowsNdAndDhcpV6BindingsByteForByte) {
   Populate();
   Rec expected(kListLen);
   PutV6Row(expected, 0, kNdRow);
   /* The 60-byte DUID shows its first 50 bytes: 100 characters that fill
    * the column, no NUL behind them. */
   const std::string hex = HexOf(kDuid60);
   ASSERT_EQ(hex.size(), 100u);
   PutV6Row(expected, 1,
            {3, "02:00:00:00:00:10", "2001:db8:0:0:0:0:0:100", "DHCPv6 Snooping", "7100",
             "e000010", "fe80:0:0:0:0:0:0:1", "7200", "3600", 60, hex});
   expected.U32(kListCount, 2);
   expected.U32(kListStatus, ZEK_OK);
   Bytes out = ListV6();
   EXPECT_TRUE(SameBytes(out, expected.b));
   EXPECT_EQ(out[kV6Base + 2 * kV6Entry], kGuard) << "the next element's first byte";
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 1);
   EXPECT_EQ(lines[0].log, "vigil");
   EXPECT_EQ(lines[0].text, "Full: " + hex);
}

TEST_F(MgmtIntfTest, DhcpV6IdentifierColumnIsShortOrAbsentAsTheBindingsIs) {
   const i64 now = Uptime();
   AddV6(filter, 1, "02:00:00:00:00:61", "2001:db8::61", VIGIL_DISC_DHCPV6, now + 50);
   AddV6(filter, 1, "02:00:00:00:00:62", "2001:db8::62", VIGIL_DISC_DHCPV6, now + 60,
         {0x00, 0x01, 0xab, 0xcd});
   TakeModuleLogs();
   Rec expected(kListLen);
   PutV6Row(expected, 0,
            {1, "02:00:00:00:00:61", "2001:db8:0:0:0:0:0:61", "DHCPv6 Snooping", "50", "abc",
             "2001:db8:0:0:0:0:1:2", "120", "60", 0, "N/A"});
   PutV6Row(expected, 1,
            {1, "02:00:00:00:00:62", "2001:db8:0:0:0:0:0:62", "DHCPv6 Snooping", "60", "abc",
             "2001:db8:0:0:0:0:1:2", "120", "60", 4, "0001abcd"});
   expected.U32(kListCount, 2);
   expected.U32(kListStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(ListV6(), expected.b));
   EXPECT_EQ(LogTexts(), (Texts{"Full: N/A", "Full: 0001abcd"}));
}

/* ----------------------------------------------------- configuration */

TEST_F(MgmtIntfTest, ConfigOfAPopulatedPortByteForByte) {
   Populate();
   Rec expected(kConfigLen);
   expected.Text(kFeatures, 500, "DHCP snooping,ARP snooping,ND snooping,DHCPv6 snooping,");
   expected.Text(kRateLimits, 500, "None");
   PutConfigColumns(expected, {"1", "384", "3", "256", "1", "0", "128", "1", "128", "0", "1",
                               "7", "600", "30", "15", "1", "0", "15", "1", "15", "0", "0",
                               "60", "600"});
   expected.U32(kConfigStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(Config(), expected.b));
}

TEST_F(MgmtIntfTest, FilterWithNoFeatureSaysNoneInBothTexts) {
   filter->discoveryFlags = 0;
   filter->featuresEnabled = 0;
   filter->rxBcastRateLimit = 100;
   Rec expected(kConfigLen);
   expected.Text(kFeatures, 500, "None");
   expected.Text(kRateLimits, 500, "None");
   PutConfigColumns(expected, {"1", "384", "0", "256", "0", "0", "128", "0", "128", "0", "0",
                               "0", "600", "30", "15", "0", "0", "15", "0", "15", "0", "0",
                               "0", "600"});
   expected.U32(kConfigStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(Config(), expected.b));
}

TEST_F(MgmtIntfTest, OnlyArpSnoopingKeepsItsComma) {
   filter->discoveryFlags = VIGIL_DISC_ARP;
   Bytes out = Config();
   Rec features(500, kGuard);
   features.Text(0, 500, "ARP snooping,");
   EXPECT_TRUE(SameBytes(Bytes(out.begin() + kFeatures, out.begin() + kFeatures + 500),
                         features.b));
}

TEST_F(MgmtIntfTest, OnlyTheRxBroadcastLimitHasNoComma) {
   filter->featuresEnabled = VIGIL_FEAT_RX_BCAST_LIMIT;
   filter->rxBcastRateLimit = 100;
   filter->txBcastRateLimit = 200;
   Bytes out = Config();
   Rec limits(500, kGuard);
   limits.Text(0, 500, "RX Bcast rate limit = 100");
   EXPECT_TRUE(SameBytes(Bytes(out.begin() + kRateLimits, out.begin() + kRateLimits + 500),
                         limits.b));
}

TEST_F(MgmtIntfTest, EveryFeatureAndLimitShowInTheirOrder) {
   filter->featuresEnabled = 0x3fff;
   filter->bpduBitmap = 0x40000005ull;
   filter->rxBcastRateLimit = 10;
   filter->rxMcastRateLimit = 20;
   filter->txBcastRateLimit = 30;
   filter->txMcastRateLimit = 4000000000u;
   filter->arpExpiry = 120;
   filter->ndExpiry = 300;
   Rec expected(kConfigLen);
   expected.Text(kFeatures, 500,
                 "DHCP snooping,ARP snooping,ND snooping,DHCPv6 snooping,Switch Warden,"
                 "Port Warden,BPDU Filter (Bitmap=0x40000005),DHCP server block,"
                 "DHCP client block,Non-IP traffic block,DHCPv6 server block,"
                 "DHCPv6 client block,RA Guard");
   /* A limit reads as a signed number. */
   expected.Text(kRateLimits, 500,
                 "RX Bcast rate limit = 10,RX Mcast rate limit = 20,TX Bcast rate limit = 30,"
                 "TX Mcast rate limit = -294967296");
   PutConfigColumns(expected, {"1", "384", "0", "256", "0", "0", "128", "0", "128", "0", "0",
                               "0", "120", "30", "15", "0", "0", "15", "0", "15", "0", "0",
                               "0", "300"});
   expected.U32(kConfigStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(Config(), expected.b));
}

TEST_F(MgmtIntfTest, DelExpiryWritesTheSwitchThatEveryPortsConfigShows) {
   for (const auto &[value, shown] :
        std::vector<std::pair<u8, std::string>>{{0, "0"}, {5, "1"}, {0, "0"}, {0xff, "1"}}) {
      SCOPED_TRACE("value " + std::to_string(value));
      Rec status(kStatusLen);
      status.U32(0, ZEK_OK);
      EXPECT_TRUE(SameBytes(Call(kDelExpiry, {value}, kStatusLen), status.b));
      EXPECT_EQ(delOnExpiry, (i64)(i8)value);
      for (const char *port : {"port-a", "port-c"}) {
         Bytes out = Config(Key(kSwitch, port));
         Rec column(100, kGuard);
         column.Text(0, 100, shown);
         EXPECT_TRUE(SameBytes(Bytes(out.begin() + 1003, out.begin() + 1103), column.b)) << port;
      }
   }
}

TEST_F(MgmtIntfTest, DelExpiryDecidesWhetherExpiredArpBindingsStayOnEveryPort) {
   Call(kDelExpiry, {0}, kStatusLen);
   BindArp(kPort, 0, "02:00:00:00:00:21", "192.0.2.21");
   BindArp(kOtherPort, 0, "02:00:00:00:00:23", "192.0.2.23");
   sim::Advance(601);
   Age(filter);
   Age(other);
   for (const char *port : {"port-a", "port-c"}) {
      Bytes out = Config(Key(kSwitch, port));
      Rec columns(kConfigLen);
      columns.Text(1003, 100, "0");
      columns.Text(1203, 100, "1"); /* numVmis */
      columns.Text(1403, 100, "1"); /* numArpVmis */
      columns.Text(1503, 100, "1"); /* numExpiredVmis */
      for (size_t at : {1003, 1203, 1403, 1503}) {
         EXPECT_TRUE(SameBytes(Bytes(out.begin() + at, out.begin() + at + 100),
                               Bytes(columns.b.begin() + at, columns.b.begin() + at + 100)))
            << port << " at " << at;
      }
   }
   /* Switched back on, the next expiry deletes. */
   Call(kDelExpiry, {1}, kStatusLen);
   BindArp(kPort, 0, "02:00:00:00:00:24", "192.0.2.24");
   BindArp(kOtherPort, 0, "02:00:00:00:00:25", "192.0.2.25");
   sim::Advance(601);
   Age(filter);
   Age(other);
   for (const char *port : {"port-a", "port-c"}) {
      Bytes out = Config(Key(kSwitch, port));
      Rec columns(kConfigLen);
      columns.Text(1003, 100, "1");
      columns.Text(1203, 100, "1");
      columns.Text(1503, 100, "1");
      for (size_t at : {1003, 1203, 1503}) {
         EXPECT_TRUE(SameBytes(Bytes(out.begin() + at, out.begin() + at + 100),
                               Bytes(columns.b.begin() + at, columns.b.begin() + at + 100)))
            << port << " at " << at;
      }
   }
}

/* -------------------------------------------------------------- deletes */

TEST_F(MgmtIntfTest, DeleteAllRemovesEveryBindingButStaticOnes) {
   Populate();
   sim::LockCounts before = sim::GetLockCounts(filter->configLock);
   EXPECT_EQ(Delete(DelRequest(PortA(), 1)), ZEK_OK);
   sim::LockCounts after = sim::GetLockCounts(filter->configLock);
   EXPECT_EQ(after.writes - before.writes, 1u);
   EXPECT_EQ(after.reads, before.reads);
   Rec v4(kListLen);
   PutV4Row(v4, 0, kStaticRow);
   v4.U32(kListCount, 1);
   v4.U32(kListStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(ListV4(), v4.b));
   Rec v6(kListLen);
   v6.U32(kListCount, 0);
   v6.U32(kListStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(ListV6(), v6.b));
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
}

TEST_F(MgmtIntfTest, DeleteOneIpv4BindingByItsKey) {
   Populate();
   /* Another VLAN, another MAC, another address: nothing goes. */
   EXPECT_EQ(Delete(DelRequest(PortA(), 2, V4Binding(6, "02:00:00:00:00:20", "192.0.2.20"))),
             ZEK_OK);
   EXPECT_EQ(Delete(DelRequest(PortA(), 2, V4Binding(5, "02:00:00:00:00:21", "192.0.2.20"))),
             ZEK_OK);
   EXPECT_EQ(Delete(DelRequest(PortA(), 2, V4Binding(5, "02:00:00:00:00:20", "192.0.2.21"))),
             ZEK_OK);
   EXPECT_EQ(filter->numVmis, 3u);
   EXPECT_EQ(Delete(DelRequest(PortA(), 2, V4Binding(5, "02:00:00:00:00:20", "192.0.2.20"))),
             ZEK_OK);
   Rec v4(kListLen);
   PutV4Row(v4, 0, kStaticRow);
   PutV4Row(v4, 1, kDhcpRow);
   v4.U32(kListCount, 2);
   v4.U32(kListStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(ListV4(), v4.b));
   EXPECT_EQ(filter->numNdEntries + filter->numDhcpV6Entries, 2u);
}

TEST_F(MgmtIntfTest, DeleteOneIpv6BindingByItsKey) {
   Populate();
   EXPECT_EQ(Delete(DelRequest(PortA(), 2, V6Binding(7, "02:00:00:00:00:40", "2001:db8::41"))),
             ZEK_OK);
   EXPECT_EQ(filter->numNdEntries, 1u);
   EXPECT_EQ(Delete(DelRequest(PortA(), 2, V6Binding(7, "02:00:00:00:00:40", "2001:db8::40"))),
             ZEK_OK);
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
   EXPECT_EQ(filter->numVmis, 3u);
   /* The same VLAN, MAC and first four address bytes as an IPv4 key read
    * the IPv4 database only. */
   EXPECT_EQ(Delete(DelRequest(PortA(), 2, V4Binding(3, "02:00:00:00:00:10", "32.1.13.184"))),
             ZEK_OK);
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
}

TEST_F(MgmtIntfTest, DeleteOfAStaticBindingIsRefusedWithALogLine) {
   Populate();
   EXPECT_EQ(Delete(DelRequest(PortA(), 2, V4Binding(9, "02:00:00:00:00:30", "192.0.2.9"))),
             ZEK_OK);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].log, "vigil");
   EXPECT_EQ(lines[0].text, "Trying to delete a static entry: 9 02:00:00:00:00:30 192.0.2.9");
   EXPECT_EQ(filter->numStaticVmis, 1u);
   EXPECT_EQ(filter->numVmis, 3u);
}

TEST_F(MgmtIntfTest, DeleteByMethodFollowsTheRequestsOwnBits) {
   Populate();
   /* Bit 2 is ND here, though ND's method value is 8. */
   EXPECT_EQ(Delete(DelRequest(PortA(), 3, Methods(0x4))), ZEK_OK);
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
   EXPECT_EQ(filter->numVmis, 3u);
   EXPECT_EQ(Delete(DelRequest(PortA(), 3, Methods(0x8))), ZEK_OK);
   EXPECT_EQ(filter->numDhcpV6Entries, 0u);
   EXPECT_EQ(filter->numVmis, 3u);
   EXPECT_EQ(Delete(DelRequest(PortA(), 3, Methods(0x2))), ZEK_OK);
   EXPECT_EQ(filter->numArpVmis, 0u);
   EXPECT_EQ(filter->numDhcpVmis, 1u);
   EXPECT_EQ(Delete(DelRequest(PortA(), 3, Methods(0x1))), ZEK_OK);
   EXPECT_EQ(filter->numDhcpVmis, 0u);
   EXPECT_EQ(filter->numVmis, 1u) << "the static binding stays";
   EXPECT_EQ(filter->numStaticVmis, 1u);
}

TEST_F(MgmtIntfTest, DeleteByMethodOfArpTakesExpiredArpBindingsToo) {
   SetDeleteExpiry(0);
   BindArp(kPort, 0, "02:00:00:00:00:21", "192.0.2.21");
   BindNd(kPort, 0, "02:00:00:00:00:41", "2001:db8::41");
   sim::Advance(601);
   Age(filter);
   ASSERT_EQ(filter->numExpiredVmis, 1u);
   ASSERT_EQ(filter->numExpiredNdEntries, 1u);
   EXPECT_EQ(Delete(DelRequest(PortA(), 3, Methods(0x2 | 0x4))), ZEK_OK);
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(filter->numExpiredVmis, 0u);
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(filter->numExpiredNdEntries, 0u);
}

TEST_F(MgmtIntfTest, UnknownDeleteOperationDeletesNothing) {
   Populate();
   for (u32 op : {0u, 4u, 0xffffffffu}) {
      EXPECT_EQ(Delete(DelRequest(PortA(), op, Methods(0xf))), ZEK_OK) << op;
   }
   EXPECT_EQ(filter->numVmis, 3u);
   EXPECT_EQ(filter->numNdEntries + filter->numDhcpV6Entries, 2u);
   EXPECT_EQ(TakeModuleLogs().size(), 0u);
}

/* ----------------------------------------------------------- statistics */

/* The statistics request of these keys, numPorts as given. */
Bytes StatsRequest(const std::vector<Bytes> &keys, u8 numPorts) {
   Bytes req(kStatsReqLen, 0);
   for (size_t i = 0; i < keys.size() && i < 16; i++) {
      memcpy(&req[i * kKeyLen], keys[i].data(), kKeyLen);
   }
   req[1792] = numPorts;
   return req;
}

/* Eighteen counters, each a different 64-bit value. */
void SetCounters(VigilFilter *f, u64 base) {
   u64 *counters = (u64 *)&f->stats;
   for (u32 k = 0; k < 18; k++) counters[k] = base + ((u64)(k + 1) << 32) + k;
   f->stats.statStatusSlot = 0x5107;
}

void PutCounters(Rec &r, u32 element, u64 base, u32 status) {
   size_t at = element * 148;
   for (u32 k = 0; k < 18; k++) r.U64(at + 8 * k, base + ((u64)(k + 1) << 32) + k);
   r.U32(at + 144, status);
}

TEST_F(MgmtIntfTest, StatsBatchCopiesEachPortsBlockAndGoesOnPastFailures) {
   SetCounters(filter, 0x1000);
   SetCounters(other, 0x2000);
   Bytes req = StatsRequest({PortA(), Key(kSwitch, "port-z"), Key(kSwitch, "port-b"),
                             Key(kSwitch, "port-c")},
                            4);
   Rec expected(kStatsLen);
   PutCounters(expected, 0, 0x1000, ZEK_OK);
   expected.U32(1 * 148 + 144, kNotFound);
   expected.U32(2 * 148 + 144, kNotFound);
   PutCounters(expected, 3, 0x2000, ZEK_OK);
   expected.U32(2368, ZEK_OK);
   EXPECT_TRUE(SameBytes(Call(kStatsBatch, req, kStatsLen), expected.b));
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
}

TEST_F(MgmtIntfTest, StatsBatchTakesSixteenPortsAndRefusesSeventeen) {
   SetCounters(filter, 0x3000);
   std::vector<Bytes> keys(16, PortA());
   Rec all(kStatsLen);
   for (u32 i = 0; i < 16; i++) PutCounters(all, i, 0x3000, ZEK_OK);
   all.U32(2368, ZEK_OK);
   EXPECT_TRUE(SameBytes(Call(kStatsBatch, StatsRequest(keys, 16), kStatsLen), all.b));

   Rec refused(kStatsLen);
   refused.U32(2368, kBadParam);
   EXPECT_TRUE(SameBytes(Call(kStatsBatch, StatsRequest(keys, 17), kStatsLen), refused.b));
   refused.U32(2368, kBadParam);
   EXPECT_TRUE(SameBytes(Call(kStatsBatch, StatsRequest(keys, 255), kStatsLen), refused.b));
}

TEST_F(MgmtIntfTest, StatsBatchOfNoPortWritesOnlyItsStatus) {
   SetCounters(filter, 0x4000);
   Rec expected(kStatsLen);
   expected.U32(2368, ZEK_OK);
   EXPECT_TRUE(SameBytes(Call(kStatsBatch, StatsRequest({PortA()}, 0), kStatsLen), expected.b));
   /* numPorts counts the keys read: the second key isn't. */
   Rec one(kStatsLen);
   PutCounters(one, 0, 0x4000, ZEK_OK);
   one.U32(2368, ZEK_OK);
   EXPECT_TRUE(
      SameBytes(Call(kStatsBatch, StatsRequest({PortA(), PortA()}, 1), kStatsLen), one.b));
}

/* ---------------------------------------------------------------- lists */

TEST_F(MgmtIntfTest, WhiteListsShowEveryKindOfEntry) {
   SetSwitchList(filter, {WlEntry(VIGIL_WL_IPV4 | VIGIL_WL_MAC | VIGIL_WL_VLAN, 5,
                                  "02:00:00:00:00:10", "192.0.2.0", 24),
                          WlEntry(VIGIL_WL_IPV6, 0, "", "2001:db8:a::", 64),
                          WlEntry(0, 12, "02:00:00:00:00:11", "10.0.0.1", 8)});
   SetPortList(filter, {WlEntry(VIGIL_WL_MAC, 0, "02:00:00:00:00:20", "", 0),
                        WlEntry(VIGIL_WL_IPV4 | VIGIL_WL_VLAN, 4095, "", "10.1.2.3", 32),
                        WlEntry(VIGIL_WL_IPV6 | VIGIL_WL_MAC, 0, "0a:1b:2c:3d:4e:5f",
                                "fe80::1:ff", 128)});
   Rec expected(kWhiteListLen);
   PutListRow(expected, 0 * kRow, "5", "02:00:00:00:00:10", "192.0.2.0/24");
   PutListRow(expected, 1 * kRow, "0", "Any", "2001:db8:a:0:0:0:0:0/64");
   PutListRow(expected, 2 * kRow, "0", "Any", "Any");
   expected.U32(kSwitchCount, 3);
   PutListRow(expected, kPortRows + 0 * kRow, "0", "02:00:00:00:00:20", "Any");
   PutListRow(expected, kPortRows + 1 * kRow, "4095", "Any", "10.1.2.3/32");
   PutListRow(expected, kPortRows + 2 * kRow, "0", "0a:1b:2c:3d:4e:5f", "fe80:0:0:0:0:0:1:ff/128");
   expected.U32(kPortCount, 3);
   expected.U32(kWlStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(WhiteLists(), expected.b));
}

TEST_F(MgmtIntfTest, WhiteListsLongerThanTheirRowsShowTheFirst1024) {
   std::vector<VigilWhiteListEntry> entries;
   for (u32 i = 0; i < 1030; i++) {
      entries.push_back(WlEntry(VIGIL_WL_VLAN | VIGIL_WL_IPV4, (u16)i, "",
                                "10.9." + std::to_string(i >> 8) + "." + std::to_string(i & 0xff),
                                32));
   }
   SetSwitchList(filter, entries);
   SetPortList(filter, std::vector<VigilWhiteListEntry>(entries.rbegin(), entries.rend()));
   Rec expected(kWhiteListLen);
   for (u32 i = 0; i < 1024; i++) {
      u32 s = i;
      u32 p = 1029 - i;
      PutListRow(expected, i * kRow, std::to_string(s), "Any",
                 "10.9." + std::to_string(s >> 8) + "." + std::to_string(s & 0xff) + "/32");
      PutListRow(expected, kPortRows + i * kRow, std::to_string(p), "Any",
                 "10.9." + std::to_string(p >> 8) + "." + std::to_string(p & 0xff) + "/32");
   }
   expected.U32(kSwitchCount, 1024);
   expected.U32(kPortCount, 1024);
   expected.U32(kWlStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(WhiteLists(), expected.b));
}

TEST_F(MgmtIntfTest, EmptyWhiteListsGiveZeroCounts) {
   Rec expected(kWhiteListLen);
   expected.U32(kSwitchCount, 0);
   expected.U32(kPortCount, 0);
   expected.U32(kWlStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(WhiteLists(), expected.b));
   /* One list alone is shown alone. */
   SetPortList(filter, {WlEntry(VIGIL_WL_VLAN, 3, "", "", 0)});
   PutListRow(expected, kPortRows, "3", "Any", "Any");
   expected.U32(kPortCount, 1);
   EXPECT_TRUE(SameBytes(WhiteLists(), expected.b));
}

TEST_F(MgmtIntfTest, IgnoreListShowsEachAddressWithAHostPrefix) {
   SetIgnoreList(filter, {WlEntry(VIGIL_WL_IPV4 | VIGIL_WL_MAC | VIGIL_WL_VLAN, 5,
                                  "02:00:00:00:00:10", "192.0.2.77", 24),
                          WlEntry(VIGIL_WL_IPV6, 0, "", "2001:db8::77", 0),
                          WlEntry(VIGIL_WL_VLAN, 7, "", "", 0)});
   Rec expected(kIgnoreListLen);
   PutListRow(expected, 0 * kRow, "5", "02:00:00:00:00:10", "192.0.2.77/32");
   PutListRow(expected, 1 * kRow, "0", "Any", "2001:db8:0:0:0:0:0:77/128");
   PutListRow(expected, 2 * kRow, "7", "Any", "Any");
   expected.U32(kIlCount, 3);
   expected.U32(kIlStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(IgnoreList(), expected.b));
}

TEST_F(MgmtIntfTest, IgnoreListOfEighteenEntriesShowsTheFirstSixteen) {
   std::vector<VigilWhiteListEntry> entries;
   for (u32 i = 0; i < 18; i++) {
      entries.push_back(WlEntry(VIGIL_WL_IPV4, 0, "", "192.0.2." + std::to_string(100 + i), 0));
   }
   SetIgnoreList(filter, entries);
   Rec expected(kIgnoreListLen);
   for (u32 i = 0; i < 16; i++) {
      PutListRow(expected, i * kRow, "0", "Any", "192.0.2." + std::to_string(100 + i) + "/32");
   }
   expected.U32(kIlCount, 16);
   expected.U32(kIlStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(IgnoreList(), expected.b));
}

TEST_F(MgmtIntfTest, EmptyIgnoreListGivesNoRows) {
   Rec expected(kIgnoreListLen);
   expected.U32(kIlCount, 0);
   expected.U32(kIlStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(IgnoreList(), expected.b));
}

TEST_F(MgmtIntfTest, BpduListShowsTheAddressOfEachBitOfTheBitmap) {
   filter->featuresEnabled = VIGIL_FEAT_BPDU_FILTER;
   /* Bits above the 31 addresses show nothing. */
   filter->bpduBitmap = (1ull << 0) | (1ull << 15) | (1ull << 16) | (1ull << 30) |
                        (1ull << 31) | (1ull << 63);
   Rec expected(kBpduLen);
   expected.Text(0 * 24, 24, "01:80:c2:00:00:00");
   expected.Text(1 * 24, 24, "01:80:c2:00:00:0f");
   expected.Text(2 * 24, 24, "00:e0:2b:00:00:00");
   expected.Text(3 * 24, 24, "01:00:0c:cc:cc:c7");
   expected.U8(kBpduCount, 4);
   expected.U32(kBpduStatus, ZEK_OK);
   EXPECT_TRUE(SameBytes(BpduList(), expected.b));

   filter->bpduBitmap = 0x7fffffffull;
   Bytes all = BpduList();
   EXPECT_EQ(all[kBpduCount], 31);
   Rec last(24, kGuard);
   last.Text(0, 24, "01:00:0c:cc:cc:c7");
   EXPECT_TRUE(SameBytes(Bytes(all.begin() + 30 * 24, all.begin() + 31 * 24), last.b));
   EXPECT_EQ(all[31 * 24], kGuard);
}

TEST_F(MgmtIntfTest, BpduListWithTheFilterOffOrNothingFilteredAnswersNotEnabled) {
   Rec expected(kBpduLen);
   expected.U8(kBpduCount, 0);
   expected.U32(kBpduStatus, kNotEnabled);
   filter->featuresEnabled = VIGIL_FEAT_NON_IP_BLOCK;
   filter->bpduBitmap = 0x7;
   EXPECT_TRUE(SameBytes(BpduList(), expected.b));
   filter->featuresEnabled = VIGIL_FEAT_BPDU_FILTER;
   filter->bpduBitmap = 0;
   EXPECT_TRUE(SameBytes(BpduList(), expected.b));
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
}

/* ----------------------------------------------- module start and stop */

class MgmtModuleStartTest : public ::testing::Test {
protected:
   void SetUp() override {
      sim::Reset();
      sim::SetFailureHook(VigilTestFailureHook);
      sim::SetModuleID(0x51);
   }
   void TearDown() override {
      EXPECT_TRUE(sim::WaitIdle(5.0));
      EXPECT_EQ(sim::LiveWorlds(), 0u);
      EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
      EXPECT_EQ(sim::LocksHeldByThread(), 0u);
      EXPECT_TRUE(sim::LockViolations().empty());
      EXPECT_EQ(sim::LeaksSinceReset(), 0u) << "the module heap was not empty";
      EXPECT_EQ(heapID, nullptr);
      sim::FaultClear();
      sim::SetFailureHook(nullptr);
   }
};

TEST_F(MgmtModuleStartTest, StartOpensTheInterfaceAndStopClosesIt) {
   ASSERT_EQ(init_module(), 0);
   std::vector<sim::MgmtInterfaceInfo> ifaces = sim::MgmtInterfaces();
   ASSERT_EQ(ifaces.size(), 1u);
   EXPECT_EQ(ifaces[0].name, "PortVigil.7000");
   EXPECT_EQ(ifaces[0].module, 0x51u);
   Bytes out(kStatusLen, kGuard);
   EXPECT_EQ(sim::MgmtCall(kIntf, kDelExpiry, Bytes{1}, &out), ZEK_OK);
   EXPECT_EQ(out, Bytes(4, 0));
   cleanup_module();
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
   EXPECT_EQ(vigilMgmtIntfHandle, nullptr);
}

TEST_F(MgmtModuleStartTest, ManagementInitFailureFailsTheStartAndUndoesIt) {
   sim::FaultCall("MgmtInit", kNoMemory);
   EXPECT_EQ(init_module(), 1);
   sim::WaitIdle(5.0);
   std::vector<sim::LogLine> lines = sim::TakeLogs();
   std::vector<std::string> texts;
   bool failed = false;
   for (const sim::LogLine &line : lines) {
      if (line.text == "Management interface init failed") {
         failed = true;
         EXPECT_EQ(line.level, 2);
         EXPECT_NE(line.raw.find("errorCode=\"ULM20\"] Management interface init failed"),
                   std::string::npos)
            << line.raw;
      }
      EXPECT_NE(line.text.rfind("Port Vigil module init for ULM", 0), 0u) << line.text;
   }
   EXPECT_TRUE(failed);
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
   EXPECT_FALSE(sim::LogHandleExists("vigil.throttle"));
}
