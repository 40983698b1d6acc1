/*
 * Portset names kept by the module: the filter's, the control-plane task's
 * and the switch client record's.  A name as long as the switch allows (128
 * bytes) is kept whole and always ends in a NUL, so that it can be handed on
 * as a string: to acquire the portset for a message, or to a log line.  A
 * longer name is kept to its first 128 bytes.
 */

#include <cstring>
#include <string>
#include <vector>

#include "sim_switch.h"
#include "vigil_lifecycle.h"
#include "vigil_switch.h"
#include "test_addresses.h"
#include "vigil_test.h"
#include "vigil_vmi.h"
#include "vigil_workers.h"

namespace {

constexpr u32 kPort = 0x10;

const std::string kLongest(VIGIL_PORTSET_NAME_MAX, 'p');

class PortsetNames : public VigilTest {
protected:
   void TearDown() override {
      if (sim::PortExists(kPort) && Vigil_GetPortFilter(kPort) != nullptr) {
         EXPECT_EQ(Vigil_CleanupFilter(nullptr, kPort, nullptr), ZEK_OK);
      }
      EXPECT_EQ(numFilters, 0u);
      VigilTest::TearDown();
   }

   VigilFilter *CreateOn(const std::string &portset) {
      if (sim::FindPortset(portset) == nullptr) {
         EXPECT_NE(sim::AddPortset(portset), nullptr);
      }
      EXPECT_TRUE(sim::AddPort(portset, kPort));
      VigilFilter *filter = nullptr;
      EXPECT_EQ(Vigil_CreateFilter(sim::FindPortset(portset), kPort, &filter), ZEK_OK);
      sim::TakeLogs();
      return filter;
   }

   /* An ARP binding of 192.0.2.10, announced as added. */
   void PostAdded(VigilFilter *filter) {
      VigilVmi vmi = {};
      const u8 mac[6] = {0x02, 0, 0, 0, 0, 0x10};
      memcpy(vmi.mac, mac, 6);
      vmi.ip = addrtext::Ip("192.0.2.10");
      vmi.discMethod = VIGIL_DISC_ARP;
      VigilPostPortDbMsg(filter, VIGIL_PORTDB_MSG_ADDED, &vmi);
      ASSERT_TRUE(sim::WaitIdle(5.0));
   }
};

TEST_F(PortsetNames, FilterKeepsALongestNameWholeAndEndsItWithANul) {
   VigilFilter *filter = CreateOn(kLongest);
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(sizeof filter->portsetName, VIGIL_PORTSET_NAME_MAX + 1u);
   EXPECT_EQ(filter->portsetName[VIGIL_PORTSET_NAME_MAX], '\0');
   EXPECT_EQ(std::string(filter->portsetName), kLongest);
}

TEST_F(PortsetNames, MessageOfAPortOnALongestNamedPortsetIsDelivered) {
   VigilFilter *filter = CreateOn(kLongest);
   ASSERT_NE(filter, nullptr);
   sim::TakePortsetMessages();
   PostAdded(filter);
   std::vector<sim::PortsetMessage> messages = sim::TakePortsetMessages();
   ASSERT_EQ(messages.size(), 1u);
   EXPECT_EQ(messages[0].portset, kLongest);
   EXPECT_EQ(messages[0].portID, kPort);
   EXPECT_EQ(messages[0].name, "portdb.entry.added");
   EXPECT_TRUE(LogTexts().empty());
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
}

TEST_F(PortsetNames, LongerNameIsKeptToItsFirst128BytesAndItsMessageIsLost) {
   const std::string longer = kLongest + "tail";
   VigilFilter *filter = CreateOn(longer);
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(std::string(filter->portsetName), kLongest);
   sim::TakePortsetMessages();
   PostAdded(filter);
   /* The task carries the kept name, and no portset goes by it: the
    * message is lost, as for a portset gone by the time the world handles
    * it. */
   EXPECT_TRUE(sim::TakePortsetMessages().empty());
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].level, 2);
   EXPECT_EQ(lines[0].text,
             "Unable to acquire portset from name: " + kLongest + ", status: Not found");
}

TEST_F(PortsetNames, ClientRecordKeepsALongestNameWholeAndLogsItWhole) {
   sim::AddPortset(kLongest);
   ASSERT_EQ(Vigil_FabClientInit(), ZEK_OK);
   VigilFabClientHandles *client = VigilFabGetClientHandlesByPSName(kLongest.c_str());
   ASSERT_NE(client, nullptr);
   EXPECT_EQ(sizeof client->portsetName, VIGIL_PORTSET_NAME_MAX + 1u);
   EXPECT_EQ(client->portsetName[VIGIL_PORTSET_NAME_MAX], '\0');
   EXPECT_EQ(std::string(client->portsetName), kLongest);
   sim::TakeLogs();
   Vigil_FabClientCleanup();
   std::vector<std::string> texts = LogTexts();
   ASSERT_EQ(texts.size(), 14u);
   EXPECT_EQ(texts[0], "Vigil Unegistering TRANSIT CBs for ps vs0");
   EXPECT_EQ(texts[1], "Vigil Unegistering FAB CBs for ps vs0");
   EXPECT_EQ(texts[7], "Vigil Unegistering TRANSIT CBs for ps " + kLongest);
   EXPECT_EQ(texts[8], "Vigil Unegistering FAB CBs for ps " + kLongest);
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
   EXPECT_TRUE(sim::Subscriptions().empty());
}

} // namespace
