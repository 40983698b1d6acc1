#include "fuzz_host.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "sim_core.h"
#include "sim_frames.h"
#include "sim_mgmt.h"
#include "sim_migration.h"
#include "sim_switch.h"
#include "vigil_exports.h"
#include "vigil_filter.h"
#include "vigil_lifecycle.h"
#include "vigil_migration.h"
#include "vigil_module.h"

extern "C" int init_module(void);
extern "C" void cleanup_module(void);

namespace fuzzhost {

namespace {

const char *const kPropNames[kNumProps] = {
   "com.norvex.vswitch.port.vigil.enabled",
   "com.norvex.vswitch.port.vigil.discovery",
   "com.norvex.vswitch.port.vigil.discovery.ipv6",
   "com.norvex.vswitch.port.vigil.discovery.ignorelist",
   "com.norvex.vswitch.port.vigil.security",
};
const zek_PortID kPorts[] = {kPort, kPeer};

bool started = false;
oxa_RtmClientHandle rtmClient;
/* The module heap and module-wide settings before the first input. */
sim::HeapStats baseline;
i64 startDelOnExpiry;
u32 startSaveVersion;
u32 startSupportedTlvs;

void HostFailure(const std::string &what) {
   std::string text = "simulated host: " + what;
   Fail(text.c_str());
}

void ReportViolation(void *ctx, const char *text) {
   fprintf(stderr, "port %#x: table invariant: %s\n", *(const zek_PortID *)ctx, text);
}

/* Forgets what the host keeps for inspection, so that a long run stays
 * within its memory. */
void DropRecords() {
   (void)sim::TakeLogs();
   (void)sim::TakePortsetMessages();
   (void)sim::TakeObservations();
   (void)sim::TakeInvalidations();
   (void)sim::TakeGlxCommands();
}

/* At exit: the module stops (its worlds must be gone before the host's
 * statics are destroyed) and must leave nothing behind.  It stops on a
 * thread of its own, since the main thread's thread-locals (the host's
 * record of held locks) are already gone when exit handlers run. */
void StopModuleNow() {
   cleanup_module();
   (void)sim::WaitIdle(5.0);
   if (sim::LeaksSinceReset() != 0) Fail("the module heap was not empty at unload");
   if (sim::LiveWorlds() != 0) Fail("a world outlived the module");
   if (sim::FramesLive() != 0) Fail("a frame outlived the module");
   if (sim::LiveMgmtInterfaces() != 0) Fail("the management interface outlived the module");
   sim::SetFailureHook(nullptr);
}

void StopModule() { std::thread(StopModuleNow).join(); }

} // namespace

uint8_t Reader::U8() {
   if (left_ == 0) return 0;
   left_--;
   return *p_++;
}

uint16_t Reader::U16() {
   uint16_t lo = U8();
   return (uint16_t)(lo | (U8() << 8));
}

uint32_t Reader::U32() {
   uint32_t lo = U16();
   return lo | ((uint32_t)U16() << 16);
}

Bytes Reader::Take(size_t n) {
   if (n > left_) n = left_;
   Bytes out(p_, p_ + n);
   p_ += n;
   left_ -= n;
   return out;
}

void Fail(const char *what) {
   fprintf(stderr, "FUZZ FAILURE: %s\n", what);
   abort();
}

void Start() {
   if (started) return;
   started = true;
   sim::Reset();
   sim::SetFailureHook(HostFailure);
   sim::SetModuleID(0x51);
   sim::UseVirtualClock(true);
   sim::AddPortset("vs0");
   for (zek_PortID port : kPorts) {
      if (!sim::AddPort("vs0", port)) Fail("cannot add a port");
   }
   if (init_module() != 0) Fail("init_module failed");
   (void)sim::RtmAnnounce();
   if (sim::RtmClients().empty()) Fail("the module registered no live-upgrade client");
   rtmClient = sim::RtmClients().back().handle;
   if (!sim::WaitIdle(5.0)) Fail("the worlds did not settle after the start");
   DropRecords();
   atexit(StopModule);
   baseline = sim::GetHeapStats(heapID);
   startDelOnExpiry = delOnExpiry;
   startSaveVersion = saveVersion;
   startSupportedTlvs = supportedTlvs;
}

oxa_RtmClientHandle RtmClient() { return rtmClient; }

zek_Status WriteProp(zek_PortID port, Prop prop, const Bytes &value) {
   bool handled = false;
   zek_Status status = sim::WriteProperty(port, kPropNames[prop], value, &handled);
   if (!handled) Fail("no handler for a port property");
   return status;
}

zek_Status CleanupProp(zek_PortID port, Prop prop) {
   return sim::CleanupProperty(port, kPropNames[prop], nullptr);
}

void EnablePort(zek_PortID port) {
   static const Bytes on = {'t', 'r', 'u', 'e'};
   if (WriteProp(port, kEnabled, on) != ZEK_OK) Fail("enabling a port failed");
}

void Discovery(zek_PortID port, bool arp, bool dhcp, bool nd, bool dhcpv6) {
   (void)WriteProp(port, kDiscovery, Bytes{(uint8_t)arp, (uint8_t)dhcp});
   Bytes six(14, 0);
   six[0] = nd;
   six[1] = dhcpv6;
   six[2] = 10; /* minutes */
   (void)WriteProp(port, kDiscovery6, six);
}

void Security(zek_PortID port, uint32_t features, uint32_t rateLimit,
              const std::vector<Bytes> &portList) {
   Bytes blob(32, 0);
   memcpy(&blob[0], &features, 4);
   for (size_t at = 4; at < 20; at += 4) memcpy(&blob[at], &rateLimit, 4);
   uint32_t entries = static_cast<uint32_t>(portList.size());
   memcpy(&blob[24], &entries, 4);
   for (const Bytes &entry : portList) blob.insert(blob.end(), entry.begin(), entry.end());
   (void)WriteProp(port, kSecurity, blob);
}

void SendBatch(zek_PortID port, bool toSwitch, const std::vector<Frame> &frames) {
   zek_PktList *list = sim::MakeList();
   for (const Frame &frame : frames) {
      sim::FrameOptions opts;
      opts.vlan = frame.vlan;
      opts.mapped = frame.mapped;
      sim::ListAppend(list, sim::MakeFrame(frame.bytes, opts));
   }
   (void)(toSwitch ? sim::SendFromVM(port, list) : sim::DeliverToVM(port, list));
   sim::DestroyList(list);
}

void Send(zek_PortID port, bool toSwitch, const Bytes &bytes) {
   Frame frame;
   frame.bytes = bytes;
   SendBatch(port, toSwitch, {frame});
}

/* The host's clock counts nanoseconds in 63 bits, about 292 years, and one
 * process runs inputs for as long as the fuzzer lasts: their steps would add
 * up past it.  Time stops at a hundred years instead. */
void Advance(double seconds) {
   constexpr double kClockLimitSeconds = 100.0 * 365 * 86400;
   double room = kClockLimitSeconds - sim::Now();
   if (seconds > room) seconds = room;
   if (seconds > 0) sim::Advance(seconds);
}

void EndInput() {
   if (!sim::WaitIdle(5.0)) Fail("the worlds did not settle");
   u32 violations = 0;
   for (zek_PortID port : kPorts) {
      VigilFilter *filter = Vigil_LockFilter(port, false);
      if (filter != nullptr) {
         zek_PortID ctx = port;
         violations += VigilCheckFilterTables(filter, ReportViolation, &ctx);
         Vigil_UnlockFilter(filter, false);
      }
   }
   if (violations != 0) Fail("a table invariant does not hold");
   if (sim::LocksHeldByThread() != 0) Fail("a lock is still held");
   if (!sim::LockViolations().empty()) Fail(sim::LockViolations()[0].c_str());
   if (!sim::Panics().empty()) Fail(sim::Panics()[0].c_str());

   /* The ports go back to no filter and no property. */
   for (zek_PortID port : kPorts) {
      (void)WriteProp(port, kEnabled, Bytes{'f', 'a', 'l', 's', 'e'});
      for (uint32_t prop = 0; prop < kNumProps; prop++) {
         (void)CleanupProp(port, (Prop)prop);
      }
      if (Vigil_GetPortFilter(port) != nullptr) Fail("a disabled port kept its filter");
   }
   if (Vigil_RetryRetiredFilters() != 0) Fail("a retired filter was left");
   if (!sim::WaitIdle(5.0)) Fail("the worlds did not settle after the clean-up");
   if (sim::FramesLive() != 0) Fail("a frame was not released");
   if (sim::PortsetsAcquired() != 0) Fail("a portset is still acquired");
   sim::HeapStats now = sim::GetHeapStats(heapID);
   if (now.inUse != baseline.inUse || now.allocations != baseline.allocations) {
      fprintf(stderr, "module heap: %llu bytes in %llu allocations, %llu in %llu before\n",
              (unsigned long long)now.inUse, (unsigned long long)now.allocations,
              (unsigned long long)baseline.inUse, (unsigned long long)baseline.allocations);
      Fail("the input left memory in the module heap");
   }
   delOnExpiry = startDelOnExpiry;
   saveVersion = startSaveVersion;
   supportedTlvs = startSupportedTlvs;
   sim::FaultClear();
   DropRecords();
}

namespace {

void PutU16Be(Bytes &b, size_t at, uint16_t v) {
   b[at] = (uint8_t)(v >> 8);
   b[at + 1] = (uint8_t)v;
}

void PutU32Be(Bytes &b, size_t at, uint32_t v) {
   PutU16Be(b, at, (uint16_t)(v >> 16));
   PutU16Be(b, at + 2, (uint16_t)v);
}

Bytes Ethernet(const uint8_t srcMac[6], const uint8_t dstMac[6], uint16_t etherType) {
   Bytes b(14, 0);
   memcpy(&b[0], dstMac, 6);
   memcpy(&b[6], srcMac, 6);
   PutU16Be(b, 12, etherType);
   return b;
}

} // namespace

Bytes Ipv4Udp(const uint8_t srcMac[6], const uint8_t dstMac[6], uint32_t srcIp,
              uint32_t dstIp, uint16_t srcPort, uint16_t dstPort, const Bytes &payload) {
   Bytes b = Ethernet(srcMac, dstMac, 0x0800);
   size_t ip = b.size();
   b.resize(ip + 28, 0);
   b[ip] = 0x45;
   PutU16Be(b, ip + 2, (uint16_t)(28 + payload.size()));
   b[ip + 8] = 64;
   b[ip + 9] = 17;
   PutU32Be(b, ip + 12, srcIp);
   PutU32Be(b, ip + 16, dstIp);
   PutU16Be(b, ip + 20, srcPort);
   PutU16Be(b, ip + 22, dstPort);
   PutU16Be(b, ip + 24, (uint16_t)(8 + payload.size()));
   b.insert(b.end(), payload.begin(), payload.end());
   return b;
}

Bytes Ipv6Frame(const uint8_t srcMac[6], const uint8_t dstMac[6], const uint8_t srcIp[16],
                const uint8_t dstIp[16], uint8_t nextHeader, uint8_t hopLimit,
                const Bytes &payload) {
   Bytes b = Ethernet(srcMac, dstMac, 0x86dd);
   size_t ip = b.size();
   b.resize(ip + 40, 0);
   b[ip] = 0x60;
   PutU16Be(b, ip + 4, (uint16_t)payload.size());
   b[ip + 6] = nextHeader;
   b[ip + 7] = hopLimit;
   memcpy(&b[ip + 8], srcIp, 16);
   memcpy(&b[ip + 24], dstIp, 16);
   b.insert(b.end(), payload.begin(), payload.end());
   return b;
}

} // namespace fuzzhost
