#include "socket/udp_impl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "socket/udp_test_support.h"
#include "support/test_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/udp.h"

namespace zelsocket {
namespace {

using zstest::RawPeer;
using zstest::UdpRecordingSink;
using zstest::UdpEvent;

RefPtr<IMutableBuffer> MakeBuffer(const std::string& data) {
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  b->CopyFrom(data.data(), static_cast<int>(data.size()));
  return b;
}

void* Tag(int n) { return reinterpret_cast<void*>(static_cast<intptr_t>(n)); }

class UdpTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(loop.Start(), 0); }
  void TearDown() override { loop.Stop(); }

  void OnLoop(const std::function<void()>& fn) { ASSERT_EQ(loop.SyncCall(fn), 0); }

  RefPtr<IUdp> NewUdp(RefPtr<UdpRecordingSink>* sink) {
    RefPtr<IUdp> udp;
    EXPECT_TRUE(CreateUdp(udp, &loop));
    sink->Attach(new UdpRecordingSink(&loop));
    udp->SetSink(*sink);
    return udp;
  }

  IOLoop loop;
  zstest::LogRecorder log;
};

class UdpFamilyTest : public UdpTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(UdpFamilyTest, ExchangesDatagramsFromTheLoopThreadAndOthers) {
  const char* address = GetParam();
  RawPeer peer(address);
  ASSERT_TRUE(peer.Address().IsValid());
  RefPtr<UdpRecordingSink> sink;
  RefPtr<IUdp> udp = NewUdp(&sink);
  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress(address), 0)), 0);
  EXPECT_TRUE(udp->IsOpen());

  // From another thread: the report comes later, on the loop thread.
  ASSERT_EQ(udp->Send(MakeBuffer("from test thread"), peer.Address(), Tag(1)), 0);
  std::string got;
  IPEndPoint ours;
  ASSERT_TRUE(peer.RecvFrom(&got, &ours));
  EXPECT_EQ(got, "from test thread");
  ASSERT_TRUE(sink->WaitSends(1));
  UdpEvent sent = sink->Sends()[0];
  EXPECT_EQ(sent.status, 0);
  EXPECT_EQ(sent.ctx, Tag(1));
  EXPECT_EQ(sent.data, "from test thread");
  EXPECT_TRUE(sent.onLoopThread);
  EXPECT_EQ(sent.address.GetPort(), peer.Address().GetPort());

  IPEndPoint local;
  if (std::string(address) == "127.0.0.1") {
    ASSERT_EQ(udp->GetLocalAddress(local), 0);
    EXPECT_EQ(local.GetPort(), ours.GetPort());
  } else {
    EXPECT_EQ(udp->GetLocalAddress(local), -1);  // IPv4 only
  }

  // Continuous receive, armed from another thread (datagrams that come first
  // wait in the kernel); every datagram lands in the caller's own buffer.
  RefPtr<IMutableBuffer> inbox;
  CreateBuffer(inbox);
  ASSERT_EQ(udp->StartRecv(inbox, Tag(2)), 0);
  for (const char* text : {"one", "two", "three"}) ASSERT_TRUE(peer.SendTo(ours, text));
  ASSERT_TRUE(sink->WaitRecvs(3));
  std::vector<UdpEvent> recvs = sink->Recvs();
  EXPECT_EQ(recvs[0].data, "one");
  EXPECT_EQ(recvs[1].data, "two");
  EXPECT_EQ(recvs[2].data, "three");
  for (const auto& r : recvs) {
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.ctx, Tag(2));
    EXPECT_TRUE(r.onLoopThread);
    EXPECT_EQ(r.address.GetPort(), peer.Address().GetPort());
    EXPECT_EQ(r.address.GetAddress().GetString(), address);
  }

  // From the loop thread the result is immediate and the report still comes later.
  int result = 99;
  size_t reportsDuringCall = 99;
  OnLoop([&] {
    result = udp->Send(MakeBuffer("from loop"), peer.Address(), Tag(3));
    reportsDuringCall = sink->SendCount();
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(reportsDuringCall, 1u);
  ASSERT_TRUE(peer.RecvFrom(&got));
  EXPECT_EQ(got, "from loop");
  ASSERT_TRUE(sink->WaitSends(2));
  EXPECT_EQ(sink->Sends()[1].ctx, Tag(3));
  EXPECT_EQ(udp->Close(), 0);
  EXPECT_FALSE(udp->IsOpen());
}

INSTANTIATE_TEST_SUITE_P(Loopback, UdpFamilyTest, ::testing::Values("127.0.0.1", "::1"));

TEST_F(UdpTest, FirstSendOpensAnIPv4SocketOnAFreePort) {
  RawPeer peer;
  RefPtr<UdpRecordingSink> sink;
  RefPtr<IUdp> udp = NewUdp(&sink);
  IPEndPoint local;
  EXPECT_FALSE(udp->IsOpen());
  EXPECT_EQ(udp->GetLocalAddress(local), -1);

  // An empty buffer goes out as an empty datagram.
  ASSERT_EQ(udp->Send(MakeBuffer(""), peer.Address(), Tag(1)), 0);
  std::string got = "not empty";
  IPEndPoint from;
  ASSERT_TRUE(peer.RecvFrom(&got, &from));
  EXPECT_EQ(got, "");
  ASSERT_TRUE(sink->WaitSends(1));
  EXPECT_EQ(sink->Sends()[0].status, 0);

  EXPECT_TRUE(udp->IsOpen());
  ASSERT_EQ(udp->GetLocalAddress(local), 0);
  EXPECT_NE(local.GetPort(), 0);
  EXPECT_EQ(local.GetPort(), from.GetPort());
  EXPECT_TRUE(local.GetAddress() == IPAddress::Any);

  EXPECT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), -1);
  EXPECT_TRUE(udp->IsOpen());
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "udp", "UvUdpImpl.Open, udp already open."));
  EXPECT_EQ(udp->SetSendBufferSize(4096), -1);
  EXPECT_EQ(udp->SetRecvBufferSize(4096), -1);

  // An IPv6 destination needs an IPv6 socket: the implicit one cannot reach it.
  ASSERT_EQ(udp->Send(MakeBuffer("v6"), IPEndPoint("::1", 9), Tag(2)), 0);
  ASSERT_TRUE(sink->WaitSends(2));
  EXPECT_LT(sink->Sends()[1].status, 0);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "udp",
                      "UvUdpImpl::_OnSend, Send Fail, ret=" + std::to_string(sink->Sends()[1].status)));
}

