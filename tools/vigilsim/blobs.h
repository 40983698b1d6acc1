/*
 * Builders of the binary port properties from readable options: the
 * security configuration, the IPv4 and IPv6 discovery blobs and the ignore
 * list, with white list and ignore list entries written as ENTRIES.
 */
#ifndef VIGILSIM_BLOBS_H
#define VIGILSIM_BLOBS_H

#include <cstdint>
#include <string>
#include <vector>

#include "script.h"
#include "vigil_whitelist.h"

namespace vigilsim {

/* ENTRIES: entries separated by ';', each a comma-separated list of vlan=N,
 * mac=MAC, ip=ADDR[/LEN], prefix=N, flags=N.  The 32-byte records, in order. */
std::vector<uint8_t> ParseEntries(const std::string &text);
/* The same entries as records. */
std::vector<VigilWhiteListEntry> ParseEntryList(const std::string &text);

/* Options features, rxBcast, txBcast, rxMcast, txMcast, switch, port,
 * bpduExclude. */
std::vector<uint8_t> BuildSecurityBlob(const Args &args);
/* Options arp, dhcp: two bytes, ARP snooping first. */
std::vector<uint8_t> BuildDiscoveryBlob(const Args &args);
/* Options nd, dhcpv6, expiry (minutes, default 10): 14 bytes. */
std::vector<uint8_t> BuildDiscovery6Blob(const Args &args);
/* A u32 count and the records. */
std::vector<uint8_t> BuildIgnoreListBlob(const std::string &entries);

} // namespace vigilsim

#endif /* VIGILSIM_BLOBS_H */
