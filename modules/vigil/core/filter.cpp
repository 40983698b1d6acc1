/*
 * Filter lifecycle: creation and destruction of a port's VigilFilter, its
 * I/O chains, and the clearing of its configuration.
 *
 * A filter is reached only through its port's data slot.  Chains always go
 * before the filter.  A chain that can't be removed keeps its filter alive:
 * the filter leaves its port, waits on the retired list with its frames
 * passing untouched, and is freed once its last chain is gone, whether a
 * later retry removes it or the platform does at port removal.
 */
#include <cstring>

#include "vigil_atomic.h"
#include "vigil_config.h"
#include "vigil_dhcp.h"
#include "vigil_lifecycle.h"
#include "vigil_log.h"
#include "vigil_packet.h"
#include "vigil_locks.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_workers.h"

u64 numFilters = 0;
i64 delOnExpiry = 1;

/* Retired filters, linked through retiredLinks.  The lock also guards the
 * chain handles and the retired mark of every filter against the removal
 * callback, which may run on the platform's thread at port removal. */
static VigilListLinks retiredFilters = {&retiredFilters, &retiredFilters};
static zek_SpinlockHandle retiredFiltersLock = VIGIL_NO_LOCK;

#define VIGIL_RETIRED_WAITING 1u  /* on the list, chains still installed */
#define VIGIL_RETIRED_RETRYING 2u /* taken off the list by a retry */

bool GetDeleteExpiry(void) {
   return delOnExpiry != 0;
}

void SetDeleteExpiry(i8 value) {
   delOnExpiry = value;
}

/* Frees a binding table to the heap recorded in its first word. */
static void VigilFreeHash(void *hash) {
   if (hash != nullptr) {
      zek_HeapFree(*(zek_HeapID *)hash, hash);
   }
}

static void VigilFreeFilterParts(VigilFilter *filter) {
   VigilFreeHash(filter->vmiHash);
   VigilFreeHash(filter->v6VmiHash);
   Vigil_HeapFree(filter);
}

/* Frees a filter that nothing reaches any more. */
static void VigilFreeFilter(VigilFilter *filter) {
   zek_SpinlockDestroy(filter->configLock);
   zek_SpinlockDestroy(filter->rateLimitLock);
   VigilFreeFilterParts(filter);
   VigilAtomicAdd(&numFilters, (u64)-1);
}

static void VigilRetiredLock(void) {
   if (retiredFiltersLock != VIGIL_NO_LOCK) {
      zek_SpinlockLock(retiredFiltersLock);
   }
}

static void VigilRetiredUnlock(void) {
   if (retiredFiltersLock != VIGIL_NO_LOCK) {
      zek_SpinlockUnlock(retiredFiltersLock);
   }
}

zek_Status Vigil_FilterLifecycleInit(void) {
   VigilListInit(&retiredFilters);
   zek_Status status = VigilCreateLock("vigil.retiredFilters", ZEK_SPINLOCK_ORDINARY,
                                       VIGIL_RANK_RETIRED_FILTERS,
                                       &retiredFiltersLock);
   if (status != ZEK_OK) {
      retiredFiltersLock = VIGIL_NO_LOCK;
      VIGIL_LOG_ERROR("Could not allocate retired filters lock, status: %s",
                      zek_StatusToString(status));
   }
   return status;
}

void Vigil_FilterLifecycleCleanup(void) {
   if (retiredFiltersLock != VIGIL_NO_LOCK) {
      zek_SpinlockDestroy(retiredFiltersLock);
      retiredFiltersLock = VIGIL_NO_LOCK;
   }
}

/* Puts a filter that has left its port on the retired list if a chain
 * still points at it; false when it has none and may be freed. */
static bool VigilRetireIfChained(VigilFilter *filter) {
   VigilRetiredLock();
   bool chained = filter->ioChainInput != nullptr || filter->ioChainOutput != nullptr;
   if (chained) {
      VigilAtomicStore(&filter->retired, (u8)VIGIL_RETIRED_WAITING);
      VigilListInsertBefore(&retiredFilters, &filter->retiredLinks);
   }
   VigilRetiredUnlock();
   if (chained) {
      VIGIL_LOG_ERROR("Filter %#x kept until its I/O chains are removed",
                      filter->portID);
   }
   return chained;
}

