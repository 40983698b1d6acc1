/*
 * The frame helpers of vigild's packet sockets: checksums that a sender
 * left to the hardware, 802.1Q tags, interface look-ups, the send ring's
 * slots; and, as root, the receive ring, the send ring and its fallback
 * (sendmmsg, tags put in by the scatter list), and the kernel's counters of
 * a socket that does not keep up.
 */
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <tins/tins.h>

#include <algorithm>
#include <cerrno>
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

/* A sender on an interface that receives nothing itself (protocol 0). */
struct RawSender {
   int fd = -1;
   struct sockaddr_ll to;
   explicit RawSender(int ifindex) {
      fd = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
      std::memset(&to, 0, sizeof to);
      to.sll_family = AF_PACKET;
      to.sll_protocol = htons(0x88b5);
      to.sll_ifindex = ifindex;
      to.sll_halen = 6;
   }
   ~RawSender() {
      if (fd >= 0) close(fd);
   }
   bool Send(const Bytes &frame) {
      std::memcpy(to.sll_addr, frame.data(), 6);
      return sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<struct sockaddr *>(&to),
                    sizeof to) == static_cast<ssize_t>(frame.size());
   }
};

Bytes TestFrame(size_t size) {
   Bytes frame(size, 0x5a);
   const uint8_t head[14] = {2, 0, 0, 0, 0, 0x0b, 2, 0, 0, 0, 0, 0x0a, 0x88, 0xb5};
   std::memcpy(frame.data(), head, sizeof head);
   return frame;
}

/* Every frame the ring hands over, as bytes, slots given back batch by
 * batch. */
std::vector<vigild::RxFrame> DrainInto(vigild::PacketSocket &socket, std::vector<Bytes> *out) {
   std::vector<vigild::RxFrame> meta;
   vigild::RxFrame frames[vigild::PacketSocket::kBatch];
   for (;;) {
      size_t count = 0;
      int slots = socket.Receive(frames, vigild::PacketSocket::kBatch, &count);
      EXPECT_GE(slots, 0);
      if (slots <= 0) break;
      for (size_t i = 0; i < count; i++) {
         out->emplace_back(frames[i].data, frames[i].data + frames[i].len);
         meta.push_back(frames[i]);
      }
      socket.Release();
   }
   return meta;
}

/* Frames sent on lo come back in as arrivals; more than the ring holds are
 * dropped and counted, and every reading hands over what came since the
 * last one. */
TEST(VigildPacketSocket, StatisticsCountArrivalsAndRingDropsOnce) {
   std::string why;
   if (!PrivateLoopback(&why)) GTEST_SKIP() << why;
   vigild::PacketSocket socket;
   std::string error;
   ASSERT_TRUE(socket.Open("lo", &error)) << error;
   uint64_t arrived = 1, dropped = 1;
   ASSERT_TRUE(socket.TakeStatistics(&arrived, &dropped));
   EXPECT_EQ(arrived, 0u);
   EXPECT_EQ(dropped, 0u);

   RawSender tx(socket.IfIndex());
   ASSERT_GE(tx.fd, 0);
   Bytes frame = TestFrame(1014);
   const uint64_t ring = socket.RingFrames();
   ASSERT_GT(ring, 0u);
   const uint64_t frames = ring + 500;
   for (uint64_t i = 0; i < frames; i++) ASSERT_TRUE(tx.Send(frame)) << i;

   /* Nothing was read: the ring filled up, and the rest was dropped. */
   ASSERT_TRUE(socket.TakeStatistics(&arrived, &dropped));
   EXPECT_EQ(arrived, frames);
   EXPECT_EQ(dropped, 500u);
   /* What was kept is what a reader gets. */
   std::vector<Bytes> got;
   DrainInto(socket, &got);
   EXPECT_EQ(got.size(), ring);
   for (const Bytes &b : got) ASSERT_EQ(b, frame);
   /* Read once, counted once. */
   ASSERT_TRUE(socket.TakeStatistics(&arrived, &dropped));
   EXPECT_EQ(arrived, 0u);
   EXPECT_EQ(dropped, 0u);
   /* The slots went back: the ring takes frames again. */
   ASSERT_TRUE(tx.Send(frame));
   got.clear();
   DrainInto(socket, &got);
   EXPECT_EQ(got.size(), 1u);
   socket.Close();
   EXPECT_FALSE(socket.TakeStatistics(&arrived, &dropped));
}

