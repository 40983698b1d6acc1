/*
 * Filter creation and destruction, I/O chains, module start and stop.
 */
#ifndef VIGIL_LIFECYCLE_H
#define VIGIL_LIFECYCLE_H

#include "vigil_filter.h"

#define VIGIL_MIN_PKT_MAPPED_LEN 66u

extern u64 numFilters;

/* Empty lists and the default limits and life times of a new filter. */
void VigilFilterSetDefaults(VigilFilter *filter);
zek_Status Vigil_CreateFilter(zek_PortsetHandle portset, u32 portID,
                              VigilFilter **filter);
extern "C" zek_Status Vigil_DestroyFilter(zek_PortID portID);
zek_Status Vigil_CleanupFilter(zek_PortsetHandle portset, zek_PortID portID,
                               void *data);
zek_Status Vigil_CleanupFiltersPS(zek_PortsetHandle portset, void *data);
zek_Status Vigil_CleanupFilters(void);
zek_Status VigilClearFeaturesWithOptFlush(VigilFilter *filter, bool flush);
void Vigil_RemoveIOChainAndFeatures(u32 portID);
zek_Status Vigil_InstallIOChain(VigilFilter *filter);
zek_Status Vigil_RemoveIOChain(VigilFilter *filter);
void VigilRemoveIOChainCB(void *ctx, void *priv, zek_IOChainHandle handle);
/* The list of retired filters: filters gone from their ports whose chains
 * could not be removed.  Retrying removes what it can and frees the filters
 * left without chains; it gives the number still waiting. */
zek_Status Vigil_FilterLifecycleInit(void);
void Vigil_FilterLifecycleCleanup(void);
u32 Vigil_RetryRetiredFilters(void);

/* Module start and stop. */
extern "C" int init_module(void);
extern "C" void cleanup_module(void);
void VigilGenericCleanup(void);
extern "C" int VIGIL_HEAP_MIN_SIZE;
extern "C" int VIGIL_HEAP_MAX_SIZE;
extern "C" bool isLiveUpgrade;

/* Of the migration and management parts. */
zek_Status VigilMigrationInit(void);
zek_Status VigilRtmSubscribe(void);
zek_Status VigilRtmUnsubscribe(void);
zek_Status VigilMgmtIntfInit(void);
zek_Status VigilMgmtIntfCleanup(void);

#endif /* VIGIL_LIFECYCLE_H */
