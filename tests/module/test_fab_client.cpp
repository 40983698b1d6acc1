/*
 * Switch client registration: the module registers with every portset of
 * the class "vswitch" at start and then follows the portsets' activate and
 * deactivate events; a failed registration leaves nothing behind.
 */
#include <cstring>
#include <string>
#include <vector>

#include "sim_switch.h"
#include "vigil_lifecycle.h"
#include "vigil_switch.h"
#include "vigil_test.h"
#include "vigil_locks.h"

namespace {

/* The Transit carrier's registration, as the test drives it: put in the
 * module's table of Transit callees for each test, counting its calls and
 * answering transitStatus. */
zek_Status transitStatus = ZEK_OK;
u32 transitCalls = 0;

zek_Status ScriptedTransitRegister(const char *portsetName, VigilFabClientHandles *client) {
   (void)portsetName, (void)client;
   transitCalls++;
   return transitStatus;
}

constexpr u32 kExists = 0xbad0005;
constexpr u32 kInvalidData = 0xbad0001;
constexpr u32 kNoMemory = 0xbad0014;

class FabClient : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      isLiveUpgrade = false;
      transitStatus = ZEK_OK;
      transitCalls = 0;
      vigilTransitCallees.transitRegister = ScriptedTransitRegister;
   }

   void TearDown() override {
      sim::FaultClear();
      Vigil_FabClientCleanup();
      vigilTransitCallees = vigilTransitModuleCallees;
      isLiveUpgrade = false;
      transitStatus = ZEK_OK;
      EXPECT_EQ(vigilFabClientLock, VIGIL_NO_LOCK);
      EXPECT_EQ(vigilFabVswitchActivateEventHandle, nullptr);
      EXPECT_EQ(vigilFabVswitchDeactivateEventHandle, nullptr);
      EXPECT_TRUE(sim::Subscriptions().empty());
      EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
      VigilTest::TearDown();
   }

   std::vector<std::string> RecordNames() {
      std::vector<std::string> names;
      VIGIL_LIST_FOR_EACH(pos, &vigilFabClientHandlesList) {
         VigilFabClientHandles *c = VIGIL_LIST_ENTRY(pos, VigilFabClientHandles, links);
         names.push_back(std::string(c->portsetName,
                                     strnlen(c->portsetName, sizeof c->portsetName)));
      }
      return names;
   }

   std::vector<std::pair<int, std::string>> Lines() {
      std::vector<std::pair<int, std::string>> out;
      for (const sim::LogLine &line : TakeModuleLogs()) {
         out.push_back({line.level, line.text});
      }
      return out;
   }

   /* The lines of the given level only. */
   std::vector<std::string> At(int level) {
      std::vector<std::string> out;
      for (const sim::LogLine &line : TakeModuleLogs()) {
         if (line.level == level) {
            out.push_back(line.text);
         }
      }
      return out;
   }

   bool Contains(const std::vector<std::string> &texts, const std::string &text) {
      for (const std::string &t : texts) {
         if (t == text) {
            return true;
         }
      }
      return false;
   }
};

using Said = std::vector<std::pair<int, std::string>>;
const size_t kProps = VIGIL_NUM_PROPS;

const std::string kActivate = "com.norvex.oxa.vswitch.activate.7000";
const std::string kDeactivate = "com.norvex.oxa.vswitch.deactivate.7000";

TEST_F(FabClient, StartRegistersEveryVswitchPortsetAndSkipsOthers) {
   sim::AddPortset("vs1");
   sim::AddPortset("host0", "hostonly");
   EXPECT_EQ(Vigil_FabClientInit(), ZEK_OK);
   EXPECT_EQ(sim::Subscriptions(), (std::vector<std::string>{kActivate, kDeactivate}));
   EXPECT_EQ(sim::VswitchEventName("activate"), kActivate);
   EXPECT_EQ(sim::RegisteredProperties("vs0").size(), kProps);
   EXPECT_EQ(sim::RegisteredProperties("vs1").size(), kProps);
   EXPECT_TRUE(sim::RegisteredProperties("host0").empty());
   /* Each record goes first in the list. */
   EXPECT_EQ(RecordNames(), (std::vector<std::string>{"vs1", "vs0"}));
   VigilFabClientHandles *vs0 = VigilFabGetClientHandlesByPSName("vs0");
   ASSERT_NE(vs0, nullptr);
   for (size_t i = 0; i < kProps; i++) {
      EXPECT_NE(vs0->propHandles[i], nullptr) << i;
   }
   EXPECT_EQ(VigilFabGetClientHandlesByPSName("host0"), nullptr);
   EXPECT_EQ(sim::LockName(vigilFabClientLock), "vigil.FabClient");
   std::vector<std::string> info = At(1);
   EXPECT_TRUE(Contains(info, "Skipping FAB Client registration for portset class hostonly"));
   EXPECT_TRUE(Contains(info, "Vigil Registering FAB CBs for ps vs0"));
   EXPECT_TRUE(Contains(info, "Vigil Registering FAB CBs for ps vs1"));
}

