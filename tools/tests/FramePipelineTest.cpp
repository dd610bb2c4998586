// flowblur tool tests: the I/O pipeline beside the render loop: frames taken in order, bounded
// read-ahead and write-behind, serial lanes, failures in either direction, outcomes in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "tools/FramePipeline.h"

namespace flowblur {
namespace {

// Raises `most` to `now` if it is higher (several threads may race to do so).
void Raise(std::atomic<int>& most, int now) {
  for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
  }
}

// A read that makes a one-sample frame naming its read, after a short, varying pause so that
// background reads end out of order; it counts the frames decoded and not yet taken.
struct Reader {
  std::atomic<int> running{0}, mostRunning{0}, decoded{0}, taken{0}, mostWaiting{0};
  std::mutex mu;
  std::vector<int64_t> order;  // reads in the order they started
  std::set<int64_t> failing;   // offsets whose read fails
  std::thread::id lastThread;
  std::map<std::pair<int32_t, int64_t>, std::thread::id> threadOf;  // of each read's last run

  FramePipeline::ReadJob Job() {
    return [this](const FrameRead& read, Frame* frame, std::string* error) {
      Raise(mostRunning, ++running);
      {
        std::lock_guard<std::mutex> lock(mu);
        order.push_back(read.offset);
        lastThread = std::this_thread::get_id();
        threadOf[{read.clip, read.offset}] = lastThread;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200 * (3 - read.offset % 3)));
      --running;
      if (failing.count(read.offset)) {
        *error = "cannot read frame " + std::to_string(read.offset);
        return false;
      }
      frame->pixels.assign(1, static_cast<float>(read.clip * 1000 + read.offset));
      Raise(mostWaiting, ++decoded - taken);
      return true;
    };
  }
};

std::vector<FrameRead> Reads(int64_t count) {
  std::vector<FrameRead> reads;
  for (int64_t i = 0; i < count; ++i) reads.push_back({static_cast<int32_t>(i % 2), i});
  return reads;
}

struct Shape {
  int32_t threads;
  bool serial;
};
class PipelineShapes : public ::testing::TestWithParam<Shape> {
 protected:
  PipelineSettings Settings() const {
    PipelineSettings s = PipelineFor(GetParam().threads);
    s.serialReads = s.serialWrites = GetParam().serial;
    return s;
  }
};

TEST_P(PipelineShapes, FramesInOrderWritesRetiredInOrderAndBothBounded) {
  const PipelineSettings settings = Settings();
  const auto reads = Reads(24);
  Reader reader;
  // Write jobs alive, i.e. queued or under way with what they hold: the pipeline's memory.
  std::atomic<int> alive{0}, mostAlive{0};
  struct Held {
    std::atomic<int>* alive;
    explicit Held(std::atomic<int>* a) : alive(a) { ++*alive; }
    ~Held() { --*alive; }
  };
  std::vector<int64_t> written(reads.size(), -1);
  {
    FramePipeline pipeline(settings, reads, reader.Job());
    int64_t retired = 0;
    for (size_t i = 0; i < reads.size(); ++i) {
      Frame frame;
      std::string error;
      ASSERT_TRUE(pipeline.Take(reads[i], &frame, &error)) << error;
      ++reader.taken;
      ASSERT_EQ(frame.pixels, std::vector<float>{static_cast<float>(reads[i].clip * 1000 + i)});
      auto held = std::make_shared<Held>(&alive);
      const int64_t number = pipeline.Write([&, i, held](std::string*) {
        std::this_thread::sleep_for(std::chrono::microseconds(100 * (i % 4)));
        written[i] = static_cast<int64_t>(i);
        return true;
      });
      held.reset();
      EXPECT_EQ(number, static_cast<int64_t>(i));
      Raise(mostAlive, alive);
      FramePipeline::Outcome outcome;
      while (pipeline.Retire(false, &outcome)) EXPECT_EQ(outcome.number, retired++);
    }
    FramePipeline::Outcome outcome;
    while (pipeline.Retire(true, &outcome)) {
      EXPECT_TRUE(outcome.ok);
      EXPECT_EQ(outcome.number, retired++);
    }
    EXPECT_EQ(retired, static_cast<int64_t>(reads.size()));
  }
  for (size_t i = 0; i < written.size(); ++i) EXPECT_EQ(written[i], static_cast<int64_t>(i));
  // The test counts a take just after Take returns, when the next read may already be done.
  EXPECT_LE(reader.mostWaiting.load(), settings.readAhead + 1);
  EXPECT_LE(mostAlive.load(), settings.writeBehind);
  EXPECT_EQ(alive.load(), 0);
  if (settings.threads == 0) {
    EXPECT_EQ(reader.lastThread, std::this_thread::get_id());
  }
  if (settings.threads == 0 || settings.serialReads) {
    EXPECT_EQ(reader.mostRunning.load(), 1);
    std::vector<int64_t> inOrder(reader.order);
    std::sort(inOrder.begin(), inOrder.end());
    EXPECT_EQ(reader.order, inOrder);
  }
}

