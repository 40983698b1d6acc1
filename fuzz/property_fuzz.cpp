/*
 * Every port property the module reads, as the switch writes it: the
 * enable text, the IPv4 and IPv6 discovery blobs, the ignore list and the
 * security blob, in any order, and their clean-ups.  The port is enabled
 * first; at the end a few frames go through both ways, so that what was
 * configured is used.
 *
 * Input: records: which u8, len u16, len bytes.  which % 16: 0-4 writes
 * that property (enabled, discovery, discovery.ipv6, ignorelist,
 * security) with the bytes; 5-9 cleans up property which-5; 10-15 sends
 * the probe frames now.
 */
#include "fuzz_host.h"

using namespace fuzzhost;

namespace {

constexpr size_t kMaxBlob = 4096;
constexpr size_t kMaxRecords = 16;

/* An ARP request from 192.0.2.10, a broadcast DHCPDISCOVER's start, a
 * neighbor solicitation from fe80::10 and a BPDU. */
const Bytes kArp = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0, 0, 0x10, 0x08, 0x06,
                    0, 1, 0x08, 0, 6, 4, 0, 1, 0x02, 0, 0, 0, 0, 0x10, 192, 0, 2, 10,
                    0, 0, 0, 0, 0, 0, 192, 0, 2, 1};
const Bytes kNs = {0x33, 0x33, 0xff, 0, 0, 0x01, 0x02, 0, 0, 0, 0, 0x10, 0x86, 0xdd,
                   0x60, 0, 0, 0, 0, 24, 58, 255,
                   0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10,
                   0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff, 0, 0, 0x01,
                   135, 0, 0, 0, 0, 0, 0, 0,
                   0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
const Bytes kBpdu = {0x01, 0x80, 0xc2, 0, 0, 0, 0x02, 0, 0, 0, 0, 0x10, 0, 38,
                     0x42, 0x42, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                     0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

Bytes Dhcp() {
   const uint8_t vm[6] = {0x02, 0, 0, 0, 0, 0x10};
   const uint8_t all[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
   Bytes bootp(240, 0);
   bootp[0] = 1, bootp[1] = 1, bootp[2] = 6;
   for (int i = 0; i < 6; i++) bootp[28 + i] = vm[i];
   bootp[236] = 99, bootp[237] = 130, bootp[238] = 83, bootp[239] = 99;
   Bytes options = {53, 1, 1, 255};
   bootp.insert(bootp.end(), options.begin(), options.end());
   return Ipv4Udp(vm, all, 0, 0xffffffff, 68, 67, bootp);
}

void Probe() {
   for (bool toSwitch : {true, false}) {
      SendBatch(kPort, toSwitch, {{kArp}, {Dhcp()}, {kNs}, {kBpdu}});
   }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   Start();
   Reader in(data, size);
   EnablePort(kPort);
   for (size_t n = 0; n < kMaxRecords && !in.Empty(); n++) {
      uint8_t which = in.U8() % 16;
      uint16_t len = in.U16();
      Bytes blob = in.Take(len < kMaxBlob ? len : kMaxBlob);
      if (which < kNumProps) {
         (void)WriteProp(kPort, (Prop)which, blob);
      } else if (which < 2 * kNumProps) {
         (void)CleanupProp(kPort, (Prop)(which - kNumProps));
      } else {
         Probe();
      }
   }
   Probe();
   EndInput();
   return 0;
}
