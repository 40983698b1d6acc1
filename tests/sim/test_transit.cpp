/*
 * Tests of the Transit carrier of the simulated host: client registration
 * per portset, each operation as the switch calls it, a whole move between
 * two ports, and the guarded buffers.
 */
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "sim_migration.h"
#include "sim_test_fixture.h"

namespace {

/* What the client's operations were called with, in order. */
struct Call {
   std::string what;
   zek_PortID portID = 0;
   const void *buf = nullptr;
   uint32_t bufLen = 0;
   uint64_t word = 0; /* reserved or elapsedMS */
   bool isCrossHost = false;
   zek_Status status = 0;
   std::vector<uint8_t> bytes; /* what restore was given */
};
std::vector<Call> gCalls;
/* What the operations answer. */
uint32_t gSize = 0;
std::vector<uint8_t> gSaveBytes;
zek_Status gSaveStatus = ZEK_OK;
zek_Status gRestoreStatus = ZEK_OK;
int64_t gReportedLen = -1; /* dataLen to report instead of the bytes written */

uint32_t GetSize(zek_PortID portID) {
   Call call;
   call.what = "size";
   call.portID = portID;
   gCalls.push_back(call);
   return gSize;
}

zek_Status Save(zek_PortID portID, void *buf, uint32_t bufLen, uint32_t *dataLen,
                uint64_t reserved) {
   Call call;
   call.what = "save";
   call.portID = portID;
   call.buf = buf;
   call.bufLen = bufLen;
   call.word = reserved;
   call.bytes.assign(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + bufLen);
   gCalls.push_back(call);
   if (gSaveStatus != ZEK_OK) return gSaveStatus;
   const size_t n = std::min<size_t>(bufLen, gSaveBytes.size());
   std::memcpy(buf, gSaveBytes.data(), n);
   *dataLen = gReportedLen >= 0 ? static_cast<uint32_t>(gReportedLen) : static_cast<uint32_t>(n);
   return ZEK_OK;
}

zek_Status Restore(zek_PortID portID, const void *buf, uint32_t bufLen, uint64_t elapsedMS) {
   Call call;
   call.what = "restore";
   call.portID = portID;
   call.buf = buf;
   call.bufLen = bufLen;
   call.word = elapsedMS;
   if (buf != nullptr) {
      call.bytes.assign(static_cast<const uint8_t *>(buf),
                        static_cast<const uint8_t *>(buf) + bufLen);
   }
   gCalls.push_back(call);
   return gRestoreStatus;
}

void Completed(bool isCrossHost, zek_Status status) {
   Call call;
   call.what = "completed";
   call.isCrossHost = isCrossHost;
   call.status = status;
   gCalls.push_back(call);
}

/* Reads one byte past the end of what it is given. */
zek_Status OverRead(zek_PortID, const void *buf, uint32_t bufLen, uint64_t) {
   volatile const uint8_t *p = static_cast<const uint8_t *>(buf);
   return p[bufLen];
}

const zek_FABTransitOps kOps = {GetSize, Save, Restore, Completed};

class SimTransit : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      gCalls.clear();
      gSize = 0;
      gSaveBytes.clear();
      gSaveStatus = ZEK_OK;
      gRestoreStatus = ZEK_OK;
      gReportedLen = -1;
      ASSERT_NE(sim::AddPortset("vs0"), nullptr);
      ASSERT_NE(sim::AddPortset("vs1"), nullptr);
      ASSERT_TRUE(sim::AddPort("vs0", 10));
      ASSERT_TRUE(sim::AddPort("vs1", 20));
   }
   void TearDown() override {
      for (const sim::TransitClientInfo &c : sim::TransitClients()) {
         EXPECT_EQ(zek_FABTransitClientRuntimeUnregister(c.handle), ZEK_OK);
      }
      EXPECT_EQ(sim::LiveTransitClients(), 0u);
      SimFixture::TearDown();
   }
   zek_FABTransitClientHandle Register(const char *portset, const char *client = "c") {
      zek_FABTransitClientHandle h = nullptr;
      EXPECT_EQ(zek_FABTransitClientRuntimeRegister(portset, client, &kOps, &h), ZEK_OK);
      return h;
   }
};

