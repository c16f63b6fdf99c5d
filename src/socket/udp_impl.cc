#include "socket/udp_impl.h"

#include <cstdlib>

#include "core/check.h"
#include "loop/async_impl.h"
#include "loop/run_on_loop.h"
#include "core/logging.h"
#include "socket/non_lsp_socket.h"

namespace zelsocket {

namespace {

void FreeHandle(uv_handle_t* handle) { std::free(handle); }

std::string AddressText(const IPEndPoint& dest) { return dest.GetAddress().GetString(); }

}  // namespace

UdpImpl::UdpImpl(IOLoop* loop) : m_loop(loop ? loop : IOLoop::GetLoop()), m_async(m_loop) {
  m_sendOp.Attach(new UvUdpSend(m_loop));
  m_recvOp.Attach(new UvUdpRecv(m_loop));
  m_sinkAnchor.Attach(new UdpSinkAnchor<UdpImpl>(this, &UdpImpl::_OnSend, &UdpImpl::_OnRecv));
}

UdpImpl::~UdpImpl() {
  // Completions that are still on their way reach nothing from here on.
  m_sinkAnchor->Disconnect();
  RunFinalOnLoop(m_loop, [this] {
    if (m_loop) _Close();
    else m_async.Cancel();  // never had a loop, so never a handle
  });
}

bool UdpImpl::_Keep(RefPtr<UdpImpl>& keep) {
  if (!InternalTryAddRef()) return false;
  keep.Attach(this);
  return true;
}

void UdpImpl::SetSink(IUdpSink* sink) {
  if (!m_loop) return;
  RefPtr<IUdpSink> next(sink);
  RunOnLoop(m_loop, [this, &next] { m_sink = next; });
}

int UdpImpl::Open(const UdpOpenOptions& options) {
  if (!m_loop) return -1;
  int ret = -1;
  if (!RunOnLoop(m_loop, [this, &options, &ret] { _Open(options, ret); })) return -1;
  return ret;
}

int UdpImpl::Open(const IPEndPoint& address) {
  UdpOpenOptions options;
  options.bindAddress = address;
  options.nonLspSocket = true;
  return Open(options);
}

void UdpImpl::_Open(const UdpOpenOptions& options, int& ret) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  ret = 0;
  if (m_handle.load(std::memory_order_relaxed)) {
    LogInfo(tag::kUdp, "UvUdpImpl.Open, udp already open.");
    ret = -1;
    return;
  }
  // Refused here rather than left to the socket call: Linux refuses a socket
  // of no family, but Winsock picks a provider for it and only the bind fails.
  if (!options.bindAddress.GetAddress().IsValid()) {
    LogInfo(tag::kUdp, "UvUdpImpl.Open, bind address unset.");
    ret = -1;
    return;
  }
  auto* block = static_cast<uv_udp_t*>(std::calloc(1, sizeof(uv_udp_t)));
  if (!block) throw std::bad_alloc();
  int rc = uv_udp_init(m_loop->Loop(), block);
  if (rc != 0) {
    LogInfo(tag::kUdp, "UvUdpImpl, uv_udp_init fail, ret=%d, %s", rc, uv_strerror(rc));
    ret = rc;
    std::free(block);
    return;
  }

  const sockaddr* bindAddress = options.bindAddress.GetSockAddr();
  SocketHandle socket = options.nonLspSocket ? CreateNonLSPSocket(bindAddress->sa_family)
                                             : NativeNonLspPlatform().Socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (socket == kInvalidSocket) {
    LogInfo(tag::kUdp, "UvUdpImpl, CreateNonLSPSocket fail, non-lsp-socket=%d", options.nonLspSocket ? 1 : 0);
    ret = -1;
  } else if ((rc = uv_udp_open(block, socket)) != 0) {
    LogInfo(tag::kUdp, "UvUdpImpl, uv_udp_open fail, ret=%d, %s", rc, uv_strerror(rc));
    ret = rc;
    CloseSocketHandle(socket);
  } else if ((rc = uv_udp_bind(block, bindAddress, 0)) != 0) {
    // The socket belongs to the handle now; closing the handle closes it.
    LogInfo(tag::kUdp, "UvUdpImpl, uv_udp_bind fail, port=%u, ret=%d, %s",
            static_cast<unsigned>(options.bindAddress.GetPort()), rc, uv_strerror(rc));
    ret = rc;
  } else {
    int size = kRecvBufferSize;
    if (uv_recv_buffer_size(reinterpret_cast<uv_handle_t*>(block), &size) != 0) {
      size = kRecvBufferFallback;
      if (uv_recv_buffer_size(reinterpret_cast<uv_handle_t*>(block), &size) != 0) {
        LogInfo(tag::kUdp, "UvUdpImpl, uv_recv_buffer_size fail, size=%d", kRecvBufferFallback);
      }
    }
    m_handle.store(block, std::memory_order_release);
    return;
  }
  uv_close(reinterpret_cast<uv_handle_t*>(block), &FreeHandle);
}

