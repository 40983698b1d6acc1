/*
 * Test support for the IPv4 port database driven through the packet loop:
 * a filter with its binding hash, DHCP and ARP frames of a client and a
 * server, the portset messages they cause, lock and heap accounting, and a
 * runner that fails each module allocation of a path in turn.
 */
#ifndef IPV4_DB_TEST_H
#define IPV4_DB_TEST_H

#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "test_addresses.h"
#include "port_db_test.h"
#include "test_frames.h"
#include "vigil_dhcp.h"
#include "vigil_test.h"
#include "vigil_vmi.h"
#include "vigil_whitelist.h"
#include "vigil_workers.h"

namespace v4db {

constexpr u32 kPort = 0x10;
constexpr u32 kLease = 3600;
constexpr u64 kMsgFlags = 0x8000000000000ull;
const char *const kServerIp = "192.0.2.1";
const char *const kLeaseIp = "192.0.2.50";
const char *const kAnyIp = "0.0.0.0";
const char *const kAllOnes = "255.255.255.255";

using Bytes = frames::Bytes;
using MacAddr = std::array<u8, 6>;

/* Address texts read as the database keeps them: a MAC's six bytes, an
 * IPv4 address in network order. */
using addrtext::MacOf;
using addrtext::Ip;

/* A client: its MAC (also the frames' source and chaddr), its option 61
 * (type 1 and the MAC, as a common Linux client sends it) and a transaction
 * id. */
struct Client {
   std::string mac;
   Bytes clientId;
   u32 xid;
};

inline Client ClientOf(const std::string &mac, u32 xid, bool withClientId = true) {
   Client client{mac, {}, xid};
   if (withClientId) {
      MacAddr m = MacOf(mac);
      client.clientId = Bytes{1, m[0], m[1], m[2], m[3], m[4], m[5]};
   }
   return client;
}

inline const Bytes &ParamList() {
   static const Bytes list{1, 28, 2, 3, 15, 6, 119, 12, 44, 47, 26, 121, 42};
   return list;
}

inline frames::DhcpFields ClientFields(const Client &c, int msgType) {
   frames::DhcpFields f;
   f.op = 1;
   f.xid = c.xid;
   f.chaddr = c.mac;
   f.msgType = msgType;
   f.clientId = c.clientId;
   return f;
}

/* Client messages, laid out as a common Linux client sends them. */
inline Bytes Discover(const Client &c) {
   frames::DhcpFields f = ClientFields(c, VIGIL_DHCPDISCOVER);
   f.paramList = ParamList();
   return frames::DhcpFrame(c.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67, f);
}

/* SELECTING (with a server identifier) or INIT-REBOOT (without): broadcast,
 * ciaddr 0. */
inline Bytes Request(const Client &c, const std::string &requested = kLeaseIp,
                     const std::string &serverId = kServerIp) {
   frames::DhcpFields f = ClientFields(c, VIGIL_DHCPREQUEST);
   f.requestedIp = requested;
   f.paramList = ParamList();
   f.serverId = serverId;
   return frames::DhcpFrame(c.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67, f);
}

/* RENEWING: unicast to the server from the leased address, ciaddr set. */
inline Bytes Renew(const Client &c, const std::string &leased = kLeaseIp) {
   frames::DhcpFields f = ClientFields(c, VIGIL_DHCPREQUEST);
   f.ciaddr = leased;
   f.paramList = ParamList();
   return frames::DhcpFrame(c.mac, frames::kServerMac, leased, kServerIp, 68, 67, f);
}

inline Bytes Release(const Client &c, const std::string &leased = kLeaseIp) {
   frames::DhcpFields f = ClientFields(c, VIGIL_DHCPRELEASE);
   f.ciaddr = leased;
   f.serverId = kServerIp;
   return frames::DhcpFrame(c.mac, frames::kServerMac, leased, kServerIp, 68, 67, f);
}

inline Bytes Decline(const Client &c, const std::string &declined = kLeaseIp) {
   frames::DhcpFields f = ClientFields(c, VIGIL_DHCPDECLINE);
   f.requestedIp = declined;
   f.serverId = kServerIp;
   return frames::DhcpFrame(c.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67, f);
}

inline frames::DhcpFields ServerFields(const Client &c, int msgType) {
   frames::DhcpFields f;
   f.op = 2;
   f.xid = c.xid;
   f.chaddr = c.mac;
   f.msgType = msgType;
   f.siaddr = kServerIp;
   f.serverId = kServerIp;
   return f;
}

/* Server replies, laid out as a small server sends them: 53, 51, 54, then
 * subnet mask and router. */
inline Bytes ServerReply(const Client &c, int msgType, const std::string &yiaddr,
                         i64 lease) {
   frames::DhcpFields f = ServerFields(c, msgType);
   f.yiaddr = yiaddr;
   f.leaseTime = lease;
   f.extra = {{1, {255, 255, 255, 0}}, {3, {192, 0, 2, 1}}};
   return frames::DhcpFrame(frames::kServerMac, c.mac, kServerIp, yiaddr, 67, 68, f);
}

inline Bytes Offer(const Client &c, const std::string &yiaddr = kLeaseIp,
                   i64 lease = kLease) {
   return ServerReply(c, VIGIL_DHCPOFFER, yiaddr, lease);
}

inline Bytes Ack(const Client &c, const std::string &yiaddr = kLeaseIp,
                 i64 lease = kLease) {
   return ServerReply(c, VIGIL_DHCPACK, yiaddr, lease);
}

inline Bytes Nak(const Client &c) {
   frames::DhcpFields f = ServerFields(c, VIGIL_DHCPNAK);
   f.siaddr = kAnyIp;
   return frames::DhcpFrame(frames::kServerMac, frames::kBroadcast, kServerIp, kAllOnes,
                            67, 68, f);
}

/* The 80-byte portset message of one IPv4 binding. */
inline Bytes PortDbMsg(bool added, u16 vlan, const std::string &mac,
                       const std::string &ip, u8 bound, u8 gratuitous, u8 discMethod) {
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
   msg[56] = 1;
   u32 addr = Ip(ip);
   memcpy(msg.data() + 60, &addr, 4);
   msg[76] = bound;
   msg[77] = gratuitous;
   msg[78] = discMethod;
   return msg;
}

inline Bytes DhcpAdded(u16 vlan, const std::string &mac, const std::string &ip) {
   return PortDbMsg(true, vlan, mac, ip, 1, 0, VIGIL_DISC_DHCP);
}
inline Bytes DhcpRemoved(u16 vlan, const std::string &mac, const std::string &ip) {
   return PortDbMsg(false, vlan, mac, ip, 1, 0, VIGIL_DISC_DHCP);
}
inline Bytes ArpAdded(u16 vlan, const std::string &mac, const std::string &ip,
                      u8 gratuitous = 0) {
   return PortDbMsg(true, vlan, mac, ip, 0, gratuitous, VIGIL_DISC_ARP);
}
inline Bytes ArpRemoved(u16 vlan, const std::string &mac, const std::string &ip) {
   return PortDbMsg(false, vlan, mac, ip, 0, 0, VIGIL_DISC_ARP);
}

inline void CollectViolation(void *ctx, const char *text) {
   static_cast<std::vector<std::string> *>(ctx)->push_back(text);
}

inline i64 Uptime() {
   zek_Uptime now;
   zek_GetUptime(&now);
   return now.sec;
}

class Ipv4DbTest : public PortDbTest {
protected:

