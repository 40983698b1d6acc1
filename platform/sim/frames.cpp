/*
 * Frames of the simulated host: storage with a mapped part and
 * scatter-gather elements, machine addresses of the elements, copies,
 * attributes and the packet-trace switch.
 *
 * Frames come from a pool (sim_frame_internal.h) and go back to it when
 * released; building one copies its bytes once into the frame's own
 * storage and parses its headers once.  A frame whose whole length is
 * mapped and which has one element shows the same bytes as both; otherwise
 * the mapped part is a copy of its own.
 *
 * Every region a frame exposes (the mapped part, each element) starts on an
 * 8-byte boundary of the storage and is followed by bytes that
 * AddressSanitizer is told are off limits, as is all of a released frame's
 * storage, so that a read past the end of a region or of a frame's life is
 * reported as with separate heap buffers.
 *
 * A machine address names a pool slot, the generation of the frame in it,
 * an element and an offset, so that zek_MA2VA needs no registry and an
 * address of a released frame no longer maps.
 */
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "oxa.h"
#include "pathprobe.h"
#include "sim_frame_internal.h"
#include "sim_frames.h"
#include "sim_internal.h"
#include "sim_spinlock.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define SIM_POISON(addr, size) ASAN_POISON_MEMORY_REGION(addr, size)
#define SIM_UNPOISON(addr, size) ASAN_UNPOISON_MEMORY_REGION(addr, size)
#else
#define SIM_POISON(addr, size) ((void)(addr), (void)(size))
#define SIM_UNPOISON(addr, size) ((void)(addr), (void)(size))
#endif

extern "C" {
uint64_t pathprobe_global_time = 0;
}

