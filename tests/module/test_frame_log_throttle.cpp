/*
 * Lines that a frame's own bytes can cause go through the throttled log, so
 * that no stream of frames can flood the log: a read past the end of a
 * frame, and a traced frame whose Pathprobe metadata can't be found.  Five
 * lines pass in a window of three seconds, and the frames go on as before.
 */
#include <string>
#include <vector>

#include "test_frames.h"
#include "vigil_test.h"
#include "vigil_throttle.h"

namespace {

class FrameLogThrottle : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      /* The fixture's plain throttled handle gives way to the real one. */
      zek_LogUnregister(vigilThrottledLogHandle);
      vigilThrottledLogHandle = nullptr;
      memset(&vigilThrottleArg, 0, sizeof vigilThrottleArg);
      ASSERT_EQ(VigilLogThrottleInit(), ZEK_OK);
   }
   void TearDown() override {
      sim::SetTracing(false);
      VigilLogThrottleCleanup();
      EXPECT_EQ(vigilThrottledLogHandle, nullptr);
      /* The fixture unregisters a handle of its own. */
      zek_LogProps props = {};
      zek_NameInitialize(&props.name, "vigil.throttle");
      zek_LogRegister(&props, &vigilThrottledLogHandle);
      VigilTest::TearDown();
   }
};

} // namespace

TEST_F(FrameLogThrottle, ReadsPastTheEndOfAFrameLogFiveLinesPerWindow) {
   sim::SetTime(2000.0);
   frames::Bytes bytes(100, 0);
   zek_Pkt *pkt = frames::Make(bytes);
   VigilPacketContext ctx = {};
   ctx.frameMapped = (u8 *)zek_PktFrameMappedPointerGet(pkt);
   ctx.frameLen = 100;
   ctx.mappedLen = 100;
   sim::TakeLogs();
   for (u32 i = 0; i < 7; i++) {
      u32 offset = 90 + i;
      EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 11, &ctx), nullptr);
      EXPECT_EQ(offset, 90 + i);
   }
   std::vector<sim::LogLine> lines = sim::TakeLogs();
   ASSERT_EQ(lines.size(), 5u);
   for (u32 i = 0; i < 5; i++) {
      EXPECT_EQ(lines[i].log, "vigil.throttle");
      EXPECT_EQ(lines[i].level, 2);
      EXPECT_EQ(lines[i].text, "Header offset (" + std::to_string(90 + i) +
                                  " + 11) exceeds framelen: 100");
   }
   EXPECT_EQ(sim::ThrottledCount(), 2u);
   sim::Advance(3.0);
   u32 offset = 95;
   EXPECT_EQ(VigilGetMappedPtr(pkt, &offset, 6, &ctx), nullptr);
   lines = sim::TakeLogs();
   ASSERT_EQ(lines.size(), 1u);
   EXPECT_EQ(lines[0].text, "Header offset (95 + 6) exceeds framelen: 100");
   EXPECT_EQ(ctx.flatCopy, nullptr);
   zek_PktRelease(pkt);
}

TEST_F(FrameLogThrottle, TracedFramesWithoutMetadataLogFiveLinesPerWindowAndAllPass) {
   VigilFilter *filter = AddFilter(0x10);
   /* A feature that leaves a sent unicast frame alone makes the loop look
    * at each frame. */
   filter->featuresEnabled = VIGIL_FEAT_RX_BCAST_LIMIT;
   sim::SetTime(2000.0);
   sim::SetTracing(true);
   sim::FrameOptions traced;
   traced.traceAttr = true;
   std::vector<zek_Pkt *> batch;
   for (int i = 0; i < 7; i++) {
      /* An EtherType that carries no metadata. */
      batch.push_back(frames::Make(
         frames::Ether(frames::kVmMac, "02:00:00:00:00:20", 0x88b5), traced));
   }
   sim::TakeLogs();
   EXPECT_EQ(Tx(0x10, batch), std::vector<std::string>(7, "forward"));
   std::vector<sim::LogLine> lines = sim::TakeLogs();
   ASSERT_EQ(lines.size(), 5u);
   for (const sim::LogLine &line : lines) {
      EXPECT_EQ(line.log, "vigil.throttle");
      EXPECT_EQ(line.level, 2);
      EXPECT_EQ(line.text, "Unable to extract Pathprobe metadata from packet: Not supported");
   }
   EXPECT_EQ(sim::ThrottledCount(), 2u);
}
