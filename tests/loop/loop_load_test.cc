// The loop's contracts under load: timers and I/O keep their turn under a flood
// of posted calls (and the stop afterwards drops the backlog), a stalled or
// preempted poster holds up nobody else, and no application code runs under
// the loop's locks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <future>

#include "core/check.h"
#include "support/recorder.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/timer.h"
#include "zelsocket/sync.h"
#include "zelsocket/udp.h"

#ifdef __linux__
#include <pthread.h>
#include <sched.h>
#endif

namespace zelsocket {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

void SpinFor(std::chrono::microseconds d) {
  for (auto end = Clock::now() + d; Clock::now() < end;) {
  }
}

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
// call spins for 100 us.  Neither waits much longer than its period, and the
// stop afterwards drops the backlog instead of serving it.
TEST_P(LoopFloodTest, TimersAndIoKeepTheirTurnAndStopDropsTheBacklog) {
  IOLoop loop, peer;
  ASSERT_EQ(loop.Start(), 0);
  ASSERT_EQ(peer.Start(), 0);
  auto arrivals = zstest::NewRecorder();
  std::vector<Clock::time_point> arrived;  // loop thread
  arrivals->SetHook([&](const zstest::Event& e) { if (e.kind == "recv") arrived.push_back(Clock::now()); });
  RefPtr<IUdp> receiver, sender;
  ASSERT_TRUE(CreateUdp(receiver, &loop));
  ASSERT_TRUE(CreateUdp(sender, &peer));
  receiver->SetSink(arrivals);
  ASSERT_EQ(receiver->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  IPEndPoint to;
  ASSERT_EQ(receiver->GetLocalAddress(to), 0);
  auto data = zstest::Buf("ping");
  ASSERT_EQ(receiver->StartRecv(zstest::Buf(), nullptr), 0);
  Timer sending(&peer), ticking(&loop);
  ASSERT_EQ(sending.SetTimeout(5, 5, [&] { sender->Send(data, to, nullptr); }), 0);
  std::vector<Clock::time_point> ticks;  // loop thread
  std::atomic<int> tickCount{0};
  ASSERT_EQ(ticking.SetTimeout(20, 20, [&] { ticks.push_back(Clock::now()), ++tickCount; }), 0);

  std::atomic<bool> stop{false};
  std::atomic<long> posted{0}, ran{0};
  std::function<void()> work = [&] { SpinFor(std::chrono::microseconds(100)), ++ran; };
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
  const bool served = zstest::WaitUntil([&] { return tickCount >= 25 && arrivals->Count("recv") >= 50; },
                                        milliseconds(20000));
  stop = true;
  flooder.join();
  sending.Cancel();
  const long postedBeforeStop = posted;
  auto stopBegan = Clock::now();
  ASSERT_EQ(loop.Stop(), 0);
  const auto stopTook = Clock::now() - stopBegan;
  EXPECT_TRUE(served) << tickCount << " ticks, " << arrivals->Count("recv") << " datagrams";
  EXPECT_LT(LongestGap(ticks).count(), 250);
  EXPECT_LT(LongestGap(arrived).count(), 250);
  EXPECT_LT(std::chrono::duration_cast<milliseconds>(stopTook).count(), 1000) << ran << " of " << postedBeforeStop;
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
  std::thread staller([&] {
    t_stallBeforeWake = true;
    loop.AsyncCall([&] { stalledRan = true; });
  });
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
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

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
  if (kSanitized) GTEST_SKIP() << "the sanitizer runtime's own locks spin; measured in the normal build";
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
