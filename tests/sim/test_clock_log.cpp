/*
 * Tests of the simulated host's clock and log.
 */
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "sim_test_fixture.h"

namespace {

using namespace std::chrono_literals;

class SimClock : public simtest::SimFixture {};
class SimLog : public simtest::SimFixture {
 protected:
   zek_LogHandle Register(const char *name, int32_t level,
                          zek_LogThrottle throttle = zek_LogThrottle{}) {
      zek_LogProps props{};
      EXPECT_EQ(zek_NameInitialize(&props.name, name), ZEK_OK);
      props.defaultLevel = level;
      props.throttle = throttle;
      zek_LogHandle handle = nullptr;
      EXPECT_EQ(zek_LogRegister(&props, &handle), ZEK_OK);
      return handle;
   }
};

TEST_F(SimClock, UptimeStartsAtOneThousandSeconds) {
   zek_Uptime up{};
   zek_GetUptime(&up);
   EXPECT_EQ(up.sec, 1000);
   EXPECT_EQ(up.usec, 0);
   EXPECT_EQ(zek_GetTimerCycles(), 1000000000000u);
   EXPECT_EQ(zek_TimerMonotonicCounter(), 1000000000u);
   EXPECT_EQ(sim::Now(), 1000.0);
}

TEST_F(SimClock, RatesAreOneGigahertzCyclesAndOneMegahertzCounter) {
   EXPECT_EQ(zek_TimerCyclesPerSecond(), 1000000000u);
   EXPECT_EQ(zek_GetMonotonicCounterFrequency(), 1000000u);
}

TEST_F(SimClock, VirtualTimeStandsStillUntilAdvanced) {
   uint64_t before = zek_GetTimerCycles();
   std::this_thread::sleep_for(5ms);
   EXPECT_EQ(zek_GetTimerCycles(), before);
}

TEST_F(SimClock, AdvanceByFractionsMovesEveryReadingTogether) {
   sim::Advance(1.5);
   zek_Uptime up{};
   zek_GetUptime(&up);
   EXPECT_EQ(up.sec, 1001);
   EXPECT_EQ(up.usec, 500000);
   EXPECT_EQ(zek_GetTimerCycles(), 1001500000000u);
   EXPECT_EQ(zek_TimerMonotonicCounter(), 1001500000u);
   EXPECT_EQ(sim::Now(), 1001.5);

   sim::Advance(0.000250);
   zek_GetUptime(&up);
   EXPECT_EQ(up.sec, 1001);
   EXPECT_EQ(up.usec, 500250);
   EXPECT_EQ(zek_GetTimerCycles(), 1001500250000u);
   EXPECT_EQ(zek_TimerMonotonicCounter(), 1001500250u);
}

TEST_F(SimClock, ManySmallStepsDoNotDrift) {
   for (int i = 0; i < 1000; i++) sim::Advance(0.001);
   EXPECT_EQ(zek_GetTimerCycles(), 1001000000000u);
   for (int i = 0; i < 10; i++) sim::Advance(0.1);
   EXPECT_EQ(zek_GetTimerCycles(), 1002000000000u);
}

TEST_F(SimClock, SetTimeSetsEveryReading) {
   sim::SetTime(2000.000123);
   zek_Uptime up{};
   zek_GetUptime(&up);
   EXPECT_EQ(up.sec, 2000);
   EXPECT_EQ(up.usec, 123);
   EXPECT_EQ(zek_GetTimerCycles(), 2000000123000u);
   EXPECT_EQ(zek_TimerMonotonicCounter(), 2000000123u);
}

TEST_F(SimClock, ResetPutsTheVirtualClockBackAtOneThousand) {
   sim::Advance(42.0);
   sim::Reset();
   EXPECT_EQ(sim::Now(), 1000.0);
}

TEST_F(SimClock, RealClockStartsAtOneThousandAtTheSwitchAndRuns) {
   sim::Advance(5.0);
   sim::UseVirtualClock(false);
   double start = sim::Now();
   EXPECT_GE(start, 1000.0);
   EXPECT_LT(start, 1001.0);
   std::this_thread::sleep_for(20ms);
   EXPECT_GE(sim::Now(), start + 0.02);
   sim::Advance(10.0);
   EXPECT_GE(sim::Now(), start + 10.02);
   sim::Reset();
   EXPECT_EQ(sim::Now(), 1000.0);
}

/* Readers take no lock: while another thread steps the clock they see each
 * step whole and in order. */
TEST_F(SimClock, ReadersOnOtherThreadsSeeEveryStepWholeAndInOrder) {
   constexpr int kSteps = 2000;
   std::atomic<bool> done{false};
   std::atomic<int> bad{0};
   std::vector<std::thread> readers;
   for (int t = 0; t < 2; t++) {
      readers.emplace_back([&] {
         uint64_t last = 0;
         while (!done.load()) {
            uint64_t cycles = zek_GetTimerCycles();
            if (cycles < last || (cycles - 1000000000000u) % 1000000u != 0 ||
                cycles > 1000000000000u + kSteps * 1000000u) {
               bad++;
            }
            last = cycles;
         }
      });
   }
   for (int i = 0; i < kSteps; i++) sim::Advance(0.001);
   done = true;
   for (std::thread &t : readers) t.join();
   EXPECT_EQ(bad.load(), 0);
   EXPECT_EQ(zek_GetTimerCycles(), 1000000000000u + kSteps * 1000000u);
}

TEST_F(SimClock, RealClockReadersSeeOneSetTimeOrTheOther) {
   sim::UseVirtualClock(false);
   std::atomic<bool> done{false};
   std::atomic<int> bad{0};
   std::thread reader([&] {
      while (!done.load()) {
         double now = sim::Now();
         bool nearLow = now >= 1000.0 && now < 1060.0;
         bool nearHigh = now >= 5000.0 && now < 5060.0;
         if (!nearLow && !nearHigh) bad++;
      }
   });
   for (int i = 0; i < 2000; i++) sim::SetTime(i % 2 == 0 ? 5000.0 : 1000.0);
   done = true;
   reader.join();
   EXPECT_EQ(bad.load(), 0);
}

TEST_F(SimLog, RegisteredHandleHasNameAndDefaultLevel) {
   zek_LogHandle h = Register("vigil", 3);
   EXPECT_STREQ(zek_LogGetName(h), "vigil");
   EXPECT_EQ(zek_LogGetCurrentLogLevel(h), 3);
   EXPECT_TRUE(sim::LogHandleExists("vigil"));
   EXPECT_TRUE(sim::SetLogLevel("vigil", 7));
   EXPECT_EQ(zek_LogGetCurrentLogLevel(h), 7);
   EXPECT_FALSE(sim::SetLogLevel("other", 1));
   zek_LogUnregister(h);
   EXPECT_FALSE(sim::LogHandleExists("vigil"));
}

TEST_F(SimLog, SetLogLevelChangesTheLastRegisteredHandleOfThatName) {
   zek_LogHandle first = Register("vigil", 1);
   zek_LogHandle second = Register("vigil", 1);
   EXPECT_TRUE(sim::SetLogLevel("vigil", 5));
   EXPECT_EQ(zek_LogGetCurrentLogLevel(first), 1);
   EXPECT_EQ(zek_LogGetCurrentLogLevel(second), 5);
}

TEST_F(SimLog, LineIsCapturedWithTheTextAfterTheTag) {
   zek_LogHandle h = Register("vigil", 1);
   zek_LogLevel(h, 2, "FilterPacket", 321, "vigil: [oxa@%u] port %u blocked %s",
                7000u, 5u, "arp");
   std::vector<sim::LogLine> lines = sim::Logs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].log, "vigil");
   EXPECT_EQ(lines[0].func, "FilterPacket");
   EXPECT_EQ(lines[0].lineNo, 321u);
   EXPECT_EQ(lines[0].raw, "vigil: [oxa@7000] port 5 blocked arp");
   EXPECT_EQ(lines[0].text, "port 5 blocked arp");
}