TEST_F(UdpTest, SendQueueAcceptsWhileAtMostTheLimitIsQueued) {
  RawPeer peer;
  RefPtr<UdpRecordingSink> sink;
  RefPtr<IUdp> udp = NewUdp(&sink);
  RefPtr<UdpRecordingSink> inSink;
  RefPtr<IUdp> receiver = NewUdp(&inSink);
  ASSERT_EQ(receiver->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  IPEndPoint dest;
  ASSERT_EQ(receiver->GetLocalAddress(dest), 0);
  RefPtr<IMutableBuffer> inbox;
  CreateBuffer(inbox);
  inbox->Reserve(65536);
  ASSERT_EQ(receiver->StartRecv(inbox, nullptr), 0);
  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  auto* impl = static_cast<UdpImpl*>(udp.Get());

  // The first datagram goes to libuv at once and is not counted as queued;
  // the small ones come next, so that the completions which follow each call
  // drain the queue slowly.
  auto fill = [&](std::vector<int>* results, int base) {
    results->push_back(udp->Send(MakeBuffer(std::string(1000, 'f')), dest, Tag(base)));
    EXPECT_EQ(impl->QueuedBytes(), 0);
    for (int i = 1; i <= 64; ++i) results->push_back(udp->Send(MakeBuffer("s"), dest, Tag(base + i)));
    results->push_back(udp->Send(MakeBuffer(std::string(65504, 'x')), dest, Tag(base + 65)));
    results->push_back(udp->Send(MakeBuffer(std::string(65504, 'y')), dest, Tag(base + 66)));
    EXPECT_EQ(impl->QueuedBytes(), 131072);
  };

  std::vector<int> results;
  int queuedAfter = 0;
  OnLoop([&] {
    fill(&results, 0);
    results.push_back(udp->Send(MakeBuffer("t"), dest, Tag(67)));  // exactly at the limit: accepted
    queuedAfter = impl->QueuedBytes();
    results.push_back(udp->Send(MakeBuffer("w"), dest, Tag(68)));  // one byte over: dropped
  });
  EXPECT_EQ(queuedAfter, 131073);
  ASSERT_EQ(results.size(), 69u);
  for (int i = 0; i <= 67; ++i) EXPECT_EQ(results[i], 0) << i;
  EXPECT_EQ(results[68], -1);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "udp",
                      "UvUdpImpl, _Send, send queue is full, drop the data, queue-size=131073, "
                      "dest-addr=127.0.0.1."));
  // One report for each datagram accepted, in order; none for the refused one.
  ASSERT_TRUE(sink->WaitSends(68));
  ASSERT_TRUE(inSink->WaitRecvs(68));
  std::vector<UdpEvent> sends = sink->Sends();
  ASSERT_EQ(sends.size(), 68u);
  for (int i = 0; i < 68; ++i) {
    EXPECT_EQ(sends[i].ctx, Tag(i));
    EXPECT_EQ(sends[i].status, 0);
  }
  EXPECT_EQ(impl->QueuedBytes(), 0);

  // From another thread the refusal arrives as a report, and the datagram in
  // flight and the queue go on undisturbed.
  results.clear();
  int foreignResult = 99;
  OnLoop([&] {
    fill(&results, 100);
    results.push_back(udp->Send(MakeBuffer(std::string(60000, 'z')), dest, Tag(167)));
    std::thread other([&] { foreignResult = udp->Send(MakeBuffer("v"), dest, Tag(168)); });
    other.join();
  });
  EXPECT_EQ(foreignResult, 0);
  EXPECT_EQ(results, std::vector<int>(68, 0));
  ASSERT_TRUE(sink->WaitSends(68 + 69));
  ASSERT_TRUE(inSink->WaitRecvs(68 + 68));
  sends = sink->Sends();
  int position = 100;
  for (size_t i = 68; i < sends.size(); ++i) {
    if (sends[i].ctx == Tag(168)) {
      EXPECT_EQ(sends[i].status, -1);
      continue;
    }
    EXPECT_EQ(sends[i].status, 0);
    EXPECT_EQ(sends[i].ctx, Tag(position++));
  }
  EXPECT_EQ(position, 168);
  // 191072 bytes less the few small datagrams that left before the refusal.
  EXPECT_EQ(log.CountPrefix("UvUdpImpl, _Send, send queue is full, drop the data, queue-size=19"), 1);
}

