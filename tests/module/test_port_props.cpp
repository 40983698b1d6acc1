/*
 * Port properties as the switch delivers them: registration of the five
 * handlers on a portset, the enable words, the size checks and refusals of
 * each blob, what the IPv6 life time and the ignore list do to the bindings
 * already learnt, and the cleanup handlers.
 */
#include <cstring>
#include <string>
#include <vector>

#include "config_blobs.h"
#include "portdb_text.h"
#include "sim_switch.h"
#include "test_addresses.h"
#include "test_frames.h"
#include "vigil_config.h"
#include "vigil_lifecycle.h"
#include "vigil_switch.h"
#include "vigil_test.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"

namespace {

using blobs::Bytes;
using blobs::Entry;

constexpr u32 kPort = 0x10;
constexpr u32 kNotFound = 0xbad0003;
constexpr u32 kBadParam = 0xbad0007;
constexpr u32 kInvalidData = 0xbad0001;
constexpr u32 kNoMemory = 0xbad0014;

const std::string kEnabled = "com.norvex.vswitch.port.vigil.enabled";
const std::string kDiscovery = "com.norvex.vswitch.port.vigil.discovery";
const std::string kDiscovery6 = "com.norvex.vswitch.port.vigil.discovery.ipv6";
const std::string kIgnore = "com.norvex.vswitch.port.vigil.discovery.ignorelist";
const std::string kSecurity = "com.norvex.vswitch.port.vigil.security";
const std::vector<std::string> kAll = {kEnabled, kDiscovery, kDiscovery6, kIgnore, kSecurity};

Bytes Text(const char *text, size_t len) {
   return Bytes((const u8 *)text, (const u8 *)text + len);
}

Bytes Text(const std::string &text) {
   return Text(text.data(), text.size());
}

class PortProps : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      ASSERT_TRUE(sim::AddPort("vs0", kPort));
      client = NewClient("vs0");
      ASSERT_EQ(Vigil_FabPropRegister("vs0", client), ZEK_OK);
      LogTexts();
   }

   void TearDown() override {
      sim::FaultClear();
      sim::SetLogLevel("vigil", 0);
      SetDeleteExpiry(1);
      isLiveUpgradeFromMod = 0;
      if (Vigil_GetPortFilter(kPort) != nullptr) {
         EXPECT_EQ(Vigil_CleanupFilter(nullptr, kPort, nullptr), ZEK_OK);
      }
      EXPECT_EQ(Vigil_FabPropUnregister(client), ZEK_OK);
      Vigil_HeapFree(client);
      EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
      EXPECT_EQ(numFilters, 0u);
      VigilTest::TearDown();
   }

   VigilFabClientHandles *NewClient(const char *portset) {
      auto *c = (VigilFabClientHandles *)Vigil_HeapAlloc(sizeof(VigilFabClientHandles));
      strncpy(c->portsetName, portset, sizeof c->portsetName - 1);
      return c;
   }

   zek_Status Write(const std::string &prop, const Bytes &data) {
      bool handled = false;
      zek_Status status = sim::WriteProperty(kPort, prop, data, &handled);
      EXPECT_TRUE(handled) << prop;
      return status;
   }

   zek_Status Cleanup(const std::string &prop) {
      bool handled = false;
      zek_Status status = sim::CleanupProperty(kPort, prop, &handled);
      EXPECT_TRUE(handled) << prop;
      return status;
   }

   VigilFilter *Enable() {
      EXPECT_EQ(Write(kEnabled, Text("true")), ZEK_OK);
      LogTexts();
      return Vigil_GetPortFilter(kPort);
   }

   void LearnArp(const char *ip) {
      using namespace frames;
      EXPECT_EQ(Tx(kPort, {Make(Arp(kVmMac, kVmMac, ip, "192.0.2.1"))}),
                (std::vector<std::string>{"forward"}));
   }

   /* A neighbor solicitation the VM sends from `ip`: ND snooping learns
    * the address with the frame's source MAC. */
   void LearnNd(const char *ip) {
      using namespace frames;
      NdFields nd;
      nd.type = 135;
      nd.target = "2001:db8::1";
      EXPECT_EQ(Tx(kPort, {Make(NdFrame(kVmMac, "33:33:ff:00:00:01",
                                        {ip, "ff02::1:ff00:1", 255}, nd))}),
                (std::vector<std::string>{"forward"}));
   }

   /* The IPv4 binding of the VM's MAC on VLAN 0, or null. */
   VigilVmi *FindV4(VigilFilter *filter, const char *ip) {
      addrtext::Mac mac = addrtext::MacOf(frames::kVmMac);
      return WithReadHold(kPort,
                          [&] { return VigilFindVmi(filter, 0, mac.data(), addrtext::Ip(ip)); });
   }

   /* The IPv6 binding of that key, or null. */
   VigilV6Vmi *FindV6(VigilFilter *filter, u16 vlan, const std::string &mac, const char *ip) {
      u8 key[VIGIL_V6_KEY_LEN];
      memcpy(key, &vlan, 2);
      addrtext::Mac m = addrtext::MacOf(mac);
      memcpy(key + 2, m.data(), 6);
      blobs::Addr a = blobs::V6(ip);
      memcpy(key + 8, a.data(), 16);
      return WithReadHold(kPort, [&] { return VigilFindV6Vmi(filter, key); });
   }

   /* Adds an IPv6 binding as a snooper does; gives the table's answer. */
   zek_Status AddV6(VigilFilter *filter, u16 vlan, const std::string &mac, const char *ip,
                    u8 method, i64 expiryTs) {
      VigilV6Vmi t;
      memset(&t, 0, sizeof t);
      t.vlanId = vlan;
      addrtext::Mac m = addrtext::MacOf(mac);
      memcpy(t.mac, m.data(), 6);
      blobs::Addr a = blobs::V6(ip);
      memcpy(t.ip, a.data(), 16);
      t.discMethod = method;
      t.expiryTs = expiryTs;
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] { status = VigilAddV6Vmi(filter, &t); });
      return status;
   }

   /* The binding messages delivered since the last look, as text. */
   std::vector<std::string> Messages() {
      EXPECT_TRUE(sim::WaitIdle(5.0));
      std::vector<std::string> out;
      for (const sim::PortsetMessage &msg : sim::TakePortsetMessages()) {
         EXPECT_EQ(msg.portID, kPort);
         out.push_back(portdbtext::MessageText(msg.bytes));
      }
      return out;
   }

   /* The texts of the lines since the last look, with their levels. */
   std::vector<std::pair<int, std::string>> Lines() {
      std::vector<std::pair<int, std::string>> out;
      for (const sim::LogLine &line : TakeModuleLogs()) {
         out.push_back({line.level, line.text});
      }
      return out;
   }

   VigilFabClientHandles *client = nullptr;
};