TEST_F(SimLog, LineWithoutATagKeepsTheWholeTextAsText) {
   zek_LogHandle h = Register("vigil", 1);
   zek_LogLevel(h, 1, "F", 1, "plain [oxa@ unterminated");
   zek_LogLevel(h, 1, "F", 2, "no tag at all");
   std::vector<sim::LogLine> lines = sim::Logs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].text, "plain [oxa@ unterminated");
   EXPECT_EQ(lines[1].text, "no tag at all");
   EXPECT_EQ(lines[1].raw, "no tag at all");
}

TEST_F(SimLog, LineWithoutAHandleIsCapturedUnderADash) {
   zek_LogNoLevel(2, "[oxa@%d] boot %s", 7000, "done");
   zek_LogLevel(nullptr, 1, "Ignored", 99, "[oxa@7000] null %d", 1);
   std::vector<sim::LogLine> lines = sim::Logs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].log, "-");
   EXPECT_EQ(lines[0].func, "");
   EXPECT_EQ(lines[0].lineNo, 0u);
   EXPECT_EQ(lines[0].text, "boot done");
   EXPECT_EQ(lines[1].level, 1);
   EXPECT_EQ(lines[1].log, "-");
   EXPECT_EQ(lines[1].func, "");
   EXPECT_EQ(lines[1].lineNo, 0u);
   EXPECT_EQ(lines[1].text, "null 1");
}