int UdpImpl::Send(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) {
  if (!m_loop || !buffer || !dest.IsValid()) return -1;
  if (m_loop->IsLoopThread()) return _Send(buffer, dest, ctx);
  RefPtr<IConstBuffer> held(buffer);
  int rc = AsyncImpl::Of(&m_async)->Post([this, held, dest, ctx] { _AsyncSend(held, dest, ctx); });
  if (rc != 0) {
    LogInfo(tag::kUdp, "UdpImpl::Send, AsyncCall fail, ret=%d", rc);
    return rc;
  }
  return 0;
}

void UdpImpl::_AsyncSend(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  int rc = _Send(buffer, dest, ctx);
  if (rc != 0) _ReportSend(false, rc, buffer, dest, ctx);
}

int UdpImpl::_Send(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (!m_handle.load(std::memory_order_relaxed)) {
    UdpOpenOptions options;
    options.bindAddress = IPEndPoint(IPAddress::Any, 0);
    options.nonLspSocket = true;
    int ret = 0;
    _Open(options, ret);
    if (ret != 0) {
      LogInfo(tag::kUdp, "UvUdpImpl, _Send, Open Fail, ret=%d, dest-addr=%s", ret, AddressText(dest).c_str());
      return ret;
    }
  }
  // Compared before the new datagram counts: the queue may pass the limit by one.
  if (m_queuedBytes > kMaxQueuedBytes) {
    LogInfo(tag::kUdp, "UvUdpImpl, _Send, send queue is full, drop the data, queue-size=%u, dest-addr=%s.",
            static_cast<unsigned>(m_queuedBytes), AddressText(dest).c_str());
    return -1;
  }
  if (m_sendQueue.empty() && !m_flags.IsFlagOn(kSending)) {
    // Nothing ahead of it: it would leave the queue at once, so it skips it.
    _StartSend(buffer, dest, ctx);
    return 0;
  }
  m_sendQueue.push_back(new UdpSendRecord{ctx, dest, RefPtr<IConstBuffer>(buffer)});
  m_queuedBytes += buffer->GetLength();
  _SendQueueData();
  return 0;
}

void UdpImpl::_SendQueueData() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (m_sendQueue.empty() || m_flags.IsFlagOn(kSending)) return;
  UdpSendRecord* record = m_sendQueue.front();
  m_sendQueue.pop_front();
  m_queuedBytes -= record->buffer->GetLength();
  _StartSend(record->buffer, record->dest, record->ctx);
  delete record;
}

void UdpImpl::_StartSend(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  int rc = m_sendOp->Send(m_handle.load(std::memory_order_relaxed), buffer, dest, m_sinkAnchor, ctx);
  if (rc != 0) {
    LogInfo(tag::kUdp, "UvUdpImpl::_SendQueueData, Send fail, ret=%d", rc);
    // Reported from the call queue, never from inside the call that queued it.
    RefPtr<IConstBuffer> held(buffer);
    m_async.AsyncCall([this, rc, held, dest, ctx] { _ReportSend(true, rc, held, dest, ctx); });
  }
  m_flags.SetFlag(kSending);
}

void UdpImpl::_OnSend(int status, IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) {
  _ReportSend(true, status, buffer, dest, ctx);
}

void UdpImpl::_ReportSend(bool fromOp, int status, IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  // The sink may release the last reference to this socket; and a socket whose
  // last reference is gone is being torn down: it reports nothing more.
  RefPtr<UdpImpl> keep;
  if (!_Keep(keep)) return;
  if (fromOp) m_flags.ResetFlag(kSending);
  if (status != 0) LogInfo(tag::kUdp, "UvUdpImpl::_OnSend, Send Fail, ret=%d", status);
  _SendQueueData();
  if (m_sink) {
    RefPtr<IUdpSink> sink = m_sink;
    sink->OnSend(status, buffer, dest, ctx);
  }
}

int UdpImpl::Recv(IMutableBuffer* buffer, void* ctx) {
  if (!m_loop || !buffer) return -1;
  if (m_loop->IsLoopThread()) return _Recv(false, buffer, ctx);
  RefPtr<IMutableBuffer> held(buffer);
  int rc = AsyncImpl::Of(&m_async)->Post([this, held, ctx] { _AsyncRecv(false, held, ctx); });
  if (rc != 0) LogInfo(tag::kUdp, "UdpImpl::Recv, AsyncCall fail, ret=%d", rc);
  return rc;
}