TEST_F(SimTransit, RegistrationIsKeptPerPortsetAndClientName) {
   zek_FABTransitClientHandle a = Register("vs0", "first");
   ASSERT_NE(a, nullptr);
   zek_FABTransitClientHandle b = Register("vs0", "second");
   zek_FABTransitClientHandle c = Register("vs1", "first");
   ASSERT_EQ(sim::LiveTransitClients(), 3u);
   auto clients = sim::TransitClients();
   ASSERT_EQ(clients.size(), 3u);
   EXPECT_EQ(clients[0].portset, "vs0");
   EXPECT_EQ(clients[0].client, "first");
   EXPECT_EQ(clients[0].handle, a);
   EXPECT_EQ(clients[1].client, "second");
   EXPECT_EQ(clients[1].handle, b);
   EXPECT_EQ(clients[2].portset, "vs1");
   EXPECT_EQ(clients[2].handle, c);

   zek_FABTransitClientHandle h = nullptr;
   EXPECT_EQ(zek_FABTransitClientRuntimeRegister("vs0", "first", &kOps, &h), 0xbad0005u);
   EXPECT_EQ(zek_FABTransitClientRuntimeRegister("vs9", "first", &kOps, &h), 0xbad0003u);
   EXPECT_EQ(zek_FABTransitClientRuntimeRegister(nullptr, "x", &kOps, &h), 0xbad0007u);
   EXPECT_EQ(zek_FABTransitClientRuntimeRegister("vs0", nullptr, &kOps, &h), 0xbad0007u);
   EXPECT_EQ(zek_FABTransitClientRuntimeRegister("vs0", "x", nullptr, &h), 0xbad0007u);
   EXPECT_EQ(zek_FABTransitClientRuntimeRegister("vs0", "x", &kOps, nullptr), 0xbad0007u);
   EXPECT_EQ(h, nullptr);
   EXPECT_EQ(sim::LiveTransitClients(), 3u);

   EXPECT_EQ(zek_FABTransitClientRuntimeUnregister(b), ZEK_OK);
   EXPECT_EQ(zek_FABTransitClientRuntimeUnregister(b), 0xbad0003u);
   EXPECT_EQ(sim::LiveTransitClients(), 2u);
}

TEST_F(SimTransit, FaultedRegistrationAndUnregistrationChangeNothing) {
   zek_FABTransitClientHandle h = nullptr;
   sim::FaultCall("FABTransitClientRuntimeRegister", 0xbad0014);
   EXPECT_EQ(zek_FABTransitClientRuntimeRegister("vs0", "c", &kOps, &h), 0xbad0014u);
   EXPECT_EQ(h, nullptr);
   EXPECT_EQ(sim::LiveTransitClients(), 0u);
   h = Register("vs0");
   sim::FaultCall("FABTransitClientRuntimeUnregister", 0xbad0001);
   EXPECT_EQ(zek_FABTransitClientRuntimeUnregister(h), 0xbad0001u);
   EXPECT_EQ(sim::LiveTransitClients(), 1u);
}

