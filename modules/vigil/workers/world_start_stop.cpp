/*
 * Starting and stopping the module's worlds.
 */
#include <cstring>

#include "vigil_module.h"
#include "vigil_workers.h"

zek_Status VigilCreateWorld(const char *name, zek_WorldStartFn start,
                            zek_WorldID *id) {
   zek_WorldProps props;
   memset(&props, 0, sizeof props);
   zek_Status status = zek_NameInitialize(&props.name, name);
   if (status != ZEK_OK) {
      return status;
   }
   props.module = moduleID;
   props.start = start;
   props.data = nullptr;
   props.schedGroup = 1;
   props.heap = heapID;
   return zek_WorldCreate(&props, id);
}

/* The world has been asked to end through its exit flag; destroying it
 * makes its wait return, and the wait for its death is repeated for as long
 * as the platform says to wait again. */
zek_Status VigilStopWorld(zek_WorldID id) {
   zek_Status status = ZEK_OK;
   if (id != 0 && zek_WorldDestroy(id) == ZEK_OK) {
      do {
         status = zek_WorldWaitForDeath(id);
      } while (status == VIGIL_STATUS_INTERRUPTED ||
               status == VIGIL_STATUS_WAIT_AGAIN);
   }
   return status;
}
