// minimal-producer: the smallest program that pushes video into the Flowmere camera on Linux.
// It links a PipeWire output stream to the camera's input node "flowmere-camera-sink" and sends
// 1280x720 BGRA frames (the camera's format index 2), 30 a second, until Ctrl-C: a bar moving
// across a grey gradient, which every camera client then shows. docs/PRODUCER.md explains each
// step. One thread, PipeWire's main loop, runs the frame timer and all the stream's callbacks.

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

constexpr std::uint32_t kWidth = 1280;
constexpr std::uint32_t kHeight = 720;
constexpr std::uint32_t kStride = kWidth * 4;  // BGRA rows, packed: what the camera asks for
constexpr std::uint32_t kFrameSize = kStride * kHeight;
constexpr std::int64_t kPeriod = 1'000'000'000 / 30;  // nanoseconds between frames

struct Producer {
  pw_main_loop* loop = nullptr;
  pw_stream* stream = nullptr;
  bool streaming = false;
  std::int64_t start = 0;        // CLOCK_MONOTONIC time of the first tick of the frame clock
  std::uint64_t ticks = 0;       // frame times the timer has reached
  std::int64_t pendingPts = -1;  // the time stamp of the frame the current cycle should send
  std::uint64_t sent = 0;
};

// The frame timer fires at each frame's time and, while linked, starts one graph cycle for it.
// Times it missed (the machine was busy) are skipped, never sent late: the camera spaces frames
// by their time stamps, so a late frame would hold back every frame after it.
void onTimer(void* data, std::uint64_t expirations) {
  auto* producer = static_cast<Producer*>(data);
  producer->ticks += expirations;
  if (!producer->streaming) {
    return;
  }
  producer->pendingPts = producer->start + std::int64_t(producer->ticks - 1) * kPeriod;
  pw_stream_trigger_process(producer->stream);
}

// One cycle: take a free buffer, draw the frame into it, stamp it and queue it for the camera.
void onProcess(void* data) {
  auto* producer = static_cast<Producer*>(data);
  if (producer->pendingPts < 0) {
    return;  // a cycle that the camera started, with no frame due
  }
  pw_buffer* buffer = pw_stream_dequeue_buffer(producer->stream);
  if (!buffer) {
    producer->pendingPts = -1;  // every buffer is with the camera: this frame is skipped
    return;
  }
  spa_data& block = buffer->buffer->datas[0];
  auto* pixels = static_cast<std::uint8_t*>(block.data);
  const auto bar = static_cast<std::uint32_t>(producer->sent * 8 % kWidth);
  for (std::uint32_t y = 0; y < kHeight; ++y) {
    for (std::uint32_t x = 0; x < kWidth; ++x) {
      std::uint8_t* pixel =
          pixels + std::size_t{y} * kStride + std::size_t{x} * 4;  // blue, green, red, alpha
      const auto grey = static_cast<std::uint8_t>(x * 255 / kWidth);
      const bool inBar = x >= bar && x < bar + 32;
      pixel[0] = inBar ? 255 : grey;
      pixel[1] = pixel[2] = inBar ? 0 : grey;
      pixel[3] = 255;
    }
  }
  block.chunk->offset = 0;
  block.chunk->size = kFrameSize;
  block.chunk->stride = kStride;
  // The time stamp: the frame's scheduled time in CLOCK_MONOTONIC nanoseconds.
  if (auto* header = static_cast<spa_meta_header*>(
          spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
    *header = spa_meta_header{};  // flags, offset and dts_offset 0
    header->pts = producer->pendingPts;
    header->seq = producer->sent;
  }
  pw_stream_queue_buffer(producer->stream, buffer);
  producer->pendingPts = -1;
  ++producer->sent;
}

// The link to the camera streams (or stops): frames go out only while it streams.
void onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char* error) {
  auto* producer = static_cast<Producer*>(data);
  std::fprintf(stderr, "minimal-producer: %s %s\n", pw_stream_state_as_string(state),
               error ? error : "");
  producer->streaming = state == PW_STREAM_STATE_STREAMING;
  if (state == PW_STREAM_STATE_ERROR) {
    pw_main_loop_quit(producer->loop);
  }
}

