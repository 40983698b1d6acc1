/*
 * Commands of time, the host, the module, portsets, ports, properties, the
 * blob builders and faults; a port's saved state through the two carriers
 * (migrate, save, restore), the live-upgrade service's event (rtm) and the
 * live upgrade itself (upgrade).
 */
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <optional>

#include "blobs.h"
#include "session.h"
#include "sim_core.h"
#include "sim_migration.h"
#include "sim_switch.h"

namespace vigilsim {

namespace {

const char *const kPropPrefix = "com.norvex.vswitch.port.vigil.";

std::string FullPropName(const std::string &prop) {
   for (const char *shortName : {"enabled", "discovery", "discovery.ipv6",
                                 "discovery.ignorelist", "security"}) {
      if (prop == shortName) return kPropPrefix + prop;
   }
   return prop;
}

void NoArgs(const std::vector<Token> &t, const std::string &usage) {
   if (t.size() != 1) throw ToolError("usage: " + usage);
}

int64_t IntParam(const Args &args, const std::string &key) {
   int64_t v = ParseSigned(*args.Get(key), key + "=");
   if (v < INT32_MIN || v > INT32_MAX) throw ToolError("bad " + key + "=: out of range");
   return v;
}

} // namespace

void Session::CmdEcho(const std::vector<Token> &t, Json &out) {
   std::string text;
   for (size_t i = 1; i < t.size(); i++) text += (i > 1 ? " " : "") + t[i].text;
   out["text"] = text;
}

void Session::CmdClock(const std::vector<Token> &t, Json &out) {
   if (t.size() != 2 || (t[1].text != "virtual" && t[1].text != "real")) {
      throw ToolError("usage: clock virtual|real");
   }
   RequireNoModule("clock");
   virtualClock_ = t[1].text == "virtual";
   sim::UseVirtualClock(virtualClock_);
   out["clock"] = t[1].text;
}

void Session::CmdAdvance(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("advance", t, 1, {});
   args.Expect(1, 1, "advance SECONDS");
   double seconds = ParseSeconds(args.positional[0].text, "SECONDS");
   if (!virtualClock_) throw ToolError("advance needs the virtual clock");
   sim::Advance(seconds);
   double now = sim::Now();
   out["uptime"] = static_cast<int64_t>(std::floor(now));
   out["time"] = now;
}

void Session::CmdIdle(const std::vector<Token> &t, Json &out) {
   NoArgs(t, "idle");
   (void)out;
   if (!sim::WaitIdle(5.0)) throw ToolError("the worlds did not become idle within 5 s");
}

void Session::CmdHost(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("host", t, 1, {"build"});
   args.Expect(0, 0, "host build=N");
   if (!args.Has("build")) throw ToolError("usage: host build=N");
   RequireNoModule("host");
   uint32_t build = static_cast<uint32_t>(args.Unsigned("build", 0, UINT32_MAX));
   sim::SetBuildNumber(build);
   out["build"] = build;
}

void Session::CmdLoad(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("load", t, 1,
                         {"isLiveUpgrade", "VIGIL_HEAP_MIN_SIZE", "VIGIL_HEAP_MAX_SIZE"});
   args.Expect(0, 0, "load [isLiveUpgrade=0|1] [VIGIL_HEAP_MIN_SIZE=N] [VIGIL_HEAP_MAX_SIZE=N]");
   if (module_ != nullptr) throw ToolError("a module is already loaded");
   std::vector<std::pair<std::string, int64_t>> params;
   if (args.Has("isLiveUpgrade")) {
      params.emplace_back("isLiveUpgrade", args.Bool("isLiveUpgrade", false) ? 1 : 0);
   }
   for (const char *key : {"VIGIL_HEAP_MIN_SIZE", "VIGIL_HEAP_MAX_SIZE"}) {
      if (args.Has(key)) params.emplace_back(key, IntParam(args, key));
   }
   int initResult = -1;
   std::string error;
   module_ = sim::LoadModule(settings_.modulePath, params, &initResult, &error);
   if (module_ == nullptr) throw ToolError("cannot load the module: " + error);
   modulePath_ = settings_.modulePath;
   out["status"] = initResult;
   out["module"] = settings_.modulePath;
   sim::WaitIdle(5.0);
}

void Session::CmdUnload(const std::vector<Token> &t, Json &out) {
   NoArgs(t, "unload");
   if (module_ == nullptr) throw ToolError("no module is loaded");
   sim::WaitIdle(2.0);
   sim::UnloadReport report = sim::UnloadModule(module_);
   module_ = nullptr;
   out["leaks"] = report.leaks;
   out["leakBytes"] = report.leakBytes;
   out["framesLive"] = report.framesLive;
   out["heapsLive"] = report.heapsLive;
   out["callbacksLeft"] = report.callbacksLeft;
}

void Session::CmdPortset(const std::vector<Token> &t, Json &out) {
   std::string sub = t.size() > 1 ? t[1].text : "";
   if (sub == "add") {
      Args args = SplitArgs("portset add", t, 2, {"class", "glx"});
      args.Expect(1, 1, "portset add NAME [class=vswitch] [glx=0|1]");
      std::string name = args.positional[0].text;
      if (sim::FindPortset(name) != nullptr) throw ToolError("portset " + name + " exists");
      sim::SetGlxEnabled(name, args.Bool("glx", false));
      if (sim::AddPortset(name, args.Get("class").value_or("vswitch")) == nullptr) {
         throw ToolError("cannot add portset " + name);
      }
      portsets_.push_back(name);
      out["portset"] = name;
   } else if (sub == "remove") {
      Args args = SplitArgs("portset remove", t, 2, {});
      args.Expect(1, 1, "portset remove NAME");
      std::string name = args.positional[0].text;
      if (sim::FindPortset(name) == nullptr) throw ToolError("unknown portset " + name);
      sim::RemovePortset(name);
      ForgetPortset(name);
      out["portset"] = name;
   } else {
      throw ToolError("usage: portset add NAME [class=vswitch] [glx=0|1] | portset remove NAME");
   }
}

void Session::CmdPort(const std::vector<Token> &t, Json &out) {
   std::string sub = t.size() > 1 ? t[1].text : "";
   if (sub == "add") {
      Args args = SplitArgs("port add", t, 2, {"vnic", "enabled", "fabswitch", "fabport"});
      args.Expect(2, 2, "port add PORTSET PORTID [vnic=N|none] [enabled=0|1] "
                        "[fabswitch=TEXT] [fabport=TEXT]");
      std::string portset = args.positional[0].text;
      uint32_t port = static_cast<uint32_t>(
          ParseUnsigned(args.positional[1].text, "port id", UINT32_MAX));
      if (sim::FindPortset(portset) == nullptr) throw ToolError("unknown portset " + portset);
      if (sim::PortExists(port)) throw ToolError("port " + HexNumber(port) + " exists");
      sim::PortOptions opts;
      std::string vnic = args.Get("vnic").value_or("2");
      if (vnic == "none") {
         opts.vnicReadable = false;
      } else {
         opts.vnicType = static_cast<uint32_t>(ParseUnsigned(vnic, "vnic=", UINT32_MAX));
      }
      opts.enabled = args.Bool("enabled", true);
      opts.fabSwitch = args.Get("fabswitch").value_or("");
      opts.fabPort = args.Get("fabport").value_or("");
      if (!sim::AddPort(portset, port, opts)) {
         throw ToolError("cannot add port " + HexNumber(port));
      }
      ports_[port] = portset;
      out["portID"] = port;
   } else if (sub == "remove") {
      Args args = SplitArgs("port remove", t, 2, {});
      args.Expect(1, 1, "port remove PORTID");
      uint32_t port = PortArg(args.positional[0]);
      sim::RemovePort(port);
      ports_.erase(port);
      out["portID"] = port;
   } else if (sub == "flag") {
      Args args = SplitArgs("port flag", t, 2, {"enabled"});
      args.Expect(1, 1, "port flag PORTID enabled=0|1");
      if (!args.Has("enabled")) throw ToolError("usage: port flag PORTID enabled=0|1");
      uint32_t port = PortArg(args.positional[0]);
      sim::SetPortFlag(port, ZEK_PORT_FLAG_ENABLED, args.Bool("enabled", true));
      out["portID"] = port;
   } else {
      throw ToolError("usage: port add|remove|flag ...");
   }
}

void Session::WriteBlob(uint32_t port, const std::string &prop,
                        const std::vector<uint8_t> &blob, Json &out) {
   bool handled = false;
   zek_Status status = sim::WriteProperty(port, FullPropName(prop), blob, &handled);
   out["status"] = status;
   out["handled"] = handled;
   out["blobLen"] = blob.size();
   out["blob"] = HexText(blob.data(), blob.size());
}

void Session::CmdProp(const std::vector<Token> &t, Json &out) {
   std::string sub = t.size() > 1 ? t[1].text : "";
   if (sub == "write") {
      /* VALUE is BYTES: every token after the command words is positional. */
      if (t.size() != 5) throw ToolError("usage: prop write PORTID PROP VALUE");
      uint32_t port = PortArg(t[2]);
      std::vector<uint8_t> value = ParseBytes(t[4]);
      bool handled = false;
      std::string prop = FullPropName(t[3].text);
      out["property"] = prop;
      out["status"] = sim::WriteProperty(port, prop, value, &handled);
      out["handled"] = handled;
   } else if (sub == "cleanup") {
      if (t.size() != 4) throw ToolError("usage: prop cleanup PORTID PROP");
      uint32_t port = PortArg(t[2]);
      bool handled = false;
      std::string prop = FullPropName(t[3].text);
      out["property"] = prop;
      out["status"] = sim::CleanupProperty(port, prop, &handled);
      out["handled"] = handled;
   } else {
      throw ToolError("usage: prop write PORTID PROP VALUE | prop cleanup PORTID PROP");
   }
}

void Session::CmdSecurity(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("security", t, 1,
                         {"features", "rxBcast", "txBcast", "rxMcast", "txMcast", "switch",
                          "port", "bpduExclude"});
   args.Expect(1, 1, "security PORTID [features=N] [rxBcast=N] [txBcast=N] [rxMcast=N] "
                     "[txMcast=N] [switch=ENTRIES] [port=ENTRIES] [bpduExclude=MAC,...]");
   uint32_t port = PortArg(args.positional[0]);
   WriteBlob(port, "security", BuildSecurityBlob(args), out);
}

void Session::CmdDiscovery(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("discovery", t, 1, {"arp", "dhcp"});
   args.Expect(1, 1, "discovery PORTID [arp=0|1] [dhcp=0|1]");
   uint32_t port = PortArg(args.positional[0]);
   WriteBlob(port, "discovery", BuildDiscoveryBlob(args), out);
}

void Session::CmdDiscovery6(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("discovery6", t, 1, {"nd", "dhcpv6", "expiry"});
   args.Expect(1, 1, "discovery6 PORTID [nd=0|1] [dhcpv6=0|1] [expiry=MINUTES]");
   uint32_t port = PortArg(args.positional[0]);
   WriteBlob(port, "discovery.ipv6", BuildDiscovery6Blob(args), out);
}

void Session::CmdIgnoreList(const std::vector<Token> &t, Json &out) {
   /* ENTRIES look like options (vlan=...), so they are taken as they are. */
   if (t.size() != 3) throw ToolError("usage: ignorelist PORTID ENTRIES");
   uint32_t port = PortArg(t[1]);
   std::string entries = t[2].text == "empty" && !t[2].quoted ? "" : t[2].text;
   WriteBlob(port, "discovery.ignorelist", BuildIgnoreListBlob(entries), out);
}

void Session::CmdFault(const std::vector<Token> &t, Json &out) {
   std::string sub = t.size() > 1 ? t[1].text : "";
   if (sub == "alloc") {
      Args args = SplitArgs("fault alloc", t, 2, {"count"});
      args.Expect(1, 1, "fault alloc N [count=C]");
      uint32_t n = static_cast<uint32_t>(ParseUnsigned(args.positional[0].text, "N", UINT32_MAX));
      uint32_t count = static_cast<uint32_t>(args.Unsigned("count", 1, UINT32_MAX));
      sim::FaultAlloc(n, count);
      out["n"] = n;
      out["count"] = count;
   } else if (sub == "call") {
      Args args = SplitArgs("fault call", t, 2, {"count", "after"});
      args.Expect(2, 2, "fault call NAME STATUS [count=N] [after=K]");
      std::string name = args.positional[0].text;
      uint32_t status = static_cast<uint32_t>(
          ParseUnsigned(args.positional[1].text, "STATUS", UINT32_MAX));
      uint32_t count = static_cast<uint32_t>(args.Unsigned("count", 1, UINT32_MAX));
      uint32_t after = static_cast<uint32_t>(args.Unsigned("after", 0, UINT32_MAX));
      sim::FaultCall(name, status, count, after);
      out["name"] = name;
      out["returns"] = status;
      out["count"] = count;
      out["after"] = after;
   } else if (sub == "clear") {
      if (t.size() != 2) throw ToolError("usage: fault clear");
      sim::FaultClear();
   } else if (sub == "count") {
      /* `fault count on` starts counting the allocations and the calls that
       * can be failed; `fault count` shows them, numbered as `fault alloc`
       * and `fault call ... after=K` count, so that a fault sweep knows
       * which faults a script can meet. */
      const char *usage = "usage: fault count [on|off]";
      if (t.size() > 3) throw ToolError(usage);
      std::string word = t.size() == 3 ? t[2].text : "";
      if (word == "on" || word == "off") {
         sim::CountCalls(word == "on");
         if (word == "on") allocsCountedFrom_ = sim::AllocationsTried();
         out["counting"] = word == "on";
      } else if (word.empty()) {
         out["allocs"] = sim::AllocationsTried() - allocsCountedFrom_;
         Json calls = Json::object();
         for (const auto &[name, count] : sim::CallCounts()) calls[name] = count;
         out["calls"] = calls;
      } else {
         throw ToolError(usage);
      }
   } else {
      throw ToolError("usage: fault alloc N [count=C] | fault call NAME STATUS [count=N] "
                      "[after=K] | fault clear | fault count [on|off]");
   }
}


/* ------------------------------------------------- a port's saved state */

/* What carries a port's saved state: the Transit client of the port's
 * portset, or the RTM client that the loaded module registered. */
struct StateCarrier {
   bool rtm = false;
   oxa_RtmClientHandle client = nullptr;
   const char *Name() const { return rtm ? "rtm" : "transit"; }
};

namespace {

/* The largest buffer bufLen= may ask for. */
constexpr uint64_t kMaxBufLen = 64u << 20;

/* A buffer that the module saves into, cleared to zero.  When the host puts
 * its own carriers' buffers against a page that can't be touched
 * (sim::GuardedBuffers), this one is put there too, so that a write past
 * its end faults at once here as well. */
class SaveBuffer {
 public:
   explicit SaveBuffer(uint32_t size) {
      if (size == 0) return;
      if (!sim::GuardedBuffers()) {
         plain_.assign(size, 0);
         data_ = plain_.data();
         return;
      }
      const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
      const size_t pages = (size + page - 1) / page;
      mapLen_ = (pages + 1) * page;
      void *map = mmap(nullptr, mapLen_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                       -1, 0);
      if (map == MAP_FAILED) {
         throw ToolError("cannot map a guarded buffer of " + std::to_string(size) + " bytes");
      }
      map_ = map;
      uint8_t *guard = static_cast<uint8_t *>(map) + pages * page;
      if (mprotect(guard, page, PROT_NONE) != 0) {
         munmap(map_, mapLen_);
         map_ = nullptr;
         throw ToolError("cannot protect the guard page of a buffer");
      }
      data_ = guard - size; /* a fresh mapping reads as zeros */
   }
   ~SaveBuffer() {
      if (map_ != nullptr) munmap(map_, mapLen_);
   }
   SaveBuffer(const SaveBuffer &) = delete;
   SaveBuffer &operator=(const SaveBuffer &) = delete;
   uint8_t *data() { return data_; }

