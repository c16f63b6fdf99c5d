// The loop thread, Async, Timer and pool jobs: order, refusals, and what a stop or release leaves.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <future>

#include "support/recorder.h"
#include "zelsocket/async.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/timer.h"
#include "zelsocket/work.h"

namespace zelsocket {
namespace {

using Clock = std::chrono::steady_clock;
using Trace = std::vector<std::string>;
using F = std::function<void()>;

// Sized once per process, at its first use: a test can then occupy the whole pool.
constexpr int kPoolSize = 2;
#ifdef _WIN32
const int g_poolSizeSet = _putenv_s("UV_THREADPOOL_SIZE", "2");
#else
const int g_poolSizeSet = setenv("UV_THREADPOOL_SIZE", "2", 1);
#endif

// A dropped call is recorded as a null when it is dropped off the loop thread.
struct Callback : RefCount, IAsyncCallback, IWorkCallback {
  std::vector<void*> calls, dropped;
  int AddRef() override { return RefCount::AddRef(); }
  int Release() override { return RefCount::Release(); }
  void OnAsyncCall(void* data) override { calls.push_back(data); }
  void OnAsyncCallDropped(void* data) override { dropped.push_back(IOLoop::CurrentLoop() ? data : nullptr); }
  void OnWork(void*) override {}
  void OnAfterWork(int, void* data) override { calls.push_back(data); }
  void OnWorkDropped(void* data) override { dropped.push_back(data); }
};

struct Gate { std::promise<void> promise; std::shared_future<void> future = promise.get_future().share(); };

// Runs `fn` while the loop thread is held in a call, then lets what was posted run.
void WhileBlocked(IOLoop& loop, const std::function<void()>& fn) {
  auto blocked = std::make_shared<Semaphore>(), release = std::make_shared<Semaphore>();
  loop.AsyncCall([blocked, release] { blocked->Post(), release->Wait(); });
  blocked->Wait();
  fn();
  release->Post();
  loop.SyncCall([] {});
}

class LoopTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(g_poolSizeSet == 0 && loop.Start() == 0); }
  void TearDown() override { loop.Stop(); }
  void Add(const std::string& e) { std::lock_guard<std::mutex> lock(mutex); events.push_back(e); }
  Trace Events() { std::lock_guard<std::mutex> lock(mutex); return events; }
  bool WaitEvents(size_t n) { return zstest::WaitUntil([&] { return Events().size() >= n; }); }
  // A job recording "w<n>" that then waits for `gate`; its report records "a<n>:<status>".
  template <class W>
  int Queue(W& work, const std::string& n, std::shared_ptr<Gate> gate = nullptr) {
    return work.QueueWork([this, n, gate] { Add("w" + n), gate ? gate->future.wait() : void(); },
                          [this, n](int s) { Add("a" + n + ":" + std::to_string(s)); });
  }
  // Holds every pool thread in a job (whose report holds `held`) until the gate opens.
  std::shared_ptr<Gate> OccupyPool(std::shared_ptr<int> held = nullptr) {
    auto gate = std::make_shared<Gate>();
    for (int i = 0; i < kPoolSize; ++i)
      EXPECT_EQ(pool.QueueWork([=] { ++started, gate->future.wait(); }, [this, held](int) { Add("pool"); }), 0);
    EXPECT_TRUE(zstest::WaitUntil([&] { return started == kPoolSize; }));
    return gate;
  }
  IOLoop loop;
  Work pool{&loop};
  std::atomic<int> started{0};
  std::mutex mutex;
  Trace events;
};

