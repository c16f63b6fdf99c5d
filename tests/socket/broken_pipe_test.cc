#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "socket/tcp_peer.h"
#include "zelsocket/buffer.h"
#include "zelsocket/tcp.h"

namespace zelsocket {
namespace {

sighandler_t PipeDisposition() {
  struct sigaction current = {};
  sigaction(SIGPIPE, nullptr, &current);
  return current.sa_handler;
}

// A write to a peer that has gone must come back as an error, without the
// library touching the process-wide SIGPIPE disposition, which here is the
// default one: the signal would end the process.
TEST(BrokenPipeTest, WriteToClosedPeerFailsAndLeavesSigpipeDefault) {
  struct sigaction dfl = {}, saved = {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  ASSERT_EQ(0, sigaction(SIGPIPE, &dfl, &saved));

  {
    IOLoop loop;
    ASSERT_EQ(0, loop.Start());
    EXPECT_EQ(SIG_DFL, PipeDisposition());

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
    peer.CloseConn();

    // The first write may still be accepted (the peer answers it with a reset);
    // a later one meets the broken pipe.
    int failed = 0;
    for (std::size_t n = 1; n <= 50 && failed == 0; ++n) {
      RefPtr<IMutableBuffer> data;
      ASSERT_TRUE(CreateBuffer(data));
      data->CopyFrom("ping", 4);
      ASSERT_EQ(0, tcp->Send(data, nullptr));
      ASSERT_TRUE(sink->WaitFor(zstest::TcpEvent::kSend, n));
      failed = sink->Of(zstest::TcpEvent::kSend).back().status;
    }
    EXPECT_LT(failed, 0);
    EXPECT_EQ(SIG_DFL, PipeDisposition());
    tcp->Close();
    tcp = nullptr;
    EXPECT_EQ(0, loop.Stop());
  }
  sigaction(SIGPIPE, &saved, nullptr);
}

}  // namespace
}  // namespace zelsocket
