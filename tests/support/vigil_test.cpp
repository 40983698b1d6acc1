#include "vigil_atomic.h"
#include "vigil_test.h"

#include <algorithm>

#include "vigil_config.h"
#include "vigil_lifecycle.h"
#include "vigil_pipeline.h"
#include "vigil_switch.h"
#include "vigil_workers.h"

void VigilTestFailureHook(const std::string &what) {
   ADD_FAILURE() << "simulated host: " << what;
}

/* Whether the pipelines call the module's own functions. */
static bool PipelineCalleesAreTheModules() {
   const VigilPipelineCallees &now = vigilPipelineCallees;
   const VigilPipelineCallees &own = vigilPipelineModuleCallees;
   return now.warden == own.warden && now.dhcpParse == own.dhcpParse &&
          now.dhcpSnoopTx == own.dhcpSnoopTx && now.dhcpSnoopRx == own.dhcpSnoopRx &&
          now.arpSnoop == own.arpSnoop && now.processTxIpv6 == own.processTxIpv6 &&
          now.processRxIpv6 == own.processRxIpv6;
}

/* Whether switch client registration calls the module's own Transit
 * functions. */
static bool TransitCalleesAreTheModules() {
   return vigilTransitCallees.transitRegister == vigilTransitModuleCallees.transitRegister &&
          vigilTransitCallees.transitUnregister == vigilTransitModuleCallees.transitUnregister;
}

static zek_Status DestroyTestFilter(zek_PortID portID);

void VigilTest::SetUp() {
   sim::Reset();
   sim::SetFailureHook(VigilTestFailureHook);
   moduleID = 0x51;
   sim::SetModuleID(moduleID);

   CreateHeapLogAndLockDomain();
   zek_LogProps logProps = {};
   zek_NameInitialize(&logProps.name, "vigil.throttle");
   logProps.module = moduleID;
   logProps.heap = heapID;
   ASSERT_EQ(zek_LogRegister(&logProps, &vigilThrottledLogHandle), ZEK_OK);
   ppPktAttrHandle = VIGIL_PP_PKT_ATTR_ID;
   ASSERT_EQ(Vigil_FilterLifecycleInit(), ZEK_OK);
   ASSERT_EQ(VigilAgingWorldInit(), ZEK_OK);
   if (!RunAgingWorld()) {
      /* Keep the queue, stop the world: tests then decide when aging runs. */
      VigilAtomicStore(&exitAgingWorld, (u8)(1));
      ASSERT_EQ(VigilStopWorld(VigilAtomicLoad(&agingWorldID)), ZEK_OK);
   }
   ASSERT_EQ(VigilCPWorldInit(), ZEK_OK);
   sim::AddPortset("vs0");
   ASSERT_TRUE(sim::WaitIdle(5.0));
   sim::TakeLogs();
}

zek_Status VigilTest::ConfigureSecurity(VigilFilter *filter, const std::vector<u8> &blob) {
   Vigil_LockPortAndFilter(filter->portID, true);
   zek_Status status = VigilConfigSecurity(filter, (const VigilSecurityConfig *)blob.data());
   Vigil_UnlockPortAndFilter(filter, true);
   return status;
}

void VigilTest::TearDown() {
   for (u32 portID : std::vector<u32>(filterPorts_)) {
      RemoveFilter(portID);
   }
   EXPECT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(VigilCPWorldDestroy(), ZEK_OK);
   EXPECT_EQ(VigilAgingWorldDestroy(), ZEK_OK);
   EXPECT_EQ(sim::LiveWorlds(), 0u);
   EXPECT_EQ(sim::LocksHeldByThread(), 0u) << "a lock is still held";
   EXPECT_EQ(sim::FramesLive(), 0u) << "a frame was not released";
   EXPECT_EQ(sim::PortsetsAcquired(), 0u) << "a portset is still acquired";
   EXPECT_TRUE(sim::LockViolations().empty());
   EXPECT_EQ(Vigil_RetryRetiredFilters(), 0u) << "a retired filter was left";
   EXPECT_TRUE(PipelineCalleesAreTheModules())
      << "the pipelines' callees were replaced and not put back";
   EXPECT_TRUE(TransitCalleesAreTheModules())
      << "the Transit callees were replaced and not put back";
   Vigil_FilterLifecycleCleanup();
   zek_LockDomainDestroy(lockDomain);
   lockDomain = VIGIL_INVALID_LOCK_DOMAIN;
   zek_LogUnregister(vigilThrottledLogHandle);
   zek_LogUnregister(logHandle);
   vigilThrottledLogHandle = nullptr;
   logHandle = nullptr;
   zek_HeapDestroy(heapID);
   heapID = nullptr;
   EXPECT_EQ(sim::LeaksSinceReset(), 0u) << "the module heap was not empty";
   sim::SetFailureHook(nullptr);
}

void VigilTest::RecreateHeapLogAndLockDomain() {
   ASSERT_EQ(heapID, nullptr);
   ASSERT_EQ(logHandle, nullptr);
   ASSERT_EQ(lockDomain, VIGIL_INVALID_LOCK_DOMAIN);
   CreateHeapLogAndLockDomain();
}

/* The module heap, the plain log "vigil" and the lock domain, as the
 * module's start makes them. */