TEST(IOLoop, StartStopWhichLoopEachThreadSeesAndTheDefaultLoop) {
  zstest::LogRecorder log;
  IOLoop loop;
  EXPECT_EQ(loop.Stop(), -1);
  ASSERT_TRUE(loop.Start() == 0 && loop.Start() == -1);
  bool onLoop = false;
  loop.SyncCall([&] {  // a stop from the loop thread would wait for itself
    onLoop = loop.IsLoopThread() && IOLoop::CurrentLoop() == &loop && IOLoop::GetLoop() == &loop && loop.Stop() == -1;
  });
  EXPECT_TRUE(onLoop && !loop.IsLoopThread() && !IOLoop::CurrentLoop() && loop.Stop() == 0);
  EXPECT_TRUE(log.Count("UvLoop.Start, ret=-1") == 1 && log.Count("UvLoop.Stop, ret=-1") == 2);
  auto racer = std::async(std::launch::async, [] { return IOLoop::GetLoop(); });
  IOLoop* first = IOLoop::GetLoop();
  ASSERT_TRUE(first && racer.get() == first);
  first->Start();  // already running, unless an earlier repetition of this test stopped it
  EXPECT_EQ(first->Stop(), 0);  // an application that wants a clean end stops it; the pointer stays
  EXPECT_EQ(IOLoop::DefaultLoop(), first);
  auto token = std::make_shared<int>();  // a stopped loop refuses, and keeps nothing it was given
  EXPECT_EQ(loop.AsyncCall([token] {}) + loop.DelayCall(0, [token] {}) + Timer(&loop).SetTimeout(0, 0, [token] {}), -3);
  EXPECT_TRUE(Work(&loop).QueueWork([token] {}, [token](int) {}) == -1 && token.use_count() == 1);
}

// Each thread's calls run in its order, across AsyncCall and SyncCall, and give back what they held.
TEST_F(LoopTest, PostedCallsRunInEachThreadsOrder) {
  auto* cb = new Callback();
  std::vector<std::vector<int>> seen(3);  // loop thread only
  std::vector<std::thread> posters;
  for (auto& mine : seen)
    posters.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        F push = [&mine, i] { mine.push_back(i); };
        i % 7 ? loop.AsyncCall(push) : loop.SyncCall(push);
      }
      loop.AsyncCall(cb, &mine);
    });
  for (auto& t : posters) t.join();
  loop.SyncCall([] {});  // behind every poster's last call
  for (auto& mine : seen) EXPECT_TRUE(mine.size() == 2000u && std::is_sorted(mine.begin(), mine.end()));
  EXPECT_TRUE(cb->calls.size() == 3u && cb->Release() == 0);  // references given back
}

// A flood of posted calls (one posting itself, a thread posting) starves neither delayed calls
// nor timers, which run in due order and never early; a negative interval fires once.
TEST_F(LoopTest, DelayedCallsAndTimersAreNotStarvedByAFloodAndRunInDueOrder) {
  std::atomic<bool> stop{false}, last{false};
  F spin = [&] { stop ? 0 : loop.AsyncCall(spin); };
  std::thread flooder([&] { while (!stop) loop.AsyncCall([] {}); });
  loop.AsyncCall(spin);
  Trace order;
  Timer t60(&loop), t120(&loop);
  Clock::time_point start, at[3];
  loop.SyncCall([&] {  // armed in one go, so that their due times share a start
    start = Clock::now();
    loop.DelayCall(150, [&] { order.push_back("call150"), at[2] = Clock::now(), last = true; });
    t120.SetTimeout(120, -5, [&] { order.push_back("timer120"), at[1] = Clock::now(); });
    loop.DelayCall(90, [&] { order.push_back("call90"); });
    t60.SetTimeout(60, 0, [&] { order.push_back(t60.IsRunning() ? "running" : "timer60"), at[0] = Clock::now(); });
    loop.DelayCall(30, [&] { order.push_back("call30"); });
  });
  EXPECT_TRUE(zstest::WaitUntil([&] { return last.load(); }));
  stop = true;
  flooder.join();
  loop.SyncCall([] {}), loop.SyncCall([] {});  // the spin may have posted itself once more
  EXPECT_EQ(order, (Trace{"call30", "timer60", "call90", "timer120", "call150"}));
  const int due[] = {60, 120, 150};
  for (int i = 0; i < 3; ++i) EXPECT_GE(at[i] - start, std::chrono::milliseconds(due[i]));
  EXPECT_FALSE(t60.IsRunning() || t120.IsRunning());
}

