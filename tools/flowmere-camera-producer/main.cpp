// flowmere-camera-producer: pushes a test pattern, a raw video file or raw frames from standard
// input into the Flowmere camera's sink node, at a chosen format and rate; checks captured PNG
// frames against the pattern; and, as a camera client, records when each frame arrives. See
// ProducerOptions.cpp for the command line.
//
// Time stamps are CLOCK_MONOTONIC nanoseconds: the frames' scheduled times, 1/fps apart, or with
// --live each input frame's arrival time. Sequence numbers count from 0. With --timestamps, the
// producer appends "frame_number push_time_ns" for every frame (CLOCK_MONOTONIC just before the
// frame is queued to PipeWire) and the receiver "frame_number receive_time_ns" (just after the
// buffer is dequeued): joined on the frame number, they give each frame's latency.

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Check.h"
#include "FrameReader.h"
#include "ProducerLink.h"
#include "ProducerOptions.h"
#include "Receiver.h"
#include "common/MonotonicTime.h"

namespace {

using flowmere::producer::FrameReader;
using flowmere::producer::Producer;

// Writes the next frame into `data`: the input frame when there is one, else the file's next
// frame or the pattern.
void fillFrame(Producer& producer, std::uint8_t* data, const FrameReader::Frame* input) {
  if (input) {
    std::memcpy(data, input->data, producer.layout.frameSize);
    return;
  }
  if (producer.file.is_open()) {
    if (!producer.file.read(producer.fileFrame.data(),
                            static_cast<std::streamsize>(producer.fileFrame.size()))) {
      producer.file.clear();
      producer.file.seekg(0);  // loop the file
      producer.file.read(producer.fileFrame.data(),
                         static_cast<std::streamsize>(producer.fileFrame.size()));
    }
    std::memcpy(data, producer.fileFrame.data(), producer.fileFrame.size());
    return;
  }
  if (producer.info.format == SPA_VIDEO_FORMAT_BGRA) {
    flowmere::pattern::fillBgra(data, producer.layout.stride, producer.layout.width,
                                producer.layout.height, producer.frame);
  } else {
    flowmere::pattern::fillP010(data, producer.layout.stride, producer.layout.width,
                                producer.layout.height, producer.frame);
  }
}

// Fills `buffer` with the next frame (unless it was drawn ahead), stamps it `pts` and queues it.
void sendFrame(Producer& producer, pw_buffer* buffer, std::int64_t pts,
               const FrameReader::Frame* input, bool drawn = false) {
  spa_data& block = buffer->buffer->datas[0];
  if (!block.data || block.maxsize < producer.layout.frameSize) {
    block.chunk->size = 0;
    pw_stream_queue_buffer(producer.stream, buffer);
    return;
  }
  if (!drawn) {
    fillFrame(producer, static_cast<std::uint8_t*>(block.data), input);
  }
  block.chunk->offset = 0;
  block.chunk->size = static_cast<std::uint32_t>(producer.layout.frameSize);
  block.chunk->stride = static_cast<std::int32_t>(producer.layout.stride);
  if (auto* header = static_cast<spa_meta_header*>(
          spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
    header->flags = 0;
    header->offset = 0;
    header->pts = pts;
    header->dts_offset = 0;
    header->seq = producer.frame;
  }
  producer.pushLog.record(producer.frame, flowmere::common::monotonicNanoseconds());
  pw_stream_queue_buffer(producer.stream, buffer);
  if (producer.frame == 0) {
    producer.firstPush = flowmere::common::monotonicNanoseconds();
  }
  ++producer.frame;
}

// Draws the next frame of the pattern or the looped file into a buffer of its own, ahead of its
// time (see Producer::prepared), and starts the schedule after the first one.
void onPrepare(void* data, std::uint64_t /*expirations*/) {
  auto& producer = *static_cast<Producer*>(data);
  if (!producer.streaming || producer.reader) {
    return;
  }
  if (!producer.prepared) {
    if (pw_buffer* buffer = pw_stream_dequeue_buffer(producer.stream)) {
      spa_data& block = buffer->buffer->datas[0];
      if (block.data && block.maxsize >= producer.layout.frameSize) {
        fillFrame(producer, static_cast<std::uint8_t*>(block.data), nullptr);
      }
      producer.prepared = buffer;
    }
    // With every buffer still at the camera, the frame is drawn at its time instead.
  }
  if (!producer.scheduled) {
    flowmere::producer::startSchedule(producer);
  }
}

// A live input: each cycle sends the newest frame that has arrived, stamped with its arrival.
// A frame that finds every buffer with the camera is dropped, not kept for later: by the next
// cycle a newer frame is there, or it would go out late, and the camera spaces frames by their
// time stamps, so a late frame would hold back every frame after it.
void processLive(Producer& producer) {
  const std::optional<FrameReader::Frame> input = producer.reader->take();
  if (input) {
    if (pw_buffer* buffer = pw_stream_dequeue_buffer(producer.stream)) {
      sendFrame(producer, buffer, input->arrival, &*input);
      producer.reader->giveBack(*input, true);
    } else {
      producer.reader->giveBack(*input, false);
    }
  }
  // The loop event finishes the stream once the input has ended and nothing is left to send.
  if (producer.reader->state().end != FrameReader::End::kNotYet) {
    pw_loop_signal_event(pw_main_loop_get_loop(producer.loop), producer.inputEvent);
  }
}

// The frame schedule: the pattern, a looped file, or standard input read in order.
void processScheduled(Producer& producer) {
  const std::int64_t now = flowmere::common::monotonicNanoseconds();
  if (producer.nextDue == 0) {
    producer.nextDue = now;
  }
  // When this stream drives the link, the frame timer starts a graph cycle at each frame's
  // scheduled time. When the camera's input drives it instead, cycles come at its pace and a
  // frame goes out on the first cycle at or after its scheduled time.
  if (now < producer.nextDue) {
    return;
  }
  // A live source never sends a frame late: the frames whose time passed without a cycle (or
  // during a pause) are skipped, so every time stamp stays within a period of the clock. A late
  // frame stamped with its old time would make the camera, which spaces frames by their time
  // stamps, hold every later frame by as much.
  const std::int64_t missed = (now - producer.nextDue) / producer.period;
  producer.nextDue += missed * producer.period;
  producer.skipped += static_cast<std::uint64_t>(missed);
  if (producer.options.pauseSeconds > 0 && producer.frame > 0) {
    const double sinceFirst = static_cast<double>(now - producer.firstPush) / 1e9;
    if (sinceFirst >= producer.options.pauseAt &&
        sinceFirst < producer.options.pauseAt + producer.options.pauseSeconds) {
      return;
    }
  }
  // Standard input is taken oldest first: every frame of a file or a decoder is shown, in
  // order, one per period; the reader holds the input back while its ring is full. A time with
  // no frame read yet is skipped like any other (it is not counted before the first frame).
  std::optional<FrameReader::Frame> input;
  if (producer.reader) {
    input = producer.reader->take();
    if (!input) {
      producer.skipped += producer.frame > 0 && !producer.inputEnded() ? 1 : 0;
      producer.nextDue += producer.period;
      return;
    }
  }
  if (pw_buffer* prepared = producer.prepared) {
    producer.prepared = nullptr;
    sendFrame(producer, prepared, producer.nextDue, nullptr, true);
    producer.nextDue += producer.period;
    flowmere::producer::scheduleDrawing(producer, producer.nextDue - producer.period / 2);
    return;
  }
  pw_buffer* buffer = pw_stream_dequeue_buffer(producer.stream);
  if (!buffer) {
    // Every buffer is still with the camera: this time is skipped, as a camera drops a frame it
    // has nowhere to put. An input frame waits for the next time.
    if (input) {
      producer.reader->giveBack(*input, false);
    }
    producer.nextDue += producer.period;
    ++producer.skipped;
    return;
  }
  sendFrame(producer, buffer, producer.nextDue, input ? &*input : nullptr);
  if (input) {
    producer.reader->giveBack(*input, true);
  }
  producer.nextDue += producer.period;
  if (!producer.reader) {
    flowmere::producer::scheduleDrawing(producer, producer.nextDue - producer.period / 2);
  }
}

void onProcess(void* data) {
  auto& producer = *static_cast<Producer*>(data);
  if (producer.options.live) {
    processLive(producer);
  } else {
    processScheduled(producer);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "check") == 0) {
    return flowmere::producer::runCheck(argc, argv);
  }
  if (argc > 1 && std::strcmp(argv[1], "receive") == 0) {
    return flowmere::producer::runReceiver(argc, argv);
  }
  Producer producer;
  if (const std::optional<int> status =
          flowmere::producer::parseProducerOptions(argc, argv, producer.options)) {
    return *status;
  }
  const flowmere::producer::ProducerOptions& options = producer.options;
  flowmere::producer::describeFormat(producer);
  if (!options.file.empty() && !options.readsStandardInput()) {
    producer.file.open(options.file, std::ios::binary);
    if (!producer.file) {
      std::fprintf(stderr, "flowmere-camera-producer: cannot read %s\n", options.file.c_str());
      return 1;
    }
    producer.fileFrame.resize(producer.layout.frameSize);
  }
  if (!options.timestamps.empty() && !producer.pushLog.open(options.timestamps)) {
    std::fprintf(stderr, "flowmere-camera-producer: cannot write %s: %s\n",
                 options.timestamps.c_str(), std::generic_category().message(errno).c_str());
    return 1;
  }

  pw_init(&argc, &argv);
  producer.loop = pw_main_loop_new(nullptr);
  producer.prepareTimer =
      pw_loop_add_timer(pw_main_loop_get_loop(producer.loop), &onPrepare, &producer);
  if (!flowmere::producer::connectProducer(producer, &onProcess)) {
    return 1;
  }
  // Standard input is read on its own thread from now until the loop has stopped; its frames
  // and its end reach the loop through `inputEvent`, which outlives the thread.
  if (options.readsStandardInput()) {
    producer.reader = std::make_unique<FrameReader>(
        STDIN_FILENO, producer.layout.frameSize,
        options.live ? FrameReader::Order::kNewestFirst : FrameReader::Order::kOldestFirst,
        [loop = pw_main_loop_get_loop(producer.loop), event = producer.inputEvent] {
          pw_loop_signal_event(loop, event);
        });
    std::string problem;
    if (!producer.reader->start(problem)) {
      std::fprintf(stderr, "flowmere-camera-producer: %s\n", problem.c_str());
      return 1;
    }
  }
  pw_main_loop_run(producer.loop);
  if (producer.reader) {
    producer.reader->stop();
  }
  flowmere::producer::printSummary(producer);
  pw_stream_destroy(producer.stream);
  pw_main_loop_destroy(producer.loop);
  pw_deinit();
  if (!producer.pushLog.close()) {
    std::fprintf(stderr, "flowmere-camera-producer: writing %s failed\n",
                 options.timestamps.c_str());
    return 1;
  }
  return producer.exitStatus;
}
