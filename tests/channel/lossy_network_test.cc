// Requests over a real lossy path: in a namespace of the test's own, nftables
// drops 30% of the datagrams to and from the responder at random.  Every packet
// must end exactly once, and the share answered must match what the schedule
// predicts.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <map>
#include <sstream>
#include <thread>

#include "support/peers.h"
#include "support/process.h"
#include "zelsocket/zelsocket.h"

namespace zelsocket {
namespace {

constexpr int kRequests = 400, kTransmissions = 3, kLossPercent = 30;

// Judges every callback as it comes (all on the loop thread).
class Ledger : public IChannelSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnConnect(int) override {}
  void OnSend(unsigned, IConstBuffer*, const IPEndPoint&) override {}
  void OnRecv(unsigned char* data, int length, const IPEndPoint&) override {
    std::uint32_t id = 0;
    if (length == 4) std::memcpy(&id, data, 4);
    if (length != 4 || !ended.count(id)) return Violation("unknown answer");
    if (ended[id]) return;  // a late copy
    int retry = -1, send = -1;
    channel->CancelSend(id, &retry, &send);
    if (send < 1) Violation("cancel found no transmission");
    ended[id] = true;
    ++answered;
  }
  void OnTimeout(unsigned cookie, int send) override {
    if (!ended.count(cookie) || ended[cookie]) return Violation("timeout of an ended packet");
    if (send != kTransmissions) Violation("timed out early");
    ended[cookie] = true;
    ++timedOut;
  }
  void OnClose() override { Violation("OnClose"); }
  void Violation(const char* what) {
    if (violation.empty()) violation = what;
  }

  IChannel* channel = nullptr;
  std::map<unsigned, bool> ended;  // by cookie, which the payload carries too
  int answered = 0, timedOut = 0;
  std::string violation;
};

int LossyRun(std::string& report) {
  SetLogCallback([](LOG_LEVEL, const char*, const char*) {});  // a line per packet would bury the result
  zstest::UdpEchoPeer responder;
  const std::string port = std::to_string(responder.Port());
  report = zstest::RunCommand({"nft",
                               "add table inet zs; add chain inet zs input { type filter hook input priority 0; "
                               "policy accept; }; add rule inet zs input udp dport " +
                                   port + " numgen random mod 100 < " + std::to_string(kLossPercent) +
                                   " drop; add rule inet zs input udp sport " + port + " numgen random mod 100 < " +
                                   std::to_string(kLossPercent) + " drop"});
  if (!report.empty()) return (report = "needs nftables: " + report, 77);
  IOLoop loop;
  loop.Start();
  RefPtr<IChannel> channel;
  CreateUdpChannel(channel, &loop);
  RefPtr<Ledger> ledger;
  ledger.Attach(new Ledger());
  ledger->channel = channel;
  channel->SetSink(ledger);
  channel->Connect("127.0.0.1", responder.Port(), nullptr);
  ChannelSendOption schedule;
  schedule.SetPacketPerSend(1);
  for (int i = 0; i < kTransmissions; ++i) schedule.AddSendInterval(250);
  std::vector<Buffer> payloads(kRequests);
  loop.SyncCall([&] {
    for (std::uint32_t i = 0; i < kRequests; ++i) {
      unsigned cookie = 0;
      std::uint32_t id = i + 1;  // cookies count from 1 on a fresh channel
      payloads[i].CopyFrom(&id, 4);
      if (channel->Send(payloads[i], schedule, cookie) == 0 && cookie == id) ledger->ended[cookie] = false;
    }
  });
  bool done = false;
  for (int i = 0; i < 300 && !done; ++i) {
    loop.SyncCall([&] { done = ledger->answered + ledger->timedOut == kRequests; });
    if (!done) std::this_thread::sleep_for(std::chrono::milliseconds(100));  // bounded poll, 30 s at most
  }
  std::ostringstream out;
  loop.SyncCall([&] {
    out << "accepted=" << ledger->ended.size() << " answered=" << ledger->answered << " timedout=" << ledger->timedOut
        << " violation=" << (ledger->violation.empty() ? "none" : ledger->violation);
    channel->Close();
  });
  channel = nullptr;
  loop.Stop();
  report = out.str();
  return done && ledger->violation.empty() && ledger->ended.size() == kRequests ? 0 : 1;
}
zstest::ChildRegistration g_lossyRun("LossyRun", LossyRun);

TEST(LossyNetworkTest, AnswerShareMatchesTheSchedule) {
  zstest::ChildRun run = zstest::RunInNamespace("LossyRun");
  if (run.skipped) GTEST_SKIP() << run.report;
  ASSERT_EQ(run.exitCode, 0) << run.report;
  // A request is answered when any transmission and its answer both get through.
  const double p = kLossPercent / 100.0;
  const double expected = 1 - std::pow(1 - (1 - p) * (1 - p), kTransmissions);
  const double observed = std::atof(run.report.c_str() + run.report.find("answered=") + 9) / kRequests;
  const double sd = std::sqrt(expected * (1 - expected) / kRequests);
  std::printf("%s; answered share %.3f, predicted %.3f (sd %.3f)\n", run.report.c_str(), observed, expected, sd);
  EXPECT_NEAR(observed, expected, 5 * sd + 0.01) << run.report;
}

}  // namespace
}  // namespace zelsocket
