/*
 * The aging world: the queue of filters by their earliest expiry, the
 * world's sleeps and passes on the virtual clock, and its start and stop.
 */
#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "vigil_dhcp.h"
#include "vigil_lifecycle.h"
#include "vigil_atomic.h"
#include "vigil_test.h"
#include "vigil_locks.h"
#include "vigil_vmi.h"
#include "vigil_workers.h"

namespace {

constexpr u32 kPort = 0x10;
constexpr u32 kOtherPort = 0x11;
constexpr i64 kStart = 1000; /* the virtual clock's start, in uptime seconds */

/* 10.a.b.c from a running number. */
u32 IpN(u32 n) {
   u8 bytes[4] = {10, (u8)(n >> 16), (u8)(n >> 8), (u8)n};
   u32 ip;
   memcpy(&ip, bytes, 4);
   return ip;
}

void MacN(u32 n, u8 mac[6]) {
   u8 bytes[6] = {0x02, 0x00, (u8)(n >> 24), (u8)(n >> 16), (u8)(n >> 8), (u8)n};
   memcpy(mac, bytes, 6);
}

/* What a port holds, as the test made it: the expiry of every binding and
 * of every pending request. */
struct PortModel {
   VigilFilter *filter;
   std::vector<i64> bindings;
   std::vector<i64> requests;
};

} // namespace

class AgingWorldTest : public VigilTest {
protected:
   bool RunAgingWorld() override { return true; }

   void SetUp() override {
      VigilTest::SetUp();
      worldID_ = VigilAtomicLoad(&agingWorldID);
      ASSERT_NE(worldID_, 0u);
   }

   void TearDown() override {
      for (VigilFilter *filter : filters_) {
         ClearFilter(filter);
      }
      filters_.clear();
      SetDeleteExpiry(1);
      VigilTest::TearDown();
   }

   VigilFilter *MakeFilter(u32 portID) {
      VigilFilter *filter = AddFilter(portID);
      EXPECT_EQ(VigilVmiHashAlloc(&filter->vmiHash), ZEK_OK);
      filters_.push_back(filter);
      return filter;
   }

   /* Adds a binding under the write lock. */
   VigilVmi *AddBinding(VigilFilter *filter, u32 n, u8 method, i64 expiryTs) {
      VigilVmi *vmi = (VigilVmi *)Vigil_HeapAlloc(sizeof(VigilVmi));
      MacN(n, vmi->mac);
      vmi->ip = IpN(n);
      vmi->discMethod = method;
      vmi->expiryTs = expiryTs;
      if (method == VIGIL_DISC_DHCP) {
         memcpy(vmi->clientMac, vmi->mac, 6);
         vmi->leaseTime = (u32)(expiryTs - kStart);
      }
      VigilFilter *locked = Vigil_LockFilter(filter->portID, true);
      zek_Status status = VigilAddVmi(locked, vmi);
      Vigil_UnlockFilter(locked, true);
      EXPECT_EQ(status, ZEK_OK);
      if (status != ZEK_OK) {
         Vigil_HeapFree(vmi);
         return nullptr;
      }
      return vmi;
   }

   void DelBinding(VigilFilter *filter, VigilVmi *vmi) {
      VigilFilter *locked = Vigil_LockFilter(filter->portID, true);
      VigilDelVmi(locked, vmi);
      Vigil_UnlockFilter(locked, true);
   }

   /* Keeps a pending request the way the DHCP snooper does: in expiry
    * order, counted, and the filter re-filed in the aging queue. */
   VigilDhcpReq *AddRequest(VigilFilter *filter, u32 n, i64 expiryTs) {
      VigilDhcpReq *req = (VigilDhcpReq *)Vigil_HeapAlloc(sizeof(VigilDhcpReq));
      req->xid = n;
      MacN(n, req->chaddr);
      req->expiryTs = expiryTs;
      VigilFilter *locked = Vigil_LockFilter(filter->portID, true);
      VigilListLinks *before = &locked->dhcpReqList;
      VIGIL_LIST_FOR_EACH(pos, &locked->dhcpReqList) {
         if (VIGIL_DHCP_REQ_FROM_LINKS(pos)->expiryTs > expiryTs) {
            before = pos;
            break;
         }
      }
      VigilListInsertBefore(before, &req->links);
      locked->numDhcpReqs++;
      VigilUpdateFilterAging(locked);
      Vigil_UnlockFilter(locked, true);
      return req;
   }

