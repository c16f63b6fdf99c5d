#include <atomic>
#include <mutex>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zelsocket {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class Callback : public RefCount, public IAsyncCallback {
 public:
  int AddRef() override { return RefCount::AddRef(); }
  int Release() override { return RefCount::Release(); }
  void OnAsyncCall(void* data) override { calls.push_back(data); }
  void OnAsyncCallDropped(void* data) override { dropped.push_back(data); }
  std::vector<void*> calls;
  std::vector<void*> dropped;
};

TEST(IOLoopLifecycle, StartStopCyclesAndTheirResults) {
  zstest::LogRecorder log;
  IOLoop loop;
  EXPECT_EQ(loop.Loop(), nullptr);
  EXPECT_FALSE(loop.IsLoopThread());
  EXPECT_EQ(loop.Stop(), -1);
  for (int cycle = 0; cycle < 3; ++cycle) {
    ASSERT_EQ(loop.Start(), 0);
    EXPECT_NE(loop.Loop(), nullptr);
    EXPECT_EQ(loop.Start(), -1);
    bool onLoop = false;
    ASSERT_EQ(loop.SyncCall([&] { onLoop = loop.IsLoopThread() && IOLoop::CurrentLoop() == &loop; }), 0);
    EXPECT_TRUE(onLoop);
    EXPECT_FALSE(loop.IsLoopThread());
    ASSERT_EQ(loop.Stop(), 0);
    EXPECT_EQ(loop.Loop(), nullptr);
  }
  EXPECT_EQ(log.Count("UvLoop.Start, ret=0"), 3);
  EXPECT_EQ(log.Count("UvLoop.Start, ret=-1"), 3);
  EXPECT_EQ(log.Count("UvLoop.Stop, ret=0"), 3);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Loop", "UvLoop.Stop, ret=-1"));
}

TEST(IOLoopLifecycle, StopFromTheLoopThreadIsRefused) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  int inner = 0;
  loop.SyncCall([&] { inner = loop.Stop(); });
  EXPECT_EQ(inner, -1);
  int after = 0;
  EXPECT_EQ(loop.SyncCall([&] { after = 1; }), 0);  // still running
  EXPECT_EQ(after, 1);
  EXPECT_EQ(loop.Stop(), 0);
}

TEST(IOLoopLifecycle, CurrentLoopIsPerThread) {
  EXPECT_EQ(IOLoop::CurrentLoop(), nullptr);
  IOLoop a, b;
  ASSERT_EQ(a.Start(), 0);
  ASSERT_EQ(b.Start(), 0);
  IOLoop* seenA = nullptr;
  IOLoop* seenB = nullptr;
  a.SyncCall([&] { seenA = IOLoop::CurrentLoop(); });
  b.SyncCall([&] { seenB = IOLoop::CurrentLoop(); });
  EXPECT_EQ(seenA, &a);
  EXPECT_EQ(seenB, &b);
  EXPECT_EQ(IOLoop::CurrentLoop(), nullptr);
  IOLoop* inside = nullptr;
  a.SyncCall([&] { inside = IOLoop::GetLoop(); });
  EXPECT_EQ(inside, &a);
  a.Stop();
  b.Stop();
}

TEST(IOLoopLifecycle, DefaultLoopIsCreatedOnceEvenWhenRacedFor) {
  std::vector<std::future<IOLoop*>> results;
  for (int i = 0; i < 6; ++i) results.push_back(std::async(std::launch::async, [] { return IOLoop::GetLoop(); }));
  IOLoop* first = results[0].get();
  ASSERT_NE(first, nullptr);
  for (size_t i = 1; i < results.size(); ++i) EXPECT_EQ(results[i].get(), first);
  EXPECT_EQ(IOLoop::DefaultLoop(), first);
  // An application that wants a clean end stops it itself; the pointer stays.
  EXPECT_EQ(first->Stop(), 0);
  EXPECT_EQ(IOLoop::DefaultLoop(), first);
  EXPECT_EQ(first->AsyncCall([] {}), -1);
}

