/*
 * The save path of a port's saved state: the size from the counters, the
 * bytes of both layouts (entries written literally below, field by field),
 * the bytes the writer leaves as the buffer held, remaining times, the
 * supported-TLV bits, and every way a save ends with a length of 0: null
 * parameters, an unknown version, no filter, a cleared property, a buffer
 * too small before or during the writing, and a TLV longer than its 16-bit
 * length can say.
 */
#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "test_addresses.h"
#include "vigil_config.h"
#include "vigil_lifecycle.h"
#include "vigil_migration.h"
#include "vigil_test.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"

namespace {

constexpr u32 kPort = 0x10;
constexpr i64 kNow = 1000; /* the virtual clock's start, in uptime seconds */
constexpr u8 kFill = 0xee; /* what the carrier's buffer holds before a save */
constexpr u32 kGuard = 16; /* bytes past bufLen that must keep kFill */
constexpr zek_Status kOverflow = 0xbad0026;
constexpr zek_Status kBadData = 0xbad0001;
constexpr zek_Status kBadParam = 0xbad0007;

using Bytes = std::vector<u8>;
using Line = std::pair<int, std::string>; /* level, text */

Bytes Cat(std::initializer_list<Bytes> parts) {
   Bytes out;
   for (const Bytes &part : parts) {
      out.insert(out.end(), part.begin(), part.end());
   }
   return out;
}

Bytes Fill(size_t n) {
   return Bytes(n, kFill);
}

/* The eight bytes of a pointer as the writer copies it from a record. */
Bytes PointerBytes(const void *p) {
   Bytes out(8);
   uintptr_t value = (uintptr_t)p;
   memcpy(out.data(), &value, 8);
   return out;
}

/* Sixteen bytes a line, with offsets, so that a difference reads at once. */
std::string Dump(const Bytes &bytes) {
   std::string out;
   char cell[32];
   for (size_t i = 0; i < bytes.size(); i++) {
      if (i % 16 == 0) {
         snprintf(cell, sizeof cell, "%s%04zx:", i == 0 ? "" : "\n", i);
         out += cell;
      }
      snprintf(cell, sizeof cell, " %02x", bytes[i]);
      out += cell;
   }
   return out;
}

std::array<u8, 16> Ip6(const char *text) {
   std::array<u8, 16> addr{};
   EXPECT_EQ(inet_pton(AF_INET6, text, addr.data()), 1) << text;
   return addr;
}

/* An IPv4 binding as a test puts it in the table. */
struct V4 {
   u16 vlan;
   const char *mac;
   const char *ip;
   u8 method;
   i64 expiryTs;
   Bytes clientId = {};
   const char *clientMac = "00:00:00:00:00:00";
   const char *serverIp = "0.0.0.0";
   u32 leaseTime = 0;
};

/* An IPv6 binding as a snooper fills its template. */
struct V6 {
   u16 vlan;
   const char *mac;
   const char *ip;
   u8 method;
   i64 expiryTs;
   u32 iaId = 0;
   const char *serverIp = "::";
   i32 validLifetime = 0;
   u32 preferredLifetime = 0;
   Bytes clientId = {};
};

/* What the log of a TLV save at verbosity 5 says of one TLV. */
struct TlvLines {
   u32 size;  /* the TLV's bytes, its header included */
   u32 count; /* entries written */
   std::vector<std::string> entries = {};
};

/* The whole log of a successful TLV save of port 0x10 at verbosity 5. */
std::vector<Line> TlvSaveLog(u32 total, const TlvLines &v4, const TlvLines &expiredV4,
                             const TlvLines &nd, const TlvLines &expiredNd,
                             const TlvLines &dhcp6) {
   auto n = [](u32 v) { return std::to_string(v); };
   std::vector<Line> lines = {
      {1, "Migration save TLV initiated for port 0x10"},
      {1, "TLV Header is 12 bytes"},
      {1, "Size of IPv4 V1 Tlv (TlvHdr + Data) is " + n(v4.size)},
      {1, "Size of expired IPv4 V1 Tlv (TlvHdr + Data) is " + n(expiredV4.size)},
      {1, "Size of ND V1 Tlv (TlvHdr + Data) is " + n(nd.size)},
      {1, "Size of expired ND V1 Tlv (TlvHdr + Data) is " + n(expiredNd.size)},
      {1, "Size of DHCPv6 V1 Tlv (TlvHdr + Data) is " + n(dhcp6.size)},
      {1, "Save length for Port: 0x10, version: TLV is " + n(total)},
      {1, "Saving IPv4 data in TLV for port: 0x10"},
   };
   for (const std::string &entry : v4.entries) {
      lines.push_back({1, entry});
   }
   lines.push_back({1, "Finished saving IPv4 V1 TLV for port: 0x10, numVmiEntries: " +
                          n(v4.count) + ", TlvLen: " + n(v4.size - 4)});
   lines.push_back({1, "Saving IPv4 data in TLV for port: 0x10"});
   for (const std::string &entry : expiredV4.entries) {
      lines.push_back({1, entry});
   }
   lines.push_back({1, "Finished saving expired IPv4 V1 TLV for port: 0x10, numVmiEntries: " +
                          n(expiredV4.count) + ", TlvLen: " + n(expiredV4.size - 4)});
   lines.push_back({1, "Saving ND data in TLV for port: 0x10"});
   lines.push_back({1, "Finished saving ND V1 TLV for port: 0x10, numVmi: " + n(nd.count) +
                          ", TlvLen: " + n(nd.size - 4)});
   lines.push_back({1, "Saving expired ND data in TLV for port: 0x10"});
   lines.push_back({1, "Finished saving expired ND V1 TLV for port: 0x10, numVmi: " +
                          n(expiredNd.count) + ", TlvLen: " + n(expiredNd.size - 4)});
   lines.push_back({1, "Saving DHCP6 data in TLV for port: 0x10"});
   lines.push_back({1, "Finished saving DHCP6 V1 TLV for port: 0x10, numVmiEntries: " +
                          n(dhcp6.count) + ", TlvLen: " + n(dhcp6.size - 4)});
   lines.push_back(
      {1, "Finished saving the runtime data for port Id: 0x10, saveLen: " + n(total)});
   return lines;
}

const TlvLines kEmptyV4{12, 0};
const TlvLines kEmptyNd{8, 0};

/* The five empty TLVs of a filter with no binding, as they stand from
 * offset 12 on. */
const Bytes kEmptyIpv4Tlv = {
   0x02, 0x00,             /* type 2: IPv4 */
   0x08, 0x00,             /* length 8 */
   0x00, 0x00, 0x00, 0x00, /* numVmiEntries 0 */
   0x00, 0x00, 0x00, 0x00, /* totClientIdLen 0 */
};
const Bytes kEmptyExpiredIpv4Tlv = {
   0x05, 0x00,             /* type 5: expired IPv4 */
   0x08, 0x00,             /* length 8 */
   0x00, 0x00, 0x00, 0x00, /* numVmiEntries 0 */
   0x00, 0x00, 0x00, 0x00, /* totClientIdLen 0 */
};
const Bytes kEmptyNdTlv = {
   0x03, 0x00,             /* type 3: ND */
   0x04, 0x00,             /* length 4 */
   0x00, 0x00, 0x00, 0x00, /* numVmi 0 */
};
const Bytes kEmptyExpiredNdTlv = {
   0x06, 0x00,             /* type 6: expired ND */
   0x04, 0x00,             /* length 4 */
   0x00, 0x00, 0x00, 0x00, /* numVmi 0 */
};
const Bytes kEmptyDhcp6Tlv = {
   0x04, 0x00,             /* type 4: DHCPv6 */
   0x04, 0x00,             /* length 4 */
   0x00, 0x00, 0x00, 0x00, /* numVmiEntries 0 */
};
const Bytes kTlvHeader = {
   0xed, 0xf1, 0xd1, 0x11, 0x50, 0x00, 0x00, 0x00, /* magic 0x5011D1F1ED */
   0x64, 0x00, 0x00, 0x00,                         /* version 100 */
};

class MigrationSaveTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      savedVersion_ = saveVersion;
      savedTlvs_ = supportedTlvs;
      /* As module start leaves them: TLV layout, types 2 to 6. */
      supportedTlvs = 0;
      ASSERT_EQ(VigilMigrationInit(), ZEK_OK);
      ASSERT_EQ(saveVersion, 100u);
      ASSERT_EQ(supportedTlvs, 0x7cu);
      filter = AddFilter(kPort);
      ASSERT_EQ(VigilVmiHashAlloc(&filter->vmiHash), ZEK_OK);
      ASSERT_EQ(VigilV6VmiHashAlloc(&filter->v6VmiHash), ZEK_OK);
      TakeModuleLogs();
   }

   void TearDown() override {
      sim::SetLogLevel("vigil", 0);
      SetDeleteExpiry(1);
      EXPECT_EQ(Violations(), std::vector<std::string>{});
      WithWriteHold(kPort, [&] {
         while (!VigilListIsEmpty(&filter->expiredVmiList)) {
            VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRED(filter->expiredVmiList.next));
         }
         while (!VigilListIsEmpty(&filter->vmiList)) {
            VigilDelVmi(filter, VIGIL_VMI_FROM_EXPIRY(filter->vmiList.next));
         }
         VigilClearV6Vmi(filter, true, 0, nullptr);
         VIGIL_LIST_FOR_EACH_SAFE(pos, next, &filter->v6VmiList) {
            VigilDelV6Vmi(filter, VIGIL_V6VMI_FROM_EXPIRY(pos));
         }
      });
      Vigil_HeapFree(filter->vmiHash);
      filter->vmiHash = nullptr;
      Vigil_HeapFree(filter->v6VmiHash);
      filter->v6VmiHash = nullptr;
      sim::WaitIdle(5.0);
      sim::TakePortsetMessages();
      saveVersion = savedVersion_;
      supportedTlvs = savedTlvs_;
      VigilTest::TearDown();
   }

   std::vector<std::string> Violations() {
      std::vector<std::string> found;
      VigilCheckFilterTables(
         filter,
         [](void *ctx, const char *text) {
            ((std::vector<std::string> *)ctx)->push_back(text);
         },
         &found);
      return found;
   }

   /* Adds an IPv4 binding under the write lock; the record, or null (and a
    * failure) when the table refuses it. */
   VigilVmi *AddV4(const V4 &b) {
      VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
      vmi->vlanId = b.vlan;
      addrtext::Mac mac = addrtext::MacOf(b.mac);
      memcpy(vmi->mac, mac.data(), 6);
      vmi->ip = addrtext::Ip(b.ip);
      vmi->discMethod = b.method;
      vmi->expiryTs = b.expiryTs;
      addrtext::Mac clientMac = addrtext::MacOf(b.clientMac);
      memcpy(vmi->clientMac, clientMac.data(), 6);
      vmi->serverIp = addrtext::Ip(b.serverIp);
      vmi->leaseTime = b.leaseTime;
      if (!b.clientId.empty()) {
         vmi->clientIdLen = (u8)b.clientId.size();
         vmi->clientIdStr = (u8 *)Vigil_HeapAlloc((u32)b.clientId.size());
         memcpy(vmi->clientIdStr, b.clientId.data(), b.clientId.size());
      }
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] { status = VigilAddVmi(filter, vmi); });
      EXPECT_EQ(status, ZEK_OK) << b.ip;
      if (status != ZEK_OK) {
         Vigil_HeapFree(vmi->clientIdStr);
         Vigil_HeapFree(vmi);
         return nullptr;
      }
      return vmi;
   }

   void DelV4(VigilVmi *vmi) {
      WithWriteHold(kPort, [&] { VigilDelVmi(filter, vmi); });
   }

   void AddV6(const V6 &b) {
      VigilV6Vmi t;
      memset(&t, 0, sizeof t);
      t.vlanId = b.vlan;
      addrtext::Mac mac = addrtext::MacOf(b.mac);
      memcpy(t.mac, mac.data(), 6);
      std::array<u8, 16> ip = Ip6(b.ip);
      memcpy(t.ip, ip.data(), 16);
      t.discMethod = b.method;
      t.expiryTs = b.expiryTs;
      t.iaId = b.iaId;
      std::array<u8, 16> server = Ip6(b.serverIp);
      memcpy(t.serverIp, server.data(), 16);
      t.validLifetime = b.validLifetime;
      t.preferredLifetime = b.preferredLifetime;
      Bytes clientId = b.clientId;
      t.clientIdLen = (u16)clientId.size();
      t.clientId = clientId.empty() ? nullptr : clientId.data();
      zek_Status status = ZEK_OK;
      WithWriteHold(kPort, [&] { status = VigilAddV6Vmi(filter, &t); });
      EXPECT_EQ(status, ZEK_OK) << b.ip;
   }

   /* The size a carrier is told, asked as the carrier asks it. */
   u32 SaveLen() {
      return WithReadHold(kPort, [&] { return VigilGetFilterSaveLen(filter); });
   }

   struct Saved {
      zek_Status status;
      u32 dataLen;
      Bytes buf; /* the first bufLen bytes */
   };

   /* Saves into a buffer of bufLen bytes filled with kFill, *dataLen holding
    * a value of its own first; the bytes past bufLen must keep kFill. */
   Saved Save(u32 bufLen, u32 portID = kPort) {
      Bytes whole(bufLen + kGuard, kFill);
      Saved saved{0, 0xa5a5a5a5u, {}};
      saved.status = VigilMigrationSave(portID, whole.data(), bufLen, &saved.dataLen,
                                        0x5eedull);
      EXPECT_EQ(Dump(Bytes(whole.begin() + bufLen, whole.end())), Dump(Fill(kGuard)))
         << "written past bufLen";
      saved.buf.assign(whole.begin(), whole.begin() + bufLen);
      return saved;
   }

   /* Level and text of every module line since the last look, each checked
    * to be on the plain log. */
   std::vector<Line> Logged() {
      std::vector<Line> lines;
      for (const sim::LogLine &line : TakeModuleLogs()) {
         EXPECT_EQ(line.log, "vigil") << line.text;
         lines.push_back({line.level, line.text});
      }
      return lines;
   }

   /* The database of the golden IPv4 images: a DHCP binding with a 5-byte
    * client id, then (a later expiry) an ARP binding on another VLAN. */
   VigilVmi *AddDhcpAndArp() {
      VigilVmi *dhcp = AddV4({.vlan = 5,
                              .mac = "02:00:00:00:00:10",
                              .ip = "192.0.2.50",
                              .method = VIGIL_DISC_DHCP,
                              .expiryTs = kNow + 3600,
                              .clientId = {'a', 'b', 'c', 'd', 'e'},
                              .clientMac = "02:00:00:00:00:10",
                              .serverIp = "192.0.2.1",
                              .leaseTime = 3600});
      AddV4({.vlan = 7,
             .mac = "02:00:00:00:00:11",
             .ip = "192.0.2.51",
             .method = VIGIL_DISC_ARP,
             .expiryTs = kNow + 4000});
      return dhcp;
   }

   /* The entry AddDhcpAndArp's DHCP binding saves as: 53 bytes. */
   static Bytes DhcpEntry(const VigilVmi *dhcp) {
      return Cat({{
                     0x05, 0x00,                         /* vlanId 5 */
                     0x02, 0x00, 0x00, 0x00, 0x00, 0x10, /* mac */
                     0xc0, 0x00, 0x02, 0x32,             /* ip 192.0.2.50 */
                     0x01,                               /* discMethod DHCP */
                     kFill, kFill, kFill,                /* not written */
                     0x10, 0x0e, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 3600 s left */
                     0x02, 0x00, 0x00, 0x00, 0x00, 0x10, /* clientMac */
                     0x05,                               /* clientIdLen 5 */
                     0x00,                               /* the record's byte after it */
                  },
                  PointerBytes(dhcp->clientIdStr), /* the sender's pointer */
                  {
                     0xc0, 0x00, 0x02, 0x01,   /* serverIp 192.0.2.1 */
                     0x10, 0x0e, 0x00, 0x00,   /* leaseTime 3600 */
                     'a', 'b', 'c', 'd', 'e', /* client id */
                  }});
   }

   /* The entry of AddDhcpAndArp's ARP binding: 48 bytes. */
   static Bytes ArpEntry() {
      return Cat({{
                     0x07, 0x00,                         /* vlanId 7 */
                     0x02, 0x00, 0x00, 0x00, 0x00, 0x11, /* mac */
                     0xc0, 0x00, 0x02, 0x33,             /* ip 192.0.2.51 */
                     0x02,                               /* discMethod ARP */
                     kFill, kFill, kFill,                /* not written */
                     0xa0, 0x0f, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 4000 s left */
                  },
                  Fill(24)}); /* no DHCP part */
   }

   VigilFilter *filter = nullptr;

