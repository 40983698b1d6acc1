/*
 * Tests of the simulated host's portsets and ports: data slots and their
 * destructors, holds, walks, lookups, flags and VNICs.
 */
#include <cstring>

#include "sim_test_fixture.h"

namespace {

struct DestructorCall {
   zek_PortID portID;
   void *valueSeen; /* what the slot held while the destructor ran */
};
std::vector<DestructorCall> gDestructorCalls;
uint32_t gDestructorSlot;

zek_Status RecordingDestructor(zek_PortID portID) {
   void *value = nullptr;
   oxa_PortVoltaliteDataGet(portID, gDestructorSlot, &value);
   gDestructorCalls.push_back({portID, value});
   return ZEK_OK;
}

class SimPorts : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      gDestructorCalls.clear();
      gDestructorSlot = 0;
      ASSERT_NE(sim::AddPortset("vSwitch0"), nullptr);
      ASSERT_TRUE(sim::AddPort("vSwitch0", 100));
      ASSERT_TRUE(sim::AddPort("vSwitch0", 101));
   }
};

TEST_F(SimPorts, PortBelongsToItsPortset) {
   zek_PortsetHandle ps = nullptr;
   ASSERT_EQ(zek_PortsetFindByPortID(100, &ps), ZEK_OK);
   EXPECT_EQ(ps, sim::FindPortset("vSwitch0"));
   EXPECT_STREQ(zek_PortsetName(ps), "vSwitch0");
   EXPECT_TRUE(sim::PortExists(101));
   EXPECT_FALSE(sim::PortExists(102));
   EXPECT_EQ(zek_PortsetFindByPortID(102, &ps), 0xbad0003u);
}

TEST_F(SimPorts, DuplicatePortsAndPortsetsAreRefused) {
   EXPECT_EQ(sim::AddPortset("vSwitch0"), nullptr);
   EXPECT_FALSE(sim::AddPort("vSwitch0", 100));
   EXPECT_FALSE(sim::AddPort("noSuchSwitch", 200));
}

TEST_F(SimPorts, SlotHoldsWhatWasSet) {
   int value = 7;
   ASSERT_EQ(oxa_PortVoltaliteDataSet(100, 3, &value, nullptr), ZEK_OK);
   void *got = nullptr;
   EXPECT_EQ(oxa_PortVoltaliteDataGet(100, 3, &got), ZEK_OK);
   EXPECT_EQ(got, &value);
   EXPECT_EQ(sim::PortData(100, 3), &value);
   EXPECT_EQ(sim::PortData(101, 3), nullptr);
}

TEST_F(SimPorts, GetOfUnknownPortOrEmptySlotIsNotFound) {
   void *got = reinterpret_cast<void *>(0x1);
   EXPECT_EQ(oxa_PortVoltaliteDataGet(999, 0, &got), 0xbad0003u);
   EXPECT_EQ(oxa_PortVoltaliteDataGet(100, 0, &got), 0xbad0003u);
   EXPECT_EQ(got, reinterpret_cast<void *>(0x1));
   EXPECT_EQ(oxa_PortVoltaliteDataSet(999, 0, &got, nullptr), 0xbad0003u);
   EXPECT_EQ(oxa_PortVoltaliteDataUnset(100, 0), 0xbad0003u);
}

TEST_F(SimPorts, SlotsBeyondFifteenAreRefused) {
   int value = 0;
   void *got = nullptr;
   EXPECT_EQ(oxa_PortVoltaliteDataSet(100, 15, &value, nullptr), ZEK_OK);
   EXPECT_EQ(oxa_PortVoltaliteDataSet(100, 16, &value, nullptr), 0xbad0007u);
   EXPECT_EQ(oxa_PortVoltaliteDataGet(100, 16, &got), 0xbad0007u);
}

TEST_F(SimPorts, DestructorRunsOnRemovePortWithThePortID) {
   int value = 1;
   gDestructorSlot = 2;
   ASSERT_EQ(oxa_PortVoltaliteDataSet(100, 2, &value, RecordingDestructor), ZEK_OK);
   EXPECT_TRUE(sim::RemovePort(100));
   ASSERT_EQ(gDestructorCalls.size(), 1u);
   EXPECT_EQ(gDestructorCalls[0].portID, 100u);
   EXPECT_EQ(gDestructorCalls[0].valueSeen, &value);
   EXPECT_FALSE(sim::PortExists(100));
   EXPECT_FALSE(sim::RemovePort(100));
   EXPECT_TRUE(sim::PortExists(101));
}

