#include "packet_socket.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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

namespace {

int InterfaceMtu(int fd, const std::string &ifname) {
   struct ifreq ifr;
   std::memset(&ifr, 0, sizeof ifr);
   std::memcpy(ifr.ifr_name, ifname.c_str(), std::min(ifname.size(), sizeof ifr.ifr_name - 1));
   int mtu = 1500;
   if (ioctl(fd, SIOCGIFMTU, &ifr) == 0 && ifr.ifr_mtu > 0) mtu = ifr.ifr_mtu;
   return mtu;
}

/* A ring slot for the interface's largest frame: a power of two of at
 * least 2 KiB, with room for the kernel's header and an 802.1Q tag. */
uint32_t SlotSize(int mtu) {
   uint32_t need = static_cast<uint32_t>(mtu) + 14 + 4 + TPACKET_ALIGN(TPACKET2_HDRLEN) + 16;
   uint32_t size = 2048;
   while (size < need && size < (1u << 17)) size <<= 1;
   return size;
}

/* Bytes of a send ring: slots for several batches in flight (the kernel
 * frees a sent frame's slot as soon as the frame has been handed over, most
 * often before send() returns), few enough that the slots stay in the
 * processor's cache; fewer slots for an interface of very large frames. */
constexpr size_t kTxRingBytes = 512u << 10;
constexpr uint32_t kTxRingMinFrames = 32;

constexpr uint32_t kKernelOwned = TP_STATUS_SEND_REQUEST | TP_STATUS_SENDING;

/* The virtio-net header of a packet socket with PACKET_VNET_HDR (its
 * kernel header names a member `class`, which C++ can't include), in the
 * host's byte order as the kernel reads it there. */
struct VnetHeader {
   uint8_t flags;      /* no checksum to complete */
   uint8_t gsoType;    /* 0: no segmentation */
   uint16_t hdrLen;    /* bytes the kernel copies into its socket buffer */
   uint16_t gsoSize;
   uint16_t csumStart;
   uint16_t csumOffset;
};
static_assert(sizeof(VnetHeader) == 10, "virtio-net header");

} // namespace

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
#ifdef PACKET_IGNORE_OUTGOING
   setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
