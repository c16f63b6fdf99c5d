// Internal: the IUdpSink handed to the socket operations (and by the channel to
// its socket) instead of the owner itself, so that a completion arriving after
// the owner has gone reaches nothing.
#ifndef ZELSOCKET_SRC_SOCKET_UDP_SINK_ANCHOR_H
#define ZELSOCKET_SRC_SOCKET_UDP_SINK_ANCHOR_H

#include <atomic>

#include "zelsocket/udp.h"

namespace zelsocket {

template <typename Owner>
class UdpSinkAnchor : public RefCountBase, public IUdpSink {
 public:
  using SendMethod = void (Owner::*)(int, IConstBuffer*, const IPEndPoint&, void*);
  using RecvMethod = void (Owner::*)(int, IMutableBuffer*, const IPEndPoint&, void*);

  UdpSinkAnchor(Owner* owner, SendMethod onSend, RecvMethod onRecv)
      : m_owner(owner), m_onSend(onSend), m_onRecv(onRecv) {}

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void OnSend(int status, IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) override {
    Owner* owner = m_owner.load(std::memory_order_acquire);
    if (owner && m_onSend) (owner->*m_onSend)(status, buffer, dest, ctx);
  }
  void OnRecv(int status, IMutableBuffer* buffer, const IPEndPoint& from, void* ctx) override {
    Owner* owner = m_owner.load(std::memory_order_acquire);
    if (owner && m_onRecv) (owner->*m_onRecv)(status, buffer, from, ctx);
  }

  // Called by the owner as it goes; every later call does nothing.
  void Disconnect() { m_owner.store(nullptr, std::memory_order_release); }

 private:
  std::atomic<Owner*> m_owner;
  const SendMethod m_onSend;
  const RecvMethod m_onRecv;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_UDP_SINK_ANCHOR_H
