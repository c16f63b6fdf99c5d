// Jobs on libuv's pool: IOLoop::QueueWork, Work (free order) and SequenceWork
// (strict order), their cancellation, destruction and a stop with jobs queued.
#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/work.h"

namespace zelsocket {
namespace {

using Events = std::vector<std::string>;

// The pool is sized once per process, at its first use; a known size lets a
// test occupy every pool thread to keep a job from starting.
constexpr int kPoolSize = 2;
const int g_poolSizeSet = setenv("UV_THREADPOOL_SIZE", "2", 1);

struct Gate {
  std::promise<void> promise;
  std::shared_future<void> future = promise.get_future().share();
  void Open() { promise.set_value(); }
  void Wait() const { future.wait(); }
};

class Job : public RefCount, public IWorkCallback {
 public:
  int AddRef() override { return RefCount::AddRef(); }
  int Release() override { return RefCount::Release(); }
  void OnWork(void*) override {
    onPool = !loop->IsLoopThread();
    ++started;
    if (gate) gate->Wait();
  }
  void OnAfterWork(int status, void*) override { statuses.push_back(loop->IsLoopThread() ? status : -99); }
  void OnWorkDropped(void*) override { ++dropped; }
  IOLoop* loop = nullptr;
  std::shared_ptr<Gate> gate;
  std::atomic<int> started{0}, dropped{0};
  std::atomic<bool> onPool{false};
  std::vector<int> statuses;
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
  void Add(const std::string& e) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(e);
  }
  Events Trace() {
    std::lock_guard<std::mutex> lock(mutex);
    return events;
  }
  // A job for `work` that records "w<n>", and a report that records "a<n>" or "a<n>:<status>".
  template <class W>
  int Queue(W& work, const std::string& n, bool withStatus = false) {
    return work.QueueWork([this, n] { Add("w" + n); },
                          [this, n, withStatus](int s) { Add("a" + n + (withStatus ? ":" + std::to_string(s) : "")); });
  }
  // Every pool thread runs a job of `job` until the returned gate opens.
  std::shared_ptr<Gate> OccupyPool(Job* job) {
    job->loop = &loop;
    job->gate = std::make_shared<Gate>();
    for (int i = 0; i < kPoolSize; ++i) EXPECT_EQ(loop.QueueWork(job, nullptr), 0);
    EXPECT_TRUE(zstest::WaitUntil([&] { return job->started.load() == kPoolSize; }));
    return job->gate;
  }
  IOLoop loop;
  std::mutex mutex;
  Events events;
};

TEST_F(WorkTest, JobsRunOnThePoolOverlapAndReportOnTheLoopThread) {
  auto* job = new Job();
  job->loop = &loop;
  ASSERT_EQ(loop.QueueWork(job, nullptr), 0);
  int fromLoop = -1;
  loop.SyncCall([&] { fromLoop = loop.QueueWork(job, nullptr); });
  EXPECT_EQ(fromLoop, 0);
  Work work(&loop);
  std::atomic<int> started{0}, reported{0};
  for (int i = 0; i < 2; ++i) {
    // Each waits for the other to have started: only overlap ends them.
    ASSERT_EQ(work.QueueWork([&] { ++started, zstest::WaitUntil([&] { return started.load() == 2; }); },
                             [&](int status) { reported += status == 0 && loop.IsLoopThread(); }),
              0);
  }
  ASSERT_TRUE(zstest::WaitUntil([&] {
    size_t n = 0;
    loop.SyncCall([&] { n = job->statuses.size(); });
    return reported.load() == 2 && n == 2;
  }));
  loop.Stop();
  EXPECT_TRUE(job->onPool);
  EXPECT_EQ(job->statuses, (std::vector<int>{0, 0}));
  EXPECT_EQ(job->Release(), 0);
}

TEST_F(WorkTest, WorkCancelSkipsQueuedJobsAndSilencesRunningOnes) {
  Work work(&loop);
  auto* blocker = new Job();
  auto gate = OccupyPool(blocker);
  ASSERT_EQ(Queue(work, "1"), 0);  // behind the blockers: cannot start before Cancel
  work.Cancel();
  gate->Open();
  Gate running;
  std::atomic<bool> finished{false};
  ASSERT_EQ(work.QueueWork([&] { Add("w2"), running.Wait(), finished = true; }, [&](int) { Add("a2"); }), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 1; }));
  work.Cancel();  // while it runs: it finishes, its report is suppressed
  running.Open();
  ASSERT_TRUE(zstest::WaitUntil([&] { return finished.load(); }));  // its report comes before the next one
  std::promise<int> later;
  ASSERT_EQ(work.QueueWork([&] { Add("w3"); }, [&](int status) { later.set_value(status); }), 0);
  EXPECT_EQ(later.get_future().get(), 0);
  loop.SyncCall([] {});
  EXPECT_EQ(Trace(), (Events{"w2", "w3"}));
  loop.Stop();
  EXPECT_EQ(blocker->Release(), 0);
}

