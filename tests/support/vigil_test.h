/*
 * Test support for module tests on the simulated host.
 *
 * VigilTest brings up what the module needs at start (heap, logs, lock
 * domain), gives tests filters on ports, and at the end checks that no lock
 * is held, no frame is live, no allocation is left and no lock-rank
 * violation happened.
 */
#ifndef VIGIL_TEST_H
#define VIGIL_TEST_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim_core.h"
#include "sim_frames.h"
#include "vigil_log.h"
#include "vigil_packet.h"

class VigilTest : public ::testing::Test {
protected:
   void SetUp() override;
   void TearDown() override;
   /* Whether the aging world runs; without it the aging queue still exists,
    * and tests call the aging walks themselves. */
   virtual bool RunAgingWorld() { return false; }

   /* Creates a port in portset "vs0" with a filter in its data slot: the
    * defaults of a new filter, both locks, nothing enabled. */
   VigilFilter *AddFilter(u32 portID);
   /* Removes the filter from its port and frees it. */
   void RemoveFilter(u32 portID);
   /* Applies a security property blob to a filter under its port's and its
    * own write locks, as a property write does. */
   zek_Status ConfigureSecurity(VigilFilter *filter, const std::vector<u8> &blob);

   /* Runs frames as one batch through a chain callback; returns the verdict
    * of each frame ("forward" or "drop"), matched by identity. */
   std::vector<std::string> Tx(u32 portID, const std::vector<zek_Pkt *> &frames);
   std::vector<std::string> Rx(u32 portID, const std::vector<zek_Pkt *> &frames);
   /* The frames left in the list of the last batch. */
   std::vector<zek_Pkt *> lastSurvivors;

   /* After the module's own common clean-up has taken the heap, the plain
    * log and the lock domain away: makes them again, as SetUp does, for the
    * rest of the test and for TearDown. */
   void RecreateHeapLogAndLockDomain();
   void CreateHeapLogAndLockDomain();

   /* Log lines written since the last call, as their text behind the tag. */
   std::vector<std::string> LogTexts();
   /* The same lines whole, waiting for the worlds to settle first. */
   std::vector<sim::LogLine> TakeModuleLogs();

private:
   std::vector<std::string> RunBatch(u32 portID,
                                     const std::vector<zek_Pkt *> &frames,
                                     bool toSwitch);
   std::vector<u32> filterPorts_;
};

/* Runs `fn` with the port's filter held for read, as a batch holds it when
 * it calls the functions that read the tables; gives what `fn` gives. */
template <typename Fn> auto WithReadHold(u32 portID, Fn fn) {
   VigilFilter *held = Vigil_LockFilter(portID, false);
   auto result = fn();
   Vigil_UnlockFilter(held, false);
   return result;
}

/* Runs `fn` with the port's filter held for write. */
template <typename Fn> void WithWriteHold(u32 portID, Fn fn) {
   VigilFilter *held = Vigil_LockFilter(portID, true);
   fn();
   Vigil_UnlockFilter(held, true);
}

/* A lock of the module's lock domain, as the module makes its own. */
zek_SpinlockHandle VigilTestCreateLock(const char *name, u32 kind, u32 rank);

/* The failure hook that fails the running test on a host-detected defect. */
void VigilTestFailureHook(const std::string &what);

#endif /* VIGIL_TEST_H */
