/*
 * Test support for the IPv6 paths driven through the packet loop: a filter
 * with its IPv6 binding hash and ND snooping on, the neighbor discovery,
 * router advertisement and UDP frames a VM sends, the portset messages
 * they cause, lock and heap accounting, and a runner that fails each module
 * allocation of a path in turn.
 */
#ifndef IPV6_DB_TEST_H
#define IPV6_DB_TEST_H

#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "test_addresses.h"
#include "port_db_test.h"
#include "test_frames.h"
#include "vigil_config.h"
#include "vigil_test.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_warden.h"
#include "vigil_whitelist.h"
#include "vigil_workers.h"

namespace v6db {

constexpr u32 kPort = 0x10;
constexpr u64 kMsgFlags = 0x8000000000000ull;
const char *const kVmMac = "02:00:00:00:00:10";
const char *const kOtherMac = "02:00:00:00:00:77";
const char *const kRouterMac = "02:00:00:00:00:01";
const char *const kVmIp = "2001:db8::50";
const char *const kVmLinkLocal = "fe80::ff:fe00:10";
const char *const kRouterIp = "2001:db8::1";
const char *const kAllNodes = "ff02::1";
const char *const kAllNodesMac = "33:33:00:00:00:01";
const char *const kUnspecified = "::";

constexpr size_t kIpv6At = 14;      /* the IPv6 header in an untagged frame */
constexpr size_t kIcmpAt = 14 + 40; /* the ICMPv6 header without extensions */

using Bytes = frames::Bytes;
using MacAddr = std::array<u8, 6>;
using Addr6 = std::array<u8, 16>;
using addrtext::MacOf;

inline Addr6 Ip6(const std::string &text) {
   Addr6 addr{};
   EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), addr.data()), 1) << text;
   return addr;
}

/* A link-layer address option's value: the MAC alone. */
inline Bytes LinkLayer(const std::string &mac) {
   MacAddr m = MacOf(mac);
   return Bytes(m.begin(), m.end());
}

/* A neighbor solicitation the VM sends from `srcIp` for `target`, with a
 * source link-layer address option when `sll` is given. */
inline Bytes Ns(const std::string &srcIp, const std::string &target,
                const std::optional<std::string> &sll, const std::string &srcMac = kVmMac) {
   frames::NdFields nd;
   nd.type = 135;
   nd.target = target;
   if (sll) {
      nd.options.emplace_back(1, LinkLayer(*sll));
   }
   return frames::NdFrame(srcMac, "33:33:ff:00:00:01", {srcIp, "ff02::1:ff00:1", 255}, nd);
}

/* A neighbor advertisement the VM sends for `target`, with a target
 * link-layer address option when `tll` is given. */
inline Bytes Na(const std::string &target, const std::optional<std::string> &tll,
                const std::string &srcMac = kVmMac, const std::string &srcIp = kVmLinkLocal) {
   frames::NdFields nd;
   nd.type = 136;
   nd.target = target;
   nd.override = true;
   if (tll) {
      nd.options.emplace_back(2, LinkLayer(*tll));
   }
   return frames::NdFrame(srcMac, kAllNodesMac, {srcIp, kAllNodes, 255}, nd);
}

/* A router advertisement the VM sends, with its source link-layer option. */
inline Bytes Ra(const std::string &srcIp = kVmLinkLocal, const std::string &srcMac = kVmMac) {
   frames::NdFields nd;
   nd.type = 134;
   nd.options.emplace_back(1, LinkLayer(srcMac));
   return frames::NdFrame(srcMac, kAllNodesMac, {srcIp, kAllNodes, 255}, nd);
}

/* Another ICMPv6 message: a type with four bytes of body. */
inline Bytes Icmp6(u8 type, const std::string &srcIp = kVmIp, const std::string &srcMac = kVmMac) {
   frames::NdFields nd;
   nd.type = type;
   return frames::NdFrame(srcMac, kAllNodesMac, {srcIp, kAllNodes, 64}, nd);
}

inline Bytes Udp6(u16 sport, u16 dport, const std::string &srcIp = kVmLinkLocal,
                  const std::string &srcMac = kVmMac) {
   return frames::Udp6Frame(srcMac, "33:33:00:01:00:02", {srcIp, "ff02::1:2", 64}, sport, dport,
                            Bytes(8, 0));
}

/* The frame with `tail` put behind its last byte, the IPv6 payload length
 * grown to match (raw option bytes no builder would write). */
inline Bytes Append(Bytes frame, const Bytes &tail) {
   frame.insert(frame.end(), tail.begin(), tail.end());
   u16 payload = (u16)((frame[kIpv6At + 4] << 8 | frame[kIpv6At + 5]) + tail.size());
   frame[kIpv6At + 4] = (u8)(payload >> 8);
   frame[kIpv6At + 5] = (u8)payload;
   return frame;
}

/* The 80-byte portset message of one IPv6 binding. */
inline Bytes PortDbV6Msg(bool added, u16 vlan, const std::string &mac, const std::string &ip,
                         u8 discMethod) {
   Bytes msg(80, 0);
   const char *name = added ? "portdb.entry.added" : "portdb.entry.removed";
   memcpy(msg.data(), name, strlen(name));
   u64 payloadLen = 40;
   memcpy(msg.data() + 32, &payloadLen, 8);
   u32 op = added ? 0 : 1;
   memcpy(msg.data() + 40, &op, 4);
   u32 numEntries = 1;
   memcpy(msg.data() + 44, &numEntries, 4);
   memcpy(msg.data() + 48, &vlan, 2);
   MacAddr m = MacOf(mac);
   memcpy(msg.data() + 50, m.data(), 6);
   Addr6 a = Ip6(ip);
   memcpy(msg.data() + 60, a.data(), 16);
   msg[76] = discMethod == VIGIL_DISC_DHCPV6;
   msg[78] = discMethod;
   return msg;
}

