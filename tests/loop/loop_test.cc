// The loop thread, Async, Timer and pool jobs: order, refusals, what a stop or
// release leaves; then under load: floods, stalled and preempted posters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <tuple>

#include "core/check.h"
#include "support/recorder.h"
#include "zelsocket/async.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/timer.h"
#include "zelsocket/udp.h"
#include "zelsocket/work.h"

#ifdef __linux__
#include <pthread.h>
#include <sched.h>
#endif

namespace zelsocket {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Trace = std::vector<std::string>;
using F = std::function<void()>;

void SpinFor(std::chrono::microseconds d) {
  for (auto end = Clock::now() + d; Clock::now() < end;) {
  }
}

long MsSince(Clock::time_point t) {
  return static_cast<long>(std::chrono::duration_cast<milliseconds>(Clock::now() - t).count());
}

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
  void SetUp() override {
    ASSERT_EQ(g_poolSizeSet, 0);
    ASSERT_EQ(loop.Start(), 0);
  }
  void TearDown() override { loop.Stop(); }
  // A job recording "w<n>" that then waits for `gate`; its report records "a<n>:<status>".
  template <class W>
  int Queue(W& work, const std::string& n, std::shared_ptr<Gate> gate = nullptr) {
    return work.QueueWork([this, n, gate] { trace.Add("w" + n); if (gate) gate->future.wait(); },
                          [this, n](int s) { trace.Add("a" + n + ":" + std::to_string(s)); });
  }
  // Holds every pool thread in a job (whose report holds `held`) until the gate opens.
  std::shared_ptr<Gate> OccupyPool(std::shared_ptr<int> held = nullptr) {
    auto gate = std::make_shared<Gate>();
    for (int i = 0; i < kPoolSize; ++i)
      EXPECT_EQ(pool.QueueWork([=] { ++started, gate->future.wait(); }, [this, held](int) { trace.Add("pool"); }), 0);
    EXPECT_TRUE(zstest::WaitUntil([&] { return started == kPoolSize; }));
    return gate;
  }
  IOLoop loop;
  Work pool{&loop};
  std::atomic<int> started{0};
  zstest::Trace<std::string> trace;
};

TEST(IOLoop, StartStopWhichLoopEachThreadSeesAndTheDefaultLoop) {
  zstest::LogRecorder log;
  IOLoop loop;
  EXPECT_EQ(loop.Stop(), -1);
  ASSERT_EQ(loop.Start(), 0);
  EXPECT_EQ(loop.Start(), -1);
  std::tuple<bool, bool, bool, int> seen;  // a stop from the loop thread would wait for itself
  loop.SyncCall(
      [&] { seen = {loop.IsLoopThread(), IOLoop::CurrentLoop() == &loop, IOLoop::GetLoop() == &loop, loop.Stop()}; });
  EXPECT_EQ(seen, std::make_tuple(true, true, true, -1));  // on the loop, current, got, refused
  EXPECT_FALSE(loop.IsLoopThread());
  EXPECT_EQ(IOLoop::CurrentLoop(), nullptr);
  EXPECT_EQ(loop.Stop(), 0);
  EXPECT_EQ(log.Count("UvLoop.Start, ret=-1"), 1);
  EXPECT_EQ(log.Count("UvLoop.Stop, ret=-1"), 2);
  auto racer = std::async(std::launch::async, [] { return IOLoop::GetLoop(); });
  IOLoop* first = IOLoop::GetLoop();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(racer.get(), first);
  first->Start();  // already running, unless an earlier repetition of this test stopped it
  EXPECT_EQ(first->Stop(), 0);  // an application that wants a clean end stops it; the pointer stays
  EXPECT_EQ(IOLoop::DefaultLoop(), first);
}

