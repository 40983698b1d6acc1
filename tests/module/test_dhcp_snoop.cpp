/*
 * DHCP snooping through the packet loop: client messages on transmit,
 * server replies on receive, the pending requests they leave, the bindings
 * they make and end, the portset messages, frames split over the mapped
 * part and scatter-gather elements, malformed messages and heap
 * exhaustion.
 */
#include "ipv4_db_test.h"

using namespace v4db;

namespace {

const char *const kOtherIp = "192.0.2.60";
constexpr u16 kVlan = 7;

/* Frame layout of the messages built here: Ethernet 14, IPv4 20, UDP 8, so
 * the DHCP message starts at 42, its options at 282, and the frame is 342
 * bytes long. */
constexpr u32 kUdpLenOffset = 38;
constexpr u32 kFrameLen = 342;

void SetUdpLen(Bytes &frame, u16 len) {
   frame[kUdpLenOffset] = (u8)(len >> 8);
   frame[kUdpLenOffset + 1] = (u8)len;
}

sim::FrameOptions OnVlan(u16 vlan) {
   sim::FrameOptions opts;
   opts.vlan = vlan;
   return opts;
}

} // namespace

class DhcpSnoopTest : public Ipv4DbTest {
protected:
   Client vm = ClientOf(frames::kVmMac, 0x3903f326);

   /* The binding of the full exchange as every variant must leave it. */
   void ExpectBoundLease(VigilVmi *vmi, u16 vlan, i64 boundAt) {
      ASSERT_NE(vmi, nullptr);
      EXPECT_EQ(vmi->vlanId, vlan);
      EXPECT_EQ(vmi->discMethod, VIGIL_DISC_DHCP);
      EXPECT_EQ(vmi->expiryTs, boundAt + (i64)kLease);
      EXPECT_EQ(vmi->leaseTime, kLease);
      EXPECT_EQ(vmi->serverIp, Ip(kServerIp));
      MacAddr mac = MacOf(vm.mac);
      EXPECT_EQ(memcmp(vmi->mac, mac.data(), 6), 0);
      EXPECT_EQ(memcmp(vmi->clientMac, mac.data(), 6), 0);
      ASSERT_EQ(vmi->clientIdLen, vm.clientId.size());
      ASSERT_NE(vmi->clientIdStr, nullptr);
      EXPECT_EQ(Bytes(vmi->clientIdStr, vmi->clientIdStr + vmi->clientIdLen), vm.clientId);
      EXPECT_EQ(vmi->gratuitous, 0);
   }
};

/* ------------------------------------------------------------------------
 * The exchange and the ways a binding ends.
 */

TEST_F(DhcpSnoopTest, FullExchangeRelocksEachFrameAndBindsTheLeaseOnTheAck) {
   sim::FrameOptions opts = OnVlan(kVlan);
   const i64 start = Uptime();

   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(Discover(vm), opts), "forward");
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes - before.writes, 1u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);

   before = after;
   EXPECT_EQ(Rx1(Offer(vm), opts), "forward");
   after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes - before.writes, 1u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->numVmis, 0u);

   before = after;
   EXPECT_EQ(Tx1(Request(vm), opts), "forward");
   after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes - before.writes, 1u) << "one relock on the REQUEST";
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   VigilDhcpReq *req = FirstReq();
   ASSERT_NE(req, nullptr);
   EXPECT_EQ(req->vlanId, kVlan);
   EXPECT_EQ(req->xid, htonl(vm.xid));
   EXPECT_EQ(memcmp(req->chaddr, MacOf(vm.mac).data(), 6), 0);
   ASSERT_EQ(req->clientIdLen, vm.clientId.size());
   EXPECT_EQ(Bytes(req->clientIdStr, req->clientIdStr + req->clientIdLen), vm.clientId);
   EXPECT_EQ(req->expiryTs, start + 60);
   EXPECT_EQ(filter->agingKey, start + 60);
   EXPECT_EQ(QueuedKey(), start + 60);

   before = after;
   EXPECT_EQ(Rx1(Ack(vm), opts), "forward");
   after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes - before.writes, 1u) << "one relock on the ACK";

   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(FirstReq(), nullptr);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(filter->numDhcpVmis, 1u);
   EXPECT_EQ(filter->totalClientIdLen, 7u);
   ExpectBoundLease(Find(kVlan, vm.mac, kLeaseIp), kVlan, start);
   EXPECT_EQ(filter->agingKey, start + (i64)kLease);
   EXPECT_EQ(QueuedKey(), start + (i64)kLease);

   std::vector<sim::PortsetMessage> messages = TakeMessages();
   ASSERT_EQ(messages.size(), 1u);
   EXPECT_EQ(messages[0].name, "portdb.entry.added");
   EXPECT_EQ(messages[0].portset, "vs0");
   EXPECT_EQ(messages[0].portID, kPort);
   EXPECT_EQ(messages[0].flags, kMsgFlags);
   EXPECT_EQ(messages[0].bytes, DhcpAdded(kVlan, vm.mac, kLeaseIp));
   const u8 expected[80] = {
      'p', 'o', 'r', 't', 'd', 'b', '.', 'e', 'n', 't', 'r', 'y', '.', 'a', 'd', 'd',
      'e', 'd', 0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,
      40,  0,   0,   0,   0,   0,   0,   0,                          /* payloadLen */
      0,   0,   0,   0,                                              /* op */
      1,   0,   0,   0,                                              /* numEntries */
      7,   0,                                                        /* vlanId */
      0x02, 0x00, 0x00, 0x00, 0x00, 0x10,                            /* mac */
      1,   0,   0,   0,                                              /* isIpv4 */
      192, 0,   2,   50,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,
      1,   0,   1,   0};                                             /* bound .. */
   EXPECT_EQ(messages[0].bytes, Bytes(expected, expected + 80));
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, FailedRelockForwardsTheRestOfTheBatchUntouchedAndHoldsNoLock) {
   Client other = ClientOf("02:00:00:00:00:77", 0x77);
   sim::LockCounts before = Locks();
   /* The batch's own lookup works; the one of the relock does not. */
   sim::FaultCall("PortVoltaliteDataGet", 0xbad0003, 1, 1);
   std::vector<std::string> verdicts =
      Tx(kPort, {frames::Make(Request(vm)), frames::Make(Discover(other)),
                 frames::Make(Request(other))});
   sim::FaultClear();
   EXPECT_EQ(verdicts, (std::vector<std::string>{"forward", "forward", "forward"}));
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes - before.writes, 0u) << "the write lock was never had";
   EXPECT_EQ(sim::LocksHeldByThread(), 0u);
   EXPECT_EQ(filter->numDhcpReqs, 0u) << "no table changed";
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);

   /* The next batch judges again. */
   EXPECT_EQ(Tx1(Request(vm)), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 1u);
}

