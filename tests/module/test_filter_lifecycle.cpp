/*
 * Filter lifecycle: creation with its defaults and its failures, destruction
 * through the port's data slot, the two I/O chains, clearing of a filter's
 * features, the module-wide clean-up walk and the delete-on-expiry switch.
 */
#include <cstdio>
#include <string>
#include <vector>

#include "config_blobs.h"
#include "ipv4_db_test.h"
#include "sim_switch.h"
#include "test_frames.h"
#include "vigil_config.h"
#include "vigil_lifecycle.h"
#include "vigil_test.h"
#include "vigil_vmi.h"

namespace {

using blobs::Bytes;

constexpr u32 kPort = 0x10;
constexpr u32 kPort2 = 0x11;
constexpr u32 kPort3 = 0x12;
constexpr u32 kNotFound = 0xbad0003;
constexpr u32 kInvalidData = 0xbad0001;
constexpr u32 kNoMemory = 0xbad0014;

class FilterLifecycle : public VigilTest {
protected:
   void TearDown() override {
      sim::FaultClear();
      sim::SetLogLevel("vigil", 0);
      for (u32 port : ports_) {
         if (sim::PortExists(port) && Vigil_GetPortFilter(port) != nullptr) {
            EXPECT_EQ(Vigil_CleanupFilter(nullptr, port, nullptr),
                      ZEK_OK);
         }
      }
      EXPECT_EQ(numFilters, 0u);
      VigilTest::TearDown();
   }

   void AddPort(u32 port, const sim::PortOptions &opts = sim::PortOptions(),
                const char *portset = "vs0") {
      ASSERT_TRUE(sim::AddPort(portset, port, opts));
      ports_.push_back(port);
   }

   VigilFilter *Create(u32 port, const sim::PortOptions &opts = sim::PortOptions(),
                       const char *portset = "vs0") {
      AddPort(port, opts, portset);
      VigilFilter *filter = nullptr;
      EXPECT_EQ(Vigil_CreateFilter(sim::FindPortset(portset), port, &filter), ZEK_OK);
      return filter;
   }

   void Locked(VigilFilter *filter, void (*fn)(VigilFilter *)) {
      Vigil_LockPortAndFilter(filter->portID, true);
      fn(filter);
      Vigil_UnlockPortAndFilter(filter, true);
   }

   /* ARP snooping on, and a binding learnt from the VM's announcement. */
   void LearnArp(VigilFilter *filter) {
      Locked(filter, [](VigilFilter *f) {
         EXPECT_EQ(VigilConfigIpv4Discovery(f, false, true, true), ZEK_OK);
      });
      using namespace frames;
      EXPECT_EQ(Tx(filter->portID, {Make(Arp(kVmMac, kVmMac, "192.0.2.10", "192.0.2.1"))}),
                (std::vector<std::string>{"forward"}));
      EXPECT_EQ(filter->numArpVmis, 1u);
   }

   void ConfigureBpduFilter(VigilFilter *filter) {
      blobs::Security s;
      s.features = VIGIL_FEAT_BPDU_FILTER;
      blobs::Bytes blob = s.Build();
      Vigil_LockPortAndFilter(filter->portID, true);
      EXPECT_EQ(VigilConfigSecurity(filter, (const VigilSecurityConfig *)blob.data()),
                ZEK_OK);
      Vigil_UnlockPortAndFilter(filter, true);
   }

   /* Runs one frame through the port's input (from the VM) or output chains;
    * true if it is still in the list afterwards. */
   bool Passes(u32 port, const frames::Bytes &bytes, bool fromVM) {
      zek_PktList *list = sim::MakeList();
      sim::ListAppend(list, frames::Make(bytes));
      EXPECT_EQ(fromVM ? sim::SendFromVM(port, list) : sim::DeliverToVM(port, list), ZEK_OK);
      bool passed = sim::ListFrames(list).size() == 1;
      sim::DestroyList(list);
      return passed;
   }

