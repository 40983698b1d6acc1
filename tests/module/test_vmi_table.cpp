/*
 * The IPv4 binding table: hash set-up, add/replace/refuse rules, limits and
 * eviction, the two expiry lists, the ignore list, the consistency check,
 * and a long random run against a model.
 */
#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "test_addresses.h"
#include "vigil_test.h"
#include "vigil_vmi.h"
#include "vigil_whitelist.h"
#include "vigil_workers.h"

namespace {

constexpr u32 kPort = 0x10;
constexpr i64 kNow = 1000; /* the virtual clock's start, in uptime seconds */

using MacAddr = std::array<u8, 6>;

MacAddr MacOf(u8 last) {
   return MacAddr{0x02, 0x00, 0x00, 0x00, 0x00, last};
}

const MacAddr kVm = MacOf(0x10);

using addrtext::Ip;

/* The n-th address of 192.0.2.0/24 and then 198.51.100.0/24. */
u32 IpN(u32 n) {
   u8 bytes[4];
   if (n < 256) {
      bytes[0] = 192, bytes[1] = 0, bytes[2] = 2, bytes[3] = (u8)n;
   } else {
      bytes[0] = 198, bytes[1] = 51, bytes[2] = 100, bytes[3] = (u8)(n - 256);
   }
   u32 ip;
   memcpy(&ip, bytes, 4);
   return ip;
}

void CollectViolation(void *ctx, const char *text) {
   static_cast<std::vector<std::string> *>(ctx)->push_back(text);
}

u64 gHashCalls = 0;
u32 CountingHash(const void *key, u32 keyLen) {
   gHashCalls++;
   return zek_HashBytes(key, keyLen, 0);
}

struct Counters {
   u32 vmis, dhcp, arp, expired, statics, clientIdLen;
   bool operator==(const Counters &o) const {
      return vmis == o.vmis && dhcp == o.dhcp && arp == o.arp &&
             expired == o.expired && statics == o.statics &&
             clientIdLen == o.clientIdLen;
   }
};

std::ostream &operator<<(std::ostream &os, const Counters &c) {
   return os << "{vmis " << c.vmis << " dhcp " << c.dhcp << " arp " << c.arp
             << " expired " << c.expired << " static " << c.statics
             << " clientIdLen " << c.clientIdLen << "}";
}

/* The 80 bytes of a binding message as the portset receives them. */
std::vector<u8> BindingMessage(const char *name, u32 op, u16 vlan, const MacAddr &mac,
                               u32 ip, u8 method, u8 gratuitous) {
   std::vector<u8> raw(80, 0);
   memcpy(&raw[0], name, strlen(name));
   raw[32] = 40;             /* payload length, 64 bits */
   raw[40] = (u8)op;         /* 0 added, 1 removed */
   raw[44] = 1;              /* one entry */
   raw[48] = (u8)vlan;
   raw[49] = (u8)(vlan >> 8);
   memcpy(&raw[50], mac.data(), 6);
   raw[56] = 1;              /* IPv4 */
   memcpy(&raw[60], &ip, 4); /* network order */
   raw[76] = method == VIGIL_DISC_DHCP || method == VIGIL_DISC_STATIC;
   raw[77] = gratuitous;
   raw[78] = method;
   return raw;
}

std::vector<u8> Added(u16 vlan, const MacAddr &mac, u32 ip, u8 method, u8 grat = 0) {
   return BindingMessage("portdb.entry.added", 0, vlan, mac, ip, method, grat);
}

std::vector<u8> Removed(u16 vlan, const MacAddr &mac, u32 ip, u8 method) {
   return BindingMessage("portdb.entry.removed", 1, vlan, mac, ip, method, 0);
}


} // namespace

class VmiTableTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      filter = AddFilter(kPort);
      ASSERT_EQ(VigilVmiHashAlloc(&filter->vmiHash), ZEK_OK);
      sim::TakeLogs();
   }

   void TearDown() override {
      SetDeleteExpiry(1);
      sim::SetLogLevel("vigil", 0);
      if (filter->vmiHash != nullptr) {
         DeleteAll();
         filter->vmiHash->common.hashFn = nullptr;
         Vigil_HeapFree(filter->vmiHash);
         filter->vmiHash = nullptr;
      }
      if (filter->portIgnoreList != nullptr) {
         Vigil_HeapFree(filter->portIgnoreList);
         filter->portIgnoreList = nullptr;
         filter->portIgnoreListSize = 0;
      }
      VigilTest::TearDown();
   }

   void DeleteAll() {
      VigilFilter *locked = Vigil_LockFilter(kPort, true);
      while (!VigilListIsEmpty(&locked->expiredVmiList)) {
         VigilDelVmi(locked, VIGIL_VMI_FROM_EXPIRED(locked->expiredVmiList.next));
      }
      while (!VigilListIsEmpty(&locked->vmiList)) {
         VigilDelVmi(locked, VIGIL_VMI_FROM_EXPIRY(locked->vmiList.next));
      }
      Vigil_UnlockFilter(locked, true);
   }

   static VigilVmi *Make(u16 vlan, const MacAddr &mac, u32 ip, u8 method, i64 expiryTs,
                         const std::string &clientId = "") {
      VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
      vmi->vlanId = vlan;
      memcpy(vmi->mac, mac.data(), 6);
      vmi->ip = ip;
      vmi->discMethod = method;
      vmi->expiryTs = expiryTs;
      if (!clientId.empty()) {
         vmi->clientIdLen = (u8)clientId.size();
         vmi->clientIdStr = (u8 *)Vigil_HeapAlloc((u32)clientId.size());
         memcpy(vmi->clientIdStr, clientId.data(), clientId.size());
      }
      return vmi;
   }

   static void Free(VigilVmi *vmi) {
      Vigil_HeapFree(vmi->clientIdStr);
      Vigil_HeapFree(vmi);
   }

   /* Adds under the write lock; a refused record is freed, as a caller does. */
   zek_Status Add(VigilVmi *vmi, VigilVmi **added = nullptr) {
      VigilFilter *locked = Vigil_LockFilter(kPort, true);
      zek_Status status = VigilAddVmi(locked, vmi);
      Vigil_UnlockFilter(locked, true);
      if (status != ZEK_OK) {
         Free(vmi);
         vmi = nullptr;
      }
      if (added != nullptr) {
         *added = vmi;
      }
      return status;
   }

   zek_Status Add(u16 vlan, const MacAddr &mac, u32 ip, u8 method, i64 expiryTs,
                  const std::string &clientId = "", VigilVmi **added = nullptr) {
      return Add(Make(vlan, mac, ip, method, expiryTs, clientId), added);
   }

   void Del(VigilVmi *vmi) {
      VigilFilter *locked = Vigil_LockFilter(kPort, true);
      VigilDelVmi(locked, vmi);
      Vigil_UnlockFilter(locked, true);
   }

   void Reduce(u32 target) {
      VigilFilter *locked = Vigil_LockFilter(kPort, true);
      VigilReduceArpEntries(locked, target);
      Vigil_UnlockFilter(locked, true);
   }

   VigilVmi *Find(u16 vlan, const MacAddr &mac, u32 ip) {
      return WithReadHold(filter->portID,
                          [&] { return VigilFindVmi(filter, vlan, mac.data(), ip); });
   }

   Counters Count() const {
      return {filter->numVmis,        filter->numDhcpVmis,   filter->numArpVmis,
              filter->numExpiredVmis, filter->numStaticVmis, filter->totalClientIdLen};
   }

   std::vector<VigilVmi *> VmiList() const {
      std::vector<VigilVmi *> records;
      VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
         records.push_back(VIGIL_VMI_FROM_EXPIRY(pos));
      }
      return records;
   }

   std::vector<VigilVmi *> ExpiredList() const {
      std::vector<VigilVmi *> records;
      VIGIL_LIST_FOR_EACH(pos, &filter->expiredVmiList) {
         records.push_back(VIGIL_VMI_FROM_EXPIRED(pos));
      }
      return records;
   }

   std::vector<std::string> Violations() {
      std::vector<std::string> texts;
      u32 count = VigilCheckVmiTable(filter, CollectViolation, &texts);
      EXPECT_EQ(count, texts.size());
      return texts;
   }

   u32 BucketOf(VigilVmi *vmi) const {
      OxaHashCommon *hash = &filter->vmiHash->common;
      return (u32)(OxaHashBucketOf(hash, OxaHashRecordKey(hash, vmi)) - hash->buckets);
   }

   void SetIgnoreList(const std::vector<VigilWhiteListEntry> &entries) {
      Vigil_HeapFree(filter->portIgnoreList);
      filter->portIgnoreList = (VigilWhiteListEntry *)Vigil_HeapAlloc(
         (u32)(entries.size() * sizeof(VigilWhiteListEntry)));
      for (size_t i = 0; i < entries.size(); i++) {
         filter->portIgnoreList[i] = entries[i];
      }
      filter->portIgnoreListSize = (u32)entries.size();
   }

   /* The binding messages delivered to "vs0" for our port, once the
    * control-plane world has run dry. */
   using Messages = std::vector<std::vector<u8>>;
   Messages Delivered() {
      EXPECT_TRUE(sim::WaitIdle(5.0));
      Messages out;
      for (const sim::PortsetMessage &msg : sim::TakePortsetMessages()) {
         EXPECT_EQ(msg.portset, "vs0");
         EXPECT_EQ(msg.portID, kPort);
         EXPECT_EQ(msg.bytes.size(), 80u);
         /* The name field is compared as a string, up to its NUL. */
         std::vector<u8> bytes = msg.bytes;
         size_t nameLen = strnlen((const char *)bytes.data(), 32);
         EXPECT_EQ(msg.name, std::string((const char *)bytes.data(), nameLen));
         std::fill(bytes.begin() + nameLen, bytes.begin() + 32, 0);
         out.push_back(bytes);
      }
      return out;
   }

   /* Live heap blocks once the control-plane world has delivered what the
    * table posted (each message is a heap task until then). */
   static u64 LiveAllocations() {
      EXPECT_TRUE(sim::WaitIdle(5.0));
      return sim::GetHeapStats(heapID).allocations;
   }

   VigilFilter *filter = nullptr;
};