u32 Vigil_RetryRetiredFilters(void) {
   /* Take the whole list: the removal callback leaves a filter that is
    * being retried to this function. */
   VigilListLinks retrying;
   VigilListInit(&retrying);
   VigilRetiredLock();
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &retiredFilters) {
      VigilFilter *filter = VIGIL_LIST_ENTRY(pos, VigilFilter, retiredLinks);
      VigilListRemove(pos);
      VigilListInsertBefore(&retrying, pos);
      VigilAtomicStore(&filter->retired, (u8)VIGIL_RETIRED_RETRYING);
   }
   VigilRetiredUnlock();

   u32 left = 0;
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &retrying) {
      VigilFilter *filter = VIGIL_LIST_ENTRY(pos, VigilFilter, retiredLinks);
      (void)Vigil_RemoveIOChain(filter); /* failures are logged there */
      VigilRetiredLock();
      VigilListRemove(pos);
      bool gone = filter->ioChainInput == nullptr && filter->ioChainOutput == nullptr;
      if (!gone) {
         VigilAtomicStore(&filter->retired, (u8)VIGIL_RETIRED_WAITING);
         VigilListInsertBefore(&retiredFilters, pos);
         left++;
      }
      VigilRetiredUnlock();
      if (gone) {
         VIGIL_LOG_INFO("Filter %#x freed: its I/O chains are removed", filter->portID);
         VigilFreeFilter(filter);
      }
   }
   return left;
}

VIGIL_MUST_CHECK static zek_Status VigilCreateFilterLocks(VigilFilter *filter) {
   zek_Status status = VigilCreateLock("vigil.config", ZEK_SPINLOCK_RW,
                                       VIGIL_RANK_CONFIG, &filter->configLock);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Filter %#x Could not allocate configuration lock",
                      filter->portID);
      return status;
   }
   status = VigilCreateLock("vigil.ratelimit", ZEK_SPINLOCK_ORDINARY,
                            VIGIL_RANK_RATE_LIMIT, &filter->rateLimitLock);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Filter %#x Could not allocate rate limit lock", filter->portID);
      zek_SpinlockDestroy(filter->configLock);
   }
   return status;
}

void VigilFilterSetDefaults(VigilFilter *filter) {
   VigilListInit(&filter->vmiList);
   VigilListInit(&filter->expiredVmiList);
   VigilListInit(&filter->dhcpReqList);
   VigilListInit(&filter->v6VmiList);
   VigilListInit(&filter->v6ExpiredNdList);
   VigilListInit(&filter->dhcpV6ReqList);
   filter->arpExpiry = VIGIL_DEFAULT_ARP_EXPIRY;
   filter->portDbArpEntriesSize = VIGIL_DEFAULT_ARP_ENTRIES;
   filter->ndExpiry = VIGIL_DEFAULT_ND_EXPIRY;
   filter->portDbNdEntriesSize = VIGIL_DEFAULT_ND_ENTRIES;
   filter->portDbDhcpV6EntriesSize = VIGIL_DEFAULT_DHCPV6_ENTRIES;
   filter->maxDhcpV6Reqs = VIGIL_DEFAULT_DHCPV6_REQS;
   filter->agingKey = VIGIL_AGING_KEY_NONE;
}

static zek_Status VigilDestroyFilterOfGoingPort(zek_PortID portID);

zek_Status Vigil_CreateFilter(zek_PortsetHandle portset, u32 portID,
                              VigilFilter **out) {
   VigilFilter *filter = (VigilFilter *)Vigil_HeapAlloc(sizeof(VigilFilter));
   if (filter == nullptr) {
      VIGIL_LOG_ERROR("Failed to allocate memory for filter creation on port %u",
                      portID);
      return VIGIL_STATUS_NO_MEMORY;
   }
   VigilCopyPortsetName(filter->portsetName, zek_PortsetName(portset));
   filter->portID = portID;
   VigilFilterSetDefaults(filter);
   /* Batches of one port run in parallel under the read lock and count
    * into the statistics without one. */
   VIGIL_BENIGN_RACE(&filter->stats, sizeof filter->stats, "vigil statistics");

   zek_VNICHandle vnic;
   u32 vnicType = 0;
   if (zek_VNICHandleGet(portID, &vnic) != ZEK_OK ||
       zek_VNICTypeGet(vnic, &vnicType) != ZEK_OK) {
      vnicType = 0;
   }
   filter->vnicType = vnicType;

   zek_Status status = VigilVmiHashAlloc(&filter->vmiHash);
   if (status != ZEK_OK) {
      Vigil_HeapFree(filter);
      return status;
   }
   status = VigilV6VmiHashAlloc(&filter->v6VmiHash);
   if (status != ZEK_OK) {
      filter->v6VmiHash = nullptr;
      VigilFreeFilterParts(filter);
      return status;
   }
   status = VigilCreateFilterLocks(filter);
   if (status != ZEK_OK) {
      VigilFreeFilterParts(filter);
      return status;
   }
   status = oxa_PortVoltaliteDataSet(portID, VIGIL_FILTER_SLOT, filter,
                                     VigilDestroyFilterOfGoingPort);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "VigilAssociateFilter failed");
      zek_SpinlockDestroy(filter->configLock);
      zek_SpinlockDestroy(filter->rateLimitLock);
      VigilFreeFilterParts(filter);
      return status;
   }
   filter->enableCleanedUp = 0;
   VigilAtomicAdd(&numFilters, (u64)1);
   VIGIL_LOG_VERBOSE(1, "Filter %#x Filter created: %p, type: %#x", portID,
                     (void *)filter, filter->vnicType);
   *out = filter;
   return ZEK_OK;
}