TEST_F(SimTransit, EachOperationReachesThePortsetsClientWithItsArguments) {
   Register("vs0");
   gSize = 77;
   uint32_t size = 0;
   EXPECT_EQ(sim::TransitSize("vs0", 10, &size), ZEK_OK);
   EXPECT_EQ(size, 77u);

   gSaveBytes = {1, 2, 3};
   uint8_t buf[8] = {};
   uint32_t dataLen = 99;
   EXPECT_EQ(sim::TransitSave("vs0", 10, buf, sizeof buf, &dataLen, 0x1122334455667788ull),
             ZEK_OK);
   EXPECT_EQ(dataLen, 3u);
   EXPECT_EQ(buf[2], 3u);

   const uint8_t bytes[4] = {9, 8, 7, 6};
   EXPECT_EQ(sim::TransitRestore("vs0", 11, bytes, sizeof bytes, 1234), ZEK_OK);
   gRestoreStatus = 0xbad0007;
   EXPECT_EQ(sim::TransitRestore("vs0", 12, std::vector<uint8_t>{5, 4}, 56), 0xbad0007u);
   EXPECT_EQ(sim::TransitRestore("vs0", 13, std::vector<uint8_t>{}, 0), 0xbad0007u);
   EXPECT_EQ(sim::TransitCompleted("vs0", true, 0xbad0003), ZEK_OK);

   ASSERT_EQ(gCalls.size(), 6u);
   EXPECT_EQ(gCalls[0].what, "size");
   EXPECT_EQ(gCalls[0].portID, 10u);
   EXPECT_EQ(gCalls[1].what, "save");
   EXPECT_EQ(gCalls[1].buf, buf);
   EXPECT_EQ(gCalls[1].bufLen, 8u);
   EXPECT_EQ(gCalls[1].word, 0x1122334455667788ull);
   EXPECT_EQ(gCalls[2].what, "restore");
   EXPECT_EQ(gCalls[2].portID, 11u);
   EXPECT_EQ(gCalls[2].buf, bytes);
   EXPECT_EQ(gCalls[2].bufLen, 4u);
   EXPECT_EQ(gCalls[2].word, 1234u);
   EXPECT_EQ(gCalls[3].portID, 12u);
   EXPECT_EQ(gCalls[3].bytes, (std::vector<uint8_t>{5, 4}));
   EXPECT_EQ(gCalls[3].bufLen, 2u);
   EXPECT_EQ(gCalls[3].word, 56u);
   EXPECT_EQ(gCalls[4].buf, nullptr);
   EXPECT_EQ(gCalls[4].bufLen, 0u);
   EXPECT_EQ(gCalls[5].what, "completed");
   EXPECT_TRUE(gCalls[5].isCrossHost);
   EXPECT_EQ(gCalls[5].status, 0xbad0003u);
}

TEST_F(SimTransit, OperationsOnAPortsetWithoutClientCallNothing) {
   Register("vs0");
   uint32_t size = 5;
   uint32_t dataLen = 5;
   uint8_t buf[1];
   EXPECT_EQ(sim::TransitSize("vs1", 20, &size), 0xbad0003u);
   EXPECT_EQ(size, 5u);
   EXPECT_EQ(sim::TransitSave("vs1", 20, buf, 1, &dataLen), 0xbad0003u);
   EXPECT_EQ(sim::TransitRestore("vs1", 20, std::vector<uint8_t>{1}, 0), 0xbad0003u);
   EXPECT_EQ(sim::TransitCompleted("nowhere", false, ZEK_OK), 0xbad0003u);
   EXPECT_EQ(dataLen, 5u);
   EXPECT_TRUE(gCalls.empty());
}

TEST_F(SimTransit, MoveSavesAtTheSourceRestoresAtTheDestinationAndCompletesBoth) {
   Register("vs0");
   Register("vs1");
   gSize = 6;
   gSaveBytes = {0xa, 0xb, 0xc, 0xd};
   sim::UseVirtualClock(true);
   sim::TransitMoveResult result;
   sim::TransitMoveOptions opts;
   opts.reserved = 42;
   opts.fill = 0xee;
   EXPECT_EQ(sim::TransitMove(10, 20, &result, opts), ZEK_OK);
   EXPECT_EQ(result.size, 6u);
   EXPECT_EQ(result.bufLen, 6u);
   EXPECT_EQ(result.dataLen, 4u);
   EXPECT_EQ(result.saveStatus, ZEK_OK);
   EXPECT_EQ(result.restoreStatus, ZEK_OK);
   EXPECT_TRUE(result.restored);
   EXPECT_EQ(result.elapsedMS, 0u);
   EXPECT_EQ(result.data, (std::vector<uint8_t>{0xa, 0xb, 0xc, 0xd}));

   ASSERT_EQ(gCalls.size(), 5u);
   EXPECT_EQ(gCalls[0].what, "size");
   EXPECT_EQ(gCalls[0].portID, 10u);
   EXPECT_EQ(gCalls[1].what, "save");
   EXPECT_EQ(gCalls[1].portID, 10u);
   EXPECT_EQ(gCalls[1].bufLen, 6u);
   EXPECT_EQ(gCalls[1].word, 42u);
   /* The buffer is filled as asked before the save. */
   EXPECT_EQ(gCalls[1].bytes, std::vector<uint8_t>(6, 0xee));
   EXPECT_EQ(gCalls[2].what, "restore");
   EXPECT_EQ(gCalls[2].portID, 20u);
   EXPECT_EQ(gCalls[2].bufLen, 4u);
   EXPECT_EQ(gCalls[2].bytes, result.data);
   EXPECT_EQ(gCalls[3].what, "completed");
   EXPECT_TRUE(gCalls[3].isCrossHost);
   EXPECT_EQ(gCalls[3].status, ZEK_OK);
   EXPECT_EQ(gCalls[4].what, "completed");
}

