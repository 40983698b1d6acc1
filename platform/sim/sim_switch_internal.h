/*
 * Plumbing between ports, the switch parts (chains, properties, events, flow
 * cache), the heaps and the loader of the simulated host (not for tests).
 * None of these is called with a host lock held.
 */
#ifndef SIM_SWITCH_INTERNAL_H
#define SIM_SWITCH_INTERNAL_H

#include <string>
#include <vector>

#include "sim_internal.h"

namespace sim {

/* ports.cpp: the portset of a live port, nullptr for none (no fault). */
zek_PortsetHandle PortsetOfPort(zek_PortID portID);

/* iochains.cpp: removes the port's chains in insertion order, calling each
 * removal callback, as zek_IOChainRemove does. */
void RemovePortChains(zek_PortID portID);

/* events.cpp: raises VswitchEventName(what) with the portset as data. */
void RaisePortsetEvent(const std::string &what, zek_PortsetHandle ps);

/* flowcache.cpp: drops the flow cache data of a portset that goes away. */
void ForgetPortsetFlowData(zek_PortsetHandle ps);

/* heap.cpp: a point in the history of heap creations and destructions, and
 * what happened after it. */
struct HeapLeakTotals {
   uint64_t leaks;     /* allocations left in heaps destroyed after the mark */
   uint64_t bytes;     /* and their bytes */
   uint64_t heapsLive; /* heaps created after the mark, not destroyed */
};
uint64_t HeapMark();
HeapLeakTotals HeapLeaksSince(uint64_t mark);

/* loader.cpp: true when `fn` is code of the object loaded at `base`. */
bool CodeIn(const void *fn, const void *base);

/* Each part that keeps module callbacks drops those into the object loaded
 * at `base`, describing each one in *what; the loader reports them. */
void DropChainsInto(const void *base, std::vector<std::string> *what);
void DropSubscriptionsInto(const void *base, std::vector<std::string> *what);
void DropClientsInto(const void *base, std::vector<std::string> *what);
void DropPortDestructorsInto(const void *base, std::vector<std::string> *what);

} // namespace sim

#endif /* SIM_SWITCH_INTERNAL_H */
