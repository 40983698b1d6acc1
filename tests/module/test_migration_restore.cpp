/*
 * The restore path of a port's saved state: the header checks, both
 * layouts, which parts a port's discovery configuration honours, restores
 * into a database that already holds bindings, the ignore list, every
 * failure with its lines, and buffers that are cut short, corrupted or
 * random.  Buffers are built by hand from the records of vigil_migration.h
 * and handed over in heap blocks of exactly their length, so that a read
 * past the end shows under AddressSanitizer.
 */
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "port_db_test.h"
#include "test_addresses.h"
#include "vigil_config.h"
#include "vigil_lifecycle.h"
#include "vigil_migration.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_whitelist.h"
#include "vigil_workers.h"

namespace {

using Bytes = std::vector<u8>;
using addrtext::Ip;
using addrtext::MacOf;

constexpr u32 kPort = 0x10;
constexpr u32 kBarePort = 0x11; /* a port without a filter */
constexpr i64 kNow = 1000;      /* the virtual clock's start */
constexpr u64 kElapsed = 1500;
constexpr u32 kInvalidData = 0xbad0001;
constexpr u32 kIgnored = 0xbad0002;
constexpr u32 kNotFound = 0xbad0003;
constexpr u32 kExists = 0xbad0005;
constexpr u32 kBadParam = 0xbad0007;
constexpr u32 kNoMemory = 0xbad0014;
constexpr u8 kJunk = 0xa5; /* what the carrier's buffer held where nothing is written */
constexpr u64 kStalePointer = 0x00007f1234567890ull;
const char *const kVmMac = "02:00:00:00:00:10";

std::array<u8, 16> Ip6(const std::string &text) {
   std::array<u8, 16> addr{};
   EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), addr.data()), 1) << text;
   return addr;
}

std::string Ip4Text(u32 ip) {
   char text[INET_ADDRSTRLEN];
   inet_ntop(AF_INET, &ip, text, sizeof text);
   return text;
}

std::string Ip6Text(const u8 *ip) {
   char text[INET6_ADDRSTRLEN];
   inet_ntop(AF_INET6, ip, text, sizeof text);
   return text;
}

std::string MacText(const u8 *mac) {
   char text[18];
   snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
            mac[4], mac[5]);
   return text;
}

std::string MethodName(u8 method) {
   switch (method) {
   case VIGIL_DISC_DHCP: return "dhcp";
   case VIGIL_DISC_ARP: return "arp";
   case VIGIL_DISC_STATIC: return "static";
   case VIGIL_DISC_ND: return "nd";
   case VIGIL_DISC_DHCPV6: return "dhcpv6";
   default: return "method" + std::to_string(method);
   }
}

/* "vlan mac ip method expiry": how the tests name a binding. */
std::string Binding(const std::string &ip, const std::string &method, i64 expiryTs,
                    u16 vlan = 5, const std::string &mac = kVmMac) {
   return std::to_string(vlan) + " " + mac + " " + ip + " " + method + " " +
          std::to_string(expiryTs);
}

/* ------------------------------------------------ entries and buffers */

struct SavedV4 {
   u16 vlan = 5;
   std::string mac = kVmMac;
   std::string ip = "192.0.2.10";
   u8 method = VIGIL_DISC_ARP;
   u64 remaining = 600;
   std::string clientMac = "02:00:00:00:00:99";
   Bytes clientId;
   int clientIdLenField = -1; /* the byte written, when not the id's length */
   std::string serverIp = "192.0.2.1";
   u32 lease = 3600;
   u64 pointer = kStalePointer; /* the sender's pointer at offset 32 */
};

SavedV4 Arp(const std::string &ip, u64 remaining = 600, u16 vlan = 5) {
   SavedV4 e;
   e.ip = ip;
   e.remaining = remaining;
   e.vlan = vlan;
   return e;
}

SavedV4 Dhcp(const std::string &ip, const Bytes &clientId = {}, u64 remaining = 3600) {
   SavedV4 e;
   e.ip = ip;
   e.method = VIGIL_DISC_DHCP;
   e.remaining = remaining;
   e.clientId = clientId;
   if (clientId.empty()) {
      e.pointer = 0;
   }
   return e;
}

SavedV4 Static(const std::string &ip) {
   SavedV4 e;
   e.ip = ip;
   e.method = VIGIL_DISC_STATIC;
   return e;
}

/* The 48 bytes of an IPv4 entry, and a DHCP entry's client id when asked.
 * Bytes the writer leaves unwritten hold junk. */
Bytes EncodeV4(const SavedV4 &e, bool withClientId) {
   VigilSavedVmi rec;
   memset(&rec, kJunk, sizeof rec);
   rec.vlanId = e.vlan;
   memcpy(rec.mac, MacOf(e.mac).data(), 6);
   rec.ip = Ip(e.ip);
   rec.discMethod = e.method;
   if (e.method != VIGIL_DISC_STATIC) {
      rec.remaining = (i64)e.remaining;
   }
   if (e.method == VIGIL_DISC_DHCP) {
      memcpy(rec.clientMac, MacOf(e.clientMac).data(), 6);
      rec.clientIdLen = e.clientIdLenField >= 0 ? (u8)e.clientIdLenField : (u8)e.clientId.size();
      rec.unused2 = 0;
      rec.clientIdPtr = e.pointer;
      rec.serverIp = Ip(e.serverIp);
      rec.leaseTime = e.lease;
   }
   Bytes out(sizeof rec);
   memcpy(out.data(), &rec, sizeof rec);
   if (withClientId && e.method == VIGIL_DISC_DHCP) {
      out.insert(out.end(), e.clientId.begin(), e.clientId.end());
   }
   return out;
}

struct SavedNd {
   u16 vlan = 5;
   std::string mac = kVmMac;
   std::string ip = "2001:db8::50";
   u64 remaining = 600;
};

SavedNd NdEntry(const std::string &ip, u64 remaining = 600) {
   SavedNd e;
   e.ip = ip;
   e.remaining = remaining;
   return e;
}

Bytes EncodeNd(const SavedNd &e) {
   VigilSavedNdVmi rec;
   memset(&rec, kJunk, sizeof rec);
   rec.vlanId = e.vlan;
   memcpy(rec.mac, MacOf(e.mac).data(), 6);
   memcpy(rec.ip, Ip6(e.ip).data(), 16);
   rec.remaining = (i64)e.remaining;
   Bytes out(sizeof rec);
   memcpy(out.data(), &rec, sizeof rec);
   return out;
}

struct SavedD6 {
   u16 vlan = 5;
   std::string mac = kVmMac;
   std::string ip = "2001:db8::100";
   u64 remaining = 300;
   u32 iaId = 0x0a0b0c0d;
   std::string server = "fe80::1";
   u32 valid = 300;
   u32 preferred = 200;
   Bytes duid;
   int clientIdLenField = -1;
};

SavedD6 Dhcp6Entry(const std::string &ip, const Bytes &duid = {}, u64 remaining = 300) {
   SavedD6 e;
   e.ip = ip;
   e.duid = duid;
   e.remaining = remaining;
   return e;
}

/* The entry, its DUID, then the 8 bytes that are never written. */
Bytes EncodeDhcp6(const SavedD6 &e) {
   VigilSavedDhcp6Vmi rec;
   memset(&rec, kJunk, sizeof rec);
   rec.vlanId = e.vlan;
   memcpy(rec.mac, MacOf(e.mac).data(), 6);
   memcpy(rec.ip, Ip6(e.ip).data(), 16);
   rec.remaining = (i64)e.remaining;
   rec.iaId = e.iaId;
   memcpy(rec.serverIp, Ip6(e.server).data(), 16);
   rec.validLifetime = e.valid;
   rec.preferredLifetime = e.preferred;
   rec.clientIdLen = e.clientIdLenField >= 0 ? (u16)e.clientIdLenField : (u16)e.duid.size();
   Bytes out(sizeof rec);
   memcpy(out.data(), &rec, sizeof rec);
   out.insert(out.end(), e.duid.begin(), e.duid.end());
   out.insert(out.end(), 8, kJunk);
   return out;
}

Bytes Duid(size_t len, u8 seed = 1) {
   Bytes duid(len);
   for (size_t i = 0; i < len; i++) {
      duid[i] = (u8)(seed + i);
   }
   return duid;
}

template <typename T> void Put(Bytes &out, const T &rec) {
   const u8 *p = (const u8 *)&rec;
   out.insert(out.end(), p, p + sizeof rec);
}

/* What a TLV says of itself, when it lies. */
struct TlvOpts {
   i64 count = -1;  /* the count written, when not the number of entries */
   i64 length = -1; /* the length written, when not the right one */
};

/* A saved state built TLV by TLV.  Beside the bytes it keeps where every
 * part lies that the reader must read whole (TLV headers, counts, entries),
 * with the binding each entry stands for, so that a test can tell what a
 * buffer cut anywhere must restore and whether the cut is logged. */
class SavedState {
public:
   enum class Part { TlvHeader, Counts, Entry };
   struct Span {
      size_t start, end;
      Part part;
      std::string binding; /* for an entry: what it restores (delete-on-expiry on) */
      int tlv = -1;        /* which TLV it belongs to */
   };
   struct Tlv {
      size_t countsEnd;
      bool counted; /* its entries are read by count (IPv4, ND), not by length */
   };

   explicit SavedState(u32 version = VIGIL_SAVE_VERSION_TLV) {
      VigilSavedStateHdr hdr;
      hdr.magic = VIGIL_SAVED_STATE_MAGIC;
      hdr.version = version;
      Put(bytes, hdr);
   }

   SavedState &Ipv4(u16 type, const std::vector<SavedV4> &entries, TlvOpts opts = {}) {
      bool expired = type == VIGIL_TLV_EXPIRED_IPV4_V1;
      Bytes body;
      u32 total = 0;
      std::vector<Span> entrySpans;
      for (const SavedV4 &e : entries) {
         Bytes b = EncodeV4(e, !expired);
         entrySpans.push_back({body.size(), body.size() + b.size(), Part::Entry,
                               Binding(e.ip, MethodName(e.method),
                                       e.method == VIGIL_DISC_STATIC
                                          ? 0
                                          : kNow + (i64)(i32)(u32)e.remaining,
                                       e.vlan, e.mac)});
         body.insert(body.end(), b.begin(), b.end());
         if (e.method == VIGIL_DISC_DHCP && !expired) {
            total += (u32)e.clientId.size();
         }
      }
      VigilIpv4Tlv tlv;
      tlv.hdr.type = type;
      tlv.hdr.length = (u16)(opts.length >= 0 ? opts.length : (i64)body.size() + 8);
      tlv.numVmiEntries = (u32)(opts.count >= 0 ? opts.count : (i64)entries.size());
      tlv.totClientIdLen = total;
      AddTlv(tlv, sizeof(VigilIpv4Tlv), body, entrySpans, true);
      return *this;
   }

   SavedState &NdTlv(u16 type, const std::vector<SavedNd> &entries, TlvOpts opts = {}) {
      Bytes body;
      std::vector<Span> entrySpans;
      for (const SavedNd &e : entries) {
         Bytes b = EncodeNd(e);
         entrySpans.push_back({body.size(), body.size() + b.size(), Part::Entry,
                               Binding(e.ip, "nd", kNow + (i64)(i32)(u32)e.remaining, e.vlan,
                                       e.mac)});
         body.insert(body.end(), b.begin(), b.end());
      }
      VigilNdTlv tlv;
      tlv.hdr.type = type;
      tlv.hdr.length = (u16)(opts.length >= 0 ? opts.length : (i64)body.size() + 4);
      tlv.numVmi = (u32)(opts.count >= 0 ? opts.count : (i64)entries.size());
      AddTlv(tlv, sizeof(VigilNdTlv), body, entrySpans, true);
      return *this;
   }

   SavedState &Dhcp6Tlv(const std::vector<SavedD6> &entries, TlvOpts opts = {}) {
      Bytes body;
      std::vector<Span> entrySpans;
      for (const SavedD6 &e : entries) {
         Bytes b = EncodeDhcp6(e);
         /* What the reader needs: the entry and its DUID, not the 8 bytes
          * behind. */
         entrySpans.push_back({body.size(), body.size() + b.size() - 8, Part::Entry,
                               Binding(e.ip, "dhcpv6", kNow + (i64)(i32)(u32)e.remaining,
                                       e.vlan, e.mac)});
         body.insert(body.end(), b.begin(), b.end());
      }
      VigilDhcp6Tlv tlv;
      tlv.hdr.type = VIGIL_TLV_DHCP6_V1;
      tlv.hdr.length = (u16)(opts.length >= 0 ? opts.length : (i64)body.size() + 4);
      tlv.numVmiEntries = (u32)(opts.count >= 0 ? opts.count : (i64)entries.size());
      AddTlv(tlv, sizeof(VigilDhcp6Tlv), body, entrySpans, false);
      return *this;
   }

   /* A TLV of a type the reader does not know, its body never read. */
   SavedState &Other(u16 type, const Bytes &body, i64 length = -1) {
      VigilTlvHdr hdr;
      hdr.type = type;
      hdr.length = (u16)(length >= 0 ? length : (i64)body.size());
      spans.push_back({bytes.size(), bytes.size() + 4, Part::TlvHeader, "", (int)tlvs.size()});
      tlvs.push_back({bytes.size() + 4, false});
      Put(bytes, hdr);
      bytes.insert(bytes.end(), body.begin(), body.end());
      return *this;
   }

   SavedState &Raw(const Bytes &raw) {
      bytes.insert(bytes.end(), raw.begin(), raw.end());
      return *this;
   }

   /* The offset of TLV number n (0 first). */
   size_t TlvAt(size_t n) const {
      size_t seen = 0;
      for (const Span &s : spans) {
         if (s.part == Part::TlvHeader && seen++ == n) {
            return s.start;
         }
      }
      ADD_FAILURE() << "no TLV " << n;
      return 0;
   }

