/*
 * Tests of the simulated host's worlds: sleeps and wakes on events, timed
 * waits on the virtual clock, Advance visiting deadlines in order, destroy
 * and death, exit from nested calls, idle detection and the Reset net.
 *
 * The worlds run small loops shaped like the module's own: look at an exit
 * flag, take a lock, drain a queue, release the lock, sleep on an event.
 */
#include <atomic>
#include <chrono>
#include <thread>

#include "sim_test_fixture.h"

namespace {

using namespace std::chrono_literals;

constexpr zek_Status kWaitAgainA = 0xbad0032;
constexpr zek_Status kWaitAgainB = 0xbad0069;
constexpr zek_Status kNotFound = 0xbad0003;

/* ------------------------------------------------ a module-like worker */
struct Worker {
   zek_SpinlockHandle lock = nullptr;
   uint32_t timeoutMs = ZEK_TIMEOUT_NONE;
   std::atomic<bool> exit{false};
   int queued = 0;                  /* under lock */
   std::atomic<int> drained{0};     /* items taken off the queue */
   std::vector<uint64_t> wokeAt;    /* under lock: timer cycles at each return */
   char event = 0;                  /* the address it sleeps on */
};

void WorkerLoop(void *data) {
   Worker *w = static_cast<Worker *>(data);
   for (;;) {
      if (w->exit.load()) break;
      zek_SpinlockLock(w->lock);
      w->drained += w->queued;
      w->queued = 0;
      zek_SpinlockUnlock(w->lock);
      zek_WorldWait(&w->event, nullptr, w->timeoutMs, "Wait");
      zek_SpinlockLock(w->lock);
      w->wokeAt.push_back(zek_GetTimerCycles());
      zek_SpinlockUnlock(w->lock);
   }
   zek_WorldExit(0);
}

class SimWorld : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      zek_Name name;
      ASSERT_EQ(zek_NameInitialize(&name, "vigil"), ZEK_OK);
      ASSERT_EQ(zek_LockDomainCreate(1, nullptr, &name, &domain_), ZEK_OK);
   }

   zek_SpinlockHandle MakeLock(const char *name) {
      zek_SpinlockProps props{};
      EXPECT_EQ(zek_NameInitialize(&props.name, name), ZEK_OK);
      props.kind = ZEK_SPINLOCK_ORDINARY;
      props.domain = domain_;
      props.rank = 1;
      zek_SpinlockHandle lock = nullptr;
      EXPECT_EQ(zek_SpinlockCreate(&props, &lock), ZEK_OK);
      return lock;
   }

   zek_WorldID Start(const char *name, zek_WorldStartFn fn, void *data) {
      zek_WorldProps props{};
      EXPECT_EQ(zek_NameInitialize(&props.name, name), ZEK_OK);
      props.module = 1;
      props.start = fn;
      props.data = data;
      props.schedGroup = 1;
      zek_WorldID id = 0;
      EXPECT_EQ(zek_WorldCreate(&props, &id), ZEK_OK);
      EXPECT_NE(id, 0u);
      return id;
   }

   zek_WorldID StartWorker(Worker &w, const char *name, uint32_t timeoutMs) {
      w.lock = MakeLock(name);
      w.timeoutMs = timeoutMs;
      return Start(name, WorkerLoop, &w);
   }

   /* Destroy, then wait for death as the module does: retry while told to
    * wait again.  Returns every answer of WaitForDeath. */
   std::vector<zek_Status> Stop(zek_WorldID id) {
      EXPECT_EQ(zek_WorldDestroy(id), ZEK_OK);
      return Join(id);
   }

   std::vector<zek_Status> Join(zek_WorldID id) {
      std::vector<zek_Status> seen;
      for (int i = 0; i < 60; i++) {
         zek_Status status = zek_WorldWaitForDeath(id);
         seen.push_back(status);
         if (status != kWaitAgainA && status != kWaitAgainB) break;
      }
      return seen;
   }

   void Enqueue(Worker &w, int items) {
      zek_SpinlockLock(w.lock);
      w.queued += items;
      zek_SpinlockUnlock(w.lock);
      zek_WorldWakeup(&w.event);
   }

   std::vector<uint64_t> WokeAt(Worker &w) {
      zek_SpinlockLock(w.lock);
      std::vector<uint64_t> out = w.wokeAt;
      zek_SpinlockUnlock(w.lock);
      return out;
   }

   zek_LockDomainID domain_ = nullptr;
};

