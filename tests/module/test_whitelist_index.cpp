/*
 * The white list index against the scan it stands in for: on random lists
 * and frames (seeded; a failure names its seed) it must find the same first
 * entry, and the warden must give the same verdict, drop lines and Pathprobe
 * records with the index as without it.  Then how configuration makes,
 * replaces and frees the index, and what a failed allocation leaves.
 *
 * VIGIL_WL_INDEX_SEED=N runs the random tests with that seed alone.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "test_random.h"
#include "config_blobs.h"
#include "sim_switch.h"
#include "vigil_config.h"
#include "vigil_lifecycle.h"
#include "vigil_test.h"
#include "vigil_throttle.h"
#include "vigil_warden.h"
#include "vigil_whitelist_index.h"

namespace {

using blobs::Addr;
using blobs::Bytes;
using blobs::Entry;
using blobs::Mac;
using blobs::MacAddr;
using blobs::V4;
using blobs::V6;

constexpr u32 kPort = 0x10;
constexpr u32 kNoMatch = VIGIL_WDN_NO_MATCH;

/* The seeds of the random tests: the one in VIGIL_WL_INDEX_SEED alone when
 * it is set, else a fixed set, so that every run checks the same lists. */
std::vector<u32> Seeds(std::vector<u32> fixed) { return testrand::Seeds("VIGIL_WL_INDEX_SEED", fixed); }

/* Small pools of values, so that entries share addresses, VLANs and MACs and
 * frames hit them, and prefixes decide. */
const u16 kVlans[] = {0, 1, 5, 7, 4094};
const MacAddr kMacs[] = {Mac("02:00:00:00:00:10"), Mac("02:00:00:00:00:11"),
                         Mac("02:00:00:00:01:10"), Mac("0a:00:00:00:00:10")};
const MacAddr kGroupMac = Mac("03:00:00:00:00:10");
const Addr kV4Bases[] = {V4("192.0.2.0"), V4("192.0.2.128"), V4("198.51.100.0")};
const Addr kV6Bases[] = {V6("2001:db8::"), V6("2001:db8:0:1::"),
                         V6("2001:db8:8000::"), V6("2001:db8::1:0:0:0")};

using testrand::Rng;

Addr RandomV4(Rng &rng) {
   Addr addr = rng.Pick(kV4Bases);
   addr[3] = (u8)(addr[3] | rng.Below(4));
   return addr;
}

Addr RandomV6(Rng &rng) {
   Addr addr = rng.Pick(kV6Bases);
   addr[15] = (u8)rng.Below(4);
   return addr;
}

/* Flips one random bit of the first `bits` bits: near a prefix's end, the
 * prefix length decides. */
void FlipBit(Rng &rng, Addr &addr, u32 bits) {
   u32 bit = rng.Below(bits);
   addr[bit / 8] ^= (u8)(0x80 >> (bit % 8));
}

/* An entry of any flag set.  `valid`: one that configuration accepts (a
 * unicast MAC, a VLAN up to 4094, a prefix in range for a single address
 * family, a VLAN or MAC beside both or neither address bit); otherwise
 * anything the record can hold. */
VigilWhiteListEntry RandomEntry(Rng &rng, bool valid) {
   u32 flags = rng.Below(16);
   u32 addrBits = flags & (VIGIL_WL_IPV4 | VIGIL_WL_IPV6);
   if (valid && (addrBits == 0 || addrBits == (VIGIL_WL_IPV4 | VIGIL_WL_IPV6)) &&
       (flags & (VIGIL_WL_VLAN | VIGIL_WL_MAC)) == 0) {
      flags |= rng.Chance(50) ? VIGIL_WL_VLAN : VIGIL_WL_MAC;
   }
   Addr ip{};
   u32 prefix = 0;
   if (addrBits == VIGIL_WL_IPV4) {
      ip = RandomV4(rng);
      prefix = rng.Chance(40) ? 32 : rng.Below(33);
   } else if (addrBits == VIGIL_WL_IPV6) {
      ip = RandomV6(rng);
      prefix = rng.Chance(40) ? 128 : rng.Below(129);
   } else {
      /* Both families read the same bytes: an IPv4 address in front of an
       * IPv6 one; with neither bit the address is never looked at. */
      ip = RandomV6(rng);
      Addr v4 = RandomV4(rng);
      if (rng.Chance(50)) {
         memcpy(ip.data(), v4.data(), 4);
      }
      prefix = rng.Below(256);
   }
   if (!valid && addrBits != 0 && rng.Chance(10)) {
      prefix = rng.Below(300);
   }
   u16 vlan = rng.Pick(kVlans);
   if (!valid && rng.Chance(5)) {
      vlan = (u16)rng.Below(65536);
   }
   MacAddr mac = rng.Pick(kMacs);
   if (!valid && rng.Chance(5)) {
      mac = kGroupMac;
   }
   return Entry(flags, ip, prefix, vlan, mac);
}

