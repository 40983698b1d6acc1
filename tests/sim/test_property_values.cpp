/*
 * Tests of the property values the switch keeps per port, and of their
 * replay to handlers that register after the values were written.
 */
#include "sim_switch.h"
#include "sim_test_fixture.h"

namespace {

struct Write {
   zek_PortsetHandle ps;
   zek_PortID portID;
   std::string prop;
   std::vector<uint8_t> bytes;
   bool nullData;
};
std::vector<Write> gWrites;
std::vector<zek_PortID> gCleanups;
zek_Status gAnswer = ZEK_OK;

zek_Status WriteFn(zek_PortsetHandle ps, zek_PortID portID, const char *prop,
                   const void *data, uint32_t len) {
   const auto *bytes = static_cast<const uint8_t *>(data);
   gWrites.push_back(Write{ps, portID, prop,
                           data != nullptr ? std::vector<uint8_t>(bytes, bytes + len)
                                           : std::vector<uint8_t>(),
                           data == nullptr});
   return gAnswer;
}

zek_Status CleanupFn(zek_PortsetHandle, zek_PortID portID) {
   gCleanups.push_back(portID);
   return ZEK_OK;
}

const zek_FABClientPortOps kOps = {WriteFn, nullptr, nullptr, CleanupFn};

/* Registers from within an event, as a module does on activation. */
zek_FABClientHandle gFromEvent[2];
zek_Status RegisterOnEvent(void *, const char *, void *, void *eventData) {
   const char *name = zek_PortsetName(static_cast<zek_PortsetHandle>(eventData));
   EXPECT_EQ(zek_FABClientPortRegister(&gFromEvent[0], name, "a", &kOps), ZEK_OK);
   EXPECT_EQ(zek_FABClientPortRegister(&gFromEvent[1], name, "b", &kOps), ZEK_OK);
   /* Nothing is replayed while the registering code runs. */
   EXPECT_TRUE(gWrites.empty());
   return ZEK_OK;
}

class SimPropertyValues : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      gWrites.clear();
      gCleanups.clear();
      gAnswer = ZEK_OK;
      ps0_ = sim::AddPortset("vs0");
      ASSERT_NE(ps0_, nullptr);
      ASSERT_NE(sim::AddPortset("vs1"), nullptr);
      ASSERT_TRUE(sim::AddPort("vs0", 12));
      ASSERT_TRUE(sim::AddPort("vs0", 11));
      ASSERT_TRUE(sim::AddPort("vs1", 20));
   }
   static std::vector<uint8_t> Value(zek_PortID port, const std::string &prop) {
      std::vector<uint8_t> value;
      EXPECT_TRUE(sim::PropertyValue(port, prop, &value)) << port << " " << prop;
      return value;
   }
   zek_PortsetHandle ps0_;
};

TEST_F(SimPropertyValues, PortKeepsTheLastAcceptedValueOfEachProperty) {
   zek_FABClientHandle h = nullptr;
   ASSERT_EQ(zek_FABClientPortRegister(&h, "vs0", "a", &kOps), ZEK_OK);
   ASSERT_EQ(sim::WriteProperty(11, "a", {1, 2}, nullptr), ZEK_OK);
   ASSERT_EQ(sim::WriteProperty(11, "a", {3}, nullptr), ZEK_OK);
   EXPECT_EQ(Value(11, "a"), (std::vector<uint8_t>{3}));
   /* A refused value leaves the one before. */
   gAnswer = 0xbad0007;
   EXPECT_EQ(sim::WriteProperty(11, "a", {4, 4}, nullptr), 0xbad0007u);
   EXPECT_EQ(Value(11, "a"), (std::vector<uint8_t>{3}));
   /* Without a handler, the port carries the value all the same. */
   bool handled = true;
   EXPECT_EQ(sim::WriteProperty(11, "b", {5}, &handled), 0xbad0003u);
   EXPECT_FALSE(handled);
   EXPECT_EQ(Value(11, "b"), (std::vector<uint8_t>{5}));
   /* An empty value is a value. */
   gAnswer = ZEK_OK;
   ASSERT_EQ(sim::WriteProperty(12, "a", {}, nullptr), ZEK_OK);
   EXPECT_EQ(Value(12, "a"), std::vector<uint8_t>{});
   /* Unknown ports keep nothing. */
   EXPECT_EQ(sim::WriteProperty(99, "a", {1}, nullptr), 0xbad0003u);
   EXPECT_FALSE(sim::PropertyValue(99, "a", nullptr));
   EXPECT_FALSE(sim::PropertyValue(20, "a", nullptr));
}

