#include "packet_socket.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vigild {

namespace {

constexpr uint16_t kTpid8021Q = 0x8100;
constexpr int kSocketBuffer = 4 << 20;

uint16_t Be16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

uint32_t Sum(const uint8_t *p, size_t n, uint32_t sum) {
   for (size_t i = 0; i + 1 < n; i += 2) sum += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
   if (n & 1) sum += static_cast<uint32_t>(p[n - 1] << 8);
   return sum;
}

uint16_t Fold(uint32_t sum) {
   while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
   return static_cast<uint16_t>(~sum & 0xffff);
}

} // namespace

int InterfaceIndex(const std::string &ifname, bool *up) {
   *up = false;
   if (ifname.empty() || ifname.size() >= IFNAMSIZ) return 0;
   int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   if (fd < 0) return 0;
   struct ifreq ifr;
   std::memset(&ifr, 0, sizeof ifr);
   std::memcpy(ifr.ifr_name, ifname.c_str(), ifname.size());
   int index = 0;
   if (ioctl(fd, SIOCGIFINDEX, &ifr) == 0) {
      index = ifr.ifr_ifindex;
      if (ioctl(fd, SIOCGIFFLAGS, &ifr) == 0) *up = (ifr.ifr_flags & IFF_UP) != 0;
   }
   close(fd);
   return index;
}

bool PacketSocket::Open(const std::string &ifname, std::string *error) {
   Close();
   bool up = false;
   int index = InterfaceIndex(ifname, &up);
   if (index == 0) {
      *error = "no interface " + ifname;
      return false;
   }
   /* Protocol 0 until bound: no frame of another interface gets queued in
    * between. */
   int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      *error = std::string("packet socket: ") + std::strerror(errno);
      return false;
   }
   int one = 1;
   setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &one, sizeof one);
#ifdef PACKET_IGNORE_OUTGOING
   setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
#endif
   int size = kSocketBuffer;
   if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
   }
   if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0) {
      setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
   }
   struct sockaddr_ll sll;
   std::memset(&sll, 0, sizeof sll);
   sll.sll_family = AF_PACKET;
   sll.sll_protocol = htons(ETH_P_ALL);
   sll.sll_ifindex = index;
   if (bind(fd, reinterpret_cast<struct sockaddr *>(&sll), sizeof sll) != 0) {
      *error = "bind to " + ifname + ": " + std::strerror(errno);
      close(fd);
      return false;
   }
   struct packet_mreq mreq;
   std::memset(&mreq, 0, sizeof mreq);
   mreq.mr_ifindex = index;
   mreq.mr_type = PACKET_MR_PROMISC;
   setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &mreq, sizeof mreq);
   fd_ = fd;
   ifindex_ = index;
   buffers_.resize(kBatch * kSlotBytes);
   return true;
}

void PacketSocket::Close() {
   if (fd_ >= 0) close(fd_);
   fd_ = -1;
   ifindex_ = 0;
}

int PacketSocket::TakeError() {
   int err = 0;
   socklen_t len = sizeof err;
   if (fd_ < 0 || getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return 0;
   return err;
}

bool PacketSocket::TakeStatistics(uint64_t *arrived, uint64_t *dropped) {
   *arrived = 0;
   *dropped = 0;
   if (fd_ < 0) return false;
   struct tpacket_stats stats;
   std::memset(&stats, 0, sizeof stats);
   socklen_t len = sizeof stats;
   if (getsockopt(fd_, SOL_PACKET, PACKET_STATISTICS, &stats, &len) != 0) return false;
   /* The kernel adds the drops to tp_packets as it hands them over. */
   *arrived = stats.tp_packets;
   *dropped = stats.tp_drops;
   return true;
}

int PacketSocket::Receive(std::vector<RxFrame> &out) {
   out.clear();
   if (fd_ < 0) {
      errno = EBADF;
      return -1;
   }
   struct mmsghdr msgs[kBatch];
   struct iovec iovs[kBatch];
   struct sockaddr_ll addrs[kBatch];
   alignas(struct cmsghdr) char controls[kBatch][CMSG_SPACE(sizeof(struct tpacket_auxdata))];
   std::memset(msgs, 0, sizeof msgs);
   for (size_t i = 0; i < kBatch; i++) {
      iovs[i].iov_base = buffers_.data() + i * kSlotBytes;
      iovs[i].iov_len = kSlotBytes;
      msgs[i].msg_hdr.msg_iov = &iovs[i];
      msgs[i].msg_hdr.msg_iovlen = 1;
      msgs[i].msg_hdr.msg_name = &addrs[i];
      msgs[i].msg_hdr.msg_namelen = sizeof addrs[i];
      msgs[i].msg_hdr.msg_control = controls[i];
      msgs[i].msg_hdr.msg_controllen = sizeof controls[i];
   }
   int n = recvmmsg(fd_, msgs, kBatch, MSG_DONTWAIT | MSG_TRUNC, nullptr);
   if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
      return -1;
   }
   for (int i = 0; i < n; i++) {
      const struct msghdr &hdr = msgs[i].msg_hdr;
      if (addrs[i].sll_pkttype == PACKET_OUTGOING) continue; /* our own sends */
      RxFrame frame;
      size_t len = msgs[i].msg_len;
      frame.truncated = len > kSlotBytes || (hdr.msg_flags & MSG_TRUNC) != 0;
      if (frame.truncated) len = kSlotBytes;
      const uint8_t *data = buffers_.data() + static_cast<size_t>(i) * kSlotBytes;
      frame.bytes.assign(data, data + len);
      bool checksumPending = false;
      for (struct cmsghdr *c = CMSG_FIRSTHDR(&hdr); c != nullptr;
           c = CMSG_NXTHDR(const_cast<struct msghdr *>(&hdr), c)) {
         if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA ||
             c->cmsg_len < CMSG_LEN(sizeof(struct tpacket_auxdata))) {
            continue;
         }
         struct tpacket_auxdata aux;
         std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
         if ((aux.tp_status & TP_STATUS_VLAN_VALID) != 0 &&
             (aux.tp_vlan_tpid == 0 || aux.tp_vlan_tpid == kTpid8021Q)) {
            frame.tagged = true;
            frame.vlan = static_cast<uint16_t>(aux.tp_vlan_tci & 0xfff);
         }
         checksumPending = (aux.tp_status & TP_STATUS_CSUMNOTREADY) != 0;
      }
      /* A tag still in the bytes (no offload on this interface). */
      if (!frame.tagged && frame.bytes.size() >= 18 && Be16(&frame.bytes[12]) == kTpid8021Q) {
         frame.tagged = true;
         frame.vlan = static_cast<uint16_t>(Be16(&frame.bytes[14]) & 0xfff);
         frame.bytes.erase(frame.bytes.begin() + 12, frame.bytes.begin() + 16);
      }
      if (checksumPending && !frame.truncated) CompleteChecksum(frame.bytes);
      out.push_back(std::move(frame));
   }
   return n;
}

