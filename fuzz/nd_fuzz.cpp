/*
 * Neighbor Discovery snooping and the IPv6 header walk, reached through
 * frames: each record's payload is an ICMPv6 message (type, code, checksum,
 * body) that the harness puts into an Ethernet/IPv6 frame; or, with op bit
 * 3, the whole IPv6 payload, its first byte the next header, so that
 * extension headers and fragments come in too.
 *
 * Input: a selector u8 (bit 0 RA guard, bit 1 DHCPv6 discovery as well,
 * bit 2 a port white list of 2001:db8::/32), then records:
 *   op u8 (bit 0: to the VM; bit 1: on VLAN 5; bit 2: hop limit 64 instead
 *   of 255; bit 3: raw IPv6 payload; bits 4-5: the source, the unspecified
 *   address, the VM's link-local, its global or a router's link-local;
 *   bits 6-7 all set: the clock moves by len seconds and no frame is sent),
 *   len u16, len bytes.
 */
#include <cstring>

#include "fuzz_host.h"

using namespace fuzzhost;

namespace {

const uint8_t kVmMac[6] = {0x02, 0, 0, 0, 0, 0x10};
const uint8_t kRouterMac[6] = {0x02, 0, 0, 0, 0, 0x01};
const uint8_t kAllNodesMac[6] = {0x33, 0x33, 0, 0, 0, 0x01};
const uint8_t kSources[4][16] = {
   {0},
   {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10},
   {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10},
   {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01},
};
const uint8_t kAllNodes[16] = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
constexpr size_t kMaxPayload = 1400;
constexpr size_t kMaxRecords = 32;

void Configure(uint8_t selector) {
   EnablePort(kPort);
   Discovery(kPort, false, false, true, selector & 2);
   uint32_t features = ((selector & 1) ? 0x2000u : 0) | ((selector & 4) ? 0x40u : 0);
   std::vector<Bytes> portList;
   if (selector & 4) {
      Bytes entry(32, 0);
      entry[0] = 0x02; /* an IPv6 entry */
      entry[12] = 0x20, entry[13] = 0x01, entry[14] = 0x0d, entry[15] = 0xb8;
      entry[28] = 32;
      portList.push_back(entry);
   }
   Security(kPort, features, 0, portList);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   Start();
   Reader in(data, size);
   Configure(in.U8());
   for (size_t n = 0; n < kMaxRecords && !in.Empty(); n++) {
      uint8_t op = in.U8();
      uint16_t len = in.U16();
      if ((op & 0xc0) == 0xc0) {
         Advance(len);
         continue;
      }
      Bytes payload = in.Take(len < kMaxPayload ? len : kMaxPayload);
      uint8_t nextHeader = 58;
      if (op & 8) {
         if (payload.empty()) break;
         nextHeader = payload[0];
         payload.erase(payload.begin());
      }
      bool toVm = op & 1;
      const uint8_t *src = kSources[(op >> 4) & 3];
      Frame frame;
      frame.vlan = (op & 2) ? 5 : 0;
      uint8_t hopLimit = (op & 4) ? 64 : 255;
      frame.bytes = toVm ? Ipv6Frame(kRouterMac, kVmMac, src, kSources[1], nextHeader,
                                     hopLimit, payload)
                         : Ipv6Frame(kVmMac, kAllNodesMac, src, kAllNodes, nextHeader,
                                     hopLimit, payload);
      SendBatch(kPort, !toVm, {frame});
   }
   EndInput();
   return 0;
}
