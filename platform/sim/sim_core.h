/*
 * Test API of the simulated host: heap, locks, clock, log, faults, ports,
 * worlds, priority queues and portset messages.
 *
 * Only tests and tools include this; the module sees the host only through
 * platform/include.  Everything here is userspace C++ and may allocate.
 */
#ifndef SIM_CORE_H
#define SIM_CORE_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "zek.h"
#include "oxa.h"

namespace sim {

/* Puts the whole host back into its start state: no heaps, locks, ports,
 * portsets, log lines, faults; virtual clock at uptime 1000.0 s; build 7000.
 * Live objects of the previous run are forgotten, not reported. */
void Reset();

/* Called with a text for every defect the host detects at once (a lock-rank
 * violation with fail-fast on, a panic, a double release).  Tests install a
 * hook that fails the running test; without one the text goes to stderr. */
typedef void (*FailureHook)(const std::string &what);
void SetFailureHook(FailureHook hook);

/* ------------------------------------------------------------ faults */
/* The call NAME (without its zek_/oxa_/FC_/PP_ prefix, e.g. "PktCopy",
 * "PortVoltaliteDataGet") returns `status` for `count` calls after `after`
 * successful ones. */
void FaultCall(const std::string &name, zek_Status status, uint32_t count = 1,
               uint32_t after = 0);
void FaultClear();
/* Used by the host's own calls: true (and *status set) when NAME must fail now. */
bool FaultCheck(const char *name, zek_Status *status);
/* Counting of the calls that can be failed: from CountCalls(true) on, every
 * call by NAME is counted (whether it fails or not) until CountCalls(false).
 * CountCalls(true) starts the counts again from zero.  A fault sweep reads
 * them to know which calls a run makes and how often. */
void CountCalls(bool on);
std::vector<std::pair<std::string, uint64_t>> CallCounts(); /* by name */

/* -------------------------------------------------------------- heap */
struct HeapStats {
   uint64_t inUse;       /* bytes live */
   uint64_t allocations; /* allocations live */
   uint64_t peak;        /* highest inUse seen */
   uint64_t totalAllocs; /* allocations ever made */
};
struct HeapLeak {
   uint32_t size;
   const void *caller;
};
HeapStats GetHeapStats(zek_HeapID heap);
/* The N-th allocation from now (1 = the next) fails, and count-1 after it.
 * Applies to every heap. */
void FaultAlloc(uint32_t n, uint32_t count = 1);
/* Allocations asked of any heap since Reset, failed ones included: the
 * numbering that FaultAlloc counts in. */
uint64_t AllocationsTried();
/* Live allocations of the last heap that was destroyed (its leak report),
 * and of every heap destroyed since Reset. */
std::vector<HeapLeak> LastHeapLeaks();
uint64_t LeaksSinceReset();

/* ------------------------------------------------------------- locks */
/* A violation is recorded when a thread takes a lock of a rank equal to or
 * lower than a lock it already holds in the same domain.  With fail-fast on
 * (the default in debug builds) the violation also fails the current test. */
std::vector<std::string> LockViolations();
void SetLockFailFast(bool on);
enum class LockMode { None, Read, Write, Exclusive };
LockMode LockHeldBy(zek_SpinlockHandle lock); /* by the calling thread */
uint32_t LocksHeldByThread();                  /* by the calling thread */
uint32_t LiveLocks();                          /* created and not destroyed */
struct LockCounts {
   uint64_t reads;      /* read acquisitions */
   uint64_t writes;     /* write acquisitions */
   uint64_t exclusives; /* ordinary spinlock acquisitions */
};
LockCounts GetLockCounts(zek_SpinlockHandle lock);
std::string LockName(zek_SpinlockHandle lock);

/* ------------------------------------------------------------- clock */
/* Virtual: timer cycles at 1e9/s, monotonic counter at 1e6/s, uptime in
 * seconds, all from one virtual time that starts at 1000.0 s. */
void UseVirtualClock(bool on);
/* With worlds alive on the virtual clock, Advance stops at each world
 * deadline inside the step, in time order, wakes that world and waits for the
 * worlds to be idle before going on; it ends with the time moved by exactly
 * `seconds` and the worlds idle again.  SetTime first lets busy worlds go
 * to sleep, then sets the time, wakes the worlds whose deadline has passed
 * and waits for idle. */
void SetTime(double seconds);
void Advance(double seconds);
double Now(); /* seconds of uptime */

/* --------------------------------------------------------------- log */
struct LogLine {
   int32_t level;
   std::string log;  /* handle name, "-" without a handle */
   std::string func;
   uint32_t lineNo;
   std::string text; /* what follows the tag */
   std::string raw;  /* the whole line */
};
std::vector<LogLine> Logs();     /* every line since Reset or the last take */
std::vector<LogLine> TakeLogs(); /* the same, and forgets them */
uint64_t ThrottledCount();       /* messages that throttles held back */
void EchoLogs(bool on);          /* copy every line to standard error */
/* Sets the current level of the handle of that name (the last registered). */
bool SetLogLevel(const std::string &name, int32_t level);
bool LogHandleExists(const std::string &name);

/* ----------------------------------------------------------- module */
void SetBuildNumber(uint32_t build); /* OXA_BUILD_NUMBER */
/* The id zek_ModuleCurrentID answers (outside pushes); 0x1d after Reset.
 * zek_ModuleGetName names only this id. */
void SetModuleID(zek_ModuleID id);
/* The heap the module registered with zek_ModuleSetHeapID (nullptr if none). */
zek_HeapID ModuleHeap();
/* Panics of zek_PanicWithModuleID: recorded, and the test fails. */
std::vector<std::string> Panics();

/* ------------------------------------------------- ports and portsets */
zek_PortsetHandle AddPortset(const std::string &name,
                             const std::string &cls = "vswitch");
void RemovePortset(const std::string &name); /* removes its ports first */
zek_PortsetHandle FindPortset(const std::string &name);
struct PortOptions {
   bool vnicReadable = true;
   uint32_t vnicType = 2;
   bool enabled = true;
   std::string fabSwitch; /* default: the portset's name */
   std::string fabPort;   /* default: the decimal port id */
};
bool AddPort(const std::string &portset, zek_PortID portID,
             const PortOptions &opts = PortOptions());
/* Runs the destructors of the port's data slots, then forgets the port. */
bool RemovePort(zek_PortID portID);
bool PortExists(zek_PortID portID);
void SetPortFlag(zek_PortID portID, uint32_t flag, bool on);
/* Value in a port's data slot (nullptr when empty or no port). */
void *PortData(zek_PortID portID, uint32_t slot);
/* Portset holds taken by zek_PortsetAcquire* and not released. */
uint32_t PortsetsAcquired();

/* A message delivered with zek_PortsetPostMessage: `name` is the message's
 * own name (its first 32 bytes, up to the NUL); `bytes` the 40-byte header
 * and the payload, at most 4096 bytes in all. */
struct PortsetMessage {
   std::string portset;
   zek_PortID portID;
   uint64_t flags;
   std::string name;
   std::vector<uint8_t> bytes;
};
/* Messages posted since Reset or the last take, in posting order. */
std::vector<PortsetMessage> TakePortsetMessages();

/* ------------------------------------------------------------ worlds */
/* Every live world is idle: finished, or asleep in zek_WorldWait with no
 * wake pending for its event, its (virtual) deadline not reached, and not
 * being destroyed. */
bool WorldsIdle();
/* Waits up to `realSeconds` of real time for WorldsIdle; returns it. */
bool WaitIdle(double realSeconds);
/* How many times the world's waits have returned (kept after its death,
 * until Reset). */
uint64_t WorldWakes(zek_WorldID id);
/* How many times the world has called zek_WorldYield (kept after its death,
 * until Reset); calls from threads that are not worlds are not counted. */
uint64_t WorldYields(zek_WorldID id);
/* Worlds created and not yet joined by zek_WorldWaitForDeath.  Worlds left at
 * Reset are destroyed and joined there, and reported as a failure. */
uint32_t LiveWorlds();

/* --------------------------------------------------- priority queues */
/* The queue's elements with their keys, first to be extracted first. */
std::vector<std::pair<int64_t, void *>> PriQContents(zek_PriQHandle queue);
uint32_t LivePriQs(); /* created and not destroyed */
/* At a module's unload: frees the queues its code created and did not
 * destroy, naming each in `what`. */
void DropPriQsOf(const void *base, std::vector<std::string> *what);

} // namespace sim

#endif /* SIM_CORE_H */
