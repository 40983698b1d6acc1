/*
 * Address enforcement: the white-list scan, the warden's verdicts, its drop
 * lines and Pathprobe records, the IPv6 transmit check, and the warden as
 * the transmit pipeline reaches it.
 */
#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "config_blobs.h"
#include "test_frames.h"
#include "vigil_test.h"
#include "vigil_warden.h"

namespace {

/* The white list match, with the filter held for read as a batch holds it. */
template <typename... Args> u32 MatchWL(VigilFilter *filter, Args... args) {
   return WithReadHold(filter->portID, [&] { return WardenMatchWL(filter, args...); });
}

constexpr u32 kPort = 0x10;
constexpr u16 kVlan = 5;
constexpr u16 kOtherVlan = 6;

using blobs::Addr;
using blobs::Entry;
using blobs::Mac;
using blobs::MacAddr;
using blobs::V4;
using blobs::V6;

const MacAddr kVm = Mac("02:00:00:00:00:10");
const MacAddr kOtherMac = Mac("02:00:00:00:00:11");
const MacAddr kSenderMac = Mac("02:00:00:00:00:20");

void PutLe32(std::vector<u8> &raw, size_t at, u32 value) {
   for (int i = 0; i < 4; i++) {
      raw[at + i] = (u8)(value >> (8 * i));
   }
}

/* The 36-byte input record: direction 1, the port, nothing else. */
std::vector<u8> InputRecord(u32 portID) {
   std::vector<u8> raw(36, 0);
   PutLe32(raw, 0, 1);
   PutLe32(raw, 4, portID);
   return raw;
}

/* The 36-byte output record of a frame the port list let through. */
std::vector<u8> OutputRecord(u32 portID, const VigilWhiteListEntry *matched,
                             u32 kind) {
   std::vector<u8> raw(36, 0);
   PutLe32(raw, 0, 0);
   PutLe32(raw, 4, portID);
   if (matched == nullptr) {
      return raw;
   }
   raw[8] = 0x03;
   PutLe32(raw, 9, matched->vlan);
   memcpy(&raw[13], matched->mac, 6);
   if (kind == 2 || kind == 5) {
      memcpy(&raw[19], matched->ip, 16);
      raw[35] = (u8)matched->prefixLen;
      raw[8] = 0x07;
   } else if (kind == 1 || kind == 3) {
      memcpy(&raw[19], matched->ip, 4);
      raw[35] = (u8)matched->prefixLen;
      raw[8] = 0x0f;
   }
   return raw;
}

/* The 97-byte logical drop record. */
std::vector<u8> DropRecord(u32 portID) {
   std::vector<u8> raw(97, 0);
   PutLe32(raw, 0, 6);
   PutLe32(raw, 4, 6);
   PutLe32(raw, 85, portID);
   return raw;
}

struct Seen {
   bool isDrop;
   std::vector<u8> raw;
   bool operator==(const Seen &other) const {
      return isDrop == other.isDrop && raw == other.raw;
   }
};

std::ostream &operator<<(std::ostream &os, const Seen &seen) {
   os << (seen.isDrop ? "drop[" : "io[");
   for (size_t i = 0; i < seen.raw.size(); i++) {
      char hex[4];
      snprintf(hex, sizeof hex, "%02x", seen.raw[i]);
      os << (i ? " " : "") << hex;
   }
   return os << "]";
}

/* ------------------------------------------------ the reference rules */

u32 Be32(const u8 *p) {
   return ((u32)p[0] << 24) | ((u32)p[1] << 16) | ((u32)p[2] << 8) | (u32)p[3];
}

bool RefIpv4(const VigilWhiteListEntry &entry, const u8 *addr) {
   bool hasV4 = (entry.flags & VIGIL_WL_IPV4) != 0;
   bool hasV6 = (entry.flags & VIGIL_WL_IPV6) != 0;
   if (!hasV4) {
      return !hasV6;
   }
   u32 mask = 0;
   if (entry.prefixLen != 0) {
      long long lowZeros = ((32LL - (long long)entry.prefixLen) % 32 + 32) % 32;
      mask = (u32)(0xffffffffULL << lowZeros);
   }
   return (Be32(addr) & mask) == (Be32(entry.ip) & mask);
}

bool RefIpv6(const VigilWhiteListEntry &entry, const u8 *addr) {
   bool hasV4 = (entry.flags & VIGIL_WL_IPV4) != 0;
   bool hasV6 = (entry.flags & VIGIL_WL_IPV6) != 0;
   if (!hasV6) {
      return !hasV4;
   }
   long long prefix = entry.prefixLen > 128 ? 128 : entry.prefixLen;
   for (int word = 0; word < 4; word++) {
      long long bits = prefix - 32LL * word;
      if (bits < 0) {
         bits = 0;
      }
      if (bits > 32) {
         bits = 32;
      }
      u32 mask = bits == 0 ? 0u : (u32)(0xffffffffULL << (32 - bits));
      if ((Be32(addr + 4 * word) & mask) != (Be32(entry.ip + 4 * word) & mask)) {
         return false;
      }
   }
   return true;
}

bool RefVlan(const VigilWhiteListEntry &entry, u16 vlan) {
   return !(entry.flags & VIGIL_WL_VLAN) || entry.vlan == vlan;
}

bool RefMac(const VigilWhiteListEntry &entry, const u8 *mac) {
   if (!(entry.flags & VIGIL_WL_MAC)) {
      return true;
   }
   return mac != nullptr && memcmp(entry.mac, mac, 6) == 0;
}

bool RefArpMac(const VigilWhiteListEntry &entry, const u8 *mac, bool macsEqual) {
   if (!(entry.flags & VIGIL_WL_MAC)) {
      return true;
   }
   return macsEqual && memcmp(entry.mac, mac, 6) == 0;
}

bool RefMatch(const VigilWhiteListEntry &entry, u32 kind, u16 vlan, const u8 *mac,
              const u8 *addr, bool macsEqual) {
   switch (kind) {
   case 1:
      return RefIpv4(entry, addr) && RefVlan(entry, vlan) && RefMac(entry, mac);
   case 2:
      return RefIpv6(entry, addr) && RefVlan(entry, vlan) && RefMac(entry, mac);
   case 3:
      return RefArpMac(entry, mac, macsEqual) && RefIpv4(entry, addr) &&
             RefVlan(entry, vlan);
   case 4:
      return RefVlan(entry, vlan) && RefMac(entry, mac);
   case 5:
      return RefIpv6(entry, addr) && RefVlan(entry, vlan) &&
             (mac == nullptr || RefMac(entry, mac));
   default:
      return false;
   }
}

/* Entry address and probe address pairs that differ in high, low and
 * middle bits, so that the prefix length decides. */
struct AddrPair {
   Addr entry;
   Addr probe;
};

std::vector<AddrPair> V4Pairs() {
   return {
      {V4("192.0.2.10"), V4("192.0.2.10")},      /* equal */
      {V4("192.0.2.10"), V4("192.0.2.11")},      /* last bit */
      {V4("192.0.2.10"), V4("198.51.100.10")},   /* sixth bit */
      {V4("198.51.100.128"), V4("198.51.100.0")}, /* bit 24 */
      {V4("198.51.100.1"), V4("192.0.2.1")},     /* first octet and middle */
   };
}

std::vector<AddrPair> V6Pairs() {
   return {
      {V6("2001:db8::1"), V6("2001:db8::1")},             /* equal */
      {V6("2001:db8::1"), V6("2001:db8::")},              /* last bit */
      {V6("2001:db8::"), V6("2001:db8:8000::")},          /* bit 32 */
      {V6("2001:db8:0:1::"), V6("2001:db8:0:2::")},       /* bits 62, 63 */
      {V6("2001:db8::1:0:0:0"), V6("2001:db8::8001:0:0:0")}, /* bit 64 */
   };
}

std::string Describe(u32 kind, const VigilWhiteListEntry &entry, u16 vlan,
                     const u8 *mac, const Addr &probe, bool macsEqual) {
   std::ostringstream os;
   char ip[64] = "-";
   char entryIp[64] = "-";
   if (kind == 1 || kind == 3) {
      inet_ntop(AF_INET, probe.data(), ip, sizeof ip);
      inet_ntop(AF_INET, entry.ip, entryIp, sizeof entryIp);
   } else if (kind == 2 || kind == 5) {
      inet_ntop(AF_INET6, probe.data(), ip, sizeof ip);
      inet_ntop(AF_INET6, entry.ip, entryIp, sizeof entryIp);
   }
   os << "kind " << kind << " entry{flags " << entry.flags << " ip " << entryIp
      << "/" << entry.prefixLen << " vlan " << entry.vlan << " mac ..."
      << std::hex << (int)entry.mac[5] << std::dec << "} probe{vlan " << vlan
      << " mac " << (mac ? std::to_string(mac[5]) : std::string("null")) << " ip "
      << ip << " macsEqual " << macsEqual << "}";
   return os.str();
}

} // namespace

class WardenTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      filter = AddFilter(kPort);
      sim::TakeLogs();
      sim::TakeObservations();
      memset(meta, 0xa5, sizeof meta);
   }

   void SetPortList(const std::vector<VigilWhiteListEntry> &entries) {
      portList_ = entries;
      filter->portWhiteList = portList_.empty() ? nullptr : portList_.data();
      filter->portWhiteListSize = (u32)portList_.size();
   }
   void SetSwitchList(const std::vector<VigilWhiteListEntry> &entries) {
      switchList_ = entries;
      filter->switchWhiteList = switchList_.empty() ? nullptr : switchList_.data();
      filter->switchWhiteListSize = (u32)switchList_.size();
   }

   u32 Warden(u16 vlan, const u8 *mac, const u8 *addr, const u8 *sha, u32 kind,
              const u8 *ppMetadata, u32 obsvFlags) {
      return WithReadHold(filter->portID, [&] {
         return VigilWarden(filter, vlan, mac, addr, sha, kind, ppMetadata, obsvFlags);
      });
   }

   /* The observations since the last call; each must name our metadata. */
   std::vector<Seen> Observed(const void *expectedMeta = nullptr) {
      std::vector<Seen> seen;
      for (const sim::Observation &obsv : sim::TakeObservations()) {
         EXPECT_EQ(obsv.metadata, expectedMeta == nullptr ? meta : expectedMeta);
         seen.push_back({obsv.isDrop, obsv.raw});
      }
      return seen;
   }

   /* Lines on the throttled log since the last look (the warden writes
    * nothing else; world lines are left out). */
   static size_t TakeThrottledLines() {
      size_t n = 0;
      for (const sim::LogLine &line : sim::TakeLogs()) {
         n += line.log == "vigil.throttle";
      }
      return n;
   }

   VigilFilter *filter = nullptr;
   u8 meta[16];

private:
   std::vector<VigilWhiteListEntry> portList_;
   std::vector<VigilWhiteListEntry> switchList_;
};

/* ------------------------------------------------ WardenMatchWL tables */

TEST_F(WardenTest, MatchOfOneEntryFollowsTheRulesForEveryKindFlagSetAndPrefix) {
   const u32 kinds[] = {0, 1, 2, 3, 4, 5, 6, 255};
   const u32 prefixes[] = {0, 1, 31, 32, 33, 64, 127, 128, 129, 200};
   const u16 vlans[] = {kVlan, kOtherVlan};
   const std::vector<AddrPair> v4 = V4Pairs();
   const std::vector<AddrPair> v6 = V6Pairs();
   const std::vector<AddrPair> none = {{V4("192.0.2.10"), V4("192.0.2.10")}};
   u32 failures = 0;
   u32 matches[256] = {0};
   u32 misses[256] = {0};

   for (u32 kind : kinds) {
      const std::vector<AddrPair> &pairs =
         (kind == 1 || kind == 3) ? v4 : (kind == 2 || kind == 5) ? v6 : none;
      for (u32 flags = 0; flags < 16; flags++) {
         for (u32 prefix : prefixes) {
            for (const AddrPair &pair : pairs) {
               VigilWhiteListEntry entry = Entry(flags, pair.entry, prefix, kVlan, kVm);
               for (u16 vlan : vlans) {
                  for (int macChoice = 0; macChoice < 3; macChoice++) {
                     const u8 *mac = macChoice == 0   ? kVm.data()
                                     : macChoice == 1 ? kOtherMac.data()
                                                      : nullptr;
                     if (kind == 3 && mac == nullptr) {
                        continue; /* an ARP frame always has a source MAC */
                     }
                     for (bool macsEqual : {true, false}) {
                        const u8 *sha = macsEqual && mac != nullptr ? mac
                                                                    : kSenderMac.data();
                        const u8 *addr = kind == 4 ? nullptr : pair.probe.data();
                        bool expect = RefMatch(entry, kind, vlan, mac, addr, macsEqual);
                        u32 index = 0x12345678;
                        u32 result = MatchWL(filter, &entry, 1, vlan, mac, addr,
                                                   sha, kind, macsEqual, "P", &index);
                        size_t lines = TakeThrottledLines();
                        size_t expectLines = expect ? 0
                                             : (kind >= 1 && kind <= 5 && kind != 4)
                                                ? 2
                                                : 1;
                        bool ok = result == (expect ? 2u : 1u) &&
                                  index == (expect ? 0u : 0xffffffffu) &&
                                  lines == expectLines;
                        (expect ? matches : misses)[kind]++;
                        if (!ok) {
                           ADD_FAILURE()
                              << Describe(kind, entry, vlan, mac, pair.probe, macsEqual)
                              << ": expected " << (expect ? "match" : "no match")
                              << ", got result " << result << " index " << index
                              << " with " << lines << " log lines";
                           if (++failures >= 20) {
                              return;
                           }
                        }
                     }
                  }
               }
            }
         }
      }
   }
   for (u32 kind = 1; kind <= 5; kind++) {
      EXPECT_GT(matches[kind], 0u) << "kind " << kind;
      EXPECT_GT(misses[kind], 0u) << "kind " << kind;
   }
   EXPECT_EQ(matches[0] + matches[6] + matches[255], 0u);
}

