// Work and SequenceWork against a real loop and libuv's pool.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/work.h"

using zelsocket::IOLoop;
using zelsocket::SequenceWork;
using zelsocket::Work;
using Events = std::vector<std::string>;

namespace {

// The pool is sized once per process, at its first use; a known size lets the
// tests occupy every pool thread to keep a job from starting.
constexpr int kPoolSize = 2;
const int g_poolSizeSet = setenv("UV_THREADPOOL_SIZE", "2", 1);

struct Gate {
  std::promise<void> promise;
  std::shared_future<void> future = promise.get_future().share();
  void Open() { promise.set_value(); }
  void Wait() const { future.wait(); }
};

class WorkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(g_poolSizeSet, 0);
    ASSERT_EQ(loop.Start(), 0);
  }
  void TearDown() override {
    if (loop.Loop()) loop.Stop();
  }
  // Records events from any thread.
  void Add(const std::string& e) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(e);
  }
  Events Trace() {
    std::lock_guard<std::mutex> lock(mutex);
    return events;
  }
  // Blocks every pool thread until the returned gate opens.
  std::shared_ptr<Gate> OccupyPool() {
    auto gate = std::make_shared<Gate>();
    auto started = std::make_shared<std::atomic<int>>(0);
    for (int i = 0; i < kPoolSize; ++i) {
      EXPECT_EQ(blocker.QueueWork([gate, started] { ++*started, gate->Wait(); }, [](int) {}), 0);
    }
    EXPECT_TRUE(zstest::WaitUntil([&] { return started->load() == kPoolSize; }));
    return gate;
  }

  IOLoop loop;
  Work blocker{&loop};
  std::mutex mutex;
  Events events;
};

TEST_F(WorkTest, RefusesEmptyFunctionsSilentlyAndLogsAStoppedLoop) {
  zstest::LogRecorder log;
  Work work(&loop);
  SequenceWork seq(&loop);
  EXPECT_EQ(work.QueueWork(nullptr, [](int) {}), -1);
  EXPECT_EQ(work.QueueWork([] {}, nullptr), -1);
  EXPECT_EQ(seq.QueueWork(nullptr, [](int) {}), -1);
  EXPECT_EQ(seq.QueueWork([] {}, nullptr), -1);
  EXPECT_TRUE(log.Lines().empty());

  IOLoop stopped;  // never started
  Work w2(&stopped);
  SequenceWork s2(&stopped);
  EXPECT_EQ(w2.QueueWork([&] { Add("ran"); }, [&](int) { Add("ran"); }), -1);
  EXPECT_EQ(s2.QueueWork([&] { Add("ran"); }, [&](int) { Add("ran"); }), -1);
  EXPECT_EQ(log.Count("WorkImpl::QueueWork, QueueWork fail, ret=-1"), 1);
  EXPECT_EQ(log.Count("SequenceWorkImpl::QueueWork, QueueWork fail, ret=-1"), 1);
  EXPECT_TRUE(Trace().empty());
}

TEST_F(WorkTest, WorkJobsOverlapAndReportOnTheLoopThread) {
  Work work(&loop);
  std::atomic<int> started{0}, onLoop{0};
  // Each job waits for the other to have started: only overlap ends this.
  auto job = [&] {
    ++started;
    EXPECT_TRUE(zstest::WaitUntil([&] { return started.load() == 2; }));
  };
  auto after = [&](int status) { onLoop += status == 0 && loop.IsLoopThread(); };
  ASSERT_EQ(work.QueueWork(job, after), 0);
  ASSERT_EQ(work.QueueWork(job, after), 0);
  EXPECT_TRUE(zstest::WaitUntil([&] { return onLoop.load() == 2; }));
}

