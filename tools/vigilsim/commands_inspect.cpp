/*
 * Inspection: the filter of a port, the module's globals, messages, logs,
 * observations, the flow cache, accelerated datapath commands, invariant
 * checks and the module heap.  Each first waits for idle worlds, so that
 * nothing changes what is read.
 */
#include "session.h"
#include "sim_core.h"
#include "sim_frames.h"
#include "sim_switch.h"
#include "vigil_filter.h"
#include "vigil_workers.h"

namespace vigilsim {

namespace {

void NoArgs(const std::vector<Token> &t, const std::string &usage) {
   if (t.size() != 1) throw ToolError("usage: " + usage);
}

} // namespace

void Session::WaitForInspection(Json &out) {
   if (!sim::WaitIdle(2.0)) out["busy"] = true;
}

void Session::CmdState(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("state", t, 1, {});
   args.Expect(1, 1, "state PORTID");
   uint32_t port = PortArg(args.positional[0]);
   WaitForInspection(out);
   out["portID"] = port;
   out["filter"] = FilterJson(FilterOf(port));
}

/* The statistics blocks alone: of one port, or of every port with a filter. */
void Session::CmdStats(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("stats", t, 1, {});
   args.Expect(0, 1, "stats [PORTID]");
   std::vector<uint32_t> ports;
   if (!args.positional.empty()) {
      uint32_t port = PortArg(args.positional[0]);
      if (FilterOf(port) == nullptr) throw ToolError("port " + HexNumber(port) + " has no filter");
      ports.push_back(port);
   }
   WaitForInspection(out);
   if (args.positional.empty()) {
      for (const auto &entry : ports_) {
         if (FilterOf(entry.first) != nullptr) ports.push_back(entry.first);
      }
   }
   Json list = Json::array();
   for (uint32_t port : ports) {
      list.push_back(Json{{"portID", port}, {"stats", FilterJson(FilterOf(port))["stats"]}});
   }
   out["ports"] = list;
}

void Session::CmdModule(const std::vector<Token> &t, Json &out) {
   NoArgs(t, "module");
   if (module_ == nullptr) throw ToolError("no module is loaded");
   WaitForInspection(out);
   auto u64At = [this](const char *name) -> Json {
      const void *p = Symbol(name);
      return p == nullptr ? Json(nullptr) : Json(*static_cast<const uint64_t *>(p));
   };
   auto u32At = [this](const char *name) -> Json {
      const void *p = Symbol(name);
      return p == nullptr ? Json(nullptr) : Json(*static_cast<const uint32_t *>(p));
   };
   auto u8At = [this](const char *name) -> Json {
      const void *p = Symbol(name);
      return p == nullptr ? Json(nullptr) : Json(*static_cast<const uint8_t *>(p));
   };
   out["numFilters"] = u64At("numFilters");
   const void *del = Symbol("delOnExpiry");
   out["delOnExpiry"] = del == nullptr ? Json(nullptr) : Json(*static_cast<const int64_t *>(del));
   out["saveVersion"] = u32At("saveVersion");
   out["supportedTlvs"] = u32At("supportedTlvs");
   out["isLiveUpgrade"] = u8At("isLiveUpgrade");
   out["isLiveUpgradeFromMod"] = u8At("isLiveUpgradeFromMod");
   Json queue = Json::array();
   if (const void *q = Symbol("filterAgingQ")) {
      zek_PriQHandle handle = *static_cast<const zek_PriQHandle *>(q);
      if (handle != nullptr) {
         for (const auto &[key, elem] : sim::PriQContents(handle)) {
            Json e;
            e["portID"] = elem == nullptr ? 0u : *static_cast<const uint32_t *>(elem);
            e["key"] = key;
            queue.push_back(e);
         }
      }
   }
   out["agingQueue"] = queue;
   const void *tq = Symbol("taskQueue");
   out["taskQueueCount"] =
       tq == nullptr ? Json(nullptr) : Json(static_cast<const VigilTaskQueue *>(tq)->count);
}

void Session::CmdMessages(const std::vector<Token> &t, Json &out) {
   NoArgs(t, "messages");
   WaitForInspection(out);
   Collect();
   Json list = Json::array();
   for (const sim::PortsetMessage &m : messages_) list.push_back(PortsetMessageJson(m));
   messages_.clear();
   out["messages"] = list;
   if (messagesLost_ != 0) out["lost"] = messagesLost_;
   messagesLost_ = 0;
}

void Session::CmdLogs(const std::vector<Token> &t, Json &out) {
   NoArgs(t, "logs");
   WaitForInspection(out);
   Collect();
   Json list = Json::array();
   for (const sim::LogLine &line : logs_) list.push_back(LogLineJson(line));
   logs_.clear();
   uint64_t throttled = sim::ThrottledCount();
   out["logs"] = list;
   out["throttled"] = throttled - throttledSeen_;
   throttledSeen_ = throttled;
   if (logsLost_ != 0) out["lost"] = logsLost_;
   logsLost_ = 0;
}

void Session::CmdLogLevel(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("loglevel", t, 1, {"log"});
   args.Expect(1, 1, "loglevel N [log=NAME]");
   int64_t level = ParseSigned(args.positional[0].text, "level");
   if (level < INT32_MIN || level > INT32_MAX) throw ToolError("bad level: out of range");
   std::string name = args.Get("log").value_or("vigil");
   if (!sim::SetLogLevel(name, static_cast<int32_t>(level))) {
      throw ToolError("no log handle " + name);
   }
   out["log"] = name;
   out["level"] = level;
}

void Session::CmdObservations(const std::vector<Token> &t, Json &out) {
   NoArgs(t, "observations");
   WaitForInspection(out);
   Collect();
   Json list = Json::array();
   for (const sim::Observation &o : observations_) list.push_back(ObservationJson(o));
   observations_.clear();
   out["observations"] = list;
   if (observationsLost_ != 0) out["lost"] = observationsLost_;
   observationsLost_ = 0;
}

void Session::CmdFlowCache(const std::vector<Token> &t, Json &out) {
   NoArgs(t, "flowcache");
   WaitForInspection(out);
   Json entries = Json::array();
   for (const std::string &portset : portsets_) {
      for (const sim::WardenHashEntry &e : sim::FlowCacheEntries(portset)) {
         Json j;
         j["portset"] = portset;
         j["portID"] = e.portID;
         j["isIpv6"] = e.isIpv6;
         j["entry"] = HexText(e.entry.data(), e.entry.size());
         entries.push_back(j);
      }
   }
   Json invalidations = Json::array();
   for (const sim::Invalidation &inv : sim::TakeInvalidations()) {
      invalidations.push_back(Json{{"reason", inv.reason}, {"portID", inv.portID}});
   }
   out["entries"] = entries;
   out["invalidations"] = invalidations;
}

void Session::CmdGlx(const std::vector<Token> &t, Json &out) {
   NoArgs(t, "glx");
   WaitForInspection(out);
   Json list = Json::array();
   for (const sim::GlxCommand &c : sim::TakeGlxCommands()) {
      Json j;
      j["portID"] = c.portID;
      j["name"] = c.name;
      j["isPortWardenEnabled"] = c.isPortWardenEnabled;
      j["cmdClass"] = c.cmdClass;
      j["len"] = c.len;
      list.push_back(j);
   }
   out["commands"] = list;
}

void Session::CmdCheck(const std::vector<Token> &t, Json &out) {
   NoArgs(t, "check");
   WaitForInspection(out);
   using CheckFn = u32 (*)(VigilFilter *, void (*)(void *, const char *), void *);
   auto check = reinterpret_cast<CheckFn>(Symbol("VigilCheckFilterTables"));
   struct Context {
      std::vector<std::string> texts;
      uint32_t port;
   } ctx;
   auto report = [](void *c, const char *text) {
      auto *cx = static_cast<Context *>(c);
      cx->texts.push_back("port " + HexNumber(cx->port) + ": " + text);
   };
   size_t filters = 0;
   for (const auto &entry : ports_) {
      VigilFilter *filter = FilterOf(entry.first);
      if (filter == nullptr) continue;
      filters++;
      ctx.port = entry.first;
      if (check != nullptr) check(filter, report, &ctx);
   }
   for (const std::string &v : sim::LockViolations()) ctx.texts.push_back("lock rank: " + v);
   for (const std::string &p : sim::Panics()) ctx.texts.push_back("panic: " + p);
   out["filters"] = filters;
   out["violations"] = ctx.texts;
}

void Session::CmdHeap(const std::vector<Token> &t, Json &out) {
   NoArgs(t, "heap");
   if (module_ == nullptr) throw ToolError("no module is loaded");
   WaitForInspection(out);
   zek_HeapID heap = sim::ModuleHeap();
   if (heap == nullptr) throw ToolError("the module has no heap");
   sim::HeapStats stats = sim::GetHeapStats(heap);
   out["inUse"] = stats.inUse;
   out["allocations"] = stats.allocations;
   out["peak"] = stats.peak;
   out["totalAllocs"] = stats.totalAllocs;
}

} // namespace vigilsim
