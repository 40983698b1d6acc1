/*
 * Heaps of the simulated host.  Every block is its own malloc'd allocation so
 * that AddressSanitizer sees overruns and use after free; the heap keeps the
 * size and caller of each live block for accounting and leak reports.
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "sim_switch_internal.h"

struct zek_Heap {
   std::string name;
   uint32_t minSize;
   uint32_t maxSize; /* 0: no limit */
   uint64_t created; /* point in the heap history (HeapMark) */
   const void *owner; /* the object whose code created it */
   struct Block {
      uint32_t size;
      const void *caller;
      uint64_t seq; /* allocation order, for a stable leak report */
   };
   std::unordered_map<void *, Block> live;
   std::unordered_set<void *> freed; /* to tell a double free from a stray one */
   sim::HeapStats stats{};
};

namespace sim {
namespace {

std::mutex gHeapMutex;
std::unordered_set<zek_Heap *> gHeaps;
std::vector<HeapLeak> gLastLeaks;
uint64_t gLeaksSinceReset;
uint64_t gAllocSeq;
/* FaultAlloc: allocations to let through, then allocations to fail. */
uint32_t gAllocSkip;
uint32_t gAllocFail;
/* Allocations asked of a known heap, failed ones included. */
uint64_t gAllocTried;
/* Heap history: creations and destructions are numbered in one sequence
 * that Reset does not restart, so that a mark stays comparable. */
uint64_t gHeapEvents;
struct DestroyedHeap {
   uint64_t event;
   uint64_t leaks;
   uint64_t bytes;
   const void *owner;
};
std::vector<DestroyedHeap> gDestroyed;

std::string PtrText(const void *p) {
   char buf[32];
   std::snprintf(buf, sizeof buf, "%p", p);
   return buf;
}

void FreeHeap(zek_Heap *heap) {
   for (auto &entry : heap->live) {
      std::free(entry.first);
   }
   delete heap;
}

void ResetHeaps() {
   std::lock_guard<std::mutex> guard(gHeapMutex);
   for (zek_Heap *heap : gHeaps) {
      FreeHeap(heap);
   }
   gHeaps.clear();
   gLastLeaks.clear();
   gLeaksSinceReset = 0;
   gDestroyed.clear();
   gAllocSeq = 0;
   gAllocSkip = 0;
   gAllocFail = 0;
   gAllocTried = 0;
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetHeaps); }
} gRegistrar;

/* Consumes one allocation from the FaultAlloc plan; true when it must fail. */
bool AllocFaultNow() {
   gAllocTried++;
   if (gAllocFail == 0) {
      return false;
   }
   if (gAllocSkip > 0) {
      gAllocSkip--;
      return false;
   }
   gAllocFail--;
   return true;
}

} // namespace

void FaultAlloc(uint32_t n, uint32_t count) {
   std::lock_guard<std::mutex> guard(gHeapMutex);
   if (n == 0 || count == 0) {
      gAllocSkip = 0;
      gAllocFail = 0;
      return;
   }
   gAllocSkip = n - 1;
   gAllocFail = count;
}

uint64_t AllocationsTried() {
   std::lock_guard<std::mutex> guard(gHeapMutex);
   return gAllocTried;
}

HeapStats GetHeapStats(zek_HeapID heap) {
   std::lock_guard<std::mutex> guard(gHeapMutex);
   return gHeaps.count(heap) ? heap->stats : HeapStats{};
}

std::vector<HeapLeak> LastHeapLeaks() {
   std::lock_guard<std::mutex> guard(gHeapMutex);
   return gLastLeaks;
}

uint64_t LeaksSinceReset() {
   std::lock_guard<std::mutex> guard(gHeapMutex);
   return gLeaksSinceReset;
}

uint64_t HeapMark() {
   std::lock_guard<std::mutex> guard(gHeapMutex);
   return gHeapEvents;
}

