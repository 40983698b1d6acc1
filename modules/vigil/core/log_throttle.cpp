/*
 * The throttled log.  Everything a frame can make the module log goes to a
 * second handle whose messages the platform first offers to
 * VigilLogThrottleCustom: at most five pass in a window of three seconds,
 * shared by all ports, so a misbehaving VM cannot flood the log.
 */
#include "vigil_log.h"
#include "vigil_locks.h"
#include "vigil_throttle.h"

#define VIGIL_THROTTLE_WINDOW_SECS 3u
#define VIGIL_THROTTLE_MAX_MSGS 5u

VigilThrottleArg vigilThrottleArg;
zek_SpinlockHandle vigilThrottleSpinLock = VIGIL_NO_LOCK;

int VigilLogThrottleCustom(void *arg) {
   VigilThrottleArg *throttle = (VigilThrottleArg *)arg;
   u32 now = (u32)(zek_TimerMonotonicCounter() /
                   zek_GetMonotonicCounterFrequency());
   bool pass;

   zek_SpinlockLock(vigilThrottleSpinLock);
   if ((u32)(now - throttle->windowStart) >= VIGIL_THROTTLE_WINDOW_SECS) {
      throttle->windowStart = now;
      throttle->suppressed = 0;
      throttle->count = 1;
      pass = true;
   } else if (throttle->suppressed) {
      pass = false;
   } else if (throttle->count <= VIGIL_THROTTLE_MAX_MSGS - 1) {
      throttle->count++;
      pass = true;
   } else {
      throttle->suppressed = 1;
      pass = false;
   }
   zek_SpinlockUnlock(vigilThrottleSpinLock);
   return pass;
}

zek_Status VigilLogThrottleInit(void) {
   zek_LogProps props = {};
   zek_Status status = zek_NameFormat(&props.name, "%s", "vigil.throttle");
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("zek_NameFormat failed: %s", zek_StatusToString(status));
      return status;
   }
   props.module = moduleID;
   props.heap = heapID;
   props.defaultLevel = 0;
   props.throttle.type = ZEK_LOG_THROTTLE_CUSTOM;
   props.throttle.fn = VigilLogThrottleCustom;
   props.throttle.arg = &vigilThrottleArg;
   status = zek_LogRegister(&props, &vigilThrottledLogHandle);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("zek_LogRegister failed: %s", zek_StatusToString(status));
      return status;
   }

   zek_SpinlockProps lockProps = {};
   status = zek_NameInitialize(&lockProps.name, "vigil.logThrottle");
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("zek_NameFormat failed: %s", zek_StatusToString(status));
   } else {
      lockProps.module = moduleID;
      lockProps.heap = heapID;
      lockProps.kind = ZEK_SPINLOCK_ORDINARY;
      lockProps.domain = lockDomain;
      lockProps.rank = VIGIL_RANK_LOG_THROTTLE;
      status = zek_SpinlockCreate(&lockProps, &vigilThrottleSpinLock);
      if (status == ZEK_OK) {
         return ZEK_OK;
      }
      vigilThrottleSpinLock = VIGIL_NO_LOCK;
      VIGIL_LOG_ERROR("zek_Spinlock create failed: %s", zek_StatusToString(status));
   }
   zek_LogUnregister(vigilThrottledLogHandle);
   vigilThrottledLogHandle = nullptr;
   return status;
}

void VigilLogThrottleCleanup(void) {
   if (vigilThrottleSpinLock != VIGIL_NO_LOCK) {
      zek_SpinlockDestroy(vigilThrottleSpinLock);
      vigilThrottleSpinLock = VIGIL_NO_LOCK;
   }
   if (vigilThrottledLogHandle != nullptr) {
      zek_LogUnregister(vigilThrottledLogHandle);
      vigilThrottledLogHandle = nullptr;
   }
}
