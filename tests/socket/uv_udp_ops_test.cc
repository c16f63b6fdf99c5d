#include <gtest/gtest.h>
#include <uv.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "socket/udp_test_support.h"
#include "socket/uv_udp_recv.h"
#include "socket/uv_udp_send.h"
#include "support/test_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"

namespace zelsocket {
namespace {

using zstest::RawPeer;
using zstest::UdpRecordingSink;
using zstest::UdpEvent;

void* Tag(int n) { return reinterpret_cast<void*>(static_cast<intptr_t>(n)); }

RefPtr<IMutableBuffer> MakeBuffer(const std::string& data) {
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  b->CopyFrom(data.data(), static_cast<int>(data.size()));
  return b;
}

// The count of `object` other than the references a test holds itself.
int CountOf(IRefCount* object) {
  object->AddRef();
  return object->Release();
}

// Drives the operations on a bare uv_udp_t bound to 127.0.0.1.
class UvUdpOpsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(loop.Start(), 0);
    sink.Attach(new UdpRecordingSink(&loop));
    OnLoop([&] {
      handle = static_cast<uv_udp_t*>(std::calloc(1, sizeof(uv_udp_t)));
      ASSERT_EQ(uv_udp_init(loop.Loop(), handle), 0);
      IPEndPoint any(IPAddress::Loopback, 0);
      ASSERT_EQ(uv_udp_bind(handle, any.GetSockAddr(), 0), 0);
      sockaddr_storage name = {};
      int length = sizeof name;
      ASSERT_EQ(uv_udp_getsockname(handle, reinterpret_cast<sockaddr*>(&name), &length), 0);
      local.FromSockaddr(reinterpret_cast<sockaddr*>(&name));
      sendOp.Attach(new UvUdpSend(&loop));
      recvOp.Attach(new UvUdpRecv(&loop));
    });
  }
  void TearDown() override {
    OnLoop([&] {
      recvOp->Cancel();
      sendOp->Cancel();
      uv_close(reinterpret_cast<uv_handle_t*>(handle), [](uv_handle_t* h) { std::free(h); });
    });
    // The records are gone once libuv has reported: only our references remain.
    EXPECT_TRUE(zstest::WaitUntil([&] { return CountOf(sendOp) == 1 && CountOf(recvOp) == 1; }));
    sendOp = nullptr;
    recvOp = nullptr;
    loop.Stop();
  }

  void OnLoop(const std::function<void()>& fn) { ASSERT_EQ(loop.SyncCall(fn), 0); }
  bool Active() {
    bool active = false;
    loop.SyncCall([&] { active = uv_is_active(reinterpret_cast<uv_handle_t*>(handle)) != 0; });
    return active;
  }

  IOLoop loop;
  zstest::LogRecorder log;
  RefPtr<UdpRecordingSink> sink;
  uv_udp_t* handle = nullptr;
  IPEndPoint local;
  RefPtr<UvUdpSend> sendOp;
  RefPtr<UvUdpRecv> recvOp;
  RawPeer peer;
};

TEST_F(UvUdpOpsTest, SendAllowsOneDatagramInFlight) {
  RefPtr<IMutableBuffer> data = MakeBuffer("first");
  std::vector<int> results;
  std::atomic<int> fromSink{99};
  sink->SetOnSend([&](int, IConstBuffer*, const IPEndPoint&, void* ctx) {
    if (ctx == Tag(1)) fromSink = sendOp->Send(handle, MakeBuffer("second"), peer.Address(), sink, Tag(2));
  });
  OnLoop([&] {
    results.push_back(sendOp->Send(handle, data, IPEndPoint(IPAddress::Loopback, 0), sink, nullptr));
    results.push_back(sendOp->Send(nullptr, data, peer.Address(), sink, nullptr));
    results.push_back(sendOp->Send(handle, nullptr, peer.Address(), sink, nullptr));
    results.push_back(sendOp->Send(handle, data, peer.Address(), nullptr, nullptr));
    results.push_back(sendOp->Send(handle, data, peer.Address(), sink, Tag(1)));
    results.push_back(sendOp->Send(handle, data, peer.Address(), sink, Tag(3)));
    results.push_back(static_cast<int>(sink->SendCount()));  // never reported inside the call
  });
  EXPECT_EQ(results, (std::vector<int>{-1, -1, -1, -1, 0, -1, 0}));
  EXPECT_EQ(log.Count("UvUdpSend::Send, Invalid Arg"), 4);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "op", "UvUdpSend::Send, sending in progress."));
  // The caller's reference may go at once: the record keeps the bytes.
  data = nullptr;

  ASSERT_TRUE(sink->WaitSends(2));
  EXPECT_EQ(fromSink.load(), 0);
  std::vector<UdpEvent> sends = sink->Sends();
  EXPECT_EQ(sends[0].ctx, Tag(1));
  EXPECT_EQ(sends[0].data, "first");
  EXPECT_EQ(sends[0].status, 0);
  EXPECT_EQ(sends[1].ctx, Tag(2));
  std::string got;
  ASSERT_TRUE(peer.RecvFrom(&got));
  EXPECT_EQ(got, "first");
  ASSERT_TRUE(peer.RecvFrom(&got));
  EXPECT_EQ(got, "second");
}