TEST_F(DhcpSnoopTest, UnicastRenewalWithCiaddrKeepsTheBindingAndExtendsIt) {
   Bind(vm);
   VigilVmi *bound = Find(0, vm.mac, kLeaseIp);
   TakeMessages();
   sim::Advance(1800);
   const i64 renewedAt = Uptime();

   EXPECT_EQ(Tx1(Renew(vm)), "forward");
   EXPECT_EQ(Find(0, vm.mac, kLeaseIp), bound) << "a renewal keeps the binding";
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(Rx1(Ack(vm, kLeaseIp, 7200)), "forward");

   EXPECT_EQ(Find(0, vm.mac, kLeaseIp), bound);
   EXPECT_EQ(bound->expiryTs, renewedAt + 7200);
   EXPECT_EQ(bound->leaseTime, 7200u);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->agingKey, renewedAt + 7200);
   EXPECT_EQ(TakeMessages().size(), 0u) << "a renewal publishes nothing";
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}

TEST_F(DhcpSnoopTest, RenewalThatChangesTheAddressClonesTheBinding) {
   Bind(vm);
   TakeMessages();
   sim::Advance(1800);
   const i64 renewedAt = Uptime();

   EXPECT_EQ(Tx1(Renew(vm)), "forward");
   EXPECT_EQ(Rx1(Ack(vm, kOtherIp, 900)), "forward");

   EXPECT_EQ(Find(0, vm.mac, kLeaseIp), nullptr);
   VigilVmi *moved = Find(0, vm.mac, kOtherIp);
   ASSERT_NE(moved, nullptr);
   EXPECT_EQ(moved->discMethod, VIGIL_DISC_DHCP);
   EXPECT_EQ(moved->expiryTs, renewedAt + 900);
   EXPECT_EQ(moved->leaseTime, 900u);
   EXPECT_EQ(moved->serverIp, Ip(kServerIp));
   ASSERT_EQ(moved->clientIdLen, 7u);
   EXPECT_EQ(Bytes(moved->clientIdStr, moved->clientIdStr + 7), vm.clientId);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(filter->numDhcpVmis, 1u);
   EXPECT_EQ(filter->totalClientIdLen, 7u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(MessageBytes(), (std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp),
                                                 DhcpAdded(0, vm.mac, kOtherIp)}));
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 IP address change on renewal: 0 "
                            "02:00:00:00:00:10 192.0.2.50->192.0.2.60"});
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, ReleaseEndsTheBinding) {
   Bind(vm);
   TakeMessages();
   EXPECT_EQ(Tx1(Release(vm)), "forward");
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(filter->numDhcpVmis, 0u);
   EXPECT_EQ(filter->totalClientIdLen, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp)});
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
   EXPECT_EQ(QueuedKey(), -1);
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, DeclineEndsTheBinding) {
   Bind(vm);
   TakeMessages();
   EXPECT_EQ(Tx1(Decline(vm)), "forward");
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp)});
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, DiscoverEndsTheBindingAndThePendingRequest) {
   Bind(vm);
   EXPECT_EQ(Tx1(Renew(vm)), "forward");
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   TakeMessages();
   EXPECT_EQ(Tx1(Discover(vm)), "forward");
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp)});
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, NakOfARenewalEndsTheBindingAndTheRequest) {
   Bind(vm);
   EXPECT_EQ(Tx1(Renew(vm)), "forward");
   TakeMessages();
   EXPECT_EQ(Rx1(Nak(vm)), "forward");
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp)});
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, NakWithoutAMatchingRequestChangesNothing) {
   Bind(vm);
   TakeMessages();
   EXPECT_EQ(Rx1(Nak(vm)), "forward");
   EXPECT_NE(Find(0, vm.mac, kLeaseIp), nullptr);
   EXPECT_EQ(TakeMessages().size(), 0u);
}

