/*
 * The fleet's claims against a real single-member etcd: publishing,
 * conflicts between hosts, a VM that moves, releases, a host whose lease
 * runs out, and etcd that does not answer.
 */
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "etcd_server.h"
#include "fleet.h"

namespace {

using vigild::EtcdClaim;
using vigild::EtcdClient;
using vigild::EtcdKeyValue;
using vigild::Fleet;
using vigild::FleetBinding;
using vigild::FleetConfig;
using vigild::FleetHolder;
using vigild::FleetOutcome;
using namespace std::chrono_literals;

struct Seen {
   FleetBinding binding;
   FleetOutcome outcome;
   FleetHolder holder;
};

/* The outcomes one fleet reported, in order. */
class Outcomes {
 public:
   Fleet::Callback Callback() {
      return [this](const FleetBinding &b, FleetOutcome o, const FleetHolder &h) {
         std::lock_guard<std::mutex> lock(mutex_);
         seen_.push_back({b, o, h});
         cv_.notify_all();
      };
   }
   /* The n-th outcome (from 0), waiting up to `timeout` for it. */
   bool Wait(size_t n, Seen *out, std::chrono::milliseconds timeout = 5000ms) {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!cv_.wait_for(lock, timeout, [&] { return seen_.size() > n; })) return false;
      *out = seen_[n];
      return true;
   }
   size_t Count() {
      std::lock_guard<std::mutex> lock(mutex_);
      return seen_.size();
   }

 private:
   std::mutex mutex_;
   std::condition_variable cv_;
   std::vector<Seen> seen_;
};

FleetBinding Binding(const std::string &ip, const std::string &mac, uint32_t port = 16) {
   FleetBinding b;
   b.vlanId = 10;
   b.ip = ip;
   b.mac = mac;
   b.portID = port;
   b.method = "dhcp";
   b.expiryTs = 1800;
   return b;
}

class FleetTest : public ::testing::Test {
 protected:
   void SetUp() override {
      if (!vigild_test::EtcdInstalled()) GTEST_SKIP() << "etcd is not installed";
      etcd_ = std::make_unique<vigild_test::EtcdServer>();
      ASSERT_TRUE(etcd_->Start());
   }

   FleetConfig Config(const std::string &host, int leaseSeconds = 10) {
      FleetConfig c;
      c.endpoints = {etcd_->Url()};
      c.host = host;
      c.prefix = "/vigil-test";
      c.leaseSeconds = leaseSeconds;
      return c;
   }

   /* The value of a key, "" when absent. */
   std::string ValueAt(const std::string &key) {
      EtcdClient client({etcd_->Url()});
      std::vector<EtcdKeyValue> kvs;
      EXPECT_TRUE(client.RangePrefix(key, &kvs));
      for (const auto &kv : kvs)
         if (kv.key == key) return kv.value;
      return "";
   }

   bool WaitForValue(const std::string &key, const std::string &value, std::chrono::milliseconds timeout) {
      auto until = std::chrono::steady_clock::now() + timeout;
      while (std::chrono::steady_clock::now() < until) {
         if (ValueAt(key) == value) return true;
         std::this_thread::sleep_for(100ms);
      }
      return ValueAt(key) == value;
   }

   std::unique_ptr<vigild_test::EtcdServer> etcd_;
};

TEST(EtcdBase64, RoundTripsEveryLengthAndRefusesForeignCharacters) {
   EXPECT_EQ(vigild::Base64Encode("/vigil/bindings/10/192.0.2.10"), "L3ZpZ2lsL2JpbmRpbmdzLzEwLzE5Mi4wLjIuMTA=");
   EXPECT_EQ(vigild::Base64Encode("ab"), "YWI=");
   EXPECT_EQ(vigild::Base64Encode("abc"), "YWJj");
   std::string out;
   for (std::string s : std::vector<std::string>{"", "a", "ab", "abc", "abcd", std::string("\0\xff\x10", 3)}) {
      ASSERT_TRUE(vigild::Base64Decode(vigild::Base64Encode(s), &out));
      EXPECT_EQ(out, s);
   }
   EXPECT_FALSE(vigild::Base64Decode("YW*=", &out));
}