TEST_F(UvUdpOpsTest, CancelledSendCompletesWithoutReport) {
  OnLoop([&] {
    ASSERT_EQ(sendOp->Send(handle, MakeBuffer("x"), peer.Address(), sink, Tag(1)), 0);
    sendOp->Cancel();
    sendOp->Cancel();
    EXPECT_TRUE(sendOp->IsBusy());  // libuv still holds the request
  });
  ASSERT_TRUE(zstest::WaitUntil([&] { return log.Count("UvUdpSend::_OnSend, canceled.") == 1; }));
  bool busy = true;
  OnLoop([&] { busy = sendOp->IsBusy(); });
  EXPECT_FALSE(busy);
  EXPECT_EQ(sink->SendCount(), 0u);
  EXPECT_EQ(CountOf(sink), 1);  // the record let the sink go

  // libuv refuses a destination on a connected handle before queueing anything.
  int rc = 0;
  OnLoop([&] {
    ASSERT_EQ(uv_udp_connect(handle, peer.Address().GetSockAddr()), 0);
    rc = sendOp->Send(handle, MakeBuffer("y"), peer.Address(), sink, nullptr);
    EXPECT_FALSE(sendOp->IsBusy());
  });
  EXPECT_EQ(rc, UV_EISCONN);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "op",
                      std::string("UvUdpSend, uv_udp_send fail, check=-1430532899, ret=") + std::to_string(rc) +
                          ", " + uv_strerror(rc)));
}

TEST_F(UvUdpOpsTest, OneShotReceiveDeliversFromTheCallQueue) {
  RefPtr<IMutableBuffer> fresh = MakeBuffer("");
  std::vector<bool> activeInSink;
  sink->SetOnRecv([&](int, IMutableBuffer*, const IPEndPoint&, void*) {
    activeInSink.push_back(uv_is_active(reinterpret_cast<uv_handle_t*>(handle)) != 0);
  });
  std::vector<int> results;
  OnLoop([&] {
    results.push_back(recvOp->Recv(nullptr, false, fresh, sink, nullptr));
    results.push_back(recvOp->Recv(handle, false, nullptr, sink, nullptr));
    results.push_back(recvOp->Recv(handle, false, fresh, nullptr, nullptr));
    results.push_back(recvOp->Recv(handle, false, fresh, sink, Tag(1)));
    results.push_back(recvOp->Recv(handle, false, fresh, sink, Tag(2)));
  });
  EXPECT_EQ(results, (std::vector<int>{-1, -1, -1, 0, -1}));
  EXPECT_EQ(log.Count("UvUdpRecv::Recv, invalid args."), 3);
  EXPECT_EQ(log.Count("UvUdpRecv::Recv, in progress."), 1);

  // An empty datagram does not complete the receive; the next one does, cut
  // to the least that a fresh buffer is offered.
  ASSERT_TRUE(peer.SendTo(local, ""));
  ASSERT_TRUE(peer.SendTo(local, std::string(20000, 'a')));
  ASSERT_TRUE(sink->WaitRecvs(1));
  UdpEvent r = sink->Recvs()[0];
  EXPECT_EQ(r.ctx, Tag(1));
  EXPECT_EQ(r.data, std::string(UvUdpRecv::kMinRecvSize, 'a'));
  EXPECT_EQ(r.capacity, UvUdpRecv::kMinRecvSize);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "op", "UvUdpRecv::_RecvCallback, nread=0"));
  EXPECT_EQ(r.address.GetPort(), peer.Address().GetPort());
  ASSERT_EQ(activeInSink.size(), 1u);
  EXPECT_FALSE(activeInSink[0]);  // stopped before the report: it came from the queue

  // Capacity beyond the minimum is offered whole and kept.
  RefPtr<IMutableBuffer> large = MakeBuffer("");
  large->Reserve(65536);
  OnLoop([&] { ASSERT_EQ(recvOp->Recv(handle, false, large, sink, Tag(3)), 0); });
  ASSERT_TRUE(peer.SendTo(local, std::string(30000, 'q')));
  ASSERT_TRUE(sink->WaitRecvs(2));
  EXPECT_EQ(sink->Recvs()[1].data, std::string(30000, 'q'));
  EXPECT_EQ(large->GetCapacity(), 65536);
}

