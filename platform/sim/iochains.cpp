/*
 * I/O chains of the simulated switch: filters inserted on a port's input or
 * output path.  The host keeps a copy of each description; the tests push
 * frame lists through a port's chains with SendFromVM and DeliverToVM.
 * Chain functions and removal callbacks run with no host lock held.
 *
 * As on a real host, a chain is never removed under a frame: removal takes
 * the chain off its port at once, then waits until no thread is still
 * inside its function (but the caller itself, when a chain removes itself),
 * and only then calls its removal callback.
 */
#include <algorithm>
#include <atomic>
#include <cstring>
#include <list>
#include <memory>
#include <thread>

#include "sim_frames.h"
#include "sim_switch.h"
#include "sim_switch_internal.h"

struct zek_IOChain {
   zek_IOChainDesc desc; /* desc.label points at `label` */
   std::string label;
   uint32_t minMappedLen = 0;
   std::atomic<uint32_t> inFlight{0}; /* threads inside desc.fn */
};

namespace sim {
namespace {

std::mutex gChainMutex;
std::list<std::unique_ptr<zek_IOChain>> gChains; /* in insertion order */
/* gChains.size(), written under gChainMutex, read without it. */
std::atomic<uint32_t> gNumChains{0};

void PublishChainCount() {
   gNumChains.store(static_cast<uint32_t>(gChains.size()), std::memory_order_release);
}
/* The chains this thread is inside, innermost last. */
thread_local std::vector<const zek_IOChain *> tInside;
/* Chains this thread removed from inside their own call: freed once the
 * thread has left them. */
thread_local std::vector<std::unique_ptr<zek_IOChain>> tParked;

void ResetChains() {
   std::lock_guard<std::mutex> guard(gChainMutex);
   gChains.clear();
   PublishChainCount();
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetChains); }
} gRegistrar;

std::string NameText(const zek_Name &name) {
   return std::string(name.string, strnlen(name.string, ZEK_NAME_MAX));
}

/* Takes the chain off the list; the caller owns it from then on. */
std::unique_ptr<zek_IOChain> Unlink(zek_IOChainHandle handle) {
   std::lock_guard<std::mutex> guard(gChainMutex);
   for (auto it = gChains.begin(); it != gChains.end(); ++it) {
      if (it->get() == handle) {
         std::unique_ptr<zek_IOChain> chain = std::move(*it);
         gChains.erase(it);
         PublishChainCount();
         return chain;
      }
   }
   return nullptr;
}

/* Waits until the frames in the chain's function have left it; the calls
 * of this very thread are not waited for. */
void WaitForFrames(const zek_IOChain *chain) {
   uint32_t mine = (uint32_t)std::count(tInside.begin(), tInside.end(), chain);
   while (chain->inFlight.load(std::memory_order_acquire) > mine) {
      std::this_thread::yield();
   }
}

void CallRemove(std::unique_ptr<zek_IOChain> chain) {
   WaitForFrames(chain.get());
   if (chain->desc.removeFn != nullptr) {
      chain->desc.removeFn(nullptr, chain->desc.priv, chain.get());
   }
   if (std::find(tInside.begin(), tInside.end(), chain.get()) != tInside.end()) {
      tParked.push_back(std::move(chain));
   }
}

/* Frees the parked chain `handle` once this thread is no longer inside it. */
void FreeParked(const zek_IOChain *handle) {
   if (tParked.empty() ||
       std::find(tInside.begin(), tInside.end(), handle) != tInside.end()) {
      return;
   }
   tParked.erase(std::remove_if(tParked.begin(), tParked.end(),
                                [&](const std::unique_ptr<zek_IOChain> &c) {
                                   return c.get() == handle;
                                }),
                 tParked.end());
}

uint32_t RunChains(zek_PortID portID, uint32_t direction, zek_PktList *list) {
   if (!PortExists(portID)) return kNotFound;
   std::vector<zek_IOChainHandle> run;
   uint32_t minMapped = 0;
   {
      std::lock_guard<std::mutex> guard(gChainMutex);
      for (auto &chain : gChains) {
         if (chain->desc.portID == portID && chain->desc.direction == direction) {
            run.push_back(chain.get());
            minMapped = std::max(minMapped, chain->minMappedLen);
         }
      }
   }
   if (minMapped > 0 && list != nullptr) {
      for (zek_Pkt *pkt = ListFirst(list); pkt != nullptr; pkt = ListNext(pkt)) {
         EnsureMapped(pkt, minMapped);
      }
   }
   for (zek_IOChainHandle handle : run) {
      zek_IOChainFn fn = nullptr;
      void *priv = nullptr;
      {
         /* A chain removed by an earlier one in this run, or by another
          * thread since, is skipped.  Counted in under the lock, so that a
          * removal either finds the frame inside or takes the chain away
          * before the frame looks. */
         std::lock_guard<std::mutex> guard(gChainMutex);
         for (auto &chain : gChains) {
            if (chain.get() == handle) {
               fn = chain->desc.fn;
               priv = chain->desc.priv;
               chain->inFlight.fetch_add(1, std::memory_order_relaxed);
               break;
            }
         }
      }
      if (fn == nullptr) continue;
      tInside.push_back(handle);
      zek_Status status = fn(portID, priv, list);
      tInside.pop_back();
      handle->inFlight.fetch_sub(1, std::memory_order_release);
      FreeParked(handle);
      if (status != ZEK_OK) return status;
   }
   return ZEK_OK;
}

} // namespace