namespace {

constexpr uint64_t kDefaultTraceAttrId = 0x3e8f6798adcf2307ull;

/* Machine address layout: a tag bit, the slot, the low bits of the
 * generation, the element and the offset in it. */
constexpr uint64_t kMATag = 1ull << 63;
constexpr uint32_t kMASlotShift = 44;
constexpr uint32_t kMAGenShift = 28;
constexpr uint32_t kMAElemShift = 20;
constexpr uint64_t kMAGenMask = 0xffff;
constexpr uint64_t kMAElemMask = 0xff;
constexpr uint64_t kMAOffsetMask = (1ull << kMAElemShift) - 1;

constexpr uint32_t kChunkFrames = 256;
constexpr uint32_t kMaxChunks = 2048; /* 512 Ki frames in flight */
/* Off-limits bytes after each region, and the least storage a frame gets
 * (room for a full-size Ethernet frame and its mapped copy). */
constexpr uint32_t kRedzone = 16;
constexpr uint32_t kMinCapacity = 4096;

sim::RwSpinlock gPoolLock; /* the free list and the chunk table's growth */
std::atomic<zek_Pkt *> gChunks[kMaxChunks];
std::atomic<uint32_t> gNumChunks{0};
zek_Pkt *gFreeList = nullptr;
std::atomic<uint64_t> gLiveFrames{0};
std::atomic<uint64_t> gTraceAttrId{kDefaultTraceAttrId};

uint32_t Align8(uint32_t n) { return (n + 7u) & ~7u; }

zek_Pkt *SlotFrame(uint64_t slot) {
   const uint64_t chunk = slot / kChunkFrames;
   if (chunk >= gNumChunks.load(std::memory_order_acquire)) {
      return nullptr;
   }
   return gChunks[chunk].load(std::memory_order_acquire) + slot % kChunkFrames;
}

/* The pool's frame at `pkt`, or nullptr when the pointer is none of them. */
zek_Pkt *PoolFrame(const zek_Pkt *pkt) {
   const uint32_t chunks = gNumChunks.load(std::memory_order_acquire);
   const uintptr_t p = reinterpret_cast<uintptr_t>(pkt);
   for (uint32_t i = 0; i < chunks; i++) {
      zek_Pkt *base = gChunks[i].load(std::memory_order_acquire);
      const uintptr_t b = reinterpret_cast<uintptr_t>(base);
      if (p >= b && p < b + kChunkFrames * sizeof(zek_Pkt)) {
         return (p - b) % sizeof(zek_Pkt) == 0 ? const_cast<zek_Pkt *>(pkt) : nullptr;
      }
   }
   return nullptr;
}

/* Adds a chunk of free frames; the caller holds gPoolLock.  False when the
 * pool is at its limit. */
bool GrowPoolLocked() {
   const uint32_t chunks = gNumChunks.load(std::memory_order_relaxed);
   if (chunks == kMaxChunks) {
      return false;
   }
   auto *frames = new zek_Pkt[kChunkFrames]();
   for (uint32_t i = kChunkFrames; i-- > 0;) {
      frames[i].slot = chunks * kChunkFrames + i;
      frames[i].nextFree = gFreeList;
      gFreeList = &frames[i];
   }
   gChunks[chunks].store(frames, std::memory_order_release);
   gNumChunks.store(chunks + 1, std::memory_order_release);
   return true;
}

zek_Pkt *TakeFrame() {
   gPoolLock.WriteLock();
   if (gFreeList == nullptr && !GrowPoolLocked()) {
      gPoolLock.WriteUnlock();
      sim::ReportFailure("frame pool exhausted: more than 524288 frames live");
      std::abort();
   }
   zek_Pkt *pkt = gFreeList;
   gFreeList = pkt->nextFree;
   pkt->nextFree = nullptr;
   pkt->live = true;
   pkt->generation++;
   gPoolLock.WriteUnlock();
   gLiveFrames.fetch_add(1, std::memory_order_relaxed);
   return pkt;
}

/* Storage of at least `needed` bytes, all of it off limits. */
void ReserveStorage(zek_Pkt *pkt, uint32_t needed) {
   if (pkt->capacity < needed) {
      if (pkt->storage != nullptr) {
         SIM_UNPOISON(pkt->storage, pkt->capacity);
         delete[] pkt->storage;
      }
      pkt->capacity = std::max(needed, kMinCapacity);
      pkt->storage = new uint8_t[pkt->capacity];
   }
   SIM_POISON(pkt->storage, pkt->capacity);
}

/* Opens the region of `len` bytes at *at and moves *at past it and its
 * redzone. */
uint8_t *OpenRegion(zek_Pkt *pkt, uint32_t *at, uint32_t len) {
   uint8_t *region = pkt->storage + *at;
   SIM_UNPOISON(region, len);
   *at += Align8(len) + kRedzone;
   return region;
}

zek_MA ElemAddress(const zek_Pkt *pkt, uint32_t elem) {
   return kMATag | static_cast<uint64_t>(pkt->slot) << kMASlotShift |
          (pkt->generation & kMAGenMask) << kMAGenShift |
          static_cast<uint64_t>(elem) << kMAElemShift;
}

/* Element lengths as asked, cut at the frame's end and at the element
 * limit; what is left goes in a last element. */
uint32_t SplitElements(uint32_t frameLen, const uint32_t *sgLens, size_t numSg,
                       uint32_t *lens) {
   uint32_t n = 0;
   uint32_t pos = 0;
   for (size_t i = 0; i < numSg && pos < frameLen && n + 1 < sim::kMaxSgElems; i++) {
      const uint32_t len = std::min(sgLens[i], frameLen - pos);
      lens[n++] = len;
      pos += len;
   }
   if (pos < frameLen || n == 0) {
      lens[n++] = frameLen - pos;
   }
   return n;
}

/* Builds a frame from bytes as they are stored (no tag stripping), with the
 * header table given or, for nullptr, parsed from the bytes.  `tagAt`, when
 * not negative, is where a 4-byte tag sits in `bytes` that is left out of
 * the frame. */
zek_Pkt *BuildFrame(const uint8_t *bytes, uint32_t len, int32_t tagAt,
                    uint16_t vlan, int32_t mapped, const uint32_t *sgLens,
                    size_t numSg, bool traceAttr, uint64_t traceValue,
                    const sim::HeaderTable *headers) {
   const uint32_t frameLen = tagAt >= 0 ? len - 4 : len;
   zek_Pkt *pkt = TakeFrame();
   pkt->vlan = vlan;
   pkt->frameLen = frameLen;
   pkt->mappedLen = mapped < 0 ? frameLen
                               : std::min(static_cast<uint32_t>(mapped), frameLen);
   pkt->traceAttr = traceAttr;
   pkt->traceValue = traceValue;
   pkt->list = nullptr;
   pkt->prev = nullptr;
   pkt->next = nullptr;

   uint32_t lens[sim::kMaxSgElems];
   const uint32_t numElems = SplitElements(frameLen, sgLens, numSg, lens);
   uint32_t needed = kRedzone + Align8(frameLen) + kRedzone;
   for (uint32_t i = 0; i < numElems; i++) {
      needed += Align8(lens[i]) + kRedzone;
   }
   ReserveStorage(pkt, needed);

   uint32_t at = kRedzone;
   uint32_t pos = 0; /* frame offset of the element */
   for (uint32_t i = 0; i < numElems; i++) {
      uint8_t *data = OpenRegion(pkt, &at, lens[i]);
      /* The frame's bytes are the input's without the tag. */
      for (uint32_t done = 0; done < lens[i];) {
         const uint32_t from = pos + done;
         const uint32_t src = tagAt >= 0 && from >= static_cast<uint32_t>(tagAt) ? from + 4 : from;
         uint32_t n = lens[i] - done;
         if (tagAt >= 0 && from < static_cast<uint32_t>(tagAt)) {
            n = std::min(n, static_cast<uint32_t>(tagAt) - from);
         }
         std::memcpy(data + done, bytes + src, n);
         done += n;
      }
      pkt->elemData[i] = data;
      pkt->elems[i].addr = ElemAddress(pkt, i);
      pkt->elems[i].length = lens[i];
      pos += lens[i];
   }
   pkt->sgArray.numElems = static_cast<uint16_t>(numElems);

   /* The mapped part is the first element itself when they hold the same
    * bytes; a copy of its own otherwise. */
   if (numElems == 1 && pkt->mappedLen == frameLen) {
      pkt->mapped = pkt->elemData[0];
   } else {
      pkt->mapped = OpenRegion(pkt, &at, pkt->mappedLen);
      uint32_t done = 0;
      for (uint32_t i = 0; i < numElems && done < pkt->mappedLen; i++) {
         const uint32_t n = std::min(lens[i], pkt->mappedLen - done);
         std::memcpy(pkt->mapped + done, pkt->elemData[i], n);
         done += n;
      }
   }

   if (headers != nullptr) {
      pkt->headers = *headers;
   } else if (numElems == 1) {
      sim::ParseHeaderTable(pkt->elemData[0], frameLen, &pkt->headers);
   } else if (tagAt < 0) {
      sim::ParseHeaderTable(bytes, frameLen, &pkt->headers);
   } else {
      /* Split and tagged: parse a flat copy (only tests build such frames). */
      std::vector<uint8_t> flat = sim::FrameBytes(pkt);
      sim::ParseHeaderTable(flat.data(), flat.size(), &pkt->headers);
   }
   return pkt;
}

/* Where an 802.1Q tag sits in received bytes (-1 for none); the host takes
 * it out of the frame into the frame's VLAN. */
int32_t TagAt(const uint8_t *bytes, uint32_t len, uint16_t *vlan) {
   if (len >= 16 && bytes[12] == 0x81 && bytes[13] == 0x00) {
      *vlan = static_cast<uint16_t>(((bytes[14] << 8) | bytes[15]) & 0xfff);
      return 12;
   }
   return -1;
}

/* Reads frame bytes through the elements; the range must be in the frame. */
void ReadBytes(const zek_Pkt *pkt, uint32_t offset, uint32_t len, uint8_t *out) {
   uint32_t start = 0; /* frame offset of the current element */
   for (uint32_t i = 0; i < pkt->sgArray.numElems && len > 0; i++) {
      const uint32_t elemLen = pkt->elems[i].length;
      if (offset < start + elemLen) {
         const uint32_t from = offset - start;
         const uint32_t n = std::min(elemLen - from, len);
         std::memcpy(out, pkt->elemData[i] + from, n);
         out += n;
         offset += n;
         len -= n;
      }
      start += elemLen;
   }
}

/* The `occurrence`-th entry of the layer that is of the type (or, for a
 * type whose low 12 bits are zero, of the class), walking the layer. */
zek_Status FindHeaderInLayer(zek_Pkt *pkt, uint32_t layer, uint32_t type,
                             uint32_t occurrence, zek_PktHeaderEntry **entry) {
   if (layer >= sim::kLayers) {
      return sim::kNotFound;
   }
   sim::HeaderTable &table = pkt->headers;
   const uint32_t mask = (type & 0xfff) == 0 ? 0xf000u : 0xffffu;
   uint32_t seen = 0;
   for (uint32_t i = table.layerStart[layer]; i < table.layerStart[layer + 1]; i++) {
      if ((table.entries[i].type & mask) == type && ++seen == occurrence) {
         *entry = &table.entries[i];
         return ZEK_OK;
      }
   }
   return sim::kNotFound;
}

/* The usual find, the first header of a class in a layer, is one look in
 * the table; anything else walks the layer. */
inline zek_Status FindHeader(zek_Pkt *pkt, uint32_t layer, uint32_t type,
                             uint32_t occurrence, zek_PktHeaderEntry **entry) {
   /* A class (low 12 bits zero) of at most 0xf000, asked for once. */
   if (__builtin_expect(layer < sim::kLayers && (type & ~0xf000u) == 0 && occurrence == 1,
                        1)) {
      const uint8_t first = pkt->headers.firstOfClass[layer][type >> 12];
      if (first == sim::kNoHeader) {
         return sim::kNotFound;
      }
      *entry = &pkt->headers.entries[first];
      return ZEK_OK;
   }
   return FindHeaderInLayer(pkt, layer, type, occurrence, entry);
}

__attribute__((noinline, cold)) zek_Status
FindHeaderWithFaults(zek_Pkt *pkt, uint32_t layer, uint32_t type,
                     uint32_t occurrence, zek_PktHeaderEntry **entry) {
   zek_Status status;
   if (sim::FaultCheck("PktHeaderFind", &status)) {
      return status;
   }
   return FindHeader(pkt, layer, type, occurrence, entry);
}

__attribute__((noinline, cold)) void *MappedPointerWithFaults(zek_Pkt *pkt) {
   zek_Status status;
   if (sim::FaultCheck("PktFrameMappedPointerGet", &status)) {
      return nullptr;
   }
   return pkt->mapped;
}

void ResetFrames() {
   gPoolLock.WriteLock();
   /* Every frame goes back to the free list, in slot order. */
   gFreeList = nullptr;
   const uint32_t chunks = gNumChunks.load(std::memory_order_relaxed);
   for (uint32_t c = chunks; c-- > 0;) {
      zek_Pkt *frames = gChunks[c].load(std::memory_order_relaxed);
      for (uint32_t i = kChunkFrames; i-- > 0;) {
         zek_Pkt *pkt = &frames[i];
         if (pkt->live && pkt->storage != nullptr) {
            SIM_POISON(pkt->storage, pkt->capacity);
         }
         pkt->live = false;
         pkt->nextFree = gFreeList;
         gFreeList = pkt;
      }
   }
   gPoolLock.WriteUnlock();
   gLiveFrames.store(0, std::memory_order_relaxed);
   gTraceAttrId = kDefaultTraceAttrId;
   pathprobe_global_time = 0;
}

const bool gResetRegistered = (sim::RegisterResetHook(ResetFrames), true);

} // namespace

