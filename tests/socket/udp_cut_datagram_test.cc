#include <gtest/gtest.h>

#include <string>

#include "socket/udp_test_support.h"
#include "socket/uv_udp_recv.h"
#include "support/test_support.h"
#include "zelsocket/udp.h"

namespace zelsocket {
namespace {

// A datagram larger than the receive buffer arrives cut to the buffer, and the
// receive path says nothing about it in the log.
TEST(UdpCutDatagramTest, OversizedDatagramIsCutWithoutALogLine) {
  IOLoop loop;
  ASSERT_EQ(0, loop.Start());
  zstest::LogRecorder log;
  RefPtr<zstest::UdpRecordingSink> sink;
  sink.Attach(new zstest::UdpRecordingSink(&loop));
  RefPtr<IUdp> udp;
  ASSERT_TRUE(CreateUdp(udp, &loop));
  udp->SetSink(sink);
  ASSERT_EQ(0, udp->Open(IPEndPoint("127.0.0.1", 0)));
  IPEndPoint local;
  ASSERT_EQ(0, udp->GetLocalAddress(local));
  RefPtr<IMutableBuffer> inbox;
  ASSERT_TRUE(CreateBuffer(inbox));
  ASSERT_EQ(0, udp->Recv(inbox, nullptr));

  zstest::RawPeer peer;
  ASSERT_TRUE(peer.SendTo(local, std::string(UvUdpRecv::kMinRecvSize + 5000, 'z')));
  ASSERT_TRUE(sink->WaitRecvs(1));
  EXPECT_EQ(std::string(UvUdpRecv::kMinRecvSize, 'z'), sink->Recvs()[0].data);
  EXPECT_EQ(0, log.CountPrefix("UvUdpRecv::_RecvCallback"));

  udp->Close();
  udp = nullptr;
  EXPECT_EQ(0, loop.Stop());
}

}  // namespace
}  // namespace zelsocket
