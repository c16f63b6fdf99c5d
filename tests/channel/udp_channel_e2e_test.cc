// The channel over real sockets against real peers: a responder that drops the
// first copies of each request, and dnsmasq, on loopback and by name in a
// namespace of its own.
#include <gtest/gtest.h>

#include <atomic>
#include <map>

#include "channel/fake_udp.h"
#include "support/peers.h"
#include "support/process.h"

namespace zelsocket {
namespace {

using zstest::Schedule;

class ChannelE2ETest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, loop.Start());
    Open();
  }
  void Open() {
    sink = zstest::NewRecorder();
    ASSERT_TRUE(CreateUdpChannel(channel, &loop));
    channel->SetSink(sink);
  }
  void CancelOnAnswer() {
    sink->hook = [this](const zstest::Event& e) {
      if (e.kind == "recv") channel->CancelSend(cookie, nullptr, &sendAtCancel);
    };
  }
  void TearDown() override {
    channel = nullptr;
    EXPECT_EQ(0, loop.Stop());
  }
  // From the loop thread, so that the cookie is known before any answer.
  void SendFromLoop(const std::string& data, IChannelSendOption* option) {
    loop.SyncCall([&] { EXPECT_EQ(0, channel->Send(zstest::Buf(data), option, cookie)); });
  }

  zstest::LogRecorder log;
  IOLoop loop;
  RefPtr<IChannel> channel;
  RefPtr<zstest::Recorder> sink;
  unsigned cookie = 0;
  int sendAtCancel = -1;
};

TEST_F(ChannelE2ETest, RetransmitsUntilTheResponderAnswers) {
  std::map<std::string, int> seen;  // the responder's thread only
  zstest::UdpEchoPeer responder([&](const std::string& d) { return ++seen[d] > 2; });
  CancelOnAnswer();
  SendFromLoop("req1", Schedule({60, 60, 60, 60, 60, 60, 60, 60}));  // waits for Connect
  ASSERT_EQ(0, channel->Connect("127.0.0.1", responder.Port(), nullptr));
  ASSERT_TRUE(sink->Wait("recv", 1));
  EXPECT_EQ(3, sendAtCancel);
  EXPECT_EQ(3, responder.Received());
  ASSERT_TRUE(sink->Wait("send", 3));
  EXPECT_EQ(0u, sink->Count("timeout"));
  EXPECT_EQ("req1", sink->Of("recv")[0].data);
}

TEST_F(ChannelE2ETest, DnsQueryByAddressAndByName) {
  zstest::ChildProcess dnsmasq;
  unsigned short port = 0;
  std::string why = zstest::StartDnsmasq(dnsmasq, &port);
  if (!why.empty()) GTEST_SKIP() << why;
  CancelOnAnswer();
  for (const char* host : {"127.0.0.1", "localhost"}) {
    size_t n = sink->Count("connect");
    ASSERT_EQ(0, channel->Connect(host, port, nullptr));
    ASSERT_TRUE(sink->Wait("connect", n + 1));
    ASSERT_EQ(0, sink->Of("connect")[n].status) << host;
    std::vector<unsigned char> query = zstest::DnsQuery(static_cast<std::uint16_t>(0x1111 * (n + 1)), "example.test");
    SendFromLoop(std::string(query.begin(), query.end()), Schedule({300, 300, 300, 300}));
    ASSERT_TRUE(sink->Wait("recv", n + 1)) << host;
    std::string answer = sink->Of("recv")[n].data;
    EXPECT_EQ(answer.substr(0, 2), std::string(query.begin(), query.begin() + 2));    // the query's id
    EXPECT_EQ(std::string("\x0a\x01\x02\x03", 4), answer.substr(answer.size() - 4));  // the A record: 10.1.2.3
    IPEndPoint dest;
    channel->GetDestAddr(dest);
    EXPECT_EQ("127.0.0.1", dest.GetAddress().GetString());
  }
  EXPECT_EQ(0u, sink->Count("timeout"));
}

// The last reference goes on the test thread while answers, send reports and
// retransmissions are in flight on the loop thread.
TEST_F(ChannelE2ETest, ReleaseOnAnotherThreadWhileTrafficFlows) {
  zstest::UdpEchoPeer echo;
  for (int round = 1; round <= 20; ++round) {
    ASSERT_EQ(0, channel->Connect("127.0.0.1", echo.Port(), nullptr));
    ASSERT_TRUE(sink->Wait("connect", 1));
    for (int i = 0; i < 20; ++i) ASSERT_EQ(0, channel->Send(zstest::Buf("abcd"), Schedule({5, 5, 5, 5, 5, 5}), cookie));
    ASSERT_TRUE(round % 2 == 0 || sink->Wait("recv", 1));
    channel = nullptr;  // posted sends may hold it a little longer; once they have run, it is gone and silent
    zstest::Drain(loop);
    EXPECT_EQ(round, log.Count("UdpChannelImpl::_CloseSocket, forceAllTimeout=0, notifyOnClose=0"));
    size_t events = sink->Count("");
    zstest::Drain(loop);
    EXPECT_EQ(events, sink->Count(""));
    Open();
  }
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
