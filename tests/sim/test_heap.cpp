/*
 * Tests of the simulated host's heaps: limits, accounting, leak reports,
 * bad frees and allocation faults.
 */
#include <cstdio>
#include <thread>

#include "sim_test_fixture.h"

namespace {

class SimHeap : public simtest::SimFixture {
 protected:
   zek_HeapID Make(const char *name, uint32_t maxSize) {
      zek_HeapProps props{};
      EXPECT_EQ(zek_NameInitialize(&props.name, name), ZEK_OK);
      props.minSize = 0;
      props.maxSize = maxSize;
      zek_HeapID heap = nullptr;
      EXPECT_EQ(zek_HeapCreate(&props, &heap), ZEK_OK);
      return heap;
   }
   static const void *Ra(uintptr_t value) {
      return reinterpret_cast<const void *>(value);
   }
   static std::string Ptr(const void *p) {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%p", p);
      return buf;
   }
};

TEST_F(SimHeap, NewHeapHasNoAllocations) {
   zek_HeapID heap = Make("vigil", 4096);
   sim::HeapStats s = sim::GetHeapStats(heap);
   EXPECT_EQ(s.inUse, 0u);
   EXPECT_EQ(s.allocations, 0u);
   EXPECT_EQ(s.peak, 0u);
   EXPECT_EQ(s.totalAllocs, 0u);
   zek_HeapDestroy(heap);
}

TEST_F(SimHeap, AccountingTracksBytesLiveAllocationsPeakAndTotal) {
   zek_HeapID heap = Make("vigil", 0);
   void *a = zek_HeapAllocWithRA(heap, 100, Ra(1));
   void *b = zek_HeapAllocWithRA(heap, 200, Ra(2));
   ASSERT_NE(a, nullptr);
   ASSERT_NE(b, nullptr);
   sim::HeapStats s = sim::GetHeapStats(heap);
   EXPECT_EQ(s.inUse, 300u);
   EXPECT_EQ(s.allocations, 2u);
   EXPECT_EQ(s.peak, 300u);
   EXPECT_EQ(s.totalAllocs, 2u);

   zek_HeapFree(heap, a);
   void *c = zek_HeapAllocWithRA(heap, 50, Ra(3));
   s = sim::GetHeapStats(heap);
   EXPECT_EQ(s.inUse, 250u);
   EXPECT_EQ(s.allocations, 2u);
   EXPECT_EQ(s.peak, 300u);
   EXPECT_EQ(s.totalAllocs, 3u);

   zek_HeapFree(heap, b);
   zek_HeapFree(heap, c);
   s = sim::GetHeapStats(heap);
   EXPECT_EQ(s.inUse, 0u);
   EXPECT_EQ(s.allocations, 0u);
   EXPECT_EQ(s.peak, 300u);
   zek_HeapDestroy(heap);
   EXPECT_TRUE(sim::LastHeapLeaks().empty());
}

TEST_F(SimHeap, AllocationBeyondMaxSizeReturnsNull) {
   zek_HeapID heap = Make("small", 1000);
   void *a = zek_HeapAllocWithRA(heap, 600, Ra(1));
   ASSERT_NE(a, nullptr);
   EXPECT_EQ(zek_HeapAllocWithRA(heap, 401, Ra(1)), nullptr);
   void *b = zek_HeapAllocWithRA(heap, 400, Ra(1));
   ASSERT_NE(b, nullptr);
   EXPECT_EQ(zek_HeapAllocWithRA(heap, 1, Ra(1)), nullptr);
   sim::HeapStats s = sim::GetHeapStats(heap);
   EXPECT_EQ(s.inUse, 1000u);
   EXPECT_EQ(s.allocations, 2u);
   EXPECT_EQ(s.totalAllocs, 2u);
   zek_HeapFree(heap, a);
   void *c = zek_HeapAllocWithRA(heap, 600, Ra(1));
   EXPECT_NE(c, nullptr);
   zek_HeapFree(heap, b);
   zek_HeapFree(heap, c);
   zek_HeapDestroy(heap);
}

TEST_F(SimHeap, DestroyReportsEachLiveAllocationWithSizeAndCaller) {
   zek_HeapID heap = Make("leaky", 0);
   zek_HeapAllocWithRA(heap, 10, Ra(0x1234));
   void *freed = zek_HeapAllocWithRA(heap, 30, Ra(0x9999));
   zek_HeapAllocWithRA(heap, 20, Ra(0x5678));
   zek_HeapFree(heap, freed);
   zek_HeapDestroy(heap);

   std::vector<sim::HeapLeak> leaks = sim::LastHeapLeaks();
   ASSERT_EQ(leaks.size(), 2u);
   EXPECT_EQ(leaks[0].size, 10u);
   EXPECT_EQ(leaks[0].caller, Ra(0x1234));
   EXPECT_EQ(leaks[1].size, 20u);
   EXPECT_EQ(leaks[1].caller, Ra(0x5678));
   EXPECT_EQ(sim::LeaksSinceReset(), 2u);
}

TEST_F(SimHeap, LeakCountAccumulatesOverDestroyedHeapsUntilReset) {
   zek_HeapID first = Make("first", 0);
   zek_HeapAllocWithRA(first, 8, Ra(1));
   zek_HeapAllocWithRA(first, 8, Ra(2));
   zek_HeapDestroy(first);
   zek_HeapID second = Make("second", 0);
   zek_HeapAllocWithRA(second, 64, Ra(3));
   zek_HeapDestroy(second);

   ASSERT_EQ(sim::LastHeapLeaks().size(), 1u);
   EXPECT_EQ(sim::LastHeapLeaks()[0].size, 64u);
   EXPECT_EQ(sim::LeaksSinceReset(), 3u);

   zek_HeapID clean = Make("clean", 0);
   zek_HeapDestroy(clean);
   EXPECT_TRUE(sim::LastHeapLeaks().empty());
   EXPECT_EQ(sim::LeaksSinceReset(), 3u);

   sim::Reset();
   EXPECT_EQ(sim::LeaksSinceReset(), 0u);
}

TEST_F(SimHeap, FreeOfUnknownPointerIsReported) {
   zek_HeapID heap = Make("vigil", 0);
   int local = 0;
   zek_HeapFree(heap, &local);
   EXPECT_EQ(simtest::TakeFailures(),
             std::vector<std::string>{"heap vigil: free of unknown pointer " +
                                      Ptr(&local)});
   zek_HeapDestroy(heap);
}

TEST_F(SimHeap, DoubleFreeIsReported) {
   zek_HeapID heap = Make("vigil", 0);
   void *p = zek_HeapAllocWithRA(heap, 16, Ra(1));
   zek_HeapFree(heap, p);
   EXPECT_TRUE(simtest::TakeFailures().empty());
   zek_HeapFree(heap, p);
   EXPECT_EQ(simtest::TakeFailures(),
             std::vector<std::string>{"heap vigil: double free of " + Ptr(p)});
   EXPECT_EQ(sim::GetHeapStats(heap).allocations, 0u);
   zek_HeapDestroy(heap);
}

TEST_F(SimHeap, FreeOfNullIsIgnored) {
   zek_HeapID heap = Make("vigil", 0);
   zek_HeapFree(heap, nullptr);
   zek_HeapDestroy(heap);
}

TEST_F(SimHeap, FaultAllocFailsTheNthAllocationAndCountInARow) {
   zek_HeapID heap = Make("vigil", 0);
   sim::FaultAlloc(3, 2);
   std::vector<bool> got;
   std::vector<void *> blocks;
   for (int i = 0; i < 6; i++) {
      void *p = zek_HeapAllocWithRA(heap, 8, Ra(1));
      got.push_back(p != nullptr);
      if (p != nullptr) blocks.push_back(p);
   }
   EXPECT_EQ(got, (std::vector<bool>{true, true, false, false, true, true}));
   EXPECT_EQ(sim::GetHeapStats(heap).totalAllocs, 4u);
   for (void *p : blocks) zek_HeapFree(heap, p);
   zek_HeapDestroy(heap);
}

TEST_F(SimHeap, FaultAllocAppliesAcrossHeaps) {
   zek_HeapID a = Make("a", 0);
   zek_HeapID b = Make("b", 0);
   sim::FaultAlloc(2);
   void *first = zek_HeapAllocWithRA(a, 8, Ra(1));
   EXPECT_NE(first, nullptr);
   EXPECT_EQ(zek_HeapAllocWithRA(b, 8, Ra(1)), nullptr);
   void *third = zek_HeapAllocWithRA(b, 8, Ra(1));
   EXPECT_NE(third, nullptr);
   zek_HeapFree(a, first);
   zek_HeapFree(b, third);
   zek_HeapDestroy(a);
   zek_HeapDestroy(b);
}

TEST_F(SimHeap, FaultAllocWithZeroClearsThePlan) {
   zek_HeapID heap = Make("vigil", 0);
   sim::FaultAlloc(1, 5);
   sim::FaultAlloc(0);
   void *p = zek_HeapAllocWithRA(heap, 8, Ra(1));
   EXPECT_NE(p, nullptr);
   zek_HeapFree(heap, p);
   sim::FaultAlloc(1, 5);
   sim::FaultClear();
   p = zek_HeapAllocWithRA(heap, 8, Ra(1));
   EXPECT_NE(p, nullptr);
   zek_HeapFree(heap, p);
   zek_HeapDestroy(heap);
}

TEST_F(SimHeap, FaultCallOnHeapAllocWithRAReturnsNull) {
   zek_HeapID heap = Make("vigil", 0);
   sim::FaultCall("HeapAllocWithRA", 0xbad0014u, 1, 1);
   void *first = zek_HeapAllocWithRA(heap, 8, Ra(1));
   EXPECT_NE(first, nullptr);
   EXPECT_EQ(zek_HeapAllocWithRA(heap, 8, Ra(1)), nullptr);
   void *third = zek_HeapAllocWithRA(heap, 8, Ra(1));
   EXPECT_NE(third, nullptr);
   zek_HeapFree(heap, first);
   zek_HeapFree(heap, third);
   zek_HeapDestroy(heap);
}

TEST_F(SimHeap, FaultCallOnHeapCreateReturnsTheStatusAndLeavesTheHandle) {
   sim::FaultCall("HeapCreate", 0xbad0014u);
   zek_HeapProps props{};
   ASSERT_EQ(zek_NameInitialize(&props.name, "vigil"), ZEK_OK);
   zek_HeapID heap = nullptr;
   EXPECT_EQ(zek_HeapCreate(&props, &heap), 0xbad0014u);
   EXPECT_EQ(heap, nullptr);
   EXPECT_EQ(zek_HeapCreate(&props, &heap), ZEK_OK);
   EXPECT_NE(heap, nullptr);
   zek_HeapDestroy(heap);
}

TEST_F(SimHeap, AllocationsFromManyThreadsAreAllAccounted) {
   zek_HeapID heap = Make("vigil", 0);
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; t++) {
      threads.emplace_back([heap] {
         for (int i = 0; i < 500; i++) {
            void *p = zek_HeapAllocWithRA(heap, 32, nullptr);
            zek_HeapFree(heap, p);
         }
         zek_HeapAllocWithRA(heap, 32, nullptr);
      });
   }
   for (std::thread &t : threads) t.join();
   sim::HeapStats s = sim::GetHeapStats(heap);
   EXPECT_EQ(s.totalAllocs, 2004u);
   EXPECT_EQ(s.allocations, 4u);
   EXPECT_EQ(s.inUse, 128u);
   zek_HeapDestroy(heap);
   EXPECT_EQ(sim::LastHeapLeaks().size(), 4u);
}

} // namespace