std::vector<VigilWhiteListEntry> RandomList(Rng &rng, u32 size, bool valid) {
   std::vector<VigilWhiteListEntry> list;
   for (u32 i = 0; i < size; i++) {
      list.push_back(RandomEntry(rng, valid));
   }
   return list;
}

/* A list size: small ones often, any up to 300. */
u32 RandomSize(Rng &rng) {
   return rng.Chance(30) ? rng.Below(12) : rng.Below(301);
}

struct Frame {
   u32 kind;
   u16 vlan;
   bool hasMac;
   MacAddr mac;
   Addr addr;
   MacAddr sha;
   bool macsEqual;

   const u8 *MacArg() const { return hasMac ? mac.data() : nullptr; }
   const u8 *AddrArg() const { return kind == VIGIL_WDN_L2 ? nullptr : addr.data(); }
   std::string Describe() const {
      char text[160];
      snprintf(text, sizeof text,
               "kind %u vlan %u mac %s ..%02x addr %02x%02x%02x%02x:..%02x macsEqual %d",
               kind, vlan, hasMac ? "" : "null", mac[5], addr[0], addr[1], addr[2],
               addr[3], addr[15], (int)macsEqual);
      return text;
   }
};

/* A frame of a random kind (0 and 6 are no kind), most often shaped after
 * an entry of the list with one field changed or one address bit flipped. */
Frame RandomFrame(Rng &rng, const std::vector<VigilWhiteListEntry> &list) {
   Frame f{};
   f.kind = rng.Below(7);
   bool isV4 = f.kind == VIGIL_WDN_IPV4 || f.kind == VIGIL_WDN_ARP;
   if (!list.empty() && rng.Chance(75)) {
      const VigilWhiteListEntry &e = list[rng.Below((u32)list.size())];
      f.vlan = rng.Chance(80) ? e.vlan : rng.Pick(kVlans);
      memcpy(f.mac.data(), e.mac, 6);
      if (rng.Chance(15)) {
         f.mac = rng.Pick(kMacs);
      }
      memcpy(f.addr.data(), e.ip, 16);
      if (rng.Chance(40)) {
         FlipBit(rng, f.addr, isV4 ? 32 : 128);
      }
   } else {
      f.vlan = rng.Chance(90) ? rng.Pick(kVlans) : (u16)rng.Below(65536);
      f.mac = rng.Pick(kMacs);
      f.addr = isV4 ? RandomV4(rng) : RandomV6(rng);
   }
   /* An ARP frame always has a source MAC; other kinds may come without. */
   f.hasMac = f.kind == VIGIL_WDN_ARP || rng.Chance(85);
   f.macsEqual = f.kind == VIGIL_WDN_ARP && rng.Chance(70);
   f.sha = f.macsEqual ? f.mac : rng.Pick(kMacs);
   if (!f.macsEqual && f.sha == f.mac) {
      f.sha[5] ^= 0x40;
   }
   return f;
}

/* Where the index leaves the answer to the scan: a neighbor advertisement
 * target without a MAC, on a list with an entry that names a MAC and can
 * take part in an IPv6 check. */
bool IndexDeclines(const std::vector<VigilWhiteListEntry> &list, const Frame &f) {
   if (f.kind != VIGIL_WDN_ND || f.hasMac) {
      return false;
   }
   for (const VigilWhiteListEntry &e : list) {
      bool ipv4Only = (e.flags & (VIGIL_WL_IPV4 | VIGIL_WL_IPV6)) == VIGIL_WL_IPV4;
      if ((e.flags & VIGIL_WL_MAC) && !ipv4Only) {
         return true;
      }
   }
   return false;
}

std::string ListText(const std::vector<VigilWhiteListEntry> &list) {
   std::string text;
   for (size_t i = 0; i < list.size() && i < 40; i++) {
      const VigilWhiteListEntry &e = list[i];
      char line[160];
      snprintf(line, sizeof line,
               "  [%zu] flags %x vlan %u mac ..%02x ip %02x%02x%02x%02x:..%02x /%u\n", i,
               e.flags, e.vlan, e.mac[5], e.ip[0], e.ip[1], e.ip[2], e.ip[3], e.ip[15],
               e.prefixLen);
      text += line;
   }
   return text;
}

} // namespace

