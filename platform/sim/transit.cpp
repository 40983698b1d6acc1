/*
 * The Transit carrier of the simulated host: clients registered per portset
 * with a table of state operations, and the switch's side of a VM's move
 * from one port to another.  Clients run with no host lock held.
 */
#include <cstring>
#include <list>
#include <memory>

#include "sim_migration.h"
#include "sim_switch_internal.h"

struct zek_FABTransitClient {
   std::string portset;
   std::string client;
   zek_FABTransitOps ops;
};

namespace sim {
namespace {

std::mutex gTransitMutex;
std::list<std::unique_ptr<zek_FABTransitClient>> gTransitClients; /* in order */

void ResetTransit() {
   std::lock_guard<std::mutex> guard(gTransitMutex);
   gTransitClients.clear();
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetTransit); }
} gRegistrar;

/* The table of the portset's first client. */
bool FindTransitOps(const std::string &portset, zek_FABTransitOps *ops) {
   std::lock_guard<std::mutex> guard(gTransitMutex);
   for (auto &client : gTransitClients) {
      if (client->portset == portset) {
         *ops = client->ops;
         return true;
      }
   }
   return false;
}

bool PortsetOfLivePort(zek_PortID portID, std::string *portset) {
   zek_PortsetHandle ps = PortsetOfPort(portID);
   if (ps == nullptr) return false;
   *portset = zek_PortsetName(ps);
   return true;
}

uint64_t MillisecondsSince(double then) {
   const double ms = (Now() - then) * 1000.0;
   return ms > 0 ? static_cast<uint64_t>(ms + 0.5) : 0;
}

} // namespace

void DropTransitClientsInto(const void *base, std::vector<std::string> *what) {
   std::lock_guard<std::mutex> guard(gTransitMutex);
   for (auto it = gTransitClients.begin(); it != gTransitClients.end();) {
      const zek_FABTransitOps &ops = (*it)->ops;
      if (CodeIn(reinterpret_cast<const void *>(ops.getSize), base) ||
          CodeIn(reinterpret_cast<const void *>(ops.save), base) ||
          CodeIn(reinterpret_cast<const void *>(ops.restore), base) ||
          CodeIn(reinterpret_cast<const void *>(ops.completed), base)) {
         what->push_back("Transit client '" + (*it)->client + "' on portset " +
                         (*it)->portset);
         it = gTransitClients.erase(it);
      } else {
         ++it;
      }
   }
}

std::vector<TransitClientInfo> TransitClients() {
   std::lock_guard<std::mutex> guard(gTransitMutex);
   std::vector<TransitClientInfo> out;
   for (auto &client : gTransitClients) {
      out.push_back(TransitClientInfo{client->portset, client->client, client.get()});
   }
   return out;
}

uint32_t LiveTransitClients() {
   std::lock_guard<std::mutex> guard(gTransitMutex);
   return static_cast<uint32_t>(gTransitClients.size());
}

zek_Status TransitSize(const std::string &portset, zek_PortID portID, uint32_t *size) {
   zek_FABTransitOps ops;
   if (!FindTransitOps(portset, &ops) || ops.getSize == nullptr) return kNotFound;
   const uint32_t answer = ops.getSize(portID);
   if (size != nullptr) *size = answer;
   return ZEK_OK;
}

zek_Status TransitSave(const std::string &portset, zek_PortID portID, void *buf,
                       uint32_t bufLen, uint32_t *dataLen, uint64_t reserved) {
   zek_FABTransitOps ops;
   if (!FindTransitOps(portset, &ops) || ops.save == nullptr) return kNotFound;
   return ops.save(portID, buf, bufLen, dataLen, reserved);
}

zek_Status TransitRestore(const std::string &portset, zek_PortID portID,
                          const void *buf, uint32_t bufLen, uint64_t elapsedMS) {
   zek_FABTransitOps ops;
   if (!FindTransitOps(portset, &ops) || ops.restore == nullptr) return kNotFound;
   return ops.restore(portID, buf, bufLen, elapsedMS);
}

zek_Status TransitRestore(const std::string &portset, zek_PortID portID,
                          const std::vector<uint8_t> &data, uint64_t elapsedMS) {
   ModuleBuffer buf(data.size());
   if (!data.empty()) std::memcpy(buf.data(), data.data(), data.size());
   return TransitRestore(portset, portID, buf.data(),
                         static_cast<uint32_t>(data.size()), elapsedMS);
}

