/*
 * A reader-writer spinlock on one atomic word, with no bookkeeping: what
 * the host's spinlocks are in a build without debug checks.
 *
 * The word holds the number of readers in its low bits, a writer bit and a
 * writer-waiting bit.  A waiting writer stops new readers from coming in,
 * so a stream of readers cannot starve it.  A spinning thread yields the
 * processor now and then, because here a holder can be preempted.
 */
#ifndef SIM_SPINLOCK_H
#define SIM_SPINLOCK_H

#include <atomic>
#include <cstdint>
#include <thread>

namespace sim {

class RwSpinlock {
 public:
   void ReadLock() {
      for (uint32_t spins = 0;; spins++) {
         uint32_t v = word_.load(std::memory_order_relaxed);
         if ((v & (kWriter | kWriterWaiting)) == 0 &&
             word_.compare_exchange_weak(v, v + 1, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
            return;
         }
         Pause(spins);
      }
   }

   void ReadUnlock() { word_.fetch_sub(1, std::memory_order_release); }

   void WriteLock() {
      /* A free word is taken at the first try, with nothing to set up. */
      uint32_t free = 0;
      if (__builtin_expect(word_.compare_exchange_strong(free, kWriter, std::memory_order_acquire,
                                                         std::memory_order_relaxed),
                           1)) {
         return;
      }
      WriteLockSpin();
   }

 private:
   __attribute__((noinline)) void WriteLockSpin() {
      for (uint32_t spins = 0;; spins++) {
         uint32_t v = word_.load(std::memory_order_relaxed);
         if ((v & ~kWriterWaiting) == 0) {
            /* Free: take it, clearing the waiting bit (this writer was the
             * one waiting, or another will set it again). */
            if (word_.compare_exchange_weak(v, kWriter, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
               return;
            }
            continue;
         }
         if ((v & kWriterWaiting) == 0) {
            word_.fetch_or(kWriterWaiting, std::memory_order_relaxed);
         }
         Pause(spins);
      }
   }

 public:
   void WriteUnlock() { word_.fetch_and(~kWriter, std::memory_order_release); }

   /* Ends a hold taken by WriteLock with a plain store instead of a locked
    * operation: while a writer holds the word no reader is counted in it
    * (a reader comes in only when the writer bit is clear), so the word is
    * the writer bit and perhaps the waiting bit.  The waiting bit it clears
    * is set again by a writer that still spins, before its next try. */
   void ExclusiveUnlock() { word_.store(0, std::memory_order_release); }

   /* The names std::lock_guard and std::shared_lock use. */
   void lock() { WriteLock(); }
   void unlock() { WriteUnlock(); }
   void lock_shared() { ReadLock(); }
   void unlock_shared() { ReadUnlock(); }

   /* A writer is waiting for the holders to leave (for tests). */
   bool WriterWaiting() const {
      return (word_.load(std::memory_order_relaxed) & kWriterWaiting) != 0;
   }

   /* Held in any mode by anyone (for reports, not for decisions). */
   bool IsHeld() const {
      return (word_.load(std::memory_order_relaxed) & ~kWriterWaiting) != 0;
   }

 private:
   static constexpr uint32_t kWriter = 1u << 31;
   static constexpr uint32_t kWriterWaiting = 1u << 30;

   static void Pause(uint32_t spins) {
      if ((spins & 63) == 63) {
         std::this_thread::yield();
      } else {
#if defined(__x86_64__) || defined(__i386__)
         __builtin_ia32_pause();
#endif
      }
   }

   std::atomic<uint32_t> word_{0};
};

} // namespace sim

#endif /* SIM_SPINLOCK_H */
