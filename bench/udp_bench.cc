// UDP socket throughput, round trips and memory, each beside a raw-libuv
// baseline in the same binary.  All traffic stays on 127.0.0.1.
//
// Rates count what the receiving side got, not what was sent.  Besides the
// wall-clock rate every case reports cpu_us_per_op: the CPU time of the whole
// process (sender, loop thread and receiver alike) per datagram or round trip.
//
// Run with --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
// and compare medians.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "socket/udp_impl.h"
#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/log.h"
#include "zelsocket/sync.h"
#include "zelsocket/udp.h"

using namespace zelsocket;

namespace {

IPEndPoint LocalOf(int fd) {
  sockaddr_storage name = {};
  socklen_t n = sizeof name;
  getsockname(fd, reinterpret_cast<sockaddr*>(&name), &n);
  return IPEndPoint(reinterpret_cast<sockaddr*>(&name));
}

int BoundSocket() {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  int size = 8 << 20;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  IPEndPoint any(IPAddress::Loopback, 1);
  reinterpret_cast<sockaddr_in*>(any.GetSockAddr())->sin_port = 0;
  bind(fd, any.GetSockAddr(), sizeof(sockaddr_in));
  return fd;
}

// A thread that counts datagrams arriving on a loopback port, and optionally
// echoes each one back to its sender.
class Peer {
 public:
  explicit Peer(bool echo) : m_fd(BoundSocket()), m_echo(echo), m_thread([this] { Run(); }) {}
  ~Peer() {
    m_stop = true;
    m_thread.join();
    close(m_fd);
  }
  IPEndPoint Address() const { return LocalOf(m_fd); }
  long Count() const { return m_count.load(); }
  // Waits until `n` arrived or nothing came for 200 ms; returns the count.
  long WaitFor(long n) {
    long last = -1;
    auto quiet = std::chrono::steady_clock::now();
    for (;;) {
      long c = Count();
      if (c >= n) return c;
      if (c != last) {
        last = c;
        quiet = std::chrono::steady_clock::now();
      } else if (std::chrono::steady_clock::now() - quiet > std::chrono::milliseconds(200)) {
        return c;
      }
      std::this_thread::yield();
    }
  }

 private:
  void Run() {
    char buf[2048];
    while (!m_stop) {
      pollfd p = {m_fd, POLLIN, 0};
      if (poll(&p, 1, 50) != 1) continue;
      for (;;) {
        sockaddr_storage from;
        socklen_t n = sizeof from;
        ssize_t got = recvfrom(m_fd, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &n);
        if (got < 0) break;
        m_count.fetch_add(1, std::memory_order_relaxed);
        if (m_echo) sendto(m_fd, buf, got, 0, reinterpret_cast<sockaddr*>(&from), n);
      }
    }
  }

