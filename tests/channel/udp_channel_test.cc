// The channel over a scripted socket, then over real sockets: dnsmasq on
// loopback and by name in a namespace of its own, and a closed port.
#include <gtest/gtest.h>

#include "channel/fake_udp.h"
#include "channel/udp_channel_impl.h"
#include "support/process.h"

namespace zelsocket {
namespace {

using zstest::Event;
using zstest::FakeUdpFactory;
using zstest::Schedule;
using Trace = std::vector<std::string>;
const char* const kQuietClose = "UdpChannelImpl::_CloseSocket, forceAllTimeout=0, notifyOnClose=0";

class UdpChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeUdpFactory::Reset();
    UdpChannelImpl::SetUdpFactoryForTesting(&FakeUdpFactory::Make);
    ASSERT_EQ(0, loop.Start());
    channel = NewChannel();
  }
  void TearDown() override {
    channel = nullptr;
    OnLoop([] { FakeUdpFactory::Reset(); });
    EXPECT_EQ(0, loop.Stop());
    UdpChannelImpl::SetUdpFactoryForTesting(nullptr);
  }
  RefPtr<IChannel> NewChannel() {
    RefPtr<IChannel> c;
    EXPECT_TRUE(CreateUdpChannel(c, &loop));
    c->SetSink(sink);
    return c;
  }
  void OnLoop(const std::function<void()>& fn) { ASSERT_EQ(0, loop.SyncCall(fn)); }
  size_t Sent() {
    size_t n = 0;
    OnLoop([&] { n = FakeUdpFactory::At(0)->sent.size(); });
    return n;
  }
  void ConnectOk(IChannel* c, unsigned short port = 9000) {
    size_t before = sink->Count("connect");
    ASSERT_EQ(0, c->Connect("127.0.0.1", port, nullptr));
    ASSERT_TRUE(sink->Wait("connect", before + 1));
    ASSERT_EQ(0, sink->Of("connect").back().status);
  }
  unsigned SendOk(IChannelSendOption* option, IChannel* c = nullptr, const std::string& data = "req") {
    unsigned cookie = 0;
    EXPECT_EQ(0, (c ? c : channel.Get())->Send(zstest::Buf(data), option, cookie));
    return cookie;
  }

  zstest::LogRecorder log;
  IOLoop loop;
  RefPtr<zstest::Recorder> sink = zstest::NewRecorder();
  RefPtr<IChannel> channel;
  RefPtr<IChannelSendOption> longSchedule = Schedule({10000});
};

// Packets sent before Connect leave once, before OnConnect; a new destination
// is for new packets only.
TEST_F(UdpChannelTest, PacketsWaitForConnectAndKeepTheirDestination) {
  RefPtr<IChannelSendOption> o = Schedule({60, 10000});
  EXPECT_EQ(3u, SendOk(o) + SendOk(o));  // cookies 1 and 2
  size_t sentAtConnect = 99;
  sink->hook = [&](const Event& e) {
    if (e.kind == "connect") sentAtConnect = FakeUdpFactory::At(0)->sent.size();
  };
  ConnectOk(channel);
  EXPECT_EQ(2u, sentAtConnect);
  OnLoop([&] {
    EXPECT_EQ(0, FakeUdpFactory::At(0)->openPorts.at(0));
    FakeUdpFactory::At(0)->CompleteSend(0);
    FakeUdpFactory::At(0)->CompleteSend(0);
  });
  EXPECT_EQ((Trace{"connect:0", "send:1", "send:2"}), sink->Trace());
  EXPECT_EQ(0, channel->ChangeDest(IPEndPoint("127.0.0.1", 9100)));
  SendOk(o);
  ASSERT_TRUE(zstest::WaitUntil([&] { return Sent() >= 6; }));  // and each sent again
  OnLoop([&] {
    for (const auto& d : FakeUdpFactory::At(0)->sent)
      EXPECT_EQ(d.dest.GetAddress().GetString() + ":" + std::to_string(d.dest.GetPort()),
                d.ctx == reinterpret_cast<void*>(3) ? "127.0.0.1:9100" : "127.0.0.1:9000");
  });
  IPEndPoint dest;
  channel->GetDestAddr(dest);
  EXPECT_EQ(9000, dest.GetPort());
}

