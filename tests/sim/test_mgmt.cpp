/*
 * Tests of the management channel of the simulated host: what zek_MgmtInit
 * accepts and keeps, zek_MgmtDestroy, and
 * the calls a tool makes into an interface's callbacks: found by name and
 * id, sizes checked, records copied in and out.
 */
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "sim_migration.h"
#include "sim_mgmt.h"
#include "sim_switch_internal.h"
#include "sim_test_fixture.h"

namespace {

constexpr zek_Status kNotFound = 0xbad0003;
constexpr zek_Status kBadParam = 0xbad0007;
constexpr zek_Status kNotSupported = 0xbad0020;
constexpr zek_Status kInvalidData = 0xbad0001;

/* What the callbacks were called with. */
struct Call {
   std::string which;
   uint64_t cookie = 0;
   uint64_t instanceId = 0;
   void *first = nullptr;
   void *second = nullptr;
   std::vector<uint8_t> input;       /* the input record as the callback saw it */
   std::vector<uint8_t> outputFound; /* the output record before the callback */
};
std::vector<Call> gCalls;
constexpr size_t kInLen = 6;
constexpr size_t kOutLen = 10;

/* Reads its 6-byte input, writes over it, and writes its 10-byte output:
 * each byte the input's first byte plus its index. */
zek_Status Echo(uint64_t cookie, uint64_t instanceId, void *input, void *output) {
   Call call{"echo", cookie, instanceId, input, output, {}, {}};
   auto *in = static_cast<uint8_t *>(input);
   auto *out = static_cast<uint8_t *>(output);
   call.input.assign(in, in + kInLen);
   call.outputFound.assign(out, out + kOutLen);
   gCalls.push_back(call);
   for (size_t i = 0; i < kOutLen; i++) out[i] = static_cast<uint8_t>(in[0] + i);
   std::memset(in, 0xee, kInLen);
   return 0x5eed;
}

zek_Status Other(uint64_t cookie, uint64_t instanceId, void *first, void *second) {
   gCalls.push_back(Call{"other", cookie, instanceId, first, second, {}, {}});
   return ZEK_OK;
}

zek_MgmtCallbackInfo Entry(zek_MgmtCallbackFn fn, uint64_t id, uint32_t inLen = kInLen,
                           uint32_t outLen = kOutLen) {
   zek_MgmtCallbackInfo cb{};
   cb.location = ZEK_MGMT_LOCATION_KERNEL;
   cb.callback = fn;
   cb.synchronous = 1;
   cb.numParams = 2;
   cb.paramSizes[0] = inLen;
   cb.paramSizes[1] = outLen;
   cb.paramTypes[0] = ZEK_MGMT_PARAM_IN;
   cb.paramTypes[1] = ZEK_MGMT_PARAM_OUT;
   cb.callbackId = id;
   return cb;
}

class MgmtChannel : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      gCalls.clear();
      zek_HeapProps props{};
      ASSERT_EQ(zek_NameInitialize(&props.name, "tool-heap"), ZEK_OK);
      props.module = 0x42;
      props.maxSize = 1 << 20;
      ASSERT_EQ(zek_HeapCreate(&props, &heap_), ZEK_OK);
      DefaultSignature();
   }

   /* "Tool.1" of "Example", version 1.2.3.4: callback 0x10 (Echo) with a
    * 6-byte input and a 10-byte output, 0x11 (Other) with 4 and 4. */
   void DefaultSignature() {
      table_ = {Entry(Echo, 0x10), Entry(Other, 0x11, 4, 4)};
      std::memset(&sig_, 0, sizeof sig_);
      sig_.version = 0x01020304;
      std::strcpy(sig_.name, "Tool.1");
      std::strcpy(sig_.vendor, "Example");
      sig_.numCallbacks = static_cast<uint32_t>(table_.size());
      sig_.callbacks = table_.data();
   }

   void TearDown() override {
      if (heap_ != nullptr) zek_HeapDestroy(heap_);
      SimFixture::TearDown();
   }

   zek_MgmtProps Props() {
      zek_MgmtProps props{};
      props.module = 0x42;
      props.heap = heap_;
      props.signature = &sig_;
      return props;
   }

   zek_MgmtHandle Open() {
      zek_MgmtProps props = Props();
      zek_MgmtHandle handle = nullptr;
      EXPECT_EQ(zek_MgmtInit(&props, &handle), ZEK_OK);
      return handle;
   }

   /* What zek_MgmtInit answers for the fixture's signature as `change`
    * leaves it; nothing may be kept or allocated when it refuses. */
   zek_Status InitWith(void (*change)(zek_MgmtSignature &, std::vector<zek_MgmtCallbackInfo> &)) {
      DefaultSignature();
      change(sig_, table_);
      sig_.callbacks = sig_.callbacks != nullptr ? table_.data() : nullptr;
      zek_MgmtProps props = Props();
      zek_MgmtHandle handle = reinterpret_cast<zek_MgmtHandle>(0x1);
      zek_Status status = zek_MgmtInit(&props, &handle);
      if (status != ZEK_OK) {
         EXPECT_EQ(handle, reinterpret_cast<zek_MgmtHandle>(0x1));
         EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
      } else {
         EXPECT_EQ(zek_MgmtDestroy(handle), ZEK_OK);
      }
      return status;
   }

   zek_HeapID heap_ = nullptr;
   zek_MgmtSignature sig_;
   std::vector<zek_MgmtCallbackInfo> table_;
};

