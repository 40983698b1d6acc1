/*
 * Tests of the live upgrade service (RTM) of the simulated host: its
 * announcement and withdrawal through the event, the record subscribers
 * get, client registration through the record's callback, and the calls
 * into a registered client.
 */
#include <cstring>

#include "sim_migration.h"
#include "sim_test_fixture.h"

namespace {

const char *const kEvent = "com.norvex.oxa.rtm.client";

/* What a subscriber got, copied while the event ran. */
struct Delivery {
   void *cbData;
   oxa_RtmEventData record;
   const void *where;
};
std::vector<Delivery> gDeliveries;

zek_Status Subscriber(void *, const char *, void *cbData, void *eventData) {
   Delivery d{cbData, {}, eventData};
   std::memcpy(&d.record, eventData, sizeof d.record);
   gDeliveries.push_back(d);
   return ZEK_OK;
}

/* A client as a module would do it: push the service's id, register with
 * the record's callback, pop. */
oxa_RtmClientHandle gClient;
zek_Status gRegisterStatus;
const oxa_RtmClientOps *gTable;
bool gPush = true;

zek_Status Registering(void *, const char *, void *, void *eventData) {
   auto *record = static_cast<oxa_RtmEventData *>(eventData);
   zek_ModuleID saved = 0;
   if (gPush) {
      EXPECT_EQ(zek_ModulePushId(record->moduleId, nullptr, &saved), ZEK_OK);
   }
   if (record->isUnregister == 0) {
      gRegisterStatus =
         record->clientCallback.registerClient(0x1d, "client-a", gTable, &gClient);
   } else {
      gRegisterStatus = record->clientCallback.unregisterClient(gClient);
   }
   if (gPush) zek_ModulePopId();
   return gRegisterStatus;
}

struct OpCall {
   std::string what;
   void *ctx = nullptr;
   zek_PortID portID = 0;
   const void *buf = nullptr;
   uint32_t bufLen = 0;
   uint64_t word = 0;
   bool isCrossHost = false;
   zek_Status status = 0;
   std::vector<uint8_t> bytes;
};
std::vector<OpCall> gOps;

OpCall Op(const char *what, void *ctx = nullptr, zek_PortID portID = 0) {
   OpCall c;
   c.what = what;
   c.ctx = ctx;
   c.portID = portID;
   return c;
}

zek_Status Prefetch(void *ctx, zek_PortID portID) {
   gOps.push_back(Op("prefetch", ctx, portID));
   return 0xbad0020;
}
zek_Status GetSize(void *ctx, zek_PortID portID, uint32_t *size) {
   gOps.push_back(Op("size", ctx, portID));
   *size = 321;
   return ZEK_OK;
}
zek_Status Save(void *ctx, zek_PortID portID, void *buf, uint32_t bufLen, uint32_t *dataLen,
                uint64_t reserved) {
   OpCall c = Op("save", ctx, portID);
   c.buf = buf;
   c.bufLen = bufLen;
   c.word = reserved;
   gOps.push_back(c);
   *dataLen = 7;
   return ZEK_OK;
}
zek_Status Restore(void *ctx, zek_PortID portID, const void *buf, uint32_t bufLen,
                   uint64_t elapsedMS) {
   OpCall c = Op("restore", ctx, portID);
   c.buf = buf;
   c.bufLen = bufLen;
   c.word = elapsedMS;
   if (buf != nullptr) {
      c.bytes.assign(static_cast<const uint8_t *>(buf),
                     static_cast<const uint8_t *>(buf) + bufLen);
   }
   gOps.push_back(c);
   return 0xbad0001;
}
void Completed(void *ctx, bool isCrossHost, zek_Status status) {
   OpCall c = Op("completed", ctx);
   c.isCrossHost = isCrossHost;
   c.status = status;
   gOps.push_back(c);
}
zek_Status PreDualLoad(void) {
   gOps.push_back(Op("preDualLoad"));
   return ZEK_OK;
}

const oxa_RtmClientOps kOps = {Prefetch, GetSize, Save, Restore, Completed, PreDualLoad, {}};

class SimRtm : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      gDeliveries.clear();
      gOps.clear();
      gClient = nullptr;
      gRegisterStatus = 0x12345;
      gTable = &kOps;
      gPush = true;
   }
   void Subscribe(zek_NetEventFn fn, void *cbData = nullptr) {
      zek_NetEventHandle h = nullptr;
      ASSERT_EQ(zek_NetEventPortsetEventSubscribe(0, kEvent, fn, cbData, &h), ZEK_OK);
   }
};

