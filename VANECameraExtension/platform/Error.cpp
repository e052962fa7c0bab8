#include "platform/Error.h"

namespace flowmere::platform {

std::string Error::localizedDescriptionOrDefault() const {
  if (localizedDescription) {
    return *localizedDescription;
  }
  return "The operation couldn't be completed. (" + domain + " error " + std::to_string(code) +
         ".)";
}

std::string Error::description() const {
  std::string text = "Error Domain=" + domain + " Code=" + std::to_string(code);
  if (localizedDescription) {
    text += " \"" + *localizedDescription + "\"";
  } else {
    text += " \"(null)\"";
  }
  return text;
}

}  // namespace flowmere::platform