bool SameEntry(const zek_MgmtCallbackInfo &a, const zek_MgmtCallbackInfo &b) {
   return a.location == b.location && a.callback == b.callback &&
          a.synchronous == b.synchronous && a.numParams == b.numParams &&
          std::memcmp(a.paramSizes, b.paramSizes, sizeof a.paramSizes) == 0 &&
          std::memcmp(a.paramTypes, b.paramTypes, sizeof a.paramTypes) == 0 &&
          a.callbackId == b.callbackId;
}

TEST_F(MgmtChannel, InitKeepsACopyOfTheSignatureUntilDestroy) {
   zek_MgmtHandle handle = Open();
   ASSERT_NE(handle, nullptr);
   /* Nothing of the module heap: its accounting is the module's. */
   EXPECT_EQ(sim::GetHeapStats(heap_).allocations, 0u);
   /* Later changes to the module's own signature don't reach the copy. */
   std::strcpy(sig_.name, "Changed");
   table_[0].callbackId = 0x99;
   std::vector<sim::MgmtInterfaceInfo> ifaces = sim::MgmtInterfaces();
   ASSERT_EQ(ifaces.size(), 1u);
   EXPECT_EQ(ifaces[0].handle, handle);
   EXPECT_EQ(ifaces[0].module, 0x42u);
   EXPECT_EQ(ifaces[0].cookie, 1u);
   EXPECT_EQ(ifaces[0].version, 0x01020304u);
   EXPECT_EQ(ifaces[0].name, "Tool.1");
   EXPECT_EQ(ifaces[0].vendor, "Example");
   ASSERT_EQ(ifaces[0].callbacks.size(), 2u);
   EXPECT_TRUE(SameEntry(ifaces[0].callbacks[0], Entry(Echo, 0x10)));
   EXPECT_TRUE(SameEntry(ifaces[0].callbacks[1], Entry(Other, 0x11, 4, 4)));
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 1u);

   EXPECT_EQ(zek_MgmtDestroy(handle), ZEK_OK);
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
   EXPECT_EQ(zek_MgmtDestroy(handle), kNotFound);
   EXPECT_EQ(zek_MgmtDestroy(nullptr), kNotFound);
}

TEST_F(MgmtChannel, InitRefusesNullArguments) {
   zek_MgmtProps props = Props();
   zek_MgmtHandle handle = nullptr;
   EXPECT_EQ(zek_MgmtInit(nullptr, &handle), kBadParam);
   EXPECT_EQ(zek_MgmtInit(&props, nullptr), kBadParam);
   props.heap = nullptr;
   EXPECT_EQ(zek_MgmtInit(&props, &handle), kBadParam);
   props = Props();
   props.signature = nullptr;
   EXPECT_EQ(zek_MgmtInit(&props, &handle), kBadParam);
   EXPECT_EQ(handle, nullptr);
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
}