TEST_F(WardenTest, FirstMatchingEntryWinsInRandomLists) {
   std::mt19937 rng(20240611);
   const std::vector<AddrPair> v4 = V4Pairs();
   const std::vector<AddrPair> v6 = V6Pairs();
   const u32 prefixes[] = {0, 1, 31, 32, 33, 64, 127, 128, 129, 200};
   const MacAddr macs[] = {kVm, kOtherMac};
   u32 failures = 0;
   u32 byIndex[6] = {0};
   for (int round = 0; round < 4000; round++) {
      u32 kind = 1 + rng() % 5;
      bool isV4 = kind == 1 || kind == 3;
      const std::vector<AddrPair> &pairs = isV4 ? v4 : v6;
      std::vector<VigilWhiteListEntry> list;
      u32 size = rng() % 6;
      for (u32 i = 0; i < size; i++) {
         const AddrPair &pair = pairs[rng() % pairs.size()];
         list.push_back(Entry(rng() % 16, rng() % 2 ? pair.entry : pair.probe,
                              prefixes[rng() % 10], rng() % 2 ? kVlan : kOtherVlan,
                              macs[rng() % 2]));
      }
      u16 vlan = rng() % 2 ? kVlan : kOtherVlan;
      const u8 *mac = macs[rng() % 2].data();
      if (kind != 3 && rng() % 4 == 0) {
         mac = nullptr;
      }
      bool macsEqual = rng() % 2;
      const u8 *sha = macsEqual ? mac : kSenderMac.data();
      Addr probe = pairs[rng() % pairs.size()].probe;
      const u8 *addr = kind == 4 ? nullptr : probe.data();

      u32 expectIndex = 0xffffffffu;
      for (u32 i = 0; i < size; i++) {
         if (RefMatch(list[i], kind, vlan, mac, addr, macsEqual)) {
            expectIndex = i;
            break;
         }
      }
      u32 index = 0x12345678;
      u32 result = MatchWL(filter, list.empty() ? nullptr : list.data(), size,
                                 vlan, mac, addr, sha, kind, macsEqual, "S", &index);
      sim::TakeLogs();
      byIndex[expectIndex == 0xffffffffu ? 5 : expectIndex]++;
      if (result != (expectIndex == 0xffffffffu ? 1u : 2u) || index != expectIndex) {
         ADD_FAILURE() << "round " << round << " kind " << kind << " size " << size
                       << ": expected index " << expectIndex << ", got result "
                       << result << " index " << index;
         if (++failures >= 20) {
            return;
         }
      }
   }
   /* The lists exercised matches at several positions and misses. */
   for (u32 i = 0; i < 3; i++) {
      EXPECT_GT(byIndex[i], 0u) << "index " << i;
   }
   EXPECT_GT(byIndex[5], 0u);
}

TEST_F(WardenTest, EmptyListMatchesNothingAndLogsTheDrop) {
   Addr ip = V4("192.0.2.10");
   u32 index = 7;
   EXPECT_EQ(MatchWL(filter, nullptr, 0, kVlan, kVm.data(), ip.data(), nullptr,
                           1, false, "P", &index),
             1u);
   EXPECT_EQ(index, 0xffffffffu);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 1 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v4: 192.0.2.10"}));
}

TEST_F(WardenTest, OddIpv4PrefixLengthsTakeTheShiftModuloThirtyTwo) {
   Addr entryIp = V4("192.0.2.10");
   auto match = [&](u32 prefix, const char *probe) {
      VigilWhiteListEntry entry = Entry(VIGIL_WL_IPV4, entryIp, prefix);
      Addr addr = V4(probe);
      u32 index;
      u32 result = MatchWL(filter, &entry, 1, 0, kVm.data(), addr.data(),
                                 nullptr, 1, false, "P", &index);
      sim::TakeLogs();
      return result == 2;
   };
   /* 33: only the top bit counts. */
   EXPECT_TRUE(match(33, "198.51.100.77"));
   /* 64: like 32. */
   EXPECT_TRUE(match(64, "192.0.2.10"));
   EXPECT_FALSE(match(64, "192.0.2.11"));
   /* 200: the top eight bits. */
   EXPECT_TRUE(match(200, "192.51.100.1"));
   EXPECT_FALSE(match(200, "198.0.2.10"));
   /* 31 ignores the last bit, 32 does not. */
   EXPECT_TRUE(match(31, "192.0.2.11"));
   EXPECT_FALSE(match(32, "192.0.2.11"));
}

TEST_F(WardenTest, Ipv6PrefixesAboveOneHundredTwentyEightCompareTheWholeAddress) {
   auto match = [&](u32 prefix, const char *entryText, const char *probeText) {
      VigilWhiteListEntry entry = Entry(VIGIL_WL_IPV6, V6(entryText), prefix);
      Addr addr = V6(probeText);
      u32 index;
      u32 result = MatchWL(filter, &entry, 1, 0, kVm.data(), addr.data(),
                                 nullptr, 2, false, "P", &index);
      sim::TakeLogs();
      return result == 2;
   };
   EXPECT_TRUE(match(129, "2001:db8::1", "2001:db8::1"));
   EXPECT_FALSE(match(129, "2001:db8::1", "2001:db8::"));
   EXPECT_FALSE(match(200, "2001:db8::1", "2001:db8::"));
   EXPECT_TRUE(match(127, "2001:db8::1", "2001:db8::"));
   /* Above 32 the words before the last are compared whole. */
   EXPECT_FALSE(match(48, "2001:db8::", "2001:db9::"));
   EXPECT_TRUE(match(48, "2001:db8:1::", "2001:db8:1:ffff::"));
   EXPECT_FALSE(match(48, "2001:db8:1::", "2001:db8:2::"));
   EXPECT_TRUE(match(96, "2001:db8:0:0:1:2::", "2001:db8::1:2:3:4"));
   EXPECT_FALSE(match(96, "2001:db8:0:0:1:2::", "2001:db8::1:3:3:4"));
}

/* ------------------------------------------------ verdicts and features */

TEST_F(WardenTest, WithoutEitherFeatureEveryFrameIsForwardedUnseen) {
   Addr ip = V4("192.0.2.10");
   for (u32 kind = 1; kind <= 5; kind++) {
      EXPECT_EQ(Warden(kVlan, kVm.data(), ip.data(), kSenderMac.data(), kind, meta, 3),
                2u);
   }
   EXPECT_TRUE(LogTexts().empty());
   EXPECT_TRUE(Observed().empty());
}

TEST_F(WardenTest, SwitchListAloneDecidesWhenThePortFeatureIsOff) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN;
   SetSwitchList({Entry(VIGIL_WL_IPV4, V4("192.0.2.0"), 24)});
   SetPortList({}); /* not consulted */
   Addr inside = V4("192.0.2.10");
   Addr outside = V4("198.51.100.10");
   EXPECT_EQ(Warden(kVlan, kVm.data(), inside.data(), nullptr, 1, meta, 3), 2u);
   EXPECT_TRUE(Observed().empty());
   EXPECT_TRUE(LogTexts().empty());
   EXPECT_EQ(Warden(kVlan, kVm.data(), outside.data(), nullptr, 1, meta, 3), 1u);
   EXPECT_TRUE(Observed().empty());
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [S]DROP wdnType 1 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [S]DROP v4: 198.51.100.10"}));
}

