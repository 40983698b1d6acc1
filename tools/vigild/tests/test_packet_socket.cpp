/*
 * The frame helpers of vigild's packet sockets: checksums that a sender
 * left to the hardware, 802.1Q tags, interface look-ups.
 */
#include <gtest/gtest.h>
#include <tins/tins.h>

#include "packet_socket.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Serialize(Tins::PDU &pdu) { return pdu.serialize(); }

/* Offset of the transport checksum in a frame without a tag. */
size_t ChecksumAt(const Bytes &f) {
   bool v6 = f[12] == 0x86 && f[13] == 0xdd;
   size_t l4 = v6 ? 14 + 40 : 14 + (f[14] & 0x0f) * 4u;
   uint8_t proto = v6 ? f[14 + 6] : f[14 + 9];
   return l4 + (proto == 6 ? 16 : proto == 17 ? 6 : 2);
}

void ExpectCompleted(Bytes good) {
   size_t at = ChecksumAt(good);
   ASSERT_LT(at + 1, good.size());
   Bytes partial = good;
   /* What a sender that offloads checksums hands over: anything there. */
   partial[at] = 0x12;
   partial[at + 1] = 0x34;
   vigild::CompleteChecksum(partial);
   EXPECT_EQ(partial, good);
}

Tins::EthernetII Eth() { return Tins::EthernetII("02:00:00:00:00:0b", "02:00:00:00:00:0a"); }

TEST(VigildChecksum, UdpOverIpv4) {
   Tins::EthernetII f = Eth() / Tins::IP("192.0.2.11", "192.0.2.10") /
                        Tins::UDP(67, 68) / Tins::RawPDU(std::string(300, 'x'));
   ExpectCompleted(Serialize(f));
}

TEST(VigildChecksum, OddLengthTcpOverIpv4) {
   Tins::TCP tcp(5001, 40000);
   tcp.flags(Tins::TCP::ACK | Tins::TCP::PSH);
   tcp.seq(12345);
   Tins::EthernetII f = Eth() / Tins::IP("192.0.2.11", "192.0.2.10") / tcp /
                        Tins::RawPDU(std::string(1001, 'y'));
   ExpectCompleted(Serialize(f));
}

TEST(VigildChecksum, IcmpOverIpv4) {
   Tins::EthernetII f = Eth() / Tins::IP("192.0.2.11", "192.0.2.10") /
                        Tins::ICMP(Tins::ICMP::ECHO_REQUEST) / Tins::RawPDU("ping!");
   ExpectCompleted(Serialize(f));
}

TEST(VigildChecksum, UdpAndTcpOverIpv6) {
   Tins::EthernetII u = Eth() / Tins::IPv6("2001:db8::b", "2001:db8::a") /
                        Tins::UDP(547, 546) / Tins::RawPDU(std::string(77, 'z'));
   ExpectCompleted(Serialize(u));
   Tins::EthernetII t = Eth() / Tins::IPv6("2001:db8::b", "2001:db8::a") /
                        Tins::TCP(80, 50000) / Tins::RawPDU(std::string(64, 'w'));
   ExpectCompleted(Serialize(t));
}

TEST(VigildChecksum, UdpThatSumsToZeroIsSentAsAllOnes) {
   /* Search a payload whose UDP checksum computes to 0: it goes as 0xffff. */
   for (int i = 0; i < 65536; i++) {
      std::string payload = {static_cast<char>(i >> 8), static_cast<char>(i & 0xff)};
      Tins::EthernetII f = Eth() / Tins::IP("192.0.2.11", "192.0.2.10") /
                           Tins::UDP(1000, 2000) / Tins::RawPDU(payload);
      Bytes bytes = Serialize(f);
      size_t at = ChecksumAt(bytes);
      if (bytes[at] != 0xff || bytes[at + 1] != 0xff) continue;
      bytes[at] = bytes[at + 1] = 0;
      vigild::CompleteChecksum(bytes);
      EXPECT_EQ(bytes[at], 0xff);
      EXPECT_EQ(bytes[at + 1], 0xff);
      return;
   }
   GTEST_SKIP() << "no payload sums to zero";
}

TEST(VigildChecksum, LeavesFragmentsShortAndOtherFramesAlone) {
   Tins::IP ip("192.0.2.11", "192.0.2.10");
   ip.fragment_offset(8);
   Tins::EthernetII frag = Eth() / ip / Tins::RawPDU(std::string(40, 'f'));
   Bytes bytes = Serialize(frag);
   Bytes copy = bytes;
   vigild::CompleteChecksum(bytes);
   EXPECT_EQ(bytes, copy);

   Tins::EthernetII udp = Eth() / Tins::IP("192.0.2.11", "192.0.2.10") / Tins::UDP(1, 2);
   Bytes cut = Serialize(udp);
   cut.resize(cut.size() - 4); /* shorter than the IP header says */
   copy = cut;
   vigild::CompleteChecksum(cut);
   EXPECT_EQ(cut, copy);

   Tins::EthernetII request =
       Tins::ARP::make_arp_request("192.0.2.1", "192.0.2.10", "02:00:00:00:00:0a");
   Bytes arp = Serialize(request);
   copy = arp;
   vigild::CompleteChecksum(arp);
   EXPECT_EQ(arp, copy);
   Bytes tiny = {1, 2, 3};
   vigild::CompleteChecksum(tiny);
   EXPECT_EQ(tiny, (Bytes{1, 2, 3}));
}

TEST(VigildChecksum, TaggedFrame) {
   Tins::EthernetII f = Eth() / Tins::IP("192.0.2.11", "192.0.2.10") / Tins::UDP(67, 68) /
                        Tins::RawPDU(std::string(33, 'q'));
   Bytes good = Serialize(f);
   size_t at = ChecksumAt(good) + 4;
   vigild::InsertTag(good, 100);
   Bytes partial = good;
   partial[at] = partial[at + 1] = 0;
   vigild::CompleteChecksum(partial);
   EXPECT_EQ(partial, good);
}

TEST(VigildTag, InsertedAfterTheAddresses) {
   Bytes frame = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x08, 0x00, 0x45};
   vigild::InsertTag(frame, 0x123);
   EXPECT_EQ(frame, (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x81, 0x00, 0x01, 0x23,
                           0x08, 0x00, 0x45}));
   vigild::InsertTag(frame, 0xfff7); /* only the VLAN's 12 bits */
   EXPECT_EQ(frame[14], 0x0f);
   EXPECT_EQ(frame[15], 0xf7);
}

TEST(VigildInterface, LoopbackAndMissing) {
   bool up = false;
   EXPECT_GT(vigild::InterfaceIndex("lo", &up), 0);
   EXPECT_EQ(vigild::InterfaceIndex("vl-none-such", &up), 0);
   EXPECT_FALSE(up);
   EXPECT_EQ(vigild::InterfaceIndex("", &up), 0);
   EXPECT_EQ(vigild::InterfaceIndex(std::string(40, 'x'), &up), 0);
   vigild::PacketSocket socket;
   std::string error;
   EXPECT_FALSE(socket.Open("vl-none-such", &error));
   EXPECT_NE(error.find("no interface"), std::string::npos);
}

} // namespace
