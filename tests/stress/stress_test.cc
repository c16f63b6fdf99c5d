// Many application threads use every cross-thread operation of the library at
// once — posted, synchronous and delayed calls, background work and its
// cancellation, UDP and TCP sockets, channels — while other threads release
// the last references and an owner stops and restarts a loop.  Bounded in time;
// what it checks is that nothing crashes, hangs, leaks or races (the sanitizer
// trees run it too), that every part made progress, and that no packet ends
// twice.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "support/peers.h"
#include "zelsocket/zelsocket.h"

namespace zelsocket {
namespace {

using Clock = std::chrono::steady_clock;

void Quiet(LOG_LEVEL, const char*, const char*) {}

template <typename Interface>
class CountingSink : public Interface, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  std::atomic<long> events{0};
};

class UdpSink : public CountingSink<IUdpSink> {
 public:
  void OnSend(int, IConstBuffer*, const IPEndPoint&, void*) override { ++events; }
  void OnRecv(int, IMutableBuffer*, const IPEndPoint&, void*) override { ++events; }
};

class TcpSink : public CountingSink<ITcpSink> {
 public:
  void OnConnect(int, const IPEndPoint&, void*) override { ++events; }
  void OnSend(int, IConstBuffer*, void*) override { ++events; }
  void OnRecv(int, IMutableBuffer*, void*) override { ++events; }
};

// One per channel (its callbacks come on the loop thread); `total` counts the
// events of all channels.
class ChannelSink : public CountingSink<IChannelSink> {
 public:
  explicit ChannelSink(std::atomic<long>* total, std::atomic<int>* doubleEnds)
      : m_total(total), m_doubleEnds(doubleEnds) {}
  void OnConnect(int) override { ++*m_total; }
  void OnSend(unsigned int, IConstBuffer*, const IPEndPoint&) override { ++*m_total; }
  void OnRecv(unsigned char*, int, const IPEndPoint&) override { ++*m_total; }
  void OnTimeout(unsigned int cookie, int) override {
    ++*m_total;
    if (!m_timedOut.insert(cookie).second) ++*m_doubleEnds;
  }
  void OnClose() override { ++*m_total; }

