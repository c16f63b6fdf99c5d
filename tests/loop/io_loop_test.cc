// The loop thread: its life, what crosses onto it, in which order, and what a
// stop does to what is still queued.
#include <algorithm>
#include <atomic>
#include <future>
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
#include "zelsocket/work.h"

namespace zelsocket {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct Record {
  std::vector<void*> calls, dropped;
  std::atomic<int> destroyed{0};
};

// Both callback forms, recording what reaches it.
class Callback : public RefCount, public IAsyncCallback, public IWorkCallback {
 public:
  explicit Callback(Record& record) : m_record(record) {}
  ~Callback() override { ++m_record.destroyed; }
  int AddRef() override { return RefCount::AddRef(); }
  int Release() override { return RefCount::Release(); }
  void OnAsyncCall(void* data) override { m_record.calls.push_back(data); }
  void OnAsyncCallDropped(void* data) override { m_record.dropped.push_back(data); }
  void OnWork(void*) override {}
  void OnAfterWork(int, void* data) override { m_record.calls.push_back(data); }

 private:
  Record& m_record;
};

// Holds the loop thread inside a posted call until Release.
struct LoopBlocker {
  explicit LoopBlocker(IOLoop& loop) {
    EXPECT_EQ(loop.AsyncCall([this] {
      m_blocked.Post();
      m_release.Wait();
    }), 0);
    m_blocked.Wait();
  }
  void Release() { m_release.Post(); }
  Semaphore m_blocked, m_release;
};

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
    ASSERT_EQ(loop.SyncCall([&] {
      onLoop = loop.IsLoopThread() && IOLoop::CurrentLoop() == &loop && IOLoop::GetLoop() == &loop;
      innerStop = loop.Stop();  // would wait for itself
    }), 0);
    EXPECT_TRUE(onLoop);
    EXPECT_EQ(innerStop, -1);
    IOLoop* seen = nullptr;
    other.SyncCall([&] { seen = IOLoop::CurrentLoop(); });
    EXPECT_EQ(seen, &other);
    EXPECT_FALSE(loop.IsLoopThread());
    EXPECT_EQ(IOLoop::CurrentLoop(), nullptr);
    ASSERT_EQ(loop.Stop(), 0);
    EXPECT_EQ(loop.Loop(), nullptr);
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
  EXPECT_EQ(IOLoop::DefaultLoop(), first);
  EXPECT_EQ(first->Stop(), 0);  // an application that wants a clean end stops it; the pointer stays
  EXPECT_EQ(IOLoop::DefaultLoop(), first);
}

// Every way into a loop, with valid arguments, and the state it is tried in;
// and the invalid arguments that a running loop refuses.
enum class State { kNeverStarted, kStopped, kRunning };

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

struct Entry {
  std::string name;
  State state;
  int (*call)(IOLoop&, Probe&);
};