   std::vector<u32> ports_;
};

std::string PtrText(const void *p) {
   char buf[32];
   snprintf(buf, sizeof buf, "%p", p);
   return buf;
}

bool HasCode(const sim::LogLine &line, const char *code) {
   return line.raw.find(std::string("errorCode=\"") + code + "\"") != std::string::npos;
}

/* ------------------------------------------------------------- creation */

TEST_F(FilterLifecycle, CreateSetsDefaultsAndAttachesTheFilterToSlotSix) {
   sim::SetLogLevel("vigil", 1);
   u32 locks = sim::LiveLocks();
   VigilFilter *filter = Create(kPort);
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(sim::PortData(kPort, VIGIL_FILTER_SLOT), filter);
   EXPECT_EQ(Vigil_GetPortFilter(kPort), filter);
   EXPECT_EQ(numFilters, 1u);
   EXPECT_EQ(filter->portID, kPort);
   EXPECT_STREQ(filter->portsetName, "vs0");
   EXPECT_EQ(filter->vnicType, 2u);
   EXPECT_EQ(filter->enableCleanedUp, 0u);
   EXPECT_EQ(filter->configWriteHeld, 0u);
   EXPECT_EQ(filter->discoveryFlags, 0u);
   EXPECT_EQ(filter->featuresEnabled, 0u);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   EXPECT_NE(filter->vmiHash, nullptr);
   EXPECT_TRUE(VigilListIsEmpty(&filter->vmiList));
   EXPECT_TRUE(VigilListIsEmpty(&filter->expiredVmiList));
   EXPECT_TRUE(VigilListIsEmpty(&filter->dhcpReqList));
   EXPECT_TRUE(VigilListIsEmpty(&filter->v6VmiList));
   EXPECT_TRUE(VigilListIsEmpty(&filter->v6ExpiredNdList));
   EXPECT_TRUE(VigilListIsEmpty(&filter->dhcpV6ReqList));
   EXPECT_EQ(filter->arpExpiry, 600);
   EXPECT_EQ(filter->portDbArpEntriesSize, 256u);
   EXPECT_EQ(filter->ndExpiry, 600);
   EXPECT_EQ(filter->portDbNdEntriesSize, 15u);
   EXPECT_EQ(filter->portDbDhcpV6EntriesSize, 15u);
   EXPECT_EQ(filter->maxDhcpV6Reqs, 15u);
   EXPECT_EQ(filter->agingPortID, 0u);
   EXPECT_EQ(filter->agingKey, INT64_MAX);
   EXPECT_EQ(filter->bpduBitmap, 0u);
   EXPECT_EQ(sim::LiveLocks(), locks + 2);
   EXPECT_EQ(sim::LockName(filter->configLock), "vigil.config");
   EXPECT_EQ(sim::LockName(filter->rateLimitLock), "vigil.ratelimit");
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 1);
   EXPECT_EQ(lines[0].text, "Filter 0x10 Filter created: " + PtrText(filter) + ", type: 0x2");
}

TEST_F(FilterLifecycle, LongPortsetNameIsCutAt128BytesAndEndsInANul) {
   std::string name(140, 'p');
   sim::AddPortset(name);
   VigilFilter *filter = Create(kPort, sim::PortOptions(), name.c_str());
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(std::string(filter->portsetName), name.substr(0, 128));
}

TEST_F(FilterLifecycle, UnreadableVnicGivesTypeZeroAndRemovalWithoutFlush) {
   sim::PortOptions unreadable;
   unreadable.vnicReadable = false;
   VigilFilter *filter = Create(kPort, unreadable);
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(filter->vnicType, 0u);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   LearnArp(filter);

   Vigil_RemoveIOChainAndFeatures(kPort);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   EXPECT_EQ(filter->discoveryFlags, 0u);
   EXPECT_EQ(filter->numArpVmis, 1u); /* kept until the filter goes */

   /* A failed type read is the same as an unreadable handle. */
   sim::FaultCall("VNICTypeGet", kInvalidData);
   VigilFilter *second = Create(kPort2);
   ASSERT_NE(second, nullptr);
   EXPECT_EQ(second->vnicType, 0u);
}

TEST_F(FilterLifecycle, RemovalFlushesBindingsOnlyOnVnicTypeOne) {
   sim::PortOptions typeOne;
   typeOne.vnicType = 1;
   VigilFilter *filter = Create(kPort, typeOne);
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(filter->vnicType, 1u);
   LearnArp(filter);
   sim::SetLogLevel("vigil", 1);
   Vigil_RemoveIOChainAndFeatures(kPort);
   EXPECT_EQ(filter->numArpVmis, 0u);
   std::vector<std::string> texts = LogTexts();
   ASSERT_GE(texts.size(), 2u);
   EXPECT_EQ(texts[0], "Remove IOChains for port 0x10");
   EXPECT_EQ(texts[1], "Filter 0x10 Clearing discovery and security features with flush : True");

   VigilFilter *other = Create(kPort2);
   LearnArp(other);
   LogTexts();
   Vigil_RemoveIOChainAndFeatures(kPort2);
   EXPECT_EQ(other->numArpVmis, 1u);
   texts = LogTexts();
   ASSERT_GE(texts.size(), 2u);
   EXPECT_EQ(texts[1], "Filter 0x11 Clearing discovery and security features with flush : False");
}

TEST_F(FilterLifecycle, RemovalOnAPortWithoutFilterSaysSo) {
   AddPort(kPort);
   Vigil_RemoveIOChainAndFeatures(kPort);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 1);
   EXPECT_EQ(lines[0].text, "Filter not found");
}

