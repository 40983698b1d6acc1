/*
 * ARP snooping through the packet loop: requests, replies and gratuitous
 * ARP learn bindings of the sender; probes, link-local senders and other
 * operations teach nothing; a frame refreshes an ARP binding and leaves
 * other bindings alone; heap exhaustion lets the frame pass.
 */
#include "ipv4_db_test.h"

using namespace v4db;

namespace {

const char *const kVmIp = "192.0.2.10";
const char *const kPeerIp = "192.0.2.1";
constexpr u32 kArpOpOffset = 14 + 6;

Bytes ArpRequest(const std::string &senderMac, const std::string &senderIp,
                 const std::string &targetIp) {
   return frames::Arp(senderMac, senderMac, senderIp, targetIp, false);
}

Bytes ArpReply(const std::string &senderMac, const std::string &senderIp,
               const std::string &targetIp) {
   return frames::Arp(senderMac, senderMac, senderIp, targetIp, true);
}

} // namespace

class ArpSnoopTest : public Ipv4DbTest {};

TEST_F(ArpSnoopTest, RequestLearnsTheSenderAfterOneRelock) {
   const i64 at = Uptime();
   sim::LockCounts before = Locks();
   sim::FrameOptions opts;
   opts.vlan = 5;
   EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, kVmIp, kPeerIp), opts), "forward");
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes - before.writes, 1u);

   VigilVmi *vmi = Find(5, frames::kVmMac, kVmIp);
   ASSERT_NE(vmi, nullptr);
   EXPECT_EQ(vmi->discMethod, VIGIL_DISC_ARP);
   EXPECT_EQ(vmi->expiryTs, at + 600);
   EXPECT_EQ(vmi->gratuitous, 0);
   EXPECT_EQ(vmi->clientIdStr, nullptr);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(filter->agingKey, at + 600);
   EXPECT_EQ(QueuedKey(), at + 600);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{ArpAdded(5, frames::kVmMac, kVmIp)});
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectNoLeak();
}

TEST_F(ArpSnoopTest, ReplyLearnsTheSender) {
   EXPECT_EQ(Tx1(ArpReply(frames::kVmMac, kVmIp, kPeerIp)), "forward");
   ASSERT_NE(Find(0, frames::kVmMac, kVmIp), nullptr);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{ArpAdded(0, frames::kVmMac, kVmIp)});
}

TEST_F(ArpSnoopTest, TheSenderHardwareAddressIsLearntNotTheEthernetSource) {
   const char *inner = "02:00:00:00:00:77";
   EXPECT_EQ(Tx1(frames::Arp(frames::kVmMac, inner, kVmIp, kPeerIp)), "forward");
   EXPECT_EQ(Find(0, frames::kVmMac, kVmIp), nullptr);
   EXPECT_NE(Find(0, inner, kVmIp), nullptr);
}

TEST_F(ArpSnoopTest, GratuitousArpIsPublishedWithTheByteSetAndRepeatedOnlyRefreshes) {
   const i64 at = Uptime();
   Bytes garp = ArpRequest(frames::kVmMac, kVmIp, kVmIp);
   EXPECT_EQ(Tx1(garp), "forward");
   VigilVmi *vmi = Find(0, frames::kVmMac, kVmIp);
   ASSERT_NE(vmi, nullptr);
   EXPECT_EQ(vmi->gratuitous, 0) << "the byte is cleared once published";
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{ArpAdded(0, frames::kVmMac, kVmIp, 1)});

   sim::Advance(100);
   EXPECT_EQ(Tx1(garp), "forward");
   EXPECT_EQ(Find(0, frames::kVmMac, kVmIp), vmi);
   EXPECT_EQ(vmi->expiryTs, at + 100 + 600);
   EXPECT_EQ(filter->agingKey, at + 100 + 600);
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(TakeMessages().size(), 0u) << "a refresh publishes nothing";
}

