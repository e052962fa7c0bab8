#include "EventJson.h"

#include <string>
#include <type_traits>
#include <variant>

namespace flowmere::sim {

using platform::MediaTime;

EventJson mediaTimeJson(const MediaTime& time) {
  if (!time.isValid()) {
    return "invalid";
  }
  if ((time.flags & MediaTime::kIndefinite) != 0) {
    return "indefinite";
  }
  if ((time.flags & MediaTime::kPositiveInfinity) != 0) {
    return "+infinity";
  }
  if ((time.flags & MediaTime::kNegativeInfinity) != 0) {
    return "-infinity";
  }
  return EventJson{{"value", time.value}, {"timescale", time.timescale}};
}

EventJson propertyValueJson(const platform::PropertyState& state) {
  EventJson value = std::visit(
      [](const auto& v) -> EventJson {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          return nullptr;
        } else if constexpr (std::is_same_v<T, MediaTime>) {
          return mediaTimeJson(v);
        } else if constexpr (std::is_same_v<T, platform::MediaTimeDictionary>) {
          return EventJson{{"value", v.time.value},
                           {"timescale", v.time.timescale},
                           {"flags", v.time.flags},
                           {"epoch", v.time.epoch}};
        } else {
          return v;
        }
      },
      state.value);
  if (state.attributes && state.attributes->readOnly) {
    return EventJson{{"value", value}, {"readOnly", true}};
  }
  return value;
}

EventJson propertiesJson(const platform::PropertyStateMap& states) {
  EventJson values = EventJson::object();
  for (const auto& [name, state] : states) {
    values[name] = propertyValueJson(state);
  }
  return values;
}

EventJson errorJson(const platform::Error& error) {
  EventJson json{{"domain", error.domain}, {"code", error.code}};
  if (error.localizedDescription) {
    json["description"] = *error.localizedDescription;
  }
  return json;
}

EventJson formatJson(const platform::StreamFormat& format) {
  const auto& description = format.formatDescription;
  EventJson extensions = nullptr;
  if (description.extensions()) {
    extensions = EventJson::object();
    for (const auto& entry : *description.extensions()) {
      extensions[std::string(entry.key)] = std::string(entry.value);
    }
  }
  return EventJson{{"width", description.dimensions().width},
                   {"height", description.dimensions().height},
                   {"pixelFormat", platform::fourCharCodeString(description.codecType())},
                   {"extensions", extensions},
                   {"minFrameDuration", mediaTimeJson(format.minFrameDuration)},
                   {"maxFrameDuration", mediaTimeJson(format.maxFrameDuration)}};
}

}  // namespace flowmere::sim
