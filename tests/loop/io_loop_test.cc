// The loop thread: its life, what crosses onto it and in which order, what is
// refused, and what a stop does to what is still queued.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "loop/loop_test_util.h"
#include "zelsocket/async.h"
#include "zelsocket/timer.h"
#include "zelsocket/work.h"

namespace zelsocket {
namespace {

using zstest::Callback;
using zstest::Record;

TEST(IOLoop, StartStopCyclesAndWhichLoopEachThreadSees) {
  zstest::LogRecorder log;
  IOLoop loop, other;
  EXPECT_EQ(loop.Stop(), -1);
  ASSERT_EQ(other.Start(), 0);
  for (int cycle = 0; cycle < 2; ++cycle) {
    ASSERT_EQ(loop.Start(), 0);
    EXPECT_EQ(loop.Start(), -1);
    bool onLoop = false;
    int innerStop = 0;
    IOLoop* seen = nullptr;
    loop.SyncCall([&] {
      onLoop = loop.IsLoopThread() && IOLoop::CurrentLoop() == &loop && IOLoop::GetLoop() == &loop;
      innerStop = loop.Stop();  // it would wait for itself
    });
    other.SyncCall([&] { seen = IOLoop::CurrentLoop(); });
    EXPECT_TRUE(onLoop && seen == &other && !loop.IsLoopThread() && !IOLoop::CurrentLoop());
    EXPECT_EQ(innerStop, -1);
    ASSERT_EQ(loop.Stop(), 0);
  }
  EXPECT_EQ(other.Stop(), 0);
  EXPECT_EQ(log.Count("UvLoop.Start, ret=0"), 3);
  EXPECT_EQ(log.Count("UvLoop.Start, ret=-1"), 2);
  EXPECT_EQ(log.Count("UvLoop.Stop, ret=0"), 3);
  EXPECT_EQ(log.Count("UvLoop.Stop, ret=-1"), 3);
}

TEST(IOLoop, DefaultLoopIsCreatedOnceEvenWhenRacedFor) {
  std::vector<std::future<IOLoop*>> results;
  for (int i = 0; i < 6; ++i) results.push_back(std::async(std::launch::async, [] { return IOLoop::GetLoop(); }));
  IOLoop* first = results[0].get();
  ASSERT_NE(first, nullptr);
  for (size_t i = 1; i < results.size(); ++i) EXPECT_EQ(results[i].get(), first);
  EXPECT_EQ(first->Stop(), 0);  // an application that wants a clean end stops it; the pointer stays
  EXPECT_EQ(IOLoop::DefaultLoop(), first);
}

// Every way onto a loop, with arguments that count what reaches them.
struct Probe {
  Record record;
  Callback* cb = new Callback(record);
  std::atomic<int> ran{0};
  std::shared_ptr<int> token = std::make_shared<int>();
  std::function<void()> Fn() {
    return [this, t = token] { ++ran, (void)t; };
  }
  std::function<void(int)> After() {
    return [this, t = token](int) { ++ran, (void)t; };
  }
};
using Call = int (*)(IOLoop&, Probe&);
using F = std::function<void()>;
using A = std::function<void(int)>;

const std::pair<const char*, Call> kValid[] = {
    {"AsyncCall", [](IOLoop& l, Probe& p) { return l.AsyncCall(p.Fn()); }},
    {"AsyncCall(callback)", [](IOLoop& l, Probe& p) { return l.AsyncCall(p.cb, nullptr); }},
    {"SyncCall", [](IOLoop& l, Probe& p) { return l.SyncCall(p.Fn()); }},
    {"SyncCall(callback)", [](IOLoop& l, Probe& p) { return l.SyncCall(p.cb, nullptr); }},
    {"DelayCall", [](IOLoop& l, Probe& p) { return l.DelayCall(0, p.Fn()); }},
    {"DelayCall(callback)", [](IOLoop& l, Probe& p) { return l.DelayCall(0, p.cb, nullptr); }},
    {"QueueWork", [](IOLoop& l, Probe& p) { return l.QueueWork(p.cb, nullptr); }},
    {"Async", [](IOLoop& l, Probe& p) { return Async(&l).AsyncCall(p.Fn()); }},
    {"Timer", [](IOLoop& l, Probe& p) { return Timer(&l).SetTimeout(0, 0, p.Fn()); }},
    {"Work", [](IOLoop& l, Probe& p) { return Work(&l).QueueWork(p.Fn(), p.After()); }},
    {"SequenceWork", [](IOLoop& l, Probe& p) { return SequenceWork(&l).QueueWork(p.Fn(), p.After()); }},
};
const std::pair<const char*, Call> kInvalid[] = {
    {"AsyncCall", [](IOLoop& l, Probe&) { return l.AsyncCall(F()); }},
    {"AsyncCall(callback)", [](IOLoop& l, Probe&) { return l.AsyncCall(nullptr, nullptr); }},
    {"SyncCall", [](IOLoop& l, Probe&) { return l.SyncCall(F()); }},
    {"SyncCall(callback)", [](IOLoop& l, Probe&) { return l.SyncCall(nullptr, nullptr); }},
    {"DelayCall", [](IOLoop& l, Probe&) { return l.DelayCall(5, F()); }},
    {"DelayCall(callback)", [](IOLoop& l, Probe&) { return l.DelayCall(5, nullptr, nullptr); }},
    {"QueueWork", [](IOLoop& l, Probe&) { return l.QueueWork(nullptr, nullptr); }},
    {"Async", [](IOLoop& l, Probe&) { return Async(&l).AsyncCall(F()); }},
    {"Timer", [](IOLoop& l, Probe&) { return Timer(&l).SetTimeout(5, 0, F()); }},
    {"Work job", [](IOLoop& l, Probe& p) { return Work(&l).QueueWork(F(), p.After()); }},
    {"Work after", [](IOLoop& l, Probe& p) { return Work(&l).QueueWork(p.Fn(), A()); }},
    {"SequenceWork job", [](IOLoop& l, Probe& p) { return SequenceWork(&l).QueueWork(F(), p.After()); }},
    {"SequenceWork after", [](IOLoop& l, Probe& p) { return SequenceWork(&l).QueueWork(p.Fn(), A()); }},
};

void ExpectRefused(IOLoop& loop, const char* name, Call call) {
  SCOPED_TRACE(name);
  Probe probe;
  EXPECT_EQ(call(loop, probe), -1);
  if (loop.Loop()) loop.SyncCall([] {});  // anything wrongly queued has had its turn
  EXPECT_EQ(probe.ran.load(), 0);
  EXPECT_EQ(probe.token.use_count(), 1);  // and nothing kept a capture or a reference
  EXPECT_TRUE(probe.record.calls.empty());
  EXPECT_EQ(probe.cb->Release(), 0);
}

TEST(IOLoopRefuses, EveryOperationOnALoopNeverStartedOrStopped) {
  IOLoop never, stopped;
  ASSERT_EQ(stopped.Start(), 0);
  ASSERT_EQ(stopped.Stop(), 0);
  for (const auto& [name, call] : kValid) ExpectRefused(never, name, call), ExpectRefused(stopped, name, call);
}

TEST(IOLoopRefuses, EmptyFunctionsAndNullCallbacksOnARunningLoop) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  for (const auto& [name, call] : kInvalid) ExpectRefused(loop, name, call);
  loop.Stop();
}

TEST(IOLoopCalls, PostedCallsRunInOrderAndOnlySyncCallRunsInline) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  Record record;
  int tag = 0;
  std::vector<int> order;
  zstest::WhileBlocked(loop, [&] {
    for (int i = 0; i < 1000; ++i) loop.AsyncCall([&, i] { order.push_back(i); });
    auto* cb = new Callback(record);
    loop.AsyncCall(cb, &tag);
    cb->Release();  // the queued call keeps it alive
  });
  ASSERT_EQ(order.size(), 1000u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_EQ(record.calls, std::vector<void*>{&tag});

  std::vector<std::string> trace;
  loop.SyncCall([&] {
    loop.AsyncCall([&] { trace.push_back("posted"); });
    loop.DelayCall(-50, [&] { trace.push_back("delayed"); });  // already due, still not inline
    loop.SyncCall([&] { trace.push_back("sync"); });
    trace.push_back("end");
  });
  zstest::Settle(loop, 0);
  loop.SyncCall([] {});  // after the posted call, which the delay poll may have overtaken
  std::sort(trace.begin() + 2, trace.end());  // posted and delayed calls have no order between them
  EXPECT_EQ(trace, (std::vector<std::string>{"sync", "end", "delayed", "posted"}));
  loop.Stop();
  EXPECT_EQ(record.destroyed.load(), 1);
}

TEST(IOLoopCalls, DelayedCallsRunInDueOrderNeverEarly) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  std::vector<int> order;
  auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point at;
  loop.DelayCall(120, [&] { order.push_back(120), at = std::chrono::steady_clock::now(); });
  loop.DelayCall(30, [&] { order.push_back(30); });
  zstest::Settle(loop, 120);
  EXPECT_GE(at - start, std::chrono::milliseconds(120));
  EXPECT_EQ(order, (std::vector<int>{30, 120}));
  loop.Stop();
}

