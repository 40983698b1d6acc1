#include "views.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "zek.h"

namespace vigilctl {

namespace {

/* A field of a record as text: strings as they are, numbers in decimal,
 * anything missing as "-". */
std::string Cell(const Json &v) {
   if (v.is_null()) return "-";
   if (v.is_string()) return v.get<std::string>();
   return v.dump();
}

std::string Field(const Json &record, const char *name) {
   return record.contains(name) ? Cell(record[name]) : "-";
}

std::string Hex(uint64_t value) {
   char buf[32];
   std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(value));
   return buf;
}

std::string Lower(std::string text) {
   for (char &c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
   return text;
}

std::vector<std::string> Split(const std::string &text, char sep) {
   std::vector<std::string> parts;
   size_t start = 0;
   for (;;) {
      size_t at = text.find(sep, start);
      parts.push_back(text.substr(start, at == std::string::npos ? std::string::npos : at - start));
      if (at == std::string::npos) return parts;
      start = at + 1;
   }
}

const Json &Record(const Json &answer) {
   static const Json kEmpty = Json::object();
   return answer.contains("record") && answer["record"].is_object() ? answer["record"] : kEmpty;
}

const Json &Array(const Json &record, const char *name) {
   static const Json kEmpty = Json::array();
   return record.contains(name) && record[name].is_array() ? record[name] : kEmpty;
}

std::string Count(size_t n, const char *one, const char *many) {
   return std::to_string(n) + " " + (n == 1 ? one : many);
}

} // namespace

std::string Table(const std::vector<std::vector<std::string>> &rows, const std::string &indent) {
   std::vector<size_t> width;
   for (const auto &row : rows) {
      if (width.size() < row.size()) width.resize(row.size(), 0);
      for (size_t i = 0; i < row.size(); i++) width[i] = std::max(width[i], row[i].size());
   }
   std::string out;
   for (const auto &row : rows) {
      std::string line = indent;
      for (size_t i = 0; i < row.size(); i++) {
         line += row[i];
         if (i + 1 < row.size()) line += std::string(width[i] - row[i].size() + 2, ' ');
      }
      while (!line.empty() && line.back() == ' ') line.pop_back();
      out += line + "\n";
   }
   return out;
}

/* ------------------------------------------------------------- ports */

std::string PortRef::Label() const {
   std::string names = fabSwitch + "/" + fabPort;
   return byId ? "port " + Hex(id) + " (" + names + ")" : "port " + names;
}

std::string PortRef::Short() const { return byId ? Hex(id) : fabSwitch + "/" + fabPort; }

bool ParsePortId(const std::string &text, uint32_t *id) {
   std::string digits = text;
   int base = 10;
   if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
      digits = digits.substr(2);
      base = 16;
   }
   if (digits.empty() || digits.size() > 10) return false;
   uint64_t value = 0;
   for (char c : digits) {
      int d;
      if (c >= '0' && c <= '9') {
         d = c - '0';
      } else if (base == 16 && std::isxdigit(static_cast<unsigned char>(c))) {
         d = std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
      } else {
         return false;
      }
      value = value * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
   }
   if (value > UINT32_MAX) return false;
   *id = static_cast<uint32_t>(value);
   return true;
}

bool ParsePortRef(const std::string &text, PortRef *ref, std::string *error) {
   size_t slash = text.find('/');
   if (slash != std::string::npos) {
      ref->byId = false;
      ref->fabSwitch = text.substr(0, slash);
      ref->fabPort = text.substr(slash + 1);
      if (ref->fabSwitch.empty() || ref->fabPort.empty()) {
         *error = "bad port '" + text + "': SWITCH/PORT needs both names";
         return false;
      }
      return true;
   }
   if (!ParsePortId(text, &ref->id)) {
      *error = "bad port '" + text + "': a port id (16, 0x10) or SWITCH/PORT";
      return false;
   }
   ref->byId = true;
   return true;
}

bool ParseMethods(const std::string &text, uint32_t *bits, std::string *error) {
   *bits = 0;
   for (const std::string &word : Split(text, ',')) {
      std::string name = Lower(word);
      if (name == "dhcp") {
         *bits |= 0x1;
      } else if (name == "arp") {
         *bits |= 0x2;
      } else if (name == "nd") {
         *bits |= 0x4;
      } else if (name == "dhcpv6") {
         *bits |= 0x8;
      } else {
         *error = "bad method '" + word + "' in '" + text + "': dhcp, arp, nd or dhcpv6";
         return false;
      }
   }
   return true;
}

