/*
 * Worlds (kernel threads) of the simulated host.
 *
 * Each world is a std::thread that runs its start function.  zek_WorldExit
 * leaves through a longjmp back to the thread's first frame: module code has
 * no exceptions and no unwind tables, and its frames hold no destructors.
 *
 * Sleep and wake work on event addresses.  A wake finds the sleepers on that
 * address and signals each of them; with no sleeper it leaves the address
 * "pending", and the next wait on it returns at once, so a wake that comes
 * between a world's last look at its queue and its sleep is never lost.
 *
 * Timed waits measure the host clock.  On the virtual clock a deadline is
 * reached only when sim::Advance/SetTime moves time to it; Advance visits
 * the deadlines in time order and lets the worlds settle at each.
 *
 * A world is idle when it is finished, or sleeps with no signal, no pending
 * wake on its event, no reached deadline and no destroy request.
 */
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csetjmp>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "sim_internal.h"
#include "worlds_internal.h"

namespace sim {
namespace {

constexpr zek_Status kWaitAgainA = 0xbad0032;
constexpr zek_Status kWaitAgainB = 0xbad0069;
constexpr auto kDeathWait = std::chrono::milliseconds(50);
constexpr auto kResetJoinWait = std::chrono::seconds(2);

/* One thread's sleep. */
struct Waiter {
   bool waiting = false;
   void *event = nullptr;
   bool signalled = false; /* woken on its event */
   bool timed = false;
   int64_t deadlineNs = 0; /* host clock */
};

struct World {
   zek_WorldID id = 0;
   std::string name;
   zek_WorldStartFn start = nullptr;
   void *data = nullptr;
   std::thread thread;
   std::jmp_buf exitJump;
   Waiter waiter;
   bool finished = false;   /* the thread function has ended */
   bool destroying = false; /* waits return at once */
   bool killed = false;     /* Reset: the next wait ends the world */
   bool deathAsked = false; /* WaitForDeath has been called */
   bool joining = false;    /* a WaitForDeath is joining the thread */
   uint32_t notYet = 0;     /* "wait again" answers given */
};

std::mutex gWorldMutex;
std::condition_variable gSleepCv; /* sleepers: wakes, destroys, clock */
std::condition_variable gHostCv;  /* the host: idle changes, deaths */
std::map<zek_WorldID, std::shared_ptr<World>> gWorlds; /* not yet joined */
std::map<zek_WorldID, uint64_t> gWakes; /* returns of waits, since Reset */
std::map<zek_WorldID, uint64_t> gYields; /* zek_WorldYield calls, since Reset */
std::set<void *> gPending;
std::set<Waiter *> gOutside; /* sleeping threads that are not worlds */
zek_WorldID gNextId = 1;     /* never reused in a process */

thread_local World *tWorld = nullptr;

bool WaiterIdle(const Waiter &w) {
   if (!w.waiting || w.signalled || gPending.count(w.event)) return false;
   return !(w.timed && ClockNowNs() >= w.deadlineNs);
}

bool AllIdleLocked() {
   for (auto &entry : gWorlds) {
      const World &w = *entry.second;
      if (w.finished) continue;
      if (w.destroying || w.killed || !WaiterIdle(w.waiter)) return false;
   }
   return true;
}

[[noreturn]] void LeaveWorld(World *self) { std::longjmp(self->exitJump, 1); }

/* The thread's first frame: the only place the world's exit jumps to. */
void WorldMain(std::shared_ptr<World> keep) {
   World *self = keep.get();
   tWorld = self;
   if (setjmp(self->exitJump) == 0) {
      self->start(self->data);
   }
   tWorld = nullptr;
   std::lock_guard<std::mutex> guard(gWorldMutex);
   self->finished = true;
   self->waiter.waiting = false;
   gHostCv.notify_all();
}

void ResetWorlds() {
   std::vector<std::shared_ptr<World>> alive;
   {
      std::lock_guard<std::mutex> guard(gWorldMutex);
      for (auto &entry : gWorlds) {
         if (!entry.second->joining) alive.push_back(entry.second);
      }
      for (auto &world : alive) {
         world->killed = true;
         world->destroying = true;
      }
      for (Waiter *w : gOutside) w->signalled = true;
      gSleepCv.notify_all();
   }
   for (auto &world : alive) {
      ReportFailure("world " + world->name + " (" + std::to_string(world->id) +
                    ") still alive at reset");
      bool ended;
      {
         std::unique_lock<std::mutex> lock(gWorldMutex);
         ended = gHostCv.wait_for(lock, kResetJoinWait,
                                  [&] { return world->finished; });
      }
      if (ended) {
         world->thread.join();
      } else {
         ReportFailure("world " + world->name +
                       " does not end at reset; left running");
         world->thread.detach();
      }
   }
   std::lock_guard<std::mutex> guard(gWorldMutex);
   for (auto it = gWorlds.begin(); it != gWorlds.end();) {
      if (it->second->joining) {
         ++it;
      } else {
         it = gWorlds.erase(it);
      }
   }
   gWakes.clear();
   gYields.clear();
   gPending.clear();
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetWorlds); }
} gRegistrar;

} // namespace

