// The `receive` subcommand: links an input stream to a video node (the camera's source by
// default), takes BGRA or P010 frames of any size and, for every frame, reads the frame number
// from the pattern's counter blocks (P010: from its luma) and records it with the time the buffer
// was dequeued. Only the 32 block centres of one row are read: the per-frame cost does not depend
// on the frame size. The link may change format while it streams (the camera follows its
// producer's format); each new format is announced on stderr. Frames without the pattern (a video
// piped into the producer) are counted too, as buffers, and with --save-frame the first BGRA
// frame's bytes are kept, for a comparison with what was sent. The camera's idle picture is
// counted apart ("idle pictures: ..."), never as a frame or a buffer.

#include "Receiver.h"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "CommandLine.h"
#include "FramePattern.h"
#include "ProducerOptions.h"
#include "TimestampLog.h"
#include "common/MonotonicTime.h"
#include "pipewire/IdleCard.h"
#include "pipewire/SpaFormats.h"

namespace flowmere::producer {
namespace {

struct ReceiveOptions {
  std::string target = "flowmere-camera-source";
  std::string timestamps;
  std::string saveFrame;  // --save-frame: where the first frame's packed rows go
  double seconds = 0;     // 0: until interrupted
};

// The whole receiver: one input stream on a main loop. The stream is not RT_PROCESS, so its
// process callback runs on the main-loop thread like every other callback; every field belongs
// to that thread and none needs a lock.
struct Receiver {
  ReceiveOptions options;
  pw_main_loop* loop = nullptr;
  pw_stream* stream = nullptr;
  spa_hook listener{};
  spa_video_format format = SPA_VIDEO_FORMAT_UNKNOWN;  // the negotiated format; UNKNOWN while
  std::uint32_t width = 0;                             // there is none (width 0 then)
  std::uint32_t height = 0;
  std::string lastFormat = "0x0 BGRA";  // the last format negotiated, for the summary
  TimestampLog log;
  std::uint64_t frames = 0;      // buffers whose frame number could be read
  std::uint64_t unreadable = 0;  // buffers too small or without the counter blocks
  // The camera's idle picture, shown while no producer sends frames: its counter blocks read
  // as kIdleCounter.
  std::uint64_t idle = 0;
  std::int64_t firstIdle = 0;
  std::int64_t lastIdle = 0;
  std::uint64_t missing = 0;    // numbers skipped between consecutive frames
  std::uint64_t repeated = 0;   // a frame number equal to the one before
  std::uint64_t backwards = 0;  // a frame number lower than the one before
  std::optional<std::uint32_t> firstNumber;
  std::uint32_t lastNumber = 0;
  std::int64_t firstReceive = 0;
  std::int64_t lastReceive = 0;
  // Every buffer that holds a whole frame of the negotiated format, pattern or not.
  std::uint64_t buffers = 0;
  std::int64_t firstBuffer = 0;
  std::int64_t lastBuffer = 0;
  // --save-frame: the first whole frame, rows packed; sized when the format is set, so that the
  // one copy on the frame path allocates nothing.
  std::vector<std::uint8_t> savedFrame;
  bool frameSaved = false;
};

// Counts `block` as a buffer when it holds a whole frame, and keeps the first such frame for
// --save-frame.
void countBuffer(Receiver& receiver, const spa_data& block, std::int64_t now) {
  if (!block.data || !block.chunk || receiver.width == 0) {
    return;
  }
  const bool p010 = receiver.format == SPA_VIDEO_FORMAT_P010_10LE;
  const std::size_t rowBytes = static_cast<std::size_t>(receiver.width) * (p010 ? 2 : 4);
  // P010: the luma rows, then half as many rows of interleaved chroma.
  const std::size_t rows = p010 ? receiver.height + receiver.height / 2 : receiver.height;
  const std::size_t stride =
      block.chunk->stride > 0 ? static_cast<std::size_t>(block.chunk->stride) : rowBytes;
  const std::size_t offset = block.chunk->offset % std::max<std::uint32_t>(block.maxsize, 1);
  const std::size_t needed = stride * (rows - 1) + rowBytes;
  if (stride < rowBytes || block.chunk->size < needed || offset + needed > block.maxsize) {
    return;
  }
  if (receiver.buffers++ == 0) {
    receiver.firstBuffer = now;
  }
  receiver.lastBuffer = now;
  if (!receiver.frameSaved && receiver.savedFrame.size() == rowBytes * receiver.height) {
    const auto* base = static_cast<const std::uint8_t*>(block.data) + offset;
    for (std::uint32_t y = 0; y < receiver.height; ++y) {
      std::memcpy(receiver.savedFrame.data() + y * rowBytes, base + y * stride, rowBytes);
    }
    receiver.frameSaved = true;
  }
}

// Reads the frame number of one BGRA or P010 buffer, or nothing when the buffer cannot hold the
// pattern.
std::optional<std::uint32_t> counterOf(const Receiver& receiver, const spa_data& block) {
  if (!block.data || !block.chunk || receiver.width == 0) {
    return std::nullopt;
  }
  const bool p010 = receiver.format == SPA_VIDEO_FORMAT_P010_10LE;
  const std::size_t pixelBytes = p010 ? 2 : 4;
  const std::size_t rowBytes = static_cast<std::size_t>(receiver.width) * pixelBytes;
  // Some producers (GStreamer's pipewiresink) leave the stride at 0: rows are then packed.
  const std::size_t stride =
      block.chunk->stride > 0 ? static_cast<std::size_t>(block.chunk->stride) : rowBytes;
  const std::size_t offset = block.chunk->offset % std::max<std::uint32_t>(block.maxsize, 1);
  if (stride < rowBytes || block.chunk->size < stride * pattern::kCounterRows ||
      offset + stride * pattern::kCounterRows > block.maxsize) {
    return std::nullopt;
  }
  const auto* base = static_cast<const std::uint8_t*>(block.data) + offset;
  return pattern::readCounter(
      receiver.width, receiver.height, [&](std::uint32_t x, std::uint32_t y) {
        const std::uint8_t* pixel = base + y * stride + static_cast<std::size_t>(x) * pixelBytes;
        if (p010) {
          return pattern::p010LumaGrey(static_cast<std::uint16_t>(pixel[0] | (pixel[1] << 8U)));
        }
        return pattern::Rgb{pixel[2], pixel[1], pixel[0]};
      });
}

void onProcess(void* data) {
  auto& receiver = *static_cast<Receiver*>(data);
  while (pw_buffer* buffer = pw_stream_dequeue_buffer(receiver.stream)) {
    const std::int64_t now = common::monotonicNanoseconds();
    const std::optional<std::uint32_t> number = counterOf(receiver, buffer->buffer->datas[0]);
    if (number != pipewire::IdleCard::kIdleCounter) {
      countBuffer(receiver, buffer->buffer->datas[0], now);
    }
    pw_stream_queue_buffer(receiver.stream, buffer);
    if (!number) {
      ++receiver.unreadable;
      continue;
    }
    if (*number == pipewire::IdleCard::kIdleCounter) {
      if (receiver.idle++ == 0) {
        receiver.firstIdle = now;
        std::fputs("receiver: first idle picture\n", stderr);
      } else if (receiver.lastReceive > receiver.lastIdle) {
        // Once per return: tests that check the picture comes back after a producer stops.
        std::fprintf(stderr, "receiver: idle picture again after frame %u\n", receiver.lastNumber);
      }
      receiver.lastIdle = now;
      continue;
    }
    receiver.log.record(*number, now);
    if (!receiver.firstNumber) {
      receiver.firstNumber = *number;
      receiver.firstReceive = now;
      // Once: tests that time how soon a client gets pictures watch for this line.
      std::fprintf(stderr, "receiver: first frame %u\n", *number);
    } else if (*number > receiver.lastNumber) {
      receiver.missing += *number - receiver.lastNumber - 1;
    } else if (*number == receiver.lastNumber) {
      ++receiver.repeated;
    } else {
      ++receiver.backwards;
    }
    receiver.lastNumber = *number;
    receiver.lastReceive = now;
    ++receiver.frames;
  }
}

void onStateChanged(void* data, pw_stream_state /*old*/, pw_stream_state state, const char* error) {
  auto& receiver = *static_cast<Receiver*>(data);
  std::fprintf(stderr, "receiver: %s%s%s\n", pw_stream_state_as_string(state), error ? ": " : "",
               error ? error : "");
  if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) {
    pw_main_loop_quit(receiver.loop);
  }
}

void onParamChanged(void* data, std::uint32_t id, const spa_pod* param) {
  auto& receiver = *static_cast<Receiver*>(data);
  if (id != SPA_PARAM_Format) {
    return;
  }
  receiver.format = SPA_VIDEO_FORMAT_UNKNOWN;
  receiver.width = 0;
  if (!param) {
    std::fputs("receiver: format cleared\n", stderr);  // before a new one, or the end
    return;
  }
  spa_video_info_raw info{};
  const std::optional<pipewire::FrameLayout> layout =
      spa_format_video_raw_parse(param, &info) < 0 ? std::nullopt : pipewire::frameLayoutFor(info);
  if (!layout) {
    std::fputs("receiver: the node chose a format other than BGRA or P010\n", stderr);
    return;
  }
  receiver.format = info.format;
  receiver.width = info.size.width;
  receiver.height = info.size.height;
  receiver.lastFormat = std::to_string(receiver.width) + "x" + std::to_string(receiver.height) +
                        (info.format == SPA_VIDEO_FORMAT_BGRA ? " BGRA" : " P010");
  std::fprintf(stderr, "receiver: %s\n", receiver.lastFormat.c_str());
  if (!receiver.options.saveFrame.empty() && !receiver.frameSaved &&
      info.format == SPA_VIDEO_FORMAT_BGRA) {
    receiver.savedFrame.assign(static_cast<std::size_t>(receiver.width) * 4 * receiver.height, 0);
  }
  // Plain memory only (the counter is read in place), one block of packed rows at least. The
  // size matters when the other side states none (GStreamer's pipewiresink before its first
  // frame): the link would otherwise make empty buffers.
  const auto stride = static_cast<int>(layout->stride);
  const auto size = static_cast<int>(layout->frameSize);
  std::array<std::byte, 512> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  const auto* buffers = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
      SPA_POD_CHOICE_RANGE_Int(8, 2, 16), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
      SPA_PARAM_BUFFERS_size, SPA_POD_CHOICE_RANGE_Int(size, size, INT32_MAX),
      SPA_PARAM_BUFFERS_stride, SPA_POD_CHOICE_RANGE_Int(stride, stride, INT32_MAX),
      SPA_PARAM_BUFFERS_dataType,
      SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd))));
  pw_stream_update_params(receiver.stream, &buffers, 1);
}

