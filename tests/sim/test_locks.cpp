/*
 * Tests of the simulated host's locks: rank checking, held modes, reader and
 * writer semantics across threads, misuse reports and counters.
 */
#include <atomic>
#include <chrono>
#include <thread>

#include "sim_spinlock.h"
#include "sim_test_fixture.h"

namespace {

using namespace std::chrono_literals;

class SimLocks : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      sim::SetLockFailFast(true);
      domain_ = MakeDomain("vigil");
   }
   zek_LockDomainID MakeDomain(const char *name) {
      zek_Name n;
      EXPECT_EQ(zek_NameInitialize(&n, name), ZEK_OK);
      zek_LockDomainID d = nullptr;
      EXPECT_EQ(zek_LockDomainCreate(1, nullptr, &n, &d), ZEK_OK);
      return d;
   }
   zek_SpinlockHandle Make(const char *name, uint32_t kind, uint32_t rank,
                           zek_LockDomainID domain = nullptr) {
      zek_SpinlockProps props{};
      EXPECT_EQ(zek_NameInitialize(&props.name, name), ZEK_OK);
      props.kind = kind;
      props.domain = domain != nullptr ? domain : domain_;
      props.rank = rank;
      zek_SpinlockHandle lock = nullptr;
      EXPECT_EQ(zek_SpinlockCreate(&props, &lock), ZEK_OK);
      return lock;
   }
   zek_LockDomainID domain_ = nullptr;
};

TEST_F(SimLocks, TakingHigherRankWhileHoldingLowerIsAllowed) {
   zek_SpinlockHandle low = Make("vigil.low", ZEK_SPINLOCK_ORDINARY, 1);
   zek_SpinlockHandle high = Make("vigil.high", ZEK_SPINLOCK_RW, 2);
   zek_SpinlockLock(low);
   zek_SpinlockWriteLock(high);
   EXPECT_EQ(sim::LocksHeldByThread(), 2u);
   zek_SpinlockWriteUnlock(high);
   zek_SpinlockUnlock(low);
   EXPECT_TRUE(sim::LockViolations().empty());
   EXPECT_EQ(sim::LocksHeldByThread(), 0u);
}

TEST_F(SimLocks, TakingEqualRankWhileHoldingIsRecordedAsViolation) {
   zek_SpinlockHandle a = Make("vigil.a", ZEK_SPINLOCK_ORDINARY, 3);
   zek_SpinlockHandle b = Make("vigil.b", ZEK_SPINLOCK_ORDINARY, 3);
   zek_SpinlockLock(a);
   zek_SpinlockLock(b);
   const std::string text =
      "lock order violation: taking vigil.b (rank 3) while holding vigil.a (rank 3)";
   EXPECT_EQ(sim::LockViolations(), std::vector<std::string>{text});
   EXPECT_EQ(simtest::TakeFailures(), std::vector<std::string>{text});
   zek_SpinlockUnlock(b);
   zek_SpinlockUnlock(a);
}

TEST_F(SimLocks, TakingLowerRankWhileHoldingIsRecordedAsViolation) {
   zek_SpinlockHandle agingQ = Make("vigil.agingQ", ZEK_SPINLOCK_ORDINARY, 4);
   zek_SpinlockHandle ratelimit = Make("vigil.ratelimit", ZEK_SPINLOCK_RW, 3);
   zek_SpinlockLock(agingQ);
   zek_SpinlockReadLock(ratelimit);
   const std::string text = "lock order violation: taking vigil.ratelimit "
                            "(rank 3) while holding vigil.agingQ (rank 4)";
   EXPECT_EQ(sim::LockViolations(), std::vector<std::string>{text});
   EXPECT_EQ(simtest::TakeFailures(), std::vector<std::string>{text});
   zek_SpinlockReadUnlock(ratelimit);
   zek_SpinlockUnlock(agingQ);
}

TEST_F(SimLocks, ViolationStillTakesTheLock) {
   zek_SpinlockHandle high = Make("vigil.high", ZEK_SPINLOCK_ORDINARY, 5);
   zek_SpinlockHandle low = Make("vigil.low", ZEK_SPINLOCK_RW, 1);
   zek_SpinlockLock(high);
   zek_SpinlockWriteLock(low);
   simtest::TakeFailures();
   EXPECT_EQ(sim::LockHeldBy(low), sim::LockMode::Write);
   EXPECT_EQ(sim::GetLockCounts(low).writes, 1u);
   zek_SpinlockWriteUnlock(low);
   zek_SpinlockUnlock(high);
}

