#include "ProducerLink.h"

#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <system_error>

#include "common/MonotonicTime.h"
#include "formats/FormatCatalogue.h"

namespace flowmere::producer {

namespace {

// How long a stream may wait for its link before the producer says what may be wrong.
constexpr std::int64_t kLinkHintNanoseconds = 5'000'000'000;

timespec timespecFor(std::int64_t nanoseconds) {
  return timespec{static_cast<time_t>(nanoseconds / 1'000'000'000),
                  static_cast<long>(nanoseconds % 1'000'000'000)};
}

const char* formatName(const Producer& producer) {
  return producer.info.format == SPA_VIDEO_FORMAT_BGRA ? "bgra" : "p010";
}

// Once standard input has ended and its last frame has gone out (or, live and unlinked, will
// never go out), the run ends one period later: time for the camera to relay that frame.
void checkInputEnd(Producer& producer) {
  if (!producer.reader || producer.finishing) {
    return;
  }
  const FrameReader::State state = producer.reader->state();
  const bool leftToSend = state.framesWaiting && (producer.streaming || !producer.options.live);
  if (state.end == FrameReader::End::kNotYet || leftToSend) {
    return;
  }
  producer.finishing = true;
  const timespec wait = timespecFor(producer.period);
  pw_loop_update_timer(pw_main_loop_get_loop(producer.loop), producer.finishTimer,
                       const_cast<timespec*>(&wait), nullptr, false);
}

// Says how standard input ended, sets the exit status and disconnects the stream, so that the
// camera's sink stops at once; then ends the loop.
void onFinish(void* data, std::uint64_t /*expirations*/) {
  auto& producer = *static_cast<Producer*>(data);
  const FrameReader::State state = producer.reader->state();
  const auto frames = static_cast<unsigned long long>(state.frames);
  switch (state.end) {
    case FrameReader::End::kEnded:
      if (frames == 0) {
        std::fprintf(stderr,
                     "flowmere-camera-producer: standard input ended before its first frame\n");
      } else {
        std::fprintf(stderr, "flowmere-camera-producer: standard input ended after %llu frames\n",
                     frames);
      }
      producer.exitStatus = frames == 0 ? 1 : 0;
      break;
    case FrameReader::End::kShortFrame:
      std::fprintf(stderr,
                   "flowmere-camera-producer: the last frame was short: %zu of %zu bytes (after "
                   "%llu whole frames of %ux%u %s)\n",
                   state.shortBytes, producer.layout.frameSize, frames, producer.layout.width,
                   producer.layout.height, formatName(producer));
      producer.exitStatus = 1;
      break;
    case FrameReader::End::kReadError:
      std::fprintf(stderr,
                   "flowmere-camera-producer: reading standard input failed after %llu frames: "
                   "%s\n",
                   frames, std::generic_category().message(state.error).c_str());
      producer.exitStatus = 1;
      break;
    case FrameReader::End::kNotYet:
      return;
  }
  pw_stream_disconnect(producer.stream);
  pw_main_loop_quit(producer.loop);
}

// The reader has a new frame, or the input ended. A live frame goes out at once: this starts its
// graph cycle. A scheduled one waits for its time on the frame timer.
void onInputEvent(void* data, std::uint64_t /*count*/) {
  auto& producer = *static_cast<Producer*>(data);
  if (producer.options.live && producer.streaming && producer.reader->state().framesWaiting) {
    pw_stream_trigger_process(producer.stream);
  }
  checkInputEnd(producer);
}

// The frame timer: one graph cycle per frame period, each of which queues one frame (main.cpp's
// process callback). A driving stream starts the cycle itself; a follower asks its driver for
// one (the camera's input drives the link only when the producer does not).
void onFrameTimer(void* data, std::uint64_t /*expirations*/) {
  auto& producer = *static_cast<Producer*>(data);
  if (!producer.streaming) {
    return;
  }
  const bool driving = pw_stream_is_driving(producer.stream);
  if (driving != producer.driving) {
    producer.driving = driving;
    std::fprintf(stderr, "producer: %s the link\n", driving ? "drives" : "follows the camera on");
  }
  pw_stream_trigger_process(producer.stream);
  checkInputEnd(producer);
}

void onLinkHint(void* data, std::uint64_t /*expirations*/) {
  auto& producer = *static_cast<Producer*>(data);
  if (!producer.linked) {
    std::fprintf(stderr,
                 "flowmere-camera-producer: not linked to %s after %lld s: is the camera service "
                 "running?\n",
                 producer.options.target.c_str(),
                 static_cast<long long>(kLinkHintNanoseconds / 1'000'000'000));
  }
}

void onStateChanged(void* data, pw_stream_state /*old*/, pw_stream_state state, const char* error) {
  auto& producer = *static_cast<Producer*>(data);
  std::fprintf(stderr, "producer: %s%s%s\n", pw_stream_state_as_string(state), error ? ": " : "",
               error ? error : "");
  producer.streaming = state == PW_STREAM_STATE_STREAMING;
  producer.linked = producer.linked || producer.streaming;
  pw_loop* loop = pw_main_loop_get_loop(producer.loop);
  if (producer.streaming && !producer.options.live) {
    if (producer.reader) {
      startSchedule(producer);
    } else {
      // The schedule starts once the first frame is drawn (see Producer::prepared): that frame
      // then goes out at once, at its own time.
      scheduleDrawing(producer, common::monotonicNanoseconds());
    }
  } else if (producer.streaming && producer.reader) {
    pw_loop_signal_event(loop, producer.inputEvent);  // a frame that arrived before the link
  }
  if (!producer.streaming) {
    pw_loop_update_timer(loop, producer.frameTimer, nullptr, nullptr, false);
    pw_loop_update_timer(loop, producer.prepareTimer, nullptr, nullptr, false);
    producer.scheduled = false;
  }
  if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) {
    pw_main_loop_quit(producer.loop);
  }
}

// The buffers this producer asks for once a format is chosen: packed rows, one block, a header
// for the time stamp. The camera's sink asks for the same size and stride, and 3 buffers.
void onParamChanged(void* data, std::uint32_t id, const spa_pod* param) {
  auto& producer = *static_cast<Producer*>(data);
  if (id != SPA_PARAM_Format || !param) {
    return;
  }
  std::array<std::byte, 1024> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  std::array<const spa_pod*, 2> params{};
  params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
      SPA_POD_CHOICE_RANGE_Int(8, 2, 16), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
      SPA_PARAM_BUFFERS_size, SPA_POD_Int(static_cast<int>(producer.layout.frameSize)),
      SPA_PARAM_BUFFERS_stride, SPA_POD_Int(static_cast<int>(producer.layout.stride)),
      SPA_PARAM_BUFFERS_dataType,
      SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd))));
  params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
      SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
  pw_stream_update_params(producer.stream, params.data(), 2);
}

// Writes every page of a new buffer once, while the link is set up: the camera paces every frame
// by the first one's arrival, so page faults in the first frames would delay all that follow.
void onAddBuffer(void* /*data*/, pw_buffer* buffer) {
  for (std::uint32_t index = 0; index < buffer->buffer->n_datas; ++index) {
    const spa_data& block = buffer->buffer->datas[index];
    if (block.data) {
      std::memset(block.data, 0, block.maxsize);
    }
  }
}

void onRemoveBuffer(void* data, pw_buffer* buffer) {
  auto& producer = *static_cast<Producer*>(data);
  if (producer.prepared == buffer) {
    producer.prepared = nullptr;
  }
}

void onQuit(void* data, int signal) {
  std::fprintf(stderr, "producer: stopping on %s\n", signal == SIGINT ? "SIGINT" : "SIGTERM");
  pw_main_loop_quit(static_cast<Producer*>(data)->loop);
}

void onTimeout(void* data, std::uint64_t /*expirations*/) {
  pw_main_loop_quit(static_cast<Producer*>(data)->loop);
}

}  // namespace

void describeFormat(Producer& producer) {
  const ProducerOptions& options = producer.options;
  spa_video_info_raw& info = producer.info;
  info.format = options.format == "bgra" ? SPA_VIDEO_FORMAT_BGRA : SPA_VIDEO_FORMAT_P010_10LE;
  info.size = spa_rectangle{options.width, options.height};
  if (options.format == "p010") {
    info.color_range = SPA_VIDEO_COLOR_RANGE_16_235;
    info.color_matrix = SPA_VIDEO_COLOR_MATRIX_BT2020;
    info.color_primaries = SPA_VIDEO_COLOR_PRIMARIES_BT2020;
    info.transfer_function = static_cast<spa_video_transfer_function>(
        options.transfer == "pq" ? pipewire::kSpaTransferSmpteSt2084
                                 : pipewire::kSpaTransferAribStdB67);
  }
  producer.layout = *pipewire::frameLayoutFor(info);
  producer.period = 1'000'000'000 / options.fps;
  const auto catalogue = makeFormatCatalogue();
  if (!pipewire::catalogueIndexForVideoInfo(*catalogue, info)) {
    std::fprintf(stderr,
                 "flowmere-camera-producer: %ux%u %s is not one of the camera's formats "
                 "(bgra: 1920x1080 1080x1920 1280x720 720x1280 3840x2160 2160x3840; p010: "
                 "3840x2160 1920x1080); its sink will not link\n",
                 options.width, options.height, options.format.c_str());
  }
}

bool connectProducer(Producer& producer, void (*process)(void*)) {
  const ProducerOptions& options = producer.options;
  pw_loop* loop = pw_main_loop_get_loop(producer.loop);
  pw_loop_add_signal(loop, SIGINT, onQuit, &producer);
  pw_loop_add_signal(loop, SIGTERM, onQuit, &producer);
  if (options.seconds > 0) {
    spa_source* timer = pw_loop_add_timer(loop, onTimeout, &producer);
    const timespec timeout = timespecFor(static_cast<std::int64_t>(options.seconds * 1e9));
    pw_loop_update_timer(loop, timer, const_cast<timespec*>(&timeout), nullptr, false);
  }
  producer.frameTimer = pw_loop_add_timer(loop, onFrameTimer, &producer);
  producer.inputEvent = pw_loop_add_event(loop, onInputEvent, &producer);
  producer.finishTimer = pw_loop_add_timer(loop, onFinish, &producer);
  producer.linkHint = pw_loop_add_timer(loop, onLinkHint, &producer);
  const timespec hint = timespecFor(kLinkHintNanoseconds);
  pw_loop_update_timer(loop, producer.linkHint, const_cast<timespec*>(&hint), nullptr, false);

  pw_properties* props = pw_properties_new(
      PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE, "Camera",
      PW_KEY_NODE_NAME, "flowmere-camera-producer", PW_KEY_APP_NAME, "flowmere-camera-producer",
      PW_KEY_TARGET_OBJECT, options.target.c_str(),
      // Above the camera's input, which drives a link only for producers that do not.
      PW_KEY_PRIORITY_DRIVER, "1000", nullptr);
  producer.events.version = PW_VERSION_STREAM_EVENTS;
  producer.events.state_changed = onStateChanged;
  producer.events.param_changed = onParamChanged;
  producer.events.add_buffer = onAddBuffer;
  producer.events.remove_buffer = onRemoveBuffer;
  producer.events.process = process;
  producer.stream =
      pw_stream_new_simple(loop, "flowmere-camera-producer", props, &producer.events, &producer);
  // The camera's formats all say 30 frames per second, but it relays frames at the rate they
  // come, spaced by their time stamps: the offer leaves the rate out, so any --fps links.
  spa_video_info_raw offer = producer.info;
  offer.framerate = spa_fraction{0, 0};
  std::array<std::byte, 1024> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  const spa_pod* format = pipewire::buildVideoFormat(builder, SPA_PARAM_EnumFormat, offer);
  if (!producer.stream ||
      pw_stream_connect(
          producer.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
          // A driver: the producer starts a graph cycle whenever it has a frame, so frames leave
          // on the producer's own schedule instead of waiting for the camera to ask.
          static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                       PW_STREAM_FLAG_DRIVER),
          &format, 1) < 0) {
    std::fputs("flowmere-camera-producer: cannot connect to PipeWire\n", stderr);
    return false;
  }
  std::fprintf(stderr, "producer: %ux%u %s at %u fps%s into %s\n", options.width, options.height,
               options.format.c_str(), options.fps,
               options.readsStandardInput()
                   ? (options.live ? " from live standard input" : " from standard input")
                   : "",
               options.target.c_str());
  return true;
}