   /* Deletes everything the filter still holds and frees its hash. */
   void ClearFilter(VigilFilter *filter) {
      VigilFilter *locked = Vigil_LockFilter(filter->portID, true);
      ASSERT_NE(locked, nullptr);
      while (!VigilListIsEmpty(&locked->expiredVmiList)) {
         VigilDelVmi(locked, VIGIL_VMI_FROM_EXPIRED(locked->expiredVmiList.next));
      }
      while (!VigilListIsEmpty(&locked->vmiList)) {
         VigilDelVmi(locked, VIGIL_VMI_FROM_EXPIRY(locked->vmiList.next));
      }
      while (!VigilListIsEmpty(&locked->dhcpReqList)) {
         VigilDelDhcpReq(locked, VIGIL_DHCP_REQ_FROM_LINKS(locked->dhcpReqList.next));
      }
      Vigil_UnlockFilter(locked, true);
      Vigil_HeapFree(filter->vmiHash);
      filter->vmiHash = nullptr;
   }

   u64 Wakes() const { return sim::WorldWakes(worldID_); }

   /* The aging queue as element -> key. */
   static std::map<void *, i64> Queue() {
      std::map<void *, i64> queue;
      for (auto &entry : sim::PriQContents(filterAgingQ)) {
         queue[entry.second] = entry.first;
      }
      return queue;
   }

   /* The filter's queue fields, read under the queue's lock. */
   static void QueueFields(VigilFilter *filter, u32 *portID, i64 *key) {
      zek_SpinlockLock(filterAgingQLock);
      *portID = filter->agingPortID;
      *key = filter->agingKey;
      zek_SpinlockUnlock(filterAgingQLock);
   }

   static u32 NumVmis(VigilFilter *filter) {
      VigilFilter *locked = Vigil_LockFilter(filter->portID, false);
      u32 n = locked->numVmis;
      Vigil_UnlockFilter(locked, false);
      return n;
   }

   /* At uptime second `now` every record with an expiry below it has ended
    * and every other one is still there; the queue holds exactly the ports
    * with something left, each under its earliest expiry. */
   void CheckPorts(const std::vector<PortModel> &ports, i64 now) {
      std::map<void *, i64> queue = Queue();
      size_t queued = 0;
      std::ostringstream problems;
      int numProblems = 0;
      auto problem = [&](const PortModel &port, const std::string &what) {
         if (numProblems++ < 8) {
            problems << "port " << std::hex << port.filter->portID << std::dec
                     << " at " << now << ": " << what << "\n";
         }
      };
      for (const PortModel &port : ports) {
         VigilFilter *filter = Vigil_LockFilter(port.filter->portID, false);
         u32 bindingsLeft = (u32)std::count_if(port.bindings.begin(), port.bindings.end(),
                                               [&](i64 e) { return e >= now; });
         u32 requestsLeft = (u32)std::count_if(port.requests.begin(), port.requests.end(),
                                               [&](i64 e) { return e >= now; });
         i64 earliest = VIGIL_AGING_KEY_NONE;
         for (i64 e : port.bindings) {
            if (e >= now) earliest = std::min(earliest, e);
         }
         for (i64 e : port.requests) {
            if (e >= now) earliest = std::min(earliest, e);
         }
         if (filter->numVmis != bindingsLeft) {
            problem(port, "bindings " + std::to_string(filter->numVmis) + ", want " +
                             std::to_string(bindingsLeft));
         }
         if (filter->numDhcpReqs != requestsLeft) {
            problem(port, "requests " + std::to_string(filter->numDhcpReqs) +
                             ", want " + std::to_string(requestsLeft));
         }
         VIGIL_LIST_FOR_EACH(pos, &filter->vmiList) {
            if (VIGIL_VMI_FROM_EXPIRY(pos)->expiryTs < now) {
               problem(port, "overdue binding");
            }
         }
         VIGIL_LIST_FOR_EACH(pos, &filter->dhcpReqList) {
            if (VIGIL_DHCP_REQ_FROM_LINKS(pos)->expiryTs < now) {
               problem(port, "overdue request");
            }
         }
         u32 agingPortID;
         i64 agingKey;
         QueueFields(filter, &agingPortID, &agingKey);
         Vigil_UnlockFilter(filter, false);

         auto it = queue.find(&filter->agingPortID);
         if (bindingsLeft + requestsLeft > 0) {
            queued++;
            if (it == queue.end()) {
               problem(port, "not queued");
            } else if (it->second != earliest) {
               problem(port, "queued under " + std::to_string(it->second) + ", want " +
                                std::to_string(earliest));
            }
            if (agingKey != earliest || agingPortID != filter->portID) {
               problem(port, "aging fields " + std::to_string(agingPortID) + "/" +
                                std::to_string(agingKey));
            }
         } else {
            if (it != queue.end()) {
               problem(port, "queued with nothing to expire");
            }
            if (agingKey != VIGIL_AGING_KEY_NONE || agingPortID != 0) {
               problem(port, "aging fields of an unqueued filter " +
                                std::to_string(agingPortID) + "/" +
                                std::to_string(agingKey));
            }
         }
      }
      EXPECT_EQ(queue.size(), queued) << "at " << now;
      EXPECT_EQ(numProblems, 0) << problems.str();
   }

