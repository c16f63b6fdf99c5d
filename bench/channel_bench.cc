// The channel's costs beside raw libuv:
//  - request/answer/cancel round trips against an echo peer on loopback,
//    through a channel, through a bare IUdp, and through raw libuv (each with
//    a loop thread and the same hop from the calling thread);
//  - memory held per pending packet, beside one uv_timer_t per pending packet;
//  - the CPU cost of a sender pass per due packet with n packets pending,
//    beside re-arming one of n libuv timers (both should grow like log n).
// Run with --benchmark_repetitions and compare medians; the ratios are what
// count, not the absolute times.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "channel/udp_data_sender.h"
#include "zelsocket/channel.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/log.h"
#include "zelsocket/sync.h"
#include "zelsocket/udp.h"

using namespace zelsocket;

namespace {

// Echoes every datagram, on a thread of its own.
class EchoPeer {
 public:
  EchoPeer() {
    m_fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    socklen_t len = sizeof(addr);
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
    m_port = ntohs(addr.sin_port);
    m_thread = std::thread([this] {
      unsigned char buf[2048];
      while (!m_stop) {
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, 20) != 1) continue;
        sockaddr_in from{};
        socklen_t flen = sizeof(from);
        ssize_t n = recvfrom(m_fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &flen);
        if (n > 0) sendto(m_fd, buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&from), flen);
      }
    });
  }
  ~EchoPeer() {
    m_stop = true;
    m_thread.join();
    close(m_fd);
  }
  unsigned short Port() const { return m_port; }

 private:
  int m_fd;
  unsigned short m_port = 0;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

RefPtr<IConstBuffer> Payload() {
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  b->CopyFrom("0123456789abcdef0123456789abcdef", 32);
  return RefPtr<IConstBuffer>(b.Get());
}

// --- Round trips -----------------------------------------------------------

class ChannelClient : public IChannelSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnConnect(int status) override {
    connectStatus = status;
    done.Post();
  }
  void OnSend(unsigned int, IConstBuffer*, const IPEndPoint&) override {}
  void OnRecv(unsigned char*, int, const IPEndPoint&) override {
    channel->CancelSend(cookie.load(), nullptr, nullptr);
    done.Post();
  }
  void OnTimeout(unsigned int, int) override { done.Post(); }
  void OnClose() override {}
  IChannel* channel = nullptr;
  std::atomic<unsigned int> cookie{0};
  int connectStatus = -1;
  Semaphore done;
};

void BM_RoundTrip_Channel(benchmark::State& state) {
  EchoPeer peer;
  IOLoop loop;
  loop.Start();
  RefPtr<IChannel> channel;
  CreateUdpChannel(channel, &loop);
  RefPtr<ChannelClient> client;
  client.Attach(new ChannelClient());
  client->channel = channel;
  channel->SetSink(client);
  channel->Connect("127.0.0.1", peer.Port(), nullptr);
  client->done.Wait();
  if (client->connectStatus != 0) {
    state.SkipWithError("the channel could not connect (no UDP socket in this build?)");
  } else {
    RefPtr<IConstBuffer> payload = Payload();
    RefPtr<IChannelSendOption> option;
    CreateChannelSendOption(option);
    option->SetDefaultForUdp();
    for (auto _ : state) {
      unsigned int cookie = 0;
      // Sent from the loop thread so that the cookie is known before the answer.
      loop.SyncCall([&] {
        channel->Send(payload, option, cookie);
        client->cookie = cookie;
      });
      client->done.Wait();
    }
    state.SetItemsProcessed(state.iterations());
  }
  channel->Close();
  channel = nullptr;
  loop.Stop();
}

class UdpClient : public IUdpSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnSend(int, IConstBuffer*, const IPEndPoint&, void*) override {}
  void OnRecv(int, IMutableBuffer*, const IPEndPoint&, void*) override { done.Post(); }
  Semaphore done;
};