TEST_F(SimPorts, UnsetClearsTheSlotWithoutRunningTheDestructor) {
   int value = 1;
   ASSERT_EQ(oxa_PortVoltaliteDataSet(100, 0, &value, RecordingDestructor), ZEK_OK);
   EXPECT_EQ(oxa_PortVoltaliteDataUnset(100, 0), ZEK_OK);
   void *got = nullptr;
   EXPECT_EQ(oxa_PortVoltaliteDataGet(100, 0, &got), 0xbad0003u);
   EXPECT_TRUE(sim::RemovePort(100));
   EXPECT_TRUE(gDestructorCalls.empty());
}

TEST_F(SimPorts, RemovePortsetRemovesItsPortsAndRunsTheirDestructors) {
   ASSERT_NE(sim::AddPortset("vSwitch1"), nullptr);
   ASSERT_TRUE(sim::AddPort("vSwitch1", 200));
   int a = 1, b = 2, c = 3;
   ASSERT_EQ(oxa_PortVoltaliteDataSet(100, 0, &a, RecordingDestructor), ZEK_OK);
   ASSERT_EQ(oxa_PortVoltaliteDataSet(101, 0, &b, RecordingDestructor), ZEK_OK);
   ASSERT_EQ(oxa_PortVoltaliteDataSet(200, 0, &c, RecordingDestructor), ZEK_OK);
   sim::RemovePortset("vSwitch0");
   ASSERT_EQ(gDestructorCalls.size(), 2u);
   EXPECT_EQ(gDestructorCalls[0].portID, 100u);
   EXPECT_EQ(gDestructorCalls[1].portID, 101u);
   EXPECT_EQ(sim::FindPortset("vSwitch0"), nullptr);
   EXPECT_FALSE(sim::PortExists(100));
   EXPECT_TRUE(sim::PortExists(200));
}

TEST_F(SimPorts, AcquireAndReleaseAreCounted) {
   zek_PortsetHandle byId = nullptr, byName = nullptr;
   ASSERT_EQ(zek_PortsetAcquireByPortID(100, ZEK_PORTSET_MODE_READ, &byId), ZEK_OK);
   ASSERT_EQ(zek_PortsetAcquireByName("vSwitch0", ZEK_PORTSET_MODE_READ, &byName),
             ZEK_OK);
   EXPECT_EQ(byId, byName);
   EXPECT_EQ(sim::PortsetsAcquired(), 2u);
   EXPECT_EQ(zek_PortsetRelease(byId), ZEK_OK);
   EXPECT_EQ(sim::PortsetsAcquired(), 1u);
   EXPECT_EQ(zek_PortsetRelease(byName), ZEK_OK);
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
}

TEST_F(SimPorts, ReleaseOfAHandleNotAcquiredIsReported) {
   zek_PortsetHandle ps = sim::FindPortset("vSwitch0");
   EXPECT_EQ(zek_PortsetRelease(ps), 0xbad0007u);
   EXPECT_EQ(simtest::TakeFailures(),
             std::vector<std::string>{
                "portset release of a handle that is not acquired"});
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
}

TEST_F(SimPorts, AcquireOfUnknownPortOrNameLeavesTheHandleUntouched) {
   zek_PortsetHandle ps = reinterpret_cast<zek_PortsetHandle>(0x1);
   EXPECT_EQ(zek_PortsetAcquireByPortID(999, ZEK_PORTSET_MODE_READ, &ps), 0xbad0003u);
   EXPECT_EQ(zek_PortsetAcquireByName("nope", ZEK_PORTSET_MODE_READ, &ps),
             0xbad0003u);
   EXPECT_EQ(ps, reinterpret_cast<zek_PortsetHandle>(0x1));
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
}

struct Walk {
   std::vector<zek_PortID> seen;
   zek_PortID stopAt = 0;
};

zek_Status VisitPort(zek_PortsetHandle, zek_PortID portID, void *data) {
   auto *walk = static_cast<Walk *>(data);
   walk->seen.push_back(portID);
   return portID == walk->stopAt ? 0xbad0006u : ZEK_OK;
}