TEST_F(WorkTest, SequenceRunsStrictlyInOrderAndRequeuesGoToTheTail) {
  SequenceWork seq(&loop);
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  for (int i = 1; i <= 4; ++i) {
    std::string n = std::to_string(i);
    ASSERT_EQ(seq.QueueWork(
                  [&, n] {
                    overlapped = overlapped || ++running > 1;
                    Add("w" + n);
                    --running;
                  },
                  [&, n](int status) {
                    Add("a" + n);
                    if (n == "2") {
                      EXPECT_EQ(Queue(seq, "5"), 0);  // behind 3 and 4
                    }
                  }),
              0);
  }
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 10; }));
  EXPECT_EQ(Trace(), (Events{"w1", "a1", "w2", "a2", "w3", "a3", "w4", "a4", "w5", "a5"}));
  EXPECT_FALSE(overlapped.load());
}

TEST_F(WorkTest, SequenceCancelDropsWaitingJobsAtOnceAndTheChainGoesOn) {
  SequenceWork seq(&loop);
  Gate gate;
  ASSERT_EQ(seq.QueueWork([&] { Add("w1"), gate.Wait(); }, [&](int) { Add("a1"); }), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 1; }));
  auto held = std::make_shared<int>();
  ASSERT_EQ(seq.QueueWork([held] {}, [held](int) {}), 0);
  seq.Cancel();
  EXPECT_EQ(held.use_count(), 1);  // released on this thread, before Cancel returned
  ASSERT_EQ(Queue(seq, "2"), 0);
  // Cancel from inside a report ends the chain there; later jobs start a new one.
  std::promise<void> cancelled;
  ASSERT_EQ(seq.QueueWork([] {}, [&](int) { seq.Cancel(), cancelled.set_value(); }), 0);
  ASSERT_EQ(Queue(seq, "3"), 0);
  gate.Open();
  cancelled.get_future().wait();
  ASSERT_EQ(Queue(seq, "4"), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return Trace().size() == 5; }));
  EXPECT_EQ(Trace(), (Events{"w1", "w2", "a2", "w4", "a4"}));
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

TEST_F(WorkTest, SequenceThatCannotResubmitReportsEveryWaitingJobWithMinusOneInOrder) {
  SequenceWork seq(&loop);
  std::promise<void> inReport;
  Gate gate;  // jobs 2 and 3 wait behind job 1
  ASSERT_EQ(seq.QueueWork([&] { gate.Wait(); },
                          [&](int status) {
                            Add("a1:" + std::to_string(status));
                            inReport.set_value();
                            // Hold the report until the stop has begun to refuse new work.
                            EXPECT_TRUE(zstest::WaitUntil([&] { return loop.AsyncCall([] {}) == -1; }));
                          }),
            0);
  ASSERT_EQ(Queue(seq, "2", true), 0);
  ASSERT_EQ(Queue(seq, "3", true), 0);
  gate.Open();
  inReport.get_future().wait();
  ASSERT_EQ(loop.Stop(), 0);
  EXPECT_EQ(Trace(), (Events{"a1:0", "a2:-1", "a3:-1"}));
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);  // idle, not parked
}

// A stop waits for the jobs that run, hands back every record without a report,
// and releases what the queued jobs captured before they could start.
TEST_F(WorkTest, StopDropsEveryReportAndReleasesQueuedJobs) {
  auto* job = new Job();
  auto gate = OccupyPool(job);
  ASSERT_EQ(loop.QueueWork(job, nullptr), 0);
  auto held = std::make_shared<int>();
  Work work(&loop);
  SequenceWork seq(&loop);
  ASSERT_EQ(work.QueueWork([&, held] { Add("w"); }, [&, held](int) { Add("a"); }), 0);
  ASSERT_EQ(seq.QueueWork([&, held] { Add("w"); }, [&, held](int) { Add("a"); }), 0);
  std::thread opener([gate, &held] {
    EXPECT_TRUE(zstest::WaitUntil([&] { return held.use_count() == 1; }));
    gate->Open();
  });
  ASSERT_EQ(loop.Stop(), 0);
  opener.join();
  EXPECT_TRUE(Trace().empty());
  EXPECT_TRUE(job->statuses.empty());
  EXPECT_EQ(job->dropped.load(), kPoolSize + 1);
  EXPECT_EQ(job->Release(), 0);
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);  // not stuck waiting for ever
}

}  // namespace
}  // namespace zelsocket