std::vector<Entry> RefusedCalls() {
  using F = std::function<void()>;
  using A = std::function<void(int)>;
  const std::vector<std::pair<std::string, int (*)(IOLoop&, Probe&)>> valid = {
      {"AsyncCall", [](IOLoop& l, Probe& p) { return l.AsyncCall(p.Fn()); }},
      {"AsyncCallCallback", [](IOLoop& l, Probe& p) { return l.AsyncCall(p.cb, nullptr); }},
      {"SyncCall", [](IOLoop& l, Probe& p) { return l.SyncCall(p.Fn()); }},
      {"SyncCallCallback", [](IOLoop& l, Probe& p) { return l.SyncCall(p.cb, nullptr); }},
      {"DelayCall", [](IOLoop& l, Probe& p) { return l.DelayCall(0, p.Fn()); }},
      {"DelayCallCallback", [](IOLoop& l, Probe& p) { return l.DelayCall(0, p.cb, nullptr); }},
      {"QueueWork", [](IOLoop& l, Probe& p) { return l.QueueWork(p.cb, nullptr); }},
      {"Async", [](IOLoop& l, Probe& p) { return Async(&l).AsyncCall(p.Fn()); }},
      {"Timer", [](IOLoop& l, Probe& p) { return Timer(&l).SetTimeout(0, 0, p.Fn()); }},
      {"Work", [](IOLoop& l, Probe& p) { return Work(&l).QueueWork(p.Fn(), p.After()); }},
      {"SequenceWork", [](IOLoop& l, Probe& p) { return SequenceWork(&l).QueueWork(p.Fn(), p.After()); }},
  };
  std::vector<Entry> entries;
  for (const auto& v : valid) {
    entries.push_back({v.first + "_NeverStarted", State::kNeverStarted, v.second});
    entries.push_back({v.first + "_Stopped", State::kStopped, v.second});
  }
  const std::vector<std::pair<std::string, int (*)(IOLoop&, Probe&)>> invalid = {
      {"AsyncCallEmpty", [](IOLoop& l, Probe&) { return l.AsyncCall(F()); }},
      {"AsyncCallNull", [](IOLoop& l, Probe&) { return l.AsyncCall(nullptr, nullptr); }},
      {"SyncCallEmpty", [](IOLoop& l, Probe&) { return l.SyncCall(F()); }},
      {"SyncCallNull", [](IOLoop& l, Probe&) { return l.SyncCall(nullptr, nullptr); }},
      {"DelayCallEmpty", [](IOLoop& l, Probe&) { return l.DelayCall(5, F()); }},
      {"DelayCallNull", [](IOLoop& l, Probe&) { return l.DelayCall(5, nullptr, nullptr); }},
      {"QueueWorkNull", [](IOLoop& l, Probe&) { return l.QueueWork(nullptr, nullptr); }},
      {"AsyncEmpty", [](IOLoop& l, Probe&) { return Async(&l).AsyncCall(F()); }},
      {"TimerEmpty", [](IOLoop& l, Probe&) { return Timer(&l).SetTimeout(5, 0, F()); }},
      {"WorkEmptyJob", [](IOLoop& l, Probe& p) { return Work(&l).QueueWork(F(), p.After()); }},
      {"WorkEmptyAfter", [](IOLoop& l, Probe& p) { return Work(&l).QueueWork(p.Fn(), A()); }},
      {"SequenceWorkEmptyJob", [](IOLoop& l, Probe& p) { return SequenceWork(&l).QueueWork(F(), p.After()); }},
      {"SequenceWorkEmptyAfter", [](IOLoop& l, Probe& p) { return SequenceWork(&l).QueueWork(p.Fn(), A()); }},
  };
  for (const auto& v : invalid) entries.push_back({v.first, State::kRunning, v.second});
  return entries;
}

class Refused : public ::testing::TestWithParam<Entry> {};

TEST_P(Refused, ReturnsMinusOneRunsNothingAndKeepsNoReference) {
  IOLoop loop;
  if (GetParam().state != State::kNeverStarted) {
    ASSERT_EQ(loop.Start(), 0);
  }
  if (GetParam().state == State::kStopped) {
    ASSERT_EQ(loop.Stop(), 0);
  }
  Probe probe;
  EXPECT_EQ(GetParam().call(loop, probe), -1);
  if (loop.Loop()) {
    ASSERT_EQ(loop.SyncCall([] {}), 0);  // anything wrongly queued has had its turn
  }
  EXPECT_EQ(probe.ran.load(), 0);
  EXPECT_EQ(probe.token.use_count(), 1);
  EXPECT_TRUE(probe.record.calls.empty());
  EXPECT_EQ(probe.cb->Release(), 0);
  if (loop.Loop()) loop.Stop();
}

INSTANTIATE_TEST_SUITE_P(Loop, Refused, ::testing::ValuesIn(RefusedCalls()),
                         [](const ::testing::TestParamInfo<Entry>& info) { return info.param.name; });

