/*
 * The loadable module as the host runs it: vigil.so loaded with its
 * parameters, started, driven only through what the host offers (portsets
 * and their events, port properties, frames through the I/O chains, the
 * port database functions a sibling module finds by name) and unloaded,
 * with the host's account of everything left behind.  Start failures are
 * injected into the host's calls.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "config_blobs.h"
#include "portdb_text.h"
#include "sim_core.h"
#include "sim_frames.h"
#include "sim_mgmt.h"
#include "sim_switch.h"
#include "test_frames.h"
#include "vigil_exports.h"
#include "vigil_filter.h"

#ifndef VIGIL_SO_PATH
#error "VIGIL_SO_PATH must name the built vigil.so"
#endif

namespace {

using blobs::Bytes;
using blobs::Entry;
using Params = std::vector<std::pair<std::string, int64_t>>;

constexpr u32 kPort = 0x20;
constexpr u32 kPort2 = 0x21;
constexpr u32 kNotFound = 0xbad0003;
constexpr u32 kNoMemory = 0xbad0014;
constexpr u32 kInvalidData = 0xbad0001;

const std::string kEnabled = "com.norvex.vswitch.port.vigil.enabled";
const std::string kDiscovery = "com.norvex.vswitch.port.vigil.discovery";
const std::string kDiscovery6 = "com.norvex.vswitch.port.vigil.discovery.ipv6";
const std::string kIgnore = "com.norvex.vswitch.port.vigil.discovery.ignorelist";
const std::string kSecurity = "com.norvex.vswitch.port.vigil.security";
const std::vector<std::string> kAll = {kEnabled, kDiscovery, kDiscovery6, kIgnore, kSecurity};

const char *const kInitDone = "Port Vigil module init for ULM 6.7 completed, isLiveUpgrade: False";
const char *const kGateway = "02:00:00:00:00:01";

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

class ModuleLoad : public ::testing::Test {
protected:
   void SetUp() override {
      sim::Reset();
      TakeFailures();
      sim::SetFailureHook(RecordFailure);
      sim::AddPortset("vs0");
      sim::AddPortset("vs1");
      sim::AddPortset("host0", "hostonly");
      sim::TakeLogs();
   }

   void TearDown() override {
      if (module_ != nullptr) {
         Unload();
      }
      for (const std::string &what : TakeFailures()) {
         ADD_FAILURE() << "host failure: " << what;
      }
      sim::SetFailureHook(nullptr);
      sim::Reset();
   }

   int Load(const Params &params) {
      int init = -1;
      std::string error;
      module_ = sim::LoadModule(VIGIL_SO_PATH, params, &init, &error);
      EXPECT_NE(module_, nullptr) << error;
      EXPECT_TRUE(sim::WaitIdle(5.0));
      return init;
   }

   /* Unloads and checks that nothing of the module is left. */
   void Unload() {
      sim::UnloadReport report = sim::UnloadModule(module_);
      module_ = nullptr;
      EXPECT_EQ(report.leaks, 0u);
      EXPECT_EQ(report.leakBytes, 0u);
      EXPECT_EQ(report.framesLive, 0u);
      EXPECT_EQ(report.heapsLive, 0u);
      EXPECT_EQ(report.callbacksLeft, 0u);
      ExpectNothingLeft();
   }

   void ExpectNothingLeft() {
      EXPECT_EQ(sim::LiveChains(), 0u);
      EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
      EXPECT_TRUE(sim::Subscriptions().empty());
      EXPECT_EQ(sim::LiveWorlds(), 0u);
      EXPECT_EQ(sim::LiveLocks(), 0u);
      EXPECT_EQ(sim::LivePriQs(), 0u);
      EXPECT_EQ(sim::PortsetsAcquired(), 0u);
      EXPECT_FALSE(sim::LogHandleExists("vigil"));
      EXPECT_FALSE(sim::LogHandleExists("vigil.throttle"));
      EXPECT_EQ(sim::FramesLive(), 0u);
   }

   /* The module's lines, without the worlds' own comings and goings. */
   std::vector<sim::LogLine> Logs() {
      sim::WaitIdle(5.0);
      std::vector<sim::LogLine> out;
      for (sim::LogLine &line : sim::TakeLogs()) {
         if (line.func != "VigilCPWorld" && line.func != "VigilAgingWorld") {
            out.push_back(std::move(line));
         }
      }
      return out;
   }

   static bool Has(const std::vector<sim::LogLine> &lines, int level, const std::string &text,
                   const char *log = nullptr) {
      for (const sim::LogLine &line : lines) {
         if (line.level == level && line.text == text && (log == nullptr || line.log == log)) {
            return true;
         }
      }
      return false;
   }

   zek_Status Write(u32 port, const std::string &prop, const Bytes &data) {
      bool handled = false;
      zek_Status status = sim::WriteProperty(port, prop, data, &handled);
      EXPECT_TRUE(handled) << prop;
      return status;
   }

   /* Sends frames as the VM, or delivers them to it, through the port's
    * chains; returns which came out, by position, and keeps the bytes of
    * those that did. */
   std::vector<bool> Run(u32 port, const std::vector<Bytes> &frames, bool fromVM) {
      zek_PktList *list = sim::MakeList();
      std::vector<zek_Pkt *> sent;
      for (const Bytes &bytes : frames) {
         zek_Pkt *pkt = frames::Make(bytes);
         sent.push_back(pkt);
         sim::ListAppend(list, pkt);
      }
      EXPECT_EQ(fromVM ? sim::SendFromVM(port, list) : sim::DeliverToVM(port, list), ZEK_OK);
      std::vector<zek_Pkt *> left = sim::ListFrames(list);
      std::vector<bool> out;
      survivors_.clear();
      size_t next = 0;
      for (zek_Pkt *pkt : sent) {
         bool kept = next < left.size() && left[next] == pkt;
         out.push_back(kept);
         if (kept) {
            survivors_.push_back(sim::FrameBytes(pkt));
            next++;
         }
      }
      sim::DestroyList(list);
      return out;
   }

   VigilFilter *FilterOf(u32 port) {
      return (VigilFilter *)sim::PortData(port, VIGIL_FILTER_SLOT);
   }

   sim::LoadedModule *module_ = nullptr;
   std::vector<Bytes> survivors_;
};