TEST_F(SimWorld, CreateGivesDistinctNonZeroIdsAndCountsLiveWorlds) {
   EXPECT_EQ(sim::LiveWorlds(), 0u);
   Worker a, b;
   zek_WorldID idA = StartWorker(a, "vigil.a", ZEK_TIMEOUT_NONE);
   zek_WorldID idB = StartWorker(b, "vigil.b", ZEK_TIMEOUT_NONE);
   EXPECT_NE(idA, idB);
   EXPECT_EQ(sim::LiveWorlds(), 2u);
   a.exit = true;
   b.exit = true;
   EXPECT_EQ(Stop(idA).back(), ZEK_OK);
   EXPECT_EQ(sim::LiveWorlds(), 1u);
   EXPECT_EQ(Stop(idB).back(), ZEK_OK);
   EXPECT_EQ(sim::LiveWorlds(), 0u);
}

TEST_F(SimWorld, CreateFaultStartsNothing) {
   sim::FaultCall("WorldCreate", 0xbad0014);
   zek_WorldProps props{};
   props.start = WorkerLoop;
   zek_WorldID id = 0;
   EXPECT_EQ(zek_WorldCreate(&props, &id), 0xbad0014u);
   EXPECT_EQ(id, 0u);
   EXPECT_EQ(sim::LiveWorlds(), 0u);
}

TEST_F(SimWorld, UnlimitedWaitIsIdleAndWakesOnlyOnWakeup) {
   Worker w;
   zek_WorldID id = StartWorker(w, "vigil.unlimited", ZEK_TIMEOUT_NONE);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   EXPECT_EQ(sim::WorldWakes(id), 0u);

   /* An hour of virtual time passes without a single return: no polling. */
   sim::Advance(3600.0);
   EXPECT_EQ(sim::WorldWakes(id), 0u);
   EXPECT_EQ(w.drained.load(), 0);

   Enqueue(w, 3);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   EXPECT_EQ(sim::WorldWakes(id), 1u);
   EXPECT_EQ(w.drained.load(), 3);
   EXPECT_EQ(WokeAt(w), std::vector<uint64_t>{4600000000000u});

   Enqueue(w, 2);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   EXPECT_EQ(sim::WorldWakes(id), 2u);
   EXPECT_EQ(w.drained.load(), 5);

   w.exit = true;
   EXPECT_EQ(Stop(id).back(), ZEK_OK);
   EXPECT_EQ(sim::WorldWakes(id), 3u); /* the destroy's return */
}

TEST_F(SimWorld, WakeupWithoutSleeperIsHarmless) {
   char nobody = 0;
   zek_WorldWakeup(&nobody);
   zek_WorldWakeup(&nobody);
   EXPECT_TRUE(sim::WorldsIdle());
}

/* Sleeps on a gate first, then on its event: a wake of the event while the
 * world sits at the gate comes before that wait and must not be lost. */
struct GateWorld {
   char gate = 0;
   char event = 0;
   std::atomic<bool> exit{false};
   std::atomic<int> eventReturns{0};
};

void GateLoop(void *data) {
   GateWorld *g = static_cast<GateWorld *>(data);
   zek_WorldWait(&g->gate, nullptr, ZEK_TIMEOUT_NONE, "Gate");
   while (!g->exit.load()) {
      zek_WorldWait(&g->event, nullptr, ZEK_TIMEOUT_NONE, "Wait");
      g->eventReturns++;
   }
}

