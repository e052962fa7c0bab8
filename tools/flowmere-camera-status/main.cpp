// flowmere-camera-status: what the camera extension last recorded, for a person at a terminal.
//
//   flowmere-camera-status [--no-live]
//
// Reads the application group's settings store and state files the way any other process of the
// group does (read-only; nothing is created), and asks PipeWire for the source node's live
// timeline property unless --no-live is given. Exits 0 when anything was found, 1 when the
// extension has recorded nothing for this user, 2 on bad usage.
//
// Single-threaded: PipeWire's main loop runs on the main thread for the one query.

#include <pipewire/pipewire.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VendorIdentifiers.h"
#include "common/PosixFileManager.h"
#include "common/SqliteSettingsSuite.h"

namespace {

using flowmere::common::PosixFileManager;
using flowmere::common::SqliteSettingsSuite;

constexpr std::string_view kSourceNodeName = "flowmere-camera-source";
constexpr std::string_view kTimelineProperty = "4cc_fwtc_glob_0000";
constexpr int kLiveQueryTimeoutSeconds = 2;

struct StateFile {
  std::string text;
  std::optional<double> ageSeconds;
};

// The state files of one directory, by name; empty when it does not exist.
std::map<std::string, StateFile> readStateFiles(const std::filesystem::path& directory) {
  std::map<std::string, StateFile> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    // The writers' auxiliary files start with a dot and are replaced by rename.
    const std::string name = entry.path().filename().string();
    if (name.empty() || name.front() == '.' || !entry.is_regular_file(error)) {
      continue;
    }
    std::ifstream in(entry.path(), std::ios::binary);
    StateFile file;
    file.text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    const auto written = std::filesystem::last_write_time(entry.path(), error);
    if (!error) {
      file.ageSeconds =
          std::chrono::duration<double>(std::filesystem::file_time_type::clock::now() - written)
              .count();
    }
    files.emplace(name, std::move(file));
  }
  return files;
}

std::string describe(const SqliteSettingsSuite::Value& value) {
  if (const auto* integer = std::get_if<std::int64_t>(&value)) {
    return std::to_string(*integer);
  }
  if (const auto* real = std::get_if<double>(&value)) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", *real);
    return text;
  }
  return std::get<std::string>(value);
}

std::string describeAge(const std::optional<double>& seconds) {
  if (!seconds) {
    return "?";
  }
  char text[32];
  if (*seconds < 120) {
    std::snprintf(text, sizeof text, "%.1f s ago", *seconds < 0 ? 0.0 : *seconds);
  } else if (*seconds < 7200) {
    std::snprintf(text, sizeof text, "%.0f min ago", *seconds / 60);
  } else {
    std::snprintf(text, sizeof text, "%.1f h ago", *seconds / 3600);
  }
  return text;
}

// One round trip to PipeWire: finds the source node, binds it and reads its properties.
class LiveTimelineQuery {
 public:
  // The property's text; or nothing, with `problem` saying why.
  std::optional<std::string> run(std::string& problem) {
    pw_init(nullptr, nullptr);
    loop_ = pw_main_loop_new(nullptr);
    context_ = loop_ ? pw_context_new(pw_main_loop_get_loop(loop_), nullptr, 0) : nullptr;
    core_ = context_ ? pw_context_connect(context_, nullptr, 0) : nullptr;
    if (!core_) {
      problem = "PipeWire is not running for this user";
      return std::nullopt;
    }
    static const pw_core_events coreEvents = [] {
      pw_core_events events{};
      events.version = PW_VERSION_CORE_EVENTS;
      events.done = &LiveTimelineQuery::onCoreDone;
      return events;
    }();
    static const pw_registry_events registryEvents = [] {
      pw_registry_events events{};
      events.version = PW_VERSION_REGISTRY_EVENTS;
      events.global = &LiveTimelineQuery::onGlobal;
      return events;
    }();
    pw_core_add_listener(core_, &coreListener_, &coreEvents, this);
    registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(registry_, &registryListener_, &registryEvents, this);
    pendingSync_ = pw_core_sync(core_, PW_ID_CORE, 0);

    spa_source* timer =
        pw_loop_add_timer(pw_main_loop_get_loop(loop_), &LiveTimelineQuery::onTimeout, this);
    timespec timeout{kLiveQueryTimeoutSeconds, 0};
    timespec once{0, 0};
    pw_loop_update_timer(pw_main_loop_get_loop(loop_), timer, &timeout, &once, false);
    pw_main_loop_run(loop_);

    if (timedOut_) {
      problem = "PipeWire did not answer within " + std::to_string(kLiveQueryTimeoutSeconds) + " s";
      return std::nullopt;
    }
    if (!node_) {
      problem = "the camera is not published on PipeWire (is flowmere-camera-extension running?)";
      return std::nullopt;
    }
    if (!timeline_) {
      problem = "the camera has not published a timeline yet";
    }
    return timeline_;
  }

