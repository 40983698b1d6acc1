#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include <unistd.h>

#include "blobs.h"
#include "script.h"
#include "vigil_whitelist.h"

using namespace vigilsim;

namespace {

std::vector<uint8_t> Bytes(const std::string &line) {
   std::vector<Token> tokens = Tokenize(line);
   EXPECT_EQ(tokens.size(), 1u) << line;
   return ParseBytes(tokens.at(0));
}

std::vector<uint8_t> V(std::initializer_list<int> values) {
   std::vector<uint8_t> out;
   for (int v : values) out.push_back(static_cast<uint8_t>(v));
   return out;
}

std::string ErrorOf(const std::function<void()> &fn) {
   try {
      fn();
   } catch (const ToolError &e) {
      return e.what();
   }
   return "";
}

} // namespace

TEST(Tokenize, SplitsOnBlanksAndTabs) {
   std::vector<Token> t = Tokenize("  tx 0x10\t vlan=5   hex:00  ");
   ASSERT_EQ(t.size(), 4u);
   EXPECT_EQ(t[0].text, "tx");
   EXPECT_EQ(t[1].text, "0x10");
   EXPECT_EQ(t[2].text, "vlan=5");
   EXPECT_EQ(t[3].text, "hex:00");
   EXPECT_FALSE(t[3].quoted);
}

TEST(Tokenize, QuotedTokenHoldsBlanksAndEscapes) {
   std::vector<Token> t = Tokenize(R"(echo "a b\"c\\d\ne\x41")");
   ASSERT_EQ(t.size(), 2u);
   EXPECT_EQ(t[1].text, "a b\"c\\d\neA");
   EXPECT_TRUE(t[1].quoted);
}

TEST(Tokenize, QuotedValueOfAnOptionIsNotAQuotedToken) {
   std::vector<Token> t = Tokenize(R"(port add vs0 1 fabswitch="my switch")");
   ASSERT_EQ(t.size(), 5u);
   EXPECT_EQ(t[4].text, "fabswitch=my switch");
   EXPECT_FALSE(t[4].quoted);
}

TEST(Tokenize, EmptyQuotedToken) {
   std::vector<Token> t = Tokenize(R"(ignorelist 1 "")");
   ASSERT_EQ(t.size(), 3u);
   EXPECT_EQ(t[2].text, "");
   EXPECT_TRUE(t[2].quoted);
}