/* ---------------------------------------------------------------- start */

TEST_F(ModuleLoad, StartRegistersEveryVswitchPortsetAndStopTakesAllAway) {
   ASSERT_EQ(Load({{"VIGIL_HEAP_MIN_SIZE", 8192},
                   {"VIGIL_HEAP_MAX_SIZE", 64 << 20},
                   {"isLiveUpgrade", 0}}),
             0);
   EXPECT_EQ(*(int *)sim::ModuleSymbol(module_, "VIGIL_HEAP_MIN_SIZE"), 8192);
   std::vector<sim::LogLine> lines = Logs();
   ASSERT_FALSE(lines.empty());
   EXPECT_EQ(lines.back().level, 1);
   EXPECT_EQ(lines.back().log, "vigil");
   EXPECT_EQ(lines.back().text, kInitDone);
   EXPECT_TRUE(Has(lines, 1, "Skipping FAB Client registration for portset class hostonly"));

   EXPECT_EQ(sim::RegisteredProperties("vs0"), kAll);
   EXPECT_EQ(sim::RegisteredProperties("vs1"), kAll);
   EXPECT_TRUE(sim::RegisteredProperties("host0").empty());
   EXPECT_EQ(sim::Subscriptions(),
             (std::vector<std::string>{sim::VswitchEventName("activate"),
                                       sim::VswitchEventName("deactivate"),
                                       "com.norvex.oxa.rtm.client"}));
   EXPECT_EQ(sim::LiveWorlds(), 2u);
   EXPECT_NE(sim::ModuleHeap(), nullptr);
   EXPECT_TRUE(sim::LogHandleExists("vigil"));
   EXPECT_TRUE(sim::LogHandleExists("vigil.throttle"));
   /* The management channel: one interface, named with the host's build. */
   std::vector<sim::MgmtInterfaceInfo> mgmt = sim::MgmtInterfaces();
   ASSERT_EQ(mgmt.size(), 1u);
   EXPECT_EQ(mgmt[0].name, "PortVigil.7000");
   EXPECT_EQ(mgmt[0].callbacks.size(), 9u);

   Unload();
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u) << "the stop closes the interface";
   lines = Logs();
   ASSERT_GE(lines.size(), 2u);
   EXPECT_EQ(lines.front().text, "Starting Cleanup");
   EXPECT_TRUE(Has(lines, 1, "Starting VigilGenericCleanup"));
   /* The stop unregisters what the start registered, and looks at no
    * other portset. */
   EXPECT_TRUE(Has(lines, 1, "Vigil Unegistering FAB CBs for ps vs0"));
   EXPECT_TRUE(Has(lines, 1, "Vigil Unegistering FAB CBs for ps vs1"));
   EXPECT_FALSE(Has(lines, 1, "Skipping FAB prop unregistration for portset class hostonly"));
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
}

TEST_F(ModuleLoad, AgingQueueTheHostRefusedToDestroyIsToldAndFreedAtUnload) {
   ASSERT_EQ(Load({{"isLiveUpgrade", 0}}), 0);
   ASSERT_EQ(sim::LivePriQs(), 1u);
   sim::FaultCall("PriQDestroy", 0xbad0007);
   sim::UnloadReport report = sim::UnloadModule(module_);
   module_ = nullptr;
   EXPECT_EQ(report.leaks, 0u);
   EXPECT_EQ(report.framesLive, 0u);
   EXPECT_EQ(report.callbacksLeft, 1u);
   EXPECT_EQ(TakeFailures(), (std::vector<std::string>{
                                "module unloaded with its priority queue still in place"}));
   EXPECT_EQ(sim::LivePriQs(), 0u);
   sim::FaultClear();
}

TEST_F(ModuleLoad, PortsetEventsAfterStartRegisterAndUnregister) {
   ASSERT_EQ(Load({}), 0);
   sim::AddPortset("vs2");
   EXPECT_EQ(sim::RegisteredProperties("vs2"), kAll);
   sim::RemovePortset("vs1");
   EXPECT_TRUE(sim::RegisteredProperties("vs1").empty());
   EXPECT_EQ(sim::LiveClientRegistrations(), 10u);
   /* A portset that comes and goes with a port that had the filter. */
   ASSERT_TRUE(sim::AddPort("vs2", kPort));
   ASSERT_EQ(Write(kPort, kEnabled, Text("true")), ZEK_OK);
   sim::RemovePortset("vs2");
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(sim::LiveClientRegistrations(), 5u);
   Logs();
}

TEST_F(ModuleLoad, StopTakesBackTheHandlersOfAPortsetOfAnotherClassActivatedAfterStart) {
   ASSERT_EQ(Load({}), 0);
   /* The activate event registers a portset whatever its class. */
   sim::AddPortset("other0", "other");
   EXPECT_EQ(sim::RegisteredProperties("other0"), kAll);
   ASSERT_TRUE(sim::AddPort("other0", kPort));
   ASSERT_EQ(Write(kPort, kEnabled, Text("true")), ZEK_OK);
   EXPECT_EQ(sim::LiveClientRegistrations(), 15u);
   Logs();
   /* Unload finds no record left in the heap and no handler installed. */
   Unload();
   std::vector<sim::LogLine> lines = Logs();
   EXPECT_TRUE(Has(lines, 1, "Vigil Unegistering FAB CBs for ps other0"));
   EXPECT_TRUE(sim::RegisteredProperties("other0").empty());
}

