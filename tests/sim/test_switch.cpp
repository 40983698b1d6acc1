/*
 * Tests of the simulated switch around the module: I/O chains, port
 * properties, portset events, the flow cache and the accelerated datapath.
 */
#include <chrono>
#include <thread>
#include <atomic>
#include <cstring>

#include "fc.h"
#include "raw_frame_bytes.h"
#include "sim_frames.h"
#include "sim_switch.h"
#include "sim_test_fixture.h"

namespace {

/* ------------------------------------------------------------ I/O chains */

/* Everything the host passed to chain functions and removal callbacks, in
 * call order. */
struct Call {
   std::string what; /* "fn:<tag>", "remove:<tag>", "slot" */
   zek_PortID portID;
   void *priv;
   zek_PktList *list;
   zek_IOChainHandle handle;
   std::vector<uint32_t> mappedLens; /* of the list's frames, in fn calls */
};
std::vector<Call> gCalls;
zek_Status gChainAnswer;

struct Tag {
   std::string name;
};

zek_Status ChainFn(zek_PortID portID, void *priv, zek_PktList *list) {
   Call call{"fn:" + static_cast<Tag *>(priv)->name, portID, priv, list, nullptr, {}};
   for (zek_Pkt *pkt : sim::ListFrames(list)) {
      const uint32_t len = zek_PktFrameMappedLenGet(pkt);
      call.mappedLens.push_back(len);
      /* Reads every mapped byte, so that AddressSanitizer checks the size. */
      const uint8_t *bytes = static_cast<const uint8_t *>(zek_PktFrameMappedPointerGet(pkt));
      volatile uint32_t sum = 0;
      for (uint32_t i = 0; i < len; i++) sum = sum + bytes[i];
   }
   gCalls.push_back(call);
   return gChainAnswer;
}

void RemoveFn(void *ctx, void *priv, zek_IOChainHandle handle) {
   EXPECT_EQ(ctx, nullptr);
   gCalls.push_back({"remove:" + static_cast<Tag *>(priv)->name, 0, priv, nullptr,
                     handle, {}});
}

zek_Status SlotDestructor(zek_PortID portID) {
   gCalls.push_back({"slot", portID, nullptr, nullptr, nullptr, {}});
   return ZEK_OK;
}

class SimChain : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      gCalls.clear();
      gChainAnswer = ZEK_OK;
      ASSERT_NE(sim::AddPortset("vSwitch0"), nullptr);
      ASSERT_TRUE(sim::AddPort("vSwitch0", 100));
      ASSERT_TRUE(sim::AddPort("vSwitch0", 101));
   }

   zek_IOChainHandle Insert(zek_PortID port, uint32_t direction, Tag *tag,
                            const char *label = "filter") {
      zek_IOChainDesc desc;
      std::memset(&desc, 0, sizeof desc);
      desc.module = 0x1d;
      desc.portID = port;
      desc.label = label;
      desc.direction = direction;
      desc.chainClass = 3;
      EXPECT_EQ(zek_NameInitialize(&desc.name, tag->name.c_str()), ZEK_OK);
      desc.fn = ChainFn;
      desc.removeFn = RemoveFn;
      desc.priv = tag;
      zek_IOChainHandle handle = nullptr;
      EXPECT_EQ(zek_IOChainInsert(&desc, &handle), ZEK_OK);
      return handle;
   }

   Tag a_{"a"}, b_{"b"}, c_{"c"};
};

TEST_F(SimChain, InsertKeepsACopyOfTheDescription) {
   char label[16] = "vigil-in";
   zek_IOChainHandle h = Insert(100, ZEK_IOCHAIN_INPUT, &a_, label);
   std::strcpy(label, "overwritten");
   ASSERT_NE(h, nullptr);
   auto chains = sim::PortChains(100);
   ASSERT_EQ(chains.size(), 1u);
   EXPECT_EQ(chains[0].handle, h);
   EXPECT_EQ(chains[0].direction, ZEK_IOCHAIN_INPUT);
   EXPECT_EQ(chains[0].label, "vigil-in");
   EXPECT_EQ(chains[0].name, "a");
   EXPECT_EQ(chains[0].chainClass, 3u);
   EXPECT_EQ(chains[0].minMappedLen, 0u);
   EXPECT_TRUE(sim::PortChains(101).empty());
   EXPECT_EQ(sim::LiveChains(), 1u);
}

