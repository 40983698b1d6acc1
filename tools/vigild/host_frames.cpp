#include "host_frames.h"

#include "sim_frames.h"
#include "sim_switch.h"

namespace vigild {

zek_Pkt *HostFrame(const uint8_t *data, size_t len, uint16_t vlan) {
   return sim::MakeFrameFrom(data, static_cast<uint32_t>(len), vlan);
}

void HostPortChains(uint32_t port, bool *input, bool *output) {
   *input = sim::PortHasChains(port, ZEK_IOCHAIN_INPUT);
   *output = sim::PortHasChains(port, ZEK_IOCHAIN_OUTPUT);
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
