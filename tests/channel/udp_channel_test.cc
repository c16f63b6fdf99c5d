// The channel over a scripted socket: every socket report comes when the test
// says so, which makes the orders of events exact.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "channel/channel_test_util.h"
#include "channel/channel_sink.h"
#include "channel/fake_udp.h"
#include "channel/udp_channel_impl.h"
#include "support/test_support.h"
#include "zelsocket/io_loop.h"

using namespace zelsocket;

namespace {

using zstest::Bytes;
using zstest::Schedule;

std::mutex g_fakesMutex;
std::vector<RefPtr<zstest::FakeUdp>> g_fakes;
std::vector<int> g_nextOpenResults;
int g_nextStartRecvResult = 0;

bool FakeFactory(RefPtr<IUdp>& out, IOLoop*) {
  RefPtr<zstest::FakeUdp> fake;
  fake.Attach(new zstest::FakeUdp());
  std::lock_guard<std::mutex> lock(g_fakesMutex);
  fake->openResults = g_nextOpenResults;
  fake->startRecvResult = g_nextStartRecvResult;
  g_fakes.push_back(fake);
  out = fake.Get();
  return true;
}

class UdpChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    {
      std::lock_guard<std::mutex> lock(g_fakesMutex);
      g_fakes.clear();
      g_nextOpenResults.clear();
      g_nextStartRecvResult = 0;
    }
    UdpChannelImpl::SetUdpFactoryForTesting(&FakeFactory);
    ASSERT_EQ(0, loop.Start());
    ASSERT_TRUE(CreateUdpChannel(channel, &loop));
    sink.Attach(new zstest::ChannelSink());
    channel->SetSink(sink);
  }
  void TearDown() override {
    channel = nullptr;
    OnLoop([] {
      std::lock_guard<std::mutex> lock(g_fakesMutex);
      g_fakes.clear();
    });
    EXPECT_EQ(0, loop.Stop());
    UdpChannelImpl::SetUdpFactoryForTesting(nullptr);
  }
  void OnLoop(const std::function<void()>& fn) { ASSERT_EQ(0, loop.SyncCall(fn)); }
  RefPtr<zstest::FakeUdp> Fake(size_t i) {
    std::lock_guard<std::mutex> lock(g_fakesMutex);
    return i < g_fakes.size() ? g_fakes[i] : RefPtr<zstest::FakeUdp>();
  }
  size_t Sent(size_t i) {
    size_t n = 0;
    OnLoop([&] { n = Fake(i)->sent.size(); });
    return n;
  }
  void ConnectOk(const char* host = "127.0.0.1", unsigned short port = 9000) {
    int before = sink->Count("connect:0");
    ASSERT_EQ(0, channel->Connect(host, port, nullptr));
    ASSERT_TRUE(sink->WaitCount("connect:0", before + 1));
  }
  unsigned int SendOk(IChannelSendOption* option, const std::string& text = "req") {
    unsigned int cookie = 0;
    RefPtr<IConstBuffer> b = Bytes(text);
    EXPECT_EQ(0, channel->Send(b, option, cookie));
    return cookie;
  }

  zstest::LogRecorder log;
  IOLoop loop;
  RefPtr<IChannel> channel;
  RefPtr<zstest::ChannelSink> sink;
};

TEST_F(UdpChannelTest, PacketsSentBeforeConnectLeaveOnceBeforeOnConnect) {
  RefPtr<IChannelSendOption> o = Schedule({10000});
  EXPECT_EQ(1u, SendOk(o));
  EXPECT_EQ(2u, SendOk(o));
  size_t sentAtConnect = 99;
  sink->onConnect = [&](int) { sentAtConnect = Fake(0)->sent.size(); };
  ConnectOk("127.0.0.1", 9000);
  EXPECT_EQ(2u, sentAtConnect);
  OnLoop([&] {
    auto fake = Fake(0);
    EXPECT_EQ(0, fake->openPorts.at(0));
    EXPECT_EQ(9000, fake->sent[0].dest.GetPort());
    EXPECT_EQ("127.0.0.1", fake->sent[0].dest.GetAddress().GetString());
    fake->CompleteAllSends();
  });
  EXPECT_EQ(1, sink->Count("send:1"));
  EXPECT_EQ(1, sink->Count("send:2"));
  IPEndPoint dest;
  EXPECT_EQ(0, channel->GetDestAddr(dest));
  EXPECT_EQ(9000, dest.GetPort());
  // Connected: a new packet leaves at once.
  SendOk(o);
  EXPECT_EQ(3u, Sent(0));
}