using Said = std::vector<std::pair<int, std::string>>;

/* --------------------------------------------------------- registration */

TEST_F(PortProps, RegistrationPutsFiveHandlersOnThePortsetInOrder) {
   sim::AddPortset("vs1");
   VigilFabClientHandles *other = NewClient("vs1");
   EXPECT_EQ(Vigil_FabPropRegister("vs1", other), ZEK_OK);
   EXPECT_EQ(sim::RegisteredProperties("vs1"), kAll);
   Said expected = {{1, "Vigil Registering FAB CBs for ps vs1"}};
   for (const std::string &name : kAll) {
      expected.push_back({1, "Registered vigil property handler " + name});
   }
   EXPECT_EQ(Lines(), expected);
   for (u32 i = 0; i < VIGIL_NUM_PROPS; i++) {
      EXPECT_NE(other->propHandles[i], nullptr) << i;
   }

   EXPECT_EQ(Vigil_FabPropUnregister(other), ZEK_OK);
   expected = {{1, "Vigil Unegistering FAB CBs for ps vs1"}};
   for (auto it = kAll.rbegin(); it != kAll.rend(); ++it) {
      expected.push_back({1, "Unregistered vigil property handler " + *it});
   }
   EXPECT_EQ(Lines(), expected);
   for (u32 i = 0; i < VIGIL_NUM_PROPS; i++) {
      EXPECT_EQ(other->propHandles[i], nullptr) << i;
   }
   EXPECT_TRUE(sim::RegisteredProperties("vs1").empty());
   EXPECT_EQ(sim::RegisteredProperties("vs0"), kAll);
   Vigil_HeapFree(other);
}

TEST_F(PortProps, FailureAtTheFourthRegistrationUnregistersTheFirstThree) {
   sim::AddPortset("vs1");
   VigilFabClientHandles *other = NewClient("vs1");
   sim::FaultCall("FABClientPortRegister", kInvalidData, 1, 3);
   EXPECT_EQ(Vigil_FabPropRegister("vs1", other), kInvalidData);
   EXPECT_TRUE(sim::RegisteredProperties("vs1").empty());
   EXPECT_EQ(sim::LiveClientRegistrations(), 5u); /* those of vs0 */
   EXPECT_EQ(Lines(),
             (Said{{1, "Vigil Registering FAB CBs for ps vs1"},
                    {1, "Registered vigil property handler " + kEnabled},
                    {1, "Registered vigil property handler " + kDiscovery},
                    {1, "Registered vigil property handler " + kDiscovery6},
                    {2, "Failed to register vigil fab property " + kIgnore + "(Invalid data)"}}));
   Vigil_HeapFree(other);
}

TEST_F(PortProps, FailedUnregistrationKeepsItsSlot) {
   sim::FaultCall("FABClientPortUnregister", kInvalidData, 1, 1);
   EXPECT_EQ(Vigil_FabPropUnregister(client), ZEK_OK);
   EXPECT_EQ(Lines(), (Said{{1, "Vigil Unegistering FAB CBs for ps vs0"},
                             {1, "Unregistered vigil property handler " + kSecurity},
                             {2, "Failed to unregister " + kIgnore},
                             {1, "Unregistered vigil property handler " + kDiscovery6},
                             {1, "Unregistered vigil property handler " + kDiscovery},
                             {1, "Unregistered vigil property handler " + kEnabled}}));
   EXPECT_NE(client->propHandles[VIGIL_PROP_DISCOVERY_IL], nullptr);
   EXPECT_EQ(client->propHandles[VIGIL_PROP_SECURITY], nullptr);
   EXPECT_EQ(client->propHandles[VIGIL_PROP_ENABLED], nullptr);
   EXPECT_EQ(sim::RegisteredProperties("vs0"), (std::vector<std::string>{kIgnore}));
   /* A later unregistration tries it again. */
   EXPECT_EQ(Vigil_FabPropUnregister(client), ZEK_OK);
   EXPECT_EQ(client->propHandles[VIGIL_PROP_DISCOVERY_IL], nullptr);
   EXPECT_TRUE(sim::RegisteredProperties("vs0").empty());
}

/* --------------------------------------------------------------- enable */

