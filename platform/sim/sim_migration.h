/*
 * Test API of the simulated host: the two carriers of a port's saved state
 * and the live upgrade.
 *
 * - Transit: the switch's per-portset clients (zek_FABTransitOps), driven
 *   one operation at a time or as a whole move of a VM from one port to
 *   another.
 * - RTM: the live upgrade service of the core sibling.  It announces and
 *   withdraws itself through the event OXA_RTM_CLIENT_REG_UNREG (rtm.h);
 *   the clients that register through it are driven one operation at a
 *   time.
 * - LiveUpgrade: replaces a loaded module by a new copy of it, the two
 *   loaded side by side for a while, carrying each port's state across.
 *
 * Only tests and tools include this.
 */
#ifndef SIM_MIGRATION_H
#define SIM_MIGRATION_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "rtm.h"
#include "sim_switch.h"
#include "zek.h"

namespace sim {

/* ------------------------------------------------------------- buffers */
/* With guard pages on, every buffer the carriers hand to a module (to save
 * into or to restore from) ends exactly where a page that can't be touched
 * begins, so that reading or writing one byte past it faults at once.  On
 * by default in the sanitizer build (the module itself is not
 * instrumented), off otherwise; Reset puts the default back. */
void SetGuardedBuffers(bool on);
bool GuardedBuffers();

/* ------------------------------------------------------------- Transit */
/* zek_FABTransitClientRuntimeRegister(portset, client, ops, &handle) keeps a
 * copy of the table for that portset: 0xbad0007 for a null argument,
 * 0xbad0003 for an unknown portset, 0xbad0005 when the portset already has
 * a client of that name.  zek_FABTransitClientRuntimeUnregister answers
 * 0xbad0003 for a handle it doesn't know.  Both can be failed with
 * FaultCall ("FABTransitClientRuntimeRegister", "...Unregister"). */
struct TransitClientInfo {
   std::string portset;
   std::string client;
   zek_FABTransitClientHandle handle;
};
/* In registration order. */
std::vector<TransitClientInfo> TransitClients();
uint32_t LiveTransitClients();

/* One operation of the client registered on the portset (the first one
 * registered, when there are several).  Each answers 0xbad0003, and calls
 * nothing, when the portset has no client.
 * TransitSize: *size gets getSize(portID).
 * TransitSave: save(portID, buf, bufLen, dataLen, reserved), its status.
 * TransitRestore: restore(portID, buf, bufLen, elapsedMS), its status; the
 *   second form copies `data` into a buffer of exactly data.size() bytes
 *   (nullptr and 0 when it is empty), guarded as above.
 * TransitCompleted: completed(isCrossHost, status). */
zek_Status TransitSize(const std::string &portset, zek_PortID portID, uint32_t *size);
zek_Status TransitSave(const std::string &portset, zek_PortID portID, void *buf,
                       uint32_t bufLen, uint32_t *dataLen, uint64_t reserved = 0);
zek_Status TransitRestore(const std::string &portset, zek_PortID portID,
                          const void *buf, uint32_t bufLen, uint64_t elapsedMS);
zek_Status TransitRestore(const std::string &portset, zek_PortID portID,
                          const std::vector<uint8_t> &data, uint64_t elapsedMS);
zek_Status TransitCompleted(const std::string &portset, bool isCrossHost,
                            zek_Status status);

/* A VM's move from srcPort to dstPort, as the switch carries it:
 * 1. getSize(srcPort) on the client of the source port's portset;
 * 2. a buffer of that size (or of opts.bufLen), filled with opts.fill;
 *    save(srcPort, buf, bufLen, &dataLen, opts.reserved) when it isn't
 *    empty, and dataLen 0 otherwise;
 * 3. restore(dstPort, bytes, dataLen, elapsedMS) on the client of the
 *    destination port's portset, with the first dataLen bytes saved, in a
 *    buffer of exactly that size; elapsedMS is opts.elapsedMS, or the
 *    virtual time between save and restore;
 * 4. completed(opts.isCrossHost, status) on the source's client, then on the
 *    destination's, with the first failure of save and restore (ZEK_OK when
 *    both succeeded).
 * A failed save skips the restore.  A save that reports more bytes than its
 * buffer holds is a host failure, and nothing is restored (0xbad0001).
 * Answers 0xbad0003 without calling anything when a port is unknown or its
 * portset has no client; otherwise the status given to completed. */
struct TransitMoveOptions {
   std::optional<uint32_t> bufLen; /* default: the size asked for */
   bool isCrossHost = true;
   uint64_t reserved = 0;
   std::optional<uint64_t> elapsedMS; /* default: from the virtual clock */
   uint8_t fill = 0;                  /* the save buffer's bytes beforehand */
};
struct TransitMoveResult {
   uint32_t size = 0;    /* getSize's answer */
   uint32_t bufLen = 0;  /* the save buffer's length */
   uint32_t dataLen = 0; /* what save reported */
   zek_Status saveStatus = ZEK_OK;
   zek_Status restoreStatus = ZEK_OK;
   bool restored = false;
   uint64_t elapsedMS = 0;
   std::vector<uint8_t> data; /* the bytes given to restore */
};
zek_Status TransitMove(zek_PortID srcPort, zek_PortID dstPort,
                       TransitMoveResult *result = nullptr,
                       const TransitMoveOptions &opts = TransitMoveOptions());

/* ----------------------------------------------------------------- RTM */
/* The service's own module id, pushed by a client around a call into it;
 * the service's register and unregister functions report a host failure
 * when they run under another id. */
constexpr zek_ModuleID kRtmModuleID = 0x2e;

/* Raises OXA_RTM_CLIENT_REG_UNREG with a record that announces the service:
 * `version`, `moduleId`, isUnregister 0, `buildNum` (OXA_BUILD_NUMBER when
 * not given) and, with withCallback, the service's register function
 * (nullptr otherwise).  The service is announced from then on. */
struct RtmAnnouncement {
   int32_t version = OXA_RTM_VERSION;
   std::optional<uint32_t> buildNum;
   bool withCallback = true;
   zek_ModuleID moduleId = kRtmModuleID;
};
/* Returns the subscribers' answers, in the order they were called. */
std::vector<zek_Status> RtmAnnounce(const RtmAnnouncement &announcement = RtmAnnouncement());
/* Raises the event with a record that withdraws the service: isUnregister
 * 1 and, with withCallback, the service's unregister function.  Clients
 * that weren't unregistered stay on the list until their module is
 * unloaded: the service forgets the clients of a module that goes (a
 * client has no call of its own to end its registration). */
std::vector<zek_Status> RtmWithdraw(bool withCallback = true);
bool RtmAnnounced();
/* The record of the last announcement or withdrawal, as subscribers got it. */
oxa_RtmEventData RtmLastEventData();

/* The service's register function: a client of that name, with a copy of
 * the table (or none, for nullptr), and a new handle; 0xbad0007 for a null
 * name or handle.  The unregister function: 0xbad0003 for a handle it
 * doesn't know.  FaultCall names: "RtmClientRegister",
 * "RtmClientUnregister". */
struct RtmClientInfo {
   oxa_RtmClientHandle handle;
   zek_ModuleID moduleID;   /* as the client gave it */
   std::string name;
   bool hasOps;             /* registered with a table */
   zek_ModuleID pushedID;   /* the current module id during the call */
};
/* In registration order. */
std::vector<RtmClientInfo> RtmClients();
uint32_t LiveRtmClients();

/* One operation of a registered client, with the client's record as the
 * context word.  0xbad0003 for an unknown handle, 0xbad0020 when the client
 * has no table or the slot is empty; otherwise the operation's status
 * (ZEK_OK for completed).  RtmRestore's second form hands over a buffer of
 * exactly data.size() bytes, guarded as above (nullptr and 0 when empty). */
zek_Status RtmPrefetch(oxa_RtmClientHandle client, zek_PortID portID);
zek_Status RtmGetSize(oxa_RtmClientHandle client, zek_PortID portID, uint32_t *size);
zek_Status RtmSave(oxa_RtmClientHandle client, zek_PortID portID, void *buf,
                   uint32_t bufLen, uint32_t *dataLen, uint64_t reserved = 0);
zek_Status RtmRestore(oxa_RtmClientHandle client, zek_PortID portID, const void *buf,
                      uint32_t bufLen, uint64_t elapsedMS);
zek_Status RtmRestore(oxa_RtmClientHandle client, zek_PortID portID,
                      const std::vector<uint8_t> &data, uint64_t elapsedMS);
zek_Status RtmCompleted(oxa_RtmClientHandle client, bool isCrossHost, zek_Status status);
zek_Status RtmPreDualLoad(oxa_RtmClientHandle client);

/* The RTM client that the module loaded as `module` registered (its code
 * made the call), the last one when there are several; nullptr for none. */
oxa_RtmClientHandle RtmClientOf(const LoadedModule *module);

/* --------------------------------------------------------- live upgrade */
/* Replaces `oldModule` by a copy of the object at newPath, as the platform
 * does it with two copies loaded at once:
 *
 *  1. The RTM service is announced (unless it is already), so that the old
 *     copy registers its client.
 *  2. preDualLoad to the old copy's client.
 *  3. The new copy is loaded with isLiveUpgrade 1 (and opts.params).  It
 *     subscribes to the service's event at start and is given the
 *     announcement too, so that it registers its own client.
 *  4. For each enabled port (ZEK_PORT_FLAG_ENABLED), in id order: getSize
 *     and, when it isn't 0, save into a buffer of that size, from the old
 *     copy's client.
 *  5. For each port, the cleanup handlers of the old copy's property
 *     registrations, for the properties the port carries; the values stay
 *     on the ports.
 *  6. completed(false, first failure of steps 4) to the old copy's client;
 *     the service drops that client, and the old copy is unloaded
 *     (report->oldUnload).
 *  7. The activate event is raised again for every portset, so that the new
 *     copy, which didn't walk the portsets at start, registers its switch
 *     clients; the switch replays the ports' property values to them.
 *  8. For each port of step 4: restore of the bytes saved (bufLen 0 for
 *     nothing) into the new copy's client, elapsedMS from the virtual
 *     clock since that port's save.
 *  9. completed(false, first failure of step 8) to the new copy's client.
 *
 * When the new copy can't be loaded, or its init_module fails (it is then
 * unloaded again), the old copy stays loaded and nothing is carried;
 * report->error says why and the answer is 0x2bad0000.  Otherwise the
 * answer is the first failure of steps 4 and 8, or ZEK_OK; a copy without
 * an RTM client carries nothing (0xbad0003 for each port it should have
 * saved or restored). */
struct LiveUpgradeOptions {
   std::vector<std::pair<std::string, int64_t>> params; /* besides isLiveUpgrade */
   uint64_t reserved = 0; /* the save operation's further word */
};
struct CarriedPort {
   zek_PortID portID;
   zek_Status sizeStatus = ZEK_OK;
   uint32_t size = 0;
   zek_Status saveStatus = ZEK_OK;
   uint32_t dataLen = 0;
   zek_Status restoreStatus = ZEK_OK;
   uint64_t elapsedMS = 0;
   std::vector<uint8_t> data; /* the bytes carried */
};
struct LiveUpgradeReport {
   LoadedModule *newModule = nullptr; /* the caller unloads it */
   int initResult = -1;
   std::string error;
   bool oldClient = false; /* the old copy had an RTM client */
   bool newClient = false; /* the new copy registered one */
   std::vector<CarriedPort> ports;
   bool oldUnloaded = false;
   UnloadReport oldUnload{};
};
zek_Status LiveUpgrade(LoadedModule *oldModule, const std::string &newPath,
                       LiveUpgradeReport *report,
                       const LiveUpgradeOptions &opts = LiveUpgradeOptions());

} // namespace sim

#endif /* SIM_MIGRATION_H */