// Dropped without running: captures and references let go on the loop thread,
// callbacks told, a waiting SyncCall returns, and the log counts what there was.
TEST_F(LoopTest, StopDropsWhatIsQueuedAndReleasesIt) {
  zstest::LogRecorder log;
  auto* cb = new Callback();
  auto token = std::make_shared<int>();
  std::atomic<int> ran{0};
  int tag[3], accepted = 0;
  std::future<int> waiter;
  std::thread stopper;
  {
    Async async(&loop);
    Timer timer(&loop);  // each arming stays queued until its time; only the last function is kept
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(timer.SetTimeout(60000, 0, [&ran, token] { ++ran; }), 0);
    EXPECT_EQ(token.use_count(), 2);
    WhileBlocked(loop, [&] {
      loop.AsyncCall([&ran, token] { ++ran; });
      for (int& t : tag) loop.AsyncCall(cb, &t);
      async.AsyncCall([&ran, token] { ++ran; });
      loop.DelayCall(60000, [&ran, token] { ++ran; });
      loop.DelayCall(60000, cb, &tag[0]);
      waiter = std::async(std::launch::async, [&] { return loop.SyncCall([&ran, token] { ++ran; }); });
      stopper = std::thread([&] { EXPECT_EQ(loop.Stop(), 0); });
      // A stop that has begun refuses new calls; probes accepted before that stay queued.
      EXPECT_TRUE(zstest::WaitUntil([&] { return loop.AsyncCall([] {}) == -1 || (++accepted, false); }));
    });
    stopper.join();
    EXPECT_EQ(waiter.get(), -1);  // dropped, or refused if it came after the stop began
  }
  const std::string pending = "IOLoopImpl::_AsyncStop, pending-";  // the waiter, if it got in before the stop
  const int queued = log.Count(pending + "async-call=" + std::to_string(5 + accepted));
  EXPECT_EQ(queued + log.Count(pending + "async-call=" + std::to_string(6 + accepted)), 1);
  EXPECT_TRUE(log.Count(pending + "delay-async-call=1002") == 1 && log.Count(pending + "work=0") == 1);
  EXPECT_TRUE(ran == 0 && token.use_count() == 1 && cb->calls.empty());
  EXPECT_EQ(cb->dropped, (std::vector<void*>{&tag[0], &tag[1], &tag[2], &tag[0]}));
  EXPECT_EQ(cb->Release(), 0);
}

TEST_F(LoopTest, AsyncCancelledOrDestroyedAnywhere) {
  auto* async = new Async(&loop);
  auto token = std::make_shared<int>();
  WhileBlocked(loop, [&] {
    for (int i = 0; i < 3; ++i) async->AsyncCall([this, token] { Add("cancelled"); });
    async->Cancel();
    async->AsyncCall([&] { Add("0"), async->Cancel(), async->AsyncCall([&] { Add("1"); }); });
    async->AsyncCall([&] { Add("cancelled inside"); });
  });
  loop.SyncCall([] {});
  EXPECT_TRUE(Events() == (Trace{"0", "1"}) && token.use_count() == 1);
  std::atomic<int> ran{0};
  WhileBlocked(loop, [&] {
    for (int i = 0; i < 50; ++i) async->AsyncCall([&ran, token] { ++ran; });
    std::thread([async] { delete async; }).join();
  });
  EXPECT_TRUE(ran == 0 && token.use_count() == 1);
}

