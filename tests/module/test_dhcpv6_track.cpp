/*
 * DHCPv6 request tracking: the pending request list with its limit, order
 * and retransmission clock; whole client and server exchanges through the
 * packet loop, in the option layout common clients and servers send
 * (DUID-LLT identifiers, Elapsed Time, Option Request, IA_NA with T1 and
 * T2); what each Reply does to the bindings; Release and Decline; Confirm's
 * held-back request; and every allocation of the paths failing in turn
 * without a leak.
 */
#include "ipv6_db_test.h"
#include "vigil_dhcpv6_track.h"

using namespace v6db;

namespace {

using Options = std::vector<std::pair<uint16_t, Bytes>>;
using Texts = std::vector<std::string>;

const char *const kServerMac = "02:00:00:00:00:01";
const char *const kServerLl = "fe80::1";
const char *const kAllAgents = "ff02::1:2";
const char *const kAllAgentsMac = "33:33:00:01:00:02";
const char *const kAddr1 = "2001:db8::100";
const char *const kAddr2 = "2001:db8::101";
const char *const kAddr3 = "2001:db8::102";
constexpr u32 kIaid = 0x0e000010;
constexpr u32 kXid = 0xa1b2c3;

void Put16(Bytes &b, u32 v) {
   b.push_back((u8)(v >> 8));
   b.push_back((u8)v);
}
void Put32(Bytes &b, u32 v) {
   Put16(b, v >> 16);
   Put16(b, v & 0xffff);
}
Bytes Cat(std::initializer_list<Bytes> parts) {
   Bytes out;
   for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
   return out;
}

/* One option or sub-option with its header. */
Bytes Tlv(u16 code, const Bytes &value) {
   Bytes b;
   Put16(b, code);
   Put16(b, (u32)value.size());
   b.insert(b.end(), value.begin(), value.end());
   return b;
}

/* A DUID-LLT of Ethernet: type 1, hardware type 1, a time and the MAC. */
Bytes DuidLlt(const std::string &mac, u32 time = 0x2b8c1d5e) {
   Bytes b;
   Put16(b, 1);
   Put16(b, 1);
   Put32(b, time);
   MacAddr m = MacOf(mac);
   b.insert(b.end(), m.begin(), m.end());
   return b;
}

Bytes StatusSub(u16 code, const std::string &text) {
   Bytes v;
   Put16(v, code);
   v.insert(v.end(), text.begin(), text.end());
   return Tlv(13, v);
}

Bytes IaAddrSub(const std::string &ip, u32 preferred, u32 valid, const Bytes &subs = {}) {
   Addr6 a = Ip6(ip);
   Bytes v(a.begin(), a.end());
   Put32(v, preferred);
   Put32(v, valid);
   v.insert(v.end(), subs.begin(), subs.end());
   return Tlv(5, v);
}

/* The value of an IA_NA option: IAID, T1, T2, then sub-options. */
Bytes IaNa(u32 iaid, const Bytes &subs = {}, u32 t1 = 0, u32 t2 = 0) {
   Bytes v;
   Put32(v, iaid);
   Put32(v, t1);
   Put32(v, t2);
   v.insert(v.end(), subs.begin(), subs.end());
   return v;
}
Bytes IaTa(u32 iaid, const Bytes &subs = {}) {
   Bytes v;
   Put32(v, iaid);
   v.insert(v.end(), subs.begin(), subs.end());
   return v;
}
Bytes StatusValue(u16 code, const std::string &text) {
   Bytes v;
   Put16(v, code);
   v.insert(v.end(), text.begin(), text.end());
   return v;
}

const Bytes kClientDuid = DuidLlt(kVmMac);
const Bytes kServerDuid = DuidLlt(kServerMac, 0x2b000001);
const Bytes kElapsed = {0, 0};
const Bytes kOro = {0, 23, 0, 24}; /* DNS servers, domain list */

/* A client message as a stateful client sends it: Client ID, (Server ID),
 * Elapsed Time, Option Request, then the rest. */
Options ClientOpts(bool serverId, const Options &rest, const Bytes &clientId = kClientDuid) {
   Options opts = {{1, clientId}};
   if (serverId) opts.push_back({2, kServerDuid});
   opts.push_back({8, kElapsed});
   opts.push_back({6, kOro});
   opts.insert(opts.end(), rest.begin(), rest.end());
   return opts;
}

/* A server's answer: IAs first, then Client ID, Server ID and the rest. */
Options ServerOpts(const Options &ias, const Options &rest = {},
                   const Bytes &clientId = kClientDuid) {
   Options opts = ias;
   opts.push_back({1, clientId});
   opts.push_back({2, kServerDuid});
   opts.insert(opts.end(), rest.begin(), rest.end());
   return opts;
}

Bytes Client(u8 type, u32 xid, const Options &opts, const std::string &mac = kVmMac) {
   return frames::Dhcpv6Frame(mac, kAllAgentsMac, {kVmLinkLocal, kAllAgents, 1}, 546, 547, type,
                              xid, opts);
}
Bytes Server(u8 type, u32 xid, const Options &opts, const std::string &dstMac = kVmMac) {
   return frames::Dhcpv6Frame(kServerMac, dstMac, {kServerLl, kVmLinkLocal, 255}, 547, 546,
                              type, xid, opts);
}

Bytes DhcpAdded(u16 vlan, const std::string &mac, const std::string &ip) {
   return PortDbV6Msg(true, vlan, mac, ip, VIGIL_DISC_DHCPV6);
}
Bytes DhcpRemoved(u16 vlan, const std::string &mac, const std::string &ip) {
   return PortDbV6Msg(false, vlan, mac, ip, VIGIL_DISC_DHCPV6);
}

std::string V6Text(const std::string &ip) {
   Addr6 a = Ip6(ip);
   char text[64];
   snprintf(text, sizeof text, "%x:%x:%x:%x:%x:%x:%x:%x", a[0] << 8 | a[1], a[2] << 8 | a[3],
            a[4] << 8 | a[5], a[6] << 8 | a[7], a[8] << 8 | a[9], a[10] << 8 | a[11],
            a[12] << 8 | a[13], a[14] << 8 | a[15]);
   return text;
}

std::string Hex(u32 v) {
   char text[16];
   snprintf(text, sizeof text, "%#x", v);
   return text;
}

std::string AddedLine(u16 vlan, const std::string &ip, i64 expiryTs,
                      const std::string &mac = kVmMac) {
   return "Filter 0x10 Added IP to PortDB VLAN: " + std::to_string(vlan) + ", IP: " + V6Text(ip) +
          " MAC: " + mac + " discMethod: 0x10, expiryTs: " + std::to_string(expiryTs);
}
std::string DeletedLine(u16 vlan, const std::string &ip, i64 expiryTs,
                        const std::string &mac = kVmMac) {
   return "Filter 0x10 Deleting V6 VMI VLAN: " + std::to_string(vlan) + ", IP: " + V6Text(ip) +
          " MAC: " + mac + " discMethod: 0x10, expiryTs: " + std::to_string(expiryTs);
}

} // namespace

class Dhcpv6TrackTest : public Ipv6DbTest {
protected:
   void SetUp() override {
      Ipv6DbTest::SetUp();
      filter->discoveryFlags = VIGIL_DISC_DHCPV6;
   }

   void TearDown() override {
      if (filter != nullptr) {
         DropRequests();
      }
      Ipv6DbTest::TearDown();
   }

