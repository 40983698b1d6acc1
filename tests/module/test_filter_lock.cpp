/*
 * Finding a port's filter and locking it.
 */
#include "vigil_test.h"

class FilterLockTest : public VigilTest {};

TEST_F(FilterLockTest, PortWithoutFilterGivesNullAndHoldsNoLock) {
   ASSERT_TRUE(sim::AddPort("vs0", 0x20));
   EXPECT_EQ(Vigil_GetPortFilter(0x20), nullptr);
   EXPECT_EQ(Vigil_LockFilter(0x20, false), nullptr);
   EXPECT_EQ(Vigil_LockFilter(0x20, true), nullptr);
   EXPECT_EQ(Vigil_LockPortAndFilter(0x20, true), nullptr);
   EXPECT_EQ(sim::LocksHeldByThread(), 0u);
}

TEST_F(FilterLockTest, UnknownPortGivesNull) {
   EXPECT_EQ(Vigil_GetPortFilter(0x99), nullptr);
   EXPECT_EQ(Vigil_LockFilter(0x99, false), nullptr);
}

TEST_F(FilterLockTest, FailedSlotReadGivesNull) {
   VigilFilter *filter = AddFilter(0x21);
   sim::FaultCall("PortVoltaliteDataGet", VIGIL_STATUS_FAILURE);
   EXPECT_EQ(Vigil_LockFilter(0x21, false), nullptr);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::None);
   EXPECT_EQ(Vigil_GetPortFilter(0x21), filter);
}

TEST_F(FilterLockTest, LockPsPortAndFilterWithoutFilterReleasesThePortset) {
   ASSERT_TRUE(sim::AddPort("vs0", 0x22));
   zek_PortsetHandle ps = (zek_PortsetHandle)0x1;
   EXPECT_EQ(Vigil_LockPsPortAndFilter(0x22, true, &ps), nullptr);
   EXPECT_EQ(ps, nullptr);
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
   EXPECT_EQ(sim::LocksHeldByThread(), 0u);
}

TEST_F(FilterLockTest, LockPsPortAndFilterWhosePortsetCannotBeAcquiredClearsTheHandle) {
   AddFilter(0x23);
   sim::FaultCall("PortsetAcquireByPortID", VIGIL_STATUS_NOT_FOUND);
   zek_PortsetHandle ps = (zek_PortsetHandle)0x1;
   EXPECT_EQ(Vigil_LockPsPortAndFilter(0x23, false, &ps), nullptr);
   EXPECT_EQ(ps, nullptr);
   EXPECT_EQ(sim::LocksHeldByThread(), 0u);
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
}

TEST_F(FilterLockTest, LockPsPortAndFilterHoldsPortsetAndFilterUntilUnlock) {
   VigilFilter *filter = AddFilter(0x24);
   zek_PortsetHandle ps = nullptr;
   EXPECT_EQ(Vigil_LockPsPortAndFilter(0x24, true, &ps), filter);
   EXPECT_NE(ps, nullptr);
   EXPECT_EQ(sim::PortsetsAcquired(), 1u);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::Write);
   EXPECT_EQ(filter->configWriteHeld, 1);
   EXPECT_EQ(Vigil_UnlockPsPortFilter(filter, true, ps), ZEK_OK);
   EXPECT_EQ(filter->configWriteHeld, 0);
   EXPECT_EQ(sim::PortsetsAcquired(), 0u);
   EXPECT_EQ(sim::LocksHeldByThread(), 0u);
}

TEST_F(FilterLockTest, WriteLockSetsAndWriteUnlockClearsConfigWriteHeld) {
   VigilFilter *filter = AddFilter(0x25);
   EXPECT_EQ(Vigil_LockFilter(0x25, true), filter);
   EXPECT_EQ(filter->configWriteHeld, 1);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::Write);
   Vigil_UnlockFilter(filter, true);
   EXPECT_EQ(filter->configWriteHeld, 0);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::None);
}

TEST_F(FilterLockTest, ReadUnlockLeavesConfigWriteHeldAlone) {
   VigilFilter *filter = AddFilter(0x26);
   EXPECT_EQ(Vigil_LockPortAndFilter(0x26, false), filter);
   EXPECT_EQ(filter->configWriteHeld, 0);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::Read);
   /* Only the write path touches the flag: a stale value survives a read
    * unlock untouched. */
   filter->configWriteHeld = 7;
   Vigil_UnlockPortAndFilter(filter, false);
   EXPECT_EQ(filter->configWriteHeld, 7);
   filter->configWriteHeld = 0;
}

