/*
 * Portsets and ports of the simulated host: per-port data slots, flags, VNIC
 * handles, portset holds and walks.  Walks and slot destructors run on a
 * snapshot with no host lock held, since callbacks call back into the host.
 *
 * A portset that comes raises the vswitch "activate" event once it exists;
 * one that goes raises "deactivate" first, then loses its ports (each port
 * its I/O chains, then its data slots) and its flow cache data.
 */
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <shared_mutex>

#include "sim_spinlock.h"
#include "sim_switch_internal.h"

struct zek_Portset {
   std::string name;
   std::string cls;
   uint32_t acquired = 0; /* holds taken and not released */
};

struct zek_VNIC {
   zek_PortID portID;
   uint32_t type;
};

namespace sim {
namespace {

constexpr uint32_t kSlots = 16;
constexpr zek_Status kOverflow = 0xbad0026;

struct Slot {
   bool used = false;
   void *value = nullptr;
   oxa_PortDataDestructor destructor = nullptr;
};

struct Port {
   zek_PortID id;
   zek_Portset *portset;
   PortOptions opts;
   std::set<uint32_t> flags;
   Slot slots[kSlots];
   zek_VNIC vnic;
};

/* Guards the portsets and ports.  A spinlock: it is held only for table
 * looks and updates, and the data path reads a port's data slot under it
 * on every batch. */
sim::RwSpinlock gPortMutex;
std::vector<std::unique_ptr<zek_Portset>> gPortsets; /* in creation order */
std::map<zek_PortID, Port> gPorts;
/* The port found last: the data path looks up the same port batch after
 * batch, and a map node stays where it is until it is erased.  Written
 * under either mode of gPortMutex, cleared under the exclusive mode
 * whenever a port goes, so that a reader never sees a port that is gone. */
std::atomic<Port *> gLastPort{nullptr};

/* The data path reads a port's filter slot on every batch, and twice for a
 * batch that relocks; the slots change only when a filter comes or goes.
 * So the slots in use are also kept in a small table that a read looks up
 * without taking gPortMutex: each entry holds one (port, slot, value) under
 * a sequence word that is odd while the entry is being written.  Entries
 * are written only under the exclusive mode of gPortMutex, whenever a slot
 * is set or unset and whenever a port goes; a read that finds no entry for
 * its port and slot, or one being written, takes the lock and the map. */
constexpr uint32_t kFastSlots = 64;

struct FastSlot {
   std::atomic<uint32_t> seq{0};
   std::atomic<zek_PortID> portID{0};
   std::atomic<uint32_t> slot{0};
   std::atomic<bool> used{false}; /* false: the entry tells nothing */
   std::atomic<void *> value{nullptr};
};

FastSlot gFastSlots[kFastSlots];

FastSlot &FastSlotOf(zek_PortID portID, uint32_t slot) {
   return gFastSlots[(portID * 16u + slot) % kFastSlots];
}

/* Writes an entry; the caller holds gPortMutex exclusively.  `used` false
 * empties it. */
void WriteFastSlot(zek_PortID portID, uint32_t slot, bool used, void *value) {
   FastSlot &e = FastSlotOf(portID, slot);
   const uint32_t seq = e.seq.load(std::memory_order_relaxed);
   e.seq.store(seq + 1, std::memory_order_relaxed);
   std::atomic_thread_fence(std::memory_order_release);
   e.portID.store(portID, std::memory_order_relaxed);
   e.slot.store(slot, std::memory_order_relaxed);
   e.value.store(value, std::memory_order_relaxed);
   e.used.store(used, std::memory_order_relaxed);
   e.seq.store(seq + 2, std::memory_order_release);
}

/* Empties whatever entry the port's slot would use, so that no entry
 * survives its port. */
void ForgetFastSlotsOf(zek_PortID portID) {
   for (uint32_t slot = 0; slot < kSlots; slot++) {
      FastSlot &e = FastSlotOf(portID, slot);
      if (e.used.load(std::memory_order_relaxed) &&
          e.portID.load(std::memory_order_relaxed) == portID &&
          e.slot.load(std::memory_order_relaxed) == slot) {
         WriteFastSlot(portID, slot, false, nullptr);
      }
   }
}

/* The slot's value from the table: true with *value when an entry answers
 * for the port and slot, false when the map must answer. */
bool ReadFastSlot(zek_PortID portID, uint32_t slot, void **value) {
   FastSlot &e = FastSlotOf(portID, slot);
   const uint32_t before = e.seq.load(std::memory_order_acquire);
   if (before & 1) {
      return false;
   }
   const bool used = e.used.load(std::memory_order_relaxed);
   const zek_PortID id = e.portID.load(std::memory_order_relaxed);
   const uint32_t at = e.slot.load(std::memory_order_relaxed);
   void *v = e.value.load(std::memory_order_relaxed);
   std::atomic_thread_fence(std::memory_order_acquire);
   if (e.seq.load(std::memory_order_relaxed) != before || !used || id != portID ||
       at != slot) {
      return false;
   }
   *value = v;
   return true;
}

void ResetPorts() {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   gLastPort.store(nullptr, std::memory_order_relaxed);
   for (FastSlot &e : gFastSlots) {
      if (e.used.load(std::memory_order_relaxed)) {
         WriteFastSlot(e.portID.load(std::memory_order_relaxed),
                       e.slot.load(std::memory_order_relaxed), false, nullptr);
      }
   }
   gPorts.clear();
   gPortsets.clear();
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetPorts); }
} gRegistrar;