   /* Every pending request goes, as switching DHCPv6 snooping off does. */
   void DropRequests() {
      WithWriteLock([this] {
         while (!VigilListIsEmpty(&filter->dhcpV6ReqList)) {
            VigilDelDhcpV6Req(filter, VIGIL_DHCPV6_REQ_FROM_LINKS(filter->dhcpV6ReqList.next));
         }
      });
   }

   /* Bindings, requests, messages and log lines all gone. */
   void Fresh() {
      DropRequests();
      Restart();
   }

   std::vector<VigilDhcpV6Req *> Requests() {
      std::vector<VigilDhcpV6Req *> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->dhcpV6ReqList) {
         out.push_back(VIGIL_DHCPV6_REQ_FROM_LINKS(pos));
      }
      return out;
   }

   /* The message types of the pending requests, in list order. */
   std::vector<int> RequestTypes() {
      std::vector<int> out;
      for (VigilDhcpV6Req *req : Requests()) out.push_back(req->msg[0]);
      return out;
   }

   /* Solicit with rapid commit and its Reply: a binding of kAddr1. */
   void Lease(const std::string &ip = kAddr1, u32 valid = 7200, u32 xid = 0x1000) {
      ASSERT_EQ(Tx1(Client(1, xid, ClientOpts(false, {{14, {}}, {3, IaNa(kIaid)}}))), "forward");
      ASSERT_EQ(Rx1(Server(7, xid, ServerOpts({{3, IaNa(kIaid, IaAddrSub(ip, 3600, valid), 3600,
                                                        5760)}},
                                              {{14, {}}}))),
                "forward");
      ASSERT_NE(Find(0, kVmMac, ip), nullptr);
      ASSERT_EQ(filter->numDhcpV6Reqs, 0u);
      sim::TakeLogs();
   }

   /* Every line logged since the last look came through the throttle. */
   void ExpectAllThrottled(const std::vector<sim::LogLine> &lines) {
      for (const sim::LogLine &line : lines) {
         if (line.text.find("PortDB") != std::string::npos ||
             line.text.find("V6 VMI") != std::string::npos) {
            continue; /* the table's own lines */
         }
         EXPECT_EQ(line.log, "vigil.throttle") << line.text;
      }
   }
};

/* ------------------------------------------------------ the request list */

class Dhcpv6ReqListTest : public Dhcpv6TrackTest {
protected:
   /* A request block as creation makes it, with a message of `type`. */
   VigilDhcpV6Req *MakeReq(u8 type, u32 xid = kXid) {
      const u32 msgLen = 4;
      auto *req = (VigilDhcpV6Req *)Vigil_HeapAlloc(sizeof(VigilDhcpV6Req) + msgLen + 2);
      req->msg = (u8 *)(req + 1);
      req->msg[0] = type;
      req->msg[1] = (u8)(xid >> 16);
      req->msg[2] = (u8)(xid >> 8);
      req->msg[3] = (u8)xid;
      req->msgLen = msgLen;
      req->clientId = req->msg + msgLen;
      req->clientId[0] = 0xab;
      req->clientId[1] = 0xcd;
      req->clientIdLen = 2;
      req->reqStatus = 1;
      return req;
   }

   std::vector<i32> Sequence(u8 type, int steps) {
      VigilDhcpV6Req *req = MakeReq(type);
      std::vector<i32> out;
      for (int i = 0; i < steps; i++) {
         VigilDhcpV6ReqTimeoutStep(req);
         out.push_back(req->retransTimeout);
      }
      Vigil_HeapFree(req);
      return out;
   }
};

TEST_F(Dhcpv6ReqListTest, TimeoutsGrowByTypeAndJumpAboveTheCapOnceBeforeFallingBack) {
   EXPECT_EQ(Sequence(1, 7), (std::vector<i32>{2, 6, 18, 54, 162, 150, 150}));
   EXPECT_EQ(Sequence(3, 6), (std::vector<i32>{2, 6, 18, 54, 37, 37}));
   EXPECT_EQ(Sequence(4, 4), (std::vector<i32>{2, 6, 5, 5}));
   EXPECT_EQ(Sequence(5, 7), (std::vector<i32>{20, 60, 180, 540, 1620, 750, 750}));
   EXPECT_EQ(Sequence(6, 7), (std::vector<i32>{20, 60, 180, 540, 1620, 750, 750}));
   for (u8 other : {0, 2, 7, 8, 9, 10, 13, 200}) {
      EXPECT_EQ(Sequence(other, 2), (std::vector<i32>{0, 0})) << (int)other;
   }
}

TEST_F(Dhcpv6ReqListTest, AddArmsTheFirstTimeoutKeepsExpiryOrderAndCounts) {
   const i64 now = Uptime();
   VigilDhcpV6Req *renew = MakeReq(5, 1);
   VigilDhcpV6Req *solicit = MakeReq(1, 2);
   VigilDhcpV6Req *request = MakeReq(3, 3);
   WithWriteLock([&] {
      EXPECT_TRUE(VigilAddDhcpV6Req(filter, renew));
      EXPECT_TRUE(VigilAddDhcpV6Req(filter, solicit));
      EXPECT_TRUE(VigilAddDhcpV6Req(filter, request));
   });
   /* Equal expiry times: the later one stands behind. */
   EXPECT_EQ(Requests(), (std::vector<VigilDhcpV6Req *>{solicit, request, renew}));
   EXPECT_EQ(renew->expiryTs, now + 20);
   EXPECT_EQ(solicit->expiryTs, now + 2);
   EXPECT_EQ(request->retransTimeout, 2);
   EXPECT_EQ(filter->numDhcpV6Reqs, 3u);
   EXPECT_EQ(filter->dhcpV6ReqBytes, 18u);
   EXPECT_EQ(filter->agingKey, now + 2);
   EXPECT_EQ(LogTexts(),
             (Texts{"Filter 0x10 DHCPv6 pending request added - type: Renew (5), vlanId: 0, "
                    "xId: 0x100, expiryTs: " + std::to_string(now + 20) + " ",
                    "Filter 0x10 DHCPv6 pending request added - type: Solicit (1), vlanId: 0, "
                    "xId: 0x200, expiryTs: " + std::to_string(now + 2) + " ",
                    "Filter 0x10 DHCPv6 pending request added - type: Request (3), vlanId: 0, "
                    "xId: 0x300, expiryTs: " + std::to_string(now + 2) + " "}));
   EXPECT_EQ(Violations(), Texts());

   WithWriteLock([&] { VigilDelDhcpV6Req(filter, solicit); });
   EXPECT_EQ(filter->numDhcpV6Reqs, 2u);
   EXPECT_EQ(filter->dhcpV6ReqBytes, 12u);
   EXPECT_EQ(filter->agingKey, now + 2);
   EXPECT_EQ(LogTexts(), Texts{"Filter 0x10 Deleting DHCPv6 pending req:vlan = 0 xId = 0x200 "
                               "numReq = 3"});
   WithWriteLock([&] { VigilDelDhcpV6Req(filter, request); });
   EXPECT_EQ(filter->agingKey, now + 20);
   ExpectNoLeak();
}

