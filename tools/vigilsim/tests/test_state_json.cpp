/*
 * What vigilsim reads from a filter record, on a record laid out by hand:
 * the IPv6 bindings of both lists with every field, the pending DHCPv6
 * requests with the type and transaction id of their message copy, the
 * narrow view and `bindings`, and the same as text.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sim_core.h"
#include "state.h"
#include "text.h"
#include "vigil_filter.h"
#include "vigil_v6.h"

namespace {

using vigilsim::Json;

/* Links at the tail, as the module's list helpers do. */
void Append(VigilListLinks *head, VigilListLinks *links) {
   links->prev = head->prev;
   links->next = head;
   head->prev->next = links;
   head->prev = links;
}

void Ip6(const char *text, u8 out[16]) {
   ASSERT_EQ(inet_pton(AF_INET6, text, out), 1) << text;
}

class StateJsonTest : public ::testing::Test {
 protected:
   void SetUp() override {
      sim::Reset(); /* the virtual clock at 1000 s, for the text's "in N s" */
      filter = std::make_unique<VigilFilter>();
      memset(filter.get(), 0, sizeof(VigilFilter));
      for (VigilListLinks *head :
           {&filter->vmiList, &filter->expiredVmiList, &filter->dhcpReqList,
            &filter->v6VmiList, &filter->v6ExpiredNdList, &filter->dhcpV6ReqList}) {
         head->prev = head->next = head;
      }
      filter->portID = 0x10;

      memset(&nd, 0, sizeof nd);
      nd.vlanId = 5;
      memcpy(nd.mac, "\x02\x00\x00\x00\x00\x10", 6);
      Ip6("2001:db8::50", nd.ip);
      nd.discMethod = VIGIL_DISC_ND;
      nd.expiryTs = 1600;
      Append(&filter->v6VmiList, &nd.expiryLinks);

      memset(&lease, 0, sizeof lease);
      lease.vlanId = 5;
      memcpy(lease.mac, "\x02\x00\x00\x00\x00\x10", 6);
      Ip6("2001:db8::1:60", lease.ip);
      lease.discMethod = VIGIL_DISC_DHCPV6;
      lease.expiryTs = 8200;
      lease.iaId = 1;
      Ip6("fe80::ff:fe00:1", lease.serverIp);
      lease.validLifetime = 7200;
      lease.preferredLifetime = 3600;
      lease.clientIdLen = sizeof duid;
      lease.clientId = duid;
      Append(&filter->v6VmiList, &lease.expiryLinks);

      memset(&stale, 0, sizeof stale);
      memcpy(stale.mac, "\x02\x00\x00\x00\x00\x11", 6);
      Ip6("fe80::ff:fe00:11", stale.ip);
      stale.discMethod = VIGIL_DISC_ND;
      stale.expiryTs = 990;
      Append(&filter->v6ExpiredNdList, &stale.expiredLinks);

      /* A Request, transaction id 0xa1b2c3, with its copies behind it. */
      reqBlock.assign(sizeof(VigilDhcpV6Req) + 6 + sizeof duid, 0);
      req = reinterpret_cast<VigilDhcpV6Req *>(reqBlock.data());
      req->vlanId = 5;
      memcpy(req->mac, "\x02\x00\x00\x00\x00\x10", 6);
      req->msg = reqBlock.data() + sizeof(VigilDhcpV6Req);
      memcpy(req->msg, "\x03\xa1\xb2\xc3\x00\x01", 6);
      req->msgLen = 6;
      req->clientId = req->msg + 6;
      memcpy(req->clientId, duid, sizeof duid);
      req->clientIdLen = sizeof duid;
      req->expiryTs = 1001;
      req->reqStatus = 1;
      req->retransTimeout = 1;
      Append(&filter->dhcpV6ReqList, &req->reqLinks);
   }

   std::unique_ptr<VigilFilter> filter;
   u8 duid[10] = {0x00, 0x03, 0x00, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x10};
   VigilV6Vmi nd, lease, stale;
   std::vector<u8> reqBlock;
   VigilDhcpV6Req *req = nullptr;
};

const char *const kNdJson =
   R"j({"vlanId":5,"mac":"02:00:00:00:00:10","ip":"2001:db8::50","discMethod":8,)j"
   R"j("expiryTs":1600,"iaId":0,"serverIp":"::","validLifetime":0,"preferredLifetime":0,)j"
   R"j("clientIdLen":0,"clientId":""})j";