void RemovePortChains(zek_PortID portID) {
   for (;;) {
      std::unique_ptr<zek_IOChain> chain;
      {
         std::lock_guard<std::mutex> guard(gChainMutex);
         auto it = std::find_if(gChains.begin(), gChains.end(), [&](auto &c) {
            return c->desc.portID == portID;
         });
         if (it == gChains.end()) return;
         chain = std::move(*it);
         gChains.erase(it);
         PublishChainCount();
      }
      CallRemove(std::move(chain));
   }
}

void DropChainsInto(const void *base, std::vector<std::string> *what) {
   std::lock_guard<std::mutex> guard(gChainMutex);
   for (auto it = gChains.begin(); it != gChains.end();) {
      const zek_IOChainDesc &d = (*it)->desc;
      if (CodeIn(reinterpret_cast<const void *>(d.fn), base) ||
          CodeIn(reinterpret_cast<const void *>(d.removeFn), base)) {
         what->push_back("I/O chain '" + NameText(d.name) + "' on port " +
                         std::to_string(d.portID));
         it = gChains.erase(it);
      } else {
         ++it;
      }
   }
   PublishChainCount();
}

uint32_t SendFromVM(zek_PortID portID, zek_PktList *list) {
   return RunChains(portID, ZEK_IOCHAIN_INPUT, list);
}

uint32_t DeliverToVM(zek_PortID portID, zek_PktList *list) {
   return RunChains(portID, ZEK_IOCHAIN_OUTPUT, list);
}

bool PortHasChains(zek_PortID portID, uint32_t direction) {
   if (gNumChains.load(std::memory_order_acquire) == 0) return false;
   std::lock_guard<std::mutex> guard(gChainMutex);
   for (auto &chain : gChains) {
      if (chain->desc.portID == portID && chain->desc.direction == direction) {
         return true;
      }
   }
   return false;
}

uint32_t MinMappedLen(zek_PortID portID) {
   std::lock_guard<std::mutex> guard(gChainMutex);
   uint32_t len = 0;
   for (auto &chain : gChains) {
      if (chain->desc.portID == portID) len = std::max(len, chain->minMappedLen);
   }
   return len;
}

std::vector<ChainInfo> PortChains(zek_PortID portID) {
   std::lock_guard<std::mutex> guard(gChainMutex);
   std::vector<ChainInfo> out;
   for (auto &chain : gChains) {
      const zek_IOChainDesc &d = chain->desc;
      if (d.portID != portID) continue;
      out.push_back(ChainInfo{chain.get(), d.direction, chain->label,
                              NameText(d.name), d.chainClass,
                              chain->minMappedLen});
   }
   return out;
}

uint32_t LiveChains() {
   std::lock_guard<std::mutex> guard(gChainMutex);
   return static_cast<uint32_t>(gChains.size());
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_IOChainInsert(const zek_IOChainDesc *desc,
                             zek_IOChainHandle *handle) {
   SIM_FAULT_RETURN("IOChainInsert");
   if (desc == nullptr || handle == nullptr || desc->fn == nullptr ||
       desc->direction > ZEK_IOCHAIN_OUTPUT) {
      return kBadParam;
   }
   if (!PortExists(desc->portID)) return kNotFound;
   auto chain = std::make_unique<zek_IOChain>();
   chain->desc = *desc;
   chain->label = desc->label != nullptr ? desc->label : "";
   chain->desc.label = chain->label.c_str();
   std::lock_guard<std::mutex> guard(gChainMutex);
   *handle = chain.get();
   gChains.push_back(std::move(chain));
   PublishChainCount();
   return ZEK_OK;
}

zek_Status zek_IOChainSetMinPktMappedLen(zek_IOChainHandle handle,
                                         uint32_t len) {
   SIM_FAULT_RETURN("IOChainSetMinPktMappedLen");
   std::lock_guard<std::mutex> guard(gChainMutex);
   for (auto &chain : gChains) {
      if (chain.get() == handle) {
         chain->minMappedLen = len;
         return ZEK_OK;
      }
   }
   return kNotFound;
}

zek_Status zek_IOChainRemove(zek_IOChainHandle handle) {
   SIM_FAULT_RETURN("IOChainRemove");
   std::unique_ptr<zek_IOChain> chain = Unlink(handle);
   if (chain == nullptr) return kNotFound;
   CallRemove(std::move(chain));
   return ZEK_OK;
}

} /* extern "C" */
