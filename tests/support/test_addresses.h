/*
 * Readings of the address texts that tests write: "02:00:00:00:00:10" and
 * "192.0.2.10".  A text that is not such an address fails the running test
 * and reads as zeros.
 */
#ifndef TEST_ADDRESSES_H
#define TEST_ADDRESSES_H

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vigil_types.h"

namespace addrtext {

using Mac = std::array<u8, 6>;

/* A MAC address written as six pairs of hex digits joined by colons. */
inline Mac MacOf(const std::string &text) {
   Mac mac{};
   unsigned v[6];
   char extra;
   if (text.size() != 17 ||
       std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &v[0], &v[1], &v[2], &v[3],
                   &v[4], &v[5], &extra) != 6) {
      ADD_FAILURE() << "not a MAC address: \"" << text << "\"";
      return mac;
   }
   for (int i = 0; i < 6; i++) {
      mac[i] = static_cast<u8>(v[i]);
   }
   return mac;
}

/* A dotted IPv4 address as the module keeps one: its four bytes in network
 * order, in a u32. */
inline u32 Ip(const std::string &text) {
   u32 ip = 0;
   if (inet_pton(AF_INET, text.c_str(), &ip) != 1) {
      ADD_FAILURE() << "not an IPv4 address: \"" << text << "\"";
      return 0;
   }
   return ip;
}

/* The same readings as byte vectors, to compare with recorded bytes. */
inline std::vector<u8> MacBytes(const std::string &text) {
   Mac mac = MacOf(text);
   return std::vector<u8>(mac.begin(), mac.end());
}

inline std::vector<u8> IpBytes(const std::string &text) {
   u32 ip = Ip(text);
   u8 bytes[4];
   std::memcpy(bytes, &ip, 4);
   return std::vector<u8>(bytes, bytes + 4);
}

} // namespace addrtext

#endif /* TEST_ADDRESSES_H */
