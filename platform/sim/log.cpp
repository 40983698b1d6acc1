/*
 * Log of the simulated host: handles with levels and throttles, and capture
 * of every written line for tests.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_set>

#include "sim_internal.h"

struct zek_Log {
   std::string name;
   zek_ModuleID module;
   int32_t defaultLevel;
   int32_t current;
   zek_LogThrottle throttle;
};

namespace sim {
namespace {

std::mutex gLogMutex;
std::vector<zek_Log *> gHandles; /* in registration order */
std::vector<LogLine> gLines;
uint64_t gThrottled;
bool gEcho;

void ResetLog() {
   std::lock_guard<std::mutex> guard(gLogMutex);
   for (zek_Log *h : gHandles) delete h;
   gHandles.clear();
   gLines.clear();
   gThrottled = 0;
   gEcho = std::getenv("VIGIL_SIM_ECHO_LOGS") != nullptr;
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetLog); }
} gRegistrar;

bool Live(zek_Log *h) {
   for (zek_Log *x : gHandles) {
      if (x == h) return true;
   }
   return false;
}

std::string Format(const char *fmt, va_list ap) {
   va_list copy;
   va_copy(copy, ap);
   int n = std::vsnprintf(nullptr, 0, fmt, copy);
   va_end(copy);
   if (n <= 0) return std::string();
   std::string out(static_cast<size_t>(n) + 1, '\0');
   std::vsnprintf(out.data(), out.size(), fmt, ap);
   out.resize(static_cast<size_t>(n));
   return out;
}

/* The text after the line's tag "[oxa@...] ", or the whole line. */
std::string AfterTag(const std::string &raw) {
   size_t tag = raw.find("[oxa@");
   if (tag == std::string::npos) return raw;
   size_t end = raw.find("] ", tag);
   return end == std::string::npos ? raw : raw.substr(end + 2);
}

void Capture(int32_t level, std::string log, const char *func, uint32_t lineNo,
             std::string raw) {
   LogLine line{level, std::move(log), func ? func : "", lineNo, AfterTag(raw),
                std::move(raw)};
   std::lock_guard<std::mutex> guard(gLogMutex);
   if (gEcho) std::fprintf(stderr, "%s\n", line.raw.c_str());
   gLines.push_back(std::move(line));
}

} // namespace

std::vector<LogLine> Logs() {
   std::lock_guard<std::mutex> guard(gLogMutex);
   return gLines;
}

std::vector<LogLine> TakeLogs() {
   std::lock_guard<std::mutex> guard(gLogMutex);
   std::vector<LogLine> out;
   out.swap(gLines);
   return out;
}

uint64_t ThrottledCount() {
   std::lock_guard<std::mutex> guard(gLogMutex);
   return gThrottled;
}

void EchoLogs(bool on) {
   std::lock_guard<std::mutex> guard(gLogMutex);
   gEcho = on;
}

bool SetLogLevel(const std::string &name, int32_t level) {
   std::lock_guard<std::mutex> guard(gLogMutex);
   for (auto it = gHandles.rbegin(); it != gHandles.rend(); ++it) {
      if ((*it)->name == name) {
         (*it)->current = level;
         return true;
      }
   }
   return false;
}

bool LogHandleExists(const std::string &name) {
   std::lock_guard<std::mutex> guard(gLogMutex);
   for (zek_Log *h : gHandles) {
      if (h->name == name) return true;
   }
   return false;
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_LogRegister(const zek_LogProps *props, zek_LogHandle *handle) {
   SIM_FAULT_RETURN("LogRegister");
   if (props == nullptr || handle == nullptr) return kBadParam;
   auto *h = new zek_Log{
      std::string(props->name.string, strnlen(props->name.string, ZEK_NAME_MAX)),
      props->module, props->defaultLevel, props->defaultLevel, props->throttle};
   std::lock_guard<std::mutex> guard(gLogMutex);
   gHandles.push_back(h);
   *handle = h;
   return ZEK_OK;
}

void zek_LogUnregister(zek_LogHandle handle) {
   {
      std::lock_guard<std::mutex> guard(gLogMutex);
      for (auto it = gHandles.begin(); it != gHandles.end(); ++it) {
         if (*it == handle) {
            delete handle;
            gHandles.erase(it);
            return;
         }
      }
   }
   ReportFailure("log unregister of unknown handle");
}

void zek_LogLevel(zek_LogHandle handle, int32_t level, const char *func,
                  uint32_t line, const char *fmt, ...) {
   std::string name = "-";
   zek_LogThrottle throttle{};
   if (handle != nullptr) {
      std::unique_lock<std::mutex> guard(gLogMutex);
      if (!Live(handle)) {
         guard.unlock();
         ReportFailure("log write on unknown handle");
         return;
      }
      name = handle->name;
      throttle = handle->throttle;
   } else {
      func = "";
      line = 0;
   }
   /* The throttle may call back into the host: no host lock held here. */
   if (throttle.type == ZEK_LOG_THROTTLE_CUSTOM && throttle.fn != nullptr &&
       throttle.fn(throttle.arg) == 0) {
      std::lock_guard<std::mutex> guard(gLogMutex);
      gThrottled++;
      return;
   }
   va_list ap;
   va_start(ap, fmt);
   std::string raw = Format(fmt, ap);
   va_end(ap);
   Capture(level, std::move(name), func, line, std::move(raw));
}

void zek_LogNoLevel(int32_t level, const char *fmt, ...) {
   va_list ap;
   va_start(ap, fmt);
   std::string raw = Format(fmt, ap);
   va_end(ap);
   Capture(level, "-", "", 0, std::move(raw));
}

const char *zek_LogGetName(zek_LogHandle handle) {
   std::lock_guard<std::mutex> guard(gLogMutex);
   return handle != nullptr && Live(handle) ? handle->name.c_str() : "";
}

int32_t zek_LogGetCurrentLogLevel(zek_LogHandle handle) {
   std::lock_guard<std::mutex> guard(gLogMutex);
   return handle != nullptr && Live(handle) ? handle->current : 0;
}

} /* extern "C" */
