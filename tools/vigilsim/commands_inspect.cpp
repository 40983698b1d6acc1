/*
 * Inspection: the filter of a port, the module's globals, messages, logs,
 * observations, the flow cache, accelerated datapath commands, invariant
 * checks, the module heap and the port database calls of sibling modules.
 * Each first waits for idle worlds, so that nothing changes what is read.
 */
#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>

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
   args.Expect(1, SIZE_MAX, "state PORTID [FIELD ...]");
   uint32_t port = PortArg(args.positional[0]);
   std::vector<std::string> fields;
   for (size_t i = 1; i < args.positional.size(); i++) fields.push_back(args.positional[i].text);
   if (!fields.empty()) SelectFilterFields(nullptr, fields); /* names checked first */
   WaitForInspection(out);
   out["portID"] = port;
   Json filter = FilterJson(FilterOf(port));
   out["filter"] = fields.empty() ? filter : SelectFilterFields(filter, fields);
}

void Session::CmdBindings(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("bindings", t, 1, {});
   args.Expect(1, 1, "bindings PORTID");
   uint32_t port = PortArg(args.positional[0]);
   WaitForInspection(out);
   out["portID"] = port;
   out["bindings"] = BindingsJson(FilterOf(port));
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

namespace {

/* The module-wide values of `module`, in order, each read from its
 * symbols. */
struct ModuleValue {
   const char *name;
   Json (*read)(const std::function<const void *(const char *)> &symbol);
};

template <typename T>
Json ValueAt(const void *p) {
   return Json(*static_cast<const T *>(p));
}

const std::vector<ModuleValue> &ModuleValues() {
   static const std::vector<ModuleValue> values = {
      {"numFilters", [](const auto &sym) { return ValueAt<uint64_t>(sym("numFilters")); }},
      {"delOnExpiry", [](const auto &sym) { return ValueAt<int64_t>(sym("delOnExpiry")); }},
      {"saveVersion", [](const auto &sym) { return ValueAt<uint32_t>(sym("saveVersion")); }},
      {"supportedTlvs", [](const auto &sym) { return ValueAt<uint32_t>(sym("supportedTlvs")); }},
      {"isLiveUpgrade", [](const auto &sym) { return ValueAt<uint8_t>(sym("isLiveUpgrade")); }},
      {"isLiveUpgradeFromMod",
       [](const auto &sym) { return ValueAt<uint8_t>(sym("isLiveUpgradeFromMod")); }},
      {"agingQueue",
       [](const auto &sym) {
          Json queue = Json::array();
          zek_PriQHandle handle = *static_cast<const zek_PriQHandle *>(sym("filterAgingQ"));
          if (handle != nullptr) {
             for (const auto &[key, elem] : sim::PriQContents(handle)) {
                Json e;
                e["portID"] = elem == nullptr ? 0u : *static_cast<const uint32_t *>(elem);
                e["key"] = key;
                queue.push_back(e);
             }
          }
          return queue;
       }},
      {"taskQueueCount",
       [](const auto &sym) {
          return Json(static_cast<const VigilTaskQueue *>(sym("taskQueue"))->count);
       }},
   };
   return values;
}

/* Every value is read before any goes out: a missing symbol fails the whole
 * command. */
void ReadModuleValues(const std::vector<const ModuleValue *> &wanted,
                      const std::function<const void *(const char *)> &symbol, Json &out) {
   std::vector<Json> values;
   for (const ModuleValue *v : wanted) values.push_back(v->read(symbol));
   for (size_t i = 0; i < wanted.size(); i++) out[wanted[i]->name] = values[i];
}

} // namespace

const void *Session::RequireSymbol(const std::string &name) const {
   if (module_ == nullptr) throw ToolError("no module is loaded");
   const void *p = Symbol(name);
   if (p == nullptr) {
      throw ToolError("the module has no symbol " + name + " (" + modulePath_ + ")");
   }
   return p;
}

/* The module-wide values, or only those named; `module set` writes some of
 * them first. */
void Session::CmdModule(const std::vector<Token> &t, Json &out) {
   if (t.size() > 1 && t[1].text == "set" && !t[1].quoted) {
      CmdModuleSet(t, out);
      return;
   }
   Args args = SplitArgs("module", t, 1, {});
   std::vector<const ModuleValue *> wanted;
   for (const Token &name : args.positional) {
      const ModuleValue *found = nullptr;
      for (const ModuleValue &v : ModuleValues()) {
         if (name.text == v.name) found = &v;
      }
      if (found == nullptr) {
         std::string known;
         for (const ModuleValue &v : ModuleValues()) known += (known.empty() ? "" : ", ") + std::string(v.name);
         throw ToolError("unknown module value '" + name.text + "' (values: " + known + ")");
      }
      wanted.push_back(found);
   }
   if (wanted.empty()) {
      for (const ModuleValue &v : ModuleValues()) wanted.push_back(&v);
   }
   if (module_ == nullptr) throw ToolError("no module is loaded");
   WaitForInspection(out);
   ReadModuleValues(wanted, [this](const char *name) { return RequireSymbol(name); }, out);
}

/* Writes the module-wide variables that no path reaches at run time, then
 * shows every value as `module` does.  Nothing is written unless every
 * option is good and the module has every symbol. */
void Session::CmdModuleSet(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("module set", t, 2, {"saveVersion", "supportedTlvs", "delOnExpiry"});
   args.Expect(0, 0, "module set [saveVersion=N] [supportedTlvs=N] [delOnExpiry=0|1]");
   std::optional<uint32_t> saveVersion, supportedTlvs;
   std::optional<bool> delOnExpiry;
   if (args.Has("saveVersion")) {
      saveVersion = static_cast<uint32_t>(args.Unsigned("saveVersion", 0, UINT32_MAX));
   }
   if (args.Has("supportedTlvs")) {
      supportedTlvs = static_cast<uint32_t>(args.Unsigned("supportedTlvs", 0, UINT32_MAX));
   }
   if (args.Has("delOnExpiry")) delOnExpiry = args.Bool("delOnExpiry", true);
   if (module_ == nullptr) throw ToolError("no module is loaded");
   WaitForInspection(out);
   std::vector<const ModuleValue *> all;
   for (const ModuleValue &v : ModuleValues()) all.push_back(&v);
   auto symbol = [this](const char *name) { return RequireSymbol(name); };
   Json before;
   ReadModuleValues(all, symbol, before);
   if (saveVersion) *static_cast<uint32_t *>(Symbol("saveVersion")) = *saveVersion;
   if (supportedTlvs) *static_cast<uint32_t *>(Symbol("supportedTlvs")) = *supportedTlvs;
   if (delOnExpiry) *static_cast<int64_t *>(Symbol("delOnExpiry")) = *delOnExpiry ? 1 : 0;
   ReadModuleValues(all, symbol, out);
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
   /* Without a module no port has a filter, and there is nothing to call. */
   auto check = module_ == nullptr
                    ? nullptr
                    : reinterpret_cast<CheckFn>(
                          const_cast<void *>(RequireSymbol("VigilCheckFilterTables")));
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

namespace {

/* The most records `api entries` hands the module: a buffer of 32 MiB. */
constexpr uint64_t kMaxApiCapacity = 1u << 20;

/* The port database calls as vigil_exports.h declares them. */
using PortDbNumEntriesFn = zek_Status (*)(zek_PortID, u32, u32 *);
using PortDbEntriesFn = zek_Status (*)(zek_PortID, u32, VigilPortDbEntry *, u32, u32 *);
using PortDbDelEntriesFn = zek_Status (*)(zek_PortID, u32, const u8 *);

template <typename Fn>
Fn FunctionAt(const void *symbol) {
   return reinterpret_cast<Fn>(const_cast<void *>(symbol));
}

/* A port id as the caller gives it: a port the host doesn't know, or one
 * without a filter, is the module's to answer. */
uint32_t ApiPortArg(const Token &token) {
   return static_cast<uint32_t>(ParseUnsigned(token.text, "port id", UINT32_MAX));
}

} // namespace

/* Calls the port database functions of the loaded module, resolved by name
 * as a sibling module resolves them.  The arguments are checked first; the
 * module's status and what it wrote are the answer. */
void Session::CmdApi(const std::vector<Token> &t, Json &out) {
   const std::string usage = "api numEntries PORTID CLASS | api entries PORTID CLASS CAPACITY | "
                             "api delEntries PORTID IP MAC";
   if (t.size() < 2) throw ToolError("usage: " + usage);
   const std::string call = t[1].quoted ? "" : t[1].text;
   if (call == "numEntries") {
      Args args = SplitArgs("api numEntries", t, 2, {});
      args.Expect(2, 2, "api numEntries PORTID CLASS");
      uint32_t port = ApiPortArg(args.positional[0]);
      auto entryClass = static_cast<uint32_t>(
          ParseUnsigned(args.positional[1].text, "class", UINT32_MAX));
      auto numEntries =
          FunctionAt<PortDbNumEntriesFn>(RequireSymbol("Vigil_PortDBGetNumEntries"));
      WaitForInspection(out);
      u32 count = 0;
      zek_Status status = numEntries(port, entryClass, &count);
      out["portID"] = port;
      out["status"] = status;
      out["count"] = count;
   } else if (call == "entries") {
      Args args = SplitArgs("api entries", t, 2, {});
      args.Expect(3, 3, "api entries PORTID CLASS CAPACITY");
      uint32_t port = ApiPortArg(args.positional[0]);
      auto entryClass = static_cast<uint32_t>(
          ParseUnsigned(args.positional[1].text, "class", UINT32_MAX));
      auto capacity = static_cast<uint32_t>(
          ParseUnsigned(args.positional[2].text, "capacity", kMaxApiCapacity));
      auto entries = FunctionAt<PortDbEntriesFn>(RequireSymbol("Vigil_PortDBGetEntries"));
      WaitForInspection(out);
      /* Never a null buffer, even for capacity 0, and cleared: the module
       * writes only the fields it names. */
      std::vector<VigilPortDbEntry> buffer(std::max<uint32_t>(capacity, 1));
      std::memset(buffer.data(), 0, buffer.size() * sizeof(VigilPortDbEntry));
      u32 count = 0;
      zek_Status status = entries(port, entryClass, buffer.data(), capacity, &count);
      out["portID"] = port;
      out["status"] = status;
      out["count"] = count;
      /* A count beyond the capacity shows no more than the buffer holds. */
      Json list = Json::array();
      for (uint32_t i = 0; i < std::min<uint32_t>(count, capacity); i++) {
         list.push_back(PortDbEntryJson(buffer[i], false));
      }
      out["entries"] = list;
   } else if (call == "delEntries") {
      Args args = SplitArgs("api delEntries", t, 2, {});
      args.Expect(3, 3, "api delEntries PORTID IP MAC");
      uint32_t port = ApiPortArg(args.positional[0]);
      uint8_t ipBytes[4];
      if (!TryParseIpv4(args.positional[1].text, ipBytes)) {
         throw ToolError("bad IP '" + args.positional[1].text + "': a dotted IPv4 address");
      }
      uint8_t mac[6];
      ParseMac(args.positional[2].text, mac);
      auto delEntries =
          FunctionAt<PortDbDelEntriesFn>(RequireSymbol("Vigil_PortDBDelEntries"));
      WaitForInspection(out);
      u32 ip; /* network order, as the address lies in a frame */
      std::memcpy(&ip, ipBytes, sizeof ip);
      out["portID"] = port;
      out["status"] = delEntries(port, ip, mac);
   } else {
      throw ToolError("unknown api call '" + t[1].text +
                      "' (calls: numEntries, entries, delEntries)");
   }
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