TEST_F(Dhcpv6ReqListTest, SixteenthRequestIsRefusedAndLeftToTheCaller) {
   std::vector<VigilDhcpV6Req *> reqs;
   for (u32 i = 0; i < 15; i++) reqs.push_back(MakeReq(3, 0x10 + i));
   VigilDhcpV6Req *extra = MakeReq(5, 0xabcdef);
   WithWriteLock([&] {
      for (VigilDhcpV6Req *req : reqs) EXPECT_TRUE(VigilAddDhcpV6Req(filter, req));
      sim::TakeLogs();
      EXPECT_FALSE(VigilAddDhcpV6Req(filter, extra));
   });
   EXPECT_EQ(extra->retransTimeout, 0);
   EXPECT_FALSE(VigilListIsLinked(&extra->reqLinks));
   EXPECT_EQ(filter->numDhcpV6Reqs, 15u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].log, "vigil.throttle");
   EXPECT_EQ(lines[0].text, "Filter 0x10 Error! Exceeding the max DhcpV6Reqs 15, Skipping Req "
                            "Msg Type: Renew (5), vlanId: 0, xId: 0xabcdef00");
   Vigil_HeapFree(extra);
}

TEST_F(Dhcpv6ReqListTest, AgingEndsDueRequestsInOrder) {
   const i64 now = Uptime();
   VigilDhcpV6Req *solicit = MakeReq(1, 2);
   VigilDhcpV6Req *renew = MakeReq(5, 1);
   WithWriteLock([&] {
      EXPECT_TRUE(VigilAddDhcpV6Req(filter, solicit));
      EXPECT_TRUE(VigilAddDhcpV6Req(filter, renew));
   });
   sim::TakeLogs();
   WithWriteLock([&] { VigilPortDbV6DoAging(filter, now + 2); });
   EXPECT_EQ(Requests(), std::vector<VigilDhcpV6Req *>{renew});
   EXPECT_EQ(filter->agingKey, now + 20);
   WithWriteLock([&] { VigilPortDbV6DoAging(filter, now + 20); });
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(filter->dhcpV6ReqBytes, 0u);
   ExpectNoLeak();
}

/* ---------------------------------------------------- whole exchanges */

namespace {

std::string XidText(u32 xid) { return Hex(xid << 8); }

/* The lines of a client message that becomes a new pending request. */
Texts NewRequestLines(const std::string &type, int code, u16 vlan, u32 xid, i64 expiryTs) {
   return {"Filter 0x10 No DHCPv6 pending request match found",
           "Filter 0x10 New DHCPv6 pendingrequest created",
           "Filter 0x10 DHCPv6 pending request added - type: " + type + " (" +
              std::to_string(code) + "), vlanId: " + std::to_string(vlan) +
              ", xId: " + XidText(xid) + ", expiryTs: " + std::to_string(expiryTs) + " "};
}

/* The lines of a Reply matched with its request, up to the IAs: the
 * request's copy parsed with `reqIas` IAs. */
Texts ReplyLines(const std::string &type, int code, u32 xid, int reqIas, bool status = false,
                 u16 statusCode = 0) {
   Texts out = {"Filter 0x10 Match found", "Filter 0x10 Processing reply for msgType: " + type +
                                              " (" + Hex(code) + "), Xid: " + XidText(xid)};
   if (status) {
      out.push_back("Processing golbal status code in reply: " + Hex(statusCode));
      if (statusCode != 0) return out;
   }
   out.push_back("Filter 0x10 Parsing DHCPV6 Req");
   for (int i = 0; i < reqIas; i++) out.push_back("Filter 0x10 Parsing IaOpt status: Success (0)");
   out.push_back("Filter 0x10 Req parsing success");
   return out;
}

/* One IA of a Reply parsed and matched. */
Texts IaLines(u32 iaid, bool na = true) {
   return {"Filter 0x10 Parsing IaOpt status: Success (0)",
           "Filter 0x10 IaId: " + Hex(iaid) + ", type: " + (na ? "IA-NA" : "IA-TA")};
}

std::string DeleteReqLine(u16 vlan, u32 xid, int numReq) {
   return "Filter 0x10 Deleting DHCPv6 pending req:vlan = " + std::to_string(vlan) +
          " xId = " + XidText(xid) + " numReq = " + std::to_string(numReq);
}

/* A list of lines that a macro argument can hold. */
template <typename... Args> Texts L(Args &&...lines) {
   return Texts{std::string(lines)...};
}

Texts operator+(Texts a, const Texts &b) {
   a.insert(a.end(), b.begin(), b.end());
   return a;
}

const Options kRapidSolicit = ClientOpts(false, {{14, {}}, {3, IaNa(kIaid)}});

/* The server's IA_NA granting `ip`. */
Options Grant(const std::string &ip, u32 preferred = 3600, u32 valid = 7200) {
   return {{3, IaNa(kIaid, IaAddrSub(ip, preferred, valid), preferred, valid * 4 / 5)}};
}

} // namespace

