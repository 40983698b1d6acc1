/*
 * What one DHCP (IPv4) frame can make the module allocate.  The protocol
 * bounds it: the client identifier is at most 255 bytes, a REQUEST makes
 * one pending request and an ACK one binding.  The worst frame is a jumbo
 * one whose options lie across scatter-gather elements, so that reading
 * them takes a flat copy of the whole frame, freed when the frame is done.
 */
#include "ipv4_db_test.h"

using namespace v4db;

namespace {

/* A client identifier of the longest length: type 0 and 254 bytes. */
Client LongIdClient() {
   Client c = ClientOf("02:00:00:00:00:10", 0x4001);
   c.clientId = Bytes(255, 0x5a);
   c.clientId[0] = 0;
   return c;
}

/* The message padded to fill a 9014-byte frame. */
constexpr size_t kJumboDhcp = 9000 - 20 - 8;

/* The frame cut into 7-byte scatter-gather elements, only its first 42
 * bytes (Ethernet, IPv4, UDP) mapped. */
sim::FrameOptions Scattered(size_t len) {
   sim::FrameOptions opts;
   opts.mapped = 42;
   for (size_t done = 0; done + 7 < len; done += 7) opts.sg.push_back(7);
   return opts;
}

} // namespace

class DhcpBoundedCostTest : public Ipv4DbTest {
protected:
   struct Cost {
      u64 allocs;
      u64 peakBytes;
   };

   /* Sends one frame; the module allocations it made and the most heap it
    * held at once (valid while the heap never held more before). */
   Cost Measure(bool tx, const Bytes &frame, const sim::FrameOptions &opts) {
      sim::HeapStats before = sim::GetHeapStats(heapID);
      EXPECT_EQ(before.peak, before.inUse) << "the heap held more before";
      EXPECT_EQ(tx ? Tx1(frame, opts) : Rx1(frame, opts), "forward");
      sim::WaitIdle(5.0);
      sim::HeapStats after = sim::GetHeapStats(heapID);
      return {after.totalAllocs - before.totalAllocs, after.peak - before.inUse};
   }
};

/* A jumbo REQUEST with the longest client identifier: the flat copy of the
 * frame, the pending request and its identifier copy; the copy goes with
 * the frame. */
TEST_F(DhcpBoundedCostTest, JumboRequestWithTheLongestClientIdMakesThreeAllocations) {
   Client c = LongIdClient();
   frames::DhcpFields f = ClientFields(c, VIGIL_DHCPREQUEST);
   f.requestedIp = kLeaseIp;
   f.serverId = kServerIp;
   f.minLen = kJumboDhcp;
   Bytes frame = frames::DhcpFrame(c.mac, frames::kBroadcast, kAnyIp, kAllOnes, 68, 67, f);
   ASSERT_EQ(frame.size(), 9014u);
   Cost cost = Measure(true, frame, Scattered(frame.size()));
   EXPECT_EQ(cost.allocs, 3u);
   EXPECT_EQ(cost.peakBytes, 9014u + sizeof(VigilDhcpReq) + 255u);
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(sim::GetHeapStats(heapID).inUse,
             sim::GetHeapStats(heapID).peak - 9014u);
   ExpectNoLeak();
}

/* Its jumbo ACK: the flat copy, the binding with its identifier copy and
 * its portset message; the request goes. */
TEST_F(DhcpBoundedCostTest, JumboAckOfTheLongestClientIdMakesOneBinding) {
   Client c = LongIdClient();
   ASSERT_EQ(Tx1(Request(c)), "forward");
   ASSERT_EQ(filter->numDhcpReqs, 1u);
   frames::DhcpFields f = ServerFields(c, VIGIL_DHCPACK);
   f.yiaddr = kLeaseIp;
   f.leaseTime = kLease;
   f.minLen = kJumboDhcp;
   Bytes ack = frames::DhcpFrame(frames::kServerMac, c.mac, kServerIp, kLeaseIp, 67, 68, f);
   ASSERT_EQ(ack.size(), 9014u);
   sim::HeapStats before = sim::GetHeapStats(heapID);
   EXPECT_EQ(Rx1(ack, Scattered(ack.size())), "forward");
   sim::WaitIdle(5.0);
   EXPECT_EQ(sim::GetHeapStats(heapID).totalAllocs - before.totalAllocs, 4u);
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_EQ(MessageBytes(), std::vector<Bytes>{DhcpAdded(0, c.mac, kLeaseIp)});
   ExpectNoLeak();
}