TEST_F(FleetTest, ClientCreatesOnceThenShowsTheHolderAndReplacesOnlyAnUnchangedKey) {
   EtcdClient client({etcd_->Url()});
   int64_t lease = 0;
   ASSERT_TRUE(client.Grant(10, &lease));
   EtcdKeyValue holder;
   EXPECT_EQ(client.CreateIfAbsent("/t/k", "one", lease, &holder), EtcdClaim::Created);
   EXPECT_EQ(client.CreateIfAbsent("/t/k", "two", lease, &holder), EtcdClaim::Held);
   EXPECT_EQ(holder.value, "one");
   EXPECT_EQ(holder.lease, lease);
   bool replaced = true;
   ASSERT_TRUE(client.ReplaceIfUnchanged("/t/k", holder.modRevision - 1, "two", lease, &replaced));
   EXPECT_FALSE(replaced);
   ASSERT_TRUE(client.ReplaceIfUnchanged("/t/k", holder.modRevision, "two", lease, &replaced));
   EXPECT_TRUE(replaced);
   bool deleted = true;
   ASSERT_TRUE(client.DeleteIfValue("/t/k", "one", &deleted));
   EXPECT_FALSE(deleted);
   ASSERT_TRUE(client.DeleteIfValue("/t/k", "two", &deleted));
   EXPECT_TRUE(deleted);
   std::vector<EtcdKeyValue> kvs;
   ASSERT_TRUE(client.RangePrefix("/t/", &kvs));
   EXPECT_TRUE(kvs.empty());
}

TEST_F(FleetTest, ClientSeesARevokedLeaseAsGoneWithItsKeys) {
   EtcdClient client({etcd_->Url()});
   int64_t lease = 0;
   ASSERT_TRUE(client.Grant(10, &lease));
   EtcdKeyValue holder;
   ASSERT_EQ(client.CreateIfAbsent("/t/a", "x", lease, &holder), EtcdClaim::Created);
   bool alive = false;
   ASSERT_TRUE(client.KeepAlive(lease, &alive));
   EXPECT_TRUE(alive);
   ASSERT_TRUE(client.Revoke(lease));
   ASSERT_TRUE(client.KeepAlive(lease, &alive));
   EXPECT_FALSE(alive);
   std::vector<EtcdKeyValue> kvs;
   ASSERT_TRUE(client.RangePrefix("/t/", &kvs));
   EXPECT_TRUE(kvs.empty());
}

TEST_F(FleetTest, ClientFallsOverToTheNextEndpointWhenTheFirstIsDown) {
   const std::string dead = "http://127.0.0.1:" + std::to_string(vigild_test::FreePort());
   EtcdClient client({dead, etcd_->Url()});
   int64_t lease = 0;
   ASSERT_TRUE(client.Grant(5, &lease));
   EXPECT_EQ(client.LastEndpoint(), etcd_->Url());
}

TEST_F(FleetTest, AnAbsentKeyIsClaimedAndPublishedWithTheHostsValue) {
   Outcomes seen;
   Fleet fleet(Config("hv1"), seen.Callback());
   fleet.Start();
   fleet.Claim(Binding("192.0.2.10", "00:50:56:00:00:01"));
   Seen s;
   ASSERT_TRUE(seen.Wait(0, &s));
   EXPECT_EQ(s.outcome, FleetOutcome::Admitted);
   EXPECT_EQ(s.binding.ip, "192.0.2.10");
   EXPECT_EQ(ValueAt("/vigil-test/bindings/10/192.0.2.10"),
             R"({"expiryTs":1800,"host":"hv1","mac":"00:50:56:00:00:01","method":"dhcp","portID":16})");
   auto status = fleet.Status();
   EXPECT_EQ(status["admitted"], 1);
   EXPECT_EQ(status["claimsHeld"], 1);
   EXPECT_EQ(status["online"], true);
}

TEST_F(FleetTest, AnotherMacOnAnotherHostIsRefusedNamingTheHolder) {
   Outcomes a, b;
   Fleet hostA(Config("hv1"), a.Callback());
   Fleet hostB(Config("hv2"), b.Callback());
   hostA.Start();
   hostB.Start();
   hostA.Claim(Binding("192.0.2.10", "00:50:56:00:00:01", 16));
   Seen s;
   ASSERT_TRUE(a.Wait(0, &s));
   hostB.Claim(Binding("192.0.2.10", "00:50:56:00:00:02", 17));
   ASSERT_TRUE(b.Wait(0, &s));
   EXPECT_EQ(s.outcome, FleetOutcome::Conflict);
   EXPECT_EQ(s.holder.host, "hv1");
   EXPECT_EQ(s.holder.portID, 16u);
   EXPECT_EQ(s.holder.mac, "00:50:56:00:00:01");
   EXPECT_EQ(hostB.Status()["conflicts"], 1);
   EXPECT_EQ(hostB.Status()["claimsInConflict"], 1);
   /* Retried every second: still a conflict, reported once. */
   std::this_thread::sleep_for(2500ms);
   EXPECT_EQ(b.Count(), 1u);
   /* Once the holder lets go, the refused claim is admitted. */
   hostA.Release(Binding("192.0.2.10", "00:50:56:00:00:01", 16));
   ASSERT_TRUE(b.Wait(1, &s));
   EXPECT_EQ(s.outcome, FleetOutcome::Admitted);
   EXPECT_EQ(ValueAt("/vigil-test/bindings/10/192.0.2.10"),
             R"({"expiryTs":1800,"host":"hv2","mac":"00:50:56:00:00:02","method":"dhcp","portID":17})");
}