TEST_F(ArpSnoopTest, GratuitousBindingIsRemovedWithTheByteClear) {
   EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, kVmIp, kVmIp)), "forward");
   TakeMessages();
   sim::Advance(601);
   Age();
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{ArpRemoved(0, frames::kVmMac, kVmIp)});
}

TEST_F(ArpSnoopTest, ProbeAndLinkLocalSendersPassWithoutLearningOrRelocking) {
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, "0.0.0.0", kVmIp)), "forward");
   EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, "169.254.10.20", "169.254.10.20")), "forward");
   EXPECT_EQ(Tx1(ArpReply(frames::kVmMac, "169.254.0.1", kPeerIp)), "forward");
   EXPECT_EQ(Locks().writes, before.writes);
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   /* 169.253.x.y and 169.255.x.y are ordinary addresses. */
   EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, "169.253.0.1", kPeerIp)), "forward");
   EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, "169.255.0.1", kPeerIp)), "forward");
   EXPECT_EQ(filter->numArpVmis, 2u);
}

TEST_F(ArpSnoopTest, OperationThreeChangesNothingAndDoesNotAskForTheWriteLock) {
   Bytes frame = ArpRequest(frames::kVmMac, kVmIp, kPeerIp);
   frame[kArpOpOffset] = 0;
   frame[kArpOpOffset + 1] = 3;
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(frame), "forward");
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes, before.writes);
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
}

TEST_F(ArpSnoopTest, ArpIsNotSnoopedOnReceiveNorWithArpSnoopingOff) {
   sim::LockCounts before = Locks();
   EXPECT_EQ(Rx1(ArpRequest(frames::kVmMac, kVmIp, kPeerIp)), "forward");
   filter->discoveryFlags = VIGIL_DISC_DHCP;
   EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, kVmIp, kPeerIp)), "forward");
   EXPECT_EQ(Locks().writes, before.writes);
   EXPECT_EQ(filter->numVmis, 0u);
}

TEST_F(ArpSnoopTest, ArpForTheKeyOfADhcpBindingDoesNotExtendTheLease) {
   Client vm = ClientOf(frames::kVmMac, 0x77);
   Bind(vm, kLeaseIp, 600);
   VigilVmi *dhcp = Find(0, vm.mac, kLeaseIp);
   const i64 expiry = dhcp->expiryTs;
   TakeMessages();
   sim::Advance(300);
   EXPECT_EQ(Tx1(ArpRequest(vm.mac, kLeaseIp, kPeerIp)), "forward");
   EXPECT_EQ(Find(0, vm.mac, kLeaseIp), dhcp);
   EXPECT_EQ(dhcp->discMethod, VIGIL_DISC_DHCP);
   EXPECT_EQ(dhcp->expiryTs, expiry);
   EXPECT_EQ(filter->numArpVmis, 0u);
   EXPECT_EQ(filter->agingKey, expiry);
   EXPECT_EQ(TakeMessages().size(), 0u);
}

TEST_F(ArpSnoopTest, DhcpAckReplacesAnArpBindingOfTheSameKey) {
   Client vm = ClientOf(frames::kVmMac, 0x78);
   EXPECT_EQ(Tx1(ArpRequest(vm.mac, kLeaseIp, kPeerIp)), "forward");
   TakeMessages();
   Bind(vm);
   EXPECT_EQ(Find(0, vm.mac, kLeaseIp)->discMethod, VIGIL_DISC_DHCP);
   EXPECT_EQ(filter->numArpVmis, 0u);
   EXPECT_EQ(MessageBytes(), (std::vector<Bytes>{ArpRemoved(0, vm.mac, kLeaseIp),
                                                 DhcpAdded(0, vm.mac, kLeaseIp)}));
}