int PendingCount(const zstest::LogRecorder& log, const std::string& what) {
  const std::string prefix = "IOLoopImpl::_AsyncStop, pending-" + what + "=";
  for (const auto& line : log.Lines())
    if (line.message.rfind(prefix, 0) == 0) return std::stoi(line.message.substr(prefix.size()));
  return -1;
}

// A stop drops what is queued without running it: every capture and callback
// reference is let go, callbacks hear of the drop, a waiting SyncCall returns,
// and only the pending counts in the log tell how much there was.
TEST(IOLoopStop, DropsWhatIsQueuedAndReleasesIt) {
  zstest::LogRecorder log;
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  Record record;
  auto* cb = new Callback(record);
  auto token = std::make_shared<int>();
  std::atomic<int> ran{0};
  int tag = 0, accepted = 0;
  std::future<int> waiter;
  std::thread stopper;
  {
    Async async(&loop);
    zstest::WhileBlocked(loop, [&] {
      loop.AsyncCall([&ran, token] { ++ran; });
      loop.AsyncCall(cb, &tag);
      async.AsyncCall([&ran, token] { ++ran; });
      loop.DelayCall(60000, [&ran, token] { ++ran; });
      loop.DelayCall(60000, cb, &tag);
      waiter = std::async(std::launch::async, [&] { return loop.SyncCall([&ran, token] { ++ran; }); });
      stopper = std::thread([&] { EXPECT_EQ(loop.Stop(), 0); });
      // A stop that has begun refuses new calls; probes accepted before that stay queued.
      EXPECT_TRUE(zstest::WaitUntil([&] {
        int rc = loop.AsyncCall([] {});
        accepted += rc == 0;
        return rc == -1;
      }));
    });
    stopper.join();
    EXPECT_EQ(waiter.get(), -1);  // dropped, or refused if it came after the stop began
  }
  int pending = PendingCount(log, "async-call");
  EXPECT_TRUE(pending == 3 + accepted || pending == 4 + accepted) << pending;
  EXPECT_EQ(PendingCount(log, "delay-async-call"), 2);
  EXPECT_EQ(PendingCount(log, "work"), 0);
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_TRUE(record.calls.empty());
  EXPECT_EQ(record.dropped, (std::vector<void*>{&tag, &tag}));
  EXPECT_EQ(cb->Release(), 0);
  ASSERT_EQ(loop.Start(), 0);  // the queues start empty and work as before
  EXPECT_EQ(loop.SyncCall([&] { ++ran; }), 0);
  EXPECT_EQ(ran.load(), 1);
  loop.Stop();
}

