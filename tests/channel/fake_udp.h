// A scripted IUdp for the channel tests: records what it is asked to do and
// reports only when the test tells it to.  Loop thread only, like a real socket.
#ifndef ZELSOCKET_TESTS_CHANNEL_FAKE_UDP_H
#define ZELSOCKET_TESTS_CHANNEL_FAKE_UDP_H

#include <cstdint>
#include <mutex>
#include <vector>

#include "zelsocket/io_loop.h"
#include "zelsocket/udp.h"

namespace zstest {

class FakeUdp : public zelsocket::IUdp, public zelsocket::RefCountBase {
 public:
  struct SentDatagram {
    zelsocket::RefPtr<zelsocket::IConstBuffer> buffer;
    zelsocket::IPEndPoint dest;
    void* ctx;
  };

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void SetSink(zelsocket::IUdpSink* sink) override { this->sink = sink; }
  int Open(const zelsocket::UdpOpenOptions& options) override {
    openPorts.push_back(options.bindAddress.GetPort());
    int rc = openResults.empty() ? 0 : openResults.front();
    if (!openResults.empty()) openResults.erase(openResults.begin());
    open = rc == 0;
    return rc;
  }
  int Open(const zelsocket::IPEndPoint& address) override {
    zelsocket::UdpOpenOptions options;
    options.bindAddress = address;
    return Open(options);
  }
  int Send(zelsocket::IConstBuffer* buffer, const zelsocket::IPEndPoint& dest, void* ctx) override {
    if (sendResult != 0) return sendResult;
    sent.push_back(SentDatagram{buffer, dest, ctx});
    return 0;
  }
  int Recv(zelsocket::IMutableBuffer*, void*) override { return -1; }
  int StartRecv(zelsocket::IMutableBuffer* buffer, void*) override {
    if (startRecvResult != 0) return startRecvResult;
    recvBuffer = buffer;
    return 0;
  }
  int CancelRecv() override { return 0; }
  int Close() override {
    closed = true;
    open = false;
    return 0;
  }
  bool IsOpen() override { return open; }
  int GetLocalAddress(zelsocket::IPEndPoint&) override { return -1; }
  int SetSendBufferSize(unsigned int) override { return -1; }
  int SetRecvBufferSize(unsigned int) override { return -1; }

  // Reports the oldest unreported datagram with `status`.
  void CompleteSend(int status) {
    SentDatagram d = sent[reported++];
    if (sink) sink->OnSend(status, d.buffer, d.dest, d.ctx);
  }
  void CompleteAllSends() {
    while (reported < sent.size()) CompleteSend(0);
  }
  void Deliver(const void* data, int length, const zelsocket::IPEndPoint& from) {
    recvBuffer->CopyFrom(data, length);
    if (sink) sink->OnRecv(0, recvBuffer, from, nullptr);
  }
  void FailRecv(int status) {
    recvBuffer->Resize(0);
    if (sink) sink->OnRecv(status, recvBuffer, zelsocket::IPEndPoint(), nullptr);
  }

  zelsocket::RefPtr<zelsocket::IUdpSink> sink;
  zelsocket::IMutableBuffer* recvBuffer = nullptr;
  std::vector<int> openResults;  // consumed one per Open; 0 once empty
  std::vector<unsigned short> openPorts;
  int sendResult = 0;
  int startRecvResult = 0;
  std::vector<SentDatagram> sent;
  size_t reported = 0;
  bool open = false;
  bool closed = false;
};

}  // namespace zstest

namespace zstest {

// Every socket the channel under test makes, in order; set up by the factory
// from the `next...` results.  Used from the loop thread and the test thread.
struct FakeUdpFactory {
  static std::mutex mutex;
  static std::vector<zelsocket::RefPtr<FakeUdp>> made;
  static std::vector<int> nextOpenResults;
  static int nextStartRecvResult;

  static bool Make(zelsocket::RefPtr<zelsocket::IUdp>& out, zelsocket::IOLoop*) {
    zelsocket::RefPtr<FakeUdp> fake;
    fake.Attach(new FakeUdp());
    std::lock_guard<std::mutex> lock(mutex);
    fake->openResults = nextOpenResults;
    fake->startRecvResult = nextStartRecvResult;
    made.push_back(fake);
    out = fake.Get();
    return true;
  }
  static zelsocket::RefPtr<FakeUdp> At(size_t i) {
    std::lock_guard<std::mutex> lock(mutex);
    return i < made.size() ? made[i] : zelsocket::RefPtr<FakeUdp>();
  }
  static void Reset(std::vector<int> openResults = {}, int startRecvResult = 0) {
    std::lock_guard<std::mutex> lock(mutex);
    nextOpenResults = std::move(openResults);
    nextStartRecvResult = startRecvResult;
  }
};
inline std::mutex FakeUdpFactory::mutex;
inline std::vector<zelsocket::RefPtr<FakeUdp>> FakeUdpFactory::made;
inline std::vector<int> FakeUdpFactory::nextOpenResults;
inline int FakeUdpFactory::nextStartRecvResult = 0;

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_CHANNEL_FAKE_UDP_H
