/*
 * Cost of the data path per frame, one case per figure of the table that
 * `make bench` prints (scripts/bench.py drives this program):
 *   host_walk        the host walking a batch of 32 frames with no chain
 *                    (the baseline);
 *   no_feature       a port with no feature (one read lock per batch, no
 *                    frame touched);
 *   white_list_8     a port white list of 8 entries that allows the frame
 *                    only at its last entry, batches of 32;
 *   white_list_256   the same with 256 entries;
 *   broadcast_limit  only the transmit broadcast limit on, batches of 32;
 *   arp_refresh      an ARP request from the VM that refreshes its ARP
 *                    binding, one frame per batch;
 *   dhcp_exchange    a lease renewal: the VM's DHCP REQUEST and the
 *                    server's ACK, one frame per batch each, both through
 *                    the relock to the write lock; two frames per exchange.
 *
 * Without arguments it runs the cases under Google Benchmark, each
 * reporting frames as items.  `--run CASE ITERATIONS` sets up CASE and runs
 * it that many times with nothing else: scripts/bench.py counts the
 * instructions of two such runs with callgrind and takes the difference, so
 * that the setup cancels.  Asserts nothing about speed.
 */
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "frame_builders.h"
#include "sim_core.h"
#include "sim_frames.h"
#include "vigil_atomic.h"
#include "vigil_dhcp.h"
#include "vigil_lifecycle.h"
#include "vigil_module.h"
#include "vigil_packet.h"
#include "vigil_vmi.h"
#include "vigil_whitelist.h"
#include "vigil_whitelist_index.h"
#include "vigil_workers.h"

namespace {

constexpr int kBatch = 32;
constexpr u32 kPort = 0x10;
const char *const kVmIp = "192.0.2.10";
const char *const kSecondVmIp = "192.0.2.11";
const char *const kServerIp = "192.0.2.1";
const char *const kLeaseIp = "192.0.2.50";

[[noreturn]] void Fail(const char *what) {
   std::fprintf(stderr, "vigil_bench: %s\n", what);
   std::exit(1);
}

void Check(zek_Status status, const char *what) {
   if (status != ZEK_OK) Fail(what);
}

/* A unicast IPv4 UDP frame from 192.0.2.10 to 192.0.2.1. */
frames::Bytes UnicastUdpFrame() {
   return frames::UdpV4(frames::kVmMac, frames::kServerMac, kVmIp, kServerIp, 5000, 5001, 8);
}

/* The same from the address the list allows one entry earlier. */
frames::Bytes SecondSourceUdpFrame() {
   return frames::UdpV4(frames::kVmMac, frames::kServerMac, kSecondVmIp, kServerIp, 5000, 5001, 8);
}

frames::Bytes BroadcastUdpFrame() {
   return frames::UdpV4(frames::kVmMac, frames::kBroadcast, kVmIp, "255.255.255.255",
                        5000, 5001, 8);
}

/* The module's start as far as the data path needs it: heap, logs, lock
 * domain, the filter lifecycle and the two worlds (the aging world stopped,
 * so that nothing ages behind the measurement), one portset with one port
 * and a filter on it. */
class BenchHost {
 public:
   VigilFilter *filter = nullptr;

