/*
 * The management interface towards operators' tools.
 *
 * Until the management callbacks are built, no channel is opened; start and
 * stop succeed.
 */
#include "vigil_lifecycle.h"

__attribute__((weak)) zek_Status VigilMgmtIntfInit(void) {
   return ZEK_OK;
}

__attribute__((weak)) zek_Status VigilMgmtIntfCleanup(void) {
   return ZEK_OK;
}
