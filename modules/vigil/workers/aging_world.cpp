/*
 * The aging world: one kernel thread that does all expiry work.
 *
 * Every filter with something to expire stands in one priority queue keyed
 * by the earliest moment it needs attention; the world sleeps until the
 * first key falls due.  Whoever changes a database re-files the filter
 * through VigilUpdateFilterAging, so a filter's key always equals its
 * earliest expiry.
 */
#include "vigil_atomic.h"
#include "vigil_dhcp.h"
#include "vigil_log.h"
#include "vigil_locks.h"
#include "vigil_v6.h"
#include "vigil_workers.h"

#define VIGIL_AGING_BUSY_PORT_WAIT_MS 500u
/* The longest sleep before the world looks at the queue again on its own;
 * any change that moves a key wakes it earlier. */
#define VIGIL_AGING_MAX_WAIT_MS 3600000u
/* The sleep after a pass that left records due in this very second: they
 * end only once the second has passed. */
#define VIGIL_AGING_NEXT_SECOND_MS 1000u

zek_PriQHandle filterAgingQ = nullptr;
zek_SpinlockHandle filterAgingQLock = VIGIL_NO_LOCK;
u32 agingWorldID = 0;
u8 exitAgingWorld = 0;

/* The port whose filter the world has taken from the queue and not yet let
 * go of, 0 when none; under filterAgingQLock.  A filter that is being
 * destroyed waits until the world is no longer on its port (see
 * VigilAgingWorldQuiesce), so that the world never holds a freed filter. */
static u32 agingWorldBusyPort = 0;

/* The event on which the world sleeps. */
static void *VigilAgingWorldEvent(void) {
   return &agingWorldID;
}

/* The earliest expiry of the filter's running records, if it has any. */
static bool VigilEarliestExpiry(VigilFilter *filter, i64 *key) {
   bool found = false;
   i64 candidates[4];
   u32 n = 0;
   /* A static binding heads vmiList and stops the IPv4 walk, so while one
    * is there no IPv4 binding can end: they give no candidate. */
   if (filter->numVmis != filter->numExpiredVmis) {
      VigilVmi *first = VIGIL_VMI_FROM_EXPIRY(filter->vmiList.next);
      if (first->discMethod != VIGIL_DISC_STATIC) {
         candidates[n++] = first->expiryTs;
      }
   }
   if (filter->numDhcpReqs != 0) {
      candidates[n++] = VIGIL_DHCP_REQ_FROM_LINKS(filter->dhcpReqList.next)->expiryTs;
   }
   if (filter->numNdEntries + filter->numDhcpV6Entries != filter->numExpiredNdEntries &&
       !VigilListIsEmpty(&filter->v6VmiList)) {
      candidates[n++] = VigilV6FirstExpiry(filter);
   }
   if (filter->numDhcpV6Reqs != 0 && !VigilListIsEmpty(&filter->dhcpV6ReqList)) {
      candidates[n++] = VigilDhcpV6FirstReqExpiry(filter);
   }
   for (u32 i = 0; i < n; i++) {
      if (!found || candidates[i] < *key) {
         *key = candidates[i];
         found = true;
      }
   }
   return found;
}

void VigilUpdateFilterAging(VigilFilter *filter) {
   Vigil_AssertFilterIsLocked(filter, true);
   i64 key = 0;
   bool due = VigilEarliestExpiry(filter, &key);

   zek_SpinlockLock(filterAgingQLock);
   if (!due) {
      void *out;
      zek_PriQExtract(filterAgingQ, &filter->agingPortID, &out);
      filter->agingKey = VIGIL_AGING_KEY_NONE;
      filter->agingPortID = 0;
      zek_SpinlockUnlock(filterAgingQLock);
      zek_WorldWakeup(VigilAgingWorldEvent());
      return;
   }
   if (key == filter->agingKey) {
      zek_SpinlockUnlock(filterAgingQLock);
      return;
   }
   if (filter->agingPortID != 0) {
      (void)zek_PriQRekey(filterAgingQ, &filter->agingPortID, key);
   } else {
      filter->agingPortID = filter->portID;
      if (zek_PriQInsert(filterAgingQ, key, &filter->agingPortID) != ZEK_OK) {
         /* The queue is full: the filter stays out of it and is inserted
          * at its next change. */
         filter->agingPortID = 0;
         filter->agingKey = VIGIL_AGING_KEY_NONE;
         zek_SpinlockUnlock(filterAgingQLock);
         return;
      }
   }
   filter->agingKey = key;
   zek_SpinlockUnlock(filterAgingQLock);
   zek_WorldWakeup(VigilAgingWorldEvent());
}