TEST_F(WorkTest, WorkCancelSkipsQueuedAndSilencesRunningJobs) {
  zstest::LogRecorder log;
  Work work(&loop);
  auto gate = OccupyPool();
  // Queued behind the blockers: cannot start before Cancel.
  ASSERT_EQ(work.QueueWork([&] { Add("w1"); }, [&](int) { Add("a1"); }), 0);
  ASSERT_EQ(work.QueueWork([&] { Add("w2"); }, [&](int) { Add("a2"); }), 0);
  work.Cancel();
  gate->Open();
  ASSERT_TRUE(zstest::WaitUntil([&] { return log.CountPrefix("WorkImpl::_OnAfterWork, Canceled, cookie=") == 2; }));
  EXPECT_EQ(log.Count("WorkImpl::_OnWork, canceled, cookie=1"), 1);
  EXPECT_EQ(log.Count("WorkImpl::_OnWork, canceled, cookie=2"), 1);

  // A running job finishes; its report is suppressed.
  Gate running;
  ASSERT_EQ(work.QueueWork([&] { Add("w3"), running.Wait(); }, [&](int) { Add("a3"); }), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 1; }));
  work.Cancel();
  running.Open();
  ASSERT_TRUE(zstest::WaitUntil([&] { return log.Count("WorkImpl::_OnAfterWork, Canceled, cookie=3") == 1; }));

  // Jobs queued after a Cancel run normally.
  std::promise<int> later;
  ASSERT_EQ(work.QueueWork([&] { Add("w4"); }, [&](int status) { later.set_value(status); }), 0);
  EXPECT_EQ(later.get_future().get(), 0);
  EXPECT_EQ(Trace(), (Events{"w3", "w4"}));
}

TEST_F(WorkTest, SequenceRunsStrictlyInOrderAndRequeuesGoToTheTail) {
  SequenceWork seq(&loop);
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  for (int i = 1; i <= 4; ++i) {
    std::string n = std::to_string(i);
    auto work = [&, n] {
      if (++running > 1) overlapped = true;
      Add("w" + n);
      --running;
    };
    auto after = [&, n, i](int status) {
      Add("a" + n + (status == 0 ? "" : "!"));
      // Queued from inside a report: behind jobs 3 and 4.
      if (i == 2) {
        EXPECT_EQ(seq.QueueWork([&] { Add("w5"); }, [&](int) { Add("a5"); }), 0);
      }
    };
    ASSERT_EQ(seq.QueueWork(work, after), 0);
  }
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 10; }));
  EXPECT_EQ(Trace(), (Events{"w1", "a1", "w2", "a2", "w3", "a3", "w4", "a4", "w5", "a5"}));
  EXPECT_FALSE(overlapped.load());
}

TEST_F(WorkTest, SequenceCancelDropsWaitingJobsAtOnceAndResumesAfterCurrent) {
  zstest::LogRecorder log;
  SequenceWork seq(&loop);
  Gate gate;
  ASSERT_EQ(seq.QueueWork([&] { Add("w1"), gate.Wait(); }, [&](int) { Add("a1"); }), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 1; }));
  auto held = std::make_shared<int>(7);
  ASSERT_EQ(seq.QueueWork([&, held] { Add("w2"); }, [&, held](int) { Add("a2"); }), 0);
  ASSERT_EQ(seq.QueueWork([&, held] { Add("w3"); }, [&, held](int) { Add("a3"); }), 0);
  seq.Cancel();
  EXPECT_EQ(held.use_count(), 1);  // released on this thread, before Cancel returned

  std::promise<void> fourth;
  ASSERT_EQ(seq.QueueWork([&] { Add("w4"); }, [&](int) { Add("a4"), fourth.set_value(); }), 0);
  gate.Open();
  fourth.get_future().wait();
  EXPECT_EQ(Trace(), (Events{"w1", "w4", "a4"}));
  EXPECT_EQ(log.Count("SequenceWorkImpl::_OnAfterWork, canceled, cookie=1, pending=1"), 1);

  // Cancel from inside an after-work function ends the chain there.
  Gate second;
  std::promise<void> cancelled;
  ASSERT_EQ(seq.QueueWork([&] { second.Wait(); }, [&](int) { seq.Cancel(), cancelled.set_value(); }), 0);
  ASSERT_EQ(seq.QueueWork([&] { Add("w6"); }, [&](int) { Add("a6"); }), 0);
  second.Open();
  cancelled.get_future().wait();
  std::promise<void> last;
  ASSERT_EQ(seq.QueueWork([&] { Add("w7"); }, [&](int) { last.set_value(); }), 0);
  last.get_future().wait();
  EXPECT_EQ(Trace(), (Events{"w1", "w4", "a4", "w7"}));
}