TEST_F(WardenTest, EmptyPortListDropsEveryFrameOfEveryKind) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({});
   Addr v4 = V4("192.0.2.10");
   Addr v6 = V6("2001:db8::1");
   EXPECT_EQ(Warden(kVlan, kVm.data(), v4.data(), nullptr, 1, meta, 0), 1u);
   EXPECT_EQ(Warden(kVlan, kVm.data(), v6.data(), nullptr, 2, meta, 0), 1u);
   EXPECT_EQ(Warden(kVlan, kVm.data(), v4.data(), kVm.data(), 3, meta, 0), 1u);
   EXPECT_EQ(Warden(kVlan, kVm.data(), nullptr, nullptr, 4, meta, 0), 1u);
   EXPECT_EQ(Warden(kVlan, nullptr, v6.data(), nullptr, 5, meta, 0), 1u);
   std::vector<Seen> drops(5, Seen{true, DropRecord(kPort)});
   EXPECT_EQ(Observed(), drops);
}

TEST_F(WardenTest, FrameMustSatisfyBothListsWhenBothFeaturesAreOn) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN | VIGIL_FEAT_PORT_WARDEN;
   SetSwitchList({Entry(VIGIL_WL_IPV4, V4("192.0.2.0"), 24)});
   SetPortList({Entry(VIGIL_WL_IPV4 | VIGIL_WL_VLAN, V4("192.0.2.0"), 25, kVlan)});
   Addr both = V4("192.0.2.10");
   Addr switchOnly = V4("192.0.2.200");
   Addr portOnlyVlanMismatch = V4("192.0.2.10");
   Addr neither = V4("198.51.100.10");

   EXPECT_EQ(Warden(kVlan, kVm.data(), both.data(), nullptr, 1, nullptr, 3), 2u);
   EXPECT_TRUE(LogTexts().empty());

   EXPECT_EQ(Warden(kVlan, kVm.data(), switchOnly.data(), nullptr, 1, nullptr, 3), 1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 1 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v4: 192.0.2.200"}));

   EXPECT_EQ(Warden(kOtherVlan, kVm.data(), portOnlyVlanMismatch.data(), nullptr, 1,
                    nullptr, 3),
             1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 1 vlan 6 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v4: 192.0.2.10"}));

   /* The port list would pass this one; the switch list stops it first. */
   SetPortList({Entry(0)});
   EXPECT_EQ(Warden(kVlan, kVm.data(), neither.data(), nullptr, 1, nullptr, 3), 1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [S]DROP wdnType 1 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [S]DROP v4: 198.51.100.10"}));
   EXPECT_TRUE(Observed().empty());
}

TEST_F(WardenTest, ZeroPrefixIpv4EntryMatchesEveryIpv4AddressAndNoIpv6Source) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({Entry(VIGIL_WL_IPV4, V4("192.0.2.10"), 0)});
   for (const char *text : {"192.0.2.10", "198.51.100.255", "0.0.0.0",
                            "255.255.255.255", "10.1.2.3"}) {
      Addr ip = V4(text);
      EXPECT_EQ(Warden(0, kVm.data(), ip.data(), nullptr, 1, nullptr, 0), 2u) << text;
      EXPECT_EQ(Warden(0, kVm.data(), ip.data(), kVm.data(), 3, nullptr, 0), 2u) << text;
   }
   EXPECT_TRUE(LogTexts().empty());
   for (const char *text : {"2001:db8::1", "::", "2001:db8:c000:2:a::"}) {
      Addr ip = V6(text);
      EXPECT_EQ(Warden(0, kVm.data(), ip.data(), nullptr, 2, nullptr, 0), 1u) << text;
      EXPECT_EQ(Warden(0, nullptr, ip.data(), nullptr, 5, nullptr, 0), 1u) << text;
   }
   EXPECT_EQ(LogTexts().size(), 12u);
}

TEST_F(WardenTest, VlanOnlyEntryMatchesAllTrafficOfItsVlanForEveryKind) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({Entry(VIGIL_WL_VLAN, V4("192.0.2.10"), 32, kVlan, kVm)});
   Addr v4s[] = {V4("192.0.2.10"), V4("198.51.100.99")};
   Addr v6s[] = {V6("2001:db8::1"), V6("2001:db8:ffff::abcd")};
   for (u16 vlan : {kVlan, kOtherVlan}) {
      u32 expect = vlan == kVlan ? 2u : 1u;
      for (const Addr &ip : v4s) {
         EXPECT_EQ(Warden(vlan, kOtherMac.data(), ip.data(), nullptr, 1, nullptr, 0),
                   expect);
         EXPECT_EQ(Warden(vlan, kOtherMac.data(), ip.data(), kSenderMac.data(), 3,
                          nullptr, 0),
                   expect);
      }
      for (const Addr &ip : v6s) {
         EXPECT_EQ(Warden(vlan, kOtherMac.data(), ip.data(), nullptr, 2, nullptr, 0),
                   expect);
         EXPECT_EQ(Warden(vlan, nullptr, ip.data(), nullptr, 5, nullptr, 0), expect);
      }
      EXPECT_EQ(Warden(vlan, kOtherMac.data(), nullptr, nullptr, 4, nullptr, 0), expect);
   }
}

TEST_F(WardenTest, ArpSenderDifferentFromSourceMacMatchesNoEntryWithAMac) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   Addr spa = V4("192.0.2.10");
   /* The entry names the source MAC, then the sender MAC: neither passes. */
   SetPortList({Entry(VIGIL_WL_MAC | VIGIL_WL_IPV4, spa, 32, 0, kVm),
                Entry(VIGIL_WL_MAC, Addr{}, 0, 0, kSenderMac)});
   EXPECT_EQ(Warden(0, kVm.data(), spa.data(), kSenderMac.data(), 3, nullptr, 0), 1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 3 vlan 0 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP ARP: sha 02:00:00:00:00:20 spa 192.0.2.10"}));
   /* With equal addresses the first entry passes. */
   EXPECT_EQ(Warden(0, kVm.data(), spa.data(), kVm.data(), 3, meta, 2), 2u);
   EXPECT_EQ(Observed(),
             (std::vector<Seen>{{false, OutputRecord(kPort, &filter->portWhiteList[0], 3)}}));
   /* An entry without a MAC does not look at the addresses. */
   SetPortList({Entry(VIGIL_WL_IPV4, spa, 32)});
   EXPECT_EQ(Warden(0, kVm.data(), spa.data(), kSenderMac.data(), 3, nullptr, 0), 2u);
}

