#include "StatusOutput.h"

#include <algorithm>
#include <string>
#include <vector>

namespace flowmere::status {

namespace {

std::string describeAge(const std::optional<double>& seconds) {
  if (!seconds) {
    return "?";
  }
  char text[32];
  if (*seconds < 10) {
    std::snprintf(text, sizeof text, "%.2f s ago", *seconds < 0 ? 0.0 : *seconds);
  } else if (*seconds < 120) {
    std::snprintf(text, sizeof text, "%.1f s ago", *seconds);
  } else if (*seconds < 7200) {
    std::snprintf(text, sizeof text, "%.0f min ago", *seconds / 60);
  } else {
    std::snprintf(text, sizeof text, "%.1f h ago", *seconds / 3600);
  }
  return text;
}

std::string describePeer(const GraphPeer& peer) {
  std::string text = peer.application.empty() ? peer.nodeName : peer.application;
  if (text.empty()) {
    text = "node " + std::to_string(peer.nodeId);
  }
  if (peer.pid >= 0) {
    text += " (pid " + std::to_string(peer.pid) + ")";
  }
  return text;
}

std::string describeFormat(const GraphVideoFormat& format) {
  char text[128];
  std::snprintf(text, sizeof text, "%ux%u %s%s%s", format.width, format.height,
                format.pixelFormat.c_str(), format.transfer.empty() ? "" : " ",
                format.transfer.c_str());
  std::string result = text;
  if (format.fps > 0) {
    std::snprintf(text, sizeof text, " at %g fps", format.fps);
    result += text;
  }
  if (format.catalogueIndex) {
    result += " (catalogue format " + std::to_string(*format.catalogueIndex) + ")";
  }
  return result;
}

void printStoredTable(const StoredStatus& stored, std::FILE* out) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : stored.stored) {
    keys.push_back(key);
  }
  for (const auto& [name, file] : stored.files) {
    if (!stored.stored.contains(name)) {
      keys.push_back(name);
    }
  }
  if (keys.empty()) {
    std::fprintf(out, "\n  The camera extension has recorded nothing for this user yet.\n");
    return;
  }
  struct Row {
    std::string key, value, file, written;
  };
  std::vector<Row> rows{{"KEY", "STORED VALUE", "STATE FILE", "WRITTEN"}};
  for (const std::string& key : keys) {
    const auto value = stored.stored.find(key);
    const auto file = stored.files.find(key);
    rows.push_back({key, value == stored.stored.end() ? "-" : describeStoredValue(value->second),
                    file == stored.files.end() ? "-" : file->second.text,
                    file == stored.files.end() ? "-" : describeAge(file->second.ageSeconds)});
  }
  int keyWidth = 0;
  int valueWidth = 0;
  int fileWidth = 0;
  for (const Row& row : rows) {
    keyWidth = std::max(keyWidth, static_cast<int>(row.key.size()));
    valueWidth = std::max(valueWidth, static_cast<int>(row.value.size()));
    fileWidth = std::max(fileWidth, static_cast<int>(row.file.size()));
  }
  std::fprintf(out, "\n");
  for (const Row& row : rows) {
    std::fprintf(out, "  %-*s  %-*s  %-*s  %s\n", keyWidth, row.key.c_str(), valueWidth,
                 row.value.c_str(), fileWidth, row.file.c_str(), row.written.c_str());
  }
}

nlohmann::json peerJson(const GraphPeer& peer) {
  nlohmann::json json = {{"nodeId", peer.nodeId}, {"node", peer.nodeName}};
  json["application"] =
      peer.application.empty() ? nlohmann::json() : nlohmann::json(peer.application);
  json["pid"] = peer.pid >= 0 ? nlohmann::json(peer.pid) : nlohmann::json();
  return json;
}

// A text, or null when it is empty.
nlohmann::json textOrNull(const std::string& text) {
  return text.empty() ? nlohmann::json() : nlohmann::json(text);
}

template <typename T>
nlohmann::json optionalJson(const std::optional<T>& value) {
  return value ? nlohmann::json(*value) : nlohmann::json();
}

}  // namespace

