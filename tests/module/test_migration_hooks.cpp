/*
 * The migration carriers' hooks: the subscription to the live upgrade
 * service (RTM) and the client it registers when the service announces
 * itself, the six operations of its table, the live-upgrade flags, and the
 * Transit client of a portset with its four operations.  The carriers are
 * the simulated host's own: the service's event and record, and the
 * switch's Transit calls.
 */
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "rtm.h"
#include "sim_migration.h"
#include "vigil_lifecycle.h"
#include "vigil_migration.h"
#include "vigil_switch.h"
#include "vigil_test.h"

namespace {

constexpr u32 kPort = 0x10;
constexpr u32 kPort2 = 0x11;
constexpr u32 kEmptySaveLen = 60; /* header and five empty TLVs */
constexpr zek_Status kNotFound = 0xbad0003;
constexpr zek_Status kBadParam = 0xbad0007;
constexpr zek_Status kNoMemory = 0xbad0014;
const char *const kEvent = "com.norvex.oxa.rtm.client";
const char *const kTransitClient = "com.norvex.vigil.transit";

using Bytes = std::vector<u8>;
using Line = std::pair<int, std::string>; /* level, text */

/* The line's error code, "" for the plain tag. */
std::string CodeOf(const sim::LogLine &line) {
   const std::string key = "errorCode=\"ULM";
   size_t at = line.raw.find(key);
   if (at == std::string::npos) return "";
   size_t end = line.raw.find('"', at + key.size());
   return line.raw.substr(at + key.size(), end - at - key.size());
}

class MigrationHooksTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      ASSERT_EQ(VigilMigrationInit(), ZEK_OK);
      ASSERT_EQ(vigilRtmClient, nullptr);
      ASSERT_EQ(vigilRtmEventHandle, nullptr);
      isLiveUpgrade = false;
      isLiveUpgradeFromMod = 0;
      std::memset(&client_, 0, sizeof client_);
      std::memcpy(client_.portsetName, "vs0", 4);
      TakeModuleLogs();
   }

   void TearDown() override {
      sim::SetLogLevel("vigil", 0);
      sim::FaultClear();
      if (vigilRtmClient != nullptr) {
         EXPECT_EQ(Deliver(Withdrawal(true)), ZEK_OK);
      }
      if (vigilRtmEventHandle != nullptr) {
         EXPECT_EQ(VigilRtmUnsubscribe(), ZEK_OK);
      }
      if (client_.transitHandle != nullptr) {
         EXPECT_EQ(Vigil_TransitUnregister(&client_), ZEK_OK);
      }
      EXPECT_EQ(vigilRtmClient, nullptr);
      EXPECT_EQ(sim::LiveRtmClients(), 0u);
      EXPECT_EQ(sim::LiveTransitClients(), 0u);
      EXPECT_TRUE(sim::Subscriptions().empty());
      /* Whatever a failed test left, the next starts clean. */
      vigilRtmClient = nullptr;
      vigilRtmEventHandle = nullptr;
      isLiveUpgrade = false;
      isLiveUpgradeFromMod = 0;
      VigilTest::TearDown();
   }

   /* The lines written since the last call, level and text. */
   std::vector<Line> Lines() {
      std::vector<Line> out;
      for (const sim::LogLine &line : TakeModuleLogs()) out.push_back({line.level, line.text});
      return out;
   }

   /* The service's announcement as the event gives it, to hand to the
    * module's callback directly when its status matters. */
   static oxa_RtmEventData Announcement(int32_t version, u32 buildNum, bool withCallback) {
      sim::RtmAnnouncement a;
      a.version = version;
      a.buildNum = buildNum;
      a.withCallback = withCallback;
      sim::RtmAnnounce(a); /* nobody subscribed: only the record is made */
      return sim::RtmLastEventData();
   }
   static oxa_RtmEventData Withdrawal(bool withCallback) {
      sim::RtmWithdraw(withCallback);
      return sim::RtmLastEventData();
   }
   static zek_Status Deliver(oxa_RtmEventData record) {
      return VigilRtmRegUnregEventCB(nullptr, kEvent, &vigilRtmEventData, &record);
   }

   VigilFabClientHandles client_;
};

/* ------------------------------------------------------- subscription */

