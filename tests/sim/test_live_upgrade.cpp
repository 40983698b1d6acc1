/*
 * The carriers and the live upgrade with a loaded module whose ports carry
 * state (fakes/migrating_module.cpp): a port's state moved by Transit, a
 * module replaced by a new copy of itself with each port's state and
 * properties carried across, and what the loader says of a module unloaded
 * with its RTM client still registered.
 */
#include "sim_migration.h"
#include "sim_test_fixture.h"

#ifndef SIM_FAKE_MIGRATING_MODULE_PATH
#error "SIM_FAKE_MIGRATING_MODULE_PATH must name the built module"
#endif

namespace {

using Bytes = std::vector<uint8_t>;

/* The module's counters, laid out as the module declares them. */
struct FakeCalls {
   uint32_t writes, cleanups, sizes, saves, restores, completions, preDualLoads,
      prefetches, rtmRegistrations;
   zek_PortID lastPort;
   uint64_t lastReserved;
   uint64_t lastElapsedMS;
   uint32_t lastBufLen;
   bool lastCrossHost;
   zek_Status lastCompletedStatus;
   uint32_t lastCarrier;
};

struct PortRecord {
   uint32_t config, learnt, cleaned;
};

const Bytes kOn = {'1'};
Bytes Word(uint32_t v) {
   return Bytes{static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8),
                static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 24)};
}

class SimMigration : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      ASSERT_NE(sim::AddPortset("vs0"), nullptr);
      ASSERT_NE(sim::AddPortset("vs1"), nullptr);
      ASSERT_TRUE(sim::AddPort("vs0", 1));
      ASSERT_TRUE(sim::AddPort("vs0", 2));
      sim::PortOptions off;
      off.enabled = false;
      ASSERT_TRUE(sim::AddPort("vs0", 5, off));
      ASSERT_TRUE(sim::AddPort("vs1", 3));
   }
   void TearDown() override {
      if (module_ != nullptr) Unload(module_);
      EXPECT_EQ(sim::LiveTransitClients(), 0u);
      EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
      EXPECT_EQ(sim::LiveRtmClients(), 0u);
      EXPECT_TRUE(sim::Subscriptions().empty());
      SimFixture::TearDown();
   }

   sim::LoadedModule *Load(const std::vector<std::pair<std::string, int64_t>> &params = {}) {
      int init = -1;
      std::string error;
      sim::LoadedModule *m =
         sim::LoadModule(SIM_FAKE_MIGRATING_MODULE_PATH, params, &init, &error);
      EXPECT_NE(m, nullptr) << error;
      EXPECT_EQ(init, 0);
      return m;
   }
   static void Unload(sim::LoadedModule *&m) {
      sim::UnloadReport report = sim::UnloadModule(m);
      m = nullptr;
      EXPECT_EQ(report.leaks, 0u);
      EXPECT_EQ(report.heapsLive, 0u);
      EXPECT_EQ(report.callbacksLeft, 0u);
   }
   static FakeCalls &Calls(sim::LoadedModule *m) {
      return *static_cast<FakeCalls *>(sim::ModuleSymbol(m, "fakeCalls"));
   }
   template <typename T> static T &Global(sim::LoadedModule *m, const char *name) {
      return *static_cast<T *>(sim::ModuleSymbol(m, name));
   }
   static void Learn(sim::LoadedModule *m, zek_PortID port, uint32_t learnt) {
      auto learn = reinterpret_cast<bool (*)(zek_PortID, uint32_t)>(
         sim::ModuleSymbol(m, "fake_learn"));
      ASSERT_TRUE(learn(port, learnt)) << port;
   }
   /* The port's record in the module; cleaned 99 when it has none. */
   static PortRecord Port(sim::LoadedModule *m, zek_PortID port) {
      auto get = reinterpret_cast<bool (*)(zek_PortID, uint32_t *, uint32_t *, uint32_t *)>(
         sim::ModuleSymbol(m, "fake_port"));
      PortRecord r{0, 0, 99};
      (void)get(port, &r.config, &r.learnt, &r.cleaned);
      return r;
   }
   void Configure(zek_PortID port, uint32_t config) {
      ASSERT_EQ(sim::WriteProperty(port, "fake.enabled", kOn, nullptr), ZEK_OK);
      ASSERT_EQ(sim::WriteProperty(port, "fake.config", Word(config), nullptr), ZEK_OK);
   }

   sim::LoadedModule *module_ = nullptr;
};