TEST_F(FabClient, PortsetWhoseClassCannotBeReadIsSkipped) {
   sim::AddPortset("vs1");
   /* A class name that does not fit the 128-byte buffer cannot be read. */
   sim::AddPortset("long0", std::string(130, 'c'));
   sim::FaultCall("PortsetLookupFABClassName", kInvalidData);
   EXPECT_EQ(Vigil_FabClientInit(), ZEK_OK);
   EXPECT_EQ(RecordNames(), (std::vector<std::string>{"vs1"}));
   EXPECT_TRUE(sim::RegisteredProperties("vs0").empty());
   EXPECT_EQ(sim::RegisteredProperties("vs1").size(), kProps);
   EXPECT_TRUE(sim::RegisteredProperties("long0").empty());
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_GE(lines.size(), 2u);
   EXPECT_EQ(lines.front().level, 1);
   EXPECT_EQ(lines.front().text, "Skipping FAB Client registration for ps vs0 Invalid data");
   EXPECT_EQ(lines.back().level, 1);
   EXPECT_EQ(lines.back().text, "Skipping FAB Client registration for ps long0 Overflow");
}

TEST_F(FabClient, ActivateOfARegisteredPortsetIsAlreadyExists) {
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   Lines();
   zek_PortsetHandle ps = sim::FindPortset("vs0");
   EXPECT_EQ(VigilFabVswitchActivateCB(nullptr, kActivate.c_str(), nullptr, ps), kExists);
   EXPECT_EQ(Lines(), (Said{{1, "Clients already registered for ps vs0"},
                            {2, "Failed to register FAB Clients for ps vs0"}}));
   EXPECT_EQ(sim::LiveClientRegistrations(), kProps);
   EXPECT_EQ(RecordNames(), (std::vector<std::string>{"vs0"}));
}

TEST_F(FabClient, EventsTakeThePortsetFromTheirFourthArgument) {
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   /* The host raises the event as a portset comes. */
   sim::AddPortset("vs2");
   EXPECT_EQ(sim::RegisteredProperties("vs2").size(), kProps);
   EXPECT_EQ(RecordNames(), (std::vector<std::string>{"vs2", "vs0"}));

   /* Neither callback looks at the other arguments, nor at the class. */
   zek_PortsetHandle other = sim::AddPortset("host1", "hostonly");
   EXPECT_EQ(sim::RegisteredProperties("host1").size(), kProps);
   int junk = 0;
   EXPECT_EQ(VigilFabVswitchDeactivateCB((void *)&junk, "not.an.event", &junk, other),
             ZEK_OK);
   EXPECT_TRUE(sim::RegisteredProperties("host1").empty());
   EXPECT_EQ(VigilFabVswitchActivateCB((void *)&junk, "not.an.event", &junk, other), ZEK_OK);
   EXPECT_EQ(sim::RegisteredProperties("host1").size(), kProps);

   /* As a portset goes, the host raises the deactivate event first. */
   sim::RemovePortset("host1");
   sim::RemovePortset("vs2");
   EXPECT_TRUE(sim::RegisteredProperties("vs2").empty());
   EXPECT_EQ(RecordNames(), (std::vector<std::string>{"vs0"}));
   EXPECT_EQ(sim::LiveClientRegistrations(), kProps);
}