TEST_F(MigrationHooksTest, SubscriptionLogsAndListensToTheServicesEvent) {
   EXPECT_EQ(VigilRtmSubscribe(), ZEK_OK);
   EXPECT_NE(vigilRtmEventHandle, nullptr);
   EXPECT_EQ(sim::Subscriptions(), (std::vector<std::string>{kEvent}));
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil Subscribing to RTM Event"}}));
   EXPECT_EQ(VigilRtmUnsubscribe(), ZEK_OK);
   EXPECT_EQ(vigilRtmEventHandle, nullptr);
   EXPECT_TRUE(sim::Subscriptions().empty());
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil Unsubscribing to RTM Event"}}));
}

TEST_F(MigrationHooksTest, FailedSubscriptionIsLoggedWithItsCodeAndReturned) {
   sim::FaultCall("NetEventPortsetEventSubscribe", kNoMemory);
   EXPECT_EQ(VigilRtmSubscribe(), kNoMemory);
   EXPECT_EQ(vigilRtmEventHandle, nullptr);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[1].level, 2);
   EXPECT_EQ(lines[1].text, "Vigil Failed to register RTM callback");
   EXPECT_EQ(CodeOf(lines[1]), "20");
}

TEST_F(MigrationHooksTest, UnsubscribeWithoutSubscriptionOnlyLogs) {
   EXPECT_EQ(VigilRtmUnsubscribe(), ZEK_OK);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil Unsubscribing to RTM Event"}}));
}

TEST_F(MigrationHooksTest, FailedUnsubscriptionKeepsTheHandleForAnotherTry) {
   ASSERT_EQ(VigilRtmSubscribe(), ZEK_OK);
   zek_NetEventHandle handle = vigilRtmEventHandle;
   Lines();
   sim::FaultCall("NetEventPortsetEventUnsubscribe", 0xbad0001);
   EXPECT_EQ(VigilRtmUnsubscribe(), 0xbad0001u);
   EXPECT_EQ(vigilRtmEventHandle, handle);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[1].level, 2);
   EXPECT_EQ(lines[1].text, "Vigil Failed to unsubscribe to event OXA_RTM_CLIENT_REG_UNREG");
   EXPECT_EQ(CodeOf(lines[1]), "1");
   EXPECT_EQ(VigilRtmUnsubscribe(), ZEK_OK);
   EXPECT_EQ(vigilRtmEventHandle, nullptr);
}

/* ------------------------------------------------------ the announcement */

TEST_F(MigrationHooksTest, AnnouncementRegistersTheClientWithItsTableUnderTheServicesId) {
   ASSERT_EQ(VigilRtmSubscribe(), ZEK_OK);
   Lines();
   sim::RtmAnnounce();
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "vigilBuild 7000 "}, {1, "RTM Register Event"}}));
   std::vector<sim::RtmClientInfo> clients = sim::RtmClients();
   ASSERT_EQ(clients.size(), 1u);
   EXPECT_EQ(clients[0].handle, vigilRtmClient);
   EXPECT_EQ(clients[0].name, "port-vigil");
   EXPECT_EQ(clients[0].moduleID, 0x51u);
   EXPECT_TRUE(clients[0].hasOps);
   EXPECT_EQ(clients[0].pushedID, sim::kRtmModuleID);
   /* The push was popped again. */
   EXPECT_EQ(zek_ModuleCurrentID(), 0x51u);
   EXPECT_STREQ(vigilRtmClientName, "port-vigil");
}

TEST_F(MigrationHooksTest, NullEventDataIsRefused) {
   EXPECT_EQ(VigilRtmRegUnregEventCB(nullptr, kEvent, &vigilRtmEventData, nullptr), kBadParam);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "vigilBuild 7000 "}, {1, "RTM Event data is NULL"}}));
}

TEST_F(MigrationHooksTest, VersionTwoWithTheRightBuildRegistersWithoutATable) {
   EXPECT_EQ(Deliver(Announcement(2, 7000, true)), ZEK_OK);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "vigilBuild 7000 "},
                                         {1, "RTM Register Event"},
                                         {1, "Unsupported RTM Version 2"}}));
   ASSERT_EQ(sim::RtmClients().size(), 1u);
   EXPECT_FALSE(sim::RtmClients()[0].hasOps);
   EXPECT_EQ(sim::RtmClients()[0].handle, vigilRtmClient);
   u32 size = 0;
   EXPECT_EQ(sim::RtmGetSize(vigilRtmClient, kPort, &size), 0xbad0020u);
}