TEST_F(SimMigration, TransitMovesAPortsStateBetweenPortsetsOfALoadedModule) {
   module_ = Load();
   ASSERT_EQ(sim::TransitClients().size(), 2u);
   EXPECT_EQ(sim::TransitClients()[0].client, "fake.transit");
   Configure(1, 10);
   Configure(3, 30);
   Learn(module_, 1, 0xabc);
   sim::TransitMoveResult result;
   EXPECT_EQ(sim::TransitMove(1, 3, &result), ZEK_OK);
   EXPECT_EQ(result.size, 8u);
   EXPECT_EQ(result.dataLen, 8u);
   EXPECT_EQ(result.data, (Bytes{'F', 'A', 'K', 'E', 0xbc, 0x0a, 0, 0}));
   EXPECT_EQ(Port(module_, 3).learnt, 0xabcu);
   EXPECT_EQ(Port(module_, 3).config, 30u);
   const FakeCalls &calls = Calls(module_);
   EXPECT_EQ(calls.sizes, 1u);
   EXPECT_EQ(calls.saves, 1u);
   EXPECT_EQ(calls.restores, 1u);
   EXPECT_EQ(calls.completions, 2u);
   EXPECT_TRUE(calls.lastCrossHost);
   EXPECT_EQ(calls.lastCarrier, 1u);
}

TEST_F(SimMigration, ModuleStartedWithPropertiesOnItsPortsIsGivenThem) {
   ASSERT_EQ(sim::WriteProperty(1, "fake.enabled", kOn, nullptr), 0xbad0003u);
   ASSERT_EQ(sim::WriteProperty(1, "fake.config", Word(77), nullptr), 0xbad0003u);
   module_ = Load();
   EXPECT_EQ(Port(module_, 1).config, 77u);
   EXPECT_EQ(Port(module_, 2).cleaned, 99u);
   EXPECT_EQ(Calls(module_).writes, 2u);
}

TEST_F(SimMigration, LiveUpgradeCarriesEachEnabledPortsStateAndProperties) {
   sim::LoadedModule *old = Load();
   Configure(1, 10);
   Configure(2, 20);
   Configure(3, 30);
   Configure(5, 50);
   Learn(old, 1, 111);
   Learn(old, 2, 222);
   Learn(old, 3, 333);
   Learn(old, 5, 555);
   /* The old copy would leave a record behind at stop, had the upgrade's
    * cleanups not freed every one. */
   Global<bool>(old, "fakeLeakAtStop") = true;

   sim::LiveUpgradeReport report;
   sim::LiveUpgradeOptions opts;
   opts.reserved = 0x5150;
   EXPECT_EQ(sim::LiveUpgrade(old, SIM_FAKE_MIGRATING_MODULE_PATH, &report, opts), ZEK_OK);
   module_ = report.newModule;
   ASSERT_NE(module_, nullptr);
   EXPECT_EQ(report.initResult, 0);
   EXPECT_EQ(report.error, "");
   EXPECT_TRUE(report.oldClient);
   EXPECT_TRUE(report.newClient);
   EXPECT_TRUE(report.oldUnloaded);
   EXPECT_EQ(report.oldUnload.leaks, 0u);
   EXPECT_EQ(report.oldUnload.heapsLive, 0u);
   EXPECT_EQ(report.oldUnload.callbacksLeft, 0u);
   /* Port 5 isn't enabled: it keeps its properties, not its state. */
   ASSERT_EQ(report.ports.size(), 3u);
   const zek_PortID ids[] = {1, 2, 3};
   const uint32_t learnt[] = {111, 222, 333};
   for (size_t i = 0; i < 3; i++) {
      const sim::CarriedPort &p = report.ports[i];
      EXPECT_EQ(p.portID, ids[i]);
      EXPECT_EQ(p.sizeStatus, ZEK_OK);
      EXPECT_EQ(p.size, 8u);
      EXPECT_EQ(p.saveStatus, ZEK_OK);
      EXPECT_EQ(p.dataLen, 8u);
      EXPECT_EQ(p.restoreStatus, ZEK_OK);
      EXPECT_EQ(p.elapsedMS, 0u);
      EXPECT_EQ(Port(module_, ids[i]).learnt, learnt[i]) << ids[i];
      EXPECT_EQ(Port(module_, ids[i]).config, ids[i] * 10) << ids[i];
      EXPECT_EQ(Port(module_, ids[i]).cleaned, 0u) << ids[i];
   }
   EXPECT_EQ(Port(module_, 5).config, 50u);
   EXPECT_EQ(Port(module_, 5).learnt, 0u);

   /* The new copy: started for the upgrade, registered with the service and
    * with both portsets, given eight property writes and three states. */
   EXPECT_TRUE(Global<bool>(module_, "isLiveUpgrade"));
   const FakeCalls &calls = Calls(module_);
   EXPECT_EQ(calls.rtmRegistrations, 1u);
   EXPECT_EQ(calls.writes, 8u);
   EXPECT_EQ(calls.restores, 3u);
   EXPECT_EQ(calls.sizes, 0u);
   EXPECT_EQ(calls.completions, 1u);
   EXPECT_FALSE(calls.lastCrossHost);
   EXPECT_EQ(calls.lastCompletedStatus, ZEK_OK);
   EXPECT_EQ(calls.lastCarrier, 2u);
   EXPECT_EQ(sim::TransitClients().size(), 2u);
   ASSERT_EQ(sim::RtmClients().size(), 1u);
   EXPECT_EQ(sim::RtmClientOf(module_), sim::RtmClients()[0].handle);

   /* The service stays; withdrawn, it takes the new copy's client away. */
   EXPECT_TRUE(sim::RtmAnnounced());
   sim::RtmWithdraw();
   EXPECT_EQ(sim::LiveRtmClients(), 0u);
}