TEST_F(DhcpSnoopTest, BroadcastRequestWithoutCiaddrEndsTheBindingAndWaitsAnew) {
   Bind(vm);
   TakeMessages();
   const i64 at = Uptime();
   EXPECT_EQ(Tx1(Request(vm, kLeaseIp, "")), "forward"); /* INIT-REBOOT */
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp)});
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(FirstReq()->expiryTs, at + 60);
   /* The server's answer binds the client again. */
   EXPECT_EQ(Rx1(Ack(vm)), "forward");
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpAdded(0, vm.mac, kLeaseIp)});
}

TEST_F(DhcpSnoopTest, LeaseRunningOutEndsTheBindingAtTheAgingPass) {
   Bind(vm, kLeaseIp, 600);
   TakeMessages();
   sim::Advance(600);
   Age(); /* now equals the expiry: the binding lives for this pass */
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   sim::Advance(1);
   Age();
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp)});
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, OfferAndInformChangeNothing) {
   EXPECT_EQ(Tx1(Request(vm)), "forward");
   EXPECT_EQ(Rx1(Offer(vm)), "forward");
   frames::DhcpFields inform = ClientFields(vm, VIGIL_DHCPINFORM);
   inform.ciaddr = kLeaseIp;
   EXPECT_EQ(Tx1(frames::DhcpFrame(vm.mac, frames::kServerMac, kLeaseIp, kServerIp, 68,
                                   67, inform)),
             "forward");
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
}

TEST_F(DhcpSnoopTest, UnsolicitedAckTeachesNothing) {
   EXPECT_EQ(Rx1(Ack(vm)), "forward");
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}

TEST_F(DhcpSnoopTest, RelayedRequestIsNotTracked) {
   frames::DhcpFields f = ClientFields(vm, VIGIL_DHCPREQUEST);
   f.giaddr = "198.51.100.1";
   f.requestedIp = kLeaseIp;
   EXPECT_EQ(Tx1(frames::DhcpFrame(vm.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67,
                                   f)),
             "forward");
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}

TEST_F(DhcpSnoopTest, WithDhcpSnoopingOffNoFrameIsLookedAtForWrite) {
   filter->discoveryFlags = VIGIL_DISC_ARP;
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(Request(vm)), "forward");
   EXPECT_EQ(Rx1(Ack(vm)), "forward");
   EXPECT_EQ(Locks().writes, before.writes);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->numVmis, 0u);
}

TEST_F(DhcpSnoopTest, AFragmentedRequestIsNotSnooped) {
   Bytes frame = Request(vm);
   frames::SetIpv4Fragment(frame, true, 0);
   sim::LockCounts before = Locks();
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_EQ(Locks().writes, before.writes);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
}

