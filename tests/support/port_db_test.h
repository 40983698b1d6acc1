/*
 * What the fixtures of the IPv4 and IPv6 database tests share: one filter
 * on port 0x10 of vs0, frames sent as one-frame batches, the filter's lock
 * counts, and the portset messages delivered, each checked for where it
 * went.
 */
#ifndef PORT_DB_TEST_H
#define PORT_DB_TEST_H

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "test_frames.h"
#include "vigil_test.h"

class PortDbTest : public VigilTest {
protected:
   static constexpr u32 kDbPort = 0x10;
   static constexpr u64 kDbMsgFlags = 0x8000000000000ull;

   VigilFilter *filter = nullptr;

   void WithWriteLock(const std::function<void()> &fn) {
      VigilFilter *locked = Vigil_LockFilter(kDbPort, true);
      EXPECT_EQ(locked, filter);
      fn();
      Vigil_UnlockFilter(locked, true);
   }

   /* One frame as its own batch; its verdict. */
   std::string Tx1(const frames::Bytes &bytes, const sim::FrameOptions &opts = {}) {
      std::vector<std::string> verdicts = Tx(kDbPort, {frames::Make(bytes, opts)});
      return verdicts.size() == 1 ? verdicts[0] : "none";
   }
   std::string Rx1(const frames::Bytes &bytes, const sim::FrameOptions &opts = {}) {
      std::vector<std::string> verdicts = Rx(kDbPort, {frames::Make(bytes, opts)});
      return verdicts.size() == 1 ? verdicts[0] : "none";
   }

   sim::LockCounts Locks() { return sim::GetLockCounts(filter->configLock); }

   std::vector<sim::PortsetMessage> TakeMessages() {
      sim::WaitIdle(5.0);
      return sim::TakePortsetMessages();
   }

   /* The bytes of the messages delivered since the last look, each checked
    * for its portset, port, flags and name. */
   std::vector<frames::Bytes> MessageBytes() {
      std::vector<frames::Bytes> out;
      for (const sim::PortsetMessage &msg : TakeMessages()) {
         EXPECT_EQ(msg.portset, "vs0");
         EXPECT_EQ(msg.portID, kDbPort);
         EXPECT_EQ(msg.flags, kDbMsgFlags);
         EXPECT_EQ(msg.name, std::string((const char *)msg.bytes.data()));
         out.push_back(msg.bytes);
      }
      return out;
   }

   /* What each database's fixture says of itself: the invariant checker's
    * findings, emptying it, and the module allocations it holds. */
   virtual std::vector<std::string> Violations() = 0;
   virtual void Restart() = 0;
   virtual u64 DatabaseAllocations() = 0;

   /* Live module allocations are the filter's own and the database's:
    * nothing leaked, no frame copy or task left over. */
   void ExpectNoLeak() {
      sim::WaitIdle(5.0);
      EXPECT_EQ(sim::GetHeapStats(heapID).allocations, baseAllocs_ + DatabaseAllocations());
   }

   u64 TotalAllocs() { return sim::GetHeapStats(heapID).totalAllocs; }

   /* Runs a path once as it is to count its module allocations, then once
    * for each of them with exactly that allocation failing (setup, then the
    * path with the fault armed, then `check(n)`), then once more with no
    * failure, which must succeed as the first run did (`check(0)`).  Every
    * run is followed by the checks that nothing leaked and the database is
    * sound. */
   void ForEachAllocFailure(u32 expectedAllocs, const std::function<void()> &setup,
                            const std::function<void()> &path,
                            const std::function<void(u32 n)> &check) {
      Restart();
      setup();
      u64 before = TotalAllocs();
      path();
      sim::WaitIdle(5.0);
      u64 allocs = TotalAllocs() - before;
      ASSERT_EQ(allocs, expectedAllocs) << "allocations of the path";
      check(0);
      ExpectNoLeak();
      EXPECT_EQ(Violations(), std::vector<std::string>());
      for (u32 n = 1; n <= allocs + 1; n++) {
         SCOPED_TRACE("allocation " + std::to_string(n) + " fails");
         Restart();
         setup();
         sim::FaultAlloc(n);
         path();
         sim::FaultAlloc(0);
         sim::WaitIdle(5.0);
         check(n > allocs ? 0 : n);
         ExpectNoLeak();
         EXPECT_EQ(Violations(), std::vector<std::string>());
      }
   }

   u64 baseAllocs_ = 0; /* module allocations once the fixture is set up */
};

#endif /* PORT_DB_TEST_H */