// Application threads post every kind of call while another thread stops and
// restarts the loop.  Every SyncCall that returned 0 ran, nothing runs twice,
// and every function object and callback reference is let go.
TEST(IOLoopStop, PostersRaceStopAndRestart) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  Record record;
  auto* cb = new Callback(record);
  auto token = std::make_shared<int>();
  std::atomic<bool> done{false};
  std::atomic<long> syncOk{0}, syncRan{0}, asyncOk{0}, asyncRan{0};
  std::vector<std::thread> posters;
  for (int t = 0; t < 3; ++t) {
    posters.emplace_back([&, t] {
      for (int i = t; !done; ++i) {
        if (i % 4 == 0) {
          bool ran = false;
          syncOk += loop.SyncCall([&ran, token] { ran = true; }) == 0;
          syncRan += ran;
        } else if (i % 4 == 1) {
          asyncOk += loop.AsyncCall([&asyncRan, token] { ++asyncRan; }) == 0;
        } else if (i % 4 == 2) {
          asyncOk += loop.DelayCall(i % 7, [&asyncRan, token] { ++asyncRan; }) == 0;
        } else {
          loop.AsyncCall(cb, nullptr);
        }
      }
    });
  }
  for (int cycle = 0; cycle < 20; ++cycle) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // pacing only: let the posters run
    EXPECT_EQ(loop.Stop(), 0);
    EXPECT_EQ(loop.Start(), 0);
  }
  done = true;
  for (auto& t : posters) t.join();
  loop.Stop();
  EXPECT_EQ(syncOk.load(), syncRan.load());
  EXPECT_LE(asyncRan.load(), asyncOk.load());
  EXPECT_GT(syncOk.load() + asyncOk.load(), 0);
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_EQ(cb->Release(), 0);
}

#if !defined(NDEBUG) || defined(ZELSOCKET_ENABLE_DCHECK)
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
#endif

}  // namespace
}  // namespace zelsocket