   /* Whether the reader logs a stop for the buffer cut after `len` bytes:
    * a cut inside a TLV header; a whole header without all its counts; a
    * cut inside an entry; or, where entries are read by count, a cut at the
    * start of an entry that is missing. */
   bool CutIsLogged(size_t len) const {
      for (const Span &s : spans) {
         if (s.part == Part::TlvHeader && s.start < len && len < s.end) {
            return true;
         }
         if (s.part == Part::Counts && s.start <= len && len < s.end) {
            return true;
         }
      }
      for (const Span &s : spans) {
         if (s.part == Part::Entry && s.end > len) {
            /* The first entry not wholly there. */
            return tlvs[s.tlv].countsEnd <= len && (s.start < len || tlvs[s.tlv].counted);
         }
      }
      return false;
   }

   Bytes bytes;
   std::vector<Span> spans;
   std::vector<Tlv> tlvs;

private:
   template <typename T>
   void AddTlv(const T &head, size_t headSize, const Bytes &body,
               const std::vector<Span> &entrySpans, bool counted) {
      size_t start = bytes.size();
      int n = (int)tlvs.size();
      tlvs.push_back({start + headSize, counted});
      spans.push_back({start, start + 4, Part::TlvHeader, "", n});
      spans.push_back({start + 4, start + headSize, Part::Counts, "", n});
      Put(bytes, head);
      for (const Span &s : entrySpans) {
         spans.push_back({start + headSize + s.start, start + headSize + s.end, Part::Entry,
                          s.binding, n});
      }
      bytes.insert(bytes.end(), body.begin(), body.end());
   }
};

/* A V1 buffer: the header, 116 bytes never written, the counts, entries. */
Bytes V1Buffer(const std::vector<SavedV4> &entries, i64 count = -1) {
   VigilSavedStateV1 head;
   memset(&head, kJunk, sizeof head);
   head.hdr.magic = VIGIL_SAVED_STATE_MAGIC;
   head.hdr.version = VIGIL_SAVE_VERSION_V1;
   head.numVmiEntries = (u32)(count >= 0 ? count : (i64)entries.size());
   Bytes out;
   Put(out, head);
   u32 total = 0;
   for (const SavedV4 &e : entries) {
      Bytes b = EncodeV4(e, true);
      out.insert(out.end(), b.begin(), b.end());
      if (e.method == VIGIL_DISC_DHCP) {
         total += (u32)e.clientId.size();
      }
   }
   /* The writer adds to what stood there; the reader never looks. */
   u32 stood;
   memcpy(&stood, out.data() + offsetof(VigilSavedStateV1, totClientIdLen), 4);
   stood += total;
   memcpy(out.data() + offsetof(VigilSavedStateV1, totClientIdLen), &stood, 4);
   return out;
}

/* The line of the IPv6 table for a binding added. */
std::string V6AddedLine(const std::string &ip, u8 method, i64 expiryTs, u16 vlan = 5,
                        const std::string &mac = kVmMac) {
   std::array<u8, 16> a = Ip6(ip);
   char text[256];
   snprintf(text, sizeof text,
            "1: Filter 0x10 Added IP to PortDB VLAN: %u, IP: %x:%x:%x:%x:%x:%x:%x:%x MAC: %s "
            "discMethod: %#x, expiryTs: %lld",
            vlan, a[0] << 8 | a[1], a[2] << 8 | a[3], a[4] << 8 | a[5], a[6] << 8 | a[7],
            a[8] << 8 | a[9], a[10] << 8 | a[11], a[12] << 8 | a[13], a[14] << 8 | a[15],
            mac.c_str(), method, (long long)expiryTs);
   return text;
}

std::string TlvLine(u32 bufLen) {
   return "1: Vigil migration restore for Port: 0x10, bufLen: " + std::to_string(bufLen) +
          ", elapsedMS: 1500, version: TLV";
}

std::string V1Line(u32 bufLen) {
   return "1: Vigil migration restore for Port: 0x10, bufLen: " + std::to_string(bufLen) +
          ", elapsedMS: 1500, version: V1";
}

void CollectViolation(void *ctx, const char *text) {
   static_cast<std::vector<std::string> *>(ctx)->push_back(text);
}

std::vector<std::string> Sorted(std::vector<std::string> v) {
   std::sort(v.begin(), v.end());
   return v;
}

/* ------------------------------------------------ the fixture */

class MigrationRestoreTest : public PortDbTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      filter = AddFilter(kPort);
      ASSERT_EQ(VigilVmiHashAlloc(&filter->vmiHash), ZEK_OK);
      ASSERT_EQ(VigilV6VmiHashAlloc(&filter->v6VmiHash), ZEK_OK);
      filter->discoveryFlags =
         VIGIL_DISC_DHCP | VIGIL_DISC_ARP | VIGIL_DISC_ND | VIGIL_DISC_DHCPV6;
      ASSERT_TRUE(sim::AddPort("vs0", kBarePort));
      baseAllocs_ = sim::GetHeapStats(heapID).allocations;
      sim::TakeLogs();
   }

   void TearDown() override {
      SetDeleteExpiry(1);
      sim::FaultAlloc(0);
      sim::SetLogLevel("vigil", 0);
      if (filter != nullptr && filter->vmiHash != nullptr) {
         EXPECT_EQ(Violations(), std::vector<std::string>());
         ClearDatabase();
         Vigil_HeapFree(filter->portIgnoreList);
         filter->portIgnoreList = nullptr;
         filter->portIgnoreListSize = 0;
         Vigil_HeapFree(filter->vmiHash);
         filter->vmiHash = nullptr;
         Vigil_HeapFree(filter->v6VmiHash);
         filter->v6VmiHash = nullptr;
      }
      sim::WaitIdle(5.0);
      sim::TakePortsetMessages();
      VigilTest::TearDown();
   }

   std::vector<std::string> Violations() override {
      std::vector<std::string> texts;
      u32 count = VigilCheckFilterTables(filter, CollectViolation, &texts);
      EXPECT_EQ(count, texts.size());
      return texts;
   }

   /* Every binding of both families, static ones too. */
   void ClearDatabase() {
      WithWriteLock([this] {
         while (!VigilListIsEmpty(&filter->expiredVmiList)) {
            VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRED(filter->expiredVmiList.next));
         }
         while (!VigilListIsEmpty(&filter->vmiList)) {
            VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRY(filter->vmiList.next));
         }
         VigilClearV6Vmi(filter, true, 0, nullptr);
      });
      sim::WaitIdle(5.0);
   }

   void Restart() override {
      ClearDatabase();
      TakeMessages();
      sim::TakeLogs();
   }

   u64 DatabaseAllocations() override {
      u64 count = filter->portIgnoreList != nullptr ? 1 : 0;
      for (VigilVmi *vmi : V4Records()) {
         count += 1 + (vmi->clientIdStr != nullptr ? 1 : 0);
      }
      for (VigilV6Vmi *vmi : V6Records()) {
         count += 1 + (vmi->clientId != nullptr ? 1 : 0);
      }
      return count;
   }

   std::vector<VigilVmi *> V4Records() {
      std::vector<VigilVmi *> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
         out.push_back(VIGIL_VMI_FROM_EXPIRY(pos));
      }
      VIGIL_LIST_FOR_EACH(pos, &filter->expiredVmiList) {
         out.push_back(VIGIL_VMI_FROM_EXPIRED(pos));
      }
      return out;
   }

   std::vector<VigilV6Vmi *> V6Records() {
      std::vector<VigilV6Vmi *> out;
      VIGIL_LIST_FOR_EACH(pos, &filter->v6VmiList) {
         out.push_back(VIGIL_V6VMI_FROM_EXPIRY(pos));
      }
      VIGIL_LIST_FOR_EACH(pos, &filter->v6ExpiredNdList) {
         out.push_back(VIGIL_V6VMI_FROM_EXPIRED(pos));
      }
      return out;
   }

   /* The IPv4 bindings in list order, expired ones last and marked. */
   std::vector<std::string> V4() {
      std::vector<std::string> out;
      for (VigilVmi *vmi : V4Records()) {
         std::string text = Binding(Ip4Text(vmi->ip), MethodName(vmi->discMethod),
                                    vmi->expiryTs, vmi->vlanId, MacText(vmi->mac));
         if (VigilListIsLinked(&vmi->expiredLinks)) {
            text += " expired";
         }
         out.push_back(text);
      }
      return out;
   }

   std::vector<std::string> V6() {
      std::vector<std::string> out;
      for (VigilV6Vmi *vmi : V6Records()) {
         std::string text = Binding(Ip6Text(vmi->ip), MethodName(vmi->discMethod),
                                    vmi->expiryTs, vmi->vlanId, MacText(vmi->mac));
         if (VigilListIsLinked(&vmi->expiredLinks)) {
            text += " expired";
         }
         out.push_back(text);
      }
      return out;
   }

   std::vector<std::string> All() {
      std::vector<std::string> out = V4();
      std::vector<std::string> v6 = V6();
      out.insert(out.end(), v6.begin(), v6.end());
      return out;
   }

   VigilVmi *FindV4(const std::string &ip, u16 vlan = 5) {
      return WithReadHold(kPort, [&] {
         return VigilFindVmi(filter, vlan, MacOf(kVmMac).data(), Ip(ip));
      });
   }

   VigilV6Vmi *FindV6(const std::string &ip, u16 vlan = 5) {
      u8 key[VIGIL_V6_KEY_LEN];
      memcpy(key, &vlan, 2);
      memcpy(key + 2, MacOf(kVmMac).data(), 6);
      memcpy(key + 8, Ip6(ip).data(), 16);
      return WithReadHold(kPort, [&] { return VigilFindV6Vmi(filter, key); });
   }

   /* Each line logged since the last look: its level, "throttled" for the
    * throttled log, the error code when the tag carries one, and its text. */
   std::vector<std::string> Logged() {
      std::vector<std::string> out;
      for (const sim::LogLine &line : TakeModuleLogs()) {
         std::string text = std::to_string(line.level);
         if (line.log == "vigil.throttle") {
            text += " throttled";
         }
         size_t code = line.raw.find("errorCode=\"");
         if (code != std::string::npos) {
            size_t end = line.raw.find('"', code + 11);
            text += " " + line.raw.substr(code + 11, end - code - 11);
         }
         out.push_back(text + ": " + line.text);
      }
      return out;
   }

   /* Only the level-2 lines. */
   std::vector<std::string> Errors() {
      std::vector<std::string> out;
      for (const std::string &line : Logged()) {
         if (line[0] == '2') {
            out.push_back(line);
         }
      }
      return out;
   }

   /* "added arp 192.0.2.10" for each portset message since the last look. */
   std::vector<std::string> Messages() {
      std::vector<std::string> out;
      for (const sim::PortsetMessage &m : TakeMessages()) {
         const VigilPortsetMsg *msg = (const VigilPortsetMsg *)m.bytes.data();
         EXPECT_EQ(m.portID, kPort);
         std::string ip = msg->entry.isIpv4 ? Ip4Text(*(const u32 *)msg->entry.ip)
                                            : Ip6Text(msg->entry.ip);
         out.push_back(std::string(msg->op == 0 ? "added " : "removed ") +
                       MethodName(msg->entry.discMethod) + " " + ip);
      }
      return out;
   }

   /* Hands the bytes over in a heap block of exactly their length. */
   zek_Status Restore(const Bytes &bytes, u32 port = kPort) {
      std::unique_ptr<u8[]> exact(new u8[bytes.size()]);
      if (!bytes.empty()) {
         memcpy(exact.get(), bytes.data(), bytes.size());
      }
      return VigilMigrationRestore(port, exact.get(), (u32)bytes.size(), kElapsed);
   }

   /* A binding learnt before the restore, added as its snooper adds it. */
   void Learn(const std::string &ip, u8 method, i64 expiryTs, const Bytes &clientId = {}) {
      VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
      vmi->vlanId = 5;
      memcpy(vmi->mac, MacOf(kVmMac).data(), 6);
      vmi->ip = Ip(ip);
      vmi->discMethod = method;
      vmi->expiryTs = expiryTs;
      if (!clientId.empty()) {
         vmi->clientIdLen = (u8)clientId.size();
         vmi->clientIdStr = (u8 *)Vigil_HeapAlloc((u32)clientId.size());
         memcpy(vmi->clientIdStr, clientId.data(), clientId.size());
      }
      WithWriteLock([&] { ASSERT_EQ(VigilAddVmi(filter, vmi), ZEK_OK); });
   }

   void LearnV6(const std::string &ip, u8 method, i64 expiryTs) {
      VigilV6Vmi t;
      memset(&t, 0, sizeof t);
      t.vlanId = 5;
      memcpy(t.mac, MacOf(kVmMac).data(), 6);
      memcpy(t.ip, Ip6(ip).data(), 16);
      t.discMethod = method;
      t.expiryTs = expiryTs;
      if (method == VIGIL_DISC_DHCPV6) {
         t.validLifetime = (i32)(expiryTs - kNow);
      }
      WithWriteLock([&] { ASSERT_EQ(VigilAddV6Vmi(filter, &t), ZEK_OK); });
   }

   void SetIgnoreList(const std::vector<VigilWhiteListEntry> &entries) {
      Vigil_HeapFree(filter->portIgnoreList);
      filter->portIgnoreList = (VigilWhiteListEntry *)Vigil_HeapAlloc(
         (u32)(entries.size() * sizeof(VigilWhiteListEntry)));
      for (size_t i = 0; i < entries.size(); i++) {
         filter->portIgnoreList[i] = entries[i];
      }
      filter->portIgnoreListSize = (u32)entries.size();
   }

   u64 Live() {
      sim::WaitIdle(5.0);
      return sim::GetHeapStats(heapID).allocations;
   }
};