private:
   u32 savedVersion_ = 0;
   u32 savedTlvs_ = 0;
};

/* ------------------------------------------------ the TLV layout */

TEST_F(MigrationSaveTest, EmptyFilterSavesTheHeaderAndFiveEmptyTlvsInSixtyBytes) {
   sim::SetLogLevel("vigil", 5);
   EXPECT_EQ(SaveLen(), 60u);
   TakeModuleLogs();
   sim::LockCounts before = sim::GetLockCounts(filter->configLock);

   Saved saved = Save(60);
   EXPECT_EQ(saved.status, ZEK_OK);
   EXPECT_EQ(saved.dataLen, 60u);
   EXPECT_EQ(Dump(saved.buf), Dump(Cat({kTlvHeader, kEmptyIpv4Tlv, kEmptyExpiredIpv4Tlv,
                                        kEmptyNdTlv, kEmptyExpiredNdTlv, kEmptyDhcp6Tlv})));
   EXPECT_EQ(Logged(), TlvSaveLog(60, kEmptyV4, kEmptyV4, kEmptyNd, kEmptyNd, kEmptyNd));
   sim::LockCounts after = sim::GetLockCounts(filter->configLock);
   EXPECT_EQ(after.reads, before.reads + 1) << "one read hold";
   EXPECT_EQ(after.writes, before.writes);
}

