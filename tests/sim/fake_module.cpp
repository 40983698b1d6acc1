/*
 * A tiny loadable module for the loader's tests.  init_module makes a heap
 * sized by the heap parameters, takes one block from it and subscribes to
 * the "fake.ping" event; cleanup_module undoes all of it, except that on a
 * live upgrade the block is handed over (left allocated) and shows up as a
 * leak of the destroyed heap.
 */
#include "zek.h"

#define FAKE_EXPORT extern "C" __attribute__((visibility("default")))

#define FAKE_VISIBLE __attribute__((visibility("default")))

extern "C" {
FAKE_VISIBLE int VIGIL_HEAP_MIN_SIZE = 4096;
FAKE_VISIBLE int VIGIL_HEAP_MAX_SIZE = 65536;
FAKE_VISIBLE bool isLiveUpgrade = false;

/* What the tests read back through ModuleSymbol. */
FAKE_VISIBLE int fakePings = 0;
FAKE_VISIBLE void *fakeLastPingData = nullptr;
}

static zek_HeapID gHeap;
static void *gBlock;
static zek_NetEventHandle gPing;

static zek_Status OnPing(void *, const char *, void *cbData, void *eventData) {
   if (cbData == &fakePings) {
      fakePings++;
      fakeLastPingData = eventData;
   }
   return ZEK_OK;
}

FAKE_EXPORT int init_module(void) {
   zek_HeapProps props = {};
   if (zek_NameInitialize(&props.name, "fake") != ZEK_OK) return -1;
   props.module = zek_ModuleCurrentID();
   props.minSize = static_cast<uint32_t>(VIGIL_HEAP_MIN_SIZE);
   props.maxSize = static_cast<uint32_t>(VIGIL_HEAP_MAX_SIZE);
   if (zek_HeapCreate(&props, &gHeap) != ZEK_OK) return -2;
   gBlock = zek_HeapAllocWithRA(gHeap, 48, __builtin_return_address(0));
   if (gBlock == nullptr ||
       zek_NetEventPortsetEventSubscribe(0, "fake.ping", OnPing, &fakePings,
                                         &gPing) != ZEK_OK) {
      zek_HeapFree(gHeap, gBlock);
      zek_HeapDestroy(gHeap);
      return -3;
   }
   return 0;
}

FAKE_EXPORT void cleanup_module(void) {
   zek_NetEventPortsetEventUnsubscribe(gPing);
   if (!isLiveUpgrade) zek_HeapFree(gHeap, gBlock);
   zek_HeapDestroy(gHeap);
}

/* Subscribes once more and forgets the handle: a callback left behind. */
FAKE_EXPORT void fake_forget_subscription(void) {
   zek_NetEventHandle lost;
   zek_NetEventPortsetEventSubscribe(0, "fake.lost", OnPing, &fakePings, &lost);
}