TEST_F(PortProps, EnableWordsAreComparedOverTheirLength) {
   struct Case {
      Bytes data;
      zek_Status status;
      bool filter;
   } cases[] = {
      {Text("t"), ZEK_OK, true},          {Text("f"), ZEK_OK, false},
      {Text("tru"), ZEK_OK, true},        {Text("fal"), ZEK_OK, false},
      {Text("true"), ZEK_OK, true},       {Text("false"), ZEK_OK, false},
      {Text("true\0xy", 7), ZEK_OK, true}, {Bytes(), ZEK_OK, false},
      {Text("truth"), kBadParam, false},  {Text("x"), kBadParam, false},
      {Text("trueX"), kBadParam, false},  {Text("falsey"), kBadParam, false},
      {Text("True"), kBadParam, false},
   };
   for (const Case &c : cases) {
      std::string shown((const char *)c.data.data(), c.data.size());
      EXPECT_EQ(Write(kEnabled, c.data), c.status) << shown;
      EXPECT_EQ(Vigil_GetPortFilter(kPort) != nullptr, c.filter) << shown;
      EXPECT_EQ(sim::LiveChains(), c.filter ? 2u : 0u) << shown;
      LogTexts();
   }
}

TEST_F(PortProps, InvalidEnableTextChangesNothing) {
   VigilFilter *filter = Enable();
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(Write(kEnabled, Text("truth")), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.enable write on port 0x10, value: truth"},
                             {2, "Invalid data truth for port 10 vigil.enable"}}));
   EXPECT_EQ(Vigil_GetPortFilter(kPort), filter);
   EXPECT_EQ(sim::LiveChains(), 2u);
   EXPECT_EQ(Write(kEnabled, Text("x")), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.enable write on port 0x10, value: x"},
                             {2, "Invalid data x for port 10 vigil.enable"}}));
   EXPECT_EQ(Vigil_GetPortFilter(kPort), filter);
}

TEST_F(PortProps, EnableValueIsLoggedWholeUpToItsLength) {
   const std::string value = "truthfully, this is not one of the two words";
   EXPECT_EQ(Write(kEnabled, Text(value)), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.enable write on port 0x10, value: " + value},
                             {2, "Invalid data " + value + " for port 10 vigil.enable"}}));
   /* A value need not end in a NUL: what follows it is not shown. */
   const char bytes[] = "tr_eXYZ";
   zek_PortsetHandle ps = sim::FindPortset("vs0");
   EXPECT_EQ(VigilPortPropEnableWrite(ps, kPort, kEnabled.c_str(), bytes, 4), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.enable write on port 0x10, value: tr_e"},
                             {2, "Invalid data tr_e for port 10 vigil.enable"}}));
   /* Nor anything behind a NUL inside it. */
   EXPECT_EQ(Write(kEnabled, Text("x\0true", 6)), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.enable write on port 0x10, value: x"},
                             {2, "Invalid data x for port 10 vigil.enable"}}));
   EXPECT_EQ(Vigil_GetPortFilter(kPort), nullptr);
}

TEST_F(PortProps, EnableWithoutDataShowsAnEmptyValueAndDisables) {
   ASSERT_NE(Enable(), nullptr);
   zek_PortsetHandle ps = sim::FindPortset("vs0");
   EXPECT_EQ(VigilPortPropEnableWrite(ps, kPort, kEnabled.c_str(), nullptr, 4), ZEK_OK);
   std::vector<std::pair<int, std::string>> lines = Lines();
   ASSERT_FALSE(lines.empty());
   EXPECT_EQ(lines[0], (std::pair<int, std::string>{1, "Prop vigil.enable write on port "
                                                       "0x10, value: "}));
   EXPECT_EQ(Vigil_GetPortFilter(kPort), nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
}

TEST_F(PortProps, EnableTwiceKeepsOneFilter) {
   EXPECT_EQ(Write(kEnabled, Text("true")), ZEK_OK);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.enable write on port 0x10, value: true"}}));
   VigilFilter *filter = Vigil_GetPortFilter(kPort);
   ASSERT_NE(filter, nullptr);
   zek_IOChainHandle in = filter->ioChainInput;
   EXPECT_EQ(Write(kEnabled, Text("true")), ZEK_OK);
   EXPECT_EQ(Lines(),
             (Said{{1, "Prop vigil.enable write on port 0x10, value: true"},
                    {1, "Filter is already created for port 10 ; ignoring write"}}));
   EXPECT_EQ(Vigil_GetPortFilter(kPort), filter);
   EXPECT_EQ(filter->ioChainInput, in);
   EXPECT_EQ(numFilters, 1u);
   EXPECT_EQ(sim::LiveChains(), 2u);
}

TEST_F(PortProps, DisableTakesChainsAndFilterAway) {
   VigilFilter *filter = Enable();
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(Write(kEnabled, Text("false")), ZEK_OK);
   EXPECT_EQ(Vigil_GetPortFilter(kPort), nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(numFilters, 0u);
   LogTexts();
   /* Again, with nothing left to take. */
   EXPECT_EQ(Write(kEnabled, Text("false")), ZEK_OK);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.enable write on port 0x10, value: false"},
                             {1, "Filter not found"},
                             {1, "Unable to get filter from NCS for destroy"}}));
}

