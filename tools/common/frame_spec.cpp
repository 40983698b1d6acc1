#include "frame_spec.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>

namespace frames {

namespace {

const char *const kSpecVmMac = "02:00:00:00:00:10";
const char *const kSpecServerMac = "02:00:00:00:00:01";
const char *const kSpecServerIp = "192.0.2.1";
const char *const kSpecVmIp = "192.0.2.50";
const char *const kBroadcastMac = "ff:ff:ff:ff:ff:ff";
const char *const kSpecVmLinkLocal = "fe80::ff:fe00:10";
const char *const kSpecServerLinkLocal = "fe80::ff:fe00:1";
const char *const kSpecVmIp6 = "2001:db8::50";
const char *const kSpecServerIp6 = "2001:db8::1";
const char *const kAllNodesMac = "33:33:00:00:00:01";
const char *const kAllNodes = "ff02::1";

/* How a key's value is read: for the errors and the flag shorthand. */
enum class Type { Mac, Ipv4, Ipv6, Number, Signed, Hex, Flag, Word, Option };

struct Key {
   const char *name;
   Type type;
   const char *def;
   const char *help;
};

class Values;

struct Kind {
   const char *name;
   const char *help;
   std::vector<Key> keys;
   std::function<Bytes(const Values &)> build;
};

int HexDigit(char c) {
   if (c >= '0' && c <= '9') return c - '0';
   if (c >= 'a' && c <= 'f') return c - 'a' + 10;
   if (c >= 'A' && c <= 'F') return c - 'A' + 10;
   return -1;
}

uint64_t ParseNumber(const std::string &text, uint64_t max, const std::string &what) {
   std::string digits = text;
   int base = 10;
   if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
      digits = digits.substr(2);
      base = 16;
   }
   if (digits.empty()) throw SpecError(what + ": '" + text + "' is not a number");
   uint64_t value = 0;
   for (char c : digits) {
      int d = HexDigit(c);
      if (d < 0 || d >= base) throw SpecError(what + ": '" + text + "' is not a number");
      if (value > (max - static_cast<uint64_t>(d)) / static_cast<uint64_t>(base)) {
         throw SpecError(what + ": '" + text + "' is more than " + std::to_string(max));
      }
      value = value * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
   }
   return value;
}

Bytes ParseHex(const std::string &text, const std::string &what) {
   Bytes out;
   int high = -1;
   for (char c : text) {
      if (c == ':' || c == '.' || c == '-' || c == '_') continue;
      int d = HexDigit(c);
      if (d < 0) throw SpecError(what + ": '" + std::string(1, c) + "' is not a hex digit");
      if (high < 0) {
         high = d;
      } else {
         out.push_back(static_cast<uint8_t>(high * 16 + d));
         high = -1;
      }
   }
   if (high >= 0) throw SpecError(what + ": an odd number of hex digits");
   return out;
}

/* The keys given in one spec, read through the kind's table. */
class Values {
 public:
   Values(const Kind &kind, std::map<std::string, std::vector<std::string>> given)
       : kind_(kind), given_(std::move(given)) {}

   bool Has(const std::string &key) const { return given_.count(key) != 0; }

   std::string Text(const std::string &key, const std::string &def) const {
      auto it = given_.find(key);
      return it == given_.end() ? def : it->second.back();
   }
   std::string Mac(const std::string &key, const std::string &def) const {
      std::string text = Text(key, def);
      unsigned v[6];
      char extra;
      if (text.size() != 17 || sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &v[0], &v[1],
                                      &v[2], &v[3], &v[4], &v[5], &extra) != 6) {
         throw SpecError(What(key) + ": '" + text + "' is not a MAC address (aa:bb:cc:dd:ee:ff)");
      }
      return text;
   }
   std::string Ipv4(const std::string &key, const std::string &def) const {
      std::string text = Text(key, def);
      uint8_t b[4];
      if (inet_pton(AF_INET, text.c_str(), b) != 1) {
         throw SpecError(What(key) + ": '" + text + "' is not an IPv4 address");
      }
      return text;
   }
   std::string Ipv6(const std::string &key, const std::string &def) const {
      std::string text = Text(key, def);
      uint8_t b[16];
      if (inet_pton(AF_INET6, text.c_str(), b) != 1) {
         throw SpecError(What(key) + ": '" + text + "' is not an IPv6 address");
      }
      return text;
   }
   uint64_t Number(const std::string &key, uint64_t def, uint64_t max) const {
      return Has(key) ? ParseNumber(Text(key, ""), max, What(key)) : def;
   }
   std::optional<uint64_t> MaybeNumber(const std::string &key, uint64_t max) const {
      if (!Has(key)) return std::nullopt;
      return ParseNumber(Text(key, ""), max, What(key));
   }
   /* A number that may be negative, from -max-1 to max. */
   int64_t Signed(const std::string &key, int64_t def, uint64_t max) const {
      if (!Has(key)) return def;
      std::string text = Text(key, "");
      bool negative = !text.empty() && text[0] == '-';
      uint64_t magnitude = ParseNumber(negative ? text.substr(1) : text, max + negative, What(key));
      return negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
   }
   Bytes Hex(const std::string &key, const Bytes &def = {}) const {
      return Has(key) ? ParseHex(Text(key, ""), What(key)) : def;
   }
   bool Flag(const std::string &key) const {
      if (!Has(key)) return false;
      std::string text = Text(key, "");
      if (text == "1") return true;
      if (text == "0") return false;
      throw SpecError(What(key) + ": '" + text + "' is neither 0 nor 1");
   }
   const std::vector<std::string> &All(const std::string &key) const {
      static const std::vector<std::string> none;
      auto it = given_.find(key);
      return it == given_.end() ? none : it->second;
   }
   std::string What(const std::string &key) const {
      return std::string(kind_.name) + " key " + key;
   }