TEST_F(MigrationSaveTest, SaveLogsItsLengthAndItsEndAtVerbosityOneAndNothingAtZero) {
   Saved quiet = Save(60);
   EXPECT_EQ(quiet.dataLen, 60u);
   EXPECT_EQ(Logged(), std::vector<Line>{});

   sim::SetLogLevel("vigil", 1);
   Saved told = Save(60);
   EXPECT_EQ(told.dataLen, 60u);
   EXPECT_EQ(Logged(),
             (std::vector<Line>{
                {1, "Save length for Port: 0x10, version: TLV is 60"},
                {1, "Finished saving the runtime data for port Id: 0x10, saveLen: 60"}}));
}

TEST_F(MigrationSaveTest, DhcpBindingWithAFiveByteClientIdTakesFiftyThreeBytesAndTheNextIsUnaligned) {
   VigilVmi *dhcp = AddDhcpAndArp();
   sim::SetLogLevel("vigil", 5);
   TakeModuleLogs();

   Saved saved = Save(161);
   EXPECT_EQ(saved.dataLen, 161u);
   Bytes ipv4Tlv = {
      0x02, 0x00,             /* type 2 */
      0x6d, 0x00,             /* length 109: 8 + 48 x 2 + 5 */
      0x02, 0x00, 0x00, 0x00, /* numVmiEntries 2 */
      0x05, 0x00, 0x00, 0x00, /* totClientIdLen 5 */
   };
   EXPECT_EQ(Dump(saved.buf),
             Dump(Cat({kTlvHeader, ipv4Tlv, DhcpEntry(dhcp), ArpEntry(), kEmptyExpiredIpv4Tlv,
                       kEmptyNdTlv, kEmptyExpiredNdTlv, kEmptyDhcp6Tlv})));
   /* The ARP entry stands at 24 + 53 = 77, an odd offset. */
   EXPECT_EQ(saved.buf[77], 0x07);
   EXPECT_EQ(saved.buf[78], 0x00);
   EXPECT_EQ(Logged(),
             TlvSaveLog(161,
                        {113, 2,
                         {"Saving IP: 192.0.2.50, MAC: 02:00:00:00:00:10, VLAN: 5, Type: DHCP",
                          "Saving IP: 192.0.2.51, MAC: 02:00:00:00:00:11, VLAN: 7, Type: ARP"}},
                        kEmptyV4, kEmptyNd, kEmptyNd, kEmptyNd));
}

TEST_F(MigrationSaveTest, StaticBindingStandsInTheIpv4TlvWithItsTimeLeftAsTheBufferHeldAndSaysArp) {
   AddV4({.vlan = 5,
          .mac = "02:00:00:00:00:12",
          .ip = "192.0.2.60",
          .method = VIGIL_DISC_STATIC,
          .expiryTs = 0});
   sim::SetLogLevel("vigil", 5);
   TakeModuleLogs();

   Saved saved = Save(108);
   EXPECT_EQ(saved.dataLen, 108u);
   Bytes ipv4Tlv = {
      0x02, 0x00,             /* type 2 */
      0x38, 0x00,             /* length 56 */
      0x01, 0x00, 0x00, 0x00, /* numVmiEntries 1 */
      0x00, 0x00, 0x00, 0x00, /* totClientIdLen 0 */
   };
   Bytes entry = Cat({{
                         0x05, 0x00,                         /* vlanId 5 */
                         0x02, 0x00, 0x00, 0x00, 0x00, 0x12, /* mac */
                         0xc0, 0x00, 0x02, 0x3c,             /* ip 192.0.2.60 */
                         0x04,                               /* discMethod static */
                         kFill, kFill, kFill,                /* not written */
                      },
                      Fill(8),    /* remaining time: not written for a static binding */
                      Fill(24)}); /* no DHCP part */
   EXPECT_EQ(Dump(saved.buf),
             Dump(Cat({kTlvHeader, ipv4Tlv, entry, kEmptyExpiredIpv4Tlv, kEmptyNdTlv,
                       kEmptyExpiredNdTlv, kEmptyDhcp6Tlv})));
   EXPECT_EQ(Logged(),
             TlvSaveLog(108,
                        {60, 1,
                         {"Saving IP: 192.0.2.60, MAC: 02:00:00:00:00:12, VLAN: 5, Type: ARP"}},
                        kEmptyV4, kEmptyNd, kEmptyNd, kEmptyNd));
}

TEST_F(MigrationSaveTest, ArpBindingExpiredNinetySecondsAgoStandsInTheExpiredTlvWithMinusNinety) {
   SetDeleteExpiry(0);
   AddV4({.vlan = 5,
          .mac = "02:00:00:00:00:13",
          .ip = "192.0.2.70",
          .method = VIGIL_DISC_ARP,
          .expiryTs = kNow - 90});
   ASSERT_EQ(filter->numExpiredVmis, 1u);
   sim::SetLogLevel("vigil", 5);
   TakeModuleLogs();

   Saved saved = Save(108);
   EXPECT_EQ(saved.dataLen, 108u);
   Bytes expiredTlv = {
      0x05, 0x00,             /* type 5 */
      0x38, 0x00,             /* length 56 */
      0x01, 0x00, 0x00, 0x00, /* numVmiEntries 1 */
      0x00, 0x00, 0x00, 0x00, /* totClientIdLen 0 */
   };
   Bytes entry = Cat({{
                         0x05, 0x00,                         /* vlanId 5 */
                         0x02, 0x00, 0x00, 0x00, 0x00, 0x13, /* mac */
                         0xc0, 0x00, 0x02, 0x46,             /* ip 192.0.2.70 */
                         0x02,                               /* discMethod ARP */
                         kFill, kFill, kFill,                /* not written */
                         0xa6, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, /* -90 s */
                      },
                      Fill(24)}); /* not written in type 5 */
   /* Not in the running bindings' TLV, which stays empty. */
   EXPECT_EQ(Dump(saved.buf),
             Dump(Cat({kTlvHeader, kEmptyIpv4Tlv, expiredTlv, entry, kEmptyNdTlv,
                       kEmptyExpiredNdTlv, kEmptyDhcp6Tlv})));
   EXPECT_EQ(
      Logged(),
      TlvSaveLog(108, kEmptyV4,
                 {60, 1,
                  {"Saving expired IP: 192.0.2.70, MAC: 02:00:00:00:00:13, VLAN: 5, Type: ARP"}},
                 kEmptyNd, kEmptyNd, kEmptyNd));
}

