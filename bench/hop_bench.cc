// The hop onto the loop thread, path by path, each beside what a careful
// hand-written libuv program does in the same binary:
//   Post     IOLoop::AsyncCall from an application thread vs a mutex queue
//            drained whole per wake-up (and one item per wake-up);
//   UdpSend  IUdp::Send from an application thread vs that queue feeding one
//            uv_udp_send in flight;
//   Ping     TCP ping-pong, one 16-byte message outstanding, the sink sending
//            again from OnRecv, with the system calls of the loop thread per
//            round trip (bench/syscall_count.cc) and its CPU time;
//   Window   a channel with 32 requests outstanding, each answered and
//            cancelled, vs the same traffic on a bare IUdp;
//   Arm      arming 100,000 fresh Timers vs uv_timer_start on 100,000 fresh
//            uv_timer_t, the timers destroyed armed after each round;
//   Rearm    arming the same 100,000 of each round after round, once the last
//            round's armings have fired.
// Arguments of the Post and Ping cases: 0 unpinned, 1 both threads on CPU 0,
// 2 the caller (or the echoing peer) on CPU 0 and the loop on CPU 1.
// Ping, Window, Arm and Rearm play both sides in one benchmark, in turn, and
// report the median ratio of the pairs (ratio_median, ratio_min, ratio_max),
// which a shared machine's drifts disturb far less than two separate rows.  For
// the others run with
//   --benchmark_repetitions=7 --benchmark_enable_random_interleaving=true
// and compare medians.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "loop/io_loop_impl.h"
#include "zelsocket/buffer.h"
#include "zelsocket/channel.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/tcp.h"
#include "zelsocket/timer.h"
#include "zelsocket/udp.h"

extern "C" void zsbench_CountSyscallsOnThisThread(bool on);
extern "C" long zsbench_SyscallCount();

using namespace zelsocket;

namespace {

// ---- helpers ----------------------------------------------------------------

void PinThisThread(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (cpu < 0) {
    for (int i = 0; i < CPU_SETSIZE; ++i) CPU_SET(i, &set);
  } else {
    CPU_SET(cpu, &set);
  }
  pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

// Placement of (caller, loop) for the argument of a Post case.
void Placement(int mode, int& caller, int& loop) {
  caller = loop = -1;
  if (mode == 1) caller = loop = 0;
  if (mode == 2) {
    caller = 0;
    loop = 1;
  }
}

// CPU time of one thread, read from any thread.
double ThreadCpuSeconds(clockid_t clock) {
  timespec ts{};
  clock_gettime(clock, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

clockid_t ThisThreadCpuClock() {
  clockid_t clock = CLOCK_THREAD_CPUTIME_ID;
  pthread_getcpuclockid(pthread_self(), &clock);
  return clock;
}

void Report(benchmark::State& state, long ops, double seconds, double cpu) {
  state.counters["ops_per_s"] = ops / seconds;
  state.counters["cpu_us_per_op"] = ops ? cpu * 1e6 / ops : 0;
  state.SetItemsProcessed(ops);
}

// Ours over raw, one ratio per pair of rounds played in turn; reported as the
// median with the lowest and highest.
class PairedRatios {
 public:
  void Add(double ratio) { m_ratios.push_back(ratio); }
  void Report(benchmark::State& state) {
    if (m_ratios.empty()) return;
    std::sort(m_ratios.begin(), m_ratios.end());
    std::size_t n = m_ratios.size();
    state.counters["ratio_median"] = n % 2 ? m_ratios[n / 2] : (m_ratios[n / 2 - 1] + m_ratios[n / 2]) / 2;
    state.counters["ratio_min"] = m_ratios.front();
    state.counters["ratio_max"] = m_ratios.back();
  }

 private:
  std::vector<double> m_ratios;
};

int UdpSinkSocket(IPEndPoint& address) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), len);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  address = IPEndPoint(reinterpret_cast<sockaddr*>(&a));
  return fd;
}

RefPtr<IMutableBuffer> Bytes(int size, char fill) {
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  std::vector<char> bytes(static_cast<std::size_t>(size), fill);
  b->CopyFrom(bytes.data(), size);
  return b;
}

// ---- Post -------------------------------------------------------------------

constexpr int kPosts = 20000;

enum PostImpl { kOurs, kRawDrain, kRawOne };

void Post(benchmark::State& state, PostImpl impl) {
  int callerCpu, loopCpu;
  Placement(static_cast<int>(state.range(0)), callerCpu, loopCpu);
  std::unique_ptr<IOLoop> loop;
  std::unique_ptr<zsbench::RawLoop> raw;
  Semaphore pinned;
  if (impl == kOurs) {
    loop.reset(new IOLoop());
    loop->Start();
    loop->SyncCall([loopCpu] { PinThisThread(loopCpu); });
  } else {
    raw.reset(new zsbench::RawLoop(impl == kRawDrain ? zsbench::RawLoop::Mode::kDrain
                                                     : zsbench::RawLoop::Mode::kOnePerWakeup));
    raw->Post([&pinned, loopCpu] {
      PinThisThread(loopCpu);
      pinned.Post();
    });
    pinned.Wait();
  }
  PinThisThread(callerCpu);
  std::atomic<int> ran{0};
  Semaphore done;
  auto target = [&ran, &done] {
    if (ran.fetch_add(1, std::memory_order_relaxed) + 1 == kPosts) done.Post();
  };
  double cpu = 0, seconds = 0;
  for (auto _ : state) {
    ran = 0;
    double cpu0 = zsbench::ProcessCpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < kPosts; ++i) {
      if (loop) loop->AsyncCall(target);
      else raw->Post(target);
    }
    done.Wait();
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    cpu += zsbench::ProcessCpuSeconds() - cpu0;
  }
  PinThisThread(-1);
  Report(state, static_cast<long>(state.iterations()) * kPosts, seconds, cpu);
  if (loop) loop->Stop();
}