TEST_F(ModuleLoad, LiveUpgradeStartWaitsForActivateEvents) {
   ASSERT_EQ(Load({{"isLiveUpgrade", 1}}), 0);
   std::vector<sim::LogLine> lines = Logs();
   ASSERT_FALSE(lines.empty());
   EXPECT_EQ(lines.back().text,
             "Port Vigil module init for ULM 6.7 completed, isLiveUpgrade: True");
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
   EXPECT_EQ(sim::Subscriptions().size(), 3u) << "activate, deactivate and the live-upgrade service";
   EXPECT_EQ(sim::LiveWorlds(), 2u);

   sim::RaiseEvent(sim::VswitchEventName("activate"), sim::FindPortset("vs0"));
   EXPECT_EQ(sim::RegisteredProperties("vs0"), kAll);
   EXPECT_TRUE(sim::RegisteredProperties("vs1").empty());
   sim::AddPortset("vs2");
   EXPECT_EQ(sim::RegisteredProperties("vs2"), kAll);
   EXPECT_EQ(sim::LiveClientRegistrations(), 10u);
}

/* ------------------------------------------------------ start failures */

struct StartFault {
   const char *what;
   void (*arm)();
   std::vector<std::pair<int, std::string>> lines; /* must be among the module's lines */
   const char *log; /* the log the first line goes to */
};

void PrintTo(const StartFault &fault, std::ostream *os) {
   *os << fault.what;
}

class ModuleLoadFailure : public ModuleLoad,
                           public ::testing::WithParamInterface<StartFault> {};

TEST_P(ModuleLoadFailure, ReturnsOneLogsAndLeavesNothing) {
   const StartFault &fault = GetParam();
   fault.arm();
   EXPECT_EQ(Load({}), 1) << fault.what;
   sim::FaultClear();
   std::vector<sim::LogLine> lines = Logs();
   for (size_t i = 0; i < fault.lines.size(); i++) {
      EXPECT_TRUE(Has(lines, fault.lines[i].first, fault.lines[i].second,
                      i == 0 ? fault.log : nullptr))
         << fault.what << ": " << fault.lines[i].second;
   }
   EXPECT_TRUE(Has(lines, 1, "Starting VigilGenericCleanup")) << fault.what;
   EXPECT_FALSE(Has(lines, 1, kInitDone)) << fault.what;
   /* Nothing is left even before the module goes. */
   ExpectNothingLeft();
   Unload();
}

const StartFault kStartFaults[] = {
   {"heap", [] { sim::FaultCall("HeapCreate", kNoMemory); },
    {{2, "Failed to create heap (0xbad0014): Out of memory"}}, "-"},
   {"log", [] { sim::FaultCall("LogRegister", kNoMemory); },
    {{2, "Failed to allocate log handle (0xbad0014): Out of memory"}}, "-"},
   {"lock domain", [] { sim::FaultCall("LockDomainCreate", kNoMemory); },
    {{2, "Failed to create lock domain (0xbad0014): Out of memory"}}, "vigil"},
   {"aging world", [] { sim::FaultCall("WorldCreate", kNoMemory); },
    {{2, "Failed to create aging world: Out of memory"},
     {2, "Unable to init Aging World: Out of memory"}},
    "vigil"},
   {"control-plane world", [] { sim::FaultCall("WorldCreate", kNoMemory, 1, 1); },
    {{2, "Failed to create cpWorld: Out of memory"}, {2, "Unable to init CPWorld: Out of memory"}},
    "vigil"},
   {"client registration", [] { sim::FaultCall("FABClientPortRegister", kInvalidData, 1, 7); },
    {{2, "Failed to register vigil fab property " + kDiscovery6 + "(Invalid data)"},
     {2, "Failed to register FAB clients for active portsets"}},
    "vigil"},
   {"event subscription", [] { sim::FaultCall("NetEventPortsetEventSubscribe", kNoMemory); },
    {{2, "Failed to subscribe to Vswitch Activate Event"}}, "vigil"},
   {"throttle log", [] { sim::FaultCall("LogRegister", kNoMemory, 1, 1); },
    {{2, "zek_LogRegister failed: Out of memory"}}, "vigil"},
};

std::string StartFaultName(const ::testing::TestParamInfo<StartFault> &info) {
   std::string name;
   for (const char *p = info.param.what; *p; p++) {
      name += isalnum((unsigned char)*p) ? *p : '_';
   }
   return name;
}

INSTANTIATE_TEST_SUITE_P(StartFaults, ModuleLoadFailure, ::testing::ValuesIn(kStartFaults),
                         StartFaultName);

TEST_F(ModuleLoad, HeapFailureIsToldWithoutALogHandle) {
   /* A minimum above the maximum: the host refuses the heap. */
   EXPECT_EQ(Load({{"VIGIL_HEAP_MIN_SIZE", 8192}, {"VIGIL_HEAP_MAX_SIZE", 4096}}), 1);
   std::vector<sim::LogLine> lines = Logs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].log, "-");
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].text, "Failed to create heap (0xbad0007): Bad parameter");
   EXPECT_EQ(lines[0].raw, "[oxa@3719 comp=\"oxa-ulm\" subcomp=\"vigil-7000\"] "
                           "Failed to create heap (0xbad0007): Bad parameter");
   EXPECT_EQ(lines[1].log, "-");
   EXPECT_EQ(lines[1].level, 1);
   EXPECT_EQ(lines[1].text, "Starting VigilGenericCleanup");
   ExpectNothingLeft();
   Unload();
}

/* ------------------------------------------------ order of the start */

/* One log line as the order checks compare it. */
struct Said {
   std::string log;
   int level;
   std::string func;
   std::string text;
   bool operator==(const Said &) const = default;
};

void PrintTo(const Said &said, std::ostream *os) {
   *os << "{" << said.log << ", " << said.level << ", " << said.func << ", \"" << said.text
       << "\"}";
}