bool LivePortset(zek_PortsetHandle ps) {
   for (auto &p : gPortsets) {
      if (p.get() == ps) return true;
   }
   return false;
}

zek_Portset *PortsetNamed(const std::string &name) {
   for (auto &p : gPortsets) {
      if (p->name == name) return p.get();
   }
   return nullptr;
}

/* The caller holds gPortMutex in either mode. */
Port *FindPort(zek_PortID portID) {
   Port *last = gLastPort.load(std::memory_order_relaxed);
   if (last != nullptr && last->id == portID) {
      return last;
   }
   auto it = gPorts.find(portID);
   if (it == gPorts.end()) {
      return nullptr;
   }
   gLastPort.store(&it->second, std::memory_order_relaxed);
   return &it->second;
}

zek_Status CopyOut(const std::string &text, char *buf, size_t size) {
   if (buf == nullptr) return kBadParam;
   if (text.size() + 1 > size) return kOverflow;
   std::memcpy(buf, text.c_str(), text.size() + 1);
   return ZEK_OK;
}

} // namespace

zek_PortsetHandle AddPortset(const std::string &name, const std::string &cls) {
   zek_PortsetHandle ps;
   {
      std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
      if (PortsetNamed(name) != nullptr) return nullptr;
      gPortsets.push_back(std::make_unique<zek_Portset>(zek_Portset{name, cls}));
      ps = gPortsets.back().get();
   }
   RaisePortsetEvent("activate", ps);
   return ps;
}

void RemovePortset(const std::string &name) {
   zek_PortsetHandle ps = FindPortset(name);
   if (ps == nullptr) return;
   RaisePortsetEvent("deactivate", ps);
   std::vector<zek_PortID> ports;
   {
      std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
      for (auto &entry : gPorts) {
         if (entry.second.portset == ps) ports.push_back(entry.first);
      }
   }
   for (zek_PortID id : ports) RemovePort(id);
   ForgetPortsetFlowData(ps);
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   for (auto it = gPortsets.begin(); it != gPortsets.end(); ++it) {
      if ((*it)->name == name) {
         gPortsets.erase(it);
         break;
      }
   }
}

zek_PortsetHandle FindPortset(const std::string &name) {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   return PortsetNamed(name);
}

bool AddPort(const std::string &portset, zek_PortID portID,
             const PortOptions &opts) {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   zek_Portset *ps = PortsetNamed(portset);
   if (ps == nullptr || gPorts.count(portID)) return false;
   Port &port = gPorts[portID];
   port.id = portID;
   port.portset = ps;
   port.opts = opts;
   if (port.opts.fabSwitch.empty()) port.opts.fabSwitch = portset;
   if (port.opts.fabPort.empty()) port.opts.fabPort = std::to_string(portID);
   if (opts.enabled) port.flags.insert(ZEK_PORT_FLAG_ENABLED);
   port.vnic = zek_VNIC{portID, opts.vnicType};
   return true;
}

bool RemovePort(zek_PortID portID) {
   if (!PortExists(portID)) return false;
   /* The chains go first, with their removal callbacks. */
   RemovePortChains(portID);
   std::vector<oxa_PortDataDestructor> destructors;
   {
      std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
      Port *port = FindPort(portID);
      if (port == nullptr) return false;
      for (Slot &slot : port->slots) {
         if (slot.used && slot.destructor != nullptr) {
            destructors.push_back(slot.destructor);
         }
      }
   }
   /* The port stays visible while its destructors run: they read their
    * slot through oxa_PortVoltaliteDataGet. */
   for (oxa_PortDataDestructor destructor : destructors) destructor(portID);
   {
      std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
      gLastPort.store(nullptr, std::memory_order_relaxed);
      ForgetFastSlotsOf(portID);
      gPorts.erase(portID);
   }
   /* The port's property values go with it. */
   ForgetPortProperties(portID);
   return true;
}

