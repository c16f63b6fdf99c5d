// Internal: the UDP socket behind IUdp.
//
// All state belongs to the loop thread.  Blocking operations (SetSink, Open,
// CancelRecv, Close) run there through SyncCall; data-carrying ones (Send,
// Recv, StartRecv) hop through the socket's own Async, which Close cancels.
// The send queue is limited in bytes and feeds one uv_udp_send at a time.
//
// Choices made where the behaviour was open:
// - Open reports -1 when the loop no longer runs and the open could not happen.
// - A receive whose arming fails clears the receiving flags at once (one-shot
//   and continuous alike) and reports the failure from the call queue; such a
//   report leaves the flags alone, so that it never disarms a receive armed
//   after it.  A failed continuous receive therefore never blocks later ones.
// - Close detaches a send still in flight from the socket and gives the socket a
//   fresh send operation, so a datagram sent right after Close is queued and
//   goes out at once rather than being refused while libuv finishes the old one.
// - If the loop has stopped before the socket is destroyed, the destructor can
//   no longer close the handle; it frees what it owns and leaves libuv's state
//   to the dead loop.
#ifndef ZELSOCKET_SRC_SOCKET_UDP_IMPL_H
#define ZELSOCKET_SRC_SOCKET_UDP_IMPL_H

#include <uv.h>

#include <atomic>
#include <deque>

#include "socket/udp_sink_anchor.h"
#include "socket/uv_udp_recv.h"
#include "socket/uv_udp_send.h"
#include "zelsocket/async.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"
#include "zelsocket/udp.h"

namespace zelsocket {

class UdpImpl : public IUdp, public RefCountBase {
 public:
  // Accepts new datagrams while at most this many bytes are queued.
  static constexpr int kMaxQueuedBytes = 0x20000;
  static constexpr int kRecvBufferSize = 0x80000;
  static constexpr int kRecvBufferFallback = 0x20000;

  explicit UdpImpl(IOLoop* loop);
  ~UdpImpl() override;

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void SetSink(IUdpSink* sink) override;
  int Open(const UdpOpenOptions& options) override;
  int Open(const IPEndPoint& address) override;
  int Send(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) override;
  int Recv(IMutableBuffer* buffer, void* ctx) override;
  int StartRecv(IMutableBuffer* buffer, void* ctx) override;
  int CancelRecv() override;
  int Close() override;
  bool IsOpen() override;
  int GetLocalAddress(IPEndPoint& address) override;
  int SetSendBufferSize(unsigned int size) override;
  int SetRecvBufferSize(unsigned int size) override;

  // For tests: bytes waiting behind the datagram in flight.
  int QueuedBytes() const { return m_queuedBytes; }

 private:
  struct UdpSendRecord {
    void* ctx;
    IPEndPoint dest;
    RefPtr<IConstBuffer> buffer;
  };

  enum : unsigned { kSending = 1, kReceiving = 2, kContinuous = 4 };

  void _Open(const UdpOpenOptions& options, int& ret);
  int _Send(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx);
  void _AsyncSend(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx);
  void _SendQueueData();
  // Hands one datagram to the send operation; a refusal is reported later.
  void _StartSend(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx);
  int _Recv(bool continuous, IMutableBuffer* buffer, void* ctx);
  void _AsyncRecv(bool continuous, IMutableBuffer* buffer, void* ctx);
  void _CancelRecv();
  void _Close();
  void _DropQueue();
  // Targets of the sink anchor: reports of the operations.
  void _OnSend(int status, IConstBuffer* buffer, const IPEndPoint& dest, void* ctx);
  void _OnRecv(int status, IMutableBuffer* buffer, const IPEndPoint& from, void* ctx);
  // `fromOp`: the report ends what was handed to an operation (and so clears its
  // flag); otherwise it concerns something that never got that far.
  void _ReportSend(bool fromOp, int status, IConstBuffer* buffer, const IPEndPoint& dest, void* ctx);
  void _ReportRecv(bool fromOp, int status, IMutableBuffer* buffer, const IPEndPoint& from, void* ctx);
  // Takes a temporary reference for a report; false once the last reference is
  // gone (the destructor is on its way to the loop thread).
  bool _Keep(RefPtr<UdpImpl>& keep);

  IOLoop* const m_loop;
  std::atomic<uv_udp_t*> m_handle{nullptr};
  Async m_async;
  RefPtr<UvUdpSend> m_sendOp;
  RefPtr<UvUdpRecv> m_recvOp;
  RefPtr<UdpSinkAnchor<UdpImpl>> m_sinkAnchor;
  RefPtr<IUdpSink> m_sink;
  std::deque<UdpSendRecord*> m_sendQueue;
  int m_queuedBytes = 0;
  BitFlag m_flags;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_UDP_IMPL_H