   /* Records still held by all ports, read while the worlds are idle. */
   static size_t RecordsHeld(const std::vector<PortModel> &ports) {
      size_t held = 0;
      for (const PortModel &port : ports) {
         held += port.filter->numVmis + port.filter->numDhcpReqs;
      }
      return held;
   }

   static size_t RecordsDue(const std::vector<PortModel> &ports, i64 now) {
      size_t due = 0;
      for (const PortModel &port : ports) {
         for (i64 e : port.bindings) due += e >= now;
         for (i64 e : port.requests) due += e >= now;
      }
      return due;
   }

   /* Moves the clock from one expiry to the next: to just before the
    * second that follows it, where every record still counts, then onto
    * that second, where the records of that expiry have ended.  The world
    * wakes twice there (the timed wake, and the one its own changes of the
    * queue left pending) and never in between.  Every `checkEvery`-th
    * expiry and the last one the ports are looked at in full. */
   void RunClock(const std::vector<PortModel> &ports, size_t checkEvery) {
      std::set<i64> expiries;
      for (const PortModel &port : ports) {
         expiries.insert(port.bindings.begin(), port.bindings.end());
         expiries.insert(port.requests.begin(), port.requests.end());
      }
      u64 wakes = Wakes();
      size_t index = 0;
      for (i64 expiry : expiries) {
         index++;
         bool full = index % checkEvery == 0 || index == expiries.size();
         sim::Advance((double)(expiry - kStart) + 0.999 - (sim::Now() - (double)kStart));
         ASSERT_EQ(RecordsHeld(ports), RecordsDue(ports, expiry))
            << "just before second " << expiry + 1;
         if (full) {
            CheckPorts(ports, expiry);
         }
         ASSERT_EQ(Wakes(), wakes) << "the world woke before second " << expiry + 1;
         sim::Advance(0.001);
         ASSERT_EQ(RecordsHeld(ports), RecordsDue(ports, expiry + 1))
            << "at second " << expiry + 1;
         if (full) {
            CheckPorts(ports, expiry + 1);
         }
         ASSERT_EQ(Wakes(), wakes + 2) << "at second " << expiry + 1;
         wakes += 2;
      }
      sim::Advance(86400.0);
      EXPECT_EQ(Wakes(), wakes) << "nothing left to wake for";
      EXPECT_EQ(RecordsHeld(ports), 0u);
      EXPECT_EQ(sim::PriQContents(filterAgingQ).size(), 0u);
   }

   zek_WorldID worldID_ = 0;
   std::vector<VigilFilter *> filters_;
};

TEST_F(AgingWorldTest, EmptyQueueSleepsUntilWoken) {
   ASSERT_TRUE(sim::WaitIdle(5.0));
   u64 wakes = Wakes();
   sim::Advance(86400.0);
   EXPECT_EQ(Wakes(), wakes) << "no timed wait on an empty queue";
   zek_WorldWakeup(&agingWorldID);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(Wakes(), wakes + 1);
   sim::Advance(86400.0);
   EXPECT_EQ(Wakes(), wakes + 1);
   EXPECT_TRUE(sim::PriQContents(filterAgingQ).empty());
}

TEST_F(AgingWorldTest, LastRecordDeletedLeavesTheQueueAndTheWorldTurnsToTheNextFilter) {
   VigilFilter *first = MakeFilter(kPort);
   VigilFilter *second = MakeFilter(kOtherPort);
   VigilVmi *early = AddBinding(first, 1, VIGIL_DISC_DHCP, kStart + 100);
   AddBinding(second, 2, VIGIL_DISC_DHCP, kStart + 300);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   u64 wakes = Wakes();

   DelBinding(first, early);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(Wakes(), wakes + 1) << "deleting the last record wakes the world";
   u32 agingPortID;
   i64 agingKey;
   QueueFields(first, &agingPortID, &agingKey);
   EXPECT_EQ(agingPortID, 0u);
   EXPECT_EQ(agingKey, VIGIL_AGING_KEY_NONE);
   auto queue = sim::PriQContents(filterAgingQ);
   ASSERT_EQ(queue.size(), 1u);
   EXPECT_EQ(queue[0].first, kStart + 300);
   EXPECT_EQ(queue[0].second, &second->agingPortID);

   /* The first filter's time passes without a wake: the world now sleeps
    * for the second filter, until one second after its key. */
   sim::Advance(300.999);
   EXPECT_EQ(Wakes(), wakes + 1);
   EXPECT_EQ(NumVmis(second), 1u);
   sim::Advance(0.001);
   EXPECT_EQ(NumVmis(second), 0u);
   EXPECT_EQ(Wakes(), wakes + 3);
   EXPECT_TRUE(sim::PriQContents(filterAgingQ).empty());
}