/* Frees what a filter owns beyond its learnt bindings: static bindings,
 * pending DHCP requests, white lists (and the port list's entries in the
 * flow cache's warden hash) and the ignore list.  The caller holds the
 * write lock. */
static void VigilReleaseFilterConfig(VigilFilter *filter) {
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->vmiList) {
      VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRY(pos));
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->dhcpReqList) {
      VigilDelDhcpReq(filter, VIGIL_DHCP_REQ_FROM_LINKS(pos));
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6VmiList) {
      VigilDelV6Vmi(filter, VIGIL_V6VMI_FROM_EXPIRY(pos));
   }
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->dhcpV6ReqList) {
      VigilDelDhcpV6Req(filter, VIGIL_DHCPV6_REQ_FROM_LINKS(pos));
   }
   VigilDropWhiteLists(filter);
   Vigil_HeapFree(filter->portIgnoreList);
   filter->portIgnoreList = nullptr;
}

/* Destroys the port's filter.  `portGoing`: the host runs this as the
 * port's slot destructor, and the slot goes with the port whatever the
 * unset answers; otherwise a slot that can't be cleared keeps its filter,
 * which goes when the port does.  (It shares the name of the exported call
 * so that its log lines name that.) */
static zek_Status Vigil_DestroyFilter(zek_PortID portID, bool portGoing) {
   VIGIL_LOG_VERBOSE(1, "Destroying Filter for port %#x", portID);
   /* Disable, port removal and module stop all come through here: the
    * moment to try again the chains that could not be removed before. */
   (void)Vigil_RetryRetiredFilters();
   VigilFilter *filter = Vigil_GetPortFilter(portID);
   if (filter == nullptr) {
      VIGIL_LOG_INFO("Unable to get filter from NCS for destroy");
      return VIGIL_STATUS_NOT_FOUND;
   }
   zek_SpinlockWriteLock(filter->configLock);
   filter->configWriteHeld = 1;
   VigilDelVmiByDiscMethod(filter, VIGIL_DISC_DHCP | VIGIL_DISC_ARP);
   VigilFlushV6VmiByDiscoveryMethod(filter, VIGIL_DISC_ND | VIGIL_DISC_DHCPV6);
   filter->configWriteHeld = 0;
   zek_SpinlockWriteUnlock(filter->configLock);

   zek_Status status = oxa_PortVoltaliteDataUnset(portID, VIGIL_FILTER_SLOT);
   if (status != ZEK_OK && status != VIGIL_STATUS_NOT_FOUND) {
      VIGIL_LOG_ERROR_CODE(status, "Not able to clear filter from port %d", (int)portID);
      if (!portGoing) {
         return ZEK_OK;
      }
   }
   if (filter->vmiHash != nullptr && filter->vmiHash->common.count != 0) {
      VIGIL_LOG_INFO("Freeing non empty v4 hash for port: %#x, cnt: %lu", portID,
                     (unsigned long)filter->vmiHash->common.count);
   }
   if (filter->v6VmiHash != nullptr &&
       ((OxaHashCommon *)filter->v6VmiHash)->count != 0) {
      VIGIL_LOG_INFO("Freeing non empty v6 hash for port: %#x, cnt: %lu", portID,
                     (unsigned long)((OxaHashCommon *)filter->v6VmiHash)->count);
   }
   /* Nothing reaches the filter through its port any more; the aging world
    * may still hold the pointer it read before, until it lets go. */
   VigilAgingWorldQuiesce(portID);
   /* A batch on a chain that could not be removed may still hold the
    * filter: take the lock to free what it might read. */
   zek_SpinlockWriteLock(filter->configLock);
   filter->configWriteHeld = 1;
   VigilReleaseFilterConfig(filter);
   filter->configWriteHeld = 0;
   zek_SpinlockWriteUnlock(filter->configLock);
   VigilRemoveFilterAging(filter);
   if (!VigilRetireIfChained(filter)) {
      VigilFreeFilter(filter);
   }
   return ZEK_OK;
}

