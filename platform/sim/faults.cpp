/*
 * Fault injection and the reset and failure plumbing of the simulated host.
 */
#include <cstdio>
#include <map>
#include <string_view>
#include <vector>

#include "sim_internal.h"

namespace sim {
namespace {

struct CallFault {
   zek_Status status;
   uint32_t remaining; /* failing calls still to come */
   uint32_t skip;      /* successful calls before the first failure */
};

std::mutex gFaultMutex;
/* std::less<> finds a name given as a C string without building a string. */
std::map<std::string, CallFault, std::less<>> gCallFaults;
/* CountCalls: whether calls are counted, and how often each name was called. */
bool gCountingCalls;
std::map<std::string, uint64_t, std::less<>> gCallCounts;
FailureHook gFailureHook;

std::vector<ResetHook> &ResetHooks() {
   static std::vector<ResetHook> hooks;
   return hooks;
}

/* Publishes the table's size; the caller holds gFaultMutex.  Counting
 * calls counts as one more armed entry, so that every call comes to
 * FaultCheck to be counted. */
void PublishArmedCount() {
   uint32_t armed = static_cast<uint32_t>(gCallFaults.size()) + (gCountingCalls ? 1u : 0u);
   gArmedCallFaults.store(armed, std::memory_order_relaxed);
}

} // namespace

std::atomic<uint32_t> gArmedCallFaults{0};

void RegisterResetHook(ResetHook hook) { ResetHooks().push_back(hook); }

void SetFailureHook(FailureHook hook) { gFailureHook = hook; }

void ReportFailure(const std::string &what) {
   if (gFailureHook) {
      gFailureHook(what);
   } else {
      std::fprintf(stderr, "simulated host: %s\n", what.c_str());
   }
}

void FaultCall(const std::string &name, zek_Status status, uint32_t count,
               uint32_t after) {
   std::lock_guard<std::mutex> guard(gFaultMutex);
   if (count == 0) {
      gCallFaults.erase(name);
   } else {
      gCallFaults[name] = CallFault{status, count, after};
   }
   PublishArmedCount();
}

void FaultClear() {
   {
      std::lock_guard<std::mutex> guard(gFaultMutex);
      gCallFaults.clear();
      PublishArmedCount();
   }
   FaultAlloc(0, 0);
}

bool FaultCheck(const char *name, zek_Status *status) {
   /* Nothing armed: no lock, no lookup. */
   if (!AnyCallFaultArmed()) {
      return false;
   }
   std::lock_guard<std::mutex> guard(gFaultMutex);
   if (gCountingCalls) {
      auto counted = gCallCounts.find(std::string_view(name));
      if (counted == gCallCounts.end()) {
         gCallCounts.emplace(name, 1);
      } else {
         counted->second++;
      }
   }
   auto it = gCallFaults.find(std::string_view(name));
   if (it == gCallFaults.end()) {
      return false;
   }
   CallFault &fault = it->second;
   if (fault.skip > 0) {
      fault.skip--;
      return false;
   }
   *status = fault.status;
   if (--fault.remaining == 0) {
      gCallFaults.erase(it);
      PublishArmedCount();
   }
   return true;
}

void CountCalls(bool on) {
   std::lock_guard<std::mutex> guard(gFaultMutex);
   if (on) {
      gCallCounts.clear();
   }
   gCountingCalls = on;
   PublishArmedCount();
}

std::vector<std::pair<std::string, uint64_t>> CallCounts() {
   std::lock_guard<std::mutex> guard(gFaultMutex);
   return {gCallCounts.begin(), gCallCounts.end()};
}

void Reset() {
   {
      std::lock_guard<std::mutex> guard(gFaultMutex);
      gCallFaults.clear();
      gCallCounts.clear();
      gCountingCalls = false;
      PublishArmedCount();
   }
   for (ResetHook hook : ResetHooks()) {
      hook();
   }
}

} // namespace sim