/* The index alone, in the module heap of the test's module. */
class WhiteListIndex : public VigilTest {};

TEST_F(WhiteListIndex, FindsTheScansFirstMatchOnRandomListsAndFrames) {
   u64 queries = 0;
   u64 answered = 0;
   u64 matchedLater = 0; /* matched at an index above 0 */
   u64 missed = 0;
   for (u32 seed : Seeds({1, 2, 3, 4, 5, 6, 7, 8})) {
      SCOPED_TRACE("VIGIL_WL_INDEX_SEED=" + std::to_string(seed));
      Rng rng(seed);
      for (int round = 0; round < 40; round++) {
         bool valid = rng.Chance(50);
         std::vector<VigilWhiteListEntry> list = RandomList(rng, RandomSize(rng), valid);
         VigilWhiteListIndex *index = nullptr;
         ASSERT_EQ(Vigil_BuildWhiteListIndex(list.data(), (u32)list.size(), &index),
                   ZEK_OK);
         ASSERT_NE(index, nullptr);
         EXPECT_TRUE(Vigil_WhiteListIndexCovers(index, list.data(), (u32)list.size()));
         /* Asked about another length of the list, the index does not answer. */
         u32 untouched = 0x12345678;
         Addr any = RandomV4(rng);
         EXPECT_FALSE(Vigil_WhiteListIndexMatch(index, list.data(), (u32)list.size() + 1, 0,
                                                kMacs[0].data(), any.data(), VIGIL_WDN_IPV4,
                                                false, &untouched));
         EXPECT_EQ(untouched, 0x12345678u);
         u32 failures = 0;
         for (int n = 0; n < 120 && failures < 3; n++) {
            Frame f = RandomFrame(rng, list);
            u32 scan = Vigil_ScanWhiteList(list.data(), (u32)list.size(), f.vlan,
                                           f.MacArg(), f.AddrArg(), f.kind, f.macsEqual);
            u32 found = 0x12345678;
            bool answers = Vigil_WhiteListIndexMatch(index, list.data(), (u32)list.size(), f.vlan, f.MacArg(), f.AddrArg(),
                                                     f.kind, f.macsEqual, &found);
            queries++;
            EXPECT_EQ(answers, !IndexDeclines(list, f))
               << "round " << round << " frame " << n << ": " << f.Describe();
            if (!answers) {
               EXPECT_EQ(found, 0x12345678u);
               continue;
            }
            answered++;
            if (found != scan) {
               failures++;
               ADD_FAILURE() << "round " << round << " frame " << n << ": "
                             << f.Describe() << ": index " << found << ", scan " << scan
                             << "\nlist of " << list.size() << ":\n"
                             << ListText(list);
            }
            matchedLater += scan != kNoMatch && scan > 0;
            missed += scan == kNoMatch;
         }
         Vigil_FreeWhiteListIndex(index);
      }
   }
   /* The lists and frames reach deep matches and misses, and the index
    * answers nearly everything itself. */
   if (getenv("VIGIL_WL_INDEX_SEED") == nullptr) {
      EXPECT_GT(matchedLater, queries / 5);
      EXPECT_GT(missed, queries / 5);
      EXPECT_GT(answered, queries * 95 / 100);
   }
}

/* IPv4 lists of one shape (one prefix length, VLAN or not, no MAC), of a
 * few such shapes, and of shapes where one names a MAC, with entries of the
 * other family or of no address mixed in: each IPv4 source and ARP sender
 * lookup, by either entry point, finds the scan's first match. */
