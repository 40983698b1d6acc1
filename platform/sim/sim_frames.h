/*
 * Test API of the simulated host: frames, frame lists, tracing, and the
 * calls a switch's data path (vigild) builds and walks frames with.
 *
 * Frames come from a pool and go back to it when released: a frame's
 * storage is kept and reused, so that building frames allocates nothing
 * once the pool holds as many frames as are in flight.  FramesLive still
 * counts every frame made or copied and not released, and a release of a
 * frame that is not live is still reported.
 */
#ifndef SIM_FRAMES_H
#define SIM_FRAMES_H

#include <cstdint>
#include <vector>

#include "zek.h"

namespace sim {

struct FrameOptions {
   uint16_t vlan = 0;      /* the frame's VLAN as metadata */
   int32_t mapped = -1;    /* mapped bytes; -1: the whole frame */
   std::vector<uint32_t> sg; /* element lengths; the rest goes in a last one.
                                Empty: one element holds the whole frame.
                                At most 16 elements: lengths past the 15th
                                go into the 16th. */
   bool traceAttr = false; /* carries the packet-trace attribute */
   uint64_t traceValue = 0;
};

/* Builds a frame from the bytes of an Ethernet frame.  An 802.1Q tag in the
 * bytes is stripped into the VLAN metadata, as the host does on receive.
 * The headers are parsed at once (see zek_PktHeaderFind). */
zek_Pkt *MakeFrame(const std::vector<uint8_t> &bytes,
                   const FrameOptions &opts = FrameOptions());
std::vector<uint8_t> FrameBytes(zek_Pkt *pkt);
uint64_t FramesLive(); /* created or copied and not released */
/* Grows the frame's mapped part to `len` bytes (never beyond the frame; a
 * mapped part already that long stays as it is).  The mapped pointer may
 * change when it grows. */
void EnsureMapped(zek_Pkt *pkt, uint32_t len);
/* The parsed header table of a frame, in order (for tests of the parser). */
struct HeaderInfo {
   uint32_t layer;
   zek_PktHeaderEntry entry;
};
std::vector<HeaderInfo> FrameHeaders(zek_Pkt *pkt);
/* The header table the host computes for frame bytes as stored (an 802.1Q
 * tag still in the bytes is skipped, not stripped). */
std::vector<HeaderInfo> ParseHeaders(const std::vector<uint8_t> &bytes);

/* Frame lists.  A list owns its frames; DestroyList releases what is left.
 * A frame is on one list at a time.  Lists are recycled like frames. */
zek_PktList *MakeList();
void ListAppend(zek_PktList *list, zek_Pkt *pkt);
std::vector<zek_Pkt *> ListFrames(zek_PktList *list);
void DestroyList(zek_PktList *list);

/* ------------------------------------------- a switch's data path
 * What a switch around the host (vigild) needs to move frames from a
 * receive buffer through a port's chains to a send with no allocation and
 * at most one copy:
 *
 *   zek_Pkt *pkt = sim::MakeFrameFrom(rxBuffer, rxLen, vlan);  // one copy
 *   sim::ListAppend(list, pkt);
 *   if (sim::PortHasChains(port, ZEK_IOCHAIN_INPUT)) sim::SendFromVM(port, list);
 *   for (zek_Pkt *p = sim::ListFirst(list); p; p = sim::ListNext(p)) {
 *      uint32_t len;
 *      const uint8_t *bytes = sim::FrameData(p, &len);  // no copy
 *      ... send bytes, or hand the same frame on to the next port ...
 *   }
 *   sim::DestroyList(list);
 *
 * A frame that reaches a port without output chains
 * (PortHasChains(port, ZEK_IOCHAIN_OUTPUT) false) can be sent from its
 * FrameData as it is: no second frame is needed for the delivery. */

/* Builds a frame from `len` bytes of the caller's (a receive buffer, which
 * stays the caller's): copied once into a pooled frame, mapped whole, in one
 * scatter-gather element, headers parsed.  An 802.1Q tag in the bytes is
 * taken out into the frame's VLAN, as MakeFrame does; without one the frame
 * gets `vlan`.  Safe to call from several threads. */
zek_Pkt *MakeFrameFrom(const uint8_t *bytes, uint32_t len, uint16_t vlan);
/* The frame's bytes in place, valid until the frame is released, and its
 * length in *len; nullptr when the frame is in more than one element (only
 * MakeFrame with FrameOptions::sg builds such frames; FrameBytes reads
 * those). */
const uint8_t *FrameData(zek_Pkt *pkt, uint32_t *len);
/* The first frame of a list and the one after a frame on its list (nullptr
 * at the end): a walk that allocates nothing, unlike ListFrames. */
zek_Pkt *ListFirst(zek_PktList *list);
zek_Pkt *ListNext(zek_Pkt *pkt);
/* Whether the port has a chain in that direction (ZEK_IOCHAIN_INPUT or
 * ZEK_IOCHAIN_OUTPUT): one atomic load when no port has any chain, a short
 * look under the chain table's lock otherwise.  False for an unknown port. */
bool PortHasChains(zek_PortID portID, uint32_t direction);

/* Packet tracing: the attribute id that marks traced frames, and switching
 * tracing on (pathprobe_global_time far in the future) or off (0). */
void SetTraceAttrId(uint64_t id);
void SetTracing(bool on);

/* Observations sent to the packet-trace sibling (PP_SendWdnIOObsv and
 * PP_SendLogicalDropObsv), in order: a copy of each record and the metadata
 * pointer it came with. */
struct Observation {
   bool isDrop;            /* PP_SendLogicalDropObsv */
   std::vector<uint8_t> raw; /* 36 or 97 bytes */
   const void *metadata;
};
std::vector<Observation> TakeObservations();

} // namespace sim

#endif /* SIM_FRAMES_H */
