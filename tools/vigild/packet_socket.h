/*
 * A packet socket bound to one Linux interface.  Frames come in through a
 * receive ring that the kernel shares with us (TPACKET_V2): a received
 * frame is read where the kernel wrote it, and its slot goes back to the
 * kernel once the caller is done with it.  Frames go out through a send
 * ring of a second socket (TPACKET_V2 too): a batch is copied into its
 * slots, straight from the caller's memory, and handed to the kernel with
 * one send() call.  Where that ring can't be had, a batch goes out with one
 * sendmmsg call instead, an 802.1Q tag put in by the scatter list.
 * Checksums that the sender left to the hardware are completed in place.
 *
 * The sending socket receives nothing and is in no epoll set: the kernel's
 * wake-up of waiting writers, as it frees each sent frame, finds nobody to
 * wake.
 */
#ifndef VIGILD_PACKET_SOCKET_H
#define VIGILD_PACKET_SOCKET_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace vigild {

/* A received frame, in the ring: its bytes without an 802.1Q tag, and the
 * tag's VLAN.  Valid until the next Release. */
struct RxFrame {
   uint8_t *data = nullptr;
   uint32_t len = 0;
   uint16_t vlan = 0;
   bool tagged = false;
   bool truncated = false; /* longer than a ring slot: only part of it is here */
};

/* A frame to send: `len` bytes at `data`, with an 802.1Q tag of `vlan`
 * put in after the MAC addresses when `tag` is set. */
struct TxFrame {
   const uint8_t *data = nullptr;
   uint32_t len = 0;
   uint16_t vlan = 0;
   bool tag = false;
};

/* What became of the frames of a send, and of frames an earlier send left
 * waiting in the ring. */
struct SendResult {
   size_t sent = 0;      /* taken by the kernel */
   uint64_t bytes = 0;   /* their bytes, tags included */
   size_t ringFull = 0;  /* dropped: no free slot in the send ring */
   size_t failed = 0;    /* dropped: too long for the interface, or the send failed */
   int error = 0;        /* errno of the first failure, 0 if none */
};

/* The slots of a TPACKET_V2 send ring, in memory shared with the kernel
 * (or any memory, for tests).  A slot is ours to fill when its status says
 * neither "send it" nor "being sent"; filled, it says "send it" until the
 * kernel takes it, and "being sent" until the kernel has freed its copy.
 * The kernel takes slots in order from where it last stopped, so the slots
 * between `oldest` and `head` are exactly those filled and not yet seen
 * taken.  A frame that must not go any more (the send failed) is voided:
 * its length is set to 0, which the kernel skips as malformed (the socket
 * has PACKET_LOSS) without sending it. */
class TxRing {
 public:
   enum class Put { kQueued, kFull, kRefused };

   /* Where a slot's bytes start: after the aligned header. */
   static uint32_t DataOffset();
   /* Bytes of the virtio-net header that go before a frame's own on a
    * socket with PACKET_VNET_HDR. */
   static uint32_t VnetHeaderBytes();

   /* Uses `frameCount` slots of `frameSize` bytes at `base`, all of them
    * free, for an interface of that MTU.  With `vnetHeader`, each frame is
    * preceded by a virtio-net header whose header length is the whole
    * frame: the kernel then copies the frame into its socket buffer rather
    * than pointing at the slot's page, which a veth would copy again, into
    * a page of its own, as it hands the frame over.  Nothing is allocated
    * later. */
   void Attach(uint8_t *base, uint32_t frameSize, uint32_t frameCount, uint32_t mtu,
               bool vnetHeader = false);
   void Detach();
   bool Attached() const { return base_ != nullptr; }
   uint32_t Frames() const { return frameCount_; }
   /* The longest frame a slot takes, tag included. */
   uint32_t MaxLen(bool tagged) const;

   /* Copies the frame into the next slot (its tag put in after the MAC
    * addresses) and marks it for sending.  kFull when that slot is still
    * the kernel's; kRefused for a frame the kernel would not take (shorter
    * than an Ethernet header, longer than MaxLen). */
   Put Queue(const TxFrame &frame);
   /* After the kernel was asked to send: adds the frames it took since the
    * last call (voided ones not counted) to *frames and *bytes. */
   void Reap(size_t *frames, uint64_t *bytes);
   /* Frames filled and not yet taken, voided ones not counted. */
   size_t Waiting() const { return inFlight_ - voided_; }
   /* Slots filled and not yet seen taken, voided ones included. */
   size_t InFlight() const { return inFlight_; }
   /* Voids every frame not yet taken; how many there were. */
   size_t Void();

 private:
   uint8_t *Slot(uint32_t i) const { return base_ + static_cast<size_t>(i) * frameSize_; }

   uint8_t *base_ = nullptr;
   uint32_t frameSize_ = 0;
   uint32_t frameCount_ = 0;
   uint32_t mtu_ = 0;
   uint32_t vnet_ = 0;     /* bytes of virtio-net header before each frame */
   uint32_t head_ = 0;     /* next slot to fill */
   uint32_t oldest_ = 0;   /* oldest slot filled and not seen taken */
   uint32_t inFlight_ = 0; /* slots from oldest_ to head_ */
   uint32_t voided_ = 0;   /* voided slots among them */
};

