// Internal: the ITcpSink handed to the TCP operations instead of the socket
// itself.  The operations' records may outlive the socket; once the socket has
// disconnected its anchor, a late completion reaches nothing.
#ifndef ZELSOCKET_SRC_SOCKET_TCP_SINK_ANCHOR_H
#define ZELSOCKET_SRC_SOCKET_TCP_SINK_ANCHOR_H

#include <atomic>

#include "zelsocket/tcp.h"

namespace zelsocket {

template <typename Owner>
class TcpSinkAnchor : public RefCountBase, public ITcpSink {
 public:
  using ConnectMethod = void (Owner::*)(int, const IPEndPoint&, void*);
  using SendMethod = void (Owner::*)(int, IConstBuffer*, void*);
  using RecvMethod = void (Owner::*)(int, IMutableBuffer*, void*);

  TcpSinkAnchor(Owner* owner, ConnectMethod onConnect, SendMethod onSend, RecvMethod onRecv)
      : m_owner(owner), m_onConnect(onConnect), m_onSend(onSend), m_onRecv(onRecv) {}

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void OnConnect(int status, const IPEndPoint& address, void* ctx) override {
    Owner* owner = m_owner.load(std::memory_order_acquire);
    if (owner && m_onConnect) (owner->*m_onConnect)(status, address, ctx);
  }
  // OnAccept keeps the interface's empty default: a client socket never accepts.
  void OnSend(int status, IConstBuffer* buffer, void* ctx) override {
    Owner* owner = m_owner.load(std::memory_order_acquire);
    if (owner && m_onSend) (owner->*m_onSend)(status, buffer, ctx);
  }
  void OnRecv(int status, IMutableBuffer* buffer, void* ctx) override {
    Owner* owner = m_owner.load(std::memory_order_acquire);
    if (owner && m_onRecv) (owner->*m_onRecv)(status, buffer, ctx);
  }

  // Called by the owner as it goes; every later call does nothing.
  void Disconnect() { m_owner.store(nullptr, std::memory_order_release); }

 private:
  std::atomic<Owner*> m_owner;
  const ConnectMethod m_onConnect;
  const SendMethod m_onSend;
  const RecvMethod m_onRecv;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_TCP_SINK_ANCHOR_H
