// udp_request: the road of a request through a channel.
//
// Connects a channel to HOST PORT (by default to a responder that it runs on
// loopback on a loop of its own, which echoes the id of each request and drops
// a share of what it receives, so that retransmission shows), sends N requests
// with a schedule, matches answers to requests by their id bytes, cancels the
// answered cookies, and prints one line per request and a summary.
#include <zelsocket/zelsocket.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace zelsocket;
using Clock = std::chrono::steady_clock;

namespace {

struct Options {
  std::string host;
  unsigned short port = 0;
  int count = 20;
  std::vector<int> schedule;  // empty: the library's default
  bool adaptive = false;
  int dropPercent = 30;
  int idBytes = 4;
  std::vector<unsigned char> payload;
  int gapMs = 0;
  unsigned int seed = 1;
  bool log = false;
};

void Usage(FILE* out) {
  std::fprintf(out,
               "usage: udp_request [options] [HOST PORT]\n"
               "\n"
               "Sends requests through a retransmitting UDP channel and reports what became of each.\n"
               "Without HOST PORT the requests go to a built-in responder on 127.0.0.1, which\n"
               "answers each request with its id bytes and drops a share of what it receives.\n"
               "\n"
               "options:\n"
               "  -n, --count N          number of requests (default 20)\n"
               "  -s, --schedule LIST    waits in ms after each transmission, comma-separated, e.g.\n"
               "                         200,400,800: a request is sent up to 3 times and times out\n"
               "                         800 ms after its last transmission\n"
               "                         (default: the library's UDP default, 3000,5000,7000)\n"
               "      --short            same as --schedule 100,200,400\n"
               "      --adaptive         a schedule that learns the round trip from the answers\n"
               "                         (CreateAdaptiveSendOption with its defaults: 1 s until the\n"
               "                         first answer, up to 10 transmissions within 15 s)\n"
               "  -d, --drop PERCENT     share of received requests the built-in responder drops\n"
               "                         (default 30; ignored with HOST PORT)\n"
               "  -x, --payload-hex HEX  request bytes, as hex (e.g. a DNS query); the first id bytes\n"
               "                         of each request are overwritten with its number\n"
               "                         (default: the id followed by \"hello\")\n"
               "  -i, --id-bytes K       number of leading bytes that carry the request id, big-endian,\n"
               "                         1 to 4 (default 4; use 2 for DNS); answers are matched on them\n"
               "  -g, --gap MS           pause between two requests (default 0)\n"
               "      --seed N           seed of the responder's drops (default 1)\n"
               "  -v, --log              print the library's log lines\n"
               "  -h, --help             this text\n");
}

bool ParseHex(const char* text, std::vector<unsigned char>& out) {
  std::string digits;
  for (const char* p = text; *p; ++p) {
    if (std::isxdigit(static_cast<unsigned char>(*p))) digits += *p;
    else if (*p != ' ' && *p != ':') return false;
  }
  if (digits.empty() || digits.size() % 2) return false;
  out.clear();
  for (size_t i = 0; i < digits.size(); i += 2) {
    out.push_back(static_cast<unsigned char>(std::strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
  }
  return true;
}

bool ParseSchedule(const char* text, std::vector<int>& out) {
  out.clear();
  std::string s(text);
  size_t start = 0;
  while (start <= s.size()) {
    size_t comma = s.find(',', start);
    std::string part = s.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    char* end = nullptr;
    long v = std::strtol(part.c_str(), &end, 10);
    if (part.empty() || *end || v < 0 || v > 3600000) return false;
    out.push_back(static_cast<int>(v));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return !out.empty();
}

// Returns 0 to run, 1 for an error, 2 after --help.
int ParseArgs(int argc, char** argv, Options& o) {
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](const char* name) -> const char* {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "udp_request: %s needs a value\n", name);
        return nullptr;
      }
      return argv[++i];
    };
    const char* v = nullptr;
    if (a == "-h" || a == "--help") {
      Usage(stdout);
      return 2;
    } else if (a == "-n" || a == "--count") {
      if (!(v = value("--count"))) return 1;
      o.count = std::atoi(v);
      if (o.count < 1) return std::fprintf(stderr, "udp_request: bad count\n"), 1;
    } else if (a == "-s" || a == "--schedule") {
      if (!(v = value("--schedule"))) return 1;
      if (!ParseSchedule(v, o.schedule)) return std::fprintf(stderr, "udp_request: bad schedule\n"), 1;
    } else if (a == "--short") {
      o.schedule = {100, 200, 400};
    } else if (a == "--adaptive") {
      o.adaptive = true;
    } else if (a == "-d" || a == "--drop") {
      if (!(v = value("--drop"))) return 1;
      o.dropPercent = std::atoi(v);
      if (o.dropPercent < 0 || o.dropPercent > 100) return std::fprintf(stderr, "udp_request: bad drop\n"), 1;
    } else if (a == "-x" || a == "--payload-hex") {
      if (!(v = value("--payload-hex"))) return 1;
      if (!ParseHex(v, o.payload)) return std::fprintf(stderr, "udp_request: bad hex payload\n"), 1;
    } else if (a == "-i" || a == "--id-bytes") {
      if (!(v = value("--id-bytes"))) return 1;
      o.idBytes = std::atoi(v);
      if (o.idBytes < 1 || o.idBytes > 4) return std::fprintf(stderr, "udp_request: id bytes must be 1 to 4\n"), 1;
    } else if (a == "-g" || a == "--gap") {
      if (!(v = value("--gap"))) return 1;
      o.gapMs = std::max(0, std::atoi(v));
    } else if (a == "--seed") {
      if (!(v = value("--seed"))) return 1;
      o.seed = static_cast<unsigned int>(std::strtoul(v, nullptr, 10));
    } else if (a == "-v" || a == "--log") {
      o.log = true;
    } else if (!a.empty() && a[0] == '-') {
      std::fprintf(stderr, "udp_request: unknown option %s (see --help)\n", a.c_str());
      return 1;
    } else {
      positional.push_back(a);
    }
  }
  if (positional.size() == 2) {
    o.host = positional[0];
    long port = std::strtol(positional[1].c_str(), nullptr, 10);
    if (port < 1 || port > 65535) return std::fprintf(stderr, "udp_request: bad port\n"), 1;
    o.port = static_cast<unsigned short>(port);
  } else if (!positional.empty()) {
    std::fprintf(stderr, "udp_request: give both HOST and PORT, or neither (see --help)\n");
    return 1;
  }
  if (o.idBytes < 4 && o.count > (1 << (8 * o.idBytes))) {
    std::fprintf(stderr, "udp_request: %d id bytes cannot tell %d requests apart\n", o.idBytes, o.count);
    return 1;
  }
  if (!o.payload.empty() && static_cast<int>(o.payload.size()) < o.idBytes) {
    std::fprintf(stderr, "udp_request: the payload is shorter than the id\n");
    return 1;
  }
  return 0;
}