using Sig = zek_MgmtSignature;
using Table = std::vector<zek_MgmtCallbackInfo>;

TEST_F(MgmtChannel, InitRefusesSignaturesItCannotKeep) {
   EXPECT_EQ(InitWith([](Sig &s, Table &) { s.name[0] = '\0'; }), kBadParam);
   EXPECT_EQ(InitWith([](Sig &s, Table &) { std::memset(s.name, 'n', sizeof s.name); }),
             kBadParam);
   EXPECT_EQ(InitWith([](Sig &s, Table &) { std::memset(s.vendor, 'v', sizeof s.vendor); }),
             kBadParam);
   EXPECT_EQ(InitWith([](Sig &s, Table &) { s.callbacks = nullptr; }), kBadParam);
   EXPECT_EQ(InitWith([](Sig &, Table &t) { t[1].callback = nullptr; }), kBadParam);
   EXPECT_EQ(InitWith([](Sig &, Table &t) { t[1].paramTypes[1] = 2; }), kBadParam);
   EXPECT_EQ(InitWith([](Sig &, Table &t) { t[1].paramTypes[1] = ZEK_MGMT_PARAM_IN; }),
             kBadParam);
   EXPECT_EQ(InitWith([](Sig &, Table &t) { t[1].callbackId = 0x10; }), kBadParam);
}

TEST_F(MgmtChannel, InitRefusesCallbacksItCannotCall) {
   EXPECT_EQ(InitWith([](Sig &, Table &t) { t[0].location = 2; }), kNotSupported);
   EXPECT_EQ(InitWith([](Sig &, Table &t) { t[0].synchronous = 0; }), kNotSupported);
   EXPECT_EQ(InitWith([](Sig &, Table &t) { t[0].numParams = 3; }), kNotSupported);
}

TEST_F(MgmtChannel, InitTakesFullNamesAndEmptyTables) {
   /* 31 characters and the NUL fill the name's field exactly. */
   EXPECT_EQ(InitWith([](Sig &s, Table &) {
                std::memset(s.name, 'n', sizeof s.name - 1);
                s.name[sizeof s.name - 1] = '\0';
             }),
             ZEK_OK);
   EXPECT_EQ(InitWith([](Sig &s, Table &) {
                s.numCallbacks = 0;
                s.callbacks = nullptr;
             }),
             ZEK_OK);
}

TEST_F(MgmtChannel, InitAndDestroyFailWhenTold) {
   zek_MgmtProps props = Props();
   zek_MgmtHandle handle = nullptr;
   sim::FaultCall("MgmtInit", kInvalidData);
   EXPECT_EQ(zek_MgmtInit(&props, &handle), kInvalidData);
   EXPECT_EQ(handle, nullptr);
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);

   handle = Open();
   sim::FaultCall("MgmtDestroy", kInvalidData);
   EXPECT_EQ(zek_MgmtDestroy(handle), kInvalidData);
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 1u);
   EXPECT_EQ(zek_MgmtDestroy(handle), ZEK_OK);
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
}

TEST_F(MgmtChannel, CallHandsCopiesOfBothRecordsAndCopiesTheOutputBack) {
   zek_MgmtHandle handle = Open();
   const std::vector<uint8_t> in = {0x30, 1, 2, 3, 4, 5};
   std::vector<uint8_t> inKept = in;
   std::vector<uint8_t> out(kOutLen, 0xaa);
   zek_Status result = ZEK_OK;
   ASSERT_EQ(sim::MgmtCall("Tool.1", 0x10, in.data(), in.size(), out.data(), out.size(), &result),
             ZEK_OK);
   EXPECT_EQ(result, 0x5eedu);
   ASSERT_EQ(gCalls.size(), 1u);
   EXPECT_EQ(gCalls[0].cookie, 1u);
   EXPECT_EQ(gCalls[0].instanceId, 0u);
   EXPECT_EQ(gCalls[0].input, in);
   /* The callback found what the tool's output record held. */
   EXPECT_EQ(gCalls[0].outputFound, std::vector<uint8_t>(kOutLen, 0xaa));
   EXPECT_NE(gCalls[0].first, in.data());
   EXPECT_NE(gCalls[0].second, out.data());
   EXPECT_EQ(out, (std::vector<uint8_t>{0x30, 0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38,
                                        0x39}));
   /* What the callback wrote into its input stays in the host's copy. */
   EXPECT_EQ(in, inKept);

   /* The vector form, the same call. */
   std::vector<uint8_t> out2(kOutLen, 0);
   ASSERT_EQ(sim::MgmtCall("Tool.1", 0x10, {0x40, 0, 0, 0, 0, 0}, &out2), ZEK_OK);
   EXPECT_EQ(out2[9], 0x49);
   EXPECT_EQ(zek_MgmtDestroy(handle), ZEK_OK);
}

