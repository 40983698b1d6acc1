/*
 * A packet socket bound to one Linux interface.  Frames come in through a
 * receive ring that the kernel shares with us (TPACKET_V2): a received
 * frame is read where the kernel wrote it, and its slot goes back to the
 * kernel once the caller is done with it.  Frames go out in batches
 * (sendmmsg), straight from the caller's memory, an 802.1Q tag put in by
 * the scatter list rather than by a copy.  Checksums that the sender left to
 * the hardware are completed in place.
 */
#ifndef VIGILD_PACKET_SOCKET_H
#define VIGILD_PACKET_SOCKET_H

#include <cstddef>
#include <cstdint>
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

class PacketSocket {
 public:
   static constexpr size_t kBatch = 32;            /* frames per call */
   static constexpr size_t kRingBytes = 8u << 20;  /* receive ring per socket */

   PacketSocket() = default;
   ~PacketSocket() { Close(); }
   PacketSocket(const PacketSocket &) = delete;
   PacketSocket &operator=(const PacketSocket &) = delete;

   /* Opens a socket on the interface, in promiscuous mode, non-blocking,
    * with its receive ring mapped.  False with *error set when the
    * interface is missing or the socket or ring cannot be made. */
   bool Open(const std::string &ifname, std::string *error);
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
   /* Sends frames[0..count) in batches; returns how many went.  *error gets
    * the errno of the first failure (0 if none). */
   size_t Send(const TxFrame *frames, size_t count, int *error);
   /* The socket's pending error (SO_ERROR), cleared by reading it. */
   int TakeError();
   /* The kernel's counters since the last call (reading clears them):
    * *arrived, the frames that reached the socket, dropped ones included;
    * *dropped, those it dropped because the ring was full.  Both 0 and
    * false when the socket is closed or the counters can't be read. */
   bool TakeStatistics(uint64_t *arrived, uint64_t *dropped);

 private:
   int fd_ = -1;
   int ifindex_ = 0;
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
