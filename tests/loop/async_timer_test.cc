// Async and Timer: cancellation, replacement, and release from any thread,
// including from inside their own functions.
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_support.h"
#include "zelsocket/async.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/timer.h"

namespace zelsocket {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class LoopTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(loop.Start(), 0); }
  void TearDown() override { loop.Stop(); }
  // Runs `fn` while the loop thread is held in a posted call, then lets every
  // call posted so far run.
  void WhileBlocked(const std::function<void()>& fn) {
    Semaphore blocked, release;
    loop.AsyncCall([&] {
      blocked.Post();
      release.Wait();
    });
    blocked.Wait();
    fn();
    release.Post();
    loop.SyncCall([] {});
  }
  // Lets every delayed call due within `ms` run, the poll grain included.
  void Settle(int ms) {
    Semaphore done;
    loop.DelayCall(ms, [&] { done.Post(); });
    done.Wait();
  }
  IOLoop loop;
};

using AsyncTest = LoopTest;
using TimerTest = LoopTest;

TEST_F(AsyncTest, CancelDropsWhatHasNotStartedAndLaterCallsRunInOrder) {
  zstest::LogRecorder log;
  Async async(&loop);
  std::vector<int> order;
  auto token = std::make_shared<int>();
  WhileBlocked([&] {
    for (int i = 0; i < 3; ++i) async.AsyncCall([&order, token] { order.push_back(-1); });
    async.Cancel();
    for (int i = 0; i < 5; ++i) async.AsyncCall([&order, i] { order.push_back(i); });
  });
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_EQ(log.CountPrefix("AsyncImpl::_AsyncCallback, AsyncCall Canceled, Cookie="), 3);
}

TEST_F(AsyncTest, AFunctionMayCancelItsOwnAsyncAndPostAgain) {
  Async async(&loop);
  std::vector<std::string> trace;
  async.AsyncCall([&] {
    async.Cancel();
    async.AsyncCall([&] { trace.push_back("posted inside"); });
    trace.push_back("first");
  });
  async.AsyncCall([&] { trace.push_back("cancelled"); });
  loop.SyncCall([] {});
  loop.SyncCall([] {});
  EXPECT_EQ(trace, (std::vector<std::string>{"first", "posted inside"}));
}

TEST_F(AsyncTest, DestroyedOnAnotherThreadWithCallsInFlight) {
  std::atomic<int> ran{0};
  auto token = std::make_shared<int>();
  WhileBlocked([&] {
    std::thread([&] {
      auto* async = new Async(&loop);
      for (int i = 0; i < 50; ++i) async->AsyncCall([&ran, token] { ++ran; });
      delete async;
    }).join();
  });
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(token.use_count(), 1);
}

TEST_F(AsyncTest, ConcurrentPostersAndACanceller) {
  Async async(&loop);
  std::atomic<int> ran{0}, accepted{0};
  std::atomic<bool> stop{false};
  std::thread canceller([&] {
    while (!stop) async.Cancel(), std::this_thread::yield();
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < 3; ++t)
    posters.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) accepted += async.AsyncCall([&ran] { ++ran; }) == 0;
    });
  for (auto& t : posters) t.join();
  stop = true;
  canceller.join();
  loop.SyncCall([] {});
  EXPECT_EQ(accepted.load(), 6000);
  EXPECT_LE(ran.load(), 6000);
}

// A one-shot timer, and a repeating one with a negative interval, fire once.
class TimerOnce : public LoopTest, public ::testing::WithParamInterface<int> {};

TEST_P(TimerOnce, FiresOnceNoEarlierThanItsDelay) {
  Timer timer(&loop);
  Semaphore fired;
  std::atomic<int> count{0};
  bool runningInside = true;
  auto start = steady_clock::now();
  steady_clock::time_point at;
  ASSERT_EQ(timer.SetTimeout(100, GetParam(), [&] {
    at = steady_clock::now();
    runningInside = timer.IsRunning();
    ++count;
    fired.Post();
  }), 0);
  EXPECT_TRUE(timer.IsRunning());
  fired.Wait();
  EXPECT_GE(at - start, milliseconds(100));
  EXPECT_FALSE(runningInside);
  Settle(150);
  EXPECT_EQ(count.load(), 1);
  EXPECT_FALSE(timer.IsRunning());
}

INSTANTIATE_TEST_SUITE_P(Timer, TimerOnce, ::testing::Values(0, -5));

TEST_F(TimerTest, RepeatingTimerCanBeCancelledFromItsOwnFunction) {
  Timer timer(&loop);
  Semaphore done;
  int ticks = 0;
  bool runningInside = false;
  timer.SetTimeout(0, 60, [&] {
    runningInside = timer.IsRunning();
    if (++ticks == 3) timer.Cancel(), done.Post();
  });
  done.Wait();
  EXPECT_TRUE(runningInside);
  Settle(150);
  loop.SyncCall([&] { EXPECT_EQ(ticks, 3); });
  EXPECT_FALSE(timer.IsRunning());
}

TEST_F(TimerTest, SetTimeoutReplacesAndCancelSilences) {
  Timer replaced(&loop), cancelled(&loop);
  std::atomic<int> first{0}, second{0}, third{0};
  replaced.SetTimeout(30, 0, [&] { ++first; });
  replaced.SetTimeout(60, 0, [&] { ++second; });
  cancelled.SetTimeout(30, 0, [&] { ++third; });
  cancelled.Cancel();
  EXPECT_FALSE(cancelled.IsRunning());
  Settle(120);  // delayed calls run in due order: both old deadlines have passed
  EXPECT_EQ(first.load(), 0);
  EXPECT_EQ(second.load(), 1);
  EXPECT_EQ(third.load(), 0);
}

TEST_F(TimerTest, DestroyedInsideItsOwnFunction) {
  Semaphore done;
  auto token = std::make_shared<int>();
  loop.SyncCall([&] {
    auto* timer = new Timer(&loop);
    timer->SetTimeout(0, 50, [timer, token, &done] {
      delete timer;  // the running copy of this function survives
      EXPECT_EQ(token.use_count(), 2);
      done.Post();
    });
  });
  done.Wait();
  loop.SyncCall([] {});
  EXPECT_EQ(token.use_count(), 1);
}

TEST_F(TimerTest, DestroyedOnAnotherThreadWhileArmed) {
  std::atomic<int> fired{0};
  WhileBlocked([&] {  // no timer can come due before its deletion
    for (int i = 0; i < 50; ++i) {
      auto* timer = new Timer(&loop);
      timer->SetTimeout(0, 0, [&] { ++fired; });
      std::thread([timer] { delete timer; }).join();
    }
  });
  Settle(60);
  EXPECT_EQ(fired.load(), 0);
}

}  // namespace
}  // namespace zelsocket