TEST_F(WhiteListIndex, Ipv4LookupFindsTheScansFirstMatchWithOneShapeOrMany) {
   u64 queries = 0;
   u64 matchedLater = 0;
   u64 missed = 0;
   for (u32 seed : Seeds({11, 12, 13, 14, 15, 16})) {
      SCOPED_TRACE("VIGIL_WL_INDEX_SEED=" + std::to_string(seed));
      Rng rng(seed);
      for (int round = 0; round < 60; round++) {
         /* 0: one shape; 1: a few shapes, none with a MAC; 2: as 1 with
          * entries that take no part in the IPv4 view; 3: a MAC somewhere. */
         u32 mode = (u32)round % 4;
         bool valid = rng.Chance(70);
         u32 shapeFlags[3];
         u32 shapePrefix[3];
         u32 numShapes = mode == 0 ? 1 : 2 + rng.Below(2);
         for (u32 k = 0; k < numShapes; k++) {
            shapeFlags[k] = VIGIL_WL_IPV4 | (rng.Chance(40) ? VIGIL_WL_VLAN : 0u);
            shapePrefix[k] = rng.Chance(50) ? 32 : valid ? rng.Below(33) : rng.Below(70);
         }
         if (mode == 3) {
            shapeFlags[rng.Below(numShapes)] |= VIGIL_WL_MAC;
         }
         u32 size = 4 + (rng.Chance(30) ? rng.Below(8) : rng.Below(300));
         std::vector<VigilWhiteListEntry> list;
         for (u32 i = 0; i < size; i++) {
            if (mode == 2 && rng.Chance(15)) {
               /* An IPv6 entry, which may name a MAC, or a VLAN alone. */
               VigilWhiteListEntry e = RandomEntry(rng, true);
               if (e.flags & VIGIL_WL_IPV4) {
                  e.flags = (e.flags & ~(u32)VIGIL_WL_IPV4) | VIGIL_WL_IPV6;
               }
               if ((e.flags & VIGIL_WL_IPV6) == 0) {
                  e.flags = VIGIL_WL_VLAN;
               }
               list.push_back(e);
               continue;
            }
            u32 k = rng.Below(numShapes);
            /* Neighboring addresses, so that several entries share a
             * masked key and the first of them must win. */
            Addr ip = RandomV4(rng);
            ip[3] = (u8)rng.Below(8);
            list.push_back(Entry(shapeFlags[k], ip, shapePrefix[k], rng.Pick(kVlans),
                                 rng.Pick(kMacs)));
         }
         VigilWhiteListIndex *index = nullptr;
         ASSERT_EQ(Vigil_BuildWhiteListIndex(list.data(), (u32)list.size(), &index),
                   ZEK_OK);
         u32 failures = 0;
         for (int n = 0; n < 150 && failures < 3; n++) {
            Frame f = RandomFrame(rng, list);
            f.kind = rng.Chance(70) ? VIGIL_WDN_IPV4 : VIGIL_WDN_ARP;
            if (f.kind == VIGIL_WDN_ARP) {
               f.hasMac = true;
            } else {
               f.macsEqual = false;
            }
            u32 scan = Vigil_ScanWhiteList(list.data(), (u32)list.size(), f.vlan,
                                           f.MacArg(), f.AddrArg(), f.kind, f.macsEqual);
            u32 found = 0x12345678;
            ASSERT_TRUE(Vigil_WhiteListIndexMatch(index, list.data(), (u32)list.size(),
                                                  f.vlan, f.MacArg(), f.AddrArg(), f.kind,
                                                  f.macsEqual, &found));
            u32 foundIpv4 = found;
            if (f.kind == VIGIL_WDN_IPV4) {
               foundIpv4 = 0x12345678;
               ASSERT_TRUE(Vigil_WhiteListIndexMatchIpv4(index, list.data(),
                                                         (u32)list.size(), f.vlan,
                                                         f.MacArg(), f.AddrArg(),
                                                         &foundIpv4));
            }
            queries++;
            if (found != scan || foundIpv4 != scan) {
               failures++;
               ADD_FAILURE() << "mode " << mode << " round " << round << " frame " << n
                             << ": " << f.Describe() << ": index " << found << " / "
                             << foundIpv4 << ", scan " << scan << "\nlist of "
                             << list.size() << ":\n"
                             << ListText(list);
            }
            matchedLater += scan != kNoMatch && scan > 0;
            missed += scan == kNoMatch;
         }
         /* Asked about another list, the IPv4 entry point does not answer. */
         u32 untouched = 0x12345678;
         Addr any = RandomV4(rng);
         EXPECT_FALSE(Vigil_WhiteListIndexMatchIpv4(index, list.data(),
                                                    (u32)list.size() + 1, 0,
                                                    kMacs[0].data(), any.data(),
                                                    &untouched));
         EXPECT_FALSE(Vigil_WhiteListIndexMatchIpv4(index, list.data(), (u32)list.size(),
                                                    0, kMacs[0].data(), nullptr,
                                                    &untouched));
         EXPECT_EQ(untouched, 0x12345678u);
         Vigil_FreeWhiteListIndex(index);
      }
   }
   if (getenv("VIGIL_WL_INDEX_SEED") == nullptr) {
      EXPECT_GT(matchedLater, queries / 5);
      EXPECT_GT(missed, queries / 10);
   }
}

