/*
 * Broadcast and multicast rate limiting: fixed windows, exactly `limit`
 * frames per window, and which limiter a group frame meets.
 */
#include "scripted_callees.h"
#include "test_frames.h"
#include "vigil_test.h"

namespace {

using frames::Bytes;

constexpr u32 kPort = 0x10;
constexpr u64 kCyclesPerSecond = 1000000000ull;
const char *const kPeerMac = "02:00:00:00:00:20";

Bytes Broadcast() {
   return frames::UdpV4(frames::kVmMac, frames::kBroadcast, "192.0.2.10", "255.255.255.255",
                        5000, 5001);
}
Bytes Multicast() {
   return frames::UdpV4(frames::kVmMac, "01:00:5e:00:00:fb", "192.0.2.10", "224.0.0.251",
                        5353, 5353);
}
Bytes Unicast() {
   return frames::UdpV4(frames::kVmMac, kPeerMac, "192.0.2.10", "192.0.2.1", 5000, 5001);
}

/* The bits, limiters and counters of one direction. */
struct Direction {
   const char *name;
   bool transmit;
   u32 bcastBit;
   u32 mcastBit;
   VigilRateLimiter VigilFilter::*bcastLimiter;
   VigilRateLimiter VigilFilter::*mcastLimiter;
   u64 VigilStats::*bcastDrops;
   u64 VigilStats::*mcastDrops;
};

const Direction kTransmit = {"transmit",
                             true,
                             VIGIL_FEAT_TX_BCAST_LIMIT,
                             VIGIL_FEAT_TX_MCAST_LIMIT,
                             &VigilFilter::txBcastLimiter,
                             &VigilFilter::txMcastLimiter,
                             &VigilStats::statTxBcastRateDrops,
                             &VigilStats::statTxMcastRateDrops};
const Direction kReceive = {"receive",
                            false,
                            VIGIL_FEAT_RX_BCAST_LIMIT,
                            VIGIL_FEAT_RX_MCAST_LIMIT,
                            &VigilFilter::rxBcastLimiter,
                            &VigilFilter::rxMcastLimiter,
                            &VigilStats::statRxBcastRateDrops,
                            &VigilStats::statRxMcastRateDrops};

} // namespace

class RateLimitTest : public ScriptedPipelineTest {
protected:
   void SetUp() override {
      ScriptedPipelineTest::SetUp();
      filter = AddFilter(kPort);
   }

   /* Turns a limit on: `limit` frames per window of `periodSecs`, the
    * current window ending now, as configuration leaves it. */
   VigilRateLimiter &Limit(VigilRateLimiter VigilFilter::*which, u32 bit, u32 limit,
                           u32 periodSecs = 1) {
      VigilRateLimiter &limiter = filter->*which;
      filter->featuresEnabled |= bit;
      limiter.periodSecs = periodSecs;
      limiter.limit = limit;
      limiter.windowEnd = zek_GetTimerCycles();
      limiter.count = 0;
      return limiter;
   }

   std::vector<std::string> Send(const Direction &dir, const Bytes &bytes, int n) {
      std::vector<zek_Pkt *> batch;
      for (int i = 0; i < n; i++) {
         batch.push_back(frames::Make(bytes));
      }
      return dir.transmit ? Tx(kPort, batch) : Rx(kPort, batch);
   }

   u64 Drops(u64 VigilStats::*counter) { return filter->stats.*counter; }
   u64 RateLockTakes() { return sim::GetLockCounts(filter->rateLimitLock).exclusives; }

   static std::vector<std::string> Verdicts(int forwards, int drops) {
      std::vector<std::string> out(forwards, "forward");
      out.insert(out.end(), drops, "drop");
      return out;
   }

   void LimitOfZeroDropsEveryFrameAndKeepsTheWindow(const Direction &dir);
   void BroadcastWithoutItsLimitMeetsTheMulticastLimit(const Direction &dir);
   void BroadcastPassingItsLimitNeverMeetsTheMulticastLimit(const Direction &dir);
   void EachLimiterTakesTheLockOncePerGroupFrame(const Direction &dir);

   VigilFilter *filter = nullptr;
};

/* --------------------------------------------------------- the limiter */

TEST_F(RateLimitTest, FirstFrameAfterConfigurationOpensANewWindow) {
   VigilRateLimiter limiter = {3, 2, zek_GetTimerCycles(), 2};
   u64 drops = 0;
   sim::Advance(0.001);
   const u64 now = zek_GetTimerCycles();
   EXPECT_EQ(VigilProcessRateLimiting(&filter->rateLimitLock, &limiter, &drops),
             VIGIL_ACTION_FORWARD);
   EXPECT_EQ(limiter.count, 1u);
   EXPECT_EQ(limiter.windowEnd, now + 3 * kCyclesPerSecond);
   EXPECT_EQ(drops, 0u);
}

