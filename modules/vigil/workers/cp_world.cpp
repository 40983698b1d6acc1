/*
 * The control-plane world: delivers portset messages about binding changes.
 *
 * A change happens on the data path under the filter's write lock, where a
 * portset can't be looked up by name; so the change only leaves a task in a
 * bounded queue, and this world takes the portset and posts the message.
 * Messages are best effort: a lost one never rolls the database back.
 */
#include <cstring>

#include "vigil_atomic.h"
#include "vigil_log.h"
#include "vigil_locks.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_workers.h"

#define VIGIL_PORTSET_MSG_PAYLOAD_LEN 40u
#define VIGIL_PORTSET_MSG_FLAGS 0x8000000000000ull
#define VIGIL_CP_YIELD_MASK 0x1fu

VigilTaskQueue taskQueue = {nullptr, nullptr, 0};
zek_SpinlockHandle taskQLock = VIGIL_NO_LOCK;
u32 cpWorldID = 0;
u8 exitCPWorld = 0;

static void *VigilCPWorldEvent(void) {
   return &cpWorldID;
}

/* The message head both families share: name, length, op, one entry. */
static void VigilInitPortDbMsg(VigilPortsetMsg *msg, u32 op) {
   memset(msg, 0, sizeof *msg);
   /* Cleared first: the name field goes out whole, so nothing behind the
    * terminating NUL may come from the stack. */
   zek_Name name;
   memset(&name, 0, sizeof name);
   zek_NameInitialize(&name, op == VIGIL_PORTDB_MSG_ADDED ? "portdb.entry.added"
                                                          : "portdb.entry.removed");
   memcpy(msg->name, name.string, sizeof msg->name - 1);
   msg->payloadLen = VIGIL_PORTSET_MSG_PAYLOAD_LEN;
   msg->op = op;
   msg->numEntries = 1;
}

static void VigilSendPortDbMsg(VigilFilter *filter, const VigilPortsetMsg *msg) {
   zek_Status status = VigilPostPortsetMessage(filter->portsetName, filter->portID,
                                               msg, sizeof *msg);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Filter %#x Could not post message:%s:%s", filter->portID,
                      msg->name, zek_StatusToString(status));
   }
}

void VigilPostPortDbMsg(VigilFilter *filter, u32 op, VigilVmi *vmi) {
   VigilPortsetMsg msg;
   VigilInitPortDbMsg(&msg, op);
   VigilFillPortDbEntry(&msg.entry, vmi);
   msg.entry.gratuitous = vmi->gratuitous;
   VigilSendPortDbMsg(filter, &msg);
}

void VigilPostPortDbV6Msg(VigilFilter *filter, u32 op, const VigilV6Vmi *vmi) {
   VigilPortsetMsg msg;
   VigilInitPortDbMsg(&msg, op);
   VigilFillPortDbEntryV6(&msg.entry, vmi);
   /* The message marks a leased address bound; the API's entries don't. */
   msg.entry.bound = vmi->discMethod == VIGIL_DISC_DHCPV6;
   VigilSendPortDbMsg(filter, &msg);
}

zek_Status VigilPostPortsetMessage(const char *portsetName, u32 portID,
                                   const void *payload, u32 length) {
   VigilCpTask *task = (VigilCpTask *)Vigil_HeapAlloc(sizeof(VigilCpTask) + length);
   if (task == nullptr) {
      VIGIL_LOG_INFO("Unable to allocate memory, port: %#x", portID);
      return VIGIL_STATUS_NO_MEMORY;
   }
   task->type = VIGIL_CP_TASK_PORTSET_MSG;
   VigilCopyPortsetName(task->portsetName, portsetName);
   task->portID = portID;
   memcpy(task->msg, payload, length);
   zek_Status status = VigilCPWorldPostTask(task);
   if (status != ZEK_OK) {
      VIGIL_LOG_INFO("Unable to post portDB portset message to CPWorld: %s",
                     zek_StatusToString(status));
      Vigil_HeapFree(task);
   }
   return status;
}

zek_Status VigilCPWorldPostTask(VigilCpTask *task) {
   if (task == nullptr) {
      return VIGIL_STATUS_BAD_PARAM;
   }
   if (VigilAtomicLoad(&cpWorldID) == 0) {
      return VIGIL_STATUS_NOT_INITIALIZED;
   }
   if (task->type != VIGIL_CP_TASK_PORTSET_MSG) {
      return VIGIL_STATUS_NOT_SUPPORTED;
   }
   zek_SpinlockLock(taskQLock);
   if (taskQueue.count >= VIGIL_TASK_Q_MAX) {
      zek_SpinlockUnlock(taskQLock);
      return VIGIL_STATUS_LIMIT;
   }
   task->next = nullptr;
   if (taskQueue.tail != nullptr) {
      taskQueue.tail->next = task;
   } else {
      taskQueue.head = task;
   }
   taskQueue.tail = task;
   taskQueue.count++;
   zek_SpinlockUnlock(taskQLock);
   zek_WorldWakeup(VigilCPWorldEvent());
   return ZEK_OK;
}

