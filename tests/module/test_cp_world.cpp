/*
 * The control-plane world: the bounded task queue, the portset messages
 * about binding changes byte for byte, and the world's start and stop.
 */
#include <tins/tins.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_addresses.h"
#include "test_frames.h"
#include "vigil_dhcp.h"
#include "vigil_lifecycle.h"
#include "vigil_atomic.h"
#include "vigil_test.h"
#include "vigil_locks.h"
#include "vigil_vmi.h"
#include "vigil_workers.h"

namespace {

constexpr u32 kPort = 0x10;
constexpr i64 kStart = 1000; /* the virtual clock's start, in uptime seconds */
constexpr u64 kMsgFlags = 0x8000000000000ull;

using Bytes = std::vector<u8>;

using addrtext::Ip;

/* Writes the MAC address `text` into `mac`. */
void Mac(const char *text, u8 mac[6]) {
   memcpy(mac, addrtext::MacOf(text).data(), 6);
}

/* The 80-byte message about one IPv4 binding, built field by field. */
Bytes V4Message(u32 op, u16 vlan, const char *mac, const char *ip, u8 bound,
                u8 gratuitous, u8 discMethod) {
   Bytes msg(80, 0);
   const char *name = op == 0 ? "portdb.entry.added" : "portdb.entry.removed";
   memcpy(msg.data(), name, strlen(name));
   u64 payloadLen = 40;
   memcpy(&msg[32], &payloadLen, 8);
   memcpy(&msg[40], &op, 4);
   u32 one = 1;
   memcpy(&msg[44], &one, 4);
   memcpy(&msg[48], &vlan, 2);
   Mac(mac, &msg[50]);
   msg[56] = 1;
   u32 addr = Ip(ip);
   memcpy(&msg[60], &addr, 4);
   msg[76] = bound;
   msg[77] = gratuitous;
   msg[78] = discMethod;
   return msg;
}

std::string Hex(const Bytes &bytes) {
   static const char digits[] = "0123456789abcdef";
   std::string out;
   for (size_t i = 0; i < bytes.size(); i++) {
      if (i > 0 && i % 16 == 0) out += '\n';
      out += digits[bytes[i] >> 4];
      out += digits[bytes[i] & 15];
      out += ' ';
   }
   return out;
}

/* Leaves the stack below the caller full of non-zero bytes, as earlier
 * work would. */
__attribute__((noinline)) void DirtyStack() {
   volatile u8 junk[8192];
   for (size_t i = 0; i < sizeof junk; i++) junk[i] = (u8)(0xa5 ^ i);
   asm volatile("" : : "r"(junk) : "memory");
}

/* The server's DHCPACK for the VM's request: 192.0.2.50 for `lease`
 * seconds from 192.0.2.1. */
frames::Bytes DhcpAck(u32 lease) {
   using namespace Tins;
   DHCP dhcp;
   dhcp.opcode(BootP::BOOTREPLY);
   dhcp.htype(1);
   dhcp.hlen(6);
   dhcp.xid(0x12345678);
   dhcp.yiaddr(IPv4Address("192.0.2.50"));
   dhcp.siaddr(IPv4Address("192.0.2.1"));
   dhcp.chaddr(HWAddress<6>(frames::kVmMac));
   dhcp.type(DHCP::ACK);
   dhcp.lease_time(lease);
   dhcp.server_identifier(IPv4Address("192.0.2.1"));
   dhcp.end();
   EthernetII frame = EthernetII(HWAddress<6>(frames::kVmMac), HWAddress<6>(frames::kServerMac)) /
                      IP(IPv4Address("192.0.2.50"), IPv4Address("192.0.2.1")) /
                      UDP(68, 67) / dhcp;
   PDU::serialization_type raw = frame.serialize();
   return frames::Bytes(raw.begin(), raw.end());
}

} // namespace

class CpWorldTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      filter = AddFilter(kPort);
      ASSERT_EQ(VigilVmiHashAlloc(&filter->vmiHash), ZEK_OK);
      sim::TakePortsetMessages();
      sim::TakeLogs();
   }

   void TearDown() override {
      VigilFilter *locked = Vigil_LockFilter(kPort, true);
      while (!VigilListIsEmpty(&locked->expiredVmiList)) {
         VigilDelVmi(locked, VIGIL_VMI_FROM_EXPIRED(locked->expiredVmiList.next));
      }
      while (!VigilListIsEmpty(&locked->vmiList)) {
         VigilDelVmi(locked, VIGIL_VMI_FROM_EXPIRY(locked->vmiList.next));
      }
      while (!VigilListIsEmpty(&locked->dhcpReqList)) {
         VigilDelDhcpReq(locked, VIGIL_DHCP_REQ_FROM_LINKS(locked->dhcpReqList.next));
      }
      Vigil_UnlockFilter(locked, true);
      Vigil_HeapFree(filter->vmiHash);
      filter->vmiHash = nullptr;
      sim::FaultClear();
      VigilTest::TearDown();
   }

   /* Adds a binding under the write lock, with the stack left dirty first. */
   VigilVmi *AddBinding(u16 vlan, const char *mac, const char *ip, u8 method,
                        i64 expiryTs, u8 gratuitous = 0) {
      VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
      vmi->vlanId = vlan;
      Mac(mac, vmi->mac);
      vmi->ip = Ip(ip);
      vmi->discMethod = method;
      vmi->expiryTs = expiryTs;
      vmi->gratuitous = gratuitous;
      VigilFilter *locked = Vigil_LockFilter(kPort, true);
      DirtyStack();
      zek_Status status = VigilAddVmi(locked, vmi);
      Vigil_UnlockFilter(locked, true);
      EXPECT_EQ(status, ZEK_OK);
      return vmi;
   }

   void DelBinding(VigilVmi *vmi) {
      VigilFilter *locked = Vigil_LockFilter(kPort, true);
      DirtyStack();
      VigilDelVmi(locked, vmi);
      Vigil_UnlockFilter(locked, true);
   }

   /* The messages delivered since the last look, after the worlds settle. */
   static std::vector<sim::PortsetMessage> Delivered() {
      EXPECT_TRUE(sim::WaitIdle(5.0));
      return sim::TakePortsetMessages();
   }

   static void ExpectMessage(const sim::PortsetMessage &msg, const Bytes &bytes) {
      EXPECT_EQ(msg.portset, "vs0");
      EXPECT_EQ(msg.portID, kPort);
      EXPECT_EQ(msg.flags, kMsgFlags);
      EXPECT_EQ(msg.name, std::string(reinterpret_cast<const char *>(bytes.data())));
      EXPECT_EQ(Hex(msg.bytes), Hex(bytes));
   }

   /* A task as VigilPostPortsetMessage makes it. */
   static VigilCpTask *NewTask(u32 type, const Bytes &payload) {
      VigilCpTask *task =
         (VigilCpTask *)Vigil_HeapAlloc((u32)(sizeof(VigilCpTask) + payload.size()));
      task->type = type;
      memcpy(task->portsetName, "vs0", 4);
      task->portID = kPort;
      memcpy(task->msg, payload.data(), payload.size());
      return task;
   }

   VigilFilter *filter = nullptr;
};

using LogList = std::vector<std::pair<int, std::string>>;

/* Level and text of log lines. */
LogList Texts(const std::vector<sim::LogLine> &lines) {
   LogList out;
   for (const sim::LogLine &line : lines) {
      out.emplace_back(line.level, line.text);
   }
   return out;
}

TEST_F(CpWorldTest, AddedAndRemovedMessagesCarryEveryFieldOfTheBinding) {
   VigilVmi *vmi = AddBinding(7, "02:00:00:00:00:21", "198.51.100.7", VIGIL_DISC_DHCP,
                              kStart + 3600);
   DelBinding(vmi);
   auto msgs = Delivered();
   ASSERT_EQ(msgs.size(), 2u);
   ExpectMessage(msgs[0], V4Message(0, 7, "02:00:00:00:00:21", "198.51.100.7", 1, 0, 1));
   ExpectMessage(msgs[1], V4Message(1, 7, "02:00:00:00:00:21", "198.51.100.7", 1, 0, 1));
   EXPECT_TRUE(Texts(TakeModuleLogs()).empty());
}

TEST_F(CpWorldTest, NameFieldIsZeroBehindTheNameWhateverTheStackHeld) {
   VigilVmi vmi;
   memset(&vmi, 0, sizeof vmi);
   vmi.vlanId = 9;
   Mac("02:00:00:00:00:29", vmi.mac);
   vmi.ip = Ip("198.51.100.29");
   vmi.discMethod = VIGIL_DISC_DHCP;
   VigilFilter *locked = Vigil_LockFilter(kPort, true);
   DirtyStack();
   VigilPostPortDbMsg(locked, VIGIL_PORTDB_MSG_ADDED, &vmi);
   DirtyStack();
   VigilPostPortDbMsg(locked, VIGIL_PORTDB_MSG_REMOVED, &vmi);
   Vigil_UnlockFilter(locked, true);
   auto msgs = Delivered();
   ASSERT_EQ(msgs.size(), 2u);
   ExpectMessage(msgs[0], V4Message(0, 9, "02:00:00:00:00:29", "198.51.100.29", 1, 0, 1));
   ExpectMessage(msgs[1], V4Message(1, 9, "02:00:00:00:00:29", "198.51.100.29", 1, 0, 1));
}

TEST_F(CpWorldTest, StaticAndArpBindingsSayWhetherTheyAreBound) {
   AddBinding(1, "02:00:00:00:00:31", "198.51.100.31", VIGIL_DISC_STATIC, 0);
   AddBinding(1, "02:00:00:00:00:32", "198.51.100.32", VIGIL_DISC_ARP, kStart + 600);
   auto msgs = Delivered();
   ASSERT_EQ(msgs.size(), 2u);
   ExpectMessage(msgs[0], V4Message(0, 1, "02:00:00:00:00:31", "198.51.100.31", 1, 0, 4));
   ExpectMessage(msgs[1], V4Message(0, 1, "02:00:00:00:00:32", "198.51.100.32", 0, 0, 2));
}

