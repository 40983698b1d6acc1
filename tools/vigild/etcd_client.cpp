#include "etcd_client.h"

#include <httplib.h>

#include <cstring>

namespace vigild {

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int64_t NumberOf(const nlohmann::json &j, const char *key) {
   if (!j.contains(key)) return 0;
   const auto &v = j[key];
   if (v.is_number_integer()) return v.get<int64_t>();
   if (v.is_string()) {
      try {
         return std::stoll(v.get<std::string>());
      } catch (...) {
         return 0;
      }
   }
   return 0;
}

bool KeyValueOf(const nlohmann::json &kv, EtcdKeyValue *out) {
   std::string key, value;
   if (!Base64Decode(kv.value("key", ""), &key) || !Base64Decode(kv.value("value", ""), &value))
      return false;
   out->key = key;
   out->value = value;
   out->modRevision = NumberOf(kv, "mod_revision");
   out->lease = NumberOf(kv, "lease");
   return true;
}

/* The end of the range of every key that starts with `prefix`. */
std::string PrefixEnd(std::string prefix) {
   while (!prefix.empty()) {
      unsigned char last = static_cast<unsigned char>(prefix.back());
      if (last < 0xff) {
         prefix.back() = static_cast<char>(last + 1);
         return prefix;
      }
      prefix.pop_back();
   }
   return std::string(1, '\0');
}

} // namespace

std::string Base64Encode(const std::string &in) {
   std::string out;
   out.reserve((in.size() + 2) / 3 * 4);
   size_t i = 0;
   for (; i + 2 < in.size(); i += 3) {
      uint32_t n = (uint8_t)in[i] << 16 | (uint8_t)in[i + 1] << 8 | (uint8_t)in[i + 2];
      out += kAlphabet[n >> 18];
      out += kAlphabet[(n >> 12) & 63];
      out += kAlphabet[(n >> 6) & 63];
      out += kAlphabet[n & 63];
   }
   if (i < in.size()) {
      uint32_t n = (uint8_t)in[i] << 16;
      if (i + 1 < in.size()) n |= (uint8_t)in[i + 1] << 8;
      out += kAlphabet[n >> 18];
      out += kAlphabet[(n >> 12) & 63];
      out += i + 1 < in.size() ? kAlphabet[(n >> 6) & 63] : '=';
      out += '=';
   }
   return out;
}

bool Base64Decode(const std::string &in, std::string *out) {
   out->clear();
   uint32_t acc = 0;
   int bits = 0;
   for (char c : in) {
      if (c == '=') break;
      const char *at = std::strchr(kAlphabet, c);
      if (c == '\0' || at == nullptr) return false;
      acc = acc << 6 | static_cast<uint32_t>(at - kAlphabet);
      bits += 6;
      if (bits >= 8) {
         bits -= 8;
         out->push_back(static_cast<char>((acc >> bits) & 0xff));
      }
   }
   return true;
}

EtcdClient::EtcdClient(std::vector<std::string> endpoints) : endpoints_(std::move(endpoints)) {
   if (endpoints_.empty()) endpoints_.push_back("http://127.0.0.1:2379");
}

void EtcdClient::SetTimeouts(int connectMs, int readMs) {
   connectMs_ = connectMs;
   readMs_ = readMs;
}

bool EtcdClient::Post(const std::string &path, const nlohmann::json &body, nlohmann::json *answer) {
   const std::string text = body.dump();
   for (size_t tried = 0; tried < endpoints_.size(); ++tried) {
      size_t at = (current_ + tried) % endpoints_.size();
      httplib::Client client(endpoints_[at]);
      client.set_connection_timeout(connectMs_ / 1000, (connectMs_ % 1000) * 1000);
      client.set_read_timeout(readMs_ / 1000, (readMs_ % 1000) * 1000);
      client.set_write_timeout(readMs_ / 1000, (readMs_ % 1000) * 1000);
      auto res = client.Post(path, text, "application/json");
      if (!res) {
         lastError_ = endpoints_[at] + ": " + httplib::to_string(res.error());
         continue;
      }
      if (res->status != 200) {
         lastError_ = endpoints_[at] + path + ": HTTP " + std::to_string(res->status) + " " + res->body;
         /* A member without a leader answers 503: another may do better. */
         continue;
      }
      nlohmann::json parsed = nlohmann::json::parse(res->body, nullptr, false);
      if (parsed.is_discarded() || !parsed.is_object()) {
         lastError_ = endpoints_[at] + path + ": an answer that is not JSON";
         continue;
      }
      current_ = at;
      *answer = std::move(parsed);
      return true;
   }
   return false;
}

