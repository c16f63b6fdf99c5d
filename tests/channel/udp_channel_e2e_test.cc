// The channel over real sockets, against real peers on loopback: a responder
// that drops the first copies of each request, and a DNS server.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "channel/channel_test_util.h"
#include "channel/channel_sink.h"
#include "support/process.h"
#include "support/test_support.h"
#include "support/udp_echo_peer.h"
#include "zelsocket/channel.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/udp.h"

using namespace zelsocket;

namespace {

using zstest::Bytes;
using zstest::Schedule;

// Answers each request by echoing it, after dropping its first `drop` copies.
// Requests are told apart by their first four bytes.
class DroppingResponder : public zstest::UdpEchoPeer {
 public:
  explicit DroppingResponder(int drop)
      : zstest::UdpEchoPeer([drop, seen = std::map<std::string, int>()](const std::string& datagram) mutable {
          return ++seen[datagram.substr(0, 4)] > drop;
        }) {}
};

bool HaveRealSockets() {
  RefPtr<IUdp> udp;
  return CreateUdp(udp, nullptr) && udp;
}

class ChannelE2ETest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!HaveRealSockets()) GTEST_SKIP() << "this build has no UDP socket";
    ASSERT_EQ(0, loop.Start());
    ASSERT_TRUE(CreateUdpChannel(channel, &loop));
    sink.Attach(new zstest::ChannelSink());
    channel->SetSink(sink);
  }
  void TearDown() override {
    if (!channel) return;
    channel = nullptr;
    EXPECT_EQ(0, loop.Stop());
  }

  IOLoop loop;
  RefPtr<IChannel> channel;
  RefPtr<zstest::ChannelSink> sink;
};

TEST_F(ChannelE2ETest, RetransmitsUntilTheResponderAnswers) {
  DroppingResponder responder(2);
  std::atomic<unsigned int> answered{0};
  std::map<std::string, unsigned int> cookieById;
  std::mutex mutex;
  sink->onRecv = [&](int) {
    std::string id = sink->Received().back().substr(0, 4);
    unsigned int cookie;
    {
      std::lock_guard<std::mutex> lock(mutex);
      cookie = cookieById[id];
    }
    int retry = -1, send = -1;
    channel->CancelSend(cookie, &retry, &send);
    EXPECT_EQ(3, send);
    answered = cookie;
  };
  // Sent before Connect: waits, then leaves with the connection.
  RefPtr<IChannelSendOption> o = Schedule({60, 60, 60, 60, 60, 60, 60, 60});
  unsigned int cookie = 0;
  RefPtr<IConstBuffer> b = Bytes("req1-payload", 12);
  {
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(0, channel->Send(b, o, cookie));
    cookieById["req1"] = cookie;
  }
  ASSERT_EQ(0, channel->Connect("127.0.0.1", responder.Port(), nullptr));
  ASSERT_TRUE(sink->WaitCount("connect:0", 1));
  ASSERT_TRUE(zstest::WaitUntil([&] { return answered.load() == cookie; }));
  EXPECT_TRUE(sink->WaitCount("send:" + std::to_string(cookie), 3));
  EXPECT_EQ(3, responder.Received());
  EXPECT_EQ(0, sink->Count("timeout:"));
  EXPECT_EQ((std::vector<std::string>{"req1-payload"}), sink->Received());
}

// dnsmasq on loopback, reached by address and by name.
TEST_F(ChannelE2ETest, DnsQueryThroughTheChannel) {
  zstest::ChildProcess dnsmasq;
  unsigned short port = 0;
  for (int attempt = 0; attempt < 5 && port == 0; ++attempt) {
    unsigned short candidate = zstest::FreeUdpPort();
    ASSERT_TRUE(zstest::StartDnsmasq(dnsmasq, candidate));
    if (zstest::WaitForDns(candidate, std::chrono::seconds(5))) {
      port = candidate;
    } else {
      dnsmasq.Kill();
    }
  }
  ASSERT_NE(0, port) << dnsmasq.Output();

  for (const char* host : {"127.0.0.1", "localhost"}) {
    SCOPED_TRACE(host);
    std::atomic<unsigned int> cookie{0};
    std::atomic<bool> matched{false};
    std::atomic<int> sendAtCancel{-1};
    const std::uint16_t id = host[0] == '1' ? 0x1111 : 0x2222;
    std::string answer;
    sink->onRecv = [&](int) {
      std::string data = sink->Received().back();
      if (data.size() < 16) return;
      std::uint16_t got = static_cast<std::uint16_t>((static_cast<unsigned char>(data[0]) << 8) |
                                                     static_cast<unsigned char>(data[1]));
      if (got != id) return;
      int retry = 0, send = 0;
      channel->CancelSend(cookie.load(), &retry, &send);
      sendAtCancel = send;
      answer = data;
      matched = true;
    };
    int connects = sink->Count("connect:0");
    ASSERT_EQ(0, channel->Connect(host, port, nullptr));
    ASSERT_TRUE(sink->WaitCount("connect:0", connects + 1));
    std::vector<unsigned char> query = zstest::DnsQuery(id, "example.test");
    RefPtr<IConstBuffer> b = Bytes(query.data(), query.size());
    unsigned int c = 0;
    RefPtr<IChannelSendOption> o = Schedule({300, 300, 300, 300});
    // The callback may run before Send returns: publish the cookie under the
    // loop's own order by sending from the loop thread.
    ASSERT_EQ(0, loop.SyncCall([&] {
      ASSERT_EQ(0, channel->Send(b, o, c));
      cookie = c;
    }));
    ASSERT_TRUE(zstest::WaitUntil([&] { return matched.load(); }));
    EXPECT_GE(sendAtCancel.load(), 1);
    // The A record's data ends the answer: 10.1.2.3.
    ASSERT_GE(answer.size(), 4u);
    EXPECT_EQ(std::string("\x0a\x01\x02\x03", 4), answer.substr(answer.size() - 4));
    // The packet is gone: a second cancel finds nothing, so no timeout can come.
    int retry = 7, send = 7;
    channel->CancelSend(c, &retry, &send);
    EXPECT_EQ(0, send);
    EXPECT_EQ(0, sink->Count("timeout:"));
    IPEndPoint dest;
    channel->GetDestAddr(dest);
    EXPECT_EQ("127.0.0.1", dest.GetAddress().GetString());
  }
}

