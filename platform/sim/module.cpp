/*
 * The module's identity as the simulated host sees it: its id and name, the
 * heap it registered, the per-thread stack of pushed ids, and the build
 * number of the core sibling.
 */
#include <atomic>
#include <cstring>

#include "sim_internal.h"

extern "C" {
uint32_t OXA_BUILD_NUMBER = 7000;
}

namespace sim {
namespace {

constexpr uint32_t kDefaultBuild = 7000;
constexpr zek_ModuleID kDefaultModuleID = 0x1d;
constexpr zek_Status kOverflow = 0xbad0026;

std::atomic<zek_ModuleID> gModuleID{kDefaultModuleID};
std::atomic<zek_HeapID> gModuleHeap{nullptr};
/* Bumped by Reset so that threads drop stacks pushed before it. */
std::atomic<uint64_t> gGeneration{1};

struct IdStack {
   uint64_t generation = 0;
   std::vector<zek_ModuleID> ids;
};
thread_local IdStack tIds;

std::vector<zek_ModuleID> &Ids() {
   uint64_t gen = gGeneration.load();
   if (tIds.generation != gen) {
      tIds.generation = gen;
      tIds.ids.clear();
   }
   return tIds.ids;
}

void ResetModule() {
   OXA_BUILD_NUMBER = kDefaultBuild;
   gModuleID = kDefaultModuleID;
   gModuleHeap = nullptr;
   gGeneration++;
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetModule); }
} gRegistrar;

} // namespace

void SetBuildNumber(uint32_t build) { OXA_BUILD_NUMBER = build; }
void SetModuleID(zek_ModuleID id) { gModuleID = id; }
zek_HeapID ModuleHeap() { return gModuleHeap; }

} // namespace sim

using namespace sim;

extern "C" {

zek_ModuleID zek_ModuleCurrentID(void) {
   std::vector<zek_ModuleID> &ids = Ids();
   return ids.empty() ? gModuleID.load() : ids.back();
}

zek_Status zek_ModuleGetName(zek_ModuleID module, char *buf, size_t size) {
   SIM_FAULT_RETURN("ModuleGetName");
   if (buf == nullptr) return kBadParam;
   if (module != gModuleID) return kNotFound;
   static const char kName[] = "vigil";
   if (size < sizeof kName) return kOverflow;
   std::memcpy(buf, kName, sizeof kName);
   return ZEK_OK;
}

zek_Status zek_ModuleSetHeapID(zek_ModuleID module, zek_HeapID heap) {
   SIM_FAULT_RETURN("ModuleSetHeapID");
   if (module != gModuleID) return kNotFound;
   gModuleHeap = heap;
   return ZEK_OK;
}

zek_Status zek_ModulePushId(zek_ModuleID module, void *, zek_ModuleID *savedId) {
   SIM_FAULT_RETURN("ModulePushId");
   if (savedId != nullptr) *savedId = zek_ModuleCurrentID();
   Ids().push_back(module);
   return ZEK_OK;
}

void zek_ModulePopId(void) {
   std::vector<zek_ModuleID> &ids = Ids();
   if (ids.empty()) {
      ReportFailure("module id pop without a push");
      return;
   }
   ids.pop_back();
}

} /* extern "C" */