void BM_Post_Ours(benchmark::State& s) { Post(s, kOurs); }
void BM_Post_RawDrain(benchmark::State& s) { Post(s, kRawDrain); }
void BM_Post_RawOnePerWakeup(benchmark::State& s) { Post(s, kRawOne); }

// ---- UdpSend ----------------------------------------------------------------

constexpr long kDatagrams = 20000;
constexpr long kUdpWindow = 64;  // datagrams handed over and not yet reported
constexpr int kUdpBytes = 64;

class SendCounter : public RefCountBase, public IUdpSink {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnSend(int status, IConstBuffer*, const IPEndPoint&, void*) override {
    if (status != 0) failed.fetch_add(1, std::memory_order_relaxed);
    reported.fetch_add(1, std::memory_order_release);
  }
  void OnRecv(int, IMutableBuffer*, const IPEndPoint&, void*) override {}
  std::atomic<long> reported{0};
  std::atomic<long> failed{0};
};

void BM_UdpSend_Ours(benchmark::State& state) {
  IPEndPoint dest;
  int fd = UdpSinkSocket(dest);
  IOLoop loop;
  loop.Start();
  RefPtr<IUdp> udp;
  CreateUdp(udp, &loop);
  RefPtr<SendCounter> sink;
  sink.Attach(new SendCounter());
  udp->SetSink(sink);
  udp->Open(IPEndPoint(IPAddress::Loopback, 0));
  RefPtr<IMutableBuffer> out = Bytes(kUdpBytes, 'u');
  double cpu = 0, seconds = 0;
  long total = 0;
  for (auto _ : state) {
    long base = sink->reported.load();
    double cpu0 = zsbench::ProcessCpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    for (long sent = 0; sent < kDatagrams; ++sent) {
      while (sent - (sink->reported.load(std::memory_order_acquire) - base) >= kUdpWindow) std::this_thread::yield();
      udp->Send(out, dest, nullptr);
    }
    while (sink->reported.load(std::memory_order_acquire) - base < kDatagrams) std::this_thread::yield();
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    cpu += zsbench::ProcessCpuSeconds() - cpu0;
    total += kDatagrams;
  }
  if (sink->failed.load()) state.SkipWithError("sends failed");
  Report(state, total, seconds, cpu);
  udp->Close();
  udp = nullptr;
  loop.Stop();
  close(fd);
}

// The hand-written equivalent: the application thread queues a datagram for
// the loop (a mutex queue drained whole per wake-up), and the loop keeps one
// uv_udp_send in flight, starting the next from the completion.
struct RawUdpSender {
  uv_udp_t udp;
  uv_udp_send_t req;
  sockaddr_in dest;
  std::deque<RefPtr<IConstBuffer>> queue;
  bool busy = false;
  std::atomic<long> reported{0};