   void SetUp() override {
      VigilTest::SetUp();
      filter = AddFilter(kPort);
      ASSERT_EQ(VigilVmiHashAlloc(&filter->vmiHash), ZEK_OK);
      filter->discoveryFlags = VIGIL_DISC_DHCP | VIGIL_DISC_ARP;
      baseAllocs_ = sim::GetHeapStats(heapID).allocations;
      sim::TakeLogs();
   }

   void TearDown() override {
      SetDeleteExpiry(1);
      sim::FaultAlloc(0);
      if (filter != nullptr && filter->vmiHash != nullptr) {
         EXPECT_EQ(Violations(), std::vector<std::string>());
         ClearDatabase();
         Vigil_HeapFree(filter->portIgnoreList);
         filter->portIgnoreList = nullptr;
         filter->portIgnoreListSize = 0;
         Vigil_HeapFree(filter->vmiHash);
         filter->vmiHash = nullptr;
      }
      VigilTest::TearDown();
   }

   /* What the invariant checker reports about the database. */
   std::vector<std::string> Violations() override {
      std::vector<std::string> texts;
      u32 count = VigilCheckVmiTable(filter, CollectViolation, &texts);
      EXPECT_EQ(count, texts.size());
      return texts;
   }

   /* Every binding (static ones too) and every pending request goes. */
   void ClearDatabase() {
      WithWriteLock([this] {
         VigilDelVmiByDiscMethod(filter, VIGIL_DISC_DHCP | VIGIL_DISC_ARP);
         while (!VigilListIsEmpty(&filter->expiredVmiList)) {
            VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRED(filter->expiredVmiList.next));
         }
         while (!VigilListIsEmpty(&filter->vmiList)) {
            VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRY(filter->vmiList.next));
         }
         while (!VigilListIsEmpty(&filter->dhcpReqList)) {
            VigilDelDhcpReq(filter, VIGIL_DHCP_REQ_FROM_LINKS(filter->dhcpReqList.next));
         }
      });
      sim::WaitIdle(5.0);
   }

   /* The database back to empty and nothing left over to look at. */
   void Restart() override {
      ClearDatabase();
      TakeMessages();
      sim::TakeLogs();
   }

   VigilVmi *Find(u16 vlan, const std::string &mac, const std::string &ip) {
      MacAddr m = MacOf(mac);
      return WithReadHold(filter->portID,
                          [&] { return VigilFindVmi(filter, vlan, m.data(), Ip(ip)); });
   }

   VigilDhcpReq *FirstReq() {
      if (VigilListIsEmpty(&filter->dhcpReqList)) {
         return nullptr;
      }
      return VIGIL_DHCP_REQ_FROM_LINKS(filter->dhcpReqList.next);
   }

   std::vector<VigilVmi *> VmiList() {
      std::vector<VigilVmi *> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
         out.push_back(VIGIL_VMI_FROM_EXPIRY(pos));
      }
      return out;
   }

   std::vector<VigilVmi *> ExpiredList() {
      std::vector<VigilVmi *> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->expiredVmiList) {
         out.push_back(VIGIL_VMI_FROM_EXPIRED(pos));
      }
      return out;
   }

   /* The filter's key in the aging queue, or -1 when it is not queued. */
   i64 QueuedKey() {
      for (const auto &entry : sim::PriQContents(filterAgingQ)) {
         if (entry.second == &filter->agingPortID) {
            return entry.first;
         }
      }
      return -1;
   }

   void Age() {
      WithWriteLock([this] { VigilPortDbDoAging(filter, Uptime()); });
   }

   /* A DHCP binding learnt the usual way: REQUEST out, ACK in. */
   void Bind(const Client &c, const std::string &ip = kLeaseIp, i64 lease = kLease,
             u16 vlan = 0) {
      sim::FrameOptions opts;
      opts.vlan = vlan;
      EXPECT_EQ(Tx1(Request(c, ip), opts), "forward");
      EXPECT_EQ(Rx1(Ack(c, ip, lease), opts), "forward");
      EXPECT_NE(Find(vlan, c.mac, ip), nullptr) << c.mac << " " << ip;
   }

   /* A static binding, as only a restore brings one in. */
   void AddStatic(u16 vlan, const std::string &mac, const std::string &ip) {
      VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
      vmi->vlanId = vlan;
      MacAddr m = MacOf(mac);
      memcpy(vmi->mac, m.data(), 6);
      vmi->ip = Ip(ip);
      vmi->discMethod = VIGIL_DISC_STATIC;
      WithWriteLock([&] { ASSERT_EQ(VigilAddVmi(filter, vmi), ZEK_OK); });
   }

   /* Module allocations that the database itself accounts for: each
    * binding and request with its client identifier copy, and the ignore
    * list. */
   u64 DatabaseAllocations() override {
      u64 count = filter->portIgnoreList != nullptr ? 1 : 0;
      auto countVmi = [&count](VigilVmi *vmi) {
         count += 1 + (vmi->clientIdStr != nullptr ? 1 : 0);
      };
      for (VigilVmi *vmi : VmiList()) {
         countVmi(vmi);
      }
      for (VigilVmi *vmi : ExpiredList()) {
         countVmi(vmi);
      }
      VIGIL_LIST_FOR_EACH(pos, &filter->dhcpReqList) {
         count += 1 + (VIGIL_DHCP_REQ_FROM_LINKS(pos)->clientIdStr != nullptr ? 1 : 0);
      }
      return count;
   }
};

} // namespace v4db

#endif /* IPV4_DB_TEST_H */
