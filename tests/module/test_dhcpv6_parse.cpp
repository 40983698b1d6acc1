/*
 * The DHCPv6 message readers: which frames are DHCPv6 messages; the frame
 * reader, which maps one option at a time (in place inside the mapped part
 * or a scatter-gather element, from a copy where an option straddles two),
 * keeps the last of each option, makes a node for each IA and refuses what
 * it can't read; the reader of a stored request; the reader of an IA's
 * inside and of its addresses, which loses a malformed address only; and
 * the release, which frees every node once.  Malformed frames sent by the
 * VM are refused with their line and still go on.  Each allocation of the
 * readers fails in turn without a leak.
 */
#include <algorithm>

#include "ipv6_db_test.h"
#include "vigil_dhcpv6.h"

using namespace v6db;

namespace {

constexpr u32 kUdpAt = 14 + 40;    /* the UDP header in an untagged frame */
constexpr u32 kMsgAt = kUdpAt + 8; /* the DHCPv6 message */

const std::string kOverflow = std::to_string((int)VIGIL_STATUS_OVERFLOW);

Bytes Be16(u32 v) { return {(u8)(v >> 8), (u8)v}; }
Bytes Be32(u32 v) { return {(u8)(v >> 24), (u8)(v >> 16), (u8)(v >> 8), (u8)v}; }

Bytes Cat(std::initializer_list<Bytes> parts) {
   Bytes out;
   for (const Bytes &p : parts) {
      out.insert(out.end(), p.begin(), p.end());
   }
   return out;
}

/* An option whose length field says `len`, whatever follows. */
Bytes OptLen(u16 code, u16 len, const Bytes &data) { return Cat({Be16(code), Be16(len), data}); }
Bytes Opt(u16 code, const Bytes &data) { return OptLen(code, (u16)data.size(), data); }

const Bytes kClientDuid = {0, 3, 0, 1, 2, 0, 0, 0, 0, 0x10};
const Bytes kServerDuid = {0, 3, 0, 1, 2, 0, 0, 0, 0, 0x01};
Bytes ClientId() { return Opt(VIGIL_DHCPV6_OPT_CLIENTID, kClientDuid); }
Bytes ServerId() { return Opt(VIGIL_DHCPV6_OPT_SERVERID, kServerDuid); }
Bytes RapidCommit() { return Opt(VIGIL_DHCPV6_OPT_RAPID_COMMIT, {}); }
Bytes Status(u16 code, const std::string &text) {
   return Opt(VIGIL_DHCPV6_OPT_STATUS_CODE, Cat({Be16(code), Bytes(text.begin(), text.end())}));
}
Bytes Addr(const std::string &ip, u32 preferred = 3600, u32 valid = 7200,
           const Bytes &inside = {}) {
   Addr6 a = Ip6(ip);
   return Opt(VIGIL_DHCPV6_OPT_IAADDR,
              Cat({Bytes(a.begin(), a.end()), Be32(preferred), Be32(valid), inside}));
}
Bytes IaNa(u32 iaid, const Bytes &inside = {}) {
   return Opt(VIGIL_DHCPV6_OPT_IA_NA, Cat({Be32(iaid), Be32(1800), Be32(2880), inside}));
}
Bytes IaTa(u32 iaid, const Bytes &inside = {}) {
   return Opt(VIGIL_DHCPV6_OPT_IA_TA, Cat({Be32(iaid), inside}));
}

/* A message with transaction id 0x123456. */
Bytes Msg(u8 type, std::initializer_list<Bytes> options = {}) {
   Bytes msg = {type, 0x12, 0x34, 0x56};
   for (const Bytes &o : options) {
      msg.insert(msg.end(), o.begin(), o.end());
   }
   return msg;
}

/* The message as the VM sends it: from the client port to the servers. */
Bytes Frame(const Bytes &msg, u16 sport = VIGIL_UDP_PORT_DHCPV6_CLIENT,
            u16 dport = VIGIL_UDP_PORT_DHCPV6_SERVER) {
   return frames::Udp6Frame(kVmMac, "33:33:00:01:00:02", {kVmLinkLocal, "ff02::1:2", 64}, sport,
                            dport, msg);
}

Bytes WithUdpLen(Bytes frame, u16 len) {
   frame[kUdpAt + 4] = (u8)(len >> 8);
   frame[kUdpAt + 5] = (u8)len;
   return frame;
}

Bytes Span(const u8 *p, size_t n) { return p == nullptr ? Bytes() : Bytes(p, p + n); }

/* The lines of a refused message sent by the VM: the reader's own, then the
 * two of the transmit path. */
std::vector<std::string> TxRefused(std::initializer_list<std::string> own) {
   std::vector<std::string> lines;
   for (const std::string &l : own) {
      lines.push_back("Filter 0x10 " + l);
   }
   lines.push_back("Filter 0x10 Error parsing DHCPv6 Tx message on port 0x10: Bad parameter");
   lines.push_back("Filter 0x10 Error performing Tx DHCPv6 Discovery on port 0x10: Bad parameter");
   return lines;
}

std::string IaStatusLine(const std::string &text, const std::string &value) {
   return "Filter 0x10 Parsing IaOpt status: " + text + " (" + value + ")";
}
const std::string kIaOk = IaStatusLine("Success", "0");

} // namespace

class Dhcpv6ParseTest : public Ipv6DbTest {
protected:
   VigilPacketContext ctx;
   zek_Pkt *pkt = nullptr;

   void SetUp() override {
      Ipv6DbTest::SetUp();
      memset(&ctx, 0, sizeof ctx);
   }

   void TearDown() override {
      DropFrame();
      Ipv6DbTest::TearDown();
   }

   /* Lets the throttled log open a fresh window: five lines per three
    * seconds would hide the lines of the next step. */
   void NewLogWindow() { sim::Advance(3); }

   /* Puts the frame in a context as the packet loop does, its UDP header
    * copied, and reads it with the filter held for write. */
   zek_Status Parse(const Bytes &bytes, const sim::FrameOptions &opts = {}) {
      DropFrame();
      NewLogWindow();
      pkt = frames::Make(bytes, opts);
      memset(&ctx, 0, sizeof ctx);
      ctx.flags = VIGIL_PKT_ETH | VIGIL_PKT_IPV6 | VIGIL_PKT_UDP;
      ctx.frameMapped = (u8 *)zek_PktFrameMappedPointerGet(pkt);
      ctx.frameLen = zek_PktFrameLenGet(pkt);
      ctx.mappedLen = std::min(ctx.frameLen, (u32)zek_PktFrameMappedLenGet(pkt));
      zek_PktHeaderEntry *l4 = nullptr;
      EXPECT_EQ(zek_PktHeaderFind(pkt, ZEK_PKT_LAYER_4, 0x4000, 1, &l4, 0), ZEK_OK);
      ctx.l4Entry = l4;
      if (l4 != nullptr) {
         memcpy(ctx.l4Copy, bytes.data() + l4->offset, 8);
         ctx.l4Hdr = ctx.l4Copy;
      }
      zek_Status status = ZEK_OK;
      WithWriteLock([&] { status = VigilParseDhcpv6Pkt(filter, pkt, &ctx); });
      return status;
   }

