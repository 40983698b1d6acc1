/*
 * Frames of the simulated host: storage with a mapped part and
 * scatter-gather elements, machine addresses of the elements, copies,
 * attributes and the packet-trace switch.
 *
 * Every region a frame exposes (the mapped part, each element) is its own
 * heap buffer of exactly its size, so that AddressSanitizer reports a read
 * past the end of any of them.
 */
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <unordered_set>

#include "oxa.h"
#include "pathprobe.h"
#include "sim_frames.h"
#include "sim_internal.h"

extern "C" {
uint64_t pathprobe_global_time = 0;
}

namespace {

struct SgPiece {
   std::unique_ptr<uint8_t[]> data; /* exactly elem.length bytes */
   zek_SgElem elem;
};

} // namespace

struct zek_Pkt {
   uint16_t vlan = 0;
   uint32_t frameLen = 0;
   uint32_t mappedLen = 0;
   std::unique_ptr<uint8_t[]> mapped; /* exactly mappedLen bytes */
   std::vector<SgPiece> sg;
   zek_SgArray sgArray{};
   bool traceAttr = false;
   uint64_t traceValue = 0;
   std::vector<sim::HeaderInfo> headers;
};

namespace {

constexpr uint64_t kDefaultTraceAttrId = 0x3e8f6798adcf2307ull;
/* Machine addresses live in their own space, unrelated to pointers. */
constexpr zek_MA kMABase = 0x100000000000ull;
constexpr zek_MA kMAStride = 0x100000ull;

struct ElemRegion {
   uint8_t *data;
   uint32_t length;
};

std::mutex gMutex; /* guards the registries below */
std::unordered_set<zek_Pkt *> gLiveFrames;
std::map<zek_MA, ElemRegion> gElems; /* by machine address of the start */
zek_MA gNextMA = kMABase;
std::atomic<uint64_t> gTraceAttrId{kDefaultTraceAttrId};

void FreeFrameLocked(zek_Pkt *pkt) {
   for (const SgPiece &piece : pkt->sg) {
      gElems.erase(piece.elem.addr);
   }
   delete pkt;
}

void ResetFrames() {
   std::lock_guard<std::mutex> guard(gMutex);
   for (zek_Pkt *pkt : gLiveFrames) {
      FreeFrameLocked(pkt);
   }
   gLiveFrames.clear();
   gElems.clear();
   gNextMA = kMABase;
   gTraceAttrId = kDefaultTraceAttrId;
   pathprobe_global_time = 0;
}

const bool gResetRegistered = (sim::RegisterResetHook(ResetFrames), true);

/* Builds a frame from bytes as they are stored (no tag stripping). */
zek_Pkt *NewFrame(const std::vector<uint8_t> &bytes, uint16_t vlan,
                  int32_t mapped, const std::vector<uint32_t> &sgLens,
                  bool traceAttr, uint64_t traceValue) {
   auto *pkt = new zek_Pkt;
   const uint32_t frameLen = static_cast<uint32_t>(bytes.size());
   pkt->vlan = vlan;
   pkt->frameLen = frameLen;
   pkt->mappedLen = mapped < 0 ? frameLen
                               : std::min(static_cast<uint32_t>(mapped), frameLen);
   pkt->mapped.reset(new uint8_t[pkt->mappedLen]);
   if (pkt->mappedLen > 0) {
      std::memcpy(pkt->mapped.get(), bytes.data(), pkt->mappedLen);
   }
   pkt->traceAttr = traceAttr;
   pkt->traceValue = traceValue;

   /* Element lengths as asked, cut at the frame's end; what is left goes in
    * a last element. */
   std::vector<uint32_t> lens;
   uint32_t pos = 0;
   for (uint32_t len : sgLens) {
      if (pos >= frameLen) {
         break;
      }
      len = std::min(len, frameLen - pos);
      lens.push_back(len);
      pos += len;
   }
   if (pos < frameLen || lens.empty()) {
      lens.push_back(frameLen - pos);
   }

   std::lock_guard<std::mutex> guard(gMutex);
   pos = 0;
   for (uint32_t len : lens) {
      SgPiece piece;
      piece.data.reset(new uint8_t[len]);
      if (len > 0) {
         std::memcpy(piece.data.get(), bytes.data() + pos, len);
      }
      piece.elem.addr = gNextMA;
      piece.elem.length = len;
      gNextMA += (1 + len / kMAStride) * kMAStride;
      gElems[piece.elem.addr] = ElemRegion{piece.data.get(), len};
      pkt->sg.push_back(std::move(piece));
      pos += len;
   }
   pkt->sgArray.numElems = static_cast<uint16_t>(pkt->sg.size());
   pkt->headers = sim::ParseHeaders(bytes);
   gLiveFrames.insert(pkt);
   return pkt;
}

/* Reads frame bytes through the elements; the range must be in the frame. */
void ReadBytes(zek_Pkt *pkt, uint32_t offset, uint32_t len, uint8_t *out) {
   uint32_t start = 0; /* frame offset of the current element */
   for (const SgPiece &piece : pkt->sg) {
      if (len == 0) {
         break;
      }
      const uint32_t elemLen = piece.elem.length;
      if (offset < start + elemLen) {
         const uint32_t from = offset - start;
         const uint32_t n = std::min(elemLen - from, len);
         std::memcpy(out, piece.data.get() + from, n);
         out += n;
         offset += n;
         len -= n;
      }
      start += elemLen;
   }
}

} // namespace