TEST_F(CpWorldTest, DhcpExchangeAndArpBindingThroughThePacketLoopAreAnnouncedInOrder) {
   filter->discoveryFlags = VIGIL_DISC_DHCP | VIGIL_DISC_ARP;
   /* The VM asks, the server grants 120 seconds, the VM announces a second
    * address of its own. */
   zek_Pkt *request = frames::Make(
      frames::DhcpClient(frames::kVmMac, frames::kVmMac, "0.0.0.0", VIGIL_DHCPREQUEST));
   EXPECT_EQ(Tx(kPort, {request}), std::vector<std::string>{"forward"});
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   zek_Pkt *ack = frames::Make(DhcpAck(120));
   EXPECT_EQ(Rx(kPort, {ack}), std::vector<std::string>{"forward"});
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->numDhcpVmis, 1u);
   zek_Pkt *arp = frames::Make(
      frames::Arp(frames::kVmMac, frames::kVmMac, "192.0.2.60", "192.0.2.60"));
   EXPECT_EQ(Tx(kPort, {arp}), std::vector<std::string>{"forward"});
   EXPECT_EQ(filter->numArpVmis, 1u);

   auto msgs = Delivered();
   ASSERT_EQ(msgs.size(), 2u);
   ExpectMessage(msgs[0], V4Message(0, 0, frames::kVmMac, "192.0.2.50", 1, 0, 1));
   ExpectMessage(msgs[1], V4Message(0, 0, frames::kVmMac, "192.0.2.60", 0, 1, 2));

   /* The aging walk ends the lease one second after it runs out, and the
    * ARP binding after its 600 seconds. */
   zek_Uptime now;
   zek_GetUptime(&now);
   i64 leaseEnd = now.sec + 120, arpEnd = now.sec + 600;
   VigilFilter *locked = Vigil_LockFilter(kPort, true);
   VigilPortDbDoAging(locked, leaseEnd);
   Vigil_UnlockFilter(locked, true);
   EXPECT_TRUE(Delivered().empty());
   locked = Vigil_LockFilter(kPort, true);
   VigilPortDbDoAging(locked, leaseEnd + 1);
   Vigil_UnlockFilter(locked, true);
   msgs = Delivered();
   ASSERT_EQ(msgs.size(), 1u);
   ExpectMessage(msgs[0], V4Message(1, 0, frames::kVmMac, "192.0.2.50", 1, 0, 1));
   locked = Vigil_LockFilter(kPort, true);
   VigilPortDbDoAging(locked, arpEnd);
   Vigil_UnlockFilter(locked, true);
   EXPECT_TRUE(Delivered().empty());
   locked = Vigil_LockFilter(kPort, true);
   VigilPortDbDoAging(locked, arpEnd + 1);
   Vigil_UnlockFilter(locked, true);
   msgs = Delivered();
   ASSERT_EQ(msgs.size(), 1u);
   ExpectMessage(msgs[0], V4Message(1, 0, frames::kVmMac, "192.0.2.60", 0, 0, 2));
   EXPECT_EQ(filter->numVmis, 0u);
}

/* The same with the aging world running on the virtual clock. */
class CpWorldAgingTest : public CpWorldTest {
protected:
   bool RunAgingWorld() override { return true; }
};

TEST_F(CpWorldAgingTest, BindingsLearntFromFramesAreAnnouncedAndTheirEndsFollowOnTime) {
   filter->discoveryFlags = VIGIL_DISC_DHCP | VIGIL_DISC_ARP;
   zek_Pkt *request = frames::Make(
      frames::DhcpClient(frames::kVmMac, frames::kVmMac, "0.0.0.0", VIGIL_DHCPREQUEST));
   EXPECT_EQ(Tx(kPort, {request}), std::vector<std::string>{"forward"});
   sim::Advance(10.0);
   zek_Pkt *ack = frames::Make(DhcpAck(120));
   EXPECT_EQ(Rx(kPort, {ack}), std::vector<std::string>{"forward"});
   sim::Advance(10.0);
   zek_Pkt *arp = frames::Make(
      frames::Arp(frames::kVmMac, frames::kVmMac, "192.0.2.60", "192.0.2.60"));
   EXPECT_EQ(Tx(kPort, {arp}), std::vector<std::string>{"forward"});

   auto msgs = Delivered();
   ASSERT_EQ(msgs.size(), 2u);
   ExpectMessage(msgs[0], V4Message(0, 0, frames::kVmMac, "192.0.2.50", 1, 0, 1));
   ExpectMessage(msgs[1], V4Message(0, 0, frames::kVmMac, "192.0.2.60", 0, 1, 2));

   /* Lease granted at 1010 for 120 s: gone at 1131, not at 1130.999. */
   sim::Advance(110.999);
   EXPECT_TRUE(Delivered().empty());
   sim::Advance(0.001);
   msgs = Delivered();
   ASSERT_EQ(msgs.size(), 1u);
   ExpectMessage(msgs[0], V4Message(1, 0, frames::kVmMac, "192.0.2.50", 1, 0, 1));
   /* ARP binding seen at 1020 for 600 s: gone at 1621. */
   sim::Advance(489.999);
   EXPECT_TRUE(Delivered().empty());
   sim::Advance(0.001);
   msgs = Delivered();
   ASSERT_EQ(msgs.size(), 1u);
   ExpectMessage(msgs[0], V4Message(1, 0, frames::kVmMac, "192.0.2.60", 0, 0, 2));
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_TRUE(sim::PriQContents(filterAgingQ).empty());
}