TEST_F(FabClient, DeactivateOfAnUnknownPortsetIsSuccess) {
   sim::AddPortset("host0", "hostonly");
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   Lines();
   EXPECT_EQ(VigilFabVswitchDeactivateCB(nullptr, kDeactivate.c_str(), nullptr,
                                         sim::FindPortset("host0")),
             ZEK_OK);
   EXPECT_EQ(Lines(), (Said{{1, "Clients not registered for ps host0"}}));
   EXPECT_EQ(VigilFabUnregisterClients("nope"), ZEK_OK);
   EXPECT_EQ(Lines(), (Said{{1, "Clients not registered for ps nope"}}));
   EXPECT_EQ(RecordNames(), (std::vector<std::string>{"vs0"}));
}

/* The lines with which Vigil_FabPropUnregister takes a portset's five
 * handlers away, last property first. */
Said UnregisterLines(const std::string &portset) {
   /* The Transit client goes first, then the property handlers. */
   Said said = {{1, "Vigil Unegistering TRANSIT CBs for ps " + portset},
                {1, "Vigil Unegistering FAB CBs for ps " + portset}};
   for (size_t i = kProps; i-- > 0;) {
      said.push_back({1, std::string("Unregistered vigil property handler ") + vigilPropNames[i]});
   }
   return said;
}

Said Concat(Said a, const Said &b) {
   a.insert(a.end(), b.begin(), b.end());
   return a;
}

TEST_F(FabClient, StopUnregistersEveryRegisteredPortsetOldestFirst) {
   sim::AddPortset("vs1");
   sim::AddPortset("host0", "hostonly");
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   u64 live = sim::GetHeapStats(heapID).allocations;
   Lines();
   Vigil_FabClientCleanup();
   EXPECT_TRUE(sim::Subscriptions().empty());
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
   EXPECT_EQ(vigilFabClientLock, VIGIL_NO_LOCK);
   EXPECT_TRUE(RecordNames().empty());
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live - 2);
   /* Only what was registered is visited: nothing is said of host0. */
   EXPECT_EQ(Lines(), Concat(UnregisterLines("vs0"), UnregisterLines("vs1")));
   /* A second stop finds nothing to do. */
   Vigil_FabClientCleanup();
   EXPECT_TRUE(Lines().empty());
}

TEST_F(FabClient, StopUnregistersAPortsetOfAnotherClassThatItsActivateEventRegistered) {
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   /* The activate event does not look at the class. */
   sim::AddPortset("other0", "other");
   ASSERT_EQ(sim::RegisteredProperties("other0").size(), kProps);
   ASSERT_EQ(RecordNames(), (std::vector<std::string>{"other0", "vs0"}));
   u64 live = sim::GetHeapStats(heapID).allocations;
   Lines();
   Vigil_FabClientCleanup();
   EXPECT_TRUE(sim::RegisteredProperties("other0").empty());
   EXPECT_TRUE(sim::RegisteredProperties("vs0").empty());
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
   EXPECT_TRUE(RecordNames().empty());
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live - 2);
   EXPECT_EQ(Lines(), Concat(UnregisterLines("vs0"), UnregisterLines("other0")));
}

TEST_F(FabClient, StopDoesNotDependOnReadingThePortsetsClasses) {
   sim::AddPortset("vs1");
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   Lines();
   sim::FaultCall("PortsetLookupFABClassName", kInvalidData, 10);
   Vigil_FabClientCleanup();
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
   EXPECT_TRUE(RecordNames().empty());
   EXPECT_EQ(Lines(), Concat(UnregisterLines("vs0"), UnregisterLines("vs1")));
}

TEST_F(FabClient, StopKeepsGoingPastAHandlerThatCannotBeUnregistered) {
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   VigilFabClientHandles *vs0 = VigilFabGetClientHandlesByPSName("vs0");
   ASSERT_NE(vs0, nullptr);
   zek_FABClientHandle security = vs0->propHandles[VIGIL_PROP_SECURITY];
   Lines();
   /* The security handler, unregistered first, stays with the switch. */
   sim::FaultCall("FABClientPortUnregister", kInvalidData);
   Vigil_FabClientCleanup();
   EXPECT_TRUE(RecordNames().empty());
   std::vector<std::pair<int, std::string>> lines = Lines();
   Said expected = UnregisterLines("vs0");
   expected[2] = {2, "Failed to unregister com.norvex.vswitch.port.vigil.security"};
   EXPECT_EQ(lines, expected);
   EXPECT_EQ(sim::RegisteredProperties("vs0"),
             (std::vector<std::string>{"com.norvex.vswitch.port.vigil.security"}));
   /* The switch still holds that one registration; the test hands it back
    * so that the fixture finds the host clean. */
   EXPECT_EQ(sim::LiveClientRegistrations(), 1u);
   EXPECT_EQ(zek_FABClientPortUnregister(security), ZEK_OK);
}

