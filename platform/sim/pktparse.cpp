/*
 * Header parser of the simulated host.  Runs once per frame and yields the
 * table that zek_PktHeaderFind answers from:
 *   layer index 0: Ethernet (802.1Q tags left in the bytes are skipped);
 *   layer index 1: IPv4, IPv6 or ARP;
 *   layer index 2: IPv6 extension headers, then the transport header
 *                  (none for a non-first fragment).
 * A header whose bytes are not all in the frame ends the table.
 * The table goes into the frame's fixed record, laid out by layer, so that
 * a find looks only at the entries of the layer asked for.
 */
#include <cstring>

#include "sim_frame_internal.h"

namespace {

constexpr int kMaxChain = 16; /* tags or IPv6 extension headers walked */

class Parser {
public:
   Parser(const uint8_t *bytes, size_t len, sim::HeaderTable *out)
      : b_(bytes), len_(len), out_(out) {
      out_->count = 0;
   }

   void Run() {
      if (Has(0, 14)) {
         Ethernet();
      }
      /* Entries come in layer order; each layer starts where the entries
       * of the layers below it end. */
      uint32_t at = 0;
      for (uint32_t layer = 0; layer <= sim::kLayers; layer++) {
         while (at < out_->count && out_->layer[at] < layer) {
            at++;
         }
         out_->layerStart[layer] = static_cast<uint8_t>(at);
      }
      out_->layerStart[sim::kLayers] = out_->count;
      std::memset(out_->firstOfClass, sim::kNoHeader, sizeof out_->firstOfClass);
      for (uint32_t i = out_->count; i-- > 0;) {
         out_->firstOfClass[out_->layer[i]][out_->entries[i].type >> 12] =
            static_cast<uint8_t>(i);
      }
   }

private:
   void Ethernet() {
      size_t off = 14;
      uint16_t etherType = U16(12);
      for (int i = 0; etherType == 0x8100 && Has(off, 4) && i < kMaxChain; i++) {
         etherType = U16(off + 2);
         off += 4;
      }
      Add(0, ZEK_PKT_TYPE_ETH, 0, etherType, off);
      switch (etherType) {
      case 0x0800:
         Ipv4(off);
         break;
      case 0x86dd:
         Ipv6(off);
         break;
      case 0x0806:
         if (Has(off, 28)) {
            Add(1, ZEK_PKT_TYPE_ARP, off, 0, off + 28);
         }
         break;
      default:
         break;
      }
   }

   bool Has(size_t off, size_t n) const { return off + n <= len_; }
   uint16_t U16(size_t off) const {
      return static_cast<uint16_t>(b_[off] << 8 | b_[off + 1]);
   }
   void Add(uint32_t layer, uint16_t type, size_t off, uint16_t nextProto,
            size_t nextOff) {
      if (out_->count == sim::kMaxHeaders) {
         return;
      }
      out_->layer[out_->count] = layer;
      out_->entries[out_->count] = {type, static_cast<uint16_t>(off), nextProto,
                                    static_cast<uint16_t>(nextOff)};
      out_->count++;
   }

   void Ipv4(size_t off) {
      if (!Has(off, 1) || (b_[off] >> 4) != 4) {
         return;
      }
      const size_t hdrLen = (b_[off] & 0xf) * 4u;
      if (hdrLen < 20 || !Has(off, hdrLen)) {
         return;
      }
      const uint8_t proto = b_[off + 9];
      Add(1, ZEK_PKT_TYPE_IPV4, off, proto, off + hdrLen);
      if ((U16(off + 6) & 0x1fff) != 0) {
         return; /* not the first fragment: no transport header here */
      }
      Transport(proto, off + hdrLen, false);
   }

   void Ipv6(size_t off) {
      if (!Has(off, 40) || (b_[off] >> 4) != 6) {
         return;
      }
      uint8_t next = b_[off + 6];
      Add(1, ZEK_PKT_TYPE_IPV6, off, next, off + 40);
      off += 40;
      for (int i = 0;; i++) {
         if (i == kMaxChain) {
            return;
         }
         uint16_t type;
         switch (next) {
         case 0:
            type = ZEK_PKT_TYPE_IPV6_HOPOPT;
            break;
         case 43:
            type = ZEK_PKT_TYPE_IPV6_ROUTING;
            break;
         case 60:
            type = ZEK_PKT_TYPE_IPV6_DSTOPT;
            break;
         case 44:
            type = ZEK_PKT_TYPE_IPV6_FRAGMENT;
            break;
         default:
            Transport(next, off, true);
            return;
         }
         if (!Has(off, 2)) {
            return;
         }
         const size_t len = next == 44 ? 8 : (b_[off + 1] + 1u) * 8;
         if (!Has(off, len)) {
            return;
         }
         const bool laterFragment = next == 44 && (U16(off + 2) >> 3) != 0;
         next = b_[off];
         Add(2, type, off, next, off + len);
         off += len;
         if (laterFragment) {
            return;
         }
      }
   }

   void Transport(uint8_t proto, size_t off, bool ipv6) {
      if (proto == 17) {
         if (Has(off, 8)) {
            Add(2, ZEK_PKT_TYPE_UDP, off, 0, off + 8);
         }
      } else if (proto == 6) {
         if (Has(off, 20)) {
            const size_t hdrLen = (b_[off + 12] >> 4) * 4u;
            const bool full = hdrLen >= 20 && Has(off, hdrLen);
            Add(2, ZEK_PKT_TYPE_TCP, off, 0, off + (full ? hdrLen : 20));
         }
      } else if (proto == 58 && ipv6) {
         if (Has(off, 4)) {
            Add(2, ZEK_PKT_TYPE_ICMPV6, off, 0, off + 4);
         }
      } else {
         Add(2, ZEK_PKT_TYPE_OTHER_L4, off, 0, off);
      }
   }

   const uint8_t *b_;
   size_t len_;
   sim::HeaderTable *out_;
};

} // namespace

namespace sim {

void ParseHeaderTable(const uint8_t *bytes, size_t len, HeaderTable *table) {
   Parser(bytes, len, table).Run();
}

std::vector<HeaderInfo> ParseHeaders(const std::vector<uint8_t> &bytes) {
   HeaderTable table;
   ParseHeaderTable(bytes.data(), bytes.size(), &table);
   std::vector<HeaderInfo> out;
   for (uint32_t i = 0; i < table.count; i++) {
      out.push_back({table.layer[i], table.entries[i]});
   }
   return out;
}

} // namespace sim
