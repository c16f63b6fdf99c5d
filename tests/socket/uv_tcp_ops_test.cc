// The three TCP operations on a raw libuv handle, driven on the loop thread.
#include <gtest/gtest.h>
#include <uv.h>

#include <cstdlib>
#include <string>

#include "socket/tcp_peer.h"
#include "socket/uv_tcp_connect.h"
#include "socket/uv_tcp_recv.h"
#include "socket/uv_tcp_send.h"
#include "support/test_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"

using zelsocket::CreateBuffer;
using zelsocket::IMutableBuffer;
using zelsocket::IOLoop;
using zelsocket::IPEndPoint;
using zelsocket::LOG_LEVEL_ERROR;
using zelsocket::LOG_LEVEL_INFO;
using zelsocket::RefPtr;
using zelsocket::UvTcpConnect;
using zelsocket::UvTcpRecv;
using zelsocket::UvTcpSend;
using zstest::RecordingSink;
using zstest::TcpEvent;
using zstest::TcpPeer;

namespace {

void* Ctx(long n) { return reinterpret_cast<void*>(n); }

class UvTcpOpsTest : public ::testing::Test {
 public:  // reached from libuv callbacks in the tests
  void SetUp() override {
    ASSERT_EQ(loop.Start(), 0);
    sink.Attach(new RecordingSink());
    connectOp.Attach(new UvTcpConnect());
    sendOp.Attach(new UvTcpSend());
    recvOp.Attach(new UvTcpRecv());
    OnLoop([&] {
      handle = static_cast<uv_tcp_t*>(std::calloc(1, sizeof(uv_tcp_t)));
      uv_tcp_init(loop.Loop(), handle);
    });
  }
  void TearDown() override {
    OnLoop([&] {
      recvOp->Cancel();
      sendOp->Cancel();
      connectOp->Cancel();
      CloseHandle();
    });
    zstest::Drain(loop);
    // The ops' records go when libuv has reported the end of their requests.
    connectOp = nullptr;
    sendOp = nullptr;
    recvOp = nullptr;
    loop.Stop();
  }

  void OnLoop(const std::function<void()>& fn) { ASSERT_EQ(loop.SyncCall(fn), 0); }
  void CloseHandle() {
    if (handle) uv_close(reinterpret_cast<uv_handle_t*>(handle), [](uv_handle_t* h) { std::free(h); });
    handle = nullptr;
  }
  uv_stream_t* Stream() { return reinterpret_cast<uv_stream_t*>(handle); }

  void Connect(TcpPeer& peer) {
    ASSERT_TRUE(peer.Ok());
    bool started = false;
    OnLoop([&] { started = connectOp->Connect(handle, peer.EndPoint(), Ctx(1), sink); });
    ASSERT_TRUE(started);
    ASSERT_TRUE(peer.Accept());
    ASSERT_TRUE(sink->WaitFor(TcpEvent::kConnect, 1));
    ASSERT_EQ(sink->Of(TcpEvent::kConnect)[0].status, 0);
  }

  static RefPtr<IMutableBuffer> Buffer(const std::string& data = std::string()) {
    RefPtr<IMutableBuffer> b;
    CreateBuffer(b);
    if (!data.empty()) b->CopyFrom(data.data(), static_cast<int>(data.size()));
    return b;
  }

  IOLoop loop;
  uv_tcp_t* handle = nullptr;
  RefPtr<RecordingSink> sink;
  RefPtr<UvTcpConnect> connectOp;
  RefPtr<UvTcpSend> sendOp;
  RefPtr<UvTcpRecv> recvOp;
};

TEST_F(UvTcpOpsTest, BadOrCancelledConnectsNeverReport) {
  zstest::LogRecorder log;
  TcpPeer peer;
  bool bad = true, started = false, again = true;
  OnLoop([&] {
    bad = connectOp->Connect(handle, IPEndPoint("127.0.0.1", 0), nullptr, sink) ||
          connectOp->Connect(nullptr, peer.EndPoint(), nullptr, sink) ||
          connectOp->Connect(handle, peer.EndPoint(), nullptr, nullptr) || connectOp->IsBusy();
    started = connectOp->Connect(handle, peer.EndPoint(), Ctx(1), sink);
    connectOp->Cancel();
    connectOp->Cancel();  // twice is harmless
    again = connectOp->Connect(handle, peer.EndPoint(), Ctx(2), sink);
    // The handle closes with the request in flight; libuv ends it then.
    CloseHandle();
  });
  EXPECT_FALSE(bad);
  EXPECT_EQ(log.Count("UvTcpConnect::Connect, Invalid Args."), 3);
  EXPECT_TRUE(started);
  EXPECT_FALSE(again);  // busy until libuv has reported
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "op", "Connect, ctx not null, in process."));
  ASSERT_TRUE(zstest::WaitUntil([&] { return log.Count("UvTcpConnect::_OnConnect, canceled.") == 1; }));
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "op", "UvTcpConnect::_OnConnect, canceled."));
  bool busy = true;
  OnLoop([&] { busy = connectOp->IsBusy(); });
  EXPECT_FALSE(busy);
  EXPECT_EQ(sink->Count(TcpEvent::kConnect), 0u);
}

