/*
 * The migration carriers: Transit per portset and the live-upgrade service.
 *
 * Until state migration is built, there is nothing to set up, no carrier is
 * registered and no subscription is made; each step succeeds.
 */
#include "vigil_lifecycle.h"
#include "vigil_switch.h"

__attribute__((weak)) zek_Status VigilMigrationInit(void) {
   return ZEK_OK;
}

__attribute__((weak)) zek_Status VigilRtmSubscribe(void) {
   return ZEK_OK;
}

__attribute__((weak)) zek_Status VigilRtmUnsubscribe(void) {
   return ZEK_OK;
}

__attribute__((weak)) zek_Status Vigil_TransitRegister(const char *portsetName,
                                                       VigilFabClientHandles *client) {
   (void)portsetName, (void)client;
   return ZEK_OK;
}

__attribute__((weak)) zek_Status Vigil_TransitUnregister(VigilFabClientHandles *client) {
   (void)client;
   return ZEK_OK;
}