/* The world no longer holds the filter of agingWorldBusyPort. */
static void VigilAgingWorldLetGo(void) {
   zek_SpinlockLock(filterAgingQLock);
   agingWorldBusyPort = 0;
   zek_SpinlockUnlock(filterAgingQLock);
}

/* The sleep until one second after `key`, when a record expiring at `key`
 * has ended: computed in 64 bits and capped, never 0. */
static u32 VigilAgingWaitMs(i64 key, i64 now) {
   u64 secs = (u64)key - (u64)now + 1;
   if (key < now || secs > VIGIL_AGING_MAX_WAIT_MS / 1000u) {
      return VIGIL_AGING_MAX_WAIT_MS;
   }
   return (u32)(secs * 1000u);
}

/* Ages the filter at the head of the queue if it is due.  Returns the time
 * to wait before the next look, or 0 to look again at once. */
static u32 VigilAgeFirstFilter(void) {
   u32 count = 0;
   zek_SpinlockLock(filterAgingQLock);
   if (zek_PriQUsedElems(filterAgingQ, &count) != ZEK_OK || count == 0) {
      zek_SpinlockUnlock(filterAgingQLock);
      return ZEK_TIMEOUT_NONE;
   }
   i64 key;
   void *elem;
   zek_Status status = zek_PriQFirst(filterAgingQ, &key, &elem);
   if (status != ZEK_OK) {
      VIGIL_LOG_INFO("Error getting first element in PriQ: %d", (int)status);
      zek_SpinlockUnlock(filterAgingQLock);
      return ZEK_TIMEOUT_NONE;
   }
   /* The element is the filter's agingPortID word. */
   u32 portID = *(u32 *)elem;
   agingWorldBusyPort = portID;
   zek_SpinlockUnlock(filterAgingQLock);
   if (portID == 0) {
      return ZEK_TIMEOUT_NONE;
   }

   zek_PortsetHandle portset;
   VigilFilter *filter = Vigil_LockPsPortAndFilter(portID, true, &portset);
   if (filter == nullptr) {
      VigilAgingWorldLetGo();
      VIGIL_LOG_INFO("Error locking PS and Filter or is being destroyed: %#x", portID);
      return VIGIL_AGING_BUSY_PORT_WAIT_MS;
   }
   /* The key may have moved since it was read: look again under the filter
    * lock.  A record ends only once now has passed its expiry. */
   zek_Uptime now;
   zek_GetUptime(&now);
   u32 waitMs = 0;
   if (now.sec < filter->agingKey) {
      waitMs = VigilAgingWaitMs(filter->agingKey, now.sec);
   } else {
      VigilPortDbDoAging(filter, now.sec);
      VigilPortDbV6DoAging(filter, now.sec);
      /* What is still due now ends only once this second has passed: the
       * queue's head can't end anything sooner, so sleep instead of
       * looking again. */
      if (filter->agingPortID != 0 && filter->agingKey <= now.sec) {
         waitMs = VIGIL_AGING_NEXT_SECOND_MS;
      }
   }
   /* A portset that can't be released has nothing the world could do. */
   (void)Vigil_UnlockPsPortFilter(filter, true, portset);
   VigilAgingWorldLetGo();
   return waitMs;
}

