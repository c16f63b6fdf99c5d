// Property: every accepted packet ends exactly once (CancelSend, OnTimeout, or
// silently by CancelAll or Close); after its end only OnSend for a datagram
// already in the socket names it.  A reference model judges each callback of
// random operations, socket reports and answers over a scripted socket.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "channel/fake_udp.h"
#include "channel/udp_channel_impl.h"

namespace zelsocket {
namespace {

class Model : public IChannelSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnConnect(int status) override { ++stats["connect"], connected = status == 0; }
  void OnSend(unsigned int cookie, IConstBuffer*, const IPEndPoint&) override {
    ++stats["send"];
    if (!pending.count(cookie) && !(ended.count(cookie) && ended[cookie].count(completing)))
      Fail("OnSend after the end, or of a cookie never accepted", cookie);
  }
  void OnRecv(unsigned char*, int, const IPEndPoint&) override { ++stats["recv"]; }
  void OnTimeout(unsigned int cookie, int) override {
    ++stats["timeout"];
    if (!pending.count(cookie)) return Fail("OnTimeout of a packet not pending", cookie);
    End(cookie);
  }
  void OnClose() override {
    ++stats["close"];
    connected = false;
    if (!expectingClose || !pending.empty()) Fail("OnClose without a socket failure, or before a timeout", 0);
  }
  void Accept(unsigned int cookie) {
    if (!pending.insert(cookie).second || ended.count(cookie)) Fail("cookie given twice", cookie);
  }
  void End(unsigned int cookie) {
    pending.erase(cookie);
    std::set<size_t>& inSocket = ended[cookie];  // its datagrams the socket still held
    for (size_t i = socket ? socket->reported : 0; socket && i < socket->sent.size(); ++i)
      if (socket->sent[i].ctx == reinterpret_cast<void*>(static_cast<uintptr_t>(cookie))) inSocket.insert(i);
  }
  void EndAll() {
    for (unsigned int c : std::set<unsigned int>(pending)) End(c);
  }
  void Fail(const std::string& what, unsigned int cookie) { failures.push_back(what + " " + std::to_string(cookie)); }

  std::set<unsigned int> pending;
  std::map<unsigned int, std::set<size_t>> ended;
  std::vector<std::string> failures;
  std::map<std::string, int> stats;
  RefPtr<zstest::FakeUdp> socket;
  size_t completing = 0;  // index of the datagram whose report is being delivered
  bool connected = false, expectingClose = false;
};

TEST(ChannelProperty, EveryAcceptedPacketEndsExactlyOnce) {
  zstest::FakeUdpFactory::Reset();
  UdpChannelImpl::SetUdpFactoryForTesting(&zstest::FakeUdpFactory::Make);
  zstest::LogRecorder quiet;  // keeps the per-packet lines off the output
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  // Long schedules end by operations; short ones time out meanwhile.
  RefPtr<IChannelSendOption> schedules[] = {zstest::Schedule({60000, 60000}), zstest::Schedule({30, 40})};
  std::map<std::string, int> total;
  for (unsigned seed = 1; seed <= 60; ++seed) {
    std::mt19937 random(seed);
    auto pick = [&random](size_t n) { return random() % n; };
    RefPtr<IChannel> channel;
    RefPtr<Model> model;
    CreateUdpChannel(channel, &loop);
    model.Attach(new Model());
    channel->SetSink(model);
    for (int step = 0; step < 120; ++step) {
      size_t op = pick(100);
      unsigned int cookie = 0;
      bool connected = false;
      if (op < 15 && channel->Send(zstest::Buf("q"), schedules[pick(3) == 0], cookie) == 0) {
        loop.SyncCall([&] { model->Accept(cookie); });  // the hop ran before this later call
      } else if (op >= 93) {                            // Connect when idle, and wait for OnConnect
        loop.SyncCall([&] { connected = model->connected || channel->Connect("127.0.0.1", 9, nullptr) != 0; });
        zstest::WaitUntil([&] {
          loop.SyncCall([&] { connected = model->connected; });
          return connected;
        });
        loop.SyncCall([&] { model->socket = zstest::FakeUdpFactory::made.back(); });
      }
      loop.SyncCall([&] {
        RefPtr<zstest::FakeUdp> socket = model->connected ? model->socket : nullptr;
        if (op < 30) {  // from the loop thread this time
          if (op >= 15 && channel->Send(zstest::Buf("q"), schedules[pick(3) == 0], cookie) == 0) model->Accept(cookie);
        } else if (op < 45) {  // CancelSend of a pending, an ended or an unknown cookie
          cookie = !model->pending.empty() && pick(4) ? *std::next(model->pending.begin(), pick(model->pending.size()))
                   : model->ended.empty()             ? 987654321u
                                                      : model->ended.begin()->first;
          bool wasPending = model->pending.count(cookie);
          int retry = -1, send = -1;
          channel->CancelSend(cookie, &retry, &send);
          if (wasPending) model->End(cookie);
          if (!wasPending && (retry || send)) model->Fail("CancelSend found an ended packet", cookie);
        } else if (op < 52) {
          channel->CancelAll();
          model->EndAll();
        } else if (op < 58) {
          channel->ForceAllTimeout();  // each pending packet: OnTimeout, inside this call
          if (!model->pending.empty()) model->Fail("pending after ForceAllTimeout", 0);
        } else if (op < 63) {
          channel->Close();
          model->EndAll();
          model->connected = false;
        } else if (op < 85 && socket && socket->reported < socket->sent.size()) {
          // Now and then an error, which fails the socket: OnTimeout for each, then OnClose.
          model->completing = socket->reported;
          model->expectingClose = pick(12) == 0;
          socket->CompleteSend(model->expectingClose ? -5 : 0);
        } else if (op < 93 && socket && socket->recvBuffer) {
          model->expectingClose = pick(8) == 0;
          model->expectingClose ? socket->FailRecv(-104) : socket->Deliver("answer", IPEndPoint("127.0.0.1", 9));
        }
        model->expectingClose = false;
      });
    }
    loop.SyncCall([&] {
      channel->ForceAllTimeout();
      channel->Close();
      if (!model->pending.empty()) model->Fail("never ended", *model->pending.begin());
      for (auto& [k, n] : model->stats) total[k] += n;
      total["accepted"] += static_cast<int>(model->ended.size());
      zstest::FakeUdpFactory::made.clear();
      model->socket = nullptr;
    });
    ASSERT_TRUE(model->failures.empty()) << "seed " << seed << ": " << model->failures[0];
    quiet.Clear();
  }
  loop.Stop();
  UdpChannelImpl::SetUdpFactoryForTesting(nullptr);
  // The sequences must have reached every kind of event, or they prove little.
  for (auto [kind, least] : std::map<std::string, int>{
           {"accepted", 1200}, {"send", 100}, {"timeout", 100}, {"close", 5}, {"connect", 60}, {"recv", 20}})
    EXPECT_GT(total[kind], least) << kind;
}

}  // namespace
}  // namespace zelsocket