/* A frame sent with a tag comes back in with the tag's VLAN beside
 * untouched bytes, from the send ring or by sendmmsg; a tag written in a
 * frame's bytes is taken out of them the same way. */
void TagsGoOutAndComeIn(bool txRing) {
   std::string why;
   if (!PrivateLoopback(&why)) GTEST_SKIP() << why;
   vigild::PacketSocket socket;
   socket.UseTxRing(txRing);
   std::string error;
   ASSERT_TRUE(socket.Open("lo", &error)) << error;
   EXPECT_EQ(socket.TxRingFrames() != 0, txRing) << socket.TxRingProblem();
   if (!txRing) {
      EXPECT_EQ(socket.TxRingProblem(), "");
   }
   Bytes frame = TestFrame(60);
   frame[20] = 0x77;
   vigild::TxFrame out[2];
   out[0].data = frame.data();
   out[0].len = static_cast<uint32_t>(frame.size());
   out[0].tag = true;
   out[0].vlan = 7;
   out[1] = out[0];
   out[1].tag = false;
   vigild::SendResult result;
   socket.Send(out, 2, &result);
   EXPECT_EQ(result.sent, 2u);
   EXPECT_EQ(result.bytes, 124u);
   EXPECT_EQ(result.failed + result.ringFull, 0u);
   EXPECT_EQ(result.error, 0);
   EXPECT_EQ(socket.TxWaiting(), 0u);
   Bytes tagged = frame;
   vigild::InsertTag(tagged, 300);
   RawSender tx(socket.IfIndex());
   ASSERT_TRUE(tx.Send(tagged));

   std::vector<Bytes> got;
   std::vector<vigild::RxFrame> meta = DrainInto(socket, &got);
   ASSERT_EQ(got.size(), 3u);
   EXPECT_EQ(got[0], frame);
   EXPECT_TRUE(meta[0].tagged);
   EXPECT_EQ(meta[0].vlan, 7);
   EXPECT_EQ(got[1], frame);
   EXPECT_FALSE(meta[1].tagged);
   EXPECT_EQ(got[2], frame);
   EXPECT_TRUE(meta[2].tagged);
   EXPECT_EQ(meta[2].vlan, 300);
   for (const vigild::RxFrame &f : meta) EXPECT_FALSE(f.truncated);
}

TEST(VigildPacketSocket, TagsGoOutAndComeInBesideTheBytes) { TagsGoOutAndComeIn(true); }

TEST(VigildPacketSocket, TagsGoOutAndComeInBySendmmsg) { TagsGoOutAndComeIn(false); }

bool SetLoopbackUp(bool up) {
   int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   struct ifreq ifr;
   std::memset(&ifr, 0, sizeof ifr);
   std::strcpy(ifr.ifr_name, "lo");
   bool ok = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
   ifr.ifr_flags = static_cast<short>(up ? ifr.ifr_flags | IFF_UP : ifr.ifr_flags & ~IFF_UP);
   ok = ok && ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
   if (fd >= 0) close(fd);
   return ok;
}

/* Batch after batch through the send ring, more frames than it has slots:
 * every one arrives, in order, and is counted once; a frame too long for
 * the interface is refused and counted, the rest of its batch goes. */
TEST(VigildPacketSocket, SendRingGoesRoundAndRefusesLongFrames) {
   std::string why;
   if (!PrivateLoopback(&why)) GTEST_SKIP() << why;
   vigild::PacketSocket socket;
   std::string error;
   ASSERT_TRUE(socket.Open("lo", &error)) << error;
   const uint32_t slots = socket.TxRingFrames();
   ASSERT_GT(slots, 0u) << socket.TxRingProblem();
   /* Fewer per batch than the receive ring holds: it is drained between. */
   const size_t batch = std::min<size_t>(16, socket.RingFrames() / 2);
   const size_t total = slots * 2 + 7;
   size_t sent = 0, seen = 0;
   while (sent < total) {
      size_t n = std::min(batch, total - sent);
      std::vector<Bytes> frames;
      std::vector<vigild::TxFrame> out(n);
      for (size_t i = 0; i < n; i++) {
         frames.push_back(TestFrame(60 + (sent + i) % 50));
         frames.back()[14] = static_cast<uint8_t>(sent + i);
         frames.back()[15] = static_cast<uint8_t>((sent + i) >> 8);
      }
      for (size_t i = 0; i < n; i++) {
         out[i].data = frames[i].data();
         out[i].len = static_cast<uint32_t>(frames[i].size());
      }
      vigild::SendResult result;
      socket.Send(out.data(), n, &result);
      ASSERT_EQ(result.sent, n);
      ASSERT_EQ(result.failed + result.ringFull, 0u);
      EXPECT_EQ(result.bytes, [&] {
         uint64_t b = 0;
         for (const Bytes &f : frames) b += f.size();
         return b;
      }());
      std::vector<Bytes> got;
      DrainInto(socket, &got);
      ASSERT_EQ(got.size(), n);
      for (size_t i = 0; i < n; i++) ASSERT_EQ(got[i], frames[i]) << sent + i;
      sent += n;
      seen += got.size();
   }
   EXPECT_EQ(seen, total);

   Bytes tooLong = TestFrame(70000);
   Bytes fine = TestFrame(64);
   vigild::TxFrame out[2];
   out[0].data = tooLong.data();
   out[0].len = static_cast<uint32_t>(tooLong.size());
   out[1].data = fine.data();
   out[1].len = static_cast<uint32_t>(fine.size());
   vigild::SendResult result;
   socket.Send(out, 2, &result);
   EXPECT_EQ(result.sent, 1u);
   EXPECT_EQ(result.failed, 1u);
   EXPECT_EQ(result.error, EMSGSIZE);
   std::vector<Bytes> got;
   DrainInto(socket, &got);
   ASSERT_EQ(got.size(), 1u);
   EXPECT_EQ(got[0], fine);
}