VigilWhiteListEntry IgnoreIp4(const std::string &ip) {
   VigilWhiteListEntry entry;
   memset(&entry, 0, sizeof entry);
   entry.flags = VIGIL_WL_IPV4;
   u32 addr = Ip(ip);
   memcpy(entry.ip, &addr, 4);
   entry.prefixLen = 32;
   return entry;
}

VigilWhiteListEntry IgnoreIp6(const std::string &ip) {
   VigilWhiteListEntry entry;
   memset(&entry, 0, sizeof entry);
   entry.flags = VIGIL_WL_IPV6;
   memcpy(entry.ip, Ip6(ip).data(), 16);
   entry.prefixLen = 128;
   return entry;
}

} // namespace

/* ------------------------------------------------ the header */

TEST_F(MigrationRestoreTest, EmptyBufferIsTheNormalEndOfASourceWithNothingSaved) {
   EXPECT_EQ(Restore({}), ZEK_OK);
   EXPECT_EQ(Logged(), std::vector<std::string>{
                          "1: Stop Vigil migration restore for Port: 0x10, elapsedMS: 1500, "
                          "for bufLen: 0"});
   EXPECT_EQ(Restore({}, kBarePort), ZEK_OK) << "no filter is looked for";
   EXPECT_EQ(Logged(), std::vector<std::string>{
                          "1: Stop Vigil migration restore for Port: 0x11, elapsedMS: 1500, "
                          "for bufLen: 0"});
   EXPECT_EQ(All(), std::vector<std::string>{});
}

TEST_F(MigrationRestoreTest, BufferShorterThanItsHeaderIsInvalidData) {
   Bytes whole = SavedState().bytes;
   for (size_t len : {1, 8, 11}) {
      SCOPED_TRACE(len);
      EXPECT_EQ(Restore(Bytes(whole.begin(), whole.begin() + len)), kInvalidData);
      EXPECT_EQ(Logged(),
                (std::vector<std::string>{
                   "2 ULM1: Unable to read saved state header: invalid length for port: 0x10",
                   "1: Migration data validation failed for portID: 0x10, Invalid data"}));
   }
}

TEST_F(MigrationRestoreTest, NoBufferReadsAsOneTooShortForItsHeader) {
   EXPECT_EQ(VigilMigrationRestore(kPort, nullptr, 64, kElapsed), kInvalidData);
   EXPECT_EQ(Logged(),
             (std::vector<std::string>{
                "2 ULM1: Unable to read saved state header: invalid length for port: 0x10",
                "1: Migration data validation failed for portID: 0x10, Invalid data"}));
}

TEST_F(MigrationRestoreTest, WrongMagicIsABadParameterAndRestoresNothing) {
   /* Every one of the eight bytes counts, the three zero bytes on top too. */
   for (size_t at : {0, 4, 5, 7}) {
      SCOPED_TRACE(at);
      Bytes bytes = SavedState().Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")}).bytes;
      bytes[at] ^= 0x01;
      EXPECT_EQ(Restore(bytes), kBadParam);
      EXPECT_EQ(Logged(),
                (std::vector<std::string>{
                   "2 ULM7: Unable to read saved state header: invalid magic for port: 0x10",
                   "1: Migration data validation failed for portID: 0x10, Bad parameter"}));
   }
   EXPECT_EQ(All(), std::vector<std::string>{});
}

TEST_F(MigrationRestoreTest, VersionOtherThanOneOrHundredIsRefused) {
   for (u32 version : {0u, 2u, 99u, 101u, 0xffffffffu}) {
      SCOPED_TRACE(version);
      Bytes bytes = SavedState(version).Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")}).bytes;
      EXPECT_EQ(Restore(bytes), kBadParam);
      EXPECT_EQ(Logged(),
                (std::vector<std::string>{
                   "2 ULM7: Version " + std::to_string((int)version) +
                      " not supported on port: 0x10",
                   "1: Migration data validation failed for portID: 0x10, Bad parameter"}));
   }
   EXPECT_EQ(All(), std::vector<std::string>{});
}

TEST_F(MigrationRestoreTest, HeaderAloneSucceedsOnceTheFilterIsFoundAndFailsWithoutOne) {
   Bytes bytes = SavedState().bytes;
   ASSERT_EQ(bytes.size(), 12u);
   EXPECT_EQ(Restore(bytes), ZEK_OK);
   EXPECT_EQ(Logged(), std::vector<std::string>{TlvLine(12)});
   EXPECT_EQ(Restore(bytes, kBarePort), kNotFound);
   EXPECT_EQ(Logged(),
             (std::vector<std::string>{
                "1: Vigil migration restore for Port: 0x11, bufLen: 12, elapsedMS: 1500, "
                "version: TLV",
                "2: Vigil Migration restore on unconfigured port 17",
                "2 ULM3: Vigil migration restore (TLV) failed for Port: 0x11"}));
   EXPECT_EQ(Restore(bytes, 0x99), kNotFound) << "a port that does not exist";
   Logged();
   EXPECT_EQ(All(), std::vector<std::string>{});
}

TEST_F(MigrationRestoreTest, NoFilterFailsTheV1LayoutAfterItsListIsBuiltAndFreed) {
   u64 live = Live();
   u64 before = TotalAllocs();
   Bytes bytes = V1Buffer({Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(6))});
   EXPECT_EQ(Restore(bytes, kBarePort), kNotFound);
   EXPECT_EQ(Logged(),
             (std::vector<std::string>{
                "1: Vigil migration restore for Port: 0x11, bufLen: 238, elapsedMS: 1500, "
                "version: V1",
                "2: Vigil Migration restore on unconfigured port 17",
                "2 ULM3: Vigil migration restore (V1) failed for Port: 0x11"}));
   EXPECT_EQ(TotalAllocs() - before, 3u) << "two records and a client id, built first";
   EXPECT_EQ(Live(), live);
   EXPECT_EQ(All(), std::vector<std::string>{});
}

/* ------------------------------------------------ the TLV walk */

TEST_F(MigrationRestoreTest, EveryTypeIsRestoredWithItsTimesAndMessages) {
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(5)),
                              Static("192.0.2.12")})
      .Ipv4(VIGIL_TLV_EXPIRED_IPV4_V1, {Arp("192.0.2.13", (u64)-90)})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50", 500)})
      .NdTlv(VIGIL_TLV_EXPIRED_ND_V1, {NdEntry("2001:db8::51", (u64)-30)})
      .Dhcp6Tlv({Dhcp6Entry("2001:db8::100", Duid(14))});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V4(), (std::vector<std::string>{
                      Binding("192.0.2.12", "static", 0),
                      Binding("192.0.2.13", "arp", kNow - 90),
                      Binding("192.0.2.10", "arp", kNow + 600),
                      Binding("192.0.2.11", "dhcp", kNow + 3600),
                   }));
   EXPECT_EQ(V6(), (std::vector<std::string>{
                      Binding("2001:db8::51", "nd", kNow - 30),
                      Binding("2001:db8::100", "dhcpv6", kNow + 300),
                      Binding("2001:db8::50", "nd", kNow + 500),
                   }));
   EXPECT_EQ(filter->numVmis, 4u);
   EXPECT_EQ(filter->numArpVmis, 2u);
   EXPECT_EQ(filter->numDhcpVmis, 1u);
   EXPECT_EQ(filter->numStaticVmis, 1u);
   EXPECT_EQ(filter->totalClientIdLen, 5u);
   EXPECT_EQ(filter->numNdEntries, 2u);
   EXPECT_EQ(filter->numDhcpV6Entries, 1u);
   EXPECT_EQ(filter->dhcpV6ClientIdBytes, 14u);
   EXPECT_EQ(Messages(), (std::vector<std::string>{
                            "added arp 192.0.2.10",
                            "added dhcp 192.0.2.11",
                            "added static 192.0.2.12",
                            "added arp 192.0.2.13",
                            "added nd 2001:db8::50",
                            "added nd 2001:db8::51",
                            "added dhcpv6 2001:db8::100",
                         }));
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          TlvLine((u32)s.bytes.size()),
                          V6AddedLine("2001:db8::50", VIGIL_DISC_ND, kNow + 500),
                          V6AddedLine("2001:db8::51", VIGIL_DISC_ND, kNow - 30),
                          V6AddedLine("2001:db8::100", VIGIL_DISC_DHCPV6, kNow + 300),
                       }));
}

TEST_F(MigrationRestoreTest, TlvsInTheOrderFourThreeTwoAreAllRestored) {
   SavedState s;
   s.Dhcp6Tlv({Dhcp6Entry("2001:db8::100", Duid(3))})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")})
      .Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600)});
   EXPECT_EQ(Sorted(V6()), Sorted({Binding("2001:db8::100", "dhcpv6", kNow + 300),
                                   Binding("2001:db8::50", "nd", kNow + 600)}));
   EXPECT_EQ(Messages(), (std::vector<std::string>{"added dhcpv6 2001:db8::100",
                                                   "added nd 2001:db8::50",
                                                   "added arp 192.0.2.10"}));
}

TEST_F(MigrationRestoreTest, TypeThatOccursTwiceIsProcessedTwice) {
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")})
      .Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.11")});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V4(), (std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600),
                                             Binding("192.0.2.11", "arp", kNow + 600)}));
}

TEST_F(MigrationRestoreTest, TypeOneTlvOfLength148IsSkippedAsUnknownAndTheNextIsProcessed) {
   SavedState s;
   s.Other(VIGIL_TLV_STATS_V1, Bytes(148, kJunk)).NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V6(), std::vector<std::string>{Binding("2001:db8::50", "nd", kNow + 600)});
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          TlvLine(12 + 152 + 40),
                          "1: Unknown Tlv of type: 0x1, length: 148",
                          V6AddedLine("2001:db8::50", VIGIL_DISC_ND, kNow + 600),
                       }));
}

TEST_F(MigrationRestoreTest, UnknownTypesArePassedOverByTheirLength) {
   SavedState s;
   s.Other(0, Bytes(3, kJunk))
      .Other(7, {})
      .Other(0xffff, Bytes(40, VIGIL_TLV_IPV4_V1))
      .Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600)});
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          TlvLine((u32)s.bytes.size()),
                          "1: Unknown Tlv of type: 0, length: 3",
                          "1: Unknown Tlv of type: 0x7, length: 0",
                          "1: Unknown Tlv of type: 0xffff, length: 40",
                       }));
}

TEST_F(MigrationRestoreTest, Ipv4TlvWithoutEntriesRestoresAnEmptyListAndKeepsWhatIsThere) {
   Learn("192.0.2.20", VIGIL_DISC_ARP, kNow + 100);
   TakeMessages();
   sim::SetLogLevel("vigil", 5);
   Bytes bytes = SavedState().Ipv4(VIGIL_TLV_IPV4_V1, {}).bytes;
   EXPECT_EQ(Restore(bytes), ZEK_OK);
   std::vector<std::string> lines = Logged();
   std::vector<std::string> wanted{
      "1: Processing IPV4 V1 TLV for port: 0x10, tlv_length: 8",
      "1: numVmientries: 0, totClientIdLen: 0",
      "1: Finished restoring IPv4 runtime data associated with the port Id 0x10 ",
   };
   EXPECT_TRUE(std::search(lines.begin(), lines.end(), wanted.begin(), wanted.end()) !=
               lines.end())
      << "the empty list goes to the table without a word of disabled discovery";
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.20", "arp", kNow + 100)});
   EXPECT_EQ(Messages(), std::vector<std::string>{});
}

TEST_F(MigrationRestoreTest, FullVerbosityTellsEveryStepOfTheTlvWalk) {
   sim::SetLogLevel("vigil", 5);
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")})
      .Dhcp6Tlv({Dhcp6Entry("2001:db8::100", Duid(2))})
      .Other(9, Bytes(2, 0));
   u32 len = (u32)s.bytes.size();
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(Logged(),
             (std::vector<std::string>{
                "1: Vigil migration restore for Port: 0x10, bufLen: " + std::to_string(len) +
                   ", elapsedMS: 1500",
                "1: Vigil migrating for port: 0x10 elapsed 1500 millisecond",
                "1: Recvd TLV type",
                TlvLine(len),
                "1: Processing Tlv of type: 0x2, length: 56",
                "1: Processing IPV4 V1 TLV for port: 0x10, tlv_length: 56",
                "1: numVmientries: 1, totClientIdLen: 0",
                "1: Filter 0x10 New vmi: vlanId = 5 mac = 02:00:00:00:00:10 ip = 192.0.2.10",
                "1: Filter 0x10 New vmi: discMethod = 2 [1 0 1 0 0]",
                "1: Finished restoring IPv4 runtime data associated with the port Id 0x10 ",
                "1: Processing Tlv of type: 0x3, length: 36",
                "1: Processing ND V1 TLV for port: 0x10, tlv_length: 36",
                "1: Trying to restore 1 ND VMIs",
                V6AddedLine("2001:db8::50", VIGIL_DISC_ND, kNow + 600),
                "1: Finished restoring ND bindings for port 0x10",
                "1: Processing Tlv of type: 0x4, length: 76",
                "1: Processing DHCP6 V1 TLV for port: 0x10, tlv_length: 76",
                "1: Trying to restore 1 DHCPv6 VMIs",
                V6AddedLine("2001:db8::100", VIGIL_DISC_DHCPV6, kNow + 300),
                "1: Finished restoring DHCPv6 bindings for port 0x10",
                "1: Processing Tlv of type: 0x9, length: 2",
                "1: Unknown Tlv of type: 0x9, length: 2",
             }));
}

TEST_F(MigrationRestoreTest, FullVerbosityTellsEveryStepOfTheV1Restore) {
   sim::SetLogLevel("vigil", 5);
   Bytes bytes = V1Buffer({Arp("192.0.2.10")});
   EXPECT_EQ(Restore(bytes), ZEK_OK);
   EXPECT_EQ(Logged(),
             (std::vector<std::string>{
                "1: Vigil migration restore for Port: 0x10, bufLen: 184, elapsedMS: 1500",
                "1: Vigil migrating for port: 0x10 elapsed 1500 millisecond",
                V1Line(184),
                "1: Filter 0x10 New vmi: vlanId = 5 mac = 02:00:00:00:00:10 ip = 192.0.2.10",
                "1: Filter 0x10 New vmi: discMethod = 2 [1 0 1 0 0]",
                "1: Finished restoring the runtime data associated with the port Id 0x10 ",
             }));
}

