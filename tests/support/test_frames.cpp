#include "test_frames.h"

#include <arpa/inet.h>

#include <tins/tins.h>

namespace frames {

using namespace Tins;

const char *const kVmMac = "02:00:00:00:00:10";
const char *const kServerMac = "02:00:00:00:00:fe";
const char *const kBroadcast = "ff:ff:ff:ff:ff:ff";

using Mac = HWAddress<6>;

static Bytes Serialize(PDU &pdu) {
   PDU::serialization_type raw = pdu.serialize();
   return Bytes(raw.begin(), raw.end());
}

static RawPDU Payload(size_t len) {
   Bytes payload(len);
   for (size_t i = 0; i < len; i++) {
      payload[i] = static_cast<uint8_t>(i);
   }
   return RawPDU(payload.data(), static_cast<uint32_t>(payload.size()));
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
   dhcp.htype(1);
   dhcp.hlen(6);
   dhcp.xid(f.xid);
   dhcp.ciaddr(IPv4Address(f.ciaddr));
   dhcp.yiaddr(IPv4Address(f.yiaddr));
   dhcp.siaddr(IPv4Address(f.siaddr));
   dhcp.giaddr(IPv4Address(f.giaddr));
   dhcp.chaddr(HWAddress<6>(f.chaddr));
   auto addBytes = [&dhcp](DHCP::OptionTypes code, const Bytes &value) {
      dhcp.add_option(DHCP::option(code, value.begin(), value.end()));
   };
   auto addAddress = [&addBytes](DHCP::OptionTypes code, const std::string &ip) {
      uint8_t bytes[4];
      inet_pton(AF_INET, ip.c_str(), bytes);
      addBytes(code, Bytes(bytes, bytes + 4));
   };
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
   Bytes payload = Serialize(dhcp);
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

zek_Pkt *Make(const Bytes &bytes, const sim::FrameOptions &opts) {
   return sim::MakeFrame(bytes, opts);
}

} // namespace frames