void BM_RoundTrip_BareUdp(benchmark::State& state) {
  EchoPeer peer;
  IOLoop loop;
  loop.Start();
  RefPtr<IUdp> udp;
  RefPtr<UdpClient> client;
  client.Attach(new UdpClient());
  Buffer recv;
  int rc = -1;
  loop.SyncCall([&] {
    if (!CreateUdp(udp, &loop) || !udp) return;
    udp->SetSink(client);
    rc = udp->Open(IPEndPoint("127.0.0.1", 0));
    if (rc == 0) rc = udp->StartRecv(recv, nullptr);
  });
  if (rc != 0) {
    state.SkipWithError("no UDP socket in this build");
  } else {
    RefPtr<IConstBuffer> payload = Payload();
    IPEndPoint dest("127.0.0.1", peer.Port());
    for (auto _ : state) {
      loop.SyncCall([&] { udp->Send(payload, dest, nullptr); });
      client->done.Wait();
    }
    state.SetItemsProcessed(state.iterations());
  }
  loop.SyncCall([&] {
    if (udp) udp->Close();
    udp = nullptr;
  });
  loop.Stop();
}

// Raw libuv: a loop thread of its own, a uv_async_t to carry the request over.
struct RawClient {
  uv_loop_t loop;
  uv_udp_t udp;
  uv_async_t kick;
  uv_async_t stop;
  sockaddr_in dest;
  char recvBuf[2048];
  char payload[32];
  uv_udp_send_t send;
  Semaphore done;
};

void BM_RoundTrip_RawLibuv(benchmark::State& state) {
  EchoPeer peer;
  RawClient c;
  std::memcpy(c.payload, "0123456789abcdef0123456789abcdef", 32);
  uv_loop_init(&c.loop);
  uv_udp_init(&c.loop, &c.udp);
  sockaddr_in local{};
  uv_ip4_addr("127.0.0.1", 0, &local);
  uv_udp_bind(&c.udp, reinterpret_cast<sockaddr*>(&local), 0);
  uv_ip4_addr("127.0.0.1", peer.Port(), &c.dest);
  c.udp.data = &c;
  c.kick.data = &c;
  c.stop.data = &c;
  uv_udp_recv_start(
      &c.udp,
      [](uv_handle_t* h, size_t, uv_buf_t* buf) {
        auto* self = static_cast<RawClient*>(h->data);
        *buf = uv_buf_init(self->recvBuf, sizeof(self->recvBuf));
      },
      [](uv_udp_t* h, ssize_t n, const uv_buf_t*, const sockaddr*, unsigned) {
        if (n > 0) static_cast<RawClient*>(h->data)->done.Post();
      });
  uv_async_init(&c.loop, &c.kick, [](uv_async_t* h) {
    auto* self = static_cast<RawClient*>(h->data);
    uv_buf_t buf = uv_buf_init(self->payload, sizeof(self->payload));
    uv_udp_send(&self->send, &self->udp, &buf, 1, reinterpret_cast<sockaddr*>(&self->dest),
                [](uv_udp_send_t*, int) {});
  });
  uv_async_init(&c.loop, &c.stop, [](uv_async_t* h) {
    auto* self = static_cast<RawClient*>(h->data);
    uv_close(reinterpret_cast<uv_handle_t*>(&self->udp), nullptr);
    uv_close(reinterpret_cast<uv_handle_t*>(&self->kick), nullptr);
    uv_close(reinterpret_cast<uv_handle_t*>(&self->stop), nullptr);
  });
  std::thread thread([&] { uv_run(&c.loop, UV_RUN_DEFAULT); });
  for (auto _ : state) {
    uv_async_send(&c.kick);
    c.done.Wait();
  }
  state.SetItemsProcessed(state.iterations());
  uv_async_send(&c.stop);
  thread.join();
  uv_loop_close(&c.loop);
}

// --- Memory per pending packet ----------------------------------------------

constexpr int kPending = 100000;


// A sender whose loop never runs: its timer and posted pass stay idle, and
// the benchmark thread is the only one touching it.
void BM_PendingMemory_Sender(benchmark::State& state) {
  IOLoop idle;
  RefPtr<IChannelSendOption> option;
  CreateChannelSendOption(option);
  option->SetDefaultForUdp();
  std::vector<RefPtr<IConstBuffer>> buffers;
  buffers.reserve(kPending);
  for (int i = 0; i < kPending; ++i) buffers.push_back(Payload());
  double perPacket = 0;
  for (auto _ : state) {
    std::unique_ptr<UdpDataSender> sender(new UdpDataSender(&idle));
    sender->m_paused = false;
    sender->m_dest = IPEndPoint("127.0.0.1", 9);
    size_t before = zsbench::HeapInUse();
    for (int i = 0; i < kPending; ++i) sender->SendPacket(buffers[i], option, static_cast<unsigned>(i + 1), 0);
    size_t after = zsbench::HeapInUse();
    perPacket = static_cast<double>(after - before) / kPending;
    state.PauseTiming();
    sender.reset();
    state.ResumeTiming();
  }
  state.counters["bytes_per_packet"] = perPacket;
}