TEST_F(FilterLifecycle, CreateFailuresLeaveNothingBehind) {
   AddPort(kPort);
   u32 locks = sim::LiveLocks();
   u64 live = sim::GetHeapStats(heapID).allocations;
   struct Case {
      const char *what;
      void (*arm)();
      zek_Status status;
      const char *text; /* nullptr: no line of its own */
      const char *code;
   } cases[] = {
      {"filter", [] { sim::FaultAlloc(1); }, kNoMemory,
       "Failed to allocate memory for filter creation on port 16", nullptr},
      {"hash", [] { sim::FaultAlloc(2); }, kNoMemory, nullptr, nullptr},
      {"config lock", [] { sim::FaultCall("SpinlockCreate", kNoMemory); }, kNoMemory,
       "Filter 0x10 Could not allocate configuration lock", nullptr},
      {"rate limit lock", [] { sim::FaultCall("SpinlockCreate", kNoMemory, 1, 1); },
       kNoMemory, "Filter 0x10 Could not allocate rate limit lock", nullptr},
      {"slot", [] { sim::FaultCall("PortVoltaliteDataSet", kInvalidData); }, kInvalidData,
       "VigilAssociateFilter failed", "ULM1"},
   };
   for (const Case &c : cases) {
      c.arm();
      VigilFilter *filter = nullptr;
      EXPECT_EQ(Vigil_CreateFilter(sim::FindPortset("vs0"), kPort, &filter), c.status)
         << c.what;
      EXPECT_EQ(filter, nullptr) << c.what;
      EXPECT_EQ(numFilters, 0u) << c.what;
      EXPECT_EQ(sim::LiveLocks(), locks) << c.what;
      EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live) << c.what;
      EXPECT_EQ(sim::PortData(kPort, VIGIL_FILTER_SLOT), nullptr) << c.what;
      std::vector<sim::LogLine> lines = TakeModuleLogs();
      if (c.text != nullptr) {
         ASSERT_FALSE(lines.empty()) << c.what;
         EXPECT_EQ(lines.back().level, 2) << c.what;
         EXPECT_EQ(lines.back().text, c.text) << c.what;
         if (c.code != nullptr) {
            EXPECT_TRUE(HasCode(lines.back(), c.code)) << lines.back().raw;
         }
      }
      sim::FaultClear();
   }
}

/* ---------------------------------------------------------- destruction */

TEST_F(FilterLifecycle, DestroyWithoutFilterIsNotFoundAtLevelOneOnly) {
   AddPort(kPort);
   EXPECT_EQ(Vigil_DestroyFilter(kPort), kNotFound);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 1);
   EXPECT_EQ(lines[0].text, "Unable to get filter from NCS for destroy");

   sim::SetLogLevel("vigil", 1);
   EXPECT_EQ(Vigil_DestroyFilter(kPort), kNotFound);
   lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].text, "Destroying Filter for port 0x10");
   for (const sim::LogLine &line : lines) {
      EXPECT_EQ(line.level, 1) << line.text;
   }
}

TEST_F(FilterLifecycle, DestroyFreesEverythingAndDeletesBindings) {
   u32 locks = sim::LiveLocks();
   u64 live = sim::GetHeapStats(heapID).allocations;
   VigilFilter *filter = Create(kPort);
   LearnArp(filter);
   Bytes ignore = blobs::IgnoreList({blobs::Entry(VIGIL_WL_VLAN, {}, 0, 9)});
   Vigil_LockPortAndFilter(kPort, true);
   EXPECT_EQ(VigilConfigDiscoveryIL(filter, (const VigilIgnoreListConfig *)ignore.data()),
             ZEK_OK);
   Vigil_UnlockPortAndFilter(filter, true);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   sim::TakePortsetMessages();
   LogTexts();

   EXPECT_EQ(Vigil_DestroyFilter(kPort), ZEK_OK);
   EXPECT_EQ(sim::PortData(kPort, VIGIL_FILTER_SLOT), nullptr);
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveLocks(), locks);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
   std::vector<sim::PortsetMessage> msgs = sim::TakePortsetMessages();
   ASSERT_EQ(msgs.size(), 1u);
   EXPECT_EQ(msgs[0].name, "portdb.entry.removed");
   EXPECT_EQ(msgs[0].portID, kPort);
   EXPECT_TRUE(LogTexts().empty()); /* the tables were empty when freed */
   EXPECT_EQ(Vigil_DestroyFilter(kPort), kNotFound);
}