TEST_F(WhiteListIndex, EmptyListMatchesNothingForEveryKind) {
   VigilWhiteListIndex *index = nullptr;
   ASSERT_EQ(Vigil_BuildWhiteListIndex(nullptr, 0, &index), ZEK_OK);
   Addr addr = V6("2001:db8::1");
   MacAddr mac = kMacs[0];
   for (u32 kind = 0; kind <= 6; kind++) {
      u32 found = 0;
      EXPECT_TRUE(Vigil_WhiteListIndexMatch(index, nullptr, 0, 0, mac.data(), addr.data(), kind,
                                            true, &found))
         << kind;
      EXPECT_EQ(found, kNoMatch) << kind;
   }
   Vigil_FreeWhiteListIndex(index);
}

TEST_F(WhiteListIndex, NeighborTargetWithoutMacIsLeftToTheScanOnlyWhenAnEntryNamesAMac) {
   Addr target = V6("2001:db8::5");
   std::vector<VigilWhiteListEntry> noMac = {
      Entry(VIGIL_WL_IPV4, V4("192.0.2.1"), 32, 0, kMacs[0]),
      Entry(VIGIL_WL_IPV6, V6("2001:db8::"), 64)};
   std::vector<VigilWhiteListEntry> withMac = {
      Entry(VIGIL_WL_IPV6 | VIGIL_WL_MAC, V6("2001:db8::"), 64, 0, kMacs[1]),
      Entry(VIGIL_WL_IPV6, V6("2001:db8::"), 64)};
   VigilWhiteListIndex *index = nullptr;
   u32 found = 0x12345678;

   ASSERT_EQ(Vigil_BuildWhiteListIndex(noMac.data(), 2, &index), ZEK_OK);
   EXPECT_TRUE(Vigil_WhiteListIndexMatch(index, noMac.data(), 2, 0, nullptr, target.data(), VIGIL_WDN_ND,
                                         false, &found));
   EXPECT_EQ(found, 1u);
   Vigil_FreeWhiteListIndex(index);

   ASSERT_EQ(Vigil_BuildWhiteListIndex(withMac.data(), 2, &index), ZEK_OK);
   found = 0x12345678;
   EXPECT_FALSE(Vigil_WhiteListIndexMatch(index, withMac.data(), 2, 0, nullptr, target.data(), VIGIL_WDN_ND,
                                          false, &found));
   EXPECT_EQ(found, 0x12345678u);
   /* The scan passes the MAC test of the first entry. */
   EXPECT_EQ(Vigil_ScanWhiteList(withMac.data(), 2, 0, nullptr, target.data(), VIGIL_WDN_ND,
                                 false),
             0u);
   /* With the target's MAC the index answers. */
   EXPECT_TRUE(Vigil_WhiteListIndexMatch(index, withMac.data(), 2, 0, kMacs[0].data(), target.data(),
                                         VIGIL_WDN_ND, false, &found));
   EXPECT_EQ(found, 1u);
   Vigil_FreeWhiteListIndex(index);
}

/* ------------------------------------------- the index in configuration */

class WhiteListIndexConfig : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      ASSERT_TRUE(sim::AddPort("vs0", kPort));
      ASSERT_EQ(Vigil_CreateFilter(sim::FindPortset("vs0"), kPort, &filter), ZEK_OK);
      LogTexts();
      sim::TakeObservations();
      memset(meta, 0x5a, sizeof meta);
   }

   void TearDown() override {
      sim::FaultClear();
      if (Vigil_GetPortFilter(kPort) != nullptr) {
         EXPECT_EQ(Vigil_CleanupFilter(sim::FindPortset("vs0"), kPort, nullptr), ZEK_OK);
      }
      VigilTest::TearDown();
   }

   zek_Status Configure(const blobs::Security &security) {
      return ConfigureSecurity(filter, security.Build());
   }

   u64 LiveAllocations() { return sim::GetHeapStats(heapID).allocations; }

   /* What one check shows: its verdict, the lines it logs and the records it
    * sends.  Each check starts with a fresh throttle window, so that both
    * runs of a comparison log in full. */
   struct Outcome {
      u32 verdict;
      std::vector<std::string> logs;
      std::vector<sim::Observation> records;
   };
   Outcome Check(const Frame &f, u32 obsvFlags) {
      vigilThrottleArg.count = 0;
      vigilThrottleArg.suppressed = 0;
      Outcome out;
      out.verdict = WithReadHold(kPort, [&] {
         return VigilWarden(filter, f.vlan, f.MacArg(), f.AddrArg(),
                            f.kind == VIGIL_WDN_ARP ? f.sha.data() : nullptr, f.kind,
                            meta, obsvFlags);
      });
      out.logs = LogTexts();
      out.records = sim::TakeObservations();
      return out;
   }

   /* The same check with the indexes taken away for its length: the scan. */
   Outcome CheckByScan(const Frame &f, u32 obsvFlags) {
      VigilWhiteListIndex *switchIndex = filter->switchWhiteListIndex;
      VigilWhiteListIndex *portIndex = filter->portWhiteListIndex;
      filter->switchWhiteListIndex = nullptr;
      filter->portWhiteListIndex = nullptr;
      Outcome out = Check(f, obsvFlags);
      filter->switchWhiteListIndex = switchIndex;
      filter->portWhiteListIndex = portIndex;
      return out;
   }

   static void ExpectSame(const Outcome &byIndex, const Outcome &byScan,
                          const std::string &what) {
      EXPECT_EQ(byIndex.verdict, byScan.verdict) << what;
      EXPECT_EQ(byIndex.logs, byScan.logs) << what;
      ASSERT_EQ(byIndex.records.size(), byScan.records.size()) << what;
      for (size_t i = 0; i < byIndex.records.size(); i++) {
         EXPECT_EQ(byIndex.records[i].isDrop, byScan.records[i].isDrop) << what;
         EXPECT_EQ(byIndex.records[i].raw, byScan.records[i].raw) << what;
      }
   }

   VigilFilter *filter = nullptr;
   u8 meta[16];
};