  LiveTimelineQuery() = default;
  LiveTimelineQuery(const LiveTimelineQuery&) = delete;
  LiveTimelineQuery& operator=(const LiveTimelineQuery&) = delete;
  ~LiveTimelineQuery() {
    if (node_) {
      spa_hook_remove(&nodeListener_);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(node_));
    }
    if (registry_) {
      spa_hook_remove(&registryListener_);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
    }
    if (core_) {
      spa_hook_remove(&coreListener_);
      pw_core_disconnect(core_);
    }
    if (context_) {
      pw_context_destroy(context_);
    }
    if (loop_) {
      pw_main_loop_destroy(loop_);
    }
    pw_deinit();
  }

 private:
  static void onGlobal(void* data, std::uint32_t id, std::uint32_t /*permissions*/,
                       const char* type, std::uint32_t /*version*/, const spa_dict* props) {
    auto* self = static_cast<LiveTimelineQuery*>(data);
    const char* name = props ? spa_dict_lookup(props, PW_KEY_NODE_NAME) : nullptr;
    if (self->node_ || std::string_view(type) != PW_TYPE_INTERFACE_Node || !name ||
        kSourceNodeName != name) {
      return;
    }
    static const pw_node_events nodeEvents = [] {
      pw_node_events events{};
      events.version = PW_VERSION_NODE_EVENTS;
      events.info = &LiveTimelineQuery::onNodeInfo;
      return events;
    }();
    self->node_ = static_cast<pw_node*>(
        pw_registry_bind(self->registry_, id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0));
    if (self->node_) {
      pw_node_add_listener(self->node_, &self->nodeListener_, &nodeEvents, self);
    }
  }

  static void onNodeInfo(void* data, const pw_node_info* info) {
    auto* self = static_cast<LiveTimelineQuery*>(data);
    if (const char* value =
            info->props ? spa_dict_lookup(info->props, kTimelineProperty.data()) : nullptr) {
      self->timeline_ = value;
    }
  }

  static void onCoreDone(void* data, std::uint32_t id, int seq) {
    auto* self = static_cast<LiveTimelineQuery*>(data);
    if (id != PW_ID_CORE || seq != self->pendingSync_) {
      return;
    }
    // The first answer ends the registry's listing; the second, the bound node's info.
    if (self->node_ && !self->nodeSynced_) {
      self->nodeSynced_ = true;
      self->pendingSync_ = pw_core_sync(self->core_, PW_ID_CORE, self->pendingSync_);
      return;
    }
    pw_main_loop_quit(self->loop_);
  }

  static void onTimeout(void* data, std::uint64_t /*expirations*/) {
    auto* self = static_cast<LiveTimelineQuery*>(data);
    self->timedOut_ = true;
    pw_main_loop_quit(self->loop_);
  }

  pw_main_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  pw_registry* registry_ = nullptr;
  pw_node* node_ = nullptr;
  spa_hook coreListener_{};
  spa_hook registryListener_{};
  spa_hook nodeListener_{};
  int pendingSync_ = 0;
  bool nodeSynced_ = false;
  bool timedOut_ = false;
  std::optional<std::string> timeline_;
};

}  // namespace

