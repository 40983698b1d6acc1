/*
 * Frame specs: a frame written as KIND:key=value,... and built from the
 * kind's layers, every field not given taking its default.  vigilsim takes
 * them wherever a script gives a frame; tests/scenarios/tools/frames.py
 * makes the same bytes from the same kind and keys (its command line
 * --key VALUE is key=value here), so that a script's hex frames and their
 * specs can stand for each other.
 *
 * The defaults are those of the scenario scripts: the VM 02:00:00:00:00:10
 * at 192.0.2.50, the DHCP server 02:00:00:00:00:01 at 192.0.2.1.
 */
#ifndef VIGIL_FRAME_SPEC_H
#define VIGIL_FRAME_SPEC_H

#include <stdexcept>
#include <string>
#include <vector>

#include "frame_builders.h"

namespace frames {

/* A spec that cannot be built: unknown kind or key, a bad value. */
struct SpecError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

struct SpecKeyInfo {
   std::string name;
   std::string def; /* the default, in words */
   std::string help;
};

struct SpecKindInfo {
   std::string name;
   std::string help;
   std::vector<SpecKeyInfo> keys;
};

/* Every kind with its keys, in the order of the table. */
std::vector<SpecKindInfo> FrameSpecKinds();

/* True when `text` has the shape of a spec: a lower-case word and ':' that
 * is not one of the BYTES prefixes hex:, text: and file:.  Whether the word
 * names a kind is for BuildFrameSpec to say. */
bool LooksLikeFrameSpec(const std::string &text);

/* The frame of KIND:key=value,... (KIND: alone takes every default).
 * Values: MAC and IPv4/IPv6 addresses in their usual text, numbers decimal
 * or 0x hexadecimal, byte strings as hex digits (':' '.' '-' '_' ignored);
 * a key of the flag kind may stand alone for key=1.  Throws SpecError. */
Bytes BuildFrameSpec(const std::string &text);

} // namespace frames

#endif /* VIGIL_FRAME_SPEC_H */
