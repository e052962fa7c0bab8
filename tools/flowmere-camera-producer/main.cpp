// flowmere-camera-producer: pushes a test pattern (or a raw video file) into the Flowmere
// camera's sink node, at a chosen format and rate; checks captured PNG frames against that
// pattern; and, as a camera client, records when each pattern frame arrives.
//
//   flowmere-camera-producer [--target NODE] [--format bgra|p010] [--size WxH] [--fps N]
//                            [--transfer pq|hlg] [--seconds N] [--file RAW] [--timestamps FILE]
//                            [--pause AT,SECONDS]
//   flowmere-camera-producer check [--allow-gaps] FRAME.png...
//   flowmere-camera-producer receive [--target NODE] [--seconds N] [--timestamps FILE]
//
// Time stamps are the frames' scheduled times on CLOCK_MONOTONIC, 1/fps apart, in nanoseconds;
// sequence numbers count from 0. With --timestamps, the producer appends "frame_number
// push_time_ns" for every frame (CLOCK_MONOTONIC just before the frame is queued to PipeWire) and
// the receiver "frame_number receive_time_ns" (just after the buffer is dequeued): joined on the
// frame number, they give each frame's latency.

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "FramePattern.h"
#include "PngReader.h"
#include "Receiver.h"
#include "TimestampLog.h"
#include "pipewire/SpaFormats.h"

namespace {

using flowmere::pipewire::FrameLayout;

struct Options {
  std::string target = "flowmere-camera-sink";
  std::string format = "bgra";
  std::uint32_t width = 1280;
  std::uint32_t height = 720;
  std::uint32_t fps = 30;
  std::string transfer = "pq";
  double seconds = 0;  // 0: until interrupted
  // --pause: no frame is queued from `pauseAt` seconds after the first frame for
  // `pauseSeconds`, while the link stays up (a producer that stalls).
  double pauseAt = 0;
  double pauseSeconds = 0;
  std::string file;
  std::string timestamps;
};

std::int64_t monotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// The whole producer: one output stream on a main loop. Main-loop thread only.
struct Producer {
  Options options;
  spa_video_info_raw info{};
  FrameLayout layout;
  pw_main_loop* loop = nullptr;
  pw_stream* stream = nullptr;
  spa_hook listener{};
  std::int64_t period = 0;
  std::int64_t nextDue = 0;
  std::uint64_t frame = 0;    // frames queued so far; also the next frame's number
  std::uint64_t skipped = 0;  // frame times that passed with no frame sent
  std::int64_t firstPush = 0;
  std::ifstream file;
  std::vector<char> fileFrame;
  flowmere::producer::TimestampLog pushLog;  // --timestamps: one line per queued frame
  bool streaming = false;
  spa_source* frameTimer = nullptr;  // fires once per frame period while streaming
  bool driving = false;              // as last logged
};

void fillFrame(Producer& producer, std::uint8_t* data, std::uint32_t stride) {
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
    flowmere::producer::fillBgra(data, stride, producer.layout.width, producer.layout.height,
                                 producer.frame);
  } else {
    flowmere::producer::fillP010(data, stride, producer.layout.width, producer.layout.height,
                                 producer.frame);
  }
}

void onProcess(void* data) {
  auto& producer = *static_cast<Producer*>(data);
  const std::int64_t now = monotonicNanoseconds();
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
  pw_buffer* buffer = pw_stream_dequeue_buffer(producer.stream);
  if (!buffer) {
    // Every buffer is still with the camera: this frame is skipped, as a camera drops a frame
    // it has nowhere to put.
    producer.nextDue += producer.period;
    ++producer.skipped;
    return;
  }
  spa_data& block = buffer->buffer->datas[0];
  if (!block.data || block.maxsize < producer.layout.frameSize) {
    pw_stream_queue_buffer(producer.stream, buffer);
    return;
  }
  fillFrame(producer, static_cast<std::uint8_t*>(block.data), producer.layout.stride);
  block.chunk->offset = 0;
  block.chunk->size = static_cast<std::uint32_t>(producer.layout.frameSize);
  block.chunk->stride = static_cast<std::int32_t>(producer.layout.stride);
  if (auto* header = static_cast<spa_meta_header*>(
          spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
    header->flags = 0;
    header->offset = 0;
    header->pts = producer.nextDue;
    header->dts_offset = 0;
    header->seq = producer.frame;
  }
  producer.pushLog.record(producer.frame, monotonicNanoseconds());
  pw_stream_queue_buffer(producer.stream, buffer);
  if (producer.frame == 0) {
    producer.firstPush = now;
  }
  ++producer.frame;
  producer.nextDue += producer.period;
}

// The frame timer: one graph cycle per frame period, each of which queues one frame (see
// onProcess). A driving stream starts the cycle itself; a follower asks its driver for one (the
// camera's input drives the link only when the producer does not).
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
}

