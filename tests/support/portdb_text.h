/*
 * Port database output as tests compare it: a binding's portset message
 * as one line of text, the bytes of an API entry, the module's way of
 * printing an IPv6 address in its log lines.
 */
#ifndef PORTDB_TEXT_H
#define PORTDB_TEXT_H

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_addresses.h"
#include "vigil_workers.h"

namespace portdbtext {

/* "added 5 02:00:00:00:00:10 192.0.2.10 m2": the operation, VLAN, MAC,
 * address (IPv4 or IPv6 by the entry's isIpv4) and method of a binding's
 * 80-byte portset message. */
inline std::string MessageText(const std::vector<u8> &bytes) {
   if (bytes.size() != sizeof(VigilPortsetMsg)) {
      return "size " + std::to_string(bytes.size());
   }
   VigilPortsetMsg msg;
   memcpy(&msg, bytes.data(), sizeof msg);
   char mac[32];
   snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", msg.entry.mac[0], msg.entry.mac[1],
            msg.entry.mac[2], msg.entry.mac[3], msg.entry.mac[4], msg.entry.mac[5]);
   char ip[INET6_ADDRSTRLEN];
   inet_ntop(msg.entry.isIpv4 ? AF_INET : AF_INET6, msg.entry.ip, ip, sizeof ip);
   return std::string(msg.op == 0 ? "added " : "removed ") + std::to_string(msg.entry.vlanId) +
          " " + mac + " " + ip + " m" + std::to_string(msg.entry.discMethod);
}

/* The same text written from its parts: op is "added" or "removed", the
 * address as inet_ntop prints it. */
inline std::string Msg(const char *op, u16 vlan, const std::string &mac, const std::string &ip,
                       u8 method) {
   return std::string(op) + " " + std::to_string(vlan) + " " + mac + " " + ip + " m" +
          std::to_string(method);
}

/* The 32 bytes an API entry of an IPv4 binding leaves in a buffer that
 * held `fill`: the named fields written (the address with zeros behind
 * its four bytes), bytes 9 to 11, 29 and 31 as they were. */
inline std::vector<u8> V4Entry(u16 vlan, const std::string &mac, const std::string &ip, u8 bound,
                               u8 method, u8 fill) {
   std::vector<u8> entry(32, fill);
   memcpy(&entry[0], &vlan, 2);
   addrtext::Mac m = addrtext::MacOf(mac);
   memcpy(&entry[2], m.data(), 6);
   entry[8] = 1;
   memset(&entry[12], 0, 16);
   u32 addr = addrtext::Ip(ip);
   memcpy(&entry[12], &addr, 4);
   entry[28] = bound;
   entry[30] = method;
   return entry;
}

/* The same of an IPv6 binding: isIpv4 0, the whole address, bound 0. */
inline std::vector<u8> V6Entry(u16 vlan, const std::string &mac, const std::string &ip, u8 method,
                               u8 fill) {
   std::vector<u8> entry(32, fill);
   memcpy(&entry[0], &vlan, 2);
   addrtext::Mac m = addrtext::MacOf(mac);
   memcpy(&entry[2], m.data(), 6);
   entry[8] = 0;
   EXPECT_EQ(inet_pton(AF_INET6, ip.c_str(), &entry[12]), 1) << ip;
   entry[28] = 0;
   entry[30] = method;
   return entry;
}

/* An IPv6 address as the module's log lines print it: eight groups in
 * hex, none shortened ("2001:db8:0:0:0:0:0:1"). */
inline std::string V6LogText(const std::string &ip) {
   std::array<u8, 16> a{};
   EXPECT_EQ(inet_pton(AF_INET6, ip.c_str(), a.data()), 1) << ip;
   char text[64];
   snprintf(text, sizeof text, "%x:%x:%x:%x:%x:%x:%x:%x", a[0] << 8 | a[1], a[2] << 8 | a[3],
            a[4] << 8 | a[5], a[6] << 8 | a[7], a[8] << 8 | a[9], a[10] << 8 | a[11],
            a[12] << 8 | a[13], a[14] << 8 | a[15]);
   return text;
}

/* The plain log line of an IPv6 binding added to or deleted from the
 * table of port 0x10 (`what`: "Added IP to PortDB" or "Deleting V6 VMI"). */
inline std::string V6TableLine(const char *what, u16 vlan, const std::string &mac,
                               const std::string &ip, u8 method, long long expiryTs) {
   char text[256];
   snprintf(text, sizeof text,
            "Filter 0x10 %s VLAN: %u, IP: %s MAC: %s discMethod: %#x, expiryTs: %lld", what,
            vlan, V6LogText(ip).c_str(), mac.c_str(), method, expiryTs);
   return text;
}

} // namespace portdbtext

#endif /* PORTDB_TEXT_H */
