/*
 * Finding a port's filter and taking its configuration lock.
 *
 * The filter pointer lives in the port's data slot; there is no port lock,
 * so the "port and filter" helpers take the filter's lock alone.
 */
#include "oxa.h"
#include "vigil_atomic.h"
#include "vigil_debug.h"
#include "vigil_filter.h"
#include "vigil_module.h"

static inline VigilFilter *VigilPortFilter(u32 portID) {
   void *value = nullptr;
   if (oxa_PortVoltaliteDataGet(portID, VIGIL_FILTER_SLOT, &value) != ZEK_OK) {
      return nullptr;
   }
   return (VigilFilter *)value;
}

VigilFilter *Vigil_GetPortFilter(u32 portID) {
   return VigilPortFilter(portID);
}

VigilFilter *Vigil_LockFilter(u32 portID, bool forWrite) {
   VigilFilter *filter = VigilPortFilter(portID);
   if (filter == nullptr) {
      return nullptr;
   }
   if (forWrite) {
      zek_SpinlockWriteLock(filter->configLock);
      filter->configWriteHeld = 1;
   } else {
      zek_SpinlockReadLock(filter->configLock);
#if VIGIL_DEBUG_CHECKS
      VigilAtomicAdd(&filter->configReadHolds, 1u);
#endif
   }
   return filter;
}

void Vigil_UnlockFilter(VigilFilter *filter, bool forWrite) {
   if (forWrite) {
      filter->configWriteHeld = 0;
      zek_SpinlockWriteUnlock(filter->configLock);
   } else {
#if VIGIL_DEBUG_CHECKS
      VIGIL_ASSERT(VigilAtomicLoad(&filter->configReadHolds) != 0);
      VigilAtomicAdd(&filter->configReadHolds, (u32)-1);
#endif
      zek_SpinlockReadUnlock(filter->configLock);
   }
}

VigilFilter *Vigil_LockPortAndFilter(u32 portID, bool forWrite) {
   return Vigil_LockFilter(portID, forWrite);
}

void Vigil_UnlockPortAndFilter(VigilFilter *filter, bool forWrite) {
   Vigil_UnlockFilter(filter, forWrite);
}

/* Gives up the read hold and takes the write lock.  The filter is looked up
 * again through the port: anything read before may have changed. */
VigilFilter *Vigil_RelockFilterForWrite(VigilFilter *filter) {
   u32 portID = filter->portID;
   Vigil_UnlockFilter(filter, false);
   return Vigil_LockFilter(portID, true);
}

#if VIGIL_DEBUG_CHECKS
void VigilCheckFilterIsLocked(VigilFilter *filter, bool forWrite) {
   if (forWrite && filter->configWriteHeld != 1) {
      zek_PanicWithModuleID(moduleID, "Filter %#x not locked for write",
                            filter->portID);
   }
   /* A read hold is not tied to a thread: this tells that some batch holds
    * the lock for read, or that it is held for write. */
   if (!forWrite && filter->configWriteHeld != 1 &&
       VigilAtomicLoad(&filter->configReadHolds) == 0) {
      zek_PanicWithModuleID(moduleID, "Filter %#x not locked", filter->portID);
   }
}
#endif

VigilFilter *Vigil_LockPsPortAndFilter(u32 portID, bool forWrite,
                                       zek_PortsetHandle *portset) {
   *portset = nullptr;
   if (zek_PortsetAcquireByPortID(portID, 1, portset) != ZEK_OK) {
      *portset = nullptr;
      return nullptr;
   }
   VigilFilter *filter = Vigil_LockPortAndFilter(portID, forWrite);
   if (filter == nullptr) {
      zek_PortsetRelease(*portset);
      *portset = nullptr;
   }
   return filter;
}

zek_Status Vigil_UnlockPsPortFilter(VigilFilter *filter, bool forWrite,
                                    zek_PortsetHandle portset) {
   Vigil_UnlockPortAndFilter(filter, forWrite);
   return zek_PortsetRelease(portset);
}