TEST_F(SimMigration, OldCopysLeaksAreReported) {
   sim::LoadedModule *old = Load();
   Configure(1, 10);
   Configure(2, 20);
   /* Port 2's property is cleaned up before the upgrade: the old copy keeps
    * the record (marked cleaned), nothing cleans it at the upgrade, and the
    * old copy leaks it at stop. */
   ASSERT_EQ(sim::CleanupProperty(2, "fake.enabled", nullptr), ZEK_OK);
   Global<bool>(old, "fakeLeakAtStop") = true;
   sim::LiveUpgradeReport report;
   EXPECT_EQ(sim::LiveUpgrade(old, SIM_FAKE_MIGRATING_MODULE_PATH, &report), ZEK_OK);
   module_ = report.newModule;
   EXPECT_EQ(report.oldUnload.leaks, 1u);
   EXPECT_EQ(report.oldUnload.leakBytes, 16u);
   ASSERT_EQ(simtest::TakeFailures().size(), 0u);
   /* Port 2 had nothing to save; the new copy is given an empty buffer. */
   ASSERT_EQ(report.ports.size(), 3u);
   EXPECT_EQ(report.ports[1].portID, 2u);
   EXPECT_EQ(report.ports[1].size, 0u);
   EXPECT_EQ(report.ports[1].dataLen, 0u);
   EXPECT_EQ(report.ports[1].restoreStatus, ZEK_OK);
   /* Port 2 carries only its config now, which the new copy refuses without
    * a record. */
   EXPECT_EQ(Port(module_, 2).cleaned, 99u);
   EXPECT_EQ(Port(module_, 1).config, 10u);
   /* Port 3 never had a record: nothing to save and nowhere to put it. */
   EXPECT_EQ(report.ports[2].portID, 3u);
   EXPECT_EQ(report.ports[2].size, 0u);
   sim::RtmWithdraw();
}

