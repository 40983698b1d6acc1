/*
 * The packet loop's header parse: for an IPv4 frame it works the IPv4 and
 * UDP headers out from the Ethernet entry and the mapped bytes, where it
 * can, instead of asking the host for them.  Against the parse that takes
 * every header by the host's finds it must give the same context on every
 * frame: parse bits, header entries, header bytes and where they are read
 * from.  Random frames (seeded; a failure names its seed and frame) with
 * tags, bad versions and header lengths, options, fragments, truncation,
 * short mapped parts and split elements, then a few chosen ones.
 *
 * VIGIL_PARSE_SEED=N runs the random test with that seed alone.
 */
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "test_random.h"
#include "vigil_test.h"

namespace {

using Bytes = std::vector<u8>;

std::vector<u32> Seeds(std::vector<u32> fixed) { return testrand::Seeds("VIGIL_PARSE_SEED", fixed); }

using testrand::Rng;

void Put16(Bytes *b, size_t at, u16 v) {
   (*b)[at] = (u8)(v >> 8);
   (*b)[at + 1] = (u8)v;
}

/* A frame that is mostly IPv4, often UDP, with the odd thing wrong. */
Bytes RandomFrame(Rng *rng) {
   Bytes b(12);
   for (u8 &x : b) x = rng->Byte();
   b[0] &= 0xfe;
   /* Tags left in the bytes: the first is taken out into the VLAN when the
    * frame is built, the host skips the others. */
   u32 tags = rng->OneIn(6) ? 1 + rng->Below(3) : 0;
   for (u32 i = 0; i < tags; i++) {
      b.push_back(0x81);
      b.push_back(0x00);
      b.push_back(rng->Byte() & 0x0f);
      b.push_back(rng->Byte());
   }
   static const u16 kTypes[] = {0x0800, 0x0800, 0x0800, 0x0800, 0x0800, 0x0800,
                                0x86dd, 0x0806, 0x88cc};
   u16 etherType = kTypes[rng->Below(sizeof kTypes / sizeof kTypes[0])];
   b.push_back((u8)(etherType >> 8));
   b.push_back((u8)etherType);
   size_t ipAt = b.size();
   if (etherType == 0x0800) {
      u32 ihl = rng->OneIn(5) ? rng->Below(16) : (rng->OneIn(3) ? 5 + rng->Below(11) : 5);
      u8 version = rng->OneIn(10) ? (u8)rng->Below(16) : 4;
      b.resize(ipAt + 60 + 40);
      for (size_t i = ipAt; i < b.size(); i++) b[i] = rng->Byte();
      b[ipAt] = (u8)(version << 4 | ihl);
      static const u8 kProtos[] = {17, 17, 17, 6, 1, 58, 0};
      u8 proto = kProtos[rng->Below(sizeof kProtos)];
      b[ipAt + 9] = proto == 0 ? rng->Byte() : proto;
      u16 frag = 0;
      switch (rng->Below(5)) {
      case 0:
         frag = 0x2000; /* first fragment */
         break;
      case 1:
         frag = (u16)(rng->Below(0x2000) | (rng->OneIn(2) ? 0x2000 : 0));
         break;
      case 2:
         frag = 0x4000; /* don't fragment */
         break;
      default:
         break;
      }
      Put16(&b, ipAt + 6, frag);
      size_t l4At = ipAt + ihl * 4;
      if (b[ipAt + 9] == 6 && l4At + 13 < b.size()) {
         b[l4At + 12] = (u8)((5 + rng->Below(11)) << 4);
      }
   } else {
      b.resize(ipAt + 80);
      for (size_t i = ipAt; i < b.size(); i++) b[i] = rng->Byte();
      if (etherType == 0x86dd) {
         b[ipAt] = rng->OneIn(8) ? rng->Byte() : 0x60;
         static const u8 kNext[] = {17, 58, 6, 0, 60, 44};
         b[ipAt + 6] = kNext[rng->Below(sizeof kNext)];
      }
   }
   /* Cut anywhere, often inside the headers. */
   if (rng->OneIn(2)) {
      size_t cut = rng->OneIn(2) ? ipAt + rng->Below(70) : rng->Below((u32)b.size() + 1);
      if (cut < b.size()) b.resize(cut);
   }
   return b;
}

sim::FrameOptions RandomOptions(Rng *rng, size_t len) {
   sim::FrameOptions opts;
   if (rng->OneIn(3)) {
      opts.mapped = (int32_t)rng->Below((u32)len + 8);
   }
   if (rng->OneIn(4)) {
      u32 n = 1 + rng->Below(4);
      for (u32 i = 0; i < n; i++) opts.sg.push_back(1 + rng->Below(40));
   }
   opts.vlan = (u16)rng->Below(4096);
   return opts;
}

/* The context as the loop sets it before the parse. */
void StartContext(zek_Pkt *pkt, VigilPacketContext *ctx) {
   memset(ctx, 0, sizeof *ctx);
   ctx->frameMapped = (u8 *)zek_PktFrameMappedPointerGet(pkt);
   ctx->frameLen = zek_PktFrameLenGet(pkt);
   ctx->mappedLen = zek_PktFrameMappedLenGet(pkt);
   if (ctx->mappedLen > ctx->frameLen) ctx->mappedLen = ctx->frameLen;
   if (ctx->frameMapped == nullptr) ctx->mappedLen = 0;
}

/* Where a header pointer reads: "mapped+N", or "copy" with the copy's bytes. */
std::string Where(const VigilPacketContext *ctx, const u8 *hdr, const u8 *copy, size_t len) {
   if (hdr == nullptr) return "none";
   if (hdr == copy) return "copy " + std::string((const char *)copy, len);
   return "mapped+" + std::to_string(hdr - ctx->frameMapped);
}

std::string EntryText(const zek_PktHeaderEntry *e) {
   if (e == nullptr) return "none";
   return std::to_string(e->type) + "/" + std::to_string(e->offset) + "/" +
          std::to_string(e->nextProto) + "/" + std::to_string(e->nextOffset);
}

/* What the pipelines may read of a parse: the bits, and behind each bit
 * its entry and header. */
std::string ParseText(const VigilPacketContext *ctx) {
   std::string out = "flags " + std::to_string(ctx->flags);
   if (ctx->flags & VIGIL_PKT_ETH) {
      out += " eth " + EntryText(ctx->ethEntry) + " " +
             Where(ctx, ctx->ethHdr, ctx->ethCopy, VIGIL_ETH_HDR_COPY) + " vlan " +
             std::to_string(ctx->vlanId);
   }
   if (ctx->flags & (VIGIL_PKT_IPV4 | VIGIL_PKT_IPV6)) {
      out += " ip " + EntryText(ctx->ipEntry) + " " +
             Where(ctx, ctx->ipHdr, ctx->ipCopy, VIGIL_IP_HDR_COPY);
   }
   if (ctx->flags & (VIGIL_PKT_UDP | VIGIL_PKT_ICMPV6)) {
      out += " l4 " + EntryText(ctx->l4Entry) + " " +
             Where(ctx, ctx->l4Hdr, ctx->l4Copy, VIGIL_L4_HDR_COPY);
   }
   return out;
}

class HeaderParse : public VigilTest {
protected:
   /* Both parses of one frame. */
   void Compare(zek_Pkt *pkt, const std::string &what) {
      VigilPacketContext byFind;
      VigilPacketContext parsed;
      StartContext(pkt, &byFind);
      StartContext(pkt, &parsed);
      VigilParseHeadersByFind(pkt, &byFind);
      VigilParseHeaders(pkt, &parsed);
      ASSERT_EQ(ParseText(&parsed), ParseText(&byFind)) << what;
      if (parsed.flags & VIGIL_PKT_UDP) numUdp++;
      if (parsed.ipEntry == &parsed.ownIpEntry) numWorkedOut++;
   }
   u32 numUdp = 0;
   u32 numWorkedOut = 0;
};

TEST_F(HeaderParse, RandomFramesParseAsByTheHostsFinds) {
   for (u32 seed : Seeds({1, 2, 3, 4, 5, 6, 7, 8})) {
      Rng rng(seed);
      for (u32 i = 0; i < 3000; i++) {
         Bytes bytes = RandomFrame(&rng);
         sim::FrameOptions opts = RandomOptions(&rng, bytes.size());
         zek_Pkt *pkt = sim::MakeFrame(bytes, opts);
         Compare(pkt, "seed " + std::to_string(seed) + " frame " + std::to_string(i));
         zek_PktRelease(pkt);
         if (HasFatalFailure()) return;
      }
   }
   /* The shorter way was taken, and UDP was found, often enough to count. */
   EXPECT_GT(numWorkedOut, 1000u);
   EXPECT_GT(numUdp, 1000u);
}

TEST_F(HeaderParse, ChosenFramesParseAsByTheHostsFinds) {
   Bytes udp(14 + 20 + 8 + 18, 0);
   Put16(&udp, 12, 0x0800);
   udp[14] = 0x45;
   udp[14 + 9] = 17;
   Put16(&udp, 14 + 20 + 2, 67);
   struct Case {
      const char *what;
      Bytes bytes;
      int32_t mapped;
   };
   std::vector<Case> cases;
   cases.push_back({"plain UDP", udp, -1});
   cases.push_back({"UDP header not mapped", udp, 38});
   cases.push_back({"IPv4 header not all mapped", udp, 30});
   cases.push_back({"nothing mapped", udp, 0});
   Bytes later = udp;
   Put16(&later, 14 + 6, 0x0001);
   cases.push_back({"a later fragment", later, -1});
   Bytes first = udp;
   Put16(&first, 14 + 6, 0x2000);
   cases.push_back({"a first fragment", first, -1});
   Bytes shortUdp(udp.begin(), udp.begin() + 14 + 20 + 7);
   cases.push_back({"7 bytes of UDP", shortUdp, -1});
   Bytes exactUdp(udp.begin(), udp.begin() + 14 + 20 + 8);
   cases.push_back({"8 bytes of UDP", exactUdp, -1});
   Bytes options = udp;
   options[14] = 0x4f; /* 60 bytes of header: the copy is capped at 40 */
   options.resize(14 + 60 + 8 + 4);
   cases.push_back({"header of 60 bytes", options, -1});
   cases.push_back({"header of 60 bytes, 50 mapped", options, 14 + 50});
   Bytes ihl4 = udp;
   ihl4[14] = 0x44;
   cases.push_back({"header length 16", ihl4, -1});
   Bytes v6 = udp;
   v6[14] = 0x65;
   cases.push_back({"version 6 under IPv4", v6, -1});
   Bytes tcp = udp;
   tcp[14 + 9] = 6;
   cases.push_back({"TCP", tcp, -1});
   Bytes truncated(udp.begin(), udp.begin() + 14 + 19);
   cases.push_back({"19 bytes of IPv4", truncated, -1});
   for (const Case &c : cases) {
      sim::FrameOptions opts;
      opts.mapped = c.mapped;
      zek_Pkt *pkt = sim::MakeFrame(c.bytes, opts);
      Compare(pkt, c.what);
      zek_PktRelease(pkt);
   }
}

/* A find that fails ends the parse in both alike: the shorter way never
 * hides a host that can't describe the frame. */
TEST_F(HeaderParse, FailedFindsEndBothParsesAlike) {
   Bytes udp(14 + 20 + 8 + 18, 0);
   Put16(&udp, 12, 0x0800);
   udp[14] = 0x45;
   udp[14 + 9] = 17;
   for (u32 after = 0; after < 3; after++) {
      for (int32_t mapped : {-1, 30}) {
         /* With the whole frame mapped only the Ethernet find is made. */
         if (mapped < 0 && after > 0) {
            continue;
         }
         sim::FrameOptions opts;
         opts.mapped = mapped;
         zek_Pkt *pkt = sim::MakeFrame(udp, opts);
         VigilPacketContext byFind;
         VigilPacketContext parsed;
         StartContext(pkt, &byFind);
         StartContext(pkt, &parsed);
         sim::FaultCall("PktHeaderFind", VIGIL_STATUS_NOT_FOUND, 1, after);
         VigilParseHeadersByFind(pkt, &byFind);
         sim::FaultClear();
         sim::FaultCall("PktHeaderFind", VIGIL_STATUS_NOT_FOUND, 1, after);
         VigilParseHeaders(pkt, &parsed);
         sim::FaultClear();
         EXPECT_EQ(ParseText(&parsed), ParseText(&byFind))
            << "after " << after << " mapped " << mapped;
         EXPECT_EQ(byFind.flags, after == 0 ? 0u : after == 1 ? VIGIL_PKT_ETH
                                                            : VIGIL_PKT_ETH | VIGIL_PKT_IPV4);
         zek_PktRelease(pkt);
      }
   }
}

} // namespace