/* Sends while the interface is down fail and are counted, and leave
 * nothing in the ring: once it is up again, the next frame goes, and only
 * it. */
TEST(VigildPacketSocket, SendRingDropsWhatCannotGoAndGoesOn) {
   std::string why;
   if (!PrivateLoopback(&why)) GTEST_SKIP() << why;
   for (bool txRing : {true, false}) {
      SCOPED_TRACE(txRing ? "send ring" : "sendmmsg");
      vigild::PacketSocket socket;
      socket.UseTxRing(txRing);
      std::string error;
      ASSERT_TRUE(socket.Open("lo", &error)) << error;
      Bytes frame = TestFrame(80);
      std::vector<vigild::TxFrame> out(5);
      for (auto &f : out) {
         f.data = frame.data();
         f.len = static_cast<uint32_t>(frame.size());
      }
      ASSERT_TRUE(SetLoopbackUp(false));
      vigild::SendResult result;
      socket.Send(out.data(), out.size(), &result);
      EXPECT_EQ(result.sent, 0u);
      EXPECT_EQ(result.failed, 5u);
      EXPECT_EQ(result.error, ENETDOWN);
      EXPECT_EQ(socket.TxWaiting(), 0u);
      ASSERT_TRUE(SetLoopbackUp(true));
      /* The receiving socket was told of the interface going down; the
       * switch reads that error when epoll reports it. */
      socket.TakeError();
      std::vector<Bytes> got;
      DrainInto(socket, &got);
      EXPECT_TRUE(got.empty());
      frame[14] = 0x42;
      socket.Send(out.data(), 1, &result);
      EXPECT_EQ(result.sent, 1u) << std::strerror(result.error);
      EXPECT_EQ(result.failed, 0u);
      DrainInto(socket, &got);
      ASSERT_EQ(got.size(), 1u);
      EXPECT_EQ(got[0], frame);
   }
}

/* ------------------------------------------------ the send ring's slots
 * Driven in plain memory, the kernel's part played by the test. */
struct FakeRing {
   static constexpr uint32_t kSize = 256;
   std::vector<uint64_t> memory; /* 8-byte aligned slots */
   vigild::TxRing ring;
   explicit FakeRing(uint32_t frames, uint32_t mtu = 1500, bool vnet = false)
       : memory(kSize * frames / 8, 0) {
      ring.Attach(Base(), kSize, frames, mtu, vnet);
   }
   uint8_t *Base() { return reinterpret_cast<uint8_t *>(memory.data()); }
   struct tpacket2_hdr *Hdr(uint32_t i) {
      return reinterpret_cast<struct tpacket2_hdr *>(Base() + i * kSize);
   }
   Bytes Data(uint32_t i) {
      const uint8_t *d = Base() + i * kSize + vigild::TxRing::DataOffset();
      return Bytes(d, d + Hdr(i)->tp_len);
   }
   /* The kernel takes slots [from, to): being sent, or sent and freed. */
   void Take(uint32_t from, uint32_t to, bool freed) {
      for (uint32_t i = from; i < to; i++) {
         Hdr(i)->tp_status = freed ? TP_STATUS_AVAILABLE : TP_STATUS_SENDING;
      }
   }
};