bool AnyLiveWorlds() {
   std::lock_guard<std::mutex> guard(gWorldMutex);
   return !gWorlds.empty();
}

bool NextWorldDeadline(int64_t afterNs, int64_t untilNs, int64_t *deadlineNs) {
   std::lock_guard<std::mutex> guard(gWorldMutex);
   bool found = false;
   for (auto &entry : gWorlds) {
      const Waiter &w = entry.second->waiter;
      if (entry.second->finished || !w.waiting || w.signalled || !w.timed) {
         continue;
      }
      if (w.deadlineNs > afterNs && w.deadlineNs <= untilNs &&
          (!found || w.deadlineNs < *deadlineNs)) {
         *deadlineNs = w.deadlineNs;
         found = true;
      }
   }
   return found;
}

void WorldsClockMoved() {
   std::lock_guard<std::mutex> guard(gWorldMutex);
   gSleepCv.notify_all();
}

bool WorldsIdle() {
   std::lock_guard<std::mutex> guard(gWorldMutex);
   return AllIdleLocked();
}

bool WaitIdle(double realSeconds) {
   auto end = std::chrono::steady_clock::now() +
              std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                 std::chrono::duration<double>(realSeconds));
   std::unique_lock<std::mutex> lock(gWorldMutex);
   for (;;) {
      if (AllIdleLocked()) return true;
      auto now = std::chrono::steady_clock::now();
      if (now >= end) return false;
      /* Short slices: a deadline on the real clock passes without a notify. */
      gHostCv.wait_for(lock, std::min<std::chrono::steady_clock::duration>(
                                end - now, std::chrono::milliseconds(2)));
   }
}

uint64_t WorldWakes(zek_WorldID id) {
   std::lock_guard<std::mutex> guard(gWorldMutex);
   auto it = gWakes.find(id);
   return it == gWakes.end() ? 0 : it->second;
}

uint64_t WorldYields(zek_WorldID id) {
   std::lock_guard<std::mutex> guard(gWorldMutex);
   auto it = gYields.find(id);
   return it == gYields.end() ? 0 : it->second;
}