extern "C" zek_Status Vigil_DestroyFilter(zek_PortID portID) {
   return Vigil_DestroyFilter(portID, false);
}

/* The destructor of the filter's slot, run by the host as the port goes. */
static zek_Status VigilDestroyFilterOfGoingPort(zek_PortID portID) {
   return Vigil_DestroyFilter(portID, true);
}

zek_Status VigilClearFeaturesWithOptFlush(VigilFilter *filter, bool flush) {
   VIGIL_LOG_VERBOSE(1, "Filter %#x Clearing discovery and security features with "
                        "flush : %s",
                     filter->portID, flush ? "True" : "False");
   zek_Status status = ZEK_OK;
   zek_SpinlockWriteLock(filter->configLock);
   filter->configWriteHeld = 1;
   if (filter->discoveryFlags != 0) {
      u32 noBits = 0;
      /* Switching off can't fail; the IPv6 status is the one reported. */
      (void)VigilConfigDiscovery(filter, &noBits, flush);
      status = VigilConfigIpv6Discovery(filter, false, false, flush);
      (void)VigilConfigDiscoveryIL(filter, nullptr); /* clearing can't fail */
   }
   if (filter->featuresEnabled != 0) {
      VigilSecurityConfig none;
      memset(&none, 0, sizeof none);
      status = VigilConfigSecurity(filter, &none);
   }
   filter->configWriteHeld = 0;
   zek_SpinlockWriteUnlock(filter->configLock);
   return status;
}

void Vigil_RemoveIOChainAndFeatures(u32 portID) {
   VigilFilter *filter = Vigil_GetPortFilter(portID);
   if (filter == nullptr) {
      VIGIL_LOG_INFO("Filter not found");
      return;
   }
   /* A chain that stays is logged there, and keeps the filter alive. */
   (void)Vigil_RemoveIOChain(filter);
   /* Bindings of a port of VNIC type 1 go when its filter is disabled; on
    * all others they stay until the filter is destroyed. */
   /* Clearing only switches off; nothing is left to undo if it says no. */
   (void)VigilClearFeaturesWithOptFlush(filter, filter->vnicType == 1);
}

zek_Status Vigil_CleanupFilter(zek_PortsetHandle portset, zek_PortID portID,
                               void *data) {
   (void)portset, (void)data;
   if (Vigil_GetPortFilter(portID) == nullptr) {
      return ZEK_OK;
   }
   Vigil_RemoveIOChainAndFeatures(portID);
   zek_Status status = Vigil_DestroyFilter(portID);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "Failed to destroy filter for Port 0x%x", portID);
   }
   return status;
}

zek_Status Vigil_CleanupFiltersPS(zek_PortsetHandle portset, void *data) {
   (void)data;
   zek_Status status = zek_PortsetForAllPorts(portset, Vigil_CleanupFilter, nullptr);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status,
                           "Failed to cleanup filter(s) for Port(s) in the Portset %s",
                           zek_PortsetName(portset));
   }
   return status;
}

zek_Status Vigil_CleanupFilters(void) {
   u64 count = VigilAtomicLoad(&numFilters);
   if (count == 0) {
      return ZEK_OK;
   }
   VIGIL_LOG_INFO("Cleaning up %lu filters", (unsigned long)count);
   zek_Status status = zek_PortsetForAllPortsets(ZEK_PORTSET_MODE_READ,
                                                 Vigil_CleanupFiltersPS, nullptr);
   if (Vigil_RetryRetiredFilters() != 0) {
      VIGIL_LIST_FOR_EACH(pos, &retiredFilters) {
         VIGIL_LOG_ERROR("Filter %#x still has I/O chains at module stop",
                         VIGIL_LIST_ENTRY(pos, VigilFilter, retiredLinks)->portID);
      }
   }
   return status;
}

static void VigilFillChainDesc(VigilFilter *filter, zek_IOChainDesc *desc,
                               u32 direction) {
   memset(desc, 0, sizeof *desc);
   desc->module = moduleID;
   desc->portID = filter->portID;
   desc->label = direction == ZEK_IOCHAIN_INPUT ? "vigil-input" : "vigil-output";
   desc->direction = direction;
   desc->chainClass = 1;
   zek_NameFormat(&desc->name, "%s.%u",
                  direction == ZEK_IOCHAIN_INPUT ? "VIGIL_INPUT" : "VIGIL_OUTPUT",
                  OXA_BUILD_NUMBER);
   desc->fn = direction == ZEK_IOCHAIN_INPUT ? Vigil_ProcessPacketsToSwitch
                                             : Vigil_ProcessPacketsFromSwitch;
   desc->removeFn = VigilRemoveIOChainCB;
   desc->priv = filter;
}