TEST_F(PortProps, EnableCleanupKeepsTheFilterUntilTheNextEnable) {
   VigilFilter *filter = Enable();
   ASSERT_NE(filter, nullptr);
   ASSERT_EQ(Write(kDiscovery, Bytes{1, 0}), ZEK_OK);
   LearnArp("192.0.2.10");
   LogTexts();
   EXPECT_EQ(Cleanup(kEnabled), ZEK_OK);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.enable cleanup on port 0x10"}}));
   EXPECT_EQ(Vigil_GetPortFilter(kPort), filter);
   EXPECT_EQ(filter->enableCleanedUp, 1u);
   EXPECT_EQ(filter->ioChainInput, nullptr);
   EXPECT_EQ(filter->ioChainOutput, nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(filter->discoveryFlags, 0u);
   EXPECT_EQ(filter->numArpVmis, 1u); /* VNIC type 2: no flush */

   EXPECT_EQ(Write(kEnabled, Text("true")), ZEK_OK);
   EXPECT_EQ(Vigil_GetPortFilter(kPort), filter);
   EXPECT_EQ(filter->enableCleanedUp, 0u);
   EXPECT_EQ(sim::LiveChains(), 2u);
   EXPECT_EQ(numFilters, 1u);
}

TEST_F(PortProps, EnableCleanupDuringALiveUpgradeDestroysTheFilter) {
   ASSERT_NE(Enable(), nullptr);
   isLiveUpgradeFromMod = 1;
   EXPECT_EQ(Cleanup(kEnabled), ZEK_OK);
   EXPECT_EQ(Vigil_GetPortFilter(kPort), nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(numFilters, 0u);
}

TEST_F(PortProps, EnableReturnsTheFailureOfCreationOrInstallation) {
   sim::FaultAlloc(1);
   EXPECT_EQ(Write(kEnabled, Text("true")), kNoMemory);
   EXPECT_EQ(Vigil_GetPortFilter(kPort), nullptr);
   EXPECT_EQ(numFilters, 0u);
   LogTexts();

   sim::FaultCall("IOChainInsert", kInvalidData, 1, 1);
   EXPECT_EQ(Write(kEnabled, Text("t")), kInvalidData);
   EXPECT_EQ(Vigil_GetPortFilter(kPort), nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
   EXPECT_EQ(numFilters, 0u);
   std::vector<std::string> texts = LogTexts();
   ASSERT_EQ(texts.size(), 2u);
   EXPECT_EQ(texts[1], "Failed to insert output IOChain on port 16");
}

/* --------------------------------------------------- before the filter */

TEST_F(PortProps, ConfigurationBeforeEnableIsRefusedAndForgotten) {
   blobs::Security s;
   s.features = VIGIL_FEAT_BPDU_FILTER;
   Bytes ignore = blobs::IgnoreList({Entry(VIGIL_WL_VLAN, {}, 0, 5)});
   EXPECT_EQ(Write(kDiscovery, Bytes{1, 1}), kNotFound);
   EXPECT_EQ(Write(kDiscovery6, blobs::Discovery6(1, 1, 5)), kNotFound);
   EXPECT_EQ(Write(kIgnore, ignore), kNotFound);
   EXPECT_EQ(Write(kSecurity, s.Build()), kNotFound);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery write on port 0x10, len: 2"},
                             {2, "Vigil filter not found for port 0x10"},
                             {1, "Prop vigil.discovery.ipv6 write on port 0x10, len: 14"},
                             {2, "Vigil filter not found for port 0x10"},
                             {1, "Prop vigil.discovery.IL write on port 0x10, len: 36"},
                             {2, "Vigil filter not found for port 0x10"},
                             {1, "Prop vigil.security write on port 0x10"},
                             {2, "Vigil filter not found for port 16"}}));

   VigilFilter *filter = Enable();
   ASSERT_NE(filter, nullptr);
   EXPECT_EQ(filter->discoveryFlags, 0u);
   EXPECT_EQ(filter->featuresEnabled, 0u);
   EXPECT_EQ(filter->arpExpiry, 600);
   EXPECT_EQ(filter->portIgnoreList, nullptr);
}

/* ------------------------------------------------------------ discovery */

TEST_F(PortProps, DiscoveryBlobSizes) {
   VigilFilter *filter = Enable();
   EXPECT_EQ(Write(kDiscovery, Bytes()), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery write on port 0x10, len: 0"},
                             {1, "vigil.discovery, invalid params - dataLen: 0, config: (nil)"}}));
   EXPECT_EQ(Write(kDiscovery, Bytes{1}), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery write on port 0x10, len: 1"},
                             {1, "vigil.discovery prop invalid size, got: 1, expected: 2"}}));
   EXPECT_EQ(filter->discoveryFlags, 0u);

   /* Byte 0 is ARP, byte 1 DHCP. */
   EXPECT_EQ(Write(kDiscovery, Bytes{1, 0}), ZEK_OK);
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_ARP);
   EXPECT_EQ(Write(kDiscovery, Bytes{0, 1, 9}), ZEK_OK);
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_DHCP);
   EXPECT_EQ(Write(kDiscovery, Bytes{2, 3}), ZEK_OK);
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_DHCP | VIGIL_DISC_ARP);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery write on port 0x10, len: 2"},
                             {1, "Prop vigil.discovery write on port 0x10, len: 3"},
                             {1, "Prop vigil.discovery write on port 0x10, len: 2"}}));
}

TEST_F(PortProps, DiscoveryWriteFlushesAndItsCleanupDoesNot) {
   VigilFilter *filter = Enable();
   ASSERT_EQ(Write(kDiscovery, Bytes{1, 1}), ZEK_OK);
   LearnArp("192.0.2.10");
   ASSERT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(Write(kDiscovery, Bytes{0, 1}), ZEK_OK);
   EXPECT_EQ(filter->numArpVmis, 0u);

   ASSERT_EQ(Write(kDiscovery, Bytes{1, 1}), ZEK_OK);
   LearnArp("192.0.2.10");
   using namespace frames;
   EXPECT_EQ(Tx(kPort, {Make(DhcpClient(kVmMac, kVmMac, "0.0.0.0", 3))}),
             (std::vector<std::string>{"forward"}));
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   LogTexts();
   sim::LockCounts before = sim::GetLockCounts(filter->configLock);
   EXPECT_EQ(Cleanup(kDiscovery), ZEK_OK);
   EXPECT_EQ(sim::GetLockCounts(filter->configLock).writes, before.writes + 1);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery cleanup on port 0x10"}}));
   EXPECT_EQ(filter->discoveryFlags, 0u);
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
}