TEST_F(MigrationHooksTest, VersionZeroRegistersWithTheTableWhateverTheBuild) {
   EXPECT_EQ(Deliver(Announcement(0, 1, true)), ZEK_OK);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "vigilBuild 7000 "}, {1, "RTM Register Event"}}));
   ASSERT_EQ(sim::RtmClients().size(), 1u);
   EXPECT_TRUE(sim::RtmClients()[0].hasOps);
   EXPECT_EQ(sim::RtmPrefetch(vigilRtmClient, kPort), ZEK_OK);
}

TEST_F(MigrationHooksTest, VersionOneOfAnotherBuildSkipsAndTheWithdrawalFindsNoClient) {
   EXPECT_EQ(Deliver(Announcement(1, 7001, true)), ZEK_OK);
   EXPECT_EQ(Lines(), (std::vector<Line>{
                         {1, "vigilBuild 7000 "},
                         {1, "RTM Register Event"},
                         {1, "Vigil build 7000 eventData->buildNum 7001do not match, Skip "
                             "registration for port-vigil"}}));
   EXPECT_EQ(sim::LiveRtmClients(), 0u);
   EXPECT_EQ(vigilRtmClient, nullptr);
   EXPECT_EQ(Deliver(Withdrawal(true)), ZEK_OK);
   EXPECT_EQ(Lines(), (std::vector<Line>{
                         {1, "vigilBuild 7000 "},
                         {1, "RTM Unregister Event"},
                         {1, "Client: port-vigil not registered with RTM, SKIP unregister"}}));
}

TEST_F(MigrationHooksTest, VersionTwoOfAnotherBuildSkipsToo) {
   EXPECT_EQ(Deliver(Announcement(2, 1, true)), ZEK_OK);
   EXPECT_EQ(Lines(), (std::vector<Line>{
                         {1, "vigilBuild 7000 "},
                         {1, "RTM Register Event"},
                         {1, "Unsupported RTM Version 2"},
                         {1, "Vigil build 7000 eventData->buildNum 1do not match, Skip "
                             "registration for port-vigil"}}));
   EXPECT_EQ(sim::LiveRtmClients(), 0u);
}

TEST_F(MigrationHooksTest, AnnouncementWithoutRegisterFunctionIsRefusedWithCodeSeven) {
   EXPECT_EQ(Deliver(Announcement(1, 7000, false)), kBadParam);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 3u);
   EXPECT_EQ(lines[2].level, 2);
   EXPECT_EQ(lines[2].text, "Registration function is NULL, cannot register");
   EXPECT_EQ(CodeOf(lines[2]), "7");
   EXPECT_EQ(sim::LiveRtmClients(), 0u);
}

TEST_F(MigrationHooksTest, FailedRegistrationIsLoggedAndReturnedAndChangesNothingElse) {
   isLiveUpgrade = true;
   sim::FaultCall("RtmClientRegister", kNoMemory);
   EXPECT_EQ(Deliver(Announcement(1, 7000, true)), kNoMemory);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 3u);
   EXPECT_EQ(lines[2].level, 2);
   EXPECT_EQ(lines[2].text, "RTM Register Event : Register CB Failed");
   EXPECT_EQ(CodeOf(lines[2]), "20");
   EXPECT_EQ(vigilRtmClient, nullptr);
   EXPECT_TRUE(isLiveUpgrade);
   EXPECT_EQ(zek_ModuleCurrentID(), 0x51u);
}

TEST_F(MigrationHooksTest, FailedPushCallsNothing) {
   sim::FaultCall("ModulePushId", 0xbad0001);
   EXPECT_EQ(Deliver(Announcement(1, 7000, true)), 0xbad0001u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 3u);
   EXPECT_EQ(lines[2].text, "RTM Register Event : Register CB Failed");
   EXPECT_EQ(sim::LiveRtmClients(), 0u);
   EXPECT_EQ(zek_ModuleCurrentID(), 0x51u);
}