int AllowEveryOther(void *arg) {
   int &calls = *static_cast<int *>(arg);
   return calls++ % 2; /* holds back the 1st, 3rd, ... */
}

TEST_F(SimLog, CustomThrottleIsConsultedAndHeldBackLinesAreCounted) {
   int calls = 0;
   zek_LogHandle h =
      Register("vigil", 1, zek_LogThrottle{ZEK_LOG_THROTTLE_CUSTOM, AllowEveryOther, &calls});
   for (int i = 0; i < 5; i++) zek_LogLevel(h, 1, "F", 1, "line %d", i);
   EXPECT_EQ(calls, 5);
   EXPECT_EQ(sim::ThrottledCount(), 3u);
   std::vector<sim::LogLine> lines = sim::Logs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].raw, "line 1");
   EXPECT_EQ(lines[1].raw, "line 3");
}

TEST_F(SimLog, ThrottleOfTypeNoneIsNotConsulted) {
   int calls = 0;
   zek_LogHandle h =
      Register("vigil", 1, zek_LogThrottle{ZEK_LOG_THROTTLE_NONE, AllowEveryOther, &calls});
   zek_LogLevel(h, 1, "F", 1, "line");
   EXPECT_EQ(calls, 0);
   EXPECT_EQ(sim::Logs().size(), 1u);
   EXPECT_EQ(sim::ThrottledCount(), 0u);
}

TEST_F(SimLog, TakeLogsReturnsAndForgetsTheLines) {
   zek_LogNoLevel(1, "one");
   zek_LogNoLevel(1, "two");
   std::vector<sim::LogLine> taken = sim::TakeLogs();
   ASSERT_EQ(taken.size(), 2u);
   EXPECT_EQ(taken[1].raw, "two");
   EXPECT_TRUE(sim::Logs().empty());
}

TEST_F(SimLog, ResetForgetsHandlesLinesAndThrottleCount) {
   int calls = 0;
   Register("vigil", 1, zek_LogThrottle{ZEK_LOG_THROTTLE_CUSTOM, AllowEveryOther, &calls});
   zek_LogNoLevel(1, "x");
   sim::Reset();
   EXPECT_FALSE(sim::LogHandleExists("vigil"));
   EXPECT_TRUE(sim::Logs().empty());
   EXPECT_EQ(sim::ThrottledCount(), 0u);
}

TEST_F(SimLog, LinesFromManyThreadsAreAllCaptured) {
   zek_LogHandle h = Register("vigil", 1);
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; t++) {
      threads.emplace_back([h, t] {
         for (int i = 0; i < 100; i++) zek_LogLevel(h, 1, "F", 1, "t%d i%d", t, i);
      });
   }
   for (std::thread &t : threads) t.join();
   EXPECT_EQ(sim::Logs().size(), 400u);
}

} // namespace
