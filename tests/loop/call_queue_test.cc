// The loop's call queue served in batches: order, deferral, fairness to I/O and
// timers, and what a stop does to what is still queued.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/timer.h"
#include "zelsocket/udp.h"

using namespace zelsocket;

namespace {

class RunningLoop : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(loop.Start(), 0); }
  void TearDown() override { loop.Stop(); }
  IOLoop loop;
};

// Posters each send a sequence of numbered calls, every `syncEvery`-th one as a
// SyncCall; each poster's calls must run in exactly its order.
struct FifoCase {
  int posters;
  int callsEach;
  int syncEvery;  // 0: no SyncCall
};

class CallQueueFifo : public RunningLoop, public ::testing::WithParamInterface<FifoCase> {};

TEST_P(CallQueueFifo, EachThreadsCallsRunInItsOrderAcrossAsyncAndSync) {
  const FifoCase c = GetParam();
  std::vector<std::vector<int>> seen(static_cast<std::size_t>(c.posters));  // loop thread only
  std::vector<std::thread> threads;
  for (int p = 0; p < c.posters; ++p) {
    threads.emplace_back([&, p] {
      auto& mine = seen[static_cast<std::size_t>(p)];
      for (int i = 0; i < c.callsEach; ++i) {
        auto record = [&mine, i] { mine.push_back(i); };
        int rc = (c.syncEvery && i % c.syncEvery == 0) ? loop.SyncCall(record) : loop.AsyncCall(record);
        ASSERT_EQ(rc, 0);
      }
    });
  }
  for (auto& t : threads) t.join();
  // A SyncCall runs after everything its thread posted before it.
  ASSERT_EQ(loop.SyncCall([] {}), 0);
  for (int p = 0; p < c.posters; ++p) {
    const auto& mine = seen[static_cast<std::size_t>(p)];
    ASSERT_EQ(mine.size(), static_cast<std::size_t>(c.callsEach)) << "poster " << p;
    for (int i = 0; i < c.callsEach; ++i) ASSERT_EQ(mine[static_cast<std::size_t>(i)], i) << "poster " << p;
  }
}

INSTANTIATE_TEST_SUITE_P(Posters, CallQueueFifo,
                         ::testing::Values(FifoCase{1, 5000, 0}, FifoCase{1, 5000, 7}, FifoCase{3, 3000, 5},
                                           FifoCase{4, 2000, 1}));

TEST_F(RunningLoop, ACallPostedFromATargetRunsAfterItNeverInline) {
  std::atomic<int> order{0};
  int outerEnd = -1, inner = -1, innerOfInner = -1;
  Semaphore done;
  loop.AsyncCall([&] {
    loop.AsyncCall([&] {
      inner = order++;
      loop.AsyncCall([&] {
        innerOfInner = order++;
        done.Post();
      });
    });
    // Nothing posted above may have run yet.
    outerEnd = order++;
  });
  done.Wait();
  EXPECT_EQ(outerEnd, 0);
  EXPECT_EQ(inner, 1);
  EXPECT_EQ(innerOfInner, 2);
}

// A target that posts itself again, and another thread that keeps posting, must
// leave room for a 50 ms delayed call, a timer and a datagram's delivery.
class Received : public RefCountBase, public IUdpSink {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnSend(int, IConstBuffer*, const IPEndPoint&, void*) override {}
  void OnRecv(int status, IMutableBuffer*, const IPEndPoint&, void*) override {
    if (status == 0) got = true;
  }
  std::atomic<bool> got{false};
};

