/*
 * A packet socket bound to one Linux interface: frames in and out in
 * batches (recvmmsg and sendmmsg), the 802.1Q tag that the kernel keeps
 * beside the frame brought back, checksums that the sender left to the
 * hardware completed.
 */
#ifndef VIGILD_PACKET_SOCKET_H
#define VIGILD_PACKET_SOCKET_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vigild {

/* A received frame: its bytes without an 802.1Q tag, and the tag's VLAN. */
struct RxFrame {
   std::vector<uint8_t> bytes;
   uint16_t vlan = 0;
   bool tagged = false;
   bool truncated = false; /* longer than the receive buffer */
};

class PacketSocket {
 public:
   static constexpr size_t kBatch = 32;       /* frames per system call */
   static constexpr size_t kSlotBytes = 16384; /* receive buffer per frame */

   PacketSocket() = default;
   ~PacketSocket() { Close(); }
   PacketSocket(const PacketSocket &) = delete;
   PacketSocket &operator=(const PacketSocket &) = delete;

   /* Opens a socket on the interface, in promiscuous mode, non-blocking.
    * False with *error set when the interface is missing or the socket
    * cannot be made. */
   bool Open(const std::string &ifname, std::string *error);
   void Close();
   bool IsOpen() const { return fd_ >= 0; }
   int Fd() const { return fd_; }
   int IfIndex() const { return ifindex_; }

   /* Receives up to kBatch frames into `out` (what came, less the socket's
    * own sends).  Returns how many the kernel handed over, 0 when nothing
    * waits, -1 with errno on an error. */
   int Receive(std::vector<RxFrame> &out);
   /* Sends frames[first..first+count) in batches; returns how many went.
    * *error gets the errno of the first failure (0 if none). */
   size_t Send(const std::vector<std::vector<uint8_t>> &frames, size_t first, size_t count,
               int *error);
   /* The socket's pending error (SO_ERROR), cleared by reading it. */
   int TakeError();
   /* The kernel's counters since the last call (reading clears them):
    * *arrived, the frames that reached the socket, dropped ones included;
    * *dropped, those it dropped because the receive buffer was full.  Both
    * 0 and false when the socket is closed or the counters can't be read. */
   bool TakeStatistics(uint64_t *arrived, uint64_t *dropped);

 private:
   int fd_ = -1;
   int ifindex_ = 0;
   std::vector<uint8_t> buffers_; /* kBatch slots of kSlotBytes */
};

/* Interface state by name: 0 when there is none, else its index; *up tells
 * whether it is administratively up. */
int InterfaceIndex(const std::string &ifname, bool *up);

/* Recomputes the TCP, UDP or ICMP checksum of an IPv4 or IPv6 frame. */
void CompleteChecksum(std::vector<uint8_t> &frame);

/* Inserts an 802.1Q tag with that VLAN after the MAC addresses. */
void InsertTag(std::vector<uint8_t> &frame, uint16_t vlan);

} // namespace vigild

#endif /* VIGILD_PACKET_SOCKET_H */
