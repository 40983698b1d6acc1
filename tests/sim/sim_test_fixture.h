/*
 * Fixture for tests of the simulated host: starts every test from a reset
 * host and records the defects the host reports.  A test that expects one
 * takes it with TakeFailures(); any left at the end fail the test.
 */
#ifndef SIM_TEST_FIXTURE_H
#define SIM_TEST_FIXTURE_H

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "sim_core.h"

namespace simtest {

inline std::mutex gFailureMutex;
inline std::vector<std::string> gFailures;

inline void RecordFailure(const std::string &what) {
   std::lock_guard<std::mutex> guard(gFailureMutex);
   gFailures.push_back(what);
}

inline std::vector<std::string> TakeFailures() {
   std::lock_guard<std::mutex> guard(gFailureMutex);
   std::vector<std::string> out;
   out.swap(gFailures);
   return out;
}

class SimFixture : public ::testing::Test {
 protected:
   void SetUp() override {
      sim::Reset();
      TakeFailures();
      sim::SetFailureHook(&RecordFailure);
   }
   void TearDown() override {
      for (const std::string &what : TakeFailures()) {
         ADD_FAILURE() << "unexpected host failure: " << what;
      }
      sim::SetFailureHook(nullptr);
      sim::Reset();
   }
};

} // namespace simtest

#endif /* SIM_TEST_FIXTURE_H */