TEST_F(WardenTest, NeighborAdvertisementWithoutMacPassesTheMacTest) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   Addr target = V6("2001:db8::1");
   SetPortList({Entry(VIGIL_WL_MAC | VIGIL_WL_IPV6 | VIGIL_WL_VLAN, target, 128, kVlan,
                      kOtherMac)});
   EXPECT_EQ(Warden(kVlan, nullptr, target.data(), nullptr, 5, nullptr, 0), 2u);
   /* The same null MAC does not pass a source check of kind 2. */
   EXPECT_EQ(Warden(kVlan, nullptr, target.data(), nullptr, 2, nullptr, 0), 1u);
   /* Address and VLAN must still fit. */
   Addr other = V6("2001:db8::2");
   EXPECT_EQ(Warden(kVlan, nullptr, other.data(), nullptr, 5, nullptr, 0), 1u);
   EXPECT_EQ(Warden(kOtherVlan, nullptr, target.data(), nullptr, 5, nullptr, 0), 1u);
   /* A MAC that is present must be the entry's. */
   EXPECT_EQ(Warden(kVlan, kVm.data(), target.data(), nullptr, 5, nullptr, 0), 1u);
   EXPECT_EQ(Warden(kVlan, kOtherMac.data(), target.data(), nullptr, 5, nullptr, 0), 2u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 2 vlan 5 mac N/A",
                            "Filter 0x10 [P]DROP v6: 2001:db8:0:0:0:0:0:1",
                            "Filter 0x10 [P]DROP wdnType 5 vlan 5 mac N/A",
                            "Filter 0x10 [P]DROP ND: 2001:db8:0:0:0:0:0:2",
                            "Filter 0x10 [P]DROP wdnType 5 vlan 6 mac N/A",
                            "Filter 0x10 [P]DROP ND: 2001:db8:0:0:0:0:0:1",
                            "Filter 0x10 [P]DROP wdnType 5 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP ND: 2001:db8:0:0:0:0:0:1"}));
}

/* ------------------------------------------------ Pathprobe records */

TEST_F(WardenTest, ForwardedIpv4FrameSendsInputThenOutputOfTheMatchedEntry) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({Entry(VIGIL_WL_IPV4, V4("198.51.100.0"), 24, 7, kOtherMac),
                Entry(VIGIL_WL_IPV4 | VIGIL_WL_VLAN | VIGIL_WL_MAC, V4("192.0.2.0"),
                      24, 0x0105, kVm)});
   Addr ip = V4("192.0.2.10");
   EXPECT_EQ(Warden(0x0105, kVm.data(), ip.data(), nullptr, 1, meta, 3), 2u);
   std::vector<u8> output = {
      0x00, 0x00, 0x00, 0x00,                         /* direction: output */
      0x10, 0x00, 0x00, 0x00,                         /* port */
      0x0f,                                           /* valid */
      0x05, 0x01, 0x00, 0x00,                         /* vlan */
      0x02, 0x00, 0x00, 0x00, 0x00, 0x10,             /* mac */
      192,  0,    2,    0,    0, 0, 0, 0, 0, 0, 0, 0, /* ip */
      0,    0,    0,    0,                            /* ip */
      24};                                            /* prefix length */
   std::vector<u8> input = {0x01, 0, 0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0,
                            0,    0, 0, 0, 0,    0, 0, 0, 0, 0, 0, 0,
                            0,    0, 0, 0, 0,    0, 0, 0, 0, 0, 0, 0};
   EXPECT_EQ(Observed(), (std::vector<Seen>{{false, input}, {false, output}}));
   EXPECT_TRUE(LogTexts().empty());
}

TEST_F(WardenTest, OutputRecordCarriesWhatEachKindKnows) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   Addr v6 = V6("2001:db8::1");
   Addr v4 = V4("192.0.2.10");
   SetPortList({Entry(VIGIL_WL_IPV6 | VIGIL_WL_VLAN, V6("2001:db8::"), 64, kVlan, kVm),
                Entry(VIGIL_WL_IPV4 | VIGIL_WL_MAC, v4, 32, 9, kVm),
                Entry(VIGIL_WL_VLAN, Addr{}, 0, kOtherVlan, kOtherMac)});
   const VigilWhiteListEntry *list = filter->portWhiteList;

   EXPECT_EQ(Warden(kVlan, kVm.data(), v6.data(), nullptr, 2, meta, 2), 2u);
   std::vector<u8> v6Output = OutputRecord(kPort, &list[0], 2);
   EXPECT_EQ(v6Output[8], 0x07);
   EXPECT_EQ(v6Output[19], 0x20);
   EXPECT_EQ(v6Output[35], 64);
   EXPECT_EQ(Observed(), (std::vector<Seen>{{false, v6Output}}));

   EXPECT_EQ(Warden(kVlan, nullptr, v6.data(), nullptr, 5, meta, 2), 2u);
   EXPECT_EQ(Observed(), (std::vector<Seen>{{false, OutputRecord(kPort, &list[0], 5)}}));

   EXPECT_EQ(Warden(kOtherVlan, kVm.data(), v4.data(), kVm.data(), 3, meta, 2), 2u);
   std::vector<u8> arpOutput = OutputRecord(kPort, &list[1], 3);
   EXPECT_EQ(arpOutput[8], 0x0f);
   EXPECT_EQ(arpOutput[9], 9);
   EXPECT_EQ(std::vector<u8>(arpOutput.begin() + 19, arpOutput.begin() + 24),
             (std::vector<u8>{192, 0, 2, 10, 0}));
   EXPECT_EQ(arpOutput[35], 32);
   EXPECT_EQ(Observed(), (std::vector<Seen>{{false, arpOutput}}));

   EXPECT_EQ(Warden(kOtherVlan, kOtherMac.data(), nullptr, nullptr, 4, meta, 2), 2u);
   std::vector<u8> l2Output = {0, 0, 0, 0, 0x10, 0, 0, 0, 0x03, kOtherVlan, 0, 0, 0,
                               0x02, 0, 0, 0, 0, 0x11};
   l2Output.resize(36, 0);
   EXPECT_EQ(Observed(), (std::vector<Seen>{{false, l2Output}}));
}

TEST_F(WardenTest, ObservationFlagsChooseRecordsAndADropIsAlwaysReported) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   Addr listed = V4("192.0.2.10");
   Addr unlisted = V4("192.0.2.11");
   SetPortList({Entry(VIGIL_WL_IPV4, listed, 32)});
   const VigilWhiteListEntry *entry = filter->portWhiteList;
   Seen in{false, InputRecord(kPort)};
   Seen out{false, OutputRecord(kPort, entry, 1)};
   Seen drop{true, DropRecord(kPort)};

   struct Case {
      u32 flags;
      std::vector<Seen> forward;
      std::vector<Seen> dropped;
   };
   std::vector<Case> cases = {
      {0, {}, {drop}},
      {1, {in}, {in, drop}},
      {2, {out}, {drop}},
      {3, {in, out}, {in, drop}},
   };
   for (const Case &c : cases) {
      EXPECT_EQ(Warden(kVlan, kVm.data(), listed.data(), nullptr, 1, meta, c.flags), 2u);
      EXPECT_EQ(Observed(), c.forward) << "flags " << c.flags;
      EXPECT_EQ(Warden(kVlan, kVm.data(), unlisted.data(), nullptr, 1, meta, c.flags),
                1u);
      EXPECT_EQ(Observed(), c.dropped) << "flags " << c.flags;
   }
   std::vector<u8> raw = DropRecord(kPort);
   EXPECT_EQ(raw.size(), 97u);
   EXPECT_EQ(raw[85], 0x10);
   EXPECT_EQ(raw[0], 6);
   EXPECT_EQ(raw[4], 6);
}