   void DropFrame() {
      if (pkt != nullptr) {
         if (ctx.flatCopy != nullptr) {
            Vigil_HeapFree(ctx.flatCopy);
            ctx.flatCopy = nullptr;
         }
         zek_PktRelease(pkt);
         pkt = nullptr;
      }
   }

   VigilDhcpV6Hdrs &Hdrs() { return ctx.dhcpV6Hdrs; }

   void Release(VigilDhcpV6Hdrs &hdrs) {
      WithWriteLock([&] { VigilDhcpV6ReleaseHdrs(filter, &hdrs); });
   }

   /* Where a pointer stands in the frame's mapped part; -1 outside it. */
   long InFrame(const u8 *p) {
      if (p == nullptr || p < ctx.frameMapped || p >= ctx.frameMapped + ctx.mappedLen) {
         return -1;
      }
      return p - ctx.frameMapped;
   }

   static std::vector<VigilIaOpt *> Ias(VigilDhcpV6Hdrs &hdrs) {
      std::vector<VigilIaOpt *> out;
      VIGIL_LIST_FOR_EACH(pos, &hdrs.iaList) {
         out.push_back(VIGIL_IA_OPT_FROM_LINKS(pos));
      }
      return out;
   }

   static std::vector<VigilIaAddrOpt *> Addrs(VigilIaOpt *ia) {
      std::vector<VigilIaAddrOpt *> out;
      VIGIL_LIST_FOR_EACH(pos, &ia->addrList) {
         out.push_back(VIGIL_IA_ADDR_OPT_FROM_LINKS(pos));
      }
      return out;
   }

   static std::string AddrOf(const VigilIaAddrOpt *a) {
      char text[64];
      inet_ntop(AF_INET6, a->iaAddrOpt + VIGIL_DHCPV6_IAADDR_ADDR, text, sizeof text);
      return text;
   }

   zek_Status ParseIa(VigilIaOpt *ia) {
      zek_Status status = ZEK_OK;
      WithWriteLock([&] { status = VigilDhcpV6ParseIaOpt(filter, ia); });
      return status;
   }

   /* Reads a stored message from a heap block of exactly its length. */
   zek_Status ParseReq(const Bytes &msg, VigilDhcpV6Hdrs *hdrs, std::vector<u8> *store) {
      NewLogWindow();
      *store = msg;
      store->shrink_to_fit();
      u8 *p = store->data();
      u16 len = (u16)store->size();
      zek_Status status = ZEK_OK;
      WithWriteLock([&] { status = VigilDhcpV6ParseReq(filter, &p, &len, hdrs); });
      EXPECT_EQ(p, store->data());
      EXPECT_EQ(len, store->size());
      return status;
   }

   /* Nothing but the filter's own allocations left. */
   void ExpectClean() {
      DropFrame();
      ExpectNoLeak();
   }
};

/* ------------------------------------------------------- recognition */

TEST_F(Dhcpv6ParseTest, FramesFromEitherDhcpv6PortAreMessagesWhateverTheirDestination) {
   u8 udp[8] = {0};
   ctx.flags = VIGIL_PKT_ETH | VIGIL_PKT_IPV6 | VIGIL_PKT_UDP;
   ctx.l4Hdr = udp;
   auto from = [&](u16 sport, u16 dport) {
      udp[0] = (u8)(sport >> 8), udp[1] = (u8)sport;
      udp[2] = (u8)(dport >> 8), udp[3] = (u8)dport;
      return VigilIsPktDhcpV6Msg(&ctx);
   };
   EXPECT_TRUE(from(546, 547));
   EXPECT_TRUE(from(547, 546));
   EXPECT_TRUE(from(546, 40000));
   EXPECT_TRUE(from(547, 547));
   EXPECT_FALSE(from(40000, 547));
   EXPECT_FALSE(from(40000, 546));
   EXPECT_FALSE(from(545, 547));
   EXPECT_FALSE(from(548, 546));
   from(546, 547);
   for (u32 missing : {VIGIL_PKT_ETH, VIGIL_PKT_IPV6, VIGIL_PKT_UDP}) {
      ctx.flags = (VIGIL_PKT_ETH | VIGIL_PKT_IPV6 | VIGIL_PKT_UDP) & ~missing;
      EXPECT_FALSE(VigilIsPktDhcpV6Msg(&ctx)) << missing;
   }
   ctx.flags = VIGIL_PKT_ETH | VIGIL_PKT_IPV4 | VIGIL_PKT_UDP;
   EXPECT_FALSE(VigilIsPktDhcpV6Msg(&ctx));
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}

TEST_F(Dhcpv6ParseTest, MessageTypeNamesAreTheFourteenOfTheWire) {
   const std::vector<std::string> names = {
      "None",    "Solicit", "Advertise", "Request",     "Confirm",
      "Renew",   "Rebind",  "Reply",     "Release",     "Decline",
      "Reconfigure", "Information-request", "Relay-forward", "Relay-reply"};
   ASSERT_EQ(VIGIL_DHCPV6_NUM_MSG_TYPES, names.size());
   for (u32 t = 0; t < VIGIL_DHCPV6_NUM_MSG_TYPES; t++) {
      EXPECT_EQ(dhcpV6MsgTypeStr[t], names[t]);
   }
}

/* ------------------------------------------------------ frame reader */