/* ------------------------------------------------ entries */

TEST_F(MigrationRestoreTest, RemainingTimeIsItsLowThirtyTwoBitsSignExtended) {
   SetDeleteExpiry(0);
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10", 0x100000010ull),
                              Dhcp("192.0.2.11", {}, 0x7fffffff00000e10ull)})
      .Ipv4(VIGIL_TLV_EXPIRED_IPV4_V1, {Arp("192.0.2.12", 0xffffffffffffffa6ull),
                                        Arp("192.0.2.13", 0x00000000ffffffa6ull)})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50", 0x100000010ull)})
      .NdTlv(VIGIL_TLV_EXPIRED_ND_V1, {NdEntry("2001:db8::51", 0xffffffffffffffa6ull)})
      .Dhcp6Tlv({Dhcp6Entry("2001:db8::100", {}, 0xffffffff0000012cull)});
   /* The remaining time bytes as written: -90 is A6 FF FF FF FF FF FF FF. */
   size_t expiredAt = s.TlvAt(1) + 12 + offsetof(VigilSavedVmi, remaining);
   EXPECT_EQ(Bytes(s.bytes.begin() + expiredAt, s.bytes.begin() + expiredAt + 8),
             (Bytes{0xa6, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}));
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V4(), (std::vector<std::string>{
                      Binding("192.0.2.10", "arp", kNow + 16),
                      Binding("192.0.2.11", "dhcp", kNow + 3600),
                      Binding("192.0.2.12", "arp", kNow - 90) + " expired",
                      Binding("192.0.2.13", "arp", kNow - 90) + " expired",
                   }));
   EXPECT_EQ(V6(), (std::vector<std::string>{
                      Binding("2001:db8::50", "nd", kNow + 16),
                      Binding("2001:db8::100", "dhcpv6", kNow + 300),
                      Binding("2001:db8::51", "nd", kNow - 90) + " expired",
                   }));
   EXPECT_EQ(filter->numExpiredVmis, 2u);
   EXPECT_EQ(filter->numExpiredNdEntries, 1u);
}

TEST_F(MigrationRestoreTest, RemainingTimeRestartsAtTheRestoreAndElapsedTimeIsOnlyTold) {
   sim::Advance(250);
   Bytes bytes = SavedState().Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10", 60)}).bytes;
   std::unique_ptr<u8[]> exact(new u8[bytes.size()]);
   memcpy(exact.get(), bytes.data(), bytes.size());
   EXPECT_EQ(VigilMigrationRestore(kPort, exact.get(), (u32)bytes.size(), 3600000), ZEK_OK);
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 250 + 60)});
}

TEST_F(MigrationRestoreTest, DhcpEntryKeepsItsLeaseAndAClientIdOfItsOwnNeverTheSendersPointer) {
   SavedV4 withId = Dhcp("192.0.2.11", Bytes{1, 2, 3, 4, 5});
   withId.lease = 7200;
   SavedV4 withoutId = Dhcp("192.0.2.12");
   withoutId.pointer = kStalePointer; /* a stale pointer with no id behind */
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {withId, Arp("192.0.2.10"), withoutId});
   /* The DHCP entry takes 53 bytes: the ARP entry stands unaligned behind. */
   EXPECT_EQ(s.spans[2].end - s.spans[2].start, 53u);
   EXPECT_EQ(s.spans[3].start, s.spans[2].start + 53);
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);

   VigilVmi *a = FindV4("192.0.2.11");
   ASSERT_NE(a, nullptr);
   EXPECT_EQ(a->discMethod, VIGIL_DISC_DHCP);
   EXPECT_EQ(a->clientIdLen, 5);
   ASSERT_NE(a->clientIdStr, nullptr);
   EXPECT_NE((u64)(uintptr_t)a->clientIdStr, kStalePointer);
   EXPECT_EQ(Bytes(a->clientIdStr, a->clientIdStr + 5), (Bytes{1, 2, 3, 4, 5}));
   EXPECT_EQ(MacText(a->clientMac), "02:00:00:00:00:99");
   EXPECT_EQ(a->serverIp, Ip("192.0.2.1"));
   EXPECT_EQ(a->leaseTime, 7200u);
   EXPECT_EQ(a->expiryTs, kNow + 3600);

   VigilVmi *b = FindV4("192.0.2.12");
   ASSERT_NE(b, nullptr);
   EXPECT_EQ(b->clientIdLen, 0);
   EXPECT_EQ(b->clientIdStr, nullptr);

   VigilVmi *arp = FindV4("192.0.2.10");
   ASSERT_NE(arp, nullptr);
   EXPECT_EQ(arp->expiryTs, kNow + 600);
   EXPECT_EQ(arp->clientIdStr, nullptr) << "offsets 24 to 47 of an ARP entry mean nothing";
   EXPECT_EQ(arp->clientIdLen, 0);
   EXPECT_EQ(arp->leaseTime, 0u);
   EXPECT_EQ(filter->totalClientIdLen, 5u);
   EXPECT_EQ(DatabaseAllocations(), 4u) << "three records and one client id";
}

TEST_F(MigrationRestoreTest, Dhcp6EntryTakesSeventyBytesWithItsDuidAndKeepsItsLease) {
   SavedD6 e = Dhcp6Entry("2001:db8::100", Duid(14, 0x40), 250);
   e.valid = 400;
   e.preferred = 300;
   SavedState s;
   s.Dhcp6Tlv({e, Dhcp6Entry("2001:db8::101")});
   EXPECT_EQ(s.bytes.size(), 12u + 8 + 84 + 70);
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   VigilV6Vmi *vmi = FindV6("2001:db8::100");
   ASSERT_NE(vmi, nullptr);
   EXPECT_EQ(vmi->discMethod, VIGIL_DISC_DHCPV6);
   EXPECT_EQ(vmi->expiryTs, kNow + 250);
   EXPECT_EQ(vmi->iaId, 0x0a0b0c0du);
   EXPECT_EQ(Ip6Text(vmi->serverIp), "fe80::1");
   EXPECT_EQ(vmi->validLifetime, 400);
   EXPECT_EQ(vmi->preferredLifetime, 300u);
   ASSERT_EQ(vmi->clientIdLen, 14);
   EXPECT_EQ(Bytes(vmi->clientId, vmi->clientId + 14), Duid(14, 0x40));
   VigilV6Vmi *other = FindV6("2001:db8::101");
   ASSERT_NE(other, nullptr);
   EXPECT_EQ(other->clientId, nullptr);
   EXPECT_EQ(filter->dhcpV6ClientIdBytes, 14u);
   EXPECT_EQ(DatabaseAllocations(), 3u) << "the template's DUID block went back";
}

TEST_F(MigrationRestoreTest, EntriesWithAMethodTheirLayoutCannotCarryAreSkipped) {
   SavedV4 none = Arp("192.0.2.20");
   none.method = 0;
   SavedV4 two = Arp("192.0.2.21");
   two.method = VIGIL_DISC_DHCP | VIGIL_DISC_ARP;
   SavedV4 nd = Arp("192.0.2.22");
   nd.method = VIGIL_DISC_ND;
   SavedV4 high = Arp("192.0.2.23");
   high.method = 0x80;
   /* Type 5 carries ARP bindings only; a DHCP entry there has no client id
    * behind it, whatever its length byte says. */
   SavedV4 expiredDhcp = Dhcp("192.0.2.24", Duid(9));
   SavedV4 expiredStatic = Static("192.0.2.25");
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {none, Arp("192.0.2.10"), two, nd, high})
      .Ipv4(VIGIL_TLV_EXPIRED_IPV4_V1, {expiredDhcp, expiredStatic, Arp("192.0.2.11")});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V4(), (std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600),
                                             Binding("192.0.2.11", "arp", kNow + 600)}));
   size_t t2 = s.TlvAt(1);
   std::string at5 = "2: Vigil migration restore for Port: 0x10: Tlv of type 0x5 at offset " +
                     std::to_string(t2) + ": entry ";
   EXPECT_EQ(Logged(),
             (std::vector<std::string>{
                TlvLine((u32)s.bytes.size()),
                "2: Vigil migration restore for Port: 0x10: Tlv of type 0x2 at offset 12: entry "
                "0 at offset 24 has discMethod 0, skipped",
                "2: Vigil migration restore for Port: 0x10: Tlv of type 0x2 at offset 12: entry "
                "2 at offset 120 has discMethod 3, skipped",
                "2: Vigil migration restore for Port: 0x10: Tlv of type 0x2 at offset 12: entry "
                "3 at offset 168 has discMethod 8, skipped",
                "2: Vigil migration restore for Port: 0x10: Tlv of type 0x2 at offset 12: entry "
                "4 at offset 216 has discMethod 128, skipped",
                at5 + "0 at offset " + std::to_string(t2 + 12) + " has discMethod 1, skipped",
                at5 + "1 at offset " + std::to_string(t2 + 60) + " has discMethod 4, skipped",
             }));

   Restart();
   SavedV4 v1nd = Arp("192.0.2.22");
   v1nd.method = VIGIL_DISC_ND;
   EXPECT_EQ(Restore(V1Buffer({v1nd, Static("192.0.2.12")})), ZEK_OK);
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.12", "static", 0)});
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          V1Line(232),
                          "2: Vigil migration restore (V1) for Port: 0x10: entry 0 at offset "
                          "136 has discMethod 8, skipped",
                       }));
}

/* ------------------------------------------------ static bindings */

TEST_F(MigrationRestoreTest, RestoredStaticBindingIgnoresItsTimeBytesAndIsNoAgingCandidate) {
   EXPECT_EQ(Restore(SavedState().Ipv4(VIGIL_TLV_IPV4_V1, {Static("192.0.2.12")}).bytes),
             ZEK_OK);
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.12", "static", 0)});
   EXPECT_EQ(filter->agingPortID, 0u);
   EXPECT_EQ(filter->agingKey, VIGIL_AGING_KEY_NONE);
   /* Behind a static binding no IPv4 binding is a candidate either. */
   EXPECT_EQ(Restore(V1Buffer({Arp("192.0.2.10", 30)})), ZEK_OK);
   EXPECT_EQ(filter->agingPortID, 0u);
   for (const auto &entry : sim::PriQContents(filterAgingQ)) {
      EXPECT_NE(entry.second, &filter->agingPortID);
   }
   /* An IPv6 binding still is. */
   EXPECT_EQ(Restore(SavedState().NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50", 40)}).bytes),
             ZEK_OK);
   EXPECT_EQ(filter->agingPortID, kPort);
   EXPECT_EQ(filter->agingKey, kNow + 40);
}

TEST_F(MigrationRestoreTest, StaticBindingsOfARestoreGoWhenTheFilterIsDestroyed) {
   constexpr u32 kRealPort = 0x12;
   ASSERT_TRUE(sim::AddPort("vs0", kRealPort));
   u64 live = Live();
   u32 locks = sim::LiveLocks();
   VigilFilter *real = nullptr;
   ASSERT_EQ(Vigil_CreateFilter(sim::FindPortset("vs0"), kRealPort, &real), ZEK_OK);
   real->discoveryFlags = VIGIL_DISC_ARP | VIGIL_DISC_ND | VIGIL_DISC_DHCPV6;
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Static("192.0.2.12"), Static("192.0.2.13"),
                              Dhcp("192.0.2.11", Duid(4)), Arp("192.0.2.10")})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")})
      .Dhcp6Tlv({Dhcp6Entry("2001:db8::100", Duid(8))});
   std::unique_ptr<u8[]> exact(new u8[s.bytes.size()]);
   memcpy(exact.get(), s.bytes.data(), s.bytes.size());
   EXPECT_EQ(VigilMigrationRestore(kRealPort, exact.get(), (u32)s.bytes.size(), 0), ZEK_OK);
   EXPECT_EQ(real->numStaticVmis, 2u);
   EXPECT_EQ(real->numVmis, 4u);
   EXPECT_EQ(real->numNdEntries + real->numDhcpV6Entries, 2u);
   std::vector<std::string> found;
   EXPECT_EQ(VigilCheckFilterTables(real, CollectViolation, &found), 0u);
   sim::WaitIdle(5.0);
   sim::TakePortsetMessages();

   EXPECT_EQ(Vigil_DestroyFilter(kRealPort), ZEK_OK);
   EXPECT_EQ(sim::PortData(kRealPort, VIGIL_FILTER_SLOT), nullptr);
   EXPECT_EQ(Live(), live) << "records, client ids, hashes and the filter all went";
   EXPECT_EQ(sim::LiveLocks(), locks);
   EXPECT_EQ(numFilters, 0u);
   std::vector<std::string> removed;
   for (const sim::PortsetMessage &m : sim::TakePortsetMessages()) {
      removed.push_back(m.name);
   }
   EXPECT_EQ(removed, std::vector<std::string>(6, "portdb.entry.removed"));
   TakeModuleLogs();
}

/* ------------------------------------------------ what discovery honours */