std::string MethodNames(uint32_t bits) {
   std::vector<std::string> names;
   if (bits & 0x1) names.push_back("DHCP");
   if (bits & 0x2) names.push_back("ARP");
   if (bits & 0x4) names.push_back("ND");
   if (bits & 0x8) names.push_back("DHCPv6");
   std::string out;
   for (size_t i = 0; i < names.size(); i++) {
      if (i > 0) out += i + 1 == names.size() ? " and " : ", ";
      out += names[i];
   }
   return out;
}

bool IsMac(const std::string &text) {
   if (text.size() != 17) return false;
   for (size_t i = 0; i < text.size(); i++) {
      char c = text[i];
      if (i % 3 == 2) {
         if (c != ':' && c != '-') return false;
      } else if (!std::isxdigit(static_cast<unsigned char>(c))) {
         return false;
      }
   }
   return true;
}

bool IsIp(const std::string &text) {
   unsigned char buf[16];
   return inet_pton(AF_INET, text.c_str(), buf) == 1 || inet_pton(AF_INET6, text.c_str(), buf) == 1;
}

std::string StatusText(uint64_t status) {
   if (status == 0) return "ok";
   return std::string(zek_StatusToString(static_cast<zek_Status>(status))) + " (" + Hex(status) +
          ")";
}

std::string CanonicalIp(const std::string &text) {
   size_t slash = text.find('/');
   std::string address = text.substr(0, slash);
   if (address.find(':') == std::string::npos) return text;
   unsigned char buf[16];
   char out[INET6_ADDRSTRLEN];
   if (inet_pton(AF_INET6, address.c_str(), buf) != 1 ||
       inet_ntop(AF_INET6, buf, out, sizeof out) == nullptr) {
      return text;
   }
   return std::string(out) + (slash == std::string::npos ? "" : text.substr(slash));
}

std::string FailureText(const std::string &label, const std::string &callback,
                        uint64_t status) {
   std::string out = label + ": " + StatusText(status);
   if (status == 0xbad0003u) {
      out += ": no such port on that switch, or the port has no filter";
   } else if (status == 0xbad0030u && callback == "getFilteredBpduMacs") {
      out += ": the BPDU filter is not on for this port";
   } else if (status == 0xbad0007u && callback == "getStatsBatch") {
      out += ": more ports than one request carries";
   }
   return out;
}

/* ------------------------------------------------------------- views */

std::string BindingsView(const std::string &label, const Json &answer, bool v6) {
   const Json &rows = Array(Record(answer), v6 ? "v6Vmis" : "vmis");
   const char *family = v6 ? "IPv6" : "IPv4";
   if (rows.empty()) return label + ": no " + family + " bindings\n";
   std::string out = label + ": " + std::to_string(rows.size()) + " " + family +
                     (rows.size() == 1 ? " binding\n" : " bindings\n");
   std::vector<std::vector<std::string>> table;
   if (!v6) {
      table.push_back({"#", "VLAN", "MAC", "IP", "METHOD", "REMAINING (s)", "CLIENT MAC",
                       "CLIENT ID LEN", "SERVER", "LEASE (s)"});
      for (const Json &e : rows) {
         table.push_back({Field(e, "index"), Field(e, "vlanId"), Field(e, "mac"),
                          CanonicalIp(Field(e, "ip")), Field(e, "method"), Field(e, "remaining"),
                          Field(e, "clientMac"), Field(e, "clientIdLen"),
                          CanonicalIp(Field(e, "server")), Field(e, "lease")});
      }
   } else {
      table.push_back({"#", "VLAN", "MAC", "IP", "METHOD", "REMAINING (s)", "IAID", "SERVER",
                       "VALID (s)", "PREFERRED (s)", "CLIENT ID LEN", "CLIENT ID"});
      for (const Json &e : rows) {
         table.push_back({Field(e, "index"), Field(e, "vlanId"), Field(e, "mac"),
                          CanonicalIp(Field(e, "ip")), Field(e, "method"), Field(e, "remaining"),
                          Field(e, "iaId"), CanonicalIp(Field(e, "server")),
                          Field(e, "validLifetime"), Field(e, "preferredLifetime"),
                          Field(e, "clientIdLen"), Field(e, "clientId")});
      }
   }
   return out + Table(table);
}