TEST(IOLoopCalls, RefusedCallsBeforeStartAfterStopAndForEmptyTargets) {
  IOLoop loop;
  Callback* cb = new Callback();
  EXPECT_EQ(loop.AsyncCall([] {}), -1);
  EXPECT_EQ(loop.SyncCall([] {}), -1);
  EXPECT_EQ(loop.DelayCall(0, [] {}), -1);
  EXPECT_EQ(loop.QueueWork(nullptr, nullptr), -1);
  ASSERT_EQ(loop.Start(), 0);
  EXPECT_EQ(loop.AsyncCall(std::function<void()>()), -1);
  EXPECT_EQ(loop.SyncCall(std::function<void()>()), -1);
  EXPECT_EQ(loop.DelayCall(5, std::function<void()>()), -1);
  EXPECT_EQ(loop.AsyncCall(nullptr, nullptr), -1);
  EXPECT_EQ(loop.SyncCall(nullptr, nullptr), -1);
  EXPECT_EQ(loop.DelayCall(5, nullptr, nullptr), -1);
  ASSERT_EQ(loop.Stop(), 0);
  EXPECT_EQ(loop.AsyncCall(cb, nullptr), -1);
  EXPECT_EQ(loop.SyncCall(cb, nullptr), -1);
  EXPECT_EQ(loop.DelayCall(0, cb, nullptr), -1);
  EXPECT_TRUE(cb->calls.empty());
  EXPECT_EQ(cb->Release(), 0);  // nothing kept a reference
}

TEST(IOLoopCalls, PostedCallsRunInOrderOneAtATime) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  std::vector<int> order;
  std::atomic<int> done{0};
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(loop.AsyncCall([&, i] { order.push_back(i); ++done; }), 0);
  ASSERT_EQ(loop.SyncCall([] {}), 0);  // FIFO with AsyncCall: everything before has run
  ASSERT_EQ(done.load(), 1000);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(order[i], i);
  loop.Stop();
}

TEST(IOLoopCalls, OnTheLoopThreadAsyncDefersAndSyncRunsInline) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  std::vector<std::string> trace;
  loop.SyncCall([&] {
    EXPECT_EQ(loop.AsyncCall([&] { trace.push_back("posted"); }), 0);
    EXPECT_EQ(loop.SyncCall([&] { trace.push_back("sync"); }), 0);
    trace.push_back("outer end");
  });
  loop.SyncCall([] {});
  ASSERT_EQ(trace.size(), 3u);
  EXPECT_EQ(trace[0], "sync");
  EXPECT_EQ(trace[1], "outer end");
  EXPECT_EQ(trace[2], "posted");
  loop.Stop();
}

TEST(IOLoopCalls, CallbackFormHoldsAReferenceUntilTheCallRan) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  auto* cb = new Callback();
  int tag = 0;
  ASSERT_EQ(loop.AsyncCall(cb, &tag), 0);
  ASSERT_EQ(loop.SyncCall(cb, &tag), 0);
  ASSERT_EQ(cb->calls.size(), 2u);
  EXPECT_EQ(cb->calls[0], &tag);
  // The item that ran the SyncCall is destroyed after its waiter was woken, so
  // only a stop guarantees that the loop has let go of every reference.
  loop.Stop();
  EXPECT_EQ(cb->Release(), 0);
}

TEST(IOLoopCalls, DelayedCallsRunLateNotEarlyAndInDueOrder) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  std::mutex mutex;
  std::vector<int> order;
  Semaphore done;
  auto start = steady_clock::now();
  steady_clock::time_point ran120;
  loop.DelayCall(120, [&] {
    ran120 = steady_clock::now();
    std::lock_guard<std::mutex> lock(mutex);
    order.push_back(120);
    done.Post();
  });
  loop.DelayCall(30, [&] {
    std::lock_guard<std::mutex> lock(mutex);
    order.push_back(30);
  });
  bool inlineRun = false;
  loop.SyncCall([&] {
    loop.DelayCall(0, [&] { inlineRun = true; });
    EXPECT_FALSE(inlineRun);  // never inline, even with delay 0
  });
  loop.DelayCall(-50, [] {});
  done.Wait();
  EXPECT_GE(ran120 - start, milliseconds(120));
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(order.size(), 2u);
  EXPECT_EQ(order[0], 30);
  EXPECT_EQ(order[1], 120);
  loop.Stop();
}