void VigilAgingWorld(void *data) {
   (void)data;
   VIGIL_LOG_INFO("Aging World is Started");
   for (;;) {
      if (VigilAtomicLoad(&exitAgingWorld)) {
         VIGIL_LOG_INFO("Exiting Aging World");
         VigilAtomicStore(&agingWorldID, 0u);
         zek_WorldExit(ZEK_OK);
      }
      u32 waitMs;
      do {
         waitMs = VigilAgeFirstFilter();
      } while (waitMs == 0);
      zek_WorldWait(VigilAgingWorldEvent(), nullptr, waitMs, "Wait");
   }
}

zek_Status VigilAgingWorldInit(void) {
   zek_Status status = zek_PriQCreate(moduleID, heapID, 0, VIGIL_AGING_Q_CAPACITY,
                                      &filterAgingQ);
   if (status != ZEK_OK) {
      filterAgingQ = nullptr;
      VIGIL_LOG_ERROR("Failed to create PriQ (%#x): %s", status,
                      zek_StatusToString(status));
      return status;
   }
   status = VigilCreateLock("vigil.agingQ", ZEK_SPINLOCK_ORDINARY,
                            VIGIL_RANK_AGING_Q, &filterAgingQLock);
   if (status != ZEK_OK) {
      filterAgingQLock = VIGIL_NO_LOCK;
      VIGIL_LOG_ERROR("Could not allocate agingQ lock, status: %s",
                      zek_StatusToString(status));
      return status;
   }
   VIGIL_LOG_INFO("Aginglock created");
   VigilAtomicStore(&exitAgingWorld, (u8)0);
   zek_WorldID id = 0;
   status = VigilCreateWorld("VigilAgingWorld", VigilAgingWorld, &id);
   VigilAtomicStore(&agingWorldID, status == ZEK_OK ? id : 0u);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Failed to create aging world: %s", zek_StatusToString(status));
      return status;
   }
   return ZEK_OK;
}

/* The id is read before the exit flag is raised, as for the CP world: the
 * world clears it as it leaves, and its end must be waited for all the
 * same. */
zek_Status VigilAgingWorldDestroy(void) {
   zek_WorldID id = VigilAtomicLoad(&agingWorldID);
   VigilAtomicStore(&exitAgingWorld, (u8)1);
   zek_Status waitStatus = VigilStopWorld(id);
   if (filterAgingQLock != VIGIL_NO_LOCK) {
      zek_SpinlockDestroy(filterAgingQLock);
      filterAgingQLock = VIGIL_NO_LOCK;
   }
   if (filterAgingQ != nullptr) {
      zek_Status status = zek_PriQDestroy(filterAgingQ);
      if (status != ZEK_OK) {
         VIGIL_LOG_INFO("Error destroying PriQ (%#x): %s", status,
                        zek_StatusToString(status));
         return status;
      }
      filterAgingQ = nullptr;
      return ZEK_OK;
   }
   return waitStatus;
}

void VigilRemoveFilterAging(VigilFilter *filter) {
   if (filterAgingQLock == VIGIL_NO_LOCK) {
      return;
   }
   zek_SpinlockLock(filterAgingQLock);
   if (filter->agingPortID != 0) {
      void *out;
      zek_PriQExtract(filterAgingQ, &filter->agingPortID, &out);
      filter->agingPortID = 0;
      filter->agingKey = VIGIL_AGING_KEY_NONE;
   }
   zek_SpinlockUnlock(filterAgingQLock);
}

void VigilAgingWorldQuiesce(u32 portID) {
   if (filterAgingQLock == VIGIL_NO_LOCK || portID == 0) {
      return;
   }
   for (;;) {
      zek_SpinlockLock(filterAgingQLock);
      bool busy = agingWorldBusyPort == portID;
      zek_SpinlockUnlock(filterAgingQLock);
      if (!busy) {
         return;
      }
      zek_WorldYield();
   }
}