TEST_F(RateLimitTest, WindowEndEqualToNowStillBelongsToTheOldWindow) {
   const u64 now = zek_GetTimerCycles();
   VigilRateLimiter limiter = {1, 2, now, 2};
   u64 drops = 0;
   EXPECT_EQ(VigilProcessRateLimiting(&filter->rateLimitLock, &limiter, &drops),
             VIGIL_ACTION_DROP);
   EXPECT_EQ(limiter.count, 3u);
   EXPECT_EQ(limiter.windowEnd, now);
   EXPECT_EQ(drops, 1u);

   sim::Advance(1e-9);
   EXPECT_EQ(VigilProcessRateLimiting(&filter->rateLimitLock, &limiter, &drops),
             VIGIL_ACTION_FORWARD);
   EXPECT_EQ(limiter.count, 1u);
   EXPECT_EQ(limiter.windowEnd, now + 1 + kCyclesPerSecond);
   EXPECT_EQ(drops, 1u);
}

TEST_F(RateLimitTest, LimiterCountsUnderItsLockAndAddsOnlyToItsOwnCounter) {
   VigilRateLimiter limiter = {1, 1, zek_GetTimerCycles() + kCyclesPerSecond, 0};
   u64 drops = 41;
   EXPECT_EQ(VigilProcessRateLimiting(&filter->rateLimitLock, &limiter, &drops),
             VIGIL_ACTION_FORWARD);
   EXPECT_EQ(VigilProcessRateLimiting(&filter->rateLimitLock, &limiter, &drops),
             VIGIL_ACTION_DROP);
   EXPECT_EQ(drops, 42u);
   EXPECT_EQ(RateLockTakes(), 2u);
   EXPECT_EQ(sim::LockHeldBy(filter->rateLimitLock), sim::LockMode::None);
}

/* ------------------------------------------------- through the pipelines */

void RateLimitTest::LimitOfZeroDropsEveryFrameAndKeepsTheWindow(const Direction &dir) {
   VigilRateLimiter &limiter = Limit(dir.bcastLimiter, dir.bcastBit, 0);
   sim::Advance(0.5);
   const u64 firstWindowEnd = zek_GetTimerCycles() + kCyclesPerSecond;
   EXPECT_EQ(Send(dir, Broadcast(), 3), Verdicts(0, 3));
   EXPECT_EQ(Drops(dir.bcastDrops), 3u);
   EXPECT_EQ(limiter.count, 3u);
   EXPECT_EQ(limiter.windowEnd, firstWindowEnd);

   sim::Advance(1.5);
   EXPECT_EQ(Send(dir, Broadcast(), 2), Verdicts(0, 2));
   EXPECT_EQ(Drops(dir.bcastDrops), 5u);
   EXPECT_EQ(limiter.count, 2u);
   EXPECT_EQ(limiter.windowEnd, zek_GetTimerCycles() + kCyclesPerSecond);
}

TEST_F(RateLimitTest, LimitOfZeroDropsEveryTransmittedFrameAndKeepsTheWindow) {
   LimitOfZeroDropsEveryFrameAndKeepsTheWindow(kTransmit);
}

TEST_F(RateLimitTest, LimitOfZeroDropsEveryReceivedFrameAndKeepsTheWindow) {
   LimitOfZeroDropsEveryFrameAndKeepsTheWindow(kReceive);
}

TEST_F(RateLimitTest, FirstFrameAfterConfigurationOpensANewWindowThroughThePipeline) {
   VigilRateLimiter &limiter = Limit(&VigilFilter::txMcastLimiter, VIGIL_FEAT_TX_MCAST_LIMIT, 4, 2);
   limiter.count = 4; /* what an earlier configuration left */
   sim::Advance(0.01);
   EXPECT_EQ(Send(kTransmit, Multicast(), 1), Verdicts(1, 0));
   EXPECT_EQ(limiter.count, 1u);
   EXPECT_EQ(limiter.windowEnd, zek_GetTimerCycles() + 2 * kCyclesPerSecond);
}