TEST_F(CpWorldTest, BindingOfVlanZeroGetsTheSameRecordAsAnyOther) {
   AddBinding(0, "02:00:00:00:00:41", "203.0.113.41", VIGIL_DISC_DHCP, kStart + 60);
   AddBinding(4094, "02:00:00:00:00:41", "203.0.113.41", VIGIL_DISC_DHCP, kStart + 60);
   auto msgs = Delivered();
   ASSERT_EQ(msgs.size(), 2u);
   ExpectMessage(msgs[0], V4Message(0, 0, "02:00:00:00:00:41", "203.0.113.41", 1, 0, 1));
   ExpectMessage(msgs[1], V4Message(0, 4094, "02:00:00:00:00:41", "203.0.113.41", 1, 0, 1));
   Bytes zero = msgs[0].bytes, other = msgs[1].bytes;
   zero[48] = zero[49] = other[48] = other[49] = 0;
   EXPECT_EQ(Hex(zero), Hex(other)) << "only the VLAN differs";
}

TEST_F(CpWorldTest, TwelveBytesBehindAnIpv4AddressAreZero) {
   AddBinding(3, "02:00:00:00:00:51", "255.255.255.254", VIGIL_DISC_ARP, kStart + 60);
   auto msgs = Delivered();
   ASSERT_EQ(msgs.size(), 1u);
   ASSERT_EQ(msgs[0].bytes.size(), 80u);
   EXPECT_EQ(Hex(Bytes(msgs[0].bytes.begin() + 60, msgs[0].bytes.begin() + 64)),
             "ff ff ff fe ");
   EXPECT_EQ(Hex(Bytes(msgs[0].bytes.begin() + 64, msgs[0].bytes.begin() + 76)),
             Hex(Bytes(12, 0)));
   EXPECT_EQ(msgs[0].bytes[56], 1) << "isIpv4";
}

TEST_F(CpWorldTest, GratuitousArpBindingIsMarkedInItsAddedMessageOnly) {
   VigilVmi *vmi = AddBinding(2, "02:00:00:00:00:61", "192.0.2.61", VIGIL_DISC_ARP,
                              kStart + 600, 1);
   EXPECT_EQ(vmi->gratuitous, 0) << "the record reads 0 once announced";
   DelBinding(vmi);
   auto msgs = Delivered();
   ASSERT_EQ(msgs.size(), 2u);
   ExpectMessage(msgs[0], V4Message(0, 2, "02:00:00:00:00:61", "192.0.2.61", 0, 1, 2));
   ExpectMessage(msgs[1], V4Message(1, 2, "02:00:00:00:00:61", "192.0.2.61", 0, 0, 2));
}

TEST_F(CpWorldTest, TaskOfAnotherTypeIsRefusedBeforeTheLockIsTaken) {
   ASSERT_TRUE(sim::WaitIdle(5.0));
   sim::LockCounts before = sim::GetLockCounts(taskQLock);
   VigilCpTask *task = NewTask(1, V4Message(0, 0, "02:00:00:00:00:71", "192.0.2.71", 1, 0, 1));
   EXPECT_EQ(VigilCPWorldPostTask(task), VIGIL_STATUS_NOT_SUPPORTED);
   EXPECT_EQ(sim::GetLockCounts(taskQLock).exclusives, before.exclusives);
   EXPECT_EQ(taskQueue.count, 0u);
   EXPECT_EQ(taskQueue.head, nullptr);
   Vigil_HeapFree(task); /* refused: still the caller's */
   EXPECT_EQ(VigilCPWorldPostTask(nullptr), VIGIL_STATUS_BAD_PARAM);
   EXPECT_TRUE(Delivered().empty());
}

TEST_F(CpWorldTest, FlushOfAnEmptyQueueLogsNothing) {
   ASSERT_TRUE(sim::WaitIdle(5.0));
   sim::TakeLogs();
   VigilCPWorldFlushTaskQ();
   EXPECT_TRUE(sim::TakeLogs().empty());
}