void startSchedule(Producer& producer) {
  // The schedule is the timer's own: it fires at the first frame's time and every period after,
  // never early, so each tick finds its frame due.
  const std::int64_t start = common::monotonicNanoseconds();
  producer.nextDue = start;
  producer.scheduled = true;
  const timespec first = timespecFor(start);
  const timespec interval = timespecFor(producer.period);
  pw_loop_update_timer(pw_main_loop_get_loop(producer.loop), producer.frameTimer,
                       const_cast<timespec*>(&first), const_cast<timespec*>(&interval), true);
}

void scheduleDrawing(Producer& producer, std::int64_t time) {
  const timespec at = timespecFor(time);
  pw_loop_update_timer(pw_main_loop_get_loop(producer.loop), producer.prepareTimer,
                       const_cast<timespec*>(&at), nullptr, true);
}

void printSummary(const Producer& producer) {
  const double elapsed =
      producer.frame > 0
          ? static_cast<double>(common::monotonicNanoseconds() - producer.firstPush) / 1e9
          : 0.0;
  std::printf("pushed %llu frames in %.2f s (%.2f fps), skipped %llu",
              static_cast<unsigned long long>(producer.frame), elapsed,
              elapsed > 0 ? static_cast<double>(producer.frame) / elapsed : 0.0,
              static_cast<unsigned long long>(producer.skipped));
  if (producer.reader) {
    std::printf(", dropped %llu of %llu input frames",
                static_cast<unsigned long long>(producer.reader->state().dropped),
                static_cast<unsigned long long>(producer.reader->state().frames));
  }
  std::printf("\n");
}

}  // namespace flowmere::producer