TEST_F(WhiteListIndexConfig, WardenWithTheIndexGivesTheScansVerdictLinesAndRecords) {
   u64 checks = 0;
   u64 drops = 0;
   u64 outputRecords = 0;
   for (u32 seed : Seeds({11, 12, 13})) {
      SCOPED_TRACE("VIGIL_WL_INDEX_SEED=" + std::to_string(seed));
      Rng rng(seed);
      for (int round = 0; round < 12; round++) {
         blobs::Security security;
         security.features = VIGIL_FEAT_PORT_WARDEN;
         security.portList = RandomList(rng, VIGIL_WL_INDEX_MIN_ENTRIES + rng.Below(297), true);
         if (rng.Chance(50)) {
            security.features |= VIGIL_FEAT_SWITCH_WARDEN;
            /* A switch list that lets most frames on to the port list. */
            security.switchList = RandomList(rng, VIGIL_WL_INDEX_MIN_ENTRIES + rng.Below(40),
                                             true);
            security.switchList.push_back(Entry(VIGIL_WL_VLAN, {}, 0, 0));
            for (u16 vlan : kVlans) {
               security.switchList.push_back(Entry(VIGIL_WL_VLAN, {}, 0, vlan));
            }
         }
         ASSERT_EQ(Configure(security), ZEK_OK);
         LogTexts();
         ASSERT_NE(filter->portWhiteListIndex, nullptr);
         EXPECT_EQ(filter->switchWhiteListIndex != nullptr,
                   (security.features & VIGIL_FEAT_SWITCH_WARDEN) != 0);
         for (int n = 0; n < 40; n++) {
            Frame f = RandomFrame(rng, security.portList);
            if (f.kind == VIGIL_WDN_ARP && !f.hasMac) {
               continue;
            }
            u32 obsvFlags = rng.Below(4);
            Outcome byIndex = Check(f, obsvFlags);
            Outcome byScan = CheckByScan(f, obsvFlags);
            ExpectSame(byIndex, byScan,
                       "round " + std::to_string(round) + " frame " + std::to_string(n) +
                          ": " + f.Describe());
            checks++;
            drops += byIndex.verdict == VIGIL_ACTION_DROP;
            for (const sim::Observation &record : byIndex.records) {
               outputRecords += !record.isDrop && record.raw.size() == 36 && record.raw[0] == 0 &&
                                record.raw[8] != 0;
            }
         }
      }
   }
   if (getenv("VIGIL_WL_INDEX_SEED") == nullptr) {
      EXPECT_GT(drops, checks / 10);
      EXPECT_GT(checks - drops, checks / 4);
      EXPECT_GT(outputRecords, checks / 10);
   }
}