TEST_F(UdpTest, OneReceiveAtATime) {
  RawPeer peer;
  RefPtr<UdpRecordingSink> sink;
  RefPtr<IUdp> udp = NewUdp(&sink);
  RefPtr<IMutableBuffer> a = MakeBuffer(""), b = MakeBuffer(""), c = MakeBuffer(""), d = MakeBuffer("");

  // Nothing to receive on before the socket is open.
  int onLoop = 99;
  OnLoop([&] { onLoop = udp->Recv(a, Tag(1)); });
  EXPECT_EQ(onLoop, -1);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "udp", "UvUdpImpl::_Recv, _Recv fail, not open."));
  ASSERT_EQ(udp->Recv(a, Tag(2)), 0);
  ASSERT_TRUE(sink->WaitRecvs(1));
  EXPECT_EQ(sink->Recvs()[0].status, -1);
  EXPECT_EQ(sink->Recvs()[0].ctx, Tag(2));
  EXPECT_FALSE(sink->Recvs()[0].address.GetAddress().IsValid());
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "udp", "UdpImpl::_AsyncRecv, _Recv fail, ret=-1"));

  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  IPEndPoint local;
  ASSERT_EQ(udp->GetLocalAddress(local), 0);
  ASSERT_EQ(udp->Recv(a, Tag(3)), 0);
  ASSERT_EQ(udp->Recv(b, Tag(4)), 0);  // refused on the loop thread, reported
  ASSERT_TRUE(sink->WaitRecvs(2));
  EXPECT_EQ(sink->Recvs()[1].status, -1);
  EXPECT_EQ(sink->Recvs()[1].ctx, Tag(4));
  OnLoop([&] { onLoop = udp->StartRecv(b, Tag(5)); });
  EXPECT_EQ(onLoop, -1);

  // A one-shot sink may arm the next receive from inside its report.
  std::atomic<int> rearm{99};
  sink->SetOnRecv([&](int, IMutableBuffer*, const IPEndPoint&, void* ctx) {
    if (ctx == Tag(3)) rearm = udp->Recv(c, Tag(6));
  });
  ASSERT_TRUE(peer.SendTo(local, "first"));
  ASSERT_TRUE(sink->WaitRecvs(3));
  EXPECT_EQ(rearm.load(), 0);
  ASSERT_TRUE(peer.SendTo(local, "second"));
  ASSERT_TRUE(sink->WaitRecvs(4));
  EXPECT_EQ(sink->Recvs()[2].data, "first");
  EXPECT_EQ(sink->Recvs()[3].data, "second");
  EXPECT_EQ(sink->Recvs()[3].ctx, Tag(6));
  EXPECT_EQ(a->Compare("first", 5), 0);  // each receive keeps its own buffer

  // A continuous receive is still armed inside its report.
  sink->SetOnRecv([&](int, IMutableBuffer*, const IPEndPoint&, void* ctx) {
    if (ctx == Tag(7)) rearm = udp->Recv(d, Tag(8));
  });
  ASSERT_EQ(udp->StartRecv(c, Tag(7)), 0);
  ASSERT_TRUE(peer.SendTo(local, "third"));
  ASSERT_TRUE(sink->WaitRecvs(5));
  EXPECT_EQ(rearm.load(), -1);
  EXPECT_EQ(sink->Recvs()[4].ctx, Tag(7));

  // CancelRecv disarms without a report; nothing armed is fine too.
  sink->SetOnRecv(nullptr);
  EXPECT_EQ(udp->CancelRecv(), 0);
  EXPECT_EQ(udp->CancelRecv(), 0);
  ASSERT_TRUE(peer.SendTo(local, "while disarmed"));
  ASSERT_EQ(udp->Recv(d, Tag(9)), 0);
  ASSERT_TRUE(sink->WaitRecvs(6));
  std::vector<UdpEvent> recvs = sink->Recvs();
  EXPECT_EQ(recvs.size(), 6u);
  EXPECT_EQ(recvs[5].ctx, Tag(9));
  EXPECT_EQ(recvs[5].data, "while disarmed");
}