std::uint32_t ReadId(const unsigned char* data, int idBytes) {
  std::uint32_t id = 0;
  for (int i = 0; i < idBytes; ++i) id = (id << 8) | data[i];
  return id;
}

// The built-in peer: answers each request with its id bytes, unless it drops it.
class Responder : public IUdpSink, public RefCountBase {
 public:
  Responder(int dropPercent, int idBytes, unsigned int seed)
      : m_dropPercent(dropPercent), m_idBytes(idBytes), m_random(seed) {}
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  // Opens on 127.0.0.1 with a port of the system's choice; 0 when it failed.
  unsigned short Start(IOLoop* loop) {
    if (!CreateUdp(m_udp, loop) || !m_udp) return 0;
    m_udp->SetSink(this);
    if (m_udp->Open(IPEndPoint("127.0.0.1", 0)) != 0) return 0;
    IPEndPoint local;
    if (m_udp->GetLocalAddress(local) != 0) return 0;
    if (m_udp->StartRecv(m_buffer, nullptr) != 0) return 0;
    return local.GetPort();
  }
  void Stop() {
    if (!m_udp) return;
    m_udp->SetSink(nullptr);
    m_udp->Close();
    m_udp = nullptr;
  }

  void OnSend(int, IConstBuffer*, const IPEndPoint&, void*) override {}
  void OnRecv(int status, IMutableBuffer* buffer, const IPEndPoint& from, void*) override {
    if (status != 0 || buffer->GetLength() < m_idBytes) return;
    ++m_received;
    if (static_cast<int>(m_random() % 100) < m_dropPercent) {
      ++m_dropped;
      return;
    }
    RefPtr<IMutableBuffer> answer;
    CreateBuffer(answer);
    answer->CopyFrom(buffer->GetBuf(), m_idBytes);
    answer->Append("ok", 2);
    m_udp->Send(answer, from, nullptr);
  }
  int Received() const { return m_received; }
  int Dropped() const { return m_dropped; }

 private:
  int m_dropPercent;
  int m_idBytes;
  std::mt19937 m_random;
  RefPtr<IUdp> m_udp;
  Buffer m_buffer;
  int m_received = 0;
  int m_dropped = 0;
};

struct Request {
  unsigned int cookie = 0;
  Clock::time_point sentAt;
  enum { kPending, kAnswered, kTimedOut } state = kPending;
  int transmissions = 0;  // OnSend reports
  double rttMs = 0;
};

