/*
 * Switch integration: the port property handlers and the module's
 * registration with every portset of the class "vswitch".
 */
#ifndef VIGIL_SWITCH_H
#define VIGIL_SWITCH_H

#include "vigil_filter.h"

#define VIGIL_NUM_PROPS 5
#define VIGIL_PROP_ENABLED 0
#define VIGIL_PROP_DISCOVERY 1
#define VIGIL_PROP_DISCOVERY_IPV6 2
#define VIGIL_PROP_DISCOVERY_IL 3
#define VIGIL_PROP_SECURITY 4

/* One record per registered portset. */
struct VigilFabClientHandles {
   VigilListLinks links;
   char portsetName[VIGIL_PORTSET_NAME_LEN];
   zek_FABClientHandle propHandles[VIGIL_NUM_PROPS];
   zek_FABTransitClientHandle transitHandle;
};

extern const char *const vigilPropNames[VIGIL_NUM_PROPS];
extern VigilListLinks vigilFabClientHandlesList;
extern zek_SpinlockHandle vigilFabClientLock;
extern zek_NetEventHandle vigilFabVswitchActivateEventHandle;
extern zek_NetEventHandle vigilFabVswitchDeactivateEventHandle;

VIGIL_MUST_CHECK zek_Status VigilPortPropEnableWrite(zek_PortsetHandle ps, zek_PortID portID,
                                    const char *propName, const void *data,
                                    u32 dataLen);
VIGIL_MUST_CHECK zek_Status VigilPortPropEnableCleanup(zek_PortsetHandle ps, zek_PortID portID);
VIGIL_MUST_CHECK zek_Status VigilPortPropDiscoveryWrite(zek_PortsetHandle ps, zek_PortID portID,
                                       const char *propName, const void *data,
                                       u32 dataLen);
VIGIL_MUST_CHECK zek_Status VigilPortPropDiscoveryCleanup(zek_PortsetHandle ps, zek_PortID portID);
VIGIL_MUST_CHECK zek_Status VigilPortPropDiscoveryIpv6Write(zek_PortsetHandle ps, zek_PortID portID,
                                           const char *propName, const void *data,
                                           u32 dataLen);
VIGIL_MUST_CHECK zek_Status VigilPortPropDiscoveryIpv6Cleanup(zek_PortsetHandle ps, zek_PortID portID);
VIGIL_MUST_CHECK zek_Status VigilPortPropDiscoveryILWrite(zek_PortsetHandle ps, zek_PortID portID,
                                         const char *propName, const void *data,
                                         u32 dataLen);
VIGIL_MUST_CHECK zek_Status VigilPortPropDiscoveryILCleanup(zek_PortsetHandle ps, zek_PortID portID);
VIGIL_MUST_CHECK zek_Status VigilPortPropSecurityWrite(zek_PortsetHandle ps, zek_PortID portID,
                                      const char *propName, const void *data,
                                      u32 dataLen);
VIGIL_MUST_CHECK zek_Status Vigil_FabPropRegister(const char *portsetName,
                                 VigilFabClientHandles *client);
VIGIL_MUST_CHECK zek_Status Vigil_FabPropUnregister(VigilFabClientHandles *client);

VIGIL_MUST_CHECK zek_Status Vigil_FabClientInit(void);
void Vigil_FabClientCleanup(void);
VIGIL_MUST_CHECK zek_Status VigilFabRegisterClients(const char *portsetName);
VIGIL_MUST_CHECK zek_Status VigilFabUnregisterClients(const char *portsetName);
VIGIL_MUST_CHECK zek_Status VigilFabRegisterClientsCB(zek_PortsetHandle ps, void *data);
VIGIL_MUST_CHECK zek_Status VigilFabVswitchActivateCB(void *ctx, const char *eventName, void *cbData,
                               void *eventData);
VIGIL_MUST_CHECK zek_Status VigilFabVswitchDeactivateCB(void *ctx, const char *eventName, void *cbData,
                                 void *eventData);
VigilFabClientHandles *VigilFabGetClientHandlesByPSName(const char *portsetName);

/* Of the migration part: the Transit carrier's registration per portset. */
VIGIL_MUST_CHECK zek_Status Vigil_TransitRegister(const char *portsetName,
                                 VigilFabClientHandles *client);
VIGIL_MUST_CHECK zek_Status Vigil_TransitUnregister(VigilFabClientHandles *client);

/* Switch client registration reaches the Transit carrier only through
 * vigilTransitCallees, whose entries are the module's own functions
 * (vigilTransitModuleCallees).  Like the pipelines' table (vigil_pipeline.h),
 * a test may put other entries in and must put these back; the module never
 * writes it. */
struct VigilTransitCallees {
   zek_Status (*transitRegister)(const char *portsetName,
                                 VigilFabClientHandles *client);
   zek_Status (*transitUnregister)(VigilFabClientHandles *client);
};
extern VigilTransitCallees vigilTransitCallees;
extern const VigilTransitCallees vigilTransitModuleCallees;

#endif /* VIGIL_SWITCH_H */