TEST_F(SimChain, PortHasChainsTellsEachDirectionUntilTheChainIsRemoved) {
   EXPECT_FALSE(sim::PortHasChains(100, ZEK_IOCHAIN_INPUT));
   EXPECT_FALSE(sim::PortHasChains(100, ZEK_IOCHAIN_OUTPUT));
   zek_IOChainHandle in = Insert(100, ZEK_IOCHAIN_INPUT, &a_);
   EXPECT_TRUE(sim::PortHasChains(100, ZEK_IOCHAIN_INPUT));
   EXPECT_FALSE(sim::PortHasChains(100, ZEK_IOCHAIN_OUTPUT));
   EXPECT_FALSE(sim::PortHasChains(101, ZEK_IOCHAIN_INPUT));
   EXPECT_FALSE(sim::PortHasChains(999, ZEK_IOCHAIN_INPUT));
   zek_IOChainHandle out = Insert(101, ZEK_IOCHAIN_OUTPUT, &b_);
   EXPECT_TRUE(sim::PortHasChains(101, ZEK_IOCHAIN_OUTPUT));
   ASSERT_EQ(zek_IOChainRemove(in), ZEK_OK);
   EXPECT_FALSE(sim::PortHasChains(100, ZEK_IOCHAIN_INPUT));
   EXPECT_TRUE(sim::PortHasChains(101, ZEK_IOCHAIN_OUTPUT));
   ASSERT_TRUE(sim::RemovePort(101));
   EXPECT_FALSE(sim::PortHasChains(101, ZEK_IOCHAIN_OUTPUT));
   EXPECT_EQ(gCalls.size(), 2u); /* the two removal callbacks */
   (void)out;
}

TEST_F(SimChain, InsertOnUnknownPortOrUnderFaultFails) {
   zek_IOChainDesc desc;
   std::memset(&desc, 0, sizeof desc);
   desc.portID = 999;
   desc.fn = ChainFn;
   desc.priv = &a_;
   zek_IOChainHandle h = nullptr;
   EXPECT_EQ(zek_IOChainInsert(&desc, &h), 0xbad0003u);
   desc.portID = 100;
   sim::FaultCall("IOChainInsert", 0xbad0014);
   EXPECT_EQ(zek_IOChainInsert(&desc, &h), 0xbad0014u);
   EXPECT_EQ(h, nullptr);
   EXPECT_EQ(sim::LiveChains(), 0u);
}

TEST_F(SimChain, ChainsRunInInsertionOrderWithTheirArguments) {
   Insert(100, ZEK_IOCHAIN_INPUT, &b_);
   Insert(100, ZEK_IOCHAIN_OUTPUT, &c_);
   Insert(100, ZEK_IOCHAIN_INPUT, &a_);
   Insert(101, ZEK_IOCHAIN_INPUT, &c_);
   zek_PktList *list = sim::MakeList();
   sim::ListAppend(list, sim::MakeFrame(fb::Eth(0x0800, fb::Counting(46))));

   EXPECT_EQ(sim::SendFromVM(100, list), ZEK_OK);
   ASSERT_EQ(gCalls.size(), 2u);
   EXPECT_EQ(gCalls[0].what, "fn:b");
   EXPECT_EQ(gCalls[1].what, "fn:a");
   for (const Call &call : gCalls) {
      EXPECT_EQ(call.portID, 100u);
      EXPECT_EQ(call.list, list);
   }
   EXPECT_EQ(gCalls[0].priv, &b_);
   EXPECT_EQ(gCalls[1].priv, &a_);

   gCalls.clear();
   EXPECT_EQ(sim::DeliverToVM(100, list), ZEK_OK);
   ASSERT_EQ(gCalls.size(), 1u);
   EXPECT_EQ(gCalls[0].what, "fn:c");
   EXPECT_EQ(gCalls[0].portID, 100u);
   sim::DestroyList(list);
}

TEST_F(SimChain, AFailingChainStopsTheRun) {
   Insert(100, ZEK_IOCHAIN_INPUT, &a_);
   Insert(100, ZEK_IOCHAIN_INPUT, &b_);
   gChainAnswer = 0xbad0001;
   zek_PktList *list = sim::MakeList();
   EXPECT_EQ(sim::SendFromVM(100, list), 0xbad0001u);
   ASSERT_EQ(gCalls.size(), 1u);
   EXPECT_EQ(gCalls[0].what, "fn:a");
   EXPECT_EQ(sim::SendFromVM(999, list), 0xbad0003u);
   sim::DestroyList(list);
}