TEST_F(RateLimitTest, ExactlyLimitFramesPassPerWindow) {
   VigilRateLimiter &limiter = Limit(&VigilFilter::txBcastLimiter, VIGIL_FEAT_TX_BCAST_LIMIT, 3);
   sim::Advance(0.001);
   EXPECT_EQ(Send(kTransmit, Broadcast(), 5), Verdicts(3, 2));
   EXPECT_EQ(filter->stats.statTxBcastRateDrops, 2u);
   const u64 windowEnd = limiter.windowEnd;

   /* At its very end the window is still full. */
   sim::Advance(1.0);
   ASSERT_EQ(zek_GetTimerCycles(), windowEnd);
   EXPECT_EQ(Send(kTransmit, Broadcast(), 1), Verdicts(0, 1));
   EXPECT_EQ(filter->stats.statTxBcastRateDrops, 3u);

   /* One cycle later a new window passes `limit` again. */
   sim::Advance(1e-9);
   EXPECT_EQ(Send(kTransmit, Broadcast(), 4), Verdicts(3, 1));
   EXPECT_EQ(filter->stats.statTxBcastRateDrops, 4u);
   EXPECT_EQ(limiter.windowEnd, windowEnd + 1 + kCyclesPerSecond);
}

TEST_F(RateLimitTest, UnusedFramesOfAWindowDoNotCarryOver) {
   Limit(&VigilFilter::rxMcastLimiter, VIGIL_FEAT_RX_MCAST_LIMIT, 3);
   sim::Advance(0.001);
   EXPECT_EQ(Send(kReceive, Multicast(), 1), Verdicts(1, 0));
   sim::Advance(1.5);
   EXPECT_EQ(Send(kReceive, Multicast(), 5), Verdicts(3, 2));
   sim::Advance(5.0); /* several windows without a frame */
   EXPECT_EQ(Send(kReceive, Multicast(), 4), Verdicts(3, 1));
   EXPECT_EQ(filter->stats.statRxMcastRateDrops, 3u);
}

TEST_F(RateLimitTest, UnicastFrameIsNeverRateLimited) {
   for (const Direction *dir : {&kTransmit, &kReceive}) {
      Limit(dir->bcastLimiter, dir->bcastBit, 0);
      Limit(dir->mcastLimiter, dir->mcastBit, 0);
   }
   EXPECT_EQ(Send(kTransmit, Unicast(), 3), Verdicts(3, 0));
   EXPECT_EQ(Send(kReceive, Unicast(), 3), Verdicts(3, 0));
   EXPECT_EQ(RateLockTakes(), 0u);
   EXPECT_EQ(filter->stats.statTxBcastRateDrops + filter->stats.statTxMcastRateDrops +
                filter->stats.statRxBcastRateDrops + filter->stats.statRxMcastRateDrops,
             0u);
   /* The same limits stop a group frame. */
   EXPECT_EQ(Send(kTransmit, Multicast(), 1), Verdicts(0, 1));
}

void RateLimitTest::BroadcastWithoutItsLimitMeetsTheMulticastLimit(const Direction &dir) {
   VigilRateLimiter &mcast = Limit(dir.mcastLimiter, dir.mcastBit, 0);
   VigilRateLimiter &bcast = filter->*dir.bcastLimiter;
   bcast.limit = 0;
   EXPECT_EQ(Send(dir, Broadcast(), 2), Verdicts(0, 2));
   EXPECT_EQ(Drops(dir.mcastDrops), 2u);
   EXPECT_EQ(Drops(dir.bcastDrops), 0u);
   EXPECT_EQ(mcast.count, 2u);
   EXPECT_EQ(bcast.count, 0u);
}

TEST_F(RateLimitTest, TransmittedBroadcastWithoutItsLimitMeetsTheMulticastLimit) {
   BroadcastWithoutItsLimitMeetsTheMulticastLimit(kTransmit);
}

TEST_F(RateLimitTest, ReceivedBroadcastWithoutItsLimitMeetsTheMulticastLimit) {
   BroadcastWithoutItsLimitMeetsTheMulticastLimit(kReceive);
}

void RateLimitTest::BroadcastPassingItsLimitNeverMeetsTheMulticastLimit(const Direction &dir) {
   VigilRateLimiter &bcast = Limit(dir.bcastLimiter, dir.bcastBit, 5);
   VigilRateLimiter &mcast = Limit(dir.mcastLimiter, dir.mcastBit, 0);
   EXPECT_EQ(Send(dir, Broadcast(), 2), Verdicts(2, 0));
   EXPECT_EQ(bcast.count, 2u);
   EXPECT_EQ(mcast.count, 0u);
   EXPECT_EQ(Drops(dir.mcastDrops), 0u);

   /* A multicast frame meets only the multicast limiter. */
   EXPECT_EQ(Send(dir, Multicast(), 1), Verdicts(0, 1));
   EXPECT_EQ(Drops(dir.mcastDrops), 1u);
   EXPECT_EQ(Drops(dir.bcastDrops), 0u);
   EXPECT_EQ(bcast.count, 2u);

   /* A broadcast over its limit is dropped by the broadcast limiter only. */
   bcast.limit = 2;
   EXPECT_EQ(Send(dir, Broadcast(), 1), Verdicts(0, 1));
   EXPECT_EQ(Drops(dir.bcastDrops), 1u);
   EXPECT_EQ(Drops(dir.mcastDrops), 1u);
   EXPECT_EQ(mcast.count, 1u);
}