TEST_F(WhiteListIndexConfig, ListsOfFourOrMoreGetAnIndexThatGoesWithTheirList) {
   const VigilWhiteListEntry v4 = Entry(VIGIL_WL_IPV4, V4("192.0.2.10"), 32);
   blobs::Security three;
   three.features = VIGIL_FEAT_PORT_WARDEN;
   three.portList = {v4, v4, v4};
   blobs::Security four = three;
   four.portList.push_back(v4);
   four.features |= VIGIL_FEAT_SWITCH_WARDEN;
   four.switchList = {v4, v4, v4, v4, v4};
   u64 base = LiveAllocations();

   ASSERT_EQ(Configure(three), ZEK_OK);
   EXPECT_EQ(filter->portWhiteListIndex, nullptr);
   EXPECT_EQ(filter->switchWhiteListIndex, nullptr);
   EXPECT_EQ(LiveAllocations(), base + 1);

   ASSERT_EQ(Configure(four), ZEK_OK);
   ASSERT_NE(filter->portWhiteListIndex, nullptr);
   ASSERT_NE(filter->switchWhiteListIndex, nullptr);
   EXPECT_TRUE(Vigil_WhiteListIndexCovers(filter->portWhiteListIndex, filter->portWhiteList, 4));
   EXPECT_TRUE(
      Vigil_WhiteListIndexCovers(filter->switchWhiteListIndex, filter->switchWhiteList, 5));
   /* Two lists, two indexes; the old list went back to the heap. */
   EXPECT_EQ(LiveAllocations(), base + 4);

   /* The same blob again replaces both lists and both indexes. */
   ASSERT_EQ(Configure(four), ZEK_OK);
   EXPECT_EQ(LiveAllocations(), base + 4);

   /* With the port warden off the port list and its index are gone. */
   blobs::Security off = four;
   off.features = VIGIL_FEAT_SWITCH_WARDEN;
   ASSERT_EQ(Configure(off), ZEK_OK);
   EXPECT_EQ(filter->portWhiteListIndex, nullptr);
   EXPECT_NE(filter->switchWhiteListIndex, nullptr);
   EXPECT_EQ(LiveAllocations(), base + 2);

   /* Destroying the filter frees the rest (the closing check sees an empty
    * heap). */
   ASSERT_EQ(Configure(four), ZEK_OK);
   EXPECT_EQ(Vigil_CleanupFilter(sim::FindPortset("vs0"), kPort, nullptr), ZEK_OK);
}

TEST_F(WhiteListIndexConfig, FailedIndexAllocationKeepsTheConfigurationAndItsVerdicts) {
   blobs::Security security;
   security.features = VIGIL_FEAT_PORT_WARDEN;
   security.portList = {
      Entry(VIGIL_WL_IPV4 | VIGIL_WL_MAC, V4("192.0.2.10"), 32, 0, kMacs[0]),
      Entry(VIGIL_WL_IPV4, V4("198.51.100.0"), 24),
      Entry(VIGIL_WL_IPV6, V6("2001:db8::"), 64),
      Entry(VIGIL_WL_VLAN, {}, 0, 7),
   };
   ASSERT_EQ(Configure(security), ZEK_OK);
   std::vector<std::string> linesWithIndex = LogTexts();
   ASSERT_NE(filter->portWhiteListIndex, nullptr);
   u64 live = LiveAllocations();

   /* The list copy is the first allocation, the index the second. */
   sim::FaultAlloc(2);
   ASSERT_EQ(Configure(security), ZEK_OK);
   EXPECT_EQ(filter->portWhiteListIndex, nullptr);
   EXPECT_EQ(filter->portWhiteListSize, 4u);
   EXPECT_EQ(LogTexts(), linesWithIndex);
   EXPECT_EQ(LiveAllocations(), live - 1);

   Frame allowed{VIGIL_WDN_IPV4, 0, true, kMacs[0], V4("192.0.2.10"), {}, false};
   Frame otherMac = allowed;
   otherMac.mac = kMacs[1];
   Frame inNet{VIGIL_WDN_IPV4, 3, true, kMacs[1], V4("198.51.100.77"), {}, false};
   Frame onVlan7{VIGIL_WDN_L2, 7, true, kMacs[2], {}, {}, false};
   Frame v6Out{VIGIL_WDN_IPV6, 0, true, kMacs[0], V6("2001:db9::1"), {}, false};
   EXPECT_EQ(Check(allowed, 0).verdict, VIGIL_ACTION_FORWARD);
   EXPECT_EQ(Check(otherMac, 0).verdict, VIGIL_ACTION_DROP);
   EXPECT_EQ(Check(inNet, 0).verdict, VIGIL_ACTION_FORWARD);
   EXPECT_EQ(Check(onVlan7, 0).verdict, VIGIL_ACTION_FORWARD);
   Outcome dropped = Check(v6Out, 0);
   EXPECT_EQ(dropped.verdict, VIGIL_ACTION_DROP);
   EXPECT_EQ(dropped.logs, (std::vector<std::string>{
                              "Filter 0x10 [P]DROP wdnType 2 vlan 0 mac 02:00:00:00:00:10",
                              "Filter 0x10 [P]DROP v6: 2001:db9:0:0:0:0:0:1"}));

   /* The next configuration that can make one has an index again. */
   ASSERT_EQ(Configure(security), ZEK_OK);
   EXPECT_NE(filter->portWhiteListIndex, nullptr);
   EXPECT_EQ(LiveAllocations(), live);
}