TEST_F(SimChain, FramesAreMappedToTheLargestMinimumOfTheRun) {
   zek_IOChainHandle ha = Insert(100, ZEK_IOCHAIN_INPUT, &a_);
   zek_IOChainHandle hb = Insert(100, ZEK_IOCHAIN_INPUT, &b_);
   zek_IOChainHandle hc = Insert(100, ZEK_IOCHAIN_OUTPUT, &c_);
   ASSERT_EQ(zek_IOChainSetMinPktMappedLen(ha, 34), ZEK_OK);
   ASSERT_EQ(zek_IOChainSetMinPktMappedLen(hb, 54), ZEK_OK);
   ASSERT_EQ(zek_IOChainSetMinPktMappedLen(hc, 90), ZEK_OK);
   EXPECT_EQ(sim::MinMappedLen(100), 90u);
   EXPECT_EQ(sim::MinMappedLen(101), 0u);
   EXPECT_EQ(sim::PortChains(100)[1].minMappedLen, 54u);

   const fb::Bytes longBytes = fb::Eth(0x0800, fb::Counting(100));
   const fb::Bytes shortBytes = fb::Eth(0x0800, fb::Counting(30));
   zek_PktList *list = sim::MakeList();
   sim::FrameOptions opts;
   opts.mapped = 14;
   opts.sg = {20, 30};
   zek_Pkt *longFrame = sim::MakeFrame(longBytes, opts);
   zek_Pkt *shortFrame = sim::MakeFrame(shortBytes, opts);
   zek_Pkt *wideFrame = sim::MakeFrame(longBytes); /* all of it mapped */
   sim::ListAppend(list, longFrame);
   sim::ListAppend(list, shortFrame);
   sim::ListAppend(list, wideFrame);

   ASSERT_EQ(sim::SendFromVM(100, list), ZEK_OK);
   ASSERT_EQ(gCalls.size(), 2u);
   /* Input chains only: 54, cut at the 44-byte frame; 114 stays. */
   EXPECT_EQ(gCalls[0].mappedLens, (std::vector<uint32_t>{54, 44, 114}));
   EXPECT_EQ(std::memcmp(zek_PktFrameMappedPointerGet(longFrame), longBytes.data(), 54), 0);
   EXPECT_EQ(std::memcmp(zek_PktFrameMappedPointerGet(shortFrame), shortBytes.data(), 44), 0);
   EXPECT_EQ(sim::FrameBytes(longFrame), longBytes);

   gCalls.clear();
   ASSERT_EQ(sim::DeliverToVM(100, list), ZEK_OK);
   ASSERT_EQ(gCalls.size(), 1u);
   EXPECT_EQ(gCalls[0].mappedLens, (std::vector<uint32_t>{90, 44, 114}));
   sim::DestroyList(list);
}

TEST_F(SimChain, EnsureMappedNeverShrinksNorPassesTheFrame) {
   sim::FrameOptions opts;
   opts.mapped = 20;
   zek_Pkt *pkt = sim::MakeFrame(fb::Eth(0x0800, fb::Counting(46)), opts);
   sim::EnsureMapped(pkt, 10);
   EXPECT_EQ(zek_PktFrameMappedLenGet(pkt), 20u);
   sim::EnsureMapped(pkt, 1000);
   EXPECT_EQ(zek_PktFrameMappedLenGet(pkt), 60u);
   zek_PktRelease(pkt);
}

TEST_F(SimChain, RemoveCallsTheCallbackWithPrivAndHandle) {
   zek_IOChainHandle ha = Insert(100, ZEK_IOCHAIN_INPUT, &a_);
   Insert(100, ZEK_IOCHAIN_OUTPUT, &b_);
   ASSERT_EQ(zek_IOChainRemove(ha), ZEK_OK);
   ASSERT_EQ(gCalls.size(), 1u);
   EXPECT_EQ(gCalls[0].what, "remove:a");
   EXPECT_EQ(gCalls[0].priv, &a_);
   EXPECT_EQ(gCalls[0].handle, ha);
   EXPECT_EQ(sim::LiveChains(), 1u);
   EXPECT_EQ(sim::PortChains(100)[0].name, "b");
   EXPECT_EQ(zek_IOChainRemove(ha), 0xbad0003u);
   EXPECT_EQ(zek_IOChainSetMinPktMappedLen(ha, 10), 0xbad0003u);
}

/* A chain function that holds its frame until told to let it go. */
struct Holder {
   std::atomic<bool> inside{false};
   std::atomic<bool> release{false};
   std::atomic<bool> removed{false};
   std::atomic<bool> removedWhileInside{false};
   zek_IOChainHandle self = nullptr;
   bool removeSelf = false;
};

zek_Status HoldingFn(zek_PortID, void *priv, zek_PktList *) {
   Holder *h = static_cast<Holder *>(priv);
   h->inside = true;
   if (h->removeSelf) {
      /* A chain that removes itself from inside its own call. */
      EXPECT_EQ(zek_IOChainRemove(h->self), ZEK_OK);
   }
   while (!h->release.load()) std::this_thread::yield();
   h->inside = false;
   return ZEK_OK;
}

void HoldingRemoveFn(void *, void *priv, zek_IOChainHandle) {
   Holder *h = static_cast<Holder *>(priv);
   if (h->inside.load()) h->removedWhileInside = true;
   h->removed = true;
}

zek_IOChainHandle InsertHolder(zek_PortID port, Holder *holder) {
   zek_IOChainDesc desc;
   std::memset(&desc, 0, sizeof desc);
   desc.module = 0x1d;
   desc.portID = port;
   desc.label = "holder";
   desc.direction = ZEK_IOCHAIN_INPUT;
   desc.chainClass = 3;
   EXPECT_EQ(zek_NameInitialize(&desc.name, "holder"), ZEK_OK);
   desc.fn = HoldingFn;
   desc.removeFn = HoldingRemoveFn;
   desc.priv = holder;
   zek_IOChainHandle handle = nullptr;
   EXPECT_EQ(zek_IOChainInsert(&desc, &handle), ZEK_OK);
   holder->self = handle;
   return handle;
}