TEST_F(SimMigration, FailedStartOfTheNewCopyKeepsTheOldOne) {
   module_ = Load();
   Configure(1, 10);
   Learn(module_, 1, 7);
   sim::LiveUpgradeReport report;
   sim::LiveUpgradeOptions opts;
   opts.params = {{"VIGIL_HEAP_MIN_SIZE", 8192}, {"VIGIL_HEAP_MAX_SIZE", 4096}};
   EXPECT_EQ(sim::LiveUpgrade(module_, SIM_FAKE_MIGRATING_MODULE_PATH, &report, opts),
             0x2bad0000u);
   EXPECT_EQ(report.newModule, nullptr);
   EXPECT_EQ(report.initResult, -2);
   EXPECT_EQ(report.error, "the new copy's init_module answered -2");
   EXPECT_FALSE(report.oldUnloaded);
   EXPECT_TRUE(report.ports.empty());
   /* The old copy runs on, told of the upgrade that didn't come. */
   EXPECT_EQ(Calls(module_).preDualLoads, 1u);
   EXPECT_TRUE(Global<bool>(module_, "fakeFromUpgrade"));
   EXPECT_EQ(Port(module_, 1).learnt, 7u);
   /* A withdrawal of the service ends it. */
   sim::RtmWithdraw();
   EXPECT_FALSE(Global<bool>(module_, "fakeFromUpgrade"));

   EXPECT_EQ(sim::LiveUpgrade(module_, "/nonexistent/module.so", &report), 0x2bad0000u);
   EXPECT_EQ(report.newModule, nullptr);
   EXPECT_EQ(report.error, "cannot read /nonexistent/module.so");
   sim::RtmWithdraw();
}

TEST_F(SimMigration, CopyWithoutRtmTableCarriesNothing) {
   sim::LoadedModule *old = Load();
   Global<bool>(old, "fakeRtmWithoutTable") = true;
   Configure(1, 10);
   Learn(old, 1, 9);
   sim::LiveUpgradeReport report;
   EXPECT_EQ(sim::LiveUpgrade(old, SIM_FAKE_MIGRATING_MODULE_PATH, &report), 0xbad0020u);
   module_ = report.newModule;
   ASSERT_NE(module_, nullptr);
   EXPECT_TRUE(report.oldClient);
   EXPECT_TRUE(report.newClient);
   ASSERT_EQ(report.ports.size(), 3u);
   EXPECT_EQ(report.ports[0].sizeStatus, 0xbad0020u);
   EXPECT_EQ(report.ports[0].restoreStatus, ZEK_OK);
   EXPECT_EQ(Port(module_, 1).config, 10u);
   EXPECT_EQ(Port(module_, 1).learnt, 0u);
   EXPECT_EQ(Calls(module_).lastCompletedStatus, ZEK_OK);
   sim::RtmWithdraw();
}

TEST_F(SimMigration, UpgradeOfANonModuleChangesNothing) {
   sim::LiveUpgradeReport report;
   EXPECT_EQ(sim::LiveUpgrade(nullptr, SIM_FAKE_MIGRATING_MODULE_PATH, &report), 0x2bad0000u);
   EXPECT_EQ(report.error, "no module to upgrade");
   EXPECT_FALSE(sim::RtmAnnounced());
}

TEST_F(SimMigration, ServiceForgetsTheClientOfAModuleThatIsUnloaded) {
   module_ = Load();
   sim::LoadedModule *other = Load();
   sim::RtmAnnounce();
   ASSERT_EQ(sim::LiveRtmClients(), 2u);
   oxa_RtmClientHandle kept = sim::RtmClientOf(other);
   ASSERT_NE(kept, nullptr);
   sim::UnloadReport report = sim::UnloadModule(module_);
   module_ = other;
   EXPECT_EQ(report.callbacksLeft, 0u);
   ASSERT_EQ(sim::LiveRtmClients(), 1u);
   EXPECT_EQ(sim::RtmClients()[0].handle, kept);
   sim::RtmWithdraw();
}

TEST_F(SimMigration, ModuleUnloadedWithATransitClientRegisteredIsTold) {
   module_ = Load();
   ASSERT_EQ(sim::LiveTransitClients(), 2u);
   /* The module's stop fails to unregister the first portset's client. */
   sim::FaultCall("FABTransitClientRuntimeUnregister", 0xbad0001);
   sim::UnloadReport report = sim::UnloadModule(module_);
   module_ = nullptr;
   EXPECT_EQ(report.callbacksLeft, 1u);
   EXPECT_EQ(simtest::TakeFailures(),
             (std::vector<std::string>{"module unloaded with its Transit client "
                                       "'fake.transit' on portset vs0 still in place"}));
   EXPECT_EQ(sim::LiveTransitClients(), 0u);
}

} // namespace