TEST_F(DhcpSnoopTest, HundredTwentyNinthPendingRequestIsRefusedAndItsAckTeachesNothing) {
   std::vector<zek_Pkt *> batch;
   for (u32 i = 0; i < 128; i++) {
      char mac[18];
      snprintf(mac, sizeof mac, "02:00:00:00:01:%02x", i);
      batch.push_back(frames::Make(Request(ClientOf(mac, 0x1000 + i))));
   }
   sim::LockCounts before = Locks();
   std::vector<std::string> verdicts = Tx(kPort, batch);
   EXPECT_EQ(verdicts, std::vector<std::string>(128, "forward"));
   EXPECT_EQ(Locks().writes - before.writes, 1u) << "one relock for the whole batch";
   EXPECT_EQ(filter->numDhcpReqs, 128u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());

   EXPECT_EQ(Tx1(Request(vm)), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 128u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Max V4 Requests: 128 reached"});
   EXPECT_EQ(Rx1(Ack(vm)), "forward");
   EXPECT_EQ(Find(0, vm.mac, kLeaseIp), nullptr);
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, RebindingBroadcastWithCiaddrKeepsTheBinding) {
   Bind(vm);
   VigilVmi *bound = Find(0, vm.mac, kLeaseIp);
   TakeMessages();
   frames::DhcpFields f = ClientFields(vm, VIGIL_DHCPREQUEST);
   f.ciaddr = kLeaseIp;
   f.paramList = ParamList();
   EXPECT_EQ(Tx1(frames::DhcpFrame(vm.mac, frames::kBroadcast, kLeaseIp, kAllOnes, 68, 67,
                                   f)),
             "forward");
   EXPECT_EQ(Find(0, vm.mac, kLeaseIp), bound);
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(TakeMessages().size(), 0u);
}

TEST_F(DhcpSnoopTest, ClientWithoutIdentifierIsKnownByItsHardwareAddress) {
   Client bare = ClientOf(vm.mac, 0x4242, false);
   Bind(bare);
   VigilVmi *bound = Find(0, bare.mac, kLeaseIp);
   EXPECT_EQ(bound->clientIdLen, 0u);
   EXPECT_EQ(bound->clientIdStr, nullptr);
   EXPECT_EQ(filter->totalClientIdLen, 0u);
   TakeMessages();
   /* The same hardware address with an identifier is another client. */
   EXPECT_EQ(Tx1(Release(vm)), "forward");
   EXPECT_EQ(Find(0, bare.mac, kLeaseIp), bound);
   EXPECT_EQ(Tx1(Release(bare)), "forward");
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp)});
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, ReplyMatchesItsRequestByVlanTransactionIdAndHardwareAddress) {
   EXPECT_EQ(Tx1(Request(vm), OnVlan(kVlan)), "forward");
   Client otherMac = vm;
   otherMac.mac = "02:00:00:00:00:11";
   EXPECT_EQ(Rx1(Ack(otherMac), OnVlan(kVlan)), "forward");
   EXPECT_EQ(Rx1(Ack(vm), OnVlan(kVlan + 1)), "forward");
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   /* The client identifier plays no part in the match. */
   Client noId = ClientOf(vm.mac, vm.xid, false);
   EXPECT_EQ(Rx1(Ack(noId), OnVlan(kVlan)), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_NE(Find(kVlan, vm.mac, kLeaseIp), nullptr);
}

TEST_F(DhcpSnoopTest, NakOfAFirstRequestOnlyEndsTheRequest) {
   EXPECT_EQ(Tx1(Request(vm)), "forward");
   EXPECT_EQ(Rx1(Nak(vm)), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(TakeMessages().size(), 0u);
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
}

TEST_F(DhcpSnoopTest, BadHardwareTypeOrLengthIsRefused) {
   frames::DhcpFields f = ClientFields(vm, VIGIL_DHCPREQUEST);
   Bytes frame = frames::DhcpFrame(vm.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67, f);
   frame[42 + 1] = 6; /* htype */
   frame[42 + 2] = 1; /* hlen */
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Invalid htype/hlen: [6 1]"});
}

/* With the server block on, the client validation parses the frame first;
 * a wrong lease length leaves the header set, so snooping goes on with the
 * options seen before option 51 instead of parsing again. */
TEST_F(DhcpSnoopTest, AfterValidationAWrongLeaseLengthLeavesTheOptionsSeenBeforeIt) {
   filter->featuresEnabled = VIGIL_FEAT_DHCP_SERVER_BLOCK;
   frames::DhcpFields f = ClientFields(vm, VIGIL_DHCPREQUEST);
   f.requestedIp = kLeaseIp;
   f.leaseBytes = {0, 0, 1};
   const std::string wrongLength =
      "Filter 0x10 Wrong length of 3 for option DHO_DHCP_LEASE_TIME";
   EXPECT_EQ(Tx1(frames::DhcpFrame(vm.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67,
                                   f)),
             "forward");
   EXPECT_EQ(filter->numDhcpReqs, 1u) << "message type 53 came before option 51";
   ASSERT_NE(FirstReq(), nullptr);
   EXPECT_EQ(FirstReq()->clientIdLen, 7u);
   /* The validation ran on both passes, the snoop did not parse again. */
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{wrongLength, wrongLength}));

   /* Option 51 ahead of the message type: no type, nothing tracked. */
   Client other = ClientOf("02:00:00:00:00:21", 0x21);
   frames::DhcpFields g = ClientFields(other, -1);
   g.extra = {{51, {0, 0, 1}}, {53, {VIGIL_DHCPREQUEST}}};
   EXPECT_EQ(Tx1(frames::DhcpFrame(other.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67,
                                   g)),
             "forward");
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(LogTexts(), (std::vector<std::string>{wrongLength, wrongLength}));
   /* Without the validation the snoop's own parse fails the frame. */
   filter->featuresEnabled = 0;
   Client third = ClientOf("02:00:00:00:00:22", 0x22);
   frames::DhcpFields h = ClientFields(third, VIGIL_DHCPREQUEST);
   h.leaseBytes = {0, 0, 1};
   EXPECT_EQ(Tx1(frames::DhcpFrame(third.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67,
                                   h)),
             "forward");
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{wrongLength});
}

/* ------------------------------------------------------------------------
 * Split frames.
 */

class DhcpSplitFrameTest : public DhcpSnoopTest {
protected:
   struct Outcome {
      Bytes added;
      u64 requestAllocs;
      u64 ackAllocs;
   };

   /* REQUEST and ACK with the given frame options; what they leave. */
   Outcome Exchange(const sim::FrameOptions &requestOpts, const sim::FrameOptions &ackOpts) {
      Outcome out;
      const i64 at = Uptime();
      u64 before = TotalAllocs();
      EXPECT_EQ(Tx1(Request(vm), requestOpts), "forward");
      out.requestAllocs = TotalAllocs() - before;
      ExpectNoLeak(); /* a flat copy is gone with the batch */
      EXPECT_EQ(filter->numDhcpReqs, 1u);
      before = TotalAllocs();
      EXPECT_EQ(Rx1(Ack(vm), ackOpts), "forward");
      sim::WaitIdle(5.0);
      out.ackAllocs = TotalAllocs() - before;
      ExpectNoLeak();
      EXPECT_EQ(filter->numDhcpReqs, 0u);
      ExpectBoundLease(Find(0, vm.mac, kLeaseIp), 0, at);
      std::vector<Bytes> messages = MessageBytes();
      EXPECT_EQ(messages.size(), 1u);
      out.added = messages.empty() ? Bytes() : messages[0];
      EXPECT_EQ(LogTexts(), std::vector<std::string>());
      return out;
   }

   static sim::FrameOptions Split(int32_t mapped, std::vector<u32> sg) {
      sim::FrameOptions opts;
      opts.mapped = mapped;
      opts.sg = std::move(sg);
      return opts;
   }
};

TEST_F(DhcpSplitFrameTest, WholeFrameMappedNeedsNoCopy) {
   Outcome whole = Exchange({}, {});
   EXPECT_EQ(whole.added, DhcpAdded(0, vm.mac, kLeaseIp));
   EXPECT_EQ(whole.requestAllocs, 2u); /* the request and its client identifier */
   EXPECT_EQ(whole.ackAllocs, 3u);     /* the binding, its identifier, the task */
}

