/*
 * Frames and frame lists of the simulated host: mapped part, scatter-gather
 * elements and their machine addresses, copies, attributes, tracing, release
 * checks and list iterators.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "raw_frame_bytes.h"
#include "oxa.h"
#include "pathprobe.h"
#include "sim_core.h"
#include "sim_frames.h"

using namespace fb;

namespace {

constexpr zek_Status kInvalid = 0xbad0001;
constexpr zek_Status kNotFound = 0xbad0003;
constexpr zek_Status kNoMemory = 0xbad0014;
constexpr uint64_t kTraceAttr = 0x3e8f6798adcf2307ull;

Bytes Mapped(zek_Pkt *pkt) {
   auto *p = static_cast<const uint8_t *>(zek_PktFrameMappedPointerGet(pkt));
   return Bytes(p, p + zek_PktFrameMappedLenGet(pkt));
}

Bytes ElemBytes(const zek_SgElem *elem) {
   void *va = nullptr;
   EXPECT_EQ(zek_MA2VA(elem->addr, elem->length, &va), ZEK_OK);
   auto *p = static_cast<const uint8_t *>(va);
   return p ? Bytes(p, p + elem->length) : Bytes();
}

std::vector<std::string> gFailures;
void RecordFailure(const std::string &what) { gFailures.push_back(what); }

} // namespace

TEST(SimFrame, WholeFrameIsMappedByDefault) {
   sim::Reset();
   const Bytes bytes = Eth(0x0800, Ipv4(17, Udp(Counting(18))));
   zek_Pkt *pkt = sim::MakeFrame(bytes);
   EXPECT_EQ(zek_PktFrameLenGet(pkt), bytes.size());
   EXPECT_EQ(zek_PktFrameMappedLenGet(pkt), bytes.size());
   EXPECT_EQ(Mapped(pkt), bytes);
   EXPECT_EQ(zek_PktVlanIDGet(pkt), 0);
   EXPECT_EQ(sim::FramesLive(), 1u);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, VlanFromOptions) {
   sim::Reset();
   sim::FrameOptions opts;
   opts.vlan = 42;
   zek_Pkt *pkt = sim::MakeFrame(Eth(0x0800, Ipv4(17, Udp({}))), opts);
   EXPECT_EQ(zek_PktVlanIDGet(pkt), 42);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, PartlyMappedFrameReadsTheRestByCopy) {
   sim::Reset();
   const Bytes bytes = Counting(60, 0x10);
   sim::FrameOptions opts;
   opts.mapped = 20;
   zek_Pkt *pkt = sim::MakeFrame(bytes, opts);
   EXPECT_EQ(zek_PktFrameLenGet(pkt), 60u);
   EXPECT_EQ(zek_PktFrameMappedLenGet(pkt), 20u);
   EXPECT_EQ(Mapped(pkt), Bytes(bytes.begin(), bytes.begin() + 20));

   Bytes rest(40);
   ASSERT_EQ(zek_PktCopyBytesOut(rest.data(), 40, 20, pkt), ZEK_OK);
   EXPECT_EQ(rest, Bytes(bytes.begin() + 20, bytes.end()));
   Bytes all(60);
   ASSERT_EQ(zek_PktCopyBytesOut(all.data(), 60, 0, pkt), ZEK_OK);
   EXPECT_EQ(all, bytes);
   EXPECT_EQ(sim::FrameBytes(pkt), bytes);

   uint8_t one = 0;
   EXPECT_EQ(zek_PktCopyBytesOut(&one, 0, 60, pkt), ZEK_OK);
   EXPECT_EQ(zek_PktCopyBytesOut(&one, 1, 60, pkt), kInvalid);
   EXPECT_EQ(zek_PktCopyBytesOut(all.data(), 41, 20, pkt), kInvalid);
   EXPECT_EQ(zek_PktCopyBytesOut(all.data(), 2, 0xffffffffu, pkt), kInvalid);
   EXPECT_EQ(zek_PktCopyBytesOut(all.data(), 0xffffffffu, 2, pkt), kInvalid);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, MappedLengthIsCappedAtTheFrame) {
   sim::Reset();
   sim::FrameOptions opts;
   opts.mapped = 100;
   zek_Pkt *pkt = sim::MakeFrame(Counting(60), opts);
   EXPECT_EQ(zek_PktFrameMappedLenGet(pkt), 60u);
   EXPECT_EQ(Mapped(pkt), Counting(60));
   opts.mapped = 0;
   zek_Pkt *unmapped = sim::MakeFrame(Counting(60), opts);
   EXPECT_EQ(zek_PktFrameMappedLenGet(unmapped), 0u);
   EXPECT_EQ(sim::FrameBytes(unmapped), Counting(60));
   zek_PktRelease(pkt);
   zek_PktRelease(unmapped);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, ThreeScatterGatherElements) {
   sim::Reset();
   const Bytes bytes = Counting(60, 0x40);
   sim::FrameOptions opts;
   opts.sg = {10, 20};
   zek_Pkt *pkt = sim::MakeFrame(bytes, opts);
   const zek_SgArray *sg = zek_PktSgArrayGet(pkt);
   ASSERT_NE(sg, nullptr);
   ASSERT_EQ(sg->numElems, 3);
   const zek_SgElem *e0 = zek_PktSgElemGet(pkt, 0);
   const zek_SgElem *e1 = zek_PktSgElemGet(pkt, 1);
   const zek_SgElem *e2 = zek_PktSgElemGet(pkt, 2);
   ASSERT_TRUE(e0 && e1 && e2);
   EXPECT_EQ(zek_PktSgElemGet(pkt, 3), nullptr);
   EXPECT_EQ(e0->length, 10u);
   EXPECT_EQ(e1->length, 20u);
   EXPECT_EQ(e2->length, 30u);
   EXPECT_EQ(ElemBytes(e0), Bytes(bytes.begin(), bytes.begin() + 10));
   EXPECT_EQ(ElemBytes(e1), Bytes(bytes.begin() + 10, bytes.begin() + 30));
   EXPECT_EQ(ElemBytes(e2), Bytes(bytes.begin() + 30, bytes.end()));

   /* Machine addresses are their own space, not the element pointers. */
   void *va = nullptr;
   ASSERT_EQ(zek_MA2VA(e1->addr + 5, 4, &va), ZEK_OK);
   EXPECT_NE(reinterpret_cast<uintptr_t>(va), e1->addr + 5);
   EXPECT_EQ(std::memcmp(va, bytes.data() + 15, 4), 0);

   /* A range reaching past its element does not map, even into the next. */
   va = nullptr;
   EXPECT_EQ(zek_MA2VA(e0->addr + 5, 10, &va), kInvalid);
   EXPECT_EQ(zek_MA2VA(e0->addr + 10, 1, &va), kInvalid);
   EXPECT_EQ(zek_MA2VA(e2->addr, 31, &va), kInvalid);
   EXPECT_EQ(zek_MA2VA(e0->addr - 1, 1, &va), kInvalid);
   EXPECT_EQ(va, nullptr);

   /* The frame's bytes across element borders. */
   Bytes mid(30);
   ASSERT_EQ(zek_PktCopyBytesOut(mid.data(), 30, 5, pkt), ZEK_OK);
   EXPECT_EQ(mid, Bytes(bytes.begin() + 5, bytes.begin() + 35));

   /* A released frame's elements no longer map. */
   const zek_MA addr = e0->addr;
   zek_PktRelease(pkt);
   EXPECT_EQ(zek_MA2VA(addr, 1, &va), kInvalid);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, ScatterGatherLayouts) {
   sim::Reset();
   sim::FrameOptions opts;
   opts.sg = {10, 20, 30}; /* the frame ends with the last element */
   zek_Pkt *exact = sim::MakeFrame(Counting(60), opts);
   EXPECT_EQ(zek_PktSgArrayGet(exact)->numElems, 3);
   EXPECT_EQ(zek_PktSgElemGet(exact, 2)->length, 30u);
   opts.sg = {100}; /* longer than the frame: one element of the frame */
   zek_Pkt *capped = sim::MakeFrame(Counting(60), opts);
   EXPECT_EQ(zek_PktSgArrayGet(capped)->numElems, 1);
   EXPECT_EQ(zek_PktSgElemGet(capped, 0)->length, 60u);
   opts.sg = {};
   zek_Pkt *single = sim::MakeFrame(Counting(60), opts);
   EXPECT_EQ(zek_PktSgArrayGet(single)->numElems, 1);
   EXPECT_EQ(ElemBytes(zek_PktSgElemGet(single, 0)), Counting(60));
   zek_PktRelease(exact);
   zek_PktRelease(capped);
   zek_PktRelease(single);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, CopyIsFullyMappedAndEqual) {
   sim::Reset();
   sim::FrameOptions opts;
   opts.mapped = 14;
   opts.sg = {10, 20};
   opts.traceAttr = true;
   opts.traceValue = 77;
   zek_Pkt *pkt =
      sim::MakeFrame(EthTagged(300, 0x86dd, Ipv6(17, Udp(Counting(9)))), opts);
   zek_Pkt *copy = nullptr;
   ASSERT_EQ(zek_PktCopy(pkt, &copy), ZEK_OK);
   ASSERT_NE(copy, nullptr);
   EXPECT_NE(copy, pkt);
   EXPECT_EQ(sim::FramesLive(), 2u);
   EXPECT_EQ(zek_PktFrameLenGet(copy), zek_PktFrameLenGet(pkt));
   EXPECT_EQ(zek_PktFrameMappedLenGet(copy), zek_PktFrameLenGet(pkt));
   EXPECT_EQ(Mapped(copy), sim::FrameBytes(pkt));
   EXPECT_EQ(sim::FrameBytes(copy), sim::FrameBytes(pkt));
   EXPECT_EQ(zek_PktVlanIDGet(copy), 300);
   EXPECT_EQ(zek_PktSgArrayGet(copy)->numElems, 1);
   EXPECT_EQ(zek_PktSgElemGet(copy, 0)->length, zek_PktFrameLenGet(pkt));
   EXPECT_EQ(sim::FrameHeaders(copy).size(), 3u);
   uint64_t value = 0;
   EXPECT_EQ(oxa_PktAttrGet(copy, kTraceAttr, &value), ZEK_OK);
   EXPECT_EQ(value, 77u);
   zek_PktRelease(pkt);
   zek_PktRelease(copy);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, CopyFailsWhenInjected) {
   sim::Reset();
   zek_Pkt *pkt = sim::MakeFrame(Counting(60));
   sim::FaultCall("PktCopy", kNoMemory);
   zek_Pkt *copy = nullptr;
   EXPECT_EQ(zek_PktCopy(pkt, &copy), kNoMemory);
   EXPECT_EQ(copy, nullptr);
   EXPECT_EQ(sim::FramesLive(), 1u);
   ASSERT_EQ(zek_PktCopy(pkt, &copy), ZEK_OK);
   EXPECT_EQ(sim::FramesLive(), 2u);
   zek_PktRelease(copy);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, DoubleReleaseIsReported) {
   sim::Reset();
   gFailures.clear();
   sim::SetFailureHook(RecordFailure);
   zek_Pkt *pkt = sim::MakeFrame(Counting(60));
   zek_PktRelease(pkt);
   EXPECT_TRUE(gFailures.empty());
   zek_PktRelease(pkt);
   sim::SetFailureHook(nullptr);
   ASSERT_EQ(gFailures.size(), 1u);
   EXPECT_NE(gFailures[0].find("zek_PktRelease"), std::string::npos);
   EXPECT_NE(gFailures[0].find("not live"), std::string::npos);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, TraceAttribute) {
   sim::Reset();
   sim::FrameOptions opts;
   opts.traceAttr = true;
   opts.traceValue = 0x55;
   zek_Pkt *traced = sim::MakeFrame(Counting(60), opts);
   zek_Pkt *plain = sim::MakeFrame(Counting(60));
   uint64_t value = 0;
   EXPECT_EQ(oxa_PktAttrGet(traced, kTraceAttr, &value), ZEK_OK);
   EXPECT_EQ(value, 0x55u);
   value = 9;
   EXPECT_EQ(oxa_PktAttrGet(traced, kTraceAttr + 1, &value), kNotFound);
   EXPECT_EQ(oxa_PktAttrGet(plain, kTraceAttr, &value), kNotFound);
   EXPECT_EQ(value, 9u);

   sim::SetTraceAttrId(0x1234);
   EXPECT_EQ(oxa_PktAttrGet(traced, kTraceAttr, &value), kNotFound);
   EXPECT_EQ(oxa_PktAttrGet(traced, 0x1234, &value), ZEK_OK);
   EXPECT_EQ(value, 0x55u);
   zek_PktRelease(traced);
   zek_PktRelease(plain);

   /* Reset restores the host's attribute id. */
   sim::Reset();
   traced = sim::MakeFrame(Counting(60), opts);
   EXPECT_EQ(oxa_PktAttrGet(traced, kTraceAttr, &value), ZEK_OK);
   zek_PktRelease(traced);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, TracingSwitch) {
   sim::Reset();
   EXPECT_EQ(pathprobe_global_time, 0u);
   sim::SetTracing(true);
   EXPECT_EQ(pathprobe_global_time,
             static_cast<uint64_t>(sim::Now() * 1000) + 3600000u);
   sim::SetTracing(false);
   EXPECT_EQ(pathprobe_global_time, 0u);
   sim::SetTracing(true);
   sim::Reset();
   EXPECT_EQ(pathprobe_global_time, 0u);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrame, ResetForgetsLiveFrames) {
   sim::Reset();
   sim::MakeFrame(Counting(60));
   sim::MakeList();
   EXPECT_EQ(sim::FramesLive(), 1u);
   sim::Reset();
   EXPECT_EQ(sim::FramesLive(), 0u);
}

