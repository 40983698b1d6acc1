/*
 * Property writes racing with traffic on the same port: vigil.so loaded into
 * the simulated host, one port enabled, then for a bounded time one thread
 * rewrites the port's discovery, security and ignore-list properties while
 * another sends and delivers batches of frames through the port's chains.
 * Afterwards: no lock-rank violation, no host failure, every batch came back,
 * the filter's tables are consistent, and the unload leaves nothing.
 *
 * Built as its own executable so that the ThreadSanitizer build (VIGIL_TSAN)
 * can run it alone.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "config_blobs.h"
#include "sim_core.h"
#include "sim_frames.h"
#include "sim_switch.h"
#include "test_frames.h"
#include "vigil_filter.h"
#include "vigil_vmi.h"

#ifndef VIGIL_SO_PATH
#error "VIGIL_SO_PATH must name the built vigil.so"
#endif

namespace {

using blobs::Bytes;
using blobs::Entry;

constexpr u32 kPort = 0x20;

const std::string kEnabled = "com.norvex.vswitch.port.vigil.enabled";
const std::string kDiscovery = "com.norvex.vswitch.port.vigil.discovery";
const std::string kIgnore = "com.norvex.vswitch.port.vigil.discovery.ignorelist";
const std::string kSecurity = "com.norvex.vswitch.port.vigil.security";

const char *const kGateway = "02:00:00:00:00:01";

/* Bounds of the race: whichever comes first ends each thread's loop. */
constexpr auto kRunTime = std::chrono::milliseconds(1500);
constexpr int kMaxWriteRounds = 20000;
constexpr int kMaxBatches = 20000;

std::mutex gFailureMutex;
std::vector<std::string> gFailures;

void RecordFailure(const std::string &what) {
   std::lock_guard<std::mutex> guard(gFailureMutex);
   gFailures.push_back(what);
}

std::vector<std::string> TakeFailures() {
   std::lock_guard<std::mutex> guard(gFailureMutex);
   std::vector<std::string> out;
   out.swap(gFailures);
   return out;
}

Bytes Text(const std::string &text) {
   return Bytes(text.begin(), text.end());
}

/* A property write; a write the module does not handle, or refuses, is
 * counted as an error. */
bool WriteOk(const std::string &prop, const Bytes &data) {
   bool handled = false;
   zek_Status status = sim::WriteProperty(kPort, prop, data, &handled);
   return handled && status == ZEK_OK;
}

/* Runs one batch through the port's chains and frees it; false when the
 * host's call did not answer ZEK_OK. */
bool RunBatch(const std::vector<Bytes> &frames, bool fromVM) {
   zek_PktList *list = sim::MakeList();
   for (const Bytes &bytes : frames) {
      sim::ListAppend(list, frames::Make(bytes));
   }
   uint32_t status = fromVM ? sim::SendFromVM(kPort, list) : sim::DeliverToVM(kPort, list);
   sim::DestroyList(list);
   return status == ZEK_OK;
}

class PropertyRace : public ::testing::Test {
protected:
   void SetUp() override {
      sim::Reset();
      TakeFailures();
      sim::SetFailureHook(RecordFailure);
      sim::AddPortset("vs0");
      sim::TakeLogs();
   }

   void TearDown() override {
      if (module_ != nullptr) {
         sim::UnloadModule(module_);
         module_ = nullptr;
      }
      for (const std::string &what : TakeFailures()) {
         ADD_FAILURE() << "host failure: " << what;
      }
      sim::SetFailureHook(nullptr);
      sim::Reset();
   }

   sim::LoadedModule *module_ = nullptr;
};