TEST_F(DhcpSplitFrameTest, OptionsBeyondAMappedPartOf66BytesAreReadInTheirElement) {
   ASSERT_EQ(Request(vm).size(), kFrameLen);
   Outcome split = Exchange(Split(66, {}), Split(66, {}));
   EXPECT_EQ(split.added, DhcpAdded(0, vm.mac, kLeaseIp));
   EXPECT_EQ(split.requestAllocs, 2u) << "no flat copy";
   EXPECT_EQ(split.ackAllocs, 3u) << "no flat copy";
}

TEST_F(DhcpSplitFrameTest, ThreeElementsSplitBetweenOptionsNeedNoCopy) {
   /* Element 0 ends with the cookie; the REQUEST's element 1 holds options
    * 53 and 61 (282..294), the ACK's options 53 and 51 (282..291). */
   Outcome split = Exchange(Split(66, {282, 12}), Split(66, {282, 9}));
   EXPECT_EQ(split.added, DhcpAdded(0, vm.mac, kLeaseIp));
   EXPECT_EQ(split.requestAllocs, 2u) << "no flat copy";
   EXPECT_EQ(split.ackAllocs, 3u) << "no flat copy";
}

TEST_F(DhcpSplitFrameTest, ThreeElementsSplitInsideAnOptionMakeOneFlatCopyThatIsFreed) {
   /* The REQUEST's option 61 value (287..294) crosses 290, the ACK's option
    * 51 value (287..291) crosses 288. */
   sim::FrameOptions requestOpts = Split(66, {282, 8});
   sim::FrameOptions ackOpts = Split(66, {282, 6});
   u64 peakBefore = sim::GetHeapStats(heapID).peak;
   Outcome split = Exchange(requestOpts, ackOpts);
   EXPECT_EQ(split.added, DhcpAdded(0, vm.mac, kLeaseIp));
   EXPECT_EQ(split.requestAllocs, 3u) << "one flat copy on the second pass";
   EXPECT_EQ(split.ackAllocs, 4u) << "one flat copy on the second pass";
   EXPECT_GE(sim::GetHeapStats(heapID).peak, peakBefore + kFrameLen);
}

TEST_F(DhcpSplitFrameTest, FixedHeaderAcrossElementsIsReadFromAFlatCopy) {
   /* Element 0 ends in the middle of the fixed header. */
   Outcome split = Exchange(Split(42, {100, 200}), Split(42, {100, 200}));
   EXPECT_EQ(split.added, DhcpAdded(0, vm.mac, kLeaseIp));
   EXPECT_EQ(split.requestAllocs, 3u);
   EXPECT_EQ(split.ackAllocs, 4u);
}

/* ------------------------------------------------------------------------
 * Edge cases.
 */

TEST_F(DhcpSnoopTest, UdpLength247IsRefusedAnd248IsTheSmallestAccepted) {
   Bytes frame = Request(vm);
   SetUdpLen(frame, 247);
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Invalid frame len"});

   SetUdpLen(frame, 248); /* the options lie past the UDP length, in the frame */
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());

   /* A UDP length of 248 with the frame ending at the cookie: no end option. */
   frames::DhcpFields bare = ClientFields(ClientOf("02:00:00:00:00:20", 7, false),
                                          VIGIL_DHCPREQUEST);
   bare.msgType = -1;
   bare.end = false;
   bare.minLen = 240;
   Bytes shortFrame = frames::DhcpFrame("02:00:00:00:00:20", frames::kBroadcast, kAnyIp,
                                        kAllOnes, 68, 67, bare);
   ASSERT_EQ(shortFrame.size(), 282u);
   EXPECT_EQ(Tx1(shortFrame), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Invalid options: 0 (nil)"});
}

TEST_F(DhcpSnoopTest, MessageWithoutEndOptionFailsWithFirstNumberZero) {
   frames::DhcpFields f = ClientFields(vm, VIGIL_DHCPREQUEST);
   f.requestedIp = kLeaseIp;
   f.paramList = ParamList();
   f.serverId = kServerIp;
   f.end = false; /* every option but the end, then padding */
   EXPECT_EQ(Tx1(frames::DhcpFrame(vm.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67,
                                   f)),
             "forward");
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   std::vector<std::string> logs = LogTexts();
   ASSERT_EQ(logs.size(), 1u);
   /* The second number is the message type pointer: set, somewhere. */
   EXPECT_EQ(logs[0].rfind("Filter 0x10 Invalid options: 0 0x", 0), 0u) << logs[0];
}

TEST_F(DhcpSnoopTest, EndOptionWithoutMessageTypeFailsWithFirstNumberOne) {
   frames::DhcpFields f = ClientFields(vm, -1);
   f.requestedIp = kLeaseIp;
   f.paramList = ParamList();
   EXPECT_EQ(Tx1(frames::DhcpFrame(vm.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67,
                                   f)),
             "forward");
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Invalid options: 1 (nil)"});
}