static VigilWhiteListEntry IgnoreEntry(u32 flags, u16 vlan, const MacAddr &mac, u32 ip,
                                u32 prefixLen = 32) {
   VigilWhiteListEntry entry;
   memset(&entry, 0, sizeof entry);
   entry.flags = flags;
   entry.vlan = vlan;
   memcpy(entry.mac, mac.data(), 6);
   memcpy(entry.ip, &ip, 4);
   entry.prefixLen = prefixLen;
   return entry;
}

/* ------------------------------------------------ the hash */

TEST_F(VmiTableTest, HashHasFiveHundredTwelveEmptyBucketsKeyedOnVlanMacAndIp) {
   OxaHashCommon *hash = &filter->vmiHash->common;
   EXPECT_EQ(hash->heap, heapID);
   EXPECT_EQ(hash->keyLen, 12u);
   EXPECT_EQ(hash->keyOffset, offsetof(VigilVmi, vlanId));
   EXPECT_EQ(hash->linkOffset, 0u);
   EXPECT_EQ(hash->mask, 511u);
   EXPECT_EQ(hash->count, 0u);
   EXPECT_EQ(hash->flags, 1u);
   EXPECT_EQ(hash->reserved, 0xffffu);
   EXPECT_EQ(hash->hashFn, nullptr);
   EXPECT_EQ(hash->cmpFn, nullptr);
   for (u32 b = 0; b < 512; b++) {
      ASSERT_TRUE(VigilListIsEmpty(&hash->buckets[b].head)) << b;
      ASSERT_EQ(hash->buckets[b].count, 0u) << b;
   }
}

TEST_F(VmiTableTest, HashAllocationFailureIsLoggedAndReturned) {
   VigilVmiHash *hash = nullptr;
   sim::FaultAlloc(1);
   EXPECT_EQ(VigilVmiHashAlloc(&hash), 0xbad0014u);
   EXPECT_EQ(hash, nullptr);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Could not allocate VMI hash(Out of memory)."});
}

TEST_F(VmiTableTest, FindOnAnEmptyTableDoesNotHash) {
   filter->vmiHash->common.hashFn = CountingHash;
   gHashCalls = 0;
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.10")), nullptr);
   EXPECT_EQ(gHashCalls, 0u);

   VigilVmi *vmi = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 60, "", &vmi), ZEK_OK);
   gHashCalls = 0;
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.10")), vmi);
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.11")), nullptr);
   EXPECT_EQ(gHashCalls, 2u);
   Del(vmi);
   gHashCalls = 0;
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.10")), nullptr);
   EXPECT_EQ(gHashCalls, 0u);
}

/* ------------------------------------------------ add, replace, refuse */

TEST_F(VmiTableTest, AddedBindingIsFoundAndCounted) {
   VigilVmi *vmi = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 600, "", &vmi), ZEK_OK);
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.10")), vmi);
   EXPECT_EQ(Count(), (Counters{1, 0, 1, 0, 0, 0}));
   EXPECT_EQ(filter->vmiHash->common.count, 1u);
   EXPECT_EQ(VmiList(), std::vector<VigilVmi *>{vmi});
   EXPECT_TRUE(ExpiredList().empty());
   EXPECT_EQ(vmi->gratuitous, 0);
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

TEST_F(VmiTableTest, AddClearsTheGratuitousMark) {
   VigilVmi *vmi = Make(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 600);
   vmi->gratuitous = 1;
   ASSERT_EQ(Add(vmi), ZEK_OK);
   EXPECT_EQ(vmi->gratuitous, 0);
}

TEST_F(VmiTableTest, DhcpBindingReplacesAnArpBindingOfTheSameKey) {
   VigilVmi *arp = nullptr;
   VigilVmi *dhcp = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 600, "", &arp), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_DHCP, kNow + 3600, "cid", &dhcp),
             ZEK_OK);
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.10")), dhcp);
   EXPECT_EQ(dhcp->discMethod, VIGIL_DISC_DHCP);
   EXPECT_EQ(Count(), (Counters{1, 1, 0, 0, 0, 3}));
   EXPECT_EQ(VmiList(), std::vector<VigilVmi *>{dhcp});
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

TEST_F(VmiTableTest, ArpBindingIsRefusedOverADhcpBinding) {
   VigilVmi *dhcp = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_DHCP, kNow + 3600, "cid", &dhcp),
             ZEK_OK);
   EXPECT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 600), 0xbad0005u);
   EXPECT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_DHCP, kNow + 7200, "x"), 0xbad0005u);
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.10")), dhcp);
   EXPECT_EQ(dhcp->expiryTs, kNow + 3600);
   EXPECT_EQ(Count(), (Counters{1, 1, 0, 0, 0, 3}));
}

TEST_F(VmiTableTest, ArpBindingIsRefusedOverAnArpBinding) {
   VigilVmi *arp = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 600, "", &arp), ZEK_OK);
   EXPECT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 900), 0xbad0005u);
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.10")), arp);
   EXPECT_EQ(arp->expiryTs, kNow + 600);
}

TEST_F(VmiTableTest, StaticBindingRefusesEveryOtherBinding) {
   VigilVmi *stat = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_STATIC, 0, "", &stat), ZEK_OK);
   EXPECT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 600), 0xbad0005u);
   EXPECT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_DHCP, kNow + 600, "c"), 0xbad0005u);
   EXPECT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_STATIC, 0), 0xbad0005u);
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.10")), stat);
   EXPECT_EQ(Count(), (Counters{1, 0, 0, 0, 1, 0}));
}