void onStateChanged(void* data, pw_stream_state /*old*/, pw_stream_state state, const char* error) {
  auto& producer = *static_cast<Producer*>(data);
  std::fprintf(stderr, "producer: %s%s%s\n", pw_stream_state_as_string(state), error ? ": " : "",
               error ? error : "");
  producer.streaming = state == PW_STREAM_STATE_STREAMING;
  pw_loop* loop = pw_main_loop_get_loop(producer.loop);
  if (producer.streaming) {
    // The schedule is the timer's own: it fires at the first frame's time and every period
    // after, never early, so each tick finds its frame due.
    const std::int64_t start = monotonicNanoseconds();
    producer.nextDue = start;
    timespec first{static_cast<time_t>(start / 1'000'000'000),
                   static_cast<long>(start % 1'000'000'000)};
    timespec interval{static_cast<time_t>(producer.period / 1'000'000'000),
                      static_cast<long>(producer.period % 1'000'000'000)};
    pw_loop_update_timer(loop, producer.frameTimer, &first, &interval, true);
  } else {
    pw_loop_update_timer(loop, producer.frameTimer, nullptr, nullptr, false);
  }
  if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) {
    pw_main_loop_quit(producer.loop);
  }
}

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

void onQuit(void* data, int signal) {
  std::fprintf(stderr, "producer: stopping on %s\n", signal == SIGINT ? "SIGINT" : "SIGTERM");
  pw_main_loop_quit(static_cast<Producer*>(data)->loop);
}

void onTimeout(void* data, std::uint64_t /*expirations*/) {
  pw_main_loop_quit(static_cast<Producer*>(data)->loop);
}

bool parseSize(const char* text, std::uint32_t& width, std::uint32_t& height) {
  unsigned w = 0;
  unsigned h = 0;
  char extra = 0;
  if (std::sscanf(text, "%ux%u%c", &w, &h, &extra) != 2 || w == 0 || h == 0) {
    return false;
  }
  width = w;
  height = h;
  return true;
}

int usage() {
  std::fputs(
      "usage: flowmere-camera-producer [--target NODE] [--format bgra|p010] [--size WxH]\n"
      "                                [--fps N] [--transfer pq|hlg] [--seconds N] [--file RAW]\n"
      "                                [--timestamps FILE] [--pause AT,SECONDS]\n"
      "       flowmere-camera-producer check [--allow-gaps] FRAME.png...\n"
      "       flowmere-camera-producer receive [--target NODE] [--seconds N] [--timestamps FILE]\n",
      stderr);
  return 2;
}

// Checks captured frames: each must be the pattern exactly, for the frame number written in
// it; with --allow-gaps unset, the numbers must also follow one another without a gap.
int check(int argc, char** argv) {
  bool allowGaps = false;
  std::vector<std::string> files;
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--allow-gaps") == 0) {
      allowGaps = true;
    } else {
      files.emplace_back(argv[i]);
    }
  }
  if (files.empty()) {
    return usage();
  }
  std::sort(files.begin(), files.end());
  std::map<std::uint32_t, int> seen;
  int bad = 0;
  for (const std::string& path : files) {
    std::string error;
    const flowmere::producer::RgbImage image = flowmere::producer::readPng(path, error);
    if (image.pixels.empty()) {
      std::fprintf(stderr, "%s: %s\n", path.c_str(), error.c_str());
      ++bad;
      continue;
    }
    const auto counter = flowmere::producer::readCounter(
        image.width, image.height,
        [&](std::uint32_t x, std::uint32_t y) { return image.at(x, y); });
    if (!counter) {
      std::fprintf(stderr, "%s: no frame counter\n", path.c_str());
      ++bad;
      continue;
    }
    std::size_t wrong = 0;
    for (std::uint32_t y = 0; y < image.height; ++y) {
      for (std::uint32_t x = 0; x < image.width; ++x) {
        wrong +=
            image.at(x, y) == flowmere::producer::patternPixel(x, y, image.width, *counter) ? 0 : 1;
      }
    }
    if (wrong > 0) {
      std::fprintf(stderr, "%s: frame %u has %zu pixels that differ from the pattern\n",
                   path.c_str(), *counter, wrong);
      ++bad;
    }
    ++seen[*counter];
  }
  std::size_t gaps = 0;
  std::size_t repeats = 0;
  std::uint32_t previous = 0;
  bool first = true;
  for (const auto& [number, count] : seen) {
    if (!first && number != previous + 1) {
      gaps += number - previous - 1;
    }
    repeats += static_cast<std::size_t>(count - 1);
    previous = number;
    first = false;
  }
  std::printf("checked %zu files: frames %u..%u, %zu distinct, %zu missing, %zu repeated, %d bad\n",
              files.size(), seen.empty() ? 0 : seen.begin()->first,
              seen.empty() ? 0 : seen.rbegin()->first, seen.size(), gaps, repeats, bad);
  return bad == 0 && (allowGaps || gaps == 0) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "check") == 0) {
    return check(argc, argv);
  }
  if (argc > 1 && std::strcmp(argv[1], "receive") == 0) {
    return flowmere::producer::runReceiver(argc, argv);
  }
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (!value) {
      return usage();
    }
    ++i;
    if (flag == "--target") {
      options.target = value;
    } else if (flag == "--format" &&
               (std::strcmp(value, "bgra") == 0 || std::strcmp(value, "p010") == 0)) {
      options.format = value;
    } else if (flag == "--size" && parseSize(value, options.width, options.height)) {
    } else if (flag == "--fps" && std::atoi(value) > 0 && std::atoi(value) <= 1000) {
      options.fps = static_cast<std::uint32_t>(std::atoi(value));
    } else if (flag == "--transfer" &&
               (std::strcmp(value, "pq") == 0 || std::strcmp(value, "hlg") == 0)) {
      options.transfer = value;
    } else if (flag == "--seconds" && std::atof(value) >= 0) {
      options.seconds = std::atof(value);
    } else if (flag == "--pause" &&
               std::sscanf(value, "%lf,%lf", &options.pauseAt, &options.pauseSeconds) == 2 &&
               options.pauseAt >= 0 && options.pauseSeconds > 0) {
    } else if (flag == "--file") {
      options.file = value;
    } else if (flag == "--timestamps") {
      options.timestamps = value;
    } else {
      std::fprintf(stderr, "flowmere-camera-producer: bad option %s %s\n", flag.c_str(), value);
      return usage();
    }
  }

  Producer producer;
  producer.options = options;
  producer.info.format =
      options.format == "bgra" ? SPA_VIDEO_FORMAT_BGRA : SPA_VIDEO_FORMAT_P010_10LE;
  producer.info.size = spa_rectangle{options.width, options.height};
  producer.info.framerate = spa_fraction{options.fps, 1};
  if (options.format == "p010") {
    producer.info.color_range = SPA_VIDEO_COLOR_RANGE_16_235;
    producer.info.color_matrix = SPA_VIDEO_COLOR_MATRIX_BT2020;
    producer.info.color_primaries = SPA_VIDEO_COLOR_PRIMARIES_BT2020;
    producer.info.transfer_function = static_cast<spa_video_transfer_function>(
        options.transfer == "pq" ? flowmere::pipewire::kSpaTransferSmpteSt2084
                                 : flowmere::pipewire::kSpaTransferAribStdB67);
  }
  producer.layout = *flowmere::pipewire::frameLayoutFor(producer.info);
  producer.period = 1'000'000'000 / options.fps;
  if (!options.file.empty()) {
    producer.file.open(options.file, std::ios::binary);
    if (!producer.file) {
      std::fprintf(stderr, "flowmere-camera-producer: cannot read %s\n", options.file.c_str());
      return 1;
    }
    producer.fileFrame.resize(producer.layout.frameSize);
  }
  if (!options.timestamps.empty() && !producer.pushLog.open(options.timestamps)) {
    std::fprintf(stderr, "flowmere-camera-producer: cannot write %s: %s\n",
                 options.timestamps.c_str(), std::strerror(errno));
    return 1;
  }

  pw_init(&argc, &argv);
  producer.loop = pw_main_loop_new(nullptr);
  pw_loop* loop = pw_main_loop_get_loop(producer.loop);
  pw_loop_add_signal(loop, SIGINT, onQuit, &producer);
  pw_loop_add_signal(loop, SIGTERM, onQuit, &producer);
  if (options.seconds > 0) {
    spa_source* timer = pw_loop_add_timer(loop, onTimeout, &producer);
    const auto total = static_cast<std::int64_t>(options.seconds * 1e9);
    timespec timeout{static_cast<time_t>(total / 1'000'000'000),
                     static_cast<long>(total % 1'000'000'000)};
    pw_loop_update_timer(loop, timer, &timeout, nullptr, false);
  }

  producer.frameTimer = pw_loop_add_timer(loop, onFrameTimer, &producer);
  pw_properties* props = pw_properties_new(
      PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE, "Camera",
      PW_KEY_NODE_NAME, "flowmere-camera-producer", PW_KEY_APP_NAME, "flowmere-camera-producer",
      PW_KEY_TARGET_OBJECT, options.target.c_str(),
      // Above the camera's input, which drives a link only for producers that do not.
      PW_KEY_PRIORITY_DRIVER, "1000", nullptr);
  producer.stream = pw_stream_new_simple(
      loop, "flowmere-camera-producer", props,
      [] {
        static pw_stream_events events{};
        events.version = PW_VERSION_STREAM_EVENTS;
        events.state_changed = onStateChanged;
        events.param_changed = onParamChanged;
        events.add_buffer = onAddBuffer;
        events.process = onProcess;
        return &events;
      }(),
      &producer);
  std::array<std::byte, 1024> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  const spa_pod* format =
      flowmere::pipewire::buildVideoFormat(builder, SPA_PARAM_EnumFormat, producer.info);
  if (pw_stream_connect(
          producer.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
          // A driver: the producer starts a graph cycle whenever it has a frame, so frames leave
          // on the producer's own schedule instead of waiting for the camera to ask.
          static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                       PW_STREAM_FLAG_DRIVER),
          &format, 1) < 0) {
    std::fputs("flowmere-camera-producer: cannot connect to PipeWire\n", stderr);
    return 1;
  }
  std::fprintf(stderr, "producer: %ux%u %s at %u fps into %s\n", options.width, options.height,
               options.format.c_str(), options.fps, options.target.c_str());
  pw_main_loop_run(producer.loop);
  const double elapsed =
      producer.frame > 0 ? static_cast<double>(monotonicNanoseconds() - producer.firstPush) / 1e9
                         : 0.0;
  std::printf("pushed %llu frames in %.2f s (%.2f fps), skipped %llu\n",
              static_cast<unsigned long long>(producer.frame), elapsed,
              elapsed > 0 ? static_cast<double>(producer.frame) / elapsed : 0.0,
              static_cast<unsigned long long>(producer.skipped));
  pw_stream_destroy(producer.stream);
  pw_main_loop_destroy(producer.loop);
  pw_deinit();
  if (!producer.pushLog.close()) {
    std::fprintf(stderr, "flowmere-camera-producer: writing %s failed\n",
                 options.timestamps.c_str());
    return 1;
  }
  return 0;
}