TEST_F(UdpTest, CloseSilencesEveryReport) {
  RawPeer peer;
  RefPtr<UdpRecordingSink> sink;
  RefPtr<IUdp> udp = NewUdp(&sink);
  RefPtr<IMutableBuffer> inbox = MakeBuffer("");
  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  ASSERT_EQ(udp->StartRecv(inbox, Tag(100)), 0);

  std::vector<int> results;
  OnLoop([&] {
    for (int i = 1; i <= 5; ++i) results.push_back(udp->Send(MakeBuffer("queued"), peer.Address(), Tag(i)));
    // Posted from another thread and not yet run when Close comes.
    std::thread other([&] {
      for (int i = 6; i <= 8; ++i) results.push_back(udp->Send(MakeBuffer("posted"), peer.Address(), Tag(i)));
    });
    other.join();
    udp->Close();
    // Sent while libuv still finishes the first datagram of the closed socket.
    results.push_back(udp->Send(MakeBuffer("after close"), peer.Address(), Tag(9)));
  });
  EXPECT_EQ(results, std::vector<int>(9, 0));
  ASSERT_TRUE(sink->WaitSends(1));
  EXPECT_EQ(udp->Close(), 0);
  EXPECT_EQ(udp->Close(), 0);

  // Only the datagram after Close was reported.  A later marker on a fresh
  // socket shows that nothing else was merely late.
  std::string got;
  std::vector<std::string> arrived;
  while (peer.RecvFrom(&got, nullptr, 200)) arrived.push_back(got);
  EXPECT_EQ(arrived.back(), "after close");
  EXPECT_EQ(std::count(arrived.begin(), arrived.end(), "posted"), 0);
  EXPECT_LE(std::count(arrived.begin(), arrived.end(), "queued"), 1);
  ASSERT_EQ(udp->Send(MakeBuffer("marker"), peer.Address(), Tag(10)), 0);
  ASSERT_TRUE(sink->WaitSends(2));
  std::vector<UdpEvent> sends = sink->Sends();
  ASSERT_EQ(sends.size(), 2u);
  EXPECT_EQ(sends[0].ctx, Tag(9));
  EXPECT_EQ(sends[0].status, 0);
  EXPECT_EQ(sends[1].ctx, Tag(10));
  EXPECT_EQ(sink->RecvCount(), 0u);
}

