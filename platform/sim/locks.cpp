/*
 * Lock domains and spinlocks of the simulated host.
 *
 * With debug checks on (VIGIL_DEBUG_CHECKS, the builds tests use) the locks
 * carry a rank checker, held modes and counters: each thread keeps the list of locks it holds.  Taking a lock while holding
 * one of equal or higher rank in the same domain is recorded as an order
 * violation (and reported at once when fail-fast is on); the lock is still
 * taken, as the real host would.  A thread re-taking a lock it holds would
 * deadlock on a real spinlock, so that is always reported and the lock is
 * not taken a second time.
 *
 * Without debug checks a spinlock is a bare reader-writer spinlock on one
 * atomic word (sim_spinlock.h): no rank tracking, no held list, no
 * counters.  The inspection calls then answer as if nothing were held.
 */
#include <atomic>
#include <cstring>
#include <shared_mutex>
#include <unordered_set>

#include "sim_internal.h"
#include "sim_spinlock.h"

struct zek_LockDomain {
   std::string name;
};

struct zek_Spinlock {
   std::string name;
   uint32_t kind;
   zek_LockDomainID domain;
   uint32_t rank;
#if VIGIL_DEBUG_CHECKS
   std::shared_mutex mutex;
   std::atomic<int> holders{0}; /* threads holding it, any mode */
   std::atomic<uint64_t> reads{0}, writes{0}, exclusives{0};
#else
   sim::RwSpinlock spin;
#endif
};

namespace sim {
namespace {

#if VIGIL_DEBUG_CHECKS
constexpr bool kFailFastDefault = true;
#else
constexpr bool kFailFastDefault = false;
#endif

std::mutex gLockMutex;
std::unordered_set<zek_LockDomain *> gDomains;
std::unordered_set<zek_Spinlock *> gLocks;
std::vector<zek_Spinlock *> gRetired; /* destroyed while held; freed on Reset */
std::vector<std::string> gViolations;
std::atomic<bool> gFailFast{kFailFastDefault};

#if VIGIL_DEBUG_CHECKS
/* Bumped by Reset so that threads drop their lists of forgotten locks. */
std::atomic<uint64_t> gGeneration{1};

struct Held {
   zek_Spinlock *lock;
   LockMode mode;
   bool recursive; /* a second take of a lock already held: not locked again */
};

struct ThreadLocks {
   uint64_t generation = 0;
   std::vector<Held> held;
};
thread_local ThreadLocks tLocks;

std::vector<Held> &HeldList() {
   uint64_t gen = gGeneration.load();
   if (tLocks.generation != gen) {
      tLocks.generation = gen;
      tLocks.held.clear();
   }
   return tLocks.held;
}

const char *ModeName(LockMode mode) {
   switch (mode) {
   case LockMode::Read: return "read";
   case LockMode::Write: return "write";
   case LockMode::Exclusive: return "exclusive";
   default: return "none";
   }
}

std::string RankText(const zek_Spinlock *lock) {
   return lock->name + " (rank " + std::to_string(lock->rank) + ")";
}

#endif

void ResetLocks() {
   std::lock_guard<std::mutex> guard(gLockMutex);
   for (zek_Spinlock *lock : gLocks) delete lock;
   for (zek_Spinlock *lock : gRetired) delete lock;
   for (zek_LockDomain *domain : gDomains) delete domain;
   gLocks.clear();
   gRetired.clear();
   gDomains.clear();
   gViolations.clear();
   gFailFast = kFailFastDefault;
#if VIGIL_DEBUG_CHECKS
   gGeneration++;
#endif
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetLocks); }
} gRegistrar;

#if VIGIL_DEBUG_CHECKS
void Acquire(zek_Spinlock *lock, LockMode mode, const char *call) {
   if (lock == nullptr) {
      ReportFailure(std::string(call) + " of a null lock");
      return;
   }
   bool wantRW = mode != LockMode::Exclusive;
   if (wantRW != (lock->kind == ZEK_SPINLOCK_RW)) {
      ReportFailure(std::string(call) + " on " + lock->name + ", a lock of the other kind");
   }
   std::vector<Held> &held = HeldList();
   const Held *worst = nullptr;
   bool recursive = false;
   for (const Held &h : held) {
      recursive = recursive || h.lock == lock;
      if (h.lock->domain == lock->domain && h.lock->rank >= lock->rank &&
          (worst == nullptr || h.lock->rank >= worst->lock->rank)) {
         worst = &h;
      }
   }
   if (worst != nullptr) {
      std::string text = "lock order violation: taking " + RankText(lock) +
                         " while holding " + RankText(worst->lock);
      {
         std::lock_guard<std::mutex> guard(gLockMutex);
         gViolations.push_back(text);
      }
      if (gFailFast || recursive) {
         ReportFailure(recursive ? text + " (the same lock: deadlock)" : text);
      }
   }
   if (!recursive) {
      if (mode == LockMode::Read) {
         lock->mutex.lock_shared();
      } else {
         lock->mutex.lock();
      }
      lock->holders++;
   }
   (mode == LockMode::Read ? lock->reads
    : mode == LockMode::Write ? lock->writes
                              : lock->exclusives)++;
   held.push_back(Held{lock, mode, recursive});
}

void Release(zek_Spinlock *lock, LockMode mode, const char *call) {
   if (lock == nullptr) {
      ReportFailure(std::string(call) + " of a null lock");
      return;
   }
   std::vector<Held> &held = HeldList();
   auto it = held.end();
   for (auto i = held.begin(); i != held.end(); ++i) {
      if (i->lock == lock) it = i; /* the latest take */
   }
   if (it == held.end()) {
      ReportFailure(std::string(call) + " of " + lock->name +
                    ", not held by this thread");
      return;
   }
   if (it->mode != mode) {
      ReportFailure(std::string(call) + " of " + lock->name + ", held in " +
                    ModeName(it->mode) + " mode");
   }
   /* Release in the mode it was taken in, so the lock stays consistent. */
   Held h = *it;
   held.erase(it);
   if (!h.recursive) {
      lock->holders--;
      if (h.mode == LockMode::Read) {
         lock->mutex.unlock_shared();
      } else {
         lock->mutex.unlock();
      }
   }
}

