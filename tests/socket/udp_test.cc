// The UDP socket and its two operations against echo peers on loopback.
#include <gtest/gtest.h>
#include <uv.h>

#include <mutex>
#include <thread>

#include "socket/udp_impl.h"
#include "socket/uv_udp_recv.h"
#include "socket/uv_udp_send.h"
#include "support/peers.h"
#include "support/recorder.h"

namespace zelsocket {
namespace {

using zstest::Buf;
using zstest::CountOf;
using zstest::Ctx;
using zstest::Event;

class UdpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(loop.Start(), 0);
    ASSERT_TRUE(CreateUdp(udp, &loop));
    udp->SetSink(sink);
  }
  void TearDown() override {
    udp = nullptr;
    loop.Stop();
  }
  void OnLoop(const std::function<void()>& fn) { ASSERT_EQ(loop.SyncCall(fn), 0); }

  zstest::LogRecorder log;  // also keeps the per-datagram lines off the output
  IOLoop loop;
  RefPtr<zstest::Recorder> sink = zstest::NewRecorder();
  RefPtr<IUdp> udp;
  zstest::UdpEchoPeer peer;
  const IPEndPoint to{"127.0.0.1", peer.Port()};
};

class UdpFamilyTest : public UdpTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(UdpFamilyTest, ReportsComeLaterOnTheLoopThreadInOrder) {
  zstest::UdpEchoPeer peer(nullptr, GetParam());
  const IPEndPoint to(GetParam(), peer.Port());
  ASSERT_EQ(udp->Open(IPEndPoint(GetParam(), 0)), 0);
  ASSERT_EQ(udp->StartRecv(Buf(), Ctx(100)), 0);
  for (long i = 1; i <= 3; ++i) ASSERT_EQ(udp->Send(Buf("from test " + std::to_string(i)), to, Ctx(i)), 0);
  size_t reportsDuringCall = 99;
  OnLoop([&] {
    ASSERT_EQ(udp->Send(Buf("from loop"), to, Ctx(4)), 0);
    reportsDuringCall = sink->Count("send");
  });
  EXPECT_LT(reportsDuringCall, 4u);
  ASSERT_TRUE(sink->Wait("recv", 4) && sink->Wait("send", 4));
  std::vector<Event> sends = sink->Of("send"), recvs = sink->Of("recv");
  for (long i = 0; i < 4; ++i) {
    std::string text = i < 3 ? "from test " + std::to_string(i + 1) : "from loop";
    EXPECT_TRUE(sends[i].ctx == Ctx(i + 1) && sends[i].status == 0 && sends[i].data == text && sends[i].onLoop);
    EXPECT_TRUE(recvs[i].data == text && recvs[i].ctx == Ctx(100));  // each in the caller's own buffer, in order
    EXPECT_EQ(recvs[i].address.GetPort(), peer.Port());
    EXPECT_EQ(recvs[i].address.GetAddress().GetString(), GetParam());
  }
  EXPECT_EQ(udp->Close(), 0);
  EXPECT_FALSE(udp->IsOpen());
}

INSTANTIATE_TEST_SUITE_P(Loopback, UdpFamilyTest, ::testing::Values("127.0.0.1", "::1"));