zek_PortsetHandle PortsetOfPort(zek_PortID portID) {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   return port != nullptr ? port->portset : nullptr;
}

std::vector<zek_PortID> PortsOf(zek_PortsetHandle ps) {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   std::vector<zek_PortID> out;
   for (auto &entry : gPorts) {
      if (ps == nullptr || entry.second.portset == ps) out.push_back(entry.first);
   }
   return out;
}

std::vector<zek_PortsetHandle> AllPortsets() {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   std::vector<zek_PortsetHandle> out;
   for (auto &p : gPortsets) out.push_back(p.get());
   return out;
}

bool PortFlagSet(zek_PortID portID, uint32_t flag) {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   return port != nullptr && port->flags.count(flag) != 0;
}

void DropPortDestructorsInto(const void *base, std::vector<std::string> *what) {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   for (auto &entry : gPorts) {
      for (uint32_t i = 0; i < kSlots; i++) {
         Slot &slot = entry.second.slots[i];
         if (slot.used && CodeIn(reinterpret_cast<const void *>(slot.destructor), base)) {
            what->push_back("data slot " + std::to_string(i) + " destructor on port " +
                            std::to_string(entry.first));
            slot.destructor = nullptr;
         }
      }
   }
}

bool PortExists(zek_PortID portID) {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   return FindPort(portID) != nullptr;
}

void SetPortFlag(zek_PortID portID, uint32_t flag, bool on) {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   if (port == nullptr) return;
   if (on) {
      port->flags.insert(flag);
   } else {
      port->flags.erase(flag);
   }
}

void *PortData(zek_PortID portID, uint32_t slot) {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   return port != nullptr && slot < kSlots ? port->slots[slot].value : nullptr;
}

uint32_t PortsetsAcquired() {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   uint32_t total = 0;
   for (auto &p : gPortsets) total += p->acquired;
   return total;
}

} // namespace sim

using namespace sim;