TEST(IOLoopCalls, PostedCallsRunInOrderAndOnlySyncCallRunsInline) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  Record record;
  int tag = 0;
  std::vector<int> order;
  LoopBlocker blocker(loop);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(loop.AsyncCall([&, i] { order.push_back(i); }), 0);
  auto* cb = new Callback(record);
  ASSERT_EQ(loop.AsyncCall(cb, &tag), 0);
  cb->Release();  // the queued call keeps it alive
  blocker.Release();
  ASSERT_EQ(loop.SyncCall([] {}), 0);  // FIFO with the posted calls: all have run
  ASSERT_EQ(order.size(), 1000u);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(order[i], i);
  EXPECT_EQ(record.calls, std::vector<void*>{&tag});

  std::vector<std::string> trace;
  loop.SyncCall([&] {
    loop.AsyncCall([&] { trace.push_back("posted"); });
    loop.DelayCall(0, [&] { trace.push_back("delayed"); });
    loop.SyncCall([&] { trace.push_back("sync"); });
    trace.push_back("end");
  });
  ASSERT_TRUE(zstest::WaitUntil([&] {
    size_t n = 0;
    loop.SyncCall([&] { n = trace.size(); });
    return n == 4;
  }));
  std::sort(trace.begin() + 2, trace.end());  // posted and delayed calls have no order between them
  EXPECT_EQ(trace, (std::vector<std::string>{"sync", "end", "delayed", "posted"}));
  loop.Stop();
  EXPECT_EQ(record.destroyed.load(), 1);
}

TEST(IOLoopCalls, DelayedCallsRunInDueOrderNeverEarly) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  std::vector<int> order;
  Semaphore done;
  auto start = steady_clock::now();
  steady_clock::time_point ran120;
  loop.DelayCall(120, [&] {
    ran120 = steady_clock::now();
    order.push_back(120);
    done.Post();
  });
  loop.DelayCall(30, [&] { order.push_back(30); });
  loop.DelayCall(-50, [&] { order.push_back(-50); });  // already due
  done.Wait();
  EXPECT_GE(ran120 - start, milliseconds(120));
  EXPECT_EQ(order, (std::vector<int>{-50, 30, 120}));
  loop.Stop();
}

int PendingCount(const zstest::LogRecorder& log, const std::string& prefix) {
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
  int tag = 0;
  std::future<int> waiter;
  {
    Async async(&loop);
    LoopBlocker blocker(loop);
    loop.AsyncCall([&ran, token] { ++ran; });
    loop.AsyncCall(cb, &tag);
    async.AsyncCall([&ran, token] { ++ran; });
    loop.DelayCall(60000, [&ran, token] { ++ran; });
    loop.DelayCall(60000, cb, &tag);
    waiter = std::async(std::launch::async, [&] { return loop.SyncCall([&ran, token] { ++ran; }); });
    std::thread stopper([&] { EXPECT_EQ(loop.Stop(), 0); });
    // A stop that has begun refuses new calls; probes accepted before that stay queued.
    int accepted = 0;
    ASSERT_TRUE(zstest::WaitUntil([&] {
      int rc = loop.AsyncCall([] {});
      accepted += rc == 0;
      return rc == -1;
    }));
    blocker.Release();
    stopper.join();
    EXPECT_EQ(waiter.get(), -1);  // dropped, or refused if it came after the stop began
    int pending = PendingCount(log, "IOLoopImpl::_AsyncStop, pending-async-call=");
    EXPECT_TRUE(pending == 3 + accepted || pending == 4 + accepted) << pending;
  }
  EXPECT_EQ(PendingCount(log, "IOLoopImpl::_AsyncStop, pending-delay-async-call="), 2);
  EXPECT_EQ(PendingCount(log, "IOLoopImpl::_AsyncStop, pending-work="), 0);
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
      for (int i = 0; !done; ++i) {
        switch ((i + t) % 4) {
          case 0: {
            bool ran = false;
            int rc = loop.SyncCall([&ran, token] { ran = true; });
            syncOk += rc == 0;
            syncRan += ran;
            break;
          }
          case 1:
            asyncOk += loop.AsyncCall([&asyncRan, token] { ++asyncRan; }) == 0;
            break;
          case 2:
            asyncOk += loop.DelayCall(i % 7, [&asyncRan, token] { ++asyncRan; }) == 0;
            break;
          default:
            loop.AsyncCall(cb, nullptr);
            break;
        }
      }
    });
  }
  for (int cycle = 0; cycle < 20; ++cycle) {
    std::this_thread::sleep_for(milliseconds(5));  // pacing only: let the posters run
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
