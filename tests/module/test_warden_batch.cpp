/*
 * A batch remembers the last IPv4 source that the warden let through and
 * lets the same source through again without a look.  Against frames run
 * one per batch, where nothing is remembered, a batch must give the same
 * verdict to every frame, the same drop counters, the same log lines and
 * the same Pathprobe records in the same order: on random sequences of
 * frames from a few sources (some allowed, some not, some traced, some
 * TCP, some with a VLAN) and random white lists, with the switch list on
 * or off.  Then a batch that relocks halfway forgets what it remembered.
 *
 * VIGIL_WARDEN_BATCH_SEED=N runs the random test with that seed alone.
 */
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "test_random.h"
#include "config_blobs.h"
#include "test_frames.h"
#include "sim_switch.h"
#include "vigil_config.h"
#include "vigil_lifecycle.h"
#include "vigil_test.h"
#include "vigil_throttle.h"

namespace {

using blobs::Bytes;
using blobs::Entry;
using blobs::Mac;
using blobs::V4;

constexpr u32 kPort = 0x10;

std::vector<u32> Seeds(std::vector<u32> fixed) { return testrand::Seeds("VIGIL_WARDEN_BATCH_SEED", fixed); }

using testrand::Rng;

const char *const kMacs[] = {"02:00:00:00:00:10", "02:00:00:00:00:11"};
const char *const kIps[] = {"192.0.2.10", "192.0.2.11", "198.51.100.7"};
const u16 kVlans[] = {0, 5};

struct Source {
   u32 mac;
   u32 ip;
   u32 vlan;
   bool tcp;
   bool traced;
};

/* The frame's bytes; the VLAN is a tag in the bytes, taken out into the
 * frame's VLAN when it is built. */
zek_Pkt *MakeFrame(const Source &s) {
   Bytes bytes = s.tcp ? frames::TcpV4(kMacs[s.mac], frames::kServerMac, kIps[s.ip], "192.0.2.1")
                       : frames::UdpV4(kMacs[s.mac], frames::kServerMac, kIps[s.ip],
                                       "192.0.2.1", 5000, 5001);
   sim::FrameOptions opts;
   opts.vlan = kVlans[s.vlan];
   opts.traceAttr = s.traced;
   return frames::Make(bytes, opts);
}

/* A list whose entries name some of the sources, by address, VLAN or MAC. */
std::vector<VigilWhiteListEntry> RandomList(Rng &rng) {
   std::vector<VigilWhiteListEntry> list;
   u32 size = rng.Below(10);
   for (u32 i = 0; i < size; i++) {
      u32 flags = VIGIL_WL_IPV4;
      if (rng.Chance(30)) flags |= VIGIL_WL_VLAN;
      if (rng.Chance(30)) flags |= VIGIL_WL_MAC;
      list.push_back(Entry(flags, V4(kIps[rng.Below(3)]), rng.Chance(80) ? 32 : 24,
                           kVlans[rng.Below(2)], Mac(kMacs[rng.Below(2)])));
   }
   return list;
}

class WardenBatch : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      ASSERT_TRUE(sim::AddPort("vs0", kPort));
      ASSERT_EQ(Vigil_CreateFilter(sim::FindPortset("vs0"), kPort, &filter), ZEK_OK);
      LogTexts();
      sim::TakeObservations();
      sim::SetTracing(true);
   }
   void TearDown() override {
      sim::SetTracing(false);
      if (Vigil_GetPortFilter(kPort) != nullptr) {
         EXPECT_EQ(Vigil_CleanupFilter(sim::FindPortset("vs0"), kPort, nullptr), ZEK_OK);
      }
      VigilTest::TearDown();
   }

   zek_Status Configure(const blobs::Security &security) {
      return ConfigureSecurity(filter, security.Build());
   }

   /* What a run shows: each frame's verdict, the drop counters, the lines
    * and the records, the records with their frame's place. */
   struct Outcome {
      std::vector<std::string> verdicts;
      u64 v4Drops = 0;
      std::vector<std::string> logs;
      std::vector<std::string> records;
   };

   Outcome Run(const std::vector<Source> &sources, bool oneBatch) {
      vigilThrottleArg.count = 0;
      vigilThrottleArg.suppressed = 0;
      u64 dropsBefore = filter->stats.statWardenV4Drops;
      Outcome out;
      std::vector<zek_Pkt *> pkts;
      for (const Source &s : sources) pkts.push_back(MakeFrame(s));
      if (oneBatch) {
         out.verdicts = Tx(kPort, pkts);
      } else {
         for (zek_Pkt *pkt : pkts) {
            std::vector<std::string> one = Tx(kPort, {pkt});
            out.verdicts.push_back(one[0]);
         }
      }
      out.v4Drops = filter->stats.statWardenV4Drops - dropsBefore;
      out.logs = LogTexts();
      for (const sim::Observation &o : sim::TakeObservations()) {
         std::string text = o.isDrop ? "drop " : "io ";
         text += std::string(o.raw.begin(), o.raw.end());
         out.records.push_back(text);
      }
      return out;
   }

   VigilFilter *filter = nullptr;
};