TEST_F(RunningLoop, AFloodOfPostedCallsStarvesNeitherIoNorTimers) {
  RefPtr<IUdp> receiver, sender;
  ASSERT_TRUE(CreateUdp(receiver, &loop));
  ASSERT_TRUE(CreateUdp(sender, &loop));
  RefPtr<Received> sink;
  sink.Attach(new Received());
  receiver->SetSink(sink);
  ASSERT_EQ(receiver->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  ASSERT_EQ(sender->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  IPEndPoint to;
  ASSERT_EQ(receiver->GetLocalAddress(to), 0);
  Buffer in;
  ASSERT_EQ(receiver->StartRecv(in, nullptr), 0);

  std::atomic<bool> stop{false};
  std::atomic<long> spins{0};
  std::function<void()> spin = [&] {
    spins.fetch_add(1, std::memory_order_relaxed);
    if (!stop.load()) loop.AsyncCall(spin);
  };
  ASSERT_EQ(loop.AsyncCall(spin), 0);
  std::thread flooder([&] {
    while (!stop.load()) loop.AsyncCall([] {});
  });

  std::atomic<bool> delayed{false}, timed{false};
  auto posted = std::chrono::steady_clock::now();
  ASSERT_EQ(loop.DelayCall(50, [&] { delayed = true; }), 0);
  Timer timer(&loop);
  ASSERT_EQ(timer.SetTimeout(50, 0, [&] { timed = true; }), 0);
  RefPtr<IMutableBuffer> out;
  CreateBuffer(out);
  out->CopyFrom("ping", 4);
  ASSERT_EQ(sender->Send(out, to, nullptr), 0);

  bool all = zstest::WaitUntil([&] { return delayed.load() && timed.load() && sink->got.load(); },
                               std::chrono::milliseconds(10000));
  auto waited = std::chrono::steady_clock::now() - posted;
  stop = true;
  flooder.join();
  EXPECT_TRUE(delayed.load());
  EXPECT_TRUE(timed.load());
  EXPECT_TRUE(sink->got.load());
  EXPECT_TRUE(all) << "after " << std::chrono::duration_cast<std::chrono::milliseconds>(waited).count() << " ms";
  // The flood really ran meanwhile: many rounds of the self-posting call.
  EXPECT_GT(spins.load(), 10);
  // A self-posting call that read `stop` just before it changed may post once
  // more, behind the first of these; it has run when the second returns.
  loop.SyncCall([] {});
  loop.SyncCall([] {});
  timer.Cancel();
  receiver->Close();
  sender->Close();
}

// What a stop finds queued is dropped, counted in the log, and released on the
// loop thread; a SyncCall waiting behind it returns -1.
class DropRecorder : public RefCountBase, public IAsyncCallback {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnAsyncCall(void*) override { ++ran; }
  void OnAsyncCallDropped(void* data) override {
    std::lock_guard<std::mutex> lock(mutex);
    dropped.push_back(data);
    onLoopThread = onLoopThread && loop->IsLoopThread();
  }
  IOLoop* loop = nullptr;
  std::atomic<int> ran{0};
  std::mutex mutex;
  std::vector<void*> dropped;
  bool onLoopThread = true;
};

TEST(CallQueueStop, QueuedCallsAreDroppedCountedAndReleasedOnTheLoopThread) {
  zstest::LogRecorder log;
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  auto* cb = new DropRecorder();  // the test's reference
  cb->loop = &loop;
  Semaphore blocked, release;
  ASSERT_EQ(loop.AsyncCall([&] {
    blocked.Post();
    release.Wait();
  }), 0);
  blocked.Wait();
  // Queued behind the running call, so in no batch yet.
  constexpr int kQueued = 5;
  int data[kQueued];
  auto owned = std::make_shared<int>(0);
  for (int i = 0; i < kQueued; ++i) ASSERT_EQ(loop.AsyncCall(cb, &data[i]), 0);
  ASSERT_EQ(loop.AsyncCall([owned] { ++*owned; }), 0);
  int syncResult = 0;
  std::thread waiter([&] { syncResult = loop.SyncCall([] {}); });
  int accepted = 0;
  std::thread stopper([&] { loop.Stop(); });
  // Probes accepted before the stop began are queued no-ops, counted below.
  ASSERT_TRUE(zstest::WaitUntil([&] {
    int rc = loop.AsyncCall([] {});
    accepted += rc == 0;
    return rc == -1;
  }));
  release.Post();
  stopper.join();
  waiter.join();
  EXPECT_EQ(cb->ran.load(), 0);
  EXPECT_EQ(*owned, 0);
  EXPECT_EQ(owned.use_count(), 1);
  ASSERT_EQ(cb->dropped.size(), static_cast<std::size_t>(kQueued));
  for (int i = 0; i < kQueued; ++i) EXPECT_EQ(cb->dropped[static_cast<std::size_t>(i)], &data[i]);
  EXPECT_TRUE(cb->onLoopThread);
  // The waiter either got in before the stop (dropped: -1) or was refused (-1).
  EXPECT_EQ(syncResult, -1);
  int counted = -1;
  for (const auto& line : log.Lines()) {
    const std::string prefix = "IOLoopImpl::_AsyncStop, pending-async-call=";
    if (line.message.compare(0, prefix.size(), prefix) == 0) counted = std::stoi(line.message.substr(prefix.size()));
  }
  // The callbacks, the function, the probes that were accepted, and the waiter
  // if it got in.
  EXPECT_GE(counted, kQueued + 1 + accepted);
  EXPECT_LE(counted, kQueued + 2 + accepted);
  // Every reference the queue took has been given back.
  EXPECT_EQ(cb->Release(), 0);
}

}  // namespace
