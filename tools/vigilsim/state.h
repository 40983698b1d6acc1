/*
 * Decoding of what the module and the host hold into JSON: the filter
 * record with its lists, limiters and statistics, portset messages, log
 * lines and packet-trace observations.  The filter is read as it lies in
 * memory, so the caller makes sure that no world is running.
 */
#ifndef VIGILSIM_STATE_H
#define VIGILSIM_STATE_H

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "sim_core.h"
#include "sim_frames.h"
#include "vigil_exports.h"

struct VigilFilter;

namespace vigilsim {

using Json = nlohmann::ordered_json;

Json FilterJson(const VigilFilter *filter);
/* The fields of FilterJson by name, in order: those that `state PORTID
 * FIELD...` may name.  An object-valued field's own fields may be named as
 * FIELD.NAME. */
const Json &FilterFieldTemplate();
/* FilterJson cut down to `fields` (names or FIELD.NAME paths), in the order
 * given; throws ToolError naming an unknown field. */
Json SelectFilterFields(const Json &filter, const std::vector<std::string> &fields);
/* The IPv4 and IPv6 bindings of a filter: the active ones, then the
 * expired ones.  Each has vlanId, mac, ip, discMethod, expiryTs and
 * expired, then the fields that apply to its discovery method, and any
 * other field that is not zero. */
Json BindingsJson(const VigilFilter *filter);
/* A port database API entry; the portset messages add `gratuitous`. */
Json PortDbEntryJson(const VigilPortDbEntry &entry, bool withGratuitous);
Json PortsetMessageJson(const sim::PortsetMessage &message);
Json LogLineJson(const sim::LogLine &line);
Json ObservationJson(const sim::Observation &observation);

} // namespace vigilsim

#endif /* VIGILSIM_STATE_H */
