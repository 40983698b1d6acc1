/*
 * The two background worlds: the aging world, which expires bindings and
 * requests on time, and the control-plane world, which posts portset
 * messages about binding changes.
 */
#ifndef VIGIL_WORKERS_H
#define VIGIL_WORKERS_H

#include "vigil_exports.h"
#include "vigil_filter.h"

#define VIGIL_AGING_Q_CAPACITY 5120u
#define VIGIL_TASK_Q_MAX 512u
#define VIGIL_PORTSET_MSG_LEN 80u
#define VIGIL_CP_TASK_PORTSET_MSG 0u

extern zek_SpinlockHandle filterAgingQLock;
extern u32 agingWorldID;
extern u8 exitAgingWorld;

VIGIL_MUST_CHECK zek_Status VigilAgingWorldInit(void);
VIGIL_MUST_CHECK zek_Status VigilAgingWorldDestroy(void);
void VigilAgingWorld(void *data);
/* Takes a filter that is going away out of the aging queue. */
void VigilRemoveFilterAging(VigilFilter *filter);
/* Waits until the aging world holds no pointer to the filter of the port.
 * Called by filter destruction once the port's data slot no longer leads
 * to the filter, before anything of the filter is freed. */
void VigilAgingWorldQuiesce(u32 portID);

/* One task of the control-plane world, sized for its payload. */
struct VigilCpTask {
   VigilCpTask *next;
   u32 type; /* VIGIL_CP_TASK_PORTSET_MSG */
   char portsetName[VIGIL_PORTSET_NAME_LEN];
   u32 portID;
   u8 msg[];
};

struct VigilTaskQueue {
   VigilCpTask *head;
   VigilCpTask *tail;
   u32 count;
};

/* The portset message about one binding, the same for IPv4 and IPv6. */
struct __attribute__((packed)) VigilPortsetMsg {
   char name[32];
   u64 payloadLen; /* 40: the bytes after this field */
   u32 op;         /* 0 added, 1 removed */
   u32 numEntries; /* 1 */
   VigilPortDbEntry entry;
};
static_assert(sizeof(VigilPortsetMsg) == VIGIL_PORTSET_MSG_LEN, "80-byte message");
static_assert(offsetof(VigilPortsetMsg, payloadLen) == 32, "payloadLen at 32");
static_assert(offsetof(VigilPortsetMsg, op) == 40, "op at 40");
static_assert(offsetof(VigilPortsetMsg, numEntries) == 44, "numEntries at 44");
static_assert(offsetof(VigilPortsetMsg, entry) == 48, "entry at 48");

extern zek_SpinlockHandle taskQLock;
extern u32 cpWorldID;
extern u8 exitCPWorld;

VIGIL_MUST_CHECK zek_Status VigilPostPortsetMessage(const char *portsetName, u32 portID,
                                   const void *payload, u32 length);
VIGIL_MUST_CHECK zek_Status VigilCPWorldPostTask(VigilCpTask *task);
void VigilCPWorldFlushTaskQ(void);
VIGIL_MUST_CHECK zek_Status VigilCPWorldInit(void);
VIGIL_MUST_CHECK zek_Status VigilCPWorldDestroy(void);
void VigilCPWorld(void *data);

/* Starts one of the module's worlds. */
VIGIL_MUST_CHECK zek_Status VigilCreateWorld(const char *name, zek_WorldStartFn start,
                            zek_WorldID *id);
/* Asks a world to end and waits until it has. */
VIGIL_MUST_CHECK zek_Status VigilStopWorld(zek_WorldID id);

#endif /* VIGIL_WORKERS_H */