TEST_F(AgingWorldTest, LastRecordDeletedWithNoOtherFilterLeavesTheWorldOnAnEmptyQueue) {
   VigilFilter *filter = MakeFilter(kPort);
   VigilVmi *vmi = AddBinding(filter, 1, VIGIL_DISC_ARP, kStart + 100);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   u64 wakes = Wakes();
   DelBinding(filter, vmi);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(Wakes(), wakes + 1);
   EXPECT_TRUE(sim::PriQContents(filterAgingQ).empty());
   sim::Advance(86400.0);
   EXPECT_EQ(Wakes(), wakes + 1) << "an empty queue is waited on without a time";
}

TEST_F(AgingWorldTest, EarlierRecordRekeysTheFilterAndShortensTheWait) {
   VigilFilter *filter = MakeFilter(kPort);
   AddBinding(filter, 1, VIGIL_DISC_DHCP, kStart + 500);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   u64 wakes = Wakes();

   AddBinding(filter, 2, VIGIL_DISC_ARP, kStart + 100);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(Wakes(), wakes + 1) << "the rekey wakes the world";
   auto queue = sim::PriQContents(filterAgingQ);
   ASSERT_EQ(queue.size(), 1u);
   EXPECT_EQ(queue[0].first, kStart + 100);
   EXPECT_EQ(queue[0].second, &filter->agingPortID);

   sim::Advance(100.999);
   EXPECT_EQ(NumVmis(filter), 2u);
   EXPECT_EQ(Wakes(), wakes + 1);
   sim::Advance(0.001);
   EXPECT_EQ(NumVmis(filter), 1u) << "the earlier binding ends one second after its time";
   EXPECT_EQ(Wakes(), wakes + 3);
   queue = sim::PriQContents(filterAgingQ);
   ASSERT_EQ(queue.size(), 1u);
   EXPECT_EQ(queue[0].first, kStart + 500);

   sim::Advance(399.999);
   EXPECT_EQ(NumVmis(filter), 1u);
   EXPECT_EQ(Wakes(), wakes + 3);
   sim::Advance(0.001);
   EXPECT_EQ(NumVmis(filter), 0u);
   EXPECT_TRUE(sim::PriQContents(filterAgingQ).empty());
}

TEST_F(AgingWorldTest, KeyEqualToNowExpiresNothingAndTheWorldSleepsUntilTheSecondPasses) {
   VigilFilter *filter = MakeFilter(kPort);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   u64 wakes = Wakes();
   u64 writes = sim::GetLockCounts(filter->configLock).writes;

   AddBinding(filter, 1, VIGIL_DISC_DHCP, kStart); /* due now, ends after now */
   ASSERT_TRUE(sim::WaitIdle(5.0)) << "the world sleeps instead of looping";
   /* The add, then one pass of the world that ended nothing. */
   EXPECT_EQ(sim::GetLockCounts(filter->configLock).writes, writes + 2);
   EXPECT_EQ(Wakes(), wakes + 1) << "woken by the insert";
   EXPECT_EQ(NumVmis(filter), 1u);
   auto queue = sim::PriQContents(filterAgingQ);
   ASSERT_EQ(queue.size(), 1u);
   EXPECT_EQ(queue[0].first, kStart) << "the key is unchanged";

   sim::SetTime((double)kStart + 0.9);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(NumVmis(filter), 1u) << "still within its last second";
   sim::SetTime((double)kStart + 1.0);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(NumVmis(filter), 0u);
   EXPECT_TRUE(sim::PriQContents(filterAgingQ).empty());
}

TEST_F(AgingWorldTest, StaticBindingGivesNoKeySoTheWorldRestsAndOtherPortsAge) {
   VigilFilter *filter = MakeFilter(kPort);
   VigilFilter *other = MakeFilter(kOtherPort);
   ASSERT_TRUE(sim::WaitIdle(5.0));

   VigilVmi *vmi = AddBinding(filter, 1, VIGIL_DISC_STATIC, 0);
   AddBinding(filter, 2, VIGIL_DISC_DHCP, kStart + 5);
   AddBinding(other, 3, VIGIL_DISC_DHCP, kStart + 2);
   ASSERT_TRUE(sim::WaitIdle(5.0)) << "nothing keeps the world busy";
   u32 agingPortID;
   i64 key;
   QueueFields(filter, &agingPortID, &key);
   EXPECT_EQ(agingPortID, 0u) << "the static binding stops its IPv4 walk";
   EXPECT_EQ(key, VIGIL_AGING_KEY_NONE);
   EXPECT_EQ(Queue(), (std::map<void *, i64>{{&other->agingPortID, kStart + 2}}));

   /* A pending request is aged all the same. */
   AddRequest(filter, 4, kStart + 4);
   EXPECT_EQ(Queue(), (std::map<void *, i64>{{&other->agingPortID, kStart + 2},
                                            {&filter->agingPortID, kStart + 4}}));
   sim::SetTime((double)kStart + 6.0);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(NumVmis(other), 0u) << "the other port aged on time";
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(NumVmis(filter), 2u) << "the walk still stops at the static binding";
   EXPECT_TRUE(Queue().empty());

   /* Without the static binding the next record is the candidate: due
    * already, it ends at once. */
   u64 wakes = Wakes();
   DelBinding(filter, vmi);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_GT(Wakes(), wakes) << "the world was woken";
   EXPECT_EQ(NumVmis(filter), 0u);
   EXPECT_TRUE(Queue().empty());
}

