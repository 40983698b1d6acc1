/*
 * The configuration blobs of the configuration and property tests: the
 * shared builders (tools/common/blob_builders.h) and the test's readings of
 * addresses, which fail the test on a bad text.
 */
#ifndef CONFIG_BLOBS_H
#define CONFIG_BLOBS_H

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

#include "blob_builders.h"
#include "vigil_config.h"
#include "vigil_packet.h"

namespace blobs {

inline MacAddr Mac(const char *text) {
   MacAddr mac{};
   unsigned v[6];
   EXPECT_EQ(sscanf(text, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4],
                    &v[5]),
             6)
      << text;
   for (int i = 0; i < 6; i++) {
      mac[i] = (u8)v[i];
   }
   return mac;
}

/* An IPv4 address in the first four bytes, the rest zero. */
inline Addr V4(const char *text) {
   Addr addr{};
   EXPECT_EQ(inet_pton(AF_INET, text, addr.data()), 1) << text;
   return addr;
}

inline Addr V6(const char *text) {
   Addr addr{};
   EXPECT_EQ(inet_pton(AF_INET6, text, addr.data()), 1) << text;
   return addr;
}

/* The address of supportedBpduFilterMacs[n]. */
inline MacAddr BpduMac(u32 n) {
   MacAddr mac;
   memcpy(mac.data(), supportedBpduFilterMacs[n], 6);
   return mac;
}

} // namespace blobs

#endif /* CONFIG_BLOBS_H */