TEST_F(SimWorld, WakeBeforeWaitIsNotLost) {
   GateWorld g;
   zek_WorldID id = Start("vigil.gate", GateLoop, &g);
   ASSERT_TRUE(sim::WaitIdle(2.0));

   zek_WorldWakeup(&g.event); /* nobody sleeps on it yet: left pending */
   EXPECT_TRUE(sim::WorldsIdle());
   zek_WorldWakeup(&g.gate);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   /* The gate wait returned, the event wait returned at once, and the
    * pending wake was consumed once: the world sleeps in its next wait. */
   EXPECT_EQ(g.eventReturns.load(), 1);
   EXPECT_EQ(sim::WorldWakes(id), 2u);

   g.exit = true;
   EXPECT_EQ(Stop(id).back(), ZEK_OK);
   EXPECT_EQ(g.eventReturns.load(), 2);
}

TEST_F(SimWorld, TestThreadWaitConsumesAPendingWakeOnce) {
   sim::UseVirtualClock(false);
   char event = 0;
   zek_WorldWakeup(&event);
   auto start = std::chrono::steady_clock::now();
   EXPECT_EQ(zek_WorldWait(&event, nullptr, 1000, "Wait"), ZEK_OK);
   EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);

   /* Consumed: the next wait sleeps until its timeout on the real clock. */
   start = std::chrono::steady_clock::now();
   EXPECT_EQ(zek_WorldWait(&event, nullptr, 20, "Wait"), ZEK_OK);
   auto slept = std::chrono::steady_clock::now() - start;
   EXPECT_GE(slept, 20ms);
   EXPECT_LT(slept, 500ms);
}

TEST_F(SimWorld, TestThreadWaitIsWokenByAnotherThread) {
   sim::UseVirtualClock(false);
   char event = 0;
   std::thread waker([&] {
      std::this_thread::sleep_for(10ms);
      zek_WorldWakeup(&event);
   });
   auto start = std::chrono::steady_clock::now();
   EXPECT_EQ(zek_WorldWait(&event, nullptr, 2000, "Wait"), ZEK_OK);
   EXPECT_LT(std::chrono::steady_clock::now() - start, 1000ms);
   waker.join();
}

TEST_F(SimWorld, TimedWaitEndsOnlyWhenVirtualTimeReachesItsDeadline) {
   Worker w;
   zek_WorldID id = StartWorker(w, "vigil.timed", 1500);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   EXPECT_EQ(sim::WorldWakes(id), 0u);

   auto start = std::chrono::steady_clock::now();
   sim::Advance(1.4);
   EXPECT_EQ(sim::WorldWakes(id), 0u);
   EXPECT_TRUE(sim::WorldsIdle());
   sim::Advance(0.2);
   EXPECT_EQ(sim::WorldWakes(id), 1u);
   EXPECT_EQ(sim::Now(), 1001.6);
   /* Its next deadline is 1003.0: reached exactly by this step. */
   sim::Advance(1.4);
   EXPECT_EQ(sim::WorldWakes(id), 2u);
   EXPECT_EQ(WokeAt(w), (std::vector<uint64_t>{1001500000000u, 1003000000000u}));
   EXPECT_LT(std::chrono::steady_clock::now() - start, 1000ms);

   w.exit = true;
   EXPECT_EQ(Stop(id).back(), ZEK_OK);
}

TEST_F(SimWorld, AdvanceStopsAtEachDeadlineOfAPeriodicWorld) {
   Worker w;
   zek_WorldID id = StartWorker(w, "vigil.periodic", 250);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   sim::Advance(1.1);
   EXPECT_EQ(sim::WorldWakes(id), 4u);
   EXPECT_EQ(WokeAt(w), (std::vector<uint64_t>{1000250000000u, 1000500000000u,
                                               1000750000000u, 1001000000000u}));
   EXPECT_EQ(zek_GetTimerCycles(), 1001100000000u);
   w.exit = true;
   EXPECT_EQ(Stop(id).back(), ZEK_OK);
}