TEST(IOLoopStop, QueuedItemsAreDroppedCountedAndReleased) {
  zstest::LogRecorder log;
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  auto* cb = new Callback();
  int ran = 0;
  Semaphore blocked, release;
  loop.AsyncCall([&] {
    blocked.Post();
    release.Wait();
  });
  blocked.Wait();
  // The loop thread is busy: these stay queued.
  auto owned = std::make_shared<int>(1);
  loop.AsyncCall([&ran, owned] { ++ran; });
  int tag = 0;
  loop.AsyncCall(cb, &tag);
  loop.DelayCall(60000, [&ran, owned] { ++ran; });
  loop.DelayCall(60000, cb, &tag);
  std::thread stopper([&] { loop.Stop(); });
  // Let the stop begin before the blocked call returns; a stop that has begun
  // refuses new calls.  Probes accepted before that are queued no-ops.
  int accepted = 0;
  ASSERT_TRUE(zstest::WaitUntil([&] {
    int rc = loop.AsyncCall([] {});
    accepted += rc == 0;
    return rc == -1;
  }));
  release.Post();
  stopper.join();
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(owned.use_count(), 1);  // the dropped functions were destroyed
  EXPECT_TRUE(cb->calls.empty());
  ASSERT_EQ(cb->dropped.size(), 2u);
  EXPECT_EQ(cb->dropped[0], &tag);
  EXPECT_EQ(cb->Release(), 0);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Loop",
                      "IOLoopImpl::_AsyncStop, pending-async-call=" + std::to_string(2 + accepted)));
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Loop", "IOLoopImpl::_AsyncStop, pending-delay-async-call=2"));
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Loop", "IOLoopImpl::_AsyncStop, pending-work=0"));

  // After a new start the queues are empty and work as before.
  ASSERT_EQ(loop.Start(), 0);
  EXPECT_EQ(loop.SyncCall([&] { ++ran; }), 0);
  EXPECT_EQ(ran, 1);
  loop.Stop();
}

TEST(IOLoopStop, SyncCallDroppedByAStopReturnsMinusOneInsteadOfHanging) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  Semaphore blocked, release;
  loop.AsyncCall([&] {
    blocked.Post();
    release.Wait();
  });
  blocked.Wait();
  std::atomic<bool> ran{false};
  auto waiter = std::async(std::launch::async, [&] { return loop.SyncCall([&] { ran = true; }); });
  std::thread stopper([&] { loop.Stop(); });
  ASSERT_TRUE(zstest::WaitUntil([&] { return loop.AsyncCall([] {}) == -1; }));
  release.Post();
  stopper.join();
  // The SyncCall either got in before the stop (dropped: -1) or was refused (-1).
  EXPECT_EQ(waiter.get(), -1);
  EXPECT_FALSE(ran);
}

// Application threads post every kind of call while another thread stops and
// restarts the loop.  Every accepted call either runs once or is dropped, every
// SyncCall that returned 0 ran, and every function object is destroyed.
TEST(IOLoopConcurrency, PostersRaceStopAndRestart) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  auto token = std::make_shared<int>();
  std::atomic<bool> done{false};
  std::atomic<long> syncOk{0}, syncRan{0}, asyncOk{0}, asyncRan{0}, delayOk{0}, delayRan{0};
  std::vector<std::thread> posters;
  for (int t = 0; t < 3; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; !done; ++i) {
        switch ((i + t) % 3) {
          case 0: {
            bool ran = false;
            int rc = loop.SyncCall([&ran, token] { ran = true; });
            if (rc == 0) {
              ++syncOk;
              EXPECT_TRUE(ran);
            }
            syncRan += ran;
            break;
          }
          case 1:
            asyncOk += loop.AsyncCall([&asyncRan, token] { ++asyncRan; }) == 0;
            break;
          default:
            delayOk += loop.DelayCall(i % 7, [&delayRan, token] { ++delayRan; }) == 0;
            break;
        }
      }
    });
  }
  for (int cycle = 0; cycle < 20; ++cycle) {
    std::this_thread::sleep_for(milliseconds(5));  // pacing only: let posters run
    EXPECT_EQ(loop.Stop(), 0);
    EXPECT_EQ(loop.Start(), 0);
  }
  done = true;
  for (auto& t : posters) t.join();
  loop.Stop();
  EXPECT_EQ(syncOk.load(), syncRan.load());
  EXPECT_LE(asyncRan.load(), asyncOk.load());
  EXPECT_LE(delayRan.load(), delayOk.load());
  EXPECT_GT(syncOk.load() + asyncOk.load(), 0);
  EXPECT_EQ(token.use_count(), 1);
}

TEST(IOLoopConcurrency, ReferencesReleasedOnOtherThreads) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  std::vector<Callback*> callbacks;
  for (int i = 0; i < 200; ++i) callbacks.push_back(new Callback());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t; i < 200; i += 4) {
        loop.AsyncCall(callbacks[i], nullptr);
        callbacks[i]->Release();  // the queued call keeps it alive
      }
    });
  }
  for (auto& th : threads) th.join();
  loop.SyncCall([] {});
  loop.Stop();
}