TEST_F(RateLimitTest, TransmittedBroadcastPassingItsLimitNeverMeetsTheMulticastLimit) {
   BroadcastPassingItsLimitNeverMeetsTheMulticastLimit(kTransmit);
}

TEST_F(RateLimitTest, ReceivedBroadcastPassingItsLimitNeverMeetsTheMulticastLimit) {
   BroadcastPassingItsLimitNeverMeetsTheMulticastLimit(kReceive);
}

void RateLimitTest::EachLimiterTakesTheLockOncePerGroupFrame(const Direction &dir) {
   Limit(dir.bcastLimiter, dir.bcastBit, 100);
   std::vector<zek_Pkt *> batch = {
      frames::Make(Broadcast()), frames::Make(Multicast()), frames::Make(Unicast()),
      frames::Make(Broadcast()), frames::Make(Multicast()), frames::Make(Multicast()),
   };
   dir.transmit ? Tx(kPort, batch) : Rx(kPort, batch);
   EXPECT_EQ(RateLockTakes(), 2u); /* the broadcasts; multicast is not limited */

   Limit(dir.mcastLimiter, dir.mcastBit, 100);
   batch = {
      frames::Make(Broadcast()), frames::Make(Multicast()), frames::Make(Unicast()),
      frames::Make(Broadcast()), frames::Make(Multicast()), frames::Make(Multicast()),
   };
   dir.transmit ? Tx(kPort, batch) : Rx(kPort, batch);
   EXPECT_EQ(RateLockTakes(), 2u + 5u);
   EXPECT_EQ((filter->*dir.bcastLimiter).count, 4u);
   EXPECT_EQ((filter->*dir.mcastLimiter).count, 3u);
}

TEST_F(RateLimitTest, EachTransmitLimiterTakesTheLockOncePerGroupFrame) {
   EachLimiterTakesTheLockOncePerGroupFrame(kTransmit);
}

TEST_F(RateLimitTest, EachReceiveLimiterTakesTheLockOncePerGroupFrame) {
   EachLimiterTakesTheLockOncePerGroupFrame(kReceive);
}

TEST_F(RateLimitTest, LimitsOfOneDirectionDoNotApplyToTheOther) {
   Limit(&VigilFilter::txBcastLimiter, VIGIL_FEAT_TX_BCAST_LIMIT, 0);
   Limit(&VigilFilter::txMcastLimiter, VIGIL_FEAT_TX_MCAST_LIMIT, 0);
   EXPECT_EQ(Send(kReceive, Broadcast(), 1), Verdicts(1, 0));
   EXPECT_EQ(Send(kReceive, Multicast(), 1), Verdicts(1, 0));
   EXPECT_EQ(RateLockTakes(), 0u);

   filter->featuresEnabled = 0;
   Limit(&VigilFilter::rxBcastLimiter, VIGIL_FEAT_RX_BCAST_LIMIT, 0);
   Limit(&VigilFilter::rxMcastLimiter, VIGIL_FEAT_RX_MCAST_LIMIT, 0);
   EXPECT_EQ(Send(kTransmit, Broadcast(), 1), Verdicts(1, 0));
   EXPECT_EQ(Send(kTransmit, Multicast(), 1), Verdicts(1, 0));
   EXPECT_EQ(RateLockTakes(), 0u);
}

TEST_F(RateLimitTest, RateLimitDropComesBeforeAnyOtherTransmitCheck) {
   Limit(&VigilFilter::txBcastLimiter, VIGIL_FEAT_TX_BCAST_LIMIT, 0);
   filter->featuresEnabled |= VIGIL_FEAT_DHCP_CLIENT_BLOCK | VIGIL_FEAT_PORT_WARDEN;
   filter->discoveryFlags = VIGIL_DISC_DHCP;
   EXPECT_EQ(Send(kTransmit, frames::DhcpClient(frames::kVmMac, frames::kVmMac, "0.0.0.0", 1), 1),
             Verdicts(0, 1));
   EXPECT_EQ(filter->stats.statTxBcastRateDrops, 1u);
   EXPECT_EQ(filter->stats.statDhcpClientBlockDrops, 0u);
   EXPECT_TRUE(scripted::wardenCalls.empty());
   EXPECT_TRUE(scripted::snoopCalls.empty());
}