TEST_F(Dhcpv6TrackTest, SolicitWithRapidCommitAndItsReplyMakeTheBinding) {
   const i64 now = Uptime();
   sim::LockCounts before = Locks();
   sim::FrameOptions opts;
   opts.vlan = 7;
   const Bytes solicit = Client(1, kXid, kRapidSolicit);
   EXPECT_EQ(Tx1(solicit, opts), "forward");
   EXPECT_EQ(Locks().writes - before.writes, 1u) << "one relock";
   ASSERT_EQ(filter->numDhcpV6Reqs, 1u);
   VigilDhcpV6Req *req = Requests()[0];
   EXPECT_EQ(req->vlanId, 7);
   EXPECT_EQ(MacAddr(std::to_array(req->mac)), MacOf(kVmMac));
   const size_t udpAt = kIcmpAt; /* UDP stands where ICMPv6 would */
   EXPECT_EQ(req->msgLen, solicit.size() - udpAt - 8);
   EXPECT_EQ(Bytes(req->msg, req->msg + req->msgLen), Bytes(solicit.begin() + udpAt + 8, solicit.end()));
   EXPECT_EQ(Bytes(req->clientId, req->clientId + req->clientIdLen), kClientDuid);
   EXPECT_EQ(req->clientId, req->msg + req->msgLen) << "one block";
   EXPECT_EQ(req->reqStatus, 1u);
   EXPECT_EQ(req->retransTimeout, 2);
   EXPECT_EQ(req->expiryTs, now + 2);
   EXPECT_EQ(filter->dhcpV6ReqBytes, req->msgLen + 14u);
   EXPECT_EQ(filter->agingKey, now + 2);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ExpectAllThrottled(lines);
   Texts texts;
   for (const auto &l : lines) texts.push_back(l.text);
   EXPECT_EQ(texts, NewRequestLines("Solicit", 1, 7, kXid, now + 2));

   EXPECT_EQ(Rx1(Server(7, kXid, ServerOpts(Grant(kAddr1), {{14, {}}})), opts), "forward");
   VigilV6Vmi *vmi = Find(7, kVmMac, kAddr1);
   ASSERT_NE(vmi, nullptr);
   EXPECT_EQ(vmi->discMethod, VIGIL_DISC_DHCPV6);
   EXPECT_EQ(vmi->expiryTs, now + 7200);
   EXPECT_EQ(vmi->validLifetime, 7200);
   EXPECT_EQ(vmi->preferredLifetime, 3600u);
   EXPECT_EQ(vmi->iaId, kIaid);
   EXPECT_EQ(Addr6(std::to_array(vmi->serverIp)), Ip6(kServerLl));
   EXPECT_EQ(Bytes(vmi->clientId, vmi->clientId + vmi->clientIdLen), kClientDuid);
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
   EXPECT_EQ(filter->dhcpV6ClientIdBytes, 14u);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(filter->dhcpV6ReqBytes, 0u);
   EXPECT_EQ(filter->agingKey, now + 7200);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpAdded(7, kVmMac, kAddr1)});
   lines = TakeModuleLogs();
   ExpectAllThrottled(lines);
   texts.clear();
   for (const auto &l : lines) texts.push_back(l.text);
   EXPECT_EQ(texts, ReplyLines("Solicit", 1, kXid, 1) + IaLines(kIaid) +
                       L(AddedLine(7, kAddr1, now + 7200), DeleteReqLine(7, kXid, 1)));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, SolicitAdvertiseRequestReply) {
   const i64 now = Uptime();
   /* Without rapid commit the Solicit isn't kept, nor is the Advertise. */
   EXPECT_EQ(Tx1(Client(1, 0x111, ClientOpts(false, {{3, IaNa(kIaid)}}))), "forward");
   EXPECT_EQ(Rx1(Server(2, 0x111, ServerOpts(Grant(kAddr1), {{7, {0xff}}}))), "forward");
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(LogTexts(), (Texts{"Filter 0x10 Solicit msg, rapid commit option not present",
                                "Filter 0x10 Skipping DHCPv6 message type: Advertise (0x2)"}));

   EXPECT_EQ(Tx1(Client(3, 0x222, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   EXPECT_EQ(RequestTypes(), std::vector<int>{3});
   EXPECT_EQ(LogTexts(), NewRequestLines("Request", 3, 0, 0x222, now + 2));
   EXPECT_EQ(Rx1(Server(7, 0x222, ServerOpts(Grant(kAddr1)))), "forward");
   ASSERT_NE(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpAdded(0, kVmMac, kAddr1)});
   EXPECT_EQ(LogTexts(), ReplyLines("Request", 3, 0x222, 1) + IaLines(kIaid) +
                            L(AddedLine(0, kAddr1, now + 7200), DeleteReqLine(0, 0x222, 1)));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, RetransmittedRequestWindsItsClockAndMovesBehindLaterRequests) {
   const i64 now = Uptime();
   const Bytes request = Client(3, 0x333, ClientOpts(true, {{3, IaNa(kIaid)}}));
   const Bytes renew = Client(5, 0x444, ClientOpts(true, {{3, IaNa(kIaid + 1)}}));
   EXPECT_EQ(Tx1(request), "forward");
   EXPECT_EQ(Tx1(renew), "forward");
   EXPECT_EQ(RequestTypes(), (std::vector<int>{3, 5}));
   sim::TakeLogs();
   VigilDhcpV6Req *req = Requests()[0];
   const Bytes stored(req->msg, req->msg + req->msgLen);
   std::vector<i32> timeouts = {req->retransTimeout};
   for (int i = 0; i < 4; i++) {
      EXPECT_EQ(Tx1(request), "forward");
      timeouts.push_back(req->retransTimeout);
   }
   EXPECT_EQ(timeouts, (std::vector<i32>{2, 6, 18, 54, 37}));
   EXPECT_EQ(req->expiryTs, now + 37);
   EXPECT_EQ(RequestTypes(), (std::vector<int>{5, 3})) << "behind the Renew (20 s)";
   EXPECT_EQ(Bytes(req->msg, req->msg + req->msgLen), stored);
   EXPECT_EQ(filter->numDhcpV6Reqs, 2u);
   EXPECT_EQ(filter->agingKey, now + 20);
   EXPECT_EQ(LogTexts(), Texts(4, "Filter 0x10 Match found"));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, MessageOfAnotherTypeUnderAPendingIdentityChangesNothing) {
   EXPECT_EQ(Tx1(Client(1, kXid, kRapidSolicit)), "forward");
   VigilDhcpV6Req *req = Requests()[0];
   const i64 expiry = req->expiryTs;
   sim::TakeLogs();
   EXPECT_EQ(Tx1(Client(3, kXid, ClientOpts(true, {{3, IaNa(kIaid)}}))), "forward");
   EXPECT_EQ(Requests(), std::vector<VigilDhcpV6Req *>{req});
   EXPECT_EQ(req->msg[0], 1);
   EXPECT_EQ(req->retransTimeout, 2);
   EXPECT_EQ(req->expiryTs, expiry);
   EXPECT_EQ(LogTexts(), Texts{"Filter 0x10 Match found"});
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, RenewReplyRefreshesTheLeaseWithoutAMessage) {
   Lease();
   TakeMessages();
   sim::Advance(100);
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(5, 0x555, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 3600, 7200))}}))),
             "forward");
   ASSERT_EQ(Requests().size(), 1u);
   EXPECT_EQ(Requests()[0]->retransTimeout, 20);
   sim::TakeLogs();
   EXPECT_EQ(Rx1(Server(7, 0x555, ServerOpts(Grant(kAddr1, 1800, 4000)))), "forward");
   VigilV6Vmi *vmi = Find(0, kVmMac, kAddr1);
   ASSERT_NE(vmi, nullptr);
   EXPECT_EQ(vmi->expiryTs, now + 4000);
   EXPECT_EQ(vmi->validLifetime, 4000);
   EXPECT_EQ(vmi->preferredLifetime, 1800u);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(LogTexts(), ReplyLines("Renew", 5, 0x555, 1) + IaLines(kIaid) +
                            L(DeleteReqLine(0, 0x555, 1)));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, RenewAnsweredNoBindingGloballyLosesTheRequestsAddresses) {
   Lease(kAddr1);
   Lease(kAddr2, 7200, 0x1001);
   TakeMessages();
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(5, 0x556, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   sim::TakeLogs();
   EXPECT_EQ(Rx1(Server(7, 0x556, ServerOpts({}, {{13, StatusValue(3, "no binding")}}))),
             "forward");
   EXPECT_EQ(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_NE(Find(0, kVmMac, kAddr2), nullptr) << "not named in the Renew";
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, kVmMac, kAddr1)});
   EXPECT_EQ(LogTexts(),
             ReplyLines("Renew", 5, 0x556, 1, true, 3) +
                L("Filter 0x10 Parsing DHCPV6 Req",
                      "Filter 0x10 Parsing IaOpt status: Success (0)",
                      DeletedLine(0, kAddr1, now + 7200),
                      "Filter 0x10 DHCPv6 gstatus error, xId: 0x55600, error: no binding (3), "
                      "reqType: 5",
                      DeleteReqLine(0, 0x556, 1)));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, RebindWithAnIaStatusNoBindingLosesThatIasAddresses) {
   Lease();
   TakeMessages();
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(6, 0x557, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   sim::TakeLogs();
   EXPECT_EQ(Rx1(Server(7, 0x557, ServerOpts({{3, IaNa(kIaid, StatusSub(3, "gone"))}}))),
             "forward");
   EXPECT_EQ(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, kVmMac, kAddr1)});
   EXPECT_EQ(LogTexts(),
             ReplyLines("Rebind", 6, 0x557, 1) + IaLines(kIaid) +
                L("Filter 0x10 DeletingReqIa for Renew/Rebind based on status",
                      DeletedLine(0, kAddr1, now + 7200),
                      "Filter 0x10 Handled error - IAID: e000010, error: gone(3), reqType: 6",
                      DeleteReqLine(0, 0x557, 1)));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, RebindWithoutServerIdIsNotTrackedAndItsReplyFindsNothing) {
   Lease();
   TakeMessages();
   EXPECT_EQ(Tx1(Client(6, 0x558, ClientOpts(false, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(Rx1(Server(7, 0x558, ServerOpts(Grant(kAddr1, 100, 200)))), "forward");
   EXPECT_EQ(Find(0, kVmMac, kAddr1)->validLifetime, 7200) << "not renewed";
   EXPECT_EQ(LogTexts(),
             (Texts{"Filter 0x10 DHCPv6 msgType: Rebind (0x6) - serverIdOpt not present",
                    "Filter 0x10 No DHCPv6 pending request match found",
                    "Filter 0x10 No Request for reply found - vlanID: 0, Xid: 0x55800"}));
   /* With a Server ID it is tracked like a Renew. */
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(6, 0x559, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   EXPECT_EQ(LogTexts(), NewRequestLines("Rebind", 6, 0, 0x559, now + 20));
   EXPECT_EQ(Rx1(Server(7, 0x559, ServerOpts(Grant(kAddr1, 100, 200)))), "forward");
   EXPECT_EQ(Find(0, kVmMac, kAddr1)->expiryTs, now + 200);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, ConfirmAnsweredNotOnLinkIsKeptAndASuccessThenEndsIt) {
   Lease();
   TakeMessages();
   const i64 now = Uptime();
   const Bytes confirm =
      Client(4, 0x660, ClientOpts(false, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}));
   EXPECT_EQ(Tx1(confirm), "forward");
   EXPECT_EQ(LogTexts(), NewRequestLines("Confirm", 4, 0, 0x660, now + 2));
   EXPECT_EQ(Rx1(Server(7, 0x660, ServerOpts({}, {{13, StatusValue(4, "not on link")}}))),
             "forward");
   ASSERT_EQ(Requests().size(), 1u);
   VigilDhcpV6Req *req = Requests()[0];
   EXPECT_EQ(req->reqStatus, 4u);
   EXPECT_NE(Find(0, kVmMac, kAddr1), nullptr) << "not before the request ages out";
   EXPECT_EQ(LogTexts(), ReplyLines("Confirm", 4, 0x660, 1, true, 4) +
                            L("Filter 0x10 DHCPv6 gstatus error, xId: 0x66000, error: not on "
                                  "link (4), reqType: 4"));
   /* The client retransmits; a success then ends the request. */
   EXPECT_EQ(Tx1(confirm), "forward");
   EXPECT_EQ(req->retransTimeout, 6);
   sim::TakeLogs();
   EXPECT_EQ(Rx1(Server(7, 0x660, ServerOpts({}, {{13, StatusValue(0, "all on link")}}))),
             "forward");
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_NE(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(LogTexts(), ReplyLines("Confirm", 4, 0x660, 1, true, 0) +
                            L(DeleteReqLine(0, 0x660, 1)));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, ConfirmAnsweredNotOnLinkTakesItsAddressesWhenItAgesOut) {
   Lease(kAddr1);
   Lease(kAddr2, 7200, 0x1001);
   TakeMessages();
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(4, 0x661, ClientOpts(false, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   EXPECT_EQ(Rx1(Server(7, 0x661, ServerOpts({}, {{13, StatusValue(3, "")}}))), "forward");
   EXPECT_EQ(Requests()[0]->reqStatus, 3u);
   EXPECT_EQ(filter->agingKey, now + 2);
   sim::TakeLogs();
   WithWriteLock([&] { VigilPortDbV6DoAging(filter, now + 2); });
   EXPECT_EQ(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_NE(Find(0, kVmMac, kAddr2), nullptr);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, kVmMac, kAddr1)});
   EXPECT_EQ(LogTexts(), (Texts{"Filter 0x10 Age out pending DHCPv6 req - vlan: 0, xId: 0x66100, "
                                "mac: 02:00:00:00:00:10",
                                "Filter 0x10 Parsing DHCPV6 Req",
                                "Filter 0x10 Parsing IaOpt status: Success (0)",
                                DeletedLine(0, kAddr1, now + 7200),
                                DeleteReqLine(0, 0x661, 1)}));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, ConfirmWhoseReplyHasNoStatusAgesOutAndDeletesNothing) {
   Lease();
   TakeMessages();
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(4, 0x662, ClientOpts(false, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   sim::TakeLogs();
   EXPECT_EQ(Rx1(Server(7, 0x662, ServerOpts({}))), "forward");
   ASSERT_EQ(Requests().size(), 1u);
   EXPECT_EQ(Requests()[0]->reqStatus, 1u);
   EXPECT_EQ(LogTexts(), ReplyLines("Confirm", 4, 0x662, 1));
   WithWriteLock([&] { VigilPortDbV6DoAging(filter, now + 2); });
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_NE(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_EQ(TakeMessages().size(), 0u);
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, ReleaseAndDeclineTakeTheirAddressesAtOnceAndKeepNoRequest) {
   Lease(kAddr1);
   Lease(kAddr2, 7200, 0x1001);
   TakeMessages();
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(8, 0x770, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   EXPECT_EQ(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, kVmMac, kAddr1)});
   EXPECT_EQ(LogTexts(), (Texts{"Filter 0x10 No DHCPv6 pending request match found",
                                "Filter 0x10 New DHCPv6 pendingrequest created",
                                "Filter 0x10 Parsing DHCPV6 Req",
                                "Filter 0x10 Parsing IaOpt status: Success (0)",
                                DeletedLine(0, kAddr1, now + 7200)}));
   /* The server's answer finds no request. */
   EXPECT_EQ(Rx1(Server(7, 0x770, ServerOpts({}, {{13, StatusValue(0, "")}}))), "forward");
   EXPECT_EQ(LogTexts(), (Texts{"Filter 0x10 No DHCPv6 pending request match found",
                                "Filter 0x10 No Request for reply found - vlanID: 0, Xid: 0x77000"}));

   EXPECT_EQ(Tx1(Client(9, 0x771, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr2, 0, 0))}}))),
             "forward");
   EXPECT_EQ(filter->numDhcpV6Entries, 0u);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, kVmMac, kAddr2)});
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, ReleaseOfAnotherIaidOrClientOrAnNdBindingLeavesTheBinding) {
   Lease();
   VigilV6Vmi nd{};
   nd.vlanId = 0;
   memcpy(nd.mac, MacOf(kVmMac).data(), 6);
   Addr6 a = Ip6(kAddr2);
   memcpy(nd.ip, a.data(), 16);
   nd.discMethod = VIGIL_DISC_ND;
   nd.expiryTs = Uptime() + 600;
   WithWriteLock([&] { ASSERT_EQ(VigilAddV6Vmi(filter, &nd), ZEK_OK); });
   TakeMessages();
   sim::TakeLogs();
   EXPECT_EQ(Tx1(Client(8, 0x772, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr2, 0, 0))}}))),
             "forward");
   EXPECT_EQ(Tx1(Client(8, 0x773, ClientOpts(true, {{3, IaNa(kIaid + 1, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   EXPECT_EQ(Tx1(Client(8, 0x774, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}},
                                             DuidLlt(kVmMac, 1)))),
             "forward");
   EXPECT_EQ(Tx1(Client(8, 0x775, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr3, 0, 0))}}))),
             "forward");
   EXPECT_NE(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_NE(Find(0, kVmMac, kAddr2), nullptr);
   EXPECT_EQ(TakeMessages().size(), 0u);
   const Texts head = {"Filter 0x10 No DHCPv6 pending request match found",
                       "Filter 0x10 New DHCPv6 pendingrequest created",
                       "Filter 0x10 Parsing DHCPV6 Req",
                       "Filter 0x10 Parsing IaOpt status: Success (0)"};
   EXPECT_EQ(LogTexts(), head + L("Filter 0x10 vmi found but did not match", "Unable to find Vmi") +
                            head + L("Filter 0x10 vmi found but did not match", "Unable to find Vmi") +
                            head + L("Filter 0x10 vmi found but did not match", "Unable to find Vmi") +
                            head + L("Filter 0x10 Cannot find vmi", "Unable to find Vmi"));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, ReplyWithSeveralAddressesWithdrawalsFailuresAndAnUnknownIaid) {
   Lease(kAddr3);
   Lease(kAddr2, 7200, 0x1001);
   TakeMessages();
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(3, 0x880, ClientOpts(true, {{3, IaNa(kIaid)}, {4, IaTa(7)}}))), "forward");
   sim::TakeLogs();
   const Bytes addrs = Cat({IaAddrSub(kAddr1, 300, 600), IaAddrSub(kAddr2, 100, 0),
                            IaAddrSub("2001:db8::200", 100, 200, StatusSub(2, "no addrs")),
                            IaAddrSub(kAddr3, 0, 0)});
   const Options ias = {{3, IaNa(kIaid, addrs, 150, 240)},
                        {4, IaTa(7, IaAddrSub("2001:db8::300", 50, 60))},
                        {3, IaNa(0x99, IaAddrSub("2001:db8::400", 50, 60))}};
   EXPECT_EQ(Rx1(Server(7, 0x880, ServerOpts(ias))), "forward");
   ASSERT_NE(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_EQ(Find(0, kVmMac, kAddr1)->expiryTs, now + 600);
   ASSERT_NE(Find(0, kVmMac, kAddr2), nullptr) << "valid below preferred: not withdrawn";
   EXPECT_EQ(Find(0, kVmMac, kAddr2)->validLifetime, 7200);
   EXPECT_EQ(Find(0, kVmMac, "2001:db8::200"), nullptr);
   EXPECT_EQ(Find(0, kVmMac, kAddr3), nullptr) << "withdrawn";
   ASSERT_NE(Find(0, kVmMac, "2001:db8::300"), nullptr);
   EXPECT_EQ(Find(0, kVmMac, "2001:db8::300")->iaId, 7u);
   EXPECT_EQ(Find(0, kVmMac, "2001:db8::400"), nullptr);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(MessageBytes(), (std::vector<Bytes>{DhcpAdded(0, kVmMac, kAddr1),
                                                 DhcpRemoved(0, kVmMac, kAddr3),
                                                 DhcpAdded(0, kVmMac, "2001:db8::300")}));
   EXPECT_EQ(LogTexts(),
             ReplyLines("Request", 3, 0x880, 2) + IaLines(kIaid) +
                L(AddedLine(0, kAddr1, now + 600),
                      "Filter 0x10 Invalid lifetime for IP 2001:db8:0:0:0:0:0:101",
                      "Filter 0x10 IAADDR has non success status",
                      DeletedLine(0, kAddr3, now + 7200)) +
                IaLines(7, false) + L(AddedLine(0, "2001:db8::300", now + 60)) +
                IaLines(0x99) +
                L("Filter 0x10 Error! Unrecoginzed IAID 0x99 in reply",
                      "Filter 0x10 Processing IaOpt failed: Not found (195887107)",
                      DeleteReqLine(0, 0x880, 1),
                      "Filter 0x10 Error performing Rx DHCPv6 Discovery on port 0x10: Not found"));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, WithdrawalOfAnUnknownAddressAndAGlobalFailureBindNothing) {
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(3, 0x881, ClientOpts(true, {{3, IaNa(kIaid)}}))), "forward");
   sim::TakeLogs();
   EXPECT_EQ(Rx1(Server(7, 0x881, ServerOpts(Grant(kAddr1, 0, 0)))), "forward");
   EXPECT_EQ(LogTexts(), ReplyLines("Request", 3, 0x881, 1) + IaLines(kIaid) +
                            L("Filter 0x10 v6Vmi to delete not found",
                                  DeleteReqLine(0, 0x881, 1)));
   EXPECT_EQ(Tx1(Client(3, 0x882, ClientOpts(true, {{3, IaNa(kIaid)}}))), "forward");
   EXPECT_EQ(LogTexts(), NewRequestLines("Request", 3, 0, 0x882, now + 2));
   EXPECT_EQ(Rx1(Server(7, 0x882, ServerOpts(Grant(kAddr1), {{13, StatusValue(2, "none left")}}))),
             "forward");
   EXPECT_EQ(filter->numDhcpV6Entries, 0u);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(LogTexts(), ReplyLines("Request", 3, 0x882, 1, true, 2) +
                            L("Filter 0x10 DHCPv6 gstatus error, xId: 0x88200, error: none "
                                  "left (2), reqType: 3",
                                  DeleteReqLine(0, 0x882, 1)));
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, ReplyToAnotherMacOrWithoutServerIdBindsNothing) {
   EXPECT_EQ(Tx1(Client(3, 0x990, ClientOpts(true, {{3, IaNa(kIaid)}}))), "forward");
   sim::TakeLogs();
   EXPECT_EQ(Rx1(Server(7, 0x990, ServerOpts(Grant(kAddr1)), kOtherMac)), "forward");
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].text,
             "Filter 0x10 Error! Different source mac addressesfor same Client ID unsupported");
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].log, "vigil.throttle");
   EXPECT_EQ(lines[1].text, "Filter 0x10 No Request for reply found - vlanID: 0, Xid: 0x99000");

   Options noServer = {{3, IaNa(kIaid, IaAddrSub(kAddr1, 1, 2))}, {1, kClientDuid}};
   EXPECT_EQ(Rx1(Server(7, 0x990, noServer)), "forward");
   EXPECT_EQ(LogTexts(), Texts());
   EXPECT_EQ(filter->numDhcpV6Entries, 0u);
   EXPECT_EQ(filter->numDhcpV6Reqs, 1u);
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, ClientMessagesThatAreNotTrackedSayWhy) {
   const std::vector<std::pair<Bytes, std::string>> cases = {
      {Client(1, 1, ClientOpts(false, {{14, {}}})), "Filter 0x10 Solicit msg, iaOpt empty"},
      {Client(1, 1, ClientOpts(true, {{3, IaNa(1)}})),
       "Filter 0x10 Solicit msg, rapid commit option not present"},
      {Client(3, 1, ClientOpts(false, {})),
       "Filter 0x10 DHCPv6 msgType: Request (0x3) - serverIdOpt not present"},
      {Client(5, 1, ClientOpts(true, {})),
       "Filter 0x10 DHCPv6 msgType: Renew (0x5) - IaOpt not present"},
      {Client(9, 1, ClientOpts(false, {{3, IaNa(1)}})),
       "Filter 0x10 DHCPv6 msgType: Decline (0x9) - serverIdOpt not present"},
      {Client(8, 1, ClientOpts(true, {})),
       "Filter 0x10 DHCPv6 msgType: Release (0x8) - IaOpt not present"},
      {Client(4, 1, ClientOpts(false, {})), "Filter 0x10 Confirm msg, iaOpt not present"},
      {Client(11, 1, ClientOpts(false, {{3, IaNa(1)}})),
       "Filter 0x10 Skipping DHCPv6 message type: Information-request (0xb)"},
      {Client(7, 1, ClientOpts(true, {{3, IaNa(1)}})),
       "Filter 0x10 Skipping DHCPv6 message type: Reply (0x7)"},
      {Client(3, 1, {{2, kServerDuid}, {3, IaNa(1)}}),
       "Filter 0x10 DHCP msg does not have clientId option"},
   };
   for (const auto &[frame, line] : cases) {
      SCOPED_TRACE(line);
      EXPECT_EQ(Tx1(frame), "forward");
      EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
      std::vector<sim::LogLine> lines = TakeModuleLogs();
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0].text, line);
      EXPECT_EQ(lines[0].level, 1);
      EXPECT_EQ(lines[0].log, "vigil.throttle");
   }
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, FifteenRequestsPendAtMostRetransmissionsMoveAndReleaseStillDeletes) {
   Lease();
   TakeMessages();
   const i64 now = Uptime();
   for (u32 i = 0; i < 15; i++) {
      EXPECT_EQ(Tx1(Client(3, 0x100 + i, ClientOpts(true, {{3, IaNa(kIaid)}}))), "forward");
   }
   EXPECT_EQ(filter->numDhcpV6Reqs, 15u);
   sim::TakeLogs();
   EXPECT_EQ(Tx1(Client(5, 0x200, ClientOpts(true, {{3, IaNa(kIaid)}}))), "forward");
   EXPECT_EQ(filter->numDhcpV6Reqs, 15u);
   EXPECT_EQ(LogTexts(),
             (Texts{"Filter 0x10 No DHCPv6 pending request match found",
                    "Filter 0x10 New DHCPv6 pendingrequest created",
                    "Filter 0x10 Error! Exceeding the max DhcpV6Reqs 15, Skipping Req Msg Type: "
                    "Renew (5), vlanId: 0, xId: 0x20000"}));
   /* Its Reply finds nothing. */
   EXPECT_EQ(Rx1(Server(7, 0x200, ServerOpts(Grant(kAddr2)))), "forward");
   EXPECT_EQ(Find(0, kVmMac, kAddr2), nullptr);

   /* A retransmission of the first goes to the tail. */
   VigilDhcpV6Req *first = Requests()[0];
   EXPECT_EQ(Tx1(Client(3, 0x100, ClientOpts(true, {{3, IaNa(kIaid)}}))), "forward");
   EXPECT_EQ(Requests().back(), first);
   EXPECT_EQ(first->expiryTs, now + 6);
   EXPECT_EQ(filter->numDhcpV6Reqs, 15u);

   /* A Release doesn't pass through the limit. */
   EXPECT_EQ(Tx1(Client(8, 0x300, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   EXPECT_EQ(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_EQ(filter->numDhcpV6Reqs, 15u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, kVmMac, kAddr1)});
   EXPECT_EQ(Violations(), Texts());
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, StoredMessageThatNoLongerParsesDeletesNothing) {
   Lease();
   TakeMessages();
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(4, 0x663, ClientOpts(false, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
             "forward");
   EXPECT_EQ(Rx1(Server(7, 0x663, ServerOpts({}, {{13, StatusValue(4, "")}}))), "forward");
   VigilDhcpV6Req *req = Requests()[0];
   /* The first option now claims more than the copy holds. */
   req->msg[6] = 0xff;
   req->msg[7] = 0xff;
   sim::TakeLogs();
   WithWriteLock([&] { VigilPortDbV6DoAging(filter, now + 2); });
   EXPECT_NE(Find(0, kVmMac, kAddr1), nullptr);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(LogTexts(), (Texts{"Filter 0x10 Age out pending DHCPv6 req - vlan: 0, xId: 0x66300, "
                                "mac: 02:00:00:00:00:10",
                                "Filter 0x10 Parsing DHCPV6 Req",
                                "Filter 0x10 Error! Invalid DhcpV6 Option Len",
                                DeleteReqLine(0, 0x663, 1)}));
   ExpectNoLeak();
}

/* --------------------------------------------------- allocation failures */

TEST_F(Dhcpv6TrackTest, EveryAllocationOfATrackedSolicitFailsInTurn) {
   /* The IA node of the parse, then the request. */
   ForEachAllocFailure(
      2, [&] { DropRequests(); sim::TakeLogs(); },
      [&] { EXPECT_EQ(Tx1(Client(1, kXid, kRapidSolicit)), "forward"); },
      [&](u32 n) {
         EXPECT_EQ(filter->numDhcpV6Reqs, n == 0 ? 1u : 0u);
         if (n == 2) {
            Texts texts = LogTexts();
            ASSERT_EQ(texts.size(), 2u);
            EXPECT_EQ(texts[1], "Filter 0x10 Error! Alloc for DhcpV6Req failed");
         }
      });
}

TEST_F(Dhcpv6TrackTest, EveryAllocationOfAReplyFailsInTurn) {
   /* The reply's IA node; the request copy's IA and address nodes; the
    * reply's address node; the client id copy; the binding, its client id
    * and its message. */
   ForEachAllocFailure(
      8,
      [&] {
         DropRequests();
         EXPECT_EQ(Tx1(Client(3, 0x881, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
                   "forward");
         TakeMessages();
         sim::TakeLogs();
      },
      [&] { EXPECT_EQ(Rx1(Server(7, 0x881, ServerOpts(Grant(kAddr1)))), "forward"); },
      [&](u32 n) {
         /* Only a failure of the reply's own IA node leaves the request.
          * The copy's address nodes aren't needed to match the IA; a lost
          * message leaves the binding. */
         EXPECT_EQ(filter->numDhcpV6Reqs, n == 1 ? 1u : 0u);
         bool bound = n == 0 || n == 3 || n == 8;
         EXPECT_EQ(filter->numDhcpV6Entries, bound ? 1u : 0u);
         EXPECT_EQ(TakeMessages().size(), n == 0 || n == 3 ? 1u : 0u);
         if (n == 5) {
            Texts texts = LogTexts();
            EXPECT_NE(std::find(texts.begin(), texts.end(),
                                "Filter 0x10 Error! Alloc for clientId copy failed, IAADDR skipped"),
                      texts.end());
         }
      });
}

TEST_F(Dhcpv6TrackTest, EveryAllocationOfAReleaseFailsInTurn) {
   /* The IA node of the frame's parse, the request, its copy's IA and
    * address nodes, the removed message. */
   ForEachAllocFailure(
      5,
      [&] {
         DropRequests();
         Lease();
         TakeMessages();
         sim::TakeLogs();
      },
      [&] {
         EXPECT_EQ(Tx1(Client(8, 0x990, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
                   "forward");
      },
      [&](u32 n) {
         /* Without any of the first four the binding isn't named; a lost
          * message doesn't keep it. */
         EXPECT_EQ(filter->numDhcpV6Entries, n >= 1 && n <= 4 ? 1u : 0u);
         EXPECT_EQ(TakeMessages().size(), n == 0 ? 1u : 0u);
         EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
      });
}

TEST_F(Dhcpv6TrackTest, SameIdentityFromAnotherMacMakesASecondRequestThatNoLookupReaches) {
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(1, kXid, kRapidSolicit)), "forward");
   sim::TakeLogs();
   EXPECT_EQ(Tx1(Client(1, kXid, kRapidSolicit, kOtherMac)), "forward");
   ASSERT_EQ(Requests().size(), 2u);
   EXPECT_EQ(MacAddr(std::to_array(Requests()[1]->mac)), MacOf(kOtherMac));
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 3u);
   EXPECT_EQ(lines[0].text,
             "Filter 0x10 Error! Different source mac addressesfor same Client ID unsupported");
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[1].text, "Filter 0x10 New DHCPv6 pendingrequest created");
   /* Its retransmission meets the first request again and is never seen
    * as one: a third request. */
   EXPECT_EQ(Tx1(Client(1, kXid, kRapidSolicit, kOtherMac)), "forward");
   EXPECT_EQ(Requests()[1]->retransTimeout, 2);
   EXPECT_EQ(filter->numDhcpV6Reqs, 3u);
   /* A Reply to the second MAC binds nothing. */
   EXPECT_EQ(Rx1(Server(7, kXid, ServerOpts(Grant(kAddr1)), kOtherMac)), "forward");
   EXPECT_EQ(filter->numDhcpV6Entries, 0u);
   EXPECT_EQ(filter->agingKey, now + 2);
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, MessageBeyondTheMappedPartAndAcrossElementsIsCopiedWhole) {
   const Bytes solicit = Client(1, kXid, kRapidSolicit);
   sim::FrameOptions opts;
   opts.mapped = (int32_t)kIcmpAt + 10;
   opts.sg = {(u32)kIcmpAt + 9, 7, 5};
   EXPECT_EQ(Tx1(solicit, opts), "forward");
   ASSERT_EQ(Requests().size(), 1u);
   VigilDhcpV6Req *req = Requests()[0];
   EXPECT_EQ(Bytes(req->msg, req->msg + req->msgLen), Bytes(solicit.begin() + kIcmpAt + 8, solicit.end()));
   EXPECT_EQ(Bytes(req->clientId, req->clientId + req->clientIdLen), kClientDuid);
   EXPECT_EQ(Rx1(Server(7, kXid, ServerOpts(Grant(kAddr1))), opts), "forward");
   EXPECT_NE(Find(0, kVmMac, kAddr1), nullptr);
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, EveryAllocationOfAScatteredSolicitFailsInTurn) {
   const Bytes solicit = Client(1, kXid, kRapidSolicit);
   sim::FrameOptions opts;
   opts.mapped = (int32_t)kIcmpAt + 10;
   opts.sg = {(u32)kIcmpAt + 9, 7, 5};
   ForEachAllocFailure(
      3, [&] { DropRequests(); sim::TakeLogs(); },
      [&] { EXPECT_EQ(Tx1(solicit, opts), "forward"); },
      [&](u32 n) {
         /* The frame's flat copy, the IA node of the parse, the request;
          * the request's copy is taken from the flat copy. */
         EXPECT_EQ(filter->numDhcpV6Reqs, n == 0 ? 1u : 0u);
         if (n == 3) {
            EXPECT_EQ(LogTexts(), (Texts{"Filter 0x10 No DHCPv6 pending request match found",
                                         "Filter 0x10 Error! Alloc for DhcpV6Req failed"}));
         }
      });
}

TEST_F(Dhcpv6TrackTest, EveryAllocationOfARenewThatLostItsBindingFailsInTurn) {
   /* The copy's IA and address nodes, the removed message. */
   ForEachAllocFailure(
      3,
      [&] {
         DropRequests();
         Lease();
         EXPECT_EQ(Tx1(Client(5, 0x556, ClientOpts(true, {{3, IaNa(kIaid, IaAddrSub(kAddr1, 0, 0))}}))),
                   "forward");
         TakeMessages();
         sim::TakeLogs();
      },
      [&] {
         EXPECT_EQ(Rx1(Server(7, 0x556, ServerOpts({}, {{13, StatusValue(3, "")}}))), "forward");
      },
      [&](u32 n) {
         EXPECT_EQ(filter->numDhcpV6Entries, n == 1 || n == 2 ? 1u : 0u);
         EXPECT_EQ(TakeMessages().size(), n == 0 ? 1u : 0u);
         EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
      });
}

class Dhcpv6AgingTest : public Dhcpv6TrackTest {
protected:
   bool RunAgingWorld() override { return true; }
};

TEST_F(Dhcpv6AgingTest, TheAgingWorldEndsAnUnansweredRequestOnItsClock) {
   const i64 now = Uptime();
   EXPECT_EQ(Tx1(Client(3, 0x123, ClientOpts(true, {{3, IaNa(kIaid)}}))), "forward");
   EXPECT_EQ(filter->agingKey, now + 2);
   sim::Advance(1);
   EXPECT_EQ(filter->numDhcpV6Reqs, 1u);
   /* A retransmission a second later runs to now + 6. */
   EXPECT_EQ(Tx1(Client(3, 0x123, ClientOpts(true, {{3, IaNa(kIaid)}}))), "forward");
   EXPECT_EQ(filter->agingKey, now + 1 + 6);
   sim::Advance(5);
   EXPECT_EQ(filter->numDhcpV6Reqs, 1u);
   sim::Advance(2);
   EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
   EXPECT_EQ(filter->dhcpV6ReqBytes, 0u);
   ExpectNoLeak();
}

TEST_F(Dhcpv6TrackTest, MessageWhoseOptionsLieInTwoElementsIsCopiedThroughAFlatCopy) {
   /* Headers, message header and Client ID in the mapped first element, the
    * other options in the second: the parse maps each option in place, the
    * copy of the whole message needs the frame's flat copy. */
   const Bytes solicit = Client(1, kXid, kRapidSolicit);
   const u32 split = (u32)kIcmpAt + 8 + 4 + 18;
   sim::FrameOptions opts;
   opts.mapped = (int32_t)split;
   opts.sg = {split};
   /* The IA node of the parse, the request, the flat copy. */
   ForEachAllocFailure(
      3, [&] { DropRequests(); sim::TakeLogs(); },
      [&] { EXPECT_EQ(Tx1(solicit, opts), "forward"); },
      [&](u32 n) {
         EXPECT_EQ(filter->numDhcpV6Reqs, n == 0 ? 1u : 0u);
         if (n == 0) {
            VigilDhcpV6Req *req = Requests()[0];
            EXPECT_EQ(Bytes(req->msg, req->msg + req->msgLen),
                      Bytes(solicit.begin() + kIcmpAt + 8, solicit.end()));
         }
         if (n == 3) {
            EXPECT_EQ(LogTexts(),
                      (Texts{"Filter 0x10 No DHCPv6 pending request match found",
                             "Failed to alloc pktCopy: " + std::to_string(solicit.size()),
                             "Filter 0x10 Error! Mapping packet for request creation failed"}));
         }
      });
}

TEST_F(Dhcpv6TrackTest, ReplyOnAnotherVlanFindsNoRequestAndServerMessagesButReplyAreSkipped) {
   sim::FrameOptions vlan5;
   vlan5.vlan = 5;
   EXPECT_EQ(Tx1(Client(3, 0x321, ClientOpts(true, {{3, IaNa(kIaid)}})), vlan5), "forward");
   sim::TakeLogs();
   EXPECT_EQ(Rx1(Server(7, 0x321, ServerOpts(Grant(kAddr1)))), "forward");
   EXPECT_EQ(Rx1(Server(10, 0x321, {})), "forward");
   EXPECT_EQ(Rx1(Server(13, 0x321, {})), "forward");
   EXPECT_EQ(filter->numDhcpV6Entries, 0u);
   EXPECT_EQ(filter->numDhcpV6Reqs, 1u);
   EXPECT_EQ(LogTexts(),
             (Texts{"Filter 0x10 No DHCPv6 pending request match found",
                    "Filter 0x10 No Request for reply found - vlanID: 0, Xid: 0x32100",
                    "Filter 0x10 Skipping DHCPv6 message type: Reconfigure (0xa)",
                    "Filter 0x10 Skipping DHCPv6 message type: Relay-reply (0xd)"}));
   /* On its own VLAN the Reply binds. */
   EXPECT_EQ(Rx1(Server(7, 0x321, ServerOpts(Grant(kAddr1))), vlan5), "forward");
   EXPECT_NE(Find(5, kVmMac, kAddr1), nullptr);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpAdded(5, kVmMac, kAddr1)});
   ExpectNoLeak();
}
