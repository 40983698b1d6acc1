/*
 * vigil.so carried by both carriers of the simulated host: a port's learnt
 * binding moved to another port by Transit, and the module replaced by a
 * new copy of itself through the live upgrade service, the two copies
 * loaded side by side while each port's state goes across.
 */
#include <atomic>
#include <thread>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "sim_core.h"
#include "sim_frames.h"
#include "sim_migration.h"
#include "sim_switch.h"
#include "test_frames.h"
#include "vigil_filter.h"

#ifndef VIGIL_SO_PATH
#error "VIGIL_SO_PATH must name the built vigil.so"
#endif

namespace {

using Bytes = std::vector<uint8_t>;

constexpr u32 kPort = 0x20;
constexpr u32 kPort2 = 0x21;
/* Header, the IPv4 TLV with one 48-byte binding, four empty TLVs. */
constexpr u32 kOneBindingSaveLen = 12 + (12 + 48) + 12 + 8 + 8 + 8;
const std::string kEnabled = "com.norvex.vswitch.port.vigil.enabled";
const std::string kDiscovery = "com.norvex.vswitch.port.vigil.discovery";

std::mutex gFailureMutex;
std::vector<std::string> gFailures;

void RecordFailure(const std::string &what) {
   std::lock_guard<std::mutex> guard(gFailureMutex);
   gFailures.push_back(what);
}

class VigilMigration : public ::testing::Test {
protected:
   void SetUp() override {
      sim::Reset();
      gFailures.clear();
      sim::SetFailureHook(RecordFailure);
      sim::AddPortset("vs0");
      ASSERT_TRUE(sim::AddPort("vs0", kPort));
      ASSERT_TRUE(sim::AddPort("vs0", kPort2));
   }

   void TearDown() override {
      if (module_ != nullptr) {
         if (sim::RtmAnnounced()) sim::RtmWithdraw();
         ExpectClean(sim::UnloadModule(module_));
         module_ = nullptr;
      }
      EXPECT_EQ(sim::LiveChains(), 0u);
      EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
      EXPECT_EQ(sim::LiveTransitClients(), 0u);
      EXPECT_EQ(sim::LiveRtmClients(), 0u);
      EXPECT_TRUE(sim::Subscriptions().empty());
      EXPECT_EQ(sim::LiveWorlds(), 0u);
      EXPECT_EQ(sim::FramesLive(), 0u);
      for (const std::string &what : gFailures) ADD_FAILURE() << "host failure: " << what;
      sim::SetFailureHook(nullptr);
      sim::Reset();
   }

   static void ExpectClean(const sim::UnloadReport &report) {
      EXPECT_EQ(report.leaks, 0u);
      EXPECT_EQ(report.leakBytes, 0u);
      EXPECT_EQ(report.heapsLive, 0u);
      EXPECT_EQ(report.framesLive, 0u);
      EXPECT_EQ(report.callbacksLeft, 0u);
   }

   sim::LoadedModule *Load() {
      int init = -1;
      std::string error;
      sim::LoadedModule *m = sim::LoadModule(VIGIL_SO_PATH, {}, &init, &error);
      EXPECT_NE(m, nullptr) << error;
      EXPECT_EQ(init, 0);
      EXPECT_TRUE(sim::WaitIdle(5.0));
      return m;
   }

   /* Enables the port with ARP and DHCP snooping. */
   static void Configure(u32 port) {
      ASSERT_EQ(sim::WriteProperty(port, kEnabled, Bytes{'t', 'r', 'u', 'e'}, nullptr), ZEK_OK);
      ASSERT_EQ(sim::WriteProperty(port, kDiscovery, Bytes{1, 1}, nullptr), ZEK_OK);
   }

   /* The VM on the port asks for the gateway: its binding is learnt. */
   static void Learn(u32 port) {
      zek_PktList *list = sim::MakeList();
      sim::ListAppend(list, frames::Make(frames::Arp(frames::kVmMac, frames::kVmMac,
                                                    "192.0.2.10", "192.0.2.1")));
      EXPECT_EQ(sim::SendFromVM(port, list), ZEK_OK);
      sim::DestroyList(list);
      ASSERT_TRUE(sim::WaitIdle(5.0));
   }

   static VigilFilter *FilterOf(u32 port) {
      return (VigilFilter *)sim::PortData(port, VIGIL_FILTER_SLOT);
   }

   /* The lines of a function of the module, in order. */
   static std::vector<std::string> LinesOf(const std::string &prefix) {
      std::vector<std::string> out;
      for (const sim::LogLine &line : sim::TakeLogs()) {
         if (line.func.rfind(prefix, 0) == 0) out.push_back(line.text);
      }
      return out;
   }