namespace sim {

zek_Pkt *MakeFrame(const std::vector<uint8_t> &bytes, const FrameOptions &opts) {
   uint16_t vlan = opts.vlan;
   const uint32_t len = static_cast<uint32_t>(bytes.size());
   const int32_t tagAt = TagAt(bytes.data(), len, &vlan);
   return BuildFrame(bytes.data(), len, tagAt, vlan, opts.mapped, opts.sg.data(),
                     opts.sg.size(), opts.traceAttr, opts.traceValue, nullptr);
}

zek_Pkt *MakeFrameFrom(const uint8_t *bytes, uint32_t len, uint16_t vlan) {
   const int32_t tagAt = TagAt(bytes, len, &vlan);
   return BuildFrame(bytes, len, tagAt, vlan, -1, nullptr, 0, false, 0, nullptr);
}

const uint8_t *FrameData(zek_Pkt *pkt, uint32_t *len) {
   *len = pkt->frameLen;
   return pkt->sgArray.numElems == 1 ? pkt->elemData[0] : nullptr;
}

std::vector<uint8_t> FrameBytes(zek_Pkt *pkt) {
   std::vector<uint8_t> bytes(pkt->frameLen);
   ReadBytes(pkt, 0, pkt->frameLen, bytes.data());
   return bytes;
}

uint64_t FramesLive() { return gLiveFrames.load(std::memory_order_relaxed); }

std::vector<HeaderInfo> FrameHeaders(zek_Pkt *pkt) {
   std::vector<HeaderInfo> out;
   for (uint32_t i = 0; i < pkt->headers.count; i++) {
      out.push_back({pkt->headers.layer[i], pkt->headers.entries[i]});
   }
   return out;
}

void EnsureMapped(zek_Pkt *pkt, uint32_t len) {
   len = std::min(len, pkt->frameLen);
   if (len <= pkt->mappedLen) {
      return;
   }
   if (pkt->sgArray.numElems == 1 && len == pkt->frameLen) {
      pkt->mapped = pkt->elemData[0];
   } else {
      /* The mapped region sits after the elements and has room for the
       * whole frame; it is opened to the new length only. */
      uint32_t at = kRedzone;
      for (uint32_t i = 0; i < pkt->sgArray.numElems; i++) {
         at += Align8(pkt->elems[i].length) + kRedzone;
      }
      pkt->mapped = OpenRegion(pkt, &at, len);
      ReadBytes(pkt, 0, len, pkt->mapped);
   }
   pkt->mappedLen = len;
}

void SetTraceAttrId(uint64_t id) { gTraceAttrId = id; }

void SetTracing(bool on) {
   pathprobe_global_time =
      on ? static_cast<uint64_t>(sim::Now() * 1000) + 3600000 : 0;
}

} // namespace sim

