/*
 * vigild: the simulated host on the real clock with vigil.so loaded, its
 * ports attached to Linux interfaces and switched by a learning bridge.  The
 * bridge's switching threads move the frames; this thread runs the control
 * socket, the signals and the periodic work over one epoll set, and holds
 * switching while it runs any of them.
 */
#ifndef VIGILD_DAEMON_H
#define VIGILD_DAEMON_H

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "agent.h"
#include "bridge.h"
#include "control.h"
#include "fleet_link.h"
#include "session.h"

namespace vigild {

struct DaemonOptions {
   std::string modulePath;
   std::vector<std::string> scripts;
   std::string controlPath;
   bool verbose = false;
   bool stopOnError = false;
   /* Leave the module out when the start-up scripts did not load it. */
   bool noLoad = false;
   BridgeOptions bridge;
   /* The policy read at start and on SIGHUP ("" for none), and where the
    * agent keeps the bindings across a restart. */
   std::string policyPath;
   std::string stateDir = "/var/lib/vigild";
};

class Daemon {
 public:
   explicit Daemon(const DaemonOptions &options);
   ~Daemon();
   Daemon(const Daemon &) = delete;
   Daemon &operator=(const Daemon &) = delete;

   /* Sets up, runs the start-up scripts, switches until SIGINT, SIGTERM or
    * the stop command, then stops cleanly.  The exit status. */
   int Run();

   /* One command line; its answer.  `where` names the line in errors. */
   Json Execute(const std::string &line, const std::string &where);

 private:
   bool Setup(std::string *error);
   bool RunScript(const std::string &path);
   void Loop();
   void Shutdown();
   void Periodic();

   /* Commands of the daemon itself, and the session's commands that touch
    * attached ports.  False when the session is to run the command. */
   bool DaemonCommand(const std::vector<vigilsim::Token> &tokens, Json &out);
   void CmdAttach(const std::vector<vigilsim::Token> &tokens, Json &out);
   void CmdDetach(const std::vector<vigilsim::Token> &tokens, Json &out);
   void CmdSwitch(const std::vector<vigilsim::Token> &tokens, Json &out);
   /* The session's live upgrade, with what it did to the switching: how
    * long it was held, the frames that waited in the sockets meanwhile and
    * those lost, and the attached ports whose chains did not come back. */
   /* `fleet bindings [vlan=N]`: the fleet's bindings as last read from
    * etcd. */
   void CmdFleet(const std::vector<vigilsim::Token> &tokens, Json &out);
   void CmdUpgrade(const std::vector<vigilsim::Token> &tokens, Json &out);
   /* The portset messages pass through a journal of vigild's own, each
    * with a sequence number: `messages` reads it from a cursor of its own
    * (what it gave is gone for it, as in vigilsim), `events after=N` reads
    * it from the reader's cursor and consumes nothing, so any number of
    * watchers and `messages` see every message. */
   void PullMessages(Json &out);
   void CmdMessages(const std::vector<vigilsim::Token> &tokens, Json &out);
   void CmdEvents(const std::vector<vigilsim::Token> &tokens, Json &out);
   /* Messages with a sequence number above `after` that are no longer
    * kept. */
   uint64_t LostAfter(uint64_t after) const;

   DaemonOptions options_;
   std::unique_ptr<vigilsim::Session> session_;
   int epollFd_ = -1;
   int signalFd_ = -1;
   std::unique_ptr<Bridge> bridge_;
   ControlServer control_;
   bool stopping_ = false;
   double lastPeriodic_ = 0;
   uint64_t commands_ = 0;
   /* The file of the module running now, and how many live upgrades
    * replaced it. */
   std::string modulePath_;
   uint64_t upgrades_ = 0;
   /* The journal: the newest kJournalSize messages, each with its "seq";
    * lastSeq_ is the newest number given (a message the session's own
    * buffer dropped takes a number too, so it shows as a gap). */
   static constexpr size_t kJournalSize = 20000;
   static constexpr size_t kEventsPerAnswer = 1000;
   std::deque<Json> journal_;
   uint64_t lastSeq_ = 0;
   uint64_t messagesRead_ = 0; /* the last seq that `messages` gave */
   /* The management agent; it reads every message the journal takes. */
   /* Declared before the agent, which it outlives and calls back. */
   FleetLink fleetLink_;
   std::unique_ptr<Agent> agent_;
   /* The policy at start, then the agent's state restored; false when the
    * policy is refused. */
   bool StartAgent();
   void ReloadPolicy();
};

/* Blocks SIGINT, SIGTERM, SIGHUP (and ignores SIGPIPE) in the calling thread
 * and so in every thread it starts later; signalfd receives them. */
void BlockSignals();

} // namespace vigild

#endif /* VIGILD_DAEMON_H */
