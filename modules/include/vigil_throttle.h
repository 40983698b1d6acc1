/*
 * The throttle of the throttled log, and the module's lock ranks.
 */
#ifndef VIGIL_THROTTLE_H
#define VIGIL_THROTTLE_H

#include "vigil_types.h"

/* Lock ranks: a lock may be taken only while holding locks of lower rank. */
#define VIGIL_RANK_CONFIG 1
#define VIGIL_RANK_FAB_CLIENT 2
#define VIGIL_RANK_RATE_LIMIT 3
#define VIGIL_RANK_AGING_Q 4
#define VIGIL_RANK_CP_WORLD_Q 5
#define VIGIL_RANK_LOG_THROTTLE 6
#define VIGIL_RANK_RETIRED_FILTERS 7

/* A lock handle that names no lock. */
#define VIGIL_NO_LOCK ((zek_SpinlockHandle)(~(uintptr_t)0))

struct VigilThrottleArg {
   u64 count;       /* messages let through in the current window */
   u32 windowStart; /* whole seconds of the monotonic counter */
   u8 suppressed;   /* 1 once the window is used up */
};

extern VigilThrottleArg vigilThrottleArg;
extern zek_SpinlockHandle vigilThrottleSpinLock;

int VigilLogThrottleCustom(void *arg);
zek_Status VigilLogThrottleInit(void);
void VigilLogThrottleCleanup(void);

#endif /* VIGIL_THROTTLE_H */