TEST_F(MigrationHooksTest, SecondAnnouncementRegistersAgainOverTheHandle) {
   ASSERT_EQ(Deliver(Announcement(1, 7000, true)), ZEK_OK);
   oxa_RtmClientHandle first = vigilRtmClient;
   ASSERT_EQ(Deliver(Announcement(1, 7000, true)), ZEK_OK);
   ASSERT_EQ(sim::LiveRtmClients(), 2u);
   EXPECT_NE(vigilRtmClient, first);
   EXPECT_EQ(sim::RtmClients()[1].handle, vigilRtmClient);
   /* The withdrawal takes the second away; the first stays with the
    * service, which the module no longer knows. */
   oxa_RtmEventData withdrawal = Withdrawal(true);
   EXPECT_EQ(Deliver(withdrawal), ZEK_OK);
   ASSERT_EQ(sim::LiveRtmClients(), 1u);
   EXPECT_EQ(sim::RtmClients()[0].handle, first);
   ASSERT_EQ(zek_ModulePushId(sim::kRtmModuleID, nullptr, nullptr), ZEK_OK);
   EXPECT_EQ(withdrawal.clientCallback.unregisterClient(first), ZEK_OK);
   zek_ModulePopId();
}

/* --------------------------------------------------------- the withdrawal */

TEST_F(MigrationHooksTest, WithdrawalUnregistersTheClientAndClearsBothFlags) {
   ASSERT_EQ(VigilRtmSubscribe(), ZEK_OK);
   sim::RtmAnnounce();
   ASSERT_NE(vigilRtmClient, nullptr);
   isLiveUpgrade = true;
   isLiveUpgradeFromMod = 1;
   Lines();
   sim::RtmWithdraw();
   EXPECT_EQ(vigilRtmClient, nullptr);
   EXPECT_EQ(sim::LiveRtmClients(), 0u);
   EXPECT_FALSE(isLiveUpgrade);
   EXPECT_EQ(isLiveUpgradeFromMod, 0u);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "vigilBuild 7000 "}, {1, "RTM Unregister Event"}}));
}

TEST_F(MigrationHooksTest, WithdrawalClearsTheFlagsWhenNoClientIsRegistered) {
   isLiveUpgrade = true;
   isLiveUpgradeFromMod = 1;
   EXPECT_EQ(Deliver(Withdrawal(true)), ZEK_OK);
   EXPECT_FALSE(isLiveUpgrade);
   EXPECT_EQ(isLiveUpgradeFromMod, 0u);
}

TEST_F(MigrationHooksTest, WithdrawalClearsTheFlagsWhenTheUnregistrationFails) {
   ASSERT_EQ(Deliver(Announcement(1, 7000, true)), ZEK_OK);
   oxa_RtmClientHandle client = vigilRtmClient;
   isLiveUpgrade = true;
   isLiveUpgradeFromMod = 1;
   Lines();
   sim::FaultCall("RtmClientUnregister", 0xbad0001);
   EXPECT_EQ(Deliver(Withdrawal(true)), 0xbad0001u);
   EXPECT_FALSE(isLiveUpgrade);
   EXPECT_EQ(isLiveUpgradeFromMod, 0u);
   EXPECT_EQ(vigilRtmClient, client);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 3u);
   EXPECT_EQ(lines[2].level, 2);
   EXPECT_EQ(lines[2].text, "RTM Unregister Event : Unregister CB Failed");
   EXPECT_EQ(CodeOf(lines[2]), "1");
   EXPECT_EQ(sim::LiveRtmClients(), 1u);
}

TEST_F(MigrationHooksTest, WithdrawalWithoutUnregisterFunctionKeepsTheClient) {
   ASSERT_EQ(Deliver(Announcement(1, 7000, true)), ZEK_OK);
   isLiveUpgradeFromMod = 1;
   Lines();
   EXPECT_EQ(Deliver(Withdrawal(false)), kBadParam);
   EXPECT_EQ(isLiveUpgradeFromMod, 0u);
   EXPECT_NE(vigilRtmClient, nullptr);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "vigilBuild 7000 "},
                                         {1, "RTM Unregister Event"},
                                         {1, "Event data Unreg pointer is NULL"}}));
}

/* ------------------------------------------------------ the RTM operations */

class RtmClientTest : public MigrationHooksTest {
protected:
   void SetUp() override {
      MigrationHooksTest::SetUp();
      ASSERT_EQ(VigilRtmSubscribe(), ZEK_OK);
      sim::RtmAnnounce();
      ASSERT_NE(vigilRtmClient, nullptr);
      Lines();
   }
};

