#include "frame_builders.h"

#include <arpa/inet.h>

#include <stdexcept>

#include <tins/tins.h>

namespace frames {

using namespace Tins;

const char *const kVmMac = "02:00:00:00:00:10";
const char *const kServerMac = "02:00:00:00:00:fe";
const char *const kBroadcast = "ff:ff:ff:ff:ff:ff";

using Mac = HWAddress<6>;

namespace {

constexpr size_t kMinFrame = 60;

Bytes Serialize(PDU &pdu) {
   PDU::serialization_type raw = pdu.serialize();
   return Bytes(raw.begin(), raw.end());
}

RawPDU Payload(size_t len) {
   Bytes payload(len);
   for (size_t i = 0; i < len; i++) {
      payload[i] = static_cast<uint8_t>(i);
   }
   return RawPDU(payload.data(), static_cast<uint32_t>(payload.size()));
}

RawPDU Raw(const Bytes &bytes) {
   return RawPDU(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

void PadToMinimum(Bytes &frame) {
   if (frame.size() < kMinFrame) frame.resize(kMinFrame, 0);
}

/* libtins takes any text as an address and reads a bad one as zeros. */
Mac MacOf(const std::string &text) {
   unsigned v[6];
   char extra;
   if (text.size() != 17 ||
       sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &v[0], &v[1], &v[2], &v[3], &v[4],
              &v[5], &extra) != 6) {
      throw std::invalid_argument("bad MAC address '" + text + "'");
   }
   return Mac(text);
}

IPv4Address Ipv4Of(const std::string &text) {
   in_addr addr;
   if (inet_pton(AF_INET, text.c_str(), &addr) != 1) {
      throw std::invalid_argument("bad IPv4 address '" + text + "'");
   }
   return IPv4Address(text);
}

IPv6Address Ipv6Of(const std::string &text) {
   in6_addr addr;
   if (inet_pton(AF_INET6, text.c_str(), &addr) != 1) {
      throw std::invalid_argument("bad IPv6 address '" + text + "'");
   }
   return IPv6Address(text);
}

IPv6 Ipv6Header(const Ipv6Fields &f) {
   IPv6 ip(Ipv6Of(f.dip), Ipv6Of(f.sip));
   ip.hop_limit(f.hopLimit);
   ip.traffic_class(0);
   ip.flow_label(0);
   return ip;
}

} // namespace

Bytes Ipv6Bytes(const std::string &text) {
   uint8_t b[16];
   if (inet_pton(AF_INET6, text.c_str(), b) != 1) {
      throw std::invalid_argument("bad IPv6 address '" + text + "'");
   }
   return Bytes(b, b + 16);
}

Ipv6Extension HopByHopOptions() {
   return {0, Bytes{0, 0, 1, 4, 0, 0, 0, 0}};
}

Ipv6Extension DestinationOptions() {
   return {60, Bytes{0, 0, 1, 4, 0, 0, 0, 0}};
}

Ipv6Extension FragmentHeader(uint16_t offset8, bool moreFragments, uint32_t ident) {
   uint16_t word = static_cast<uint16_t>((offset8 << 3) | (moreFragments ? 1 : 0));
   return {44, Bytes{0, 0, static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word),
                     static_cast<uint8_t>(ident >> 24), static_cast<uint8_t>(ident >> 16),
                     static_cast<uint8_t>(ident >> 8), static_cast<uint8_t>(ident)}};
}

Bytes WithIpv6Extensions(const Bytes &frame, const std::vector<Ipv6Extension> &exts) {
   constexpr size_t kIp = 14;
   if (frame.size() < kIp + 40 || frame[12] != 0x86 || frame[13] != 0xdd) {
      throw std::invalid_argument("not an untagged IPv6 frame");
   }
   Bytes out(frame.begin(), frame.begin() + kIp + 40);
   uint8_t next = frame[kIp + 6];
   Bytes chain;
   for (size_t i = exts.size(); i-- > 0;) {
      Bytes ext = exts[i].bytes;
      if (ext.size() < 8 || ext.size() % 8 != 0) {
         throw std::invalid_argument("an extension header is a multiple of 8 bytes");
      }
      ext[0] = next;
      next = exts[i].proto;
      chain.insert(chain.begin(), ext.begin(), ext.end());
   }
   out[kIp + 6] = next;
   size_t payloadLen = (static_cast<size_t>(out[kIp + 4]) << 8 | out[kIp + 5]) + chain.size();
   out[kIp + 4] = static_cast<uint8_t>(payloadLen >> 8);
   out[kIp + 5] = static_cast<uint8_t>(payloadLen);
   out.insert(out.end(), chain.begin(), chain.end());
   out.insert(out.end(), frame.begin() + kIp + 40, frame.end());
   return out;
}

Bytes Udp6Frame(const std::string &srcMac, const std::string &dstMac, const Ipv6Fields &ip,
                uint16_t sport, uint16_t dport, const Bytes &payload) {
   EthernetII frame = EthernetII(MacOf(dstMac), MacOf(srcMac)) / Ipv6Header(ip) / UDP(dport, sport);
   if (!payload.empty()) frame /= Raw(payload);
   return Serialize(frame);
}

Bytes NdFrame(const std::string &srcMac, const std::string &dstMac, const Ipv6Fields &ip,
              const NdFields &nd) {
   ICMPv6 icmp(static_cast<ICMPv6::Types>(nd.type));
   if (nd.type == ICMPv6::NEIGHBOUR_SOLICIT || nd.type == ICMPv6::NEIGHBOUR_ADVERT) {
      icmp.target_addr(Ipv6Of(nd.target));
   }
   if (nd.type == ICMPv6::NEIGHBOUR_ADVERT) {
      icmp.router(nd.router);
      icmp.solicited(nd.solicited);
      icmp.override(nd.override);
   }
   if (nd.type == ICMPv6::ROUTER_ADVERT) {
      icmp.hop_limit(nd.curHopLimit);
      icmp.managed(nd.managed);
      icmp.other(nd.other);
      icmp.router_lifetime(nd.routerLifetime);
      icmp.reachable_time(nd.reachableTime);
      icmp.retransmit_timer(nd.retransTimer);
   }
   for (const auto &[type, value] : nd.options) {
      if ((value.size() + 2) % 8 != 0) {
         throw std::invalid_argument("an ND option of " + std::to_string(value.size() + 2) +
                                     " bytes is not a multiple of 8");
      }
      icmp.add_option(ICMPv6::option(static_cast<ICMPv6::OptionTypes>(type), value.begin(),
                                     value.end()));
   }
   EthernetII frame = EthernetII(MacOf(dstMac), MacOf(srcMac)) / Ipv6Header(ip) / icmp;
   return Serialize(frame);
}

Bytes Dhcpv6Frame(const std::string &srcMac, const std::string &dstMac, const Ipv6Fields &ip,
                  uint16_t sport, uint16_t dport, uint8_t msgType, uint32_t xid,
                  const std::vector<std::pair<uint16_t, Bytes>> &options) {
   DHCPv6 dhcp;
   dhcp.msg_type(static_cast<DHCPv6::MessageType>(msgType));
   dhcp.transaction_id(xid & 0xffffff);
   for (const auto &[code, value] : options) {
      dhcp.add_option(DHCPv6::option(static_cast<DHCPv6::OptionTypes>(code), value.begin(),
                                     value.end()));
   }
   EthernetII frame =
       EthernetII(MacOf(dstMac), MacOf(srcMac)) / Ipv6Header(ip) / UDP(dport, sport) / dhcp;
   return Serialize(frame);
}

Bytes UdpV4(const std::string &srcMac, const std::string &dstMac,
            const std::string &srcIp, const std::string &dstIp, uint16_t sport,
            uint16_t dport, size_t payloadLen) {
   EthernetII frame = EthernetII(Mac(dstMac), Mac(srcMac)) / IP(IPv4Address(dstIp), IPv4Address(srcIp)) /
                      UDP(dport, sport) / Payload(payloadLen);
   return Serialize(frame);
}

Bytes TcpV4(const std::string &srcMac, const std::string &dstMac,
            const std::string &srcIp, const std::string &dstIp) {
   EthernetII frame =
      EthernetII(Mac(dstMac), Mac(srcMac)) / IP(IPv4Address(dstIp), IPv4Address(srcIp)) / TCP(80, 40000) / Payload(8);
   return Serialize(frame);
}

Bytes DhcpClient(const std::string &srcMac, const std::string &chaddr,
                 const std::string &srcIp, uint8_t msgType,
                 const std::string &giaddr) {
   DHCP dhcp;
   dhcp.opcode(BootP::BOOTREQUEST);
   dhcp.htype(1);
   dhcp.hlen(6);
   dhcp.xid(0x12345678);
   dhcp.chaddr(HWAddress<6>(chaddr));
   dhcp.giaddr(IPv4Address(giaddr));
   dhcp.ciaddr(IPv4Address(srcIp));
   dhcp.type(static_cast<DHCP::Flags>(msgType));
   dhcp.end();
   std::string dstIp = srcIp == "0.0.0.0" ? "255.255.255.255" : "192.0.2.1";
   EthernetII frame = EthernetII(Mac(kBroadcast), Mac(srcMac)) / IP(IPv4Address(dstIp), IPv4Address(srcIp)) /
                      UDP(67, 68) / dhcp;
   return Serialize(frame);
}

Bytes DhcpServer(const std::string &srcMac, const std::string &dstMac,
                 uint8_t msgType) {
   DHCP dhcp;
   dhcp.opcode(BootP::BOOTREPLY);
   dhcp.htype(1);
   dhcp.hlen(6);
   dhcp.xid(0x12345678);
   dhcp.yiaddr(IPv4Address("192.0.2.50"));
   dhcp.chaddr(HWAddress<6>(dstMac));
   dhcp.type(static_cast<DHCP::Flags>(msgType));
   dhcp.end();
   EthernetII frame = EthernetII(Mac(dstMac), Mac(srcMac)) /
                      IP(IPv4Address("192.0.2.50"), IPv4Address("192.0.2.1")) / UDP(68, 67) / dhcp;
   return Serialize(frame);
}

Bytes DhcpPayload(const DhcpFields &f) {
   DHCP dhcp;
   dhcp.opcode(f.op);
   dhcp.htype(f.htype);
   dhcp.hlen(f.hlen);
   dhcp.xid(f.xid);
   dhcp.ciaddr(Ipv4Of(f.ciaddr));
   dhcp.yiaddr(Ipv4Of(f.yiaddr));
   dhcp.siaddr(Ipv4Of(f.siaddr));
   dhcp.giaddr(Ipv4Of(f.giaddr));
   dhcp.chaddr(MacOf(f.chaddr));
   auto addBytes = [&dhcp](DHCP::OptionTypes code, const Bytes &value) {
      dhcp.add_option(DHCP::option(code, value.begin(), value.end()));
   };
   auto addAddress = [&addBytes](DHCP::OptionTypes code, const std::string &ip) {
      uint8_t bytes[4];
      if (inet_pton(AF_INET, ip.c_str(), bytes) != 1) {
         throw std::invalid_argument("bad IPv4 address '" + ip + "'");
      }
      addBytes(code, Bytes(bytes, bytes + 4));
   };
   if (!f.rawOptions) {
      if (f.emptyMsgType) {
         addBytes(DHCP::DHCP_MESSAGE_TYPE, Bytes());
      } else if (f.msgType >= 0) {
         addBytes(DHCP::DHCP_MESSAGE_TYPE, Bytes{static_cast<uint8_t>(f.msgType)});
      }
      if (!f.clientId.empty()) {
         addBytes(DHCP::DHCP_CLIENT_IDENTIFIER, f.clientId);
      }
      if (!f.requestedIp.empty()) {
         addAddress(DHCP::DHCP_REQUESTED_ADDRESS, f.requestedIp);
      }
      if (!f.paramList.empty()) {
         addBytes(DHCP::DHCP_PARAMETER_REQUEST_LIST, f.paramList);
      }
      if (!f.leaseBytes.empty()) {
         addBytes(DHCP::DHCP_LEASE_TIME, f.leaseBytes);
      } else if (f.leaseTime >= 0) {
         uint32_t lease = static_cast<uint32_t>(f.leaseTime);
         addBytes(DHCP::DHCP_LEASE_TIME,
                  Bytes{static_cast<uint8_t>(lease >> 24), static_cast<uint8_t>(lease >> 16),
                        static_cast<uint8_t>(lease >> 8), static_cast<uint8_t>(lease)});
      }
      if (!f.serverId.empty()) {
         addAddress(DHCP::DHCP_SERVER_IDENTIFIER, f.serverId);
      }
      for (const auto &option : f.extra) {
         addBytes(static_cast<DHCP::OptionTypes>(option.first), option.second);
      }
      if (f.end) {
         dhcp.end();
      }
   }
   Bytes payload = Serialize(dhcp);
   /* libtins always writes the usual cookie behind the 236 bytes of the
    * fixed part, and may leave a zero behind the options: the message ends
    * where its options do. */
   const size_t cookieAt = 236;
   size_t optionsLen = 0;
   for (const DHCP::option &option : dhcp.options()) {
      bool single = option.option() == DHCP::PAD || option.option() == DHCP::END;
      optionsLen += single ? 1 : 2 + option.data_size();
   }
   payload.resize(cookieAt + 4 + optionsLen);
   payload.erase(payload.begin() + static_cast<long>(cookieAt),
                 payload.begin() + static_cast<long>(cookieAt + 4));
   payload.insert(payload.begin() + static_cast<long>(cookieAt), f.cookie.begin(),
                  f.cookie.end());
   if (f.rawOptions) {
      payload.insert(payload.end(), f.rawOptions->begin(), f.rawOptions->end());
   }
   if (payload.size() < f.minLen) {
      payload.resize(f.minLen, 0);
   }
   return payload;
}

Bytes DhcpFrame(const std::string &srcMac, const std::string &dstMac,
                const std::string &srcIp, const std::string &dstIp,
                uint16_t sport, uint16_t dport, const DhcpFields &fields) {
   Bytes payload = DhcpPayload(fields);
   EthernetII frame = EthernetII(Mac(dstMac), Mac(srcMac)) /
                      IP(IPv4Address(dstIp), IPv4Address(srcIp)) / UDP(dport, sport) /
                      RawPDU(payload.data(), static_cast<uint32_t>(payload.size()));
   return Serialize(frame);
}

Bytes Arp(const std::string &srcMac, const std::string &senderMac,
          const std::string &senderIp, const std::string &targetIp, bool reply) {
   EthernetII frame =
      reply ? ARP::make_arp_reply(IPv4Address(targetIp), IPv4Address(senderIp),
                                  Mac(kBroadcast), Mac(senderMac))
            : ARP::make_arp_request(IPv4Address(targetIp), IPv4Address(senderIp),
                                    Mac(senderMac));
   frame.src_addr(Mac(srcMac));
   frame.dst_addr(Mac(kBroadcast));
   return Serialize(frame);
}

Bytes UdpV6(const std::string &srcMac, const std::string &dstMac,
            const std::string &srcIp, const std::string &dstIp,
            uint16_t sport, uint16_t dport) {
   EthernetII frame = EthernetII(Mac(dstMac), Mac(srcMac)) / IPv6(IPv6Address(dstIp), IPv6Address(srcIp)) /
                      UDP(dport, sport) / Payload(16);
   return Serialize(frame);
}

Bytes Bpdu(const std::string &srcMac, const std::string &dstMac) {
   Dot3 frame = Dot3(Mac(dstMac), Mac(srcMac)) / LLC(0x42, 0x42) / STP();
   return Serialize(frame);
}

Bytes Ether(const std::string &srcMac, const std::string &dstMac,
            uint16_t etherType, size_t payloadLen) {
   EthernetII frame = EthernetII(Mac(dstMac), Mac(srcMac)) / Payload(payloadLen);
   frame.payload_type(etherType);
   return Serialize(frame);
}

void SetIpv4Fragment(Bytes &frame, bool moreFragments, uint16_t offset8) {
   uint16_t field = static_cast<uint16_t>((moreFragments ? 0x2000 : 0) |
                                          (offset8 & 0x1fff));
   frame[14 + 6] = static_cast<uint8_t>(field >> 8);
   frame[14 + 7] = static_cast<uint8_t>(field);
}

Bytes EthFrame(const std::string &srcMac, const std::string &dstMac, uint16_t etherType,
               const Bytes &payload) {
   EthernetII frame(MacOf(dstMac), MacOf(srcMac));
   if (!payload.empty()) frame /= Raw(payload);
   Bytes bytes = Serialize(frame); /* EthernetII pads to 60 bytes */
   /* Without an inner layer libtins writes type 0. */
   bytes[12] = static_cast<uint8_t>(etherType >> 8);
   bytes[13] = static_cast<uint8_t>(etherType);
   return bytes;
}

Bytes ArpFrame(const std::string &srcMac, const std::string &dstMac, const ArpFields &f,
               std::optional<size_t> cut) {
   ARP arp(Ipv4Of(f.tpa), Ipv4Of(f.spa), MacOf(f.tha), MacOf(f.sha));
   arp.opcode(static_cast<ARP::Flags>(f.op));
   arp.hw_addr_format(f.htype);
   arp.prot_addr_format(f.ptype);
   arp.hw_addr_length(f.hlen);
   arp.prot_addr_length(f.plen);
   EthernetII frame = EthernetII(MacOf(dstMac), MacOf(srcMac)) / arp;
   Bytes bytes = Serialize(frame);
   if (cut) bytes.resize(14 + std::min<size_t>(*cut, arp.header_size()));
   return bytes;
}

Bytes Ipv4Frame(const std::string &srcMac, const std::string &dstMac, const Ipv4Fields &f,
                const Bytes &l4) {
   IP ip(Ipv4Of(f.dip), Ipv4Of(f.sip));
   ip.ttl(f.ttl);
   ip.id(f.ident);
   ip.protocol(f.proto);
   ip.flags(static_cast<IP::Flags>(f.fragment >> 13));
   ip.fragment_offset(f.fragment & 0x1fff);
   EthernetII frame = EthernetII(MacOf(dstMac), MacOf(srcMac)) / ip;
   if (!l4.empty()) frame /= Raw(l4);
   return Serialize(frame);
}

Bytes UdpSegment(uint16_t sport, uint16_t dport, const Bytes &payload,
                 std::optional<uint16_t> udpLen) {
   /* Serialized on its own, without an IP layer, libtins leaves the
    * checksum 0. */
   UDP udp(dport, sport);
   if (!payload.empty()) udp /= Raw(payload);
   Bytes bytes = Serialize(udp);
   if (udpLen) {
      bytes[4] = static_cast<uint8_t>(*udpLen >> 8);
      bytes[5] = static_cast<uint8_t>(*udpLen);
   }
   return bytes;
}

Bytes TcpSegment(uint16_t sport, uint16_t dport, const Bytes &payload) {
   TCP tcp(dport, sport);
   tcp.seq(1);
   tcp.ack_seq(0);
   tcp.flags(TCP::SYN);
   tcp.window(1024);
   if (!payload.empty()) tcp /= Raw(payload);
   return Serialize(tcp);
}

Bytes IcmpEcho(const Bytes &payload) {
   ICMP icmp(ICMP::ECHO_REQUEST);
   icmp.id(0x1234);
   icmp.sequence(1);
   if (!payload.empty()) icmp /= Raw(payload);
   return Serialize(icmp);
}

Bytes ConfigBpduFrame(const std::string &srcMac, const std::string &dstMac) {
   const STP::bpdu_id_type bridge(8, 0, Mac("02:00:00:00:00:10"));
   STP stp;
   stp.proto_id(0);
   stp.proto_version(0);
   stp.bpdu_type(0);
   stp.bpdu_flags(0);
   stp.root_id(bridge);
   stp.root_path_cost(0);
   stp.bridge_id(bridge);
   stp.port_id(0x8001);
   stp.msg_age(0);
   stp.max_age(20);
   stp.hello_time(2);
   stp.fwd_delay(15);
   LLC llc(0x42, 0x42);
   llc.type(LLC::UNNUMBERED);
   Dot3 frame = Dot3(MacOf(dstMac), MacOf(srcMac)) / llc / stp;
   Bytes bytes = Serialize(frame);
   PadToMinimum(bytes);
   return bytes;
}

} // namespace frames