  void Push(const RefPtr<IConstBuffer>& b) {
    queue.push_back(b);
    Next();
  }
  void Next() {
    if (busy || queue.empty()) return;
    RefPtr<IConstBuffer> b = queue.front();
    queue.pop_front();
    uv_buf_t buf = uv_buf_init(const_cast<char*>(reinterpret_cast<const char*>(b->GetBuf())),
                               static_cast<unsigned>(b->GetLength()));
    req.data = this;
    busy = true;
    uv_udp_send(&req, &udp, &buf, 1, reinterpret_cast<const sockaddr*>(&dest), [](uv_udp_send_t* r, int) {
      auto* self = static_cast<RawUdpSender*>(r->data);
      self->busy = false;
      self->reported.fetch_add(1, std::memory_order_release);
      self->Next();
    });
  }
};

void BM_UdpSend_Raw(benchmark::State& state) {
  IPEndPoint dest;
  int fd = UdpSinkSocket(dest);
  zsbench::RawLoop raw(zsbench::RawLoop::Mode::kDrain);
  RawUdpSender sender;
  std::memcpy(&sender.dest, dest.GetSockAddr(), sizeof sender.dest);
  Semaphore ready;
  raw.Post([&] {
    uv_udp_init(raw.Loop(), &sender.udp);
    sockaddr_in local{};
    uv_ip4_addr("127.0.0.1", 0, &local);
    uv_udp_bind(&sender.udp, reinterpret_cast<const sockaddr*>(&local), 0);
    ready.Post();
  });
  ready.Wait();
  RefPtr<IConstBuffer> out(Bytes(kUdpBytes, 'u').Get());
  double cpu = 0, seconds = 0;
  long total = 0;
  for (auto _ : state) {
    long base = sender.reported.load();
    double cpu0 = zsbench::ProcessCpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    for (long sent = 0; sent < kDatagrams; ++sent) {
      while (sent - (sender.reported.load(std::memory_order_acquire) - base) >= kUdpWindow) std::this_thread::yield();
      raw.Post([&sender, out] { sender.Push(out); });
    }
    while (sender.reported.load(std::memory_order_acquire) - base < kDatagrams) std::this_thread::yield();
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    cpu += zsbench::ProcessCpuSeconds() - cpu0;
    total += kDatagrams;
  }
  Report(state, total, seconds, cpu);
  raw.Post([&] {
    uv_close(reinterpret_cast<uv_handle_t*>(&sender.udp), nullptr);
    ready.Post();
  });
  ready.Wait();
  close(fd);
}

// ---- Ping -------------------------------------------------------------------

constexpr int kPingBytes = 16;
constexpr int kRounds = 2000;

// Echoes a TCP stream on its own thread.
class EchoServer {
 public:
  explicit EchoServer(int cpu) {
    m_listen = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(m_listen, reinterpret_cast<sockaddr*>(&a), len);
    listen(m_listen, 4);
    getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len);
    m_port = ntohs(a.sin_port);
    m_thread = std::thread([this, cpu] {
      PinThisThread(cpu);
      int c = accept(m_listen, nullptr, nullptr);
      if (c < 0) return;
      char buf[4096];
      for (;;) {
        ssize_t r = recv(c, buf, sizeof buf, 0);
        if (r <= 0 || send(c, buf, static_cast<size_t>(r), MSG_NOSIGNAL) != r) break;
      }
      close(c);
    });
  }
  ~EchoServer() {
    m_thread.join();
    close(m_listen);
  }
  unsigned short Port() const { return m_port; }

 private:
  int m_listen;
  unsigned short m_port = 0;
  std::thread m_thread;
};

class PingSink : public RefCountBase, public ITcpSink {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnConnect(int status, const IPEndPoint&, void*) override { connected.set_value(status); }
  void OnSend(int, IConstBuffer*, void*) override {}
  void OnRecv(int status, IMutableBuffer* b, void*) override {
    if (status != 0 || b->GetLength() == 0) {
      rounds = -1;
      done.Post();
      return;
    }
    got += b->GetLength();
    if (got < kPingBytes) {
      tcp->Recv(pong, nullptr);
      return;
    }
    got = 0;
    if (++rounds == kRounds) {
      done.Post();
      return;
    }
    tcp->Send(ping, nullptr);
    tcp->Recv(pong, nullptr);
  }
  std::promise<int> connected;
  ITcp* tcp = nullptr;
  RefPtr<IMutableBuffer> ping, pong;
  int rounds = 0, got = 0;
  Semaphore done;
};

