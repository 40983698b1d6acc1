/*
 * Scripted stand-ins for the code that the pipelines call beyond this
 * build's reach (address enforcement, DHCP parsing, snooping, IPv6).  They
 * replace the module's forwarding placeholders in the test binary, record
 * each call and answer as the test sets them up.
 */
#ifndef TEST_DOUBLES_H
#define TEST_DOUBLES_H

#include <string>
#include <vector>

#include "vigil_packet.h"

namespace doubles {

struct WardenCall {
   u16 vlan;
   std::vector<u8> mac;
   std::vector<u8> addr; /* 4 bytes for IPv4 and ARP kinds, empty when null */
   std::vector<u8> arpSenderMac;
   u32 kind;
   const u8 *ppMetadata;
   u32 obsvFlags;
};

struct SnoopCall {
   std::string what; /* "dhcpTx", "dhcpRx", "arp", "ipv6Tx", "ipv6Rx" */
   u8 holdsReadLock;
   u8 configWriteHeld;
};

/* What the stand-ins answer; Reset puts back "forward everything". */
extern u32 wardenResult;
extern bool dhcpParses;      /* VigilDhcpParse succeeds on any UDP frame */
extern u8 dhcpMessageType;   /* the type it reports */
extern std::string relockOn; /* snoop that answers RELOCK under a read lock */
extern u32 snoopAction;      /* what snoops answer otherwise */
extern zek_Status snoopStatus;

extern std::vector<WardenCall> wardenCalls;
extern std::vector<SnoopCall> snoopCalls;
extern u32 dhcpParseCalls;

void Reset();

} // namespace doubles

#endif /* TEST_DOUBLES_H */