const char *const kLeaseJson =
   R"j({"vlanId":5,"mac":"02:00:00:00:00:10","ip":"2001:db8::1:60","discMethod":16,)j"
   R"j("expiryTs":8200,"iaId":1,"serverIp":"fe80::ff:fe00:1","validLifetime":7200,)j"
   R"j("preferredLifetime":3600,"clientIdLen":10,"clientId":"00030001020000000010"})j";
const char *const kStaleJson =
   R"j({"vlanId":0,"mac":"02:00:00:00:00:11","ip":"fe80::ff:fe00:11","discMethod":8,)j"
   R"j("expiryTs":990,"iaId":0,"serverIp":"::","validLifetime":0,"preferredLifetime":0,)j"
   R"j("clientIdLen":0,"clientId":""})j";
const char *const kRequestJson =
   R"j({"vlanId":5,"mac":"02:00:00:00:00:10","msgType":3,"xid":10597059,)j"
   R"j("clientIdLen":10,"clientId":"00030001020000000010","msgLen":6,"expiryTs":1001,)j"
   R"j("reqStatus":1,"retransTimeout":1})j";

TEST_F(StateJsonTest, StateShowsBothIPv6ListsAndThePendingRequestsWithEveryField) {
   Json j = vigilsim::FilterJson(filter.get());
   EXPECT_EQ(j["v6VmiList"].dump(), std::string("[") + kNdJson + "," + kLeaseJson + "]");
   EXPECT_EQ(j["v6ExpiredNdList"].dump(), std::string("[") + kStaleJson + "]");
   EXPECT_EQ(j["dhcpV6ReqList"].dump(), std::string("[") + kRequestJson + "]");
}

/* Every scalar field of the record, by its name and in its order; the
 * handles, pointers and list heads are not values of their own. */
TEST_F(StateJsonTest, StateShowsEveryScalarFieldOfTheFilterRecord) {
   Json j = vigilsim::FilterJson(filter.get());
   std::vector<std::string> scalars;
   for (const auto &[key, value] : j.items()) {
      if (!value.is_structured()) scalars.push_back(key);
   }
   EXPECT_EQ(scalars,
             std::vector<std::string>(
                 {"portID", "configWriteHeld", "configReadHolds", "portsetName", "vnicType",
                  "enableCleanedUp", "discoveryFlags", "retired", "numVmis", "numDhcpVmis",
                  "numArpVmis", "numExpiredVmis", "numStaticVmis", "totalClientIdLen",
                  "numDhcpReqs", "arpExpiry", "portDbArpEntriesSize", "numNdEntries",
                  "numExpiredNdEntries", "numDhcpV6Entries", "dhcpV6ClientIdBytes",
                  "numDhcpV6Reqs", "dhcpV6ReqBytes", "ndExpiry", "portDbNdEntriesSize",
                  "portDbDhcpV6EntriesSize", "maxDhcpV6Reqs", "agingPortID", "agingKey",
                  "portIgnoreListSize", "featuresEnabled", "rxBcastRateLimit",
                  "txBcastRateLimit", "rxMcastRateLimit", "txMcastRateLimit",
                  "switchWhiteListSize", "portWhiteListSize", "bpduExclusionListSize",
                  "bpduBitmap"}));
}

TEST_F(StateJsonTest, StateShowsTheRetiredFlagAndTheReadHolds) {
   filter->retired = 1;
   filter->configReadHolds = 2;
   Json j = vigilsim::FilterJson(filter.get());
   EXPECT_EQ(j["retired"], 1);
   EXPECT_EQ(j["configReadHolds"], 2);
   EXPECT_EQ(vigilsim::SelectFilterFields(j, {"retired", "configReadHolds"}).dump(),
             R"j({"retired":1,"configReadHolds":2})j");
}

TEST_F(StateJsonTest, NarrowStateShowsTheIPv6ListsNamed) {
   Json j = vigilsim::SelectFilterFields(vigilsim::FilterJson(filter.get()),
                                         {"dhcpV6ReqList", "v6ExpiredNdList"});
   EXPECT_EQ(j.dump(), std::string(R"j({"dhcpV6ReqList":[)j") + kRequestJson +
                          R"j(],"v6ExpiredNdList":[)j" + kStaleJson + "]}");
}

TEST_F(StateJsonTest, ARequestWhoseCopyIsTooShortHasNoTypeOrTransactionId) {
   req->msgLen = 3;
   Json j = vigilsim::FilterJson(filter.get());
   EXPECT_EQ(j["dhcpV6ReqList"][0]["msgType"], 3);
   EXPECT_TRUE(j["dhcpV6ReqList"][0]["xid"].is_null());
   req->msg = nullptr;
   j = vigilsim::FilterJson(filter.get());
   EXPECT_TRUE(j["dhcpV6ReqList"][0]["msgType"].is_null());
   EXPECT_TRUE(j["dhcpV6ReqList"][0]["xid"].is_null());
}