inline Bytes NdAdded(u16 vlan, const std::string &mac, const std::string &ip) {
   return PortDbV6Msg(true, vlan, mac, ip, VIGIL_DISC_ND);
}
inline Bytes NdRemoved(u16 vlan, const std::string &mac, const std::string &ip) {
   return PortDbV6Msg(false, vlan, mac, ip, VIGIL_DISC_ND);
}

/* The plain log line of an ND binding added now, with the default life. */
inline std::string NdAddedLine(u16 vlan, const std::string &mac, const std::string &ip,
                               i64 expiryTs) {
   Addr6 a = Ip6(ip);
   char text[256];
   snprintf(text, sizeof text,
            "Filter 0x10 Added IP to PortDB VLAN: %u, IP: %x:%x:%x:%x:%x:%x:%x:%x MAC: %s "
            "discMethod: 0x8, expiryTs: %lld",
            vlan, a[0] << 8 | a[1], a[2] << 8 | a[3], a[4] << 8 | a[5], a[6] << 8 | a[7],
            a[8] << 8 | a[9], a[10] << 8 | a[11], a[12] << 8 | a[13], a[14] << 8 | a[15],
            mac.c_str(), (long long)expiryTs);
   return text;
}

inline void CollectViolation(void *ctx, const char *text) {
   static_cast<std::vector<std::string> *>(ctx)->push_back(text);
}

inline i64 Uptime() {
   zek_Uptime now;
   zek_GetUptime(&now);
   return now.sec;
}

class Ipv6DbTest : public PortDbTest {
protected:

   void SetUp() override {
      VigilTest::SetUp();
      filter = AddFilter(kPort);
      ASSERT_EQ(VigilV6VmiHashAlloc(&filter->v6VmiHash), ZEK_OK);
      filter->discoveryFlags = VIGIL_DISC_ND;
      baseAllocs_ = sim::GetHeapStats(heapID).allocations;
      sim::TakeLogs();
   }

   void TearDown() override {
      SetDeleteExpiry(1);
      sim::FaultAlloc(0);
      sim::FaultClear();
      if (filter != nullptr && filter->v6VmiHash != nullptr) {
         EXPECT_EQ(Violations(), std::vector<std::string>());
         ClearDatabase();
         Vigil_HeapFree(filter->portIgnoreList);
         filter->portIgnoreList = nullptr;
         filter->portIgnoreListSize = 0;
         Vigil_HeapFree(filter->v6VmiHash);
         filter->v6VmiHash = nullptr;
      }
      filter->portWhiteList = nullptr;
      filter->portWhiteListSize = 0;
      filter->switchWhiteList = nullptr;
      filter->switchWhiteListSize = 0;
      VigilTest::TearDown();
   }

   /* What the invariant checker reports about the IPv6 database. */
   std::vector<std::string> Violations() override {
      std::vector<std::string> texts;
      u32 count = VigilCheckV6PortDb(filter, CollectViolation, &texts);
      EXPECT_EQ(count, texts.size());
      return texts;
   }

   /* Every binding, expired ones too, goes. */
   void ClearDatabase() {
      WithWriteLock([this] { VigilClearV6Vmi(filter, true, 0, nullptr); });
      sim::WaitIdle(5.0);
   }

   /* The database back to empty and nothing left over to look at. */
   void Restart() override {
      ClearDatabase();
      TakeMessages();
      sim::TakeLogs();
   }

   VigilV6Vmi *Find(u16 vlan, const std::string &mac, const std::string &ip) {
      u8 key[VIGIL_V6_KEY_LEN];
      memcpy(key, &vlan, 2);
      MacAddr m = MacOf(mac);
      memcpy(key + 2, m.data(), 6);
      Addr6 a = Ip6(ip);
      memcpy(key + 8, a.data(), 16);
      return WithReadHold(filter->portID, [&] { return VigilFindV6Vmi(filter, key); });
   }

   std::vector<VigilV6Vmi *> Bindings() {
      std::vector<VigilV6Vmi *> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->v6VmiList) {
         out.push_back(VIGIL_V6VMI_FROM_EXPIRY(pos));
      }
      VIGIL_LIST_FOR_EACH(pos, &filter->v6ExpiredNdList) {
         out.push_back(VIGIL_V6VMI_FROM_EXPIRED(pos));
      }
      return out;
   }

   /* Module allocations that the database itself accounts for: each
    * binding with its client identifier copy, each pending request, and
    * the ignore list. */
   u64 DatabaseAllocations() override {
      u64 count = filter->portIgnoreList != nullptr ? 1 : 0;
      for (VigilV6Vmi *vmi : Bindings()) {
         count += 1 + (vmi->clientId != nullptr ? 1 : 0);
      }
      VIGIL_LIST_FOR_EACH(pos, &filter->dhcpV6ReqList) {
         count++;
      }
      return count;
   }


   /* The white lists as configuration leaves them, kept by the test. */
   void SetPortList(const std::vector<VigilWhiteListEntry> &entries) {
      portList_ = entries;
      filter->portWhiteList = portList_.empty() ? nullptr : portList_.data();
      filter->portWhiteListSize = (u32)portList_.size();
   }

private:
   std::vector<VigilWhiteListEntry> portList_;
};

} // namespace v6db

#endif /* IPV6_DB_TEST_H */
