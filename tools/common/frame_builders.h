/*
 * Ethernet frames crafted with libtins: the builders that the module tests
 * call by name, and the layers from which frame specs (frame_spec.h) make
 * the frames of vigilsim scripts.  Everything here returns the frame's
 * bytes; handing them to the simulated host is the caller's business.
 */
#ifndef VIGIL_FRAME_BUILDERS_H
#define VIGIL_FRAME_BUILDERS_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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
   uint8_t htype = 1;
   uint8_t hlen = 6;
   uint32_t xid = 0x3903f326;
   std::string ciaddr = "0.0.0.0";
   std::string yiaddr = "0.0.0.0";
   std::string siaddr = "0.0.0.0";
   std::string giaddr = "0.0.0.0";
   std::string chaddr = "00:00:00:00:00:00";
   Bytes cookie = {0x63, 0x82, 0x53, 0x63};
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
   /* The bytes behind the cookie as they are, instead of every option and
    * the end option above. */
   std::optional<Bytes> rawOptions;
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

/*
 * Layers with every field given, as the frame specs build them.  Addresses
 * are in their usual text form; a bad one throws std::invalid_argument.
 * Frames shorter than 60 bytes are padded with zeros, as a NIC sends them,
 * unless said otherwise.
 */

/* Ethernet II (or 802.3 when `etherType` is a length) with a payload. */
Bytes EthFrame(const std::string &srcMac, const std::string &dstMac,
               uint16_t etherType, const Bytes &payload);

struct ArpFields {
   uint16_t op = 1;
   uint16_t htype = 1;
   uint16_t ptype = 0x0800;
   uint8_t hlen = 6;
   uint8_t plen = 4;
   std::string sha, spa, tha, tpa;
};
/* An ARP frame; `cut` keeps that many bytes of the ARP header and leaves
 * the frame unpadded. */
Bytes ArpFrame(const std::string &srcMac, const std::string &dstMac,
               const ArpFields &fields, std::optional<size_t> cut = std::nullopt);

struct Ipv4Fields {
   std::string sip, dip;
   uint8_t proto = 0;
   uint16_t ident = 1;
   uint8_t ttl = 64;
   uint16_t fragment = 0; /* the flags and fragment offset word */
};
/* IPv4 with `l4` as its payload, taken as it is. */
Bytes Ipv4Frame(const std::string &srcMac, const std::string &dstMac,
                const Ipv4Fields &ip, const Bytes &l4);

/* Transport headers alone, checksum left 0, as a test sender may send
 * them over IPv4: UDP (its length covers `payload`, unless `udpLen` says
 * otherwise), TCP SYN with sequence 1 and window 1024. */
Bytes UdpSegment(uint16_t sport, uint16_t dport, const Bytes &payload,
                 std::optional<uint16_t> udpLen = std::nullopt);
Bytes TcpSegment(uint16_t sport, uint16_t dport, const Bytes &payload);
/* An ICMP echo request (identifier 0x1234, sequence 1) with its checksum. */
Bytes IcmpEcho(const Bytes &payload);

/* A spanning tree configuration BPDU (802.3, LLC 42 42 03), root and bridge
 * 8000.02:00:00:00:00:10, port 0x8001, max age 20 s, hello 2 s, forward
 * delay 15 s. */
Bytes ConfigBpduFrame(const std::string &srcMac, const std::string &dstMac);

struct Ipv6Fields {
   std::string sip, dip;
   uint8_t hopLimit = 64;
};

/* UDP over IPv6, with its checksum. */
Bytes Udp6Frame(const std::string &srcMac, const std::string &dstMac, const Ipv6Fields &ip,
                uint16_t sport, uint16_t dport, const Bytes &payload);

/* A neighbor discovery message (ICMPv6 133 to 137) with its checksum.
 * Options are (type, value) pairs, the value without the type and length
 * bytes; it must make the option a multiple of 8 bytes. */
struct NdFields {
   uint8_t type = 135;
   std::string target = "::"; /* solicitations and advertisements */
   bool router = false, solicited = false, override = false; /* advertisements */
   /* Router advertisements. */
   uint8_t curHopLimit = 64;
   bool managed = false, other = false;
   uint16_t routerLifetime = 1800;
   uint32_t reachableTime = 0, retransTimer = 0;
   std::vector<std::pair<uint8_t, Bytes>> options;
};
Bytes NdFrame(const std::string &srcMac, const std::string &dstMac, const Ipv6Fields &ip,
              const NdFields &nd);

/* A DHCPv6 client or server message (not a relay message) over UDP and
 * IPv6: type, 24-bit transaction id, then the options as (code, value)
 * pairs in order. */
Bytes Dhcpv6Frame(const std::string &srcMac, const std::string &dstMac, const Ipv6Fields &ip,
                  uint16_t sport, uint16_t dport, uint8_t msgType, uint32_t xid,
                  const std::vector<std::pair<uint16_t, Bytes>> &options);

/* IPv6 extension headers, put between the IPv6 header of a frame and what
 * follows it by WithIpv6Extensions: the protocol number that announces the
 * header and its bytes, whose first byte (the next header) is filled in
 * there. */
struct Ipv6Extension {
   uint8_t proto;
   Bytes bytes;
};
/* Hop-by-hop options (0) and destination options (60): eight bytes, a PadN
 * option filling them. */
Ipv6Extension HopByHopOptions();
Ipv6Extension DestinationOptions();
/* A fragment header (44) with the offset in units of 8 bytes, the More
 * Fragments flag and an identification.  Offset 0 without More Fragments
 * is an atomic fragment. */
Ipv6Extension FragmentHeader(uint16_t offset8, bool moreFragments, uint32_t ident = 0x1234);
/* The IPv6 frame (untagged Ethernet II) with `exts` in that order between
 * its IPv6 header and the rest, the payload length grown to match.  An
 * upper-layer checksum stays right: it does not cover extension headers.
 * Throws std::invalid_argument for a frame that is not IPv6. */
Bytes WithIpv6Extensions(const Bytes &frame, const std::vector<Ipv6Extension> &exts);

/* The bytes of an IPv6 address; throws std::invalid_argument. */
Bytes Ipv6Bytes(const std::string &text);

} // namespace frames

#endif /* VIGIL_FRAME_BUILDERS_H */