TEST_F(VmiTableTest, StaticBindingReplacesDhcpAndArpBindings) {
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_DHCP, kNow + 3600, "client-1"),
             ZEK_OK);
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.11"), VIGIL_DISC_ARP, kNow + 600), ZEK_OK);
   EXPECT_EQ(Count(), (Counters{2, 1, 1, 0, 0, 8}));
   VigilVmi *s1 = nullptr;
   VigilVmi *s2 = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_STATIC, 0, "", &s1), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.11"), VIGIL_DISC_STATIC, 0, "", &s2), ZEK_OK);
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.10")), s1);
   EXPECT_EQ(Find(5, kVm, Ip("192.0.2.11")), s2);
   EXPECT_EQ(Count(), (Counters{2, 0, 0, 0, 2, 0}));
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{s1, s2}));
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

TEST_F(VmiTableTest, BindingsDifferingOnlyInVlanOrOnlyInMacAreSeparate) {
   VigilVmi *a = nullptr;
   VigilVmi *b = nullptr;
   VigilVmi *c = nullptr;
   u32 ip = Ip("192.0.2.10");
   ASSERT_EQ(Add(5, kVm, ip, VIGIL_DISC_ARP, kNow + 600, "", &a), ZEK_OK);
   ASSERT_EQ(Add(6, kVm, ip, VIGIL_DISC_ARP, kNow + 600, "", &b), ZEK_OK);
   ASSERT_EQ(Add(5, MacOf(0x11), ip, VIGIL_DISC_ARP, kNow + 600, "", &c), ZEK_OK);
   EXPECT_EQ(Find(5, kVm, ip), a);
   EXPECT_EQ(Find(6, kVm, ip), b);
   EXPECT_EQ(Find(5, MacOf(0x11), ip), c);
   EXPECT_EQ(Find(6, MacOf(0x11), ip), nullptr);
   /* The VLAN is in host order in the key: 0x0500 is another VLAN. */
   EXPECT_EQ(Find(0x0500, kVm, ip), nullptr);
   EXPECT_EQ(Count(), (Counters{3, 0, 3, 0, 0, 0}));
}

TEST_F(VmiTableTest, TheHundredTwentyNinthDhcpBindingIsRefused) {
   for (u32 i = 0; i < 128; i++) {
      ASSERT_EQ(Add(5, kVm, IpN(i), VIGIL_DISC_DHCP, kNow + 3600), ZEK_OK) << i;
   }
   EXPECT_TRUE(LogTexts().empty());
   EXPECT_EQ(Add(5, kVm, IpN(128), VIGIL_DISC_DHCP, kNow + 3600, "abc"), 0xbad0006u);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].text, "Filter 0x10 Exceeding the max DHCP portDbSize 128");
   EXPECT_EQ(lines[0].log, "vigil.throttle");
   EXPECT_EQ(Count(), (Counters{128, 128, 0, 0, 0, 0}));
   EXPECT_EQ(Find(5, kVm, IpN(128)), nullptr);
   /* ARP and static bindings are not held back by the DHCP limit. */
   EXPECT_EQ(Add(5, kVm, IpN(129), VIGIL_DISC_ARP, kNow + 600), ZEK_OK);
   EXPECT_EQ(Add(5, kVm, IpN(130), VIGIL_DISC_STATIC, 0), ZEK_OK);
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

TEST_F(VmiTableTest, TheTwoHundredFiftySeventhArpBindingIsRefusedWhenNoneIsExpired) {
   for (u32 i = 0; i < 256; i++) {
      ASSERT_EQ(Add(5, kVm, IpN(i), VIGIL_DISC_ARP, kNow + 600 + i), ZEK_OK) << i;
   }
   EXPECT_TRUE(LogTexts().empty());
   EXPECT_EQ(Add(5, kVm, IpN(256), VIGIL_DISC_ARP, kNow + 600), 0xbad0006u);
   EXPECT_EQ(LogTexts(),
             std::vector<std::string>{"Filter 0x10 Exceeding the max ARP portDbSize 256"});
   EXPECT_EQ(Count(), (Counters{256, 0, 256, 0, 0, 0}));
   EXPECT_EQ(Add(5, kVm, IpN(257), VIGIL_DISC_DHCP, kNow + 600), ZEK_OK);
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

TEST_F(VmiTableTest, ArpLimitFollowsThePortSetting) {
   filter->portDbArpEntriesSize = 2;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_ARP, kNow + 600), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(2), VIGIL_DISC_ARP, kNow + 600), ZEK_OK);
   EXPECT_EQ(Add(5, kVm, IpN(3), VIGIL_DISC_ARP, kNow + 600), 0xbad0006u);
   EXPECT_EQ(LogTexts(),
             std::vector<std::string>{"Filter 0x10 Exceeding the max ARP portDbSize 2"});
}

TEST_F(VmiTableTest, FullArpTableEvictsTheExpiredBindingWithTheOldestExpiry) {
   SetDeleteExpiry(0);
   const i64 expiries[] = {kNow - 10, kNow - 50, kNow - 30, kNow - 50, kNow - 1};
   std::vector<VigilVmi *> expired;
   for (u32 i = 0; i < 5; i++) {
      VigilVmi *vmi = nullptr;
      ASSERT_EQ(Add(5, kVm, IpN(i), VIGIL_DISC_ARP, expiries[i], "", &vmi), ZEK_OK);
      expired.push_back(vmi);
   }
   for (u32 i = 5; i < 256; i++) {
      ASSERT_EQ(Add(5, kVm, IpN(i), VIGIL_DISC_ARP, kNow + 600, ""), ZEK_OK) << i;
   }
   EXPECT_EQ(Count(), (Counters{256, 0, 256, 5, 0, 0}));
   /* Oldest first; the two at kNow - 50 in the order they came. */
   EXPECT_EQ(ExpiredList(), (std::vector<VigilVmi *>{expired[1], expired[3], expired[2],
                                                     expired[0], expired[4]}));

   VigilVmi *fresh = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(300), VIGIL_DISC_ARP, kNow + 600, "", &fresh), ZEK_OK);
   EXPECT_EQ(Find(5, kVm, IpN(1)), nullptr);
   EXPECT_EQ(Find(5, kVm, IpN(3)), expired[3]);
   EXPECT_EQ(Find(5, kVm, IpN(300)), fresh);
   EXPECT_EQ(Count(), (Counters{256, 0, 256, 4, 0, 0}));
   EXPECT_TRUE(LogTexts().empty());

   ASSERT_EQ(Add(5, kVm, IpN(301), VIGIL_DISC_ARP, kNow + 600), ZEK_OK);
   EXPECT_EQ(Find(5, kVm, IpN(3)), nullptr);
   EXPECT_EQ(ExpiredList(), (std::vector<VigilVmi *>{expired[2], expired[0], expired[4]}));
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

TEST_F(VmiTableTest, EqualExpiriesLeaveTheListInInsertionOrder) {
   std::vector<VigilVmi *> added;
   const i64 expiries[] = {kNow + 20, kNow + 10, kNow + 20, kNow + 10, kNow + 20, kNow + 15};
   for (u32 i = 0; i < 6; i++) {
      VigilVmi *vmi = nullptr;
      ASSERT_EQ(Add(5, kVm, IpN(i), i % 2 ? VIGIL_DISC_DHCP : VIGIL_DISC_ARP, expiries[i],
                    "", &vmi),
                ZEK_OK);
      added.push_back(vmi);
   }
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{added[1], added[3], added[5], added[0],
                                                 added[2], added[4]}));
}

TEST_F(VmiTableTest, PastExpiryWithDeleteOnExpiryOffGoesToTheExpiredList) {
   SetDeleteExpiry(0);
   VigilVmi *past = nullptr;
   VigilVmi *now = nullptr;
   VigilVmi *future = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_ARP, kNow - 5, "", &past), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(2), VIGIL_DISC_ARP, kNow, "", &now), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(3), VIGIL_DISC_ARP, kNow + 1, "", &future), ZEK_OK);
   EXPECT_EQ(Count(), (Counters{3, 0, 3, 2, 0, 0}));
   EXPECT_EQ(ExpiredList(), (std::vector<VigilVmi *>{past, now}));
   EXPECT_EQ(VmiList(), std::vector<VigilVmi *>{future});
   EXPECT_FALSE(VigilListIsLinked(&past->expiryLinks));
   EXPECT_TRUE(VigilListIsLinked(&past->expiredLinks));
   EXPECT_FALSE(VigilListIsLinked(&future->expiredLinks));
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

