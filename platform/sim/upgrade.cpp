/*
 * A live upgrade of a module, as the platform runs it: the new copy is
 * loaded beside the old one, the RTM service carries each port's state from
 * the old copy's client to the new one's, and the switch hands the ports
 * over from the old copy's property handlers to the new copy's.
 *
 * The sequence, in the order of sim_migration.h:
 *
 *   announce RTM --> old copy registers its client
 *   preDualLoad(old)
 *   load new copy (isLiveUpgrade 1) --> it subscribes; given the
 *       announcement, it registers its client
 *   per enabled port: getSize(old), save(old)
 *   per port: the old copy's property cleanups (values stay on the ports)
 *   completed(old); the service drops the old client; unload old copy
 *   raise activate per portset --> new copy registers its switch clients;
 *       the switch replays the ports' property values to them
 *   per saved port: restore(new)
 *   completed(new)
 *
 * Why this order: both copies keep a port's filter in the same data slot of
 * the core sibling, so the old copy must have let go of every port (the
 * cleanups, then its unload) before the new one is given the ports'
 * properties; and a port's state can only be restored into a port that the
 * new copy has configured again.
 */
#include <cstring>

#include "sim_migration.h"
#include "sim_switch_internal.h"

namespace sim {
namespace {

uint64_t MillisecondsSince(double then) {
   const double ms = (Now() - then) * 1000.0;
   return ms > 0 ? static_cast<uint64_t>(ms + 0.5) : 0;
}

void Fold(zek_Status *first, zek_Status status) {
   if (*first == ZEK_OK) *first = status;
}

/* Step 4: the state of one port, from the old copy's client. */
void SavePort(oxa_RtmClientHandle client, uint64_t reserved, CarriedPort *port) {
   if (client == nullptr) {
      port->sizeStatus = kNotFound;
      return;
   }
   port->sizeStatus = RtmGetSize(client, port->portID, &port->size);
   if (port->sizeStatus != ZEK_OK || port->size == 0) return;
   ModuleBuffer buf(port->size);
   port->saveStatus = RtmSave(client, port->portID, buf.data(), port->size,
                              &port->dataLen, reserved);
   if (port->saveStatus != ZEK_OK) return;
   if (port->dataLen > port->size) {
      ReportFailure("RTM save of port " + std::to_string(port->portID) + " reported " +
                    std::to_string(port->dataLen) + " bytes in a buffer of " +
                    std::to_string(port->size));
      port->saveStatus = kInvalid;
      return;
   }
   port->data.assign(buf.data(), buf.data() + port->dataLen);
}

} // namespace

zek_Status LiveUpgrade(LoadedModule *oldModule, const std::string &newPath,
                       LiveUpgradeReport *report, const LiveUpgradeOptions &opts) {
   LiveUpgradeReport ignored;
   LiveUpgradeReport &r = report != nullptr ? *report : ignored;
   r = LiveUpgradeReport();
   if (ModuleBase(oldModule) == nullptr) {
      r.error = "no module to upgrade";
      return kFailure;
   }

   /* 1, 2: the old copy's client, told that its successor comes. */
   if (!RtmAnnounced()) RtmAnnounce();
   oxa_RtmClientHandle oldClient = RtmClientOf(oldModule);
   r.oldClient = oldClient != nullptr;
   if (oldClient != nullptr) (void)RtmPreDualLoad(oldClient);

   /* 3: the new copy beside the old one, with its own client. */
   std::vector<std::pair<std::string, int64_t>> params = opts.params;
   params.emplace_back("isLiveUpgrade", 1);
   const uint64_t mark = SubscriptionMark();
   r.newModule = LoadModule(newPath, params, &r.initResult, &r.error);
   if (r.newModule == nullptr) return kFailure;
   if (r.initResult != 0) {
      r.error = "the new copy's init_module answered " + std::to_string(r.initResult);
      (void)UnloadModule(r.newModule);
      r.newModule = nullptr;
      return kFailure;
   }
   RtmDeliverAnnouncementSince(mark);
   oxa_RtmClientHandle newClient = RtmClientOf(r.newModule);
   r.newClient = newClient != nullptr;

   /* 4: each enabled port's state, from the old copy. */
   zek_Status saved = ZEK_OK;
   std::vector<double> savedAt;
   for (zek_PortID portID : PortsOf(nullptr)) {
      if (!PortFlagSet(portID, ZEK_PORT_FLAG_ENABLED)) continue;
      CarriedPort port;
      port.portID = portID;
      SavePort(oldClient, opts.reserved, &port);
      Fold(&saved, port.sizeStatus);
      Fold(&saved, port.saveStatus);
      savedAt.push_back(Now());
      r.ports.push_back(std::move(port));
   }

   /* 5, 6: the old copy lets go of every port and goes. */
   const void *oldBase = ModuleBase(oldModule);
   for (zek_PortID portID : PortsOf(nullptr)) CleanupPropertiesInto(oldBase, portID);
   if (oldClient != nullptr) {
      (void)RtmCompleted(oldClient, false, saved);
      RtmDropClient(oldClient);
   }
   /* Its worlds finish what the cleanups gave them, so the removals they
    * announce reach the portsets before the copy goes. */
   (void)WaitIdle(5.0);
   r.oldUnload = UnloadModule(oldModule);
   r.oldUnloaded = true;

   /* 7: the new copy takes the portsets, and the switch gives it the ports'
    * properties. */
   for (zek_PortsetHandle ps : AllPortsets()) {
      RaiseEvent(VswitchEventName("activate"), ps);
   }

   /* 8, 9: each port's state, into the new copy. */
   zek_Status restored = ZEK_OK;
   for (size_t i = 0; i < r.ports.size(); i++) {
      CarriedPort &port = r.ports[i];
      port.elapsedMS = MillisecondsSince(savedAt[i]);
      port.restoreStatus = newClient != nullptr
                              ? RtmRestore(newClient, port.portID, port.data, port.elapsedMS)
                              : kNotFound;
      Fold(&restored, port.restoreStatus);
   }
   if (newClient != nullptr) (void)RtmCompleted(newClient, false, restored);

   zek_Status status = saved;
   Fold(&status, restored);
   return status;
}

} // namespace sim
