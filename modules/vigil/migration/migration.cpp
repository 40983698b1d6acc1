/*
 * The migration carriers: Transit per portset and the live-upgrade service
 * (RTM), each a thin shell around the save and restore paths.
 *
 * Transit is registered per portset by switch client registration, with a
 * table of four operations.  RTM lives in a sibling module: the module
 * subscribes to its event at start, and when the service announces itself
 * registers a client with a table of thirteen slots, six of them used.  The
 * two tables give the same state in the same layout; they differ in what
 * they log, in the size query (RTM asks whether the port is enabled and
 * answers through a pointer) and in an empty restore (RTM returns at once).
 *
 * The flags of a live upgrade: isLiveUpgrade (a load parameter) marks the
 * incoming copy, isLiveUpgradeFromMod (set by preDualLoad) the outgoing
 * one; a withdrawal of the service clears both.  They are plain bytes.
 */
#include "rtm.h"
#include "vigil_lifecycle.h"
#include "vigil_log.h"
#include "vigil_migration.h"
#include "vigil_switch.h"

#define VIGIL_TRANSIT_CLIENT_NAME "com.norvex.vigil.transit"

u32 saveVersion = 0;
u32 supportedTlvs = 0;

const char *vigilRtmClientName = "port-vigil";
oxa_RtmClientHandle vigilRtmClient = nullptr;
zek_NetEventHandle vigilRtmEventHandle = nullptr;
/* Offered to the subscription; the service's own record comes as the
 * event's data.  Never written. */
oxa_RtmEventData vigilRtmEventData;

/* Slots 7 to 13 stay null. */
const oxa_RtmClientOps vigilRtmOps = {
   .prefetch = VigilRtmPrefetch,
   .getSize = VigilRtmGetSize,
   .save = VigilRtmSave,
   .restore = VigilRtmRestore,
   .completed = VigilRtmCompleted,
   .preDualLoad = VigilRtmPreDualLoad,
   .unused = {},
};

const zek_FABTransitOps transitStateOps = {
   .getSize = VigilTransitGetSize,
   .save = VigilTransitSave,
   .restore = VigilTransitRestore,
   .completed = VigilTransitCompleted,
};

zek_Status VigilMigrationInit(void) {
   saveVersion = VIGIL_SAVE_VERSION_TLV;
   supportedTlvs |= VIGIL_SUPPORTED_TLVS;
   return ZEK_OK;
}

/* ------------------------------------------------------------------ RTM */

zek_Status VigilRtmSubscribe(void) {
   VIGIL_LOG_VERBOSE(0, "Vigil Subscribing to RTM Event");
   zek_Status status =
      zek_NetEventPortsetEventSubscribe(0, OXA_RTM_CLIENT_REG_UNREG, VigilRtmRegUnregEventCB,
                                        &vigilRtmEventData, &vigilRtmEventHandle);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "Vigil Failed to register RTM callback");
   }
   return status;
}

zek_Status VigilRtmUnsubscribe(void) {
   VIGIL_LOG_VERBOSE(0, "Vigil Unsubscribing to RTM Event");
   if (vigilRtmEventHandle == nullptr) {
      return ZEK_OK;
   }
   zek_Status status = zek_NetEventPortsetEventUnsubscribe(vigilRtmEventHandle);
   if (status == ZEK_OK) {
      vigilRtmEventHandle = nullptr;
   } else {
      VIGIL_LOG_ERROR_CODE(status, "Vigil Failed to unsubscribe to event OXA_RTM_CLIENT_REG_UNREG");
   }
   return status;
}

/* The service announced itself: register the client, unless it is of
 * another build.  A version newer than ours still registers, without a
 * table. */