extern "C" {

void *zek_PktFrameMappedPointerGet(zek_Pkt *pkt) {
   /* The fault check lives out of line, as the find's does. */
   if (__builtin_expect(sim::AnyCallFaultArmed(), 0)) {
      return MappedPointerWithFaults(pkt);
   }
   return pkt->mapped;
}

uint32_t zek_PktFrameMappedLenGet(zek_Pkt *pkt) { return pkt->mappedLen; }

uint32_t zek_PktFrameLenGet(zek_Pkt *pkt) { return pkt->frameLen; }

uint16_t zek_PktVlanIDGet(zek_Pkt *pkt) { return pkt->vlan; }

zek_Status zek_PktHeaderFind(zek_Pkt *pkt, uint32_t layer, uint32_t type,
                             uint32_t occurrence, zek_PktHeaderEntry **entry,
                             uint32_t flags) {
   (void)flags;
   /* The fault check lives out of line, so that the usual find is a leaf
    * with nothing to save. */
   if (__builtin_expect(sim::AnyCallFaultArmed(), 0)) {
      return FindHeaderWithFaults(pkt, layer, type, occurrence, entry);
   }
   return FindHeader(pkt, layer, type, occurrence, entry);
}

zek_Status zek_PktCopyBytesOut(void *dst, uint32_t len, uint32_t offset,
                               zek_Pkt *pkt) {
   SIM_FAULT_RETURN("PktCopyBytesOut");
   if (static_cast<uint64_t>(offset) + len > pkt->frameLen) {
      return sim::kInvalid;
   }
   ReadBytes(pkt, offset, len, static_cast<uint8_t *>(dst));
   return ZEK_OK;
}

zek_Status zek_PktCopy(zek_Pkt *pkt, zek_Pkt **copy) {
   SIM_FAULT_RETURN("PktCopy");
   /* The copy holds the same bytes, so it has the same header table. */
   if (pkt->sgArray.numElems == 1) {
      *copy = BuildFrame(pkt->elemData[0], pkt->frameLen, -1, pkt->vlan, -1,
                         nullptr, 0, pkt->traceAttr, pkt->traceValue, &pkt->headers);
   } else {
      std::vector<uint8_t> flat = sim::FrameBytes(pkt);
      *copy = BuildFrame(flat.data(), pkt->frameLen, -1, pkt->vlan, -1, nullptr, 0,
                         pkt->traceAttr, pkt->traceValue, &pkt->headers);
   }
   return ZEK_OK;
}

void zek_PktRelease(zek_Pkt *pkt) {
   zek_Pkt *frame = PoolFrame(pkt);
   bool live = false;
   if (frame != nullptr) {
      gPoolLock.WriteLock();
      live = frame->live;
      if (live) {
         frame->live = false;
         frame->nextFree = gFreeList;
         gFreeList = frame;
         SIM_POISON(frame->storage, frame->capacity);
      }
      gPoolLock.WriteUnlock();
   }
   if (live) {
      gLiveFrames.fetch_sub(1, std::memory_order_relaxed);
      return;
   }
   char text[128];
   std::snprintf(text, sizeof text,
                 "zek_PktRelease: frame %p is not live (released twice or "
                 "never made)",
                 static_cast<void *>(pkt));
   sim::ReportFailure(text);
}

const zek_SgArray *zek_PktSgArrayGet(zek_Pkt *pkt) {
   zek_Status status;
   if (sim::AnyCallFaultArmed() && sim::FaultCheck("PktSgArrayGet", &status)) {
      return nullptr;
   }
   return &pkt->sgArray;
}

const zek_SgElem *zek_PktSgElemGet(zek_Pkt *pkt, uint32_t index) {
   zek_Status status;
   if ((sim::AnyCallFaultArmed() && sim::FaultCheck("PktSgElemGet", &status)) ||
       index >= pkt->sgArray.numElems) {
      return nullptr;
   }
   return &pkt->elems[index];
}

zek_Status zek_MA2VA(zek_MA addr, uint32_t len, void **va) {
   SIM_FAULT_RETURN("MA2VA");
   if ((addr & kMATag) == 0) {
      return sim::kInvalid;
   }
   const zek_Pkt *pkt = SlotFrame((addr & ~kMATag) >> kMASlotShift);
   const uint64_t elem = (addr >> kMAElemShift) & kMAElemMask;
   const uint64_t from = addr & kMAOffsetMask;
   if (pkt == nullptr || !pkt->live ||
       ((addr >> kMAGenShift) & kMAGenMask) != (pkt->generation & kMAGenMask) ||
       elem >= pkt->sgArray.numElems) {
      return sim::kInvalid;
   }
   const uint32_t length = pkt->elems[elem].length;
   if (from >= length || len > length - from) {
      return sim::kInvalid;
   }
   *va = pkt->elemData[elem] + from;
   return ZEK_OK;
}

zek_Status oxa_PktAttrGet(zek_Pkt *pkt, uint64_t attr, uint64_t *value) {
   SIM_FAULT_RETURN("PktAttrGet");
   if (!pkt->traceAttr || attr != gTraceAttrId) {
      return sim::kNotFound;
   }
   *value = pkt->traceValue;
   return ZEK_OK;
}

} /* extern "C" */
