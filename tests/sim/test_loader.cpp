/*
 * Tests of the module loader with a tiny fake module (fake_module.cpp):
 * parameters, the init result, private globals per load, and the report of
 * what the module left behind on unload.
 */
#include "sim_frames.h"
#include "sim_switch.h"
#include "sim_test_fixture.h"

namespace {

using Params = std::vector<std::pair<std::string, int64_t>>;

class SimLoader : public simtest::SimFixture {
 protected:
   sim::LoadedModule *Load(const Params &params, int *initResult) {
      std::string error;
      sim::LoadedModule *m = sim::LoadModule(SIM_FAKE_MODULE_PATH, params,
                                             initResult, &error);
      EXPECT_NE(m, nullptr) << error;
      EXPECT_EQ(error, "");
      return m;
   }
   template <typename T> static T &Global(sim::LoadedModule *m, const char *name) {
      void *where = sim::ModuleSymbol(m, name);
      EXPECT_NE(where, nullptr) << name;
      return *static_cast<T *>(where);
   }
};

TEST_F(SimLoader, ParametersAreSetBeforeInit) {
   int init = -100;
   sim::LoadedModule *m = Load({{"VIGIL_HEAP_MIN_SIZE", 1024},
                                {"VIGIL_HEAP_MAX_SIZE", 2048},
                                {"isLiveUpgrade", 0}},
                               &init);
   ASSERT_NE(m, nullptr);
   EXPECT_EQ(init, 0);
   EXPECT_EQ(Global<int>(m, "VIGIL_HEAP_MIN_SIZE"), 1024);
   EXPECT_EQ(Global<int>(m, "VIGIL_HEAP_MAX_SIZE"), 2048);
   EXPECT_FALSE(Global<bool>(m, "isLiveUpgrade"));
   EXPECT_EQ(sim::ModuleSymbol(m, "noSuchSymbol"), nullptr);
   /* init_module subscribed through the host's exported calls. */
   EXPECT_EQ(sim::Subscriptions(), (std::vector<std::string>{"fake.ping"}));

   sim::UnloadReport report = sim::UnloadModule(m);
   EXPECT_EQ(report.leaks, 0u);
   EXPECT_EQ(report.leakBytes, 0u);
   EXPECT_EQ(report.heapsLive, 0u);
   EXPECT_EQ(report.framesLive, 0u);
   EXPECT_EQ(report.callbacksLeft, 0u);
   EXPECT_TRUE(sim::Subscriptions().empty());
}

TEST_F(SimLoader, InitResultIsReturned) {
   /* A minimum above the maximum: the heap cannot be made. */
   int init = 0;
   sim::LoadedModule *m =
      Load({{"VIGIL_HEAP_MIN_SIZE", 8192}, {"VIGIL_HEAP_MAX_SIZE", 4096}}, &init);
   ASSERT_NE(m, nullptr);
   EXPECT_EQ(init, -2);
   /* cleanup_module does not run after a failed init. */
   sim::UnloadReport report = sim::UnloadModule(m);
   EXPECT_EQ(report.leaks, 0u);
   EXPECT_EQ(report.heapsLive, 0u);
}

TEST_F(SimLoader, TwoCopiesHaveSeparateGlobals) {
   int initA = -1, initB = -1;
   sim::LoadedModule *a = Load({{"VIGIL_HEAP_MIN_SIZE", 100}}, &initA);
   sim::LoadedModule *b = Load({{"VIGIL_HEAP_MIN_SIZE", 200}}, &initB);
   ASSERT_NE(a, nullptr);
   ASSERT_NE(b, nullptr);
   EXPECT_EQ(initA, 0);
   EXPECT_EQ(initB, 0);
   EXPECT_NE(sim::ModuleSymbol(a, "VIGIL_HEAP_MIN_SIZE"),
             sim::ModuleSymbol(b, "VIGIL_HEAP_MIN_SIZE"));
   EXPECT_EQ(Global<int>(a, "VIGIL_HEAP_MIN_SIZE"), 100);
   EXPECT_EQ(Global<int>(b, "VIGIL_HEAP_MIN_SIZE"), 200);

   /* Each copy's subscription counts into its own global. */
   int data = 0;
   sim::RaiseEvent("fake.ping", &data);
   EXPECT_EQ(Global<int>(a, "fakePings"), 1);
   EXPECT_EQ(Global<int>(b, "fakePings"), 1);
   EXPECT_EQ(Global<void *>(a, "fakeLastPingData"), &data);

   EXPECT_EQ(sim::UnloadModule(a).leaks, 0u);
   sim::RaiseEvent("fake.ping", nullptr);
   EXPECT_EQ(Global<int>(b, "fakePings"), 2);
   EXPECT_EQ(sim::UnloadModule(b).leaks, 0u);
}

TEST_F(SimLoader, LeakIsReportedOnUnload) {
   int init = -1;
   sim::LoadedModule *m = Load({{"isLiveUpgrade", 1}}, &init);
   ASSERT_NE(m, nullptr);
   ASSERT_EQ(init, 0);
   EXPECT_TRUE(Global<bool>(m, "isLiveUpgrade"));
   zek_Pkt *pkt = sim::MakeFrame(std::vector<uint8_t>(60, 0));
   sim::UnloadReport report = sim::UnloadModule(m);
   EXPECT_EQ(report.leaks, 1u);
   EXPECT_EQ(report.leakBytes, 48u);
   EXPECT_EQ(report.framesLive, 1u);
   EXPECT_EQ(report.heapsLive, 0u);
   ASSERT_EQ(sim::LastHeapLeaks().size(), 1u);
   EXPECT_EQ(sim::LastHeapLeaks()[0].size, 48u);
   zek_PktRelease(pkt);
}

TEST_F(SimLoader, CallbacksLeftInTheModuleAreReportedAndDropped) {
   int init = -1;
   sim::LoadedModule *m = Load({}, &init);
   ASSERT_NE(m, nullptr);
   auto forget = reinterpret_cast<void (*)(void)>(
      sim::ModuleSymbol(m, "fake_forget_subscription"));
   ASSERT_NE(forget, nullptr);
   forget();
   sim::UnloadReport report = sim::UnloadModule(m);
   EXPECT_EQ(report.callbacksLeft, 1u);
   auto failures = simtest::TakeFailures();
   ASSERT_EQ(failures.size(), 1u);
   EXPECT_NE(failures[0].find("fake.lost"), std::string::npos);
   EXPECT_TRUE(sim::Subscriptions().empty());
   sim::RaiseEvent("fake.lost", nullptr); /* nothing left to call */
}

TEST_F(SimLoader, BadParametersAndPathsAreRefused) {
   std::string error;
   int init = 12345;
   EXPECT_EQ(sim::LoadModule(SIM_FAKE_MODULE_PATH, {{"noSuchParam", 1}}, &init, &error),
             nullptr);
   EXPECT_NE(error.find("noSuchParam"), std::string::npos);
   EXPECT_EQ(init, 12345);
   EXPECT_EQ(sim::LoadModule("/nonexistent/module.so", {}, &init, &error), nullptr);
   EXPECT_FALSE(error.empty());
   /* Nothing of the refused loads stays behind. */
   EXPECT_TRUE(sim::Subscriptions().empty());
}

} // namespace
