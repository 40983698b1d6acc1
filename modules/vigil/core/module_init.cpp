/*
 * Module start and stop.  init_module brings up, in a fixed order, the heap,
 * the log, the lock domain, the two worlds, the migration code, the switch
 * clients, the throttled log, the management interface and the live-upgrade
 * subscription; a failure undoes what was done.  cleanup_module takes every
 * filter down first, then the rest in the opposite order.
 */
#include <cstring>

#include "vigil_lifecycle.h"
#include "vigil_log.h"
#include "vigil_switch.h"
#include "vigil_throttle.h"
#include "vigil_workers.h"

#define VIGIL_MODULE_NAME_LEN 32
#define VIGIL_ULM_VERSION "6.7"

/* Module parameters, set by the loader before init_module. */
extern "C" {
VIGIL_EXPORT int VIGIL_HEAP_MIN_SIZE = 4096;
VIGIL_EXPORT int VIGIL_HEAP_MAX_SIZE = 1073741824;
VIGIL_EXPORT bool isLiveUpgrade = false;
}

/* Steps 1 to 8: heap, log, lock domain, worlds, migration, frame attribute
 * and switch clients.  Any failure runs the generic clean-up. */
VIGIL_MUST_CHECK static zek_Status VigilGenericInit(void) {
   moduleID = zek_ModuleCurrentID();
   char name[VIGIL_MODULE_NAME_LEN];
   memset(name, 0, sizeof name);
   zek_HeapProps heapProps;
   memset(&heapProps, 0, sizeof heapProps);
   zek_Status status = zek_ModuleGetName(moduleID, name, sizeof name);
   if (status == ZEK_OK) {
      status = zek_NameInitialize(&heapProps.name, name);
   }
   if (status == ZEK_OK) {
      heapProps.module = moduleID;
      heapProps.minSize = (u32)VIGIL_HEAP_MIN_SIZE;
      heapProps.maxSize = (u32)VIGIL_HEAP_MAX_SIZE;
      status = zek_HeapCreate(&heapProps, &heapID);
   }
   if (status == ZEK_OK) {
      status = zek_ModuleSetHeapID(moduleID, heapID);
   }
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Failed to create heap (%#x): %s", status,
                      zek_StatusToString(status));
      return status;
   }

   zek_LogProps logProps;
   memset(&logProps, 0, sizeof logProps);
   status = zek_NameInitialize(&logProps.name, "vigil");
   logProps.module = moduleID;
   logProps.heap = heapID;
   logProps.defaultLevel = 0;
   if (status == ZEK_OK) {
      status = zek_LogRegister(&logProps, &logHandle);
   }
   if (status != ZEK_OK) {
      logHandle = nullptr;
      VIGIL_LOG_ERROR("Failed to allocate log handle (%#x): %s", status,
                      zek_StatusToString(status));
      return status;
   }

   zek_Name domainName;
   status = zek_NameInitialize(&domainName, "vigil");
   if (status == ZEK_OK) {
      status = zek_LockDomainCreate(moduleID, heapID, &domainName, &lockDomain);
   }
   if (status != ZEK_OK) {
      lockDomain = VIGIL_INVALID_LOCK_DOMAIN;
      VIGIL_LOG_ERROR("Failed to create lock domain (%#x): %s", status,
                      zek_StatusToString(status));
      return status;
   }
   status = Vigil_FilterLifecycleInit();
   if (status != ZEK_OK) {
      return status;
   }

   status = VigilAgingWorldInit();
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Unable to init Aging World: %s", zek_StatusToString(status));
      return status;
   }
   status = VigilCPWorldInit();
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Unable to init CPWorld: %s", zek_StatusToString(status));
      return status;
   }
   status = VigilMigrationInit();
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Unable to init Migration module: %s", zek_StatusToString(status));
      return status;
   }
   ppPktAttrHandle = VIGIL_PP_PKT_ATTR_ID;
   ppPktAttrRegHandle = VIGIL_PP_PKT_ATTR_ID;
   return Vigil_FabClientInit();
}

extern "C" VIGIL_EXPORT int init_module(void) {
   if (VigilGenericInit() != ZEK_OK) {
      VigilGenericCleanup();
      return 1;
   }
   if (VigilLogThrottleInit() != ZEK_OK) {
      Vigil_FabClientCleanup();
      VigilGenericCleanup();
      return 1;
   }
   if (VigilMgmtIntfInit() != ZEK_OK) {
      VigilLogThrottleCleanup();
      Vigil_FabClientCleanup();
      VigilGenericCleanup();
      return 1;
   }
   if (VigilRtmSubscribe() != ZEK_OK) {
      (void)VigilMgmtIntfCleanup(); /* undoing a start: nothing more to do */
      VigilLogThrottleCleanup();
      Vigil_FabClientCleanup();
      VigilGenericCleanup();
      return 1;
   }
   VIGIL_LOG_INFO("Port Vigil module init for ULM %s completed, isLiveUpgrade: %s",
                  VIGIL_ULM_VERSION, isLiveUpgrade ? "True" : "False");
   return 0;
}

extern "C" VIGIL_EXPORT void cleanup_module(void) {
   VIGIL_LOG_INFO("Starting Cleanup");
   /* Stop goes on whatever each step says: each logs its own failures. */
   (void)Vigil_CleanupFilters();
   (void)VigilRtmUnsubscribe();
   (void)VigilMgmtIntfCleanup();
   VigilLogThrottleCleanup();
   Vigil_FabClientCleanup();
   VigilGenericCleanup();
}

void VigilGenericCleanup(void) {
   VIGIL_LOG_INFO("Starting VigilGenericCleanup");
   if (VigilCPWorldDestroy() != ZEK_OK) {
      VIGIL_LOG_ERROR("Error destroying CPWorld");
   }
   if (VigilAgingWorldDestroy() != ZEK_OK) {
      VIGIL_LOG_ERROR("Error destroying Aging World");
   }
   Vigil_FilterLifecycleCleanup();
   if (lockDomain != VIGIL_INVALID_LOCK_DOMAIN) {
      zek_LockDomainDestroy(lockDomain);
      lockDomain = VIGIL_INVALID_LOCK_DOMAIN;
   }
   if (logHandle != nullptr) {
      zek_LogUnregister(logHandle);
      logHandle = nullptr;
   }
   if (heapID != nullptr) {
      zek_HeapDestroy(heapID);
      heapID = nullptr;
   }
   if (ppPktAttrRegHandle != 0) {
      ppPktAttrRegHandle = 0;
   }
}
