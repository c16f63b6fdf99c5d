// A recording IChannelSink shared by the channel tests.
#ifndef ZELSOCKET_TESTS_CHANNEL_CHANNEL_SINK_H
#define ZELSOCKET_TESTS_CHANNEL_CHANNEL_SINK_H

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/channel.h"

namespace zstest {

class ChannelSink : public zelsocket::IChannelSink, public zelsocket::RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void OnConnect(int status) override { Record("connect:" + std::to_string(status), onConnect, status); }
  void OnSend(unsigned int cookie, zelsocket::IConstBuffer*, const zelsocket::IPEndPoint& dest) override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      sendDests.push_back(dest.GetPort());
    }
    Record("send:" + std::to_string(cookie), onSend, cookie);
  }
  void OnRecv(unsigned char* data, int length, const zelsocket::IPEndPoint&) override {
    std::string text(reinterpret_cast<char*>(data), static_cast<size_t>(length));
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      received.push_back(text);
    }
    Record("recv:" + std::to_string(length), onRecv, length);
  }
  void OnTimeout(unsigned int cookie, int send) override {
    Record("timeout:" + std::to_string(cookie) + ":" + std::to_string(send), onTimeout, cookie);
  }
  void OnClose() override { Record("close", onClose, 0); }

  std::vector<std::string> Events() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
  }
  int Count(const std::string& prefix) {
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const auto& e : m_events) n += e.rfind(prefix, 0) == 0;
    return n;
  }
  bool WaitCount(const std::string& prefix, int n, std::chrono::milliseconds t = std::chrono::milliseconds(5000)) {
    return WaitUntil([&] { return Count(prefix) >= n; }, t);
  }
  std::vector<std::string> Received() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return received;
  }
  std::vector<unsigned short> SendDests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return sendDests;
  }

  // Hooks run on the loop thread before the event is recorded; set them before
  // the channel can call.
  std::function<void(int)> onConnect, onRecv, onClose;
  std::function<void(unsigned int)> onSend, onTimeout;

 private:
  // The hook runs first, so that whoever waits for the event also sees what
  // the hook did.
  template <typename Hook, typename Arg>
  void Record(const std::string& event, const Hook& hook, Arg arg) {
    if (hook) hook(arg);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(event);
  }

  std::mutex m_mutex;
  std::vector<std::string> m_events;
  std::vector<std::string> received;
  std::vector<unsigned short> sendDests;
};

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_CHANNEL_CHANNEL_SINK_H