 private:
   std::vector<uint8_t> plain_;
   uint8_t *data_ = nullptr;
   void *map_ = nullptr;
   size_t mapLen_ = 0;
};

/* What the size query and the save of a port gave. */
struct SavedState {
   uint32_t size = 0;
   zek_Status sizeStatus = ZEK_OK; /* RTM only: Transit's size query has none */
   uint32_t bufLen = 0;
   zek_Status saveStatus = ZEK_OK;
   uint32_t dataLen = 0;
   std::vector<uint8_t> data; /* the first dataLen bytes of the buffer */
};

/* The time since `then` on the host's clock, in whole milliseconds, as the
 * host's drivers count the time a move took. */
uint64_t MillisecondsSince(double then) {
   const double ms = (sim::Now() - then) * 1000.0;
   return ms > 0 ? static_cast<uint64_t>(ms + 0.5) : 0;
}

/* As the host's drivers do it: the size query, a buffer of that size (or of
 * bufLen), and the save into it.  An empty buffer is never handed over:
 * nothing is saved then.  A save that reports more bytes than its buffer
 * holds can't be carried any further. */
SavedState SaveThrough(const StateCarrier &carrier, const std::string &portset,
                       uint32_t port, std::optional<uint32_t> bufLen) {
   SavedState s;
   if (carrier.rtm) {
      s.sizeStatus = sim::RtmGetSize(carrier.client, port, &s.size);
      if (s.sizeStatus != ZEK_OK) return s;
   } else {
      (void)sim::TransitSize(portset, port, &s.size); /* the client was looked for */
   }
   s.bufLen = bufLen.value_or(s.size);
   if (s.bufLen == 0) return s;
   SaveBuffer buf(s.bufLen);
   s.saveStatus = carrier.rtm
                     ? sim::RtmSave(carrier.client, port, buf.data(), s.bufLen, &s.dataLen)
                     : sim::TransitSave(portset, port, buf.data(), s.bufLen, &s.dataLen);
   if (s.saveStatus != ZEK_OK) return s;
   if (s.dataLen > s.bufLen) {
      throw ToolError("the save of port " + HexNumber(port) + " reported " +
                      std::to_string(s.dataLen) + " bytes in a buffer of " +
                      std::to_string(s.bufLen));
   }
   s.data.assign(buf.data(), buf.data() + s.dataLen);
   return s;
}

/* The restore of `bytes`, handed over in a buffer of exactly their size. */
zek_Status RestoreThrough(const StateCarrier &carrier, const std::string &portset,
                          uint32_t port, const std::vector<uint8_t> &bytes,
                          uint64_t elapsedMS) {
   return carrier.rtm ? sim::RtmRestore(carrier.client, port, bytes, elapsedMS)
                      : sim::TransitRestore(portset, port, bytes, elapsedMS);
}

void SavedStateJson(const SavedState &s, bool rtm, Json &out) {
   out["size"] = s.size;
   if (rtm) out["sizeStatus"] = s.sizeStatus;
   out["bufLen"] = s.bufLen;
   out["saveStatus"] = s.saveStatus;
   out["dataLen"] = s.dataLen;
}

std::optional<uint32_t> BufLenArg(const Args &args) {
   if (!args.Has("bufLen")) return std::nullopt;
   return static_cast<uint32_t>(args.Unsigned("bufLen", 0, kMaxBufLen));
}

std::optional<uint64_t> ElapsedArg(const Args &args) {
   if (!args.Has("elapsed")) return std::nullopt;
   return args.Unsigned("elapsed", 0);
}

/* Files are remembered by their canonical path, so that two spellings of
 * one file are one file. */
std::string FileKey(const std::string &path) {
   std::error_code ec;
   std::filesystem::path canonical = std::filesystem::weakly_canonical(path, ec);
   return ec ? path : canonical.string();
}

bool HasTransitClient(const std::string &portset) {
   for (const sim::TransitClientInfo &c : sim::TransitClients()) {
      if (c.portset == portset) return true;
   }
   return false;
}

} // namespace

StateCarrier Session::CarrierArg(const Args &args,
                                     const std::vector<uint32_t> &ports) const {
   const std::string name = args.Get("carrier").value_or("transit");
   if (name != "transit" && name != "rtm") {
      throw ToolError("bad carrier= '" + name + "': transit or rtm");
   }
   if (module_ == nullptr) throw ToolError("no module is loaded");
   StateCarrier carrier;
   carrier.rtm = name == "rtm";
   if (carrier.rtm) {
      carrier.client = sim::RtmClientOf(module_);
      if (carrier.client == nullptr) {
         throw ToolError("the module has no RTM client: the live-upgrade service has not "
                         "been announced to it (rtm announce), or it did not register");
      }
      return carrier;
   }
   for (uint32_t port : ports) {
      const std::string &portset = ports_.at(port);
      if (!HasTransitClient(portset)) {
         throw ToolError("portset " + portset + " of port " + HexNumber(port) +
                         " has no Transit client");
      }
   }
   return carrier;
}

/* A VM's move from SRC to DST as the switch carries it: the size query and
 * the save on SRC, the restore on DST of the bytes saved, then completed on
 * both sides with the first failure.  A failed size query or save skips the
 * restore ("restoreStatus" null). */
void Session::CmdMigrate(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("migrate", t, 1, {"carrier", "elapsed", "bufLen"});
   args.Expect(2, 2, "migrate SRC DST [carrier=transit|rtm] [elapsed=MS] [bufLen=N]");
   uint32_t src = PortArg(args.positional[0]);
   uint32_t dst = PortArg(args.positional[1]);
   std::optional<uint32_t> bufLen = BufLenArg(args);
   std::optional<uint64_t> elapsed = ElapsedArg(args);
   StateCarrier carrier = CarrierArg(args, {src, dst});
   WaitForInspection(out);
   const std::string &srcPortset = ports_.at(src);
   const std::string &dstPortset = ports_.at(dst);
   const double savedAt = sim::Now();
   SavedState s = SaveThrough(carrier, srcPortset, src, bufLen);
   zek_Status first = s.sizeStatus != ZEK_OK ? s.sizeStatus : s.saveStatus;
   std::optional<zek_Status> restoreStatus;
   uint64_t elapsedMS = 0;
   if (first == ZEK_OK) {
      elapsedMS = elapsed.value_or(MillisecondsSince(savedAt));
      restoreStatus = RestoreThrough(carrier, dstPortset, dst, s.data, elapsedMS);
      first = *restoreStatus;
   }
   /* The end of the move, told to each side: Transit crosses hosts, RTM
    * stays on this one. */
   if (carrier.rtm) {
      (void)sim::RtmCompleted(carrier.client, false, first);
   } else {
      (void)sim::TransitCompleted(srcPortset, true, first);
      (void)sim::TransitCompleted(dstPortset, true, first);
   }
   out["carrier"] = carrier.Name();
   out["src"] = src;
   out["dst"] = dst;
   SavedStateJson(s, carrier.rtm, out);
   out["restoreStatus"] = restoreStatus ? Json(*restoreStatus) : Json();
   out["elapsedMS"] = elapsedMS;
   out["buffer"] = HexText(s.data.data(), s.data.size());
}

/* The size query and the save of one port; the bytes saved go to FILE. */
void Session::CmdSave(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("save", t, 1, {"carrier", "bufLen"});
   args.Expect(2, 2, "save PORTID FILE [carrier=transit|rtm] [bufLen=N]");
   uint32_t port = PortArg(args.positional[0]);
   const std::string file = args.positional[1].text;
   std::optional<uint32_t> bufLen = BufLenArg(args);
   StateCarrier carrier = CarrierArg(args, {port});
   std::ofstream os(file, std::ios::binary | std::ios::trunc);
   if (!os) throw ToolError("cannot write file " + file);
   WaitForInspection(out);
   const double savedAt = sim::Now();
   SavedState s = SaveThrough(carrier, ports_.at(port), port, bufLen);
   os.write(reinterpret_cast<const char *>(s.data.data()),
            static_cast<std::streamsize>(s.data.size()));
   os.close();
   if (!os) throw ToolError("cannot write file " + file);
   savedAt_[FileKey(file)] = savedAt;
   out["portID"] = port;
   out["carrier"] = carrier.Name();
   out["file"] = file;
   SavedStateJson(s, carrier.rtm, out);
}

/* The restore of one port from the bytes of a file or of BYTES.  Without
 * elapsed=, a file that `save` wrote counts the time since that save, as a
 * move would; anything else counts 0. */
void Session::CmdRestore(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("restore", t, 1, {"carrier", "elapsed"});
   args.Expect(2, 2, "restore PORTID FILE|BYTES [carrier=transit|rtm] [elapsed=MS]");
   uint32_t port = PortArg(args.positional[0]);
   const Token &source = args.positional[1];
   const std::string &text = source.text;
   /* BYTES are hex:, text: or file: bytes, or empty; anything else, quoted
    * or not, names a file. */
   bool isBytes = !source.quoted && (text.rfind("hex:", 0) == 0 ||
                                     text.rfind("text:", 0) == 0 || text == "empty");
   std::optional<std::string> file;
   if (!source.quoted && text.rfind("file:", 0) == 0) {
      file = text.substr(5);
   } else if (!isBytes) {
      file = text;
   }
   std::vector<uint8_t> bytes;
   if (file) {
      std::ifstream in(*file, std::ios::binary);
      if (!in) throw ToolError("cannot read file " + *file);
      bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
   } else {
      bytes = ParseBytes(source);
   }
   if (bytes.size() > UINT32_MAX) throw ToolError("more bytes than a restore can be given");
   std::optional<uint64_t> elapsed = ElapsedArg(args);
   StateCarrier carrier = CarrierArg(args, {port});
   WaitForInspection(out);
   uint64_t elapsedMS = 0;
   if (elapsed) {
      elapsedMS = *elapsed;
   } else if (file) {
      auto it = savedAt_.find(FileKey(*file));
      if (it != savedAt_.end()) elapsedMS = MillisecondsSince(it->second);
   }
   zek_Status status = RestoreThrough(carrier, ports_.at(port), port, bytes, elapsedMS);
   out["portID"] = port;
   out["carrier"] = carrier.Name();
   out["bufLen"] = bytes.size();
   out["elapsedMS"] = elapsedMS;
   out["status"] = status;
}

namespace {

/* The service's last record, the loaded module's RTM client (the last one
 * it registered) and how many clients the service holds, after an
 * announcement or a withdrawal. */
void RtmStateJson(sim::LoadedModule *module, Json &out) {
   oxa_RtmEventData event = sim::RtmLastEventData();
   out["announced"] = sim::RtmAnnounced();
   out["version"] = event.version;
   out["build"] = event.buildNum;
   oxa_RtmClientHandle handle = sim::RtmClientOf(module);
   Json client;
   for (const sim::RtmClientInfo &c : sim::RtmClients()) {
      if (c.handle != handle || handle == nullptr) continue;
      client["name"] = c.name;
      client["moduleID"] = c.moduleID;
      client["withOps"] = c.hasOps;
   }
   out["client"] = client;
   out["serviceClients"] = sim::LiveRtmClients();
}

/* What the loaded module's event callback answered: the last subscriber
 * called is the newest, the module's own; 0 when nobody listened. */
zek_Status ModuleAnswer(const std::vector<zek_Status> &answers) {
   return answers.empty() ? ZEK_OK : answers.back();
}

} // namespace

/* The live-upgrade service announces or withdraws itself, to whoever
 * subscribed to its event. */
void Session::CmdRtm(const std::vector<Token> &t, Json &out) {
   const std::string sub = t.size() > 1 && !t[1].quoted ? t[1].text : "";
   if (sub == "announce") {
      Args args = SplitArgs("rtm announce", t, 2, {"version", "build", "register"});
      args.Expect(0, 0, "rtm announce [version=N] [build=N] [register=0|1]");
      sim::RtmAnnouncement a;
      if (args.Has("version")) {
         int64_t v = ParseSigned(*args.Get("version"), "version=");
         if (v < INT32_MIN || v > INT32_MAX) throw ToolError("bad version=: out of range");
         a.version = static_cast<int32_t>(v);
      }
      if (args.Has("build")) {
         a.buildNum = static_cast<uint32_t>(args.Unsigned("build", 0, UINT32_MAX));
      }
      a.withCallback = args.Bool("register", true);
      if (module_ == nullptr) throw ToolError("no module is loaded");
      out["status"] = ModuleAnswer(sim::RtmAnnounce(a));
      RtmStateJson(module_, out);
   } else if (sub == "withdraw") {
      Args args = SplitArgs("rtm withdraw", t, 2, {"unregister"});
      args.Expect(0, 0, "rtm withdraw [unregister=0|1]");
      bool withCallback = args.Bool("unregister", true);
      if (module_ == nullptr) throw ToolError("no module is loaded");
      out["status"] = ModuleAnswer(sim::RtmWithdraw(withCallback));
      RtmStateJson(module_, out);
   } else {
      throw ToolError("usage: rtm announce [version=N] [build=N] [register=0|1] | "
                      "rtm withdraw [unregister=0|1]");
   }
}

/* The loaded module replaced by a new copy, as the platform does it; from
 * then on every command addresses the new copy.  When the new copy's start
 * fails, the old copy stays and carries on. */
void Session::CmdUpgrade(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("upgrade", t, 1, {"module"});
   args.Expect(0, 0, "upgrade [module=PATH]");
   if (module_ == nullptr) throw ToolError("no module is loaded");
   const std::string path = args.Get("module").value_or(modulePath_);
   if (access(path.c_str(), R_OK) != 0) throw ToolError("cannot read module " + path);
   sim::WaitIdle(2.0);
   sim::LiveUpgradeReport report;
   zek_Status status = sim::LiveUpgrade(module_, path, &report);
   if (!report.oldUnloaded && report.initResult == -1) {
      /* Nothing of the new copy ran: the file is no module. */
      throw ToolError("cannot load the new copy: " + report.error);
   }
   if (report.oldUnloaded) {
      module_ = report.newModule;
      modulePath_ = path;
   }
   sim::WaitIdle(2.0);
   Json ports = Json::array();
   Json perPort = Json::array();
   for (const sim::CarriedPort &p : report.ports) {
      bool carried = p.sizeStatus == ZEK_OK && p.saveStatus == ZEK_OK && p.dataLen != 0 &&
                     p.restoreStatus == ZEK_OK;
      if (carried) ports.push_back(p.portID);
      Json j;
      j["portID"] = p.portID;
      j["sizeStatus"] = p.sizeStatus;
      j["size"] = p.size;
      j["saveStatus"] = p.saveStatus;
      j["dataLen"] = p.dataLen;
      j["restoreStatus"] = p.restoreStatus;
      j["elapsedMS"] = p.elapsedMS;
      perPort.push_back(j);
   }
   out["status"] = status;
   out["ports"] = ports;
   out["oldLeaks"] = report.oldUnloaded ? Json(report.oldUnload.leaks) : Json();
   out["oldLeakBytes"] = report.oldUnloaded ? Json(report.oldUnload.leakBytes) : Json();
   out["oldCallbacksLeft"] = report.oldUnloaded ? Json(report.oldUnload.callbacksLeft) : Json();
   out["initResult"] = report.initResult;
   if (!report.error.empty()) out["reason"] = report.error;
   out["oldClient"] = report.oldClient;
   out["newClient"] = report.newClient;
   out["perPort"] = perPort;
}

} // namespace vigilsim