TEST_F(MigrationRestoreTest, DiscoveryFlagsDecideWhichPartsOfATlvBufferAreHonoured) {
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(3))})
      .Ipv4(VIGIL_TLV_EXPIRED_IPV4_V1, {Arp("192.0.2.12", (u64)-5)})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")})
      .NdTlv(VIGIL_TLV_EXPIRED_ND_V1, {NdEntry("2001:db8::51", (u64)-5)})
      .Dhcp6Tlv({Dhcp6Entry("2001:db8::100")});
   const std::string v4Off = "1: IP Discovery disabled for portID: 0x10";
   const std::string ndOff = "1: ND Snooping disabled, skipping restoring bindings for port 0x10";
   const std::string d6Off =
      "1: DHCPv6 Snooping disabled, skipping restoring bindings for port 0x10";
   struct Case {
      u32 flags;
      u32 v4, nd, dhcp6;
   };
   /* Any IPv4 bit honours every IPv4 entry, the static bit included,
    * although discovery never sets it. */
   for (Case c : {Case{0, 0, 0, 0}, Case{VIGIL_DISC_DHCP, 3, 0, 0}, Case{VIGIL_DISC_ARP, 3, 0, 0},
                  Case{VIGIL_DISC_STATIC, 3, 0, 0}, Case{VIGIL_DISC_ND, 0, 2, 0},
                  Case{VIGIL_DISC_DHCPV6, 0, 0, 1}, Case{0x1f, 3, 2, 1}}) {
      SCOPED_TRACE("flags " + std::to_string(c.flags));
      Restart();
      u64 live = Live();
      u64 before = TotalAllocs();
      filter->discoveryFlags = c.flags;
      EXPECT_EQ(Restore(s.bytes), ZEK_OK);
      EXPECT_EQ(filter->numVmis, c.v4);
      EXPECT_EQ(filter->numNdEntries, c.nd);
      EXPECT_EQ(filter->numDhcpV6Entries, c.dhcp6);
      std::vector<std::string> lines = Logged();
      auto has = [&](const std::string &text) {
         return (u32)std::count(lines.begin(), lines.end(), text);
      };
      EXPECT_EQ(has(v4Off), c.v4 == 0 ? 2u : 0u);
      EXPECT_EQ(has(ndOff), c.nd == 0 ? 2u : 0u);
      EXPECT_EQ(has(d6Off), c.dhcp6 == 0 ? 1u : 0u);
      if (c.v4 == 0) {
         /* The IPv4 records are built and thrown away. */
         EXPECT_EQ(TotalAllocs() - before, 4u + 2 * c.nd + 2 * c.dhcp6)
            << "IPv4: three records and an id; IPv6: a record and a message each";
         EXPECT_EQ(Live() - live, (u64)c.nd + c.dhcp6);
      }
   }
   filter->discoveryFlags = 0x1f;
}

TEST_F(MigrationRestoreTest, V1EntriesAreHonouredByAnySnoopingBitIpv6OnesIncluded) {
   Bytes bytes = V1Buffer({Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(3)), Static("192.0.2.12")});
   for (u32 flags : {0u, (u32)VIGIL_DISC_STATIC, (u32)VIGIL_DISC_DHCP, (u32)VIGIL_DISC_ARP,
                     (u32)VIGIL_DISC_ND, (u32)VIGIL_DISC_DHCPV6}) {
      SCOPED_TRACE("flags " + std::to_string(flags));
      Restart();
      filter->discoveryFlags = flags;
      bool honoured = (flags & 0x1b) != 0;
      EXPECT_EQ(Restore(bytes), ZEK_OK);
      EXPECT_EQ(filter->numVmis, honoured ? 3u : 0u);
      std::vector<std::string> wanted{V1Line((u32)bytes.size())};
      if (!honoured) {
         wanted.push_back("1: IP Discovery disabled for portID: 0x10");
      }
      EXPECT_EQ(Logged(), wanted);
      EXPECT_EQ(Live(), baseAllocs_ + DatabaseAllocations());
   }
   filter->discoveryFlags = 0x1f;
}

TEST_F(MigrationRestoreTest, ArpEntryIsRestoredWithOnlyDhcpSnoopingOnAndTheReverse) {
   Bytes bytes = SavedState()
                    .Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(2))})
                    .bytes;
   for (u32 flags : {(u32)VIGIL_DISC_DHCP, (u32)VIGIL_DISC_ARP}) {
      Restart();
      filter->discoveryFlags = flags;
      EXPECT_EQ(Restore(bytes), ZEK_OK);
      EXPECT_EQ(V4(), (std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600),
                                                Binding("192.0.2.11", "dhcp", kNow + 3600)}));
   }
}

TEST_F(MigrationRestoreTest, V1OnAnNdOnlyPortRestoresItsIpv4Bindings) {
   filter->discoveryFlags = VIGIL_DISC_ND;
   EXPECT_EQ(Restore(V1Buffer({Arp("192.0.2.10"), Static("192.0.2.12")})), ZEK_OK);
   EXPECT_EQ(V4(), (std::vector<std::string>{Binding("192.0.2.12", "static", 0),
                                             Binding("192.0.2.10", "arp", kNow + 600)}));
   Restart();
   EXPECT_EQ(Restore(SavedState().Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")}).bytes), ZEK_OK);
   EXPECT_EQ(V4(), std::vector<std::string>{}) << "the TLV path asks for an IPv4 bit";
}

/* ------------------------------------------------ bindings already there */

TEST_F(MigrationRestoreTest, RestoredDhcpBindingReplacesALearntArpBindingOfTheSameKey) {
   Learn("192.0.2.10", VIGIL_DISC_ARP, kNow + 100);
   Learn("192.0.2.20", VIGIL_DISC_ARP, kNow + 100);
   TakeMessages();
   EXPECT_EQ(Restore(SavedState()
                        .Ipv4(VIGIL_TLV_IPV4_V1,
                              {Dhcp("192.0.2.10", Duid(4)), Static("192.0.2.20")})
                        .bytes),
             ZEK_OK);
   EXPECT_EQ(V4(), (std::vector<std::string>{Binding("192.0.2.20", "static", 0),
                                             Binding("192.0.2.10", "dhcp", kNow + 3600)}));
   EXPECT_EQ(Messages(), (std::vector<std::string>{
                            "removed arp 192.0.2.10", "added dhcp 192.0.2.10",
                            "removed arp 192.0.2.20", "added static 192.0.2.20"}));
   EXPECT_EQ(filter->numArpVmis, 0u);
}

TEST_F(MigrationRestoreTest, RestoredBindingEqualToALearntOneIsRefusedAndClearsTheIpv4Database) {
   Learn("192.0.2.10", VIGIL_DISC_DHCP, kNow + 100, Duid(3));
   Learn("192.0.2.30", VIGIL_DISC_STATIC, 0);
   Learn("192.0.2.40", VIGIL_DISC_ARP, kNow + 200);
   TakeMessages();
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.11")})
      .Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.12"), Dhcp("192.0.2.10", Duid(5)), Arp("192.0.2.13")})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   /* What an earlier TLV restored goes too; static bindings stay, and the
    * walk goes on. */
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.30", "static", 0)});
   EXPECT_EQ(V6(), std::vector<std::string>{Binding("2001:db8::50", "nd", kNow + 600)});
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          TlvLine((u32)s.bytes.size()),
                          "2 ULM5: Add Vmi failed",
                          V6AddedLine("2001:db8::50", VIGIL_DISC_ND, kNow + 600),
                       }));
   EXPECT_EQ(Messages(), (std::vector<std::string>{
                            "added arp 192.0.2.11",
                            "added arp 192.0.2.12",
                            "removed dhcp 192.0.2.10",
                            "removed arp 192.0.2.40",
                            "removed arp 192.0.2.11",
                            "removed arp 192.0.2.12",
                            "added nd 2001:db8::50",
                         }));
   EXPECT_EQ(filter->totalClientIdLen, 0u);
}

TEST_F(MigrationRestoreTest, V1AddFailureClearsTheIpv4DatabaseAndReturnsItsStatus) {
   Learn("192.0.2.20", VIGIL_DISC_DHCP, kNow + 100);
   Learn("192.0.2.30", VIGIL_DISC_STATIC, 0);
   Learn("192.0.2.40", VIGIL_DISC_ARP, kNow + 200);
   TakeMessages();
   u64 before = TotalAllocs();
   Bytes bytes = V1Buffer({Arp("192.0.2.11"), Arp("192.0.2.20"), Dhcp("192.0.2.12", Duid(7))});
   EXPECT_EQ(Restore(bytes), kExists);
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.30", "static", 0)});
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          V1Line((u32)bytes.size()),
                          "2 ULM5: Add Vmi failed",
                          "2 ULM5: Vigil migration restore (V1) failed for Port: 0x10",
                       }));
   EXPECT_EQ(Messages(), (std::vector<std::string>{
                            "added arp 192.0.2.11",
                            "removed dhcp 192.0.2.20",
                            "removed arp 192.0.2.40",
                            "removed arp 192.0.2.11",
                         }));
   EXPECT_EQ(TotalAllocs() - before, 4u + 4u) << "records, an id and a message per change";
   ExpectNoLeak();
}

TEST_F(MigrationRestoreTest, StaticBindingEqualToARestoredStaticOneIsRefused) {
   Learn("192.0.2.30", VIGIL_DISC_STATIC, 0);
   Learn("192.0.2.40", VIGIL_DISC_ARP, kNow + 200);
   EXPECT_EQ(Restore(V1Buffer({Static("192.0.2.30")})), kExists);
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.30", "static", 0)});
   EXPECT_EQ(Errors(), (std::vector<std::string>{
                          "2 ULM5: Add Vmi failed",
                          "2 ULM5: Vigil migration restore (V1) failed for Port: 0x10",
                       }));
}

TEST_F(MigrationRestoreTest, RestoredNdBindingAlreadyPresentGetsAFullNdLifeNotTheSavedTime) {
   LearnV6("2001:db8::50", VIGIL_DISC_ND, kNow + 10);
   sim::Advance(5);
   EXPECT_EQ(Restore(SavedState().NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50", 30)}).bytes),
             ZEK_OK);
   EXPECT_EQ(V6(), std::vector<std::string>{Binding("2001:db8::50", "nd", kNow + 5 + 600)});
   EXPECT_EQ(filter->numNdEntries, 1u);
}

TEST_F(MigrationRestoreTest, RestoredDhcpV6TakesAnAddressOverFromNdButNdNeverFromDhcpV6) {
   LearnV6("2001:db8::50", VIGIL_DISC_ND, kNow + 10);
   LearnV6("2001:db8::51", VIGIL_DISC_DHCPV6, kNow + 900);
   TakeMessages();
   SavedState s;
   s.Dhcp6Tlv({Dhcp6Entry("2001:db8::50", Duid(2), 300)})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::51", 60)});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V6(), (std::vector<std::string>{Binding("2001:db8::50", "dhcpv6", kNow + 300),
                                             Binding("2001:db8::51", "dhcpv6", kNow + 900)}));
   EXPECT_EQ(Messages(), (std::vector<std::string>{"removed nd 2001:db8::50",
                                                   "added dhcpv6 2001:db8::50"}));
}

/* ------------------------------------------------ the ignore list */

TEST_F(MigrationRestoreTest, IgnoredIpv4BindingIsRefusedCountedAndTakesTheIpv4DatabaseWithIt) {
   SetIgnoreList({IgnoreIp4("192.0.2.11")});
   Learn("192.0.2.40", VIGIL_DISC_ARP, kNow + 200);
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10"), Arp("192.0.2.11"), Arp("192.0.2.12")})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V4(), std::vector<std::string>{});
   EXPECT_EQ(V6(), std::vector<std::string>{Binding("2001:db8::50", "nd", kNow + 600)});
   EXPECT_EQ(filter->stats.statV4VmiAddRefused, 1u);
   EXPECT_EQ(Errors(), std::vector<std::string>{"2 ULM2: Add Vmi failed"});

   Restart();
   EXPECT_EQ(Restore(V1Buffer({Arp("192.0.2.10"), Arp("192.0.2.11")})), kIgnored);
   EXPECT_EQ(V4(), std::vector<std::string>{});
   EXPECT_EQ(filter->stats.statV4VmiAddRefused, 2u);
   EXPECT_EQ(Errors(), (std::vector<std::string>{
                          "2 ULM2: Add Vmi failed",
                          "2 ULM2: Vigil migration restore (V1) failed for Port: 0x10",
                       }));
}

TEST_F(MigrationRestoreTest, IgnoredIpv6BindingIsRefusedCountedAndTheOthersStay) {
   SetIgnoreList({IgnoreIp6("2001:db8::51"), IgnoreIp6("2001:db8::100")});
   SavedState s;
   s.NdTlv(VIGIL_TLV_ND_V1,
           {NdEntry("2001:db8::50"), NdEntry("2001:db8::51"), NdEntry("2001:db8::52")})
      .Dhcp6Tlv({Dhcp6Entry("2001:db8::100", Duid(6)), Dhcp6Entry("2001:db8::101", Duid(6))})
      .Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(Sorted(V6()), Sorted({Binding("2001:db8::50", "nd", kNow + 600),
                                   Binding("2001:db8::52", "nd", kNow + 600),
                                   Binding("2001:db8::101", "dhcpv6", kNow + 300)}));
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600)});
   EXPECT_EQ(filter->stats.statV6VmiAddRefused, 2u);
   EXPECT_EQ(Errors(), (std::vector<std::string>{
                          "2 throttled: Filter 0x10 Unable to add VMI: Ignored",
                          "2 throttled: Filter 0x10 Unable to add VMI: Ignored",
                       }));
}

TEST_F(MigrationRestoreTest, Ipv6AddFailureLosesThatEntryAndTheWalkGoesOn) {
   filter->portDbNdEntriesSize = 1;
   SavedState s;
   s.NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50"), NdEntry("2001:db8::51")})
      .Dhcp6Tlv({Dhcp6Entry("2001:db8::100")});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(Sorted(V6()), Sorted({Binding("2001:db8::50", "nd", kNow + 600),
                                   Binding("2001:db8::100", "dhcpv6", kNow + 300)}));
   EXPECT_EQ(Errors(), (std::vector<std::string>{
                          "2 throttled: Filter 0x10 Max ND Snooped IP limit of 1 reached for "
                          "port 0x10",
                          "2 throttled: Filter 0x10 Unable to add VMI: Limit exceeded",
                       }));
}

/* ------------------------------------------------ allocation failures */

