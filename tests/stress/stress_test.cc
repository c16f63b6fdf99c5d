// Threads use every cross-thread operation at once while others release the last references and
// an owner stops and restarts a loop.  Bounded in time; nothing may crash, hang, leak or race (the
// sanitizer trees run it too), every part must make progress, and no packet may end twice.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "support/peers.h"
#include "support/recorder.h"
#include "zelsocket/zelsocket.h"

namespace zelsocket {
namespace {

TEST(Stress, EveryCrossThreadOperationAtOnce) {
  SetLogCallback([](LOG_LEVEL, const char*, const char*) {});
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2000);
  auto running = [&] { return std::chrono::steady_clock::now() < deadline; };
  zstest::UdpEchoPeer udpEcho;
  zstest::TcpEchoPeer tcpEcho;
  IOLoop socketLoop, callLoop;
  ASSERT_TRUE(socketLoop.Start() == 0 && callLoop.Start() == 0);
  std::atomic<long> calls{0}, jobs{0}, restarts{0}, socketRounds{0}, channelSends{0};
  auto udpSink = zstest::NewRecorder(), tcpSink = zstest::NewRecorder();

  // The current channel; threads take their own reference under the lock, so
  // the last reference of a replaced channel goes on whichever thread drops it.
  std::mutex mutex;
  std::vector<RefPtr<zstest::Recorder>> channelSinks;
  RefPtr<IChannel> channel;
  auto replaceChannel = [&] {
    RefPtr<IChannel> c;
    CreateUdpChannel(c, &socketLoop);
    auto sink = zstest::NewRecorder();
    c->SetSink(sink);
    c->Connect("127.0.0.1", udpEcho.Port(), nullptr);
    std::lock_guard<std::mutex> lock(mutex);
    channelSinks.push_back(sink);
    channel = c;
  };
  replaceChannel();
  auto current = [&] { return std::lock_guard<std::mutex>(mutex), channel; };
  ChannelSendOption shortSchedule;
  shortSchedule.SetPacketPerSend(1);
  shortSchedule.AddSendInterval(20);
  shortSchedule.AddSendInterval(20);

  std::vector<std::function<void(std::mt19937&)>> parts = {
      // Posting to a loop that an owner keeps stopping and restarting.
      [&](std::mt19937&) {
        auto token = std::make_shared<int>();
        callLoop.AsyncCall([token, &calls] { ++calls; });
        calls += callLoop.SyncCall([token] {}) == 0;
        callLoop.DelayCall(5, [token] {});
      },
      [&](std::mt19937&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(15));  // pacing, not synchronisation
        callLoop.Stop(), restarts += callLoop.Start() == 0;
      },
      // Background work, cancelled and destroyed with jobs in flight.
      [&](std::mt19937& random) {
        Work work(&callLoop);
        SequenceWork sequence(&callLoop);
        for (int i = 0; i < 8; ++i) {
          work.QueueWork([] {}, [&jobs](int) { ++jobs; });
          sequence.QueueWork([] {}, [&jobs](int) { ++jobs; });
          if (random() % 4 == 0) work.Cancel();
          if (random() % 4 == 0) sequence.Cancel();
        }
      },
      // Sockets used from this thread and released, some without Close.
      [&](std::mt19937& random) {
        RefPtr<IUdp> udp;
        CreateUdp(udp, &socketLoop);
        udp->SetSink(udpSink);
        udp->Open(IPEndPoint("127.0.0.1", 0));
        udp->StartRecv(zstest::Buf(), nullptr);
        for (int i = 0; i < 10; ++i)
          udp->Send(zstest::Buf(std::string(64, 'u')), {"127.0.0.1", udpEcho.Port()}, nullptr);
        if (random() % 2) udp->Close();
        RefPtr<ITcp> tcp;
        CreateTcp(tcp, &socketLoop);
        tcp->SetSink(tcpSink);
        tcp->Connect(IPEndPoint("127.0.0.1", tcpEcho.Port()), nullptr);
        for (int i = 0; i < 4; ++i) tcp->Send(zstest::Buf(std::string(512, 't')), nullptr);
        tcp->Recv(zstest::Buf(), nullptr);
        if (random() % 3 == 0) tcp->CancelRecv();
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 3));  // let some traffic flow
        if (random() % 2) tcp->Close();
        ++socketRounds;
      },
      // Channels: sends and cancels, control, and a thread that replaces the channel.
      [&](std::mt19937& random) {
        RefPtr<IChannel> c = current();
        unsigned cookie = 0;
        IChannelSendOption* option = random() % 2 ? static_cast<IChannelSendOption*>(shortSchedule) : nullptr;
        channelSends += c->Send(zstest::Buf(std::string(32, 'c')), option, cookie) == 0;
        if (random() % 3 == 0) c->CancelSend(cookie, nullptr, nullptr);
      },
      [&](std::mt19937& random) {
        RefPtr<IChannel> c = current();
        int what = static_cast<int>(random() % 4);
        if (what == 0) c->CancelAll();
        if (what == 1) c->ForceAllTimeout();
        if (what == 2) c->Close();
        if (what == 3) c->Connect("127.0.0.1", udpEcho.Port(), nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      },
      [&](std::mt19937&) { std::this_thread::sleep_for(std::chrono::milliseconds(50)), replaceChannel(); },
  };
  std::vector<std::thread> threads;
  for (size_t i = 0; i <= parts.size(); ++i)  // the posting part twice
    threads.emplace_back([&, i] {
      std::mt19937 random(static_cast<unsigned>(i));
      while (running()) parts[i % parts.size()](random);
    });
  for (auto& t : threads) t.join();
  current()->Close();
  channel = nullptr;
  EXPECT_EQ(socketLoop.Stop(), 0);
  EXPECT_EQ(callLoop.Stop(), 0);
  SetLogCallback(nullptr);

  size_t channelEvents = 0;
  for (auto& sink : channelSinks) {
    std::set<unsigned> ended;
    for (const zstest::Event& e : sink->Of("timeout")) EXPECT_TRUE(ended.insert(e.cookie).second) << e.cookie;
    channelEvents += sink->Count("");
  }
  EXPECT_TRUE(calls > 0 && restarts > 5 && socketRounds > 5 && channelSends > 100 && jobs > 0);
  EXPECT_TRUE(udpSink->Count("") > 0 && tcpSink->Count("") > 0 && channelEvents > 0);
}

}  // namespace
}  // namespace zelsocket