TEST_F(VmiTableTest, PastExpiryWithDeleteOnExpiryOnStaysInTheVmiList) {
   VigilVmi *past = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_ARP, kNow - 5, "", &past), ZEK_OK);
   EXPECT_EQ(Count(), (Counters{1, 0, 1, 0, 0, 0}));
   EXPECT_EQ(VmiList(), std::vector<VigilVmi *>{past});
   EXPECT_TRUE(ExpiredList().empty());
}

TEST_F(VmiTableTest, OnlyArpBindingsEverGoToTheExpiredList) {
   SetDeleteExpiry(0);
   VigilVmi *dhcp = nullptr;
   VigilVmi *stat = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_DHCP, kNow - 100, "", &dhcp), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(2), VIGIL_DISC_STATIC, 0, "", &stat), ZEK_OK);
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{stat, dhcp}));
   EXPECT_TRUE(ExpiredList().empty());
   EXPECT_EQ(filter->numExpiredVmis, 0u);
}

TEST_F(VmiTableTest, DeletingTheOnlyBindingLeavesAnEmptyTable) {
   u64 baseline = LiveAllocations();
   for (u8 method : {VIGIL_DISC_ARP, VIGIL_DISC_DHCP, VIGIL_DISC_STATIC}) {
      VigilVmi *vmi = nullptr;
      ASSERT_EQ(Add(5, kVm, IpN(1), method, kNow + 10,
                    method == VIGIL_DISC_DHCP ? "id" : "", &vmi),
                ZEK_OK);
      Del(vmi);
      EXPECT_EQ(Count(), (Counters{0, 0, 0, 0, 0, 0})) << (int)method;
      EXPECT_TRUE(VigilListIsEmpty(&filter->vmiList));
      EXPECT_TRUE(VigilListIsEmpty(&filter->expiredVmiList));
      EXPECT_EQ(filter->vmiHash->common.count, 0u);
      EXPECT_EQ(Find(5, kVm, IpN(1)), nullptr);
   }
   SetDeleteExpiry(0);
   VigilVmi *vmi = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_ARP, kNow - 10, "", &vmi), ZEK_OK);
   ASSERT_EQ(filter->numExpiredVmis, 1u);
   Del(vmi);
   EXPECT_EQ(Count(), (Counters{0, 0, 0, 0, 0, 0}));
   EXPECT_TRUE(VigilListIsEmpty(&filter->expiredVmiList));
   EXPECT_EQ(Violations(), std::vector<std::string>{});
   /* Records and client ids are all gone from the heap. */
   EXPECT_EQ(LiveAllocations(), baseline);
}

/* ------------------------------------------------ the ignore list */

TEST_F(VmiTableTest, BindingOnTheIgnoreListIsRefusedAndCounted) {
   SetIgnoreList({IgnoreEntry(VIGIL_WL_VLAN | VIGIL_WL_IPV4, 5, MacAddr{}, Ip("192.0.2.10"))});
   for (u8 method : {VIGIL_DISC_ARP, VIGIL_DISC_DHCP, VIGIL_DISC_STATIC}) {
      EXPECT_EQ(Add(5, kVm, Ip("192.0.2.10"), method, kNow + 600, "cid"), 0xbad0002u);
   }
   EXPECT_EQ(filter->stats.statV4VmiAddRefused, 3u);
   EXPECT_EQ(Count(), (Counters{0, 0, 0, 0, 0, 0}));
   EXPECT_EQ(Add(6, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 600), ZEK_OK);
   EXPECT_EQ(Add(5, kVm, Ip("192.0.2.11"), VIGIL_DISC_ARP, kNow + 600), ZEK_OK);
   EXPECT_EQ(filter->stats.statV4VmiAddRefused, 3u);
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(VmiTableTest, IgnoreListEntryJoinsItsConditionsAndEntriesAreAlternatives) {
   const MacAddr other = MacOf(0x11);
   const u32 ip = Ip("192.0.2.10");
   auto matches = [&](const std::vector<VigilWhiteListEntry> &entries, u16 vlan,
                      const MacAddr &mac, u32 addr) {
      SetIgnoreList(entries);
      return WithReadHold(filter->portID, [&] {
         return VigilMatchV4IgnoreList(filter, vlan, mac.data(), addr);
      });
   };
   /* VLAN and MAC together. */
   auto vlanMac = IgnoreEntry(VIGIL_WL_VLAN | VIGIL_WL_MAC, 5, kVm, 0);
   EXPECT_TRUE(matches({vlanMac}, 5, kVm, ip));
   EXPECT_TRUE(matches({vlanMac}, 5, kVm, Ip("198.51.100.1")));
   EXPECT_FALSE(matches({vlanMac}, 6, kVm, ip));
   EXPECT_FALSE(matches({vlanMac}, 5, other, ip));
   /* An IPv4 address compares exactly, whatever its prefix length. */
   auto v4 = IgnoreEntry(VIGIL_WL_IPV4, 0, MacAddr{}, ip, 24);
   EXPECT_TRUE(matches({v4}, 9, other, ip));
   EXPECT_FALSE(matches({v4}, 9, other, Ip("192.0.2.11")));
   EXPECT_FALSE(matches({v4}, 9, other, Ip("192.0.2.0")));
   auto v4Zero = IgnoreEntry(VIGIL_WL_IPV4, 0, MacAddr{}, ip, 0);
   EXPECT_FALSE(matches({v4Zero}, 9, other, Ip("198.51.100.10")));
   /* All three conditions. */
   auto all = IgnoreEntry(VIGIL_WL_VLAN | VIGIL_WL_MAC | VIGIL_WL_IPV4, 5, kVm, ip);
   EXPECT_TRUE(matches({all}, 5, kVm, ip));
   EXPECT_FALSE(matches({all}, 5, kVm, Ip("192.0.2.11")));
   EXPECT_FALSE(matches({all}, 5, other, ip));
   EXPECT_FALSE(matches({all}, 4, kVm, ip));
   /* An IPv6 entry never matches, even where its VLAN and MAC fit. */
   VigilWhiteListEntry v6 = IgnoreEntry(VIGIL_WL_IPV6 | VIGIL_WL_VLAN | VIGIL_WL_MAC, 5,
                                        kVm, 0, 0);
   memcpy(v6.ip, &ip, 4);
   EXPECT_FALSE(matches({v6}, 5, kVm, ip));
   EXPECT_FALSE(matches({IgnoreEntry(VIGIL_WL_IPV6, 0, MacAddr{}, 0, 0)}, 5, kVm, 0));
   /* Both address bits: the IPv4 address decides. */
   auto both = IgnoreEntry(VIGIL_WL_IPV4 | VIGIL_WL_IPV6, 0, MacAddr{}, ip);
   EXPECT_TRUE(matches({both}, 5, kVm, ip));
   EXPECT_FALSE(matches({both}, 5, kVm, Ip("192.0.2.11")));
   /* A VLAN alone takes every address of that VLAN. */
   auto vlanOnly = IgnoreEntry(VIGIL_WL_VLAN, 7, MacAddr{}, 0);
   EXPECT_TRUE(matches({vlanOnly}, 7, kVm, ip));
   EXPECT_TRUE(matches({vlanOnly}, 7, other, Ip("198.51.100.200")));
   EXPECT_FALSE(matches({vlanOnly}, 8, kVm, ip));
   /* An entry without conditions takes everything; no entries, nothing. */
   EXPECT_TRUE(matches({IgnoreEntry(0, 0, MacAddr{}, 0)}, 3, other, Ip("198.51.100.3")));
   EXPECT_FALSE(matches({}, 5, kVm, ip));
   /* Entries are alternatives: a later one may match. */
   EXPECT_TRUE(matches({v6, vlanMac, vlanOnly}, 7, other, ip));
   EXPECT_TRUE(matches({v6, vlanOnly, vlanMac}, 5, kVm, ip));
   EXPECT_FALSE(matches({v6, vlanOnly, vlanMac}, 5, other, ip));
}

/* ------------------------------------------------ refresh and reduce */

TEST_F(VmiTableTest, RefreshMovesABindingToItsNewPlace) {
   VigilVmi *a = nullptr;
   VigilVmi *b = nullptr;
   VigilVmi *c = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_ARP, kNow + 10, "", &a), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(2), VIGIL_DISC_ARP, kNow + 20, "", &b), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(3), VIGIL_DISC_DHCP, kNow + 30, "", &c), ZEK_OK);
   WithWriteHold(filter->portID, [&] { VigilRefreshVmiExpiryTs(filter, a, kNow + 25); });
   EXPECT_EQ(a->expiryTs, kNow + 25);
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{b, a, c}));
   /* After the records of equal expiry. */
   WithWriteHold(filter->portID, [&] { VigilRefreshVmiExpiryTs(filter, c, kNow + 20); });
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{b, c, a}));
   EXPECT_EQ(Count(), (Counters{3, 1, 2, 0, 0, 0}));
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

