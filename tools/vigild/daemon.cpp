#include "daemon.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <optional>

#include "daemon_log.h"
#include "sim_core.h"
#include "sim_switch.h"

namespace vigild {

namespace {

constexpr uint64_t kSignalTag = 4ull << 32;
constexpr uint64_t kKindMask = 0xffffffffull << 32;
constexpr double kPeriodSeconds = 0.25;

std::string Dump(const Json &j) { return j.dump(-1, ' ', false, Json::error_handler_t::replace); }

} // namespace

void BlockSignals() {
   sigset_t set;
   sigemptyset(&set);
   sigaddset(&set, SIGINT);
   sigaddset(&set, SIGTERM);
   sigaddset(&set, SIGHUP);
   pthread_sigmask(SIG_BLOCK, &set, nullptr);
   signal(SIGPIPE, SIG_IGN);
}

Daemon::Daemon(const DaemonOptions &options)
    : options_(options), modulePath_(options.modulePath) {}

Daemon::~Daemon() {
   bridge_.reset();
   control_.Close();
   session_.reset();
   if (signalFd_ >= 0) close(signalFd_);
   if (epollFd_ >= 0) close(epollFd_);
}

bool Daemon::Setup(std::string *error) {
   epollFd_ = epoll_create1(EPOLL_CLOEXEC);
   if (epollFd_ < 0) {
      *error = std::string("epoll: ") + std::strerror(errno);
      return false;
   }
   sigset_t set;
   sigemptyset(&set);
   sigaddset(&set, SIGINT);
   sigaddset(&set, SIGTERM);
   sigaddset(&set, SIGHUP);
   signalFd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
   if (signalFd_ < 0) {
      *error = std::string("signalfd: ") + std::strerror(errno);
      return false;
   }
   struct epoll_event ev;
   std::memset(&ev, 0, sizeof ev);
   ev.events = EPOLLIN;
   ev.data.u64 = kSignalTag;
   epoll_ctl(epollFd_, EPOLL_CTL_ADD, signalFd_, &ev);

   vigilsim::Settings settings;
   settings.modulePath = options_.modulePath;
   settings.verbose = options_.verbose;
   settings.realClock = true;
   settings.keepAtMost = 20000;
   session_ = std::make_unique<vigilsim::Session>(settings);
   bridge_ = std::make_unique<Bridge>(options_.bridge);
   AgentHost host;
   host.run = [this](const std::string &line) { return Execute(line, "agent"); };
   host.ports = [this]() {
      std::vector<PortInfo> ports;
      for (const auto &[id, portset] : session_->Ports()) {
         const Attachment *att = bridge_->Find(id);
         ports.push_back(PortInfo{id, portset, att != nullptr ? att->ifname : ""});
      }
      return ports;
   };
   host.log = [](const std::string &text) { Log(Level::Info, "%s", text.c_str()); };
   agent_ = std::make_unique<Agent>(host, &fleetLink_);
   fleetLink_.SetAgent(agent_.get());
   if (!options_.controlPath.empty() && !control_.Open(options_.controlPath, epollFd_, error)) {
      return false;
   }
   return true;
}

Json Daemon::Execute(const std::string &line, const std::string &where) {
   Json result;
   size_t first = line.find_first_not_of(" \t");
   std::string cmd = first == std::string::npos ? "" : line.substr(first);
   cmd = cmd.substr(0, cmd.find_first_of(" \t\r"));
   result["cmd"] = cmd;
   result["ok"] = true;
   commands_++;
   /* No frame is switched while a command runs: it may change ports,
    * chains or the module itself. */
   SwitchingHold hold(*bridge_);
   try {
      std::vector<vigilsim::Token> tokens = vigilsim::Tokenize(line);
      if (tokens.empty()) throw vigilsim::ToolError("empty command");
      result["cmd"] = vigilsim::Session::CommandName(tokens);
      if (tokens[0].text == "port" && tokens.size() > 1 &&
          (tokens[1].text == "attach" || tokens[1].text == "detach")) {
         result["cmd"] = "port " + tokens[1].text;
      }
      if (!DaemonCommand(tokens, result)) session_->Execute(tokens, result);
   } catch (const std::exception &e) {
      bool tool = dynamic_cast<const vigilsim::ToolError *>(&e) != nullptr;
      Json failure;
      failure["cmd"] = result["cmd"];
      failure["ok"] = false;
      failure["error"] = where + ": " + (tool ? "" : "internal error: ") + e.what();
      result = failure;
   }
   return result;
}

bool Daemon::DaemonCommand(const std::vector<vigilsim::Token> &t, Json &out) {
   const std::string &word = t[0].text;
   std::string sub = t.size() > 1 ? t[1].text : "";
   if (word == "port" && sub == "attach") {
      CmdAttach(t, out);
      return true;
   }
   if (word == "port" && sub == "detach") {
      CmdDetach(t, out);
      return true;
   }
   if (word == "port" && sub == "remove" && t.size() == 3) {
      /* The port leaves its interface before it goes. */
      uint64_t port = vigilsim::ParseUnsigned(t[2].text, "port id", UINT32_MAX);
      bridge_->Detach(static_cast<uint32_t>(port));
      return false;
   }
   if (word == "portset" && sub == "remove" && t.size() == 3) {
      for (uint32_t port : bridge_->AttachedPorts()) {
         const Attachment *att = bridge_->Find(port);
         if (att != nullptr && att->portset == t[2].text) bridge_->Detach(port);
      }
      return false;
   }
   if (word == "switch") {
      CmdSwitch(t, out);
      return true;
   }
   if (word == "upgrade") {
      CmdUpgrade(t, out);
      return true;
   }
   if (word == "messages") {
      CmdMessages(t, out);
      return true;
   }
   if (word == "events") {
      CmdEvents(t, out);
      return true;
   }
   if (word == "uptime") {
      if (t.size() != 1) throw vigilsim::ToolError("usage: uptime");
      double now = sim::Now();
      out["uptime"] = static_cast<int64_t>(std::floor(now));
      out["time"] = now;
      return true;
   }
   if (word == "apply" || word == "policy" || word == "conflicts" || word == "agent") {
      std::vector<std::string> words;
      for (const vigilsim::Token &token : t) words.push_back(token.text);
      bool known = AgentCommand(*agent_, words, out, SteadySeconds());
      fleetLink_.Configure(agent_->Fleet());
      if (word == "agent") {
         nlohmann::json fleet = fleetLink_.Status();
         if (!fleet.is_null()) out["fleet"] = fleet;
      }
      return known;
   }
   if (word == "fleet") {
      CmdFleet(t, out);
      return true;
   }
   if (word == "stop") {
      if (t.size() != 1) throw vigilsim::ToolError("usage: stop");
      stopping_ = true;
      Log(Level::Info, "stop asked on the control socket");
      return true;
   }
   return false;
}

void Daemon::CmdAttach(const std::vector<vigilsim::Token> &t, Json &out) {
   vigilsim::Args args = vigilsim::SplitArgs("port attach", t, 2, {"vlan"});
   args.Expect(2, 2, "port attach PORTID IFNAME [vlan=N]");
   uint32_t port = static_cast<uint32_t>(
       vigilsim::ParseUnsigned(args.positional[0].text, "port id", UINT32_MAX));
   auto it = session_->Ports().find(port);
   if (it == session_->Ports().end() || !sim::PortExists(port)) {
      throw vigilsim::ToolError("unknown port " + vigilsim::HexNumber(port));
   }
   std::string ifname = args.positional[1].text;
   if (ifname.empty() || ifname.size() > 15 || ifname.find('/') != std::string::npos) {
      throw vigilsim::ToolError("bad interface name '" + ifname + "'");
   }
   int vlan = -1;
   if (args.Has("vlan")) vlan = static_cast<int>(args.Unsigned("vlan", 0, 4094));
   std::string error;
   if (!bridge_->Attach(port, it->second, ifname, vlan, &error)) throw vigilsim::ToolError(error);
   const Attachment *att = bridge_->Find(port);
   out["portID"] = port;
   out["portset"] = it->second;
   out["ifname"] = ifname;
   out["vlan"] = vlan < 0 ? Json(nullptr) : Json(vlan);
   out["up"] = att->up;
   if (!att->up) out["downReason"] = att->downReason;
}

void Daemon::CmdDetach(const std::vector<vigilsim::Token> &t, Json &out) {
   vigilsim::Args args = vigilsim::SplitArgs("port detach", t, 2, {});
   args.Expect(1, 1, "port detach PORTID");
   uint32_t port = static_cast<uint32_t>(
       vigilsim::ParseUnsigned(args.positional[0].text, "port id", UINT32_MAX));
   const Attachment *att = bridge_->Find(port);
   if (att == nullptr) throw vigilsim::ToolError("port " + vigilsim::HexNumber(port) + " is not attached");
   out["portID"] = port;
   out["ifname"] = att->ifname;
   bridge_->Detach(port);
}

void Daemon::CmdSwitch(const std::vector<vigilsim::Token> &t, Json &out) {
   vigilsim::Args args = vigilsim::SplitArgs("switch", t, 1, {"ageing", "budget"});
   args.Expect(0, 0, "switch [ageing=SECONDS] [budget=BATCHES]");
   BridgeOptions &opts = bridge_->Options();
   if (args.Has("ageing")) {
      opts.ageingSeconds = vigilsim::ParseSeconds(*args.Get("ageing"), "ageing=");
   }
   if (args.Has("budget")) {
      opts.budget = args.Unsigned("budget", 4, 1024);
      if (opts.budget == 0) throw vigilsim::ToolError("budget= must be at least 1");
   }
   out["ageing"] = opts.ageingSeconds;
   out["budget"] = opts.budget;
   out["batch"] = PacketSocket::kBatch;
   out["threads"] = opts.threads;
   out["txRing"] = opts.txRing;
   out["ports"] = bridge_->Describe();
   /* Every frame lost on the way: in the kernel before vigild could take
    * it, and by vigild itself. */
   uint64_t socketDrops = 0, switchDrops = 0;
   for (const Json &port : out["ports"]) {
      socketDrops += port["rxSocketDrops"].get<uint64_t>();
      switchDrops += port["switchDrops"].get<uint64_t>();
   }
   out["socketDrops"] = socketDrops;
   out["switchDrops"] = switchDrops;
   out["fdb"] = bridge_->FdbJson();
   out["fdbLimit"] = opts.fdbLimit;
   out["fdbFull"] = bridge_->FdbFull();
   out["clients"] = control_.Clients();
   out["commands"] = commands_;
   out["module"] = modulePath_;
   out["upgrades"] = upgrades_;
}

namespace {

/* Whether the port has chains in both directions: the filter is in its
 * data path. */
bool Filtered(uint32_t port) {
   bool input = false, output = false;
   for (const sim::ChainInfo &chain : sim::PortChains(port)) {
      if (chain.direction == ZEK_IOCHAIN_INPUT) input = true;
      if (chain.direction == ZEK_IOCHAIN_OUTPUT) output = true;
   }
   return input && output;
}

} // namespace

void Daemon::CmdUpgrade(const std::vector<vigilsim::Token> &t, Json &out) {
   /* The session checks the command in full; the path is needed here. */
   vigilsim::Args args = vigilsim::SplitArgs("upgrade", t, 1, {"module"});
   std::string path = args.Get("module").value_or(modulePath_);
   /* Nothing switches while the session runs the upgrade (switching is
    * held around every command): the frames that arrive meanwhile wait in
    * the ports' receive rings, or are lost when a ring fills.  Its counters are read just before and
    * just after. */
   bridge_->CollectSocketStats();
   std::map<uint32_t, bool> filteredBefore;
   for (uint32_t port : bridge_->AttachedPorts()) filteredBefore[port] = Filtered(port);
   double start = SteadySeconds();
   session_->Execute(t, out);
   double heldMs = (SteadySeconds() - start) * 1000.0;
   std::map<uint32_t, SocketCounts> during = bridge_->CollectSocketStats();

   /* The module that runs now: the new copy once the old one is gone. */
   bool replaced = out.contains("initResult") && out["initResult"].is_number_integer() &&
                   out["initResult"].get<int64_t>() == 0;
   if (replaced) {
      modulePath_ = path;
      upgrades_++;
   }
   Json sw;
   uint64_t waited = 0, lost = 0;
   Json ports = Json::array();
   Json unfiltered = Json::array();
   for (const auto &entry : filteredBefore) {
      uint32_t port = entry.first;
      const Attachment *att = bridge_->Find(port);
      if (att == nullptr) continue;
      SocketCounts c;
      auto it = during.find(port);
      if (it != during.end()) c = it->second;
      bool filtered = Filtered(port);
      if (entry.second && !filtered) unfiltered.push_back(port);
      waited += c.arrived - c.dropped;
      lost += c.dropped;
      Json j;
      j["portID"] = port;
      j["ifname"] = att->ifname;
      j["framesWaited"] = c.arrived - c.dropped;
      j["framesLost"] = c.dropped;
      j["filtered"] = filtered;
      ports.push_back(j);
   }
   sw["heldMs"] = heldMs;
   sw["framesWaited"] = waited;
   sw["framesLost"] = lost;
   sw["unfiltered"] = unfiltered;
   sw["ports"] = ports;
   sw["module"] = modulePath_;
   out["switch"] = sw;
   Log(replaced ? Level::Info : Level::Warn,
       "upgrade: %s, status %#llx; switching held %.1f ms, %llu frames waited in the sockets, "
       "%llu lost",
       replaced ? ("the module runs from " + modulePath_).c_str()
                : "the old copy stays",
       static_cast<unsigned long long>(out.value("status", 0ull)), heldMs,
       static_cast<unsigned long long>(waited), static_cast<unsigned long long>(lost));
   for (const Json &port : unfiltered) {
      Log(Level::Warn,
          "upgrade: port %#x had the filter in its data path and has it no more; its frames "
          "pass unfiltered",
          port.get<uint32_t>());
   }
}

void Daemon::PullMessages(Json &out) {
   /* The session's messages command waits for idle worlds and hands over
    * what the host delivered since it last ran. */
   Json taken;
   taken["cmd"] = "messages";
   taken["ok"] = true;
   session_->Execute(vigilsim::Tokenize("messages"), taken);
   if (taken.value("busy", false)) out["busy"] = true;
   if (taken.contains("lost") && taken["lost"].is_number_unsigned()) {
      lastSeq_ += taken["lost"].get<uint64_t>();
   }
   for (Json &m : taken["messages"]) {
      agent_->OnMessage(m);
      m["seq"] = ++lastSeq_;
      journal_.push_back(std::move(m));
   }
   while (journal_.size() > kJournalSize) journal_.pop_front();
}

uint64_t Daemon::LostAfter(uint64_t after) const {
   if (after >= lastSeq_) return 0;
   uint64_t kept = 0;
   for (auto it = journal_.rbegin(); it != journal_.rend(); ++it) {
      if ((*it)["seq"].get<uint64_t>() <= after) break;
      kept++;
   }
   return lastSeq_ - after - kept;
}

void Daemon::CmdMessages(const std::vector<vigilsim::Token> &t, Json &out) {
   if (t.size() != 1) throw vigilsim::ToolError("usage: messages");
   PullMessages(out);
   Json list = Json::array();
   for (const Json &m : journal_) {
      if (m["seq"].get<uint64_t>() <= messagesRead_) continue;
      Json copy = m;
      copy.erase("seq");
      list.push_back(std::move(copy));
   }
   uint64_t lost = LostAfter(messagesRead_);
   messagesRead_ = lastSeq_;
   out["messages"] = list;
   if (lost != 0) out["lost"] = lost;
}

void Daemon::CmdEvents(const std::vector<vigilsim::Token> &t, Json &out) {
   vigilsim::Args args = vigilsim::SplitArgs("events", t, 1, {"after", "max"});
   args.Expect(0, 0, "events [after=SEQ] [max=N]");
   uint64_t after = args.Unsigned("after", 0);
   uint64_t max = args.Unsigned("max", kEventsPerAnswer, kEventsPerAnswer);
   PullMessages(out);
   /* A reader ahead of the journal (of a vigild that has restarted)
    * starts again from its beginning. */
   if (after > lastSeq_) after = 0;
   Json list = Json::array();
   uint64_t next = after;
   for (const Json &m : journal_) {
      uint64_t seq = m["seq"].get<uint64_t>();
      if (seq <= after) continue;
      if (list.size() >= max) break;
      list.push_back(m);
      next = seq;
   }
   /* Nothing left to give: the reader is at the newest message. */
   if (list.size() < max) next = lastSeq_;
   out["events"] = list;
   out["next"] = next;
   out["last"] = lastSeq_;
   if (args.Has("after")) {
      uint64_t lost = LostAfter(after);
      if (lost != 0) out["lost"] = lost;
   }
}

bool Daemon::RunScript(const std::string &path) {
   std::ifstream in(path);
   if (!in) {
      Log(Level::Error, "cannot read script %s", path.c_str());
      return false;
   }
   bool allOk = true;
   std::string line;
   for (size_t lineNo = 1; std::getline(in, line); lineNo++) {
      if (vigilsim::IsBlankOrComment(line)) continue;
      Json result = Execute(line, path + ":" + std::to_string(lineNo));
      std::string text = Dump(result);
      std::fputs((text + "\n").c_str(), stdout);
      std::fflush(stdout);
      if (!result["ok"].get<bool>()) {
         allOk = false;
         Log(Level::Error, "%s", result["error"].get<std::string>().c_str());
         if (options_.stopOnError) return false;
      }
      if (stopping_) break;
   }
   return allOk || !options_.stopOnError;
}

void Daemon::Periodic() {
   double now = SteadySeconds();
   if (now - lastPeriodic_ < kPeriodSeconds) return;
   lastPeriodic_ = now;
   SwitchingHold hold(*bridge_);
   bridge_->Tick();
   session_->Collect();
   if (agent_->HasPolicy()) {
      fleetLink_.Configure(agent_->Fleet());
      Json taken;
      PullMessages(taken);
      agent_->Tick(now);
   }
}

void Daemon::CmdFleet(const std::vector<vigilsim::Token> &t, Json &out) {
   if (t.size() < 2 || t[1].text != "bindings" || t.size() > 3)
      throw vigilsim::ToolError("usage: fleet bindings [vlan=N]");
   std::optional<uint32_t> vlan;
   if (t.size() == 3) {
      const std::string &arg = t[2].text;
      if (arg.rfind("vlan=", 0) != 0) throw vigilsim::ToolError("usage: fleet bindings [vlan=N]");
      char *end = nullptr;
      unsigned long v = std::strtoul(arg.c_str() + 5, &end, 0);
      if (arg.size() == 5 || *end != '\0' || v > 4095)
         throw vigilsim::ToolError("fleet bindings: vlan must be 0 to 4095: " + arg.substr(5));
      vlan = static_cast<uint32_t>(v);
   }
   Json rows;
   if (!fleetLink_.Bindings(vlan, &rows)) throw vigilsim::ToolError("fleet: no [fleet] in the policy");
   out["bindings"] = rows;
}

bool Daemon::StartAgent() {
   if (!options_.policyPath.empty()) {
      std::string error;
      if (!ApplyPolicyFile(*agent_, options_.policyPath, SteadySeconds(), nullptr, &error)) {
         Log(Level::Error, "policy refused, nothing applied: %s", error.c_str());
         return false;
      }
      Log(Level::Info, "policy %s applied", options_.policyPath.c_str());
   }
   fleetLink_.Configure(agent_->Fleet());
   agent_->RestoreState(options_.stateDir);
   agent_->Tick(SteadySeconds());
   return true;
}

void Daemon::ReloadPolicy() {
   std::string path = agent_->PolicyFile();
   if (path.empty()) {
      Log(Level::Info, "signal Hangup: no policy to reload; going on");
      return;
   }
   std::vector<uint32_t> changed;
   std::string error;
   if (!ApplyPolicyFile(*agent_, path, SteadySeconds(), &changed, &error)) {
      Log(Level::Error, "policy refused, the previous one stays: %s", error.c_str());
      return;
   }
   Log(Level::Info, "policy %s reloaded: %zu ports changed", path.c_str(), changed.size());
}

void Daemon::Loop() {
   ControlServer::Handler handler = [this](const std::string &line) {
      return Dump(Execute(line, "control"));
   };
   struct epoll_event events[64];
   while (!stopping_) {
      int timeout = control_.HasBacklog() ? 0 : static_cast<int>(kPeriodSeconds * 1000);
      int n = epoll_wait(epollFd_, events, 64, timeout);
      if (n < 0) {
         if (errno == EINTR) continue;
         Log(Level::Error, "epoll_wait: %s", std::strerror(errno));
         break;
      }
      for (int i = 0; i < n; i++) {
         uint64_t tag = events[i].data.u64;
         uint64_t kind = tag & kKindMask;
         uint32_t id = static_cast<uint32_t>(tag & 0xffffffffu);
         if (kind == ControlServer::kListenTag) {
            control_.OnListen();
         } else if (kind == ControlServer::kClientKind) {
            control_.OnClient(id, events[i].events, handler);
         } else if (kind == kSignalTag) {
            struct signalfd_siginfo info;
            while (read(signalFd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
               int signo = static_cast<int>(info.ssi_signo);
               if (signo == SIGHUP) {
                  ReloadPolicy();
                  continue;
               }
               Log(Level::Info, "signal %s: stopping", strsignal(signo));
               stopping_ = true;
            }
         }
         if (stopping_) break;
      }
      if (!stopping_ && control_.HasBacklog()) control_.RunBacklog(handler);
      Periodic();
   }
}

void Daemon::Shutdown() {
   /* The fleet first: its keys stay until the lease runs out, so that this
    * host takes them over again when it comes back. */
   fleetLink_.Stop();
   std::vector<uint32_t> ports = bridge_->AttachedPorts();
   bridge_->DetachAll();
   control_.Close();
   if (session_->ModuleLoaded()) agent_->SaveState(options_.stateDir);
   if (session_->ModuleLoaded()) {
      Json report = Execute("unload", "stop");
      if (report["ok"].get<bool>()) {
         uint64_t leaks = report["leaks"].get<uint64_t>();
         uint64_t frames = report["framesLive"].get<uint64_t>();
         Log(leaks == 0 && frames == 0 ? Level::Info : Level::Warn,
             "module unloaded: leaks=%llu leakBytes=%llu framesLive=%llu heapsLive=%llu "
             "callbacksLeft=%llu",
             static_cast<unsigned long long>(leaks),
             static_cast<unsigned long long>(report["leakBytes"].get<uint64_t>()),
             static_cast<unsigned long long>(frames),
             static_cast<unsigned long long>(report["heapsLive"].get<uint64_t>()),
             static_cast<unsigned long long>(report["callbacksLeft"].get<uint64_t>()));
      } else {
         Log(Level::Error, "unload failed: %s", report["error"].get<std::string>().c_str());
      }
   } else {
      Log(Level::Info, "no module was loaded");
   }
   Log(Level::Info, "stopped (%zu ports detached)", ports.size());
}

int Daemon::Run() {
   std::string error;
   if (!Setup(&error)) {
      Log(Level::Error, "%s", error.c_str());
      return 1;
   }
   Log(Level::Info, "started (module %s%s%s)", options_.modulePath.c_str(),
       options_.controlPath.empty() ? "" : ", control socket ", options_.controlPath.c_str());
   int status = 0;
   for (const std::string &script : options_.scripts) {
      if (!RunScript(script)) {
         Log(Level::Error, "start-up script %s failed; stopping", script.c_str());
         status = 1;
         stopping_ = true;
         break;
      }
      if (stopping_) break;
   }
   if (!stopping_ && !session_->ModuleLoaded() && !options_.noLoad) {
      /* The scripts did not load the module: the daemon does. */
      Json result = Execute("load", "start-up");
      if (!result["ok"].get<bool>()) {
         Log(Level::Error, "%s", result["error"].get<std::string>().c_str());
         status = 1;
         stopping_ = true;
      } else {
         Log(Level::Info, "module loaded: status %d", result["status"].get<int>());
      }
   }
   if (!stopping_ && session_->ModuleLoaded() && !StartAgent()) {
      status = 1;
      stopping_ = true;
   }
   if (!stopping_) {
      Log(Level::Info, "switching: %zu ports attached", bridge_->AttachedPorts().size());
      Loop();
   }
   Shutdown();
   return status;
}

} // namespace vigild