TEST_F(RtmClientTest, PreDualLoadMarksTheOutgoingModule) {
   EXPECT_EQ(sim::RtmPreDualLoad(vigilRtmClient), ZEK_OK);
   EXPECT_EQ(isLiveUpgradeFromMod, 1u);
   EXPECT_TRUE(Lines().empty());
   sim::SetLogLevel("vigil", 1);
   EXPECT_EQ(sim::RtmPreDualLoad(vigilRtmClient), ZEK_OK);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil in RTM Pre Dual Load"}}));
}

TEST_F(RtmClientTest, PrefetchOnlyLogsAtVerbosityTwo) {
   sim::SetLogLevel("vigil", 1);
   EXPECT_EQ(sim::RtmPrefetch(vigilRtmClient, kPort), ZEK_OK);
   EXPECT_TRUE(Lines().empty());
   sim::SetLogLevel("vigil", 2);
   EXPECT_EQ(sim::RtmPrefetch(vigilRtmClient, kPort), ZEK_OK);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil In RTM Prefetch, Port: 0x10"}}));
}

TEST_F(RtmClientTest, SizeOfADisabledPortIsZeroAlsoWithAFilter) {
   AddFilter(kPort);
   sim::SetPortFlag(kPort, ZEK_PORT_FLAG_ENABLED, false);
   sim::SetLogLevel("vigil", 1);
   u32 size = 1234;
   EXPECT_EQ(sim::RtmGetSize(vigilRtmClient, kPort, &size), ZEK_OK);
   EXPECT_EQ(size, 0u);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil getting size of RTM data, Port: 0x10"},
                                         {1, "Port[0x10] is not enabled"}}));
}

TEST_F(RtmClientTest, SizeOfAnEnabledPortIsTheSaveLength) {
   AddFilter(kPort);
   u32 size = 0;
   EXPECT_EQ(sim::RtmGetSize(vigilRtmClient, kPort, &size), ZEK_OK);
   EXPECT_EQ(size, kEmptySaveLen);
   EXPECT_TRUE(Lines().empty());
}

TEST_F(RtmClientTest, SizeOfAPortWithoutFilterIsZero) {
   ASSERT_TRUE(sim::AddPort("vs0", kPort2));
   u32 size = 1234;
   EXPECT_EQ(sim::RtmGetSize(vigilRtmClient, kPort2, &size), ZEK_OK);
   EXPECT_EQ(size, 0u);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil Invalid Port ID, Port: 0x11"}}));
}

TEST_F(RtmClientTest, FailedFlagQueryLeavesTheSizeUnwritten) {
   AddFilter(kPort);
   sim::FaultCall("PortFlagIsSet", 0xbad0001);
   u32 size = 1234;
   EXPECT_EQ(sim::RtmGetSize(vigilRtmClient, kPort, &size), 0xbad0001u);
   EXPECT_EQ(size, 1234u);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Failed to get the port[0x10] status"}}));
   /* An unknown port fails the same way. */
   EXPECT_EQ(sim::RtmGetSize(vigilRtmClient, 0x99, &size), kNotFound);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Failed to get the port[0x99] status"}}));
}

TEST_F(RtmClientTest, SaveAndRestoreCarryAPortsStateBetweenFilters) {
   AddFilter(kPort);
   AddFilter(kPort2);
   sim::SetLogLevel("vigil", 1);
   Bytes buf(kEmptySaveLen, 0xee);
   u32 dataLen = 0;
   EXPECT_EQ(sim::RtmSave(vigilRtmClient, kPort, buf.data(), kEmptySaveLen, &dataLen, 77),
             ZEK_OK);
   EXPECT_EQ(dataLen, kEmptySaveLen);
   EXPECT_EQ(sim::RtmRestore(vigilRtmClient, kPort2, buf, 250), ZEK_OK);
   std::vector<std::string> own;
   for (const sim::LogLine &line : TakeModuleLogs()) {
      if (line.func.rfind("VigilRtm", 0) == 0) own.push_back(line.text);
   }
   EXPECT_EQ(own, (std::vector<std::string>{"Vigil saving RTM data, Port: 0x10",
                                            "Vigil Restoring RTM data, Port: 0x11"}));
}

TEST_F(RtmClientTest, RestoreOfAnEmptyBufferReturnsAtOnce) {
   AddFilter(kPort);
   sim::SetLogLevel("vigil", 5);
   EXPECT_EQ(sim::RtmRestore(vigilRtmClient, kPort, Bytes{}, 9), ZEK_OK);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil Restoring RTM data, Port: 0x10"}}));
}