// One side of the ping-pong: a connected client that plays `kRounds` round
// trips per Round() and counts the loop thread's system calls and CPU time.
struct PingStats {
  long calls = 0, rounds = 0;
  double seconds = 0, loopCpu = 0;
  void Add(long c, double s, double cpu) {
    calls += c;
    seconds += s;
    loopCpu += cpu;
    rounds += kRounds;
  }
  void Report(benchmark::State& state, const char* side) const {
    std::string p(side);
    state.counters[p + "_rt_per_s"] = rounds / seconds;
    state.counters[p + "_syscalls_per_rt"] = static_cast<double>(calls) / rounds;
    state.counters[p + "_loop_cpu_us_per_rt"] = loopCpu * 1e6 / rounds;
  }
};

class OursPing {
 public:
  OursPing(unsigned short port, int loopCpu) {
    m_loop.Start();
    m_loop.SyncCall([loopCpu] { PinThisThread(loopCpu); });
    CreateTcp(m_tcp, &m_loop);
    m_sink.Attach(new PingSink());
    m_sink->tcp = m_tcp;
    m_sink->ping = Bytes(kPingBytes, 'p');
    CreateBuffer(m_sink->pong);
    m_tcp->SetSink(m_sink);
    auto connected = m_sink->connected.get_future();
    m_tcp->Connect(IPEndPoint("127.0.0.1", port), nullptr);
    ok = connected.get() == 0;
    m_loop.SyncCall([this] {
      zsbench_CountSyscallsOnThisThread(true);
      m_clock = ThisThreadCpuClock();
    });
  }
  ~OursPing() {
    m_loop.SyncCall([] { zsbench_CountSyscallsOnThisThread(false); });
    m_tcp->Close();
    m_tcp = nullptr;
    m_loop.Stop();
  }
  // Seconds of one round; false in `ok` if round trips were lost.
  double Round(PingStats& stats) {
    m_sink->rounds = 0;
    long c0 = zsbench_SyscallCount();
    double cpu0 = ThreadCpuSeconds(m_clock);
    auto t0 = std::chrono::steady_clock::now();
    m_tcp->Send(m_sink->ping, nullptr);
    m_tcp->Recv(m_sink->pong, nullptr);
    m_sink->done.Wait();
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    stats.Add(zsbench_SyscallCount() - c0, s, ThreadCpuSeconds(m_clock) - cpu0);
    ok = ok && m_sink->rounds == kRounds;
    return s;
  }
  bool ok = false;

 private:
  IOLoop m_loop;
  RefPtr<ITcp> m_tcp;
  RefPtr<PingSink> m_sink;
  clockid_t m_clock = CLOCK_THREAD_CPUTIME_ID;
};

struct RawPing {
  uv_loop_t loop;
  uv_tcp_t tcp;
  uv_connect_t connect;
  uv_write_t req;
  char ping[kPingBytes];
  char pong[65536];
  int rounds = 0, got = 0;
  bool ok = false;