TEST_F(SimChain, RemovalWaitsForTheFrameInsideTheChainBeforeItsCallback) {
   Holder holder;
   zek_IOChainHandle h = InsertHolder(100, &holder);
   std::thread frame([] { EXPECT_EQ(sim::SendFromVM(100, nullptr), ZEK_OK); });
   while (!holder.inside.load()) std::this_thread::yield();
   std::atomic<bool> returned{false};
   std::thread remover([&] {
      EXPECT_EQ(zek_IOChainRemove(h), ZEK_OK);
      returned = true;
   });
   /* Off the port at once: a new frame no longer meets it. */
   while (sim::LiveChains() != 0) std::this_thread::yield();
   std::this_thread::sleep_for(std::chrono::milliseconds(20));
   EXPECT_FALSE(returned.load()) << "the removal waits for the frame";
   EXPECT_FALSE(holder.removed.load());
   holder.release = true;
   frame.join();
   remover.join();
   EXPECT_TRUE(holder.removed.load());
   EXPECT_FALSE(holder.removedWhileInside.load());
}

TEST_F(SimChain, ChainRemovingItselfInsideItsCallIsNotWaitedFor) {
   Holder holder;
   holder.removeSelf = true;
   holder.release = true;
   InsertHolder(100, &holder);
   EXPECT_EQ(sim::SendFromVM(100, nullptr), ZEK_OK);
   EXPECT_TRUE(holder.removed.load());
   EXPECT_EQ(sim::LiveChains(), 0u);
}

TEST_F(SimChain, FaultedRemoveKeepsTheChain) {
   zek_IOChainHandle ha = Insert(100, ZEK_IOCHAIN_INPUT, &a_);
   sim::FaultCall("IOChainRemove", 0xbad0001);
   EXPECT_EQ(zek_IOChainRemove(ha), 0xbad0001u);
   sim::FaultCall("IOChainSetMinPktMappedLen", 0xbad0001);
   EXPECT_EQ(zek_IOChainSetMinPktMappedLen(ha, 10), 0xbad0001u);
   EXPECT_TRUE(gCalls.empty());
   EXPECT_EQ(sim::LiveChains(), 1u);
   EXPECT_EQ(sim::MinMappedLen(100), 0u);
}

TEST_F(SimChain, PortRemovalRemovesChainsThenRunsDestructors) {
   Insert(100, ZEK_IOCHAIN_INPUT, &a_);
   Insert(101, ZEK_IOCHAIN_INPUT, &c_);
   Insert(100, ZEK_IOCHAIN_OUTPUT, &b_);
   ASSERT_EQ(oxa_PortVoltaliteDataSet(100, 2, &a_, SlotDestructor), ZEK_OK);
   ASSERT_TRUE(sim::RemovePort(100));
   ASSERT_EQ(gCalls.size(), 3u);
   EXPECT_EQ(gCalls[0].what, "remove:a");
   EXPECT_EQ(gCalls[1].what, "remove:b");
   EXPECT_EQ(gCalls[2].what, "slot");
   EXPECT_EQ(gCalls[2].portID, 100u);
   EXPECT_EQ(sim::LiveChains(), 1u);
   EXPECT_TRUE(sim::PortChains(100).empty());
}

/* ------------------------------------------------------- port properties */

struct PropWrite {
   zek_PortsetHandle ps;
   zek_PortID portID;
   std::string prop;
   const void *data;
   std::vector<uint8_t> bytes;
};
std::vector<PropWrite> gWrites;
std::vector<std::pair<zek_PortsetHandle, zek_PortID>> gCleanups;

zek_Status WriteFn(zek_PortsetHandle ps, zek_PortID portID, const char *prop,
                   const void *data, uint32_t len) {
   const uint8_t *bytes = static_cast<const uint8_t *>(data);
   gWrites.push_back({ps, portID, prop, data,
                      bytes ? std::vector<uint8_t>(bytes, bytes + len)
                            : std::vector<uint8_t>()});
   return len == 3 ? 0xbad0007 : ZEK_OK;
}

zek_Status CleanupFn(zek_PortsetHandle ps, zek_PortID portID) {
   gCleanups.push_back({ps, portID});
   return ZEK_OK;
}

class SimProperty : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      gWrites.clear();
      gCleanups.clear();
      ps0_ = sim::AddPortset("vSwitch0");
      ps1_ = sim::AddPortset("vSwitch1");
      ASSERT_TRUE(sim::AddPort("vSwitch0", 100));
      ASSERT_TRUE(sim::AddPort("vSwitch1", 200));
   }
   zek_PortsetHandle ps0_, ps1_;
   zek_FABClientPortOps ops_{WriteFn, nullptr, nullptr, CleanupFn};
};

