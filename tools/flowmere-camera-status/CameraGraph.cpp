#include "CameraGraph.h"

#include <pipewire/pipewire.h>
#include <spa/debug/types.h>
#include <spa/param/format-utils.h>
#include <spa/param/video/format-utils.h>
#include <spa/param/video/type-info.h>
#include <spa/utils/result.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string_view>

#include "formats/FormatCatalogue.h"
#include "pipewire/PipeWireCameraService.h"
#include "pipewire/SpaDict.h"
#include "pipewire/SpaFormats.h"

namespace flowmere::status {

using pipewire::numberProperty;
using pipewire::textProperty;

namespace {

std::optional<GraphVideoFormat> parseVideoFormat(const spa_pod* param) {
  std::uint32_t mediaType = 0;
  std::uint32_t mediaSubtype = 0;
  if (param == nullptr || spa_format_parse(param, &mediaType, &mediaSubtype) < 0 ||
      mediaType != SPA_MEDIA_TYPE_video || mediaSubtype != SPA_MEDIA_SUBTYPE_raw) {
    return std::nullopt;
  }
  spa_video_info_raw info{};
  if (spa_format_video_raw_parse(param, &info) < 0) {
    return std::nullopt;
  }
  GraphVideoFormat format;
  format.width = info.size.width;
  format.height = info.size.height;
  const char* name = spa_debug_type_find_short_name(spa_type_video_format, info.format);
  format.pixelFormat = name ? name : "format " + std::to_string(info.format);
  const spa_fraction rate = info.framerate.num != 0 ? info.framerate : info.max_framerate;
  if (rate.num != 0 && rate.denom != 0) {
    format.fps = static_cast<double>(rate.num) / static_cast<double>(rate.denom);
  }
  if (info.transfer_function == pipewire::kSpaTransferSmpteSt2084) {
    format.transfer = "PQ";
  } else if (info.transfer_function == pipewire::kSpaTransferAribStdB67) {
    format.transfer = "HLG";
  }
  const std::shared_ptr<const platform::StreamFormatList> catalogue = makeFormatCatalogue();
  format.catalogueIndex = pipewire::catalogueIndexForVideoInfo(*catalogue, info);
  return format;
}

// One query: lists the registry, binds what it needs, and collects the answers. Every member is
// touched by PipeWire callbacks on the main loop, which runs on the caller's thread.
class GraphQuery {
 public:
  GraphQuery() = default;
  GraphQuery(const GraphQuery&) = delete;
  GraphQuery& operator=(const GraphQuery&) = delete;
  ~GraphQuery();

  CameraGraph run(std::chrono::milliseconds timeout);

 private:
  struct NodeGlobal {
    std::string name;
    std::optional<std::uint32_t> clientId;
  };
  // The registry's own properties of a client carry the process id its connection reported.
  struct ClientGlobal {
    std::optional<std::uint32_t> pid;
    std::string application;
  };
  struct LinkGlobal {
    std::uint32_t outputNode = 0;
    std::uint32_t inputNode = 0;
  };
  // A bound node or link and what its events told.
  struct Bound {
    GraphQuery* query = nullptr;
    std::uint32_t id = 0;
    pw_proxy* proxy = nullptr;
    spa_hook listener{};
    pw_properties* props = nullptr;  // a copy of a node's info properties
    std::optional<GraphVideoFormat> format;
    // A link's state; none until its info arrives (it never does for a link that went away).
    std::optional<pw_link_state> linkState;
  };

  static void onGlobal(void* data, std::uint32_t id, std::uint32_t permissions, const char* type,
                       std::uint32_t version, const spa_dict* props);
  static void onCoreDone(void* data, std::uint32_t id, int seq);
  static void onCoreError(void* data, std::uint32_t id, int seq, int res, const char* message);
  static void onNodeInfo(void* data, const pw_node_info* info);
  static void onNodeParam(void* data, int seq, std::uint32_t id, std::uint32_t index,
                          std::uint32_t next, const spa_pod* param);
  static void onLinkInfo(void* data, const pw_link_info* info);
  static void onTimeout(void* data, std::uint64_t expirations);

