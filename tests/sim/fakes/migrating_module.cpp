/*
 * A small loadable module with per-port state that moves, for the tests of
 * the carriers and of the live upgrade.  Like vigil.so it registers with
 * every portset (at start, unless loaded for a live upgrade, and on the
 * activate event) two property handlers and a Transit client, and it
 * subscribes to the RTM service's event to register an RTM client.
 *
 * - "fake.enabled": "1" gives the port a record (from the module's heap),
 *   "0" takes it away.  Its cleanup keeps the record, marked cleaned, unless
 *   the module is being replaced (preDualLoad), when it frees it.
 * - "fake.config": 4 bytes, kept in the port's record.
 * - The state that moves: the port's `learnt` word (set by fake_learn), 8
 *   bytes saved: "FAKE" and the word.  A port without a record, or with a
 *   cleaned one, has nothing to save.
 *
 * Every call the module gets is counted in fakeCalls, and the last
 * arguments kept, for the tests to read through ModuleSymbol.
 */
#include "rtm.h"
#include "oxa.h"
#include "zek.h"

#define FAKE_VISIBLE __attribute__((visibility("default")))
#define FAKE_EXPORT extern "C" FAKE_VISIBLE

namespace {

constexpr uint32_t kMaxPorts = 16;
constexpr uint32_t kMaxPortsets = 4;
constexpr uint32_t kStateLen = 8;
constexpr uint32_t kMagic = 0x454b4146; /* "FAKE" */
constexpr zek_Status kNotFound = 0xbad0003;
constexpr zek_Status kBadData = 0xbad0001;
constexpr zek_Status kBadParam = 0xbad0007;

struct PortRecord {
   uint32_t config;
   uint32_t learnt;
   uint32_t cleaned;
   uint32_t unused;
};

struct Port {
   zek_PortID portID;
   PortRecord *record;
};

struct Portset {
   char name[ZEK_NAME_MAX];
   zek_FABClientHandle enabled;
   zek_FABClientHandle config;
   zek_FABTransitClientHandle transit;
};

zek_HeapID gHeap;
Port gPorts[kMaxPorts];
Portset gPortsets[kMaxPortsets];
zek_NetEventHandle gActivate, gDeactivate, gRtmEvent;
oxa_RtmClientHandle gRtmClient;
zek_ModuleID gModuleID;

} // namespace

extern "C" {
FAKE_VISIBLE int VIGIL_HEAP_MIN_SIZE = 4096;
FAKE_VISIBLE int VIGIL_HEAP_MAX_SIZE = 65536;
FAKE_VISIBLE bool isLiveUpgrade = false;

/* What the tests read back. */
struct FakeCalls {
   uint32_t writes, cleanups, sizes, saves, restores, completions, preDualLoads,
      prefetches, rtmRegistrations;
   zek_PortID lastPort;
   uint64_t lastReserved;
   uint64_t lastElapsedMS;
   uint32_t lastBufLen;
   bool lastCrossHost;
   zek_Status lastCompletedStatus;
   uint32_t lastCarrier; /* 1 Transit, 2 RTM */
};
FAKE_VISIBLE FakeCalls fakeCalls;
FAKE_VISIBLE bool fakeFromUpgrade = false;
/* When set, one port record is left in the heap at stop. */
FAKE_VISIBLE bool fakeLeakAtStop = false;
/* When set, the RTM client registers with no table. */
FAKE_VISIBLE bool fakeRtmWithoutTable = false;
}