TEST_F(SimPorts, ForAllPortsVisitsEveryPortOfThePortset) {
   ASSERT_NE(sim::AddPortset("vSwitch1"), nullptr);
   ASSERT_TRUE(sim::AddPort("vSwitch1", 200));
   Walk walk;
   EXPECT_EQ(zek_PortsetForAllPorts(sim::FindPortset("vSwitch0"), VisitPort, &walk),
             ZEK_OK);
   EXPECT_EQ(walk.seen, (std::vector<zek_PortID>{100, 101}));
}

TEST_F(SimPorts, ForAllPortsStopsAtAndReturnsTheFirstFailure) {
   ASSERT_TRUE(sim::AddPort("vSwitch0", 102));
   Walk walk;
   walk.stopAt = 101;
   EXPECT_EQ(zek_PortsetForAllPorts(sim::FindPortset("vSwitch0"), VisitPort, &walk),
             0xbad0006u);
   EXPECT_EQ(walk.seen, (std::vector<zek_PortID>{100, 101}));
}

zek_Status RemoveVisitedPort(zek_PortsetHandle, zek_PortID portID, void *) {
   void *value = nullptr;
   oxa_PortVoltaliteDataGet(portID, 0, &value);
   sim::RemovePort(portID);
   return ZEK_OK;
}

TEST_F(SimPorts, ForAllPortsCallbackMayCallBackIntoTheHost) {
   EXPECT_EQ(zek_PortsetForAllPorts(sim::FindPortset("vSwitch0"), RemoveVisitedPort,
                                    nullptr),
             ZEK_OK);
   EXPECT_FALSE(sim::PortExists(100));
   EXPECT_FALSE(sim::PortExists(101));
}

struct PortsetWalk {
   std::vector<std::string> names;
   std::string stopAt;
};

zek_Status VisitPortset(zek_PortsetHandle ps, void *data) {
   auto *walk = static_cast<PortsetWalk *>(data);
   walk->names.push_back(zek_PortsetName(ps));
   return walk->names.back() == walk->stopAt ? 0xbad0001u : ZEK_OK;
}

TEST_F(SimPorts, ForAllPortsetsVisitsInCreationOrderAndStopsAtAFailure) {
   ASSERT_NE(sim::AddPortset("b"), nullptr);
   ASSERT_NE(sim::AddPortset("a"), nullptr);
   PortsetWalk all;
   EXPECT_EQ(zek_PortsetForAllPortsets(ZEK_PORTSET_MODE_READ, VisitPortset, &all),
             ZEK_OK);
   EXPECT_EQ(all.names, (std::vector<std::string>{"vSwitch0", "b", "a"}));
   PortsetWalk stopped;
   stopped.stopAt = "b";
   EXPECT_EQ(zek_PortsetForAllPortsets(ZEK_PORTSET_MODE_READ, VisitPortset, &stopped),
             0xbad0001u);
   EXPECT_EQ(stopped.names, (std::vector<std::string>{"vSwitch0", "b"}));
}

TEST_F(SimPorts, ClassNameComesFromThePortset) {
   ASSERT_NE(sim::AddPortset("dvs", "distributed"), nullptr);
   char name[32];
   EXPECT_EQ(zek_PortsetLookupFABClassName(sim::FindPortset("vSwitch0"), name,
                                           sizeof name),
             ZEK_OK);
   EXPECT_STREQ(name, "vswitch");
   EXPECT_EQ(zek_PortsetLookupFABClassName(sim::FindPortset("dvs"), name, sizeof name),
             ZEK_OK);
   EXPECT_STREQ(name, "distributed");
   char tiny[4];
   EXPECT_EQ(zek_PortsetLookupFABClassName(sim::FindPortset("dvs"), tiny, sizeof tiny),
             0xbad0026u);
}

TEST_F(SimPorts, FabPortLookupUsesDefaultsAndGivenNames) {
   sim::PortOptions opts;
   opts.fabSwitch = "uuid-1";
   opts.fabPort = "port-a";
   ASSERT_TRUE(sim::AddPort("vSwitch0", 300, opts));
   zek_PortID id = 0;
   EXPECT_EQ(zek_PortFindByFABPortID("101", "vSwitch0", &id), ZEK_OK);
   EXPECT_EQ(id, 101u);
   EXPECT_EQ(zek_PortFindByFABPortID("port-a", "uuid-1", &id), ZEK_OK);
   EXPECT_EQ(id, 300u);
   EXPECT_EQ(zek_PortFindByFABPortID("300", "vSwitch0", &id), 0xbad0003u);
   EXPECT_EQ(id, 300u);
}