/* Sleeps once for its time, records when and in which turn it woke, ends. */
struct OneShot {
   uint32_t timeoutMs;
   uint64_t wokeAt = 0;
   int turn = -1;
};
std::atomic<int> gTurn{0};

void OneShotMain(void *data) {
   OneShot *s = static_cast<OneShot *>(data);
   char event = 0;
   zek_WorldWait(&event, nullptr, s->timeoutMs, "Wait");
   s->wokeAt = zek_GetTimerCycles();
   s->turn = gTurn++;
}

TEST_F(SimWorld, AdvanceWakesSeveralWorldsInDeadlineOrder) {
   gTurn = 0;
   OneShot shots[3] = {{700}, {300}, {500}};
   zek_WorldID ids[3];
   for (int i = 0; i < 3; i++) ids[i] = Start("vigil.shot", OneShotMain, &shots[i]);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   sim::Advance(1.0);
   EXPECT_EQ(shots[0].wokeAt, 1000700000000u);
   EXPECT_EQ(shots[1].wokeAt, 1000300000000u);
   EXPECT_EQ(shots[2].wokeAt, 1000500000000u);
   EXPECT_EQ(shots[1].turn, 0);
   EXPECT_EQ(shots[2].turn, 1);
   EXPECT_EQ(shots[0].turn, 2);
   EXPECT_EQ(sim::Now(), 1001.0);
   /* Finished worlds are idle and live until joined. */
   EXPECT_TRUE(sim::WorldsIdle());
   EXPECT_EQ(sim::LiveWorlds(), 3u);
   for (zek_WorldID id : ids) {
      EXPECT_EQ(sim::WorldWakes(id), 1u);
      EXPECT_EQ(Join(id).back(), ZEK_OK);
   }
   EXPECT_EQ(sim::LiveWorlds(), 0u);
}

TEST_F(SimWorld, SetTimeWakesWorldsWhoseDeadlinePassed) {
   gTurn = 0;
   OneShot early{2000}, late{9000};
   zek_WorldID a = Start("vigil.early", OneShotMain, &early);
   zek_WorldID b = Start("vigil.late", OneShotMain, &late);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   sim::SetTime(1005.0);
   EXPECT_EQ(early.wokeAt, 1005000000000u);
   EXPECT_EQ(late.turn, -1);
   EXPECT_EQ(sim::WorldWakes(b), 0u);
   sim::Advance(4.0);
   EXPECT_EQ(late.wokeAt, 1009000000000u);
   EXPECT_EQ(Join(a).back(), ZEK_OK);
   EXPECT_EQ(Join(b).back(), ZEK_OK);
}

/* A world woken just before the jump is still working when SetTime is
 * called: it finishes and starts its timed wait at the old time, so the
 * jump past that deadline wakes it. */
struct SlowSleeper {
   char event = 0;
   std::atomic<bool> working{false};
   std::atomic<uint64_t> sleptAt{0};
   std::atomic<uint64_t> wokeAt{0};
};

void SlowSleeperMain(void *data) {
   SlowSleeper *s = static_cast<SlowSleeper *>(data);
   zek_WorldWait(&s->event, nullptr, ZEK_TIMEOUT_NONE, "Wait");
   s->working = true;
   std::this_thread::sleep_for(100ms); /* the pass takes real time */
   s->sleptAt = zek_GetTimerCycles();
   zek_WorldWait(&s->event, nullptr, 2000, "Wait");
   s->wokeAt = zek_GetTimerCycles();
   zek_WorldExit(0);
}

