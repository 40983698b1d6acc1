/*
 * Switch clients of the simulated host: handlers of a named port property on
 * one portset, and the properties the ports carry.  The tests write a
 * property of a port as the switch would, and the registration for it gets
 * the bytes.  The port keeps the last value of each property, and a handler
 * that registers later is given the values its portset's ports carry, once
 * the registering call has returned (ReplayProperties).  Handlers run with
 * no host lock held.
 */
#include <list>
#include <map>
#include <memory>

#include "sim_switch.h"
#include "sim_switch_internal.h"

struct zek_FABClient {
   std::string portset;
   std::string prop;
   zek_FABClientPortOps ops;
   uint64_t serial; /* registrations are told apart by it, not by address */
};

namespace sim {
namespace {

std::mutex gClientMutex;
std::list<std::unique_ptr<zek_FABClient>> gClients; /* in registration order */
uint64_t gNextSerial = 1;
/* Per port, the last value of each property. */
std::map<zek_PortID, std::map<std::string, std::vector<uint8_t>>> gValues;
/* Registrations made while ports of their portset carried values of their
 * property, in registration order, waiting for ReplayProperties. */
std::vector<uint64_t> gPendingReplays;

void ResetClients() {
   std::lock_guard<std::mutex> guard(gClientMutex);
   gClients.clear();
   gValues.clear();
   gPendingReplays.clear();
   gNextSerial = 1;
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetClients); }
} gRegistrar;

/* The ops registered for the property on the port's portset. */
bool FindOps(zek_PortID portID, const std::string &prop, zek_PortsetHandle *ps,
             zek_FABClientPortOps *ops) {
   *ps = PortsetOfPort(portID);
   if (*ps == nullptr) return false;
   const std::string portset = zek_PortsetName(*ps);
   std::lock_guard<std::mutex> guard(gClientMutex);
   for (auto &client : gClients) {
      if (client->portset == portset && client->prop == prop) {
         *ops = client->ops;
         return true;
      }
   }
   return false;
}

void SetHandled(bool *handled, bool value) {
   if (handled != nullptr) *handled = value;
}

/* Called with gClientMutex held. */
bool HasValue(zek_PortID portID, const std::string &prop) {
   auto port = gValues.find(portID);
   return port != gValues.end() && port->second.count(prop) != 0;
}

void KeepValue(zek_PortID portID, const std::string &prop,
               const std::vector<uint8_t> &data) {
   if (PortsetOfPort(portID) == nullptr) return;
   std::lock_guard<std::mutex> guard(gClientMutex);
   gValues[portID][prop] = data;
}

void ForgetValue(zek_PortID portID, const std::string &prop) {
   std::lock_guard<std::mutex> guard(gClientMutex);
   auto port = gValues.find(portID);
   if (port == gValues.end()) return;
   port->second.erase(prop);
   if (port->second.empty()) gValues.erase(port);
}

} // namespace

void ForgetPortProperties(zek_PortID portID) {
   std::lock_guard<std::mutex> guard(gClientMutex);
   gValues.erase(portID);
}

bool PropertyValue(zek_PortID portID, const std::string &prop,
                   std::vector<uint8_t> *value) {
   std::lock_guard<std::mutex> guard(gClientMutex);
   if (!HasValue(portID, prop)) return false;
   if (value != nullptr) *value = gValues[portID][prop];
   return true;
}

uint32_t ReplayProperties() {
   uint32_t writes = 0;
   for (;;) {
      std::vector<uint64_t> pending;
      {
         std::lock_guard<std::mutex> guard(gClientMutex);
         pending.swap(gPendingReplays);
      }
      if (pending.empty()) return writes;
      for (uint64_t serial : pending) {
         std::string portset, prop;
         zek_FABClientPortOps ops{};
         bool found = false;
         {
            std::lock_guard<std::mutex> guard(gClientMutex);
            for (auto &client : gClients) {
               if (client->serial == serial) {
                  portset = client->portset;
                  prop = client->prop;
                  ops = client->ops;
                  found = true;
                  break;
               }
            }
         }
         /* A registration that ended meanwhile is owed nothing. */
         if (!found || ops.write == nullptr) continue;
         zek_PortsetHandle ps = FindPortset(portset);
         if (ps == nullptr) continue;
         for (zek_PortID portID : PortsOf(ps)) {
            std::vector<uint8_t> value;
            if (!PropertyValue(portID, prop, &value)) continue;
            /* The handler's status is its own business: the value stays. */
            (void)ops.write(ps, portID, prop.c_str(),
                            value.empty() ? nullptr : value.data(),
                            static_cast<uint32_t>(value.size()));
            writes++;
         }
      }
   }
}