// The library's default schedule, end to end, against a peer that never answers.
TEST_F(ChannelE2ETest, DefaultScheduleTimesOutAfterFifteenSeconds) {
  DroppingResponder silent(1000);
  ASSERT_EQ(0, channel->Connect("127.0.0.1", silent.Port(), nullptr));
  ASSERT_TRUE(sink->WaitCount("connect:0", 1));
  auto start = std::chrono::steady_clock::now();
  unsigned int cookie = 0;
  RefPtr<IConstBuffer> b = Bytes("ping", 4);
  ASSERT_EQ(0, channel->Send(b, nullptr, cookie));
  ASSERT_TRUE(sink->WaitCount("timeout:", 1, std::chrono::seconds(40)));
  auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ("timeout:" + std::to_string(cookie) + ":3", sink->Events().back());
  EXPECT_GE(elapsed, std::chrono::milliseconds(14900));
  EXPECT_EQ(3, silent.Received());
  EXPECT_EQ(3, sink->Count("send:"));
}

// The last reference goes on the test thread while answers, send reports and
// retransmissions are in flight on the loop thread.
TEST_F(ChannelE2ETest, ReleaseOnAnotherThreadWhileTrafficFlows) {
  zstest::LogRecorder log;
  DroppingResponder echo(0);
  RefPtr<IChannelSendOption> o = Schedule({5, 5, 5, 5, 5, 5, 5, 5});
  for (int round = 0; round < 20; ++round) {
    RefPtr<IChannel> c;
    ASSERT_TRUE(CreateUdpChannel(c, &loop));
    RefPtr<zstest::ChannelSink> s;
    s.Attach(new zstest::ChannelSink());
    c->SetSink(s);
    ASSERT_EQ(0, c->Connect("127.0.0.1", echo.Port(), nullptr));
    ASSERT_TRUE(s->WaitCount("connect:0", 1));
    for (int i = 0; i < 20; ++i) {
      unsigned int cookie = 0;
      RefPtr<IConstBuffer> b = Bytes("abcd", 4);
      ASSERT_EQ(0, c->Send(b, o, cookie));
    }
    if (round % 2) {
      ASSERT_TRUE(s->WaitCount("recv:", 1));
    }
    // Sends still queued for the loop hold the channel; it dies with the last
    // of them, or here.  Once the queue has been run through, it is gone and
    // silent.
    c = nullptr;
    ASSERT_EQ(0, loop.SyncCall([] {}));
    EXPECT_EQ(round + 1, log.Count("UdpChannelImpl::_CloseSocket, forceAllTimeout=0, notifyOnClose=0"));
    size_t events = s->Events().size();
    ASSERT_EQ(0, loop.SyncCall([] {}));
    EXPECT_EQ(events, s->Events().size());
  }
}

TEST(UdpChannelNetnsChild, ConnectsByNameThroughTheNamespaceDnsServer) {
  if (!zstest::InNamespaceChild()) GTEST_SKIP() << "runs only as the child of UdpChannelNetns";
  zstest::ChildProcess dnsmasq;
  ASSERT_TRUE(zstest::StartDnsmasq(dnsmasq, 53));
  ASSERT_TRUE(zstest::WaitForDns(53, std::chrono::seconds(10))) << dnsmasq.Output();
  RefPtr<IChannel> channel;
  ASSERT_TRUE(CreateUdpChannel(channel, nullptr));
  RefPtr<zstest::ChannelSink> sink;
  sink.Attach(new zstest::ChannelSink());
  channel->SetSink(sink);
  ASSERT_EQ(0, channel->Connect("example.test", 7777, nullptr));
  ASSERT_TRUE(sink->WaitCount("connect:", 1));
  EXPECT_EQ("connect:0", sink->Events().at(0));
  IPEndPoint dest;
  channel->GetDestAddr(dest);
  EXPECT_EQ("10.1.2.3", dest.GetAddress().GetString());
  EXPECT_EQ(7777, dest.GetPort());
  ASSERT_EQ(0, channel->Connect("nothing.invalid", 7777, nullptr));
  ASSERT_TRUE(sink->WaitCount("connect:", 2));
  EXPECT_EQ("connect:-1", sink->Events().at(1));
  channel->Close();
}

TEST(UdpChannelNetns, ConnectByRealNameEndToEnd) {
  if (zstest::InNamespaceChild()) GTEST_SKIP() << "parent only";
  if (!HaveRealSockets()) GTEST_SKIP() << "this build has no UDP socket";
  zstest::NetNamespace ns("zschannel" + std::to_string(getpid()));
  std::string why = ns.Create();
  if (!why.empty()) GTEST_SKIP() << "cannot make a network namespace here: " << why;
  std::string output;
  EXPECT_TRUE(zstest::RunSelfInNamespace(ns.Name(), "UdpChannelNetnsChild.*", 1, &output)) << output;
}

}  // namespace
