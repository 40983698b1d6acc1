#include "host_frames.h"

#include "sim_frames.h"
#include "sim_switch.h"

namespace vigild {

zek_Pkt *HostFrame(const uint8_t *data, size_t len, uint16_t vlan,
                   std::vector<uint8_t> &scratch) {
   /* TODO(host frames from a caller buffer): the host's frame builder takes
    * a vector and copies it twice more inside; once the host can build a
    * frame from a caller's buffer with at most one copy, call that here on
    * `data` directly and drop `scratch`. */
   scratch.assign(data, data + len);
   sim::FrameOptions opts;
   opts.vlan = vlan;
   return sim::MakeFrame(scratch, opts);
}

void HostPortChains(uint32_t port, bool *input, bool *output) {
   /* TODO(host chain query): the host's chain listing copies every chain's
    * description; once the host can say whether a port has any chain in a
    * direction, ask it that here. */
   *input = false;
   *output = false;
   for (const sim::ChainInfo &chain : sim::PortChains(port)) {
      if (chain.direction == ZEK_IOCHAIN_INPUT) *input = true;
      if (chain.direction == ZEK_IOCHAIN_OUTPUT) *output = true;
   }
}

void TakeFrames(zek_PktList *list, std::vector<zek_Pkt *> &out) {
   alignas(16) unsigned char room[ZEK_PKT_LIST_ITER_MAX_SIZE];
   auto *iter = reinterpret_cast<zek_PktListIter *>(room);
   zek_PktListIterStart(iter, list);
   while (!zek_PktListIterIsAtEnd(iter)) {
      zek_Pkt *pkt = nullptr;
      if (zek_PktListIterRemovePkt(iter, &pkt) != ZEK_OK) break;
      out.push_back(pkt);
   }
}

} // namespace vigild
