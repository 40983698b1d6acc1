/*
 * Commands of time, the host, the module, portsets, ports, properties, the
 * blob builders and faults.
 */
#include <cmath>

#include "blobs.h"
#include "session.h"
#include "sim_core.h"
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
   } else {
      throw ToolError("usage: fault alloc N [count=C] | fault call NAME STATUS [count=N] "
                      "[after=K] | fault clear");
   }
}

void Session::CmdNotYet(const std::vector<Token> &t, Json &out) {
   (void)t, (void)out;
   throw ToolError("not available yet");
}

} // namespace vigilsim