TEST_F(SimPropertyValues, CleanupAndPortRemovalForgetValues) {
   ASSERT_EQ(sim::WriteProperty(11, "a", {1}, nullptr), 0xbad0003u);
   ASSERT_EQ(sim::WriteProperty(11, "b", {2}, nullptr), 0xbad0003u);
   ASSERT_EQ(sim::WriteProperty(12, "a", {3}, nullptr), 0xbad0003u);
   bool handled = true;
   EXPECT_EQ(sim::CleanupProperty(11, "a", &handled), 0xbad0003u);
   EXPECT_FALSE(handled);
   EXPECT_FALSE(sim::PropertyValue(11, "a", nullptr));
   EXPECT_TRUE(sim::PropertyValue(11, "b", nullptr));
   ASSERT_TRUE(sim::RemovePort(11));
   EXPECT_FALSE(sim::PropertyValue(11, "b", nullptr));
   /* A new port of the same id starts bare. */
   ASSERT_TRUE(sim::AddPort("vs0", 11));
   EXPECT_FALSE(sim::PropertyValue(11, "b", nullptr));
   sim::RemovePortset("vs0");
   EXPECT_FALSE(sim::PropertyValue(12, "a", nullptr));
}

TEST_F(SimPropertyValues, LateHandlerIsGivenTheValuesOnceTheRegisteringCallReturned) {
   ASSERT_EQ(sim::WriteProperty(12, "a", {1}, nullptr), 0xbad0003u);
   ASSERT_EQ(sim::WriteProperty(11, "a", {2, 2}, nullptr), 0xbad0003u);
   ASSERT_EQ(sim::WriteProperty(11, "b", {}, nullptr), 0xbad0003u);
   ASSERT_EQ(sim::WriteProperty(20, "a", {3}, nullptr), 0xbad0003u);
   zek_FABClientHandle a = nullptr, b = nullptr;
   ASSERT_EQ(zek_FABClientPortRegister(&a, "vs0", "a", &kOps), ZEK_OK);
   ASSERT_EQ(zek_FABClientPortRegister(&b, "vs0", "b", &kOps), ZEK_OK);
   EXPECT_TRUE(gWrites.empty());
   EXPECT_EQ(sim::ReplayProperties(), 3u);
   ASSERT_EQ(gWrites.size(), 3u);
   /* Registration order, then port order; only the portset's ports. */
   EXPECT_EQ(gWrites[0].ps, ps0_);
   EXPECT_EQ(gWrites[0].portID, 11u);
   EXPECT_EQ(gWrites[0].prop, "a");
   EXPECT_EQ(gWrites[0].bytes, (std::vector<uint8_t>{2, 2}));
   EXPECT_EQ(gWrites[1].portID, 12u);
   EXPECT_EQ(gWrites[1].bytes, (std::vector<uint8_t>{1}));
   EXPECT_EQ(gWrites[2].portID, 11u);
   EXPECT_EQ(gWrites[2].prop, "b");
   EXPECT_TRUE(gWrites[2].nullData);
   /* Each registration is replayed once. */
   EXPECT_EQ(sim::ReplayProperties(), 0u);
   EXPECT_EQ(gWrites.size(), 3u);
   ASSERT_EQ(zek_FABClientPortUnregister(a), ZEK_OK);
   ASSERT_EQ(zek_FABClientPortUnregister(b), ZEK_OK);
}

TEST_F(SimPropertyValues, ReplayGivesTheValueKeptAtReplayTime) {
   ASSERT_EQ(sim::WriteProperty(11, "a", {1}, nullptr), 0xbad0003u);
   zek_FABClientHandle a = nullptr;
   ASSERT_EQ(zek_FABClientPortRegister(&a, "vs0", "a", &kOps), ZEK_OK);
   ASSERT_EQ(sim::WriteProperty(11, "a", {9}, nullptr), ZEK_OK);
   /* The value went away meanwhile on the other port: nothing for it. */
   ASSERT_EQ(sim::WriteProperty(12, "a", {5}, nullptr), ZEK_OK);
   ASSERT_EQ(sim::CleanupProperty(12, "a", nullptr), ZEK_OK);
   gWrites.clear();
   EXPECT_EQ(sim::ReplayProperties(), 1u);
   ASSERT_EQ(gWrites.size(), 1u);
   EXPECT_EQ(gWrites[0].portID, 11u);
   EXPECT_EQ(gWrites[0].bytes, (std::vector<uint8_t>{9}));
   ASSERT_EQ(zek_FABClientPortUnregister(a), ZEK_OK);
}