TEST_F(FabClient, LockFailureAtStartLeavesNothing) {
   sim::FaultCall("SpinlockCreate", kNoMemory);
   EXPECT_EQ(Vigil_FabClientInit(), kNoMemory);
   EXPECT_EQ(Lines(), (Said{{2, "zek_Spinlock create failed: Out of memory"},
                            {2, "Failed to create FabClient Lock: Out of memory"}}));
   EXPECT_EQ(vigilFabClientLock, VIGIL_NO_LOCK);
   EXPECT_TRUE(sim::Subscriptions().empty());
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);

   sim::FaultCall("NameInitialize", kInvalidData);
   EXPECT_EQ(Vigil_FabClientInit(), kInvalidData);
   EXPECT_EQ(Lines(), (Said{{2, "zek_NameFormat failed: Invalid data"},
                            {2, "Failed to create FabClient Lock: Invalid data"}}));
   EXPECT_EQ(vigilFabClientLock, VIGIL_NO_LOCK);
   EXPECT_TRUE(sim::Subscriptions().empty());
}

TEST_F(FabClient, SubscriptionFailuresAtStartLeaveNothing) {
   u32 locks = sim::LiveLocks();
   sim::FaultCall("NetEventPortsetEventSubscribe", kNoMemory);
   EXPECT_EQ(Vigil_FabClientInit(), kNoMemory);
   /* Nothing was registered yet: the clean-up has nothing to say. */
   EXPECT_EQ(Lines(), (Said{{2, "Failed to subscribe to Vswitch Activate Event"}}));
   EXPECT_TRUE(sim::Subscriptions().empty());
   EXPECT_EQ(vigilFabClientLock, VIGIL_NO_LOCK);
   EXPECT_EQ(sim::LiveLocks(), locks);

   sim::FaultCall("NetEventPortsetEventSubscribe", kInvalidData, 1, 1);
   EXPECT_EQ(Vigil_FabClientInit(), kInvalidData);
   EXPECT_EQ(Lines(), (Said{{2, "Failed to subscribe to Vswitch Deactivate Event"}}));
   EXPECT_TRUE(sim::Subscriptions().empty());
   EXPECT_EQ(vigilFabClientLock, VIGIL_NO_LOCK);
   EXPECT_EQ(vigilFabVswitchActivateEventHandle, nullptr);
   EXPECT_EQ(sim::LiveLocks(), locks);
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
}

TEST_F(FabClient, RegistrationFailureAtStartUndoesTheRegistrationsMadeSoFar) {
   sim::AddPortset("vs1");
   u64 live = sim::GetHeapStats(heapID).allocations;
   u32 locks = sim::LiveLocks();
   /* vs0 gets all five, vs1 fails at its third. */
   sim::FaultCall("FABClientPortRegister", kInvalidData, 1, 7);
   EXPECT_EQ(Vigil_FabClientInit(), kInvalidData);
   std::vector<std::string> errors = At(2);
   EXPECT_EQ(errors, (std::vector<std::string>{
                        "Failed to register vigil fab property "
                        "com.norvex.vswitch.port.vigil.discovery.ipv6(Invalid data)",
                        "Failed to register FAB Props CBs for ps vs1",
                        "Failed to register FAB clients for active portsets"}));
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
   EXPECT_TRUE(sim::Subscriptions().empty());
   EXPECT_EQ(vigilFabClientLock, VIGIL_NO_LOCK);
   EXPECT_TRUE(RecordNames().empty());
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
   EXPECT_EQ(sim::LiveLocks(), locks);
}