TEST_F(FilterLifecycle, DestroyRemovesArpBindingsKeptExpiredByDeleteOnExpiryOff) {
   struct RestoreDeleteExpiry {
      ~RestoreDeleteExpiry() { SetDeleteExpiry(1); }
   } restore;
   SetDeleteExpiry(0);
   u32 locks = sim::LiveLocks();
   u64 live = sim::GetHeapStats(heapID).allocations;
   VigilFilter *filter = Create(kPort);
   ASSERT_NE(filter, nullptr);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   Locked(filter, [](VigilFilter *f) {
      EXPECT_EQ(VigilConfigIpv4Discovery(f, false, true, true), ZEK_OK);
   });
   const char *const macA = "02:00:00:00:00:0a";
   const char *const macB = "02:00:00:00:00:0b";
   EXPECT_TRUE(Passes(kPort, frames::Arp(macA, macA, "192.0.2.11", "192.0.2.1"), true));
   sim::Advance(10);
   EXPECT_TRUE(Passes(kPort, frames::Arp(macB, macB, "192.0.2.12", "192.0.2.1"), true));
   /* The first has passed its 600 seconds, the second not yet. */
   sim::Advance(591);
   Locked(filter, [](VigilFilter *f) {
      zek_Uptime now;
      zek_GetUptime(&now);
      VigilPortDbDoAging(f, now.sec);
   });
   ASSERT_EQ(filter->numExpiredVmis, 1u);
   ASSERT_EQ(filter->numArpVmis, 2u);
   ASSERT_EQ(sim::PriQContents(filterAgingQ).size(), 1u);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   sim::TakePortsetMessages();
   LogTexts();

   /* The chains go first, as always; discovery stays on, so nothing but
    * the destruction takes the bindings. */
   ASSERT_EQ(Vigil_RemoveIOChain(filter), ZEK_OK);
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(filter->discoveryFlags, (u32)VIGIL_DISC_ARP);
   EXPECT_EQ(Vigil_DestroyFilter(kPort), ZEK_OK);
   EXPECT_EQ(sim::PortData(kPort, VIGIL_FILTER_SLOT), nullptr);
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveLocks(), locks);
   EXPECT_TRUE(sim::PriQContents(filterAgingQ).empty());
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
   std::vector<frames::Bytes> removed;
   for (const sim::PortsetMessage &msg : sim::TakePortsetMessages()) {
      EXPECT_EQ(msg.portID, kPort);
      removed.push_back(msg.bytes);
   }
   EXPECT_EQ(removed, (std::vector<frames::Bytes>{v4db::ArpRemoved(0, macA, "192.0.2.11"),
                                                  v4db::ArpRemoved(0, macB, "192.0.2.12")}))
      << "the expired binding first, then the running one";
   EXPECT_TRUE(LogTexts().empty()) << "the table was empty when freed";
}

TEST_F(FilterLifecycle, DestroyWhenTheSlotIsAlreadyGoneStillFrees) {
   u32 locks = sim::LiveLocks();
   u64 live = sim::GetHeapStats(heapID).allocations;
   VigilFilter *filter = Create(kPort);
   ASSERT_NE(filter, nullptr);
   sim::FaultCall("PortVoltaliteDataUnset", kNotFound);
   EXPECT_EQ(Vigil_DestroyFilter(kPort), ZEK_OK);
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveLocks(), locks);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
   EXPECT_TRUE(LogTexts().empty());
   /* The host still holds the stale value: take it away by hand. */
   EXPECT_EQ(oxa_PortVoltaliteDataUnset(kPort, VIGIL_FILTER_SLOT), ZEK_OK);
}

TEST_F(FilterLifecycle, FailedSlotUnsetLeavesAWorkingFilterAndReportsSuccess) {
   VigilFilter *filter = Create(kPort);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   ConfigureBpduFilter(filter);
   u64 live = sim::GetHeapStats(heapID).allocations;
   sim::FaultCall("PortVoltaliteDataUnset", kInvalidData);
   EXPECT_EQ(Vigil_DestroyFilter(kPort), ZEK_OK);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].text, "Not able to clear filter from port 16");
   EXPECT_TRUE(HasCode(lines[0], "ULM1")) << lines[0].raw;
   EXPECT_EQ(numFilters, 1u);
   EXPECT_EQ(Vigil_GetPortFilter(kPort), filter);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
   EXPECT_FALSE(Passes(kPort, frames::Bpdu(frames::kVmMac, "01:80:c2:00:00:00"), true));
   EXPECT_EQ(filter->stats.statBpduDrops, 1u);
}

TEST_F(FilterLifecycle, PortRemovalFreesTheFilterWhenTheSlotCannotBeCleared) {
   u32 locks = sim::LiveLocks();
   u64 live = sim::GetHeapStats(heapID).allocations;
   VigilFilter *filter = Create(kPort);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   LearnArp(filter);
   sim::TakeLogs();
   /* The slot goes with the port whatever the unset answers. */
   sim::FaultCall("PortVoltaliteDataUnset", kInvalidData);
   ASSERT_TRUE(sim::RemovePort(kPort));
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].text, "Not able to clear filter from port 16");
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveLocks(), locks);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
}

TEST_F(FilterLifecycle, PortTeardownTakesTheChainsThenTheFilter) {
   VigilFilter *filter = Create(kPort);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   LearnArp(filter);
   ASSERT_TRUE(sim::RemovePort(kPort));
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(numFilters, 0u);
}

/* ----------------------------------------------------------- I/O chains */