TEST_F(VmiTableTest, RefreshBringsAnExpiredBindingBackToTheVmiList) {
   SetDeleteExpiry(0);
   VigilVmi *old = nullptr;
   VigilVmi *live = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_ARP, kNow - 10, "", &old), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(2), VIGIL_DISC_ARP, kNow + 100, "", &live), ZEK_OK);
   ASSERT_EQ(filter->numExpiredVmis, 1u);
   WithWriteHold(filter->portID, [&] { VigilRefreshVmiExpiryTs(filter, old, kNow + 50); });
   EXPECT_EQ(filter->numExpiredVmis, 0u);
   EXPECT_TRUE(ExpiredList().empty());
   EXPECT_FALSE(VigilListIsLinked(&old->expiredLinks));
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{old, live}));
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

TEST_F(VmiTableTest, ReduceDeletesExpiredFirstThenTheOldestArpBindings) {
   SetDeleteExpiry(0);
   VigilVmi *e1 = nullptr, *e2 = nullptr, *s = nullptr, *d = nullptr;
   VigilVmi *a1 = nullptr, *a2 = nullptr, *a3 = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_ARP, kNow - 5, "", &e2), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(2), VIGIL_DISC_ARP, kNow - 9, "", &e1), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(3), VIGIL_DISC_STATIC, 0, "", &s), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(4), VIGIL_DISC_DHCP, kNow + 5, "dhcp", &d), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(5), VIGIL_DISC_ARP, kNow + 30, "", &a3), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(6), VIGIL_DISC_ARP, kNow + 10, "", &a1), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(7), VIGIL_DISC_ARP, kNow + 20, "", &a2), ZEK_OK);
   EXPECT_EQ(Count(), (Counters{7, 1, 5, 2, 1, 4}));

   Reduce(5); /* nothing to do */
   EXPECT_EQ(Count(), (Counters{7, 1, 5, 2, 1, 4}));

   Reduce(4);
   EXPECT_EQ(Find(5, kVm, IpN(2)), nullptr);
   EXPECT_EQ(ExpiredList(), std::vector<VigilVmi *>{e2});
   EXPECT_EQ(Count(), (Counters{6, 1, 4, 1, 1, 4}));

   Reduce(2);
   EXPECT_EQ(ExpiredList(), std::vector<VigilVmi *>{});
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{s, d, a2, a3}));
   EXPECT_EQ(Count(), (Counters{4, 1, 2, 0, 1, 4}));

   Reduce(0);
   EXPECT_EQ(VmiList(), (std::vector<VigilVmi *>{s, d}));
   EXPECT_EQ(Count(), (Counters{2, 1, 0, 0, 1, 4}));
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

/* ------------------------------------------------ what others are told */


class VmiPublishTest : public VmiTableTest {};

TEST_F(VmiPublishTest, AdditionsAndRemovalsArePublishedInOrder) {
   const u32 ip = Ip("192.0.2.10");
   Delivered();
   VigilVmi *arp = Make(5, kVm, ip, VIGIL_DISC_ARP, kNow + 600);
   arp->gratuitous = 1;
   ASSERT_EQ(Add(arp), ZEK_OK);
   /* The mark goes out with the addition and is cleared afterwards. */
   EXPECT_EQ(Delivered(), Messages{Added(5, kVm, ip, VIGIL_DISC_ARP, 1)});

   ASSERT_EQ(Add(5, kVm, ip, VIGIL_DISC_DHCP, kNow + 600, "cid"), ZEK_OK);
   EXPECT_EQ(Delivered(), (Messages{Removed(5, kVm, ip, VIGIL_DISC_ARP),
                                    Added(5, kVm, ip, VIGIL_DISC_DHCP)}));

   VigilVmi *stat = nullptr;
   ASSERT_EQ(Add(0x0123, MacOf(0xab), ip, VIGIL_DISC_STATIC, 0, "", &stat), ZEK_OK);
   EXPECT_EQ(Delivered(), Messages{Added(0x0123, MacOf(0xab), ip, VIGIL_DISC_STATIC)});

   Del(stat);
   EXPECT_EQ(Delivered(), Messages{Removed(0x0123, MacOf(0xab), ip, VIGIL_DISC_STATIC)});
}

TEST_F(VmiPublishTest, RefusedBindingsAreNotPublished) {
   const u32 ip = Ip("192.0.2.10");
   ASSERT_EQ(Add(5, kVm, ip, VIGIL_DISC_STATIC, 0), ZEK_OK);
   Delivered();
   EXPECT_EQ(Add(5, kVm, ip, VIGIL_DISC_ARP, kNow + 600), 0xbad0005u);
   SetIgnoreList({IgnoreEntry(VIGIL_WL_VLAN, 6, MacAddr{}, 0)});
   EXPECT_EQ(Add(6, kVm, ip, VIGIL_DISC_ARP, kNow + 600), 0xbad0002u);
   filter->portDbArpEntriesSize = 0;
   EXPECT_EQ(Add(7, kVm, ip, VIGIL_DISC_ARP, kNow + 600), 0xbad0006u);
   EXPECT_EQ(Delivered(), Messages{});
}

TEST_F(VmiPublishTest, EvictionPublishesTheRemovalBeforeTheAddition) {
   SetDeleteExpiry(0);
   filter->portDbArpEntriesSize = 2;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_ARP, kNow - 3), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(2), VIGIL_DISC_ARP, kNow - 7), ZEK_OK);
   Delivered();
   ASSERT_EQ(Add(5, kVm, IpN(3), VIGIL_DISC_ARP, kNow + 60), ZEK_OK);
   EXPECT_EQ(Delivered(), (Messages{Removed(5, kVm, IpN(2), VIGIL_DISC_ARP),
                                    Added(5, kVm, IpN(3), VIGIL_DISC_ARP)}));
}

TEST_F(VmiTableTest, AgingQueueHoldsTheEarliestExpiryOfTheVmiList) {
   auto queued = [&]() { return sim::PriQContents(filterAgingQ); };
   using Queue = std::vector<std::pair<int64_t, void *>>;
   EXPECT_EQ(queued(), Queue{});

   VigilVmi *late = nullptr;
   VigilVmi *early = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_ARP, kNow + 100, "", &late), ZEK_OK);
   EXPECT_EQ(filter->agingKey, kNow + 100);
   EXPECT_EQ(filter->agingPortID, kPort);
   EXPECT_EQ(queued(), (Queue{{kNow + 100, &filter->agingPortID}}));

   ASSERT_EQ(Add(5, kVm, IpN(2), VIGIL_DISC_DHCP, kNow + 40, "", &early), ZEK_OK);
   EXPECT_EQ(queued(), (Queue{{kNow + 40, &filter->agingPortID}}));

   /* A binding kept past its end is not aged again. */
   SetDeleteExpiry(0);
   VigilVmi *kept = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(3), VIGIL_DISC_ARP, kNow - 40, "", &kept), ZEK_OK);
   EXPECT_EQ(queued(), (Queue{{kNow + 40, &filter->agingPortID}}));
   Del(kept);
   EXPECT_EQ(queued(), (Queue{{kNow + 40, &filter->agingPortID}}));

   Del(early);
   EXPECT_EQ(filter->agingKey, kNow + 100);
   EXPECT_EQ(queued(), (Queue{{kNow + 100, &filter->agingPortID}}));

   Del(late);
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
   EXPECT_EQ(filter->agingPortID, 0u);
   EXPECT_EQ(queued(), Queue{});
}