// The first send opens an IPv4 socket on a free port.  An empty datagram does
// not complete a receive; a fresh buffer is offered the least size, and a
// longer datagram is cut to it without a word in the log.
TEST_F(UdpTest, ImplicitOpenAndReceiveSizes) {
  IPEndPoint local;
  EXPECT_EQ(udp->GetLocalAddress(local), -1);
  ASSERT_EQ(udp->Send(Buf(""), to, Ctx(1)), 0);
  ASSERT_TRUE(sink->Wait("send", 1));
  ASSERT_EQ(udp->GetLocalAddress(local), 0);
  EXPECT_TRUE(local.GetPort() != 0 && local.GetAddress() == IPAddress::Any);
  EXPECT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), -1);      // open already
  ASSERT_EQ(udp->Send(Buf("v6"), IPEndPoint("::1", 9), Ctx(3)), 0);  // IPv4 socket: fails in the report
  ASSERT_TRUE(sink->Wait("send", 2));
  EXPECT_EQ(sink->Of("send")[0].status, 0);
  EXPECT_LT(sink->Of("send")[1].status, 0);

  ASSERT_TRUE(zstest::WaitUntil([&] { return peer.Received() == 1; }));  // the empty echo is back, unseen
  ASSERT_EQ(udp->Recv(Buf(), Ctx(1)), 0);
  ASSERT_EQ(udp->Send(Buf(""), to, nullptr), 0);
  // Both empty echoes are back, each skipped with its line, before the log is cleared.
  ASSERT_TRUE(zstest::WaitUntil([&] { return log.CountPrefix("UvUdpRecv::_RecvCallback, nread=0") == 2; }));
  log.Clear();
  ASSERT_EQ(udp->Send(Buf(std::string(20000, 'a')), to, nullptr), 0);
  ASSERT_TRUE(sink->Wait("recv", 1));
  EXPECT_EQ(sink->Of("recv")[0].data, std::string(UvUdpRecv::kMinRecvSize, 'a'));
  EXPECT_EQ(log.CountPrefix("UvUdpRecv::_RecvCallback"), 0);
  RefPtr<IMutableBuffer> large = Buf();
  large->Reserve(65536);
  ASSERT_EQ(udp->Recv(large, Ctx(2)), 0);
  ASSERT_EQ(udp->Send(Buf(std::string(30000, 'q')), to, nullptr), 0);
  ASSERT_TRUE(sink->Wait("recv", 2));
  EXPECT_EQ(sink->Of("recv")[1].data.size(), 30000u);
}

TEST_F(UdpTest, BadInputGivesItsResultAndNoReport) {
  RefPtr<IMutableBuffer> b = Buf("data");
  for (bool onLoop : {false, true}) {
    std::vector<int> results;
    auto run = [&] {
      results = {udp->Send(nullptr, to, nullptr),     udp->Send(b, IPEndPoint(IPAddress::Loopback, 0), nullptr),
                 udp->Send(b, IPEndPoint(), nullptr), udp->Recv(nullptr, nullptr),
                 udp->StartRecv(nullptr, nullptr),    udp->Open(IPEndPoint())};
    };
    onLoop ? OnLoop(run) : run();
    EXPECT_EQ(results, std::vector<int>(6, -1)) << onLoop;
  }
  UdpOpenOptions plain;  // a plain socket is IPv4 whatever the bind address says: libuv's error
  plain.bindAddress = IPEndPoint("::1", 0);
  plain.nonLspSocket = false;
  EXPECT_LT(udp->Open(plain), -1);
  EXPECT_FALSE(udp->IsOpen());
  zstest::Drain(loop);
  EXPECT_EQ(sink->Count(""), 0u);
}

// The first datagram is in libuv and not counted; the queue takes datagrams
// while at most the limit is queued; refused on the loop thread at once, from
// another thread in the report.
TEST_F(UdpTest, SendQueueAcceptsWhileAtMostTheLimitIsQueued) {
  zstest::UdpEchoPeer mute([](const std::string&) { return false; });
  const IPEndPoint to("127.0.0.1", mute.Port());
  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  auto* impl = static_cast<UdpImpl*>(udp.Get());
  std::vector<int> results;
  int foreign = 99;
  OnLoop([&] {
    results.push_back(udp->Send(Buf(std::string(1000, 'f')), to, Ctx(1)));
    for (int i = 0; i < 64; ++i) results.push_back(udp->Send(Buf("s"), to, Ctx(2)));  // the queue drains slowly
    results.push_back(udp->Send(Buf(std::string(65504, 'x')), to, Ctx(3)));
    results.push_back(udp->Send(Buf(std::string(65504, 'y')), to, Ctx(4)));
    EXPECT_EQ(impl->QueuedBytes(), UdpImpl::kMaxQueuedBytes);
    results.push_back(udp->Send(Buf(std::string(60000, 't')), to, Ctx(5)));  // at the limit: accepted
    results.push_back(udp->Send(Buf("w"), to, Ctx(6)));                      // over it: refused here
    std::thread other([&] { foreign = udp->Send(Buf("v"), to, Ctx(7)); });
    other.join();
  });
  std::vector<int> expected(68, 0);
  expected.push_back(-1);
  EXPECT_EQ(results, expected);
  EXPECT_EQ(foreign, 0);
  ASSERT_TRUE(sink->Wait("send", 69));
  std::vector<void*> order, want{Ctx(1)};
  want.insert(want.end(), 64, Ctx(2));
  want.insert(want.end(), {Ctx(3), Ctx(4), Ctx(5)});
  for (const Event& e : sink->Of("send")) {
    if (e.ctx == Ctx(7))
      foreign = e.status;
    else
      order.push_back(e.status ? nullptr : e.ctx);
  }
  EXPECT_EQ(foreign, -1);
  EXPECT_EQ(order, want);
  EXPECT_EQ(impl->QueuedBytes(), 0);
}

