/*
 * Tests of the simulated host's priority queues: key order, ties in
 * insertion order, rekey, extract, capacity, the empty queue and handles.
 */
#include "sim_test_fixture.h"

namespace {

constexpr zek_Status kNotFound = 0xbad0003;
constexpr zek_Status kExists = 0xbad0005;
constexpr zek_Status kLimit = 0xbad0006;

class SimPriQ : public simtest::SimFixture {
 protected:
   zek_PriQHandle Make(uint32_t capacity) {
      zek_PriQHandle queue = nullptr;
      EXPECT_EQ(zek_PriQCreate(1, nullptr, 0, capacity, &queue), ZEK_OK);
      EXPECT_NE(queue, nullptr);
      return queue;
   }
   uint32_t Used(zek_PriQHandle queue) {
      uint32_t count = 0xffffffff;
      EXPECT_EQ(zek_PriQUsedElems(queue, &count), ZEK_OK);
      return count;
   }
   int items_[8] = {};
   void *E(int i) { return &items_[i]; }
};

using Contents = std::vector<std::pair<int64_t, void *>>;

TEST_F(SimPriQ, LowestKeyComesFirst) {
   zek_PriQHandle q = Make(16);
   EXPECT_EQ(zek_PriQInsert(q, 30, E(0)), ZEK_OK);
   EXPECT_EQ(zek_PriQInsert(q, -5, E(1)), ZEK_OK);
   EXPECT_EQ(zek_PriQInsert(q, 12, E(2)), ZEK_OK);
   EXPECT_EQ(Used(q), 3u);
   EXPECT_EQ(sim::PriQContents(q), (Contents{{-5, E(1)}, {12, E(2)}, {30, E(0)}}));

   int64_t key = 0;
   void *elem = nullptr;
   ASSERT_EQ(zek_PriQFirst(q, &key, &elem), ZEK_OK);
   EXPECT_EQ(key, -5);
   EXPECT_EQ(elem, E(1));
   /* First does not remove. */
   EXPECT_EQ(Used(q), 3u);

   void *out = nullptr;
   EXPECT_EQ(zek_PriQExtract(q, E(1), &out), ZEK_OK);
   EXPECT_EQ(out, E(1));
   ASSERT_EQ(zek_PriQFirst(q, &key, &elem), ZEK_OK);
   EXPECT_EQ(key, 12);
   EXPECT_EQ(elem, E(2));
   EXPECT_EQ(zek_PriQDestroy(q), ZEK_OK);
}

TEST_F(SimPriQ, EqualKeysLeaveInInsertionOrder) {
   zek_PriQHandle q = Make(16);
   EXPECT_EQ(zek_PriQInsert(q, 7, E(3)), ZEK_OK);
   EXPECT_EQ(zek_PriQInsert(q, 7, E(1)), ZEK_OK);
   EXPECT_EQ(zek_PriQInsert(q, 3, E(0)), ZEK_OK);
   EXPECT_EQ(zek_PriQInsert(q, 7, E(2)), ZEK_OK);
   EXPECT_EQ(sim::PriQContents(q),
             (Contents{{3, E(0)}, {7, E(3)}, {7, E(1)}, {7, E(2)}}));
   EXPECT_EQ(zek_PriQDestroy(q), ZEK_OK);
}

TEST_F(SimPriQ, RekeyMovesAnElementAndQueuesItBehindEqualKeys) {
   zek_PriQHandle q = Make(16);
   EXPECT_EQ(zek_PriQInsert(q, 10, E(0)), ZEK_OK);
   EXPECT_EQ(zek_PriQInsert(q, 20, E(1)), ZEK_OK);
   EXPECT_EQ(zek_PriQInsert(q, 30, E(2)), ZEK_OK);
   EXPECT_EQ(zek_PriQRekey(q, E(0), 25), ZEK_OK);
   EXPECT_EQ(sim::PriQContents(q), (Contents{{20, E(1)}, {25, E(0)}, {30, E(2)}}));
   EXPECT_EQ(zek_PriQRekey(q, E(2), 20), ZEK_OK);
   EXPECT_EQ(sim::PriQContents(q), (Contents{{20, E(1)}, {20, E(2)}, {25, E(0)}}));
   EXPECT_EQ(zek_PriQRekey(q, E(5), 1), kNotFound);
   EXPECT_EQ(Used(q), 3u);
   EXPECT_EQ(zek_PriQDestroy(q), ZEK_OK);
}

TEST_F(SimPriQ, ExtractOfAnElementNotQueuedIsNotFound) {
   zek_PriQHandle q = Make(4);
   EXPECT_EQ(zek_PriQInsert(q, 1, E(0)), ZEK_OK);
   void *out = E(7);
   EXPECT_EQ(zek_PriQExtract(q, E(1), &out), kNotFound);
   EXPECT_EQ(zek_PriQExtract(q, E(1), nullptr), kNotFound);
   EXPECT_EQ(zek_PriQExtract(q, E(0), nullptr), ZEK_OK);
   EXPECT_EQ(zek_PriQExtract(q, E(0), &out), kNotFound);
   EXPECT_EQ(Used(q), 0u);
   EXPECT_EQ(zek_PriQDestroy(q), ZEK_OK);
}

TEST_F(SimPriQ, InsertBeyondCapacityOrTwiceFails) {
   zek_PriQHandle q = Make(2);
   EXPECT_EQ(zek_PriQInsert(q, 1, E(0)), ZEK_OK);
   EXPECT_EQ(zek_PriQInsert(q, 1, E(0)), kExists);
   EXPECT_EQ(zek_PriQInsert(q, 2, E(1)), ZEK_OK);
   EXPECT_EQ(zek_PriQInsert(q, 3, E(2)), kLimit);
   EXPECT_EQ(Used(q), 2u);
   /* Room again once one leaves. */
   EXPECT_EQ(zek_PriQExtract(q, E(0), nullptr), ZEK_OK);
   EXPECT_EQ(zek_PriQInsert(q, 3, E(2)), ZEK_OK);
   EXPECT_EQ(sim::PriQContents(q), (Contents{{2, E(1)}, {3, E(2)}}));
   EXPECT_EQ(zek_PriQDestroy(q), ZEK_OK);
}

TEST_F(SimPriQ, FirstOfAnEmptyQueueIsNotFound) {
   zek_PriQHandle q = Make(4);
   int64_t key = 99;
   void *elem = E(0);
   EXPECT_EQ(zek_PriQFirst(q, &key, &elem), kNotFound);
   EXPECT_EQ(key, 99);
   EXPECT_EQ(elem, E(0));
   EXPECT_EQ(Used(q), 0u);
   EXPECT_EQ(zek_PriQDestroy(q), ZEK_OK);
}

TEST_F(SimPriQ, LiveQueuesAreCountedAndResetForgetsThem) {
   EXPECT_EQ(sim::LivePriQs(), 0u);
   zek_PriQHandle a = Make(4);
   Make(4);
   EXPECT_EQ(sim::LivePriQs(), 2u);
   EXPECT_EQ(zek_PriQDestroy(a), ZEK_OK);
   EXPECT_EQ(sim::LivePriQs(), 1u);
   sim::Reset();
   EXPECT_EQ(sim::LivePriQs(), 0u);
}

TEST_F(SimPriQ, CreateFaultAndBadHandles) {
   sim::FaultCall("PriQCreate", 0xbad0014);
   zek_PriQHandle q = nullptr;
   EXPECT_EQ(zek_PriQCreate(1, nullptr, 0, 4, &q), 0xbad0014u);
   EXPECT_EQ(q, nullptr);
   EXPECT_EQ(sim::LivePriQs(), 0u);

   zek_PriQHandle a = Make(4);
   EXPECT_EQ(zek_PriQDestroy(a), ZEK_OK);
   EXPECT_NE(zek_PriQDestroy(a), ZEK_OK);
   std::vector<std::string> failures = simtest::TakeFailures();
   ASSERT_EQ(failures.size(), 1u);
   EXPECT_NE(failures[0].find("unknown priority queue"), std::string::npos);
}

TEST_F(SimPriQ, ManyElementsComeOutSorted) {
   constexpr int kCount = 5000;
   std::vector<int> cells(kCount);
   zek_PriQHandle q = Make(kCount);
   for (int i = 0; i < kCount; i++) {
      ASSERT_EQ(zek_PriQInsert(q, (i * 7919) % kCount, &cells[i]), ZEK_OK);
   }
   int64_t last = -1;
   for (int i = 0; i < kCount; i++) {
      int64_t key;
      void *elem;
      ASSERT_EQ(zek_PriQFirst(q, &key, &elem), ZEK_OK);
      EXPECT_GT(key, last);
      last = key;
      ASSERT_EQ(zek_PriQExtract(q, elem, nullptr), ZEK_OK);
   }
   EXPECT_EQ(Used(q), 0u);
   EXPECT_EQ(zek_PriQDestroy(q), ZEK_OK);
}

} // namespace