bool FromWorld(const sim::LogLine &line) {
   return line.func == "VigilCPWorld" || line.func == "VigilAgingWorld";
}

/* What the switch clients' clean-up says about each portset is left to the
 * tests of the clients. */
bool FromClientCleanup(const sim::LogLine &line) {
   return line.func == "VigilFabUnregisterClients" ||
          line.func == "VigilFabUnregisterClientsCB" ||
          line.func == "Vigil_FabPropUnregister" || line.func == "Vigil_TransitUnregister";
}

/* The start's own lines, in order: none of the worlds, none of the
 * clients' clean-up. */
std::vector<Said> StartLines(const std::vector<sim::LogLine> &lines) {
   std::vector<Said> out;
   for (const sim::LogLine &line : lines) {
      if (!FromWorld(line) && !FromClientCleanup(line)) {
         out.push_back(Said{line.log, line.level, line.func, line.text});
      }
   }
   return out;
}

/* The worlds' lines about their end, in order; those that come before the
 * first line with `text` are marked "early". */
std::vector<Said> WorldExitsAfter(const std::vector<sim::LogLine> &lines,
                                  const std::string &text) {
   std::vector<Said> out;
   bool seen = false;
   for (const sim::LogLine &line : lines) {
      seen = seen || line.text == text;
      if (FromWorld(line) && line.text.rfind("Exiting", 0) == 0) {
         out.push_back(Said{seen ? line.log : "early", line.level, line.func, line.text});
      }
   }
   return out;
}

/* What registering the two portsets of the class says in a normal start. */
std::vector<Said> PortsetsRegistered() {
   std::vector<Said> out;
   for (const char *portset : {"vs0", "vs1"}) {
      out.push_back({"vigil", 1, "Vigil_FabPropRegister",
                     std::string("Vigil Registering FAB CBs for ps ") + portset});
      for (const std::string &prop : kAll) {
         out.push_back(
            {"vigil", 1, "Vigil_FabPropRegister", "Registered vigil property handler " + prop});
      }
      out.push_back({"vigil", 1, "Vigil_TransitRegister",
                     std::string("Vigil Registering TRANSIT CBs for ps ") + portset});
   }
   out.push_back({"vigil", 1, "VigilFabRegisterClientsCB",
                  "Skipping FAB Client registration for portset class hostonly"});
   return out;
}

const Said kAgingLock{"vigil", 1, "VigilAgingWorldInit", "Aginglock created"};
const Said kRtmSubscribe{"vigil", 1, "VigilRtmSubscribe", "Vigil Subscribing to RTM Event"};
const Said kGenericCleanup{"vigil", 1, "VigilGenericCleanup", "Starting VigilGenericCleanup"};
const Said kCPWorldExit{"vigil", 1, "VigilCPWorld", "Exiting CPWorld - exit: 0x1"};
const Said kAgingWorldExit{"vigil", 1, "VigilAgingWorld", "Exiting Aging World"};

TEST_F(ModuleLoad, LiveUpgradeStartLogsItsStepsInOrder) {
   ASSERT_EQ(Load({{"isLiveUpgrade", 1}}), 0);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   std::vector<sim::LogLine> lines = sim::TakeLogs();
   EXPECT_EQ(StartLines(lines),
             (std::vector<Said>{kAgingLock, kRtmSubscribe,
                                {"vigil", 1, "init_module",
                                 "Port Vigil module init for ULM 6.7 completed, "
                                 "isLiveUpgrade: True"}}));
   /* The worlds are made after the aging queue's lock, and say so. */
   ASSERT_FALSE(lines.empty());
   EXPECT_EQ(lines[0].text, kAgingLock.text);
   std::vector<Said> worlds;
   for (const sim::LogLine &line : lines) {
      if (FromWorld(line) && line.text.find("Started") != std::string::npos) {
         worlds.push_back(Said{line.log, line.level, line.func, line.text});
      }
   }
   std::sort(worlds.begin(), worlds.end(),
             [](const Said &a, const Said &b) { return a.func < b.func; });
   EXPECT_EQ(worlds, (std::vector<Said>{{"vigil", 1, "VigilAgingWorld", "Aging World is Started"},
                                        {"vigil", 1, "VigilCPWorld", "CPWorld is Started"}}));
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
   EXPECT_EQ(sim::Subscriptions().size(), 3u);
   EXPECT_TRUE(sim::LogHandleExists("vigil.throttle"));
   Unload();
}

/* A start that fails at one step: the lines of the steps before it, the
 * failure, and the clean-up of what was made. */
struct OrderFault {
   const char *what;
   void (*arm)();
   int step;               /* of the start, 1 to 12 */
   std::vector<Said> said; /* the start's lines, for a live upgrade */
   std::vector<Said> exits; /* the worlds' ends, all after the clean-up began */
};

void PrintTo(const OrderFault &fault, std::ostream *os) {
   *os << fault.what;
}

