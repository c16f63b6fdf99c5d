// Requests over a real lossy path: a network namespace of the test's own, an
// nftables rule that drops a share of the datagrams to and from the responder
// at random, and a relay of ours that delays each datagram by a random amount
// (so answers also come back out of order).  The share of answered requests
// must match what the schedule predicts, and every packet must end once.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/netns.h"
#include "support/test_support.h"
#include "support/udp_echo_peer.h"
#include "zelsocket/buffer.h"
#include "zelsocket/channel.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/log.h"
#include "zelsocket/sync.h"

namespace zelsocket {
namespace {

using Clock = std::chrono::steady_clock;

int BoundUdpSocket(unsigned short* port) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  *port = ntohs(addr.sin_port);
  return fd;
}

sockaddr_in Loopback(unsigned short port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  return addr;
}

// Forwards datagrams between one client and the responder, each after a random
// delay of up to `maxDelayMs`, which reorders them.
class Relay {
 public:
  Relay(unsigned short serverPort, int maxDelayMs)
      : m_front(BoundUdpSocket(&port)), m_back(BoundUdpSocket(&m_backPort)), m_server(Loopback(serverPort)),
        m_maxDelay(maxDelayMs), m_thread([this] { Run(); }) {}
  ~Relay() {
    m_stop = true;
    m_thread.join();
    close(m_front);
    close(m_back);
  }
  unsigned short port = 0;

 private:
  struct Pending {
    bool toServer;
    std::string data;
  };

  void Run() {
    std::mt19937 random(12345);
    std::uniform_int_distribution<int> delay(0, m_maxDelay);
    std::multimap<Clock::time_point, Pending> pending;
    sockaddr_in client{};
    bool haveClient = false;
    char data[2048];
    while (!m_stop) {
      int waitMs = 20;
      if (!pending.empty()) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(pending.begin()->first - Clock::now());
        waitMs = static_cast<int>(std::max<long>(0, std::min<long>(20, left.count())));
      }
      pollfd p[2] = {{m_front, POLLIN, 0}, {m_back, POLLIN, 0}};
      poll(p, 2, waitMs);
      for (int i = 0; i < 2; ++i) {
        if (!(p[i].revents & POLLIN)) continue;
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(p[i].fd, data, sizeof data, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 0) continue;
        if (i == 0) {
          client = from;
          haveClient = true;
        }
        pending.emplace(Clock::now() + std::chrono::milliseconds(delay(random)),
                        Pending{i == 0, std::string(data, static_cast<size_t>(n))});
      }
      auto now = Clock::now();
      while (!pending.empty() && pending.begin()->first <= now) {
        const Pending& item = pending.begin()->second;
        if (item.toServer) {
          sendto(m_back, item.data.data(), item.data.size(), 0, reinterpret_cast<const sockaddr*>(&m_server),
                 sizeof m_server);
        } else if (haveClient) {
          sendto(m_front, item.data.data(), item.data.size(), 0, reinterpret_cast<const sockaddr*>(&client),
                 sizeof client);
        }
        pending.erase(pending.begin());
      }
    }
  }

  int m_front;
  unsigned short m_backPort = 0;
  int m_back;
  sockaddr_in m_server;
  int m_maxDelay;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

// How each packet ended, checked as events come (all on the loop thread).
class Ledger : public IChannelSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  struct Entry {
    enum State { kPending, kAnswered, kTimedOut } state = kPending;
    int sendsAtEnd = 0;
    int onSends = 0;
  };

  void OnConnect(int status) override {
    connectStatus = status;
    connected.Post();
  }
  void OnSend(unsigned int cookie, IConstBuffer*, const IPEndPoint&) override {
    Entry& e = entries[cookie];
    ++e.onSends;
    // After its end a packet may still report transmissions that were already
    // in the socket, never more than the sender counted.
    if (e.state != Entry::kPending && e.onSends > e.sendsAtEnd) Violation("OnSend after end", cookie);
  }
  void OnRecv(unsigned char* data, int length, const IPEndPoint&) override {
    if (length != 4) return Violation("bad answer length", 0);
    std::uint32_t id;
    std::memcpy(&id, data, 4);
    if (id >= cookies.size()) return Violation("unknown id", id);
    unsigned int cookie = cookies[id];
    Entry& e = entries[cookie];
    if (e.state != Entry::kPending) return;  // a late copy of an answer
    int retry = -1, send = -1;
    channel->CancelSend(cookie, &retry, &send);
    if (send < 1) Violation("cancel found no transmission", cookie);
    e.state = Entry::kAnswered;
    e.sendsAtEnd = send;
    sendsOfAnswered += send;
    ++answered;
    Ended();
  }
  void OnTimeout(unsigned int cookie, int send) override {
    Entry& e = entries[cookie];
    if (e.state != Entry::kPending) return Violation("OnTimeout after end", cookie);
    if (send != 3) Violation("timed out with a send count other than 3", cookie);
    e.state = Entry::kTimedOut;
    e.sendsAtEnd = send;
    ++timedOut;
    Ended();
  }
  void OnClose() override { Violation("OnClose", 0); }

  void Violation(const char* what, unsigned int cookie) {
    ++violations;
    if (firstViolation.empty()) firstViolation = std::string(what) + " cookie=" + std::to_string(cookie);
  }
  void Ended() {
    if (answered + timedOut == static_cast<int>(cookies.size())) allEnded.Post();
  }

