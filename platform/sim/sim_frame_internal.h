/*
 * The frame record of the simulated host, shared by frames, frame lists and
 * the header parser (not for tests).
 *
 * Frames live in a pool and are never freed, only recycled: a frame's
 * storage grows to the largest frame it has held and is reused after that,
 * so building a frame allocates nothing once the pool holds as many frames
 * as are in flight.
 */
#ifndef SIM_FRAME_INTERNAL_H
#define SIM_FRAME_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "sim_frames.h"
#include "zek.h"

namespace sim {

/* Scatter-gather elements a frame can have; asked-for lengths beyond the
 * last of them go into that last element. */
constexpr uint32_t kMaxSgElems = 16;
/* Header entries: Ethernet, the network header, up to 16 IPv6 extension
 * headers and the transport header. */
constexpr uint32_t kMaxHeaders = 20;
constexpr uint32_t kLayers = 3;

constexpr uint8_t kNoHeader = 0xff;

/* The parsed header table of one frame, laid out by layer: the entries of
 * layer L are entries[layerStart[L]] .. entries[layerStart[L + 1] - 1], and
 * the first entry of layer L in class C (the type's top four bits) is
 * entries[firstOfClass[L][C]], kNoHeader for none: the usual find, the
 * first header of a class, is one look. */
struct HeaderTable {
   uint8_t count = 0;
   uint8_t layerStart[kLayers + 1] = {};
   uint8_t firstOfClass[kLayers][16];
   uint32_t layer[kMaxHeaders];
   zek_PktHeaderEntry entries[kMaxHeaders];
};

/* Parses frame bytes as they are stored into *table (pktparse.cpp). */
void ParseHeaderTable(const uint8_t *bytes, size_t len, HeaderTable *table);

} // namespace sim

struct zek_Pkt {
   uint16_t vlan;
   uint32_t frameLen;
   uint32_t mappedLen;
   uint8_t *mapped; /* the frame's first mappedLen bytes */
   zek_SgArray sgArray;
   zek_SgElem elems[sim::kMaxSgElems];
   uint8_t *elemData[sim::kMaxSgElems];
   bool traceAttr;
   uint64_t traceValue;
   sim::HeaderTable headers;

   /* Frame lists (pktlist.cpp): the list the frame is on and its
    * neighbours there. */
   zek_PktList *list;
   zek_Pkt *prev;
   zek_Pkt *next;

   /* The pool: where the frame is in it, how often it was handed out (its
    * machine addresses carry this), whether it is out now, its place on the
    * free list and its storage. */
   uint32_t slot;
   uint32_t generation;
   bool live;
   zek_Pkt *nextFree;
   uint8_t *storage;
   uint32_t capacity;
};

#endif /* SIM_FRAME_INTERNAL_H */
