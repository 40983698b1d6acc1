/*
 * Scripted callees of the transmit and receive pipelines: address
 * enforcement, DHCP parsing, snooping and IPv6 handling.  While installed
 * they take the module's own entries in the pipelines' callee table
 * (vigil_pipeline.h), record each call and answer as the test sets them up;
 * nothing else in the module is replaced.
 */
#ifndef SCRIPTED_CALLEES_H
#define SCRIPTED_CALLEES_H

#include <string>
#include <vector>

#include "vigil_packet.h"
#include "vigil_test.h"

namespace scripted {

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

/* What the scripted callees answer; Reset puts back "forward everything". */
extern u32 wardenResult;
extern bool dhcpParses;      /* the DHCP parse succeeds on any UDP frame */
extern u8 dhcpMessageType;   /* the type it reports */
extern std::string relockOn; /* snoop that answers RELOCK under a read lock */
extern u32 snoopAction;      /* what snoops answer otherwise */
extern zek_Status snoopStatus;

extern std::vector<WardenCall> wardenCalls;
extern std::vector<SnoopCall> snoopCalls;
extern u32 dhcpParseCalls;

/* Forgets the calls recorded and puts back the default answers. */
void Reset();
/* Resets, then puts the scripted callees in the pipelines' table. */
void Install();
/* Puts the module's own callees back in the table. */
void Restore();

} // namespace scripted

/* The module test fixture with the scripted callees installed for the whole
 * test. */
class ScriptedPipelineTest : public VigilTest {
protected:
   void SetUp() override;
   void TearDown() override;
};

#endif /* SCRIPTED_CALLEES_H */
