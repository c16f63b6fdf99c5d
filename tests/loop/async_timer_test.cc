// Async and Timer: cancellation, replacement, and release from any thread,
// including from inside their own functions.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "loop/loop_test_util.h"
#include "zelsocket/async.h"
#include "zelsocket/timer.h"

namespace zelsocket {
namespace {

class LoopTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(loop.Start(), 0); }
  void TearDown() override { loop.Stop(); }
  IOLoop loop;
};
using AsyncTest = LoopTest;
using TimerTest = LoopTest;

TEST_F(AsyncTest, CancelDropsWhatHasNotStartedAndLaterCallsRunInOrder) {
  zstest::LogRecorder log;
  Async async(&loop);
  std::vector<int> order;
  auto token = std::make_shared<int>();
  zstest::WhileBlocked(loop, [&] {
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

// Posters, a canceller and finally the destruction, all off the loop thread.
TEST_F(AsyncTest, PostedCancelledAndDestroyedOnOtherThreads) {
  auto* async = new Async(&loop);
  std::atomic<int> ran{0};
  std::atomic<bool> stop{false};
  auto token = std::make_shared<int>();
  std::thread canceller([&] {
    while (!stop) async->Cancel(), std::this_thread::yield();
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < 2; ++t)
    posters.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) EXPECT_EQ(async->AsyncCall([&ran] { ++ran; }), 0);
    });
  for (auto& t : posters) t.join();
  stop = true;
  canceller.join();
  loop.SyncCall([] {});
  EXPECT_LE(ran.load(), 4000);
  int before = ran;
  zstest::WhileBlocked(loop, [&] {
    for (int i = 0; i < 50; ++i) async->AsyncCall([&ran, token] { ++ran; });
    std::thread([async] { delete async; }).join();
  });
  EXPECT_EQ(ran.load(), before);
  EXPECT_EQ(token.use_count(), 1);
}

// A one-shot timer, and a repeating one with a negative interval, fire once.
TEST_F(TimerTest, FiresOnceNoEarlierThanItsDelay) {
  Timer timers[2] = {Timer(&loop), Timer(&loop)};
  std::atomic<int> count[2] = {{0}, {0}};
  bool runningInside[2] = {true, true};
  std::chrono::steady_clock::time_point at[2], start = std::chrono::steady_clock::now();
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(timers[i].SetTimeout(100, -5 * i,
                                   [&, i] {
                                     at[i] = std::chrono::steady_clock::now();
                                     runningInside[i] = timers[i].IsRunning();
                                     ++count[i];
                                   }),
              0);
  }
  zstest::Settle(loop, 250);
  for (int i = 0; i < 2; ++i) {
    EXPECT_GE(at[i] - start, std::chrono::milliseconds(100));
    EXPECT_EQ(count[i].load(), 1);
    EXPECT_FALSE(runningInside[i] || timers[i].IsRunning());
  }
}

TEST_F(TimerTest, RepeatingTimerCanBeCancelledFromItsOwnFunction) {
  Timer timer(&loop);
  int ticks = 0;
  bool runningInside = false;
  timer.SetTimeout(0, 50, [&] {
    runningInside = timer.IsRunning();
    if (++ticks == 3) timer.Cancel();
  });
  zstest::Settle(loop, 300);
  loop.SyncCall([&] { EXPECT_EQ(ticks, 3); });
  EXPECT_TRUE(runningInside);
  EXPECT_FALSE(timer.IsRunning());
}

TEST_F(TimerTest, SetTimeoutReplacesAndCancelSilences) {
  Timer replaced(&loop), cancelled(&loop);
  std::atomic<int> first{0}, second{0}, third{0};
  replaced.SetTimeout(30, 0, [&] { ++first; });
  replaced.SetTimeout(150, 0, [&] { ++second; });  // the call due at 30 must not run it early
  cancelled.SetTimeout(30, 0, [&] { ++third; });
  cancelled.Cancel();
  EXPECT_FALSE(cancelled.IsRunning());
  zstest::Settle(loop, 100);  // delayed calls run in due order: both old deadlines have passed
  EXPECT_EQ((std::vector<int>{first, second, third}), (std::vector<int>{0, 0, 0}));
  zstest::Settle(loop, 100);
  EXPECT_EQ(second.load(), 1);
}

TEST_F(TimerTest, DestroyedInsideItsOwnFunctionOrOnAnotherThreadWhileArmed) {
  std::atomic<int> fired{0};
  auto token = std::make_shared<int>();
  loop.SyncCall([&] {
    auto* timer = new Timer(&loop);
    timer->SetTimeout(0, 50, [timer, token, &fired] {
      delete timer;  // the running copy of this function survives
      EXPECT_EQ(token.use_count(), 2);
      ++fired;
    });
  });
  zstest::WhileBlocked(loop, [&] {  // none of these can come due before its deletion
    for (int i = 0; i < 50; ++i) {
      auto* timer = new Timer(&loop);
      timer->SetTimeout(0, 0, [&fired] { fired += 100; });
      std::thread([timer] { delete timer; }).join();
    }
  });
  zstest::Settle(loop, 150);
  EXPECT_EQ(fired.load(), 1);
  EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace zelsocket