extern "C" {

/* A slot's value from the map, under the lock; out of line, so that a
 * read the table answers saves and restores nothing. */
__attribute__((noinline)) static zek_Status PortDataGetLocked(zek_PortID portID, uint32_t slot,
                                                              void **value) {
   std::shared_lock<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   if (port == nullptr || !port->slots[slot].used) return kNotFound;
   *value = port->slots[slot].value;
   return ZEK_OK;
}

static inline zek_Status PortDataGet(zek_PortID portID, uint32_t slot, void **value) {
   if (slot >= kSlots || value == nullptr) return kBadParam;
   if (ReadFastSlot(portID, slot, value)) return ZEK_OK;
   return PortDataGetLocked(portID, slot, value);
}

__attribute__((noinline, cold)) static zek_Status
PortDataGetWithFaults(zek_PortID portID, uint32_t slot, void **value) {
   zek_Status status;
   if (sim::FaultCheck("PortVoltaliteDataGet", &status)) return status;
   return PortDataGet(portID, slot, value);
}

zek_Status oxa_PortVoltaliteDataGet(zek_PortID portID, uint32_t slot,
                                    void **value) {
   /* The fault check lives out of line, as the frame calls' do. */
   if (__builtin_expect(sim::AnyCallFaultArmed(), 0)) {
      return PortDataGetWithFaults(portID, slot, value);
   }
   return PortDataGet(portID, slot, value);
}

zek_Status oxa_PortVoltaliteDataSet(zek_PortID portID, uint32_t slot,
                                    void *value,
                                    oxa_PortDataDestructor destructor) {
   SIM_FAULT_RETURN("PortVoltaliteDataSet");
   if (slot >= kSlots) return kBadParam;
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   if (port == nullptr) return kNotFound;
   port->slots[slot] = Slot{true, value, destructor};
   WriteFastSlot(portID, slot, true, value);
   return ZEK_OK;
}

zek_Status oxa_PortVoltaliteDataUnset(zek_PortID portID, uint32_t slot) {
   SIM_FAULT_RETURN("PortVoltaliteDataUnset");
   if (slot >= kSlots) return kBadParam;
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   if (port == nullptr || !port->slots[slot].used) return kNotFound;
   port->slots[slot] = Slot{};
   WriteFastSlot(portID, slot, false, nullptr);
   return ZEK_OK;
}

zek_Status zek_PortsetAcquireByName(const char *name, uint32_t,
                                    zek_PortsetHandle *ps) {
   SIM_FAULT_RETURN("PortsetAcquireByName");
   if (name == nullptr || ps == nullptr) return kBadParam;
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   zek_Portset *found = PortsetNamed(name);
   if (found == nullptr) return kNotFound;
   found->acquired++;
   *ps = found;
   return ZEK_OK;
}

zek_Status zek_PortsetAcquireByPortID(zek_PortID portID, uint32_t,
                                      zek_PortsetHandle *ps) {
   SIM_FAULT_RETURN("PortsetAcquireByPortID");
   if (ps == nullptr) return kBadParam;
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   if (port == nullptr) return kNotFound;
   port->portset->acquired++;
   *ps = port->portset;
   return ZEK_OK;
}

zek_Status zek_PortsetRelease(zek_PortsetHandle ps) {
   SIM_FAULT_RETURN("PortsetRelease");
   {
      std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
      if (LivePortset(ps) && ps->acquired > 0) {
         ps->acquired--;
         return ZEK_OK;
      }
   }
   ReportFailure("portset release of a handle that is not acquired");
   return kBadParam;
}

zek_Status zek_PortsetFindByPortID(zek_PortID portID, zek_PortsetHandle *ps) {
   SIM_FAULT_RETURN("PortsetFindByPortID");
   if (ps == nullptr) return kBadParam;
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   if (port == nullptr) return kNotFound;
   *ps = port->portset;
   return ZEK_OK;
}

const char *zek_PortsetName(zek_PortsetHandle ps) {
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   return LivePortset(ps) ? ps->name.c_str() : "";
}

zek_Status zek_PortsetForAllPorts(zek_PortsetHandle ps, zek_PortsetPortFn fn,
                                  void *data) {
   SIM_FAULT_RETURN("PortsetForAllPorts");
   if (fn == nullptr) return kBadParam;
   std::vector<zek_PortID> ports;
   {
      std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
      if (!LivePortset(ps)) return kNotFound;
      for (auto &entry : gPorts) {
         if (entry.second.portset == ps) ports.push_back(entry.first);
      }
   }
   for (zek_PortID id : ports) {
      zek_Status status = fn(ps, id, data);
      if (status != ZEK_OK) return status;
   }
   return ZEK_OK;
}

zek_Status zek_PortsetForAllPortsets(uint32_t, zek_PortsetFn fn, void *data) {
   SIM_FAULT_RETURN("PortsetForAllPortsets");
   if (fn == nullptr) return kBadParam;
   std::vector<zek_PortsetHandle> portsets;
   {
      std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
      for (auto &p : gPortsets) portsets.push_back(p.get());
   }
   for (zek_PortsetHandle ps : portsets) {
      zek_Status status = fn(ps, data);
      if (status != ZEK_OK) return status;
   }
   return ZEK_OK;
}

zek_Status zek_PortsetLookupFABClassName(zek_PortsetHandle ps, char *name,
                                         size_t size) {
   SIM_FAULT_RETURN("PortsetLookupFABClassName");
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   if (!LivePortset(ps)) return kNotFound;
   return CopyOut(ps->cls, name, size);
}

zek_Status zek_PortFindByFABPortID(const char *port, const char *fabSwitch,
                                   zek_PortID *portID) {
   SIM_FAULT_RETURN("PortFindByFABPortID");
   if (port == nullptr || fabSwitch == nullptr || portID == nullptr) {
      return kBadParam;
   }
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   for (auto &entry : gPorts) {
      if (entry.second.opts.fabPort == port &&
          entry.second.opts.fabSwitch == fabSwitch) {
         *portID = entry.first;
         return ZEK_OK;
      }
   }
   return kNotFound;
}

zek_Status zek_PortFlagIsSet(zek_PortID portID, uint32_t flag, int *isSet) {
   SIM_FAULT_RETURN("PortFlagIsSet");
   if (isSet == nullptr) return kBadParam;
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   if (port == nullptr) return kNotFound;
   *isSet = port->flags.count(flag) ? 1 : 0;
   return ZEK_OK;
}

zek_Status zek_VNICHandleGet(zek_PortID portID, zek_VNICHandle *handle) {
   SIM_FAULT_RETURN("VNICHandleGet");
   if (handle == nullptr) return kBadParam;
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   Port *port = FindPort(portID);
   if (port == nullptr || !port->opts.vnicReadable) return kNotFound;
   *handle = &port->vnic;
   return ZEK_OK;
}

zek_Status zek_VNICTypeGet(zek_VNICHandle handle, uint32_t *type) {
   SIM_FAULT_RETURN("VNICTypeGet");
   if (handle == nullptr || type == nullptr) return kBadParam;
   std::lock_guard<sim::RwSpinlock> guard(gPortMutex);
   for (auto &entry : gPorts) {
      if (&entry.second.vnic == handle) {
         *type = entry.second.vnic.type;
         return ZEK_OK;
      }
   }
   return kNotFound;
}

} /* extern "C" */