// The application's side of the channel: matches answers by id and cancels.
class Client : public IChannelSink, public RefCountBase {
 public:
  Client(IChannel* channel, int count, int idBytes) : m_channel(channel), m_requests(count), m_idBytes(idBytes) {}
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void OnConnect(int status) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_connectStatus = status;
    m_connected = true;
    m_changed.notify_all();
  }
  void OnSend(unsigned int cookie, IConstBuffer*, const IPEndPoint&) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_byCookie.find(cookie);
    if (it != m_byCookie.end()) ++m_requests[it->second].transmissions;
  }
  void OnRecv(unsigned char* data, int length, const IPEndPoint&) override {
    if (length < m_idBytes) return;
    std::uint32_t id = ReadId(data, m_idBytes);
    unsigned int cookie = 0;
    {
      // Send records the cookie under this lock, so an answer that overtakes
      // the Send call still finds its request.
      std::lock_guard<std::mutex> lock(m_mutex);
      if (id >= m_requests.size() || m_requests[id].state != Request::kPending || !m_requests[id].cookie) return;
      cookie = m_requests[id].cookie;
      Request& r = m_requests[id];
      r.state = Request::kAnswered;
      r.rttMs = std::chrono::duration<double, std::milli>(Clock::now() - r.sentAt).count();
      ++m_ended;
      m_changed.notify_all();
    }
    m_channel->CancelSend(cookie, nullptr, nullptr);
  }
  void OnTimeout(unsigned int cookie, int send) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_byCookie.find(cookie);
    if (it == m_byCookie.end()) return;
    Request& r = m_requests[it->second];
    if (r.state != Request::kPending) return;
    r.state = Request::kTimedOut;
    r.transmissions = std::max(r.transmissions, send);
    ++m_ended;
    m_changed.notify_all();
  }
  void OnClose() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closed = true;
    m_changed.notify_all();
  }

  int WaitConnect() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [&] { return m_connected; });
    return m_connectStatus;
  }
  int Send(size_t index, IConstBuffer* buffer, IChannelSendOption* option) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Request& r = m_requests[index];
    r.sentAt = Clock::now();
    unsigned int cookie = 0;
    int rc = m_channel->Send(buffer, option, cookie);
    if (rc != 0) {
      r.state = Request::kTimedOut;
      ++m_ended;
      return rc;
    }
    r.cookie = cookie;
    m_byCookie[cookie] = index;
    return 0;
  }
  // Waits until every request has ended (the schedule bounds this), or the
  // channel closed itself.
  void WaitAll() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [&] { return m_ended == m_requests.size() || m_closed; });
  }
  std::vector<Request> Requests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
  }
  bool Closed() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_closed;
  }

 private:
  IChannel* m_channel;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Request> m_requests;
  std::map<unsigned int, size_t> m_byCookie;
  size_t m_ended = 0;
  int m_idBytes;
  bool m_connected = false;
  bool m_closed = false;
  int m_connectStatus = 0;
};

bool g_log = false;
void PrintLog(LOG_LEVEL level, const char* tag, const char* message) {
  if (!g_log) return;
  static const char* const kLevels[] = {"", "ERROR", "INFO", "DEBUG"};
  std::fprintf(stderr, "  [%-5s %-11s] %s\n", kLevels[level], tag, message);
}

double Percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  size_t rank = static_cast<size_t>(p * static_cast<double>(values.size()) + 0.999999);
  return values[std::min(values.size(), std::max<size_t>(rank, 1)) - 1];
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  int parsed = ParseArgs(argc, argv, o);
  if (parsed) return parsed == 2 ? 0 : 1;
  g_log = o.log;
  SetLogCallback(PrintLog);

  IOLoop serverLoop;
  RefPtr<Responder> responder;
  if (o.host.empty()) {
    if (serverLoop.Start() != 0) return std::fprintf(stderr, "udp_request: cannot start a loop\n"), 1;
    responder.Attach(new Responder(o.dropPercent, o.idBytes, o.seed));
    unsigned short port = 0;
    serverLoop.SyncCall([&] { port = responder->Start(&serverLoop); });
    if (port == 0) {
      std::fprintf(stderr, "udp_request: the built-in responder could not open a socket\n");
      serverLoop.SyncCall([&] { responder->Stop(); });
      serverLoop.Stop();
      return 1;
    }
    o.host = "127.0.0.1";
    o.port = port;
    std::printf("built-in responder on 127.0.0.1:%u, dropping %d%% of requests\n", port, o.dropPercent);
  }

  IOLoop clientLoop;
  if (clientLoop.Start() != 0) return std::fprintf(stderr, "udp_request: cannot start a loop\n"), 1;
  RefPtr<IChannel> channel;
  CreateUdpChannel(channel, &clientLoop);
  RefPtr<Client> client;
  client.Attach(new Client(channel, o.count, o.idBytes));
  channel->SetSink(client);

  RefPtr<IChannelSendOption> schedule;  // null: the channel's default
  std::string scheduleText = "3000,5000,7000 ms (default)";
  if (o.adaptive) {
    CreateAdaptiveSendOption(schedule);
    scheduleText = "adaptive";
  } else if (!o.schedule.empty()) {
    CreateChannelSendOption(schedule);
    schedule->SetPacketPerSend(1);
    scheduleText.clear();
    for (int ms : o.schedule) {
      schedule->AddSendInterval(ms);
      scheduleText += (scheduleText.empty() ? "" : ",") + std::to_string(ms);
    }
    scheduleText += " ms";
  }

  int rc = channel->Connect(o.host.c_str(), o.port, nullptr);
  int status = rc == 0 ? client->WaitConnect() : rc;
  if (status != 0) {
    std::fprintf(stderr, "udp_request: connect to %s:%u failed: %d\n", o.host.c_str(), o.port, status);
    channel->Close();
    channel = nullptr;
    clientLoop.Stop();
    if (responder) {
      serverLoop.SyncCall([&] { responder->Stop(); });
      serverLoop.Stop();
    }
    return 1;
  }
  IPEndPoint dest;
  channel->GetDestAddr(dest);
  std::printf("channel to %s:%u (%s), %d requests, schedule %s\n", o.host.c_str(), o.port,
              dest.GetAddress().GetString().c_str(), o.count, scheduleText.c_str());

  std::vector<unsigned char> base = o.payload;
  if (base.empty()) {
    base.assign(static_cast<size_t>(o.idBytes), 0);
    base.insert(base.end(), {'h', 'e', 'l', 'l', 'o'});
  }
  for (int i = 0; i < o.count; ++i) {
    std::vector<unsigned char> bytes = base;
    for (int b = 0; b < o.idBytes; ++b) {
      bytes[static_cast<size_t>(b)] = static_cast<unsigned char>(static_cast<std::uint32_t>(i) >> (8 * (o.idBytes - 1 - b)));
    }
    RefPtr<IMutableBuffer> buffer;
    CreateBuffer(buffer);
    buffer->CopyFrom(bytes.data(), static_cast<int>(bytes.size()));
    if (client->Send(static_cast<size_t>(i), buffer, schedule) != 0) {
      std::fprintf(stderr, "udp_request: request %d refused\n", i);
    }
    if (o.gapMs > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(o.gapMs));
    }
  }
  client->WaitAll();

  std::vector<Request> requests = client->Requests();
  int answered = 0, timedOut = 0, transmissions = 0;
  std::vector<double> rtts;
  for (size_t i = 0; i < requests.size(); ++i) {
    const Request& r = requests[i];
    transmissions += r.transmissions;
    if (r.state == Request::kAnswered) {
      ++answered;
      rtts.push_back(r.rttMs);
      std::printf("request %3zu  cookie %3u  answered   transmissions %d  rtt %8.1f ms\n", i, r.cookie,
                  r.transmissions, r.rttMs);
    } else if (r.state == Request::kTimedOut) {
      ++timedOut;
      std::printf("request %3zu  cookie %3u  timed out  transmissions %d\n", i, r.cookie, r.transmissions);
    } else {
      std::printf("request %3zu  cookie %3u  unfinished (the channel closed)\n", i, r.cookie);
    }
  }
  std::printf("\nanswered %d, timed out %d, transmissions per request %.2f, rtt p50 %.1f ms, p99 %.1f ms\n",
              answered, timedOut, requests.empty() ? 0.0 : static_cast<double>(transmissions) / requests.size(),
              Percentile(rtts, 0.50), Percentile(rtts, 0.99));
  if (client->Closed()) std::printf("the channel's socket failed and was closed\n");
  ChannelStats stats;
  if (channel->GetStats(stats) == 0) {
    std::printf("channel: accepted %llu, transmissions %llu (retransmissions %llu), cancelled %llu, timed out %llu, "
                "answer latency p50 %.1f ms, p99 %.1f ms\n",
                stats.accepted, stats.transmissions, stats.retransmissions, stats.cancelled, stats.timedOut,
                stats.latencyP50Ms, stats.latencyP99Ms);
    if (stats.adaptive) {
      std::printf("adaptive schedule: srtt %.3f ms, rttvar %.3f ms, rto %.3f ms\n", stats.srttMs, stats.rttvarMs,
                  stats.rtoMs);
    }
  }

  channel->Close();
  channel = nullptr;
  clientLoop.Stop();
  if (responder) {
    int received = 0, dropped = 0;
    serverLoop.SyncCall([&] {
      received = responder->Received();
      dropped = responder->Dropped();
      responder->Stop();
    });
    serverLoop.Stop();
    std::printf("responder: %d requests received, %d dropped\n", received, dropped);
  }
  return 0;
}