TEST_F(Dhcpv6ParseTest, SolicitKeepsEachOptionInPlaceAndAnIaNodeWithoutReadingIt) {
   Bytes ia = IaNa(7, Addr("2001:db8::50"));
   Bytes msg = Msg(VIGIL_DHCPV6_SOLICIT,
                   {ClientId(), Opt(6, {0, 23}), Opt(8, {0, 0}), RapidCommit(), ia});
   ASSERT_EQ(Parse(Frame(msg)), ZEK_OK);
   VigilDhcpV6Hdrs &h = Hdrs();
   EXPECT_EQ(InFrame(h.msg), (long)kMsgAt);
   EXPECT_EQ(InFrame(h.clientIdOpt), (long)kMsgAt + 4);
   EXPECT_EQ(h.serverIdOpt, nullptr);
   EXPECT_EQ(InFrame(h.rapidCommitOpt), (long)kMsgAt + 4 + 14 + 6 + 6);
   EXPECT_EQ(h.statusOpt, nullptr);
   std::vector<VigilIaOpt *> ias = Ias(h);
   ASSERT_EQ(ias.size(), 1u);
   EXPECT_EQ(InFrame(ias[0]->iaOpt), (long)kMsgAt + 4 + 14 + 6 + 6 + 4);
   EXPECT_EQ(ias[0]->isIaNa, 1);
   EXPECT_EQ(ias[0]->statusOpt, nullptr);
   EXPECT_TRUE(VigilListIsEmpty(&ias[0]->addrList));
   EXPECT_EQ(LogTexts(), std::vector<std::string>());

   /* The caller reads the IA when it wants its addresses. */
   EXPECT_EQ(ParseIa(ias[0]), ZEK_OK);
   std::vector<VigilIaAddrOpt *> addrs = Addrs(ias[0]);
   ASSERT_EQ(addrs.size(), 1u);
   EXPECT_EQ(addrs[0]->iaAddrOpt, ias[0]->iaOpt + 16);
   EXPECT_EQ(AddrOf(addrs[0]), "2001:db8::50");
   EXPECT_EQ(addrs[0]->statusOpt, nullptr);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{kIaOk});
   Release(h);
   EXPECT_TRUE(VigilListIsEmpty(&h.iaList));
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, ReplyKeepsServerIdStatusAndIasOfBothKindsInOrder) {
   Bytes msg = Msg(VIGIL_DHCPV6_REPLY,
                   {ServerId(), IaTa(9), ClientId(), IaNa(1), Status(0, "ok"), IaNa(2)});
   ASSERT_EQ(Parse(Frame(msg, 547, 546)), ZEK_OK);
   VigilDhcpV6Hdrs &h = Hdrs();
   EXPECT_EQ(InFrame(h.serverIdOpt), (long)kMsgAt + 4);
   EXPECT_EQ(InFrame(h.clientIdOpt), (long)kMsgAt + 4 + 14 + 8);
   EXPECT_EQ(InFrame(h.statusOpt), (long)kMsgAt + 4 + 14 + 8 + 14 + 16);
   std::vector<VigilIaOpt *> ias = Ias(h);
   ASSERT_EQ(ias.size(), 3u);
   EXPECT_EQ(ias[0]->isIaNa, 0);
   EXPECT_EQ(VigilGetBe32(ias[0]->iaOpt + 4), 9u);
   EXPECT_EQ(ias[1]->isIaNa, 1);
   EXPECT_EQ(VigilGetBe32(ias[1]->iaOpt + 4), 1u);
   EXPECT_EQ(ias[2]->isIaNa, 1);
   EXPECT_EQ(VigilGetBe32(ias[2]->iaOpt + 4), 2u);
   Release(h);
   /* A second release finds nothing more to free. */
   Release(h);
   EXPECT_TRUE(VigilListIsEmpty(&h.iaList));
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, EveryTypeThatTrackingReadsHasItsOptionsParsed) {
   for (u8 type : {1, 3, 4, 5, 6, 7, 8, 9}) {
      SCOPED_TRACE(dhcpV6MsgTypeStr[type]);
      ASSERT_EQ(Parse(Frame(Msg(type, {ClientId(), IaNa(1)}))), ZEK_OK);
      EXPECT_EQ(InFrame(Hdrs().clientIdOpt), (long)kMsgAt + 4);
      EXPECT_EQ(Ias(Hdrs()).size(), 1u);
      Release(Hdrs());
   }
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, HeaderOnlyTypesLeaveEvenBadOptionsUnread) {
   for (u8 type : {2, 10, 11, 12, 13}) {
      SCOPED_TRACE(dhcpV6MsgTypeStr[type]);
      /* An IA_NA too short and a client id overrunning the message. */
      Bytes msg = Msg(type, {OptLen(3, 4, Be32(1)), OptLen(1, 200, kClientDuid)});
      ASSERT_EQ(Parse(Frame(msg)), ZEK_OK);
      EXPECT_EQ(InFrame(Hdrs().msg), (long)kMsgAt);
      EXPECT_EQ(Hdrs().clientIdOpt, nullptr);
      EXPECT_TRUE(VigilListIsEmpty(&Hdrs().iaList));
      Release(Hdrs());
   }
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, UnknownTypesAreRefused) {
   for (u8 type : {0, 14, 0x22, 0xff}) {
      ASSERT_EQ(Parse(Frame(Msg(type, {ClientId()}))), VIGIL_STATUS_BAD_PARAM);
      char line[64];
      snprintf(line, sizeof line, "Filter 0x10 Unknown DHCPv6 msg type: %#x", type);
      EXPECT_EQ(LogTexts(), std::vector<std::string>{line});
      EXPECT_TRUE(VigilListIsEmpty(&Hdrs().iaList));
   }
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, UdpLengthOfElevenFailsTheSanityCheckAndTwelveIsTheSmallestMessage) {
   Bytes frame = Frame(Msg(VIGIL_DHCPV6_SOLICIT));
   ASSERT_EQ(frame.size(), kMsgAt + 4);
   /* Just the header with nothing behind: every pointer null. */
   ASSERT_EQ(Parse(frame), ZEK_OK);
   EXPECT_EQ(InFrame(Hdrs().msg), (long)kMsgAt);
   EXPECT_EQ(Hdrs().clientIdOpt, nullptr);
   EXPECT_EQ(Hdrs().serverIdOpt, nullptr);
   EXPECT_EQ(Hdrs().rapidCommitOpt, nullptr);
   EXPECT_EQ(Hdrs().statusOpt, nullptr);
   EXPECT_TRUE(VigilListIsEmpty(&Hdrs().iaList));
   Release(Hdrs());
   EXPECT_EQ(LogTexts(), std::vector<std::string>());

   EXPECT_EQ(Parse(WithUdpLen(frame, 11)), VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 Pkt sanity error udplen: 11, frameLen: 66"});
   EXPECT_EQ(Parse(WithUdpLen(frame, 0)), VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 Pkt sanity error udplen: 0, frameLen: 66"});
   /* A UDP length reaching past the frame. */
   EXPECT_EQ(Parse(WithUdpLen(frame, 13)), VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 Pkt sanity error udplen: 13, frameLen: 66"});
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, ShortUdpLengthWithOptionsBehindIsStillReadToTheFrameEnd) {
   /* The frame's end bounds the options, not the UDP length. */
   Bytes frame = WithUdpLen(Frame(Msg(VIGIL_DHCPV6_REQUEST, {ClientId(), ServerId()})), 12);
   ASSERT_EQ(Parse(frame), ZEK_OK);
   EXPECT_EQ(InFrame(Hdrs().clientIdOpt), (long)kMsgAt + 4);
   EXPECT_EQ(InFrame(Hdrs().serverIdOpt), (long)kMsgAt + 18);
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, PaddingBehindThePayloadIsReadAsOptions) {
   Bytes frame = Frame(Msg(VIGIL_DHCPV6_SOLICIT, {ClientId()}));
   const u32 end = (u32)frame.size();
   /* Fewer than four bytes: no option header fits. */
   for (u32 pad = 1; pad <= 3; pad++) {
      EXPECT_EQ(Parse(Append(frame, Bytes(pad, 0))), VIGIL_STATUS_BAD_PARAM);
      std::string offset = std::to_string(end);
      EXPECT_EQ(LogTexts(),
                (std::vector<std::string>{
                   "Header offset (" + offset + " + 4) exceeds framelen: " +
                      std::to_string(end + pad),
                   "Filter 0x10 Error! Can't access DHCPV6 option hdr: " + offset}));
   }
   /* Four zero bytes are an option of code 0 and length 0. */
   EXPECT_EQ(Parse(Append(frame, Bytes(4, 0))), ZEK_OK);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Unknown Option: 0"});
   EXPECT_EQ(InFrame(Hdrs().clientIdOpt), (long)kMsgAt + 4);
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, OptionOverrunningTheFrameIsRefused) {
   Bytes frame = Frame(Msg(VIGIL_DHCPV6_REQUEST, {ClientId(), OptLen(2, 11, kServerDuid)}));
   const u32 at = kMsgAt + 4 + 14;
   EXPECT_EQ(Parse(frame), VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{
                "Header offset (" + std::to_string(at) + " + 15) exceeds framelen: " +
                   std::to_string(frame.size()),
                "Filter 0x10 Error! Can't access DHCP option data: " + std::to_string(at)}));
   EXPECT_TRUE(VigilListIsEmpty(&Hdrs().iaList));
   /* The largest length a field can say. */
   EXPECT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REQUEST, {OptLen(1, 0xffff, kClientDuid)}))),
             VIGIL_STATUS_BAD_PARAM);
   std::vector<std::string> lines = LogTexts();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[1], "Filter 0x10 Error! Can't access DHCP option data: 66");
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, IaNaOfFifteenBytesIsRefusedAndSixteenHasNoAddresses) {
   EXPECT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REQUEST, {IaNa(1), Opt(3, Bytes(11, 0))}))),
             VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Error! Invalid IANA Options len"});
   /* The node made for the first IA went with the refusal. */
   EXPECT_TRUE(VigilListIsEmpty(&Hdrs().iaList));
   ExpectClean();
   EXPECT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REQUEST, {Opt(3, {})}))), VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Error! Invalid IANA Options len"});

   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REQUEST, {Opt(3, Bytes(12, 0))}))), ZEK_OK);
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   ASSERT_EQ(ias.size(), 1u);
   EXPECT_EQ(ParseIa(ias[0]), ZEK_OK);
   EXPECT_TRUE(VigilListIsEmpty(&ias[0]->addrList));
   EXPECT_EQ(LogTexts(), std::vector<std::string>{kIaOk});
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, IaTaOfSevenBytesIsRefusedAndEightHasNoAddresses) {
   EXPECT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_SOLICIT, {Opt(4, Bytes(3, 0))}))),
             VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Error! Invalid IATA Options len"});
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_SOLICIT, {Opt(4, Bytes(4, 0))}))), ZEK_OK);
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   ASSERT_EQ(ias.size(), 1u);
   EXPECT_EQ(ias[0]->isIaNa, 0);
   EXPECT_EQ(ParseIa(ias[0]), ZEK_OK);
   EXPECT_TRUE(VigilListIsEmpty(&ias[0]->addrList));
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, UnknownOptionCodesAreLoggedAndKnownOnesSkippedSilently) {
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_SOLICIT,
                             {Opt(0, {}), Opt(10, {1}), Opt(21, {}), Opt(0xffff, {2, 3})}))),
             ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Unknown Option: 0", "Filter 0x10 Unknown Option: 0xa",
                            "Filter 0x10 Unknown Option: 0x15",
                            "Filter 0x10 Unknown Option: 0xffff"}));
   Release(Hdrs());
   /* IA Address at message level, option request, preference, elapsed time,
    * relay message, authentication, server unicast, user and vendor class,
    * vendor information, interface id, reconfigure message and accept. */
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_SOLICIT,
                             {Addr("2001:db8::9"), Opt(6, {0, 23}), Opt(7, {255}),
                              Opt(8, {0, 0}), Opt(9, {1, 2, 3, 4}), Opt(11, Bytes(11, 0)),
                              Opt(12, Bytes(16, 0)), Opt(15, {}), Opt(16, Bytes(4, 0)),
                              Opt(17, Bytes(4, 0)), Opt(18, {1}), Opt(19, {5}), Opt(20, {}),
                              ClientId()}))),
             ZEK_OK);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   EXPECT_NE(Hdrs().clientIdOpt, nullptr);
   EXPECT_TRUE(VigilListIsEmpty(&Hdrs().iaList));
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, AnOptionGivenTwiceLeavesTheLast) {
   Bytes msg = Msg(VIGIL_DHCPV6_REPLY,
                   {Status(1, "first"), ClientId(), ServerId(), RapidCommit(), Status(2, "last"),
                    Opt(1, {9}), Opt(2, {8}), RapidCommit()});
   ASSERT_EQ(Parse(Frame(msg, 547, 546)), ZEK_OK);
   EXPECT_EQ(VigilGetBe16(Hdrs().statusOpt + VIGIL_DHCPV6_STATUS_CODE), 2u);
   EXPECT_EQ(Span(Hdrs().clientIdOpt, 5), Opt(1, {9}));
   EXPECT_EQ(Span(Hdrs().serverIdOpt, 5), Opt(2, {8}));
   EXPECT_EQ(InFrame(Hdrs().rapidCommitOpt), (long)(kMsgAt + msg.size() - 4));
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, StatusCodeTooShortForItsCodeIsNotKept) {
   Bytes msg = Msg(VIGIL_DHCPV6_REPLY, {Opt(13, {0})});
   ASSERT_EQ(Parse(Frame(msg, 547, 546)), ZEK_OK);
   EXPECT_EQ(Hdrs().statusOpt, nullptr);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 Error! Status Code option too short: 5"});
   Release(Hdrs());
   /* One with its code and no text is kept; a short one after it doesn't
    * replace it. */
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REPLY, {Opt(13, {0, 2}), Opt(13, {})}), 547, 546)),
             ZEK_OK);
   EXPECT_EQ(InFrame(Hdrs().statusOpt), (long)kMsgAt + 4);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 Error! Status Code option too short: 4"});
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, FirstFragmentIsSkippedWithTheRecordUntouched) {
   Bytes frame = frames::WithIpv6Extensions(Frame(Msg(VIGIL_DHCPV6_SOLICIT, {IaNa(1)})),
                                            {frames::FragmentHeader(0, true)});
   pkt = frames::Make(frame);
   zek_PktHeaderEntry *l4 = nullptr;
   ASSERT_EQ(zek_PktHeaderFind(pkt, ZEK_PKT_LAYER_4, 0x4000, 1, &l4, 0), ZEK_OK);
   memset(&ctx, 0, sizeof ctx);
   ctx.flags = VIGIL_PKT_ETH | VIGIL_PKT_IPV6 | VIGIL_PKT_UDP;
   ctx.frameMapped = (u8 *)zek_PktFrameMappedPointerGet(pkt);
   ctx.frameLen = ctx.mappedLen = zek_PktFrameLenGet(pkt);
   ctx.l4Entry = l4;
   memcpy(ctx.l4Copy, frame.data() + l4->offset, 8);
   ctx.l4Hdr = ctx.l4Copy;
   u8 marker = 0;
   ctx.dhcpV6Hdrs.msg = &marker;
   ctx.dhcpV6Hdrs.clientIdOpt = &marker;
   NewLogWindow();
   zek_Status status = ZEK_OK;
   WithWriteLock([&] { status = VigilParseDhcpv6Pkt(filter, pkt, &ctx); });
   EXPECT_EQ(status, VIGIL_STATUS_NOT_SUPPORTED);
   EXPECT_EQ(ctx.dhcpV6Hdrs.msg, &marker);
   EXPECT_EQ(ctx.dhcpV6Hdrs.clientIdOpt, &marker);
   EXPECT_EQ(ctx.dhcpV6Hdrs.iaList.next, nullptr);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 DHCPv6 parsing skips fragmented frame"});
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, FailedLookupOfTheFragmentHeaderCountsAsFragmented) {
   /* The test's own lookup of the UDP header comes first. */
   sim::FaultCall("PktHeaderFind", VIGIL_STATUS_FAILURE, 1, 1);
   EXPECT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_SOLICIT))), VIGIL_STATUS_NOT_SUPPORTED);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 DHCPv6 parsing skips fragmented frame"});
   ExpectClean();
}

