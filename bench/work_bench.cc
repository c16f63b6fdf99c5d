// Work and SequenceWork beside raw uv_queue_work.  Run with
//   --benchmark_repetitions=7 --benchmark_enable_random_interleaving=true
// and compare medians.  Time is wall time; CPU time is the whole process's.
#include <benchmark/benchmark.h>
#include <uv.h>

#include <cstdlib>

#include "bench_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/work.h"

using namespace zelsocket;

namespace {

constexpr int kJobsPerIteration = 2000;

// One job in flight: each after-work function queues the next job.
void BM_Work_OneInFlight(benchmark::State& state) {
  Work work(zsbench::SharedLoop());
  for (auto _ : state) {
    Semaphore done;
    int left = kJobsPerIteration;
    std::function<void(int)> after = [&](int) {
      if (--left == 0) done.Post();
      else work.QueueWork([] {}, after);
    };
    work.QueueWork([] {}, after);
    done.Wait();
  }
  state.SetItemsProcessed(state.iterations() * kJobsPerIteration);
}

// Raw baseline, same chain, on a loop run by the benchmark thread.
struct RawChain {
  uv_work_t req;
  int left = kJobsPerIteration;
};

void BM_RawUvQueueWork_OneInFlight(benchmark::State& state) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  for (auto _ : state) {
    RawChain chain;
    chain.req.data = &chain;
    uv_work_cb work = [](uv_work_t*) {};
    static uv_after_work_cb after = [](uv_work_t* req, int) {
      auto* c = static_cast<RawChain*>(req->data);
      if (--c->left > 0) uv_queue_work(req->loop, req, [](uv_work_t*) {}, after);
    };
    uv_queue_work(&loop, &chain.req, work, after);
    uv_run(&loop, UV_RUN_DEFAULT);
  }
  uv_loop_close(&loop);
  state.SetItemsProcessed(state.iterations() * kJobsPerIteration);
}

// All jobs queued at once; a SequenceWork runs them one after another, so the
// time per job is its latency from one job's report to the next job's report.
void BM_SequenceWork_PerJob(benchmark::State& state) {
  SequenceWork seq(zsbench::SharedLoop());
  for (auto _ : state) {
    Semaphore done;
    int left = kJobsPerIteration;
    for (int i = 0; i < kJobsPerIteration; ++i) {
      seq.QueueWork([] {}, [&](int) {
        if (--left == 0) done.Post();
      });
    }
    done.Wait();
  }
  state.SetItemsProcessed(state.iterations() * kJobsPerIteration);
}

}  // namespace

BENCHMARK(BM_Work_OneInFlight)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RawUvQueueWork_OneInFlight)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SequenceWork_PerJob)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

ZSBENCH_MAIN()
