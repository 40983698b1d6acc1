/*
 * A small client of etcd's v3 API through its JSON gateway (HTTP POST of
 * JSON bodies; keys and values in base64, 64-bit numbers as strings).  It
 * knows the calls the fleet needs: leases, ranges, and the transactions
 * that claim, take over and release one key.
 *
 * Every call tries the endpoints in turn, starting with the last one that
 * answered, with short timeouts, so one member down costs one failed
 * connection and a cluster down costs at most a second or so per call.
 * Not thread-safe: one client per thread.
 */
#ifndef VIGILD_ETCD_CLIENT_H
#define VIGILD_ETCD_CLIENT_H

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vigild {

struct EtcdKeyValue {
   std::string key;
   std::string value;
   int64_t modRevision = 0;
   int64_t lease = 0;
};

/* What a claim found. */
enum class EtcdClaim {
   Created,  /* the key was absent and is now ours */
   Held,     /* someone holds the key: see `holder` */
   Failed,   /* no endpoint answered, or the answer made no sense */
};

class EtcdClient {
 public:
   explicit EtcdClient(std::vector<std::string> endpoints);

   /* Milliseconds to wait for a connection and for an answer. */
   void SetTimeouts(int connectMs, int readMs);

   bool Grant(int ttlSeconds, int64_t *lease);
   /* False when no endpoint answered; *alive false when the lease is gone. */
   bool KeepAlive(int64_t lease, bool *alive);
   bool Revoke(int64_t lease);

   /* Creates `key` with `value` on `lease` if it does not exist; otherwise
    * gives the present key in *holder. */
   EtcdClaim CreateIfAbsent(const std::string &key, const std::string &value, int64_t lease,
                            EtcdKeyValue *holder);
   /* Replaces `key` if its modification revision is still `modRevision`;
    * *replaced false when someone changed it first. */
   bool ReplaceIfUnchanged(const std::string &key, int64_t modRevision, const std::string &value,
                           int64_t lease, bool *replaced);
   /* Deletes `key` if its value is still `value`; *deleted false when it
    * was gone or someone else's by then. */
   bool DeleteIfValue(const std::string &key, const std::string &value, bool *deleted);

   /* Every key under `prefix`, in key order. */
   bool RangePrefix(const std::string &prefix, std::vector<EtcdKeyValue> *out);

   /* The endpoint that answered last, for logs. */
   const std::string &LastEndpoint() const { return endpoints_[current_]; }
   const std::string &LastError() const { return lastError_; }

 private:
   bool Post(const std::string &path, const nlohmann::json &body, nlohmann::json *answer);

   std::vector<std::string> endpoints_;
   size_t current_ = 0;
   int connectMs_ = 300;
   int readMs_ = 1500;
   std::string lastError_;
};

std::string Base64Encode(const std::string &in);
/* False on a character outside the alphabet. */
bool Base64Decode(const std::string &in, std::string *out);

} // namespace vigild

#endif /* VIGILD_ETCD_CLIENT_H */
