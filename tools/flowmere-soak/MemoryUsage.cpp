#include "MemoryUsage.h"

#include <malloc.h>
#include <unistd.h>

#include <cstdio>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FLOWMERE_SOAK_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define FLOWMERE_SOAK_TSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define FLOWMERE_SOAK_ASAN 1
#endif

#if defined(FLOWMERE_SOAK_ASAN)
#include <sanitizer/allocator_interface.h>
#endif

namespace flowmere::soak {

std::optional<std::uint64_t> residentBytes() {
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (file == nullptr) {
    return std::nullopt;
  }
  unsigned long long sizePages = 0;
  unsigned long long residentPages = 0;
  const int fields = std::fscanf(file, "%llu %llu", &sizePages, &residentPages);
  std::fclose(file);
  if (fields != 2) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(residentPages) *
         static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

std::uint64_t liveHeapBytes() {
#if defined(FLOWMERE_SOAK_ASAN)
  return __sanitizer_get_current_allocated_bytes();
#elif defined(FLOWMERE_SOAK_TSAN)
  return 0;  // ThreadSanitizer's allocator keeps no such count
#else
  const struct mallinfo2 info = ::mallinfo2();
  // Small blocks in use, plus the large ones malloc maps on their own.
  return static_cast<std::uint64_t>(info.uordblks) + static_cast<std::uint64_t>(info.hblkhd);
#endif
}

const char* liveHeapSource() {
#if defined(FLOWMERE_SOAK_ASAN)
  return "AddressSanitizer's allocator";
#elif defined(FLOWMERE_SOAK_TSAN)
  return "nothing: ThreadSanitizer keeps no count";
#else
  return "glibc's malloc statistics";
#endif
}

}  // namespace flowmere::soak
