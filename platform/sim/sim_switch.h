/*
 * Test API of the simulated host: the virtual switch around the module (I/O
 * chains, port properties, portset events), the flow cache and accelerated
 * datapath siblings, and the loader that runs the module as a shared object.
 *
 * Only tests and tools include this.
 */
#ifndef SIM_SWITCH_H
#define SIM_SWITCH_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "zek.h"
#include "fc.h"

namespace sim {

/* ------------------------------------------------------------ I/O chains */
/* Runs the port's input chains (SendFromVM: frames coming from the VM) or
 * output chains (DeliverToVM: frames going to the VM) on `list`, in the
 * order they were inserted, each as fn(portID, priv, list).  Before the
 * first one runs, every frame of the list is mapped at least as far as the
 * largest minimum mapped length of those chains (never beyond the frame).
 * A chain that answers a status other than ZEK_OK stops the run; that status
 * is returned.  An unknown port answers 0xbad0003 and runs nothing. */
uint32_t SendFromVM(zek_PortID portID, zek_PktList *list);
uint32_t DeliverToVM(zek_PortID portID, zek_PktList *list);
/* Largest minimum mapped length of the port's chains, both directions. */
uint32_t MinMappedLen(zek_PortID portID);
struct ChainInfo {
   zek_IOChainHandle handle;
   uint32_t direction; /* ZEK_IOCHAIN_INPUT or ZEK_IOCHAIN_OUTPUT */
   std::string label;
   std::string name;
   uint32_t chainClass;
   uint32_t minMappedLen;
};
/* The port's chains in insertion order. */
std::vector<ChainInfo> PortChains(zek_PortID portID);
uint32_t LiveChains(); /* inserted and not removed, on every port */
/* sim::RemovePort takes the port's chains off first, each with its removal
 * callback as zek_IOChainRemove does, and only then runs the destructors of
 * the port's data slots. */

/* ------------------------------------------------------ port properties */
/* The switch keeps each port's properties: the last value written under
 * each name, until the property is cleaned up or the port goes away.  A
 * handler registered for a property on a portset whose ports already carry
 * values of it is given each of them as a write, as the switch replays a
 * port's configuration to a new client (see ReplayProperties).
 *
 * WriteProperty writes a property of a port as the switch does: the
 * registration for that property on the port's portset gets
 * ops->write(portset, portID, name, bytes, size), with nullptr for an empty
 * value, and its status is returned.  Without a registration (or for an
 * unknown port) *handled is false and the answer is 0xbad0003.  `handled`
 * may be nullptr.  The port keeps the value when the handler accepts it
 * (ZEK_OK) or when there is no handler to ask; a refused value leaves the
 * one kept before. */
zek_Status WriteProperty(zek_PortID portID, const std::string &prop,
                         const std::vector<uint8_t> &data, bool *handled);
/* The same for ops->cleanup(portset, portID); 0 when that slot is empty.
 * The property leaves the port: its kept value is forgotten, handled or not. */
zek_Status CleanupProperty(zek_PortID portID, const std::string &prop,
                           bool *handled);
/* The value the port keeps under that name; false when it keeps none. */
bool PropertyValue(zek_PortID portID, const std::string &prop,
                   std::vector<uint8_t> *value);
/* Replays to the registrations made since the last replay the values their
 * portset's ports already carry: for each such registration still in place,
 * in registration order, and each port of its portset (in id order) that
 * keeps a value of its property, one ops->write with the value kept now.
 * The switch does this from its own context once the registering call has
 * returned, never inside zek_FABClientPortRegister (whose caller may hold
 * its own locks): the host runs it when a raised event returns
 * (RaiseEvent, and so AddPortset and RemovePortset), after init_module
 * (LoadModule), and tests that register from their own code call it.
 * Returns how many writes were made. */
uint32_t ReplayProperties();
/* Property names registered on the portset, in registration order. */
std::vector<std::string> RegisteredProperties(const std::string &portset);
uint32_t LiveClientRegistrations();

/* ------------------------------------------------------ portset events */
/* Calls fn(nullptr, name, cbData, eventData) for every subscriber of exactly
 * that name, in subscription order; a subscriber's status does not stop the
 * others.  Then, outside every event, the pending property replays are
 * delivered (ReplayProperties).  Returns the subscribers' statuses, in the
 * order they were called. */
std::vector<zek_Status> RaiseEvent(const std::string &name, void *eventData);
/* The names of the live subscriptions, in subscription order. */
std::vector<std::string> Subscriptions();
/* "com.norvex.oxa.vswitch.<what>.<OXA_BUILD_NUMBER>": the names under which
 * AddPortset raises "activate" and RemovePortset "deactivate", with the
 * portset handle as the event data. */
std::string VswitchEventName(const std::string &what);

/* ------------------------------------------------------------ flow cache */
/* The warden hash records of the portset's flow cache data, in insertion
 * order. */
struct WardenHashEntry {
   zek_PortID portID;
   uint32_t isIpv6;
   std::vector<uint8_t> entry; /* the 32 bytes */
};
std::vector<WardenHashEntry> FlowCacheEntries(const std::string &portset);
/* FC_InvalidateFlows calls since Reset or the last take, in order. */
struct Invalidation {
   uint32_t reason;
   zek_PortID portID;
};
std::vector<Invalidation> TakeInvalidations();

/* ------------------------------------------------- accelerated datapath */
/* What zek_GlxIsEnabled answers for the portset of that name (off until set;
 * kept until Reset, also across removal and re-adding of the portset). */
void SetGlxEnabled(const std::string &portset, bool on);
/* zek_GlxPortCommand calls since Reset or the last take, in order: the name
 * is the NUL-terminated text in the record's first 128 bytes; the byte at
 * offset 136 is taken when the record is at least 137 bytes long (0
 * otherwise). */
struct GlxCommand {
   zek_PortID portID;
   std::string name;
   uint8_t isPortWardenEnabled;
   uint32_t cmdClass;
   uint32_t len;
};
std::vector<GlxCommand> TakeGlxCommands();

/* ---------------------------------------------------------------- loader */
/* Loads the shared object at `soPath` from a private copy of the file, so
 * that two loads are two modules with their own globals.  Each parameter
 * sets the module global of that name (VIGIL_HEAP_MIN_SIZE and
 * VIGIL_HEAP_MAX_SIZE: int; isLiveUpgrade: bool), then init_module runs and
 * *initResult gets its answer.  The module stays loaded even when init fails
 * (UnloadModule then skips cleanup_module, as the kernel does).  nullptr and
 * *error set when the file cannot be loaded, a parameter is unknown or
 * missing from the module, or the module has no init_module.  After
 * init_module the pending property replays are delivered (ReplayProperties),
 * so that a module that registered with portsets at start gets the values
 * their ports carry. */
struct LoadedModule;
LoadedModule *LoadModule(const std::string &soPath,
                         const std::vector<std::pair<std::string, int64_t>> &params,
                         int *initResult, std::string *error);
/* Runs cleanup_module (when init succeeded), closes and deletes the copy.
 * leaks and leakBytes: allocations left in the module's heaps (those its
 * code created) destroyed since the load; heapsLive: the module's heaps
 * created since the load and not destroyed;
 * framesLive: sim::FramesLive() after the unload; callbacksLeft: chains,
 * subscriptions, property registrations, Transit clients and port data
 * destructors still pointing into the module's code, and priority queues
 * its code created and did not destroy, each reported as a host failure and
 * dropped (never called, queues freed).  The RTM service forgets the
 * module's clients by itself (sim_migration.h). */
struct UnloadReport {
   uint64_t leaks;
   uint64_t leakBytes;
   uint64_t framesLive;
   uint64_t heapsLive;
   uint64_t callbacksLeft;
};
UnloadReport UnloadModule(LoadedModule *module);
/* dlsym in the loaded module (nullptr when absent). */
void *ModuleSymbol(LoadedModule *module, const std::string &name);

} // namespace sim

#endif /* SIM_SWITCH_H */
