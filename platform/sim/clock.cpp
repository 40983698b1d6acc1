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
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>

#include "sim_internal.h"
#include "worlds_internal.h"

namespace sim {
namespace {

constexpr int64_t kNsPerSec = 1000000000;
constexpr int64_t kStartNs = 1000 * kNsPerSec;
constexpr double kSettleSeconds = 5.0; /* real time for worlds to settle */

/* Writers (SetTime, Advance, mode switches, Reset) take gClockMutex and
 * publish the three fields under a sequence count; readers take no lock:
 * they copy the fields and retry if a writer was in the middle (odd count)
 * or has finished meanwhile (count moved).  The fields are atomics read and
 * written relaxed, ordered by the fences around them. */
std::mutex gClockMutex;
std::atomic<uint64_t> gClockSeq{0};
std::atomic<bool> gVirtual{true};
std::atomic<int64_t> gBaseNs{kStartNs}; /* virtual time, or the time at gRealStart */
std::atomic<int64_t> gRealStart{0};     /* steady clock reading when real mode began */
/* The virtual time while the clock is virtual, kRealClock on the real
 * clock: what most reads need, in one load. */
constexpr int64_t kRealClock = INT64_MIN;
std::atomic<int64_t> gVirtualNow{kStartNs};

struct ClockState {
   bool isVirtual;
   int64_t baseNs;
   int64_t realStart;
};

int64_t SteadyNs() {
   return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

ClockState ReadClock() {
   for (;;) {
      uint64_t before = gClockSeq.load(std::memory_order_acquire);
      ClockState state{gVirtual.load(std::memory_order_relaxed),
                       gBaseNs.load(std::memory_order_relaxed),
                       gRealStart.load(std::memory_order_relaxed)};
      std::atomic_thread_fence(std::memory_order_acquire);
      uint64_t after = gClockSeq.load(std::memory_order_relaxed);
      if (before == after && (before & 1) == 0) return state;
   }
}

/* The caller holds gClockMutex, so it is the only writer. */
ClockState CurrentClockLocked() {
   return ClockState{gVirtual.load(std::memory_order_relaxed),
                     gBaseNs.load(std::memory_order_relaxed),
                     gRealStart.load(std::memory_order_relaxed)};
}

void WriteClockLocked(const ClockState &state) {
   uint64_t seq = gClockSeq.load(std::memory_order_relaxed);
   gClockSeq.store(seq + 1, std::memory_order_relaxed);
   std::atomic_thread_fence(std::memory_order_release);
   gVirtual.store(state.isVirtual, std::memory_order_relaxed);
   gBaseNs.store(state.baseNs, std::memory_order_relaxed);
   gRealStart.store(state.realStart, std::memory_order_relaxed);
   gClockSeq.store(seq + 2, std::memory_order_release);
   gVirtualNow.store(state.isVirtual ? state.baseNs : kRealClock,
                     std::memory_order_release);
}

int64_t NowNs() {
   const int64_t virtualNow = gVirtualNow.load(std::memory_order_acquire);
   if (virtualNow != kRealClock) return virtualNow;
   ClockState state = ReadClock();
   return state.isVirtual ? state.baseNs
                          : state.baseNs + (SteadyNs() - state.realStart);
}

int64_t ToNs(double seconds) { return std::llround(seconds * 1e9); }

void ResetClock() {
   std::lock_guard<std::mutex> guard(gClockMutex);
   ClockState state = CurrentClockLocked();
   state.isVirtual = true;
   state.baseNs = kStartNs;
   WriteClockLocked(state);
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetClock); }
} gRegistrar;

/* Moves the virtual time to `ns` and lets the worlds see it. */
void StepTo(int64_t ns) {
   {
      std::lock_guard<std::mutex> guard(gClockMutex);
      ClockState state = CurrentClockLocked();
      state.baseNs = ns;
      WriteClockLocked(state);
   }
   WorldsClockMoved();
   WaitIdle(kSettleSeconds);
}

} // namespace

int64_t ClockNowNs() { return NowNs(); }

bool ClockIsVirtual() { return ReadClock().isVirtual; }

void UseVirtualClock(bool on) {
   {
      std::lock_guard<std::mutex> guard(gClockMutex);
      if (CurrentClockLocked().isVirtual == on) return;
      WriteClockLocked(ClockState{on, kStartNs, SteadyNs()});
   }
   WorldsClockMoved();
}

void SetTime(double seconds) {
   /* As in Advance: a world still busy from before the jump computes its
    * next deadline from the old time, not from the new one. */
   if (AnyLiveWorlds() && ClockIsVirtual()) WaitIdle(kSettleSeconds);
   {
      std::lock_guard<std::mutex> guard(gClockMutex);
      ClockState state = CurrentClockLocked();
      state.baseNs = ToNs(seconds);
      state.realStart = SteadyNs();
      WriteClockLocked(state);
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
         ClockState state = CurrentClockLocked();
         state.baseNs += ToNs(seconds);
         WriteClockLocked(state);
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
