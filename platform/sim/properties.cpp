/*
 * Switch clients of the simulated host: handlers of a named port property on
 * one portset.  The tests write a property of a port as the switch would, and
 * the registration for it gets the bytes.  Handlers run with no host lock
 * held.
 */
#include <list>
#include <memory>

#include "sim_switch.h"
#include "sim_switch_internal.h"

struct zek_FABClient {
   std::string portset;
   std::string prop;
   zek_FABClientPortOps ops;
};

namespace sim {
namespace {

std::mutex gClientMutex;
std::list<std::unique_ptr<zek_FABClient>> gClients; /* in registration order */

void ResetClients() {
   std::lock_guard<std::mutex> guard(gClientMutex);
   gClients.clear();
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

} // namespace

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
      SetHandled(handled, false);
      return kNotFound;
   }
   SetHandled(handled, true);
   return ops.write(ps, portID, prop.c_str(), data.empty() ? nullptr : data.data(),
                    static_cast<uint32_t>(data.size()));
}

zek_Status CleanupProperty(zek_PortID portID, const std::string &prop,
                           bool *handled) {
   zek_PortsetHandle ps;
   zek_FABClientPortOps ops;
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
   if (FindPortset(portsetName) == nullptr) return kNotFound;
   std::lock_guard<std::mutex> guard(gClientMutex);
   for (auto &client : gClients) {
      if (client->portset == portsetName && client->prop == propName) {
         return kExists;
      }
   }
   gClients.push_back(std::make_unique<zek_FABClient>(
      zek_FABClient{portsetName, propName, *ops}));
   *handle = gClients.back().get();
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