TEST_F(UdpChannelTest, FailedConnectTimesOutPendingPacketsBeforeOnConnect) {
  RefPtr<IChannelSendOption> o = Schedule({10000});
  SendOk(o);
  SendOk(o);
  ASSERT_EQ(0, channel->Connect("nothing.invalid", 9000, nullptr));
  ASSERT_TRUE(sink->WaitCount("connect:", 1));
  EXPECT_EQ((std::vector<std::string>{"timeout:1:0", "timeout:2:0", "connect:-1"}), sink->Events());
  EXPECT_EQ(nullptr, Fake(0).Get());  // no socket was made

  ASSERT_EQ(0, channel->Connect("", 9000, nullptr));
  ASSERT_TRUE(sink->WaitCount("connect:-1", 2));
  EXPECT_EQ(1, log.Count("UdpChannelImpl::_AsyncConnect, HostResolve fail."));
  EXPECT_EQ(-1, channel->Connect(nullptr, 9000, nullptr));
  EXPECT_FALSE(CreateUdpChannel(static_cast<IChannel**>(nullptr), nullptr));
  EXPECT_EQ(0, sink->Count("close"));
}

TEST_F(UdpChannelTest, BindPortRangeIsWalkedInOrder) {
  ChannelConnectOption option;
  option.bindAddress = IPAddress("127.0.0.1");
  option.bindPortMin = 5000;
  option.bindPortMax = 5002;
  {
    std::lock_guard<std::mutex> lock(g_fakesMutex);
    g_nextOpenResults = {-98, -98, -98, 0};
  }
  ASSERT_EQ(0, channel->Connect("127.0.0.1", 9000, &option));
  ASSERT_TRUE(sink->WaitCount("connect:", 1));
  EXPECT_EQ("connect:-98", sink->Events().back());
  EXPECT_EQ((std::vector<unsigned short>{5000, 5001, 5002}), Fake(0)->openPorts);

  {
    std::lock_guard<std::mutex> lock(g_fakesMutex);
    g_nextOpenResults = {-98, 0};
  }
  ASSERT_EQ(0, channel->Connect("127.0.0.1", 9000, &option));
  ASSERT_TRUE(sink->WaitCount("connect:", 2));
  EXPECT_EQ("connect:0", sink->Events().back());
  EXPECT_EQ((std::vector<unsigned short>{5000, 5001}), Fake(1)->openPorts);

  option.bindPortMax = 10;  // below min: min alone
  {
    std::lock_guard<std::mutex> lock(g_fakesMutex);
    g_nextOpenResults = {-98, 0};
  }
  ASSERT_EQ(0, channel->Connect("127.0.0.1", 9000, &option));
  ASSERT_TRUE(sink->WaitCount("connect:", 3));
  EXPECT_EQ("connect:-98", sink->Events().back());
  EXPECT_EQ((std::vector<unsigned short>{5000}), Fake(2)->openPorts);

  {
    std::lock_guard<std::mutex> lock(g_fakesMutex);
    g_nextOpenResults.clear();
    g_nextStartRecvResult = -9;
  }
  ASSERT_EQ(0, channel->Connect("127.0.0.1", 9000, nullptr));
  ASSERT_TRUE(sink->WaitCount("connect:", 4));
  EXPECT_EQ("connect:-9", sink->Events().back());
  EXPECT_EQ(1, log.Count("_OnHostResolve, udp recv fail, err=-9"));
}

TEST_F(UdpChannelTest, ReceiveErrorClosesAndReconnectBringsItBack) {
  RefPtr<IChannelSendOption> o = Schedule({10000});
  ConnectOk();
  SendOk(o);
  SendOk(o);
  OnLoop([&] { Fake(0)->FailRecv(-104); });
  EXPECT_EQ((std::vector<std::string>{"connect:0", "timeout:1:1", "timeout:2:1", "close"}), sink->Events());
  EXPECT_TRUE(Fake(0)->closed);

  // Idle again: accepted, not transmitted, until the next Connect.
  unsigned int c = SendOk(o);
  EXPECT_EQ(3u, c);
  EXPECT_EQ(2u, Sent(0));
  ConnectOk();
  ASSERT_EQ(1u, Sent(1));
  EXPECT_EQ(reinterpret_cast<void*>(3), Fake(1)->sent[0].ctx);

  // A failed send report closes it the same way.
  OnLoop([&] { Fake(1)->CompleteSend(-1); });
  EXPECT_EQ("close", sink->Events().back());
  EXPECT_EQ(1, sink->Count("timeout:3:1"));
}

