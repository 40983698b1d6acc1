/*
 * Module-wide globals and the module heap.
 */
#include <cstring>

#include "vigil_module.h"

zek_ModuleID moduleID = ~0u;
zek_HeapID heapID = nullptr;
zek_LogHandle logHandle = nullptr;
zek_LogHandle vigilThrottledLogHandle = nullptr;
zek_LockDomainID lockDomain = VIGIL_INVALID_LOCK_DOMAIN;
u64 ppPktAttrHandle = 0;
u64 ppPktAttrRegHandle = 0;
u8 isLiveUpgradeFromMod = 0;

i64 Vigil_UptimeSecs(void) {
   zek_Uptime now;
   zek_GetUptime(&now);
   return now.sec;
}

void *Vigil_HeapAlloc(u32 size) {
   void *ptr = zek_HeapAllocWithRA(heapID, size, __builtin_return_address(0));
   if (ptr != nullptr) {
      memset(ptr, 0, size);
   }
   return ptr;
}

void Vigil_HeapFree(void *ptr) {
   if (ptr != nullptr) {
      zek_HeapFree(heapID, ptr);
   }
}

zek_Status VigilCreateLock(const char *name, u32 kind, u32 rank,
                           zek_SpinlockHandle *lock) {
   zek_SpinlockProps props;
   memset(&props, 0, sizeof props);
   zek_Status status = zek_NameInitialize(&props.name, name);
   if (status != ZEK_OK) {
      return status;
   }
   props.module = moduleID;
   props.heap = heapID;
   props.kind = kind;
   props.domain = lockDomain;
   props.rank = rank;
   return zek_SpinlockCreate(&props, lock);
}