/* -------------------------------------------- mapping and scatter-gather */

TEST_F(Dhcpv6ParseTest, OptionsBeyondTheMappedPartAreReadInPlaceFromTheirElement) {
   Bytes ia = IaNa(3, Addr("2001:db8::77"));
   Bytes msg = Msg(VIGIL_DHCPV6_REQUEST, {ClientId(), ServerId(), ia});
   Bytes frame = Frame(msg);
   /* Only the headers are mapped; the message lies in a second element
    * that ends behind the server id, and the IA in a third. */
   sim::FrameOptions opts;
   opts.mapped = (int32_t)kMsgAt;
   opts.sg = {kMsgAt, 4 + 14 + 14};
   ASSERT_EQ(Parse(frame, opts), ZEK_OK);
   EXPECT_EQ(ctx.flatCopy, nullptr);
   EXPECT_EQ(InFrame(Hdrs().msg), -1);
   EXPECT_EQ(Span(Hdrs().msg, 4), Bytes(msg.begin(), msg.begin() + 4));
   EXPECT_EQ(Span(Hdrs().clientIdOpt, 14), ClientId());
   EXPECT_EQ(Span(Hdrs().serverIdOpt, 14), ServerId());
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   ASSERT_EQ(ias.size(), 1u);
   EXPECT_EQ(Span(ias[0]->iaOpt, ia.size()), ia);
   EXPECT_EQ(ParseIa(ias[0]), ZEK_OK);
   ASSERT_EQ(Addrs(ias[0]).size(), 1u);
   EXPECT_EQ(AddrOf(Addrs(ias[0])[0]), "2001:db8::77");
   EXPECT_EQ(LogTexts(), std::vector<std::string>{kIaOk});
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, AnOptionAcrossTwoElementsIsReadFromACopyOfTheFrame) {
   Bytes ia = IaNa(3, Addr("2001:db8::77"));
   Bytes msg = Msg(VIGIL_DHCPV6_REQUEST, {ClientId(), ia, ServerId()});
   Bytes frame = Frame(msg);
   /* The element boundary cuts the IA in its address. */
   sim::FrameOptions opts;
   opts.mapped = (int32_t)(kMsgAt + 4 + 14 + 20);
   opts.sg = {kMsgAt + 4 + 14 + 20};
   ASSERT_EQ(Parse(frame, opts), ZEK_OK);
   ASSERT_NE(ctx.flatCopy, nullptr);
   /* What was mapped before stays in place; the IA and what follows come
    * from the copy. */
   EXPECT_EQ(InFrame(Hdrs().clientIdOpt), (long)kMsgAt + 4);
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   ASSERT_EQ(ias.size(), 1u);
   EXPECT_EQ(ias[0]->iaOpt, ctx.flatCopy + kMsgAt + 4 + 14);
   EXPECT_EQ(Hdrs().serverIdOpt, ctx.flatCopy + kMsgAt + 4 + 14 + ia.size());
   EXPECT_EQ(Span(Hdrs().serverIdOpt, 14), ServerId());
   EXPECT_EQ(ParseIa(ias[0]), ZEK_OK);
   ASSERT_EQ(Addrs(ias[0]).size(), 1u);
   EXPECT_EQ(AddrOf(Addrs(ias[0])[0]), "2001:db8::77");
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, OptionHeaderAcrossTwoElementsIsReadFromACopy) {
   Bytes msg = Msg(VIGIL_DHCPV6_RENEW, {ClientId(), ServerId()});
   sim::FrameOptions opts;
   opts.mapped = (int32_t)(kMsgAt + 4 + 14 + 2);
   opts.sg = {kMsgAt + 4 + 14 + 2};
   ASSERT_EQ(Parse(Frame(msg), opts), ZEK_OK);
   ASSERT_NE(ctx.flatCopy, nullptr);
   EXPECT_EQ(Hdrs().serverIdOpt, ctx.flatCopy + kMsgAt + 4 + 14);
   EXPECT_EQ(Span(Hdrs().serverIdOpt, 14), ServerId());
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, MessageHeaderThatCanNotBeMappedIsRefused) {
   /* The header straddles two elements and the frame's copy can't be made. */
   Bytes frame = Frame(Msg(VIGIL_DHCPV6_SOLICIT, {ClientId()}));
   sim::FrameOptions opts;
   opts.mapped = (int32_t)(kMsgAt + 2);
   opts.sg = {kMsgAt + 2};
   sim::FaultAlloc(1);
   EXPECT_EQ(Parse(frame, opts), VIGIL_STATUS_BAD_PARAM);
   sim::FaultAlloc(0);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Failed to alloc pktCopy: " + std::to_string(frame.size()),
                            "Filter 0x10 Error! Can't access DHCP hdr"}));
   EXPECT_EQ(ctx.flatCopy, nullptr);
   EXPECT_TRUE(VigilListIsEmpty(&Hdrs().iaList));
   /* With memory the same frame reads from the copy. */
   ASSERT_EQ(Parse(frame, opts), ZEK_OK);
   ASSERT_NE(ctx.flatCopy, nullptr);
   EXPECT_EQ(Hdrs().msg, ctx.flatCopy + kMsgAt);
   EXPECT_EQ(Hdrs().clientIdOpt, ctx.flatCopy + kMsgAt + 4);
   Release(Hdrs());
   ExpectClean();
}