TEST_F(AgingWorldTest, FarKeyGivesAWaitCappedAtOneHourNeverZero) {
   VigilFilter *filter = MakeFilter(kPort);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   u64 wakes = Wakes();
   /* 536870912 seconds are 2^32 milliseconds times 125: in 32 bits the
    * wait would come out as 0. */
   AddBinding(filter, 1, VIGIL_DISC_DHCP, kStart + 536870911);
   ASSERT_TRUE(sim::WaitIdle(5.0)) << "the world sleeps";
   EXPECT_EQ(Wakes(), wakes + 1) << "woken by the insert";
   sim::SetTime((double)kStart + 3599.5);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(Wakes(), wakes + 1);
   sim::SetTime((double)kStart + 3600.0);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(Wakes(), wakes + 2) << "it looks again after the hour";
   EXPECT_EQ(NumVmis(filter), 1u);
   EXPECT_EQ(sim::PriQContents(filterAgingQ).size(), 1u);
}

TEST_F(AgingWorldTest, PortBeingDestroyedWhileDueDelaysTheWorldByHalfASecondAtATime) {
   VigilFilter *filter = MakeFilter(kPort);
   AddBinding(filter, 1, VIGIL_DISC_DHCP, kStart + 10);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   sim::TakeLogs();
   u64 wakes = Wakes();

   /* The port's filter is on its way out: the slot is already empty, the
    * queue entry not yet gone. */
   ASSERT_EQ(oxa_PortVoltaliteDataUnset(kPort, VIGIL_FILTER_SLOT), ZEK_OK);
   const std::string busy = "Error locking PS and Filter or is being destroyed: 0x10";
   auto busyLines = [&] {
      std::vector<std::string> texts;
      for (const sim::LogLine &line : sim::TakeLogs()) {
         if (line.func != "VigilCPWorld") {
            texts.push_back(line.text);
            EXPECT_EQ(line.level, 1) << line.text;
         }
      }
      return texts;
   };

   sim::Advance(11.0);
   EXPECT_EQ(Wakes(), wakes + 1);
   EXPECT_EQ(busyLines(), std::vector<std::string>{busy});
   for (int retry = 1; retry <= 3; retry++) {
      sim::Advance(0.499);
      EXPECT_EQ(Wakes(), wakes + retry) << "no wake before half a second, retry " << retry;
      EXPECT_TRUE(busyLines().empty());
      sim::Advance(0.001);
      EXPECT_EQ(Wakes(), wakes + retry + 1) << "retry " << retry;
      EXPECT_EQ(busyLines(), std::vector<std::string>{busy});
   }

   /* The destruction takes the filter out of the queue; the next look
    * finds nothing and the world sleeps for good. */
   VigilRemoveFilterAging(filter);
   sim::Advance(0.5);
   EXPECT_EQ(Wakes(), wakes + 5);
   EXPECT_TRUE(busyLines().empty());
   sim::Advance(86400.0);
   EXPECT_EQ(Wakes(), wakes + 5);

   ASSERT_EQ(oxa_PortVoltaliteDataSet(kPort, VIGIL_FILTER_SLOT, filter, nullptr), ZEK_OK);
}

