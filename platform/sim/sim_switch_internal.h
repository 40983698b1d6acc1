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
#include "rtm.h"
#include "sim_switch.h"

namespace sim {

/* ports.cpp: the portset of a live port, nullptr for none (no fault). */
zek_PortsetHandle PortsetOfPort(zek_PortID portID);
/* ports.cpp: the live ports of a portset (of every portset for nullptr) in
 * id order; the live portsets in creation order; whether a live port has a
 * flag.  None of them faults. */
std::vector<zek_PortID> PortsOf(zek_PortsetHandle ps);
std::vector<zek_PortsetHandle> AllPortsets();
bool PortFlagSet(zek_PortID portID, uint32_t flag);

/* properties.cpp: forgets the property values of a port that goes away. */
void ForgetPortProperties(zek_PortID portID);
/* properties.cpp: calls the cleanup handler of every registration into the
 * object loaded at `base` for each property that has a value on the port,
 * in registration order.  The values stay: the port keeps its
 * configuration, only that module lets go of it. */
void CleanupPropertiesInto(const void *base, zek_PortID portID);

/* events.cpp: every subscription gets a serial number; the mark is the
 * number the next one gets.  RaiseEventSince calls only the subscribers of
 * that name whose number is at least `mark`.  Both RaiseEvent and
 * RaiseEventSince deliver the pending property replays when they return
 * to a caller outside every event. */
uint64_t SubscriptionMark();
std::vector<zek_Status> RaiseEventSince(const std::string &name, void *eventData,
                                        uint64_t mark);

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
/* Only the heaps created by code of the object loaded at `owner`, unless it
 * is nullptr: two modules loaded at once each answer for their own. */
HeapLeakTotals HeapLeaksSince(uint64_t mark, const void *owner);

/* loader.cpp: true when `fn` is code of the object loaded at `base`. */
bool CodeIn(const void *fn, const void *base);
/* loader.cpp: where the object holding `addr` is loaded (nullptr when it
 * is in none), for comparing with a module's base. */
const void *ObjectOf(const void *addr);
/* loader.cpp: where a loaded module's object lies (nullptr for none). */
const void *ModuleBase(const LoadedModule *module);

/* Each part that keeps module callbacks drops those into the object loaded
 * at `base`, describing each one in *what; the loader reports them. */
void DropChainsInto(const void *base, std::vector<std::string> *what);
void DropSubscriptionsInto(const void *base, std::vector<std::string> *what);
void DropClientsInto(const void *base, std::vector<std::string> *what);
void DropPortDestructorsInto(const void *base, std::vector<std::string> *what);
void DropTransitClientsInto(const void *base, std::vector<std::string> *what);
/* rtm.cpp: the RTM service forgets the clients that the object loaded at
 * `base` registered, without a word: it learns of a client module's unload
 * itself (clients register with their module id), and a client has no call
 * of its own to end its registration. */
void ForgetRtmClientsOf(const void *base);

/* rtm.cpp: gives the current announcement of the RTM service, if it is
 * announced, to the subscriptions made since `mark` (a module that
 * subscribed after the service announced itself); and drops a client
 * without calling anything, as the service does with the outgoing module's
 * client at the end of an upgrade. */
void RtmDeliverAnnouncementSince(uint64_t mark);
void RtmDropClient(oxa_RtmClientHandle handle);

/* buffers.cpp: a buffer of exactly `size` bytes for a module to save into
 * or restore from.  With guard pages on (sim::SetGuardedBuffers), its last
 * byte is the last byte before a page that can't be touched, so that a
 * module reading or writing past the end faults at once; otherwise it is a
 * plain heap block.  A size of 0 gives no buffer at all (data() nullptr). */
class ModuleBuffer {
 public:
   explicit ModuleBuffer(size_t size, uint8_t fill = 0);
   ~ModuleBuffer();
   ModuleBuffer(const ModuleBuffer &) = delete;
   ModuleBuffer &operator=(const ModuleBuffer &) = delete;
   uint8_t *data() { return data_; }
   size_t size() const { return size_; }

 private:
   uint8_t *data_ = nullptr;
   size_t size_ = 0;
   void *map_ = nullptr; /* the mapping, with guard pages */
   size_t mapLen_ = 0;
};

} // namespace sim

#endif /* SIM_SWITCH_INTERNAL_H */