  int m_fd;
  bool m_echo;
  std::atomic<bool> m_stop{false};
  std::atomic<long> m_count{0};
  std::thread m_thread;
};

RefPtr<IMutableBuffer> Payload(int size) {
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  std::vector<char> bytes(size, 'p');
  b->CopyFrom(bytes.data(), size);
  return b;
}

class CountingSink : public RefCountBase, public IUdpSink {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnSend(int status, IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) override {
    if (status != 0) failed++;
    reported++;
    if (onSend) onSend(buffer, dest);
  }
  void OnRecv(int, IMutableBuffer*, const IPEndPoint&, void*) override {
    if (onRecv) onRecv();
  }
  std::atomic<long> reported{0};
  std::atomic<long> failed{0};
  std::function<void(IConstBuffer*, const IPEndPoint&)> onSend;
  std::function<void()> onRecv;
};

void Report(benchmark::State& state, long done, double seconds, double cpu) {
  state.counters["ops_per_s"] = done / seconds;
  state.counters["cpu_us_per_op"] = done ? cpu * 1e6 / done : 0;
  state.SetItemsProcessed(done);
}

// ---- (a) request/echo round trips ----------------------------------------

constexpr long kRoundTrips = 5000;

void BM_Echo_Raw(benchmark::State& state) {
  Peer echo(true);
  IPEndPoint dest = echo.Address();
  for (auto _ : state) {
    struct Ctx {
      uv_udp_t udp;
      char out[64];
      char in[2048];
      long left;
      const sockaddr* dest;
    } ctx;
    std::memset(ctx.out, 'p', sizeof ctx.out);
    ctx.left = kRoundTrips;
    ctx.dest = dest.GetSockAddr();
    uv_loop_t loop;
    uv_loop_init(&loop);
    uv_udp_init(&loop, &ctx.udp);
    ctx.udp.data = &ctx;
    IPEndPoint any(IPAddress::Loopback, 1);
    reinterpret_cast<sockaddr_in*>(any.GetSockAddr())->sin_port = 0;
    uv_udp_bind(&ctx.udp, any.GetSockAddr(), 0);
    // A request may still wait for its report when the answer arrives, so
    // each send has its own, as the library's records do.
    static auto send = [](Ctx* c) {
      auto* req = static_cast<uv_udp_send_t*>(std::malloc(sizeof(uv_udp_send_t)));
      uv_buf_t b = uv_buf_init(c->out, sizeof c->out);
      uv_udp_send(req, &c->udp, &b, 1, c->dest, [](uv_udp_send_t* r, int) { std::free(r); });
    };
    uv_udp_recv_start(
        &ctx.udp,
        [](uv_handle_t* h, size_t, uv_buf_t* b) { *b = uv_buf_init(static_cast<Ctx*>(h->data)->in, 2048); },
        [](uv_udp_t* h, ssize_t n, const uv_buf_t*, const sockaddr*, unsigned) {
          if (n <= 0) return;
          auto* c = static_cast<Ctx*>(h->data);
          if (--c->left == 0) {
            uv_udp_recv_stop(h);
            return;
          }
          send(c);
        });
    double cpu0 = zsbench::ProcessCpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    send(&ctx);
    uv_run(&loop, UV_RUN_DEFAULT);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double cpu = zsbench::ProcessCpuSeconds() - cpu0;
    uv_close(reinterpret_cast<uv_handle_t*>(&ctx.udp), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
    state.SetIterationTime(seconds);
    Report(state, kRoundTrips - ctx.left, seconds, cpu);
  }
}

void BM_Echo_IUdp(benchmark::State& state) {
  Peer echo(true);
  IPEndPoint dest = echo.Address();
  IOLoop& loop = *zsbench::SharedLoop();
  for (auto _ : state) {
    RefPtr<IUdp> udp;
    CreateUdp(udp, &loop);
    RefPtr<CountingSink> sink;
    sink.Attach(new CountingSink());
    RefPtr<IMutableBuffer> out = Payload(64);
    RefPtr<IMutableBuffer> in = Payload(0);
    long left = kRoundTrips;
    Semaphore done;
    // The next request goes out from the report of the answer, on the loop thread.
    sink->onRecv = [&] {
      if (--left == 0) {
        done.Post();
        return;
      }
      udp->Send(out, dest, nullptr);
    };
    udp->SetSink(sink);
    udp->Open(IPEndPoint(IPAddress::Loopback, 0));
    udp->StartRecv(in, nullptr);
    double cpu0 = zsbench::ProcessCpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    udp->Send(out, dest, nullptr);
    done.Wait();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double cpu = zsbench::ProcessCpuSeconds() - cpu0;
    udp->Close();
    state.SetIterationTime(seconds);
    Report(state, kRoundTrips - left, seconds, cpu);
  }
}

// ---- (b) one-way throughput ----------------------------------------------

constexpr long kDatagrams = 20000;

// One uv_udp_send in flight (the protocol IUdp uses), or up to `window` at once.
void RawOneWay(benchmark::State& state, int size, int window) {
  Peer sinkPeer(false);
  IPEndPoint dest = sinkPeer.Address();
  for (auto _ : state) {
    struct Ctx {
      uv_udp_t udp;
      std::vector<char> bytes;
      long toSend;
      long inFlight;
      const sockaddr* dest;
    } ctx;
    ctx.bytes.assign(size, 'p');
    ctx.toSend = kDatagrams;
    ctx.inFlight = 0;
    ctx.dest = dest.GetSockAddr();
    uv_loop_t loop;
    uv_loop_init(&loop);
    uv_udp_init(&loop, &ctx.udp);
    ctx.udp.data = &ctx;
    std::vector<uv_udp_send_t> reqs(window);
    std::vector<uv_udp_send_t*> idle;
    for (auto& r : reqs) idle.push_back(&r);
    struct Glue {
      static void Pump(Ctx* c, std::vector<uv_udp_send_t*>* idle) {
        while (c->toSend > 0 && !idle->empty()) {
          uv_udp_send_t* r = idle->back();
          idle->pop_back();
          r->data = idle;
          uv_buf_t b = uv_buf_init(c->bytes.data(), c->bytes.size());
          c->toSend--;
          uv_udp_send(r, &c->udp, &b, 1, c->dest, [](uv_udp_send_t* req, int) {
            auto* list = static_cast<std::vector<uv_udp_send_t*>*>(req->data);
            list->push_back(req);
            Pump(static_cast<Ctx*>(req->handle->data), list);
          });
        }
      }
    };
    double cpu0 = zsbench::ProcessCpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    long before = sinkPeer.Count();
    Glue::Pump(&ctx, &idle);
    uv_run(&loop, UV_RUN_DEFAULT);
    long got = sinkPeer.WaitFor(before + kDatagrams) - before;
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double cpu = zsbench::ProcessCpuSeconds() - cpu0;
    uv_close(reinterpret_cast<uv_handle_t*>(&ctx.udp), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
    state.SetIterationTime(seconds);
    Report(state, got, seconds, cpu);
  }
}

// IUdp::Send on the loop thread: each report tops the queue up again.
void IUdpOneWayOnLoop(benchmark::State& state, int size) {
  Peer sinkPeer(false);
  IPEndPoint dest = sinkPeer.Address();
  IOLoop& loop = *zsbench::SharedLoop();
  for (auto _ : state) {
    RefPtr<IUdp> udp;
    CreateUdp(udp, &loop);
    RefPtr<CountingSink> sink;
    sink.Attach(new CountingSink());
    RefPtr<IMutableBuffer> out = Payload(size);
    long toSend = kDatagrams;
    Semaphore done;
    sink->onSend = [&](IConstBuffer*, const IPEndPoint&) {
      if (toSend > 0) {
        toSend--;
        udp->Send(out, dest, nullptr);
      }
      if (sink->reported.load() == kDatagrams) done.Post();
    };
    udp->SetSink(sink);
    udp->Open(IPEndPoint(IPAddress::Loopback, 0));
    double cpu0 = zsbench::ProcessCpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    long before = sinkPeer.Count();
    loop.SyncCall([&] {
      for (int i = 0; i < 8 && toSend > 0; ++i, --toSend) udp->Send(out, dest, nullptr);
    });
    done.Wait();
    long got = sinkPeer.WaitFor(before + kDatagrams) - before;
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double cpu = zsbench::ProcessCpuSeconds() - cpu0;
    udp->Close();
    state.SetIterationTime(seconds);
    Report(state, got, seconds, cpu);
    state.counters["send_failures"] = sink->failed.load();
  }
}

// IUdp::Send from another thread, with a window that keeps the queue below
// its limit, so that nothing is refused.
void IUdpOneWayForeign(benchmark::State& state, int size) {
  Peer sinkPeer(false);
  IPEndPoint dest = sinkPeer.Address();
  IOLoop& loop = *zsbench::SharedLoop();
  const long window = std::max(8, 65536 / size);
  for (auto _ : state) {
    RefPtr<IUdp> udp;
    CreateUdp(udp, &loop);
    RefPtr<CountingSink> sink;
    sink.Attach(new CountingSink());
    RefPtr<IMutableBuffer> out = Payload(size);
    udp->SetSink(sink);
    udp->Open(IPEndPoint(IPAddress::Loopback, 0));
    double cpu0 = zsbench::ProcessCpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    long before = sinkPeer.Count();
    for (long sent = 0; sent < kDatagrams; ++sent) {
      while (sent - sink->reported.load(std::memory_order_relaxed) >= window) std::this_thread::yield();
      udp->Send(out, dest, nullptr);
    }
    while (sink->reported.load() < kDatagrams) std::this_thread::yield();
    long got = sinkPeer.WaitFor(before + kDatagrams) - before;
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double cpu = zsbench::ProcessCpuSeconds() - cpu0;
    udp->Close();
    state.SetIterationTime(seconds);
    Report(state, got, seconds, cpu);
    state.counters["send_failures"] = sink->failed.load();
  }
}

void BM_OneWay_Raw_OneInFlight(benchmark::State& s) { RawOneWay(s, static_cast<int>(s.range(0)), 1); }
void BM_OneWay_Raw_ManyInFlight(benchmark::State& s) { RawOneWay(s, static_cast<int>(s.range(0)), 64); }
void BM_OneWay_IUdp_LoopThread(benchmark::State& s) { IUdpOneWayOnLoop(s, static_cast<int>(s.range(0))); }
void BM_OneWay_IUdp_OtherThread(benchmark::State& s) { IUdpOneWayForeign(s, static_cast<int>(s.range(0))); }

// ---- (c) memory ------------------------------------------------------------

long HeapInUse() { return static_cast<long>(mallinfo2().uordblks); }

void BM_Memory_PerOpenSocket(benchmark::State& state) {
  IOLoop& loop = *zsbench::SharedLoop();
  constexpr int kSockets = 300;
  for (auto _ : state) {
    std::vector<RefPtr<IUdp>> sockets(kSockets);
    long before = HeapInUse();
    for (auto& s : sockets) {
      CreateUdp(s, &loop);
      s->Open(IPEndPoint(IPAddress::Loopback, 0));
    }
    long ours = HeapInUse() - before;
    // Raw: one heap uv_udp_t per socket, opened the same way.
    std::vector<uv_udp_t*> raw(kSockets);
    before = HeapInUse();
    loop.SyncCall([&] {
      for (auto& h : raw) {
        h = static_cast<uv_udp_t*>(std::calloc(1, sizeof(uv_udp_t)));
        uv_udp_init(loop.Loop(), h);
        IPEndPoint any(IPAddress::Loopback, 1);
        reinterpret_cast<sockaddr_in*>(any.GetSockAddr())->sin_port = 0;
        uv_udp_bind(h, any.GetSockAddr(), 0);
      }
    });
    long baseline = HeapInUse() - before;
    state.counters["bytes_per_socket"] = static_cast<double>(ours) / kSockets;
    state.counters["raw_bytes_per_socket"] = static_cast<double>(baseline) / kSockets;
    for (auto& s : sockets) s->Close();
    loop.SyncCall([&] {
      for (auto* h : raw) uv_close(reinterpret_cast<uv_handle_t*>(h), [](uv_handle_t* p) { std::free(p); });
    });
  }
}

void BM_Memory_PerQueuedDatagram(benchmark::State& state) {
  IOLoop& loop = *zsbench::SharedLoop();
  constexpr int kQueued = 1000;
  Peer sinkPeer(false);
  IPEndPoint dest = sinkPeer.Address();
  for (auto _ : state) {
    RefPtr<IUdp> udp;
    CreateUdp(udp, &loop);
    udp->Open(IPEndPoint(IPAddress::Loopback, 0));
    RefPtr<IMutableBuffer> out = Payload(64);  // one buffer shared by all: only the overhead counts
    long ours = 0;
    long baseline = 0;
    loop.SyncCall([&] {
      udp->Send(out, dest, nullptr);  // the one in flight
      long before = HeapInUse();
      for (int i = 0; i < kQueued; ++i) udp->Send(out, dest, nullptr);
      ours = HeapInUse() - before;
      udp->Close();
      // Raw: one request per datagram handed to libuv at once.
      uv_udp_t* h = static_cast<uv_udp_t*>(std::calloc(1, sizeof(uv_udp_t)));
      uv_udp_init(loop.Loop(), h);
      std::vector<uv_udp_send_t*> reqs;
      before = HeapInUse();
      for (int i = 0; i < kQueued; ++i) {
        auto* r = static_cast<uv_udp_send_t*>(std::malloc(sizeof(uv_udp_send_t)));
        uv_buf_t b = uv_buf_init(reinterpret_cast<char*>(out->GetBuf()), out->GetLength());
        uv_udp_send(r, h, &b, 1, dest.GetSockAddr(), [](uv_udp_send_t* req, int) { std::free(req); });
      }
      baseline = HeapInUse() - before;
      uv_close(reinterpret_cast<uv_handle_t*>(h), [](uv_handle_t* p) { std::free(p); });
    });
    state.counters["bytes_per_queued"] = static_cast<double>(ours) / kQueued;
    state.counters["raw_bytes_per_request"] = static_cast<double>(baseline) / kQueued;
  }
}

}  // namespace

BENCHMARK(BM_Echo_Raw)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Echo_IUdp)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_OneWay_Raw_OneInFlight)->Arg(64)->Arg(1200)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_OneWay_IUdp_LoopThread)->Arg(64)->Arg(1200)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_OneWay_Raw_ManyInFlight)->Arg(64)->Arg(1200)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_OneWay_IUdp_OtherThread)->Arg(64)->Arg(1200)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Memory_PerOpenSocket)->Iterations(1);
BENCHMARK(BM_Memory_PerQueuedDatagram)->Iterations(1);

ZSBENCH_MAIN()