TEST_F(UdpChannelTest, ReceivedDataReachesTheSinkAndCancelStopsThePacket) {
  RefPtr<IChannelSendOption> o = Schedule({50, 50, 50, 50, 50, 50});
  ConnectOk();
  unsigned int cookie = SendOk(o);
  std::atomic<int> retry{-1}, send{-1};
  sink->onRecv = [&](int) {
    int r = -1, s = -1;
    channel->CancelSend(cookie, &r, &s);
    retry = r;
    send = s;
  };
  ASSERT_TRUE(zstest::WaitUntil([&] { return Sent(0) >= 2; }));
  OnLoop([&] { Fake(0)->Deliver("answer", 6, IPEndPoint("127.0.0.1", 9000)); });
  EXPECT_EQ((std::vector<std::string>{"answer"}), sink->Received());
  EXPECT_GE(send.load(), 2);
  EXPECT_EQ(send.load(), retry.load() + 1);
  size_t sent = Sent(0);
  // Another packet runs its whole schedule; the cancelled one stayed silent.
  unsigned int other = SendOk(Schedule({20}));
  ASSERT_TRUE(sink->WaitCount("timeout:" + std::to_string(other), 1));
  EXPECT_EQ(sent + 1, Sent(0));
  EXPECT_EQ(0, sink->Count("timeout:" + std::to_string(cookie)));

  // Null pointers and unknown cookies.
  channel->CancelSend(cookie, nullptr, nullptr);
  int r = 7, s = 7;
  channel->CancelSend(999, &r, &s);
  EXPECT_EQ(0, r);
  EXPECT_EQ(0, s);
}

TEST_F(UdpChannelTest, SendRefusesBadInputAndSharesTheDefaultSchedule) {
  unsigned int cookie = 77;
  EXPECT_EQ(-1, channel->Send(nullptr, nullptr, cookie));
  RefPtr<IConstBuffer> empty = Bytes("");
  EXPECT_EQ(-1, channel->Send(empty, nullptr, cookie));
  RefPtr<IChannelSendOption> none = Schedule({});
  RefPtr<IConstBuffer> b = Bytes("x");
  EXPECT_EQ(-1, channel->Send(b, none, cookie));
  EXPECT_EQ(77u, cookie);
  EXPECT_EQ(2, log.Count("UdpChannelImpl::Send, buffer is NULL."));

  EXPECT_EQ(1u, SendOk(nullptr));
  EXPECT_EQ(2u, SendOk(nullptr));
  IChannelSendOption* first = nullptr;
  bool shared = false;
  OnLoop([&] {
    // Both packets hold the one default object: 3000, 5000, 7000.
    auto* impl = static_cast<UdpChannelImpl*>(channel.Get());
    shared = impl->SenderForTesting()->PacketCount() == 2;
  });
  EXPECT_TRUE(shared);
  (void)first;
  channel->CancelSend(1, nullptr, nullptr);
  channel->CancelSend(2, nullptr, nullptr);
  EXPECT_EQ(2, log.CountPrefix("recv, cookie="));
  for (const auto& line : log.Lines()) {
    if (line.message.rfind("recv, cookie=", 0) == 0) {
      EXPECT_NE(std::string::npos, line.message.find("send-count=3,")) << line.message;
    }
  }
}

TEST_F(UdpChannelTest, ChangeDestAffectsNewPacketsOnly) {
  RefPtr<IChannelSendOption> o = Schedule({60, 10000});
  ConnectOk("127.0.0.1", 9000);
  SendOk(o);
  EXPECT_EQ(0, channel->ChangeDest(IPEndPoint("127.0.0.1", 9100)));
  SendOk(o);
  ASSERT_TRUE(zstest::WaitUntil([&] { return Sent(0) >= 4; }));
  OnLoop([&] {
    for (const auto& d : Fake(0)->sent) {
      EXPECT_EQ(d.ctx == reinterpret_cast<void*>(1) ? 9000 : 9100, d.dest.GetPort());
    }
  });
  IPEndPoint dest;
  channel->GetDestAddr(dest);
  EXPECT_EQ(9000, dest.GetPort());
  channel->Close();
  channel->GetDestAddr(dest);
  EXPECT_EQ(9000, dest.GetPort());
}

TEST_F(UdpChannelTest, ForceAllTimeoutKeepsTheSocketAndCloseIsSilent) {
  RefPtr<IChannelSendOption> o = Schedule({10000});
  ConnectOk();
  SendOk(o);
  SendOk(o);
  channel->ForceAllTimeout();
  EXPECT_EQ(2, sink->Count("timeout:"));  // all before ForceAllTimeout returned
  SendOk(o);
  EXPECT_EQ(3u, Sent(0));
  EXPECT_FALSE(Fake(0)->closed);

  SendOk(o);
  channel->Close();
  EXPECT_TRUE(Fake(0)->closed);
  channel->Close();
  channel->CancelAll();
  channel->ForceAllTimeout();
  EXPECT_EQ(2, sink->Count("timeout:"));
  EXPECT_EQ(0, sink->Count("close"));
  // After Close the channel is idle: Send is accepted and waits.
  SendOk(o);
  EXPECT_EQ(4u, Sent(0));
}