TEST_F(MgmtChannel, CallChecksNameIdAndSizesBeforeCallingAnything) {
   zek_MgmtHandle handle = Open();
   std::vector<uint8_t> in(kInLen, 0);
   std::vector<uint8_t> out(kOutLen, 0xaa);
   zek_Status result = 0x77;
   EXPECT_EQ(sim::MgmtCall("Tool", 0x10, in.data(), kInLen, out.data(), kOutLen, &result),
             kNotFound);
   EXPECT_EQ(sim::MgmtCall("Tool.1", 0x12, in.data(), kInLen, out.data(), kOutLen, &result),
             kNotFound);
   EXPECT_EQ(sim::MgmtCall("Tool.1", 0x10, in.data(), kInLen - 1, out.data(), kOutLen, &result),
             kBadParam);
   EXPECT_EQ(sim::MgmtCall("Tool.1", 0x10, in.data(), kInLen, out.data(), kOutLen + 1, &result),
             kBadParam);
   EXPECT_EQ(sim::MgmtCall("Tool.1", 0x10, nullptr, kInLen, out.data(), kOutLen, &result),
             kBadParam);
   EXPECT_EQ(sim::MgmtCall("Tool.1", 0x10, in.data(), kInLen, nullptr, kOutLen, &result),
             kBadParam);
   EXPECT_EQ(sim::MgmtCall("Tool.1", 0x10, in, nullptr, &result), kBadParam);
   EXPECT_TRUE(gCalls.empty());
   EXPECT_EQ(result, 0x77u);
   EXPECT_EQ(out, std::vector<uint8_t>(kOutLen, 0xaa));
   EXPECT_EQ(zek_MgmtDestroy(handle), ZEK_OK);
   EXPECT_EQ(sim::MgmtCall("Tool.1", 0x10, in.data(), kInLen, out.data(), kOutLen, &result),
             kNotFound);
}

TEST_F(MgmtChannel, ParametersReachTheCallbackInTheirDeclaredOrder) {
   /* Output first, then input; and a callback with its output alone. */
   table_[1].paramTypes[0] = ZEK_MGMT_PARAM_OUT;
   table_[1].paramTypes[1] = ZEK_MGMT_PARAM_IN;
   table_[1].paramSizes[0] = 8;
   table_[1].paramSizes[1] = 2;
   table_.push_back(Entry(Other, 0x12, 0, 3));
   table_[2].numParams = 1;
   table_[2].paramTypes[0] = ZEK_MGMT_PARAM_OUT;
   table_[2].paramSizes[0] = 3;
   sig_.numCallbacks = 3;
   sig_.callbacks = table_.data();
   zek_MgmtHandle handle = Open();
   sim::SetGuardedBuffers(true);
   const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
   uint8_t in[2] = {1, 2};
   uint8_t out[8] = {};
   ASSERT_EQ(sim::MgmtCall("Tool.1", 0x11, in, 2, out, 8), ZEK_OK);
   uint8_t only[3] = {};
   ASSERT_EQ(sim::MgmtCall("Tool.1", 0x12, nullptr, 0, only, 3), ZEK_OK);
   EXPECT_EQ(sim::MgmtCall("Tool.1", 0x12, in, 2, only, 3), kBadParam);
   ASSERT_EQ(gCalls.size(), 2u);
   /* Each record ends where the untouchable page begins. */
   EXPECT_EQ((reinterpret_cast<uintptr_t>(gCalls[0].first) + 8) % page, 0u);
   EXPECT_EQ((reinterpret_cast<uintptr_t>(gCalls[0].second) + 2) % page, 0u);
   EXPECT_EQ((reinterpret_cast<uintptr_t>(gCalls[1].first) + 3) % page, 0u);
   EXPECT_EQ(gCalls[1].second, nullptr);
   EXPECT_EQ(zek_MgmtDestroy(handle), ZEK_OK);
}