TEST_F(UvTcpOpsTest, CancelledWriteHoldsItsBufferUntilTheReport) {
  zstest::LogRecorder log;
  TcpPeer peer;
  Connect(peer);
  RefPtr<IMutableBuffer> data = Buffer("payload");
  int rc = -2, busyRc = -2, nullRc = -2, countAfterCancel = 0;
  OnLoop([&] {
    nullRc = sendOp->Send(Stream(), nullptr, Ctx(1), sink);
    rc = sendOp->Send(Stream(), data, Ctx(1), sink);
    busyRc = sendOp->Send(Stream(), data, Ctx(2), sink);
    sendOp->Cancel();
    countAfterCancel = data->AddRef() - 1;  // the record still holds it
    data->Release();
  });
  EXPECT_EQ(nullRc, -1);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(busyRc, -1);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "op", "UvTcpSend::Send, in progress."));
  EXPECT_EQ(countAfterCancel, 2);
  ASSERT_TRUE(zstest::WaitUntil([&] { return log.Has(LOG_LEVEL_ERROR, "op", "UvTcpSend::_OnSend, canceled."); }));
  int countAfterReport = 0;
  bool busy = true;
  OnLoop([&] {
    busy = sendOp->IsBusy();
    countAfterReport = data->AddRef() - 1;
    data->Release();
  });
  EXPECT_FALSE(busy);
  EXPECT_EQ(countAfterReport, 1);
  EXPECT_EQ(sink->Count(TcpEvent::kSend), 0u);
  EXPECT_EQ(peer.Read(7), "payload");  // the write itself went ahead
}

// Reads are delivered from libuv's read callback itself, so there is no moment
// between a read and its delivery; a receive cancelled before the bytes come
// gets nothing, and the one armed after it gets them.
TEST_F(UvTcpOpsTest, ACancelledReceiveGetsNothingAndTheNextOneTheBytes) {
  TcpPeer peer;
  Connect(peer);
  int rearm = -2;
  OnLoop([&] {
    ASSERT_EQ(recvOp->Recv(Stream(), Buffer(), Ctx(1), sink), 0);
    recvOp->Cancel();
    rearm = recvOp->Recv(Stream(), Buffer(), Ctx(2), sink);
  });
  EXPECT_EQ(rearm, 0);
  ASSERT_TRUE(peer.Write("kept"));
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kRecv, 1));
  zstest::Drain(loop);
  std::vector<TcpEvent> recvs = sink->Of(TcpEvent::kRecv);
  ASSERT_EQ(recvs.size(), 1u);
  EXPECT_EQ(recvs[0].ctx, Ctx(2));
  EXPECT_EQ(recvs[0].data, "kept");  // what arrived, without waiting to fill the buffer

  // A read while one is armed is refused; end of stream is status 0, length 0.
  RefPtr<IMutableBuffer> last = Buffer("old bytes");
  int rc = -2, busyRc = -2;
  zstest::LogRecorder log;
  OnLoop([&] {
    rc = recvOp->Recv(Stream(), last, Ctx(3), sink);
    busyRc = recvOp->Recv(Stream(), last, Ctx(4), sink);
  });
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(busyRc, -1);
  EXPECT_TRUE(log.Has(LOG_LEVEL_ERROR, "op", "UvTcpRecv::Recv, in progress."));
  peer.CloseConn();
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kRecv, 2));
  EXPECT_EQ(sink->Of(TcpEvent::kRecv)[1].status, 0);
  EXPECT_EQ(last->GetLength(), 0);
  EXPECT_GE(last->GetCapacity(), 65536);  // grown to what libuv suggested
}

}  // namespace
