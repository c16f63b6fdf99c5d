// Internal: the TCP client socket behind ITcp.
#ifndef ZELSOCKET_SRC_SOCKET_TCP_IMPL_H
#define ZELSOCKET_SRC_SOCKET_TCP_IMPL_H

#include <uv.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>

#include "socket/tcp_sink_anchor.h"
#include "socket/uv_tcp_connect.h"
#include "socket/uv_tcp_recv.h"
#include "socket/uv_tcp_send.h"
#include "zelsocket/async.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/tcp.h"

namespace zelsocket {

// Owns one operation object; cancels it when the owner goes.  The object itself
// lives on through the `self` of a record that libuv still holds.
template <typename Op>
class TcpOpHolder {
 public:
  TcpOpHolder() { m_op.Attach(new Op()); }
  virtual ~TcpOpHolder() { m_op->Cancel(); }
  TcpOpHolder(const TcpOpHolder&) = delete;
  TcpOpHolder& operator=(const TcpOpHolder&) = delete;
  Op* operator->() const { return m_op.Get(); }

 private:
  RefPtr<Op> m_op;
};

// State belongs to the loop thread: no lock.  Connect, Send and Recv always hop
// through m_async so that Close can cancel what has not started.
class TcpImpl : public ITcp, public RefCountBase {
 public:
  static constexpr std::int32_t kMaxQueuedBytes = 0x100000;

  explicit TcpImpl(IOLoop* loop);
  ~TcpImpl() override;

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void SetSink(ITcpSink* sink) override;
  int Open(const IPEndPoint& address) override;
  int Connect(const IPEndPoint& address, void* ctx) override;
  int Accept(const IPEndPoint& address, void* ctx) override;
  int Send(IConstBuffer* buffer, void* ctx) override;
  int Recv(IMutableBuffer* buffer, void* ctx) override;
  int CancelRecv() override;
  int Close() override;
  bool IsOpen() override;
  int GetLocalAddress(IPEndPoint& address) override;
  int GetRemoteAddress(IPEndPoint& address) override;
  int SetSendBufferSize(unsigned int size) override;
  int SetRecvBufferSize(unsigned int size) override;

  // Bytes waiting in the send queue (the write in flight not counted).  Loop
  // thread; for tests.
  std::int32_t QueuedBytes() const { return m_queuedBytes; }

 private:
  struct TcpSendRecord {
    RefPtr<IConstBuffer> buffer;
    void* ctx;
  };
  struct TcpRecvRecord {
    RefPtr<IMutableBuffer> buffer;
    void* ctx;
  };

  static constexpr unsigned kSending = 2;
  static constexpr unsigned kReceiving = 4;

  // Takes a temporary reference for a report; false once the last reference is
  // gone (the destructor is on its way to the loop thread).
  bool _Keep(RefPtr<TcpImpl>& keep);

  void _Open(const IPEndPoint& address, int& ret);
  int _OpenIfClosed();
  void _AsyncConnect(const IPEndPoint& address, void* ctx);
  void _OnConnect(int status, const IPEndPoint& address, void* ctx);
  void _AsyncSend(const RefPtr<IConstBuffer>& buffer, void* ctx);
  void _SendQueueData();
  void _StartSend(const RefPtr<IConstBuffer>& buffer, void* ctx);
  void _OnSend(int status, IConstBuffer* buffer, void* ctx);
  void _AsyncRecv(const RefPtr<IMutableBuffer>& buffer, void* ctx);
  void _RecvQueueData();
  void _StartRecv(const RefPtr<IMutableBuffer>& buffer, void* ctx);
  void _OnRecv(int status, IMutableBuffer* buffer, void* ctx);
  void _CancelRecv();
  void _Close();
  void _GetAddress(IPEndPoint& address, int& ret, bool remote);
  void _DiscardQueues();
  void _Teardown();

  IOLoop* m_loop;
  // Written on the loop thread; IsOpen reads it on any thread.
  std::atomic<uv_tcp_t*> m_handle{nullptr};
  RefPtr<ITcpSink> m_sink;
  Async m_async;
  RefPtr<TcpSinkAnchor<TcpImpl>> m_sinkAnchor;
  std::unique_ptr<TcpOpHolder<UvTcpConnect>> m_connectOp;
  std::unique_ptr<TcpOpHolder<UvTcpSend>> m_sendOp;
  std::unique_ptr<TcpOpHolder<UvTcpRecv>> m_recvOp;
  std::deque<TcpSendRecord*> m_sendQueue;
  std::int32_t m_queuedBytes = 0;
  std::deque<TcpRecvRecord*> m_recvQueue;
  BitFlag m_flags;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_TCP_IMPL_H
