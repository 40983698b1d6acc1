/*
 * Registration with every active portset of the class "vswitch": once for
 * the portsets that exist at start, then through the events the switch
 * raises when a portset is activated or deactivated.  Each registered
 * portset has one record with the handles of its registrations, and at stop
 * every record of that table is unregistered, whatever its portset's class.
 */
#include <cstring>

#include "vigil_lifecycle.h"
#include "vigil_log.h"
#include "vigil_switch.h"
#include "vigil_locks.h"

#define VIGIL_PORTSET_CLASS "vswitch"
#define VIGIL_PORTSET_CLASS_LEN 128 /* with its NUL */
#define VIGIL_EVENT_NAME_LEN 64

VigilListLinks vigilFabClientHandlesList;
zek_SpinlockHandle vigilFabClientLock = VIGIL_NO_LOCK;
zek_NetEventHandle vigilFabVswitchActivateEventHandle = nullptr;
zek_NetEventHandle vigilFabVswitchDeactivateEventHandle = nullptr;

/* Constant-initialised, like the pipelines' table. */
constexpr VigilTransitCallees vigilTransitModuleCallees = {
   .transitRegister = Vigil_TransitRegister,
   .transitUnregister = Vigil_TransitUnregister,
};
constinit VigilTransitCallees vigilTransitCallees = vigilTransitModuleCallees;

static VigilFabClientHandles *VigilFindClient(const char *portsetName) {
   VIGIL_LIST_FOR_EACH(pos, &vigilFabClientHandlesList) {
      VigilFabClientHandles *client = VIGIL_LIST_ENTRY(pos, VigilFabClientHandles, links);
      if (zek_Strncmp(client->portsetName, portsetName, VIGIL_PORTSET_NAME_MAX) == 0) {
         return client;
      }
   }
   return nullptr;
}

VigilFabClientHandles *VigilFabGetClientHandlesByPSName(const char *portsetName) {
   return VigilFindClient(portsetName);
}

zek_Status VigilFabRegisterClients(const char *portsetName) {
   zek_Status status = ZEK_OK;
   zek_SpinlockLock(vigilFabClientLock);
   if (VigilFindClient(portsetName) != nullptr) {
      VIGIL_LOG_INFO("Clients already registered for ps %s", portsetName);
      status = VIGIL_STATUS_EXISTS;
      goto out;
   }
   {
      VigilFabClientHandles *client =
         (VigilFabClientHandles *)Vigil_HeapAlloc(sizeof(VigilFabClientHandles));
      if (client == nullptr) {
         VIGIL_LOG_ERROR_CODE(20u, "Failed to allocate client handles for "
                                   "registering CBs");
         status = VIGIL_STATUS_NO_MEMORY;
         goto out;
      }
      VigilCopyPortsetName(client->portsetName, portsetName);
      status = Vigil_FabPropRegister(portsetName, client);
      if (status != ZEK_OK) {
         VIGIL_LOG_ERROR("Failed to register FAB Props CBs for ps %s", portsetName);
         Vigil_HeapFree(client);
         goto out;
      }
      status = vigilTransitCallees.transitRegister(portsetName, client);
      if (status != ZEK_OK) {
         VIGIL_LOG_ERROR("Failed to register Transit CBs for ps %s", portsetName);
         (void)Vigil_FabPropUnregister(client); /* undoing: failures are logged */
         Vigil_HeapFree(client);
         goto out;
      }
      VigilListInsertAfter(&vigilFabClientHandlesList, &client->links);
   }
out:
   zek_SpinlockUnlock(vigilFabClientLock);
   return status;
}

/* Ends a registered portset's registrations and frees its record.  Called
 * with vigilFabClientLock held. */
static void VigilFabReleaseClient(VigilFabClientHandles *client) {
   /* Each unregistration logs its own failure; the rest goes on. */
   (void)vigilTransitCallees.transitUnregister(client);
   (void)Vigil_FabPropUnregister(client);
   VigilListRemove(&client->links);
   Vigil_HeapFree(client);
}

zek_Status VigilFabUnregisterClients(const char *portsetName) {
   zek_SpinlockLock(vigilFabClientLock);
   VigilFabClientHandles *client = VigilFindClient(portsetName);
   if (client != nullptr) {
      VigilFabReleaseClient(client);
   } else {
      VIGIL_LOG_INFO("Clients not registered for ps %s", portsetName);
   }
   zek_SpinlockUnlock(vigilFabClientLock);
   return ZEK_OK;
}

/* Reads a portset's class; false (logged by the caller) if it can't. */
VIGIL_MUST_CHECK static zek_Status VigilPortsetClass(zek_PortsetHandle ps, char cls[VIGIL_PORTSET_CLASS_LEN]) {
   memset(cls, 0, VIGIL_PORTSET_CLASS_LEN);
   return zek_PortsetLookupFABClassName(ps, cls, VIGIL_PORTSET_CLASS_LEN);
}

zek_Status VigilFabRegisterClientsCB(zek_PortsetHandle ps, void *data) {
   (void)data;
   char cls[VIGIL_PORTSET_CLASS_LEN];
   zek_Status status = VigilPortsetClass(ps, cls);
   if (status != ZEK_OK) {
      VIGIL_LOG_INFO("Skipping FAB Client registration for ps %s %s",
                     zek_PortsetName(ps), zek_StatusToString(status));
      return ZEK_OK;
   }
   if (zek_Strncmp(cls, VIGIL_PORTSET_CLASS, VIGIL_PORTSET_CLASS_LEN) != 0) {
      VIGIL_LOG_INFO("Skipping FAB Client registration for portset class %s", cls);
      return ZEK_OK;
   }
   return VigilFabRegisterClients(zek_PortsetName(ps));
}

