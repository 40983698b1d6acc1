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
 * Switching threads: each attached port belongs to one of them, which
 * receives its frames and switches them to their destinations.  Everything
 * else (commands, attaching, ports going down, ageing, counters) runs on the
 * daemon's thread while switching is held: no switching thread is inside a
 * batch then, so the ports, their sockets and the module's chains change
 * under no frame.  A switching thread that finds a port's interface broken
 * only marks it failed; the daemon's thread takes it down.
 */
#ifndef VIGILD_BRIDGE_H
#define VIGILD_BRIDGE_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "packet_socket.h"
#include "state.h"
#include "zek.h"

namespace vigild {

using Json = vigilsim::Json;

using Counter = std::atomic<uint64_t>;

struct PortCounters {
   Counter rxFrames{0};      /* received from the interface */
   Counter rxBytes{0};
   Counter rxDropped{0};     /* dropped by the port's input chains */
   Counter rxOversize{0};    /* longer than a ring slot */
   Counter rxShort{0};       /* shorter than an Ethernet header */
   Counter rxVlanDropped{0}; /* tagged frames on an access port */
   Counter rxLocal{0};       /* addressed to a station behind the same port */
   Counter rxFlooded{0};     /* flooded: broadcast, multicast, unknown */
   Counter rxHelped{0};      /* taken by a thread that had just sent to the port */
   Counter txFrames{0};      /* sent out of the interface */
   Counter txBytes{0};
   Counter txDropped{0};     /* dropped by the port's output chains */
   Counter txErrors{0};      /* the interface refused them */
   Counter txRingFull{0};    /* no free slot in the send ring */
   Counter txPortDown{0};    /* for this port while it was down or failing */
   Counter txNoFrame{0};     /* a flood's copy the host could not make */
   Counter linkDowns{0};
   Counter rxSocketDrops{0}; /* lost before the switch: the receive ring was full */
};

/* What reached a port's socket over some time, and what the kernel dropped
 * of it because the socket's receive ring was full. */
struct SocketCounts {
   uint64_t arrived = 0;
   uint64_t dropped = 0;
};

struct Fdb;

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
   size_t worker = 0;   /* the switching thread that receives its frames */
   Fdb *fdb = nullptr;  /* its portset's learnt addresses */
   /* Whether the port had chains in each direction when switching was
    * last held: a direction without goes around the host. */
   bool inputChains = false;
   bool outputChains = false;
   /* A switching thread found the interface broken: frames skip the port
    * until the daemon's thread has taken it down. */
   std::atomic<bool> failed{false};
   /* Held by the thread taking frames from the receive ring: its own
    * thread, or one that has just sent to the port and looks whether an
    * answer came (see Bridge::Help). */
   std::mutex rxMutex;
};

struct BridgeOptions {
   size_t budget = 4;         /* batches per port per wake-up */
   double ageingSeconds = 300;
   size_t fdbLimit = 8192;    /* learnt addresses per portset */
   size_t threads = 2;        /* switching threads */
   bool txRing = true;        /* send through a send ring where one can be had */
};

class Bridge {
 public:
   explicit Bridge(const BridgeOptions &options);
   ~Bridge();
   Bridge(const Bridge &) = delete;
   Bridge &operator=(const Bridge &) = delete;

   /* Holds switching on this thread until the matching Resume: the daemon's
    * thread holds it around every command.  Nested holds count; the last
    * Resume reads the ports' chains again before switching goes on. */
   void Hold();
   void Resume();

   /* Attaches a port to an interface.  A missing or down interface leaves
    * the port attached and down, until the interface comes. */
   bool Attach(uint32_t port, const std::string &portset, const std::string &ifname,
               int accessVlan, std::string *error);
   bool Detach(uint32_t port);
   void DetachAll();
   bool Attached(uint32_t port) const { return ports_.count(port) != 0; }
   const Attachment *Find(uint32_t port) const;
   std::vector<uint32_t> AttachedPorts() const;

   /* Once in a while: interfaces gone, broken or back, ageing of learnt
    * addresses, the sockets' counters. */
   void Tick();
   /* Reads the kernel's counters of every open socket (reading clears
    * them): the drops go to the ports' counters.  What each up port's socket
    * counted since the last reading. */
   std::map<uint32_t, SocketCounts> CollectSocketStats();