TEST_F(CpWorldTest, FiveHundredThirteenthTaskIsRefusedAndTheFirstFiveHundredTwelveGoOutInOrder) {
   /* The world is stopped and a queue kept without it, so that nothing is
    * taken off while the queue fills. */
   ASSERT_EQ(VigilCPWorldDestroy(), ZEK_OK);
   ASSERT_EQ(VigilAtomicLoad(&cpWorldID), 0u);
   ASSERT_EQ(VigilCreateLock("vigil.cpWorldQ", ZEK_SPINLOCK_ORDINARY, VIGIL_RANK_CP_WORLD_Q,
                             &taskQLock),
             ZEK_OK);
   VigilAtomicStore(&cpWorldID, (u32)(0xfffffff0u)); /* taken for running */
   sim::TakeLogs();

   std::vector<Bytes> sent;
   for (u32 i = 0; i < VIGIL_TASK_Q_MAX; i++) {
      char ip[32];
      snprintf(ip, sizeof ip, "10.0.%u.%u", i / 256, i % 256);
      sent.push_back(V4Message(i % 2, (u16)i, "02:00:00:00:01:00", ip, 1, 0, 1));
      ASSERT_EQ(VigilPostPortsetMessage("vs0", kPort, sent.back().data(), 80), ZEK_OK) << i;
   }
   EXPECT_EQ(taskQueue.count, VIGIL_TASK_Q_MAX);

   u64 allocations = sim::GetHeapStats(heapID).allocations;
   Bytes extra = V4Message(0, 999, "02:00:00:00:02:00", "10.9.9.9", 1, 0, 1);
   EXPECT_EQ(VigilPostPortsetMessage("vs0", kPort, extra.data(), 80), VIGIL_STATUS_LIMIT);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, allocations) << "the refused task is freed";
   VigilCpTask *task = NewTask(0, extra);
   EXPECT_EQ(VigilCPWorldPostTask(task), VIGIL_STATUS_LIMIT);
   Vigil_HeapFree(task);
   EXPECT_EQ(taskQueue.count, VIGIL_TASK_Q_MAX);
   EXPECT_EQ((LogList{{1, "Unable to post portDB portset message to CPWorld: Limit exceeded"}}),
             Texts(TakeModuleLogs()));

   /* A binding added now is kept, and its message is lost, logged twice. */
   VigilVmi *vmi = AddBinding(5, "02:00:00:00:03:00", "10.8.8.8", VIGIL_DISC_DHCP, kStart + 60);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(WithReadHold(filter->portID,
                          [&] { return VigilFindVmi(filter, 5, vmi->mac, vmi->ip); }),
             vmi);
   EXPECT_EQ((LogList{{1, "Unable to post portDB portset message to CPWorld: Limit exceeded"},
                      {2, "Filter 0x10 Could not post message:portdb.entry.added:Limit exceeded"}}),
             Texts(TakeModuleLogs()));
   EXPECT_TRUE(sim::TakePortsetMessages().empty());

   VigilAtomicStore(&exitCPWorld, (u8)(0));
   ASSERT_EQ(VigilCreateWorld("VigilCPWorld", VigilCPWorld, &cpWorldID), ZEK_OK);
   auto msgs = Delivered();
   ASSERT_EQ(msgs.size(), (size_t)VIGIL_TASK_Q_MAX);
   for (u32 i = 0; i < VIGIL_TASK_Q_MAX; i++) {
      ExpectMessage(msgs[i], sent[i]);
      if (HasFailure()) {
         FAIL() << "message " << i;
      }
   }
   EXPECT_EQ(taskQueue.count, 0u);
}

