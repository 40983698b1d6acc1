/*
 * The management channel of the simulated host: the interfaces modules
 * register with their signatures, and the calls a tool makes into their
 * callbacks.  The channel keeps its own copy of each signature, in host
 * memory: the module heap's accounting is the module's alone.
 */
#include <condition_variable>
#include <cstring>
#include <list>
#include <memory>

#include "sim_mgmt.h"
#include "sim_switch_internal.h"

/* What a handle stands for: the copy of the signature the channel keeps. */
struct zek_Mgmt {
   sim::MgmtInterfaceInfo info;
   uint32_t calls = 0; /* calls running in it */
};

namespace sim {
namespace {

std::mutex gMgmtMutex;
std::condition_variable gCallsEnded;
std::list<std::shared_ptr<zek_Mgmt>> gInterfaces; /* in registration order */
uint64_t gNextCookie = 1;

/* An interface still open at reset belongs to a module that was never
 * stopped, or whose stop forgot it. */
void ResetMgmt() {
   std::list<std::shared_ptr<zek_Mgmt>> left;
   {
      std::lock_guard<std::mutex> guard(gMgmtMutex);
      left.swap(gInterfaces);
      gNextCookie = 1;
   }
   for (const auto &iface : left) {
      ReportFailure("management interface '" + iface->info.name + "' still open at reset");
   }
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetMgmt); }
} gRegistrar;

/* Whether a text field holds a NUL. */
bool Terminated(const char *field, size_t width) {
   return memchr(field, '\0', width) != nullptr;
}

/* The status refusing the callback entry, ZEK_OK when it can be called. */
zek_Status CheckCallback(const zek_MgmtCallbackInfo &cb) {
   if (cb.callback == nullptr) return kBadParam;
   if (cb.location != ZEK_MGMT_LOCATION_KERNEL || cb.synchronous != 1 || cb.numParams > 2) {
      return kNotSupported;
   }
   bool seen[2] = {false, false};
   for (uint32_t i = 0; i < cb.numParams; i++) {
      uint32_t type = cb.paramTypes[i];
      if (type != ZEK_MGMT_PARAM_IN && type != ZEK_MGMT_PARAM_OUT) return kBadParam;
      if (seen[type]) return kBadParam;
      seen[type] = true;
   }
   return ZEK_OK;
}

zek_Status CheckSignature(const zek_MgmtSignature &sig) {
   if (!Terminated(sig.name, sizeof sig.name) || sig.name[0] == '\0' ||
       !Terminated(sig.vendor, sizeof sig.vendor)) {
      return kBadParam;
   }
   if (sig.numCallbacks != 0 && sig.callbacks == nullptr) return kBadParam;
   for (uint32_t i = 0; i < sig.numCallbacks; i++) {
      zek_Status status = CheckCallback(sig.callbacks[i]);
      if (status != ZEK_OK) return status;
      for (uint32_t j = 0; j < i; j++) {
         if (sig.callbacks[j].callbackId == sig.callbacks[i].callbackId) return kBadParam;
      }
   }
   return ZEK_OK;
}

/* The declared size of the parameter of `type`, 0 when there is none. */
size_t DeclaredSize(const zek_MgmtCallbackInfo &cb, uint32_t type) {
   for (uint32_t i = 0; i < cb.numParams; i++) {
      if (cb.paramTypes[i] == type) return cb.paramSizes[i];
   }
   return 0;
}

} // namespace

std::vector<MgmtInterfaceInfo> MgmtInterfaces() {
   std::lock_guard<std::mutex> guard(gMgmtMutex);
   std::vector<MgmtInterfaceInfo> out;
   for (const auto &iface : gInterfaces) out.push_back(iface->info);
   return out;
}

uint32_t LiveMgmtInterfaces() {
   std::lock_guard<std::mutex> guard(gMgmtMutex);
   return static_cast<uint32_t>(gInterfaces.size());
}

