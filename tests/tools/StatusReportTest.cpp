// The status tool's verdict and frame rate, from made-up graphs and frame-count readings.

#include <gtest/gtest.h>

#include "StatusReport.h"

namespace flowmere::status {
namespace {

CameraGraph runningGraph(std::size_t producers, std::size_t clients) {
  CameraGraph graph;
  graph.sourceNode = 40;
  graph.sinkNode = 41;
  for (std::size_t i = 0; i < producers; ++i) {
    graph.producers.push_back({static_cast<std::uint32_t>(50 + i), "producer", "", -1});
  }
  for (std::size_t i = 0; i < clients; ++i) {
    graph.clients.push_back({static_cast<std::uint32_t>(60 + i), "client", "", -1});
  }
  return graph;
}

FrameCount count(std::int64_t frames, double writtenSeconds) {
  return FrameCount{frames, writtenSeconds};
}

TEST(FrameRateBetween, UsesTheSpanBetweenTheTwoWrites) {
  // Frame 100 was written 0.02 s before the first reading, frame 130 0.01 s before the second:
  // 30 frames in 0.99 s, although the readings were 1.0 s apart.
  const auto rate = frameRateBetween(count(100, 9.98), count(130, 10.97), 1.0);
  ASSERT_TRUE(rate);
  EXPECT_NEAR(*rate, 30.0 / 0.99, 1e-9);
}

TEST(FrameRateBetween, EdgeCases) {
  // No frame in between.
  EXPECT_EQ(frameRateBetween(count(100, 5.0), count(100, 5.0), 1.0), 0.0);
  // A new start reset the count: what came since, over the whole interval.
  EXPECT_EQ(frameRateBetween(count(500, 5.0), count(15, 10.0), 0.5), 30.0);
  // A write time that cannot belong to the interval (the clock was set): the interval counts.
  EXPECT_EQ(frameRateBetween(count(100, 5.0), count(130, 500.0), 1.0), 30.0);
  EXPECT_EQ(frameRateBetween(count(100, 5.0), count(130, 5.0), 1.0), 30.0);
  // Not two readings, or no time between them.
  EXPECT_FALSE(frameRateBetween(std::nullopt, count(130, 5.0), 1.0));
  EXPECT_FALSE(frameRateBetween(count(100, 5.0), std::nullopt, 1.0));
  EXPECT_FALSE(frameRateBetween(count(100, 5.0), count(130, 6.0), 0.0));
}

TEST(MakeReport, VerdictFollowsTheGraphBeforeTheFrames) {
  // Frames advancing in the state files (a demo on the same files, say) do not make a missing
  // service or producer look like a working camera.
  CameraGraph missing = runningGraph(1, 1);
  missing.sinkNode.reset();
  auto report = makeReport(missing, {}, count(0, 1.0), count(30, 2.0), 1.0, 2.0);
  EXPECT_EQ(report.verdict, Verdict::kServiceNotRunning);
  EXPECT_EQ(report.verdictText, "camera service not running");

  CameraGraph unreachable = runningGraph(1, 1);
  unreachable.problem = "PipeWire is not running for this user";
  report = makeReport(unreachable, {}, count(0, 1.0), count(30, 2.0), 1.0, 2.0);
  EXPECT_EQ(report.verdict, Verdict::kServiceNotRunning);

  report = makeReport(runningGraph(0, 2), {}, count(0, 1.0), count(30, 2.0), 1.0, 2.0);
  EXPECT_EQ(report.verdict, Verdict::kWaitingForProducer);
  EXPECT_EQ(report.verdictText, "waiting for a producer");
}

TEST(MakeReport, RelayingNamesTheRateAndTheClients) {
  auto report = makeReport(runningGraph(1, 2), {}, count(100, 0.99), count(130, 1.99), 1.0, 2.0);
  EXPECT_EQ(report.verdict, Verdict::kRelaying);
  EXPECT_EQ(report.verdictText, "relaying 30.0 fps to 2 clients");
  report = makeReport(runningGraph(1, 1), {}, count(100, 0.99), count(130, 1.99), 1.0, 2.0);
  EXPECT_EQ(report.verdictText, "relaying 30.0 fps to 1 client");
  report = makeReport(runningGraph(1, 0), {}, count(100, 0.99), count(130, 1.99), 1.0, 2.0);
  EXPECT_EQ(report.verdictText, "relaying 30.0 fps, no client capturing");
  EXPECT_EQ(report.framesReceived, 130);
  ASSERT_TRUE(report.lastFrameAgeSeconds);
  EXPECT_NEAR(*report.lastFrameAgeSeconds, 0.01, 1e-9);
}

TEST(MakeReport, LinkedProducerWithoutFramesIsNotRelaying) {
  // Linked, but the count stands still; and linked with only one reading.
  auto report = makeReport(runningGraph(1, 1), {}, count(130, 1.0), count(130, 1.0), 1.0, 2.0);
  EXPECT_EQ(report.verdict, Verdict::kNoFrames);
  report = makeReport(runningGraph(1, 1), {}, std::nullopt, count(130, 1.0), 1.0, 2.0);
  EXPECT_EQ(report.verdict, Verdict::kNoFrames);
  // A count of 0 was written by the start; no frame has an age yet.
  report = makeReport(runningGraph(1, 1), {}, count(0, 1.0), count(0, 1.0), 1.0, 2.0);
  EXPECT_EQ(report.framesReceived, 0);
  EXPECT_FALSE(report.lastFrameAgeSeconds);
}

}  // namespace
}  // namespace flowmere::status
