#pragma once

// The settings suites the embedded service hands out. Every suite name maps to one store, shared
// by all the handles opened on it, so that two recorders writing the same key keep
// last-writer-wins order; the service's observers hear every write.

#include <cstdint>
#include <memory>
#include <string_view>

#include "ObserverList.h"
#include "platform/Properties.h"
#include "platform/Services.h"

namespace flowmere::embedded {

// Settings writes: (key, value).
using SettingsWriteObservers = ObserverList<std::string_view, const platform::PropertyValue&>;

// Writes through to `store`, then tells the observers. Any thread: the store and the observer
// list lock for themselves. `observers` is borrowed and must outlive this object.
class SharedSettingsStore final : public platform::SettingsSuite {
 public:
  SharedSettingsStore(std::shared_ptr<platform::SettingsSuite> store,
                      const SettingsWriteObservers& observers)
      : store_(std::move(store)), observers_(observers) {}

  void setInteger(std::string_view key, std::int64_t value) override;
  void setDouble(std::string_view key, double value) override;
  void setObject(std::string_view key, std::string_view value) override;

 private:
  const std::shared_ptr<platform::SettingsSuite> store_;
  const SettingsWriteObservers& observers_;
};

// A handle of its own onto a shared store: each opener gets a distinct object. Any thread.
class SettingsHandle final : public platform::SettingsSuite {
 public:
  explicit SettingsHandle(std::shared_ptr<SharedSettingsStore> store) : store_(std::move(store)) {}

  void setInteger(std::string_view key, std::int64_t value) override {
    store_->setInteger(key, value);
  }
  void setDouble(std::string_view key, double value) override { store_->setDouble(key, value); }
  void setObject(std::string_view key, std::string_view value) override {
    store_->setObject(key, value);
  }

 private:
  const std::shared_ptr<SharedSettingsStore> store_;
};

// Keeps nothing: for tests and benchmarks that leave the disk out. The observers of the shared
// store in front of it still hear every write. Stateless; any thread.
class DiscardingSettingsSuite final : public platform::SettingsSuite {
 public:
  void setInteger(std::string_view /*key*/, std::int64_t /*value*/) override {}
  void setDouble(std::string_view /*key*/, double /*value*/) override {}
  void setObject(std::string_view /*key*/, std::string_view /*value*/) override {}
};

}  // namespace flowmere::embedded
