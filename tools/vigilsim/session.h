/*
 * One run of vigilsim: the simulated host, the module loaded into it, the
 * portsets and ports made by the scripts, and the commands that act on them.
 * Each command answers one JSON object; a command that cannot be carried out
 * throws ToolError.
 */
#ifndef VIGILSIM_SESSION_H
#define VIGILSIM_SESSION_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "script.h"
#include "state.h"

namespace sim {
struct LoadedModule;
}
struct VigilFilter;

namespace vigilsim {

/* Where the module is loaded from when no --module is given. */
std::string DefaultModulePath();

struct Settings {
   std::string modulePath;
   bool verbose = false;
   /* Start on the real clock instead of the virtual one. */
   bool realClock = false;
   /* Most log lines, portset messages and observations kept between two
    * reads of them; the oldest go first.  0: no limit. */
   size_t keepAtMost = 0;
};

/* What carries a port's saved state for migrate, save and restore
 * (commands_host.cpp). */
struct StateCarrier;

/* Options of the frames that tx, rx and replay send. */
struct FrameSettings {
   uint16_t vlan = 0;
   int32_t mapped = -1;
   std::vector<uint32_t> sg;
   bool trace = false;
   size_t batch = 0; /* 0: all frames in one batch */
};

class Session {
 public:
   explicit Session(const Settings &settings);
   ~Session();
   Session(const Session &) = delete;
   Session &operator=(const Session &) = delete;

   /* The "cmd" of a line: the command word, or both words for prop. */
   static std::string CommandName(const std::vector<Token> &tokens);
   /* Runs one command line into `out`, which already holds cmd and ok.
    * Throws ToolError when the command cannot be carried out. */
   void Execute(const std::vector<Token> &tokens, Json &out);

   /* Moves what the host captured (log lines, portset messages,
    * observations) into the session's own buffers, within keepAtMost.  A
    * long-running host calls it now and then. */
   void Collect();

   bool ModuleLoaded() const { return module_ != nullptr; }
   /* The ports made by commands: port id -> portset. */
   const std::map<uint32_t, std::string> &Ports() const { return ports_; }
   const std::vector<std::string> &Portsets() const { return portsets_; }

 private:
   using Handler = void (Session::*)(const std::vector<Token> &, Json &);
   static const std::map<std::string, Handler> &Handlers();

   /* time, host and module (commands_host.cpp) */
   void CmdEcho(const std::vector<Token> &t, Json &out);
   void CmdClock(const std::vector<Token> &t, Json &out);
   void CmdAdvance(const std::vector<Token> &t, Json &out);
   void CmdIdle(const std::vector<Token> &t, Json &out);
   void CmdHost(const std::vector<Token> &t, Json &out);
   void CmdLoad(const std::vector<Token> &t, Json &out);
   void CmdUnload(const std::vector<Token> &t, Json &out);
   void CmdPortset(const std::vector<Token> &t, Json &out);
   void CmdPort(const std::vector<Token> &t, Json &out);
   void CmdProp(const std::vector<Token> &t, Json &out);
   void CmdSecurity(const std::vector<Token> &t, Json &out);
   void CmdDiscovery(const std::vector<Token> &t, Json &out);
   void CmdDiscovery6(const std::vector<Token> &t, Json &out);
   void CmdIgnoreList(const std::vector<Token> &t, Json &out);
   void CmdFault(const std::vector<Token> &t, Json &out);

   /* a port's saved state and the live upgrade (commands_host.cpp) */
   void CmdMigrate(const std::vector<Token> &t, Json &out);
   void CmdSave(const std::vector<Token> &t, Json &out);
   void CmdRestore(const std::vector<Token> &t, Json &out);
   void CmdRtm(const std::vector<Token> &t, Json &out);
   void CmdUpgrade(const std::vector<Token> &t, Json &out);
   /* The carrier named by carrier= (default transit) for these ports:
    * throws ToolError when it can't carry them (no module, no Transit
    * client on a port's portset, no RTM client of the loaded module). */
   StateCarrier CarrierArg(const Args &args, const std::vector<uint32_t> &ports) const;

