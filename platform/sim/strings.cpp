/*
 * Names, status texts, formatting, string helpers, hashing and panics of the
 * simulated host.
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim_internal.h"

namespace sim {
namespace {

constexpr zek_Status kOverflow = 0xbad0026;

std::mutex gPanicMutex;
std::vector<std::string> gPanics;

void ResetPanics() {
   std::lock_guard<std::mutex> guard(gPanicMutex);
   gPanics.clear();
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetPanics); }
} gRegistrar;

} // namespace

std::vector<std::string> Panics() {
   std::lock_guard<std::mutex> guard(gPanicMutex);
   return gPanics;
}

} // namespace sim

using namespace sim;

extern "C" {

const char *zek_StatusToString(zek_Status status) {
   switch (status) {
   case 0: return "Success";
   case 0x2bad0000: return "Failure";
   case 0xbad0001: return "Invalid data";
   case 0xbad0002: return "Ignored";
   case 0xbad0003: return "Not found";
   case 0xbad0005: return "Already exists";
   case 0xbad0006: return "Limit exceeded";
   case 0xbad0007: return "Bad parameter";
   case 0xbad0014: return "Out of memory";
   case 0xbad0020: return "Not supported";
   case 0xbad0026: return "Overflow";
   case 0xbad0030: return "Not enabled";
   case 0xbad0032: return "Wait again";
   case 0xbad0039: return "Not initialized";
   case 0xbad0069: return "Interrupted";
   default: return "Unknown status";
   }
}

zek_Status zek_NameInitialize(zek_Name *name, const char *text) {
   SIM_FAULT_RETURN("NameInitialize");
   if (name == nullptr || text == nullptr) return kBadParam;
   if (strnlen(text, ZEK_NAME_MAX) >= ZEK_NAME_MAX) return kBadParam;
   std::strcpy(name->string, text);
   return ZEK_OK;
}

zek_Status zek_NameFormat(zek_Name *name, const char *fmt, ...) {
   SIM_FAULT_RETURN("NameFormat");
   if (name == nullptr || fmt == nullptr) return kBadParam;
   va_list ap;
   va_start(ap, fmt);
   int n = std::vsnprintf(name->string, ZEK_NAME_MAX, fmt, ap);
   va_end(ap);
   return n < 0 || n >= ZEK_NAME_MAX ? kBadParam : ZEK_OK;
}

int zek_Sprintf(char *buf, size_t size, const char *fmt, ...) {
   va_list ap;
   va_start(ap, fmt);
   int n = std::vsnprintf(buf, size, fmt, ap);
   va_end(ap);
   return n;
}

zek_Status zek_StringFormat(char *buf, size_t size, size_t *outLen,
                            const char *fmt, ...) {
   SIM_FAULT_RETURN("StringFormat");
   if (buf == nullptr || size == 0 || fmt == nullptr) return kOverflow;
   va_list ap;
   va_start(ap, fmt);
   int n = std::vsnprintf(buf, size, fmt, ap);
   va_end(ap);
   if (n < 0) {
      buf[0] = '\0';
      n = 0;
   }
   size_t written = std::min(static_cast<size_t>(n), size - 1);
   if (outLen != nullptr) *outLen = written;
   return static_cast<size_t>(n) >= size ? kOverflow : ZEK_OK;
}

size_t zek_Strnlen(const char *s, size_t max) { return strnlen(s, max); }

int zek_Strncmp(const char *a, const char *b, size_t n) {
   return std::strncmp(a, b, n);
}

char *zek_Strncpy(char *dst, const char *src, size_t n) {
   return std::strncpy(dst, src, n);
}

/* FNV-1a, with the seed folded into the offset basis. */
uint32_t zek_HashBytes(const void *data, uint32_t len, uint32_t seed) {
   const auto *p = static_cast<const uint8_t *>(data);
   uint32_t h = 2166136261u ^ seed;
   for (uint32_t i = 0; i < len; i++) {
      h ^= p[i];
      h *= 16777619u;
   }
   return h;
}

/* Records the panic and reports it, then stops the process: the caller is
 * module code that cannot be unwound through. */
void zek_PanicWithModuleID(zek_ModuleID, const char *fmt, ...) {
   char text[512];
   va_list ap;
   va_start(ap, fmt);
   std::vsnprintf(text, sizeof text, fmt, ap);
   va_end(ap);
   {
      std::lock_guard<std::mutex> guard(gPanicMutex);
      gPanics.push_back(text);
   }
   ReportFailure(std::string("panic: ") + text);
   std::fprintf(stderr, "panic: %s\n", text);
   std::abort();
}

} /* extern "C" */