VIGIL_MUST_CHECK static zek_Status VigilRtmRegisterClient(const oxa_RtmEventData *event) {
   VIGIL_LOG_VERBOSE(0, "RTM Register Event");
   const oxa_RtmClientOps *ops = &vigilRtmOps;
   if (event->version > OXA_RTM_VERSION) {
      VIGIL_LOG_VERBOSE(0, "Unsupported RTM Version %d", event->version);
      ops = nullptr;
   }
   if (event->version >= 1 && event->buildNum != OXA_BUILD_NUMBER) {
      VIGIL_LOG_VERBOSE(0, "Vigil build %u eventData->buildNum %udo not match, Skip registration for %s",
                        OXA_BUILD_NUMBER, event->buildNum, vigilRtmClientName);
      return ZEK_OK;
   }
   oxa_RtmClientRegisterFn registerClient = event->clientCallback.registerClient;
   if (registerClient == nullptr) {
      VIGIL_LOG_ERROR_CODE(7u, "Registration function is NULL, cannot register");
      return VIGIL_STATUS_BAD_PARAM;
   }
   zek_ModuleID savedID;
   zek_Status status =
      zek_ModulePushId(event->moduleId, (void *)registerClient, &savedID);
   if (status == ZEK_OK) {
      status = registerClient(moduleID, vigilRtmClientName, ops, &vigilRtmClient);
      zek_ModulePopId();
   }
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "RTM Register Event : Register CB Failed");
   }
   return status;
}

/* The service withdrew: the upgrade is over either way, and the client
 * goes if it was registered. */
VIGIL_MUST_CHECK static zek_Status VigilRtmUnregisterClient(const oxa_RtmEventData *event) {
   VIGIL_LOG_VERBOSE(0, "RTM Unregister Event");
   isLiveUpgrade = false;
   isLiveUpgradeFromMod = 0;
   if (vigilRtmClient == nullptr) {
      VIGIL_LOG_VERBOSE(0, "Client: %s not registered with RTM, SKIP unregister",
                        vigilRtmClientName);
      return ZEK_OK;
   }
   oxa_RtmClientUnregisterFn unregisterClient = event->clientCallback.unregisterClient;
   if (unregisterClient == nullptr) {
      VIGIL_LOG_VERBOSE(0, "Event data Unreg pointer is NULL");
      return VIGIL_STATUS_BAD_PARAM;
   }
   zek_ModuleID savedID;
   zek_Status status =
      zek_ModulePushId(event->moduleId, (void *)unregisterClient, &savedID);
   if (status == ZEK_OK) {
      status = unregisterClient(vigilRtmClient);
      zek_ModulePopId();
   }
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "RTM Unregister Event : Unregister CB Failed");
      return status;
   }
   vigilRtmClient = nullptr;
   return ZEK_OK;
}

zek_Status VigilRtmRegUnregEventCB(void *ctx, const char *eventName, void *cbData,
                                   void *eventData) {
   (void)ctx, (void)eventName, (void)cbData;
   VIGIL_LOG_VERBOSE(0, "vigilBuild %u ", OXA_BUILD_NUMBER);
   const oxa_RtmEventData *event = (const oxa_RtmEventData *)eventData;
   if (event == nullptr) {
      VIGIL_LOG_VERBOSE(0, "RTM Event data is NULL");
      return VIGIL_STATUS_BAD_PARAM;
   }
   if (event->isUnregister == 0) {
      return VigilRtmRegisterClient(event);
   }
   return VigilRtmUnregisterClient(event);
}

zek_Status VigilRtmPreDualLoad(void) {
   VIGIL_LOG_VERBOSE(1, "Vigil in RTM Pre Dual Load");
   isLiveUpgradeFromMod = 1;
   return ZEK_OK;
}

zek_Status VigilRtmPrefetch(void *ctx, zek_PortID portID) {
   (void)ctx;
   VIGIL_LOG_VERBOSE(2, "Vigil In RTM Prefetch, Port: 0x%x", portID);
   return ZEK_OK;
}

zek_Status VigilRtmGetSize(void *ctx, zek_PortID portID, u32 *size) {
   (void)ctx;
   VIGIL_LOG_VERBOSE(1, "Vigil getting size of RTM data, Port: 0x%x", portID);
   int enabled = 0;
   zek_Status status = zek_PortFlagIsSet(portID, ZEK_PORT_FLAG_ENABLED, &enabled);
   if (status != ZEK_OK) {
      VIGIL_LOG_VERBOSE(0, "Failed to get the port[%#x] status", portID);
      return status;
   }
   if (!enabled) {
      VIGIL_LOG_VERBOSE(0, "Port[%#x] is not enabled", portID);
      *size = 0;
      return ZEK_OK;
   }
   VigilFilter *filter = Vigil_LockPortAndFilter(portID, false);
   if (filter == nullptr) {
      VIGIL_LOG_VERBOSE(0, "Vigil Invalid Port ID, Port: 0x%x", portID);
      *size = 0;
      return ZEK_OK;
   }
   *size = VigilGetFilterSaveLen(filter);
   Vigil_UnlockPortAndFilter(filter, false);
   return ZEK_OK;
}