  // Runs its loop on the calling thread, which is then the loop thread whose
  // system calls count.
  explicit RawPing(unsigned short port) {
    std::memset(ping, 'p', sizeof ping);
    uv_loop_init(&loop);
    uv_tcp_init(&loop, &tcp);
    tcp.data = this;
    connect.data = this;
    sockaddr_in a;
    uv_ip4_addr("127.0.0.1", port, &a);
    uv_tcp_connect(&connect, &tcp, reinterpret_cast<sockaddr*>(&a),
                   [](uv_connect_t* r, int status) { static_cast<RawPing*>(r->data)->ok = status == 0; });
    uv_run(&loop, UV_RUN_DEFAULT);
  }
  ~RawPing() {
    uv_close(reinterpret_cast<uv_handle_t*>(&tcp), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
  }
  double Round(PingStats& stats) {
    clockid_t clock = ThisThreadCpuClock();
    rounds = 0;
    zsbench_CountSyscallsOnThisThread(true);
    long c0 = zsbench_SyscallCount();
    double cpu0 = ThreadCpuSeconds(clock);
    auto t0 = std::chrono::steady_clock::now();
    uv_read_start(
        reinterpret_cast<uv_stream_t*>(&tcp),
        [](uv_handle_t* h, size_t, uv_buf_t* out) {
          auto* self = static_cast<RawPing*>(h->data);
          *out = uv_buf_init(self->pong, sizeof self->pong);
        },
        &RawPing::OnRead);
    Write();
    uv_run(&loop, UV_RUN_DEFAULT);
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    stats.Add(zsbench_SyscallCount() - c0, s, ThreadCpuSeconds(clock) - cpu0);
    zsbench_CountSyscallsOnThisThread(false);
    ok = ok && rounds == kRounds;
    return s;
  }
  void Write() {
    uv_buf_t buf = uv_buf_init(ping, kPingBytes);
    uv_write(&req, reinterpret_cast<uv_stream_t*>(&tcp), &buf, 1, [](uv_write_t*, int) {});
  }
  static void OnRead(uv_stream_t* s, ssize_t n, const uv_buf_t*) {
    auto* self = static_cast<RawPing*>(s->data);
    if (n < 0) {
      uv_read_stop(s);
      return;
    }
    self->got += static_cast<int>(n);
    if (self->got < kPingBytes) return;
    self->got = 0;
    if (++self->rounds == kRounds) {
      uv_read_stop(s);
      return;
    }
    self->Write();
  }
};

// Both clients, each with its own echo thread, play rounds in turn (the order
// flips every iteration), and each pair of rounds gives one ratio: slow drifts
// of a shared machine then fall on both sides of a ratio alike.
void BM_Ping(benchmark::State& state) {
  int peerCpu, loopCpu;
  Placement(static_cast<int>(state.range(0)), peerCpu, loopCpu);
  EchoServer oursServer(peerCpu), rawServer(peerCpu);
  PinThisThread(loopCpu);
  {
    OursPing ours(oursServer.Port(), loopCpu);
    RawPing raw(rawServer.Port());
    if (!ours.ok || !raw.ok) {
      state.SkipWithError("connect failed");
    } else {
      PingStats oursStats, rawStats;
      PairedRatios ratios;
      bool oursFirst = true;
      for (auto _ : state) {
        oursFirst = !oursFirst;
        double a = oursFirst ? ours.Round(oursStats) : raw.Round(rawStats);
        double b = oursFirst ? raw.Round(rawStats) : ours.Round(oursStats);
        ratios.Add(oursFirst ? b / a : a / b);
      }
      if (!ours.ok || !raw.ok) state.SkipWithError("round trips lost");
      oursStats.Report(state, "ours");
      rawStats.Report(state, "raw");
      ratios.Report(state);
    }
  }
  PinThisThread(-1);
}

// ---- Window -----------------------------------------------------------------

constexpr int kWindow = 32;
constexpr int kRequests = 20000;

// Echoes every datagram, on a thread of its own.
class UdpEcho {
 public:
  UdpEcho() {
    m_fd = UdpSinkSocket(m_address);
    int size = 4 << 20;
    setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    m_thread = std::thread([this] {
      unsigned char buf[2048];
      while (!m_stop.load()) {
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, 20) != 1) continue;
        for (;;) {
          sockaddr_storage from{};
          socklen_t flen = sizeof from;
          ssize_t n = recvfrom(m_fd, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &flen);
          if (n <= 0) break;
          sendto(m_fd, buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&from), flen);
        }
      }
    });
  }
  ~UdpEcho() {
    m_stop = true;
    m_thread.join();
    close(m_fd);
  }
  const IPEndPoint& Address() const { return m_address; }

 private:
  int m_fd;
  IPEndPoint m_address;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

// Request i carries i in its first four bytes; the answer brings it back.
RefPtr<IConstBuffer> Request(std::uint32_t i) {
  char bytes[32] = {};
  std::memcpy(bytes, &i, sizeof i);
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  b->CopyFrom(bytes, sizeof bytes);
  return RefPtr<IConstBuffer>(b.Get());
}

class WindowChannelSink : public IChannelSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnConnect(int status) override { connected.set_value(status); }
  void OnSend(unsigned int, IConstBuffer*, const IPEndPoint&) override {}
  void OnRecv(unsigned char* data, int length, const IPEndPoint&) override {
    if (length < 4) return;
    std::uint32_t i;
    std::memcpy(&i, data, sizeof i);
    // The cookie is stored right after Send returns on the sending thread.
    unsigned int cookie;
    while ((cookie = cookies[i].load(std::memory_order_acquire)) == 0) std::this_thread::yield();
    channel->CancelSend(cookie, nullptr, nullptr);
    answered.fetch_add(1, std::memory_order_release);
  }
  void OnTimeout(unsigned int, int) override { timedOut.fetch_add(1); }
  void OnClose() override {}
  IChannel* channel = nullptr;
  std::promise<int> connected;
  std::unique_ptr<std::atomic<unsigned int>[]> cookies;
  std::atomic<long> answered{0};
  std::atomic<long> timedOut{0};
};

