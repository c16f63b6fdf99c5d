// Jobs on libuv's pool: IOLoop::QueueWork, Work (free order) and SequenceWork
// (strict order), their cancellation, destruction and a stop with jobs queued.
#include "zelsocket/work.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "loop/loop_test_util.h"

namespace zelsocket {
namespace {

using Events = std::vector<std::string>;

// The pool is sized once per process, at its first use; a known size lets a
// test occupy every pool thread to keep a job from starting.
constexpr int kPoolSize = 2;
#ifdef _WIN32
const int g_poolSizeSet = _putenv_s("UV_THREADPOOL_SIZE", "2");
#else
const int g_poolSizeSet = setenv("UV_THREADPOOL_SIZE", "2", 1);
#endif

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
  void TearDown() override { loop.Stop(); }
  void Add(const std::string& e) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(e);
  }
  Events Trace() {
    std::lock_guard<std::mutex> lock(mutex);
    return events;
  }
  // A job that records "w<n>" after waiting for `gate`, and a report that records "a<n>:<status>".
  template <class W>
  int Queue(W& work, const std::string& n, std::shared_ptr<Gate> gate = nullptr) {
    return work.QueueWork([this, n, gate] { Add("w" + n), gate ? gate->Wait() : void(); },
                          [this, n](int s) { Add("a" + n + ":" + std::to_string(s)); });
  }
  // Holds every pool thread in a job until the returned gate opens.
  std::shared_ptr<Gate> OccupyPool(std::shared_ptr<int> held = nullptr) {
    auto gate = std::make_shared<Gate>();
    auto started = std::make_shared<std::atomic<int>>(0);
    for (int i = 0; i < kPoolSize; ++i)
      EXPECT_EQ(pool.QueueWork([=] { ++*started, gate->Wait(); }, [this, held](int) { ++poolReports; }), 0);
    EXPECT_TRUE(zstest::WaitUntil([&] { return *started == kPoolSize; }));
    return gate;
  }
  IOLoop loop;
  Work pool{&loop};
  std::atomic<int> poolReports{0};
  std::mutex mutex;
  Events events;
};

TEST_F(WorkTest, CallbackJobsRunOnThePoolAndReportOnTheLoopThread) {
  zstest::Record record;
  auto* cb = new zstest::Callback(record);
  std::atomic<bool> onPool{false};
  int tag = 0, fromLoop = -1;
  ASSERT_EQ(loop.QueueWork(cb, &tag), 0);
  loop.SyncCall([&] { fromLoop = loop.QueueWork(cb, &tag); });
  EXPECT_EQ(fromLoop, 0);
  ASSERT_EQ(pool.QueueWork([&] { onPool = !loop.IsLoopThread(); }, [&](int) { Add(loop.IsLoopThread() ? "a" : "!"); }),
            0);
  ASSERT_TRUE(zstest::WaitUntil([&] {
    size_t n = 0;
    loop.SyncCall([&] { n = record.calls.size(); });
    return n == 2 && Trace().size() == 1;
  }));
  EXPECT_EQ(record.calls, (std::vector<void*>{&tag, &tag}));
  EXPECT_TRUE(onPool);
  EXPECT_EQ(Trace(), Events{"a"});
  loop.Stop();
  EXPECT_EQ(cb->Release(), 0);
}

TEST_F(WorkTest, WorkCancelSkipsQueuedJobsAndSilencesRunningOnes) {
  Work work(&loop);
  auto gate = OccupyPool();
  ASSERT_EQ(Queue(work, "1"), 0);  // behind the blockers: cannot start before Cancel
  work.Cancel();
  gate->Open();
  Gate running;
  std::atomic<bool> finished{false};
  ASSERT_EQ(work.QueueWork([&] { Add("w2"), running.Wait(), finished = true; }, [&](int) { Add("a2"); }), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 1; }));
  work.Cancel();  // while it runs: it finishes, but does not report
  running.Open();
  ASSERT_TRUE(zstest::WaitUntil([&] { return finished.load(); }));  // any report of it comes first
  std::promise<int> later;
  ASSERT_EQ(work.QueueWork([] {}, [&](int status) { later.set_value(status); }), 0);
  EXPECT_EQ(later.get_future().get(), 0);
  loop.SyncCall([] {});
  EXPECT_EQ(Trace(), Events{"w2"});
}

TEST_F(WorkTest, SequenceRunsStrictlyInOrderAndRequeuesGoToTheTail) {
  SequenceWork seq(&loop);
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  for (int i = 1; i <= 4; ++i) {
    std::string n = std::to_string(i);
    ASSERT_EQ(seq.QueueWork([&, n] { overlapped = overlapped || ++running > 1, Add("w" + n), --running; },
                            [&, n](int) { Add("a" + n), n == "2" ? (void)Queue(seq, "5") : void(); }),
              0);
  }
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 10; }));
  EXPECT_EQ(Trace(), (Events{"w1", "a1", "w2", "a2", "w3", "a3", "w4", "a4", "w5", "a5:0"}));
  EXPECT_FALSE(overlapped.load());
}

