// The last release of a TCP socket whose writes are stuck in flight (the peer
// reads nothing) closes it on its loop thread at once and lets its sink go.
#include <gtest/gtest.h>

#include "support/peers.h"
#include "support/recorder.h"
#include "zelsocket/tcp.h"

namespace zelsocket {
namespace {

using Clock = std::chrono::steady_clock;

// Accepts connections and never reads from them.
class DeafTcpPeer : public zstest::EchoPeer {
 public:
  DeafTcpPeer() {
    Run<uv_tcp_t>("127.0.0.1", [this](uv_tcp_t* server, const sockaddr* addr) {
      uv_tcp_init(&m_loop, server);
      uv_tcp_bind(server, addr, 0);
      uv_listen(reinterpret_cast<uv_stream_t*>(server), 8, [](uv_stream_t* s, int status) {
        auto* conn = New<uv_tcp_t>(s->data);
        uv_tcp_init(s->loop, conn);
        if (status != 0 || uv_accept(s, reinterpret_cast<uv_stream_t*>(conn)) != 0)
          uv_close(reinterpret_cast<uv_handle_t*>(conn), Free);
      });
    });
  }
};

TEST(TcpRelease, OnAnotherThreadWithWritesInFlightLetsTheSinkGoPromptly) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  DeafTcpPeer peer;
  auto sink = zstest::NewRecorder();
  RefPtr<ITcp> tcp;
  ASSERT_TRUE(CreateTcp(tcp, &loop));
  tcp->SetSink(sink);
  ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", peer.Port()), nullptr), 0);
  ASSERT_TRUE(sink->Wait("connect", 1));
  ASSERT_EQ(sink->Of("connect")[0].status, 0);
  // Writes of 256 KiB, each sent when the last is reported, until one stays in
  // flight: the peer's window and both buffers are full.
  auto chunk = zstest::Buf(std::string(256 * 1024, 'x'));
  size_t sent = 0;
  for (; sent < 400; ++sent) {
    ASSERT_EQ(tcp->Send(chunk, nullptr), 0);
    if (!sink->Wait("send", sent + 1, std::chrono::milliseconds(300))) break;
  }
  ASSERT_LT(sent, 400u) << "100 MiB went out to a peer that reads nothing";
  auto began = Clock::now();
  std::thread([&] { tcp = nullptr; }).join();
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began).count(), 2000);
  EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(static_cast<ITcpSink*>(sink.Get())) == 1; },
                                std::chrono::milliseconds(2000)))
      << "references to the sink beside the test's: " << zstest::CountOf(static_cast<ITcpSink*>(sink.Get())) - 1;
  EXPECT_EQ(loop.Stop(), 0);
}

}  // namespace
}  // namespace zelsocket
