/*
 * The packet-trace sibling's observation calls: each record is copied and
 * kept for tests and tools.
 */
#include <mutex>

#include "pathprobe.h"
#include "sim_frames.h"
#include "sim_internal.h"

namespace sim {
namespace {

constexpr size_t kIoObsvLen = 36;
constexpr size_t kDropObsvLen = 97;

std::mutex gObsvMutex;
std::vector<Observation> gObservations;

void Record(bool isDrop, const void *metadata, const void *record, size_t len) {
   const uint8_t *bytes = static_cast<const uint8_t *>(record);
   std::lock_guard<std::mutex> guard(gObsvMutex);
   gObservations.push_back({isDrop, std::vector<uint8_t>(bytes, bytes + len), metadata});
}

void ResetObservations() {
   std::lock_guard<std::mutex> guard(gObsvMutex);
   gObservations.clear();
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetObservations); }
} gRegistrar;

} // namespace

std::vector<Observation> TakeObservations() {
   std::lock_guard<std::mutex> guard(gObsvMutex);
   std::vector<Observation> taken;
   taken.swap(gObservations);
   return taken;
}

} // namespace sim

extern "C" void PP_SendWdnIOObsv(const void *metadata, const void *record) {
   sim::Record(false, metadata, record, sim::kIoObsvLen);
}

extern "C" void PP_SendLogicalDropObsv(const void *metadata, const void *record) {
   sim::Record(true, metadata, record, sim::kDropObsvLen);
}