TEST_F(MgmtChannel, CallGoesToTheNewestInterfaceOfAName) {
   zek_MgmtHandle first = Open();
   zek_MgmtHandle second = Open();
   uint8_t in[4] = {};
   uint8_t out[4] = {};
   ASSERT_EQ(sim::MgmtCall("Tool.1", 0x11, in, 4, out, 4), ZEK_OK);
   ASSERT_EQ(zek_MgmtDestroy(second), ZEK_OK);
   ASSERT_EQ(sim::MgmtCall("Tool.1", 0x11, in, 4, out, 4), ZEK_OK);
   ASSERT_EQ(gCalls.size(), 2u);
   EXPECT_EQ(gCalls[0].cookie, 2u);
   EXPECT_EQ(gCalls[1].cookie, 1u);
   EXPECT_EQ(zek_MgmtDestroy(first), ZEK_OK);
}

std::atomic<bool> gEntered{false};
std::atomic<bool> gRelease{false};

zek_Status Slow(uint64_t, uint64_t, void *, void *) {
   gEntered = true;
   while (!gRelease) std::this_thread::sleep_for(std::chrono::milliseconds(1));
   return ZEK_OK;
}

TEST_F(MgmtChannel, DestroyWaitsForTheRunningCallsToEnd) {
   table_[1].callback = Slow;
   zek_MgmtHandle handle = Open();
   gEntered = false;
   gRelease = false;
   std::thread tool([] {
      uint8_t in[4] = {};
      uint8_t out[4] = {};
      EXPECT_EQ(sim::MgmtCall("Tool.1", 0x11, in, 4, out, 4), ZEK_OK);
   });
   while (!gEntered) std::this_thread::sleep_for(std::chrono::milliseconds(1));
   std::atomic<bool> destroyed{false};
   std::thread module([&] {
      EXPECT_EQ(zek_MgmtDestroy(handle), ZEK_OK);
      destroyed = true;
   });
   /* The interface leaves the registry at once; destroy itself waits. */
   while (sim::LiveMgmtInterfaces() != 0) std::this_thread::yield();
   std::this_thread::sleep_for(std::chrono::milliseconds(50));
   EXPECT_FALSE(destroyed);
   /* Already out of reach of new calls. */
   uint8_t in[4] = {};
   uint8_t out[4] = {};
   EXPECT_EQ(sim::MgmtCall("Tool.1", 0x11, in, 4, out, 4), kNotFound);
   gRelease = true;
   tool.join();
   module.join();
   EXPECT_TRUE(destroyed);
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
}

TEST_F(MgmtChannel, InterfacesIntoAnUnloadedObjectAreDropped) {
   Open();
   /* An object that holds none of the callbacks drops nothing. */
   std::vector<std::string> what;
   sim::DropMgmtInterfacesInto(reinterpret_cast<const void *>(0x1000), &what);
   EXPECT_TRUE(what.empty());
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 1u);

   sim::DropMgmtInterfacesInto(sim::ObjectOf(reinterpret_cast<const void *>(&Echo)), &what);
   EXPECT_EQ(what, std::vector<std::string>{"management interface 'Tool.1'"});
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
   uint8_t in[4] = {};
   uint8_t out[4] = {};
   EXPECT_EQ(sim::MgmtCall("Tool.1", 0x11, in, 4, out, 4), kNotFound);
}

TEST_F(MgmtChannel, InterfaceLeftOpenIsReportedAtReset) {
   Open();
   sim::Reset();
   EXPECT_EQ(simtest::TakeFailures(),
             std::vector<std::string>{"management interface 'Tool.1' still open at reset"});
   EXPECT_EQ(sim::LiveMgmtInterfaces(), 0u);
   /* The reset took the fixture's heap too. */
   heap_ = nullptr;
}

} // namespace