std::string ConfigView(const std::string &label, const Json &answer) {
   const Json &r = Record(answer);
   std::string out = label + ": configuration\n";
   std::vector<std::vector<std::string>> settings;
   /* The module writes the features as one text, each followed by a comma
    * (the last one too, but RA Guard): one per line here. */
   std::vector<std::string> features;
   for (const std::string &f : Split(Field(r, "features"), ',')) {
      if (!f.empty()) features.push_back(f);
   }
   if (features.empty()) features.push_back("-");
   for (size_t i = 0; i < features.size(); i++) {
      settings.push_back({i == 0 ? "features" : "", features[i]});
   }
   std::vector<std::string> limits;
   for (const std::string &l : Split(Field(r, "rateLimits"), ',')) {
      if (!l.empty()) limits.push_back(l);
   }
   if (limits.empty()) limits.push_back("-");
   for (size_t i = 0; i < limits.size(); i++) {
      settings.push_back({i == 0 ? "rate limits" : "", limits[i]});
   }
   std::string expiry = Field(r, "delOnExpiry");
   settings.push_back({"delete on expiry", expiry == "1" ? "on" : expiry == "0" ? "off" : expiry});
   settings.push_back({"ARP expiry", Field(r, "arpExpiry") + " s"});
   settings.push_back({"ND expiry", Field(r, "ndExpiry") + " s"});
   out += Table(settings);
   out += "\n";
   std::vector<std::vector<std::string>> db = {
       {"DATABASE", "IN USE", "LIMIT"},
       {"IPv4 bindings", Field(r, "numVmis"), Field(r, "v4Capacity")},
       {"  DHCP", Field(r, "numDhcpVmis"), Field(r, "dhcpLimit")},
       {"  ARP", Field(r, "numArpVmis"), Field(r, "arpLimit")},
       {"  expired ARP", Field(r, "numExpiredVmis"), ""},
       {"  static", Field(r, "numStaticVmis"), ""},
       {"DHCP requests", Field(r, "numDhcpReqs"), Field(r, "dhcpReqLimit")},
       {"DHCP client id bytes", Field(r, "totalClientIdLen"), ""},
       {"IPv6 bindings", "", Field(r, "v6Capacity")},
       {"  ND", Field(r, "numNdEntries"), Field(r, "ndLimit")},
       {"  expired ND", Field(r, "numExpiredNdEntries"), ""},
       {"  DHCPv6", Field(r, "numDhcpV6Entries"), Field(r, "dhcpV6Limit")},
       {"DHCPv6 requests", Field(r, "numDhcpV6Reqs"), Field(r, "dhcpV6ReqLimit")},
       {"DHCPv6 request bytes", Field(r, "dhcpV6ReqBytes"), ""},
       {"DHCPv6 client id bytes", Field(r, "dhcpV6ClientIdBytes"), ""},
   };
   return out + Table(db);
}

const std::vector<std::string> &StatNames() {
   static const std::vector<std::string> names = {
       "statWardenV4Drops",          "statWardenV6Drops",
       "statWardenArpDrops",         "statWardenNdDrops",
       "statNonIpDrops",             "statV4VmiAddRefused",
       "statV6VmiAddRefused",        "statTxBcastRateDrops",
       "statRxBcastRateDrops",       "statTxMcastRateDrops",
       "statRxMcastRateDrops",       "statDhcpServerBlockDrops",
       "statDhcpV6ServerBlockDrops", "statDhcpClientBlockDrops",
       "statDhcpV6ClientBlockDrops", "statRaGuardDrops",
       "statBpduDrops",              "statDhcpChaddrDrops",
   };
   return names;
}

namespace {

/* Counter c of a port's block: two words, the low one first. */
std::string Counter(const Json &port, size_t c) {
   const Json &words = Array(port, "counters");
   if (words.size() < 2 * c + 2 || !words[2 * c].is_number() || !words[2 * c + 1].is_number()) {
      return "-";
   }
   uint64_t low = words[2 * c].get<uint64_t>() & 0xffffffffu;
   uint64_t high = words[2 * c + 1].get<uint64_t>() & 0xffffffffu;
   return std::to_string(high << 32 | low);
}

} // namespace

std::string StatsView(const std::vector<std::string> &labels, const Json &answer, bool rows) {
   const Json &ports = Array(Record(answer), "ports");
   const std::vector<std::string> &names = StatNames();
   auto label = [&](size_t i) {
      return i < labels.size() ? labels[i] : "#" + std::to_string(i);
   };
   auto status = [&](const Json &p) {
      return p.contains("status") && p["status"].is_number() ? p["status"].get<uint64_t>() : 0;
   };
   if (ports.empty()) return "no ports\n";
   std::vector<std::vector<std::string>> table;
   if (rows) {
      table.push_back({"PORT", "COUNTER", "VALUE"});
      for (size_t i = 0; i < ports.size(); i++) {
         if (status(ports[i]) != 0) {
            table.push_back({label(i), "status", StatusText(status(ports[i]))});
            continue;
         }
         for (size_t c = 0; c < names.size(); c++) {
            table.push_back({label(i), names[c], Counter(ports[i], c)});
         }
      }
      return Table(table);
   }
   std::vector<std::string> head = {"COUNTER"};
   for (size_t i = 0; i < ports.size(); i++) head.push_back(label(i));
   table.push_back(head);
   bool anyFailed = false;
   for (const Json &p : ports) anyFailed = anyFailed || status(p) != 0;
   if (anyFailed) {
      std::vector<std::string> row = {"status"};
      for (const Json &p : ports) row.push_back(StatusText(status(p)));
      table.push_back(row);
   }
   for (size_t c = 0; c < names.size(); c++) {
      std::vector<std::string> row = {names[c]};
      for (const Json &p : ports) row.push_back(status(p) != 0 ? "-" : Counter(p, c));
      table.push_back(row);
   }
   return Table(table);
}

