#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "socket/tcp_peer.h"
#include "socket/udp_test_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/channel.h"
#include "zelsocket/tcp.h"
#include "zelsocket/udp.h"

namespace zelsocket {
namespace {

constexpr int kRounds = 40;

RefPtr<IMutableBuffer> Text(const std::string& text) {
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  b->CopyFrom(text.data(), static_cast<int>(text.size()));
  return b;
}

// Releases the last reference to `object` on one thread while the main thread
// stops the loop, so that the release meets every stage of the stop: before it,
// during the stop sequence, after the loop's last pass, and after Stop.  The
// teardown must run on the loop thread or with no loop thread left, and must
// leave nothing behind (the sanitizer trees check both).
template <typename T>
void RaceReleaseAgainstStop(IOLoop& loop, RefPtr<T>& object) {
  std::atomic<bool> go{false};
  std::thread releaser([&] {
    while (!go.load()) std::this_thread::yield();
    object = nullptr;
  });
  go = true;
  EXPECT_EQ(0, loop.Stop());
  releaser.join();
}

TEST(TeardownTest, LastReleaseOfAReceivingTcpSocketRacesStop) {
  for (int round = 0; round < kRounds; ++round) {
    IOLoop loop;
    ASSERT_EQ(0, loop.Start());
    zstest::TcpPeer peer;
    ASSERT_TRUE(peer.Ok());
    RefPtr<zstest::RecordingSink> sink;
    sink.Attach(new zstest::RecordingSink());
    RefPtr<ITcp> tcp;
    ASSERT_TRUE(CreateTcp(tcp, &loop));
    tcp->SetSink(sink);
    ASSERT_EQ(0, tcp->Connect(peer.EndPoint(), nullptr));
    ASSERT_TRUE(peer.Accept());
    ASSERT_TRUE(sink->WaitFor(zstest::TcpEvent::kConnect, 1));
    ASSERT_EQ(0, tcp->Recv(Text(""), nullptr));
    ASSERT_EQ(0, tcp->Send(Text("outbound"), nullptr));
    ASSERT_TRUE(peer.Write(std::string(4096, 'x')));  // reads are due as the race begins
    RaceReleaseAgainstStop(loop, tcp);
  }
}

TEST(TeardownTest, LastReleaseOfAReceivingUdpSocketRacesStop) {
  for (int round = 0; round < kRounds; ++round) {
    IOLoop loop;
    ASSERT_EQ(0, loop.Start());
    RefPtr<zstest::UdpRecordingSink> sink;
    sink.Attach(new zstest::UdpRecordingSink(&loop));
    RefPtr<IUdp> udp;
    ASSERT_TRUE(CreateUdp(udp, &loop));
    udp->SetSink(sink);
    ASSERT_EQ(0, udp->Open(IPEndPoint("127.0.0.1", 0)));
    IPEndPoint local;
    ASSERT_EQ(0, udp->GetLocalAddress(local));
    ASSERT_EQ(0, udp->StartRecv(Text(""), nullptr));
    zstest::RawPeer peer;
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(peer.SendTo(local, "datagram"));
    ASSERT_EQ(0, udp->Send(Text("out"), peer.Address(), nullptr));
    RaceReleaseAgainstStop(loop, udp);
  }
}

TEST(TeardownTest, LastReleaseOfAConnectedChannelRacesStop) {
  for (int round = 0; round < kRounds; ++round) {
    IOLoop loop;
    ASSERT_EQ(0, loop.Start());
    zstest::RawPeer peer;
    RefPtr<IChannel> channel;
    ASSERT_TRUE(CreateUdpChannel(channel, &loop));
    ASSERT_EQ(0, channel->Connect("127.0.0.1", peer.Address().GetPort(), nullptr));
    unsigned int cookie = 0;
    for (int i = 0; i < 5; ++i) ASSERT_EQ(0, channel->Send(Text("request"), nullptr, cookie));
    RaceReleaseAgainstStop(loop, channel);
  }
}

}  // namespace
}  // namespace zelsocket