TEST_F(SimProperty, WriteReachesTheHandlerWithTheExactArguments) {
   zek_FABClientHandle h = nullptr;
   ASSERT_EQ(zek_FABClientPortRegister(&h, "vSwitch0", "com.vigil.security", &ops_),
             ZEK_OK);
   EXPECT_EQ(sim::RegisteredProperties("vSwitch0"),
             (std::vector<std::string>{"com.vigil.security"}));
   EXPECT_EQ(sim::LiveClientRegistrations(), 1u);

   bool handled = false;
   const std::vector<uint8_t> blob = {1, 2, 3, 4, 5};
   EXPECT_EQ(sim::WriteProperty(100, "com.vigil.security", blob, &handled), ZEK_OK);
   EXPECT_TRUE(handled);
   ASSERT_EQ(gWrites.size(), 1u);
   EXPECT_EQ(gWrites[0].ps, ps0_);
   EXPECT_EQ(gWrites[0].portID, 100u);
   EXPECT_EQ(gWrites[0].prop, "com.vigil.security");
   EXPECT_EQ(gWrites[0].bytes, blob);

   EXPECT_EQ(sim::WriteProperty(100, "com.vigil.security", {}, &handled), ZEK_OK);
   EXPECT_EQ(gWrites[1].data, nullptr);
   /* The handler's status comes back. */
   EXPECT_EQ(sim::WriteProperty(100, "com.vigil.security", {7, 8, 9}, &handled),
             0xbad0007u);

   EXPECT_EQ(sim::CleanupProperty(100, "com.vigil.security", &handled), ZEK_OK);
   EXPECT_TRUE(handled);
   ASSERT_EQ(gCleanups.size(), 1u);
   EXPECT_EQ(gCleanups[0], std::make_pair(ps0_, zek_PortID{100}));
}

TEST_F(SimProperty, UnregisteredPropertyIsNotHandled) {
   zek_FABClientHandle h = nullptr;
   ASSERT_EQ(zek_FABClientPortRegister(&h, "vSwitch0", "com.vigil.security", &ops_),
             ZEK_OK);
   bool handled = true;
   EXPECT_EQ(sim::WriteProperty(100, "com.vigil.other", {1}, &handled), 0xbad0003u);
   EXPECT_FALSE(handled);
   handled = true;
   /* Registered on another portset than the port's. */
   EXPECT_EQ(sim::WriteProperty(200, "com.vigil.security", {1}, &handled), 0xbad0003u);
   EXPECT_FALSE(handled);
   handled = true;
   EXPECT_EQ(sim::CleanupProperty(999, "com.vigil.security", &handled), 0xbad0003u);
   EXPECT_FALSE(handled);
   EXPECT_TRUE(gWrites.empty());

   ASSERT_EQ(zek_FABClientPortUnregister(h), ZEK_OK);
   EXPECT_EQ(sim::WriteProperty(100, "com.vigil.security", {1}, &handled), 0xbad0003u);
   EXPECT_FALSE(handled);
   EXPECT_EQ(sim::LiveClientRegistrations(), 0u);
   EXPECT_EQ(zek_FABClientPortUnregister(h), 0xbad0003u);
}

TEST_F(SimProperty, OneRegistrationPerPortsetAndProperty) {
   zek_FABClientHandle h1 = nullptr, h2 = nullptr, h3 = nullptr;
   ASSERT_EQ(zek_FABClientPortRegister(&h1, "vSwitch0", "p", &ops_), ZEK_OK);
   EXPECT_EQ(zek_FABClientPortRegister(&h2, "vSwitch0", "p", &ops_), 0xbad0005u);
   EXPECT_EQ(zek_FABClientPortRegister(&h2, "vSwitch1", "p", &ops_), ZEK_OK);
   EXPECT_EQ(zek_FABClientPortRegister(&h3, "noSwitch", "p", &ops_), 0xbad0003u);
   sim::FaultCall("FABClientPortRegister", 0xbad0014);
   EXPECT_EQ(zek_FABClientPortRegister(&h3, "vSwitch0", "q", &ops_), 0xbad0014u);
   sim::FaultCall("FABClientPortUnregister", 0xbad0001);
   EXPECT_EQ(zek_FABClientPortUnregister(h1), 0xbad0001u);
   EXPECT_EQ(sim::LiveClientRegistrations(), 2u);
}

TEST_F(SimProperty, CleanupWithoutHandlerSlotAnswersZero) {
   zek_FABClientPortOps ops{WriteFn, nullptr, nullptr, nullptr};
   zek_FABClientHandle h = nullptr;
   ASSERT_EQ(zek_FABClientPortRegister(&h, "vSwitch0", "p", &ops), ZEK_OK);
   bool handled = false;
   EXPECT_EQ(sim::CleanupProperty(100, "p", &handled), ZEK_OK);
   EXPECT_TRUE(handled);
   EXPECT_TRUE(gCleanups.empty());
}

/* ---------------------------------------------------------------- events */

