#pragma once

// The JSON forms in which the simulator prints what it observes: media times, property values
// and states, errors and stream formats. Pure functions; any thread.

#include <nlohmann/json.hpp>

#include "platform/Error.h"
#include "platform/MediaTime.h"
#include "platform/Properties.h"
#include "platform/StreamFormat.h"

namespace flowmere::sim {

using EventJson = nlohmann::ordered_json;

// {"value", "timescale"}, or "invalid", "indefinite", "+infinity", "-infinity".
EventJson mediaTimeJson(const platform::MediaTime& time);
// The value; {"value", "readOnly": true} for a read-only property.
EventJson propertyValueJson(const platform::PropertyState& state);
EventJson propertiesJson(const platform::PropertyStateMap& states);
EventJson errorJson(const platform::Error& error);
EventJson formatJson(const platform::StreamFormat& format);

}  // namespace flowmere::sim