namespace {

bool SameName(const char *a, const char *b) {
   for (uint32_t i = 0; i < ZEK_NAME_MAX; i++) {
      if (a[i] != b[i]) return false;
      if (a[i] == '\0') return true;
   }
   return true;
}

Port *FindPort(zek_PortID portID, bool add) {
   for (Port &p : gPorts) {
      if (p.record != nullptr && p.portID == portID) return &p;
   }
   if (!add) return nullptr;
   for (Port &p : gPorts) {
      if (p.record == nullptr) {
         p.portID = portID;
         return &p;
      }
   }
   return nullptr;
}

void FreePort(Port *p) {
   zek_HeapFree(gHeap, p->record);
   p->record = nullptr;
}

/* ------------------------------------------------------------ properties */

zek_Status EnabledWrite(zek_PortsetHandle, zek_PortID portID, const char *,
                        const void *data, uint32_t dataLen) {
   fakeCalls.writes++;
   fakeCalls.lastPort = portID;
   if (data == nullptr || dataLen != 1) return kBadParam;
   const char value = *static_cast<const char *>(data);
   Port *p = FindPort(portID, false);
   if (value == '0') {
      if (p != nullptr) FreePort(p);
      return ZEK_OK;
   }
   if (value != '1') return kBadParam;
   if (p == nullptr) {
      p = FindPort(portID, true);
      if (p == nullptr) return kBadParam;
      p->record = static_cast<PortRecord *>(
         zek_HeapAllocWithRA(gHeap, sizeof(PortRecord), __builtin_return_address(0)));
      if (p->record == nullptr) return 0xbad0014;
      *p->record = PortRecord{};
   }
   p->record->cleaned = 0;
   return ZEK_OK;
}

zek_Status EnabledCleanup(zek_PortsetHandle, zek_PortID portID) {
   fakeCalls.cleanups++;
   fakeCalls.lastPort = portID;
   Port *p = FindPort(portID, false);
   if (p == nullptr) return ZEK_OK;
   if (fakeFromUpgrade) {
      FreePort(p);
   } else {
      p->record->cleaned = 1;
   }
   return ZEK_OK;
}

zek_Status ConfigWrite(zek_PortsetHandle, zek_PortID portID, const char *,
                       const void *data, uint32_t dataLen) {
   fakeCalls.writes++;
   fakeCalls.lastPort = portID;
   Port *p = FindPort(portID, false);
   if (p == nullptr) return kNotFound;
   if (data == nullptr || dataLen != 4) return kBadParam;
   __builtin_memcpy(&p->record->config, data, 4);
   return ZEK_OK;
}

const zek_FABClientPortOps kEnabledOps = {EnabledWrite, nullptr, nullptr, EnabledCleanup};
const zek_FABClientPortOps kConfigOps = {ConfigWrite, nullptr, nullptr, nullptr};

/* ------------------------------------------------------ the moving state */

uint32_t StateSize(zek_PortID portID) {
   fakeCalls.sizes++;
   fakeCalls.lastPort = portID;
   Port *p = FindPort(portID, false);
   return p != nullptr && !p->record->cleaned ? kStateLen : 0;
}

zek_Status StateSave(zek_PortID portID, void *buf, uint32_t bufLen, uint32_t *dataLen,
                     uint64_t reserved) {
   fakeCalls.saves++;
   fakeCalls.lastPort = portID;
   fakeCalls.lastReserved = reserved;
   fakeCalls.lastBufLen = bufLen;
   if (buf == nullptr || dataLen == nullptr) return kBadParam;
   *dataLen = 0;
   Port *p = FindPort(portID, false);
   if (p == nullptr || p->record->cleaned || bufLen < kStateLen) return ZEK_OK;
   uint32_t words[2] = {kMagic, p->record->learnt};
   __builtin_memcpy(buf, words, kStateLen);
   *dataLen = kStateLen;
   return ZEK_OK;
}

zek_Status StateRestore(zek_PortID portID, const void *buf, uint32_t bufLen,
                        uint64_t elapsedMS) {
   fakeCalls.restores++;
   fakeCalls.lastPort = portID;
   fakeCalls.lastElapsedMS = elapsedMS;
   fakeCalls.lastBufLen = bufLen;
   if (bufLen == 0) return ZEK_OK;
   /* Reads the whole of what it is given, as a parser would. */
   uint32_t sum = 0;
   for (uint32_t i = 0; i < bufLen; i++) sum += static_cast<const uint8_t *>(buf)[i];
   (void)sum;
   uint32_t words[2];
   if (bufLen < kStateLen) return kBadData;
   __builtin_memcpy(words, buf, kStateLen);
   if (words[0] != kMagic) return kBadData;
   Port *p = FindPort(portID, false);
   if (p == nullptr) return kNotFound;
   p->record->learnt = words[1];
   return ZEK_OK;
}

void StateCompleted(bool isCrossHost, zek_Status status) {
   fakeCalls.completions++;
   fakeCalls.lastCrossHost = isCrossHost;
   fakeCalls.lastCompletedStatus = status;
}

uint32_t TransitGetSize(zek_PortID portID) {
   fakeCalls.lastCarrier = 1;
   return StateSize(portID);
}
zek_Status TransitSave(zek_PortID portID, void *buf, uint32_t bufLen, uint32_t *dataLen,
                       uint64_t reserved) {
   fakeCalls.lastCarrier = 1;
   return StateSave(portID, buf, bufLen, dataLen, reserved);
}
zek_Status TransitRestore(zek_PortID portID, const void *buf, uint32_t bufLen,
                          uint64_t elapsedMS) {
   fakeCalls.lastCarrier = 1;
   return StateRestore(portID, buf, bufLen, elapsedMS);
}
void TransitCompleted(bool isCrossHost, zek_Status status) {
   fakeCalls.lastCarrier = 1;
   StateCompleted(isCrossHost, status);
}

const zek_FABTransitOps kTransitOps = {TransitGetSize, TransitSave, TransitRestore,
                                       TransitCompleted};

zek_Status RtmPrefetch(void *, zek_PortID portID) {
   fakeCalls.prefetches++;
   fakeCalls.lastPort = portID;
   return ZEK_OK;
}
zek_Status RtmGetSize(void *, zek_PortID portID, uint32_t *size) {
   fakeCalls.lastCarrier = 2;
   *size = StateSize(portID);
   return ZEK_OK;
}
zek_Status RtmSave(void *, zek_PortID portID, void *buf, uint32_t bufLen, uint32_t *dataLen,
                   uint64_t reserved) {
   fakeCalls.lastCarrier = 2;
   return StateSave(portID, buf, bufLen, dataLen, reserved);
}
zek_Status RtmRestore(void *, zek_PortID portID, const void *buf, uint32_t bufLen,
                      uint64_t elapsedMS) {
   fakeCalls.lastCarrier = 2;
   return StateRestore(portID, buf, bufLen, elapsedMS);
}
void RtmCompleted(void *, bool isCrossHost, zek_Status status) {
   fakeCalls.lastCarrier = 2;
   StateCompleted(isCrossHost, status);
}
zek_Status RtmPreDualLoad(void) {
   fakeCalls.preDualLoads++;
   fakeFromUpgrade = true;
   return ZEK_OK;
}

const oxa_RtmClientOps kRtmOps = {RtmPrefetch, RtmGetSize, RtmSave,      RtmRestore,
                                  RtmCompleted, RtmPreDualLoad, {}};

/* ------------------------------------------------------------- portsets */

zek_Status RegisterPortset(zek_PortsetHandle ps, void *) {
   const char *name = zek_PortsetName(ps);
   Portset *slot = nullptr;
   for (Portset &p : gPortsets) {
      if (p.name[0] != '\0' && SameName(p.name, name)) return 0xbad0005;
      if (p.name[0] == '\0' && slot == nullptr) slot = &p;
   }
   if (slot == nullptr) return 0xbad0006;
   zek_Status status = zek_FABClientPortRegister(&slot->enabled, name, "fake.enabled",
                                                 &kEnabledOps);
   if (status != ZEK_OK) return status;
   status = zek_FABClientPortRegister(&slot->config, name, "fake.config", &kConfigOps);
   if (status == ZEK_OK) {
      status = zek_FABTransitClientRuntimeRegister(name, "fake.transit", &kTransitOps,
                                                   &slot->transit);
      if (status != ZEK_OK) (void)zek_FABClientPortUnregister(slot->config);
   }
   if (status != ZEK_OK) {
      (void)zek_FABClientPortUnregister(slot->enabled);
      *slot = Portset{};
      return status;
   }
   zek_Strncpy(slot->name, name, ZEK_NAME_MAX - 1);
   return ZEK_OK;
}

void UnregisterPortset(Portset *p) {
   (void)zek_FABTransitClientRuntimeUnregister(p->transit);
   (void)zek_FABClientPortUnregister(p->config);
   (void)zek_FABClientPortUnregister(p->enabled);
   *p = Portset{};
}

zek_Status OnActivate(void *, const char *, void *, void *eventData) {
   return RegisterPortset(static_cast<zek_PortsetHandle>(eventData), nullptr);
}

zek_Status OnDeactivate(void *, const char *, void *, void *eventData) {
   const char *name = zek_PortsetName(static_cast<zek_PortsetHandle>(eventData));
   for (Portset &p : gPortsets) {
      if (p.name[0] != '\0' && SameName(p.name, name)) UnregisterPortset(&p);
   }
   return ZEK_OK;
}

/* ------------------------------------------------------------------ RTM */

zek_Status OnRtmEvent(void *, const char *, void *, void *eventData) {
   const oxa_RtmEventData *event = static_cast<const oxa_RtmEventData *>(eventData);
   if (event == nullptr) return kBadParam;
   zek_ModuleID saved;
   if (event->isUnregister == 0) {
      if (event->clientCallback.registerClient == nullptr) return kBadParam;
      if (zek_ModulePushId(event->moduleId, nullptr, &saved) != ZEK_OK) return kBadParam;
      zek_Status status = event->clientCallback.registerClient(
         gModuleID, "fake", fakeRtmWithoutTable ? nullptr : &kRtmOps,
         &gRtmClient);
      zek_ModulePopId();
      if (status == ZEK_OK) fakeCalls.rtmRegistrations++;
      return status;
   }
   fakeFromUpgrade = false;
   if (gRtmClient == nullptr || event->clientCallback.unregisterClient == nullptr) {
      return ZEK_OK;
   }
   if (zek_ModulePushId(event->moduleId, nullptr, &saved) != ZEK_OK) return kBadParam;
   zek_Status status = event->clientCallback.unregisterClient(gRtmClient);
   zek_ModulePopId();
   if (status == ZEK_OK) gRtmClient = nullptr;
   return status;
}

} // namespace

