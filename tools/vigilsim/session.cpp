#include "session.h"

#include <unistd.h>

#include <cstdio>

#include "sim_core.h"
#include "sim_frames.h"
#include "sim_switch.h"
#include "vigil_filter.h"

namespace vigilsim {

namespace {

void FailureHook(const std::string &what) {
   std::fprintf(stderr, "vigilsim: simulated host: %s\n", what.c_str());
}

} // namespace

void InstallFailureHook() { sim::SetFailureHook(FailureHook); }

Session::Session(const Settings &settings) : settings_(settings) {
   sim::Reset();
   InstallFailureHook();
   sim::EchoLogs(settings_.verbose);
   if (settings_.realClock) {
      sim::UseVirtualClock(false);
      virtualClock_ = false;
   }
}

Session::~Session() {
   if (module_ != nullptr) {
      sim::UnloadModule(module_);
      module_ = nullptr;
   }
}

const std::map<std::string, Session::Handler> &Session::Handlers() {
   static const std::map<std::string, Handler> handlers = {
      {"echo", &Session::CmdEcho},
      {"clock", &Session::CmdClock},
      {"advance", &Session::CmdAdvance},
      {"idle", &Session::CmdIdle},
      {"host", &Session::CmdHost},
      {"load", &Session::CmdLoad},
      {"unload", &Session::CmdUnload},
      {"portset", &Session::CmdPortset},
      {"port", &Session::CmdPort},
      {"prop", &Session::CmdProp},
      {"security", &Session::CmdSecurity},
      {"discovery", &Session::CmdDiscovery},
      {"discovery6", &Session::CmdDiscovery6},
      {"ignorelist", &Session::CmdIgnoreList},
      {"tx", &Session::CmdTx},
      {"rx", &Session::CmdRx},
      {"replay", &Session::CmdReplay},
      {"trace", &Session::CmdTrace},
      {"frame", &Session::CmdFrame},
      {"state", &Session::CmdState},
      {"bindings", &Session::CmdBindings},
      {"stats", &Session::CmdStats},
      {"module", &Session::CmdModule},
      {"messages", &Session::CmdMessages},
      {"logs", &Session::CmdLogs},
      {"loglevel", &Session::CmdLogLevel},
      {"observations", &Session::CmdObservations},
      {"flowcache", &Session::CmdFlowCache},
      {"glx", &Session::CmdGlx},
      {"check", &Session::CmdCheck},
      {"heap", &Session::CmdHeap},
      {"fault", &Session::CmdFault},
      {"api", &Session::CmdApi},
      {"mgmt", &Session::CmdMgmt},
      {"migrate", &Session::CmdMigrate},
      {"save", &Session::CmdSave},
      {"restore", &Session::CmdRestore},
      {"rtm", &Session::CmdRtm},
      {"upgrade", &Session::CmdUpgrade},
   };
   return handlers;
}

std::string Session::CommandName(const std::vector<Token> &tokens) {
   if (tokens.empty()) return "";
   if (tokens[0].text == "prop" && tokens.size() > 1 &&
       (tokens[1].text == "write" || tokens[1].text == "cleanup")) {
      return "prop " + tokens[1].text;
   }
   if (tokens[0].text == "module" && tokens.size() > 1 && tokens[1].text == "set" &&
       !tokens[1].quoted) {
      return "module set";
   }
   return tokens[0].text;
}

void Session::Execute(const std::vector<Token> &tokens, Json &out) {
   if (tokens.empty()) return;
   const auto &handlers = Handlers();
   auto it = handlers.find(tokens[0].text);
   if (it == handlers.end()) {
      throw ToolError("unknown command '" + tokens[0].text + "'");
   }
   (this->*(it->second))(tokens, out);
}

namespace {

template <typename T>
void Keep(std::deque<T> &into, std::vector<T> &&more, size_t keepAtMost, uint64_t *lost) {
   for (T &item : more) into.push_back(std::move(item));
   while (keepAtMost != 0 && into.size() > keepAtMost) {
      into.pop_front();
      (*lost)++;
   }
}

} // namespace

void Session::Collect() {
   Keep(logs_, sim::TakeLogs(), settings_.keepAtMost, &logsLost_);
   Keep(messages_, sim::TakePortsetMessages(), settings_.keepAtMost, &messagesLost_);
   Keep(observations_, sim::TakeObservations(), settings_.keepAtMost, &observationsLost_);
}

uint32_t Session::PortArg(const Token &token) const {
   uint32_t port = static_cast<uint32_t>(ParseUnsigned(token.text, "port id", UINT32_MAX));
   if (!sim::PortExists(port)) throw ToolError("unknown port " + HexNumber(port));
   return port;
}

VigilFilter *Session::FilterOf(uint32_t port) const {
   return static_cast<VigilFilter *>(sim::PortData(port, VIGIL_FILTER_SLOT));
}

void *Session::Symbol(const std::string &name) const {
   return module_ == nullptr ? nullptr : sim::ModuleSymbol(module_, name);
}

void Session::RequireNoModule(const std::string &what) const {
   if (module_ != nullptr) throw ToolError(what + " must come before load");
}

void Session::ForgetPortset(const std::string &name) {
   for (auto it = ports_.begin(); it != ports_.end();) {
      it = it->second == name ? ports_.erase(it) : std::next(it);
   }
   for (auto it = portsets_.begin(); it != portsets_.end(); ++it) {
      if (*it == name) {
         portsets_.erase(it);
         break;
      }
   }
}

/* The vigil.so beside the executable, else the one of the same build. */
std::string DefaultModulePath() {
   char exe[4096];
   ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
   if (n > 0) {
      std::string dir(exe, static_cast<size_t>(n));
      dir = dir.substr(0, dir.rfind('/') + 1);
      if (access((dir + "vigil.so").c_str(), R_OK) == 0) return dir + "vigil.so";
   }
#ifdef VIGIL_DEFAULT_MODULE
   return VIGIL_DEFAULT_MODULE;
#else
   return "vigil.so";
#endif
}

} // namespace vigilsim