TEST_F(WorkTest, DestructionWithJobsInFlightDoesNotWaitOrReport) {
  auto gate = std::make_shared<Gate>();
  auto held = std::make_shared<int>(1);
  {
    Work work(&loop);
    SequenceWork seq(&loop);
    ASSERT_EQ(work.QueueWork([gate, held] { gate->Wait(); }, [&, held](int) { Add("a"); }), 0);
    ASSERT_EQ(seq.QueueWork([gate, held] { gate->Wait(); }, [&, held](int) { Add("a"); }), 0);
    ASSERT_EQ(seq.QueueWork([held] {}, [&, held](int) { Add("a"); }), 0);
  }  // both destroyed while their jobs block on the pool
  gate->Open();
  // The records die on the loop thread once libuv has reported them.
  ASSERT_TRUE(zstest::WaitUntil([&] { return held.use_count() == 1; }));
  EXPECT_TRUE(Trace().empty());
}

TEST_F(WorkTest, FailedResubmissionReportsEveryWaitingJobWithMinusOneInOrder) {
  zstest::LogRecorder log;
  SequenceWork seq(&loop);
  std::promise<void> inAfter;
  Gate gate;
  ASSERT_EQ(seq.QueueWork([&] { gate.Wait(); },
                          [&](int status) {
                            Add("a1:" + std::to_string(status));
                            inAfter.set_value();
                            // Hold the report until Stop has begun to refuse new work.
                            EXPECT_TRUE(zstest::WaitUntil([&] { return loop.AsyncCall([] {}) == -1; }));
                          }),
            0);
  for (const char* n : {"2", "3"}) {
    ASSERT_EQ(seq.QueueWork([&, n] { Add(std::string("w") + n); },
                            [&, n](int status) { Add(std::string("a") + n + ":" + std::to_string(status)); }),
              0);
  }
  gate.Open();
  inAfter.get_future().wait();
  ASSERT_EQ(loop.Stop(), 0);
  EXPECT_EQ(Trace(), (Events{"a1:0", "a2:-1", "a3:-1"}));
  EXPECT_EQ(log.Count("SequenceWorkImpl::_OnAfterWork, QueueWork fail, ret=-1"), 2);
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);  // idle, not parked
}

TEST_F(WorkTest, StopReleasesRecordsWithoutCallingTheFunctions) {
  auto held = std::make_shared<int>(1);
  Work work(&loop);
  SequenceWork seq(&loop);
  auto gate = OccupyPool();  // further jobs wait in libuv's queue
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(work.QueueWork([&, held] { Add("w"); }, [&, held](int) { Add("a"); }), 0);
    ASSERT_EQ(seq.QueueWork([&, held] { Add("w"); }, [&, held](int) { Add("a"); }), 0);
  }
  // The stopping loop cancels the jobs that libuv still queues and hands their
  // records back; only then may the blockers end.
  std::thread opener([gate, &held] {
    EXPECT_TRUE(zstest::WaitUntil([&] { return held.use_count() == 1; }));
    gate->Open();
  });
  ASSERT_EQ(loop.Stop(), 0);
  opener.join();
  EXPECT_TRUE(Trace().empty());
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);  // not stuck waiting for ever
}

}  // namespace