TEST_F(AgingWorldTest, BindingsAndRequestsOfSixtyFourPortsEndInThePassAfterTheirTime) {
   std::mt19937 random(6401);
   std::uniform_int_distribution<int> step(1, 60);
   std::uniform_int_distribution<int> count(1, 4);
   std::vector<PortModel> ports;
   u32 n = 0;
   /* Expiries on even seconds: the world wakes on odd ones, so no key is
    * ever equal to the second of a pass. */
   auto expiry = [&] {
      return kStart + 2 * step(random);
   };
   for (u32 i = 0; i < 64; i++) {
      PortModel port;
      port.filter = MakeFilter(0x100 + i);
      for (int b = count(random); b > 0; b--) {
         i64 e = expiry();
         u8 method = (n % 2) ? VIGIL_DISC_ARP : VIGIL_DISC_DHCP;
         AddBinding(port.filter, ++n, method, e);
         port.bindings.push_back(e);
      }
      for (int r = count(random) - 1; r > 0; r--) {
         i64 e = expiry();
         AddRequest(port.filter, ++n, e);
         port.requests.push_back(e);
      }
      ports.push_back(port);
   }
   ASSERT_TRUE(sim::WaitIdle(5.0));
   sim::TakePortsetMessages();
   CheckPorts(ports, kStart);

   RunClock(ports, 1);
   for (const PortModel &port : ports) {
      EXPECT_EQ(NumVmis(port.filter), 0u);
   }
   size_t bindings = 0;
   for (const PortModel &port : ports) {
      bindings += port.bindings.size();
   }
   EXPECT_EQ(sim::TakePortsetMessages().size(), bindings)
      << "one removal message for every binding";
}

/* Every port of a full queue, each with a binding hash of its own: the
 * module heap is made big enough for them. */
class AgingWorldFullQueueTest : public AgingWorldTest {
protected:
   void SetUp() override {
      AgingWorldTest::SetUp();
      ASSERT_EQ(sim::GetHeapStats(heapID).allocations, 0u);
      zek_HeapDestroy(heapID);
      zek_HeapProps props = {};
      zek_NameInitialize(&props.name, "vigil");
      props.module = moduleID;
      props.minSize = 4096;
      props.maxSize = 512u << 20;
      ASSERT_EQ(zek_HeapCreate(&props, &heapID), ZEK_OK);
   }
};

TEST_F(AgingWorldFullQueueTest, FiveThousandOneHundredTwentyPortsAllEndOnTime) {
   std::mt19937 random(5120);
   std::uniform_int_distribution<int> step(1, 30);
   std::vector<PortModel> ports;
   ports.reserve(VIGIL_AGING_Q_CAPACITY);
   auto expiry = [&] {
      return kStart + 2 * step(random);
   };
   u32 n = 0;
   for (u32 i = 0; i < VIGIL_AGING_Q_CAPACITY; i++) {
      PortModel port;
      port.filter = MakeFilter(0x1000 + i);
      i64 dhcp = expiry(), arp = expiry(), req = expiry();
      AddBinding(port.filter, ++n, VIGIL_DISC_DHCP, dhcp);
      AddBinding(port.filter, ++n, VIGIL_DISC_ARP, arp);
      AddRequest(port.filter, ++n, req);
      port.bindings = {dhcp, arp};
      port.requests = {req};
      ports.push_back(port);
      if (i % 100 == 99) {
         /* Let the control-plane world deliver before its queue fills. */
         ASSERT_TRUE(sim::WaitIdle(5.0));
      }
   }
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(sim::TakePortsetMessages().size(), 2u * VIGIL_AGING_Q_CAPACITY);
   CheckPorts(ports, kStart);
   EXPECT_EQ(sim::PriQContents(filterAgingQ).size(), (size_t)VIGIL_AGING_Q_CAPACITY);

   RunClock(ports, 10);
   EXPECT_EQ(sim::TakePortsetMessages().size(), 2u * VIGIL_AGING_Q_CAPACITY);
   std::vector<std::string> lost;
   for (const std::string &text : LogTexts()) {
      if (text.find("Could not post") != std::string::npos) lost.push_back(text);
   }
   EXPECT_TRUE(lost.empty()) << lost.size() << " messages lost";
}

TEST_F(AgingWorldFullQueueTest, FilterThatFoundTheQueueFullIsQueuedAtItsNextChange) {
   std::vector<VigilFilter *> full;
   u32 n = 0;
   for (u32 i = 0; i < VIGIL_AGING_Q_CAPACITY; i++) {
      full.push_back(MakeFilter(0x1000 + i));
      AddBinding(full.back(), ++n, VIGIL_DISC_DHCP, kStart + 100);
      if (i % 100 == 99) {
         ASSERT_TRUE(sim::WaitIdle(5.0));
      }
   }
   VigilFilter *late = MakeFilter(0x1000 + VIGIL_AGING_Q_CAPACITY);
   AddBinding(late, ++n, VIGIL_DISC_DHCP, kStart + 10);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   u32 agingPortID;
   i64 key;
   QueueFields(late, &agingPortID, &key);
   EXPECT_EQ(agingPortID, 0u) << "the 5121st filter did not fit";
   EXPECT_EQ(key, VIGIL_AGING_KEY_NONE);

   /* Room is made, and the late filter's next change queues it. */
   DelBinding(full[0], VIGIL_VMI_FROM_EXPIRY(full[0]->vmiList.next));
   AddBinding(late, ++n, VIGIL_DISC_DHCP, kStart + 20);
   QueueFields(late, &agingPortID, &key);
   EXPECT_EQ(agingPortID, late->portID);
   EXPECT_EQ(key, kStart + 10) << "keyed by its earliest binding";
   EXPECT_EQ(sim::PriQContents(filterAgingQ).size(), (size_t)VIGIL_AGING_Q_CAPACITY);
   sim::TakePortsetMessages();

   sim::SetTime((double)kStart + 11.0);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(NumVmis(late), 1u) << "the first binding ended on time";
   sim::SetTime((double)kStart + 21.0);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   EXPECT_EQ(NumVmis(late), 0u);
   sim::SetTime((double)kStart + 101.0);
   ASSERT_TRUE(sim::WaitIdle(10.0));
   u32 left = 0;
   for (VigilFilter *filter : full) {
      left += NumVmis(filter);
   }
   EXPECT_EQ(left, 0u) << "every other binding ended on time";
   EXPECT_TRUE(sim::PriQContents(filterAgingQ).empty());
   /* 5120 removals in one pass overflow the control-plane world's queue of
    * 512 tasks: the messages are not counted here. */
   sim::TakePortsetMessages();
}