TEST_F(FleetTest, AVmThatMovesKeepsItsClaimAndTheSourcesReleaseLeavesIt) {
   Outcomes a, b;
   Fleet source(Config("hv1"), a.Callback());
   Fleet destination(Config("hv2"), b.Callback());
   source.Start();
   destination.Start();
   source.Claim(Binding("192.0.2.20", "00:50:56:00:00:05", 16));
   Seen s;
   ASSERT_TRUE(a.Wait(0, &s));
   destination.Claim(Binding("192.0.2.20", "00:50:56:00:00:05", 30));
   ASSERT_TRUE(b.Wait(0, &s));
   EXPECT_EQ(s.outcome, FleetOutcome::Admitted);
   EXPECT_EQ(s.holder.host, "hv1");
   EXPECT_EQ(destination.Status()["takeovers"], 1);
   source.Release(Binding("192.0.2.20", "00:50:56:00:00:05", 16));
   std::this_thread::sleep_for(1500ms);
   EXPECT_EQ(ValueAt("/vigil-test/bindings/10/192.0.2.20"),
             R"({"expiryTs":1800,"host":"hv2","mac":"00:50:56:00:00:05","method":"dhcp","portID":30})");
}

TEST_F(FleetTest, AReleaseDeletesTheKey) {
   Outcomes a;
   Fleet fleet(Config("hv1"), a.Callback());
   fleet.Start();
   fleet.Claim(Binding("192.0.2.30", "00:50:56:00:00:07"));
   Seen s;
   ASSERT_TRUE(a.Wait(0, &s));
   fleet.Release(Binding("192.0.2.30", "00:50:56:00:00:07"));
   EXPECT_TRUE(WaitForValue("/vigil-test/bindings/10/192.0.2.30", "", 3000ms));
   EXPECT_EQ(fleet.Status()["releases"], 1);
   EXPECT_EQ(fleet.Status()["claimsHeld"], 0);
}

TEST_F(FleetTest, AStoppedHostLosesItsKeysWhenItsLeaseRunsOut) {
   Outcomes a, b;
   auto hostA = std::make_unique<Fleet>(Config("hv1", 2), a.Callback());
   Fleet hostB(Config("hv2", 2), b.Callback());
   hostA->Start();
   hostB.Start();
   hostA->Claim(Binding("192.0.2.40", "00:50:56:00:00:08"));
   Seen s;
   ASSERT_TRUE(a.Wait(0, &s));
   hostB.Claim(Binding("192.0.2.40", "00:50:56:00:00:09", 17));
   ASSERT_TRUE(b.Wait(0, &s));
   EXPECT_EQ(s.outcome, FleetOutcome::Conflict);
   /* The host dies: nobody keeps its lease alive. */
   hostA.reset();
   ASSERT_TRUE(b.Wait(1, &s, 8000ms));
   EXPECT_EQ(s.outcome, FleetOutcome::Admitted);
   EXPECT_EQ(s.holder.host, "");
}

TEST_F(FleetTest, ClaimsMadeWhileEtcdIsDownAreUnconfirmedThenPublishedWhenItAnswers) {
   const int port = etcd_->ClientPort();
   FleetConfig config = Config("hv1");
   etcd_.reset();
   Outcomes a;
   Fleet fleet(config, a.Callback());
   fleet.Start();
   fleet.Claim(Binding("192.0.2.50", "00:50:56:00:00:0a"));
   Seen s;
   ASSERT_TRUE(a.Wait(0, &s));
   EXPECT_EQ(s.outcome, FleetOutcome::Unconfirmed);
   EXPECT_EQ(fleet.Status()["online"], false);
   EXPECT_EQ(fleet.Status()["claimsUnconfirmed"], 1);
   etcd_ = std::make_unique<vigild_test::EtcdServer>(port);
   ASSERT_TRUE(etcd_->Start());
   ASSERT_TRUE(a.Wait(1, &s, 8000ms));
   EXPECT_EQ(s.outcome, FleetOutcome::Admitted);
   EXPECT_EQ(ValueAt("/vigil-test/bindings/10/192.0.2.50"),
             R"({"expiryTs":1800,"host":"hv1","mac":"00:50:56:00:00:0a","method":"dhcp","portID":16})");
   EXPECT_EQ(fleet.Status()["online"], true);
}