TEST_F(FilterLifecycle, InstallPutsTwoChainsOnThePort) {
   VigilFilter *filter = Create(kPort);
   sim::SetLogLevel("vigil", 1);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{"Install IOChains for port 0x10"}));
   std::vector<sim::ChainInfo> chains = sim::PortChains(kPort);
   ASSERT_EQ(chains.size(), 2u);
   EXPECT_EQ(chains[0].handle, filter->ioChainInput);
   EXPECT_EQ(chains[0].direction, 0u);
   EXPECT_EQ(chains[0].label, "vigil-input");
   EXPECT_EQ(chains[0].name, "VIGIL_INPUT.7000");
   EXPECT_EQ(chains[0].chainClass, 1u);
   EXPECT_EQ(chains[0].minMappedLen, 66u);
   EXPECT_EQ(chains[1].handle, filter->ioChainOutput);
   EXPECT_EQ(chains[1].direction, 1u);
   EXPECT_EQ(chains[1].label, "vigil-output");
   EXPECT_EQ(chains[1].name, "VIGIL_OUTPUT.7000");
   EXPECT_EQ(chains[1].chainClass, 1u);
   EXPECT_EQ(chains[1].minMappedLen, 66u);
   EXPECT_EQ(sim::MinMappedLen(kPort), 66u);

   /* The input chain judges what the VM sends, the output chain only what
    * it receives. */
   ConfigureBpduFilter(filter);
   EXPECT_FALSE(Passes(kPort, frames::Bpdu(frames::kVmMac, "01:80:c2:00:00:00"), true));
   EXPECT_TRUE(Passes(kPort, frames::Bpdu(frames::kServerMac, "01:80:c2:00:00:00"), false));
   EXPECT_EQ(filter->stats.statBpduDrops, 1u);
}

TEST_F(FilterLifecycle, SecondInstallDoesNothing) {
   VigilFilter *filter = Create(kPort);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   zek_IOChainHandle in = filter->ioChainInput;
   zek_IOChainHandle out = filter->ioChainOutput;
   EXPECT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   EXPECT_EQ(filter->ioChainInput, in);
   EXPECT_EQ(filter->ioChainOutput, out);
   EXPECT_EQ(sim::LiveChains(), 2u);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(FilterLifecycle, FailedOutputInsertLeavesNeitherChain) {
   VigilFilter *filter = Create(kPort);
   sim::FaultCall("IOChainInsert", kInvalidData, 1, 1);
   EXPECT_EQ(Vigil_InstallIOChain(filter), kInvalidData);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].text, "Failed to insert output IOChain on port 16");
   EXPECT_TRUE(HasCode(lines[0], "ULM1")) << lines[0].raw;

   /* Also when the input chain was there before. */
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   ASSERT_EQ(zek_IOChainRemove(filter->ioChainOutput), ZEK_OK);
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   EXPECT_NE(filter->ioChainInput, nullptr);
   sim::FaultCall("IOChainInsert", kNoMemory);
   EXPECT_EQ(Vigil_InstallIOChain(filter), kNoMemory);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
}

TEST_F(FilterLifecycle, FailedInputInsertInstallsNothing) {
   VigilFilter *filter = Create(kPort);
   sim::FaultCall("IOChainInsert", kNoMemory);
   EXPECT_EQ(Vigil_InstallIOChain(filter), kNoMemory);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].text, "Failed to insert input IOChain on port (16)");
   EXPECT_TRUE(HasCode(lines[0], "ULM20")) << lines[0].raw;
}

TEST_F(FilterLifecycle, FailedMinimumMappingTakesTheChainOff) {
   VigilFilter *filter = Create(kPort);
   sim::FaultCall("IOChainSetMinPktMappedLen", kInvalidData);
   EXPECT_EQ(Vigil_InstallIOChain(filter), kInvalidData);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{"Could not set minimum mapped packet length"}));

   sim::FaultCall("IOChainSetMinPktMappedLen", kInvalidData, 1, 1);
   EXPECT_EQ(Vigil_InstallIOChain(filter), kInvalidData);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{"Could not set minimum mapped packet length"}));
}

TEST_F(FilterLifecycle, FailedRemovalKeepsTheHandleForALaterTry) {
   VigilFilter *filter = Create(kPort);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   zek_IOChainHandle in = filter->ioChainInput;

   sim::FaultCall("IOChainRemove", kInvalidData);
   EXPECT_EQ(Vigil_RemoveIOChain(filter), ZEK_OK); /* the output went */
   EXPECT_EQ(filter->ioChainInput, in);
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].text, "Failed to remove input IOChain on port 16");
   EXPECT_TRUE(HasCode(lines[0], "ULM1")) << lines[0].raw;

   /* Only the input is left: its status is the answer. */
   sim::FaultCall("IOChainRemove", kNoMemory);
   EXPECT_EQ(Vigil_RemoveIOChain(filter), kNoMemory);
   EXPECT_EQ(filter->ioChainInput, in);
   LogTexts();
   EXPECT_EQ(Vigil_RemoveIOChain(filter), ZEK_OK);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);

   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   zek_IOChainHandle out = filter->ioChainOutput;
   sim::FaultCall("IOChainRemove", kInvalidData, 1, 1);
   EXPECT_EQ(Vigil_RemoveIOChain(filter), kInvalidData);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   EXPECT_EQ(filter->ioChainOutput, out);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{"Failed to remove ouput IOChain on port 16"}));
   EXPECT_EQ(Vigil_RemoveIOChain(filter), ZEK_OK);
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   EXPECT_EQ(Vigil_RemoveIOChain(filter), ZEK_OK); /* nothing left to remove */
}

