/*
 * The tables of callees as the module is built: every entry is the module's
 * own function.
 */
#include <gtest/gtest.h>

#include "vigil_pipeline.h"
#include "vigil_switch.h"

TEST(PipelineCalleesTest, EveryEntryIsTheModulesOwnFunction) {
   EXPECT_EQ(vigilPipelineCallees.warden, &VigilWarden);
   EXPECT_EQ(vigilPipelineCallees.dhcpParse, &VigilDhcpParse);
   EXPECT_EQ(vigilPipelineCallees.dhcpSnoopTx, &VigilDhcpSnoopTx);
   EXPECT_EQ(vigilPipelineCallees.dhcpSnoopRx, &VigilDhcpSnoopRx);
   EXPECT_EQ(vigilPipelineCallees.arpSnoop, &VigilArpSnoop);
   EXPECT_EQ(vigilPipelineCallees.processTxIpv6, &VigilProcessTxIpv6);
   EXPECT_EQ(vigilPipelineCallees.processRxIpv6, &VigilProcessRxIpv6);
}

TEST(PipelineCalleesTest, TheModulesOwnTableHoldsTheSameEntries) {
   EXPECT_EQ(vigilPipelineModuleCallees.warden, &VigilWarden);
   EXPECT_EQ(vigilPipelineModuleCallees.dhcpParse, &VigilDhcpParse);
   EXPECT_EQ(vigilPipelineModuleCallees.dhcpSnoopTx, &VigilDhcpSnoopTx);
   EXPECT_EQ(vigilPipelineModuleCallees.dhcpSnoopRx, &VigilDhcpSnoopRx);
   EXPECT_EQ(vigilPipelineModuleCallees.arpSnoop, &VigilArpSnoop);
   EXPECT_EQ(vigilPipelineModuleCallees.processTxIpv6, &VigilProcessTxIpv6);
   EXPECT_EQ(vigilPipelineModuleCallees.processRxIpv6, &VigilProcessRxIpv6);
}

TEST(TransitCalleesTest, EveryEntryIsTheModulesOwnFunction) {
   EXPECT_EQ(vigilTransitCallees.transitRegister, &Vigil_TransitRegister);
   EXPECT_EQ(vigilTransitCallees.transitUnregister, &Vigil_TransitUnregister);
   EXPECT_EQ(vigilTransitModuleCallees.transitRegister, &Vigil_TransitRegister);
   EXPECT_EQ(vigilTransitModuleCallees.transitUnregister, &Vigil_TransitUnregister);
}