TEST_F(MigrationSaveTest, RunningBindingsPastTheirExpirySaveZeroTimeLeft) {
   /* Delete-on-expiry is on: an ARP or ND binding past its end stays on
    * the running list until aging takes it. */
   AddV4({.vlan = 5,
          .mac = "02:00:00:00:00:14",
          .ip = "192.0.2.80",
          .method = VIGIL_DISC_ARP,
          .expiryTs = kNow - 5});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:14",
          .ip = "2001:db8::80",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:14",
          .ip = "2001:db8::81",
          .method = VIGIL_DISC_DHCPV6,
          .expiryTs = kNow - 1000,
          .iaId = 7,
          .serverIp = "fe80::1",
          .validLifetime = 60,
          .preferredLifetime = 30});
   ASSERT_EQ(filter->numExpiredVmis, 0u);
   ASSERT_EQ(filter->numExpiredNdEntries, 0u);
   TakeModuleLogs();

   u32 size = SaveLen();
   ASSERT_EQ(size, 12u + 60 + 12 + 40 + 8 + 78);
   Saved saved = Save(size);
   EXPECT_EQ(saved.dataLen, size);
   Bytes ipv4Tlv = Cat({{
                           0x02, 0x00, 0x38, 0x00, /* type 2, length 56 */
                           0x01, 0x00, 0x00, 0x00, /* one entry */
                           0x00, 0x00, 0x00, 0x00, /* no client id */
                           0x05, 0x00,             /* vlanId 5 */
                           0x02, 0x00, 0x00, 0x00, 0x00, 0x14, /* mac */
                           0xc0, 0x00, 0x02, 0x50,             /* ip 192.0.2.80 */
                           0x02,                               /* ARP */
                           kFill, kFill, kFill,
                           0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 0, not -5 */
                        },
                        Fill(24)});
   Bytes ndTlv = {
      0x03, 0x00, 0x24, 0x00, /* type 3, length 36 */
      0x01, 0x00, 0x00, 0x00, /* one entry */
      0x05, 0x00,             /* vlanId 5 */
      0x02, 0x00, 0x00, 0x00, 0x00, 0x14, /* mac */
      0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* ip 2001:db8::80 */
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 0: it ends this second */
   };
   Bytes dhcp6Tlv = Cat({{
                            0x04, 0x00, 0x4a, 0x00, /* type 4, length 74 */
                            0x01, 0x00, 0x00, 0x00, /* one entry */
                            0x05, 0x00,             /* vlanId 5 */
                            0x02, 0x00, 0x00, 0x00, 0x00, 0x14, /* mac */
                            0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* ip */
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x81,
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 0, not -1000 */
                            0x07, 0x00, 0x00, 0x00, /* iaId 7 */
                            0xfe, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* fe80::1 */
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,
                            0x3c, 0x00, 0x00, 0x00, /* validLifetime 60 */
                            0x1e, 0x00, 0x00, 0x00, /* preferredLifetime 30 */
                            0x00, 0x00,             /* clientIdLen 0 */
                         },
                         Fill(8)}); /* not written */
   EXPECT_EQ(Dump(saved.buf), Dump(Cat({kTlvHeader, ipv4Tlv, kEmptyExpiredIpv4Tlv, ndTlv,
                                        kEmptyExpiredNdTlv, dhcp6Tlv})));
}

TEST_F(MigrationSaveTest, NdAndDhcpv6BindingsOfOneWalkStandEachInTheirOwnTlv) {
   /* On the running list by expiry: ND .90, DHCPv6 .91, ND .92. */
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:15",
          .ip = "2001:db8::90",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow + 200});
   AddV6({.vlan = 6,
          .mac = "02:00:00:00:00:16",
          .ip = "2001:db8::91",
          .method = VIGIL_DISC_DHCPV6,
          .expiryTs = kNow + 300,
          .iaId = 0x1234,
          .serverIp = "fe80::1",
          .validLifetime = 300,
          .preferredLifetime = 200,
          .clientId = {0x00, 0x01, 0x00, 0x01}});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:15",
          .ip = "2001:db8::92",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow + 600});
   sim::SetLogLevel("vigil", 5);
   TakeModuleLogs();

   Saved saved = Save(198);
   EXPECT_EQ(saved.dataLen, 198u);
   Bytes ndTlv = {
      0x03, 0x00, 0x44, 0x00, /* type 3, length 68 */
      0x02, 0x00, 0x00, 0x00, /* numVmi 2 */
      /* first: 2001:db8::90 */
      0x05, 0x00,                         /* vlanId 5 */
      0x02, 0x00, 0x00, 0x00, 0x00, 0x15, /* mac */
      0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* ip */
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x90,
      0xc8, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 200 s left */
      /* second: 2001:db8::92 */
      0x05, 0x00,                         /* vlanId 5 */
      0x02, 0x00, 0x00, 0x00, 0x00, 0x15, /* mac */
      0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* ip */
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x92,
      0x58, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 600 s left */
   };
   Bytes dhcp6Tlv = Cat({{
                            0x04, 0x00, 0x4e, 0x00, /* type 4, length 78 */
                            0x01, 0x00, 0x00, 0x00, /* numVmiEntries 1 */
                            0x06, 0x00,             /* vlanId 6 */
                            0x02, 0x00, 0x00, 0x00, 0x00, 0x16, /* mac */
                            0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* ip */
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x91,
                            0x2c, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 300 s left */
                            0x34, 0x12, 0x00, 0x00, /* iaId 0x1234 */
                            0xfe, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* serverIp */
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,
                            0x2c, 0x01, 0x00, 0x00, /* validLifetime 300 */
                            0xc8, 0x00, 0x00, 0x00, /* preferredLifetime 200 */
                            0x04, 0x00,             /* clientIdLen 4 */
                            0x00, 0x01, 0x00, 0x01, /* client id */
                         },
                         Fill(8)}); /* not written */
   EXPECT_EQ(Dump(saved.buf), Dump(Cat({kTlvHeader, kEmptyIpv4Tlv, kEmptyExpiredIpv4Tlv, ndTlv,
                                        kEmptyExpiredNdTlv, dhcp6Tlv})));
   /* Neither ND writer logs its entries. */
   EXPECT_EQ(Logged(), TlvSaveLog(198, kEmptyV4, kEmptyV4, {72, 2}, kEmptyNd, {82, 1}));
}

TEST_F(MigrationSaveTest, Dhcpv6EntryWithAFourteenByteDuidOccupiesEightyFourBytesTheLastEightUnwritten) {
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:17",
          .ip = "2001:db8::a0",
          .method = VIGIL_DISC_DHCPV6,
          .expiryTs = kNow + 3600,
          .iaId = 1,
          .serverIp = "2001:db8::1",
          .validLifetime = 3600,
          .preferredLifetime = 1800,
          /* DUID-LLT: type 1, hardware 1, time, MAC */
          .clientId = {0x00, 0x01, 0x00, 0x01, 0x2a, 0x3b, 0x4c, 0x5d, 0x02, 0x00, 0x00, 0x00,
                       0x00, 0x17}});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:18",
          .ip = "2001:db8::a1",
          .method = VIGIL_DISC_DHCPV6,
          .expiryTs = kNow + 7200,
          .iaId = 2,
          .serverIp = "2001:db8::1",
          .validLifetime = 7200,
          .preferredLifetime = 3600,
          /* DUID-LL: type 3, hardware 1, MAC */
          .clientId = {0x00, 0x03, 0x00, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x18}});
   TakeModuleLogs();

   ASSERT_EQ(SaveLen(), 224u);
   Saved saved = Save(224);
   EXPECT_EQ(saved.dataLen, 224u);
   Bytes dhcp6Tlv = {
      0x04, 0x00, 0xa8, 0x00, /* type 4, length 168: 70 + 14 + 70 + 10 + 4 */
      0x02, 0x00, 0x00, 0x00, /* numVmiEntries 2 */
   };
   Bytes first = Cat({{
                         0x05, 0x00,                         /* vlanId 5 */
                         0x02, 0x00, 0x00, 0x00, 0x00, 0x17, /* mac */
                         0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* ip */
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xa0,
                         0x10, 0x0e, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 3600 s left */
                         0x01, 0x00, 0x00, 0x00, /* iaId 1 */
                         0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* serverIp */
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,
                         0x10, 0x0e, 0x00, 0x00, /* validLifetime 3600 */
                         0x08, 0x07, 0x00, 0x00, /* preferredLifetime 1800 */
                         0x0e, 0x00,             /* clientIdLen 14 */
                         0x00, 0x01, 0x00, 0x01, 0x2a, 0x3b, 0x4c, 0x5d, /* DUID */
                         0x02, 0x00, 0x00, 0x00, 0x00, 0x17,
                      },
                      Fill(8)}); /* 62 + 14 = 76: the last 8 of 84 are not written */
   ASSERT_EQ(first.size(), 84u);
   Bytes second = Cat({{
                          0x05, 0x00,                         /* vlanId 5 */
                          0x02, 0x00, 0x00, 0x00, 0x00, 0x18, /* mac */
                          0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* ip */
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xa1,
                          0x20, 0x1c, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 7200 s left */
                          0x02, 0x00, 0x00, 0x00, /* iaId 2 */
                          0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* serverIp */
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,
                          0x20, 0x1c, 0x00, 0x00, /* validLifetime 7200 */
                          0x10, 0x0e, 0x00, 0x00, /* preferredLifetime 3600 */
                          0x0a, 0x00,             /* clientIdLen 10 */
                          0x00, 0x03, 0x00, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x18,
                       },
                       Fill(8)});
   EXPECT_EQ(Dump(saved.buf), Dump(Cat({kTlvHeader, kEmptyIpv4Tlv, kEmptyExpiredIpv4Tlv,
                                        kEmptyNdTlv, kEmptyExpiredNdTlv, dhcp6Tlv, first,
                                        second})));
}

