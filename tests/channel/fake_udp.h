// A scripted IUdp for the channel tests: it records what it is asked to do and
// reports only when the test says so, which makes the orders of events exact.
#ifndef ZELSOCKET_TESTS_CHANNEL_FAKE_UDP_H
#define ZELSOCKET_TESTS_CHANNEL_FAKE_UDP_H

#include "support/recorder.h"
#include "zelsocket/channel_option.h"

namespace zstest {
using namespace zelsocket;

// One datagram per due entry, with these waits in milliseconds.
inline RefPtr<IChannelSendOption> Schedule(const std::vector<int>& intervals) {
  RefPtr<IChannelSendOption> o;
  CreateChannelSendOption(o);
  o->SetPacketPerSend(1);
  for (int i : intervals) o->AddSendInterval(i);
  return o;
}

class FakeUdp : public IUdp, public RefCountBase {
 public:
  struct Datagram {
    RefPtr<IConstBuffer> buffer;
    IPEndPoint dest;
    void* ctx;
  };
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void SetSink(IUdpSink* s) override { sink = s; }
  int Open(const UdpOpenOptions& options) override {
    openPorts.push_back(options.bindAddress.GetPort());
    open = openResults.size() < openPorts.size() || openResults[openPorts.size() - 1] == 0;
    return open ? 0 : openResults[openPorts.size() - 1];
  }
  int Open(const IPEndPoint& address) override {
    UdpOpenOptions options;
    options.bindAddress = address;
    return Open(options);
  }
  int Send(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) override {
    return sent.push_back(Datagram{buffer, dest, ctx}), 0;
  }
  int Recv(IMutableBuffer*, void*) override { return -1; }
  int StartRecv(IMutableBuffer* buffer, void*) override { return recvBuffer = buffer, startRecvResult; }
  int CancelRecv() override { return 0; }
  int Close() override { return closed = true, open = false, 0; }
  bool IsOpen() override { return open; }
  int GetLocalAddress(IPEndPoint&) override { return -1; }
  int SetSendBufferSize(unsigned int) override { return -1; }
  int SetRecvBufferSize(unsigned int) override { return -1; }

  // Reports the oldest unreported datagram.
  void CompleteSend(int status) {
    Datagram d = sent[reported++];
    if (sink) sink->OnSend(status, d.buffer, d.dest, d.ctx);
  }
  void Deliver(const std::string& data, const IPEndPoint& from) {
    recvBuffer->CopyFrom(data.data(), static_cast<int>(data.size()));
    if (sink) sink->OnRecv(0, recvBuffer, from, nullptr);
  }
  void FailRecv(int status) {
    recvBuffer->Resize(0);
    if (sink) sink->OnRecv(status, recvBuffer, IPEndPoint(), nullptr);
  }

  RefPtr<IUdpSink> sink;
  IMutableBuffer* recvBuffer = nullptr;
  std::vector<int> openResults;  // one per Open; 0 after the last
  std::vector<unsigned short> openPorts;
  int startRecvResult = 0;
  std::vector<Datagram> sent;
  size_t reported = 0;
  bool open = false, closed = false;
};

// Every socket the channel under test makes, in order, set up from the `next`
// results.  Used from the loop thread and the test thread.
struct FakeUdpFactory {
  static inline std::mutex mutex;
  static inline std::vector<RefPtr<FakeUdp>> made;
  static inline std::vector<int> nextOpenResults;
  static inline int nextStartRecvResult = 0;

  static bool Make(RefPtr<IUdp>& out, IOLoop*) {
    std::lock_guard<std::mutex> lock(mutex);
    made.emplace_back().Attach(new FakeUdp());
    made.back()->openResults = nextOpenResults;
    made.back()->startRecvResult = nextStartRecvResult;
    return out = made.back().Get(), true;
  }
  static RefPtr<FakeUdp> At(size_t i) {
    std::lock_guard<std::mutex> lock(mutex);
    return i < made.size() ? made[i] : RefPtr<FakeUdp>();
  }
  static void Reset(std::vector<int> openResults = {}, int startRecvResult = 0) {
    std::lock_guard<std::mutex> lock(mutex);
    made.clear();
    nextOpenResults = std::move(openResults);
    nextStartRecvResult = startRecvResult;
  }
};

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_CHANNEL_FAKE_UDP_H