   /* `discovery`: the ways bindings are learnt (VIGIL_DISC_*), none for
    * the cases that learn nothing. */
   BenchHost(u32 features, u32 discovery) {
      sim::Reset();
      moduleID = 0x51;
      sim::SetModuleID(moduleID);
      zek_HeapProps heapProps = {};
      zek_NameInitialize(&heapProps.name, "vigil");
      heapProps.module = moduleID;
      heapProps.minSize = 4096;
      heapProps.maxSize = 64 << 20;
      Check(zek_HeapCreate(&heapProps, &heapID), "heap");
      zek_LogProps logProps = {};
      zek_NameInitialize(&logProps.name, "vigil");
      logProps.module = moduleID;
      logProps.heap = heapID;
      Check(zek_LogRegister(&logProps, &logHandle), "log");
      zek_NameInitialize(&logProps.name, "vigil.throttle");
      Check(zek_LogRegister(&logProps, &vigilThrottledLogHandle), "throttled log");
      zek_Name name;
      zek_NameInitialize(&name, "vigil");
      Check(zek_LockDomainCreate(moduleID, heapID, &name, &lockDomain), "lock domain");
      ppPktAttrHandle = VIGIL_PP_PKT_ATTR_ID;
      Check(Vigil_FilterLifecycleInit(), "filter lifecycle");
      Check(VigilAgingWorldInit(), "aging world");
      VigilAtomicStore(&exitAgingWorld, (u8)(1));
      Check(VigilStopWorld(VigilAtomicLoad(&agingWorldID)), "aging world stop");
      Check(VigilCPWorldInit(), "control-plane world");
      sim::AddPortset("vs0");
      sim::AddPort("vs0", kPort);
      sim::WaitIdle(5.0);

      filter = (VigilFilter *)Vigil_HeapAlloc(sizeof(VigilFilter));
      filter->portID = kPort;
      memcpy(filter->portsetName, "vs0", 4);
      VigilFilterSetDefaults(filter);
      filter->configLock = MakeLock("vigil.config", ZEK_SPINLOCK_RW, 1);
      filter->rateLimitLock = MakeLock("vigil.ratelimit", ZEK_SPINLOCK_ORDINARY, 3);
      filter->featuresEnabled = features;
      filter->txBcastLimiter.periodSecs = 1;
      filter->txBcastLimiter.limit = 0xffffffffu;
      Check(VigilVmiHashAlloc(&filter->vmiHash), "binding table");
      filter->discoveryFlags = discovery;
      Check(oxa_PortVoltaliteDataSet(kPort, VIGIL_FILTER_SLOT, filter, nullptr), "port data");
   }

   /* The worlds end; the heap and the rest are forgotten by the next
    * sim::Reset. */
   ~BenchHost() {
      sim::WaitIdle(5.0);
      oxa_PortVoltaliteDataUnset(kPort, VIGIL_FILTER_SLOT);
      (void)VigilCPWorldDestroy();
      (void)VigilAgingWorldDestroy();
      sim::Reset();
   }

   static zek_SpinlockHandle MakeLock(const char *n, u32 kind, u32 rank) {
      zek_SpinlockProps props = {};
      props.module = moduleID;
      props.heap = heapID;
      zek_NameInitialize(&props.name, n);
      props.kind = kind;
      props.domain = lockDomain;
      props.rank = rank;
      zek_SpinlockHandle lock = nullptr;
      Check(zek_SpinlockCreate(&props, &lock), "spinlock");
      return lock;
   }

   /* A port white list of `size` entries whose last one allows 192.0.2.10
    * and whose one before the last allows 192.0.2.11. */
   void SetPortWhiteList(uint32_t size) {
      auto *list = (VigilWhiteListEntry *)Vigil_HeapAlloc(size * sizeof(VigilWhiteListEntry));
      for (uint32_t i = 0; i < size; i++) {
         list[i].flags = VIGIL_WL_IPV4;
         list[i].prefixLen = 32;
         const uint8_t other[4] = {198, 51, 100, (uint8_t)i};
         const uint8_t allowed[4] = {192, 0, 2, 10};
         const uint8_t second[4] = {192, 0, 2, 11};
         memcpy(list[i].ip, i + 1 == size ? allowed : i + 2 == size ? second : other, 4);
      }
      filter->portWhiteList = list;
      filter->portWhiteListSize = size;
      /* As the configuration does: lists of four or more get their index. */
      if (size >= 4) {
         Check(Vigil_BuildWhiteListIndex(list, size, &filter->portWhiteListIndex), "white list index");
      }
   }
};

/* A list of `count` frames, copies of `bytes` alternating with copies of
 * `other` when it is given. */
zek_PktList *ListOf(const frames::Bytes &bytes, int count, const frames::Bytes *other = nullptr) {
   zek_PktList *list = sim::MakeList();
   for (int i = 0; i < count; i++) {
      sim::ListAppend(list, sim::MakeFrame(other != nullptr && i % 2 == 1 ? *other : bytes));
   }
   return list;
}

/* Runs one batch and fails unless every frame is still on the list. */
void ForwardAll(bool toSwitch, zek_PktList *list, size_t count) {
   zek_Status status = toSwitch ? Vigil_ProcessPacketsToSwitch(kPort, nullptr, list)
                                : Vigil_ProcessPacketsFromSwitch(kPort, nullptr, list);
   if (status != ZEK_OK || sim::ListFrames(list).size() != count) {
      Fail("a frame of the set-up batch was not forwarded");
   }
}

/* One case set up: Iterate runs it once over `frames` frames. */
class Runner {
 public:
   virtual ~Runner() = default;
   virtual void Iterate() = 0;
   int frames = kBatch;
};

class HostWalk : public Runner {
 public:
   HostWalk() : host_(0, 0), list_(ListOf(BroadcastUdpFrame(), kBatch)) {}
   void Iterate() override {
      alignas(16) uint8_t iterMem[ZEK_PKT_LIST_ITER_MAX_SIZE];
      zek_PktListIter *iter = (zek_PktListIter *)iterMem;
      for (zek_PktListIterStart(iter, list_); !zek_PktListIterIsAtEnd(iter);
           zek_PktListIterMove(iter)) {
         benchmark::DoNotOptimize(zek_PktListIterGetPkt(iter));
      }
   }
   ~HostWalk() override { sim::DestroyList(list_); }