/* Takes the first task off the queue; null when it is empty. */
static VigilCpTask *VigilTaskQueuePop(void) {
   VigilCpTask *task = taskQueue.head;
   if (task != nullptr) {
      taskQueue.head = task->next;
      if (taskQueue.head == nullptr) {
         taskQueue.tail = nullptr;
      }
      taskQueue.count--;
   }
   return task;
}

void VigilCPWorldFlushTaskQ(void) {
   int count = 0;
   zek_SpinlockLock(taskQLock);
   for (VigilCpTask *task = VigilTaskQueuePop(); task != nullptr;
        task = VigilTaskQueuePop()) {
      Vigil_HeapFree(task);
      count++;
   }
   zek_SpinlockUnlock(taskQLock);
   if (count > 0) {
      VIGIL_LOG_INFO("cpWorld taskQ flushed, cnt: %d", count);
   }
}

static void VigilDeliverTask(VigilCpTask *task) {
   zek_PortsetHandle portset;
   zek_Status status = zek_PortsetAcquireByName(task->portsetName, 1, &portset);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Unable to acquire portset from name: %.128s, status: %s",
                      task->portsetName, zek_StatusToString(status));
      return;
   }
   zek_PortsetPostMessage(portset, task->portID, VIGIL_PORTSET_MSG_FLAGS, task->msg);
   zek_PortsetRelease(portset);
}

void VigilCPWorld(void *data) {
   (void)data;
   u32 handled = 0;
   VIGIL_LOG_INFO("CPWorld is Started");
   for (;;) {
      u8 exitFlag = VigilAtomicLoad(&exitCPWorld);
      if (exitFlag) {
         VIGIL_LOG_INFO("Exiting CPWorld - exit: %#x", exitFlag);
         VigilCPWorldFlushTaskQ();
         VigilAtomicStore(&cpWorldID, 0u);
         zek_WorldExit(ZEK_OK);
      }
      zek_SpinlockLock(taskQLock);
      VIGIL_LOG_VERBOSE(2, "taskQ has %d tasks", (int)taskQueue.count);
      VigilCpTask *task = VigilTaskQueuePop();
      if (task == nullptr) {
         handled = 0;
         zek_SpinlockUnlock(taskQLock);
         VIGIL_LOG_INFO("Task queue empty");
         zek_WorldWait(VigilCPWorldEvent(), nullptr, ZEK_TIMEOUT_NONE, "Wait");
         continue;
      }
      zek_SpinlockUnlock(taskQLock);
      if (task->type == VIGIL_CP_TASK_PORTSET_MSG) {
         VigilDeliverTask(task);
      }
      handled++;
      Vigil_HeapFree(task);
      if ((handled & VIGIL_CP_YIELD_MASK) == 0) {
         zek_WorldYield();
         handled = 0;
      }
   }
}

zek_Status VigilCPWorldInit(void) {
   taskQueue.head = nullptr;
   taskQueue.tail = nullptr;
   taskQueue.count = 0;
   zek_Status status = VigilCreateLock("vigil.cpWorldQ", ZEK_SPINLOCK_ORDINARY,
                                       VIGIL_RANK_CP_WORLD_Q, &taskQLock);
   if (status != ZEK_OK) {
      taskQLock = VIGIL_NO_LOCK;
      VIGIL_LOG_ERROR("Could not create cpWorld TaskQ lock, status: %s",
                      zek_StatusToString(status));
      return status;
   }
   VigilAtomicStore(&exitCPWorld, (u8)0);
   zek_WorldID id = 0;
   status = VigilCreateWorld("VigilCPWorld", VigilCPWorld, &id);
   VigilAtomicStore(&cpWorldID, status == ZEK_OK ? id : 0u);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Failed to create cpWorld: %s", zek_StatusToString(status));
      return status;
   }
   return ZEK_OK;
}

/* The id is read before the exit flag is raised: the world clears it as it
 * leaves, and a world that is awake sees the flag at once, so an id read
 * after the flag could already be 0 and the world's end would never be
 * waited for. */
zek_Status VigilCPWorldDestroy(void) {
   zek_WorldID id = VigilAtomicLoad(&cpWorldID);
   VigilAtomicStore(&exitCPWorld, (u8)1);
   zek_Status status = VigilStopWorld(id);
   if (taskQLock != VIGIL_NO_LOCK) {
      VigilCPWorldFlushTaskQ();
      zek_SpinlockDestroy(taskQLock);
      taskQLock = VIGIL_NO_LOCK;
   }
   return status;
}
