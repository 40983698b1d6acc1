/*
 * Test API of the simulated host: frames, frame lists, tracing.
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
                                Empty: one element holds the whole frame. */
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
 * mapped part already that long stays as it is).  The mapped pointer changes
 * when it grows. */
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

/* Frame lists.  A list owns its frames; DestroyList releases what is left. */
zek_PktList *MakeList();
void ListAppend(zek_PktList *list, zek_Pkt *pkt);
std::vector<zek_Pkt *> ListFrames(zek_PktList *list);
void DestroyList(zek_PktList *list);

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