TEST_F(PropertyRace, PropertyWritesRaceWithTrafficOnTheSamePort) {
   int init = -1;
   std::string error;
   module_ = sim::LoadModule(VIGIL_SO_PATH, {}, &init, &error);
   ASSERT_NE(module_, nullptr) << error;
   ASSERT_EQ(init, 0);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   ASSERT_TRUE(sim::AddPort("vs0", kPort));
   bool handled = false;
   ASSERT_EQ(sim::WriteProperty(kPort, kEnabled, Text("true"), &handled), ZEK_OK);
   ASSERT_TRUE(handled);
   VigilFilter *filter = (VigilFilter *)sim::PortData(kPort, VIGIL_FILTER_SLOT);
   ASSERT_NE(filter, nullptr);

   /* The configurations thread A alternates between. */
   const VigilWhiteListEntry vm = Entry(VIGIL_WL_IPV4 | VIGIL_WL_MAC, blobs::V4("192.0.2.10"),
                                        32, 0, blobs::Mac(frames::kVmMac));
   blobs::Security guarded;
   guarded.features = VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_DHCP_SERVER_BLOCK |
                      VIGIL_FEAT_BPDU_FILTER | VIGIL_FEAT_TX_BCAST_LIMIT |
                      VIGIL_FEAT_RX_BCAST_LIMIT;
   guarded.txBcast = 3;
   guarded.rxBcast = 5;
   guarded.portList = {vm};
   blobs::Security open;
   open.features = VIGIL_FEAT_DHCP_SERVER_BLOCK;
   const Bytes securityBlobs[2] = {guarded.Build(), open.Build()};
   const Bytes discoveryBlobs[3] = {Bytes{1, 1}, Bytes{1, 0}, Bytes{0, 1}};
   const Bytes ignoreBlobs[2] = {
      blobs::IgnoreList({Entry(VIGIL_WL_IPV4, blobs::V4("192.0.2.77"), 32)}),
      blobs::IgnoreList({}),
   };

   /* The batches thread B sends (from the VM) and delivers (to it). */
   using namespace frames;
   const std::vector<Bytes> fromVM = {
      UdpV4(kVmMac, kGateway, "192.0.2.10", "192.0.2.1", 5000, 53),     /* allowed */
      UdpV4(kVmMac, kGateway, "203.0.113.9", "192.0.2.1", 5000, 53),    /* spoofed */
      UdpV4(kVmMac, kBroadcast, "192.0.2.10", "255.255.255.255", 68, 9), /* broadcast */
      Arp(kVmMac, kVmMac, "192.0.2.10", "192.0.2.1"),
      Arp(kVmMac, kVmMac, "192.0.2.77", "192.0.2.1"),
      DhcpClient(kVmMac, kVmMac, "0.0.0.0", 3), /* REQUEST */
   };
   const std::vector<Bytes> toVM = {
      UdpV4(kGateway, kVmMac, "192.0.2.1", "192.0.2.10", 53, 5000),
      UdpV4(kGateway, kBroadcast, "192.0.2.1", "255.255.255.255", 9, 9),
      Arp(kGateway, kGateway, "192.0.2.1", "192.0.2.10"),
      DhcpServer(kServerMac, kVmMac, 5), /* ACK */
   };

   std::atomic<bool> stop{false};
   std::atomic<int> writeRounds{0}, writeErrors{0};
   std::atomic<int> batchesSent{0}, batchesReturned{0}, batchErrors{0};
   const auto deadline = std::chrono::steady_clock::now() + kRunTime;
   auto timeUp = [&] { return stop.load() || std::chrono::steady_clock::now() >= deadline; };

   std::thread writer([&] {
      for (int i = 0; i < kMaxWriteRounds && !timeUp(); i++) {
         bool ok = WriteOk(kDiscovery, discoveryBlobs[i % 3]);
         ok = WriteOk(kSecurity, securityBlobs[i % 2]) && ok;
         ok = WriteOk(kIgnore, ignoreBlobs[(i / 2) % 2]) && ok;
         if (!ok) writeErrors++;
         writeRounds++;
      }
   });
   std::thread traffic([&] {
      for (int i = 0; i < kMaxBatches && !timeUp(); i++) {
         batchesSent++;
         bool ok = (i % 3 == 2) ? RunBatch(toVM, false) : RunBatch(fromVM, true);
         if (!ok) batchErrors++;
         batchesReturned++;
      }
   });
   writer.join();
   traffic.join();
   stop = true;

   EXPECT_GT(writeRounds.load(), 0);
   EXPECT_GT(batchesSent.load(), 0);
   EXPECT_EQ(writeErrors.load(), 0);
   EXPECT_EQ(batchErrors.load(), 0);
   EXPECT_EQ(batchesReturned.load(), batchesSent.load());
   EXPECT_TRUE(sim::LockViolations().empty());
   for (const std::string &v : sim::LockViolations()) {
      ADD_FAILURE() << "lock rank: " << v;
   }
   EXPECT_TRUE(sim::Panics().empty());
   EXPECT_TRUE(TakeFailures().empty());

   /* The filter still judges as its last configuration says: a spoofed
    * source is dropped, the VM's own address passes. */
   ASSERT_TRUE(WriteOk(kDiscovery, discoveryBlobs[0]));
   ASSERT_TRUE(WriteOk(kSecurity, securityBlobs[0]));
   ASSERT_TRUE(WriteOk(kIgnore, ignoreBlobs[1]));
   {
      zek_PktList *list = sim::MakeList();
      zek_Pkt *allowed = frames::Make(fromVM[0]);
      sim::ListAppend(list, frames::Make(fromVM[1]));
      sim::ListAppend(list, allowed);
      const u64 drops = filter->stats.statWardenV4Drops;
      EXPECT_EQ(sim::SendFromVM(kPort, list), ZEK_OK);
      EXPECT_EQ(sim::ListFrames(list), std::vector<zek_Pkt *>{allowed});
      EXPECT_EQ(filter->stats.statWardenV4Drops, drops + 1);
      sim::DestroyList(list);
   }

   /* The tables, once the background workers are quiet. */
   ASSERT_TRUE(sim::WaitIdle(5.0));
   using CheckFn = u32 (*)(VigilFilter *, VigilViolationFn, void *);
   auto check = reinterpret_cast<CheckFn>(sim::ModuleSymbol(module_, "VigilCheckFilterTables"));
   ASSERT_NE(check, nullptr);
   std::vector<std::string> violations;
   auto report = [](void *ctx, const char *text) {
      static_cast<std::vector<std::string> *>(ctx)->push_back(text);
   };
   EXPECT_EQ(check(filter, report, &violations), 0u);
   for (const std::string &v : violations) {
      ADD_FAILURE() << "table invariant: " << v;
   }
   sim::TakeLogs();

   sim::UnloadReport unload = sim::UnloadModule(module_);
   module_ = nullptr;
   EXPECT_EQ(unload.leaks, 0u);
   EXPECT_EQ(unload.leakBytes, 0u);
   EXPECT_EQ(unload.framesLive, 0u);
   EXPECT_EQ(unload.heapsLive, 0u);
   EXPECT_EQ(unload.callbacksLeft, 0u);
   EXPECT_EQ(sim::FramesLive(), 0u);
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(sim::LiveLocks(), 0u);
   EXPECT_TRUE(sim::LockViolations().empty());
   std::printf("[ race ] %d write rounds, %d batches\n", writeRounds.load(),
               batchesSent.load());
}

} // namespace
