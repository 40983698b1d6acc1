/*
 * Filter lifecycle: creation and destruction of a port's VigilFilter, its
 * I/O chains, and the clearing of its configuration.
 *
 * A filter is reached only through its port's data slot.  Chains always go
 * before the filter: the packet loop does not check the filter pointer.
 */
#include <atomic>
#include <cstring>

#include "vigil_config.h"
#include "vigil_dhcp.h"
#include "vigil_lifecycle.h"
#include "vigil_log.h"
#include "vigil_packet.h"
#include "vigil_throttle.h"
#include "vigil_workers.h"

u64 numFilters = 0;
i64 delOnExpiry = 1;

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

static zek_Status VigilCreateFilterLocks(VigilFilter *filter) {
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

zek_Status Vigil_CreateFilter(zek_PortsetHandle portset, u32 portID,
                              VigilFilter **out) {
   VigilFilter *filter = (VigilFilter *)Vigil_HeapAlloc(sizeof(VigilFilter));
   if (filter == nullptr) {
      VIGIL_LOG_ERROR("Failed to allocate memory for filter creation on port %u",
                      portID);
      return VIGIL_STATUS_NO_MEMORY;
   }
   zek_Strncpy(filter->portsetName, zek_PortsetName(portset), VIGIL_PORTSET_NAME_LEN);
   filter->portID = portID;
   VigilFilterSetDefaults(filter);

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
                                     Vigil_DestroyFilter);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR_CODE(status, "VigilAssociateFilter failed");
      zek_SpinlockDestroy(filter->configLock);
      zek_SpinlockDestroy(filter->rateLimitLock);
      VigilFreeFilterParts(filter);
      return status;
   }
   filter->enableCleanedUp = 0;
   std::atomic_ref<u64>(numFilters).fetch_add(1);
   VIGIL_LOG_VERBOSE(1, "Filter %#x Filter created: %p, type: %#x", portID,
                     (void *)filter, filter->vnicType);
   *out = filter;
   return ZEK_OK;
}

/* Frees what a filter owns beyond its bindings: pending DHCP requests,
 * white lists and the ignore list.  The caller holds the write lock. */
static void VigilReleaseFilterConfig(VigilFilter *filter) {
   VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->dhcpReqList) {
      VigilDelDhcpReq(filter, VIGIL_DHCP_REQ_FROM_LINKS(pos));
   }
   Vigil_HeapFree(filter->switchWhiteList);
   filter->switchWhiteList = nullptr;
   Vigil_HeapFree(filter->portWhiteList);
   filter->portWhiteList = nullptr;
   Vigil_HeapFree(filter->portIgnoreList);
   filter->portIgnoreList = nullptr;
}

extern "C" zek_Status Vigil_DestroyFilter(zek_PortID portID) {
   VIGIL_LOG_VERBOSE(1, "Destroying Filter for port %#x", portID);
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
      return ZEK_OK;
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
   filter->configWriteHeld = 1;
   VigilReleaseFilterConfig(filter);
   filter->configWriteHeld = 0;
   VigilRemoveFilterAging(filter);
   zek_SpinlockDestroy(filter->configLock);
   zek_SpinlockDestroy(filter->rateLimitLock);
   VigilFreeFilterParts(filter);
   std::atomic_ref<u64>(numFilters).fetch_sub(1);
   return ZEK_OK;
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
      VigilConfigDiscovery(filter, &noBits, flush);
      status = VigilConfigIpv6Discovery(filter, false, false, flush);
      VigilConfigDiscoveryIL(filter, nullptr);
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
   Vigil_RemoveIOChain(filter);
   /* Bindings of a port of VNIC type 1 go when its filter is disabled; on
    * all others they stay until the filter is destroyed. */
   VigilClearFeaturesWithOptFlush(filter, filter->vnicType == 1);
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
   if (numFilters == 0) {
      return ZEK_OK;
   }
   VIGIL_LOG_INFO("Cleaning up %lu filters", (unsigned long)numFilters);
   return zek_PortsetForAllPortsets(ZEK_PORTSET_MODE_READ, Vigil_CleanupFiltersPS,
                                    nullptr);
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

/* Inserts one chain and asks for its minimum mapping; on failure nothing of
 * it stays. */
static zek_Status VigilInsertChain(VigilFilter *filter, zek_IOChainDesc *desc,
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
      zek_IOChainHandle chain = *handle;
      *handle = nullptr;
      zek_IOChainRemove(chain);
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
         /* Leave the port with no chain at all. */
         zek_IOChainHandle chain = filter->ioChainInput;
         filter->ioChainInput = nullptr;
         zek_IOChainRemove(chain);
         return status;
      }
   }
   return ZEK_OK;
}

zek_Status Vigil_RemoveIOChain(VigilFilter *filter) {
   VIGIL_LOG_VERBOSE(1, "Remove IOChains for port %#x", filter->portID);
   zek_Status status = ZEK_OK;
   if (filter->ioChainInput != nullptr) {
      status = zek_IOChainRemove(filter->ioChainInput);
      if (status == ZEK_OK) {
         filter->ioChainInput = nullptr;
      } else {
         VIGIL_LOG_ERROR_CODE(status, "Failed to remove input IOChain on port %u",
                              filter->portID);
      }
   }
   if (filter->ioChainOutput == nullptr) {
      return status;
   }
   zek_Status outStatus = zek_IOChainRemove(filter->ioChainOutput);
   if (outStatus == ZEK_OK) {
      filter->ioChainOutput = nullptr;
      return ZEK_OK;
   }
   VIGIL_LOG_ERROR_CODE(outStatus, "Failed to remove ouput IOChain on port %u",
                        filter->portID);
   return outStatus;
}

void VigilRemoveIOChainCB(void *ctx, void *priv, zek_IOChainHandle handle) {
   (void)ctx;
   VigilFilter *filter = (VigilFilter *)priv;
   if (filter->ioChainInput == handle) {
      filter->ioChainInput = nullptr;
   }
   if (filter->ioChainOutput == handle) {
      filter->ioChainOutput = nullptr;
   }
}
