/*
 * The accelerated datapath of the simulated host: an on/off option per
 * portset name, and a record of the port commands the module sends it.
 */
#include <algorithm>
#include <cstring>
#include <map>

#include "sim_switch.h"
#include "sim_switch_internal.h"

namespace sim {
namespace {

constexpr uint32_t kNameBytes = 128;
constexpr uint32_t kWardenFlagOffset = 136;

std::mutex gGlxMutex;
std::map<std::string, bool> gGlxEnabled;
std::vector<GlxCommand> gGlxCommands;

void ResetGlx() {
   std::lock_guard<std::mutex> guard(gGlxMutex);
   gGlxEnabled.clear();
   gGlxCommands.clear();
}

struct Registrar {
   Registrar() { RegisterResetHook(ResetGlx); }
} gRegistrar;

} // namespace

void SetGlxEnabled(const std::string &portset, bool on) {
   std::lock_guard<std::mutex> guard(gGlxMutex);
   gGlxEnabled[portset] = on;
}

std::vector<GlxCommand> TakeGlxCommands() {
   std::lock_guard<std::mutex> guard(gGlxMutex);
   std::vector<GlxCommand> out;
   out.swap(gGlxCommands);
   return out;
}

} // namespace sim

using namespace sim;

extern "C" {

int zek_GlxIsEnabled(zek_PortsetHandle ps) {
   /* "" for a handle that is not a live portset, which is never enabled. */
   const std::string name = zek_PortsetName(ps);
   std::lock_guard<std::mutex> guard(gGlxMutex);
   auto it = gGlxEnabled.find(name);
   return !name.empty() && it != gGlxEnabled.end() && it->second ? 1 : 0;
}

zek_Status zek_GlxPortCommand(zek_PortID portID, uint32_t cmdClass,
                              uint32_t flags, const void *record, uint32_t len,
                              void *out, uint32_t outLen) {
   SIM_FAULT_RETURN("GlxPortCommand");
   (void)flags;
   (void)out;
   (void)outLen;
   if (record == nullptr && len != 0) return kBadParam;
   if (!PortExists(portID)) return kNotFound;
   const char *bytes = static_cast<const char *>(record);
   GlxCommand cmd;
   cmd.portID = portID;
   cmd.name = len == 0 ? "" : std::string(bytes, strnlen(bytes, std::min(len, kNameBytes)));
   cmd.isPortWardenEnabled =
      len > kWardenFlagOffset ? static_cast<uint8_t>(bytes[kWardenFlagOffset]) : 0;
   cmd.cmdClass = cmdClass;
   cmd.len = len;
   std::lock_guard<std::mutex> guard(gGlxMutex);
   gGlxCommands.push_back(cmd);
   return ZEK_OK;
}

} /* extern "C" */