// Refused at once, keeping nothing of what it was given; an armed timer stays armed.
TEST(IOLoop, RefusalsKeepNothing) {
  IOLoop running, stopped;
  ASSERT_EQ(running.Start(), 0);
  auto* cb = new Callback();
  auto t = std::make_shared<int>();
  Timer armed(&running);
  ASSERT_EQ(armed.SetTimeout(60000, 0, [] {}), 0);
  const struct { const char* name; std::function<int()> call; } rows[] = {
      {"AsyncCall empty", [&] { return running.AsyncCall(F()); }},
      {"AsyncCall null", [&] { return running.AsyncCall(nullptr, nullptr); }},
      {"SyncCall empty", [&] { return running.SyncCall(F()); }},
      {"SyncCall null", [&] { return running.SyncCall(nullptr, nullptr); }},
      {"DelayCall empty", [&] { return running.DelayCall(0, F()); }},
      {"DelayCall null", [&] { return running.DelayCall(0, nullptr, nullptr); }},
      {"QueueWork null", [&] { return running.QueueWork(nullptr, nullptr); }},
      {"SetTimeout empty", [&] { return armed.SetTimeout(0, 0, F()); }},
      {"stopped AsyncCall", [&] { return stopped.AsyncCall([t] {}); }},
      {"stopped AsyncCall callback", [&] { return stopped.AsyncCall(cb, nullptr); }},
      {"stopped SyncCall", [&] { return stopped.SyncCall([t] {}); }},
      {"stopped DelayCall", [&] { return stopped.DelayCall(0, [t] {}); }},
      {"stopped DelayCall callback", [&] { return stopped.DelayCall(0, cb, nullptr); }},
      {"stopped QueueWork", [&] { return stopped.QueueWork(cb, nullptr); }},
      {"stopped SetTimeout", [&] { return Timer(&stopped).SetTimeout(0, 0, [t] {}); }},
      {"stopped Work", [&] { return Work(&stopped).QueueWork([t] {}, [t](int) {}); }},
      {"stopped Async", [&] { return Async(&stopped).AsyncCall([t] {}); }},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.call(), -1) << row.name;
    EXPECT_EQ(t.use_count(), 1) << row.name;
    EXPECT_TRUE(armed.IsRunning()) << row.name;
  }
  EXPECT_EQ(cb->Release(), 0);
  running.Stop();
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
  for (auto& mine : seen) {
    EXPECT_EQ(mine.size(), 2000u);
    EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
  }
  EXPECT_EQ(cb->calls.size(), 3u);
  EXPECT_EQ(cb->Release(), 0);  // references given back
}

// Delayed calls and timers run in due order, none early; a negative interval fires once.
// A chain of eight 7 ms timers, each armed by the last one's firing, fires close
// to its due times (a loop that polled its timers every 50 ms would take over 300 ms).
TEST_F(LoopTest, DelayedCallsAndTimersRunInDueOrderAndOnTime) {
  Trace order;
  Timer t60(&loop), t120(&loop), chain(&loop);
  Clock::time_point start;
  long late[5] = {};
  std::promise<void> last, chained;
  loop.SyncCall([&] {  // armed in one go, so that their due times share a start
    start = Clock::now();
    auto at = [&](int i, int due, const char* name) { order.push_back(name), late[i] = MsSince(start) - due; };
    loop.DelayCall(150, [&, at] { at(4, 150, "call150"), last.set_value(); });
    t120.SetTimeout(120, -5, [&, at] { at(3, 120, "timer120"); });
    loop.DelayCall(90, [&, at] { at(2, 90, "call90"); });
    t60.SetTimeout(60, 0, [&, at] { at(1, 60, t60.IsRunning() ? "running" : "timer60"); });
    loop.DelayCall(30, [&, at] { at(0, 30, "call30"); });
  });
  last.get_future().wait();
  EXPECT_EQ(order, (Trace{"call30", "timer60", "call90", "timer120", "call150"}));
  for (long l : late) EXPECT_GE(l, 0);
  loop.SyncCall([] {});
  EXPECT_FALSE(t60.IsRunning());
  EXPECT_FALSE(t120.IsRunning());
  int links = 0;
  F link = [&] { ++links == 8 ? chained.set_value() : (void)chain.SetTimeout(7, 0, link); };
  start = Clock::now();
  ASSERT_EQ(chain.SetTimeout(7, 0, link), 0);
  chained.get_future().wait();
  EXPECT_GE(MsSince(start), 8 * 7);
  EXPECT_LT(MsSince(start), 8 * (7 + 12));
}