 private:
  std::atomic<long>* m_total;
  std::atomic<int>* m_doubleEnds;
  std::set<unsigned int> m_timedOut;
};

RefPtr<IConstBuffer> Bytes(int size) {
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  std::vector<char> data(static_cast<size_t>(size), 'z');
  b->CopyFrom(data.data(), size);
  return RefPtr<IConstBuffer>(b.Get());
}

TEST(Stress, EveryCrossThreadOperationAtOnce) {
  SetLogCallback(Quiet);
  const auto deadline = Clock::now() + std::chrono::milliseconds(2000);
  auto running = [&] { return Clock::now() < deadline; };

  zstest::UdpEchoPeer udpEcho;
  zstest::TcpEchoPeer tcpEcho;
  IOLoop socketLoop, callLoop;
  ASSERT_EQ(socketLoop.Start(), 0);
  ASSERT_EQ(callLoop.Start(), 0);

  std::atomic<long> calls{0}, syncCalls{0}, jobs{0}, restarts{0}, udpRounds{0}, tcpRounds{0}, channelSends{0},
      channelControl{0}, channelSwaps{0};
  RefPtr<UdpSink> udpSink;
  udpSink.Attach(new UdpSink());
  RefPtr<TcpSink> tcpSink;
  tcpSink.Attach(new TcpSink());
  std::atomic<long> channelEvents{0};
  std::atomic<int> doubleEnds{0};

  // The current channel; threads take their own reference under the lock, so
  // the last reference of a replaced channel goes on whichever thread drops it.
  std::mutex channelMutex;
  RefPtr<IChannel> channel;
  auto newChannel = [&] {
    RefPtr<IChannel> c;
    CreateUdpChannel(c, &socketLoop);
    RefPtr<ChannelSink> sink;
    sink.Attach(new ChannelSink(&channelEvents, &doubleEnds));
    c->SetSink(sink);
    c->Connect("127.0.0.1", udpEcho.Port(), nullptr);
    return c;
  };
  channel = newChannel();
  auto currentChannel = [&] {
    std::lock_guard<std::mutex> lock(channelMutex);
    return channel;
  };
  ChannelSendOption shortSchedule;
  shortSchedule.SetPacketPerSend(1);
  shortSchedule.AddSendInterval(20);
  shortSchedule.AddSendInterval(20);

  std::vector<std::thread> threads;
  // Posting to a loop that an owner keeps stopping and restarting.
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      auto token = std::make_shared<int>();
      while (running()) {
        callLoop.AsyncCall([token, &calls] { ++calls; });
        if (callLoop.SyncCall([token] {}) == 0) ++syncCalls;
        callLoop.DelayCall(5, [token] {});
      }
    });
  }
  threads.emplace_back([&] {
    while (running()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(15));  // pacing, not synchronisation
      callLoop.Stop();
      callLoop.Start();
      ++restarts;
    }
  });
  // Background work, cancelled and destroyed with jobs in flight.
  threads.emplace_back([&] {
    std::mt19937 random(1);
    while (running()) {
      auto* work = new Work(&callLoop);
      auto* sequence = new SequenceWork(&callLoop);
      for (int i = 0; i < 8; ++i) {
        work->QueueWork([] {}, [&jobs](int) { ++jobs; });
        sequence->QueueWork([] {}, [&jobs](int) { ++jobs; });
        if (random() % 4 == 0) work->Cancel();
        if (random() % 4 == 0) sequence->Cancel();
      }
      delete work;
      delete sequence;
    }
  });
  // UDP sockets opened, used from this thread and released, some without Close.
  threads.emplace_back([&] {
    std::mt19937 random(2);
    IPEndPoint echo("127.0.0.1", udpEcho.Port());
    while (running()) {
      RefPtr<IUdp> udp;
      CreateUdp(udp, &socketLoop);
      udp->SetSink(udpSink);
      udp->Open(IPEndPoint("127.0.0.1", 0));
      RefPtr<IMutableBuffer> in;
      CreateBuffer(in);
      udp->StartRecv(in, nullptr);
      for (int i = 0; i < 10; ++i) udp->Send(Bytes(64), echo, nullptr);
      if (random() % 2) udp->Close();
      ++udpRounds;
    }
  });
  // TCP sockets: connect, send, receive, then Close or a bare release.
  threads.emplace_back([&] {
    std::mt19937 random(3);
    IPEndPoint echo("127.0.0.1", tcpEcho.Port());
    while (running()) {
      RefPtr<ITcp> tcp;
      CreateTcp(tcp, &socketLoop);
      tcp->SetSink(tcpSink);
      tcp->Connect(echo, nullptr);
      for (int i = 0; i < 4; ++i) tcp->Send(Bytes(512), nullptr);
      RefPtr<IMutableBuffer> in;
      CreateBuffer(in);
      tcp->Recv(in, nullptr);
      if (random() % 3 == 0) tcp->CancelRecv();
      std::this_thread::sleep_for(std::chrono::milliseconds(random() % 3));  // let some traffic flow
      if (random() % 2) tcp->Close();
      ++tcpRounds;
    }
  });
  // Channels: sends and cancels from one thread, control from another, and a
  // third that replaces the channel, dropping references as it goes.
  threads.emplace_back([&] {
    std::mt19937 random(4);
    while (running()) {
      RefPtr<IChannel> c = currentChannel();
      unsigned int cookie = 0;
      if (c->Send(Bytes(32), random() % 2 ? static_cast<IChannelSendOption*>(shortSchedule) : nullptr, cookie) == 0)
        ++channelSends;
      if (random() % 3 == 0) {
        int retry = 0, send = 0;
        c->CancelSend(cookie, &retry, &send);
      }
    }
  });
  threads.emplace_back([&] {
    std::mt19937 random(5);
    while (running()) {
      RefPtr<IChannel> c = currentChannel();
      switch (random() % 4) {
        case 0:
          c->CancelAll();
          break;
        case 1:
          c->ForceAllTimeout();
          break;
        case 2:
          c->Close();
          break;
        default:
          c->Connect("127.0.0.1", udpEcho.Port(), nullptr);
          break;
      }
      ++channelControl;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  threads.emplace_back([&] {
    while (running()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      RefPtr<IChannel> fresh = newChannel();
      {
        std::lock_guard<std::mutex> lock(channelMutex);
        channel = fresh;
      }
      ++channelSwaps;
    }
  });
  for (auto& t : threads) t.join();

  {
    std::lock_guard<std::mutex> lock(channelMutex);
    channel->Close();
    channel = nullptr;
  }
  EXPECT_EQ(socketLoop.Stop(), 0);
  EXPECT_EQ(callLoop.Stop(), 0);
  SetLogCallback(nullptr);

  std::printf(
      "calls=%ld sync=%ld jobs=%ld restarts=%ld udp=%ld tcp=%ld channel-sends=%ld control=%ld swaps=%ld "
      "udp-events=%ld tcp-events=%ld channel-events=%ld\n",
      calls.load(), syncCalls.load(), jobs.load(), restarts.load(), udpRounds.load(), tcpRounds.load(),
      channelSends.load(), channelControl.load(), channelSwaps.load(), udpSink->events.load(), tcpSink->events.load(),
      channelEvents.load());
  EXPECT_GT(calls.load(), 0);
  EXPECT_GT(syncCalls.load(), 0);
  EXPECT_GT(restarts.load(), 5);
  EXPECT_GT(udpRounds.load(), 5);
  EXPECT_GT(tcpRounds.load(), 5);
  EXPECT_GT(channelSends.load(), 100);
  EXPECT_GT(udpSink->events.load(), 0);
  EXPECT_GT(tcpSink->events.load(), 0);
  EXPECT_GT(channelEvents.load(), 0);
  EXPECT_EQ(doubleEnds.load(), 0);
}

}  // namespace
}  // namespace zelsocket