int main(int argc, char** argv) {
  bool live = true;
  for (int index = 1; index < argc; ++index) {
    const std::string_view argument = argv[index];
    if (argument == "--no-live") {
      live = false;
    } else {
      std::fprintf(stderr,
                   "usage: flowmere-camera-status [--no-live]\n"
                   "  prints the camera extension's status and frame counts from the settings\n"
                   "  store and the state files, and the live timeline from PipeWire\n");
      return argument == "--help" || argument == "-h" ? 0 : 2;
    }
  }

  const std::optional<std::filesystem::path> parent = PosixFileManager::defaultContainerParent();
  std::optional<std::filesystem::path> container;
  if (parent) {
    container = *parent / std::string(flowmere::kApplicationGroupIdentifier);
  }
  const std::string stateName(flowmere::kStateDirectoryName);

  std::map<std::string, SqliteSettingsSuite::Value> stored;
  std::filesystem::path database;
  if (container) {
    database = SqliteSettingsSuite::defaultDatabaseFile(*container);
    std::error_code error;
    if (std::filesystem::exists(database, error)) {
      stored = SqliteSettingsSuite::readAll(database);
    }
  }
  // The container's state directory, else the fallback the extension uses when it has none.
  std::filesystem::path stateDirectory =
      container ? *container / stateName : std::filesystem::path();
  std::map<std::string, StateFile> files = readStateFiles(stateDirectory);
  if (files.empty()) {
    std::error_code error;
    stateDirectory = std::filesystem::temp_directory_path(error) / stateName;
    files = readStateFiles(stateDirectory);
  }

  std::printf("Flowmere Camera status\n");
  std::printf("  settings store: %s%s\n", database.empty() ? "(no container)" : database.c_str(),
              stored.empty() ? " (nothing stored)" : "");
  std::printf("  state files:    %s%s\n", stateDirectory.c_str(), files.empty() ? " (none)" : "");

  std::vector<std::string> keys;
  keys.reserve(stored.size() + files.size());
  for (const auto& [key, value] : stored) {
    keys.push_back(key);
  }
  for (const auto& [name, file] : files) {
    if (!stored.contains(name)) {
      keys.push_back(name);
    }
  }
  if (!keys.empty()) {
    struct Row {
      std::string key, value, file, written;
    };
    std::vector<Row> rows{{"KEY", "STORED VALUE", "STATE FILE", "WRITTEN"}};
    for (const std::string& key : keys) {
      const auto value = stored.find(key);
      const auto file = files.find(key);
      rows.push_back({key, value == stored.end() ? "-" : describe(value->second),
                      file == files.end() ? "-" : file->second.text,
                      file == files.end() ? "-" : describeAge(file->second.ageSeconds)});
    }
    std::size_t keyWidth = 0;
    std::size_t valueWidth = 0;
    std::size_t fileWidth = 0;
    for (const Row& row : rows) {
      keyWidth = std::max(keyWidth, row.key.size());
      valueWidth = std::max(valueWidth, row.value.size());
      fileWidth = std::max(fileWidth, row.file.size());
    }
    std::printf("\n");
    for (const Row& row : rows) {
      std::printf("  %-*s  %-*s  %-*s  %s\n", static_cast<int>(keyWidth), row.key.c_str(),
                  static_cast<int>(valueWidth), row.value.c_str(), static_cast<int>(fileWidth),
                  row.file.c_str(), row.written.c_str());
    }
  }

  if (live) {
    std::string problem;
    LiveTimelineQuery query;
    const std::optional<std::string> timeline = query.run(problem);
    std::printf("\n  live timeline (%s %s): %s\n", std::string(kSourceNodeName).c_str(),
                std::string(kTimelineProperty).c_str(),
                timeline ? timeline->c_str() : problem.c_str());
  }

  if (keys.empty()) {
    std::printf("\nThe camera extension has recorded nothing for this user yet.\n");
    return 1;
  }
  return 0;
}