TEST_F(SimRtm, AnnouncementGivesSubscribersTheRecordAsEventData) {
   int mine = 0;
   Subscribe(Subscriber, &mine);
   sim::SetBuildNumber(8123);
   EXPECT_FALSE(sim::RtmAnnounced());
   sim::RtmAnnounce();
   EXPECT_TRUE(sim::RtmAnnounced());
   ASSERT_EQ(gDeliveries.size(), 1u);
   EXPECT_EQ(gDeliveries[0].cbData, &mine);
   const oxa_RtmEventData &r = gDeliveries[0].record;
   EXPECT_EQ(r.version, 1);
   EXPECT_EQ(r.moduleId, sim::kRtmModuleID);
   EXPECT_EQ(r.isUnregister, 0u);
   EXPECT_NE(r.clientCallback.registerClient, nullptr);
   EXPECT_EQ(r.buildNum, 8123u);
   /* The bytes the record leaves unnamed are zero. */
   const auto *bytes = reinterpret_cast<const uint8_t *>(&r);
   for (size_t i : {9, 10, 11, 12, 13, 14, 15, 24, 31, 36, 47}) EXPECT_EQ(bytes[i], 0u) << i;
   const oxa_RtmEventData last = sim::RtmLastEventData();
   EXPECT_EQ(std::memcmp(&last, &r, sizeof r), 0);
}

TEST_F(SimRtm, AnnouncementCarriesWhatTheTestAsks) {
   Subscribe(Subscriber);
   sim::RtmAnnouncement a;
   a.version = 2;
   a.buildNum = 99;
   a.withCallback = false;
   a.moduleId = 0x77;
   sim::RtmAnnounce(a);
   ASSERT_EQ(gDeliveries.size(), 1u);
   EXPECT_EQ(gDeliveries[0].record.version, 2);
   EXPECT_EQ(gDeliveries[0].record.buildNum, 99u);
   EXPECT_EQ(gDeliveries[0].record.moduleId, 0x77u);
   EXPECT_EQ(gDeliveries[0].record.clientCallback.registerClient, nullptr);
}

TEST_F(SimRtm, WithdrawalGivesTheUnregisterFunctionOrNull) {
   Subscribe(Subscriber);
   sim::RtmAnnouncement a;
   a.buildNum = 5;
   sim::RtmAnnounce(a);
   sim::RtmWithdraw();
   EXPECT_FALSE(sim::RtmAnnounced());
   sim::RtmWithdraw(false);
   ASSERT_EQ(gDeliveries.size(), 3u);
   EXPECT_EQ(gDeliveries[1].record.isUnregister, 1u);
   EXPECT_NE(gDeliveries[1].record.clientCallback.unregisterClient, nullptr);
   EXPECT_NE(reinterpret_cast<void *>(gDeliveries[1].record.clientCallback.unregisterClient),
             reinterpret_cast<void *>(gDeliveries[0].record.clientCallback.registerClient));
   EXPECT_EQ(gDeliveries[1].record.buildNum, 5u);
   EXPECT_EQ(gDeliveries[1].record.moduleId, sim::kRtmModuleID);
   EXPECT_EQ(gDeliveries[2].record.clientCallback.unregisterClient, nullptr);
}