TEST(Tokenize, Errors) {
   EXPECT_NE(ErrorOf([] { Tokenize(R"(echo "open)"); }).find("unterminated"), std::string::npos);
   EXPECT_NE(ErrorOf([] { Tokenize(R"(echo "\q")"); }).find("unknown escape"), std::string::npos);
   EXPECT_NE(ErrorOf([] { Tokenize(R"(echo "\x4")"); }).find("\\x"), std::string::npos);
}

TEST(Comments, BlankAndHashLinesHaveNoCommand) {
   EXPECT_TRUE(IsBlankOrComment(""));
   EXPECT_TRUE(IsBlankOrComment("   \t"));
   EXPECT_TRUE(IsBlankOrComment("  # note"));
   EXPECT_FALSE(IsBlankOrComment("tx 1 hex:00 # not a comment"));
}

TEST(Bytes, HexIgnoresSeparators) {
   EXPECT_EQ(Bytes("hex:01:02.03-04_05"), V({1, 2, 3, 4, 5}));
   EXPECT_EQ(Bytes("hex:AbCd"), V({0xab, 0xcd}));
   EXPECT_EQ(Bytes("hex:"), V({}));
}

TEST(Bytes, TextQuotedEmptyAndFile) {
   EXPECT_EQ(Bytes("text:true"), V({'t', 'r', 'u', 'e'}));
   EXPECT_EQ(Bytes(R"("a b")"), V({'a', ' ', 'b'}));
   EXPECT_EQ(Bytes(R"("hex:00")"), V({'h', 'e', 'x', ':', '0', '0'}));
   EXPECT_EQ(Bytes("empty"), V({}));
   char path[] = "/tmp/vigilsim_bytes_XXXXXX";
   int fd = mkstemp(path);
   ASSERT_GE(fd, 0);
   ASSERT_EQ(write(fd, "\x01\x00\x02", 3), 3);
   close(fd);
   EXPECT_EQ(Bytes(std::string("file:") + path), V({1, 0, 2}));
   unlink(path);
}

TEST(Bytes, Errors) {
   EXPECT_NE(ErrorOf([] { Bytes("hex:123"); }).find("odd"), std::string::npos);
   EXPECT_NE(ErrorOf([] { Bytes("hex:zz"); }).find("not a hex digit"), std::string::npos);
   EXPECT_NE(ErrorOf([] { Bytes("file:/nonexistent/x"); }).find("cannot read file"),
             std::string::npos);
   EXPECT_NE(ErrorOf([] { Bytes("0102"); }).find("bad bytes"), std::string::npos);
}

TEST(Numbers, DecimalHexAndSigned) {
   EXPECT_EQ(ParseUnsigned("48", "n"), 48u);
   EXPECT_EQ(ParseUnsigned("0x30", "n"), 48u);
   EXPECT_EQ(ParseUnsigned("0XfF", "n"), 255u);
   EXPECT_EQ(ParseSigned("-5", "n"), -5);
   EXPECT_EQ(ParseSigned("-0x10", "n"), -16);
   EXPECT_DOUBLE_EQ(ParseSeconds("0.25", "s"), 0.25);
   EXPECT_FALSE(ErrorOf([] { ParseUnsigned("-1", "n"); }).empty());
   EXPECT_FALSE(ErrorOf([] { ParseUnsigned("12a", "n"); }).empty());
   EXPECT_FALSE(ErrorOf([] { ParseUnsigned("0x", "n"); }).empty());
   EXPECT_FALSE(ErrorOf([] { ParseUnsigned("256", "n", 255); }).empty());
   EXPECT_FALSE(ErrorOf([] { ParseUnsigned("99999999999999999999", "n"); }).empty());
   EXPECT_FALSE(ErrorOf([] { ParseSeconds("-1", "s"); }).empty());
}

TEST(Addresses, ParseAndText) {
   uint8_t mac[6];
   ParseMac("02:00:00:AB:cd:10", mac);
   EXPECT_EQ(MacText(mac), "02:00:00:ab:cd:10");
   EXPECT_FALSE(ErrorOf([&] { ParseMac("02:00:00:ab:cd", mac); }).empty());
   uint8_t ip6[16];
   ASSERT_TRUE(TryParseIpv6("2001:DB8:0:0::1", ip6));
   EXPECT_EQ(Ipv6Text(ip6), "2001:db8::1");
   uint8_t ip4[4];
   ASSERT_TRUE(TryParseIpv4("192.0.2.50", ip4));
   EXPECT_EQ(Ipv4Text(ip4), "192.0.2.50");
   EXPECT_EQ(HexText(ip4, 4), "c0000232");
   EXPECT_EQ(HexNumber(0x30), "0x30");
}

TEST(Args, OptionsAndPositionals) {
   std::vector<Token> t = Tokenize("tx 0x10 vlan=5 text:a=b \"x=y\" hex:00");
   Args a = SplitArgs("tx", t, 1, {"vlan"});
   ASSERT_EQ(a.positional.size(), 4u);
   EXPECT_EQ(a.positional[1].text, "text:a=b");
   EXPECT_EQ(a.positional[2].text, "x=y");
   EXPECT_EQ(a.Unsigned("vlan", 0), 5u);
   EXPECT_NE(ErrorOf([&] { SplitArgs("tx", Tokenize("tx 1 vlan=1 vlan=2"), 1, {"vlan"}); })
                 .find("twice"),
             std::string::npos);
   EXPECT_NE(ErrorOf([&] { SplitArgs("tx", Tokenize("tx 1 bogus=1"), 1, {"vlan"}); })
                 .find("unknown option bogus="),
             std::string::npos);
}

TEST(Entries, FieldsAndFlags) {
   std::vector<uint8_t> e = ParseEntries("vlan=5,mac=02:00:00:00:00:10,ip=192.0.2.0/24;ip=2001:db8::1");
   ASSERT_EQ(e.size(), 64u);
   VigilWhiteListEntry a, b;
   std::memcpy(&a, e.data(), 32);
   std::memcpy(&b, e.data() + 32, 32);
   EXPECT_EQ(a.flags, VIGIL_WL_VLAN | VIGIL_WL_MAC | VIGIL_WL_IPV4);
   EXPECT_EQ(a.vlan, 5);
   EXPECT_EQ(a.mac[5], 0x10);
   EXPECT_EQ(a.ip[0], 192);
   EXPECT_EQ(a.prefixLen, 24u);
   EXPECT_EQ(b.flags, VIGIL_WL_IPV6);
   EXPECT_EQ(b.prefixLen, 128u);
   EXPECT_EQ(b.ip[15], 1);
   std::vector<uint8_t> f = ParseEntries("ip=192.0.2.1,prefix=33,flags=0x9");
   VigilWhiteListEntry c;
   std::memcpy(&c, f.data(), 32);
   EXPECT_EQ(c.flags, 9u);
   EXPECT_EQ(c.prefixLen, 33u);
   EXPECT_TRUE(ParseEntries("").empty());
   EXPECT_FALSE(ErrorOf([] { ParseEntries("color=red"); }).empty());
   EXPECT_FALSE(ErrorOf([] { ParseEntries("ip=300.1.1.1"); }).empty());
}

TEST(Blobs, SecurityLayout) {
   Args a = SplitArgs("security", Tokenize("security 1 features=0x44 txBcast=10 "
                                           "port=mac=02:00:00:00:00:10,ip=192.0.2.50 "
                                           "bpduExclude=01:80:c2:00:00:00"),
                      1, {"features", "txBcast", "port", "bpduExclude"});
   std::vector<uint8_t> blob = BuildSecurityBlob(a);
   ASSERT_EQ(blob.size(), 32u + 32u + 6u);
   uint32_t word[8];
   std::memcpy(word, blob.data(), 32);
   EXPECT_EQ(word[0], 0x44u);
   EXPECT_EQ(word[2], 10u); /* txBcast at offset 8 */
   EXPECT_EQ(word[5], 0u);  /* switch list */
   EXPECT_EQ(word[6], 1u);  /* port list */
   EXPECT_EQ(word[7], 1u);  /* BPDU exclusions */
   EXPECT_EQ(blob[64], 0x01);
   EXPECT_EQ(blob[66], 0xc2);
}

TEST(Blobs, DiscoveryAndIgnoreList) {
   Args d = SplitArgs("discovery", Tokenize("discovery 1 arp=1"), 1, {"arp", "dhcp"});
   EXPECT_EQ(BuildDiscoveryBlob(d), V({1, 0}));
   Args d6 = SplitArgs("discovery6", Tokenize("discovery6 1 dhcpv6=1 expiry=5"), 1,
                       {"nd", "dhcpv6", "expiry"});
   EXPECT_EQ(BuildDiscovery6Blob(d6), V({0, 1, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
   Args d6d = SplitArgs("discovery6", Tokenize("discovery6 1"), 1, {"nd", "dhcpv6", "expiry"});
   EXPECT_EQ(BuildDiscovery6Blob(d6d)[2], 10);
   std::vector<uint8_t> il = BuildIgnoreListBlob("vlan=7;mac=02:00:00:00:00:20");
   ASSERT_EQ(il.size(), 4u + 64u);
   EXPECT_EQ(il[0], 2);
   EXPECT_EQ(BuildIgnoreListBlob(""), V({0, 0, 0, 0}));
}