   sim::LoadedModule *module_ = nullptr;
};

TEST_F(VigilMigration, TransitCarriesALearntBindingToAnotherPort) {
   module_ = Load();
   Configure(kPort);
   Configure(kPort2);
   Learn(kPort);
   ASSERT_EQ(FilterOf(kPort)->numVmis, 1u);
   ASSERT_EQ(FilterOf(kPort2)->numVmis, 0u);
   sim::TakeLogs();

   sim::TransitMoveResult result;
   EXPECT_EQ(sim::TransitMove(kPort, kPort2, &result), ZEK_OK);
   EXPECT_EQ(result.size, kOneBindingSaveLen);
   EXPECT_EQ(result.dataLen, kOneBindingSaveLen);
   EXPECT_EQ(result.restoreStatus, ZEK_OK);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(FilterOf(kPort2)->numVmis, 1u);
   EXPECT_EQ(FilterOf(kPort2)->numArpVmis, 1u);
   EXPECT_EQ(LinesOf("VigilTransit"),
             (std::vector<std::string>{
                "Vigil getting size of TRANSIT data, Port: 0x20",
                "Vigil saving TRANSIT data, Port: 0x20",
                "Vigil Restoring TRANSIT data, Port: 0x21",
                "Vigil TRANSIT completed CB, isCrosshost = True, type = Success",
                "Vigil TRANSIT completed CB, isCrosshost = True, type = Success"}));
}

TEST_F(VigilMigration, LiveUpgradeCarriesEachPortIntoTheNewCopy) {
   sim::LoadedModule *old = Load();
   Configure(kPort);
   Configure(kPort2);
   Learn(kPort);
   sim::TakeLogs();

   sim::LiveUpgradeReport report;
   EXPECT_EQ(sim::LiveUpgrade(old, VIGIL_SO_PATH, &report), ZEK_OK);
   module_ = report.newModule;
   ASSERT_NE(module_, nullptr);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(report.initResult, 0);
   EXPECT_TRUE(report.oldClient);
   EXPECT_TRUE(report.newClient);
   ExpectClean(report.oldUnload);
   ASSERT_EQ(report.ports.size(), 2u);
   EXPECT_EQ(report.ports[0].portID, kPort);
   EXPECT_EQ(report.ports[0].size, kOneBindingSaveLen);
   EXPECT_EQ(report.ports[0].dataLen, kOneBindingSaveLen);
   EXPECT_EQ(report.ports[0].restoreStatus, ZEK_OK);
   EXPECT_EQ(report.ports[1].portID, kPort2);
   EXPECT_EQ(report.ports[1].dataLen, kOneBindingSaveLen - 48);

   /* The new copy has the ports again, configured by the replayed
    * properties, with the binding restored. */
   VigilFilter *filter = FilterOf(kPort);
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(filter->discoveryFlags, 3u);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(filter->numArpVmis, 1u);
   ASSERT_NE(FilterOf(kPort2), nullptr);
   EXPECT_EQ(FilterOf(kPort2)->numVmis, 0u);
   EXPECT_EQ(sim::PortChains(kPort).size(), 2u);
   EXPECT_EQ(sim::TransitClients().size(), 1u);
   EXPECT_TRUE(*(bool *)sim::ModuleSymbol(module_, "isLiveUpgrade"));

   /* The service's withdrawal ends the upgrade in the new copy. */
   sim::RtmWithdraw();
   EXPECT_FALSE(*(bool *)sim::ModuleSymbol(module_, "isLiveUpgrade"));
   EXPECT_EQ(sim::LiveRtmClients(), 0u);
}

/* Frames from the VM keep coming from another thread while the module is
 * replaced: each goes through the old copy's chains, through none while the
 * port changes hands, or through the new copy's; none meets a freed filter,
 * and the binding is carried across. */
TEST_F(VigilMigration, LiveUpgradeWithTrafficFlowingCarriesTheBindingAndLosesNoFrame) {
   sim::LoadedModule *old = Load();
   Configure(kPort);
   Learn(kPort);
   std::atomic<bool> stop{false};
   std::atomic<u64> sent{0};
   std::atomic<u64> failed{0};
   std::thread traffic([&] {
      while (!stop.load()) {
         zek_PktList *list = sim::MakeList();
         sim::ListAppend(list, frames::Make(frames::Arp(frames::kVmMac, frames::kVmMac,
                                                       "192.0.2.10", "192.0.2.1")));
         if (sim::SendFromVM(kPort, list) != ZEK_OK) failed++;
         sim::DestroyList(list);
         sent++;
      }
   });
   while (sent.load() < 50) std::this_thread::yield();
   /* A busy machine may not run the sender during one short upgrade: the
    * module is replaced again until frames came through while it was. */
   bool overlapped = false;
   u32 upgrades = 0;
   sim::LoadedModule *current = old;
   while (!overlapped && upgrades < 50) {
      u64 before = sent.load();
      sim::LiveUpgradeReport report;
      zek_Status status = sim::LiveUpgrade(current, VIGIL_SO_PATH, &report);
      overlapped = sent.load() > before;
      upgrades++;
      EXPECT_EQ(status, ZEK_OK);
      current = report.newModule;
      module_ = current;
      /* The host's count of live frames includes the one the sender held
       * at that moment: the old copy's own heap is what must be empty. */
      EXPECT_EQ(report.oldUnload.leaks, 0u);
      EXPECT_EQ(report.oldUnload.leakBytes, 0u);
      EXPECT_EQ(report.oldUnload.heapsLive, 0u);
      EXPECT_EQ(report.oldUnload.callbacksLeft, 0u);
      if (status != ZEK_OK || current == nullptr) break;
   }
   u64 after = sent.load();
   while (sent.load() < after + 50) std::this_thread::yield();
   stop = true;
   traffic.join();
   ASSERT_NE(module_, nullptr);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_TRUE(overlapped) << "frames flowed while the module was replaced, in "
                           << upgrades << " upgrades";
   EXPECT_EQ(failed.load(), 0u);
   VigilFilter *filter = FilterOf(kPort);
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(sim::PortChains(kPort).size(), 2u);
   sim::RtmWithdraw();
}

} // namespace
