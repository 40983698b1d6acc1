/*
 * Kernel API of the hypervisor ("zek"), as the module imports it.
 *
 * Every call that can fail returns a zek_Status; 0 (ZEK_OK) is success and
 * the other values are the platform's status numbers.  Handles are opaque.
 * All symbols have C linkage so that a loadable module resolves them by name.
 */
#ifndef ZEK_H
#define ZEK_H

#include <cstddef>
#include <cstdint>
#include <cstdarg>

extern "C" {

typedef uint32_t zek_Status;
#define ZEK_OK 0u

typedef uint32_t zek_ModuleID;
typedef struct zek_Heap *zek_HeapID;
typedef struct zek_LockDomain *zek_LockDomainID;
typedef struct zek_Spinlock *zek_SpinlockHandle;
typedef struct zek_Log *zek_LogHandle;
typedef struct zek_Portset *zek_PortsetHandle;
typedef struct zek_PriQ *zek_PriQHandle;
typedef struct zek_IOChain *zek_IOChainHandle;
typedef struct zek_NetEvent *zek_NetEventHandle;
typedef struct zek_FABClient *zek_FABClientHandle;
typedef struct zek_FABTransitClient *zek_FABTransitClientHandle;
typedef struct zek_Mgmt *zek_MgmtHandle;
typedef struct zek_VNIC *zek_VNICHandle;
typedef uint32_t zek_WorldID;
typedef uint32_t zek_PortID;
typedef uint64_t zek_MA; /* machine address */

/* ---------------------------------------------------------------- names */
#define ZEK_NAME_MAX 64
typedef struct zek_Name {
   char string[ZEK_NAME_MAX];
} zek_Name;

zek_Status zek_NameInitialize(zek_Name *name, const char *text);
zek_Status zek_NameFormat(zek_Name *name, const char *fmt, ...)
   __attribute__((format(printf, 2, 3)));

/* ------------------------------------------------------ status and text */
const char *zek_StatusToString(zek_Status status);
int zek_Sprintf(char *buf, size_t size, const char *fmt, ...)
   __attribute__((format(printf, 3, 4)));
zek_Status zek_StringFormat(char *buf, size_t size, size_t *outLen,
                            const char *fmt, ...)
   __attribute__((format(printf, 4, 5)));
size_t zek_Strnlen(const char *s, size_t max);
int zek_Strncmp(const char *a, const char *b, size_t n);
char *zek_Strncpy(char *dst, const char *src, size_t n);
uint32_t zek_HashBytes(const void *data, uint32_t len, uint32_t seed);
void zek_PanicWithModuleID(zek_ModuleID module, const char *fmt, ...)
   __attribute__((format(printf, 2, 3), noreturn));

/* ------------------------------------------------------ module and heap */
zek_ModuleID zek_ModuleCurrentID(void);
zek_Status zek_ModuleGetName(zek_ModuleID module, char *buf, size_t size);
zek_Status zek_ModuleSetHeapID(zek_ModuleID module, zek_HeapID heap);
/* Brackets a call into another module: the pushed id is current until the pop. */
zek_Status zek_ModulePushId(zek_ModuleID module, void *function,
                            zek_ModuleID *savedId);
void zek_ModulePopId(void);

typedef struct zek_HeapProps {
   zek_Name name;
   zek_ModuleID module;
   uint32_t minSize;
   uint32_t maxSize;
} zek_HeapProps;

zek_Status zek_HeapCreate(const zek_HeapProps *props, zek_HeapID *heap);
void zek_HeapDestroy(zek_HeapID heap);
void *zek_HeapAllocWithRA(zek_HeapID heap, uint32_t size, const void *ra);
void zek_HeapFree(zek_HeapID heap, void *ptr);

/* ------------------------------------------------------------------ log */
typedef int (*zek_LogThrottleFn)(void *arg); /* non-zero: write the message */

#define ZEK_LOG_THROTTLE_NONE 0
#define ZEK_LOG_THROTTLE_CUSTOM 2

typedef struct zek_LogThrottle {
   uint32_t type; /* ZEK_LOG_THROTTLE_* */
   zek_LogThrottleFn fn;
   void *arg;
} zek_LogThrottle;

typedef struct zek_LogProps {
   zek_Name name;
   zek_ModuleID module;
   zek_HeapID heap;
   int32_t defaultLevel;
   zek_LogThrottle throttle;
} zek_LogProps;

zek_Status zek_LogRegister(const zek_LogProps *props, zek_LogHandle *handle);
void zek_LogUnregister(zek_LogHandle handle);
/* Writes one line at a level (1 information, 2 error) on a handle.  `func` and
 * `line` name the writer so that logs can be matched to code. */
void zek_LogLevel(zek_LogHandle handle, int32_t level, const char *func,
                  uint32_t line, const char *fmt, ...)
   __attribute__((format(printf, 5, 6)));
void zek_LogNoLevel(int32_t level, const char *fmt, ...)
   __attribute__((format(printf, 2, 3)));
const char *zek_LogGetName(zek_LogHandle handle);
int32_t zek_LogGetCurrentLogLevel(zek_LogHandle handle);

/* ---------------------------------------------------------------- locks */
#define ZEK_SPINLOCK_ORDINARY 1
#define ZEK_SPINLOCK_RW 2

typedef struct zek_SpinlockProps {
   zek_ModuleID module;
   zek_HeapID heap;
   zek_Name name;
   uint32_t kind; /* ZEK_SPINLOCK_* */
   zek_LockDomainID domain;
   uint32_t rank;
} zek_SpinlockProps;

zek_Status zek_LockDomainCreate(zek_ModuleID module, zek_HeapID heap,
                                const zek_Name *name, zek_LockDomainID *domain);
void zek_LockDomainDestroy(zek_LockDomainID domain);
zek_Status zek_SpinlockCreate(const zek_SpinlockProps *props,
                              zek_SpinlockHandle *lock);
void zek_SpinlockDestroy(zek_SpinlockHandle lock);
void zek_SpinlockLock(zek_SpinlockHandle lock);
void zek_SpinlockUnlock(zek_SpinlockHandle lock);
void zek_SpinlockReadLock(zek_SpinlockHandle lock);
void zek_SpinlockReadUnlock(zek_SpinlockHandle lock);
void zek_SpinlockWriteLock(zek_SpinlockHandle lock);
void zek_SpinlockWriteUnlock(zek_SpinlockHandle lock);

/* ----------------------------------------------------------------- time */
typedef struct zek_Uptime {
   int64_t sec;  /* whole seconds since boot */
   int64_t usec; /* and the microseconds beyond them */
} zek_Uptime;

void zek_GetUptime(zek_Uptime *out);
uint64_t zek_GetTimerCycles(void);
uint64_t zek_TimerCyclesPerSecond(void);
uint64_t zek_TimerMonotonicCounter(void);
uint64_t zek_GetMonotonicCounterFrequency(void);

/* ----------------------------------------------------- frames and lists */
typedef struct zek_Pkt zek_Pkt;
typedef struct zek_PktList zek_PktList;
typedef struct zek_PktListIter zek_PktListIter;

/* Room a caller reserves for an iterator on its stack; zek_PktListIterSizeOf
 * never exceeds it. */
#define ZEK_PKT_LIST_ITER_MAX_SIZE 64

/* One parsed header, in the frame's byte terms.  nextProto holds, in layer 0
 * entries, the EtherType of the payload (host order value, after any 802.1Q
 * tag), and in IPv4 layer 1 entries the IP protocol number. */
typedef struct zek_PktHeaderEntry {
   uint16_t type;
   uint16_t offset;
   uint16_t nextProto;
   uint16_t nextOffset;
} zek_PktHeaderEntry;

/* Layer indices and header type tags.  A find asks for a layer index and a
 * type: a value whose low 12 bits are zero is a class and matches every type
 * of that class; any other value matches that type only. */
#define ZEK_PKT_LAYER_2 0
#define ZEK_PKT_LAYER_3 1
#define ZEK_PKT_LAYER_4 2
#define ZEK_PKT_CLASS_L2 0x1000
#define ZEK_PKT_CLASS_L3 0x2000
#define ZEK_PKT_CLASS_L4 0x4000
#define ZEK_PKT_TYPE_ETH 0x1001
#define ZEK_PKT_TYPE_IPV4 0x2001
#define ZEK_PKT_TYPE_IPV6 0x2002
#define ZEK_PKT_TYPE_ARP 0x2003
#define ZEK_PKT_TYPE_IPV6_HOPOPT 0x2801
#define ZEK_PKT_TYPE_IPV6_ROUTING 0x2802
#define ZEK_PKT_TYPE_IPV6_DSTOPT 0x2803
#define ZEK_PKT_TYPE_IPV6_FRAGMENT 0x2804
#define ZEK_PKT_TYPE_TCP 0x4001
#define ZEK_PKT_TYPE_UDP 0x4002
#define ZEK_PKT_TYPE_OTHER_L4 0x4003
#define ZEK_PKT_TYPE_ICMPV6 0x4802

typedef struct zek_SgArray {
   uint16_t numElems;
} zek_SgArray;

typedef struct zek_SgElem {
   zek_MA addr;
   uint32_t length;
} zek_SgElem;

uint32_t zek_PktListIterSizeOf(void);
void zek_PktListIterStart(zek_PktListIter *iter, zek_PktList *list);
int zek_PktListIterIsAtEnd(zek_PktListIter *iter);
zek_Pkt *zek_PktListIterGetPkt(zek_PktListIter *iter);
void zek_PktListIterMove(zek_PktListIter *iter);
zek_Status zek_PktListIterRemovePkt(zek_PktListIter *iter, zek_Pkt **pkt);
zek_Status zek_PktListIterReplace(zek_PktListIter *iter, zek_Pkt *pkt);

void *zek_PktFrameMappedPointerGet(zek_Pkt *pkt);
uint32_t zek_PktFrameMappedLenGet(zek_Pkt *pkt);
uint32_t zek_PktFrameLenGet(zek_Pkt *pkt);
uint16_t zek_PktVlanIDGet(zek_Pkt *pkt);
zek_Status zek_PktHeaderFind(zek_Pkt *pkt, uint32_t layer, uint32_t type,
                             uint32_t occurrence, zek_PktHeaderEntry **entry,
                             uint32_t flags);
zek_Status zek_PktCopyBytesOut(void *dst, uint32_t len, uint32_t offset,
                               zek_Pkt *pkt);
zek_Status zek_PktCopy(zek_Pkt *pkt, zek_Pkt **copy);
void zek_PktRelease(zek_Pkt *pkt);
const zek_SgArray *zek_PktSgArrayGet(zek_Pkt *pkt);
const zek_SgElem *zek_PktSgElemGet(zek_Pkt *pkt, uint32_t index);
zek_Status zek_MA2VA(zek_MA addr, uint32_t len, void **va);

/* ------------------------------------------------------------ I/O chains */
typedef zek_Status (*zek_IOChainFn)(zek_PortID portID, void *priv,
                                    zek_PktList *list);
typedef void (*zek_IOChainRemoveFn)(void *ctx, void *priv,
                                    zek_IOChainHandle handle);

#define ZEK_IOCHAIN_INPUT 0
#define ZEK_IOCHAIN_OUTPUT 1

typedef struct zek_IOChainDesc {
   zek_ModuleID module;
   zek_PortID portID;
   const char *label;
   uint32_t direction; /* ZEK_IOCHAIN_INPUT or ZEK_IOCHAIN_OUTPUT */
   uint32_t chainClass;
   zek_Name name;
   zek_IOChainFn fn;
   zek_IOChainRemoveFn removeFn;
   void *priv;
} zek_IOChainDesc;

zek_Status zek_IOChainInsert(const zek_IOChainDesc *desc,
                             zek_IOChainHandle *handle);
zek_Status zek_IOChainSetMinPktMappedLen(zek_IOChainHandle handle,
                                         uint32_t len);
zek_Status zek_IOChainRemove(zek_IOChainHandle handle);

/* ------------------------------------------------------ ports, portsets */
#define ZEK_PORT_FLAG_ENABLED 4
#define ZEK_PORTSET_MODE_READ 2

typedef zek_Status (*zek_PortsetPortFn)(zek_PortsetHandle ps, zek_PortID portID,
                                        void *data);
typedef zek_Status (*zek_PortsetFn)(zek_PortsetHandle ps, void *data);

zek_Status zek_PortsetAcquireByName(const char *name, uint32_t mode,
                                    zek_PortsetHandle *ps);
zek_Status zek_PortsetAcquireByPortID(zek_PortID portID, uint32_t mode,
                                      zek_PortsetHandle *ps);
zek_Status zek_PortsetRelease(zek_PortsetHandle ps);
zek_Status zek_PortsetFindByPortID(zek_PortID portID, zek_PortsetHandle *ps);
const char *zek_PortsetName(zek_PortsetHandle ps);
zek_Status zek_PortsetPostMessage(zek_PortsetHandle ps, zek_PortID portID,
                                  uint64_t flags, const void *msg);
zek_Status zek_PortsetForAllPorts(zek_PortsetHandle ps, zek_PortsetPortFn fn,
                                  void *data);
zek_Status zek_PortsetForAllPortsets(uint32_t mode, zek_PortsetFn fn,
                                     void *data);
zek_Status zek_PortsetLookupFABClassName(zek_PortsetHandle ps, char *name,
                                         size_t size);
zek_Status zek_PortFindByFABPortID(const char *port, const char *fabSwitch,
                                   zek_PortID *portID);
zek_Status zek_PortFlagIsSet(zek_PortID portID, uint32_t flag, int *isSet);
zek_Status zek_VNICHandleGet(zek_PortID portID, zek_VNICHandle *handle);
zek_Status zek_VNICTypeGet(zek_VNICHandle handle, uint32_t *type);

/* ------------------------------------------------ switch clients, events */
typedef zek_Status (*zek_FABPropWriteFn)(zek_PortsetHandle ps, zek_PortID portID,
                                         const char *propName, const void *data,
                                         uint32_t dataLen);
typedef zek_Status (*zek_FABPropCleanupFn)(zek_PortsetHandle ps,
                                           zek_PortID portID);

/* Four slots in this order: write, two unused, cleanup. */
typedef struct zek_FABClientPortOps {
   zek_FABPropWriteFn write;
   void *reserved1;
   void *reserved2;
   zek_FABPropCleanupFn cleanup;
} zek_FABClientPortOps;

zek_Status zek_FABClientPortRegister(zek_FABClientHandle *handle,
                                     const char *portsetName,
                                     const char *propName,
                                     const zek_FABClientPortOps *ops);
zek_Status zek_FABClientPortUnregister(zek_FABClientHandle handle);

/* The Transit carrier's table of state operations, registered per portset.
 * When a VM moves, the switch asks the source port's client for the size of
 * its state (0: nothing to save), hands it a buffer of that size to save
 * into, gives the destination port's client the bytes saved, and tells both
 * sides that the move is over.  `reserved` is the carrier's own word, passed
 * on unread. */
typedef struct zek_FABTransitOps {
   uint32_t (*getSize)(zek_PortID portID);
   zek_Status (*save)(zek_PortID portID, void *buf, uint32_t bufLen,
                      uint32_t *dataLen, uint64_t reserved);
   zek_Status (*restore)(zek_PortID portID, const void *buf, uint32_t bufLen,
                         uint64_t elapsedMS);
   void (*completed)(bool isCrossHost, zek_Status status);
} zek_FABTransitOps;

zek_Status zek_FABTransitClientRuntimeRegister(
   const char *portsetName, const char *clientName, const zek_FABTransitOps *ops,
   zek_FABTransitClientHandle *handle);
zek_Status zek_FABTransitClientRuntimeUnregister(
   zek_FABTransitClientHandle handle);

/* An event callback receives, as its fourth argument, the event data: the
 * portset for portset events, the record given at subscription otherwise. */
typedef zek_Status (*zek_NetEventFn)(void *ctx, const char *eventName, void *cbData,
                               void *eventData);

zek_Status zek_NetEventPortsetEventSubscribe(uint32_t flags, const char *name,
                                             zek_NetEventFn fn, void *cbData,
                                             zek_NetEventHandle *handle);
zek_Status zek_NetEventPortsetEventUnsubscribe(zek_NetEventHandle handle);

/* ------------------------------------------------------ management channel */
/* An operator's tool reaches a module through a named interface: a
 * signature with a table of callbacks, each callback taking fixed-size
 * parameter records.  The platform runs a callback in its management
 * thread, synchronously, with its own copies of the tool's records: the
 * input as the tool wrote it, the output holding what the tool's record
 * held, copied back to the tool after the call.  The records are laid out
 * with natural alignment. */
#define ZEK_MGMT_NAME_LEN 32
#define ZEK_MGMT_MAX_PARAMS 4
#define ZEK_MGMT_LOCATION_KERNEL 1 /* the callback runs in the module */
#define ZEK_MGMT_PARAM_IN 0
#define ZEK_MGMT_PARAM_OUT 1

/* `cookie` and `instanceId` are the platform's own words about the call;
 * `input` and `output` are the parameter records, in the order declared. */
typedef zek_Status (*zek_MgmtCallbackFn)(uint64_t cookie, uint64_t instanceId,
                                         void *input, void *output);

typedef struct zek_MgmtCallbackInfo {
   uint32_t location; /* ZEK_MGMT_LOCATION_* */
   zek_MgmtCallbackFn callback;
   uint8_t synchronous; /* 1: the tool waits for the callback's end */
   uint8_t numParams;
   uint32_t paramSizes[ZEK_MGMT_MAX_PARAMS]; /* bytes of each record */
   uint32_t paramTypes[ZEK_MGMT_MAX_PARAMS]; /* ZEK_MGMT_PARAM_* */
   uint64_t callbackId;
} zek_MgmtCallbackInfo;

typedef struct zek_MgmtSignature {
   uint32_t version; /* major in the top byte, then minor, update, patch */
   char name[ZEK_MGMT_NAME_LEN];   /* the interface's name, NUL-terminated */
   char vendor[ZEK_MGMT_NAME_LEN]; /* NUL-terminated */
   uint32_t numCallbacks;
   const zek_MgmtCallbackInfo *callbacks;
} zek_MgmtSignature;

/* The platform copies the signature; `heap` is the module heap, which the
 * interface's record is allocated from until zek_MgmtDestroy. */
typedef struct zek_MgmtProps {
   zek_ModuleID module;
   zek_HeapID heap;
   const zek_MgmtSignature *signature;
   uint64_t reserved[4];
} zek_MgmtProps;

zek_Status zek_MgmtInit(const zek_MgmtProps *props, zek_MgmtHandle *handle);
zek_Status zek_MgmtDestroy(zek_MgmtHandle handle);

/* ------------------------------------------------- accelerated datapath */
int zek_GlxIsEnabled(zek_PortsetHandle ps);
zek_Status zek_GlxPortCommand(zek_PortID portID, uint32_t cmdClass,
                              uint32_t flags, const void *record, uint32_t len,
                              void *out, uint32_t outLen);

/* --------------------------------------------- priority queue and worlds */
zek_Status zek_PriQCreate(zek_ModuleID module, zek_HeapID heap, uint32_t flags,
                          uint32_t capacity, zek_PriQHandle *queue);
zek_Status zek_PriQDestroy(zek_PriQHandle queue);
zek_Status zek_PriQInsert(zek_PriQHandle queue, int64_t key, void *elem);
zek_Status zek_PriQRekey(zek_PriQHandle queue, void *elem, int64_t key);
zek_Status zek_PriQExtract(zek_PriQHandle queue, void *elem, void **out);
zek_Status zek_PriQFirst(zek_PriQHandle queue, int64_t *key, void **elem);
zek_Status zek_PriQUsedElems(zek_PriQHandle queue, uint32_t *count);

typedef void (*zek_WorldStartFn)(void *data);

typedef struct zek_WorldProps {
   zek_Name name;
   zek_ModuleID module;
   zek_WorldStartFn start;
   void *data;
   uint32_t schedGroup; /* the platform's; the module passes 1 */
   zek_HeapID heap;
} zek_WorldProps;

#define ZEK_TIMEOUT_NONE 0xffffffffu

zek_Status zek_WorldCreate(const zek_WorldProps *props, zek_WorldID *id);
zek_Status zek_WorldWait(void *event, zek_SpinlockHandle lock,
                         uint32_t timeoutMs, const char *reason);
void zek_WorldWakeup(void *event);
zek_Status zek_WorldDestroy(zek_WorldID id);
zek_Status zek_WorldWaitForDeath(zek_WorldID id);
void zek_WorldExit(zek_Status status) __attribute__((noreturn));
void zek_WorldYield(void);

} /* extern "C" */

#endif /* ZEK_H */
