// A datagram sent to a port nobody listens on comes back as ICMP "port
// unreachable".  Windows turns that into WSAECONNRESET on the socket's next
// receive, Linux into ECONNREFUSED on a connected socket; either could end a
// receive that a socket or channel keeps armed.  These run on both systems:
// after sending into a closed port, the socket and the channel still receive.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "channel/channel_sink.h"
#include "channel/channel_test_util.h"
#include "support/test_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/channel.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/udp.h"

namespace {

using namespace zelsocket;

class RecvSink : public IUdpSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnSend(int status, IConstBuffer*, const IPEndPoint&, void*) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    sends.push_back(status);
  }
  void OnRecv(int status, IMutableBuffer* buffer, const IPEndPoint& from, void*) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    recvs.push_back({status, std::string(reinterpret_cast<const char*>(buffer->GetBuf()),
                                         static_cast<size_t>(buffer->GetLength())), from});
    if (onRecv) onRecv(buffer, from);
  }
  struct Recv {
    int status;
    std::string data;
    IPEndPoint from;
  };
  std::vector<int> Sends() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return sends;
  }
  std::vector<Recv> Recvs() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return recvs;
  }
  // Runs on the loop thread, under the sink's lock; set before the socket opens.
  std::function<void(IMutableBuffer*, const IPEndPoint&)> onRecv;

 private:
  std::mutex m_mutex;
  std::vector<int> sends;
  std::vector<Recv> recvs;
};

// A loopback port that was bound a moment ago and is closed now.
unsigned short ClosedPort(IOLoop* loop) {
  RefPtr<IUdp> probe;
  if (!CreateUdp(probe, loop) || probe->Open(IPEndPoint("127.0.0.1", 0)) != 0) return 0;
  IPEndPoint local;
  probe->GetLocalAddress(local);
  probe->Close();
  return local.GetPort();
}

// An open socket on `loop` that answers every datagram with its own bytes.
struct Echo {
  Echo(IOLoop* loop, unsigned short port) {
    sink.Attach(new RecvSink());
    sink->onRecv = [this](IMutableBuffer* buffer, const IPEndPoint& from) {
      RefPtr<IMutableBuffer> copy;
      CreateBuffer(copy);
      copy->CopyFrom(buffer->GetBuf(), buffer->GetLength());
      udp->Send(copy, from, nullptr);
    };
    if (!CreateUdp(udp, loop)) return;
    udp->SetSink(sink);
    opened = udp->Open(IPEndPoint("127.0.0.1", port));
    if (opened == 0) {
      RefPtr<IMutableBuffer> buffer;
      CreateBuffer(buffer);
      buffer->Reserve(2048);
      udp->StartRecv(buffer, nullptr);
    }
  }
  ~Echo() {
    if (udp) udp->Close();
  }
  RefPtr<RecvSink> sink;
  RefPtr<IUdp> udp;
  int opened = -1;
};

class ClosedPortTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, loop.Start());
    ASSERT_EQ(0, peerLoop.Start());
    port = ClosedPort(&peerLoop);
    ASSERT_NE(0, port);
  }
  void TearDown() override {
    EXPECT_EQ(0, loop.Stop());
    EXPECT_EQ(0, peerLoop.Stop());
  }
  IOLoop loop;
  IOLoop peerLoop;
  unsigned short port = 0;
};

TEST_F(ClosedPortTest, SocketKeepsReceivingAfterSendingToAClosedPort) {
  RefPtr<RecvSink> sink;
  sink.Attach(new RecvSink());
  RefPtr<IUdp> udp;
  ASSERT_TRUE(CreateUdp(udp, &loop));
  udp->SetSink(sink);
  ASSERT_EQ(0, udp->Open(IPEndPoint("127.0.0.1", 0)));
  RefPtr<IMutableBuffer> buffer;
  CreateBuffer(buffer);
  buffer->Reserve(2048);
  ASSERT_EQ(0, udp->StartRecv(buffer, nullptr));
  IPEndPoint local;
  ASSERT_EQ(0, udp->GetLocalAddress(local));

  // Two rounds, so that an error left pending by the first send would meet a
  // receive that is already armed again.
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(0, udp->Send(zstest::Bytes("into the void"), IPEndPoint("127.0.0.1", port), nullptr));
    ASSERT_TRUE(zstest::WaitUntil([&] { return sink->Sends().size() == static_cast<size_t>(i + 1); }));
  }
  EXPECT_EQ((std::vector<int>{0, 0}), sink->Sends());

  Echo peer(&peerLoop, 0);
  ASSERT_EQ(0, peer.opened);
  ASSERT_EQ(0, peer.udp->Send(zstest::Bytes("still here"), IPEndPoint("127.0.0.1", local.GetPort()), nullptr));
  ASSERT_TRUE(zstest::WaitUntil([&] {
    for (const auto& r : sink->Recvs())
      if (r.status == 0 && r.data == "still here") return true;
    return false;
  }));
  EXPECT_TRUE(udp->IsOpen());
  for (const auto& r : sink->Recvs()) EXPECT_EQ(0, r.status) << "a receive reported " << r.status;
  udp->Close();
}

TEST_F(ClosedPortTest, ChannelToAClosedPortStaysOpenAndIsAnsweredOnceThePortOpens) {
  RefPtr<IChannel> channel;
  ASSERT_TRUE(CreateUdpChannel(channel, &loop));
  RefPtr<zstest::ChannelSink> sink;
  sink.Attach(new zstest::ChannelSink());
  channel->SetSink(sink);
  ASSERT_EQ(0, channel->Connect("127.0.0.1", port, nullptr));
  ASSERT_TRUE(sink->WaitCount("connect:0", 1));

  RefPtr<IChannelSendOption> schedule =
      zstest::Schedule({100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100,
                        100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100});
  unsigned int cookie = 0;
  ASSERT_EQ(0, channel->Send(zstest::Bytes("ping"), schedule, cookie));
  // Two transmissions into the closed port: the second follows the first's
  // unreachable report.
  ASSERT_TRUE(sink->WaitCount("send:" + std::to_string(cookie), 2));

  Echo echo(&peerLoop, port);
  ASSERT_EQ(0, echo.opened) << "port " << port << " was taken in the meantime";
  ASSERT_TRUE(sink->WaitCount("recv:4", 1));
  EXPECT_EQ("ping", sink->Received().front());
  int retry = -1, send = -1;
  channel->CancelSend(cookie, &retry, &send);
  EXPECT_GE(send, 3);
  EXPECT_EQ(0, sink->Count("close"));
  EXPECT_EQ(0, sink->Count("timeout:"));
  channel->Close();
}

}  // namespace