// Baseline: one libuv timer per pending packet, which is what the single
// sender timer replaces.
void BM_PendingMemory_RawLibuvTimers(benchmark::State& state) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  double perPacket = 0;
  for (auto _ : state) {
    size_t before = zsbench::HeapInUse();
    std::vector<uv_timer_t*> timers;
    timers.reserve(kPending);
    for (int i = 0; i < kPending; ++i) {
      auto* t = new uv_timer_t;
      uv_timer_init(&loop, t);
      uv_timer_start(t, [](uv_timer_t*) {}, 3000, 0);
      timers.push_back(t);
    }
    size_t after = zsbench::HeapInUse();
    perPacket = static_cast<double>(after - before) / kPending;
    state.PauseTiming();
    for (auto* t : timers) uv_close(reinterpret_cast<uv_handle_t*>(t), [](uv_handle_t* h) {
        delete reinterpret_cast<uv_timer_t*>(h);
      });
    uv_run(&loop, UV_RUN_NOWAIT);
    state.ResumeTiming();
  }
  uv_loop_close(&loop);
  state.counters["bytes_per_packet"] = perPacket;
}

// --- Cost of a pass per due packet -------------------------------------------

std::uint64_t g_fakeTick = 0;
std::uint64_t FakeTick() { return g_fakeTick; }

// n packets whose due times are 1 ms apart; each step moves the clock by 1 ms,
// so each pass serves exactly one due packet and reschedules it n ms later.
void BM_PassPerDuePacket_Sender(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  IOLoop idle;
  RefPtr<IChannelSendOption> option;
  CreateChannelSendOption(option);
  option->SetPacketPerSend(1);
  for (int i = 0; i < 100000; ++i) option->AddSendInterval(n);
  g_fakeTick = 1;
  std::unique_ptr<UdpDataSender> sender(new UdpDataSender(&idle, &FakeTick));
  sender->m_paused = false;
  sender->m_dest = IPEndPoint("127.0.0.1", 9);
  RefPtr<IConstBuffer> payload = Payload();
  for (int i = 0; i < n; ++i) {
    sender->SendPacket(payload, option, static_cast<unsigned>(i + 1), 0);
    ++g_fakeTick;
  }
  for (auto _ : state) {
    ++g_fakeTick;
    sender->RunPassForTesting();
  }
  state.SetItemsProcessed(state.iterations());
}

// Baseline: re-arming one of n libuv timers, libuv's own heap doing the work.
void BM_PassPerDuePacket_RawLibuvTimers(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<uv_timer_t> timers(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    uv_timer_init(&loop, &timers[static_cast<size_t>(i)]);
    uv_timer_start(&timers[static_cast<size_t>(i)], [](uv_timer_t*) {}, static_cast<std::uint64_t>(1000000 + i), 0);
  }
  size_t next = 0;
  for (auto _ : state) {
    uv_timer_t* t = &timers[next];
    uv_timer_stop(t);
    uv_timer_start(t, [](uv_timer_t*) {}, 1000000 + static_cast<std::uint64_t>(n + next), 0);
    next = (next + 1) % static_cast<size_t>(n);
  }
  state.SetItemsProcessed(state.iterations());
  for (auto& t : timers) uv_close(reinterpret_cast<uv_handle_t*>(&t), nullptr);
  uv_run(&loop, UV_RUN_NOWAIT);
  uv_loop_close(&loop);
}

}  // namespace

// Our case and its baseline alternate.
BENCHMARK(BM_RoundTrip_Channel)->UseRealTime();
BENCHMARK(BM_RoundTrip_BareUdp)->UseRealTime();
BENCHMARK(BM_RoundTrip_RawLibuv)->UseRealTime();
BENCHMARK(BM_PendingMemory_Sender)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PendingMemory_RawLibuvTimers)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PassPerDuePacket_Sender)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_PassPerDuePacket_RawLibuvTimers)->Arg(1000)->Arg(10000)->Arg(100000);

ZSBENCH_MAIN()