zek_Status VigilRtmSave(void *ctx, zek_PortID portID, void *buf, u32 bufLen, u32 *dataLen,
                        u64 reserved) {
   (void)ctx;
   VIGIL_LOG_VERBOSE(1, "Vigil saving RTM data, Port: 0x%x", portID);
   zek_Status status = VigilMigrationSave(portID, buf, bufLen, dataLen, reserved);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "Vigil Save for RTM failed, Port: 0x%x", portID);
   }
   return status;
}

zek_Status VigilRtmRestore(void *ctx, zek_PortID portID, const void *buf, u32 bufLen,
                           u64 elapsedMS) {
   (void)ctx;
   VIGIL_LOG_VERBOSE(1, "Vigil Restoring RTM data, Port: 0x%x", portID);
   if (bufLen == 0) {
      return ZEK_OK;
   }
   zek_Status status = VigilMigrationRestore(portID, buf, bufLen, elapsedMS);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "Vigil Restore for RTM failed, Port: 0x%x", portID);
   }
   return status;
}

void VigilRtmCompleted(void *ctx, bool isCrossHost, zek_Status status) {
   (void)ctx;
   VIGIL_LOG_VERBOSE(1, "Vigil In RTM completed, isCrossHost: %s, type : %s",
                     isCrossHost ? "True" : "False", zek_StatusToString(status));
}

/* -------------------------------------------------------------- Transit */

zek_Status Vigil_TransitRegister(const char *portsetName, VigilFabClientHandles *client) {
   VIGIL_LOG_INFO("Vigil Registering TRANSIT CBs for ps %s", portsetName);
   zek_Status status = zek_FABTransitClientRuntimeRegister(
      portsetName, VIGIL_TRANSIT_CLIENT_NAME, &transitStateOps, &client->transitHandle);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "Failed to register transit callback for ps %s",
                           portsetName);
   }
   return status;
}

zek_Status Vigil_TransitUnregister(VigilFabClientHandles *client) {
   VIGIL_LOG_INFO("Vigil Unegistering TRANSIT CBs for ps %s", client->portsetName);
   zek_Status status = ZEK_OK;
   if (client->transitHandle != nullptr) {
      status = zek_FABTransitClientRuntimeUnregister(client->transitHandle);
      client->transitHandle = nullptr;
   }
   return status;
}

u32 VigilTransitGetSize(zek_PortID portID) {
   VIGIL_LOG_INFO("Vigil getting size of TRANSIT data, Port: 0x%x", portID);
   VigilFilter *filter = Vigil_LockPortAndFilter(portID, false);
   if (filter == nullptr) {
      VIGIL_LOG_INFO("Vigil Invalid Port ID, Port: 0x%x", portID);
      return 0;
   }
   u32 size = VigilGetFilterSaveLen(filter);
   Vigil_UnlockPortAndFilter(filter, false);
   return size;
}

zek_Status VigilTransitSave(zek_PortID portID, void *buf, u32 bufLen, u32 *dataLen,
                            u64 reserved) {
   VIGIL_LOG_INFO("Vigil saving TRANSIT data, Port: 0x%x", portID);
   zek_Status status = VigilMigrationSave(portID, buf, bufLen, dataLen, reserved);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "Vigil Save for TRANSIT failed, Port: 0x%x", portID);
   }
   return status;
}

zek_Status VigilTransitRestore(zek_PortID portID, const void *buf, u32 bufLen,
                               u64 elapsedMS) {
   VIGIL_LOG_INFO("Vigil Restoring TRANSIT data, Port: 0x%x", portID);
   zek_Status status = VigilMigrationRestore(portID, buf, bufLen, elapsedMS);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "Vigil Restore for TRANSIT failed, Port: 0x%x", portID);
   }
   return status;
}

void VigilTransitCompleted(bool isCrossHost, zek_Status status) {
   VIGIL_LOG_INFO("Vigil TRANSIT completed CB, isCrosshost = %s, type = %s",
                  isCrossHost ? "True" : "False", zek_StatusToString(status));
}