TEST_F(LoopTest, TimerReplacedCancelledOrDestroyedAnywhere) {
  Timer replaced(&loop), cancelled(&loop), repeating(&loop);
  std::atomic<int> fired{0}, ticks{0};
  auto token = std::make_shared<int>();
  bool runningInside = false;
  replaced.SetTimeout(30, 0, [&] { fired += 1000; });
  // The call due at 30 must not run the new function early (1 ms: the tick is whole ms).
  auto armed = Clock::now();
  replaced.SetTimeout(150, 0, [&] { fired += Clock::now() - armed >= std::chrono::milliseconds(149) ? 1 : 1000; });
  cancelled.SetTimeout(30, 0, [&] { fired += 1000; });
  cancelled.Cancel();
  repeating.SetTimeout(0, 20, [&] { runningInside = repeating.IsRunning(); if (++ticks == 3) repeating.Cancel(); });
  auto* self = new Timer(&loop);
  self->SetTimeout(0, 50, [self, token, &fired] {
    delete self;  // the running copy of this function survives
    fired += token.use_count() == 2 ? 10 : 1000;
  });
  WhileBlocked(loop, [&] {  // none of these can come due before its deletion
    for (int i = 0; i < 50; ++i)
      std::thread([&] { Timer(&loop).SetTimeout(0, 0, [&fired] { fired += 1000; }); }).join();
  });
  // An arming from another thread while one made on the loop thread still waits
  // for its clock reading: neither may take the other's due time.
  Timer onLoop(&loop), fromThread(&loop);
  loop.SyncCall([&] {
    auto start = Clock::now();
    onLoop.SetTimeout(150, 0,
                      [&, start] { fired += Clock::now() - start >= std::chrono::milliseconds(149) ? 100 : 1000; });
    std::thread([&] { fromThread.SetTimeout(0, 0, [&fired] { fired += 100; }); }).join();
  });
  Semaphore settled;  // the delayed calls due by then have run
  loop.DelayCall(200, [&settled] { settled.Post(); }), settled.Wait();
  EXPECT_TRUE(fired == 211 && ticks == 3 && runningInside && token.use_count() == 1) << fired;
  EXPECT_FALSE(repeating.IsRunning() || cancelled.IsRunning());
}

TEST_F(LoopTest, JobsRunOnThePoolReportOnTheLoopThreadAndWorkCancelSilencesThem) {
  auto job = [&] { Add(loop.IsLoopThread() ? "!" : "w"); };
  ASSERT_EQ(pool.QueueWork(job, [&](int) { Add(loop.IsLoopThread() ? "a" : "!"); }), 0);
  ASSERT_TRUE(WaitEvents(2));
  Work work(&loop);
  auto gate = OccupyPool();
  ASSERT_EQ(Queue(work, "1"), 0);  // behind the blockers: cannot start before Cancel
  work.Cancel();
  gate->promise.set_value();
  Gate running;
  std::atomic<bool> finished{false};
  ASSERT_EQ(work.QueueWork([&] { Add("w2"), running.future.wait(), finished = true; }, [&](int) { Add("a2"); }), 0);
  ASSERT_TRUE(WaitEvents(5));
  work.Cancel();  // while it runs: it finishes, but does not report
  running.promise.set_value();
  ASSERT_TRUE(zstest::WaitUntil([&] { return finished.load(); }));  // any report of it comes before the next
  ASSERT_TRUE(Queue(work, "3") == 0 && WaitEvents(7));
  Trace e = Events();
  std::sort(e.begin() + 2, e.end() - 2);  // the blockers report while job 2 starts
  EXPECT_EQ(e, (Trace{"w", "a", "pool", "pool", "w2", "w3", "a3:0"}));
}