TEST_F(ArpSnoopTest, WithDeleteOnExpiryOffAnExpiredBindingSeenAgainRunsAgain) {
   SetDeleteExpiry(0);
   EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, kVmIp, kPeerIp)), "forward");
   VigilVmi *vmi = Find(0, frames::kVmMac, kVmIp);
   ASSERT_NE(vmi, nullptr);
   TakeMessages();
   sim::Advance(601);
   Age();
   EXPECT_EQ(ExpiredList(), std::vector<VigilVmi *>{vmi});
   EXPECT_EQ(VmiList(), std::vector<VigilVmi *>());
   EXPECT_EQ(filter->numExpiredVmis, 1u);
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
   EXPECT_EQ(Find(0, frames::kVmMac, kVmIp), vmi) << "still found while expired";

   const i64 seen = Uptime();
   EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, kVmIp, kPeerIp)), "forward");
   EXPECT_EQ(Find(0, frames::kVmMac, kVmIp), vmi);
   EXPECT_EQ(filter->numExpiredVmis, 0u);
   EXPECT_EQ(ExpiredList(), std::vector<VigilVmi *>());
   EXPECT_EQ(VmiList(), std::vector<VigilVmi *>{vmi});
   EXPECT_EQ(vmi->expiryTs, seen + 600);
   EXPECT_EQ(filter->agingKey, seen + 600);
   EXPECT_EQ(QueuedKey(), seen + 600);
   EXPECT_EQ(TakeMessages().size(), 0u);
}

TEST_F(ArpSnoopTest, ArpLimitRefusesTheNextBindingWhenNoneIsExpired) {
   filter->portDbArpEntriesSize = 3;
   std::vector<zek_Pkt *> batch;
   for (int i = 1; i <= 4; i++) {
      batch.push_back(frames::Make(
         ArpRequest(frames::kVmMac, "192.0.2." + std::to_string(100 + i), kPeerIp)));
   }
   EXPECT_EQ(Tx(kPort, batch), std::vector<std::string>(4, "forward"));
   EXPECT_EQ(filter->numArpVmis, 3u);
   EXPECT_EQ(Find(0, frames::kVmMac, "192.0.2.104"), nullptr);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 Exceeding the max ARP portDbSize 3"});
   EXPECT_EQ(TakeMessages().size(), 3u);
   ExpectNoLeak();
}

TEST_F(ArpSnoopTest, HeapExhaustionOnAnArpRequest) {
   ForEachAllocFailure(
      2, [] {}, [this] { EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, kVmIp, kVmIp)), "forward"); },
      [this](u32 n) {
         std::vector<std::string> logs = LogTexts();
         std::vector<Bytes> messages = MessageBytes();
         switch (n) {
         case 0:
            EXPECT_NE(Find(0, frames::kVmMac, kVmIp), nullptr);
            EXPECT_EQ(messages, std::vector<Bytes>{ArpAdded(0, frames::kVmMac, kVmIp, 1)});
            EXPECT_EQ(logs, std::vector<std::string>());
            break;
         case 1:
            EXPECT_EQ(filter->numVmis, 0u);
            EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
            EXPECT_EQ(messages.size(), 0u);
            EXPECT_EQ(logs, std::vector<std::string>{"Filter 0x10 Vmi alloc failed"});
            break;
         case 2: /* learnt; the message is lost */
            EXPECT_NE(Find(0, frames::kVmMac, kVmIp), nullptr);
            EXPECT_EQ(Find(0, frames::kVmMac, kVmIp)->gratuitous, 0);
            EXPECT_EQ(messages.size(), 0u);
            EXPECT_EQ(logs, (std::vector<std::string>{
                               "Unable to allocate memory, port: 0x10",
                               "Filter 0x10 Could not post message:portdb.entry.added:"
                               "Out of memory"}));
            break;
         }
      });
}

TEST_F(ArpSnoopTest, HeapExhaustionOnARefreshAllocatesNothing) {
   ForEachAllocFailure(
      0, [this] { EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, kVmIp, kPeerIp)), "forward"); },
      [this] { EXPECT_EQ(Tx1(ArpRequest(frames::kVmMac, kVmIp, kPeerIp)), "forward"); },
      [this](u32) {
         EXPECT_EQ(filter->numArpVmis, 1u);
         EXPECT_EQ(LogTexts(), std::vector<std::string>());
      });
}
