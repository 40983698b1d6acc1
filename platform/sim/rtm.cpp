/*
 * The live upgrade service (RTM) of the simulated host's core sibling.  It
 * announces and withdraws itself by raising OXA_RTM_CLIENT_REG_UNREG with a
 * record whose callback registers (or unregisters) a client, keeps the
 * clients with their tables, and calls their operations when asked.
 * Clients run with no host lock held.
 */
#include <cstring>
#include <list>
#include <memory>

#include "sim_migration.h"
#include "sim_switch_internal.h"

struct oxa_RtmClient {
   zek_ModuleID moduleID;
   std::string name;
   bool hasOps;
   oxa_RtmClientOps ops; /* a copy of the client's table */
   const void *caller;   /* the code that registered it */
   zek_ModuleID pushedID;
};

namespace sim {
namespace {

std::mutex gRtmMutex;
std::list<std::unique_ptr<oxa_RtmClient>> gRtmClients; /* in order */
bool gAnnounced = false;
/* The record of the last announcement or withdrawal; subscribers may keep
 * the pointer for as long as the event runs. */
oxa_RtmEventData gEventData;

void ResetRtm() {
   std::lock_guard<std::mutex> guard(gRtmMutex);
   gRtmClients.clear();
   gAnnounced = false;
   std::memset(&gEventData, 0, sizeof gEventData);
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetRtm); }
} gRegistrar;

/* A client calls into the service with the service's id pushed. */
void CheckPushedId(const char *what) {
   zek_ModuleID expected;
   {
      std::lock_guard<std::mutex> guard(gRtmMutex);
      expected = gEventData.moduleId;
   }
   if (zek_ModuleCurrentID() != expected) {
      ReportFailure(std::string("RTM ") + what + " called under module id " +
                    std::to_string(zek_ModuleCurrentID()) + ", not the service's " +
                    std::to_string(expected));
   }
}

zek_Status RegisterClient(zek_ModuleID moduleID, const char *clientName,
                          const oxa_RtmClientOps *ops, oxa_RtmClientHandle *handle) {
   const void *caller = __builtin_return_address(0);
   SIM_FAULT_RETURN("RtmClientRegister");
   CheckPushedId("client registration");
   if (clientName == nullptr || handle == nullptr) return kBadParam;
   auto client = std::make_unique<oxa_RtmClient>();
   client->moduleID = moduleID;
   client->name = clientName;
   client->hasOps = ops != nullptr;
   if (ops != nullptr) client->ops = *ops;
   client->caller = caller;
   client->pushedID = zek_ModuleCurrentID();
   std::lock_guard<std::mutex> guard(gRtmMutex);
   gRtmClients.push_back(std::move(client));
   *handle = gRtmClients.back().get();
   return ZEK_OK;
}

zek_Status UnregisterClient(oxa_RtmClientHandle handle) {
   SIM_FAULT_RETURN("RtmClientUnregister");
   CheckPushedId("client unregistration");
   std::lock_guard<std::mutex> guard(gRtmMutex);
   for (auto it = gRtmClients.begin(); it != gRtmClients.end(); ++it) {
      if (it->get() == handle) {
         gRtmClients.erase(it);
         return ZEK_OK;
      }
   }
   return kNotFound;
}

/* A copy of the client's table; false for an unknown handle. */
bool FindClient(oxa_RtmClientHandle handle, oxa_RtmClient *copy) {
   std::lock_guard<std::mutex> guard(gRtmMutex);
   for (auto &client : gRtmClients) {
      if (client.get() == handle) {
         *copy = *client;
         return true;
      }
   }
   return false;
}

/* Looks the client and one of its slots up; the status to answer when it
 * can't be called. */
template <typename Fn>
zek_Status Slot(oxa_RtmClientHandle handle, Fn oxa_RtmClientOps::*slot, Fn *fn) {
   oxa_RtmClient client;
   if (!FindClient(handle, &client)) return kNotFound;
   if (!client.hasOps || client.ops.*slot == nullptr) return kNotSupported;
   *fn = client.ops.*slot;
   return ZEK_OK;
}

std::vector<zek_Status> Raise(const oxa_RtmEventData &record) {
   {
      std::lock_guard<std::mutex> guard(gRtmMutex);
      gEventData = record;
   }
   return RaiseEvent(OXA_RTM_CLIENT_REG_UNREG, &gEventData);
}

} // namespace

std::vector<zek_Status> RtmAnnounce(const RtmAnnouncement &a) {
   oxa_RtmEventData record;
   std::memset(&record, 0, sizeof record);
   record.version = a.version;
   record.moduleId = a.moduleId;
   record.isUnregister = 0;
   record.clientCallback.registerClient = a.withCallback ? RegisterClient : nullptr;
   record.buildNum = a.buildNum.value_or(OXA_BUILD_NUMBER);
   {
      std::lock_guard<std::mutex> guard(gRtmMutex);
      gAnnounced = true;
   }
   return Raise(record);
}