TEST_F(MigrationSaveTest, ExpiredNdBindingStandsInTheExpiredNdTlvWithTheTimeSinceItsEnd) {
   SetDeleteExpiry(0);
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:19",
          .ip = "2001:db8::b0",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow - 30});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:19",
          .ip = "2001:db8::b1",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow + 600});
   ASSERT_EQ(filter->numExpiredNdEntries, 1u);
   sim::SetLogLevel("vigil", 5);
   TakeModuleLogs();

   Saved saved = Save(124);
   EXPECT_EQ(saved.dataLen, 124u);
   Bytes ndTlv = {
      0x03, 0x00, 0x24, 0x00, /* type 3, length 36 */
      0x01, 0x00, 0x00, 0x00, /* numVmi 1 */
      0x05, 0x00,             /* vlanId 5 */
      0x02, 0x00, 0x00, 0x00, 0x00, 0x19, /* mac */
      0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* ip 2001:db8::b1 */
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xb1,
      0x58, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* 600 s left */
   };
   Bytes expiredNdTlv = {
      0x06, 0x00, 0x24, 0x00, /* type 6, length 36 */
      0x01, 0x00, 0x00, 0x00, /* numVmi 1 */
      0x05, 0x00,             /* vlanId 5 */
      0x02, 0x00, 0x00, 0x00, 0x00, 0x19, /* mac */
      0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0x00, 0x00, /* ip 2001:db8::b0 */
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xb0,
      0xe2, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, /* -30 s */
   };
   EXPECT_EQ(Dump(saved.buf), Dump(Cat({kTlvHeader, kEmptyIpv4Tlv, kEmptyExpiredIpv4Tlv, ndTlv,
                                        expiredNdTlv, kEmptyDhcp6Tlv})));
   EXPECT_EQ(Logged(), TlvSaveLog(124, kEmptyV4, kEmptyV4, {40, 1}, {40, 1}, kEmptyNd));
}

TEST_F(MigrationSaveTest, RemainingTimeIsTakenWithoutSignedOverflowAtTheEndsOfTheRange) {
   /* A binding whose end is as late as an i64 can say, and one as early:
    * the running list saves the first as it is and clamps the second; the
    * expired list saves the difference wrapped, never trapping. */
   SetDeleteExpiry(0);
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:1a",
          .ip = "2001:db8::c0",
          .method = VIGIL_DISC_DHCPV6,
          .expiryTs = INT64_MAX});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:1a",
          .ip = "2001:db8::c1",
          .method = VIGIL_DISC_ND,
          .expiryTs = INT64_MIN});
   TakeModuleLogs();
   Saved saved = Save(SaveLen());
   ASSERT_EQ(saved.dataLen, 12u + 12 + 12 + 8 + 40 + 78);
   /* DHCPv6 entry at 12 + 12 + 12 + 8 + 40 + 8 = 92, its time at 116. */
   EXPECT_EQ(Dump(Bytes(saved.buf.begin() + 116, saved.buf.begin() + 124)),
             Dump({0x17, 0xfc, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f})); /* INT64_MAX - 1000 */
   /* Expired ND entry at 12 + 12 + 12 + 8 + 8 = 52, its time at 76. */
   EXPECT_EQ(Dump(Bytes(saved.buf.begin() + 76, saved.buf.begin() + 84)),
             /* INT64_MIN - 1000, wrapped */
             Dump({0x18, 0xfc, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}));
}

/* ------------------------------------------------ the V1 layout */

TEST_F(MigrationSaveTest, V1BufferHoldsTheRunningIpv4BindingsFromOffset136AndCountsTheExpiredOnesInItsSize) {
   saveVersion = 1;
   VigilVmi *dhcp = AddDhcpAndArp();
   SetDeleteExpiry(0);
   AddV4({.vlan = 5,
          .mac = "02:00:00:00:00:13",
          .ip = "192.0.2.70",
          .method = VIGIL_DISC_ARP,
          .expiryTs = kNow - 90});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:15",
          .ip = "2001:db8::90",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow + 200});
   sim::SetLogLevel("vigil", 5);
   TakeModuleLogs();

   EXPECT_EQ(SaveLen(), 285u); /* 136 + 48 x 3 + 5 */
   EXPECT_EQ(Logged(), (std::vector<Line>{{1, "Size of V1 data for port 0x10 is 285"}}));
   Saved saved = Save(285);
   EXPECT_EQ(saved.status, ZEK_OK);
   EXPECT_EQ(saved.dataLen, 285u);
   Bytes header = Cat({{
                          0xed, 0xf1, 0xd1, 0x11, 0x50, 0x00, 0x00, 0x00, /* magic */
                          0x01, 0x00, 0x00, 0x00,                         /* version 1 */
                       },
                       Fill(116), /* not written */
                       {
                          0x02, 0x00, 0x00, 0x00, /* numVmiEntries 2 */
                          /* totClientIdLen: 5 added to the 0xeeeeeeee that stood */
                          0xf3, 0xee, 0xee, 0xee,
                       }});
   /* The expired ARP binding is counted in the size but not written; the
    * IPv6 binding is not in a V1 buffer at all. */
   EXPECT_EQ(Dump(saved.buf), Dump(Cat({header, DhcpEntry(dhcp), ArpEntry(), Fill(48)})));
   EXPECT_EQ(
      Logged(),
      (std::vector<Line>{
         {1, "Vigil migration save version V1 initiated for Port: 0x10"},
         {1, "Size of V1 data for port 0x10 is 285"},
         {1, "Num VMIs to save: 3"},
         {1, "Saving IP: 192.0.2.50, MAC: 02:00:00:00:00:10, VLAN: 5, Type: DHCP"},
         {1, "Saving IP: 192.0.2.51, MAC: 02:00:00:00:00:11, VLAN: 7, Type: ARP"},
         {1, "Finished saving the runtime data for port Id: 0x10, saveLen: 285, number of "
             "entries: 2"}}));
}

TEST_F(MigrationSaveTest, V1SaveOfAnEmptyFilterLogsThreeLinesAtVerbosityOne) {
   saveVersion = 1;
   sim::SetLogLevel("vigil", 1);
   Saved saved = Save(136);
   EXPECT_EQ(saved.dataLen, 136u);
   EXPECT_EQ(Dump(saved.buf),
             Dump(Cat({{0xed, 0xf1, 0xd1, 0x11, 0x50, 0x00, 0x00, 0x00, /* magic */
                        0x01, 0x00, 0x00, 0x00},                        /* version 1 */
                       Fill(116),
                       {0x00, 0x00, 0x00, 0x00}, /* numVmiEntries 0 */
                       Fill(4)})));              /* totClientIdLen: nothing added */
   EXPECT_EQ(Logged(),
             (std::vector<Line>{
                {1, "Vigil migration save version V1 initiated for Port: 0x10"},
                {1, "Size of V1 data for port 0x10 is 136"},
                {1, "Finished saving the runtime data for port Id: 0x10, saveLen: 136, number "
                    "of entries: 0"}}));
}

/* ------------------------------------------------ the size and the buffer */

TEST_F(MigrationSaveTest, SaveIntoExactlyTheQueriedSizeSucceedsAndOneByteFewerGivesZero) {
   AddDhcpAndArp();
   u32 size = SaveLen();
   ASSERT_EQ(size, 161u);
   EXPECT_EQ(Save(size).dataLen, 161u);
   EXPECT_EQ(Logged(), std::vector<Line>{});

   Saved shorter = Save(size - 1);
   EXPECT_EQ(shorter.status, ZEK_OK);
   EXPECT_EQ(shorter.dataLen, 0u);
   EXPECT_EQ(Dump(shorter.buf), Dump(Fill(160))) << "untouched";
   EXPECT_EQ(Logged(), (std::vector<Line>{{1, "Insufficient buffer size for port Id: 0x10, got "
                                              "(bufLen): 160, needed (filterSaveLen): 161"}}));
}

TEST_F(MigrationSaveTest, V1SaveIntoOneByteFewerThanTheQueriedSizeGivesZeroAndItsOwnMessage) {
   saveVersion = 1;
   AddDhcpAndArp();
   u32 size = SaveLen();
   ASSERT_EQ(size, 237u);
   EXPECT_EQ(Save(size).dataLen, 237u);

   Saved shorter = Save(size - 1);
   EXPECT_EQ(shorter.status, ZEK_OK);
   EXPECT_EQ(shorter.dataLen, 0u);
   EXPECT_EQ(Dump(shorter.buf), Dump(Fill(236)));
   EXPECT_EQ(Logged(), (std::vector<Line>{{1, "Insufficient buffer size for port Id: 0x10, "
                                              "bufLen: 236, filterSaveLen: 237"}}));
}

