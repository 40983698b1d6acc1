/*
 * The module loader of the simulated host: loads a module's shared object
 * from a private copy of the file (two loads, two sets of globals), sets its
 * parameters, runs init_module, and on unload cleanup_module, with a report
 * of what the module left behind.  The module resolves the platform calls
 * and variables from the host executable, which must export them.
 */
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>

#include "sim_frames.h"
#include "sim_mgmt.h"
#include "sim_switch.h"
#include "sim_switch_internal.h"

namespace sim {

struct LoadedModule {
   std::string path; /* the private copy */
   void *dl = nullptr;
   void *base = nullptr; /* where the object is loaded, for callback checks */
   bool initOk = false;
   uint64_t heapMark = 0;
};

namespace {

/* The module parameters the loader knows, with the size of their type. */
struct ParamType {
   const char *name;
   size_t size; /* sizeof(int) or sizeof(bool) */
};
constexpr ParamType kParams[] = {
   {"VIGIL_HEAP_MIN_SIZE", sizeof(int)},
   {"VIGIL_HEAP_MAX_SIZE", sizeof(int)},
   {"isLiveUpgrade", sizeof(bool)},
};

std::mutex gLoaderMutex;
std::set<LoadedModule *> gLoaded;

void Close(LoadedModule *m) {
   if (m->dl != nullptr) dlclose(m->dl);
   if (!m->path.empty()) unlink(m->path.c_str());
   delete m;
}

/* Modules still loaded at Reset are closed without their cleanup, since the
 * host state they would clean up is gone. */
void ResetLoader() {
   std::set<LoadedModule *> left;
   {
      std::lock_guard<std::mutex> guard(gLoaderMutex);
      left.swap(gLoaded);
   }
   for (LoadedModule *m : left) {
      ReportFailure("module copy " + m->path + " still loaded at reset");
      Close(m);
   }
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetLoader); }
} gRegistrar;

/* Copies the file to a new temporary file; its path, or "" with *error. */
std::string PrivateCopy(const std::string &soPath, std::string *error) {
   std::ifstream in(soPath, std::ios::binary);
   if (!in) {
      *error = "cannot read " + soPath;
      return "";
   }
   const char *dir = std::getenv("TMPDIR");
   std::string path = std::string(dir != nullptr && *dir ? dir : "/tmp") +
                      "/vigil_sim_module_XXXXXX.so";
   int fd = mkstemps(path.data(), 3);
   if (fd < 0) {
      *error = "cannot create a copy of " + soPath + ": " + std::strerror(errno);
      return "";
   }
   char buf[1 << 16];
   bool ok = true;
   while (ok && in) {
      in.read(buf, sizeof buf);
      std::streamsize n = in.gcount();
      for (std::streamsize done = 0; ok && done < n;) {
         ssize_t w = write(fd, buf + done, static_cast<size_t>(n - done));
         if (w < 0 && errno == EINTR) continue;
         ok = w > 0;
         done += w > 0 ? w : 0;
      }
   }
   ok = close(fd) == 0 && ok && !in.bad();
   if (!ok) {
      unlink(path.c_str());
      *error = "cannot write the copy of " + soPath;
      return "";
   }
   return path;
}

bool SetParam(LoadedModule *m, const std::string &name, int64_t value,
              std::string *error) {
   const ParamType *type = nullptr;
   for (const ParamType &p : kParams) {
      if (name == p.name) type = &p;
   }
   if (type == nullptr) {
      *error = "unknown module parameter " + name;
      return false;
   }
   void *where = dlsym(m->dl, name.c_str());
   if (where == nullptr) {
      *error = "the module has no parameter " + name;
      return false;
   }
   if (type->size == sizeof(bool)) {
      bool b = value != 0;
      std::memcpy(where, &b, sizeof b);
   } else {
      int i = static_cast<int>(value);
      std::memcpy(where, &i, sizeof i);
   }
   return true;
}

} // namespace

