// Schedules over an emulated lossy link: a responder on loopback (a thread of
// its own, on a plain socket, so that its timing owes nothing to the library)
// delays each answer by D +- J ms and drops each request and each answer with
// probability p.  A channel sends requests at a steady pace; each answer
// cancels its request.  Per link, the learning schedule, the channel's default
// schedule and fixed schedules of k x (D + J) ms run in turn, and the program
// prints per schedule the answer latency (Send to answer) p50 and p99, the
// transmissions per request, the timeouts and the share of retransmissions
// that were spurious: sent after a transmission that made it both ways, before
// its answer arrived.  The responder knows which transmission first made it
// both ways (it decides the drops, and loopback keeps the order).
//
// Also: how late the retransmissions of a 10 ms schedule leave, measured as
// the gaps between their arrivals at a responder that answers nothing.
//
// Not a Google Benchmark program: each figure is a distribution over a fixed
// number of requests that take seconds of wall time, not a time per iteration.
//
//   lossy_link [--requests N] [--spacing MS] [--links a,b,...] [--csv FILE] [--no-lateness]
//   links: lan1 rtt50 rtt200 loss30 shift rtt150
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <queue>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/platform.h"
#include "zelsocket/zelsocket.h"

using namespace zelsocket;

namespace {

std::uint64_t NowUs() { return platform::TickUs(); }

struct Link {
  std::string name;
  double delayMs, jitterMs, loss;  // D, J, p
  int budget;                      // transmissions every schedule gets
  double shiftDelayMs = 0;         // > 0: D from the middle request on
};

// --- The responder ------------------------------------------------------------

class Responder {
 public:
  Responder(const Link& link, int requests, unsigned seed, bool answerNothing = false)
      : m_link(link), m_requests(requests), m_random(seed), m_answerNothing(answerNothing),
        m_arrivals(static_cast<size_t>(requests)), m_firstGood(static_cast<size_t>(requests), -1) {
    m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    int size = 4 << 20;
    setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    socklen_t len = sizeof a;
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    m_thread = std::thread([this] { _Run(); });
  }
  ~Responder() {
    m_stop = true;
    m_thread.join();
    close(m_fd);
  }
  unsigned short port = 0;

  // After the run: arrival times per request, and the index of the first
  // transmission whose request and answer both survived (-1: none).
  std::vector<std::vector<std::uint64_t>> Arrivals() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_arrivals;
  }
  std::vector<int> FirstGood() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_firstGood;
  }

 private:
  struct Answer {
    std::uint64_t due;
    std::uint32_t id;
    sockaddr_in to;
    bool operator>(const Answer& o) const { return due > o.due; }
  };

  void _Run() {
    std::priority_queue<Answer, std::vector<Answer>, std::greater<Answer>> queue;
    std::uniform_real_distribution<double> unit(0, 1);
    while (!m_stop) {
      std::uint64_t now = NowUs();
      std::uint64_t wait = 2000;
      if (!queue.empty()) wait = queue.top().due > now ? std::min<std::uint64_t>(queue.top().due - now, wait) : 0;
      pollfd p{m_fd, POLLIN, 0};
      timespec ts{0, static_cast<long>(wait * 1000)};
      ppoll(&p, 1, &ts, nullptr);
      for (;;) {
        unsigned char data[64];
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(m_fd, data, sizeof data, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 4) break;
        now = NowUs();
        std::uint32_t id = (std::uint32_t{data[0]} << 24) | (data[1] << 16) | (data[2] << 8) | data[3];
        if (id >= static_cast<std::uint32_t>(m_requests)) continue;
        int index;
        {
          std::lock_guard<std::mutex> lock(m_mutex);
          index = static_cast<int>(m_arrivals[id].size());
          m_arrivals[id].push_back(now);
        }
        if (m_answerNothing || unit(m_random) < m_link.loss) continue;  // the request is lost
        double d = m_link.shiftDelayMs > 0 && id >= static_cast<std::uint32_t>(m_requests / 2) ? m_link.shiftDelayMs
                                                                                                : m_link.delayMs;
        double j = m_link.jitterMs * (m_link.shiftDelayMs > 0 && d == m_link.shiftDelayMs ? d / m_link.delayMs : 1);
        double delayMs = d + (2 * unit(m_random) - 1) * j;
        if (unit(m_random) < m_link.loss) continue;  // the answer is lost
        {
          std::lock_guard<std::mutex> lock(m_mutex);
          if (m_firstGood[id] < 0) m_firstGood[id] = index;
        }
        queue.push(Answer{now + static_cast<std::uint64_t>(delayMs * 1000), id, from});
      }
      now = NowUs();
      while (!queue.empty() && queue.top().due <= now) {
        const Answer& a = queue.top();
        unsigned char out[4] = {static_cast<unsigned char>(a.id >> 24), static_cast<unsigned char>(a.id >> 16),
                                static_cast<unsigned char>(a.id >> 8), static_cast<unsigned char>(a.id)};
        sendto(m_fd, out, sizeof out, 0, reinterpret_cast<const sockaddr*>(&a.to), sizeof a.to);
        queue.pop();
      }
    }
  }

  Link m_link;
  int m_requests;
  std::mt19937 m_random;
  bool m_answerNothing;
  int m_fd = -1;
  std::atomic<bool> m_stop{false};
  std::mutex m_mutex;
  std::vector<std::vector<std::uint64_t>> m_arrivals;
  std::vector<int> m_firstGood;
  std::thread m_thread;
};