void CleanupPropertiesInto(const void *base, zek_PortID portID) {
   zek_PortsetHandle ps = PortsetOfPort(portID);
   if (ps == nullptr) return;
   const std::string portset = zek_PortsetName(ps);
   std::vector<zek_FABPropCleanupFn> cleanups;
   {
      std::lock_guard<std::mutex> guard(gClientMutex);
      for (auto &client : gClients) {
         if (client->portset == portset && client->ops.cleanup != nullptr &&
             CodeIn(reinterpret_cast<const void *>(client->ops.cleanup), base) &&
             HasValue(portID, client->prop)) {
            cleanups.push_back(client->ops.cleanup);
         }
      }
   }
   for (zek_FABPropCleanupFn cleanup : cleanups) (void)cleanup(ps, portID);
}

void DropClientsInto(const void *base, std::vector<std::string> *what) {
   std::lock_guard<std::mutex> guard(gClientMutex);
   for (auto it = gClients.begin(); it != gClients.end();) {
      const zek_FABClientPortOps &ops = (*it)->ops;
      if (CodeIn(reinterpret_cast<const void *>(ops.write), base) ||
          CodeIn(reinterpret_cast<const void *>(ops.cleanup), base)) {
         what->push_back("property '" + (*it)->prop + "' handler on portset " +
                         (*it)->portset);
         it = gClients.erase(it);
      } else {
         ++it;
      }
   }
}

zek_Status WriteProperty(zek_PortID portID, const std::string &prop,
                         const std::vector<uint8_t> &data, bool *handled) {
   zek_PortsetHandle ps;
   zek_FABClientPortOps ops;
   if (!FindOps(portID, prop, &ps, &ops) || ops.write == nullptr) {
      /* Nobody to ask: the port carries the value all the same. */
      KeepValue(portID, prop, data);
      SetHandled(handled, false);
      return kNotFound;
   }
   SetHandled(handled, true);
   zek_Status status = ops.write(ps, portID, prop.c_str(),
                                 data.empty() ? nullptr : data.data(),
                                 static_cast<uint32_t>(data.size()));
   if (status == ZEK_OK) KeepValue(portID, prop, data);
   return status;
}

zek_Status CleanupProperty(zek_PortID portID, const std::string &prop,
                           bool *handled) {
   zek_PortsetHandle ps;
   zek_FABClientPortOps ops;
   ForgetValue(portID, prop);
   if (!FindOps(portID, prop, &ps, &ops)) {
      SetHandled(handled, false);
      return kNotFound;
   }
   SetHandled(handled, true);
   return ops.cleanup != nullptr ? ops.cleanup(ps, portID) : ZEK_OK;
}

std::vector<std::string> RegisteredProperties(const std::string &portset) {
   std::lock_guard<std::mutex> guard(gClientMutex);
   std::vector<std::string> out;
   for (auto &client : gClients) {
      if (client->portset == portset) out.push_back(client->prop);
   }
   return out;
}

uint32_t LiveClientRegistrations() {
   std::lock_guard<std::mutex> guard(gClientMutex);
   return static_cast<uint32_t>(gClients.size());
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_FABClientPortRegister(zek_FABClientHandle *handle,
                                     const char *portsetName,
                                     const char *propName,
                                     const zek_FABClientPortOps *ops) {
   SIM_FAULT_RETURN("FABClientPortRegister");
   if (handle == nullptr || portsetName == nullptr || propName == nullptr ||
       ops == nullptr) {
      return kBadParam;
   }
   zek_PortsetHandle ps = FindPortset(portsetName);
   if (ps == nullptr) return kNotFound;
   const std::vector<zek_PortID> ports = PortsOf(ps);
   std::lock_guard<std::mutex> guard(gClientMutex);
   for (auto &client : gClients) {
      if (client->portset == portsetName && client->prop == propName) {
         return kExists;
      }
   }
   const uint64_t serial = gNextSerial++;
   gClients.push_back(std::make_unique<zek_FABClient>(
      zek_FABClient{portsetName, propName, *ops, serial}));
   *handle = gClients.back().get();
   /* Values already on the portset's ports are replayed later, from the
    * switch's own context. */
   for (zek_PortID portID : ports) {
      if (HasValue(portID, propName)) {
         gPendingReplays.push_back(serial);
         break;
      }
   }
   return ZEK_OK;
}

zek_Status zek_FABClientPortUnregister(zek_FABClientHandle handle) {
   SIM_FAULT_RETURN("FABClientPortUnregister");
   std::lock_guard<std::mutex> guard(gClientMutex);
   for (auto it = gClients.begin(); it != gClients.end(); ++it) {
      if (it->get() == handle) {
         gClients.erase(it);
         return ZEK_OK;
      }
   }
   return kNotFound;
}

} /* extern "C" */