   BridgeOptions &Options() { return options_; }
   Json Describe() const;
   Json FdbJson() const;
   /* Addresses not learnt because the portset's table was full. */
   uint64_t FdbFull() const { return fdbFull_.load(std::memory_order_relaxed); }

 private:
   /* A frame on its way: in the receive ring (`raw`) or a host frame. */
   struct Item {
      const RxFrame *raw;
      zek_Pkt *pkt;
      uint16_t vlan;
   };
   struct Queue {
      Attachment *port;
      std::vector<Item> items;
   };
   struct Worker {
      size_t index = 0;
      int epollFd = -1;
      int wakeFd = -1;
      std::thread thread;
      size_t ports = 0;
      /* Scratch of this thread, reused from batch to batch. */
      RxFrame rx[PacketSocket::kBatch];
      std::vector<Item> items;
      std::vector<zek_Pkt *> pkts;
      std::vector<Attachment *> dests;
      std::vector<Queue> queues;
      size_t queuesUsed = 0;
      std::vector<TxFrame> tx;
      std::vector<zek_Pkt *> sending; /* host frames whose bytes tx points into */
      std::vector<uint8_t> txBytes;   /* bytes of host frames not in one piece */
      /* Ports whose send ring still holds frames this thread queued. */
      std::vector<uint32_t> flush;
      std::vector<Attachment *> sentTo;  /* ports the last batch went to */
      std::vector<Attachment *> helping; /* those Help looks at */
   };

   void Run(Worker &w);
   /* At most `budget` batches of a port's ring. */
   void Service(Worker &w, uint32_t port, uint32_t events);
   /* Batches of the port's ring, with its rxMutex held; false when the
    * port failed. */
   bool Drain(Worker &w, Attachment &att, size_t budget);
   /* After a batch that did not fill: one batch of each port just sent to
    * that another thread receives, when frames wait there and that thread
    * is not at it.  An answer to what was just sent (ping, a TCP
    * acknowledgement) is most often there already, the kernel having
    * handed the frame to its receiver within the send: it goes on now
    * rather than after the other thread has woken up. */
   void Help(Worker &w);
   void ProcessBatch(Worker &w, Attachment &in, size_t count);
   std::vector<Item> &QueueFor(Worker &w, Attachment *port);
   void Deliver(Worker &w, Attachment &out, std::vector<Item> &items);
   /* Sends again what waits in the send rings of the ports on w.flush. */
   void FlushWaiting(Worker &w);
   void Account(Attachment &out, const SendResult &result);
   /* Before a port's socket closes: what still waits in its send ring is
    * counted as lost. */
   void DiscardWaiting(Attachment &att);
   void Learn(const Attachment &in, uint16_t vlan, const uint8_t *mac, double now);
   /* Destination ports of a frame; empty to drop it. */
   void Destinations(const Attachment &in, uint16_t vlan, const uint8_t *dst, double now,
                     std::vector<Attachment *> *out);
   bool Carries(const Attachment &port, uint16_t vlan) const;
   bool Usable(const Attachment &port) const;
   void MarkDown(Attachment &att, const std::string &reason);
   /* From a switching thread: the port is broken; the daemon's thread takes
    * it down at its next tick. */
   void Fail(Attachment &att, const std::string &reason);
   bool TryUp(Attachment &att);
   void Forget(uint32_t port);
   void RefreshChains();
   SocketCounts CollectSocketStats(Attachment &att);
   void Warn(Attachment &att, const std::string &text);

   BridgeOptions options_;
   pthread_rwlock_t gate_;
   std::atomic<bool> stopping_{false};
   std::vector<std::unique_ptr<Worker>> workers_;
   std::map<uint32_t, std::unique_ptr<Attachment>> ports_;
   std::map<std::string, std::unique_ptr<Fdb>> fdbs_;
   std::atomic<uint64_t> fdbFull_{0};
   std::mutex warnMutex_;
   std::mutex failMutex_;
   std::vector<std::pair<uint32_t, std::string>> failures_;
};

/* Holds switching for a scope. */
class SwitchingHold {
 public:
   explicit SwitchingHold(Bridge &bridge) : bridge_(bridge) { bridge_.Hold(); }
   ~SwitchingHold() { bridge_.Resume(); }
   SwitchingHold(const SwitchingHold &) = delete;
   SwitchingHold &operator=(const SwitchingHold &) = delete;

 private:
   Bridge &bridge_;
};

double SteadySeconds();

} // namespace vigild

#endif /* VIGILD_BRIDGE_H */