   /* frames (commands_frames.cpp) */
   void CmdTx(const std::vector<Token> &t, Json &out);
   void CmdRx(const std::vector<Token> &t, Json &out);
   void CmdReplay(const std::vector<Token> &t, Json &out);
   void CmdTrace(const std::vector<Token> &t, Json &out);
   void CmdFrame(const std::vector<Token> &t, Json &out);
   /* FRAME: BYTES or a frame spec KIND:key=value,...  With --verbose, the
    * bytes of a spec go to standard error. */
   std::vector<uint8_t> FrameArg(const Token &token) const;
   void SendFrames(const std::vector<Token> &t, Json &out, bool tx);
   /* Runs frames through the port's chains in batches; verdicts in order. */
   std::vector<std::string> RunBatch(uint32_t port,
                                     const std::vector<std::vector<uint8_t>> &frames,
                                     const FrameSettings &settings, bool tx,
                                     uint32_t *status);

   /* inspection (commands_inspect.cpp) */
   void CmdState(const std::vector<Token> &t, Json &out);
   void CmdBindings(const std::vector<Token> &t, Json &out);
   void CmdStats(const std::vector<Token> &t, Json &out);
   void CmdModule(const std::vector<Token> &t, Json &out);
   void CmdModuleSet(const std::vector<Token> &t, Json &out);
   void CmdMessages(const std::vector<Token> &t, Json &out);
   void CmdLogs(const std::vector<Token> &t, Json &out);
   void CmdLogLevel(const std::vector<Token> &t, Json &out);
   void CmdObservations(const std::vector<Token> &t, Json &out);
   void CmdFlowCache(const std::vector<Token> &t, Json &out);
   void CmdGlx(const std::vector<Token> &t, Json &out);
   void CmdCheck(const std::vector<Token> &t, Json &out);
   void CmdHeap(const std::vector<Token> &t, Json &out);
   /* The port database calls that sibling modules make by name. */
   void CmdApi(const std::vector<Token> &t, Json &out);
   /* A callback of the module's management interface (commands_mgmt.cpp). */
   void CmdMgmt(const std::vector<Token> &t, Json &out);
   /* Waits up to 2 s for idle worlds; adds "busy": true when they are not. */
   void WaitForInspection(Json &out);

   /* helpers */
   uint32_t PortArg(const Token &token) const; /* a known port */
   VigilFilter *FilterOf(uint32_t port) const;
   void *Symbol(const std::string &name) const;
   /* A symbol of the loaded module that a command cannot do without:
    * throws ToolError naming it when the module lacks it. */
   const void *RequireSymbol(const std::string &name) const;
   void RequireNoModule(const std::string &what) const;
   void WriteBlob(uint32_t port, const std::string &prop,
                  const std::vector<uint8_t> &blob, Json &out);
   void ForgetPortset(const std::string &name);

   Settings settings_;
   sim::LoadedModule *module_ = nullptr;
   /* The file of the loaded module: settings_.modulePath, or the copy that
    * an upgrade put in its place. */
   std::string modulePath_;
   /* The files that `save` wrote, with the time of the save, from which a
    * restore of such a file counts the time the move took. */
   std::map<std::string, double> savedAt_;
   bool virtualClock_ = true;
   /* The allocations the host had counted at `fault count on`. */
   uint64_t allocsCountedFrom_ = 0;
   std::vector<std::string> portsets_;           /* in creation order */
   std::map<uint32_t, std::string> ports_;       /* port id -> portset */
   uint64_t throttledSeen_ = 0;
   /* Captured and not yet read, and how many of each were let go. */
   std::deque<sim::LogLine> logs_;
   std::deque<sim::PortsetMessage> messages_;
   std::deque<sim::Observation> observations_;
   uint64_t logsLost_ = 0, messagesLost_ = 0, observationsLost_ = 0;
};

/* Reports the defects that the simulated host detects (a lock-rank
 * violation, a panic, a double release) on standard error. */
void InstallFailureHook();

} // namespace vigilsim

#endif /* VIGILSIM_SESSION_H */