 private:
   const Kind &kind_;
   std::map<std::string, std::vector<std::string>> given_;
};

/* The keys that address an IPv4 frame, shared by ipv4, udp4, tcp4, icmp4. */
std::vector<Key> Ipv4Keys(bool withProto) {
   std::vector<Key> keys = {
      {"src", Type::Mac, "02:00:00:00:00:10", "source MAC"},
      {"dst", Type::Mac, "02:00:00:00:00:01", "destination MAC"},
      {"sip", Type::Ipv4, "192.0.2.50", "source address"},
      {"dip", Type::Ipv4, "192.0.2.1", "destination address"},
   };
   if (withProto) {
      keys.push_back({"proto", Type::Number, "1",
                      "IP protocol: 17 adds a UDP header with the ports, 6 a TCP SYN, "
                      "1 an ICMP echo request, any other nothing"});
   }
   keys.push_back({"sport", Type::Number, "40000", "UDP or TCP source port"});
   keys.push_back({"dport", Type::Number, "80", "UDP or TCP destination port"});
   keys.push_back({"frag", Type::Number, "0", "the IPv4 flags and fragment offset word"});
   keys.push_back({"payload", Type::Hex, "none", "bytes behind the transport header"});
   return keys;
}

Bytes BuildIpv4(const Values &v, uint8_t proto) {
   std::string src = v.Mac("src", kSpecVmMac);
   std::string dst = v.Mac("dst", kSpecServerMac);
   Ipv4Fields ip;
   ip.sip = v.Ipv4("sip", kSpecVmIp);
   ip.dip = v.Ipv4("dip", kSpecServerIp);
   ip.proto = proto;
   ip.fragment = static_cast<uint16_t>(v.Number("frag", 0, 0xffff));
   uint16_t sport = static_cast<uint16_t>(v.Number("sport", 40000, 0xffff));
   uint16_t dport = static_cast<uint16_t>(v.Number("dport", 80, 0xffff));
   Bytes payload = v.Hex("payload");
   Bytes l4;
   if (proto == 17) {
      l4 = UdpSegment(sport, dport, payload);
   } else if (proto == 6) {
      l4 = TcpSegment(sport, dport, payload);
   } else if (proto == 1) {
      l4 = IcmpEcho(payload);
   } else {
      l4 = payload;
   }
   return Ipv4Frame(src, dst, ip, l4);
}

const std::map<std::string, int> kDhcpTypes = {
   {"discover", 1}, {"offer", 2}, {"request", 3}, {"decline", 4},
   {"ack", 5},      {"nak", 6},   {"release", 7}, {"inform", 8}};

