// Soak: pushes many requests through one channel against a lossy responder and
// reports the rate and the memory held over time.  Every request must end
// exactly once (answered and cancelled, or timed out); the program fails if one
// does not, or if the resident set keeps growing after the warm-up.
//
//   channel_soak [--requests N] [--window W] [--loss PERCENT] [--report-every N]
#include <uv.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <unordered_map>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "zelsocket/zelsocket.h"

using namespace zelsocket;
using Clock = std::chrono::steady_clock;

namespace {

long ResidentKiB() {
  size_t rss = 0;
  if (uv_resident_set_memory(&rss) != 0) return 0;
  return static_cast<long>(rss / 1024);
}

void Quiet(LOG_LEVEL, const char*, const char*) {}

// Echoes datagrams on its own loop, dropping a share of the requests at random.
class Responder : public IUdpSink, public RefCountBase {
 public:
  Responder(IOLoop* loop, int lossPercent) : m_loss(lossPercent) {
    CreateUdp(m_udp, loop);
    m_udp->SetSink(this);
    m_udp->Open(IPEndPoint(IPAddress::Loopback, 0));
    m_udp->StartRecv(m_buffer, nullptr);
    IPEndPoint local;
    m_udp->GetLocalAddress(local);
    port = local.GetPort();
  }
  void Close() {
    m_udp->Close();
    m_udp = nullptr;
  }
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnSend(int, IConstBuffer*, const IPEndPoint&, void*) override {}
  void OnRecv(int status, IMutableBuffer* buffer, const IPEndPoint& from, void*) override {
    if (status != 0 || static_cast<int>(m_random() % 100) < m_loss) return;
    RefPtr<IMutableBuffer> answer;
    CreateBuffer(answer);
    answer->CopyFrom(buffer->GetBuf(), buffer->GetLength());
    m_udp->Send(answer, from, nullptr);
  }
  unsigned short port = 0;

 private:
  int m_loss;
  std::mt19937 m_random{7};
  RefPtr<IUdp> m_udp;
  Buffer m_buffer;
};

// Keeps `window` requests in flight; each answer or timeout starts the next.
// Runs on the channel's loop thread only.
class Client : public IChannelSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void OnConnect(int status) override { connectStatus = status; }
  void OnSend(unsigned int, IConstBuffer*, const IPEndPoint&) override { ++transmissions; }
  void OnRecv(unsigned char* data, int length, const IPEndPoint&) override {
    if (length != 8) return;
    std::uint64_t id;
    std::memcpy(&id, data, 8);
    auto it = pendingById.find(id);
    if (it == pendingById.end()) return;  // a late copy of an answer
    int retry = 0, send = 0;
    channel->CancelSend(it->second, &retry, &send);
    if (send < 1) ++errors;
    pendingByCookie.erase(it->second);
    pendingById.erase(it);
    ++answered;
    Next();
  }
  void OnTimeout(unsigned int cookie, int) override {
    auto it = pendingByCookie.find(cookie);
    if (it == pendingByCookie.end()) {  // ended before, or never sent
      ++errors;
      return;
    }
    pendingById.erase(it->second);
    pendingByCookie.erase(it);
    ++timedOut;
    Next();
  }
  void OnClose() override { ++errors; }

  void Next() {
    if (issued >= total) {
      if (answered + timedOut == total) done.Post();
      return;
    }
    std::uint64_t id = issued++;
    RefPtr<IMutableBuffer> payload;
    CreateBuffer(payload);
    payload->CopyFrom(&id, 8);
    unsigned int cookie = 0;
    if (channel->Send(payload, schedule, cookie) != 0) {
      ++errors;
      return;
    }
    pendingById[id] = cookie;
    pendingByCookie[cookie] = id;
  }

  IChannel* channel = nullptr;
  IChannelSendOption* schedule = nullptr;
  std::uint64_t total = 0, issued = 0;
  // Only what is in flight is kept, so the harness itself holds no more memory
  // at the end than after the warm-up.
  std::unordered_map<std::uint64_t, unsigned int> pendingById;
  std::unordered_map<unsigned int, std::uint64_t> pendingByCookie;
  std::atomic<std::uint64_t> answered{0}, timedOut{0}, transmissions{0}, errors{0};
  int connectStatus = -99;
  Semaphore done;
};

}  // namespace

