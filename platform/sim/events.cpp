/*
 * Portset events of the simulated host: subscriptions by exact event name,
 * and the activate/deactivate events the host raises as portsets come and
 * go.  Subscribers run with no host lock held.  When the outermost event
 * has returned, the switch replays property values to the handlers that
 * registered meanwhile (ReplayProperties).
 */
#include <list>
#include <memory>

#include "oxa.h"
#include "sim_switch.h"
#include "sim_switch_internal.h"

struct zek_NetEvent {
   uint32_t flags;
   std::string name;
   zek_NetEventFn fn;
   void *cbData;
   uint64_t serial;
};

namespace sim {
namespace {

std::mutex gEventMutex;
std::list<std::unique_ptr<zek_NetEvent>> gSubscriptions; /* in order */
uint64_t gNextSerial = 1;
/* Events being raised on this thread: the property replays wait until the
 * outermost one has returned. */
thread_local uint32_t tRaising = 0;

void ResetEvents() {
   std::lock_guard<std::mutex> guard(gEventMutex);
   gSubscriptions.clear();
   gNextSerial = 1;
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetEvents); }
} gRegistrar;

} // namespace

uint64_t SubscriptionMark() {
   std::lock_guard<std::mutex> guard(gEventMutex);
   return gNextSerial;
}

std::vector<zek_Status> RaiseEvent(const std::string &name, void *eventData) {
   return RaiseEventSince(name, eventData, 0);
}

std::vector<zek_Status> RaiseEventSince(const std::string &name, void *eventData,
                                        uint64_t mark) {
   std::vector<zek_Status> answers;
   std::vector<zek_NetEventHandle> matching;
   {
      std::lock_guard<std::mutex> guard(gEventMutex);
      for (auto &sub : gSubscriptions) {
         if (sub->name == name && sub->serial >= mark) matching.push_back(sub.get());
      }
   }
   tRaising++;
   for (zek_NetEventHandle handle : matching) {
      zek_NetEventFn fn = nullptr;
      void *cbData = nullptr;
      {
         /* A subscriber that an earlier one unsubscribed is not called. */
         std::lock_guard<std::mutex> guard(gEventMutex);
         for (auto &sub : gSubscriptions) {
            if (sub.get() == handle) {
               fn = sub->fn;
               cbData = sub->cbData;
               break;
            }
         }
      }
      if (fn != nullptr) answers.push_back(fn(nullptr, name.c_str(), cbData, eventData));
   }
   if (--tRaising == 0) (void)ReplayProperties();
   return answers;
}

std::vector<std::string> Subscriptions() {
   std::lock_guard<std::mutex> guard(gEventMutex);
   std::vector<std::string> out;
   for (auto &sub : gSubscriptions) out.push_back(sub->name);
   return out;
}

std::string VswitchEventName(const std::string &what) {
   return "com.norvex.oxa.vswitch." + what + "." +
          std::to_string(OXA_BUILD_NUMBER);
}

void RaisePortsetEvent(const std::string &what, zek_PortsetHandle ps) {
   RaiseEvent(VswitchEventName(what), ps);
}

void DropSubscriptionsInto(const void *base, std::vector<std::string> *what) {
   std::lock_guard<std::mutex> guard(gEventMutex);
   for (auto it = gSubscriptions.begin(); it != gSubscriptions.end();) {
      if (CodeIn(reinterpret_cast<const void *>((*it)->fn), base)) {
         what->push_back("subscription to event " + (*it)->name);
         it = gSubscriptions.erase(it);
      } else {
         ++it;
      }
   }
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_NetEventPortsetEventSubscribe(uint32_t flags, const char *name,
                                             zek_NetEventFn fn, void *cbData,
                                             zek_NetEventHandle *handle) {
   SIM_FAULT_RETURN("NetEventPortsetEventSubscribe");
   if (name == nullptr || fn == nullptr || handle == nullptr) return kBadParam;
   std::lock_guard<std::mutex> guard(gEventMutex);
   gSubscriptions.push_back(std::make_unique<zek_NetEvent>(
      zek_NetEvent{flags, name, fn, cbData, gNextSerial++}));
   *handle = gSubscriptions.back().get();
   return ZEK_OK;
}

zek_Status zek_NetEventPortsetEventUnsubscribe(zek_NetEventHandle handle) {
   SIM_FAULT_RETURN("NetEventPortsetEventUnsubscribe");
   std::lock_guard<std::mutex> guard(gEventMutex);
   for (auto it = gSubscriptions.begin(); it != gSubscriptions.end(); ++it) {
      if (it->get() == handle) {
         gSubscriptions.erase(it);
         return ZEK_OK;
      }
   }
   return kNotFound;
}

} /* extern "C" */