const void *ObjectOf(const void *addr) {
   Dl_info info;
   return addr != nullptr && dladdr(addr, &info) != 0 ? info.dli_fbase : nullptr;
}

const void *ModuleBase(const LoadedModule *m) {
   return m != nullptr ? m->base : nullptr;
}

bool CodeIn(const void *fn, const void *base) {
   if (fn == nullptr || base == nullptr) return false;
   Dl_info info;
   return dladdr(fn, &info) != 0 && info.dli_fbase == base;
}

LoadedModule *LoadModule(const std::string &soPath,
                         const std::vector<std::pair<std::string, int64_t>> &params,
                         int *initResult, std::string *error) {
   std::string ignored;
   if (error == nullptr) error = &ignored;
   error->clear();
   auto *m = new LoadedModule;
   m->path = PrivateCopy(soPath, error);
   if (m->path.empty()) {
      delete m;
      return nullptr;
   }
   m->dl = dlopen(m->path.c_str(), RTLD_NOW | RTLD_LOCAL);
   if (m->dl == nullptr) {
      const char *text = dlerror();
      *error = text != nullptr ? text : "dlopen failed";
      Close(m);
      return nullptr;
   }
   auto init = reinterpret_cast<int (*)(void)>(dlsym(m->dl, "init_module"));
   if (init == nullptr) {
      *error = "the module has no init_module";
      Close(m);
      return nullptr;
   }
   Dl_info info;
   if (dladdr(reinterpret_cast<void *>(init), &info) != 0) m->base = info.dli_fbase;
   for (const auto &param : params) {
      if (!SetParam(m, param.first, param.second, error)) {
         Close(m);
         return nullptr;
      }
   }
   m->heapMark = HeapMark();
   {
      std::lock_guard<std::mutex> guard(gLoaderMutex);
      gLoaded.insert(m);
   }
   int result = init();
   m->initOk = result == 0;
   if (initResult != nullptr) *initResult = result;
   /* The switch gives the handlers registered at start what the ports of
    * their portsets carry. */
   if (m->initOk) (void)ReplayProperties();
   return m;
}

UnloadReport UnloadModule(LoadedModule *m) {
   UnloadReport report{};
   {
      std::lock_guard<std::mutex> guard(gLoaderMutex);
      if (gLoaded.erase(m) == 0) {
         ReportFailure("UnloadModule of a module that is not loaded");
         return report;
      }
   }
   if (m->initOk) {
      auto cleanup = reinterpret_cast<void (*)(void)>(dlsym(m->dl, "cleanup_module"));
      if (cleanup != nullptr) {
         cleanup();
      } else {
         ReportFailure("the module has no cleanup_module");
      }
   }
   /* What still calls into the module would call unmapped code: report and
    * drop it before the object goes. */
   std::vector<std::string> left;
   DropChainsInto(m->base, &left);
   DropSubscriptionsInto(m->base, &left);
   DropClientsInto(m->base, &left);
   DropPortDestructorsInto(m->base, &left);
   DropTransitClientsInto(m->base, &left);
   DropMgmtInterfacesInto(m->base, &left);
   DropPriQsOf(m->base, &left);
   ForgetRtmClientsOf(m->base);
   for (const std::string &what : left) {
      ReportFailure("module unloaded with its " + what + " still in place");
   }
   const uint64_t mark = m->heapMark;
   const void *base = m->base;
   Close(m);
   HeapLeakTotals totals = HeapLeaksSince(mark, base);
   report.leaks = totals.leaks;
   report.leakBytes = totals.bytes;
   report.heapsLive = totals.heapsLive;
   report.framesLive = FramesLive();
   report.callbacksLeft = left.size();
   return report;
}

void *ModuleSymbol(LoadedModule *m, const std::string &name) {
   return m != nullptr && m->dl != nullptr ? dlsym(m->dl, name.c_str()) : nullptr;
}

} // namespace sim
