/*
 * Tests of the simulated host's record of portset messages.
 */
#include <cstring>

#include "sim_test_fixture.h"

namespace {

class SimMessage : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      ASSERT_NE(sim::AddPortset("vSwitch0"), nullptr);
      ASSERT_TRUE(sim::AddPort("vSwitch0", 100));
   }
   /* A message: name, payload length at 32, payload from 40. */
   static std::vector<uint8_t> Build(const char *name, uint64_t payloadLen,
                                     size_t room) {
      std::vector<uint8_t> msg(room, 0);
      std::strncpy(reinterpret_cast<char *>(msg.data()), name, 31);
      std::memcpy(msg.data() + 32, &payloadLen, sizeof payloadLen);
      for (size_t i = 40; i < room; i++) msg[i] = static_cast<uint8_t>(i);
      return msg;
   }
};

TEST_F(SimMessage, PostedMessageIsRecordedWithHeaderAndPayload) {
   zek_PortsetHandle ps = nullptr;
   ASSERT_EQ(zek_PortsetAcquireByName("vSwitch0", ZEK_PORTSET_MODE_READ, &ps), ZEK_OK);
   std::vector<uint8_t> msg = Build("vigil.binding", 40, 96);
   EXPECT_EQ(zek_PortsetPostMessage(ps, 100, 0x3, msg.data()), ZEK_OK);
   EXPECT_EQ(zek_PortsetRelease(ps), ZEK_OK);

   std::vector<sim::PortsetMessage> got = sim::TakePortsetMessages();
   ASSERT_EQ(got.size(), 1u);
   EXPECT_EQ(got[0].portset, "vSwitch0");
   EXPECT_EQ(got[0].portID, 100u);
   EXPECT_EQ(got[0].flags, 0x3u);
   EXPECT_EQ(got[0].name, "vigil.binding");
   ASSERT_EQ(got[0].bytes.size(), 80u);
   EXPECT_EQ(got[0].bytes, std::vector<uint8_t>(msg.begin(), msg.begin() + 80));
   EXPECT_TRUE(sim::TakePortsetMessages().empty());
}

TEST_F(SimMessage, MessagesKeepTheirOrderAndAnEmptyPayloadIsHeaderOnly) {
   zek_PortsetHandle ps = sim::FindPortset("vSwitch0");
   std::vector<uint8_t> a = Build("first", 0, 40);
   std::vector<uint8_t> b = Build("second", 4, 44);
   EXPECT_EQ(zek_PortsetPostMessage(ps, 100, 0, a.data()), ZEK_OK);
   EXPECT_EQ(zek_PortsetPostMessage(ps, 7, 1, b.data()), ZEK_OK);
   std::vector<sim::PortsetMessage> got = sim::TakePortsetMessages();
   ASSERT_EQ(got.size(), 2u);
   EXPECT_EQ(got[0].name, "first");
   EXPECT_EQ(got[0].bytes.size(), 40u);
   EXPECT_EQ(got[1].name, "second");
   EXPECT_EQ(got[1].portID, 7u);
   EXPECT_EQ(got[1].bytes.size(), 44u);
   EXPECT_EQ(got[1].bytes[43], 43u);
}

TEST_F(SimMessage, CopyIsCappedAtFourKilobytes) {
   zek_PortsetHandle ps = sim::FindPortset("vSwitch0");
   std::vector<uint8_t> msg = Build("huge", 100000, 4096);
   EXPECT_EQ(zek_PortsetPostMessage(ps, 100, 0, msg.data()), ZEK_OK);
   std::vector<sim::PortsetMessage> got = sim::TakePortsetMessages();
   ASSERT_EQ(got.size(), 1u);
   EXPECT_EQ(got[0].bytes.size(), 4096u);
}

TEST_F(SimMessage, NameFillsAtMostThirtyTwoBytes) {
   zek_PortsetHandle ps = sim::FindPortset("vSwitch0");
   std::vector<uint8_t> msg = Build("", 8, 48);
   std::memset(msg.data(), 'n', 32); /* no NUL inside the name field */
   EXPECT_EQ(zek_PortsetPostMessage(ps, 100, 0, msg.data()), ZEK_OK);
   std::vector<sim::PortsetMessage> got = sim::TakePortsetMessages();
   ASSERT_EQ(got.size(), 1u);
   EXPECT_EQ(got[0].name, std::string(32, 'n'));
   EXPECT_EQ(got[0].bytes.size(), 48u);
}

TEST_F(SimMessage, FaultAndUnknownPortsetRecordNothing) {
   zek_PortsetHandle ps = sim::FindPortset("vSwitch0");
   std::vector<uint8_t> msg = Build("x", 0, 40);
   sim::FaultCall("PortsetPostMessage", 0xbad0014);
   EXPECT_EQ(zek_PortsetPostMessage(ps, 100, 0, msg.data()), 0xbad0014u);
   sim::RemovePortset("vSwitch0");
   EXPECT_EQ(zek_PortsetPostMessage(ps, 100, 0, msg.data()), 0xbad0003u);
   EXPECT_TRUE(sim::TakePortsetMessages().empty());
}

TEST_F(SimMessage, ResetForgetsMessages) {
   zek_PortsetHandle ps = sim::FindPortset("vSwitch0");
   std::vector<uint8_t> msg = Build("x", 0, 40);
   EXPECT_EQ(zek_PortsetPostMessage(ps, 100, 0, msg.data()), ZEK_OK);
   sim::Reset();
   EXPECT_TRUE(sim::TakePortsetMessages().empty());
}

} // namespace