TEST_F(FilterLifecycle, RemovalCallbackClearsTheMatchingHandle) {
   VigilFilter *filter = Create(kPort);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   zek_IOChainHandle in = filter->ioChainInput;
   zek_IOChainHandle out = filter->ioChainOutput;
   VigilRemoveIOChainCB(nullptr, filter, (zek_IOChainHandle)0x1234);
   EXPECT_EQ(filter->ioChainInput, in);
   EXPECT_EQ(filter->ioChainOutput, out);
   VigilRemoveIOChainCB(nullptr, filter, out);
   EXPECT_EQ(filter->ioChainInput, in);
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   VigilRemoveIOChainCB(nullptr, filter, in);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   /* The host still has them: put the handles back for the removal. */
   filter->ioChainInput = in;
   filter->ioChainOutput = out;
   EXPECT_EQ(Vigil_RemoveIOChain(filter), ZEK_OK);
   EXPECT_EQ(sim::LiveChains(), 0u);
}

/* ------------------------------------------------------ feature clearing */

TEST_F(FilterLifecycle, ClearingAnIdleFilterOnlyTakesTheLock) {
   VigilFilter *filter = Create(kPort);
   sim::LockCounts before = sim::GetLockCounts(filter->configLock);
   EXPECT_EQ(VigilClearFeaturesWithOptFlush(filter, true), ZEK_OK);
   sim::LockCounts after = sim::GetLockCounts(filter->configLock);
   EXPECT_EQ(after.writes, before.writes + 1);
   EXPECT_EQ(after.reads, before.reads);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::None);
   EXPECT_EQ(filter->configWriteHeld, 0u);
   EXPECT_TRUE(sim::TakeInvalidations().empty());
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(FilterLifecycle, ClearingTakesTheIgnoreListOnlyWhileDiscoveryIsOn) {
   Bytes ignore = blobs::IgnoreList({blobs::Entry(VIGIL_WL_VLAN, {}, 0, 9)});
   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN;
   s.portList = {blobs::Entry(VIGIL_WL_VLAN, {}, 0, 0)};
   Bytes security = s.Build();
   for (bool discovery : {true, false}) {
      VigilFilter *filter = Create(discovery ? kPort : kPort2);
      Vigil_LockPortAndFilter(filter->portID, true);
      EXPECT_EQ(VigilConfigIpv4Discovery(filter, discovery, false, true), ZEK_OK);
      EXPECT_EQ(VigilConfigDiscoveryIL(filter, (const VigilIgnoreListConfig *)ignore.data()),
                ZEK_OK);
      EXPECT_EQ(VigilConfigSecurity(filter, (const VigilSecurityConfig *)security.data()),
                ZEK_OK);
      Vigil_UnlockPortAndFilter(filter, true);
      sim::TakeInvalidations();

      EXPECT_EQ(VigilClearFeaturesWithOptFlush(filter, false), ZEK_OK);
      EXPECT_EQ(filter->discoveryFlags, 0u);
      EXPECT_EQ(filter->featuresEnabled, 0u);
      EXPECT_EQ(filter->portWhiteList, nullptr);
      EXPECT_EQ(filter->bpduBitmap, 0x7fffffffull);
      EXPECT_EQ(sim::TakeInvalidations().size(), 1u);
      if (discovery) {
         EXPECT_EQ(filter->portIgnoreList, nullptr);
         EXPECT_EQ(filter->portIgnoreListSize, 0u);
      } else {
         EXPECT_NE(filter->portIgnoreList, nullptr);
         EXPECT_EQ(filter->portIgnoreListSize, 1u);
      }
   }
}

/* ------------------------------------------------------- module clean-up */

TEST_F(FilterLifecycle, CleanupWithNoFiltersDoesNotWalkThePortsets) {
   AddPort(kPort);
   sim::FaultCall("PortsetForAllPortsets", kInvalidData);
   EXPECT_EQ(Vigil_CleanupFilters(), ZEK_OK);
   EXPECT_TRUE(LogTexts().empty());
   /* The fault is still armed: nothing walked. */
   EXPECT_EQ(zek_PortsetForAllPortsets(ZEK_PORTSET_MODE_READ,
                                       [](zek_PortsetHandle, void *) -> zek_Status {
                                          return ZEK_OK;
                                       },
                                       nullptr),
             kInvalidData);
}

TEST_F(FilterLifecycle, CleanupTakesEveryFilterDown) {
   sim::AddPortset("vs1");
   u64 live = sim::GetHeapStats(heapID).allocations;
   u32 locks = sim::LiveLocks();
   VigilFilter *a = Create(kPort);
   VigilFilter *b = Create(kPort2);
   VigilFilter *c = Create(kPort3, sim::PortOptions(), "vs1");
   for (VigilFilter *f : {a, b, c}) {
      ASSERT_EQ(Vigil_InstallIOChain(f), ZEK_OK);
      ConfigureBpduFilter(f);
   }
   LearnArp(b);
   AddPort(0x20); /* a port without filter */
   ASSERT_EQ(numFilters, 3u);
   ASSERT_EQ(sim::LiveChains(), 6u);
   LogTexts();

   EXPECT_EQ(Vigil_CleanupFilters(), ZEK_OK);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 1);
   EXPECT_EQ(lines[0].text, "Cleaning up 3 filters");
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(sim::LiveLocks(), locks);
   for (u32 port : {kPort, kPort2, kPort3}) {
      EXPECT_EQ(sim::PortData(port, VIGIL_FILTER_SLOT), nullptr) << port;
   }
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
   EXPECT_EQ(sim::TakeInvalidations().size(), 6u); /* configured, then cleared */
}