class PacketSocket {
 public:
   static constexpr size_t kBatch = 32;            /* frames per call */
   static constexpr size_t kRingBytes = 8u << 20;  /* receive ring per socket */
   static constexpr uint32_t kTxRingFrames = 256;  /* send ring slots per socket, at most */

   PacketSocket() = default;
   ~PacketSocket() { Close(); }
   PacketSocket(const PacketSocket &) = delete;
   PacketSocket &operator=(const PacketSocket &) = delete;

   /* Opens a socket on the interface, in promiscuous mode, non-blocking,
    * with its receive ring mapped.  False with *error set when the
    * interface is missing or the socket or ring cannot be made. */
   bool Open(const std::string &ifname, std::string *error);
   /* Whether the next Open sets up a send ring (the default); without
    * one, frames go out by sendmmsg. */
   void UseTxRing(bool on) { useTxRing_ = on; }
   /* Slots of the send ring, 0 when there is none. */
   uint32_t TxRingFrames() const { return txRing_.Frames(); }
   /* Why the last Open went without a send ring (empty when it has one, or
    * was not to have one). */
   const std::string &TxRingProblem() const { return txProblem_; }
   void Close();
   bool IsOpen() const { return fd_ >= 0; }
   int Fd() const { return fd_; }
   int IfIndex() const { return ifindex_; }
   /* Frame bytes a ring slot holds; longer frames arrive truncated. */
   uint32_t SlotCapacity() const { return slotCapacity_; }
   /* Frames the ring holds. */
   uint32_t RingFrames() const { return frameCount_; }

   /* Takes up to `max` (at most kBatch) frames from the ring into `out`,
    * less the socket's own sends.  Returns how many ring slots it took, 0
    * when nothing waits, -1 with errno when the socket is closed.  The
    * frames stay valid, and their slots the caller's, until Release. */
   int Receive(RxFrame *out, size_t max, size_t *count);
   /* Hands every slot taken by Receive back to the kernel. */
   void Release();
   /* Sends frames[0..count): into the send ring and off with one call, or
    * by sendmmsg in batches.  *result tells what became of them, and of
    * frames that an earlier call left waiting.  Safe from several threads
    * at once. */
   void Send(const TxFrame *frames, size_t count, SendResult *result);
   /* Frames left in the send ring by a send that the kernel could not take
    * in full (the socket's send buffer was full): they wait for the next
    * Send or Flush. */
   size_t TxWaiting();
   /* Asks the kernel again to send what waits in the send ring. */
   void Flush(SendResult *result);
   /* Before the port goes down: counts what the kernel took, and voids
    * what still waits (counted as failed). */
   void DiscardWaiting(SendResult *result);
   /* The socket's pending error (SO_ERROR), cleared by reading it. */
   int TakeError();
   /* The kernel's counters since the last call (reading clears them):
    * *arrived, the frames that reached the socket, dropped ones included;
    * *dropped, those it dropped because the ring was full.  Both 0 and
    * false when the socket is closed or the counters can't be read. */
   bool TakeStatistics(uint64_t *arrived, uint64_t *dropped);

 private:
   bool OpenTx(int ifindex, const std::string &ifname, uint32_t frameSize, int mtu,
               std::string *problem);
   void CloseTx();
   /* Hands the ring's frames to the kernel and counts what it took; with
    * txMutex_ held. */
   void KickLocked(SendResult *result);
   size_t SendBatches(const TxFrame *frames, size_t count, int *error);

   int fd_ = -1;
   int ifindex_ = 0;
   bool useTxRing_ = true;
   int txFd_ = -1;           /* the sending socket; -1: sends go through fd_ */
   uint8_t *txMap_ = nullptr;
   size_t txMapBytes_ = 0;
   TxRing txRing_;
   std::string txProblem_;
   std::mutex txMutex_;      /* one sender at a time fills the ring */
   uint8_t *ring_ = nullptr;
   size_t ringBytes_ = 0;
   uint32_t frameSize_ = 0;
   uint32_t frameCount_ = 0;
   uint32_t slotCapacity_ = 0;
   uint32_t head_ = 0;    /* next slot to look at */
   uint32_t taken_ = 0;   /* slots before head_ that the caller holds */
};

/* Interface state by name: 0 when there is none, else its index; *up tells
 * whether it is administratively up. */
int InterfaceIndex(const std::string &ifname, bool *up);

/* Recomputes the TCP, UDP or ICMP checksum of an IPv4 or IPv6 frame. */
void CompleteChecksum(uint8_t *frame, size_t len);
inline void CompleteChecksum(std::vector<uint8_t> &frame) {
   CompleteChecksum(frame.data(), frame.size());
}

/* Inserts an 802.1Q tag with that VLAN after the MAC addresses. */
void InsertTag(std::vector<uint8_t> &frame, uint16_t vlan);

} // namespace vigild

#endif /* VIGILD_PACKET_SOCKET_H */
