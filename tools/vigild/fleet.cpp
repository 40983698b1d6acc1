#include "fleet.h"

#include <strings.h>

#include <chrono>

#include "daemon_log.h"
#include "etcd_client.h"

namespace vigild {

namespace {

/* How often the thread wakes with nothing queued: it reads the fleet's
 * bindings, retries what waits, and keeps the lease alive at a third of
 * its life. */
constexpr auto kTick = std::chrono::milliseconds(1000);

bool SameMac(const std::string &a, const std::string &b) { return strcasecmp(a.c_str(), b.c_str()) == 0; }

} // namespace

const char *FleetOutcomeName(FleetOutcome outcome) {
   switch (outcome) {
   case FleetOutcome::Admitted: return "admitted";
   case FleetOutcome::Unconfirmed: return "unconfirmed";
   case FleetOutcome::Conflict: return "conflict";
   }
   return "?";
}

bool ParseFleetValue(const std::string &value, FleetBinding *binding, std::string *host) {
   nlohmann::json j = nlohmann::json::parse(value, nullptr, false);
   if (j.is_discarded() || !j.is_object()) return false;
   try {
      *host = j.at("host").get<std::string>();
      binding->portID = j.at("portID").get<uint32_t>();
      binding->mac = j.at("mac").get<std::string>();
      binding->method = j.value("method", "");
      binding->expiryTs = j.value("expiryTs", uint64_t{0});
   } catch (const nlohmann::json::exception &) {
      return false;
   }
   return true;
}

Fleet::Fleet(FleetConfig config, Callback callback)
    : config_(std::move(config)), callback_(std::move(callback)) {
   while (!config_.prefix.empty() && config_.prefix.back() == '/') config_.prefix.pop_back();
}

Fleet::~Fleet() { Stop(); }

void Fleet::Start() {
   std::lock_guard<std::mutex> lock(mutex_);
   if (thread_.joinable()) return;
   stop_ = false;
   thread_ = std::thread([this] { Run(); });
}

void Fleet::Stop() {
   {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
   }
   wake_.notify_all();
   if (thread_.joinable()) thread_.join();
}

std::string Fleet::KeyOf(uint32_t vlanId, const std::string &ip) const {
   return config_.prefix + "/bindings/" + std::to_string(vlanId) + "/" + ip;
}

std::string Fleet::ValueOf(const FleetBinding &b) const {
   return nlohmann::json{{"host", config_.host},
                         {"portID", b.portID},
                         {"mac", b.mac},
                         {"method", b.method},
                         {"expiryTs", b.expiryTs}}
       .dump();
}

void Fleet::ClaimLocked(const FleetBinding &binding) {
   const std::string key = KeyOf(binding.vlanId, binding.ip);
   counters_.claims++;
   Claimed &c = claims_[key];
   /* A renewal of this host's own claim keeps it admitted meanwhile. */
   bool renewal = (c.state == State::Confirmed || c.state == State::Unconfirmed) &&
                  SameMac(c.binding.mac, binding.mac);
   c.binding = binding;
   if (!renewal) c.state = State::Pending;
   ops_.push_back({true, key, binding, ""});
}

void Fleet::Claim(const FleetBinding &binding) {
   {
      std::lock_guard<std::mutex> lock(mutex_);
      ClaimLocked(binding);
   }
   wake_.notify_all();
}

void Fleet::Release(const FleetBinding &binding) {
   {
      std::lock_guard<std::mutex> lock(mutex_);
      const std::string key = KeyOf(binding.vlanId, binding.ip);
      auto it = claims_.find(key);
      if (it == claims_.end() || !SameMac(it->second.binding.mac, binding.mac)) return;
      counters_.releases++;
      ops_.push_back({false, key, binding, it->second.written});
      claims_.erase(it);
   }
   wake_.notify_all();
}

FleetVerdict Fleet::Verdict(const FleetBinding &binding, FleetHolder *holder) {
   FleetVerdict verdict = FleetVerdict::Wait;
   {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = claims_.find(KeyOf(binding.vlanId, binding.ip));
      if (it == claims_.end() || !SameMac(it->second.binding.mac, binding.mac)) {
         ClaimLocked(binding);
      } else if (it->second.state == State::Confirmed || it->second.state == State::Unconfirmed) {
         return FleetVerdict::Admit;
      } else if (it->second.state == State::Conflict) {
         *holder = it->second.holder;
         return FleetVerdict::Refuse;
      } else {
         return FleetVerdict::Wait;
      }
   }
   wake_.notify_all();
   return verdict;
}

bool Fleet::Bindings(std::optional<uint32_t> vlanId, std::vector<FleetEntry> *out) const {
   std::lock_guard<std::mutex> lock(mutex_);
   out->clear();
   for (const auto &e : view_)
      if (!vlanId || e.binding.vlanId == *vlanId) out->push_back(e);
   return viewRead_;
}

nlohmann::json Fleet::Status() const {
   std::lock_guard<std::mutex> lock(mutex_);
   size_t unconfirmed = 0, conflicts = 0;
   for (const auto &[key, c] : claims_) {
      unconfirmed += c.state == State::Unconfirmed || c.state == State::Pending;
      conflicts += c.state == State::Conflict;
   }
   return {{"host", config_.host},
           {"online", online_},
           {"lease", std::to_string(lease_)},
           {"claimsHeld", claims_.size() - unconfirmed - conflicts},
           {"claimsUnconfirmed", unconfirmed},
           {"claimsInConflict", conflicts},
           {"claims", counters_.claims},
           {"admitted", counters_.admitted},
           {"unconfirmed", counters_.unconfirmed},
           {"conflicts", counters_.conflicts},
           {"takeovers", counters_.takeovers},
           {"releases", counters_.releases},
           {"leases", counters_.leases},
           {"errors", counters_.errors},
           {"lastError", lastError_}};
}

void Fleet::Run() {
   EtcdClient client(config_.endpoints);
   const auto keepAliveEvery = std::chrono::milliseconds(std::max(1, config_.leaseSeconds) * 1000 / 3);
   auto lastKeepAlive = std::chrono::steady_clock::time_point{};
   auto lastTick = std::chrono::steady_clock::time_point{};
   for (;;) {
      std::vector<Op> ops;
      {
         std::unique_lock<std::mutex> lock(mutex_);
         wake_.wait_for(lock, kTick, [this] { return stop_ || !ops_.empty(); });
         if (stop_) break;
         ops.swap(ops_);
      }
      std::vector<Outcome> outcomes;
      auto now = std::chrono::steady_clock::now();
      bool keepAlive = now - lastKeepAlive >= keepAliveEvery;
      if (keepAlive) lastKeepAlive = now;
      bool online = CheckConnection(client, keepAlive);
      for (const Op &op : ops) Apply(client, op, &outcomes);
      if (online && now - lastTick >= kTick) {
         Reconcile(client, &outcomes);
         Refresh(client);
         lastTick = now;
      }
      for (const Outcome &o : outcomes) {
         if (callback_) callback_(o.binding, o.outcome, o.holder);
      }
   }
}

bool Fleet::CheckConnection(EtcdClient &client, bool keepAliveDue) {
   int64_t lease;
   bool wasOnline;
   {
      std::lock_guard<std::mutex> lock(mutex_);
      lease = lease_;
      wasOnline = online_;
   }
   bool online = true;
   if (lease != 0 && (keepAliveDue || !wasOnline)) {
      bool alive = false;
      online = client.KeepAlive(lease, &alive);
      if (online && !alive) {
         /* The lease ran out while this host could not reach etcd: every
          * key on it is gone, so claim them all again on a new one. */
         Log(Level::Warn, "fleet: lease %lld expired, claiming every binding again", (long long)lease);
         std::lock_guard<std::mutex> lock(mutex_);
         lease_ = lease = 0;
         for (auto &[key, c] : claims_)
            if (c.state == State::Confirmed) c.state = State::Unconfirmed;
      }
   }
   if (online && lease == 0) {
      online = client.Grant(config_.leaseSeconds, &lease);
      if (online) {
         std::lock_guard<std::mutex> lock(mutex_);
         lease_ = lease;
         counters_.leases++;
         Log(Level::Info, "fleet: host %s has lease %lld from %s (%d s)", config_.host.c_str(),
             (long long)lease, client.LastEndpoint().c_str(), config_.leaseSeconds);
      }
   }
   std::lock_guard<std::mutex> lock(mutex_);
   if (!online && (wasOnline || lastError_.empty())) {
      Log(Level::Warn, "fleet: etcd unreachable: %s", client.LastError().c_str());
      counters_.errors++;
   } else if (online && !wasOnline) {
      Log(Level::Info, "fleet: etcd reachable at %s", client.LastEndpoint().c_str());
   }
   if (!online) lastError_ = client.LastError();
   online_ = online;
   return online;
}

void Fleet::Apply(EtcdClient &client, const Op &op, std::vector<Outcome> *outcomes) {
   bool online;
   {
      std::lock_guard<std::mutex> lock(mutex_);
      online = online_;
   }
   if (!op.claim) {
      if (op.written.empty()) return;
      bool deleted = false;
      if (online && client.DeleteIfValue(op.key, op.written, &deleted)) {
         Log(Level::Info, "fleet: vlan %u %s mac %s released%s", op.binding.vlanId, op.binding.ip.c_str(),
             op.binding.mac.c_str(), deleted ? "" : " (already taken over)");
         return;
      }
      std::lock_guard<std::mutex> lock(mutex_);
      pendingDeletes_[op.key] = op.written;
      return;
   }
   {
      std::lock_guard<std::mutex> lock(mutex_);
      pendingDeletes_.erase(op.key);
   }
   if (online && TryClaim(client, op.key, outcomes)) return;
   std::lock_guard<std::mutex> lock(mutex_);
   if (online) {
      online_ = false;
      lastError_ = client.LastError();
      counters_.errors++;
      Log(Level::Warn, "fleet: etcd unreachable: %s", lastError_.c_str());
   }
   auto it = claims_.find(op.key);
   if (it == claims_.end() || it->second.state != State::Pending) return;
   it->second.state = State::Unconfirmed;
   counters_.unconfirmed++;
   Log(Level::Warn, "fleet: vlan %u %s mac %s admitted unconfirmed: etcd unreachable",
       it->second.binding.vlanId, it->second.binding.ip.c_str(), it->second.binding.mac.c_str());
   outcomes->push_back({it->second.binding, FleetOutcome::Unconfirmed, {}});
}

bool Fleet::TryClaim(EtcdClient &client, const std::string &key, std::vector<Outcome> *outcomes) {
   FleetBinding binding;
   int64_t lease;
   {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = claims_.find(key);
      if (it == claims_.end()) return true;
      binding = it->second.binding;
      lease = lease_;
   }
   const std::string value = ValueOf(binding);
   auto settle = [&](State state, FleetOutcome outcome, const FleetHolder &holder, bool tookOver) {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = claims_.find(key);
      if (it == claims_.end()) {
         /* Released meanwhile: its release finds nothing written, so
          * delete here what was just written. */
         if (state == State::Confirmed) pendingDeletes_[key] = value;
         return;
      }
      /* Claimed again for another MAC meanwhile: that claim, queued,
       * takes the key over from this host. */
      if (!SameMac(it->second.binding.mac, binding.mac)) return;
      State before = it->second.state;
      it->second.state = state;
      it->second.holder = holder;
      if (state == State::Confirmed) it->second.written = value;
      if (before == state) return;
      if (state == State::Confirmed) {
         counters_.admitted++;
         counters_.takeovers += tookOver;
         Log(Level::Info, "fleet: vlan %u %s mac %s admitted%s%s", binding.vlanId, binding.ip.c_str(),
             binding.mac.c_str(), tookOver ? ", taken over from host " : "",
             tookOver ? holder.host.c_str() : "");
      } else {
         counters_.conflicts++;
         Log(Level::Warn, "fleet: vlan %u %s mac %s refused: held by host %s port %u mac %s", binding.vlanId,
             binding.ip.c_str(), binding.mac.c_str(), holder.host.c_str(), holder.portID, holder.mac.c_str());
      }
      outcomes->push_back({binding, outcome, holder});
   };
   for (int attempt = 0; attempt < 4; ++attempt) {
      EtcdKeyValue present;
      EtcdClaim claim = client.CreateIfAbsent(key, value, lease, &present);
      if (claim == EtcdClaim::Failed) {
         if (client.LastError() == "key vanished during the claim") continue;
         return false;
      }
      if (claim == EtcdClaim::Created) {
         settle(State::Confirmed, FleetOutcome::Admitted, {}, false);
         return true;
      }
      FleetBinding held;
      FleetHolder holder;
      if (!ParseFleetValue(present.value, &held, &holder.host)) {
         holder.host = "?";
      }
      holder.portID = held.portID;
      holder.mac = held.mac;
      bool ours = holder.host == config_.host && present.lease == lease;
      if (ours && present.value == value) {
         settle(State::Confirmed, FleetOutcome::Admitted, {}, false);
         return true;
      }
      /* The same MAC anywhere (a VM that moved here), or this host's own
       * key (a renewal, or one left from before a restart) is taken over. */
      if (SameMac(held.mac, binding.mac) || holder.host == config_.host) {
         bool replaced = false;
         if (!client.ReplaceIfUnchanged(key, present.modRevision, value, lease, &replaced)) return false;
         if (replaced) {
            settle(State::Confirmed, FleetOutcome::Admitted, holder, holder.host != config_.host);
            return true;
         }
         continue;
      }
      settle(State::Conflict, FleetOutcome::Conflict, holder, false);
      return true;
   }
   return false;
}

void Fleet::Reconcile(EtcdClient &client, std::vector<Outcome> *outcomes) {
   std::vector<std::string> retry;
   std::map<std::string, std::string> deletes;
   {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const auto &[key, c] : claims_)
         if (c.state != State::Confirmed) retry.push_back(key);
      deletes = pendingDeletes_;
   }
   for (const auto &[key, value] : deletes) {
      bool deleted = false;
      if (!client.DeleteIfValue(key, value, &deleted)) return;
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = pendingDeletes_.find(key);
      if (it != pendingDeletes_.end() && it->second == value) pendingDeletes_.erase(it);
   }
   for (const std::string &key : retry) {
      if (!TryClaim(client, key, outcomes)) return;
   }
}

void Fleet::Refresh(EtcdClient &client) {
   std::vector<EtcdKeyValue> kvs;
   const std::string prefix = config_.prefix + "/bindings/";
   if (!client.RangePrefix(prefix, &kvs)) return;
   std::vector<FleetEntry> view;
   for (const auto &kv : kvs) {
      FleetEntry e;
      std::string rest = kv.key.substr(prefix.size());
      size_t slash = rest.find('/');
      if (slash == std::string::npos) continue;
      try {
         e.binding.vlanId = static_cast<uint32_t>(std::stoul(rest.substr(0, slash)));
      } catch (...) {
         continue;
      }
      e.binding.ip = rest.substr(slash + 1);
      if (!ParseFleetValue(kv.value, &e.binding, &e.host)) continue;
      view.push_back(std::move(e));
   }
   std::lock_guard<std::mutex> lock(mutex_);
   view_ = std::move(view);
   viewRead_ = true;
}

} // namespace vigild