TEST_F(SimRtm, ClientRegistersThroughTheRecordAndUnregistersOnWithdrawal) {
   Subscribe(Registering);
   sim::RtmAnnounce();
   EXPECT_EQ(gRegisterStatus, ZEK_OK);
   ASSERT_NE(gClient, nullptr);
   auto clients = sim::RtmClients();
   ASSERT_EQ(clients.size(), 1u);
   EXPECT_EQ(clients[0].handle, gClient);
   EXPECT_EQ(clients[0].moduleID, 0x1du);
   EXPECT_EQ(clients[0].name, "client-a");
   EXPECT_TRUE(clients[0].hasOps);
   EXPECT_EQ(clients[0].pushedID, sim::kRtmModuleID);
   EXPECT_EQ(sim::LiveRtmClients(), 1u);

   sim::RtmWithdraw();
   EXPECT_EQ(gRegisterStatus, ZEK_OK);
   EXPECT_EQ(sim::LiveRtmClients(), 0u);
   /* A handle the service no longer knows. */
   sim::RtmAnnounce();
   oxa_RtmClientHandle second = gClient;
   ASSERT_EQ(sim::LiveRtmClients(), 1u);
   gClient = reinterpret_cast<oxa_RtmClientHandle>(&gOps);
   sim::RtmWithdraw();
   EXPECT_EQ(gRegisterStatus, 0xbad0003u);
   ASSERT_EQ(sim::LiveRtmClients(), 1u);
   EXPECT_EQ(sim::RtmClients()[0].handle, second);
}

TEST_F(SimRtm, ClientWithoutTableIsKeptButCantBeCalled) {
   gTable = nullptr;
   Subscribe(Registering);
   sim::RtmAnnounce();
   ASSERT_EQ(gRegisterStatus, ZEK_OK);
   ASSERT_EQ(sim::RtmClients().size(), 1u);
   EXPECT_FALSE(sim::RtmClients()[0].hasOps);
   uint32_t size = 9;
   EXPECT_EQ(sim::RtmGetSize(gClient, 1, &size), 0xbad0020u);
   EXPECT_EQ(size, 9u);
   EXPECT_EQ(sim::RtmPreDualLoad(gClient), 0xbad0020u);
   EXPECT_EQ(sim::RtmCompleted(gClient, false, ZEK_OK), 0xbad0020u);
}

TEST_F(SimRtm, RegistrationWithoutThePushedIdIsAHostFailure) {
   gPush = false;
   Subscribe(Registering);
   sim::RtmAnnounce();
   EXPECT_EQ(gRegisterStatus, ZEK_OK);
   auto failures = simtest::TakeFailures();
   ASSERT_EQ(failures.size(), 1u);
   EXPECT_EQ(failures[0], "RTM client registration called under module id 29, not the "
                          "service's 46");
   EXPECT_EQ(sim::RtmClients()[0].pushedID, 0x1du);
}

TEST_F(SimRtm, FaultedRegistrationAndUnregistrationChangeNothing) {
   Subscribe(Registering);
   sim::FaultCall("RtmClientRegister", 0xbad0014);
   sim::RtmAnnounce();
   EXPECT_EQ(gRegisterStatus, 0xbad0014u);
   EXPECT_EQ(gClient, nullptr);
   EXPECT_EQ(sim::LiveRtmClients(), 0u);
   sim::RtmAnnounce();
   ASSERT_EQ(gRegisterStatus, ZEK_OK);
   sim::FaultCall("RtmClientUnregister", 0xbad0001);
   sim::RtmWithdraw();
   EXPECT_EQ(gRegisterStatus, 0xbad0001u);
   EXPECT_EQ(sim::LiveRtmClients(), 1u);
   /* A registration with a null name or handle. */
   sim::RtmAnnounce();
   ASSERT_EQ(sim::LiveRtmClients(), 2u);
   oxa_RtmClientHandle h = nullptr;
   const oxa_RtmEventData reg = sim::RtmLastEventData();
   ASSERT_EQ(zek_ModulePushId(sim::kRtmModuleID, nullptr, nullptr), ZEK_OK);
   EXPECT_EQ(reg.clientCallback.registerClient(1, nullptr, &kOps, &h), 0xbad0007u);
   EXPECT_EQ(reg.clientCallback.registerClient(1, "x", &kOps, nullptr), 0xbad0007u);
   zek_ModulePopId();
   EXPECT_EQ(h, nullptr);
}

