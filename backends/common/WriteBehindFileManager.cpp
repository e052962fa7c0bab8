#include "WriteBehindFileManager.h"

#include <pthread.h>

#include <algorithm>

namespace flowmere::common {

WriteBehindFileManager::WriteBehindFileManager(PosixFileManager files,
                                               std::chrono::milliseconds spacing)
    : files_(std::move(files)), spacing_(spacing), writer_([this] { run(); }) {}

WriteBehindFileManager::~WriteBehindFileManager() {
  {
    const platform::Locker lock(mutex_);
    stopping_ = true;
  }
  wake_.notifyAll();
  writer_.join();
}

void WriteBehindFileManager::flush() {
  const platform::Locker lock(mutex_);
  const std::uint64_t target = accepted_;
  flushTarget_ = std::max(flushTarget_, target);
  wake_.notifyAll();  // a writer waiting out its spacing goes now
  while (written_ < target) {
    done_.wait(mutex_);
  }
}

bool WriteBehindFileManager::containerPathForSecurityApplicationGroupIdentifier(
    std::string_view groupIdentifier, std::string& path) {
  return files_.containerPathForSecurityApplicationGroupIdentifier(groupIdentifier, path);
}

bool WriteBehindFileManager::createDirectoryAtPath(const std::string& directory) {
  return files_.createDirectoryAtPath(directory);
}

bool WriteBehindFileManager::writeStringAtomicallyToPath(const std::string& file,
                                                         std::string_view text) {
  if (file.empty() || file.back() == '/') {
    return false;
  }
  bool wasIdle = false;
  {
    const platform::Locker lock(mutex_);
    auto found = pending_.find(file);
    if (found == pending_.end()) {
      found = pending_.emplace(file, Pending{}).first;
    }
    found->second.text.assign(text);  // reuses the entry's storage
    found->second.dirty = true;
    wasIdle = written_ == accepted_;
    ++accepted_;
  }
  if (wasIdle) {
    wake_.notifyAll();
  }
  return true;
}

void WriteBehindFileManager::temporaryDirectoryPath(std::string& path) {
  files_.temporaryDirectoryPath(path);
}

void WriteBehindFileManager::run() {
  pthread_setname_np(pthread_self(), "state-files");
  std::vector<Batch> batch;  // reused: its strings keep their storage between batches
  // When the next round may start; a round starts at once after a quiet spell.
  auto nextRound = std::chrono::steady_clock::now();
  while (true) {
    std::size_t count = 0;
    std::uint64_t upTo = 0;
    {
      const platform::Locker lock(mutex_);
      while (true) {
        if (written_ == accepted_) {
          if (stopping_) {
            return;  // everything accepted is written
          }
          wake_.wait(mutex_);
          continue;
        }
        if (stopping_ || flushTarget_ > written_ || std::chrono::steady_clock::now() >= nextRound) {
          break;
        }
        wake_.waitUntil(mutex_, nextRound);
      }
      for (auto& [file, pending] : pending_) {
        if (!pending.dirty) {
          continue;
        }
        if (batch.size() == count) {
          batch.emplace_back();
        }
        batch[count].file.assign(file);
        batch[count].text.assign(pending.text);
        pending.dirty = false;
        ++count;
      }
      upTo = accepted_;
    }
    nextRound = std::chrono::steady_clock::now() + spacing_;
    for (std::size_t index = 0; index < count; ++index) {
      (void)files_.writeStringAtomicallyToPath(batch[index].file, batch[index].text);
    }
    {
      const platform::Locker lock(mutex_);
      written_ = upTo;
    }
    done_.notifyAll();
  }
}

}  // namespace flowmere::common