TEST_F(SimPorts, EnabledFlagFollowsOptionsAndSetPortFlag) {
   sim::PortOptions opts;
   opts.enabled = false;
   ASSERT_TRUE(sim::AddPort("vSwitch0", 300, opts));
   int isSet = -1;
   EXPECT_EQ(zek_PortFlagIsSet(100, ZEK_PORT_FLAG_ENABLED, &isSet), ZEK_OK);
   EXPECT_EQ(isSet, 1);
   EXPECT_EQ(zek_PortFlagIsSet(300, ZEK_PORT_FLAG_ENABLED, &isSet), ZEK_OK);
   EXPECT_EQ(isSet, 0);
   sim::SetPortFlag(300, ZEK_PORT_FLAG_ENABLED, true);
   EXPECT_EQ(zek_PortFlagIsSet(300, ZEK_PORT_FLAG_ENABLED, &isSet), ZEK_OK);
   EXPECT_EQ(isSet, 1);
   sim::SetPortFlag(100, ZEK_PORT_FLAG_ENABLED, false);
   EXPECT_EQ(zek_PortFlagIsSet(100, ZEK_PORT_FLAG_ENABLED, &isSet), ZEK_OK);
   EXPECT_EQ(isSet, 0);
   EXPECT_EQ(zek_PortFlagIsSet(999, ZEK_PORT_FLAG_ENABLED, &isSet), 0xbad0003u);
}

TEST_F(SimPorts, VnicHandleGivesThePortsType) {
   sim::PortOptions opts;
   opts.vnicType = 5;
   ASSERT_TRUE(sim::AddPort("vSwitch0", 300, opts));
   zek_VNICHandle vnic = nullptr;
   uint32_t type = 0;
   ASSERT_EQ(zek_VNICHandleGet(100, &vnic), ZEK_OK);
   EXPECT_EQ(zek_VNICTypeGet(vnic, &type), ZEK_OK);
   EXPECT_EQ(type, 2u);
   ASSERT_EQ(zek_VNICHandleGet(300, &vnic), ZEK_OK);
   EXPECT_EQ(zek_VNICTypeGet(vnic, &type), ZEK_OK);
   EXPECT_EQ(type, 5u);
}

TEST_F(SimPorts, UnreadableVnicIsNotFound) {
   sim::PortOptions opts;
   opts.vnicReadable = false;
   ASSERT_TRUE(sim::AddPort("vSwitch0", 300, opts));
   zek_VNICHandle vnic = nullptr;
   EXPECT_EQ(zek_VNICHandleGet(300, &vnic), 0xbad0003u);
   EXPECT_EQ(vnic, nullptr);
   EXPECT_EQ(zek_VNICHandleGet(999, &vnic), 0xbad0003u);
}

TEST_F(SimPorts, FaultCallOnDataGetFailsAfterTheGivenCallsForCountCalls) {
   int value = 1;
   ASSERT_EQ(oxa_PortVoltaliteDataSet(100, 0, &value, nullptr), ZEK_OK);
   sim::FaultCall("PortVoltaliteDataGet", 0xbad0014u, 2, 1);
   void *got = nullptr;
   EXPECT_EQ(oxa_PortVoltaliteDataGet(100, 0, &got), ZEK_OK);
   EXPECT_EQ(oxa_PortVoltaliteDataGet(100, 0, &got), 0xbad0014u);
   EXPECT_EQ(oxa_PortVoltaliteDataGet(100, 0, &got), 0xbad0014u);
   EXPECT_EQ(oxa_PortVoltaliteDataGet(100, 0, &got), ZEK_OK);
}

TEST_F(SimPorts, ResetForgetsPortsAndHoldsWithoutRunningDestructors) {
   int value = 1;
   ASSERT_EQ(oxa_PortVoltaliteDataSet(100, 0, &value, RecordingDestructor), ZEK_OK);
   zek_PortsetHandle ps = nullptr;
   ASSERT_EQ(zek_PortsetAcquireByPortID(100, ZEK_PORTSET_MODE_READ, &ps), ZEK_OK);
   sim::Reset();
   EXPECT_FALSE(sim::PortExists(100));
   EXPECT_EQ(sim::FindPortset("vSwitch0"), nullptr);
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
   EXPECT_TRUE(gDestructorCalls.empty());
}

} // namespace