/* Removes the chain of `handle` and clears the handle; a chain that can't
 * be removed keeps its handle (and so its filter alive), logged. */
VIGIL_MUST_CHECK static zek_Status VigilRemoveOneChain(VigilFilter *filter,
                                      zek_IOChainHandle *handle) {
   zek_Status status = zek_IOChainRemove(*handle);
   if (status == ZEK_OK) {
      VigilRetiredLock();
      *handle = nullptr;
      VigilRetiredUnlock();
   } else if (handle == &filter->ioChainInput) {
      VIGIL_LOG_ERROR_CODE(status, "Failed to remove input IOChain on port %u",
                           filter->portID);
   } else {
      VIGIL_LOG_ERROR_CODE(status, "Failed to remove ouput IOChain on port %u",
                           filter->portID);
   }
   return status;
}

/* Inserts one chain and asks for its minimum mapping; on failure nothing of
 * it stays unless the platform refuses to remove it. */
VIGIL_MUST_CHECK static zek_Status VigilInsertChain(VigilFilter *filter, zek_IOChainDesc *desc,
                                   zek_IOChainHandle *handle) {
   zek_Status status = zek_IOChainInsert(desc, handle);
   if (status != ZEK_OK) {
      *handle = nullptr;
      if (desc->direction == ZEK_IOCHAIN_INPUT) {
         VIGIL_LOG_ERROR_CODE(status, "Failed to insert input IOChain on port (%u)",
                              filter->portID);
      } else {
         VIGIL_LOG_ERROR_CODE(status, "Failed to insert output IOChain on port %d",
                              (int)filter->portID);
      }
      return status;
   }
   status = zek_IOChainSetMinPktMappedLen(*handle, VIGIL_MIN_PKT_MAPPED_LEN);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "Could not set minimum mapped packet length");
      (void)VigilRemoveOneChain(filter, handle); /* logged there */
   }
   return status;
}

zek_Status Vigil_InstallIOChain(VigilFilter *filter) {
   VIGIL_LOG_VERBOSE(1, "Install IOChains for port %#x", filter->portID);
   zek_IOChainDesc input;
   zek_IOChainDesc output;
   VigilFillChainDesc(filter, &input, ZEK_IOCHAIN_INPUT);
   VigilFillChainDesc(filter, &output, ZEK_IOCHAIN_OUTPUT);
   if (filter->ioChainInput == nullptr) {
      zek_Status status = VigilInsertChain(filter, &input, &filter->ioChainInput);
      if (status != ZEK_OK) {
         return status;
      }
   }
   if (filter->ioChainOutput == nullptr) {
      zek_Status status = VigilInsertChain(filter, &output, &filter->ioChainOutput);
      if (status != ZEK_OK) {
         /* Leave the port with no chain at all, if the platform lets us. */
         (void)VigilRemoveOneChain(filter, &filter->ioChainInput); /* logged */
         return status;
      }
   }
   return ZEK_OK;
}

zek_Status Vigil_RemoveIOChain(VigilFilter *filter) {
   VIGIL_LOG_VERBOSE(1, "Remove IOChains for port %#x", filter->portID);
   zek_Status status = ZEK_OK;
   if (filter->ioChainInput != nullptr) {
      status = VigilRemoveOneChain(filter, &filter->ioChainInput);
   }
   if (filter->ioChainOutput == nullptr) {
      return status;
   }
   return VigilRemoveOneChain(filter, &filter->ioChainOutput);
}

void VigilRemoveIOChainCB(void *ctx, void *priv, zek_IOChainHandle handle) {
   (void)ctx;
   VigilFilter *filter = (VigilFilter *)priv;
   VigilRetiredLock();
   if (filter->ioChainInput == handle) {
      filter->ioChainInput = nullptr;
   }
   if (filter->ioChainOutput == handle) {
      filter->ioChainOutput = nullptr;
   }
   /* The last chain of a retired filter that no retry is working on: it
    * can go now (the platform removes a port's chains when the port goes). */
   bool freeNow = filter->retired == VIGIL_RETIRED_WAITING &&
                  filter->ioChainInput == nullptr && filter->ioChainOutput == nullptr;
   if (freeNow) {
      VigilListRemove(&filter->retiredLinks);
   }
   VigilRetiredUnlock();
   if (freeNow) {
      VIGIL_LOG_INFO("Filter %#x freed: its I/O chains are removed", filter->portID);
      VigilFreeFilter(filter);
   }
}