/* ------------------------------------------------------------- lists */

namespace {

struct ListFixture {
   zek_PktList *list = sim::MakeList();
   std::vector<zek_Pkt *> frames;
   alignas(16) unsigned char mem[ZEK_PKT_LIST_ITER_MAX_SIZE];
   zek_PktListIter *iter = reinterpret_cast<zek_PktListIter *>(mem);

   explicit ListFixture(int n) {
      for (int i = 0; i < n; i++) {
         frames.push_back(sim::MakeFrame(Counting(60, static_cast<uint8_t>(i))));
         sim::ListAppend(list, frames.back());
      }
      zek_PktListIterStart(iter, list);
   }
   void Move(int n) {
      for (int i = 0; i < n; i++) {
         zek_PktListIterMove(iter);
      }
   }
};

} // namespace

TEST(SimList, IteratorFitsTheReservation) {
   sim::Reset();
   EXPECT_GT(zek_PktListIterSizeOf(), 0u);
   EXPECT_LE(zek_PktListIterSizeOf(), ZEK_PKT_LIST_ITER_MAX_SIZE);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimList, WalkVisitsEveryFrameInOrder) {
   sim::Reset();
   ListFixture f(3);
   std::vector<zek_Pkt *> seen;
   for (; !zek_PktListIterIsAtEnd(f.iter); zek_PktListIterMove(f.iter)) {
      seen.push_back(zek_PktListIterGetPkt(f.iter));
   }
   EXPECT_EQ(seen, f.frames);
   EXPECT_EQ(zek_PktListIterGetPkt(f.iter), nullptr);
   EXPECT_EQ(sim::ListFrames(f.list), f.frames);

   ListFixture empty(0);
   EXPECT_TRUE(zek_PktListIterIsAtEnd(empty.iter));
   sim::DestroyList(empty.list);
   sim::DestroyList(f.list);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimList, RemoveFirst) {
   sim::Reset();
   ListFixture f(3);
   zek_Pkt *got = nullptr;
   ASSERT_EQ(zek_PktListIterRemovePkt(f.iter, &got), ZEK_OK);
   EXPECT_EQ(got, f.frames[0]);
   EXPECT_EQ(zek_PktListIterGetPkt(f.iter), f.frames[1]);
   EXPECT_EQ(sim::ListFrames(f.list),
             (std::vector<zek_Pkt *>{f.frames[1], f.frames[2]}));
   zek_PktRelease(got);
   sim::DestroyList(f.list);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimList, RemoveMiddle) {
   sim::Reset();
   ListFixture f(3);
   f.Move(1);
   zek_Pkt *got = nullptr;
   ASSERT_EQ(zek_PktListIterRemovePkt(f.iter, &got), ZEK_OK);
   EXPECT_EQ(got, f.frames[1]);
   EXPECT_EQ(zek_PktListIterGetPkt(f.iter), f.frames[2]);
   EXPECT_EQ(sim::ListFrames(f.list),
             (std::vector<zek_Pkt *>{f.frames[0], f.frames[2]}));
   zek_PktRelease(got);
   sim::DestroyList(f.list);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimList, RemoveLastEndsTheWalk) {
   sim::Reset();
   ListFixture f(3);
   f.Move(2);
   zek_Pkt *got = nullptr;
   ASSERT_EQ(zek_PktListIterRemovePkt(f.iter, &got), ZEK_OK);
   EXPECT_EQ(got, f.frames[2]);
   EXPECT_TRUE(zek_PktListIterIsAtEnd(f.iter));
   EXPECT_EQ(zek_PktListIterGetPkt(f.iter), nullptr);
   zek_Pkt *none = nullptr;
   EXPECT_EQ(zek_PktListIterRemovePkt(f.iter, &none), kNotFound);
   EXPECT_EQ(none, nullptr);
   EXPECT_EQ(sim::ListFrames(f.list),
             (std::vector<zek_Pkt *>{f.frames[0], f.frames[1]}));
   zek_PktRelease(got);
   sim::DestroyList(f.list);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimList, RemoveEveryFrame) {
   sim::Reset();
   ListFixture f(4);
   std::vector<zek_Pkt *> removed;
   while (!zek_PktListIterIsAtEnd(f.iter)) {
      zek_Pkt *got = nullptr;
      ASSERT_EQ(zek_PktListIterRemovePkt(f.iter, &got), ZEK_OK);
      removed.push_back(got);
      zek_PktRelease(got);
   }
   EXPECT_EQ(removed, f.frames);
   EXPECT_TRUE(sim::ListFrames(f.list).empty());
   sim::DestroyList(f.list);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimList, ReplaceReleasesTheOldFrame) {
   sim::Reset();
   ListFixture f(3);
   f.Move(1);
   const uint64_t live = sim::FramesLive();
   zek_Pkt *copy = nullptr;
   ASSERT_EQ(zek_PktCopy(f.frames[1], &copy), ZEK_OK);
   ASSERT_EQ(zek_PktListIterReplace(f.iter, copy), ZEK_OK);
   EXPECT_EQ(sim::FramesLive(), live);
   EXPECT_EQ(zek_PktListIterGetPkt(f.iter), copy);
   EXPECT_EQ(sim::ListFrames(f.list),
             (std::vector<zek_Pkt *>{f.frames[0], copy, f.frames[2]}));
   zek_PktListIterMove(f.iter);
   EXPECT_EQ(zek_PktListIterGetPkt(f.iter), f.frames[2]);

   /* At the end there is nothing to replace; the frame stays the caller's. */
   f.Move(1);
   zek_Pkt *spare = sim::MakeFrame(Counting(60));
   EXPECT_EQ(zek_PktListIterReplace(f.iter, spare), kNotFound);
   zek_PktRelease(spare);
   sim::DestroyList(f.list);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimList, DestroyReleasesTheFrames) {
   sim::Reset();
   ListFixture f(5);
   EXPECT_EQ(sim::FramesLive(), 5u);
   sim::DestroyList(f.list);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

/* ------------------------------------------------- the pool and vigild */

TEST(SimFramePool, AReleasedFrameIsMadeAgainWithItsStorage) {
   sim::Reset();
   zek_Pkt *first = sim::MakeFrame(Counting(60));
   uint32_t len = 0;
   const uint8_t *storage = sim::FrameData(first, &len);
   EXPECT_EQ(len, 60u);
   zek_PktRelease(first);
   EXPECT_EQ(sim::FramesLive(), 0u);
   zek_Pkt *second = sim::MakeFrame(Counting(60, 0x20));
   EXPECT_EQ(second, first);
   EXPECT_EQ(sim::FrameData(second, &len), storage);
   EXPECT_EQ(sim::FrameBytes(second), Counting(60, 0x20));
   EXPECT_EQ(sim::FramesLive(), 1u);
   zek_PktRelease(second);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFramePool, LiveCountAndReleaseChecksHoldAcrossRecycling) {
   sim::Reset();
   gFailures.clear();
   sim::SetFailureHook(RecordFailure);
   zek_Pkt *a = sim::MakeFrame(Counting(60));
   zek_Pkt *b = sim::MakeFrame(Counting(60));
   zek_PktRelease(a);
   zek_Pkt *c = sim::MakeFrame(Counting(60));
   EXPECT_EQ(sim::FramesLive(), 2u);
   zek_PktRelease(b);
   zek_PktRelease(b);
   alignas(16) unsigned char notAFrame[64] = {};
   zek_PktRelease(reinterpret_cast<zek_Pkt *>(notAFrame));
   sim::SetFailureHook(nullptr);
   ASSERT_EQ(gFailures.size(), 2u);
   EXPECT_NE(gFailures[0].find("not live"), std::string::npos);
   EXPECT_NE(gFailures[1].find("not live"), std::string::npos);
   EXPECT_EQ(sim::FramesLive(), 1u);
   zek_PktRelease(c);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFramePool, AnAddressOfAReleasedFrameDoesNotMapInTheFrameMadeAfterIt) {
   sim::Reset();
   zek_Pkt *first = sim::MakeFrame(Counting(60));
   const zek_MA old = zek_PktSgElemGet(first, 0)->addr;
   zek_PktRelease(first);
   zek_Pkt *second = sim::MakeFrame(Counting(60));
   ASSERT_EQ(second, first);
   const zek_MA now = zek_PktSgElemGet(second, 0)->addr;
   EXPECT_NE(now, old);
   void *va = nullptr;
   EXPECT_EQ(zek_MA2VA(old, 1, &va), kInvalid);
   EXPECT_EQ(va, nullptr);
   EXPECT_EQ(ElemBytes(zek_PktSgElemGet(second, 0)), Counting(60));
   zek_PktRelease(second);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFramePool, ThePoolGrowsPastOneChunkAndEveryFrameMaps) {
   sim::Reset();
   std::vector<zek_Pkt *> frames;
   for (int i = 0; i < 600; i++) {
      frames.push_back(sim::MakeFrame(Counting(60, static_cast<uint8_t>(i))));
   }
   EXPECT_EQ(sim::FramesLive(), 600u);
   for (int i : {0, 255, 256, 599}) {
      EXPECT_EQ(ElemBytes(zek_PktSgElemGet(frames[i], 0)),
                Counting(60, static_cast<uint8_t>(i)));
   }
   for (zek_Pkt *pkt : frames) zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrameFrom, TheCallersBytesAreCopiedOnceWithTheTagTakenOut) {
   sim::Reset();
   Bytes received = EthTagged(300, 0x0800, Ipv4(17, Udp(Counting(18))));
   zek_Pkt *pkt = sim::MakeFrameFrom(received.data(), static_cast<uint32_t>(received.size()), 7);
   const Bytes untagged = Eth(0x0800, Ipv4(17, Udp(Counting(18))));
   received.assign(received.size(), 0); /* the frame keeps its own copy */
   uint32_t len = 0;
   const uint8_t *data = sim::FrameData(pkt, &len);
   ASSERT_NE(data, nullptr);
   EXPECT_EQ(Bytes(data, data + len), untagged);
   EXPECT_EQ(zek_PktVlanIDGet(pkt), 300);
   EXPECT_EQ(zek_PktFrameMappedLenGet(pkt), untagged.size());
   EXPECT_EQ(zek_PktFrameMappedPointerGet(pkt), static_cast<const void *>(data));
   EXPECT_EQ(zek_PktSgArrayGet(pkt)->numElems, 1);
   EXPECT_EQ(sim::FrameHeaders(pkt).size(), 3u);

   zek_Pkt *plain = sim::MakeFrameFrom(untagged.data(), static_cast<uint32_t>(untagged.size()), 7);
   EXPECT_EQ(zek_PktVlanIDGet(plain), 7);
   EXPECT_EQ(sim::FrameBytes(plain), untagged);
   zek_PktHeaderEntry *udp = nullptr;
   ASSERT_EQ(zek_PktHeaderFind(plain, 2, ZEK_PKT_TYPE_UDP, 1, &udp, 0), ZEK_OK);
   EXPECT_EQ(udp->offset, 34u);
   zek_PktRelease(pkt);
   zek_PktRelease(plain);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrameFrom, FrameDataIsNullForAFrameInSeveralElements) {
   sim::Reset();
   sim::FrameOptions opts;
   opts.sg = {10, 20};
   zek_Pkt *pkt = sim::MakeFrame(Counting(60), opts);
   uint32_t len = 0;
   EXPECT_EQ(sim::FrameData(pkt, &len), nullptr);
   EXPECT_EQ(len, 60u);
   zek_PktRelease(pkt);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimFrameFrom, ListFirstAndNextWalkTheListInOrder) {
   sim::Reset();
   ListFixture f(3);
   std::vector<zek_Pkt *> seen;
   for (zek_Pkt *pkt = sim::ListFirst(f.list); pkt != nullptr; pkt = sim::ListNext(pkt)) {
      seen.push_back(pkt);
   }
   EXPECT_EQ(seen, f.frames);
   zek_PktList *empty = sim::MakeList();
   EXPECT_EQ(sim::ListFirst(empty), nullptr);
   sim::DestroyList(empty);
   sim::DestroyList(f.list);
   EXPECT_EQ(sim::FramesLive(), 0u);
}

TEST(SimList, ADestroyedListIsMadeAgainAndASecondDestroyIsReported) {
   sim::Reset();
   gFailures.clear();
   sim::SetFailureHook(RecordFailure);
   zek_PktList *list = sim::MakeList();
   sim::ListAppend(list, sim::MakeFrame(Counting(60)));
   sim::DestroyList(list);
   sim::DestroyList(list);
   EXPECT_EQ(sim::FramesLive(), 0u);
   zek_PktList *again = sim::MakeList();
   EXPECT_EQ(again, list);
   EXPECT_TRUE(sim::ListFrames(again).empty());
   sim::DestroyList(again);
   sim::SetFailureHook(nullptr);
   ASSERT_EQ(gFailures.size(), 1u);
   EXPECT_NE(gFailures[0].find("DestroyList: the list is not live"), std::string::npos);
}

#if defined(__SANITIZE_ADDRESS__)
/* Pooled frames keep the checks of separate heap buffers: a read past the
 * mapped part, past the frame, or of a released frame is reported. */
TEST(SimFramePool, AddressSanitizerReportsReadsPastARegionOrOfAReleasedFrame) {
   sim::Reset();
   sim::FrameOptions opts;
   opts.mapped = 20;
   zek_Pkt *part = sim::MakeFrame(Counting(60), opts);
   const volatile uint8_t *mapped =
      static_cast<const uint8_t *>(zek_PktFrameMappedPointerGet(part));
   EXPECT_EQ(mapped[19], 19);
   EXPECT_DEATH((void)mapped[20], "AddressSanitizer");

   zek_Pkt *whole = sim::MakeFrame(Counting(60));
   uint32_t len = 0;
   const volatile uint8_t *bytes = sim::FrameData(whole, &len);
   EXPECT_EQ(bytes[59], 59);
   EXPECT_DEATH((void)bytes[60], "AddressSanitizer");
   zek_PktRelease(whole);
   EXPECT_DEATH((void)bytes[0], "AddressSanitizer");
   zek_PktRelease(part);
   EXPECT_EQ(sim::FramesLive(), 0u);
}
#endif
