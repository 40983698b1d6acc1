/*
 * vigild's policy file: for every port, what the module does there and
 * what the agent lets into its white list.  A TOML file of tables
 * [defaults], [port.ID], [interface.NAME], [switch."NAME"] and [fleet];
 * the keys a port table may set are those of PortSettings.  A file is read
 * whole and checked whole: the first fault refuses it, with the file, the
 * line and the key, and nothing of it is used.
 */
#ifndef VIGILD_POLICY_H
#define VIGILD_POLICY_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vigild {

using PolicyJson = nlohmann::ordered_json;

/* What the agent admits into a port's white list. */
enum class LearnMode { Off, Dhcp, Any };

/* The keys of one table; a key the table does not set is empty. */
struct PortSettings {
   std::optional<bool> enabled;
   std::optional<std::vector<std::string>> discovery; /* dhcp, arp, nd, dhcpv6 */
   std::optional<uint32_t> expiryMinutes;
   std::optional<std::vector<std::string>> features;
   std::optional<std::map<std::string, uint32_t>> rateLimits; /* tx-bcast, ... */
   std::optional<std::vector<std::string>> bpduExclude;
   std::optional<std::vector<std::string>> ignore;
   std::optional<std::vector<std::string>> allow;
   std::optional<LearnMode> learn;
   std::optional<bool> share;

   bool operator==(const PortSettings &) const = default;
};

/* The optional [fleet] table, read and checked; the fleet itself plugs into
 * the agent through FleetSeam (agent.h). */
struct FleetSettings {
   bool present = false;
   std::vector<std::string> endpoints;
   std::string host;
   std::string prefix = "/vigil";
   uint32_t leaseSeconds = 10;

   bool operator==(const FleetSettings &) const = default;
};

struct Policy {
   std::string file; /* where it was read from */
   PortSettings defaults;
   std::map<uint32_t, PortSettings> ports;
   std::map<std::string, PortSettings> interfaces;
   std::map<std::string, std::vector<std::string>> switchAllow; /* portset -> entries */
   FleetSettings fleet;
};

/* One port's keys after precedence ([interface.NAME] over [port.ID] over
 * [defaults], key by key) with the built-in values for keys no table sets.
 * `managed` is false when no table sets `enabled`: the agent then leaves
 * the port as the start-up scripts made it. */
struct EffectivePolicy {
   bool managed = false;
   bool enabled = false;
   std::vector<std::string> discovery;
   uint32_t expiryMinutes = 10;
   std::vector<std::string> features;
   std::map<std::string, uint32_t> rateLimits;
   std::vector<std::string> bpduExclude;
   std::vector<std::string> ignore;
   std::vector<std::string> allow;
   LearnMode learn = LearnMode::Dhcp;
   bool share = false;

   bool operator==(const EffectivePolicy &) const = default;
};

/* Reads and checks a policy file.  False with `error` ("FILE:LINE: KEY:
 * what is wrong") when it fails; `out` is then untouched. */
bool LoadPolicy(const std::string &path, Policy *out, std::string *error);
/* The same from text; `name` stands for the file in errors. */
bool ParsePolicy(const std::string &text, const std::string &name, Policy *out,
                 std::string *error);

EffectivePolicy Resolve(const Policy &policy, uint32_t port, const std::string &ifname);

const char *LearnModeName(LearnMode mode);
/* The effective keys under their names in the file. */
PolicyJson EffectiveJson(const EffectivePolicy &p);

/* The feature bits of the security property: the named features and the
 * rate limits given. */
uint32_t FeatureBits(const EffectivePolicy &p);

} // namespace vigild

#endif /* VIGILD_POLICY_H */