TEST_F(UvUdpOpsTest, ReceiveErrorsAreReported) {
  RefPtr<IMutableBuffer> buffer = MakeBuffer("stale");
  // libuv reports a failed read with a negative count and no address.
  OnLoop([&] {
    ASSERT_EQ(recvOp->Recv(handle, false, buffer, sink, Tag(1)), 0);
    UvUdpRecv::_RecvCallback(handle, UV_ECONNREFUSED, nullptr, nullptr, 0);
  });
  ASSERT_TRUE(sink->WaitRecvs(1));
  UdpEvent r = sink->Recvs()[0];
  EXPECT_EQ(r.status, UV_ECONNREFUSED);
  EXPECT_EQ(r.data, "");
  EXPECT_FALSE(r.address.GetAddress().IsValid());
  EXPECT_FALSE(Active());

  std::vector<bool> activeInSink;
  sink->SetOnRecv([&](int, IMutableBuffer*, const IPEndPoint&, void*) {
    activeInSink.push_back(uv_is_active(reinterpret_cast<uv_handle_t*>(handle)) != 0);
  });
  OnLoop([&] {
    ASSERT_EQ(recvOp->Recv(handle, true, buffer, sink, Tag(2)), 0);
    UvUdpRecv::_RecvCallback(handle, UV_ECONNREFUSED, nullptr, nullptr, 0);
    // Continuous reports come inside libuv's callback, and receiving goes on.
    EXPECT_EQ(sink->RecvCount(), 2u);
  });
  ASSERT_TRUE(peer.SendTo(local, "after error"));
  ASSERT_TRUE(sink->WaitRecvs(3));
  EXPECT_EQ(sink->Recvs()[1].status, UV_ECONNREFUSED);
  EXPECT_EQ(sink->Recvs()[2].data, "after error");
  EXPECT_EQ(sink->Recvs()[2].ctx, Tag(2));
  EXPECT_EQ(activeInSink, (std::vector<bool>{true, true}));
}

TEST_F(UvUdpOpsTest, CancelDropsATakenDatagramAndFreesTheOpAtOnce) {
  RefPtr<IMutableBuffer> first = MakeBuffer("");
  RefPtr<IMutableBuffer> second = MakeBuffer("");
  OnLoop([&] {
    recvOp->Cancel();  // idle: nothing happens
    ASSERT_EQ(recvOp->Recv(handle, false, first, sink, Tag(1)), 0);
    // A datagram is taken and its delivery posted; Cancel comes before it runs.
    UvUdpRecv::_RecvCallback(handle, 4, nullptr, peer.Address().GetSockAddr(), 0);
    recvOp->Cancel();
    recvOp->Cancel();
    EXPECT_EQ(CountOf(first), 1);
    ASSERT_EQ(recvOp->Recv(handle, false, second, sink, Tag(2)), 0);
  });
  ASSERT_TRUE(peer.SendTo(local, "real"));
  ASSERT_TRUE(sink->WaitRecvs(1));
  EXPECT_EQ(sink->Recvs()[0].ctx, Tag(2));
  EXPECT_EQ(sink->Recvs()[0].data, "real");

  // A continuous receive cancelled from inside its own report stops there.
  sink->SetOnRecv([&](int, IMutableBuffer*, const IPEndPoint&, void*) { recvOp->Cancel(); });
  OnLoop([&] { ASSERT_EQ(recvOp->Recv(handle, true, first, sink, Tag(3)), 0); });
  ASSERT_TRUE(peer.SendTo(local, "one"));
  ASSERT_TRUE(peer.SendTo(local, "two"));
  ASSERT_TRUE(sink->WaitRecvs(2));
  EXPECT_FALSE(Active());
  sink->SetOnRecv(nullptr);
  // "two" is still in the kernel and goes to whoever arms next.
  OnLoop([&] { ASSERT_EQ(recvOp->Recv(handle, false, second, sink, Tag(4)), 0); });
  ASSERT_TRUE(sink->WaitRecvs(3));
  std::vector<UdpEvent> recvs = sink->Recvs();
  EXPECT_EQ(recvs.size(), 3u);
  EXPECT_EQ(recvs[1].ctx, Tag(3));
  EXPECT_EQ(recvs[1].data, "one");
  EXPECT_EQ(recvs[2].ctx, Tag(4));
  EXPECT_EQ(recvs[2].data, "two");
}

}  // namespace
}  // namespace zelsocket