TEST_F(FabClient, FailedPropertyRegistrationFreesTheRecord) {
   /* Of another class: not registered at start. */
   sim::AddPortset("vs2", "other");
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   Lines();
   u64 live = sim::GetHeapStats(heapID).allocations;
   sim::FaultCall("FABClientPortRegister", kInvalidData, 1, 3);
   EXPECT_EQ(VigilFabRegisterClients("vs2"), kInvalidData);
   EXPECT_EQ(At(2), (std::vector<std::string>{
                       "Failed to register vigil fab property "
                       "com.norvex.vswitch.port.vigil.discovery.ignorelist(Invalid data)",
                       "Failed to register FAB Props CBs for ps vs2"}));
   EXPECT_TRUE(sim::RegisteredProperties("vs2").empty());
   EXPECT_EQ(RecordNames(), (std::vector<std::string>{"vs0"}));
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
}

TEST_F(FabClient, RecordAllocationFailureIsOutOfMemory) {
   /* Of another class: not registered at start. */
   sim::AddPortset("vs2", "other");
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   Lines();
   sim::FaultAlloc(1);
   EXPECT_EQ(VigilFabRegisterClients("vs2"), kNoMemory);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].text, "Failed to allocate client handles for registering CBs");
   EXPECT_NE(lines[0].raw.find("errorCode=\"ULM20\""), std::string::npos) << lines[0].raw;
   EXPECT_TRUE(sim::RegisteredProperties("vs2").empty());
   EXPECT_EQ(RecordNames(), (std::vector<std::string>{"vs0"}));
}

TEST_F(FabClient, FailedTransitRegistrationLeavesNoPropertyRegistered) {
   /* Of another class: not registered at start. */
   sim::AddPortset("vs2", "other");
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   Lines();
   u64 live = sim::GetHeapStats(heapID).allocations;
   u32 calls = transitCalls;
   transitStatus = kInvalidData;
   EXPECT_EQ(VigilFabRegisterClients("vs2"), kInvalidData);
   ASSERT_EQ(transitCalls, calls + 1)
      << "the Transit registration no longer goes through the table of Transit "
         "callees: fail the carrier's registration another way";
   EXPECT_EQ(At(2), (std::vector<std::string>{"Failed to register Transit CBs for ps vs2"}));
   EXPECT_TRUE(sim::RegisteredProperties("vs2").empty());
   EXPECT_EQ(RecordNames(), (std::vector<std::string>{"vs0"}));
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, live);
   EXPECT_EQ(sim::LiveClientRegistrations(), kProps);
}

TEST_F(FabClient, LiveUpgradeStartWaitsForActivateEvents) {
   isLiveUpgrade = true;
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   EXPECT_EQ(sim::Subscriptions(), (std::vector<std::string>{kActivate, kDeactivate}));
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
   EXPECT_TRUE(RecordNames().empty());

   sim::RaiseEvent(kActivate, sim::FindPortset("vs0"));
   EXPECT_EQ(sim::RegisteredProperties("vs0").size(), kProps);
   sim::AddPortset("vs1");
   EXPECT_EQ(sim::RegisteredProperties("vs1").size(), kProps);
   EXPECT_EQ(RecordNames(), (std::vector<std::string>{"vs1", "vs0"}));
}

TEST_F(FabClient, PortsetNamesAreComparedOverTheirFirst128Bytes) {
   std::string base(128, 'n');
   sim::AddPortset(base + "a");
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   std::vector<std::string> names = RecordNames();
   ASSERT_EQ(names.size(), 2u);
   EXPECT_EQ(names[0], base);
   EXPECT_EQ(names[1], "vs0");
   EXPECT_EQ(sim::RegisteredProperties(base + "a").size(), kProps);
   Lines();
   /* A second name that differs only beyond them counts as the first. */
   sim::AddPortset(base + "b");
   EXPECT_TRUE(sim::RegisteredProperties(base + "b").empty());
   EXPECT_EQ(VigilFabVswitchActivateCB(nullptr, kActivate.c_str(), nullptr,
                                       sim::FindPortset(base + "b")),
             kExists);
   EXPECT_EQ(RecordNames().size(), 2u);
   std::vector<std::string> info = At(1);
   ASSERT_FALSE(info.empty());
   EXPECT_EQ(info[0], "Clients already registered for ps " + base + "b");
}

} // namespace