TEST_F(SimLocks, ViolationNamesTheHighestRankedHeldLock) {
   zek_SpinlockHandle r2 = Make("vigil.r2", ZEK_SPINLOCK_ORDINARY, 2);
   zek_SpinlockHandle r5 = Make("vigil.r5", ZEK_SPINLOCK_ORDINARY, 5);
   zek_SpinlockHandle r1 = Make("vigil.r1", ZEK_SPINLOCK_ORDINARY, 1);
   zek_SpinlockLock(r2);
   zek_SpinlockLock(r5);
   zek_SpinlockLock(r1);
   EXPECT_EQ(sim::LockViolations(),
             std::vector<std::string>{"lock order violation: taking vigil.r1 "
                                      "(rank 1) while holding vigil.r5 (rank 5)"});
   EXPECT_EQ(simtest::TakeFailures().size(), 1u);
   zek_SpinlockUnlock(r1);
   zek_SpinlockUnlock(r5);
   zek_SpinlockUnlock(r2);
}

TEST_F(SimLocks, ViolationWithFailFastOffIsRecordedButNotReported) {
   sim::SetLockFailFast(false);
   zek_SpinlockHandle high = Make("vigil.high", ZEK_SPINLOCK_ORDINARY, 2);
   zek_SpinlockHandle low = Make("vigil.low", ZEK_SPINLOCK_ORDINARY, 1);
   zek_SpinlockLock(high);
   zek_SpinlockLock(low);
   zek_SpinlockUnlock(low);
   zek_SpinlockUnlock(high);
   EXPECT_EQ(sim::LockViolations().size(), 1u);
   EXPECT_TRUE(simtest::TakeFailures().empty());
}

TEST_F(SimLocks, LocksInDifferentDomainsDoNotConflict) {
   zek_LockDomainID other = MakeDomain("other");
   zek_SpinlockHandle high = Make("vigil.high", ZEK_SPINLOCK_ORDINARY, 7);
   zek_SpinlockHandle low = Make("other.low", ZEK_SPINLOCK_ORDINARY, 1, other);
   zek_SpinlockLock(high);
   zek_SpinlockLock(low);
   zek_SpinlockUnlock(low);
   zek_SpinlockUnlock(high);
   EXPECT_TRUE(sim::LockViolations().empty());
   zek_LockDomainDestroy(other);
}

TEST_F(SimLocks, HeldModeFollowsTakeAndRelease) {
   zek_SpinlockHandle rw = Make("vigil.rw", ZEK_SPINLOCK_RW, 1);
   zek_SpinlockHandle ord = Make("vigil.ord", ZEK_SPINLOCK_ORDINARY, 2);
   EXPECT_EQ(sim::LockHeldBy(rw), sim::LockMode::None);
   zek_SpinlockReadLock(rw);
   EXPECT_EQ(sim::LockHeldBy(rw), sim::LockMode::Read);
   zek_SpinlockLock(ord);
   EXPECT_EQ(sim::LockHeldBy(ord), sim::LockMode::Exclusive);
   EXPECT_EQ(sim::LocksHeldByThread(), 2u);
   zek_SpinlockUnlock(ord);
   zek_SpinlockReadUnlock(rw);
   EXPECT_EQ(sim::LockHeldBy(rw), sim::LockMode::None);
   zek_SpinlockWriteLock(rw);
   EXPECT_EQ(sim::LockHeldBy(rw), sim::LockMode::Write);
   zek_SpinlockWriteUnlock(rw);
   EXPECT_EQ(sim::LockHeldBy(rw), sim::LockMode::None);
   EXPECT_EQ(sim::LocksHeldByThread(), 0u);
   EXPECT_EQ(sim::LockName(rw), "vigil.rw");
}