// A stop that begins while a call runs starts nothing more of its turn: 2,000
// calls of 200 us and calls of every kind are dropped, released on the loop
// thread, counted in the log; callbacks are told and a waiting SyncCall returns.
TEST_F(LoopTest, StopDropsWhatIsQueuedAndReleasesIt) {
  zstest::LogRecorder log;
  auto* cb = new Callback();
  auto token = std::make_shared<int>();
  std::atomic<int> ran{0};
  int tag[3], accepted = 0;
  long stopMs = -1;
  std::future<int> waiter;
  Semaphore running;
  std::thread stopper([&] {
    running.Wait();
    auto began = Clock::now();
    EXPECT_EQ(loop.Stop(), 0);
    stopMs = MsSince(began);
  });
  {
    Async async(&loop);
    Timer timer(&loop);  // each arming stays queued until its time; only the last function is kept
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(timer.SetTimeout(60000, 0, [&ran, token] { ++ran; }), 0);
    EXPECT_EQ(token.use_count(), 2);
    auto blocked = std::make_shared<Semaphore>(), release = std::make_shared<Semaphore>();
    loop.AsyncCall([blocked, release] { blocked->Post(), release->Wait(); });
    blocked->Wait();
    loop.AsyncCall([&] {  // runs until the stop refuses new calls; probes accepted before that stay queued
      running.Post();
      EXPECT_TRUE(zstest::WaitUntil([&] { return loop.AsyncCall([] {}) == -1 || (++accepted, false); }));
    });
    for (int i = 0; i < 2000; ++i) loop.AsyncCall([&ran, token] { SpinFor(std::chrono::microseconds(200)), ++ran; });
    loop.AsyncCall([&ran, token] { ++ran; });
    for (int& t : tag) loop.AsyncCall(cb, &t);
    async.AsyncCall([&ran, token] { ++ran; });
    loop.DelayCall(60000, [&ran, token] { ++ran; });
    loop.DelayCall(60000, cb, &tag[0]);
    waiter = std::async(std::launch::async, [&] { return loop.SyncCall([&ran, token] { ++ran; }); });
    release->Post();
    stopper.join();
    EXPECT_EQ(waiter.get(), -1);  // dropped, or refused if it came after the stop began
  }
  EXPECT_LT(stopMs, 300);
  const std::string pending = "IOLoopImpl::_AsyncStop, pending-";  // the waiter, if it got in before the stop
  const int queued = log.Count(pending + "async-call=" + std::to_string(2005 + accepted));
  EXPECT_EQ(queued + log.Count(pending + "async-call=" + std::to_string(2006 + accepted)), 1);
  EXPECT_EQ(log.Count(pending + "delay-async-call=1002"), 1);
  EXPECT_EQ(log.Count(pending + "work=0"), 1);
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_TRUE(cb->calls.empty());
  EXPECT_EQ(cb->dropped, (std::vector<void*>{&tag[0], &tag[1], &tag[2], &tag[0]}));
  EXPECT_EQ(cb->Release(), 0);
}

TEST_F(LoopTest, AsyncCancelledOrDestroyedAnywhere) {
  auto* async = new Async(&loop);
  auto token = std::make_shared<int>();
  std::atomic<int> ran{0};
  WhileBlocked(loop, [&] {
    for (int i = 0; i < 3; ++i) async->AsyncCall([&ran, token] { ran += 100; });
    async->Cancel();
    async->AsyncCall([&] { trace.Add("0"), async->Cancel(), async->AsyncCall([&] { trace.Add("1"); }); });
    async->AsyncCall([&ran] { ran += 100; });  // cancelled inside the one before
  });
  loop.SyncCall([] {});
  EXPECT_EQ(trace.Events(), (Trace{"0", "1"}));
  WhileBlocked(loop, [&] {
    for (int i = 0; i < 50; ++i) async->AsyncCall([&ran, token] { ++ran; });
    std::thread([async] { delete async; }).join();
  });
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(token.use_count(), 1);
}

