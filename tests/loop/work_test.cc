// Work and SequenceWork against a real loop and libuv's pool.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "loop/sequence_work_impl.h"
#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/work.h"

using zelsocket::IOLoop;
using zelsocket::SequenceWork;
using zelsocket::Work;

namespace {

// The pool is sized once per process, at its first use; a known size lets the
// tests occupy every pool thread to keep a job from starting.
constexpr int kPoolSize = 2;
const int g_poolSizeSet = setenv("UV_THREADPOOL_SIZE", "2", 1);

class Gate {
 public:
  void Open() { m_promise.set_value(); }
  void Wait() { m_future.wait(); }

 private:
  std::promise<void> m_promise;
  std::shared_future<void> m_future{m_promise.get_future().share()};
};

// Records events from any thread.
class Trace {
 public:
  void Add(const std::string& event) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(event);
  }
  std::vector<std::string> Events() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
  }
  std::size_t Size() { return Events().size(); }

 private:
  std::mutex m_mutex;
  std::vector<std::string> m_events;
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

  // Blocks every pool thread until the returned gate opens.
  std::shared_ptr<Gate> OccupyPool(Work& blocker, std::atomic<int>& started) {
    auto gate = std::make_shared<Gate>();
    for (int i = 0; i < kPoolSize; ++i) {
      EXPECT_EQ(blocker.QueueWork(
                    [gate, &started] {
                      ++started;
                      gate->Wait();
                    },
                    [](int) {}),
                0);
    }
    EXPECT_TRUE(zstest::WaitUntil([&] { return started.load() == kPoolSize; }));
    return gate;
  }

  IOLoop loop;
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
  work.Cancel();  // nothing queued: harmless
  seq.Cancel();

  IOLoop stopped;  // never started
  Work w2(&stopped);
  SequenceWork s2(&stopped);
  bool ran = false;
  EXPECT_EQ(w2.QueueWork([&] { ran = true; }, [&](int) { ran = true; }), -1);
  EXPECT_EQ(s2.QueueWork([&] { ran = true; }, [&](int) { ran = true; }), -1);
  EXPECT_EQ(log.Count("WorkImpl::QueueWork, QueueWork fail, ret=-1"), 1);
  EXPECT_EQ(log.Count("SequenceWorkImpl::QueueWork, QueueWork fail, ret=-1"), 1);
  EXPECT_FALSE(ran);
  // A refused job leaves the sequence idle: the next one on a live loop runs.
  std::promise<int> done;
  SequenceWork s3(&loop);
  ASSERT_EQ(s3.QueueWork([] {}, [&](int status) { done.set_value(status); }), 0);
  EXPECT_EQ(done.get_future().get(), 0);
}

TEST_F(WorkTest, WorkJobsOverlapAndReportOnTheLoopThread) {
  Work work(&loop);
  std::atomic<int> started{0};
  std::atomic<int> reported{0};
  std::atomic<bool> offLoop{false};
  std::atomic<bool> onLoop{true};
  auto job = [&] {
    offLoop = !loop.IsLoopThread();
    ++started;
    // Each job waits for the other to have started: only overlap ends this.
    EXPECT_TRUE(zstest::WaitUntil([&] { return started.load() == 2; }));
  };
  auto after = [&](int status) {
    EXPECT_EQ(status, 0);
    if (!loop.IsLoopThread()) onLoop = false;
    ++reported;
  };
  ASSERT_EQ(work.QueueWork(job, after), 0);
  ASSERT_EQ(work.QueueWork(job, after), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return reported.load() == 2; }));
  EXPECT_TRUE(offLoop.load());
  EXPECT_TRUE(onLoop.load());
}