uint32_t LiveWorlds() {
   std::lock_guard<std::mutex> guard(gWorldMutex);
   return static_cast<uint32_t>(gWorlds.size());
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_WorldCreate(const zek_WorldProps *props, zek_WorldID *id) {
   SIM_FAULT_RETURN("WorldCreate");
   if (props == nullptr || props->start == nullptr || id == nullptr) {
      return kBadParam;
   }
   auto world = std::make_shared<World>();
   world->name.assign(props->name.string,
                      zek_Strnlen(props->name.string, ZEK_NAME_MAX));
   world->start = props->start;
   world->data = props->data;
   std::lock_guard<std::mutex> guard(gWorldMutex);
   world->id = gNextId++;
   if (gNextId == 0) gNextId = 1;
   try {
      /* Under the mutex: the new thread cannot sleep or finish before the
       * world is in the table. */
      world->thread = std::thread(WorldMain, world);
   } catch (...) {
      return kNoMemory;
   }
   gWorlds[world->id] = world;
   gWakes[world->id] = 0;
   *id = world->id;
   return ZEK_OK;
}

zek_Status zek_WorldWait(void *event, zek_SpinlockHandle lock,
                         uint32_t timeoutMs, const char *) {
   /* A lock handed in is released before the sleep and not taken again; a
    * wake that comes after its release stays pending for this wait. */
   if (lock != nullptr) zek_SpinlockUnlock(lock);
   SIM_FAULT_RETURN("WorldWait");
   World *self = tWorld;
   bool leave = false;
   {
      std::unique_lock<std::mutex> guard(gWorldMutex);
      Waiter outside;
      Waiter &w = self != nullptr ? self->waiter : outside;
      w.event = event;
      w.signalled = false;
      w.timed = timeoutMs != ZEK_TIMEOUT_NONE;
      if (w.timed) {
         w.deadlineNs = ClockNowNs() + static_cast<int64_t>(timeoutMs) * 1000000;
      }
      if (self == nullptr) gOutside.insert(&w);
      w.waiting = true;
      gHostCv.notify_all();
      for (;;) {
         if (self != nullptr && (self->destroying || self->killed)) break;
         if (w.signalled) break;
         if (gPending.erase(event) > 0) break;
         if (w.timed) {
            int64_t left = w.deadlineNs - ClockNowNs();
            if (left <= 0) break;
            if (!ClockIsVirtual()) {
               gSleepCv.wait_for(guard, std::chrono::nanoseconds(left));
               continue;
            }
         }
         gSleepCv.wait(guard);
      }
      w.waiting = false;
      w.signalled = false;
      if (self == nullptr) {
         gOutside.erase(&w);
      } else {
         gWakes[self->id]++;
         leave = self->killed;
      }
   }
   if (leave) LeaveWorld(self);
   return ZEK_OK;
}

void zek_WorldWakeup(void *event) {
   std::lock_guard<std::mutex> guard(gWorldMutex);
   bool sleeper = false;
   auto signal = [&](Waiter &w) {
      if (w.waiting && w.event == event) {
         w.signalled = true;
         sleeper = true;
      }
   };
   for (auto &entry : gWorlds) signal(entry.second->waiter);
   for (Waiter *w : gOutside) signal(*w);
   if (!sleeper) gPending.insert(event);
   gSleepCv.notify_all();
}

zek_Status zek_WorldDestroy(zek_WorldID id) {
   SIM_FAULT_RETURN("WorldDestroy");
   std::lock_guard<std::mutex> guard(gWorldMutex);
   auto it = gWorlds.find(id);
   if (it == gWorlds.end()) return kNotFound;
   it->second->destroying = true;
   gSleepCv.notify_all();
   gHostCv.notify_all();
   return ZEK_OK;
}

zek_Status zek_WorldWaitForDeath(zek_WorldID id) {
   SIM_FAULT_RETURN("WorldWaitForDeath");
   std::shared_ptr<World> world;
   {
      std::unique_lock<std::mutex> lock(gWorldMutex);
      auto it = gWorlds.find(id);
      if (it == gWorlds.end() || it->second->joining) return kNotFound;
      world = it->second;
      if (world.get() == tWorld) return kBadParam; /* its own death */
      bool first = !world->deathAsked;
      world->deathAsked = true;
      bool ended = gHostCv.wait_for(lock, kDeathWait,
                                    [&] { return world->finished; });
      if (first || !ended) {
         /* The first answer is always "wait again", so that callers' retry
          * loops run even when the world has already ended. */
         return world->notYet++ % 2 == 0 ? kWaitAgainA : kWaitAgainB;
      }
      world->joining = true;
   }
   world->thread.join();
   std::lock_guard<std::mutex> guard(gWorldMutex);
   gWorlds.erase(id);
   return ZEK_OK;
}

void zek_WorldExit(zek_Status) {
   World *self = tWorld;
   if (self == nullptr) {
      ReportFailure("zek_WorldExit called outside a world");
      std::abort();
   }
   LeaveWorld(self);
}

void zek_WorldYield(void) {
   if (tWorld != nullptr) {
      std::lock_guard<std::mutex> guard(gWorldMutex);
      gYields[tWorld->id]++;
   }
   std::this_thread::yield();
}

} /* extern "C" */