// Only the current arming fires, and never before its delay; a repeating timer
// is armed inside its function and can be cancelled there; a timer may be
// destroyed inside its own function, and armed from any thread.
TEST_F(LoopTest, TimerReplacedCancelledOrDestroyedAnywhere) {
  Timer replaced(&loop), cancelled(&loop), repeating(&loop), onLoop(&loop), fromThread(&loop);
  std::atomic<int> replacedFired{0}, cancelledFired{0}, ticks{0}, selfFired{0}, strayFired{0};
  std::atomic<long> replacedAfter{0}, onLoopAfter{-1};
  std::atomic<bool> fromThreadFired{false}, runningInside{false};
  auto token = std::make_shared<int>();
  replaced.SetTimeout(30, 0, [&] { replacedFired += 100; });
  auto armed = Clock::now();
  replaced.SetTimeout(150, 0, [&] { ++replacedFired, replacedAfter = MsSince(armed); });
  cancelled.SetTimeout(30, 0, [&] { ++cancelledFired; });
  cancelled.Cancel();
  repeating.SetTimeout(0, 20, [&] {
    runningInside = repeating.IsRunning();
    if (++ticks == 3) repeating.Cancel();
  });
  auto* self = new Timer(&loop);
  long tokensInside = 0;
  self->SetTimeout(0, 50, [self, token, &selfFired, &tokensInside] {
    delete self;  // the running function survives
    tokensInside = token.use_count();
    ++selfFired;
  });
  WhileBlocked(loop, [&] {  // none of these can come due before its deletion
    for (int i = 0; i < 50; ++i) std::thread([&] { Timer(&loop).SetTimeout(0, 0, [&] { ++strayFired; }); }).join();
  });
  // An arming from another thread while one made on the loop thread still waits
  // for its clock reading: neither may take the other's due time.
  loop.SyncCall([&] {
    auto start = Clock::now();
    onLoop.SetTimeout(150, 0, [&, start] { onLoopAfter = MsSince(start); });
    std::thread([&] { fromThread.SetTimeout(0, 0, [&] { fromThreadFired = true; }); }).join();
  });
  Semaphore settled;  // the delayed calls due by then have run
  loop.DelayCall(200, [&settled] { settled.Post(); });
  settled.Wait();
  EXPECT_EQ(replacedFired, 1);
  EXPECT_GE(replacedAfter, 149);  // the tick is whole milliseconds
  EXPECT_GE(onLoopAfter, 149);
  EXPECT_TRUE(fromThreadFired);
  // Fired, cancelled, stray firings; the repeating one's ticks, seen running inside, and running now.
  EXPECT_EQ(std::make_tuple(cancelledFired.load(), strayFired.load(), cancelled.IsRunning()),
            std::make_tuple(0, 0, false));
  EXPECT_EQ(std::make_tuple(ticks.load(), runningInside.load(), repeating.IsRunning()),
            std::make_tuple(3, true, false));
  // The self-destroying timer's firings, and the references to its capture inside and after.
  EXPECT_EQ(std::make_tuple(selfFired.load(), tokensInside, token.use_count()), std::make_tuple(1, 2L, 1L));
}

