#include "fleet_link.h"

#include "daemon_log.h"

namespace vigild {

namespace {

FleetBinding ToFleet(const Binding &b) {
   FleetBinding f;
   f.vlanId = b.vlan;
   f.ip = b.ip;
   f.mac = b.mac;
   f.portID = b.port;
   f.method = MethodName(b.method);
   f.expiryTs = b.expiryTs;
   return f;
}

} // namespace

FleetLink::~FleetLink() { Stop(); }

std::shared_ptr<Fleet> FleetLink::Current() const {
   std::lock_guard<std::mutex> lock(mu_);
   return fleet_;
}

void FleetLink::Configure(const FleetSettings &settings) {
   std::shared_ptr<Fleet> old, started;
   {
      std::lock_guard<std::mutex> lock(mu_);
      if (settings == settings_) return;
      settings_ = settings;
      old = std::move(fleet_);
      if (settings.present) {
         FleetConfig config;
         config.endpoints = settings.endpoints;
         config.host = settings.host;
         config.prefix = settings.prefix;
         config.leaseSeconds = static_cast<int>(settings.leaseSeconds);
         Agent *agent = agent_;
         fleet_ = std::make_shared<Fleet>(config, [agent](const FleetBinding &, FleetOutcome,
                                                          const FleetHolder &) {
            if (agent != nullptr) agent->Reconsider();
         });
         started = fleet_;
      }
   }
   /* The old fleet's thread may be telling the agent something: stopped
    * outside the lock, so that it can finish. */
   if (old) old->Stop();
   if (started) {
      Log(Level::Info, "fleet: host %s, prefix %s, %zu endpoints, lease %u s", settings.host.c_str(),
          settings.prefix.c_str(), settings.endpoints.size(), settings.leaseSeconds);
      started->Start();
   } else if (old) {
      Log(Level::Info, "fleet: none configured any more");
   }
   /* The admitted bindings are claimed in the new fleet, the refused ones
    * asked again. */
   if (agent_ != nullptr) agent_->Reconsider();
}

void FleetLink::Stop() {
   std::shared_ptr<Fleet> old;
   {
      std::lock_guard<std::mutex> lock(mu_);
      old = std::move(fleet_);
      settings_ = FleetSettings{};
   }
   if (old) old->Stop();
}

ClaimAnswer FleetLink::Claim(const Binding &binding, HeldBy *heldBy) {
   std::shared_ptr<Fleet> fleet = Current();
   if (!fleet) return ClaimAnswer::Admit;
   FleetHolder holder;
   switch (fleet->Verdict(ToFleet(binding), &holder)) {
   case FleetVerdict::Admit: return ClaimAnswer::Admit;
   case FleetVerdict::Wait: return ClaimAnswer::Wait;
   case FleetVerdict::Refuse: break;
   }
   *heldBy = HeldBy{holder.portID, holder.mac, holder.host};
   return ClaimAnswer::Refuse;
}

void FleetLink::Release(const Binding &binding) {
   std::shared_ptr<Fleet> fleet = Current();
   if (fleet) fleet->Release(ToFleet(binding));
}

bool FleetLink::Bindings(std::optional<uint32_t> vlanId, nlohmann::ordered_json *rows) const {
   std::shared_ptr<Fleet> fleet = Current();
   if (!fleet) return false;
   std::vector<FleetEntry> entries;
   fleet->Bindings(vlanId, &entries);
   *rows = nlohmann::ordered_json::array();
   for (const FleetEntry &e : entries) {
      rows->push_back({{"vlanId", e.binding.vlanId},
                       {"ip", e.binding.ip},
                       {"mac", e.binding.mac},
                       {"host", e.host},
                       {"portID", e.binding.portID},
                       {"method", e.binding.method},
                       {"expiryTs", e.binding.expiryTs}});
   }
   return true;
}

nlohmann::json FleetLink::Status() const {
   std::shared_ptr<Fleet> fleet = Current();
   return fleet ? fleet->Status() : nlohmann::json();
}

} // namespace vigild
