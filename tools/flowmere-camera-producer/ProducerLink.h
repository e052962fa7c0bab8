#pragma once

// The producer's state and its PipeWire stream: the output stream that links to the camera's
// sink, the frame timer that drives it, the events that tell it of standard input, and the end
// of a run. What goes into each frame is main.cpp's (its process callback).
//
// Threads: everything here runs on the main thread, which runs the PipeWire main loop; the
// stream is not RT_PROCESS, so its process callback runs there too, and no field needs a lock.
// The one exception is the FrameReader's thread, which only signals `inputEvent`
// (pw_loop_signal_event may be called from any thread) and keeps its own state under its lock.

#include <pipewire/pipewire.h>
#include <spa/param/video/raw.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <vector>

#include "FramePattern.h"
#include "FrameReader.h"
#include "ProducerOptions.h"
#include "TimestampLog.h"
#include "pipewire/SpaFormats.h"

namespace flowmere::producer {

struct Producer {
  ProducerOptions options;
  spa_video_info_raw info{};
  pipewire::FrameLayout layout;
  pw_main_loop* loop = nullptr;
  pw_stream* stream = nullptr;
  pw_stream_events events{};  // the stream keeps a pointer to them
  std::int64_t period = 0;
  std::int64_t nextDue = 0;
  std::uint64_t frame = 0;    // frames queued so far; also the next frame's number
  std::uint64_t skipped = 0;  // frame times that passed with no frame sent
  std::int64_t firstPush = 0;
  std::ifstream file;  // --file RAW
  std::vector<char> fileFrame;
  std::unique_ptr<FrameReader> reader;  // --file -
  TimestampLog pushLog;                 // --timestamps: one line per queued frame
  bool streaming = false;
  bool linked = false;                // the stream has streamed at least once
  spa_source* frameTimer = nullptr;   // fires once per frame period while streaming
  spa_source* inputEvent = nullptr;   // the reader has a frame, or the input ended
  spa_source* finishTimer = nullptr;  // ends the run once the input's last frame went out
  spa_source* linkHint = nullptr;     // says so when the stream has not linked after a while
  // The test pattern and a looped file are drawn one frame ahead, into a buffer kept dequeued
  // until the frame's time, so that the frame is queued the moment it is due: drawing it then
  // would put the drawing time, which varies from frame to frame, between the frame's time stamp
  // and its arrival, and the camera, which spaces frames by their time stamps, would hold every
  // frame that drew faster than the first one. `prepareTimer` draws the next frame half a period
  // before its time, when the previous frame has long been relayed: drawing right after queueing
  // would take a core from the relay of the frame just queued. `prepared` is the buffer holding
  // the drawn frame, cleared when the link takes its buffers back.
  spa_source* prepareTimer = nullptr;
  bool scheduled = false;  // the frame timer runs (from the first drawn frame on)
  pw_buffer* prepared = nullptr;
  bool finishing = false;
  bool driving = false;  // as last logged
  int exitStatus = 0;

  [[nodiscard]] bool inputEnded() const {
    return reader && reader->state().end != FrameReader::End::kNotYet;
  }
};

// Sets `info`, `layout` and `period` from the options, and says on stderr when the format is not
// one that the camera takes.
void describeFormat(Producer& producer);

// Adds the signal handlers, timers and events to `producer.loop`, then creates the stream with
// `process` as its process callback and connects it to the target. False, after a message on
// stderr, when PipeWire refuses.
bool connectProducer(Producer& producer, void (*process)(void*));

// Starts the frame schedule now: the first frame is due at once, the next one period later.
void startSchedule(Producer& producer);

// Arms `prepareTimer` to draw the next frame at `time` (CLOCK_MONOTONIC ns; at once if past).
void scheduleDrawing(Producer& producer, std::int64_t time);

// "pushed N frames in S s (F fps), skipped K" on stdout, with the input's drops for --live.
void printSummary(const Producer& producer);

}  // namespace flowmere::producer