TEST_F(LoopTest, JobsRunOnThePoolReportOnTheLoopThreadAndWorkCancelSilencesThem) {
  auto job = [&] { trace.Add(loop.IsLoopThread() ? "!" : "w"); };
  ASSERT_EQ(pool.QueueWork(job, [&](int) { trace.Add(loop.IsLoopThread() ? "a" : "!"); }), 0);
  ASSERT_TRUE(trace.WaitForSize(2));
  Work work(&loop);
  auto gate = OccupyPool();
  ASSERT_EQ(Queue(work, "1"), 0);  // behind the blockers: cannot start before Cancel
  work.Cancel();
  gate->promise.set_value();
  Gate running;
  std::atomic<bool> finished{false};
  ASSERT_EQ(work.QueueWork([&] { trace.Add("w2"), running.future.wait(), finished = true; },
                           [&](int) { trace.Add("a2"); }), 0);
  ASSERT_TRUE(trace.WaitForSize(5));
  work.Cancel();  // while it runs: it finishes, but does not report
  running.promise.set_value();
  ASSERT_TRUE(zstest::WaitUntil([&] { return finished.load(); }));  // any report of it comes before the next
  ASSERT_EQ(Queue(work, "3"), 0);
  ASSERT_TRUE(trace.WaitForSize(7));
  Trace e = trace.Events();
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
    ASSERT_EQ(seq.QueueWork([&, n] { trace.Add(++running > 1 ? "overlap" : "w" + n), --running; },
                            [&, n](int) { trace.Add("a" + n), n == "2" ? (void)Queue(seq, "5") : void(); }),
              0);
  }
  ASSERT_TRUE(trace.WaitForSize(10));
  EXPECT_EQ(trace.Events(), (Trace{"w1", "a1", "w2", "a2", "w3", "a3", "w4", "a4", "w5", "a5:0"}));
  trace.Clear();
  auto gate = std::make_shared<Gate>();
  auto held = std::make_shared<int>();
  ASSERT_EQ(Queue(seq, "1", gate), 0);
  ASSERT_TRUE(trace.WaitForSize(1));
  ASSERT_EQ(seq.QueueWork([held] {}, [held](int) {}), 0);
  seq.Cancel();  // job 1 runs on but does not report
  EXPECT_EQ(held.use_count(), 1);
  ASSERT_EQ(Queue(seq, "2"), 0);
  std::promise<void> cancelled;
  ASSERT_EQ(seq.QueueWork([] {}, [&](int) { seq.Cancel(), cancelled.set_value(); }), 0);
  ASSERT_EQ(Queue(seq, "3"), 0);
  gate->promise.set_value();
  cancelled.get_future().wait();
  ASSERT_EQ(Queue(seq, "4"), 0);
  ASSERT_TRUE(trace.WaitForSize(5));
  EXPECT_EQ(trace.Events(), (Trace{"w1", "w2", "a2:0", "w4", "a4:0"}));
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
  EXPECT_EQ(trace.Events(), (Trace{"a2:-1", "a3:-1"}));
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
  ASSERT_EQ(work.QueueWork([&, held] { trace.Add("w"); }, [&, held](int) { trace.Add("a"); }), 0);
  for (int i = 0; i < 2; ++i)
    ASSERT_EQ(seq.QueueWork([&, held] { trace.Add("w"); }, [&, held](int) { trace.Add("a"); }), 0);
  auto stop = std::async(std::launch::async, [&] { return loop.Stop(); });
  EXPECT_EQ(stop.wait_for(std::chrono::seconds(10)), std::future_status::ready) << "Stop waited for a running job";
  gate->promise.set_value();  // in any case, so that a failing run still ends
  EXPECT_EQ(stop.get(), 0);
  EXPECT_TRUE(zstest::WaitUntil([&] { return running.use_count() == 1 && held.use_count() == 1; }));
  EXPECT_TRUE(trace.Events().empty());
  EXPECT_TRUE(cb->calls.empty());
  EXPECT_EQ(cb->dropped.size(), 1u);
  EXPECT_EQ(cb->Release(), 0);
  EXPECT_EQ(seq.QueueWork([] {}, [](int) {}), -1);  // not stuck waiting for ever
}

// ---- Under load ------------------------------------------------------------

