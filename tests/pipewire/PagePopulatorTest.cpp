#include <gtest/gtest.h>
#include <pipewire/stream.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "pipewire/PagePopulator.h"

namespace flowmere::pipewire {
namespace {

// A buffer as PipeWire maps one for a client's link: shared memory (a memfd) with no page
// faulted in yet, described by a pw_buffer with one block that starts inside its first page.
class SharedBuffer {
 public:
  static constexpr std::size_t kPages = 64;

  SharedBuffer() {
    fd_ = memfd_create("populator-test", 0);
    page_ = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    if (fd_ < 0 || ftruncate(fd_, static_cast<off_t>(kPages * page_)) != 0) {
      return;
    }
    void* memory = mmap(nullptr, kPages * page_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    mapping_ = memory == MAP_FAILED ? nullptr : static_cast<std::byte*>(memory);
    data_.data = mapping_ ? mapping_ + 16 : nullptr;  // as a block with an offset would
    data_.maxsize = static_cast<std::uint32_t>(kPages * page_ - 16);
    spa_.n_datas = 1;
    spa_.datas = &data_;
    buffer_.buffer = &spa_;
  }
  ~SharedBuffer() {
    if (mapping_) {
      munmap(mapping_, kPages * page_);
    }
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  SharedBuffer(const SharedBuffer&) = delete;
  SharedBuffer& operator=(const SharedBuffer&) = delete;

  [[nodiscard]] bool ok() const { return mapping_ != nullptr; }
  pw_buffer* buffer() { return &buffer_; }
  // How many of the mapping's pages are in memory.
  [[nodiscard]] std::size_t residentPages() const {
    std::vector<unsigned char> resident(kPages);
    if (mincore(mapping_, kPages * page_, resident.data()) != 0) {
      return 0;
    }
    std::size_t count = 0;
    for (const unsigned char flag : resident) {
      count += flag & 1U;
    }
    return count;
  }

 private:
  int fd_ = -1;
  std::size_t page_ = 0;
  std::byte* mapping_ = nullptr;
  spa_data data_{};
  spa_buffer spa_{};
  pw_buffer buffer_{};
};

// Every page of the block, the partial first one included, is in memory afterwards, so the
// relay's first copy into the buffer takes no page fault.
TEST(PagePopulatorTest, FaultsInEveryPageOfTheBuffer) {
  SharedBuffer shared;
  ASSERT_TRUE(shared.ok());
  ASSERT_EQ(shared.residentPages(), 0U);
  BufferSlot slot(shared.buffer());
  PagePopulator::populate(slot);
  EXPECT_EQ(shared.residentPages(), SharedBuffer::kPages);
  EXPECT_TRUE(slot.beginAccess()) << "the populator kept its pin";
  slot.endAccess();
}

// A buffer whose link went away before its turn is not touched: its memory may be unmapped.
TEST(PagePopulatorTest, LeavesARevokedBufferAlone) {
  SharedBuffer shared;
  ASSERT_TRUE(shared.ok());
  BufferSlot slot(shared.buffer());
  slot.revoke();
  PagePopulator::populate(slot);
  EXPECT_EQ(shared.residentPages(), 0U);
}

// The number of threads of this process, from /proc.
std::size_t threadCount() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Threads:", 0) == 0) {
      return std::stoul(line.substr(8));
    }
  }
  return 0;
}

// The worker faults in what is queued and then ends: an idle camera keeps no thread for it.
TEST(PagePopulatorTest, WorkerPopulatesQueuedBuffersThenEnds) {
  // A first thread makes ThreadSanitizer start its own background thread: counted from here on.
  std::thread([] {}).join();
  const std::size_t before = threadCount();
  SharedBuffer shared;
  ASSERT_TRUE(shared.ok());
  PagePopulator populator;
  populator.add(std::make_shared<BufferSlot>(shared.buffer()));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while ((shared.residentPages() < SharedBuffer::kPages || threadCount() > before) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_EQ(shared.residentPages(), SharedBuffer::kPages);
  EXPECT_EQ(threadCount(), before) << "the worker stayed after its queue was empty";
}

// Stopping drops what is queued and ends the thread even when buffers were still waiting.
TEST(PagePopulatorTest, StopEndsTheWorkerWithBuffersQueued) {
  std::vector<std::unique_ptr<SharedBuffer>> buffers;
  PagePopulator populator;
  for (int index = 0; index < 8; ++index) {
    buffers.push_back(std::make_unique<SharedBuffer>());
    ASSERT_TRUE(buffers.back()->ok());
    populator.add(std::make_shared<BufferSlot>(buffers.back()->buffer()));
  }
  populator.stop();  // returns, having touched some, all or none of them
  // It can be started again, as for the next link of a node.
  SharedBuffer again;
  ASSERT_TRUE(again.ok());
  auto slot = std::make_shared<BufferSlot>(again.buffer());
  populator.add(slot);
  populator.stop();
  slot->revoke();  // waits for the worker, had it begun on this one
}

}  // namespace
}  // namespace flowmere::pipewire