TEST_F(CpWorldTest, AfterDestroyPostsFailAsNotRunningAndNothingElseChanges) {
   VigilVmi *kept = AddBinding(1, "02:00:00:00:00:81", "192.0.2.81", VIGIL_DISC_DHCP,
                               kStart + 60);
   ASSERT_EQ(Delivered().size(), 1u);
   ASSERT_EQ(VigilCPWorldDestroy(), ZEK_OK);
   EXPECT_EQ(VigilAtomicLoad(&cpWorldID), 0u);
   EXPECT_EQ(taskQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(sim::LiveWorlds(), 0u);
   sim::TakeLogs();
   u64 allocations = sim::GetHeapStats(heapID).allocations;

   Bytes payload = V4Message(0, 1, "02:00:00:00:00:82", "192.0.2.82", 1, 0, 1);
   EXPECT_EQ(VigilPostPortsetMessage("vs0", kPort, payload.data(), 80),
             VIGIL_STATUS_NOT_INITIALIZED);
   VigilCpTask *task = NewTask(0, payload);
   EXPECT_EQ(VigilCPWorldPostTask(task), VIGIL_STATUS_NOT_INITIALIZED);
   task->type = 1; /* the running check comes first */
   EXPECT_EQ(VigilCPWorldPostTask(task), VIGIL_STATUS_NOT_INITIALIZED);
   Vigil_HeapFree(task);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, allocations);
   EXPECT_EQ((LogList{{1, "Unable to post portDB portset message to CPWorld: Not initialized"}}),
             Texts(TakeModuleLogs()));

   /* The database changes all the same; only the messages are lost. */
   VigilVmi *added = AddBinding(1, "02:00:00:00:00:83", "192.0.2.83", VIGIL_DISC_ARP,
                                kStart + 60);
   EXPECT_EQ(filter->numVmis, 2u);
   DelBinding(kept);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(WithReadHold(filter->portID,
                          [&] { return VigilFindVmi(filter, 1, added->mac, added->ip); }),
             added);
   EXPECT_EQ(sim::GetHeapStats(heapID).allocations, allocations);
   EXPECT_EQ((LogList{
                {1, "Unable to post portDB portset message to CPWorld: Not initialized"},
                {2, "Filter 0x10 Could not post message:portdb.entry.added:Not initialized"},
                {1, "Unable to post portDB portset message to CPWorld: Not initialized"},
                {2, "Filter 0x10 Could not post message:portdb.entry.removed:Not initialized"}}),
             Texts(TakeModuleLogs()));
   EXPECT_TRUE(sim::TakePortsetMessages().empty());
   EXPECT_EQ(taskQueue.head, nullptr);
   EXPECT_EQ(taskQueue.tail, nullptr);
   EXPECT_EQ(taskQueue.count, 0u);
   EXPECT_EQ(VigilAtomicLoad(&cpWorldID), 0u);
   EXPECT_EQ(taskQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(sim::LiveWorlds(), 0u);
   EXPECT_EQ(VigilCPWorldDestroy(), ZEK_OK) << "a second stop finds nothing to do";
}

TEST_F(CpWorldTest, PortsetGoneByDeliveryLosesTheMessageWithALog) {
   sim::FaultCall("PortsetAcquireByName", VIGIL_STATUS_NOT_FOUND);
   AddBinding(1, "02:00:00:00:00:91", "192.0.2.91", VIGIL_DISC_DHCP, kStart + 60);
   EXPECT_TRUE(Delivered().empty());
   EXPECT_EQ((LogList{{2, "Unable to acquire portset from name: vs0, status: Not found"}}),
             Texts(TakeModuleLogs()));
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
}

TEST_F(CpWorldTest, StopDropsTheTasksStillQueued) {
   ASSERT_EQ(VigilCPWorldDestroy(), ZEK_OK);
   ASSERT_EQ(VigilCreateLock("vigil.cpWorldQ", ZEK_SPINLOCK_ORDINARY, VIGIL_RANK_CP_WORLD_Q,
                             &taskQLock),
             ZEK_OK);
   VigilAtomicStore(&cpWorldID, (u32)(0xfffffff0u));
   Bytes payload = V4Message(0, 1, "02:00:00:00:00:a1", "192.0.2.161", 1, 0, 1);
   for (int i = 0; i < 3; i++) {
      ASSERT_EQ(VigilPostPortsetMessage("vs0", kPort, payload.data(), 80), ZEK_OK);
   }
   sim::TakeLogs();
   VigilAtomicStore(&cpWorldID, (u32)(0)); /* nothing to wait for */
   EXPECT_EQ(VigilCPWorldDestroy(), ZEK_OK);
   EXPECT_EQ((LogList{{1, "cpWorld taskQ flushed, cnt: 3"}}), Texts(TakeModuleLogs()));
   EXPECT_EQ(taskQueue.count, 0u);
   EXPECT_TRUE(sim::TakePortsetMessages().empty());
}

/* The world handling tasks that were queued while it was away. */
class CpWorldBatchTest : public CpWorldTest {
protected:
   /* Stops the world and keeps a queue without it, so that posted tasks
    * wait until StartWorld. */
   void HoldTasks() {
      ASSERT_EQ(VigilCPWorldDestroy(), ZEK_OK);
      ASSERT_EQ(VigilCreateLock("vigil.cpWorldQ", ZEK_SPINLOCK_ORDINARY,
                                VIGIL_RANK_CP_WORLD_Q, &taskQLock),
                ZEK_OK);
      VigilAtomicStore(&cpWorldID, (u32)(0xfffffff0u)); /* taken for running */
   }

   /* Queues `n` messages, each to a binding of its own. */
   void PostMessages(u32 n) {
      for (u32 i = 0; i < n; i++) {
         char ip[32];
         snprintf(ip, sizeof ip, "10.1.%u.%u", next_ / 256, next_ % 256);
         Bytes msg = V4Message(0, 1, "02:00:00:00:04:00", ip, 1, 0, 1);
         next_++;
         ASSERT_EQ(VigilPostPortsetMessage("vs0", kPort, msg.data(), 80), ZEK_OK);
      }
   }

   /* Starts a world on the queue as it stands and waits until it has run
    * dry.  The posts woke a world that wasn't there; that wake is taken
    * first, so that the new world looks at the queue only for its tasks. */
   zek_WorldID StartWorld() {
      EXPECT_EQ(zek_WorldWait(&cpWorldID, nullptr, 0, "test"), ZEK_OK);
      VigilAtomicStore(&cpWorldID, (u32)(0));
      VigilAtomicStore(&exitCPWorld, (u8)(0));
      zek_WorldID id = 0;
      EXPECT_EQ(VigilCreateWorld("VigilCPWorld", VigilCPWorld, &id), ZEK_OK);
      VigilAtomicStore(&cpWorldID, (u32)(id));
      EXPECT_TRUE(sim::WaitIdle(5.0));
      return id;
   }

   /* Level and text of the world's own lines since the last look. */
   static LogList WorldLines() {
      EXPECT_TRUE(sim::WaitIdle(5.0));
      LogList out;
      for (const sim::LogLine &line : sim::TakeLogs()) {
         if (line.func == "VigilCPWorld") {
            EXPECT_EQ(line.log, "vigil");
            out.emplace_back(line.level, line.text);
         }
      }
      return out;
   }

   u32 next_ = 0;
};

TEST_F(CpWorldBatchTest, WorldGivesWayAfterEveryThirtyTwoTasksInARow) {
   HoldTasks();
   PostMessages(100);
   zek_WorldID id = StartWorld();
   EXPECT_EQ(Delivered().size(), 100u);
   EXPECT_EQ(taskQueue.count, 0u);
   EXPECT_EQ(sim::WorldYields(id), 3u) << "after the 32nd, the 64th and the 96th";

   HoldTasks();
   PostMessages(32);
   id = StartWorld();
   EXPECT_EQ(Delivered().size(), 32u);
   EXPECT_EQ(sim::WorldYields(id), 1u);
}

TEST_F(CpWorldBatchTest, QueueRunningDryStartsTheCountOfTasksAfresh) {
   HoldTasks();
   PostMessages(31);
   zek_WorldID id = StartWorld();
   EXPECT_EQ(Delivered().size(), 31u);
   EXPECT_EQ(sim::WorldYields(id), 0u);
   /* The 32nd task of this world, but the first since its queue was
    * empty. */
   PostMessages(1);
   EXPECT_EQ(Delivered().size(), 1u);
   EXPECT_EQ(sim::WorldYields(id), 0u);
   PostMessages(1);
   EXPECT_EQ(Delivered().size(), 1u);
   EXPECT_EQ(sim::WorldYields(id), 0u);
}

TEST_F(CpWorldBatchTest, AtVerbosityTwoTheWorldTellsTheQueueLengthEachTimeItLooks) {
   HoldTasks();
   PostMessages(3);
   ASSERT_TRUE(sim::SetLogLevel("vigil", 2));
   sim::TakeLogs();
   StartWorld();
   EXPECT_EQ((LogList{{1, "CPWorld is Started"},
                      {1, "taskQ has 3 tasks"},
                      {1, "taskQ has 2 tasks"},
                      {1, "taskQ has 1 tasks"},
                      {1, "taskQ has 0 tasks"},
                      {1, "Task queue empty"}}),
             WorldLines());
   EXPECT_EQ(Delivered().size(), 3u);

   /* Below verbosity 2 the world looks at its queue without saying so. */
   ASSERT_TRUE(sim::SetLogLevel("vigil", 1));
   PostMessages(1);
   EXPECT_EQ(Delivered().size(), 1u);
   EXPECT_EQ((LogList{{1, "Task queue empty"}}), WorldLines());
   ASSERT_TRUE(sim::SetLogLevel("vigil", 0));
}

/* Start and stop of the world, with the fixture's world out of the way. */
class CpWorldInitTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      ASSERT_EQ(VigilCPWorldDestroy(), ZEK_OK);
      ASSERT_EQ(taskQLock, VIGIL_NO_LOCK);
      ASSERT_EQ(VigilAtomicLoad(&cpWorldID), 0u);
      locks_ = sim::LiveLocks();
      worlds_ = sim::LiveWorlds();
      sim::TakeLogs();
   }
   void TearDown() override {
      sim::FaultClear();
      VigilTest::TearDown();
   }

   u32 locks_ = 0;
   u32 worlds_ = 0;
};

