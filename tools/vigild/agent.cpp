#include "agent.h"

#include <algorithm>
#include <tuple>

#include "script.h"

namespace vigild {

namespace {

std::string PortText(uint32_t port) { return "port " + vigilsim::HexNumber(port); }

std::string Join(const std::vector<std::string> &items, const std::string &sep) {
   std::string out;
   for (size_t i = 0; i < items.size(); i++) {
      if (i != 0) out += sep;
      out += items[i];
   }
   return out;
}

bool Has(const std::vector<std::string> &items, const std::string &item) {
   return std::find(items.begin(), items.end(), item) != items.end();
}

bool Answered(const AgentJson &answer, std::string *error) {
   if (!answer.is_object() || !answer.value("ok", false)) {
      *error = answer.is_object() ? answer.value("error", std::string("refused")) : "no answer";
      return false;
   }
   if (answer.contains("status") && answer["status"].is_number() &&
       answer["status"].get<uint64_t>() != 0) {
      *error = "status " + vigilsim::HexNumber(answer["status"].get<uint64_t>());
      return false;
   }
   return true;
}

constexpr uint32_t kMethodDhcp = 1, kMethodArp = 2, kMethodNd = 8, kMethodDhcpv6 = 16;

} // namespace

std::string MethodName(uint32_t method) {
   switch (method) {
   case 1: return "dhcp";
   case 2: return "arp";
   case 4: return "static";
   case 8: return "nd";
   case 16: return "dhcpv6";
   }
   return "method " + std::to_string(method);
}

std::string BindingText(const Binding &b) {
   return "vlan " + std::to_string(b.vlan) + " mac " + b.mac + " ip " + b.ip + " (" +
          MethodName(b.method) + ")";
}

Agent::Agent(AgentHost host, FleetSeam *fleet) : host_(std::move(host)), fleet_(fleet) {}

bool Agent::HasPolicy() const {
   std::lock_guard<std::mutex> lock(mu_);
   return hasPolicy_;
}

std::string Agent::PolicyFile() const {
   std::lock_guard<std::mutex> lock(mu_);
   return hasPolicy_ ? policy_.file : "";
}

FleetSettings Agent::Fleet() const {
   std::lock_guard<std::mutex> lock(mu_);
   return hasPolicy_ ? policy_.fleet : FleetSettings{};
}

void Agent::LogLocked(const std::string &text) { logs_.push_back("agent: " + text); }

void Agent::FlushLogs() {
   std::vector<std::string> logs;
   {
      std::lock_guard<std::mutex> lock(mu_);
      logs.swap(logs_);
   }
   for (const std::string &line : logs) host_.log(line);
}

void Agent::RefreshPortsLocked(const std::vector<PortInfo> &ports) {
   std::map<uint32_t, PortInfo> now;
   for (const PortInfo &p : ports) now[p.id] = p;
   /* A port the host no longer has lets its bindings go. */
   for (auto it = ports_.begin(); it != ports_.end();) {
      if (now.count(it->first) == 0) {
         for (const Learned &l : it->second.learned) {
            if (l.admitted && fleet_ != nullptr) fleet_->Release(l.binding);
         }
         it = ports_.erase(it);
      } else {
         ++it;
      }
   }
   for (const auto &[id, info] : now) {
      PortState &state = ports_[id];
      state.info = info;
      state.policy = hasPolicy_ ? Resolve(policy_, id, info.ifname) : EffectivePolicy{};
   }
}

bool Agent::EligibleLocked(const PortState &port, const Learned &l) const {
   const EffectivePolicy &p = port.policy;
   if (!p.managed || !p.enabled) return false;
   uint32_t m = l.binding.method;
   switch (p.learn) {
   case LearnMode::Off: return false;
   case LearnMode::Dhcp: return m == kMethodDhcp || m == kMethodDhcpv6;
   case LearnMode::Any:
      return m == kMethodDhcp || m == kMethodDhcpv6 || m == kMethodArp || m == kMethodNd;
   }
   return false;
}

/* "host hv2 port 0x40 mac 02:..." (no host for one of this host's ports). */
static std::string HolderText(const HeldBy &holder) {
   return (holder.host.empty() ? "" : "host " + holder.host + " ") + PortText(holder.port) +
          " mac " + holder.mac;
}

void Agent::Reconsider() {
   {
      std::lock_guard<std::mutex> lock(mu_);
      ReconcileLocked("fleet");
   }
   FlushLogs();
}

void Agent::ReconcileLocked(const std::string &reason) {
   /* Bindings that the policy no longer admits leave first. */
   for (auto &[id, port] : ports_) {
      for (Learned &l : port.learned) {
         if (l.admitted && !EligibleLocked(port, l)) {
            l.admitted = false;
            withdrawn_++;
            if (fleet_ != nullptr) fleet_->Release(l.binding);
            LogLocked(PortText(id) + ": withdrew " + BindingText(l.binding) + ": " + reason);
         }
         if (!l.admitted && !EligibleLocked(port, l)) l.conflicted = false;
         /* An admitted binding that the fleet now finds held elsewhere
          * (claimed while etcd was away, or taken while its lease ran
          * out) leaves too. */
         HeldBy holder;
         if (l.admitted && fleet_ != nullptr &&
             fleet_->Claim(l.binding, &holder) == ClaimAnswer::Refuse) {
            l.admitted = false;
            l.conflicted = true;
            l.heldBy = holder;
            withdrawn_++;
            conflicts_++;
            LogLocked(PortText(id) + ": withdrew " + BindingText(l.binding) + ", held by " +
                      HolderText(holder) + ": conflict");
         }
      }
   }
   /* Then the waiting ones, in the order they came. */
   std::vector<std::pair<uint64_t, std::pair<uint32_t, size_t>>> waiting;
   for (auto &[id, port] : ports_) {
      for (size_t i = 0; i < port.learned.size(); i++) {
         const Learned &l = port.learned[i];
         if (!l.admitted && EligibleLocked(port, l)) waiting.push_back({l.seq, {id, i}});
      }
   }
   std::sort(waiting.begin(), waiting.end());
   /* Who holds each (VLAN, address) now. */
   std::map<std::pair<uint16_t, std::string>, std::vector<const Learned *>> held;
   for (const auto &[id, port] : ports_) {
      for (const Learned &l : port.learned) {
         if (l.admitted) held[{l.binding.vlan, l.binding.ip}].push_back(&l);
      }
   }
   for (const auto &w : waiting) {
      PortState &port = ports_[w.second.first];
      Learned &l = port.learned[w.second.second];
      const Binding &b = l.binding;
      bool conflict = false;
      HeldBy holder;
      for (const Learned *o : held[{b.vlan, b.ip}]) {
         if (o->binding.port == b.port) continue;
         if (!port.policy.share || !ports_[o->binding.port].policy.share) {
            conflict = true;
            holder = HeldBy{o->binding.port, o->binding.mac, ""};
            break;
         }
      }
      if (!conflict && fleet_ != nullptr) {
         ClaimAnswer answer = fleet_->Claim(b, &holder);
         if (answer == ClaimAnswer::Wait) continue;
         conflict = answer == ClaimAnswer::Refuse;
      }
      if (conflict) {
         bool news = !l.conflicted || l.heldBy.port != holder.port ||
                     l.heldBy.mac != holder.mac || l.heldBy.host != holder.host;
         l.conflicted = true;
         l.heldBy = holder;
         if (news) {
            conflicts_++;
            LogLocked(PortText(b.port) + ": refused " + BindingText(b) + ", held by " +
                      HolderText(holder) + ": conflict");
         }
         continue;
      }
      l.conflicted = false;
      l.admitted = true;
      held[{b.vlan, b.ip}].push_back(&l);
      l.admittedSeq = nextAdmitted_++;
      admitted_++;
      LogLocked(PortText(b.port) + ": admitted " + BindingText(b) + ": " + reason);
   }
   for (auto &[id, port] : ports_) port.desiredSecurity = SecurityLineLocked(port);
}

std::string Agent::SecurityLineLocked(const PortState &port) const {
   const EffectivePolicy &p = port.policy;
   if (!p.managed || !p.enabled) return "";
   std::string line = "security " + vigilsim::HexNumber(port.info.id) + " features=" +
                      vigilsim::HexNumber(FeatureBits(p));
   static const std::map<std::string, std::string> kLimitOptions = {
       {"rx-bcast", "rxBcast"}, {"tx-bcast", "txBcast"}, {"rx-mcast", "rxMcast"},
       {"tx-mcast", "txMcast"}};
   for (const auto &[name, value] : p.rateLimits) {
      line += " " + kLimitOptions.at(name) + "=" + std::to_string(value);
   }
   auto sw = policy_.switchAllow.find(port.info.portset);
   if (sw != policy_.switchAllow.end() && !sw->second.empty()) {
      line += " switch=\"" + Join(sw->second, ";") + "\"";
   }
   std::vector<std::string> entries = p.allow;
   std::vector<const Learned *> admitted;
   for (const Learned &l : port.learned) {
      if (l.admitted) admitted.push_back(&l);
   }
   std::sort(admitted.begin(), admitted.end(),
             [](const Learned *a, const Learned *b) { return a->admittedSeq < b->admittedSeq; });
   for (const Learned *l : admitted) {
      entries.push_back("vlan=" + std::to_string(l->binding.vlan) + ",mac=" + l->binding.mac +
                        ",ip=" + l->binding.ip);
   }
   if (!entries.empty()) line += " port=\"" + Join(entries, ";") + "\"";
   if (!p.bpduExclude.empty()) line += " bpduExclude=" + Join(p.bpduExclude, ",");
   return line;
}

std::vector<std::pair<std::string, std::string>> Agent::PropertyLines(const PortState &port) const {
   const EffectivePolicy &p = port.policy;
   std::string id = vigilsim::HexNumber(port.info.id);
   if (!p.managed) return {};
   if (!p.enabled) return {{"enabled", "prop write " + id + " enabled text:false"}};
   auto flag = [&](const char *name) { return Has(p.discovery, name) ? "1" : "0"; };
   return {
       {"enabled", "prop write " + id + " enabled text:true"},
       {"discovery", "discovery " + id + " arp=" + flag("arp") + " dhcp=" + flag("dhcp")},
       {"discovery6", "discovery6 " + id + " nd=" + flag("nd") + " dhcpv6=" + flag("dhcpv6") +
                          " expiry=" + std::to_string(p.expiryMinutes)},
       {"ignorelist", p.ignore.empty()
                          ? "prop write " + id + " discovery.ignorelist hex:00000000"
                          : "ignorelist " + id + " \"" + Join(p.ignore, ";") + "\""},
   };
}

void Agent::Apply(const Policy &policy, double now, std::vector<uint32_t> *changed) {
   (void)now;
   std::vector<PortInfo> ports = host_.ports();
   {
      std::lock_guard<std::mutex> lock(mu_);
      std::map<uint32_t, EffectivePolicy> before;
      for (const auto &[id, port] : ports_) before[id] = port.policy;
      Policy old = policy_;
      policy_ = policy;
      hasPolicy_ = true;
      reloads_++;
      RefreshPortsLocked(ports);
      for (auto &[id, port] : ports_) {
         std::vector<std::string> keys;
         AgentJson a = EffectiveJson(before.count(id) != 0 ? before[id] : EffectivePolicy{});
         AgentJson b = EffectiveJson(port.policy);
         for (const auto &item : b.items()) {
            if (a[item.key()] != item.value()) keys.push_back(item.key());
         }
         auto swOld = old.switchAllow.find(port.info.portset);
         auto swNew = policy_.switchAllow.find(port.info.portset);
         bool swChanged = (swOld == old.switchAllow.end()) != (swNew == policy_.switchAllow.end()) ||
                          (swOld != old.switchAllow.end() && swOld->second != swNew->second);
         bool wasManaged = before.count(id) != 0 && before[id].managed;
         if (!port.policy.managed && !wasManaged) continue;
         if (swChanged) keys.push_back("switch allow");
         if (keys.empty()) continue;
         if (changed != nullptr) changed->push_back(id);
         LogLocked(PortText(id) + ": policy changed (" + Join(keys, ", ") + "): reload");
      }
      ReconcileLocked("reload");
   }
   FlushLogs();
}

void Agent::AddLearnedLocked(const Binding &b, uint64_t seq) {
   PortState &port = ports_[b.port];
   if (port.info.id != b.port) port.info.id = b.port;
   for (Learned &l : port.learned) {
      if (l.binding.vlan == b.vlan && l.binding.mac == b.mac && l.binding.ip == b.ip) {
         l.binding.method = b.method;
         return;
      }
   }
   Learned l;
   l.binding = b;
   l.seq = seq;
   port.learned.push_back(l);
}

void Agent::OnMessage(const AgentJson &m) {
   std::string name = m.value("name", std::string());
   bool added = name == "portdb.entry.added";
   if (!added && name != "portdb.entry.removed") return;
   Binding b;
   b.port = m.value("portID", 0u);
   b.vlan = m.value("vlanId", static_cast<uint16_t>(0));
   b.mac = m.value("mac", std::string());
   b.ip = m.value("ip", std::string());
   b.method = m.value("discMethod", 0u);
   b.expiryTs = m.value("expiryTs", uint64_t{0});
   {
      std::lock_guard<std::mutex> lock(mu_);
      if (added) {
         if (ports_.count(b.port) == 0 && hasPolicy_) {
            /* A port the agent has not met yet: its policy by what the
             * message tells (no interface known). */
            PortState &port = ports_[b.port];
            port.info.id = b.port;
            port.info.portset = m.value("portsetName", std::string());
            port.policy = Resolve(policy_, b.port, "");
         }
         AddLearnedLocked(b, nextSeq_++);
         ReconcileLocked("binding added");
      } else {
         auto it = ports_.find(b.port);
         if (it == ports_.end()) return;
         auto &learned = it->second.learned;
         for (auto l = learned.begin(); l != learned.end(); ++l) {
            if (l->binding.vlan != b.vlan || l->binding.mac != b.mac || l->binding.ip != b.ip) {
               continue;
            }
            if (l->admitted) {
               withdrawn_++;
               if (fleet_ != nullptr) fleet_->Release(l->binding);
               LogLocked(PortText(b.port) + ": withdrew " + BindingText(l->binding) +
                         ": binding removed");
            }
            learned.erase(l);
            break;
         }
         ReconcileLocked("binding removed");
      }
   }
   FlushLogs();
}

void Agent::WriteProperties(
    const std::vector<std::tuple<uint32_t, std::string, std::string>> &lines) {
   for (const auto &[id, prop, line] : lines) {
      AgentJson answer = host_.run(line);
      std::string error;
      bool ok = Answered(answer, &error);
      std::lock_guard<std::mutex> lock(mu_);
      auto it = ports_.find(id);
      if (it == ports_.end()) continue;
      PortState &port = it->second;
      if (prop == "security") {
         if (ok) {
            writes_++;
            port.writtenSecurity = line;
         } else {
            writeErrors_++;
            LogLocked(PortText(id) + ": writing the security property failed (" + error +
                      "); trying again");
         }
      } else {
         /* Written or not, not tried again until the policy changes it:
          * a port that refuses a property is logged once. */
         port.written[prop] = line;
         if (!ok) {
            LogLocked(PortText(id) + ": writing the " + prop + " property failed (" + error + ")");
         }
      }
   }
}

void Agent::Tick(double now) {
   std::vector<PortInfo> ports = host_.ports();
   std::vector<std::tuple<uint32_t, std::string, std::string>> props;
   std::vector<uint32_t> syncs;
   {
      std::lock_guard<std::mutex> lock(mu_);
      if (!hasPolicy_) return;
      bool portsChanged = ports.size() != ports_.size();
      for (const PortInfo &p : ports) {
         auto it = ports_.find(p.id);
         if (it == ports_.end() || it->second.info.ifname != p.ifname ||
             it->second.info.portset != p.portset) {
            portsChanged = true;
         }
      }
      if (portsChanged) {
         RefreshPortsLocked(ports);
         ReconcileLocked("port changed");
      }
      for (auto &[id, port] : ports_) {
         bool firstEnable = false;
         for (const auto &[prop, line] : PropertyLines(port)) {
            auto w = port.written.find(prop);
            if (w != port.written.end() && w->second == line) continue;
            if (prop == "enabled" && line.find("text:true") != std::string::npos) firstEnable = true;
            props.emplace_back(id, prop, line);
         }
         if (!port.policy.managed || !port.policy.enabled) port.writtenSecurity.clear();
         if (firstEnable) syncs.push_back(id);
      }
   }
   WriteProperties(props);
   /* A port the agent has just enabled may hold bindings from before:
    * they come in as if their messages had. */
   for (uint32_t id : syncs) {
      AgentJson answer = host_.run("bindings " + vigilsim::HexNumber(id));
      if (!answer.value("ok", false) || !answer["bindings"].is_array()) continue;
      for (const AgentJson &b : answer["bindings"]) {
         if (b.value("expired", false)) continue;
         AgentJson m = b;
         m["name"] = "portdb.entry.added";
         m["portID"] = id;
         OnMessage(m);
      }
   }
   std::vector<std::tuple<uint32_t, std::string, std::string>> writes;
   {
      std::lock_guard<std::mutex> lock(mu_);
      for (auto &[id, port] : ports_) {
         if (port.desiredSecurity.empty() || port.desiredSecurity == port.writtenSecurity) continue;
         /* (a nanosecond of slack for the rounding of the clock's sums) */
         if (now - port.lastWrite < kWriteInterval - 1e-9) continue;
         port.lastWrite = now;
         writes.emplace_back(id, "security", port.desiredSecurity);
      }
   }
   WriteProperties(writes);
   FlushLogs();
}

AgentJson Agent::PolicyOf(uint32_t id) {
   std::vector<PortInfo> ports = host_.ports();
   std::lock_guard<std::mutex> lock(mu_);
   PortInfo info;
   info.id = id;
   for (const PortInfo &p : ports) {
      if (p.id == id) info = p;
   }
   EffectivePolicy e = hasPolicy_ ? Resolve(policy_, id, info.ifname) : EffectivePolicy{};
   AgentJson out = EffectiveJson(e);
   return out;
}

AgentJson Agent::Conflicts() {
   std::lock_guard<std::mutex> lock(mu_);
   AgentJson list = AgentJson::array();
   for (const auto &[id, port] : ports_) {
      for (const Learned &l : port.learned) {
         if (!l.conflicted) continue;
         AgentJson c;
         c["vlanId"] = l.binding.vlan;
         c["ip"] = l.binding.ip;
         c["mac"] = l.binding.mac;
         c["portID"] = id;
         AgentJson held;
         held["portID"] = l.heldBy.port;
         held["mac"] = l.heldBy.mac;
         if (!l.heldBy.host.empty()) held["host"] = l.heldBy.host;
         c["heldBy"] = held;
         list.push_back(c);
      }
   }
   return list;
}

AgentJson Agent::Counters() {
   std::lock_guard<std::mutex> lock(mu_);
   uint64_t pending = 0, bindings = 0;
   for (const auto &[id, port] : ports_) {
      if (!port.desiredSecurity.empty() && port.desiredSecurity != port.writtenSecurity) pending++;
      for (const Learned &l : port.learned) bindings += l.admitted ? 1 : 0;
   }
   AgentJson out;
   out["writes"] = writes_;
   out["pendingWrites"] = pending;
   out["admitted"] = admitted_;
   out["conflicts"] = conflicts_;
   out["restored"] = restored_;
   out["withdrawn"] = withdrawn_;
   out["writeErrors"] = writeErrors_;
   out["reloads"] = reloads_;
   out["bindings"] = bindings;
   out["policy"] = hasPolicy_ ? AgentJson(policy_.file) : AgentJson(nullptr);
   return out;
}

} // namespace vigild