TEST_F(StateJsonTest, BindingsShowIPv6BindingsWithTheFieldsOfTheirMethod) {
   EXPECT_EQ(vigilsim::BindingsJson(filter.get()).dump(),
             R"j([{"vlanId":5,"mac":"02:00:00:00:00:10","ip":"2001:db8::50","discMethod":8,)j"
             R"j("expiryTs":1600,"expired":false},)j"
             R"j({"vlanId":5,"mac":"02:00:00:00:00:10","ip":"2001:db8::1:60","discMethod":16,)j"
             R"j("expiryTs":8200,"expired":false,"iaId":1,"serverIp":"fe80::ff:fe00:1",)j"
             R"j("validLifetime":7200,"preferredLifetime":3600,"clientIdLen":10,)j"
             R"j("clientId":"00030001020000000010"},)j"
             R"j({"vlanId":0,"mac":"02:00:00:00:00:11","ip":"fe80::ff:fe00:11","discMethod":8,)j"
             R"j("expiryTs":990,"expired":true}])j");
}

/* A DHCPv6 field left set on an ND binding is shown, since it is not zero. */
TEST_F(StateJsonTest, BindingsShowAFieldOfAnotherMethodThatIsNotZero) {
   nd.iaId = 7;
   Json b = vigilsim::BindingsJson(filter.get());
   EXPECT_EQ(b[0].dump(),
             R"j({"vlanId":5,"mac":"02:00:00:00:00:10","ip":"2001:db8::50","discMethod":8,)j"
             R"j("expiryTs":1600,"expired":false,"iaId":7})j");
}

TEST_F(StateJsonTest, NarrowStateAsTextHasTablesOfIPv6BindingsAndRequests) {
   Json result;
   result["cmd"] = "state";
   result["ok"] = true;
   result["portID"] = 16;
   result["filter"] = vigilsim::SelectFilterFields(
      vigilsim::FilterJson(filter.get()), {"v6VmiList", "v6ExpiredNdList", "dhcpV6ReqList"});
   EXPECT_EQ(vigilsim::RenderText("state 0x10 v6VmiList v6ExpiredNdList dhcpV6ReqList", result),
             "> state 0x10 v6VmiList v6ExpiredNdList dhcpV6ReqList\n"
             "    v6VmiList:\n"
             "    vlan  mac                ip              method  expires           iaId  "
             "valid   preferred  server           clientId\n"
             "    5     02:00:00:00:00:10  2001:db8::50    ND      1600 (in 600 s)   -     "
             "-       -          -                -\n"
             "    5     02:00:00:00:00:10  2001:db8::1:60  DHCPv6  8200 (in 7200 s)  1     "
             "7200 s  3600 s     fe80::ff:fe00:1  00030001020000000010\n"
             "    v6ExpiredNdList:\n"
             "    vlan  mac                ip                method  expires         iaId  "
             "valid  preferred  server  clientId\n"
             "    0     02:00:00:00:00:11  fe80::ff:fe00:11  ND      990 (10 s ago)  -     "
             "-      -          -       -\n"
             "    pending DHCPv6 requests:\n"
             "    vlan  mac                type  xid       msgLen  expires        status  "
             "retrans  clientId\n"
             "    5     02:00:00:00:00:10  3     0xa1b2c3  6       1001 (in 1 s)  1       "
             "1 s      00030001020000000010\n");
}

TEST_F(StateJsonTest, EmptyIPv6ListsAsText) {
   filter->v6VmiList.prev = filter->v6VmiList.next = &filter->v6VmiList;
   filter->v6ExpiredNdList.prev = filter->v6ExpiredNdList.next = &filter->v6ExpiredNdList;
   filter->dhcpV6ReqList.prev = filter->dhcpV6ReqList.next = &filter->dhcpV6ReqList;
   Json result;
   result["cmd"] = "state";
   result["ok"] = true;
   result["portID"] = 16;
   result["filter"] = vigilsim::SelectFilterFields(
      vigilsim::FilterJson(filter.get()), {"v6VmiList", "v6ExpiredNdList", "dhcpV6ReqList"});
   EXPECT_EQ(vigilsim::RenderText("state 0x10 v6VmiList v6ExpiredNdList dhcpV6ReqList", result),
             "> state 0x10 v6VmiList v6ExpiredNdList dhcpV6ReqList\n"
             "    v6VmiList: none\n"
             "    v6ExpiredNdList: none\n"
             "    pending DHCPv6 requests: none\n");
}

} // namespace
