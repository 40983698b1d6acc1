/*
 * The throttled log: five messages per three-second window, shared by all,
 * and the lines that frames cause going through it.
 */
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "test_frames.h"
#include "vigil_locks.h"
#include "vigil_test.h"
#include "vigil_throttle.h"
#include "vigil_workers.h"

class LogThrottleTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      /* The fixture's plain throttled handle gives way to the real one. */
      zek_LogUnregister(vigilThrottledLogHandle);
      vigilThrottledLogHandle = nullptr;
      memset(&vigilThrottleArg, 0, sizeof vigilThrottleArg);
      ASSERT_EQ(VigilLogThrottleInit(), ZEK_OK);
   }
   void TearDown() override {
      sim::SetTracing(false);
      VigilLogThrottleCleanup();
      EXPECT_EQ(vigilThrottledLogHandle, nullptr);
      EXPECT_EQ(vigilThrottleSpinLock, VIGIL_NO_LOCK);
      /* The fixture unregisters a handle of its own. */
      zek_LogProps props = {};
      zek_NameInitialize(&props.name, "vigil.throttle");
      zek_LogRegister(&props, &vigilThrottledLogHandle);
      VigilTest::TearDown();
   }
   int Offer() { return VigilLogThrottleCustom(&vigilThrottleArg); }
};

TEST_F(LogThrottleTest, InitRegistersTheHandleAndARankSixLock) {
   EXPECT_TRUE(sim::LogHandleExists("vigil.throttle"));
   EXPECT_EQ(sim::LockName(vigilThrottleSpinLock), "vigil.logThrottle");
}

TEST_F(LogThrottleTest, SixMessagesInOneSecondPassFiveAndSetSuppressed) {
   sim::SetTime(2000.0);
   for (int i = 0; i < 5; i++) {
      EXPECT_EQ(Offer(), 1) << "message " << i + 1;
   }
   EXPECT_EQ(vigilThrottleArg.suppressed, 0);
   EXPECT_EQ(Offer(), 0);
   EXPECT_EQ(vigilThrottleArg.suppressed, 1);
   EXPECT_EQ(vigilThrottleArg.count, 5u);
   EXPECT_EQ(vigilThrottleArg.windowStart, 2000u);
}

TEST_F(LogThrottleTest, SeventhMessageInTheWindowIsHeldWithoutLookingAtCount) {
   sim::SetTime(2000.0);
   for (int i = 0; i < 6; i++) {
      Offer();
   }
   vigilThrottleArg.count = 0; /* would pass if count were consulted */
   EXPECT_EQ(Offer(), 0);
   EXPECT_EQ(vigilThrottleArg.count, 0u);
}

TEST_F(LogThrottleTest, MessageThreeSecondsLaterOpensANewWindowAsItsFirst) {
   sim::SetTime(2000.0);
   for (int i = 0; i < 6; i++) {
      Offer();
   }
   sim::Advance(3.0);
   EXPECT_EQ(Offer(), 1);
   EXPECT_EQ(vigilThrottleArg.windowStart, 2003u);
   EXPECT_EQ(vigilThrottleArg.count, 1u);
   EXPECT_EQ(vigilThrottleArg.suppressed, 0);
}

TEST_F(LogThrottleTest, MessageAtWindowStartPlusTwoSecondsStillBelongsToTheWindow) {
   sim::SetTime(2000.0);
   for (int i = 0; i < 6; i++) {
      Offer();
   }
   sim::Advance(2.999);
   EXPECT_EQ(Offer(), 0);
   EXPECT_EQ(vigilThrottleArg.windowStart, 2000u);
}

TEST_F(LogThrottleTest, FirstWindowIsTheZeroRecordUnderThreeSeconds) {
   sim::SetTime(1.5);
   for (int i = 0; i < 5; i++) {
      EXPECT_EQ(Offer(), 1) << "message " << i + 1;
   }
   EXPECT_EQ(vigilThrottleArg.windowStart, 0u);
   EXPECT_EQ(Offer(), 0);
}

TEST_F(LogThrottleTest, WrapOfTheSecondsValueIsHarmless) {
   vigilThrottleArg.windowStart = 0xfffffffeu;
   vigilThrottleArg.count = 5;
   vigilThrottleArg.suppressed = 1;
   sim::SetTime(1.0); /* 3 seconds after the window start, modulo 2^32 */
   EXPECT_EQ(Offer(), 1);
   EXPECT_EQ(vigilThrottleArg.windowStart, 1u);
}

