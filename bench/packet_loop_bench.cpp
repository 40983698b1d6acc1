/*
 * Cost of the packet loop per frame, in batches of 32 frames:
 *   - a port with no feature (one read lock per batch, no frame touched),
 *   - a port with only the transmit broadcast limit on,
 *   - a port white list of 8 and of 256 entries that allows the frame only
 *     at its last entry,
 *   - the same list walked by the host with no chain installed.
 * Prints ns per frame; asserts nothing.
 */
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "sim_core.h"
#include "sim_frames.h"
#include "vigil_module.h"
#include "vigil_packet.h"
#include "vigil_whitelist.h"

namespace {

constexpr int kBatch = 32;
constexpr u32 kPort = 0x10;

/* A unicast IPv4 UDP frame from 192.0.2.10 to 192.0.2.1. */
std::vector<uint8_t> UnicastUdpFrame() {
   std::vector<uint8_t> f = {0x02, 0, 0, 0, 0, 0x01, 0x02, 0, 0, 0, 0, 0x10, 0x08, 0x00};
   const uint8_t ip[20] = {0x45, 0, 0, 36, 0, 0, 0, 0, 64, 17, 0, 0,
                           192, 0, 2, 10, 192, 0, 2, 1};
   f.insert(f.end(), ip, ip + 20);
   const uint8_t udp[8] = {0x13, 0x88, 0x13, 0x89, 0, 16, 0, 0};
   f.insert(f.end(), udp, udp + 8);
   f.resize(f.size() + 8, 0xab);
   return f;
}

std::vector<uint8_t> BroadcastUdpFrame() {
   std::vector<uint8_t> f = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0,
                             0, 0x10, 0x08, 0x00};
   const uint8_t ip[20] = {0x45, 0, 0, 36, 0, 0, 0, 0, 64, 17, 0, 0,
                           192, 0, 2, 10, 255, 255, 255, 255};
   f.insert(f.end(), ip, ip + 20);
   const uint8_t udp[8] = {0x13, 0x88, 0x13, 0x89, 0, 16, 0, 0};
   f.insert(f.end(), udp, udp + 8);
   f.resize(f.size() + 8, 0xab);
   return f;
}

struct BenchHost {
   VigilFilter *filter = nullptr;
   zek_PktList *list = nullptr;

   explicit BenchHost(u32 features, const std::vector<uint8_t> &bytes = BroadcastUdpFrame()) {
      sim::Reset();
      zek_HeapProps heapProps = {};
      zek_NameInitialize(&heapProps.name, "vigil");
      heapProps.maxSize = 64 << 20;
      zek_HeapCreate(&heapProps, &heapID);
      zek_Name name;
      zek_NameInitialize(&name, "vigil");
      zek_LockDomainCreate(moduleID, heapID, &name, &lockDomain);
      sim::AddPortset("vs0");
      sim::AddPort("vs0", kPort);
      filter = (VigilFilter *)Vigil_HeapAlloc(sizeof(VigilFilter));
      filter->portID = kPort;
      filter->configLock = MakeLock("vigil.config", ZEK_SPINLOCK_RW, 1);
      filter->rateLimitLock = MakeLock("vigil.ratelimit", ZEK_SPINLOCK_ORDINARY, 3);
      filter->featuresEnabled = features;
      filter->txBcastLimiter.periodSecs = 1;
      filter->txBcastLimiter.limit = 0xffffffffu;
      oxa_PortVoltaliteDataSet(kPort, VIGIL_FILTER_SLOT, filter, nullptr);
      list = sim::MakeList();
      for (int i = 0; i < kBatch; i++) {
         sim::ListAppend(list, sim::MakeFrame(bytes));
      }
   }

   static zek_SpinlockHandle MakeLock(const char *n, u32 kind, u32 rank) {
      zek_SpinlockProps props = {};
      zek_NameInitialize(&props.name, n);
      props.kind = kind;
      props.domain = lockDomain;
      props.rank = rank;
      zek_SpinlockHandle lock = nullptr;
      zek_SpinlockCreate(&props, &lock);
      return lock;
   }

   /* A port white list of `size` entries whose last one allows the frame. */
   void SetPortWhiteList(uint32_t size) {
      auto *list = (VigilWhiteListEntry *)Vigil_HeapAlloc(size * sizeof(VigilWhiteListEntry));
      for (uint32_t i = 0; i < size; i++) {
         list[i].flags = VIGIL_WL_IPV4;
         list[i].prefixLen = 32;
         const uint8_t other[4] = {198, 51, 100, (uint8_t)i};
         const uint8_t allowed[4] = {192, 0, 2, 10};
         memcpy(list[i].ip, i + 1 == size ? allowed : other, 4);
      }
      filter->portWhiteList = list;
      filter->portWhiteListSize = size;
   }

   ~BenchHost() {
      Vigil_HeapFree(filter->portWhiteList);
      sim::DestroyList(list);
      oxa_PortVoltaliteDataUnset(kPort, VIGIL_FILTER_SLOT);
      zek_SpinlockDestroy(filter->configLock);
      zek_SpinlockDestroy(filter->rateLimitLock);
      Vigil_HeapFree(filter);
      zek_LockDomainDestroy(lockDomain);
      zek_HeapDestroy(heapID);
   }
};

void BM_PortWithNoFeature(benchmark::State &state) {
   BenchHost host(0);
   for (auto _ : state) {
      benchmark::DoNotOptimize(Vigil_ProcessPacketsToSwitch(kPort, nullptr, host.list));
   }
   state.counters["ns_per_frame"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kBatch,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_PortWithBroadcastLimit(benchmark::State &state) {
   BenchHost host(VIGIL_FEAT_TX_BCAST_LIMIT);
   for (auto _ : state) {
      benchmark::DoNotOptimize(Vigil_ProcessPacketsToSwitch(kPort, nullptr, host.list));
   }
   state.counters["ns_per_frame"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kBatch,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_PortWardenMatchAtLastEntry(benchmark::State &state) {
   BenchHost host(VIGIL_FEAT_PORT_WARDEN, UnicastUdpFrame());
   host.SetPortWhiteList(static_cast<uint32_t>(state.range(0)));
   for (auto _ : state) {
      benchmark::DoNotOptimize(Vigil_ProcessPacketsToSwitch(kPort, nullptr, host.list));
   }
   state.counters["ns_per_frame"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kBatch,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

/* The host's own walk of the list, as it would run with no chain. */
void BM_HostWalkWithoutChain(benchmark::State &state) {
   BenchHost host(0);
   alignas(16) uint8_t iterMem[ZEK_PKT_LIST_ITER_MAX_SIZE];
   zek_PktListIter *iter = (zek_PktListIter *)iterMem;
   for (auto _ : state) {
      for (zek_PktListIterStart(iter, host.list); !zek_PktListIterIsAtEnd(iter);
           zek_PktListIterMove(iter)) {
         benchmark::DoNotOptimize(zek_PktListIterGetPkt(iter));
      }
   }
   state.counters["ns_per_frame"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kBatch,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

} // namespace

BENCHMARK(BM_PortWithNoFeature);
BENCHMARK(BM_PortWithBroadcastLimit);
BENCHMARK(BM_PortWardenMatchAtLastEntry)->Arg(8)->Arg(256);
BENCHMARK(BM_HostWalkWithoutChain);
BENCHMARK_MAIN();
