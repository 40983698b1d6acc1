#include "policy.h"

#include <toml++/toml.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

#include "blobs.h"
#include "script.h"
#include "vigil_filter.h"

namespace vigild {

namespace {

/* A refusal: where, which key, what is wrong. */
struct Fault {
   uint32_t line = 0;
   std::string key;
   std::string what;
};

const std::map<std::string, uint32_t> &FeatureTable() {
   static const std::map<std::string, uint32_t> table = {
       {"switch-warden", VIGIL_FEAT_SWITCH_WARDEN},
       {"port-warden", VIGIL_FEAT_PORT_WARDEN},
       {"bpdu-filter", VIGIL_FEAT_BPDU_FILTER},
       {"non-ip-block", VIGIL_FEAT_NON_IP_BLOCK},
       {"dhcp-server-block", VIGIL_FEAT_DHCP_SERVER_BLOCK},
       {"dhcp-client-block", VIGIL_FEAT_DHCP_CLIENT_BLOCK},
       {"dhcpv6-server-block", VIGIL_FEAT_DHCPV6_SERVER_BLOCK},
       {"dhcpv6-client-block", VIGIL_FEAT_DHCPV6_CLIENT_BLOCK},
       {"ra-guard", VIGIL_FEAT_RA_GUARD},
   };
   return table;
}

const std::map<std::string, uint32_t> &RateLimitTable() {
   static const std::map<std::string, uint32_t> table = {
       {"tx-bcast", VIGIL_FEAT_TX_BCAST_LIMIT},
       {"rx-bcast", VIGIL_FEAT_RX_BCAST_LIMIT},
       {"tx-mcast", VIGIL_FEAT_TX_MCAST_LIMIT},
       {"rx-mcast", VIGIL_FEAT_RX_MCAST_LIMIT},
   };
   return table;
}

const std::vector<std::string> kDiscoveryNames = {"dhcp", "arp", "nd", "dhcpv6"};

uint32_t LineOf(const toml::node &node) { return node.source().begin.line; }

/* A key as it is written in the file: bare when it can be, else quoted. */
std::string KeyText(const std::string &key) {
   bool bare = !key.empty() && std::all_of(key.begin(), key.end(), [](char c) {
      return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
   });
   return bare ? key : "\"" + key + "\"";
}

std::string Quoted(const std::string &s) { return "\"" + s + "\""; }

std::string OneOf(const std::vector<std::string> &names) {
   std::string out;
   for (size_t i = 0; i < names.size(); i++) {
      if (i != 0) out += ", ";
      out += Quoted(names[i]);
   }
   return out;
}

template <typename Map>
std::vector<std::string> Keys(const Map &map) {
   std::vector<std::string> out;
   for (const auto &entry : map) out.push_back(entry.first);
   return out;
}

const toml::table &Table(const toml::node &node, const std::string &key) {
   const toml::table *t = node.as_table();
   if (t == nullptr) throw Fault{LineOf(node), key, "is not a table"};
   return *t;
}

bool Bool(const toml::node &node, const std::string &key) {
   std::optional<bool> v = node.value_exact<bool>();
   if (!v) throw Fault{LineOf(node), key, "is not true or false"};
   return *v;
}

std::string String(const toml::node &node, const std::string &key) {
   std::optional<std::string> v = node.value_exact<std::string>();
   if (!v) throw Fault{LineOf(node), key, "is not a string"};
   return *v;
}

uint32_t Unsigned(const toml::node &node, const std::string &key, int64_t min, int64_t max) {
   std::optional<int64_t> v = node.value_exact<int64_t>();
   if (!v) throw Fault{LineOf(node), key, "is not an integer"};
   if (*v < min || *v > max) {
      throw Fault{LineOf(node), key,
                  std::to_string(*v) + " is not between " + std::to_string(min) + " and " +
                      std::to_string(max)};
   }
   return static_cast<uint32_t>(*v);
}

/* An array of strings, each checked by `check` (which throws its own
 * fault text). */
template <typename Check>
std::vector<std::string> Strings(const toml::node &node, const std::string &key, Check check) {
   const toml::array *a = node.as_array();
   if (a == nullptr) throw Fault{LineOf(node), key, "is not an array"};
   std::vector<std::string> out;
   for (const toml::node &item : *a) {
      std::optional<std::string> s = item.value_exact<std::string>();
      if (!s) throw Fault{LineOf(item), key, "holds something that is not a string"};
      std::string error = check(*s, out);
      if (!error.empty()) throw Fault{LineOf(item), key, error};
      out.push_back(*s);
   }
   return out;
}

std::string CheckName(const std::string &s, const std::vector<std::string> &seen,
                      const std::vector<std::string> &names) {
   if (std::find(names.begin(), names.end(), s) == names.end()) {
      return Quoted(s) + " is not one of " + OneOf(names);
   }
   if (std::find(seen.begin(), seen.end(), s) != seen.end()) return Quoted(s) + " is given twice";
   return "";
}

/* One white list or ignore list entry in the ENTRIES syntax. */
std::string CheckEntry(const std::string &s) {
   if (s.find(';') != std::string::npos) return Quoted(s) + ": one entry per string";
   try {
      if (vigilsim::ParseEntryList(s).size() != 1) return Quoted(s) + " is not one entry";
   } catch (const vigilsim::ToolError &e) {
      return Quoted(s) + ": " + e.what();
   }
   return "";
}

std::string CheckMac(const std::string &s) {
   uint8_t mac[6];
   try {
      vigilsim::ParseMac(s, mac);
   } catch (const vigilsim::ToolError &) {
      return Quoted(s) + " is not a MAC address";
   }
   return "";
}

PortSettings ParsePortTable(const toml::table &table, const std::string &prefix) {
   PortSettings s;
   for (const auto &[k, node] : table) {
      std::string name(k.str());
      std::string key = prefix + "." + KeyText(name);
      if (name == "enabled") {
         s.enabled = Bool(node, key);
      } else if (name == "discovery") {
         s.discovery = Strings(node, key, [](const std::string &v, const auto &seen) {
            return CheckName(v, seen, kDiscoveryNames);
         });
      } else if (name == "expiry-minutes") {
         s.expiryMinutes = Unsigned(node, key, 1, UINT32_MAX);
      } else if (name == "features") {
         s.features = Strings(node, key, [](const std::string &v, const auto &seen) {
            return CheckName(v, seen, Keys(FeatureTable()));
         });
      } else if (name == "rate-limits") {
         const toml::table &limits = Table(node, key);
         std::map<std::string, uint32_t> out;
         for (const auto &[lk, lnode] : limits) {
            std::string lname(lk.str());
            std::string lkey = key + "." + KeyText(lname);
            if (RateLimitTable().count(lname) == 0) {
               throw Fault{lk.source().begin.line, lkey,
                           "unknown rate limit (one of " + OneOf(Keys(RateLimitTable())) + ")"};
            }
            out[lname] = Unsigned(lnode, lkey, 0, UINT32_MAX);
         }
         s.rateLimits = out;
      } else if (name == "bpdu-exclude") {
         s.bpduExclude = Strings(node, key, [](const std::string &v, const auto &) {
            return CheckMac(v);
         });
      } else if (name == "ignore") {
         s.ignore = Strings(node, key, [](const std::string &v, const auto &) {
            return CheckEntry(v);
         });
      } else if (name == "allow") {
         s.allow = Strings(node, key, [](const std::string &v, const auto &) {
            return CheckEntry(v);
         });
      } else if (name == "learn") {
         std::string v = String(node, key);
         if (v == "off") {
            s.learn = LearnMode::Off;
         } else if (v == "dhcp") {
            s.learn = LearnMode::Dhcp;
         } else if (v == "any") {
            s.learn = LearnMode::Any;
         } else {
            throw Fault{LineOf(node), key, Quoted(v) + " is not one of \"off\", \"dhcp\", \"any\""};
         }
      } else if (name == "share") {
         s.share = Bool(node, key);
      } else {
         throw Fault{k.source().begin.line, key, "unknown key"};
      }
   }
   return s;
}

bool ParsePortId(const std::string &text, uint32_t *id) {
   try {
      *id = static_cast<uint32_t>(vigilsim::ParseUnsigned(text, "port id", UINT32_MAX));
   } catch (const vigilsim::ToolError &) {
      return false;
   }
   return true;
}

FleetSettings ParseFleet(const toml::table &table) {
   FleetSettings f;
   f.present = true;
   bool haveEndpoints = false, haveHost = false;
   for (const auto &[k, node] : table) {
      std::string name(k.str());
      std::string key = "fleet." + KeyText(name);
      if (name == "endpoints") {
         f.endpoints = Strings(node, key, [](const std::string &v, const auto &) {
            bool url = v.rfind("http://", 0) == 0 || v.rfind("https://", 0) == 0;
            return url ? std::string() : Quoted(v) + " is not an http:// or https:// URL";
         });
         if (f.endpoints.empty()) throw Fault{LineOf(node), key, "is empty"};
         haveEndpoints = true;
      } else if (name == "host") {
         f.host = String(node, key);
         if (f.host.empty() || f.host.find('/') != std::string::npos) {
            throw Fault{LineOf(node), key, "is not a host name (not empty, no '/')"};
         }
         haveHost = true;
      } else if (name == "prefix") {
         f.prefix = String(node, key);
         if (f.prefix.empty() || f.prefix[0] != '/') {
            throw Fault{LineOf(node), key, "does not begin with '/'"};
         }
      } else if (name == "lease-seconds") {
         f.leaseSeconds = Unsigned(node, key, 1, 3600);
      } else {
         throw Fault{k.source().begin.line, key, "unknown key"};
      }
   }
   if (!haveEndpoints) throw Fault{LineOf(table), "fleet.endpoints", "is missing"};
   if (!haveHost) throw Fault{LineOf(table), "fleet.host", "is missing"};
   return f;
}

Policy ParseTables(const toml::table &root) {
   Policy p;
   for (const auto &[k, node] : root) {
      std::string name(k.str());
      uint32_t line = k.source().begin.line;
      if (name == "defaults") {
         p.defaults = ParsePortTable(Table(node, name), name);
      } else if (name == "port") {
         for (const auto &[pk, pnode] : Table(node, name)) {
            std::string key = "port." + KeyText(std::string(pk.str()));
            uint32_t id = 0;
            if (!ParsePortId(std::string(pk.str()), &id)) {
               throw Fault{pk.source().begin.line, key,
                           "is not a port id (decimal or 0x hexadecimal, 32 bits)"};
            }
            if (p.ports.count(id) != 0) {
               throw Fault{pk.source().begin.line, key, "names a port that another table names"};
            }
            p.ports[id] = ParsePortTable(Table(pnode, key), key);
         }
      } else if (name == "interface") {
         for (const auto &[ik, inode] : Table(node, name)) {
            std::string ifname(ik.str());
            std::string key = "interface." + KeyText(ifname);
            if (ifname.empty() || ifname.size() > 15 || ifname.find('/') != std::string::npos) {
               throw Fault{ik.source().begin.line, key, "is not an interface name"};
            }
            p.interfaces[ifname] = ParsePortTable(Table(inode, key), key);
         }
      } else if (name == "switch") {
         for (const auto &[sk, snode] : Table(node, name)) {
            std::string portset(sk.str());
            std::string key = "switch." + KeyText(portset);
            std::vector<std::string> allow;
            for (const auto &[ak, anode] : Table(snode, key)) {
               std::string akey = key + "." + KeyText(std::string(ak.str()));
               if (ak.str() != "allow") throw Fault{ak.source().begin.line, akey, "unknown key"};
               allow = Strings(anode, akey, [](const std::string &v, const auto &) {
                  return CheckEntry(v);
               });
            }
            p.switchAllow[portset] = allow;
         }
      } else if (name == "fleet") {
         p.fleet = ParseFleet(Table(node, name));
      } else {
         throw Fault{line, KeyText(name), "unknown key"};
      }
   }
   return p;
}

} // namespace

bool ParsePolicy(const std::string &text, const std::string &name, Policy *out,
                 std::string *error) {
   toml::table root;
   try {
      root = toml::parse(text, name);
   } catch (const toml::parse_error &e) {
      *error = name + ":" + std::to_string(e.source().begin.line) + ": " +
               std::string(e.description());
      return false;
   }
   try {
      Policy p = ParseTables(root);
      p.file = name;
      *out = std::move(p);
   } catch (const Fault &f) {
      *error = name + ":" + std::to_string(f.line) + ": " + f.key + ": " + f.what;
      return false;
   }
   return true;
}

bool LoadPolicy(const std::string &path, Policy *out, std::string *error) {
   std::ifstream in(path, std::ios::binary);
   if (!in) {
      *error = path + ": cannot be read";
      return false;
   }
   std::stringstream text;
   text << in.rdbuf();
   return ParsePolicy(text.str(), path, out, error);
}

EffectivePolicy Resolve(const Policy &policy, uint32_t port, const std::string &ifname) {
   /* The tables that apply, weakest first; each key from the last that
    * sets it. */
   std::vector<const PortSettings *> layers = {&policy.defaults};
   auto p = policy.ports.find(port);
   if (p != policy.ports.end()) layers.push_back(&p->second);
   if (!ifname.empty()) {
      auto i = policy.interfaces.find(ifname);
      if (i != policy.interfaces.end()) layers.push_back(&i->second);
   }
   EffectivePolicy e;
   /* The built-in values: those of the example in examples/policy.toml. */
   e.discovery = {"dhcp", "arp"};
   e.features = {"port-warden", "dhcp-server-block", "ra-guard"};
   e.rateLimits = {{"tx-bcast", 100}};
   for (const PortSettings *s : layers) {
      if (s->enabled) {
         e.managed = true;
         e.enabled = *s->enabled;
      }
      if (s->discovery) e.discovery = *s->discovery;
      if (s->expiryMinutes) e.expiryMinutes = *s->expiryMinutes;
      if (s->features) e.features = *s->features;
      if (s->rateLimits) e.rateLimits = *s->rateLimits;
      if (s->bpduExclude) e.bpduExclude = *s->bpduExclude;
      if (s->ignore) e.ignore = *s->ignore;
      if (s->allow) e.allow = *s->allow;
      if (s->learn) e.learn = *s->learn;
      if (s->share) e.share = *s->share;
   }
   return e;
}

const char *LearnModeName(LearnMode mode) {
   switch (mode) {
   case LearnMode::Off: return "off";
   case LearnMode::Dhcp: return "dhcp";
   case LearnMode::Any: return "any";
   }
   return "?";
}

PolicyJson EffectiveJson(const EffectivePolicy &p) {
   PolicyJson j;
   j["enabled"] = p.managed ? PolicyJson(p.enabled) : PolicyJson(nullptr);
   j["discovery"] = p.discovery;
   j["expiry-minutes"] = p.expiryMinutes;
   j["features"] = p.features;
   PolicyJson limits = PolicyJson::object();
   for (const auto &[name, value] : p.rateLimits) limits[name] = value;
   j["rate-limits"] = limits;
   j["bpdu-exclude"] = p.bpduExclude;
   j["ignore"] = p.ignore;
   j["allow"] = p.allow;
   j["learn"] = LearnModeName(p.learn);
   j["share"] = p.share;
   return j;
}

uint32_t FeatureBits(const EffectivePolicy &p) {
   uint32_t bits = 0;
   for (const std::string &f : p.features) bits |= FeatureTable().at(f);
   for (const auto &limit : p.rateLimits) bits |= RateLimitTable().at(limit.first);
   return bits;
}

} // namespace vigild
