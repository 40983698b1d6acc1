/*
 * The flow cache sibling of the simulated host: one data record per portset
 * with its warden hash, which keeps a copy of every white list entry the
 * module mirrors into it, and a record of flow invalidations.
 */
#include <cstring>
#include <map>
#include <memory>

#include "sim_switch.h"
#include "sim_switch_internal.h"

namespace {
constexpr size_t kEntryLen = 32;
}

struct FC_WardenHash {
   struct Record {
      uint8_t entry[kEntryLen];
      uint32_t isIpv6;
      zek_PortID portID;
   };
   std::vector<Record> records; /* in insertion order */
};

namespace sim {
namespace {

struct PortsetFlowData {
   FC_PortsetData data;
   FC_WardenHash hash;
};

std::mutex gFlowMutex;
std::map<zek_PortsetHandle, std::unique_ptr<PortsetFlowData>> gFlowData;
std::vector<Invalidation> gInvalidations;

void ResetFlowCache() {
   std::lock_guard<std::mutex> guard(gFlowMutex);
   gFlowData.clear();
   gInvalidations.clear();
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetFlowCache); }
} gRegistrar;

/* The hash, if it belongs to a live record (caller holds gFlowMutex). */
bool LiveHash(const FC_WardenHash *hash) {
   for (auto &entry : gFlowData) {
      if (&entry.second->hash == hash) return true;
   }
   return false;
}

/* The hash keys on the entry's bytes and the port; a removal must also name
 * the family the entry was inserted with. */
bool SameKey(const FC_WardenHash::Record &r, const void *entry,
             zek_PortID portID) {
   return r.portID == portID && std::memcmp(r.entry, entry, kEntryLen) == 0;
}

} // namespace

void ForgetPortsetFlowData(zek_PortsetHandle ps) {
   std::lock_guard<std::mutex> guard(gFlowMutex);
   gFlowData.erase(ps);
}

std::vector<WardenHashEntry> FlowCacheEntries(const std::string &portset) {
   zek_PortsetHandle ps = FindPortset(portset);
   std::lock_guard<std::mutex> guard(gFlowMutex);
   std::vector<WardenHashEntry> out;
   auto it = gFlowData.find(ps);
   if (ps == nullptr || it == gFlowData.end()) return out;
   for (const FC_WardenHash::Record &r : it->second->hash.records) {
      out.push_back(WardenHashEntry{
         r.portID, r.isIpv6, std::vector<uint8_t>(r.entry, r.entry + kEntryLen)});
   }
   return out;
}

std::vector<Invalidation> TakeInvalidations() {
   std::lock_guard<std::mutex> guard(gFlowMutex);
   std::vector<Invalidation> out;
   out.swap(gInvalidations);
   return out;
}

} // namespace sim

using namespace sim;

extern "C" {

FC_PortsetData *FC_GetPortsetData(zek_PortsetHandle ps) {
   zek_Status ignored;
   if (AnyCallFaultArmed() && FaultCheck("GetPortsetData", &ignored)) return nullptr;
   /* zek_PortsetName answers "" for a handle that is not a live portset. */
   if (ps == nullptr || *zek_PortsetName(ps) == '\0') return nullptr;
   std::lock_guard<std::mutex> guard(gFlowMutex);
   std::unique_ptr<PortsetFlowData> &slot = gFlowData[ps];
   if (slot == nullptr) {
      slot = std::make_unique<PortsetFlowData>();
      slot->data.wardenHash = &slot->hash;
   }
   return &slot->data;
}

zek_Status FC_WardenHashInsert(FC_WardenHash *hash, const void *entry,
                               uint32_t isIpv6, zek_PortID portID) {
   SIM_FAULT_RETURN("WardenHashInsert");
   if (entry == nullptr) return kBadParam;
   {
      std::lock_guard<std::mutex> guard(gFlowMutex);
      if (LiveHash(hash)) {
         for (const FC_WardenHash::Record &r : hash->records) {
            if (SameKey(r, entry, portID)) return kExists;
         }
         FC_WardenHash::Record record;
         std::memcpy(record.entry, entry, kEntryLen);
         record.isIpv6 = isIpv6;
         record.portID = portID;
         hash->records.push_back(record);
         return ZEK_OK;
      }
   }
   ReportFailure("FC_WardenHashInsert into a warden hash that is not live");
   return kInvalid;
}

zek_Status FC_WardenHashRemove(FC_WardenHash *hash, const void *entry,
                               uint32_t isIpv6, zek_PortID portID) {
   SIM_FAULT_RETURN("WardenHashRemove");
   if (entry == nullptr) return kBadParam;
   {
      std::lock_guard<std::mutex> guard(gFlowMutex);
      if (LiveHash(hash)) {
         for (auto it = hash->records.begin(); it != hash->records.end(); ++it) {
            if (SameKey(*it, entry, portID) && it->isIpv6 == isIpv6) {
               hash->records.erase(it);
               return ZEK_OK;
            }
         }
         return kNotFound;
      }
   }
   ReportFailure("FC_WardenHashRemove from a warden hash that is not live");
   return kInvalid;
}

void FC_InvalidateFlows(uint32_t reason, zek_PortID portID) {
   std::lock_guard<std::mutex> guard(gFlowMutex);
   gInvalidations.push_back(Invalidation{reason, portID});
}

} /* extern "C" */