// --- The client ---------------------------------------------------------------

struct Request {
  std::atomic<std::uint64_t> sentUs{0};  // written before Send, read on the loop thread
  std::uint64_t endUs = 0;
  int send = 0;
  bool done = false;
  bool answered = false;
};

// Cookies of a fresh channel count from 1, so request i is cookie i + 1.
class Client : public IChannelSink, public RefCountBase {
 public:
  explicit Client(int n) : requests(static_cast<size_t>(n)) {}
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnConnect(int status) override { connected = status == 0 ? 1 : -1; }
  void OnSend(unsigned int, IConstBuffer*, const IPEndPoint&) override {}
  void OnRecv(unsigned char* data, int length, const IPEndPoint&) override {
    if (length < 4) return;
    std::uint32_t id = (std::uint32_t{data[0]} << 24) | (data[1] << 16) | (data[2] << 8) | data[3];
    if (id >= requests.size() || requests[id].done) return;
    Request& r = requests[id];
    r.endUs = NowUs();
    int retry = 0;
    channel->CancelSend(id + 1, &retry, &r.send);
    r.done = r.answered = true;
    ++ended;
  }
  void OnTimeout(unsigned int cookie, int send) override {
    Request& r = requests[cookie - 1];
    r.endUs = NowUs();
    r.send = send;
    r.done = true;
    ++ended;
  }
  void OnClose() override {}

  IChannel* channel = nullptr;
  std::vector<Request> requests;
  std::atomic<int> ended{0};
  std::atomic<int> connected{0};
};

struct Result {
  std::string schedule;
  int requests = 0, answered = 0, timeouts = 0;
  double p50 = 0, p99 = 0, txPerRequest = 0;
  long retransmissions = 0, spurious = 0;
  double SpuriousShare() const { return retransmissions ? static_cast<double>(spurious) / retransmissions : 0; }
  ChannelStats stats;
};

double Percentile(std::vector<double> v, double q) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(v.size())));
  return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}