using LogList = std::vector<std::pair<int, std::string>>;

/* Start and stop of the world, with the fixture's world out of the way. */
class AgingWorldInitTest : public VigilTest {
protected:
   void SetUp() override {
      VigilTest::SetUp();
      ASSERT_EQ(VigilAgingWorldDestroy(), ZEK_OK);
      ASSERT_EQ(filterAgingQ, nullptr);
      ASSERT_EQ(filterAgingQLock, VIGIL_NO_LOCK);
      locks_ = sim::LiveLocks();
      sim::TakeLogs();
   }
   void TearDown() override {
      sim::FaultClear();
      VigilTest::TearDown();
   }

   LogList TakeLines() {
      LogList lines;
      for (const sim::LogLine &line : TakeModuleLogs()) {
         lines.emplace_back(line.level, line.text);
      }
      return lines;
   }

   u32 locks_ = 0;
};

TEST_F(AgingWorldInitTest, InitCreatesTheQueueTheRankFourLockAndTheWorld) {
   u32 worlds = sim::LiveWorlds();
   ASSERT_EQ(VigilAgingWorldInit(), ZEK_OK);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   LogList init, world;
   for (const sim::LogLine &line : sim::TakeLogs()) {
      (line.func == "VigilAgingWorld" ? world : init).emplace_back(line.level, line.text);
   }
   EXPECT_EQ((LogList{{1, "Aginglock created"}}), init);
   EXPECT_EQ((LogList{{1, "Aging World is Started"}}), world);
   EXPECT_NE(filterAgingQ, nullptr);
   EXPECT_EQ(sim::LockName(filterAgingQLock), "vigil.agingQ");
   EXPECT_NE(VigilAtomicLoad(&agingWorldID), 0u);
   EXPECT_EQ(sim::LiveWorlds(), worlds + 1);
   EXPECT_EQ(VigilAtomicLoad(&exitAgingWorld), 0);

   EXPECT_EQ(VigilAgingWorldDestroy(), ZEK_OK);
   EXPECT_EQ(VigilAtomicLoad(&agingWorldID), 0u);
   EXPECT_EQ(VigilAtomicLoad(&exitAgingWorld), 1);
   EXPECT_EQ(sim::LiveWorlds(), worlds);
   EXPECT_EQ(filterAgingQ, nullptr);
   EXPECT_EQ(filterAgingQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(sim::LiveLocks(), locks_);
   world.clear();
   for (const sim::LogLine &line : sim::TakeLogs()) {
      if (line.func == "VigilAgingWorld") world.emplace_back(line.level, line.text);
   }
   EXPECT_EQ((LogList{{1, "Exiting Aging World"}}), world);
}

TEST_F(AgingWorldInitTest, QueueCreationFailureIsLoggedAndReturned) {
   u32 queues = sim::LivePriQs();
   sim::FaultCall("PriQCreate", VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ(VigilAgingWorldInit(), VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ((LogList{{2, "Failed to create PriQ (0xbad0014): Out of memory"}}), TakeLines());
   EXPECT_EQ(filterAgingQ, nullptr);
   EXPECT_EQ(filterAgingQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(VigilAtomicLoad(&agingWorldID), 0u);
   EXPECT_EQ(sim::LivePriQs(), queues);
   EXPECT_EQ(VigilAgingWorldDestroy(), ZEK_OK);
   EXPECT_TRUE(TakeLines().empty());
}

TEST_F(AgingWorldInitTest, LockCreationFailureIsLoggedAndDestroyRemovesTheQueue) {
   u32 queues = sim::LivePriQs();
   sim::FaultCall("SpinlockCreate", VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ(VigilAgingWorldInit(), VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ((LogList{{2, "Could not allocate agingQ lock, status: Out of memory"}}), TakeLines());
   EXPECT_NE(filterAgingQ, nullptr);
   EXPECT_EQ(sim::LivePriQs(), queues + 1);
   EXPECT_EQ(filterAgingQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(VigilAtomicLoad(&agingWorldID), 0u);

   EXPECT_EQ(VigilAgingWorldDestroy(), ZEK_OK);
   EXPECT_EQ(filterAgingQ, nullptr);
   EXPECT_EQ(sim::LivePriQs(), queues);
   EXPECT_EQ(sim::LiveLocks(), locks_);
   EXPECT_TRUE(TakeLines().empty());
}

TEST_F(AgingWorldInitTest, WorldCreationFailureIsLoggedAndDestroyRemovesLockAndQueue) {
   u32 queues = sim::LivePriQs();
   u32 worlds = sim::LiveWorlds();
   sim::FaultCall("WorldCreate", VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ(VigilAgingWorldInit(), VIGIL_STATUS_NO_MEMORY);
   EXPECT_EQ((LogList{{1, "Aginglock created"},
                    {2, "Failed to create aging world: Out of memory"}}),
             TakeLines());
   EXPECT_NE(filterAgingQ, nullptr);
   EXPECT_NE(filterAgingQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(sim::LiveLocks(), locks_ + 1);
   EXPECT_EQ(VigilAtomicLoad(&agingWorldID), 0u);
   EXPECT_EQ(sim::LiveWorlds(), worlds);

   EXPECT_EQ(VigilAgingWorldDestroy(), ZEK_OK);
   EXPECT_EQ(filterAgingQ, nullptr);
   EXPECT_EQ(filterAgingQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(sim::LivePriQs(), queues);
   EXPECT_EQ(sim::LiveLocks(), locks_);
   EXPECT_TRUE(TakeLines().empty());
}

TEST_F(AgingWorldInitTest, QueueDestroyFailureIsLoggedAndKeepsTheHandle) {
   ASSERT_EQ(VigilAgingWorldInit(), ZEK_OK);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   TakeLines();
   zek_PriQHandle queue = filterAgingQ;
   sim::FaultCall("PriQDestroy", VIGIL_STATUS_FAILURE);
   EXPECT_EQ(VigilAgingWorldDestroy(), VIGIL_STATUS_FAILURE);
   EXPECT_EQ((LogList{{1, "Error destroying PriQ (0x2bad0000): Failure"}}), TakeLines());
   EXPECT_EQ(filterAgingQ, queue);
   EXPECT_EQ(filterAgingQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(VigilAtomicLoad(&agingWorldID), 0u);
   EXPECT_EQ(VigilAgingWorldDestroy(), ZEK_OK);
   EXPECT_EQ(filterAgingQ, nullptr);
}

TEST_F(AgingWorldInitTest, QueueThatCannotBeDestroyedIsLoggedByTheCommonCleanupWhichGoesOn) {
   u32 queues = sim::LivePriQs();
   ASSERT_EQ(VigilAgingWorldInit(), ZEK_OK);
   ASSERT_TRUE(sim::WaitIdle(5.0));
   TakeLines();
   zek_PriQHandle queue = filterAgingQ;
   sim::FaultCall("PriQDestroy", VIGIL_STATUS_FAILURE);
   VigilGenericCleanup();
   EXPECT_EQ((LogList{{1, "Starting VigilGenericCleanup"},
                    {1, "Error destroying PriQ (0x2bad0000): Failure"},
                    {2, "Error destroying Aging World"}}),
             TakeLines());
   EXPECT_EQ(VigilAtomicLoad(&agingWorldID), 0u);
   EXPECT_EQ(VigilAtomicLoad(&cpWorldID), 0u);
   EXPECT_EQ(sim::LiveWorlds(), 0u);
   EXPECT_EQ(filterAgingQ, queue);
   EXPECT_EQ(sim::LivePriQs(), queues + 1);
   EXPECT_EQ(filterAgingQLock, VIGIL_NO_LOCK);
   EXPECT_EQ(taskQLock, VIGIL_NO_LOCK) << "the control-plane world went first";
   EXPECT_EQ(lockDomain, VIGIL_INVALID_LOCK_DOMAIN);
   EXPECT_EQ(logHandle, nullptr);
   EXPECT_FALSE(sim::LogHandleExists("vigil"));
   EXPECT_EQ(heapID, nullptr);

   EXPECT_EQ(VigilAgingWorldDestroy(), ZEK_OK);
   EXPECT_EQ(filterAgingQ, nullptr);
   EXPECT_EQ(sim::LivePriQs(), queues);
   RecreateHeapLogAndLockDomain();
}
