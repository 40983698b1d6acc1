/*
 * Filter creation and destruction, I/O chains, module start and stop.
 */
#ifndef VIGIL_LIFECYCLE_H
#define VIGIL_LIFECYCLE_H

#include "vigil_exports.h"
#include "vigil_filter.h"

#define VIGIL_MIN_PKT_MAPPED_LEN 66u


/* Empty lists and the default limits and life times of a new filter. */
void VigilFilterSetDefaults(VigilFilter *filter);
VIGIL_MUST_CHECK zek_Status Vigil_CreateFilter(zek_PortsetHandle portset, u32 portID,
                              VigilFilter **filter);
extern "C" VIGIL_MUST_CHECK zek_Status Vigil_DestroyFilter(zek_PortID portID);
VIGIL_MUST_CHECK zek_Status Vigil_CleanupFilter(zek_PortsetHandle portset, zek_PortID portID,
                               void *data);
VIGIL_MUST_CHECK zek_Status Vigil_CleanupFiltersPS(zek_PortsetHandle portset, void *data);
VIGIL_MUST_CHECK zek_Status Vigil_CleanupFilters(void);
VIGIL_MUST_CHECK zek_Status VigilClearFeaturesWithOptFlush(VigilFilter *filter, bool flush);
void Vigil_RemoveIOChainAndFeatures(u32 portID);
VIGIL_MUST_CHECK zek_Status Vigil_InstallIOChain(VigilFilter *filter);
VIGIL_MUST_CHECK zek_Status Vigil_RemoveIOChain(VigilFilter *filter);
void VigilRemoveIOChainCB(void *ctx, void *priv, zek_IOChainHandle handle);
/* The list of retired filters: filters gone from their ports whose chains
 * could not be removed.  Retrying removes what it can and frees the filters
 * left without chains; it gives the number still waiting. */
VIGIL_MUST_CHECK zek_Status Vigil_FilterLifecycleInit(void);
void Vigil_FilterLifecycleCleanup(void);
u32 Vigil_RetryRetiredFilters(void);

/* Module start and stop. */
void VigilGenericCleanup(void);

/* Of the migration and management parts. */
VIGIL_MUST_CHECK zek_Status VigilMigrationInit(void);
VIGIL_MUST_CHECK zek_Status VigilRtmSubscribe(void);
VIGIL_MUST_CHECK zek_Status VigilRtmUnsubscribe(void);
VIGIL_MUST_CHECK zek_Status VigilMgmtIntfInit(void);
VIGIL_MUST_CHECK zek_Status VigilMgmtIntfCleanup(void);

#endif /* VIGIL_LIFECYCLE_H */