// Keeps kWindow requests outstanding, `send(i)` sending request i, until all
// kRequests are answered; returns the seconds and adds the process's CPU
// seconds to `cpu`.
template <typename Send>
double PlayWindow(const std::atomic<long>& answered, double& cpu, Send send) {
  long base = answered.load();
  double cpu0 = zsbench::ProcessCpuSeconds();
  auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < kRequests; ++i) {
    while (i - (answered.load(std::memory_order_acquire) - base) >= kWindow) std::this_thread::yield();
    send(static_cast<std::size_t>(i));
  }
  while (answered.load(std::memory_order_acquire) - base < kRequests) std::this_thread::yield();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  cpu += zsbench::ProcessCpuSeconds() - cpu0;
  return seconds;
}

// Round() plays one window of requests (PlayWindow).
class WindowChannel {
 public:
  WindowChannel() {
    m_loop.Start();
    CreateUdpChannel(m_channel, &m_loop);
    m_sink.Attach(new WindowChannelSink());
    m_sink->channel = m_channel;
    m_channel->SetSink(m_sink);
    auto connected = m_sink->connected.get_future();
    m_channel->Connect("127.0.0.1", m_echo.Address().GetPort(), nullptr);
    ok = connected.get() == 0;
    CreateChannelSendOption(m_option);
    m_option->SetDefaultForUdp();
    for (int i = 0; i < kRequests; ++i) m_requests.push_back(Request(static_cast<std::uint32_t>(i)));
  }
  ~WindowChannel() {
    m_channel->Close();
    m_channel = nullptr;
    m_loop.Stop();
  }
  double Round(double& cpu) {
    m_sink->cookies.reset(new std::atomic<unsigned int>[kRequests]());
    return PlayWindow(m_sink->answered, cpu, [this](std::size_t i) {
      unsigned int cookie = 0;
      m_channel->Send(m_requests[i], m_option, cookie);
      m_sink->cookies[i].store(cookie, std::memory_order_release);
    });
  }
  bool ok = false;

 private:
  UdpEcho m_echo;
  IOLoop m_loop;
  RefPtr<IChannel> m_channel;
  RefPtr<WindowChannelSink> m_sink;
  RefPtr<IChannelSendOption> m_option;
  std::vector<RefPtr<IConstBuffer>> m_requests;
};

class WindowUdpSink : public IUdpSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnSend(int, IConstBuffer*, const IPEndPoint&, void*) override {}
  void OnRecv(int status, IMutableBuffer* b, const IPEndPoint&, void*) override {
    if (status == 0 && b->GetLength() >= 4) answered.fetch_add(1, std::memory_order_release);
  }
  std::atomic<long> answered{0};
};

class WindowBareUdp {
 public:
  WindowBareUdp() {
    m_loop.Start();
    CreateUdp(m_udp, &m_loop);
    m_sink.Attach(new WindowUdpSink());
    m_udp->SetSink(m_sink);
    ok = m_udp->Open(IPEndPoint(IPAddress::Loopback, 0)) == 0 && m_udp->StartRecv(m_recv, nullptr) == 0;
    for (int i = 0; i < kRequests; ++i) m_requests.push_back(Request(static_cast<std::uint32_t>(i)));
  }
  ~WindowBareUdp() {
    m_udp->Close();
    m_udp = nullptr;
    m_loop.Stop();
  }
  double Round(double& cpu) {
    return PlayWindow(m_sink->answered, cpu,
                      [this](std::size_t i) { m_udp->Send(m_requests[i], m_echo.Address(), nullptr); });
  }
  bool ok = false;

 private:
  UdpEcho m_echo;
  IOLoop m_loop;
  RefPtr<IUdp> m_udp;
  RefPtr<WindowUdpSink> m_sink;
  Buffer m_recv;
  std::vector<RefPtr<IConstBuffer>> m_requests;
};