TEST_F(SimTransit, MoveWithNothingToSaveRestoresAnEmptyBuffer) {
   Register("vs0");
   sim::TransitMoveResult result;
   sim::TransitMoveOptions opts;
   opts.isCrossHost = false;
   opts.elapsedMS = 1500;
   EXPECT_EQ(sim::TransitMove(10, 10, &result, opts), ZEK_OK);
   EXPECT_EQ(result.size, 0u);
   EXPECT_EQ(result.bufLen, 0u);
   EXPECT_EQ(result.dataLen, 0u);
   ASSERT_EQ(gCalls.size(), 4u);
   EXPECT_EQ(gCalls[0].what, "size");
   EXPECT_EQ(gCalls[1].what, "restore");
   EXPECT_EQ(gCalls[1].buf, nullptr);
   EXPECT_EQ(gCalls[1].bufLen, 0u);
   EXPECT_EQ(gCalls[1].word, 1500u);
   EXPECT_FALSE(gCalls[2].isCrossHost);
   EXPECT_EQ(gCalls[3].what, "completed");
}

/* A save during which two and a quarter seconds pass. */
zek_Status SlowSave(zek_PortID portID, void *buf, uint32_t bufLen, uint32_t *dataLen,
                    uint64_t reserved) {
   zek_Status status = Save(portID, buf, bufLen, dataLen, reserved);
   sim::Advance(2.25);
   return status;
}

TEST_F(SimTransit, MoveTakesTheElapsedTimeFromTheVirtualClock) {
   static const zek_FABTransitOps slowOps = {GetSize, SlowSave, Restore, Completed};
   Register("vs0");
   zek_FABTransitClientHandle h = nullptr;
   ASSERT_EQ(zek_FABTransitClientRuntimeRegister("vs1", "slow", &slowOps, &h), ZEK_OK);
   gSize = 2;
   gSaveBytes = {1, 2};
   sim::UseVirtualClock(true);
   sim::TransitMoveResult result;
   EXPECT_EQ(sim::TransitMove(10, 20, &result), ZEK_OK);
   EXPECT_EQ(result.elapsedMS, 0u);
   EXPECT_EQ(gCalls[2].word, 0u);
   gCalls.clear();
   EXPECT_EQ(sim::TransitMove(20, 10, &result), ZEK_OK);
   EXPECT_EQ(result.elapsedMS, 2250u);
   ASSERT_EQ(gCalls.size(), 5u);
   EXPECT_EQ(gCalls[2].what, "restore");
   EXPECT_EQ(gCalls[2].word, 2250u);
}

TEST_F(SimTransit, FailedSaveSkipsTheRestoreAndIsReportedToBothSides) {
   Register("vs0");
   Register("vs1");
   gSize = 4;
   gSaveStatus = 0xbad0014;
   sim::TransitMoveResult result;
   EXPECT_EQ(sim::TransitMove(10, 20, &result), 0xbad0014u);
   EXPECT_EQ(result.saveStatus, 0xbad0014u);
   EXPECT_FALSE(result.restored);
   ASSERT_EQ(gCalls.size(), 4u);
   EXPECT_EQ(gCalls[1].what, "save");
   EXPECT_EQ(gCalls[2].what, "completed");
   EXPECT_EQ(gCalls[2].status, 0xbad0014u);
   EXPECT_EQ(gCalls[3].status, 0xbad0014u);
}

TEST_F(SimTransit, FailedRestoreIsReportedToBothSides) {
   Register("vs0");
   Register("vs1");
   gSize = 1;
   gSaveBytes = {7};
   gRestoreStatus = 0xbad0001;
   sim::TransitMoveResult result;
   EXPECT_EQ(sim::TransitMove(10, 20, &result), 0xbad0001u);
   EXPECT_EQ(result.restoreStatus, 0xbad0001u);
   ASSERT_EQ(gCalls.size(), 5u);
   EXPECT_EQ(gCalls[3].status, 0xbad0001u);
   EXPECT_EQ(gCalls[4].status, 0xbad0001u);
}