TEST_F(WardenTest, WithoutMetadataNoObservationOfAnySortIsSent) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN | VIGIL_FEAT_PORT_WARDEN;
   Addr listed = V4("192.0.2.10");
   Addr notInPort = V4("192.0.2.11");
   Addr notInSwitch = V4("198.51.100.1");
   SetSwitchList({Entry(VIGIL_WL_IPV4, listed, 24)});
   SetPortList({Entry(VIGIL_WL_IPV4, listed, 32)});
   for (u32 flags = 0; flags < 4; flags++) {
      EXPECT_EQ(Warden(kVlan, kVm.data(), listed.data(), nullptr, 1, nullptr, flags), 2u);
      EXPECT_EQ(Warden(kVlan, kVm.data(), notInPort.data(), nullptr, 1, nullptr, flags),
                1u);
      EXPECT_EQ(Warden(kVlan, kVm.data(), notInSwitch.data(), nullptr, 1, nullptr, flags),
                1u);
   }
   EXPECT_TRUE(sim::TakeObservations().empty());
}

TEST_F(WardenTest, SwitchListDropEndsTheCheckUnseenButAPortListDropIsReported) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN | VIGIL_FEAT_PORT_WARDEN;
   Addr ip = V6("2001:db8::1");
   SetSwitchList({Entry(VIGIL_WL_VLAN, Addr{}, 0, kVlan)});
   SetPortList({Entry(VIGIL_WL_VLAN, Addr{}, 0, kOtherVlan)});

   EXPECT_EQ(Warden(7, kVm.data(), ip.data(), nullptr, 2, meta, 3), 1u);
   EXPECT_TRUE(Observed().empty());
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [S]DROP wdnType 2 vlan 7 mac 02:00:00:00:00:10",
                            "Filter 0x10 [S]DROP v6: 2001:db8:0:0:0:0:0:1"}));

   EXPECT_EQ(Warden(kVlan, kVm.data(), ip.data(), nullptr, 2, meta, 3), 1u);
   EXPECT_EQ(Observed(), (std::vector<Seen>{{false, InputRecord(kPort)},
                                            {true, DropRecord(kPort)}}));
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 2 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v6: 2001:db8:0:0:0:0:0:1"}));
}

/* ------------------------------------------------ drop lines */

TEST_F(WardenTest, DropLinesNameKindVlanMacAndAddressOnTheThrottledLog) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({});
   Addr v4 = V4("192.0.2.10");
   Addr v6 = V6("2001:db8:abcd:12:ffff::fe80");

   Warden(kVlan, kVm.data(), v4.data(), nullptr, 1, nullptr, 0);
   std::vector<sim::LogLine> lines = TakeModuleLogs();
   ASSERT_EQ(lines.size(), 2u);
   for (const sim::LogLine &line : lines) {
      EXPECT_EQ(line.log, "vigil.throttle");
      EXPECT_EQ(line.level, 2);
   }
   EXPECT_EQ(lines[0].text, "Filter 0x10 [P]DROP wdnType 1 vlan 5 mac 02:00:00:00:00:10");
   EXPECT_EQ(lines[1].text, "Filter 0x10 [P]DROP v4: 192.0.2.10");

   Warden(kVlan, nullptr, v4.data(), nullptr, 1, nullptr, 0);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 1 vlan 5 mac N/A",
                            "Filter 0x10 [P]DROP v4: 192.0.2.10"}));

   Warden(kVlan, kVm.data(), v6.data(), nullptr, 2, nullptr, 0);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 2 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v6: 2001:db8:abcd:12:ffff:0:0:fe80"}));

   Warden(kVlan, nullptr, v6.data(), nullptr, 5, nullptr, 0);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 5 vlan 5 mac N/A",
                            "Filter 0x10 [P]DROP ND: 2001:db8:abcd:12:ffff:0:0:fe80"}));

   Warden(4095, kVm.data(), nullptr, nullptr, 4, nullptr, 0);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 4 vlan 4095 mac 02:00:00:00:00:10"}));

   u8 mac[6] = {0xaa, 0xbb, 0xcc, 0x0d, 0xee, 0xff};
   u8 sha[6] = {0x02, 0x00, 0x5e, 0x10, 0x00, 0x01};
   Warden(0, mac, v4.data(), sha, 3, nullptr, 0);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 3 vlan 0 mac aa:bb:cc:0d:ee:ff",
                            "Filter 0x10 [P]DROP ARP: sha 02:00:5e:10:00:01 spa 192.0.2.10"}));
}

TEST_F(WardenTest, SwitchListDropLinesCarryTheSwitchTag) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN;
   SetSwitchList({Entry(VIGIL_WL_VLAN, Addr{}, 0, 100)});
   Addr v4 = V4("192.0.2.10");
   Warden(kVlan, kVm.data(), v4.data(), kSenderMac.data(), 3, meta, 3);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [S]DROP wdnType 3 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [S]DROP ARP: sha 02:00:00:00:00:20 spa 192.0.2.10"}));
   EXPECT_TRUE(Observed().empty());
}

/* ------------------------------------------------ IPv6 transmit check */

class Ipv6WardenTest : public WardenTest {
protected:
   /* A frame from the VM: Ethernet, IPv6 from `src`, then ICMPv6 of `type`
    * (with `target` as an ND message's target, then `options`) or UDP.  The
    * context points into a copy of its bytes, with the transport header's
    * entry of the host's parse. */
   void Build(const char *src, bool icmpv6, u8 type, u16 vlan = kVlan,
              const char *target = "::", const std::vector<u8> &options = {}) {
      bytes_.assign(14 + 40 + 24, 0);
      bytes_.insert(bytes_.end(), options.begin(), options.end());
      memset(&bytes_[0], 0x33, 6);
      memcpy(&bytes_[6], kVm.data(), 6);
      bytes_[12] = 0x86;
      bytes_[13] = 0xdd;
      u8 *ip = &bytes_[14];
      ip[0] = 0x60;
      ip[5] = (u8)(24 + options.size());
      ip[6] = icmpv6 ? 58 : 17;
      ip[7] = 255;
      Addr srcAddr = V6(src);
      memcpy(ip + 8, srcAddr.data(), 16);
      Addr dst = V6("ff02::1");
      memcpy(ip + 24, dst.data(), 16);
      u8 *l4 = ip + 40;
      if (icmpv6) {
         l4[0] = type;
         Addr targetAddr = V6(target);
         memcpy(l4 + 8, targetAddr.data(), 16);
      } else {
         l4[0] = type; /* the high byte of the source port */
         l4[3] = 53;
         l4[5] = 24;
      }
      if (pkt_ != nullptr) {
         zek_PktRelease(pkt_);
      }
      pkt_ = frames::Make(bytes_);
      memset(&ctx, 0, sizeof ctx);
      ctx.flags = VIGIL_PKT_ETH | VIGIL_PKT_IPV6 | (icmpv6 ? VIGIL_PKT_ICMPV6 : VIGIL_PKT_UDP);
      ctx.frameMapped = bytes_.data();
      ctx.frameLen = ctx.mappedLen = (u32)bytes_.size();
      ctx.ethHdr = &bytes_[0];
      ctx.ipHdr = ip;
      ctx.l4Hdr = l4;
      EXPECT_EQ(zek_PktHeaderFind(pkt_, 2, 0x4000, 1, &ctx.l4Entry, 0), ZEK_OK);
      ctx.vlanId = vlan;
      ctx.ppMetadata = meta;
   }
   u32 Run() {
      u32 action = 0;
      EXPECT_EQ(WithReadHold(filter->portID,
                             [&] { return VigilProcessTxIpv6Warden(filter, pkt_, &ctx, &action); }),
                ZEK_OK);
      return action;
   }
   void TearDown() override {
      if (pkt_ != nullptr) {
         zek_PktRelease(pkt_);
         pkt_ = nullptr;
      }
      WardenTest::TearDown();
   }

