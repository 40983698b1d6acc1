/*
 * The switch of vigild: ports of the simulated host attached to Linux
 * interfaces, and a learning bridge per portset that moves frames between
 * them.  A frame from a port's interface goes through the port's input
 * chains, then to its destinations' output chains, then out of their
 * interfaces.  (VLAN, MAC) -> port is learnt from the frames that the input
 * chains let through and forgotten after the ageing time; broadcast,
 * multicast and unknown destinations flood to the other ports of the portset
 * that carry the frame's VLAN.
 *
 * Everything here runs on the daemon's one switching thread.
 */
#ifndef VIGILD_BRIDGE_H
#define VIGILD_BRIDGE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "packet_socket.h"
#include "state.h"

namespace vigild {

using Json = vigilsim::Json;

struct PortCounters {
   uint64_t rxFrames = 0;    /* received from the interface */
   uint64_t rxBytes = 0;
   uint64_t rxDropped = 0;   /* dropped by the port's input chains */
   uint64_t rxOversize = 0;  /* longer than a receive buffer */
   uint64_t rxVlanDropped = 0; /* tagged frames on an access port */
   uint64_t rxLocal = 0;     /* addressed to a station behind the same port */
   uint64_t rxFlooded = 0;   /* flooded: broadcast, multicast, unknown */
   uint64_t txFrames = 0;    /* sent out of the interface */
   uint64_t txBytes = 0;
   uint64_t txDropped = 0;   /* dropped by the port's output chains */
   uint64_t txErrors = 0;    /* the interface refused them */
   uint64_t linkDowns = 0;
   uint64_t rxSocketDrops = 0; /* lost before the switch: the socket's buffer was full */
};

/* What reached a port's socket over some time, and what the kernel dropped
 * of it because the socket's receive buffer was full. */
struct SocketCounts {
   uint64_t arrived = 0;
   uint64_t dropped = 0;
};

struct Attachment {
   uint32_t port = 0;
   std::string portset;
   std::string ifname;
   int accessVlan = -1; /* -1: a trunk, tags carried as they come */
   PacketSocket socket;
   bool up = false;
   std::string downReason;
   double downSince = 0;
   PortCounters counters;
   double lastWarning = -1e9;
};

struct BridgeOptions {
   size_t budget = 4;         /* batches per port per wake-up */
   double ageingSeconds = 300;
   size_t fdbLimit = 8192;    /* learnt addresses per portset */
};

class Bridge {
 public:
   Bridge(int epollFd, const BridgeOptions &options);
   ~Bridge();
   Bridge(const Bridge &) = delete;
   Bridge &operator=(const Bridge &) = delete;

   /* The epoll tag of a port's socket: kind in the upper half. */
   static constexpr uint64_t kTagKind = 1ull << 32;
   static uint64_t Tag(uint32_t port) { return kTagKind | port; }

   /* Attaches a port to an interface.  A missing or down interface leaves
    * the port attached and down, until the interface comes. */
   bool Attach(uint32_t port, const std::string &portset, const std::string &ifname,
               int accessVlan, std::string *error);
   bool Detach(uint32_t port);
   void DetachAll();
   bool Attached(uint32_t port) const { return ports_.count(port) != 0; }
   const Attachment *Find(uint32_t port) const;
   std::vector<uint32_t> AttachedPorts() const;

   /* Handles readiness of a port's socket: at most `budget` batches.  True
    * when the budget ran out and frames may still wait. */
   bool Service(uint32_t port, uint32_t events);
   /* Once in a while: interfaces gone or back, ageing of learnt addresses,
    * the sockets' counters. */
   void Tick();
   /* Reads the kernel's counters of every open socket (reading clears
    * them): the drops go to the ports' counters.  What each up port's socket
    * counted since the last reading. */
   std::map<uint32_t, SocketCounts> CollectSocketStats();

   BridgeOptions &Options() { return options_; }
   Json Describe() const;
   Json FdbJson() const;
   /* Addresses not learnt because the portset's table was full. */
   uint64_t FdbFull() const { return fdbFull_; }

 private:
   struct FdbEntry {
      uint32_t port;
      double lastSeen;
   };
   using Fdb = std::unordered_map<uint64_t, FdbEntry>; /* vlan << 48 | mac */

   struct Outgoing {
      std::vector<uint8_t> bytes;
      uint16_t vlan;
   };

   void ProcessBatch(Attachment &in, std::vector<RxFrame> &frames);
   void Deliver(Attachment &out, std::vector<Outgoing> &frames);
   void Learn(const Attachment &in, uint16_t vlan, const uint8_t *mac, double now);
   /* Destination ports of a frame; empty to drop it. */
   void Destinations(const Attachment &in, uint16_t vlan, const uint8_t *dst, double now,
                     std::vector<Attachment *> *out);
   bool Carries(const Attachment &port, uint16_t vlan) const;
   void MarkDown(Attachment &att, const std::string &reason);
   bool TryUp(Attachment &att);
   void Forget(uint32_t port);
   SocketCounts CollectSocketStats(Attachment &att);
   void Warn(Attachment &att, const std::string &text);

   int epollFd_;
   BridgeOptions options_;
   std::map<uint32_t, std::unique_ptr<Attachment>> ports_;
   std::map<std::string, Fdb> fdbs_;
   std::vector<RxFrame> rxScratch_;
   uint64_t fdbFull_ = 0;
};

double SteadySeconds();

} // namespace vigild

#endif /* VIGILD_BRIDGE_H */