  IChannel* channel = nullptr;
  std::vector<unsigned int> cookies;
  std::map<unsigned int, Entry> entries;
  int connectStatus = -99;
  int answered = 0, timedOut = 0, violations = 0;
  long sendsOfAnswered = 0;
  std::string firstViolation;
  Semaphore connected, allEnded;
};

constexpr int kRequests = 400;
constexpr int kTransmissions = 3;

// The body that runs inside the namespace.  Prints "answered=.. timedout=.."
// into `report`; returns 0 when it ran to the end.
void Quiet(LOG_LEVEL, const char*, const char*) {}

int LossyRun(int lossPercent, std::string& report) {
  SetLogCallback(Quiet);  // one line per packet would bury the result
  zstest::UdpEchoPeer responder;
  std::ostringstream rules;
  rules << "table inet zslossy {\n chain input {\n  type filter hook input priority 0; policy accept;\n"
        << "  udp dport " << responder.Port() << " numgen random mod 100 < " << lossPercent << " drop\n"
        << "  udp sport " << responder.Port() << " numgen random mod 100 < " << lossPercent << " drop\n }\n}\n";
  std::string nftOut;
  if (!zstest::RunCommand("printf '" + rules.str() + "' | nft -f -", &nftOut)) {
    report = "SKIP nftables refused the rule: " + nftOut;
    return 77;
  }
  Relay relay(responder.Port(), 20);

  IOLoop loop;
  loop.Start();
  RefPtr<IChannel> channel;
  CreateUdpChannel(channel, &loop);
  RefPtr<Ledger> ledger;
  ledger.Attach(new Ledger());
  ledger->channel = channel;
  channel->SetSink(ledger);
  channel->Connect("127.0.0.1", relay.port, nullptr);
  ledger->connected.Wait();
  if (ledger->connectStatus != 0) {
    report = "connect failed: " + std::to_string(ledger->connectStatus);
    loop.Stop();
    return 1;
  }
  ChannelSendOption schedule;
  schedule.SetPacketPerSend(1);
  for (int i = 0; i < kTransmissions; ++i) schedule.AddSendInterval(250);

  // Sent from the loop thread, so each cookie is known before any answer.
  std::vector<Buffer> payloads(kRequests);
  loop.SyncCall([&] {
    for (std::uint32_t id = 0; id < kRequests; ++id) {
      payloads[id].CopyFrom(&id, 4);
      unsigned int cookie = 0;
      if (channel->Send(payloads[id], schedule, cookie) == 0) {
        ledger->cookies.push_back(cookie);
        ledger->entries[cookie];
      }
    }
  });
  auto deadline = Clock::now() + std::chrono::seconds(30);
  bool ended = false;
  while (!ended && Clock::now() < deadline) {
    ended = zstest::WaitUntil(
        [&] {
          bool all = false;
          loop.SyncCall([&] { all = ledger->answered + ledger->timedOut == kRequests; });
          return all;
        },
        std::chrono::milliseconds(1000));
  }
  // Late copies of answers and transmissions still in flight must not break
  // the accounting either.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  std::ostringstream out;
  loop.SyncCall([&] {
    out << "accepted=" << ledger->cookies.size() << " answered=" << ledger->answered
        << " timedout=" << ledger->timedOut << " violations=" << ledger->violations
        << " sends-per-answered=" << (ledger->answered ? double(ledger->sendsOfAnswered) / ledger->answered : 0)
        << " first-violation=" << (ledger->firstViolation.empty() ? "none" : ledger->firstViolation);
    channel->Close();
  });
  channel = nullptr;
  loop.Stop();
  report = out.str();
  return ended ? 0 : 2;
}

int Field(const std::string& report, const std::string& name) {
  auto at = report.find(name + "=");
  return at == std::string::npos ? -1 : std::atoi(report.c_str() + at + name.size() + 1);
}

void CheckLossyNetwork(int lossPercent) {
  zstest::NamespaceRun run =
      zstest::RunInNetworkNamespace([lossPercent](std::string& report) { return LossyRun(lossPercent, report); });
  if (run.skipped) GTEST_SKIP() << "not run: " << run.output;
  ASSERT_FALSE(run.timedOut) << run.output;
  ASSERT_EQ(run.exitCode, 0) << run.output;
  ::testing::Test::RecordProperty("result", run.output);
  std::printf("loss %d%%: %s\n", lossPercent, run.output.c_str());

  const int accepted = Field(run.output, "accepted");
  ASSERT_EQ(accepted, kRequests) << run.output;
  EXPECT_EQ(Field(run.output, "violations"), 0) << run.output;
  const int answered = Field(run.output, "answered");
  EXPECT_EQ(answered + Field(run.output, "timedout"), kRequests) << run.output;

  // Each transmission is answered when neither the request nor its answer is
  // dropped; a request is answered when any of its transmissions is.
  const double p = lossPercent / 100.0;
  const double roundTrip = (1 - p) * (1 - p);
  const double expected = 1 - std::pow(1 - roundTrip, kTransmissions);
  const double observed = static_cast<double>(answered) / kRequests;
  const double sd = std::sqrt(expected * (1 - expected) / kRequests);
  std::printf("loss %d%%: answered share %.3f, predicted %.3f (sd %.3f)\n", lossPercent, observed, expected, sd);
  EXPECT_NEAR(observed, expected, 5 * sd + 0.01) << run.output;
}

TEST(LossyNetwork, AnswerShareMatchesTheScheduleAt10PercentLoss) { CheckLossyNetwork(10); }
TEST(LossyNetwork, AnswerShareMatchesTheScheduleAt30PercentLoss) { CheckLossyNetwork(30); }

}  // namespace
}  // namespace zelsocket