TEST_F(DhcpSnoopTest, AckWithoutLeaseTimeIsRefusedAndTheRequestAgesOut) {
   EXPECT_EQ(Tx1(Request(vm)), "forward");
   const i64 requestedAt = Uptime();
   EXPECT_EQ(Rx1(Ack(vm, kLeaseIp, -1)), "forward");
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 No lease time option in DHCPACK"});
   EXPECT_EQ(filter->numVmis, 0u);
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(FirstReq()->expiryTs, requestedAt + 60);
   sim::Advance(60);
   Age();
   EXPECT_EQ(filter->numDhcpReqs, 1u) << "alive while now equals its expiry";
   sim::Advance(1);
   Age();
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, LeaseTimeOfLengthThreeIsRefusedAndNothingFurtherHappensOnReceive) {
   EXPECT_EQ(Tx1(Request(vm)), "forward");
   frames::DhcpFields f = ServerFields(vm, VIGIL_DHCPACK);
   f.yiaddr = kLeaseIp;
   f.leaseBytes = {0, 14, 16};
   EXPECT_EQ(Rx1(frames::DhcpFrame(frames::kServerMac, vm.mac, kServerIp, kLeaseIp, 67, 68,
                                   f)),
             "forward");
   EXPECT_EQ(LogTexts(), std::vector<std::string>{
                            "Filter 0x10 Wrong length of 3 for option DHO_DHCP_LEASE_TIME"});
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(filter->numDhcpReqs, 1u) << "the request is not answered";
   EXPECT_EQ(TakeMessages().size(), 0u);
}

TEST_F(DhcpSnoopTest, SecondRequestOfAPendingClientOnlyTakesTheNewTransactionId) {
   Client first = vm;
   Client second = vm;
   second.xid = 0x0badcafe;
   EXPECT_EQ(Tx1(Request(first)), "forward");
   const i64 firstAt = Uptime();
   sim::Advance(5);
   EXPECT_EQ(Tx1(Request(second)), "forward");
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(FirstReq()->xid, htonl(second.xid));
   EXPECT_EQ(FirstReq()->expiryTs, firstAt + 60) << "the retry does not extend it";

   EXPECT_EQ(Rx1(Ack(first)), "forward");
   EXPECT_EQ(filter->numVmis, 0u) << "the earlier transaction id finds nothing";
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(Rx1(Ack(second)), "forward");
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
}

TEST_F(DhcpSnoopTest, ClientIdentifierOutweighsTheHardwareAddress) {
   Client a = ClientOf("02:00:00:00:00:31", 0x1111);
   Client b = ClientOf("02:00:00:00:00:32", 0x2222);
   b.clientId = a.clientId;
   EXPECT_EQ(Tx1(Request(a)), "forward");
   EXPECT_EQ(Tx1(Request(b)), "forward");
   ASSERT_EQ(filter->numDhcpReqs, 1u) << "the same client";
   EXPECT_EQ(FirstReq()->xid, htonl(b.xid));
   EXPECT_EQ(memcmp(FirstReq()->chaddr, MacOf(a.mac).data(), 6), 0);
   /* On another VLAN it is another client. */
   EXPECT_EQ(Tx1(Request(b), OnVlan(3)), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 2u);
}

TEST_F(DhcpSnoopTest, EmptyMessageTypeOptionLeavesNoTypeAndTheEndFailsTheMessage) {
   frames::DhcpFields f = ClientFields(vm, -1);
   f.emptyMsgType = true;
   f.requestedIp = kLeaseIp;
   Bytes frame = frames::DhcpFrame(vm.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67, f);
   ASSERT_EQ(frame[282], 53);
   ASSERT_EQ(frame[283], 0);
   EXPECT_EQ(Tx1(frame), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Invalid options: 1 (nil)"});
}

TEST_F(DhcpSnoopTest, InfiniteLeaseBindsAndTheNextAgingPassEndsIt) {
   Bind(vm, kLeaseIp, 0xffffffffu);
   VigilVmi *vmi = Find(0, vm.mac, kLeaseIp);
   ASSERT_NE(vmi, nullptr);
   EXPECT_EQ(vmi->leaseTime, 0xffffffffu);
   EXPECT_EQ(vmi->expiryTs, Uptime() - 1);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpAdded(0, vm.mac, kLeaseIp)});
   Age();
   EXPECT_EQ(filter->numVmis, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp)});
}

TEST_F(DhcpSnoopTest, RenewalOntoAStaticBindingsAddressLosesTheBinding) {
   Bind(vm);
   AddStatic(0, vm.mac, kOtherIp);
   TakeMessages();
   sim::TakeLogs();
   EXPECT_EQ(Tx1(Renew(vm)), "forward");
   EXPECT_EQ(Rx1(Ack(vm, kOtherIp)), "forward");
   EXPECT_EQ(Find(0, vm.mac, kLeaseIp), nullptr);
   VigilVmi *still = Find(0, vm.mac, kOtherIp);
   ASSERT_NE(still, nullptr);
   EXPECT_EQ(still->discMethod, VIGIL_DISC_STATIC);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(filter->numDhcpVmis, 0u);
   EXPECT_EQ(filter->totalClientIdLen, 0u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp)});
   EXPECT_EQ(LogTexts(),
             (std::vector<std::string>{"Filter 0x10 IP address change on renewal: 0 "
                                       "02:00:00:00:00:10 192.0.2.50->192.0.2.60",
                                       "Filter 0x10 Add Vmi failed with error: Already exists"}));
   ExpectNoLeak();
}

