#include "ScriptParser.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <istream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <utility>

namespace flowmere::sim {

namespace {

using Json = nlohmann::json;
using platform::MediaTime;

struct ScriptError {
  std::string message;
};

// --- Fields ----------------------------------------------------------------------------------

const Json& field(const Json& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end()) {
    throw ScriptError{std::string("missing \"") + key + "\""};
  }
  return *found;
}

std::string stringField(const Json& object, const char* key) {
  const auto& value = field(object, key);
  if (!value.is_string()) {
    throw ScriptError{std::string("\"") + key + "\" must be a string"};
  }
  return value.get<std::string>();
}

std::int64_t integerField(const Json& object, const char* key) {
  const auto& value = field(object, key);
  if (!value.is_number_integer()) {
    throw ScriptError{std::string("\"") + key + "\" must be an integer"};
  }
  return value.get<std::int64_t>();
}

double numberField(const Json& object, const char* key) {
  const auto& value = field(object, key);
  if (!value.is_number()) {
    throw ScriptError{std::string("\"") + key + "\" must be a number"};
  }
  return value.get<double>();
}

// The value that `names` gives `name`, or none.
template <typename T, std::size_t N>
std::optional<T> lookUp(const std::array<std::pair<std::string_view, T>, N>& names,
                        std::string_view name) {
  for (const auto& [candidate, value] : names) {
    if (candidate == name) {
      return value;
    }
  }
  return std::nullopt;
}

MediaTime mediaTime(const Json& value, const char* key) {
  if (value.is_string()) {
    static const std::array<std::pair<std::string_view, MediaTime>, 4> kNamedTimes{{
        {"invalid", MediaTime::invalid()},
        {"indefinite", MediaTime::indefinite()},
        {"+infinity", MediaTime::positiveInfinity()},
        {"-infinity", MediaTime::negativeInfinity()},
    }};
    const auto text = value.get<std::string>();
    if (const auto named = lookUp(kNamedTimes, text)) {
      return *named;
    }
    throw ScriptError{std::string("\"") + key + "\" has an unknown time \"" + text + "\""};
  }
  if (!value.is_object()) {
    throw ScriptError{std::string("\"") + key + "\" must be {\"value\", \"timescale\"}"};
  }
  const std::int64_t timescale = integerField(value, "timescale");
  if (timescale < INT32_MIN || timescale > INT32_MAX) {
    throw ScriptError{std::string("\"") + key + "\" has a timescale out of range"};
  }
  return MediaTime::make(integerField(value, "value"), static_cast<std::int32_t>(timescale));
}

MediaTime mediaTimeField(const Json& object, const char* key) {
  return mediaTime(field(object, key), key);
}

platform::FourCharCode pixelFormatField(const Json& object) {
  if (!object.contains("pixelFormat")) {
    return platform::kCVPixelFormatType_32BGRA;
  }
  constexpr std::array<std::pair<std::string_view, platform::FourCharCode>, 2> kPixelFormats{{
      {"BGRA", platform::kCVPixelFormatType_32BGRA},
      {"x420", platform::kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange},
  }};
  if (const auto format = lookUp(kPixelFormats, stringField(object, "pixelFormat"))) {
    return *format;
  }
  throw ScriptError{"\"pixelFormat\" must be \"BGRA\" or \"x420\""};
}

std::uint32_t dimensionField(const Json& object, const char* key) {
  const std::int64_t value = integerField(object, key);
  if (value < 1 || value > 16384) {
    throw ScriptError{std::string("\"") + key + "\" must be between 1 and 16384"};
  }
  return static_cast<std::uint32_t>(value);
}

constexpr std::array<std::pair<std::string_view, StreamSide>, 2> kStreamNames{{
    {"sink", StreamSide::kSink},
    {"source", StreamSide::kSource},
}};

constexpr std::array<std::pair<std::string_view, PropertyTarget>, 4> kTargetNames{{
    {"sink", PropertyTarget::kSink},
    {"source", PropertyTarget::kSource},
    {"device", PropertyTarget::kDevice},
    {"provider", PropertyTarget::kProvider},
}};

StreamSide streamField(const Json& object) {
  if (const auto side = lookUp(kStreamNames, stringField(object, "stream"))) {
    return *side;
  }
  throw ScriptError{"\"stream\" must be \"sink\" or \"source\""};
}

PropertyTarget targetField(const Json& object) {
  if (const auto target = lookUp(kTargetNames, stringField(object, "target"))) {
    return *target;
  }
  throw ScriptError{"\"target\" must be sink, source, device or provider"};
}

// The clients defined so far: a line may name only a client that an earlier line defined.
class ClientNames {
 public:
  void define(std::string id) { ids_.insert(std::move(id)); }
  std::string knownField(const Json& object, const char* key) const {
    std::string id = stringField(object, key);
    require(id);
    return id;
  }
  void require(const std::string& id) const {
    if (!ids_.contains(id)) {
      throw ScriptError{"no client \"" + id + "\" is defined before this line"};
    }
  }