const OrderFault kOrderFaults[] = {
   {"heap", [] { sim::FaultCall("HeapCreate", kNoMemory); }, 1,
    {{"-", 2, "", "Failed to create heap (0xbad0014): Out of memory"},
     {"-", 1, "", "Starting VigilGenericCleanup"}},
    {}},
   {"log", [] { sim::FaultCall("LogRegister", kNoMemory); }, 2,
    {{"-", 2, "", "Failed to allocate log handle (0xbad0014): Out of memory"},
     {"-", 1, "", "Starting VigilGenericCleanup"}},
    {}},
   {"lock domain", [] { sim::FaultCall("LockDomainCreate", kNoMemory); }, 3,
    {{"vigil", 2, "VigilGenericInit", "Failed to create lock domain (0xbad0014): Out of memory"},
     kGenericCleanup},
    {}},
   {"aging world", [] { sim::FaultCall("WorldCreate", kNoMemory); }, 4,
    {kAgingLock,
     {"vigil", 2, "VigilAgingWorldInit", "Failed to create aging world: Out of memory"},
     {"vigil", 2, "VigilGenericInit", "Unable to init Aging World: Out of memory"},
     kGenericCleanup},
    {}},
   {"control-plane world", [] { sim::FaultCall("WorldCreate", kNoMemory, 1, 1); }, 5,
    {kAgingLock,
     {"vigil", 2, "VigilCPWorldInit", "Failed to create cpWorld: Out of memory"},
     {"vigil", 2, "VigilGenericInit", "Unable to init CPWorld: Out of memory"},
     kGenericCleanup},
    {kAgingWorldExit}},
   {"activate subscription", [] { sim::FaultCall("NetEventPortsetEventSubscribe", kNoMemory); },
    8,
    {kAgingLock,
     {"vigil", 2, "Vigil_FabClientInit", "Failed to subscribe to Vswitch Activate Event"},
     kGenericCleanup},
    {kCPWorldExit, kAgingWorldExit}},
   {"deactivate subscription",
    [] { sim::FaultCall("NetEventPortsetEventSubscribe", kNoMemory, 1, 1); }, 8,
    {kAgingLock,
     {"vigil", 2, "Vigil_FabClientInit", "Failed to subscribe to Vswitch Deactivate Event"},
     kGenericCleanup},
    {kCPWorldExit, kAgingWorldExit}},
   {"throttle log", [] { sim::FaultCall("LogRegister", kNoMemory, 1, 1); }, 9,
    {kAgingLock,
     {"vigil", 2, "VigilLogThrottleInit", "zek_LogRegister failed: Out of memory"},
     kGenericCleanup},
    {kCPWorldExit, kAgingWorldExit}},
   {"live-upgrade subscription",
    [] { sim::FaultCall("NetEventPortsetEventSubscribe", kNoMemory, 1, 2); }, 11,
    {kAgingLock, kRtmSubscribe,
     {"vigil", 2, "VigilRtmSubscribe", "Vigil Failed to register RTM callback"},
     kGenericCleanup},
    {kCPWorldExit, kAgingWorldExit}},
};

class ModuleStartOrder
   : public ModuleLoad,
     public ::testing::WithParamInterface<std::tuple<OrderFault, bool>> {};

TEST_P(ModuleStartOrder, FailedStepIsLoggedAfterTheStepsBeforeItAsInANormalStart) {
   const OrderFault &fault = std::get<0>(GetParam());
   const bool liveUpgrade = std::get<1>(GetParam());
   /* A live upgrade changes only step 8: it visits no portset.  A normal
    * start registers with the portsets of the class there. */
   std::vector<Said> said = fault.said;
   if (!liveUpgrade && fault.step > 8) {
      std::vector<Said> registered = PortsetsRegistered();
      said.insert(said.begin() + 1, registered.begin(), registered.end());
   }
   fault.arm();
   EXPECT_EQ(Load({{"isLiveUpgrade", liveUpgrade ? 1 : 0}}), 1);
   sim::FaultClear();
   ASSERT_TRUE(sim::WaitIdle(5.0));
   std::vector<sim::LogLine> lines = sim::TakeLogs();
   EXPECT_EQ(StartLines(lines), said);
   EXPECT_EQ(WorldExitsAfter(lines, kGenericCleanup.text), fault.exits);
   ExpectNothingLeft();
   Unload();
}

std::string OrderFaultName(
   const ::testing::TestParamInfo<std::tuple<OrderFault, bool>> &info) {
   std::string name;
   for (const char *p = std::get<0>(info.param).what; *p; p++) {
      name += isalnum((unsigned char)*p) ? *p : '_';
   }
   return name + (std::get<1>(info.param) ? "_liveUpgrade" : "_normal");
}

INSTANTIATE_TEST_SUITE_P(StartSteps, ModuleStartOrder,
                         ::testing::Combine(::testing::ValuesIn(kOrderFaults),
                                            ::testing::Bool()),
                         OrderFaultName);

/* --------------------------------------------------- through properties */

TEST_F(ModuleLoad, ConfigurationBeforeEnableIsRefused) {
   ASSERT_EQ(Load({}), 0);
   ASSERT_TRUE(sim::AddPort("vs0", kPort));
   blobs::Security s;
   s.features = VIGIL_FEAT_BPDU_FILTER;
   EXPECT_EQ(Write(kPort, kDiscovery, Bytes{1, 1}), kNotFound);
   EXPECT_EQ(Write(kPort, kDiscovery6, blobs::Discovery6(1, 1, 5)), kNotFound);
   EXPECT_EQ(Write(kPort, kIgnore, blobs::IgnoreList({Entry(VIGIL_WL_VLAN, {}, 0, 3)})),
             kNotFound);
   EXPECT_EQ(Write(kPort, kSecurity, s.Build()), kNotFound);
   EXPECT_EQ(FilterOf(kPort), nullptr);
   std::vector<sim::LogLine> lines = Logs();
   EXPECT_TRUE(Has(lines, 2, "Vigil filter not found for port 0x20", "vigil"));
   EXPECT_TRUE(Has(lines, 2, "Vigil filter not found for port 32", "vigil"));

   /* Nothing of it was kept for the filter that comes later. */
   ASSERT_EQ(Write(kPort, kEnabled, Text("true")), ZEK_OK);
   VigilFilter *filter = FilterOf(kPort);
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(filter->discoveryFlags, 0u);
   EXPECT_EQ(filter->featuresEnabled, 0u);
   EXPECT_EQ(filter->arpExpiry, 600);
   EXPECT_EQ(filter->portIgnoreList, nullptr);
}

