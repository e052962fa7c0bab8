#pragma once

// Faults in the pages of a node's new buffers on a thread of its own. A camera client's link at
// 3840x2160 brings eight new 33 MB buffers; left to the relay, the first copy into each would
// take its page faults (about 18 ms a buffer here), and frames delivered that late make the
// consume loop re-anchor its pacing on a frame that waited, holding every later frame as long.
// Done on the loop thread, the same work would block the relay's dequeues behind the loop lock.
// Here it runs beside the relay: a copy that meets a page first simply takes that fault itself.
//
// Threads: `add` and `stop` on the node's loop thread (loop lock held); the worker never takes
// the loop lock, and holds a buffer's BufferSlot pin while it touches the buffer, so PipeWire's
// remove_buffer waits for it. `mutex_` guards `pending_`, `running_` and `stopping_`; it is
// never held while pages are touched. The worker runs only while buffers wait (a link being set
// up), so an idle camera keeps no thread for it: `add` starts it (joining the previous one, which
// has finished), it ends when the queue is empty, and `stop` (or the destructor) joins it.

#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "BufferSlot.h"

namespace flowmere::pipewire {

class PagePopulator {
 public:
  PagePopulator() = default;
  ~PagePopulator() { stop(); }
  PagePopulator(const PagePopulator&) = delete;
  PagePopulator& operator=(const PagePopulator&) = delete;

  // Queues the buffer's memory to be faulted in; a buffer revoked meanwhile is skipped.
  void add(std::shared_ptr<BufferSlot> slot);
  // Drops what is queued, waits for the buffer being touched and joins the thread. `add` may
  // start it again.
  void stop();

  // Faults in every page of `slot`'s memory for writing, if it is not revoked. Any thread.
  static void populate(BufferSlot& slot);

 private:
  void run();

  std::mutex mutex_;
  std::deque<std::shared_ptr<BufferSlot>> pending_;  // by mutex_
  bool running_ = false;                             // by mutex_: a worker is taking buffers
  bool stopping_ = false;                            // by mutex_
  std::thread worker_;                               // loop thread only
};

}  // namespace flowmere::pipewire
