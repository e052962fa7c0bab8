#include "ProducerOptions.h"

#include <charconv>
#include <cmath>

#include "CommandLine.h"

namespace flowmere::producer {

namespace {

constexpr std::string_view kUsage =
    "usage: flowmere-camera-producer [--target NODE] [--format bgra|p010] [--size WxH] [--fps N]\n"
    "                                [--transfer pq|hlg] [--seconds S]\n"
    "                                [--file RAW | --file - [--live]]\n"
    "                                [--timestamps FILE] [--pause AT,S]\n"
    "       flowmere-camera-producer check [--allow-gaps] FRAME.png...\n"
    "       flowmere-camera-producer receive [--target NODE] [--seconds S] [--timestamps FILE]\n"
    "                                        [--save-frame FILE]\n"
    "       flowmere-camera-producer --help | --version\n"
    "\n"
    "Pushes frames into the Flowmere camera's sink node on PipeWire: a test pattern whose frame\n"
    "number is written in its top rows, the frames of a raw file (looped), or raw frames from\n"
    "standard input, e.g.\n"
    "  ffmpeg -re -i clip.mp4 -vf scale=1280:720 -f rawvideo -pix_fmt bgra - |\n"
    "    flowmere-camera-producer --file - --size 1280x720\n"
    "\n"
    "  --target NODE      the node to push into (default flowmere-camera-sink)\n"
    "  --format F         bgra, or p010 (10-bit 4:2:0 HDR, also called x420) (default bgra)\n"
    "  --size WxH         frame size in pixels (default 1280x720)\n"
    "  --fps N            frames per second, 1 to 1000 (default 30)\n"
    "  --transfer T       the HDR transfer function of p010 frames: pq or hlg (default pq)\n"
    "  --seconds S        stop after S seconds (default: at Ctrl-C, or when the input ends)\n"
    "  --file RAW         push the packed raw frames of file RAW, looped\n"
    "  --file -           push packed raw frames read from standard input; stop when it ends\n"
    "  --live             with --file -: a live input; stamp each frame with its arrival time,\n"
    "                     send it at once, and drop frames a newer one overtook (without it,\n"
    "                     every frame goes out in order, stamped and sent on the --fps schedule)\n"
    "  --timestamps FILE  append \"frame_number push_time_ns\" for every frame pushed\n"
    "  --pause AT,S       push nothing from AT seconds after the first frame, for S seconds\n"
    "\n"
    "check verifies captured PNG frames against the pattern (and that no frame number is\n"
    "missing, unless --allow-gaps). receive captures the camera's source node as a client and\n"
    "reports the frames and the frame numbers it got; --save-frame writes its first frame, raw.\n"
    "\n"
    "Exit status: 0 when stopped, or when standard input ended after whole frames; 1 for a\n"
    "failure (a short last frame, an empty input, a read error); 2 for a bad command line.\n";

bool parseWhole(std::string_view text, double& value, double minimum, double maximum) {
  double parsed = 0;
  if (!tools::parseNumber(text, parsed) || parsed < minimum || parsed > maximum) {
    return false;
  }
  value = parsed;
  return true;
}

}  // namespace

std::string_view producerUsage() {
  return kUsage;
}

bool parseSize(std::string_view text, std::uint32_t& width, std::uint32_t& height) {
  const std::size_t cross = text.find('x');
  if (cross == std::string_view::npos) {
    return false;
  }
  std::uint32_t w = 0;
  std::uint32_t h = 0;
  const char* middle = text.data() + cross;
  const char* end = text.data() + text.size();
  const auto [stopWidth, widthError] = std::from_chars(text.data(), middle, w);
  const auto [stopHeight, heightError] = std::from_chars(middle + 1, end, h);
  if (widthError != std::errc() || stopWidth != middle || heightError != std::errc() ||
      stopHeight != end || w == 0 || h == 0 || w > 16384 || h > 16384) {
    return false;
  }
  width = w;
  height = h;
  return true;
}

std::optional<int> parseProducerOptions(int argc, char** argv, ProducerOptions& options) {
  const auto bad = [](const std::string& message) {
    return std::optional<int>(tools::badUsage(kProgram, message));
  };
  for (int index = 1; index < argc; ++index) {
    const std::string_view flag = argv[index];
    if (flag == "--help" || flag == "-h") {
      return tools::printUsage(kUsage);
    }
    if (flag == "--version") {
      return tools::printVersion(kProgram);
    }
    if (flag == "--live") {
      options.live = true;
      continue;
    }
    const bool takesValue = flag == "--target" || flag == "--format" || flag == "--size" ||
                            flag == "--fps" || flag == "--transfer" || flag == "--seconds" ||
                            flag == "--pause" || flag == "--file" || flag == "--timestamps";
    if (!takesValue) {
      return flag.rfind('-', 0) == 0 && flag.size() > 1
                 ? bad("unknown option '" + std::string(flag) + "'")
                 : bad("unexpected argument '" + std::string(flag) + "'");
    }
    if (index + 1 >= argc) {
      return bad(std::string(flag) + " needs a value");
    }
    const std::string_view value = argv[++index];
    const std::string quoted = "'" + std::string(value) + "'";
    double number = 0;
    if (flag == "--target" && !value.empty()) {
      options.target = value;
    } else if (flag == "--format" && (value == "bgra" || value == "p010" || value == "x420")) {
      options.format = value == "bgra" ? "bgra" : "p010";
    } else if (flag == "--format") {
      return bad("--format takes bgra or p010, not " + quoted);
    } else if (flag == "--size") {
      if (!parseSize(value, options.width, options.height)) {
        return bad("--size takes WIDTHxHEIGHT, e.g. 1280x720, not " + quoted);
      }
    } else if (flag == "--fps") {
      if (!parseWhole(value, number, 1, 1000) || number != std::floor(number)) {
        return bad("--fps takes a whole number from 1 to 1000, not " + quoted);
      }
      options.fps = static_cast<std::uint32_t>(number);
    } else if (flag == "--transfer" && (value == "pq" || value == "hlg")) {
      options.transfer = value;
    } else if (flag == "--transfer") {
      return bad("--transfer takes pq or hlg, not " + quoted);
    } else if (flag == "--seconds") {
      if (!parseWhole(value, options.seconds, 0, 1e9)) {
        return bad("--seconds takes a number of seconds, not " + quoted);
      }
    } else if (flag == "--pause") {
      const std::size_t comma = value.find(',');
      if (comma == std::string_view::npos ||
          !parseWhole(value.substr(0, comma), options.pauseAt, 0, 1e9) ||
          !parseWhole(value.substr(comma + 1), options.pauseSeconds, 1e-3, 1e9)) {
        return bad("--pause takes AT,SECONDS, e.g. 1.5,1.2, not " + quoted);
      }
    } else if (flag == "--file" && !value.empty()) {
      options.file = value;
    } else if (flag == "--timestamps" && !value.empty()) {
      options.timestamps = value;
    } else {
      return bad(std::string(flag) + " needs a non-empty value");
    }
  }
  if (options.live && !options.readsStandardInput()) {
    return bad("--live goes with --file - (a live input on standard input)");
  }
  if (options.live && options.pauseSeconds > 0) {
    return bad("--pause holds back the frame schedule, which a --live input does not follow");
  }
  return std::nullopt;
}

}  // namespace flowmere::producer