void onQuit(void* data, int /*signal*/) {
  pw_main_loop_quit(static_cast<Receiver*>(data)->loop);
}

void onTimeout(void* data, std::uint64_t /*expirations*/) {
  pw_main_loop_quit(static_cast<Receiver*>(data)->loop);
}

int bad(const std::string& message) {
  return tools::badUsage(kProgram, message);
}

bool writeFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) {
    return false;
  }
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  return std::fclose(file) == 0 && written;
}

}  // namespace

int runReceiver(int argc, char** argv) {
  Receiver receiver;
  ReceiveOptions& options = receiver.options;
  for (int i = 2; i < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag != "--target" && flag != "--seconds" && flag != "--timestamps" &&
        flag != "--save-frame") {
      return bad("unknown option '" + flag + "' for receive");
    }
    if (i + 1 >= argc || argv[i + 1][0] == '\0') {
      return bad("receive " + flag + " needs a value");
    }
    const std::string value = argv[i + 1];
    if (flag == "--target") {
      options.target = value;
    } else if (flag == "--seconds") {
      if (!tools::parseNumber(value, options.seconds) || options.seconds < 0) {
        return bad("receive --seconds takes a number of seconds, not '" + value + "'");
      }
    } else if (flag == "--timestamps") {
      options.timestamps = value;
    } else {
      options.saveFrame = value;
    }
  }
  if (!options.timestamps.empty() && !receiver.log.open(options.timestamps)) {
    std::fprintf(stderr, "flowmere-camera-producer receive: cannot write %s: %s\n",
                 options.timestamps.c_str(), std::generic_category().message(errno).c_str());
    return 1;
  }

  pw_init(&argc, &argv);
  receiver.loop = pw_main_loop_new(nullptr);
  pw_loop* loop = pw_main_loop_get_loop(receiver.loop);
  pw_loop_add_signal(loop, SIGINT, onQuit, &receiver);
  pw_loop_add_signal(loop, SIGTERM, onQuit, &receiver);
  if (options.seconds > 0) {
    spa_source* timer = pw_loop_add_timer(loop, onTimeout, &receiver);
    const auto total = static_cast<std::int64_t>(options.seconds * 1e9);
    timespec timeout{static_cast<time_t>(total / 1'000'000'000),
                     static_cast<long>(total % 1'000'000'000)};
    pw_loop_update_timer(loop, timer, &timeout, nullptr, false);
  }

  pw_properties* props = pw_properties_new(
      PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE, "Camera",
      PW_KEY_NODE_NAME, "flowmere-camera-receiver", PW_KEY_APP_NAME, "flowmere-camera-receiver",
      PW_KEY_TARGET_OBJECT, options.target.c_str(), nullptr);
  receiver.stream = pw_stream_new_simple(
      loop, "flowmere-camera-receiver", props,
      [] {
        static pw_stream_events events{};
        events.version = PW_VERSION_STREAM_EVENTS;
        events.state_changed = onStateChanged;
        events.param_changed = onParamChanged;
        events.process = onProcess;
        return &events;
      }(),
      &receiver);
  std::array<std::byte, 1024> storage{};
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), storage.size());
  spa_rectangle defaultSize{1920, 1080};
  spa_rectangle minSize{1, 1};
  spa_rectangle maxSize{16384, 16384};
  spa_fraction defaultRate{30, 1};
  spa_fraction minRate{0, 1};
  spa_fraction maxRate{1000, 1};
  // BGRA first: a node offering both gives the receiver BGRA.
  std::array<const spa_pod*, 2> formats{};
  for (std::size_t index = 0; index < formats.size(); ++index) {
    formats[index] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
        SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_Id(index == 0 ? SPA_VIDEO_FORMAT_BGRA : SPA_VIDEO_FORMAT_P010_10LE),
        SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&defaultSize, &minSize, &maxSize),
        SPA_FORMAT_VIDEO_framerate,
        SPA_POD_CHOICE_RANGE_Fraction(&defaultRate, &minRate, &maxRate)));
  }
  if (pw_stream_connect(
          receiver.stream, PW_DIRECTION_INPUT, PW_ID_ANY,
          static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS),
          formats.data(), static_cast<std::uint32_t>(formats.size())) < 0) {
    std::fputs("flowmere-camera-producer receive: cannot connect to PipeWire\n", stderr);
    return 1;
  }
  std::fprintf(stderr, "receiver: capturing %s\n", options.target.c_str());
  pw_main_loop_run(receiver.loop);
  pw_stream_destroy(receiver.stream);
  pw_main_loop_destroy(receiver.loop);
  pw_deinit();

  const bool written = receiver.log.close();
  const double span = static_cast<double>(receiver.lastReceive - receiver.firstReceive) / 1e9;
  std::printf(
      "received %llu frames in %.2f s (%.2f fps): numbers %u..%u, %llu missing, %llu repeated, "
      "%llu out of order, %llu unreadable\n",
      static_cast<unsigned long long>(receiver.frames), span,
      span > 0 ? static_cast<double>(receiver.frames - 1) / span : 0.0,
      receiver.firstNumber.value_or(0), receiver.lastNumber,
      static_cast<unsigned long long>(receiver.missing),
      static_cast<unsigned long long>(receiver.repeated),
      static_cast<unsigned long long>(receiver.backwards),
      static_cast<unsigned long long>(receiver.unreadable));
  const double bufferSpan = static_cast<double>(receiver.lastBuffer - receiver.firstBuffer) / 1e9;
  std::printf("got %llu buffers of %s in %.2f s: %.2f a second\n",
              static_cast<unsigned long long>(receiver.buffers), receiver.lastFormat.c_str(),
              bufferSpan,
              bufferSpan > 0 ? static_cast<double>(receiver.buffers - 1) / bufferSpan : 0.0);
  if (receiver.idle > 0) {
    const double idleSpan = static_cast<double>(receiver.lastIdle - receiver.firstIdle) / 1e9;
    std::printf("idle pictures: %llu in %.2f s (%.2f fps)\n",
                static_cast<unsigned long long>(receiver.idle), idleSpan,
                idleSpan > 0 ? static_cast<double>(receiver.idle - 1) / idleSpan : 0.0);
  }
  if (!options.saveFrame.empty()) {
    if (!receiver.frameSaved) {
      std::fprintf(stderr, "flowmere-camera-producer receive: no frame to save in %s\n",
                   options.saveFrame.c_str());
      return 1;
    }
    if (!writeFile(options.saveFrame, receiver.savedFrame)) {
      std::fprintf(stderr, "flowmere-camera-producer receive: cannot write %s: %s\n",
                   options.saveFrame.c_str(), std::generic_category().message(errno).c_str());
      return 1;
    }
  }
  if (!written) {
    std::fprintf(stderr, "flowmere-camera-producer receive: writing %s failed\n",
                 options.timestamps.c_str());
    return 1;
  }
  return 0;
}

}  // namespace flowmere::producer