TEST_F(WorkTest, SequenceCancelDropsWaitingJobsAtOnceAndTheChainGoesOn) {
  SequenceWork seq(&loop);
  auto gate = std::make_shared<Gate>();
  ASSERT_EQ(Queue(seq, "1", gate), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 1; }));
  auto held = std::make_shared<int>();
  ASSERT_EQ(seq.QueueWork([held] {}, [held](int) {}), 0);
  seq.Cancel();                    // job 1 runs on but does not report
  EXPECT_EQ(held.use_count(), 1);  // released on this thread, before Cancel returned
  ASSERT_EQ(Queue(seq, "2"), 0);
  std::promise<void> cancelled;  // a Cancel inside a report ends the chain there
  ASSERT_EQ(seq.QueueWork([] {}, [&](int) { seq.Cancel(), cancelled.set_value(); }), 0);
  ASSERT_EQ(Queue(seq, "3"), 0);
  gate->Open();
  cancelled.get_future().wait();
  ASSERT_EQ(Queue(seq, "4"), 0);  // a new chain
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 5; }));
  EXPECT_EQ(Trace(), (Events{"w1", "w2", "a2:0", "w4", "a4:0"}));
}

TEST_F(WorkTest, DestructionWithJobsInFlightNeitherWaitsNorReports) {
  auto gate = std::make_shared<Gate>();
  auto held = std::make_shared<int>();
  {
    Work work(&loop);
    SequenceWork seq(&loop);
    ASSERT_EQ(work.QueueWork([gate, held] { gate->Wait(); }, [&, held](int) { Add("a"); }), 0);
    ASSERT_EQ(seq.QueueWork([gate, held] { gate->Wait(); }, [&, held](int) { Add("a"); }), 0);
    ASSERT_EQ(seq.QueueWork([held] {}, [&, held](int) { Add("a"); }), 0);
  }
  gate->Open();
  // The records die on the loop thread once libuv has reported them.
  ASSERT_TRUE(zstest::WaitUntil([&] { return held.use_count() == 1; }));
  EXPECT_TRUE(Trace().empty());
}

TEST_F(WorkTest, ASequenceThatCannotResubmitReportsEveryWaitingJobWithMinusOne) {
  SequenceWork seq(&loop);
  auto gate = std::make_shared<Gate>();  // jobs 2 and 3 queue behind job 1
  std::promise<void> inReport;
  ASSERT_EQ(seq.QueueWork([gate] { gate->Wait(); },
                          [&](int) {
                            inReport.set_value();
                            // Hold the report until the stop has begun to refuse new work.
                            EXPECT_TRUE(zstest::WaitUntil([&] { return loop.AsyncCall([] {}) == -1; }));
                          }),
            0);
  ASSERT_EQ(Queue(seq, "2"), 0);
  ASSERT_EQ(Queue(seq, "3"), 0);
  gate->Open();
  inReport.get_future().wait();
  ASSERT_EQ(loop.Stop(), 0);
  EXPECT_EQ(Trace(), (Events{"a2:-1", "a3:-1"}));
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);  // idle, not parked
}

// A stop leaves running jobs alone, hands back every record without a report
// once they end, and releases what queued jobs captured before they could start.
TEST_F(WorkTest, StopDropsEveryReportAndReleasesQueuedJobs) {
  zstest::Record record;
  auto* cb = new zstest::Callback(record);
  auto running = std::make_shared<int>();
  auto gate = OccupyPool(running);
  auto held = std::make_shared<int>();
  Work work(&loop);
  SequenceWork seq(&loop);
  ASSERT_EQ(loop.QueueWork(cb, nullptr), 0);
  ASSERT_EQ(work.QueueWork([&, held] { Add("w"); }, [&, held](int) { Add("a"); }), 0);
  ASSERT_EQ(seq.QueueWork([&, held] { Add("w"); }, [&, held](int) { Add("a"); }), 0);
  std::thread opener([gate, &held] {
    EXPECT_TRUE(zstest::WaitUntil([&] { return held.use_count() == 1; }));
    gate->Open();
  });
  ASSERT_EQ(loop.Stop(), 0);
  opener.join();
  EXPECT_TRUE(Trace().empty() && record.calls.empty() && poolReports == 0);
  // The running jobs' records come back too, after the stop.
  EXPECT_TRUE(zstest::WaitUntil([&] { return running.use_count() == 1; }));
  EXPECT_EQ(record.dropped.size(), 1u);
  EXPECT_EQ(cb->Release(), 0);
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);  // not stuck waiting for ever
}

}  // namespace
}  // namespace zelsocket