TEST_F(PortProps, CleanupsWithoutFilterNoteItAtVerbosityOne) {
   for (const std::string &prop : {kDiscovery, kDiscovery6, kIgnore}) {
      EXPECT_EQ(Cleanup(prop), ZEK_OK) << prop;
   }
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery cleanup on port 0x10"},
                             {1, "Prop vigil.discovery.ipv6 cleanup on port 0x10"},
                             {1, "Prop vigil.discovery.IL cleanup on port 0x10"}}));
   sim::SetLogLevel("vigil", 1);
   EXPECT_EQ(Cleanup(kIgnore), ZEK_OK);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery.IL cleanup on port 0x10"},
                             {1, "Vigil filter not found for port 0x10"}}));
   /* The security property has no cleanup handler. */
   EXPECT_EQ(Cleanup(kSecurity), ZEK_OK);
   EXPECT_TRUE(Lines().empty());
}

/* ------------------------------------------------------- IPv6 discovery */

TEST_F(PortProps, Ipv6BlobSizesAndTheSharedLifeTime) {
   VigilFilter *filter = Enable();
   EXPECT_EQ(Write(kDiscovery6, Bytes()), kBadParam);
   EXPECT_EQ(Lines(),
             (Said{{1, "Prop vigil.discovery.ipv6 write on port 0x10, len: 0"},
                    {1, "vigil.discovery.ipv6, invalid params - dataLen: 0, config: (nil)"}}));
   Bytes shortBlob = blobs::Discovery6(1, 1, 5);
   shortBlob.pop_back();
   EXPECT_EQ(Write(kDiscovery6, shortBlob), kBadParam);
   EXPECT_EQ(Lines(),
             (Said{{1, "Prop vigil.discovery.ipv6 write on port 0x10, len: 13"},
                    {1, "vigil.discovery.ipv6 prop invalid size, got: 13, expected: 14"}}));
   EXPECT_EQ(filter->arpExpiry, 600);

   EXPECT_EQ(Write(kDiscovery6, blobs::Discovery6(1, 0, 5)), ZEK_OK);
   EXPECT_EQ(filter->arpExpiry, 300);
   Bytes longer = blobs::Discovery6(0, 1, 7);
   longer.push_back(0xee);
   EXPECT_EQ(Write(kDiscovery6, longer), ZEK_OK);
   EXPECT_EQ(filter->arpExpiry, 420);
   EXPECT_EQ(filter->ndExpiry, 420) << "the one life time is ND's too";
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_DHCPV6);
   EXPECT_EQ(Lines(),
             (Said{{1, "Prop vigil.discovery.ipv6 write on port 0x10, len: 14"},
                   {1, "oldConfig: 0, newConfig: 0x8, toFlush: 0"},
                   {1, "Filter 0x10 IPv6 Discover config updated, new features: 0x8"},
                   {1, "Prop vigil.discovery.ipv6 write on port 0x10, len: 15"},
                   {1, "oldConfig: 0x8, newConfig: 0x10, toFlush: 0x8"},
                   {1, "Filter 0x10 IPv6 Discover config updated, new features: 0x10"}}));

   EXPECT_EQ(Cleanup(kDiscovery6), ZEK_OK);
   EXPECT_EQ(filter->arpExpiry, 600);
   EXPECT_EQ(filter->ndExpiry, 600);
   EXPECT_EQ(filter->discoveryFlags, 0u);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery.ipv6 cleanup on port 0x10"},
                             {1, "oldConfig: 0x10, newConfig: 0, toFlush: 0x10"},
                             {1, "Filter 0x10 IPv6 Discover config updated, new features: 0"}}));
}

TEST_F(PortProps, Ipv6ExpiryOfFiveMinutesGivesThreeHundredSeconds) {
   VigilFilter *filter = Enable();
   EXPECT_EQ(Write(kDiscovery6, blobs::Discovery6(1, 1, 5)), ZEK_OK);
   EXPECT_EQ(filter->arpExpiry, 300);
   EXPECT_EQ(Cleanup(kDiscovery6), ZEK_OK);
   EXPECT_EQ(filter->arpExpiry, 600);
}

TEST_F(PortProps, Ipv6ExpiryMovesLiveArpAndNdBindingsEachKeepingItsAge) {
   using portdbtext::Msg;
   VigilFilter *filter = Enable();
   ASSERT_EQ(Write(kDiscovery, Bytes{1, 0}), ZEK_OK);
   ASSERT_EQ(Write(kDiscovery6, blobs::Discovery6(1, 0, 10)), ZEK_OK);
   LearnArp("192.0.2.10"); /* seen at 1000 */
   LearnNd("2001:db8::a");
   sim::Advance(400);
   LearnArp("192.0.2.11"); /* seen at 1400 */
   LearnNd("2001:db8::b");
   Messages();
   LogTexts();

   /* Five minutes: what was seen 400 s ago is past its end. */
   EXPECT_EQ(Write(kDiscovery6, blobs::Discovery6(1, 0, 5)), ZEK_OK);
   EXPECT_EQ(filter->arpExpiry, 300);
   EXPECT_EQ(filter->ndExpiry, 300);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery.ipv6 write on port 0x10, len: 14"},
                             {1, portdbtext::V6TableLine("Deleting V6 VMI", 0, frames::kVmMac,
                                                         "2001:db8::a", VIGIL_DISC_ND, 1300)}}));
   EXPECT_EQ(Messages(),
             (std::vector<std::string>{
                Msg("removed", 0, frames::kVmMac, "2001:db8::a", VIGIL_DISC_ND),
                Msg("removed", 0, frames::kVmMac, "192.0.2.10", VIGIL_DISC_ARP)}));
   EXPECT_EQ(FindV4(filter, "192.0.2.10"), nullptr);
   ASSERT_NE(FindV4(filter, "192.0.2.11"), nullptr);
   EXPECT_EQ(FindV4(filter, "192.0.2.11")->expiryTs, 1700);
   ASSERT_NE(FindV6(filter, 0, frames::kVmMac, "2001:db8::b"), nullptr);
   EXPECT_EQ(FindV6(filter, 0, frames::kVmMac, "2001:db8::b")->expiryTs, 1700);

   /* The cleanup puts ten minutes back and switches ND off, flushing
    * nothing: the bindings stay, their ends moved back. */
   EXPECT_EQ(Cleanup(kDiscovery6), ZEK_OK);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery.ipv6 cleanup on port 0x10"},
                             {1, "oldConfig: 0x8, newConfig: 0, toFlush: 0x8"},
                             {1, "Filter 0x10 IPv6 Discover config updated, new features: 0x2"}}));
   EXPECT_EQ(filter->arpExpiry, 600);
   EXPECT_EQ(filter->ndExpiry, 600);
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_ARP);
   EXPECT_EQ(Messages(), std::vector<std::string>{});
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(filter->numNdEntries, 1u);
   EXPECT_EQ(FindV4(filter, "192.0.2.11")->expiryTs, 2000);
   EXPECT_EQ(FindV6(filter, 0, frames::kVmMac, "2001:db8::b")->expiryTs, 2000);
}