struct EventCall {
   void *ctx;
   std::string name;
   void *cbData;
   void *eventData;
   bool portsetLive; /* the portset existed while the callback ran */
   size_t portsOfPortset;
};
std::vector<EventCall> gEvents;

zek_Status CountPort(zek_PortsetHandle, zek_PortID, void *data) {
   ++*static_cast<size_t *>(data);
   return ZEK_OK;
}

zek_Status EventFn(void *ctx, const char *name, void *cbData, void *eventData) {
   EventCall call{ctx, name, cbData, eventData, false, 0};
   auto *ps = static_cast<zek_PortsetHandle>(eventData);
   call.portsetLive = *zek_PortsetName(ps) != '\0';
   if (call.portsetLive) zek_PortsetForAllPorts(ps, CountPort, &call.portsOfPortset);
   gEvents.push_back(call);
   return ZEK_OK;
}

class SimEvent : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      gEvents.clear();
      gCalls.clear();
   }
   int first_ = 1, second_ = 2;
};

TEST_F(SimEvent, PortsetAddAndRemoveRaiseActivateAndDeactivate) {
   sim::SetBuildNumber(8123);
   EXPECT_EQ(sim::VswitchEventName("activate"), "com.norvex.oxa.vswitch.activate.8123");
   zek_NetEventHandle on = nullptr, off = nullptr;
   ASSERT_EQ(zek_NetEventPortsetEventSubscribe(0, "com.norvex.oxa.vswitch.activate.8123",
                                               EventFn, &first_, &on),
             ZEK_OK);
   ASSERT_EQ(zek_NetEventPortsetEventSubscribe(
                0, "com.norvex.oxa.vswitch.deactivate.8123", EventFn, &second_, &off),
             ZEK_OK);

   zek_PortsetHandle ps = sim::AddPortset("vSwitch0");
   ASSERT_EQ(gEvents.size(), 1u);
   EXPECT_EQ(gEvents[0].ctx, nullptr);
   EXPECT_EQ(gEvents[0].name, "com.norvex.oxa.vswitch.activate.8123");
   EXPECT_EQ(gEvents[0].cbData, &first_);
   EXPECT_EQ(gEvents[0].eventData, ps);
   EXPECT_TRUE(gEvents[0].portsetLive);

   ASSERT_TRUE(sim::AddPort("vSwitch0", 100));
   ASSERT_TRUE(sim::AddPort("vSwitch0", 101));
   sim::RemovePortset("vSwitch0");
   ASSERT_EQ(gEvents.size(), 2u);
   EXPECT_EQ(gEvents[1].name, "com.norvex.oxa.vswitch.deactivate.8123");
   EXPECT_EQ(gEvents[1].cbData, &second_);
   EXPECT_EQ(gEvents[1].eventData, ps);
   /* Raised before the ports go. */
   EXPECT_TRUE(gEvents[1].portsetLive);
   EXPECT_EQ(gEvents[1].portsOfPortset, 2u);
   EXPECT_EQ(sim::FindPortset("vSwitch0"), nullptr);
}

TEST_F(SimEvent, PortsetRemovalOrderIsEventThenChainsThenDestructors) {
   zek_NetEventHandle off = nullptr;
   ASSERT_EQ(zek_NetEventPortsetEventSubscribe(0, sim::VswitchEventName("deactivate").c_str(),
                                               EventFn, nullptr, &off),
             ZEK_OK);
   sim::AddPortset("vSwitch0");
   ASSERT_TRUE(sim::AddPort("vSwitch0", 100));
   static Tag tag{"x"};
   zek_IOChainDesc desc;
   std::memset(&desc, 0, sizeof desc);
   desc.portID = 100;
   desc.fn = ChainFn;
   desc.removeFn = RemoveFn;
   desc.priv = &tag;
   zek_IOChainHandle h;
   ASSERT_EQ(zek_IOChainInsert(&desc, &h), ZEK_OK);
   ASSERT_EQ(oxa_PortVoltaliteDataSet(100, 0, &tag, SlotDestructor), ZEK_OK);
   sim::RemovePortset("vSwitch0");
   ASSERT_EQ(gEvents.size(), 1u);
   ASSERT_EQ(gCalls.size(), 2u);
   EXPECT_EQ(gCalls[0].what, "remove:x");
   EXPECT_EQ(gCalls[1].what, "slot");
}