Bytes BuildDhcp(const Values &v) {
   std::string typeText = v.Text("type", "discover");
   auto named = kDhcpTypes.find(typeText);
   int type = named != kDhcpTypes.end()
                  ? named->second
                  : static_cast<int>(ParseNumber(typeText, 255, v.What("type")));
   bool server = type == 2 || type == 5 || type == 6;
   std::string src = v.Mac("src", server ? kSpecServerMac : kSpecVmMac);
   std::string dst = v.Mac("dst", server ? kSpecVmMac : kBroadcastMac);
   Ipv4Fields ip;
   ip.sip = v.Ipv4("sip", server ? kSpecServerIp : "0.0.0.0");
   ip.dip = v.Ipv4("dip", server ? kSpecVmIp : "255.255.255.255");
   ip.proto = 17;
   ip.ident = 0;
   ip.fragment = static_cast<uint16_t>(v.Number("frag", 0, 0xffff));
   uint16_t sport = static_cast<uint16_t>(v.Number("sport", server ? 67 : 68, 0xffff));
   uint16_t dport = static_cast<uint16_t>(v.Number("dport", server ? 68 : 67, 0xffff));

   DhcpFields f;
   f.op = server ? 2 : 1;
   f.htype = static_cast<uint8_t>(v.Number("htype", 1, 255));
   f.hlen = static_cast<uint8_t>(v.Number("hlen", 6, 255));
   f.xid = static_cast<uint32_t>(v.Number("xid", 0x1001, 0xffffffff));
   f.ciaddr = v.Ipv4("ciaddr", "0.0.0.0");
   f.yiaddr = v.Ipv4("yiaddr", "0.0.0.0");
   f.siaddr = v.Ipv4("siaddr", "0.0.0.0");
   f.giaddr = v.Ipv4("giaddr", "0.0.0.0");
   f.chaddr = v.Mac("chaddr", kSpecVmMac);
   f.cookie = v.Hex("cookie", {0x63, 0x82, 0x53, 0x63});
   f.msgType = v.Flag("no-type") ? -1 : type;
   f.clientId = v.Hex("client-id");
   if (v.Has("lease-hex")) {
      f.leaseBytes = v.Hex("lease-hex");
      if (f.leaseBytes.empty()) throw SpecError(v.What("lease-hex") + ": no bytes");
   } else {
      f.leaseTime = v.Signed("lease", type == 2 || type == 5 ? 120 : -1, 0xffffffff);
   }
   std::string serverId = v.Text("server-id", server ? ip.sip : "none");
   if (serverId != "none") f.serverId = v.Ipv4("server-id", serverId);
   for (const std::string &opt : v.All("opt")) {
      size_t eq = opt.find('=');
      if (eq == std::string::npos) {
         throw SpecError(v.What("opt") + ": '" + opt + "' is not CODE=HEX");
      }
      f.extra.emplace_back(static_cast<uint8_t>(ParseNumber(opt.substr(0, eq), 255, v.What("opt"))),
                           ParseHex(opt.substr(eq + 1), v.What("opt")));
   }
   f.end = !v.Flag("no-end");
   if (v.Has("raw-opts")) f.rawOptions = v.Hex("raw-opts");
   f.minLen = v.Flag("no-pad") ? 0 : 300;
   Bytes payload = DhcpPayload(f);
   std::optional<uint64_t> ulen = v.MaybeNumber("ulen", 0xffff);
   Bytes udp = UdpSegment(sport, dport, payload,
                          ulen ? std::optional<uint16_t>(static_cast<uint16_t>(*ulen))
                               : std::nullopt);
   return Ipv4Frame(src, dst, ip, udp);
}

Bytes BuildArp(const Values &v) {
   std::string opText = v.Text("op", "request");
   ArpFields f;
   f.op = opText == "request" ? 1
          : opText == "reply" ? 2
                              : static_cast<uint16_t>(ParseNumber(opText, 0xffff, v.What("op")));
   bool request = f.op == 1;
   std::string src = v.Mac("src", kSpecVmMac);
   std::string dst = v.Mac("dst", request ? kBroadcastMac : kSpecServerMac);
   f.sha = v.Mac("sha", src);
   f.tha = v.Mac("tha", request ? "00:00:00:00:00:00" : kSpecServerMac);
   f.spa = v.Ipv4("spa", kSpecVmIp);
   f.tpa = v.Ipv4("tpa", kSpecServerIp);
   f.htype = static_cast<uint16_t>(v.Number("htype", 1, 0xffff));
   f.ptype = static_cast<uint16_t>(v.Number("ptype", 0x0800, 0xffff));
   f.hlen = static_cast<uint8_t>(v.Number("hlen", 6, 255));
   f.plen = static_cast<uint8_t>(v.Number("plen", 4, 255));
   std::optional<uint64_t> cut = v.MaybeNumber("cut", 0xffff);
   return ArpFrame(src, dst, f, cut ? std::optional<size_t>(*cut) : std::nullopt);
}

std::string MacText(const Bytes &b) {
   char text[18];
   snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
   return text;
}

Bytes MacBytes(const std::string &text) {
   unsigned v[6];
   sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]);
   Bytes b;
   for (unsigned x : v) b.push_back(static_cast<uint8_t>(x));
   return b;
}