 private:
   BenchHost host_;
   zek_PktList *list_;
};

/* Batches of 32 copies of one frame from the VM, or of two frames taking
 * turns, all forwarded. */
class TxBatch : public Runner {
 public:
   TxBatch(u32 features, const frames::Bytes &frame, uint32_t whiteList = 0,
           const frames::Bytes *other = nullptr)
      : host_(features, 0) {
      if (whiteList > 0) host_.SetPortWhiteList(whiteList);
      list_ = ListOf(frame, kBatch, other);
      ForwardAll(true, list_, kBatch);
   }
   void Iterate() override {
      benchmark::DoNotOptimize(Vigil_ProcessPacketsToSwitch(kPort, nullptr, list_));
   }
   ~TxBatch() override { sim::DestroyList(list_); }

 private:
   BenchHost host_;
   zek_PktList *list_;
};

/* An ARP request from the VM, alone in its batch, refreshing the ARP
 * binding the first one made. */
class ArpRefresh : public Runner {
 public:
   ArpRefresh() : host_(0, VIGIL_DISC_ARP) {
      frames = 1;
      list_ = ListOf(frames::Arp(frames::kVmMac, frames::kVmMac, kVmIp, kServerIp, false), 1);
      ForwardAll(true, list_, 1);
      if (host_.filter->numArpVmis != 1) Fail("the ARP request made no binding");
   }
   void Iterate() override {
      benchmark::DoNotOptimize(Vigil_ProcessPacketsToSwitch(kPort, nullptr, list_));
   }
   ~ArpRefresh() override { sim::DestroyList(list_); }

 private:
   BenchHost host_;
   zek_PktList *list_;
};

/* A lease renewal: the VM's REQUEST (RENEWING: unicast to the server from
 * the leased address) and the server's ACK, each alone in its batch; the
 * REQUEST records a pending request and the ACK extends the binding, both
 * after a relock to the write lock.  The lease is first bound by a
 * SELECTING REQUEST and its ACK.  A renewal publishes nothing, so the
 * exchange can repeat without end. */
class DhcpExchange : public Runner {
 public:
   DhcpExchange() : host_(0, VIGIL_DISC_DHCP | VIGIL_DISC_ARP) {
      frames = 2;
      frames::DhcpFields request = ClientFields();
      request.requestedIp = kLeaseIp;
      request.serverId = kServerIp;
      frames::DhcpFields renew = ClientFields();
      renew.ciaddr = kLeaseIp;
      frames::DhcpFields ack;
      ack.op = 2;
      ack.xid = request.xid;
      ack.chaddr = frames::kVmMac;
      ack.msgType = VIGIL_DHCPACK;
      ack.siaddr = kServerIp;
      ack.serverId = kServerIp;
      ack.yiaddr = kLeaseIp;
      ack.leaseTime = 3600;
      ack.extra = {{1, {255, 255, 255, 0}}, {3, {192, 0, 2, 1}}};
      zek_PktList *select = ListOf(frames::DhcpFrame(frames::kVmMac, frames::kBroadcast,
                                                     "0.0.0.0", "255.255.255.255", 68, 67,
                                                     request), 1);
      request_ = ListOf(frames::DhcpFrame(frames::kVmMac, frames::kServerMac, kLeaseIp,
                                          kServerIp, 68, 67, renew), 1);
      ack_ = ListOf(frames::DhcpFrame(frames::kServerMac, frames::kVmMac, kServerIp,
                                      kLeaseIp, 67, 68, ack), 1);
      ForwardAll(true, select, 1);
      sim::DestroyList(select);
      ForwardAll(false, ack_, 1);
      if (host_.filter->numVmis != 1) Fail("the ACK made no binding");
      sim::WaitIdle(5.0);
      sim::TakePortsetMessages();
      ForwardAll(true, request_, 1);
      if (host_.filter->numDhcpReqs != 1) Fail("the renewal left no pending request");
      ForwardAll(false, ack_, 1);
      sim::WaitIdle(5.0);
      if (host_.filter->numDhcpReqs != 0 || host_.filter->numVmis != 1 ||
          !sim::TakePortsetMessages().empty()) {
         Fail("the renewal did not just extend the binding");
      }
   }
   void Iterate() override {
      benchmark::DoNotOptimize(Vigil_ProcessPacketsToSwitch(kPort, nullptr, request_));
      benchmark::DoNotOptimize(Vigil_ProcessPacketsFromSwitch(kPort, nullptr, ack_));
   }
   ~DhcpExchange() override {
      sim::DestroyList(request_);
      sim::DestroyList(ack_);
   }

