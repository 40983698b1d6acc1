#include "text.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>

#include "script.h"
#include "sim_core.h"
#include "zek.h"

namespace vigilsim {

namespace {

const char *const kIndent = "    ";

/* Columns padded to their widest cell. */
class Table {
 public:
   /* Without headers, the table has rows only. */
   explicit Table(std::vector<std::string> headers = {}) {
      if (!headers.empty()) rows_.push_back(std::move(headers));
      headed_ = !rows_.empty();
   }
   void Row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
   bool Empty() const { return rows_.size() <= (headed_ ? 1u : 0u); }
   std::string Render() const {
      std::vector<size_t> width;
      for (const auto &row : rows_) {
         if (width.size() < row.size()) width.resize(row.size(), 0);
         for (size_t i = 0; i < row.size(); i++) width[i] = std::max(width[i], row[i].size());
      }
      std::string out;
      for (const auto &row : rows_) {
         std::string line = kIndent;
         for (size_t i = 0; i < row.size(); i++) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(width[i] - row[i].size() + 2, ' ');
         }
         out += line + "\n";
      }
      return out;
   }

 private:
   std::vector<std::vector<std::string>> rows_;
   bool headed_ = false;
};

std::string Str(const Json &v) {
   if (v.is_string()) return v.get<std::string>();
   if (v.is_null()) return "-";
   if (v.is_boolean()) return v.get<bool>() ? "yes" : "no";
   return v.dump();
}

std::string Hex(const Json &v) {
   return v.is_number() ? HexNumber(v.get<uint64_t>()) : Str(v);
}

std::string StatusText(const Json &v) {
   if (!v.is_number()) return Str(v);
   uint32_t status = v.get<uint32_t>();
   return HexNumber(status) + " (" + zek_StatusToString(status) + ")";
}

std::string MethodName(uint64_t method) {
   switch (method) {
   case 1: return "DHCP";
   case 2: return "ARP";
   case 4: return "static";
   case 8: return "ND";
   case 16: return "DHCPv6";
   default: return std::to_string(method);
   }
}

std::string Expiry(const Json &ts) {
   if (!ts.is_number()) return Str(ts);
   int64_t at = ts.get<int64_t>();
   if (at == 0) return "never";
   int64_t in = at - static_cast<int64_t>(sim::Now());
   return std::to_string(at) + (in >= 0 ? " (in " + std::to_string(in) + " s)"
                                        : " (" + std::to_string(-in) + " s ago)");
}

std::string Line(const std::string &text) { return kIndent + text + "\n"; }

/* Verdicts as runs: "1-10 forward", "11-50 drop". */
std::string VerdictTable(const Json &verdicts) {
   Table table({"frames", "verdict"});
   size_t n = verdicts.size();
   for (size_t i = 0; i < n;) {
      size_t j = i;
      while (j + 1 < n && verdicts[j + 1] == verdicts[i]) j++;
      table.Row({j == i ? std::to_string(i + 1)
                        : std::to_string(i + 1) + "-" + std::to_string(j + 1),
                 Str(verdicts[i])});
      i = j + 1;
   }
   return table.Render();
}

std::string Generic(const Json &r) {
   Table table;
   for (const auto &[key, value] : r.items()) {
      if (key == "cmd" || key == "ok") continue;
      if (key == "status") {
         table.Row({key, StatusText(value)});
      } else if (key == "portID") {
         table.Row({key, Hex(value)});
      } else {
         table.Row({key, value.is_structured() ? value.dump() : Str(value)});
      }
   }
   return table.Empty() ? Line("done") : table.Render();
}

std::string EntriesTable(const std::string &title, const Json &list) {
   if (list.empty()) return Line(title + ": none");
   Table table({"flags", "vlan", "mac", "ip", "prefixLen"});
   for (const Json &e : list) {
      table.Row({Hex(e["flags"]), Str(e["vlan"]), Str(e["mac"]), Str(e["ip"]),
                 Str(e["prefixLen"])});
   }
   return Line(title + ":") + table.Render();
}

std::string BindingsTable(const std::string &title, const Json &list) {
   if (list.empty()) return Line(title + ": none");
   Table table({"vlan", "mac", "ip", "method", "expires", "lease", "server", "clientId"});
   for (const Json &b : list) {
      table.Row({Str(b["vlanId"]), Str(b["mac"]), Str(b["ip"]),
                 MethodName(b["discMethod"].get<uint64_t>()), Expiry(b["expiryTs"]),
                 Str(b["leaseTime"]) + " s", Str(b["serverIp"]),
                 b["clientId"].get<std::string>().empty() ? "-" : Str(b["clientId"])});
   }
   return Line(title + ":") + table.Render();
}

/* The DHCPv6 fields read "-" for a binding of another method. */
std::string V6BindingsTable(const std::string &title, const Json &list) {
   if (list.empty()) return Line(title + ": none");
   Table table({"vlan", "mac", "ip", "method", "expires", "iaId", "valid", "preferred",
                "server", "clientId"});
   for (const Json &b : list) {
      bool dhcpV6 = b["discMethod"] == 16;
      auto field = [&](const char *key) { return dhcpV6 ? Str(b[key]) : std::string("-"); };
      table.Row({Str(b["vlanId"]), Str(b["mac"]), Str(b["ip"]),
                 MethodName(b["discMethod"].get<uint64_t>()), Expiry(b["expiryTs"]),
                 field("iaId"), dhcpV6 ? Str(b["validLifetime"]) + " s" : "-",
                 dhcpV6 ? Str(b["preferredLifetime"]) + " s" : "-", field("serverIp"),
                 b["clientId"].get<std::string>().empty() ? "-" : Str(b["clientId"])});
   }
   return Line(title + ":") + table.Render();
}

std::string V6RequestsTable(const Json &list) {
   if (list.empty()) return Line("pending DHCPv6 requests: none");
   Table table({"vlan", "mac", "type", "xid", "msgLen", "expires", "status", "retrans",
                "clientId"});
   for (const Json &q : list) {
      table.Row({Str(q["vlanId"]), Str(q["mac"]), Str(q["msgType"]), Hex(q["xid"]),
                 Str(q["msgLen"]), Expiry(q["expiryTs"]), Str(q["reqStatus"]),
                 Str(q["retransTimeout"]) + " s",
                 q["clientId"].get<std::string>().empty() ? "-" : Str(q["clientId"])});
   }
   return Line("pending DHCPv6 requests:") + table.Render();
}

std::string RequestsTable(const Json &list) {
   if (list.empty()) return Line("pending DHCP requests: none");
   Table table({"vlan", "xid", "chaddr", "expires", "clientId"});
   for (const Json &q : list) {
      table.Row({Str(q["vlanId"]), Hex(q["xid"]), Str(q["chaddr"]), Expiry(q["expiryTs"]),
                 q["clientId"].get<std::string>().empty() ? "-" : Str(q["clientId"])});
   }
   return Line("pending DHCP requests:") + table.Render();
}

std::string StatsTable(const Json &stats) {
   Table table({"counter", "value"});
   for (const auto &[key, value] : stats.items()) table.Row({key, Str(value)});
   return table.Render();
}

/* One column per port. */
std::string StatsText(const Json &ports) {
   if (ports.empty()) return Line("no port has a filter");
   std::vector<std::string> headers = {"counter"};
   for (const Json &p : ports) headers.push_back("port " + Hex(p["portID"]));
   Table table(headers);
   for (const auto &[key, value] : ports[0]["stats"].items()) {
      (void)value;
      std::vector<std::string> row = {key};
      for (const Json &p : ports) row.push_back(Str(p["stats"][key]));
      table.Row(row);
   }
   return table.Render();
}

bool IsHexField(const std::string &key) {
   return key == "featuresEnabled" || key == "discoveryFlags" || key == "bpduBitmap";
}

std::string LimiterTable(const Json &f, const std::vector<std::string> &names) {
   Table limiters({"limiter", "limit/s", "period", "count", "windowEnd"});
   for (const std::string &name : names) {
      const Json &l = f[name];
      limiters.Row({name, Str(l.value("limit", Json())), Str(l.value("periodSecs", Json())),
                    Str(l.value("count", Json())), Str(l.value("windowEnd", Json()))});
   }
   return Line("rate limiters:") + limiters.Render();
}

/* Some fields of the record, as `state PORTID FIELD...` chose them: the
 * scalars in one table, then each list, block or limiter as the whole view
 * shows it. */
std::string NarrowStateText(const Json &f) {
   std::string out;
   Table scalars;
   std::vector<std::string> limiters;
   std::string blocks;
   for (const auto &[key, value] : f.items()) {
      if (!value.is_structured()) {
         scalars.Row({key, IsHexField(key) ? Hex(value) : Str(value)});
      } else if (key == "vmiList" || key == "expiredVmiList") {
         blocks += BindingsTable(key, value);
      } else if (key == "v6VmiList" || key == "v6ExpiredNdList") {
         blocks += V6BindingsTable(key, value);
      } else if (key == "dhcpReqList") {
         blocks += RequestsTable(value);
      } else if (key == "dhcpV6ReqList") {
         blocks += V6RequestsTable(value);
      } else if (key == "switchWhiteList" || key == "portWhiteList" || key == "portIgnoreList") {
         blocks += EntriesTable(key, value);
      } else if (key == "stats") {
         blocks += Line("statistics:") + StatsTable(value);
      } else if (key.size() > 7 && key.compare(key.size() - 7, 7, "Limiter") == 0) {
         limiters.push_back(key);
      } else if (key == "chains") {
         scalars.Row({"chains", "in " + Str(value.value("input", Json())) + " / out " +
                                    Str(value.value("output", Json()))});
      } else {
         blocks += Line(key + ": " + value.dump());
      }
   }
   if (!scalars.Empty()) out += scalars.Render();
   out += blocks;
   if (!limiters.empty()) out += LimiterTable(f, limiters);
   return out;
}

/* One line per binding. */
std::string BindingsText(const Json &r) {
   const Json &list = r["bindings"];
   if (list.is_null()) return Line("port " + Hex(r["portID"]) + ": no filter");
   if (list.empty()) return Line("no bindings");
   Table table({"vlan", "mac", "ip", "method", "expires", "state", "details"});
   for (const Json &b : list) {
      std::string details;
      for (const auto &[key, value] : b.items()) {
         if (key == "vlanId" || key == "mac" || key == "ip" || key == "discMethod" ||
             key == "expiryTs" || key == "expired") {
            continue;
         }
         details += (details.empty() ? "" : " ") + key + "=" + Str(value);
      }
      table.Row({Str(b["vlanId"]), Str(b["mac"]), Str(b["ip"]),
                 MethodName(b["discMethod"].get<uint64_t>()), Expiry(b["expiryTs"]),
                 b.value("expired", false) ? "expired" : "active",
                 details.empty() ? "-" : details});
   }
   return table.Render();
}

std::string StateText(const Json &r) {
   const Json &f = r["filter"];
   std::string out;
   if (f.is_null()) return Line("port " + Hex(r["portID"]) + ": no filter");
   if (!f.contains("portsetName") || !f.contains("stats") || !f.contains("chains")) {
      return NarrowStateText(f);
   }
   out += Line("port " + Hex(r["portID"]) + " on " + Str(f["portsetName"]) + ": features " +
               Hex(f["featuresEnabled"]) + ", discovery " + Hex(f["discoveryFlags"]) +
               ", chains in " + Str(f["chains"]["input"]) + " / out " +
               Str(f["chains"]["output"]));
   /* Scalars three to a row. */
   Table scalars;
   std::vector<std::string> row;
   for (const auto &[key, value] : f.items()) {
      if (value.is_structured() || key == "portsetName") continue;
      bool hex = IsHexField(key);
      row.push_back(key);
      row.push_back(hex ? Hex(value) : Str(value));
      if (row.size() == 6) {
         scalars.Row(row);
         row.clear();
      }
   }
   if (!row.empty()) scalars.Row(row);
   out += scalars.Render();
   out += BindingsTable("bindings", f["vmiList"]);
   if (!f["expiredVmiList"].empty()) out += BindingsTable("expired bindings", f["expiredVmiList"]);
   out += RequestsTable(f["dhcpReqList"]);
   out += V6BindingsTable("IPv6 bindings", f["v6VmiList"]);
   if (!f["v6ExpiredNdList"].empty()) {
      out += V6BindingsTable("expired IPv6 bindings", f["v6ExpiredNdList"]);
   }
   out += V6RequestsTable(f["dhcpV6ReqList"]);
   out += EntriesTable("switch white list", f["switchWhiteList"]);
   out += EntriesTable("port white list", f["portWhiteList"]);
   out += EntriesTable("port ignore list", f["portIgnoreList"]);
   out += LimiterTable(f, {"txBcastLimiter", "rxBcastLimiter", "txMcastLimiter", "rxMcastLimiter"});
   return out + Line("statistics:") + StatsTable(f["stats"]);
}

std::string MessagesText(const Json &r) {
   const Json &list = r["messages"];
   if (list.empty()) return Line("no messages");
   Table table({"portset", "port", "name", "op", "vlan", "mac", "ip", "bound", "method"});
   for (const Json &m : list) {
      table.Row({Str(m["portsetName"]), Hex(m["portID"]), Str(m["name"]),
                 m.value("op", 0u) == 0 ? "added" : "removed", Str(m.value("vlanId", Json()) ),
                 Str(m.value("mac", Json())), Str(m.value("ip", Json())),
                 Str(m.value("bound", Json())),
                 m.contains("discMethod") ? MethodName(m["discMethod"].get<uint64_t>()) : "-"});
   }
   return table.Render();
}

std::string LogsText(const Json &r) {
   std::string out;
   for (const Json &l : r["logs"]) {
      out += Line("[" + Str(l["level"]) + "] " + Str(l["log"]) + " " + Str(l["func"]) + ":" +
                  Str(l["lineNo"]) + " " + Str(l["text"]));
   }
   if (r["logs"].empty()) out += Line("no log lines");
   if (r["throttled"].get<uint64_t>() != 0) {
      out += Line(Str(r["throttled"]) + " messages held back by the throttle");
   }
   return out;
}

std::string FramesText(const Json &r) {
   const Json &v = r["verdicts"];
   size_t forwarded = std::count(v.begin(), v.end(), Json("forward"));
   std::string out = Line(std::to_string(v.size()) + " frames: " + std::to_string(forwarded) +
                          " forwarded, " + std::to_string(v.size() - forwarded) + " dropped" +
                          (r["status"].get<uint32_t>() != 0 ? ", chain status " +
                                                                  StatusText(r["status"])
                                                            : ""));
   return out + VerdictTable(v);
}

std::string CheckText(const Json &r) {
   if (r["violations"].empty()) {
      return Line("all invariants hold (" + Str(r["filters"]) + " filters checked)");
   }
   std::string out;
   for (const Json &v : r["violations"]) out += Line("violation: " + Str(v));
   return out;
}

std::string ModuleText(const Json &r) {
   std::string out;
   Table table;
   for (const auto &[key, value] : r.items()) {
      if (key == "cmd" || key == "ok" || key == "agingQueue") continue;
      table.Row({key, Str(value)});
   }
   out += table.Render();
   if (!r.contains("agingQueue")) return out;
   std::string queue;
   for (const Json &e : r["agingQueue"]) {
      queue += (queue.empty() ? "" : ", ") + Hex(e["portID"]) + " at " + Str(e["key"]);
   }
   return out + Line("agingQueue: " + (queue.empty() ? std::string("empty") : queue));
}

/* The answer of a port database call: its status, the count, and the
 * records of the buffer. */
std::string ApiText(const Json &r) {
   std::string out = Line("status " + StatusText(r["status"]) +
                          (r.contains("count") ? ", count " + Str(r["count"]) : ""));
   if (!r.contains("entries") || r["entries"].empty()) return out;
   Table table({"vlan", "mac", "ip", "bound", "method"});
   for (const Json &e : r["entries"]) {
      table.Row({Str(e["vlanId"]), Str(e["mac"]), Str(e["ip"]), Str(e["bound"]),
                 MethodName(e["discMethod"].get<uint64_t>())});
   }
   return out + table.Render();
}

/* The statistics block's counters, two words each, in the record's order. */
const char *const kStatNames[] = {
   "statWardenV4Drops",        "statWardenV6Drops",          "statWardenArpDrops",
   "statWardenNdDrops",        "statNonIpDrops",             "statV4VmiAddRefused",
   "statV6VmiAddRefused",      "statTxBcastRateDrops",       "statRxBcastRateDrops",
   "statTxMcastRateDrops",     "statRxMcastRateDrops",       "statDhcpServerBlockDrops",
   "statDhcpV6ServerBlockDrops", "statDhcpClientBlockDrops", "statDhcpV6ClientBlockDrops",
   "statRaGuardDrops",         "statBpduDrops",              "statDhcpChaddrDrops",
};

std::string ListRowsTable(const std::string &title, const Json &rows) {
   if (rows.empty()) return Line(title + ": none");
   Table table({"vlan", "mac", "ip"});
   for (const Json &row : rows) table.Row({Str(row["vlan"]), Str(row["mac"]), Str(row["ip"])});
   return Line(title + ":") + table.Render();
}

/* A management call: the record's status, then its fields as tables. */
std::string MgmtText(const Json &r) {
   const std::string callback = Str(r["callback"]);
   const Json &rec = r["record"];
   std::string out = Line(callback + " of " + Str(r["interface"]) + ": status " +
                          StatusText(r["status"]) +
                          (r["returned"] != 0 ? ", the callback returned " +
                                                    StatusText(r["returned"])
                                              : "") +
                          ", " + Str(r["recordLen"]) + "-byte record");
   if (callback == "listVmi") {
      if (rec["vmis"].empty()) return out + Line("no IPv4 bindings");
      Table table({"index", "vlan", "mac", "ip", "method", "remaining", "clientMac",
                   "clientIdLen", "server", "lease"});
      for (const Json &e : rec["vmis"]) {
         table.Row({Str(e["index"]), Str(e["vlanId"]), Str(e["mac"]), Str(e["ip"]),
                    Str(e["method"]), Str(e["remaining"]), Str(e["clientMac"]),
                    Str(e["clientIdLen"]), Str(e["server"]), Str(e["lease"])});
      }
      return out + table.Render();
   }
   if (callback == "listV6Vmi") {
      if (rec["v6Vmis"].empty()) return out + Line("no IPv6 bindings");
      Table table({"index", "vlan", "mac", "ip", "method", "remaining", "iaId", "server",
                   "valid", "preferred", "clientIdLen", "clientId"});
      for (const Json &e : rec["v6Vmis"]) {
         table.Row({Str(e["index"]), Str(e["vlanId"]), Str(e["mac"]), Str(e["ip"]),
                    Str(e["method"]), Str(e["remaining"]), Str(e["iaId"]), Str(e["server"]),
                    Str(e["validLifetime"]), Str(e["preferredLifetime"]),
                    Str(e["clientIdLen"]), Str(e["clientId"])});
      }
      return out + table.Render();
   }
   if (callback == "getConfig") {
      Table table;
      for (const auto &[key, value] : rec.items()) {
         if (key == "unused" || key == "status") continue;
         table.Row({key, Str(value)});
      }
      return out + table.Render();
   }
   if (callback == "getStatsBatch") {
      const Json &ports = rec["ports"];
      if (ports.empty()) return out + Line("no ports");
      std::vector<std::string> headers = {"counter"};
      for (size_t i = 0; i < ports.size(); i++) {
         headers.push_back(i < r["ports"].size() ? Str(r["ports"][i])
                                                 : "row " + std::to_string(i));
      }
      Table table(headers);
      std::vector<std::string> status = {"status"};
      for (const Json &p : ports) status.push_back(StatusText(p["status"]));
      table.Row(status);
      for (size_t c = 0; c < std::size(kStatNames); c++) {
         std::vector<std::string> row = {kStatNames[c]};
         for (const Json &p : ports) {
            uint64_t low = p["counters"][2 * c].get<uint64_t>();
            uint64_t high = p["counters"][2 * c + 1].get<uint64_t>();
            row.push_back(std::to_string(high << 32 | low));
         }
         table.Row(row);
      }
      return out + table.Render();
   }
   if (callback == "getWhiteList") {
      return out + ListRowsTable("switch white list", rec["switchEntries"]) +
             ListRowsTable("port white list", rec["portEntries"]);
   }
   if (callback == "getIgnoreList") return out + ListRowsTable("ignore list", rec["entries"]);
   if (callback == "getFilteredBpduMacs") {
      if (rec["macs"].empty()) return out + Line("no BPDU addresses filtered");
      std::string macs;
      for (const Json &m : rec["macs"]) macs += (macs.empty() ? "" : ", ") + Str(m);
      return out + Line("filtered BPDU addresses: " + macs);
   }
   return out; /* delVmi, delExpiry: the status is all */
}

/* Bytes given as hex, in rows of 16 led by their offset. */
std::string HexDump(const std::string &hex) {
   std::string out;
   const size_t n = hex.size() / 2;
   for (size_t row = 0; row < n; row += 16) {
      char offset[16];
      std::snprintf(offset, sizeof offset, "%04zx ", row);
      std::string line = offset;
      for (size_t i = row; i < std::min(n, row + 16); i++) line += " " + hex.substr(2 * i, 2);
      out += Line(line);
   }
   return out;
}

/* The size query and the save of migrate and save. */
std::string SavedText(const Json &r) {
   std::string out = "size " + Str(r["size"]);
   if (r.contains("sizeStatus") && r["sizeStatus"] != 0) {
      out += " (size query status " + StatusText(r["sizeStatus"]) + ")";
   }
   return Line(out + ", buffer of " + Str(r["bufLen"]) + " bytes, " + Str(r["dataLen"]) +
               " bytes saved, save status " + StatusText(r["saveStatus"]));
}

std::string MigrateText(const Json &r) {
   std::string out = Line("port " + Hex(r["src"]) + " to port " + Hex(r["dst"]) + " over " +
                          Str(r["carrier"]));
   out += SavedText(r);
   if (r["restoreStatus"].is_null()) {
      out += Line("nothing restored");
   } else {
      out += Line(Str(r["dataLen"]) + " bytes restored after " + Str(r["elapsedMS"]) +
                  " ms, status " + StatusText(r["restoreStatus"]));
   }
   return out + HexDump(r["buffer"].get<std::string>());
}

std::string RtmText(const Json &r) {
   std::string out = Line(std::string("service ") +
                          (r["announced"].get<bool>() ? "announced" : "withdrawn") +
                          ", version " + Str(r["version"]) + ", build " + Str(r["build"]));
   const Json &client = r["client"];
   if (client.is_null()) return out + Line("the module has no client");
   return out + Line("the module's client " + Str(client["name"]) +
                     (client["withOps"].get<bool>() ? ", with its operations"
                                                    : ", without operations"));
}

std::string UpgradeText(const Json &r) {
   std::string out = Line("status " + StatusText(r["status"]) +
                          (r["initResult"] == 0 ? ", the new copy runs"
                                                : ", the old copy stays: " + Str(r["reason"])));
   std::string ports;
   for (const Json &p : r["ports"]) ports += (ports.empty() ? "" : ", ") + Hex(p);
   out += Line("state carried for " + (ports.empty() ? std::string("no port") : "ports " + ports));
   if (!r["oldLeaks"].is_null()) {
      out += Line("the old copy's heap: " + Str(r["oldLeaks"]) + " leaks (" +
                  Str(r["oldLeakBytes"]) + " bytes)");
   }
   if (r["perPort"].empty()) return out;
   Table table({"port", "size", "saved", "restore", "elapsed"});
   for (const Json &p : r["perPort"]) {
      std::string size = Str(p["size"]);
      if (p["sizeStatus"] != 0) size = "status " + StatusText(p["sizeStatus"]);
      std::string saved = Str(p["dataLen"]);
      if (p["saveStatus"] != 0) saved = "status " + StatusText(p["saveStatus"]);
      table.Row({Hex(p["portID"]), size, saved, StatusText(p["restoreStatus"]),
                 Str(p["elapsedMS"]) + " ms"});
   }
   return out + table.Render();
}

std::string Body(const Json &r) {
   const std::string cmd = r["cmd"].get<std::string>();
   if (!r["ok"].get<bool>()) return Line("error: " + Str(r["error"]));
   std::string busy = r.value("busy", false) ? Line("(the worlds were still busy)") : "";
   if (cmd == "state") return busy + StateText(r);
   if (cmd == "bindings") return busy + BindingsText(r);
   if (cmd == "frame") {
      std::string out;
      for (const Json &f : r["frames"]) {
         out += Line(std::to_string(f.get<std::string>().size() / 2) + " bytes: " + Str(f));
      }
      return out;
   }
   if (cmd == "messages") return busy + MessagesText(r);
   if (cmd == "stats") return busy + StatsText(r["ports"]);
   if (cmd == "logs") return busy + LogsText(r);
   if (cmd == "tx" || cmd == "rx" || cmd == "replay") return FramesText(r);
   if (cmd == "check") return busy + CheckText(r);
   if (cmd == "module" || cmd == "module set") return busy + ModuleText(r);
   if (cmd == "api") return busy + ApiText(r);
   if (cmd == "mgmt") return busy + MgmtText(r);
   if (cmd == "migrate") return busy + MigrateText(r);
   if (cmd == "save") {
      return busy + Line("port " + Hex(r["portID"]) + " over " + Str(r["carrier"]) + " to " +
                         Str(r["file"])) +
             SavedText(r);
   }
   if (cmd == "restore") {
      return busy + Line("port " + Hex(r["portID"]) + " over " + Str(r["carrier"]) + ": " +
                         Str(r["bufLen"]) + " bytes after " + Str(r["elapsedMS"]) +
                         " ms, status " + StatusText(r["status"]));
   }
   if (cmd == "rtm") return RtmText(r);
   if (cmd == "upgrade") return UpgradeText(r);
   if (cmd == "advance") return Line("uptime " + Str(r["uptime"]) + " s");
   if (cmd == "load") {
      return Line("module loaded, start answered " + Str(r["status"]));
   }
   if (cmd == "security" || cmd == "discovery" || cmd == "discovery6" ||
       cmd == "ignorelist") {
      return Line(Str(r["blobLen"]) + "-byte blob written, status " + StatusText(r["status"]));
   }
   if (cmd == "prop write" || cmd == "prop cleanup") {
      return Line("status " + StatusText(r["status"]));
   }
   return busy + Generic(r);
}

} // namespace

std::string RenderText(const std::string &line, const Json &result) {
   if (result["cmd"] == "echo" && result["ok"].get<bool>()) {
      return "\n" + result["text"].get<std::string>() + "\n";
   }
   std::string trimmed = line;
   trimmed.erase(0, trimmed.find_first_not_of(" \t"));
   return "> " + trimmed + "\n" + Body(result);
}

std::string RenderComment(const std::string &line, bool first) {
   std::string text = line.substr(line.find('#') + 1);
   if (!text.empty() && text[0] == ' ') text.erase(0, 1);
   return (first ? "\n" : "") + text + "\n";
}

} // namespace vigilsim