int main(int argc, char** argv) {
  std::uint64_t requests = 1000000, reportEvery = 100000;
  int window = 256, loss = 10;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!std::strcmp(argv[i], "--requests")) requests = std::strtoull(argv[i + 1], nullptr, 10);
    else if (!std::strcmp(argv[i], "--window")) window = std::atoi(argv[i + 1]);
    else if (!std::strcmp(argv[i], "--loss")) loss = std::atoi(argv[i + 1]);
    else if (!std::strcmp(argv[i], "--report-every")) reportEvery = std::strtoull(argv[i + 1], nullptr, 10);
  }
  SetLogCallback(Quiet);

  IOLoop serverLoop, clientLoop;
  serverLoop.Start();
  clientLoop.Start();
  RefPtr<Responder> responder;
  serverLoop.SyncCall([&] { responder.Attach(new Responder(&serverLoop, loss)); });

  RefPtr<IChannel> channel;
  CreateUdpChannel(channel, &clientLoop);
  RefPtr<Client> client;
  client.Attach(new Client());
  ChannelSendOption schedule;
  schedule.SetPacketPerSend(1);
  for (int i = 0; i < 3; ++i) schedule.AddSendInterval(60);
  client->channel = channel;
  client->schedule = schedule;
  client->total = requests;
  channel->SetSink(client);
  channel->Connect("127.0.0.1", responder->port, nullptr);
  int status = -99;
  for (int waited = 0; status == -99 && waited < 5000; ++waited) {
    clientLoop.SyncCall([&] { status = client->connectStatus; });
    if (status == -99) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (status != 0) {
    std::fprintf(stderr, "connect failed: %d\n", status);
    return 1;
  }

  std::printf("soak: %llu requests, window %d, the responder drops %d%% of them\n",
              static_cast<unsigned long long>(requests), window, loss);
  std::printf("%10s %10s %10s %12s %10s\n", "done", "req/s", "rss KiB", "answered", "timed out");
  auto start = Clock::now();
  clientLoop.SyncCall([&] {
    for (int i = 0; i < window; ++i) client->Next();
  });
  long warmRss = 0, lastRss = 0;
  std::uint64_t nextReport = reportEvery;
  auto lastTime = start;
  std::uint64_t lastDone = 0;
  for (;;) {
    std::uint64_t finished = client->answered + client->timedOut;
    if (finished >= nextReport || finished == requests) {
      auto now = Clock::now();
      double rate = (finished - lastDone) / std::chrono::duration<double>(now - lastTime).count();
      lastRss = ResidentKiB();
      if (warmRss == 0) warmRss = lastRss;  // after the first report: warmed up
      std::printf("%10llu %10.0f %10ld %12llu %10llu\n", static_cast<unsigned long long>(finished), rate, lastRss,
                  static_cast<unsigned long long>(client->answered.load()),
                  static_cast<unsigned long long>(client->timedOut.load()));
      std::fflush(stdout);
      lastTime = now;
      lastDone = finished;
      while (nextReport <= finished) nextReport += reportEvery;
      if (finished == requests) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  client->done.Wait();
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();

  clientLoop.SyncCall([&] {
    channel->Close();
    channel = nullptr;
  });
  serverLoop.SyncCall([&] { responder->Close(); });
  clientLoop.Stop();
  serverLoop.Stop();

  const double p = loss / 100.0;
  // The responder drops requests, not answers: a request fails when all three
  // of its transmissions are dropped.
  const double expected = 1 - std::pow(p, 3);
  std::printf("soak: %.0f requests/s overall, %.2f transmissions per request, answered %.4f (predicted %.4f)\n",
              requests / seconds, double(client->transmissions) / requests, double(client->answered) / requests,
              expected);
  std::printf("soak: rss after warm-up %ld KiB, at the end %ld KiB, growth %ld KiB; %llu accounting errors\n",
              warmRss, lastRss, lastRss - warmRss, static_cast<unsigned long long>(client->errors.load()));
  return client->errors == 0 ? 0 : 1;
}