TEST_F(CpWorldInitTest, InitCreatesTheRankFiveLockAndTheWorld) {
   taskQueue.count = 7; /* whatever was there is forgotten */
   ASSERT_EQ(VigilCPWorldInit(), ZEK_OK);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(taskQueue.count, 0u);
   EXPECT_EQ(sim::LockName(taskQLock), "vigil.cpWorldQ");
   EXPECT_NE(VigilAtomicLoad(&cpWorldID), 0u);
   EXPECT_EQ(VigilAtomicLoad(&exitCPWorld), 0);
   EXPECT_EQ(sim::LiveWorlds(), worlds_ + 1);
   LogList world;
   for (const sim::LogLine &line : sim::TakeLogs()) {
      world.emplace_back(line.level, line.func + ": " + line.text);
   }
   EXPECT_EQ((LogList{{1, "VigilCPWorld: CPWorld is Started"},
                      {1, "VigilCPWorld: Task queue empty"}}),
             world);

   EXPECT_EQ(VigilCPWorldDestroy(), ZEK_OK);
   EXPECT_EQ(VigilAtomicLoad(&cpWorldID), 0u);
   EXPECT_EQ(taskQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(sim::LiveWorlds(), worlds_);
   EXPECT_EQ(sim::LiveLocks(), locks_);
   world.clear();
   for (const sim::LogLine &line : sim::TakeLogs()) {
      world.emplace_back(line.level, line.func + ": " + line.text);
   }
   EXPECT_EQ((LogList{{1, "VigilCPWorld: Exiting CPWorld - exit: 0x1"}}), world);
}

TEST_F(CpWorldInitTest, LockCreationFailureIsLoggedAndReturned) {
   sim::FaultCall("SpinlockCreate", VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ(VigilCPWorldInit(), VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ((LogList{{2, "Could not create cpWorld TaskQ lock, status: Out of memory"}}),
             Texts(TakeModuleLogs()));
   EXPECT_EQ(taskQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(VigilAtomicLoad(&cpWorldID), 0u);
   EXPECT_EQ(sim::LiveWorlds(), worlds_);
   EXPECT_EQ(sim::LiveLocks(), locks_);

   EXPECT_EQ(VigilCPWorldDestroy(), ZEK_OK);
   EXPECT_TRUE(Texts(TakeModuleLogs()).empty());
}

TEST_F(CpWorldInitTest, WorldCreationFailureIsLoggedAndDestroyRemovesTheLock) {
   sim::FaultCall("WorldCreate", VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ(VigilCPWorldInit(), VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ((LogList{{2, "Failed to create cpWorld: Out of memory"}}), Texts(TakeModuleLogs()));
   EXPECT_NE(taskQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(sim::LiveLocks(), locks_ + 1);
   EXPECT_EQ(VigilAtomicLoad(&cpWorldID), 0u);
   EXPECT_EQ(sim::LiveWorlds(), worlds_);
   Bytes payload = V4Message(0, 1, "02:00:00:00:00:b1", "192.0.2.177", 1, 0, 1);
   EXPECT_EQ(VigilPostPortsetMessage("vs0", kPort, payload.data(), 80),
             VIGIL_STATUS_NOT_INITIALIZED);

   EXPECT_EQ(VigilCPWorldDestroy(), ZEK_OK);
   EXPECT_EQ(taskQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(sim::LiveLocks(), locks_);
   EXPECT_EQ((LogList{{1, "Unable to post portDB portset message to CPWorld: Not initialized"}}),
             Texts(TakeModuleLogs()));
}

TEST_F(CpWorldInitTest, FailedWaitForTheWorldsEndIsLoggedByTheCommonCleanupWhichGoesOn) {
   ASSERT_EQ(VigilCPWorldInit(), ZEK_OK);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   zek_WorldID id = VigilAtomicLoad(&cpWorldID);
   ASSERT_NE(id, 0u);
   /* The world ends first, so that nothing of it runs while the clean-up
    * takes its lock away; the host keeps it until its death is waited
    * for. */
   VigilAtomicStore(&exitCPWorld, (u8)(1));
   zek_WorldWakeup(&cpWorldID);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   ASSERT_EQ(VigilAtomicLoad(&cpWorldID), 0u);
   VigilAtomicStore(&cpWorldID, (u32)(id));
   sim::TakeLogs();

   sim::FaultCall("WorldWaitForDeath", VIGIL_STATUS_FAILURE);
   VigilGenericCleanup();
   EXPECT_EQ((LogList{{1, "Starting VigilGenericCleanup"}, {2, "Error destroying CPWorld"}}),
             Texts(TakeModuleLogs()));
   EXPECT_EQ(taskQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(filterAgingQLock, VIGIL_NO_LOCK) << "the aging world went after it";
   EXPECT_EQ(filterAgingQ, nullptr);
   EXPECT_EQ(lockDomain, VIGIL_INVALID_LOCK_DOMAIN);
   EXPECT_EQ(logHandle, nullptr);
   EXPECT_FALSE(sim::LogHandleExists("vigil"));
   EXPECT_EQ(heapID, nullptr);

   /* The world is still the host's until its death is waited for. */
   EXPECT_EQ(sim::LiveWorlds(), worlds_ + 1);
   zek_Status status;
   do {
      status = zek_WorldWaitForDeath(id);
   } while (status == VIGIL_STATUS_WAIT_AGAIN || status == VIGIL_STATUS_INTERRUPTED);
   EXPECT_EQ(status, ZEK_OK);
   EXPECT_EQ(sim::LiveWorlds(), worlds_);
   VigilAtomicStore(&cpWorldID, (u32)(0));
   RecreateHeapLogAndLockDomain();
}
