// Buffers and schedules for the channel tests.
#ifndef ZELSOCKET_TESTS_CHANNEL_CHANNEL_TEST_UTIL_H
#define ZELSOCKET_TESTS_CHANNEL_CHANNEL_TEST_UTIL_H

#include <cstddef>
#include <initializer_list>
#include <string>

#include "zelsocket/buffer.h"
#include "zelsocket/channel_option.h"

namespace zstest {

inline zelsocket::RefPtr<zelsocket::IConstBuffer> Bytes(const void* data, std::size_t size) {
  zelsocket::RefPtr<zelsocket::IMutableBuffer> b;
  zelsocket::CreateBuffer(b);
  b->CopyFrom(data, static_cast<int>(size));
  return zelsocket::RefPtr<zelsocket::IConstBuffer>(b.Get());
}

inline zelsocket::RefPtr<zelsocket::IConstBuffer> Bytes(const std::string& text) {
  return Bytes(text.data(), text.size());
}

// One datagram per due entry, with these waits in milliseconds.
inline zelsocket::RefPtr<zelsocket::IChannelSendOption> Schedule(std::initializer_list<int> intervals) {
  zelsocket::RefPtr<zelsocket::IChannelSendOption> o;
  zelsocket::CreateChannelSendOption(o);
  o->SetPacketPerSend(1);
  for (int i : intervals) o->AddSendInterval(i);
  return o;
}

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_CHANNEL_CHANNEL_TEST_UTIL_H