TEST_F(PortProps, Ipv6ExpiryWhoseSecondsDoNotFitIsRefusedAndNothingIsApplied) {
   /* Refused before the filter is looked for. */
   EXPECT_EQ(Write(kDiscovery6, blobs::Discovery6(1, 1, 35791395)), kBadParam);
   EXPECT_EQ(Lines(),
             (Said{{1, "Prop vigil.discovery.ipv6 write on port 0x10, len: 14"},
                   {2, "vigil.discovery.ipv6 expiry too long: 35791395 minutes, at most: "
                       "35791394"}}));

   VigilFilter *filter = Enable();
   ASSERT_EQ(Write(kDiscovery, Bytes{1, 0}), ZEK_OK);
   ASSERT_EQ(Write(kDiscovery6, blobs::Discovery6(1, 0, 7)), ZEK_OK);
   LearnArp("192.0.2.10");
   LearnNd("2001:db8::a");
   Messages();
   LogTexts();
   for (u32 minutes : {35791395u, 0x7fffffffu, 0xffffffffu}) {
      EXPECT_EQ(Write(kDiscovery6, blobs::Discovery6(0, 1, minutes)), kBadParam) << minutes;
      EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery.ipv6 write on port 0x10, len: 14"},
                                {2, "vigil.discovery.ipv6 expiry too long: " +
                                       std::to_string(minutes) +
                                       " minutes, at most: 35791394"}}));
      EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_ARP | VIGIL_DISC_ND);
      EXPECT_EQ(filter->arpExpiry, 420);
      EXPECT_EQ(filter->ndExpiry, 420);
      EXPECT_EQ(FindV4(filter, "192.0.2.10")->expiryTs, 1420);
      EXPECT_EQ(FindV6(filter, 0, frames::kVmMac, "2001:db8::a")->expiryTs, 1420);
   }
   EXPECT_EQ(Messages(), std::vector<std::string>{});
}

TEST_F(PortProps, Ipv6ExpiryOfTheLongestLifeThatFitsIsAccepted) {
   VigilFilter *filter = Enable();
   ASSERT_EQ(Write(kDiscovery, Bytes{1, 0}), ZEK_OK);
   LearnArp("192.0.2.10");
   LogTexts();
   EXPECT_EQ(Write(kDiscovery6, blobs::Discovery6(1, 1, 35791394)), ZEK_OK);
   EXPECT_EQ(filter->arpExpiry, 2147483640);
   EXPECT_EQ(filter->ndExpiry, 2147483640);
   EXPECT_EQ(filter->discoveryFlags, VIGIL_DISC_ARP | VIGIL_DISC_ND | VIGIL_DISC_DHCPV6);
   EXPECT_EQ(FindV4(filter, "192.0.2.10")->expiryTs, 1000 + 2147483640ll);
   EXPECT_EQ(Lines(),
             (Said{{1, "Prop vigil.discovery.ipv6 write on port 0x10, len: 14"},
                   {1, "oldConfig: 0, newConfig: 0x18, toFlush: 0"},
                   {1, "Filter 0x10 IPv6 Discover config updated, new features: 0x1a"}}));
   LearnNd("2001:db8::a");
   EXPECT_EQ(FindV6(filter, 0, frames::kVmMac, "2001:db8::a")->expiryTs, 1000 + 2147483640ll);
}

/* ---------------------------------------------------------- ignore list */

