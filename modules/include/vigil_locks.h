/*
 * The module's locks and their ranks.  All of them live in the module's one
 * lock domain, and a lock may be taken only while holding locks of a lower
 * rank; the platform's checker enforces it.  The order follows the calls:
 * whoever holds a filter may file it in the aging queue or post a message,
 * and anything may log.
 */
#ifndef VIGIL_LOCKS_H
#define VIGIL_LOCKS_H

#include "vigil_types.h"

enum VigilLockRank : u32 {
   /* "vigil.config", reader-writer, one per filter: the filter's tables,
    * lists, configuration and counters.  Batches hold it for read, or for
    * write after a relock; property writes, the aging world and the clean-up
    * take it for write.  Lowest: everything else may be taken under it. */
   VIGIL_RANK_CONFIG = 1,
   /* "vigil.FabClient": the list of portsets whose property handlers are
    * registered.  Taken by the activate and deactivate events and at module
    * stop, with no filter held. */
   VIGIL_RANK_FAB_CLIENT = 2,
   /* "vigil.ratelimit", one per filter: the four rate limiters, which
    * batches under the read lock update. */
   VIGIL_RANK_RATE_LIMIT = 3,
   /* "vigil.agingQ": the aging queue and every filter's agingPortID and
    * agingKey.  Taken under a filter's write lock by whoever moves a key;
    * the aging world lets go of it before taking a filter. */
   VIGIL_RANK_AGING_Q = 4,
   /* "vigil.cpWorldQ": the control-plane world's task queue.  Posting a
    * binding change takes it under the filter and queue locks above. */
   VIGIL_RANK_CP_WORLD_Q = 5,
   /* "vigil.logThrottle": the throttled log's window.  Any line may be
    * written under any of the locks above. */
   VIGIL_RANK_LOG_THROTTLE = 6,
   /* "vigil.retiredFilters": the list of filters whose chains could not be
    * removed, and every filter's chain handles and retired mark.  Taken alone,
    * by property writes, the removal callback and the clean-up; nothing is
    * logged under it. */
   VIGIL_RANK_RETIRED_FILTERS = 7,
};

/* A lock handle that names no lock. */
#define VIGIL_NO_LOCK ((zek_SpinlockHandle)(~(uintptr_t)0))

#endif /* VIGIL_LOCKS_H */