zek_Status MgmtCall(const std::string &name, uint64_t callbackId, const void *in,
                    size_t inLen, void *out, size_t outLen, zek_Status *result) {
   std::shared_ptr<zek_Mgmt> iface;
   zek_MgmtCallbackInfo cb{};
   {
      std::lock_guard<std::mutex> guard(gMgmtMutex);
      for (auto it = gInterfaces.rbegin(); it != gInterfaces.rend() && !iface; ++it) {
         if ((*it)->info.name == name) iface = *it;
      }
      if (!iface) return kNotFound;
      bool found = false;
      for (const zek_MgmtCallbackInfo &entry : iface->info.callbacks) {
         if (!found && entry.callbackId == callbackId) {
            cb = entry;
            found = true;
         }
      }
      if (!found) return kNotFound;
      if (inLen != DeclaredSize(cb, ZEK_MGMT_PARAM_IN) ||
          outLen != DeclaredSize(cb, ZEK_MGMT_PARAM_OUT) || (inLen != 0 && in == nullptr) ||
          (outLen != 0 && out == nullptr)) {
         return kBadParam;
      }
      iface->calls++;
   }
   ModuleBuffer inCopy(inLen);
   ModuleBuffer outCopy(outLen);
   if (inLen != 0) std::memcpy(inCopy.data(), in, inLen);
   if (outLen != 0) std::memcpy(outCopy.data(), out, outLen);
   void *args[2] = {nullptr, nullptr};
   for (uint32_t i = 0; i < cb.numParams; i++) {
      args[i] = cb.paramTypes[i] == ZEK_MGMT_PARAM_IN ? inCopy.data() : outCopy.data();
   }
   zek_Status status = cb.callback(iface->info.cookie, 0, args[0], args[1]);
   if (outLen != 0) std::memcpy(out, outCopy.data(), outLen);
   if (result != nullptr) *result = status;
   {
      std::lock_guard<std::mutex> guard(gMgmtMutex);
      iface->calls--;
   }
   gCallsEnded.notify_all();
   return ZEK_OK;
}

zek_Status MgmtCall(const std::string &name, uint64_t callbackId,
                    const std::vector<uint8_t> &in, std::vector<uint8_t> *out,
                    zek_Status *result) {
   if (out == nullptr) return kBadParam;
   return MgmtCall(name, callbackId, in.data(), in.size(), out->data(), out->size(), result);
}

void DropMgmtInterfacesInto(const void *base, std::vector<std::string> *what) {
   std::lock_guard<std::mutex> guard(gMgmtMutex);
   for (auto it = gInterfaces.begin(); it != gInterfaces.end();) {
      bool into = false;
      for (const zek_MgmtCallbackInfo &entry : (*it)->info.callbacks) {
         into = into || CodeIn(reinterpret_cast<const void *>(entry.callback), base);
      }
      if (into) {
         what->push_back("management interface '" + (*it)->info.name + "'");
         it = gInterfaces.erase(it);
      } else {
         ++it;
      }
   }
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_MgmtInit(const zek_MgmtProps *props, zek_MgmtHandle *handle) {
   SIM_FAULT_RETURN("MgmtInit");
   if (props == nullptr || handle == nullptr || props->heap == nullptr ||
       props->signature == nullptr) {
      return kBadParam;
   }
   const zek_MgmtSignature &sig = *props->signature;
   zek_Status status = CheckSignature(sig);
   if (status != ZEK_OK) return status;
   auto iface = std::make_shared<zek_Mgmt>();
   MgmtInterfaceInfo &info = iface->info;
   info.handle = iface.get();
   info.module = props->module;
   info.version = sig.version;
   info.name = sig.name;
   info.vendor = sig.vendor;
   info.callbacks.assign(sig.callbacks, sig.callbacks + sig.numCallbacks);
   {
      std::lock_guard<std::mutex> guard(gMgmtMutex);
      info.cookie = gNextCookie++;
      gInterfaces.push_back(iface);
   }
   *handle = iface.get();
   return ZEK_OK;
}

zek_Status zek_MgmtDestroy(zek_MgmtHandle handle) {
   SIM_FAULT_RETURN("MgmtDestroy");
   std::shared_ptr<zek_Mgmt> iface;
   {
      std::unique_lock<std::mutex> guard(gMgmtMutex);
      for (auto it = gInterfaces.begin(); it != gInterfaces.end(); ++it) {
         if ((*it).get() == handle) {
            iface = *it;
            gInterfaces.erase(it);
            break;
         }
      }
      if (!iface) return kNotFound;
      /* No new call finds it now; the running ones end first. */
      gCallsEnded.wait(guard, [&] { return iface->calls == 0; });
   }
   return ZEK_OK;
}

} /* extern "C" */