TEST_F(FilterLifecycle, CleanupOfAPortWithoutFilterIsSuccess) {
   AddPort(kPort);
   EXPECT_EQ(Vigil_CleanupFilter(sim::FindPortset("vs0"), kPort, nullptr), ZEK_OK);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(FilterLifecycle, FailedDestroyInTheCleanupIsLoggedAndReturned) {
   VigilFilter *filter = Create(kPort);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   /* The clean-up's own look and the removal's find the filter; the
    * destroy's read fails. */
   sim::FaultCall("PortVoltaliteDataGet", kInvalidData, 1, 2);
   EXPECT_EQ(Vigil_CleanupFilter(sim::FindPortset("vs0"), kPort, nullptr), kNotFound);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].text, "Unable to get filter from NCS for destroy");
   EXPECT_EQ(lines[1].level, 2);
   EXPECT_EQ(lines[1].text, "Failed to destroy filter for Port 0x10");
   EXPECT_TRUE(HasCode(lines[1], "ULM3")) << lines[1].raw;
   EXPECT_EQ(numFilters, 1u);
   EXPECT_EQ(filter->ioChainInput, nullptr);
}

TEST_F(FilterLifecycle, FailedPortWalkIsLoggedWithThePortsetName) {
   Create(kPort);
   sim::FaultCall("PortsetForAllPorts", kInvalidData);
   EXPECT_EQ(Vigil_CleanupFiltersPS(sim::FindPortset("vs0"), nullptr), kInvalidData);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].text, "Failed to cleanup filter(s) for Port(s) in the Portset vs0");
   EXPECT_TRUE(HasCode(lines[0], "ULM1")) << lines[0].raw;
   EXPECT_EQ(numFilters, 1u);
}

/* ------------------------------------------------------ delete on expiry */

TEST_F(FilterLifecycle, DeleteOnExpirySwitchStoresASignedByte) {
   EXPECT_EQ(delOnExpiry, 1);
   EXPECT_TRUE(GetDeleteExpiry());
   SetDeleteExpiry(0);
   EXPECT_EQ(delOnExpiry, 0);
   EXPECT_FALSE(GetDeleteExpiry());
   SetDeleteExpiry(-1);
   EXPECT_EQ(delOnExpiry, -1);
   EXPECT_TRUE(GetDeleteExpiry());
   SetDeleteExpiry(1);
   EXPECT_EQ(delOnExpiry, 1);
}

} // namespace

namespace {

/* -------------------------------------- chains that can't be removed */

/* A port whose input chain refuses to go once: the disable leaves the filter
 * retired, gone from the port, its chain still installed. */
class RetiredFilter : public FilterLifecycle {
protected:
   VigilFilter *EnableThenDisableWithAStuckChain(u32 port) {
      VigilFilter *filter = Create(port);
      EXPECT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
      ConfigureBpduFilter(filter);
      TakeModuleLogs();
      sim::FaultCall("IOChainRemove", kInvalidData);
      Vigil_RemoveIOChainAndFeatures(port);
      EXPECT_EQ(Vigil_DestroyFilter(port), ZEK_OK);
      return filter;
   }
};

TEST_F(RetiredFilter, DisableWithAStuckChainKeepsTheFilterAndItsFramesPassUntouched) {
   VigilFilter *filter = EnableThenDisableWithAStuckChain(kPort);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Failed to remove input IOChain on port 16",
                            "Filter 0x10 kept until its I/O chains are removed"}));
   EXPECT_EQ(Vigil_GetPortFilter(kPort), nullptr) << "gone from the port";
   EXPECT_EQ(numFilters, 1u) << "but alive";
   EXPECT_EQ(filter->retired, 1u);
   ASSERT_EQ(sim::PortChains(kPort).size(), 1u);
   EXPECT_EQ(sim::PortChains(kPort)[0].label, "vigil-input");
   EXPECT_EQ(filter->featuresEnabled, 0u);
   EXPECT_EQ(filter->portWhiteList, nullptr);

   /* The stuck chain still calls in; a BPDU passes untouched. */
   EXPECT_TRUE(Passes(kPort, frames::Bpdu(frames::kVmMac, "01:80:c2:00:00:00"), true));
   EXPECT_TRUE(Passes(kPort, frames::Bpdu(frames::kVmMac, "01:80:c2:00:00:00"), false));
   EXPECT_TRUE(LogTexts().empty());

   /* Removing the port takes the chain, and with it the filter. */
   ASSERT_TRUE(sim::RemovePort(kPort));
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 freed: its I/O chains are removed"}));
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveChains(), 0u);
}

