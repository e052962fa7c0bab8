#pragma once

// The process's memory use, as the soak samples it: resident memory from /proc/self/statm, and
// the bytes the program holds allocated on the heap (from AddressSanitizer's allocator when the
// build uses it, else from glibc's malloc statistics). The heap figure leaves out allocator
// caches and AddressSanitizer's quarantine of freed blocks, so it shows growth of live data
// more directly than the resident size does. Any thread.

#include <cstdint>
#include <optional>

namespace flowmere::soak {

// Resident set size in bytes; none when /proc/self/statm cannot be read.
[[nodiscard]] std::optional<std::uint64_t> residentBytes();
// Heap bytes allocated and not freed (0 under ThreadSanitizer, which keeps no such count).
[[nodiscard]] std::uint64_t liveHeapBytes();
// Where the heap figure comes from, for the summary.
[[nodiscard]] const char* liveHeapSource();

}  // namespace flowmere::soak