TEST_F(MigrationRestoreTest, V1RecordAllocationFailureRestoresNothing) {
   Bytes bytes = V1Buffer({Arp("192.0.2.10"), Arp("192.0.2.11")});
   sim::FaultAlloc(2);
   EXPECT_EQ(Restore(bytes), kNoMemory);
   sim::FaultAlloc(0);
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          V1Line((u32)bytes.size()),
                          "2: Vigil migration VMI alloc failed",
                          "1: Error creating VMIlist for portID: 0x10, Out of memory",
                          "2 ULM20: Vigil migration restore (V1) failed for Port: 0x10",
                       }));
   EXPECT_EQ(All(), std::vector<std::string>{});
   ExpectNoLeak();
}

TEST_F(MigrationRestoreTest, V1ClientIdAllocationFailureRestoresNothingAndSucceeds) {
   Bytes bytes = V1Buffer({Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(4)), Arp("192.0.2.12")});
   sim::FaultAlloc(3);
   EXPECT_EQ(Restore(bytes), ZEK_OK);
   sim::FaultAlloc(0);
   EXPECT_EQ(Logged(), (std::vector<std::string>{V1Line((u32)bytes.size()),
                                                 "2: Vmi clientIdStr alloc failed"}));
   EXPECT_EQ(All(), std::vector<std::string>{});
   ExpectNoLeak();
}

TEST_F(MigrationRestoreTest, TlvRecordAllocationFailureSkipsThatTlvAndTheWalkGoesOn) {
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10"), Arp("192.0.2.11")})
      .Ipv4(VIGIL_TLV_EXPIRED_IPV4_V1, {Arp("192.0.2.12", (u64)-1)})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")});
   sim::FaultAlloc(2);
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   sim::FaultAlloc(0);
   EXPECT_EQ(All(), (std::vector<std::string>{Binding("192.0.2.12", "arp", kNow - 1),
                                              Binding("2001:db8::50", "nd", kNow + 600)}));
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          TlvLine((u32)s.bytes.size()),
                          "2: Vigil migration VMI alloc failed",
                          "1: Error creating VMIlist for portID: 0x10, Out of memory",
                          V6AddedLine("2001:db8::50", VIGIL_DISC_ND, kNow + 600),
                       }));
   ExpectNoLeak();
}

TEST_F(MigrationRestoreTest, ClientIdAllocationFailingAtTheThirdEntryLeavesTheFirstTwoOutToo) {
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1,
          {Dhcp("192.0.2.10", Duid(3)), Dhcp("192.0.2.11", Duid(4)), Dhcp("192.0.2.12", Duid(5))})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")});
   /* Record, id, record, id, record, id: the sixth fails. */
   sim::FaultAlloc(6);
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   sim::FaultAlloc(0);
   EXPECT_EQ(V4(), std::vector<std::string>{}) << "the list is freed before any add";
   EXPECT_EQ(V6(), std::vector<std::string>{Binding("2001:db8::50", "nd", kNow + 600)});
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          TlvLine((u32)s.bytes.size()),
                          "2: Vmi clientIdStr alloc failed",
                          V6AddedLine("2001:db8::50", VIGIL_DISC_ND, kNow + 600),
                       }));
   EXPECT_EQ(Messages(), std::vector<std::string>{"added nd 2001:db8::50"});
   ExpectNoLeak();
}

TEST_F(MigrationRestoreTest, Dhcp6ClientIdAllocationFailureSkipsThatEntryOnly) {
   SavedState s;
   s.Dhcp6Tlv({Dhcp6Entry("2001:db8::100", Duid(14)), Dhcp6Entry("2001:db8::101", Duid(10)),
               Dhcp6Entry("2001:db8::102", Duid(3))});
   /* The first entry: its DUID, the record, the record's DUID, the added
    * message; the second entry's DUID is the fifth. */
   sim::FaultAlloc(5);
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   sim::FaultAlloc(0);
   EXPECT_EQ(Sorted(V6()), Sorted({Binding("2001:db8::100", "dhcpv6", kNow + 300),
                                   Binding("2001:db8::102", "dhcpv6", kNow + 300)}));
   u32 second = (u32)s.spans[3].start;
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          TlvLine((u32)s.bytes.size()),
                          V6AddedLine("2001:db8::100", VIGIL_DISC_DHCPV6, kNow + 300),
                          "2: Vigil migration restore for Port: 0x10: Tlv of type 0x4 at offset "
                          "12: no memory for the client id (10 bytes) of entry 1 at offset " +
                             std::to_string(second) + ", skipped",
                          V6AddedLine("2001:db8::102", VIGIL_DISC_DHCPV6, kNow + 300),
                       }));
   ExpectNoLeak();
}

TEST_F(MigrationRestoreTest, EachAllocationOfATlvRestoreFailingLeavesSoundTablesAndNoLeak) {
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(4))})
      .Ipv4(VIGIL_TLV_EXPIRED_IPV4_V1, {Arp("192.0.2.12", (u64)-3)})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")})
      .Dhcp6Tlv({Dhcp6Entry("2001:db8::100", Duid(5))});
   /* 1-5 IPv4: record, record, id, then a message per add; 6-7 expired:
    * record, message; 8-9 ND: record, message; 10-13 DHCPv6: the template's
    * id, the record, its id, the message.  A failed message loses nothing. */
   auto lostWhen = [](u32 n) -> std::vector<std::string> {
      if (n >= 1 && n <= 3) {
         return {"192.0.2.10", "192.0.2.11"}; /* the whole TLV */
      }
      if (n == 6) {
         return {"192.0.2.12"};
      }
      if (n == 8) {
         return {"2001:db8::50"};
      }
      if (n >= 10 && n <= 12) {
         return {"2001:db8::100"};
      }
      return {};
   };
   ForEachAllocFailure(
      13, [] {}, [&] { EXPECT_EQ(Restore(s.bytes), ZEK_OK); },
      [&](u32 n) {
         std::vector<std::string> want;
         for (const std::string &b : {Binding("192.0.2.12", "arp", kNow - 3),
                                      Binding("192.0.2.10", "arp", kNow + 600),
                                      Binding("192.0.2.11", "dhcp", kNow + 3600),
                                      Binding("2001:db8::100", "dhcpv6", kNow + 300),
                                      Binding("2001:db8::50", "nd", kNow + 600)}) {
            std::vector<std::string> lost = lostWhen(n);
            bool gone = std::any_of(lost.begin(), lost.end(), [&](const std::string &ip) {
               return b.find(" " + ip + " ") != std::string::npos;
            });
            if (!gone) {
               want.push_back(b);
            }
         }
         EXPECT_EQ(Sorted(All()), Sorted(want));
      });
}

TEST_F(MigrationRestoreTest, EachAllocationOfAV1RestoreFailingGivesItsStatus) {
   Bytes bytes = V1Buffer({Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(4)), Static("192.0.2.12")});
   zek_Status status = ZEK_OK;
   /* Before the lock: record, record, id, record; then a message per add. */
   ForEachAllocFailure(
      7, [] {}, [&] { status = Restore(bytes); },
      [&](u32 n) {
         bool recordFailed = n == 1 || n == 2 || n == 4;
         EXPECT_EQ(status, recordFailed ? kNoMemory : ZEK_OK);
         EXPECT_EQ(filter->numVmis, n >= 1 && n <= 4 ? 0u : 3u);
      });
}

/* ------------------------------------------------ corrupt buffers */

TEST_F(MigrationRestoreTest, EntryCountBeyondWhatTheTlvHoldsIsCutToTheEntriesThatFit) {
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(5))}, {0xffffffff})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50")}, {0xffffffff})
      .Dhcp6Tlv({Dhcp6Entry("2001:db8::100")}, {0xffffffff})
      .Ipv4(VIGIL_TLV_EXPIRED_IPV4_V1, {Arp("192.0.2.12", (u64)-4)}, {1000});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(Sorted(All()), Sorted({Binding("192.0.2.10", "arp", kNow + 600),
                                    Binding("192.0.2.11", "dhcp", kNow + 3600),
                                    Binding("192.0.2.12", "arp", kNow - 4),
                                    Binding("2001:db8::50", "nd", kNow + 600),
                                    Binding("2001:db8::100", "dhcpv6", kNow + 300)}));
   size_t nd = s.TlvAt(1);
   size_t last = s.TlvAt(3);
   EXPECT_EQ(Errors(),
             (std::vector<std::string>{
                "2: Vigil migration restore for Port: 0x10: Tlv of type 0x2 at offset 12 ends "
                "inside entry 2 at offset " +
                   std::to_string(nd) + ", the rest of the Tlv is skipped",
                "2: Vigil migration restore for Port: 0x10: Tlv of type 0x3 at offset " +
                   std::to_string(nd) + " ends inside entry 1 at offset " +
                   std::to_string(nd + 40) + ", the rest of the Tlv is skipped",
                "2: Vigil migration restore for Port: 0x10: Tlv of type 0x5 at offset " +
                   std::to_string(last) + " ends inside entry 1 at offset " +
                   std::to_string(last + 60) + ", the rest of the Tlv is skipped",
             }))
      << "the DHCPv6 count is only told";
}

TEST_F(MigrationRestoreTest, V1CountBeyondTheBufferRestoresNothing) {
   Bytes bytes = V1Buffer({Arp("192.0.2.10"), Arp("192.0.2.11")}, 0xffffffff);
   u64 before = TotalAllocs();
   EXPECT_EQ(Restore(bytes), kInvalidData);
   EXPECT_EQ(TotalAllocs() - before, 2u) << "what fits was built, then freed";
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          V1Line(232),
                          "2: Vigil migration restore (V1) for Port: 0x10: entry 2 at offset "
                          "232 runs past the end of the buffer (232 bytes)",
                          "2 ULM1: Vigil migration restore (V1) failed for Port: 0x10",
                       }));
   EXPECT_EQ(All(), std::vector<std::string>{});
   ExpectNoLeak();
}

TEST_F(MigrationRestoreTest, TlvOfLengthZeroHoldsNoCountsAndTheWalkStepsOverItsHeader) {
   for (u16 type : {VIGIL_TLV_IPV4_V1, VIGIL_TLV_EXPIRED_IPV4_V1, VIGIL_TLV_ND_V1,
                    VIGIL_TLV_EXPIRED_ND_V1, VIGIL_TLV_DHCP6_V1}) {
      SCOPED_TRACE(type);
      Restart();
      SavedState s;
      if (type == VIGIL_TLV_IPV4_V1 || type == VIGIL_TLV_EXPIRED_IPV4_V1) {
         s.Ipv4(type, {}, {-1, 0});
      } else if (type == VIGIL_TLV_DHCP6_V1) {
         s.Dhcp6Tlv({}, {-1, 0});
      } else {
         s.NdTlv(type, {}, {-1, 0});
      }
      /* Nothing but the 4-byte header: the next TLV stands right behind. */
      s.bytes.resize(16);
      s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")});
      EXPECT_EQ(Restore(s.bytes), ZEK_OK);
      EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600)});
      u32 need = type == VIGIL_TLV_IPV4_V1 || type == VIGIL_TLV_EXPIRED_IPV4_V1 ? 12 : 8;
      char text[200];
      snprintf(text, sizeof text,
               "2: Vigil migration restore for Port: 0x10: Tlv of type %#x at offset 12 ends "
               "before its counts (4 of %u bytes), skipped",
               type, need);
      EXPECT_EQ(Errors(), std::vector<std::string>{text});
   }
}

TEST_F(MigrationRestoreTest, TlvLengthBeyondTheBufferKeepsTheEntriesInsideTheBuffer) {
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")})
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50"), NdEntry("2001:db8::51")}, {-1, 0xffff});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(All(), (std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600),
                                              Binding("2001:db8::50", "nd", kNow + 600),
                                              Binding("2001:db8::51", "nd", kNow + 600)}));
   EXPECT_EQ(Errors(), std::vector<std::string>{}) << "nothing announced was lost";

   Restart();
   SavedState d;
   d.Dhcp6Tlv({Dhcp6Entry("2001:db8::100"), Dhcp6Entry("2001:db8::101")}, {-1, 0xffff});
   EXPECT_EQ(Restore(d.bytes), ZEK_OK);
   EXPECT_EQ(V6().size(), 2u);
   EXPECT_EQ(Errors(), std::vector<std::string>{});
}

TEST_F(MigrationRestoreTest, TlvLengthShorterThanItsEntriesBoundsThem) {
   /* Length for one entry of two: the second lies outside the TLV.  The
    * walk goes on at TLV start + 4 + length, inside the second entry, whose
    * VLAN (7) and first MAC bytes (44) read as an unknown TLV that reaches
    * past the buffer's end. */
   SavedNd odd = NdEntry("2001:db8::51");
   odd.vlan = 7;
   odd.mac = "2c:00:00:00:00:10";
   SavedState s;
   s.NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50"), odd}, {-1, 36});
   ASSERT_EQ(s.bytes.size(), 12u + 8 + 64);
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V6(), std::vector<std::string>{Binding("2001:db8::50", "nd", kNow + 600)});
   EXPECT_EQ(Logged(), (std::vector<std::string>{
                          TlvLine(84),
                          V6AddedLine("2001:db8::50", VIGIL_DISC_ND, kNow + 600),
                          "2: Vigil migration restore for Port: 0x10: Tlv of type 0x3 at offset "
                          "12 ends inside entry 1 at offset 52, the rest of the Tlv is skipped",
                          "1: Unknown Tlv of type: 0x7, length: 44",
                       }));

   /* The same of an IPv4 TLV whose second entry is a DHCP one. */
   Restart();
   SavedState v4;
   v4.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(2))}, {-1, 8 + 48})
      .Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.12")});
   /* Let the walk land on the second TLV: the first says 8 + 48 + 50. */
   u16 length = 8 + 48 + 50;
   memcpy(v4.bytes.data() + 12 + 2, &length, 2);
   EXPECT_EQ(Restore(v4.bytes), ZEK_OK);
   EXPECT_EQ(V4(), (std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600),
                                             Binding("192.0.2.12", "arp", kNow + 600),
                                             Binding("192.0.2.11", "dhcp", kNow + 3600)}));
   Restart();
   length = 8 + 48 + 49; /* the DHCP entry's id sticks out by a byte */
   memcpy(v4.bytes.data() + 12 + 2, &length, 2);
   v4.bytes.erase(v4.bytes.begin() + 12 + 4 + 8 + 48 + 49); /* keep the next TLV in step */
   EXPECT_EQ(Restore(v4.bytes), ZEK_OK);
   EXPECT_EQ(V4(), (std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600),
                                             Binding("192.0.2.12", "arp", kNow + 600)}));
   EXPECT_EQ(Errors(), std::vector<std::string>{
                          "2: Vigil migration restore for Port: 0x10: Tlv of type 0x2 at offset "
                          "12 ends inside the client id (2 bytes) of entry 1 at offset 72, the "
                          "rest of the Tlv is skipped"});
}