milliseconds LongestGap(std::vector<Clock::time_point> times) {
  milliseconds longest{0};
  for (size_t i = 1; i < times.size(); ++i)
    longest = std::max(longest, std::chrono::duration_cast<milliseconds>(times[i] - times[i - 1]));
  return longest;
}

enum class Flood { kAnotherThread, kTargetsThatPostTwo };

class LoopFloodTest : public ::testing::TestWithParam<Flood> {};

// About twice the work the loop can do, for as long as it takes a 20 ms timer
// to fire 25 times and a socket to receive 50 datagrams sent every 5 ms; each
// call spins for 100 us.  Neither waits much longer than its period.
TEST_P(LoopFloodTest, TimersAndIoKeepTheirTurn) {
  IOLoop loop, peer;
  ASSERT_EQ(loop.Start(), 0);
  ASSERT_EQ(peer.Start(), 0);
  auto arrivals = zstest::NewRecorder();
  zstest::Trace<Clock::time_point> arrived, ticks;
  arrivals->SetHook([&](const zstest::Event& e) { if (e.kind == "recv") arrived.Add(Clock::now()); });
  RefPtr<IUdp> receiver, sender;
  ASSERT_TRUE(CreateUdp(receiver, &loop));
  ASSERT_TRUE(CreateUdp(sender, &peer));
  receiver->SetSink(arrivals);
  ASSERT_EQ(receiver->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  IPEndPoint to;
  ASSERT_EQ(receiver->GetLocalAddress(to), 0);
  ASSERT_EQ(receiver->StartRecv(zstest::Buf(), nullptr), 0);
  Timer sending(&peer), ticking(&loop);
  ASSERT_EQ(sending.SetTimeout(5, 5, [&] { sender->Send(zstest::Buf("ping"), to, nullptr); }), 0);
  ASSERT_EQ(ticking.SetTimeout(20, 20, [&] { ticks.Add(Clock::now()); }), 0);

  std::atomic<bool> stop{false};
  std::atomic<long> posted{0};
  std::function<void()> work = [] { SpinFor(std::chrono::microseconds(100)); };
  std::function<void()> fanOut = [&] {
    work();
    for (int i = 0; i < 2 && !stop && posted < 400000; ++i) posted += loop.AsyncCall(fanOut) == 0;
  };
  std::thread flooder([&] {
    if (GetParam() == Flood::kTargetsThatPostTwo) {
      posted += loop.AsyncCall(fanOut) == 0;
      return;
    }
    // 20 calls a millisecond however coarse the sleep is.
    for (auto start = Clock::now(); !stop; std::this_thread::sleep_for(milliseconds(1)))
      for (long due = 20 * std::chrono::duration_cast<milliseconds>(Clock::now() - start).count(); posted < due;)
        posted += loop.AsyncCall(work) == 0;
  });
  const bool served = zstest::WaitUntil(
      [&] { return ticks.Events().size() >= 25 && arrived.Events().size() >= 50; }, milliseconds(20000));
  stop = true;
  flooder.join();
  sending.Cancel();
  ASSERT_EQ(loop.Stop(), 0);
  EXPECT_TRUE(served) << ticks.Events().size() << " ticks, " << arrived.Events().size() << " datagrams";
  EXPECT_LT(LongestGap(ticks.Events()).count(), 250);
  EXPECT_LT(LongestGap(arrived.Events()).count(), 250);
  receiver->Close();
  sender->Close();
  peer.Stop();
}

INSTANTIATE_TEST_SUITE_P(Floods, LoopFloodTest, ::testing::Values(Flood::kAnotherThread, Flood::kTargetsThatPostTwo));

#if ZS_CHECKED_BUILD
thread_local bool t_stallBeforeWake = false;
Semaphore g_stalled, g_resume;

// A poster that stalls after queueing and before its wake-up: calls posted
// meanwhile, from another thread or from the loop thread, still run at once.
TEST(LoopWakeUp, APosterStalledBeforeItsWakeUpHoldsUpNobodyElse) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  seam::g_beforeCallWake = +[] {
    if (t_stallBeforeWake) g_stalled.Post(), g_resume.Wait();
  };
  std::atomic<bool> stalledRan{false};
  std::thread staller([&] { t_stallBeforeWake = true, loop.AsyncCall([&] { stalledRan = true; }); });
  g_stalled.Wait();
  std::promise<void> fromLoop, fromThread;
  loop.DelayCall(1, [&] { loop.AsyncCall([&] { fromLoop.set_value(); }); });
  EXPECT_TRUE(fromLoop.get_future().wait_for(std::chrono::seconds(2)) == std::future_status::ready);
  loop.AsyncCall([&] { fromThread.set_value(); });
  EXPECT_TRUE(fromThread.get_future().wait_for(std::chrono::seconds(2)) == std::future_status::ready);
  EXPECT_TRUE(stalledRan);  // queued before the others, so served with them
  g_resume.Post();
  staller.join();
  seam::g_beforeCallWake = nullptr;
  loop.Stop();
}
#endif