TEST_F(SimLocks, HeldModeIsPerThread) {
   zek_SpinlockHandle rw = Make("vigil.rw", ZEK_SPINLOCK_RW, 1);
   zek_SpinlockReadLock(rw);
   sim::LockMode seen = sim::LockMode::Exclusive;
   uint32_t held = 99;
   std::thread([&] {
      seen = sim::LockHeldBy(rw);
      held = sim::LocksHeldByThread();
   }).join();
   EXPECT_EQ(seen, sim::LockMode::None);
   EXPECT_EQ(held, 0u);
   zek_SpinlockReadUnlock(rw);
}

TEST_F(SimLocks, ReadersHoldTheLockTogetherAcrossThreads) {
   zek_SpinlockHandle rw = Make("vigil.rw", ZEK_SPINLOCK_RW, 1);
   std::atomic<int> inside{0};
   std::atomic<int> sawBoth{0};
   auto reader = [&] {
      zek_SpinlockReadLock(rw);
      inside++;
      auto deadline = std::chrono::steady_clock::now() + 5s;
      while (inside.load() < 2 && std::chrono::steady_clock::now() < deadline) {
         std::this_thread::yield();
      }
      if (inside.load() == 2) sawBoth++;
      zek_SpinlockReadUnlock(rw);
   };
   std::thread t1(reader), t2(reader);
   t1.join();
   t2.join();
   EXPECT_EQ(sawBoth.load(), 2);
   EXPECT_EQ(sim::GetLockCounts(rw).reads, 2u);
}

TEST_F(SimLocks, WriterExcludesReaders) {
   zek_SpinlockHandle rw = Make("vigil.rw", ZEK_SPINLOCK_RW, 1);
   std::atomic<bool> readerIn{false};
   zek_SpinlockWriteLock(rw);
   std::thread reader([&] {
      zek_SpinlockReadLock(rw);
      readerIn = true;
      zek_SpinlockReadUnlock(rw);
   });
   std::this_thread::sleep_for(50ms);
   EXPECT_FALSE(readerIn.load());
   zek_SpinlockWriteUnlock(rw);
   reader.join();
   EXPECT_TRUE(readerIn.load());
}

TEST_F(SimLocks, ReaderExcludesWriter) {
   zek_SpinlockHandle rw = Make("vigil.rw", ZEK_SPINLOCK_RW, 1);
   std::atomic<bool> writerIn{false};
   zek_SpinlockReadLock(rw);
   std::thread writer([&] {
      zek_SpinlockWriteLock(rw);
      writerIn = true;
      zek_SpinlockWriteUnlock(rw);
   });
   std::this_thread::sleep_for(50ms);
   EXPECT_FALSE(writerIn.load());
   zek_SpinlockReadUnlock(rw);
   writer.join();
   EXPECT_TRUE(writerIn.load());
}

TEST_F(SimLocks, OrdinaryLockIsExclusiveAcrossThreads) {
   zek_SpinlockHandle lock = Make("vigil.ord", ZEK_SPINLOCK_ORDINARY, 1);
   int counter = 0;
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; t++) {
      threads.emplace_back([&] {
         for (int i = 0; i < 1000; i++) {
            zek_SpinlockLock(lock);
            counter++;
            zek_SpinlockUnlock(lock);
         }
      });
   }
   for (std::thread &t : threads) t.join();
   EXPECT_EQ(counter, 4000);
   EXPECT_EQ(sim::GetLockCounts(lock).exclusives, 4000u);
}

TEST_F(SimLocks, CountersTallyReadsWritesAndExclusives) {
   zek_SpinlockHandle rw = Make("vigil.rw", ZEK_SPINLOCK_RW, 1);
   zek_SpinlockHandle ord = Make("vigil.ord", ZEK_SPINLOCK_ORDINARY, 2);
   for (int i = 0; i < 3; i++) {
      zek_SpinlockReadLock(rw);
      zek_SpinlockReadUnlock(rw);
   }
   zek_SpinlockWriteLock(rw);
   zek_SpinlockWriteUnlock(rw);
   zek_SpinlockLock(ord);
   zek_SpinlockUnlock(ord);
   sim::LockCounts c = sim::GetLockCounts(rw);
   EXPECT_EQ(c.reads, 3u);
   EXPECT_EQ(c.writes, 1u);
   EXPECT_EQ(c.exclusives, 0u);
   c = sim::GetLockCounts(ord);
   EXPECT_EQ(c.reads, 0u);
   EXPECT_EQ(c.writes, 0u);
   EXPECT_EQ(c.exclusives, 1u);
}

