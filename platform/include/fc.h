/*
 * The flow cache sibling module ("FC"): per-portset data with the warden hash
 * that mirrors port white lists, and flow invalidation.
 */
#ifndef FC_H
#define FC_H

#include "zek.h"

extern "C" {

typedef struct FC_WardenHash FC_WardenHash;

typedef struct FC_PortsetData {
   FC_WardenHash *wardenHash;
} FC_PortsetData;

FC_PortsetData *FC_GetPortsetData(zek_PortsetHandle ps);
/* `entry` points at a 32-byte white list entry. */
zek_Status FC_WardenHashInsert(FC_WardenHash *hash, const void *entry,
                               uint32_t isIpv6, zek_PortID portID);
zek_Status FC_WardenHashRemove(FC_WardenHash *hash, const void *entry,
                               uint32_t isIpv6, zek_PortID portID);
void FC_InvalidateFlows(uint32_t reason, zek_PortID portID);

} /* extern "C" */

#endif /* FC_H */