// Summarises requests [from, to) of a run.
Result Summarise(const std::string& schedule, Client& c, const std::vector<int>& firstGood, int from, int to) {
  Result r;
  r.schedule = schedule;
  std::vector<double> latencies;
  long transmissions = 0;
  for (int i = from; i < to; ++i) {
    const Request& q = c.requests[static_cast<size_t>(i)];
    ++r.requests;
    transmissions += q.send;
    r.retransmissions += std::max(0, q.send - 1);
    if (!q.answered) {
      ++r.timeouts;
      continue;
    }
    ++r.answered;
    // A request ends with its answer; what it left after the first good one was spurious.
    if (firstGood[static_cast<size_t>(i)] >= 0) r.spurious += std::max(0, q.send - 1 - firstGood[static_cast<size_t>(i)]);
    latencies.push_back(static_cast<double>(q.endUs - q.sentUs) / 1000);
  }
  r.p50 = Percentile(latencies, 0.50);
  r.p99 = Percentile(latencies, 0.99);
  r.txPerRequest = r.requests ? static_cast<double>(transmissions) / r.requests : 0;
  return r;
}

// A learning schedule needs a few answers first, and the fixed ones are chosen
// with hindsight: the targets judge the requests from the 50th on (on the
// shifting link, from the 50th after the shift on); the whole run is shown too.
struct Run {
  Result all, judged;
  std::vector<double> latencies;
};