TEST_F(ModuleLoad, FramesAreJudgedAsThePropertiesSay) {
   ASSERT_EQ(Load({}), 0);
   ASSERT_TRUE(sim::AddPort("vs0", kPort));
   ASSERT_TRUE(sim::AddPort("vs0", kPort2));
   ASSERT_EQ(Write(kPort, kEnabled, Text("true")), ZEK_OK);
   std::vector<sim::ChainInfo> chains = sim::PortChains(kPort);
   ASSERT_EQ(chains.size(), 2u);
   EXPECT_EQ(chains[0].name, "VIGIL_INPUT.7000");
   EXPECT_EQ(chains[1].name, "VIGIL_OUTPUT.7000");
   EXPECT_EQ(sim::MinMappedLen(kPort), 66u);
   ASSERT_EQ(Write(kPort, kDiscovery, Bytes{1, 1}), ZEK_OK);

   const VigilWhiteListEntry vm = Entry(VIGIL_WL_IPV4 | VIGIL_WL_MAC, blobs::V4("192.0.2.10"),
                                        32, 0, blobs::Mac(frames::kVmMac));
   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_DHCP_SERVER_BLOCK |
                VIGIL_FEAT_BPDU_FILTER | VIGIL_FEAT_TX_BCAST_LIMIT;
   s.txBcast = 3;
   s.portList = {vm};
   ASSERT_EQ(Write(kPort, kSecurity, s.Build()), ZEK_OK);
   std::vector<sim::WardenHashEntry> hash = sim::FlowCacheEntries("vs0");
   ASSERT_EQ(hash.size(), 1u);
   EXPECT_EQ(hash[0].portID, kPort);
   EXPECT_EQ(hash[0].entry, blobs::EntryBytes(vm));
   std::vector<sim::Invalidation> inv = sim::TakeInvalidations();
   ASSERT_EQ(inv.size(), 1u);
   EXPECT_EQ(inv[0].reason, 26u);
   EXPECT_EQ(inv[0].portID, kPort);

   VigilFilter *filter = FilterOf(kPort);
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(filter->discoveryFlags, 3u);
   EXPECT_EQ(filter->featuresEnabled, s.features);
   EXPECT_EQ(filter->bpduBitmap, 0x7fffffffull);

   using namespace frames;
   const Bytes spoofed = TcpV4(kVmMac, kGateway, "203.0.113.9", "192.0.2.1");
   const Bytes allowed = TcpV4(kVmMac, kGateway, "192.0.2.10", "192.0.2.1");
   const Bytes rogueServer = DhcpServer(kVmMac, "02:00:00:00:00:33", 2);
   const Bytes bpdu = Bpdu(kVmMac, "01:80:c2:00:00:00");
   EXPECT_EQ(Run(kPort, {spoofed, allowed, rogueServer, bpdu}, true),
             (std::vector<bool>{false, true, false, false}));
   ASSERT_EQ(survivors_.size(), 1u);
   EXPECT_EQ(survivors_[0], allowed);
   EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);
   EXPECT_EQ(filter->stats.statDhcpServerBlockDrops, 1u);
   EXPECT_EQ(filter->stats.statBpduDrops, 1u);

   /* A broadcast storm from the VM: three a second get through. */
   std::vector<Bytes> storm(10, UdpV4(kVmMac, kBroadcast, "192.0.2.10", "255.255.255.255",
                                      5000, 5001));
   EXPECT_EQ(Run(kPort, storm, true),
             (std::vector<bool>{true, true, true, false, false, false, false, false, false,
                                false}));
   EXPECT_EQ(filter->stats.statTxBcastRateDrops, 7u);
   sim::Advance(1.5);
   EXPECT_EQ(Run(kPort, storm, true),
             (std::vector<bool>{true, true, true, false, false, false, false, false, false,
                                false}));
   EXPECT_EQ(filter->stats.statTxBcastRateDrops, 14u);

   /* The VM's ARP request is learnt and published (in a new second: it is
    * a broadcast too). */
   sim::Advance(1.5);
   sim::TakePortsetMessages();
   const Bytes arp = Arp(kVmMac, kVmMac, "192.0.2.10", "192.0.2.1");
   EXPECT_EQ(Run(kPort, {arp}, true), (std::vector<bool>{true}));
   ASSERT_EQ(survivors_.size(), 1u);
   EXPECT_EQ(survivors_[0], arp);
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(filter->numVmis, 1u);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   std::vector<sim::PortsetMessage> msgs = sim::TakePortsetMessages();
   ASSERT_EQ(msgs.size(), 1u);
   EXPECT_EQ(msgs[0].portset, "vs0");
   EXPECT_EQ(msgs[0].portID, kPort);
   EXPECT_EQ(msgs[0].name, "portdb.entry.added");

   /* Towards the VM nothing of this is judged, and a port without the
    * filter is left alone. */
   EXPECT_EQ(Run(kPort, {DhcpServer(kServerMac, kVmMac, 5), bpdu}, false),
             (std::vector<bool>{true, true}));
   EXPECT_TRUE(sim::PortChains(kPort2).empty());
   EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);

   Logs();
   Unload();
   EXPECT_TRUE(sim::FlowCacheEntries("vs0").empty());
   EXPECT_EQ(sim::PortData(kPort, VIGIL_FILTER_SLOT), nullptr);
}