#endif
   int size = kSocketBuffer;
   if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0) {
      setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
   }
   /* Sends go straight to the interface's driver, past the queueing
    * layer: a veth or tap has no queue to keep anyway. */
   setsockopt(fd, SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof one);
   int version = TPACKET_V2;
   if (setsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0) {
      *error = std::string("packet ring version: ") + std::strerror(errno);
      close(fd);
      return false;
   }
   int mtu = InterfaceMtu(fd, ifname);
   uint32_t frameSize = SlotSize(mtu);
   uint32_t blockSize = std::max<uint32_t>(frameSize, 1u << 16);
   struct tpacket_req req;
   std::memset(&req, 0, sizeof req);
   req.tp_block_size = blockSize;
   req.tp_block_nr = static_cast<unsigned>(std::max<size_t>(kRingBytes / blockSize, 1));
   req.tp_frame_size = frameSize;
   req.tp_frame_nr = req.tp_block_nr * (blockSize / frameSize);
   if (setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &req, sizeof req) != 0) {
      *error = std::string("packet receive ring: ") + std::strerror(errno);
      close(fd);
      return false;
   }
   size_t ringBytes = static_cast<size_t>(req.tp_block_size) * req.tp_block_nr;
   void *ring = mmap(nullptr, ringBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   if (ring == MAP_FAILED) {
      *error = std::string("packet ring mapping: ") + std::strerror(errno);
      close(fd);
      return false;
   }
   struct sockaddr_ll sll;
   std::memset(&sll, 0, sizeof sll);
   sll.sll_family = AF_PACKET;
   sll.sll_protocol = htons(ETH_P_ALL);
   sll.sll_ifindex = index;
   if (bind(fd, reinterpret_cast<struct sockaddr *>(&sll), sizeof sll) != 0) {
      *error = "bind to " + ifname + ": " + std::strerror(errno);
      munmap(ring, ringBytes);
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
   ring_ = static_cast<uint8_t *>(ring);
   ringBytes_ = ringBytes;
   frameSize_ = frameSize;
   frameCount_ = req.tp_frame_nr;
   slotCapacity_ = frameSize - TPACKET_ALIGN(TPACKET2_HDRLEN) - 16;
   head_ = 0;
   taken_ = 0;
   txProblem_.clear();
   if (useTxRing_ && !OpenTx(index, ifname, frameSize, mtu, &txProblem_)) CloseTx();
   return true;
}

bool PacketSocket::OpenTx(int ifindex, const std::string &ifname, uint32_t frameSize, int mtu,
                          std::string *problem) {
   txFd_ = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (txFd_ < 0) {
      *problem = std::string("sending socket: ") + std::strerror(errno);
      return false;
   }
   int size = kSocketBuffer;
   if (setsockopt(txFd_, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0) {
      setsockopt(txFd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
   }
   int one = 1;
   setsockopt(txFd_, SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof one);
   int version = TPACKET_V2;
   if (setsockopt(txFd_, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0) {
      *problem = std::string("send ring version: ") + std::strerror(errno);
      return false;
   }
   /* A voided slot is skipped rather than stopping the ring. */
   if (setsockopt(txFd_, SOL_PACKET, PACKET_LOSS, &one, sizeof one) != 0) {
      *problem = std::string("send ring loss mode: ") + std::strerror(errno);
      return false;
   }
   /* Without it the ring still works, the kernel pointing at the slots. */
   bool vnet = setsockopt(txFd_, SOL_PACKET, PACKET_VNET_HDR, &one, sizeof one) == 0;
   uint32_t blockSize = std::max<uint32_t>(frameSize, 1u << 16);
   uint32_t perBlock = blockSize / frameSize;
   uint32_t frames = static_cast<uint32_t>(
       std::clamp<size_t>(kTxRingBytes / frameSize, kTxRingMinFrames, kTxRingFrames));
   struct tpacket_req req;
   std::memset(&req, 0, sizeof req);
   req.tp_block_size = blockSize;
   req.tp_block_nr = (frames + perBlock - 1) / perBlock;
   req.tp_frame_size = frameSize;
   req.tp_frame_nr = req.tp_block_nr * perBlock;
   if (setsockopt(txFd_, SOL_PACKET, PACKET_TX_RING, &req, sizeof req) != 0) {
      *problem = std::string("send ring: ") + std::strerror(errno);
      return false;
   }
   size_t bytes = static_cast<size_t>(req.tp_block_size) * req.tp_block_nr;
   void *map = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, txFd_, 0);
   if (map == MAP_FAILED) {
      *problem = std::string("send ring mapping: ") + std::strerror(errno);
      return false;
   }
   txMap_ = static_cast<uint8_t *>(map);
   txMapBytes_ = bytes;
   /* Protocol 0: the socket receives nothing. */
   struct sockaddr_ll sll;
   std::memset(&sll, 0, sizeof sll);
   sll.sll_family = AF_PACKET;
   sll.sll_protocol = 0;
   sll.sll_ifindex = ifindex;
   if (bind(txFd_, reinterpret_cast<struct sockaddr *>(&sll), sizeof sll) != 0) {
      *problem = "bind of the sending socket to " + ifname + ": " + std::strerror(errno);
      return false;
   }
   txRing_.Attach(txMap_, frameSize, req.tp_frame_nr, static_cast<uint32_t>(mtu), vnet);
   return true;
}

void PacketSocket::CloseTx() {
   txRing_.Detach();
   if (txMap_ != nullptr) munmap(txMap_, txMapBytes_);
   txMap_ = nullptr;
   txMapBytes_ = 0;
   if (txFd_ >= 0) close(txFd_);
   txFd_ = -1;
}

void PacketSocket::Close() {
   CloseTx();
   if (ring_ != nullptr) munmap(ring_, ringBytes_);
   ring_ = nullptr;
   ringBytes_ = 0;
   if (fd_ >= 0) close(fd_);
   fd_ = -1;
   ifindex_ = 0;
   head_ = taken_ = 0;
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

int PacketSocket::Receive(RxFrame *out, size_t max, size_t *count) {
   *count = 0;
   if (fd_ < 0) {
      errno = EBADF;
      return -1;
   }
   max = std::min(max, kBatch);
   int slots = 0;
   while (*count < max && taken_ < frameCount_) {
      uint8_t *slot = ring_ + static_cast<size_t>(head_) * frameSize_;
      auto *hdr = reinterpret_cast<struct tpacket2_hdr *>(slot);
      uint32_t status = __atomic_load_n(&hdr->tp_status, __ATOMIC_ACQUIRE);
      if ((status & TP_STATUS_USER) == 0) break;
      head_ = head_ + 1 == frameCount_ ? 0 : head_ + 1;
      taken_++;
      slots++;
      /* The kernel wrote the slots on another processor, most likely: the
       * next header is fetched while this frame is looked at. */
      __builtin_prefetch(ring_ + static_cast<size_t>(head_) * frameSize_);
      const auto *sll =
          reinterpret_cast<const struct sockaddr_ll *>(slot + TPACKET_ALIGN(sizeof *hdr));
      if (sll->sll_pkttype == PACKET_OUTGOING) continue; /* our own sends */
      RxFrame &frame = out[(*count)++];
      frame = RxFrame();
      frame.data = slot + hdr->tp_mac;
      frame.len = hdr->tp_snaplen;
      frame.truncated = hdr->tp_snaplen < hdr->tp_len;
      if ((status & TP_STATUS_VLAN_VALID) != 0 &&
          ((status & TP_STATUS_VLAN_TPID_VALID) == 0 || hdr->tp_vlan_tpid == kTpid8021Q ||
           hdr->tp_vlan_tpid == 0)) {
         frame.tagged = true;
         frame.vlan = static_cast<uint16_t>(hdr->tp_vlan_tci & 0xfff);
      }
      /* A tag still in the bytes (no offload on this interface): the MAC
       * addresses move up over it. */
      if (!frame.tagged && frame.len >= 18 && Be16(frame.data + 12) == kTpid8021Q) {
         frame.tagged = true;
         frame.vlan = static_cast<uint16_t>(Be16(frame.data + 14) & 0xfff);
         std::memmove(frame.data + 4, frame.data, 12);
         frame.data += 4;
         frame.len -= 4;
      }
      if ((status & TP_STATUS_CSUMNOTREADY) != 0 && !frame.truncated) {
         CompleteChecksum(frame.data, frame.len);
      }
   }
   return slots;
}

void PacketSocket::Release() {
   uint32_t slot = (head_ + frameCount_ - taken_) % (frameCount_ == 0 ? 1 : frameCount_);
   for (; taken_ > 0; taken_--) {
      auto *hdr = reinterpret_cast<struct tpacket2_hdr *>(ring_ + static_cast<size_t>(slot) *
                                                                     frameSize_);
      __atomic_store_n(&hdr->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
      slot = slot + 1 == frameCount_ ? 0 : slot + 1;
   }
}

void PacketSocket::Send(const TxFrame *frames, size_t count, SendResult *result) {
   *result = SendResult();
   std::lock_guard<std::mutex> guard(txMutex_);
   if (!txRing_.Attached()) {
      size_t sent = SendBatches(frames, count, &result->error);
      result->sent = sent;
      for (size_t i = 0; i < sent; i++) result->bytes += frames[i].len + (frames[i].tag ? 4 : 0);
      result->failed = count - sent;
      return;
   }
   bool kicked = false;
   for (size_t i = 0; i < count; i++) {
      TxRing::Put put = txRing_.Queue(frames[i]);
      if (put == TxRing::Put::kFull && !kicked && txRing_.Waiting() != 0) {
         /* Frames an earlier send left waiting hold the slots: off with
          * them first. */
         kicked = true;
         KickLocked(result);
         put = txRing_.Queue(frames[i]);
      }
      if (put == TxRing::Put::kFull) {
         result->ringFull++;
      } else if (put == TxRing::Put::kRefused) {
         result->failed++;
         if (result->error == 0) result->error = EMSGSIZE;
      }
   }
   KickLocked(result);
}

void PacketSocket::KickLocked(SendResult *result) {
   if (txRing_.InFlight() == 0) return;
   ssize_t n = send(txFd_, nullptr, 0, MSG_DONTWAIT);
   int err = n < 0 ? errno : 0;
   txRing_.Reap(&result->sent, &result->bytes);
   if (n >= 0 || err == EAGAIN || err == EWOULDBLOCK || err == EINTR) {
      /* Taken in full, or the send buffer is full: what is left waits. */
      return;
   }
   /* The frame at the head could not go (the interface is down or its
    * driver dropped it): the kernel keeps it to try again.  That frame and
    * those behind it are dropped, as a failed sendmmsg drops them, and the
    * kernel is asked once more so that it skips them now. */
   if (result->error == 0) result->error = err;
   size_t voided = txRing_.Void();
   result->failed += voided;
   if (voided != 0 && send(txFd_, nullptr, 0, MSG_DONTWAIT) >= 0) {
      txRing_.Reap(&result->sent, &result->bytes);
   }
}

size_t PacketSocket::TxWaiting() {
   std::lock_guard<std::mutex> guard(txMutex_);
   return txRing_.Waiting();
}

void PacketSocket::Flush(SendResult *result) {
   *result = SendResult();
   std::lock_guard<std::mutex> guard(txMutex_);
   if (txRing_.Waiting() != 0) KickLocked(result);
}

void PacketSocket::DiscardWaiting(SendResult *result) {
   *result = SendResult();
   std::lock_guard<std::mutex> guard(txMutex_);
   txRing_.Reap(&result->sent, &result->bytes);
   result->failed = txRing_.Void();
}

uint32_t TxRing::DataOffset() { return TPACKET_ALIGN(sizeof(struct tpacket2_hdr)); }

uint32_t TxRing::VnetHeaderBytes() { return sizeof(VnetHeader); }

void TxRing::Attach(uint8_t *base, uint32_t frameSize, uint32_t frameCount, uint32_t mtu,
                    bool vnetHeader) {
   base_ = base;
   frameSize_ = frameSize;
   frameCount_ = frameCount;
   mtu_ = mtu;
   vnet_ = vnetHeader ? VnetHeaderBytes() : 0;
   head_ = oldest_ = inFlight_ = voided_ = 0;
}

void TxRing::Detach() {
   base_ = nullptr;
   frameSize_ = frameCount_ = mtu_ = vnet_ = 0;
   head_ = oldest_ = inFlight_ = voided_ = 0;
}

uint32_t TxRing::MaxLen(bool tagged) const {
   if (base_ == nullptr) return 0;
   /* The kernel takes the interface's MTU and Ethernet header, and a tag
    * beyond them only when the frame carries one. */
   uint64_t byMtu = static_cast<uint64_t>(mtu_) + 14 + (tagged ? 4 : 0);
   return static_cast<uint32_t>(std::min<uint64_t>(frameSize_ - DataOffset() - vnet_, byMtu));
}

TxRing::Put TxRing::Queue(const TxFrame &frame) {
   if (base_ == nullptr || inFlight_ == frameCount_) return Put::kFull;
   bool tag = frame.tag && frame.len >= 12;
   uint32_t len = frame.len + (tag ? 4u : 0u);
   /* The kernel takes no frame shorter than an Ethernet header. */
   if (frame.len < 14 || len > MaxLen(tag)) return Put::kRefused;
   uint8_t *slot = Slot(head_);
   auto *hdr = reinterpret_cast<struct tpacket2_hdr *>(slot);
   if ((__atomic_load_n(&hdr->tp_status, __ATOMIC_ACQUIRE) & kKernelOwned) != 0) {
      return Put::kFull; /* the kernel has not freed its copy yet */
   }
   uint8_t *data = slot + DataOffset();
   if (vnet_ != 0) {
      /* No offload asked for; the whole frame counts as its header. */
      VnetHeader vh;
      std::memset(&vh, 0, sizeof vh);
      vh.hdrLen = static_cast<uint16_t>(len);
      std::memcpy(data, &vh, sizeof vh);
      data += vnet_;
   }
   if (tag) {
      std::memcpy(data, frame.data, 12);
      data[12] = 0x81;
      data[13] = 0x00;
      data[14] = static_cast<uint8_t>((frame.vlan >> 8) & 0x0f);
      data[15] = static_cast<uint8_t>(frame.vlan & 0xff);
      std::memcpy(data + 16, frame.data + 12, frame.len - 12u);
   } else {
      std::memcpy(data, frame.data, frame.len);
   }
   hdr->tp_len = len + vnet_;
   hdr->tp_snaplen = len + vnet_;
   __atomic_store_n(&hdr->tp_status, TP_STATUS_SEND_REQUEST, __ATOMIC_RELEASE);
   head_ = head_ + 1 == frameCount_ ? 0 : head_ + 1;
   inFlight_++;
   /* The next slot's header and first bytes are read and written next. */
   __builtin_prefetch(Slot(head_), 1);
   __builtin_prefetch(Slot(head_) + 64, 1);
   return Put::kQueued;
}

void TxRing::Reap(size_t *frames, uint64_t *bytes) {
   while (inFlight_ > 0) {
      auto *hdr = reinterpret_cast<struct tpacket2_hdr *>(Slot(oldest_));
      uint32_t status = __atomic_load_n(&hdr->tp_status, __ATOMIC_ACQUIRE);
      if ((status & TP_STATUS_SEND_REQUEST) != 0) break; /* not taken yet */
      if (hdr->tp_len == 0) {
         voided_--;
      } else {
         (*frames)++;
         *bytes += hdr->tp_len - vnet_;
      }
      oldest_ = oldest_ + 1 == frameCount_ ? 0 : oldest_ + 1;
      inFlight_--;
   }
}

size_t TxRing::Void() {
   size_t n = 0;
   uint32_t slot = oldest_;
   for (uint32_t i = 0; i < inFlight_; i++) {
      auto *hdr = reinterpret_cast<struct tpacket2_hdr *>(Slot(slot));
      uint32_t status = __atomic_load_n(&hdr->tp_status, __ATOMIC_ACQUIRE);
      if ((status & TP_STATUS_SEND_REQUEST) != 0 && hdr->tp_len != 0) {
         hdr->tp_len = 0;
         n++;
      }
      slot = slot + 1 == frameCount_ ? 0 : slot + 1;
   }
   voided_ += static_cast<uint32_t>(n);
   return n;
}

size_t PacketSocket::SendBatches(const TxFrame *frames, size_t count, int *error) {
   *error = 0;
   size_t sent = 0;
   size_t next = 0; /* first frame not yet tried */
   while (next < count && fd_ >= 0) {
      size_t batch = std::min(kBatch, count - next);
      struct mmsghdr msgs[kBatch];
      struct iovec iovs[kBatch][3];
      uint8_t tags[kBatch][4];
      std::memset(msgs, 0, sizeof msgs);
      for (size_t i = 0; i < batch; i++) {
         const TxFrame &f = frames[next + i];
         struct iovec *iov = iovs[i];
         size_t n = 0;
         if (f.tag && f.len >= 12) {
            tags[i][0] = 0x81;
            tags[i][1] = 0x00;
            tags[i][2] = static_cast<uint8_t>((f.vlan >> 8) & 0x0f);
            tags[i][3] = static_cast<uint8_t>(f.vlan & 0xff);
            iov[n++] = {const_cast<uint8_t *>(f.data), 12};
            iov[n++] = {tags[i], 4};
            iov[n++] = {const_cast<uint8_t *>(f.data) + 12, f.len - 12u};
         } else {
            iov[n++] = {const_cast<uint8_t *>(f.data), f.len};
         }
         msgs[i].msg_hdr.msg_iov = iov;
         msgs[i].msg_hdr.msg_iovlen = n;
      }
      int n = sendmmsg(fd_, msgs, static_cast<unsigned>(batch), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n < 0) {
         if (errno == EINTR) continue;
         if (*error == 0) *error = errno;
         /* The frame at the head cannot go: skip it and try the rest, unless
          * the interface itself is gone or the socket is full. */
         if (errno == ENETDOWN || errno == ENXIO || errno == ENODEV || errno == EAGAIN ||
             errno == EWOULDBLOCK || errno == ENOBUFS) {
            break;
         }
         next++; /* EMSGSIZE and the like: that frame only */
         continue;
      }
      sent += static_cast<size_t>(n);
      next += static_cast<size_t>(n);
      /* When fewer went than asked, the next one failed; the next call
       * tells why. */
   }
   return sent;
}

void CompleteChecksum(uint8_t *f, size_t size) {
   if (size < 14) return;
   size_t l3 = 14;
   uint16_t type = Be16(&f[12]);
   if (type == kTpid8021Q && size >= 18) {
      type = Be16(&f[16]);
      l3 = 18;
   }
   uint8_t proto;
   size_t l4, l4len;
   uint32_t pseudo = 0;
   if (type == 0x0800) {
      if (size < l3 + 20) return;
      size_t ihl = (f[l3] & 0x0f) * 4u;
      size_t total = Be16(&f[l3 + 2]);
      if (ihl < 20 || total < ihl || l3 + total > size) return;
      if ((Be16(&f[l3 + 6]) & 0x3fff) != 0) return; /* a fragment */
      proto = f[l3 + 9];
      l4 = l3 + ihl;
      l4len = total - ihl;
      pseudo = Sum(&f[l3 + 12], 8, 0) + proto + static_cast<uint32_t>(l4len);
   } else if (type == 0x86dd) {
      if (size < l3 + 40) return;
      proto = f[l3 + 6];
      l4 = l3 + 40;
      l4len = Be16(&f[l3 + 4]);
      if (l4 + l4len > size) return;
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
