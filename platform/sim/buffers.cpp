/*
 * Buffers that the carriers hand to a module to save into or restore from.
 * The module is built without the sanitizer's instrumentation, so in the
 * sanitizer build the host puts each buffer against a page that can't be
 * touched: a read or write one byte past the end faults at once instead of
 * going unseen.  Tests can switch this on in any build.
 */
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "sim_migration.h"
#include "sim_switch_internal.h"

#if defined(__SANITIZE_ADDRESS__)
#define SIM_GUARDED_BY_DEFAULT true
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SIM_GUARDED_BY_DEFAULT true
#endif
#endif
#ifndef SIM_GUARDED_BY_DEFAULT
#define SIM_GUARDED_BY_DEFAULT false
#endif

namespace sim {
namespace {

std::atomic<bool> gGuarded{SIM_GUARDED_BY_DEFAULT};

void ResetBuffers() { gGuarded = SIM_GUARDED_BY_DEFAULT; }

struct Registrar {
   Registrar() { RegisterResetHook(ResetBuffers); }
} gRegistrar;

} // namespace

void SetGuardedBuffers(bool on) { gGuarded = on; }
bool GuardedBuffers() { return gGuarded; }

ModuleBuffer::ModuleBuffer(size_t size, uint8_t fill) : size_(size) {
   if (size == 0) return;
   if (!gGuarded) {
      data_ = new uint8_t[size];
      std::memset(data_, fill, size);
      return;
   }
   const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
   const size_t pages = (size + page - 1) / page;
   mapLen_ = (pages + 1) * page;
   void *map = mmap(nullptr, mapLen_, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
   if (map == MAP_FAILED) {
      ReportFailure("cannot map a guarded buffer of " + std::to_string(size) + " bytes");
      mapLen_ = 0;
      data_ = new uint8_t[size];
      std::memset(data_, fill, size);
      return;
   }
   map_ = map;
   uint8_t *guard = static_cast<uint8_t *>(map) + pages * page;
   if (mprotect(guard, page, PROT_NONE) != 0) {
      ReportFailure("cannot protect the guard page of a buffer");
   }
   data_ = guard - size;
   std::memset(data_, fill, size);
}

ModuleBuffer::~ModuleBuffer() {
   if (map_ != nullptr) {
      munmap(map_, mapLen_);
   } else {
      delete[] data_;
   }
}

} // namespace sim
