/*
 * Clock of the simulated host.  One time in integer nanoseconds feeds the
 * uptime, the timer cycles (1e9/s) and the monotonic counter (1e6/s).  It is
 * virtual (moved only by SetTime/Advance) unless the real clock is chosen;
 * either way it reads 1000.0 s right after Reset or a switch of mode.
 *
 * With worlds alive, a virtual step stops at every world deadline inside it,
 * in time order, and lets the worlds settle (sim::WaitIdle) at each stop and
 * at the end; so a world that sleeps for T wakes seeing exactly its deadline.
 */
#include <chrono>
#include <cmath>

#include "sim_internal.h"
#include "worlds_internal.h"

namespace sim {
namespace {

constexpr int64_t kNsPerSec = 1000000000;
constexpr int64_t kStartNs = 1000 * kNsPerSec;
constexpr double kSettleSeconds = 5.0; /* real time for worlds to settle */

std::mutex gClockMutex;
bool gVirtual = true;
int64_t gBaseNs = kStartNs; /* virtual time, or the time at gRealStart */
int64_t gRealStart;         /* steady clock reading when real mode began */

int64_t SteadyNs() {
   return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t NowNs() {
   std::lock_guard<std::mutex> guard(gClockMutex);
   return gVirtual ? gBaseNs : gBaseNs + (SteadyNs() - gRealStart);
}

int64_t ToNs(double seconds) { return std::llround(seconds * 1e9); }

void ResetClock() {
   std::lock_guard<std::mutex> guard(gClockMutex);
   gVirtual = true;
   gBaseNs = kStartNs;
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetClock); }
} gRegistrar;

/* Moves the virtual time to `ns` and lets the worlds see it. */
void StepTo(int64_t ns) {
   {
      std::lock_guard<std::mutex> guard(gClockMutex);
      gBaseNs = ns;
   }
   WorldsClockMoved();
   WaitIdle(kSettleSeconds);
}

} // namespace

int64_t ClockNowNs() { return NowNs(); }

bool ClockIsVirtual() {
   std::lock_guard<std::mutex> guard(gClockMutex);
   return gVirtual;
}

void UseVirtualClock(bool on) {
   {
      std::lock_guard<std::mutex> guard(gClockMutex);
      if (gVirtual == on) return;
      gVirtual = on;
      gBaseNs = kStartNs;
      gRealStart = SteadyNs();
   }
   WorldsClockMoved();
}

void SetTime(double seconds) {
   /* As in Advance: a world still busy from before the jump computes its
    * next deadline from the old time, not from the new one. */
   if (AnyLiveWorlds() && ClockIsVirtual()) WaitIdle(kSettleSeconds);
   {
      std::lock_guard<std::mutex> guard(gClockMutex);
      gBaseNs = ToNs(seconds);
      gRealStart = SteadyNs();
   }
   if (AnyLiveWorlds()) {
      WorldsClockMoved();
      if (ClockIsVirtual()) WaitIdle(kSettleSeconds);
   }
}

void Advance(double seconds) {
   if (!AnyLiveWorlds() || !ClockIsVirtual()) {
      {
         std::lock_guard<std::mutex> guard(gClockMutex);
         gBaseNs += ToNs(seconds);
      }
      WorldsClockMoved();
      return;
   }
   /* Worlds busy from before the step take their deadlines from its start. */
   WaitIdle(kSettleSeconds);
   int64_t now = NowNs();
   int64_t target = now + ToNs(seconds);
   int64_t deadline;
   while (NextWorldDeadline(now, target, &deadline)) {
      StepTo(deadline);
      now = deadline;
   }
   StepTo(target);
}

double Now() { return static_cast<double>(NowNs()) / 1e9; }

} // namespace sim

extern "C" {

void zek_GetUptime(zek_Uptime *out) {
   int64_t ns = sim::NowNs();
   out->sec = ns / sim::kNsPerSec;
   out->usec = (ns % sim::kNsPerSec) / 1000;
}

uint64_t zek_GetTimerCycles(void) { return static_cast<uint64_t>(sim::NowNs()); }

uint64_t zek_TimerCyclesPerSecond(void) { return 1000000000u; }

uint64_t zek_TimerMonotonicCounter(void) {
   return static_cast<uint64_t>(sim::NowNs() / 1000);
}

uint64_t zek_GetMonotonicCounterFrequency(void) { return 1000000u; }

} /* extern "C" */