TEST_F(UdpTest, SinkMayReleaseTheLastReference) {
  RawPeer peer;
  RefPtr<UdpRecordingSink> sink(new UdpRecordingSink(&loop));
  sink->Release();
  IUdp* raw = nullptr;
  ASSERT_TRUE(CreateUdp(&raw, &loop));
  raw->SetSink(sink);
  ASSERT_EQ(raw->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  IPEndPoint local;
  ASSERT_EQ(raw->GetLocalAddress(local), 0);
  RefPtr<IMutableBuffer> inbox = MakeBuffer("");
  ASSERT_EQ(raw->StartRecv(inbox, nullptr), 0);

  // The second reference goes in OnSend, the last one in OnRecv.
  raw->AddRef();
  std::atomic<int> released{0};
  sink->SetOnSend([&](int, IConstBuffer*, const IPEndPoint&, void*) {
    raw->Release();
    released++;
  });
  sink->SetOnRecv([&](int, IMutableBuffer*, const IPEndPoint&, void*) {
    raw->Release();
    released++;
  });
  ASSERT_EQ(raw->Send(MakeBuffer("x"), peer.Address(), nullptr), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return released.load() == 1; }));
  ASSERT_TRUE(peer.SendTo(local, "y"));
  ASSERT_TRUE(zstest::WaitUntil([&] { return released.load() == 2; }));
  // The socket is gone: its handle was closed and the sink let go.
  ASSERT_TRUE(zstest::WaitUntil([&] {
    sink->AddRef();
    return sink->Release() == 1;
  }));
}

