/*
 * The frame helpers of vigild's packet sockets: checksums that a sender
 * left to the hardware, 802.1Q tags, interface look-ups; and, as root, the
 * kernel's counters of a socket that does not keep up.
 */
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <tins/tins.h>

#include <cstring>

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

/* The loopback interface of a network namespace of this process's own, up:
 * nothing else sends on it.  False when that can't be had. */
bool PrivateLoopback(std::string *why) {
   if (geteuid() != 0) {
      *why = "needs root";
      return false;
   }
   if (unshare(CLONE_NEWNET) != 0) {
      *why = std::string("no network namespace: ") + std::strerror(errno);
      return false;
   }
   int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   struct ifreq ifr;
   std::memset(&ifr, 0, sizeof ifr);
   std::strcpy(ifr.ifr_name, "lo");
   bool ok = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
   ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
   ok = ok && ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
   if (fd >= 0) close(fd);
   if (!ok) *why = "cannot bring lo up";
   return ok;
}

/* Frames sent on lo come back in as arrivals; more than the receive buffer
 * holds are dropped and counted, and every reading hands over what came
 * since the last one. */
TEST(VigildPacketSocket, StatisticsCountArrivalsAndDropsOnce) {
   std::string why;
   if (!PrivateLoopback(&why)) GTEST_SKIP() << why;
   vigild::PacketSocket socket;
   std::string error;
   ASSERT_TRUE(socket.Open("lo", &error)) << error;
   uint64_t arrived = 1, dropped = 1;
   ASSERT_TRUE(socket.TakeStatistics(&arrived, &dropped));
   EXPECT_EQ(arrived, 0u);
   EXPECT_EQ(dropped, 0u);

   /* A sender that receives nothing itself (protocol 0). */
   int tx = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
   ASSERT_GE(tx, 0);
   struct sockaddr_ll to;
   std::memset(&to, 0, sizeof to);
   to.sll_family = AF_PACKET;
   to.sll_protocol = htons(0x88b5);
   to.sll_ifindex = socket.IfIndex();
   to.sll_halen = 6;
   Bytes frame(1014, 0x5a);
   const uint8_t head[14] = {2, 0, 0, 0, 0, 0x0b, 2, 0, 0, 0, 0, 0x0a, 0x88, 0xb5};
   std::memcpy(frame.data(), head, sizeof head);
   std::memcpy(to.sll_addr, head, 6);
   /* Each frame takes well over 1 KiB of the 4 MiB buffer. */
   constexpr int kFrames = 6000;
   uint64_t sent = 0;
   for (int i = 0; i < kFrames; i++) {
      if (sendto(tx, frame.data(), frame.size(), 0, reinterpret_cast<struct sockaddr *>(&to),
                 sizeof to) == static_cast<ssize_t>(frame.size())) {
         sent++;
      }
   }
   close(tx);
   ASSERT_GT(sent, 4000u);

   ASSERT_TRUE(socket.TakeStatistics(&arrived, &dropped));
   EXPECT_LE(arrived, sent);
   EXPECT_GT(arrived, 4000u);
   EXPECT_GT(dropped, 0u);
   EXPECT_LT(dropped, arrived);
   /* What was kept is what a reader gets. */
   std::vector<vigild::RxFrame> frames;
   uint64_t received = 0;
   for (;;) {
      int n = socket.Receive(frames);
      ASSERT_GE(n, 0);
      if (n == 0) break;
      for (const vigild::RxFrame &f : frames) {
         EXPECT_EQ(f.bytes, frame);
         received++;
      }
   }
   EXPECT_EQ(received, arrived - dropped);
   /* Read once, counted once. */
   ASSERT_TRUE(socket.TakeStatistics(&arrived, &dropped));
   EXPECT_EQ(arrived, 0u);
   EXPECT_EQ(dropped, 0u);
   socket.Close();
   EXPECT_FALSE(socket.TakeStatistics(&arrived, &dropped));
}

} // namespace
