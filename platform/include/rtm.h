/*
 * The live upgrade service ("RTM") of the core sibling module, as its
 * clients see it.  Nothing here is linked: the service announces itself by
 * raising the portset event OXA_RTM_CLIENT_REG_UNREG with an
 * oxa_RtmEventData record as the event data, and the record carries the
 * function a client calls to register (or, when the service withdraws, to
 * unregister).  A client hands over a table of state operations; during an
 * upgrade the service asks the outgoing module for each port's state and
 * gives it to the incoming one.
 */
#ifndef RTM_H
#define RTM_H

#include <cstddef>

#include "zek.h"

extern "C" {

/* The event through which the service announces and withdraws itself. */
#define OXA_RTM_CLIENT_REG_UNREG "com.norvex.oxa.rtm.client"
/* The interface version that the service and its clients speak. */
#define OXA_RTM_VERSION 1

typedef struct oxa_RtmClient *oxa_RtmClientHandle;

/* A client's table of state operations: six operations, then seven slots
 * that stay null.  `ctx` is the service's own word, given back unread.  The
 * size, save and restore operations have the meaning of the Transit table
 * (zek.h); prefetch announces a port whose state is asked for soon, and
 * preDualLoad tells the outgoing module that its successor is about to be
 * loaded beside it. */
typedef struct oxa_RtmClientOps {
   zek_Status (*prefetch)(void *ctx, zek_PortID portID);
   zek_Status (*getSize)(void *ctx, zek_PortID portID, uint32_t *size);
   zek_Status (*save)(void *ctx, zek_PortID portID, void *buf, uint32_t bufLen,
                      uint32_t *dataLen, uint64_t reserved);
   zek_Status (*restore)(void *ctx, zek_PortID portID, const void *buf,
                         uint32_t bufLen, uint64_t elapsedMS);
   void (*completed)(void *ctx, bool isCrossHost, zek_Status status);
   zek_Status (*preDualLoad)(void);
   void *unused[7];
} oxa_RtmClientOps;

/* Registers a client: the caller's module id, its name, its table (or
 * nullptr), and where to put the handle. */
typedef zek_Status (*oxa_RtmClientRegisterFn)(zek_ModuleID moduleID,
                                              const char *clientName,
                                              const oxa_RtmClientOps *ops,
                                              oxa_RtmClientHandle *handle);
typedef zek_Status (*oxa_RtmClientUnregisterFn)(oxa_RtmClientHandle handle);

/* The event data of OXA_RTM_CLIENT_REG_UNREG, filled by the service.  Only
 * the named fields are meant to be read. */
typedef struct oxa_RtmEventData {
   int32_t version;      /* interface version of the service */
   uint32_t moduleId;    /* the service's module, to push around a call into it */
   uint8_t isUnregister; /* 0: the service is announced; else withdrawn */
   uint8_t pad1[7];
   union {
      oxa_RtmClientRegisterFn registerClient;     /* when announced */
      oxa_RtmClientUnregisterFn unregisterClient; /* when withdrawn */
   } clientCallback;
   uint8_t pad2[8];
   uint32_t buildNum; /* the service's build number */
   uint8_t pad3[12];
} oxa_RtmEventData;

static_assert(offsetof(oxa_RtmEventData, version) == 0);
static_assert(offsetof(oxa_RtmEventData, moduleId) == 4);
static_assert(offsetof(oxa_RtmEventData, isUnregister) == 8);
static_assert(offsetof(oxa_RtmEventData, clientCallback) == 16);
static_assert(offsetof(oxa_RtmEventData, buildNum) == 32);
static_assert(sizeof(oxa_RtmEventData) == 48);
static_assert(offsetof(oxa_RtmClientOps, preDualLoad) == 5 * sizeof(void *));
static_assert(sizeof(oxa_RtmClientOps) == 13 * sizeof(void *));

} /* extern "C" */

#endif /* RTM_H */
