#pragma once

// Text that lives as long as the process: the platform's named constants (attachment keys,
// colour values) and strings interned with `internString`. Attachments and format-description
// extensions hold such strings by view, so tagging a frame never allocates.

#include <string_view>

namespace flowmere::platform {

using ConstantString = std::string_view;

// Returns a view of a process-lifetime copy of `text`; equal texts give the same storage.
// Any thread.
ConstantString internString(std::string_view text);

}  // namespace flowmere::platform