void PutBe(Bytes &out, uint64_t value, int bytes) {
   for (int i = bytes - 1; i >= 0; i--) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

/* A link-layer address option's value: the MAC of `key` (default `def`),
 * or nothing for "none". */
std::optional<Bytes> LinkLayerOption(const Values &v, const std::string &key,
                                     const std::string &def) {
   std::string text = v.Text(key, def);
   if (text == "none") return std::nullopt;
   return MacBytes(v.Mac(key, text));
}

Ipv6Fields Ipv6Of(const Values &v, const std::string &sip, const std::string &dip,
                  uint8_t hopLimit) {
   Ipv6Fields ip;
   ip.sip = v.Ipv6("sip", sip);
   ip.dip = v.Ipv6("dip", dip);
   ip.hopLimit = static_cast<uint8_t>(v.Number("hlim", hopLimit, 255));
   return ip;
}

/* The IPv6 extension headers of `ext`: words joined by '+', in the order
 * they stand in the frame. */
std::vector<Ipv6Extension> ExtensionsOf(const Values &v) {
   std::string text = v.Text("ext", "none");
   std::vector<Ipv6Extension> exts;
   if (text == "none") return exts;
   size_t start = 0;
   for (;;) {
      size_t plus = text.find('+', start);
      std::string word = text.substr(start, plus == std::string::npos ? plus : plus - start);
      if (word == "hop") {
         exts.push_back(HopByHopOptions());
      } else if (word == "dst") {
         exts.push_back(DestinationOptions());
      } else if (word == "frag") {
         exts.push_back(FragmentHeader(0, false));
      } else if (word == "frag-first") {
         exts.push_back(FragmentHeader(0, true));
      } else if (word == "frag-later") {
         exts.push_back(FragmentHeader(1, false));
      } else {
         throw SpecError(v.What("ext") + ": '" + word +
                         "' is not hop, dst, frag, frag-first or frag-later");
      }
      if (plus == std::string::npos) return exts;
      start = plus + 1;
   }
}

/* The IPv6 frame with the extension headers of `ext`, if any. */
Bytes WithExtensions(const Values &v, const Bytes &frame) {
   std::vector<Ipv6Extension> exts = ExtensionsOf(v);
   return exts.empty() ? frame : WithIpv6Extensions(frame, exts);
}

Bytes BuildUdp6(const Values &v) {
   return WithExtensions(v, Udp6Frame(v.Mac("src", kSpecVmMac), v.Mac("dst", kSpecServerMac),
                    Ipv6Of(v, kSpecVmIp6, kSpecServerIp6, 64),
                    static_cast<uint16_t>(v.Number("sport", 40000, 0xffff)),
                    static_cast<uint16_t>(v.Number("dport", 80, 0xffff)), v.Hex("payload")));
}

Bytes BuildNs(const Values &v) {
   NdFields nd;
   nd.type = 135;
   nd.target = v.Ipv6("target", kSpecServerIp6);
   Bytes t = Ipv6Bytes(nd.target);
   /* The solicited-node group of the target. */
   Bytes group = Ipv6Bytes("ff02::1:ff00:0");
   std::copy(t.begin() + 13, t.end(), group.begin() + 13);
   char groupText[64];
   inet_ntop(AF_INET6, group.data(), groupText, sizeof groupText);
   Bytes groupMac = {0x33, 0x33, 0xff, t[13], t[14], t[15]};
   std::string src = v.Mac("src", kSpecVmMac);
   Ipv6Fields ip = Ipv6Of(v, kSpecVmLinkLocal, groupText, 255);
   bool unspecified = Ipv6Bytes(ip.sip) == Bytes(16, 0);
   if (auto sll = LinkLayerOption(v, "sll", unspecified ? "none" : src)) nd.options.emplace_back(1, *sll);
   return WithExtensions(v, NdFrame(src, v.Mac("dst", MacText(groupMac)), ip, nd));
}

Bytes BuildNa(const Values &v) {
   NdFields nd;
   nd.type = 136;
   nd.target = v.Ipv6("target", kSpecVmIp6);
   nd.router = v.Flag("router");
   nd.solicited = v.Flag("solicited");
   nd.override = v.Has("override") ? v.Flag("override") : true;
   std::string src = v.Mac("src", kSpecVmMac);
   if (auto tll = LinkLayerOption(v, "tll", src)) nd.options.emplace_back(2, *tll);
   return WithExtensions(v, NdFrame(src, v.Mac("dst", kAllNodesMac),
                                    Ipv6Of(v, kSpecVmLinkLocal, kAllNodes, 255), nd));
}

Bytes BuildRa(const Values &v) {
   NdFields nd;
   nd.type = 134;
   nd.curHopLimit = static_cast<uint8_t>(v.Number("curhlim", 64, 255));
   nd.managed = v.Flag("managed");
   nd.other = v.Flag("other");
   nd.routerLifetime = static_cast<uint16_t>(v.Number("lifetime", 1800, 0xffff));
   nd.reachableTime = static_cast<uint32_t>(v.Number("reachable", 0, 0xffffffff));
   nd.retransTimer = static_cast<uint32_t>(v.Number("retrans", 0, 0xffffffff));
   std::string src = v.Mac("src", kSpecVmMac);
   if (auto sll = LinkLayerOption(v, "sll", src)) nd.options.emplace_back(1, *sll);
   std::string prefix = v.Text("prefix", "2001:db8::/64");
   if (prefix != "none") {
      size_t slash = prefix.find('/');
      if (slash == std::string::npos) {
         throw SpecError(v.What("prefix") + ": '" + prefix + "' is not ADDRESS/LENGTH");
      }
      Bytes value;
      value.push_back(static_cast<uint8_t>(ParseNumber(prefix.substr(slash + 1), 128, v.What("prefix"))));
      value.push_back(static_cast<uint8_t>(v.Number("prefix-flags", 0xc0, 255)));
      PutBe(value, v.Number("valid", 86400, 0xffffffff), 4);
      PutBe(value, v.Number("preferred", 14400, 0xffffffff), 4);
      PutBe(value, 0, 4);
      uint8_t addr[16];
      if (inet_pton(AF_INET6, prefix.substr(0, slash).c_str(), addr) != 1) {
         throw SpecError(v.What("prefix") + ": '" + prefix + "' is not ADDRESS/LENGTH");
      }
      value.insert(value.end(), addr, addr + 16);
      nd.options.emplace_back(3, value);
   }
   return WithExtensions(v, NdFrame(src, v.Mac("dst", kAllNodesMac),
                                    Ipv6Of(v, kSpecVmLinkLocal, kAllNodes, 255), nd));
}

const std::map<std::string, int> kDhcpv6Types = {
   {"solicit", 1}, {"advertise", 2}, {"request", 3}, {"confirm", 4},
   {"renew", 5},   {"rebind", 6},    {"reply", 7},   {"release", 8},
   {"decline", 9}, {"reconfigure", 10}, {"information-request", 11}};

Bytes BuildDhcpv6(const Values &v) {
   std::string typeText = v.Text("type", "solicit");
   auto named = kDhcpv6Types.find(typeText);
   int type = named != kDhcpv6Types.end()
                  ? named->second
                  : static_cast<int>(ParseNumber(typeText, 255, v.What("type")));
   bool server = type == 2 || type == 7 || type == 10;
   std::string src = v.Mac("src", server ? kSpecServerMac : kSpecVmMac);
   std::string dst = v.Mac("dst", server ? kSpecVmMac : "33:33:00:01:00:02");
   Ipv6Fields ip = Ipv6Of(v, server ? kSpecServerLinkLocal : kSpecVmLinkLocal,
                          server ? kSpecVmLinkLocal : "ff02::1:2", 64);
   std::vector<std::pair<uint16_t, Bytes>> options;
   auto duid = [](const char *mac) {
      Bytes d = {0x00, 0x03, 0x00, 0x01};
      Bytes m = MacBytes(mac);
      d.insert(d.end(), m.begin(), m.end());
      return d;
   };
   if (v.Text("client-id", "") != "none") options.emplace_back(1, v.Hex("client-id", duid(kSpecVmMac)));
   std::string serverId = v.Text("server-id", server ? "" : "none");
   if (serverId != "none") options.emplace_back(2, v.Hex("server-id", duid(kSpecServerMac)));
   if (v.Number("ia", 1, 1) != 0) {
      Bytes ia;
      PutBe(ia, v.Number("iaid", 1, 0xffffffff), 4);
      PutBe(ia, v.Number("t1", 0, 0xffffffff), 4);
      PutBe(ia, v.Number("t2", 0, 0xffffffff), 4);
      std::string addr = v.Text("addr", server ? kSpecVmIp6 : "none");
      if (addr != "none") {
         Bytes a = Ipv6Bytes(v.Ipv6("addr", addr));
         PutBe(a, v.Number("preferred", 3600, 0xffffffff), 4);
         PutBe(a, v.Number("valid", 7200, 0xffffffff), 4);
         PutBe(ia, 5, 2);
         PutBe(ia, a.size(), 2);
         ia.insert(ia.end(), a.begin(), a.end());
      }
      options.emplace_back(3, ia);
   }
   for (const std::string &opt : v.All("opt")) {
      size_t eq = opt.find('=');
      if (eq == std::string::npos) {
         throw SpecError(v.What("opt") + ": '" + opt + "' is not CODE=HEX");
      }
      options.emplace_back(static_cast<uint16_t>(ParseNumber(opt.substr(0, eq), 0xffff, v.What("opt"))),
                           ParseHex(opt.substr(eq + 1), v.What("opt")));
   }
   return WithExtensions(
       v, Dhcpv6Frame(src, dst, ip, static_cast<uint16_t>(v.Number("sport", server ? 547 : 546, 0xffff)),
                      static_cast<uint16_t>(v.Number("dport", server ? 546 : 547, 0xffff)),
                      static_cast<uint8_t>(type),
                      static_cast<uint32_t>(v.Number("xid", 0x1001, 0xffffff)), options));
}

const std::vector<Kind> &Kinds() {
   static const std::vector<Kind> kinds = [] {
      std::vector<Kind> k;
      k.push_back({"eth", "an Ethernet II frame of any EtherType (or an 802.3 length)",
                   {{"src", Type::Mac, "02:00:00:00:00:10", "source MAC"},
                    {"dst", Type::Mac, "02:00:00:00:00:01", "destination MAC"},
                    {"type", Type::Number, "0x88b5", "EtherType, or a length up to 1500"},
                    {"payload", Type::Hex, "none", "the bytes behind the header"}},
                   [](const Values &v) {
                      return EthFrame(v.Mac("src", kSpecVmMac), v.Mac("dst", kSpecServerMac),
                                      static_cast<uint16_t>(v.Number("type", 0x88b5, 0xffff)),
                                      v.Hex("payload"));
                   }});
      k.push_back({"arp", "an ARP frame",
                   {{"op", Type::Word, "request", "request, reply or a number"},
                    {"src", Type::Mac, "02:00:00:00:00:10", "source MAC"},
                    {"dst", Type::Mac, "ff:ff:ff:ff:ff:ff; 02:00:00:00:00:01 unless a request",
                     "destination MAC"},
                    {"sha", Type::Mac, "src", "sender hardware address"},
                    {"spa", Type::Ipv4, "192.0.2.50", "sender address"},
                    {"tha", Type::Mac, "00:00:00:00:00:00; 02:00:00:00:00:01 unless a request",
                     "target hardware address"},
                    {"tpa", Type::Ipv4, "192.0.2.1", "target address"},
                    {"htype", Type::Number, "1", "hardware type"},
                    {"ptype", Type::Number, "0x0800", "protocol type"},
                    {"hlen", Type::Number, "6", "hardware address length field"},
                    {"plen", Type::Number, "4", "protocol address length field"},
                    {"cut", Type::Number, "none",
                     "keep only that many bytes of the ARP header, unpadded"}},
                   BuildArp});
      k.push_back({"ipv4", "an IPv4 frame", Ipv4Keys(true), [](const Values &v) {
                      return BuildIpv4(v, static_cast<uint8_t>(v.Number("proto", 1, 255)));
                   }});
      k.push_back({"udp4", "UDP over IPv4: ipv4 with proto=17", Ipv4Keys(false),
                   [](const Values &v) { return BuildIpv4(v, 17); }});
      k.push_back({"tcp4", "a TCP SYN over IPv4: ipv4 with proto=6", Ipv4Keys(false),
                   [](const Values &v) { return BuildIpv4(v, 6); }});
      k.push_back({"icmp4", "an ICMP echo request: ipv4 with proto=1", Ipv4Keys(false),
                   [](const Values &v) { return BuildIpv4(v, 1); }});
      k.push_back(
          {"dhcp",
           "a DHCP message over UDP and IPv4; offer, ack and nak are server messages, "
           "the others client messages",
           {{"type", Type::Word, "discover",
             "discover offer request decline ack nak release inform, or a number"},
            {"src", Type::Mac, "02:00:00:00:00:10; 02:00:00:00:00:01 for a server", "source MAC"},
            {"dst", Type::Mac, "ff:ff:ff:ff:ff:ff; 02:00:00:00:00:10 for a server",
             "destination MAC"},
            {"sip", Type::Ipv4, "0.0.0.0; 192.0.2.1 for a server", "source address"},
            {"dip", Type::Ipv4, "255.255.255.255; 192.0.2.50 for a server",
             "destination address"},
            {"sport", Type::Number, "68; 67 for a server", "UDP source port"},
            {"dport", Type::Number, "67; 68 for a server", "UDP destination port"},
            {"xid", Type::Number, "0x1001", "transaction id"},
            {"ciaddr", Type::Ipv4, "0.0.0.0", "client address"},
            {"yiaddr", Type::Ipv4, "0.0.0.0", "your (offered) address"},
            {"siaddr", Type::Ipv4, "0.0.0.0", "next server address"},
            {"giaddr", Type::Ipv4, "0.0.0.0", "relay address"},
            {"chaddr", Type::Mac, "02:00:00:00:00:10", "client hardware address"},
            {"htype", Type::Number, "1", "hardware type"},
            {"hlen", Type::Number, "6", "hardware address length"},
            {"cookie", Type::Hex, "63825363", "the magic cookie"},
            {"client-id", Type::Hex, "none", "option 61, the client identifier"},
            {"lease", Type::Signed, "120 for offer and ack, else none",
             "option 51 in seconds; -1 leaves it out"},
            {"lease-hex", Type::Hex, "none", "option 51 with these bytes instead"},
            {"server-id", Type::Ipv4, "sip for a server, else none",
             "option 54; none leaves it out"},
            {"opt", Type::Option, "none", "CODE=HEX: one more option, after the others; "
                                          "may be given more than once"},
            {"no-type", Type::Flag, "0", "1 leaves out option 53"},
            {"no-end", Type::Flag, "0", "1 leaves out the end option"},
            {"raw-opts", Type::Hex, "none",
             "the bytes behind the cookie as they are, instead of every option"},
            {"no-pad", Type::Flag, "0", "1 leaves the message unpadded (else 300 bytes)"},
            {"frag", Type::Number, "0", "the IPv4 flags and fragment offset word"},
            {"ulen", Type::Number, "the real length", "the UDP length field"}},
           BuildDhcp});
      k.push_back({"bpdu", "a spanning tree configuration BPDU in an 802.3/LLC frame",
                   {{"src", Type::Mac, "02:00:00:00:00:10", "source MAC"},
                    {"dst", Type::Mac, "01:80:c2:00:00:00", "destination MAC"}},
                   [](const Values &v) {
                      return ConfigBpduFrame(v.Mac("src", kSpecVmMac),
                                             v.Mac("dst", "01:80:c2:00:00:00"));
                   }});
      k.push_back({"udp6", "UDP over IPv6, with its checksum",
                   {{"src", Type::Mac, "02:00:00:00:00:10", "source MAC"},
                    {"dst", Type::Mac, "02:00:00:00:00:01", "destination MAC"},
                    {"sip", Type::Ipv6, "2001:db8::50", "source address"},
                    {"dip", Type::Ipv6, "2001:db8::1", "destination address"},
                    {"hlim", Type::Number, "64", "hop limit"},
                    {"sport", Type::Number, "40000", "source port"},
                    {"dport", Type::Number, "80", "destination port"},
                    {"payload", Type::Hex, "none", "bytes behind the UDP header"},
                    {"ext", Type::Word, "none",
                     "IPv6 extension headers before the payload, joined by +: hop, dst, frag "
                     "(atomic), frag-first, frag-later (offset 8)"}},
                   BuildUdp6});
      k.push_back({"ns", "a neighbor solicitation of the VM",
                   {{"src", Type::Mac, "02:00:00:00:00:10", "source MAC"},
                    {"dst", Type::Mac, "33:33:ff and the last 3 bytes of target",
                     "destination MAC"},
                    {"sip", Type::Ipv6, "fe80::ff:fe00:10", "source address; :: for DAD"},
                    {"dip", Type::Ipv6, "the solicited-node group of target",
                     "destination address"},
                    {"hlim", Type::Number, "255", "hop limit"},
                    {"target", Type::Ipv6, "2001:db8::1", "target address"},
                    {"sll", Type::Word, "src; none when sip is ::",
                     "source link-layer address option; none leaves it out"},
                    {"ext", Type::Word, "none",
                     "IPv6 extension headers before the payload, joined by +: hop, dst, frag "
                     "(atomic), frag-first, frag-later (offset 8)"}},
                   BuildNs});
      k.push_back({"na", "a neighbor advertisement of the VM",
                   {{"src", Type::Mac, "02:00:00:00:00:10", "source MAC"},
                    {"dst", Type::Mac, "33:33:00:00:00:01", "destination MAC"},
                    {"sip", Type::Ipv6, "fe80::ff:fe00:10", "source address"},
                    {"dip", Type::Ipv6, "ff02::1", "destination address"},
                    {"hlim", Type::Number, "255", "hop limit"},
                    {"target", Type::Ipv6, "2001:db8::50", "target address"},
                    {"router", Type::Flag, "0", "the router flag"},
                    {"solicited", Type::Flag, "0", "the solicited flag"},
                    {"override", Type::Flag, "1", "the override flag"},
                    {"tll", Type::Word, "src",
                     "target link-layer address option; none leaves it out"},
                    {"ext", Type::Word, "none",
                     "IPv6 extension headers before the payload, joined by +: hop, dst, frag "
                     "(atomic), frag-first, frag-later (offset 8)"}},
                   BuildNa});
      k.push_back({"ra", "a router advertisement, sent by the VM",
                   {{"src", Type::Mac, "02:00:00:00:00:10", "source MAC"},
                    {"dst", Type::Mac, "33:33:00:00:00:01", "destination MAC"},
                    {"sip", Type::Ipv6, "fe80::ff:fe00:10", "source address"},
                    {"dip", Type::Ipv6, "ff02::1", "destination address"},
                    {"hlim", Type::Number, "255", "hop limit"},
                    {"curhlim", Type::Number, "64", "the advertised hop limit"},
                    {"managed", Type::Flag, "0", "the managed address flag"},
                    {"other", Type::Flag, "0", "the other configuration flag"},
                    {"lifetime", Type::Number, "1800", "router lifetime in seconds"},
                    {"reachable", Type::Number, "0", "reachable time in ms"},
                    {"retrans", Type::Number, "0", "retransmission timer in ms"},
                    {"sll", Type::Word, "src",
                     "source link-layer address option; none leaves it out"},
                    {"prefix", Type::Word, "2001:db8::/64",
                     "prefix information option; none leaves it out"},
                    {"prefix-flags", Type::Number, "0xc0", "its on-link and autonomous flags"},
                    {"valid", Type::Number, "86400", "its valid lifetime"},
                    {"preferred", Type::Number, "14400", "its preferred lifetime"},
                    {"ext", Type::Word, "none",
                     "IPv6 extension headers before the payload, joined by +: hop, dst, frag "
                     "(atomic), frag-first, frag-later (offset 8)"}},
                   BuildRa});
      k.push_back(
          {"dhcpv6",
           "a DHCPv6 message over UDP and IPv6; advertise, reply and reconfigure are server "
           "messages, the others client messages",
           {{"type", Type::Word, "solicit",
             "solicit advertise request confirm renew rebind reply release decline "
             "reconfigure information-request, or a number"},
            {"src", Type::Mac, "02:00:00:00:00:10; 02:00:00:00:00:01 for a server", "source MAC"},
            {"dst", Type::Mac, "33:33:00:01:00:02; 02:00:00:00:00:10 for a server",
             "destination MAC"},
            {"sip", Type::Ipv6, "fe80::ff:fe00:10; fe80::ff:fe00:1 for a server",
             "source address"},
            {"dip", Type::Ipv6, "ff02::1:2; fe80::ff:fe00:10 for a server",
             "destination address"},
            {"hlim", Type::Number, "64", "hop limit"},
            {"sport", Type::Number, "546; 547 for a server", "UDP source port"},
            {"dport", Type::Number, "547; 546 for a server", "UDP destination port"},
            {"xid", Type::Number, "0x1001", "transaction id (24 bits)"},
            {"client-id", Type::Hex, "00030001020000000010",
             "option 1, the client DUID; none leaves it out"},
            {"server-id", Type::Hex, "00030001020000000001 for a server, else none",
             "option 2, the server DUID; none leaves it out"},
            {"ia", Type::Number, "1", "0 leaves out option 3 (IA_NA)"},
            {"iaid", Type::Number, "1", "the IA_NA's IAID"},
            {"t1", Type::Number, "0", "the IA_NA's T1"},
            {"t2", Type::Number, "0", "the IA_NA's T2"},
            {"addr", Type::Word, "2001:db8::50 for a server, else none",
             "an IA address (option 5) in the IA_NA; none leaves it out"},
            {"preferred", Type::Number, "3600", "its preferred lifetime"},
            {"valid", Type::Number, "7200", "its valid lifetime"},
            {"opt", Type::Option, "none",
             "CODE=HEX: one more option, after the others; may be given more than once"},
            {"ext", Type::Word, "none",
             "IPv6 extension headers before the UDP header, joined by +: hop, dst, frag "
             "(atomic), frag-first, frag-later (offset 8)"}},
           BuildDhcpv6});
      return k;
   }();
   return kinds;
}

std::string KindNames() {
   std::string names;
   for (const Kind &k : Kinds()) names += (names.empty() ? "" : ", ") + std::string(k.name);
   return names;
}

std::string KeyNames(const Kind &kind) {
   std::string names;
   for (const Key &k : kind.keys) names += (names.empty() ? "" : ", ") + std::string(k.name);
   return names;
}

} // namespace

