/*
 * The agent's fleet: the [fleet] of the policy in force, started, replaced
 * when its settings change and stopped with vigild, answering the agent's
 * claims at once from what the fleet knows and asking the agent to
 * reconsider whenever an answer changed.  Without a [fleet] every binding
 * is admitted as before and no etcd is needed.
 */
#ifndef VIGILD_FLEET_LINK_H
#define VIGILD_FLEET_LINK_H

#include <memory>
#include <mutex>
#include <optional>

#include "agent.h"
#include "fleet.h"

namespace vigild {

class FleetLink : public FleetSeam {
 public:
   ~FleetLink() override;

   /* The agent to tell when an answer changed; set once, before the first
    * Configure. */
   void SetAgent(Agent *agent) { agent_ = agent; }

   /* Starts, replaces or stops the fleet for these settings; nothing when
    * they did not change.  Not under the agent's lock. */
   void Configure(const FleetSettings &settings);
   void Stop();

   ClaimAnswer Claim(const Binding &binding, HeldBy *heldBy) override;
   void Release(const Binding &binding) override;

   /* `fleet bindings [vlan=N]`: the answer's "bindings"; false without a
    * fleet. */
   bool Bindings(std::optional<uint32_t> vlanId, nlohmann::ordered_json *rows) const;
   /* The fleet's state for `agent`, null without a fleet. */
   nlohmann::json Status() const;

 private:
   std::shared_ptr<Fleet> Current() const;

   Agent *agent_ = nullptr;
   mutable std::mutex mu_;
   FleetSettings settings_;
   std::shared_ptr<Fleet> fleet_;
};

} // namespace vigild

#endif /* VIGILD_FLEET_LINK_H */