TEST_F(LogThrottleTest, ThrottledLinesThroughTheHostFivePassTwoHeldThenANewWindow) {
   sim::SetTime(2000.0);
   sim::TakeLogs();
   for (int i = 0; i < 7; i++) {
      VIGIL_LOG_THROTTLED("Filter %#x message %d", 0x10, i);
   }
   std::vector<sim::LogLine> lines = sim::TakeLogs();
   ASSERT_EQ(lines.size(), 5u);
   EXPECT_EQ(lines[4].text, "Filter 0x10 message 4");
   EXPECT_EQ(lines[4].log, "vigil.throttle");
   EXPECT_EQ(lines[4].level, 2);
   EXPECT_EQ(sim::ThrottledCount(), 2u);
   sim::Advance(3.0);
   VIGIL_LOG_THROTTLED("Filter %#x message %d", 0x10, 7);
   lines = sim::TakeLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].text, "Filter 0x10 message 7");
}

TEST_F(LogThrottleTest, CleanupIsSafeTwice) {
   VigilLogThrottleCleanup();
   VigilLogThrottleCleanup();
   EXPECT_FALSE(sim::LogHandleExists("vigil.throttle"));
}

class LogThrottleInitTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      zek_LogUnregister(vigilThrottledLogHandle);
      vigilThrottledLogHandle = nullptr;
      sim::TakeLogs();
   }
   void TearDown() override {
      zek_LogProps props = {};
      zek_NameInitialize(&props.name, "vigil.throttle");
      zek_LogRegister(&props, &vigilThrottledLogHandle);
      VigilTest::TearDown();
   }
};

TEST_F(LogThrottleInitTest, RegisterFailureIsLoggedAndReturned) {
   sim::FaultCall("LogRegister", VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ(VigilLogThrottleInit(), VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"zek_LogRegister failed: Out of memory"});
   EXPECT_EQ(vigilThrottledLogHandle, nullptr);
}

TEST_F(LogThrottleInitTest, LockFailureUnregistersTheHandle) {
   sim::FaultCall("SpinlockCreate", VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ(VigilLogThrottleInit(), VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"zek_Spinlock create failed: Out of memory"});
   EXPECT_EQ(vigilThrottledLogHandle, nullptr);
   EXPECT_EQ(vigilThrottleSpinLock, VIGIL_NO_LOCK);
   EXPECT_FALSE(sim::LogHandleExists("vigil.throttle"));
}

TEST_F(LogThrottleInitTest, NameFailureIsLoggedAndReturned) {
   sim::FaultCall("NameFormat", VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(VigilLogThrottleInit(), VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"zek_NameFormat failed: Bad parameter"});
}

TEST_F(LogThrottleInitTest, LockNameFailureIsLoggedAndUnregistersTheHandle) {
   u32 locks = sim::LiveLocks();
   sim::FaultCall("NameInitialize", VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(VigilLogThrottleInit(), VIGIL_STATUS_BAD_PARAM);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"zek_NameFormat failed: Bad parameter"});
   EXPECT_EQ(vigilThrottledLogHandle, nullptr);
   EXPECT_EQ(vigilThrottleSpinLock, VIGIL_NO_LOCK);
   EXPECT_FALSE(sim::LogHandleExists("vigil.throttle"));
   EXPECT_EQ(sim::LiveLocks(), locks);
   /* Nothing is left for the clean-up either. */
   VigilLogThrottleCleanup();
   EXPECT_EQ(sim::LiveLocks(), locks);
}

/* ------------------------------------------------ the lock of the record */

TEST_F(LogThrottleTest, ThrottleLockMayBeTakenUnderEveryOtherLockOfTheModule) {
   VigilFilter *filter = AddFilter(0x10);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   sim::SetTime(2000.0);
   /* The switch clients' lock isn't part of this fixture: one of its rank
    * stands in for it. */
   zek_SpinlockHandle fabClient = VigilTestCreateLock("fabClient", ZEK_SPINLOCK_ORDINARY, 2);
   u64 before = sim::GetLockCounts(vigilThrottleSpinLock).exclusives;
   zek_SpinlockWriteLock(filter->configLock);
   zek_SpinlockLock(fabClient);
   zek_SpinlockLock(filter->rateLimitLock);
   zek_SpinlockLock(filterAgingQLock);
   zek_SpinlockLock(taskQLock);
   EXPECT_EQ(Offer(), 1);
   zek_SpinlockUnlock(taskQLock);
   zek_SpinlockUnlock(filterAgingQLock);
   zek_SpinlockUnlock(filter->rateLimitLock);
   zek_SpinlockUnlock(fabClient);
   zek_SpinlockWriteUnlock(filter->configLock);
   EXPECT_EQ(sim::GetLockCounts(vigilThrottleSpinLock).exclusives, before + 1);
   EXPECT_TRUE(sim::LockViolations().empty());

   /* Nothing of a rank above 6 exists in the module; one would be allowed
    * under the throttle lock. */
   zek_SpinlockHandle above = VigilTestCreateLock("above", ZEK_SPINLOCK_ORDINARY, 7);
   zek_SpinlockLock(vigilThrottleSpinLock);
   zek_SpinlockLock(above);
   zek_SpinlockUnlock(above);
   zek_SpinlockUnlock(vigilThrottleSpinLock);
   EXPECT_TRUE(sim::LockViolations().empty());
   zek_SpinlockDestroy(above);
   zek_SpinlockDestroy(fabClient);
}