std::vector<zek_Status> RtmWithdraw(bool withCallback) {
   oxa_RtmEventData record;
   {
      std::lock_guard<std::mutex> guard(gRtmMutex);
      record = gEventData;
      gAnnounced = false;
   }
   if (record.moduleId == 0) {
      /* Never announced: the service's own values. */
      record.version = OXA_RTM_VERSION;
      record.moduleId = kRtmModuleID;
      record.buildNum = OXA_BUILD_NUMBER;
   }
   record.isUnregister = 1;
   record.clientCallback.unregisterClient = withCallback ? UnregisterClient : nullptr;
   return Raise(record);
}

bool RtmAnnounced() {
   std::lock_guard<std::mutex> guard(gRtmMutex);
   return gAnnounced;
}

oxa_RtmEventData RtmLastEventData() {
   std::lock_guard<std::mutex> guard(gRtmMutex);
   return gEventData;
}

void RtmDeliverAnnouncementSince(uint64_t mark) {
   {
      std::lock_guard<std::mutex> guard(gRtmMutex);
      if (!gAnnounced) return;
   }
   RaiseEventSince(OXA_RTM_CLIENT_REG_UNREG, &gEventData, mark);
}

void RtmDropClient(oxa_RtmClientHandle handle) {
   std::lock_guard<std::mutex> guard(gRtmMutex);
   for (auto it = gRtmClients.begin(); it != gRtmClients.end(); ++it) {
      if (it->get() == handle) {
         gRtmClients.erase(it);
         return;
      }
   }
}

void ForgetRtmClientsOf(const void *base) {
   std::lock_guard<std::mutex> guard(gRtmMutex);
   for (auto it = gRtmClients.begin(); it != gRtmClients.end();) {
      if (CodeIn((*it)->caller, base)) {
         it = gRtmClients.erase(it);
      } else {
         ++it;
      }
   }
}

std::vector<RtmClientInfo> RtmClients() {
   std::lock_guard<std::mutex> guard(gRtmMutex);
   std::vector<RtmClientInfo> out;
   for (auto &client : gRtmClients) {
      out.push_back(RtmClientInfo{client.get(), client->moduleID, client->name,
                                  client->hasOps, client->pushedID});
   }
   return out;
}

uint32_t LiveRtmClients() {
   std::lock_guard<std::mutex> guard(gRtmMutex);
   return static_cast<uint32_t>(gRtmClients.size());
}

oxa_RtmClientHandle RtmClientOf(const LoadedModule *module) {
   const void *base = ModuleBase(module);
   if (base == nullptr) return nullptr;
   std::lock_guard<std::mutex> guard(gRtmMutex);
   oxa_RtmClientHandle found = nullptr;
   for (auto &client : gRtmClients) {
      if (CodeIn(client->caller, base)) found = client.get();
   }
   return found;
}

zek_Status RtmPrefetch(oxa_RtmClientHandle client, zek_PortID portID) {
   decltype(oxa_RtmClientOps::prefetch) fn;
   zek_Status status = Slot(client, &oxa_RtmClientOps::prefetch, &fn);
   return status != ZEK_OK ? status : fn(client, portID);
}

zek_Status RtmGetSize(oxa_RtmClientHandle client, zek_PortID portID, uint32_t *size) {
   decltype(oxa_RtmClientOps::getSize) fn;
   zek_Status status = Slot(client, &oxa_RtmClientOps::getSize, &fn);
   return status != ZEK_OK ? status : fn(client, portID, size);
}

zek_Status RtmSave(oxa_RtmClientHandle client, zek_PortID portID, void *buf,
                   uint32_t bufLen, uint32_t *dataLen, uint64_t reserved) {
   decltype(oxa_RtmClientOps::save) fn;
   zek_Status status = Slot(client, &oxa_RtmClientOps::save, &fn);
   return status != ZEK_OK ? status : fn(client, portID, buf, bufLen, dataLen, reserved);
}

zek_Status RtmRestore(oxa_RtmClientHandle client, zek_PortID portID, const void *buf,
                      uint32_t bufLen, uint64_t elapsedMS) {
   decltype(oxa_RtmClientOps::restore) fn;
   zek_Status status = Slot(client, &oxa_RtmClientOps::restore, &fn);
   return status != ZEK_OK ? status : fn(client, portID, buf, bufLen, elapsedMS);
}

zek_Status RtmRestore(oxa_RtmClientHandle client, zek_PortID portID,
                      const std::vector<uint8_t> &data, uint64_t elapsedMS) {
   ModuleBuffer buf(data.size());
   if (!data.empty()) std::memcpy(buf.data(), data.data(), data.size());
   return RtmRestore(client, portID, buf.data(), static_cast<uint32_t>(data.size()),
                     elapsedMS);
}

zek_Status RtmCompleted(oxa_RtmClientHandle client, bool isCrossHost, zek_Status status) {
   decltype(oxa_RtmClientOps::completed) fn;
   zek_Status found = Slot(client, &oxa_RtmClientOps::completed, &fn);
   if (found != ZEK_OK) return found;
   fn(client, isCrossHost, status);
   return ZEK_OK;
}

zek_Status RtmPreDualLoad(oxa_RtmClientHandle client) {
   decltype(oxa_RtmClientOps::preDualLoad) fn;
   zek_Status status = Slot(client, &oxa_RtmClientOps::preDualLoad, &fn);
   return status != ZEK_OK ? status : fn();
}

} // namespace sim