#endif

} // namespace

std::vector<std::string> LockViolations() {
   std::lock_guard<std::mutex> guard(gLockMutex);
   return gViolations;
}

void SetLockFailFast(bool on) { gFailFast = on; }

LockMode LockHeldBy(zek_SpinlockHandle lock) {
#if VIGIL_DEBUG_CHECKS
   for (const Held &h : HeldList()) {
      if (h.lock == lock) return h.mode;
   }
#else
   (void)lock;
#endif
   return LockMode::None;
}

uint32_t LocksHeldByThread() {
#if VIGIL_DEBUG_CHECKS
   return static_cast<uint32_t>(HeldList().size());
#else
   return 0;
#endif
}

uint32_t LiveLocks() {
   std::lock_guard<std::mutex> guard(gLockMutex);
   return static_cast<uint32_t>(gLocks.size());
}

LockCounts GetLockCounts(zek_SpinlockHandle lock) {
#if VIGIL_DEBUG_CHECKS
   if (lock == nullptr) return LockCounts{};
   return LockCounts{lock->reads.load(), lock->writes.load(),
                     lock->exclusives.load()};
#else
   (void)lock;
   return LockCounts{};
#endif
}

std::string LockName(zek_SpinlockHandle lock) {
   return lock != nullptr ? lock->name : std::string();
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_LockDomainCreate(zek_ModuleID, zek_HeapID, const zek_Name *name,
                                zek_LockDomainID *domain) {
   SIM_FAULT_RETURN("LockDomainCreate");
   if (name == nullptr || domain == nullptr) return kBadParam;
   auto *d = new zek_LockDomain{std::string(name->string,
                                            strnlen(name->string, ZEK_NAME_MAX))};
   std::lock_guard<std::mutex> guard(gLockMutex);
   gDomains.insert(d);
   *domain = d;
   return ZEK_OK;
}

void zek_LockDomainDestroy(zek_LockDomainID domain) {
   {
      std::lock_guard<std::mutex> guard(gLockMutex);
      if (gDomains.erase(domain)) {
         delete domain;
         return;
      }
   }
   ReportFailure("destroy of unknown lock domain");
}

zek_Status zek_SpinlockCreate(const zek_SpinlockProps *props,
                              zek_SpinlockHandle *lock) {
   SIM_FAULT_RETURN("SpinlockCreate");
   if (props == nullptr || lock == nullptr ||
       (props->kind != ZEK_SPINLOCK_ORDINARY && props->kind != ZEK_SPINLOCK_RW)) {
      return kBadParam;
   }
   auto *l = new zek_Spinlock;
   l->name.assign(props->name.string, strnlen(props->name.string, ZEK_NAME_MAX));
   l->kind = props->kind;
   l->domain = props->domain;
   l->rank = props->rank;
   std::lock_guard<std::mutex> guard(gLockMutex);
   gLocks.insert(l);
   *lock = l;
   return ZEK_OK;
}

void zek_SpinlockDestroy(zek_SpinlockHandle lock) {
   std::string problem;
   {
      std::lock_guard<std::mutex> guard(gLockMutex);
      if (!gLocks.erase(lock)) {
         problem = "destroy of unknown lock";
#if VIGIL_DEBUG_CHECKS
      } else if (lock->holders > 0) {
#else
      } else if (lock->spin.IsHeld()) {
#endif
         /* Keep the memory: the holder still refers to it. */
         problem = "destroy of " + lock->name + " while it is held";
         gRetired.push_back(lock);
      } else {
         delete lock;
         return;
      }
   }
   ReportFailure(problem);
}

#if VIGIL_DEBUG_CHECKS
void zek_SpinlockLock(zek_SpinlockHandle lock) {
   Acquire(lock, LockMode::Exclusive, "lock");
}
void zek_SpinlockUnlock(zek_SpinlockHandle lock) {
   Release(lock, LockMode::Exclusive, "unlock");
}
void zek_SpinlockReadLock(zek_SpinlockHandle lock) {
   Acquire(lock, LockMode::Read, "read lock");
}
void zek_SpinlockReadUnlock(zek_SpinlockHandle lock) {
   Release(lock, LockMode::Read, "read unlock");
}
void zek_SpinlockWriteLock(zek_SpinlockHandle lock) {
   Acquire(lock, LockMode::Write, "write lock");
}
void zek_SpinlockWriteUnlock(zek_SpinlockHandle lock) {
   Release(lock, LockMode::Write, "write unlock");
}
#else
/* An ordinary spinlock is the writer side of the same word, which no
 * reader ever counts in. */
void zek_SpinlockLock(zek_SpinlockHandle lock) { lock->spin.WriteLock(); }
void zek_SpinlockUnlock(zek_SpinlockHandle lock) { lock->spin.ExclusiveUnlock(); }
void zek_SpinlockReadLock(zek_SpinlockHandle lock) { lock->spin.ReadLock(); }
void zek_SpinlockReadUnlock(zek_SpinlockHandle lock) { lock->spin.ReadUnlock(); }
void zek_SpinlockWriteLock(zek_SpinlockHandle lock) { lock->spin.WriteLock(); }
void zek_SpinlockWriteUnlock(zek_SpinlockHandle lock) { lock->spin.ExclusiveUnlock(); }
#endif

} /* extern "C" */