FAKE_EXPORT int init_module(void) {
   gModuleID = zek_ModuleCurrentID();
   zek_HeapProps props = {};
   if (zek_NameInitialize(&props.name, "fakemig") != ZEK_OK) return -1;
   props.module = zek_ModuleCurrentID();
   props.minSize = static_cast<uint32_t>(VIGIL_HEAP_MIN_SIZE);
   props.maxSize = static_cast<uint32_t>(VIGIL_HEAP_MAX_SIZE);
   if (zek_HeapCreate(&props, &gHeap) != ZEK_OK) return -2;
   char activate[ZEK_NAME_MAX], deactivate[ZEK_NAME_MAX];
   size_t len;
   if (zek_StringFormat(activate, sizeof activate, &len, "com.norvex.oxa.vswitch.activate.%u",
                        OXA_BUILD_NUMBER) != ZEK_OK ||
       zek_StringFormat(deactivate, sizeof deactivate, &len,
                        "com.norvex.oxa.vswitch.deactivate.%u", OXA_BUILD_NUMBER) != ZEK_OK ||
       zek_NetEventPortsetEventSubscribe(0, activate, OnActivate, nullptr, &gActivate) !=
          ZEK_OK) {
      zek_HeapDestroy(gHeap);
      return -3;
   }
   if (zek_NetEventPortsetEventSubscribe(0, deactivate, OnDeactivate, nullptr,
                                         &gDeactivate) != ZEK_OK) {
      (void)zek_NetEventPortsetEventUnsubscribe(gActivate);
      zek_HeapDestroy(gHeap);
      return -4;
   }
   if (!isLiveUpgrade) (void)zek_PortsetForAllPortsets(2, RegisterPortset, nullptr);
   if (zek_NetEventPortsetEventSubscribe(0, OXA_RTM_CLIENT_REG_UNREG, OnRtmEvent, nullptr,
                                         &gRtmEvent) != ZEK_OK) {
      for (Portset &p : gPortsets) {
         if (p.name[0] != '\0') UnregisterPortset(&p);
      }
      (void)zek_NetEventPortsetEventUnsubscribe(gDeactivate);
      (void)zek_NetEventPortsetEventUnsubscribe(gActivate);
      zek_HeapDestroy(gHeap);
      return -5;
   }
   return 0;
}

