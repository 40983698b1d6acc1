/*
 * DHCPv6 snooping, reached through frames: each record's payload is a
 * DHCPv6 message that the harness puts into an Ethernet/IPv6/UDP frame, from
 * the VM's link-local address to the servers' multicast group (546 -> 547)
 * or from the server to the VM (547 -> 546).
 *
 * Input: a selector u8 (bit 0 DHCPv6 server block, 1 DHCPv6 client block,
 * 2 ND discovery as well), then records:
 *   op u8 (bit 0: to the VM; bit 1: on VLAN 5; bits 4-7 non-zero: the clock
 *   moves by len seconds and no frame is sent), len u16, len bytes.
 */
#include "fuzz_host.h"

using namespace fuzzhost;

namespace {

const uint8_t kVmMac[6] = {0x02, 0, 0, 0, 0, 0x10};
const uint8_t kServerMac[6] = {0x02, 0, 0, 0, 0, 0x01};
const uint8_t kServersMac[6] = {0x33, 0x33, 0, 0x01, 0, 0x02};
const uint8_t kVmIp[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10};
const uint8_t kServerIp[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
const uint8_t kServersIp[16] = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2};
constexpr size_t kMaxPayload = 1400;
constexpr size_t kMaxRecords = 32;

Bytes Udp(uint16_t srcPort, uint16_t dstPort, const Bytes &payload) {
   Bytes udp(8, 0);
   udp[0] = (uint8_t)(srcPort >> 8), udp[1] = (uint8_t)srcPort;
   udp[2] = (uint8_t)(dstPort >> 8), udp[3] = (uint8_t)dstPort;
   uint16_t len = (uint16_t)(8 + payload.size());
   udp[4] = (uint8_t)(len >> 8), udp[5] = (uint8_t)len;
   udp.insert(udp.end(), payload.begin(), payload.end());
   return udp;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   Start();
   Reader in(data, size);
   uint8_t selector = in.U8();
   EnablePort(kPort);
   Discovery(kPort, false, false, selector & 4, true);
   Security(kPort, ((selector & 1) ? 0x800u : 0) | ((selector & 2) ? 0x1000u : 0), 0);
   for (size_t n = 0; n < kMaxRecords && !in.Empty(); n++) {
      uint8_t op = in.U8();
      uint16_t len = in.U16();
      if ((op & 0xf0) != 0) {
         Advance(len);
         continue;
      }
      Bytes payload = in.Take(len < kMaxPayload ? len : kMaxPayload);
      Frame frame;
      frame.vlan = (op & 2) ? 5 : 0;
      bool toVm = op & 1;
      frame.bytes = toVm ? Ipv6Frame(kServerMac, kVmMac, kServerIp, kVmIp, 17, 64,
                                     Udp(547, 546, payload))
                         : Ipv6Frame(kVmMac, kServersMac, kVmIp, kServersIp, 17, 1,
                                     Udp(546, 547, payload));
      SendBatch(kPort, !toVm, {frame});
   }
   EndInput();
   return 0;
}
