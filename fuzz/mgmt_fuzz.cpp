/*
 * Every management input record: the callbacks of the module's management
 * interface, called through the host's channel as an operator's tool calls
 * them, with records of the declared sizes.  Both ports have a filter; the
 * fuzzed one ("vs0" "16") has an ARP and an ND binding, a port white list,
 * a BPDU exclusion and an ignore list entry, so that every listing has
 * something to write.
 *
 * Input: records: callback u8 (an index into the interface's table), len
 * u16, len bytes: the input record, cut or zero-padded to its declared
 * size.
 */
#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string>

#include "fuzz_host.h"
#include "sim_mgmt.h"

using namespace fuzzhost;

namespace {

constexpr size_t kMaxRecords = 8;

const Bytes kArp = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0, 0, 0x10, 0x08, 0x06,
                    0, 1, 0x08, 0, 6, 4, 0, 1, 0x02, 0, 0, 0, 0, 0x10, 192, 0, 2, 10,
                    0, 0, 0, 0, 0, 0, 192, 0, 2, 1};
const Bytes kNs = {0x33, 0x33, 0xff, 0, 0, 0x01, 0x02, 0, 0, 0, 0, 0x10, 0x86, 0xdd,
                   0x60, 0, 0, 0, 0, 24, 58, 255,
                   0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10,
                   0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff, 0, 0, 0x01,
                   135, 0, 0, 0, 0, 0, 0, 0,
                   0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};

struct Callback {
   uint64_t id;
   size_t inLen;
   size_t outLen;
};
std::string interfaceName;
std::vector<Callback> callbacks;

void FindInterface() {
   if (!callbacks.empty()) return;
   for (const sim::MgmtInterfaceInfo &info : sim::MgmtInterfaces()) {
      if (info.name.rfind("PortVigil.", 0) != 0) continue;
      interfaceName = info.name;
      for (const zek_MgmtCallbackInfo &cb : info.callbacks) {
         Callback c = {cb.callbackId, 0, 0};
         for (uint32_t i = 0; i < cb.numParams; i++) {
            (cb.paramTypes[i] == ZEK_MGMT_PARAM_IN ? c.inLen : c.outLen) = cb.paramSizes[i];
         }
         callbacks.push_back(c);
      }
   }
   if (callbacks.empty()) Fail("the module opened no management interface");
}

Bytes Entry(uint32_t flags, std::initializer_list<uint8_t> ip, uint32_t prefixLen) {
   Bytes e(32, 0);
   memcpy(&e[0], &flags, 4);
   std::copy(ip.begin(), ip.end(), e.begin() + 12);
   memcpy(&e[28], &prefixLen, 4);
   return e;
}

void Populate() {
   EnablePort(kPort);
   EnablePort(kPeer);
   Discovery(kPort, true, true, true, true);
   Bytes security(32, 0);
   uint32_t header[8] = {0x45, 0, 0, 0, 0, 0, 1, 1};
   memcpy(&security[0], header, 32);
   Bytes entry = Entry(1, {192, 0, 2, 0}, 24);
   security.insert(security.end(), entry.begin(), entry.end());
   const uint8_t bpdu[6] = {0x01, 0x80, 0xc2, 0, 0, 0};
   security.insert(security.end(), bpdu, bpdu + 6);
   (void)WriteProp(kPort, kSecurity, security);
   Bytes ignore = {1, 0, 0, 0};
   entry = Entry(1, {192, 0, 2, 99}, 32);
   ignore.insert(ignore.end(), entry.begin(), entry.end());
   (void)WriteProp(kPort, kIgnoreList, ignore);
   SendBatch(kPort, true, {{kArp}, {kNs}});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   Start();
   FindInterface();
   Populate();
   Reader in(data, size);
   for (size_t n = 0; n < kMaxRecords && !in.Empty(); n++) {
      const Callback &cb = callbacks[in.U8() % callbacks.size()];
      uint16_t len = in.U16();
      Bytes input = in.Take(len);
      input.resize(cb.inLen, 0);
      Bytes output(cb.outLen, 0);
      zek_Status result = ZEK_OK;
      if (sim::MgmtCall(interfaceName, cb.id, input, &output, &result) != ZEK_OK) {
         Fail("the channel refused a call of the declared sizes");
      }
   }
   EndInput();
   return 0;
}