/* ---------------------------------------------------- the inside of an IA */

TEST_F(Dhcpv6ParseTest, IaKeepsItsLastStatusAndAddressesInOrderWithTheirStatus) {
   Bytes inside = Cat({Addr("2001:db8::1"), Status(3, "no"), Opt(99, {1, 2}),
                       Addr("2001:db8::2", 10, 20, Cat({Opt(7, {1}), Status(2, "no addrs")})),
                       Status(0, "fine"), Addr("2001:db8::3")});
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REPLY, {IaNa(5, inside)}), 547, 546)), ZEK_OK);
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   ASSERT_EQ(ias.size(), 1u);
   VigilIaOpt *ia = ias[0];
   EXPECT_EQ(ParseIa(ia), ZEK_OK);
   ASSERT_NE(ia->statusOpt, nullptr);
   EXPECT_EQ(VigilGetBe16(ia->statusOpt + VIGIL_DHCPV6_STATUS_CODE), 0u);
   std::vector<VigilIaAddrOpt *> addrs = Addrs(ia);
   ASSERT_EQ(addrs.size(), 3u);
   EXPECT_EQ(AddrOf(addrs[0]), "2001:db8::1");
   EXPECT_EQ(addrs[0]->statusOpt, nullptr);
   EXPECT_EQ(AddrOf(addrs[1]), "2001:db8::2");
   ASSERT_NE(addrs[1]->statusOpt, nullptr);
   EXPECT_EQ(addrs[1]->statusOpt, addrs[1]->iaAddrOpt + 28 + 5);
   EXPECT_EQ(VigilGetBe16(addrs[1]->statusOpt + VIGIL_DHCPV6_STATUS_CODE), 2u);
   EXPECT_EQ(VigilGetBe32(addrs[1]->iaAddrOpt + VIGIL_DHCPV6_IAADDR_PREFERRED), 10u);
   EXPECT_EQ(VigilGetBe32(addrs[1]->iaAddrOpt + VIGIL_DHCPV6_IAADDR_VALID), 20u);
   EXPECT_EQ(AddrOf(addrs[2]), "2001:db8::3");
   EXPECT_EQ(LogTexts(), std::vector<std::string>{kIaOk});
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, IaNaWhoseLengthSaysThirteenOverflowsItsFixedPart) {
   /* One byte behind IAID, T1 and T2: no room for a sub-option header. */
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REQUEST, {Opt(3, Bytes(13, 0))}))), ZEK_OK);
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   ASSERT_EQ(ias.size(), 1u);
   EXPECT_EQ(ParseIa(ias[0]), VIGIL_STATUS_OVERFLOW);
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{
                "Filter 0x10 Error! offset and option overflow 20offset: 16, iaOptLen: 17",
                IaStatusLine("Overflow", kOverflow)}));
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, SubOptionOverrunningTheIaStopsItButKeepsTheAddressesBefore) {
   Bytes inside = Cat({Addr("2001:db8::1"), OptLen(5, 60, Bytes(24, 0)), Addr("2001:db8::3")});
   /* The IA's length ends it behind the second, overrunning address. */
   Bytes ia = Opt(3, Cat({Be32(1), Be32(0), Be32(0), inside}));
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REQUEST, {ia}))), ZEK_OK);
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   ASSERT_EQ(ias.size(), 1u);
   EXPECT_EQ(ParseIa(ias[0]), VIGIL_STATUS_OVERFLOW);
   const u32 iaLen = (u32)ia.size();
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{
                "Filter 0x10 Error! option len > allowed sizeoffset: " +
                   std::to_string(16 + 28 + 4 + 60) + ", iaOptLen: " + std::to_string(iaLen) +
                   ", subOptLen: 60",
                IaStatusLine("Overflow", kOverflow)}));
   std::vector<VigilIaAddrOpt *> addrs = Addrs(ias[0]);
   ASSERT_EQ(addrs.size(), 1u);
   EXPECT_EQ(AddrOf(addrs[0]), "2001:db8::1");
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, IaContentsReachingPastTheIaButNotTheMessageAreRefused) {
   /* An IA_TA whose length cuts its address: the address's length field
    * reaches into the option behind the IA. */
   Bytes addr = Addr("2001:db8::1");
   Bytes ta = Cat({Be16(4), Be16(4 + 20), Be32(1), Bytes(addr.begin(), addr.begin() + 20)});
   Bytes rest(addr.begin() + 20, addr.end());
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_SOLICIT, {ta, Opt(8, rest)}))), ZEK_OK);
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   ASSERT_EQ(ias.size(), 1u);
   EXPECT_EQ(ParseIa(ias[0]), VIGIL_STATUS_OVERFLOW);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Error! option len > allowed sizeoffset: 36, iaOptLen: "
                            "28, subOptLen: 24",
                            IaStatusLine("Overflow", kOverflow)}));
   EXPECT_TRUE(VigilListIsEmpty(&ias[0]->addrList));
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, AddressOfTwentyNineToThirtyOneBytesIsLostAlone) {
   for (u32 extra = 1; extra <= 3; extra++) {
      SCOPED_TRACE(extra);
      Bytes bad = Addr("2001:db8::2", 1, 2, Bytes(extra, 0));
      Bytes inside = Cat({Addr("2001:db8::1"), bad, Addr("2001:db8::3")});
      ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REPLY, {IaNa(1, inside)}), 547, 546)), ZEK_OK);
      std::vector<VigilIaOpt *> ias = Ias(Hdrs());
      ASSERT_EQ(ias.size(), 1u);
      EXPECT_EQ(ParseIa(ias[0]), ZEK_OK);
      EXPECT_EQ(LogTexts(), (std::vector<std::string>{"Filter 0x10 Error! offset > allowed size",
                                                      kIaOk}));
      std::vector<VigilIaAddrOpt *> addrs = Addrs(ias[0]);
      ASSERT_EQ(addrs.size(), 2u);
      EXPECT_EQ(AddrOf(addrs[0]), "2001:db8::1");
      EXPECT_EQ(AddrOf(addrs[1]), "2001:db8::3");
      Release(Hdrs());
   }
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, AddressWhoseSubOptionOverrunsItIsLostAlone) {
   Bytes bad = Addr("2001:db8::2", 1, 2, OptLen(13, 9, {0, 1, 'x'}));
   Bytes inside = Cat({bad, Addr("2001:db8::3")});
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REPLY, {IaNa(1, inside)}), 547, 546)), ZEK_OK);
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   EXPECT_EQ(ParseIa(ias[0]), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{"Filter 0x10 Error! option len > allowed size",
                                                   kIaOk}));
   std::vector<VigilIaAddrOpt *> addrs = Addrs(ias[0]);
   ASSERT_EQ(addrs.size(), 1u);
   EXPECT_EQ(AddrOf(addrs[0]), "2001:db8::3");
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, AddressShorterThanItsFixedPartGetsNoNode) {
   Bytes inside = Cat({Opt(5, Bytes(23, 0)), Opt(5, {}), Addr("2001:db8::3")});
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REPLY, {IaNa(1, inside)}), 547, 546)), ZEK_OK);
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   EXPECT_EQ(ParseIa(ias[0]), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Error! IA Address option too short: 27",
                            "Filter 0x10 Error! IA Address option too short: 4", kIaOk}));
   std::vector<VigilIaAddrOpt *> addrs = Addrs(ias[0]);
   ASSERT_EQ(addrs.size(), 1u);
   EXPECT_EQ(AddrOf(addrs[0]), "2001:db8::3");
   Release(Hdrs());
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, StatusTooShortInsideAnIaOrAddressIsNotKept) {
   Bytes inside = Cat({Addr("2001:db8::3", 1, 2, Opt(13, {1})), Opt(13, {})});
   ASSERT_EQ(Parse(Frame(Msg(VIGIL_DHCPV6_REPLY, {IaNa(1, inside)}), 547, 546)), ZEK_OK);
   std::vector<VigilIaOpt *> ias = Ias(Hdrs());
   EXPECT_EQ(ParseIa(ias[0]), ZEK_OK);
   EXPECT_EQ(ias[0]->statusOpt, nullptr);
   std::vector<VigilIaAddrOpt *> addrs = Addrs(ias[0]);
   ASSERT_EQ(addrs.size(), 1u);
   EXPECT_EQ(addrs[0]->statusOpt, nullptr);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Error! Status Code option too short: 5",
                            "Filter 0x10 Error! Status Code option too short: 4", kIaOk}));
   Release(Hdrs());
   ExpectClean();
}