size_t PacketSocket::Send(const std::vector<std::vector<uint8_t>> &frames, size_t first,
                          size_t count, int *error) {
   *error = 0;
   size_t sent = 0;
   while (sent < count && fd_ >= 0) {
      size_t batch = std::min(kBatch, count - sent);
      struct mmsghdr msgs[kBatch];
      struct iovec iovs[kBatch];
      std::memset(msgs, 0, sizeof msgs);
      for (size_t i = 0; i < batch; i++) {
         const std::vector<uint8_t> &f = frames[first + sent + i];
         iovs[i].iov_base = const_cast<uint8_t *>(f.data());
         iovs[i].iov_len = f.size();
         msgs[i].msg_hdr.msg_iov = &iovs[i];
         msgs[i].msg_hdr.msg_iovlen = 1;
      }
      int n = sendmmsg(fd_, msgs, static_cast<unsigned>(batch), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n < 0) {
         if (errno == EINTR) continue;
         *error = errno;
         /* The frame at the head cannot go: skip it and try the rest, unless
          * the interface itself is gone. */
         if (errno == ENETDOWN || errno == ENXIO || errno == ENODEV || errno == EAGAIN ||
             errno == EWOULDBLOCK || errno == ENOBUFS) {
            break;
         }
         count--; /* EMSGSIZE and the like: that frame only */
         first++;
         continue;
      }
      sent += static_cast<size_t>(n);
      if (static_cast<size_t>(n) < batch) {
         /* The next one failed; the next call tells why. */
         continue;
      }
   }
   return sent;
}

void CompleteChecksum(std::vector<uint8_t> &f) {
   if (f.size() < 14) return;
   size_t l3 = 14;
   uint16_t type = Be16(&f[12]);
   if (type == kTpid8021Q && f.size() >= 18) {
      type = Be16(&f[16]);
      l3 = 18;
   }
   uint8_t proto;
   size_t l4, l4len;
   uint32_t pseudo = 0;
   if (type == 0x0800) {
      if (f.size() < l3 + 20) return;
      size_t ihl = (f[l3] & 0x0f) * 4u;
      size_t total = Be16(&f[l3 + 2]);
      if (ihl < 20 || total < ihl || l3 + total > f.size()) return;
      if ((Be16(&f[l3 + 6]) & 0x3fff) != 0) return; /* a fragment */
      proto = f[l3 + 9];
      l4 = l3 + ihl;
      l4len = total - ihl;
      pseudo = Sum(&f[l3 + 12], 8, 0) + proto + static_cast<uint32_t>(l4len);
   } else if (type == 0x86dd) {
      if (f.size() < l3 + 40) return;
      proto = f[l3 + 6];
      l4 = l3 + 40;
      l4len = Be16(&f[l3 + 4]);
      if (l4 + l4len > f.size()) return;
      pseudo = Sum(&f[l3 + 8], 32, 0) + proto + static_cast<uint32_t>(l4len);
   } else {
      return;
   }
   size_t at;
   if (proto == 6) {
      at = 16;
   } else if (proto == 17) {
      at = 6;
   } else if (proto == 58) {
      at = 2;
   } else if (proto == 1 && type == 0x0800) {
      at = 2;
      pseudo = 0;
   } else {
      return;
   }
   if (l4len < at + 2) return;
   f[l4 + at] = 0;
   f[l4 + at + 1] = 0;
   uint16_t sum = Fold(Sum(&f[l4], l4len, pseudo));
   if (proto == 17 && sum == 0) sum = 0xffff;
   f[l4 + at] = static_cast<uint8_t>(sum >> 8);
   f[l4 + at + 1] = static_cast<uint8_t>(sum & 0xff);
}

void InsertTag(std::vector<uint8_t> &frame, uint16_t vlan) {
   if (frame.size() < 12) return;
   uint8_t tag[4] = {0x81, 0x00, static_cast<uint8_t>((vlan >> 8) & 0x0f),
                     static_cast<uint8_t>(vlan & 0xff)};
   frame.insert(frame.begin() + 12, tag, tag + 4);
}

} // namespace vigild
