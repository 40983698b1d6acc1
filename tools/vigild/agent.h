/*
 * vigild's management agent: applies the policy to the ports, and carries
 * what snooping learns into enforcement.  It follows the binding messages
 * of the module ("portdb.entry.added", "portdb.entry.removed") and keeps
 * each managed port's white list equal to its `allow` entries followed by
 * the bindings that its `learn` mode admits, by writing the port's security
 * property: at most once per port per kWriteInterval, always ending with
 * the latest state.
 *
 * A binding whose (VLAN, address) another port already holds is refused
 * (a conflict) unless both ports share; it is admitted when the holder's
 * binding ends.  Every change is logged with its reason and counted.
 *
 * The agent talks to the host only through AgentHost (command lines of the
 * session, the ports, the log), so tests drive it without a daemon.  Its
 * own lock guards its state; no host call is made while it is held.
 */
#ifndef VIGILD_AGENT_H
#define VIGILD_AGENT_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "policy.h"

namespace vigild {

using AgentJson = nlohmann::ordered_json;

/* A port of the host: its portset and the interface it is attached to
 * ("" when none). */
struct PortInfo {
   uint32_t id = 0;
   std::string portset;
   std::string ifname;
};

struct AgentHost {
   /* Runs one command line of vigild's language; its answer. */
   std::function<AgentJson(const std::string &line)> run;
   std::function<std::vector<PortInfo>()> ports;
   std::function<void(const std::string &text)> log;
};

/* One binding as the module reports it.  `method` is its discMethod bit
 * (1 DHCP, 2 ARP, 4 static, 8 ND, 16 DHCPv6). */
struct Binding {
   uint32_t port = 0;
   uint16_t vlan = 0;
   std::string mac;
   std::string ip;
   uint32_t method = 0;
   uint64_t expiryTs = 0;
};

/* Who holds an address that a binding asked for; `host` is set for a
 * holder on another host of the fleet. */
struct HeldBy {
   uint32_t port = 0;
   std::string mac;
   std::string host;
};

/* What the fleet says of a binding. */
enum class ClaimAnswer {
   Admit,  /* no other host holds its (VLAN, address) */
   Wait,   /* the fleet is finding out: neither admitted nor refused yet */
   Refuse, /* another host holds it: see the holder */
};

/* Where a fleet of hosts plugs in: asked before a binding is admitted (and
 * again for admitted ones, which leave when the fleet refuses them), told
 * when an admitted binding ends.  It must answer at once, from what it
 * knows; when its answer changes it calls Agent::Reconsider. */
class FleetSeam {
 public:
   virtual ~FleetSeam() = default;
   virtual ClaimAnswer Claim(const Binding &binding, HeldBy *heldBy) = 0;
   virtual void Release(const Binding &binding) = 0;
};

class Agent {
 public:
   static constexpr double kWriteInterval = 0.1;
   static constexpr const char *kOrderFile = "agent-order.json";

   explicit Agent(AgentHost host, FleetSeam *fleet = nullptr);

   /* Makes `policy` the one in force: the ports whose effective keys
    * changed get their properties written again (the security property on
    * the next Tick); bindings stay.  The changed port ids in `changed`. */
   void Apply(const Policy &policy, double now, std::vector<uint32_t> *changed);
   bool HasPolicy() const;
   /* The file of the policy in force ("" without one). */
   std::string PolicyFile() const;
   /* The [fleet] of the policy in force (not present without one). */
   FleetSettings Fleet() const;

   /* A portset message of the module (as vigild's journal holds it). */
   void OnMessage(const AgentJson &message);
   /* The fleet's answers changed: admits and withdraws by them. */
   void Reconsider();
   /* Writes the security property of the ports whose white list changed,
    * each at most once per kWriteInterval. */
   void Tick(double now);

   /* The answers of vigild's agent commands. */
   AgentJson PolicyOf(uint32_t port);
   AgentJson Conflicts();
   AgentJson Counters();

   /* Saves each managed port's bindings under `dir` in the saved-state
    * format, and the order in which they were admitted (state.cpp). */
   void SaveState(const std::string &dir);
   /* Restores what SaveState left, admitting it again in the order it was
    * admitted; a file that does not restore is moved aside. */
   void RestoreState(const std::string &dir);

 private:
   struct Learned {
      Binding binding;
      uint64_t seq = 0;      /* arrival order */
      bool admitted = false;
      uint64_t admittedSeq = 0;
      bool conflicted = false;
      HeldBy heldBy;
   };
   struct PortState {
      PortInfo info;
      EffectivePolicy policy;
      std::vector<Learned> learned;
      /* The lines of the other properties as last written. */
      std::map<std::string, std::string> written;
      std::string desiredSecurity; /* "" when the agent writes none */
      std::string writtenSecurity;
      double lastWrite = -1e9;
   };

   /* Locked helpers. */
   void RefreshPortsLocked(const std::vector<PortInfo> &ports);
   bool EligibleLocked(const PortState &port, const Learned &l) const;
   void ReconcileLocked(const std::string &reason);
   std::string SecurityLineLocked(const PortState &port) const;
   /* The lines of the enabled, discovery and ignore list properties. */
   std::vector<std::pair<std::string, std::string>> PropertyLines(const PortState &port) const;
   void AddLearnedLocked(const Binding &b, uint64_t seq);
   void LogLocked(const std::string &text);
   /* Runs `lines` (port, property, line) without the lock held, then
    * records what was written. */
   void WriteProperties(const std::vector<std::tuple<uint32_t, std::string, std::string>> &lines);

   AgentHost host_;
   FleetSeam *fleet_;
   mutable std::mutex mu_;
   bool hasPolicy_ = false;
   Policy policy_;
   std::map<uint32_t, PortState> ports_;
   uint64_t nextSeq_ = 1;
   uint64_t nextAdmitted_ = 1;
   std::vector<std::string> logs_; /* written to the host once unlocked */
   /* counters */
   uint64_t writes_ = 0;
   uint64_t writeErrors_ = 0;
   uint64_t admitted_ = 0;
   uint64_t withdrawn_ = 0;
   uint64_t conflicts_ = 0;
   uint64_t restored_ = 0;
   uint64_t reloads_ = 0;

   void FlushLogs();
};

/* vigild's agent commands, the command word first: `apply FILE`, `policy
 * PORTID`, `conflicts`, `agent`.  False when `words` is none of them;
 * throws vigilsim::ToolError for a usage error or a refused policy file. */
bool AgentCommand(Agent &agent, const std::vector<std::string> &words, AgentJson &out,
                  double now);

/* Reads FILE and makes it the policy in force; false with `error` when it
 * is refused (nothing of it is applied then). */
bool ApplyPolicyFile(Agent &agent, const std::string &path, double now,
                     std::vector<uint32_t> *changed, std::string *error);

/* A binding as the log shows it: "vlan 0 mac 02:00:00:00:00:10 ip
 * 192.0.2.50 (dhcp)". */
std::string BindingText(const Binding &b);
std::string MethodName(uint32_t method);

} // namespace vigild

#endif /* VIGILD_AGENT_H */