// The channel against the same traffic on a bare IUdp, in turn.
void BM_Window(benchmark::State& state) {
  WindowChannel channel;
  WindowBareUdp bare;
  if (!channel.ok || !bare.ok) {
    state.SkipWithError("set-up failed");
    return;
  }
  PairedRatios ratios;
  double channelSeconds = 0, bareSeconds = 0, channelCpu = 0, bareCpu = 0;
  long rounds = 0;
  bool channelFirst = true;
  for (auto _ : state) {
    channelFirst = !channelFirst;
    double a = channelFirst ? channel.Round(channelCpu) : bare.Round(bareCpu);
    double b = channelFirst ? bare.Round(bareCpu) : channel.Round(channelCpu);
    double c = channelFirst ? a : b, u = channelFirst ? b : a;
    channelSeconds += c;
    bareSeconds += u;
    ratios.Add(u / c);
    ++rounds;
  }
  long requests = rounds * kRequests;
  state.counters["channel_per_s"] = requests / channelSeconds;
  state.counters["bare_per_s"] = requests / bareSeconds;
  state.counters["cpu_ratio"] = channelCpu / bareCpu;
  ratios.Report(state);
}

// ---- Arm --------------------------------------------------------------------

constexpr int kTimers = 100000;

// 100,000 timers on each side, made before the clock starts: only arming
// counts.  Where the handles live matters as much as what arming does, so each
// row runs in two layouts, the same on both sides:
//   kBlocks  each handle a heap block of its own, as a timer inside an object of
//            its own would be.  A Timer is then two blocks side by side (the
//            handle, and its implementation), a uv_timer_t one.
//   kPacked  the handles side by side in a deque; a Timer's implementations lie
//            side by side elsewhere.
// Made again every round (BM_Arm), the handle blocks come back in order, but
// the implementation of a destroyed Timer lives on with its arming, so the new
// implementations land in fresh memory, none beside its handle (0 of 100,000,
// counted): every arming reaches two places far apart, where a uv_timer_t is
// one block.
enum Layout { kBlocks = 0, kPacked = 1 };

template <typename Handle>
class Handles {
 public:
  explicit Handles(Layout layout) : m_layout(layout) {}
  template <typename... Args>
  Handle& Make(Args&&... args) {
    if (m_layout == kBlocks) {
      m_blocks.emplace_back(new Handle(std::forward<Args>(args)...));
      m_all.push_back(m_blocks.back().get());
    } else {
      m_packed.emplace_back(std::forward<Args>(args)...);
      m_all.push_back(&m_packed.back());
    }
    return *m_all.back();
  }
  const std::vector<Handle*>& All() const { return m_all; }
  void Clear() {
    m_all.clear();
    m_blocks.clear();
    m_packed.clear();
  }

 private:
  Layout m_layout;
  std::vector<Handle*> m_all;
  std::vector<std::unique_ptr<Handle>> m_blocks;
  std::deque<Handle> m_packed;
};

class OursTimers {
 public:
  explicit OursTimers(Layout layout) : m_impl(IOLoopImpl::Of(&m_loop)), m_timers(layout) { m_loop.Start(); }
  ~OursTimers() {
    m_loop.SyncCall([this] { m_timers.Clear(); });
    m_loop.Stop();
  }
  void Make() {
    m_loop.SyncCall([this] {
      for (int i = 0; i < kTimers; ++i) m_timers.Make(&m_loop);
    });
  }
  // Destroyed timers leave their armings in the loop's heap until due.
  void Destroy() {
    m_loop.SyncCall([this] { m_timers.Clear(); });
  }
  // Seconds to arm them all with `delayMs`; `fired` counts the firings.
  double Arm(int delayMs) {
    double elapsed = 0;
    m_loop.SyncCall([&] {
      auto t0 = std::chrono::steady_clock::now();
      for (Timer* t : m_timers.All()) t->SetTimeout(delayMs, 0, [this] { ++m_fired; });
      // Armings on the loop thread get their due times when the running phase
      // of the loop ends; that pass is part of their cost.
      m_impl->Timers().Settle();
      elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    });
    return elapsed;
  }
  long Fired() {
    long n = 0;
    m_loop.SyncCall([&] { n = m_fired; });
    return n;
  }

 private:
  IOLoop m_loop;
  IOLoopImpl* m_impl;
  Handles<Timer> m_timers;
  long m_fired = 0;  // loop thread
};