TEST_F(SimWorld, SetTimeLetsABusyWorldSleepBeforeTheTimeJumps) {
   SlowSleeper sleeper;
   zek_WorldID id = Start("vigil.slow", SlowSleeperMain, &sleeper);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   zek_WorldWakeup(&sleeper.event);
   while (!sleeper.working) std::this_thread::yield();
   sim::SetTime(1005.0);
   EXPECT_EQ(sleeper.sleptAt.load(), 1000000000000u) << "the wait began before the jump";
   EXPECT_EQ(sleeper.wokeAt.load(), 1005000000000u) << "the jump passed its deadline";
   EXPECT_EQ(sim::WorldWakes(id), 2u);
   EXPECT_EQ(Join(id).back(), ZEK_OK);
}

TEST_F(SimWorld, TimedWaitOnTheRealClockUsesRealTime) {
   sim::UseVirtualClock(false);
   OneShot shot{30};
   auto start = std::chrono::steady_clock::now();
   zek_WorldID id = Start("vigil.real", OneShotMain, &shot);
   std::vector<zek_Status> seen = Join(id);
   EXPECT_EQ(seen.back(), ZEK_OK);
   EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
   EXPECT_EQ(sim::WorldWakes(id), 1u);
}

TEST_F(SimWorld, DestroyEndsWaitsAndDeathTakesARetry) {
   Worker w;
   zek_WorldID id = StartWorker(w, "vigil.destroy", ZEK_TIMEOUT_NONE);
   ASSERT_TRUE(sim::WaitIdle(2.0));

   /* Destroyed without its exit flag: every wait returns at once, so the loop
    * spins and is never idle. */
   EXPECT_EQ(zek_WorldDestroy(id), ZEK_OK);
   EXPECT_FALSE(sim::WaitIdle(0.02));
   EXPECT_GT(sim::WorldWakes(id), 1u);

   w.exit = true;
   std::vector<zek_Status> seen = Join(id);
   ASSERT_GE(seen.size(), 2u);
   EXPECT_EQ(seen.front(), kWaitAgainA);
   EXPECT_EQ(seen.back(), ZEK_OK);
   for (size_t i = 0; i + 1 < seen.size(); i++) {
      EXPECT_TRUE(seen[i] == kWaitAgainA || seen[i] == kWaitAgainB);
   }
   EXPECT_EQ(sim::LiveWorlds(), 0u);
   EXPECT_EQ(zek_WorldDestroy(id), kNotFound);
   EXPECT_EQ(zek_WorldWaitForDeath(id), kNotFound);
}

TEST_F(SimWorld, WaitForDeathOfALiveWorldAlternatesItsAnswers) {
   Worker w;
   zek_WorldID id = StartWorker(w, "vigil.alive", ZEK_TIMEOUT_NONE);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   EXPECT_EQ(zek_WorldWaitForDeath(id), kWaitAgainA);
   EXPECT_EQ(zek_WorldWaitForDeath(id), kWaitAgainB);
   EXPECT_EQ(zek_WorldWaitForDeath(id), kWaitAgainA);
   EXPECT_EQ(sim::LiveWorlds(), 1u);
   w.exit = true;
   EXPECT_EQ(Stop(id).back(), ZEK_OK);
}

TEST_F(SimWorld, UnknownIdsAreNotFound) {
   EXPECT_EQ(zek_WorldDestroy(12345), kNotFound);
   EXPECT_EQ(zek_WorldWaitForDeath(12345), kNotFound);
   EXPECT_EQ(sim::WorldWakes(12345), 0u);
}

/* Exits from two calls deep; nothing after the exit may run. */
struct Nested {
   std::atomic<bool> reachedExit{false};
   std::atomic<bool> ranAfterExit{false};
};

void NestedInner(Nested *n) {
   n->reachedExit = true;
   zek_WorldExit(0);
}

void NestedOuter(Nested *n) {
   NestedInner(n);
   n->ranAfterExit = true;
}