TEST_F(MigrationRestoreTest, ClientIdRunningPastTheEndOfTheBufferEndsItsTlv) {
   SavedV4 longId = Dhcp("192.0.2.11", Duid(5));
   longId.clientIdLenField = 200;
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10"), longId});
   EXPECT_EQ(Restore(s.bytes), ZEK_OK);
   EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600)});
   EXPECT_EQ(Errors(), std::vector<std::string>{
                          "2: Vigil migration restore for Port: 0x10: Tlv of type 0x2 at offset "
                          "12 ends inside the client id (200 bytes) of entry 1 at offset 72, the "
                          "rest of the Tlv is skipped"});

   Restart();
   SavedD6 longDuid = Dhcp6Entry("2001:db8::101", Duid(4));
   longDuid.clientIdLenField = 0xffff;
   SavedState d;
   d.Dhcp6Tlv({Dhcp6Entry("2001:db8::100", Duid(4)), longDuid});
   EXPECT_EQ(Restore(d.bytes), ZEK_OK);
   EXPECT_EQ(V6(), std::vector<std::string>{Binding("2001:db8::100", "dhcpv6", kNow + 300)});
   EXPECT_EQ(Errors(), std::vector<std::string>{
                          "2: Vigil migration restore for Port: 0x10: Tlv of type 0x4 at offset "
                          "12 ends inside the client id (65535 bytes) of entry 1 at offset 94, "
                          "the rest of the Tlv is skipped"});

   Restart();
   EXPECT_EQ(Restore(V1Buffer({Arp("192.0.2.10"), longId})), kInvalidData);
   EXPECT_EQ(V4(), std::vector<std::string>{});
   EXPECT_EQ(Errors(), (std::vector<std::string>{
                          "2: Vigil migration restore (V1) for Port: 0x10: client id (200 bytes) "
                          "of entry 1 at offset 184 runs past the end of the buffer (237 bytes)",
                          "2 ULM1: Vigil migration restore (V1) failed for Port: 0x10",
                       }));
}

TEST_F(MigrationRestoreTest, TlvHeaderCutByTheEndOfTheBufferEndsTheWalk) {
   for (size_t extra : {1, 2, 3}) {
      SCOPED_TRACE(extra);
      Restart();
      SavedState s;
      s.Ipv4(VIGIL_TLV_IPV4_V1, {Arp("192.0.2.10")}).Raw(Bytes(extra, VIGIL_TLV_IPV4_V1));
      EXPECT_EQ(Restore(s.bytes), ZEK_OK);
      EXPECT_EQ(V4(), std::vector<std::string>{Binding("192.0.2.10", "arp", kNow + 600)});
      EXPECT_EQ(Errors(), std::vector<std::string>{
                             "2: Vigil migration restore for Port: 0x10: " +
                             std::to_string(extra) +
                             " bytes at offset 72 can't hold a Tlv header, the walk ends"});
   }
}

TEST_F(MigrationRestoreTest, EveryPrefixOfAMultiTlvBufferRestoresExactlyTheEntriesItHolds) {
   SavedState s;
   s.Ipv4(VIGIL_TLV_IPV4_V1,
          {Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(5)), Static("192.0.2.12")})
      .Ipv4(VIGIL_TLV_EXPIRED_IPV4_V1, {Arp("192.0.2.13", (u64)-90)})
      .Other(VIGIL_TLV_STATS_V1, Bytes(148, kJunk))
      .NdTlv(VIGIL_TLV_ND_V1, {NdEntry("2001:db8::50"), NdEntry("2001:db8::51", 100)})
      .Other(0, Bytes(3, kJunk))
      .NdTlv(VIGIL_TLV_EXPIRED_ND_V1, {NdEntry("2001:db8::52", (u64)-30)})
      .Dhcp6Tlv({Dhcp6Entry("2001:db8::100", Duid(14)), Dhcp6Entry("2001:db8::101")});
   for (size_t len = 0; len <= s.bytes.size(); len++) {
      SCOPED_TRACE("prefix of " + std::to_string(len) + " bytes");
      Restart();
      zek_Status status = Restore(Bytes(s.bytes.begin(), s.bytes.begin() + len));
      EXPECT_EQ(status, len == 0 ? ZEK_OK : len < 12 ? kInvalidData : ZEK_OK);
      std::vector<std::string> want;
      for (const SavedState::Span &span : s.spans) {
         if (span.part == SavedState::Part::Entry && span.end <= len) {
            want.push_back(span.binding);
         }
      }
      if (len < 12) {
         want.clear();
      }
      EXPECT_EQ(Sorted(All()), Sorted(want));
      std::vector<std::string> errors = Errors();
      if (len >= 12) {
         EXPECT_EQ(errors.size(), s.CutIsLogged(len) ? 1u : 0u)
            << ::testing::PrintToString(errors);
      }
      ASSERT_EQ(Violations(), std::vector<std::string>());
      ExpectNoLeak();
   }
}

TEST_F(MigrationRestoreTest, EveryPrefixOfAV1BufferIsRefusedUntilItIsWhole) {
   Bytes whole = V1Buffer({Arp("192.0.2.10"), Dhcp("192.0.2.11", Duid(5)), Static("192.0.2.12")});
   for (size_t len = 0; len <= whole.size(); len++) {
      SCOPED_TRACE("prefix of " + std::to_string(len) + " bytes");
      Restart();
      zek_Status status = Restore(Bytes(whole.begin(), whole.begin() + len));
      EXPECT_EQ(status, len == 0 || len == whole.size() ? ZEK_OK : kInvalidData);
      EXPECT_EQ(filter->numVmis, len == whole.size() ? 3u : 0u);
      std::vector<std::string> errors = Errors();
      if (len >= 12 && len < 136) {
         EXPECT_EQ(errors, (std::vector<std::string>{
                              "2: Vigil migration restore (V1) for Port: 0x10: buffer of " +
                                 std::to_string(len) + " bytes ends inside the 136-byte header",
                              "2 ULM1: Vigil migration restore (V1) failed for Port: 0x10"}));
      } else if (len >= 136 && len < whole.size()) {
         EXPECT_EQ(errors.size(), 2u);
      }
      ExpectNoLeak();
   }
}

TEST_F(MigrationRestoreTest, RandomBuffersNeverBreakTheTables) {
   std::mt19937 rng(20240611);
   auto pick = [&rng](u32 n) { return (u32)(rng() % n); };
   auto randomBytes = [&](size_t n) {
      Bytes b(n);
      for (u8 &x : b) {
         x = (u8)rng();
      }
      return b;
   };
   const char *v4s[] = {"192.0.2.10", "192.0.2.11", "192.0.2.12", "192.0.2.13"};
   const char *v6s[] = {"2001:db8::50", "2001:db8::51", "2001:db8::100", "2001:db8::101"};
   u64 restored = 0;
   u64 stops = 0;
   for (int round = 0; round < 3000; round++) {
      SCOPED_TRACE("round " + std::to_string(round));
      Restart();
      SetDeleteExpiry((i8)(round % 2));
      filter->discoveryFlags = pick(2) ? 0x1f : pick(32);
      Bytes bytes;
      if (round % 4 == 3) {
         /* V1: entries of any method, counts that may lie. */
         std::vector<SavedV4> entries;
         for (u32 i = pick(5); i > 0; i--) {
            SavedV4 e = Arp(v4s[pick(4)], rng(), (u16)pick(3));
            e.method = (u8)(pick(4) == 0 ? rng() : 1u << pick(3));
            e.clientId = randomBytes(pick(3) == 0 ? pick(40) : 0);
            e.clientIdLenField = pick(8) == 0 ? (int)pick(256) : -1;
            entries.push_back(e);
         }
         bytes = V1Buffer(entries, pick(4) == 0 ? (i64)rng() : -1);
      } else {
         SavedState s;
         for (u32 t = pick(7); t > 0; t--) {
            TlvOpts opts;
            if (pick(4) == 0) {
               opts.count = pick(2) ? (i64)pick(8) : (i64)rng();
            }
            if (pick(4) == 0) {
               opts.length = pick(300);
            }
            switch (pick(6)) {
            case 0:
            case 1: {
               std::vector<SavedV4> entries;
               for (u32 i = pick(5); i > 0; i--) {
                  SavedV4 e = Arp(v4s[pick(4)], pick(2) ? (u64)(i64)((int)pick(200) - 100) : rng(),
                             (u16)pick(3));
                  e.method = (u8)(pick(4) == 0 ? rng() : 1u << pick(3));
                  e.clientId = randomBytes(pick(3) == 0 ? pick(40) : 0);
                  e.clientIdLenField = pick(8) == 0 ? (int)pick(256) : -1;
                  entries.push_back(e);
               }
               s.Ipv4(pick(2) ? VIGIL_TLV_IPV4_V1 : VIGIL_TLV_EXPIRED_IPV4_V1, entries, opts);
               break;
            }
            case 2: {
               std::vector<SavedNd> entries;
               for (u32 i = pick(5); i > 0; i--) {
                  entries.push_back(NdEntry(v6s[pick(4)], (u64)(i64)((int)pick(2000) - 1000)));
               }
               s.NdTlv(pick(2) ? VIGIL_TLV_ND_V1 : VIGIL_TLV_EXPIRED_ND_V1, entries, opts);
               break;
            }
            case 3: {
               std::vector<SavedD6> entries;
               for (u32 i = pick(4); i > 0; i--) {
                  SavedD6 e = Dhcp6Entry(v6s[pick(4)], randomBytes(pick(20)), rng());
                  e.clientIdLenField = pick(8) == 0 ? (int)pick(65536) : -1;
                  entries.push_back(e);
               }
               s.Dhcp6Tlv(entries, opts);
               break;
            }
            case 4:
               s.Other((u16)rng(), randomBytes(pick(60)), opts.length);
               break;
            default:
               s.Raw(randomBytes(pick(80)));
               break;
            }
         }
         bytes = s.bytes;
      }
      /* Now and then a byte or a cut anywhere behind the header. */
      if (bytes.size() > 12 && pick(3) == 0) {
         bytes[12 + pick((u32)bytes.size() - 12)] = (u8)rng();
      }
      if (bytes.size() > 12 && pick(3) == 0) {
         bytes.resize(12 + pick((u32)bytes.size() - 11));
      }
      zek_Status status = Restore(bytes);
      if (round % 4 != 3) {
         ASSERT_EQ(status, ZEK_OK);
      } else {
         ASSERT_TRUE(status == ZEK_OK || status == kInvalidData || status == kExists ||
                     status == kIgnored || status == 0xbad0006)
            << std::hex << status;
      }
      ASSERT_EQ(Violations(), std::vector<std::string>());
      ASSERT_EQ(Live(), baseAllocs_ + DatabaseAllocations());
      restored += V4Records().size() + V6Records().size();
      stops += Errors().size();
      for (VigilVmi *vmi : V4Records()) {
         ASSERT_TRUE(vmi->discMethod == VIGIL_DISC_DHCP || vmi->discMethod == VIGIL_DISC_ARP ||
                     vmi->discMethod == VIGIL_DISC_STATIC);
         ASSERT_EQ(vmi->clientIdStr == nullptr, vmi->clientIdLen == 0 ||
                                                   vmi->discMethod != VIGIL_DISC_DHCP);
      }
   }
   /* The buffers did reach the tables, and the reader's stops. */
   EXPECT_GT(restored, 1500u);
   EXPECT_GT(stops, 2000u);
   SetDeleteExpiry(1);
   filter->discoveryFlags = 0x1f;
}

TEST_F(MigrationRestoreTest, FreeingATemporaryListFreesItsRecordsAndTheirClientIds) {
   VigilListLinks list;
   VigilListInit(&list);
   VigilFreeVMIList(&list);
   EXPECT_TRUE(VigilListIsEmpty(&list)) << "an empty list is left as it was";
   u64 live = Live();
   Bytes bytes = V1Buffer({Dhcp("192.0.2.10", Duid(4)), Arp("192.0.2.11"), Dhcp("192.0.2.12")});
   ASSERT_EQ(VigilCreateVMIList(kPort, bytes.data(), (u32)bytes.size(), &list), ZEK_OK);
   EXPECT_EQ(Live() - live, 4u);
   std::vector<std::string> built;
   VIGIL_LIST_FOR_EACH(pos, &list) {
      VigilVmi *vmi = VIGIL_VMI_FROM_EXPIRY(pos);
      built.push_back(Binding(Ip4Text(vmi->ip), MethodName(vmi->discMethod), vmi->expiryTs));
   }
   EXPECT_EQ(built, (std::vector<std::string>{Binding("192.0.2.10", "dhcp", kNow + 3600),
                                              Binding("192.0.2.11", "arp", kNow + 600),
                                              Binding("192.0.2.12", "dhcp", kNow + 3600)}))
      << "in the order of the buffer";
   VigilFreeVMIList(&list);
   EXPECT_TRUE(VigilListIsEmpty(&list));
   EXPECT_EQ(Live(), live);
}