// A requeue from a report goes to the tail; Cancel drops the waiting jobs at once and
// silences the running one; inside a report it ends the chain, and a new one may start.
TEST_F(LoopTest, SequenceWorkRunsStrictlyInOrderAndCancelEndsTheChain) {
  SequenceWork seq(&loop);
  std::atomic<int> running{0};
  for (int i = 1; i <= 4; ++i) {
    std::string n = std::to_string(i);
    ASSERT_EQ(seq.QueueWork([&, n] { Add(++running > 1 ? "overlap" : "w" + n), --running; },
                            [&, n](int) { Add("a" + n), n == "2" ? (void)Queue(seq, "5") : void(); }),
              0);
  }
  ASSERT_TRUE(WaitEvents(10));
  EXPECT_EQ(Events(), (Trace{"w1", "a1", "w2", "a2", "w3", "a3", "w4", "a4", "w5", "a5:0"}));
  events.clear();
  auto gate = std::make_shared<Gate>();
  auto held = std::make_shared<int>();
  ASSERT_TRUE(Queue(seq, "1", gate) == 0 && WaitEvents(1));
  ASSERT_EQ(seq.QueueWork([held] {}, [held](int) {}), 0);
  seq.Cancel();  // job 1 runs on but does not report
  EXPECT_EQ(held.use_count(), 1);
  ASSERT_EQ(Queue(seq, "2"), 0);
  std::promise<void> cancelled;
  ASSERT_EQ(seq.QueueWork([] {}, [&](int) { seq.Cancel(), cancelled.set_value(); }), 0);
  ASSERT_EQ(Queue(seq, "3"), 0);
  gate->promise.set_value();
  cancelled.get_future().wait();
  ASSERT_TRUE(Queue(seq, "4") == 0 && WaitEvents(5));
  EXPECT_EQ(Events(), (Trace{"w1", "w2", "a2:0", "w4", "a4:0"}));
}

// Stopped while a report runs: the jobs still waiting in the sequence are
// handed -1, and the sequence is left idle, refusing, not parked.
TEST_F(LoopTest, ASequenceWhoseLoopStopsDuringAReportHandsEveryWaitingJobMinusOne) {
  SequenceWork seq(&loop);
  auto gate = std::make_shared<Gate>();
  std::promise<void> inReport;
  auto report = [&](int) {  // held until the stop has begun to refuse new work
    inReport.set_value();
    EXPECT_TRUE(zstest::WaitUntil([&] { return loop.AsyncCall([] {}) == -1; }));
  };
  ASSERT_EQ(seq.QueueWork([gate] { gate->future.wait(); }, report), 0);
  ASSERT_EQ(Queue(seq, "2"), 0);
  ASSERT_EQ(Queue(seq, "3"), 0);
  gate->promise.set_value();
  inReport.get_future().wait();
  ASSERT_EQ(loop.Stop(), 0);
  EXPECT_EQ(Events(), (Trace{"a2:-1", "a3:-1"}));
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);
}

// A stop does not wait for stuck jobs; their records, with what they hold, come back when they end.
TEST_F(LoopTest, StopLeavesStuckJobsDropsEveryReportAndReleasesEverything) {
  auto* cb = new Callback();
  auto running = std::make_shared<int>(), held = std::make_shared<int>();
  auto gate = OccupyPool(running);
  Work work(&loop);
  SequenceWork seq(&loop);
  ASSERT_EQ(loop.QueueWork(cb, nullptr), 0);
  ASSERT_EQ(work.QueueWork([&, held] { Add("w"); }, [&, held](int) { Add("a"); }), 0);
  for (int i = 0; i < 2; ++i) ASSERT_EQ(seq.QueueWork([&, held] { Add("w"); }, [&, held](int) { Add("a"); }), 0);
  auto stop = std::async(std::launch::async, [&] { return loop.Stop(); });
  EXPECT_EQ(stop.wait_for(std::chrono::seconds(10)), std::future_status::ready) << "Stop waited for a running job";
  gate->promise.set_value();  // in any case, so that a failing run still ends
  EXPECT_EQ(stop.get(), 0);
  EXPECT_TRUE(zstest::WaitUntil([&] { return running.use_count() == 1 && held.use_count() == 1; }));
  EXPECT_TRUE(Events().empty() && cb->calls.empty() && cb->dropped.size() == 1u && cb->Release() == 0);
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);  // not stuck waiting for ever
}

}  // namespace
}  // namespace zelsocket