TEST_F(SimEvent, RaiseCallsSubscribersOfThatNameInOrder) {
   zek_NetEventHandle h1, h2, h3;
   ASSERT_EQ(zek_NetEventPortsetEventSubscribe(0, "e", EventFn, &second_, &h1), ZEK_OK);
   ASSERT_EQ(zek_NetEventPortsetEventSubscribe(0, "other", EventFn, nullptr, &h2), ZEK_OK);
   ASSERT_EQ(zek_NetEventPortsetEventSubscribe(0, "e", EventFn, &first_, &h3), ZEK_OK);
   EXPECT_EQ(sim::Subscriptions(), (std::vector<std::string>{"e", "other", "e"}));
   int data = 0;
   sim::RaiseEvent("e", &data);
   ASSERT_EQ(gEvents.size(), 2u);
   EXPECT_EQ(gEvents[0].cbData, &second_);
   EXPECT_EQ(gEvents[1].cbData, &first_);
   EXPECT_EQ(gEvents[1].eventData, &data);

   ASSERT_EQ(zek_NetEventPortsetEventUnsubscribe(h1), ZEK_OK);
   EXPECT_EQ(zek_NetEventPortsetEventUnsubscribe(h1), 0xbad0003u);
   gEvents.clear();
   sim::RaiseEvent("e", nullptr);
   ASSERT_EQ(gEvents.size(), 1u);
   EXPECT_EQ(gEvents[0].cbData, &first_);
   sim::RaiseEvent("e.", nullptr);
   EXPECT_EQ(gEvents.size(), 1u);
}

TEST_F(SimEvent, FaultedSubscribeRecordsNothing) {
   zek_NetEventHandle h = nullptr;
   sim::FaultCall("NetEventPortsetEventSubscribe", 0xbad0014);
   EXPECT_EQ(zek_NetEventPortsetEventSubscribe(0, "e", EventFn, nullptr, &h), 0xbad0014u);
   EXPECT_TRUE(sim::Subscriptions().empty());
   ASSERT_EQ(zek_NetEventPortsetEventSubscribe(0, "e", EventFn, nullptr, &h), ZEK_OK);
   sim::FaultCall("NetEventPortsetEventUnsubscribe", 0xbad0001);
   EXPECT_EQ(zek_NetEventPortsetEventUnsubscribe(h), 0xbad0001u);
   EXPECT_EQ(sim::Subscriptions().size(), 1u);
}

/* ------------------------------------------------------------ flow cache */

class SimFlowCache : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      ps_ = sim::AddPortset("vSwitch0");
      ASSERT_NE(ps_, nullptr);
      data_ = FC_GetPortsetData(ps_);
      ASSERT_NE(data_, nullptr);
      ASSERT_NE(data_->wardenHash, nullptr);
      for (size_t i = 0; i < sizeof entry_; i++) entry_[i] = static_cast<uint8_t>(i);
   }
   zek_PortsetHandle ps_;
   FC_PortsetData *data_;
   uint8_t entry_[32];
};

TEST_F(SimFlowCache, OneRecordPerPortset) {
   EXPECT_EQ(FC_GetPortsetData(ps_), data_);
   zek_PortsetHandle other = sim::AddPortset("vSwitch1");
   FC_PortsetData *otherData = FC_GetPortsetData(other);
   ASSERT_NE(otherData, nullptr);
   EXPECT_NE(otherData, data_);
   EXPECT_NE(otherData->wardenHash, data_->wardenHash);
}

TEST_F(SimFlowCache, InsertRemoveAndDuplicates) {
   ASSERT_EQ(FC_WardenHashInsert(data_->wardenHash, entry_, 0, 100), ZEK_OK);
   uint8_t copy[32];
   std::memcpy(copy, entry_, sizeof copy);
   EXPECT_EQ(FC_WardenHashInsert(data_->wardenHash, copy, 0, 100), 0xbad0005u);
   EXPECT_EQ(FC_WardenHashInsert(data_->wardenHash, entry_, 1, 100), 0xbad0005u);
   EXPECT_EQ(FC_WardenHashInsert(data_->wardenHash, entry_, 1, 101), ZEK_OK);
   /* The host keeps its own copy of the bytes. */
   entry_[0] = 0xee;
   auto entries = sim::FlowCacheEntries("vSwitch0");
   ASSERT_EQ(entries.size(), 2u);
   EXPECT_EQ(entries[0].portID, 100u);
   EXPECT_EQ(entries[0].isIpv6, 0u);
   EXPECT_EQ(entries[0].entry, std::vector<uint8_t>(copy, copy + 32));
   EXPECT_EQ(entries[1].portID, 101u);
   EXPECT_EQ(entries[1].isIpv6, 1u);

   EXPECT_EQ(FC_WardenHashRemove(data_->wardenHash, entry_, 0, 100), 0xbad0003u);
   EXPECT_EQ(FC_WardenHashRemove(data_->wardenHash, copy, 1, 100), 0xbad0003u);
   EXPECT_EQ(FC_WardenHashRemove(data_->wardenHash, copy, 0, 100), ZEK_OK);
   entries = sim::FlowCacheEntries("vSwitch0");
   ASSERT_EQ(entries.size(), 1u);
   EXPECT_EQ(entries[0].portID, 101u);
   EXPECT_TRUE(sim::FlowCacheEntries("noSwitch").empty());
}

