#include "blobs.h"

#include <cstring>

#include "blob_builders.h"
#include "vigil_whitelist.h"

namespace vigilsim {

namespace {

std::vector<std::string> Split(const std::string &text, char sep) {
   std::vector<std::string> parts;
   size_t start = 0;
   while (true) {
      size_t end = text.find(sep, start);
      parts.push_back(text.substr(start, end == std::string::npos ? end : end - start));
      if (end == std::string::npos) break;
      start = end + 1;
   }
   return parts;
}

VigilWhiteListEntry ParseEntry(const std::string &text) {
   VigilWhiteListEntry entry;
   std::memset(&entry, 0, sizeof entry);
   bool flagsGiven = false;
   uint32_t flags = 0;
   for (const std::string &field : Split(text, ',')) {
      size_t eq = field.find('=');
      if (eq == std::string::npos) {
         throw ToolError("bad entry field '" + field +
                         "': use vlan=N, mac=MAC, ip=ADDR[/LEN], prefix=N or flags=N");
      }
      std::string key = field.substr(0, eq);
      std::string value = field.substr(eq + 1);
      if (key == "vlan") {
         entry.vlan = static_cast<u16>(ParseUnsigned(value, "vlan", 0xffff));
         entry.flags |= VIGIL_WL_VLAN;
      } else if (key == "mac") {
         ParseMac(value, entry.mac);
         entry.flags |= VIGIL_WL_MAC;
      } else if (key == "ip") {
         size_t slash = value.find('/');
         std::string addr = value.substr(0, slash);
         bool v6 = addr.find(':') != std::string::npos;
         bool ok = v6 ? TryParseIpv6(addr, entry.ip) : TryParseIpv4(addr, entry.ip);
         if (!ok) throw ToolError("bad address '" + addr + "' in entry");
         entry.flags |= v6 ? VIGIL_WL_IPV6 : VIGIL_WL_IPV4;
         entry.prefixLen = v6 ? 128 : 32;
         if (slash != std::string::npos) {
            entry.prefixLen = static_cast<u32>(
                ParseUnsigned(value.substr(slash + 1), "prefix length", UINT32_MAX));
         }
      } else if (key == "prefix") {
         entry.prefixLen = static_cast<u32>(ParseUnsigned(value, "prefix", UINT32_MAX));
      } else if (key == "flags") {
         flags = static_cast<u32>(ParseUnsigned(value, "flags", UINT32_MAX));
         flagsGiven = true;
      } else {
         throw ToolError("unknown entry field '" + key +
                         "=': use vlan=, mac=, ip=, prefix= or flags=");
      }
   }
   if (flagsGiven) entry.flags = flags;
   return entry;
}

} // namespace

std::vector<VigilWhiteListEntry> ParseEntryList(const std::string &text) {
   std::vector<VigilWhiteListEntry> entries;
   if (text.empty() || text == "none") return entries;
   for (const std::string &piece : Split(text, ';')) {
      if (!piece.empty()) entries.push_back(ParseEntry(piece));
   }
   return entries;
}

std::vector<uint8_t> ParseEntries(const std::string &text) {
   std::vector<uint8_t> out;
   for (const VigilWhiteListEntry &entry : ParseEntryList(text)) {
      blobs::Bytes b = blobs::EntryBytes(entry);
      out.insert(out.end(), b.begin(), b.end());
   }
   return out;
}

std::vector<uint8_t> BuildSecurityBlob(const Args &args) {
   blobs::Security s;
   s.features = static_cast<uint32_t>(args.Unsigned("features", 0, UINT32_MAX));
   s.rxBcast = static_cast<uint32_t>(args.Unsigned("rxBcast", 0, UINT32_MAX));
   s.txBcast = static_cast<uint32_t>(args.Unsigned("txBcast", 0, UINT32_MAX));
   s.rxMcast = static_cast<uint32_t>(args.Unsigned("rxMcast", 0, UINT32_MAX));
   s.txMcast = static_cast<uint32_t>(args.Unsigned("txMcast", 0, UINT32_MAX));
   s.switchList = ParseEntryList(args.Get("switch").value_or(""));
   s.portList = ParseEntryList(args.Get("port").value_or(""));
   std::string excl = args.Get("bpduExclude").value_or("");
   if (!excl.empty()) {
      for (const std::string &mac : Split(excl, ',')) {
         blobs::MacAddr b;
         ParseMac(mac, b.data());
         s.bpdu.push_back(b);
      }
   }
   return s.Build();
}

std::vector<uint8_t> BuildDiscoveryBlob(const Args &args) {
   return blobs::Discovery(args.Bool("arp", false), args.Bool("dhcp", false));
}

std::vector<uint8_t> BuildDiscovery6Blob(const Args &args) {
   return blobs::Discovery6(args.Bool("nd", false), args.Bool("dhcpv6", false),
                            static_cast<uint32_t>(args.Unsigned("expiry", 10, UINT32_MAX)));
}

std::vector<uint8_t> BuildIgnoreListBlob(const std::string &entries) {
   return blobs::IgnoreList(ParseEntryList(entries));
}

} // namespace vigilsim