TEST_F(ModuleLoad, DisablingAPortTakesItsFilterAway) {
   ASSERT_EQ(Load({}), 0);
   ASSERT_TRUE(sim::AddPort("vs1", kPort));
   ASSERT_EQ(Write(kPort, kEnabled, Text("true")), ZEK_OK);
   ASSERT_NE(FilterOf(kPort), nullptr);
   ASSERT_EQ(Write(kPort, kEnabled, Text("false")), ZEK_OK);
   EXPECT_EQ(FilterOf(kPort), nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
   /* Enabled again, and left for the unload to take. */
   ASSERT_EQ(Write(kPort, kEnabled, Text("t")), ZEK_OK);
   EXPECT_EQ(sim::LiveChains(), 2u);
   Logs();
   Unload();
   EXPECT_EQ(FilterOf(kPort), nullptr);
}

/* ------------------------------------------ the port database by name */

using NumEntriesFn = zek_Status (*)(zek_PortID, u32, u32 *);
using GetEntriesFn = zek_Status (*)(zek_PortID, u32, VigilPortDbEntry *, u32, u32 *);
using DelEntriesFn = zek_Status (*)(zek_PortID, u32, const u8 *);

constexpr u8 kGuard = 0xaa; /* what the caller's buffer holds before a query */
constexpr u32 kBadParam = 0xbad0007;
const char *const kLeaseIp = "192.0.2.50";
const char *const kArpIp = "192.0.2.10";
const char *const kNdIp = "2001:db8::a";
const std::string kVm = frames::kVmMac;

/* The module loaded, a port with the filter and every discovery method on,
 * and the three functions found as a sibling module finds them. */
class PortDbByName : public ModuleLoad {
protected:
   void SetUp() override {
      ModuleLoad::SetUp();
      ASSERT_EQ(Load({}), 0);
      numEntries = (NumEntriesFn)sim::ModuleSymbol(module_, "Vigil_PortDBGetNumEntries");
      getEntries = (GetEntriesFn)sim::ModuleSymbol(module_, "Vigil_PortDBGetEntries");
      delEntries = (DelEntriesFn)sim::ModuleSymbol(module_, "Vigil_PortDBDelEntries");
      ASSERT_NE(numEntries, nullptr);
      ASSERT_NE(getEntries, nullptr);
      ASSERT_NE(delEntries, nullptr);
      ASSERT_TRUE(sim::AddPort("vs0", kPort));
      ASSERT_TRUE(sim::AddPort("vs0", kPort2));
      ASSERT_EQ(Write(kPort, kEnabled, Text("true")), ZEK_OK);
      ASSERT_EQ(Write(kPort, kDiscovery, Bytes{1, 1}), ZEK_OK);
      ASSERT_EQ(Write(kPort, kDiscovery6, blobs::Discovery6(1, 1, 10)), ZEK_OK);
      Logs();
   }

   /* A lease of kLeaseIp, the VM's ARP request from kArpIp and its
    * neighbor solicitation from kNdIp, all from kVm on VLAN 0. */
   void Learn() {
      using namespace frames;
      const addrtext::Mac mac = addrtext::MacOf(kVm);
      DhcpFields request;
      request.op = 1;
      request.xid = 0x5eed;
      request.chaddr = kVm;
      request.msgType = 3;
      request.clientId = Bytes{1, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]};
      request.requestedIp = kLeaseIp;
      request.serverId = "192.0.2.1";
      DhcpFields ack;
      ack.op = 2;
      ack.xid = 0x5eed;
      ack.chaddr = kVm;
      ack.msgType = 5;
      ack.yiaddr = kLeaseIp;
      ack.siaddr = "192.0.2.1";
      ack.serverId = "192.0.2.1";
      ack.leaseTime = 3600;
      NdFields ns;
      ns.type = 135;
      ns.target = "2001:db8::1";
      EXPECT_EQ(Run(kPort,
                    {DhcpFrame(kVm, kBroadcast, "0.0.0.0", "255.255.255.255", 68, 67, request),
                     Arp(kVm, kVm, kArpIp, "192.0.2.1"),
                     NdFrame(kVm, "33:33:ff:00:00:01", {kNdIp, "ff02::1:ff00:1", 255}, ns)},
                    true),
                (std::vector<bool>{true, true, true}));
      EXPECT_EQ(Run(kPort, {DhcpFrame(kServerMac, kVm, "192.0.2.1", kLeaseIp, 67, 68, ack)},
                    false),
                (std::vector<bool>{true}));
      VigilFilter *filter = FilterOf(kPort);
      ASSERT_NE(filter, nullptr);
      ASSERT_EQ(filter->numDhcpVmis, 1u);
      ASSERT_EQ(filter->numArpVmis, 1u);
      ASSERT_EQ(filter->numNdEntries, 1u);
      ASSERT_TRUE(sim::WaitIdle(5.0));
      sim::TakePortsetMessages();
      Logs();
   }

   u32 Count(u32 cls) {
      u32 count = 0xdeadbeef;
      EXPECT_EQ(numEntries(kPort, cls, &count), ZEK_OK) << cls;
      return count;
   }

   /* The entries of a class in a buffer of `room` entries that held
    * kGuard, with room for `capacity` of them. */
   Bytes Entries(u32 cls, u32 capacity, u32 room, u32 *count) {
      Bytes buffer(room * sizeof(VigilPortDbEntry), kGuard);
      *count = 0xdeadbeef;
      EXPECT_EQ(getEntries(kPort, cls, (VigilPortDbEntry *)buffer.data(), capacity, count),
                ZEK_OK);
      return buffer;
   }

   static Bytes Slice(const Bytes &bytes, size_t at, size_t len) {
      return Bytes(bytes.begin() + (long)at, bytes.begin() + (long)(at + len));
   }

   std::vector<std::string> Messages() {
      EXPECT_TRUE(sim::WaitIdle(5.0));
      std::vector<std::string> out;
      for (const sim::PortsetMessage &msg : sim::TakePortsetMessages()) {
         out.push_back(portdbtext::MessageText(msg.bytes));
      }
      return out;
   }

   NumEntriesFn numEntries = nullptr;
   GetEntriesFn getEntries = nullptr;
   DelEntriesFn delEntries = nullptr;
};

TEST_F(PortDbByName, NumEntriesOfEachClassFromTheLoadedModule) {
   Learn();
   EXPECT_EQ(Count(0), 1u) << "the lease";
   EXPECT_EQ(Count(1), 2u) << "ARP and ND";
   EXPECT_EQ(Count(2), 3u);
   EXPECT_EQ(Count(3), 0u);
   EXPECT_EQ(numEntries(kPort, 0, nullptr), kBadParam);
   u32 count = 7;
   EXPECT_EQ(numEntries(kPort2, 0, &count), kNotFound);
   EXPECT_EQ(count, 7u);
   EXPECT_TRUE(Logs().empty());
}

