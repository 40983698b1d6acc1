/*
 * The fleet: the bindings that the agents of many hosts admitted, kept in
 * etcd so that an address admitted on one host is not admitted for another
 * VM on another host, and a VM that moves takes its admission with it.
 *
 * Each admitted binding is a key <prefix>/bindings/<vlan>/<ip> whose value
 * names the host, port, MAC, method and expiry, on a lease the host keeps
 * alive: a host that dies loses its keys when the lease runs out.  Before a
 * binding is admitted it is claimed: created if absent, taken over if the
 * present holder has the same MAC (a VM that moved, or this host's own key
 * from before a restart), refused when another MAC holds it.
 *
 * All the talking to etcd happens on the fleet's own thread: Claim and
 * Release only queue, and the outcome comes back through the callback (on
 * the fleet's thread), so neither the data path nor the agent's property
 * writes ever wait on the network.  While etcd is unreachable a claim is
 * answered "unconfirmed" (the agent admits it locally) and it is claimed for
 * real when etcd answers again; a claim refused as a conflict is tried
 * again, so it is admitted once the holder lets go.
 */
#ifndef VIGILD_FLEET_H
#define VIGILD_FLEET_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace vigild {

struct FleetConfig {
   std::vector<std::string> endpoints;
   std::string host;
   std::string prefix = "/vigil";
   int leaseSeconds = 10;
};

struct FleetBinding {
   uint32_t vlanId = 0;
   std::string ip;
   std::string mac;
   uint32_t portID = 0;
   std::string method;
   uint64_t expiryTs = 0;
};

/* Who holds a key. */
struct FleetHolder {
   std::string host;
   uint32_t portID = 0;
   std::string mac;
};

/* What the fleet says of a binding now, without waiting on the network. */
enum class FleetVerdict {
   Admit,  /* this host holds its key, or holds it unconfirmed while etcd is down */
   Wait,   /* its claim is under way */
   Refuse, /* another MAC holds the key: see the holder */
};

enum class FleetOutcome {
   Admitted,    /* the key is this host's */
   Unconfirmed, /* etcd did not answer: admitted locally for now */
   Conflict,    /* another MAC holds the key: see the holder */
};

const char *FleetOutcomeName(FleetOutcome outcome);

/* One key of the fleet as `fleet bindings` shows it. */
struct FleetEntry {
   FleetBinding binding;
   std::string host;
};

class Fleet {
 public:
   using Callback = std::function<void(const FleetBinding &, FleetOutcome, const FleetHolder &)>;

   Fleet(FleetConfig config, Callback callback);
   ~Fleet();
   Fleet(const Fleet &) = delete;
   Fleet &operator=(const Fleet &) = delete;

   void Start();
   /* Stops the thread.  The keys stay until the lease runs out, so a host
    * that restarts takes them over again with the same MACs. */
   void Stop();

   /* Queue a claim (or a renewal of this host's own claim, e.g. a new
    * expiry) and a release. */
   void Claim(const FleetBinding &binding);
   void Release(const FleetBinding &binding);

   /* The verdict on a binding from what this host knows; a binding not
    * claimed yet (or claimed for another MAC) is claimed now, and its
    * outcome comes through the callback. */
   FleetVerdict Verdict(const FleetBinding &binding, FleetHolder *holder);

   /* The fleet's bindings as last read from etcd (read again every second
    * while etcd answers), optionally of one VLAN; false with no reading
    * yet. */
   bool Bindings(std::optional<uint32_t> vlanId, std::vector<FleetEntry> *out) const;

   /* Counters and the connection's state, for `vigilctl agent`. */
   nlohmann::json Status() const;

   const FleetConfig &Config() const { return config_; }

   /* The key of a binding. */
   std::string KeyOf(uint32_t vlanId, const std::string &ip) const;

 private:
   enum class State { Pending, Confirmed, Unconfirmed, Conflict };
   struct Claimed {
      FleetBinding binding;
      State state = State::Pending;
      std::string written; /* the value this host wrote, for its release */
      FleetHolder holder;  /* of a conflict */
   };
   /* A claim of the key, or the deletion of the value this host wrote. */
   struct Op {
      bool claim;
      std::string key;
      FleetBinding binding;
      std::string written;
   };
   struct Outcome {
      FleetBinding binding;
      FleetOutcome outcome;
      FleetHolder holder;
   };

   void Run();
   /* Keeps the lease (a new one when it is gone) and finds out whether
    * etcd answers: when the keep-alive is due, and at every wake-up while
    * it does not. */
   bool CheckConnection(class EtcdClient &client, bool keepAliveDue);
   void Apply(class EtcdClient &client, const Op &op, std::vector<Outcome> *outcomes);
   /* Queues a claim of a binding; under the lock. */
   void ClaimLocked(const FleetBinding &binding);
   /* Claims one key for real; false when etcd did not answer. */
   bool TryClaim(class EtcdClient &client, const std::string &key, std::vector<Outcome> *outcomes);
   void Reconcile(class EtcdClient &client, std::vector<Outcome> *outcomes);
   void Refresh(class EtcdClient &client);
   std::string ValueOf(const FleetBinding &binding) const;

   FleetConfig config_;
   Callback callback_;
   mutable std::mutex mutex_;
   std::condition_variable wake_;
   std::vector<Op> ops_;
   std::map<std::string, Claimed> claims_;
   /* Releases made while etcd did not answer: key -> value written. */
   std::map<std::string, std::string> pendingDeletes_;
   std::vector<FleetEntry> view_;
   bool viewRead_ = false;
   bool stop_ = false;
   bool online_ = false;
   int64_t lease_ = 0;
   std::string lastError_;
   std::thread thread_;
   struct {
      uint64_t claims = 0, admitted = 0, unconfirmed = 0, conflicts = 0, takeovers = 0,
               releases = 0, leases = 0, errors = 0;
   } counters_;
};

/* The fleet's key value, and back. */
bool ParseFleetValue(const std::string &value, FleetBinding *binding, std::string *host);

} // namespace vigild

#endif /* VIGILD_FLEET_H */
