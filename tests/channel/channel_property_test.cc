// Property: every packet that a channel accepts ends exactly once — by
// CancelSend, by OnTimeout (schedule out, ForceAllTimeout, failed socket), or
// silently by CancelAll or Close — and after its end no callback names its
// cookie again, except OnSend for a transmission that was already in the
// socket.  Random sequences of operations, socket reports and answers run
// against a scripted socket and are checked against a small reference model.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "channel/fake_udp.h"
#include "channel/udp_channel_impl.h"
#include "support/test_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/channel.h"
#include "zelsocket/io_loop.h"

namespace zelsocket {
namespace {

using zstest::FakeUdpFactory;

// The reference model and the checker in one: it knows which cookies are
// pending, and judges every callback as it arrives (all on the loop thread).
class Model : public IChannelSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  enum class End { kNone, kCancel, kTimeout, kSilent };
  struct Packet {
    End end = End::kNone;
    // Datagrams the socket had been given for this cookie when it ended.
    std::set<std::size_t> inSocketAtEnd;
  };

  void OnConnect(int status) override {
    connectResults.push_back(status);
    connected = status == 0;
  }
  void OnSend(unsigned int cookie, IConstBuffer*, const IPEndPoint&) override {
    ++onSends;
    auto it = packets.find(cookie);
    if (it == packets.end()) return Fail("OnSend for a cookie never accepted", cookie);
    if (it->second.end != End::kNone && !it->second.inSocketAtEnd.count(completing))
      Fail("OnSend after the end for a transmission made after it", cookie);
  }
  void OnRecv(unsigned char*, int, const IPEndPoint&) override { ++received; }
  int onSends = 0, timeouts = 0;
  void OnTimeout(unsigned int cookie, int) override {
    auto it = packets.find(cookie);
    if (it == packets.end()) return Fail("OnTimeout for a cookie never accepted", cookie);
    if (it->second.end != End::kNone) return Fail("OnTimeout after the end", cookie);
    ++timeouts;
    EndPacket(cookie, End::kTimeout);
  }
  void OnClose() override {
    ++closes;
    connected = false;
    if (!expectingClose) Fail("OnClose without a socket failure", 0);
    // Every packet got its OnTimeout before OnClose.
    for (auto& [cookie, p] : packets)
      if (p.end == End::kNone) Fail("pending at OnClose", cookie);
  }

  void Accepted(unsigned int cookie) {
    if (!packets.emplace(cookie, Packet()).second) Fail("cookie given twice", cookie);
  }
  void EndPacket(unsigned int cookie, End how) {
    Packet& p = packets[cookie];
    p.end = how;
    // Which datagrams of this cookie sit in the current socket unreported.
    if (socket) {
      for (std::size_t i = socket->reported; i < socket->sent.size(); ++i)
        if (reinterpret_cast<std::uintptr_t>(socket->sent[i].ctx) == cookie) p.inSocketAtEnd.insert(i);
    }
  }
  void EndAllPendingSilently() {
    for (auto& [cookie, p] : packets)
      if (p.end == End::kNone) EndPacket(cookie, End::kSilent);
  }
  std::vector<unsigned int> Pending() const {
    std::vector<unsigned int> out;
    for (auto& [cookie, p] : packets)
      if (p.end == End::kNone) out.push_back(cookie);
    return out;
  }
  void Fail(const std::string& what, unsigned int cookie) {
    failures.push_back(what + " (cookie " + std::to_string(cookie) + ")");
  }