TEST_F(RtmClientTest, FailedRestoreIsLoggedWithItsCode) {
   AddFilter(kPort);
   Bytes bad(12, 0);
   EXPECT_EQ(sim::RtmRestore(vigilRtmClient, kPort, bad, 0), kBadParam);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_FALSE(lines.empty());
   EXPECT_EQ(lines.back().level, 2);
   EXPECT_EQ(lines.back().func, "VigilRtmRestore");
   EXPECT_EQ(lines.back().text, "Vigil Restore for RTM failed, Port: 0x10");
   EXPECT_EQ(CodeOf(lines.back()), "7");
}

TEST_F(RtmClientTest, CompletedLogsTheSideAndTheStatusText) {
   sim::SetLogLevel("vigil", 1);
   EXPECT_EQ(sim::RtmCompleted(vigilRtmClient, true, kNotFound), ZEK_OK);
   EXPECT_EQ(sim::RtmCompleted(vigilRtmClient, false, ZEK_OK), ZEK_OK);
   EXPECT_EQ(Lines(),
             (std::vector<Line>{{1, "Vigil In RTM completed, isCrossHost: True, type : Not found"},
                                {1, "Vigil In RTM completed, isCrossHost: False, type : Success"}}));
}

TEST_F(RtmClientTest, TableHoldsTheSixOperationsAndSevenEmptySlots) {
   EXPECT_EQ(vigilRtmOps.prefetch, &VigilRtmPrefetch);
   EXPECT_EQ(vigilRtmOps.getSize, &VigilRtmGetSize);
   EXPECT_EQ(vigilRtmOps.save, &VigilRtmSave);
   EXPECT_EQ(vigilRtmOps.restore, &VigilRtmRestore);
   EXPECT_EQ(vigilRtmOps.completed, &VigilRtmCompleted);
   EXPECT_EQ(vigilRtmOps.preDualLoad, &VigilRtmPreDualLoad);
   for (void *slot : vigilRtmOps.unused) EXPECT_EQ(slot, nullptr);
   const oxa_RtmEventData zero{};
   EXPECT_EQ(std::memcmp(&vigilRtmEventData, &zero, sizeof zero), 0);
}

/* ------------------------------------------------------------- Transit */

TEST_F(MigrationHooksTest, TransitRegistersThePortsetsClient) {
   EXPECT_EQ(Vigil_TransitRegister("vs0", &client_), ZEK_OK);
   std::vector<sim::TransitClientInfo> clients = sim::TransitClients();
   ASSERT_EQ(clients.size(), 1u);
   EXPECT_EQ(clients[0].portset, "vs0");
   EXPECT_EQ(clients[0].client, kTransitClient);
   EXPECT_EQ(clients[0].handle, client_.transitHandle);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil Registering TRANSIT CBs for ps vs0"}}));
   EXPECT_EQ(Vigil_TransitUnregister(&client_), ZEK_OK);
   EXPECT_EQ(client_.transitHandle, nullptr);
   EXPECT_EQ(sim::LiveTransitClients(), 0u);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil Unegistering TRANSIT CBs for ps vs0"}}));
}

TEST_F(MigrationHooksTest, FailedTransitRegistrationIsLoggedWithItsCode) {
   sim::FaultCall("FABTransitClientRuntimeRegister", kNoMemory);
   EXPECT_EQ(Vigil_TransitRegister("vs0", &client_), kNoMemory);
   EXPECT_EQ(client_.transitHandle, nullptr);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[1].level, 2);
   EXPECT_EQ(lines[1].text, "Failed to register transit callback for ps vs0");
   EXPECT_EQ(CodeOf(lines[1]), "20");
}

TEST_F(MigrationHooksTest, TransitUnregistrationClearsTheHandleAndGivesTheCallsStatus) {
   ASSERT_EQ(Vigil_TransitRegister("vs0", &client_), ZEK_OK);
   zek_FABTransitClientHandle handle = client_.transitHandle;
   sim::FaultCall("FABTransitClientRuntimeUnregister", 0xbad0001);
   EXPECT_EQ(Vigil_TransitUnregister(&client_), 0xbad0001u);
   EXPECT_EQ(client_.transitHandle, nullptr);
   /* Without a handle there is nothing to call. */
   EXPECT_EQ(Vigil_TransitUnregister(&client_), ZEK_OK);
   EXPECT_EQ(zek_FABTransitClientRuntimeUnregister(handle), ZEK_OK);
}

