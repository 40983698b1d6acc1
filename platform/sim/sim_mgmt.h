/*
 * Test API of the simulated host: the management channel, through which an
 * operator's tool calls the callbacks of a module's management interface.
 *
 * zek_MgmtInit(props, &handle) checks the signature and keeps a copy of it
 * (in host memory) until zek_MgmtDestroy.  It answers
 * - 0xbad0007 for a null argument, a null heap or signature, a name that is
 *   empty or fills its field without a NUL, a vendor without a NUL, a
 *   callback table missing while numCallbacks isn't 0, a null callback, a
 *   parameter type other than input (0) or output (1), two parameters of
 *   one type, or two callbacks with one id;
 * - 0xbad0020 for a callback that doesn't run in the module (location other
 *   than ZEK_MGMT_LOCATION_KERNEL), isn't synchronous, or declares more
 *   than two parameters.
 * Several interfaces may carry one name (two copies of a module loaded side
 * by side during a live upgrade); a call goes to the newest of them.
 * zek_MgmtDestroy(handle) answers 0xbad0003 for a handle it doesn't know;
 * it waits for the calls that run in the interface to end, so that nothing
 * runs in it once it returns.  Both can be failed with FaultCall
 * ("MgmtInit", "MgmtDestroy").  An interface still open at Reset is
 * reported as a host failure.
 *
 * Only tests and tools include this.
 */
#ifndef SIM_MGMT_H
#define SIM_MGMT_H

#include <cstdint>
#include <string>
#include <vector>

#include "zek.h"

namespace sim {

/* What the channel keeps of one interface. */
struct MgmtInterfaceInfo {
   zek_MgmtHandle handle;
   zek_ModuleID module; /* props->module */
   uint64_t cookie;     /* what its callbacks get as their first argument */
   uint32_t version;
   std::string name;
   std::string vendor;
   std::vector<zek_MgmtCallbackInfo> callbacks; /* the signature's table */
};
/* In registration order. */
std::vector<MgmtInterfaceInfo> MgmtInterfaces();
uint32_t LiveMgmtInterfaces();

/* Calls the callback `callbackId` of the newest interface named `name` as
 * the channel does for a tool: the input record is copied into a buffer of
 * exactly the declared input size, the output record into one of exactly
 * the declared output size; the callback runs on the calling thread with
 * (cookie, 0, one buffer per declared parameter in declared order), and
 * the output buffer is copied back into `out`.  With guarded buffers on
 * (SetGuardedBuffers), each buffer ends against a page that can't be
 * touched.
 * Answers, without calling anything, 0xbad0003 for an unknown name or id
 * and 0xbad0007 when inLen or outLen differs from the declared size (0 for
 * a record the callback doesn't declare) or a record of non-zero length is
 * null.  Otherwise ZEK_OK, with the callback's own status in *result. */
zek_Status MgmtCall(const std::string &name, uint64_t callbackId, const void *in,
                    size_t inLen, void *out, size_t outLen, zek_Status *result = nullptr);
/* The same with byte vectors: `out` keeps its length, which must match. */
zek_Status MgmtCall(const std::string &name, uint64_t callbackId,
                    const std::vector<uint8_t> &in, std::vector<uint8_t> *out,
                    zek_Status *result = nullptr);

/* For the loader: drops the interfaces whose callbacks are code of the
 * object loaded at `base`, describing each in *what (as "management
 * interface 'NAME'"), so that no call reaches an unloaded object. */
void DropMgmtInterfacesInto(const void *base, std::vector<std::string> *what);

} // namespace sim

#endif /* SIM_MGMT_H */