TEST_F(SimPropertyValues, HandlerWithoutValuesOnItsPortsetOrGoneIsOwedNothing) {
   ASSERT_EQ(sim::WriteProperty(20, "a", {1}, nullptr), 0xbad0003u);
   ASSERT_EQ(sim::WriteProperty(11, "a", {1}, nullptr), 0xbad0003u);
   zek_FABClientHandle a = nullptr, b = nullptr;
   ASSERT_EQ(zek_FABClientPortRegister(&a, "vs0", "b", &kOps), ZEK_OK);
   ASSERT_EQ(zek_FABClientPortRegister(&b, "vs0", "a", &kOps), ZEK_OK);
   ASSERT_EQ(zek_FABClientPortUnregister(b), ZEK_OK);
   EXPECT_EQ(sim::ReplayProperties(), 0u);
   EXPECT_TRUE(gWrites.empty());
   ASSERT_EQ(zek_FABClientPortUnregister(a), ZEK_OK);
}

TEST_F(SimPropertyValues, HandlerStatusDuringReplayIsIgnoredAndTheValueStays) {
   ASSERT_EQ(sim::WriteProperty(11, "a", {1}, nullptr), 0xbad0003u);
   zek_FABClientHandle a = nullptr;
   ASSERT_EQ(zek_FABClientPortRegister(&a, "vs0", "a", &kOps), ZEK_OK);
   gAnswer = 0xbad0007;
   EXPECT_EQ(sim::ReplayProperties(), 1u);
   EXPECT_EQ(Value(11, "a"), (std::vector<uint8_t>{1}));
   ASSERT_EQ(zek_FABClientPortUnregister(a), ZEK_OK);
}

TEST_F(SimPropertyValues, HandlersRegisteredOnAnEventAreReplayedWhenTheEventReturns) {
   ASSERT_EQ(sim::WriteProperty(11, "b", {7}, nullptr), 0xbad0003u);
   ASSERT_EQ(sim::WriteProperty(12, "a", {6}, nullptr), 0xbad0003u);
   zek_NetEventHandle sub = nullptr;
   ASSERT_EQ(zek_NetEventPortsetEventSubscribe(0, "replay.me", RegisterOnEvent, nullptr, &sub),
             ZEK_OK);
   sim::RaiseEvent("replay.me", ps0_);
   ASSERT_EQ(gWrites.size(), 2u);
   EXPECT_EQ(gWrites[0].portID, 12u);
   EXPECT_EQ(gWrites[0].prop, "a");
   EXPECT_EQ(gWrites[1].portID, 11u);
   EXPECT_EQ(gWrites[1].prop, "b");
   ASSERT_EQ(zek_FABClientPortUnregister(gFromEvent[0]), ZEK_OK);
   ASSERT_EQ(zek_FABClientPortUnregister(gFromEvent[1]), ZEK_OK);
   ASSERT_EQ(zek_NetEventPortsetEventUnsubscribe(sub), ZEK_OK);
}

TEST_F(SimPropertyValues, CleanupStillReachesTheHandler) {
   zek_FABClientHandle a = nullptr;
   ASSERT_EQ(zek_FABClientPortRegister(&a, "vs0", "a", &kOps), ZEK_OK);
   ASSERT_EQ(sim::WriteProperty(11, "a", {1}, nullptr), ZEK_OK);
   bool handled = false;
   EXPECT_EQ(sim::CleanupProperty(11, "a", &handled), ZEK_OK);
   EXPECT_TRUE(handled);
   EXPECT_EQ(gCleanups, (std::vector<zek_PortID>{11}));
   EXPECT_FALSE(sim::PropertyValue(11, "a", nullptr));
   ASSERT_EQ(zek_FABClientPortUnregister(a), ZEK_OK);
}

} // namespace
