/*
 * The restore path with any buffer: a port's saved state as the Transit
 * client or the live-upgrade client hands it to the module.  When the
 * module takes it, the state is saved again (size query and save, in a
 * layout the input chooses) and that save restored into the other port, so
 * that what a restore builds is walked by the save path too.
 *
 * Input: flags u8 (bit 0: over the live-upgrade client, else Transit;
 * bit 1: the port has no filter; bit 2: the save writes the first layout,
 * else the TLV one; bit 3: the save leaves out the IPv6 blocks), elapsed
 * milliseconds u32, then the buffer: the rest of the input.
 */
#include "fuzz_host.h"
#include "sim_migration.h"
#include "vigil_migration.h"

using namespace fuzzhost;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   Start();
   Reader in(data, size);
   uint8_t flags = in.U8();
   uint32_t elapsedMS = in.U32();
   Bytes buffer = in.Rest();
   bool rtm = flags & 1;
   if (!(flags & 2)) EnablePort(kPort);
   EnablePort(kPeer);
   zek_Status status = rtm ? sim::RtmRestore(RtmClient(), kPort, buffer, elapsedMS)
                           : sim::TransitRestore("vs0", kPort, buffer, elapsedMS);
   if (status == ZEK_OK && !(flags & 2)) {
      saveVersion = (flags & 4) ? VIGIL_SAVE_VERSION_V1 : VIGIL_SAVE_VERSION_TLV;
      if (flags & 8) supportedTlvs &= ~(VIGIL_TLV_BIT(VIGIL_TLV_ND_V1) |
                                        VIGIL_TLV_BIT(VIGIL_TLV_DHCP6_V1) |
                                        VIGIL_TLV_BIT(VIGIL_TLV_EXPIRED_ND_V1));
      uint32_t saveSize = 0;
      (void)sim::TransitSize("vs0", kPort, &saveSize);
      if (saveSize != 0) {
         Bytes saved(saveSize, 0);
         uint32_t dataLen = 0;
         if (sim::TransitSave("vs0", kPort, saved.data(), saveSize, &dataLen) == ZEK_OK) {
            if (dataLen > saveSize) Fail("the save wrote past its buffer");
            saved.resize(dataLen);
            (void)sim::TransitRestore("vs0", kPeer, saved, 0);
         }
      }
   }
   EndInput();
   return 0;
}