// One schedule over one link: `option` null means the channel's default.
Run RunSchedule(IOLoop& loop, const Link& link, const std::string& name, IChannelSendOption* option, int n,
                double spacingMs, unsigned seed, FILE* csv) {
  Responder responder(link, n, seed);
  RefPtr<Client> client;
  client.Attach(new Client(n));
  RefPtr<IChannel> channel;
  CreateUdpChannel(channel, &loop);
  client->channel = channel;
  channel->SetSink(client);
  channel->Connect("127.0.0.1", responder.port, nullptr);
  while (client->connected == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const std::uint64_t start = NowUs();
  for (int i = 0; i < n; ++i) {
    std::uint64_t at = start + static_cast<std::uint64_t>(i * spacingMs * 1000);
    while (NowUs() < at) std::this_thread::sleep_for(std::chrono::microseconds(std::min<std::uint64_t>(at - NowUs(), 2000)));
    RefPtr<IMutableBuffer> buffer;
    CreateBuffer(buffer);
    unsigned char bytes[8] = {static_cast<unsigned char>(i >> 24), static_cast<unsigned char>(i >> 16),
                              static_cast<unsigned char>(i >> 8), static_cast<unsigned char>(i), 'r', 'e', 'q', 0};
    buffer->CopyFrom(bytes, sizeof bytes);
    client->requests[static_cast<size_t>(i)].sentUs = NowUs();
    unsigned cookie = 0;
    channel->Send(buffer, option, cookie);
  }
  while (client->ended < n) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  Run run;
  loop.SyncCall([&] {
    std::vector<int> firstGood = responder.FirstGood();
    run.all = Summarise(name, *client, firstGood, 0, n);
    run.judged = Summarise(name, *client, firstGood, link.shiftDelayMs > 0 ? n / 2 + 50 : 50, n);
    channel->GetStats(run.all.stats);
    for (int i = 0; i < n; ++i) {
      const Request& q = client->requests[static_cast<size_t>(i)];
      double ms = static_cast<double>(q.endUs - q.sentUs) / 1000;
      if (csv) std::fprintf(csv, "%s,%s,%d,%.3f,%s,%d\n", link.name.c_str(), name.c_str(), i, ms,
                            q.answered ? "answered" : "timeout", q.send);
    }
  });
  channel->Close();
  return run;
}

void PrintHeader() {
  std::printf("  %-16s %9s %9s %8s %8s %9s %9s | %11s %8s\n", "schedule", "p50 ms", "p99 ms", "tx/req", "timeouts",
              "spurious", "of retx", "all: p99 ms", "timeouts");
}
void PrintRow(const Run& run, const char* mark) {
  const Result& r = run.judged;
  std::printf("  %-16s %9.2f %9.2f %8.3f %8d %8.1f%% %9ld | %11.2f %8d %s\n", r.schedule.c_str(), r.p50, r.p99,
              r.txPerRequest, r.timeouts, 100 * r.SpuriousShare(), r.retransmissions, run.all.p99, run.all.timeouts,
              mark);
}

void RunLink(IOLoop& loop, const Link& link, int n, double spacingMs, FILE* csv) {
  const double base = (link.shiftDelayMs > 0 ? link.shiftDelayMs * (1 + link.jitterMs / link.delayMs)
                                             : link.delayMs + link.jitterMs);
  std::printf("\nlink %s: D %.1f ms +- %.1f ms%s, loss %.0f%% each way, %d requests %.1f ms apart, "
              "%d transmissions at most\n",
              link.name.c_str(), link.delayMs, link.jitterMs,
              link.shiftDelayMs > 0 ? (" -> " + std::to_string(static_cast<int>(link.shiftDelayMs)) + " ms halfway").c_str()
                                    : "",
              100 * link.loss, n, spacingMs, link.budget);
  const unsigned seed = static_cast<unsigned>(std::hash<std::string>()(link.name));
  std::vector<Run> runs;

  AdaptiveSendConfig config;
  config.sendCount = link.budget;
  RefPtr<IChannelSendOption> adaptive;
  CreateAdaptiveSendOption(config, adaptive);
  runs.push_back(RunSchedule(loop, link, "adaptive", adaptive, n, spacingMs, seed, csv));
  AdaptiveSendStats learned;
  GetAdaptiveSendStats(adaptive, learned);
  runs.push_back(RunSchedule(loop, link, "default", nullptr, n, spacingMs, seed, csv));
  for (double k : {1.0, 1.5, 2.0, 3.0}) {
    int ms = std::max(1, static_cast<int>(std::lround(k * base)));
    RefPtr<IChannelSendOption> fixed;
    CreateChannelSendOption(fixed);
    fixed->SetPacketPerSend(1);
    for (int i = 0; i < link.budget; ++i) fixed->AddSendInterval(ms);
    char name[32];
    std::snprintf(name, sizeof name, "fixed %gx=%dms", k, ms);
    runs.push_back(RunSchedule(loop, link, name, fixed, n, spacingMs, seed, csv));
  }

  const Run* best = nullptr;
  for (size_t i = 2; i < runs.size(); ++i) {
    const Result& r = runs[i].judged;
    if (r.timeouts == 0 && r.SpuriousShare() <= 0.05 && (!best || r.p99 < best->judged.p99)) best = &runs[i];
  }
  std::printf("  judged: requests %d to %d%s\n", link.shiftDelayMs > 0 ? n / 2 + 50 : 50, n - 1,
              link.shiftDelayMs > 0 ? " (fixed schedules sized for the new link)" : "");
  PrintHeader();
  for (const Run& run : runs) PrintRow(run, best == &run ? "<- best fixed" : "");
  const Result& a = runs[0].judged;
  if (best) {
    bool met = a.p99 <= 1.2 * best->judged.p99 && a.SpuriousShare() <= 0.05 && a.timeouts <= best->judged.timeouts;
    std::printf("  adaptive p99 / best fixed p99 = %.2f; target (<= 1.2, <= 5%% spurious, no more timeouts): %s\n",
                a.p99 / best->judged.p99, met ? "met" : "MISSED");
  } else {
    std::printf("  no fixed schedule without timeouts and with at most 5%% spurious retransmissions\n");
  }
  const ChannelStats& s = runs[0].all.stats;
  std::printf("  adaptive at the end: srtt %.2f ms, rttvar %.2f ms, rto %.2f ms (backoff %d, %llu samples); "
              "channel stats p50 %.2f ms, p99 %.2f ms\n",
              learned.srttMs, learned.rttvarMs, learned.rtoMs, learned.backoff, learned.samples, s.latencyP50Ms,
              s.latencyP99Ms);
  std::fflush(stdout);
}

// A 10 ms schedule against a responder that answers nothing: how late each
// retransmission leaves, from the gaps between arrivals.
void RunLateness(IOLoop& loop) {
  const int n = 100, count = 20;
  Link silent{"silent", 0, 0, 0, count};
  Responder responder(silent, n, 1, true);
  RefPtr<Client> client;
  client.Attach(new Client(n));
  RefPtr<IChannel> channel;
  CreateUdpChannel(channel, &loop);
  client->channel = channel;
  channel->SetSink(client);
  channel->Connect("127.0.0.1", responder.port, nullptr);
  while (client->connected == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  RefPtr<IChannelSendOption> option;
  CreateChannelSendOption(option);
  option->SetPacketPerSend(1);
  for (int i = 0; i < count; ++i) option->AddSendInterval(10);
  for (int i = 0; i < n; ++i) {
    RefPtr<IMutableBuffer> buffer;
    CreateBuffer(buffer);
    unsigned char bytes[4] = {0, 0, static_cast<unsigned char>(i >> 8), static_cast<unsigned char>(i)};
    buffer->CopyFrom(bytes, sizeof bytes);
    unsigned cookie = 0;
    channel->Send(buffer, option, cookie);
    std::this_thread::sleep_for(std::chrono::microseconds(23700));  // packets overlap, timers rarely coincide
  }
  while (client->ended < n) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::vector<double> late;
  for (const auto& times : responder.Arrivals())
    for (size_t k = 1; k < times.size(); ++k) late.push_back(static_cast<double>(times[k] - times[k - 1]) / 1000 - 10);
  std::printf("\n10 ms schedule, %zu retransmissions: lateness p50 %.2f ms, p99 %.2f ms, max %.2f ms "
              "(target: p99 within 2 ms: %s)\n",
              late.size(), Percentile(late, 0.5), Percentile(late, 0.99), Percentile(late, 1.0),
              Percentile(late, 0.99) <= 2 ? "met" : "MISSED");
  channel->Close();
}

}  // namespace

int main(int argc, char** argv) {
  int n = 2000;
  double spacingMs = 5;
  std::string only;
  const char* csvPath = nullptr;
  bool lateness = true;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--requests" && i + 1 < argc) n = std::max(100, std::atoi(argv[++i]));
    else if (a == "--spacing" && i + 1 < argc) spacingMs = std::atof(argv[++i]);
    else if (a == "--links" && i + 1 < argc) only = std::string(",") + argv[++i] + ",";
    else if (a == "--csv" && i + 1 < argc) csvPath = argv[++i];
    else if (a == "--no-lateness") lateness = false;
    else return std::fprintf(stderr, "usage: lossy_link [--requests N] [--spacing MS] [--links a,b] [--csv FILE] [--no-lateness]\n"), 1;
  }
  SetLogCallback([](LOG_LEVEL, const char*, const char*) {});
  FILE* csv = csvPath ? std::fopen(csvPath, "w") : nullptr;
  if (csv) std::fprintf(csv, "link,schedule,request,latency_ms,end,transmissions\n");
  IOLoop loop;
  loop.Start();
  const std::vector<Link> links = {
      {"lan1", 1, 0.2, 0.10, 10},   {"rtt50", 50, 10, 0.10, 10}, {"rtt200", 200, 40, 0.10, 10},
      {"loss30", 50, 10, 0.30, 14}, {"shift", 20, 4, 0.10, 10, 150}, {"rtt150", 150, 30, 0.10, 10},
  };
  if (lateness && (only.empty() || only.find(",lateness,") != std::string::npos)) RunLateness(loop);
  for (const Link& link : links) {
    if (!only.empty() && only.find("," + link.name + ",") == std::string::npos) continue;
    RunLink(loop, link, n, spacingMs, csv);
  }
  if (csv) std::fclose(csv);
  loop.Stop();
  return 0;
}
