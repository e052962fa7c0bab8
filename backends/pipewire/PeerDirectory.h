#pragma once

// Who is linked to our nodes: a view of the PipeWire registry's nodes, clients and links, from
// which each stream learns its peers' processes (process id and application name).
//
// Loop thread only: every member is touched by registry callbacks or by streams running on the
// loop thread, with the loop lock held.

#include <pipewire/pipewire.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/Client.h"

namespace flowmere::pipewire {

class PeerDirectory {
 public:
  // `changed` runs (on the loop thread) after any link or client change.
  explicit PeerDirectory(std::function<void()> changed) : changed_(std::move(changed)) {}
  ~PeerDirectory();
  PeerDirectory(const PeerDirectory&) = delete;
  PeerDirectory& operator=(const PeerDirectory&) = delete;

  void attach(pw_core* core);
  void detach();

  // The clients owning the nodes linked to `nodeID`, each once, in link order.
  [[nodiscard]] std::vector<std::shared_ptr<const platform::Client>> peersOf(
      std::uint32_t nodeID) const;

  // One link of a node, with the client at its other end (null while the registry has not
  // named it).
  struct PeerLink {
    std::uint32_t id = 0;
    std::shared_ptr<const platform::Client> client;
  };
  // The links of `nodeID`, oldest first.
  [[nodiscard]] std::vector<PeerLink> linksOf(std::uint32_t nodeID) const;
  // Asks PipeWire to destroy link `id` (the service may remove links to its own nodes); both
  // ends see the link go. Returns PipeWire's result.
  int destroyLink(std::uint32_t id);

 private:
  struct ClientInfo {
    std::int32_t pid = -1;
    std::string applicationName;
    pw_proxy* proxy = nullptr;
    spa_hook listener{};
    std::shared_ptr<const platform::Client> client;  // rebuilt when the info changes
  };
  struct Link {
    std::uint32_t outputNode = 0;
    std::uint32_t inputNode = 0;
    std::uint64_t order = 0;  // when the registry announced it (PipeWire reuses ids)
  };

  static void onGlobal(void* data, std::uint32_t id, std::uint32_t permissions, const char* type,
                       std::uint32_t version, const spa_dict* props);
  static void onGlobalRemove(void* data, std::uint32_t id);
  static void onClientInfo(void* data, const pw_client_info* info);

  void updateClient(std::uint32_t id, const spa_dict* props);
  void forgetClient(std::uint32_t id);
  std::shared_ptr<const platform::Client> clientForNode(std::uint32_t nodeID) const;

  std::function<void()> changed_;
  pw_registry* registry_ = nullptr;
  spa_hook registryListener_{};
  std::map<std::uint32_t, std::uint32_t> nodeClients_;  // node id -> client id
  std::map<std::uint32_t, std::unique_ptr<ClientInfo>> clients_;
  std::map<std::uint32_t, Link> links_;
  std::uint64_t linksSeen_ = 0;
};

}  // namespace flowmere::pipewire
