/*
 * Tests of the simulated host's status texts, names, formatting, string
 * helpers, hashing, panics and module identity.
 */
#include <cstring>

#include "sim_test_fixture.h"

namespace {

class SimStrings : public simtest::SimFixture {};
class SimModule : public simtest::SimFixture {};

TEST_F(SimStrings, EveryKnownStatusHasItsText) {
   const std::vector<std::pair<zek_Status, std::string>> texts = {
      {0x0, "Success"},           {0x2bad0000, "Failure"},
      {0xbad0001, "Invalid data"}, {0xbad0002, "Ignored"},
      {0xbad0003, "Not found"},   {0xbad0005, "Already exists"},
      {0xbad0006, "Limit exceeded"}, {0xbad0007, "Bad parameter"},
      {0xbad0014, "Out of memory"}, {0xbad0020, "Not supported"},
      {0xbad0026, "Overflow"},    {0xbad0030, "Not enabled"},
      {0xbad0032, "Wait again"},  {0xbad0039, "Not initialized"},
      {0xbad0069, "Interrupted"},
   };
   for (const auto &[status, text] : texts) {
      EXPECT_EQ(zek_StatusToString(status), text) << std::hex << status;
   }
}

TEST_F(SimStrings, OtherStatusesAreUnknown) {
   EXPECT_STREQ(zek_StatusToString(0xbad0004), "Unknown status");
   EXPECT_STREQ(zek_StatusToString(0x12345678), "Unknown status");
}

TEST_F(SimStrings, NameInitializeCopiesUpToSixtyThreeCharacters) {
   zek_Name name;
   const std::string fits(63, 'x');
   EXPECT_EQ(zek_NameInitialize(&name, fits.c_str()), ZEK_OK);
   EXPECT_EQ(std::string(name.string), fits);
   const std::string tooLong(64, 'y');
   EXPECT_EQ(zek_NameInitialize(&name, tooLong.c_str()), 0xbad0007u);
}

TEST_F(SimStrings, NameFormatFormatsAndRefusesOverlongResults) {
   zek_Name name;
   EXPECT_EQ(zek_NameFormat(&name, "vigil.port%u", 42u), ZEK_OK);
   EXPECT_STREQ(name.string, "vigil.port42");
   EXPECT_EQ(zek_NameFormat(&name, "%064d", 1), 0xbad0007u);
}

TEST_F(SimStrings, SprintfReturnsTheUntruncatedLength) {
   char buf[8];
   EXPECT_EQ(zek_Sprintf(buf, sizeof buf, "%s-%d", "abc", 12345), 9);
   EXPECT_STREQ(buf, "abc-123");
}

TEST_F(SimStrings, StringFormatReportsLengthAndOverflow) {
   char buf[8];
   size_t len = 99;
   EXPECT_EQ(zek_StringFormat(buf, sizeof buf, &len, "%d", 1234), ZEK_OK);
   EXPECT_EQ(len, 4u);
   EXPECT_STREQ(buf, "1234");
   EXPECT_EQ(zek_StringFormat(buf, sizeof buf, &len, "%s", "123456789"), 0xbad0026u);
   EXPECT_EQ(len, 7u);
   EXPECT_STREQ(buf, "1234567");
   EXPECT_EQ(zek_StringFormat(buf, sizeof buf, &len, "%s", "1234567"), ZEK_OK);
   EXPECT_EQ(len, 7u);
}

TEST_F(SimStrings, StrnHelpersFollowTheCLibrary) {
   EXPECT_EQ(zek_Strnlen("abcdef", 4), 4u);
   EXPECT_EQ(zek_Strnlen("ab", 4), 2u);
   EXPECT_EQ(zek_Strncmp("abcX", "abcY", 3), 0);
   EXPECT_LT(zek_Strncmp("abcX", "abcY", 4), 0);
   char dst[6];
   std::memset(dst, 'z', sizeof dst);
   EXPECT_EQ(zek_Strncpy(dst, "ab", sizeof dst), dst);
   EXPECT_EQ(std::memcmp(dst, "ab\0\0\0\0", 6), 0);
}

TEST_F(SimStrings, HashBytesIsSeededFnv1a) {
   EXPECT_EQ(zek_HashBytes("", 0, 0), 2166136261u);
   EXPECT_EQ(zek_HashBytes("a", 1, 0), 0xe40c292cu);
   EXPECT_EQ(zek_HashBytes("foobar", 6, 0), 0xbf9cf968u);
   EXPECT_NE(zek_HashBytes("foobar", 6, 1), zek_HashBytes("foobar", 6, 0));
}

TEST(SimStringsDeathTest, PanicReportsItsTextAndStopsTheProcess) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(
      {
         sim::Reset();
         sim::SetFailureHook(nullptr);
         zek_PanicWithModuleID(1, "bad state %d", 7);
      },
      "panic: bad state 7");
}

TEST_F(SimModule, CurrentIdIsSettableAndNamesTheModule) {
   EXPECT_EQ(zek_ModuleCurrentID(), 0x1du);
   sim::SetModuleID(77);
   EXPECT_EQ(zek_ModuleCurrentID(), 77u);
   char name[16];
   EXPECT_EQ(zek_ModuleGetName(77, name, sizeof name), ZEK_OK);
   EXPECT_STREQ(name, "vigil");
   EXPECT_EQ(zek_ModuleGetName(78, name, sizeof name), 0xbad0003u);
   char tiny[5];
   EXPECT_EQ(zek_ModuleGetName(77, tiny, sizeof tiny), 0xbad0026u);
}

TEST_F(SimModule, SetHeapIdIsRecorded) {
   zek_HeapProps props{};
   ASSERT_EQ(zek_NameInitialize(&props.name, "vigil"), ZEK_OK);
   zek_HeapID heap = nullptr;
   ASSERT_EQ(zek_HeapCreate(&props, &heap), ZEK_OK);
   EXPECT_EQ(sim::ModuleHeap(), nullptr);
   EXPECT_EQ(zek_ModuleSetHeapID(zek_ModuleCurrentID(), heap), ZEK_OK);
   EXPECT_EQ(sim::ModuleHeap(), heap);
   zek_HeapDestroy(heap);
}

TEST_F(SimModule, PushedIdIsCurrentUntilThePop) {
   zek_ModuleID saved = 0;
   EXPECT_EQ(zek_ModulePushId(5, nullptr, &saved), ZEK_OK);
   EXPECT_EQ(saved, 0x1du);
   EXPECT_EQ(zek_ModuleCurrentID(), 5u);
   EXPECT_EQ(zek_ModulePushId(6, nullptr, &saved), ZEK_OK);
   EXPECT_EQ(saved, 5u);
   EXPECT_EQ(zek_ModuleCurrentID(), 6u);
   zek_ModulePopId();
   EXPECT_EQ(zek_ModuleCurrentID(), 5u);
   zek_ModulePopId();
   EXPECT_EQ(zek_ModuleCurrentID(), 0x1du);
}

TEST_F(SimModule, PopWithoutAPushIsReported) {
   zek_ModulePopId();
   EXPECT_EQ(simtest::TakeFailures(),
             std::vector<std::string>{"module id pop without a push"});
}

TEST_F(SimModule, BuildNumberDefaultsToSevenThousand) {
   EXPECT_EQ(OXA_BUILD_NUMBER, 7000u);
   sim::SetBuildNumber(7123);
   EXPECT_EQ(OXA_BUILD_NUMBER, 7123u);
   sim::Reset();
   EXPECT_EQ(OXA_BUILD_NUMBER, 7000u);
}

} // namespace