zek_Status VigilFabVswitchActivateCB(void *ctx, const char *eventName, void *cbData,
                                     void *eventData) {
   (void)ctx, (void)eventName, (void)cbData;
   const char *name = zek_PortsetName((zek_PortsetHandle)eventData);
   zek_Status status = VigilFabRegisterClients(name);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Failed to register FAB Clients for ps %s", name);
   }
   return status;
}

zek_Status VigilFabVswitchDeactivateCB(void *ctx, const char *eventName, void *cbData,
                                       void *eventData) {
   (void)ctx, (void)eventName, (void)cbData;
   const char *name = zek_PortsetName((zek_PortsetHandle)eventData);
   zek_Status status = VigilFabUnregisterClients(name);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Failed to unregister CBs for FAB Props, ps %s %s", name,
                      zek_StatusToString(status));
   }
   return ZEK_OK;
}

VIGIL_MUST_CHECK static zek_Status VigilSubscribeVswitchEvent(const char *format, zek_NetEventFn fn,
                                             zek_NetEventHandle *handle) {
   char name[VIGIL_EVENT_NAME_LEN];
   size_t len;
   zek_Status status = zek_StringFormat(name, sizeof name, &len, format, OXA_BUILD_NUMBER);
   if (status != ZEK_OK) {
      return status;
   }
   return zek_NetEventPortsetEventSubscribe(0, name, fn, nullptr, handle);
}

/* Unregisters every portset in the table, oldest registration first.  The
 * table, not the portsets' classes, tells what the module registered: an
 * activate event registers a portset of any class, and no handler may stay
 * installed once the module is gone. */
static void VigilFabUnregisterAllClients(void) {
   zek_SpinlockLock(vigilFabClientLock);
   while (!VigilListIsEmpty(&vigilFabClientHandlesList)) {
      VigilFabReleaseClient(VIGIL_LIST_ENTRY(vigilFabClientHandlesList.prev,
                                             VigilFabClientHandles, links));
   }
   zek_SpinlockUnlock(vigilFabClientLock);
}

zek_Status Vigil_FabClientInit(void) {
   VigilListInit(&vigilFabClientHandlesList);
   zek_SpinlockProps probe;
   zek_Status status = zek_NameInitialize(&probe.name, "vigil.FabClient");
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("zek_NameFormat failed: %s", zek_StatusToString(status));
   } else {
      status = VigilCreateLock("vigil.FabClient", ZEK_SPINLOCK_ORDINARY,
                               VIGIL_RANK_FAB_CLIENT, &vigilFabClientLock);
      if (status != ZEK_OK) {
         vigilFabClientLock = VIGIL_NO_LOCK;
         VIGIL_LOG_ERROR("zek_Spinlock create failed: %s", zek_StatusToString(status));
      }
   }
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Failed to create FabClient Lock: %s", zek_StatusToString(status));
      Vigil_FabClientCleanup();
      return status;
   }
   status = VigilSubscribeVswitchEvent("com.norvex.oxa.vswitch.activate.%u",
                                       VigilFabVswitchActivateCB,
                                       &vigilFabVswitchActivateEventHandle);
   if (status != ZEK_OK) {
      vigilFabVswitchActivateEventHandle = nullptr;
      VIGIL_LOG_ERROR("Failed to subscribe to Vswitch Activate Event");
      Vigil_FabClientCleanup();
      return status;
   }
   status = VigilSubscribeVswitchEvent("com.norvex.oxa.vswitch.deactivate.%u",
                                       VigilFabVswitchDeactivateCB,
                                       &vigilFabVswitchDeactivateEventHandle);
   if (status != ZEK_OK) {
      vigilFabVswitchDeactivateEventHandle = nullptr;
      VIGIL_LOG_ERROR("Failed to subscribe to Vswitch Deactivate Event");
      Vigil_FabClientCleanup();
      return status;
   }
   if (isLiveUpgrade) {
      return ZEK_OK; /* only the activate event registers a portset then */
   }
   status = zek_PortsetForAllPortsets(ZEK_PORTSET_MODE_READ, VigilFabRegisterClientsCB,
                                      nullptr);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Failed to register FAB clients for active portsets");
      Vigil_FabClientCleanup();
      return status;
   }
   return ZEK_OK;
}

void Vigil_FabClientCleanup(void) {
   if (vigilFabVswitchActivateEventHandle != nullptr) {
      zek_NetEventPortsetEventUnsubscribe(vigilFabVswitchActivateEventHandle);
      vigilFabVswitchActivateEventHandle = nullptr;
   }
   if (vigilFabVswitchDeactivateEventHandle != nullptr) {
      zek_NetEventPortsetEventUnsubscribe(vigilFabVswitchDeactivateEventHandle);
      vigilFabVswitchDeactivateEventHandle = nullptr;
   }
   if (vigilFabClientLock != VIGIL_NO_LOCK) {
      VigilFabUnregisterAllClients();
      zek_SpinlockDestroy(vigilFabClientLock);
      vigilFabClientLock = VIGIL_NO_LOCK;
   }
}