TEST_F(WorkTest, WorkCancelSkipsQueuedAndSilencesRunningJobs) {
  zstest::LogRecorder log;
  Work blocker(&loop);
  std::atomic<int> blockersStarted{0};
  Work work(&loop);
  std::atomic<int> workRuns{0}, afterRuns{0};
  auto gate = OccupyPool(blocker, blockersStarted);
  // Queued behind the blockers: cannot start before Cancel.
  ASSERT_EQ(work.QueueWork([&] { ++workRuns; }, [&](int) { ++afterRuns; }), 0);
  ASSERT_EQ(work.QueueWork([&] { ++workRuns; }, [&](int) { ++afterRuns; }), 0);
  work.Cancel();
  gate->Open();
  ASSERT_TRUE(zstest::WaitUntil([&] { return log.CountPrefix("WorkImpl::_OnAfterWork, Canceled, cookie=") == 2; }));
  EXPECT_EQ(log.Count("WorkImpl::_OnWork, canceled, cookie=1"), 1);
  EXPECT_EQ(log.Count("WorkImpl::_OnWork, canceled, cookie=2"), 1);
  EXPECT_EQ(workRuns.load(), 0);

  // A job that is running finishes, and its report is suppressed.
  Gate running;
  std::atomic<bool> inWork{false};
  ASSERT_EQ(work.QueueWork(
                [&] {
                  inWork = true;
                  running.Wait();
                  ++workRuns;
                },
                [&](int) { ++afterRuns; }),
            0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return inWork.load(); }));
  work.Cancel();
  running.Open();
  ASSERT_TRUE(zstest::WaitUntil([&] { return log.Count("WorkImpl::_OnAfterWork, Canceled, cookie=3") == 1; }));
  EXPECT_EQ(workRuns.load(), 1);
  EXPECT_EQ(afterRuns.load(), 0);

  // Jobs queued after a Cancel run normally.
  std::promise<int> later;
  ASSERT_EQ(work.QueueWork([&] { ++workRuns; }, [&](int status) { later.set_value(status); }), 0);
  EXPECT_EQ(later.get_future().get(), 0);
  EXPECT_EQ(workRuns.load(), 2);
  EXPECT_EQ(afterRuns.load(), 0);
}

TEST_F(WorkTest, SequenceRunsStrictlyInOrderAndRequeuesGoToTheTail) {
  SequenceWork seq(&loop);
  Trace trace;
  std::atomic<int> concurrent{0};
  std::atomic<bool> overlapped{false};
  for (int i = 1; i <= 4; ++i) {
    std::string n = std::to_string(i);
    ASSERT_EQ(seq.QueueWork(
                  [&, n] {
                    if (++concurrent > 1) overlapped = true;
                    trace.Add("w" + n);
                    --concurrent;
                  },
                  [&, n, i](int status) {
                    EXPECT_EQ(status, 0);
                    trace.Add("a" + n);
                    // Queued from inside a report: behind jobs 3 and 4.
                    if (i == 2) {
                      EXPECT_EQ(seq.QueueWork([&] { trace.Add("w5"); }, [&](int) { trace.Add("a5"); }), 0);
                    }
                  }),
              0);
  }
  ASSERT_TRUE(zstest::WaitUntil([&] { return trace.Size() == 10; }));
  std::vector<std::string> want = {"w1", "a1", "w2", "a2", "w3", "a3", "w4", "a4", "w5", "a5"};
  EXPECT_EQ(trace.Events(), want);
  EXPECT_FALSE(overlapped.load());
}

TEST_F(WorkTest, SequenceCancelDropsWaitingJobsAtOnceAndResumesAfterCurrent) {
  zstest::LogRecorder log;
  SequenceWork seq(&loop);
  Trace trace;
  Gate gate;
  std::atomic<bool> inFirst{false};
  ASSERT_EQ(seq.QueueWork(
                [&] {
                  inFirst = true;
                  gate.Wait();
                  trace.Add("w1");
                },
                [&](int) { trace.Add("a1"); }),
            0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return inFirst.load(); }));
  auto held = std::make_shared<int>(7);
  ASSERT_EQ(seq.QueueWork([&, held] { trace.Add("w2"); }, [&, held](int) { trace.Add("a2"); }), 0);
  ASSERT_EQ(seq.QueueWork([&, held] { trace.Add("w3"); }, [&, held](int) { trace.Add("a3"); }), 0);
  EXPECT_EQ(held.use_count(), 5);
  seq.Cancel();
  EXPECT_EQ(held.use_count(), 1);  // released on this thread, before Cancel returned

  std::promise<void> fourth;
  ASSERT_EQ(seq.QueueWork([&] { trace.Add("w4"); },
                          [&](int) {
                            trace.Add("a4");
                            fourth.set_value();
                          }),
            0);
  gate.Open();
  fourth.get_future().wait();
  std::vector<std::string> want = {"w1", "w4", "a4"};
  EXPECT_EQ(trace.Events(), want);
  EXPECT_EQ(log.Count("SequenceWorkImpl::_OnAfterWork, canceled, cookie=1, pending=1"), 1);
}

TEST_F(WorkTest, SequenceCancelFromAfterWorkEndsTheChain) {
  SequenceWork seq(&loop);
  Trace trace;
  std::promise<void> second;
  // Job 1's work waits until jobs 2 and 3 are queued behind it.
  Gate gate;
  ASSERT_EQ(seq.QueueWork([&] { gate.Wait(); },
                          [&](int) {
                            trace.Add("a1");
                            seq.Cancel();
                            second.set_value();
                          }),
            0);
  ASSERT_EQ(seq.QueueWork([&] { trace.Add("w2"); }, [&](int) { trace.Add("a2"); }), 0);
  ASSERT_EQ(seq.QueueWork([&] { trace.Add("w3"); }, [&](int) { trace.Add("a3"); }), 0);
  gate.Open();
  second.get_future().wait();
  // The chain is idle again: a new job runs, and nothing of jobs 2 and 3 did.
  std::promise<void> next;
  ASSERT_EQ(seq.QueueWork([&] { trace.Add("w4"); }, [&](int) { next.set_value(); }), 0);
  next.get_future().wait();
  std::vector<std::string> want = {"a1", "w4"};
  EXPECT_EQ(trace.Events(), want);
}