  std::map<unsigned int, Packet> packets;
  std::vector<std::string> failures;
  std::vector<int> connectResults;
  RefPtr<zstest::FakeUdp> socket;  // the socket in use, for the in-flight bookkeeping
  std::size_t completing = 0;      // index of the datagram whose report is being delivered
  bool connected = false;
  bool expectingClose = false;
  int closes = 0;
  int received = 0;
};

class ChannelProperty : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeUdpFactory::Reset();
    UdpChannelImpl::SetUdpFactoryForTesting(&FakeUdpFactory::Make);
    ASSERT_EQ(loop.Start(), 0);
  }
  void TearDown() override {
    loop.Stop();
    UdpChannelImpl::SetUdpFactoryForTesting(nullptr);
  }

  RefPtr<zstest::FakeUdp> LatestSocket() {
    std::lock_guard<std::mutex> lock(FakeUdpFactory::mutex);
    return FakeUdpFactory::made.empty() ? RefPtr<zstest::FakeUdp>() : FakeUdpFactory::made.back();
  }

  // One random sequence.  Returns the model's failures.
  struct Stats {
    int accepted = 0, onSends = 0, timeouts = 0, closes = 0, connects = 0, received = 0;
  };
  std::vector<std::string> RunSequence(unsigned seed, int steps, Stats* stats) {
    std::mt19937 random(seed);
    auto pick = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    RefPtr<IChannel> channel;
    CreateUdpChannel(channel, &loop);
    RefPtr<Model> model;
    model.Attach(new Model());
    channel->SetSink(model);

    // Long schedules end by operations; short ones time out on their own while
    // the sequence runs, so natural timeouts interleave with everything else.
    RefPtr<IChannelSendOption> longSchedule, shortSchedule;
    CreateChannelSendOption(longSchedule);
    longSchedule->SetPacketPerSend(1);
    for (int i = 0; i < 3; ++i) longSchedule->AddSendInterval(60000);
    CreateChannelSendOption(shortSchedule);
    shortSchedule->SetPacketPerSend(1);
    shortSchedule->AddSendInterval(30);
    shortSchedule->AddSendInterval(40);
    RefPtr<IMutableBuffer> payload;
    CreateBuffer(payload);
    payload->CopyFrom("request", 7);

    auto connect = [&] {
      int before = 0;
      loop.SyncCall([&] { before = static_cast<int>(model->connectResults.size()); });
      channel->Connect("127.0.0.1", 9, nullptr);
      zstest::WaitUntil([&] {
        int n = 0;
        loop.SyncCall([&] { n = static_cast<int>(model->connectResults.size()); });
        return n > before;
      });
      loop.SyncCall([&] { model->socket = LatestSocket(); });
    };

    for (int step = 0; step < steps; ++step) {
      int op = pick(100);
      if (op < 30) {  // Send, from the loop thread or from this one
        bool fromHere = pick(2) == 0;
        IChannelSendOption* schedule = pick(3) == 0 ? shortSchedule.Get() : longSchedule.Get();
        if (fromHere) {
          // The hop runs before any later operation of this thread (one FIFO queue),
          // so the model may count the packet now.
          unsigned int cookie = 0;
          if (channel->Send(payload, schedule, cookie) == 0) loop.SyncCall([&] { model->Accepted(cookie); });
        } else {
          loop.SyncCall([&] {
            unsigned int cookie = 0;
            if (channel->Send(payload, schedule, cookie) == 0) model->Accepted(cookie);
          });
        }
        continue;
      }
      loop.SyncCall([&] {
        auto pending = model->Pending();
        RefPtr<zstest::FakeUdp> socket = model->socket;
        bool live = model->connected && socket;
        if (op < 45) {  // CancelSend of a pending, an ended or an unknown cookie
          unsigned int cookie = 987654321u;
          if (!pending.empty() && pick(4) != 0)
            cookie = pending[pick(static_cast<int>(pending.size()))];
          else if (!model->packets.empty() && pick(2) == 0)
            cookie = model->packets.begin()->first;
          bool wasPending = model->packets.count(cookie) && model->packets[cookie].end == Model::End::kNone;
          int retry = -1, send = -1;
          channel->CancelSend(cookie, &retry, &send);
          if (wasPending) {
            model->EndPacket(cookie, Model::End::kCancel);
          } else if (retry != 0 || send != 0) {
            model->Fail("CancelSend found a packet that had ended", cookie);
          }
        } else if (op < 52) {
          channel->CancelAll();
          model->EndAllPendingSilently();
        } else if (op < 58) {
          channel->ForceAllTimeout();  // each pending packet: OnTimeout, inside this call
          if (!model->Pending().empty()) model->Fail("pending after ForceAllTimeout", 0);
        } else if (op < 63) {
          channel->Close();
          model->EndAllPendingSilently();
          model->connected = false;
          model->socket = nullptr;
        } else if (op < 85 && live && socket->reported < socket->sent.size()) {
          // The socket reports the oldest datagram; now and then with an error,
          // which closes the channel's socket: OnTimeout for each, then OnClose.
          bool fail = pick(12) == 0;
          model->completing = socket->reported;
          model->expectingClose = fail;
          socket->CompleteSend(fail ? -5 : 0);
          model->expectingClose = false;
          if (fail) {
            if (!model->Pending().empty()) model->Fail("pending after a failed send report", 0);
            model->socket = nullptr;
          }
        } else if (op < 93 && live && socket->recvBuffer) {
          bool fail = pick(8) == 0;
          model->expectingClose = fail;
          if (fail)
            socket->FailRecv(-104);
          else
            socket->Deliver("answer", 6, IPEndPoint("127.0.0.1", 9));
          model->expectingClose = false;
          if (fail) model->socket = nullptr;
        }
      });
      if (op >= 93 && !model->connected) connect();
    }
    // End everything that is left and let late timers fire into nothing.
    loop.SyncCall([&] {
      channel->ForceAllTimeout();
      channel->Close();
    });
    channel = nullptr;
    std::vector<std::string> failures;
    loop.SyncCall([&] {
      for (auto& [cookie, p] : model->packets)
        if (p.end == Model::End::kNone) model->Fail("never ended", cookie);
      failures = model->failures;
      stats->accepted += static_cast<int>(model->packets.size());
      stats->onSends += model->onSends;
      stats->timeouts += model->timeouts;
      stats->closes += model->closes;
      stats->connects += static_cast<int>(model->connectResults.size());
      stats->received += model->received;
      model->socket = nullptr;
      std::lock_guard<std::mutex> lock(FakeUdpFactory::mutex);
      FakeUdpFactory::made.clear();
    });
    return failures;
  }

  IOLoop loop;
};

TEST_F(ChannelProperty, EveryAcceptedPacketEndsExactlyOnce) {
  zstest::LogRecorder quiet;  // keeps the per-packet log lines off the output
  Stats stats;
  for (unsigned seed = 1; seed <= 60; ++seed) {
    auto failures = RunSequence(seed, 120, &stats);
    ASSERT_TRUE(failures.empty()) << "seed " << seed << ": " << failures.front() << " (and " << failures.size() - 1
                                  << " more)";
    quiet.Clear();
  }
  std::printf("accepted=%d OnSend=%d OnTimeout=%d OnClose=%d OnConnect=%d OnRecv=%d\n", stats.accepted, stats.onSends,
              stats.timeouts, stats.closes, stats.connects, stats.received);
  // The sequences must have reached every kind of event, or they prove little.
  EXPECT_GT(stats.accepted, 60 * 20);
  EXPECT_GT(stats.onSends, 100);
  EXPECT_GT(stats.timeouts, 100);
  EXPECT_GT(stats.closes, 5);
  EXPECT_GT(stats.connects, 60);
  EXPECT_GT(stats.received, 20);
}

}  // namespace
}  // namespace zelsocket
