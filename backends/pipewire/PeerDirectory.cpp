#include "PeerDirectory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "SpaDict.h"

namespace flowmere::pipewire {

namespace {

// A stable identifier per PipeWire client id within this process's lifetime.
platform::Uuid uuidForClient(std::uint32_t id) {
  std::array<char, 37> text{};
  std::snprintf(text.data(), text.size(), "00000000-0000-4000-9000-%012X", id);
  return *platform::Uuid::fromString(text.data());
}

const pw_registry_events kRegistryEvents = [] {
  pw_registry_events events{};
  events.version = PW_VERSION_REGISTRY_EVENTS;
  return events;
}();

}  // namespace

PeerDirectory::~PeerDirectory() {
  detach();
}

void PeerDirectory::attach(pw_core* core) {
  static const pw_registry_events events = [] {
    pw_registry_events result = kRegistryEvents;
    result.global = &PeerDirectory::onGlobal;
    result.global_remove = &PeerDirectory::onGlobalRemove;
    return result;
  }();
  registry_ = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
  if (registry_) {
    pw_registry_add_listener(registry_, &registryListener_, &events, this);
  }
}

void PeerDirectory::detach() {
  for (auto& [id, client] : clients_) {
    if (client->proxy) {
      spa_hook_remove(&client->listener);
      pw_proxy_destroy(client->proxy);
      client->proxy = nullptr;
    }
  }
  clients_.clear();
  links_.clear();
  nodeClients_.clear();
  if (registry_) {
    spa_hook_remove(&registryListener_);
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
    registry_ = nullptr;
  }
}

void PeerDirectory::onGlobal(void* data, std::uint32_t id, std::uint32_t /*permissions*/,
                             const char* type, std::uint32_t /*version*/, const spa_dict* props) {
  auto* self = static_cast<PeerDirectory*>(data);
  if (std::strcmp(type, PW_TYPE_INTERFACE_Link) == 0) {
    const auto output = numberProperty(props, PW_KEY_LINK_OUTPUT_NODE);
    const auto input = numberProperty(props, PW_KEY_LINK_INPUT_NODE);
    if (output && input) {
      self->links_[id] = Link{*output, *input, ++self->linksSeen_};
      self->changed_();
    }
  } else if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
    if (const auto client = numberProperty(props, PW_KEY_CLIENT_ID)) {
      self->nodeClients_[id] = *client;
    }
  } else if (std::strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
    auto info = std::make_unique<ClientInfo>();
    // The registry's own properties carry the process id the connection reported; the
    // application name arrives with the client's info, so the client is bound to hear it.
    if (const auto pid = numberProperty(props, PW_KEY_SEC_PID)) {
      info->pid = static_cast<std::int32_t>(*pid);
    }
    static const pw_client_events clientEvents = [] {
      pw_client_events events{};
      events.version = PW_VERSION_CLIENT_EVENTS;
      events.info = &PeerDirectory::onClientInfo;
      return events;
    }();
    info->proxy = static_cast<pw_proxy*>(
        pw_registry_bind(self->registry_, id, PW_TYPE_INTERFACE_Client, PW_VERSION_CLIENT, 0));
    ClientInfo* raw = info.get();
    self->clients_[id] = std::move(info);
    if (raw->proxy) {
      pw_proxy_add_object_listener(raw->proxy, &raw->listener, &clientEvents, self);
    }
    self->updateClient(id, props);
  }
}

void PeerDirectory::onGlobalRemove(void* data, std::uint32_t id) {
  auto* self = static_cast<PeerDirectory*>(data);
  if (self->links_.erase(id) > 0) {
    self->changed_();
    return;
  }
  if (self->nodeClients_.erase(id) > 0) {
    return;
  }
  self->forgetClient(id);
}

void PeerDirectory::onClientInfo(void* data, const pw_client_info* info) {
  auto* self = static_cast<PeerDirectory*>(data);
  if (info && (info->change_mask & PW_CLIENT_CHANGE_MASK_PROPS) != 0) {
    self->updateClient(info->id, info->props);
    self->changed_();
  }
}

void PeerDirectory::updateClient(std::uint32_t id, const spa_dict* props) {
  auto found = clients_.find(id);
  if (found == clients_.end()) {
    return;
  }
  ClientInfo& info = *found->second;
  if (const auto pid = numberProperty(props, PW_KEY_APP_PROCESS_ID)) {
    info.pid = static_cast<std::int32_t>(*pid);
  } else if (const auto secPid = numberProperty(props, PW_KEY_SEC_PID)) {
    info.pid = static_cast<std::int32_t>(*secPid);
  }
  if (const char* name = props ? spa_dict_lookup(props, PW_KEY_APP_NAME) : nullptr) {
    info.applicationName = name;
  }
  std::string description =
      info.applicationName.empty() ? "pipewire client " + std::to_string(id) : info.applicationName;
  info.client =
      std::make_shared<const platform::Client>(uuidForClient(id), info.pid, std::move(description));
}

void PeerDirectory::forgetClient(std::uint32_t id) {
  auto found = clients_.find(id);
  if (found == clients_.end()) {
    return;
  }
  if (found->second->proxy) {
    spa_hook_remove(&found->second->listener);
    pw_proxy_destroy(found->second->proxy);
  }
  clients_.erase(found);
  changed_();
}

std::shared_ptr<const platform::Client> PeerDirectory::clientForNode(std::uint32_t nodeID) const {
  const auto node = nodeClients_.find(nodeID);
  if (node == nodeClients_.end()) {
    return nullptr;
  }
  const auto client = clients_.find(node->second);
  return client == clients_.end() ? nullptr : client->second->client;
}

std::vector<std::shared_ptr<const platform::Client>> PeerDirectory::peersOf(
    std::uint32_t nodeID) const {
  std::vector<std::shared_ptr<const platform::Client>> peers;
  for (const auto& [id, link] : links_) {
    std::uint32_t peerNode = 0;
    if (link.inputNode == nodeID) {
      peerNode = link.outputNode;
    } else if (link.outputNode == nodeID) {
      peerNode = link.inputNode;
    } else {
      continue;
    }
    auto client = clientForNode(peerNode);
    if (!client) {
      continue;
    }
    bool known = false;
    for (const auto& existing : peers) {
      known = known || existing == client;
    }
    if (!known) {
      peers.push_back(std::move(client));
    }
  }
  return peers;
}

std::vector<PeerDirectory::PeerLink> PeerDirectory::linksOf(std::uint32_t nodeID) const {
  std::vector<std::pair<std::uint64_t, PeerLink>> found;
  for (const auto& [id, link] : links_) {
    if (link.inputNode == nodeID || link.outputNode == nodeID) {
      const std::uint32_t peer = link.inputNode == nodeID ? link.outputNode : link.inputNode;
      found.emplace_back(link.order, PeerLink{id, clientForNode(peer)});
    }
  }
  std::sort(found.begin(), found.end(),
            [](const auto& left, const auto& right) { return left.first < right.first; });
  std::vector<PeerLink> links;
  links.reserve(found.size());
  for (auto& [order, link] : found) {
    links.push_back(std::move(link));
  }
  return links;
}

int PeerDirectory::destroyLink(std::uint32_t id) {
  return registry_ ? pw_registry_destroy(registry_, id) : -ENOTCONN;
}

}  // namespace flowmere::pipewire
