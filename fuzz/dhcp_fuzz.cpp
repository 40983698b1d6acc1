/*
 * DHCP snooping, reached through frames: each record's payload is a BOOTP
 * message that the harness puts into an Ethernet/IPv4/UDP frame, from the
 * VM (68 -> 67, broadcast) or to it (67 -> 68, from the server).
 *
 * Input: a selector u8 (bit 0 DHCP server block, 1 DHCP client block, 2 ARP
 * discovery as well, 3 a port white list of 192.0.2.0/24), then records:
 *   op u8 (bit 0: to the VM; bit 1: on VLAN 5; bits 4-7 non-zero: the clock
 *   moves by len seconds and no frame is sent), len u16, len bytes.
 */
#include <cstring>

#include "fuzz_host.h"

using namespace fuzzhost;

namespace {

const uint8_t kVmMac[6] = {0x02, 0, 0, 0, 0, 0x10};
const uint8_t kServerMac[6] = {0x02, 0, 0, 0, 0, 0x01};
const uint8_t kBroadcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr uint32_t kServerIp = 0xc0000201; /* 192.0.2.1 */
constexpr size_t kMaxPayload = 1500;
constexpr size_t kMaxRecords = 32;

void Configure(uint8_t selector) {
   EnablePort(kPort);
   Discovery(kPort, selector & 4, true, false, false);
   uint32_t features = ((selector & 1) ? 0x20u : 0) | ((selector & 2) ? 0x80u : 0) |
                       ((selector & 8) ? 0x40u : 0);
   std::vector<Bytes> portList;
   if (selector & 8) {
      Bytes entry(32, 0);
      entry[0] = 0x01; /* an IPv4 entry */
      entry[12] = 192, entry[13] = 0, entry[14] = 2;
      entry[28] = 24;
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
      if ((op & 0xf0) != 0) {
         Advance(len);
         continue;
      }
      Bytes payload = in.Take(len < kMaxPayload ? len : kMaxPayload);
      Frame frame;
      frame.vlan = (op & 2) ? 5 : 0;
      if (op & 1) {
         /* To the client's offered address when the message has one. */
         uint32_t yiaddr = 0xffffffff;
         if (payload.size() >= 20) {
            yiaddr = (uint32_t)payload[16] << 24 | (uint32_t)payload[17] << 16 |
                     (uint32_t)payload[18] << 8 | payload[19];
         }
         frame.bytes = Ipv4Udp(kServerMac, kVmMac, kServerIp, yiaddr, 67, 68, payload);
         SendBatch(kPort, false, {frame});
      } else {
         frame.bytes = Ipv4Udp(kVmMac, kBroadcast, 0, 0xffffffff, 68, 67, payload);
         SendBatch(kPort, true, {frame});
      }
   }
   EndInput();
   return 0;
}