TEST_F(PortProps, IgnoreListBlobMustHoldItsCount) {
   VigilFilter *filter = Enable();
   EXPECT_EQ(Write(kIgnore, Bytes()), kBadParam);
   EXPECT_EQ(Lines(),
             (Said{{1, "Prop vigil.discovery.IL write on port 0x10, len: 0"},
                    {1, "vigil.discovery.il, invalid params - dataLen: 0, config: (nil)"}}));

   Bytes two = blobs::IgnoreList({Entry(VIGIL_WL_VLAN, {}, 0, 5), Entry(VIGIL_WL_VLAN, {}, 0, 6)});
   ASSERT_EQ(two.size(), 68u);
   Bytes cut(two.begin(), two.end() - 1);
   EXPECT_EQ(Write(kIgnore, cut), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery.IL write on port 0x10, len: 67"},
                             {2, "Invalid disc prop size - expected: 68, got: 67"}}));
   EXPECT_EQ(filter->portIgnoreList, nullptr);
   EXPECT_EQ(Write(kIgnore, two), ZEK_OK);
   EXPECT_EQ(filter->portIgnoreListSize, 2u);

   Bytes one = blobs::IgnoreList({Entry(VIGIL_WL_VLAN, {}, 0, 7)});
   ASSERT_EQ(one.size(), 36u);
   EXPECT_EQ(Write(kIgnore, Bytes(one.begin(), one.end() - 1)), kBadParam);
   EXPECT_EQ(filter->portIgnoreListSize, 2u);
   EXPECT_EQ(Write(kIgnore, one), ZEK_OK);
   EXPECT_EQ(filter->portIgnoreListSize, 1u);
   Bytes longer = one;
   longer.resize(50, 0xcc);
   EXPECT_EQ(Write(kIgnore, longer), ZEK_OK);
   EXPECT_EQ(filter->portIgnoreListSize, 1u);
   EXPECT_EQ(filter->portIgnoreList[0].vlan, 7u);
   LogTexts();

   /* Too short for the count itself, and a count whose size does not fit
    * in 32 bits: refused, never read beyond the blob. */
   EXPECT_EQ(Write(kIgnore, Bytes{1, 0}), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery.IL write on port 0x10, len: 2"},
                             {2, "Invalid disc prop size - expected: 4, got: 2"}}));
   Bytes huge = one;
   blobs::PutU32(huge, 0, 0x08000000u);
   EXPECT_EQ(Write(kIgnore, huge), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery.IL write on port 0x10, len: 36"},
                             {2, "Invalid disc prop size - expected: 4, got: 36"}}));
   blobs::PutU32(huge, 0, 0x04000000u); /* negative as a signed size */
   EXPECT_EQ(Write(kIgnore, huge), kBadParam);
   EXPECT_EQ(filter->portIgnoreListSize, 1u);
}

TEST_F(PortProps, IgnoreListRefusalAndCleanup) {
   VigilFilter *filter = Enable();
   Bytes bad = blobs::IgnoreList({Entry(0, {}, 0, 0)});
   EXPECT_EQ(Write(kIgnore, bad), kBadParam);
   EXPECT_EQ(Lines(),
             (Said{{1, "Prop vigil.discovery.IL write on port 0x10, len: 36"},
                    {2, "Filter 0x10 Invalid Ignorelist entry specify at least one of Vlan/Mac/IP"},
                    {2, "Ignore list discovery configuration failed for port 0x10"}}));
   ASSERT_EQ(Write(kIgnore, blobs::IgnoreList({Entry(VIGIL_WL_VLAN, {}, 0, 7)})), ZEK_OK);
   LogTexts();
   EXPECT_EQ(Cleanup(kIgnore), ZEK_OK);
   EXPECT_EQ(filter->portIgnoreList, nullptr);
   EXPECT_EQ(filter->portIgnoreListSize, 0u);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.discovery.IL cleanup on port 0x10"}}));
}

TEST_F(PortProps, IgnoreListWritePurgesTheIpv6BindingsItCoversRunningAndExpired) {
   using portdbtext::Msg;
   using portdbtext::V6TableLine;
   const std::string other = "02:00:00:00:00:77";
   VigilFilter *filter = Enable();
   ASSERT_EQ(Write(kDiscovery6, blobs::Discovery6(1, 1, 10)), ZEK_OK);
   SetDeleteExpiry(0);
   ASSERT_EQ(AddV6(filter, 5, frames::kVmMac, "2001:db8::1", VIGIL_DISC_ND, 1600), ZEK_OK);
   ASSERT_EQ(AddV6(filter, 7, other, "2001:db8::3", VIGIL_DISC_ND, 995), ZEK_OK);
   ASSERT_EQ(AddV6(filter, 5, frames::kVmMac, "2001:db8::2", VIGIL_DISC_DHCPV6, 1300), ZEK_OK);
   ASSERT_EQ(AddV6(filter, 6, frames::kVmMac, "2001:db8::4", VIGIL_DISC_ND, 1400), ZEK_OK);
   ASSERT_EQ(AddV6(filter, 6, other, "2001:db8::4", VIGIL_DISC_ND, 1450), ZEK_OK);
   ASSERT_EQ(AddV6(filter, 5, other, "2001:db8::5", VIGIL_DISC_ND, 1500), ZEK_OK);
   ASSERT_EQ(filter->numExpiredNdEntries, 1u);
   Messages();
   LogTexts();

   Bytes list = blobs::IgnoreList(
      {Entry(VIGIL_WL_VLAN, {}, 0, 7),
       Entry(VIGIL_WL_MAC | VIGIL_WL_IPV6, blobs::V6("2001:db8::4"), 128, 0,
             blobs::Mac(frames::kVmMac)),
       Entry(VIGIL_WL_IPV6, blobs::V6("2001:db8::5"), 128),
       Entry(VIGIL_WL_IPV4, blobs::V4("32.1.13.184"), 32)});
   EXPECT_EQ(Write(kIgnore, list), ZEK_OK);
   EXPECT_EQ(Lines(),
             (Said{{1, "Prop vigil.discovery.IL write on port 0x10, len: 132"},
                   {1, V6TableLine("Deleting V6 VMI", 7, other, "2001:db8::3", VIGIL_DISC_ND, 995)},
                   {1, V6TableLine("Deleting V6 VMI", 6, frames::kVmMac, "2001:db8::4",
                                   VIGIL_DISC_ND, 1400)},
                   {1, V6TableLine("Deleting V6 VMI", 5, other, "2001:db8::5", VIGIL_DISC_ND,
                                   1500)},
                   {1, "Filter 0x10 Ignore list discovery is configured successfully with size "
                       "of 4"}}));
   EXPECT_EQ(Messages(),
             (std::vector<std::string>{
                Msg("removed", 7, other, "2001:db8::3", VIGIL_DISC_ND),
                Msg("removed", 6, frames::kVmMac, "2001:db8::4", VIGIL_DISC_ND),
                Msg("removed", 5, other, "2001:db8::5", VIGIL_DISC_ND)}));
   EXPECT_NE(FindV6(filter, 5, frames::kVmMac, "2001:db8::1"), nullptr);
   EXPECT_NE(FindV6(filter, 5, frames::kVmMac, "2001:db8::2"), nullptr);
   EXPECT_NE(FindV6(filter, 6, other, "2001:db8::4"), nullptr) << "the MAC differs";
   EXPECT_EQ(filter->numNdEntries, 2u);
   EXPECT_EQ(filter->numExpiredNdEntries, 0u);
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
   EXPECT_EQ(filter->stats.statV6VmiAddRefused, 0u);

   /* Later adds that the list covers are refused and counted. */
   EXPECT_EQ(AddV6(filter, 7, frames::kVmMac, "2001:db8::9", VIGIL_DISC_ND, 1600), 0xbad0002u);
   EXPECT_EQ(AddV6(filter, 6, frames::kVmMac, "2001:db8::4", VIGIL_DISC_ND, 1600), 0xbad0002u);
   EXPECT_EQ(AddV6(filter, 9, other, "2001:db8::5", VIGIL_DISC_DHCPV6, 1600), 0xbad0002u);
   EXPECT_EQ(AddV6(filter, 6, other, "2001:db8::6", VIGIL_DISC_ND, 1600), ZEK_OK);
   EXPECT_EQ(filter->stats.statV6VmiAddRefused, 3u);
   EXPECT_EQ(Messages(),
             (std::vector<std::string>{Msg("added", 6, other, "2001:db8::6", VIGIL_DISC_ND)}));
}