TEST_F(MigrationSaveTest, BindingLearntBetweenTheSizeQueryAndTheSaveGivesZeroAndTheTooSmallMessage) {
   AddV4({.vlan = 7,
          .mac = "02:00:00:00:00:11",
          .ip = "192.0.2.51",
          .method = VIGIL_DISC_ARP,
          .expiryTs = kNow + 4000});
   u32 size = SaveLen();
   ASSERT_EQ(size, 108u);
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:15",
          .ip = "2001:db8::90",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow + 200});
   TakeModuleLogs();

   Saved saved = Save(size);
   EXPECT_EQ(saved.status, ZEK_OK);
   EXPECT_EQ(saved.dataLen, 0u);
   EXPECT_EQ(Dump(saved.buf), Dump(Fill(108)));
   EXPECT_EQ(Logged(), (std::vector<Line>{{1, "Insufficient buffer size for port Id: 0x10, got "
                                              "(bufLen): 108, needed (filterSaveLen): 140"}}));
}

TEST_F(MigrationSaveTest, ClearedPropertyWithBufLenZeroLogsThatSavingStoppedNotThatTheBufferIsSmall) {
   AddDhcpAndArp();
   filter->enableCleanedUp = 1;
   EXPECT_EQ(SaveLen(), 0u);
   EXPECT_EQ(Logged(),
             (std::vector<Line>{{2, "Property has already been cleared for port 0x10"}}));

   Saved saved = Save(0);
   EXPECT_EQ(saved.status, ZEK_OK);
   EXPECT_EQ(saved.dataLen, 0u);
   EXPECT_EQ(Logged(),
             (std::vector<Line>{{2, "Property has already been cleared for port 0x10"},
                                {1, "Stop saving TLV for port Id: 0x10 for Vigil property is "
                                    "cleared, filterSaveLen: 0"}}));

   /* A buffer that would have been big enough stays untouched too. */
   Saved big = Save(161);
   EXPECT_EQ(big.dataLen, 0u);
   EXPECT_EQ(Dump(big.buf), Dump(Fill(161)));
   TakeModuleLogs();
}

TEST_F(MigrationSaveTest, V1ClearedPropertyWithBufLenZeroLogsThatSavingV1Stopped) {
   saveVersion = 1;
   filter->enableCleanedUp = 1;
   Saved saved = Save(0);
   EXPECT_EQ(saved.dataLen, 0u);
   EXPECT_EQ(Logged(),
             (std::vector<Line>{{2, "Property has already been cleared for port 0x10"},
                                {1, "Stop saving V1 for port Id: 0x10 for Vigil property is "
                                    "cleared, filterSaveLen: 0"}}));
}

TEST_F(MigrationSaveTest, NullBufferOrNullDataLenSavesNothingAndNamesWhichIsNull) {
   Bytes buf(64, kFill);
   u32 dataLen = 77;
   EXPECT_EQ(VigilMigrationSave(kPort, nullptr, 64, &dataLen, 0), ZEK_OK);
   EXPECT_EQ(dataLen, 0u);
   EXPECT_EQ(VigilMigrationSave(kPort, buf.data(), 64, nullptr, 0), ZEK_OK);
   EXPECT_EQ(Dump(buf), Dump(Fill(64)));
   EXPECT_EQ(VigilMigrationSave(kPort, nullptr, 64, nullptr, 0), ZEK_OK);
   EXPECT_EQ(Logged(),
             (std::vector<Line>{
                {1, "Params null - buf is Null, dataLen is Valid, port Id: 0x10"},
                {1, "Params null - buf is Valid, dataLen is Null, port Id: 0x10"},
                {1, "Params null - buf is Null, dataLen is Null, port Id: 0x10"}}));
}

TEST_F(MigrationSaveTest, UnknownSaveVersionSavesNothingAndSetsDataLenToZero) {
   for (u32 version : {0u, 2u, 99u}) {
      SCOPED_TRACE(version);
      saveVersion = version;
      Saved saved = Save(161);
      EXPECT_EQ(saved.status, ZEK_OK);
      EXPECT_EQ(saved.dataLen, 0u) << "set even for an unknown version";
      EXPECT_EQ(Dump(saved.buf), Dump(Fill(161)));
      char text[64];
      snprintf(text, sizeof text, "Unsupport Vigil migration Save version: %#x", version);
      EXPECT_EQ(Logged(), (std::vector<Line>{{1, text}}));
   }
   saveVersion = 2;
   EXPECT_EQ(SaveLen(), 0u);
   EXPECT_EQ(Logged(), (std::vector<Line>{{1, "Invalid saveVersion: 0x2"}}));
}

TEST_F(MigrationSaveTest, PortWithoutFilterSavesNothing) {
   ASSERT_TRUE(sim::AddPort("vs0", 0x21));
   for (u32 port : {0x20u, 0x21u}) {
      SCOPED_TRACE(port);
      Saved saved = Save(64, port);
      EXPECT_EQ(saved.status, ZEK_OK);
      EXPECT_EQ(saved.dataLen, 0u);
      EXPECT_EQ(Dump(saved.buf), Dump(Fill(64)));
      char text[64];
      snprintf(text, sizeof text, "Filter not found for portId: %#x", port);
      EXPECT_EQ(Logged(), (std::vector<Line>{{1, text}}));
   }
   saveVersion = 1;
   Saved saved = Save(200, 0x20);
   EXPECT_EQ(saved.dataLen, 0u);
   EXPECT_EQ(Dump(saved.buf), Dump(Fill(200)));
   EXPECT_EQ(Logged(), (std::vector<Line>{{1, "Filter not found for port Id: 0x20"}}));
}

/* ------------------------------------------------ the room checked while writing */

/* A filter whose counters say less than its lists hold: the size is short,
 * and the writer finds out only as it writes.  The tests lower a counter
 * under the write lock and put it back before the checker looks. */
TEST_F(MigrationSaveTest, ListsHoldingMoreThanTheCountersStopTheSaveAtATlvHeaderWithinTheBuffer) {
   AddV4({.vlan = 5,
          .mac = "02:00:00:00:00:10",
          .ip = "192.0.2.50",
          .method = VIGIL_DISC_DHCP,
          .expiryTs = kNow + 3600,
          .clientId = {'a', 'b', 'c', 'd', 'e'}});
   WithWriteHold(kPort, [&] { filter->totalClientIdLen -= 1; });
   u32 size = SaveLen();
   ASSERT_EQ(size, 112u);
   /* IPv4 65 bytes, expired IPv4 12, ND 8, expired ND 8: 7 bytes are left
    * where the DHCPv6 TLV's 8-byte header should go. */
   Saved saved = Save(size);
   EXPECT_EQ(saved.status, ZEK_OK);
   EXPECT_EQ(saved.dataLen, 0u);
   EXPECT_EQ(Dump(Bytes(saved.buf.begin() + 105, saved.buf.end())), Dump(Fill(7)))
      << "nothing of the TLV that did not fit";
   EXPECT_EQ(Logged(), (std::vector<Line>{
                          {2, "Buffer too small while saving port 0x10: 112 bytes, more needed"}}));
   WithWriteHold(kPort, [&] { filter->totalClientIdLen += 1; });
}

TEST_F(MigrationSaveTest, ListsHoldingMoreThanTheCountersStopTheSaveAtAnEntryWithinTheBuffer) {
   AddV4({.vlan = 5,
          .mac = "02:00:00:00:00:10",
          .ip = "192.0.2.50",
          .method = VIGIL_DISC_ARP,
          .expiryTs = kNow + 600});
   AddV4({.vlan = 5,
          .mac = "02:00:00:00:00:10",
          .ip = "192.0.2.51",
          .method = VIGIL_DISC_ARP,
          .expiryTs = kNow + 700});
   WithWriteHold(kPort, [&] { filter->numVmis -= 1; filter->numArpVmis -= 1; });
   u32 size = SaveLen();
   ASSERT_EQ(size, 108u);
   /* After the header and the first entry, 36 bytes are left for the
    * second entry's 48. */
   Saved saved = Save(size);
   EXPECT_EQ(saved.dataLen, 0u);
   EXPECT_EQ(Dump(Bytes(saved.buf.begin() + 72, saved.buf.end())), Dump(Fill(36)));
   EXPECT_EQ(Logged(), (std::vector<Line>{
                          {2, "Buffer too small while saving port 0x10: 108 bytes, more needed"}}));

   saveVersion = 1;
   ASSERT_EQ(SaveLen(), 184u);
   Saved v1 = Save(184);
   EXPECT_EQ(v1.dataLen, 0u);
   EXPECT_EQ(Logged(), (std::vector<Line>{
                          {2, "Buffer too small while saving port 0x10: 184 bytes, more needed"}}));
   WithWriteHold(kPort, [&] { filter->numVmis += 1; filter->numArpVmis += 1; });
}