namespace {

void ListRows(std::vector<std::vector<std::string>> &table, const std::string &list,
              const Json &rows) {
   for (const Json &row : rows) {
      std::vector<std::string> cells;
      if (!list.empty()) cells.push_back(list);
      cells.push_back(Field(row, "vlan"));
      cells.push_back(Field(row, "mac"));
      cells.push_back(CanonicalIp(Field(row, "ip")));
      table.push_back(cells);
   }
}

} // namespace

std::string WhiteListView(const std::string &label, const Json &answer) {
   const Json &r = Record(answer);
   const Json &sw = Array(r, "switchEntries");
   const Json &port = Array(r, "portEntries");
   std::string out = label + ": " +
                     Count(sw.size(), "switch white list entry", "switch white list entries") +
                     ", " +
                     Count(port.size(), "port white list entry", "port white list entries") + "\n";
   if (sw.empty() && port.empty()) return out;
   std::vector<std::vector<std::string>> table = {{"LIST", "VLAN", "MAC", "IP"}};
   ListRows(table, "switch", sw);
   ListRows(table, "port", port);
   return out + Table(table);
}

std::string IgnoreListView(const std::string &label, const Json &answer) {
   const Json &rows = Array(Record(answer), "entries");
   if (rows.empty()) return label + ": the ignore list is empty\n";
   std::string out =
       label + ": " + Count(rows.size(), "ignore list entry", "ignore list entries") + "\n";
   std::vector<std::vector<std::string>> table = {{"VLAN", "MAC", "IP"}};
   ListRows(table, "", rows);
   return out + Table(table);
}

std::string BpduView(const std::string &label, const Json &answer) {
   const Json &macs = Array(Record(answer), "macs");
   if (macs.empty()) return label + ": no BPDU destinations filtered\n";
   std::string out = label + ": " +
                     Count(macs.size(), "BPDU destination filtered", "BPDU destinations filtered") +
                     "\n";
   std::vector<std::vector<std::string>> table = {{"#", "MAC"}};
   for (size_t i = 0; i < macs.size(); i++) table.push_back({std::to_string(i), Cell(macs[i])});
   return out + Table(table);
}

/* ------------------------------------------------------------ events */

std::string DiscMethodName(uint64_t method) {
   switch (method) {
   case 1: return "DHCP";
   case 2: return "ARP";
   case 4: return "static";
   case 8: return "ND";
   case 16: return "DHCPv6";
   default: return "method " + std::to_string(method);
   }
}

std::string EventLine(const Json &event, const std::string &clock) {
   std::string name = Field(event, "name");
   std::string what = name == "portdb.entry.added"     ? "added"
                      : name == "portdb.entry.removed" ? "removed"
                                                       : name;
   std::string port = event.contains("portID") && event["portID"].is_number()
                          ? Hex(event["portID"].get<uint64_t>())
                          : "-";
   std::string method = event.contains("discMethod") && event["discMethod"].is_number()
                            ? DiscMethodName(event["discMethod"].get<uint64_t>())
                            : "-";
   std::string flags;
   if (event.value("bound", 0) != 0) flags += " bound";
   if (event.value("gratuitous", 0) != 0) flags += " gratuitous";
   std::string where = "port " + port + " " + Field(event, "portsetName");
   char line[512];
   std::snprintf(line, sizeof line, "%s  %-7s  %-14s  vlan %-4s  %s  %-15s  %s%s",
                 clock.c_str(), what.c_str(), where.c_str(), Field(event, "vlanId").c_str(),
                 Field(event, "mac").c_str(), Field(event, "ip").c_str(), method.c_str(),
                 flags.c_str());
   std::string out = line;
   while (!out.empty() && out.back() == ' ') out.pop_back();
   return out;
}

/* ------------------------------------------------------------ the agent */