vigild::TxFrame Tx(const Bytes &b, bool tag = false, uint16_t vlan = 0) {
   vigild::TxFrame f;
   f.data = b.data();
   f.len = static_cast<uint32_t>(b.size());
   f.tag = tag;
   f.vlan = vlan;
   return f;
}

TEST(VigildTxRing, SlotLayoutAndLongestFrames) {
   EXPECT_EQ(vigild::TxRing::DataOffset(), TPACKET_ALIGN(sizeof(struct tpacket2_hdr)));
   EXPECT_EQ(vigild::TxRing::DataOffset() + sizeof(struct sockaddr_ll),
             static_cast<size_t>(TPACKET2_HDRLEN));
   std::vector<uint64_t> memory(2048 * 4 / 8);
   vigild::TxRing ring;
   EXPECT_EQ(ring.MaxLen(false), 0u);
   ring.Attach(reinterpret_cast<uint8_t *>(memory.data()), 2048, 4, 1500);
   EXPECT_EQ(ring.MaxLen(false), 1514u);
   EXPECT_EQ(ring.MaxLen(true), 1518u);
   /* A slot smaller than the MTU: the slot decides. */
   FakeRing small(4);
   EXPECT_EQ(small.ring.MaxLen(false), FakeRing::kSize - vigild::TxRing::DataOffset());
   Bytes longest(small.ring.MaxLen(false), 1), over(small.ring.MaxLen(false) + 1, 1);
   EXPECT_EQ(small.ring.Queue(Tx(over)), vigild::TxRing::Put::kRefused);
   EXPECT_EQ(small.ring.Queue(Tx(longest, true, 5)), vigild::TxRing::Put::kRefused);
   EXPECT_EQ(small.ring.Queue(Tx(Bytes(13, 1))), vigild::TxRing::Put::kRefused);
   EXPECT_EQ(small.ring.Queue(Tx(longest)), vigild::TxRing::Put::kQueued);
   EXPECT_EQ(small.ring.Waiting(), 1u);
}

TEST(VigildTxRing, QueuedBytesTagAndStatus) {
   FakeRing f(4);
   Bytes frame = TestFrame(60);
   frame[30] = 0x99;
   ASSERT_EQ(f.ring.Queue(Tx(frame)), vigild::TxRing::Put::kQueued);
   ASSERT_EQ(f.ring.Queue(Tx(frame, true, 0x123)), vigild::TxRing::Put::kQueued);
   EXPECT_EQ(f.Hdr(0)->tp_status, static_cast<uint32_t>(TP_STATUS_SEND_REQUEST));
   EXPECT_EQ(f.Hdr(1)->tp_status, static_cast<uint32_t>(TP_STATUS_SEND_REQUEST));
   EXPECT_EQ(f.Data(0), frame);
   Bytes tagged = frame;
   vigild::InsertTag(tagged, 0x123);
   EXPECT_EQ(f.Data(1), tagged);
   EXPECT_EQ(f.Hdr(1)->tp_len, 64u);
   EXPECT_EQ(f.ring.Waiting(), 2u);
   EXPECT_EQ(f.Hdr(2)->tp_status, static_cast<uint32_t>(TP_STATUS_AVAILABLE));
}

TEST(VigildTxRing, VirtioNetHeaderBeforeEachFrameCoversIt) {
   FakeRing f(4, 1500, true);
   const uint32_t vnet = vigild::TxRing::VnetHeaderBytes();
   EXPECT_EQ(vnet, 10u);
   EXPECT_EQ(f.ring.MaxLen(false), FakeRing::kSize - vigild::TxRing::DataOffset() - vnet);
   Bytes frame = TestFrame(60);
   ASSERT_EQ(f.ring.Queue(Tx(frame, true, 9)), vigild::TxRing::Put::kQueued);
   EXPECT_EQ(f.Hdr(0)->tp_len, 64 + vnet);
   Bytes slot = f.Data(0);
   /* No flags, no segmentation, the whole frame as header, nothing more. */
   uint16_t hdrLen = 0;
   std::memcpy(&hdrLen, slot.data() + 2, 2);
   EXPECT_EQ(slot[0], 0);
   EXPECT_EQ(slot[1], 0);
   EXPECT_EQ(hdrLen, 64);
   for (uint32_t i = 4; i < vnet; i++) EXPECT_EQ(slot[i], 0) << i;
   Bytes tagged = frame;
   vigild::InsertTag(tagged, 9);
   EXPECT_EQ(Bytes(slot.begin() + vnet, slot.end()), tagged);
   f.Take(0, 1, true);
   size_t frames = 0;
   uint64_t bytes = 0;
   f.ring.Reap(&frames, &bytes);
   EXPECT_EQ(frames, 1u);
   EXPECT_EQ(bytes, 64u); /* the frame's bytes, not the header's */
}