TEST_F(WhiteListIndexConfig, ListPutInPlaceOfTheConfiguredOneIsScanned) {
   blobs::Security security;
   security.features = VIGIL_FEAT_PORT_WARDEN;
   for (u8 i = 0; i < 8; i++) {
      Addr addr = V4("198.51.100.0");
      addr[3] = i;
      security.portList.push_back(Entry(VIGIL_WL_IPV4, addr, 32));
   }
   ASSERT_EQ(Configure(security), ZEK_OK);
   ASSERT_NE(filter->portWhiteListIndex, nullptr);
   Frame f{VIGIL_WDN_IPV4, 0, true, kMacs[0], V4("192.0.2.10"), {}, false};
   EXPECT_EQ(Check(f, 0).verdict, VIGIL_ACTION_DROP);

   /* Another list of the same length, in place without configuration: the
    * index, made for the old list, is not used for it. */
   std::vector<VigilWhiteListEntry> other = security.portList;
   other[5] = Entry(VIGIL_WL_IPV4, V4("192.0.2.10"), 32);
   VigilWhiteListEntry *configured = filter->portWhiteList;
   filter->portWhiteList = other.data();
   u32 matchIndex = 0;
   u32 verdict = WithReadHold(kPort, [&] {
      return WardenMatchWL(filter, filter->portWhiteList, 8, 0, kMacs[0].data(),
                           f.addr.data(), nullptr, VIGIL_WDN_IPV4, false, "P", &matchIndex);
   });
   filter->portWhiteList = configured;
   EXPECT_EQ(verdict, VIGIL_ACTION_FORWARD);
   EXPECT_EQ(matchIndex, 5u);
}

/* The transmit pipeline judges an IPv4 source through the warden's IPv4
 * entry: on random lists of any size (with and without an index), with the
 * switch list on or off, traced or not, it gives what the warden gives for
 * that kind with both observations asked for. */
TEST_F(WhiteListIndexConfig, Ipv4EntryGivesTheWardensVerdictLinesAndRecords) {
   u64 checks = 0;
   u64 drops = 0;
   for (u32 seed : Seeds({21, 22, 23})) {
      SCOPED_TRACE("VIGIL_WL_INDEX_SEED=" + std::to_string(seed));
      Rng rng(seed);
      for (int round = 0; round < 12; round++) {
         blobs::Security security;
         security.features = VIGIL_FEAT_PORT_WARDEN;
         security.portList = RandomList(rng, RandomSize(rng), true);
         if (rng.Chance(50)) {
            security.features |= VIGIL_FEAT_SWITCH_WARDEN;
            security.switchList = RandomList(rng, rng.Below(40), true);
            security.switchList.push_back(Entry(VIGIL_WL_VLAN, {}, 0, 0));
            for (u16 vlan : kVlans) {
               security.switchList.push_back(Entry(VIGIL_WL_VLAN, {}, 0, vlan));
            }
         }
         ASSERT_EQ(Configure(security), ZEK_OK);
         LogTexts();
         for (int n = 0; n < 40; n++) {
            Frame f = RandomFrame(rng, security.portList);
            f.kind = VIGIL_WDN_IPV4;
            const u8 *metaArg = rng.Chance(50) ? meta : nullptr;
            auto run = [&](bool byEntry) {
               vigilThrottleArg.count = 0;
               vigilThrottleArg.suppressed = 0;
               Outcome out;
               out.verdict = WithReadHold(kPort, [&] {
                  return byEntry ? VigilWardenIpv4(filter, f.vlan, f.MacArg(), f.addr.data(),
                                                   metaArg)
                                 : VigilWarden(filter, f.vlan, f.MacArg(), f.addr.data(),
                                               nullptr, VIGIL_WDN_IPV4, metaArg, 3);
               });
               out.logs = LogTexts();
               out.records = sim::TakeObservations();
               return out;
            };
            Outcome byEntry = run(true);
            Outcome byWarden = run(false);
            ExpectSame(byEntry, byWarden,
                       "round " + std::to_string(round) + " frame " + std::to_string(n) +
                          ": " + f.Describe());
            checks++;
            drops += byWarden.verdict == VIGIL_ACTION_DROP;
         }
      }
   }
   if (getenv("VIGIL_WL_INDEX_SEED") == nullptr) {
      EXPECT_GT(drops, checks / 10);
      EXPECT_GT(checks - drops, checks / 10);
   }
}