TEST_F(UdpTest, OneReceiveAtATimeAndASinkMayArmTheNext) {
  ASSERT_EQ(udp->Recv(Buf(), Ctx(1)), 0);  // not open: refused in the report
  ASSERT_TRUE(sink->Wait("recv", 1));
  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  int rearm = 99, startWhileArmed = 99;
  sink->hook = [&](const Event& e) {
    if (e.kind == "recv" && e.ctx == Ctx(2)) rearm = udp->Recv(Buf(), Ctx(4));
  };
  ASSERT_EQ(udp->Recv(Buf(), Ctx(2)), 0);
  ASSERT_EQ(udp->Recv(Buf(), Ctx(3)), 0);  // one is armed: refused in the report
  OnLoop([&] { startWhileArmed = udp->StartRecv(Buf(), Ctx(5)); });
  EXPECT_EQ(startWhileArmed, -1);
  ASSERT_EQ(udp->Send(Buf("first"), to, nullptr), 0);
  ASSERT_TRUE(sink->Wait("recv", 3));
  ASSERT_EQ(udp->Send(Buf("second"), to, nullptr), 0);
  ASSERT_TRUE(sink->Wait("recv", 4));
  EXPECT_EQ(rearm, 0);
  std::vector<Event> r = sink->Of("recv");
  EXPECT_TRUE(r[0].status == -1 && r[1].ctx == Ctx(3) && r[1].status == -1);
  EXPECT_TRUE(r[2].data == "first" && r[3].data == "second" && r[3].ctx == Ctx(4));

  // CancelRecv disarms without a report; what comes meanwhile waits in the kernel.
  ASSERT_EQ(udp->StartRecv(Buf(), Ctx(6)), 0);
  EXPECT_EQ(udp->CancelRecv(), 0);
  ASSERT_EQ(udp->Send(Buf("while disarmed"), to, nullptr), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return peer.Received() == 3; }));
  ASSERT_EQ(udp->Recv(Buf(), Ctx(7)), 0);
  ASSERT_TRUE(sink->Wait("recv", 5));
  EXPECT_TRUE(sink->Of("recv").back().ctx == Ctx(7) && sink->Of("recv").back().data == "while disarmed");
}

TEST_F(UdpTest, CloseSilencesQueuedAndPostedSends) {
  std::mutex mutex;
  std::vector<std::string> arrived;
  zstest::UdpEchoPeer mute([&](const std::string& d) {
    std::lock_guard<std::mutex> lock(mutex);
    arrived.push_back(d);
    return false;
  });
  const IPEndPoint to("127.0.0.1", mute.Port());
  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  ASSERT_EQ(udp->StartRecv(Buf(), nullptr), 0);
  OnLoop([&] {
    for (int i = 1; i <= 5; ++i) udp->Send(Buf("queued"), to, Ctx(i));
    std::thread other([&] { udp->Send(Buf("posted"), to, Ctx(6)); });  // runs after Close
    other.join();
    udp->Close();
    udp->Send(Buf("after close"), to, Ctx(7));  // reopens implicitly
  });
  ASSERT_TRUE(zstest::WaitUntil([&] { return mute.Received() >= 1 && sink->Count("send") >= 1; }));
  ASSERT_EQ(udp->Send(Buf("marker"), to, Ctx(8)), 0);
  ASSERT_TRUE(sink->Wait("send", 2));
  // The marker went last: once it is in, whatever the socket sent before it is too.
  ASSERT_TRUE(zstest::WaitUntil([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return std::count(arrived.begin(), arrived.end(), "marker") == 1;
  }));
  std::vector<Event> sends = sink->Of("send");
  ASSERT_EQ(sends.size(), 2u);
  EXPECT_TRUE(sends[0].ctx == Ctx(7) && sends[1].ctx == Ctx(8));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(std::count(arrived.begin(), arrived.end(), "posted"), 0);
  EXPECT_LE(std::count(arrived.begin(), arrived.end(), "queued"), 1);  // the one already in libuv
  EXPECT_EQ(arrived.back(), "marker");
}