void NestedMain(void *data) {
   Nested *n = static_cast<Nested *>(data);
   NestedOuter(n);
   n->ranAfterExit = true;
}

TEST_F(SimWorld, ExitFromANestedCallEndsTheThread) {
   Nested n;
   zek_WorldID id = Start("vigil.nested", NestedMain, &n);
   ASSERT_TRUE(sim::WaitIdle(2.0)); /* finished counts as idle */
   EXPECT_TRUE(n.reachedExit.load());
   EXPECT_FALSE(n.ranAfterExit.load());
   EXPECT_EQ(sim::LiveWorlds(), 1u);
   std::vector<zek_Status> seen = Join(id);
   EXPECT_EQ(seen, (std::vector<zek_Status>{kWaitAgainA, ZEK_OK}));
   EXPECT_EQ(sim::LiveWorlds(), 0u);
   EXPECT_FALSE(n.ranAfterExit.load());
}

/* Sleeps until woken, then stays busy until the test lets it go. */
struct Busy {
   char event = 0;
   std::atomic<bool> hold{true};
   std::atomic<bool> busy{false};
   std::atomic<bool> exit{false};
};

void BusyMain(void *data) {
   Busy *b = static_cast<Busy *>(data);
   while (!b->exit.load()) {
      zek_WorldWait(&b->event, nullptr, ZEK_TIMEOUT_NONE, "Wait");
      b->busy = true;
      while (b->hold.load()) zek_WorldYield();
      b->busy = false;
   }
}

TEST_F(SimWorld, IdleMeansEveryWorldAsleepWithNothingToDo) {
   EXPECT_TRUE(sim::WorldsIdle()); /* no worlds */
   Busy b;
   zek_WorldID id = Start("vigil.busy", BusyMain, &b);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   EXPECT_TRUE(sim::WorldsIdle());

   /* Woken: not idle from the wake on, and not while it works. */
   zek_WorldWakeup(&b.event);
   EXPECT_FALSE(sim::WorldsIdle());
   for (int i = 0; i < 1000 && !b.busy.load(); i++) std::this_thread::sleep_for(1ms);
   ASSERT_TRUE(b.busy.load());
   auto start = std::chrono::steady_clock::now();
   EXPECT_FALSE(sim::WaitIdle(0.03));
   EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
   EXPECT_TRUE(b.busy.load());

   b.hold = false;
   ASSERT_TRUE(sim::WaitIdle(2.0));
   EXPECT_FALSE(b.busy.load());
   EXPECT_EQ(sim::WorldWakes(id), 1u);

   b.exit = true;
   EXPECT_EQ(Stop(id).back(), ZEK_OK);
   EXPECT_TRUE(sim::WorldsIdle());
}

TEST_F(SimWorld, LockHandedToWaitIsReleased) {
   sim::UseVirtualClock(false);
   zek_SpinlockHandle lock = MakeLock("vigil.waitlock");
   char event = 0;
   zek_SpinlockLock(lock);
   EXPECT_EQ(zek_WorldWait(&event, lock, 1, "Wait"), ZEK_OK);
   EXPECT_EQ(sim::LockHeldBy(lock), sim::LockMode::None);
}

TEST_F(SimWorld, ResetEndsAndReportsWorldsLeftAlive) {
   Worker w;
   zek_WorldID id = StartWorker(w, "vigil.left", ZEK_TIMEOUT_NONE);
   ASSERT_TRUE(sim::WaitIdle(2.0));
   EXPECT_NE(id, 0u);
   sim::Reset();
   std::vector<std::string> failures = simtest::TakeFailures();
   ASSERT_EQ(failures.size(), 1u);
   EXPECT_NE(failures[0].find("vigil.left"), std::string::npos);
   EXPECT_EQ(sim::LiveWorlds(), 0u);
   EXPECT_TRUE(w.wokeAt.empty()); /* ended in its wait, ran no more code */
}

} // namespace
