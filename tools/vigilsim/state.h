/*
 * Decoding of what the module and the host hold into JSON: the filter
 * record with its lists, limiters and statistics, portset messages, log
 * lines and packet-trace observations.  The filter is read as it lies in
 * memory, so the caller makes sure that no world is running.
 */
#ifndef VIGILSIM_STATE_H
#define VIGILSIM_STATE_H

#include <nlohmann/json.hpp>

#include "sim_core.h"
#include "sim_frames.h"

struct VigilFilter;

namespace vigilsim {

using Json = nlohmann::ordered_json;

Json FilterJson(const VigilFilter *filter);
Json PortsetMessageJson(const sim::PortsetMessage &message);
Json LogLineJson(const sim::LogLine &line);
Json ObservationJson(const sim::Observation &observation);

} // namespace vigilsim

#endif /* VIGILSIM_STATE_H */