TEST_F(UdpChannelTest, EveryAcceptedPacketEndsExactlyOnce) {
  RefPtr<IChannelSendOption> o = Schedule({10000});
  ConnectOk();
  constexpr int kThreads = 4, kPerThread = 50;
  std::mutex mutex;
  std::set<unsigned int> cookies;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kPerThread; ++i) {
        unsigned int c = 0;
        RefPtr<IConstBuffer> b = Bytes("p");
        ASSERT_EQ(0, channel->Send(b, o, c));
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_TRUE(cookies.insert(c).second);
      }
    });
  }
  for (auto& t : threads) t.join();
  int cancelled = 0;
  for (unsigned int c : cookies) {
    if (c % 2) continue;
    int r = 0, s = 0;
    channel->CancelSend(c, &r, &s);
    cancelled += s == 1;
  }
  channel->ForceAllTimeout();
  EXPECT_EQ(kThreads * kPerThread, cancelled + sink->Count("timeout:"));
  EXPECT_EQ(kThreads * kPerThread / 2, cancelled);
  EXPECT_EQ(static_cast<size_t>(kThreads * kPerThread), Sent(0));
}

TEST_F(UdpChannelTest, LastReferenceMayGoInsideCallbacks) {
  RefPtr<IChannelSendOption> o = Schedule({10000});
  ConnectOk();
  SendOk(o);
  SendOk(o);
  IChannel* raw = channel.Detach();
  sink->onTimeout = [&](unsigned int cookie) {
    if (cookie == 1) raw->Release();
  };
  // The batch holds the channel: it finishes, and the channel goes after it.
  raw->ForceAllTimeout();
  EXPECT_EQ((std::vector<std::string>{"connect:0", "timeout:1:1", "timeout:2:1"}), sink->Events());
  EXPECT_EQ(1, log.Count("UdpChannelImpl::_CloseSocket, forceAllTimeout=0, notifyOnClose=0"));

  // Inside OnRecv, and from a timeout raised by the timer.
  ASSERT_TRUE(CreateUdpChannel(channel, &loop));
  channel->SetSink(sink);
  sink->onTimeout = nullptr;
  ConnectOk();
  raw = channel.Detach();
  sink->onRecv = [&](int) { raw->Release(); };
  OnLoop([&] { Fake(1)->Deliver("x", 1, IPEndPoint("127.0.0.1", 9000)); });
  EXPECT_EQ(1, sink->Count("recv:1"));

  ASSERT_TRUE(CreateUdpChannel(channel, &loop));
  channel->SetSink(sink);
  raw = channel.Detach();
  sink->onTimeout = [&](unsigned int) { raw->Release(); };
  unsigned int c = 0;
  RefPtr<IConstBuffer> b = Bytes("x");
  RefPtr<IChannelSendOption> quick = Schedule({20});
  ASSERT_EQ(0, raw->Send(b, quick, c));
  EXPECT_TRUE(sink->WaitCount("timeout:", 3));
  EXPECT_TRUE(zstest::WaitUntil(
      [&] { return log.Count("UdpChannelImpl::_CloseSocket, forceAllTimeout=0, notifyOnClose=0") == 3; }));
}

TEST_F(UdpChannelTest, ReleaseOnAnotherThreadWithAResolutionInFlight) {
  sink->onConnect = [](int) { ADD_FAILURE() << "no OnConnect after the channel is gone"; };
  // Released right after Connect: the posted connect keeps the channel until it
  // has started the resolution, which then finds nobody.
  ASSERT_EQ(0, channel->Connect("gone-before-answer.invalid", 9000, nullptr));
  SendOk(Schedule({10000}));
  channel = nullptr;
  EXPECT_TRUE(zstest::WaitUntil(
      [&] { return log.CountPrefix("_OnHostResolveResult, fail, host=gone-before-answer.invalid") == 1; }));
  // One more round trip through the loop: whatever the answer reached has run.
  OnLoop([] {});
  EXPECT_EQ(0, sink->Count("connect:"));
  EXPECT_EQ(0, sink->Count("timeout:"));
}

TEST(UdpChannelNoLoopTest, WrapperOnTheDefaultLoop) {
  zstest::LogRecorder log;
  UdpChannel channel;
  RefPtr<zstest::ChannelSink> sink;
  sink.Attach(new zstest::ChannelSink());
  channel.SetSink(sink);
  unsigned int cookie = 0;
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  b->CopyFrom("abc", 3);
  RefPtr<IChannelSendOption> o = Schedule({20});
  ASSERT_EQ(0, channel.Send(b, o, cookie));
  EXPECT_EQ(1u, cookie);
  EXPECT_TRUE(sink->WaitCount("timeout:1:0", 1));
  IPEndPoint dest;
  EXPECT_EQ(0, channel.GetDestAddr(dest));
  EXPECT_FALSE(dest.IsValid());
}

}  // namespace