TEST_F(MigrationHooksTest, TransitSizeOfAPortWithoutFilterIsZero) {
   EXPECT_EQ(VigilTransitGetSize(kPort2), 0u);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil getting size of TRANSIT data, Port: 0x11"},
                                         {1, "Vigil Invalid Port ID, Port: 0x11"}}));
}

TEST_F(MigrationHooksTest, TransitSizeAfterTheEnableCleanupIsZero) {
   VigilFilter *filter = AddFilter(kPort);
   filter->enableCleanedUp = 1;
   EXPECT_EQ(VigilTransitGetSize(kPort), 0u);
   EXPECT_EQ(Lines(), (std::vector<Line>{{1, "Vigil getting size of TRANSIT data, Port: 0x10"},
                                         {2, "Property has already been cleared for port 0x10"}}));
}

TEST_F(MigrationHooksTest, TransitSizeDoesNotAskWhetherThePortIsEnabled) {
   AddFilter(kPort);
   sim::SetPortFlag(kPort, ZEK_PORT_FLAG_ENABLED, false);
   EXPECT_EQ(VigilTransitGetSize(kPort), kEmptySaveLen);
}

TEST_F(MigrationHooksTest, TransitMoveCarriesAPortsStateAndLogsEachStep) {
   AddFilter(kPort);
   AddFilter(kPort2);
   ASSERT_EQ(Vigil_TransitRegister("vs0", &client_), ZEK_OK);
   Lines();
   sim::TransitMoveResult result;
   sim::TransitMoveOptions opts;
   opts.elapsedMS = 1200;
   EXPECT_EQ(sim::TransitMove(kPort, kPort2, &result, opts), ZEK_OK);
   EXPECT_EQ(result.size, kEmptySaveLen);
   EXPECT_EQ(result.dataLen, kEmptySaveLen);
   EXPECT_EQ(result.restoreStatus, ZEK_OK);
   std::vector<std::string> own;
   for (const sim::LogLine &line : TakeModuleLogs()) {
      if (line.func.rfind("VigilTransit", 0) == 0) {
         EXPECT_EQ(line.level, 1) << line.text;
         own.push_back(line.text);
      }
   }
   EXPECT_EQ(own, (std::vector<std::string>{
                     "Vigil getting size of TRANSIT data, Port: 0x10",
                     "Vigil saving TRANSIT data, Port: 0x10",
                     "Vigil Restoring TRANSIT data, Port: 0x11",
                     "Vigil TRANSIT completed CB, isCrosshost = True, type = Success",
                     "Vigil TRANSIT completed CB, isCrosshost = True, type = Success"}));
}

TEST_F(MigrationHooksTest, TransitRestoreOfAnEmptyBufferGoesDownToTheRestorePath) {
   AddFilter(kPort);
   ASSERT_EQ(Vigil_TransitRegister("vs0", &client_), ZEK_OK);
   Lines();
   EXPECT_EQ(sim::TransitRestore("vs0", kPort, Bytes{}, 5), ZEK_OK);
   EXPECT_EQ(Lines(),
             (std::vector<Line>{
                {1, "Vigil Restoring TRANSIT data, Port: 0x10"},
                {1, "Stop Vigil migration restore for Port: 0x10, elapsedMS: 5, for bufLen: 0"}}));
}

TEST_F(MigrationHooksTest, FailedTransitRestoreIsLoggedWithItsCode) {
   ASSERT_EQ(Vigil_TransitRegister("vs0", &client_), ZEK_OK);
   Lines();
   EXPECT_EQ(sim::TransitRestore("vs0", kPort, Bytes(4, 0), 0), 0xbad0001u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_FALSE(lines.empty());
   EXPECT_EQ(lines.back().level, 2);
   EXPECT_EQ(lines.back().text, "Vigil Restore for TRANSIT failed, Port: 0x10");
   EXPECT_EQ(CodeOf(lines.back()), "1");
}

TEST_F(MigrationHooksTest, TransitTableHoldsTheFourOperationsInOrder) {
   EXPECT_EQ(transitStateOps.getSize, &VigilTransitGetSize);
   EXPECT_EQ(transitStateOps.save, &VigilTransitSave);
   EXPECT_EQ(transitStateOps.restore, &VigilTransitRestore);
   EXPECT_EQ(transitStateOps.completed, &VigilTransitCompleted);
}

} // namespace