TEST_F(UdpChannelTest, FailedConnectTimesOutPendingPacketsBeforeOnConnect) {
  unsigned cookie = 77;  // bad input is refused first
  EXPECT_EQ(-1, channel->Send(nullptr, nullptr, cookie));
  EXPECT_EQ(-1, channel->Send(zstest::Buf(""), nullptr, cookie));
  EXPECT_EQ(-1, channel->Send(zstest::Buf("x"), Schedule({}), cookie));
  EXPECT_EQ(-1, channel->Connect(nullptr, 9000, nullptr));
  EXPECT_EQ(77u, cookie);
  SendOk(longSchedule);
  SendOk(nullptr);
  ASSERT_EQ(0, channel->Connect("nothing.invalid", 9000, nullptr));
  ASSERT_EQ(0, channel->Connect("", 9000, nullptr));
  ASSERT_TRUE(sink->Wait("connect", 2));
  EXPECT_EQ((Trace{"timeout:1:0", "timeout:2:0", "connect:-1", "connect:-1"}), sink->Trace());
  EXPECT_EQ(nullptr, FakeUdpFactory::At(0).Get());                                     // no socket was made
  EXPECT_EQ(1, log.CountPrefix("timeout, cookie=2, retry=0, send=0, send-count=3,"));  // the library's schedule
}

TEST_F(UdpChannelTest, BindFailuresReachOnConnect) {
  struct Case {
    unsigned short min, max;
    std::vector<int> openResults;
    int startRecvResult, status;
    std::vector<unsigned short> tried;
  } cases[] = {
      {5000, 5002, {-98, -98, -98, 0}, 0, -98, {5000, 5001, 5002}},  // every port of the range, in order
      {5000, 5002, {-98, 0}, 0, 0, {5000, 5001}},
      {5000, 10, {-98, 0}, 0, -98, {5000}},  // max below min: min alone
      {0, 0, {}, -9, -9, {0}},               // the receive could not be armed
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    FakeUdpFactory::Reset(cases[i].openResults, cases[i].startRecvResult);
    ChannelConnectOption option;
    option.bindPortMin = cases[i].min;
    option.bindPortMax = cases[i].max;
    ASSERT_EQ(0, channel->Connect("127.0.0.1", 9000, &option));
    ASSERT_TRUE(sink->Wait("connect", i + 1));
    EXPECT_EQ(cases[i].status, sink->Of("connect")[i].status) << i;
    EXPECT_EQ(cases[i].tried, FakeUdpFactory::At(0)->openPorts) << i;
  }
}

// The last reference goes inside OnTimeout (from ForceAllTimeout and from the
// timer) and inside OnRecv; a batch in progress finishes first.
TEST_F(UdpChannelTest, LastReferenceMayGoInsideCallbacks) {
  struct Case {
    const char* kind;
    std::function<void(IChannel*)> trigger;
    size_t events;
  } cases[] = {{"timeout", [](IChannel* c) { c->ForceAllTimeout(); }, 2},
               {"recv", [](IChannel*) { FakeUdpFactory::made.back()->Deliver("x", IPEndPoint("127.0.0.1", 9000)); }, 1},
               {"timeout", nullptr, 1}};  // the last: the timer's
  int gone = 0;
  for (const Case& c : cases) {
    RefPtr<IChannel> owner = NewChannel();
    ConnectOk(owner);
    SendOk(c.trigger ? longSchedule.Get() : Schedule({20}).Get(), owner);
    if (c.trigger) SendOk(longSchedule, owner);
    IChannel* raw = owner.Detach();
    size_t before = sink->Count(c.kind);
    sink->hook = [&, kind = std::string(c.kind)](const Event& e) {
      if (e.kind == kind && raw) std::exchange(raw, nullptr)->Release();
    };
    if (c.trigger) OnLoop([&] { c.trigger(raw); });
    ASSERT_TRUE(sink->Wait(c.kind, before + c.events));
    ++gone;
    EXPECT_TRUE(zstest::WaitUntil([&] { return log.Count(kQuietClose) == gone; }));
    sink->hook = nullptr;
  }
}

TEST_F(UdpChannelTest, ReleaseOnAnotherThreadWithAResolutionInFlight) {
  ASSERT_EQ(0, channel->Connect("gone-before-answer.invalid", 9000, nullptr));
  SendOk(longSchedule);
  channel = nullptr;
  EXPECT_TRUE(zstest::WaitUntil(
      [&] { return log.CountPrefix("_OnHostResolveResult, fail, host=gone-before-answer.invalid") == 1; }));
  zstest::Drain(loop);
  EXPECT_EQ(0u, sink->Count(""));  // the answer found nobody
  // Destroying closes the way Close does: the _Close line, then the socket's.
  std::vector<std::string> lines;
  for (const auto& line : log.Lines())
    if (line.tag == "udp_channel") lines.push_back(line.message);
  EXPECT_EQ((Trace{"UdpChannelImpl::_Close", kQuietClose}), Trace(lines.end() - 2, lines.end()));
}

class ChannelE2ETest : public UdpChannelTest {
 protected:
  void SetUp() override {
    UdpChannelTest::SetUp();
    UdpChannelImpl::SetUdpFactoryForTesting(nullptr);
  }
};

