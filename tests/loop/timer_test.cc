#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/timer.h"

namespace zelsocket {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class TimerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(loop.Start(), 0); }
  void TearDown() override { loop.Stop(); }
  IOLoop loop;
};

TEST_F(TimerTest, OneShotFiresOnceNoEarlierThanItsDelay) {
  Timer timer(&loop);
  Semaphore fired;
  std::atomic<int> count{0};
  bool runningInside = true;
  auto start = steady_clock::now();
  steady_clock::time_point at;
  ASSERT_EQ(timer.SetTimeout(100, 0, [&] {
    at = steady_clock::now();
    runningInside = timer.IsRunning();
    ++count;
    fired.Post();
  }), 0);
  EXPECT_TRUE(timer.IsRunning());
  fired.Wait();
  EXPECT_GE(at - start, milliseconds(100));
  EXPECT_FALSE(runningInside);
  EXPECT_FALSE(timer.IsRunning());
  // A later poll must not fire it again.
  Semaphore later;
  loop.DelayCall(150, [&] { later.Post(); });
  later.Wait();
  EXPECT_EQ(count.load(), 1);
}

TEST_F(TimerTest, RepeatingTimerCanBeCancelledFromItsOwnFunction) {
  Timer timer(&loop);
  Semaphore done;
  int ticks = 0;
  bool runningInside = false;
  timer.SetTimeout(0, 60, [&] {
    runningInside = timer.IsRunning();
    if (++ticks == 3) {
      timer.Cancel();
      done.Post();
    }
  });
  done.Wait();
  EXPECT_TRUE(runningInside);
  Semaphore later;
  loop.DelayCall(200, [&] { later.Post(); });
  later.Wait();
  loop.SyncCall([&] { EXPECT_EQ(ticks, 3); });
  EXPECT_FALSE(timer.IsRunning());
}

TEST_F(TimerTest, ReplacingAndCancellingLeaveStaleCallsThatLogTheirIds) {
  zstest::LogRecorder log;
  Timer timer(&loop);
  std::atomic<int> first{0}, second{0};
  timer.SetTimeout(50, 0, [&] { ++first; });    // id 1
  timer.SetTimeout(300, 0, [&] { ++second; });  // id 2 replaces it
  EXPECT_EQ(timer.SetTimeout(10, 0, std::function<void()>()), -1);
  EXPECT_TRUE(timer.IsRunning());  // the empty function left it armed
  ASSERT_TRUE(zstest::WaitUntil([&] { return log.Count("_OnTimeout, Canceled, id-old=1, id-new=2") == 1; }));
  timer.Cancel();
  ASSERT_TRUE(zstest::WaitUntil([&] { return log.Count("_OnTimeout, Canceled, id-old=2, id-new=0") == 1; }));
  EXPECT_EQ(first.load(), 0);
  EXPECT_EQ(second.load(), 0);
  EXPECT_TRUE(log.Has(LOG_LEVEL_DEBUG, "timer", "_OnTimeout, Canceled, id-old=1, id-new=2"));
}

TEST_F(TimerTest, NegativeIntervalFiresOnce) {
  Timer timer(&loop);
  std::atomic<int> count{0};
  timer.SetTimeout(0, -5, [&] { ++count; });
  ASSERT_TRUE(zstest::WaitUntil([&] { return count == 1; }));
  Semaphore later;
  loop.DelayCall(120, [&] { later.Post(); });
  later.Wait();
  EXPECT_EQ(count.load(), 1);
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
  // Hold the loop thread so that no timer can come due before its deletion.
  Semaphore blocked, release;
  loop.AsyncCall([&] {
    blocked.Post();
    release.Wait();
  });
  blocked.Wait();
  for (int i = 0; i < 50; ++i) {
    auto* timer = new Timer(&loop);
    timer->SetTimeout(0, 0, [&] { ++fired; });
    std::thread([timer] { delete timer; }).join();
  }
  release.Post();
  Semaphore later;
  loop.DelayCall(120, [&] { later.Post(); });
  later.Wait();
  EXPECT_EQ(fired.load(), 0);
}

TEST(TimerRefused, ALoopThatIsNotRunningRefusesAndTheTimerStaysArmed) {
  zstest::LogRecorder log;
  IOLoop loop;
  Timer timer(&loop);
  EXPECT_EQ(timer.SetTimeout(10, 0, [] {}), -1);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "timer", "SetTimeout, DelayCallSafe fail, ret=-1."));
  EXPECT_TRUE(timer.IsRunning());
  timer.Cancel();
  EXPECT_FALSE(timer.IsRunning());
}

}  // namespace
}  // namespace zelsocket