   VigilPacketContext ctx;

private:
   std::vector<u8> bytes_;
   zek_Pkt *pkt_ = nullptr;
};

/* A target link-layer address option of `mac`. */
static std::vector<u8> TargetOption(const MacAddr &mac, u8 units = 1) {
   std::vector<u8> option(8u * (units ? units : 1), 0);
   option[0] = 2;
   option[1] = units;
   memcpy(&option[2], mac.data(), 6);
   return option;
}

TEST_F(Ipv6WardenTest, AddressConfigurationMessagesFromTheAllZeroSourcePassUnchecked) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN | VIGIL_FEAT_PORT_WARDEN;
   SetSwitchList({});
   SetPortList({});
   for (u8 type : {131, 132, 133, 135}) {
      Build("::", true, type);
      EXPECT_EQ(Run(), 2u) << "type " << (int)type;
   }
   EXPECT_TRUE(LogTexts().empty());
   EXPECT_TRUE(Observed().empty());
   EXPECT_EQ(filter->stats.statWardenV6Drops, 0u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 0u);
}

TEST_F(Ipv6WardenTest, RouterAdvertisementFromTheAllZeroSourceIsJudged) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({});
   Build("::", true, 134);
   EXPECT_EQ(Run(), 1u);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 1u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 0u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 2 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v6: 0:0:0:0:0:0:0:0"}));
   EXPECT_EQ(Observed(), (std::vector<Seen>{{false, InputRecord(kPort)},
                                            {true, DropRecord(kPort)}}));
}

TEST_F(Ipv6WardenTest, AllZeroSourceOfAnotherProtocolIsJudged) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({});
   /* A UDP header whose first byte reads like a router solicitation. */
   Build("::", false, 133);
   EXPECT_EQ(Run(), 1u);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 1u);
}

TEST_F(Ipv6WardenTest, WithoutAWardenBitEveryFrameIsForwarded) {
   filter->featuresEnabled = ~VIGIL_FEAT_ANY_WARDEN;
   SetPortList({});
   SetSwitchList({});
   for (u8 type : {128, 134, 136}) {
      Build("2001:db8::1", true, type);
      EXPECT_EQ(Run(), 2u);
   }
   Build("2001:db8::1", false, 0);
   EXPECT_EQ(Run(), 2u);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 0u);
   EXPECT_TRUE(LogTexts().empty());
   EXPECT_TRUE(Observed().empty());
}

TEST_F(Ipv6WardenTest, NeighborAdvertisementIsJudgedByItsSourceThenByItsTarget) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({Entry(VIGIL_WL_IPV6 | VIGIL_WL_MAC, V6("2001:db8::"), 64, 0, kVm)});
   /* Source and target in the list: the input observation comes from the
    * source check, the output observation from the target check. */
   Build("2001:db8::1", true, 136, kVlan, "2001:db8::1", TargetOption(kVm));
   EXPECT_EQ(Run(), 2u);
   EXPECT_EQ(Observed(),
             (std::vector<Seen>{{false, InputRecord(kPort)},
                                {false, OutputRecord(kPort, filter->portWhiteList, 5)}}));
   EXPECT_TRUE(LogTexts().empty());

   /* The target's option names another MAC: dropped by the target check. */
   Build("2001:db8::1", true, 136, kVlan, "2001:db8::1", TargetOption(kOtherMac));
   EXPECT_EQ(Run(), 1u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 1u);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 0u);
   EXPECT_EQ(Observed(), (std::vector<Seen>{{false, InputRecord(kPort)},
                                            {true, DropRecord(kPort)}}));
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 5 vlan 5 mac 02:00:00:00:00:11",
                            "Filter 0x10 [P]DROP ND: 2001:db8:0:0:0:0:0:1"}));

   /* A target outside the list. */
   Build("2001:db8::1", true, 136, kVlan, "2001:db8:1::1", TargetOption(kVm));
   EXPECT_EQ(Run(), 1u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 2u);
   Observed();
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 5 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP ND: 2001:db8:1:0:0:0:0:1"}));

   /* A source outside the list ends the check before the target. */
   Build("2001:db8:1::1", true, 136, kVlan, "2001:db8::1", TargetOption(kVm));
   EXPECT_EQ(Run(), 1u);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 1u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 2u);
   EXPECT_EQ(Observed(), (std::vector<Seen>{{false, InputRecord(kPort)},
                                            {true, DropRecord(kPort)}}));
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 2 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v6: 2001:db8:1:0:0:0:0:1"}));
}

TEST_F(Ipv6WardenTest, NeighborAdvertisementWithoutTargetOptionPassesTheMacTest) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   /* The entry's MAC is not the frame's: only the null MAC of a missing
    * option lets the target pass; the source is judged by a second entry. */
   SetPortList({Entry(VIGIL_WL_IPV6 | VIGIL_WL_MAC | VIGIL_WL_VLAN, V6("2001:db8::50"), 128,
                      kVlan, kOtherMac),
                Entry(VIGIL_WL_IPV6 | VIGIL_WL_MAC, V6("fe80::"), 64, 0, kVm)});
   Build("fe80::10", true, 136, kVlan, "2001:db8::50");
   EXPECT_EQ(Run(), 2u);
   EXPECT_EQ(Observed(),
             (std::vector<Seen>{{false, InputRecord(kPort)},
                                {false, OutputRecord(kPort, &filter->portWhiteList[0], 5)}}));
   /* The same advertisement with the frame's MAC in the option fails. */
   Build("fe80::10", true, 136, kVlan, "2001:db8::50", TargetOption(kVm));
   EXPECT_EQ(Run(), 1u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 5 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP ND: 2001:db8:0:0:0:0:0:50"}));
}

TEST_F(Ipv6WardenTest, InvalidNeighborAdvertisementIsDroppedOnceItsSourcePasses) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({Entry(VIGIL_WL_IPV6, V6("2001:db8::"), 64)});
   /* A target option of two units. */
   Build("2001:db8::1", true, 136, kVlan, "2001:db8::1", TargetOption(kVm, 2));
   EXPECT_EQ(Run(), 1u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 1u);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 0u);
   /* The source check asked for both observations and passed. */
   EXPECT_EQ(Observed(),
             (std::vector<Seen>{{false, InputRecord(kPort)},
                                {false, OutputRecord(kPort, filter->portWhiteList, 2)}}));
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{
                "Filter 0x10 Invalid target addr option length: 16",
                "Filter 0x10 Invalid IPV6 ND Pkt, setting action to drop the packet"}));

   /* From a source outside the list it is a source drop and nothing more. */
   Build("2001:db9::1", true, 136, kVlan, "2001:db8::1", TargetOption(kVm, 2));
   EXPECT_EQ(Run(), 1u);
   EXPECT_EQ(filter->stats.statWardenNdDrops, 1u);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 Invalid target addr option length: 16",
                            "Filter 0x10 [P]DROP wdnType 2 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v6: 2001:db9:0:0:0:0:0:1"}));
}