zek_Status TransitCompleted(const std::string &portset, bool isCrossHost,
                            zek_Status status) {
   zek_FABTransitOps ops;
   if (!FindTransitOps(portset, &ops) || ops.completed == nullptr) return kNotFound;
   ops.completed(isCrossHost, status);
   return ZEK_OK;
}

zek_Status TransitMove(zek_PortID srcPort, zek_PortID dstPort,
                       TransitMoveResult *result, const TransitMoveOptions &opts) {
   TransitMoveResult ignored;
   TransitMoveResult &r = result != nullptr ? *result : ignored;
   r = TransitMoveResult();
   std::string srcPortset, dstPortset;
   zek_FABTransitOps src, dst;
   if (!PortsetOfLivePort(srcPort, &srcPortset) ||
       !PortsetOfLivePort(dstPort, &dstPortset) ||
       !FindTransitOps(srcPortset, &src) || !FindTransitOps(dstPortset, &dst)) {
      return kNotFound;
   }

   r.size = src.getSize != nullptr ? src.getSize(srcPort) : 0;
   r.bufLen = opts.bufLen.value_or(r.size);
   zek_Status status = ZEK_OK;
   const double savedAt = Now();
   if (r.bufLen > 0) {
      ModuleBuffer buf(r.bufLen, opts.fill);
      r.saveStatus = src.save != nullptr
                        ? src.save(srcPort, buf.data(), r.bufLen, &r.dataLen, opts.reserved)
                        : kNotSupported;
      status = r.saveStatus;
      if (status == ZEK_OK && r.dataLen > r.bufLen) {
         ReportFailure("Transit save of port " + std::to_string(srcPort) + " reported " +
                       std::to_string(r.dataLen) + " bytes in a buffer of " +
                       std::to_string(r.bufLen));
         status = kInvalid;
      }
      if (status == ZEK_OK) r.data.assign(buf.data(), buf.data() + r.dataLen);
   }

   if (status == ZEK_OK) {
      r.elapsedMS = opts.elapsedMS.has_value() ? *opts.elapsedMS : MillisecondsSince(savedAt);
      ModuleBuffer buf(r.data.size());
      if (!r.data.empty()) std::memcpy(buf.data(), r.data.data(), r.data.size());
      r.restoreStatus = dst.restore != nullptr
                           ? dst.restore(dstPort, buf.data(),
                                         static_cast<uint32_t>(r.data.size()), r.elapsedMS)
                           : kNotSupported;
      r.restored = true;
      status = r.restoreStatus;
   }

   if (src.completed != nullptr) src.completed(opts.isCrossHost, status);
   if (dst.completed != nullptr) dst.completed(opts.isCrossHost, status);
   return status;
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_FABTransitClientRuntimeRegister(const char *portsetName,
                                               const char *clientName,
                                               const zek_FABTransitOps *ops,
                                               zek_FABTransitClientHandle *handle) {
   SIM_FAULT_RETURN("FABTransitClientRuntimeRegister");
   if (portsetName == nullptr || clientName == nullptr || ops == nullptr ||
       handle == nullptr) {
      return kBadParam;
   }
   if (FindPortset(portsetName) == nullptr) return kNotFound;
   std::lock_guard<std::mutex> guard(gTransitMutex);
   for (auto &client : gTransitClients) {
      if (client->portset == portsetName && client->client == clientName) return kExists;
   }
   gTransitClients.push_back(std::make_unique<zek_FABTransitClient>(
      zek_FABTransitClient{portsetName, clientName, *ops}));
   *handle = gTransitClients.back().get();
   return ZEK_OK;
}

zek_Status zek_FABTransitClientRuntimeUnregister(zek_FABTransitClientHandle handle) {
   SIM_FAULT_RETURN("FABTransitClientRuntimeUnregister");
   std::lock_guard<std::mutex> guard(gTransitMutex);
   for (auto it = gTransitClients.begin(); it != gTransitClients.end(); ++it) {
      if (it->get() == handle) {
         gTransitClients.erase(it);
         return ZEK_OK;
      }
   }
   return kNotFound;
}

} /* extern "C" */