TEST_F(LogThrottleTest, ThrottleLockIsOfRankSixInTheModulesDomain) {
   ASSERT_TRUE(sim::WaitIdle(5.0));
   zek_SpinlockHandle peer = VigilTestCreateLock("peer", ZEK_SPINLOCK_ORDINARY, 6);
   /* A lock of the same rank and domain held: taking the throttle lock is
    * an order violation, which the host names with both ranks.  Run in a
    * child process of its own, so that the violation stays there. */
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_EXIT(
      {
         sim::SetLockFailFast(false);
         zek_SpinlockLock(peer);
         Offer();
         zek_SpinlockUnlock(peer);
         std::vector<std::string> violations = sim::LockViolations();
         bool named = violations.size() == 1 &&
                      violations[0] == "lock order violation: taking vigil.logThrottle "
                                       "(rank 6) while holding peer (rank 6)";
         if (!named) {
            for (const std::string &text : violations) fprintf(stderr, "%s\n", text.c_str());
         }
         _exit(named ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
   EXPECT_TRUE(sim::LockViolations().empty());
   zek_SpinlockDestroy(peer);
}

/* ------------------------------------------ lines that frames cause */

TEST_F(LogThrottleTest, ReadsPastTheEndOfAFrameLogFiveLinesPerWindow) {
   sim::SetTime(2000.0);
   frames::Bytes bytes(100, 0);
   zek_Pkt *pkt = frames::Make(bytes);
   VigilPacketContext ctx = {};
   ctx.frameMapped = (u8 *)zek_PktFrameMappedPointerGet(pkt);
   ctx.frameLen = 100;
   ctx.mappedLen = 100;
   sim::TakeLogs();
   for (u32 i = 0; i < 7; i++) {
      u32 offset = 90 + i;
      EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 11, &ctx), nullptr);
      EXPECT_EQ(offset, 90 + i);
   }
   std::vector<sim::LogLine> lines = sim::TakeLogs();
   ASSERT_EQ(lines.size(), 5u);
   for (u32 i = 0; i < 5; i++) {
      EXPECT_EQ(lines[i].log, "vigil.throttle");
      EXPECT_EQ(lines[i].level, 2);
      EXPECT_EQ(lines[i].text, "Header offset (" + std::to_string(90 + i) +
                                  " + 11) exceeds framelen: 100");
   }
   EXPECT_EQ(sim::ThrottledCount(), 2u);
   sim::Advance(3.0);
   u32 offset = 95;
   EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 6, &ctx), nullptr);
   lines = sim::TakeLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].text, "Header offset (95 + 6) exceeds framelen: 100");
   EXPECT_EQ(ctx.flatCopy, nullptr);
   zek_PktRelease(pkt);
}

TEST_F(LogThrottleTest, TracedFramesWithoutMetadataLogFiveLinesPerWindowAndAllPass) {
   VigilFilter *filter = AddFilter(0x10);
   /* A feature that leaves a sent unicast frame alone makes the loop look
    * at each frame. */
   filter->featuresEnabled = VIGIL_FEAT_RX_BCAST_LIMIT;
   sim::SetTime(2000.0);
   sim::SetTracing(true);
   sim::FrameOptions traced;
   traced.traceAttr = true;
   std::vector<zek_Pkt *> batch;
   for (int i = 0; i < 7; i++) {
      /* An EtherType that carries no metadata. */
      batch.push_back(frames::Make(
         frames::Ether(frames::kVmMac, "02:00:00:00:00:20", 0x88b5), traced));
   }
   sim::TakeLogs();
   EXPECT_EQ(Tx(0x10, batch), std::vector<std::string>(7, "forward"));
   std::vector<sim::LogLine> lines = sim::TakeLogs();
   ASSERT_EQ(lines.size(), 5u);
   for (const sim::LogLine &line : lines) {
      EXPECT_EQ(line.log, "vigil.throttle");
      EXPECT_EQ(line.level, 2);
      EXPECT_EQ(line.text, "Unable to extract Pathprobe metadata from packet: Not supported");
   }
   EXPECT_EQ(sim::ThrottledCount(), 2u);
}