TEST_F(SimTransit, MoveWithAGivenBufferLengthRestoresOnlyWhatWasSaved) {
   Register("vs0");
   Register("vs1");
   gSize = 10;
   gSaveBytes = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
   sim::TransitMoveOptions opts;
   opts.bufLen = 3;
   sim::TransitMoveResult result;
   EXPECT_EQ(sim::TransitMove(10, 20, &result, opts), ZEK_OK);
   EXPECT_EQ(result.size, 10u);
   EXPECT_EQ(result.bufLen, 3u);
   EXPECT_EQ(result.dataLen, 3u);
   EXPECT_EQ(gCalls[2].bytes, (std::vector<uint8_t>{1, 2, 3}));
}

TEST_F(SimTransit, SaveThatClaimsMoreThanItsBufferIsAHostFailure) {
   Register("vs0");
   Register("vs1");
   gSize = 2;
   gSaveBytes = {1, 2};
   gReportedLen = 3;
   sim::TransitMoveResult result;
   EXPECT_EQ(sim::TransitMove(10, 20, &result), 0xbad0001u);
   EXPECT_FALSE(result.restored);
   auto failures = simtest::TakeFailures();
   ASSERT_EQ(failures.size(), 1u);
   EXPECT_EQ(failures[0], "Transit save of port 10 reported 3 bytes in a buffer of 2");
}

TEST_F(SimTransit, MoveOfAnUnknownPortOrWithoutClientCallsNothing) {
   Register("vs0");
   EXPECT_EQ(sim::TransitMove(10, 99), 0xbad0003u);
   EXPECT_EQ(sim::TransitMove(99, 10), 0xbad0003u);
   EXPECT_EQ(sim::TransitMove(10, 20), 0xbad0003u);
   EXPECT_TRUE(gCalls.empty());
}

TEST_F(SimTransit, GuardedBuffersAreTheDefaultOnlyInTheSanitizerBuild) {
#if defined(__SANITIZE_ADDRESS__)
   EXPECT_TRUE(sim::GuardedBuffers());
#else
   EXPECT_FALSE(sim::GuardedBuffers());
#endif
   sim::SetGuardedBuffers(true);
   EXPECT_TRUE(sim::GuardedBuffers());
   sim::Reset();
   sim::SetFailureHook(&simtest::RecordFailure);
#if defined(__SANITIZE_ADDRESS__)
   EXPECT_TRUE(sim::GuardedBuffers());
#else
   EXPECT_FALSE(sim::GuardedBuffers());
#endif
}

TEST_F(SimTransit, GuardedRestoreBufferEndsAtAnUntouchablePage) {
   Register("vs0");
   sim::SetGuardedBuffers(true);
   /* Reading the whole buffer is fine, and it holds the bytes given. */
   std::vector<uint8_t> data(5000);
   for (size_t i = 0; i < data.size(); i++) data[i] = static_cast<uint8_t>(i * 7);
   EXPECT_EQ(sim::TransitRestore("vs0", 10, data, 0), ZEK_OK);
   ASSERT_EQ(gCalls.size(), 1u);
   EXPECT_EQ(gCalls[0].bytes, data);
   EXPECT_EQ(gCalls[0].bufLen, 5000u);
   /* The byte after it is in the next page, which can't be read. */
   const uintptr_t end = reinterpret_cast<uintptr_t>(gCalls[0].buf) + 5000;
   EXPECT_EQ(end % static_cast<uintptr_t>(sysconf(_SC_PAGESIZE)), 0u);
}

TEST_F(SimTransit, ReadingPastAGuardedBufferFaultsAtOnce) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   static const zek_FABTransitOps overReading = {GetSize, Save, OverRead, Completed};
   zek_FABTransitClientHandle h = nullptr;
   ASSERT_EQ(zek_FABTransitClientRuntimeRegister("vs0", "c", &overReading, &h), ZEK_OK);
   sim::SetGuardedBuffers(true);
   EXPECT_DEATH((void)sim::TransitRestore("vs0", 10, std::vector<uint8_t>(13, 1), 0), "");
}

} // namespace
