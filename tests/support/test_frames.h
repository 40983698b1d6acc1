/*
 * Well-formed frames for module tests, crafted with libtins and handed to
 * the simulated host.  Malformed frames are written as raw bytes in tests.
 */
#ifndef TEST_FRAMES_H
#define TEST_FRAMES_H

#include <cstdint>
#include <string>
#include <vector>

#include "sim_frames.h"

namespace frames {

using Bytes = std::vector<uint8_t>;

extern const char *const kVmMac;     /* the VM's MAC */
extern const char *const kServerMac; /* a DHCP server's MAC */
extern const char *const kBroadcast;

Bytes UdpV4(const std::string &srcMac, const std::string &dstMac,
            const std::string &srcIp, const std::string &dstIp, uint16_t sport,
            uint16_t dport, size_t payloadLen = 16);
Bytes TcpV4(const std::string &srcMac, const std::string &dstMac,
            const std::string &srcIp, const std::string &dstIp);
/* A DHCP client message (BOOTREQUEST) from `chaddr` over UDP 68 -> 67. */
Bytes DhcpClient(const std::string &srcMac, const std::string &chaddr,
                 const std::string &srcIp, uint8_t msgType,
                 const std::string &giaddr = "0.0.0.0");
/* A DHCP server reply (BOOTREPLY) over UDP 67 -> 68. */
Bytes DhcpServer(const std::string &srcMac, const std::string &dstMac,
                 uint8_t msgType);
/* The fields and options of one DHCP message.  Options go out in the order
 * a common client or a small server writes them: message type (53), client
 * identifier (61), requested address (50), parameter request list (55),
 * lease time (51), server identifier (54), then `extra`, then the end option,
 * and the message is padded with zeros to `minLen` bytes. */
struct DhcpFields {
   uint8_t op = 1; /* 1 BOOTREQUEST, 2 BOOTREPLY */
   uint32_t xid = 0x3903f326;
   std::string ciaddr = "0.0.0.0";
   std::string yiaddr = "0.0.0.0";
   std::string siaddr = "0.0.0.0";
   std::string giaddr = "0.0.0.0";
   std::string chaddr = "00:00:00:00:00:00";
   int msgType = -1;         /* option 53; -1: absent */
   bool emptyMsgType = false; /* option 53 with length 0 instead */
   Bytes clientId;           /* option 61 when not empty */
   std::string requestedIp;  /* option 50 when not empty */
   Bytes paramList;          /* option 55 when not empty */
   int64_t leaseTime = -1;   /* option 51 when not negative */
   Bytes leaseBytes;         /* option 51 with these raw bytes instead */
   std::string serverId;     /* option 54 when not empty */
   std::vector<std::pair<uint8_t, Bytes>> extra;
   bool end = true;
   size_t minLen = 300;
};
/* The DHCP message alone (fixed header, cookie, options, padding). */
Bytes DhcpPayload(const DhcpFields &fields);
/* A DHCP message in Ethernet, IPv4 and UDP. */
Bytes DhcpFrame(const std::string &srcMac, const std::string &dstMac,
                const std::string &srcIp, const std::string &dstIp,
                uint16_t sport, uint16_t dport, const DhcpFields &fields);
Bytes Arp(const std::string &srcMac, const std::string &senderMac,
          const std::string &senderIp, const std::string &targetIp,
          bool reply = false);
Bytes UdpV6(const std::string &srcMac, const std::string &dstMac,
            const std::string &srcIp, const std::string &dstIp,
            uint16_t sport, uint16_t dport);
/* A spanning tree BPDU (802.3 + LLC) to `dstMac`. */
Bytes Bpdu(const std::string &srcMac, const std::string &dstMac);
/* An Ethernet II frame of another EtherType. */
Bytes Ether(const std::string &srcMac, const std::string &dstMac,
            uint16_t etherType, size_t payloadLen = 46);

/* Sets the IPv4 flags and fragment offset field of an IPv4 frame's bytes. */
void SetIpv4Fragment(Bytes &frame, bool moreFragments, uint16_t offset8);

zek_Pkt *Make(const Bytes &bytes, const sim::FrameOptions &opts = {});

} // namespace frames

#endif /* TEST_FRAMES_H */