#ifdef __linux__
bool PinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  return pthread_setaffinity_np(pthread_self(), sizeof set, &set) == 0;
}

// A real-time poster beside an ordinary one on the same CPU: a waiter that
// spun while the preempted holder of the queue's lock could not run would
// wait until the kernel throttled it (about a second).
TEST(LoopWakeUp, ARealTimePosterBesideAnOrdinaryOneOnOneCpuIsNotStalled) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer runtime's own locks spin; measured in the normal build";
#endif
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  std::atomic<bool> stop{false};
  std::atomic<long> pending{0};
  bool ok = false;  // read after the join
  int rtPosts = 0;
  long longestUs = 0;
  std::thread realTime([&] {
    sched_param param{};
    param.sched_priority = 10;
    ok = PinTo(0) && pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0;
    if (!ok) return;
    for (auto end = Clock::now() + std::chrono::seconds(1); Clock::now() < end; ++rtPosts) {
      std::this_thread::sleep_for(std::chrono::microseconds(500));
      auto t0 = Clock::now();
      loop.AsyncCall([] {});
      auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0).count();
      longestUs = std::max<long>(longestUs, static_cast<long>(took));
    }
  });
  std::thread ordinary([&] {
    PinTo(0);
    while (!stop)  // bounded backlog: contention on the lock is what counts
      if (pending < 10000) ++pending, loop.AsyncCall([&] { --pending; });
      else std::this_thread::yield();
  });
  realTime.join();
  stop = true;
  ordinary.join();
  loop.Stop();
  if (!ok) GTEST_SKIP() << "SCHED_FIFO or CPU affinity not permitted here";
  EXPECT_LT(longestUs, 100000);
  EXPECT_GE(rtPosts, 200);
}
#endif

// A repeating timer's function whose copy posts a delayed call: nothing copies
// it while a lock is held, so the timer keeps firing.
TEST(LoopTimers, AFunctionWhoseCopyPostsKeepsFiring) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  struct CopyPosts {
    IOLoop* loop;
    std::atomic<int>* fired;
    CopyPosts(IOLoop* l, std::atomic<int>* f) : loop(l), fired(f) {}
    CopyPosts(const CopyPosts& o) : loop(o.loop), fired(o.fired) { loop->DelayCall(0, [] {}); }
    void operator()() { ++*fired; }
  };
  std::atomic<int> fired{0};
  Timer timer(&loop);
  ASSERT_EQ(timer.SetTimeout(0, 5, CopyPosts(&loop, &fired)), 0);
  // A loop that hung here would hang its teardown too: end the process with the reason.
  if (!zstest::WaitUntil([&] { return fired >= 3; })) std::_Exit((std::fputs("the loop is hung\n", stderr), 1));
  timer.Cancel();
  EXPECT_EQ(loop.Stop(), 0);
}

}  // namespace
}  // namespace zelsocket