 private:
   static frames::DhcpFields ClientFields() {
      frames::DhcpFields f;
      f.op = 1;
      f.xid = 0x3903f326;
      f.chaddr = frames::kVmMac;
      f.msgType = VIGIL_DHCPREQUEST;
      f.clientId = {1, 0x02, 0, 0, 0, 0, 0x10};
      f.paramList = {1, 28, 2, 3, 15, 6, 119, 12, 44, 47, 26, 121, 42};
      return f;
   }

   BenchHost host_;
   zek_PktList *request_;
   zek_PktList *ack_;
};

struct Case {
   const char *name;
   std::function<std::unique_ptr<Runner>()> make;
};

const std::vector<Case> &Cases() {
   static const std::vector<Case> cases = {
      {"host_walk", [] { return std::make_unique<HostWalk>(); }},
      {"no_feature",
       [] { return std::make_unique<TxBatch>(0, BroadcastUdpFrame()); }},
      {"white_list_8",
       [] { return std::make_unique<TxBatch>(VIGIL_FEAT_PORT_WARDEN, UnicastUdpFrame(), 8); }},
      {"white_list_256",
       [] { return std::make_unique<TxBatch>(VIGIL_FEAT_PORT_WARDEN, UnicastUdpFrame(), 256); }},
      /* Two sources taking turns: every frame is looked up in the list,
       * none is answered by the batch's memory of the last source let
       * through. */
      {"white_list_8_two_sources",
       [] {
          static const frames::Bytes second = SecondSourceUdpFrame();
          return std::make_unique<TxBatch>(VIGIL_FEAT_PORT_WARDEN, UnicastUdpFrame(), 8, &second);
       }},
      {"white_list_256_two_sources",
       [] {
          static const frames::Bytes second = SecondSourceUdpFrame();
          return std::make_unique<TxBatch>(VIGIL_FEAT_PORT_WARDEN, UnicastUdpFrame(), 256, &second);
       }},
      {"broadcast_limit",
       [] { return std::make_unique<TxBatch>(VIGIL_FEAT_TX_BCAST_LIMIT, BroadcastUdpFrame()); }},
      {"arp_refresh", [] { return std::make_unique<ArpRefresh>(); }},
      {"dhcp_exchange", [] { return std::make_unique<DhcpExchange>(); }},
   };
   return cases;
}

void RunCase(benchmark::State &state, const Case *c) {
   std::unique_ptr<Runner> runner = c->make();
   for (auto _ : state) {
      runner->Iterate();
   }
   state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * runner->frames);
   state.counters["frames_per_iteration"] = runner->frames;
}

/* `--run CASE ITERATIONS`: the case alone, for counting instructions. */
int RunAlone(const char *name, long iterations) {
   for (const Case &c : Cases()) {
      if (std::strcmp(c.name, name) != 0) continue;
      std::unique_ptr<Runner> runner = c.make();
      for (long i = 0; i < iterations; i++) runner->Iterate();
      std::printf("%s %ld iterations of %d frames\n", c.name, iterations, runner->frames);
      return 0;
   }
   std::fprintf(stderr, "vigil_bench: no case '%s'\n", name);
   return 2;
}

} // namespace

int main(int argc, char **argv) {
   if (argc == 4 && std::strcmp(argv[1], "--run") == 0) {
      return RunAlone(argv[2], std::strtol(argv[3], nullptr, 10));
   }
   if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
      for (const Case &c : Cases()) std::printf("%s\n", c.name);
      return 0;
   }
   for (const Case &c : Cases()) {
      benchmark::RegisterBenchmark(c.name, RunCase, &c);
   }
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   return 0;
}
