#include "EmbeddedSettings.h"

#include <string>

namespace flowmere::embedded {

void SharedSettingsStore::setInteger(std::string_view key, std::int64_t value) {
  store_->setInteger(key, value);
  observers_.notify(key, platform::PropertyValue(value));
}

void SharedSettingsStore::setDouble(std::string_view key, double value) {
  store_->setDouble(key, value);
  observers_.notify(key, platform::PropertyValue(value));
}

void SharedSettingsStore::setObject(std::string_view key, std::string_view value) {
  store_->setObject(key, value);
  observers_.notify(key, platform::PropertyValue(std::string(value)));
}

}  // namespace flowmere::embedded