TEST_F(Ipv6WardenTest, OtherIpv6FramesAreJudgedByTheirSource) {
   filter->featuresEnabled = VIGIL_FEAT_SWITCH_WARDEN;
   SetSwitchList({Entry(VIGIL_WL_IPV6 | VIGIL_WL_VLAN, V6("2001:db8::"), 32, kVlan)});
   Build("2001:db8:ffff::1", false, 0);
   EXPECT_EQ(Run(), 2u);
   Build("2001:db8:ffff::1", true, 128);
   EXPECT_EQ(Run(), 2u);
   Build("2001:db8:ffff::1", false, 0, kOtherVlan);
   EXPECT_EQ(Run(), 1u);
   Build("2001:db9::1", true, 128);
   EXPECT_EQ(Run(), 1u);
   EXPECT_EQ(filter->stats.statWardenV6Drops, 2u);
   EXPECT_TRUE(Observed().empty());
   EXPECT_EQ(LogTexts().size(), 4u);
}

/* ------------------------------------------------ through the pipeline */

class WardenPipelineTest : public WardenTest {};

TEST_F(WardenPipelineTest, Ipv4FrameFromAnUnlistedSourceIsDroppedAndCounted) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({Entry(VIGIL_WL_IPV4 | VIGIL_WL_MAC, V4("192.0.2.10"), 32, 0, kVm)});
   sim::FrameOptions opts;
   opts.vlan = kVlan;
   zek_Pkt *outside = frames::Make(frames::UdpV4(frames::kVmMac, "02:00:00:00:00:01",
                                                 "192.0.2.11", "198.51.100.1", 4000, 53),
                                   opts);
   EXPECT_EQ(Tx(kPort, {outside}), std::vector<std::string>{"drop"});
   EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 1 vlan 5 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP v4: 192.0.2.11"}));
}

TEST_F(WardenPipelineTest, Ipv4FrameFromAListedSourceIsForwarded) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({Entry(VIGIL_WL_IPV4 | VIGIL_WL_MAC, V4("192.0.2.10"), 32, 0, kVm)});
   zek_Pkt *inside = frames::Make(frames::UdpV4(frames::kVmMac, "02:00:00:00:00:01",
                                                "192.0.2.10", "198.51.100.1", 4000, 53));
   zek_Pkt *wrongMac = frames::Make(frames::UdpV4("02:00:00:00:00:11", "02:00:00:00:00:01",
                                                  "192.0.2.10", "198.51.100.1", 4000, 53));
   EXPECT_EQ(Tx(kPort, {inside, wrongMac}), (std::vector<std::string>{"forward", "drop"}));
   EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);
   EXPECT_EQ(LogTexts().size(), 2u);
}

TEST_F(WardenPipelineTest, TracedDropSendsTheLogicalDropRecord) {
   sim::SetTraceAttrId(VIGIL_PP_PKT_ATTR_ID);
   sim::SetTracing(true);
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({Entry(VIGIL_WL_IPV4, V4("192.0.2.10"), 32)});
   sim::FrameOptions opts;
   opts.traceAttr = true;
   zek_Pkt *outside = frames::Make(frames::UdpV4(frames::kVmMac, "02:00:00:00:00:01",
                                                 "192.0.2.11", "198.51.100.1", 4000, 53,
                                                 64),
                                   opts);
   EXPECT_EQ(Tx(kPort, {outside}), std::vector<std::string>{"drop"});
   std::vector<sim::Observation> seen = sim::TakeObservations();
   ASSERT_EQ(seen.size(), 2u);
   EXPECT_FALSE(seen[0].isDrop);
   EXPECT_EQ(seen[0].raw, InputRecord(kPort));
   EXPECT_TRUE(seen[1].isDrop);
   EXPECT_EQ(seen[1].raw, DropRecord(kPort));
   EXPECT_NE(seen[1].metadata, nullptr);
   EXPECT_EQ(seen[0].metadata, seen[1].metadata);
   sim::SetTracing(false);
}

TEST_F(WardenPipelineTest, ArpRequestIsJudgedBySenderWhenArpSnoopingIsOff) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   filter->discoveryFlags = 0;
   SetPortList({Entry(VIGIL_WL_IPV4 | VIGIL_WL_MAC, V4("192.0.2.10"), 32, 0, kVm)});
   zek_Pkt *listed = frames::Make(
      frames::Arp(frames::kVmMac, frames::kVmMac, "192.0.2.10", "192.0.2.1"));
   zek_Pkt *unlisted = frames::Make(
      frames::Arp(frames::kVmMac, frames::kVmMac, "192.0.2.12", "192.0.2.1"));
   zek_Pkt *otherSender = frames::Make(
      frames::Arp(frames::kVmMac, "02:00:00:00:00:20", "192.0.2.10", "192.0.2.1"));
   EXPECT_EQ(Tx(kPort, {listed, unlisted, otherSender}),
             (std::vector<std::string>{"forward", "drop", "drop"}));
   EXPECT_EQ(filter->stats.statWardenArpDrops, 2u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 3 vlan 0 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP ARP: sha 02:00:00:00:00:10 spa 192.0.2.12",
                            "Filter 0x10 [P]DROP wdnType 3 vlan 0 mac 02:00:00:00:00:10",
                            "Filter 0x10 [P]DROP ARP: sha 02:00:00:00:00:20 spa 192.0.2.10"}));
}

TEST_F(WardenPipelineTest, NonIpFrameIsJudgedByVlanAndMac) {
   filter->featuresEnabled = VIGIL_FEAT_PORT_WARDEN;
   SetPortList({Entry(VIGIL_WL_VLAN, Addr{}, 0, kVlan)});
   sim::FrameOptions onVlan;
   onVlan.vlan = kVlan;
   sim::FrameOptions offVlan;
   offVlan.vlan = kOtherVlan;
   zek_Pkt *inside = frames::Make(frames::Ether(frames::kVmMac, "02:00:00:00:00:01", 0x88b5),
                                  onVlan);
   zek_Pkt *outside = frames::Make(frames::Ether(frames::kVmMac, "02:00:00:00:00:01", 0x88b5),
                                   offVlan);
   EXPECT_EQ(Tx(kPort, {inside}), std::vector<std::string>{"forward"});
   EXPECT_EQ(Tx(kPort, {outside}), std::vector<std::string>{"drop"});
   EXPECT_EQ(filter->stats.statNonIpDrops, 1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                            "Filter 0x10 [P]DROP wdnType 4 vlan 6 mac 02:00:00:00:00:10"}));
}
