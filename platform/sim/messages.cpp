/*
 * Messages posted to portsets.  The host records each delivery for tests:
 * the portset, the port, the flags and a copy of the message, which is a
 * 40-byte header (a NUL-terminated name in 32 bytes, then the payload length
 * as a host-order u64) followed by the payload.
 */
#include <cstring>

#include "sim_internal.h"

namespace sim {
namespace {

constexpr size_t kNameBytes = 32;
constexpr size_t kHeaderBytes = 40;
constexpr size_t kMaxMessageBytes = 4096;

std::mutex gMessageMutex;
std::vector<PortsetMessage> gMessages;

void ResetMessages() {
   std::lock_guard<std::mutex> guard(gMessageMutex);
   gMessages.clear();
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetMessages); }
} gRegistrar;

} // namespace

std::vector<PortsetMessage> TakePortsetMessages() {
   std::lock_guard<std::mutex> guard(gMessageMutex);
   std::vector<PortsetMessage> out;
   out.swap(gMessages);
   return out;
}

} // namespace sim

using namespace sim;

extern "C" {

zek_Status zek_PortsetPostMessage(zek_PortsetHandle ps, zek_PortID portID,
                                  uint64_t flags, const void *msg) {
   SIM_FAULT_RETURN("PortsetPostMessage");
   if (ps == nullptr || msg == nullptr) return kBadParam;
   /* The name of a portset that is not (or no longer) known reads empty. */
   std::string portset = zek_PortsetName(ps);
   if (portset.empty()) return kNotFound;
   const auto *bytes = static_cast<const uint8_t *>(msg);
   uint64_t payloadLen;
   std::memcpy(&payloadLen, bytes + kNameBytes, sizeof payloadLen);
   size_t total = payloadLen > kMaxMessageBytes - kHeaderBytes
                     ? kMaxMessageBytes
                     : kHeaderBytes + static_cast<size_t>(payloadLen);
   PortsetMessage record;
   record.portset = portset;
   record.portID = portID;
   record.flags = flags;
   record.name.assign(reinterpret_cast<const char *>(bytes),
                      zek_Strnlen(reinterpret_cast<const char *>(bytes), kNameBytes));
   record.bytes.assign(bytes, bytes + total);
   std::lock_guard<std::mutex> guard(gMessageMutex);
   gMessages.push_back(std::move(record));
   return ZEK_OK;
}

} /* extern "C" */