TEST_F(PortDbByName, EntriesOfEachClassFromTheLoadedModule) {
   using portdbtext::V4Entry;
   using portdbtext::V6Entry;
   Learn();
   u32 count = 0;
   Bytes all = Entries(2, 8, 8, &count);
   ASSERT_EQ(count, 3u);
   /* The ARP binding ends in ten minutes, the lease in an hour. */
   EXPECT_EQ(Slice(all, 0, 32), V4Entry(0, kVm, kArpIp, 0, 2, kGuard));
   EXPECT_EQ(Slice(all, 32, 32), V4Entry(0, kVm, kLeaseIp, 1, 1, kGuard));
   EXPECT_EQ(Slice(all, 64, 32), V6Entry(0, kVm, kNdIp, 8, kGuard));
   EXPECT_EQ(Slice(all, 96, 160), Bytes(160, kGuard));

   Bytes assigned = Entries(0, 8, 2, &count);
   ASSERT_EQ(count, 1u);
   EXPECT_EQ(Slice(assigned, 0, 32), V4Entry(0, kVm, kLeaseIp, 1, 1, kGuard));
   EXPECT_EQ(Slice(assigned, 32, 32), Bytes(32, kGuard));

   Bytes snooped = Entries(1, 8, 3, &count);
   ASSERT_EQ(count, 2u);
   EXPECT_EQ(Slice(snooped, 0, 32), V4Entry(0, kVm, kArpIp, 0, 2, kGuard));
   EXPECT_EQ(Slice(snooped, 32, 32), V6Entry(0, kVm, kNdIp, 8, kGuard));

   Bytes none = Entries(3, 8, 2, &count);
   EXPECT_EQ(count, 0u);
   EXPECT_EQ(none, Bytes(64, kGuard));

   /* Room for one: the binding that ends first. */
   Bytes one = Entries(2, 1, 2, &count);
   ASSERT_EQ(count, 1u);
   EXPECT_EQ(Slice(one, 0, 32), V4Entry(0, kVm, kArpIp, 0, 2, kGuard));
   EXPECT_EQ(Slice(one, 32, 32), Bytes(32, kGuard));
   EXPECT_TRUE(Logs().empty());
}

TEST_F(PortDbByName, EntriesRefuseNullPointersAndAPortWithoutFilter) {
   VigilPortDbEntry entries[2];
   u32 count = 7;
   EXPECT_EQ(getEntries(kPort, 2, nullptr, 2, &count), kBadParam);
   EXPECT_EQ(getEntries(kPort, 2, entries, 2, nullptr), kBadParam);
   EXPECT_EQ(getEntries(kPort2, 2, entries, 2, &count), kNotFound);
   EXPECT_EQ(count, 7u);
   EXPECT_TRUE(Logs().empty());
}

TEST_F(PortDbByName, DelEntriesTakesTheBindingAwayWithItsMessage) {
   Learn();
   const addrtext::Mac mac = addrtext::MacOf(kVm);
   EXPECT_EQ(delEntries(kPort, addrtext::Ip(kArpIp), mac.data()), ZEK_OK);
   EXPECT_EQ(Messages(), (std::vector<std::string>{
                            portdbtext::Msg("removed", 0, kVm, kArpIp, 2)}));
   EXPECT_EQ(Count(1), 1u);
   EXPECT_EQ(Count(2), 2u);
   /* Once gone, not found; another MAC's binding is not the VM's. */
   EXPECT_EQ(delEntries(kPort, addrtext::Ip(kArpIp), mac.data()), kNotFound);
   const addrtext::Mac other = addrtext::MacOf("02:00:00:00:00:77");
   EXPECT_EQ(delEntries(kPort, addrtext::Ip(kLeaseIp), other.data()), kNotFound);
   EXPECT_EQ(delEntries(kPort, addrtext::Ip(kLeaseIp), nullptr), kBadParam);
   EXPECT_EQ(Count(0), 1u);
   EXPECT_TRUE(Logs().empty());
}

TEST_F(PortDbByName, DelEntriesOnAPortWithoutFilterSaysSoInDecimal) {
   const addrtext::Mac mac = addrtext::MacOf(kVm);
   EXPECT_EQ(delEntries(kPort2, addrtext::Ip(kArpIp), mac.data()), kNotFound);
   std::vector<sim::LogLine> lines = Logs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].log, "vigil");
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].text, "Vigil filter not found for port 33");
}

TEST_F(PortDbByName, ExpiredArpBindingIsListedButCannotBeDeleted) {
   Learn();
   /* Expired ARP bindings are kept rather than deleted. */
   i64 *keep = (i64 *)sim::ModuleSymbol(module_, "delOnExpiry");
   ASSERT_NE(keep, nullptr);
   *keep = 0;
   sim::Advance(601);
   VigilFilter *filter = FilterOf(kPort);
   ASSERT_EQ(filter->numExpiredVmis, 1u);
   EXPECT_EQ(Messages(), std::vector<std::string>{}) << "kept, no message";
   EXPECT_EQ(Count(1), 2u);
   u32 count = 0;
   Bytes snooped = Entries(1, 8, 3, &count);
   ASSERT_EQ(count, 2u);
   EXPECT_EQ(Slice(snooped, 0, 32), portdbtext::V4Entry(0, kVm, kArpIp, 0, 2, kGuard));
   const addrtext::Mac mac = addrtext::MacOf(kVm);
   EXPECT_EQ(delEntries(kPort, addrtext::Ip(kArpIp), mac.data()), kNotFound);
   EXPECT_EQ(filter->numExpiredVmis, 1u);
   EXPECT_EQ(Count(1), 2u);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
   Logs();
}

} // namespace