 private:
  std::set<std::string> ids_;
};

// --- Verbs -----------------------------------------------------------------------------------

ActionKind parseClient(const Json& f, ClientNames& clients) {
  DefineClient action;
  action.id = stringField(f, "id");
  clients.define(action.id);
  action.pid = static_cast<std::int32_t>(integerField(f, "pid"));
  action.description = f.contains("description") ? stringField(f, "description") : action.id;
  return action;
}

ActionKind parseStreaming(const Json& f, ClientNames& clients) {
  SetStreamingClients action;
  action.stream = streamField(f);
  const auto& list = field(f, "clients");
  if (!list.is_array()) {
    throw ScriptError{"\"clients\" must be a list of client ids"};
  }
  for (const auto& id : list) {
    if (!id.is_string()) {
      throw ScriptError{"\"clients\" must be a list of client ids"};
    }
    action.clients.push_back(id.get<std::string>());
    clients.require(action.clients.back());
  }
  return action;
}

ActionKind parseConnect(const Json& f, ClientNames& clients) {
  return Connect{clients.knownField(f, "client")};
}

ActionKind parseDisconnect(const Json& f, ClientNames& clients) {
  return Disconnect{clients.knownField(f, "client")};
}

ActionKind parseAuthorize(const Json& f, ClientNames& clients) {
  Authorize action;
  action.stream = streamField(f);
  action.client = clients.knownField(f, "client");
  return action;
}

ActionKind parseStart(const Json& f, ClientNames& /*clients*/) {
  return Start{streamField(f)};
}

ActionKind parseStop(const Json& f, ClientNames& /*clients*/) {
  return Stop{streamField(f)};
}

ActionKind parseFormats(const Json& f, ClientNames& /*clients*/) {
  return ListFormats{streamField(f)};
}

ActionKind parseSet(const Json& f, ClientNames& /*clients*/) {
  SetProperties action;
  action.stream = streamField(f);
  if (f.contains("activeFormatIndex")) {
    action.activeFormatIndex = integerField(f, "activeFormatIndex");
  }
  if (f.contains("frameDuration")) {
    action.frameDuration = mediaTimeField(f, "frameDuration");
  }
  return action;
}

ActionKind parseGet(const Json& f, ClientNames& /*clients*/) {
  GetProperties action;
  action.target = targetField(f);
  const auto& names = field(f, "properties");
  if (!names.is_array() ||
      !std::all_of(names.begin(), names.end(), [](const auto& n) { return n.is_string(); })) {
    throw ScriptError{"\"properties\" must be a list of property names"};
  }
  for (const auto& name : names) {
    action.names.push_back(name.get<std::string>());
  }
  return action;
}

ActionKind parseAvailable(const Json& f, ClientNames& /*clients*/) {
  return ListAvailable{targetField(f)};
}

ActionKind parsePush(const Json& f, ClientNames& clients) {
  Push action;
  action.client = clients.knownField(f, "client");
  action.width = dimensionField(f, "width");
  action.height = dimensionField(f, "height");
  action.pts = mediaTimeField(f, "pts");
  action.seq = static_cast<std::uint64_t>(integerField(f, "seq"));
  action.pixelFormat = pixelFormatField(f);
  bool image = true;
  if (f.contains("image")) {
    if (!f["image"].is_boolean()) {
      throw ScriptError{"\"image\" must be true or false"};
    }
    image = f["image"].get<bool>();
  }
  PushedImage pushed;
  if (f.contains("attachments")) {
    const auto& attachments = f["attachments"];
    if (!attachments.is_object() ||
        !std::all_of(attachments.begin(), attachments.end(),
                     [](const auto& value) { return value.is_string(); })) {
      throw ScriptError{"\"attachments\" must be an object of strings"};
    }
    for (const auto& [key, value] : attachments.items()) {
      pushed.attachments.emplace_back(key, value.template get<std::string>());
    }
  }
  if (image) {
    action.image = std::move(pushed);
  }
  return action;
}

ActionKind parseFeed(const Json& f, ClientNames& clients) {
  Feed action;
  action.client = clients.knownField(f, "client");
  action.width = dimensionField(f, "width");
  action.height = dimensionField(f, "height");
  action.count = integerField(f, "count");
  if (action.count < 0 || action.count > 10'000'000) {
    throw ScriptError{"\"count\" must be between 0 and 10000000"};
  }
  action.fps = numberField(f, "fps");
  if (!(action.fps > 0 && action.fps <= 10'000)) {
    throw ScriptError{"\"fps\" must be above 0 and at most 10000"};
  }
  action.startPts = mediaTimeField(f, "startPts");
  if (f.contains("seqStart")) {
    action.seqStart = integerField(f, "seqStart");
  }
  action.pixelFormat = pixelFormatField(f);
  return action;
}

ActionKind parseFail(const Json& f, ClientNames& /*clients*/) {
  FailConsumeRequests action;
  action.count = integerField(f, "count");
  action.description = stringField(f, "description");
  return action;
}

ActionKind parseWait(const Json& /*f*/, ClientNames& /*clients*/) {
  return Wait{};
}

struct Verb {
  std::string_view name;
  ActionKind (*parse)(const Json& fields, ClientNames& clients);
};

// Every verb a script may use. A new verb is a row here, its action struct in ScriptActions.h
// and its `perform` overload in the runner (which the compiler asks for).
constexpr std::array kVerbs{
    Verb{"client", parseClient},
    Verb{"streaming", parseStreaming},
    Verb{"connect", parseConnect},
    Verb{"disconnect", parseDisconnect},
    Verb{"authorize", parseAuthorize},
    Verb{"start", parseStart},
    Verb{"stop", parseStop},
    Verb{"set", parseSet},
    Verb{"get", parseGet},
    Verb{"available", parseAvailable},
    Verb{"formats", parseFormats},
    Verb{"push", parsePush},
    Verb{"feed", parseFeed},
    Verb{"fail", parseFail},
    Verb{"wait", parseWait},
};

// --- Lines -----------------------------------------------------------------------------------

Action parseLine(const std::string& text, std::size_t line, double lastAt, ClientNames& clients) {
  Json fields;
  try {
    fields = Json::parse(text);
  } catch (const Json::exception& error) {
    // Syntax errors, and numbers too large for a double (out of range) alike.
    throw ScriptError{"not JSON: " + std::string(error.what())};
  }
  if (!fields.is_object()) {
    throw ScriptError{"each line must be a JSON object"};
  }
  Action action;
  action.line = line;
  action.verb = stringField(fields, "do");
  action.at = lastAt;
  if (fields.contains("at")) {
    action.at = numberField(fields, "at");
    if (!std::isfinite(action.at) || action.at < lastAt) {
      throw ScriptError{"\"at\" must be a finite number, not earlier than the line before"};
    }
  }
  const auto* verb = std::find_if(kVerbs.begin(), kVerbs.end(), [&](const Verb& candidate) {
    return candidate.name == action.verb;
  });
  if (verb == kVerbs.end()) {
    throw ScriptError{"unknown action \"" + action.verb + "\""};
  }
  action.kind = verb->parse(fields, clients);
  return action;
}

}  // namespace

ParsedScript parseScript(std::istream& script) {
  ParsedScript parsed;
  std::string text;
  std::size_t line = 0;
  double lastAt = 0.0;
  ClientNames clients;
  while (std::getline(script, text)) {
    ++line;
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos || text[first] == '#') {
      continue;
    }
    try {
      parsed.actions.push_back(parseLine(text, line, lastAt, clients));
    } catch (const ScriptError& error) {
      parsed.error = "line " + std::to_string(line) + ": " + error.message;
      return parsed;
    }
    lastAt = parsed.actions.back().at;
  }
  return parsed;
}

std::vector<std::string_view> scriptVerbs() {
  std::vector<std::string_view> names;
  names.reserve(kVerbs.size());
  for (const Verb& verb : kVerbs) {
    names.push_back(verb.name);
  }
  return names;
}

}  // namespace flowmere::sim
