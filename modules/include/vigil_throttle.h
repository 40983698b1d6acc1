/*
 * The throttle of the throttled log.
 */
#ifndef VIGIL_THROTTLE_H
#define VIGIL_THROTTLE_H

#include "vigil_types.h"

struct VigilThrottleArg {
   u64 count;       /* messages let through in the current window */
   u32 windowStart; /* whole seconds of the monotonic counter */
   u8 suppressed;   /* 1 once the window is used up */
};

extern VigilThrottleArg vigilThrottleArg;
extern zek_SpinlockHandle vigilThrottleSpinLock;

int VigilLogThrottleCustom(void *arg);
VIGIL_MUST_CHECK zek_Status VigilLogThrottleInit(void);
void VigilLogThrottleCleanup(void);

#endif /* VIGIL_THROTTLE_H */