/* ------------------------------------------------ client ids */

TEST_F(VmiTableTest, ClientIdLengthFollowsDhcpBindingsAndTheStringIsFreed) {
   VigilVmi *a = nullptr;
   VigilVmi *b = nullptr;
   ASSERT_EQ(Add(5, kVm, IpN(1), VIGIL_DISC_DHCP, kNow + 100, "abc", &a), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(2), VIGIL_DISC_DHCP, kNow + 100, "client", &b), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, IpN(3), VIGIL_DISC_DHCP, kNow + 100), ZEK_OK);
   EXPECT_EQ(filter->totalClientIdLen, 9u);
   u64 before = LiveAllocations();
   Del(a);
   EXPECT_EQ(filter->totalClientIdLen, 6u);
   EXPECT_EQ(LiveAllocations(), before - 2);
   /* A static binding over the DHCP one takes its string away too. */
   ASSERT_EQ(Add(5, kVm, IpN(2), VIGIL_DISC_STATIC, 0), ZEK_OK);
   EXPECT_EQ(filter->totalClientIdLen, 0u);
   EXPECT_EQ(LiveAllocations(), before - 2 - 2 + 1);
   EXPECT_EQ(Violations(), std::vector<std::string>{});
}

/* ------------------------------------------------ verbosity lines */

TEST_F(VmiTableTest, NewAndDeletedBindingsAreLoggedAtVerbosityTwo) {
   sim::SetLogLevel("vigil", 2);
   VigilVmi *vmi = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 600, "", &vmi), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 New vmi: vlanId = 5 mac = 02:00:00:00:00:10 ip = "
                            "192.0.2.10",
                            "Filter 0x10 New vmi: discMethod = 2 [1 0 1 0 0]"}));
   Del(vmi);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 Deleted vmi: 2 vlanId = 5 mac = 02:00:00:00:00:10 "
                            "ip = 192.0.2.10: [0 0 0 0]"});

   SetDeleteExpiry(0);
   ASSERT_EQ(Add(4095, MacOf(0xab), Ip("198.51.100.7"), VIGIL_DISC_ARP, kNow - 1), ZEK_OK);
   ASSERT_EQ(Add(7, kVm, Ip("198.51.100.8"), VIGIL_DISC_DHCP, kNow + 1, "x"), ZEK_OK);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 New vmi: vlanId = 4095 mac = 02:00:00:00:00:ab ip "
                            "= 198.51.100.7",
                            "Filter 0x10 New vmi: discMethod = 2 [1 0 1 1 0]",
                            "Filter 0x10 New vmi: vlanId = 7 mac = 02:00:00:00:00:10 ip = "
                            "198.51.100.8",
                            "Filter 0x10 New vmi: discMethod = 1 [2 1 1 1 0]"}));
}

TEST_F(VmiTableTest, VerbosityOneLogsOnlyTheNewBinding) {
   sim::SetLogLevel("vigil", 1);
   VigilVmi *vmi = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_STATIC, 0, "", &vmi), ZEK_OK);
   Del(vmi);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 New vmi: vlanId = 5 mac = 02:00:00:00:00:10 ip = "
                            "192.0.2.10"});
}

TEST_F(VmiTableTest, NothingIsLoggedAtVerbosityZero) {
   VigilVmi *vmi = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 600, "", &vmi), ZEK_OK);
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_DHCP, kNow + 600, "", &vmi), ZEK_OK);
   Del(vmi);
   EXPECT_TRUE(LogTexts().empty());
}

/* ------------------------------------------------ the consistency check */

class VmiCheckTest : public VmiTableTest {
protected:
   void SetUp() override {
      VmiTableTest::SetUp();
      SetDeleteExpiry(0);
      ASSERT_EQ(Add(5, kVm, Ip("192.0.2.10"), VIGIL_DISC_ARP, kNow + 100, "", &arp), ZEK_OK);
      ASSERT_EQ(Add(5, kVm, Ip("192.0.2.11"), VIGIL_DISC_DHCP, kNow + 200, "abc", &dhcp),
                ZEK_OK);
      ASSERT_EQ(Add(5, kVm, Ip("192.0.2.12"), VIGIL_DISC_STATIC, 0, "", &stat), ZEK_OK);
      ASSERT_EQ(Add(5, kVm, Ip("192.0.2.13"), VIGIL_DISC_ARP, kNow - 10, "", &expired),
                ZEK_OK);
      ASSERT_EQ(VmiList(), (std::vector<VigilVmi *>{stat, arp, dhcp}));
      ASSERT_EQ(ExpiredList(), std::vector<VigilVmi *>{expired});
      ASSERT_EQ(Count(), (Counters{4, 1, 2, 1, 1, 3}));
      ASSERT_EQ(Violations(), std::vector<std::string>{});
   }
   void TearDown() override {
      EXPECT_EQ(Violations(), std::vector<std::string>{}) << "the table was not restored";
      VmiTableTest::TearDown();
   }
   std::string Bucket(VigilVmi *vmi) { return std::to_string(BucketOf(vmi)); }

   VigilVmi *arp = nullptr;
   VigilVmi *dhcp = nullptr;
   VigilVmi *stat = nullptr;
   VigilVmi *expired = nullptr;
};

TEST_F(VmiCheckTest, WrongArpCount) {
   filter->numArpVmis = 3;
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 numArpVmis 3, lists hold 2",
                              "Filter 0x10 numVmis 4 is not the sum of its methods"}));
   filter->numArpVmis = 2;
}

TEST_F(VmiCheckTest, WrongVmiCount) {
   filter->numVmis = 5;
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 numVmis 5, hash holds 4",
                              "Filter 0x10 numVmis 5, lists hold 4",
                              "Filter 0x10 numVmis 5 is not the sum of its methods"}));
   filter->numVmis = 4;
}

TEST_F(VmiCheckTest, WrongExpiredCount) {
   filter->numExpiredVmis = 0;
   EXPECT_EQ(Violations(),
             std::vector<std::string>{"Filter 0x10 numExpiredVmis 0, list holds 1"});
   filter->numExpiredVmis = 3;
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 numExpiredVmis 3, list holds 1",
                              "Filter 0x10 numExpiredVmis 3 exceeds numArpVmis 2"}));
   filter->numExpiredVmis = 1;
}

TEST_F(VmiCheckTest, WrongDhcpAndStaticCounts) {
   filter->numDhcpVmis = 0;
   filter->numStaticVmis = 2;
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 numDhcpVmis 0, lists hold 1",
                              "Filter 0x10 numStaticVmis 2, lists hold 1"}));
   filter->numDhcpVmis = 1;
   filter->numStaticVmis = 1;
}

TEST_F(VmiCheckTest, WrongClientIdTotal) {
   filter->totalClientIdLen = 7;
   EXPECT_EQ(Violations(),
             std::vector<std::string>{"Filter 0x10 totalClientIdLen 7, records hold 3"});
   filter->totalClientIdLen = 3;
}

TEST_F(VmiCheckTest, ClientIdLengthWithoutItsString) {
   u8 *saved = dhcp->clientIdStr;
   dhcp->clientIdStr = nullptr;
   EXPECT_EQ(Violations(), std::vector<std::string>{
                              "Filter 0x10 vmiList: record 3 client id length 3 disagrees "
                              "with its string"});
   dhcp->clientIdStr = saved;
}

TEST_F(VmiCheckTest, RecordUnlinkedFromItsList) {
   VigilListRemove(&arp->expiryLinks);
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 bucket " + Bucket(arp) +
                                 ": a record is on no expiry list",
                              "Filter 0x10 numVmis 4, lists hold 3",
                              "Filter 0x10 numArpVmis 2, lists hold 1"}));
   WithWriteHold(filter->portID, [&] { VigilInsertIntoVmiList(filter, arp); });
}