TEST_F(WorkTest, DestructionWithJobsInFlightDoesNotWaitOrReport) {
  std::atomic<int> afterRuns{0};
  auto gate = std::make_shared<Gate>();
  std::atomic<int> started{0};
  auto held = std::make_shared<int>(1);
  {
    Work work(&loop);
    SequenceWork seq(&loop);
    ASSERT_EQ(work.QueueWork(
                  [gate, &started, held] {
                    ++started;
                    gate->Wait();
                  },
                  [&afterRuns, held](int) { ++afterRuns; }),
              0);
    ASSERT_EQ(seq.QueueWork(
                  [gate, &started, held] {
                    ++started;
                    gate->Wait();
                  },
                  [&afterRuns, held](int) { ++afterRuns; }),
              0);
    ASSERT_EQ(seq.QueueWork([held] {}, [&afterRuns, held](int) { ++afterRuns; }), 0);
    ASSERT_TRUE(zstest::WaitUntil([&] { return started.load() == 2; }));
  }  // both destroyed while their jobs block on the pool
  gate->Open();
  // The records die on the loop thread once libuv has reported them.
  ASSERT_TRUE(zstest::WaitUntil([&] { return held.use_count() == 1; }));
  EXPECT_EQ(afterRuns.load(), 0);
}

TEST_F(WorkTest, FailedResubmissionReportsEveryWaitingJobWithMinusOneInOrder) {
  zstest::LogRecorder log;
  SequenceWork seq(&loop);
  Trace trace;
  std::promise<void> inAfter;
  Gate gate;
  ASSERT_EQ(seq.QueueWork([&] { gate.Wait(); },
                          [&](int status) {
                            trace.Add("a1:" + std::to_string(status));
                            inAfter.set_value();
                            // Hold the report until Stop has begun to refuse new work.
                            EXPECT_TRUE(zstest::WaitUntil([&] { return loop.AsyncCall([] {}) == -1; }));
                          }),
            0);
  for (int i = 2; i <= 3; ++i) {
    std::string n = std::to_string(i);
    ASSERT_EQ(seq.QueueWork([&, n] { trace.Add("w" + n); },
                            [&, n](int status) { trace.Add("a" + n + ":" + std::to_string(status)); }),
              0);
  }
  gate.Open();
  inAfter.get_future().wait();
  ASSERT_EQ(loop.Stop(), 0);
  std::vector<std::string> want = {"a1:0", "a2:-1", "a3:-1"};
  EXPECT_EQ(trace.Events(), want);
  EXPECT_EQ(log.Count("SequenceWorkImpl::_OnAfterWork, QueueWork fail, ret=-1"), 2);
  // Idle afterwards: on the stopped loop a new job is refused, not parked.
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);
}

TEST_F(WorkTest, StopReleasesRecordsWithoutCallingTheFunctions) {
  auto held = std::make_shared<int>(1);
  std::atomic<int> calls{0};
  Work work(&loop);
  SequenceWork seq(&loop);
  auto gate = std::make_shared<Gate>();
  std::atomic<int> started{0};
  // Occupy the pool so that further jobs wait in libuv's queue.
  Work blocker(&loop);
  for (int i = 0; i < kPoolSize; ++i) {
    ASSERT_EQ(blocker.QueueWork(
                  [gate, &started] {
                    ++started;
                    gate->Wait();
                  },
                  [](int) {}),
              0);
  }
  ASSERT_TRUE(zstest::WaitUntil([&] { return started.load() == kPoolSize; }));
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(work.QueueWork([held, &calls] { ++calls; }, [held, &calls](int) { ++calls; }), 0);
    ASSERT_EQ(seq.QueueWork([held, &calls] { ++calls; }, [held, &calls](int) { ++calls; }), 0);
  }
  std::thread opener([gate, &held] {
    // The stopping loop cancels the jobs that libuv still queues and hands their
    // records back; only then may the blockers end.
    EXPECT_TRUE(zstest::WaitUntil([&] { return held.use_count() == 1; }));
    gate->Open();
  });
  ASSERT_EQ(loop.Stop(), 0);
  opener.join();
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_EQ(calls.load(), 0);
  // The sequence is not stuck: with no loop running it refuses at once.
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);
}

}  // namespace