namespace {

std::string PortHex(const Json &v) {
   char buf[16];
   std::snprintf(buf, sizeof buf, "0x%llx",
                 static_cast<unsigned long long>(v.is_number() ? v.get<uint64_t>() : 0));
   return buf;
}

std::string ValueText(const Json &v) {
   if (v.is_null()) return "(not set: the port is left as it is)";
   if (v.is_string()) return v.get<std::string>();
   if (v.is_array()) {
      if (v.empty()) return "-";
      std::string out;
      for (const Json &item : v) out += (out.empty() ? "" : ", ") + ValueText(item);
      return out;
   }
   if (v.is_object()) {
      if (v.empty()) return "-";
      std::string out;
      for (const auto &item : v.items()) {
         out += (out.empty() ? "" : ", ") + item.key() + " " + ValueText(item.value());
      }
      return out;
   }
   return v.dump();
}

} // namespace

std::string ApplyView(const Json &answer) {
   std::string out = "applied " + answer.value("file", std::string("?")) + ": ";
   const Json &changed = answer.contains("changed") ? answer["changed"] : Json::array();
   if (changed.empty()) return out + "no port changed\n";
   std::string ports;
   for (const Json &p : changed) ports += (ports.empty() ? "" : ", ") + PortHex(p);
   return out + Count(changed.size(), "port changed", "ports changed") + ": " + ports + "\n";
}

std::string PolicyView(const Json &answer) {
   std::string file = answer.contains("file") && answer["file"].is_string()
                          ? "policy of " + answer["file"].get<std::string>()
                          : "no policy";
   std::string out = "port " + PortHex(answer["portID"]) + ": " + file + "\n";
   std::vector<std::vector<std::string>> rows;
   if (answer.contains("policy") && answer["policy"].is_object()) {
      for (const auto &item : answer["policy"].items()) {
         rows.push_back({item.key(), ValueText(item.value())});
      }
   }
   return out + Table(rows, "  ");
}

std::string ConflictsView(const Json &answer) {
   const Json &list = answer.contains("conflicts") ? answer["conflicts"] : Json::array();
   std::string out = Count(list.size(), "conflict", "conflicts") + "\n";
   if (list.empty()) return out;
   std::vector<std::vector<std::string>> rows = {
       {"PORT", "VLAN", "IP", "MAC", "HELD BY PORT", "HELD BY MAC", "HOST"}};
   for (const Json &c : list) {
      const Json &h = c["heldBy"];
      rows.push_back({PortHex(c["portID"]), ValueText(c["vlanId"]), ValueText(c["ip"]),
                      ValueText(c["mac"]), PortHex(h["portID"]), ValueText(h["mac"]),
                      h.contains("host") ? ValueText(h["host"]) : "-"});
   }
   return out + Table(rows);
}

std::string AgentView(const Json &answer) {
   std::string out = "agent: " + (answer.contains("policy") && answer["policy"].is_string()
                                      ? "policy " + answer["policy"].get<std::string>()
                                      : std::string("no policy")) +
                     "\n";
   std::vector<std::vector<std::string>> rows;
   for (const auto &item : answer.items()) {
      if (item.key() == "cmd" || item.key() == "ok" || item.key() == "policy") continue;
      rows.push_back({item.key(), ValueText(item.value())});
   }
   return out + Table(rows, "  ");
}

std::string FleetBindingsView(const Json &answer) {
   const Json &list = answer.contains("bindings") ? answer["bindings"] : Json::array();
   std::string out = Count(list.size(), "fleet binding", "fleet bindings") + "\n";
   if (list.empty()) return out;
   std::vector<std::vector<std::string>> rows = {
       {"VLAN", "IP", "MAC", "HOST", "PORT", "METHOD", "EXPIRY"}};
   for (const Json &b : list) {
      rows.push_back({ValueText(b["vlanId"]), ValueText(b["ip"]), ValueText(b["mac"]),
                      ValueText(b["host"]), PortHex(b["portID"]), ValueText(b["method"]),
                      ValueText(b["expiryTs"])});
   }
   return out + Table(rows);
}

bool AgentAnswerText(const Json &answer, std::string *text) {
   std::string cmd = answer.value("cmd", std::string());
   if (cmd == "apply") {
      *text = ApplyView(answer);
   } else if (cmd == "policy") {
      *text = PolicyView(answer);
   } else if (cmd == "conflicts") {
      *text = ConflictsView(answer);
   } else if (cmd == "agent") {
      *text = AgentView(answer);
   } else if (cmd == "fleet") {
      *text = FleetBindingsView(answer);
   } else {
      return false;
   }
   return true;
}

} // namespace vigilctl
