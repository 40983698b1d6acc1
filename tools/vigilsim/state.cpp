#include "state.h"

#include <cstring>

#include "script.h"
#include "vigil_dhcp.h"
#include "vigil_filter.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_whitelist.h"
#include "vigil_workers.h"

namespace vigilsim {

namespace {

/* Bounds every list walk, so that a broken list cannot hang the tool. */
constexpr size_t kMaxListWalk = 1u << 20;

std::string BytesOrEmpty(const u8 *bytes, size_t len) {
   return bytes == nullptr ? std::string() : HexText(bytes, len);
}

Json VmiJson(const VigilVmi *vmi) {
   Json j;
   j["vlanId"] = vmi->vlanId;
   j["mac"] = MacText(vmi->mac);
   j["ip"] = Ipv4Text(reinterpret_cast<const uint8_t *>(&vmi->ip));
   j["discMethod"] = vmi->discMethod;
   j["expiryTs"] = vmi->expiryTs;
   j["clientMac"] = MacText(vmi->clientMac);
   j["clientIdLen"] = vmi->clientIdLen;
   j["clientId"] = BytesOrEmpty(vmi->clientIdStr, vmi->clientIdLen);
   j["serverIp"] = Ipv4Text(reinterpret_cast<const uint8_t *>(&vmi->serverIp));
   j["leaseTime"] = vmi->leaseTime;
   j["gratuitous"] = vmi->gratuitous;
   return j;
}

Json DhcpReqJson(const VigilDhcpReq *req) {
   Json j;
   j["vlanId"] = req->vlanId;
   j["xid"] = VigilGetBe32(&req->xid); /* the wire bytes, read big-endian */
   j["chaddr"] = MacText(req->chaddr);
   j["clientIdLen"] = req->clientIdLen;
   j["clientId"] = BytesOrEmpty(req->clientIdStr, req->clientIdLen);
   j["expiryTs"] = req->expiryTs;
   return j;
}

Json V6VmiJson(const VigilV6Vmi *vmi) {
   Json j;
   j["vlanId"] = vmi->vlanId;
   j["mac"] = MacText(vmi->mac);
   j["ip"] = Ipv6Text(vmi->ip);
   j["discMethod"] = vmi->discMethod;
   j["expiryTs"] = vmi->expiryTs;
   j["iaId"] = vmi->iaId;
   j["serverIp"] = Ipv6Text(vmi->serverIp);
   j["validLifetime"] = vmi->validLifetime;
   j["preferredLifetime"] = vmi->preferredLifetime;
   j["clientIdLen"] = vmi->clientIdLen;
   j["clientId"] = BytesOrEmpty(vmi->clientId, vmi->clientIdLen);
   return j;
}

/* The message type and transaction id are the copy's first byte and the
 * three bytes behind it, read big-endian; null if the copy is too short. */
Json DhcpV6ReqJson(const VigilDhcpV6Req *req) {
   const u8 *msg = req->msg;
   Json j;
   j["vlanId"] = req->vlanId;
   j["mac"] = MacText(req->mac);
   j["msgType"] = msg != nullptr && req->msgLen >= 1 ? Json(msg[0]) : Json(nullptr);
   j["xid"] = msg != nullptr && req->msgLen >= 4
                 ? Json((uint32_t)msg[1] << 16 | (uint32_t)msg[2] << 8 | msg[3])
                 : Json(nullptr);
   j["clientIdLen"] = req->clientIdLen;
   j["clientId"] = BytesOrEmpty(req->clientId, req->clientIdLen);
   j["msgLen"] = req->msgLen;
   j["expiryTs"] = req->expiryTs;
   j["reqStatus"] = req->reqStatus;
   j["retransTimeout"] = req->retransTimeout;
   return j;
}

/* Walks a list head, giving each element's links to `decode`. */
template <typename Decode>
Json ListJson(const VigilListLinks *head, Decode decode) {
   Json out = Json::array();
   if (head->next == nullptr) return out;
   size_t n = 0;
   for (const VigilListLinks *pos = head->next; pos != head && pos != nullptr;
        pos = pos->next) {
      if (++n > kMaxListWalk) break;
      out.push_back(decode(pos));
   }
   return out;
}

bool AllZero(const u8 *bytes, size_t len) {
   for (size_t i = 0; i < len; i++) {
      if (bytes[i] != 0) return false;
   }
   return true;
}

Json EntriesJson(const VigilWhiteListEntry *entries, u32 count) {
   Json out = Json::array();
   if (entries == nullptr) return out;
   for (u32 i = 0; i < count; i++) {
      const VigilWhiteListEntry &e = entries[i];
      bool v4 = (e.flags & VIGIL_WL_IPV4) != 0;
      bool v6 = (e.flags & VIGIL_WL_IPV6) != 0;
      bool asV6 = v6 ? !v4 || !AllZero(e.ip + 4, 12) : !v4 && !AllZero(e.ip + 4, 12);
      Json j;
      j["flags"] = e.flags;
      j["vlan"] = e.vlan;
      j["mac"] = MacText(e.mac);
      j["ip"] = asV6 ? Ipv6Text(e.ip) : Ipv4Text(e.ip);
      j["prefixLen"] = e.prefixLen;
      out.push_back(j);
   }
   return out;
}

Json LimiterJson(const VigilRateLimiter &l) {
   Json j;
   j["periodSecs"] = l.periodSecs;
   j["limit"] = l.limit;
   j["windowEnd"] = l.windowEnd;
   j["count"] = l.count;
   return j;
}

Json StatsJson(const VigilStats &s) {
   Json j;
#define VIGILSIM_STAT(name) j[#name] = static_cast<uint64_t>(s.name)
   VIGILSIM_STAT(statWardenV4Drops);
   VIGILSIM_STAT(statWardenV6Drops);
   VIGILSIM_STAT(statWardenArpDrops);
   VIGILSIM_STAT(statWardenNdDrops);
   VIGILSIM_STAT(statNonIpDrops);
   VIGILSIM_STAT(statV4VmiAddRefused);
   VIGILSIM_STAT(statV6VmiAddRefused);
   VIGILSIM_STAT(statTxBcastRateDrops);
   VIGILSIM_STAT(statRxBcastRateDrops);
   VIGILSIM_STAT(statTxMcastRateDrops);
   VIGILSIM_STAT(statRxMcastRateDrops);
   VIGILSIM_STAT(statDhcpServerBlockDrops);
   VIGILSIM_STAT(statDhcpV6ServerBlockDrops);
   VIGILSIM_STAT(statDhcpClientBlockDrops);
   VIGILSIM_STAT(statDhcpV6ClientBlockDrops);
   VIGILSIM_STAT(statRaGuardDrops);
   VIGILSIM_STAT(statBpduDrops);
   VIGILSIM_STAT(statDhcpChaddrDrops);
#undef VIGILSIM_STAT
   j["statStatusSlot"] = static_cast<uint32_t>(s.statStatusSlot);
   return j;
}

} // namespace

Json FilterJson(const VigilFilter *f) {
   if (f == nullptr) return nullptr;
   Json j;
#define VIGILSIM_FIELD(name) j[#name] = f->name
   VIGILSIM_FIELD(portID);
   VIGILSIM_FIELD(configWriteHeld);
   VIGILSIM_FIELD(configReadHolds);
   j["portsetName"] = std::string(f->portsetName, strnlen(f->portsetName, sizeof f->portsetName));
   VIGILSIM_FIELD(vnicType);
   VIGILSIM_FIELD(enableCleanedUp);
   VIGILSIM_FIELD(discoveryFlags);
   VIGILSIM_FIELD(retired);
   VIGILSIM_FIELD(numVmis);
   VIGILSIM_FIELD(numDhcpVmis);
   VIGILSIM_FIELD(numArpVmis);
   VIGILSIM_FIELD(numExpiredVmis);
   VIGILSIM_FIELD(numStaticVmis);
   VIGILSIM_FIELD(totalClientIdLen);
   VIGILSIM_FIELD(numDhcpReqs);
   VIGILSIM_FIELD(arpExpiry);
   VIGILSIM_FIELD(portDbArpEntriesSize);
   VIGILSIM_FIELD(numNdEntries);
   VIGILSIM_FIELD(numExpiredNdEntries);
   VIGILSIM_FIELD(numDhcpV6Entries);
   VIGILSIM_FIELD(dhcpV6ClientIdBytes);
   VIGILSIM_FIELD(numDhcpV6Reqs);
   VIGILSIM_FIELD(dhcpV6ReqBytes);
   VIGILSIM_FIELD(ndExpiry);
   VIGILSIM_FIELD(portDbNdEntriesSize);
   VIGILSIM_FIELD(portDbDhcpV6EntriesSize);
   VIGILSIM_FIELD(maxDhcpV6Reqs);
   VIGILSIM_FIELD(agingPortID);
   VIGILSIM_FIELD(agingKey);
   VIGILSIM_FIELD(portIgnoreListSize);
   VIGILSIM_FIELD(featuresEnabled);
   VIGILSIM_FIELD(rxBcastRateLimit);
   VIGILSIM_FIELD(txBcastRateLimit);
   VIGILSIM_FIELD(rxMcastRateLimit);
   VIGILSIM_FIELD(txMcastRateLimit);
   VIGILSIM_FIELD(switchWhiteListSize);
   VIGILSIM_FIELD(portWhiteListSize);
   VIGILSIM_FIELD(bpduExclusionListSize);
   VIGILSIM_FIELD(bpduBitmap);
#undef VIGILSIM_FIELD

   j["stats"] = StatsJson(f->stats);
   j["txBcastLimiter"] = LimiterJson(f->txBcastLimiter);
   j["rxBcastLimiter"] = LimiterJson(f->rxBcastLimiter);
   j["txMcastLimiter"] = LimiterJson(f->txMcastLimiter);
   j["rxMcastLimiter"] = LimiterJson(f->rxMcastLimiter);
   j["chains"] = Json{{"input", f->ioChainInput != nullptr},
                      {"output", f->ioChainOutput != nullptr}};

   j["vmiList"] = ListJson(&f->vmiList, [](const VigilListLinks *l) {
      return VmiJson(VIGIL_VMI_FROM_EXPIRY(l));
   });
   j["expiredVmiList"] = ListJson(&f->expiredVmiList, [](const VigilListLinks *l) {
      return VmiJson(VIGIL_VMI_FROM_EXPIRED(l));
   });
   j["dhcpReqList"] = ListJson(&f->dhcpReqList, [](const VigilListLinks *l) {
      return DhcpReqJson(VIGIL_DHCP_REQ_FROM_LINKS(l));
   });
   j["v6VmiList"] = ListJson(&f->v6VmiList, [](const VigilListLinks *l) {
      return V6VmiJson(VIGIL_V6VMI_FROM_EXPIRY(l));
   });
   j["v6ExpiredNdList"] = ListJson(&f->v6ExpiredNdList, [](const VigilListLinks *l) {
      return V6VmiJson(VIGIL_V6VMI_FROM_EXPIRED(l));
   });
   j["dhcpV6ReqList"] = ListJson(&f->dhcpV6ReqList, [](const VigilListLinks *l) {
      return DhcpV6ReqJson(VIGIL_DHCPV6_REQ_FROM_LINKS(l));
   });
   j["switchWhiteList"] = EntriesJson(f->switchWhiteList, f->switchWhiteListSize);
   j["portWhiteList"] = EntriesJson(f->portWhiteList, f->portWhiteListSize);
   j["portIgnoreList"] = EntriesJson(f->portIgnoreList, f->portIgnoreListSize);
   return j;
}

const Json &FilterFieldTemplate() {
   /* A record of zeros has every field, and empty lists. */
   static const Json fields = [] {
      std::vector<unsigned char> zeros(sizeof(VigilFilter), 0);
      return FilterJson(reinterpret_cast<const VigilFilter *>(zeros.data()));
   }();
   return fields;
}

Json SelectFilterFields(const Json &filter, const std::vector<std::string> &fields) {
   const Json &known = FilterFieldTemplate();
   Json out = Json::object();
   for (const std::string &field : fields) {
      size_t dot = field.find('.');
      std::string name = field.substr(0, dot);
      if (!known.contains(name)) {
         throw ToolError("unknown filter field '" + name + "' (state PORTID shows every field)");
      }
      if (dot == std::string::npos) {
         if (filter.is_object()) out[name] = filter[name];
         continue;
      }
      std::string sub = field.substr(dot + 1);
      if (!known[name].is_object() || !known[name].contains(sub)) {
         throw ToolError("unknown filter field '" + field + "'" +
                         (known[name].is_object() ? " (" + name + " has no field " + sub + ")"
                                                  : " (" + name + " has no fields of its own)"));
      }
      if (!filter.is_object()) continue;
      if (!out.contains(name) || !out[name].is_object()) out[name] = Json::object();
      out[name][sub] = filter[name][sub];
   }
   return filter.is_object() ? out : Json(nullptr);
}

namespace {

/* The fields of a binding beyond its key, expiry and method, in the
 * order of its record, with the methods they belong to. */
using BindingDetails = std::vector<std::pair<std::string, unsigned>>;
const BindingDetails kV4BindingDetails = {
   {"clientMac", VIGIL_DISC_DHCP},
   {"clientIdLen", VIGIL_DISC_DHCP},
   {"clientId", VIGIL_DISC_DHCP},
   {"serverIp", VIGIL_DISC_DHCP},
   {"leaseTime", VIGIL_DISC_DHCP},
   {"gratuitous", VIGIL_DISC_ARP},
};
const BindingDetails kV6BindingDetails = {
   {"iaId", VIGIL_DISC_DHCPV6},
   {"serverIp", VIGIL_DISC_DHCPV6},
   {"validLifetime", VIGIL_DISC_DHCPV6},
   {"preferredLifetime", VIGIL_DISC_DHCPV6},
   {"clientIdLen", VIGIL_DISC_DHCPV6},
   {"clientId", VIGIL_DISC_DHCPV6},
};

bool IsZero(const Json &v) {
   if (v.is_number()) return v == 0;
   if (v.is_boolean()) return !v.get<bool>();
   if (!v.is_string()) return v.is_null();
   const std::string &s = v.get_ref<const std::string &>();
   return s.empty() || s == "00:00:00:00:00:00" || s == "0.0.0.0" || s == "::";
}

Json BindingView(const Json &record, bool expired, const BindingDetails &details) {
   Json b;
   for (const char *key : {"vlanId", "mac", "ip", "discMethod", "expiryTs"}) b[key] = record[key];
   b["expired"] = expired;
   unsigned method = record["discMethod"].get<unsigned>();
   for (const auto &[key, methods] : details) {
      if (!record.contains(key)) continue;
      if ((methods & method) != 0 || !IsZero(record[key])) b[key] = record[key];
   }
   return b;
}

} // namespace

Json BindingsJson(const VigilFilter *f) {
   if (f == nullptr) return nullptr;
   Json all = FilterJson(f);
   Json out = Json::array();
   const std::pair<const char *, const BindingDetails *> lists[] = {
      {"vmiList", &kV4BindingDetails},
      {"v6VmiList", &kV6BindingDetails},
      {"expiredVmiList", &kV4BindingDetails},
      {"v6ExpiredNdList", &kV6BindingDetails},
   };
   for (const auto &[list, details] : lists) {
      bool expired = list == std::string("expiredVmiList") ||
                     list == std::string("v6ExpiredNdList");
      for (const Json &record : all[list]) out.push_back(BindingView(record, expired, *details));
   }
   return out;
}

Json PortDbEntryJson(const VigilPortDbEntry &e, bool withGratuitous) {
   Json j;
   j["vlanId"] = e.vlanId;
   j["mac"] = MacText(e.mac);
   j["isIpv4"] = e.isIpv4;
   j["ip"] = e.isIpv4 ? Ipv4Text(e.ip) : Ipv6Text(e.ip);
   j["bound"] = e.bound;
   if (withGratuitous) j["gratuitous"] = e.gratuitous;
   j["discMethod"] = e.discMethod;
   return j;
}

Json PortsetMessageJson(const sim::PortsetMessage &m) {
   Json j;
   j["portsetName"] = m.portset;
   j["portID"] = m.portID;
   j["name"] = m.name;
   if (m.bytes.size() >= sizeof(VigilPortsetMsg)) {
      VigilPortsetMsg msg;
      std::memcpy(&msg, m.bytes.data(), sizeof msg);
      j["op"] = static_cast<uint32_t>(msg.op);
      VigilPortDbEntry entry = msg.entry;
      j.update(PortDbEntryJson(entry, true));
   }
   j["raw"] = HexText(m.bytes.data(), m.bytes.size());
   return j;
}

Json LogLineJson(const sim::LogLine &line) {
   Json j;
   j["level"] = line.level;
   j["log"] = line.log;
   j["func"] = line.func;
   j["lineNo"] = line.lineNo;
   j["text"] = line.text;
   j["raw"] = line.raw;
   return j;
}

Json ObservationJson(const sim::Observation &o) {
   Json j;
   j["kind"] = o.isDrop ? "drop" : "io";
   j["raw"] = HexText(o.raw.data(), o.raw.size());
   if (!o.isDrop && o.raw.size() >= 36) {
      const uint8_t *r = o.raw.data();
      uint32_t direction, portID, vlan;
      std::memcpy(&direction, r + 0, 4);
      std::memcpy(&portID, r + 4, 4);
      std::memcpy(&vlan, r + 9, 4);
      j["direction"] = direction;
      j["portID"] = portID;
      j["valid"] = r[8];
      j["vlan"] = vlan;
      j["mac"] = MacText(r + 13);
      j["ip"] = HexText(r + 19, 16);
      j["prefixLen"] = r[35];
   }
   return j;
}

} // namespace vigilsim