TEST_F(ChannelE2ETest, DnsQueryOnLoopback) {
  zstest::ChildProcess dnsmasq;
  unsigned short port = 0;
  std::string why = zstest::StartDnsmasq(dnsmasq, &port);
  if (!why.empty()) GTEST_SKIP() << why;
  std::atomic<unsigned> cookie{0};  // sent from the loop thread: known before any answer
  sink->hook = [&](const Event& e) {
    if (e.kind == "recv") channel->CancelSend(cookie, nullptr, nullptr);
  };
  ConnectOk(channel, port);
  std::vector<unsigned char> query = zstest::DnsQuery(0x1234, "example.test");
  OnLoop([&] { cookie = SendOk(Schedule({300, 300, 300, 300}), nullptr, std::string(query.begin(), query.end())); });
  ASSERT_TRUE(sink->Wait("recv", 1));
  std::string answer = sink->Of("recv")[0].data;
  EXPECT_EQ(answer.substr(0, 2), "\x12\x34");                                               // the query's id
  EXPECT_EQ(std::string("\x0a\x01\x02\x03", 4), answer.substr(answer.size() - 4));          // the A record: 10.1.2.3
  EXPECT_TRUE(zstest::WaitUntil([&] { return log.CountPrefix("recv, cookie=1,") == 1; }));  // cancelled
  EXPECT_EQ(0u, sink->Count("timeout"));
}

// A datagram to a closed port comes back as ICMP "port unreachable": Linux
// reports it on a later receive of a connected socket, Windows on any socket's
// next receive.  Neither may end the receive the channel keeps armed.
TEST_F(ChannelE2ETest, ClosedPortLeavesTheChannelOpenUntilThePortAnswers) {
  RefPtr<IUdp> echo;
  IPEndPoint closed;
  ASSERT_TRUE(CreateUdp(echo, &loop) && echo->Open(IPEndPoint("127.0.0.1", 0)) == 0);
  echo->GetLocalAddress(closed);
  echo->Close();
  ConnectOk(channel, closed.GetPort());
  unsigned cookie = SendOk(Schedule(std::vector<int>(30, 100)));
  ASSERT_TRUE(sink->Wait("send", 2));  // the second after the first one's report
  auto echoSink = zstest::NewRecorder();
  echoSink->hook = [&](const Event& e) {
    if (e.kind == "recv") echo->Send(zstest::Buf(e.data), e.address, nullptr);
  };
  ASSERT_TRUE(CreateUdp(echo, &loop));
  echo->SetSink(echoSink);
  ASSERT_EQ(0, echo->Open(closed)) << "port " << closed.GetPort() << " was taken meanwhile";
  ASSERT_EQ(0, echo->StartRecv(zstest::Buf(std::string(2048, '\0')), nullptr));
  ASSERT_TRUE(sink->Wait("recv", 1));
  int send = -1;
  channel->CancelSend(cookie, nullptr, &send);
  EXPECT_GE(send, 3);
  EXPECT_EQ(0u, sink->Count("close") + sink->Count("timeout"));
  echo->Close();
}

// The wrapper owns its channel: once it goes, so does the channel (on the
// default loop, whose thread outlives the test).
TEST(UdpChannelWrapper, ReleasesItsChannel) {
  zstest::LogRecorder log;
  { UdpChannel channel; }
  EXPECT_TRUE(zstest::WaitUntil([&] { return log.Count("UdpChannelImpl::_Close") == 1; }));
}

int ConnectByName(std::string& report) {
  zstest::ChildProcess dnsmasq;
  unsigned short port = 53;
  if (!(report = zstest::StartDnsmasq(dnsmasq, &port)).empty()) return 77;
  RefPtr<IChannel> channel;
  CreateUdpChannel(channel, nullptr);
  auto sink = zstest::NewRecorder();
  channel->SetSink(sink);
  IPEndPoint dest;
  channel->Connect("example.test", 7777, nullptr);
  sink->Wait("connect", 1, std::chrono::seconds(20));
  channel->GetDestAddr(dest);
  channel->Connect("nothing.invalid", 7777, nullptr);
  sink->Wait("connect", 2, std::chrono::seconds(20));
  channel->Close();
  for (const std::string& e : sink->Trace()) report += e + " ";
  report += dest.GetAddress().GetString() + ":" + std::to_string(dest.GetPort());
  return report == "connect:0 connect:-1 10.1.2.3:7777" ? 0 : 1;
}
zstest::ChildRegistration g_connectByName("ConnectByName", ConnectByName);

TEST(UdpChannelNetnsTest, ConnectsByNameThroughDnsmasqInANamespace) { ZS_EXPECT_CHILD_PASSES("ConnectByName"); }

}  // namespace
}  // namespace zelsocket