/* ------------------------------------------------ save, then restore */

namespace {

std::string Hex(const u8 *p, size_t n) {
   std::string out;
   char two[3];
   for (size_t i = 0; i < n; i++) {
      snprintf(two, sizeof two, "%02x", p[i]);
      out += two;
   }
   return out;
}

/* Every field a binding of `f` keeps, its expiry less `shift`, sorted. */
std::vector<std::string> Describe(VigilFilter *f, i64 shift) {
   std::vector<std::string> out;
   auto v4 = [&](VigilVmi *vmi, bool expired) {
      std::string text = Binding(Ip4Text(vmi->ip), MethodName(vmi->discMethod),
                                 vmi->discMethod == VIGIL_DISC_STATIC ? vmi->expiryTs
                                                                      : vmi->expiryTs - shift,
                                 vmi->vlanId, MacText(vmi->mac));
      if (vmi->discMethod == VIGIL_DISC_DHCP) {
         text += " client " + MacText(vmi->clientMac) + " id " +
                 Hex(vmi->clientIdStr, vmi->clientIdStr ? vmi->clientIdLen : 0) + "/" +
                 std::to_string(vmi->clientIdLen) + " server " + Ip4Text(vmi->serverIp) +
                 " lease " + std::to_string(vmi->leaseTime);
      }
      out.push_back(text + (expired ? " expired" : ""));
   };
   VIGIL_LIST_FOR_EACH(pos, &f->vmiList) {
      v4(VIGIL_VMI_FROM_EXPIRY(pos), false);
   }
   VIGIL_LIST_FOR_EACH(pos, &f->expiredVmiList) {
      v4(VIGIL_VMI_FROM_EXPIRED(pos), true);
   }
   auto v6 = [&](VigilV6Vmi *vmi, bool expired) {
      std::string text = Binding(Ip6Text(vmi->ip), MethodName(vmi->discMethod),
                                 vmi->expiryTs - shift, vmi->vlanId, MacText(vmi->mac));
      if (vmi->discMethod == VIGIL_DISC_DHCPV6) {
         text += " iaid " + std::to_string(vmi->iaId) + " server " + Ip6Text(vmi->serverIp) +
                 " valid " + std::to_string(vmi->validLifetime) + " preferred " +
                 std::to_string(vmi->preferredLifetime) + " duid " +
                 Hex(vmi->clientId, vmi->clientId ? vmi->clientIdLen : 0) + "/" +
                 std::to_string(vmi->clientIdLen);
      }
      out.push_back(text + (expired ? " expired" : ""));
   };
   VIGIL_LIST_FOR_EACH(pos, &f->v6VmiList) {
      v6(VIGIL_V6VMI_FROM_EXPIRY(pos), false);
   }
   VIGIL_LIST_FOR_EACH(pos, &f->v6ExpiredNdList) {
      v6(VIGIL_V6VMI_FROM_EXPIRED(pos), true);
   }
   std::sort(out.begin(), out.end());
   return out;
}

class MigrationRoundTripTest : public MigrationRestoreTest {
protected:
   static constexpr u32 kDestPort = 0x12;

   void SetUp() override {
      MigrationRestoreTest::SetUp();
      savedVersion_ = saveVersion;
      savedTlvs_ = supportedTlvs;
      /* As module start leaves them. */
      supportedTlvs = 0;
      ASSERT_EQ(VigilMigrationInit(), ZEK_OK);
      dest = AddFilter(kDestPort);
      ASSERT_EQ(VigilVmiHashAlloc(&dest->vmiHash), ZEK_OK);
      ASSERT_EQ(VigilV6VmiHashAlloc(&dest->v6VmiHash), ZEK_OK);
      dest->discoveryFlags = filter->discoveryFlags;
      baseAllocs_ = Live();
   }

   void TearDown() override {
      if (dest != nullptr && dest->vmiHash != nullptr) {
         std::vector<std::string> found;
         EXPECT_EQ(VigilCheckFilterTables(dest, CollectViolation, &found), 0u);
         ClearDest();
         Vigil_HeapFree(dest->vmiHash);
         dest->vmiHash = nullptr;
         Vigil_HeapFree(dest->v6VmiHash);
         dest->v6VmiHash = nullptr;
      }
      saveVersion = savedVersion_;
      supportedTlvs = savedTlvs_;
      MigrationRestoreTest::TearDown();
   }

   void ClearDest() {
      WithWriteHold(kDestPort, [&] {
         while (!VigilListIsEmpty(&dest->expiredVmiList)) {
            VigilDelVmi(dest, VIGIL_VMI_FROM_EXPIRED(dest->expiredVmiList.next));
         }
         while (!VigilListIsEmpty(&dest->vmiList)) {
            VigilDelVmi(dest, VIGIL_VMI_FROM_EXPIRY(dest->vmiList.next));
         }
         VigilClearV6Vmi(dest, true, 0, nullptr);
      });
   }

   /* A random database on the source port: ARP, DHCP and static IPv4
    * bindings, ND and DHCPv6 ones, and with delete-on-expiry off, ARP and
    * ND bindings kept expired.  Keys are unique; every running binding ends
    * in the future. */
   void FillRandom(std::mt19937 &rng, bool withExpired) {
      auto pick = [&rng](u32 n) { return (u32)(rng() % n); };
      auto mac = [&](u32 n) {
         std::array<u8, 6> m{0x02, 0x00, 0x00, 0x00, (u8)(n >> 8), (u8)n};
         return m;
      };
      i64 now = Vigil_UptimeSecs();
      u32 n4 = pick(60);
      for (u32 i = 0; i < n4; i++) {
         VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
         vmi->vlanId = (u16)pick(4);
         std::array<u8, 6> m = mac(pick(3));
         memcpy(vmi->mac, m.data(), 6);
         u8 ip[4] = {10, (u8)(i >> 8), (u8)i, (u8)(1 + pick(200))};
         memcpy(&vmi->ip, ip, 4);
         u32 kind = pick(10);
         if (kind < 5) {
            vmi->discMethod = VIGIL_DISC_ARP;
            vmi->expiryTs = withExpired && kind == 0 ? now - 1 - pick(5000) : now + 1 + pick(5000);
         } else if (kind < 9) {
            vmi->discMethod = VIGIL_DISC_DHCP;
            vmi->expiryTs = now + 1 + pick(100000);
            u8 clientMac[6] = {0x02, 0xcc, 0, 0, 0, (u8)i};
            memcpy(vmi->clientMac, clientMac, 6);
            vmi->serverIp = rng();
            vmi->leaseTime = rng();
            vmi->clientIdLen = (u8)(pick(3) == 0 ? 0 : pick(256));
            if (vmi->clientIdLen != 0) {
               vmi->clientIdStr = (u8 *)Vigil_HeapAlloc(vmi->clientIdLen);
               for (u32 b = 0; b < vmi->clientIdLen; b++) {
                  vmi->clientIdStr[b] = (u8)rng();
               }
            }
         } else {
            vmi->discMethod = VIGIL_DISC_STATIC;
         }
         zek_Status status = ZEK_OK;
         WithWriteLock([&] { status = VigilAddVmi(filter, vmi); });
         ASSERT_EQ(status, ZEK_OK);
      }
      u32 nNd = pick(16);
      for (u32 i = 0; i < nNd; i++) {
         VigilV6Vmi t;
         memset(&t, 0, sizeof t);
         t.vlanId = (u16)pick(4);
         std::array<u8, 6> m = mac(pick(3));
         memcpy(t.mac, m.data(), 6);
         std::array<u8, 16> ip = Ip6("2001:db8::");
         ip[14] = 1;
         ip[15] = (u8)i;
         memcpy(t.ip, ip.data(), 16);
         t.discMethod = VIGIL_DISC_ND;
         t.expiryTs = withExpired && pick(4) == 0 ? now - 1 - pick(5000) : now + 1 + pick(600);
         zek_Status status = ZEK_OK;
         WithWriteLock([&] { status = VigilAddV6Vmi(filter, &t); });
         ASSERT_EQ(status, ZEK_OK);
      }
      u32 nD6 = pick(16);
      for (u32 i = 0; i < nD6; i++) {
         VigilV6Vmi t;
         memset(&t, 0, sizeof t);
         t.vlanId = (u16)pick(4);
         std::array<u8, 6> m = mac(pick(3));
         memcpy(t.mac, m.data(), 6);
         std::array<u8, 16> ip = Ip6("2001:db8::");
         ip[14] = 2;
         ip[15] = (u8)i;
         memcpy(t.ip, ip.data(), 16);
         t.discMethod = VIGIL_DISC_DHCPV6;
         t.expiryTs = now + 1 + pick(100000);
         t.iaId = rng();
         std::array<u8, 16> server = Ip6("fe80::1");
         server[15] = (u8)rng();
         memcpy(t.serverIp, server.data(), 16);
         t.validLifetime = (i32)pick(100000);
         t.preferredLifetime = rng();
         Bytes duid(pick(40));
         for (u8 &b : duid) {
            b = (u8)rng();
         }
         t.clientIdLen = (u16)duid.size();
         t.clientId = duid.empty() ? nullptr : duid.data();
         zek_Status status = ZEK_OK;
         WithWriteLock([&] { status = VigilAddV6Vmi(filter, &t); });
         ASSERT_EQ(status, ZEK_OK);
      }
   }

   /* The source's saved state, in a buffer of exactly the size it asks. */
   Bytes Save() {
      u32 size = WithReadHold(kPort, [&] { return VigilGetFilterSaveLen(filter); });
      Bytes buf(size, kJunk);
      u32 dataLen = 0;
      EXPECT_EQ(VigilMigrationSave(kPort, buf.data(), size, &dataLen, 0), ZEK_OK);
      EXPECT_EQ(dataLen, size);
      buf.resize(dataLen);
      return buf;
   }

   zek_Status RestoreToDest(const Bytes &bytes) {
      std::unique_ptr<u8[]> exact(new u8[bytes.size()]);
      memcpy(exact.get(), bytes.data(), bytes.size());
      return VigilMigrationRestore(kDestPort, exact.get(), (u32)bytes.size(), 7000);
   }

   VigilFilter *dest = nullptr;
   u32 savedVersion_ = 0;
   u32 savedTlvs_ = 0;
};

} // namespace

TEST_F(MigrationRoundTripTest, RandomDatabasesComeBackWithTheirExpiriesShiftedByTheMove) {
   std::mt19937 rng(7601);
   u64 seen = 0;
   for (int round = 0; round < 40; round++) {
      SCOPED_TRACE("round " + std::to_string(round));
      Restart();
      ClearDest();
      bool withExpired = round % 2 == 0;
      SetDeleteExpiry(withExpired ? 0 : 1);
      FillRandom(rng, withExpired);
      Bytes bytes = Save();
      ASSERT_GE(bytes.size(), 60u);
      std::vector<std::string> before = Describe(filter, 0);
      /* The move takes its time; the remaining times restart at the
       * restore, so every expiry moves by exactly that. */
      i64 move = 1 + (i64)(rng() % 300);
      sim::Advance((double)move);
      ASSERT_EQ(RestoreToDest(bytes), ZEK_OK);
      EXPECT_EQ(Describe(dest, move), before);
      EXPECT_EQ(dest->numVmis, filter->numVmis);
      EXPECT_EQ(dest->numExpiredVmis, filter->numExpiredVmis);
      EXPECT_EQ(dest->totalClientIdLen, filter->totalClientIdLen);
      EXPECT_EQ(dest->numNdEntries, filter->numNdEntries);
      EXPECT_EQ(dest->numExpiredNdEntries, filter->numExpiredNdEntries);
      EXPECT_EQ(dest->dhcpV6ClientIdBytes, filter->dhcpV6ClientIdBytes);
      std::vector<std::string> found;
      ASSERT_EQ(VigilCheckFilterTables(dest, CollectViolation, &found), 0u)
         << ::testing::PrintToString(found);
      /* The destination would now save as many bytes as the source. */
      u32 size = WithReadHold(kDestPort, [&] { return VigilGetFilterSaveLen(dest); });
      EXPECT_EQ(size, bytes.size());
      seen += before.size();
      TakeModuleLogs();
   }
   EXPECT_GT(seen, 1000u) << "the databases were not empty";
   SetDeleteExpiry(1);
}

TEST_F(MigrationRoundTripTest, V1SavesOnlyRunningIpv4BindingsAndTheyComeBack) {
   std::mt19937 rng(7602);
   for (int round = 0; round < 20; round++) {
      SCOPED_TRACE("round " + std::to_string(round));
      Restart();
      ClearDest();
      saveVersion = VIGIL_SAVE_VERSION_V1;
      SetDeleteExpiry(0);
      FillRandom(rng, true);
      Bytes bytes = Save();
      ASSERT_GE(bytes.size(), 136u);
      /* What V1 carries: the running IPv4 bindings, nothing expired and
       * nothing of IPv6. */
      std::vector<std::string> running;
      for (const std::string &b : Describe(filter, 0)) {
         bool v6 = b.find(" nd ") != std::string::npos || b.find(" dhcpv6 ") != std::string::npos;
         if (!v6 && b.find(" expired") == std::string::npos) {
            running.push_back(b);
         }
      }
      i64 move = 1 + (i64)(rng() % 300);
      sim::Advance((double)move);
      ASSERT_EQ(RestoreToDest(bytes), ZEK_OK);
      EXPECT_EQ(Describe(dest, move), running);
      EXPECT_EQ(dest->numNdEntries + dest->numDhcpV6Entries, 0u);
      std::vector<std::string> found;
      ASSERT_EQ(VigilCheckFilterTables(dest, CollectViolation, &found), 0u)
         << ::testing::PrintToString(found);
      TakeModuleLogs();
   }
   saveVersion = VIGIL_SAVE_VERSION_TLV;
   SetDeleteExpiry(1);
}