int UdpImpl::StartRecv(IMutableBuffer* buffer, void* ctx) {
  if (!m_loop || !buffer) return -1;
  if (m_loop->IsLoopThread()) return _Recv(true, buffer, ctx);
  RefPtr<IMutableBuffer> held(buffer);
  int rc = AsyncImpl::Of(&m_async)->Post([this, held, ctx] { _AsyncRecv(true, held, ctx); });
  if (rc != 0) LogInfo(tag::kUdp, "UdpImpl::Recv, AsyncCall fail, ret=%d", rc);
  return rc;
}

void UdpImpl::_AsyncRecv(bool continuous, IMutableBuffer* buffer, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  int rc = _Recv(continuous, buffer, ctx);
  if (rc != 0) {
    LogInfo(tag::kUdp, "UdpImpl::_AsyncRecv, _Recv fail, ret=%d", rc);
    _ReportRecv(false, rc, buffer, IPEndPoint(), ctx);
  }
}

int UdpImpl::_Recv(bool continuous, IMutableBuffer* buffer, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (m_flags.IsFlagOn(kReceiving)) {
    LogInfo(tag::kUdp, "UvUdpImpl::_Recv, _Recv fail, in progress.");
    return -1;
  }
  uv_udp_t* handle = m_handle.load(std::memory_order_relaxed);
  if (!handle) {
    LogInfo(tag::kUdp, "UvUdpImpl::_Recv, _Recv fail, not open.");
    return -1;
  }
  int rc = m_recvOp->Recv(handle, continuous, buffer, m_sinkAnchor, ctx);
  if (rc == 0) {
    m_flags.SetFlag(kReceiving);
    if (continuous) m_flags.SetFlag(kContinuous);
    return 0;
  }
  LogInfo(tag::kUdp, "UvUdpImpl::RecvFrom, Recv fail, ret=%d", rc);
  RefPtr<IMutableBuffer> held(buffer);
  m_async.AsyncCall([this, rc, held, ctx] { _ReportRecv(false, rc, held, IPEndPoint(), ctx); });
  return 0;
}

void UdpImpl::_OnRecv(int status, IMutableBuffer* buffer, const IPEndPoint& from, void* ctx) {
  _ReportRecv(true, status, buffer, from, ctx);
}

void UdpImpl::_ReportRecv(bool fromOp, int status, IMutableBuffer* buffer, const IPEndPoint& from, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  RefPtr<UdpImpl> keep;
  if (!_Keep(keep)) return;
  // After a one-shot receive the sink may arm the next one from inside the call.
  if (fromOp && !m_flags.IsFlagOn(kContinuous)) m_flags.ResetFlag(kReceiving);
  if (m_sink) {
    RefPtr<IUdpSink> sink = m_sink;
    sink->OnRecv(status, buffer, from, ctx);
  }
}

int UdpImpl::CancelRecv() {
  if (!m_loop) return -1;
  RunOnLoop(m_loop, [this] { _CancelRecv(); });
  return 0;
}

void UdpImpl::_CancelRecv() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  m_flags.ResetFlag(kReceiving | kContinuous);
  m_recvOp->Cancel();
}

int UdpImpl::Close() {
  if (!m_loop) return -1;
  RunOnLoop(m_loop, [this] { _Close(); });
  return 0;
}

void UdpImpl::_DropQueue() {
  for (UdpSendRecord* record : m_sendQueue) delete record;
  m_sendQueue.clear();
  m_queuedBytes = 0;
}

void UdpImpl::_Close() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  _DropQueue();
  m_async.Cancel();
  if (m_sendOp->IsBusy()) {
    // The old operation finishes by itself, silenced; new datagrams need not wait for it.
    m_sendOp->Cancel();
    m_sendOp.Attach(new UvUdpSend(m_loop));
  }
  m_recvOp->Cancel();
  m_flags.ResetAll();
  uv_udp_t* handle = m_handle.exchange(nullptr, std::memory_order_acq_rel);
  if (handle) uv_close(reinterpret_cast<uv_handle_t*>(handle), &FreeHandle);
}

bool UdpImpl::IsOpen() { return m_handle.load(std::memory_order_acquire) != nullptr; }

int UdpImpl::GetLocalAddress(IPEndPoint& address) {
  uv_udp_t* handle = m_handle.load(std::memory_order_acquire);
  if (!handle) return -1;
  sockaddr_in local = {};
  int length = sizeof local;
  if (uv_udp_getsockname(handle, reinterpret_cast<sockaddr*>(&local), &length) != 0) return -1;
  if (local.sin_family != AF_INET) return -1;
  return address.FromSockaddr(reinterpret_cast<const sockaddr*>(&local)) ? 0 : -1;
}

int UdpImpl::SetSendBufferSize(unsigned int /*size*/) { return -1; }
int UdpImpl::SetRecvBufferSize(unsigned int /*size*/) { return -1; }

}  // namespace zelsocket
