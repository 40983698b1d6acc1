/*
 * Frames for module tests: the shared builders (tools/common/
 * frame_builders.h, crafted with libtins) and their hand-over to the
 * simulated host.  Malformed frames are written as raw bytes in tests.
 */
#ifndef TEST_FRAMES_H
#define TEST_FRAMES_H

#include "frame_builders.h"
#include "sim_frames.h"

namespace frames {

inline zek_Pkt *Make(const Bytes &bytes, const sim::FrameOptions &opts = {}) {
   return sim::MakeFrame(bytes, opts);
}

} // namespace frames

#endif /* TEST_FRAMES_H */