TEST_F(MigrationSaveTest, EachTlvWriterRefusesAnEntryThatDoesNotFitItsRoom) {
   AddV4({.vlan = 5,
          .mac = "02:00:00:00:00:10",
          .ip = "192.0.2.50",
          .method = VIGIL_DISC_DHCP,
          .expiryTs = kNow + 3600,
          .clientId = {'a', 'b', 'c', 'd', 'e'}});
   SetDeleteExpiry(0);
   AddV4({.vlan = 5,
          .mac = "02:00:00:00:00:13",
          .ip = "192.0.2.70",
          .method = VIGIL_DISC_ARP,
          .expiryTs = kNow - 90});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:15",
          .ip = "2001:db8::90",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow + 200});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:15",
          .ip = "2001:db8::91",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow - 10});
   AddV6({.vlan = 6,
          .mac = "02:00:00:00:00:16",
          .ip = "2001:db8::92",
          .method = VIGIL_DISC_DHCPV6,
          .expiryTs = kNow + 300,
          .clientId = {0x00, 0x01, 0x00, 0x01}});
   TakeModuleLogs();
   struct Case {
      const char *name;
      zek_Status (*populate)(VigilFilter *, u8 *, u32);
      u32 size; /* the whole TLV */
   };
   const Case cases[] = {
      {"IPv4", VigilPopulateIpv4V1Tlv, 12 + 53},
      {"expired IPv4", VigilPopulateExpiredIpv4V1Tlv, 12 + 48},
      {"ND", VigilPopulateNdV1Tlv, 8 + 32},
      {"expired ND", VigilPopulateExpiredNdV1Tlv, 8 + 32},
      {"DHCPv6", VigilPopulateDhcp6V1Tlv, 8 + 74},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.name);
      for (u32 room : {c.size - 1, c.size}) {
         Bytes buf(c.size + kGuard, kFill);
         zek_Status status =
            WithReadHold(kPort, [&] { return c.populate(filter, buf.data(), room); });
         EXPECT_EQ(status, room < c.size ? kOverflow : ZEK_OK) << room;
         EXPECT_EQ(Dump(Bytes(buf.begin() + room, buf.end())),
                   Dump(Fill(c.size + kGuard - room)))
            << "nothing past the room";
         u16 length;
         memcpy(&length, buf.data() + 2, 2);
         EXPECT_EQ(length, room < c.size ? 0u : c.size - 4) << "the header's length";
      }
      /* Too little room for the TLV's own header. */
      u8 small[16];
      memset(small, kFill, sizeof small);
      EXPECT_EQ(WithReadHold(kPort, [&] { return c.populate(filter, small, 7); }), kOverflow);
      EXPECT_EQ(Dump(Bytes(small, small + 16)), Dump(Fill(16)));
   }
   EXPECT_EQ(Logged(), std::vector<Line>{});
}

/* ------------------------------------------------ lengths of 16 bits */

class MigrationSaveLongTlvTest : public MigrationSaveTest {
protected:
   /* The largest IPv4 database the table takes with learnt bindings alone:
    * 128 DHCP bindings with a client id of up to 255 bytes (the last one
    * `lastClientIdLen`) and 256 ARP bindings; static bindings, which have
    * no limit, make up the rest. */
   VigilVmi *FillIpv4(u32 statics, u32 lastClientIdLen) {
      u16 vlan = 1;
      VigilVmi *last = nullptr;
      for (u32 i = 0; i < 128; i++) {
         last = AddV4({.vlan = vlan++,
                       .mac = "02:00:00:00:00:10",
                       .ip = "192.0.2.50",
                       .method = VIGIL_DISC_DHCP,
                       .expiryTs = kNow + 3600,
                       .clientId = Bytes(i == 127 ? lastClientIdLen : 255, (u8)i)});
      }
      for (u32 i = 0; i < 256; i++) {
         AddV4({.vlan = vlan++,
                .mac = "02:00:00:00:00:10",
                .ip = "192.0.2.50",
                .method = VIGIL_DISC_ARP,
                .expiryTs = kNow + 600});
      }
      for (u32 i = 0; i < statics; i++) {
         AddV4({.vlan = vlan++,
                .mac = "02:00:00:00:00:10",
                .ip = "192.0.2.50",
                .method = VIGIL_DISC_STATIC,
                .expiryTs = 0});
      }
      sim::WaitIdle(5.0);
      sim::TakePortsetMessages();
      TakeModuleLogs();
      return last;
   }
};

TEST_F(MigrationSaveLongTlvTest, Ipv4TlvOfExactlySixtyFiveThousandFiveHundredThirtyFiveIsSaved) {
   /* 686 entries: 8 + 48 x 686 + 127 x 255 + 214 = 65535. */
   FillIpv4(302, 214);
   ASSERT_EQ(filter->numVmis, 686u);
   ASSERT_EQ(VigilGetIpv4V1TlvSize(filter), 65539u);
   u32 size = SaveLen();
   ASSERT_EQ(size, 65539u + 12 + 12 + 8 + 8 + 8);
   Saved saved = Save(size);
   EXPECT_EQ(saved.dataLen, size);
   EXPECT_EQ(Dump(Bytes(saved.buf.begin() + 12, saved.buf.begin() + 24)),
             Dump({0x02, 0x00,             /* type 2 */
                   0xff, 0xff,             /* length 65535 */
                   0xae, 0x02, 0x00, 0x00, /* numVmiEntries 686 */
                   0x57, 0x7f, 0x00, 0x00  /* totClientIdLen 32599 */}));
   /* The next TLV stands where that length says. */
   EXPECT_EQ(Dump(Bytes(saved.buf.begin() + 12 + 4 + 65535, saved.buf.end())),
             Dump(Cat({kEmptyExpiredIpv4Tlv, kEmptyNdTlv, kEmptyExpiredNdTlv, kEmptyDhcp6Tlv})));
   EXPECT_EQ(Logged(), std::vector<Line>{});
}

TEST_F(MigrationSaveLongTlvTest, Ipv4TlvOneByteLongerThanSixteenBitsCanSayMakesTheSizeZeroAndSavesNothing) {
   FillIpv4(302, 215);
   EXPECT_EQ(VigilGetIpv4V1TlvSize(filter), 65540u);
   EXPECT_EQ(SaveLen(), 0u);
   EXPECT_EQ(Logged(), (std::vector<Line>{{2, "Length 65536 of TLV type 2 for port 0x10 does not "
                                              "fit 16 bits, saving nothing"}}));

   Saved saved = Save(70000);
   EXPECT_EQ(saved.status, ZEK_OK);
   EXPECT_EQ(saved.dataLen, 0u);
   EXPECT_EQ(Dump(saved.buf), Dump(Fill(70000)));
   EXPECT_EQ(Logged(), (std::vector<Line>{{2, "Length 65536 of TLV type 2 for port 0x10 does not "
                                              "fit 16 bits, saving nothing"},
                                          {1, "Stop saving TLV for port Id: 0x10 for Vigil "
                                              "property is cleared, filterSaveLen: 0"}}));

   /* The V1 layout has no 16-bit length: the same database saves. */
   saveVersion = 1;
   u32 v1Size = SaveLen();
   EXPECT_EQ(v1Size, 136u + 48 * 686 + 32600);
   EXPECT_EQ(Save(v1Size).dataLen, v1Size);
   TakeModuleLogs();
}

TEST_F(MigrationSaveLongTlvTest, WriterRefusesALengthOverSixteenBitsThatTheCountersUnderstated) {
   FillIpv4(302, 215);
   WithWriteHold(kPort, [&] { filter->totalClientIdLen -= 1; });
   u32 size = SaveLen();
   ASSERT_EQ(size, 65539u + 12 + 12 + 8 + 8 + 8) << "the counters say 65535";
   Saved saved = Save(size + 64);
   EXPECT_EQ(saved.dataLen, 0u);
   EXPECT_EQ(Logged(), (std::vector<Line>{{2, "Length 65536 of TLV type 2 for port 0x10 does not "
                                              "fit 16 bits, saving nothing"}}));
   /* The TLV's own writer, given all the room it could want. */
   Bytes buf(70000, kFill);
   EXPECT_EQ(WithReadHold(kPort,
                          [&] { return VigilPopulateIpv4V1Tlv(filter, buf.data(), 70000); }),
             kBadData);
   EXPECT_EQ(Logged(), (std::vector<Line>{{2, "Length 65536 of TLV type 2 for port 0x10 does not "
                                              "fit 16 bits, saving nothing"}}));
   WithWriteHold(kPort, [&] { filter->totalClientIdLen += 1; });
}