namespace vigild {

bool ApplyPolicyFile(Agent &agent, const std::string &path, double now,
                     std::vector<uint32_t> *changed, std::string *error) {
   Policy policy;
   if (!LoadPolicy(path, &policy, error)) return false;
   agent.Apply(policy, now, changed);
   agent.Tick(now);
   return true;
}

bool AgentCommand(Agent &agent, const std::vector<std::string> &words, AgentJson &out,
                  double now) {
   const std::string &cmd = words[0];
   if (cmd == "apply") {
      if (words.size() != 2) throw vigilsim::ToolError("usage: apply FILE");
      std::vector<uint32_t> changed;
      std::string error;
      if (!ApplyPolicyFile(agent, words[1], now, &changed, &error)) {
         throw vigilsim::ToolError("policy refused, nothing applied: " + error);
      }
      out["file"] = words[1];
      out["changed"] = changed;
      return true;
   }
   if (cmd == "policy") {
      if (words.size() != 2) throw vigilsim::ToolError("usage: policy PORTID");
      uint32_t port = static_cast<uint32_t>(
          vigilsim::ParseUnsigned(words[1], "port id", UINT32_MAX));
      out["portID"] = port;
      out["file"] = agent.HasPolicy() ? AgentJson(agent.PolicyFile()) : AgentJson(nullptr);
      out["policy"] = agent.PolicyOf(port);
      return true;
   }
   if (cmd == "conflicts") {
      if (words.size() != 1) throw vigilsim::ToolError("usage: conflicts");
      out["conflicts"] = agent.Conflicts();
      return true;
   }
   if (cmd == "agent") {
      if (words.size() != 1) throw vigilsim::ToolError("usage: agent");
      AgentJson counters = agent.Counters();
      for (const auto &item : counters.items()) out[item.key()] = item.value();
      return true;
   }
   return false;
}

} // namespace vigild
