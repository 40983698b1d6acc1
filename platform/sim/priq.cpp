/*
 * Priority queues of the simulated host.  Elements are pointers with 64-bit
 * keys; the lowest key comes first and equal keys in insertion order (a
 * rekey counts as a new insertion).  Every operation is O(log n): an ordered
 * map on (key, sequence) and a hash from element to its place in it.
 */
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "sim_internal.h"
#include "sim_switch_internal.h"

struct zek_PriQ {
   using Order = std::map<std::pair<int64_t, uint64_t>, void *>;
   uint32_t capacity;
   const void *creator; /* the code that created it, to find a module's queues at unload */
   uint64_t nextSeq = 0;
   Order order;
   std::unordered_map<void *, Order::iterator> where;
};

namespace sim {
namespace {

std::mutex gPriQMutex; /* guards the table and every queue */
std::unordered_set<zek_PriQ *> gQueues;

void ResetPriQs() {
   std::lock_guard<std::mutex> guard(gPriQMutex);
   for (zek_PriQ *queue : gQueues) delete queue;
   gQueues.clear();
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetPriQs); }
} gRegistrar;

bool Known(zek_PriQHandle queue, const char *call) {
   if (gQueues.count(queue)) return true;
   ReportFailure(std::string(call) + " on an unknown priority queue");
   return false;
}

void Place(zek_PriQ *queue, int64_t key, void *elem) {
   auto it = queue->order.emplace(std::make_pair(key, queue->nextSeq++), elem).first;
   queue->where[elem] = it;
}

} // namespace

std::vector<std::pair<int64_t, void *>> PriQContents(zek_PriQHandle queue) {
   std::lock_guard<std::mutex> guard(gPriQMutex);
   std::vector<std::pair<int64_t, void *>> out;
   if (!gQueues.count(queue)) return out;
   for (auto &entry : queue->order) out.emplace_back(entry.first.first, entry.second);
   return out;
}

void DropPriQsOf(const void *base, std::vector<std::string> *what) {
   std::lock_guard<std::mutex> guard(gPriQMutex);
   for (auto it = gQueues.begin(); it != gQueues.end();) {
      if (CodeIn((*it)->creator, base)) {
         what->push_back("priority queue");
         delete *it;
         it = gQueues.erase(it);
      } else {
         ++it;
      }
   }
}

uint32_t LivePriQs() {
   std::lock_guard<std::mutex> guard(gPriQMutex);
   return static_cast<uint32_t>(gQueues.size());
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_PriQCreate(zek_ModuleID, zek_HeapID, uint32_t, uint32_t capacity,
                          zek_PriQHandle *queue) {
   SIM_FAULT_RETURN("PriQCreate");
   if (queue == nullptr || capacity == 0) return kBadParam;
   auto *created = new zek_PriQ;
   created->capacity = capacity;
   created->creator = __builtin_return_address(0);
   std::lock_guard<std::mutex> guard(gPriQMutex);
   gQueues.insert(created);
   *queue = created;
   return ZEK_OK;
}

zek_Status zek_PriQDestroy(zek_PriQHandle queue) {
   SIM_FAULT_RETURN("PriQDestroy");
   std::lock_guard<std::mutex> guard(gPriQMutex);
   if (!Known(queue, "zek_PriQDestroy")) return kBadParam;
   gQueues.erase(queue);
   delete queue;
   return ZEK_OK;
}

zek_Status zek_PriQInsert(zek_PriQHandle queue, int64_t key, void *elem) {
   SIM_FAULT_RETURN("PriQInsert");
   std::lock_guard<std::mutex> guard(gPriQMutex);
   if (!Known(queue, "zek_PriQInsert")) return kBadParam;
   if (queue->where.count(elem)) return kExists;
   if (queue->order.size() >= queue->capacity) return kLimit;
   Place(queue, key, elem);
   return ZEK_OK;
}

zek_Status zek_PriQRekey(zek_PriQHandle queue, void *elem, int64_t key) {
   SIM_FAULT_RETURN("PriQRekey");
   std::lock_guard<std::mutex> guard(gPriQMutex);
   if (!Known(queue, "zek_PriQRekey")) return kBadParam;
   auto it = queue->where.find(elem);
   if (it == queue->where.end()) return kNotFound;
   queue->order.erase(it->second);
   queue->where.erase(it);
   Place(queue, key, elem);
   return ZEK_OK;
}

zek_Status zek_PriQExtract(zek_PriQHandle queue, void *elem, void **out) {
   SIM_FAULT_RETURN("PriQExtract");
   std::lock_guard<std::mutex> guard(gPriQMutex);
   if (!Known(queue, "zek_PriQExtract")) return kBadParam;
   auto it = queue->where.find(elem);
   if (it == queue->where.end()) return kNotFound;
   queue->order.erase(it->second);
   queue->where.erase(it);
   if (out != nullptr) *out = elem;
   return ZEK_OK;
}

zek_Status zek_PriQFirst(zek_PriQHandle queue, int64_t *key, void **elem) {
   SIM_FAULT_RETURN("PriQFirst");
   std::lock_guard<std::mutex> guard(gPriQMutex);
   if (!Known(queue, "zek_PriQFirst")) return kBadParam;
   if (queue->order.empty()) return kNotFound;
   auto first = queue->order.begin();
   if (key != nullptr) *key = first->first.first;
   if (elem != nullptr) *elem = first->second;
   return ZEK_OK;
}

zek_Status zek_PriQUsedElems(zek_PriQHandle queue, uint32_t *count) {
   SIM_FAULT_RETURN("PriQUsedElems");
   std::lock_guard<std::mutex> guard(gPriQMutex);
   if (!Known(queue, "zek_PriQUsedElems")) return kBadParam;
   if (count == nullptr) return kBadParam;
   *count = static_cast<uint32_t>(queue->order.size());
   return ZEK_OK;
}

} /* extern "C" */