TEST_F(SimFlowCache, FaultedCallsRecordNothing) {
   sim::FaultCall("WardenHashInsert", 0xbad0014);
   EXPECT_EQ(FC_WardenHashInsert(data_->wardenHash, entry_, 0, 100), 0xbad0014u);
   EXPECT_TRUE(sim::FlowCacheEntries("vSwitch0").empty());
   ASSERT_EQ(FC_WardenHashInsert(data_->wardenHash, entry_, 0, 100), ZEK_OK);
   sim::FaultCall("WardenHashRemove", 0xbad0001);
   EXPECT_EQ(FC_WardenHashRemove(data_->wardenHash, entry_, 0, 100), 0xbad0001u);
   EXPECT_EQ(sim::FlowCacheEntries("vSwitch0").size(), 1u);
}

TEST_F(SimFlowCache, InvalidationsAreRecordedInOrder) {
   FC_InvalidateFlows(26, 100);
   FC_InvalidateFlows(3, 101);
   auto inv = sim::TakeInvalidations();
   ASSERT_EQ(inv.size(), 2u);
   EXPECT_EQ(inv[0].reason, 26u);
   EXPECT_EQ(inv[0].portID, 100u);
   EXPECT_EQ(inv[1].reason, 3u);
   EXPECT_EQ(inv[1].portID, 101u);
   EXPECT_TRUE(sim::TakeInvalidations().empty());
}

TEST_F(SimFlowCache, DataGoesWithItsPortset) {
   FC_WardenHash *hash = data_->wardenHash;
   ASSERT_EQ(FC_WardenHashInsert(hash, entry_, 0, 100), ZEK_OK);
   sim::RemovePortset("vSwitch0");
   /* The record is freed: a stale hash is refused and reported. */
   EXPECT_EQ(FC_GetPortsetData(ps_), nullptr);
   EXPECT_EQ(FC_WardenHashInsert(hash, entry_, 0, 100), 0xbad0001u);
   auto failures = simtest::TakeFailures();
   ASSERT_EQ(failures.size(), 1u);
   EXPECT_NE(failures[0].find("not live"), std::string::npos);
   sim::AddPortset("vSwitch0");
   EXPECT_TRUE(sim::FlowCacheEntries("vSwitch0").empty());
}

/* ------------------------------------------------- accelerated datapath */

class SimGlx : public simtest::SimFixture {
 protected:
   void SetUp() override {
      SimFixture::SetUp();
      ps_ = sim::AddPortset("vSwitch0");
      ASSERT_TRUE(sim::AddPort("vSwitch0", 100));
   }
   zek_PortsetHandle ps_;
};

TEST_F(SimGlx, EnabledIsAPortsetOption) {
   EXPECT_EQ(zek_GlxIsEnabled(ps_), 0);
   sim::SetGlxEnabled("vSwitch0", true);
   EXPECT_EQ(zek_GlxIsEnabled(ps_), 1);
   zek_PortsetHandle other = sim::AddPortset("vSwitch1");
   EXPECT_EQ(zek_GlxIsEnabled(other), 0);
   sim::SetGlxEnabled("vSwitch0", false);
   EXPECT_EQ(zek_GlxIsEnabled(ps_), 0);
}

TEST_F(SimGlx, PortCommandIsRecorded) {
   uint8_t record[137] = {};
   std::strcpy(reinterpret_cast<char *>(record), "com.vigil.portWarden");
   record[136] = 1;
   ASSERT_EQ(zek_GlxPortCommand(100, 0xfff, 0, record, sizeof record, nullptr, 0),
             ZEK_OK);
   /* A name that fills all 128 bytes, and a record too short for the flag. */
   uint8_t full[130];
   std::memset(full, 'n', sizeof full);
   ASSERT_EQ(zek_GlxPortCommand(100, 7, 0, full, sizeof full, nullptr, 0), ZEK_OK);
   auto cmds = sim::TakeGlxCommands();
   ASSERT_EQ(cmds.size(), 2u);
   EXPECT_EQ(cmds[0].portID, 100u);
   EXPECT_EQ(cmds[0].name, "com.vigil.portWarden");
   EXPECT_EQ(cmds[0].isPortWardenEnabled, 1);
   EXPECT_EQ(cmds[0].cmdClass, 0xfffu);
   EXPECT_EQ(cmds[0].len, 137u);
   EXPECT_EQ(cmds[1].name, std::string(128, 'n'));
   EXPECT_EQ(cmds[1].isPortWardenEnabled, 0);
   EXPECT_EQ(cmds[1].len, 130u);
   EXPECT_TRUE(sim::TakeGlxCommands().empty());
}

TEST_F(SimGlx, FaultedOrUnknownPortCommandRecordsNothing) {
   uint8_t record[137] = {};
   sim::FaultCall("GlxPortCommand", 0xbad0001);
   EXPECT_EQ(zek_GlxPortCommand(100, 0xfff, 0, record, sizeof record, nullptr, 0),
             0xbad0001u);
   EXPECT_EQ(zek_GlxPortCommand(999, 0xfff, 0, record, sizeof record, nullptr, 0),
             0xbad0003u);
   EXPECT_TRUE(sim::TakeGlxCommands().empty());
}

} // namespace