TEST_F(SimLocks, UnlockOfLockNotHeldIsReported) {
   zek_SpinlockHandle lock = Make("vigil.a", ZEK_SPINLOCK_ORDINARY, 1);
   zek_SpinlockUnlock(lock);
   EXPECT_EQ(simtest::TakeFailures(),
             std::vector<std::string>{"unlock of vigil.a, not held by this thread"});
}

TEST_F(SimLocks, UnlockInTheWrongModeIsReportedAndReleasesTheLock) {
   zek_SpinlockHandle rw = Make("vigil.rw", ZEK_SPINLOCK_RW, 1);
   zek_SpinlockWriteLock(rw);
   zek_SpinlockReadUnlock(rw);
   EXPECT_EQ(simtest::TakeFailures(),
             std::vector<std::string>{"read unlock of vigil.rw, held in write mode"});
   EXPECT_EQ(sim::LockHeldBy(rw), sim::LockMode::None);
   zek_SpinlockWriteLock(rw); /* would hang if the lock were still taken */
   zek_SpinlockWriteUnlock(rw);
}

TEST_F(SimLocks, RetakingAHeldLockIsReportedWithoutDeadlock) {
   sim::SetLockFailFast(false);
   zek_SpinlockHandle lock = Make("vigil.a", ZEK_SPINLOCK_ORDINARY, 2);
   zek_SpinlockLock(lock);
   zek_SpinlockLock(lock);
   const std::string text =
      "lock order violation: taking vigil.a (rank 2) while holding vigil.a (rank 2)";
   EXPECT_EQ(sim::LockViolations(), std::vector<std::string>{text});
   EXPECT_EQ(simtest::TakeFailures(),
             std::vector<std::string>{text + " (the same lock: deadlock)"});
   zek_SpinlockUnlock(lock);
   zek_SpinlockUnlock(lock);
   EXPECT_EQ(sim::LocksHeldByThread(), 0u);
}

TEST_F(SimLocks, DestroyOfAHeldLockIsReported) {
   zek_SpinlockHandle lock = Make("vigil.a", ZEK_SPINLOCK_ORDINARY, 1);
   zek_SpinlockLock(lock);
   zek_SpinlockDestroy(lock);
   EXPECT_EQ(simtest::TakeFailures(),
             std::vector<std::string>{"destroy of vigil.a while it is held"});
   EXPECT_EQ(sim::LiveLocks(), 0u);
   zek_SpinlockUnlock(lock);
}

TEST_F(SimLocks, LiveLocksCountsCreatedAndNotDestroyed) {
   EXPECT_EQ(sim::LiveLocks(), 0u);
   zek_SpinlockHandle a = Make("vigil.a", ZEK_SPINLOCK_ORDINARY, 1);
   zek_SpinlockHandle b = Make("vigil.b", ZEK_SPINLOCK_RW, 2);
   EXPECT_EQ(sim::LiveLocks(), 2u);
   zek_SpinlockDestroy(a);
   EXPECT_EQ(sim::LiveLocks(), 1u);
   zek_SpinlockDestroy(b);
   EXPECT_EQ(sim::LiveLocks(), 0u);
   Make("vigil.c", ZEK_SPINLOCK_ORDINARY, 1);
   sim::Reset();
   EXPECT_EQ(sim::LiveLocks(), 0u);
}

TEST_F(SimLocks, CreateRejectsAnUnknownKind) {
   zek_SpinlockProps props{};
   ASSERT_EQ(zek_NameInitialize(&props.name, "vigil.bad"), ZEK_OK);
   props.kind = 3;
   zek_SpinlockHandle lock = nullptr;
   EXPECT_EQ(zek_SpinlockCreate(&props, &lock), 0xbad0007u);
   EXPECT_EQ(lock, nullptr);
}

TEST_F(SimLocks, FaultCallOnSpinlockCreateReturnsTheStatus) {
   sim::FaultCall("SpinlockCreate", 0xbad0014u, 1, 1);
   zek_SpinlockProps props{};
   ASSERT_EQ(zek_NameInitialize(&props.name, "vigil.a"), ZEK_OK);
   props.kind = ZEK_SPINLOCK_ORDINARY;
   zek_SpinlockHandle first = nullptr, second = nullptr;
   EXPECT_EQ(zek_SpinlockCreate(&props, &first), ZEK_OK);
   EXPECT_EQ(zek_SpinlockCreate(&props, &second), 0xbad0014u);
   EXPECT_EQ(second, nullptr);
   EXPECT_EQ(sim::LiveLocks(), 1u);
}