  // After the registry's listing: binds the camera's nodes, the links touching them and the
  // nodes at their other ends.
  void bindCameraObjects();
  Bound& bindNode(std::uint32_t id);
  void bindLink(std::uint32_t id);
  [[nodiscard]] GraphPeer peer(std::uint32_t nodeId) const;
  CameraGraph collect() const;

  pw_main_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  pw_registry* registry_ = nullptr;
  spa_hook coreListener_{};
  spa_hook registryListener_{};
  spa_source* timer_ = nullptr;
  int pendingSync_ = 0;
  bool bound_ = false;
  bool timedOut_ = false;
  std::string error_;

  const std::string sourceName_ = sourceNodeName();
  const std::string sinkName_ = sinkNodeName();
  std::map<std::uint32_t, NodeGlobal> nodes_;
  std::map<std::uint32_t, LinkGlobal> links_;
  std::map<std::uint32_t, ClientGlobal> clients_;
  std::optional<std::uint32_t> sourceNode_;
  std::optional<std::uint32_t> sinkNode_;
  std::map<std::uint32_t, std::unique_ptr<Bound>> boundNodes_;
  std::map<std::uint32_t, std::unique_ptr<Bound>> boundLinks_;
};

GraphQuery::~GraphQuery() {
  for (auto* bound : {&boundNodes_, &boundLinks_}) {
    for (auto& [id, object] : *bound) {
      spa_hook_remove(&object->listener);
      pw_proxy_destroy(object->proxy);
      if (object->props) {
        pw_properties_free(object->props);
      }
    }
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
}

CameraGraph GraphQuery::run(std::chrono::milliseconds timeout) {
  CameraGraph graph;
  loop_ = pw_main_loop_new(nullptr);
  context_ = loop_ ? pw_context_new(pw_main_loop_get_loop(loop_), nullptr, 0) : nullptr;
  core_ = context_ ? pw_context_connect(context_, nullptr, 0) : nullptr;
  if (!core_) {
    graph.problem = "PipeWire is not running for this user";
    return graph;
  }
  static const pw_core_events coreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    events.done = &GraphQuery::onCoreDone;
    events.error = &GraphQuery::onCoreError;
    return events;
  }();
  static const pw_registry_events registryEvents = [] {
    pw_registry_events events{};
    events.version = PW_VERSION_REGISTRY_EVENTS;
    events.global = &GraphQuery::onGlobal;
    return events;
  }();
  pw_core_add_listener(core_, &coreListener_, &coreEvents, this);
  registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
  pw_registry_add_listener(registry_, &registryListener_, &registryEvents, this);
  pendingSync_ = pw_core_sync(core_, PW_ID_CORE, 0);

  timer_ = pw_loop_add_timer(pw_main_loop_get_loop(loop_), &GraphQuery::onTimeout, this);
  const auto milliseconds = timeout.count();
  timespec value{static_cast<time_t>(milliseconds / 1000),
                 static_cast<long>(milliseconds % 1000) * 1'000'000};
  timespec once{0, 0};
  pw_loop_update_timer(pw_main_loop_get_loop(loop_), timer_, &value, &once, false);
  pw_main_loop_run(loop_);

  if (timedOut_) {
    graph.problem = "PipeWire did not answer within " + std::to_string(milliseconds) + " ms";
    return graph;
  }
  if (!error_.empty()) {
    graph.problem = "PipeWire refused the query: " + error_;
    return graph;
  }
  return collect();
}

void GraphQuery::onGlobal(void* data, std::uint32_t id, std::uint32_t /*permissions*/,
                          const char* type, std::uint32_t /*version*/, const spa_dict* props) {
  auto* self = static_cast<GraphQuery*>(data);
  if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
    std::string name = textProperty(props, PW_KEY_NODE_NAME);
    if (name == self->sourceName_) {
      self->sourceNode_ = id;
    } else if (name == self->sinkName_) {
      self->sinkNode_ = id;
    }
    self->nodes_[id] = NodeGlobal{std::move(name), numberProperty(props, PW_KEY_CLIENT_ID)};
  } else if (std::strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
    self->clients_[id] =
        ClientGlobal{numberProperty(props, PW_KEY_SEC_PID), textProperty(props, PW_KEY_APP_NAME)};
  } else if (std::strcmp(type, PW_TYPE_INTERFACE_Link) == 0) {
    const auto output = numberProperty(props, PW_KEY_LINK_OUTPUT_NODE);
    const auto input = numberProperty(props, PW_KEY_LINK_INPUT_NODE);
    if (output && input) {
      self->links_[id] = LinkGlobal{*output, *input};
    }
  }
}

void GraphQuery::onCoreDone(void* data, std::uint32_t id, int seq) {
  auto* self = static_cast<GraphQuery*>(data);
  if (id != PW_ID_CORE || seq != self->pendingSync_) {
    return;
  }
  // The first answer ends the registry's listing; the second, the bound objects' answers.
  if (!self->bound_) {
    self->bound_ = true;
    self->bindCameraObjects();
    self->pendingSync_ = pw_core_sync(self->core_, PW_ID_CORE, self->pendingSync_);
    return;
  }
  pw_main_loop_quit(self->loop_);
}

void GraphQuery::onCoreError(void* data, std::uint32_t id, int /*seq*/, int res,
                             const char* message) {
  auto* self = static_cast<GraphQuery*>(data);
  // An object that went away between the listing and the bind answers with an error of its own;
  // only an error of the connection itself ends the query.
  if (id == PW_ID_CORE) {
    self->error_ = message ? message : spa_strerror(res);
    pw_main_loop_quit(self->loop_);
  }
}

void GraphQuery::onTimeout(void* data, std::uint64_t /*expirations*/) {
  auto* self = static_cast<GraphQuery*>(data);
  self->timedOut_ = true;
  pw_main_loop_quit(self->loop_);
}

void GraphQuery::bindCameraObjects() {
  if (!sourceNode_ || !sinkNode_) {
    return;
  }
  bindNode(*sourceNode_);
  Bound& sink = bindNode(*sinkNode_);
  if (sink.proxy) {
    pw_node_enum_params(reinterpret_cast<pw_node*>(sink.proxy), 0, SPA_PARAM_Format, 0, UINT32_MAX,
                        nullptr);
  }
  for (const auto& [id, link] : links_) {
    if (link.inputNode == *sinkNode_) {
      bindLink(id);
      bindNode(link.outputNode);
    } else if (link.outputNode == *sourceNode_) {
      bindLink(id);
      bindNode(link.inputNode);
    }
  }
}

GraphQuery::Bound& GraphQuery::bindNode(std::uint32_t id) {
  auto& slot = boundNodes_[id];
  if (slot) {
    return *slot;
  }
  slot = std::make_unique<Bound>();
  slot->query = this;
  slot->id = id;
  static const pw_node_events nodeEvents = [] {
    pw_node_events events{};
    events.version = PW_VERSION_NODE_EVENTS;
    events.info = &GraphQuery::onNodeInfo;
    events.param = &GraphQuery::onNodeParam;
    return events;
  }();
  slot->proxy = static_cast<pw_proxy*>(
      pw_registry_bind(registry_, id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0));
  if (slot->proxy) {
    pw_proxy_add_object_listener(slot->proxy, &slot->listener, &nodeEvents, slot.get());
  }
  return *slot;
}

void GraphQuery::bindLink(std::uint32_t id) {
  auto& slot = boundLinks_[id];
  if (slot) {
    return;
  }
  slot = std::make_unique<Bound>();
  slot->query = this;
  slot->id = id;
  static const pw_link_events linkEvents = [] {
    pw_link_events events{};
    events.version = PW_VERSION_LINK_EVENTS;
    events.info = &GraphQuery::onLinkInfo;
    return events;
  }();
  slot->proxy = static_cast<pw_proxy*>(
      pw_registry_bind(registry_, id, PW_TYPE_INTERFACE_Link, PW_VERSION_LINK, 0));
  if (slot->proxy) {
    pw_proxy_add_object_listener(slot->proxy, &slot->listener, &linkEvents, slot.get());
  }
}

void GraphQuery::onNodeInfo(void* data, const pw_node_info* info) {
  auto* bound = static_cast<Bound*>(data);
  if (info && info->props && (info->change_mask & PW_NODE_CHANGE_MASK_PROPS) != 0) {
    if (bound->props) {
      pw_properties_free(bound->props);
    }
    bound->props = pw_properties_new_dict(info->props);
  }
}

void GraphQuery::onNodeParam(void* data, int /*seq*/, std::uint32_t id, std::uint32_t /*index*/,
                             std::uint32_t /*next*/, const spa_pod* param) {
  auto* bound = static_cast<Bound*>(data);
  if (id == SPA_PARAM_Format) {
    bound->format = parseVideoFormat(param);
  }
}

void GraphQuery::onLinkInfo(void* data, const pw_link_info* info) {
  auto* bound = static_cast<Bound*>(data);
  if (info) {
    bound->linkState = info->state;
  }
}

GraphPeer GraphQuery::peer(std::uint32_t nodeId) const {
  GraphPeer result;
  result.nodeId = nodeId;
  if (const auto node = nodes_.find(nodeId); node != nodes_.end()) {
    result.nodeName = node->second.name;
    const auto client =
        node->second.clientId ? clients_.find(*node->second.clientId) : clients_.end();
    if (client != clients_.end() && client->second.pid) {
      result.pid = static_cast<std::int32_t>(*client->second.pid);
    }
  }
  if (const auto bound = boundNodes_.find(nodeId);
      bound != boundNodes_.end() && bound->second->props) {
    const spa_dict* props = &bound->second->props->dict;
    result.application = textProperty(props, PW_KEY_APP_NAME);
    if (const auto pid = numberProperty(props, PW_KEY_APP_PROCESS_ID)) {
      result.pid = static_cast<std::int32_t>(*pid);
    }
    if (result.nodeName.empty()) {
      result.nodeName = textProperty(props, PW_KEY_NODE_NAME);
    }
  }
  return result;
}

CameraGraph GraphQuery::collect() const {
  CameraGraph graph;
  graph.sourceNode = sourceNode_;
  graph.sinkNode = sinkNode_;
  for (const auto& [id, client] : clients_) {
    if (!client.application.empty()) {
      graph.clientApplications.push_back(client.application);
    }
  }
  if (!sourceNode_ || !sinkNode_) {
    return graph;
  }
  if (const auto source = boundNodes_.find(*sourceNode_);
      source != boundNodes_.end() && source->second->props) {
    const pw_properties* props = source->second->props;
    if (const char* value = pw_properties_get(props, kTimelineProperty)) {
      graph.timeline = value;
    }
    const char* idle = pw_properties_get(props, "flowmere.idle-picture");
    graph.idlePicture = idle && std::string_view(idle) == "true";
    graph.sourceMediaClass = textProperty(&props->dict, PW_KEY_MEDIA_CLASS);
    graph.sourceMediaRole = textProperty(&props->dict, PW_KEY_MEDIA_ROLE);
    graph.sourceSerial = numberProperty(&props->dict, PW_KEY_OBJECT_SERIAL);
  }
  if (const auto sink = boundNodes_.find(*sinkNode_); sink != boundNodes_.end()) {
    graph.sinkFormat = sink->second->format;
  }
  std::set<std::uint32_t> producers;
  std::set<std::uint32_t> clients;
  for (const auto& [id, link] : links_) {
    const auto bound = boundLinks_.find(id);
    if (bound == boundLinks_.end() || !bound->second->linkState ||
        *bound->second->linkState == PW_LINK_STATE_ERROR ||
        *bound->second->linkState == PW_LINK_STATE_UNLINKED) {
      continue;
    }
    if (link.inputNode == *sinkNode_ && producers.insert(link.outputNode).second) {
      graph.producers.push_back(peer(link.outputNode));
    } else if (link.outputNode == *sourceNode_ && clients.insert(link.inputNode).second) {
      graph.clients.push_back(peer(link.inputNode));
    }
  }
  return graph;
}

}  // namespace

std::string sourceNodeName() {
  return pipewire::PipeWireOptions().nodeNamePrefix + "-source";
}

std::string sinkNodeName() {
  return pipewire::PipeWireOptions().nodeNamePrefix + "-sink";
}

CameraGraph queryCameraGraph(std::chrono::milliseconds timeout) {
  GraphQuery query;
  return query.run(timeout);
}

}  // namespace flowmere::status