TEST_F(UdpTest, BadInputGivesItsResultAndNoReport) {
  RefPtr<UdpRecordingSink> sink;
  RefPtr<IUdp> udp = NewUdp(&sink);
  RefPtr<IMutableBuffer> buffer = MakeBuffer("data");
  const IPEndPoint portZero(IPAddress::Loopback, 0);

  for (int round = 0; round < 2; ++round) {  // from another thread, then from the loop thread
    std::vector<int> results;
    auto run = [&] {
      results.push_back(udp->Send(nullptr, IPEndPoint("127.0.0.1", 9), nullptr));
      results.push_back(udp->Send(buffer, portZero, nullptr));
      results.push_back(udp->Send(buffer, IPEndPoint(), nullptr));
      results.push_back(udp->Send(buffer, IPEndPoint("1.2.3.4.5", 9), nullptr));
      results.push_back(udp->Recv(nullptr, nullptr));
      results.push_back(udp->StartRecv(nullptr, nullptr));
    };
    if (round == 0) run();
    else OnLoop(run);
    EXPECT_EQ(results, std::vector<int>(6, -1));
  }
  EXPECT_FALSE(udp->IsOpen());  // none of them opened the socket

  // An unset bind address has no family to create a socket for.
  EXPECT_EQ(udp->Open(IPEndPoint()), -1);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "udp", "UvUdpImpl, CreateNonLSPSocket fail, non-lsp-socket=1"));
  // A plain socket is IPv4, whatever the bind address says.
  UdpOpenOptions options;
  options.bindAddress = IPEndPoint(IPAddress("::1"), 0);
  options.nonLspSocket = false;
  int rc = udp->Open(options);
  EXPECT_LT(rc, -1);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "udp",
                      "UvUdpImpl, uv_udp_bind fail, port=0, ret=" + std::to_string(rc) + ", " + uv_strerror(rc)));
  // A port that is taken.
  RawPeer holder;
  rc = udp->Open(holder.Address());
  EXPECT_EQ(rc, UV_EADDRINUSE);
  EXPECT_FALSE(udp->IsOpen());
  options.nonLspSocket = false;
  options.bindAddress = portZero;
  EXPECT_EQ(udp->Open(options), 0);
  EXPECT_TRUE(udp->IsOpen());

  // A null sink only skips the calls.
  RawPeer peer;
  udp->SetSink(nullptr);
  ASSERT_EQ(udp->Send(buffer, peer.Address(), nullptr), 0);
  ASSERT_EQ(udp->Send(buffer, peer.Address(), nullptr), 0);
  std::string got;
  ASSERT_TRUE(peer.RecvFrom(&got));
  ASSERT_TRUE(peer.RecvFrom(&got));  // the second went out, so the first report ran
  EXPECT_EQ(sink->SendCount(), 0u);
  EXPECT_EQ(sink->RecvCount(), 0u);
}

TEST(UdpLoopTest, StoppedLoopRefusesEverything) {
  zstest::LogRecorder log;
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  RefPtr<IUdp> udp;
  ASSERT_TRUE(CreateUdp(udp, &loop));
  ASSERT_EQ(loop.Stop(), 0);
  EXPECT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), -1);
  EXPECT_FALSE(udp->IsOpen());
  EXPECT_EQ(udp->Send(MakeBuffer("x"), IPEndPoint("127.0.0.1", 9), nullptr), -1);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "udp", "UdpImpl::Send, AsyncCall fail, ret=-1"));
  EXPECT_EQ(udp->Recv(MakeBuffer(""), nullptr), -1);
  EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "udp", "UdpImpl::Recv, AsyncCall fail, ret=-1"));
  EXPECT_EQ(udp->Close(), 0);
  udp = nullptr;  // the destructor cannot reach the loop and must not hang
}

TEST(UdpFactoryTest, FactoriesAndValueClass) {
  EXPECT_FALSE(CreateUdp(static_cast<IUdp**>(nullptr), nullptr));
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  {
    RefPtr<IUdp> first;
    ASSERT_TRUE(CreateUdp(first, &loop));
    IUdp* old = first.Get();
    old->AddRef();
    ASSERT_TRUE(CreateUdp(first, &loop));  // releases what it held
    EXPECT_NE(first.Get(), old);
    EXPECT_EQ(old->Release(), 0);

    RawPeer peer;
    Udp udp(&loop);
    EXPECT_EQ(udp.Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
    EXPECT_EQ(static_cast<IUdp*>(udp)->Open(UdpOpenOptions()), -1);
    EXPECT_EQ(udp.Send(MakeBuffer("value"), peer.Address(), nullptr), 0);
    std::string got;
    ASSERT_TRUE(peer.RecvFrom(&got));
    EXPECT_EQ(got, "value");
    UdpOpenOptions defaults;
    EXPECT_TRUE(defaults.nonLspSocket);
    EXPECT_FALSE(defaults.bindAddress.IsValid());
  }
  ASSERT_EQ(loop.Stop(), 0);
}

}  // namespace
}  // namespace zelsocket
