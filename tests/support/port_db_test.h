/*
 * What the fixtures of the IPv4 and IPv6 database tests share: one filter
 * on port 0x10 of vs0, frames sent as one-frame batches, the filter's lock
 * counts, and the portset messages delivered, each checked for where it
 * went.
 */
#ifndef PORT_DB_TEST_H
#define PORT_DB_TEST_H

#include <functional>
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
};

#endif /* PORT_DB_TEST_H */