FAKE_EXPORT void cleanup_module(void) {
   (void)zek_NetEventPortsetEventUnsubscribe(gRtmEvent);
   (void)zek_NetEventPortsetEventUnsubscribe(gDeactivate);
   (void)zek_NetEventPortsetEventUnsubscribe(gActivate);
   for (Portset &p : gPortsets) {
      if (p.name[0] != '\0') UnregisterPortset(&p);
   }
   bool leak = fakeLeakAtStop;
   for (Port &p : gPorts) {
      if (p.record == nullptr) continue;
      if (leak) {
         leak = false;
         p.record = nullptr;
      } else {
         FreePort(&p);
      }
   }
   zek_HeapDestroy(gHeap);
}

/* The port's state that moves; false when the port has no record. */
FAKE_EXPORT bool fake_learn(zek_PortID portID, uint32_t learnt) {
   Port *p = FindPort(portID, false);
   if (p == nullptr) return false;
   p->record->learnt = learnt;
   return true;
}

/* The port's record as the tests see it; false when it has none. */
FAKE_EXPORT bool fake_port(zek_PortID portID, uint32_t *config, uint32_t *learnt,
                           uint32_t *cleaned) {
   Port *p = FindPort(portID, false);
   if (p == nullptr) return false;
   *config = p->record->config;
   *learnt = p->record->learnt;
   *cleaned = p->record->cleaned;
   return true;
}