class WorkCallback : public RefCount, public IWorkCallback {
 public:
  int AddRef() override { return RefCount::AddRef(); }
  int Release() override { return RefCount::Release(); }
  void OnWork(void* data) override {
    workOnPool = !loop->IsLoopThread();
    if (gate) gate->Wait();
    ++works;
  }
  void OnAfterWork(int status, void* data) override {
    afterOnLoop = loop->IsLoopThread();
    statuses.push_back(status);
  }
  // Jobs still running at a stop are dropped on another thread when they end.
  void OnWorkDropped(void* data) override {
    std::lock_guard<std::mutex> lock(droppedMutex);
    dropped.push_back(data);
  }
  std::size_t DroppedCount() {
    std::lock_guard<std::mutex> lock(droppedMutex);
    return dropped.size();
  }
  std::mutex droppedMutex;
  IOLoop* loop = nullptr;
  Semaphore* gate = nullptr;
  std::atomic<int> works{0};
  std::atomic<bool> workOnPool{false};
  bool afterOnLoop = false;
  std::vector<int> statuses;
  std::vector<void*> dropped;
};

TEST(IOLoopWork, RunsOnThePoolAndReportsOnTheLoopFromAnyThread) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  auto* cb = new WorkCallback();
  cb->loop = &loop;
  ASSERT_EQ(loop.QueueWork(cb, nullptr), 0);  // from an application thread
  int onLoopResult = -2;
  loop.SyncCall([&] { onLoopResult = loop.QueueWork(cb, nullptr); });  // submitted directly
  EXPECT_EQ(onLoopResult, 0);
  ASSERT_TRUE(zstest::WaitUntil([&] {
    size_t n = 0;
    loop.SyncCall([&] { n = cb->statuses.size(); });
    return n == 2;
  }));
  EXPECT_TRUE(cb->workOnPool);
  EXPECT_TRUE(cb->afterOnLoop);
  EXPECT_EQ(cb->statuses[0], 0);
  EXPECT_EQ(cb->statuses[1], 0);
  loop.Stop();
  EXPECT_EQ(cb->Release(), 0);
}

TEST(IOLoopWork, RefusedOnALoopThatIsNotRunning) {
  IOLoop loop;
  auto* cb = new WorkCallback();
  EXPECT_EQ(loop.QueueWork(cb, nullptr), -1);
  ASSERT_EQ(loop.Start(), 0);
  ASSERT_EQ(loop.Stop(), 0);
  EXPECT_EQ(loop.QueueWork(cb, nullptr), -1);
  EXPECT_EQ(cb->works.load(), 0);
  EXPECT_EQ(cb->Release(), 0);
}

TEST(IOLoopWork, StopLeavesRunningJobsAloneAndDropsTheirReports) {
  zstest::LogRecorder log;
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  Semaphore gate;
  auto* cb = new WorkCallback();
  cb->loop = &loop;
  cb->gate = &gate;
  int tags[4];
  // More jobs than the pool has threads: some run (and block), some wait in
  // libuv's queue and are cancelled by the stop.
  for (int& t : tags) ASSERT_EQ(loop.QueueWork(cb, &t), 0);
  // A round trip through the loop: the jobs woke it before this call did, so
  // they have been handed to libuv by the time it returns.
  loop.SyncCall([] {});
  // Stop does not wait for the jobs still on the pool; let them finish after it.
  EXPECT_EQ(loop.Stop(), 0);
  for (int i = 0; i < 4; ++i) gate.Post();
  // Every record comes back and is freed (only the test's reference is left).
  EXPECT_TRUE(zstest::WaitUntil([&] { return cb->DroppedCount() == 4 && (cb->AddRef(), cb->Release()) == 1; }));
  EXPECT_TRUE(cb->statuses.empty());  // but no after-work once the loop stops
  EXPECT_EQ(cb->Release(), 0);
}

}  // namespace
}  // namespace zelsocket

#if !defined(NDEBUG) || defined(ZELSOCKET_ENABLE_DCHECK)
namespace zelsocket {
namespace {
// Destroying a loop whose thread still runs would leave that thread on freed
// state; checked builds stop the program at once instead.
TEST(IOLoopDeathTest, DestroyingARunningLoopAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto* loop = new IOLoop();
        loop->Start();
        delete loop;
      },
      "check failed");
}
}  // namespace
}  // namespace zelsocket
#endif