TEST_F(MigrationSaveLongTlvTest, Dhcpv6TlvLongerThanSixteenBitsCanSayMakesTheSizeZero) {
   /* 15 DHCPv6 bindings, the table's limit, with DUIDs of about 4.3 kB:
    * 4 + 70 x 15 + 14 x 4299 + the last one. */
   auto fill = [&](u32 lastLen) {
      for (u32 i = 0; i < 15; i++) {
         char ip[32];
         snprintf(ip, sizeof ip, "2001:db8::%x", 0x100 + i);
         AddV6({.vlan = 5,
                .mac = "02:00:00:00:00:20",
                .ip = ip,
                .method = VIGIL_DISC_DHCPV6,
                .expiryTs = kNow + 3600,
                .clientId = Bytes(i == 14 ? lastLen : 4299, (u8)i)});
      }
      TakeModuleLogs();
   };
   fill(4295); /* length 65535 */
   u32 size = SaveLen();
   ASSERT_EQ(size, 12u + 12 + 12 + 8 + 8 + 65539);
   Saved saved = Save(size);
   EXPECT_EQ(saved.dataLen, size);
   EXPECT_EQ(Dump(Bytes(saved.buf.begin() + 52, saved.buf.begin() + 60)),
             Dump({0x04, 0x00, 0xff, 0xff, /* type 4, length 65535 */
                   0x0f, 0x00, 0x00, 0x00  /* 15 entries */}));
   TakeModuleLogs();

   WithWriteHold(kPort, [&] { VigilClearV6Vmi(filter, true, 0, nullptr); });
   TakeModuleLogs();
   fill(4296); /* length 65536 */
   EXPECT_EQ(SaveLen(), 0u);
   EXPECT_EQ(Logged(), (std::vector<Line>{{2, "Length 65536 of TLV type 4 for port 0x10 does not "
                                              "fit 16 bits, saving nothing"}}));
}

/* ------------------------------------------------ supported TLVs and sizes */

TEST_F(MigrationSaveTest, StatsBitIsNeverCountedNorWritten) {
   EXPECT_EQ(VigilGetStatsV1TlvSize(filter), 152u);
   supportedTlvs |= VIGIL_TLV_BIT(VIGIL_TLV_STATS_V1);
   sim::SetLogLevel("vigil", 5);
   Saved saved = Save(60);
   EXPECT_EQ(saved.dataLen, 60u);
   EXPECT_EQ(Dump(saved.buf), Dump(Cat({kTlvHeader, kEmptyIpv4Tlv, kEmptyExpiredIpv4Tlv,
                                        kEmptyNdTlv, kEmptyExpiredNdTlv, kEmptyDhcp6Tlv})));
   /* No "Size of Stats V1 Tlv" line. */
   EXPECT_EQ(Logged(), TlvSaveLog(60, kEmptyV4, kEmptyV4, kEmptyNd, kEmptyNd, kEmptyNd));
}

TEST_F(MigrationSaveTest, SizeAndWriterTakeOnlyTheTlvsWhoseBitsAreSet) {
   VigilVmi *dhcp = AddDhcpAndArp();
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:15",
          .ip = "2001:db8::90",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow + 200});
   supportedTlvs = VIGIL_TLV_BIT(VIGIL_TLV_IPV4_V1) | VIGIL_TLV_BIT(VIGIL_TLV_DHCP6_V1);
   sim::SetLogLevel("vigil", 5);
   TakeModuleLogs();
   ASSERT_EQ(SaveLen(), 12u + 113 + 8);
   TakeModuleLogs();
   Saved saved = Save(133);
   EXPECT_EQ(saved.dataLen, 133u);
   Bytes ipv4Tlv = {
      0x02, 0x00, 0x6d, 0x00, /* type 2, length 109 */
      0x02, 0x00, 0x00, 0x00, /* numVmiEntries 2 */
      0x05, 0x00, 0x00, 0x00, /* totClientIdLen 5 */
   };
   EXPECT_EQ(Dump(saved.buf),
             Dump(Cat({kTlvHeader, ipv4Tlv, DhcpEntry(dhcp), ArpEntry(), kEmptyDhcp6Tlv})));
   EXPECT_EQ(
      Logged(),
      (std::vector<Line>{
         {1, "Migration save TLV initiated for port 0x10"},
         {1, "TLV Header is 12 bytes"},
         {1, "Size of IPv4 V1 Tlv (TlvHdr + Data) is 113"},
         {1, "Size of DHCPv6 V1 Tlv (TlvHdr + Data) is 8"},
         {1, "Save length for Port: 0x10, version: TLV is 133"},
         {1, "Saving IPv4 data in TLV for port: 0x10"},
         {1, "Saving IP: 192.0.2.50, MAC: 02:00:00:00:00:10, VLAN: 5, Type: DHCP"},
         {1, "Saving IP: 192.0.2.51, MAC: 02:00:00:00:00:11, VLAN: 7, Type: ARP"},
         {1, "Finished saving IPv4 V1 TLV for port: 0x10, numVmiEntries: 2, TlvLen: 109"},
         {1, "Saving DHCP6 data in TLV for port: 0x10"},
         {1, "Finished saving DHCP6 V1 TLV for port: 0x10, numVmiEntries: 0, TlvLen: 4"},
         {1, "Finished saving the runtime data for port Id: 0x10, saveLen: 133"}}));
}

TEST_F(MigrationSaveTest, SizeOfEachPieceFollowsTheFilterCounters) {
   AddDhcpAndArp();
   SetDeleteExpiry(0);
   AddV4({.vlan = 5,
          .mac = "02:00:00:00:00:13",
          .ip = "192.0.2.70",
          .method = VIGIL_DISC_ARP,
          .expiryTs = kNow - 90});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:15",
          .ip = "2001:db8::90",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow + 200});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:15",
          .ip = "2001:db8::91",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow - 10});
   AddV6({.vlan = 5,
          .mac = "02:00:00:00:00:15",
          .ip = "2001:db8::92",
          .method = VIGIL_DISC_ND,
          .expiryTs = kNow - 20});
   AddV6({.vlan = 6,
          .mac = "02:00:00:00:00:16",
          .ip = "2001:db8::93",
          .method = VIGIL_DISC_DHCPV6,
          .expiryTs = kNow + 300,
          .clientId = Bytes(14, 1)});
   TakeModuleLogs();
   EXPECT_EQ(VigilGetStateV1Size(filter), 136u + 48 * 3 + 5);
   EXPECT_EQ(VigilGetIpv4V1TlvSize(filter), 12u + 48 * 2 + 5);
   EXPECT_EQ(VigilGetExpiredIpv4V1TlvSize(filter), 12u + 48);
   EXPECT_EQ(VigilGetNdV1TlvSize(filter), 8u + 32);
   EXPECT_EQ(VigilGetExpiredNdV1TlvSize(filter), 8u + 32 * 2);
   EXPECT_EQ(VigilGetDhcpv6V1TlvSize(filter), 8u + 70 + 14);
   EXPECT_EQ(VigilGetStatsV1TlvSize(filter), 152u);
   u32 size = SaveLen();
   EXPECT_EQ(size, 12u + 113 + 60 + 40 + 72 + 92);
   EXPECT_EQ(Save(size).dataLen, size);
}

TEST_F(MigrationSaveTest, ExpiredIpv4AndDhcpv6WritersRefuseANullTlvOrFilter) {
   u8 buf[16];
   memset(buf, kFill, sizeof buf);
   EXPECT_EQ(
      WithReadHold(kPort, [&] { return VigilPopulateExpiredIpv4V1Tlv(filter, nullptr, 64); }),
      kBadParam);
   EXPECT_EQ(VigilPopulateExpiredIpv4V1Tlv(nullptr, buf, 16), kBadParam);
   EXPECT_EQ(WithReadHold(kPort, [&] { return VigilPopulateDhcp6V1Tlv(filter, nullptr, 64); }),
             kBadParam);
   EXPECT_EQ(VigilPopulateDhcp6V1Tlv(nullptr, buf, 16), kBadParam);
   EXPECT_EQ(Dump(Bytes(buf, buf + 16)), Dump(Fill(16)));
   EXPECT_EQ(Logged(), (std::vector<Line>{{1, "Parameter null - port: nonNull, tlv: Null"},
                                          {1, "Parameter null - port: Null, tlv: nonNull"},
                                          {1, "Parameter null - port: nonNull, tlv: Null"},
                                          {1, "Parameter null - port: Null, tlv: nonNull"}}));
}

} // namespace
