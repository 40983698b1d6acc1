/*
 * The packet loop in both directions, over a configuration the input
 * chooses.
 *
 * Input: a configuration, then records.
 *   features u32, rate limits u8 x4 (rx bcast, tx bcast, rx mcast, tx mcast),
 *   discovery u8 (1 ARP, 2 DHCP, 4 ND, 8 DHCPv6),
 *   list sizes u8 (bits 0-1 switch list, 2-3 port list, 4-5 BPDU exclusions,
 *   6-7 ignore list), then their entries (32 bytes, BPDU MACs 6 bytes).
 *   Records: op u8, len u16, then len bytes of frame.
 *     op bit 0: to the VM (else from it); bit 1: joins the previous batch
 *     when its direction is the same; bit 2: the frame starts with only
 *     len/2 bytes mapped; bits 4-7 non-zero: no frame, the clock moves by
 *     len seconds first.
 */
#include <cstring>

#include "fuzz_host.h"

using namespace fuzzhost;

namespace {

constexpr size_t kMaxFrame = 2048;
constexpr size_t kMaxRecords = 64;

Bytes Entries(Reader &in, uint32_t count, size_t size) { return in.Take(count * size); }

void Configure(Reader &in) {
   uint32_t features = in.U32();
   uint8_t rates[4];
   for (uint8_t &r : rates) r = in.U8();
   uint8_t discovery = in.U8();
   uint8_t sizes = in.U8();
   uint32_t switchCount = sizes & 3, portCount = (sizes >> 2) & 3, bpduCount = (sizes >> 4) & 3,
            ignoreCount = sizes >> 6;

   Bytes security(32, 0);
   memcpy(&security[0], &features, 4);
   for (int i = 0; i < 4; i++) {
      uint32_t rate = rates[i];
      memcpy(&security[4 + 4 * i], &rate, 4);
   }
   Bytes switchList = Entries(in, switchCount, 32);
   Bytes portList = Entries(in, portCount, 32);
   Bytes bpdu = Entries(in, bpduCount, 6);
   Bytes ignore = Entries(in, ignoreCount, 32);
   /* The counts say what the input held: a short input gives fewer. */
   uint32_t counts[3] = {(uint32_t)switchList.size() / 32, (uint32_t)portList.size() / 32,
                         (uint32_t)bpdu.size() / 6};
   memcpy(&security[20], counts, 12);
   security.insert(security.end(), switchList.begin(), switchList.begin() + counts[0] * 32);
   security.insert(security.end(), portList.begin(), portList.begin() + counts[1] * 32);
   security.insert(security.end(), bpdu.begin(), bpdu.begin() + counts[2] * 6);

   EnablePort(kPort);
   Discovery(kPort, discovery & 1, discovery & 2, discovery & 4, discovery & 8);
   (void)WriteProp(kPort, kSecurity, security);
   if (ignoreCount != 0) {
      uint32_t n = (uint32_t)ignore.size() / 32;
      Bytes blob(4, 0);
      memcpy(&blob[0], &n, 4);
      blob.insert(blob.end(), ignore.begin(), ignore.begin() + n * 32);
      (void)WriteProp(kPort, kIgnoreList, blob);
   }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   Start();
   Reader in(data, size);
   Configure(in);

   std::vector<Frame> batch;
   bool batchToSwitch = true;
   for (size_t n = 0; n < kMaxRecords && !in.Empty(); n++) {
      uint8_t op = in.U8();
      uint16_t len = in.U16();
      if ((op & 0xf0) != 0) {
         Advance(len);
         continue;
      }
      Frame frame;
      frame.bytes = in.Take(len < kMaxFrame ? len : kMaxFrame);
      if (frame.bytes.empty()) break;
      if (op & 4) frame.mapped = (int32_t)(frame.bytes.size() / 2);
      bool toSwitch = !(op & 1);
      if (!batch.empty() && (!(op & 2) || toSwitch != batchToSwitch)) {
         SendBatch(kPort, batchToSwitch, batch);
         batch.clear();
      }
      batchToSwitch = toSwitch;
      batch.push_back(frame);
   }
   if (!batch.empty()) SendBatch(kPort, batchToSwitch, batch);
   EndInput();
   return 0;
}
