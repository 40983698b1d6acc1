/*
 * mgmt: calls a callback of the module's management interface by name, as
 * an operator's tool does through the platform's management channel, and
 * shows the output record decoded field by field and whole in hex.
 *
 * The interface is the newest one whose name begins with "PortVigil." (its
 * name carries the build); the callback ids and the sizes of both records
 * come from its signature, and must be those of vigil_mgmt.h.  The input
 * record is built from the arguments; the output record starts cleared to
 * zero, so that what the module leaves alone reads 0.  The names of a port
 * are passed as they are given: a port that the module can't find is its
 * answer, not a failure of the tool.
 */
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

#include "session.h"
#include "sim_mgmt.h"
#include "vigil_mgmt.h"

namespace vigilsim {

namespace {

const char *const kInterfacePrefix = "PortVigil.";

/* What the input record of a callback is made of. */
enum class Input { kPortKey, kDelRequest, kStatsRequest, kExpiry };

struct Callback {
   const char *name;
   uint32_t id;
   Input input;
   size_t inSize;
   size_t outSize;
};

const std::vector<Callback> &Callbacks() {
   static const std::vector<Callback> callbacks = {
      {"listVmi", VIGIL_MGMT_CB_LIST_VMI, Input::kPortKey, sizeof(VigilMgmtPortKey),
       sizeof(VigilMgmtVmiList)},
      {"listV6Vmi", VIGIL_MGMT_CB_LIST_V6VMI, Input::kPortKey, sizeof(VigilMgmtPortKey),
       sizeof(VigilMgmtVmiList)},
      {"getConfig", VIGIL_MGMT_CB_GET_CONFIG, Input::kPortKey, sizeof(VigilMgmtPortKey),
       sizeof(VigilMgmtConfig)},
      {"delVmi", VIGIL_MGMT_CB_DEL_VMI, Input::kDelRequest, sizeof(VigilMgmtDelRequest),
       sizeof(VigilMgmtStatus)},
      {"getStatsBatch", VIGIL_MGMT_CB_GET_STATS_BATCH, Input::kStatsRequest,
       sizeof(VigilMgmtStatsRequest), sizeof(VigilMgmtStatsBatch)},
      {"getWhiteList", VIGIL_MGMT_CB_GET_WHITE_LIST, Input::kPortKey,
       sizeof(VigilMgmtPortKey), sizeof(VigilMgmtWhiteList)},
      {"getIgnoreList", VIGIL_MGMT_CB_GET_IGNORE_LIST, Input::kPortKey,
       sizeof(VigilMgmtPortKey), sizeof(VigilMgmtIgnoreList)},
      {"getFilteredBpduMacs", VIGIL_MGMT_CB_GET_BPDU_MACS, Input::kPortKey,
       sizeof(VigilMgmtPortKey), sizeof(VigilMgmtBpduList)},
      {"delExpiry", VIGIL_MGMT_CB_DEL_EXPIRY, Input::kExpiry, sizeof(u8),
       sizeof(VigilMgmtStatus)},
   };
   return callbacks;
}

std::string CallbackNames() {
   std::string names;
   for (const Callback &cb : Callbacks()) names += (names.empty() ? "" : ", ") + std::string(cb.name);
   return names;
}

std::string Usage(const Callback &cb) {
   const std::string name = std::string("mgmt ") + cb.name;
   switch (cb.input) {
   case Input::kPortKey:
      return name + " switch=TEXT port=TEXT [raw=0|1]";
   case Input::kDelRequest:
      return name + " switch=TEXT port=TEXT op=N [methods=N | vlan=N mac=MAC ip=ADDR] [raw=0|1]";
   case Input::kStatsRequest:
      return name + " ports=SWITCH/PORT,... [numPorts=N] [raw=0|1]";
   case Input::kExpiry:
      return name + " value=N [raw=0|1]";
   }
   return name;
}

/* ------------------------------------------------------------ records in */

/* A name into its field of the port key: its bytes as given, a NUL behind
 * them when there is room; a name that fills the field has none. */
void PutName(char *field, size_t width, const std::string &text, const std::string &what) {
   if (text.size() > width) {
      throw ToolError("bad " + what + "=: at most " + std::to_string(width) + " bytes, '" +
                      text + "' has " + std::to_string(text.size()));
   }
   std::memset(field, 0, width);
   std::memcpy(field, text.data(), text.size());
}

VigilMgmtPortKey PortKey(const std::string &fabSwitch, const std::string &fabPort,
                         const std::string &switchWhat, const std::string &portWhat) {
   VigilMgmtPortKey key;
   PutName(key.fabSwitchId, sizeof key.fabSwitchId, fabSwitch, switchWhat);
   PutName(key.fabPortId, sizeof key.fabPortId, fabPort, portWhat);
   return key;
}

VigilMgmtPortKey KeyArgs(const Args &args, const Callback &cb) {
   if (!args.Has("switch") || !args.Has("port")) {
      throw ToolError(std::string(cb.name) + " names a port: usage: " + Usage(cb));
   }
   return PortKey(*args.Get("switch"), *args.Get("port"), "switch", "port");
}

template <typename T>
std::vector<uint8_t> BytesOf(const T &record) {
   std::vector<uint8_t> bytes(sizeof record);
   std::memcpy(bytes.data(), &record, sizeof record);
   return bytes;
}

/* op is required; methods= and the binding share their bytes, so only one
 * of them may be given.  Op 2 names a binding by its MAC and address (VLAN
 * 0 unless given), op 3 its methods; any other op is passed on with what is
 * given, for the module to answer. */
std::vector<uint8_t> DelRequest(const Args &args, const Callback &cb) {
   VigilMgmtDelRequest req;
   std::memset(&req, 0, sizeof req);
   req.key = KeyArgs(args, cb);
   if (!args.Has("op")) throw ToolError("delVmi needs op=: usage: " + Usage(cb));
   req.op = static_cast<u32>(args.Unsigned("op", 0, UINT32_MAX));
   bool binding = args.Has("vlan") || args.Has("mac") || args.Has("ip");
   if (binding && args.Has("methods")) {
      throw ToolError("methods= and vlan=, mac=, ip= share the request's bytes: give one or "
                      "the other");
   }
   if (req.op == VIGIL_MGMT_DEL_ONE && !(args.Has("mac") && args.Has("ip"))) {
      throw ToolError("delVmi op=2 names a binding: mac= and ip= (vlan= defaults to 0)");
   }
   if (req.op == VIGIL_MGMT_DEL_BY_METHOD && !args.Has("methods")) {
      throw ToolError("delVmi op=3 needs methods= (1 DHCP, 2 ARP, 4 ND, 8 DHCPv6)");
   }
   if (args.Has("methods")) {
      req.args.methods = static_cast<u32>(args.Unsigned("methods", 0, UINT32_MAX));
   }
   if (binding) {
      req.args.binding.vlanId = static_cast<u16>(args.Unsigned("vlan", 0, UINT16_MAX));
      if (args.Has("mac")) ParseMac(*args.Get("mac"), req.args.binding.mac);
      if (args.Has("ip")) {
         const std::string ip = *args.Get("ip");
         if (TryParseIpv4(ip, req.args.binding.ip)) {
            req.args.binding.isIpv6 = 0;
         } else if (TryParseIpv6(ip, req.args.binding.ip)) {
            req.args.binding.isIpv6 = 1;
         } else {
            throw ToolError("bad ip= '" + ip + "': an IPv4 or IPv6 address");
         }
      }
   }
   return BytesOf(req);
}

/* ports=SWITCH/PORT,... (each split at its first '/'; ports= alone asks for
 * none); numPorts= writes another count than the number of names, which
 * the module must refuse above 16. */
std::vector<uint8_t> StatsRequest(const Args &args, const Callback &cb,
                                  std::vector<std::string> *names, size_t *rows) {
   if (!args.Has("ports")) throw ToolError("getStatsBatch needs ports=: usage: " + Usage(cb));
   auto req = std::make_unique<VigilMgmtStatsRequest>();
   std::memset(req.get(), 0, sizeof *req);
   const std::string list = *args.Get("ports");
   size_t count = 0;
   for (size_t start = 0; !list.empty() && start <= list.size();) {
      size_t comma = list.find(',', start);
      std::string entry = list.substr(start, comma == std::string::npos ? std::string::npos
                                                                         : comma - start);
      size_t slash = entry.find('/');
      if (slash == std::string::npos) {
         throw ToolError("bad ports= entry '" + entry + "': SWITCH/PORT");
      }
      if (count == VIGIL_MGMT_MAX_STATS_PORTS) {
         throw ToolError("bad ports=: at most " + std::to_string(VIGIL_MGMT_MAX_STATS_PORTS) +
                         " ports (numPorts=N writes a larger count)");
      }
      req->keys[count] = PortKey(entry.substr(0, slash), entry.substr(slash + 1),
                                 "ports= switch", "ports= port");
      names->push_back(entry);
      count++;
      if (comma == std::string::npos) break;
      start = comma + 1;
   }
   uint64_t numPorts = args.Has("numPorts") ? args.Unsigned("numPorts", 0, UINT8_MAX) : count;
   req->numPorts = static_cast<u8>(numPorts);
   *rows = std::min<size_t>(numPorts, VIGIL_MGMT_MAX_STATS_PORTS);
   return BytesOf(*req);
}

/* ----------------------------------------------------------- records out */

/* Reads a field of a record at its offset. */
template <typename T>
T At(const uint8_t *record, size_t offset) {
   T value;
   std::memcpy(&value, record + offset, sizeof value);
   return value;
}

/* A text column: its bytes up to the first NUL, or the whole column. */
std::string Text(const uint8_t *record, size_t offset, size_t width) {
   const char *p = reinterpret_cast<const char *>(record + offset);
   return std::string(p, strnlen(p, width));
}

#define MGMT_TEXT(j, rec, Type, field) \
   (j)[#field] = Text((rec), offsetof(Type, field), sizeof(Type::field))
#define MGMT_NUMBER(j, rec, Type, field) \
   (j)[#field] = At<decltype(Type::field)>((rec), offsetof(Type, field))

/* Of an array of `capacity` rows, the `count` that the record says are
 * filled, never more than the array holds. */
size_t Rows(uint64_t count, size_t capacity) { return std::min<uint64_t>(count, capacity); }

Json V4Entry(const uint8_t *e) {
   Json j;
   MGMT_NUMBER(j, e, VigilMgmtV4Entry, index);
   MGMT_NUMBER(j, e, VigilMgmtV4Entry, vlanId);
   MGMT_TEXT(j, e, VigilMgmtV4Entry, mac);
   MGMT_TEXT(j, e, VigilMgmtV4Entry, ip);
   MGMT_TEXT(j, e, VigilMgmtV4Entry, method);
   MGMT_TEXT(j, e, VigilMgmtV4Entry, remaining);
   MGMT_TEXT(j, e, VigilMgmtV4Entry, clientMac);
   MGMT_TEXT(j, e, VigilMgmtV4Entry, clientIdLen);
   MGMT_TEXT(j, e, VigilMgmtV4Entry, server);
   MGMT_TEXT(j, e, VigilMgmtV4Entry, lease);
   return j;
}

Json V6Entry(const uint8_t *e) {
   Json j;
   MGMT_NUMBER(j, e, VigilMgmtV6Entry, index);
   MGMT_NUMBER(j, e, VigilMgmtV6Entry, vlanId);
   MGMT_TEXT(j, e, VigilMgmtV6Entry, mac);
   MGMT_TEXT(j, e, VigilMgmtV6Entry, ip);
   MGMT_TEXT(j, e, VigilMgmtV6Entry, method);
   MGMT_TEXT(j, e, VigilMgmtV6Entry, remaining);
   MGMT_TEXT(j, e, VigilMgmtV6Entry, iaId);
   MGMT_TEXT(j, e, VigilMgmtV6Entry, server);
   MGMT_TEXT(j, e, VigilMgmtV6Entry, validLifetime);
   MGMT_TEXT(j, e, VigilMgmtV6Entry, preferredLifetime);
   MGMT_NUMBER(j, e, VigilMgmtV6Entry, clientIdLen);
   MGMT_TEXT(j, e, VigilMgmtV6Entry, clientId);
   return j;
}

/* Both list callbacks fill one array of the record and count it in
 * numEntries; the other array has no row. */
Json VmiList(const uint8_t *r, bool v6) {
   using T = VigilMgmtVmiList;
   const uint32_t count = At<u32>(r, offsetof(T, numEntries));
   Json vmis = Json::array(), v6Vmis = Json::array();
   if (!v6) {
      for (size_t i = 0; i < Rows(count, VIGIL_MGMT_MAX_V4_ROWS); i++) {
         vmis.push_back(V4Entry(r + offsetof(T, vmis) + i * sizeof(VigilMgmtV4Entry)));
      }
   } else {
      for (size_t i = 0; i < Rows(count, VIGIL_MGMT_MAX_V6_ROWS); i++) {
         v6Vmis.push_back(V6Entry(r + offsetof(T, v6Vmis) + i * sizeof(VigilMgmtV6Entry)));
      }
   }
   Json j;
   j["vmis"] = vmis;
   j["v6Vmis"] = v6Vmis;
   j["numEntries"] = count;
   MGMT_NUMBER(j, r, T, status);
   return j;
}

Json Config(const uint8_t *r) {
   using T = VigilMgmtConfig;
   Json j;
   j["unused"] = HexText(r + offsetof(T, unused), sizeof(T::unused));
   MGMT_TEXT(j, r, T, features);
   MGMT_TEXT(j, r, T, rateLimits);
   MGMT_TEXT(j, r, T, delOnExpiry);
   MGMT_TEXT(j, r, T, v4Capacity);
   MGMT_TEXT(j, r, T, numVmis);
   MGMT_TEXT(j, r, T, arpLimit);
   MGMT_TEXT(j, r, T, numArpVmis);
   MGMT_TEXT(j, r, T, numExpiredVmis);
   MGMT_TEXT(j, r, T, dhcpLimit);
   MGMT_TEXT(j, r, T, numDhcpVmis);
   MGMT_TEXT(j, r, T, dhcpReqLimit);
   MGMT_TEXT(j, r, T, numDhcpReqs);
   MGMT_TEXT(j, r, T, numStaticVmis);
   MGMT_TEXT(j, r, T, totalClientIdLen);
   MGMT_TEXT(j, r, T, arpExpiry);
   MGMT_TEXT(j, r, T, v6Capacity);
   MGMT_TEXT(j, r, T, ndLimit);
   MGMT_TEXT(j, r, T, numNdEntries);
   MGMT_TEXT(j, r, T, numExpiredNdEntries);
   MGMT_TEXT(j, r, T, dhcpV6Limit);
   MGMT_TEXT(j, r, T, numDhcpV6Entries);
   MGMT_TEXT(j, r, T, dhcpV6ReqLimit);
   MGMT_TEXT(j, r, T, numDhcpV6Reqs);
   MGMT_TEXT(j, r, T, dhcpV6ReqBytes);
   MGMT_TEXT(j, r, T, dhcpV6ClientIdBytes);
   MGMT_TEXT(j, r, T, ndExpiry);
   MGMT_NUMBER(j, r, T, status);
   return j;
}

Json StatusRecord(const uint8_t *r) {
   Json j;
   MGMT_NUMBER(j, r, VigilMgmtStatus, status);
   return j;
}

/* The record has no count of its own: its rows are the ports asked for. */
Json StatsBatch(const uint8_t *r, size_t rows) {
   using T = VigilMgmtStatsBatch;
   Json ports = Json::array();
   for (size_t i = 0; i < rows; i++) {
      const uint8_t *p = r + offsetof(T, ports) + i * sizeof(VigilMgmtPortStats);
      Json counters = Json::array();
      for (size_t c = 0; c < 2 * VIGIL_NUM_STAT_COUNTERS; c++) {
         counters.push_back(At<u32>(p, offsetof(VigilMgmtPortStats, counters) + 4 * c));
      }
      Json port;
      port["counters"] = counters;
      MGMT_NUMBER(port, p, VigilMgmtPortStats, status);
      ports.push_back(port);
   }
   Json j;
   j["ports"] = ports;
   MGMT_NUMBER(j, r, T, status);
   return j;
}

Json ListRows(const uint8_t *rows, uint64_t count, size_t capacity) {
   Json list = Json::array();
   for (size_t i = 0; i < Rows(count, capacity); i++) {
      const uint8_t *row = rows + i * sizeof(VigilMgmtListRow);
      Json j;
      MGMT_TEXT(j, row, VigilMgmtListRow, vlan);
      MGMT_TEXT(j, row, VigilMgmtListRow, mac);
      MGMT_TEXT(j, row, VigilMgmtListRow, ip);
      list.push_back(j);
   }
   return list;
}

Json WhiteList(const uint8_t *r) {
   using T = VigilMgmtWhiteList;
   const uint32_t numSwitch = At<u32>(r, offsetof(T, numSwitchEntries));
   const uint32_t numPort = At<u32>(r, offsetof(T, numPortEntries));
   Json j;
   j["switchEntries"] = ListRows(r + offsetof(T, switchEntries), numSwitch, VIGIL_MGMT_MAX_WL_ROWS);
   j["numSwitchEntries"] = numSwitch;
   j["portEntries"] = ListRows(r + offsetof(T, portEntries), numPort, VIGIL_MGMT_MAX_WL_ROWS);
   j["numPortEntries"] = numPort;
   MGMT_NUMBER(j, r, T, status);
   return j;
}

Json IgnoreList(const uint8_t *r) {
   using T = VigilMgmtIgnoreList;
   const uint32_t count = At<u32>(r, offsetof(T, numEntries));
   Json j;
   j["entries"] = ListRows(r + offsetof(T, entries), count, VIGIL_MGMT_MAX_IL_ROWS);
   j["numEntries"] = count;
   MGMT_NUMBER(j, r, T, status);
   return j;
}

Json BpduList(const uint8_t *r) {
   using T = VigilMgmtBpduList;
   const u8 count = At<u8>(r, offsetof(T, numEntries));
   Json macs = Json::array();
   for (size_t i = 0; i < Rows(count, VIGIL_MGMT_MAX_BPDU_ROWS); i++) {
      macs.push_back(Text(r, offsetof(T, macs) + i * VIGIL_MGMT_BPDU_TEXT_LEN,
                          VIGIL_MGMT_BPDU_TEXT_LEN));
   }
   Json j;
   j["macs"] = macs;
   j["numEntries"] = count;
   MGMT_NUMBER(j, r, T, status);
   return j;
}

#undef MGMT_TEXT
#undef MGMT_NUMBER

Json DecodeRecord(const Callback &cb, const std::vector<uint8_t> &out, size_t statsRows) {
   const uint8_t *r = out.data();
   switch (cb.id) {
   case VIGIL_MGMT_CB_LIST_VMI: return VmiList(r, false);
   case VIGIL_MGMT_CB_LIST_V6VMI: return VmiList(r, true);
   case VIGIL_MGMT_CB_GET_CONFIG: return Config(r);
   case VIGIL_MGMT_CB_GET_STATS_BATCH: return StatsBatch(r, statsRows);
   case VIGIL_MGMT_CB_GET_WHITE_LIST: return WhiteList(r);
   case VIGIL_MGMT_CB_GET_IGNORE_LIST: return IgnoreList(r);
   case VIGIL_MGMT_CB_GET_BPDU_MACS: return BpduList(r);
   default: return StatusRecord(r); /* delVmi, delExpiry */
   }
}

/* The record's own status: every output record ends its fields with one. */
uint32_t RecordStatus(const Json &record) { return record["status"].get<uint32_t>(); }

/* ------------------------------------------------------------ the channel */

/* The newest interface of the module, by the prefix of its name. */
sim::MgmtInterfaceInfo FindInterface() {
   std::vector<sim::MgmtInterfaceInfo> interfaces = sim::MgmtInterfaces();
   for (auto it = interfaces.rbegin(); it != interfaces.rend(); ++it) {
      if (it->name.rfind(kInterfacePrefix, 0) == 0) return *it;
   }
   throw ToolError(std::string("no management interface named ") + kInterfacePrefix +
                   "<build> is open");
}

size_t DeclaredSize(const zek_MgmtCallbackInfo &info, uint32_t type) {
   for (uint32_t i = 0; i < info.numParams && i < ZEK_MGMT_MAX_PARAMS; i++) {
      if (info.paramTypes[i] == type) return info.paramSizes[i];
   }
   return 0;
}

/* The callback's entry of the signature, whose record sizes must be those
 * that vigilsim lays out. */
void CheckSignature(const sim::MgmtInterfaceInfo &iface, const Callback &cb) {
   const zek_MgmtCallbackInfo *found = nullptr;
   for (const zek_MgmtCallbackInfo &info : iface.callbacks) {
      if (info.callbackId == cb.id && found == nullptr) found = &info;
   }
   const std::string what = std::string(cb.name) + " (id " + HexNumber(cb.id) + ") of " +
                            iface.name;
   if (found == nullptr) throw ToolError("the interface has no callback " + what);
   size_t in = DeclaredSize(*found, ZEK_MGMT_PARAM_IN);
   size_t out = DeclaredSize(*found, ZEK_MGMT_PARAM_OUT);
   if (in != cb.inSize || out != cb.outSize) {
      throw ToolError(what + " declares records of " + std::to_string(in) + " and " +
                      std::to_string(out) + " bytes, not the " + std::to_string(cb.inSize) +
                      " and " + std::to_string(cb.outSize) + " that vigilsim lays out");
   }
}

} // namespace

void Session::CmdMgmt(const std::vector<Token> &t, Json &out) {
   if (t.size() < 2 || t[1].quoted) {
      throw ToolError("usage: mgmt NAME [switch=TEXT] [port=TEXT] [fields...] (NAME: " +
                      CallbackNames() + ")");
   }
   const Callback *cb = nullptr;
   for (const Callback &c : Callbacks()) {
      if (t[1].text == c.name) cb = &c;
   }
   if (cb == nullptr) {
      throw ToolError("unknown management callback '" + t[1].text + "' (callbacks: " +
                      CallbackNames() + ")");
   }
   std::set<std::string> allowed = {"raw"};
   switch (cb->input) {
   case Input::kPortKey: allowed.insert({"switch", "port"}); break;
   case Input::kDelRequest:
      allowed.insert({"switch", "port", "op", "methods", "vlan", "mac", "ip"});
      break;
   case Input::kStatsRequest: allowed.insert({"ports", "numPorts"}); break;
   case Input::kExpiry: allowed.insert("value"); break;
   }
   Args args = SplitArgs(std::string("mgmt ") + cb->name, t, 2, allowed);
   args.Expect(0, 0, Usage(*cb));
   const bool raw = args.Bool("raw", true);

   std::vector<uint8_t> in;
   std::vector<std::string> statsPorts;
   size_t statsRows = 0;
   switch (cb->input) {
   case Input::kPortKey: in = BytesOf(KeyArgs(args, *cb)); break;
   case Input::kDelRequest: in = DelRequest(args, *cb); break;
   case Input::kStatsRequest: in = StatsRequest(args, *cb, &statsPorts, &statsRows); break;
   case Input::kExpiry:
      if (!args.Has("value")) throw ToolError("delExpiry needs value=: usage: " + Usage(*cb));
      in = {static_cast<uint8_t>(args.Unsigned("value", 0, UINT8_MAX))};
      break;
   }
   if (module_ == nullptr) throw ToolError("no module is loaded");
   const sim::MgmtInterfaceInfo iface = FindInterface();
   CheckSignature(iface, *cb);

   WaitForInspection(out);
   std::vector<uint8_t> record(cb->outSize, 0);
   zek_Status returned = ZEK_OK;
   zek_Status channel = sim::MgmtCall(iface.name, cb->id, in, &record, &returned);
   if (channel != ZEK_OK) {
      throw ToolError("the management channel refused the call to " + std::string(cb->name) +
                      ": status " + HexNumber(channel));
   }
   Json decoded = DecodeRecord(*cb, record, statsRows);
   out["callback"] = cb->name;
   out["interface"] = iface.name;
   out["callbackId"] = cb->id;
   if (cb->input == Input::kStatsRequest) out["ports"] = statsPorts;
   out["returned"] = returned;
   out["status"] = RecordStatus(decoded);
   out["record"] = decoded;
   out["recordLen"] = record.size();
   if (raw) out["raw"] = HexText(record.data(), record.size());
}

} // namespace vigilsim