TEST_F(VmiCheckTest, RecordOnBothLists) {
   VigilListInsertBefore(&filter->expiredVmiList, &arp->expiredLinks);
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 bucket " + Bucket(arp) +
                                 ": a record is on more than one expiry list",
                              "Filter 0x10 vmiList: record 2 is on both lists",
                              "Filter 0x10 expiredVmiList: record 2 is on both lists",
                              "Filter 0x10 numVmis 4, lists hold 5",
                              "Filter 0x10 numExpiredVmis 1, list holds 2",
                              "Filter 0x10 numArpVmis 2, lists hold 3"}));
   VigilListRemove(&arp->expiredLinks);
}

TEST_F(VmiCheckTest, MisorderedList) {
   stat->expiryTs = 5000;
   EXPECT_EQ(Violations(), std::vector<std::string>{
                              "Filter 0x10 vmiList: record 2 expires at 1100 before 5000"});
   stat->expiryTs = 0;
}

TEST_F(VmiCheckTest, MisorderedExpiredList) {
   VigilVmi *older = nullptr;
   ASSERT_EQ(Add(5, kVm, Ip("192.0.2.14"), VIGIL_DISC_ARP, kNow - 20, "", &older), ZEK_OK);
   ASSERT_EQ(ExpiredList(), (std::vector<VigilVmi *>{older, expired}));
   older->expiryTs = kNow - 5;
   EXPECT_EQ(Violations(), std::vector<std::string>{
                              "Filter 0x10 expiredVmiList: record 2 expires at 990 before 995"});
   older->expiryTs = kNow - 20;
}

TEST_F(VmiCheckTest, NonArpRecordOnTheExpiredList) {
   VigilListRemove(&dhcp->expiryLinks);
   VigilListInsertBefore(&filter->expiredVmiList, &dhcp->expiredLinks);
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 expiredVmiList holds 1 records not learnt by ARP",
                              "Filter 0x10 numExpiredVmis 1, list holds 2"}));
   VigilListRemove(&dhcp->expiredLinks);
   WithWriteHold(filter->portID, [&] { VigilInsertIntoVmiList(filter, dhcp); });
}

TEST_F(VmiCheckTest, RecordOfAnUnknownMethod) {
   stat->discMethod = 9;
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 numStaticVmis 1, lists hold 0",
                              "Filter 0x10 1 records of an unknown method"}));
   stat->discMethod = VIGIL_DISC_STATIC;
}

TEST_F(VmiCheckTest, GratuitousMarkLeftSet) {
   dhcp->gratuitous = 1;
   EXPECT_EQ(Violations(), std::vector<std::string>{
                              "Filter 0x10 vmiList: record 3 keeps gratuitous set"});
   dhcp->gratuitous = 0;
}

TEST_F(VmiCheckTest, RecordWhoseKeyChangedSitsInTheWrongBucket) {
   u32 savedIp = arp->ip;
   std::string oldBucket = Bucket(arp);
   for (u32 n = 100; n < 200; n++) {
      arp->ip = IpN(n);
      if (Bucket(arp) != oldBucket) {
         break;
      }
   }
   ASSERT_NE(Bucket(arp), oldBucket);
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 bucket " + oldBucket +
                                 ": holds a record of another bucket",
                              "Filter 0x10 vmiList: record 2 is not in the hash"}));
   arp->ip = savedIp;
}

TEST_F(VmiCheckTest, WrongHashAndBucketCounts) {
   OxaHashCommon *hash = &filter->vmiHash->common;
   hash->count = 5;
   EXPECT_EQ(Violations(), std::vector<std::string>{"Filter 0x10 hash count 5, holds 4"});
   hash->count = 4;
   OxaHashBucket *bucket = &hash->buckets[BucketOf(arp)];
   u32 held = bucket->count;
   bucket->count = held + 1;
   EXPECT_EQ(Violations(), std::vector<std::string>{
                              "Filter 0x10 bucket " + Bucket(arp) + ": count " +
                              std::to_string(held + 1) + ", holds " + std::to_string(held)});
   bucket->count = held;
}

TEST_F(VmiCheckTest, BrokenBackLink) {
   VigilListLinks *saved = dhcp->expiryLinks.prev;
   dhcp->expiryLinks.prev = &stat->expiryLinks;
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 vmiList: broken links after 1 records",
                              "Filter 0x10 numVmis 4, lists hold 2",
                              "Filter 0x10 numDhcpVmis 1, lists hold 0",
                              "Filter 0x10 numArpVmis 2, lists hold 1",
                              "Filter 0x10 totalClientIdLen 3, records hold 0"}));
   dhcp->expiryLinks.prev = saved;
}

TEST_F(VmiCheckTest, MissingHash) {
   VigilVmiHash *saved = filter->vmiHash;
   filter->vmiHash = nullptr;
   EXPECT_EQ(Violations(), std::vector<std::string>{"Filter 0x10 has no IPv4 hash"});
   filter->vmiHash = saved;
}

TEST_F(VmiCheckTest, EmptyVmiListWhileCountersSayOtherwise) {
   Del(arp);
   Del(dhcp);
   Del(stat);
   ASSERT_EQ(Count(), (Counters{1, 0, 1, 1, 0, 0}));
   ASSERT_EQ(Violations(), std::vector<std::string>{});
   filter->numExpiredVmis = 0;
   EXPECT_EQ(Violations(), (std::vector<std::string>{
                              "Filter 0x10 numExpiredVmis 0, list holds 1",
                              "Filter 0x10 vmiList is empty but numVmis 1, numExpiredVmis 0"}));
   filter->numExpiredVmis = 1;
}

/* ------------------------------------------------ random run */

namespace {

using Key = std::tuple<u16, u8, u32>; /* VLAN, last MAC byte, address index */

struct ModelRecord {
   u8 method;
   i64 expiry;
   bool onExpired;
   u64 seq; /* when it joined its list: ties keep this order */
   u8 clientIdLen;
};

struct Model {
   std::map<Key, ModelRecord> records;
   u64 nextSeq = 0;

   u32 Count(u8 method) const {
      u32 n = 0;
      for (const auto &kv : records) {
         n += kv.second.method == method;
      }
      return n;
   }
   u32 Expired() const {
      u32 n = 0;
      for (const auto &kv : records) {
         n += kv.second.onExpired;
      }
      return n;
   }
   u32 ClientIdLen() const {
      u32 n = 0;
      for (const auto &kv : records) {
         n += kv.second.method == VIGIL_DISC_DHCP ? kv.second.clientIdLen : 0;
      }
      return n;
   }
   /* The keys of one list, in list order. */
   std::vector<Key> List(bool expiredList) const {
      std::vector<std::pair<std::pair<i64, u64>, Key>> order;
      for (const auto &kv : records) {
         if (kv.second.onExpired == expiredList) {
            order.push_back({{kv.second.expiry, kv.second.seq}, kv.first});
         }
      }
      std::sort(order.begin(), order.end());
      std::vector<Key> keys;
      for (const auto &o : order) {
         keys.push_back(o.second);
      }
      return keys;
   }
};

} // namespace

