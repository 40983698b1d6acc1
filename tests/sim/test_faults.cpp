/*
 * Tests of the simulated host's call faults: a call with nothing armed skips
 * the fault table, and arming, counting and clearing behave the same after
 * any number of such calls and across threads.
 */
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sim_test_fixture.h"

namespace {

using namespace std::chrono_literals;

constexpr zek_Status kInjected = 0xbad0014u;

class SimFaults : public simtest::SimFixture {
 protected:
   static bool Check(const char *name, zek_Status *status = nullptr) {
      zek_Status ignored = 0;
      return sim::FaultCheck(name, status != nullptr ? status : &ignored);
   }
   static zek_Status CreateHeap(zek_HeapID *heap) {
      zek_HeapProps props{};
      EXPECT_EQ(zek_NameInitialize(&props.name, "vigil"), ZEK_OK);
      return zek_HeapCreate(&props, heap);
   }
};

TEST_F(SimFaults, NothingArmedNeverFails) {
   for (int i = 0; i < 10000; i++) {
      ASSERT_FALSE(Check("HeapCreate"));
   }
}

TEST_F(SimFaults, ArmingAfterManyCallsCountsAfterAndCountFromTheArm) {
   for (int i = 0; i < 1000; i++) {
      ASSERT_FALSE(Check("Thing"));
   }
   sim::FaultCall("Thing", kInjected, 2, 3);
   EXPECT_FALSE(Check("Other"));
   for (int i = 0; i < 3; i++) {
      EXPECT_FALSE(Check("Thing")) << "call " << i;
   }
   zek_Status status = 0;
   EXPECT_TRUE(Check("Thing", &status));
   EXPECT_EQ(status, kInjected);
   status = 0;
   EXPECT_TRUE(Check("Thing", &status));
   EXPECT_EQ(status, kInjected);
   EXPECT_FALSE(Check("Thing"));
   EXPECT_FALSE(Check("Thing"));
}

TEST_F(SimFaults, AnotherFaultStaysArmedWhenOneIsUsedUp) {
   sim::FaultCall("First", kInjected);
   sim::FaultCall("Second", kInjected + 1, 1, 2);
   EXPECT_TRUE(Check("First"));
   EXPECT_FALSE(Check("First"));
   EXPECT_FALSE(Check("Second"));
   EXPECT_FALSE(Check("Second"));
   zek_Status status = 0;
   EXPECT_TRUE(Check("Second", &status));
   EXPECT_EQ(status, kInjected + 1);
   EXPECT_FALSE(Check("Second"));
   /* Everything used up: a new arm still takes. */
   sim::FaultCall("First", kInjected);
   EXPECT_TRUE(Check("First"));
}

TEST_F(SimFaults, ArmingTheSameNameAgainReplacesThePlan) {
   sim::FaultCall("Thing", kInjected, 5);
   sim::FaultCall("Thing", kInjected + 2, 1);
   zek_Status status = 0;
   EXPECT_TRUE(Check("Thing", &status));
   EXPECT_EQ(status, kInjected + 2);
   EXPECT_FALSE(Check("Thing"));
}

TEST_F(SimFaults, CountZeroFaultClearAndResetDisarm) {
   sim::FaultCall("Thing", kInjected, 3);
   sim::FaultCall("Thing", kInjected, 0);
   EXPECT_FALSE(Check("Thing"));

   sim::FaultCall("Thing", kInjected, 3);
   sim::FaultCall("Other", kInjected, 3);
   sim::FaultCall("Other", kInjected, 0);
   EXPECT_FALSE(Check("Other"));
   EXPECT_TRUE(Check("Thing"));

   sim::FaultClear();
   EXPECT_FALSE(Check("Thing"));

   sim::FaultCall("Thing", kInjected, 3);
   sim::Reset();
   EXPECT_FALSE(Check("Thing"));

   sim::FaultCall("Thing", kInjected);
   EXPECT_TRUE(Check("Thing"));
}

TEST_F(SimFaults, PlatformCallsFailAsArmedAfterManyCalls) {
   for (int i = 0; i < 100; i++) {
      zek_HeapID heap = nullptr;
      ASSERT_EQ(CreateHeap(&heap), ZEK_OK);
      zek_HeapDestroy(heap);
   }
   sim::FaultCall("HeapCreate", kInjected, 1, 1);
   zek_HeapID first = nullptr, second = nullptr, third = nullptr;
   EXPECT_EQ(CreateHeap(&first), ZEK_OK);
   EXPECT_EQ(CreateHeap(&second), kInjected);
   EXPECT_EQ(second, nullptr);
   EXPECT_EQ(CreateHeap(&third), ZEK_OK);
   zek_HeapDestroy(first);
   zek_HeapDestroy(third);
}

TEST_F(SimFaults, AllocFaultsStillApplyWithNoCallFaultArmed) {
   zek_HeapID heap = nullptr;
   ASSERT_EQ(CreateHeap(&heap), ZEK_OK);
   sim::FaultAlloc(2);
   void *first = zek_HeapAllocWithRA(heap, 8, nullptr);
   EXPECT_NE(first, nullptr);
   EXPECT_EQ(zek_HeapAllocWithRA(heap, 8, nullptr), nullptr);
   void *third = zek_HeapAllocWithRA(heap, 8, nullptr);
   EXPECT_NE(third, nullptr);
   zek_HeapFree(heap, first);
   zek_HeapFree(heap, third);
   zek_HeapDestroy(heap);
}

TEST_F(SimFaults, ThreadsShareOneCountAndOneAfter) {
   constexpr int kThreads = 4;
   constexpr int kCallsEach = 2000;
   sim::FaultCall("Thing", kInjected, 50, 300);
   std::atomic<int> failed{0}, passed{0};
   std::vector<std::thread> threads;
   for (int t = 0; t < kThreads; t++) {
      threads.emplace_back([&] {
         for (int i = 0; i < kCallsEach; i++) {
            zek_Status status = 0;
            if (sim::FaultCheck("Thing", &status)) {
               EXPECT_EQ(status, kInjected);
               failed++;
            } else {
               passed++;
            }
         }
      });
   }
   for (std::thread &t : threads) t.join();
   EXPECT_EQ(failed.load(), 50);
   EXPECT_EQ(passed.load(), kThreads * kCallsEach - 50);
   EXPECT_FALSE(Check("Thing"));
}

TEST_F(SimFaults, AnArmWhileThreadsCallIsSeenExactlyCountTimes) {
   constexpr int kThreads = 2;
   std::atomic<bool> stop{false};
   std::atomic<int> failed{0};
   std::atomic<int> started{0};
   std::vector<std::thread> threads;
   for (int t = 0; t < kThreads; t++) {
      threads.emplace_back([&] {
         started++;
         while (!stop.load()) {
            zek_Status status = 0;
            if (sim::FaultCheck("Thing", &status)) failed++;
         }
      });
   }
   while (started.load() < kThreads) std::this_thread::yield();
   std::this_thread::sleep_for(5ms);
   sim::FaultCall("Thing", kInjected, 3);
   auto deadline = std::chrono::steady_clock::now() + 10s;
   while (failed.load() < 3 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
   }
   /* Used up: the callers keep going and see no more. */
   std::this_thread::sleep_for(5ms);
   stop = true;
   for (std::thread &t : threads) t.join();
   EXPECT_EQ(failed.load(), 3);
}

TEST_F(SimFaults, CountedCallsAreEveryCallByNameFailedOrNotFromTheStartOfCounting) {
   EXPECT_FALSE(Check("Before"));
   sim::CountCalls(true);
   sim::FaultCall("Thing", kInjected, 1, 1);
   EXPECT_FALSE(Check("Thing"));
   EXPECT_TRUE(Check("Thing"));
   EXPECT_FALSE(Check("Thing"));
   EXPECT_FALSE(Check("Other"));
   sim::FaultClear(); /* clears faults, not the counting */
   EXPECT_FALSE(Check("Other"));
   using Counts = std::vector<std::pair<std::string, uint64_t>>;
   EXPECT_EQ(sim::CallCounts(), (Counts{{"Other", 2}, {"Thing", 3}}));
   sim::CountCalls(false);
   EXPECT_FALSE(Check("Thing"));
   EXPECT_EQ(sim::CallCounts(), (Counts{{"Other", 2}, {"Thing", 3}}));
   sim::CountCalls(true);
   EXPECT_EQ(sim::CallCounts(), Counts{}) << "counting again starts from zero";
   sim::CountCalls(false);
}

TEST_F(SimFaults, AllocationsTriedCountFailedOnesInTheNumberingOfFaultAlloc) {
   zek_HeapID heap = nullptr;
   ASSERT_EQ(CreateHeap(&heap), ZEK_OK);
   uint64_t before = sim::AllocationsTried();
   sim::FaultAlloc(2);
   void *first = zek_HeapAllocWithRA(heap, 8, nullptr);
   EXPECT_NE(first, nullptr);
   EXPECT_EQ(zek_HeapAllocWithRA(heap, 8, nullptr), nullptr);
   void *third = zek_HeapAllocWithRA(heap, 8, nullptr);
   EXPECT_NE(third, nullptr);
   EXPECT_EQ(sim::AllocationsTried() - before, 3u);
   zek_HeapFree(heap, first);
   zek_HeapFree(heap, third);
   zek_HeapDestroy(heap);
}

} // namespace