class RawTimers {
 public:
  explicit RawTimers(Layout layout) : m_raw(zsbench::RawLoop::Mode::kDrain), m_timers(layout) {}
  ~RawTimers() { Destroy(); }
  void Make() {
    Run([this] {
      for (int i = 0; i < kTimers; ++i) {
        uv_timer_t& t = m_timers.Make();
        uv_timer_init(m_raw.Loop(), &t);
        t.data = &m_fired;
      }
    });
  }
  void Destroy() {
    Run([this] {
      for (uv_timer_t* t : m_timers.All()) uv_close(reinterpret_cast<uv_handle_t*>(t), nullptr);
    });
    // The closes finish on the loop's next turn, before the blocks go.
    Run([this] { m_timers.Clear(); });
  }
  double Arm(int delayMs) {
    double elapsed = 0;
    Run([&] {
      auto t0 = std::chrono::steady_clock::now();
      for (uv_timer_t* t : m_timers.All()) {
        uv_timer_start(t, [](uv_timer_t* h) { ++*static_cast<long*>(h->data); }, static_cast<std::uint64_t>(delayMs),
                       0);
      }
      elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    });
    return elapsed;
  }
  long Fired() {
    long n = 0;
    Run([&] { n = m_fired; });
    return n;
  }

 private:
  void Run(const std::function<void()>& fn) {
    m_raw.Post([&] {
      fn();
      m_done.Post();
    });
    m_done.Wait();
  }
  zsbench::RawLoop m_raw;
  Semaphore m_done;
  Handles<uv_timer_t> m_timers;
  long m_fired = 0;  // loop thread
};

void ReportArm(benchmark::State& state, double ours, double raw, long rounds) {
  state.counters["ours_ns_per_arm"] = ours * 1e9 / (rounds * kTimers);
  state.counters["raw_ns_per_arm"] = raw * 1e9 / (rounds * kTimers);
}

// Fresh timers every round, armed for an hour and then destroyed: the library's
// heap keeps each arming until it is due, so it grows by 100,000 a round,
// where libuv's timers leave their heap when closed.
void BM_Arm(benchmark::State& state) {
  OursTimers ours(Layout(state.range(0)));
  RawTimers raw(Layout(state.range(0)));
  PairedRatios ratios;
  double oursSeconds = 0, rawSeconds = 0;
  bool oursFirst = true;
  for (auto _ : state) {
    oursFirst = !oursFirst;
    ours.Make();
    raw.Make();
    double a = oursFirst ? ours.Arm(3600 * 1000) : raw.Arm(3600 * 1000);
    double b = oursFirst ? raw.Arm(3600 * 1000) : ours.Arm(3600 * 1000);
    double o = oursFirst ? a : b, r = oursFirst ? b : a;
    oursSeconds += o;
    rawSeconds += r;
    ratios.Add(r / o);
    state.SetIterationTime(o + r);
    ours.Destroy();
    raw.Destroy();
  }
  ReportArm(state, oursSeconds, rawSeconds, state.iterations());
  ratios.Report(state);
}

// The same timers armed round after round, each round's armings fired before
// the next: neither heap grows, as in a program whose timers come due.
void BM_Rearm(benchmark::State& state) {
  constexpr int kDelayMs = 60;
  OursTimers ours(Layout(state.range(0)));
  RawTimers raw(Layout(state.range(0)));
  ours.Make();
  raw.Make();
  PairedRatios ratios;
  double oursSeconds = 0, rawSeconds = 0;
  long rounds = 0;
  bool oursFirst = true;
  for (auto _ : state) {
    oursFirst = !oursFirst;
    double a = oursFirst ? ours.Arm(kDelayMs) : raw.Arm(kDelayMs);
    double b = oursFirst ? raw.Arm(kDelayMs) : ours.Arm(kDelayMs);
    double o = oursFirst ? a : b, r = oursFirst ? b : a;
    oursSeconds += o;
    rawSeconds += r;
    ratios.Add(r / o);
    state.SetIterationTime(o + r);
    ++rounds;
    // Bounded: a firing lost would show as a count short, not as a hang.
    for (int i = 0; i < 500 && (ours.Fired() < rounds * kTimers || raw.Fired() < rounds * kTimers); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (ours.Fired() != rounds * kTimers || raw.Fired() != rounds * kTimers) state.SkipWithError("firings lost");
  }
  ReportArm(state, oursSeconds, rawSeconds, rounds);
  ratios.Report(state);
}

}  // namespace

BENCHMARK(BM_Post_Ours)->Arg(0)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Post_RawDrain)->Arg(0)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Post_RawOnePerWakeup)->Arg(0)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UdpSend_Ours)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UdpSend_Raw)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Ping)->Arg(0)->Arg(1)->Arg(2)->Iterations(15)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Window)->Iterations(15)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Arm)->Arg(kBlocks)->Arg(kPacked)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Rearm)->Arg(kBlocks)->Arg(kPacked)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

ZSBENCH_MAIN()