/* ---------------------------------------------------- stored requests */

TEST_F(Dhcpv6ParseTest, StoredMessageOfFourBytesIsFineAndFiveToSevenAreTooShort) {
   VigilDhcpV6Hdrs hdrs;
   memset(&hdrs, 0xa5, sizeof hdrs);
   std::vector<u8> store;
   ASSERT_EQ(ParseReq(Msg(VIGIL_DHCPV6_REQUEST), &hdrs, &store), ZEK_OK);
   EXPECT_EQ(hdrs.msg, store.data());
   EXPECT_EQ(hdrs.clientIdOpt, nullptr);
   EXPECT_EQ(hdrs.serverIdOpt, nullptr);
   EXPECT_EQ(hdrs.rapidCommitOpt, nullptr);
   EXPECT_EQ(hdrs.statusOpt, nullptr);
   EXPECT_TRUE(VigilListIsEmpty(&hdrs.iaList));
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Parsing DHCPV6 Req"});
   Release(hdrs);
   for (u32 tail = 1; tail <= 3; tail++) {
      EXPECT_EQ(ParseReq(Cat({Msg(VIGIL_DHCPV6_REQUEST), Bytes(tail, 0)}), &hdrs, &store),
                VIGIL_STATUS_BAD_PARAM);
      EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                               "Filter 0x10 Parsing DHCPV6 Req",
                               "Filter 0x10 Error! Invalid DhcpV6 Option Len"}));
      EXPECT_TRUE(VigilListIsEmpty(&hdrs.iaList));
   }
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, StoredRequestIsReadDownToItsAddresses) {
   Bytes msg = Msg(VIGIL_DHCPV6_REQUEST,
                   {ClientId(), ServerId(), Opt(6, {0, 23}), Opt(77, {1}),
                    IaNa(1, Cat({Addr("2001:db8::1"), Addr("2001:db8::2")})), RapidCommit(),
                    IaTa(2, Addr("2001:db8::3")), Status(0, "x")});
   VigilDhcpV6Hdrs hdrs;
   std::vector<u8> store;
   ASSERT_EQ(ParseReq(msg, &hdrs, &store), ZEK_OK);
   const u8 *m = store.data();
   EXPECT_EQ(hdrs.msg, m);
   EXPECT_EQ(hdrs.clientIdOpt, m + 4);
   EXPECT_EQ(hdrs.serverIdOpt, m + 18);
   std::vector<VigilIaOpt *> ias = Ias(hdrs);
   ASSERT_EQ(ias.size(), 2u);
   EXPECT_EQ(ias[0]->iaOpt, m + 18 + 14 + 6 + 5);
   EXPECT_EQ(ias[0]->isIaNa, 1);
   EXPECT_EQ(ias[1]->isIaNa, 0);
   EXPECT_EQ(hdrs.rapidCommitOpt, ias[0]->iaOpt + 16 + 28 + 28);
   EXPECT_EQ(hdrs.statusOpt, m + msg.size() - 7);
   ASSERT_EQ(Addrs(ias[0]).size(), 2u);
   EXPECT_EQ(AddrOf(Addrs(ias[0])[0]), "2001:db8::1");
   EXPECT_EQ(AddrOf(Addrs(ias[0])[1]), "2001:db8::2");
   ASSERT_EQ(Addrs(ias[1]).size(), 1u);
   EXPECT_EQ(AddrOf(Addrs(ias[1])[0]), "2001:db8::3");
   /* The stored reader has no complaint about unknown codes. */
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{"Filter 0x10 Parsing DHCPV6 Req", kIaOk,
                                                   kIaOk}));
   Release(hdrs);
   Release(hdrs);
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, StoredOptionOverrunningOrCutHeaderIsALengthFailureThatHoldsNothing) {
   VigilDhcpV6Hdrs hdrs;
   std::vector<u8> store;
   const std::vector<std::string> lenFailure = {"Filter 0x10 Parsing DHCPV6 Req",
                                                "Filter 0x10 Error! Invalid DhcpV6 Option Len"};
   /* The IA before the bad option had its node; none is left. */
   EXPECT_EQ(ParseReq(Msg(VIGIL_DHCPV6_RENEW, {IaNa(1), OptLen(1, 11, kClientDuid)}), &hdrs,
                      &store),
             VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), lenFailure);
   EXPECT_TRUE(VigilListIsEmpty(&hdrs.iaList));
   ExpectNoLeak();
   for (u32 tail = 1; tail <= 3; tail++) {
      EXPECT_EQ(ParseReq(Msg(VIGIL_DHCPV6_RENEW, {IaNa(1), ClientId(), Bytes(tail, 1)}), &hdrs,
                         &store),
                VIGIL_STATUS_BAD_PARAM);
      EXPECT_EQ(LogTexts(), lenFailure);
      EXPECT_TRUE(VigilListIsEmpty(&hdrs.iaList));
   }
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, StoredIaTooShortOrOverflowingFailsTheWholeRequest) {
   VigilDhcpV6Hdrs hdrs;
   std::vector<u8> store;
   const std::vector<std::string> parseFailure = {"Filter 0x10 Parsing DHCPV6 Req",
                                                  "Filter 0x10 Error! Parsing Request failed"};
   EXPECT_EQ(ParseReq(Msg(VIGIL_DHCPV6_REQUEST, {IaNa(1), Opt(3, Bytes(11, 0))}), &hdrs, &store),
             VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), parseFailure);
   EXPECT_TRUE(VigilListIsEmpty(&hdrs.iaList));
   EXPECT_EQ(ParseReq(Msg(VIGIL_DHCPV6_REQUEST, {Opt(4, Bytes(3, 0))}), &hdrs, &store),
             VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), parseFailure);
   ExpectNoLeak();

   /* The second IA overflows: the first, read already, goes with it. */
   EXPECT_EQ(ParseReq(Msg(VIGIL_DHCPV6_REQUEST,
                          {IaNa(1, Addr("2001:db8::1")), Opt(3, Bytes(13, 0)), IaTa(3)}),
                      &hdrs, &store),
             VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{
                "Filter 0x10 Parsing DHCPV6 Req", kIaOk,
                "Filter 0x10 Error! offset and option overflow 20offset: 16, iaOptLen: 17",
                IaStatusLine("Overflow", kOverflow), "Filter 0x10 Error! Parsing Request failed"}));
   EXPECT_TRUE(VigilListIsEmpty(&hdrs.iaList));
   /* Releasing after the failure, as the request's owner does, is harmless. */
   Release(hdrs);
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, StoredLinesAreThrottledAtTheirLevels) {
   VigilDhcpV6Hdrs hdrs;
   std::vector<u8> store;
   ASSERT_EQ(ParseReq(Msg(VIGIL_DHCPV6_REQUEST, {Cat({IaNa(1), Bytes(1, 0)})}), &hdrs, &store),
             VIGIL_STATUS_BAD_PARAM);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].log, "vigil.throttle");
   EXPECT_EQ(lines[0].level, 1);
   EXPECT_EQ(lines[1].log, "vigil.throttle");
   EXPECT_EQ(lines[1].level, 2);
   ExpectClean();
}

