/*
 * The migration carriers: Transit per portset and the live-upgrade service.
 *
 * Start sets the version and the blocks that the save path writes.  Until
 * the save and restore paths are built, no carrier is registered and no
 * subscription is made; each of those steps succeeds.
 */
#include "vigil_lifecycle.h"
#include "vigil_migration.h"
#include "vigil_switch.h"

u32 saveVersion = 0;
u32 supportedTlvs = 0;

zek_Status VigilMigrationInit(void) {
   saveVersion = VIGIL_SAVE_VERSION_TLV;
   supportedTlvs |= VIGIL_SUPPORTED_TLVS;
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
