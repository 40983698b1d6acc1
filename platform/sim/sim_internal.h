/*
 * Shared plumbing between the parts of the simulated host (not for tests).
 */
#ifndef SIM_INTERNAL_H
#define SIM_INTERNAL_H

#include <atomic>
#include <mutex>
#include <string>

#include "sim_core.h"

namespace sim {

/* The status numbers the host itself answers with. */
constexpr zek_Status kFailure = 0x2bad0000;
constexpr zek_Status kInvalid = 0xbad0001;
constexpr zek_Status kNotFound = 0xbad0003;
constexpr zek_Status kExists = 0xbad0005;
constexpr zek_Status kLimit = 0xbad0006;
constexpr zek_Status kBadParam = 0xbad0007;
constexpr zek_Status kNoMemory = 0xbad0014;
constexpr zek_Status kNotSupported = 0xbad0020;

/* Each part of the host registers how it goes back to its start state;
 * Reset runs every hook. */
typedef void (*ResetHook)();
void RegisterResetHook(ResetHook hook);

/* Reports a defect through the installed failure hook. */
void ReportFailure(const std::string &what);

/* How many call faults are armed (FaultCall entries not yet used up).
 * Written only under the fault table's mutex; read relaxed, so a call with
 * nothing armed pays one load.  A call already past the check may miss an
 * arm racing with it on another thread, as it could with the mutex. */
extern std::atomic<uint32_t> gArmedCallFaults;

inline bool AnyCallFaultArmed() {
   return gArmedCallFaults.load(std::memory_order_relaxed) != 0;
}

/* Returns from the calling platform function with the injected status. */
#define SIM_FAULT_RETURN(name)                                                 \
   do {                                                                        \
      zek_Status simFaultStatus_;                                              \
      if (sim::AnyCallFaultArmed() && sim::FaultCheck(name, &simFaultStatus_)) \
         return simFaultStatus_;                                               \
   } while (0)

} // namespace sim

#endif /* SIM_INTERNAL_H */
