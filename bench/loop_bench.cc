// The loop's cross-thread calls and timers beside raw libuv doing the same.
//
// Run with interleaved repetitions so that our cases and the baselines share
// the machine's noise, and compare medians:
//   ./loop_bench --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
//                --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <time.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "zelsocket/async.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/timer.h"

using namespace zelsocket;

namespace {

constexpr int kCallsPerBatch = 20000;

enum Impl { kIOLoop, kAsync, kRawOnePerWakeup, kRawDrain };

// Posts kCallsPerBatch calls from `producers` threads per iteration and waits
// until all of them have run on the loop thread.
void PostThroughput(benchmark::State& state, Impl impl) {
  const int producers = static_cast<int>(state.range(0));
  std::unique_ptr<IOLoop> loop;
  std::unique_ptr<Async> async;
  std::unique_ptr<zsbench::RawLoop> raw;
  if (impl == kIOLoop || impl == kAsync) {
    loop.reset(new IOLoop());
    loop->Start();
    if (impl == kAsync) async.reset(new Async(loop.get()));
  } else {
    raw.reset(new zsbench::RawLoop(impl == kRawDrain ? zsbench::RawLoop::Mode::kDrain
                                                     : zsbench::RawLoop::Mode::kOnePerWakeup));
  }
  std::atomic<int> ran{0};
  Semaphore done;
  auto target = [&ran, &done] {
    if (ran.fetch_add(1, std::memory_order_relaxed) + 1 == kCallsPerBatch) done.Post();
  };
  double cpu = 0;
  for (auto _ : state) {
    ran = 0;
    double cpu0 = zsbench::ProcessCpuSeconds();
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
      threads.emplace_back([&, p] {
        for (int i = p; i < kCallsPerBatch; i += producers) {
          switch (impl) {
            case kIOLoop: loop->AsyncCall(target); break;
            case kAsync: async->AsyncCall(target); break;
            default: raw->Post(target); break;
          }
        }
      });
    }
    for (auto& t : threads) t.join();
    done.Wait();
    cpu += zsbench::ProcessCpuSeconds() - cpu0;
  }
  state.SetItemsProcessed(state.iterations() * kCallsPerBatch);
  state.counters["cpu_us_per_call"] = cpu * 1e6 / (state.iterations() * kCallsPerBatch);
  async.reset();
  if (loop) loop->Stop();
}

void BM_Post_IOLoop(benchmark::State& s) { PostThroughput(s, kIOLoop); }
void BM_Post_Async(benchmark::State& s) { PostThroughput(s, kAsync); }
void BM_Post_RawOnePerWakeup(benchmark::State& s) { PostThroughput(s, kRawOnePerWakeup); }
void BM_Post_RawDrain(benchmark::State& s) { PostThroughput(s, kRawDrain); }
BENCHMARK(BM_Post_IOLoop)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Post_Async)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Post_RawOnePerWakeup)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Post_RawDrain)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// One synchronous round trip per iteration from the benchmark thread.
void BM_SyncCall_IOLoop(benchmark::State& state) {
  IOLoop loop;
  loop.Start();
  int x = 0;
  double cpu0 = zsbench::ProcessCpuSeconds();
  for (auto _ : state) loop.SyncCall([&x] { ++x; });
  state.counters["cpu_us_per_call"] = (zsbench::ProcessCpuSeconds() - cpu0) * 1e6 / state.iterations();
  state.SetItemsProcessed(state.iterations());
  loop.Stop();
}
BENCHMARK(BM_SyncCall_IOLoop)->UseRealTime();

void BM_SyncCall_RawAsyncSem(benchmark::State& state) {
  zsbench::RawLoop raw(zsbench::RawLoop::Mode::kOnePerWakeup);
  uv_sem_t sem;
  uv_sem_init(&sem, 0);
  int x = 0;
  double cpu0 = zsbench::ProcessCpuSeconds();
  for (auto _ : state) {
    raw.Post([&] {
      ++x;
      uv_sem_post(&sem);
    });
    uv_sem_wait(&sem);
  }
  state.counters["cpu_us_per_call"] = (zsbench::ProcessCpuSeconds() - cpu0) * 1e6 / state.iterations();
  state.SetItemsProcessed(state.iterations());
  uv_sem_destroy(&sem);
}
BENCHMARK(BM_SyncCall_RawAsyncSem)->UseRealTime();

double ThreadCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

constexpr int kTimers = 100000;

// Arms n timers an hour ahead on the loop thread: time per arming, heap bytes
// per armed timer, and the loop thread's CPU per 50 ms poll while nothing is
// due, beside the same loop with no timer armed.  Run for several n: the poll
// must not grow with n.
void BM_Timer_Arm(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  IOLoop loop;
  loop.Start();
  double perArmUs = 0, bytesPerTimer = 0, idlePollUs = 0, emptyPollUs = 0;
  auto pollCost = [&loop]() {
    double cpu0 = 0, cpu1 = 0;
    loop.SyncCall([&] { cpu0 = ThreadCpuSeconds(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));  // 40 polls
    loop.SyncCall([&] { cpu1 = ThreadCpuSeconds(); });
    return (cpu1 - cpu0) * 1e6 / 40;
  };
  for (auto _ : state) {
    state.PauseTiming();
    emptyPollUs = pollCost();
    std::vector<std::unique_ptr<Timer>> timers;
    timers.reserve(count);
    std::size_t heap0 = zsbench::HeapInUse();
    state.ResumeTiming();
    auto t0 = std::chrono::steady_clock::now();
    loop.SyncCall([&] {
      for (int i = 0; i < count; ++i) {
        timers.emplace_back(new Timer(&loop));
        timers.back()->SetTimeout(3600 * 1000, 0, [] {});
      }
    });
    auto t1 = std::chrono::steady_clock::now();
    state.PauseTiming();
    bytesPerTimer = static_cast<double>(zsbench::HeapInUse() - heap0) / count;
    perArmUs = std::chrono::duration<double, std::micro>(t1 - t0).count() / count;
    idlePollUs = pollCost();
    loop.SyncCall([&] { timers.clear(); });
    state.ResumeTiming();
  }
  state.counters["us_per_arm"] = perArmUs;
  state.counters["bytes_per_timer"] = bytesPerTimer;
  state.counters["poll_cpu_us_armed"] = idlePollUs;
  state.counters["poll_cpu_us_none"] = emptyPollUs;
  loop.Stop();  // drops the stale delayed calls
}
BENCHMARK(BM_Timer_Arm)->Arg(1000)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same on raw libuv: one uv_timer_t per timer, started an hour ahead.
void BM_Timer_RawArm100k(benchmark::State& state) {
  zsbench::RawLoop raw(zsbench::RawLoop::Mode::kOnePerWakeup);
  double perArmUs = 0, bytesPerTimer = 0;
  for (auto _ : state) {
    std::vector<uv_timer_t*> timers(kTimers);
    Semaphore done;
    std::size_t heap0 = zsbench::HeapInUse();
    auto t0 = std::chrono::steady_clock::now();
    raw.Post([&] {
      for (auto*& t : timers) {
        t = new uv_timer_t;
        uv_timer_init(raw.Loop(), t);
        uv_timer_start(t, [](uv_timer_t*) {}, 3600 * 1000, 0);
      }
      done.Post();
    });
    done.Wait();
    auto t1 = std::chrono::steady_clock::now();
    bytesPerTimer = static_cast<double>(zsbench::HeapInUse() - heap0) / kTimers;
    perArmUs = std::chrono::duration<double, std::micro>(t1 - t0).count() / kTimers;
    state.PauseTiming();
    raw.Post([&] {
      for (auto* t : timers)
        uv_close(reinterpret_cast<uv_handle_t*>(t), [](uv_handle_t* h) { delete reinterpret_cast<uv_timer_t*>(h); });
      done.Post();
    });
    done.Wait();
    state.ResumeTiming();
  }
  state.counters["us_per_arm"] = perArmUs;
  state.counters["bytes_per_timer"] = bytesPerTimer;
}
BENCHMARK(BM_Timer_RawArm100k)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

ZSBENCH_MAIN()