TEST_F(DhcpSnoopTest, FrameUnderTheReadLockIsProcessedOnceOnItsSecondPass) {
   Bytes bad = Request(ClientOf("02:00:00:00:00:40", 1));
   SetUdpLen(bad, 247);
   sim::LockCounts before = Locks();
   /* The malformed frame relocks the batch; the REQUEST after it runs under
    * the write lock at once. */
   EXPECT_EQ(Tx(kPort, {frames::Make(bad), frames::Make(Request(vm))}),
             (std::vector<std::string>{"forward", "forward"}));
   sim::LockCounts after = Locks();
   EXPECT_EQ(after.reads - before.reads, 1u);
   EXPECT_EQ(after.writes - before.writes, 1u);
   EXPECT_EQ(LogTexts(), std::vector<std::string>{"Filter 0x10 Invalid frame len"})
      << "the parse ran once";
   EXPECT_EQ(filter->numDhcpReqs, 1u);
}

/* ------------------------------------------------------------------------
 * Heap exhaustion.
 */

TEST_F(DhcpSnoopTest, HeapExhaustionOnTheRequest) {
   ForEachAllocFailure(
      2, [] {}, [this] { EXPECT_EQ(Tx1(Request(vm)), "forward"); },
      [this](u32 n) {
         std::vector<std::string> logs = LogTexts();
         switch (n) {
         case 0:
            EXPECT_EQ(filter->numDhcpReqs, 1u);
            EXPECT_EQ(logs, std::vector<std::string>());
            break;
         case 1:
            EXPECT_EQ(filter->numDhcpReqs, 0u);
            EXPECT_EQ(logs, std::vector<std::string>{"Filter 0x10 Alloc of dhcpReq failed"});
            break;
         case 2:
            EXPECT_EQ(filter->numDhcpReqs, 0u);
            EXPECT_EQ(logs, std::vector<std::string>{
                               "Filter 0x10 Alloc of dhcpReq clientIdStr failed"});
            break;
         }
         EXPECT_EQ(filter->agingKey, n == 0 ? Uptime() + 60 : VIGIL_AGING_KEY_NONE);
      });
}

TEST_F(DhcpSnoopTest, HeapExhaustionOnTheRequestWithAFlatCopy) {
   sim::FrameOptions opts;
   opts.mapped = 66;
   opts.sg = {282, 8};
   ForEachAllocFailure(
      3, [] {}, [&] { EXPECT_EQ(Tx1(Request(vm), opts), "forward"); },
      [this](u32 n) {
         std::vector<std::string> logs = LogTexts();
         EXPECT_EQ(filter->numDhcpReqs, n == 0 ? 1u : 0u);
         switch (n) {
         case 0:
            EXPECT_EQ(logs, std::vector<std::string>());
            break;
         case 1:
            EXPECT_EQ(logs, (std::vector<std::string>{
                               "Failed to alloc pktCopy: 342",
                               "Filter 0x10 Can't access DHCP option: 287"}));
            break;
         case 2:
            EXPECT_EQ(logs, std::vector<std::string>{"Filter 0x10 Alloc of dhcpReq failed"});
            break;
         case 3:
            EXPECT_EQ(logs, std::vector<std::string>{
                               "Filter 0x10 Alloc of dhcpReq clientIdStr failed"});
            break;
         }
      });
}

TEST_F(DhcpSnoopTest, HeapExhaustionOnTheAck) {
   ForEachAllocFailure(
      3, [this] { EXPECT_EQ(Tx1(Request(vm)), "forward"); },
      [this] { EXPECT_EQ(Rx1(Ack(vm)), "forward"); },
      [this](u32 n) {
         std::vector<std::string> logs = LogTexts();
         std::vector<Bytes> messages = MessageBytes();
         EXPECT_EQ(filter->numDhcpReqs, 0u) << "the request goes in every case";
         switch (n) {
         case 0:
            EXPECT_NE(Find(0, vm.mac, kLeaseIp), nullptr);
            EXPECT_EQ(messages, std::vector<Bytes>{DhcpAdded(0, vm.mac, kLeaseIp)});
            EXPECT_EQ(logs, std::vector<std::string>());
            break;
         case 1:
            EXPECT_EQ(filter->numVmis, 0u);
            EXPECT_EQ(messages.size(), 0u);
            EXPECT_EQ(logs, std::vector<std::string>{"Filter 0x10 Vmi alloc failed"});
            break;
         case 2:
            EXPECT_EQ(filter->numVmis, 0u);
            EXPECT_EQ(messages.size(), 0u);
            EXPECT_EQ(logs,
                      std::vector<std::string>{"Filter 0x10 Vmi clientIdStr alloc failed"});
            break;
         case 3: /* the binding stands, its message is lost */
            EXPECT_NE(Find(0, vm.mac, kLeaseIp), nullptr);
            EXPECT_EQ(messages.size(), 0u);
            EXPECT_EQ(logs, (std::vector<std::string>{
                               "Unable to allocate memory, port: 0x10",
                               "Filter 0x10 Could not post message:portdb.entry.added:"
                               "Out of memory"}));
            break;
         }
      });
}