TEST_F(VmiTableTest, RandomOperationsAgreeWithAModel) {
   std::mt19937 rng(0x5eed1234);
   const u16 vlans[] = {1, 2};
   const u8 macs[] = {0x10, 0x11, 0x12};
   const u32 ipCount = 4;
   const u32 arpCap = 4;
   filter->portDbArpEntriesSize = arpCap;
   /* Bindings of VLAN 2 to the fourth address are never learnt. */
   SetIgnoreList({IgnoreEntry(VIGIL_WL_VLAN | VIGIL_WL_IPV4, 2, MacAddr{}, IpN(4))});

   Model model;
   bool deleteOnExpiry = true;
   i64 now = kNow;
   u64 refused = 0;
   struct {
      u32 added, ignored, exists, limit, evicted, replaced, deleted, refreshed, reduced;
   } seen = {};
   std::string history;
   Messages expectMessages;

   auto keyIp = [](const Key &key) { return IpN(1 + std::get<2>(key)); };
   auto removed = [&](const Key &key) {
      expectMessages.push_back(Removed(std::get<0>(key), MacOf(std::get<1>(key)),
                                       keyIp(key), model.records[key].method));
      model.records.erase(key);
   };
   auto randomKey = [&]() {
      return Key{vlans[rng() % 2], macs[rng() % 3], rng() % ipCount};
   };
   auto findKey = [&](const Key &key) {
      return Find(std::get<0>(key), MacOf(std::get<1>(key)), keyIp(key));
   };
   auto keysOf = [](const std::vector<VigilVmi *> &records) {
      std::vector<Key> keys;
      for (VigilVmi *vmi : records) {
         u32 index = 0;
         for (u32 i = 0; i < 16; i++) {
            if (IpN(1 + i) == vmi->ip) {
               index = i;
            }
         }
         keys.push_back(Key{vmi->vlanId, vmi->mac[5], index});
      }
      return keys;
   };

   for (int step = 0; step < 10000; step++) {
      u32 op = rng() % 100;
      std::string what;
      if (op < 55) {
         Key key = randomKey();
         u32 m = rng() % 10;
         u8 method = m < 6 ? VIGIL_DISC_ARP : m < 9 ? VIGIL_DISC_DHCP : VIGIL_DISC_STATIC;
         i64 expiry = method == VIGIL_DISC_STATIC ? 0 : now + (i64)(rng() % 11) - 5;
         std::string clientId;
         if (method == VIGIL_DISC_DHCP) {
            clientId.assign(rng() % 7, 'c');
         }
         what = "add method " + std::to_string(method) + " expiry " +
                std::to_string(expiry - now);

         /* What the model expects. */
         zek_Status expect = ZEK_OK;
         bool ignored = std::get<0>(key) == 2 && std::get<2>(key) == 3;
         auto existing = model.records.find(key);
         if (ignored) {
            expect = 0xbad0002u;
            refused++;
         } else if (existing != model.records.end()) {
            u8 old = existing->second.method;
            if (old == VIGIL_DISC_STATIC ||
                (old == VIGIL_DISC_DHCP && method != VIGIL_DISC_STATIC) ||
                (old == VIGIL_DISC_ARP && method == VIGIL_DISC_ARP)) {
               expect = 0xbad0005u;
            } else {
               removed(key);
               seen.replaced++;
            }
         }
         if (expect == ZEK_OK && method == VIGIL_DISC_DHCP &&
             model.Count(VIGIL_DISC_DHCP) >= 128) {
            expect = 0xbad0006u;
         }
         if (expect == ZEK_OK && method == VIGIL_DISC_ARP &&
             model.Count(VIGIL_DISC_ARP) >= arpCap) {
            std::vector<Key> expiredKeys = model.List(true);
            if (expiredKeys.empty()) {
               expect = 0xbad0006u;
            } else {
               removed(expiredKeys.front());
               seen.evicted++;
            }
         }
         if (expect == ZEK_OK) {
            bool isExpired = method == VIGIL_DISC_ARP && expiry <= now;
            model.records[key] = ModelRecord{method, expiry, isExpired && !deleteOnExpiry,
                                             model.nextSeq++, (u8)clientId.size()};
            expectMessages.push_back(
               Added(std::get<0>(key), MacOf(std::get<1>(key)), keyIp(key), method));
         }

         zek_Status status = Add(std::get<0>(key), MacOf(std::get<1>(key)), keyIp(key),
                                 method, expiry, clientId);
         seen.added += status == ZEK_OK;
         seen.ignored += status == 0xbad0002u;
         seen.exists += status == 0xbad0005u;
         seen.limit += status == 0xbad0006u;
         ASSERT_EQ(status, expect) << "step " << step << ": " << what << history;
      } else if (op < 70) {
         Key key = randomKey();
         what = "delete";
         VigilVmi *vmi = findKey(key);
         auto it = model.records.find(key);
         ASSERT_EQ(vmi != nullptr, it != model.records.end()) << "step " << step;
         if (vmi != nullptr) {
            EXPECT_EQ(vmi->discMethod, it->second.method) << "step " << step;
            EXPECT_EQ(vmi->expiryTs, it->second.expiry) << "step " << step;
            Del(vmi);
            removed(key);
            seen.deleted++;
         }
      } else if (op < 84) {
         Key key = randomKey();
         i64 expiry = now + (i64)(rng() % 11) - 5;
         what = "refresh to " + std::to_string(expiry - now);
         VigilVmi *vmi = findKey(key);
         auto it = model.records.find(key);
         ASSERT_EQ(vmi != nullptr, it != model.records.end()) << "step " << step;
         if (vmi != nullptr) {
            /* As snooping does: refresh, then re-file for aging. */
            WithWriteHold(filter->portID, [&] {
               VigilRefreshVmiExpiryTs(filter, vmi, expiry);
               VigilUpdateFilterAging(filter);
            });
            it->second.expiry = expiry;
            it->second.onExpired = false;
            it->second.seq = model.nextSeq++;
            seen.refreshed++;
         }
      } else if (op < 86) {
         u32 target = rng() % (arpCap + 1);
         what = "reduce to " + std::to_string(target);
         for (const Key &key : model.List(true)) {
            if (model.Count(VIGIL_DISC_ARP) <= target) {
               break;
            }
            removed(key);
         }
         for (const Key &key : model.List(false)) {
            if (model.Count(VIGIL_DISC_ARP) <= target) {
               break;
            }
            if (model.records[key].method == VIGIL_DISC_ARP) {
               removed(key);
            }
         }
         Reduce(target);
         seen.reduced++;
      } else if (op < 90) {
         deleteOnExpiry = !deleteOnExpiry;
         SetDeleteExpiry(deleteOnExpiry ? 1 : 0);
         what = deleteOnExpiry ? "delete-on-expiry on" : "delete-on-expiry off";
      } else {
         sim::Advance(1.0);
         now++;
         what = "advance";
      }
      history = "\n  after " + what;

      std::vector<std::string> violations = Violations();
      ASSERT_EQ(violations, std::vector<std::string>{}) << "step " << step << ": " << what;
      Counters expectCounts{(u32)model.records.size(),
                            model.Count(VIGIL_DISC_DHCP),
                            model.Count(VIGIL_DISC_ARP),
                            model.Expired(),
                            model.Count(VIGIL_DISC_STATIC),
                            model.ClientIdLen()};
      ASSERT_EQ(Count(), expectCounts) << "step " << step << ": " << what;
      ASSERT_EQ(keysOf(VmiList()), model.List(false)) << "step " << step << ": " << what;
      ASSERT_EQ(keysOf(ExpiredList()), model.List(true)) << "step " << step << ": " << what;
      ASSERT_EQ(filter->stats.statV4VmiAddRefused, refused) << "step " << step;
      /* What was published, and when the filter is due for aging. */
      ASSERT_EQ(Delivered(), expectMessages) << "step " << step << ": " << what;
      expectMessages.clear();
      std::vector<Key> running = model.List(false);
      /* A static binding heads the list and nothing behind it can end. */
      i64 dueAt = running.empty() || model.records[running[0]].method == VIGIL_DISC_STATIC
                     ? VIGIL_AGING_KEY_NONE
                     : model.records[running[0]].expiry;
      ASSERT_EQ(filter->agingKey, dueAt) << "step " << step << ": " << what;
   }
   /* The run went through every outcome. */
   EXPECT_GT(seen.added, 1000u);
   EXPECT_GT(seen.ignored, 50u);
   EXPECT_GT(seen.exists, 50u);
   EXPECT_GT(seen.limit, 50u);
   EXPECT_GT(seen.evicted, 20u);
   EXPECT_GT(seen.replaced, 50u);
   EXPECT_GT(seen.deleted, 50u);
   EXPECT_GT(seen.refreshed, 50u);
   EXPECT_GT(seen.reduced, 50u);
}