TEST_F(FilterLockTest, RelockForWriteLooksTheFilterUpAgainThroughThePort) {
   VigilFilter *filter = AddFilter(0x27);
   ASSERT_EQ(Vigil_LockFilter(0x27, false), filter);
   EXPECT_EQ(Vigil_RelockFilterForWrite(filter), filter);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::Write);
   EXPECT_EQ(filter->configWriteHeld, 1);
   sim::LockCounts counts = sim::GetLockCounts(filter->configLock);
   EXPECT_EQ(counts.reads, 1u);
   EXPECT_EQ(counts.writes, 1u);
   Vigil_UnlockFilter(filter, true);
}

TEST_F(FilterLockTest, RelockForWriteOfAFilterGoneFromItsPortGivesNullAndHoldsNothing) {
   VigilFilter *filter = AddFilter(0x28);
   ASSERT_EQ(Vigil_LockFilter(0x28, false), filter);
   oxa_PortVoltaliteDataUnset(0x28, VIGIL_FILTER_SLOT);
   EXPECT_EQ(Vigil_RelockFilterForWrite(filter), nullptr);
   EXPECT_EQ(sim::LockHeldBy(filter->configLock), sim::LockMode::None);
   /* Put it back so that the fixture frees it. */
   oxa_PortVoltaliteDataSet(0x28, VIGIL_FILTER_SLOT, filter, nullptr);
}

TEST_F(FilterLockTest, AssertFilterIsLockedAcceptsTheWriteHolderAndReadHolders) {
   VigilFilter *filter = AddFilter(0x29);
   Vigil_LockFilter(0x29, true);
   Vigil_AssertFilterIsLocked(filter, true);
   Vigil_AssertFilterIsLocked(filter, false);
   Vigil_UnlockFilter(filter, true);
   Vigil_LockFilter(0x29, false);
   Vigil_AssertFilterIsLocked(filter, false);
   Vigil_UnlockFilter(filter, false);
}

#if VIGIL_DEBUG_CHECKS
TEST_F(FilterLockTest, ReadHoldsAreCountedInDebugBuilds) {
   VigilFilter *filter = AddFilter(0x2b);
   Vigil_LockFilter(0x2b, false);
   EXPECT_EQ(filter->configReadHolds, 1u);
   Vigil_UnlockFilter(filter, false);
   EXPECT_EQ(filter->configReadHolds, 0u);
}

TEST_F(FilterLockTest, AssertFilterIsLockedPanicsWithoutAnyHoldInDebugBuilds) {
   VigilFilter *filter = AddFilter(0x2c);
   EXPECT_DEATH(Vigil_AssertFilterIsLocked(filter, false), "Filter 0x2c not locked");
}

TEST(ListLinks, InsertingALinkedRecordPanicsInDebugBuilds) {
   VigilListLinks head, elem = {nullptr, nullptr};
   VigilListInit(&head);
   VigilListInsertBefore(&head, &elem);
   EXPECT_DEATH(VigilListInsertBefore(&head, &elem),
                "Assertion failed: elem->prev == nullptr && elem->next == nullptr");
   VigilListRemove(&elem);
   EXPECT_EQ(elem.next, nullptr);
   EXPECT_DEATH(VigilListRemove(&elem), "Assertion failed: VigilListIsLinked");
}
#endif

#if VIGIL_DEBUG_CHECKS
TEST_F(FilterLockTest, AssertFilterIsLockedPanicsWithoutTheWriteLockInDebugBuilds) {
   VigilFilter *filter = AddFilter(0x2a);
   EXPECT_DEATH(Vigil_AssertFilterIsLocked(filter, true),
                "Filter 0x2a not locked for write");
}
#endif

TEST_F(FilterLockTest, StatisticsBlockIsThirtySevenWordsInCounterOrder) {
   EXPECT_EQ(sizeof(VigilStats), 148u);
   EXPECT_EQ(offsetof(VigilStats, statWardenV4Drops), 0u);
   EXPECT_EQ(offsetof(VigilStats, statDhcpChaddrDrops), 17u * 8);
   EXPECT_EQ(offsetof(VigilStats, statStatusSlot), 144u);
   EXPECT_EQ(offsetof(VigilFilter, stats) % 8, 0u);
}