TEST_F(WardenBatch, BatchGivesWhatFramesOnePerBatchGive) {
   u64 frames = 0;
   u64 drops = 0;
   u64 traced = 0;
   for (u32 seed : Seeds({31, 32, 33, 34})) {
      SCOPED_TRACE("VIGIL_WARDEN_BATCH_SEED=" + std::to_string(seed));
      Rng rng(seed);
      for (int round = 0; round < 25; round++) {
         blobs::Security security;
         security.features = VIGIL_FEAT_PORT_WARDEN;
         security.portList = RandomList(rng);
         if (rng.Chance(40)) {
            security.features |= VIGIL_FEAT_SWITCH_WARDEN;
            security.switchList = RandomList(rng);
         }
         ASSERT_EQ(Configure(security), ZEK_OK);
         LogTexts();
         /* Runs of one source, so that a source often comes again. */
         std::vector<Source> sources;
         u32 length = 1 + rng.Below(40);
         Source s{rng.Below(2), rng.Below(3), rng.Below(2), false, false};
         for (u32 i = 0; i < length; i++) {
            if (rng.Chance(30)) {
               s = Source{rng.Below(2), rng.Below(3), rng.Below(2), false, false};
            }
            Source frame = s;
            frame.tcp = rng.Chance(20);
            frame.traced = rng.Chance(15);
            sources.push_back(frame);
         }
         Outcome batch = Run(sources, true);
         Outcome single = Run(sources, false);
         std::string what = "round " + std::to_string(round);
         EXPECT_EQ(batch.verdicts, single.verdicts) << what;
         EXPECT_EQ(batch.v4Drops, single.v4Drops) << what;
         EXPECT_EQ(batch.logs, single.logs) << what;
         EXPECT_EQ(batch.records, single.records) << what;
         for (size_t i = 0; i < sources.size(); i++) {
            frames++;
            drops += single.verdicts[i] == "drop";
            traced += sources[i].traced;
         }
      }
   }
   if (getenv("VIGIL_WARDEN_BATCH_SEED") == nullptr) {
      EXPECT_GT(drops, frames / 10);
      EXPECT_GT(frames - drops, frames / 4);
      EXPECT_GT(traced, frames / 20);
   }
}

/* An ARP frame with ARP snooping on relocks the batch: the frames behind it
 * are judged afresh, and a source the lists still allow passes as before. */
TEST_F(WardenBatch, RelockedBatchJudgesTheSameSourceAgain) {
   blobs::Security security;
   security.features = VIGIL_FEAT_PORT_WARDEN;
   security.portList = {Entry(VIGIL_WL_IPV4, V4(kIps[0]), 32)};
   ASSERT_EQ(Configure(security), ZEK_OK);
   Vigil_LockPortAndFilter(kPort, true);
   filter->discoveryFlags |= VIGIL_DISC_ARP;
   Vigil_UnlockPortAndFilter(filter, true);
   Source allowed{0, 0, 0, false, false};
   Source refused{0, 1, 0, false, false};
   std::vector<zek_Pkt *> pkts = {
      MakeFrame(allowed), MakeFrame(allowed),
      frames::Make(frames::Arp(kMacs[0], kMacs[0], kIps[0], "192.0.2.1", false)),
      MakeFrame(allowed), MakeFrame(refused), MakeFrame(allowed)};
   EXPECT_EQ(Tx(kPort, pkts), (std::vector<std::string>{"forward", "forward", "forward",
                                                        "forward", "drop", "forward"}));
   EXPECT_EQ(filter->numArpVmis, 1u);
   EXPECT_EQ(filter->stats.statWardenV4Drops, 1u);
}

} // namespace