TEST_F(SimRtm, EachOperationReachesTheClientWithItsRecordAsContext) {
   Subscribe(Registering);
   sim::RtmAnnounce();
   ASSERT_NE(gClient, nullptr);
   uint32_t size = 0;
   EXPECT_EQ(sim::RtmPrefetch(gClient, 5), 0xbad0020u);
   EXPECT_EQ(sim::RtmGetSize(gClient, 6, &size), ZEK_OK);
   EXPECT_EQ(size, 321u);
   uint8_t buf[4];
   uint32_t dataLen = 0;
   EXPECT_EQ(sim::RtmSave(gClient, 7, buf, 4, &dataLen, 0xabcdef), ZEK_OK);
   EXPECT_EQ(dataLen, 7u);
   EXPECT_EQ(sim::RtmRestore(gClient, 8, std::vector<uint8_t>{3, 1, 4}, 2500), 0xbad0001u);
   EXPECT_EQ(sim::RtmRestore(gClient, 9, buf, 0, 0), 0xbad0001u);
   EXPECT_EQ(sim::RtmCompleted(gClient, true, 0xbad0003), ZEK_OK);
   EXPECT_EQ(sim::RtmPreDualLoad(gClient), ZEK_OK);

   ASSERT_EQ(gOps.size(), 7u);
   for (size_t i = 0; i < 6; i++) EXPECT_EQ(gOps[i].ctx, gClient) << i;
   EXPECT_EQ(gOps[0].what, "prefetch");
   EXPECT_EQ(gOps[0].portID, 5u);
   EXPECT_EQ(gOps[1].what, "size");
   EXPECT_EQ(gOps[1].portID, 6u);
   EXPECT_EQ(gOps[2].what, "save");
   EXPECT_EQ(gOps[2].portID, 7u);
   EXPECT_EQ(gOps[2].buf, buf);
   EXPECT_EQ(gOps[2].bufLen, 4u);
   EXPECT_EQ(gOps[2].word, 0xabcdefu);
   EXPECT_EQ(gOps[3].what, "restore");
   EXPECT_EQ(gOps[3].portID, 8u);
   EXPECT_EQ(gOps[3].bufLen, 3u);
   EXPECT_EQ(gOps[3].bytes, (std::vector<uint8_t>{3, 1, 4}));
   EXPECT_EQ(gOps[3].word, 2500u);
   EXPECT_EQ(gOps[4].buf, buf);
   EXPECT_EQ(gOps[4].bufLen, 0u);
   EXPECT_EQ(gOps[5].what, "completed");
   EXPECT_TRUE(gOps[5].isCrossHost);
   EXPECT_EQ(gOps[5].status, 0xbad0003u);
   EXPECT_EQ(gOps[6].what, "preDualLoad");
}

TEST_F(SimRtm, OperationsOfAnUnknownClientCallNothing) {
   auto unknown = reinterpret_cast<oxa_RtmClientHandle>(&gOps);
   uint32_t size = 0;
   uint32_t dataLen = 0;
   EXPECT_EQ(sim::RtmPrefetch(unknown, 1), 0xbad0003u);
   EXPECT_EQ(sim::RtmGetSize(unknown, 1, &size), 0xbad0003u);
   EXPECT_EQ(sim::RtmSave(unknown, 1, nullptr, 0, &dataLen), 0xbad0003u);
   EXPECT_EQ(sim::RtmRestore(unknown, 1, std::vector<uint8_t>{1}, 0), 0xbad0003u);
   EXPECT_EQ(sim::RtmCompleted(unknown, false, ZEK_OK), 0xbad0003u);
   EXPECT_EQ(sim::RtmPreDualLoad(unknown), 0xbad0003u);
   EXPECT_EQ(sim::RtmClientOf(nullptr), nullptr);
   EXPECT_TRUE(gOps.empty());
}

TEST_F(SimRtm, ResetForgetsTheServiceAndItsClients) {
   Subscribe(Registering);
   sim::RtmAnnounce();
   ASSERT_EQ(sim::LiveRtmClients(), 1u);
   sim::Reset();
   sim::SetFailureHook(&simtest::RecordFailure);
   EXPECT_FALSE(sim::RtmAnnounced());
   EXPECT_EQ(sim::LiveRtmClients(), 0u);
   const oxa_RtmEventData zero{};
   const oxa_RtmEventData last = sim::RtmLastEventData();
   EXPECT_EQ(std::memcmp(&last, &zero, sizeof zero), 0);
}

} // namespace