TEST_F(Dhcpv6ParseTest, ReleaseOfARecordNeverParsedHoldsNothing) {
   VigilDhcpV6Hdrs hdrs;
   memset(&hdrs, 0, sizeof hdrs);
   Release(hdrs);
   EXPECT_TRUE(VigilListIsEmpty(&hdrs.iaList));
   Release(hdrs);
   ExpectClean();
}

/* ------------------------------------- malformed frames from the VM */

TEST_F(Dhcpv6ParseTest, MalformedMessagesFromTheVmAreRefusedWithTheirLineAndGoOn) {
   filter->discoveryFlags = VIGIL_DISC_ND | VIGIL_DISC_DHCPV6;
   const Bytes solicit = Frame(Msg(VIGIL_DHCPV6_SOLICIT, {ClientId()}));
   struct Case {
      const char *what;
      Bytes frame;
      std::vector<std::string> lines;
   };
   const std::vector<Case> cases = {
      {"short UDP", WithUdpLen(solicit, 11),
       TxRefused({"Pkt sanity error udplen: 11, frameLen: 80"})},
      {"option overrunning the message",
       Frame(Msg(VIGIL_DHCPV6_SOLICIT, {OptLen(1, 11, kClientDuid)})),
       {"Header offset (66 + 15) exceeds framelen: 80",
        "Filter 0x10 Error! Can't access DHCP option data: 66",
        "Filter 0x10 Error parsing DHCPv6 Tx message on port 0x10: Bad parameter",
        "Filter 0x10 Error performing Tx DHCPv6 Discovery on port 0x10: Bad parameter"}},
      {"IA_NA too short", Frame(Msg(VIGIL_DHCPV6_REQUEST, {ClientId(), Opt(3, Bytes(11, 0))})),
       TxRefused({"Error! Invalid IANA Options len"})},
      {"IA_TA too short", Frame(Msg(VIGIL_DHCPV6_SOLICIT, {Opt(4, Bytes(3, 0))})),
       TxRefused({"Error! Invalid IATA Options len"})},
      {"unknown type", Frame(Msg(0x30, {ClientId()})),
       TxRefused({"Unknown DHCPv6 msg type: 0x30"})},
      {"first fragment",
       frames::WithIpv6Extensions(solicit, {frames::FragmentHeader(0, true)}),
       {"Filter 0x10 DHCPv6 parsing skips fragmented frame",
        "Filter 0x10 Error parsing DHCPv6 Tx message on port 0x10: Not supported",
        "Filter 0x10 Error performing Tx DHCPv6 Discovery on port 0x10: Not supported"}},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.what);
      NewLogWindow();
      sim::LockCounts before = Locks();
      EXPECT_EQ(Tx1(c.frame), "forward");
      EXPECT_EQ(Locks().writes - before.writes, 1u);
      EXPECT_EQ(LogTexts(), c.lines);
      EXPECT_EQ(filter->numDhcpV6Reqs, 0u);
      ExpectNoLeak();
   }
}

