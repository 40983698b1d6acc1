/*
 * Module-wide globals and the module heap.
 */
#ifndef VIGIL_MODULE_H
#define VIGIL_MODULE_H

#include "vigil_exports.h"
#include "vigil_types.h"

extern zek_ModuleID moduleID;          /* all ones before start */
extern zek_HeapID heapID;              /* the module heap */
extern zek_LogHandle logHandle;        /* the plain log "vigil" */
extern zek_LogHandle vigilThrottledLogHandle;
extern zek_LockDomainID lockDomain;    /* all ones before start */
extern u64 ppPktAttrHandle;            /* Pathprobe frame attribute */
extern u64 ppPktAttrRegHandle;

#define VIGIL_INVALID_LOCK_DOMAIN ((zek_LockDomainID)(~(uintptr_t)0))
#define VIGIL_PP_PKT_ATTR_ID 0x3e8f6798adcf2307ull

/* Whole seconds of uptime: the clock of every expiry in the databases. */
i64 Vigil_UptimeSecs(void);

/* Allocates from the module heap and zero-fills. */
void *Vigil_HeapAlloc(u32 size);
void Vigil_HeapFree(void *ptr);

/* Creates one of the module's locks, named, in its lock domain.  The status
 * of whichever step failed is returned. */
VIGIL_MUST_CHECK zek_Status VigilCreateLock(const char *name, u32 kind, u32 rank,
                           zek_SpinlockHandle *lock);

#endif /* VIGIL_MODULE_H */