void VigilTest::CreateHeapLogAndLockDomain() {
   zek_HeapProps heapProps = {};
   zek_NameInitialize(&heapProps.name, "vigil");
   heapProps.module = moduleID;
   heapProps.minSize = 4096;
   heapProps.maxSize = 64 << 20;
   ASSERT_EQ(zek_HeapCreate(&heapProps, &heapID), ZEK_OK);
   zek_LogProps logProps = {};
   zek_NameInitialize(&logProps.name, "vigil");
   logProps.module = moduleID;
   logProps.heap = heapID;
   ASSERT_EQ(zek_LogRegister(&logProps, &logHandle), ZEK_OK);
   zek_Name domainName;
   zek_NameInitialize(&domainName, "vigil");
   ASSERT_EQ(zek_LockDomainCreate(moduleID, heapID, &domainName, &lockDomain), ZEK_OK);
}

zek_SpinlockHandle VigilTestCreateLock(const char *name, u32 kind, u32 rank) {
   zek_SpinlockProps props = {};
   props.module = moduleID;
   props.heap = heapID;
   zek_NameInitialize(&props.name, name);
   props.kind = kind;
   props.domain = lockDomain;
   props.rank = rank;
   zek_SpinlockHandle lock = nullptr;
   EXPECT_EQ(zek_SpinlockCreate(&props, &lock), ZEK_OK);
   return lock;
}

VigilFilter *VigilTest::AddFilter(u32 portID) {
   if (!sim::PortExists(portID)) {
      EXPECT_TRUE(sim::AddPort("vs0", portID));
   }
   VigilFilter *filter = (VigilFilter *)Vigil_HeapAlloc(sizeof(VigilFilter));
   filter->portID = portID;
   memcpy(filter->portsetName, "vs0", 4);
   VigilFilterSetDefaults(filter);
   filter->configLock = VigilTestCreateLock("vigil.config", ZEK_SPINLOCK_RW, 1);
   filter->rateLimitLock = VigilTestCreateLock("vigil.ratelimit", ZEK_SPINLOCK_ORDINARY, 3);
   EXPECT_EQ(oxa_PortVoltaliteDataSet(portID, VIGIL_FILTER_SLOT, filter,
                                      DestroyTestFilter),
             ZEK_OK);
   filterPorts_.push_back(portID);
   return filter;
}

static zek_Status DestroyTestFilter(zek_PortID portID) {
   VigilFilter *filter = Vigil_GetPortFilter(portID);
   if (filter == nullptr) {
      return VIGIL_STATUS_NOT_FOUND;
   }
   oxa_PortVoltaliteDataUnset(portID, VIGIL_FILTER_SLOT);
   VigilRemoveFilterAging(filter);
   zek_SpinlockDestroy(filter->configLock);
   zek_SpinlockDestroy(filter->rateLimitLock);
   Vigil_HeapFree(filter);
   return ZEK_OK;
}

void VigilTest::RemoveFilter(u32 portID) {
   DestroyTestFilter(portID);
   filterPorts_.erase(std::remove(filterPorts_.begin(), filterPorts_.end(), portID),
                      filterPorts_.end());
}

std::vector<std::string> VigilTest::RunBatch(u32 portID,
                                             const std::vector<zek_Pkt *> &frames,
                                             bool toSwitch) {
   zek_PktList *list = sim::MakeList();
   for (zek_Pkt *pkt : frames) {
      sim::ListAppend(list, pkt);
   }
   zek_Status status = toSwitch ? Vigil_ProcessPacketsToSwitch(portID, nullptr, list)
                                : Vigil_ProcessPacketsFromSwitch(portID, nullptr, list);
   EXPECT_EQ(status, ZEK_OK);
   lastSurvivors = sim::ListFrames(list);
   std::vector<std::string> verdicts;
   /* Survivors are matched by identity; a traced frame replaced by its
    * mapped copy therefore reads as dropped, and tests of tracing look at
    * lastSurvivors instead. */
   size_t next = 0;
   for (zek_Pkt *pkt : frames) {
      bool kept = next < lastSurvivors.size() && lastSurvivors[next] == pkt;
      verdicts.push_back(kept ? "forward" : "drop");
      if (kept) {
         next++;
      }
   }
   sim::DestroyList(list);
   return verdicts;
}

std::vector<std::string> VigilTest::Tx(u32 portID, const std::vector<zek_Pkt *> &frames) {
   return RunBatch(portID, frames, true);
}

std::vector<std::string> VigilTest::Rx(u32 portID, const std::vector<zek_Pkt *> &frames) {
   return RunBatch(portID, frames, false);
}

std::vector<std::string> VigilTest::LogTexts() {
   std::vector<std::string> texts;
   for (const sim::LogLine &line : TakeModuleLogs()) {
      texts.push_back(line.text);
   }
   return texts;
}

/* The worlds log their own comings and goings ("Task queue empty" each time
 * the control-plane world runs dry); tests look at everything else. */
std::vector<sim::LogLine> VigilTest::TakeModuleLogs() {
   sim::WaitIdle(5.0);
   std::vector<sim::LogLine> lines;
   for (sim::LogLine &line : sim::TakeLogs()) {
      if (line.func != "VigilCPWorld" && line.func != "VigilAgingWorld") {
         lines.push_back(std::move(line));
      }
   }
   return lines;
}