/* ---------------------------------------------------------- heap faults */

TEST_F(Dhcpv6ParseTest, EveryAllocationOfAFrameWithThreeIasMayFail) {
   Bytes msg = Msg(VIGIL_DHCPV6_REQUEST, {IaNa(1), IaTa(2), ClientId(), IaNa(3)});
   /* The IA_TA straddles two elements: the frame's copy comes first. */
   sim::FrameOptions opts;
   opts.mapped = (int32_t)(kMsgAt + 4 + 20);
   opts.sg = {kMsgAt + 4 + 20};
   zek_Status status = ZEK_OK;
   ForEachAllocFailure(
      4, [] {}, [&] { status = Parse(Frame(msg), opts); },
      [&](u32 n) {
         std::vector<std::string> lines = LogTexts();
         if (n == 0) {
            ASSERT_EQ(status, ZEK_OK);
            std::vector<VigilIaOpt *> ias = Ias(Hdrs());
            ASSERT_EQ(ias.size(), 3u);
            EXPECT_EQ(ias[0]->isIaNa, 1);
            EXPECT_EQ(ias[1]->isIaNa, 0);
            EXPECT_EQ(ias[2]->isIaNa, 1);
            EXPECT_EQ(lines, std::vector<std::string>());
            Release(Hdrs());
         } else {
            EXPECT_EQ(status, VIGIL_STATUS_BAD_PARAM);
            EXPECT_TRUE(VigilListIsEmpty(&Hdrs().iaList));
            std::vector<std::string> expected;
            if (n == 1) {
               expected = {"Filter 0x10 Error! IANA alloc failed, quit parsing"};
            } else if (n == 2) {
               expected = {"Failed to alloc pktCopy: " + std::to_string(kMsgAt + msg.size()),
                           "Filter 0x10 Error! Can't access DHCP option data: " +
                              std::to_string(kMsgAt + 4 + 16)};
            } else if (n == 3) {
               expected = {"Filter 0x10 Error! IATA alloc failed, quit parsing"};
            } else {
               expected = {"Filter 0x10 Error! IANA alloc failed, quit parsing"};
            }
            EXPECT_EQ(lines, expected);
         }
         DropFrame();
      });
}

TEST_F(Dhcpv6ParseTest, EveryAllocationOfAStoredRequestMayFail) {
   Bytes msg = Msg(VIGIL_DHCPV6_REQUEST,
                   {IaNa(1, Cat({Addr("2001:db8::1"), Addr("2001:db8::2")})),
                    IaTa(2, Addr("2001:db8::3"))});
   VigilDhcpV6Hdrs hdrs;
   std::vector<u8> store;
   zek_Status status = ZEK_OK;
   ForEachAllocFailure(
      5, [] {}, [&] { status = ParseReq(msg, &hdrs, &store); },
      [&](u32 n) {
         std::vector<std::string> lines = LogTexts();
         const std::string req = "Filter 0x10 Parsing DHCPV6 Req";
         const std::string addrFailed = "Filter 0x10 Error! VigilIaAddrOpt Alloc failed";
         if (n == 1 || n == 2) {
            /* An IA's node: the whole request fails. */
            EXPECT_EQ(status, VIGIL_STATUS_BAD_PARAM);
            EXPECT_TRUE(VigilListIsEmpty(&hdrs.iaList));
            EXPECT_EQ(lines, (std::vector<std::string>{
                                req,
                                n == 1 ? "Filter 0x10 Error! IANA alloc failed"
                                       : "Filter 0x10 Error! IATA alloc failed",
                                "Filter 0x10 Error! Parsing Request failed"}));
            return;
         }
         /* An address's node: only that address is lost. */
         ASSERT_EQ(status, ZEK_OK);
         std::vector<VigilIaOpt *> ias = Ias(hdrs);
         ASSERT_EQ(ias.size(), 2u);
         std::vector<std::string> got;
         for (VigilIaOpt *ia : ias) {
            for (VigilIaAddrOpt *a : Addrs(ia)) {
               got.push_back(AddrOf(a));
            }
         }
         std::vector<std::string> want = {"2001:db8::1", "2001:db8::2", "2001:db8::3"};
         if (n >= 3) {
            want.erase(want.begin() + (n - 3));
         }
         EXPECT_EQ(got, want);
         std::vector<std::string> expected = {req};
         if (n == 3 || n == 4) {
            expected.push_back(addrFailed);
         }
         expected.push_back(kIaOk);
         if (n == 5) {
            expected.push_back(addrFailed);
         }
         expected.push_back(kIaOk);
         EXPECT_EQ(lines, expected);
         Release(hdrs);
      });
}