bool EtcdClient::Grant(int ttlSeconds, int64_t *lease) {
   nlohmann::json answer;
   if (!Post("/v3/lease/grant", {{"TTL", ttlSeconds}, {"ID", 0}}, &answer)) return false;
   *lease = NumberOf(answer, "ID");
   if (*lease == 0) {
      lastError_ = "lease grant without an ID: " + answer.dump();
      return false;
   }
   return true;
}

bool EtcdClient::KeepAlive(int64_t lease, bool *alive) {
   nlohmann::json answer;
   if (!Post("/v3/lease/keepalive", {{"ID", std::to_string(lease)}}, &answer)) return false;
   /* The gateway wraps the stream's one answer in "result"; a lease that
    * is gone comes back with no TTL. */
   const nlohmann::json &result = answer.contains("result") ? answer["result"] : answer;
   *alive = NumberOf(result, "TTL") > 0;
   return true;
}

bool EtcdClient::Revoke(int64_t lease) {
   nlohmann::json answer;
   return Post("/v3/lease/revoke", {{"ID", std::to_string(lease)}}, &answer);
}

EtcdClaim EtcdClient::CreateIfAbsent(const std::string &key, const std::string &value,
                                     int64_t lease, EtcdKeyValue *holder) {
   const std::string k = Base64Encode(key);
   nlohmann::json body = {
       {"compare", {{{"key", k}, {"result", "EQUAL"}, {"target", "CREATE"}, {"create_revision", "0"}}}},
       {"success",
        {{{"request_put", {{"key", k}, {"value", Base64Encode(value)}, {"lease", std::to_string(lease)}}}}}},
       {"failure", {{{"request_range", {{"key", k}}}}}}};
   nlohmann::json answer;
   if (!Post("/v3/kv/txn", body, &answer)) return EtcdClaim::Failed;
   if (answer.value("succeeded", false)) return EtcdClaim::Created;
   const auto &responses = answer.value("responses", nlohmann::json::array());
   if (responses.empty() || !responses[0].contains("response_range")) {
      lastError_ = "a failed claim without the present key: " + answer.dump();
      return EtcdClaim::Failed;
   }
   const auto &kvs = responses[0]["response_range"].value("kvs", nlohmann::json::array());
   if (kvs.empty()) {
      /* Deleted between the compare and the range: the caller tries again. */
      lastError_ = "key vanished during the claim";
      return EtcdClaim::Failed;
   }
   return KeyValueOf(kvs[0], holder) ? EtcdClaim::Held : EtcdClaim::Failed;
}

bool EtcdClient::ReplaceIfUnchanged(const std::string &key, int64_t modRevision,
                                    const std::string &value, int64_t lease, bool *replaced) {
   const std::string k = Base64Encode(key);
   nlohmann::json body = {
       {"compare",
        {{{"key", k}, {"result", "EQUAL"}, {"target", "MOD"}, {"mod_revision", std::to_string(modRevision)}}}},
       {"success",
        {{{"request_put", {{"key", k}, {"value", Base64Encode(value)}, {"lease", std::to_string(lease)}}}}}}};
   nlohmann::json answer;
   if (!Post("/v3/kv/txn", body, &answer)) return false;
   *replaced = answer.value("succeeded", false);
   return true;
}

bool EtcdClient::DeleteIfValue(const std::string &key, const std::string &value, bool *deleted) {
   const std::string k = Base64Encode(key);
   nlohmann::json body = {
       {"compare", {{{"key", k}, {"result", "EQUAL"}, {"target", "VALUE"}, {"value", Base64Encode(value)}}}},
       {"success", {{{"request_delete_range", {{"key", k}}}}}}};
   nlohmann::json answer;
   if (!Post("/v3/kv/txn", body, &answer)) return false;
   *deleted = answer.value("succeeded", false);
   return true;
}

bool EtcdClient::RangePrefix(const std::string &prefix, std::vector<EtcdKeyValue> *out) {
   nlohmann::json answer;
   if (!Post("/v3/kv/range", {{"key", Base64Encode(prefix)}, {"range_end", Base64Encode(PrefixEnd(prefix))}},
             &answer))
      return false;
   out->clear();
   for (const auto &kv : answer.value("kvs", nlohmann::json::array())) {
      EtcdKeyValue item;
      if (KeyValueOf(kv, &item)) out->push_back(std::move(item));
   }
   return true;
}

} // namespace vigild