TEST(VigildTxRing, ReapCountsWhatTheKernelTookInOrder) {
   FakeRing f(4);
   Bytes a = TestFrame(60), b = TestFrame(100);
   for (int i = 0; i < 3; i++) ASSERT_EQ(f.ring.Queue(Tx(i == 1 ? b : a)), vigild::TxRing::Put::kQueued);
   size_t frames = 0;
   uint64_t bytes = 0;
   f.ring.Reap(&frames, &bytes);
   EXPECT_EQ(frames, 0u); /* nothing taken yet */
   f.Take(0, 2, false);
   f.ring.Reap(&frames, &bytes);
   EXPECT_EQ(frames, 2u);
   EXPECT_EQ(bytes, 160u);
   EXPECT_EQ(f.ring.Waiting(), 1u);
   /* Taken out of order cannot happen; a later slot alone is not reaped. */
   f.ring.Reap(&frames, &bytes);
   EXPECT_EQ(frames, 2u);
}

TEST(VigildTxRing, FullUntilTheKernelFreesItsCopies) {
   FakeRing f(4);
   Bytes a = TestFrame(60);
   for (int i = 0; i < 4; i++) ASSERT_EQ(f.ring.Queue(Tx(a)), vigild::TxRing::Put::kQueued);
   /* Every slot waits for the kernel. */
   EXPECT_EQ(f.ring.Queue(Tx(a)), vigild::TxRing::Put::kFull);
   size_t frames = 0;
   uint64_t bytes = 0;
   /* Taken, but the first two copies still being sent. */
   f.Take(0, 2, false);
   f.Take(2, 4, true);
   f.ring.Reap(&frames, &bytes);
   EXPECT_EQ(frames, 4u);
   EXPECT_EQ(f.ring.InFlight(), 0u);
   EXPECT_EQ(f.ring.Queue(Tx(a)), vigild::TxRing::Put::kFull);
   f.Take(0, 1, true);
   /* Round the ring: slot 0 again, then slot 1, still being sent. */
   EXPECT_EQ(f.ring.Queue(Tx(a)), vigild::TxRing::Put::kQueued);
   EXPECT_EQ(f.ring.Queue(Tx(a)), vigild::TxRing::Put::kFull);
   f.Take(1, 2, true);
   EXPECT_EQ(f.ring.Queue(Tx(a)), vigild::TxRing::Put::kQueued);
   EXPECT_EQ(f.ring.Waiting(), 2u);
   f.Take(0, 2, true);
   f.ring.Reap(&frames, &bytes);
   EXPECT_EQ(frames, 6u);
}

TEST(VigildTxRing, VoidedFramesAreSkippedAndNotCounted) {
   FakeRing f(4);
   Bytes a = TestFrame(60);
   for (int i = 0; i < 3; i++) ASSERT_EQ(f.ring.Queue(Tx(a)), vigild::TxRing::Put::kQueued);
   f.Take(0, 1, true);
   size_t frames = 0;
   uint64_t bytes = 0;
   f.ring.Reap(&frames, &bytes);
   EXPECT_EQ(frames, 1u);
   EXPECT_EQ(f.ring.Void(), 2u);
   EXPECT_EQ(f.Hdr(1)->tp_len, 0u);
   EXPECT_EQ(f.Hdr(2)->tp_len, 0u);
   EXPECT_EQ(f.ring.Waiting(), 0u);
   EXPECT_EQ(f.ring.InFlight(), 2u);
   EXPECT_EQ(f.ring.Void(), 0u); /* voided once */
   /* More frames behind the voided ones; the kernel skips the voided. */
   ASSERT_EQ(f.ring.Queue(Tx(a)), vigild::TxRing::Put::kQueued);
   EXPECT_EQ(f.ring.Waiting(), 1u);
   f.Take(1, 4, true);
   f.ring.Reap(&frames, &bytes);
   EXPECT_EQ(frames, 2u);
   EXPECT_EQ(bytes, 120u);
   EXPECT_EQ(f.ring.InFlight(), 0u);
   EXPECT_EQ(f.ring.Waiting(), 0u);
}

} // namespace