HeapLeakTotals HeapLeaksSince(uint64_t mark, const void *owner) {
   std::lock_guard<std::mutex> guard(gHeapMutex);
   HeapLeakTotals totals{};
   for (const DestroyedHeap &d : gDestroyed) {
      if (d.event > mark && (owner == nullptr || d.owner == owner)) {
         totals.leaks += d.leaks;
         totals.bytes += d.bytes;
      }
   }
   for (zek_Heap *heap : gHeaps) {
      if (heap->created > mark && (owner == nullptr || heap->owner == owner)) {
         totals.heapsLive++;
      }
   }
   return totals;
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_HeapCreate(const zek_HeapProps *props, zek_HeapID *heap) {
   const void *owner = ObjectOf(__builtin_return_address(0));
   SIM_FAULT_RETURN("HeapCreate");
   if (props == nullptr || heap == nullptr) {
      return kBadParam;
   }
   if (props->maxSize != 0 && props->minSize > props->maxSize) {
      return kBadParam;
   }
   auto *h = new zek_Heap;
   h->name.assign(props->name.string,
                  strnlen(props->name.string, ZEK_NAME_MAX));
   h->minSize = props->minSize;
   h->maxSize = props->maxSize;
   h->owner = owner;
   std::lock_guard<std::mutex> guard(gHeapMutex);
   h->created = ++gHeapEvents;
   gHeaps.insert(h);
   *heap = h;
   return ZEK_OK;
}

void zek_HeapDestroy(zek_HeapID heap) {
   std::unique_lock<std::mutex> guard(gHeapMutex);
   if (!gHeaps.count(heap)) {
      guard.unlock();
      ReportFailure("heap destroy of unknown heap " + PtrText(heap));
      return;
   }
   gHeaps.erase(heap);
   std::vector<std::pair<uint64_t, HeapLeak>> leaks;
   for (auto &entry : heap->live) {
      leaks.push_back({entry.second.seq,
                       HeapLeak{entry.second.size, entry.second.caller}});
   }
   std::sort(leaks.begin(), leaks.end(),
             [](const auto &a, const auto &b) { return a.first < b.first; });
   gLastLeaks.clear();
   for (auto &leak : leaks) {
      gLastLeaks.push_back(leak.second);
   }
   gLeaksSinceReset += leaks.size();
   gDestroyed.push_back(
      DestroyedHeap{++gHeapEvents, leaks.size(), heap->stats.inUse, heap->owner});
   FreeHeap(heap);
}

void *zek_HeapAllocWithRA(zek_HeapID heap, uint32_t size, const void *ra) {
   zek_Status ignored;
   if (AnyCallFaultArmed() && FaultCheck("HeapAllocWithRA", &ignored)) {
      return nullptr;
   }
   std::unique_lock<std::mutex> guard(gHeapMutex);
   if (!gHeaps.count(heap)) {
      guard.unlock();
      ReportFailure("heap alloc from unknown heap " + PtrText(heap));
      return nullptr;
   }
   if (AllocFaultNow()) {
      return nullptr;
   }
   if (heap->maxSize != 0 && heap->stats.inUse + size > heap->maxSize) {
      return nullptr;
   }
   void *p = std::malloc(size != 0 ? size : 1);
   if (p == nullptr) {
      return nullptr;
   }
   heap->live[p] = zek_Heap::Block{size, ra, gAllocSeq++};
   heap->freed.erase(p);
   HeapStats &s = heap->stats;
   s.inUse += size;
   s.allocations++;
   s.totalAllocs++;
   s.peak = std::max(s.peak, s.inUse);
   return p;
}

void zek_HeapFree(zek_HeapID heap, void *ptr) {
   if (ptr == nullptr) {
      return;
   }
   std::string problem;
   {
      std::lock_guard<std::mutex> guard(gHeapMutex);
      if (!gHeaps.count(heap)) {
         problem = "heap free of " + PtrText(ptr) + " into unknown heap " +
                   PtrText(heap);
      } else if (auto it = heap->live.find(ptr); it != heap->live.end()) {
         heap->stats.inUse -= it->second.size;
         heap->stats.allocations--;
         heap->live.erase(it);
         heap->freed.insert(ptr);
         std::free(ptr);
         return;
      } else if (heap->freed.count(ptr)) {
         problem = "heap " + heap->name + ": double free of " + PtrText(ptr);
      } else {
         problem = "heap " + heap->name + ": free of unknown pointer " +
                   PtrText(ptr);
      }
   }
   ReportFailure(problem);
}

} /* extern "C" */