std::vector<SpecKindInfo> FrameSpecKinds() {
   std::vector<SpecKindInfo> out;
   for (const Kind &k : Kinds()) {
      SpecKindInfo info{k.name, k.help, {}};
      for (const Key &key : k.keys) info.keys.push_back({key.name, key.def, key.help});
      out.push_back(info);
   }
   return out;
}

bool LooksLikeFrameSpec(const std::string &text) {
   size_t colon = text.find(':');
   if (colon == std::string::npos || colon == 0) return false;
   std::string word = text.substr(0, colon);
   if (word == "hex" || word == "text" || word == "file") return false;
   if (!std::islower(static_cast<unsigned char>(word[0]))) return false;
   for (char c : word) {
      if (!std::islower(static_cast<unsigned char>(c)) && !std::isdigit(static_cast<unsigned char>(c))) {
         return false;
      }
   }
   return true;
}

Bytes BuildFrameSpec(const std::string &text) {
   size_t colon = text.find(':');
   if (colon == std::string::npos) {
      throw SpecError("bad frame spec '" + text + "': KIND:key=value,... (kinds: " + KindNames() + ")");
   }
   std::string name = text.substr(0, colon);
   const Kind *kind = nullptr;
   for (const Kind &k : Kinds()) {
      if (name == k.name) kind = &k;
   }
   if (kind == nullptr) {
      throw SpecError("unknown frame kind '" + name + "' (kinds: " + KindNames() + ")");
   }
   std::map<std::string, std::vector<std::string>> given;
   std::string rest = text.substr(colon + 1);
   size_t start = 0;
   while (start < rest.size()) {
      size_t comma = rest.find(',', start);
      std::string item = rest.substr(start, comma == std::string::npos ? comma : comma - start);
      start = comma == std::string::npos ? rest.size() : comma + 1;
      if (item.empty()) continue;
      size_t eq = item.find('=');
      std::string key = item.substr(0, eq);
      const Key *def = nullptr;
      for (const Key &k : kind->keys) {
         if (key == k.name) def = &k;
      }
      if (def == nullptr) {
         throw SpecError("unknown key '" + key + "' for " + name + " frames (keys: " +
                         KeyNames(*kind) + ")");
      }
      std::string value;
      if (eq != std::string::npos) {
         value = item.substr(eq + 1);
      } else if (def->type == Type::Flag) {
         value = "1";
      } else {
         throw SpecError(name + " key " + key + " needs a value: " + key + "=...");
      }
      if (given.count(key) && def->type != Type::Option) {
         throw SpecError(name + " key " + key + " given twice");
      }
      given[key].push_back(value);
   }
   Values values(*kind, std::move(given));
   try {
      return kind->build(values);
   } catch (const std::invalid_argument &e) {
      throw SpecError(name + " frame: " + e.what());
   }
}

} // namespace frames
