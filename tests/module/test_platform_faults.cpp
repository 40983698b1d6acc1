/*
 * Platform calls failing where a frame, a port or a world needs them: each
 * test fails one call at the place where a run of the scenarios with every
 * call failing in turn found the module crashing, leaking or stuck, and
 * checks what the module does instead.
 */
#include "ipv4_db_test.h"

using namespace v4db;

namespace {

constexpr zek_Status kFailure = 0x2bad0000;

} // namespace

class PlatformFaultTest : public Ipv4DbTest {
protected:
   Client vm = ClientOf(frames::kVmMac, 0x3903f326);
};

TEST_F(PlatformFaultTest, FrameWithoutAMappedPointerIsReadThroughCopiesAndSnooped) {
   /* Both passes of the request (read lock, then write lock) and the ACK's
    * two passes find no mapped part. */
   sim::FaultCall("PktFrameMappedPointerGet", kFailure, 4);
   EXPECT_EQ(Tx1(Request(vm)), "forward");
   EXPECT_EQ(filter->numDhcpReqs, 1u);
   EXPECT_EQ(Rx1(Ack(vm)), "forward");
   sim::FaultClear();
   EXPECT_EQ(filter->numDhcpReqs, 0u);
   EXPECT_EQ(filter->numVmis, 1u);
   EXPECT_NE(Find(0, vm.mac, kLeaseIp), nullptr);
   EXPECT_EQ(LogTexts(), std::vector<std::string>());
}