TEST_F(FleetTest, BindingsListsTheFleetWithEachHostAndFiltersByVlan) {
   Outcomes a, b;
   Fleet hostA(Config("hv1"), a.Callback());
   Fleet hostB(Config("hv2"), b.Callback());
   hostA.Start();
   hostB.Start();
   hostA.Claim(Binding("192.0.2.60", "00:50:56:00:00:0b"));
   FleetBinding other = Binding("198.51.100.7", "00:50:56:00:00:0c", 18);
   other.vlanId = 20;
   hostB.Claim(other);
   Seen s;
   ASSERT_TRUE(a.Wait(0, &s));
   ASSERT_TRUE(b.Wait(0, &s));
   std::vector<vigild::FleetEntry> all;
   for (int i = 0; i < 50 && all.size() < 2; ++i) {
      std::this_thread::sleep_for(100ms);
      hostA.Bindings(std::nullopt, &all);
   }
   ASSERT_EQ(all.size(), 2u);
   EXPECT_EQ(all[0].binding.vlanId, 10u);
   EXPECT_EQ(all[0].host, "hv1");
   EXPECT_EQ(all[1].binding.vlanId, 20u);
   EXPECT_EQ(all[1].binding.ip, "198.51.100.7");
   EXPECT_EQ(all[1].host, "hv2");
   EXPECT_EQ(all[1].binding.portID, 18u);
   std::vector<vigild::FleetEntry> vlan20;
   EXPECT_TRUE(hostA.Bindings(20, &vlan20));
   ASSERT_EQ(vlan20.size(), 1u);
   EXPECT_EQ(vlan20[0].binding.mac, "00:50:56:00:00:0c");
}

} // namespace

namespace {

TEST_F(FleetTest, AVerdictClaimsAnUnknownBindingAndAnswersFromWhatTheClaimFound) {
   Outcomes a, b;
   Fleet hostA(Config("hv1"), a.Callback());
   Fleet hostB(Config("hv2"), b.Callback());
   hostA.Start();
   hostB.Start();
   FleetHolder holder;
   FleetBinding mine = Binding("192.0.2.70", "00:50:56:00:00:0d", 16);
   EXPECT_EQ(hostA.Verdict(mine, &holder), vigild::FleetVerdict::Wait);
   Seen s;
   ASSERT_TRUE(a.Wait(0, &s));
   EXPECT_EQ(hostA.Verdict(mine, &holder), vigild::FleetVerdict::Admit);
   FleetBinding theirs = Binding("192.0.2.70", "00:50:56:00:00:0e", 17);
   EXPECT_EQ(hostB.Verdict(theirs, &holder), vigild::FleetVerdict::Wait);
   ASSERT_TRUE(b.Wait(0, &s));
   EXPECT_EQ(hostB.Verdict(theirs, &holder), vigild::FleetVerdict::Refuse);
   EXPECT_EQ(holder.host, "hv1");
   EXPECT_EQ(holder.portID, 16u);
   EXPECT_EQ(holder.mac, "00:50:56:00:00:0d");
   /* One claim each: asking again does not claim again. */
   EXPECT_EQ(hostA.Status()["claims"], 1);
   EXPECT_EQ(hostB.Status()["claims"], 1);
}

} // namespace

namespace {

TEST_F(FleetTest, EtcdGoneIsNoticedAtTheKeepAliveAndAFreshClusterGetsEveryClaimAgain) {
   const int port = etcd_->ClientPort();
   Outcomes a;
   Fleet fleet(Config("hv1", 3), a.Callback());
   fleet.Start();
   fleet.Claim(Binding("192.0.2.80", "00:50:56:00:00:0f"));
   Seen s;
   ASSERT_TRUE(a.Wait(0, &s));
   EXPECT_EQ(s.outcome, FleetOutcome::Admitted);
   etcd_.reset();
   for (int i = 0; i < 50 && fleet.Status()["online"] == true; ++i) std::this_thread::sleep_for(100ms);
   EXPECT_EQ(fleet.Status()["online"], false);
   /* A cluster that lost everything: the lease is unknown there, so the
    * fleet takes a new one and claims its binding again. */
   etcd_ = std::make_unique<vigild_test::EtcdServer>(port);
   ASSERT_TRUE(etcd_->Start());
   EXPECT_TRUE(WaitForValue("/vigil-test/bindings/10/192.0.2.80",
                            R"({"expiryTs":1800,"host":"hv1","mac":"00:50:56:00:00:0f","method":"dhcp","portID":16})",
                            8000ms));
   EXPECT_EQ(fleet.Status()["online"], true);
   EXPECT_EQ(fleet.Status()["leases"], 2);
}

} // namespace