TEST_F(RetiredFilter, NextDisableRetriesTheRemovalAndFreesTheFilter) {
   VigilFilter *old = EnableThenDisableWithAStuckChain(kPort);
   /* Enabled again: a new filter with chains of its own beside the old one. */
   VigilFilter *filter = nullptr;
   ASSERT_EQ(Vigil_CreateFilter(sim::FindPortset("vs0"), kPort, &filter), ZEK_OK);
   ASSERT_EQ(Vigil_InstallIOChain(filter), ZEK_OK);
   EXPECT_NE(filter, old);
   ConfigureBpduFilter(filter);
   EXPECT_EQ(sim::PortChains(kPort).size(), 3u);
   EXPECT_FALSE(Passes(kPort, frames::Bpdu(frames::kVmMac, "01:80:c2:00:00:00"), true)) << "the new filter judges";
   EXPECT_EQ(numFilters, 2u);
   TakeModuleLogs();

   Vigil_RemoveIOChainAndFeatures(kPort);
   EXPECT_EQ(Vigil_DestroyFilter(kPort), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 freed: its I/O chains are removed"}));
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveChains(), 0u);
}

TEST_F(RetiredFilter, ModuleStopRetriesTheRemovalAndFreesTheFilter) {
   EnableThenDisableWithAStuckChain(kPort);
   TakeModuleLogs();
   EXPECT_EQ(Vigil_CleanupFilters(), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Cleaning up 1 filters",
                            "Filter 0x10 freed: its I/O chains are removed"}));
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveChains(), 0u);
}

TEST_F(RetiredFilter, ChainThatStillCannotBeRemovedAtModuleStopIsLogged) {
   EnableThenDisableWithAStuckChain(kPort);
   TakeModuleLogs();
   sim::FaultCall("IOChainRemove", kInvalidData);
   EXPECT_EQ(Vigil_CleanupFilters(), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Cleaning up 1 filters",
                            "Failed to remove input IOChain on port 16",
                            "Filter 0x10 still has I/O chains at module stop"}));
   EXPECT_EQ(numFilters, 1u);
   EXPECT_EQ(Vigil_RetryRetiredFilters(), 0u);
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveChains(), 0u);
}

TEST_F(RetiredFilter, FailedInstallWhoseRollbackCannotRemoveTheInputKeepsItsHandle) {
   VigilFilter *filter = Create(kPort);
   sim::FaultCall("IOChainInsert", kNoMemory, 1, 1);
   sim::FaultCall("IOChainRemove", kInvalidData);
   EXPECT_EQ(Vigil_InstallIOChain(filter), kNoMemory);
   EXPECT_NE(filter->ioChainInput, nullptr) << "the chain is still there";
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   EXPECT_EQ(sim::PortChains(kPort).size(), 1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Failed to insert output IOChain on port 16",
                            "Failed to remove input IOChain on port 16"}));

   /* As the enable handler does after a failed install. */
   EXPECT_EQ(VigilClearFeaturesWithOptFlush(filter, false), ZEK_OK);
   EXPECT_EQ(Vigil_DestroyFilter(kPort), ZEK_OK);
   EXPECT_EQ(filter->retired, 1u);
   EXPECT_TRUE(Passes(kPort, frames::Bpdu(frames::kVmMac, "01:80:c2:00:00:00"), true));
   EXPECT_EQ(Vigil_RetryRetiredFilters(), 0u);
   EXPECT_EQ(numFilters, 0u);
   EXPECT_EQ(sim::LiveChains(), 0u);
}

TEST_F(RetiredFilter, DestroyTakesStaticBindingsAndTheWardenHashEntries) {
   VigilFilter *filter = Create(kPort);
   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN;
   s.portList = {blobs::Entry(VIGIL_WL_IPV4, blobs::V4("192.0.2.10"), 32)};
   blobs::Bytes blob = s.Build();
   Vigil_LockPortAndFilter(kPort, true);
   ASSERT_EQ(VigilConfigSecurity(filter, (const VigilSecurityConfig *)blob.data()), ZEK_OK);
   VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
   memcpy(vmi->mac, blobs::Mac(frames::kVmMac).data(), 6);
   vmi->ip = v4db::Ip("192.0.2.10");
   vmi->discMethod = VIGIL_DISC_STATIC;
   ASSERT_EQ(VigilAddVmi(filter, vmi), ZEK_OK);
   Vigil_UnlockPortAndFilter(filter, true);
   ASSERT_EQ(sim::FlowCacheEntries("vs0").size(), 1u);
   ASSERT_EQ(filter->numStaticVmis, 1u);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   sim::TakePortsetMessages();

   /* The port goes without a disable first. */
   ASSERT_TRUE(sim::RemovePort(kPort));
   EXPECT_EQ(numFilters, 0u);
   EXPECT_TRUE(sim::FlowCacheEntries("vs0").empty());
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(sim::TakePortsetMessages().size(), 1u) << "the static binding's removal";
}

} // namespace