TEST_F(PortProps, Ipv6AddressOnTheIgnoreListIsNotLearntFromFramesAndIsCounted) {
   VigilFilter *filter = Enable();
   ASSERT_EQ(Write(kDiscovery6, blobs::Discovery6(1, 0, 10)), ZEK_OK);
   ASSERT_EQ(Write(kIgnore, blobs::IgnoreList({Entry(VIGIL_WL_IPV6, blobs::V6("2001:db8::a"),
                                                     128)})),
             ZEK_OK);
   LogTexts();
   LearnNd("2001:db8::a");
   EXPECT_EQ(Lines(),
             (Said{{2, "Filter 0x10 Unable to add VMI: Ignored"},
                   {2, "Filter 0x10 ND Snooping failed on port 0x10: Ignored"},
                   {2, "Filter 0x10 Error performing IPv6 ND Discovery on port 0x10: Ignored"}}));
   EXPECT_EQ(filter->numNdEntries, 0u);
   EXPECT_EQ(filter->stats.statV6VmiAddRefused, 1u);
   LearnNd("2001:db8::b");
   EXPECT_EQ(filter->numNdEntries, 1u);
   EXPECT_EQ(filter->stats.statV6VmiAddRefused, 1u);
   EXPECT_EQ(Messages(), (std::vector<std::string>{portdbtext::Msg(
                            "added", 0, frames::kVmMac, "2001:db8::b", VIGIL_DISC_ND)}));
}

/* ------------------------------------------------------------- security */

TEST_F(PortProps, SecurityBlobMustHaveExactlyItsLength) {
   VigilFilter *filter = Enable();
   blobs::Security s;
   s.features = VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_BPDU_FILTER;
   s.portList = {Entry(VIGIL_WL_VLAN, {}, 0, 3)};
   s.bpdu = {blobs::BpduMac(4)};
   Bytes blob = s.Build();
   ASSERT_EQ(blob.size(), 70u);

   Bytes longer = blob;
   longer.push_back(0);
   EXPECT_EQ(Write(kSecurity, longer), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.security write on port 0x10"},
                             {2, "Invalid prop(" + kSecurity + ") size - expected: 70, got: 71"}}));
   Bytes shorter(blob.begin(), blob.end() - 1);
   EXPECT_EQ(Write(kSecurity, shorter), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.security write on port 0x10"},
                             {2, "Invalid prop(" + kSecurity + ") size - expected: 70, got: 69"}}));
   EXPECT_EQ(Write(kSecurity, Bytes(10, 0)), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.security write on port 0x10"},
                             {2, "Invalid prop(" + kSecurity + ") size - expected: 32, got: 10"}}));
   EXPECT_EQ(filter->featuresEnabled, 0u);

   EXPECT_EQ(Write(kSecurity, blob), ZEK_OK);
   EXPECT_EQ(filter->featuresEnabled, VIGIL_FEAT_PORT_WARDEN | VIGIL_FEAT_BPDU_FILTER);
   EXPECT_EQ(filter->portWhiteListSize, 1u);
   EXPECT_EQ(filter->bpduBitmap, 0x7fffffefull);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.security write on port 0x10"}}));
}

TEST_F(PortProps, SecurityRefusalIsReturnedToTheSwitch) {
   VigilFilter *filter = Enable();
   blobs::Security s;
   s.features = VIGIL_FEAT_SWITCH_WARDEN;
   s.switchList = {Entry(VIGIL_WL_VLAN, {}, 0, 4095)};
   EXPECT_EQ(Write(kSecurity, s.Build()), kBadParam);
   EXPECT_EQ(Lines(), (Said{{1, "Prop vigil.security write on port 0x10"},
                             {2, "Filter 0x10 Vlan ID cannot exceed 4094"}}));
   EXPECT_EQ(filter->featuresEnabled, 0u);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::None);
}

} // namespace