TEST_P(PipelineShapes, AFailedReadIsReportedWhenItsFrameIsTaken) {
  const auto reads = Reads(12);
  Reader reader;
  reader.failing = {5};
  FramePipeline pipeline(Settings(), reads, reader.Job());
  for (size_t i = 0; i < 5; ++i) {
    Frame frame;
    std::string error;
    EXPECT_TRUE(pipeline.Take(reads[i], &frame, &error)) << error;
  }
  Frame frame;
  std::string error;
  EXPECT_FALSE(pipeline.Take(reads[5], &frame, &error));
  EXPECT_EQ(error, "cannot read frame 5");
  // The run stops here; the pipeline ends with reads still queued or under way.
}

TEST_P(PipelineShapes, AfterAFailedWriteTheQueuedOnesAreDroppedAndAllRetireInOrder) {
  FramePipeline pipeline(Settings(), {}, nullptr);
  std::atomic<int> ran{0};
  int64_t retired = 0, dropped = 0;
  bool failed = false;
  auto retire = [&](bool wait) {
    FramePipeline::Outcome outcome;
    while (pipeline.Retire(wait, &outcome)) {
      EXPECT_EQ(outcome.number, retired++);
      if (outcome.number == 3) {
        EXPECT_EQ(outcome.error, "no space left");
        failed = true;
        pipeline.CancelQueuedWrites();
      } else if (!outcome.ok) {
        EXPECT_EQ(outcome.error, "not written: an earlier write failed");
        ++dropped;
      }
    }
  };
  for (int64_t i = 0; i < 10 && !failed; ++i) {
    pipeline.Write([&ran, i](std::string* error) {
      ++ran;
      if (i == 3) *error = "no space left";
      return i != 3;
    });
    retire(false);
  }
  retire(true);
  EXPECT_TRUE(failed);
  EXPECT_EQ(pipeline.Outstanding(), 0);
  // Every write that ran is accounted for, and a dropped one never ran.
  EXPECT_EQ(ran.load(), retired - dropped);
}

INSTANTIATE_TEST_SUITE_P(Shapes, PipelineShapes,
                         ::testing::Values(Shape{0, false}, Shape{1, false}, Shape{3, false},
                                           Shape{3, true}));

TEST(FramePipeline, FramesAskedOutOfTurnOrAgainAreReadOnTheCallingThread) {
  const auto reads = Reads(12);
  Reader reader;
  FramePipeline pipeline(PipelineFor(2), reads, reader.Job());
  auto takeHere = [&](const FrameRead& read) {
    Frame frame;
    std::string error;
    EXPECT_TRUE(pipeline.Take(read, &frame, &error)) << error;
    EXPECT_EQ(frame.pixels, std::vector<float>{static_cast<float>(read.clip * 1000 + read.offset)});
    std::lock_guard<std::mutex> lock(reader.mu);
    return reader.threadOf[{read.clip, read.offset}] == std::this_thread::get_id();
  };
  EXPECT_TRUE(takeHere(reads[10]));  // beyond the read-ahead
  takeHere(reads[0]);
  EXPECT_TRUE(takeHere(reads[0]));  // taken before: read again
  EXPECT_TRUE(takeHere(FrameRead{1, 77}));  // not among the reads
  for (size_t i = 1; i < reads.size(); ++i)
    if (i != 10) takeHere(reads[i]);
}

}  // namespace
}  // namespace flowblur
