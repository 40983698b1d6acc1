/*
 * The simulated host shared by the fuzz harnesses.
 *
 * The module is started once per process (init_module on the static
 * library) with the portset "vs0" and two VM ports.  Each input enables the
 * ports it needs, feeds them, and ends in EndInput: the table invariants of
 * every filter, no lock held, no lock-rank violation, no panic; then the
 * ports are disabled and their properties cleaned up, and the module heap
 * must be back at the size it had before the first input, with no frame
 * alive.  Anything else aborts, so that libFuzzer keeps the input.
 */
#ifndef FUZZ_HOST_H
#define FUZZ_HOST_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "rtm.h"
#include "zek.h"

namespace fuzzhost {

using Bytes = std::vector<uint8_t>;

constexpr zek_PortID kPort = 0x10; /* the fuzzed port, "vs0" "16" */
constexpr zek_PortID kPeer = 0x20; /* a second filtered port, "vs0" "32" */

/* The five port properties, in the module's order. */
enum Prop : uint32_t { kEnabled, kDiscovery, kDiscovery6, kIgnoreList, kSecurity, kNumProps };

/* Reads an input front to back; past its end every read gives zeros. */
class Reader {
public:
   Reader(const uint8_t *data, size_t size) : p_(data), left_(size) {}
   bool Empty() const { return left_ == 0; }
   size_t Left() const { return left_; }
   uint8_t U8();
   uint16_t U16(); /* little-endian */
   uint32_t U32(); /* little-endian */
   Bytes Take(size_t n); /* at most n: what is left */
   Bytes Rest() { return Take(left_); }

private:
   const uint8_t *p_;
   size_t left_;
};

/* Starts the host and the module on the first call; later calls do nothing. */
void Start();

/* The module's client of the live-upgrade service, which Start announces. */
oxa_RtmClientHandle RtmClient();

/* Writes a property of a port as the switch does; the handler's status. */
zek_Status WriteProp(zek_PortID port, Prop prop, const Bytes &value);
/* The switch's clean-up of a property: the port forgets it. */
zek_Status CleanupProp(zek_PortID port, Prop prop);
void EnablePort(zek_PortID port);
/* IPv4 discovery (ARP, DHCP) and IPv6 discovery (ND, DHCPv6, expiry). */
void Discovery(zek_PortID port, bool arp, bool dhcp, bool nd, bool dhcpv6);
/* The security blob: features, the four rate limits, and the port white
 * list's entries (32 bytes each, none by default). */
void Security(zek_PortID port, uint32_t features, uint32_t rateLimit,
              const std::vector<Bytes> &portList = {});

/* One batch of frames from the VM (toSwitch) or to it, through the port's
 * chains as the switch runs them.  Each frame is given with the mapped
 * length it starts with (-1: all of it). */
struct Frame {
   Bytes bytes;
   int32_t mapped = -1;
   uint16_t vlan = 0;
};
void SendBatch(zek_PortID port, bool toSwitch, const std::vector<Frame> &frames);
void Send(zek_PortID port, bool toSwitch, const Bytes &bytes);

/* Moves the virtual clock; the worlds run what falls due. */
void Advance(double seconds);

/* Ends an input: checks, then puts the host back (see above). */
void EndInput();

/* Aborts with the text on standard error. */
[[noreturn]] void Fail(const char *what);

/* Frame builders around a payload fuzzed on its own.  The module reads no
 * checksum, so they stay 0. */
Bytes Ipv4Udp(const uint8_t srcMac[6], const uint8_t dstMac[6], uint32_t srcIp,
              uint32_t dstIp, uint16_t srcPort, uint16_t dstPort, const Bytes &payload);
Bytes Ipv6Frame(const uint8_t srcMac[6], const uint8_t dstMac[6], const uint8_t srcIp[16],
                const uint8_t dstIp[16], uint8_t nextHeader, uint8_t hopLimit,
                const Bytes &payload);
} // namespace fuzzhost

#endif /* FUZZ_HOST_H */