TEST_F(UdpTest, SinkMayReleaseTheLastReference) {
  IUdp* raw = udp.Detach();
  ASSERT_EQ(raw->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  ASSERT_EQ(raw->StartRecv(Buf(), nullptr), 0);
  raw->AddRef();
  sink->hook = [&](const Event&) { raw->Release(); };  // one in OnSend, the last in OnRecv
  ASSERT_EQ(raw->Send(Buf("x"), to, nullptr), 0);
  ASSERT_TRUE(sink->Wait("recv", 1));
  EXPECT_EQ(sink->Count(""), 2u);
  EXPECT_TRUE(zstest::WaitUntil([&] { return CountOf(static_cast<IUdpSink*>(sink.Get())) == 1; }));
}

// The operations on a bare handle: what they hold, and the window between
// taking a datagram and handing it over.
TEST_F(UdpTest, CancelledOperationsLetGoAndNeverReport) {
  uv_udp_t* handle = nullptr;
  RefPtr<UvUdpSend> sendOp;
  RefPtr<UvUdpRecv> recvOp;
  RefPtr<IMutableBuffer> taken = Buf(), next = Buf();
  OnLoop([&] {
    handle = static_cast<uv_udp_t*>(std::calloc(1, sizeof(uv_udp_t)));
    uv_udp_init(loop.Loop(), handle);
    ASSERT_EQ(uv_udp_bind(handle, IPEndPoint(IPAddress::Loopback, 0).GetSockAddr(), 0), 0);
    sendOp.Attach(new UvUdpSend(&loop));
    recvOp.Attach(new UvUdpRecv(&loop));
    ASSERT_EQ(sendOp->Send(handle, Buf("x"), to, sink, Ctx(1)), 0);
    EXPECT_EQ(sendOp->Send(handle, Buf("y"), to, sink, Ctx(2)), -1);  // one in flight
    sendOp->Cancel();
    EXPECT_TRUE(sendOp->IsBusy());  // libuv still holds the request
    // A datagram is taken and its delivery posted; Cancel comes before it runs.
    ASSERT_EQ(recvOp->Recv(handle, false, taken, sink, Ctx(3)), 0);
    UvUdpRecv::_RecvCallback(handle, 4, nullptr, to.GetSockAddr(), 0);
    recvOp->Cancel();
    EXPECT_EQ(CountOf(taken), 1);
    ASSERT_EQ(recvOp->Recv(handle, true, next, sink, Ctx(4)), 0);
    sink->hook = [&](const Event& e) {  // a continuous receive cancelled inside its report stops there
      if (e.kind == "recv") recvOp->Cancel();
    };
  });
  ASSERT_TRUE(zstest::WaitUntil([&] {
    bool busy = true;
    loop.SyncCall([&] { busy = sendOp->IsBusy(); });
    return !busy;
  }));
  OnLoop([&] { ASSERT_EQ(sendOp->Send(handle, Buf("x"), to, sink, Ctx(5)), 0); });  // two echoes come back
  ASSERT_TRUE(sink->Wait("recv", 1) && sink->Wait("send", 1));
  ASSERT_TRUE(zstest::WaitUntil([&] { return peer.Received() == 2; }));
  zstest::Drain(loop);
  EXPECT_EQ(sink->Count(""), 2u);
  EXPECT_TRUE(sink->Of("recv")[0].ctx == Ctx(4) && sink->Of("send")[0].ctx == Ctx(5));
  OnLoop([&] {
    EXPECT_FALSE(uv_is_active(reinterpret_cast<uv_handle_t*>(handle)));
    recvOp->Cancel();
    uv_close(reinterpret_cast<uv_handle_t*>(handle), [](uv_handle_t* h) { std::free(h); });
  });
  // Once libuv has reported, the records are gone: only our references remain.
  EXPECT_TRUE(zstest::WaitUntil([&] { return CountOf(sendOp.Get()) == 1 && CountOf(recvOp.Get()) == 1; }));
}

}  // namespace
}  // namespace zelsocket