// The camera took our format: say which buffers we fill (one block of packed rows, the size and
// stride the camera's sink asks for too) and that each carries a header for its time stamp.
void onParamChanged(void* data, std::uint32_t id, const spa_pod* param) {
  auto* producer = static_cast<Producer*>(data);
  if (id != SPA_PARAM_Format || param == nullptr) {
    return;
  }
  std::uint8_t storage[512];
  spa_pod_builder builder{};
  spa_pod_builder_init(&builder, storage, sizeof storage);
  const spa_pod* params[2];
  params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
      SPA_POD_CHOICE_RANGE_Int(3, 2, 8), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
      SPA_PARAM_BUFFERS_size, SPA_POD_Int(kFrameSize), SPA_PARAM_BUFFERS_stride,
      SPA_POD_Int(kStride)));
  params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
      SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
  pw_stream_update_params(producer->stream, params, 2);
}

// Touch every page of a new buffer now, while the link is set up, not in the first frames: the
// camera paces every frame by the first one's arrival, so a slow first frame delays them all.
void onAddBuffer(void*, pw_buffer* buffer) {
  spa_data& block = buffer->buffer->datas[0];
  if (block.data != nullptr) {
    std::memset(block.data, 0, block.maxsize);
  }
}

void onQuit(void* data, int) {
  pw_main_loop_quit(static_cast<Producer*>(data)->loop);
}

}  // namespace

int main(int argc, char** argv) {
  pw_init(&argc, &argv);
  Producer producer;
  producer.loop = pw_main_loop_new(nullptr);
  pw_loop* loop = pw_main_loop_get_loop(producer.loop);
  pw_loop_add_signal(loop, SIGINT, onQuit, &producer);  // Ctrl-C
  pw_loop_add_signal(loop, SIGTERM, onQuit, &producer);
  // The frame clock: a timer at absolute CLOCK_MONOTONIC times, one period apart from now on.
  timespec first{};
  clock_gettime(CLOCK_MONOTONIC, &first);
  producer.start = std::int64_t{first.tv_sec} * 1'000'000'000 + first.tv_nsec;
  timespec interval{0, long(kPeriod)};
  pw_loop_update_timer(loop, pw_loop_add_timer(loop, onTimer, &producer), &first, &interval, true);

  // The camera's input node is found by its name. priority.driver above 0 makes this stream
  // the link's driver: it starts a graph cycle whenever it has a frame.
  pw_properties* props = pw_properties_new(
      PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE, "Camera",
      PW_KEY_NODE_NAME, "minimal-producer", PW_KEY_TARGET_OBJECT, "flowmere-camera-sink",
      PW_KEY_PRIORITY_DRIVER, "1000", nullptr);
  pw_stream_events events{};
  events.version = PW_VERSION_STREAM_EVENTS;
  events.state_changed = onStateChanged;
  events.param_changed = onParamChanged;
  events.add_buffer = onAddBuffer;
  events.process = onProcess;
  producer.stream = pw_stream_new_simple(loop, "minimal-producer", props, &events, &producer);

  // The one format we offer: 1280x720 BGRA at 30/1, entry 2 of the camera's catalogue.
  spa_video_info_raw format{};
  format.format = SPA_VIDEO_FORMAT_BGRA;
  format.size = spa_rectangle{kWidth, kHeight};
  format.framerate = spa_fraction{30, 1};
  std::uint8_t storage[512];
  spa_pod_builder builder{};
  spa_pod_builder_init(&builder, storage, sizeof storage);
  const spa_pod* offer = spa_format_video_raw_build(&builder, SPA_PARAM_EnumFormat, &format);
  const auto flags = pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                     PW_STREAM_FLAG_DRIVER);
  if (pw_stream_connect(producer.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY, flags, &offer, 1) < 0) {
    std::fputs("minimal-producer: cannot connect to PipeWire\n", stderr);
    return 1;
  }
  pw_main_loop_run(producer.loop);

  std::printf("sent %llu frames\n", static_cast<unsigned long long>(producer.sent));
  pw_stream_destroy(producer.stream);
  pw_main_loop_destroy(producer.loop);
  pw_deinit();
  return 0;
}