namespace sim {

zek_Pkt *MakeFrame(const std::vector<uint8_t> &bytes, const FrameOptions &opts) {
   std::vector<uint8_t> stored = bytes;
   uint16_t vlan = opts.vlan;
   /* The host takes an 802.1Q tag out of the frame into its metadata. */
   if (stored.size() >= 16 && stored[12] == 0x81 && stored[13] == 0x00) {
      vlan = static_cast<uint16_t>(((stored[14] << 8) | stored[15]) & 0xfff);
      stored.erase(stored.begin() + 12, stored.begin() + 16);
   }
   return NewFrame(stored, vlan, opts.mapped, opts.sg, opts.traceAttr,
                   opts.traceValue);
}

std::vector<uint8_t> FrameBytes(zek_Pkt *pkt) {
   std::vector<uint8_t> bytes(pkt->frameLen);
   ReadBytes(pkt, 0, pkt->frameLen, bytes.data());
   return bytes;
}

uint64_t FramesLive() {
   std::lock_guard<std::mutex> guard(gMutex);
   return gLiveFrames.size();
}

std::vector<HeaderInfo> FrameHeaders(zek_Pkt *pkt) { return pkt->headers; }

void EnsureMapped(zek_Pkt *pkt, uint32_t len) {
   len = std::min(len, pkt->frameLen);
   if (len <= pkt->mappedLen) {
      return;
   }
   /* A new buffer of exactly the new size keeps overreads detectable. */
   std::unique_ptr<uint8_t[]> mapped(new uint8_t[len]);
   ReadBytes(pkt, 0, len, mapped.get());
   pkt->mapped = std::move(mapped);
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
   zek_Status status;
   if (sim::AnyCallFaultArmed() && sim::FaultCheck("PktFrameMappedPointerGet", &status)) {
      return nullptr;
   }
   return pkt->mapped.get();
}

uint32_t zek_PktFrameMappedLenGet(zek_Pkt *pkt) { return pkt->mappedLen; }

uint32_t zek_PktFrameLenGet(zek_Pkt *pkt) { return pkt->frameLen; }

uint16_t zek_PktVlanIDGet(zek_Pkt *pkt) { return pkt->vlan; }

zek_Status zek_PktHeaderFind(zek_Pkt *pkt, uint32_t layer, uint32_t type,
                             uint32_t occurrence, zek_PktHeaderEntry **entry,
                             uint32_t flags) {
   SIM_FAULT_RETURN("PktHeaderFind");
   (void)flags;
   const bool isClass = (type & 0xfff) == 0;
   uint32_t seen = 0;
   for (sim::HeaderInfo &info : pkt->headers) {
      if (info.layer != layer) {
         continue;
      }
      const bool match = isClass ? (info.entry.type & 0xf000u) == type
                                 : info.entry.type == type;
      if (match && ++seen == occurrence) {
         *entry = &info.entry;
         return ZEK_OK;
      }
   }
   return sim::kNotFound;
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
   *copy = NewFrame(sim::FrameBytes(pkt), pkt->vlan, -1, {}, pkt->traceAttr,
                    pkt->traceValue);
   return ZEK_OK;
}

void zek_PktRelease(zek_Pkt *pkt) {
   bool live;
   {
      std::lock_guard<std::mutex> guard(gMutex);
      live = gLiveFrames.erase(pkt) == 1;
      if (live) {
         FreeFrameLocked(pkt);
      }
   }
   if (!live) {
      char text[128];
      std::snprintf(text, sizeof text,
                    "zek_PktRelease: frame %p is not live (released twice or "
                    "never made)",
                    static_cast<void *>(pkt));
      sim::ReportFailure(text);
   }
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
       index >= pkt->sg.size()) {
      return nullptr;
   }
   return &pkt->sg[index].elem;
}

zek_Status zek_MA2VA(zek_MA addr, uint32_t len, void **va) {
   SIM_FAULT_RETURN("MA2VA");
   std::lock_guard<std::mutex> guard(gMutex);
   auto it = gElems.upper_bound(addr);
   if (it == gElems.begin()) {
      return sim::kInvalid;
   }
   --it;
   const uint64_t from = addr - it->first;
   const ElemRegion &region = it->second;
   if (from >= region.length || len > region.length - from) {
      return sim::kInvalid;
   }
   *va = region.data + from;
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