TEST_F(DhcpSnoopTest, HeapExhaustionOnTheAckWithAFlatCopy) {
   sim::FrameOptions opts;
   opts.mapped = 66;
   opts.sg = {282, 6};
   ForEachAllocFailure(
      4, [this] { EXPECT_EQ(Tx1(Request(vm)), "forward"); },
      [&] { EXPECT_EQ(Rx1(Ack(vm), opts), "forward"); },
      [this](u32 n) {
         std::vector<std::string> logs = LogTexts();
         TakeMessages();
         switch (n) {
         case 0:
            EXPECT_EQ(filter->numVmis, 1u);
            EXPECT_EQ(filter->numDhcpReqs, 0u);
            EXPECT_EQ(logs, std::vector<std::string>());
            break;
         case 1: /* the parse fails: the request stays unanswered */
            EXPECT_EQ(filter->numVmis, 0u);
            EXPECT_EQ(filter->numDhcpReqs, 1u);
            EXPECT_EQ(logs, (std::vector<std::string>{
                               "Failed to alloc pktCopy: 342",
                               "Filter 0x10 Can't access DHCP option: 287"}));
            break;
         case 2:
            EXPECT_EQ(filter->numVmis, 0u);
            EXPECT_EQ(filter->numDhcpReqs, 0u);
            EXPECT_EQ(logs, std::vector<std::string>{"Filter 0x10 Vmi alloc failed"});
            break;
         case 3:
            EXPECT_EQ(filter->numVmis, 0u);
            EXPECT_EQ(filter->numDhcpReqs, 0u);
            EXPECT_EQ(logs,
                      std::vector<std::string>{"Filter 0x10 Vmi clientIdStr alloc failed"});
            break;
         case 4:
            EXPECT_EQ(filter->numVmis, 1u);
            EXPECT_EQ(filter->numDhcpReqs, 0u);
            EXPECT_EQ(logs, (std::vector<std::string>{
                               "Unable to allocate memory, port: 0x10",
                               "Filter 0x10 Could not post message:portdb.entry.added:"
                               "Out of memory"}));
            break;
         }
      });
}

TEST_F(DhcpSnoopTest, HeapExhaustionOnARenewalThatChangesTheAddress) {
   ForEachAllocFailure(
      4,
      [this] {
         Bind(vm);
         EXPECT_EQ(Tx1(Renew(vm)), "forward");
         TakeMessages();
         sim::TakeLogs();
      },
      [this] { EXPECT_EQ(Rx1(Ack(vm, kOtherIp)), "forward"); },
      [this](u32 n) {
         const std::string change = "Filter 0x10 IP address change on renewal: 0 "
                                    "02:00:00:00:00:10 192.0.2.50->192.0.2.60";
         std::vector<std::string> logs = LogTexts();
         std::vector<Bytes> messages = MessageBytes();
         EXPECT_EQ(Find(0, vm.mac, kLeaseIp), nullptr) << "the old address is gone";
         EXPECT_EQ(filter->numDhcpReqs, 0u);
         const Bytes removed = DhcpRemoved(0, vm.mac, kLeaseIp);
         const Bytes added = DhcpAdded(0, vm.mac, kOtherIp);
         switch (n) {
         case 0:
            EXPECT_NE(Find(0, vm.mac, kOtherIp), nullptr);
            EXPECT_EQ(messages, (std::vector<Bytes>{removed, added}));
            EXPECT_EQ(logs, std::vector<std::string>{change});
            break;
         case 1: /* no clone */
         case 2: /* no copy of the client identifier */
            EXPECT_EQ(filter->numVmis, 0u);
            EXPECT_EQ(messages, std::vector<Bytes>{removed});
            EXPECT_EQ(logs, (std::vector<std::string>{change, "Filter 0x10 Clone Vmi Failed"}));
            break;
         case 3: /* the "removed" message is lost */
            EXPECT_NE(Find(0, vm.mac, kOtherIp), nullptr);
            EXPECT_EQ(messages, std::vector<Bytes>{added});
            EXPECT_EQ(logs, (std::vector<std::string>{
                               change, "Unable to allocate memory, port: 0x10",
                               "Filter 0x10 Could not post message:portdb.entry.removed:"
                               "Out of memory"}));
            break;
         case 4: /* the "added" message is lost */
            EXPECT_NE(Find(0, vm.mac, kOtherIp), nullptr);
            EXPECT_EQ(messages, std::vector<Bytes>{removed});
            EXPECT_EQ(logs, (std::vector<std::string>{
                               change, "Unable to allocate memory, port: 0x10",
                               "Filter 0x10 Could not post message:portdb.entry.added:"
                               "Out of memory"}));
            break;
         }
      });
}

TEST_F(DhcpSnoopTest, HeapExhaustionOnARelease) {
   ForEachAllocFailure(
      1,
      [this] {
         Bind(vm);
         TakeMessages();
         sim::TakeLogs();
      },
      [this] { EXPECT_EQ(Tx1(Release(vm)), "forward"); },
      [this](u32 n) {
         EXPECT_EQ(filter->numVmis, 0u) << "the binding ends whatever happens";
         std::vector<Bytes> messages = MessageBytes();
         std::vector<std::string> logs = LogTexts();
         if (n == 0) {
            EXPECT_EQ(messages, std::vector<Bytes>{DhcpRemoved(0, vm.mac, kLeaseIp)});
            EXPECT_EQ(logs, std::vector<std::string>());
         } else {
            EXPECT_EQ(messages.size(), 0u);
            EXPECT_EQ(logs, (std::vector<std::string>{
                               "Unable to allocate memory, port: 0x10",
                               "Filter 0x10 Could not post message:portdb.entry.removed:"
                               "Out of memory"}));
         }
      });
}