void printReport(const StatusReport& report, std::FILE* out) {
  const CameraGraph& graph = report.graph;
  std::fprintf(out, "Flowmere Camera: %s\n\n", report.verdictText.c_str());

  if (graph.serviceRunning()) {
    std::fprintf(out, "  camera service  running (nodes %s and %s)\n", sourceNodeName().c_str(),
                 sinkNodeName().c_str());
  } else {
    const std::string why = graph.problem.empty()
                                ? "PipeWire runs, but has no node " + sourceNodeName()
                                : graph.problem;
    std::fprintf(out, "  camera service  not running: %s\n", why.c_str());
    std::fprintf(out, "  to start it     systemctl --user start flowmere-camera-extension\n");
  }
  if (graph.serviceRunning()) {
    if (graph.producers.empty()) {
      std::fprintf(out, "  producer        none linked to %s (a producer targets that node)\n",
                   sinkNodeName().c_str());
    }
    for (const GraphPeer& producer : graph.producers) {
      std::fprintf(out, "  producer        %s", describePeer(producer).c_str());
      if (graph.sinkFormat) {
        std::fprintf(out, ", %s", describeFormat(*graph.sinkFormat).c_str());
      }
      std::fprintf(out, "\n");
    }
    std::string clients = std::to_string(graph.clients.size());
    for (std::size_t i = 0; i < graph.clients.size(); ++i) {
      clients += (i == 0 ? ": " : ", ") + describePeer(graph.clients[i]);
    }
    std::fprintf(out, "  clients         %s\n", clients.c_str());
  }
  if (report.frameRate) {
    std::fprintf(out, "  frame rate      %.1f fps over the last %.1f s\n", *report.frameRate,
                 report.intervalSeconds);
  }
  if (report.framesReceived) {
    std::fprintf(out, "  frames          %lld since the last producer start",
                 static_cast<long long>(*report.framesReceived));
    if (report.lastFrameAgeSeconds) {
      std::fprintf(out, ", the last %s", describeAge(report.lastFrameAgeSeconds).c_str());
    }
    std::fprintf(out, "\n");
  }
  if (graph.serviceRunning()) {
    std::fprintf(out, "  live timeline   %s\n",
                 graph.timeline ? graph.timeline->c_str() : "(not published yet)");
  }

  const StoredStatus& stored = report.stored;
  std::fprintf(out, "\n  settings store  %s%s\n",
               stored.database.empty() ? "(no container)" : stored.database.c_str(),
               stored.stored.empty() ? " (nothing stored)" : "");
  std::fprintf(out, "  state files     %s%s\n", stored.stateDirectory.c_str(),
               stored.files.empty() ? " (none)" : "");
  printStoredTable(stored, out);
}

nlohmann::json reportJson(const StatusReport& report) {
  const CameraGraph& graph = report.graph;
  nlohmann::json json;
  json["verdict"] = report.verdictText;
  json["relaying"] = report.verdict == Verdict::kRelaying;
  json["idlePicture"] = graph.idlePicture;

  nlohmann::json service = {{"running", graph.serviceRunning()},
                            {"sourceNode", sourceNodeName()},
                            {"sinkNode", sinkNodeName()}};
  service["sourceNodeId"] = optionalJson(graph.sourceNode);
  service["sinkNodeId"] = optionalJson(graph.sinkNode);
  service["problem"] = textOrNull(graph.problem);
  json["service"] = service;

  json["producer"] = graph.producers.empty() ? nlohmann::json() : peerJson(graph.producers.front());
  if (graph.sinkFormat) {
    const GraphVideoFormat& format = *graph.sinkFormat;
    json["format"] = {{"width", format.width},
                      {"height", format.height},
                      {"pixelFormat", format.pixelFormat},
                      {"fps", format.fps},
                      {"transfer", textOrNull(format.transfer)},
                      {"catalogueIndex", optionalJson(format.catalogueIndex)}};
  } else {
    json["format"] = nullptr;
  }
  json["clientCount"] = graph.clients.size();
  json["clients"] = nlohmann::json::array();
  for (const GraphPeer& client : graph.clients) {
    json["clients"].push_back(peerJson(client));
  }
  json["frameRate"] = optionalJson(report.frameRate);
  json["intervalSeconds"] = report.intervalSeconds;
  json["framesReceived"] = optionalJson(report.framesReceived);
  json["lastFrameAgeSeconds"] = optionalJson(report.lastFrameAgeSeconds);
  json["timeline"] = nullptr;
  if (graph.timeline) {
    // The property is itself JSON; anything else is passed on as the text it is.
    nlohmann::json parsed = nlohmann::json::parse(*graph.timeline, nullptr, false);
    json["timeline"] = parsed.is_discarded() ? nlohmann::json(*graph.timeline) : parsed;
  }

  const StoredStatus& stored = report.stored;
  json["settingsStore"] = textOrNull(stored.database.string());
  json["stateDirectory"] = stored.stateDirectory.string();
  json["stored"] = nlohmann::json::object();
  for (const auto& [key, value] : stored.stored) {
    nlohmann::json& slot = json["stored"][key];
    std::visit([&slot](const auto& held) { slot = held; }, value);
  }
  json["stateFiles"] = nlohmann::json::object();
  for (const auto& [name, file] : stored.files) {
    json["stateFiles"][name] = {{"text", file.text}, {"ageSeconds", optionalJson(file.ageSeconds)}};
  }
  return json;
}

}  // namespace flowmere::status
