// TCP socket throughput beside raw-libuv clients that speak the same protocol
// to the same loopback peer (round trips: hop_bench.cc).  Run with
//   --benchmark_repetitions=7 --benchmark_enable_random_interleaving=true
// and compare medians.  Time is wall time; CPU time is the whole process's
// (peer thread included, the same for both sides).
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/tcp.h"

using namespace zelsocket;

namespace {

constexpr int kChunk = 64 * 1024;
constexpr int kChunksPerIteration = 256;  // 16 MiB per iteration

// A loopback peer on its own thread that discards everything.
class Peer {
 public:
  Peer() {
    m_listen = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ::bind(m_listen, reinterpret_cast<sockaddr*>(&a), len);
    ::listen(m_listen, 4);
    ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len);
    m_port = ntohs(a.sin_port);
    m_thread = std::thread([this] { Serve(); });
  }
  ~Peer() {
    m_thread.join();
    ::close(m_listen);
  }
  unsigned short Port() const { return m_port; }

 private:
  void Serve() {
    int c = ::accept(m_listen, nullptr, nullptr);
    if (c < 0) return;
    std::vector<char> buf(256 * 1024);
    for (;;) {
      ssize_t r = ::recv(c, buf.data(), buf.size(), 0);
      if (r <= 0) break;
    }
    ::close(c);
  }
  int m_listen;
  unsigned short m_port;
  std::thread m_thread;
};

// ---------------------------------------------------------------------------
// Our socket

class BenchSink : public RefCountBase, public ITcpSink {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnConnect(int status, const IPEndPoint&, void*) override {
    connected.set_value(status);
  }
  void OnSend(int status, IConstBuffer* buffer, void*) override {
    if (onSend) onSend(status, buffer);
  }
  void OnRecv(int status, IMutableBuffer* buffer, void*) override {
    if (onRecv) onRecv(status, buffer);
  }
  std::promise<int> connected;
  std::function<void(int, IConstBuffer*)> onSend;
  std::function<void(int, IMutableBuffer*)> onRecv;
};

struct OurClient {
  explicit OurClient(IOLoop* loop, unsigned short port) {
    sink.Attach(new BenchSink());
    CreateTcp(tcp, loop);
    tcp->SetSink(sink);
    auto f = sink->connected.get_future();
    tcp->Connect(IPEndPoint("127.0.0.1", port), nullptr);
    ok = f.get() == 0;
  }
  ~OurClient() {
    tcp->Close();
    tcp = nullptr;
  }
  RefPtr<BenchSink> sink;
  RefPtr<ITcp> tcp;
  bool ok = false;
};

void BM_Bulk_ITcpSend(benchmark::State& state) {
  Peer peer;
  {
    OurClient client(zsbench::SharedLoop(), peer.Port());
    if (!client.ok) {
      state.SkipWithError("connect failed");
      return;
    }
    RefPtr<IMutableBuffer> chunk;
    CreateBuffer(chunk);
    chunk->Resize(kChunk);
    std::memset(chunk->GetBuf(), 'x', kChunk);
    // A few buffers stay queued so that the one write in flight never waits
    // for the application.
    constexpr int kQueued = 4;
    for (auto _ : state) {
      Semaphore done;
      int sent = kQueued, reported = 0, failed = 0;
      client.sink->onSend = [&](int status, IConstBuffer*) {
        failed += status != 0;
        if (++reported == kChunksPerIteration) done.Post();
        else if (sent < kChunksPerIteration) {
          ++sent;
          client.tcp->Send(chunk, nullptr);
        }
      };
      for (int i = 0; i < kQueued; ++i) client.tcp->Send(chunk, nullptr);
      done.Wait();
      if (failed) state.SkipWithError("writes failed");
    }
    state.SetBytesProcessed(state.iterations() * kChunk * kChunksPerIteration);
  }
}

// ---------------------------------------------------------------------------
// Raw libuv clients, each on a loop of its own run by the benchmark thread.

struct RawClient {
  uv_loop_t loop;
  uv_tcp_t tcp;
  uv_connect_t connect;
  bool ok = false;

  explicit RawClient(unsigned short port) {
    uv_loop_init(&loop);
    uv_tcp_init(&loop, &tcp);
    tcp.data = this;
    sockaddr_in a;
    uv_ip4_addr("127.0.0.1", port, &a);
    connect.data = this;
    uv_tcp_connect(&connect, &tcp, reinterpret_cast<sockaddr*>(&a), [](uv_connect_t* req, int status) {
      static_cast<RawClient*>(req->data)->ok = status == 0;
    });
    uv_run(&loop, UV_RUN_DEFAULT);
  }
  ~RawClient() {
    uv_close(reinterpret_cast<uv_handle_t*>(&tcp), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
  }
};

struct RawBulk {
  RawClient* client;
  std::vector<char> bytes = std::vector<char>(kChunk, 'x');
  std::vector<uv_write_t> reqs = std::vector<uv_write_t>(kChunksPerIteration);
  int started = 0;
  int reported = 0;

  void Write() {
    uv_buf_t buf = uv_buf_init(bytes.data(), kChunk);
    uv_write_t* req = &reqs[static_cast<std::size_t>(started++)];
    req->data = this;
    uv_write(req, reinterpret_cast<uv_stream_t*>(&client->tcp), &buf, 1, [](uv_write_t* r, int) {
      auto* self = static_cast<RawBulk*>(r->data);
      ++self->reported;
      if (self->inFlightOne && self->started < kChunksPerIteration) self->Write();
    });
  }
  bool inFlightOne = true;
};

void RunRawBulk(benchmark::State& state, bool oneInFlight) {
  Peer peer;
  {
    RawClient client(peer.Port());
    if (!client.ok) {
      state.SkipWithError("connect failed");
      return;
    }
    for (auto _ : state) {
      RawBulk bulk{&client};
      bulk.inFlightOne = oneInFlight;
      if (oneInFlight) {
        bulk.Write();
      } else {
        while (bulk.started < kChunksPerIteration) bulk.Write();
      }
      uv_run(&client.loop, UV_RUN_DEFAULT);
      if (bulk.reported != kChunksPerIteration) state.SkipWithError("writes lost");
    }
    state.SetBytesProcessed(state.iterations() * kChunk * kChunksPerIteration);
  }
}

void BM_Bulk_RawUvWrite_OneInFlight(benchmark::State& state) { RunRawBulk(state, true); }
void BM_Bulk_RawUvWrite_ManyInFlight(benchmark::State& state) { RunRawBulk(state, false); }

}  // namespace

// Ours and its baseline registered side by side.
BENCHMARK(BM_Bulk_ITcpSend)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Bulk_RawUvWrite_OneInFlight)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Bulk_RawUvWrite_ManyInFlight)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

ZSBENCH_MAIN()