TEST_F(SimLocks, ResetForgetsLocksHeldBeforeIt) {
   zek_SpinlockHandle lock = Make("vigil.a", ZEK_SPINLOCK_ORDINARY, 1);
   zek_SpinlockLock(lock);
   sim::Reset();
   EXPECT_EQ(sim::LocksHeldByThread(), 0u);
   EXPECT_TRUE(sim::LockViolations().empty());
}


/* The bare reader-writer spinlock that the host's spinlocks are in a build
 * without debug checks, tested here directly. */

TEST(SimRwSpinlock, WritersExcludeEachOther) {
   sim::RwSpinlock lock;
   int counter = 0;
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; t++) {
      threads.emplace_back([&] {
         for (int i = 0; i < 20000; i++) {
            lock.WriteLock();
            counter++;
            lock.WriteUnlock();
         }
      });
   }
   for (std::thread &t : threads) t.join();
   EXPECT_EQ(counter, 80000);
   EXPECT_FALSE(lock.IsHeld());
}

TEST(SimRwSpinlock, WriterExcludesReaders) {
   sim::RwSpinlock lock;
   std::atomic<bool> readerIn{false};
   lock.WriteLock();
   EXPECT_TRUE(lock.IsHeld());
   std::thread reader([&] {
      lock.ReadLock();
      readerIn = true;
      lock.ReadUnlock();
   });
   std::this_thread::sleep_for(50ms);
   EXPECT_FALSE(readerIn.load());
   lock.WriteUnlock();
   reader.join();
   EXPECT_TRUE(readerIn.load());
   EXPECT_FALSE(lock.IsHeld());
}

TEST(SimRwSpinlock, ReaderExcludesWriter) {
   sim::RwSpinlock lock;
   std::atomic<bool> writerIn{false};
   lock.ReadLock();
   std::thread writer([&] {
      lock.WriteLock();
      writerIn = true;
      lock.WriteUnlock();
   });
   std::this_thread::sleep_for(50ms);
   EXPECT_FALSE(writerIn.load());
   lock.ReadUnlock();
   writer.join();
   EXPECT_TRUE(writerIn.load());
   EXPECT_FALSE(lock.IsHeld());
}

TEST(SimRwSpinlock, ReadersHoldTheLockTogether) {
   sim::RwSpinlock lock;
   std::atomic<int> inside{0};
   std::atomic<int> sawBoth{0};
   auto reader = [&] {
      lock.ReadLock();
      inside++;
      auto deadline = std::chrono::steady_clock::now() + 5s;
      while (inside.load() < 2 && std::chrono::steady_clock::now() < deadline) {
         std::this_thread::yield();
      }
      if (inside.load() == 2) sawBoth++;
      lock.ReadUnlock();
   };
   std::thread t1(reader), t2(reader);
   t1.join();
   t2.join();
   EXPECT_EQ(sawBoth.load(), 2);
}

TEST(SimRwSpinlock, AWaitingWriterHoldsBackNewReaders) {
   sim::RwSpinlock lock;
   std::atomic<bool> writerIn{false}, lateReaderIn{false};
   lock.ReadLock();
   std::thread writer([&] {
      lock.WriteLock();
      writerIn = true;
      /* The late reader must still be out: it came after this writer. */
      EXPECT_FALSE(lateReaderIn.load());
      lock.WriteUnlock();
   });
   auto deadline = std::chrono::steady_clock::now() + 5s;
   while (!lock.WriterWaiting() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
   }
   EXPECT_TRUE(lock.WriterWaiting());
   std::thread lateReader([&] {
      lock.ReadLock();
      lateReaderIn = true;
      lock.ReadUnlock();
   });
   std::this_thread::sleep_for(50ms);
   EXPECT_FALSE(writerIn.load());
   EXPECT_FALSE(lateReaderIn.load());
   lock.ReadUnlock();
   writer.join();
   lateReader.join();
   EXPECT_TRUE(writerIn.load());
   EXPECT_TRUE(lateReaderIn.load());
}

} // namespace
